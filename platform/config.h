// The recorder's configuration service.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// Configuration types, one file each (see the configuration file table in docs/FORMATS.md).
enum PARAM_TYPE_E {
  PARAM_JTBASE = 0,
  PARAM_OSD = 1,
  PARAM_STORE = 2,
  PARAM_SERVER = 3,
  PARAM_DIALUP = 4,
  PARAM_LOCAL = 5,
  PARAM_CLOCK = 6,
  PARAM_RSBASE = 7,
  PARAM_POWER = 8,
  PARAM_VIDEOOUT = 9,
  PARAM_IOSET = 10,
  PARAM_UPGRADE = 11,
  PARAM_SPEED = 12,
  PARAM_GSENSOR = 13,
  PARAM_VOLAGE = 14,
  PARAM_TEMP = 15,
  PARAM_WIFI = 16,
  PARAM_DISPLAY = 17,
  PARAM_PTZ = 18,
  PARAM_DST = 19,
  PARAM_MOTIONDETECT = 20,
  PARAM_RECORD = 21,
  PARAM_VIDEOLOST = 23,
  PARAM_DISKABNORMAL = 24,
  PARAM_TTX = 27,
  PARAM_ACCOUNT = 28,
};

// The name of the file of each configuration type in the configuration directory, which is
// also the name of its member in a configuration archive ("jtbase.xml" for PARAM_JTBASE, ...).
// Null for a value that is no configuration type.
const char* ConfigFileName(PARAM_TYPE_E type);
// The configuration type of a file name, or -1 for a name not in the table (names are
// compared exactly, letter case included).
int ConfigFileType(const char* name);

// The maintenance FTP account (upgrade.xml), 544 bytes.
struct UpgradeSet_t {
  uint8_t reserved0[16];
  char host[64];      // server address
  uint16_t port;      // server TCP port
  char user[32];      // login user
  char password[32];  // login password
  uint8_t reserved1[130];
  char name[128];  // file name (only printed)
  char path[128];  // remote directory (only printed)
  uint8_t reserved2[12];
};
static_assert(sizeof(UpgradeSet_t) == 544, "UpgradeSet_t layout");
static_assert(offsetof(UpgradeSet_t, host) == 16, "host offset");
static_assert(offsetof(UpgradeSet_t, port) == 80, "port offset");
static_assert(offsetof(UpgradeSet_t, user) == 82, "user offset");
static_assert(offsetof(UpgradeSet_t, password) == 114, "password offset");
static_assert(offsetof(UpgradeSet_t, name) == 276, "name offset");
static_assert(offsetof(UpgradeSet_t, path) == 404, "path offset");

// The running versions (version.xml), four texts of 16 bytes.
struct VersionInfo_t {
  uint8_t reserved0[16];
  char version[4][16];
  uint8_t reserved1[16];
};
static_assert(sizeof(VersionInfo_t) == 96, "VersionInfo_t layout");
static_assert(offsetof(VersionInfo_t, version) == 16, "version offset");

// The recorder's base settings (jtbase.xml); the device number is decimal text at 100.
struct JTBaseSet_t {
  uint8_t reserved0[100];
  char deviceNo[32];
  uint8_t reserved1[124];
};
static_assert(sizeof(JTBaseSet_t) == 256, "JTBaseSet_t layout");
static_assert(offsetof(JTBaseSet_t, deviceNo) == 100, "deviceNo offset");

// The host configuration (XML files under etc/velmar). Its calls are virtual so that a test's
// Env can hand over one that fails or answers what the test sets.
class CConfig {
 public:
  // The host instance, which Env::Default() hands over.
  static CConfig* Instance();
  virtual ~CConfig() = default;
  // Each fills the whole record (zeroed first; stays zero where the file lacks a value, except
  // the maintenance server's port, which is the FTP port 21 when not given).
  // 0 on success, -1 when the file is missing or malformed (one log line).
  virtual int GetConfig(UpgradeSet_t* out, char* reserved);
  virtual int GetConfig(VersionInfo_t* out, char* reserved);
  virtual int GetConfig(JTBaseSet_t* out, char* reserved);
  // Replaces the file of type with the XML text xml, atomically. 0 or -1.
  virtual int SetConfigXml(PARAM_TYPE_E type, char* xml);

 protected:
  CConfig() = default;
};

// The package-name prefix of this recorder model, into a buffer of 32 bytes. 0 or -1.
int GetUpgradeFilePrefix(char* out);

// This recorder's device number: the decimal text of JTBaseSet_t.deviceNo, read with strtoll
// base 10 (0 when the configuration is missing or holds no number).
inline long long ConfigDeviceNumber(CConfig* config) {
  JTBaseSet_t base;
  config->GetConfig(&base, nullptr);  // zeroed on failure
  char text[sizeof(base.deviceNo) + 1] = {};
  memcpy(text, base.deviceNo, sizeof(base.deviceNo));
  return strtoll(text, nullptr, 10);
}
