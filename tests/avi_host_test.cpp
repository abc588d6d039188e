// The host frame-store reader, alone and under the AVI stream: span limits, seeking, and files
// that are damaged or truncated.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "avi/read_avi.h"
#include "platform/byteorder.h"
#include "platform/framestore.h"
#include "platform/readdisk.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"

namespace {

constexpr uint32_t kT0 = 1700000000;

class HostReaderTest : public ::testing::Test {
 protected:
  HostReaderTest() : dir(root.Make("mnt/rec/")) {
    status.partLists[15] = {FakeStatus::Entry(1, dir)};
    env.status = &status;
    memset(&param, 0, sizeof(param));
    param.fps = 10;
    param.resolution = 3;
  }

  // Appends a frame of len bytes at kT0 + ms milliseconds.
  void Frame(uint32_t ms, uint32_t type, uint32_t len, uint32_t claimed = 0) {
    uint8_t head[16];
    StoreLE64(head, static_cast<uint64_t>(kT0) * 1000000u + ms * 1000ull);
    StoreLE32(head + 8, type);
    StoreLE32(head + 12, claimed != 0 ? claimed : len);
    bytes.insert(bytes.end(), head, head + 16);
    for (uint32_t i = 0; i < len; ++i) bytes.push_back(static_cast<uint8_t>(ms + i));
  }

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

  // Frames (time offset ms, length) the host reader gives for [start, end).
  std::vector<std::pair<uint32_t, uint32_t>> Read(uint32_t start, uint32_t end, long seekTo = -1) {
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
    std::vector<std::pair<uint32_t, uint32_t>> got;
    if (h != nullptr && seekTo >= 0) r->SeekTime(h, &seekTo);
    FrameInfo_t info;
    void* data = nullptr;
    while (h != nullptr && r->ReadFrame(h, &info, &data) == 0) {
      got.emplace_back(static_cast<uint32_t>(info.time_us / 1000 - kT0 * 1000ull), info.length);
      free(data);
      data = nullptr;
    }
    r->StopRead(h);
    r->Quit();
    r->Quit();
    delete r;
    return got;
  }

  uint64_t AviLength(int type, uint32_t* packed) {
    char name[100];
    snprintf(name, sizeof(name), "/0002_000000ff_1_%u_%u_%d_10000.avi", kT0, kT0 + 2, type);
    testing::internal::CaptureStdout();
    AviFileInfo_t* h = avi.ReadAviOpen(name);
    uint64_t total = 0;
    while (h != nullptr) {
      uint8_t* d;
      int32_t n;
      if (avi.ReadAviRead(h, &d, &n, 16384) != 0) break;
      total += static_cast<uint32_t>(n);
    }
    *packed = h != nullptr ? h->widx_count : 0;
    uint32_t size = avi.ReadAviGetSize(h);
    avi.ReadAviClose(h);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(size, total);
    return h != nullptr ? total : 0;
  }

  TempRoot root;
  std::string dir;
  FakeStatus status;
  EncodeParam_t param;
  std::vector<uint8_t> bytes;
  TestEnv env;
  CReadAvi avi{&env};
};

TEST_F(HostReaderTest, DeliversTheSpanAndSeeksBack) {
  for (uint32_t ms = 0; ms < 4000; ms += 500) Frame(ms, ms == 0 ? 1 : 0, 100 + ms / 100);
  Save();
  using V = std::vector<std::pair<uint32_t, uint32_t>>;
  EXPECT_EQ((V{{1000, 110}, {1500, 115}, {2000, 120}, {2500, 125}}), Read(kT0 + 1, kT0 + 3));
  EXPECT_EQ((V{{3000, 130}, {3500, 135}}), Read(kT0 + 3, kT0 + 9));
  EXPECT_EQ((V{{2000, 120}, {2500, 125}, {3000, 130}, {3500, 135}}),
            Read(kT0, kT0 + 4, static_cast<long>(kT0) + 2));
  EXPECT_TRUE(Read(kT0 + 5, kT0 + 9).empty());

  uint32_t packed = 0;
  EXPECT_GT(AviLength(1, &packed), 0u);
  EXPECT_EQ(4u, packed);
}

TEST_F(HostReaderTest, DamagedFilesEndTheFramesThere) {
  Frame(0, 1, 300);
  Frame(100, 0, 200);
  Frame(200, 0, 50, /*claimed=*/kFrameStoreMaxFrame + 1);  // absurd length
  Frame(300, 0, 10);
  Save();
  EXPECT_EQ(2u, Read(kT0, kT0 + 2).size());

  // Truncated in the middle of the second frame: the first alone, and the AVI keeps its length.
  bytes.clear();
  Frame(0, 1, 300);
  Frame(100, 0, 200);
  Frame(200, 0, 200);
  Save(kFrameStoreHeadLen + 316 + 16 + 50);
  EXPECT_EQ(1u, Read(kT0, kT0 + 2).size());
  uint32_t packed = 0;
  uint64_t estimated = AviLength(0, &packed);
  EXPECT_GT(estimated, 0u);
  EXPECT_EQ(1u, packed);
  EXPECT_GT(AviLength(1, &packed), 0u);
  EXPECT_EQ(1u, packed);

  // Truncated inside the frame head, inside the file head, or not a frame store at all.
  Save(kFrameStoreHeadLen + 316 + 7);
  EXPECT_EQ(1u, Read(kT0, kT0 + 2).size());
  Save(50);
  EXPECT_TRUE(Read(kT0, kT0 + 2).empty());
  EXPECT_EQ(0u, AviLength(1, &packed));
  bytes.assign(200, 'x');
  FILE* f = fopen((dir + "/0002_000000ff.vfs").c_str(), "wb");
  fwrite(bytes.data(), 1, bytes.size(), f);
  fclose(f);
  EXPECT_EQ(0u, AviLength(0, &packed));
}

}  // namespace
