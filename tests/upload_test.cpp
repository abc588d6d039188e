// Upload control, the upload engine and the scheduler on one bench: a control manager and its
// engine on a fake clock, status service, bus, database and FTP client, under a root of their own.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "control/ftp_ctrl_mng.h"
#include "platform/byteorder.h"
#include "tests/fakes/fakes.h"
#include "upload/ftp_upload_file_mng.h"
#include "upload/xfile.h"

namespace {

using Strings = std::vector<std::string>;
using Events = std::vector<std::pair<int, int>>;  // (status, seq)
using Ints = std::vector<int>;
using Sizes = std::vector<int64_t>;

// A valid, runnable task: transfer on, any link, server 127.0.0.1:21 "/up", remote "in/remote.bin".
ftpFileInfo_t SampleTask(uint32_t seq, const std::string& fullName, uint8_t type = 0) {
  ftpFileInfo_t t{};
  t.type = type, t.seq = seq, t.valid = 1, t.net = 7, t.trans = 1, t.server.port = 21;
  strncpy(t.fullName, fullName.c_str(), sizeof(t.fullName) - 1);
  strcpy(t.fileName, "remote.bin"), strcpy(t.fileDir, "in");
  strcpy(t.server.host, "127.0.0.1"), strcpy(t.server.path, "/up");
  return t;
}

struct UploadBench {
  UploadBench() { env.clock = &clock, env.status = &status, env.bus = &bus, env.db = &db; }
  // Declares a present disk of status id at root + rel; returns its mount directory.
  std::string AddDisk(int id, const std::string& rel) {
    std::string dir = root.path() + rel;
    MakeDirs(dir.c_str());
    status.disks.push_back({id, 1});
    status.mounts[DISK_USAGE_UPLOAD].push_back(FakeStatus::Entry(id, dir));
    return dir;
  }
  void SetPresent(int id, int present) {
    for (auto& d : status.disks) d.present = d.id == id ? present : d.present;
  }
  std::string File(const std::string& name, const std::string& content = "x") {
    root.Write("/" + name, content);
    return root.path() + "/" + name;
  }
  // Stores tasks of seq named names in dir's database, as an earlier run left them.
  void StoreRows(const std::string& dir, uint32_t seq, const Strings& names) {
    FaultyDb writer;
    ASSERT_EQ(writer.OpenTable(dir.c_str()), 0);
    for (const std::string& name : names) {
      __ftp_log row;
      RowFromRecord(SampleTask(seq, name), &row);
      ASSERT_EQ(writer.Insert(&row), 0);
    }
  }
  // The rows of dir's database, read through a connection of the test's own.
  std::vector<__ftp_log> Rows(const std::string& dir) {
    FaultyDb probe;
    std::list<__ftp_log> rows;
    if (probe.OpenTable(dir.c_str()) == 0) probe.SearchAll(rows);
    return {rows.begin(), rows.end()};
  }
  Ints Seqs(const std::string& dir) {
    Ints out;
    for (const __ftp_log& r : Rows(dir)) out.push_back(static_cast<int>(r.seq));
    return out;
  }
  std::list<ftpFileInfo_t> List() {
    CAutoLock guard(&mng.m_lock);
    return mng.m_taskList;
  }
  Strings Names() {
    Strings out;
    for (const ftpFileInfo_t& t : List()) out.push_back(t.fullName);
    return out;
  }
  int Admit(uint32_t seq, const std::string& name, uint8_t type = 0, uint8_t net = 7,
            uint8_t del = 0) {
    ftpFileInfo_t t = SampleTask(seq, name, type);
    t.net = net, t.delAfterUpload = del;
    return mng.InsertFileInfo(&t);
  }
  // Task status events, after checking the rest of their layout.
  Events StatusEvents() {
    Events out;
    for (const auto& e : bus.Events(EVENT_FILE_UPLOAD)) {
      const std::vector<uint8_t>& p = e.payload;
      EXPECT_EQ(p.size(), 1032u);
      EXPECT_EQ((Ints{int(LoadLE32(p.data())), int(LoadLE32(p.data() + 4))}), (Ints{0x702, 4}));
      EXPECT_EQ(std::vector<uint8_t>(p.begin() + 12, p.end()), std::vector<uint8_t>(1020, 0));
      out.emplace_back(p[8] * 256 + p[9], LoadLE16(p.data() + 10));
    }
    return out;
  }
  // The engine holds t (with a stale result, which the hand-over clears), tried sendTimes times.
  void Hold(ftpFileInfo_t t, uint8_t sendTimes = 0) {
    t.result = 2;
    engine.SetTask(&t);
    CAutoLock guard(&engine.m_taskLock);
    engine.m_stTask.sendTimes = sendTimes;
  }

  TempRoot root;
  FakeClock clock;
  FakeStatus status;
  FakeBus bus;
  FaultyDb db;
  FakeFtpClient::Script ftp;
  TestEnv env;
  CFtpUploadFileMng engine{&env};
  CFtpCtrlMng mng{&env, &engine};
};

class UploadControlTest : public ::testing::Test, public UploadBench {};

// One disk check per step; a task admitted after it lands in the current disk's database.
TEST_F(UploadControlTest, DiskSlotsAndTheCurrentDisk) {
  std::map<std::string, std::string> dir = {
      {"sd3", AddDisk(7, "/mnt/sd3")}, {"sd2", AddDisk(6, "/mnt/sd2")}, {"", ""}};
  AddDisk(2, "/mnt/other");      // no slot
  AddDisk(8, "/media/nomount");  // not under /mnt/
  auto blankCard = [&] {
    SetPresent(6, 0);
    mng.CheckDiskState(1);
    ASSERT_EQ(system(("rm -rf '" + dir["sd2"] + "'").c_str()), 0);
    MakeDirs(dir["sd2"].c_str());
    SetPresent(6, 1);
  };
  auto& mounts = status.mounts[DISK_USAGE_UPLOAD];
  // clang-format off
  struct Step { const char* what; std::function<void()> change; size_t slots; int curId;
                std::string cur; Ints sd2Seqs, sd3Seqs; } steps[] = {
      {"ids 6 and 7 only", [] {}, 2, 6, "sd2", {1}, {}},
      {"disk 6 gone", [&] { SetPresent(6, 0); }, 1, 7, "sd3", {1}, {2}},
      {"recorder status 0", [&] { status.recorderStatus = 0; SetPresent(6, 1); }, 2, 7, "sd3", {1}, {2, 3}},
      {"back to the smaller slot", [&] { status.recorderStatus = 1; }, 2, 6, "sd2", {1, 4}, {2, 3}},
      {"disk 7 gone", [&] { SetPresent(7, 0); }, 1, 6, "sd2", {1, 4, 5}, {2, 3}},
      {"card put back blank at the same mount", blankCard, 1, 6, "sd2", {6}, {2, 3}},
      {"gone from the mount lists", [&] { mounts.erase(mounts.begin() + 1); }, 0, 6, "", {6}, {2, 3}},
      {"another disk while it is unmounted", [&] { SetPresent(7, 1); }, 1, 7, "sd3", {6}, {2, 3, 8}}};
  // clang-format on
  for (const Step& s : steps) {
    SCOPED_TRACE(s.what);
    int n = static_cast<int>(&s - steps) + 1;
    s.change();
    mng.CheckDiskState(static_cast<uint32_t>(10 * n));
    EXPECT_EQ(mng.m_diskMap.size(), s.slots);
    EXPECT_EQ(mng.CurDisk().id, s.curId);
    EXPECT_EQ(mng.CurDisk().path, dir[s.cur]);
    EXPECT_EQ(s.cur.empty() ? 0 : Admit(static_cast<uint32_t>(n), std::to_string(n)), 0);
    EXPECT_EQ(Seqs(dir["sd2"]), s.sd2Seqs);
    EXPECT_EQ(Seqs(dir["sd3"]), s.sd3Seqs);
  }
}

// A disk loads when it comes or moves (queued tasks not twice); an empty queue reloads every 30 s.
// A database deleted under the service gets the queue back at the next second's pass of the
// scheduler, not only at the next disk check five seconds later.
TEST_F(UploadControlTest, ALostDatabaseGetsTheQueueBackWithinASecond) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  EXPECT_EQ((Ints{Admit(1, File("a")), Admit(2, File("b"))}), (Ints{0, 0}));
  ASSERT_EQ(unlink((sd1 + "/new_file_op.db").c_str()), 0);
  mng.ScheduleTask(101);
  EXPECT_EQ(Seqs(sd1), (Ints{1, 2}));
}

TEST_F(UploadControlTest, WhenDisksAreLoaded) {
  std::string sd1 = AddDisk(1, "/mnt/sd1"), moved = root.path() + "/mnt/sd1b";
  mng.CheckDiskState(100);  // loads (nothing) and counts as the reload
  StoreRows(sd1, 1, {"a", "b"});
  status.disks.clear();  // a count of 0: nothing happens at all
  mng.CheckDiskState(200);
  EXPECT_EQ(mng.m_diskMap.size(), 1u);
  status.disks = {{1, 1}};
  mng.CheckDiskState(129);
  EXPECT_TRUE(Names().empty());
  status.failing[STATUS_DISK] = true;  // unreadable: the table stays, the reload step runs
  mng.CheckDiskState(130);
  EXPECT_EQ(Names(), (Strings{"a", "b"}));
  StoreRows(sd1, 1, {"later"});
  mng.CheckDiskState(300);  // tasks queued: no reload
  status.failing[STATUS_DISK] = false;
  MakeDirs(moved.c_str());
  StoreRows(moved, 1, {"b", "b", "c"});
  // The same disk mounted elsewhere; its database holds b (queued) twice and c.
  status.mounts[DISK_USAGE_UPLOAD][0] = FakeStatus::Entry(1, moved);
  mng.CheckDiskState(305);
  EXPECT_EQ(Names(), (Strings{"a", "b", "b", "c"}));
  StoreRows(moved, 1, {"d"});
  mng.CheckDiskState(310);  // same directory: no reload
  EXPECT_EQ(Names().size(), 4u);
  EXPECT_EQ(mng.CurDisk().path, moved);
  EXPECT_STREQ(List().front().server.path, "/up");
}

TEST_F(UploadControlTest, IntakeStoresQueuesAndLimits) {
  EXPECT_EQ(Admit(9, "/0001_00000001_1_0_60_0_0.avi", 1), -1);  // a recording needs a disk
  EXPECT_EQ(Admit(9, "/data/nodisk"), 0);                       // a plain file does not
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  ftpFileInfo_t slashes = SampleTask(10, "/data/x");
  strcpy(slashes.server.path, "//srv/in");
  slashes.result = 2;
  ASSERT_EQ(mng.InsertFileInfo(&slashes), 0);
  EXPECT_EQ(slashes.result, 0);
  EXPECT_STREQ(List().back().server.path, "/srv/in");  // one "/" less in the list
  // The task admitted without a disk was stored once the disk came.
  ASSERT_EQ(Rows(sd1).size(), 2u);
  EXPECT_STREQ(Rows(sd1)[0].fullpath, "/data/nodisk");
  EXPECT_STREQ(Rows(sd1)[1].server.path, "//srv/in");  // as given in the database
  db.full = true;  // the limit is the list's; unstored tasks fill it faster
  for (int i = 2; i < 1000; ++i) ASSERT_EQ(Admit(11, "/data/n" + std::to_string(i)), 0) << i;
  db.full = false;
  for (int i = 0; i < 4; ++i) EXPECT_EQ(Admit(11, "/data/extra"), -1);  // the 1001st is not
  EXPECT_EQ(Names().size(), 1000u);
  clock.AdvanceMs(10000);  // the burst is over: its count is logged without another refusal
  mng.ScheduleTask(1);
  std::string log = ReadWholeFile(root.path() + "/var/log/velmar/velmar.log");
  int logged = 0;
  for (size_t at = log.find(" refused since"); at != std::string::npos;
       at = log.find(" refused since", at + 1))
    logged += atoi(&log[log.rfind("); ", at) + 3]);
  EXPECT_EQ(logged, 5);  // the recording without a disk, and the four
}

// Transfer control over rows, list and engine (holding o, sending): "rows | list | engine".
TEST(UploadControlTableTest, TransferControl) {
  const std::string none = "o=1 p=1 r0=1 r1=1 | r0=1 r1=1 p=1 o=1 l=1 | v1t1s1";
  auto dropListed = [](UploadBench& b) {
    b.mng.SetFtpTrans(1, 0, 40);
    CAutoLock guard(&b.mng.m_lock);
    b.mng.m_taskList.remove_if([](const ftpFileInfo_t& t) { return t.type == 1 && t.seq == 40; });
  };
  auto full = [](UploadBench& b) { b.db.full = true; };
  // clang-format off
  struct Case { const char* what; std::function<void(UploadBench&)> before; int type; unsigned ctr;
                int seq; std::string after; } cases[] = {
      {"off", nullptr, 1, 0, 40, "o=1 p=1 r0=0 r1=0 | r0=0 r1=0 p=1 o=1 l=1 | v1t0s0"},
      {"off, other type", nullptr, 0, 0, 40, "o=1 p=0 r0=1 r1=1 | r0=1 r1=1 p=0 o=1 l=1 | v1t0s0"},
      {"no rows", nullptr, 1, 0, 77, none},
      {"unknown control", nullptr, 1, 3, 41, none},
      {"rows, no list record", dropListed, 1, 1, 40, "o=1 p=1 r0=1 r1=1 | p=1 o=1 l=1 | v1t1s0"},
      {"delete", nullptr, 1, 2, 40, "o=1 p=1 | p=1 o=1 l=1 | v0t0s0"},
      {"off, database full", full, 1, 0, 41, "o=1 p=1 r0=1 r1=1 | r0=1 r1=1 p=1 o=0 l=1 | v1t0s0"},
      {"delete, database full", full, 1, 2, 40, "o=1 p=1 r0=1 r1=1 | p=1 o=1 l=1 | v0t0s0"}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    UploadBench b;
    std::string sd1 = b.AddDisk(1, "/mnt/sd1"), state;
    b.mng.CheckDiskState(100);
    b.Admit(40, "r0", 1), b.Admit(40, "r1", 1), b.Admit(40, "p", 0), b.Admit(41, "o", 1);
    {
      CAutoLock guard(&b.mng.m_lock);
      b.engine.SetTask(&b.mng.m_taskList.back());
      b.mng.m_taskList.push_back(SampleTask(77, "l", 1));  // in the list only
    }
    b.engine.m_nTransState = 1;
    if (c.before) c.before(b);
    b.mng.SetFtpTrans(c.type, c.ctr, c.seq);
    std::map<std::string, int> rows;
    for (const __ftp_log& r : b.Rows(sd1)) rows[r.fullpath] = r.trans;
    for (const auto& r : rows) state += r.first + "=" + std::to_string(r.second) + " ";
    state += "|";
    for (const ftpFileInfo_t& t : b.List())
      state += " " + std::string(t.fullName) + "=" + std::to_string(t.trans);
    ftpFileInfo_t held = b.engine.SnapshotTask();
    state += " | v" + std::to_string(held.valid) + "t" + std::to_string(held.trans) + "s" +
             std::to_string(b.engine.m_nTransState.load());
    EXPECT_STREQ(held.fullName, "o");
    EXPECT_EQ(state, c.after);
  }
}

// Disk and database faults on one disk: tasks a, b (seq 1) queued, the fault, c (seq 2) admitted,
// the cure, then the queue drained. Every task is stored and sent once (in this order), and
// each seq gets one status 0.
TEST(UploadControlTableTest, DiskFaultsLoseNoTaskAndSendOneStatusPerSeq) {
  using Step = std::function<void(UploadBench&)>;
  auto place = [](std::function<void(const std::string&)> make) {  // at the database's path
    return [make](UploadBench& b) { make(b.root.path() + "/mnt/sd1/new_file_op.db"); };
  };
  auto pull = [](UploadBench& b) {  // the mount point stays behind as an empty directory
    b.SetPresent(1, 0);
    std::string dir = b.root.path() + "/mnt/sd1";
    ASSERT_EQ(rename(dir.c_str(), (dir + ".card").c_str()), 0);
    MakeDirs(dir.c_str());
    b.mng.CheckDiskState(150);
  };
  auto putBack = [](UploadBench& b) {
    std::string dir = b.root.path() + "/mnt/sd1";
    EXPECT_EQ(rmdir(dir.c_str()), 0);  // no database was made in the bare mount point
    ASSERT_EQ(rename((dir + ".card").c_str(), dir.c_str()), 0);
    b.SetPresent(1, 1);
  };
  auto pullDuringUpload = [pull](UploadBench& b) {
    b.mng.ScheduleTask(120);  // a is handed over
    pull(b);
    StoreControlByte(&b.engine.m_stTask.result, 1);
    b.mng.ScheduleTask(120);
  };
  auto flap = [](UploadBench& b) {  // away at every other pass
    b.SetPresent(1, b.mng.m_diskMap.empty());
    b.mng.CheckDiskState(400);
  };
  auto full = [](UploadBench& b) { b.db.full = !b.db.full; };
  auto base = [](const char* path) { return std::string(strrchr(path, '/') + 1); };
  // clang-format off
  struct Case { const char* what; Step fault, cure, during; Strings queue; } cases[] = {
      {"card pulled, mount point left", pull, putBack, nullptr, {"a", "b", "c"}},
      {"card pulled during an upload", pullDuringUpload, putBack, nullptr, {"b", "c"}},
      {"disk flapping", nullptr, nullptr, flap, {"a", "b", "c"}},
      {"database full or read-only", full, full, nullptr, {"a", "b", "c"}},
      {"database deleted", place([](auto& f) { unlink(f.c_str()); }), nullptr, nullptr, {"a", "b", "c"}},
      {"garbage", place([](auto& f) { std::ofstream(f) << std::string(3000, 'g'); }), nullptr, nullptr, {"a", "b", "c"}},
      {"truncated", place([](auto& f) { truncate(f.c_str(), 4096); }), nullptr, nullptr, {"a", "b", "c"}},
      {"emptied", place([](auto& f) { std::ofstream{f}; }), nullptr, nullptr, {"a", "b", "c"}},
      {"a directory", place([](auto& f) { unlink(f.c_str()); MakeDirs(f.c_str()); }), nullptr, nullptr, {"a", "b", "c"}},
      {"a FIFO", place([](auto& f) { unlink(f.c_str()); mkfifo(f.c_str(), 0600); }), nullptr, nullptr, {"a", "b", "c"}},
      {"a FIFO journal", place([](auto& f) { mkfifo((f + "-journal").c_str(), 0600); }), nullptr, nullptr, {"a", "b", "c"}},
      {"a link loop", place([](auto& f) { unlink(f.c_str()); symlink(f.c_str(), f.c_str()); }), nullptr, nullptr, {"a", "b", "c"}},
      {"a dangling link", place([](auto& f) { unlink(f.c_str()); symlink("/nonexistent/db", f.c_str()); }), nullptr, nullptr, {"a", "b", "c"}}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    UploadBench b;
    std::string sd1 = b.AddDisk(1, "/mnt/sd1");
    b.mng.CheckDiskState(100);
    EXPECT_EQ((Ints{b.Admit(1, b.File("a")), b.Admit(1, b.File("b"))}), (Ints{0, 0}));
    if (c.fault) c.fault(b);
    EXPECT_EQ(b.Admit(2, b.File("c")), 0);
    if (c.cure) c.cure(b);
    b.mng.CheckDiskState(200);
    Strings stored, sent;
    for (const __ftp_log& r : b.Rows(sd1)) stored.push_back(base(r.fullpath));
    std::sort(stored.begin(), stored.end());
    EXPECT_EQ(stored, c.queue);
    for (uint32_t pass = 300; pass < 310; ++pass) {
      if (c.during) c.during(b);
      b.mng.ScheduleTask(pass);  // hands the head over
      if (b.engine.SnapshotTask().valid == 1) {
        sent.push_back(base(b.engine.SnapshotTask().fullName));
        StoreControlByte(&b.engine.m_stTask.result, 1);
        b.mng.ScheduleTask(pass);
      }
    }
    EXPECT_EQ(sent, c.queue);
    EXPECT_EQ(b.StatusEvents(), (Events{{0, 1}, {0, 2}}));
    EXPECT_TRUE(b.Rows(sd1).empty());
  }
}

const char kAviName[] = "/0001_0000000a_1_100_101_1_0.avi";
const char kBadAvi[] = "/0001_0000000a_1_300_200_1_0.avi";  // ends before it starts

std::string Bytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + 7) & 0xFF);
  return s;
}

// Everything the source yields from where it stands; a stream may answer a read with nothing.
std::string ReadRest(CXFile* src) {
  std::string out;
  std::vector<char> buf(5000);
  for (int empty = 0; empty < 3;) {
    int32_t n = src->Xread(buf.data(), 1, 5000);
    EXPECT_LE(n, 5000);
    empty = n > 0 ? 0 : empty + 1;
    if (n > 0) out.append(buf.data(), static_cast<size_t>(n));
  }
  return out;
}

// Single passes of the engine over a ten-frame recording or a plain file.
class UploadEngineTest : public UploadControlTest {
 protected:
  UploadEngineTest() {
    status.partLists[15] = {FakeStatus::Entry(1, "/mnt/part1")};
    for (int i = 0; i < 10; ++i) recording.Add(100000000ULL + i * 40000, i == 0, 1000, i);
    engine.m_pFtpClient = env.NewFtpClient();  // the engine deletes it
  }
  void Pass() { engine.RunPass(&previous); }

  FakeRecording recording;
  ftpFileInfo_t previous{};
};

TEST_F(UploadEngineTest, SourcesOfEveryKind) {
  std::string local = File("local.bin", "0123456789"), none = root.path() + "/none";
  const char* path = local.c_str();
  char buf[32] = {};
  CXFile other(2, &env), plain(0, &env);  // 2: neither plain file nor recording, nothing works
  EXPECT_EQ((Sizes{other.Xexist(path), other.XsizeByPath(path), other.Xopen(path, "rb"),
                   other.Xread(buf, 1, 4), other.Xseek(0, SEEK_SET), other.Xwrite(buf, 1, 4),
                   other.Xclose(), plain.Xopen(none.c_str(), "rb"), plain.Xsize(),
                   plain.XsizeByPath(none.c_str())}),
            (Sizes{0, 0, -1, -1, -1, -1, -1, -1, -1, 0}));
  ASSERT_EQ(plain.Xopen(path, "r+b"), 0);
  EXPECT_EQ(plain.Xsize(), 10);
  ASSERT_EQ(unlink(path), 0);
  EXPECT_EQ((Sizes{plain.Xsize(), plain.Xseek(4, SEEK_SET), plain.Xread(buf, 1, 16)}),
            (Sizes{-1, 0, 6}));  // size by path, reads by stream
  EXPECT_EQ(std::string(buf, 6), "456789");
  EXPECT_EQ(plain.Xclose(), 0);
  {
    CXFile avi(1, &env);
    EXPECT_EQ((Sizes{avi.Xsize(), avi.XsizeByPath(kBadAvi), avi.Xexist(kBadAvi),
                     avi.Xexist(kAviName), recording.reads}),
              (Sizes{-1, 0, 0, 1, 0}));  // existence reads no frame
    ASSERT_EQ(avi.Xopen(kAviName, "r+b"), 0);
    int readers = recording.created, size = static_cast<int>(avi.Xsize());
    ASSERT_GT(size, 4096);
    // Existence answered from the open stream, without a reader of its own.
    EXPECT_EQ((Sizes{avi.Xexist(kAviName), recording.created, avi.XsizeByPath(kAviName)}),
              (Sizes{1, readers, size}));
    std::string whole = ReadRest(&avi);
    EXPECT_EQ(whole.size(), static_cast<size_t>(size));
    EXPECT_EQ(avi.Xseek(size - 40, SEEK_END), 0);  // always absolute
    EXPECT_EQ(ReadRest(&avi), whole.substr(size - 40));
    EXPECT_EQ((Ints{avi.Xwrite(buf, 1, 4), avi.Xclose(), recording.destroyed - recording.created,
                    avi.Xclose(), avi.Xread(buf, 1, 16), avi.Xopen(kBadAvi, "r+b"), avi.Xclose()}),
              (Ints{-1, 0, 0, -1, 0, -1, -1}));
    ASSERT_EQ(avi.Xopen(kAviName, "r+b"), 0);
    EXPECT_LT(recording.destroyed, recording.created);
  }
  EXPECT_EQ(recording.destroyed, recording.created);  // destruction releases the stream
}

// Unlisted: sent whole (mode 0); listed: resumed at the server's size (mode 1) unless complete
// (all of a plain file; a recording sent before may miss up to 100 bytes).
TEST_F(UploadEngineTest, SendOrResumeFromTheServersSize) {
  CXFile probe(1, &env);
  ASSERT_EQ(probe.Xopen(kAviName, "r+b"), 0);
  const std::string avi = ReadRest(&probe);
  const int kAvi = -1, kNotListed = 1 << 30;
  // clang-format off
  struct Case { int local, sentBefore, missing; bool complete; } cases[] = {  // local: size or kAvi
      {0, 0, kNotListed, false}, {16383, 0, kNotListed, false}, {16384, 0, kNotListed, false},
      {16385, 0, kNotListed, false}, {49153, 0, kNotListed, false}, {5000, 0, 4000, false},
      {5000, 1, 1, false}, {5000, 1, 0, true}, {5000, 0, -7, false}, {kAvi, 0, 100, false},
      {kAvi, 1, 100, true}, {kAvi, 1, 101, false}, {kAvi, 0, 0, true}, {kAvi, 1, -1, false}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.local << " " << c.sentBefore << " " << c.missing);
    ftp.modes.clear();
    ftp.written.clear();
    std::string source = c.local == kAvi ? avi : Bytes(static_cast<size_t>(c.local));
    int32_t onServer =
        c.missing == kNotListed ? 0 : static_cast<int32_t>(source.size()) - c.missing;
    Hold(SampleTask(5, c.local == kAvi ? kAviName : File("local.bin", source), c.local == kAvi),
         static_cast<uint8_t>(c.sentBefore));
    ftp.listing = {FakeFtpClient::Entry("other.bin", 9)};
    if (c.missing != kNotListed)
      ftp.listing.push_back(FakeFtpClient::Entry("remote.bin", onServer));
    Pass();
    const ftpFileInfo_t held = engine.SnapshotTask();
    bool anew = c.missing == kNotListed || c.missing < 0;  // a larger copy is stored anew
    EXPECT_EQ(ftp.dir + "/" + ftp.name, "in/remote.bin");
    EXPECT_EQ(ftp.written,
              c.complete ? "" : source.substr(anew ? 0 : static_cast<size_t>(onServer)));
    EXPECT_EQ(ftp.modes, c.complete ? Ints{} : Ints{anew ? 0 : 1});
    // Result, tries, transfer state, busy flag.
    EXPECT_EQ((Ints{held.result, held.sendTimes, engine.m_nTransState, engine.m_nBusy}),
              (Ints{c.complete, c.sentBefore + !c.complete, c.complete ? 0 : 2, 0}));
  }
  // Ten frames: read twice by the probe, counted once for all the engine's openings of the
  // closed recording, read by each of its three sends.
  EXPECT_EQ(recording.reads, 10 * (2 + 1 + 3));
}

// A partial copy is appended to only once its size holds still over two listings 2 s apart
// (a dead sender's data may still be arriving), and is judged again on the size it settled at.
// A copy that never stops growing is a failed pass.
TEST_F(UploadEngineTest, AppendsOnlyToACopyThatHoldsStill) {
  const std::string source = Bytes(5000);
  // clang-format off
  struct Case { std::vector<int32_t> sizes; int mode; int32_t from; uint8_t result, fails; } cases[] = {
      {{1000}, 1, 1000, 0, 0}, {{1000, 3000, 4000}, 1, 4000, 0, 0},
      {{1000, 6000}, 0, 0, 0, 0}, {{1000, 5000}, -1, 0, 1, 0}, {{}, -1, 0, 0, 1}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    ftp.modes.clear(), ftp.written.clear(), ftp.lists = 0;
    ftp.onList = [&](int n) {  // listing n shows sizes[n - 1], the last one from then on
      int32_t size = c.sizes.empty() ? 1000 * n : c.sizes[std::min<size_t>(n, c.sizes.size()) - 1];
      ftp.listing = {FakeFtpClient::Entry("remote.bin", size)};
    };
    Hold(SampleTask(5, File("local.bin", source)));
    uint64_t slept = clock.sleptUs();
    Pass();
    const ftpFileInfo_t held = engine.SnapshotTask();
    EXPECT_EQ(ftp.modes, c.mode < 0 ? Ints{} : Ints{c.mode});
    EXPECT_EQ(ftp.written, c.mode < 0 ? "" : source.substr(static_cast<size_t>(c.from)));
    EXPECT_EQ((Ints{held.result, held.connFailTimes}), (Ints{c.result, c.fails}));
    EXPECT_GE(clock.sleptUs() - slept, 2000000u * std::max<size_t>(c.sizes.size(), 1));
  }
  ftp.onList = nullptr;
}

// Passes that end early or meet a source or server fault, followed by the scheduler: delivered
// (status 0, a flagged file removed) only when the server holds the whole file; else continued,
// stored anew (three times at most) or given up (status 1, file kept). A cleared valid stops a
// send after its block (3); a cleared trans only ends it, the task stays open.
TEST(UploadEngineFaultsTest, PassesThatEndEarly) {
  const int64_t kSelf = -1, kFifo = -2, kNoCopy = -1, kWhole = -2, k2G2 = (int64_t(11) << 30) / 5;
  using Change = std::function<void(UploadBench&, const std::string&)>;
  Change vanish = [](UploadBench&, const std::string& path) { unlink(path.c_str()); };
  auto resize = [](size_t size) {  // written anew: the same bytes, fewer or more of them
    return [=](UploadBench& b, const std::string&) { b.root.Write("/src.bin", Bytes(size)); };
  };
  auto set = [](uint8_t valid, uint8_t trans) {
    return [=](UploadBench& b, const std::string&) { b.engine.SetTaskTrans(valid, trans); };
  };
  // clang-format off
  struct Case { const char* what; int64_t size, missing, listLie; bool sizeKnown; Change change;
                int passes; Ints modes; int64_t copy; int result, status; bool kept; } cases[] = {
      {"read, not write: the running test program", kSelf, 1000, 0, false, nullptr, 2, {1}, kWhole, 1, 0, true},
      {"a FIFO: refused at once", kFifo, kNoCopy, 0, false, nullptr, 1, {}, kNoCopy, 2, 1, true},
      {"vanishes, sent whole from the open file", 100000, kNoCopy, 0, false, vanish, 2, {0}, 100000, 2, 1, false},
      {"over 2 GiB", k2G2, 1000, 0, false, nullptr, 2, {1}, kWhole, 1, 0, false},
      {"listed whole, SIZE short", 5000, 1000, 1000, true, nullptr, 2, {1}, kWhole, 1, 0, false},
      {"listed short, SIZE whole", 5000, 0, -1000, true, nullptr, 1, {}, kWhole, 1, 0, false},
      {"always listed larger", 5000, kNoCopy, 1000, false, nullptr, 4, {0, 0, 0}, kWhole, 0, 1, true},
      {"shrinks during the send", 100000, kNoCopy, 0, false, resize(20000), 3, {0, 0}, kWhole, 1, 0, false},
      {"grows during the send", 5000, kNoCopy, 0, false, resize(8000), 3, {0, 1}, kWhole, 1, 0, false},
      {"trans cleared", 100000, kNoCopy, 0, false, set(1, 0), 1, {0}, 16384, 0, -1, true},
      {"valid cleared", 100000, kNoCopy, 0, false, set(0, 1), 1, {0}, 16384, 3, -1, true},
      {"both cleared", 100000, kNoCopy, 0, false, set(0, 0), 1, {0}, 16384, 3, -1, true}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    UploadBench b;
    b.engine.m_pFtpClient = b.env.NewFtpClient();
    std::string sd1 = b.AddDisk(1, "/mnt/sd1");
    b.mng.CheckDiskState(100);
    char self[4096] = {};  // the program's own file (under an emulator too, unlike the link)
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    std::string path =
        c.size == kSelf ? self : b.File("src.bin", Bytes(std::clamp<int64_t>(c.size, 1, 100000)));
    EXPECT_EQ(c.size >= 0 ? truncate(path.c_str(), c.size) : 0, 0);  // sparse beyond 100000
    struct stat st {};
    stat(path.c_str(), &st);
    ASSERT_EQ(b.Admit(5, path, 0, 7, c.size != kSelf), 0);
    b.mng.ScheduleTask(100);  // handed over
    EXPECT_EQ(c.size == kFifo ? unlink(path.c_str()) + mkfifo(path.c_str(), 0600) : 0, 0);
    b.ftp.keepsCopy = true, b.ftp.sizeKnown = c.sizeKnown, b.ftp.listLie = c.listLie;
    b.ftp.held = c.missing == kNoCopy ? -1 : st.st_size - c.missing;
    b.ftp.onWrite = [&](size_t total) {
      if (c.change && total <= 16384) c.change(b, path);  // after the first block
    };
    ftpFileInfo_t previous{};
    for (int i = 0; i < c.passes; ++i) b.engine.RunPass(&previous);
    stat(path.c_str(), &st);  // the size the source ended with
    EXPECT_EQ(b.engine.SnapshotTask().result, c.result);
    b.mng.ScheduleTask(101);
    EXPECT_EQ(b.ftp.modes, c.modes);
    EXPECT_EQ(b.ftp.held, c.copy == kWhole ? st.st_size : c.copy);
    EXPECT_EQ(b.StatusEvents(), (c.status < 0 ? Events{} : Events{{c.status, 5}}));
    EXPECT_EQ(access(path.c_str(), F_OK) == 0, c.kept);
    int queued = c.status < 0;  // else gone from list and database
    EXPECT_EQ((Ints{int(b.Names().size()), int(b.Rows(sd1).size())}), (Ints{queued, queued}));
  }
}

// Failed logins, listings and data connections count (a partial send resets nothing) and pause
// 10 s; after four the task is given up (status event 1, deleted from queue and database)
// without another login, and the next one is handed over.
TEST_F(UploadEngineTest, FourFailedConnectionsGiveTheTaskUp) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  ftpFileInfo_t t = SampleTask(70000, File("local.bin", Bytes(70000)));
  ASSERT_EQ(mng.InsertFileInfo(&t), 0);
  ASSERT_EQ(Admit(71, File("next.bin")), 0);
  Hold(t);
  ftp.startFailures = 2;
  Pass();
  Pass();
  ftp.writeFailAfter = 16384;
  Pass();
  EXPECT_EQ((Ints{int(ftp.written.size()), engine.SnapshotTask().connFailTimes}), (Ints{16384, 2}));
  ftp.listResult = -1;  // logged in, but no listing (a refused data port)
  Pass();
  ftp.listResult = 0, ftp.dataFails = true;
  Pass();
  EXPECT_GE(clock.sleptUs(), 44000000u);  // 10 s after each failed connection, 3 s after a send
  EXPECT_EQ(engine.SnapshotTask().connFailTimes, 4);
  EXPECT_TRUE(StatusEvents().empty());
  EXPECT_EQ(Seqs(sd1), (Ints{70000, 71}));
  ftp.dataFails = false;
  Pass();
  EXPECT_EQ(StatusEvents(), (Events{{1, 70000 & 0xFFFF}}));
  ftpFileInfo_t held = engine.SnapshotTask();
  EXPECT_EQ((Ints{held.valid, held.connFailTimes, held.result, ftp.starts}), (Ints{0, 0, 0, 5}));
  EXPECT_EQ((Ints{int(ftp.written.size()), int(List().size()), int(Seqs(sd1).size())}),
            (Ints{16384, 1, 1}));
  mng.ScheduleTask(100);  // the next task is handed over
  EXPECT_EQ(engine.SnapshotTask().seq, 71u);
}

// The scheduler with two disks, against an engine whose outcome a test sets by hand.
class SchedulerTest : public UploadControlTest {
 protected:
  SchedulerTest() : sd1(AddDisk(1, "/mnt/sd1")), sd2(AddDisk(6, "/mnt/sd2")) {}
  int Stored(int seq) {
    return db.SearchBySeqAndType(sd1.c_str(), seq, 0) + db.SearchBySeqAndType(sd2.c_str(), seq, 0);
  }
  std::string Held() { return engine.SnapshotTask().fullName; }
  // The engine reports an outcome for the task it holds.
  void Finish(uint8_t result) { StoreControlByte(&engine.m_stTask.result, result); }

  std::string sd1, sd2;
};

// No disk, no move; then hand-over by link mask, status 11 once a second, a stop when the link
// goes.
TEST_F(SchedulerTest, HandOverFollowsTheNetworkLink) {
  std::string a = File("a"), b = File("b");
  EXPECT_EQ((Ints{Admit(5, a, 0, 4), Admit(6, b, 0, 1)}), (Ints{0, 0}));
  for (uint32_t s = 90; s < 95; ++s) mng.ScheduleTask(s);
  EXPECT_EQ((Ints{engine.SnapshotTask().valid, int(status.networkSets.size())}), (Ints{0, 0}));
  mng.CheckDiskState(100);
  status.networkLink = 4;  // mask 1: a may not go, b may
  engine.m_nTransState = 1;
  mng.ScheduleTask(100);
  EXPECT_EQ(Names(), (Strings{b, a}));
  ASSERT_EQ(status.networkSets.size(), 1u);
  EXPECT_EQ(LoadLE32(status.networkSets[0].data() + 4), 1u);
  mng.ScheduleTask(100);
  EXPECT_EQ(Held() + std::to_string(status.networkSets.size()), b + "1");
  {
    CAutoLock guard(&mng.m_lock);
    mng.m_taskList.front().trans = 0;  // switched off by a transfer control: the engine follows
  }
  mng.ScheduleTask(100);
  EXPECT_EQ((Ints{engine.SnapshotTask().trans, engine.SnapshotTask().valid}), (Ints{0, 1}));
  status.networkLink = 1;  // mask 4: b's link is gone
  mng.ScheduleTask(101);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);
  EXPECT_EQ(Names(), (Strings{b, a}));
  const int masks[][2] = {{1, 4}, {2, 4}, {3, 1}, {4, 1}, {5, 2}, {6, 0}};
  for (const auto& m : masks) {
    status.networkLink = m[0];
    mng.ScheduleTask(200 + static_cast<uint32_t>(m[0]));
    EXPECT_EQ(mng.m_netMask, static_cast<uint32_t>(m[1])) << "link " << m[0];
  }
}

// Two tasks of one sequence number stored on two disks: one status event, after the second.
TEST_F(SchedulerTest, SequenceNumberCompletesOverAllDisks) {
  std::string a = File("a"), b = File("b");
  StoreRows(sd2, 5, {b});
  mng.CheckDiskState(100);  // loads b from the second disk
  EXPECT_EQ(Admit(5, a), 0);
  for (const std::string& next : {b, a}) {
    EXPECT_TRUE(StatusEvents().empty());
    EXPECT_EQ(Stored(5), next == b ? 2 : 1);
    mng.ScheduleTask(100);
    EXPECT_EQ(Held(), next);
    Finish(1);
    mng.ScheduleTask(100);
  }
  EXPECT_EQ(StatusEvents(), (Events{{0, 5}}));
  EXPECT_EQ(Stored(5), 0);
}

// Invalid or gone heads dropped with their rows; a stranger released; too many tries leave the
// list, not the database; an unreadable network status ends the pass.
TEST_F(SchedulerTest, TasksThatAreNotSent) {
  mng.CheckDiskState(100);
  std::string b = File("b");
  ftpFileInfo_t invalid = SampleTask(6, b);
  invalid.valid = 0, invalid.delAfterUpload = 1;
  ASSERT_EQ(mng.InsertFileInfo(&invalid), 0);
  EXPECT_EQ(Admit(6, root.path() + "/missing"), 0);
  mng.ScheduleTask(100);
  EXPECT_EQ((Ints{access(b.c_str(), F_OK) == 0, Stored(6)}), (Ints{0, 1}));  // flagged file gone
  mng.ScheduleTask(100);
  EXPECT_EQ((Ints{Stored(6), int(Names().size())}), (Ints{0, 0}));
  EXPECT_EQ(Admit(5, File("a")), 0);
  ftpFileInfo_t stranger = SampleTask(9, File("stranger"));
  engine.SetTask(&stranger);
  mng.ScheduleTask(100);
  // A held task that is not queued (completed, then marked valid by a transfer control) is
  // released, and the head is handed over at the next pass.
  EXPECT_EQ(Held() + std::to_string(engine.SnapshotTask().valid),
            std::string(stranger.fullName) + "0");
  mng.ScheduleTask(100);  // a is handed over
  EXPECT_EQ(Held(), File("a"));
  {
    CAutoLock guard(&engine.m_taskLock);
    engine.m_stTask.sendTimes = 4;
  }
  engine.m_nTransState = 2;
  mng.ScheduleTask(100);
  EXPECT_EQ((Ints{int(Names().size()), Stored(5), engine.SnapshotTask().valid}), (Ints{0, 1, 0}));
  EXPECT_TRUE(StatusEvents().empty());
  status.failing[STATUS_NETWORK] = true;
  EXPECT_EQ(Admit(7, File("c")), 0);
  mng.ScheduleTask(200);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);
  mng.ScheduleTask(200);  // same second: no network step
  EXPECT_EQ(engine.SnapshotTask().valid, 1);
}

// The real upload thread sends while the scheduler follows (also for ThreadSanitizer); waits
// count polls on the fake clock and logins, never wall-clock time.
TEST_F(SchedulerTest, RealUploadThreadSendsWhileTheSchedulerFollows) {
  ASSERT_EQ(engine.StartSyncThread(), 0);
  EXPECT_EQ(engine.StartSyncThread(), 0);  // a second call starts nothing
  engine.SetTaskTrans(0, 1);               // no runnable task: the thread puts trans back to 0
  for (uint64_t end = clock.sleptUs() + 300000; clock.sleptUs() < end;) std::this_thread::yield();
  EXPECT_EQ(engine.SnapshotTask().trans, 0);  // three 100 ms polls later
  std::string content(100000, 'v');
  ftp.onWrite = [this](size_t total) {
    std::lock_guard<std::mutex> g(ftp.mutex);  // the server lists what it received
    ftp.listing = {FakeFtpClient::Entry("remote.bin", static_cast<int32_t>(total))};
  };
  mng.CheckDiskState(100);
  EXPECT_EQ(Admit(5, File("big", content)), 0);
  auto logins = [this] {
    std::lock_guard<std::mutex> g(ftp.mutex);
    return ftp.starts;
  };
  for (uint32_t second = 100; StatusEvents().empty() && logins() < 10;) mng.ScheduleTask(++second);
  engine.m_thread.Join();
  EXPECT_EQ(ftp.written, content);
  EXPECT_EQ(StatusEvents(), (Events{{0, 5}}));
  // Rows gone; the client deleted by the stopping thread.
  EXPECT_EQ((Ints{Stored(5), engine.m_pFtpClient != nullptr}), (Ints{0, 0}));
}

}  // namespace
