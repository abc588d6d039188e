// The host frame-store reader: the span [start, end), seeking, payloads across its read-ahead
// window, and damaged files, which end the frames where the damage starts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/byteorder.h"
#include "platform/framestore.h"
#include "platform/readdisk.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"

namespace {

constexpr uint32_t kT0 = 1700000000;
using Frames = std::vector<std::pair<uint32_t, uint32_t>>;  // (ms after kT0, length)

class HostReaderTest : public ::testing::Test {
 protected:
  // Appends a frame of len bytes at kT0 + ms whose byte i is (ms + i) & 0xff.
  void Frame(uint32_t ms, uint32_t type, uint32_t len, uint32_t claimed = 0) {
    uint8_t head[16];
    StoreLE64(head, kT0 * 1000000ull + ms * 1000ull);
    StoreLE32(head + 8, type);
    StoreLE32(head + 12, claimed != 0 ? claimed : len);
    bytes.insert(bytes.end(), head, head + 16);
    for (uint32_t i = 0; i < len; ++i) bytes.push_back(static_cast<uint8_t>(ms + i));
  }
  // Writes the frame store (magic, encode parameters, frames), cut after keep bytes.
  void Save(size_t keep = SIZE_MAX, const char* magic = kFrameStoreMagic) {
    std::vector<uint8_t> file(kFrameStoreHeadLen);
    memcpy(file.data(), magic, 8);
    file[8 + 12] = 1, file[8 + 13] = 10, file[8 + 15] = 2;  // H.265, 10 fps, audio codec 2
    file.insert(file.end(), bytes.begin(), bytes.end());
    file.resize(std::min(keep, file.size()));
    FILE* f = fopen((dir + "/0002_000000ff.vfs").c_str(), "wb");
    ASSERT_NE(nullptr, f);
    fwrite(file.data(), 1, file.size(), f);
    fclose(f);
  }
  // The frames the host reader gives for [start, end), after a seek to seekTo when given;
  // checks every payload.
  Frames Read(uint32_t start, uint32_t end, long seekTo = -1) {
    CReadDisk* r = NewReadDisk();
    PartAccess_t access{};
    CopyText(access.path, sizeof(access.path), dir.c_str());
    r->Init(&access);
    RecordItem_t item{};
    item.channel = 2, item.fileNo = 0xff, item.start_time = start, item.end_time = end;
    infoResult = r->GetInfo(&param, &item, 0);
    void* h = r->StartRead(0, &item);
    if (h != nullptr && seekTo >= 0) r->SeekTime(h, &seekTo);
    Frames got;
    FrameInfo_t info;
    void* data = nullptr;
    while (h != nullptr && r->ReadFrame(h, &info, &data) == 0) {
      uint32_t ms = static_cast<uint32_t>(info.time_us / 1000 - kT0 * 1000ull);
      got.emplace_back(ms, info.length);
      const uint8_t* p = static_cast<const uint8_t*>(data);
      uint32_t i = 0;
      while (i < info.length && p[i] == static_cast<uint8_t>(ms + i)) ++i;
      EXPECT_EQ(info.length, i) << "first wrong byte of the frame at " << ms << " ms";
      free(data);
    }
    r->StopRead(h);
    delete r;
    return got;
  }

  TempRoot root;
  std::string dir = root.Make("mnt/rec/");
  std::vector<uint8_t> bytes;
  EncodeParam_t param{};
  int infoResult = 0;  // of GetInfo in the last Read
};

TEST_F(HostReaderTest, DeliversTheSpanAndSeeks) {
  for (uint32_t ms = 0; ms < 4000; ms += 500) Frame(ms, ms == 0 ? 1 : 0, 100 + ms / 100);
  Save();
  EXPECT_EQ((Frames{{1000, 110}, {1500, 115}, {2000, 120}, {2500, 125}}), Read(kT0 + 1, kT0 + 3));
  EXPECT_EQ((Frames{{3000, 130}, {3500, 135}}), Read(kT0 + 3, kT0 + 9));
  EXPECT_EQ((Frames{{2000, 120}, {2500, 125}, {3000, 130}, {3500, 135}}),
            Read(kT0, kT0 + 4, static_cast<long>(kT0) + 2));
  EXPECT_EQ((Frames{{1000, 110}, {1500, 115}}), Read(kT0 + 1, kT0 + 2, static_cast<long>(kT0) + 1));
  EXPECT_TRUE(Read(kT0 + 5, kT0 + 9).empty());
  // The encode parameters come from the file head.
  EXPECT_EQ((std::vector<int>{0, 10, 1, 2}),
            (std::vector<int>{infoResult, param.fps, param.codecFlags, param.audioCodec}));
}

TEST_F(HostReaderTest, PayloadsAcrossAndBeyondTheReadAheadWindow) {
  Frames want;
  for (uint32_t i = 0; i < 60; ++i) {
    want.emplace_back(i * 10, i == 30 ? 200000 : 9000 + i);  // one larger than half the window
    Frame(want.back().first, 0, want.back().second);
  }
  Save();
  EXPECT_EQ(want, Read(kT0, kT0 + 1));
}

TEST_F(HostReaderTest, DamagedFilesEndTheFramesThere) {
  Frame(0, 1, 300);
  Frame(100, 0, 200);
  Frame(200, 0, 50, /*claimed=*/kFrameStoreMaxFrame + 1);  // absurd length
  Frame(300, 0, 10);
  Save();
  EXPECT_EQ((Frames{{0, 300}, {100, 200}}), Read(kT0, kT0 + 2));
  // Cut inside the second frame's payload or head, inside the file head; not a frame store.
  Save(kFrameStoreHeadLen + 316 + 16 + 50);
  EXPECT_EQ((Frames{{0, 300}}), Read(kT0, kT0 + 2));
  Save(kFrameStoreHeadLen + 316 + 7);
  EXPECT_EQ((Frames{{0, 300}}), Read(kT0, kT0 + 2));
  Save(50);
  EXPECT_TRUE(Read(kT0, kT0 + 2).empty());
  EXPECT_EQ(-1, infoResult);
  Save(SIZE_MAX, "VLMFS002");
  EXPECT_TRUE(Read(kT0, kT0 + 2).empty());
  EXPECT_EQ(-1, infoResult);
}

}  // namespace
