// The maintenance manager on in-memory fakes, shared by the maintenance tests: a recorder of
// device type 3 with device number 150.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>

#include "maintain/ftp_maintain_mng.h"
#include "tests/fakes/fakes.h"

class MaintainFixture : public ::testing::Test {
 protected:
  MaintainFixture() {
    root.Write("/etc/velmar/config/jtbase.xml", "<jtbase deviceNo=\"150\"/>");
    env.clock = &clock;
    env.status = &status;
    env.shell = &shell;
    shell.mustBeFree = &mng.m_lock;
    std::lock_guard<std::mutex> g(status.mutex);
    status.deviceType = 3;
  }
  // No shell command may run while the manager's lock is held: the request thread would
  // wait for the whole download.
  void TearDown() override { EXPECT_EQ(shell.LockedRuns(), 0); }
  // Commands run in the real shell from now on.
  void UseRealShell() { env.shell = nullptr; }
  // The maintenance account the tests log in with.
  static UpgradeSet_t Account() {
    UpgradeSet_t a{};
    strcpy(a.host, "10.1.1.1");
    a.port = 21;
    strcpy(a.user, "maint");
    strcpy(a.password, "pw");
    return a;
  }

  TempRoot root;
  FakeClock clock;
  FakeStatus status;
  LogCapture log;
  FakeShell shell;
  TestEnv env;
  CFtpMaintainMng mng{&env};  // a fresh manager per test; the service uses the singleton
};
