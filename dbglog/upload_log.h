// Debug-log upload: sends the debug logs of a time span from every storage disk to the
// maintenance FTP server with ftpput.
#pragma once

#include <dirent.h>

#include <cstddef>
#include <cstdint>

#include "platform/config.h"

class Env;

// One command of a log-command file.
struct LogCmdItem_t {
  int32_t
      type;  // 1: nothing; 10/13/20/23: disk report first; other: logs, then credentials cleared
  uint8_t start[6];  // first moment: year - 2000, month 1-12, day, hour, minute, second
  uint8_t end[6];    // last moment, same layout
  char* scope;       // "lo~hi;lo~hi" device-number ranges, heap copy owned by the item; may be null
};
static_assert(offsetof(LogCmdItem_t, start) == 4, "start offset");
static_assert(offsetof(LogCmdItem_t, end) == 10, "end offset");
static_assert(offsetof(LogCmdItem_t, scope) == 16, "scope offset");

// Carries out one log command through env's shell, clock, disks and configuration: 0 when it was
// carried out (whatever the disks held), -1 when it was refused (expired or this recorder out of
// scope). expiry holds six values: year - 2000, month 1-12, day, hour, minute, second. May clear
// settings' user and password (type "other").
int UploadLog(Env* env, UpgradeSet_t* settings, const int32_t* expiry, LogCmdItem_t* item);

// The work on one disk: 0 for type 1, -1 when the debug directory holds no accepted file or
// cannot be read, otherwise the number of accepted files (sent or not).
int UploadDiskLog(Env* env, UpgradeSet_t* settings, long long deviceNo, const char* diskPath,
                  LogCmdItem_t* item);

// Has the disk-access tool write a report of device into reportPath. -1 when the report
// cannot be opened afterwards.
int queryDiskInfo(Env* env, const char* device, const char* reportPath, int parameter);

// scandir filter: 1 for a name of the form "dbglog-YYYYMMDD-hhmmss.log" (26 characters).
int DbgLogFilter(const struct dirent* entry);
