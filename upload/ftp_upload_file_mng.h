// The upload engine: sends one task at a time on its own thread. Upload control hands it a
// task with SetTask and steers it with SetTaskTrans.
//
// Sharing rules. m_nBusy and m_nTransState are atomics. The control bytes of m_stTask
// (valid, net, trans, result) are only ever read and written with atomic byte operations, so
// other threads may flip valid/trans while the thread reads them. Every other byte of
// m_stTask is guarded by m_taskLock; whole-record copies go through SetTask and SnapshotTask.
#pragma once

#include <atomic>
#include <cstdint>

#include "avi/read_avi.h"
#include "platform/ftpclient.h"
#include "platform/thread.h"
#include "upload/ftp_records.h"
#include "upload/task_control.h"

class Env;

// Atomic access to the control bytes of a shared record.
inline uint8_t LoadControlByte(const uint8_t* b) { return __atomic_load_n(b, __ATOMIC_ACQUIRE); }
inline void StoreControlByte(uint8_t* b, uint8_t v) { __atomic_store_n(b, v, __ATOMIC_RELEASE); }

// The four control bytes valid, net, trans, result, read in one 32-bit load.
struct TaskControl_t {
  uint8_t valid;
  uint8_t net;
  uint8_t trans;
  uint8_t result;
};
TaskControl_t LoadTaskControl(const ftpFileInfo_t* task);

class CFtpUploadFileMng {
 public:
  // The singleton on the default Env, created on first use. Safe from any thread.
  static CFtpUploadFileMng* Instance();

  // An engine that takes time, its FTP clients and its sources from env (which must outlive
  // it). It has no task control until one is handed over.
  explicit CFtpUploadFileMng(Env* env);
  ~CFtpUploadFileMng();

  // Where the engine gives a task up (transfer control delete). Called once, before the
  // upload thread starts; the control manager hands itself over when it is made.
  void SetTaskControl(ITaskControl* control) { m_pTaskControl = control; }

  // Logs, resets the transfer state, copies the task and clears its result. Called by the
  // scheduler only while m_nBusy is 0.
  void SetTask(const ftpFileInfo_t* task);
  // Stores valid and trans into the held task, whatever it is; a 0 resets the transfer state.
  // Safe from any thread.
  void SetTaskTrans(uint8_t valid, uint8_t trans);
  // Distributes the task status event.
  void SendTaskStatus(int seq, int status);
  // A consistent copy of the held task. Safe from any thread.
  ftpFileInfo_t SnapshotTask() const;

  // Starts the upload thread once; 0 when it runs (also when it already ran).
  int StartSyncThread();
  // The thread body: passes over the held task until the thread is told to stop.
  void FileSyncProcess();
  // One pass over a runnable task with transfer on: log in, compare with the server's copy,
  // send or resume. Returns after the pass's closing pause. Upload thread only.
  void RunPass(ftpFileInfo_t* previous);
  // Sends path from offset (mode 0 anew, 1 append) while the task stays runnable.
  void SendFile2FtpServer(const char* path, int mode, int64_t offset);
  // The server lists serverSize bytes of the task's file. Once that size holds still (when it
  // is to be appended to) and SIZE has had its say: counts it complete when it is the whole
  // file, appends to a shorter copy, stores the file anew over a larger one. A source that is
  // gone is never complete (result 2).
  void ResumeFrom(const ftpFileInfo_t& task, int64_t serverSize);
  // Lists the directory again after pauses until the file's size (in and out: *size) stops
  // changing: true then; false when it would not, or the pass is to end.
  bool SizeHoldsStill(const ftpFileInfo_t& task, int64_t* size);

  // Constant after construction (and SetTaskControl).
  Env* const m_env;
  ITaskControl* m_pTaskControl = nullptr;

  uint8_t m_bStarted = 0;
  std::atomic<int16_t> m_nBusy{0};        // 1 while the thread works a pass
  std::atomic<int16_t> m_nTransState{0};  // 0 idle/new, 1 sending, 2 send ended
  // Progress of the latest send, for the published state: the server's size it started from,
  // the bytes sent since, the file's whole size and when it started (Env's monotonic ms).
  // Written by the upload thread, read by any.
  std::atomic<int64_t> m_nSendFrom{0}, m_nSent{0}, m_nSendTotal{0}, m_nSendStartMs{0};
  // Tasks given up since the start (four failed connections, stored anew too often), and the
  // last one's seq.
  std::atomic<uint32_t> m_nGaveUp{0}, m_nLastGaveUpSeq{0};
  // Why the last one was given up: kGaveUpConnections or kGaveUpStores.
  static constexpr uint8_t kGaveUpConnections = 0, kGaveUpStores = 1;
  std::atomic<uint8_t> m_nLastGaveUpWhy{kGaveUpConnections};
  // Stores (data connections in mode 0) of the held task since it was handed over.
  std::atomic<int> m_nStoresAnew{0};
  CFtpClient* m_pFtpClient = nullptr;  // owned by the upload thread
  // The measured lengths of closed recordings, shared by every opening of a task's sources: its
  // send and the next pass's completeness check count its frames once between them.
  AviSpanCache m_spans;
  ftpFileInfo_t m_stTask GUARDED_BY(m_taskLock){};  // see the sharing rules above
  CommonCthread m_thread;
  mutable CLock m_taskLock;

  CFtpUploadFileMng(const CFtpUploadFileMng&) = delete;
  CFtpUploadFileMng& operator=(const CFtpUploadFileMng&) = delete;

 private:
  // Waits in 100 ms steps for a runnable task, clearing trans meanwhile. False when the
  // thread is to stop.
  bool WaitRunnable();
  // Zeroes the held task (no task: valid 0).
  void ClearTask();
  // Adds to the engine-owned counters of the held task.
  void CountSend();
  void CountConnFail();
  void ResetConnFail();
  // Announces the task given up (status 1) and has transfer control delete it.
  void GiveUp(const ftpFileInfo_t& task, uint8_t why);
  // Sends the whole file, unless it was stored anew too often: then gives the task up.
  void StoreAnew(const ftpFileInfo_t& task);

 private:
  static CFtpUploadFileMng* m_pInstance;
};
