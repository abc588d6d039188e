// Device-number scopes, the maintenance server's dates, and the ftpget/ftpput command lines.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "platform/fileutil.h"
#include "rules/date_text.h"
#include "rules/scope.h"
#include "rules/shell_words.h"
#include "tests/fakes/fakes.h"

namespace {

TEST(RulesTest, ScopeWalksTheRangesUntilOneHoldsTheDevice) {
  const std::string big = "99999999999999999999", huge = big + "~" + big, tiny = "-" + big + "~-5";
  // walked: "lo~hi " of each range examined
  const std::tuple<const char*, long long, bool, std::string> cases[] = {
      {"100~200", 200, true, "100~200 "},
      {"100~200", 201, false, "100~200 "},
      {"100~200", 99, false, "100~200 "},
      {"100~200;", 201, false, "100~200 "},
      {"1~2;140~160;9~9", 150, true, "1~2 140~160 "},
      {"150", 150, false, "150~0 "},
      {"abc", 0, true, "0~0 "},
      {";5~6", 5, true, "0~0 5~6 "},
      {"", 0, false, ""},
      {nullptr, 0, false, ""},
      {tiny.c_str(), LLONG_MIN, true, "-9223372036854775808~-5 "},
      {huge.c_str(), LLONG_MAX, true, "9223372036854775807~9223372036854775807 "}};
  for (const auto& [scope, deviceNo, in, walked] : cases) {
    std::string seen;
    EXPECT_EQ(InScope(scope, deviceNo,
                      [&seen](const char*, long long lo, long long hi) {
                        seen += std::to_string(lo) + "~" + std::to_string(hi) + " ";
                      }),
              in)
        << (scope ? scope : "null") << " " << deviceNo;
    EXPECT_EQ(seen, walked) << (scope ? scope : "null");
  }
}

TEST(RulesTest, DatesAndSpansReadAsFarAsTheyGo) {
  // A span when the fields are twelve.
  const std::tuple<const char*, int, std::vector<int32_t>> cases[] = {
      {"20240131-235958 and more", 6, {24, 1, 31, 23, 59, 58}},
      {"20240131-2359", 5, {24, 1, 31, 23, 59, 0}},
      {"19991231-235959", 0, {0, 0, 0, 0, 0, 0}},
      {nullptr, 0, {0, 0, 0, 0, 0, 0}},
      {"", 0, {0, 0, 0, 0, 0, 0}},
      {"20240101-000000~20241231-235959", 12, {24, 1, 1, 0, 0, 0, 24, 12, 31, 23, 59, 59}},
      {"20240101-000000~20241231", 9, {24, 1, 1, 0, 0, 0, 24, 12, 31, 0, 0, 0}},
      {"20240101-000000 ~20241231", 6, {24, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"20240101-0000~20241231-235959", 5, {24, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}}};
  for (const auto& [text, read, fields] : cases) {
    std::vector<int32_t> f(12, -7);
    EXPECT_EQ(fields.size() == 12 ? ReadDateSpan2000(text, f.data()) : ReadDate2000(text, f.data()),
              read)
        << (text ? text : "null");
    f.resize(fields.size());
    EXPECT_EQ(f, fields) << (text ? text : "null");
  }
  auto at = [](int32_t y, int32_t mo, int32_t d, int32_t s) {
    const int32_t f[6] = {y, mo, d, 3, 14, s};
    return LocalTime2000(f);
  };
  EXPECT_EQ(at(38, 1, 19, 8) - at(38, 1, 19, 7), 1);  // past a 32-bit time_t
  EXPECT_EQ(at(99, 12, 31, 0) - at(99, 12, 30, 0), 86400);
  EXPECT_EQ(at(24, 1, 32, 0), at(24, 2, 1, 0));  // fields carry over
  EXPECT_GT(at(0, 1, 1, 0), 0);
  EXPECT_EQ(at(24, 1, 1, 100001), -1);
  EXPECT_EQ(at(INT32_MIN, 1, 1, 0), -1);
}

TEST(RulesTest, FileNamesToDownloadArePlainComponents) {
  for (const char* bad : {"../etc/passwd", "/etc/passwd", "a/b.sw", "x;reboot.sw", "$(id).sw",
                          "-rf", ".hidden", "a b.sw", "a`id`.sw", "..sw", "~root", "a=~", ""}) {
    EXPECT_FALSE(IsSafeFileName(bad)) << bad;
  }
  EXPECT_TRUE(IsSafeFileName("VLM-1-2-3-4.sw") && IsSafeFileName("mcu_V1.2.crc+a@b=c,d"));
}

TEST(RulesTest, FtpCommandHandsEachValueOverAsOneArgument) {
  // The line runs in /bin/sh with a stand-in ftpget first on PATH that writes each of its
  // arguments on a line of its own. Fields may lack a terminator; a224 makes 254 characters.
  TempRoot root;
  root.Write("/a.log", "");  // what a "*" would expand to
  root.Write("/bin/ftpget", "#!/bin/sh\nprintf '%s\\n' \"$@\" >\"$0.args\"\n");
  chmod((root.path() + "/bin/ftpget").c_str(), 0755);
  const std::string args = root.path() + "/bin/ftpget.args";
  const std::string run = "cd '" + root.path() + "' && PATH='" + root.path() + "/bin':$PATH; ";
  const std::string a224(224, 'a'), a225(225, 'a'), u32(32, 'u'), h64(64, 'h');
  const FtpCommandResult ok = FTP_COMMAND_OK, badAccount = FTP_COMMAND_BAD_ACCOUNT,
                         badFirst = FTP_COMMAND_BAD_FIRST, badSecond = FTP_COMMAND_BAD_SECOND;
  const std::tuple<std::string, std::string, std::string, std::string, std::string,
                   FtpCommandResult>
      cases[] = {{"maint", "pw", "10.1.1.1", "/d/FileList.xml", "FileList.xml", ok},
                 {"x; rm -rf /", "p w'\"$(touch pwned)`id`;|&*~\\", "h 'q' <>!#$HOME",
                  "/mnt/sd $(reboot)/a b.log", "*", ok},
                 {"~maint", "'", "h", "350_a'b.log", "a\\b", ok},
                 {u32, "pw", h64, "a", "b", ok},
                 {"u", "pw", "h", a224, "b", ok},
                 {"u", "pw", "h", a225, "b", FTP_COMMAND_TOO_LONG},
                 {"-o", "pw", "h", "a", "b", badAccount},
                 {"", "pw", "h", "a", "b", badAccount},
                 {"u", "p\nw", "h", "a", "b", badAccount},
                 {"u", "pw", "", "a", "b", badAccount},
                 {"u", "pw", "h", "-rf", "b", badFirst},
                 {"u", "pw", "h", "a", "x\ny", badSecond},
                 {"u", "pw", "h", "a", "b\x7f", badSecond}};
  for (const auto& [user, password, host, first, second, result] : cases) {
    UpgradeSet_t account{};
    account.port = 2121;
    memcpy(account.user, user.data(), user.size());  // each fits its field
    memcpy(account.password, password.data(), password.size());
    memcpy(account.host, host.data(), host.size());
    char command[255] = "unchanged";
    ASSERT_EQ(
        FtpToolCommand("ftpget", account, first.c_str(), second.c_str(), command, sizeof(command)),
        result)
        << user << " " << first;
    EXPECT_EQ(command[0] == '\0', result != FTP_COMMAND_OK) << command;
    if (result != FTP_COMMAND_OK) continue;
    remove(args.c_str());
    system_run((run + command).c_str());
    EXPECT_EQ(ReadWholeFile(args), "-u\n" + user + "\n-p\n" + password + "\n-P\n2121\n" + host +
                                       "\n" + first + "\n" + second + "\n")
        << command;
  }
  EXPECT_NE(access((root.path() + "/pwned").c_str(), F_OK), 0);
}

}  // namespace
