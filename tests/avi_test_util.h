// Helpers shared by the AVI stream tests: a fixture with a fake status service and recording,
// and a reader of the whole file.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "avi/read_avi.h"
#include "platform/byteorder.h"
#include "tests/fakes/fake_readdisk.h"
#include "tests/fakes/fakes.h"

// Start of every span of the tests: 2023-11-14 22:13:20 UTC.
constexpr uint32_t kT0 = 1700000000;
constexpr uint64_t kT0us = static_cast<uint64_t>(kT0) * 1000000u;

struct AviFile {
  std::vector<uint8_t> bytes;
  std::vector<int32_t> reads;  // length of every read with result 0
  int emptyReads = 0;
  int last = 0;  // result of the read that ended the loop
};

class AviTest : public ::testing::Test {
 protected:
  AviTest() {
    status.partLists[15] = {FakeStatus::Entry(1, "/mnt/part1")};
    env.status = &status;
  }

  // "/0001_0000000a_1_<start>_<end>_<type>_<size>.avi"
  static std::string Name(uint32_t start, uint32_t end, int type, int size, int part = 1) {
    char name[128];
    snprintf(name, sizeof(name), "/0001_0000000a_%d_%u_%u_%d_%d.avi", part, start, end, type, size);
    return name;
  }

  AviFileInfo_t* Open(uint32_t seconds, int type = 1, int size = 0) {
    return avi.ReadAviOpen(Name(kT0, kT0 + seconds, type, size).c_str());
  }

  // Reads until the stream reports the end (or limit reads), wanted bytes at a time.
  AviFile ReadAll(AviFileInfo_t* h, int32_t wanted = 16384, size_t limit = 10000000) {
    AviFile f;
    for (size_t i = 0; i < limit; ++i) {
      uint8_t* data = nullptr;
      int32_t len = -1;
      f.last = avi.ReadAviRead(h, &data, &len, wanted);
      if (f.last != 0) break;
      EXPECT_GE(len, 0);
      EXPECT_LE(len, wanted);
      if (len == 0) ++f.emptyReads;
      f.reads.push_back(len);
      f.bytes.insert(f.bytes.end(), data, data + len);
    }
    return f;
  }

  static std::string Tag(const std::vector<uint8_t>& b, size_t at) {
    return at + 4 <= b.size() ? std::string(reinterpret_cast<const char*>(&b[at]), 4) : "";
  }
  static uint32_t U32(const std::vector<uint8_t>& b, size_t at) { return LoadLE32(&b[at]); }

  FakeStatus status;
  FakeRecording rec;
  TestEnv env;
  CReadAvi avi{&env};
};
