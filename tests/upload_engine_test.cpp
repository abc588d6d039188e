// The upload sources (CXFile) and single passes of the upload engine against a scripted
// FTP client on a fake clock.
#include <unistd.h>

#include "tests/fakes/fake_readdisk.h"
#include "tests/upload_bench.h"
#include "upload/xfile.h"

namespace {

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

class UploadEngineTest : public ::testing::Test, public UploadBench {
 protected:
  UploadEngineTest() {
    status.partLists[15] = {FakeStatus::Entry(1, "/mnt/part1")};
    recording.SetParam(25, 3);
    for (int i = 0; i < 10; ++i) recording.Add(100000000ULL + i * 40000, i == 0, 1000, i);
    engine.m_pFtpClient = env.NewFtpClient();  // the engine deletes it
  }
  void Hold(ftpFileInfo_t t, uint8_t sendTimes = 0) {
    t.result = 2;  // a stale result, which the hand-over clears
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
  std::string local = File("local.bin", "0123456789"), none = root.path() + "/none";
  const char* path = local.c_str();
  char buf[32] = {};
  CXFile other(2, &env), plain(0, &env);  // 2: neither plain file nor recording, nothing works
  EXPECT_EQ(
      (std::vector<int>{other.Xexist(path), other.XsizeByPath(path), other.Xopen(path, "rb"),
                        other.Xread(buf, 1, 4), other.Xseek(0, SEEK_SET), other.Xwrite(buf, 1, 4),
                        other.Xclose(), plain.Xopen(none.c_str(), "rb"), plain.Xsize(),
                        plain.XsizeByPath(none.c_str())}),
      (std::vector<int>{0, 0, -1, -1, -1, -1, -1, -1, -1, 0}));
  ASSERT_EQ(plain.Xopen(path, "r+b"), 0);
  EXPECT_EQ(plain.Xsize(), 10);
  ASSERT_EQ(unlink(path), 0);
  EXPECT_EQ(plain.Xsize(), -1);  // the size goes through the path, the reads through the stream
  EXPECT_EQ(plain.Xseek(4, SEEK_SET), 0);
  EXPECT_EQ(plain.Xread(buf, 1, 16), 6);
  EXPECT_EQ(std::string(buf, 6), "456789");
  EXPECT_EQ(plain.Xclose(), 0);
  {
    CXFile avi(1, &env);
    EXPECT_EQ((std::vector<int>{avi.Xsize(), avi.XsizeByPath(kBadAvi), avi.Xexist(kBadAvi)}),
              (std::vector<int>{-1, 0, 0}));
    ASSERT_EQ(avi.Xopen(kAviName, "r+b"), 0);
    int readers = recording.created;
    EXPECT_EQ(avi.Xexist(kAviName), 1);
    EXPECT_EQ(recording.created, readers);  // answered from the open stream
    int32_t size = avi.Xsize();
    ASSERT_GT(size, 4096);
    EXPECT_EQ(avi.XsizeByPath(kAviName), size);
    std::string whole = ReadRest(&avi);
    EXPECT_EQ(whole.size(), static_cast<size_t>(size));
    EXPECT_EQ(avi.Xseek(size - 40, SEEK_END), 0);  // always absolute
    EXPECT_EQ(ReadRest(&avi), whole.substr(size - 40));
    EXPECT_EQ(avi.Xwrite(buf, 1, 4), -1);
    EXPECT_EQ(avi.Xclose(), 0);
    EXPECT_EQ(recording.destroyed, recording.created);
    EXPECT_EQ((std::vector<int>{avi.Xclose(), avi.Xread(buf, 1, 16), avi.Xopen(kBadAvi, "r+b"),
                                avi.Xclose()}),
              (std::vector<int>{-1, 0, -1, -1}));
    ASSERT_EQ(avi.Xopen(kAviName, "r+b"), 0);
    EXPECT_LT(recording.destroyed, recording.created);
  }
  EXPECT_EQ(recording.destroyed, recording.created);  // destruction releases the stream
}

// One pass per case: a file the server does not list is sent whole (mode 0); a listed one is
// resumed from the server's size (mode 1) unless complete: a plain file when the server holds all
// of it, a recording already sent once also when at most 100 bytes are missing (its stream is
// regenerated and may differ slightly). Completeness is judged by a listing, never by bytes sent.
TEST_F(UploadEngineTest, SendOrResumeFromTheServersSize) {
  CXFile probe(1, &env);
  ASSERT_EQ(probe.Xopen(kAviName, "r+b"), 0);
  const std::string avi = ReadRest(&probe);
  const int kAvi = -1, kNotListed = 1 << 30;
  // clang-format off
  struct Case { int local, sentBefore, missing; bool complete; } cases[] = {  // local: size or kAvi
      {0, 0, kNotListed, false}, {16383, 0, kNotListed, false}, {16384, 0, kNotListed, false},
      {16385, 0, kNotListed, false}, {49153, 0, kNotListed, false}, {5000, 0, 4000, false},
      {5000, 1, 1, false}, {5000, 1, 0, true}, {5000, 0, -7, true}, {kAvi, 0, 100, false},
      {kAvi, 1, 100, true}, {kAvi, 1, 101, false}, {kAvi, 0, 0, true}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.local << " " << c.sentBefore << " " << c.missing);
    ftp.s().modes.clear();
    ftp.s().written.clear();
    std::string source = c.local == kAvi ? avi : Bytes(static_cast<size_t>(c.local));
    int32_t onServer =
        c.missing == kNotListed ? 0 : static_cast<int32_t>(source.size()) - c.missing;
    Hold(SampleTask(5, c.local == kAvi ? kAviName : File("local.bin", source), c.local == kAvi),
         static_cast<uint8_t>(c.sentBefore));
    ftp.s().listing = {FakeFtpClient::Entry("other.bin", 9)};
    if (c.missing != kNotListed)
      ftp.s().listing.push_back(FakeFtpClient::Entry("remote.bin", onServer));
    Pass();
    EXPECT_EQ(ftp.s().dir + "/" + ftp.s().name, "in/remote.bin");
    EXPECT_EQ(engine.SnapshotTask().result, c.complete ? 1 : 0);
    EXPECT_EQ(ftp.s().written, c.complete ? "" : source.substr(static_cast<size_t>(onServer)));
    EXPECT_EQ(ftp.s().modes,
              c.complete ? std::vector<int>{} : std::vector<int>{c.missing == kNotListed ? 0 : 1});
    EXPECT_EQ(engine.SnapshotTask().sendTimes, c.sentBefore + (c.complete ? 0 : 1));
    EXPECT_EQ(engine.m_nTransState, c.complete ? 0 : 2);
    EXPECT_EQ(engine.m_nBusy, 0);
  }
}

// Passes that end early. A failed listing leaves the task open, or (-2) done; a local file that
// is gone is done when the server lists it, result 2 when not; a failed write leaves it open.
// Valid and trans cleared during a send stop it after that block: a cleared valid marks the task
// stopped (3), a cleared trans alone leaves it open.
TEST_F(UploadEngineTest, PassesThatEndEarly) {
  // clang-format off
  struct Case { int listResult; bool listed, localExists; int writeFailAfter; size_t clearAt;
                uint8_t valid, trans, result; size_t written; } cases[] = {
      {-1, false, true, -1, 0, 1, 1, 0, 0}, {-2, false, true, -1, 0, 1, 1, 1, 0},
      {0, false, false, -1, 0, 1, 1, 2, 0}, {0, true, false, -1, 0, 1, 1, 1, 0},
      {0, false, true, 32768, 0, 1, 1, 0, 32768}, {0, false, true, -1, 32768, 1, 0, 0, 32768},
      {0, false, true, -1, 16384, 0, 1, 3, 16384}, {0, false, true, -1, 49152, 0, 0, 3, 49152}};
  // clang-format on
  std::string content = Bytes(100000);
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    ftp.s().listResult = c.listResult;
    ftp.s().writeFailAfter = c.writeFailAfter;
    ftp.s().listing.clear();
    ftp.s().written.clear();
    if (c.listed) ServerHas(10);
    ftp.s().onWrite = [&](size_t total) {
      if (total >= c.clearAt) engine.SetTaskTrans(c.valid, c.trans);
    };
    int closes = ftp.s().closes;
    Hold(SampleTask(5, c.localExists ? File("local.bin", content) : root.path() + "/gone.bin"));
    Pass();
    EXPECT_EQ(engine.SnapshotTask().result, c.result);
    EXPECT_EQ(ftp.s().written, content.substr(0, c.written));
    EXPECT_EQ(ftp.s().closes, closes + 1);
  }
  ftp.s().onWrite = nullptr;
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
