// The frame-store file of the host recording library (docs/AVI.md). On the recorder the frame
// store is the recording library's own business; on the host, CReadDisk reads these files and
// tools/velmar-mkrec writes them.
//
// Layout, little-endian:
//   0   8   magic "VLMFS001"
//   8   88  EncodeParam_t, as GetInfo returns it
//   96  frames in time order, each: u64 time (microseconds since 1970), u32 type, u32 payload
//       length, then the payload
// The file of a record item is "<partition path>/<channel %04u>_<file number %08x>.vfs".
#pragma once

#include <cstddef>
#include <cstdint>

constexpr char kFrameStoreMagic[8] = {'V', 'L', 'M', 'F', 'S', '0', '0', '1'};
constexpr size_t kFrameStoreHeadLen = 96;
constexpr size_t kFrameStoreFrameHeadLen = 16;
// A frame longer than this is taken as damage: the reader stops there.
constexpr uint32_t kFrameStoreMaxFrame = 16u << 20;

// Writes the file name of (channel, fileNo) under dir into out; 0, or -1 when it did not fit.
int FrameStorePath(const char* dir, uint32_t channel, uint32_t fileNo, char* out, size_t cap);
