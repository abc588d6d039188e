// Producing the AVI file: frame chunks, info records, the two indexes, padding, reading and
// seeking, and the guards that keep every section inside its fixed length.
#include <string>

#include "tests/avi_test_util.h"

namespace {

struct Chunk {
  uint32_t offset;
  std::string tag;
  uint32_t len;
  uint64_t time;
};

class AviStreamTest : public AviTest {
 protected:
  // Walks the movi list of a whole file: every frame chunk with its "00tm" chunk, then checks
  // that one JUNK chunk fills the section to its end.
  std::vector<Chunk> Movi(const std::vector<uint8_t>& b, const AviFileInfo_t* s) {
    std::vector<Chunk> chunks;
    size_t end = s->headlen + s->movilen;
    size_t at = s->headlen + 12;
    while (at < end && Tag(b, at) != "JUNK") {
      Chunk c{static_cast<uint32_t>(at), Tag(b, at), U32(b, at + 4), 0};
      size_t tm = at + 8 + c.len;
      EXPECT_EQ("00tm", Tag(b, tm)) << "at " << at;
      EXPECT_EQ(8u, U32(b, tm + 4));
      c.time = LoadLE64(&b[tm + 8]);
      chunks.push_back(c);
      at = tm + 16;
    }
    EXPECT_LE(at + 8, end + (at == end ? 8 : 0));
    if (at < end) {
      EXPECT_EQ("JUNK", Tag(b, at));
      EXPECT_EQ(end - at - 8, U32(b, at + 4));
      for (size_t i = at + 8; i < end; ++i) EXPECT_EQ(0, b[i]) << "movi padding " << i;
    }
    return chunks;
  }

  // The entries of an index section: {tag, flags, offset, length} from its first entry on.
  struct Entry {
    std::string tag;
    uint32_t flags, offset, length;
  };
  std::vector<Entry> Entries(const std::vector<uint8_t>& b, size_t at, uint32_t count) {
    std::vector<Entry> e;
    for (uint32_t i = 0; i < count; ++i, at += 16) {
      e.push_back({Tag(b, at), U32(b, at + 4), U32(b, at + 8), U32(b, at + 12)});
    }
    return e;
  }

  AviFile OpenAndRead(uint32_t seconds, int type = 1, int size = 0, int32_t wanted = 16384) {
    testing::internal::CaptureStdout();
    h = Open(seconds, type, size);
    AviFile f;
    if (h != nullptr) f = ReadAll(h, wanted);
    out = testing::internal::GetCapturedStdout();
    return f;
  }

  void TearDown() override {
    testing::internal::CaptureStdout();
    avi.ReadAviClose(h);
    testing::internal::GetCapturedStdout();
  }

  AviFileInfo_t* h = nullptr;
  std::string out;
};

TEST_F(AviStreamTest, OddPayloadChunksFollowEachOtherWithoutPadding) {
  rec.Add(kT0us + 5, 1, 1001, 7);
  rec.Add(kT0us + 40005, 0, 10, 3);
  AviFile f = OpenAndRead(1);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(h->filelen, f.bytes.size());
  // The first read is the header, the next the first chunk whole.
  ASSERT_GE(f.reads.size(), 3u);
  EXPECT_EQ(4108, f.reads[0]);
  EXPECT_EQ(1025, f.reads[1]);
  EXPECT_EQ(34, f.reads[2]);

  std::vector<Chunk> c = Movi(f.bytes, h);
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(4108u, c[0].offset);
  EXPECT_EQ("00db", c[0].tag);
  EXPECT_EQ(1001u, c[0].len);
  EXPECT_EQ(kT0us + 5, c[0].time);
  for (uint32_t i = 0; i < 1001; ++i) ASSERT_EQ(static_cast<uint8_t>(7 + i), f.bytes[4116 + i]);
  EXPECT_EQ(5133u, c[1].offset);  // odd
  EXPECT_EQ(kT0us + 40005, c[1].time);

  size_t idx1 = h->headlen + h->movilen;
  EXPECT_EQ("idx1", Tag(f.bytes, idx1));
  EXPECT_EQ(h->idx1len - 8, U32(f.bytes, idx1 + 4));
  std::vector<Entry> e = Entries(f.bytes, idx1 + 8, 2);
  EXPECT_EQ("00db", e[0].tag);
  EXPECT_EQ(0x10u, e[0].flags);
  EXPECT_EQ(4108u, e[0].offset);
  EXPECT_EQ(1001u, e[0].length);
  EXPECT_EQ(0u, e[1].flags);
  EXPECT_EQ(5133u, e[1].offset);
  EXPECT_EQ("JUNK", Tag(f.bytes, idx1 + 8 + 32));
  EXPECT_EQ(h->idx1len - 40 - 8, U32(f.bytes, idx1 + 44));

  size_t widx = idx1 + h->idx1len;
  EXPECT_EQ("widx", Tag(f.bytes, widx));
  EXPECT_EQ(h->widxlen - 8, U32(f.bytes, widx + 4));
  EXPECT_EQ("00cn", Tag(f.bytes, widx + 8));
  EXPECT_EQ(2u, U32(f.bytes, widx + 12));
  EXPECT_EQ("0pcm", Tag(f.bytes, widx + 24));
  e = Entries(f.bytes, widx + 28, 2);
  EXPECT_EQ(0x10u, e[0].flags);
  EXPECT_EQ(5133u, e[1].offset);
  EXPECT_EQ(10u, e[1].length);

  EXPECT_NE(std::string::npos, out.find("FileInfo->video_framecount = 2, 25\n"));
  char line[100];
  snprintf(line, sizeof(line), "FileInfo->movi_junk_left_len = %u, %u, %u\n",
           h->headlen + h->movilen - 5167, 5167 - 4096, h->movilen);
  EXPECT_NE(std::string::npos, out.find(line)) << out;
}

TEST_F(AviStreamTest, InfoRecordsKeepTheLatestValueOfEverySubtype) {
  rec.AddInfo(kT0us, 1, 100);        // source bytes i = 100 + i
  rec.AddInfo(kT0us + 1000, 0, 0);   // frame time kT0 local
  rec.AddInfo(kT0us + 2000, 2, 50);
  rec.AddInfo(kT0us + 3000, 7, 0);   // unknown: empty chunk, record unchanged
  rec.AddInfo(kT0us + 4000, 1, 200);
  AviFile f = OpenAndRead(1);
  ASSERT_NE(nullptr, h);
  std::vector<Chunk> c = Movi(f.bytes, h);
  ASSERT_EQ(5u, c.size());
  for (const Chunk& k : c) EXPECT_EQ("00bt", k.tag);
  EXPECT_EQ(24u, c[0].len);
  EXPECT_EQ(68u, c[1].len);
  EXPECT_EQ(68u, c[2].len);
  EXPECT_EQ(0u, c[3].len);
  EXPECT_EQ(24u, c[4].len);

  const uint8_t* r1 = &f.bytes[c[0].offset + 8];
  EXPECT_EQ(3u, LoadLE16(r1));
  EXPECT_EQ(12u, LoadLE16(r1 + 2));
  EXPECT_EQ(LoadLE16(std::vector<uint8_t>{110, 111}.data()), LoadLE16(r1 + 12));  // source @10
  EXPECT_EQ(116, r1[18]);  // source @16

  const uint8_t* r0 = &f.bytes[c[1].offset + 8];
  EXPECT_EQ(31u, LoadLE16(r0));
  EXPECT_EQ(56u, LoadLE16(r0 + 2));
  EXPECT_EQ(0, memcmp(r0 + 12, r1 + 12, 8));  // subtype-1 values persist
  // The pre-scan read the whole span into the record: the subtype-2 values are there before
  // the subtype-2 frame is reached.
  EXPECT_EQ(0, memcmp(r0 + 24, &f.bytes[c[2].offset + 8 + 24], 12));
  EXPECT_EQ(8, r0[36]);
  EXPECT_EQ(12, r0[40]);
  EXPECT_EQ(30, r0[58]);
  time_t t = kT0;
  struct tm lt;
  localtime_r(&t, &lt);
  EXPECT_EQ(lt.tm_year + 1900, LoadLE16(r0 + 60));
  EXPECT_EQ(lt.tm_mon + 1, r0[62]);
  EXPECT_EQ(lt.tm_mday, r0[63]);
  EXPECT_EQ(lt.tm_hour, r0[64]);
  EXPECT_EQ(lt.tm_min, r0[65]);
  EXPECT_EQ(lt.tm_sec, r0[66]);

  const uint8_t* r2 = &f.bytes[c[2].offset + 8];
  EXPECT_EQ(58, r2[24]);  // low byte of source @8
  EXPECT_EQ(70, r2[31]);
  EXPECT_EQ(90, r2[32]);
  EXPECT_EQ(86, r2[34]);
  EXPECT_EQ(0, memcmp(r2 + 12, r1 + 12, 8));
  EXPECT_EQ(0, memcmp(r2 + 36, r0 + 36, 32));

  const uint8_t* r4 = &f.bytes[c[4].offset + 8];
  EXPECT_EQ(210, r4[12]);
  // Info chunks are indexed in widx only.
  EXPECT_EQ("JUNK", Tag(f.bytes, h->headlen + h->movilen));
  EXPECT_EQ(5u, U32(f.bytes, h->headlen + h->movilen + h->idx1len + 12));
}

TEST_F(AviStreamTest, AudioReachesIdx1OnlyForPcmAndWidxNamesTheCodec) {
  rec.SetParam(25, 3, false, /*audioCodec=*/1);
  rec.Add(kT0us, 1, 100);
  rec.Add(kT0us + 1, 3, 320);
  rec.Add(kT0us + 2, 4, 10);
  rec.Add(kT0us + 3, 6, 40);
  AviFile f = OpenAndRead(1);
  ASSERT_NE(nullptr, h);
  std::vector<Chunk> c = Movi(f.bytes, h);
  ASSERT_EQ(4u, c.size());
  EXPECT_EQ("00wb", c[1].tag);
  EXPECT_EQ("00al", c[2].tag);
  EXPECT_EQ("00wb", c[3].tag);
  size_t idx1 = h->headlen + h->movilen;
  EXPECT_EQ("00db", Tag(f.bytes, idx1 + 8));
  EXPECT_EQ("JUNK", Tag(f.bytes, idx1 + 24));  // only the video entry
  size_t widx = idx1 + h->idx1len;
  EXPECT_EQ(4u, U32(f.bytes, widx + 12));
  EXPECT_EQ("711a", Tag(f.bytes, widx + 24));
  std::vector<Entry> e = Entries(f.bytes, widx + 28, 4);
  EXPECT_EQ("00db", e[0].tag);
  EXPECT_EQ("00wb", e[1].tag);
  EXPECT_EQ(c[1].offset, e[1].offset);
  EXPECT_EQ(320u, e[1].length);
  EXPECT_EQ("00al", e[2].tag);
  EXPECT_EQ("00wb", e[3].tag);
  EXPECT_EQ("JUNK", Tag(f.bytes, widx + 28 + 64));
  TearDown();

  rec.SetParam(25, 3, false, 7);  // no tag: entries from 24
  f = OpenAndRead(1);
  widx = h->headlen + h->movilen + h->idx1len;
  EXPECT_EQ("00db", Tag(f.bytes, widx + 24));
  EXPECT_EQ(4108u, U32(f.bytes, widx + 32));
  TearDown();

  rec.SetParam(25, 3, false, 0);  // PCM: audio in idx1 too
  f = OpenAndRead(1);
  idx1 = h->headlen + h->movilen;
  std::vector<Entry> i1 = Entries(f.bytes, idx1 + 8, 3);
  EXPECT_EQ("00wb", i1[1].tag);
  EXPECT_EQ("00wb", i1[2].tag);
  EXPECT_EQ(c[3].offset, i1[2].offset);
  EXPECT_EQ("JUNK", Tag(f.bytes, idx1 + 8 + 48));
}

TEST_F(AviStreamTest, SpanWithoutFramesIsAllPadding) {
  AviFile f = OpenAndRead(2, 0, 5000);
  ASSERT_NE(nullptr, h);
  ASSERT_EQ(h->filelen, f.bytes.size());
  EXPECT_EQ(0u, Movi(f.bytes, h).size());
  EXPECT_EQ("JUNK", Tag(f.bytes, 4108));
  EXPECT_EQ(h->movilen - 12 - 8, U32(f.bytes, 4112));
  size_t idx1 = h->headlen + h->movilen;
  EXPECT_EQ("JUNK", Tag(f.bytes, idx1));
  EXPECT_EQ(h->idx1len - 8, U32(f.bytes, idx1 + 4));
  EXPECT_EQ("JUNK", Tag(f.bytes, idx1 + h->idx1len));
  EXPECT_EQ(h->widxlen - 8, U32(f.bytes, idx1 + h->idx1len + 4));
  for (size_t i = idx1 + 8; i < idx1 + h->idx1len; ++i) ASSERT_EQ(0, f.bytes[i]);
  EXPECT_NE(std::string::npos, out.find("FileInfo->video_framecount = 0, 50\n"));
}

TEST_F(AviStreamTest, SeventyThousandIdx1EntriesComeInTwoBlocks) {
  rec.SetParam(100, 3);
  for (uint32_t i = 0; i < 70000; ++i) rec.Add(kT0us + i * 10000ull, i % 50 == 0 ? 1 : 0, 1, i);
  AviFile f = OpenAndRead(701, 1, 0, 2000000);
  ASSERT_NE(nullptr, h);
  ASSERT_EQ(h->filelen, f.bytes.size());
  EXPECT_EQ(70000u, h->idx1_count);
  // Reads after the movi section: empty, idx1 block 1, block 2, idx1 padding, empty, widx...
  size_t i = 0;
  uint64_t pos = 0;
  while (pos < h->headlen + h->movilen) pos += static_cast<uint32_t>(f.reads[i++]);
  EXPECT_EQ(0, f.reads[i]);
  EXPECT_EQ(8 + 65535 * 16, f.reads[i + 1]);
  EXPECT_EQ(4465 * 16, f.reads[i + 2]);
  EXPECT_EQ(h->idx1len - 8 - 70000 * 16, static_cast<uint32_t>(f.reads[i + 3]));
  EXPECT_EQ(0, f.reads[i + 4]);
  EXPECT_EQ(28 + 65534 * 16, f.reads[i + 5]);
  EXPECT_EQ(2, f.emptyReads);

  std::vector<Chunk> c = Movi(f.bytes, h);
  std::vector<Entry> e = Entries(f.bytes, h->headlen + h->movilen + 8, 70000);
  ASSERT_EQ(70000u, c.size());
  for (uint32_t k = 0; k < 70000; ++k) {
    ASSERT_EQ(c[k].offset, e[k].offset) << k;
    ASSERT_EQ(k % 50 == 0 ? 0x10u : 0u, e[k].flags) << k;
  }
}

TEST_F(AviStreamTest, ReadsOf16384YieldTheWholeFileThenEnd) {
  for (uint32_t i = 0; i < 250; ++i) rec.Add(kT0us + i * 40000ull, i % 25 == 0, 3000 + i * 37, i);
  AviFile f = OpenAndRead(10, 0, 2000000);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(h->filelen, f.bytes.size());
  EXPECT_EQ(2, f.emptyReads);
  EXPECT_EQ(1, f.last);
  uint8_t* data = nullptr;
  int32_t len = 0;
  EXPECT_EQ(1, avi.ReadAviRead(h, &data, &len, 16384));
  EXPECT_EQ(250u, Movi(f.bytes, h).size());
  EXPECT_EQ(4108, f.reads[0]);
  EXPECT_EQ(3024, f.reads[1]);
  // Negative or zero wants give nothing and lose nothing.
  ASSERT_EQ(0, avi.ReadAviSeek(h, 0));
  EXPECT_EQ(0, avi.ReadAviRead(h, &data, &len, -5));
  EXPECT_EQ(0, len);
  AviFile g = ReadAll(h, 16384);
  EXPECT_EQ(f.bytes, g.bytes);
}

TEST_F(AviStreamTest, SeekReproducesAnUninterruptedReading) {
  for (uint32_t i = 0; i < 100; ++i) {
    rec.Add(kT0us + i * 40000ull, i % 25 == 0, 5000 + i, i);
    if (i % 10 == 0) rec.AddInfo(kT0us + i * 40000ull + 1, i % 3, i);
    if (i % 2 == 0) rec.Add(kT0us + i * 40000ull + 2, 3, 320, i);
  }
  AviFile whole = OpenAndRead(4, 1, 0, 16384);
  ASSERT_NE(nullptr, h);
  ASSERT_EQ(h->filelen, whole.bytes.size());

  const uint32_t targets[] = {0, 4096, 4108 + 2500, 300001, h->headlen + h->movilen + 20,
                              h->filelen - 1, h->filelen};
  for (uint32_t target : targets) {
    // Read a little first so the seek has state to undo.
    ReadAll(h, 16384, 3);
    ASSERT_EQ(0, avi.ReadAviSeek(h, target)) << target;
    AviFile rest = ReadAll(h, 16384);
    ASSERT_EQ(whole.bytes.size() - target, rest.bytes.size()) << target;
    EXPECT_TRUE(std::equal(rest.bytes.begin(), rest.bytes.end(), whole.bytes.begin() + target))
        << target;
  }
  // 4096 gives exactly the LIST movi head, then the first chunk.
  ASSERT_EQ(0, avi.ReadAviSeek(h, 4096));
  uint8_t* data = nullptr;
  int32_t len = 0;
  ASSERT_EQ(0, avi.ReadAviRead(h, &data, &len, 100));
  ASSERT_EQ(12, len);
  EXPECT_EQ(0, memcmp(data, &whole.bytes[4096], 12));
  ASSERT_EQ(0, avi.ReadAviRead(h, &data, &len, 100000));
  EXPECT_EQ(5024, len);

  // Past the end: refused after producing the whole file; complete until the next seek.
  EXPECT_EQ(-1, avi.ReadAviSeek(h, h->filelen + 1));
  EXPECT_EQ(1, avi.ReadAviRead(h, &data, &len, 100));
  EXPECT_EQ(0, avi.ReadAviSeek(h, 0));
  EXPECT_EQ(whole.bytes, ReadAll(h).bytes);
}

TEST_F(AviStreamTest, MoviEndsAtTheFirstFrameItCannotTake) {
  // Declared frame count: 2 s at 2 fps takes 4 video frames; the 5th ends the section and
  // the audio frame after it is never read.
  rec.SetParam(2, 3);
  for (int i = 0; i < 6; ++i) rec.Add(kT0us + i, 0, 10);
  rec.Add(kT0us + 10, 3, 10);
  AviFile f = OpenAndRead(2);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(4u, Movi(f.bytes, h).size());
  EXPECT_EQ(h->filelen, f.bytes.size());
  TearDown();

  // Frame size: a payload of 1,048,552 bytes fits the output buffer, one byte more does not.
  rec.SetParam(25, 3);
  rec.frames.clear();
  rec.Add(kT0us, 1, kAviMaxPayload);
  rec.Add(kT0us + 1, 0, kAviMaxPayload + 1);
  rec.Add(kT0us + 2, 0, 10);
  f = OpenAndRead(1);
  ASSERT_NE(nullptr, h);
  std::vector<Chunk> c = Movi(f.bytes, h);
  ASSERT_EQ(1u, c.size());
  EXPECT_EQ(kAviMaxPayload, c[0].len);
  EXPECT_EQ(h->filelen, f.bytes.size());
  EXPECT_NE(std::string::npos, out.find("exceeds 1048552"));
  TearDown();

  // The reader failing mid-span: the rest is padding, the file keeps its length.
  rec.frames.clear();
  for (int i = 0; i < 20; ++i) rec.Add(kT0us + i, 0, 100);
  rec.failAfter = 5;
  f = OpenAndRead(1, 0, 20 * 100);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(5u, Movi(f.bytes, h).size());
  EXPECT_EQ(h->filelen, f.bytes.size());
  EXPECT_EQ(5u, U32(f.bytes, h->headlen + h->movilen + h->idx1len + 12));
}

TEST_F(AviStreamTest, RoomTestNeverOverrunsNorLeavesAGapTooSmallForJunk) {
  // Estimate: movilen = record_size + 1036 + 24 * 25, rounded to 16. With record_size 1000 it
  // is 2640, so 2640 - 12 = 2628 bytes for chunks and padding.
  for (uint32_t gapWanted : {0u, 4u, 7u, 8u}) {
    rec.frames.clear();
    // First chunk leaves exactly gapWanted + 1000 bytes, a second of 976 bytes of payload
    // would then leave exactly gapWanted.
    uint32_t room = 2628;
    uint32_t first = room - 1000 - gapWanted - 24;
    rec.Add(kT0us, 1, first);
    rec.Add(kT0us + 1, 0, 1000 - 24);
    rec.Add(kT0us + 2, 0, 0);
    AviFile f = OpenAndRead(1, 0, 1000);
    ASSERT_NE(nullptr, h);
    ASSERT_EQ(2640u, h->movilen);
    std::vector<Chunk> c = Movi(f.bytes, h);
    // A gap of 1 to 7 bytes is refused: the second frame is dropped and the padding grows.
    size_t expected = (gapWanted > 0 && gapWanted < 8) ? 1 : 2;
    EXPECT_EQ(expected, c.size()) << "gap " << gapWanted;
    EXPECT_EQ(h->filelen, f.bytes.size());
    TearDown();
    h = nullptr;
  }
}

TEST_F(AviStreamTest, IndexGuardEndsMoviBeforeAnIndexOverflows) {
  // One second: index_max 100. widx takes 97 entries with its 28-byte head (codec 0).
  rec.SetParam(200, 3, false, 0);
  for (int i = 0; i < 150; ++i) rec.Add(kT0us + i, 0, 1);
  AviFile f = OpenAndRead(1);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(97u, h->widx_count);
  EXPECT_EQ(97u, Movi(f.bytes, h).size());
  ASSERT_EQ(h->filelen, f.bytes.size());
  size_t widx = h->headlen + h->movilen + h->idx1len;
  EXPECT_EQ("JUNK", Tag(f.bytes, widx + 28 + 97 * 16));
  EXPECT_EQ(12u, U32(f.bytes, widx + 28 + 97 * 16 + 4));
  EXPECT_NE(std::string::npos, out.find("index full at 97 entries"));
  TearDown();

  // Without a codec tag widx takes 98; idx1 (99) is never the limit since every chunk also
  // needs a widx entry.
  rec.SetParam(200, 3, false, 9);
  f = OpenAndRead(1);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(98u, h->widx_count);
  widx = h->headlen + h->movilen + h->idx1len;
  EXPECT_EQ("JUNK", Tag(f.bytes, widx + 24 + 98 * 16));
  EXPECT_EQ(0u, U32(f.bytes, widx + 24 + 98 * 16 + 4));  // an 8-byte JUNK
  EXPECT_EQ("JUNK", Tag(f.bytes, h->headlen + h->movilen + 8 + 98 * 16));
  ASSERT_EQ(h->filelen, f.bytes.size());
}

}  // namespace
