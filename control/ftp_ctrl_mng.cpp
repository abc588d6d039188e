#include "control/ftp_ctrl_mng.h"

#include <mutex>

#include "platform/env.h"
#include "upload/ftp_upload_file_mng.h"

CFtpCtrlMng* CFtpCtrlMng::m_pInstance = nullptr;

CFtpCtrlMng* CFtpCtrlMng::Instance() {
  static std::once_flag once;
  std::call_once(
      once, [] { m_pInstance = new CFtpCtrlMng(Env::Default(), CFtpUploadFileMng::Instance()); });
  return m_pInstance;
}

CFtpCtrlMng::CFtpCtrlMng(Env* env, CFtpUploadFileMng* engine) : m_env(env), m_pEngine(engine) {
  engine->SetTaskControl(this);
}

ftpCurDisk_t CFtpCtrlMng::CurDisk() const {
  CAutoLock guard(&m_curDiskLock);
  return m_curDisk;
}
