#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>

#include "maintain/ftp_maintain_mng.h"
#include "tests/fakes/fakes.h"
#include "tests/maintain_fixture.h"

namespace {

class MaintainTest : public MaintainFixture {
 protected:
  MaintainTest() {
    root.Write("/etc/velmar/version.xml",
               "<version prefix=\"VLM\" v1=\"1\" v2=\"2\" v3=\"3\" v4=\"4\"/>");
    std::lock_guard<std::mutex> g(status.mutex);
    status.mcuVersion = "V1.2";
    status.mounts[DISK_USAGE_UPLOAD] = {FakeStatus::Entry(1, "/mnt/sd1"),
                                        FakeStatus::Entry(6, "/mnt/sd2")};
  }
  // A date text "20YYMMDD-hhmmss" of the fake clock's now + delta seconds, local time.
  std::string Date(int delta) {
    time_t t = clock.WallSeconds() + delta;
    struct tm tmv;
    localtime_r(&t, &tmv);
    char text[32];
    strftime(text, sizeof(text), "20%y%m%d-%H%M%S", &tmv);
    return text;
  }
  FtpFileItem_t Item(const std::string& name, int type, const std::string& scope = "") {
    FtpFileItem_t item{};
    item.FileType = type;
    item.DevType = 3;
    strcpy(item.ExpiryDate, Date(3600).c_str());
    strcpy(item.Scope, scope.c_str());
    strcpy(item.FileName, name.c_str());
    return item;
  }
};

TEST_F(MaintainTest, ParsesEntriesBySubstringAndAppends) {
  root.Write(
      "/list.xml",
      "<Anything>"
      "<FILE filetype=\"1\" filesize=\"3145728\" devtypes=\"3\" expirydate=\"20251231-235959\""
      " scope=\"100000~199999;500000~500000\" crcvalue=\"abc\" other=\"x\">VLM-1-2-3-5.sw</FILE>"
      "<MYFILE filetype=\"2\">LOGCMD.xml</MYFILE>"
      "<FILES filetype=\"5\"/>"
      "<file filetype=\"3\">lower.xml</file>"
      "<note>not a file</note>"
      "</Anything>");
  FtpFileList_t list{};
  std::string path = root.path() + "/list.xml";
  testing::internal::CaptureStdout();
  ASSERT_EQ(mng.ParseFileList(path.c_str(), &list), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "FtpFileItem [0]: 1, 3145728, 3, 20251231-235959, 100000~199999;500000~500000, abc, "
            "VLM-1-2-3-5.sw\nFtpFileItem [1]: 2, 0, 0, , , , LOGCMD.xml\n");
  ASSERT_EQ(list.count, 2);  // FILES has no text; "file" lacks the upper-case "FILE"
  EXPECT_EQ(list.pItems[0].FileType, 1);
  EXPECT_EQ(list.pItems[0].FileSize, 3145728);  // "filesize" contains "size"
  EXPECT_EQ(list.pItems[0].DevType, 3);         // "devtypes" contains "devtype"
  EXPECT_STREQ(list.pItems[0].Scope, "100000~199999;500000~500000");
  EXPECT_STREQ(list.pItems[0].CrcValue, "abc");
  EXPECT_STREQ(list.pItems[1].FileName, "LOGCMD.xml");
  EXPECT_EQ(list.pItems[1].DevType, 0);
  ASSERT_EQ(mng.ParseFileList(path.c_str(), &list), 0);  // appended behind the first set
  EXPECT_EQ(list.count, 4);
  EXPECT_STREQ(list.pItems[2].FileName, "VLM-1-2-3-5.sw");

  root.Write("/empty.xml", "<r><other>x</other></r>");
  EXPECT_EQ(mng.ParseFileList((root.path() + "/empty.xml").c_str(), &list), -1);
  root.Write("/broken.xml", "not xml at all");
  EXPECT_EQ(mng.ParseFileList((root.path() + "/broken.xml").c_str(), &list), -1);
  EXPECT_EQ(log.Count("LoadFile " + root.path() + "/broken.xml Failed"), 1);
  EXPECT_EQ(list.count, 4);
  {
    CAutoLock guard(&mng.m_lock);
    ClearFileList(&list);
  }

  // A download command appends to the online list, whose directory is /tmp.
  root.Write("/cmd.xml", "<FileDownloadCmd><FILE filetype=\"3\">a.xml</FILE></FileDownloadCmd>");
  EXPECT_EQ(mng.HandleFileDownloadCmd((root.path() + "/cmd.xml").c_str()), 0);
  EXPECT_EQ(mng.HandleFileDownloadCmd((root.path() + "/cmd.xml").c_str()), 0);
  EXPECT_EQ(mng.m_pData->onlineList.count, 2);
  EXPECT_EQ(std::string(mng.m_pData->onlineList.dir), root.path() + "/tmp");
  EXPECT_EQ(mng.HandleFileDownloadCmd((root.path() + "/none.xml").c_str()), -1);
}

TEST_F(MaintainTest, JudgesDeviceTypeExpiryAndScope) {
  FtpFileItem_t anyDevice = Item("a.sw", 1);
  EXPECT_EQ(mng.IsNeedLoadFile(&anyDevice), 0);  // empty scope: every device number
  FtpFileItem_t other = Item("a.sw", 1);
  other.DevType = 0;  // no devtype: only for device type 0
  EXPECT_EQ(mng.IsNeedLoadFile(&other), -1);
  EXPECT_EQ(log.Count("IsNeedLoadFile DevType Mismatch: Local = 3, Ftp = 0"), 1);

  FtpFileItem_t now = Item("a.sw", 1);
  strcpy(now.ExpiryDate, Date(0).c_str());
  EXPECT_EQ(mng.IsNeedLoadFile(&now), 0);  // the current second is still valid
  strcpy(now.ExpiryDate, Date(-1).c_str());
  EXPECT_EQ(mng.IsNeedLoadFile(&now), -1);
  strcpy(now.ExpiryDate, "tomorrow");  // unreadable: counts as expired
  EXPECT_EQ(mng.IsNeedLoadFile(&now), -1);
  EXPECT_EQ(log.Count("IsNeedLoadFile out of date"), 2);

  FtpFileItem_t scoped = Item("a.sw", 1, "1~2;140~160;");
  EXPECT_EQ(mng.IsNeedLoadFile(&scoped), 0);  // device number 150
  strcpy(scoped.Scope, "1~2;151~160");
  EXPECT_EQ(mng.IsNeedLoadFile(&scoped), -1);
  EXPECT_EQ(log.Count("IsNeedLoadFile not in scope"), 1);
}

TEST_F(MaintainTest, CommandTextsOfFetchDownloadAndCleaning) {
  UpgradeSet_t account = Account();
  mng.GetFileList(&account, "/tmp/work");
  FtpFileItem_t cfg = Item("config.tar", 5);
  EXPECT_EQ(mng.LoadConfigFile(&cfg, &account, "/tmp/work"), 0);
  std::string tmp = root.path() + "/tmp";
  EXPECT_EQ(shell.Lines(),
            (std::vector<std::string>{
                "ftpget -u maint -p pw -P 21 10.1.1.1 /tmp/work/FileList.xml FileList.xml @600",
                "rm /mnt/sd1/*.tar @5", "rm /mnt/sd2/*.tar @5", "rm " + tmp + "/*.tar @5",
                "ftpget -u maint -p pw -P 21 10.1.1.1 /tmp/work/tmp_ftp_load.bin config.tar @600",
                "mv /tmp/work/tmp_ftp_load.bin /tmp/work/config.tar @10"}));

  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.mounts[DISK_USAGE_UPLOAD].clear();
  }
  FtpFileItem_t mcu = Item("mcu_V1.3.crc", 4);
  EXPECT_EQ(mng.LoadMcuFile(&mcu, &account, "/d"), 0);
  EXPECT_EQ(log.Count("LoadMcuFile\xc3\xbb\xd3\xd0\xd5\xd2\xb5\xbd\xb4\xc5\xc5\xcc"), 1);
  EXPECT_EQ(shell.Lines()[6], "rm " + tmp + "/*.crc @5");  // /tmp is cleaned anyway
}

TEST_F(MaintainTest, VersionSkipsAndUpgradeAnnouncement) {
  UpgradeSet_t account = Account();
  FtpFileItem_t same = Item("VLM-1-2-3-4.sw", 1);
  EXPECT_EQ(mng.LoadUpgradeFile(&same, &account, "/d"), 1);
  EXPECT_EQ(log.Count("NewVer=CurVer=VLM-1-2-3-4.sw"), 1);
  EXPECT_TRUE(shell.Commands().empty());

  FtpFileItem_t other = Item("vlm-1-2-3-4.sw", 1);  // differs in case only: a new version
  EXPECT_EQ(mng.LoadUpgradeFile(&other, &account, "/d"), 0);
  EXPECT_EQ(log.Count("LocalVersion=VLM-1-2-3-4.sw, FtpVersion=vlm-1-2-3-4.sw"), 1);
  ASSERT_EQ(status.upgrades.size(), 1u);
  EXPECT_EQ(status.upgrades[0], "201 /d/vlm-1-2-3-4.sw");

  FtpFileItem_t mcu = Item("mcu_V1.2.crc", 4);
  EXPECT_EQ(mng.LoadMcuFile(&mcu, &account, "/d"), 1);  // contains the running version
  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.mcuVersion = "";
  }
  FtpFileItem_t any = Item("whatever.crc", 4);
  EXPECT_EQ(mng.LoadMcuFile(&any, &account, "/d"), 1);  // an empty version is in every name
}

TEST_F(MaintainTest, HostileNamesAndAccountsRunNothingUnsafe) {
  UpgradeSet_t account = Account();
  FtpFileItem_t evil = Item("x;touch pwned.sw", 3);
  mng.DownloadFile(&evil, &account, "/d");
  strcpy(account.user, "-o");  // would read as an option
  FtpFileItem_t fine = Item("a.xml", 3);
  mng.DownloadFile(&fine, &account, "/d");
  mng.GetFileList(&account, "/d");
  EXPECT_TRUE(shell.Commands().empty());
  EXPECT_EQ(log.Count("DownloadFile: refused"), 2);
  EXPECT_EQ(log.Count("GetFileList: the maintenance account or directory is unusable"), 1);
}

TEST_F(MaintainTest, ConnectToReplacesAccountAndEmptiesLists) {
  std::string work = root.Make("/work/x");
  work = work.substr(0, work.rfind('/'));
  root.Write("/work/FileList.xml", "<old/>");
  root.Write("/list.xml", "<L><FILE>a.sw</FILE></L>");
  {
    CAutoLock guard(&mng.m_lock);
    strcpy(mng.m_pData->fileList.dir, work.c_str());
    mng.ParseFileList((root.path() + "/list.xml").c_str(), &mng.m_pData->fileList);
    mng.ParseFileList((root.path() + "/list.xml").c_str(), &mng.m_pData->onlineList);
    strcpy(mng.m_pData->upgradeSet.name, "old name");
    mng.m_pData->state = 3;
  }
  mng.m_lastStepTime = 1234;
  testing::internal::CaptureStdout();
  EXPECT_EQ(mng.FtpConnectTo("u2", "p2", "maint2.local", 2100, "/ignored"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "FtpConnectTo " + work + "/FileList.xml\n");
  EXPECT_EQ(mng.m_pData->fileList.count, 0);
  EXPECT_EQ(mng.m_pData->onlineList.pItems, nullptr);
  UpgradeSet_t a = mng.Account();
  EXPECT_STREQ(a.host, "maint2.local");
  EXPECT_EQ(a.port, 2100);
  EXPECT_STREQ(a.user, "u2");
  EXPECT_STREQ(a.password, "p2");
  EXPECT_EQ(a.name[0], '\0');
  EXPECT_EQ(fileisexist((work + "/FileList.xml").c_str()), -1);
  EXPECT_EQ(mng.m_pData->state, 0);
  EXPECT_EQ(mng.m_lastStepTime, 0);
  EXPECT_EQ(log.Count("FTP Update [u2 p2 maint2.local 2100]"), 1);
}

}  // namespace

namespace {

TEST(HostConfigTest, ReadsRecordsAndReplacesFilesAtomically) {
  TempRoot root;
  LogCapture log;
  UpgradeSet_t account;
  EXPECT_EQ(CConfig::Instance()->GetConfig(&account, nullptr), -1);  // missing: zeroed
  EXPECT_EQ(account.host[0], '\0');
  EXPECT_EQ(log.Count("upgrade.xml unusable"), 1);
  root.Write("/etc/velmar/config/upgrade.xml",
             "<upgrade host=\"h.example\" port=\"2100\" user=\"u\" password=\"p\" path=\"/m\" "
             "name=\"FileList.xml\"/>");
  ASSERT_EQ(CConfig::Instance()->GetConfig(&account, nullptr), 0);
  EXPECT_STREQ(account.host, "h.example");
  EXPECT_EQ(account.port, 2100);
  EXPECT_STREQ(account.path, "/m");

  root.Write("/etc/velmar/version.xml", "<version prefix=\"VLM\" v1=\"1\" v2=\"2\" v3=\"3\"/>");
  VersionInfo_t version;
  ASSERT_EQ(CConfig::Instance()->GetConfig(&version, nullptr), 0);
  EXPECT_STREQ(version.version[2], "3");
  EXPECT_EQ(version.version[3][0], '\0');
  char prefix[32];
  ASSERT_EQ(GetUpgradeFilePrefix(prefix), 0);
  EXPECT_STREQ(prefix, "VLM");

  root.Write("/etc/velmar/config/jtbase.xml", "<jtbase deviceNo=");  // malformed
  JTBaseSet_t base;
  EXPECT_EQ(CConfig::Instance()->GetConfig(&base, nullptr), -1);
  char xml[] = "<jtbase deviceNo=\"777\"/>";
  ASSERT_EQ(CConfig::Instance()->SetConfigXml(PARAM_JTBASE, xml), 0);
  ASSERT_EQ(CConfig::Instance()->GetConfig(&base, nullptr), 0);
  EXPECT_STREQ(base.deviceNo, "777");
}

// The one table of configuration file names, read both ways.
TEST(ConfigFilesTest, EachTypeHasOneExactName) {
  int named = 0;
  for (int t = 0; t < 32; ++t) {  // 22, 25, 26 and 29 on are no configuration types
    const char* name = ConfigFileName(static_cast<PARAM_TYPE_E>(t));
    named += name != nullptr && ConfigFileType(name) == t ? 1 : 0;
  }
  EXPECT_EQ(named, 26);
  const std::pair<int, const char*> cases[] = {{PARAM_JTBASE, "jtbase.xml"},
                                               {PARAM_VIDEOLOST, "videoLost.xml"},
                                               {PARAM_ACCOUNT, "account.xml"},
                                               {PARAM_DISKABNORMAL, "diskAbnormal.xml"},
                                               {-1, "Wifi.xml"},
                                               {-1, "jtbase.XML"},
                                               {-1, "notes.txt"},
                                               {-1, nullptr}};
  for (const auto& c : cases) EXPECT_EQ(ConfigFileType(c.second), c.first) << c.second;
}

}  // namespace
