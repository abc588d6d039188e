#include "platform/clock.h"

#include <time.h>

namespace {

// Days from 1970-01-01 to the civil date year-month-day (proleptic Gregorian calendar; month
// may lie outside 1-12 and day outside the month: they carry over).
int64_t DaysFromCivil(int64_t year, int64_t month, int64_t day) {
  int64_t m0 = month - 1;
  int64_t carry = m0 >= 0 ? m0 / 12 : -((11 - m0) / 12);
  year += carry;
  int64_t m = m0 - carry * 12 + 1;  // 1..12
  year -= m <= 2 ? 1 : 0;
  int64_t era = (year >= 0 ? year : year - 399) / 400;
  int64_t yoe = year - era * 400;
  int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + day - 1;
  int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

}  // namespace

int64_t msecdiff(uint64_t base) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000 - static_cast<int64_t>(base);
}

time_t ClockTime() { return time(nullptr); }

void ClockSleepUs(uint64_t us) {
  timespec ts;
  ts.tv_sec = static_cast<time_t>(us / 1000000);
  ts.tv_nsec = static_cast<long>((us % 1000000) * 1000);
  while (nanosleep(&ts, &ts) != 0) {
  }
}

int comm_localtime_r(const long* t, struct tm* out) {
  if (t == nullptr || out == nullptr) return -1;
  time_t tt = static_cast<time_t>(*t);
  return localtime_r(&tt, out) != nullptr ? 0 : -1;
}

bool LocalSeconds(const struct tm& fields, int64_t* out) {
  struct tm t = fields;
  t.tm_isdst = -1;
  time_t made = mktime(&t);
  if (made != static_cast<time_t>(-1)) {
    *out = static_cast<int64_t>(made);
    return true;
  }
  if (sizeof(time_t) >= sizeof(int64_t)) return false;
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) return false;
  int64_t days =
      DaysFromCivil(int64_t{fields.tm_year} + 1900, int64_t{fields.tm_mon} + 1, fields.tm_mday);
  *out = days * 86400 + int64_t{fields.tm_hour} * 3600 + int64_t{fields.tm_min} * 60 +
         fields.tm_sec - local.tm_gmtoff;
  return true;
}
