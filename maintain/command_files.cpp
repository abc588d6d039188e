// Command files from the maintenance server: log commands, user commands, file-download
// commands and configuration archives.
#include "maintain/command_files.h"

#include <dirent.h>
#include <sys/stat.h>
#include <tinyxml.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "maintain/ftp_maintain_mng.h"
#include "platform/config.h"
#include "platform/env.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/text.h"
#include "platform/xml_file.h"
#include "rules/date_text.h"
#include "rules/shell_words.h"

namespace {

const char* ScopeText(const char* scope) { return scope != nullptr ? scope : "(null)"; }

// The root element of the XML file at path, or null (logged) when it has none.
const TiXmlElement* LoadRoot(TiXmlDocument* doc, const char* path) {
  std::string why;
  if (LoadXmlFile(path, doc, &why)) return doc->RootElement();
  LogLoadFailed(path, why);
  return nullptr;
}

char* HeapCopy(const char* text) {
  size_t n = strlen(text);
  char* copy = static_cast<char*>(malloc(n + 1));
  if (copy != nullptr) memcpy(copy, text, n + 1);
  return copy;
}

// Reads "20YYMMDD-hhmmss" into six values; all 0 unless the whole text reads.
void ReadExpiry(const char* text, int32_t expiry[6]) {
  if (ReadDate2000(text, expiry) == 6) return;
  WriteDbgLog(2, "LOGCMD ExpiryDate unreadable: %s\n", text != nullptr ? text : "");
  for (int i = 0; i < 6; ++i) expiry[i] = 0;
}

// Fills one field of a log command from an attribute, by the first name part that matches.
void ApplyLogAttribute(const TiXmlAttribute* a, LogCmdItem_t* item) {
  const char* name = a->Name();
  const char* value = a->Value() != nullptr ? a->Value() : "";
  if (strstr(name, "type") != nullptr) {
    item->type = atoi(value);
  } else if (strstr(name, "datetime") != nullptr) {
    int32_t f[12];
    ReadDateSpan2000(value, f);
    for (int i = 0; i < 6; ++i) {
      item->start[i] = static_cast<uint8_t>(f[i]);
      item->end[i] = static_cast<uint8_t>(f[6 + i]);
    }
  } else if (strstr(name, "scope") != nullptr) {
    free(item->scope);
    item->scope = HeapCopy(value);
  }
}

// The scope attribute of an element, as a heap copy, or null.
char* ScopeAttribute(const TiXmlElement* e) {
  for (const TiXmlAttribute* a = e->FirstAttribute(); a != nullptr; a = a->Next()) {
    if (strstr(a->Name(), "scope") != nullptr)
      return HeapCopy(a->Value() != nullptr ? a->Value() : "");
  }
  return nullptr;
}

// A user command, with everything it started, is ended after this time (a firmware step may
// take minutes). Background processes it starts belong to it: a lasting service is started by
// the recorder, not by a maintenance command.
constexpr int kUsrCmdSeconds = 600;

struct FollowUp {
  const char* text;
  const char* format;  // %1$s is the quoted /mnt/sd1, %2$s the quoted /mnt/sd2
  int limit;
};

// After a user command that clears files in the current directory, the same clean-up on the
// recording disks.
const FollowUp kFollowUps[] = {
    {"rm -rf *.sw", "rm -rf %1$s/*.sw;rm -rf %2$s/*.sw;", 10},
    {"rm -rf *.crc", "rm -rf %1$s/*.crc;rm -rf %2$s/*.crc;", 5},
    {"rm -rf *.bin", "rm -rf %1$s/*.bin;rm -rf %2$s/*.bin", 5},
    {"rm -rf *.db", "rm -rf %1$s/*.db;rm -rf %2$s/*.db", 5},
    {"rm -rf picture", "rm -rf %1$s/picture/*.jpg;rm -rf %2$s/picture/*.jpg", 10},
    {"rm -rf REC-ALARM", "rm -rf %1$s/REC-ALARM/*;rm -rf %2$s/REC-ALARM/*", 100},
};

uint64_t ReadOctal(const uint8_t* field, size_t len, bool* ok) {
  uint64_t value = 0;
  size_t i = 0;
  while (i < len && field[i] == ' ') ++i;
  size_t digits = 0;
  for (; i < len && field[i] >= '0' && field[i] <= '7'; ++i, ++digits) {
    if (value > (UINT64_MAX >> 3)) {
      *ok = false;
      return 0;
    }
    value = value * 8 + static_cast<uint64_t>(field[i] - '0');
  }
  for (; i < len; ++i) {
    if (field[i] != ' ' && field[i] != '\0') *ok = false;
  }
  if (digits == 0) *ok = false;
  return value;
}

bool ChecksumMatches(const uint8_t* h) {
  bool ok = true;
  uint64_t stored = ReadOctal(h + 148, 8, &ok);
  if (!ok) return false;
  uint64_t unsignedSum = 0;
  int64_t signedSum = 0;
  for (int i = 0; i < 512; ++i) {
    uint8_t b = (i >= 148 && i < 156) ? ' ' : h[i];
    unsignedSum += b;
    signedSum += static_cast<int8_t>(b);
  }
  return stored == unsignedSum || static_cast<int64_t>(stored) == signedSum;
}

// The member name of a header: the ustar prefix (POSIX format only) and the name field.
std::string MemberName(const uint8_t* h) {
  std::string name(reinterpret_cast<const char*>(h),
                   strnlen(reinterpret_cast<const char*>(h), 100));
  if (memcmp(h + 257, "ustar\0", 6) == 0 && h[345] != '\0') {
    std::string prefix(reinterpret_cast<const char*>(h + 345),
                       strnlen(reinterpret_cast<const char*>(h + 345), 155));
    name = prefix + "/" + name;
  }
  return name;
}

// True when name lies in the config directory without leaving it.
bool IsConfigMember(std::string name, std::string* why) {
  while (name.compare(0, 2, "./") == 0) name.erase(0, 2);
  if (name.empty() || name == ".") return true;  // the archive's own top directory
  if (name[0] == '/') {
    *why = "absolute path";
    return false;
  }
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    if (name.compare(start, end - start, "..") == 0) {
      *why = "\"..\" in the path";
      return false;
    }
    start = end + 1;
  }
  if (name != "config" && name.compare(0, 7, "config/") != 0) {
    *why = "outside the config directory";
    return false;
  }
  return true;
}

}  // namespace

int ParseLogCmdItems(const TiXmlElement* root, int32_t expiry[6], LogCmdItem_t** items) {
  *items = nullptr;
  int count = 0;
  bool haveExpiry = false;
  for (int i = 0; i < 6; ++i) expiry[i] = 0;
  for (const TiXmlElement* e = root->FirstChildElement(); e != nullptr;
       e = e->NextSiblingElement()) {
    if (strstr(e->Value(), "ExpiryDate") != nullptr) {
      ReadExpiry(e->GetText(), expiry);
      haveExpiry = true;
    } else if (strstr(e->Value(), "CMDITEM") != nullptr) {
      LogCmdItem_t* grown = static_cast<LogCmdItem_t*>(
          realloc(*items, sizeof(LogCmdItem_t) * static_cast<size_t>(count + 1)));
      if (grown == nullptr) continue;
      *items = grown;
      LogCmdItem_t* item = &grown[count++];
      memset(item, 0, sizeof(*item));
      for (const TiXmlAttribute* a = e->FirstAttribute(); a != nullptr; a = a->Next()) {
        ApplyLogAttribute(a, item);
      }
    }
  }
  if (!haveExpiry && count > 0) WriteDbgLog(2, "LOGCMD without ExpiryDate: taken as expired\n");
  return count;
}

void FreeLogCmdItems(LogCmdItem_t* items, int count) {
  for (int i = 0; i < count; ++i) free(items[i].scope);
  free(items);
}

int ParseUsrCmdItems(const TiXmlElement* root, UsrCmdItem_t** items) {
  *items = nullptr;
  int count = 0;
  for (const TiXmlElement* e = root->FirstChildElement(); e != nullptr;
       e = e->NextSiblingElement()) {
    if (strstr(e->Value(), "ExpiryDate") != nullptr) continue;  // accepted, not evaluated
    if (strstr(e->Value(), "CMDITEM") == nullptr) continue;
    const char* text = e->GetText();
    if (text == nullptr || text[0] == '\0') {
      WriteDbgLog(2, "UsrDefineCmd: CMDITEM without a command skipped\n");
      continue;
    }
    UsrCmdItem_t* grown = static_cast<UsrCmdItem_t*>(
        realloc(*items, sizeof(UsrCmdItem_t) * static_cast<size_t>(count + 1)));
    if (grown == nullptr) continue;
    *items = grown;
    UsrCmdItem_t* item = &grown[count++];
    CopyText(item->command, sizeof(item->command), text);
    item->scope = ScopeAttribute(e);
  }
  return count;
}

void FreeUsrCmdItems(UsrCmdItem_t* items, int count) {
  for (int i = 0; i < count; ++i) free(items[i].scope);
  free(items);
}

bool UsrCmdFollowUp(const char* text, std::string* command, int* limit) {
  for (const FollowUp& f : kFollowUps) {
    if (strcmp(text, f.text) != 0) continue;
    char sd1[300], sd2[300];
    if (!ShellWord(RootedPath("/mnt/sd1").c_str(), sd1, sizeof(sd1)) ||
        !ShellWord(RootedPath("/mnt/sd2").c_str(), sd2, sizeof(sd2))) {
      WriteDbgLog(2, "UsrDefineCmd: disk paths under %s cannot be quoted\n", SandboxRoot().c_str());
      return false;
    }
    char out[700];
    FormatBounded(out, sizeof(out), f.format, sd1, sd2);
    *command = out;
    *limit = f.limit;
    return true;
  }
  return false;
}

bool CheckConfigArchive(const uint8_t* data, size_t len, std::string* why) {
  size_t pos = 0;
  bool sawConfig = false;
  bool ended = false;  // an all-zero block ends the archive; what follows is padding
  while (!ended && pos + 512 <= len) {
    const uint8_t* h = data + pos;
    bool zero = true;
    for (int i = 0; i < 512 && zero; ++i) zero = h[i] == 0;
    if (zero) {
      ended = true;
      break;
    }
    if (memcmp(h + 257, "ustar", 5) != 0) {
      *why = "not a tar archive";
      return false;
    }
    if (!ChecksumMatches(h)) {
      *why = "damaged header";
      return false;
    }
    std::string name = MemberName(h);
    char type = static_cast<char>(h[156]);
    bool ok = true;
    uint64_t size = ReadOctal(h + 124, 12, &ok);
    if (!ok) {
      *why = "unreadable size of member \"" + name + "\"";
      return false;
    }
    if (type == '1' || type == '2') {
      *why = "link \"" + name + "\"";
      return false;
    }
    if (type != '0' && type != '\0' && type != '7' && type != '5') {
      *why = std::string("member \"") + name + "\" of type '" +
             (type >= 0x20 && type < 0x7f ? type : '?') + "' (only files and directories)";
      return false;
    }
    std::string reason;
    if (!IsConfigMember(name, &reason)) {
      *why = "member \"" + name + "\": " + reason;
      return false;
    }
    sawConfig = sawConfig || name.find("config") != std::string::npos;
    uint64_t blocks = (size + 511) / 512;
    if (blocks > (len - pos) / 512) {
      *why = "truncated member \"" + name + "\"";
      return false;
    }
    pos += 512 + static_cast<size_t>(blocks) * 512;
  }
  if (!ended && pos != len) {
    *why = "truncated archive";
    return false;
  }
  if (!sawConfig) *why = "no config directory";
  return sawConfig;
}

int CFtpMaintainMng::HandleRemoteCmd(const char* path) {
  std::string text, why;
  if (!ReadRegularFile(path, kXmlMaxBytes, &text, &why)) {
    WriteDbgLog(2, "remote command file %s refused: %s\n", path, why.c_str());
    return 0;
  }
  if (text.find("<LOGCMD>") != std::string::npos) {
    WriteDbgLog(0, "%s, %d\n", "HandleRemoteCmd", __LINE__);
    HandleLogCmd(path);
  } else if (text.find("<UsrDefineCmd>") != std::string::npos) {
    WriteDbgLog(0, "%s, %d\n", "HandleRemoteCmd", __LINE__);
    HandleUsrDefineCmd(path);
  } else if (text.find("<FileDownloadCmd>") != std::string::npos) {
    WriteDbgLog(0, "%s, %d\n", "HandleRemoteCmd", __LINE__);
    HandleFileDownloadCmd(path);
  }
  return 0;
}

int CFtpMaintainMng::HandleFtpCmdFile(int type, const char* path) {
  WriteDbgLog(0, "HandleFtpCmdFile: %d, %s\n", type, path);
  switch (type) {
    case FTP_FILE_LOGCMD:
      HandleLogCmd(path);
      break;
    case FTP_FILE_USRCMD:
      HandleUsrDefineCmd(path);
      break;
    case FTP_FILE_CONFIG:
      HandleConfigCmd(path);
      break;
    default:
      break;  // packages and images are installed by their own services
  }
  return 0;
}

int CFtpMaintainMng::HandleLogCmd(const char* path) {
  TiXmlDocument doc;
  const TiXmlElement* root = LoadRoot(&doc, path);
  if (root == nullptr) return -1;
  int32_t expiry[6];
  LogCmdItem_t* items = nullptr;
  int count = ParseLogCmdItems(root, expiry, &items);
  if (count == 0) {
    FreeLogCmdItems(items, count);
    return 0;
  }
  WriteDbgLog(0, "CmdCount: %d\n", count);
  // The uploads work on a copy: they take minutes, and the account must not be held locked.
  const UpgradeSet_t before = Account();
  UpgradeSet_t account = before;
  for (int i = 0; i < count; ++i) {
    WriteDbgLog(0, "Cmd: %d, %s\n", items[i].type, ScopeText(items[i].scope));
    UploadLog(m_env, &account, expiry, &items[i]);
    free(items[i].scope);
    items[i].scope = nullptr;
  }
  FreeLogCmdItems(items, count);
  bool cleared = memcmp(account.user, before.user, sizeof(account.user)) != 0 ||
                 memcmp(account.password, before.password, sizeof(account.password)) != 0;
  if (cleared && m_pData != nullptr) {
    CAutoLock guard(&m_lock);
    UpgradeSet_t& live = m_pData->upgradeSet;
    // Only the account the logs went to loses its credentials, not one installed meanwhile.
    if (memcmp(&live, &before, sizeof(live)) == 0) {
      memcpy(live.user, account.user, sizeof(live.user));
      memcpy(live.password, account.password, sizeof(live.password));
    }
  }
  return 0;
}

int CFtpMaintainMng::HandleUsrDefineCmd(const char* path) {
  TiXmlDocument doc;
  const TiXmlElement* root = LoadRoot(&doc, path);
  if (root == nullptr) return -1;
  UsrCmdItem_t* items = nullptr;
  int count = ParseUsrCmdItems(root, &items);
  if (count == 0) {
    FreeUsrCmdItems(items, count);
    return 0;
  }
  WriteDbgLog(0, "CmdCount: %d\n", count);
  for (int i = 0; i < count; ++i) {
    WriteDbgLog(0, "Cmd: %s, %s\n", items[i].command, ScopeText(items[i].scope));
    // The maintenance server's own command line: run as it stands, like a remote shell, but
    // within a limit, so that one that never ends cannot stop maintenance for good.
    m_env->RunCommand(items[i].command, kUsrCmdSeconds);
    free(items[i].scope);
    items[i].scope = nullptr;
    std::string followUp;
    int limit = 0;
    if (UsrCmdFollowUp(items[i].command, &followUp, &limit))
      m_env->RunCommand(followUp.c_str(), limit);
  }
  FreeUsrCmdItems(items, count);
  return 0;
}

int CFtpMaintainMng::HandleConfigCmd(const char* path) {
  WriteDbgLog(0, "HandleConfigCmd: %s\n", path);
  // The archive is checked before anything is unpacked: tar would otherwise follow links and
  // absolute or ".." paths out of the extraction directory.
  int len = 0;
  char* archive = filetobufwithoutbuf(path, &len);
  std::string why = "cannot be read";
  bool safe = archive != nullptr && CheckConfigArchive(reinterpret_cast<const uint8_t*>(archive),
                                                       static_cast<size_t>(len), &why);
  free(archive);
  if (!safe) {
    WriteDbgLog(2, "HandleConfigCmd: refused %s: %s\n", path, why.c_str());
    return -1;
  }
  std::string tmp = RootedPath("/tmp/");
  std::string configDir = RootedPath("/tmp/config/");
  char tmpWord[300], pathWord[300], configWord[300];
  char command[255];
  if (!ShellWord(tmp.c_str(), tmpWord, sizeof(tmpWord)) ||
      !ShellWord(path, pathWord, sizeof(pathWord)) ||
      !ShellWord(configDir.c_str(), configWord, sizeof(configWord)) ||
      FormatBounded(command, sizeof(command), "cd %s;tar xf %s;cd -", tmpWord, pathWord) != 0) {
    WriteDbgLog(2, "HandleConfigCmd: refused %s: path cannot be used in a command\n", path);
    return -1;
  }
  MakeDirs(tmp.c_str());
  m_env->RunCommand(command, 600);

  struct stat st;
  DIR* dir = nullptr;
  if (lstat(configDir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) dir = opendir(configDir.c_str());
  if (dir == nullptr) return -1;
  while (struct dirent* entry = readdir(dir)) {
    const char* name = entry->d_name;
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
    int type = ConfigFileType(name);
    if (type < 0) {
      WriteDbgLog(0, "Unknown Config File: %s\n", name);
      continue;
    }
    char file[512];
    FormatBounded(file, sizeof(file), "%s/%s", configDir.c_str(), name);
    // Only a regular file is read: a link would hand some other file to the configuration.
    if (lstat(file, &st) != 0 || !S_ISREG(st.st_mode)) continue;
    int size = 0;
    char* content = filetobufwithoutbuf(file, &size);
    if (content == nullptr) continue;
    m_env->Config()->SetConfigXml(static_cast<PARAM_TYPE_E>(type), content);
    free(content);
  }
  closedir(dir);
  FormatBounded(command, sizeof(command), "rm -Rf %s", configWord);
  m_env->RunCommand(command, 600);
  return 0;
}
