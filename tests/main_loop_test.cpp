#include "core/main_loop.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fakes/fakes.h"

namespace {

class MainLoopTest : public ::testing::Test {
 protected:
  MainLoopTest() {
    env.clock = &clock;
    env.status = &status;
    env.bus = &bus;
  }
  CMainLoop MakeLoop() {
    return CMainLoop(&env,
                     CMainLoop::Targets{
                         [this](uint32_t s) { calls.push_back("disk " + std::to_string(s)); },
                         [this](uint32_t s) { calls.push_back("sched " + std::to_string(s)); },
                     });
  }
  int DiskChecks() const {
    int n = 0;
    for (const std::string& c : calls) n += c.rfind("disk", 0) == 0 ? 1 : 0;
    return n;
  }

  FakeClock clock;
  FakeStatus status;
  FakeBus bus;
  TestEnv env;
  LogCapture log;
  std::vector<std::string> calls;
};

TEST_F(MainLoopTest, FirstPassStepsAtOnceAndChecksDisksBeforeScheduling) {
  clock.SetMs(12345);
  CMainLoop loop = MakeLoop();
  loop.Pass();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0], "disk 12");
  EXPECT_EQ(calls[1], "sched 12");
  EXPECT_EQ(bus.Events(EVENT_HEARTBEAT).size(), 1u);
  EXPECT_EQ(clock.sleptUs(), 200000u);

  // Passes within the next 5000 ms only schedule.
  for (int i = 0; i < 24; ++i) loop.Pass();  // 24 x 200 ms = 4800 ms
  EXPECT_EQ(DiskChecks(), 1);
  EXPECT_EQ(calls.size(), 26u);
  loop.Pass();  // 5000 ms after the first step
  EXPECT_EQ(DiskChecks(), 2);
  EXPECT_EQ(bus.Events(EVENT_HEARTBEAT).size(), 2u);
}

TEST_F(MainLoopTest, ClockBelowFiveSecondsWaitsForTheFirstStep) {
  clock.SetMs(1000);
  CMainLoop loop = MakeLoop();
  loop.Pass();
  EXPECT_EQ(DiskChecks(), 0);
  EXPECT_TRUE(bus.Events().empty());
}

TEST_F(MainLoopTest, ClockSteppingBackTriggersAStepAndResetsTheBase) {
  clock.SetMs(100000);
  CMainLoop loop = MakeLoop();
  loop.Pass();
  clock.SetMs(94000);  // 6 s back
  loop.Pass();
  EXPECT_EQ(DiskChecks(), 2);
  loop.Pass();  // measured from the new base: no step
  EXPECT_EQ(DiskChecks(), 2);
}

TEST_F(MainLoopTest, ExpiredWatchdogWithholdsHeartbeatButDiskCheckGoesOn) {
  status.dog = 1;
  clock.SetMs(50000);
  CMainLoop loop = MakeLoop();
  for (int i = 0; i < 26; ++i) loop.Pass();  // two 5000 ms steps
  EXPECT_EQ(DiskChecks(), 2);
  EXPECT_TRUE(bus.Events(EVENT_HEARTBEAT).empty());
  EXPECT_EQ(log.Count("FtpUpLoadMng Dog TimeOut\n"), 2);
  auto records = log.UserRecords();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].type, 2);
  EXPECT_EQ(records[0].code, 3u);
  EXPECT_EQ(records[0].data, "FtpUpLoad Dog TimeOut");

  status.dog = 0;  // recovered: the heartbeat comes back at the next step
  for (int i = 0; i < 25; ++i) loop.Pass();
  EXPECT_EQ(bus.Events(EVENT_HEARTBEAT).size(), 1u);
  status.dog = -1;  // the watchdog service cannot answer: that is no time-out
  for (int i = 0; i < 25; ++i) loop.Pass();
  EXPECT_EQ(bus.Events(EVENT_HEARTBEAT).size(), 2u);
}

}  // namespace
