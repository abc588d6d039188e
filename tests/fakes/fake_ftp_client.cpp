#include "tests/fakes/fake_ftp_client.h"

#include <cstring>

FakeFtpClient::Script* FakeFtpClient::script = nullptr;

FakeFtpClient::Installer::Installer() { script = &m_script; }

FakeFtpClient::Installer::~Installer() { script = nullptr; }

FtpDirEntry_t FakeFtpClient::Entry(const std::string& name, int32_t size) {
  FtpDirEntry_t e{};
  e.size = size;
  strncpy(e.name, name.c_str(), sizeof(e.name) - 1);
  return e;
}

int FakeFtpClient::FtpSetServerInfo(UserDefServerSet_t* server) {
  std::lock_guard<std::mutex> g(script->mutex);
  script->server = *server;
  return 0;
}

int FakeFtpClient::FtpSetLocalInfo(const char* dir, const char* name) {
  std::lock_guard<std::mutex> g(script->mutex);
  script->dir = dir;
  script->name = name;
  return 0;
}

int FakeFtpClient::FtpStart() {
  std::lock_guard<std::mutex> g(script->mutex);
  ++script->starts;
  if (script->startFailures > 0) {
    --script->startFailures;
    return -1;
  }
  return 0;
}

int FakeFtpClient::FtpGetServerDirFile() {
  std::lock_guard<std::mutex> g(script->mutex);
  if (script->listResult < 0) return script->listResult;
  m_data.entryCount = 0;
  for (const FtpDirEntry_t& e : script->listing) {
    if (m_data.entryCount < kFtpListCapacity) m_data.entries[m_data.entryCount++] = e;
  }
  return 0;
}

int FakeFtpClient::FtpCreateDateSockFd(int mode) {
  std::lock_guard<std::mutex> g(script->mutex);
  if (script->dataFails) return -1;
  script->modes.push_back(mode);
  m_data.dataFd = 99;
  return 99;
}

int FakeFtpClient::FtpWriteDate(int fd, const char* buf, int len, int) {
  std::function<void(size_t)> hook;
  size_t total;
  {
    std::lock_guard<std::mutex> g(script->mutex);
    if (fd != 99) return -1;
    if (script->writeFailAfter >= 0 &&
        script->written.size() >= static_cast<size_t>(script->writeFailAfter)) {
      return -1;
    }
    script->written.append(buf, static_cast<size_t>(len));
    hook = script->onWrite;
    total = script->written.size();
  }
  if (hook) hook(total);
  return len;
}

int FakeFtpClient::FtpClose() {
  std::lock_guard<std::mutex> g(script->mutex);
  ++script->closes;
  m_data.dataFd = -1;
  return 0;
}
