// Maintenance: device-number scopes, dates and tool command lines; the maintenance manager and the
// debug-log upload on in-memory fakes. A recorder of device type 3, no. 150.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <iterator>
#include <sstream>

#include "core/command_worker.h"
#include "maintain/command_files.h"
#include "maintain/ftp_maintain_mng.h"
#include "platform/trust.h"
#include "rules/date_text.h"
#include "rules/scope.h"
#include "rules/shell_words.h"
#include "tests/fakes/fakes.h"

namespace {

using Lines = std::vector<std::string>;
const char kFar[] = "20991231-235959";

TEST(RulesTest, ScopeWalksTheRangesUntilOneHoldsTheDevice) {
  const std::string big = "99999999999999999999", huge = big + "~" + big, tiny = "-" + big + "~-5";
  // Case i asks whether device devices[i] is in scopes[i].
  const char* scopes[] = {"100~200",    "100~200",   "100~200", "100~200;", "1~2;140~160;9~9",
                          "150",        "abc",       ";5~6",    "",         nullptr,
                          tiny.c_str(), huge.c_str()};
  const long long devices[] = {200, 201, 99, 201, 150, 150, 0, 5, 0, 0, LLONG_MIN, LLONG_MAX};
  std::string walked;  // of each case: "lo~hi " of each range examined, then in or out
  for (size_t i = 0; i < 12; ++i) {
    bool in = InScope(scopes[i], devices[i], [&walked](const char*, long long lo, long long hi) {
      walked += std::to_string(lo) + "~" + std::to_string(hi) + " ";
    });
    walked += in ? "in|" : "out|";
  }
  EXPECT_EQ(walked,
            "100~200 in|100~200 out|100~200 out|100~200 out|1~2 140~160 in|150~0 out|0~0 in|"
            "0~0 5~6 in|out|out|-9223372036854775808~-5 in|"
            "9223372036854775807~9223372036854775807 in|");
}

TEST(RulesTest, DatesAndSpansReadAsFarAsTheyGo) {
  std::string got;  // of each text: how many fields were read, then all six or twelve (a span)
  for (const char* text :
       {"20240131-235958 and more", "20240131-2359", "19991231-235959", "",
        static_cast<const char*>(nullptr), "20240101-000000~20241231-235959",
        "20240101-000000~20241231", "20240101-000000 ~20241231", "20240101-0000~20241231-235959"}) {
    std::vector<int32_t> f(12, -7);
    const bool span = text != nullptr && strchr(text, '~') != nullptr;
    got += std::to_string(span ? ReadDateSpan2000(text, f.data()) : ReadDate2000(text, f.data()));
    for (int i = 0; i < (span ? 12 : 6); ++i) got += " " + std::to_string(f[i]);
    got += "|";
  }
  EXPECT_EQ(got,
            "6 24 1 31 23 59 58|5 24 1 31 23 59 0|0 0 0 0 0 0 0|0 0 0 0 0 0 0|0 0 0 0 0 0 0|"
            "12 24 1 1 0 0 0 24 12 31 23 59 59|9 24 1 1 0 0 0 24 12 31 0 0 0|"
            "6 24 1 1 0 0 0 0 0 0 0 0 0|5 24 1 1 0 0 0 0 0 0 0 0 0|");
  auto at = [](int32_t y, int32_t mo, int32_t d, int32_t s) {
    const int32_t f[6] = {y, mo, d, 3, 14, s};
    return LocalTime2000(f);
  };
  // Past a 32-bit time_t; a day; fields carry over; the first year; out of range.
  EXPECT_EQ(std::vector<int64_t>({at(38, 1, 19, 8) - at(38, 1, 19, 7),
                                  at(99, 12, 31, 0) - at(99, 12, 30, 0),
                                  at(24, 1, 32, 0) - at(24, 2, 1, 0), at(0, 1, 1, 0) > 0,
                                  at(24, 1, 1, 100001), at(INT32_MIN, 1, 1, 0)}),
            std::vector<int64_t>({1, 86400, 0, 1, -1, -1}));
}

TEST(RulesTest, FtpCommandHandsEachValueOverAsOneArgumentAndNamesArePlain) {
  for (const char* bad : {"../etc/passwd", "/etc/passwd", "a/b.sw", "x;reboot.sw", "$(id).sw",
                          "-rf", ".hidden", "a b.sw", "a`id`.sw", "..sw", "~root", "a=~", ""})
    EXPECT_FALSE(IsSafeFileName(bad)) << bad;
  EXPECT_TRUE(IsSafeFileName("VLM-1-2-3-4.sw") && IsSafeFileName("mcu_V1.2.crc+a@b=c,d"));
  // The line runs in /bin/sh with a stand-in ftpget that writes each argument on a line.
  TempRoot root;
  root.Write("/a.log", "");  // what a "*" would expand to
  root.Write("/bin/ftpget", "#!/bin/sh\nprintf '%s\\n' \"$@\" >\"$0.args\"\n");
  chmod((root.path() + "/bin/ftpget").c_str(), 0755);
  const std::string args = root.path() + "/bin/ftpget.args", a224(224, 'a'), a225(225, 'a');
  // User, password, host, first and second name: each fits its field, some without a
  // terminator; a224 makes 254 characters, a225 one too many. The first five are accepted.
  // Then refused: a bad account four times, a bad first name, a bad second name twice.
  // clang-format off
  const std::vector<std::vector<std::string>> cases = {
      {"maint", "pw", "10.1.1.1", "/d/FileList.xml", "FileList.xml"},
      {"x; rm -rf /", "p w'\"$(touch pwned)`id`;|&*~\\", "h 'q' <>!#$HOME",
       "/mnt/sd $(reboot)/a b.log", "*"},
      {"~maint", "'", "h", "350_a'b.log", "a\\b"}, {"u", "pw", "h", a224, "b"},
      {std::string(32, 'u'), "pw", std::string(64, 'h'), "a", "b"}, {"u", "pw", "h", a225, "b"},
      {"-o", "pw", "h", "a", "b"},   {"", "pw", "h", "a", "b"},    {"u", "p\nw", "h", "a", "b"},
      {"u", "pw", "", "a", "b"},     {"u", "pw", "h", "-rf", "b"}, {"u", "pw", "h", "a", "x\ny"},
      {"u", "pw", "h", "a", "b\x7f"}};
  // clang-format on
  std::string results;  // and whether a command line was left
  for (const auto& c : cases) {
    UpgradeSet_t account{};
    account.port = 2121;
    memcpy(account.user, c[0].data(), c[0].size());
    memcpy(account.password, c[1].data(), c[1].size());
    memcpy(account.host, c[2].data(), c[2].size());
    char command[255] = "unchanged";
    const int result = FtpToolCommand("ftpget", account, c[3].c_str(), c[4].c_str(), command, 255);
    results += std::to_string(result) + (command[0] == '\0' ? " " : "+ ");
    if (result != FTP_COMMAND_OK) continue;
    remove(args.c_str());
    system_run(
        ("cd '" + root.path() + "' && PATH='" + root.path() + "/bin':$PATH; " + command).c_str());
    EXPECT_EQ(ReadWholeFile(args), "-u\n" + c[0] + "\n-p\n" + c[1] + "\n-P\n2121\n" + c[2] + "\n" +
                                       c[3] + "\n" + c[4] + "\n")
        << command;
  }
  EXPECT_EQ(results, "0+ 0+ 0+ 0+ 0+ -4 -1 -1 -1 -1 -2 -3 -3 ");
  EXPECT_NE(access((root.path() + "/pwned").c_str(), F_OK), 0);
}

// A tar archive built member by member (name, type, link, ustar prefix), as no tool would.
std::string Tar(const std::vector<std::vector<std::string>>& members) {
  std::string bytes;
  for (const auto& m : members) {
    char h[512] = {};
    memcpy(h, m[0].data(), std::min<size_t>(m[0].size(), 100));
    snprintf(h + 100, 8, "%07o", 0644);
    snprintf(h + 124, 12, "%011o", m[1] == "0" ? 512u : 0u);
    h[156] = m[1][0];
    if (m.size() > 2) memcpy(h + 157, m[2].data(), std::min<size_t>(m[2].size(), 100));
    if (m.size() > 3) memcpy(h + 345, m[3].data(), std::min<size_t>(m[3].size(), 155));
    memcpy(h + 257, "ustar\00000", 8);  // "ustar", a zero byte, "00"
    memset(h + 148, ' ', 8);
    unsigned sum = 0;
    for (char b : h) sum += static_cast<uint8_t>(b);
    snprintf(h + 148, 8, "%06o", sum);
    bytes.append(h, 512).append(m[1] == "0" ? 512 : 0, 'x');  // one block of data
  }
  return bytes + std::string(1024, '\0');
}

class MaintainTest : public ::testing::Test {
 protected:
  MaintainTest() {
    root.Write("/etc/velmar/config/jtbase.xml", "<jtbase deviceNo=\"150\"/>");
    root.Write("/etc/velmar/version.xml",
               "<version prefix=\"VLM\" v1=\"1\" v2=\"2\" v3=\"3\" v4=\"4\"/>");
    env.clock = &clock, env.status = &status, env.shell = &shell;
    shell.mustBeFree = &mng.m_lock;
    status.deviceType = 3, status.mcuVersion = "V1.2";
    status.mounts[DISK_USAGE_UPLOAD] = {FakeStatus::Entry(1, "/mnt/sd1"),
                                        FakeStatus::Entry(6, "/mnt/sd2")};
    SetDisks({1});
  }
  // No shell command may run while the manager's lock is held: the request thread would wait
  // for the whole download.
  void TearDown() override { EXPECT_EQ(shell.LockedRuns(), 0); }
  static std::string Entry(const std::string& name, int type, size_t size = 0, int devtype = 3,
                           const std::string& expiry = kFar, const std::string& scope = "") {
    return "<FILE filetype=\"" + std::to_string(type) + "\" filesize=\"" + std::to_string(size) +
           "\" devtype=\"" + std::to_string(devtype) + "\" expirydate=\"" + expiry + "\" scope=\"" +
           scope + "\">" + name + "</FILE>";
  }
  std::string P(const std::string& rel) { return root.path() + rel; }
  void SetDisks(const std::vector<int>& disks) {  // the maintenance disks, /mnt/sd<n>
    auto& m = status.mounts[DISK_USAGE_MAINTAIN];
    m.clear();
    for (int d : disks) m.push_back(FakeStatus::Entry(1, P("/mnt/sd") + char('0' + d)));
  }

  TempRoot root;
  FakeClock clock;
  FakeStatus status;
  FakeShell shell;
  TestEnv env;
  CFtpMaintainMng mng{&env};
};

// Entries of the periodic list are skipped for another device type, an expiry before now or
// unreadable, out of scope, a name a shell would act on, the running version or MCU.
TEST_F(MaintainTest, EntriesAreJudgedThenLoadedByType) {
  char now[32], ago[32];
  time_t t = clock.WallSeconds(), t1 = t - 1;
  strftime(now, sizeof(now), "20%y%m%d-%H%M%S", localtime(&t));
  strftime(ago, sizeof(ago), "20%y%m%d-%H%M%S", localtime(&t1));
  root.Write("/l.xml", "<L>" + Entry("u.xml", 3) + Entry("u.xml", 3, 0, 0) +
                           Entry("u.xml", 3, 0, 4) + Entry("u.xml", 3, 0, 3, now) +
                           Entry("u.xml", 3, 0, 3, ago) + Entry("u.xml", 3, 0, 3, "tomorrow") +
                           Entry("u.xml", 3, 0, 3, kFar, "1~2;140~160;") +
                           Entry("u.xml", 3, 0, 3, kFar, "1~2;151~160") + Entry("x;reboot.xml", 3) +
                           Entry("LOGCMD.xml", 2) + Entry("c.tar", 5) + Entry("odd.bin", 7) +
                           Entry("VLM-1-2-3-4.sw", 1) + Entry("vlm-1-2-3-4.sw", 1) +
                           Entry("mcu_V1.2.crc", 4) + Entry("mcu_V1.3.crc", 4) + "</L>");
  mng.FtpConnectTo("maint", "pw", "10.1.1.1", 21, "/");
  FtpFileList_t& list = mng.m_pData->fileList;
  ASSERT_EQ(mng.ParseFileList(P("/l.xml").c_str(), &list), 0);
  strcpy(list.dir, "/d");
  std::string got;
  for (list.index = 0; list.index < list.count; ++list.index) {
    const int before = shell.Count("ftpget");
    EXPECT_EQ(mng.LoadFtpFile(1), 0);
    got += list.pItems[list.index].Status == FILE_STATUS_SKIP ? "skip "
           : shell.Count("ftpget") > before                   ? "get "
                                                              : "none ";
  }
  EXPECT_EQ(got, "get skip skip get skip skip get skip skip get get none skip get skip get ");
  EXPECT_EQ(status.upgrades, Lines({"201 /d/vlm-1-2-3-4.sw"}));  // the new package announced
}

// Command files by their marker: log commands (span, type, scope, expiry), user commands.
TEST_F(MaintainTest, CommandFilesActByTheirMarker) {
  SetDisks({1, 2, 3});  // the third has no debug directory
  for (const char* log : {"1/dbglog-20240101-000000.log", "1/dbglog-20240101-235958.log",
                          "1/dbglog-20240101-000001.log", "1/dbglog-20240101-235959.log",
                          "1/dbglog-20240102-120000.log", "1/dbglog-20240101-120000.log.bak",
                          "1/dbglog.log", "2/dbglog-20240101-120000.log"})
    root.Write(std::string("/mnt/sd") + log[0] + "/debug/" + (log + 2), "log");
  const std::string r = root.path(), span = " datetime=\"20240101-000000~20240101-235959\"",
                    exp = std::string("<ExpiryDate>") + kFar + "</ExpiryDate>",
                    put = "ftpput -u maint -p pw -P 21 10.1.1.1 150_dbglog-20240101-";
  // Logs strictly inside the span, disk by disk in name order; then, after a rest, the account
  // lent for them is withdrawn (also when none was in the span).
  const std::string sent =
      put + "000001.log " + r + "/mnt/sd1/debug/dbglog-20240101-000001.log @600\n" + put +
      "235958.log " + r + "/mnt/sd1/debug/dbglog-20240101-235958.log @600\n" + put + "120000.log " +
      r + "/mnt/sd2/debug/dbglog-20240101-120000.log @600\n" + "withdrawn after 2000000\n";
  auto log = [&](const std::string& attrs, const std::string& expiry) {
    return "<LOGCMD>" + expiry + "<CMDITEM " + attrs + "/></LOGCMD>";
  };
  // What handling a command file runs, and whether it withdrew the account and after what rest.
  auto handle = [&](const std::string& text) {
    size_t before = shell.Lines().size();
    uint64_t slept = clock.sleptUs();
    root.Write("/in/c.xml", text);
    EXPECT_EQ(mng.HandleRemoteCmd(P("/in/c.xml").c_str()), 0);
    std::string ran;
    for (size_t i = before; i < shell.Lines().size(); ++i) ran += shell.Lines()[i] + "\n";
    UpgradeSet_t a = mng.Account();
    if (a.user[0] == '\0' && a.password[0] == '\0')
      ran += "withdrawn after " + std::to_string(clock.sleptUs() - slept) + "\n";
    return ran;
  };
  // file, commands run. Items in any order; no expiry date: expired; type 1 does nothing; the
  // scope of a user command restricts nothing.
  const std::vector<std::pair<std::string, std::string>> rows = {
      {log("type=\"5\" scope=\"100~200\"" + span, exp), sent},
      {"<LOGCMD><CMDITEM" + span + " scope=\"100~200\" type=\"5\"/>" + exp + "</LOGCMD>", sent},
      {log("type=\"5\" scope=\"151~200\"" + span, exp), ""},
      {log("type=\"5\" scope=\"100~200\"" + span, ""), ""},
      {log("type=\"1\" scope=\"100~200\"" + span, exp), ""},
      {log("type=\"5\" scope=\"100~200\" datetime=\"20230101-000000~20230101-235959\"", exp),
       "withdrawn after 2000000\n"},
      {"<LOGCMD><UsrDefineCmd><CMDITEM>true no</CMDITEM></UsrDefineCmd></LOGCMD>", ""},
      {"<UsrDefineCmd><CMDITEM scope=\"all\">true a</CMDITEM><CMDITEM scope=\"140~160\">true b"
       "</CMDITEM><CMDITEM scope=\"1~5\">true c</CMDITEM></UsrDefineCmd>",
       "true a @600\ntrue b @600\ntrue c @600\n"},
      {"<UsrDefineCmd><ExpiryDate>20000101-000000</ExpiryDate><CMDITEM>rm -rf *.db</CMDITEM>"
       "<CMDITEM>rm -rf ./*.db</CMDITEM><CMDITEM></CMDITEM><CMDITEM>rm -rf REC-ALARM</CMDITEM>"
       "<CMDITEM>" +
           std::string(200, 'x') + "</CMDITEM></UsrDefineCmd>",
       "rm -rf *.db @600\nrm -rf " + r + "/mnt/sd1/*.db;rm -rf " + r + "/mnt/sd2/*.db @5\n" +
           "rm -rf ./*.db @600\nrm -rf REC-ALARM @600\nrm -rf " + r +
           "/mnt/sd1/REC-ALARM/*;rm -rf " + r + "/mnt/sd2/REC-ALARM/* @100\n" +
           std::string(127, 'x') + " @600\n"},
      {"<Other><CMDITEM>true nothing</CMDITEM></Other>", ""}};
  for (const auto& row : rows) {
    mng.FtpConnectTo("maint", "pw", "10.1.1.1", 21, "/");
    EXPECT_EQ(handle(row.first), row.second) << row.first;
  }
  // Without a user nothing can be sent; without debug logs on any disk the account stays.
  std::string twice = handle(rows[0].first);
  EXPECT_EQ(twice + handle(rows[0].first), sent + "withdrawn after 2000000\n");
  SetDisks({3});
  mng.FtpConnectTo("maint", "pw", "10.1.1.1", 21, "/");
  EXPECT_EQ(handle(rows[0].first), "");
}

TEST_F(MaintainTest, HostileConfigArchivesAreRefusedBeforeUnpacking) {
  std::string damaged = Tar({{"config/a.xml", "0"}});
  damaged[0] = 'C';
  const std::vector<std::pair<std::string, std::string>> rows = {
      {Tar({{"/config/x.xml", "0"}}), "absolute path"},
      {Tar({{"config/x.xml", "0", "", "/etc"}}), "absolute path"},
      {Tar({{"config/../../pwned", "0"}}), "\"..\""},
      {Tar({{"config/..", "5"}}), "\"..\""},
      {Tar({{"config/jtbase.xml", "2", "/etc/passwd"}}), "link"},
      {Tar({{"config/x.xml", "1", "/etc/shadow"}}), "link"},
      {Tar({{"config/dev", "3"}}), "type '3'"},
      {Tar({{"config/a.xml", "x"}}), "type 'x'"},  // a pax header: another path for tar
      {Tar({{"notes.txt", "0"}}), "outside the config"},
      {Tar({{"configs/x.xml", "0"}}), "outside the config"},
      {Tar({{"config/a.xml", "0"}}).substr(0, 512), "truncated"},
      {"\x1f\x8b\x08" + std::string(2045, 'z'), "not a tar"},  // compressed
      {damaged, "damaged"},
      {Tar({}), "no config"},
      {Tar({{"./", "5"}, {"./config/ttx.xml", "0"}}), ""}};  // the last is safe
  for (const auto& [archive, reason] : rows) {
    std::string why;
    const auto* bytes = reinterpret_cast<const uint8_t*>(archive.data());
    EXPECT_TRUE(CheckConfigArchive(bytes, archive.size(), &why) == reason.empty() &&
                why.find(reason) != std::string::npos)
        << reason << ": " << why;
    if (reason.empty()) continue;
    root.Write("/dl/evil.tar", archive);
    EXPECT_EQ(mng.HandleConfigCmd(P("/dl/evil.tar").c_str()), -1) << reason;
  }
  EXPECT_TRUE(shell.Lines().empty());  // nothing was unpacked
}

class MaintainCycleTest : public MaintainTest {
 protected:
  MaintainCycleTest() {
    mng.FtpConnectTo("maint", "pw", "10.1.1.1", 21, "/");
    strcpy(mng.m_pData->fileList.dir, P("/mnt/sd1").c_str());
    mng.m_lastStepTime = clock.WallSeconds();
    // ftpget lands what the server serves under the remote name; mv moves a download.
    shell.onCommand = [this](const std::string& command) {
      std::istringstream line(command.substr(0, command.rfind(" @")));
      std::vector<std::string> w{std::istream_iterator<std::string>(line), {}};
      if (w.size() == 3 && w[0] == "mv") rename(w[1].c_str(), w[2].c_str());
      auto f = w.size() > 2 && w[0] == "ftpget" ? served.find(w.back()) : served.end();
      if (f != served.end()) root.Write(w[w.size() - 2].substr(root.path().size()), f->second);
    };
  }
  // Passes of the thread's loop, one second apart, until the state changed n times: the passes
  // each change took (-1: none within 2000), then the state reached.
  std::vector<int> Steps(int n) {
    std::vector<int> out;
    while (n-- > 0) {
      const int before = mng.m_pData->state;
      int passes = 0;
      while (mng.m_pData->state == before && passes++ < 2000) {
        mng.ProcPass(&interval);
        clock.AdvanceMs(1000);
      }
      out.push_back(mng.m_pData->state == before ? -1 : passes);
    }
    out.push_back(mng.m_pData->state);
    return out;
  }

  int interval = 5;
  std::map<std::string, std::string> served;  // file name -> content a download lands
};

TEST_F(MaintainCycleTest, PeriodicCycleFollowsTheStateTableAndItsIntervals) {
  const std::string usrCmd = "<UsrDefineCmd><CMDITEM>true marker</CMDITEM></UsrDefineCmd>";
  // A step comes when more than 5 s have passed (7 passes: the first runs at the start time);
  // no list arrived: fetched again 60 s later (61 passes).
  EXPECT_EQ(Steps(4), std::vector<int>({7, 6, 6, 61, 2}));
  EXPECT_EQ(shell.Count("FileList.xml"), 2);
  root.Write("/mnt/sd1/FileList.xml",
             "<L>" + Entry("u.xml", 3, usrCmd.size()) + Entry("odd.bin", 7, 10) + "</L>");
  EXPECT_EQ(Steps(1), std::vector<int>({6, 3}));  // parsed, at entry 0
  EXPECT_EQ(mng.m_pData->fileList.count, 2);
  // The command file fails its size check twice (nothing lands), then arrives and is handled.
  EXPECT_EQ(Steps(4), std::vector<int>({6, 6, 61, 6, 3}));
  EXPECT_EQ(mng.m_pData->fileList.pItems[0].ErrTimes, 2);
  served["u.xml"] = usrCmd;
  EXPECT_EQ(Steps(2), std::vector<int>({61, 6, 3}));
  EXPECT_EQ(mng.m_pData->fileList.pItems[0].Status, FILE_STATUS_DONE);
  EXPECT_EQ(shell.Count("true marker"), 1);
  // An unknown file type is never downloaded and fails its check three times.
  int downloads = shell.Count("ftpget");
  EXPECT_EQ(Steps(6), std::vector<int>({6, 6, 61, 6, 61, 6, 5}));
  EXPECT_EQ(shell.Count("ftpget"), downloads);
  EXPECT_EQ(mng.m_pData->fileList.pItems[1].Status, FILE_STATUS_FAIL);
  // The finish step rests 900 s; then the cycle starts over.
  EXPECT_EQ(Steps(2), std::vector<int>({6, 901, 1}));
  EXPECT_EQ(interval, 5);
}

// With a trust file a list is used only when a trusted key signed it and its serial is not
// below the one kept; a download only with the SHA-256 its entry names. Whatever is refused
// runs nothing; the cycle goes on (list fetched again, download loaded again).
TEST_F(MaintainCycleTest, SignedListsAndDigestsDecideWhatRuns) {
  const std::string cmd = "<UsrDefineCmd><CMDITEM>true signed</CMDITEM></UsrDefineCmd>";
  std::string bad = cmd;
  bad[bad.find("true")] = 'T';  // changed, kept at its size
  auto list = [&](const std::string& serial, const std::string& crc) {
    return "<L serial=\"" + serial + "\"><FILE filetype=\"3\" size=\"" +
           std::to_string(cmd.size()) + "\" devtype=\"3\" expirydate=\"" + kFar + "\" crcvalue=\"" +
           crc + "\">u.xml</FILE></L>";
  };
  const std::string sha = "sha256:" + Sha256OfText(cmd);
  struct Row {
    const char* what;
    bool trusted;
    std::string listText, signer, kept, served;
    int runs, state;  // the command's runs; the cycle's state after 40 s (0: a pass ended)
  };
  const std::vector<Row> rows = {
      {"no trust file, no signature", false, list("1", "0"), "", "", cmd, 1, 0},
      {"a changed download without a trust file", false, list("1", sha), "", "", bad, 0, 3},
      {"signed, digest right", true, list("5", sha), kTestKeyA, "5", cmd, 1, 0},
      {"unsigned", true, list("5", sha), "", "", cmd, 0, 1},
      {"signed by an unknown key", true, list("5", sha), kTestKeyB, "", cmd, 0, 1},
      {"a lower serial than kept", true, list("4", sha), kTestKeyA, "5", cmd, 0, 1},
      {"a changed command file", true, list("5", sha), kTestKeyA, "", bad, 0, 3},
      {"an entry without a digest", true, list("5", "0"), kTestKeyA, "", cmd, 0, 0},
  };
  for (const Row& row : rows) {
    unlink(P("/etc/velmar/maintain-trust.pem").c_str());
    if (row.trusted) root.Write("/etc/velmar/maintain-trust.pem", kTestPubA);
    unlink(P("/etc/velmar/maintain-serial").c_str());
    if (!row.kept.empty()) root.Write("/etc/velmar/maintain-serial", row.kept + "\n");
    served = {{"FileList.xml", row.listText}, {"u.xml", row.served}};
    std::string sig;
    std::string why;
    if (!row.signer.empty()) SignDetached(row.signer, row.listText, &sig, &why);
    if (!sig.empty()) served["FileList.xml.sig"] = sig;
    const int before = shell.Count("true signed");
    mng.FtpConnectTo("maint", "pw", "10.1.1.1", 21, "/");
    for (int pass = 0; pass < 40; ++pass) {
      mng.ProcPass(&interval);
      clock.AdvanceMs(1000);
    }
    EXPECT_EQ(shell.Count("true signed") - before, row.runs) << row.what;
    EXPECT_EQ(mng.m_pData->state, row.state) << row.what;
  }
}

// A new account empties the lists and restarts the cycle at once.
TEST_F(MaintainCycleTest, NewAccountRestartsTheCycleAndDropsAStaleFetch) {
  clock.AdvanceMs(-3600 * 1000);  // a clock set back counts as time passed
  EXPECT_EQ(Steps(1), std::vector<int>({1, 1}));
  root.Write("/in/dl.xml", "<FileDownloadCmd>" + Entry("a.xml", 3, 1) + "</FileDownloadCmd>");
  root.Write("/mnt/sd1/FileList.xml", "<old/>");
  EXPECT_EQ(mng.HandleRemoteCmd(P("/in/dl.xml").c_str()), 0);
  EXPECT_EQ(std::string(mng.m_pData->onlineList.dir), P("/tmp"));
  mng.ParseFileList(P("/in/dl.xml").c_str(), &mng.m_pData->fileList);
  strcpy(mng.m_pData->upgradeSet.name, "old name");
  EXPECT_EQ(mng.FtpConnectTo("u", "p", "127.0.0.2", 2121, "/ignored"), 0);
  UpgradeSet_t a = mng.Account();
  EXPECT_EQ(Lines({a.host, a.user, a.password, a.name, std::to_string(a.port)}),
            Lines({"127.0.0.2", "u", "p", "", "2121"}));
  EXPECT_EQ(mng.m_pData->fileList.count + mng.m_pData->onlineList.count, 0);
  EXPECT_NE(access(P("/mnt/sd1/FileList.xml").c_str(), F_OK), 0);
  EXPECT_EQ(Steps(1), std::vector<int>({1, 1}));  // restarted at 0 and stepped at once
  // A fetch of the old account that ends after a switch does not move the new cycle on.
  shell.onCommand = [&](const std::string& c) {
    if (c.find("127.0.0.2") != std::string::npos) mng.FtpConnectTo("u3", "p", "h3", 21, "/");
  };
  EXPECT_EQ(Steps(2), std::vector<int>({6, 1, 1}));
  mng.m_pData->state = 8;  // an account is being replaced: the cycle stands still
  EXPECT_EQ(Steps(1), std::vector<int>({-1, 8}));
}

TEST_F(MaintainCycleTest, OnlineListSettlesEntriesAndStartsOverWhenFinished) {
  const std::string usrCmd = "<UsrDefineCmd><CMDITEM>true online</CMDITEM></UsrDefineCmd>";
  root.Write("/in/dl.xml", "<FileDownloadCmd>" + Entry("u1.xml", 3, usrCmd.size()) +
                               Entry("missing.xml", 3, 5) + Entry("short.xml", 3, 500) +
                               Entry("other.xml", 3, 5, 9) + "</FileDownloadCmd>");
  served = {{"u1.xml", usrCmd}, {"short.xml", "too short"}};
  FtpFileList_t& online = mng.m_pData->onlineList;
  for (int round = 1; round <= 2; ++round) {  // the second starts at entry 0 again
    EXPECT_EQ(mng.HandleRemoteCmd(P("/in/dl.xml").c_str()), 0);
    strcpy(online.dir, P("/mnt/sd1").c_str());
    for (int i = 0; i < 8; ++i) mng.OnlineFtpProc();  // missing and short: three tries each
    std::vector<int> got{online.index};
    for (int i = 0; i < 4; ++i)
      got.push_back(online.pItems[i].Status * 10 + online.pItems[i].ErrTimes);
    EXPECT_EQ(got, std::vector<int>({4, 20, 33, 33, 10}));  // done, failed, failed, skipped
    EXPECT_EQ(shell.Count("true online"), round);
    mng.OnlineFtpProc();  // finished: freed
    EXPECT_EQ(online.pItems, nullptr);
  }
}

// Without a maintenance disk the work directory is /tmp, after two minutes.
TEST_F(MaintainTest, WorkDirWithoutADisk) {
  SetDisks({});
  mng.SelectWorkDir();
  EXPECT_STREQ(mng.m_pData->fileList.dir, P("/tmp").c_str());
  EXPECT_TRUE(clock.sleptUs() > 120000000u && clock.sleptUs() < 123000000u) << clock.sleptUs();
}

// At most eight remote commands wait behind the running one; more are refused.
TEST(RemoteCmdWorkerTest, AtMostEightCommandsWaitBehindTheRunningOne) {
  std::mutex gate;  // held by the test while it posts: the running command waits at it
  std::atomic<int> started{0};
  gate.lock();
  CRemoteCmdWorker worker([&](const char*) {
    ++started;
    std::lock_guard<std::mutex> wait(gate);
  });
  std::string posted;
  for (char c = '0'; c <= '9'; ++c) {
    posted += worker.Post(std::string(1, c).c_str()) ? c : '-';
    for (int i = 0; i < 30000 && started == 0; ++i) usleep(1000);  // a generous deadline
  }
  gate.unlock();
  EXPECT_EQ(posted, "012345678-");
}

// The one table of configuration file names, read both ways; unusable files.
TEST(HostConfigTest, FileNamesAndRecords) {
  TempRoot root;
  // The names are what archives from a maintenance server carry: exact, letter case included.
  std::string names;
  for (int t = 0; t < 32; ++t) {  // 22, 25, 26 and 29 on are no configuration types
    const char* name = ConfigFileName(static_cast<PARAM_TYPE_E>(t));
    names += std::string(name == nullptr ? "-" : ConfigFileType(name) == t ? name : "?") + " ";
  }
  EXPECT_EQ(names,
            "jtbase.xml osd.xml store.xml server.xml dialup.xml local.xml clock.xml rsbase.xml "
            "power.xml videoout.xml ioset.xml upgrade.xml speed.xml gsensor.xml volage.xml "
            "temp.xml wifi.xml display.xml ptz.xml dst.xml motiondetect.xml record.xml - "
            "videoLost.xml diskAbnormal.xml - - ttx.xml account.xml - - - ");
  EXPECT_EQ(ConfigFileType("jtbase.XML") + ConfigFileType(nullptr), -2);
  UpgradeSet_t account;  // missing: refused and zeroed
  EXPECT_EQ(CConfig::Instance()->GetConfig(&account, nullptr) + account.host[0], -1);
}

}  // namespace
