// The host environment: each role calls the host implementation of its platform header.
#include "platform/clock.h"
#include "platform/config.h"
#include "platform/env.h"
#include "platform/file2ftpdb.h"
#include "platform/fileutil.h"
#include "platform/ftpclient.h"
#include "platform/readdisk.h"

namespace {

class HostEnv : public Env {
 public:
  int64_t NowMs() override { return msecdiff(0); }
  time_t WallSeconds() override { return ClockTime(); }
  void SleepUs(uint64_t us) override { ClockSleepUs(us); }
  int GetStatus(STATUS_E which, void* buf) override { return ::GetStatus(which, buf); }
  int SetStatus(STATUS_E which, void* buf) override { return ::SetStatus(which, buf); }
  int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list) override {
    return ::GetDiskForCommUsage(usage, list, nullptr);
  }
  int CheckDog() override { return CCommDog::Instance()->CheckDog(); }
  int DistributeEvent(EVENT_E event, int len, const void* data) override {
    return ::DistributeEvent(event, len, const_cast<void*>(data));
  }
  int RunCommand(const char* command, int seconds) override { return systemdump(command, seconds); }
  int RunCommandUnlimited(const char* command) override { return system_run(command); }
  CFile2FtpDbMng* TaskDb() override { return CFile2FtpDbMng::Instance(); }
  CConfig* Config() override { return CConfig::Instance(); }
  CFtpClient* NewFtpClient() override { return ::NewFtpClient(); }
  CReadDisk* NewReadDisk() override { return ::NewReadDisk(); }
};

}  // namespace

Env* Env::Default() {
  static HostEnv* env = new HostEnv();
  return env;
}
