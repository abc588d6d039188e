#include "platform/thread.h"

#include <cstdlib>
#include <cstring>
#include <new>

CLock::CLock() { pthread_mutex_init(&m_mutex, nullptr); }
CLock::~CLock() { pthread_mutex_destroy(&m_mutex); }
void CLock::Lock() { pthread_mutex_lock(&m_mutex); }
void CLock::Unlock() { pthread_mutex_unlock(&m_mutex); }

CCondition::CCondition() { pthread_cond_init(&m_cond, nullptr); }
CCondition::~CCondition() { pthread_cond_destroy(&m_cond); }
void CCondition::Wait(CLock* lock) { pthread_cond_wait(&m_cond, &lock->m_mutex); }
void CCondition::Signal() { pthread_cond_signal(&m_cond); }

namespace {

void NameThread(pthread_t tid, const char* name) {
  if (name == nullptr) return;
  char shortName[16];
  strncpy(shortName, name, sizeof(shortName) - 1);
  shortName[sizeof(shortName) - 1] = '\0';
  pthread_setname_np(tid, shortName);
}

}  // namespace

CommonCthread::~CommonCthread() { Join(); }

int CommonCthread::Start(ThreadEntry_f entry, void* arg, const char* name) {
  if (m_bJoinable.load()) return -1;
  m_nRunning.store(1);
  if (pthread_create(&m_tid, nullptr, entry, arg) != 0) {
    m_nRunning.store(0);
    return -1;
  }
  m_bJoinable.store(true);
  NameThread(m_tid, name);
  return 0;
}

int CommonCthread::GetStatus() const { return m_nRunning.load(); }
void CommonCthread::Stop() { m_nRunning.store(0); }
void CommonCthread::RequestStop() { m_nRunning.store(0); }

void CommonCthread::Join() {
  RequestStop();
  if (m_bJoinable.exchange(false)) pthread_join(m_tid, nullptr);
}

struct CommonThread_st {
  pthread_t tid;
  bool started;
  std::atomic<int> running;
  CommonThreadProc_f proc;
  void* arg;
};

namespace {

void* ThreadTrampoline(void* p) {
  CommonThread_st* t = static_cast<CommonThread_st*>(p);
  t->proc(t, t->arg);
  return nullptr;
}

}  // namespace

CommonThread_st* ThreadInit() {
  CommonThread_st* t = new (std::nothrow) CommonThread_st();
  if (t == nullptr) return nullptr;
  t->started = false;
  t->running.store(0);
  return t;
}

int ThreadStart(CommonThread_st* t, CommonThreadProc_f proc, void* arg, const char* name) {
  if (t == nullptr || proc == nullptr || t->started) return -1;
  t->proc = proc;
  t->arg = arg;
  t->running.store(1);
  if (pthread_create(&t->tid, nullptr, ThreadTrampoline, t) != 0) {
    t->running.store(0);
    return -1;
  }
  t->started = true;
  NameThread(t->tid, name);
  return 0;
}

int ThreadGetStatus(CommonThread_st* t) { return t != nullptr ? t->running.load() : 0; }

int ThreadStop(CommonThread_st* t) {
  if (t == nullptr) return -1;
  t->running.store(0);
  if (t->started && !pthread_equal(t->tid, pthread_self())) {
    pthread_join(t->tid, nullptr);
    t->started = false;
  }
  return 0;
}

void ThreadUninit(CommonThread_st* t) {
  if (t == nullptr) return;
  ThreadStop(t);
  delete t;
}
