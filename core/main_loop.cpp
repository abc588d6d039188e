#include "core/main_loop.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "control/ftp_ctrl_mng.h"
#include "platform/byteorder.h"
#include "platform/env.h"
#include "platform/log.h"
#include "platform/status.h"
#include "platform/text.h"

namespace {

const char kServiceName[] = "velmar";
const char kDogTimeoutText[] = "FtpUpLoad Dog TimeOut";
constexpr size_t kUserLogBufferSize = 256;

// The loop's clock in whole seconds: signed division, taken as an unsigned 32-bit value.
uint32_t Seconds(int64_t nowMs) { return static_cast<uint32_t>(nowMs / 1000); }

}  // namespace

void BuildHeartbeat(uint8_t out[kHeartbeatSize]) {
  memset(out, 0, kHeartbeatSize);
  StoreLE32(out, 2);
  CopyText(reinterpret_cast<char*>(out + 4), 64, kServiceName);
}

CMainLoop::CMainLoop()
    : CMainLoop(Env::Default(), Targets{
                                    [](uint32_t s) { CFtpCtrlMng::Instance()->CheckDiskState(s); },
                                    [](uint32_t s) { CFtpCtrlMng::Instance()->ScheduleTask(s); },
                                }) {}

CMainLoop::CMainLoop(Env* env, Targets targets) : m_env(env), m_targets(std::move(targets)) {}

void CMainLoop::CheckWatchdog() {
  if (m_env->CheckDog() > 0) {
    WriteDbgLog(2, "FtpUpLoadMng Dog TimeOut\n");
    char record[kUserLogBufferSize] = {};
    memcpy(record, kDogTimeoutText, sizeof(kDogTimeoutText));
    WriteUserLog(LOG_TYPE_ALARM, 3, sizeof(kDogTimeoutText) - 1, record);
    return;
  }
  uint8_t heartbeat[kHeartbeatSize];
  BuildHeartbeat(heartbeat);
  m_env->DistributeEvent(EVENT_HEARTBEAT, kHeartbeatSize, heartbeat);
}

void CMainLoop::Pass() {
  int64_t now = m_env->NowMs();
  // The absolute difference, so that a clock stepping backwards also triggers a step.
  if (llabs(now - m_lastCheck) >= kCheckIntervalMs) {
    CheckWatchdog();
    m_lastCheck = now;
    m_targets.checkDisks(Seconds(now));
  }
  m_targets.schedule(Seconds(now));
  fflush(stdout);  // block-buffered when it is not a terminal: let its reader keep up
  m_env->SleepUs(kPassPauseUs);
}

void CMainLoop::Run() {
  for (;;) Pass();
}
