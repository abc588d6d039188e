// The maintenance thread's cycle and online list, driven pass by pass on a fake clock.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "maintain/ftp_maintain_mng.h"
#include "platform/clock.h"
#include "tests/fakes/fakes.h"
#include "tests/maintain_fixture.h"

namespace {

class MaintainCycleTest : public MaintainFixture {
 protected:
  MaintainCycleTest() {
    dir = root.Make("/mnt/sd1/x");
    dir = dir.substr(0, dir.rfind('/'));
    CAutoLock guard(&mng.m_lock);
    mng.m_pData->upgradeSet = Account();
    strcpy(mng.m_pData->fileList.dir, dir.c_str());
    mng.m_lastStepTime = clock.WallSeconds();
    // A download lands its file when the loader moves it into place, if the test says so.
    shell.onCommand = [this](const std::string& command) {
      for (auto& f : served) {
        if (command.rfind("mv ", 0) == 0 && command.size() > f.first.size() &&
            command.compare(command.size() - f.first.size() - 1, std::string::npos,
                            "/" + f.first) == 0) {
          root.Write(command.substr(command.rfind(' ') + 1).substr(root.path().size()), f.second);
        }
      }
    };
  }
  // One pass of the thread's loop, then one second.
  void Pass() {
    mng.ProcPass(&interval);
    clock.AdvanceMs(1000);
  }
  // Passes until the cycle state changes; the number of passes it took.
  int PassesUntilStateChanges(int limit = 2000) {
    int before = mng.m_pData->state;
    for (int n = 1; n <= limit; ++n) {
      Pass();
      if (mng.m_pData->state != before) return n;
    }
    return -1;
  }
  std::string Entry(const std::string& name, int type, size_t size) {
    return "<FILE filetype=\"" + std::to_string(type) + "\" filesize=\"" + std::to_string(size) +
           "\" devtype=\"3\" expirydate=\"20991231-235959\">" + name + "</FILE>";
  }

  std::string dir;
  int interval = 5;
  std::map<std::string, std::string> served;  // file name -> content a download lands
};

TEST_F(MaintainCycleTest, PeriodicCycleFollowsTheStateTableAndItsIntervals) {
  const std::string usrCmd =
      "<UsrDefineCmd><CMDITEM>touch /nonexistent/marker</CMDITEM></UsrDefineCmd>";
  // Steps come only when more than 5 s have passed: every sixth pass (the first pass runs at
  // the start time itself, so the first step comes with the seventh).
  EXPECT_EQ(PassesUntilStateChanges(), 7);  // 0 -> 1
  EXPECT_EQ(mng.m_pData->state, 1);
  EXPECT_EQ(PassesUntilStateChanges(), 6);  // 1 -> 2, FileList.xml fetched
  EXPECT_EQ(shell.Count("FileList.xml"), 1);
  // No list arrived: back to fetching, 60 s later (61 passes: more than 60 s).
  EXPECT_EQ(PassesUntilStateChanges(), 6);
  EXPECT_EQ(mng.m_pData->state, 1);
  EXPECT_EQ(PassesUntilStateChanges(), 61);
  EXPECT_EQ(mng.m_pData->state, 2);

  root.Write(
      dir.substr(root.path().size()) + "/FileList.xml",
      "<L>" + Entry("UsrDefineCmd.xml", 3, usrCmd.size()) + Entry("odd.bin", 7, 10) + "</L>");
  EXPECT_EQ(PassesUntilStateChanges(), 6);  // parsed: 2 -> 3 at entry 0
  EXPECT_EQ(mng.m_pData->state, 3);
  EXPECT_EQ(mng.m_pData->fileList.count, 2);
  EXPECT_EQ(mng.m_pData->fileList.index, 0);

  // The command file fails its check twice (nothing lands), then arrives.
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(PassesUntilStateChanges(), attempt == 0 ? 6 : 61);  // 3 -> 4, downloaded
    EXPECT_EQ(PassesUntilStateChanges(), 6);                      // 4 -> 3, check failed
    EXPECT_EQ(mng.m_pData->fileList.pItems[0].ErrTimes, attempt + 1);
  }
  served["UsrDefineCmd.xml"] = usrCmd;
  EXPECT_EQ(PassesUntilStateChanges(), 61);  // 3 -> 4
  EXPECT_EQ(PassesUntilStateChanges(), 6);   // 4 -> 3, next entry
  EXPECT_EQ(mng.m_pData->fileList.pItems[0].Status, FILE_STATUS_DONE);
  EXPECT_EQ(mng.m_pData->fileList.pItems[0].ErrTimes, 2);
  EXPECT_EQ(shell.Count("touch /nonexistent/marker"), 1);  // handed to the user-command handler
  EXPECT_EQ(mng.m_pData->fileList.index, 1);

  // An unknown file type is never downloaded and fails its check three times.
  int downloadsBefore = shell.Count("ftpget");
  for (int check = 1; check <= 3; ++check) {
    EXPECT_EQ(PassesUntilStateChanges(), check == 1 ? 6 : 61);
    EXPECT_EQ(PassesUntilStateChanges(), 6);
  }
  EXPECT_EQ(shell.Count("ftpget"), downloadsBefore);
  EXPECT_EQ(mng.m_pData->fileList.pItems[1].Status, FILE_STATUS_FAIL);
  EXPECT_EQ(mng.m_pData->state, 5);
  // The finish step rests 900 s; the next pass starts over (state 0 moves on to 1).
  EXPECT_EQ(PassesUntilStateChanges(), 6);
  EXPECT_EQ(mng.m_pData->state, 0);
  EXPECT_EQ(interval, 900);
  EXPECT_EQ(PassesUntilStateChanges(), 901);
  EXPECT_EQ(mng.m_pData->state, 1);
  EXPECT_EQ(interval, 5);
}

TEST_F(MaintainCycleTest, ClockSetBackCountsAsTimePassedAndNewAccountStepsAtOnce) {
  clock.AdvanceMs(-3600 * 1000);
  Pass();
  EXPECT_EQ(mng.m_pData->state, 1);
  Pass();
  EXPECT_EQ(mng.m_pData->state, 1);
  mng.FtpConnectTo("u", "p", "127.0.0.2", 2121, "/");
  Pass();
  EXPECT_EQ(mng.m_pData->state, 1);  // restarted at 0 and stepped at once

  // A fetch of the old account that ends after a switch does not move the new cycle on.
  bool switched = false;
  shell.onCommand = [&](const std::string& command) {
    if (!switched && command.find("FileList.xml") != std::string::npos) {
      switched = true;
      mng.FtpConnectTo("u3", "p3", "127.0.0.3", 21, "/");
    }
  };
  EXPECT_EQ(PassesUntilStateChanges(), 6);
  EXPECT_TRUE(switched);
  EXPECT_EQ(mng.m_pData->state, 0);
  Pass();
  EXPECT_EQ(mng.m_pData->state, 1);

  // While an account is being replaced (state 8) the cycle stands still.
  {
    CAutoLock guard(&mng.m_lock);
    mng.m_pData->state = 8;
  }
  for (int i = 0; i < 20; ++i) Pass();
  EXPECT_EQ(mng.m_pData->state, 8);
}

TEST_F(MaintainCycleTest, OnlineListSettlesEntriesAndStartsOverAfterItIsFinished) {
  const std::string usrCmd = "<UsrDefineCmd><CMDITEM>true online</CMDITEM></UsrDefineCmd>";
  root.Write(
      "/in/dl.xml",
      "<FileDownloadCmd>" + Entry("u1.xml", 3, usrCmd.size()) + Entry("missing.xml", 3, 5) +
          Entry("short.xml", 3, 500) +
          "<FILE filetype=\"3\" devtype=\"9\" expirydate=\"20991231-235959\">other.xml</FILE>" +
          Entry("x;reboot.xml", 3, 5) + "</FileDownloadCmd>");
  served["u1.xml"] = usrCmd;
  served["short.xml"] = "too short";
  std::string list = root.path() + "/in/dl.xml";
  EXPECT_EQ(mng.HandleRemoteCmd(list.c_str()), 0);
  FtpFileList_t& online = mng.m_pData->onlineList;
  ASSERT_EQ(online.count, 5);

  mng.OnlineFtpProc();
  EXPECT_EQ(online.pItems[0].Status, FILE_STATUS_DONE);
  EXPECT_EQ(shell.Count("true online"), 1);
  for (int i = 0; i < 3; ++i) mng.OnlineFtpProc();  // missing: retried on each pass
  EXPECT_EQ(online.pItems[1].Status, FILE_STATUS_FAIL);
  EXPECT_EQ(online.pItems[1].ErrTimes, 3);
  EXPECT_EQ(log.Count("11 OnlineFtpProc ErrTimes = 3"), 1);
  for (int i = 0; i < 3; ++i) mng.OnlineFtpProc();
  EXPECT_EQ(online.pItems[2].Status, FILE_STATUS_FAIL);
  EXPECT_EQ(log.Count("22 OnlineFtpProc ErrTimes = 3"), 1);
  mng.OnlineFtpProc();  // another device type: not needed
  EXPECT_EQ(online.pItems[3].Status, FILE_STATUS_SKIP);
  int before = shell.Count("");
  mng.OnlineFtpProc();  // a name a shell would act on: refused, nothing runs
  EXPECT_EQ(online.pItems[4].Status, FILE_STATUS_SKIP);
  EXPECT_EQ(shell.Count(""), before);
  EXPECT_EQ(log.Count("refused file name \"x;reboot.xml\""), 1);
  EXPECT_EQ(online.index, 5);

  mng.OnlineFtpProc();  // finished: freed
  EXPECT_EQ(online.count, 0);
  EXPECT_EQ(online.pItems, nullptr);
  EXPECT_EQ(mng.HandleRemoteCmd(list.c_str()), 0);
  EXPECT_EQ(online.count, 5);
  EXPECT_EQ(online.index, 0);
  mng.OnlineFtpProc();
  EXPECT_EQ(shell.Count("true online"), 2);
}

TEST_F(MaintainCycleTest, RemoteCommandMarkersTakeTheFirstInOrder) {
  root.Write("/in/both.xml",
             "<LOGCMD><ExpiryDate>20991231-235959</ExpiryDate>"
             "<CMDITEM type=\"1\" scope=\"0~999\" datetime=\"20240101-000000~20240101-235959\"/>"
             "<note><UsrDefineCmd><CMDITEM>true should-not-run</CMDITEM></UsrDefineCmd></note>"
             "</LOGCMD>");
  root.Write("/in/usr.xml",
             "<UsrDefineCmd><CMDITEM scope=\"all\">true user</CMDITEM></UsrDefineCmd>");
  root.Write("/in/none.xml", "<Other><CMDITEM>true nothing</CMDITEM></Other>");
  for (const char* f : {"/in/both.xml", "/in/usr.xml", "/in/none.xml", "/in/absent.xml"}) {
    EXPECT_EQ(mng.HandleRemoteCmd((root.path() + f).c_str()), 0);
  }
  EXPECT_EQ(shell.Count("should-not-run"), 0);
  EXPECT_EQ(log.Count("Cmd: 1, 0~999"), 1);  // handled as a log command
  EXPECT_EQ(shell.Count("true user"), 1);
  EXPECT_EQ(log.Count("Cmd: true user, all"), 1);
  EXPECT_EQ(shell.Count("true nothing"), 0);
  EXPECT_EQ(log.Count("HandleRemoteCmd, "), 2);
}

TEST_F(MaintainCycleTest, WorkDirIsTheFirstMaintenanceDiskOrTmpAfterTwoMinutes) {
  mng.SelectWorkDir();
  EXPECT_STREQ(mng.m_pData->fileList.dir, (root.path() + "/tmp").c_str());
  EXPECT_GT(clock.sleptUs(), 120u * 1000000);
  EXPECT_LT(clock.sleptUs(), 123u * 1000000);
  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.mounts[DISK_USAGE_MAINTAIN] = {FakeStatus::Entry(2, "/mnt/sd2"),
                                          FakeStatus::Entry(1, "/mnt/sd1")};
  }
  mng.SelectWorkDir();
  EXPECT_STREQ(mng.m_pData->fileList.dir, "/mnt/sd2");
}

TEST(MaintainThreadTest, StartsStepsAndStops) {
  TempRoot root;
  FakeStatus status;
  FakeShell shell;
  LogCapture log;
  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.mounts[DISK_USAGE_MAINTAIN] = {FakeStatus::Entry(1, root.path() + "/mnt/sd1")};
  }
  TestEnv env;
  env.status = &status;
  env.shell = &shell;
  CFtpMaintainMng mng(&env);
  ASSERT_EQ(mng.Start(), 0);
  // The real clock: the disk search sleeps 1.5 s, the first step comes more than 5 s later.
  for (int i = 0; i < 100 && log.Count("FtpProc pid") == 0; ++i) ClockSleepMs(50);
  EXPECT_EQ(mng.Stop(), 0);
  EXPECT_EQ(log.Count("Start Velmar"), 1);
  EXPECT_EQ(log.Count("FtpProc pid"), 1);
  EXPECT_EQ(log.Count("Ftp Upgrade Thread Exit"), 1);
  EXPECT_EQ(mng.m_pData->pThread, nullptr);
}

}  // namespace
