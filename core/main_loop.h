// The service's main loop: every 5000 ms the watchdog check with heartbeat and the disk
// check; on every pass, about every 200 ms, the upload scheduler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

class Env;

constexpr size_t kHeartbeatSize = 68;
constexpr int64_t kCheckIntervalMs = 5000;
constexpr uint64_t kPassPauseUs = 200000;

// The heartbeat payload of event 6: int32 2, then the service name "velmar" NUL-padded to 64.
void BuildHeartbeat(uint8_t out[kHeartbeatSize]);

class CMainLoop {
 public:
  // What a pass drives, given the loop's clock in whole seconds.
  struct Targets {
    std::function<void(uint32_t)> checkDisks;
    std::function<void(uint32_t)> schedule;
  };

  // Drives the control manager's CheckDiskState and ScheduleTask on the default Env.
  CMainLoop();
  // Drives targets, taking time, sleep, watchdog and bus from env (which must outlive it).
  CMainLoop(Env* env, Targets targets);

  // One pass, including its 200 ms pause.
  void Pass();
  // Passes for ever.
  [[noreturn]] void Run();

 private:
  // The watchdog check with heartbeat or time-out record.
  void CheckWatchdog();

  Env* const m_env;
  Targets m_targets;
  int64_t m_lastCheck = 0;  // millisecond time of the last 5000 ms step
};
