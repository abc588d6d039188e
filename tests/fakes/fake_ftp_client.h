// A scripted FTP client for engine tests: the listing, the failures and what was written.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/ftpclient.h"

class FakeFtpClient : public CFtpClient {
 public:
  // The scripted state, shared by every client the factory makes.
  struct Script {
    std::mutex mutex;
    std::vector<FtpDirEntry_t> listing;
    int startFailures = 0;                // FtpStart fails this many times
    int listResult = 0;                   // FtpGetServerDirFile's result when negative
    bool dataFails = false;               // FtpCreateDateSockFd fails
    int writeFailAfter = -1;              // FtpWriteDate fails once this many bytes were written
    std::function<void(size_t)> onWrite;  // called after each write with the total so far
    // Observed:
    int starts = 0;
    int closes = 0;
    std::vector<int> modes;  // modes of the data connections
    std::string written;     // bytes written, all sends together
    UserDefServerSet_t server{};
    std::string dir, name;
  };
  static Script* script;  // installed by the test

  // Makes a TestEnv hand out fake clients (with a fresh script) for the life of the object.
  class Installer {
   public:
    Installer();
    ~Installer();
    Script& s() { return m_script; }

   private:
    Script m_script;
  };

  int Init(FtpLogFn_f) override { return 0; }
  int FtpSetServerInfo(UserDefServerSet_t* server) override;
  int FtpSetLocalInfo(const char* dir, const char* name) override;
  int FtpStart() override;
  int FtpGetServerDirFile() override;
  FtpClientData_t* FtpGetClientData() override { return &m_data; }
  int FtpCreateDateSockFd(int mode) override;
  int FtpWriteDate(int fd, const char* buf, int len, int timeout) override;
  int FtpClose() override;

  static FtpDirEntry_t Entry(const std::string& name, int32_t size);

 private:
  FtpClientData_t m_data{};
};
