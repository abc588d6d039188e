#include "control/ftp_ctrl_mng.h"

#include <mutex>

CFtpCtrlMng* CFtpCtrlMng::m_pInstance = nullptr;

CFtpCtrlMng* CFtpCtrlMng::Instance() {
  static std::once_flag once;
  std::call_once(once, [] { m_pInstance = new CFtpCtrlMng(); });
  return m_pInstance;
}

// The disk check, intake, transfer control and scheduler are filled in by the upload-control
// work; until then they leave the queue alone.
void CFtpCtrlMng::CheckDiskState(uint32_t /*seconds*/) {}
int CFtpCtrlMng::InsertFileInfo(ftpFileInfo_t* /*info*/) { return -1; }
void CFtpCtrlMng::SetFtpTrans(int /*fileType*/, unsigned int /*ctrType*/, int /*seq*/) {}
void CFtpCtrlMng::ScheduleTask(uint32_t /*seconds*/) {}

void dataSync(char* /*mountDir*/, std::list<ftpFileInfo_t>& /*taskList*/, CLock* /*lock*/) {}
