// The environment: one object that gathers the platform roles the service reaches at run
// time (clock and sleeping, recorder status, event bus, shell, task database, configuration,
// FTP client and frame-store reader). Managers receive their Env when they are made and
// reach the platform only through it; the singletons hand over Env::Default().
//
// A test overrides only the roles it needs through EnvWrapper, which forwards everything to
// another Env (tests/fakes/ holds fakes with fault switches).
//
// The debug and user logs are not a role here: they are files under the sandbox root
// (platform/log.h), and every test has a root of its own, so a test reads them there.
#pragma once

#include <cstdint>
#include <ctime>

#include "platform/evbus.h"
#include "platform/status.h"

class CConfig;
class CFile2FtpDbMng;
class CFtpClient;
class CReadDisk;

class Env {
 public:
  Env() = default;
  virtual ~Env() = default;
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;

  // The host environment: the monotonic clock, recorder.xml, the Unix-socket bus, /bin/sh,
  // the SQLite task databases, the XML configuration, the socket FTP client and the .vfs
  // frame store. Shared by the whole process and never deleted. Safe from any thread.
  static Env* Default();

  // Clock and sleeping. Safe from any thread.
  // Monotonic milliseconds; only differences mean anything.
  virtual int64_t NowMs() = 0;
  // Wall-clock seconds since 1970.
  virtual time_t WallSeconds() = 0;
  virtual void SleepUs(uint64_t us) = 0;
  void SleepMs(uint64_t ms) { SleepUs(ms * 1000); }

  // Recorder status, disks and watchdog (platform/status.h). Safe from any thread.
  virtual int GetStatus(STATUS_E which, void* buf) = 0;
  virtual int SetStatus(STATUS_E which, void* buf) = 0;
  virtual int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list) = 0;
  virtual int CheckDog() = 0;

  // Event bus (platform/evbus.h): sends one event to its registered receivers.
  virtual int DistributeEvent(EVENT_E event, int len, const void* data) = 0;

  // Shell (platform/fileutil.h): systemdump and system_run.
  virtual int RunCommand(const char* command, int seconds) = 0;
  virtual int RunCommandUnlimited(const char* command) = 0;

  // The task database and the configuration service. The objects live as long as the Env.
  virtual CFile2FtpDbMng* TaskDb() = 0;
  virtual CConfig* Config() = 0;

  // A new FTP client or frame-store reader; the caller owns it.
  virtual CFtpClient* NewFtpClient() = 0;
  virtual CReadDisk* NewReadDisk() = 0;
};

// Forwards every call to a target Env, so that a subclass overrides only what it needs.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env* target) : m_target(target) {}
  Env* target() const { return m_target; }

  int64_t NowMs() override { return m_target->NowMs(); }
  time_t WallSeconds() override { return m_target->WallSeconds(); }
  void SleepUs(uint64_t us) override { m_target->SleepUs(us); }
  int GetStatus(STATUS_E which, void* buf) override { return m_target->GetStatus(which, buf); }
  int SetStatus(STATUS_E which, void* buf) override { return m_target->SetStatus(which, buf); }
  int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list) override {
    return m_target->GetDiskForCommUsage(usage, list);
  }
  int CheckDog() override { return m_target->CheckDog(); }
  int DistributeEvent(EVENT_E event, int len, const void* data) override {
    return m_target->DistributeEvent(event, len, data);
  }
  int RunCommand(const char* command, int seconds) override {
    return m_target->RunCommand(command, seconds);
  }
  int RunCommandUnlimited(const char* command) override {
    return m_target->RunCommandUnlimited(command);
  }
  CFile2FtpDbMng* TaskDb() override { return m_target->TaskDb(); }
  CConfig* Config() override { return m_target->Config(); }
  CFtpClient* NewFtpClient() override { return m_target->NewFtpClient(); }
  CReadDisk* NewReadDisk() override { return m_target->NewReadDisk(); }

 private:
  Env* m_target;
};
