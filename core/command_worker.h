// Remote commands (command files announced on the bus) run one at a time on a thread of their
// own. A user command may run for minutes and a log upload may wait on a silent server; on
// the bus listener's thread either would hold up the intake of tasks while the heartbeat
// went on, so that nothing noticed.
#pragma once

#include <deque>
#include <functional>
#include <string>

#include "platform/thread.h"

class CRemoteCmdWorker {
 public:
  static constexpr size_t kMaxWaiting = 8;  // commands queued behind the running one

  // A worker that runs handler(path) for each posted path, in order.
  explicit CRemoteCmdWorker(std::function<void(const char* path)> handler);
  // Lets the running command finish, drops the waiting ones and joins the thread.
  ~CRemoteCmdWorker();
  CRemoteCmdWorker(const CRemoteCmdWorker&) = delete;
  CRemoteCmdWorker& operator=(const CRemoteCmdWorker&) = delete;

  // Queues path and returns at once (the thread starts with the first post). False, with a
  // log line, when kMaxWaiting commands already wait or the thread cannot start.
  bool Post(const char* path);

 private:
  static void* Entry(void* self);
  void Run();

  const std::function<void(const char*)> m_handler;
  CLock m_lock;
  CCondition m_wake;
  std::deque<std::string> m_waiting GUARDED_BY(m_lock);
  bool m_stop GUARDED_BY(m_lock) = false;
  bool m_started GUARDED_BY(m_lock) = false;
  CommonCthread m_thread;
};
