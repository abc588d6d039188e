#include "core/main_loop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/fakes/fakes.h"

namespace {

TEST(MainLoopTest, StepsEveryFiveSecondsWithHeartbeatUnlessTheWatchdogExpired) {
  TempRoot root;
  LogCapture log;
  FakeClock clock;
  FakeStatus status;
  FakeBus bus;
  TestEnv env;
  env.clock = &clock;
  env.status = &status;
  env.bus = &bus;
  std::string trace;  // "d<seconds> " for a disk check, "s<seconds> " for a scheduling
  auto note = [&trace](const char* what) {
    return [&trace, what](uint32_t s) { trace += what + std::to_string(s) + " "; };
  };
  CMainLoop loop(&env, CMainLoop::Targets{note("d"), note("s")});

  // Each pass sleeps 200 ms on the fake clock. Columns: clock set to (0: left as the passes
  // moved it), passes, watchdog answer, then the disk checks and heartbeats so far.
  const int64_t rows[][5] = {
      {1000, 1, 0, 0, 0},   // less than 5000 ms after time zero: no step yet
      {12345, 1, 0, 1, 1},  // the first step
      {0, 24, 0, 1, 1},     // 4800 ms: passes only schedule
      {0, 1, 0, 2, 2},      // 5000 ms after the first step
      {11000, 1, 0, 3, 3},  // the clock stepped back 6.5 s: a step, and a new base
      {0, 24, 0, 3, 3},
      {0, 1, 1, 4, 3},  // watchdog expired: heartbeat withheld, disks still checked
      {0, 25, 1, 5, 3},
      {0, 25, -1, 6, 4},  // the watchdog service cannot answer: that is no time-out
      {0, 25, 0, 7, 5},   // recovered
  };
  int64_t passes = 0;
  for (const auto& r : rows) {
    if (r[0] != 0) clock.SetMs(r[0]);
    status.dog = static_cast<int>(r[2]);
    for (int i = 0; i < r[1]; ++i) loop.Pass();
    passes += r[1];
    EXPECT_EQ(std::count(trace.begin(), trace.end(), 'd'), r[3]) << "after pass " << passes;
    EXPECT_EQ(static_cast<int64_t>(bus.Events(EVENT_HEARTBEAT).size()), r[4]) << passes;
  }
  // Every pass schedules; a step checks the disks first. Time goes in whole seconds.
  EXPECT_EQ(std::count(trace.begin(), trace.end(), 's'), passes);
  EXPECT_EQ(trace.substr(0, 11), "s1 d12 s12 ");
  auto records = log.UserRecords();  // one alarm for each withheld heartbeat
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(std::to_string(records[1].type) + " " + std::to_string(records[1].code) + " " +
                records[1].data,
            "2 3 FtpUpLoad Dog TimeOut");
}

}  // namespace
