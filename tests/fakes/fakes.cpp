#include "tests/fakes/fakes.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "platform/byteorder.h"
#include "platform/paths.h"
#include "platform/text.h"
#include "tests/fakes/fake_ftp_client.h"
#include "tests/fakes/fake_readdisk.h"

TempRoot::TempRoot() {
  const char* old = getenv("VELMAR_ROOT");
  m_hadRoot = old != nullptr;
  if (m_hadRoot) m_oldRoot = old;
  char tmpl[] = "/tmp/velmar-test-XXXXXX";
  const char* dir = mkdtemp(tmpl);
  EXPECT_NE(dir, nullptr);
  m_path = dir != nullptr ? dir : "/tmp";
  setenv("VELMAR_ROOT", m_path.c_str(), 1);
}

TempRoot::~TempRoot() {
  std::string cmd = "rm -rf '" + m_path + "'";
  if (m_path.rfind("/tmp/velmar-test-", 0) == 0) (void)!system(cmd.c_str());
  if (m_hadRoot) {
    setenv("VELMAR_ROOT", m_oldRoot.c_str(), 1);
  } else {
    unsetenv("VELMAR_ROOT");
  }
}

std::string TempRoot::Make(const std::string& rel) const {
  std::string full = m_path + rel;
  MakeDirs(full.substr(0, full.rfind('/')).c_str());
  return full;
}

void TempRoot::Write(const std::string& rel, const std::string& text) const {
  std::ofstream(Make(rel), std::ios::binary) << text;
}

void DiscardLogFiles() {
  static bool done = false;
  if (done) return;
  done = true;
  char tmpl[] = "/tmp/velmar-fuzz-XXXXXX";
  const char* dir = mkdtemp(tmpl);
  if (dir == nullptr) return;
  std::string logs = std::string(dir) + "/var/log/velmar";
  MakeDirs(logs.c_str());
  (void)!symlink("/dev/null", (logs + "/velmar.log").c_str());
  (void)!symlink("/dev/null", (logs + "/user.log").c_str());
  setenv("VELMAR_ROOT", dir, 1);
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

int64_t FakeClock::NowMs() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_nowMs;
}

time_t FakeClock::WallSeconds() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_wallBase + static_cast<time_t>(m_nowMs / 1000);
}

void FakeClock::SleepUs(uint64_t us) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_sleptUs += us;
  m_nowMs += static_cast<int64_t>(us / 1000);
}

void FakeClock::AdvanceMs(int64_t ms) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_nowMs += ms;
}

void FakeClock::SetMs(int64_t ms) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_nowMs = ms;
}

uint64_t FakeClock::sleptUs() const {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_sleptUs;
}

namespace {

std::string DbgLogPath(const std::string& root) { return root + "/var/log/velmar/velmar.log"; }
std::string UserLogPath(const std::string& root) { return root + "/var/log/velmar/user.log"; }

}  // namespace

LogCapture::LogCapture()
    : m_root(SandboxRoot()),
      m_dbgStart(ReadWholeFile(DbgLogPath(m_root)).size()),
      m_userStart(ReadWholeFile(UserLogPath(m_root)).size()) {}

std::vector<std::string> LogCapture::Lines() const {
  std::string text = ReadWholeFile(DbgLogPath(m_root)).substr(m_dbgStart);
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size() - 1;
    std::string line = text.substr(at, end + 1 - at);
    at = end + 1;
    // "YYYY-MM-DD hh:mm:ss.mmm [level] text": keep "level text".
    size_t open = line.find(" [");
    size_t close = line.find("] ", open == std::string::npos ? 0 : open);
    if (open == std::string::npos || close == std::string::npos) {
      lines.push_back(line);  // a line of a multi-line message
      continue;
    }
    lines.push_back(line.substr(open + 2, close - open - 2) + " " + line.substr(close + 2));
  }
  return lines;
}

std::vector<LogCapture::UserRecord> LogCapture::UserRecords() const {
  std::string data = ReadWholeFile(UserLogPath(m_root)).substr(m_userStart);
  std::vector<UserRecord> out;
  const uint8_t* b = reinterpret_cast<const uint8_t*>(data.data());
  size_t at = 0;
  while (at + 12 <= data.size()) {
    uint32_t len = LoadLE32(b + at + 8);
    if (at + 12 + len > data.size()) break;
    out.push_back(
        {static_cast<int>(LoadLE32(b + at)), LoadLE32(b + at + 4), data.substr(at + 12, len)});
    at += 12 + len;
  }
  return out;
}

int LogCapture::Count(const std::string& part) const {
  int n = 0;
  for (const std::string& line : Lines()) n += line.find(part) != std::string::npos ? 1 : 0;
  return n;
}

PartEntry_t FakeStatus::Entry(int type, const std::string& path) {
  PartEntry_t e{};
  e.type = type;
  CopyText(e.path, sizeof(e.path), path.c_str());
  return e;
}

int FakeStatus::GetStatus(STATUS_E which, void* buf) {
  std::lock_guard<std::mutex> g(mutex);
  calls.push_back(which);
  memset(buf, 0, StatusRecordSize(which));
  if (failing[which]) return -1;
  uint8_t* b = static_cast<uint8_t*>(buf);
  auto put32 = [](uint8_t* p, int32_t v) { memcpy(p, &v, 4); };
  switch (which) {
    case STATUS_RECORDER:
      put32(b + 128, recorderStatus);
      return 0;
    case STATUS_MCU_VERSION:
      CopyText(reinterpret_cast<char*>(b), 64, mcuVersion.c_str());
      return 0;
    case STATUS_DEVICE:
      put32(b, deviceType);
      return 0;
    case STATUS_NETWORK:
      put32(b, networkLink);
      return 0;
    case STATUS_DISK: {
      int n = 0;
      for (const Disk& d : disks) {
        if (n == 8) break;
        put32(b + 4 + 12 * n, d.id);
        put32(b + 12 + 12 * n, d.present);
        ++n;
      }
      put32(b, n);
      return 0;
    }
    case STATUS_PART_LIST_A:
    case STATUS_PART_LIST_B:
    case STATUS_PART_LIST_C: {
      PartStatus_t* list = static_cast<PartStatus_t*>(buf);
      for (const PartEntry_t& e : partLists[which]) {
        if (list->count < 8) list->part[list->count++] = e;
      }
      return 0;
    }
    default:
      return -1;
  }
}

int FakeStatus::SetStatus(STATUS_E which, void* buf) {
  std::lock_guard<std::mutex> g(mutex);
  if (which == STATUS_NETWORK) {
    const uint8_t* b = static_cast<const uint8_t*>(buf);
    networkSets.emplace_back(b, b + kStatusNetworkSize);
    return 0;
  }
  if (which == STATUS_UPGRADE) {
    const UpgradeNotify_t* n = static_cast<const UpgradeNotify_t*>(buf);
    upgrades.push_back(std::to_string(n->code) + " " + std::string(n->path, n->length));
    return 0;
  }
  return -1;
}

int FakeStatus::GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list) {
  std::lock_guard<std::mutex> g(mutex);
  memset(list, 0, sizeof(*list));
  if (failing[1000 + usage]) return -1;
  for (const PartEntry_t& e : mounts[usage]) {
    if (list->count < 8) list->part[list->count++] = e;
  }
  return 0;
}

int FakeStatus::CheckDog() {
  std::lock_guard<std::mutex> g(mutex);
  return dog;
}

int FakeBus::Distribute(EVENT_E event, int len, const void* data) {
  std::lock_guard<std::mutex> g(m_mutex);
  const uint8_t* b = static_cast<const uint8_t*>(data);
  m_events.push_back({event, std::vector<uint8_t>(b, b + len)});
  return 1;
}

std::vector<FakeBus::Event> FakeBus::Events() const {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_events;
}

std::vector<FakeBus::Event> FakeBus::Events(EVENT_E event) const {
  std::vector<Event> out;
  for (const Event& e : Events()) {
    if (e.event == event) out.push_back(e);
  }
  return out;
}

void FakeShell::CheckLockFree() {
  if (mustBeFree == nullptr) return;
  auto got = std::make_shared<std::atomic<bool>>(false);
  CLock* lock = mustBeFree;
  std::thread taker([lock, got] {
    lock->Lock();
    lock->Unlock();
    *got = true;
  });
  for (int i = 0; i < 2000 && !*got; ++i) usleep(1000);
  if (*got) {
    taker.join();
  } else {
    ++m_lockedRuns;
    taker.detach();  // it takes the lock once the holder lets go
  }
}

int FakeShell::RunLimited(const char* command, int seconds) {
  {
    std::lock_guard<std::mutex> g(m_mutex);
    m_commands.emplace_back(command, seconds);
  }
  CheckLockFree();
  if (onCommand) onCommand(command);
  return result;
}

int FakeShell::RunUnlimited(const char* command) {
  {
    std::lock_guard<std::mutex> g(m_mutex);
    m_commands.emplace_back(command, -1);
  }
  CheckLockFree();
  if (onCommand) onCommand(command);
  return result;
}

std::vector<std::pair<std::string, int>> FakeShell::Commands() const {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_commands;
}

std::vector<std::string> FakeShell::Lines() const {
  std::vector<std::string> out;
  for (auto& c : Commands()) out.push_back(c.first + " @" + std::to_string(c.second));
  return out;
}

int FakeShell::Count(const std::string& part) const {
  int n = 0;
  for (auto& c : Commands()) n += c.first.find(part) != std::string::npos;
  return n;
}

int FaultyDb::OpenTable(const char* mountDir) {
  return corrupt ? -1 : CFile2FtpDbMng::OpenTable(mountDir);
}
int FaultyDb::Insert(__ftp_log* row) { return full || corrupt ? -1 : CFile2FtpDbMng::Insert(row); }
int FaultyDb::InsertMore(std::list<__ftp_log>& rows) {
  return full || corrupt ? -1 : CFile2FtpDbMng::InsertMore(rows);
}
int FaultyDb::SearchAll(std::list<__ftp_log>& rows) {
  return corrupt ? -1 : CFile2FtpDbMng::SearchAll(rows);
}
int FaultyDb::ReplaceBySeqAndType(int seq, unsigned char type, std::list<__ftp_log>& rows) {
  return full || corrupt ? -1 : CFile2FtpDbMng::ReplaceBySeqAndType(seq, type, rows);
}
int FaultyDb::DeleteBySeqAndType(int seq, unsigned char type) {
  return full || corrupt ? -1 : CFile2FtpDbMng::DeleteBySeqAndType(seq, type);
}

CFtpClient* TestEnv::NewFtpClient() {
  return FakeFtpClient::script != nullptr ? new FakeFtpClient() : target()->NewFtpClient();
}

CReadDisk* TestEnv::NewReadDisk() {
  return FakeRecording::current != nullptr ? NewFakeReadDisk() : target()->NewReadDisk();
}
