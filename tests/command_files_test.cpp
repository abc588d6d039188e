// Log and user command files, and configuration archives (the hostile ones included).
#include "maintain/command_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tinyxml.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "maintain/ftp_maintain_mng.h"
#include "tests/fakes/fakes.h"
#include "tests/maintain_fixture.h"

namespace {

// A tar archive built member by member, so that a test can write what no tar tool would.
class TarBuilder {
 public:
  TarBuilder& Add(const std::string& name, char type, const std::string& data = "",
                  const std::string& link = "") {
    uint8_t h[512] = {};
    memcpy(h, name.data(), std::min<size_t>(name.size(), 100));
    snprintf(reinterpret_cast<char*>(h + 100), 8, "%07o", 0644);
    snprintf(reinterpret_cast<char*>(h + 124), 12, "%011o", static_cast<unsigned>(data.size()));
    h[156] = static_cast<uint8_t>(type);
    memcpy(h + 157, link.data(), std::min<size_t>(link.size(), 100));
    memcpy(h + 257,
           "ustar\0"
           "00",
           8);
    memset(h + 148, ' ', 8);
    unsigned sum = 0;
    for (uint8_t b : h) sum += b;
    snprintf(reinterpret_cast<char*>(h + 148), 8, "%06o", sum);
    m_bytes.append(reinterpret_cast<char*>(h), 512);
    m_bytes += data;
    m_bytes.append((512 - data.size() % 512) % 512, '\0');
    return *this;
  }
  std::string Bytes() const { return m_bytes + std::string(1024, '\0'); }

 private:
  std::string m_bytes;
};

bool Check(const std::string& tar, std::string* why) {
  return CheckConfigArchive(reinterpret_cast<const uint8_t*>(tar.data()), tar.size(), why);
}

using CommandFilesTest = MaintainFixture;

TEST(LogCmdParseTest, DatetimeBytesWhateverTheAttributeOrder) {
  TiXmlDocument doc;
  doc.Parse(
      "<LOGCMD>"
      "<CMDITEM type=\"10\" datetime=\"20240101-000000~20240101-235959\" scope=\"1~2\"/>"
      "<CMDITEM scope=\"100~200;300~400\" datetime=\"20240101-000000~20240101-235959\" type=\"5\"/>"
      "<ExpiryDate>20301231-235958</ExpiryDate>"
      "<CMDITEM datetime=\"garbage\"/>"
      "</LOGCMD>");
  int32_t expiry[6];
  LogCmdItem_t* items = nullptr;
  ASSERT_EQ(ParseLogCmdItems(doc.RootElement(), expiry, &items), 3);
  const uint8_t span[12] = {24, 1, 1, 0, 0, 0, 24, 1, 1, 23, 59, 59};
  for (int i = 0; i < 2; ++i) EXPECT_EQ(memcmp(items[i].start, span, 12), 0) << i;  // end follows
  EXPECT_EQ(items[0].type, 10);
  EXPECT_STREQ(items[0].scope, "1~2");
  EXPECT_EQ(items[1].type, 5);
  EXPECT_STREQ(items[1].scope, "100~200;300~400");  // scope intact after the datetime
  EXPECT_EQ(items[2].scope, nullptr);
  const int32_t want[6] = {30, 12, 31, 23, 59, 58};  // read after the commands, still applies
  EXPECT_EQ(memcmp(expiry, want, sizeof(want)), 0);
  FreeLogCmdItems(items, 3);
}

TEST_F(CommandFilesTest, UserCommandsRunInOrderWithTheDiskWideFollowUpsOfExactTexts) {
  root.Write("/c.xml",
             "<UsrDefineCmd><ExpiryDate>20000101-000000</ExpiryDate>"
             "<CMDITEM scope=\"1~5\">rm -rf *.db</CMDITEM>"
             "<CMDITEM>rm -rf ./*.db</CMDITEM>"
             "<CMDITEM></CMDITEM>"
             "<CMDITEM>rm -rf REC-ALARM</CMDITEM>"
             "<CMDITEM>" +
                 std::string(200, 'x') +
                 "</CMDITEM>"
                 "</UsrDefineCmd>");
  EXPECT_EQ(mng.HandleUsrDefineCmd((root.path() + "/c.xml").c_str()), 0);
  const std::string r = root.path();
  std::vector<std::string> want = {
      "rm -rf *.db @-1",  // the expiry date restricts nothing
      "rm -rf " + r + "/mnt/sd1/*.db;rm -rf " + r + "/mnt/sd2/*.db @5",
      "rm -rf ./*.db @-1",  // not the exact text: no follow-up
      "rm -rf REC-ALARM @-1",
      "rm -rf " + r + "/mnt/sd1/REC-ALARM/*;rm -rf " + r + "/mnt/sd2/REC-ALARM/* @100",
      std::string(127, 'x') + " @-1",
  };
  EXPECT_EQ(shell.Lines(), want);
  EXPECT_EQ(log.Count("CmdCount: 4"), 1);
  EXPECT_EQ(log.Count("Cmd: rm -rf *.db, 1~5"), 1);

  root.Write("/bad.xml", "not xml at all");
  EXPECT_EQ(mng.HandleUsrDefineCmd((root.path() + "/bad.xml").c_str()), -1);
  EXPECT_EQ(mng.HandleLogCmd((root.path() + "/bad.xml").c_str()), -1);
  EXPECT_EQ(log.Count("LoadFile " + root.path() + "/bad.xml Failed"), 2);
  EXPECT_EQ(shell.Lines().size(), want.size());

  // On the device (no sandbox root) the follow-up is the disks' own paths.
  std::string follow;
  int limit = 0;
  unsetenv("VELMAR_ROOT");
  EXPECT_TRUE(UsrCmdFollowUp("rm -rf *.sw", &follow, &limit));
  setenv("VELMAR_ROOT", root.path().c_str(), 1);
  EXPECT_EQ(follow, "rm -rf /mnt/sd1/*.sw;rm -rf /mnt/sd2/*.sw;");
  EXPECT_EQ(limit, 10);
  EXPECT_FALSE(UsrCmdFollowUp("RM -RF *.sw", &follow, &limit));
  EXPECT_FALSE(UsrCmdFollowUp("rm -rf *.sw ", &follow, &limit));  // a trailing blank counts
}

TEST_F(CommandFilesTest, LogCommandClearsTheManagersCredentialsEvenWithoutLogsInTheSpan) {
  root.Write("/mnt/sd1/debug/dbglog-20200101-000000.log", "old");
  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.mounts[DISK_USAGE_MAINTAIN] = {FakeStatus::Entry(1, root.path() + "/mnt/sd1")};
  }
  mng.FtpConnectTo("maint", "secret", "127.0.0.1", 21, "/");
  root.Write("/log.xml",
             "<LOGCMD><ExpiryDate>20991231-235959</ExpiryDate>"
             "<CMDITEM type=\"1\" scope=\"100~200\" datetime=\"20240101-000000~20240101-235959\"/>"
             "</LOGCMD>");
  EXPECT_EQ(mng.HandleLogCmd((root.path() + "/log.xml").c_str()), 0);
  EXPECT_STREQ(mng.Account().user, "maint");  // type 1 keeps them

  root.Write("/log.xml",
             "<LOGCMD><ExpiryDate>20991231-235959</ExpiryDate>"
             "<CMDITEM type=\"5\" scope=\"100~200\" datetime=\"20240101-000000~20240101-235959\"/>"
             "</LOGCMD>");
  EXPECT_EQ(mng.HandleLogCmd((root.path() + "/log.xml").c_str()), 0);
  UpgradeSet_t after = mng.Account();
  EXPECT_EQ(after.user[0], '\0');
  EXPECT_EQ(after.password[0], '\0');
  EXPECT_STREQ(after.host, "127.0.0.1");
  for (auto& c : shell.Commands()) EXPECT_EQ(c.first.find("ftpput"), std::string::npos) << c.first;

  // Without an expiry date the command is out of date: nothing is touched.
  mng.FtpConnectTo("maint", "secret", "127.0.0.1", 21, "/");
  root.Write("/log.xml", "<LOGCMD><CMDITEM type=\"5\" scope=\"100~200\"/></LOGCMD>");
  EXPECT_EQ(mng.HandleLogCmd((root.path() + "/log.xml").c_str()), 0);
  EXPECT_STREQ(mng.Account().user, "maint");
  EXPECT_EQ(log.Count("UploadLog out of date"), 1);
}

TEST_F(CommandFilesTest, ConfigArchiveAppliesKnownFilesByExactName) {
  UseRealShell();
  root.Write("/etc/velmar/config/wifi.xml", "<wifi old=\"1\"/>");
  root.Write("/src/config/wifi.xml", "<wifi ssid=\"fleet\"/>");
  const std::string archive = root.path() + "/dl/config.tar";
  root.Write("/dl/keep", "");
  ASSERT_EQ(system(("cd '" + root.path() + "/src' && tar cf '" + archive + "' config").c_str()), 0);

  EXPECT_EQ(mng.HandleFtpCmdFile(FTP_FILE_CONFIG, archive.c_str()), 0);
  EXPECT_EQ(ReadWholeFile(root.path() + "/etc/velmar/config/wifi.xml"), "<wifi ssid=\"fleet\"/>");
  EXPECT_NE(access((root.path() + "/tmp/config").c_str(), F_OK), 0);  // removed after import
  EXPECT_EQ(access(archive.c_str(), F_OK), 0);                        // the archive stays

  // An archive without a config directory yields nothing.
  ASSERT_EQ(
      system(("cd '" + root.path() + "/src/config' && tar cf '" + archive + "' wifi.xml").c_str()),
      0);
  EXPECT_EQ(mng.HandleConfigCmd(archive.c_str()), -1);
}

TEST_F(CommandFilesTest, HostileArchivesAreRefusedBeforeAnythingIsUnpacked) {
  std::string why;
  EXPECT_TRUE(
      Check(TarBuilder().Add("config/", '5').Add("config/wifi.xml", '0', "<w/>").Bytes(), &why))
      << why;
  EXPECT_TRUE(Check(TarBuilder().Add("./", '5').Add("./config/ttx.xml", '0', "<t/>").Bytes(), &why))
      << why;
  struct Case {
    std::string tar;
    std::string reason;
  };
  const std::vector<Case> hostile = {
      {TarBuilder().Add("/etc/velmar-pwned", '0', "x").Bytes(), "absolute path"},
      {TarBuilder().Add("config/../../pwned", '0', "x").Bytes(), "\"..\""},
      {TarBuilder().Add("config/..", '5').Bytes(), "\"..\""},
      {TarBuilder().Add("config/jtbase.xml", '2', "", "/etc/passwd").Bytes(), "link"},
      {TarBuilder().Add("config", '2', "", "/etc").Add("config/passwd", '0', "x").Bytes(), "link"},
      {TarBuilder().Add("config/x.xml", '1', "", "/etc/shadow").Bytes(), "link"},
      {TarBuilder().Add("config/dev", '3').Bytes(), "type '3'"},
      {TarBuilder().Add("ftpuploadfile.listen", '0', "x").Bytes(), "outside the config"},
      {TarBuilder().Add("notes.txt", '0', "x").Bytes(), "outside the config"},
      {TarBuilder().Add("config/a.xml", '0', std::string(2000, 'a')).Bytes().substr(0, 1024),
       "truncated"},
      {std::string(2048, 'z'), "not a tar"},
      {TarBuilder().Bytes(), "no config"},
  };
  for (const Case& c : hostile) {
    why.clear();
    EXPECT_FALSE(Check(c.tar, &why)) << c.reason;
    EXPECT_NE(why.find(c.reason), std::string::npos) << why;
  }
  std::string damaged = TarBuilder().Add("config/a.xml", '0', "x").Bytes();
  damaged[0] = 'C';
  EXPECT_FALSE(Check(damaged, &why));

  // Through the handler with the real shell and tar: nothing lands outside, nothing applied.
  UseRealShell();
  const std::string outside = root.path() + "/outside";
  const std::string archive = root.path() + "/dl/evil.tar";
  root.Write("/dl/evil.tar", TarBuilder()
                                 .Add("config/jtbase.xml", '0', "<jtbase deviceNo=\"666\"/>")
                                 .Add("config/../../outside", '0', "escaped")
                                 .Add(outside + "-abs", '0', "escaped")
                                 .Add("config/link", '2', "", "/etc")
                                 .Bytes());
  EXPECT_EQ(mng.HandleConfigCmd(archive.c_str()), -1);
  EXPECT_NE(access(outside.c_str(), F_OK), 0);
  EXPECT_NE(access((outside + "-abs").c_str(), F_OK), 0);
  EXPECT_NE(access((root.path() + "/tmp/config").c_str(), F_OK), 0);
  EXPECT_EQ(ReadWholeFile(root.path() + "/etc/velmar/config/jtbase.xml"),
            "<jtbase deviceNo=\"150\"/>");
  EXPECT_EQ(log.Count("HandleConfigCmd: refused " + archive), 1);
}

}  // namespace
