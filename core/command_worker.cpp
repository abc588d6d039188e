#include "core/command_worker.h"

#include "platform/log.h"

CRemoteCmdWorker::CRemoteCmdWorker(std::function<void(const char*)> handler)
    : m_handler(std::move(handler)) {}

CRemoteCmdWorker::~CRemoteCmdWorker() {
  {
    CAutoLock guard(&m_lock);
    m_stop = true;
    m_waiting.clear();
    m_wake.Signal();
  }
  m_thread.Join();
}

bool CRemoteCmdWorker::Post(const char* path) {
  CAutoLock guard(&m_lock);
  if (m_waiting.size() >= kMaxWaiting) {
    WriteDbgLog(2, "remote command %s dropped: %zu commands already wait\n", path,
                m_waiting.size());
    return false;
  }
  if (!m_started) {
    if (m_thread.Start(Entry, this, "velmar commands") != 0) {
      WriteDbgLog(2, "remote command %s dropped: no thread to run it\n", path);
      return false;
    }
    m_started = true;
  }
  m_waiting.emplace_back(path);
  m_wake.Signal();
  return true;
}

void* CRemoteCmdWorker::Entry(void* self) {
  static_cast<CRemoteCmdWorker*>(self)->Run();
  return nullptr;
}

void CRemoteCmdWorker::Run() {
  for (;;) {
    std::string path;
    {
      CAutoLock guard(&m_lock);
      while (m_waiting.empty() && !m_stop) m_wake.Wait(&m_lock);
      if (m_stop) break;
      path = std::move(m_waiting.front());
      m_waiting.pop_front();
    }
    m_handler(path.c_str());
  }
  m_thread.Stop();
}
