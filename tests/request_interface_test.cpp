#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "core/ftp_upload_interface.h"
#include "platform/byteorder.h"
#include "tests/fakes/fakes.h"

namespace {

// Its values joined by "|".
std::string Join(std::initializer_list<std::string> values) {
  std::string s;
  for (const std::string& v : values) s += "|" + v;
  return s.substr(1);
}

// Every call the dispatch makes, as one text each.
struct Recorder : IRequestTargets {
  void InsertTask(ftpFileInfo_t* t) override {
    tasks.push_back(*t);
    calls += Join({"task", t->fullName, t->fileName, std::to_string(t->valid + t->trans),
                   std::to_string(t->server.port), t->server.host});
  }
  void SetTransfer(int type, unsigned int ctr, int seq) override {
    calls += Join({"transfer", std::to_string(type), std::to_string(ctr), std::to_string(seq)});
  }
  void ConnectTo(const char* u, const char* p, const char* h, uint16_t port,
                 const char* path) override {
    calls += Join({"connect", u, p, h, std::to_string(port), path});
  }
  void RemoteCommand(const char* path) override { calls += Join({"command", path}); }
  std::vector<ftpFileInfo_t> tasks;
  std::string calls;
};

// message with its first size bytes kept (grown with 'A'), and the code and length set if given.
std::vector<uint8_t> Edit(std::vector<uint8_t> message, size_t size, uint32_t length = 0,
                          uint32_t code = 0) {
  message.resize(size, 'A');
  if (length != 0) StoreLE32(message.data() + 4, length);
  if (code != 0) StoreLE32(message.data(), code);
  return message;
}

// Each message goes as one datagram through the bus handler, whole, cut short, with bytes past
// the request or with another length field.
TEST(RequestInterfaceTest, EachRequestReachesItsTargetAndTheRestIsDropped) {
  const ftpFileInfo_t task{
      1,     0, 0, 0, 99, "/data/a.bin", "a.bin", "", 1, 0, 1, 0, {2121, "10.0.0.1", "", "", ""},
      {0, 0}};
  std::vector<uint8_t> record(8 + kTaskRecordSize), transfer(12), update(kServerRequestSize);
  StoreLE32(record.data(), kCodeNewTask);
  StoreLE32(record.data() + 4, kTaskRecordSize);
  EncodeTaskRecord(task, record.data() + 8);
  ASSERT_EQ(EncodeTransferRequest({3, 0xBEEF}, transfer.data()), 12u);
  EXPECT_EQ(transfer, (std::vector<uint8_t>{1, 7, 0, 0, 4, 0, 0, 0, 3, 0, 0xEF, 0xBE}));
  ASSERT_EQ(EncodeServerRequest({2100, "maint.example", "u", "p", "/m"}, update.data()), 234u);
  EXPECT_EQ(std::vector<uint8_t>(update.begin(), update.begin() + 11),
            (std::vector<uint8_t>{8, 7, 0, 0, 226, 0, 0, 0, 0x34, 0x08, 'm'}));
  const std::string x(kEventPayloadMax - 4, 'x'), zero(4, '\0');
  const std::string all = "connect|u|p|maint.example|2100|/m", part = "connect|||maint.ex|2100|";
  auto bytes = [](const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); };
  const std::vector<uint8_t> cmd = bytes(zero + "/tmp/cmd.xml"), big = bytes(zero + x);
  const EVENT_E up = EVENT_FILE_UPLOAD, remote = EVENT_REMOTE_CMD;
  // Recordings are the only file type transfer control concerns; a server update counts only
  // the bytes of the block; the last command has no terminator in its message.
  const std::tuple<EVENT_E, std::vector<uint8_t>, std::string> cases[] = {
      {up, record, "task|/data/a.bin|a.bin|2|2121|10.0.0.1"},
      {up, Edit(record, 148), "task|/data/a.bin|a.bi|0|0|"},
      {up, transfer, "transfer|1|3|48879"},
      {up, Edit(transfer, 40), "transfer|1|3|48879"},
      {up, Edit(transfer, 11), "transfer|1|3|239"},
      {up, update, all},
      {up, Edit(update, 300, 300), all},
      {up, Edit(update, 234, 10), part},
      {up, Edit(update, 18), part},
      {up, Edit(transfer, 12, 0, 0x702), ""},
      {up, Edit(transfer, 12, 0, 0x703), ""},
      {EVENT_HEARTBEAT, record, ""},
      {remote, Edit(cmd, cmd.size(), 0, 1), ""},
      {remote, cmd, "command|/tmp/cmd.xml"},
      {remote, big, "command|" + x}};
  Recorder targets;
  for (const auto& [event, message, calls] : cases) {
    std::vector<char> datagram(kEventHeaderSize + message.size());
    ASSERT_EQ(EncodeEvent(event, message.data(), static_cast<int>(message.size()),
                          reinterpret_cast<unsigned char*>(datagram.data()), datagram.size()),
              static_cast<int>(datagram.size()));
    targets.calls.clear();
    EXPECT_EQ(FtpUploadMngUnixDomain(0, nullptr, nullptr, datagram.data(),
                                     static_cast<int>(datagram.size()), &targets),
              0);
    EXPECT_EQ(targets.calls, calls);
  }
  ASSERT_FALSE(targets.tasks.empty());
  EXPECT_EQ(memcmp(&targets.tasks[0], &task, sizeof(task)), 0);
  char junk[] = "EVB1 not an event";
  EXPECT_EQ(FtpUploadMngUnixDomain(0, nullptr, nullptr, junk, sizeof(junk), &targets), -1);
  // Under another code a decoder refuses and zeroes its result.
  TransferRequest r{9, 9};
  UserDefServerSet_t s{5, "h", "u", "p", "/"};
  EXPECT_FALSE(DecodeTransferRequest(update.data(), 234, &r) || r.ctrType || r.seq);
  EXPECT_FALSE(DecodeServerRequest(transfer.data(), 12, &s));
  EXPECT_EQ(Join({s.user, s.password, s.host, std::to_string(s.port), s.path}), "|||0|");
}

TEST(RequestListenTest, StartListenReplacesAStaleRegistration) {
  TempRoot root;
  root.Write("/run/evbus/_tmp_ftpuploadfile.listen", "0000000000000001 /tmp/stale\n");
  root.Write("/tmp/ftpuploadfile.listen", "stale socket file");
  CFtpUploadInterface* iface = CFtpUploadInterface::Instance();
  iface->StartListen();
  EXPECT_NE(iface->m_hListen, nullptr);
  EXPECT_EQ(ReadWholeFile(root.path() + "/run/evbus/_tmp_ftpuploadfile.listen"),
            "0000000000410000 /tmp/ftpuploadfile.listen\n");
  iface->StopListen();
  EXPECT_EQ(iface->m_hListen, nullptr);
  iface->StopListen();  // twice is harmless
}

}  // namespace
