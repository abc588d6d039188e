// Host platform pieces: commands, whole files, the debug log, the SQLite task database, the status
// service read from the recorder's profile, and the event bus.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "core/main_loop.h"
#include "platform/byteorder.h"
#include "platform/evbus.h"
#include "platform/file2ftpdb.h"
#include "platform/fileutil.h"
#include "platform/host/atomic_file.h"
#include "platform/log.h"
#include "platform/status.h"
#include "tests/fakes/fakes.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Words = std::vector<uint32_t>;

// The values, each followed by a space.
template <typename... T>
std::string Ints(T... values) {
  return ((std::to_string(values) + " ") + ...);
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
    results += Ints(limit > 0 ? systemdump(command.c_str(), limit) : system_run(command.c_str()));
    // Well before the sleeper's own 100 s, with all it started ended and reaped.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(50)) << command;
    EXPECT_EQ(system_run(("pgrep -f '^sleep " + arg + "$'").c_str()), 1) << command;
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << command;
  }
  signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(results + Ints(systemdump(nullptr, 5)), "0 7 137 127 141 141 3 0 -1 -1 -1 ");
  close(fd);
}

TEST(FileUtilTest, ExistenceSizeWholeFileReadsAndDirectories) {
  TempRoot root;
  root.Write("/a.txt", "hello");
  const std::string file = root.path() + "/a.txt", none = root.path() + "/none";
  const std::string xyz = root.path() + "/x/y/z";
  // A directory is no file; a file in the way of a directory fails MakeDirs.
  EXPECT_EQ(
      Ints(file_exist(file.c_str()), file_exist(root.path().c_str()), file_exist(none.c_str()),
           fileisexist(file.c_str()), fileisexist(none.c_str()) < 0, getfilesize(file.c_str()),
           getfilesize(none.c_str()), strfind_s("/mnt/sd1", "/mnt/") != 0,
           strfind_s("/media/sd1", "/mnt/"), strfind_s(nullptr, "/mnt/"), MakeDirs(xyz.c_str()),
           MakeDirs((file + "/sub").c_str())),
      "1 0 0 0 1 5 -1 1 0 0 0 -1 ");
  EXPECT_EQ(fileisexist(xyz.c_str()), 0);
  int len = -1;
  char* buf = filetobufwithoutbuf(file.c_str(), &len);
  EXPECT_EQ(std::string(buf ? buf : "null") + std::to_string(len), "hello5");
  free(buf);
  EXPECT_TRUE(filetobufwithoutbuf(root.path().c_str(), &len) == nullptr &&
              filetobufwithoutbuf(none.c_str(), &len) == nullptr);
}

TEST(AtomicFileTest, ReplacesTheWholeFileOrLeavesTheOldOneAndNoTemporary) {
  TempRoot root;
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
}

TEST(HostLogTest, DebugLinesReachTheLogFileOneLineEachWithControlBytesMasked) {
  TempRoot root;
  WriteDbgLog(2, "FTP Update [%s]\n", "u\nforged line\x1b[2J");
  WriteDbgLog(0, "no newline %d", 7);
  WriteDbgLog(0, "\n\n%s:%d exist!\n\n", "a\nb", 3);  // a format's own blank lines stay
  std::string text = ReadWholeFile(root.path() + "/var/log/velmar/velmar.log");
  EXPECT_NE(text.find(" [2] FTP Update [u?forged line?[2J]\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" [0] no newline 7\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" [0] \n\na?b:3 exist!\n\n"), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
}

struct TaskDb : CFile2FtpDbMng {};

// The rows of db in order, as "<seq><type><fullpath> ".
std::string Rows(CFile2FtpDbMng* db, std::list<__ftp_log>* rows) {
  std::string s = db->SearchAll(*rows) == 0 ? "" : "error";
  for (const __ftp_log& r : *rows) s += std::to_string(r.seq * 10 + r.type) + r.fullpath + " ";
  return s;
}

TEST(File2FtpDbTest, KeepsRowsInOrderDeletesExactlyAndRefusesForeignFilesUntouched) {
  TempRoot root;
  const UserDefServerSet_t s{2121, "host", "user", "pw", "/dir"};
  std::list<__ftp_log> rows = {{5, 1, "/a", "", "", 1, 0, 0, 1, s, {}}},
                       more = {{2, 1, "/b", "", "", 1, 0, 0, 1, s, {}},
                               {5, 2, "/c", "", "", 1, 0, 0, 1, s, {}},
                               {5, 1, "/d", "", "", 1, 0, 0, 1, s, {}},
                               {9, 1, "/a", "", "", 1, 0, 0, 1, s, {}}},
                       got;
  {
    TaskDb first;
    ASSERT_EQ(first.OpenTable(root.path().c_str()), 0);
    ASSERT_EQ(first.Insert(&rows.front()), 0);
    ASSERT_EQ(first.InsertMore(more), 0);
  }
  rows.splice(rows.end(), more);
  TaskDb db;
  ASSERT_EQ(db.OpenTable(root.path().c_str()), 0);
  EXPECT_EQ(Rows(&db, &got), "51/a 21/b 52/c 51/d 91/a ");
  EXPECT_TRUE(std::equal(got.begin(), got.end(), rows.begin(), rows.end(),
                         [](auto& a, auto& b) { return memcmp(&a, &b, sizeof(a)) == 0; }));
  EXPECT_EQ(db.SearchDelete(root.path().c_str(), "/a"), 0);
  EXPECT_EQ(Rows(&db, &(got = {})), "21/b 52/c 51/d ");
  EXPECT_EQ(db.DeleteBySeqAndType(5, 1), 0);
  EXPECT_EQ(Rows(&db, &(got = {})), "21/b 52/c ");
  // A file that is no database, and one of a newer schema.
  root.Write("/junk/new_file_op.db", std::string(2048, 'j'));
  sqlite3* newer = nullptr;
  sqlite3_open(root.Make("/newer/new_file_op.db").c_str(), &newer);
  sqlite3_exec(newer, "CREATE TABLE ftp_log(x); PRAGMA user_version=99;", nullptr, nullptr,
               nullptr);
  sqlite3_close(newer);
  for (const char* dir : {"/junk", "/newer"}) {
    const std::string mount = root.path() + dir, before = ReadWholeFile(mount + "/new_file_op.db");
    EXPECT_LT(db.OpenTable(mount.c_str()), 0) << dir;
    EXPECT_EQ(db.m_bTabOpen, 0);
    EXPECT_EQ(Rows(&db, &(got = {})), "error");  // the earlier table is closed
    EXPECT_LT(db.SearchDelete(mount.c_str(), "/a"), 0);
    EXPECT_EQ(ReadWholeFile(mount + "/new_file_op.db"), before) << dir;
  }
}

const char kProfile[] = R"(<recorder>
  <device type="3" mcuVersion="MCU-2.1"/>
  <state recorderStatus="1" networkLink="4" watchdogExpired="0"/>
  <disk id="1" mount="/sd1" present="1" usage="18 6"/><disk id="9" mount="/hdd" usage="14"/>
  <disk id="6" mount="/sd2" present="0" usage="18 6"/>
  <partition list="15" id="2" path="${VELMAR_ROOT}/rec"/><partition list="17" id="3" path="/b"/>
</recorder>)";

// The first n words of a 132-byte buffer of 0xEE bytes after GetStatus; none when it fails.
Words Get(STATUS_E which, size_t n = 33) {
  uint8_t buf[132];
  memset(buf, 0xEE, sizeof(buf));
  if (GetStatus(which, buf) != 0) return {};
  Words out(n);
  for (size_t i = 0; i < out.size(); ++i) out[i] = LoadLE32(buf + 4 * i);
  return out;
}

// The disks of a usage, or the partitions of status 15..17, as "id:path ".
std::string Listed(int code) {
  PartStatus_t list;
  memset(&list, 1, sizeof(list));  // a count that shows when nothing cleared it
  int rc = code >= STATUS_PART_LIST_A && code <= STATUS_PART_LIST_B
               ? GetStatus(static_cast<STATUS_E>(code), &list)
               : GetDiskForCommUsage(static_cast<LOG_STATUS_E>(code), &list, nullptr);
  std::string out = rc == 0 ? "" : "fail";
  for (int i = 0; i < list.count && i < 8; ++i) {
    out += std::to_string(list.part[i].type) + ":" +
           std::string(list.part[i].path, strnlen(list.part[i].path, 128)) + " ";
  }
  return out;
}

TEST(HostStatusTest, AnswersFollowTheProfileAndSetStatusIsPublished) {
  TempRoot root;
  time_t stamp = 1700000000;
  // Writes the profile and moves its time stamp on, so that a rewrite is always noticed.
  auto WriteProfile = [&](const std::string& text) {
    root.Write("/etc/velmar/recorder.xml", text);
    struct timeval times[2] = {{++stamp, 0}, {stamp, 0}};
    utimes((root.path() + "/etc/velmar/recorder.xml").c_str(), times);
  };
  EXPECT_EQ(Get(STATUS_RECORDER), Words());  // no profile yet
  WriteProfile(kProfile);
  // Recorder state, device type, link; then the disks: count, and (id, reserved, present) each.
  EXPECT_EQ(
      Words({Get(STATUS_RECORDER).at(32), Get(STATUS_DEVICE).at(0), Get(STATUS_NETWORK).at(0)}),
      Words({1, 3, 4}));
  EXPECT_EQ(Get(STATUS_DISK, 11), Words({3, 1, 0, 1, 9, 0, 1, 6, 0, 0, 0}));
  char mcu[64];
  ASSERT_EQ(GetStatus(STATUS_MCU_VERSION, mcu), 0);
  EXPECT_STREQ(mcu, "MCU-2.1");
  // Only present disks are mounted; a disk serves every usage it lists.
  EXPECT_EQ(Listed(DISK_USAGE_UPLOAD) + Listed(DISK_USAGE_MAINTAIN) + Listed(DISK_USAGE_TYPE9) +
                Listed(STATUS_PART_LIST_A) + Listed(STATUS_PART_LIST_B) +
                Listed(STATUS_PART_LIST_C),
            "1:/sd1 1:/sd1 9:/hdd 2:" + root.path() + "/rec 3:/b ");
  EXPECT_EQ(CCommDog::Instance()->CheckDog(), 0);
  // The same size, the same file: only the time stamp tells of the edit.
  std::string edited = kProfile;
  edited.replace(edited.find("present=\"0\""), 11, "present=\"1\"");
  edited.replace(edited.find("watchdogExpired=\"0\""), 19, "watchdogExpired=\"1\"");
  WriteProfile(edited);
  EXPECT_EQ(Listed(DISK_USAGE_UPLOAD), "1:/sd1 6:/sd2 ");
  EXPECT_GT(CCommDog::Instance()->CheckDog(), 0);
  for (const char* bad : {"<recorder><disk id=", "<other/>"}) {  // until repaired
    WriteProfile(bad);
    EXPECT_EQ(Get(STATUS_DEVICE), Words()) << bad;
    EXPECT_EQ(Listed(DISK_USAGE_MAINTAIN) + Ints(CCommDog::Instance()->CheckDog()), "fail0 ");
  }
  WriteProfile(kProfile);
  EXPECT_EQ(Get(STATUS_DEVICE).size() + Get(static_cast<STATUS_E>(99)).size(), 33u);
  uint8_t net[48] = {7, 0, 0, 0, 2};
  StoreLE32(net + 44, 0xFFFFFFFF);
  UpgradeNotify_t note{201, 21, "/mnt/sd1/X-1-2-3-4.swEXTRA"};  // the path is the first 21
  ASSERT_EQ(SetStatus(STATUS_NETWORK, net) + SetStatus(STATUS_UPGRADE, &note), 0);
  std::string text = ReadWholeFile(root.path() + "/run/velmar/status.xml");
  EXPECT_NE(text.find("<network f0=\"7\" f1=\"2\" f2=\"0\""), std::string::npos) << text;
  EXPECT_NE(text.find(" f11=\"-1\"/>"), std::string::npos) << text;
  EXPECT_NE(text.find("<upgrade code=\"201\" path=\"/mnt/sd1/X-1-2-3-4.sw\""), std::string::npos);
  // The link comes from the profile, the rest as set.
  EXPECT_EQ(Get(STATUS_NETWORK, 13), Words({4, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, ~0u, 0xEEEEEEEE}));
  EXPECT_EQ(SetStatus(STATUS_DISK, net), -1);
}

// Collects the datagrams a listener receives.
struct Inbox {
  std::mutex mutex;
  std::vector<Bytes> got;
  static int Handler(int, sockaddr_un*, unsigned*, char* msg, int len, void* self) {
    std::lock_guard<std::mutex> g(static_cast<Inbox*>(self)->mutex);
    static_cast<Inbox*>(self)->got.emplace_back(msg, msg + len);
    return 0;
  }
  // Datagram i, waited for up to 30 s (far beyond a healthy machine); empty without it.
  Bytes Wait(size_t i) {
    for (int tries = 0; tries < 3000; ++tries, usleep(10000)) {
      std::lock_guard<std::mutex> g(mutex);
      if (got.size() > i) return got[i];
    }
    return {};
  }
};

TEST(EventBusTest, EventsReachTheReceiversRegisteredForThemAsWireBytes) {
  TempRoot root;
  Inbox inbox;
  const char* name = "/tmp/bus watch.tmp.sock";  // a space and ".tmp" are ordinary
  root.Write(name, "stale");                     // a socket file of an earlier run
  void* listener = StartUnixDomainListen(name, Inbox::Handler, &inbox);
  ASSERT_NE(listener, nullptr);
  ASSERT_EQ(RegisterEventReciever(name, 1 << EVENT_HEARTBEAT), 0);
  const std::string entry = root.path() + "/run/evbus/_tmp_bus watch.tmp.sock";
  EXPECT_EQ(ReadWholeFile(entry), "0000000000000040 /tmp/bus watch.tmp.sock\n");
  // Skipped: a receiver of other events, one that has gone, a registration being written.
  ASSERT_EQ(RegisterEventReciever("/tmp/other.sock", 1 << EVENT_FILE_UPLOAD) +
                RegisterEventReciever("/tmp/gone.sock", 1 << EVENT_HEARTBEAT),
            0);
  root.Write("/run/evbus/._x.tmp", "0000000000000040 /tmp/bus watch.tmp.sock\n");
  FakeClock clock;  // the heartbeat of a real pass of the main loop
  TestEnv env;
  env.clock = &clock;
  CMainLoop(&env, CMainLoop::Targets{[](uint32_t) {}, [](uint32_t) {}}).Pass();
  Bytes beat(80, 0);  // "EVB1", event 6, 68 bytes: 2 and the service name
  memcpy(beat.data(), "EVB1\x06\0\0\0\x44\0\0\0\x02\0\0\0velmar", 22);
  EXPECT_EQ(inbox.Wait(0), beat);
  uint8_t payload[3] = {1, 2, 3};  // the count is of receivers reached
  EXPECT_EQ(Ints(DistributeEvent(EVENT_FILE_UPLOAD, 3, payload),
                 DistributeEvent(EVENT_HEARTBEAT, 3, payload),
                 DistributeEvent(EVENT_HEARTBEAT, kEventPayloadMax + 1, payload)),
            "0 1 -1 ");
  EXPECT_EQ(inbox.Wait(1), Bytes({'E', 'V', 'B', '1', 6, 0, 0, 0, 3, 0, 0, 0, 1, 2, 3}));
  EXPECT_EQ(UnregisterEventReciever(name), 0);
  EXPECT_EQ(ReadWholeFile(entry), "");
  EXPECT_EQ(Ints(DistributeEvent(EVENT_HEARTBEAT, 3, payload), UnregisterEventReciever(name),
                 RegisterEventReciever("tmp/relative.sock", 1 << EVENT_HEARTBEAT),
                 StopUnixDomainListen(listener), StopUnixDomainListen(nullptr)),
            "0 -1 -1 0 -1 ");
}

TEST(EventWireTest, EncodeAndParseAcceptOnlyWellFormedDatagrams) {
  Bytes payload(kEventPayloadMax + 1, 0xAB), dgram(kEventHeaderSize + kEventPayloadMax + 1, 0xAB);
  unsigned char* d = dgram.data();
  // No room; a negative length; over 8192.
  EXPECT_EQ(Ints(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 300, d, 311),
                 EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), -1, d, dgram.size()),
                 EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 8193, d, dgram.size())),
            "-1 -1 -1 ");
  ASSERT_EQ(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 300, d, 312), 312);
  EXPECT_EQ(Bytes(d, d + 12), Bytes({'E', 'V', 'B', '1', 22, 0, 0, 0, 0x2C, 0x01, 0, 0}));
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
    EXPECT_EQ(Ints(ev, std::count(out.begin(), out.end(), 0xAB)), Ints(EVENT_FILE_UPLOAD, c[3]));
  }
}

}  // namespace
