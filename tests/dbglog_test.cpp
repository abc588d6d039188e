#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "dbglog/upload_log.h"
#include "platform/fileutil.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"

namespace {

class DbgLogTest : public ::testing::Test {
 protected:
  DbgLogTest() {
    env.clock = &clock;
    env.status = &status;
    env.shell = &shell;
    SetDeviceNo(350);
    settings.port = 21;
    CopyText(settings.host, sizeof(settings.host), "10.1.1.1");
    Login("maint");
    SetDisks({Disk(1)});
  }
  void Login(const char* user) {
    CopyText(settings.user, sizeof(settings.user), user);
    CopyText(settings.password, sizeof(settings.password), "pw");
  }
  void SetDeviceNo(int n) {
    root.Write("/etc/velmar/config/jtbase.xml", "<jtbase deviceNo=\"" + std::to_string(n) + "\"/>");
  }
  std::string Disk(int n) { return root.path() + "/mnt/sd" + std::to_string(n); }
  void SetDisks(const std::vector<std::string>& paths) {
    std::lock_guard<std::mutex> g(status.mutex);
    status.mounts[DISK_USAGE_MAINTAIN].clear();
    for (auto& p : paths) status.mounts[DISK_USAGE_MAINTAIN].push_back(FakeStatus::Entry(1, p));
  }
  // The fake clock's now + delta seconds: six fields (year - 2000 first), or a log name.
  template <typename T>
  void Fields(int delta, T* out) {
    time_t t = clock.WallSeconds() + delta;
    struct tm v;
    localtime_r(&t, &v);
    const int f[6] = {v.tm_year - 100, v.tm_mon + 1, v.tm_mday, v.tm_hour, v.tm_min, v.tm_sec};
    for (int i = 0; i < 6; ++i) out[i] = static_cast<T>(f[i]);
  }
  std::string LogName(int delta) {
    time_t t = clock.WallSeconds() + delta;
    char text[64];
    strftime(text, sizeof(text), "dbglog-%Y%m%d-%H%M%S.log", localtime(&t));
    return text;
  }
  // A command of type for the span now+from .. now+to.
  LogCmdItem_t Item(int type, int from, int to) {
    LogCmdItem_t item{};
    item.type = type;
    Fields(from, item.start);
    Fields(to, item.end);
    item.scope = &scope[0];
    return item;
  }
  int Run(LogCmdItem_t item, int expiresIn = 3600) {
    int32_t expiry[6];
    Fields(expiresIn, expiry);
    return UploadLog(&env, &settings, expiry, &item);
  }
  std::string Put(int disk, const std::string& name) {
    root.Write("/mnt/sd" + std::to_string(disk) + "/debug/" + name, "log\n");
    return name;
  }
  std::string Ftpput(const std::string& name, const std::string& disk) {
    return "ftpput -u maint -p pw -P 21 10.1.1.1 350_" + name + " " + disk + "/debug/" + name +
           " @600";
  }
  bool AccountCleared() {  // all 32 bytes of user and password
    return std::string(settings.user, 32) + std::string(settings.password, 32) ==
           std::string(64, '\0');
  }

  TempRoot root;
  FakeClock clock;
  FakeStatus status;
  FakeShell shell;
  TestEnv env;
  LogCapture log;
  UpgradeSet_t settings{};
  std::string scope = "0~1000";
};

TEST_F(DbgLogTest, ScopeAndExpiryDecideWhetherTheCommandRuns) {
  scope = "100~200;300~400";
  Put(1, LogName(0));
  EXPECT_EQ(Run(Item(1, -60, 60)), 0);  // type 1: in scope, but nothing is sent
  EXPECT_EQ(Run(Item(5, -60, 60), -1), -1);
  EXPECT_EQ(log.Count("UploadLog out of date"), 1);

  SetDeviceNo(250);
  EXPECT_EQ(Run(Item(5, -60, 60)), -1);
  scope = "";  // addresses no recorder, not every one
  EXPECT_EQ(Run(Item(5, -60, 60)), -1);
  EXPECT_EQ(log.Count("UploadLog not in scope"), 2);
  EXPECT_TRUE(shell.Lines().empty());
  EXPECT_FALSE(AccountCleared());
}

TEST_F(DbgLogTest, UploadsLogsStrictlyInsideTheSpanDiskByDiskThenClearsTheAccount) {
  SetDisks({Disk(1), Disk(2), Disk(3)});  // the third has no debug directory
  std::vector<std::string> want;
  for (int disk = 1; disk <= 2; ++disk) {
    Put(disk, LogName(-30));  // the start itself
    Put(disk, LogName(30));   // the end itself
    Put(disk, "dbglog.log");  // not debug logs, nor the next two
    Put(disk, "syslog" + LogName(0).substr(6));
    Put(disk, LogName(0) + ".bak");
    for (int t : {20, -20, 0}) want.push_back(Ftpput(Put(disk, LogName(t + disk)), Disk(disk)));
  }
  std::sort(want.begin(), want.begin() + 3);
  std::sort(want.begin() + 3, want.end());
  EXPECT_EQ(Run(Item(5, -30, 30)), 0);
  EXPECT_EQ(shell.Lines(), want);
  EXPECT_TRUE(AccountCleared());
  EXPECT_EQ(clock.sleptUs(), 2000000u);
  EXPECT_EQ(Run(Item(5, -30, 30)), 0);  // without a user nothing can be sent
  EXPECT_EQ(shell.Lines().size(), 6u);

  // Logs on the disks but none in the span: nothing sent, the account still withdrawn.
  Login("maint");
  LogCmdItem_t late = Item(5, 100, 200);
  EXPECT_EQ(UploadDiskLog(&env, &settings, 350, Disk(1).c_str(), &late), 5);
  EXPECT_EQ(UploadDiskLog(&env, &settings, 350, Disk(3).c_str(), &late), -1);
  EXPECT_EQ(Run(late), 0);
  EXPECT_EQ(shell.Lines().size(), 6u);
  EXPECT_TRUE(AccountCleared());
  // No debug logs on any disk: the account stays.
  SetDisks({Disk(3)});
  Login("maint");
  EXPECT_EQ(Run(late), 0);
  EXPECT_FALSE(AccountCleared());
}

TEST_F(DbgLogTest, ReportTypeHasTheToolWriteAReportThatIsSentAndRemoved) {
  const std::string name = Put(1, LogName(0));  // the report, as the tool would leave it
  const std::string report = Disk(1) + "/debug/" + name;
  EXPECT_EQ(Run(Item(23, -60, 60)), 0);
  EXPECT_EQ(shell.Lines(), (std::vector<std::string>{
                               root.path() + "/app/diskaccess  /dev/sda2 p 3 >" + report + " @-1",
                               Ftpput(name, Disk(1)), "rm " + report + " @60"}));
  EXPECT_EQ(clock.sleptUs(), 2500000u);  // 2 s for the tool, one 500 ms size check
  EXPECT_FALSE(AccountCleared());
}

// The shipped disk-access tool, run by the real shell.
TEST(DbgLogDiskAccessTest, WritesAReportAndTakesAnyDeviceLiterally) {
  TempRoot root;
  FakeClock clock;
  TestEnv env;
  env.clock = &clock;
  const char* src = getenv("VELMAR_SOURCE_DIR");
  std::string file = __FILE__;
  std::string tool = (src != nullptr ? std::string(src) : file.substr(0, file.rfind("/tests/"))) +
                     "/profile/app/diskaccess";
  ASSERT_EQ(system_run(("cp '" + tool + "' '" + root.Make("/app/diskaccess") + "'").c_str()), 0);
  const std::string report = root.Make("/mnt/sd1/debug/report.log");
  auto read = [&report]() {
    std::stringstream text;
    text << std::ifstream(report).rdbuf();
    return text.str();
  };
  EXPECT_EQ(queryDiskInfo(&env, " /dev/sda2", report.c_str(), 3), 0);
  EXPECT_EQ(read().rfind("device: /dev/sda2\nparameter: 3\ndate: ", 0), 0u) << read();
  EXPECT_NE(read().find("directories (KiB):"), std::string::npos);

  const std::string hostile = "$(touch " + root.path() + "/pwned)";
  system_run(
      ("'" + root.path() + "/app/diskaccess' '" + hostile + "' p 0 >'" + report + "'").c_str());
  EXPECT_EQ(read().rfind("device: " + hostile + "\nparameter: 0\n", 0), 0u) << read();
  EXPECT_NE(fileisexist((root.path() + "/pwned").c_str()), 0);
}

}  // namespace
