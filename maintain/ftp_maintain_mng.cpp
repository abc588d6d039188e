#include "maintain/ftp_maintain_mng.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/env.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/text.h"

CFtpMaintainMng* CFtpMaintainMng::m_pInstance = nullptr;

CFtpMaintainMng* CFtpMaintainMng::Instance() {
  static std::once_flag once;
  std::call_once(once, [] { m_pInstance = new CFtpMaintainMng(Env::Default()); });
  return m_pInstance;
}

CFtpMaintainMng::CFtpMaintainMng(Env* env)
    : m_env(env), m_pData(static_cast<FtpMaintainData_t*>(calloc(1, sizeof(FtpMaintainData_t)))) {}

CFtpMaintainMng::~CFtpMaintainMng() {
  if (m_pData == nullptr) return;
  free(m_pData->fileList.pItems);
  free(m_pData->onlineList.pItems);
  free(m_pData);
}

void ClearFileList(FtpFileList_t* list) {
  list->count = 0;
  list->index = 0;
  free(list->pItems);
  list->pItems = nullptr;
}

UpgradeSet_t CFtpMaintainMng::Account() {
  UpgradeSet_t copy{};
  if (m_pData == nullptr) return copy;
  CAutoLock guard(&m_lock);
  copy = m_pData->upgradeSet;
  return copy;
}

int CFtpMaintainMng::FtpConnectTo(const char* user, const char* password, const char* host,
                                  uint16_t port, const char* /*path*/) {
  if (m_pData == nullptr) return -1;
  char listPath[128] = {};
  bool haveDir = false;
  {
    CAutoLock guard(&m_lock);
    m_pData->state = 8;  // the cycle stands still while the account changes
    ++m_nEpoch;
    ClearFileList(&m_pData->fileList);
    ClearFileList(&m_pData->onlineList);
    UpgradeSet_t& account = m_pData->upgradeSet;
    memset(&account, 0, sizeof(account));
    CopyText(account.host, sizeof(account.host), host);
    CopyText(account.user, sizeof(account.user), user);
    CopyText(account.password, sizeof(account.password), password);
    account.port = port;
    FormatBounded(listPath, sizeof(listPath), "%.126s/FileList.xml", m_pData->fileList.dir);
    // No directory chosen yet: there is no old list to delete ("/FileList.xml" is not ours).
    haveDir = m_pData->fileList.dir[0] != '\0';
  }
  WriteDbgLog(2, "FTP Update [%s %s %s %d]\n", user, password, host, port);
  if (haveDir && fileisexist(listPath) == 0) remove(listPath);
  printf("%s %s\n", "FtpConnectTo", listPath);
  CAutoLock guard(&m_lock);
  m_lastStepTime = 0;
  m_pData->state = 0;
  return 0;
}
