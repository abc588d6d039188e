// The server's file list: fetching, parsing and judging whether this recorder needs an entry.
#include <tinyxml.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "maintain/ftp_maintain_mng.h"
#include "maintain/trust_gate.h"
#include "platform/byteorder.h"
#include "platform/config.h"
#include "platform/env.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/status.h"
#include "platform/text.h"
#include "platform/xml_file.h"
#include "rules/date_text.h"
#include "rules/maintain_ftp.h"
#include "rules/scope.h"
#include "rules/shell_words.h"

namespace {

// Fills one field of item from an attribute, by the first of the names its name contains.
void ApplyAttribute(const TiXmlAttribute* a, FtpFileItem_t* item) {
  const char* name = a->Name();
  const char* value = a->Value() != nullptr ? a->Value() : "";
  if (strstr(name, "filetype") != nullptr) {
    item->FileType = atoi(value);
  } else if (strstr(name, "size") != nullptr) {
    item->FileSize = atoi(value);
  } else if (strstr(name, "devtype") != nullptr) {
    item->DevType = atoi(value);
  } else if (strstr(name, "crcvalue") != nullptr) {
    CopyText(item->CrcValue, sizeof(item->CrcValue), value);
  } else if (strstr(name, "expirydate") != nullptr) {
    CopyText(item->ExpiryDate, sizeof(item->ExpiryDate), value);
  } else if (strstr(name, "scope") != nullptr) {
    CopyText(item->Scope, sizeof(item->Scope), value);
  }
}

}  // namespace

bool IsFileListEntry(const TiXmlElement* e) {
  return strstr(e->Value(), "FILE") != nullptr && e->GetText() != nullptr;
}

bool ReadFileListEntry(const TiXmlElement* e, FtpFileItem_t* item) {
  if (!IsFileListEntry(e)) return false;
  memset(item, 0, sizeof(*item));
  for (const TiXmlAttribute* a = e->FirstAttribute(); a != nullptr; a = a->Next()) {
    ApplyAttribute(a, item);
  }
  CopyText(item->FileName, sizeof(item->FileName), e->GetText());
  return true;
}

void LogLoadFailed(const char* path, const std::string& why) {
  WriteDbgLog(0, "LoadFile %s Failed\n", path);
  WriteDbgLog(0, "LoadFile: %s\n", why.c_str());
}

int CFtpMaintainMng::GetFileList(const UpgradeSet_t* account, const char* dir) {
  char path[256];
  char sigPath[256];
  bool pathFits = FormatBounded(path, sizeof(path), "%s/%s", dir, "FileList.xml") == 0 &&
                  FormatBounded(sigPath, sizeof(sigPath), "%s%s", path, kListSignatureSuffix) == 0;
  if (pathFits) {
    remove(path);  // a cut path could name another file
    remove(sigPath);
  }
  if (!pathFits || MaintainFetch(m_env, *account, path, "FileList.xml", 600) != FTP_COMMAND_OK) {
    WriteDbgLog(2, "GetFileList: the maintenance account or directory is unusable\n");
    return 0;
  }
  std::string why;
  if (CurrentTrustMode(&why) != TrustMode::kOpen) {
    MaintainFetch(m_env, *account, sigPath, "FileList.xml.sig", 600);
  }
  return 0;
}

int CFtpMaintainMng::ParseFileList(const char* path, FtpFileList_t* list) {
  std::string text;
  std::string why;
  if (!ReadRegularFile(path, kXmlMaxBytes, &text, &why)) {
    LogLoadFailed(path, why);
    return -1;
  }
  return ParseFileListText(path, text, list);
}

int CFtpMaintainMng::ParseFileListText(const char* path, const std::string& bytes,
                                       FtpFileList_t* list) {
  TiXmlDocument doc;
  std::string why;
  if (!ParseXmlText(bytes, &doc, &why)) {
    LogLoadFailed(path, why);
    return -1;
  }
  const TiXmlElement* root = doc.RootElement();
  int before = list->count;
  for (const TiXmlElement* e = root->FirstChildElement(); e != nullptr;
       e = e->NextSiblingElement()) {
    if (!IsFileListEntry(e)) continue;
    FtpFileItem_t* grown = static_cast<FtpFileItem_t*>(
        realloc(list->pItems, sizeof(FtpFileItem_t) * static_cast<size_t>(list->count + 1)));
    if (grown == nullptr) continue;
    list->pItems = grown;
    FtpFileItem_t* item = &grown[list->count];
    ReadFileListEntry(e, item);
    printf("FtpFileItem [%d]: %d, %d, %d, %s, %s, %s, %s\n", list->count, item->FileType,
           item->FileSize, item->DevType, item->ExpiryDate, item->Scope, item->CrcValue,
           item->FileName);
    list->count += 1;
  }
  return list->count == before ? -1 : 0;
}

int CFtpMaintainMng::HandleFileDownloadCmd(const char* path) {
  if (m_pData == nullptr) return -1;
  CAutoLock guard(&m_lock);
  RootedPath("/tmp", m_pData->onlineList.dir, sizeof(m_pData->onlineList.dir));
  return ParseFileList(path, &m_pData->onlineList);
}

int CFtpMaintainMng::IsNeedLoadFile(const FtpFileItem_t* item) {
  // A name that could run something or land outside the list's directory is never meant for
  // this recorder, whichever list it came in.
  if (!IsSafeFileName(item->FileName)) {
    WriteDbgLog(2, "IsNeedLoadFile: refused file name \"%s\": not a plain file name\n",
                item->FileName);
    return -1;
  }
  std::string why;
  if (!EntryIsVerifiable(*item, &why)) {
    WriteDbgLog(2, "IsNeedLoadFile: refused \"%s\": %s\n", item->FileName, why.c_str());
    return -1;
  }
  uint8_t device[kStatusDeviceSize] = {};
  m_env->GetStatus(STATUS_DEVICE, device);
  int32_t localType = static_cast<int32_t>(LoadLE32(device));
  if (localType != item->DevType) {
    WriteDbgLog(2, "IsNeedLoadFile DevType Mismatch: Local = %d, Ftp = %d\n", localType,
                item->DevType);
    return -1;
  }
  // An expiry date that is missing or not of the form 20YYMMDD-hhmmss counts as expired: an
  // entry that cannot say how long it is meant for is not acted on.
  int32_t f[6];
  bool readable = ReadDate2000(item->ExpiryDate, f) == 6;
  int64_t expiry = readable ? LocalTime2000(f) : 0;
  time_t now = m_env->WallSeconds();
  if (!readable || expiry < static_cast<int64_t>(now)) {
    WriteDbgLog(
        2, "IsNeedLoadFile out of date: ExpiryDate = %s, %lld, %lld, (%d, %d, %d, %d, %d, %d)\n",
        item->ExpiryDate, static_cast<long long>(now), static_cast<long long>(expiry), f[0], f[1],
        f[2], f[3], f[4], f[5]);
    return -1;
  }
  long long deviceNo = ConfigDeviceNumber(m_env->Config());
  if (item->Scope[0] == '\0') {
    puts("IsNeedLoadFile is TRUE");
    return 0;
  }
  printf("IsNeedLoadFile Scope: %s\n", item->Scope);
  const char* scope = item->Scope;
  bool in = InScope(scope, deviceNo, [scope, deviceNo](const char* at, long long lo, long long hi) {
    if (at != scope) printf("IsNeedLoadFile Next: %s\n", at - 1);
    fprintf(stderr, "IsNeedLoadFile : %s --> %lld~%lld, %lld\n", at, lo, hi, deviceNo);
  });
  if (in) {
    puts("IsNeedLoadFile is TRUE");
    return 0;
  }
  WriteDbgLog(2, "IsNeedLoadFile not in scope\n");
  return -1;
}
