// Debug-log upload: which logs of which disks fall in a command's span, and what is sent.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "dbglog/upload_log.h"
#include "tests/fakes/fakes.h"

namespace {

class DbgLogTest : public ::testing::Test {
 protected:
  DbgLogTest() {
    env.clock = &clock;
    env.status = &status;
    env.shell = &shell;
    root.Write("/etc/velmar/config/jtbase.xml", "<jtbase deviceNo=\"350\"/>");
    Login();
    SetDisks({1, 2, 3});  // the third has no debug directory
  }
  void Login() {
    settings = UpgradeSet_t{};
    settings.port = 21;
    strcpy(settings.host, "10.1.1.1");
    strcpy(settings.user, "maint");
    strcpy(settings.password, "pw");
  }
  std::string Disk(int n) { return root.path() + "/mnt/sd" + std::to_string(n); }
  void SetDisks(const std::vector<int>& disks) {
    status.mounts[DISK_USAGE_MAINTAIN].clear();
    for (int d : disks) status.mounts[DISK_USAGE_MAINTAIN].push_back(FakeStatus::Entry(1, Disk(d)));
  }
  // The fake clock's now + delta seconds, local time: six fields (year - 2000 first), a name.
  template <typename T>
  void Fields(int delta, T* out) {
    time_t t = clock.WallSeconds() + delta;
    struct tm* v = localtime(&t);
    const int f[6] = {v->tm_year - 100, v->tm_mon + 1, v->tm_mday,
                      v->tm_hour,       v->tm_min,     v->tm_sec};
    for (int i = 0; i < 6; ++i) out[i] = static_cast<T>(f[i]);
  }
  std::string LogName(int delta) {
    time_t t = clock.WallSeconds() + delta;
    char text[64];
    strftime(text, sizeof(text), "dbglog-%Y%m%d-%H%M%S.log", localtime(&t));
    return text;
  }
  // A command of type for the span now+from .. now+to, run with an expiry of now+expiresIn.
  int Run(int type, int from, int to, int expiresIn = 3600, const char* scope = "0~1000") {
    LogCmdItem_t item{type, {}, {}, const_cast<char*>(scope)};
    Fields(from, item.start);
    Fields(to, item.end);
    int32_t expiry[6];
    Fields(expiresIn, expiry);
    return UploadLog(&env, &settings, expiry, &item);
  }
  // Writes a log; the command line that sends it.
  std::string Put(int disk, const std::string& name) {
    root.Write("/mnt/sd" + std::to_string(disk) + "/debug/" + name, "log\n");
    return "ftpput -u maint -p pw -P 21 10.1.1.1 350_" + name + " " + Disk(disk) + "/debug/" +
           name + " @600";
  }
  bool Cleared() {  // all 32 bytes of user and password
    return std::string(settings.user, 32) + std::string(settings.password, 32) ==
           std::string(64, '\0');
  }

  TempRoot root;
  FakeClock clock;
  FakeStatus status;
  FakeShell shell;
  TestEnv env;
  UpgradeSet_t settings;
};

// Logs strictly inside the span, disk by disk in name order; then the account is withdrawn.
TEST_F(DbgLogTest, SendsTheLogsInsideTheSpanThenClearsTheAccount) {
  // Offsets from now, the span being -30 .. 30: before, at the start, inside, at the end, after.
  const std::pair<int, bool> rows[] = {{-31, false}, {-30, false}, {-29, true}, {0, true},
                                       {29, true},   {30, false},  {31, false}};
  std::vector<std::string> want;
  for (int disk = 1; disk <= 2; ++disk) {
    for (const auto& r : rows) {
      std::string line = Put(disk, LogName(r.first));
      if (r.second) want.push_back(line);
    }
    Put(disk, "dbglog.log");  // not debug logs by name
    Put(disk, LogName(0) + ".bak");
  }
  EXPECT_EQ(Run(1, -60, 60) + Run(5, -60, 60, -1) + Run(5, -60, 60, 3600, "100~349"), -2);
  EXPECT_FALSE(Cleared());  // type 1, expired, out of scope: nothing sent, the account kept
  EXPECT_EQ(Run(5, -30, 30), 0);
  EXPECT_EQ(shell.Lines(), want);
  EXPECT_TRUE(Cleared());
  EXPECT_EQ(clock.sleptUs(), 2000000u);  // the uploads finish before the account goes
  EXPECT_EQ(Run(5, -30, 30), 0);         // without a user nothing can be sent
  EXPECT_EQ(shell.Lines().size(), want.size());
  Login();  // logs on the disks, none in the span: nothing sent, the account still withdrawn
  EXPECT_EQ(Run(5, 100, 200), 0);
  EXPECT_TRUE(Cleared());
  SetDisks({3});  // no debug logs on any disk: the account stays
  Login();
  EXPECT_EQ(Run(5, 100, 200), 0);
  EXPECT_FALSE(Cleared());
  EXPECT_EQ(shell.Lines().size(), want.size());
}

// Type 23: the shipped disk-access tool (the real shell) writes a report that is sent, then
// removed; a hostile device name is taken literally.
TEST_F(DbgLogTest, ReportTypeHasTheToolWriteAReportThatIsSentAndRemoved) {
  SetDisks({1});
  const char* src = getenv("VELMAR_SOURCE_DIR");
  std::string file = __FILE__, tool = src != nullptr ? src : file.substr(0, file.rfind("/tests/"));
  ASSERT_EQ(
      system(("cp '" + tool + "/profile/app/diskaccess' " + root.Make("/app/diskaccess")).c_str()),
      0);
  const std::string report = root.Make("/mnt/sd1/debug/" + LogName(0));
  const std::string sent = Put(1, LogName(0));  // overwritten by the tool's report
  shell.onCommand = [&](const std::string& c) {
    if (c.find("diskaccess") != std::string::npos) {
      EXPECT_EQ(system(c.c_str()), 0);
    }
  };
  EXPECT_EQ(Run(23, -60, 60), 0);
  EXPECT_EQ(ReadWholeFile(report).rfind("device: /dev/sda2\nparameter: 3\n", 0), 0u);
  ASSERT_EQ(shell.Lines().size(), 3u);
  EXPECT_EQ(shell.Lines()[1], sent);
  EXPECT_EQ(shell.Lines()[2], "rm " + report + " @60");
  EXPECT_FALSE(Cleared());
  const std::string bad = "$(touch " + root.path() + "/pwned)";
  system(("'" + root.path() + "/app/diskaccess' '" + bad + "' p 0 >'" + report + "'").c_str());
  EXPECT_EQ(ReadWholeFile(report).rfind("device: " + bad + "\nparameter: 0\n", 0), 0u);
  EXPECT_NE(access((root.path() + "/pwned").c_str(), F_OK), 0);
}

}  // namespace
