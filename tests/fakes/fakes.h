// In-memory platform fakes for unit tests. Each installs itself on construction and restores
// the host implementation on destruction.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/evbus.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/status.h"
#include "platform/thread.h"

// A fresh directory used as VELMAR_ROOT for the life of the object.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  const std::string& path() const { return m_path; }
  // root + rel, with the directories leading to it created.
  std::string Make(const std::string& rel) const;
  // Writes text to root + rel.
  void Write(const std::string& rel, const std::string& text) const;

 private:
  std::string m_path;
  std::string m_oldRoot;
  bool m_hadRoot = false;
};

// The whole content of a file; empty when it cannot be read.
std::string ReadWholeFile(const std::string& path);

// A clock that moves only when told to or when something sleeps on it.
class FakeClock : public IClock {
 public:
  FakeClock();
  ~FakeClock() override;
  int64_t MonotonicMs() override;
  time_t WallSeconds() override;
  void SleepUs(uint64_t us) override;
  void AdvanceMs(int64_t ms);
  void SetMs(int64_t ms);
  uint64_t sleptUs() const;

 private:
  mutable std::mutex m_mutex;
  int64_t m_nowMs = 1000000;
  time_t m_wallBase = 1700000000;
  uint64_t m_sleptUs = 0;
  IClock* m_prev;
};

class LogCapture : public ILogSink {
 public:
  struct UserRecord {
    int type;
    unsigned code;
    std::string data;
  };
  LogCapture();
  ~LogCapture() override;
  void OnDbgLine(int level, const char* line) override;
  void OnUserRecord(int type, unsigned code, const void* data, unsigned len) override;
  std::vector<std::string> Lines() const;
  std::vector<UserRecord> UserRecords() const;
  // Number of debug lines that contain part.
  int Count(const std::string& part) const;

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_lines;
  std::vector<UserRecord> m_user;
  ILogSink* m_prev;
};

// A status service whose answers the test sets. Fault switch: failing[which].
class FakeStatus : public IStatusService {
 public:
  struct Disk {
    int id;
    int present;
  };
  FakeStatus();
  ~FakeStatus() override;
  int GetStatus(STATUS_E which, void* buf) override;
  int SetStatus(STATUS_E which, void* buf) override;
  int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list) override;
  int CheckDog() override;

  std::mutex mutex;  // guards everything below
  std::vector<Disk> disks;                           // status 21
  std::map<int, std::vector<PartEntry_t>> mounts;    // usage code -> entries
  std::map<int, std::vector<PartEntry_t>> partLists; // status 15/16/17 -> entries
  int recorderStatus = 1;
  int networkLink = 1;
  int deviceType = 0;
  std::string mcuVersion;
  int dog = 0;
  std::map<int, bool> failing;
  std::vector<std::vector<uint8_t>> networkSets;  // blocks given to SetStatus(11)
  std::vector<std::string> upgrades;              // "code path" given to SetStatus(25)
  std::vector<int> calls;                         // status codes asked, in order

  static PartEntry_t Entry(int type, const std::string& path);

 private:
  IStatusService* m_prev;
};

// Captures distributed events.
class FakeBus : public IEventPublisher {
 public:
  struct Event {
    EVENT_E event;
    std::vector<uint8_t> payload;
  };
  FakeBus();
  ~FakeBus() override;
  int Distribute(EVENT_E event, int len, const void* data) override;
  std::vector<Event> Events() const;
  std::vector<Event> Events(EVENT_E event) const;

 private:
  mutable std::mutex m_mutex;
  std::vector<Event> m_events;
  IEventPublisher* m_prev;
};

// Records command lines instead of running them; answers with `result`.
// A TCP socket bound to 127.0.0.1 on a port the kernel chose, listening with backlog (none
// when backlog < 0); its address goes to *addr. -1 on failure.
int LoopbackSocket(int backlog, sockaddr_in* addr);

class FakeShell : public IShellRunner {
 public:
  FakeShell();
  ~FakeShell() override;
  int RunLimited(const char* command, int seconds) override;
  int RunUnlimited(const char* command) override;
  std::vector<std::pair<std::string, int>> Commands() const;  // (command, limit; -1 none)
  // The same as "command @limit", one text each, for comparing whole sequences.
  std::vector<std::string> Lines() const;
  // Number of command lines that contain part.
  int Count(const std::string& part) const;
  int result = 0;
  // Called with every command line after it is recorded, to play a command's effect (a
  // download that lands a file). Set before the code under test runs.
  std::function<void(const std::string&)> onCommand;
  // When set, every command checks that another thread can take *mustBeFree while the
  // command runs; LockedRuns() counts the commands for which it could not (within 2 s).
  CLock* mustBeFree = nullptr;
  int LockedRuns() const { return m_lockedRuns; }

 private:
  void CheckLockFree();
  mutable std::mutex m_mutex;
  std::atomic<int> m_lockedRuns{0};
  std::vector<std::pair<std::string, int>> m_commands;
  IShellRunner* m_prev;
};
