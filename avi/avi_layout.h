// Byte-level helpers shared by the parts of the AVI stream. Internal to avi/.
#pragma once

#include <cstdint>
#include <cstring>

#include "avi/read_avi.h"
#include "platform/byteorder.h"

namespace avi {

// Writes a four-character code.
inline void StoreTag(uint8_t* p, const char* tag) { memcpy(p, tag, 4); }

inline bool IsVideoType(uint32_t type) { return type <= 2; }

// The movi chunk id of a frame type; the widx entries carry the same id.
inline const char* ChunkTag(uint32_t type) {
  switch (type) {
    case 0:
    case 1:
    case 2:
      return "00db";
    case 4:
      return "00al";
    case 5:
      return "00bt";
    default:
      return "00wb";  // 3 and 6 and above: audio
  }
}

// Audio frames reach idx1 only when the audio is PCM (codec 0), which players can decode.
inline bool InIdx1(uint32_t type, uint32_t audioCodec) {
  if (IsVideoType(type)) return true;
  if (type == 4 || type == 5) return false;
  return audioCodec == 0;
}

inline uint32_t IndexFlags(uint32_t type) { return type == 1 ? 0x10u : 0u; }

// The codec tag of the widx head, or null when the code has none.
inline const char* AudioCodecTag(uint32_t code) {
  switch (code) {
    case 0:
      return "0pcm";
    case 1:
      return "711a";
    case 2:
      return "711u";
    case 3:
      return "g726";
    default:
      return nullptr;
  }
}

inline uint32_t WidxHeadLen(uint32_t audioCodec) {
  return AudioCodecTag(audioCodec) != nullptr ? 28u : 24u;
}

// Entries each index section can hold so that its padding can still carry a whole JUNK head.
// A section is 16 x index_max bytes. idx1: 8 + 16n + pad, so pad is 8 mod 16 and n <= max - 1.
// widx with a 28-byte head: pad is 4 mod 16 and must be >= 8, so >= 20 and n <= max - 3;
// with a 24-byte head: pad is 8 mod 16 and n <= max - 2. Negative: no entry fits.
inline int64_t Idx1Capacity(const AviFileInfo_t* h) {
  return static_cast<int64_t>(h->index_max) - 1;
}
inline int64_t WidxCapacity(const AviFileInfo_t* h) {
  return static_cast<int64_t>(h->index_max) - (WidxHeadLen(h->audio_codec) == 28 ? 3 : 2);
}

// One padding step of a section ending at end (absolute). Returns 1 when the section is
// complete, 0 after producing a block of padding into out_buf.
int PadSection(AviFileInfo_t* h, AviJunk_t* junk, uint32_t end);

}  // namespace avi
