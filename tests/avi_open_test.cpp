// Opening an AVI stream: name parsing, partition lookup, the layout fixed at open, the header.
#include <string>

#include "tests/avi_test_util.h"

namespace {

class AviOpenTest : public AviTest {
 protected:
  // The first block of a fresh stream: the header and the LIST movi head.
  std::vector<uint8_t> Header(AviFileInfo_t* h) {
    uint8_t* data = nullptr;
    int32_t len = 0;
    EXPECT_EQ(0, avi.ReadAviRead(h, &data, &len, 16384));
    EXPECT_EQ(4108, len);
    return std::vector<uint8_t>(data, data + len);
  }
};

TEST_F(AviOpenTest, SixtySecondEstimateMatchesTheWorkedExample) {
  testing::internal::CaptureStdout();
  AviFileInfo_t* h = avi.ReadAviOpen(Name(kT0, kT0 + 60, 0, 30000000).c_str());
  std::string out = testing::internal::GetCapturedStdout();
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(30233136u, avi.ReadAviGetSize(h));
  EXPECT_NE(std::string::npos, out.find("--------------------------------ReadAviOpen\n"));
  EXPECT_NE(std::string::npos, out.find("-------------------item.RecordItem.record_type = 0\n"));
  EXPECT_NE(std::string::npos,
            out.find("filelen = 30233136, headlen = 4096, movilen = 30037040, idx1len = 96000, "
                     "widxlen = 96000, recordsize = 30000000\n"));

  // The reader got the record item and the partition.
  ASSERT_EQ(1u, rec.starts.size());
  EXPECT_EQ(1u, rec.starts[0].channel);
  EXPECT_EQ(0xau, rec.starts[0].fileNo);
  EXPECT_EQ(kT0, rec.starts[0].start_time);
  EXPECT_EQ(kT0 + 60, rec.starts[0].end_time);
  EXPECT_EQ(30000000u, rec.starts[0].record_size);
  EXPECT_STREQ("/mnt/part1", rec.inits[0].path);
  EXPECT_EQ(0, strncmp("/mnt/part1", rec.starts[0].part_path, 32));

  std::vector<uint8_t> b = Header(h);
  EXPECT_EQ("RIFF", Tag(b, 0));
  EXPECT_EQ(30233128u, U32(b, 4));
  EXPECT_EQ("AVI ", Tag(b, 8));
  EXPECT_EQ("LIST", Tag(b, 12));
  EXPECT_EQ(292u, U32(b, 16));
  EXPECT_EQ("hdrl", Tag(b, 20));
  EXPECT_EQ("avih", Tag(b, 24));
  EXPECT_EQ(40000u, U32(b, 32));
  EXPECT_EQ(0x110u, U32(b, 44));
  EXPECT_EQ(1500u, U32(b, 48));
  EXPECT_EQ(2u, U32(b, 56));
  EXPECT_EQ(640u, U32(b, 64));
  EXPECT_EQ(480u, U32(b, 68));
  EXPECT_EQ("vids", Tag(b, 108));
  EXPECT_EQ("H264", Tag(b, 112));
  EXPECT_EQ(1000000u, U32(b, 128));
  EXPECT_EQ(25000000u, U32(b, 132));
  EXPECT_EQ(1500u, U32(b, 140));
  EXPECT_EQ(0xFFFFFFFFu, U32(b, 148));
  EXPECT_EQ("strf", Tag(b, 164));
  EXPECT_EQ(640u, U32(b, 176));
  EXPECT_EQ(480u, U32(b, 180));
  EXPECT_EQ(24u, LoadLE16(&b[186]));
  EXPECT_EQ("H264", Tag(b, 188));
  EXPECT_EQ(640u * 480 * 3, U32(b, 192));
  EXPECT_EQ("auds", Tag(b, 232));
  EXPECT_EQ(1u, U32(b, 252));
  EXPECT_EQ(16000u, U32(b, 256));
  EXPECT_EQ(960000u, U32(b, 264));
  EXPECT_EQ(1u, U32(b, 276));
  EXPECT_EQ(1u, LoadLE16(&b[296]));
  EXPECT_EQ(8000u, U32(b, 300));
  EXPECT_EQ(16000u, U32(b, 304));
  EXPECT_EQ(1u, LoadLE16(&b[308]));
  EXPECT_EQ(16u, LoadLE16(&b[310]));
  EXPECT_EQ("JUNK", Tag(b, 312));
  EXPECT_EQ(3776u, U32(b, 316));
  for (size_t i = 320; i < 4096; ++i) ASSERT_EQ(0, b[i]) << "byte " << i;
  EXPECT_EQ("LIST", Tag(b, 4096));
  EXPECT_EQ(30037032u, U32(b, 4100));
  EXPECT_EQ("movi", Tag(b, 4104));

  testing::internal::CaptureStdout();
  EXPECT_EQ(0, avi.ReadAviClose(h));
  EXPECT_EQ("--------------------------------ReadAviClose\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(rec.created, rec.destroyed);
}

TEST_F(AviOpenTest, FrameRateCodecAndPictureSizeReachTheHeader) {
  rec.SetParam(6, 5, /*h265=*/true);
  AviFileInfo_t* h = Open(10);
  ASSERT_NE(nullptr, h);
  std::vector<uint8_t> b = Header(h);
  EXPECT_EQ(166666u, U32(b, 32));  // truncated, not rounded
  EXPECT_EQ(6000000u, U32(b, 132));
  EXPECT_EQ(60u, U32(b, 48));
  EXPECT_EQ("H265", Tag(b, 112));
  EXPECT_EQ("H265", Tag(b, 188));
  EXPECT_EQ(1920u, U32(b, 64));
  EXPECT_EQ(1080u, U32(b, 68));
  for (size_t i = 320; i < 4096; ++i) ASSERT_EQ(0, b[i]) << "byte " << i;
  avi.ReadAviClose(h);

  rec.SetParam(0, 6);  // no frame rate, a resolution without a size
  h = Open(10);
  ASSERT_NE(nullptr, h);
  b = Header(h);
  EXPECT_EQ(0u, U32(b, 32));
  EXPECT_EQ(0u, U32(b, 132));
  EXPECT_EQ(0u, U32(b, 48));
  EXPECT_EQ(0u, U32(b, 64));
  EXPECT_EQ(0u, U32(b, 68));
  EXPECT_EQ(0u, U32(b, 192));
  avi.ReadAviClose(h);

  const int expected[][3] = {{0, 704, 576}, {1, 704, 288}, {2, 352, 288}, {3, 640, 480},
                             {4, 1280, 720}, {8, 320, 240}, {7, 0, 0}};
  for (const auto& e : expected) {
    for (int standard = 0; standard < 2; ++standard) {
      rec.SetParam(25, e[0], false, 0, standard);
      h = Open(1);
      ASSERT_NE(nullptr, h);
      b = Header(h);
      int height = e[2];
      if (standard != 0 && height == 576) height = 480;
      if (standard != 0 && height == 288) height = 240;
      EXPECT_EQ(static_cast<uint32_t>(e[1]), U32(b, 176)) << "code " << e[0];
      EXPECT_EQ(static_cast<uint32_t>(height), U32(b, 180)) << "code " << e[0];
      avi.ReadAviClose(h);
    }
  }
}

TEST_F(AviOpenTest, PreScanMeasuresTheMoviSection) {
  rec.Add(kT0us, 1, 12);  // 1036 + 24 + 12 = 1072, already a multiple of 16
  AviFileInfo_t* h = Open(1, 1, 999999);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(1072u, h->movilen);
  avi.ReadAviClose(h);

  rec.AddInfo(kT0us + 1, 0);  // 68-byte record
  rec.AddInfo(kT0us + 1, 1);  // 24-byte record
  rec.AddInfo(kT0us + 2, 9);  // unknown subtype: empty payload
  rec.Add(kT0us + 3, 0, 70000);
  rec.Add(kT0us + 4, 0, 7);
  h = Open(1, 2, 0);
  ASSERT_NE(nullptr, h);
  uint32_t sum = 1036 + 36 + 92 + 48 + 24 + 70024 + 31;
  EXPECT_EQ((sum + 15) / 16 * 16, h->movilen);
  EXPECT_EQ(4096 + h->movilen + 2 * 1600, h->filelen);
  // The pre-scan's reader is gone; the stream's reader remains.
  EXPECT_EQ(rec.created - 1, rec.destroyed);
  avi.ReadAviClose(h);
  EXPECT_EQ(rec.created, rec.destroyed);
}

TEST_F(AviOpenTest, ZeroSecondSpanHasEmptyIndexes) {
  AviFileInfo_t* h = Open(0, 0, 100);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(0u, h->index_max);
  EXPECT_EQ(0u, h->idx1len);
  EXPECT_EQ(0u, h->video_frametotal);
  EXPECT_EQ(1136u, h->movilen);  // 100 + 1036 = 1136
  EXPECT_EQ(4096u + 1136u, avi.ReadAviGetSize(h));
  AviFile f = ReadAll(h);
  EXPECT_EQ(1, f.last);
  EXPECT_EQ(4096u + 1136u, f.bytes.size());
  avi.ReadAviClose(h);
}

TEST_F(AviOpenTest, PartitionIsLookedUpInLists15Then17Then16) {
  status.partLists[15] = {FakeStatus::Entry(2, "/mnt/a")};
  status.partLists[17] = {FakeStatus::Entry(3, "/mnt/b"), FakeStatus::Entry(1, "/mnt/b1")};
  status.partLists[16] = {FakeStatus::Entry(1, "/mnt/c")};
  AviFileInfo_t* h = Open(1);
  ASSERT_NE(nullptr, h);
  EXPECT_STREQ("/mnt/b1", rec.inits.back().path);
  avi.ReadAviClose(h);

  status.failing[STATUS_PART_LIST_B] = true;
  h = Open(1);
  ASSERT_NE(nullptr, h);
  EXPECT_STREQ("/mnt/c", rec.inits.back().path);
  avi.ReadAviClose(h);

  status.deviceType = 0x1234;
  h = Open(1);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(0x1234u, rec.inits.back().devWord);
  avi.ReadAviClose(h);
}

TEST_F(AviOpenTest, RefusesWhatItCannotServe) {
  testing::internal::CaptureStdout();
  // No partition with the name's identifier.
  EXPECT_EQ(nullptr, avi.ReadAviOpen(Name(kT0, kT0 + 10, 1, 0, /*part=*/7).c_str()));
  // A span that ends before it starts.
  EXPECT_EQ(nullptr, avi.ReadAviOpen(Name(kT0 + 10, kT0, 1, 0).c_str()));
  // A span longer than a day.
  EXPECT_EQ(nullptr, avi.ReadAviOpen(Name(kT0, kT0 + 86401, 0, 0).c_str()));
  // An estimate beyond 4 GiB.
  EXPECT_EQ(nullptr, avi.ReadAviOpen(Name(kT0, kT0 + 10, 0, -1).c_str()));
  avi.ReadAviOpen(nullptr);
  EXPECT_EQ(nullptr, avi.ReadAviOpen("garbage"));
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, out.find("no partition 7"));
  EXPECT_NE(std::string::npos, out.find("refused"));
  EXPECT_EQ(rec.created, rec.destroyed);

  // The reader cannot describe the span: it is quit, then stopped, quit and destroyed.
  rec.failGetInfo = true;
  int quits = rec.quits, stops = rec.stops;
  testing::internal::CaptureStdout();
  EXPECT_EQ(nullptr, Open(10));
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(rec.created, rec.destroyed);
  EXPECT_EQ(quits + 2, rec.quits);
  EXPECT_EQ(stops + 1, rec.stops);
}

TEST_F(AviOpenTest, NullHandleIsRefusedByEveryOperation) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, avi.ReadAviClose(nullptr));
  EXPECT_EQ("--------------------------------ReadAviClose\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(0u, avi.ReadAviGetSize(nullptr));
  uint8_t* data = nullptr;
  int32_t len = 0;
  EXPECT_EQ(-1, avi.ReadAviRead(nullptr, &data, &len, 100));
  EXPECT_EQ(-1, avi.ReadAviSeek(nullptr, 0));
  EXPECT_EQ(-1, avi.ReadAviBuildHeader(nullptr));
  EXPECT_EQ(-1, avi.ReadAviAddIdx1(nullptr, 0, 0, 0, 0));
  EXPECT_EQ(-1, avi.ReadAviAddWidx(nullptr, 0, 0, 0, 0));
}

}  // namespace
