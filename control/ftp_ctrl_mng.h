// The upload control manager: the task queue, the table of storage disks and the current disk.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>

#include "platform/file2ftpdb.h"
#include "platform/thread.h"
#include "upload/ftp_records.h"
#include "upload/task_control.h"

class CFile2FtpDbMng;
class CFtpUploadFileMng;
class Env;

typedef void (*DataSync_f)(char* mountDir, std::list<ftpFileInfo_t>& taskList, CLock* lock);

// Loads the tasks of the database of the disk mounted at mountDir that are not in taskList
// yet, appending them under *lock. The first form uses the host database.
void dataSync(char* mountDir, std::list<ftpFileInfo_t>& taskList, CLock* lock);
// done: names of tasks completed in this run; their rows are deleted from the disk, not loaded.
void dataSync(CFile2FtpDbMng* db, char* mountDir, std::list<ftpFileInfo_t>& taskList, CLock* lock,
              const std::list<std::string>* done = nullptr);

struct ftpDiskInfo_t {
  int32_t id;          // status identifier 1, 5, 6, 7, 8 or 9; never 0
  char path[64];       // mount directory
  DataSync_f pfnSync;  // always dataSync; the manager itself loads through its Env's database
};

struct ftpCurDisk_t {
  int32_t id;      // 0: no disk, nothing is scheduled
  char path[128];  // mount directory
};

class CFtpCtrlMng : public ITaskControl {
 public:
  // The singleton on the default Env and the engine's singleton, created on first use and
  // never destroyed. Safe from any thread.
  static CFtpCtrlMng* Instance();

  // A manager of env's disks that hands its tasks to engine, and hands itself to the engine
  // as its task control. Both must outlive it.
  CFtpCtrlMng(Env* env, CFtpUploadFileMng* engine);

  // Follows the storage disks the status service reports (every 5000 ms, main thread).
  void CheckDiskState(uint32_t seconds);
  // Admits a task: 0 admitted, -1 refused. Request thread.
  int InsertFileInfo(ftpFileInfo_t* info);
  // Transfer control of the tasks (seq, fileType): 0 off, 1 on, 2 delete.
  void SetFtpTrans(int fileType, unsigned int ctrType, int seq) override;
  // Distributes the task status event (status 0: every task of seq is done).
  void SendTaskStatus(int seq, int status);
  // One scheduler pass (every 200 ms, main thread).
  void ScheduleTask(uint32_t seconds);

  // Constant after construction.
  Env* const m_env;
  CFtpUploadFileMng* const m_pEngine;
  // Written only by the scheduler (main thread); read by tests.
  uint32_t m_netMask = 0;
  int32_t m_netLink = 0;  // the network status's link value m_netMask was worked out from
  uint32_t m_lastSecond = 0;
  uint32_t m_lastPublished = 0;
  // Guards m_taskList and the records in it.
  CLock m_lock;
  int32_t m_lastActive = 0;
  // Guards m_curDisk between the main thread and the request thread. Never taken under m_lock.
  mutable CLock m_curDiskLock;
  // Written only by CheckDiskState (main thread); other threads read it through CurDisk().
  ftpCurDisk_t m_curDisk GUARDED_BY(m_curDiskLock){};
  std::list<ftpFileInfo_t> m_taskList GUARDED_BY(m_lock);
  // Used only on the main thread.
  std::map<int32_t, ftpDiskInfo_t> m_diskMap;
  // Rows of queued tasks that the database refused; written again at each disk check.
  std::list<__ftp_log> m_unsaved GUARDED_BY(m_lock);
  // Names of the tasks that ended in this run (newest last, at most kDoneMax). Their rows
  // were deleted only from the disks present then; a disk that was away still holds them and
  // must not bring them back when it returns.
  std::list<std::string> m_done GUARDED_BY(m_lock);
  // (seq, type) of numbers one of whose tasks could not be read while others are still queued:
  // their status, sent when the last task ends, is 1. Bounded by the queue.
  std::set<std::pair<uint32_t, int>> m_failedSeqs GUARDED_BY(m_lock);
  static constexpr size_t kDoneMax = 1000;
  // Refused tasks since the last refusal log line, and when that line was written (seconds
  // of the Env's monotonic clock; 0: never). Request thread.
  std::atomic<uint32_t> m_nRefused{0};
  std::atomic<uint32_t> m_nRefusedTotal{0};  // since the start, published
  // The latest refused task and why (a string literal), published.
  std::atomic<uint32_t> m_nLastRefusedSeq{0};
  std::atomic<const char*> m_pLastRefusal{""};
  std::atomic<int64_t> m_lastRefusalLog{0};
  static constexpr int64_t kRefusalLogSeconds = 10;

  CFtpCtrlMng(const CFtpCtrlMng&) = delete;
  CFtpCtrlMng& operator=(const CFtpCtrlMng&) = delete;

  // A copy of m_curDisk. Safe from any thread; must not be called with m_lock held.
  ftpCurDisk_t CurDisk() const EXCLUDES(m_lock);

 private:
  // dataSync of mountDir through the Env's database. dataSync takes m_lock itself around each
  // use of the list, which the analysis cannot see through the reference it is handed.
  void SyncDisk(char* mountDir) NO_THREAD_SAFETY_ANALYSIS;
  // Makes the smallest slot of the disk table the current disk, logging a change.
  void FollowSmallestSlot();
  // The once-a-second network step of the scheduler. False when the status is unreadable.
  bool UpdateNetwork(uint32_t seconds);
  // Scheduler steps with m_lock held: follow the engine's task, or hand over the head task.
  void FollowEngineTask(const ftpFileInfo_t& held, uint32_t seconds) REQUIRES(m_lock);
  void OfferHeadTask(uint32_t seconds) REQUIRES(m_lock);
  // Removes the head task from the list and its rows (and, if flagged, its file) per disk.
  void DropHeadTask() REQUIRES(m_lock);
  // Replaces run/velmar/upload.state with the present disk, queue and send (once a second).
  void PublishState(uint32_t seconds) EXCLUDES(m_lock);
  // Stores the rows of m_unsaved whose tasks are still queued into the table of diskPath.
  void SaveUnsaved(const char* diskPath);
  // Counts a refused task and logs it, rate-limited.
  void LogRefusal(const ftpFileInfo_t& task, const char* why);
  // Writes the refusal line when refusals are waiting for it and the last line is old enough.
  void FlushRefusals();
  // Notes that the task named fullName has ended. Caller holds m_lock.
  void RememberDone(const char* fullName) REQUIRES(m_lock);
  // The current disk keeps its id but no longer its directory once it has left the table.
  void ForgetGoneCurrentDisk();
  // Writes every queued task into each database the library had to make anew.
  void RestoreRemade();
  // Database delete and list update of transfer control; see SetFtpTrans.
  void DeleteTasks(int fileType, int seq, const char* diskPath);
  void SwitchTasks(int fileType, unsigned int ctrType, int seq, const char* diskPath);

  static CFtpCtrlMng* m_pInstance;
};
