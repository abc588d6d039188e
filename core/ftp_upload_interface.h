// The request interface: registers the service on the event bus under
// /tmp/ftpuploadfile.listen and dispatches each received request.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <cstdint>

#include "core/request_codec.h"
#include "platform/evbus.h"
#include "upload/ftp_records.h"

constexpr int64_t kRequestMask = 0x0000000000410000LL;  // events 16 and 22
extern const char kRequestSocket[];                     // "/tmp/ftpuploadfile.listen"

// Where decoded requests go. The service's targets are the managers; tests record calls.
class IRequestTargets {
 public:
  virtual ~IRequestTargets() = default;
  virtual void InsertTask(ftpFileInfo_t* task) = 0;
  virtual void SetTransfer(int fileType, unsigned int ctrType, int seq) = 0;
  virtual void ConnectTo(const char* user, const char* password, const char* host, uint16_t port,
                         const char* path) = 0;
  virtual void RemoteCommand(const char* path) = 0;
};

// Dispatches one decoded request. payload holds kEventPayloadMax + 1 bytes, zero past the
// message. Unknown events and codes are dropped.
void DispatchRequest(EVENT_E event, const uint8_t* payload, IRequestTargets* targets);

// The bus handler: decodes msg and dispatches it to the IRequestTargets that ctx points to,
// or to the service's managers when ctx is null (the listener's case). -1 when the message
// cannot be decoded, 0 otherwise. Answers nothing on the socket.
int FtpUploadMngUnixDomain(int sock, struct sockaddr_un* from, unsigned int* fromLen, char* msg,
                           int len, void* ctx);

class CFtpUploadInterface {
 public:
  // The singleton, created on first use. Safe from any thread.
  static CFtpUploadInterface* Instance();
  // Replaces any earlier registration, registers for events 16 and 22 and listens.
  void StartListen();
  // Ends the listener (the registration stays).
  void StopListen();

  void* m_hListen = nullptr;

 private:
  CFtpUploadInterface() = default;
  static CFtpUploadInterface* m_pInstance;
};
