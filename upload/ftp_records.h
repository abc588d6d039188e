// The upload task record, its conversions to and from the database row, and its wire form.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/file2ftpdb.h"
#include "platform/ftpserver.h"

// One upload task, 496 bytes. The same layout in a request, in the task list and in the
// upload engine's copy.
struct ftpFileInfo_t {
  uint8_t type;            // 0 plain file, 1 recording
  uint8_t sendTimes;       // send attempts of the engine
  uint8_t connFailTimes;   // failed connections of the engine
  uint8_t delAfterUpload;  // 1: remove the local file once complete
  uint32_t seq;            // sequence number given by the requester
  char fullName[128];      // local path or recording name; identifies the task
  char fileName[64];       // name on the server
  char fileDir[64];        // directory on the server
  uint8_t valid;           // 1: may be sent
  uint8_t net;             // allowed network links, bits 1, 2, 4
  uint8_t trans;           // 1 transfer on, 0 off
  uint8_t result;          // 0 none, 1 done, 2 cannot open, 3 stopped by valid
  UserDefServerSet_t server;
  uint8_t pad[2];
};
static_assert(sizeof(ftpFileInfo_t) == 496, "ftpFileInfo_t layout");
static_assert(offsetof(ftpFileInfo_t, sendTimes) == 1, "sendTimes offset");
static_assert(offsetof(ftpFileInfo_t, delAfterUpload) == 3, "delAfterUpload offset");
static_assert(offsetof(ftpFileInfo_t, seq) == 4, "seq offset");
static_assert(offsetof(ftpFileInfo_t, fullName) == 8, "fullName offset");
static_assert(offsetof(ftpFileInfo_t, fileName) == 136, "fileName offset");
static_assert(offsetof(ftpFileInfo_t, fileDir) == 200, "fileDir offset");
static_assert(offsetof(ftpFileInfo_t, valid) == 264, "valid offset");
static_assert(offsetof(ftpFileInfo_t, net) == 265, "net offset");
static_assert(offsetof(ftpFileInfo_t, trans) == 266, "trans offset");
static_assert(offsetof(ftpFileInfo_t, result) == 267, "result offset");
static_assert(offsetof(ftpFileInfo_t, server) == 268, "server offset");

constexpr size_t kTaskRecordSize = sizeof(ftpFileInfo_t);

// Record from row: type from the row's low 8 bits, texts cut to the record's sizes, bytes
// 264..267 and the server as they are, bytes 1..3 zero.
void RecordFromRow(const __ftp_log& row, ftpFileInfo_t* rec);
// Row from record: the reverse; the row's result is 0.
void RowFromRecord(const ftpFileInfo_t& rec, __ftp_log* row);

// Decodes the first n bytes of a little-endian wire record (missing bytes read as zero;
// bytes past 496 are ignored). Text fields are terminated at their last byte.
void DecodeTaskRecord(const uint8_t* bytes, size_t n, ftpFileInfo_t* rec);
void EncodeTaskRecord(const ftpFileInfo_t& rec, uint8_t out[kTaskRecordSize]);
