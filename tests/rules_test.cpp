// The rules shared by the maintenance cycle and the debug-log upload: device-number scopes,
// the maintenance server's dates, and the command lines of ftpget and ftpput.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "rules/date_text.h"
#include "rules/scope.h"
#include "rules/shell_words.h"
#include "tests/fakes/fakes.h"

namespace {

TEST(RulesTest, ScopeWalksTheRangesUntilOneHoldsTheDevice) {
  const std::string big = "99999999999999999999", huge = big + "~" + big, tiny = "-" + big + "~-5";
  const struct {
    const char* scope;
    long long deviceNo;
    bool in;
    std::string walked;  // "lo~hi " of each range examined
  } cases[] = {
      {"100~200", 200, true, "100~200 "}, {"100~200", 201, false, "100~200 "},
      {"100~200", 99, false, "100~200 "}, {"100~200;", 201, false, "100~200 "},
      {"1~2;140~160;9~9", 150, true, "1~2 140~160 "}, {"150", 150, false, "150~0 "},
      {"abc", 0, true, "0~0 "}, {";5~6", 5, true, "0~0 5~6 "}, {"", 0, false, ""},
      {nullptr, 0, false, ""}, {tiny.c_str(), LLONG_MIN, true, "-9223372036854775808~-5 "},
      {huge.c_str(), LLONG_MAX, true, "9223372036854775807~9223372036854775807 "}};
  for (const auto& c : cases) {
    std::string walked;
    bool in = InScope(c.scope, c.deviceNo, [&walked](const char*, long long lo, long long hi) {
      walked += std::to_string(lo) + "~" + std::to_string(hi) + " ";
    });
    EXPECT_EQ(in, c.in) << (c.scope ? c.scope : "null") << " " << c.deviceNo;
    EXPECT_EQ(walked, c.walked) << (c.scope ? c.scope : "null");
  }
}

TEST(RulesTest, DatesAndSpansReadAsFarAsTheyGo) {
  const struct {
    const char* text;
    int read;  // a span when the fields are twelve
    std::vector<int32_t> fields;
  } cases[] = {
      {"20240131-235958 and more", 6, {24, 1, 31, 23, 59, 58}},
      {"20240131-2359", 5, {24, 1, 31, 23, 59, 0}}, {"19991231-235959", 0, {0, 0, 0, 0, 0, 0}},
      {nullptr, 0, {0, 0, 0, 0, 0, 0}},
      {"20240101-000000~20241231-235959", 12, {24, 1, 1, 0, 0, 0, 24, 12, 31, 23, 59, 59}},
      {"20240101-000000~20241231", 9, {24, 1, 1, 0, 0, 0, 24, 12, 31, 0, 0, 0}},
      {"20240101-000000 ~20241231", 6, {24, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"20240101-0000~20241231-235959", 5, {24, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}}};
  for (const auto& c : cases) {
    std::vector<int32_t> f(12, -7);
    int read = c.fields.size() == 12 ? ReadDateSpan2000(c.text, f.data())
                                     : ReadDate2000(c.text, f.data());
    f.resize(c.fields.size());
    EXPECT_EQ(read, c.read) << (c.text ? c.text : "null");
    EXPECT_EQ(f, c.fields) << (c.text ? c.text : "null");
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
  EXPECT_TRUE(IsSafeFileName("VLM-1-2-3-4.sw"));
  EXPECT_TRUE(IsSafeFileName("mcu_V1.2.crc+a@b=c,d"));
}

// The arguments the command line hands to ftpget: run by /bin/sh with a stand-in ftpget
// first on PATH that prints each argument on a line of its own.
std::vector<std::string> ArgumentsOf(const std::string& command, const TempRoot& root) {
  root.Write("/bin/ftpget", "#!/bin/sh\nprintf '%s\\n' \"$@\"\n");
  chmod((root.path() + "/bin/ftpget").c_str(), 0755);
  FILE* out = popen(("cd '" + root.path() + "' && PATH='" + root.path() + "/bin':\"$PATH\"; " +
                     command).c_str(), "r");
  std::vector<std::string> args;
  char text[512];
  while (out != nullptr && fgets(text, sizeof(text), out) != nullptr) {
    args.push_back(std::string(text, strcspn(text, "\n")));
  }
  if (out != nullptr) pclose(out);
  return args;
}

TEST(RulesTest, FtpCommandHandsEachValueOverAsOneArgument) {
  TempRoot root;
  root.Write("/a.log", "");  // what a "*" would expand to
  const std::string a224(224, 'a'), a225(225, 'a'), u32(32, 'u'), h64(64, 'h');
  const struct {
    std::string user, password, host, first, second;
    FtpCommandResult result;
  } cases[] = {
      {"maint", "pw", "10.1.1.1", "/d/FileList.xml", "FileList.xml", FTP_COMMAND_OK},
      {"x; rm -rf /", "p w'\"$(touch pwned)`id`;|&*~\\", "h 'q' <>!#$HOME",
       "/mnt/sd $(reboot)/a b.log", "*", FTP_COMMAND_OK},
      {"~maint", "'", "h", "350_a'b.log", "a\\b", FTP_COMMAND_OK},
      {u32, "pw", h64, "a", "b", FTP_COMMAND_OK},  // fields without a terminator
      {"u", "pw", "h", a224, "b", FTP_COMMAND_OK},  // 254 characters
      {"u", "pw", "h", a225, "b", FTP_COMMAND_TOO_LONG},
      {"-o", "pw", "h", "a", "b", FTP_COMMAND_BAD_ACCOUNT},
      {"", "pw", "h", "a", "b", FTP_COMMAND_BAD_ACCOUNT},
      {"u", "p\nw", "h", "a", "b", FTP_COMMAND_BAD_ACCOUNT},
      {"u", "pw", "", "a", "b", FTP_COMMAND_BAD_ACCOUNT},
      {"u", "pw", "h", "-rf", "b", FTP_COMMAND_BAD_FIRST},
      {"u", "pw", "h", "a", "x\ny", FTP_COMMAND_BAD_SECOND},
      {"u", "pw", "h", "a", "b\x7f", FTP_COMMAND_BAD_SECOND}};
  for (const auto& c : cases) {
    UpgradeSet_t account{};
    account.port = 2121;
    memcpy(account.user, c.user.data(), std::min(c.user.size(), sizeof(account.user)));
    memcpy(account.password, c.password.data(), c.password.size());
    memcpy(account.host, c.host.data(), std::min(c.host.size(), sizeof(account.host)));
    char command[255] = "unchanged";
    ASSERT_EQ(FtpToolCommand("ftpget", account, c.first.c_str(), c.second.c_str(), command,
                             sizeof(command)), c.result) << c.user << " " << c.first;
    if (c.result != FTP_COMMAND_OK) {
      EXPECT_STREQ(command, "");
      continue;
    }
    EXPECT_EQ(ArgumentsOf(command, root), (std::vector<std::string>{"-u", c.user, "-p", c.password,
              "-P", "2121", c.host, c.first, c.second})) << command;
  }
  EXPECT_NE(access((root.path() + "/pwned").c_str(), F_OK), 0);
}

}  // namespace
