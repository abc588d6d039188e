// Listings from arbitrary bytes: every entry kept is a usable, terminated name with a
// non-negative size, the count never exceeds the capacity, and the wanted name is kept.
#include <cstdint>
#include <cstring>

#include "platform/host/ftp/listing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  FtpListFormat fmt = (data[0] & 1) ? FtpListFormat::kMlsd : FtpListFormat::kList;
  int capacity = (data[1] % 8) + 1;
  static FtpDirEntry_t entries[8];
  memset(entries, 0x55, sizeof(entries));
  FtpListingParser parser(fmt, "want", entries, capacity);
  const char* p = reinterpret_cast<const char*>(data) + 2;
  size_t len = size - 2;
  size_t step = (data[0] >> 1) + 1;
  for (size_t off = 0; off < len; off += step) {
    parser.Feed(p + off, len - off < step ? len - off : step);
  }
  parser.Finish();
  if (parser.count() < 0 || parser.count() > capacity) __builtin_trap();
  bool found = false;
  for (int i = 0; i < parser.count(); ++i) {
    size_t n = strnlen(entries[i].name, sizeof(entries[i].name));
    if (n == sizeof(entries[i].name)) __builtin_trap();
    if (!IsUsableFtpName(entries[i].name, n) || entries[i].size < 0) __builtin_trap();
    if (strcmp(entries[i].name, "want") == 0) found = true;
  }
  if (parser.haveWanted() != found) __builtin_trap();
  return 0;
}
