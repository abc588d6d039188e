#include "core/request_codec.h"

#include <cstring>

#include "platform/byteorder.h"

namespace {

// The first size bytes of a payload of len bytes, the missing ones zero. True when they
// start with code.
bool Take(const uint8_t* payload, size_t len, uint32_t code, uint8_t* out, size_t size) {
  memset(out, 0, size);
  if (payload != nullptr) memcpy(out, payload, len < size ? len : size);
  return LoadLE32(out) == code;
}

void PutHeader(uint8_t* out, uint32_t code, size_t size) {
  StoreLE32(out, code);
  StoreLE32(out + 4, static_cast<uint32_t>(size - kRequestHeaderSize));
}

}  // namespace

size_t EncodeTransferRequest(const TransferRequest& request, uint8_t out[kTransferRequestSize]) {
  memset(out, 0, kTransferRequestSize);
  PutHeader(out, kCodeTransfer, kTransferRequestSize);
  out[kTransferCtrOffset] = request.ctrType;
  StoreLE16(out + kTransferSeqOffset, request.seq);
  return kTransferRequestSize;
}

bool DecodeTransferRequest(const uint8_t* payload, size_t len, TransferRequest* request) {
  uint8_t raw[kTransferRequestSize];
  bool ok = Take(payload, len, kCodeTransfer, raw, sizeof(raw));
  request->ctrType = ok ? raw[kTransferCtrOffset] : 0;
  request->seq = ok ? LoadLE16(raw + kTransferSeqOffset) : 0;
  return ok;
}

size_t EncodeServerRequest(const UserDefServerSet_t& server, uint8_t out[kServerRequestSize]) {
  PutHeader(out, kCodeServerUpdate, kServerRequestSize);
  EncodeServerSet(server, out + kRequestHeaderSize);
  return kServerRequestSize;
}

bool DecodeServerRequest(const uint8_t* payload, size_t len, UserDefServerSet_t* server) {
  uint8_t raw[kServerRequestSize];
  bool ok = Take(payload, len, kCodeServerUpdate, raw, sizeof(raw));
  uint32_t declared = ok ? LoadLE32(raw + 4) : 0;
  DecodeServerSet(raw + kRequestHeaderSize, declared < kServerSetSize ? declared : kServerSetSize,
                  server);
  return ok;
}
