// A scripted FTP client for engine tests: the listing, the failures and what was written.
#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/ftpclient.h"

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
    // Observed:
    int starts = 0, closes = 0;
    std::vector<int> modes;  // modes of the data connections
    std::string written;     // bytes written, all sends together
    std::string dir, name;
  };
  static inline Script* script = nullptr;

  static FtpDirEntry_t Entry(const std::string& name, int32_t size) {
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
    return 0;
  }
  FtpClientData_t* FtpGetClientData() override { return &m_data; }
  int FtpCreateDateSockFd(int mode) override {
    std::lock_guard<std::mutex> g(script->mutex);
    if (script->dataFails) return -1;
    script->modes.push_back(mode);
    return m_data.dataFd = 99;
  }
  int FtpWriteDate(int fd, const char* buf, int len, int) override {
    std::unique_lock<std::mutex> g(script->mutex);
    std::string& w = script->written;
    if (fd != 99 || w.size() >= static_cast<size_t>(script->writeFailAfter)) return -1;
    w.append(buf, static_cast<size_t>(len));
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
