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
  size_t Calls() const { return tasks.size() + transfers.size() + connects.size() + commands.size(); }

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

TEST_F(RequestInterfaceTest, TransferControlCarriesRecordingTypeAnd16BitSeq) {
  std::vector<uint8_t> m = Header(kCodeTransfer, 4);
  m.resize(12);
  m[8] = 3;     // an unknown control type still reaches transfer control
  m[9] = 0xEE;  // not read
  StoreLE16(m.data() + 10, 0xBEEF);
  Dispatch(EVENT_FILE_UPLOAD, m);
  ASSERT_EQ(targets.transfers.size(), 1u);
  EXPECT_EQ(targets.transfers[0], (std::vector<int>{1, 3, 0xBEEF}));
}

TEST_F(RequestInterfaceTest, ServerUpdateTakesAtMost226BytesOfTheGivenLength) {
  UserDefServerSet_t server{};
  server.port = 2100;
  strcpy(server.host, "maint.example");
  strcpy(server.user, "u");
  strcpy(server.password, "p");
  strcpy(server.path, "/m");
  std::vector<uint8_t> m = Header(kCodeServerUpdate, 300);
  m.resize(8 + 300, 0x41);  // 74 bytes past the block must be ignored
  EncodeServerSet(server, m.data() + 8);
  Dispatch(EVENT_FILE_UPLOAD, m);
  ASSERT_EQ(targets.connects.size(), 1u);
  EXPECT_EQ(targets.connects[0], "u|p|maint.example|2100|/m");

  std::vector<uint8_t> shortMsg = Header(kCodeServerUpdate, 10);
  shortMsg.resize(8 + 226);
  EncodeServerSet(server, shortMsg.data() + 8);  // the full block is there, but only 10 count
  Dispatch(EVENT_FILE_UPLOAD, shortMsg);
  ASSERT_EQ(targets.connects.size(), 2u);
  EXPECT_EQ(targets.connects[1], "||maint.ex|2100|");
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
