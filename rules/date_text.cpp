#include "rules/date_text.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/clock.h"

int ReadDate2000(const char* text, int32_t fields[6], const char** end) {
  memset(fields, 0, 6 * sizeof(fields[0]));
  if (text == nullptr) return 0;
  int f[6] = {};
  int used = -1;
  int n = sscanf(text, "20%02d%02d%02d-%02d%02d%02d%n", &f[0], &f[1], &f[2], &f[3], &f[4], &f[5],
                 &used);
  if (n < 0) n = 0;
  for (int i = 0; i < n; ++i) fields[i] = f[i];
  if (end != nullptr && n == 6 && used >= 0) *end = text + used;
  return n;
}

int ReadDateSpan2000(const char* text, int32_t fields[12]) {
  const char* end = nullptr;
  int n = ReadDate2000(text, fields, &end);
  memset(fields + 6, 0, 6 * sizeof(fields[0]));
  if (n != 6 || end == nullptr || *end != '~') return n;
  return n + ReadDate2000(end + 1, fields + 6);
}

int64_t LocalTime2000(const int32_t fields[6]) {
  for (int i = 0; i < 6; ++i) {
    if (fields[i] < -100000 || fields[i] > 100000) return -1;
  }
  struct tm t;
  memset(&t, 0, sizeof(t));
  t.tm_year = fields[0] + 100;
  t.tm_mon = fields[1] - 1;
  t.tm_mday = fields[2];
  t.tm_hour = fields[3];
  t.tm_min = fields[4];
  t.tm_sec = fields[5];
  int64_t seconds = -1;
  return LocalSeconds(t, &seconds) ? seconds : -1;
}
