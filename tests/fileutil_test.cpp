#include "platform/fileutil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/host/atomic_file.h"
#include "platform/log.h"
#include "tests/fakes/fakes.h"

namespace {

double NowSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

bool ProcessExists(pid_t pid) {
  return access(("/proc/" + std::to_string(pid)).c_str(), F_OK) == 0;
}

class SystemDumpTest : public ::testing::Test {
 protected:
  TempRoot root;
  LogCapture log;
};

TEST_F(SystemDumpTest, ReturnsTheCommandsExitStatus) {
  EXPECT_EQ(systemdump("true", 5), 0);
  EXPECT_EQ(systemdump("exit 7", 5), 7);
  EXPECT_EQ(systemdump("kill -9 $$", 5), 128 + 9);
  EXPECT_EQ(systemdump("/nonexistent/tool", 5), 127);
  EXPECT_EQ(systemdump(nullptr, 5), -1);
  // The service ignores SIGPIPE; commands must not inherit that.
  signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(systemdump("kill -PIPE $$; exit 0", 5), 128 + SIGPIPE);
  EXPECT_EQ(system_run("kill -PIPE $$; exit 0"), 128 + SIGPIPE);
  EXPECT_EQ(system_run("exit 3"), 3);
  signal(SIGPIPE, SIG_DFL);
}

TEST_F(SystemDumpTest, OverrunningCommandIsEndedWithItsChildrenAndReaped) {
  std::string pidFile = root.path() + "/bg.pid";
  std::string cmd = "sleep 100 & echo $! > " + pidFile + "; wait";
  double start = NowSeconds();
  EXPECT_EQ(systemdump(cmd.c_str(), 1), -1);
  double elapsed = NowSeconds() - start;
  EXPECT_LT(elapsed, 2.0);  // the limit plus one second
  std::ifstream in(pidFile);
  pid_t bg = 0;
  in >> bg;
  ASSERT_GT(bg, 0);
  // Gone entirely: neither running nor left as a zombie.
  for (int i = 0; i < 50 && ProcessExists(bg); ++i) usleep(10000);
  EXPECT_FALSE(ProcessExists(bg));
  EXPECT_EQ(log.Count("limit of 1 s reached"), 1);
}

TEST_F(SystemDumpTest, CommandThatIgnoresTermIsKilled) {
  double start = NowSeconds();
  EXPECT_EQ(systemdump("trap '' TERM; sleep 100 & wait; wait", 1), -1);
  EXPECT_LT(NowSeconds() - start, 3.0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // no child of ours is left to reap
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(SystemDumpTest, CommandGetsNoDescriptorOfTheCaller) {
  std::string path = root.path() + "/open.txt";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0644);  // inheritable on purpose
  ASSERT_GE(fd, 3);
  std::string cmd = "[ -e /proc/self/fd/" + std::to_string(fd) + " ] && exit 3; " +
                    "[ \"$(readlink /proc/self/fd/0)\" = /dev/null ] || exit 4; exit 0";
  EXPECT_EQ(systemdump(cmd.c_str(), 5), 0);
  close(fd);
}

TEST(FileUtilTest, ExistenceSizeAndWholeFileReads) {
  TempRoot root;
  root.Write("/a.txt", "hello");
  std::string file = root.path() + "/a.txt";
  EXPECT_EQ(file_exist(file.c_str()), 1);
  EXPECT_EQ(file_exist(root.path().c_str()), 0);  // a directory is not a file
  EXPECT_EQ(file_exist((root.path() + "/none").c_str()), 0);
  EXPECT_EQ(fileisexist(file.c_str()), 0);
  EXPECT_LT(fileisexist((root.path() + "/none").c_str()), 0);
  EXPECT_EQ(getfilesize(file.c_str()), 5);
  EXPECT_EQ(getfilesize((root.path() + "/none").c_str()), -1);

  int len = -1;
  char* buf = filetobufwithoutbuf(file.c_str(), &len);
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(len, 5);
  EXPECT_STREQ(buf, "hello");
  free(buf);
  EXPECT_EQ(filetobufwithoutbuf(root.path().c_str(), &len), nullptr);
  EXPECT_EQ(filetobufwithoutbuf((root.path() + "/none").c_str(), &len), nullptr);

  EXPECT_NE(strfind_s("/mnt/sd1", "/mnt/"), 0);
  EXPECT_EQ(strfind_s("/media/sd1", "/mnt/"), 0);
  EXPECT_EQ(strfind_s(nullptr, "/mnt/"), 0);

  EXPECT_EQ(MakeDirs((root.path() + "/x/y/z").c_str()), 0);
  EXPECT_EQ(fileisexist((root.path() + "/x/y/z").c_str()), 0);
  EXPECT_EQ(MakeDirs((file + "/sub").c_str()), -1);  // a file is in the way
}

TEST(AtomicFileTest, ReplacesTheWholeFileOrLeavesTheOldOneAndNoTemporary) {
  TempRoot root;
  for (const char* f : {"/d/old", "/d/dir/inside", "/file", "/d/.stale.tmp", "/d/victim"}) {
    root.Write(f, "old");
  }
  ASSERT_EQ(symlink("victim", (root.path() + "/d/.link.tmp").c_str()), 0);
  // check: a file that must then hold want
  const struct {
    const char* target;
    int result;
    const char* check;
    const char* want;
  } cases[] = {
      {"/d/new", 0, "/d/new", "new"},        {"/d/old", 0, "/d/old", "new"},
      {"/d/stale", 0, "/d/stale", "new"},    {"/d/link", 0, "/d/victim", "old"},  // not followed
      {"/missing/x", -1, "/missing/x", ""},  {"/file/x", -1, "/file", "old"},
      {"/d/dir", -1, "/d/dir/inside", "old"}};  // a directory is not replaced
  for (const auto& c : cases) {
    std::string path = root.path() + c.target;
    EXPECT_EQ(ReplaceFileAtomically(path, "new", 3), c.result) << c.target;
    EXPECT_EQ(ReadWholeFile(root.path() + c.check), c.want) << c.target;
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

}  // namespace
