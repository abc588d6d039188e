// The idx1 and widx sections: their heads, the entries in the order the chunks were packed, and
// the padding up to each section's fixed end. Sections are produced in blocks of at most 1 MiB.
#include <cstring>

#include "avi/avi_layout.h"
#include "avi/read_avi.h"

namespace {

// A block takes entries while it holds at most this many bytes, so it never exceeds 1 MiB.
constexpr uint32_t kBlockFill = kAviOutBufLen - 16;

// Appends entries from *cursor on; returns the new block length.
uint32_t AppendEntries(const AviIndexSlot_t* entries, uint32_t count, uint32_t* cursor, bool widx,
                       uint8_t* out, uint32_t len) {
  while (*cursor < count && len <= kBlockFill) {
    const AviIndexSlot_t& e = entries[(*cursor)++];
    const char* tag = widx ? avi::ChunkTag(e.type) : (avi::IsVideoType(e.type) ? "00db" : "00wb");
    avi::StoreTag(out + len, tag);
    StoreLE32(out + len + 4, e.flags);
    StoreLE32(out + len + 8, e.offset);
    StoreLE32(out + len + 12, e.length);
    len += 16;
  }
  return len;
}

}  // namespace

int CReadAvi::ReadAviFillIdx1(AviFileInfo_t* h) {
  memset(h->out_buf, 0, kAviOutBufLen);
  if (h->idx1_cursor >= h->idx1_count) {
    return avi::PadSection(h, &h->idx1_junk, h->headlen + h->movilen + h->idx1len);
  }
  uint32_t len = 0;
  if (h->idx1_cursor == 0) {
    avi::StoreTag(h->out_buf, "idx1");
    StoreLE32(h->out_buf + 4, h->idx1len - 8);
    len = 8;
  }
  len = AppendEntries(h->idx1_entries, h->idx1_count, &h->idx1_cursor, false, h->out_buf, len);
  h->out_len = len;
  h->cur_pos += len;
  return 0;
}

int CReadAvi::ReadAviFillWidx(AviFileInfo_t* h) {
  memset(h->out_buf, 0, kAviOutBufLen);
  if (h->widx_cursor >= h->widx_count) {
    return avi::PadSection(h, &h->widx_junk, h->filelen);
  }
  uint32_t len = 0;
  if (h->widx_cursor == 0) {
    avi::StoreTag(h->out_buf, "widx");
    StoreLE32(h->out_buf + 4, h->widxlen - 8);
    avi::StoreTag(h->out_buf + 8, "00cn");
    StoreLE32(h->out_buf + 12, h->widx_count);
    len = 24;
    if (const char* tag = avi::AudioCodecTag(h->audio_codec)) {
      avi::StoreTag(h->out_buf + 24, tag);
      len = 28;
    }
  }
  len = AppendEntries(h->widx_entries, h->widx_count, &h->widx_cursor, true, h->out_buf, len);
  h->out_len = len;
  h->cur_pos += len;
  return 0;
}
