// The host frame-store reader, alone and under the AVI stream: the span [start, end), seeking,
// payloads across its read-ahead window, and damaged files, which end the frames there.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "avi/read_avi.h"
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
  HostReaderTest() : dir(root.Make("mnt/rec/")) {
    status.partLists[15] = {FakeStatus::Entry(1, dir)};
    env.status = &status;
    param.fps = 10;
    param.resolution = 3;
  }

  // Appends a frame of len bytes at kT0 + ms whose byte i is (ms + i) & 0xff.
  void Frame(uint32_t ms, uint32_t type, uint32_t len, uint32_t claimed = 0) {
    uint8_t head[16];
    StoreLE64(head, kT0 * 1000000ull + ms * 1000ull);
    StoreLE32(head + 8, type);
    StoreLE32(head + 12, claimed != 0 ? claimed : len);
    bytes.insert(bytes.end(), head, head + 16);
    for (uint32_t i = 0; i < len; ++i) bytes.push_back(static_cast<uint8_t>(ms + i));
  }
  // Writes the frame store, cut after keep bytes.
  void Save(size_t keep = SIZE_MAX) {
    std::vector<uint8_t> file(kFrameStoreHeadLen);
    memcpy(file.data(), kFrameStoreMagic, 8);
    memcpy(file.data() + 8, &param, sizeof(param));
    file.insert(file.end(), bytes.begin(), bytes.end());
    if (keep < file.size()) file.resize(keep);
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
    item.channel = 2;
    item.fileNo = 0xff;
    item.start_time = start;
    item.end_time = end;
    void* h = r->StartRead(0, &item);
    Frames got;
    if (h != nullptr && seekTo >= 0) r->SeekTime(h, &seekTo);
    FrameInfo_t info;
    void* data = nullptr;
    while (h != nullptr && r->ReadFrame(h, &info, &data) == 0) {
      uint32_t ms = static_cast<uint32_t>(info.time_us / 1000 - kT0 * 1000ull);
      got.emplace_back(ms, info.length);
      const uint8_t* p = static_cast<const uint8_t*>(data);
      for (uint32_t i = 0; i < info.length; ++i) {
        if (p[i] != static_cast<uint8_t>(ms + i)) {
          ADD_FAILURE() << "frame at " << ms << " ms, byte " << i;
          break;
        }
      }
      free(data);
      data = nullptr;
    }
    r->StopRead(h);
    r->Quit();
    delete r;
    return got;
  }
  // Reads the 2 s AVI of the file through the host reader; returns the chunks it packed, or
  // -1 when the open is refused. Checks the file is as long as announced.
  int AviChunks(int type) {
    char name[100];
    snprintf(name, sizeof(name), "/0002_000000ff_1_%u_%u_%d_10000.avi", kT0, kT0 + 2, type);
    AviFileInfo_t* h = avi.ReadAviOpen(name);
    if (h == nullptr) return -1;
    uint64_t total = 0;
    uint8_t* d;
    int32_t n;
    while (avi.ReadAviRead(h, &d, &n, 16384) == 0) total += static_cast<uint32_t>(n);
    EXPECT_EQ(avi.ReadAviGetSize(h), total);
    int chunks = static_cast<int>(h->widx_count);
    avi.ReadAviClose(h);
    return chunks;
  }

  TempRoot root;
  std::string dir;
  FakeStatus status;
  EncodeParam_t param{};
  std::vector<uint8_t> bytes;
  TestEnv env;
  CReadAvi avi{&env};
};

TEST_F(HostReaderTest, DeliversTheSpanAndSeeksBack) {
  for (uint32_t ms = 0; ms < 4000; ms += 500) Frame(ms, ms == 0 ? 1 : 0, 100 + ms / 100);
  Save();
  EXPECT_EQ((Frames{{1000, 110}, {1500, 115}, {2000, 120}, {2500, 125}}), Read(kT0 + 1, kT0 + 3));
  EXPECT_EQ((Frames{{3000, 130}, {3500, 135}}), Read(kT0 + 3, kT0 + 9));
  EXPECT_EQ((Frames{{2000, 120}, {2500, 125}, {3000, 130}, {3500, 135}}),
            Read(kT0, kT0 + 4, static_cast<long>(kT0) + 2));
  EXPECT_EQ((Frames{{0, 100}, {500, 105}}), Read(kT0, kT0 + 1, static_cast<long>(kT0)));
  EXPECT_TRUE(Read(kT0 + 5, kT0 + 9).empty());
  EXPECT_EQ(4, AviChunks(1));
}

TEST_F(HostReaderTest, PayloadsAcrossAndBeyondTheReadAheadWindow) {
  Frames want;
  for (uint32_t i = 0; i < 60; ++i) {
    uint32_t len = i == 30 ? 200000 : 9000 + i;  // one frame larger than half the window
    Frame(i * 10, 0, len);
    want.emplace_back(i * 10, len);
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

  // Cut in the middle of the second frame: the first alone, and the AVI keeps its length.
  bytes.clear();
  Frame(0, 1, 300);
  Frame(100, 0, 200);
  Frame(200, 0, 200);
  Save(kFrameStoreHeadLen + 316 + 16 + 50);
  EXPECT_EQ((Frames{{0, 300}}), Read(kT0, kT0 + 2));
  EXPECT_EQ(1, AviChunks(0));
  EXPECT_EQ(1, AviChunks(1));
  // Cut inside the second frame head, inside the file head, or not a frame store at all.
  Save(kFrameStoreHeadLen + 316 + 7);
  EXPECT_EQ((Frames{{0, 300}}), Read(kT0, kT0 + 2));
  Save(50);
  EXPECT_TRUE(Read(kT0, kT0 + 2).empty());
  EXPECT_EQ(-1, AviChunks(1));
  Save();
  FILE* f = fopen((dir + "/0002_000000ff.vfs").c_str(), "r+b");
  ASSERT_NE(nullptr, f);
  fputs("NOTAFRAMESTORE", f);
  fclose(f);
  EXPECT_TRUE(Read(kT0, kT0 + 2).empty());
  EXPECT_EQ(-1, AviChunks(0));
}

}  // namespace
