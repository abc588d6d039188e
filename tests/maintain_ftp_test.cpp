// The loaders with the real busybox ftpget against pyftpdlib on 127.0.0.1.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "maintain/ftp_maintain_mng.h"
#include "tests/fakes/fakes.h"
#include "tests/fakes/pyftpd.h"

namespace {

TEST(MaintainFtpTest, FetchesTheListAndLoadsEntriesUnderTheirNames) {
  TempRoot root;
  LogCapture log;
  FakeStatus status;
  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.deviceType = 3;
  }
  // busybox's ftpget under its own name, first on PATH.
  std::string bin = root.Make("/bin/x");
  bin = bin.substr(0, bin.rfind('/'));
  ASSERT_EQ(symlink("/bin/busybox", (bin + "/ftpget").c_str()), 0);
  std::string oldPath = getenv("PATH") != nullptr ? getenv("PATH") : "";
  setenv("PATH", (bin + ":" + oldPath).c_str(), 1);

  std::string served = root.Make("/served/x");
  served = served.substr(0, served.rfind('/'));
  root.Write("/served/FileList.xml",
             "<FileList><FILE filetype=\"3\" devtype=\"3\" size=\"12\" expirydate=\"20991231-235959\">"
             "UsrDefineCmd.xml</FILE><FILE filetype=\"5\" devtype=\"3\" expirydate=\"20991231-235959\">"
             "config.tar</FILE></FileList>");
  root.Write("/served/UsrDefineCmd.xml", "<cmd>echo</cmd>");
  root.Write("/served/config.tar", std::string(10240, 'c'));
  PyFtpd server(served, {});
  ASSERT_GT(server.port(), 0);

  TestEnv env;
  env.status = &status;
  CFtpMaintainMng mng(&env);
  std::string work = root.Make("/work/x");
  work = work.substr(0, work.rfind('/'));
  {
    CAutoLock guard(&mng.m_lock);
    strcpy(mng.m_pData->fileList.dir, work.c_str());
  }
  mng.FtpConnectTo("user", "secret", "127.0.0.1", static_cast<uint16_t>(server.port()), "/");
  ASSERT_EQ(mng.LoadFtpFile(0), 0);
  ASSERT_EQ(ReadWholeFile(work + "/FileList.xml"), ReadWholeFile(served + "/FileList.xml"));
  {
    CAutoLock guard(&mng.m_lock);
    ASSERT_EQ(mng.ParseFileList((work + "/FileList.xml").c_str(), &mng.m_pData->fileList), 0);
  }
  ASSERT_EQ(mng.LoadFtpFile(1), 0);
  mng.m_pData->fileList.index = 1;
  ASSERT_EQ(mng.LoadFtpFile(1), 0);
  EXPECT_EQ(ReadWholeFile(work + "/UsrDefineCmd.xml"), "<cmd>echo</cmd>");
  EXPECT_EQ(ReadWholeFile(work + "/config.tar"), std::string(10240, 'c'));
  EXPECT_NE(fileisexist((work + "/tmp_ftp_load.bin").c_str()), 0);
  setenv("PATH", oldPath.c_str(), 1);
}

}  // namespace
