// Explicit little-endian loads and stores for bytes that cross a process or a file.
#pragma once

#include <cstdint>

inline uint16_t LoadLE16(const void* p) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return static_cast<uint16_t>(b[0] | (b[1] << 8));
}

inline uint32_t LoadLE32(const void* p) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
         (static_cast<uint32_t>(b[2]) << 16) | (static_cast<uint32_t>(b[3]) << 24);
}

inline uint64_t LoadLE64(const void* p) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return static_cast<uint64_t>(LoadLE32(b)) | (static_cast<uint64_t>(LoadLE32(b + 4)) << 32);
}

inline void StoreLE16(void* p, uint16_t v) {
  uint8_t* b = static_cast<uint8_t*>(p);
  b[0] = static_cast<uint8_t>(v);
  b[1] = static_cast<uint8_t>(v >> 8);
}

inline void StoreLE32(void* p, uint32_t v) {
  uint8_t* b = static_cast<uint8_t*>(p);
  for (int i = 0; i < 4; ++i) b[i] = static_cast<uint8_t>(v >> (8 * i));
}

inline void StoreLE64(void* p, uint64_t v) {
  uint8_t* b = static_cast<uint8_t*>(p);
  StoreLE32(b, static_cast<uint32_t>(v));
  StoreLE32(b + 4, static_cast<uint32_t>(v >> 32));
}
