#include "rules/scope.h"

#include <cstdlib>
#include <cstring>

void ReadScopeRange(const char* text, long long* lo, long long* hi) {
  *lo = 0;
  *hi = 0;
  char* end = nullptr;
  long long value = strtoll(text, &end, 10);
  if (end == text) return;
  *lo = value;
  if (*end != '~') return;
  const char* second = end + 1;
  value = strtoll(second, &end, 10);
  if (end != second) *hi = value;
}

bool InScope(const char* scope, long long deviceNo, const ScopeEcho& echo) {
  if (scope == nullptr || scope[0] == '\0') return false;
  const char* at = scope;
  for (;;) {
    long long lo = 0, hi = 0;
    ReadScopeRange(at, &lo, &hi);
    if (echo) echo(at, lo, hi);
    if (lo <= deviceNo && deviceNo <= hi) return true;
    const char* semicolon = strchr(at, ';');
    if (semicolon == nullptr || semicolon[1] == '\0') return false;
    at = semicolon + 1;
  }
}
