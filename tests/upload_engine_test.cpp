#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
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


std::string Bytes(size_t n, int seed = 7) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + seed) & 0xFF);
  return s;
}

ftpFileInfo_t PlainTask(const std::string& path, uint32_t seq = 5) {
  return SampleTask(seq, path, 0);
}

// Plain-file sources, and a source of a kind that is neither plain file nor recording.
TEST(UploadSourceTest, PlainFileAndUnknownKind) {
  TempRoot root;
  std::string path = root.path() + "/plain.bin";
  std::ofstream(path, std::ios::binary) << "0123456789";
  char buf[32] = {};
  TestEnv env;

  CXFile other(2, &env);  // every operation fails, even on an existing file
  EXPECT_EQ(other.Xexist(path.c_str()), 0);
  EXPECT_EQ(other.XsizeByPath(path.c_str()), 0);
  EXPECT_EQ(other.Xopen(path.c_str(), "rb"), -1);
  EXPECT_EQ(other.Xsize(), -1);
  EXPECT_EQ(other.Xread(buf, 1, 4), -1);
  EXPECT_EQ(other.Xseek(0, SEEK_SET), -1);
  EXPECT_EQ(other.Xwrite(buf, 1, 4), -1);
  EXPECT_EQ(other.Xclose(), -1);

  CXFile missing(0, &env);
  testing::internal::CaptureStdout();
  EXPECT_EQ(missing.Xopen((root.path() + "/none").c_str(), "rb"), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "fopen faild No such file or directory\n");
  EXPECT_EQ(missing.Xsize(), -1);
  EXPECT_EQ(missing.XsizeByPath((root.path() + "/none").c_str()), 0);

  CXFile plain(0, &env);
  ASSERT_EQ(plain.Xopen(path.c_str(), "r+b"), 0);
  EXPECT_EQ(plain.Xsize(), 10);
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_EQ(plain.Xsize(), -1);  // the size goes through the stored path...
  EXPECT_EQ(plain.Xseek(4, SEEK_SET), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(plain.Xread(buf, 1, 16), 6);  // ...while the open stream still reads
  EXPECT_EQ(plain.Xread(buf + 6, 4, 4), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Xread: 16 ret = 6\nXread: 16 ret = 0\n");
  EXPECT_EQ(std::string(buf, 6), "456789");
  EXPECT_EQ(plain.Xclose(), 0);
}

// Recording sources: the AVI stream over a fake frame store.
TEST(UploadSourceTest, Recording) {
  FakeStatus status;
  status.partLists[15] = {FakeStatus::Entry(1, "/mnt/part1")};
  TestEnv env;
  env.status = &status;
  FakeRecording rec;
  rec.SetParam(25, 3);
  for (int i = 0; i < 10; ++i) rec.Add(100000000ULL + i * 40000, i == 0 ? 1 : 0, 3000, i);
  const char* name = "/0001_0000000a_1_100_101_1_0.avi";
  const char* bad = "/0001_0000000a_1_300_200_1_0.avi";  // ends before it starts
  std::vector<uint8_t> whole;
  {
    CXFile src(1, &env);
    EXPECT_EQ(src.Xsize(), -1);
    EXPECT_EQ(src.XsizeByPath(bad), 0);
    EXPECT_EQ(src.Xexist(bad), 0);
    ASSERT_EQ(src.Xopen(name, "r+b"), 0);
    int opened = rec.created;
    EXPECT_EQ(src.Xexist(name), 1);
    EXPECT_EQ(rec.created, opened);  // answered from the open stream
    int32_t size = src.Xsize();
    ASSERT_GT(size, 4096);
    EXPECT_EQ(src.XsizeByPath(name), size);
    // Reads up to want bytes; the stream may answer a read with nothing before its end.
    auto read = [&src](size_t want) {
      std::vector<uint8_t> out, buf(5000);
      for (int empty = 0; out.size() < want && empty < 3;) {
        int32_t n = src.Xread(buf.data(), 1, 5000);
        EXPECT_LE(n, 5000);
        empty = n > 0 ? 0 : empty + 1;
        if (n > 0) out.insert(out.end(), buf.begin(), buf.begin() + n);
      }
      return out;
    };
    whole = read(SIZE_MAX);
    EXPECT_EQ(whole.size(), static_cast<size_t>(size));
    // SEEK_END is not honoured: the offset is absolute.
    EXPECT_EQ(src.Xseek(size - 40, SEEK_END), 0);
    EXPECT_EQ(read(SIZE_MAX), std::vector<uint8_t>(whole.end() - 40, whole.end()));
    EXPECT_EQ(src.Xwrite(whole.data(), 1, 4), -1);
    EXPECT_EQ(src.Xclose(), 0);
    EXPECT_EQ(rec.destroyed, rec.created);
    EXPECT_EQ(src.Xclose(), -1);  // handle and reader are gone
    EXPECT_EQ(src.Xread(whole.data(), 1, 16), 0);  // a recording not open reads nothing
  }
  {
    CXFile failed(1, &env);
    EXPECT_EQ(failed.Xopen(bad, "r+b"), -1);
    EXPECT_NE(failed.m_pAviReader, nullptr);  // kept until destruction (a leak check sees it)
    EXPECT_EQ(failed.Xclose(), -1);
  }
  {
    CXFile open(1, &env);
    ASSERT_EQ(open.Xopen(name, "r+b"), 0);
    EXPECT_LT(rec.destroyed, rec.created);
  }
  EXPECT_EQ(rec.destroyed, rec.created);  // destruction releases the stream
}

// Drives single passes of an engine on a fake clock with a scripted client.
class UploadEngineTest : public ::testing::Test {
 protected:
  UploadEngineTest() {
    env.clock = &clock;
    env.status = &status;
    env.bus = &bus;
    env.db = &db;
    engine->m_pFtpClient = env.NewFtpClient();
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
  FaultyDb db;
  TestEnv env;
  CFtpUploadFileMng engineObj{&env};
  CFtpUploadFileMng* engine = &engineObj;
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

  // Without the privilege to raise the priority, the refusal is logged once and both sends
  // still go through.
  std::string shared = LocalFile(content);
  chmod(root.path().c_str(), 0755);
  chmod(shared.c_str(), 0666);  // opened for reading and writing
  bool privileged = geteuid() == 0;
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (privileged && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(10);
    ftp.s().written.clear();
    Hold(PlainTask(shared));
    Pass();
    Pass();
    int refusals = log.Count("nice(-20) refused");
    // Unprivileged from the start, an earlier test of this process may have logged it.
    if (privileged ? refusals != 1 : refusals > 1) _exit(11);
    _exit(ftp.s().written == content + content ? 0 : 12);
  }
  int exitStatus = 0;
  waitpid(child, &exitStatus, 0);
  ASSERT_TRUE(WIFEXITED(exitStatus));
  EXPECT_EQ(WEXITSTATUS(exitStatus), 0);

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

  Hold(PlainTask(LocalFile(content)));
  ftp.s().onWrite = [this](size_t total) {
    if (total >= 16384 * 3) engine->SetTaskTrans(0, 0);
  };
  Pass();
  EXPECT_EQ(log.Count("stop by:2"), 2);  // trans wins the code...
  EXPECT_EQ(engine->SnapshotTask().result, 3);  // ...valid decides the result
}

TEST_F(UploadEngineTest, ListingOrWriteFailureEndsThePassForTheNextToResume) {
  std::string content = Bytes(70000);
  Hold(PlainTask(LocalFile(content)));
  ftp.s().listResult = -1;  // the connection is closed, the task stays open
  Pass();
  EXPECT_EQ(engine->SnapshotTask().result, 0);
  EXPECT_EQ(ftp.s().closes, 1);
  EXPECT_TRUE(ftp.s().modes.empty());

  ftp.s().listResult = 0;
  ftp.s().writeFailAfter = 16384 * 2;
  Pass();
  EXPECT_EQ(log.Count("FtpWriteDate len:16384, ret:-1 trans next"), 1);
  EXPECT_EQ(log.Count("stop by:0"), 1);
  EXPECT_EQ(engine->SnapshotTask().result, 0);
  EXPECT_EQ(ftp.s().closes, 2);

  ftp.s().writeFailAfter = -1;
  ftp.s().listing = {FakeFtpClient::Entry("remote.bin", 16384 * 2)};
  Pass();
  EXPECT_EQ(ftp.s().modes, (std::vector<int>{0, 1}));
  EXPECT_EQ(ftp.s().written, content);  // the two sends together are the file

  ftp.s().listResult = -2;  // a listing failure after which the task counts as done
  Pass();
  EXPECT_EQ(engine->SnapshotTask().result, 1);
  EXPECT_EQ(ftp.s().modes.size(), 2u);
}

TEST_F(UploadEngineTest, FourFailedConnectionsGiveTheTaskUp) {
  // The task is queued with the service's control manager, which removes it when given up.
  std::string sd1 = root.path() + "/mnt/sd1";
  MakeDirs(sd1.c_str());
  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.disks.push_back({1, 1});
    status.mounts[DISK_USAGE_UPLOAD].push_back(FakeStatus::Entry(1, sd1));
  }
  CFtpCtrlMng controlObj(&env, engine);
  CFtpCtrlMng* control = &controlObj;
  control->CheckDiskState(100);
  ftpFileInfo_t t = PlainTask(LocalFile(Bytes(70000)), 321);
  ASSERT_EQ(control->InsertFileInfo(&t), 0);
  Hold(t);

  ftp.s().startFailures = 2;
  Pass();
  Pass();  // two failed logins, 10 s pause each
  EXPECT_GE(clock.sleptUs(), 20000000u);
  ftp.s().writeFailAfter = 16384;
  Pass();  // logged in, part of the file sent: the count of failures stays
  EXPECT_EQ(ftp.s().written.size(), 16384u);
  EXPECT_EQ(engine->SnapshotTask().connFailTimes, 2);
  ftp.s().startFailures = 1;
  Pass();
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
  EXPECT_EQ(held.valid, 0);
  EXPECT_EQ(held.connFailTimes, 0);
  EXPECT_EQ(held.result, 3);  // the send found the task cleared
  EXPECT_EQ(ftp.s().written.size(), 16384u);
  {
    CAutoLock guard(&control->m_lock);
    EXPECT_TRUE(control->m_taskList.empty());
  }
  EXPECT_EQ(db.SearchBySeqAndType(sd1.c_str(), 321, 0), 0);
}

TEST_F(UploadEngineTest, RecordingToleranceAppliesOnlyAfterTheFirstSend) {
  FakeRecording recording;
  recording.SetParam(25, 3);
  for (int i = 0; i < 10; ++i) recording.Add(100000000ULL + i * 40000, i == 0 ? 1 : 0, 1000, i);
  status.partLists[15] = {FakeStatus::Entry(1, "/mnt/part1")};
  ftpFileInfo_t t = PlainTask("/0001_0000000a_1_100_101_1_0.avi");
  t.type = 1;
  CXFile probe(1, &env);
  int32_t size = probe.XsizeByPath(t.fullName);
  ASSERT_GT(size, 4096);
  auto sentOnce = [this] {
    CAutoLock guard(&engine->m_taskLock);
    engine->m_stTask.sendTimes = 1;
  };

  // 100 bytes short on the first attempt: continued, and exactly the missing tail is sent.
  Hold(t);
  ftp.s().listing = {FakeFtpClient::Entry("remote.bin", size - 100)};
  Pass();
  EXPECT_EQ(ftp.s().modes, std::vector<int>{1});
  EXPECT_EQ(ftp.s().written.size(), 100u);
  EXPECT_EQ(engine->SnapshotTask().sendTimes, 1);
  // Sent once already: the same 100 bytes are within the tolerance, so it is complete.
  Pass();
  EXPECT_EQ(engine->SnapshotTask().result, 1);
  EXPECT_EQ(ftp.s().modes.size(), 1u);

  // 101 bytes short is continued even after a send.
  Hold(t);
  sentOnce();
  ftp.s().listing = {FakeFtpClient::Entry("remote.bin", size - 101)};
  Pass();
  EXPECT_EQ(ftp.s().modes.size(), 2u);
  EXPECT_EQ(ftp.s().written.size(), 100u + 101u);

  // A plain file gets no tolerance: one byte short after a send is continued.
  std::string content = Bytes(5000);
  Hold(PlainTask(LocalFile(content)));
  sentOnce();
  ftp.s().listing = {FakeFtpClient::Entry("remote.bin", 4999)};
  Pass();
  EXPECT_EQ(ftp.s().modes, (std::vector<int>{1, 1, 1}));
  EXPECT_EQ(ftp.s().written.substr(201), content.substr(4999));
  EXPECT_EQ(engine->SnapshotTask().result, 0);
}

// The scheduler against an engine whose outcome each test sets by hand.
class SchedulerTest : public ::testing::Test {
 protected:
  SchedulerTest() {
    env.status = &status;
    env.bus = &bus;
    env.db = &db;
    sd1 = root.path() + "/mnt/sd1";
    sd2 = root.path() + "/mnt/sd2";
    MakeDirs(sd1.c_str());
    MakeDirs(sd2.c_str());
    std::lock_guard<std::mutex> g(status.mutex);
    status.disks = {{1, 1}, {6, 1}};
    status.mounts[DISK_USAGE_UPLOAD] = {FakeStatus::Entry(1, sd1), FakeStatus::Entry(6, sd2)};
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
  // Rows of sequence numbers 5 and 6 on both disks.
  int Rows() {
    int n = 0;
    for (const std::string& d : {sd1, sd2}) {
      n += db.SearchBySeqAndType(d.c_str(), 5, 0) + db.SearchBySeqAndType(d.c_str(), 6, 0);
    }
    return n;
  }
  // Moves the rows of t from the first disk's database to the second's.
  void MoveRowToSecondDisk(const ftpFileInfo_t& t) {
    db.SearchDelete(sd1.c_str(), t.fullName);
    ASSERT_EQ(db.OpenTable(sd2.c_str()), 0);
    __ftp_log row;
    RowFromRecord(t, &row);
    ASSERT_EQ(db.Insert(&row), 0);
    db.m_bTabOpen = 0;
  }
  // The engine reports an outcome for the task it holds.
  void Finish(uint8_t result) { StoreControlByte(&engine->m_stTask.result, result); }

  TempRoot root;
  FakeStatus status;
  FakeBus bus;
  LogCapture log;
  FaultyDb db;
  TestEnv env;
  CFtpUploadFileMng engineObj{&env};
  CFtpUploadFileMng* engine = &engineObj;
  CFtpCtrlMng mng{&env, engine};
  std::string sd1, sd2;
};

TEST_F(SchedulerTest, HandsOverFollowsLinksAndCompletesPerSequenceNumberOverAllDisks) {
  std::string a = File("a"), b = File("b");
  Queue(a, 5);
  for (uint32_t s = 90; s < 95; ++s) mng.ScheduleTask(s);  // no disk known yet: nothing moves
  EXPECT_EQ(engine->SnapshotTask().valid, 0);
  EXPECT_TRUE(status.networkSets.empty());

  mng.CheckDiskState(100);
  ftpFileInfo_t tb = Queue(b, 5);
  MoveRowToSecondDisk(tb);  // b of the same sequence number is stored on the other disk
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

// The real upload thread sends a task while the scheduler follows it from this thread. Besides
// its checks, this case exists for ThreadSanitizer: the held task's control bytes and counters
// and the transfer state are shared between the two threads here as in the service.
TEST_F(SchedulerTest, RealUploadThreadSendsWhileTheSchedulerFollows) {
  FakeFtpClient::Installer ftp;
  struct Stopper {
    CFtpUploadFileMng* engine;
    ~Stopper() {
      engine->m_thread.Join();
      engine->m_bStarted = 0;
    }
  } stopper{engine};
  auto waitFor = [](const std::function<bool()>& done) {
    for (int i = 0; i < 300 && !done(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
  };
  ASSERT_EQ(engine->StartSyncThread(), 0);
  EXPECT_EQ(engine->StartSyncThread(), 0);  // a second call starts nothing
  engine->SetTaskTrans(0, 1);  // no runnable task: the thread puts trans back to 0
  EXPECT_TRUE(waitFor([&] { return engine->SnapshotTask().trans == 0; }));

  std::string content = Bytes(200000);
  std::string path = root.path() + "/big";
  std::ofstream(path, std::ios::binary) << content;
  ftp.s().onWrite = [&ftp, &content](size_t total) {
    std::lock_guard<std::mutex> g(ftp.s().mutex);  // the server now lists what it received
    ftp.s().listing = {FakeFtpClient::Entry("remote.bin", static_cast<int32_t>(total))};
    if (total >= content.size() / 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  mng.CheckDiskState(100);
  Queue(path, 5);
  uint32_t second = 100;
  EXPECT_TRUE(waitFor([&] {
    mng.ScheduleTask(++second);  // every call publishes the transfer state
    return !bus.Events(EVENT_FILE_UPLOAD).empty();
  }));
  {
    std::lock_guard<std::mutex> g(ftp.s().mutex);
    EXPECT_EQ(ftp.s().written, content);
  }
  auto events = bus.Events(EVENT_FILE_UPLOAD);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].payload[9], 0);
  EXPECT_TRUE(Names().empty());
  EXPECT_EQ(Rows(), 0);
  engine->m_thread.Join();
  EXPECT_EQ(engine->m_pFtpClient, nullptr);  // deleted by the stopping thread
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
