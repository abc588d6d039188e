// A datagram from the bus, decoded and dispatched to targets that check what they are given:
// every text terminated inside its field, never a read past the payload.
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/ftp_upload_interface.h"

namespace {

class CheckingTargets : public IRequestTargets {
 public:
  void InsertTask(ftpFileInfo_t* t) override {
    if (strnlen(t->fullName, sizeof(t->fullName)) >= sizeof(t->fullName)) __builtin_trap();
    if (strnlen(t->fileName, sizeof(t->fileName)) >= sizeof(t->fileName)) __builtin_trap();
    if (strnlen(t->server.path, sizeof(t->server.path)) >= sizeof(t->server.path)) __builtin_trap();
  }
  void SetTransfer(int fileType, unsigned int ctrType, int seq) override {
    if (fileType != 1 || ctrType > 255 || seq < 0 || seq > 0xFFFF) __builtin_trap();
  }
  void ConnectTo(const char* user, const char* password, const char* host, uint16_t,
                 const char* path) override {
    if (strlen(user) > 31 || strlen(password) > 31 || strlen(host) > 31 || strlen(path) > 127) {
      __builtin_trap();
    }
  }
  void RemoteCommand(const char* path) override {
    if (strlen(path) > static_cast<size_t>(kEventPayloadMax - 4)) __builtin_trap();
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 3 * kEventPayloadMax) return 0;
  std::vector<uint8_t> payload(kEventPayloadMax + 1, 0);
  EVENT_E event;
  int reserved = 0;
  int n = ParseRecvEvent(data, static_cast<int>(size), &event, &reserved, payload.data());
  if (n < 0) return 0;
  if (static_cast<size_t>(n) + kEventHeaderSize != size) __builtin_trap();
  CheckingTargets targets;
  DispatchRequest(event, payload.data(), &targets);
  return 0;
}
