// The upload scheduler against an engine whose outcome each test sets by hand, and once
// against the real upload thread.
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
  int Stored(uint32_t seq) {
    return db.SearchBySeqAndType(sd1.c_str(), static_cast<int>(seq), 0) +
           db.SearchBySeqAndType(sd2.c_str(), static_cast<int>(seq), 0);
  }
  // The engine reports an outcome for the task it holds.
  void Finish(uint8_t result) { StoreControlByte(&engine.m_stTask.result, result); }

  std::string sd1, sd2;
};

TEST_F(SchedulerTest, NoDiskNoWorkAndTheStateIsPublishedOnceASecond) {
  Queue(File("a"), 5);
  for (uint32_t s = 90; s < 95; ++s) mng.ScheduleTask(s);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);
  EXPECT_TRUE(status.networkSets.empty());

  mng.CheckDiskState(100);
  mng.ScheduleTask(100);
  EXPECT_STREQ(engine.SnapshotTask().fullName, (root.path() + "/a").c_str());
  EXPECT_EQ(status.networkSets.size(), 1u);
  engine.m_nTransState = 1;
  mng.ScheduleTask(101);
  mng.ScheduleTask(101);
  ASSERT_EQ(status.networkSets.size(), 2u);
  EXPECT_EQ(LoadLE32(status.networkSets[1].data() + 4), 1u);

  const int masks[][2] = {{1, 4}, {2, 4}, {3, 1}, {4, 1}, {5, 2}, {6, 0}};
  for (const auto& m : masks) {
    status.networkLink = m[0];
    mng.ScheduleTask(200 + static_cast<uint32_t>(m[0]));
    EXPECT_EQ(mng.m_netMask, static_cast<uint32_t>(m[1])) << "link " << m[0];
  }
}

// The engine's outcome ends the task: out of the list and every disk's database; done (1) and
// unopenable (2) complete the sequence number and remove a flagged file, stopped (3) keeps it.
TEST_F(SchedulerTest, OutcomesOfTheEnginesTask) {
  struct Case {
    uint8_t result, del;
    bool event, fileKept;
  } cases[] = {{1, 1, true, false}, {1, 0, true, true}, {2, 1, true, false}, {3, 1, false, true}};
  mng.CheckDiskState(100);
  for (const Case& c : cases) {
    uint32_t seq = static_cast<uint32_t>(10 + (&c - cases));
    SCOPED_TRACE(seq);
    size_t events = StatusEvents().size();
    std::string path = File("f" + std::to_string(seq));
    Queue(path, seq, 4, c.del);
    mng.ScheduleTask(100);
    {
      CAutoLock guard(&mng.m_lock);
      mng.m_taskList.front().trans = 0;  // as transfer control leaves it
    }
    mng.ScheduleTask(100);
    EXPECT_EQ(engine.SnapshotTask().trans, 0);  // passed on to the engine's task
    EXPECT_EQ(engine.SnapshotTask().valid, 1);
    Finish(c.result);
    mng.ScheduleTask(100);
    EXPECT_EQ(StatusEvents().size(), events + (c.event ? 1 : 0));
    if (c.event) {
      EXPECT_EQ(StatusEvents().back(), std::make_pair(0, static_cast<int>(seq)));
    }
    EXPECT_EQ(access(path.c_str(), F_OK) == 0, c.fileKept);
    EXPECT_TRUE(Names().empty());
    EXPECT_EQ(Stored(seq), 0);
    EXPECT_EQ(engine.SnapshotTask().valid, 0);
  }
}

// Two tasks of one sequence number stored on two disks: one status event, after the second.
TEST_F(SchedulerTest, SequenceNumberCompletesOverAllDisks) {
  std::string b = File("b");
  StoreRows(sd2, 5, {b});
  mng.CheckDiskState(100);  // loads b from the second disk
  std::string a = File("a");
  Queue(a, 5);
  ASSERT_EQ(Names(), (std::vector<std::string>{b, a}));
  mng.ScheduleTask(100);
  Finish(1);
  mng.ScheduleTask(100);
  EXPECT_TRUE(StatusEvents().empty());
  EXPECT_EQ(Names(), std::vector<std::string>{a});
  EXPECT_EQ(Stored(5), 1);
  mng.ScheduleTask(100);
  EXPECT_STREQ(engine.SnapshotTask().fullName, a.c_str());
  Finish(1);
  mng.ScheduleTask(100);
  EXPECT_EQ(StatusEvents(), (std::vector<std::pair<int, int>>{{0, 5}}));
  EXPECT_EQ(Stored(5), 0);
}

TEST_F(SchedulerTest, DisallowedLinkRotatesTheHeadAndStopsTheRunningTask) {
  mng.CheckDiskState(100);
  std::string a = File("a"), b = File("b");
  Queue(a, 5, 4);
  Queue(b, 6, 1);
  status.networkLink = 4;  // mask 1: a may not go, b may
  mng.ScheduleTask(100);
  EXPECT_EQ(Names(), (std::vector<std::string>{b, a}));
  mng.ScheduleTask(100);
  EXPECT_STREQ(engine.SnapshotTask().fullName, b.c_str());
  status.networkLink = 1;  // mask 4: b's link is gone
  mng.ScheduleTask(101);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);  // stopped, but still queued
  EXPECT_EQ(Names(), (std::vector<std::string>{b, a}));
}

TEST_F(SchedulerTest, InvalidOrMissingHeadsAreDroppedUnsent) {
  mng.CheckDiskState(100);
  std::string b = File("b");
  ftpFileInfo_t invalid = SampleTask(6, b);
  invalid.valid = 0;
  invalid.delAfterUpload = 1;
  ASSERT_EQ(mng.InsertFileInfo(&invalid), 0);
  Queue(root.path() + "/missing", 6);
  mng.ScheduleTask(100);
  EXPECT_NE(access(b.c_str(), F_OK), 0);  // dropped with its flagged file
  EXPECT_EQ(Stored(6), 1);
  mng.ScheduleTask(100);
  EXPECT_TRUE(Names().empty());
  EXPECT_EQ(Stored(6), 0);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);
  EXPECT_TRUE(StatusEvents().empty());
}

TEST_F(SchedulerTest, EngineTaskOutsideTheQueueTriedTooOftenAndUnreadableNetwork) {
  mng.CheckDiskState(100);
  Queue(File("a"), 5);
  ftpFileInfo_t stranger = SampleTask(9, File("stranger"));
  engine.SetTask(&stranger);
  mng.ScheduleTask(100);
  EXPECT_STREQ(engine.SnapshotTask().fullName, stranger.fullName);  // nothing changes
  EXPECT_EQ(engine.SnapshotTask().valid, 1);
  EXPECT_EQ(Names().size(), 1u);

  engine.SetTaskTrans(0, 0);
  mng.ScheduleTask(100);  // a is handed over
  {
    CAutoLock guard(&engine.m_taskLock);
    engine.m_stTask.sendTimes = 4;
  }
  engine.m_nTransState = 2;
  mng.ScheduleTask(100);
  EXPECT_TRUE(Names().empty());  // out of the list, its row kept for the next reload
  EXPECT_EQ(Stored(5), 1);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);

  status.failing[STATUS_NETWORK] = true;
  Queue(File("b"), 6);
  mng.ScheduleTask(200);  // the network step fails: the pass ends
  EXPECT_EQ(mng.m_lastSecond, 200u);
  EXPECT_EQ(engine.SnapshotTask().valid, 0);
  mng.ScheduleTask(200);  // same second: no network step
  EXPECT_EQ(engine.SnapshotTask().valid, 1);
}

// The real upload thread sends a task while the scheduler follows it from this thread. Besides
// its checks, the case exists for ThreadSanitizer: the held task's control bytes, counters and
// the transfer state are shared by the two threads as in the service. The thread sleeps on the
// fake clock; the waits below have no time limit (the test runner's time-out ends a hang).
TEST_F(SchedulerTest, RealUploadThreadSendsWhileTheSchedulerFollows) {
  ASSERT_EQ(engine.StartSyncThread(), 0);
  EXPECT_EQ(engine.StartSyncThread(), 0);  // a second call starts nothing
  engine.SetTaskTrans(0, 1);               // no runnable task: the thread puts trans back to 0
  while (engine.SnapshotTask().trans != 0) std::this_thread::yield();

  std::string content(100000, 'v');
  ftp.s().onWrite = [this](size_t total) {
    std::lock_guard<std::mutex> g(ftp.s().mutex);  // the server lists what it received
    ftp.s().listing = {FakeFtpClient::Entry("remote.bin", static_cast<int32_t>(total))};
  };
  mng.CheckDiskState(100);
  Queue(File("big", content), 5);
  for (uint32_t second = 100; StatusEvents().empty(); std::this_thread::yield()) {
    mng.ScheduleTask(++second);
  }
  engine.m_thread.Join();
  EXPECT_EQ(ftp.s().written, content);
  EXPECT_EQ(StatusEvents(), (std::vector<std::pair<int, int>>{{0, 5}}));
  EXPECT_TRUE(Names().empty());
  EXPECT_EQ(Stored(5), 0);
  EXPECT_EQ(engine.m_pFtpClient, nullptr);  // deleted by the stopping thread
}

}  // namespace
