// An in-memory frame-store reader for the AVI stream tests. While a FakeRecording lives, every
// reader a TestEnv creates reads its frames.
#pragma once

#include <cstdint>
#include <numeric>
#include <vector>

#include "platform/readdisk.h"

struct FakeFrame {
  uint64_t time_us;
  uint32_t type;
  std::vector<uint8_t> data;
};

class FakeRecording {
 public:
  FakeRecording() { current = this, SetParam(25, 3); }
  ~FakeRecording() { current = nullptr; }
  // Sets the encode parameters GetInfo answers with.
  void SetParam(int fps, int resolution, bool h265 = false, int audioCodec = 0, int standard = 0) {
    auto u8 = [](int v) { return static_cast<uint8_t>(v); };
    param = {{}, u8(h265), u8(fps), u8(resolution), u8(audioCodec), {}, uint32_t(standard), {}};
  }
  // Appends a frame of len bytes whose byte i is (seed + i) & 0xff.
  void Add(uint64_t time_us, uint32_t type, uint32_t len, uint8_t seed = 0) {
    frames.push_back({time_us, type, std::vector<uint8_t>(len)});
    std::iota(frames.back().data.begin(), frames.back().data.end(), seed);
  }
  // Appends a type-5 frame: a 44-byte source of the given subtype whose other bytes are
  // (seed + i) & 0xff.
  void AddInfo(uint64_t time_us, uint32_t subtype, uint8_t seed = 0) {
    Add(time_us, 5, 44, seed);
    for (int i = 0; i < 4; ++i) frames.back().data[i] = static_cast<uint8_t>(subtype >> (8 * i));
  }

  EncodeParam_t param{};
  std::vector<FakeFrame> frames;  // in time order
  bool failGetInfo = false;       // fault switch
  int failAfter = -1;  // a started read reports no frame after this many frames (-1: never)
  // What the stream did with the readers.
  int created = 0, destroyed = 0, quits = 0, stops = 0;
  std::vector<PartAccess_t> inits;
  std::vector<RecordItem_t> starts;

  static inline FakeRecording* current = nullptr;
};
