// The state machine that produces the AVI file block by block: header, LIST movi with the
// frame chunks, then the two indexes (avi_index.cpp); reading and seeking.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "avi/avi_layout.h"
#include "avi/read_avi.h"

namespace avi {

int PadSection(AviFileInfo_t* h, AviJunk_t* junk, uint32_t end) {
  if (!junk->started) {
    junk->started = true;
    junk->left_len = end > h->cur_pos ? end - h->cur_pos : 0;
    junk->write_len = 0;
  }
  if (junk->write_len >= junk->left_len) {
    h->out_len = h->out_read = 0;
    return 1;
  }
  uint32_t piece = junk->left_len - junk->write_len;
  if (piece > kAviOutBufLen) piece = kAviOutBufLen;
  memset(h->out_buf, 0, piece);
  if (junk->write_len == 0) {
    // The room test and the index guards keep every padding at 0 or at least 8 bytes; a
    // shorter one would carry as much of the JUNK head as fits.
    uint8_t head[8];
    StoreTag(head, "JUNK");
    StoreLE32(head + 4, junk->left_len - 8);
    memcpy(h->out_buf, head, piece < 8 ? piece : 8);
  }
  junk->write_len += piece;
  h->out_len = piece;
  h->cur_pos += piece;
  return 0;
}

}  // namespace avi

uint32_t CReadAvi::ReadAviPackFrame(uint32_t type, const uint8_t* payload, uint32_t len,
                                    uint8_t* out, uint64_t time_us) {
  avi::StoreTag(out, avi::ChunkTag(type));
  StoreLE32(out + 4, len);
  if (len > 0) memcpy(out + 8, payload, len);
  uint8_t* tm = out + 8 + len;
  avi::StoreTag(tm, "00tm");
  StoreLE32(tm + 4, 8);
  StoreLE64(tm + 8, time_us);
  return len + kAviChunkOverhead;
}

int CReadAvi::ReadAviAddIdx1(AviFileInfo_t* h, uint32_t type, uint32_t flags, uint32_t offset,
                             uint32_t length) {
  if (h == nullptr || h->idx1_count >= h->index_max) return -1;
  h->idx1_entries[h->idx1_count++] = AviIndexSlot_t{type, flags, offset, length};
  return 0;
}

int CReadAvi::ReadAviAddWidx(AviFileInfo_t* h, uint32_t type, uint32_t flags, uint32_t offset,
                             uint32_t length) {
  if (h == nullptr || h->widx_count >= h->index_max) return -1;
  h->widx_entries[h->widx_count++] = AviIndexSlot_t{type, flags, offset, length};
  return 0;
}

// Packs the next frame, or pads the section once no frame is taken any more.
//
// A frame is taken only when all of these hold, and the first frame that fails any of them
// ends the section (it is dropped, and no later frame is read):
// - fewer than video_frametotal video frames are packed;
// - frame size: its payload is at most kAviMaxPayload bytes, so the chunk fits the 1 MiB
//   output buffer;
// - room: the chunk fits before the section end and leaves either no gap or a gap of at least
//   8 bytes, so the padding always carries a whole JUNK head (an estimated movilen can be too
//   small for the last frames; a measured one always fits);
// - index capacity: both index sections can still hold the chunk's entries with their heads
//   and a JUNK head (avi_layout.h), so no index ever runs past its section.
int CReadAvi::ReadAviFillMovi(AviFileInfo_t* h) {
  if (h->frames_done == 0) {
    FrameInfo_t info;
    memset(&info, 0, sizeof(info));
    void* data = nullptr;
    bool packed = false;
    if (h->reader->ReadFrame(h->read_handle, &info, &data) == 0 &&
        (data != nullptr || info.length == 0)) {
      const uint8_t* payload = static_cast<const uint8_t*>(data);
      uint32_t len = info.length;
      uint8_t infoPayload[1024];
      if (info.type == 5) {
        memset(infoPayload, 0, sizeof(infoPayload));
        len = ReadAviPackInfo(info.time_us, payload, info.length, h->bt_record, infoPayload);
        payload = infoPayload;
      }
      uint64_t end = static_cast<uint64_t>(h->headlen) + h->movilen;
      uint64_t after = static_cast<uint64_t>(h->cur_pos) + len + kAviChunkOverhead;
      bool room = after <= end && (end - after == 0 || end - after >= 8);
      bool inIdx1 = avi::InIdx1(info.type, h->audio_codec);
      bool indexRoom = h->widx_count + 1 <= avi::WidxCapacity(h) &&
                       (!inIdx1 || h->idx1_count + 1 <= avi::Idx1Capacity(h));
      if (h->video_framecount >= h->video_frametotal) {
        // The declared frame count is reached: the frame is dropped.
      } else if (len > kAviMaxPayload) {
        printf("ReadAviFillMovi: frame of %u bytes exceeds %u, movi ends at %u\n", len,
               kAviMaxPayload, h->cur_pos);
      } else if (!indexRoom) {
        printf("ReadAviFillMovi: index full at %u entries, movi ends at %u\n", h->widx_count,
               h->cur_pos);
      } else if (room) {
        h->out_len = ReadAviPackFrame(info.type, payload, len, h->out_buf, info.time_us);
        uint32_t flags = avi::IndexFlags(info.type);
        if (inIdx1) ReadAviAddIdx1(h, info.type, flags, h->cur_pos, len);
        ReadAviAddWidx(h, info.type, flags, h->cur_pos, len);
        h->cur_pos += h->out_len;
        if (avi::IsVideoType(info.type)) ++h->video_framecount;
        packed = true;
      }
    }
    free(data);
    if (packed) return 0;
    h->frames_done = 1;
  }
  bool first = !h->movi_junk.started;
  uint32_t before = h->cur_pos;
  int done = avi::PadSection(h, &h->movi_junk, h->headlen + h->movilen);
  if (first) {
    printf("FileInfo->video_framecount = %d, %d\n", static_cast<int>(h->video_framecount),
           static_cast<int>(h->video_frametotal));
    printf("FileInfo->movi_junk_left_len = %d, %d, %d\n", static_cast<int>(h->movi_junk.left_len),
           static_cast<int>(before - h->headlen), static_cast<int>(h->movilen));
  }
  return done;
}

int CReadAvi::ReadAviFillBuffer(AviFileInfo_t* h) {
  switch (h->state) {
    case AVI_STATE_HEADER:
      if (ReadAviBuildHeader(h) != 0) return -1;
      memcpy(h->out_buf, h->head_buf, kAviHeadLen);
      memcpy(h->out_buf + kAviHeadLen, h->movi_head_buf, kAviMoviHeadLen);
      h->out_len = kAviHeadLen + kAviMoviHeadLen;
      h->cur_pos += h->out_len;
      h->state = AVI_STATE_MOVI;
      return 0;
    case AVI_STATE_MOVI:
      if (ReadAviFillMovi(h) == 1) h->state = AVI_STATE_IDX1;
      return 0;
    case AVI_STATE_IDX1:
      if (ReadAviFillIdx1(h) == 1) h->state = AVI_STATE_WIDX;
      return 0;
    case AVI_STATE_WIDX:
    default:
      return ReadAviFillWidx(h) == 1 ? -1 : 0;
  }
}

int CReadAvi::ReadAviRead(AviFileInfo_t* h, uint8_t** data, int32_t* length, int32_t wanted) {
  if (h == nullptr) return -1;
  if (h->out_read >= h->out_len || h->cur_pos == 0) {
    if (ReadAviFillBuffer(h) == -1) return 1;
    h->out_read = 0;
  }
  uint32_t avail = h->out_len - h->out_read;
  uint32_t n = wanted <= 0 ? 0 : static_cast<uint32_t>(wanted);
  if (n > avail) n = avail;
  *data = h->out_buf + h->out_read;
  *length = static_cast<int32_t>(n);
  h->out_read += n;
  return 0;
}

// Regenerates the file from its first byte up to offset, so that chunk offsets and index
// entries after a seek are exactly those of an uninterrupted reading. The info record goes back
// to what it was at open (after the pre-scan, where there is one), so the info chunks repeat
// too, however far the stream had been read. A resumed upload opens a new stream, so it sends
// the bytes the first attempt would have sent.
int CReadAvi::ReadAviSeek(AviFileInfo_t* h, uint32_t offset) {
  if (h == nullptr) return -1;
  memset(h->out_buf, 0, kAviOutBufLen);
  h->out_len = h->out_read = h->cur_pos = 0;
  h->state = AVI_STATE_HEADER;
  h->movi_junk = AviJunk_t{};
  h->idx1_junk = AviJunk_t{};
  h->widx_junk = AviJunk_t{};
  h->idx1_count = h->idx1_cursor = h->widx_count = h->widx_cursor = 0;
  h->frames_done = 0;
  h->video_framecount = 0;
  memcpy(h->bt_record, h->bt_record_open, sizeof(h->bt_record));
  long start = static_cast<long>(h->item->start_time);
  h->reader->SeekTime(h->read_handle, &start);

  uint32_t remaining = offset;
  while (remaining > 0) {
    uint8_t* data = nullptr;
    int32_t got = 0;
    int32_t want = static_cast<int32_t>(remaining < kAviOutBufLen ? remaining : kAviOutBufLen);
    if (ReadAviRead(h, &data, &got, want) != 0) return -1;
    remaining -= static_cast<uint32_t>(got);
  }
  return 0;
}
