// The AVI stream over fake recordings (header, structure, info records, blocks, seeking, open).
// (The host frame-store reader under it meets real recordings in the system tests, and
// arbitrary files in the framestore fuzz target.)
#include <gtest/gtest.h>

#include <sstream>

#include "avi/read_avi.h"
#include "platform/byteorder.h"
#include "tests/fakes/fakes.h"

namespace {

constexpr uint32_t kT0 = 1700000000;  // start of every span: 2023-11-14 22:13:20 UTC
constexpr uint64_t kT0us = kT0 * 1000000ull;

using Bytes = std::vector<uint8_t>;
using Reads = std::vector<int32_t>;
std::string Tag(const Bytes& b, size_t at) {
  return at + 4 <= b.size() ? std::string(reinterpret_cast<const char*>(&b[at]), 4) : "";
}
uint32_t U32(const Bytes& b, size_t at) { return at + 4 <= b.size() ? LoadLE32(&b[at]) : 0; }
uint32_t Word(const char* tag) { return LoadLE32(reinterpret_cast<const uint8_t*>(tag)); }
const char* const kCodecTags[] = {"0pcm", "711a", "711u", "g726"};

// Payload length of a frame's chunk: an info record is 68 bytes, 24 for subtype 1, 0 unknown.
uint32_t PayloadLen(const FakeFrame& f) {
  if (f.type != 5) return static_cast<uint32_t>(f.data.size());
  uint32_t subtype = LoadLE32(f.data.data());
  return subtype == 1 ? 24 : (subtype == 0 || subtype == 2 ? 68 : 0);
}

// Adds frames "type:length[*n]", info frames "i<subtype>"; "!n": the reader fails after n frames.
// Frame k is at k ms, its seed k.
void AddFrames(FakeRecording& r, const char* list) {
  std::istringstream in(list);
  for (std::string item; in >> item;) {
    unsigned type = 0, len = 0, times = 1;
    if (item[0] == '!') r.failAfter = std::stoi(item.substr(1));
    if (item[0] == 'i') r.AddInfo(kT0us + r.frames.size() * 1000, std::stoul(item.substr(1)), 7);
    if (sscanf(item.c_str(), "%u:%u*%u", &type, &len, &times) < 2) continue;
    while (times-- > 0) {
      r.Add(kT0us + r.frames.size() * 1000, type, len, static_cast<uint8_t>(r.frames.size()));
    }
  }
}
const char kAudio[] = "1:40 3:111 4:180 6:251 0:320 3:390";
const char kMixed[] =
    "1:5001 i0 3:320 0:5003*9 i1 3:321 0:4999*10 i2 3:320*3 4:33 1:5000 6:40 0:5002*40 i7 1:77";

// clang-format off
// The values of the header block (header and LIST movi head) that vary between recordings.
struct Head { uint32_t filelen, movilen, usPerFrame, frames, rate, audioLen; const char* codec;
              uint32_t width, height; };
// The 4108-byte header block: the fields below (16-bit pairs as one word), every other byte zero.
Bytes ExpectedHead(const Head& v) {
  const struct { size_t at; const char* tag; } tags[] = {{0, "RIFF"}, {8, "AVI "}, {12, "LIST"},
      {20, "hdrl"}, {24, "avih"}, {88, "LIST"}, {96, "strl"}, {100, "strh"}, {108, "vids"},
      {112, v.codec}, {164, "strf"}, {188, v.codec}, {212, "LIST"}, {220, "strl"}, {224, "strh"},
      {232, "auds"}, {288, "strf"}, {312, "JUNK"}, {4096, "LIST"}, {4104, "movi"}};
  const struct { size_t at; uint32_t value; } words[] = {{4, v.filelen - 8}, {16, 292}, {28, 56},
      {32, v.usPerFrame}, {44, 0x110}, {48, v.frames}, {56, 2}, {64, v.width}, {68, v.height},
      {92, 116}, {104, 56}, {128, 1000000}, {132, v.rate}, {140, v.frames}, {148, 0xFFFFFFFF},
      {168, 40}, {172, 40}, {176, v.width}, {180, v.height}, {192, v.width * v.height * 3},
      {216, 92}, {228, 56}, {252, 1}, {256, 16000}, {264, v.audioLen}, {272, 0xFFFFFFFF},
      {276, 1}, {292, 16}, {300, 8000}, {304, 16000}, {316, 3776}, {4100, v.movilen - 8},
      {184, 1 | 24 << 16}, {296, 1 | 1 << 16}, {308, 1 | 16 << 16}};
  // clang-format on
  Bytes b(4108, 0);
  for (const auto& t : tags) memcpy(&b[t.at], t.tag, 4);
  for (const auto& w : words) StoreLE32(&b[w.at], w.value);
  return b;
}

struct AviFile {
  Bytes bytes;
  Reads reads;   // length of every read with result 0
  int last = 0;  // result of the read that ended the loop
};

class AviTest : public ::testing::Test {
 protected:
  AviTest() {
    status.partLists[15] = {FakeStatus::Entry(1, "/mnt/part1")};
    env.status = &status;
  }
  ~AviTest() override { avi.ReadAviClose(h); }

  static std::string Name(uint32_t start, uint32_t end, int type, int size, int part = 1) {
    char name[128];
    snprintf(name, sizeof(name), "/0001_0000000a_%d_%u_%u_%d_%d.avi", part, start, end, type, size);
    return name;
  }
  // Opens [kT0, kT0 + seconds) as h, closing the stream before.
  AviFileInfo_t* Open(uint32_t seconds, int type = 1, int size = 0) {
    avi.ReadAviClose(h);
    m_seconds = seconds, m_type = type, m_size = size;
    return h = avi.ReadAviOpen(Name(kT0, kT0 + seconds, type, size).c_str());
  }
  // Reads until the stream reports the end (or limit reads), wanted bytes at a time.
  AviFile ReadAll(int32_t wanted = 16384, size_t limit = SIZE_MAX) {
    AviFile f;
    uint8_t* data = nullptr;
    int32_t len = -1;
    while (f.reads.size() < limit && (f.last = avi.ReadAviRead(h, &data, &len, wanted)) == 0) {
      EXPECT_TRUE(len >= 0 && len <= std::max(wanted, 0)) << len;
      f.reads.push_back(len);
      f.bytes.insert(f.bytes.end(), data, data + len);
    }
    return f;
  }
  std::vector<uint32_t> Walk(const AviFile& f);
  FakeStatus status;
  FakeRecording rec;
  TestEnv env;
  CReadAvi avi{&env};
  AviFileInfo_t* h = nullptr;
  uint32_t m_seconds = 0;
  int m_type = 0, m_size = 0;
};

// Walks a whole file made from rec, checking its announced length, sizes, chunks, padding and
// index entries; returns the offsets of its frame chunks.
std::vector<uint32_t> AviTest::Walk(const AviFile& f) {
  const Bytes& b = f.bytes;
  const uint64_t index = 1600ull * m_seconds;  // 100 entries of 16 bytes a second
  uint64_t movi = m_type == 0 ? m_size + 1036ull + 24ull * rec.param.fps * m_seconds : 1036;
  for (const FakeFrame& fr : rec.frames) movi += m_type == 0 ? 0 : 24 + PayloadLen(fr);
  const size_t moviEnd = 4104 + static_cast<size_t>(U32(b, 4100));
  // movi as computed, the end reported, the announced length, the RIFF length.
  EXPECT_EQ((std::vector<uint64_t>{4096 + (movi + 15) / 16 * 16, 1, b.size(), b.size() - 8}),
            (std::vector<uint64_t>{moviEnd, uint64_t(f.last), avi.ReadAviGetSize(h), U32(b, 4)}));
  if (moviEnd + 2 * index != b.size()) {
    ADD_FAILURE() << "sections of " << moviEnd << " + 2 x " << index << " in " << b.size();
    return {};
  }
  std::vector<uint32_t> at;
  size_t p = 4108;
  for (const FakeFrame& fr : rec.frames) {
    if (p == moviEnd || Tag(b, p) == "JUNK") break;
    const uint32_t n = U32(b, p + 4);
    // Types 0-2 video, 4 "00al", 5 info, 3 and 6 on audio.
    EXPECT_EQ(std::string("00db00db00db00wb00al00bt00wb").substr(4 * std::min(fr.type, 6u), 4),
              Tag(b, p))
        << p;
    EXPECT_EQ(PayloadLen(fr), n) << p;
    if (p + n + 24 > moviEnd) {
      ADD_FAILURE() << "chunk at " << p << " runs past the movi section";
      return at;
    }
    EXPECT_TRUE(fr.type == 5 || std::equal(fr.data.begin(), fr.data.end(), b.begin() + p + 8));
    EXPECT_EQ("00tm", Tag(b, p + 8 + n)) << p;
    EXPECT_EQ(8u, U32(b, p + 12 + n));
    EXPECT_EQ(fr.time_us, LoadLE64(&b[p + 16 + n]));
    at.push_back(static_cast<uint32_t>(p));
    p += n + 24;
  }
  // The rest of movi: nothing, or one JUNK chunk of at least 8 bytes and zero content.
  Bytes pad(moviEnd - p, 0);
  if (pad.size() >= 8) StoreLE32(&pad[0], Word("JUNK")), StoreLE32(&pad[4], pad.size() - 8);
  EXPECT_TRUE(pad.empty() || pad.size() >= 8) << "a gap too small for a JUNK head at " << p;
  EXPECT_TRUE(pad == Bytes(b.begin() + p, b.begin() + moviEnd)) << "movi padding at " << p;

  // Each index as it must be: head, an entry per chunk it names, one JUNK chunk to its end.
  const uint32_t codec = rec.param.audioCodec;
  for (int widx = 0; widx < 2; ++widx) {
    Bytes want(index, 0);
    size_t e = 0;
    auto put = [&](uint32_t word, uint32_t value) {
      if (e + 8 <= index) StoreLE32(&want[e], word), StoreLE32(&want[e + 4], value);
      e += 8;
    };
    for (size_t k = 0; k < at.size(); ++k) {
      const uint32_t t = rec.frames[k].type;
      if (!widx && t > 2 && (codec != 0 || t == 4 || t == 5)) continue;  // idx1: video, PCM audio
      if (e == 0) put(Word(widx ? "widx" : "idx1"), static_cast<uint32_t>(index - 8));
      if (e == 8 && widx) put(Word("00cn"), static_cast<uint32_t>(at.size())), put(0, 0);
      if (e == 24 && widx && codec < 4) StoreLE32(&want[e], Word(kCodecTags[codec])), e += 4;
      put(LoadLE32(&b[at[k]]), t == 1 ? 0x10 : 0);
      put(at[k], U32(b, at[k] + 4));
    }
    if (e != index && e + 8 > index) ADD_FAILURE() << "no room for the JUNK head at " << e;
    if (e + 8 <= index) put(Word("JUNK"), static_cast<uint32_t>(index - e - 8));
    const size_t start = moviEnd + widx * index;
    EXPECT_EQ(index,
              std::mismatch(want.begin(), want.end(), b.begin() + start).first - want.begin())
        << (widx ? "widx" : "idx1") << ": the first difference";
  }
  return at;
}

TEST_F(AviTest, HeaderCarriesFrameRateCodecAndPictureSize) {
  // clang-format off
  const struct { int fps, code; bool h265; uint32_t usPerFrame, width, h576, h480; } rows[] = {
      {6, 5, true, 166666, 1920, 1080, 1080},  // truncated, not rounded
      {0, 6, false, 0, 0, 0, 0},               // no frame rate; a code without a size
      {25, 0, false, 40000, 704, 576, 480}, {25, 1, false, 40000, 704, 288, 240},
      {25, 2, false, 40000, 352, 288, 240}, {25, 3, false, 40000, 640, 480, 480},
      {25, 4, false, 40000, 1280, 720, 720}, {25, 8, false, 40000, 320, 240, 240},
      {25, 7, false, 40000, 0, 0, 0}, {25, 9, false, 40000, 0, 0, 0}};
  // clang-format on
  for (const auto& r : rows) {
    for (int standard = 0; standard < 2; ++standard) {
      SCOPED_TRACE(testing::Message() << "resolution " << r.code << " standard " << standard);
      rec.SetParam(r.fps, r.code, r.h265, 0, standard);
      ASSERT_NE(nullptr, Open(10));  // no frames: movi 1036 rounded to 1040
      uint32_t fps = static_cast<uint32_t>(r.fps);
      EXPECT_EQ(ExpectedHead({37136, 1040, r.usPerFrame, 10 * fps, 1000000 * fps, 160000,
                              r.h265 ? "H265" : "H264", r.width, standard ? r.h480 : r.h576}),
                ReadAll(16384, 1).bytes);
    }
  }
}

TEST_F(AviTest, EveryRecordingIsAWellFormedAviOfItsAnnouncedLength) {
  // clang-format off
  const struct { const char* what; int fps, codec, seconds, type, size; const char* frames;
                 size_t chunks; } rows[] = {
      {"odd payloads", 25, 0, 1, 1, 0, "1:1001 0:10 0:7", 3},
      {"pcm audio", 25, 0, 1, 1, 0, kAudio, 6}, {"g711a audio", 25, 1, 1, 1, 0, kAudio, 6},
      {"g711u audio", 25, 2, 1, 1, 0, kAudio, 6}, {"g726 audio", 25, 3, 1, 1, 0, kAudio, 6},
      {"audio without a widx tag", 25, 7, 1, 1, 0, kAudio, 6},
      {"6 fps", 6, 0, 2, 1, 0, "1:500 0:501*5 1:506 0:507*5", 12},
      {"fps 0 takes no frame", 0, 0, 1, 1, 0, "1:100 3:320", 0},
      {"span without frames", 25, 0, 2, 0, 5000, "", 0},
      {"zero-second span", 25, 0, 0, 0, 100, "", 0},
      {"many frames, estimated", 25, 0, 10, 0, 2000000, "1:3001 0:3037*249", 250},
      {"mixed", 25, 0, 4, 1, 0, kMixed, 73},
      {"declared frame count", 2, 0, 2, 1, 0, "3:10 0:10*6 3:10", 5},  // audio uncounted
      {"largest payload", 25, 0, 1, 1, 0, "1:1048552 0:1048553 0:10", 1},
      {"reader fails", 25, 0, 1, 0, 2000, "0:100*20 !5", 5},
      {"no gap", 25, 0, 1, 0, 1000, "1:1604 0:976 0:0", 2},  // movi 2640, 2628 after its head
      {"gap of 4", 25, 0, 1, 0, 1000, "1:1600 0:976 0:0", 1},
      {"gap of 7", 25, 0, 1, 0, 1000, "1:1597 0:976 0:0", 1},
      {"gap of 8", 25, 0, 1, 0, 1000, "1:1596 0:976 0:0", 2},
      {"widx full, 28-byte head", 200, 0, 1, 1, 0, "0:1*150", 97},
      {"widx full, 24-byte head", 200, 9, 1, 1, 0, "0:1*150", 98}};
  // clang-format on
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    rec.frames.clear();
    rec.failAfter = -1;
    rec.SetParam(r.fps, 3, false, r.codec);
    AddFrames(rec, r.frames);
    ASSERT_NE(nullptr, Open(r.seconds, r.type, r.size));
    EXPECT_EQ(rec.created, rec.destroyed + 1);  // a pre-scan's reader is gone
    AviFile f = ReadAll();
    EXPECT_EQ(2, std::count(f.reads.begin(), f.reads.end(), 0));  // after movi, after idx1
    EXPECT_EQ(r.chunks, Walk(f).size());
  }
}

TEST_F(AviTest, InfoRecordsKeepTheLatestValueOfEverySubtype) {
  // Source byte i is 7 + i, the first four the subtype; 7 is unknown: an empty chunk.
  AddFrames(rec, "i1 i0 i2 i7 1:1 i1");
  rec.frames[5].data[10] = 99;
  ASSERT_NE(nullptr, Open(1));
  AviFile f = ReadAll();
  std::vector<uint32_t> at = Walk(f);
  ASSERT_EQ(6u, at.size());
  auto body = [&](int k, long n) { return Bytes(&f.bytes[at[k] + 8], &f.bytes[at[k] + 8] + n); };
  Bytes brief(24, 0), full(68, 0);
  brief[0] = 3, brief[2] = 12;  // kind and length, 16 bits each
  for (int i = 0; i < 8; ++i) brief[12 + i] = full[12 + i] = static_cast<uint8_t>(17 + i);
  EXPECT_EQ(brief, body(0, 24));
  // The full record already holds the subtype-2 values: the pre-scan read them into it.
  full[0] = 31, full[2] = 56;
  full[24] = 15, full[31] = 27, full[32] = 47, full[34] = 43, full[35] = 44;
  for (int i = 0; i < 23; ++i) full[36 + i] = static_cast<uint8_t>(15 + i);
  time_t t = kT0;
  struct tm lt;
  localtime_r(&t, &lt);
  StoreLE16(&full[60], static_cast<uint16_t>(lt.tm_year + 1900));
  const int date[] = {lt.tm_mon + 1, lt.tm_mday, lt.tm_hour, lt.tm_min, lt.tm_sec};
  for (int i = 0; i < 5; ++i) full[62 + i] = static_cast<uint8_t>(date[i]);
  EXPECT_EQ(full, body(1, 68));
  EXPECT_EQ(full, body(2, 68));
  brief[12] = 99;
  EXPECT_EQ(brief, body(5, 24));
}

TEST_F(AviTest, IndexesComeInBlocksOfAtMostOneMebibyte) {
  rec.SetParam(100, 3);
  AddFrames(rec, "1:1 0:1*49999 1:1 0:1*19999");
  ASSERT_NE(nullptr, Open(701));
  AviFile f = ReadAll(2000000);
  EXPECT_EQ(70000u, Walk(f).size());
  // After movi: an empty read, idx1 in two blocks, its padding, an empty read, widx's first block.
  size_t i = 0;
  for (uint64_t pos = 0; pos < 4104 + U32(f.bytes, 4100) && i < f.reads.size();) {
    pos += f.reads[i++];
  }
  ASSERT_LE(i + 6, f.reads.size());
  EXPECT_EQ((Reads{0, 8 + 65535 * 16, 4465 * 16, 1121600 - 8 - 70000 * 16, 0, 28 + 65534 * 16}),
            Reads(f.reads.begin() + i, f.reads.begin() + i + 6));
}

TEST_F(AviTest, SeekReproducesAnUninterruptedReading) {
  AddFrames(rec, kMixed);
  // Estimated (type 0, the info record starts empty) and measured (type 1, pre-scanned): after
  // a reading that stopped half-way, and one to the end, a seek to 0 gives the same bytes.
  for (int type : {0, 1}) {
    ASSERT_NE(nullptr, Open(4, type, 400000));
    const Bytes first = ReadAll().bytes;
    for (size_t reads : {size_t{40}, SIZE_MAX}) {
      ASSERT_EQ(0, avi.ReadAviSeek(h, 0));
      ReadAll(16384, reads);
      ASSERT_EQ(0, avi.ReadAviSeek(h, 0));
      EXPECT_TRUE(first == ReadAll().bytes) << "type " << type << ", reads " << reads;
    }
  }
  ASSERT_NE(nullptr, Open(4));
  const AviFile whole = ReadAll();
  const uint32_t len = static_cast<uint32_t>(whole.bytes.size());
  const uint32_t idx1 = 4104 + U32(whole.bytes, 4100), widx = idx1 + 6400;
  ASSERT_LT(300001u, idx1);
  // One block per read: the header block, then a chunk.
  EXPECT_EQ((Reads{4108, 5025, 92}), Reads(whole.reads.begin(), whole.reads.begin() + 3));
  // clang-format off
  const struct { uint32_t offset; int result; } seeks[] = {{0, 0}, {4096, 0}, {4108 + 2500, 0},
      {300001, 0}, {idx1 + 20, 0}, {widx + 30, 0}, {len - 1, 0}, {len, 0}, {len + 1, -1}, {0, 0}};
  // clang-format on
  for (const auto& s : seeks) {
    ReadAll(16384, 3);  // a few reads first, so the seek has state to undo
    EXPECT_EQ(s.result, avi.ReadAviSeek(h, s.offset)) << s.offset;
    AviFile rest = ReadAll();
    EXPECT_EQ(1, rest.last);  // past the end: complete until the next seek
    EXPECT_TRUE(Bytes(whole.bytes.begin() + std::min(s.offset, len), whole.bytes.end()) ==
                rest.bytes)
        << "after a seek to " << s.offset;
  }
  // From 4096: the LIST movi head, then the first chunk whole; a want of 0 or less gives nothing.
  ASSERT_EQ(0, avi.ReadAviSeek(h, 4096));
  auto next = [&](int32_t want) {
    Reads r = ReadAll(want, 1).reads;
    return r.empty() ? -1 : r[0];
  };
  EXPECT_EQ((Reads{12, 0, 0, 5025}), (Reads{next(100), next(0), next(-5), next(100000)}));
}

// A span whose recording may still grow is measured at every opening, so that a frame added
// shows in the length; a closed one (the clock kAviSettledSeconds past its end) is measured once
// and opened again with the same bytes, its info record included, without reading a frame.
TEST_F(AviTest, OnlyAClosedSpanIsMeasuredOnce) {
  FakeClock clock;
  env.clock = &clock;
  AddFrames(rec, "1:100 i0 i2 0:50");
  for (int past : {-5, 0, 299, 300, 4000}) {  // seconds from the span's end to the clock
    clock.SetMs((2 + past) * 1000);
    AviSpanCache spans;
    CReadAvi cached{&env, &spans};
    std::vector<Bytes> files;
    Reads reads;
    for (int opening = 0; opening < 3; ++opening) {
      if (opening == 2) AddFrames(rec, "0:30");
      avi.ReadAviClose(h);
      reads.push_back(rec.reads);
      h = cached.ReadAviOpen(Name(kT0, kT0 + 2, 1, 0).c_str());
      reads.back() = rec.reads - reads.back();
      files.push_back(ReadAll().bytes);
    }
    EXPECT_TRUE(files[0] == files[1] && reads[0] > 0) << past;
    EXPECT_EQ((std::vector<bool>{reads[1] > 0, reads[2] > 0, files[2].size() != files[0].size()}),
              std::vector<bool>(3, past < 300))
        << past;
  }
}

TEST_F(AviTest, OpenRefusesWhatItCannotServe) {
  // No such partition, a span ending before it starts, longer than a day, beyond 4 GiB.
  // clang-format off
  const std::string names[] = {Name(kT0, kT0 + 10, 1, 0, /*part=*/7), Name(kT0 + 10, kT0, 1, 0),
                               Name(kT0, kT0 + 86401, 0, 0), Name(kT0, kT0 + 10, 0, -1), "", "x"};
  // clang-format on
  for (const std::string& name : names) {
    EXPECT_EQ(nullptr, avi.ReadAviOpen(name.c_str())) << name;
    EXPECT_EQ(name == names[3], avi.ReadAviProbe(name.c_str())) << name;  // 4 GiB: not measured
  }
  EXPECT_EQ(nullptr, avi.ReadAviOpen(nullptr));
  EXPECT_EQ(rec.created, rec.destroyed);
  // A reader that cannot describe the span is quit, then stopped, quit and destroyed.
  rec.failGetInfo = true;
  const int quits = rec.quits, stops = rec.stops;
  EXPECT_EQ(nullptr, Open(10));
  EXPECT_EQ((Reads{rec.created - rec.destroyed, rec.quits - quits, rec.stops - stops}),
            (Reads{0, 2, 1}));
  EXPECT_FALSE(avi.ReadAviProbe(Name(kT0, kT0 + 10, 1, 0).c_str()));
  uint8_t* data = nullptr;
  int32_t n = 0;
  EXPECT_EQ((Reads{avi.ReadAviClose(nullptr), static_cast<int32_t>(avi.ReadAviGetSize(nullptr)),
                   avi.ReadAviRead(nullptr, &data, &n, 100), avi.ReadAviSeek(nullptr, 0)}),
            (Reads{-1, 0, -1, -1}));
}

TEST_F(AviTest, PartitionIsLookedUpInLists15Then17Then16) {
  status.partLists[15] = {FakeStatus::Entry(2, "/mnt/a")};
  status.partLists[17] = {FakeStatus::Entry(3, "/mnt/b"), FakeStatus::Entry(1, "/mnt/b1")};
  status.partLists[16] = {FakeStatus::Entry(1, "/mnt/c")};
  status.deviceType = 0x1234;
  ASSERT_NE(nullptr, Open(86400, 0, 30000000));  // a whole day is served
  EXPECT_EQ("/mnt/b1 4660",
            std::string(rec.inits.back().path) + " " + std::to_string(rec.inits.back().devWord));
  // The reader was given the record item and the partition of the name.
  const RecordItem_t& it = rec.starts.back();
  EXPECT_EQ(std::vector<uint32_t>({1, 0xa, kT0, kT0 + 86400, 0, 30000000}),
            std::vector<uint32_t>({it.channel, it.fileNo, it.start_time, it.end_time,
                                   it.record_type, it.record_size}));
  EXPECT_STREQ("/mnt/b1", it.part_path);
  status.failing[STATUS_PART_LIST_B] = true;
  ASSERT_NE(nullptr, Open(1));
  EXPECT_STREQ("/mnt/c", rec.inits.back().path);
}

}  // namespace
