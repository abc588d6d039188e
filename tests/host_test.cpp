// The service core (task records, request dispatch, the main loop) and the host platform
// (commands, files, the debug log, the task database, the status service, the event bus).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <sstream>
#include <tuple>

#include "core/ftp_upload_interface.h"
#include "core/main_loop.h"
#include "maintain/ftp_maintain_mng.h"
#include "platform/byteorder.h"
#include "platform/config.h"
#include "platform/host/atomic_file.h"
#include "platform/host/ftp/tls_policy.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/xml_file.h"
#include "tests/fakes/fakes.h"
#include "upload/ftp_records.h"

namespace {

using Bytes = std::vector<uint8_t>;
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
  Bytes wire(600, 0xEE);
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
  memcpy(want, "\xFE\0\0", 4);
  EXPECT_EQ(0, memcmp(&rec, want, sizeof(want)));
  DecodeTaskRecord(x, sizeof(x), &rec);
  memcpy(want, "xxxx", 4);
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
  void SetTransfer(int t, unsigned c, int s) override { calls += Join("transfer", t, c, s); }
  void ConnectTo(const char* u, const char* p, const char* h, uint16_t port,
                 const char* path) override {
    calls += Join("connect", u, p, h, port, path);
  }
  void RemoteCommand(const char* path) override { calls += Join("command", path); }
  std::vector<ftpFileInfo_t> tasks;
  std::string calls;
};

// message with its first size bytes kept (grown with 'A'), and the code and length set if given.
Bytes Edit(Bytes message, size_t size, uint32_t length = 0, uint32_t code = 0) {
  message.resize(size, 'A');
  if (length != 0) StoreLE32(message.data() + 4, length);
  if (code != 0) StoreLE32(message.data(), code);
  return message;
}

// Each message goes as one datagram through the bus handler, whole, cut short, with bytes past
// the request or with another length field.
TEST(RequestInterfaceTest, EachRequestReachesItsTargetAndTheRestIsDropped) {
  const ftpFileInfo_t task{
      1, 0, 0, 0, 99, "/data/a.bin", "a.bin", "", 1, 0, 1, 0, {2121, "10.0.0.1", "", "", ""}, {}};
  Bytes record(8 + kTaskRecordSize), transfer(12), update(kServerRequestSize);
  StoreLE32(record.data(), kCodeNewTask);
  StoreLE32(record.data() + 4, kTaskRecordSize);
  EncodeTaskRecord(task, record.data() + 8);
  ASSERT_EQ(EncodeTransferRequest({3, 0xBEEF}, transfer.data()), 12u);
  EXPECT_EQ(transfer, (Bytes{1, 7, 0, 0, 4, 0, 0, 0, 3, 0, 0xEF, 0xBE}));
  ASSERT_EQ(EncodeServerRequest({2100, "maint.example", "u", "p", "/m"}, update.data()), 234u);
  EXPECT_EQ(Bytes(update.begin(), update.begin() + 11),
            (Bytes{8, 7, 0, 0, 226, 0, 0, 0, 0x34, 0x08, 'm'}));
  const std::string x(kEventPayloadMax - 4, 'x'), zero(4, '\0');
  const std::string all = "connect|u|p|maint.example|2100|/m|", part = "connect|||maint.ex|2100||";
  auto bytes = [](const std::string& s) { return Bytes(s.begin(), s.end()); };
  const Bytes cmd = bytes(zero + "/tmp/cmd.xml");
  const EVENT_E up = EVENT_FILE_UPLOAD, remote = EVENT_REMOTE_CMD;
  // Recordings are the only file type transfer control concerns; a server update counts only
  // the bytes of the block; the last command has no terminator in its message.
  const std::tuple<EVENT_E, Bytes, std::string> cases[] = {
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

TEST(MainLoopTest, StepsEveryFiveSecondsWithHeartbeatUnlessTheWatchdogExpired) {
  TempRoot root;
  FakeClock clock;
  FakeStatus status;
  FakeBus bus;
  TestEnv env;
  env.clock = &clock, env.status = &status, env.bus = &bus;
  std::string trace;  // "d<seconds> " for a disk check, "s<seconds> " for a scheduling
  auto note = [&trace](const char* what) {
    return [&trace, what](uint32_t s) { trace += what + std::to_string(s) + " "; };
  };
  CMainLoop loop(&env, CMainLoop::Targets{note("d"), note("s")});
  // A pass sleeps 200 ms on the fake clock. Columns: clock set to (0: as the passes left it),
  // passes, watchdog answer, then the disk checks and heartbeats so far. A clock stepped back
  // steps; an expired watchdog withholds the heartbeat, one that cannot answer (-1) does not.
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
  // One alarm record (type 2, code 3, 21 bytes of text) for each withheld heartbeat.
  const std::string alarm("\2\0\0\0\3\0\0\0\x15\0\0\0FtpUpLoad Dog TimeOut", 33);
  EXPECT_EQ(ReadWholeFile(root.path() + "/var/log/velmar/user.log"), alarm + alarm);
}

TEST(SystemDumpTest, CommandsEndWithTheirStatusAllTheyStartedAndNoDescriptorOfOurs) {
  TempRoot root;
  const int fd = open((root.path() + "/open").c_str(), O_WRONLY | O_CREAT, 0644);  // inheritable
  ASSERT_GE(fd, 3);
  const std::string arg = "100." + std::to_string(getpid()), sleeper = "sleep " + arg + " & wait";
  const std::string leak =
      "[ -e /proc/self/fd/" + std::to_string(fd) +
      " ] && exit 3; [ \"$(readlink /proc/self/fd/0)\" = /dev/null ] || exit 4";
  signal(SIGPIPE, SIG_IGN);  // as the service does: commands must not inherit that
  // command, limit (0: system_run); the sleepers outlive their limit, the last ignores TERM.
  const std::pair<std::string, int> cases[] = {
      {"true", 5},          {"exit 7", 5},
      {"kill -9 $$", 5},    {"/nonexistent/tool", 5},
      {"kill -PIPE $$", 5}, {"kill -PIPE $$", 0},
      {"exit 3", 0},        {leak, 5},
      {sleeper, 1},         {"trap '' TERM; " + sleeper + "; wait", 1}};
  std::string results;
  for (const auto& [command, limit] : cases) {
    const auto start = std::chrono::steady_clock::now();
    results += Join(limit > 0 ? systemdump(command.c_str(), limit) : system_run(command.c_str()));
    // Well before the sleeper's own 100 s, with all it started ended and reaped.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(50)) << command;
    EXPECT_TRUE(system_run(("pgrep -f '^sleep " + arg + "$'").c_str()) == 1 &&
                waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD)
        << command;
  }
  signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(results + Join(systemdump(nullptr, 5)), "0|7|137|127|141|141|3|0|-1|-1|-1|");
  close(fd);
}

TEST(FileUtilTest, ExistenceSizeDirectoriesAtomicReplacementAndTheLog) {
  TempRoot root;
  root.Write("/a.txt", "hello");
  const std::string file = root.path() + "/a.txt", none = root.path() + "/none";
  const std::string xyz = root.path() + "/x/y/z";
  // A directory is no file; a file in the way of a directory fails MakeDirs.
  EXPECT_EQ(
      Join(file_exist(file.c_str()), file_exist(root.path().c_str()), file_exist(none.c_str()),
           fileisexist(file.c_str()), fileisexist(none.c_str()) < 0, getfilesize(file.c_str()),
           getfilesize(none.c_str()), strfind_s("/mnt/sd1", "/mnt/") != 0,
           strfind_s("/media/sd1", "/mnt/"), strfind_s(nullptr, "/mnt/"), MakeDirs(xyz.c_str()),
           MakeDirs((file + "/sub").c_str())),
      "1|0|0|0|1|5|-1|1|0|0|0|-1|");
  EXPECT_EQ(fileisexist(xyz.c_str()), 0);
  // A replacement is whole or leaves the old file, and no temporary.
  for (const char* f : {"/d/old", "/d/dir/inside", "/file", "/d/.stale.tmp", "/d/victim"})
    root.Write(f, "old");
  ASSERT_EQ(symlink("victim", (root.path() + "/d/.link.tmp").c_str()), 0);
  // target, a file that must then hold the text after the result; links and directories stay
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"/d/new", "/d/new", "0new"},        {"/d/old", "/d/old", "0new"},
      {"/d/stale", "/d/stale", "0new"},    {"/d/link", "/d/victim", "0old"},
      {"/missing/x", "/missing/x", "-1"},  {"/file/x", "/file", "-1old"},
      {"/d/dir", "/d/dir/inside", "-1old"}};
  for (const auto& [target, check, want] : cases) {
    std::string path = root.path() + target;
    const int rc = ReplaceFileAtomically(path, "new", 3);
    EXPECT_EQ(std::to_string(rc) + ReadWholeFile(root.path() + check), want) << target;
    EXPECT_NE(access(path.insert(path.rfind('/') + 1, ".").append(".tmp").c_str(), F_OK), 0);
  }
  // Debug lines reach the log file one line each, with control bytes masked.
  WriteDbgLog(2, "FTP Update [%s]\n", "u\nforged line\x1b[2J");
  WriteDbgLog(0, "no newline %d", 7);
  WriteDbgLog(0, "\n\n%s:%d exist!\n\n", "a\nb", 3);  // a format's own blank lines stay
  std::string text = ReadWholeFile(root.path() + "/var/log/velmar/velmar.log");
  EXPECT_NE(text.find(" [2] FTP Update [u?forged line?[2J]\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" [0] no newline 7\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" [0] \n\na?b:3 exist!\n\n"), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
}

// Documents from outside are parsed only when they are of bounded size and nesting; nesting is
// counted as a parser sees it (quoted values, comments and CDATA hide no tags).
TEST(XmlFileTest, OnlyBoundedRegularDocumentsAreParsed) {
  TempRoot root;
  std::string open32, close32, hidden, empties;
  for (int i = 0; i < 32; ++i)
    open32 += "<a>", close32 += "</a>", hidden += "<a x='/>'>", empties += "<e/><e />";
  const std::string kept = "<r><!-- <a><a> --><![CDATA[<a><a>]]><a/><b x=\"a>b\">t</b></r>";
  const std::pair<std::string, std::string> cases[] = {
      {kept, "ok"},
      {open32 + close32, "ok"},
      {"<r>" + empties + "</r>", "ok"},
      {"<r>" + open32 + close32 + "</r>", "elements nested more than 32 deep"},
      {hidden + "<a x='/>'>", "elements nested more than 32 deep"},
  };
  for (const auto& [text, want] : cases) {
    root.Write("/doc", text);
    TiXmlDocument doc;
    std::string why;
    bool ok = LoadXmlFile((root.path() + "/doc").c_str(), &doc, &why);
    EXPECT_EQ(ok ? "ok" : why, want) << text;
  }
}

// Each log file is renamed to "<name>.1" before it would pass its cap: both files stay within
// it, the lines run on from the older file into the newer, and no record is split.
TEST(LogTest, FilesAreRotatedAtTheirCap) {
  setenv("VELMAR_LOG_MAX_KIB", "2", 1);
  TempRoot root;
  char record[200] = {};
  for (int i = 0; i < 100; ++i) {
    WriteDbgLog(0, "line %03d %s\n", i, std::string(60, 'x').c_str());
    if (i < 40) WriteUserLog(LOG_TYPE_ALARM, 3, sizeof(record), record);
  }
  unsetenv("VELMAR_LOG_MAX_KIB");
  const std::string dir = root.path() + "/var/log/velmar/";
  // A rotated file was full but for less than one more record; the newer one is within the cap.
  for (const char* name : {"velmar.log", "velmar.log.1", "user.log", "user.log.1"}) {
    const size_t size = ReadWholeFile(dir + name).size(), rotated = strchr(name, '1') != nullptr;
    EXPECT_TRUE(size > (rotated ? 2048 - 212 : 0) && size <= 2048) << name << " " << size;
  }
  EXPECT_EQ(ReadWholeFile(dir + "user.log").size() % (12 + sizeof(record)), 0u);
  const std::string older = ReadWholeFile(dir + "velmar.log.1");
  const std::string newer = ReadWholeFile(dir + "velmar.log");
  auto number = [](const std::string& text, size_t at) { return atoi(text.c_str() + at + 5); };
  EXPECT_EQ(number(newer, newer.find("line ")), number(older, older.rfind("line ")) + 1);
  EXPECT_EQ(number(newer, newer.rfind("line ")), 99);
}

// The rows of db in order, as "<seq><type><fullpath> ".
std::string Rows(CFile2FtpDbMng* db, std::list<__ftp_log>* rows) {
  std::string s = db->SearchAll(*rows) == 0 ? "" : "error";
  for (const __ftp_log& r : *rows) s += std::to_string(r.seq * 10 + r.type) + r.fullpath + " ";
  return s;
}

TEST(File2FtpDbTest, KeepsRowsInOrderDeletesExactlyAndRefusesANewerSchema) {
  TempRoot root;
  const UserDefServerSet_t s{2121, "host", "user", "pw", "/dir"};
  std::list<__ftp_log> rows = {{5, 1, "/a", "", "", 1, 0, 0, 1, s, {}}},
                       more = {{2, 1, "/b", "", "", 1, 0, 0, 1, s, {}},
                               {5, 2, "/c", "", "", 1, 0, 0, 1, s, {}},
                               {5, 1, "/d", "", "", 1, 0, 0, 1, s, {}},
                               {9, 1, "/a", "", "", 1, 0, 0, 1, s, {}}},
                       got;
  {
    FaultyDb first;
    ASSERT_EQ((std::vector<int>{first.OpenTable(root.path().c_str()), first.Insert(&rows.front()),
                                first.InsertMore(more)}),
              std::vector<int>(3, 0));
  }
  rows.splice(rows.end(), more);
  FaultyDb db;
  ASSERT_EQ(db.OpenTable(root.path().c_str()), 0);
  EXPECT_EQ(Rows(&db, &got), "51/a 21/b 52/c 51/d 91/a ");
  EXPECT_TRUE(std::equal(got.begin(), got.end(), rows.begin(), rows.end(),
                         [](auto& a, auto& b) { return memcmp(&a, &b, sizeof(a)) == 0; }));
  EXPECT_EQ(db.SearchDelete(root.path().c_str(), "/a"), 0);
  EXPECT_EQ(Rows(&db, &(got = {})), "21/b 52/c 51/d ");
  EXPECT_EQ(db.DeleteBySeqAndType(5, 1), 0);
  EXPECT_EQ(Rows(&db, &(got = {})), "21/b 52/c ");
  // A database of a newer schema is refused and left as it is.
  sqlite3* newer = nullptr;
  sqlite3_open(root.Make("/newer/new_file_op.db").c_str(), &newer);
  sqlite3_exec(newer, "CREATE TABLE ftp_log(x); PRAGMA user_version=99;", 0, 0, 0);
  sqlite3_close(newer);
  const std::string mount = root.path() + "/newer",
                    before = ReadWholeFile(mount + "/new_file_op.db");
  EXPECT_TRUE(db.OpenTable(mount.c_str()) < 0 && db.m_bTabOpen == 0 &&
              db.SearchDelete(mount.c_str(), "/a") < 0);
  EXPECT_EQ(Rows(&db, &(got = {})), "error");  // the earlier table is closed
  EXPECT_EQ(ReadWholeFile(mount + "/new_file_op.db"), before);
}

// A disk is listed only while its directory is a mount point (/proc), unless its profile entry
// says otherwise: the root is a plain directory, as a pulled card's mount point.
const char kProfile[] = R"(<recorder><state watchdogExpired="0"/>
  <disk id="1" mount="/sd1" present="1" usage="18 6" requireMount="0"/>
  <disk id="9" mount="/proc" usage="14"/><disk id="5" mount="${VELMAR_ROOT}" usage="18"/>
  <disk id="6" mount="/sd2" present="0" usage="18 6" requireMount="0"/>
  <partition list="15" id="2" path="${VELMAR_ROOT}/rec"/></recorder>)";

// The disks of a usage, or the partitions of list 15, as "id:path "; "fail" when refused.
std::string Listed(int code) {
  PartStatus_t list;
  memset(&list, 1, sizeof(list));  // a count that shows when nothing cleared it
  int rc = code == STATUS_PART_LIST_A
               ? GetStatus(STATUS_PART_LIST_A, &list)
               : GetDiskForCommUsage(static_cast<LOG_STATUS_E>(code), &list, nullptr);
  std::string out = rc == 0 ? "" : "fail";
  for (int i = 0; i < list.count && i < 8; ++i) {
    const PartEntry_t& e = list.part[i];
    out += std::to_string(e.type) + ":" + std::string(e.path, strnlen(e.path, 128)) + " ";
  }
  return out;
}

// The simulated recorder follows its profile file, which is re-read whenever it changes; the
// rest of its answers meet the service in the system tests.
TEST(HostStatusTest, AnswersFollowTheProfile) {
  TempRoot root;
  time_t stamp = 1700000000;
  // Writes the profile and moves its time stamp on, so that a rewrite is always noticed.
  auto WriteProfile = [&](const std::string& text) {
    root.Write("/etc/velmar/recorder.xml", text);
    struct timeval times[2] = {{++stamp, 0}, {stamp, 0}};
    utimes((root.path() + "/etc/velmar/recorder.xml").c_str(), times);
  };
  uint8_t disk[kStatusDiskSize];
  EXPECT_EQ(Listed(DISK_USAGE_UPLOAD) + Join(GetStatus(STATUS_DISK, disk)), "fail-1|");  // none
  WriteProfile(kProfile);
  // The disk status: the count, and (id, reserved, present) for each disk.
  std::vector<uint32_t> words(14);
  ASSERT_EQ(GetStatus(STATUS_DISK, disk), 0);
  for (size_t i = 0; i < words.size(); ++i) words[i] = LoadLE32(disk + 4 * i);
  EXPECT_EQ(words, std::vector<uint32_t>({4, 1, 0, 1, 9, 0, 1, 5, 0, 1, 6, 0, 0, 0}));
  // Only present disks are mounted; a disk serves every usage it lists.
  EXPECT_EQ(Listed(DISK_USAGE_UPLOAD) + Listed(DISK_USAGE_MAINTAIN) + Listed(DISK_USAGE_TYPE9) +
                Listed(STATUS_PART_LIST_A) + Join(CCommDog::Instance()->CheckDog()),
            "1:/sd1 1:/sd1 9:/proc 2:" + root.path() + "/rec 0|");
  // The same size, the same file: only the time stamp tells of the edit.
  std::string edited = kProfile;
  edited.replace(edited.find("present=\"0\""), 11, "present=\"1\"");
  edited.replace(edited.find("watchdogExpired=\"0\""), 19, "watchdogExpired=\"1\"");
  WriteProfile(edited);
  EXPECT_EQ(Listed(DISK_USAGE_UPLOAD) + Join(CCommDog::Instance()->CheckDog()), "1:/sd1 6:/sd2 1|");
  for (const char* bad : {"<recorder><disk id=", "<other/>"}) {  // until repaired
    WriteProfile(bad);
    EXPECT_EQ(Listed(DISK_USAGE_MAINTAIN) + Join(CCommDog::Instance()->CheckDog()), "fail0|");
  }
}

TEST(EventBusTest, EventsReachTheReceiversRegisteredForThemAsWireBytes) {
  TempRoot root;
  FakeBus inbox;  // the datagrams the listener receives, as heartbeats
  const char* name = "/tmp/bus watch.tmp.sock";  // a space and ".tmp" are ordinary
  root.Write(name, "stale");                     // a socket file of an earlier run
  auto collect = [](int, sockaddr_un*, unsigned*, char* msg, int len, void* in) {
    return static_cast<FakeBus*>(in)->Distribute(EVENT_HEARTBEAT, len, msg), 0;
  };
  void* listener = StartUnixDomainListen(name, collect, &inbox);
  ASSERT_NE(listener, nullptr);
  ASSERT_EQ(RegisterEventReciever(name, 1 << EVENT_HEARTBEAT), 0);
  const std::string entry = root.path() + "/run/evbus/_tmp_bus watch.tmp.sock";
  EXPECT_EQ(ReadWholeFile(entry), "0000000000000040 /tmp/bus watch.tmp.sock\n");
  // Skipped: a receiver of other events, one that has gone, a registration being written.
  ASSERT_EQ(RegisterEventReciever("/tmp/other.sock", 1 << EVENT_FILE_UPLOAD) +
                RegisterEventReciever("/tmp/gone.sock", 1 << EVENT_HEARTBEAT),
            0);
  root.Write("/run/evbus/._x.tmp", "0000000000000040 /tmp/bus watch.tmp.sock\n");
  uint8_t payload[3] = {1, 2, 3};  // the count is of receivers reached
  EXPECT_EQ(Join(DistributeEvent(EVENT_FILE_UPLOAD, 3, payload),
                 DistributeEvent(EVENT_HEARTBEAT, 3, payload),
                 DistributeEvent(EVENT_HEARTBEAT, kEventPayloadMax + 1, payload)),
            "0|1|-1|");
  for (int tries = 0; tries < 3000 && inbox.Events(EVENT_HEARTBEAT).empty(); ++tries)
    usleep(10000);  // up to 30 s
  ASSERT_EQ(inbox.Events(EVENT_HEARTBEAT).size(), 1u);
  EXPECT_EQ(inbox.Events(EVENT_HEARTBEAT)[0].payload,
            Bytes({'E', 'V', 'B', '1', 6, 0, 0, 0, 3, 0, 0, 0, 1, 2, 3}));
  EXPECT_EQ(UnregisterEventReciever(name), 0);
  EXPECT_EQ(ReadWholeFile(entry), "");
  EXPECT_EQ(Join(DistributeEvent(EVENT_HEARTBEAT, 3, payload), UnregisterEventReciever(name),
                 RegisterEventReciever("tmp/relative.sock", 1 << EVENT_HEARTBEAT),
                 StopUnixDomainListen(listener), StopUnixDomainListen(nullptr)),
            "0|-1|-1|0|-1|");
}

// A burst of requests to a receiver slower than its sender is slowed down, not dropped: every
// request is taken, and the sender learns of each one that velmar's socket took.
TEST(EventBusTest, ABurstToASlowReceiverIsDeliveredWhole) {
  TempRoot root;
  FakeBus inbox;
  auto slow = [](int, sockaddr_un*, unsigned*, char* msg, int len, void* in) {
    usleep(2000);  // a synchronous database write per request
    return static_cast<FakeBus*>(in)->Distribute(EVENT_FILE_UPLOAD, len, msg), 0;
  };
  void* listener = StartUnixDomainListen("/tmp/slow.sock", slow, &inbox);
  ASSERT_NE(listener, nullptr);
  ASSERT_EQ(RegisterEventReciever("/tmp/slow.sock", 1 << EVENT_FILE_UPLOAD), 0);
  uint8_t payload[4] = {};
  int taken = 0;
  for (int i = 0; i < 100; ++i)
    taken += DistributeEventTo("/tmp/slow.sock", EVENT_FILE_UPLOAD, 4, payload);
  EXPECT_EQ(taken, 100);
  for (int tries = 0; tries < 3000 && inbox.Events(EVENT_FILE_UPLOAD).size() < 100; ++tries)
    usleep(10000);  // up to 30 s
  EXPECT_EQ(inbox.Events(EVENT_FILE_UPLOAD).size(), 100u);
  EXPECT_EQ(DistributeEventTo("/tmp/other.sock", EVENT_FILE_UPLOAD, 4, payload), 0);
  StopUnixDomainListen(listener);
}

// Reads the file of reader r as the service does: "ok" or "no"; the bus gives the receivers
// reached, the policy the modes for hosts "h" and "x" (0 off, 1 require, 2 refused).
std::string ReadAs(int r, const std::string& path, CFtpMaintainMng* mng) {
  auto ignore = [](int, sockaddr_un*, unsigned*, char*, int, void*) { return 0; };
  uint8_t disk[kStatusDiskSize];
  JTBaseSet_t base;
  FtpFileList_t list{};
  if (r == 0) {  // the entry under test names the socket of a receiver registered besides
    void* a = StartUnixDomainListen("/tmp/a.sock", ignore, nullptr);
    RegisterEventReciever("/tmp/a.sock", 1 << EVENT_HEARTBEAT);
    const int reached = DistributeEvent(EVENT_HEARTBEAT, 0, nullptr);
    StopUnixDomainListen(a);
    return std::to_string(reached);
  }
  if (r == 1) return Join(LookupFtpTlsPolicy("h").mode, LookupFtpTlsPolicy("x").mode);
  const int rc = r == 2   ? GetStatus(STATUS_DISK, disk)
                 : r == 3 ? CConfig::Instance()->GetConfig(&base, nullptr)
                 : r == 4 ? mng->HandleLogCmd(path.c_str())
                          : mng->ParseFileList(path.c_str(), &list);
  free(list.pItems);
  return rc == 0 ? "ok" : "no";
}

// Every reader of a file from outside, against every hostile form of its file: refused at once
// (a FIFO never waits), a TLS policy that cannot be read whole refusing every host. A byte-order
// mark is dropped where the format allows. Root reads mode 000: those cells run for others only.
TEST(HostileFilesTest, EveryReaderRefusesEveryHostileForm) {
  const char* kXml = "ok no no no no no no no ok no";
  // The file, its valid text, that text cut short, and the outcome for each form; the shell
  // makes the first forms from a valid file $f.
  const std::tuple<const char*, std::string, std::string, const char*> readers[] = {
      {"/run/evbus/_tmp_b.sock", "0000000000000040 /tmp/a.sock\n", "0000000000000040 /tmp/a.sock",
       "2 1 1 1 1 1 1 1 1 1"},
      {"/etc/velmar/ftps.conf", "h require\n", "h requ",
       "1|0| 2|2| 2|2| 2|2| 2|2| 2|2| 2|2| 2|2| 1|0| 2|2|"},
      {"/etc/velmar/recorder.xml", "<recorder><state/></recorder>", "<recorder><state", kXml},
      {"/etc/velmar/config/jtbase.xml", "<jtbase deviceNo='7'/>", "<jtbase deviceNo='7'", kXml},
      {"/in/c.xml", "<LOGCMD></LOGCMD>", "<LOGCMD>", kXml},
      {"/in/list.xml", "<L><FILE>a.xml</FILE></L>", "<L><FILE>a.xml</FI", kXml}};
  TestEnv env;
  CFtpMaintainMng mng{&env};
  const char* forms[] = {"true",
                         "rm $f; mkdir $f",
                         "rm $f; mkfifo $f",
                         "rm $f; ln -s $f $f",
                         "rm $f; ln -s gone $f",
                         "chmod 0 $f",
                         "empty",
                         "huge",
                         "mark",
                         "cut"};
  for (int r = 0; r < 6; ++r) {
    const auto& [rel, valid, cut, outcomes] = readers[r];
    std::istringstream wants(outcomes);
    for (int form = 0; form < 10; ++form) {
      SCOPED_TRACE(std::string(rel) + ": " + forms[form]);
      std::string want;
      wants >> want;
      if (form == 5 && geteuid() == 0) continue;
      TempRoot root;
      const std::string path = root.Make(rel), dir = path.substr(0, path.rfind('/'));
      const std::string texts[] = {"", valid + std::string(2 << 20, '\n'), "\xEF\xBB\xBF" + valid,
                                   cut};
      root.Write(rel, form < 6 ? valid : texts[form - 6]);
      const std::string shell = "cd '" + dir + "' && f='" + path.substr(dir.size() + 1) + "'; ";
      ASSERT_TRUE(form >= 6 || system_run((shell + forms[form]).c_str()) == 0);
      EXPECT_EQ(ReadAs(r, path, &mng), want);
    }
  }
}

TEST(EventWireTest, EncodeAndParseAcceptOnlyWellFormedDatagrams) {
  Bytes payload(kEventPayloadMax + 1, 0xAB), dgram(kEventHeaderSize + kEventPayloadMax + 1, 0xAB);
  unsigned char* d = dgram.data();
  // No room; a negative length; over 8192.
  EXPECT_EQ(Join(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 300, d, 311),
                 EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), -1, d, dgram.size()),
                 EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 8193, d, dgram.size())),
            "-1|-1|-1|");
  ASSERT_EQ(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 300, d, 312), 312);
  // Columns: datagram length, its length field, its first byte, the expected answer. Refused:
  // shorter than a header, a length field that disagrees, the wrong magic, over 8192.
  const int cases[][4] = {{312, 300, 'E', 300}, {12 + 8192, 8192, 'E', 8192}, {12, 0, 'E', 0},
                          {11, 0, 'E', -1},     {311, 300, 'E', -1},          {313, 300, 'E', -1},
                          {312, 300, 'X', -1},  {12 + 8193, 8193, 'E', -1}};
  for (const auto& c : cases) {
    StoreLE32(d + 8, c[1]);
    d[0] = static_cast<unsigned char>(c[2]);
    Bytes out(dgram.size(), 0);
    EVENT_E ev = EVENT_HEARTBEAT;
    int reserved = 0;
    EXPECT_EQ(ParseRecvEvent(d, c[0], &ev, &reserved, out.data()), c[3]) << c[0];
    if (c[3] < 0) continue;
    // The payload and no more.
    EXPECT_EQ(Join(ev, std::count(out.begin(), out.end(), 0xAB)), Join(EVENT_FILE_UPLOAD, c[3]));
  }
}

}  // namespace
