// The upload thread: one task at a time, sent or resumed from the size the server holds.
#include <errno.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/env.h"
#include "platform/log.h"
#include "upload/ftp_upload_file_mng.h"
#include "upload/xfile.h"

namespace {

constexpr int kBlockSize = 16384;
constexpr int kWriteTimeoutSeconds = 10;
constexpr int kRecordingTolerance = 100;  // bytes a resent recording may differ by
constexpr uint64_t kPollUs = 100000;
constexpr uint64_t kRepeatPauseUs = 200000;
constexpr uint64_t kLoginFailPauseUs = 10000000;
constexpr uint64_t kFailPauseUs = 1000000;
constexpr uint64_t kPassPauseUs = 3000000;
// How long the size of a partial server copy must hold still before it is appended to, and
// how long a pass waits at most for that.
constexpr uint64_t kHoldStillUs = 2000000;
constexpr int kMaxHoldStillChecks = 60;
// Times a task is stored anew in one hand-over before it is given up (see StoreAnew).
constexpr int kMaxStoresAnew = 3;

std::atomic<bool> g_niceRefusalLogged{false};

pid_t ThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Raises the calling thread's priority for a send and puts it back afterwards. A refusal
// (no privilege) is logged once; the send goes on at the normal priority.
class SendPriority {
 public:
  SendPriority() {
    errno = 0;
    m_previous = getpriority(PRIO_PROCESS, static_cast<id_t>(ThreadId()));
    errno = 0;
    if (nice(-20) == -1 && errno != 0) {
      if (!g_niceRefusalLogged.exchange(true)) {
        WriteDbgLog(2, "nice(-20) refused (%s): uploads run at normal priority\n", strerror(errno));
      }
      return;
    }
    m_raised = true;
  }
  ~SendPriority() {
    if (m_raised) setpriority(PRIO_PROCESS, static_cast<id_t>(ThreadId()), m_previous);
  }

 private:
  int m_previous = 0;
  bool m_raised = false;
};

void* SyncThreadEntry(void* arg) {
  static_cast<CFtpUploadFileMng*>(arg)->FileSyncProcess();
  return nullptr;
}

bool Runnable(const TaskControl_t& c) { return c.valid == 1 && c.result == 0; }
bool Sending(const TaskControl_t& c) { return c.valid == 1 && c.trans == 1; }

// What a pass does with the copy the server holds. Equal sizes are complete, and so is a
// recording up to kRecordingTolerance bytes short once it has been sent (its length may differ
// slightly between generations). A shorter copy is continued. A longer copy cannot be an
// earlier part of the file (two writers fed it, or the file was replaced): it is stored anew
// rather than counted complete.
enum class ServerCopy { kComplete, kAppend, kStoreAnew };

ServerCopy JudgeServerCopy(int type, int64_t serverSize, int64_t localSize, bool sentBefore) {
  if (serverSize > localSize) return ServerCopy::kStoreAnew;
  if (serverSize == localSize) return ServerCopy::kComplete;
  if (type == 1 && sentBefore && localSize <= serverSize + kRecordingTolerance) {
    return ServerCopy::kComplete;
  }
  return ServerCopy::kAppend;
}

// The listed entry of the client's last listing named name, or nullptr.
const FtpDirEntry_t* FindListed(CFtpClient* client, const char* name) {
  const FtpClientData_t* data = client->FtpGetClientData();
  for (int i = 0; data != nullptr && i < data->entryCount && i < kFtpListCapacity; ++i) {
    if (strncmp(data->entries[i].name, name, sizeof(data->entries[i].name)) == 0) {
      return &data->entries[i];
    }
  }
  return nullptr;
}

}  // namespace

int CFtpUploadFileMng::StartSyncThread() {
  if (m_bStarted) return 0;
  m_nBusy = 0;
  m_nTransState = 0;
  ClearTask();
  int r = m_thread.Start(SyncThreadEntry, this, "FTP File Sync Process thread");
  m_bStarted = r == 0 ? 1 : 0;
  return r;
}

void CFtpUploadFileMng::CountSend() {
  CAutoLock guard(&m_taskLock);
  ++m_stTask.sendTimes;
}

void CFtpUploadFileMng::CountConnFail() {
  CAutoLock guard(&m_taskLock);
  ++m_stTask.connFailTimes;
}

void CFtpUploadFileMng::ResetConnFail() {
  CAutoLock guard(&m_taskLock);
  m_stTask.connFailTimes = 0;
}

bool CFtpUploadFileMng::WaitRunnable() {
  for (;;) {
    if (m_thread.GetStatus() == 0) return false;
    m_env->SleepUs(kPollUs);
    TaskControl_t c = LoadTaskControl(&m_stTask);
    if (Runnable(c)) return true;
    if (c.trans != 0) StoreControlByte(&m_stTask.trans, 0);
  }
}

void CFtpUploadFileMng::FileSyncProcess() {
  if (m_pFtpClient == nullptr) m_pFtpClient = m_env->NewFtpClient();
  m_pFtpClient->Init(WriteDbgLog);
  ftpFileInfo_t previous{};
  while (WaitRunnable()) {
    if (LoadTaskControl(&m_stTask).trans != 1) continue;
    RunPass(&previous);
  }
  m_pFtpClient->FtpClose();
  delete m_pFtpClient;
  m_pFtpClient = nullptr;
  m_thread.Stop();
}

void CFtpUploadFileMng::RunPass(ftpFileInfo_t* previous) {
  m_nBusy = 1;
  ftpFileInfo_t task = SnapshotTask();
  if (task.connFailTimes > 3) {
    WriteDbgLog(2, "seq:%d given up after four failed connections\n", static_cast<int>(task.seq));
    GiveUp(task, kGaveUpConnections);
    m_nBusy = 0;
    return;  // a task given up gets no further connection
  }
  if (memcmp(&task, previous, sizeof(task)) == 0) m_env->SleepUs(kRepeatPauseUs);
  CFtpClient* client = m_pFtpClient;
  client->FtpSetServerInfo(&task.server);
  client->FtpSetLocalInfo(task.fileDir, task.fileName);
  *previous = task;

  if (client->FtpStart() < 0) {
    CountConnFail();
    m_env->SleepUs(kLoginFailPauseUs);
    m_nBusy = 0;
    return;
  }
  int listed = client->FtpGetServerDirFile();
  if (listed < 0) {
    // Logged in but no listing (a refused or malformed passive reply, a lost data
    // connection): a failed connection like any other, so that the task is given up in time.
    CountConnFail();
  } else {
    const FtpDirEntry_t* match = FindListed(client, task.fileName);
    if (match == nullptr) {
      StoreAnew(task);
    } else {
      ResumeFrom(task, match->size);
    }
  }
  m_nBusy = 0;
  client->FtpClose();
  // A connection that failed after the login (listing, data connection, SIZE) is paced like a
  // failed login: with the short pause a hiccup of a few seconds in the server's data port
  // used up the four tries in 12 s.
  bool failed = SnapshotTask().connFailTimes > task.connFailTimes;
  m_env->SleepUs(failed ? kLoginFailPauseUs : kPassPauseUs);
}

void CFtpUploadFileMng::GiveUp(const ftpFileInfo_t& task, uint8_t why) {
  m_nLastGaveUpWhy = why;
  m_nLastGaveUpSeq = task.seq;
  ++m_nGaveUp;
  SendTaskStatus(static_cast<int>(task.seq), 1);
  if (m_pTaskControl != nullptr) {
    m_pTaskControl->SetFtpTrans(task.type, 2, static_cast<int>(task.seq));
  }
  ResetConnFail();
}

// A server whose copy never comes out as the whole file (its listing or SIZE misreports, the
// file keeps changing under the send) would be sent the whole file pass after pass without
// end: after kMaxStoresAnew stores in one hand-over the task is given up instead.
void CFtpUploadFileMng::StoreAnew(const ftpFileInfo_t& task) {
  if (m_nStoresAnew >= kMaxStoresAnew) {
    WriteDbgLog(2, "seq:%d file:%s: stored anew %d times, never complete on the server: given up\n",
                static_cast<int>(task.seq), task.fullName, kMaxStoresAnew);
    GiveUp(task, kGaveUpStores);
    return;
  }
  SendFile2FtpServer(task.fullName, 0, 0);
  CountSend();
}

void CFtpUploadFileMng::ResumeFrom(const ftpFileInfo_t& task, int64_t serverSize) {
  CXFile source(task.type, m_env, &m_spans);
  int64_t localSize = 0;
  if (!source.XsizeIfExists(task.fullName, &localSize)) {
    WriteDbgLog(0, "\n\n%s:%d file:%s not exist!\n\n", "FileSyncProcess", 373, task.fullName);
    StoreControlByte(&m_stTask.result, 2);  // a copy cannot be checked: never delivered
    return;
  }
  bool sentBefore = SnapshotTask().sendTimes != 0;
  if (JudgeServerCopy(task.type, serverSize, localSize, sentBefore) == ServerCopy::kAppend) {
    if (!SizeHoldsStill(task, &serverSize)) {
      if (Sending(LoadTaskControl(&m_stTask))) CountConnFail();  // not when switched off
      return;
    }
  }
  // A listing line is the server's word on a directory; SIZE asks it about the file itself.
  // Where the two differ, SIZE decides (a copy listed as whole but short is continued, one
  // listed short but whole is complete); a server offering no SIZE is taken at its listing.
  int64_t second = m_pFtpClient->FtpGetFileSize();
  if (second == -2) {
    CountConnFail();
    return;
  }
  if (second >= 0 && second != serverSize) {
    WriteDbgLog(2, "seq:%d file:%s: listed with %lld bytes, SIZE %lld: judged on SIZE\n",
                static_cast<int>(task.seq), task.fileName, static_cast<long long>(serverSize),
                static_cast<long long>(second));
    serverSize = second;
  }
  ServerCopy copy = JudgeServerCopy(task.type, serverSize, localSize, sentBefore);
  WriteDbgLog(0, "seq:%d file:%s size[%lld,%lld] %s\n", static_cast<int>(task.seq), task.fullName,
              static_cast<long long>(serverSize), static_cast<long long>(localSize),
              copy == ServerCopy::kComplete ? "finish!" : "...");
  if (copy == ServerCopy::kComplete) {
    StoreControlByte(&m_stTask.result, 1);
  } else if (copy == ServerCopy::kAppend) {
    SendFile2FtpServer(task.fullName, 1, serverSize);
    CountSend();
  } else {
    WriteDbgLog(0, "seq:%d file:%s: stored anew: the server's copy is larger\n",
                static_cast<int>(task.seq), task.fullName);
    StoreAnew(task);
  }
}

// A connection that has not ended yet (of an earlier pass, or of a process that died and
// whose data is still queued on the way or at the server) may still be feeding the server's
// copy; appending behind it would put two writers in one file. The directory is listed again
// every kHoldStillUs until the size stops changing; *size is then the size to append to.
bool CFtpUploadFileMng::SizeHoldsStill(const ftpFileInfo_t& task, int64_t* size) {
  for (int check = 0; check < kMaxHoldStillChecks; ++check) {
    m_env->SleepUs(kHoldStillUs);
    if (!Sending(LoadTaskControl(&m_stTask))) return false;
    if (m_pFtpClient->FtpGetServerDirFile() < 0) return false;
    const FtpDirEntry_t* again = FindListed(m_pFtpClient, task.fileName);
    int64_t now = again != nullptr ? again->size : -1;
    if (now == *size) return true;
    if (check == 0) {
      WriteDbgLog(2,
                  "seq:%d file:%s: the server's copy is still growing (%lld, then %lld bytes); "
                  "waiting for it to end\n",
                  static_cast<int>(task.seq), task.fileName, static_cast<long long>(*size),
                  static_cast<long long>(now));
    }
    if (now < 0) return false;
    *size = now;
  }
  WriteDbgLog(2, "seq:%d file:%s: the server's copy did not stop growing\n",
              static_cast<int>(task.seq), task.fileName);
  return false;
}

void CFtpUploadFileMng::SendFile2FtpServer(const char* path, int mode, int64_t offset) {
  char* buffer = static_cast<char*>(malloc(kBlockSize));
  if (buffer == nullptr) return;
  SendPriority priority;
  ftpFileInfo_t task = SnapshotTask();
  CFtpClient* client = m_pFtpClient;
  FtpClientData_t* data = client->FtpGetClientData();
  // The source is opened first, for reading only: a source that cannot be read leaves no empty
  // file on the server, and one the service may read but not write is sent.
  CXFile source(task.type, m_env, &m_spans);
  if (source.Xopen(path, "rb") == -1) {
    WriteDbgLog(0, "ftp Xopen file:%s faild\n", path);
    StoreControlByte(&m_stTask.result, 2);
    free(buffer);
    m_env->SleepUs(kFailPauseUs);
    return;
  }
  if (client->FtpCreateDateSockFd(mode) < 0 || data == nullptr) {
    source.Xclose();
    CountConnFail();
    WriteDbgLog(0, "ftp Create DateSockFd faild cnt:%d\n", SnapshotTask().connFailTimes);
    free(buffer);
    m_env->SleepUs(kFailPauseUs);
    return;
  }
  if (mode == 0) ++m_nStoresAnew;  // a store that reached the server
  if (source.Xseek(offset, SEEK_SET) != 0) {
    source.Xclose();
    m_nTransState = 2;
    WriteDbgLog(0, "ftp Xseek file:%lld faild cnt:%d\n", static_cast<long long>(offset),
                task.sendTimes);
    free(buffer);
    m_env->SleepUs(kFailPauseUs);
    return;
  }
  m_nSendFrom = offset;
  m_nSent = 0;
  // The open source's own size: a recording is not opened and counted through once more.
  int64_t sendTotal = source.Xsize();
  m_nSendTotal = sendTotal > 0 ? sendTotal : 0;
  m_nSendStartMs = m_env->NowMs();
  time_t start = m_env->WallSeconds();
  time_t lastReport = start;
  int64_t total = 0;
  int64_t sinceReport = 0;
  int emptyReads = 0;
  m_nTransState = 1;
  while (Sending(LoadTaskControl(&m_stTask))) {
    int32_t n = source.Xread(buffer, 1, kBlockSize);
    if (n <= 0) {
      if (++emptyReads < 3) continue;
      printf("ftp trans file:%s return:%d\n", path, n);
      break;
    }
    int r = client->FtpWriteDate(data->dataFd, buffer, n, kWriteTimeoutSeconds);
    if (r < 0) {
      WriteDbgLog(0, "FtpWriteDate len:%d, ret:%d trans next\n", n, r);
      break;
    }
    total += n;
    m_nSent = total;
    sinceReport += n;
    emptyReads = 0;
    time_t now = m_env->WallSeconds();
    if (now != lastReport) {
      if (TraceEnabled()) {
        WriteDbgLog(0, "ftp trans %.2f kb/s\n", static_cast<float>(sinceReport * (1.0 / 1024)));
      }
      sinceReport = 0;
      lastReport = now;
    }
  }
  time_t end = m_env->WallSeconds();
  TaskControl_t c = LoadTaskControl(&m_stTask);
  int stopBy = c.trans != 1 ? 2 : (c.valid != 1 ? 1 : 0);
  if (c.valid != 1) StoreControlByte(&m_stTask.result, 3);
  printf("send data:%d    vaild:%d       trans:%d\n", static_cast<int>(total), c.valid, c.trans);
  WriteDbgLog(2, "%s:%d tarns %s file used time:%d s stop by:%d \n", "SendFile2FtpServer", 230,
              path, static_cast<int>(end - start), stopBy);
  source.Xclose();
  m_env->SleepUs(20);
  m_nTransState = 2;
  free(buffer);
}
