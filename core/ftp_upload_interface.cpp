#include "core/ftp_upload_interface.h"

#include <cstring>
#include <mutex>

#include "control/ftp_ctrl_mng.h"
#include "core/command_worker.h"
#include "maintain/ftp_maintain_mng.h"
#include "platform/byteorder.h"

const char kRequestSocket[] = "/tmp/ftpuploadfile.listen";

namespace {

class ServiceTargets : public IRequestTargets {
 public:
  void InsertTask(ftpFileInfo_t* task) override { CFtpCtrlMng::Instance()->InsertFileInfo(task); }
  void SetTransfer(int fileType, unsigned int ctrType, int seq) override {
    CFtpCtrlMng::Instance()->SetFtpTrans(fileType, ctrType, seq);
  }
  void ConnectTo(const char* user, const char* password, const char* host, uint16_t port,
                 const char* path) override {
    CFtpMaintainMng::Instance()->FtpConnectTo(user, password, host, port, path);
  }
  // Run on the command worker: the listener goes straight back to taking requests.
  void RemoteCommand(const char* path) override {
    static CRemoteCmdWorker* worker = new CRemoteCmdWorker(
        [](const char* p) { CFtpMaintainMng::Instance()->HandleRemoteCmd(p); });
    worker->Post(path);
  }
};

void DispatchFileUpload(const uint8_t* payload, IRequestTargets* targets) {
  switch (LoadLE32(payload)) {
    case kCodeNewTask: {
      ftpFileInfo_t task;
      DecodeTaskRecord(payload + 8, kTaskRecordSize, &task);
      targets->InsertTask(&task);
      break;
    }
    case kCodeTransfer: {
      TransferRequest request;
      DecodeTransferRequest(payload, kEventPayloadMax, &request);
      // The file type is not carried: transfer control always concerns recordings.
      targets->SetTransfer(1, request.ctrType, request.seq);
      break;
    }
    case kCodeServerUpdate: {
      UserDefServerSet_t server;
      DecodeServerRequest(payload, kEventPayloadMax, &server);
      targets->ConnectTo(server.user, server.password, server.host, server.port, server.path);
      break;
    }
    default:
      break;  // 0x702, our own status event coming back, and anything unknown
  }
}

}  // namespace

void DispatchRequest(EVENT_E event, const uint8_t* payload, IRequestTargets* targets) {
  if (event == EVENT_REMOTE_CMD) {
    if (LoadLE32(payload) != 0) return;
    // The payload buffer carries one terminating byte beyond kEventPayloadMax.
    targets->RemoteCommand(reinterpret_cast<const char*>(payload + 4));
  } else if (event == EVENT_FILE_UPLOAD) {
    DispatchFileUpload(payload, targets);
  }
}

int FtpUploadMngUnixDomain(int /*sock*/, struct sockaddr_un* /*from*/, unsigned int* /*fromLen*/,
                           char* msg, int len, void* ctx) {
  static ServiceTargets service;
  IRequestTargets* targets = ctx != nullptr ? static_cast<IRequestTargets*>(ctx) : &service;
  // Zero-filled anew for every message, with one byte more than a payload can fill so that
  // the command path of event 16 is always terminated.
  uint8_t payload[kEventPayloadMax + 1];
  memset(payload, 0, sizeof(payload));
  EVENT_E event;
  int reserved = 0;
  if (ParseRecvEvent(reinterpret_cast<const unsigned char*>(msg), len, &event, &reserved, payload) <
      0) {
    return -1;
  }
  DispatchRequest(event, payload, targets);
  return 0;
}

CFtpUploadInterface* CFtpUploadInterface::m_pInstance = nullptr;

CFtpUploadInterface* CFtpUploadInterface::Instance() {
  static std::once_flag once;
  std::call_once(once, [] { m_pInstance = new CFtpUploadInterface(); });
  return m_pInstance;
}

void CFtpUploadInterface::StartListen() {
  UnregisterEventReciever(kRequestSocket);
  RegisterEventReciever(kRequestSocket, kRequestMask);
  m_hListen = StartUnixDomainListen(kRequestSocket, FtpUploadMngUnixDomain, nullptr);
}

void CFtpUploadInterface::StopListen() {
  if (m_hListen == nullptr) return;
  StopUnixDomainListen(m_hListen);
  m_hListen = nullptr;
}
