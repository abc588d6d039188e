// Clocks and sleeping of the host. The service takes time and sleeps through its Env
// (platform/env.h), whose default calls these; a test's Env runs the long pauses on a fake
// clock without sleeping.
#pragma once

#include <cstdint>
#include <ctime>

// The monotonic millisecond clock minus base; msecdiff(0) is the clock itself.
int64_t msecdiff(uint64_t base);
// Broken-down local time of *t, like localtime_r. 0 on success, -1 on failure.
int comm_localtime_r(const long* t, struct tm* out);

// Seconds since 1970 of a local date and time given as in struct tm (tm_year from 1900,
// tm_mon 0-11; out-of-range fields carry over as mktime carries them; tm_isdst ignored).
// Held in 64 bits even where time_t has 32: a moment that mktime cannot represent (from
// 2038-01-19 on) is taken in the UTC offset that local time has now. False when it cannot be
// computed.
bool LocalSeconds(const struct tm& fields, int64_t* out);

// Wall-clock seconds since 1970, like time(NULL).
time_t ClockTime();
// Sleeps for us microseconds.
void ClockSleepUs(uint64_t us);
inline void ClockSleepMs(uint64_t ms) { ClockSleepUs(ms * 1000); }
