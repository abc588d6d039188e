// Bringing one file-list entry from the maintenance server to a local directory, past the
// entry's digest check.
#include <cstdio>
#include <cstring>
#include <string>

#include "maintain/ftp_maintain_mng.h"
#include "maintain/trust_gate.h"
#include "platform/config.h"
#include "platform/env.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/status.h"
#include "platform/text.h"
#include "rules/maintain_ftp.h"
#include "rules/shell_words.h"

namespace {

const char kTmpLoadName[] = "tmp_ftp_load.bin";

// Removes every "*.<ext>" from the upload disks and from /tmp before a download of that kind.
// noDiskLog is the loader's message when no disk is mounted.
void CleanDisks(Env* env, const char* ext, const char* noDiskLog) {
  PartStatus_t disks;
  memset(&disks, 0, sizeof(disks));
  char command[300];
  char word[200];
  if (env->GetDiskForCommUsage(DISK_USAGE_UPLOAD, &disks) == 0 && disks.count > 0) {
    for (int i = 0; i < disks.count && i < 8; ++i) {
      char path[129] = {};
      memcpy(path, disks.part[i].path, sizeof(disks.part[i].path));
      if (!ShellWord(path, word, sizeof(word))) continue;
      FormatBounded(command, sizeof(command), "rm %s/*.%s", word, ext);
      env->RunCommand(command, 5);
    }
  } else {
    WriteDbgLog(2, "%s", noDiskLog);
  }
  if (ShellWord(RootedPath("/tmp").c_str(), word, sizeof(word))) {
    FormatBounded(command, sizeof(command), "rm %s/*.%s", word, ext);
    env->RunCommand(command, 5);
  }
}

}  // namespace

int CFtpMaintainMng::DownloadFile(FtpFileItem_t* item, const UpgradeSet_t* account,
                                  const char* dir) {
  char target[256];
  char local[256];
  char where[200];
  char move[255];
  // The file name goes into the commands as it stands, so it must be plain; a cut path could
  // name another file.
  bool usable = IsSafeFileName(item->FileName) &&
                FormatBounded(target, sizeof(target), "%s/%s", dir, item->FileName) == 0 &&
                FormatBounded(local, sizeof(local), "%s/%s", dir, kTmpLoadName) == 0 &&
                ShellWord(dir, where, sizeof(where)) &&
                FormatBounded(move, sizeof(move), "mv %s/%s %s/%s", where, kTmpLoadName, where,
                              item->FileName) == 0;
  if (usable) {
    if (fileisexist(target) == 0) remove(target);
    usable = MaintainFetch(m_env, *account, local, item->FileName, 600) == FTP_COMMAND_OK;
  }
  if (!usable) {
    WriteDbgLog(2, "DownloadFile: refused %s: unsafe name, account or directory\n", item->FileName);
    return 0;
  }
  // Nothing lands under its own name, where a loader or another service would take it, before
  // it has passed its entry's digest; a refused copy is deleted, and the entry's check then
  // finds no file and loads it again.
  std::string why;
  if (!JudgeDownload(*item, local, &why)) {
    WriteDbgLog(2, "DownloadFile: %s refused and deleted: %s\n", item->FileName, why.c_str());
    remove(local);
    return 0;
  }
  m_env->RunCommand(move, 10);
  return 0;
}

int CFtpMaintainMng::LoadLogCmdFile(FtpFileItem_t* item, const UpgradeSet_t* account,
                                    const char* dir) {
  return DownloadFile(item, account, dir);
}

int CFtpMaintainMng::LoadUsrCmdFile(FtpFileItem_t* item, const UpgradeSet_t* account,
                                    const char* dir) {
  return DownloadFile(item, account, dir);
}

int CFtpMaintainMng::GetUpgradeFileName(char* out) {
  VersionInfo_t version;
  m_env->Config()->GetConfig(&version, nullptr);
  char prefix[32];
  GetUpgradeFilePrefix(prefix);
  char v[4][17] = {};
  for (int i = 0; i < 4; ++i) CopyField(v[i], sizeof(v[i]), version.version[i], 16);
  FormatBounded(out, 256, "%.31s-%s-%s-%s-%s.sw", prefix, v[0], v[1], v[2], v[3]);
  return 0;
}

int CFtpMaintainMng::LoadUpgradeFile(FtpFileItem_t* item, const UpgradeSet_t* account,
                                     const char* dir) {
  char local[256];
  GetUpgradeFileName(local);
  if (strcmp(local, item->FileName) == 0) {
    WriteDbgLog(2, "NewVer=CurVer=%s\n", item->FileName);
    return 1;
  }
  WriteDbgLog(2, "LocalVersion=%s, FtpVersion=%s\n", local, item->FileName);
  // GBK text: "LoadUpgradeFile: no disk found".
  CleanDisks(m_env, "sw", "LoadUpgradeFile\xc3\xbb\xd3\xd0\xd5\xd2\xb5\xbd\xb4\xc5\xc5\xcc\n");
  DownloadFile(item, account, dir);
  char path[127];
  FormatBounded(path, sizeof(path), "%s/%s", dir, item->FileName);
  UpgradeNotify_t note;
  note.code = 201;
  note.length = static_cast<uint16_t>(strlen(path));
  note.path = path;
  m_env->SetStatus(STATUS_UPGRADE, &note);  // announced whatever the transfer's outcome
  return 0;
}

int CFtpMaintainMng::LoadMcuFile(FtpFileItem_t* item, const UpgradeSet_t* account,
                                 const char* dir) {
  char version[kStatusMcuVersionSize + 1] = {};
  m_env->GetStatus(STATUS_MCU_VERSION, version);
  version[kStatusMcuVersionSize] = '\0';
  if (strstr(item->FileName, version) != nullptr) {  // an empty version is in every name
    WriteDbgLog(2, "NewVer=CurVer=%s\n", item->FileName);
    return 1;
  }
  // GBK text: "LoadMcuFile: no disk found".
  CleanDisks(m_env, "crc", "LoadMcuFile\xc3\xbb\xd3\xd0\xd5\xd2\xb5\xbd\xb4\xc5\xc5\xcc\n");
  DownloadFile(item, account, dir);
  return 0;
}

int CFtpMaintainMng::LoadConfigFile(FtpFileItem_t* item, const UpgradeSet_t* account,
                                    const char* dir) {
  // GBK text: "LoadConfigFile: no disk found".
  CleanDisks(m_env, "tar", "LoadConfigFile\xc3\xbb\xd3\xd0\xd5\xd2\xb5\xbd\xb4\xc5\xc5\xcc\n");
  DownloadFile(item, account, dir);
  return 0;
}

int CFtpMaintainMng::LoadByType(FtpFileItem_t* item, const UpgradeSet_t* account, const char* dir) {
  switch (item->FileType) {
    case FTP_FILE_UPGRADE:
      return LoadUpgradeFile(item, account, dir);
    case FTP_FILE_LOGCMD:
      return LoadLogCmdFile(item, account, dir);
    case FTP_FILE_USRCMD:
      return LoadUsrCmdFile(item, account, dir);
    case FTP_FILE_MCU:
      return LoadMcuFile(item, account, dir);
    case FTP_FILE_CONFIG:
      return LoadConfigFile(item, account, dir);
    default:
      return 0;  // an unknown kind is never downloaded
  }
}

int CFtpMaintainMng::LoadFtpFile(int mode) {
  if (m_pData == nullptr || (mode != 0 && mode != 1)) return -1;
  UpgradeSet_t account;
  char dir[128];
  FtpFileItem_t item;
  int index;
  {
    CAutoLock guard(&m_lock);
    account = m_pData->upgradeSet;
    memcpy(dir, m_pData->fileList.dir, sizeof(dir));
    index = m_pData->fileList.index;
    if (mode == 1) {
      if (index < 0 || index >= m_pData->fileList.count) return 0;
      item = m_pData->fileList.pItems[index];
    }
  }
  // Shell commands run without the lock: a download may take up to 600 s.
  if (mode == 0) {
    GetFileList(&account, dir);
    return 0;
  }
  int32_t status = item.Status;
  if (IsNeedLoadFile(&item) != 0) {
    status = FILE_STATUS_SKIP;
  } else {
    WriteDbgLog(0, "Get pFtpFile->FileType=%d\n", item.FileType);
    if (LoadByType(&item, &account, dir) == 1) status = FILE_STATUS_SKIP;
  }
  CAutoLock guard(&m_lock);
  FtpFileList_t& list = m_pData->fileList;
  // The list may have been replaced meanwhile (a new account); then the result is stale.
  if (index < list.count && strcmp(list.pItems[index].FileName, item.FileName) == 0) {
    list.pItems[index].Status = status;
  }
  return 0;
}
