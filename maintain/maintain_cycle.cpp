// The maintenance thread: the periodic cycle over the server's file list and the online list
// of file-download commands.
//
// Locking: every read and write of the state, the lists, the account and m_lastStepTime is
// under m_lock; shell commands (downloads, command files) run without it. A step remembers
// m_nEpoch when it starts and drops its outcome if FtpConnectTo replaced the account and the
// lists meanwhile.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "maintain/ftp_maintain_mng.h"
#include "maintain/trust_gate.h"
#include "platform/clock.h"
#include "platform/config.h"
#include "platform/env.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/state_file.h"
#include "platform/status.h"
#include "platform/text.h"

namespace {

enum FTP_STATE_E {
  FTP_STATE_START = 0,
  FTP_STATE_GET_LIST = 1,
  FTP_STATE_PARSE_LIST = 2,
  FTP_STATE_LOAD_FILE = 3,
  FTP_STATE_CHECK_FILE = 4,
  FTP_STATE_FINISH = 5,
  FTP_STATE_UPDATING = 8,
};

const int kStepInterval = 5;    // seconds between steps (more than this must pass)
const int kRetryInterval = 60;  // after a list or a download that failed its check
const int kRestInterval = 900;  // after a complete pass

// "dir/name" into a 256-byte buffer.
void EntryPath(char* out, const char* dir, const char* name) {
  FormatBounded(out, 256, "%s/%s", dir, name);
}

}  // namespace

void FtpProc(CommonThread_st* thread, void* arg) {
  CFtpMaintainMng* mng = static_cast<CFtpMaintainMng*>(arg);
  WriteDbgLog(0, "FtpProc pid = %d\n", static_cast<int>(getpid()));
  UpgradeSet_t account;
  mng->m_env->Config()->GetConfig(&account, nullptr);
  {
    CAutoLock guard(&mng->m_lock);
    mng->m_pData->upgradeSet = account;
  }
  mng->SelectWorkDir();
  {
    CAutoLock guard(&mng->m_lock);
    mng->m_lastStepTime = mng->m_env->WallSeconds();
  }
  int interval = kStepInterval;
  while (ThreadGetStatus(thread) != 0) {
    mng->ProcPass(&interval);
    mng->m_env->SleepUs(1000000);
  }
  WriteDbgLog(0, "Ftp Upgrade Thread Exit\n");
}

int CFtpMaintainMng::Start() {
  if (m_pData == nullptr) return -1;
  CommonThread_st* thread = ThreadInit();
  if (thread == nullptr) return -1;
  {
    CAutoLock guard(&m_lock);
    m_pData->pThread = thread;
    m_pData->state = FTP_STATE_START;
  }
  WriteDbgLog(2, "%s\n", "Start Velmar");
  if (ThreadStart(thread, FtpProc, this, "Start Velmar") < 0) {
    ThreadUninit(thread);
    CAutoLock guard(&m_lock);
    m_pData->pThread = nullptr;
    return -1;
  }
  return 0;
}

int CFtpMaintainMng::Stop() {
  if (m_pData == nullptr) return -1;
  CommonThread_st* thread;
  {
    CAutoLock guard(&m_lock);
    thread = m_pData->pThread;
  }
  // Joined without the lock: the thread takes it in every pass.
  ThreadStop(thread);
  ThreadUninit(thread);
  CAutoLock guard(&m_lock);
  m_pData->pThread = nullptr;
  ClearFileList(&m_pData->fileList);
  ClearFileList(&m_pData->onlineList);
  return 0;
}

int CFtpMaintainMng::SelectWorkDir() {
  time_t start = m_env->WallSeconds();
  for (;;) {
    m_env->SleepUs(1500000);
    PartStatus_t disks;
    memset(&disks, 0, sizeof(disks));
    m_env->GetDiskForCommUsage(DISK_USAGE_MAINTAIN, &disks);
    if (disks.count > 0) {
      CAutoLock guard(&m_lock);
      CopyField(m_pData->fileList.dir, sizeof(m_pData->fileList.dir), disks.part[0].path,
                sizeof(disks.part[0].path));
      return 0;
    }
    if (llabs(static_cast<long long>(m_env->WallSeconds() - start)) > 120) {
      CAutoLock guard(&m_lock);
      RootedPath("/tmp", m_pData->fileList.dir, sizeof(m_pData->fileList.dir));
      return 0;
    }
  }
}

void CFtpMaintainMng::ProcPass(int* interval) {
  bool step = false;
  {
    CAutoLock guard(&m_lock);
    time_t now = m_env->WallSeconds();
    if (llabs(static_cast<long long>(now - m_lastStepTime)) > *interval) {
      m_lastStepTime = now;
      step = true;
    }
  }
  if (step) {
    *interval = kStepInterval;
    FtpUpgradeStep(interval);
  }
  OnlineFtpProc();
}

void CFtpMaintainMng::FtpUpgradeStep(int* interval) {
  if (m_pData == nullptr) return;
  int state;
  uint32_t epoch;
  {
    CAutoLock guard(&m_lock);
    state = m_pData->state;
    epoch = m_nEpoch;
  }
  int next = state;
  int wait = *interval;
  switch (state) {
    case FTP_STATE_START:
      next = FTP_STATE_GET_LIST;
      break;
    case FTP_STATE_GET_LIST: {
      LoadFtpFile(0);
      CAutoLock guard(&m_lock);
      m_lastListFetch = m_env->WallSeconds();
      next = FTP_STATE_PARSE_LIST;
      break;
    }
    case FTP_STATE_PARSE_LIST:
      if (setconfig(0) == 0) {
        next = FTP_STATE_LOAD_FILE;  // setconfig put index to 0 with the new entries
      } else {
        next = FTP_STATE_GET_LIST;
        wait = kRetryInterval;
      }
      break;
    case FTP_STATE_LOAD_FILE:
      LoadFtpFile(1);
      next = FTP_STATE_CHECK_FILE;
      break;
    case FTP_STATE_CHECK_FILE:
      if (setconfig(1) < 0) {
        next = FTP_STATE_LOAD_FILE;
        wait = kRetryInterval;
      } else {
        CAutoLock guard(&m_lock);
        if (m_nEpoch != epoch) return;
        FtpFileList_t& list = m_pData->fileList;
        list.index += 1;
        next = list.index < list.count ? FTP_STATE_LOAD_FILE : FTP_STATE_FINISH;
      }
      break;
    case FTP_STATE_FINISH:
      wait = kRestInterval;
      next = FTP_STATE_START;
      break;
    default:  // FTP_STATE_UPDATING and anything unknown: stand still
      return;
  }
  {
    CAutoLock guard(&m_lock);
    if (m_nEpoch != epoch) return;  // a new account restarted the cycle meanwhile
    m_pData->state = next;
    *interval = wait;
  }
  PublishState();
}

// "key=value" lines (docs/FORMATS.md); the first 50 entries of the periodic list. Names come
// from the server: their control bytes are masked.
void CFtpMaintainMng::PublishState() {
  std::string text;
  auto put = [&text](const char* key, const std::string& value) {
    AppendStateLine(&text, key, value);
  };
  {
    CAutoLock guard(&m_lock);
    const UpgradeSet_t& a = m_pData->upgradeSet;
    char host[65];
    CopyField(host, sizeof(host), a.host, sizeof(a.host));
    put("server", std::string(host) + ":" + std::to_string(a.port));
    put("state", std::to_string(m_pData->state));
    put("list_fetched", std::to_string(static_cast<long long>(m_lastListFetch)));
    const FtpFileList_t& list = m_pData->fileList;
    put("entries", std::to_string(list.count));
    for (int i = 0; i < list.count && i < 50; ++i) {
      const FtpFileItem_t& e = list.pItems[i];
      char name[129];
      CopyField(name, sizeof(name), e.FileName, sizeof(e.FileName));
      put("entry", std::to_string(e.FileType) + " " + std::to_string(e.Status) + " " + name);
    }
  }
  PublishStateFile("maintain.state", text);
}

int CFtpMaintainMng::setconfig(int mode) {
  if (m_pData == nullptr) return -1;
  char path[256];
  uint32_t epoch;
  if (mode == 0) {
    {
      CAutoLock guard(&m_lock);
      EntryPath(path, m_pData->fileList.dir, "FileList.xml");
      epoch = m_nEpoch;
    }
    if (fileisexist(path) != 0 || getfilesize(path) <= 0) return -1;
    // Judged, then parsed from the very bytes that were judged into a list of its own, then
    // swapped in, so that the lock is never held while the file is read. A refused list
    // leaves no entry behind.
    std::string bytes;
    std::string why;
    FtpFileList_t parsed{};
    int r = -1;
    if (JudgeFileList(path, &bytes, &why)) {
      r = ParseFileListText(path, bytes, &parsed);
    } else {
      WriteDbgLog(2, "FileList.xml refused, nothing of it is used: %s\n", why.c_str());
    }
    CAutoLock guard(&m_lock);
    FtpFileList_t& list = m_pData->fileList;
    if (m_nEpoch != epoch) {
      free(parsed.pItems);
      return -1;
    }
    free(list.pItems);
    list.pItems = parsed.pItems;
    list.count = parsed.count;
    list.index = 0;
    return r == 0 ? 0 : -1;
  }
  if (mode != 1) return -1;

  FtpFileItem_t item;
  int index;
  {
    CAutoLock guard(&m_lock);
    FtpFileList_t& list = m_pData->fileList;
    index = list.index;
    if (index < 0 || index >= list.count) return 1;
    item = list.pItems[index];
    epoch = m_nEpoch;
    if (item.Status == FILE_STATUS_SKIP) return 1;
    EntryPath(path, list.dir, item.FileName);
  }
  bool complete = false;
  if (fileisexist(path) == 0) {
    int size = getfilesize(path);
    WriteDbgLog(0, "setconfig, filepath:%s getfilesize:%d %d\n", path, size, item.FileSize);
    complete = size == item.FileSize;
  }
  {
    CAutoLock guard(&m_lock);
    FtpFileList_t& list = m_pData->fileList;
    if (m_nEpoch != epoch || index >= list.count) return -1;
    FtpFileItem_t& live = list.pItems[index];
    if (!complete) {
      live.ErrTimes += 1;
      if (live.ErrTimes <= 2) return -1;
      live.Status = FILE_STATUS_FAIL;
      return 1;
    }
    live.Status = FILE_STATUS_DONE;
  }
  HandleFtpCmdFile(item.FileType, path);  // may run for minutes: without the lock
  return 0;
}

void CFtpMaintainMng::OnlineFtpProc() {
  if (m_pData == nullptr) return;
  FtpFileItem_t item;
  UpgradeSet_t account;
  char dir[128];
  int index;
  uint32_t epoch;
  {
    CAutoLock guard(&m_lock);
    FtpFileList_t& list = m_pData->onlineList;
    if (list.count == 0) return;
    if (list.count <= list.index) {
      ClearFileList(&list);  // finished: the next FileDownloadCmd starts at entry 0
      return;
    }
    index = list.index;
    item = list.pItems[index];
    account = m_pData->upgradeSet;
    memcpy(dir, list.dir, sizeof(dir));
    epoch = m_nEpoch;
  }
  // Writes status (unless negative) and errTimes into the live entry and, when next is set,
  // moves on to the following entry. False when the list was replaced meanwhile.
  auto settle = [&](int status, int errTimes, bool next) {
    CAutoLock guard(&m_lock);
    FtpFileList_t& list = m_pData->onlineList;
    if (m_nEpoch != epoch || index >= list.count) return false;
    if (status >= 0) list.pItems[index].Status = status;
    list.pItems[index].ErrTimes = errTimes;
    if (next) list.index = index + 1;
    return true;
  };

  if (IsNeedLoadFile(&item) != 0) {
    settle(FILE_STATUS_SKIP, item.ErrTimes, true);
    return;
  }
  if (LoadByType(&item, &account, dir) == 1) {  // this version is installed already
    settle(FILE_STATUS_SKIP, item.ErrTimes, true);
    return;
  }
  char path[256];
  EntryPath(path, dir, item.FileName);
  const char* failure = nullptr;
  if (fileisexist(path) != 0) {
    failure = "11 OnlineFtpProc ErrTimes = %d\n";
  } else if (getfilesize(path) != item.FileSize) {
    failure = "22 OnlineFtpProc ErrTimes = %d\n";
  }
  if (failure != nullptr) {
    int errTimes = item.ErrTimes + 1;
    if (errTimes <= 2) {
      settle(-1, errTimes, false);  // loaded again on the next pass
      return;
    }
    if (settle(FILE_STATUS_FAIL, errTimes, true)) WriteDbgLog(2, failure, errTimes);
    return;
  }
  if (settle(FILE_STATUS_DONE, item.ErrTimes, true)) HandleFtpCmdFile(item.FileType, path);
}
