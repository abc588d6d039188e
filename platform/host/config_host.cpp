// The host configuration service: one XML file per configuration type in
// $VELMAR_ROOT/etc/velmar/config/, plus $VELMAR_ROOT/etc/velmar/version.xml. Formats in
// docs/FORMATS.md. A missing or malformed file gives a zeroed record, -1 and one log line.
#include <tinyxml.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/config.h"
#include "platform/fileutil.h"
#include "platform/host/atomic_file.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/text.h"
#include "platform/xml_file.h"

namespace {

// Loads the root element of a configuration file; null (with a log line) when unusable.
const TiXmlElement* LoadRoot(TiXmlDocument* doc, const std::string& path, const char* rootName) {
  std::string why;
  if (!LoadXmlFile(path.c_str(), doc, &why)) {
    WriteDbgLog(2, "config %s unusable: %s\n", path.c_str(), why.c_str());
    return nullptr;
  }
  const TiXmlElement* root = doc->RootElement();
  if (root == nullptr || strcmp(root->Value(), rootName) != 0) {
    WriteDbgLog(2, "config %s unusable: root is not <%s>\n", path.c_str(), rootName);
    return nullptr;
  }
  return root;
}

// Zeroes the record *out of size bytes and loads the root element of the file at devicePath
// (under the sandbox root). Null when the record cannot be filled.
template <typename Record>
const TiXmlElement* StartRecord(Record* out, TiXmlDocument* doc, const char* devicePath,
                                const char* rootName) {
  if (out == nullptr) return nullptr;
  memset(out, 0, sizeof(*out));
  return LoadRoot(doc, RootedPath(devicePath), rootName);
}

void CopyAttr(const TiXmlElement* e, const char* name, char* dst, size_t cap) {
  const char* v = e->Attribute(name);
  CopyText(dst, cap, v != nullptr ? v : "");
}

}  // namespace

CConfig* CConfig::Instance() {
  static CConfig config;
  return &config;
}

int CConfig::GetConfig(UpgradeSet_t* out, char*) {
  TiXmlDocument doc;
  const TiXmlElement* e = StartRecord(out, &doc, "/etc/velmar/config/upgrade.xml", "upgrade");
  if (e == nullptr) return -1;
  CopyAttr(e, "host", out->host, sizeof(out->host));
  const char* port = e->Attribute("port");
  out->port = static_cast<uint16_t>(port != nullptr ? atoi(port) : 21);
  CopyAttr(e, "user", out->user, sizeof(out->user));
  CopyAttr(e, "password", out->password, sizeof(out->password));
  CopyAttr(e, "path", out->path, sizeof(out->path));
  CopyAttr(e, "name", out->name, sizeof(out->name));
  return 0;
}

int CConfig::GetConfig(VersionInfo_t* out, char*) {
  TiXmlDocument doc;
  const TiXmlElement* e = StartRecord(out, &doc, "/etc/velmar/version.xml", "version");
  if (e == nullptr) return -1;
  const char* names[4] = {"v1", "v2", "v3", "v4"};
  for (int i = 0; i < 4; ++i) CopyAttr(e, names[i], out->version[i], sizeof(out->version[i]));
  return 0;
}

int CConfig::GetConfig(JTBaseSet_t* out, char*) {
  TiXmlDocument doc;
  const TiXmlElement* e = StartRecord(out, &doc, "/etc/velmar/config/jtbase.xml", "jtbase");
  if (e == nullptr) return -1;
  CopyAttr(e, "deviceNo", out->deviceNo, sizeof(out->deviceNo));
  return 0;
}

int CConfig::SetConfigXml(PARAM_TYPE_E type, char* xml) {
  const char* name = ConfigFileName(type);
  if (name == nullptr || xml == nullptr) return -1;
  std::string dir = RootedPath("/etc/velmar/config");
  if (MakeDirs(dir.c_str()) != 0) return -1;
  std::string path = dir + "/" + name;
  if (ReplaceFileAtomically(path, xml, strlen(xml)) != 0) {
    WriteDbgLog(2, "config %s not replaced\n", path.c_str());
    return -1;
  }
  return 0;
}

int GetUpgradeFilePrefix(char* out) {
  if (out == nullptr) return -1;
  memset(out, 0, 32);
  TiXmlDocument doc;
  const TiXmlElement* e = LoadRoot(&doc, RootedPath("/etc/velmar/version.xml"), "version");
  if (e == nullptr) return -1;
  CopyAttr(e, "prefix", out, 32);
  return 0;
}
