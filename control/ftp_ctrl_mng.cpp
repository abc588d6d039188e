#include "control/ftp_ctrl_mng.h"

#include <mutex>

CFtpCtrlMng* CFtpCtrlMng::m_pInstance = nullptr;

CFtpCtrlMng* CFtpCtrlMng::Instance() {
  static std::once_flag once;
  std::call_once(once, [] { m_pInstance = new CFtpCtrlMng(); });
  return m_pInstance;
}

ftpCurDisk_t CFtpCtrlMng::CurDisk() const {
  CAutoLock guard(&m_curDiskLock);
  return m_curDisk;
}
