// Upload control: the disk table and the current disk, loading each disk's database, task
// intake and transfer control, with the database's faults switched on in the fake.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <thread>
#include <tuple>

#include "tests/upload_bench.h"

namespace {

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
                std::string cur; std::vector<int> sd2Seqs, sd3Seqs; } steps[] = {
      {"ids 6 and 7 only", [] {}, 2, 6, "sd2", {1}, {}},
      {"disk 6 gone", [&] { SetPresent(6, 0); }, 1, 7, "sd3", {1}, {2}},
      {"recorder status 0", [&] { status.recorderStatus = 0; SetPresent(6, 1); }, 2, 7, "sd3", {1}, {2, 3}},
      {"back to the smaller slot", [&] { status.recorderStatus = 1; }, 2, 6, "sd2", {1, 4}, {2, 3}},
      {"disk 7 gone", [&] { SetPresent(7, 0); }, 1, 6, "sd2", {1, 4, 5}, {2, 3}},
      {"card put back blank at the same mount", blankCard, 1, 6, "sd2", {6}, {2, 3}},
      {"gone from the mount lists", [&] { mounts.erase(mounts.begin() + 1); }, 1, 6, "", {6}, {2, 3}},
  };
  // clang-format on
  for (const Step& s : steps) {
    SCOPED_TRACE(s.what);
    int n = static_cast<int>(&s - steps) + 1;
    s.change();
    mng.CheckDiskState(static_cast<uint32_t>(10 * n));
    EXPECT_EQ(mng.m_diskMap.size(), s.slots);
    EXPECT_EQ(mng.CurDisk().id, s.curId);
    EXPECT_EQ(mng.CurDisk().path, dir[s.cur]);
    if (!s.cur.empty()) {
      EXPECT_EQ(Admit(static_cast<uint32_t>(n), std::to_string(n)), 0);
    }
    EXPECT_EQ(Seqs(dir["sd2"]), s.sd2Seqs);
    EXPECT_EQ(Seqs(dir["sd3"]), s.sd3Seqs);
  }
}

// A disk is loaded when it comes or its mount directory changes (tasks already queued are not
// added twice), and the current disk again while the queue is empty, at most every 30 s.
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
  EXPECT_EQ(Names(), (std::vector<std::string>{"a", "b"}));
  StoreRows(sd1, 1, {"later"});
  mng.CheckDiskState(300);  // tasks queued: no reload
  status.failing[STATUS_DISK] = false;
  MakeDirs(moved.c_str());
  StoreRows(moved, 1, {"b", "b", "c"});
  // The same disk mounted elsewhere; its database holds b (queued) twice and c.
  status.mounts[DISK_USAGE_UPLOAD][0] = FakeStatus::Entry(1, moved);
  mng.CheckDiskState(305);
  EXPECT_EQ(Names(), (std::vector<std::string>{"a", "b", "b", "c"}));
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
  ASSERT_EQ(Rows(sd1).size(), 1u);
  EXPECT_STREQ(Rows(sd1)[0].server.path, "//srv/in");  // as given in the database
  db.full = true;  // the limit is the list's; unstored tasks fill it faster
  for (int i = 2; i < 1000; ++i) ASSERT_EQ(Admit(11, "/data/n" + std::to_string(i)), 0) << i;
  db.full = false;
  EXPECT_EQ(Admit(11, "/data/extra"), -1);  // the 1000th was admitted, the 1001st is not
  EXPECT_EQ(Names().size(), 1000u);
  EXPECT_EQ(Rows(sd1).size(), 1u);  // nor stored
}

// Transfer control of (seq, type) over the current disk's rows (by name), the list (in order)
// and the engine, which holds o and is sending. State: "rows | list | engine".
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
      {"delete, database full", full, 1, 2, 40, "o=1 p=1 r0=1 r1=1 | p=1 o=1 l=1 | v0t0s0"},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    UploadBench b;
    std::string sd1 = b.AddDisk(1, "/mnt/sd1");
    b.mng.CheckDiskState(100);
    for (auto t : {std::make_tuple(40, "r0", 1), {40, "r1", 1}, {40, "p", 0}, {41, "o", 1}}) {
      b.Admit(std::get<0>(t), std::get<1>(t), std::get<2>(t));
    }
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
    std::string state;
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

// A database that refuses writes still loads; one that is broken loads nothing. Either way an
// admitted task is queued for this run and the stored rows stay as they were.
TEST(UploadControlTableTest, DatabaseFaults) {
  for (bool corrupt : {false, true}) {
    SCOPED_TRACE(corrupt ? "corrupt" : "full");
    UploadBench b;
    std::string sd1 = b.AddDisk(1, "/mnt/sd1");
    b.StoreRows(sd1, 2, {"/data/a", "/data/b"});
    (corrupt ? b.db.corrupt : b.db.full) = true;
    b.mng.CheckDiskState(100);
    EXPECT_EQ(b.Names().size(), corrupt ? 0u : 2u);
    EXPECT_EQ(b.Admit(3, "/data/new"), 0);
    EXPECT_EQ(b.Names().back(), "/data/new");
    EXPECT_EQ(b.Seqs(sd1), (std::vector<int>{2, 2}));
  }
}

// The only proof that admitted tasks survive kill -9 right after the last admission returned:
// a fresh load finds them all, in order, none twice.
TEST_F(UploadControlTest, AdmittedTasksSurviveSigkill) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    mng.CheckDiskState(100);
    for (int i = 0; i < 200; ++i) Admit(1, std::to_string(i));
    (void)!write(ready[1], "k", 1);
    pause();
  }
  close(ready[1]);
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  FaultyDb fresh;
  std::list<ftpFileInfo_t> list;
  CLock lock;
  dataSync(&fresh, &sd1[0], list, &lock);
  std::vector<std::string> names, expected;
  for (const ftpFileInfo_t& t : list) names.push_back(t.fullName);
  for (int i = 0; i < 200; ++i) expected.push_back(std::to_string(i));
  EXPECT_EQ(names, expected);
}

// Intake, transfer control and engine steering race the disk check. The case exists for
// ThreadSanitizer, which sees every unguarded access of the shared list, database and task.
TEST_F(UploadControlTest, IntakeTransferControlAndEngineFromThreeThreads) {
  AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  std::thread intake([&] {
    for (int i = 0; i < 60; ++i) Admit(50 + i % 3, std::to_string(i), 1);
  });
  std::thread control([&] {
    for (int i = 0; i < 30; ++i) mng.SetFtpTrans(1, static_cast<unsigned>(i % 3), 50 + i % 3);
  });
  for (int i = 0; i < 500; ++i) engine.SetTaskTrans(static_cast<uint8_t>(i % 2), 1);
  for (uint32_t i = 0; i < 20; ++i) mng.CheckDiskState(101 + i);
  intake.join();
  control.join();
}

}  // namespace
