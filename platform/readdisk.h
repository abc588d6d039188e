// The recording library's frame-store reader.
#pragma once

#include <cstddef>
#include <cstdint>

// A record item, 64 bytes: names one recording span of a partition.
struct RecordItem_t {
  uint8_t reserved[8];
  uint32_t fileNo;       // virtual name field 2 (%08x)
  uint32_t channel;      // virtual name field 1 (%04d)
  uint32_t start_time;   // seconds
  uint32_t end_time;     // seconds
  uint32_t record_size;  // bytes
  uint32_t record_type;
  char part_path[32];
};
static_assert(sizeof(RecordItem_t) == 64, "RecordItem_t layout");
static_assert(offsetof(RecordItem_t, fileNo) == 8, "fileNo offset");
static_assert(offsetof(RecordItem_t, channel) == 12, "channel offset");
static_assert(offsetof(RecordItem_t, start_time) == 16, "start_time offset");
static_assert(offsetof(RecordItem_t, part_path) == 32, "part_path offset");

// Partition access record, 132 bytes.
struct PartAccess_t {
  uint32_t devWord;  // first word of the status-7 record
  char path[128];
};
static_assert(sizeof(PartAccess_t) == 132, "PartAccess_t layout");

// Encode parameters, 88 bytes.
struct EncodeParam_t {
  uint8_t reserved0[12];
  uint8_t codecFlags;  // bit 0: H.265
  uint8_t fps;
  uint8_t resolution;
  uint8_t audioCodec;  // 0..3
  uint8_t reserved1[20];
  uint32_t standard;  // 0: 576/288-line heights, else 480/240
  uint8_t reserved2[48];
};
static_assert(sizeof(EncodeParam_t) == 88, "EncodeParam_t layout");
static_assert(offsetof(EncodeParam_t, codecFlags) == 12, "codec offset");
static_assert(offsetof(EncodeParam_t, standard) == 36, "standard offset");

// Frame description filled by ReadFrame.
struct FrameInfo_t {
  uint64_t time_us;  // microseconds since 1970-01-01 UTC
  uint32_t type;     // 0..2 video (1 key), 3 audio, 4 alarm, 5 info, 6+ audio
  uint32_t reserved;
  uint32_t length;  // payload bytes
  uint32_t reserved2;
  uint8_t reserved3[8];
};
static_assert(sizeof(FrameInfo_t) == 32, "FrameInfo_t layout");
static_assert(offsetof(FrameInfo_t, type) == 8, "type offset");
static_assert(offsetof(FrameInfo_t, length) == 16, "length offset");

class CReadDisk {
 public:
  CReadDisk();
  virtual ~CReadDisk();
  virtual int Init(PartAccess_t* access);
  // Starts reading the span of item; returns the read handle (null on failure).
  virtual void* StartRead(int mode, RecordItem_t* item);
  // Fills *param with the span's encode parameters. Negative on failure.
  virtual int GetInfo(EncodeParam_t* param, RecordItem_t* item, int mode);
  // 0 and a frame (payload a new heap block the caller frees), non-zero when there is none.
  virtual int ReadFrame(void* handle, FrameInfo_t* info, void** data);
  // Positions at the first frame at or after *seconds.
  virtual int SeekTime(void* handle, long* seconds);
  virtual int StopRead(void* handle);
  virtual int Quit();  // may be called twice

 protected:
  struct Impl;
  Impl* m_pImpl = nullptr;
};

// Creates the host reader (Env::Default()->NewReadDisk() calls this).
CReadDisk* NewReadDisk();
