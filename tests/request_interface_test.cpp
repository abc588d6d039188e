#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/ftp_upload_interface.h"
#include "platform/byteorder.h"
#include "tests/fakes/fakes.h"

namespace {

// Records every call the dispatch makes.
class RecordingTargets : public IRequestTargets {
 public:
  void InsertTask(ftpFileInfo_t* task) override { tasks.push_back(*task); }
  void SetTransfer(int fileType, unsigned int ctrType, int seq) override {
    transfers.push_back({fileType, static_cast<int>(ctrType), seq});
  }
  void ConnectTo(const char* user, const char* password, const char* host, uint16_t port,
                 const char* path) override {
    connects.push_back(std::string(user) + "|" + password + "|" + host + "|" +
                       std::to_string(port) + "|" + path);
  }
  void RemoteCommand(const char* path) override { commands.push_back(path); }
  size_t Calls() const {
    return tasks.size() + transfers.size() + connects.size() + commands.size();
  }

  std::vector<ftpFileInfo_t> tasks;
  std::vector<std::vector<int>> transfers;
  std::vector<std::string> connects;
  std::vector<std::string> commands;
};

class RequestInterfaceTest : public ::testing::Test {
 protected:
  // Sends the message as one datagram through the bus handler, with targets as its context.
  void Dispatch(EVENT_E event, const std::vector<uint8_t>& message) {
    std::vector<char> datagram(kEventHeaderSize + message.size());
    ASSERT_EQ(EncodeEvent(event, message.data(), static_cast<int>(message.size()),
                          reinterpret_cast<unsigned char*>(datagram.data()), datagram.size()),
              static_cast<int>(datagram.size()));
    ASSERT_EQ(FtpUploadMngUnixDomain(0, nullptr, nullptr, datagram.data(),
                                     static_cast<int>(datagram.size()), &targets),
              0);
  }
  static std::vector<uint8_t> Header(uint32_t code, uint32_t len) {
    std::vector<uint8_t> m(8);
    StoreLE32(m.data(), code);
    StoreLE32(m.data() + 4, len);
    return m;
  }
  RecordingTargets targets;
};

TEST_F(RequestInterfaceTest, NewTaskRecordIsDecodedAndShortRecordsReadZero) {
  ftpFileInfo_t task{};
  task.type = 1;
  task.seq = 99;
  strcpy(task.fullName, "/data/a.bin");
  strcpy(task.fileName, "a.bin");
  task.valid = 1;
  task.trans = 1;
  task.server.port = 2121;
  strcpy(task.server.host, "10.0.0.1");
  std::vector<uint8_t> m = Header(kCodeNewTask, 496);
  m.resize(8 + 496);
  EncodeTaskRecord(task, m.data() + 8);
  Dispatch(EVENT_FILE_UPLOAD, m);
  ASSERT_EQ(targets.tasks.size(), 1u);
  EXPECT_EQ(0, memcmp(&targets.tasks[0], &task, sizeof(task)));

  // Cut inside the file name, right after the full record: the handler's buffer must not
  // keep the first record's bytes, the rest reads as zero.
  m.resize(8 + 140);
  Dispatch(EVENT_FILE_UPLOAD, m);
  ASSERT_EQ(targets.tasks.size(), 2u);
  EXPECT_STREQ(targets.tasks[1].fullName, "/data/a.bin");
  EXPECT_STREQ(targets.tasks[1].fileName, "a.bi");
  EXPECT_EQ(targets.tasks[1].valid, 0);
  EXPECT_EQ(targets.tasks[1].trans, 0);
  EXPECT_EQ(targets.tasks[1].server.port, 0);
  EXPECT_STREQ(targets.tasks[1].server.host, "");
}

TEST_F(RequestInterfaceTest, TransferAndServerRequestsReachTheirTargets) {
  uint8_t transfer[kTransferRequestSize], update[kServerRequestSize];
  Dispatch(EVENT_FILE_UPLOAD, {transfer, transfer + EncodeTransferRequest({3, 0xBEEF}, transfer)});
  EXPECT_EQ(targets.transfers, (std::vector<std::vector<int>>{{1, 3, 0xBEEF}}));  // recordings
  UserDefServerSet_t server{2100, "maint.example", "u", "p", "/m"};
  Dispatch(EVENT_FILE_UPLOAD, {update, update + EncodeServerRequest(server, update)});
  EXPECT_EQ(targets.connects, std::vector<std::string>{"u|p|maint.example|2100|/m"});
}

// Encoded, then decoded whole, cut short, with bytes past the request, or under another code.
TEST(RequestCodecTest, TransferAndServerRequestsRoundTrip) {
  const UserDefServerSet_t server{2100, "maint.example", "u", "p", "/m"};
  uint8_t wire[kServerRequestSize];
  ASSERT_EQ(EncodeTransferRequest({3, 0xBEEF}, wire), 12u);
  const std::vector<uint8_t> transfer = {1, 7, 0, 0, 4, 0, 0, 0, 3, 0, 0xEF, 0xBE};
  EXPECT_EQ(std::vector<uint8_t>(wire, wire + 12), transfer);
  ASSERT_EQ(EncodeServerRequest(server, wire), 234u);
  EXPECT_EQ(std::vector<uint8_t>(wire, wire + 11),
            (std::vector<uint8_t>{8, 7, 0, 0, 226, 0, 0, 0, 0x34, 0x08, 'm'}));
  // A server update or a transfer control, encoded, then code (and the length field when
  // declared is not 0) written over it; keep bytes decoded, as "ctr|seq" or "user|...|path".
  const uint32_t kT = kCodeTransfer, kS = kCodeServerUpdate;
  const std::string full = "u|p|maint.example|2100|/m";
  const struct {
    bool server;
    uint32_t code;
    size_t keep;
    uint32_t declared;
    bool ok;
    std::string decoded;
  } cases[] = {{false, kT, 12, 0, true, "3|48879"},
               {false, kT, 40, 0, true, "3|48879"},
               {false, kT, 11, 0, true, "3|239"},
               {false, kT, 1, 0, false, "0|0"},
               {false, kS, 12, 0, false, "0|0"},
               {true, kS, 234, 0, true, full},
               {true, kS, 300, 300, true, full},  // only the 226 bytes of the block count
               {true, kS, 234, 10, true, "||maint.ex|2100|"},
               {true, kS, 18, 0, true, "||maint.ex|2100|"},
               {true, kS, 1, 0, false, "|||0|"},
               {true, kT, 234, 0, false, "|||0|"}};
  for (const auto& c : cases) {
    std::vector<uint8_t> m(400, 0x41);
    c.server ? EncodeServerRequest(server, m.data()) : EncodeTransferRequest({3, 0xBEEF}, m.data());
    StoreLE32(m.data(), c.code);
    if (c.declared != 0) StoreLE32(m.data() + 4, c.declared);
    TransferRequest r{9, 9};
    UserDefServerSet_t s;
    memset(&s, 0x41, sizeof(s));
    bool ok = c.server ? DecodeServerRequest(m.data(), c.keep, &s)
                       : DecodeTransferRequest(m.data(), c.keep, &r);
    std::string got = c.server ? std::string(s.user) + "|" + s.password + "|" + s.host + "|" +
                                     std::to_string(s.port) + "|" + s.path
                               : std::to_string(r.ctrType) + "|" + std::to_string(r.seq);
    EXPECT_EQ(ok, c.ok) << c.code << " " << c.keep;
    EXPECT_EQ(got, c.decoded) << c.code << " " << c.keep;
  }
}

TEST_F(RequestInterfaceTest, OwnStatusUnknownCodesAndOtherEventsAreIgnored) {
  Dispatch(EVENT_FILE_UPLOAD, Header(0x702, 4));
  Dispatch(EVENT_FILE_UPLOAD, Header(0x703, 4));
  Dispatch(EVENT_HEARTBEAT, Header(kCodeNewTask, 496));
  std::vector<uint8_t> cmd = Header(1, 0);  // event 16 with code 1
  const char path[] = "/tmp/cmd.xml";
  cmd.insert(cmd.begin() + 4, path, path + sizeof(path));
  Dispatch(EVENT_REMOTE_CMD, cmd);
  EXPECT_EQ(targets.Calls(), 0u);

  StoreLE32(cmd.data(), 0);  // code 0: the path goes to the command handler
  Dispatch(EVENT_REMOTE_CMD, cmd);
  ASSERT_EQ(targets.commands.size(), 1u);
  EXPECT_EQ(targets.commands[0], "/tmp/cmd.xml");

  std::vector<uint8_t> full(kEventPayloadMax, 'x');  // no terminator in the message
  StoreLE32(full.data(), 0);
  Dispatch(EVENT_REMOTE_CMD, full);
  ASSERT_EQ(targets.commands.size(), 2u);
  EXPECT_EQ(targets.commands[1].size(), static_cast<size_t>(kEventPayloadMax - 4));
}

TEST(RequestListenTest, StartListenReplacesStaleRegistrationAndRejectsMalformed) {
  TempRoot root;
  LogCapture log;
  root.Write("/run/evbus/_tmp_ftpuploadfile.listen", "0000000000000001 /tmp/stale\n");
  root.Write("/tmp/ftpuploadfile.listen", "stale socket file");
  CFtpUploadInterface* iface = CFtpUploadInterface::Instance();
  iface->StartListen();
  ASSERT_NE(iface->m_hListen, nullptr);
  std::string reg;
  {
    FILE* f = fopen((root.path() + "/run/evbus/_tmp_ftpuploadfile.listen").c_str(), "r");
    ASSERT_NE(f, nullptr);
    char line[128] = {};
    ASSERT_NE(fgets(line, sizeof(line), f), nullptr);
    fclose(f);
    reg = line;
  }
  EXPECT_EQ(reg, "0000000000410000 /tmp/ftpuploadfile.listen\n");
  char junk[] = "EVB1 not an event";
  EXPECT_EQ(FtpUploadMngUnixDomain(0, nullptr, nullptr, junk, sizeof(junk), nullptr), -1);
  iface->StopListen();
  EXPECT_EQ(iface->m_hListen, nullptr);
  iface->StopListen();  // twice is harmless
}

}  // namespace
