#include "upload/ftp_upload_file_mng.h"

#include <cstddef>
#include <cstring>
#include <mutex>

#include "platform/env.h"
#include "platform/log.h"
#include "upload/task_status.h"

namespace {

constexpr size_t kControlOffset = offsetof(ftpFileInfo_t, valid);
constexpr size_t kControlEnd = offsetof(ftpFileInfo_t, result) + 1;
static_assert(kControlOffset % 4 == 0 && kControlEnd - kControlOffset == 4,
              "the four control bytes form one aligned 32-bit word");

typedef uint32_t __attribute__((may_alias)) ControlWord;

// Copies every byte of a record but the control bytes.
void CopyPlainBytes(ftpFileInfo_t* dst, const ftpFileInfo_t* src) {
  uint8_t* d = reinterpret_cast<uint8_t*>(dst);
  const uint8_t* s = reinterpret_cast<const uint8_t*>(src);
  memcpy(d, s, kControlOffset);
  memcpy(d + kControlEnd, s + kControlEnd, sizeof(ftpFileInfo_t) - kControlEnd);
}

}  // namespace

TaskControl_t LoadTaskControl(const ftpFileInfo_t* task) {
  const ControlWord* word = reinterpret_cast<const ControlWord*>(&task->valid);
  uint32_t w = __atomic_load_n(word, __ATOMIC_ACQUIRE);
  TaskControl_t c;
  memcpy(&c, &w, sizeof(c));  // memory order, so valid is the byte at the lowest address
  return c;
}

CFtpUploadFileMng* CFtpUploadFileMng::m_pInstance = nullptr;

CFtpUploadFileMng* CFtpUploadFileMng::Instance() {
  static std::once_flag once;
  std::call_once(once, [] { m_pInstance = new CFtpUploadFileMng(Env::Default()); });
  return m_pInstance;
}

CFtpUploadFileMng::CFtpUploadFileMng(Env* env) : m_env(env) {}

CFtpUploadFileMng::~CFtpUploadFileMng() {
  m_thread.Join();
  delete m_pFtpClient;
}

void CFtpUploadFileMng::SetTask(const ftpFileInfo_t* task) {
  WriteDbgLog(0, "set task seq:%d trans:%d file:%s\n", static_cast<int>(task->seq), task->trans,
              task->fullName);
  m_nTransState = 0;
  m_nStoresAnew = 0;
  CAutoLock guard(&m_taskLock);
  CopyPlainBytes(&m_stTask, task);
  StoreControlByte(&m_stTask.valid, task->valid);
  StoreControlByte(&m_stTask.net, task->net);
  StoreControlByte(&m_stTask.trans, task->trans);
  StoreControlByte(&m_stTask.result, 0);
}

void CFtpUploadFileMng::SetTaskTrans(uint8_t valid, uint8_t trans) {
  if (valid == 0 || trans == 0) m_nTransState = 0;
  StoreControlByte(&m_stTask.valid, valid);
  StoreControlByte(&m_stTask.trans, trans);
}

void CFtpUploadFileMng::SendTaskStatus(int seq, int status) {
  SendTaskStatusEvent(m_env, seq, status);
}

ftpFileInfo_t CFtpUploadFileMng::SnapshotTask() const {
  ftpFileInfo_t copy;
  CAutoLock guard(&m_taskLock);
  CopyPlainBytes(&copy, &m_stTask);
  TaskControl_t c = LoadTaskControl(&m_stTask);
  copy.valid = c.valid;
  copy.net = c.net;
  copy.trans = c.trans;
  copy.result = c.result;
  return copy;
}

void CFtpUploadFileMng::ClearTask() {
  ftpFileInfo_t zero{};
  CAutoLock guard(&m_taskLock);
  CopyPlainBytes(&m_stTask, &zero);
  StoreControlByte(&m_stTask.valid, 0);
  StoreControlByte(&m_stTask.net, 0);
  StoreControlByte(&m_stTask.trans, 0);
  StoreControlByte(&m_stTask.result, 0);
}
