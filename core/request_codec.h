// The payloads of the requests that reach the service under event 22, beyond the task record:
// transfer control (code 0x701) and server update (code 0x708). Every payload starts with its
// code and the length of what follows the header (both uint32 little-endian).
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/ftpserver.h"

constexpr uint32_t kCodeNewTask = 0x700;
constexpr uint32_t kCodeTransfer = 0x701;
constexpr uint32_t kCodeServerUpdate = 0x708;

constexpr size_t kRequestHeaderSize = 8;  // code at 0, length at 4

// Transfer control: the control type (0 off, 1 on, 2 delete; others are passed on as they
// are) at 8, one byte not read at 9, the task sequence number (uint16) at 10.
struct TransferRequest {
  uint8_t ctrType;
  uint16_t seq;
};
constexpr size_t kTransferCtrOffset = kRequestHeaderSize;
constexpr size_t kTransferSeqOffset = kRequestHeaderSize + 2;
constexpr size_t kTransferRequestSize = kTransferSeqOffset + 2;
static_assert(kTransferRequestSize == 12, "transfer control is 12 bytes");

// Server update: the server block (platform/ftpserver.h) at 8.
constexpr size_t kServerRequestSize = kRequestHeaderSize + kServerSetSize;
static_assert(kServerRequestSize == 234, "server update is 234 bytes");

// Writes the whole request into out and returns its size. The length field says 4.
size_t EncodeTransferRequest(const TransferRequest& request, uint8_t out[kTransferRequestSize]);
// Reads a transfer request from the len bytes at payload: bytes a short payload lacks read as
// zero, bytes past the request are ignored. False (and *request zeroed) when the payload does
// not start with code 0x701.
bool DecodeTransferRequest(const uint8_t* payload, size_t len, TransferRequest* request);

// Writes the whole request into out and returns its size. The length field says 226.
size_t EncodeServerRequest(const UserDefServerSet_t& server, uint8_t out[kServerRequestSize]);
// Reads a server update from the len bytes at payload: of the block, only as many bytes count
// as the length field gives (at most 226); bytes the payload lacks or the length leaves out
// read as zero, and every text is terminated inside its field. False (and *server zeroed)
// when the payload does not start with code 0x708.
bool DecodeServerRequest(const uint8_t* payload, size_t len, UserDefServerSet_t* server);
