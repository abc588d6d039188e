// The upload scheduler on the bench with two disks, against an engine whose outcome each test
// sets by hand, and once against the real upload thread.
#include <unistd.h>

#include <thread>

#include "tests/upload_bench.h"

namespace {

class SchedulerTest : public ::testing::Test, public UploadBench {
 protected:
  SchedulerTest() : sd1(AddDisk(1, "/mnt/sd1")), sd2(AddDisk(6, "/mnt/sd2")) {}
  void Queue(const std::string& path, uint32_t seq, uint8_t net = 7, uint8_t del = 0) {
    EXPECT_EQ(Admit(seq, path, 0, net, del), 0);
  }
  int Stored(int seq) {
    return db.SearchBySeqAndType(sd1.c_str(), seq, 0) + db.SearchBySeqAndType(sd2.c_str(), seq, 0);
  }
  int Logins() {
    std::lock_guard<std::mutex> g(ftp.s().mutex);
    return ftp.s().starts;
  }
  std::string Held() { return engine.SnapshotTask().fullName; }
  // The engine reports an outcome for the task it holds.
  void Finish(uint8_t result) { StoreControlByte(&engine.m_stTask.result, result); }

  std::string sd1, sd2;
};

// Nothing moves before a disk is known. Then the head task goes to the idle engine, the network
// state is published once a second (status 11), a head whose link is not allowed goes to the
// back, and the engine's task is stopped, still queued, when its link goes.
TEST_F(SchedulerTest, HandOverFollowsTheNetworkLink) {
  std::string a = File("a"), b = File("b");
  Queue(a, 5, 4);
  Queue(b, 6, 1);
  for (uint32_t s = 90; s < 95; ++s) mng.ScheduleTask(s);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);
  EXPECT_TRUE(status.networkSets.empty());
  mng.CheckDiskState(100);
  status.networkLink = 4;  // mask 1: a may not go, b may
  engine.m_nTransState = 1;
  mng.ScheduleTask(100);
  EXPECT_EQ(Names(), (std::vector<std::string>{b, a}));
  ASSERT_EQ(status.networkSets.size(), 1u);
  EXPECT_EQ(LoadLE32(status.networkSets[0].data() + 4), 1u);
  mng.ScheduleTask(100);
  EXPECT_EQ(status.networkSets.size(), 1u);
  EXPECT_EQ(Held(), b);
  status.networkLink = 1;  // mask 4: b's link is gone
  mng.ScheduleTask(101);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);
  EXPECT_EQ(Names(), (std::vector<std::string>{b, a}));
  const int masks[][2] = {{1, 4}, {2, 4}, {3, 1}, {4, 1}, {5, 2}, {6, 0}};
  for (const auto& m : masks) {
    status.networkLink = m[0];
    mng.ScheduleTask(200 + static_cast<uint32_t>(m[0]));
    EXPECT_EQ(mng.m_netMask, static_cast<uint32_t>(m[1])) << "link " << m[0];
  }
}

// The engine's outcome ends the task: out of the list and every disk's database; done (1) and
// unopenable (2) complete the sequence number and remove a flagged file, stopped (3) keeps it.
// Transfer control's trans of the queued task reaches the engine meanwhile.
TEST_F(SchedulerTest, OutcomesOfTheEnginesTask) {
  struct Case {
    uint8_t result, del;
    bool event, fileKept;
  } cases[] = {{1, 1, true, false}, {1, 0, true, true}, {2, 1, true, false}, {3, 1, false, true}};
  mng.CheckDiskState(100);
  for (const Case& c : cases) {
    int seq = static_cast<int>(10 + (&c - cases));
    SCOPED_TRACE(seq);
    size_t events = StatusEvents().size();
    std::string path = File("f" + std::to_string(seq));
    Queue(path, static_cast<uint32_t>(seq), 7, c.del);
    mng.ScheduleTask(100);
    {
      CAutoLock guard(&mng.m_lock);
      mng.m_taskList.front().trans = 0;
    }
    mng.ScheduleTask(100);
    EXPECT_EQ(engine.SnapshotTask().trans, 0);
    EXPECT_EQ(engine.SnapshotTask().valid, 1);
    Finish(c.result);
    mng.ScheduleTask(100);
    EXPECT_EQ(StatusEvents().size(), events + (c.event ? 1 : 0));
    if (c.event) {
      EXPECT_EQ(StatusEvents().back(), std::make_pair(0, seq));
    }
    EXPECT_EQ(access(path.c_str(), F_OK) == 0, c.fileKept);
    EXPECT_TRUE(Names().empty());
    EXPECT_EQ(Stored(seq), 0);
    EXPECT_EQ(engine.SnapshotTask().valid, 0);
  }
}

// Two tasks of one sequence number stored on two disks: one status event, after the second.
TEST_F(SchedulerTest, SequenceNumberCompletesOverAllDisks) {
  std::string a = File("a"), b = File("b");
  StoreRows(sd2, 5, {b});
  mng.CheckDiskState(100);  // loads b from the second disk
  Queue(a, 5);
  for (const std::string& next : {b, a}) {
    EXPECT_TRUE(StatusEvents().empty());
    EXPECT_EQ(Stored(5), next == b ? 2 : 1);
    mng.ScheduleTask(100);
    EXPECT_EQ(Held(), next);
    Finish(1);
    mng.ScheduleTask(100);
  }
  EXPECT_EQ(StatusEvents(), (std::vector<std::pair<int, int>>{{0, 5}}));
  EXPECT_EQ(Stored(5), 0);
}

// Heads that are not valid or whose file is gone are dropped unsent with their rows (and a
// flagged file); an engine task no longer queued is left alone; a task tried too often leaves
// the list but keeps its row; an unreadable network status ends the pass.
TEST_F(SchedulerTest, TasksThatAreNotSent) {
  mng.CheckDiskState(100);
  std::string b = File("b");
  ftpFileInfo_t invalid = SampleTask(6, b);
  invalid.valid = 0;
  invalid.delAfterUpload = 1;
  ASSERT_EQ(mng.InsertFileInfo(&invalid), 0);
  Queue(root.path() + "/missing", 6);
  mng.ScheduleTask(100);
  EXPECT_NE(access(b.c_str(), F_OK), 0);
  EXPECT_EQ(Stored(6), 1);
  mng.ScheduleTask(100);
  EXPECT_EQ(Stored(6), 0);
  EXPECT_TRUE(Names().empty());

  Queue(File("a"), 5);
  ftpFileInfo_t stranger = SampleTask(9, File("stranger"));
  engine.SetTask(&stranger);
  mng.ScheduleTask(100);
  EXPECT_EQ(Held(), stranger.fullName);
  EXPECT_EQ(engine.SnapshotTask().valid, 1);
  engine.SetTaskTrans(0, 0);
  mng.ScheduleTask(100);  // a is handed over
  {
    CAutoLock guard(&engine.m_taskLock);
    engine.m_stTask.sendTimes = 4;
  }
  engine.m_nTransState = 2;
  mng.ScheduleTask(100);
  EXPECT_TRUE(Names().empty());
  EXPECT_EQ(Stored(5), 1);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);
  EXPECT_TRUE(StatusEvents().empty());

  status.failing[STATUS_NETWORK] = true;
  Queue(File("c"), 7);
  mng.ScheduleTask(200);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);
  mng.ScheduleTask(200);  // same second: no network step
  EXPECT_EQ(engine.SnapshotTask().valid, 1);
}

// The real upload thread sends a task while the scheduler follows it from this thread. Besides
// its checks, the case exists for ThreadSanitizer: the held task's control bytes, counters and
// the transfer state are shared by the two threads as in the service. The waits count the
// thread's polls on the fake clock and its logins, never wall-clock time.
TEST_F(SchedulerTest, RealUploadThreadSendsWhileTheSchedulerFollows) {
  ASSERT_EQ(engine.StartSyncThread(), 0);
  EXPECT_EQ(engine.StartSyncThread(), 0);  // a second call starts nothing
  engine.SetTaskTrans(0, 1);               // no runnable task: the thread puts trans back to 0
  for (uint64_t end = clock.sleptUs() + 300000; clock.sleptUs() < end;) std::this_thread::yield();
  EXPECT_EQ(engine.SnapshotTask().trans, 0);  // three 100 ms polls later
  std::string content(100000, 'v');
  ftp.s().onWrite = [this](size_t total) {
    std::lock_guard<std::mutex> g(ftp.s().mutex);  // the server lists what it received
    ftp.s().listing = {FakeFtpClient::Entry("remote.bin", static_cast<int32_t>(total))};
  };
  mng.CheckDiskState(100);
  Queue(File("big", content), 5);
  for (uint32_t second = 100; StatusEvents().empty() && Logins() < 10;) mng.ScheduleTask(++second);
  engine.m_thread.Join();
  EXPECT_EQ(ftp.s().written, content);
  EXPECT_EQ(StatusEvents(), (std::vector<std::pair<int, int>>{{0, 5}}));
  EXPECT_EQ(Stored(5), 0);
  EXPECT_EQ(engine.m_pFtpClient, nullptr);  // deleted by the stopping thread
}

}  // namespace
