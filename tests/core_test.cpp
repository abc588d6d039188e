// The service core: task records and their wire form, request dispatch, the main loop.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "core/ftp_upload_interface.h"
#include "core/main_loop.h"
#include "platform/byteorder.h"
#include "tests/fakes/fakes.h"
#include "upload/ftp_records.h"

namespace {

// The values, each followed by "|".
template <typename... T>
std::string Join(const T&... values) {
  std::ostringstream s;
  ((s << values << '|'), ...);
  return s.str();
}

const UserDefServerSet_t kServer{2121, "127.0.0.1", "u", "pw", "/up"};
// Transfer off while valid, so that a swap of the two shows.
const ftpFileInfo_t kRecord{1, 7, 2, 1, 0x12345678, "/r/1", "c", "d", 1, 5, 0, 2, kServer, {}};
// The same as a row: the directory comes before the name, and there is no outcome.
const __ftp_log kRow{0x12345678, 1, "/r/1", "d", "c", 1, 5, 0, 0, kServer, {}};

TEST(RecordsTest, RowsRecordsAndWireRecordsConvertWithTextsInsideTheirFields) {
  ftpFileInfo_t rec = kRecord, back;
  __ftp_log row;
  RowFromRecord(rec, &row);
  EXPECT_EQ(0, memcmp(&row, &kRow, sizeof(row)));
  // Back again: the engine's counters (bytes 1..3) and the outcome are lost.
  rec.sendTimes = rec.connFailTimes = rec.delAfterUpload = rec.result = 0;
  RecordFromRow(row, &back);
  EXPECT_EQ(0, memcmp(&back, &rec, sizeof(rec)));
  // The wire record is little-endian in the record's layout: on this host, its memory. Of n
  // bytes that arrive the decoded record is those bytes followed by zeros.
  std::vector<uint8_t> wire(600, 0xEE);
  EncodeTaskRecord(rec, wire.data());
  EXPECT_EQ(0, memcmp(wire.data(), &rec, kTaskRecordSize));
  for (size_t n : {size_t{0}, size_t{100}, size_t{300}, kTaskRecordSize, size_t{600}}) {
    uint8_t want[kTaskRecordSize] = {};
    memcpy(want, wire.data(), std::min(n, kTaskRecordSize));
    DecodeTaskRecord(wire.data(), n, &rec);
    EXPECT_EQ(0, memcmp(&rec, want, sizeof(want))) << n;
  }
  // Rows and wire records full of 'x': every text ends inside its field; a row's type keeps its
  // low 8 bits, its server is taken as it is and its bytes 1..3 are not the record's.
  uint8_t x[kTaskRecordSize], want[kTaskRecordSize];
  memset(x, 'x', sizeof(x));
  memset(want, 'x', sizeof(want));
  for (int at : {135, 199, 263, 494, 495}) want[at] = 0;
  memcpy(&row, x, sizeof(row));
  row.type = 0x1FE;
  RecordFromRow(row, &rec);
  want[0] = 0xFE;
  want[1] = want[2] = want[3] = 0;
  EXPECT_EQ(0, memcmp(&rec, want, sizeof(want)));
  DecodeTaskRecord(x, sizeof(x), &rec);
  want[0] = want[1] = want[2] = want[3] = 'x';
  for (int at : {270 + 31, 270 + 63, 270 + 95, 493}) want[at] = 0;  // the server's texts
  EXPECT_EQ(0, memcmp(&rec, want, sizeof(want)));
  UserDefServerSet_t server;
  DecodeServerSet(x, 10, &server);  // 10 bytes: the rest is zero
  EXPECT_EQ(Join(server.host, server.user), "xxxxxxxx||");
}

// Every call the dispatch makes, as one text each.
struct Targets : IRequestTargets {
  void InsertTask(ftpFileInfo_t* t) override {
    tasks.push_back(*t);
    calls +=
        Join("task", t->fullName, t->fileName, t->valid + t->trans, t->server.port, t->server.host);
  }
  void SetTransfer(int type, unsigned ctr, int seq) override {
    calls += Join("transfer", type, ctr, seq);
  }
  void ConnectTo(const char* u, const char* p, const char* h, uint16_t port,
                 const char* path) override {
    calls += Join("connect", u, p, h, port, path);
  }
  void RemoteCommand(const char* path) override { calls += Join("command", path); }
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
  const std::string all = "connect|u|p|maint.example|2100|/m|", part = "connect|||maint.ex|2100||";
  auto bytes = [](const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); };
  const std::vector<uint8_t> cmd = bytes(zero + "/tmp/cmd.xml");
  const EVENT_E up = EVENT_FILE_UPLOAD, remote = EVENT_REMOTE_CMD;
  // Recordings are the only file type transfer control concerns; a server update counts only
  // the bytes of the block; the last command has no terminator in its message.
  const std::tuple<EVENT_E, std::vector<uint8_t>, std::string> cases[] = {
      {up, record, "task|/data/a.bin|a.bin|2|2121|10.0.0.1|"},
      {up, Edit(record, 148), "task|/data/a.bin|a.bi|0|0||"},
      {up, transfer, "transfer|1|3|48879|"},
      {up, Edit(transfer, 40), "transfer|1|3|48879|"},
      {up, Edit(transfer, 11), "transfer|1|3|239|"},
      {up, update, all},
      {up, Edit(update, 300, 300), all},
      {up, Edit(update, 234, 10), part},
      {up, Edit(update, 18), part},
      {up, Edit(transfer, 12, 0, 0x702), ""},
      {up, Edit(transfer, 12, 0, 0x703), ""},
      {EVENT_HEARTBEAT, record, ""},
      {remote, Edit(cmd, cmd.size(), 0, 1), ""},
      {remote, cmd, "command|/tmp/cmd.xml|"},
      {remote, bytes(zero + x), "command|" + x + "|"}};
  Targets targets;
  for (const auto& [event, message, calls] : cases) {
    std::vector<char> datagram(kEventHeaderSize + message.size());
    const int size = static_cast<int>(datagram.size());
    ASSERT_EQ(EncodeEvent(event, message.data(), static_cast<int>(message.size()),
                          reinterpret_cast<unsigned char*>(datagram.data()), datagram.size()),
              size);
    targets.calls.clear();
    EXPECT_EQ(FtpUploadMngUnixDomain(0, nullptr, nullptr, datagram.data(), size, &targets), 0);
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
  EXPECT_EQ(Join(s.user, s.password, s.host, s.port, s.path), "|||0||");
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
  iface->StopListen();  // twice is harmless
  EXPECT_EQ(iface->m_hListen, nullptr);
}

TEST(MainLoopTest, StepsEveryFiveSecondsWithHeartbeatUnlessTheWatchdogExpired) {
  TempRoot root;
  LogCapture log;
  FakeClock clock;
  FakeStatus status;
  FakeBus bus;
  TestEnv env;
  env.clock = &clock;
  env.status = &status;
  env.bus = &bus;
  std::string trace;  // "d<seconds> " for a disk check, "s<seconds> " for a scheduling
  auto note = [&trace](const char* what) {
    return [&trace, what](uint32_t s) { trace += what + std::to_string(s) + " "; };
  };
  CMainLoop loop(&env, CMainLoop::Targets{note("d"), note("s")});
  // Each pass sleeps 200 ms on the fake clock. Columns: clock set to (0: left as the passes
  // moved it), passes, watchdog answer, then the disk checks and heartbeats so far. No step
  // before 5000 ms from time zero; a step 5000 ms after the last; a clock stepped back 6.5 s
  // steps and sets a new base; an expired watchdog withholds the heartbeat but not the disk
  // check; a watchdog service that cannot answer (-1) is no time-out.
  const int64_t rows[][5] = {{1000, 1, 0, 0, 0}, {12345, 1, 0, 1, 1}, {0, 24, 0, 1, 1},
                             {0, 1, 0, 2, 2},    {11000, 1, 0, 3, 3}, {0, 24, 0, 3, 3},
                             {0, 1, 1, 4, 3},    {0, 25, 1, 5, 3},    {0, 25, -1, 6, 4},
                             {0, 25, 0, 7, 5}};
  int64_t passes = 0;
  for (const auto& r : rows) {
    if (r[0] != 0) clock.SetMs(r[0]);
    status.dog = static_cast<int>(r[2]);
    for (int i = 0; i < r[1]; ++i) loop.Pass();
    passes += r[1];
    EXPECT_EQ(Join(std::count(trace.begin(), trace.end(), 'd'), bus.Events(EVENT_HEARTBEAT).size()),
              Join(r[3], r[4]))
        << "after pass " << passes;
  }
  // Every pass schedules; a step checks the disks first. Time goes in whole seconds.
  EXPECT_EQ(std::count(trace.begin(), trace.end(), 's'), passes);
  EXPECT_EQ(trace.substr(0, 11), "s1 d12 s12 ");
  auto records = log.UserRecords();  // one alarm for each withheld heartbeat
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(Join(records[1].type, records[1].code, records[1].data), "2|3|FtpUpLoad Dog TimeOut|");
}

}  // namespace
