// The info record carried by "00bt" chunks.
//
// Scope: one record per stream, touched only by the thread that reads the stream, so it needs no
// lock, and a stream's bytes do not depend on what other streams read. It starts as zeros at
// open; the pre-scan at open updates the stream's own record, so that afterwards it already
// holds the values a full reading leaves. A seek restores the record as it stood after open, so
// reading a stream again gives identical bytes, and a resumed upload (a new stream) sends what
// the first one would.
#include <cstring>
#include <ctime>

#include "avi/avi_layout.h"
#include "avi/read_avi.h"
#include "platform/clock.h"

namespace {

// Source fields lie within its first 44 bytes.
constexpr uint32_t kSourceLen = 44;

void PutDate(uint64_t time_us, uint8_t* rec) {
  long seconds = static_cast<long>(static_cast<int64_t>(time_us) / 1000000);
  struct tm t;
  memset(&t, 0, sizeof(t));
  if (comm_localtime_r(&seconds, &t) != 0) memset(&t, 0, sizeof(t));
  StoreLE16(rec + 60, static_cast<uint16_t>(t.tm_year + 1900));
  rec[62] = static_cast<uint8_t>(t.tm_mon + 1);
  rec[63] = static_cast<uint8_t>(t.tm_mday);
  rec[64] = static_cast<uint8_t>(t.tm_hour);
  rec[65] = static_cast<uint8_t>(t.tm_min);
  rec[66] = static_cast<uint8_t>(t.tm_sec);
}

}  // namespace

// A source shorter than its subtype word has no subtype and gives an empty payload; bytes a
// shorter source lacks read as zero.
uint32_t CReadAvi::ReadAviPackInfo(uint64_t time_us, const uint8_t* source, uint32_t srcLen,
                                   uint8_t* record, uint8_t* out) {
  if (source == nullptr || srcLen < 4) return 0;
  uint8_t src[kSourceLen] = {};
  memcpy(src, source, srcLen < kSourceLen ? srcLen : kSourceLen);
  uint32_t subtype = LoadLE32(src);
  uint8_t* r = record;
  switch (subtype) {
    case 0:
      r[36] = src[8];
      r[37] = src[9];
      StoreLE16(r + 38, LoadLE16(src + 10));
      memcpy(r + 40, src + 12, 4);
      StoreLE32(r + 44, LoadLE32(src + 16));
      StoreLE32(r + 48, LoadLE32(src + 20));
      StoreLE16(r + 52, LoadLE16(src + 24));
      r[54] = src[26];
      r[55] = src[27];
      StoreLE16(r + 56, LoadLE16(src + 28));
      r[58] = src[30];
      PutDate(time_us, r);
      break;
    case 1:
      StoreLE16(r + 12, LoadLE16(src + 10));
      StoreLE16(r + 14, LoadLE16(src + 12));
      StoreLE16(r + 16, LoadLE16(src + 14));
      StoreLE16(r + 18, LoadLE16(src + 16));
      break;
    case 2:
      r[24] = static_cast<uint8_t>(LoadLE32(src + 8));
      r[31] = static_cast<uint8_t>(LoadLE32(src + 20));
      r[32] = static_cast<uint8_t>(LoadLE32(src + 40));
      StoreLE16(r + 34, static_cast<uint16_t>(LoadLE32(src + 36)));
      break;
    default:
      return 0;
  }
  bool brief = subtype == 1;
  StoreLE16(r, brief ? 3 : 31);
  StoreLE16(r + 2, brief ? 12 : 56);
  uint32_t n = brief ? 24 : kAviInfoRecordLen;
  memcpy(out, r, n);
  return n;
}
