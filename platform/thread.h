// Threads and locks of the recorder's platform library.
#pragma once

#include <pthread.h>

#include <atomic>

#include "platform/thread_annotations.h"

// A non-recursive mutex. No path in the service takes a CLock twice.
class CAPABILITY("mutex") CLock {
 public:
  CLock();
  ~CLock();
  CLock(const CLock&) = delete;
  CLock& operator=(const CLock&) = delete;
  void Lock() ACQUIRE();
  void Unlock() RELEASE();
  // States that the caller holds the lock, where the analysis cannot follow it (a function
  // reached through an opaque pointer). Checks nothing at run time.
  void AssertHeld() const ASSERT_CAPABILITY(this) {}

 private:
  friend class CCondition;
  pthread_mutex_t m_mutex;
};

// A condition variable waited on under a CLock.
class CCondition {
 public:
  CCondition();
  ~CCondition();
  CCondition(const CCondition&) = delete;
  CCondition& operator=(const CCondition&) = delete;
  // Releases *lock until Signal (or a spurious wake-up), then holds it again.
  void Wait(CLock* lock) REQUIRES(lock);
  // Wakes one waiter, if any.
  void Signal();

 private:
  pthread_cond_t m_cond;
};

// Holds *lock for the life of the scope.
class SCOPED_CAPABILITY CAutoLock {
 public:
  explicit CAutoLock(CLock* lock) ACQUIRE(lock) : m_pLock(lock) { m_pLock->Lock(); }
  ~CAutoLock() RELEASE() { m_pLock->Unlock(); }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CLock* m_pLock;
};

typedef void* (*ThreadEntry_f)(void*);

// One worker thread. The worker polls GetStatus() and, when it answers 0, calls Stop() and
// returns. Safe to call GetStatus/RequestStop from any thread.
class CommonCthread {
 public:
  CommonCthread() = default;
  ~CommonCthread();  // asks the thread to stop and joins it
  CommonCthread(const CommonCthread&) = delete;
  CommonCthread& operator=(const CommonCthread&) = delete;

  // Starts entry(arg) on a new thread named name (cut to 15 characters). 0 on success,
  // -1 when already started or when the thread cannot be created.
  int Start(ThreadEntry_f entry, void* arg, const char* name);
  // Non-zero while the thread is to run: started, not asked to stop, not stopped.
  int GetStatus() const;
  // Called by the worker when it ends: marks the thread stopped.
  void Stop();
  // Asks the worker to end; GetStatus answers 0 from now on.
  void RequestStop();
  // RequestStop, then waits for the worker to return. Not from the worker itself.
  void Join();

 private:
  pthread_t m_tid{};
  std::atomic<bool> m_bJoinable{false};
  std::atomic<int> m_nRunning{0};
};

// The C-style thread record used by the maintenance thread.
struct CommonThread_st;
typedef void (*CommonThreadProc_f)(CommonThread_st* thread, void* arg);

// A new, not yet started thread record; null when it cannot be allocated.
CommonThread_st* ThreadInit();
// Starts proc(thread, arg) on a new thread. 0 on success, negative on failure.
int ThreadStart(CommonThread_st* thread, CommonThreadProc_f proc, void* arg, const char* name);
// Non-zero while the thread is to run; 0 once ThreadStop was called (or for null).
int ThreadGetStatus(CommonThread_st* thread);
// Asks the thread to end and waits for it. 0, or -1 for null.
int ThreadStop(CommonThread_st* thread);
// Releases the record (stopping the thread first if it still runs). Null is ignored.
void ThreadUninit(CommonThread_st* thread);
