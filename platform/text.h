// Bounded text helpers for the fixed-size, NUL-terminated fields of records and messages.
#pragma once

#include <cstddef>

// Copies at most cap-1 characters of src (which need not be terminated within srcCap bytes)
// into dst and zero-fills the rest of dst. Never reads past srcCap bytes of src.
void CopyField(char* dst, size_t cap, const char* src, size_t srcCap);

// Same for a NUL-terminated source of unknown length.
inline void CopyText(char* dst, size_t cap, const char* src) {
  CopyField(dst, cap, src, static_cast<size_t>(-1));
}

// snprintf that always terminates; returns 0 when the whole text fitted, -1 when it was cut.
int FormatBounded(char* dst, size_t cap, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
