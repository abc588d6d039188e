// The recording-to-AVI stream: presents a span of recorded frames as an AVI file of a length
// fixed at open, produced on the fly in blocks of at most 1 MiB and restartable at any offset.
//
// File layout (docs/AVI.md): a 4096-byte header, the LIST movi section of `movilen` bytes, the
// idx1 section and the widx section of 16 x `index_max` bytes each. Every section has its length
// fixed at open; what its content does not fill is one JUNK chunk.
#pragma once

#include <cstdint>

#include "platform/readdisk.h"
#include "platform/thread.h"

enum AviState_e {
  AVI_STATE_HEADER = 0,
  AVI_STATE_MOVI = 1,
  AVI_STATE_IDX1 = 2,
  AVI_STATE_WIDX = 3,
};

// Sizes every part of the stream relies on.
constexpr uint32_t kAviHeadLen = 4096;
constexpr uint32_t kAviMoviHeadLen = 12;
constexpr uint32_t kAviOutBufLen = 1048576;
// A frame chunk adds its 8-byte head and the 16-byte "00tm" time chunk to the payload.
constexpr uint32_t kAviChunkOverhead = 24;
// The largest payload whose chunk fits the output buffer.
constexpr uint32_t kAviMaxPayload = kAviOutBufLen - kAviChunkOverhead;
constexpr uint32_t kAviInfoRecordLen = 68;
// Longest span the stream accepts; bounds the index arrays (2 x 138 MB at most).
constexpr uint32_t kAviMaxDuration = 86400;
// A span is closed (no frame can still enter it) once the recorder's clock is this many seconds
// past its end; docs/AVI.md says why.
constexpr uint32_t kAviSettledSeconds = 300;

// One index entry as kept in memory; the chunk id is derived from the type when written.
struct AviIndexSlot_t {
  uint32_t type;
  uint32_t flags;
  uint32_t offset;  // absolute file offset of the chunk id
  uint32_t length;  // payload length
};
static_assert(sizeof(AviIndexSlot_t) == 16, "an index entry is 16 bytes");

// Padding of one section: its length is fixed the first time the section pads.
struct AviJunk_t {
  bool started;
  uint32_t left_len;   // padding length
  uint32_t write_len;  // padding delivered so far
};

// The state of one open stream; the stream handle points at it. One thread at a time.
struct AviFileInfo_t {
  // Constant after open.
  uint32_t headlen;
  uint32_t movilen;
  uint32_t idx1len;
  uint32_t widxlen;
  uint32_t filelen;
  uint32_t fps;
  uint32_t width;
  uint32_t height;
  uint32_t video_frametotal;
  uint32_t audio_len;
  uint32_t index_max;
  uint32_t audio_format;
  uint32_t audio_channels;
  uint32_t audio_samplerate;
  uint32_t audio_bits;
  uint32_t audio_kbps;
  uint32_t is_h265;
  uint32_t audio_codec;
  RecordItem_t* item;  // owned copy of the parsed record item
  CReadDisk* reader;   // owned
  void* read_handle;

  // Position and progress; reset by a seek.
  uint32_t cur_pos;
  AviState_e state;
  uint32_t idx1_count;
  AviIndexSlot_t* idx1_entries;  // index_max entries, owned
  uint32_t idx1_cursor;
  uint32_t widx_count;
  AviIndexSlot_t* widx_entries;  // index_max entries, owned
  uint32_t widx_cursor;
  AviJunk_t movi_junk;
  AviJunk_t idx1_junk;
  AviJunk_t widx_junk;
  uint32_t frames_done;
  uint32_t video_framecount;

  // Buffers.
  uint8_t* head_buf;       // 4096 bytes, owned
  uint8_t* movi_head_buf;  // 12 bytes, owned
  uint8_t* out_buf;        // kAviOutBufLen bytes, owned
  uint32_t out_len;
  uint32_t out_read;

  // The persistent info record of the type-5 frames, kept per stream (see avi_info.cpp), and
  // the record as it stood when the stream was opened, which every seek restores.
  uint8_t bt_record[kAviInfoRecordLen];
  uint8_t bt_record_open[kAviInfoRecordLen];
};

class Env;

// The measured layouts of the last few closed spans, so that a recording is counted once per
// task rather than once per opening. Safe from any thread.
class AviSpanCache {
 public:
  // What a pre-scan measures: the bytes of the span's frame chunks and the info record as the
  // scan leaves it, for a span of a recording read through a partition.
  struct Measure {
    uint64_t chunks;
    uint8_t record[kAviInfoRecordLen];
  };
  struct Key {
    RecordItem_t item;
    PartAccess_t access;
  };
  static_assert(sizeof(Key) == sizeof(RecordItem_t) + sizeof(PartAccess_t),
                "keys compare byte by byte: no padding");
  // True and *m when key was stored; every byte of key counts.
  bool Find(const Key& key, Measure* m) EXCLUDES(m_lock);
  // Keeps m for key, in place of the oldest entry.
  void Store(const Key& key, const Measure& m) EXCLUDES(m_lock);

 private:
  static constexpr int kEntries = 4;
  struct Entry {
    bool used;
    Key key;
    Measure measure;
  };
  CLock m_lock;
  Entry m_entries[kEntries] GUARDED_BY(m_lock) = {};
  int m_next GUARDED_BY(m_lock) = 0;
};

// The AVI stream's operations. Holds only its Env (recorder status and frame-store readers):
// any object on the same Env serves any stream.
class CReadAvi {
 public:
  // Measured lengths of closed spans are kept in spans when one is given.
  explicit CReadAvi(Env* env, AviSpanCache* spans = nullptr) : m_env(env), m_spans(spans) {}

  // Opens the recording named "/%04d_%08x_%d_%d_%d_%d_%d.avi" (channel, file number, partition,
  // start, end, record type, record size). Returns a new handle, or null when the name names no
  // partition, the span is empty backwards or too long, or the reader cannot describe it.
  AviFileInfo_t* ReadAviOpen(const char* name);
  // True when the open of name would find and describe its recording, which is not read:
  // only a span whose layout exceeds 4 GiB passes here and fails to open.
  bool ReadAviProbe(const char* name);
  // Total AVI length; 0 for a null handle.
  uint32_t ReadAviGetSize(AviFileInfo_t* h);
  // 0: *data points at the next *length (<= wanted, maybe 0) bytes, valid until the next call on
  // h. 1: the file is complete. -1: null handle.
  int ReadAviRead(AviFileInfo_t* h, uint8_t** data, int32_t* length, int32_t wanted);
  // 0 when the next read delivers the file from byte offset; -1 for a null handle or an offset
  // past the end (the stream is then complete until the next seek).
  int ReadAviSeek(AviFileInfo_t* h, uint32_t offset);
  // Releases the stream. 0, or -1 for a null handle.
  int ReadAviClose(AviFileInfo_t* h);

  // Internal steps, public for the unit tests of the layout.
  int ReadAviInit(AviFileInfo_t* h, const RecordItem_t* item, const PartAccess_t* access);
  int ReadAviBuildHeader(AviFileInfo_t* h);
  int ReadAviFillBuffer(AviFileInfo_t* h);
  int ReadAviFillMovi(AviFileInfo_t* h);
  int ReadAviFillIdx1(AviFileInfo_t* h);
  int ReadAviFillWidx(AviFileInfo_t* h);
  static uint32_t ReadAviPackFrame(uint32_t type, const uint8_t* payload, uint32_t len,
                                   uint8_t* out, uint64_t time_us);
  // Updates record from a type-5 source of srcLen bytes and writes the chunk payload (68, 24 or
  // 0 bytes) to out.
  static uint32_t ReadAviPackInfo(uint64_t time_us, const uint8_t* source, uint32_t srcLen,
                                  uint8_t* record, uint8_t* out);
  int ReadAviAddIdx1(AviFileInfo_t* h, uint32_t type, uint32_t flags, uint32_t offset,
                     uint32_t length);
  int ReadAviAddWidx(AviFileInfo_t* h, uint32_t type, uint32_t flags, uint32_t offset,
                     uint32_t length);

 private:
  bool Locate(const char* name, RecordItem_t* item, PartAccess_t* access);
  uint64_t MeasureChunks(AviFileInfo_t* h, const PartAccess_t& access);

  Env* m_env;
  AviSpanCache* m_spans;
};
