// A configuration archive from the server, checked before it is unpacked: the check ends on
// any bytes, and whatever it accepts has only plain members inside the config directory.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "maintain/command_files.h"

namespace {

std::string Field(const uint8_t* h, size_t offset, size_t len) {
  return std::string(reinterpret_cast<const char*>(h + offset),
                     strnlen(reinterpret_cast<const char*>(h + offset), len));
}

bool HasDotDot(const std::string& path) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (path.compare(start, end - start, "..") == 0) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string why;
  if (!CheckConfigArchive(data, size, &why)) {
    if (why.empty()) __builtin_trap();  // every refusal says why
    return 0;
  }
  // Accepted: walk the headers again and hold the check to its promise.
  for (size_t pos = 0; pos + 512 <= size;) {
    const uint8_t* h = data + pos;
    bool zero = true;
    for (int i = 0; i < 512 && zero; ++i) zero = h[i] == 0;
    if (zero) break;
    std::string name = Field(h, 0, 100);
    std::string prefix = memcmp(h + 257, "ustar\0", 6) == 0 ? Field(h, 345, 155) : "";
    char type = static_cast<char>(h[156]);
    if ((!name.empty() && name[0] == '/') || (!prefix.empty() && prefix[0] == '/'))
      __builtin_trap();
    if (HasDotDot(name) || HasDotDot(prefix)) __builtin_trap();
    if (type != '0' && type != '\0' && type != '7' && type != '5') __builtin_trap();
    unsigned long long length = strtoull(Field(h, 124, 12).c_str(), nullptr, 8);
    pos += 512 + static_cast<size_t>((length + 511) / 512) * 512;
  }
  return 0;
}
