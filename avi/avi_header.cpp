// The 4096-byte AVI header and the 12-byte LIST movi head. Both depend only on values fixed at
// open, so every restart of a stream writes the same bytes.
#include <cstdlib>
#include <cstring>

#include "avi/avi_layout.h"
#include "avi/read_avi.h"

namespace {

// Offsets of the header fields (docs/AVI.md has the whole table).
constexpr size_t kAvihAt = 24;
constexpr size_t kVideoListAt = 88;
constexpr size_t kAudioListAt = 212;
constexpr size_t kJunkAt = 312;
static_assert(kJunkAt + 8 + 3776 == kAviHeadLen, "the header JUNK fills the header to 4096");

void PutChunkHead(uint8_t* p, const char* tag, uint32_t size) {
  avi::StoreTag(p, tag);
  StoreLE32(p + 4, size);
}

}  // namespace

int CReadAvi::ReadAviBuildHeader(AviFileInfo_t* h) {
  if (h == nullptr) return -1;
  if (h->head_buf == nullptr) h->head_buf = static_cast<uint8_t*>(malloc(kAviHeadLen));
  if (h->movi_head_buf == nullptr) {
    h->movi_head_buf = static_cast<uint8_t*>(malloc(kAviMoviHeadLen));
  }
  if (h->head_buf == nullptr || h->movi_head_buf == nullptr) return -1;
  uint8_t* b = h->head_buf;
  memset(b, 0, kAviHeadLen);
  memset(h->movi_head_buf, 0, kAviMoviHeadLen);

  PutChunkHead(b, "RIFF", h->filelen - 8);
  avi::StoreTag(b + 8, "AVI ");
  PutChunkHead(b + 12, "LIST", 292);
  avi::StoreTag(b + 20, "hdrl");

  // Main AVI header.
  uint8_t* m = b + kAvihAt;
  PutChunkHead(m, "avih", 56);
  StoreLE32(m + 8, h->fps != 0 ? 1000000u / h->fps : 0u);
  StoreLE32(m + 20, 0x110);  // has index, interleaved
  StoreLE32(m + 24, h->video_frametotal);
  StoreLE32(m + 32, 2);  // streams
  StoreLE32(m + 40, h->width);
  StoreLE32(m + 44, h->height);

  // Video stream list.
  const char* codec = h->is_h265 == 1 ? "H265" : "H264";
  uint8_t* v = b + kVideoListAt;
  PutChunkHead(v, "LIST", 116);
  avi::StoreTag(v + 8, "strl");
  PutChunkHead(v + 12, "strh", 56);
  avi::StoreTag(v + 20, "vids");
  avi::StoreTag(v + 24, codec);
  StoreLE32(v + 40, 1000000);            // scale
  StoreLE32(v + 44, 1000000u * h->fps);  // rate: rate / scale = fps
  StoreLE32(v + 52, h->video_frametotal);
  StoreLE32(v + 60, 0xFFFFFFFFu);  // quality
  PutChunkHead(v + 76, "strf", 40);
  StoreLE32(v + 84, 40);
  StoreLE32(v + 88, h->width);
  StoreLE32(v + 92, h->height);
  StoreLE16(v + 96, 1);   // planes
  StoreLE16(v + 98, 24);  // bits per pixel
  avi::StoreTag(v + 100, codec);
  StoreLE32(v + 104, h->width * h->height * 3);

  // Audio stream list: always 16-bit PCM; the recorded codec is named in widx only.
  uint32_t sampleBytes = ((h->audio_bits + 7) / 8) * h->audio_channels;
  uint32_t blockV = sampleBytes < 4 ? 1 : sampleBytes / 4;
  uint32_t blockD = sampleBytes < 4 ? 4 : sampleBytes;
  uint32_t bytesPerSecond = 1000u * h->audio_kbps / 8;
  uint8_t* a = b + kAudioListAt;
  PutChunkHead(a, "LIST", 92);
  avi::StoreTag(a + 8, "strl");
  PutChunkHead(a + 12, "strh", 56);
  avi::StoreTag(a + 20, "auds");
  StoreLE32(a + 40, blockV);  // scale
  StoreLE32(a + 44, bytesPerSecond);
  StoreLE32(a + 52, 4u * h->audio_len / blockD);
  StoreLE32(a + 60, 0xFFFFFFFFu);
  StoreLE32(a + 64, blockV);  // sample size
  PutChunkHead(a + 76, "strf", 16);
  StoreLE16(a + 84, static_cast<uint16_t>(h->audio_format));
  StoreLE16(a + 86, static_cast<uint16_t>(h->audio_channels));
  StoreLE32(a + 88, h->audio_samplerate);
  StoreLE32(a + 92, bytesPerSecond);
  StoreLE16(a + 96, static_cast<uint16_t>(blockV));
  StoreLE16(a + 98, static_cast<uint16_t>(h->audio_bits));

  PutChunkHead(b + kJunkAt, "JUNK", 3776);

  PutChunkHead(h->movi_head_buf, "LIST", h->movilen - 8);
  avi::StoreTag(h->movi_head_buf + 8, "movi");
  return 0;
}
