// Control replies from arbitrary bytes: the parser stays within its bounds, every reply it
// completes has a valid code, and the passive-port readers accept only real port numbers.
#include <cstdint>
#include <string>

#include "platform/host/ftp/reply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* p = reinterpret_cast<const char*>(data);
  // The first byte picks the chunk size, so that replies split across reads are covered.
  size_t step = size > 0 ? (data[0] % 64) + 1 : 1;
  FtpReplyParser parser;
  size_t off = 0;
  while (off < size) {
    size_t len = size - off < step ? size - off : step;
    size_t used = 0;
    FtpReplyParser::Status s = parser.Feed(p + off, len, &used);
    if (used > len) __builtin_trap();
    off += used;
    if (s == FtpReplyParser::kError) break;
    if (s == FtpReplyParser::kDone) {
      const FtpReply& r = parser.reply();
      if (r.code < 100 || r.code > 599) __builtin_trap();
      if (r.text.size() > kFtpMaxReplyBytes) __builtin_trap();
      int e = ParseEpsvPort(r.text);
      int v = ParsePasvPort(r.text);
      if (e == 0 || e > 65535 || v == 0 || v > 65535) __builtin_trap();
      FeatOffersMlsd(r.text);
      parser.Reset();
    } else if (used == 0) {
      __builtin_trap();  // no progress
    }
  }
  return 0;
}
