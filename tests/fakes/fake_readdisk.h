// An in-memory frame-store reader for the AVI stream tests. While a FakeRecording lives, every
// reader a TestEnv creates reads its frames.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/readdisk.h"

struct FakeFrame {
  uint64_t time_us;
  uint32_t type;
  std::vector<uint8_t> data;
};

class FakeRecording {
 public:
  FakeRecording() {
    current = this;
    SetParam(25, 3);
  }
  ~FakeRecording() { current = nullptr; }

  // Sets the encode parameters GetInfo answers with.
  void SetParam(int fps, int resolution, bool h265 = false, int audioCodec = 0, int standard = 0);
  // Appends a frame of len bytes whose byte i is (seed + i) & 0xff.
  void Add(uint64_t time_us, uint32_t type, uint32_t len, uint8_t seed = 0);
  // Appends a type-5 frame: a 44-byte source of the given subtype whose other bytes are
  // (seed + i) & 0xff.
  void AddInfo(uint64_t time_us, uint32_t subtype, uint8_t seed = 0);

  EncodeParam_t param{};
  std::vector<FakeFrame> frames;  // in time order

  // Fault switches.
  bool failGetInfo = false;
  int failAfter = -1;  // a started read reports no frame after this many frames (-1: never)

  // What the stream did with the readers.
  int created = 0, destroyed = 0, quits = 0, stops = 0;
  std::vector<PartAccess_t> inits;
  std::vector<RecordItem_t> starts;

  static inline FakeRecording* current = nullptr;
};
