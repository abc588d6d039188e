// In-memory platform fakes for unit tests, and TestEnv, the Env that plugs them in: a role
// whose fake is not plugged in is the host's.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/env.h"
#include "platform/evbus.h"
#include "platform/file2ftpdb.h"
#include "platform/fileutil.h"
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
  void Write(const std::string& rel, const std::string& text) const;

 private:
  bool m_hadRoot;
  std::string m_path, m_oldRoot;
};

// Points VELMAR_ROOT at a fresh directory whose log files are /dev/null, for fuzz targets
// that run millions of inputs. Once per process.
void DiscardLogFiles();

// The whole content of a file; empty when it cannot be read.
std::string ReadWholeFile(const std::string& path);

// A list that any thread may append to while the test reads it.
template <typename T>
class Recorder {
 public:
  void Add(T item) {
    std::lock_guard<std::mutex> g(m_mutex);
    m_items.push_back(std::move(item));
  }
  std::vector<T> All() const {
    std::lock_guard<std::mutex> g(m_mutex);
    return m_items;
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<T> m_items;
};

// A clock that moves only when told to or when something sleeps on it.
class FakeClock {
 public:
  int64_t NowMs() const { return m_nowMs; }
  time_t WallSeconds() const { return 1700000000 + static_cast<time_t>(m_nowMs / 1000); }
  void SleepUs(uint64_t us) {
    m_nowMs += static_cast<int64_t>(us / 1000);  // first: whoever sees the sleep sees the time
    m_sleptUs += us;
  }
  void AdvanceMs(int64_t ms) { m_nowMs += ms; }
  void SetMs(int64_t ms) { m_nowMs = ms; }
  uint64_t sleptUs() const { return m_sleptUs; }

 private:
  std::atomic<int64_t> m_nowMs{1000000};
  std::atomic<uint64_t> m_sleptUs{0};
};

// The user-log records the current sandbox root received since construction.
class LogCapture {
 public:
  struct UserRecord {
    int type;
    unsigned code;
    std::string data;
  };
  LogCapture();
  std::vector<UserRecord> UserRecords() const;

 private:
  std::string m_user;
  size_t m_userStart;
};

// A status service whose answers the test sets. Fault switch: failing[which].
class FakeStatus {
 public:
  struct Disk {
    int id, present;
  };
  int GetStatus(STATUS_E which, void* buf);
  int SetStatus(STATUS_E which, void* buf);
  int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list);
  int CheckDog() {
    std::lock_guard<std::mutex> g(mutex);
    return dog;
  }

  std::mutex mutex;                                   // guards everything below
  std::vector<Disk> disks;                            // status 21
  std::map<int, std::vector<PartEntry_t>> mounts;     // usage code -> entries
  std::map<int, std::vector<PartEntry_t>> partLists;  // status 15/16/17 -> entries
  int recorderStatus = 1, networkLink = 1, deviceType = 0, dog = 0;
  std::string mcuVersion;
  std::map<int, bool> failing;                    // status code -> GetStatus fails
  std::vector<std::vector<uint8_t>> networkSets;  // blocks given to SetStatus(11)
  std::vector<std::string> upgrades;              // "code path" given to SetStatus(25)

  static PartEntry_t Entry(int type, const std::string& path);
};

class FakeBus {
 public:
  struct Event {
    EVENT_E event;
    std::vector<uint8_t> payload;
  };
  int Distribute(EVENT_E event, int len, const void* data) {
    const uint8_t* b = static_cast<const uint8_t*>(data);
    std::lock_guard<std::mutex> g(m_mutex);
    m_events.push_back({event, std::vector<uint8_t>(b, b + len)});
    return 1;
  }
  std::vector<Event> Events(EVENT_E event) const;

 private:
  mutable std::mutex m_mutex;  // any thread may post while the test reads
  std::vector<Event> m_events;
};

// Records command lines ("command @limit", -1: none) instead of running them; answers 0.
class FakeShell {
 public:
  int Run(const char* command, int seconds);
  std::vector<std::string> Lines() const;
  // Number of command lines that contain part.
  int Count(const std::string& part) const;
  // Called with every command line after it is recorded, to play a command's effect (a
  // download that lands a file). Set before the code under test runs.
  std::function<void(const std::string&)> onCommand;
  // When set, every command checks that another thread can take *mustBeFree while the
  // command runs; LockedRuns() counts the commands for which it could not (within 30 s).
  CLock* mustBeFree = nullptr;
  int LockedRuns() const { return m_lockedRuns; }

 private:
  std::atomic<int> m_lockedRuns{0};
  mutable std::mutex m_mutex;                           // any thread may run commands
  std::vector<std::pair<std::string, int>> m_commands;  // (command, seconds)
};

// A task database of its own (SQLite under the test's root, like the host's) with fault
// switches: a full disk fails every write, a corrupt database fails every call.
class FaultyDb : public CFile2FtpDbMng {
  using Base = CFile2FtpDbMng;
  using Rows = std::list<__ftp_log>;

 public:
  bool full = false, corrupt = false;
  int OpenTable(const char* dir) override { return corrupt ? -1 : Base::OpenTable(dir); }
  int Insert(__ftp_log* row) override { return full || corrupt ? -1 : Base::Insert(row); }
  int InsertMore(Rows& rows) override { return full || corrupt ? -1 : Base::InsertMore(rows); }
  int SearchAll(Rows& rows) override { return corrupt ? -1 : Base::SearchAll(rows); }
  int ReplaceBySeqAndType(int seq, unsigned char type, Rows& rows) override {
    return full || corrupt ? -1 : Base::ReplaceBySeqAndType(seq, type, rows);
  }
  int DeleteBySeqAndType(int seq, unsigned char type) override {
    return full || corrupt ? -1 : Base::DeleteBySeqAndType(seq, type);
  }
};

// The Env of a test: each role whose fake is plugged in answers from it, the others are the
// host's. The FTP client and frame-store reader are the fakes while a FakeFtpClient::Script
// or a FakeRecording lives (tests/fakes/fake_ftp_client.h, fake_readdisk.h).
class TestEnv : public EnvWrapper {
 public:
  TestEnv() : EnvWrapper(Env::Default()) {}
  FakeClock* clock = nullptr;
  FakeStatus* status = nullptr;
  FakeBus* bus = nullptr;
  FakeShell* shell = nullptr;
  CFile2FtpDbMng* db = nullptr;

  int64_t NowMs() override { return clock ? clock->NowMs() : target()->NowMs(); }
  time_t WallSeconds() override { return clock ? clock->WallSeconds() : target()->WallSeconds(); }
  void SleepUs(uint64_t us) override { clock ? clock->SleepUs(us) : target()->SleepUs(us); }
  int GetStatus(STATUS_E which, void* buf) override {
    return status ? status->GetStatus(which, buf) : target()->GetStatus(which, buf);
  }
  int SetStatus(STATUS_E which, void* buf) override {
    return status ? status->SetStatus(which, buf) : target()->SetStatus(which, buf);
  }
  int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list) override {
    return status ? status->GetDiskForCommUsage(usage, list)
                  : target()->GetDiskForCommUsage(usage, list);
  }
  int CheckDog() override { return status ? status->CheckDog() : target()->CheckDog(); }
  int DistributeEvent(EVENT_E event, int len, const void* data) override {
    return bus ? bus->Distribute(event, len, data) : target()->DistributeEvent(event, len, data);
  }
  int RunCommand(const char* command, int seconds) override {
    return shell ? shell->Run(command, seconds) : target()->RunCommand(command, seconds);
  }
  int RunCommandUnlimited(const char* command) override {
    return shell ? shell->Run(command, -1) : target()->RunCommandUnlimited(command);
  }
  CFile2FtpDbMng* TaskDb() override { return db ? db : target()->TaskDb(); }
  CFtpClient* NewFtpClient() override;
  CReadDisk* NewReadDisk() override;
};
