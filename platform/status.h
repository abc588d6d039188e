// The recorder's status, disk and watchdog services.
#pragma once

#include <cstddef>
#include <cstdint>

// Status records. GetStatus writes exactly StatusRecordSize(which) bytes; callers pass a
// buffer of at least that size.
enum STATUS_E {
  STATUS_RECORDER = 1,      // 132 bytes; int32 at 128: recorder status word
  STATUS_MCU_VERSION = 5,   // 64 bytes; microcontroller version text
  STATUS_DEVICE = 7,        // 120 bytes; int32 at 0: device type
  STATUS_NETWORK = 11,      // 48 bytes; twelve int32: link, transfer state, ...
  STATUS_PART_LIST_A = 15,  // PartStatus_t: recording partitions
  STATUS_PART_LIST_C = 16,  // PartStatus_t: recording partitions
  STATUS_PART_LIST_B = 17,  // PartStatus_t: recording partitions
  STATUS_DISK = 21,         // 100 bytes; count, then up to 8 x (id, reserved, present)
  STATUS_UPGRADE = 25,      // SetStatus only: UpgradeNotify_t
};

// Usage codes of GetDiskForCommUsage.
enum LOG_STATUS_E {
  DISK_USAGE_MAINTAIN = 6,  // disks for maintenance downloads and debug logs
  DISK_USAGE_TYPE9 = 14,    // the disk of partition type 9
  DISK_USAGE_UPLOAD = 18,   // upload disks, also cleaned before a download
};

constexpr size_t kStatusRecorderSize = 132;
constexpr size_t kStatusMcuVersionSize = 64;
constexpr size_t kStatusDeviceSize = 120;
constexpr size_t kStatusNetworkSize = 48;
constexpr size_t kStatusDiskSize = 100;
constexpr int kStatusDiskMax = 8;

struct PartEntry_t {
  int32_t type;    // partition type / status identifier
  char path[128];  // mount directory, NUL-terminated
};

// The list of mounted partitions or disks.
struct PartStatus_t {
  int32_t count;
  PartEntry_t part[8];
};
static_assert(sizeof(PartEntry_t) == 132, "PartEntry_t layout");
static_assert(sizeof(PartStatus_t) == 1060, "PartStatus_t layout");

// The upgrade announcement passed with SetStatus(STATUS_UPGRADE). The path is only valid
// during the call.
struct UpgradeNotify_t {
  uint16_t code;     // 201
  uint16_t length;   // length of path without terminator
  const char* path;  // full local path of the package
};
// It holds a pointer and never leaves the process, so its size follows the pointer size:
// 8 bytes on the 32-bit recorder, 16 on a 64-bit build machine.
static_assert(sizeof(void*) == 4 || sizeof(void*) == 8, "32- or 64-bit pointers");
static_assert(offsetof(UpgradeNotify_t, length) == 2, "length offset");
static_assert(offsetof(UpgradeNotify_t, path) == sizeof(void*), "path offset");
static_assert(sizeof(UpgradeNotify_t) == 2 * sizeof(void*), "UpgradeNotify_t layout");

// Bytes GetStatus writes for which; 0 for a status that cannot be read.
size_t StatusRecordSize(STATUS_E which);

// Fills buf with the record of which. 0 on success, -1 on failure (buf then zero).
int GetStatus(STATUS_E which, void* buf);
// Stores a record (STATUS_NETWORK: 48 bytes; STATUS_UPGRADE: UpgradeNotify_t). 0 or -1.
int SetStatus(STATUS_E which, void* buf);
// Fills *list with the mounted disks listed under usage. 0 on success, -1 on failure.
int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list, void* reserved);

// The recorder's watchdog service.
class CCommDog {
 public:
  static CCommDog* Instance();
  // Positive when the watchdog has expired for this process, 0 or negative otherwise.
  int CheckDog();

 private:
  CCommDog() = default;
};
