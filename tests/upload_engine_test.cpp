#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "control/ftp_ctrl_mng.h"
#include "platform/byteorder.h"
#include "tests/fakes/fake_ftp_client.h"
#include "tests/fakes/fake_readdisk.h"
#include "tests/fakes/fakes.h"
#include "tests/fakes/sample_task.h"
#include "upload/ftp_upload_file_mng.h"
#include "upload/xfile.h"

namespace {

class TestCtrlMng : public CFtpCtrlMng {};
class TestEngine : public CFtpUploadFileMng {};

std::string Bytes(size_t n, int seed = 7) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + seed) & 0xFF);
  return s;
}

ftpFileInfo_t PlainTask(const std::string& path, uint32_t seq = 5) {
  return SampleTask(seq, path, 0);
}

// Drives single passes of the singleton engine on a fake clock with a scripted client.
class UploadEngineTest : public ::testing::Test {
 protected:
  UploadEngineTest() {
    engine = CFtpUploadFileMng::Instance();
    engine->m_pFtpClient = NewFtpClient();
    engine->m_nBusy = 0;
    engine->m_nTransState = 0;
  }
  ~UploadEngineTest() override {
    delete engine->m_pFtpClient;
    engine->m_pFtpClient = nullptr;
  }
  std::string LocalFile(const std::string& content) {
    std::string path = root.path() + "/local.bin";
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  void Hold(const ftpFileInfo_t& t) { engine->SetTask(&t); }
  void Pass() { engine->RunPass(&previous); }

  TempRoot root;
  FakeClock clock;
  FakeStatus status;
  FakeBus bus;
  LogCapture log;
  FakeFtpClient::Installer ftp;
  CFtpUploadFileMng* engine;
  ftpFileInfo_t previous{};
};

TEST_F(UploadEngineTest, ResumesWithAppendFromTheServersSize) {
  std::string content = Bytes(5000);
  Hold(PlainTask(LocalFile(content)));
  ftp.s().listing = {FakeFtpClient::Entry("other.bin", 9), FakeFtpClient::Entry("remote.bin", 1000)};
  Pass();
  EXPECT_EQ(ftp.s().modes, std::vector<int>{1});
  EXPECT_EQ(ftp.s().written, content.substr(1000));
  EXPECT_EQ(ftp.s().dir, "in");
  EXPECT_EQ(ftp.s().name, "remote.bin");
  ftpFileInfo_t held = engine->SnapshotTask();
  EXPECT_EQ(held.sendTimes, 1);
  EXPECT_EQ(held.result, 0);  // completeness is judged by the next listing, not by bytes sent
  EXPECT_EQ(engine->m_nTransState, 2);
  EXPECT_EQ(engine->m_nBusy, 0);
  EXPECT_EQ(log.Count("seq:5 file:" + root.path() + "/local.bin size[1000,5000] ..."), 1);
  EXPECT_EQ(log.Count("remote.bin:0 exist!"), 1);
  EXPECT_EQ(log.Count("SendFile2FtpServer:230 tarns"), 1);

  ftp.s().listing = {FakeFtpClient::Entry("remote.bin", 5000)};  // the next pass: complete
  Pass();
  EXPECT_EQ(ftp.s().modes.size(), 1u);  // no data connection
  EXPECT_EQ(engine->SnapshotTask().result, 1);
  EXPECT_EQ(log.Count("size[5000,5000] finish!"), 1);
}

TEST_F(UploadEngineTest, NotListedSendsWholeFileAndMissingLocalFileEndsWithResult2) {
  std::string content = Bytes(40000);
  Hold(PlainTask(LocalFile(content)));
  Pass();
  EXPECT_EQ(ftp.s().modes, std::vector<int>{0});
  EXPECT_EQ(ftp.s().written, content);
  EXPECT_EQ(log.Count("ftp trans"), 0);  // the fake clock never moved a second during the send

  Hold(PlainTask(root.path() + "/gone.bin"));
  Pass();
  EXPECT_EQ(engine->SnapshotTask().result, 2);
  EXPECT_EQ(log.Count("ftp Xopen file:" + root.path() + "/gone.bin faild"), 1);

  // Listed on the server but gone locally: counts as done.
  Hold(PlainTask(root.path() + "/gone.bin"));
  ftp.s().listing = {FakeFtpClient::Entry("remote.bin", 10)};
  Pass();
  EXPECT_EQ(engine->SnapshotTask().result, 1);
  EXPECT_EQ(log.Count("FileSyncProcess:373 file:"), 1);
}

TEST_F(UploadEngineTest, ClearingTransOrValidDuringASendStopsIt) {
  std::string content = Bytes(100000);
  Hold(PlainTask(LocalFile(content)));
  ftp.s().onWrite = [this](size_t total) {
    if (total >= 32768) engine->SetTaskTrans(1, 0);
  };
  Pass();
  EXPECT_EQ(ftp.s().written.size(), 32768u);
  EXPECT_EQ(log.Count("stop by:2"), 1);
  EXPECT_EQ(engine->SnapshotTask().result, 0);

  Hold(PlainTask(LocalFile(content)));
  ftp.s().written.clear();
  ftp.s().onWrite = [this](size_t total) {
    if (total >= 16384) engine->SetTaskTrans(0, 1);
  };
  Pass();
  EXPECT_EQ(log.Count("stop by:1"), 1);
  EXPECT_EQ(engine->SnapshotTask().result, 3);
}

TEST_F(UploadEngineTest, WriteFailureEndsTheSendForTheNextPassToResume) {
  std::string content = Bytes(70000);
  Hold(PlainTask(LocalFile(content)));
  ftp.s().writeFailAfter = 16384 * 2;
  Pass();
  EXPECT_EQ(log.Count("FtpWriteDate len:16384, ret:-1 trans next"), 1);
  EXPECT_EQ(log.Count("stop by:0"), 1);
  EXPECT_EQ(engine->SnapshotTask().result, 0);
  EXPECT_EQ(ftp.s().closes, 1);

  ftp.s().writeFailAfter = -1;
  ftp.s().listing = {FakeFtpClient::Entry("remote.bin", 16384 * 2)};
  Pass();
  EXPECT_EQ(ftp.s().modes, (std::vector<int>{0, 1}));
  EXPECT_EQ(ftp.s().written, content);  // the two sends together are the file
}

TEST_F(UploadEngineTest, FourFailedConnectionsGiveTheTaskUp) {
  ftpFileInfo_t t = PlainTask(LocalFile(Bytes(10)), 321);
  Hold(t);
  ftp.s().startFailures = 3;
  for (int i = 0; i < 3; ++i) Pass();  // three failed logins, 10 s pause each
  EXPECT_EQ(engine->SnapshotTask().connFailTimes, 3);
  EXPECT_GE(clock.sleptUs(), 30000000u);
  ftp.s().dataFails = true;  // a failed data connection counts too
  Pass();
  EXPECT_EQ(engine->SnapshotTask().connFailTimes, 4);
  EXPECT_EQ(log.Count("ftp Create DateSockFd faild cnt:4"), 1);
  EXPECT_TRUE(bus.Events(EVENT_FILE_UPLOAD).empty());

  ftp.s().dataFails = false;
  Pass();  // the next pass gives it up, then goes on with the (now invalid) task
  auto events = bus.Events(EVENT_FILE_UPLOAD);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].payload[9], 1);
  EXPECT_EQ(LoadLE16(events[0].payload.data() + 10), 321);
  ftpFileInfo_t held = engine->SnapshotTask();
  EXPECT_EQ(held.valid, 0);  // removed through transfer control
  EXPECT_EQ(held.connFailTimes, 0);
  EXPECT_EQ(held.result, 3);           // the send found the task cleared
  EXPECT_TRUE(ftp.s().written.empty());
  EXPECT_EQ(log.Count("SetFtpTrans:361 filetype:0 ctrtype:2 seq:321"), 1);
}

TEST_F(UploadEngineTest, RecordingToleranceAppliesOnlyAfterTheFirstSend) {
  FakeRecording recording;
  recording.SetParam(25, 3);
  for (int i = 0; i < 10; ++i) recording.Add(100000000ULL + i * 40000, i == 0 ? 1 : 0, 1000, i);
  status.partLists[15] = {FakeStatus::Entry(1, "/mnt/part1")};
  ftpFileInfo_t t = PlainTask("/0001_0000000a_1_100_101_1_0.avi");
  t.type = 1;
  CXFile probe(1);
  int32_t size = probe.XsizeByPath(t.fullName);
  ASSERT_GT(size, 4096);

  // 50 bytes short on the first attempt: continued, and exactly the missing tail is sent.
  Hold(t);
  ftp.s().listing = {FakeFtpClient::Entry("remote.bin", size - 50)};
  Pass();
  EXPECT_EQ(ftp.s().modes, std::vector<int>{1});
  EXPECT_EQ(ftp.s().written.size(), 50u);
  EXPECT_EQ(engine->SnapshotTask().sendTimes, 1);
  // Sent once already: the same 50 bytes are within the tolerance, so it is complete.
  Pass();
  EXPECT_EQ(engine->SnapshotTask().result, 1);
  EXPECT_EQ(ftp.s().modes.size(), 1u);

  // More than 100 bytes short is continued even after a send.
  Hold(t);
  {
    CAutoLock guard(&engine->m_taskLock);
    engine->m_stTask.sendTimes = 1;
  }
  ftp.s().listing = {FakeFtpClient::Entry("remote.bin", size - 101)};
  Pass();
  EXPECT_EQ(ftp.s().modes.size(), 2u);
  EXPECT_EQ(ftp.s().written.size(), 50u + 101u);
}

TEST_F(UploadEngineTest, ListingFailureClosesAndMinusTwoCountsAsDone) {
  Hold(PlainTask(LocalFile(Bytes(10))));
  ftp.s().listResult = -1;
  Pass();
  EXPECT_EQ(engine->SnapshotTask().result, 0);
  EXPECT_EQ(ftp.s().closes, 1);
  ftp.s().listResult = -2;
  Pass();
  EXPECT_EQ(engine->SnapshotTask().result, 1);
  EXPECT_TRUE(ftp.s().modes.empty());
}

TEST(UploadThreadTest, StartsOnceClearsIdleTransAndStops) {
  TempRoot root;
  LogCapture log;
  FakeFtpClient::Installer ftp;
  TestEngine engine;
  EXPECT_EQ(engine.StartSyncThread(), 0);
  EXPECT_EQ(engine.StartSyncThread(), 0);  // a second call starts nothing
  EXPECT_EQ(engine.m_bStarted, 1);
  engine.SetTaskTrans(0, 1);  // no runnable task: trans goes back to 0 within a poll
  bool cleared = false;
  for (int i = 0; i < 50 && !cleared; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    cleared = engine.SnapshotTask().trans == 0;
  }
  EXPECT_TRUE(cleared);
  engine.m_thread.Join();
  EXPECT_EQ(engine.m_thread.GetStatus(), 0);
  EXPECT_EQ(engine.m_pFtpClient, nullptr);  // deleted by the stopping thread
}

// The scheduler against the singleton engine, whose outcome each test sets by hand.
class SchedulerTest : public ::testing::Test {
 protected:
  SchedulerTest() {
    CFile2FtpDbMng::Instance()->m_bTabOpen = 0;
    engine = CFtpUploadFileMng::Instance();
    ftpFileInfo_t zero{};
    engine->SetTask(&zero);
    engine->m_nBusy = 0;
    engine->m_nTransState = 0;
    sd1 = root.path() + "/mnt/sd1";
    MakeDirs(sd1.c_str());
    std::lock_guard<std::mutex> g(status.mutex);
    status.disks.push_back({1, 1});
    status.mounts[DISK_USAGE_UPLOAD].push_back(FakeStatus::Entry(1, sd1));
    status.networkLink = 1;  // mask 4
  }
  std::string File(const std::string& name) {
    std::string path = root.path() + "/" + name;
    std::ofstream(path) << "x";
    return path;
  }
  ftpFileInfo_t Queue(const std::string& path, uint32_t seq, uint8_t net = 4) {
    ftpFileInfo_t t = PlainTask(path, seq);
    t.net = net;
    EXPECT_EQ(mng.InsertFileInfo(&t), 0);
    return t;
  }
  std::vector<std::string> Names() {
    CAutoLock guard(&mng.m_lock);
    std::vector<std::string> out;
    for (const ftpFileInfo_t& t : mng.m_taskList) out.push_back(t.fullName);
    return out;
  }
  int Rows() { return CFile2FtpDbMng::Instance()->SearchBySeqAndType(sd1.c_str(), 5, 0) +
                      CFile2FtpDbMng::Instance()->SearchBySeqAndType(sd1.c_str(), 6, 0); }
  // The engine reports an outcome for the task it holds.
  void Finish(uint8_t result) { StoreControlByte(&engine->m_stTask.result, result); }

  TempRoot root;
  FakeStatus status;
  FakeBus bus;
  LogCapture log;
  TestCtrlMng mng;
  CFtpUploadFileMng* engine;
  std::string sd1;
};

TEST_F(SchedulerTest, NoDiskLeavesTheQueueAlone) {
  ftpFileInfo_t t = PlainTask(File("a"), 5);
  ASSERT_EQ(mng.InsertFileInfo(&t), 0);
  for (uint32_t s = 100; s < 105; ++s) mng.ScheduleTask(s);
  EXPECT_EQ(engine->SnapshotTask().valid, 0);
  EXPECT_EQ(Names().size(), 1u);
}

TEST_F(SchedulerTest, HandsOverFollowsLinksAndCompletesPerSequenceNumber) {
  mng.CheckDiskState(100);
  std::string a = File("a"), b = File("b");
  Queue(a, 5);
  Queue(b, 5);
  mng.ScheduleTask(100);
  ftpFileInfo_t held = engine->SnapshotTask();
  EXPECT_STREQ(held.fullName, a.c_str());
  ASSERT_EQ(status.networkSets.size(), 1u);
  EXPECT_EQ(mng.m_netMask, 4u);

  engine->m_nTransState = 1;
  mng.ScheduleTask(101);  // the state is published once a second
  ASSERT_EQ(status.networkSets.size(), 2u);
  EXPECT_EQ(LoadLE32(status.networkSets[1].data() + 4), 1u);

  Finish(1);  // a done: b of the same sequence number is still stored, so no event
  mng.ScheduleTask(101);
  EXPECT_TRUE(bus.Events(EVENT_FILE_UPLOAD).empty());
  EXPECT_EQ(Names(), std::vector<std::string>{b});
  EXPECT_EQ(engine->SnapshotTask().valid, 0);

  mng.ScheduleTask(101);  // b is handed over
  EXPECT_STREQ(engine->SnapshotTask().fullName, b.c_str());
  Finish(1);
  mng.ScheduleTask(101);
  auto events = bus.Events(EVENT_FILE_UPLOAD);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].payload[9], 0);
  EXPECT_EQ(LoadLE16(events[0].payload.data() + 10), 5);
  EXPECT_TRUE(Names().empty());
  EXPECT_EQ(Rows(), 0);
}

TEST_F(SchedulerTest, DisallowedLinkRotatesTheHeadAndStopsTheRunningTask) {
  mng.CheckDiskState(100);
  std::string a = File("a"), b = File("b");
  Queue(a, 5, 4);
  Queue(b, 6, 1);
  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.networkLink = 4;  // mask 1: a may not go, b may
  }
  mng.ScheduleTask(100);
  EXPECT_EQ(Names(), (std::vector<std::string>{b, a}));
  mng.ScheduleTask(100);
  EXPECT_STREQ(engine->SnapshotTask().fullName, b.c_str());

  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.networkLink = 1;  // mask 4: b's link is gone
  }
  mng.ScheduleTask(101);
  ftpFileInfo_t held = engine->SnapshotTask();
  EXPECT_EQ(held.valid, 0);  // stopped, but still queued
  EXPECT_EQ(Names(), (std::vector<std::string>{b, a}));
}

TEST_F(SchedulerTest, TransferOffReachesTheEngineAndResult3KeepsTheFile) {
  mng.CheckDiskState(100);
  std::string a = File("a");
  ftpFileInfo_t t = PlainTask(a, 5);
  t.delAfterUpload = 1;
  ASSERT_EQ(mng.InsertFileInfo(&t), 0);
  mng.ScheduleTask(100);
  {
    CAutoLock guard(&mng.m_lock);
    mng.m_taskList.front().trans = 0;  // as transfer control leaves it
  }
  mng.ScheduleTask(100);
  EXPECT_EQ(engine->SnapshotTask().trans, 0);
  EXPECT_EQ(engine->SnapshotTask().valid, 1);

  Finish(3);
  mng.ScheduleTask(100);
  EXPECT_TRUE(bus.Events(EVENT_FILE_UPLOAD).empty());
  EXPECT_EQ(access(a.c_str(), F_OK), 0);  // kept although flagged
  EXPECT_TRUE(Names().empty());
  EXPECT_EQ(Rows(), 0);
}

TEST_F(SchedulerTest, DoneTaskRemovesFlaggedFileAndInvalidOrMissingHeadsAreDropped) {
  mng.CheckDiskState(100);
  std::string a = File("a"), b = File("b");
  ftpFileInfo_t t = PlainTask(a, 5);
  t.delAfterUpload = 1;
  ASSERT_EQ(mng.InsertFileInfo(&t), 0);
  mng.ScheduleTask(100);
  Finish(2);  // could not be opened: still completes its sequence number
  mng.ScheduleTask(100);
  EXPECT_EQ(bus.Events(EVENT_FILE_UPLOAD).size(), 1u);
  EXPECT_NE(access(a.c_str(), F_OK), 0);

  ftpFileInfo_t invalid = PlainTask(b, 6);
  invalid.valid = 0;
  invalid.delAfterUpload = 1;
  ASSERT_EQ(mng.InsertFileInfo(&invalid), 0);
  Queue(root.path() + "/missing", 6);
  mng.ScheduleTask(100);  // invalid head: dropped with its rows and its file
  EXPECT_NE(access(b.c_str(), F_OK), 0);
  mng.ScheduleTask(100);  // missing file: dropped with its rows
  EXPECT_EQ(log.Count("file does not exist"), 1);
  EXPECT_TRUE(Names().empty());
  EXPECT_EQ(Rows(), 0);
  EXPECT_EQ(bus.Events(EVENT_FILE_UPLOAD).size(), 1u);
}

TEST_F(SchedulerTest, EngineTaskOutsideTheQueueAndTriedTooOftenAndUnreadableNetwork) {
  mng.CheckDiskState(100);
  std::string a = File("a");
  Queue(a, 5);
  ftpFileInfo_t stranger = PlainTask(File("stranger"), 9);
  engine->SetTask(&stranger);
  mng.ScheduleTask(100);
  EXPECT_STREQ(engine->SnapshotTask().fullName, stranger.fullName);  // nothing changes
  EXPECT_EQ(Names().size(), 1u);

  engine->SetTaskTrans(0, 0);
  mng.ScheduleTask(100);  // a is handed over
  {
    CAutoLock guard(&engine->m_taskLock);
    engine->m_stTask.sendTimes = 4;
  }
  engine->m_nTransState = 2;
  mng.ScheduleTask(100);
  EXPECT_TRUE(Names().empty());  // out of the list...
  EXPECT_EQ(Rows(), 1);          // ...but kept for the next reload
  EXPECT_EQ(engine->SnapshotTask().valid, 0);

  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.failing[STATUS_NETWORK] = true;
  }
  Queue(File("b"), 6);
  mng.ScheduleTask(200);  // the network step fails: the pass ends
  EXPECT_EQ(mng.m_lastSecond, 200u);
  EXPECT_EQ(engine->SnapshotTask().valid, 0);
  mng.ScheduleTask(200);  // same second: goes on without the network step
  EXPECT_EQ(engine->SnapshotTask().valid, 1);
}

}  // namespace
