// Debug log and user log of the recorder.
#pragma once

#include <cstddef>

// Kinds of user-log record. Only the watchdog time-out record (type 2) is written here.
enum LOG_TYPE_E {
  LOG_TYPE_SYSTEM = 1,
  LOG_TYPE_ALARM = 2,
};

// Both log files are capped: one that would grow past VELMAR_LOG_MAX_KIB KiB (default 1024)
// is renamed to "<name>.1", replacing the older one, and started anew; a log takes at most
// twice its cap. Records are never split across the two files.

// Formats one debug-log line (printf style, cut at 1023 characters) and writes it, with a
// time stamp and the level, to standard error and to the debug-log file
// $VELMAR_ROOT/var/log/velmar/velmar.log. Level 0 routine detail, 2 notable events.
// Safe to call from any thread.
void WriteDbgLog(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// True when VELMAR_TRACE is set to 1 (read once): the lines an upload writes per block and per
// second are then printed and logged too; by default a send logs one line per pass.
bool TraceEnabled();

// Appends one record to the user-visible log $VELMAR_ROOT/var/log/velmar/user.log:
// type, code and length as uint32 little-endian, then len bytes of data (at most 4096).
// 0 on success, -1 on failure.
int WriteUserLog(LOG_TYPE_E type, unsigned int code, unsigned int len, void* data);
