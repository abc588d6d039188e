// The upload sources (CXFile) and single passes of the upload engine against a scripted
// FTP client on a fake clock.
#include <unistd.h>

#include "tests/fakes/fake_readdisk.h"
#include "tests/upload_bench.h"
#include "upload/xfile.h"

namespace {

const char kRecording[] = "/0001_0000000a_1_100_101_1_0.avi";
const char kBadRecording[] = "/0001_0000000a_1_300_200_1_0.avi";  // ends before it starts

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

class UploadEngineTest : public ::testing::Test, public UploadBench {
 protected:
  UploadEngineTest() {
    status.partLists[15] = {FakeStatus::Entry(1, "/mnt/part1")};
    recording.SetParam(25, 3);
    for (int i = 0; i < 10; ++i) recording.Add(100000000ULL + i * 40000, i == 0, 1000, i);
    engine.m_pFtpClient = env.NewFtpClient();  // the engine deletes it
  }
  void Hold(const ftpFileInfo_t& t, uint8_t sendTimes = 0) {
    engine.SetTask(&t);
    CAutoLock guard(&engine.m_taskLock);
    engine.m_stTask.sendTimes = sendTimes;
  }
  void Pass() { engine.RunPass(&previous); }
  void ServerHas(int32_t size) { ftp.s().listing = {FakeFtpClient::Entry("remote.bin", size)}; }

  FakeRecording recording;
  ftpFileInfo_t previous{};
};

TEST_F(UploadEngineTest, SourcesOfEveryKind) {
  std::string path = File("local.bin", "0123456789");
  char buf[32] = {};
  CXFile other(2, &env);  // neither plain file nor recording: every operation fails
  EXPECT_EQ(other.Xexist(path.c_str()), 0);
  EXPECT_EQ(other.XsizeByPath(path.c_str()), 0);
  EXPECT_EQ(other.Xopen(path.c_str(), "rb"), -1);
  EXPECT_EQ(other.Xread(buf, 1, 4), -1);
  EXPECT_EQ(other.Xseek(0, SEEK_SET) + other.Xwrite(buf, 1, 4) + other.Xclose(), -3);

  CXFile plain(0, &env);
  EXPECT_EQ(plain.Xopen((root.path() + "/none").c_str(), "rb"), -1);
  EXPECT_EQ(plain.Xsize(), -1);
  EXPECT_EQ(plain.XsizeByPath((root.path() + "/none").c_str()), 0);
  ASSERT_EQ(plain.Xopen(path.c_str(), "r+b"), 0);
  EXPECT_EQ(plain.Xsize(), 10);
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_EQ(plain.Xsize(), -1);  // the size goes through the path, the reads through the stream
  EXPECT_EQ(plain.Xseek(4, SEEK_SET), 0);
  EXPECT_EQ(plain.Xread(buf, 1, 16), 6);
  EXPECT_EQ(std::string(buf, 6), "456789");
  EXPECT_EQ(plain.Xclose(), 0);

  {
    CXFile avi(1, &env);
    EXPECT_EQ(avi.Xsize(), -1);
    EXPECT_EQ(avi.XsizeByPath(kBadRecording) + avi.Xexist(kBadRecording), 0);
    ASSERT_EQ(avi.Xopen(kRecording, "r+b"), 0);
    int readers = recording.created;
    EXPECT_EQ(avi.Xexist(kRecording), 1);
    EXPECT_EQ(recording.created, readers);  // answered from the open stream
    int32_t size = avi.Xsize();
    ASSERT_GT(size, 4096);
    EXPECT_EQ(avi.XsizeByPath(kRecording), size);
    std::string whole = ReadRest(&avi);
    EXPECT_EQ(whole.size(), static_cast<size_t>(size));
    EXPECT_EQ(avi.Xseek(size - 40, SEEK_END), 0);  // always absolute
    EXPECT_EQ(ReadRest(&avi), whole.substr(size - 40));
    EXPECT_EQ(avi.Xwrite(buf, 1, 4), -1);
    EXPECT_EQ(avi.Xclose(), 0);
    EXPECT_EQ(recording.destroyed, recording.created);
    EXPECT_EQ(avi.Xclose(), -1);
    EXPECT_EQ(avi.Xread(buf, 1, 16), 0);
    EXPECT_EQ(avi.Xopen(kBadRecording, "r+b"), -1);
    EXPECT_EQ(avi.Xclose(), -1);
    ASSERT_EQ(avi.Xopen(kRecording, "r+b"), 0);
    EXPECT_LT(recording.destroyed, recording.created);
  }
  EXPECT_EQ(recording.destroyed, recording.created);  // destruction releases the stream
}

// A file the server does not list is sent whole in one data connection; once the server lists
// its full size the next pass finds it complete without sending again.
TEST_F(UploadEngineTest, SizesAroundTheBlockAreSentWhole) {
  for (size_t size : std::vector<size_t>{0, 16383, 16384, 16385, 3 * 16384 + 1}) {
    SCOPED_TRACE(size);
    ftp.s().listing.clear();
    ftp.s().modes.clear();
    ftp.s().written.clear();
    std::string content = Bytes(size);
    Hold(SampleTask(5, File("local.bin", content)));
    Pass();
    EXPECT_EQ(ftp.s().modes, std::vector<int>{0});
    EXPECT_EQ(ftp.s().written, content);
    EXPECT_EQ(engine.SnapshotTask().sendTimes, 1);
    EXPECT_EQ(engine.SnapshotTask().result, 0);  // judged by the next listing, not bytes sent
    EXPECT_EQ(engine.m_nTransState, 2);
    EXPECT_EQ(engine.m_nBusy, 0);
    ServerHas(static_cast<int32_t>(size));
    Pass();
    EXPECT_EQ(ftp.s().modes.size(), 1u);
    EXPECT_EQ(engine.SnapshotTask().result, 1);
  }
}

// A listed file is resumed from the server's size (mode 1) unless it is complete: a plain file
// when the server holds all of it, a recording already sent once also when at most 100 bytes
// are missing (its stream is regenerated and may differ slightly).
TEST_F(UploadEngineTest, ResumeFromTheServersSize) {
  CXFile probe(1, &env);
  ASSERT_EQ(probe.Xopen(kRecording, "r+b"), 0);
  const std::string avi = ReadRest(&probe), plain = Bytes(5000);
  const int32_t aviSize = static_cast<int32_t>(avi.size()), plainSize = 5000;
  struct Case {
    int type, sentBefore, serverSize;
    bool complete;
  } cases[] = {
      {0, 0, 1000, false},          {0, 1, plainSize - 1, false}, {0, 1, plainSize, true},
      {0, 0, plainSize + 7, true},  {1, 0, aviSize - 100, false}, {1, 1, aviSize - 100, true},
      {1, 1, aviSize - 101, false}, {1, 0, aviSize, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.type << " " << c.sentBefore << " " << c.serverSize);
    ftp.s().modes.clear();
    ftp.s().written.clear();
    const std::string& source = c.type == 1 ? avi : plain;
    Hold(SampleTask(5, c.type == 1 ? std::string(kRecording) : File("local.bin", plain), c.type),
         c.sentBefore);
    ftp.s().listing = {FakeFtpClient::Entry("other.bin", 9),
                       FakeFtpClient::Entry("remote.bin", c.serverSize)};
    Pass();
    EXPECT_EQ(ftp.s().dir, "in");
    EXPECT_EQ(ftp.s().name, "remote.bin");
    EXPECT_EQ(engine.SnapshotTask().result, c.complete ? 1 : 0);
    EXPECT_EQ(ftp.s().modes, c.complete ? std::vector<int>{} : std::vector<int>{1});
    EXPECT_EQ(ftp.s().written, c.complete ? "" : source.substr(c.serverSize));
    EXPECT_EQ(engine.SnapshotTask().sendTimes, c.sentBefore + (c.complete ? 0 : 1));
  }
}

// Valid and trans cleared while a block is sent: the send stops after that block; a cleared
// valid marks the task stopped (result 3), a cleared trans alone leaves it open.
TEST_F(UploadEngineTest, ClearingTransOrValidDuringASendStopsIt) {
  struct Case {
    size_t at;
    uint8_t valid, trans, result;
  } cases[] = {{32768, 1, 0, 0}, {16384, 0, 1, 3}, {49152, 0, 0, 3}};
  std::string content = Bytes(100000);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.at);
    ftp.s().written.clear();
    Hold(SampleTask(5, File("local.bin", content)));
    ftp.s().onWrite = [&](size_t total) {
      if (total >= c.at) engine.SetTaskTrans(c.valid, c.trans);
    };
    Pass();
    EXPECT_EQ(ftp.s().written, content.substr(0, c.at));
    EXPECT_EQ(engine.SnapshotTask().result, c.result);
  }
}

// What a pass that cannot send leaves: a failed listing leaves the task open or (-2) done; a
// local file that is gone is done when the server lists it, result 2 when it does not.
TEST_F(UploadEngineTest, PassesThatCannotSend) {
  struct Case {
    int listResult;
    bool listed, localExists;
    uint8_t result;
  } cases[] = {
      {-1, false, true, 0}, {-2, false, true, 1}, {0, false, false, 2}, {0, true, false, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    ftp.s().listResult = c.listResult;
    ftp.s().listing.clear();
    if (c.listed) ServerHas(10);
    int closes = ftp.s().closes;
    Hold(SampleTask(5, c.localExists ? File("local.bin", "x") : root.path() + "/gone.bin"));
    Pass();
    EXPECT_EQ(engine.SnapshotTask().result, c.result);
    EXPECT_EQ(ftp.s().written, "");
    EXPECT_EQ(ftp.s().closes, closes + 1);
  }
}

TEST_F(UploadEngineTest, WriteFailureEndsThePassAndTheNextResumes) {
  std::string content = Bytes(70000);
  Hold(SampleTask(5, File("local.bin", content)));
  ftp.s().writeFailAfter = 16384 * 2;
  Pass();
  EXPECT_EQ(engine.SnapshotTask().result, 0);
  ftp.s().writeFailAfter = -1;
  ServerHas(16384 * 2);
  Pass();
  EXPECT_EQ(ftp.s().modes, (std::vector<int>{0, 1}));
  EXPECT_EQ(ftp.s().written, content);  // the two sends together are the file
}

// Failed logins and failed data connections count, and a pass that sent part of the file does
// not reset the count. The pass after the fourth failure gives the task up: the task status
// event (1), and transfer control deletes it from the queue and the database.
TEST_F(UploadEngineTest, FourFailedConnectionsGiveTheTaskUp) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  ftpFileInfo_t t = SampleTask(70000, File("local.bin", Bytes(70000)));
  ASSERT_EQ(mng.InsertFileInfo(&t), 0);
  Hold(t);
  ftp.s().startFailures = 2;
  Pass();
  Pass();
  EXPECT_GE(clock.sleptUs(), 20000000u);  // 10 s after each failed login
  ftp.s().writeFailAfter = 16384;
  Pass();
  EXPECT_EQ(ftp.s().written.size(), 16384u);
  EXPECT_EQ(engine.SnapshotTask().connFailTimes, 2);
  ftp.s().startFailures = 1;
  Pass();
  ftp.s().dataFails = true;
  Pass();
  EXPECT_EQ(engine.SnapshotTask().connFailTimes, 4);
  EXPECT_TRUE(StatusEvents().empty());
  EXPECT_EQ(Seqs(sd1), std::vector<int>{70000});
  ftp.s().dataFails = false;
  Pass();
  EXPECT_EQ(StatusEvents(), (std::vector<std::pair<int, int>>{{1, 70000 & 0xFFFF}}));
  ftpFileInfo_t held = engine.SnapshotTask();
  EXPECT_EQ(held.valid, 0);
  EXPECT_EQ(held.connFailTimes, 0);
  EXPECT_EQ(held.result, 3);  // the pass went on and found the task stopped
  EXPECT_EQ(ftp.s().written.size(), 16384u);
  EXPECT_TRUE(List().empty());
  EXPECT_TRUE(Seqs(sd1).empty());
}

}  // namespace
