// The host status, disk and watchdog service: reads the recorder profile
// $VELMAR_ROOT/etc/velmar/recorder.xml and re-reads it whenever it changes, so that a person
// or a test can pull a disk, change the network link or expire the watchdog by editing it.
// The format is in docs/FORMATS.md.
#include <sys/stat.h>
#include <tinyxml.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/byteorder.h"
#include "platform/fileutil.h"
#include "platform/host/atomic_file.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/status.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "platform/xml_file.h"

namespace {

struct DiskDef {
  int id = 0;
  std::string mount;
  bool present = false;
  bool requireMount = true;  // listed only while its directory is a mount point
  std::vector<int> usages;
};

struct PartitionDef {
  int list = 0;
  int id = 0;
  std::string path;
};

struct Profile {
  int deviceType = 0;
  std::string mcuVersion;
  int recorderStatus = 0;
  int networkLink = 0;
  bool watchdogExpired = false;
  std::vector<DiskDef> disks;
  std::vector<PartitionDef> partitions;
};

// Replaces every "${VELMAR_ROOT}" with the sandbox root.
std::string ExpandRoot(const char* text) {
  std::string s = text != nullptr ? text : "";
  const std::string token = "${VELMAR_ROOT}";
  for (size_t at = s.find(token); at != std::string::npos; at = s.find(token, at)) {
    std::string root = SandboxRoot();
    s.replace(at, token.size(), root);
    at += root.size();
  }
  return s;
}

int IntAttr(const TiXmlElement* e, const char* name, int fallback = 0) {
  const char* v = e->Attribute(name);
  return v != nullptr ? atoi(v) : fallback;
}

std::vector<int> ParseUsages(const char* text) {
  std::vector<int> out;
  if (text == nullptr) return out;
  const char* p = text;
  while (*p != '\0') {
    char* end = nullptr;
    long v = strtol(p, &end, 10);
    if (end == p) {
      ++p;
      continue;
    }
    out.push_back(static_cast<int>(v));
    p = end;
  }
  return out;
}

// Parses the profile document. False with *why on a document that is not a profile.
bool ParseProfile(const std::string& path, Profile* out, std::string* why) {
  TiXmlDocument doc;
  if (!LoadXmlFile(path.c_str(), &doc, why)) return false;
  const TiXmlElement* root = doc.RootElement();
  if (root == nullptr || strcmp(root->Value(), "recorder") != 0) {
    *why = "root element is not <recorder>";
    return false;
  }
  for (const TiXmlElement* e = root->FirstChildElement(); e != nullptr;
       e = e->NextSiblingElement()) {
    const char* name = e->Value();
    if (strcmp(name, "device") == 0) {
      out->deviceType = IntAttr(e, "type");
      const char* mcu = e->Attribute("mcuVersion");
      out->mcuVersion = mcu != nullptr ? mcu : "";
    } else if (strcmp(name, "state") == 0) {
      out->recorderStatus = IntAttr(e, "recorderStatus");
      out->networkLink = IntAttr(e, "networkLink");
      out->watchdogExpired = IntAttr(e, "watchdogExpired") > 0;
    } else if (strcmp(name, "disk") == 0) {
      DiskDef d;
      d.id = IntAttr(e, "id");
      d.mount = ExpandRoot(e->Attribute("mount"));
      d.present = IntAttr(e, "present", 1) != 0;
      d.requireMount = IntAttr(e, "requireMount", 1) != 0;
      d.usages = ParseUsages(e->Attribute("usage"));
      if (out->disks.size() < static_cast<size_t>(kStatusDiskMax)) out->disks.push_back(d);
    } else if (strcmp(name, "partition") == 0) {
      PartitionDef p;
      p.list = IntAttr(e, "list");
      p.id = IntAttr(e, "id");
      p.path = ExpandRoot(e->Attribute("path"));
      out->partitions.push_back(p);
    }
  }
  return true;
}

// True when dir is the root of a mounted file system: its device differs from its parent's
// (or it is its own parent). A card pulled leaves its mount point behind as a plain directory
// of the parent file system, which must not be listed as the card.
bool IsMountPoint(const std::string& dir) {
  struct stat at, up;
  if (dir.empty() || stat(dir.c_str(), &at) != 0 || !S_ISDIR(at.st_mode) ||
      stat((dir + "/..").c_str(), &up) != 0) {
    return false;
  }
  return at.st_dev != up.st_dev || at.st_ino == up.st_ino;
}

class HostStatusService {
 public:
  int GetStatus(STATUS_E which, void* buf) {
    size_t size = StatusRecordSize(which);
    if (buf == nullptr || size == 0) return -1;
    memset(buf, 0, size);
    CAutoLock guard(&m_mutex);
    if (!Refresh()) return -1;
    uint8_t* b = static_cast<uint8_t*>(buf);
    switch (which) {
      case STATUS_RECORDER:
        StoreLE32(b + 128, static_cast<uint32_t>(m_profile.recorderStatus));
        return 0;
      case STATUS_MCU_VERSION:
        CopyText(reinterpret_cast<char*>(b), kStatusMcuVersionSize, m_profile.mcuVersion.c_str());
        return 0;
      case STATUS_DEVICE:
        StoreLE32(b, static_cast<uint32_t>(m_profile.deviceType));
        return 0;
      case STATUS_NETWORK:
        memcpy(b, m_network, sizeof(m_network));
        StoreLE32(b, static_cast<uint32_t>(m_profile.networkLink));
        return 0;
      case STATUS_DISK:
        FillDiskStatus(b);
        return 0;
      case STATUS_PART_LIST_A:
      case STATUS_PART_LIST_B:
      case STATUS_PART_LIST_C:
        FillPartitions(static_cast<int>(which), static_cast<PartStatus_t*>(buf));
        return 0;
      default:
        return -1;
    }
  }

  int SetStatus(STATUS_E which, void* buf) {
    if (buf == nullptr) return -1;
    CAutoLock guard(&m_mutex);
    if (which == STATUS_NETWORK) {
      memcpy(m_network, buf, sizeof(m_network));
    } else if (which == STATUS_UPGRADE) {
      const UpgradeNotify_t* n = static_cast<const UpgradeNotify_t*>(buf);
      m_upgradeCode = n->code;
      m_upgradePath.assign(n->path != nullptr ? n->path : "",
                           n->path != nullptr ? strnlen(n->path, n->length) : 0);
      m_hasUpgrade = true;
    } else {
      return -1;
    }
    return WriteStatusFile();
  }

  int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list) {
    if (list == nullptr) return -1;
    memset(list, 0, sizeof(*list));
    CAutoLock guard(&m_mutex);
    if (!Refresh()) return -1;
    for (const DiskDef& d : m_profile.disks) {
      if (!d.present || list->count >= 8) continue;
      bool listed = false;
      for (int u : d.usages) listed = listed || u == static_cast<int>(usage);
      if (!listed || (d.requireMount && !IsMountPoint(d.mount))) continue;
      PartEntry_t& e = list->part[list->count++];
      e.type = d.id;
      CopyText(e.path, sizeof(e.path), d.mount.c_str());
    }
    return 0;
  }

  int CheckDog() {
    CAutoLock guard(&m_mutex);
    if (!Refresh()) return 0;
    return m_profile.watchdogExpired ? 1 : 0;
  }

 private:
  // Re-reads the profile when its file changed. False while it is missing or malformed;
  // such a state is logged once, when it begins. Caller holds m_mutex.
  bool Refresh() REQUIRES(m_mutex) {
    std::string path = RootedPath("/etc/velmar/recorder.xml");
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
      Fail(path, errno == ENOENT ? "missing" : strerror(errno));
      return false;
    }
    bool same = m_valid && path == m_path && st.st_mtim.tv_sec == m_mtime.tv_sec &&
                st.st_mtim.tv_nsec == m_mtime.tv_nsec && st.st_size == m_size && st.st_ino == m_ino;
    if (same) return true;
    Profile fresh;
    std::string why;
    if (!ParseProfile(path, &fresh, &why)) {
      Fail(path, why);
      return false;
    }
    m_profile = fresh;
    m_valid = true;
    m_failing = false;
    m_path = path;
    m_mtime = st.st_mtim;
    m_size = st.st_size;
    m_ino = st.st_ino;
    return true;
  }

  void Fail(const std::string& path, const std::string& why) REQUIRES(m_mutex) {
    m_valid = false;
    if (!m_failing) {
      WriteDbgLog(2, "recorder profile %s unusable: %s\n", path.c_str(), why.c_str());
    }
    m_failing = true;
  }

  void FillDiskStatus(uint8_t* b) const REQUIRES(m_mutex) {
    int n = 0;
    for (const DiskDef& d : m_profile.disks) {
      uint8_t* e = b + 4 + 12 * n;
      StoreLE32(e, static_cast<uint32_t>(d.id));
      StoreLE32(e + 8, d.present ? 1u : 0u);
      if (++n == kStatusDiskMax) break;
    }
    StoreLE32(b, static_cast<uint32_t>(n));
  }

  void FillPartitions(int listCode, PartStatus_t* list) const REQUIRES(m_mutex) {
    for (const PartitionDef& p : m_profile.partitions) {
      if (p.list != listCode || list->count >= 8) continue;
      PartEntry_t& e = list->part[list->count++];
      e.type = p.id;
      CopyText(e.path, sizeof(e.path), p.path.c_str());
    }
  }

  // Publishes the transfer state and the last upgrade announcement for people and tests,
  // replacing $VELMAR_ROOT/run/velmar/status.xml atomically. Caller holds m_mutex.
  int WriteStatusFile() REQUIRES(m_mutex) {
    std::string dir = RootedPath("/run/velmar");
    if (MakeDirs(dir.c_str()) != 0) return -1;
    std::string text = "<status>\n  <network";
    for (int i = 0; i < 12; ++i) {
      char field[40];
      snprintf(field, sizeof(field), " f%d=\"%d\"", i,
               static_cast<int32_t>(LoadLE32(m_network + 4 * i)));
      text += field;
    }
    text += "/>\n";
    if (m_hasUpgrade) {
      TiXmlElement up("upgrade");
      up.SetAttribute("code", m_upgradeCode);
      up.SetAttribute("path", m_upgradePath.c_str());
      TiXmlPrinter printer;
      up.Accept(&printer);
      text += "  ";
      text += printer.CStr();
    }
    text += "</status>\n";
    return ReplaceFileAtomically(dir + "/status.xml", text.data(), text.size());
  }

  CLock m_mutex;
  Profile m_profile GUARDED_BY(m_mutex);
  bool m_valid GUARDED_BY(m_mutex) = false;
  bool m_failing GUARDED_BY(m_mutex) = false;
  std::string m_path GUARDED_BY(m_mutex);
  timespec m_mtime GUARDED_BY(m_mutex){};
  off_t m_size GUARDED_BY(m_mutex) = 0;
  ino_t m_ino GUARDED_BY(m_mutex) = 0;
  uint8_t m_network[kStatusNetworkSize] GUARDED_BY(m_mutex) = {};
  bool m_hasUpgrade GUARDED_BY(m_mutex) = false;
  int m_upgradeCode GUARDED_BY(m_mutex) = 0;
  std::string m_upgradePath GUARDED_BY(m_mutex);
};

HostStatusService g_hostStatus;

}  // namespace

size_t StatusRecordSize(STATUS_E which) {
  switch (which) {
    case STATUS_RECORDER:
      return kStatusRecorderSize;
    case STATUS_MCU_VERSION:
      return kStatusMcuVersionSize;
    case STATUS_DEVICE:
      return kStatusDeviceSize;
    case STATUS_NETWORK:
      return kStatusNetworkSize;
    case STATUS_DISK:
      return kStatusDiskSize;
    case STATUS_PART_LIST_A:
    case STATUS_PART_LIST_B:
    case STATUS_PART_LIST_C:
      return sizeof(PartStatus_t);
    default:
      return 0;
  }
}

int GetStatus(STATUS_E which, void* buf) { return g_hostStatus.GetStatus(which, buf); }
int SetStatus(STATUS_E which, void* buf) { return g_hostStatus.SetStatus(which, buf); }

int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list, void* /*reserved*/) {
  return g_hostStatus.GetDiskForCommUsage(usage, list);
}

CCommDog* CCommDog::Instance() {
  static CCommDog dog;
  return &dog;
}

int CCommDog::CheckDog() { return g_hostStatus.CheckDog(); }
