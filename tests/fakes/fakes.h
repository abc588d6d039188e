// In-memory platform fakes for unit tests, and TestEnv, the Env that plugs them in: a role
// whose fake is not plugged in is the host's.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "platform/env.h"
#include "platform/evbus.h"
#include "platform/file2ftpdb.h"
#include "platform/fileutil.h"
#include "platform/ftpclient.h"
#include "platform/readdisk.h"
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

// Two Ed25519 key pairs (made with `openssl genpkey -algorithm ed25519`) for signed lists.
extern const char kTestKeyA[];
extern const char kTestPubA[];
extern const char kTestKeyB[];
extern const char kTestPubB[];
// An EC (P-256) key pair, which signs a list's SHA-256.
extern const char kTestKeyEc[];
extern const char kTestPubEc[];

// The whole content of a file; empty when it cannot be read.
std::string ReadWholeFile(const std::string& path);

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

// A scripted FTP client for engine tests: the listing, the failures and what was written.
class FakeFtpClient : public CFtpClient {
 public:
  // The scripted state, shared by every client the factory makes. While a Script lives, a
  // TestEnv hands out fake clients that follow it.
  struct Script {
    Script() { script = this; }
    ~Script() { script = nullptr; }
    std::mutex mutex;
    std::vector<FtpDirEntry_t> listing;
    int startFailures = 0;    // FtpStart (the login) fails this many times
    int listResult = 0;       // FtpGetServerDirFile's result when negative
    bool dataFails = false;   // FtpCreateDateSockFd fails
    int writeFailAfter = -1;  // FtpWriteDate fails once this many bytes were written (-1: never)
    std::function<void(size_t)> onWrite;  // called after each write with the total so far
    std::function<void(int)> onList;      // called (under the lock) with each listing's number
    int lists = 0;
    // With keepsCopy the server holds a copy of `held` bytes (-1: none): a store empties it,
    // writes add to it, listings show it listLie bytes larger, SIZE tells it when sizeKnown.
    bool keepsCopy = false, sizeKnown = false;
    int64_t held = -1, listLie = 0;
    // Observed:
    int starts = 0, closes = 0;
    std::vector<int> modes;  // modes of the data connections
    std::string written;     // bytes written, all sends together
    std::string dir, name;
  };
  static inline Script* script = nullptr;

  static FtpDirEntry_t Entry(const std::string& name, int64_t size) {
    FtpDirEntry_t e{};
    e.size = size;
    strncpy(e.name, name.c_str(), sizeof(e.name) - 1);
    return e;
  }

  int Init(FtpLogFn_f) override { return 0; }
  int FtpSetServerInfo(UserDefServerSet_t*) override { return 0; }
  int FtpSetLocalInfo(const char* dir, const char* name) override {
    std::lock_guard<std::mutex> g(script->mutex);
    script->dir = dir, script->name = name;
    return 0;
  }
  int FtpStart() override {
    std::lock_guard<std::mutex> g(script->mutex);
    ++script->starts;
    return script->startFailures > 0 ? (--script->startFailures, -1) : 0;
  }
  int FtpGetServerDirFile() override {
    std::lock_guard<std::mutex> g(script->mutex);
    if (script->listResult < 0) return script->listResult;
    if (script->onList) script->onList(++script->lists);
    m_data.entryCount = int32_t(std::min<size_t>(script->listing.size(), kFtpListCapacity));
    std::copy_n(script->listing.begin(), m_data.entryCount, m_data.entries);
    if (script->keepsCopy && script->held >= 0) {
      m_data.entries[m_data.entryCount++] = Entry(script->name, script->held + script->listLie);
    }
    return 0;
  }
  int64_t FtpGetFileSize() override {
    std::lock_guard<std::mutex> g(script->mutex);
    return script->sizeKnown ? script->held : -1;
  }
  FtpClientData_t* FtpGetClientData() override { return &m_data; }
  int FtpCreateDateSockFd(int mode) override {
    std::lock_guard<std::mutex> g(script->mutex);
    if (script->dataFails) return -1;
    script->modes.push_back(mode);
    if (script->keepsCopy && mode == 0) script->held = 0;
    return m_data.dataFd = 99;
  }
  int FtpWriteDate(int fd, const char* buf, int len, int) override {
    std::unique_lock<std::mutex> g(script->mutex);
    std::string& w = script->written;
    if (fd != 99 || w.size() >= static_cast<size_t>(script->writeFailAfter)) return -1;
    w.append(buf, static_cast<size_t>(len));
    if (script->keepsCopy) script->held += len;
    std::function<void(size_t)> hook = script->onWrite;
    size_t total = w.size();
    g.unlock();  // the hook may change the script
    if (hook) hook(total);
    return len;
  }
  int FtpClose() override {
    std::lock_guard<std::mutex> g(script->mutex);
    ++script->closes;
    return m_data.dataFd = -1, 0;
  }

 private:
  FtpClientData_t m_data{};
};

// An in-memory frame-store reader for the AVI stream tests. While a FakeRecording lives, every
// reader a TestEnv creates reads its frames.
struct FakeFrame {
  uint64_t time_us;
  uint32_t type;
  std::vector<uint8_t> data;
};

class FakeRecording {
 public:
  FakeRecording() { current = this, SetParam(25, 3); }
  ~FakeRecording() { current = nullptr; }
  // Sets the encode parameters GetInfo answers with.
  void SetParam(int fps, int resolution, bool h265 = false, int audioCodec = 0, int standard = 0) {
    auto u8 = [](int v) { return static_cast<uint8_t>(v); };
    param = {{}, u8(h265), u8(fps), u8(resolution), u8(audioCodec), {}, uint32_t(standard), {}};
  }
  // Appends a frame of len bytes whose byte i is (seed + i) & 0xff.
  void Add(uint64_t time_us, uint32_t type, uint32_t len, uint8_t seed = 0) {
    frames.push_back({time_us, type, std::vector<uint8_t>(len)});
    std::iota(frames.back().data.begin(), frames.back().data.end(), seed);
  }
  // Appends a type-5 frame: a 44-byte source of the given subtype whose other bytes are
  // (seed + i) & 0xff.
  void AddInfo(uint64_t time_us, uint32_t subtype, uint8_t seed = 0) {
    Add(time_us, 5, 44, seed);
    for (int i = 0; i < 4; ++i) frames.back().data[i] = static_cast<uint8_t>(subtype >> (8 * i));
  }

  EncodeParam_t param{};
  std::vector<FakeFrame> frames;  // in time order
  bool failGetInfo = false;       // fault switch
  int failAfter = -1;  // a started read reports no frame after this many frames (-1: never)
  // What the stream did with the readers; reads: frames delivered.
  int created = 0, destroyed = 0, quits = 0, stops = 0, reads = 0;
  std::vector<PartAccess_t> inits;
  std::vector<RecordItem_t> starts;

  static inline FakeRecording* current = nullptr;
};

// The Env of a test: each role whose fake is plugged in answers from it, the others are the
// host's. The FTP client and frame-store reader are the fakes while a FakeFtpClient::Script
// or a FakeRecording lives.
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
