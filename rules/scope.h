// Device-number scopes: which recorders a file-list entry or a command from the maintenance
// server addresses. A scope is a list of ranges "lo~hi;lo~hi;...", bounds inclusive.
#pragma once

#include <functional>

// Reads the range "lo~hi" at the start of text, as sscanf "%lld~%lld" reads it: a bound that
// does not read stays 0, and a number beyond the range of long long saturates at its limit.
void ReadScopeRange(const char* text, long long* lo, long long* hi);

// Called for each range examined, before it is judged: at is the text from the range on, lo
// and hi are its bounds as read.
using ScopeEcho = std::function<void(const char* at, long long lo, long long hi)>;

// True when deviceNo lies in one of the ranges of scope. The walk stops at the first range
// that holds it, or after the last range; a ";" with nothing after it ends the list. A null
// or empty scope holds no range: false (and echo is not called).
bool InScope(const char* scope, long long deviceNo, const ScopeEcho& echo = nullptr);
