#include "platform/text.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

void CopyField(char* dst, size_t cap, const char* src, size_t srcCap) {
  if (cap == 0) return;
  size_t n = 0;
  if (src != nullptr) {
    while (n + 1 < cap && n < srcCap && src[n] != '\0') ++n;
    memcpy(dst, src, n);
  }
  memset(dst + n, 0, cap - n);
}

int FormatBounded(char* dst, size_t cap, const char* fmt, ...) {
  if (cap == 0) return -1;
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(dst, cap, fmt, ap);
  va_end(ap);
  if (n < 0) {
    dst[0] = '\0';
    return -1;
  }
  return static_cast<size_t>(n) < cap ? 0 : -1;
}
