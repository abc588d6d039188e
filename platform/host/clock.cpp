#include "platform/clock.h"

#include <time.h>

#include <atomic>

namespace {

class HostClock : public IClock {
 public:
  int64_t MonotonicMs() override {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
  }
  time_t WallSeconds() override { return time(nullptr); }
  void SleepUs(uint64_t us) override {
    timespec ts;
    ts.tv_sec = static_cast<time_t>(us / 1000000);
    ts.tv_nsec = static_cast<long>((us % 1000000) * 1000);
    while (nanosleep(&ts, &ts) != 0) {
    }
  }
};

HostClock g_hostClock;
std::atomic<IClock*> g_clock{&g_hostClock};

}  // namespace

IClock* SetClockForTest(IClock* clock) {
  return g_clock.exchange(clock != nullptr ? clock : &g_hostClock);
}

int64_t msecdiff(uint64_t base) {
  return g_clock.load()->MonotonicMs() - static_cast<int64_t>(base);
}

time_t ClockTime() { return g_clock.load()->WallSeconds(); }
void ClockSleepUs(uint64_t us) { g_clock.load()->SleepUs(us); }

int comm_localtime_r(const long* t, struct tm* out) {
  if (t == nullptr || out == nullptr) return -1;
  time_t tt = static_cast<time_t>(*t);
  return localtime_r(&tt, out) != nullptr ? 0 : -1;
}
