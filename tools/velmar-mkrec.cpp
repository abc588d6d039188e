// velmar-mkrec: builds a host frame-store file (platform/framestore.h) from an H.264 or H.265
// Annex-B elementary stream, with optional audio and info frames, so that the AVI stream can be
// tried on real video. Prints what it packed as key=value lines.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/byteorder.h"
#include "platform/framestore.h"
#include "platform/readdisk.h"

namespace {

const char kUsage[] =
    "usage: velmar-mkrec [options] INPUT OUTPUT\n"
    "  INPUT                 H.264 or H.265 Annex-B elementary stream\n"
    "  OUTPUT                frame-store file, e.g. <partition>/0001_0000000a.vfs\n"
    "  --codec h264|h265     video codec (default h264)\n"
    "  --fps N               frames per second, 1..255 (default 25)\n"
    "  --resolution CODE     resolution code 0..255 (default 3: 640x480)\n"
    "  --standard N          video standard word (default 0)\n"
    "  --start SECONDS       time of the first frame, seconds since 1970 (default 1700000000)\n"
    "  --audio FILE          raw audio, cut into 320-byte frames (type 3)\n"
    "  --audio-codec C       pcm (16-bit, 8 kHz) | g711a | g711u (default g711a)\n"
    "  --info-every SECONDS  an info frame (type 5, subtypes 0, 1, 2 in turn) this often\n"
    "  --help                this text\n";

struct Options {
  std::string input, output, audio;
  bool h265 = false;
  int fps = 25, resolution = 3, audioCodec = 1;
  long standard = 0, start = 1700000000, infoEvery = 0;
};

struct Frame {
  uint64_t time;
  uint32_t type;
  std::vector<uint8_t> data;
};

bool ParseLong(const char* s, long lo, long hi, long* out) {
  char* end = nullptr;
  errno = 0;
  long v = strtol(s, &end, 10);
  if (errno != 0 || end == s || *end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

// 0 on success, 1 for --help, -1 for a usage error (message printed).
int ParseArgs(int argc, char** argv, Options* o) {
  std::vector<std::string> pos;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") return 1;
    if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
      if (i + 1 >= argc) {
        fprintf(stderr, "velmar-mkrec: %s needs a value\n", a.c_str());
        return -1;
      }
      const char* v = argv[++i];
      long n = 0;
      bool ok = true;
      if (a == "--codec") {
        ok = strcmp(v, "h264") == 0 || strcmp(v, "h265") == 0;
        o->h265 = strcmp(v, "h265") == 0;
      } else if (a == "--fps") {
        ok = ParseLong(v, 1, 255, &n);
        o->fps = static_cast<int>(n);
      } else if (a == "--resolution") {
        ok = ParseLong(v, 0, 255, &n);
        o->resolution = static_cast<int>(n);
      } else if (a == "--standard") {
        ok = ParseLong(v, 0, 0x7fffffff, &o->standard);
      } else if (a == "--start") {
        ok = ParseLong(v, 0, 0x7fffffff, &o->start);
      } else if (a == "--audio") {
        o->audio = v;
      } else if (a == "--audio-codec") {
        o->audioCodec = strcmp(v, "pcm") == 0     ? 0
                        : strcmp(v, "g711a") == 0 ? 1
                        : strcmp(v, "g711u") == 0 ? 2
                                                  : -1;
        ok = o->audioCodec >= 0;
      } else if (a == "--info-every") {
        ok = ParseLong(v, 1, 86400, &o->infoEvery);
      } else {
        fprintf(stderr, "velmar-mkrec: unknown option %s\n", a.c_str());
        return -1;
      }
      if (!ok) {
        fprintf(stderr, "velmar-mkrec: bad value '%s' for %s\n", v, a.c_str());
        return -1;
      }
    } else {
      pos.push_back(a);
    }
  }
  if (pos.size() != 2) {
    fprintf(stderr, "velmar-mkrec: need INPUT and OUTPUT\n");
    return -1;
  }
  o->input = pos[0];
  o->output = pos[1];
  return 0;
}

bool ReadFile(const std::string& path, std::vector<uint8_t>* out) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) {
    fprintf(stderr, "velmar-mkrec: cannot open %s: %s\n", path.c_str(), strerror(errno));
    return false;
  }
  uint8_t buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) out->insert(out->end(), buf, buf + n);
  bool ok = ferror(f) == 0;
  fclose(f);
  return ok;
}

// One NAL unit: [start, end) including its start code; hdr is the first byte after the code.
struct Nal {
  size_t start, end, hdr;
};

std::vector<Nal> SplitNals(const std::vector<uint8_t>& b) {
  std::vector<Nal> nals;
  size_t i = 0, n = b.size();
  auto codeAt = [&](size_t k) { return k + 3 <= n && b[k] == 0 && b[k + 1] == 0 && b[k + 2] == 1; };
  while (i < n && !codeAt(i)) ++i;
  while (i < n) {
    size_t start = (i > 0 && b[i - 1] == 0) ? i - 1 : i;  // a 4-byte code owns its zero
    size_t hdr = i + 3;
    size_t j = hdr;
    while (j < n && !codeAt(j)) ++j;
    size_t end = j;
    if (j < n && b[j - 1] == 0) end = j - 1;
    if (!nals.empty()) nals.back().end = start;
    nals.push_back({start, end, hdr});
    i = j;
  }
  return nals;
}

// Splits the stream into access units: a new one begins at a parameter set, SEI or delimiter
// after a picture, or at the first slice of a picture after a picture.
std::vector<Frame> AccessUnits(const std::vector<uint8_t>& b, bool h265) {
  std::vector<Frame> frames;
  bool haveVcl = false, key = false;
  std::vector<uint8_t> cur;
  auto flush = [&]() {
    if (!cur.empty() && haveVcl) frames.push_back({0, key ? 1u : 0u, cur});
    cur.clear();
    haveVcl = key = false;
  };
  for (const Nal& nal : SplitNals(b)) {
    if (nal.hdr + 3 > nal.end) continue;  // too short to be a NAL unit with a slice header
    bool vcl, firstSlice, startsAu, isKey;
    if (h265) {
      unsigned t = (b[nal.hdr] >> 1) & 0x3f;
      vcl = t < 32;
      firstSlice = vcl && (b[nal.hdr + 2] & 0x80) != 0;
      startsAu = (t >= 32 && t <= 35) || t == 39 || (t >= 41 && t <= 44) || (t >= 48 && t <= 55);
      isKey = t >= 16 && t <= 21;
    } else {
      unsigned t = b[nal.hdr] & 0x1f;
      vcl = t >= 1 && t <= 5;
      firstSlice = vcl && (b[nal.hdr + 1] & 0x80) != 0;
      startsAu = t == 6 || t == 7 || t == 8 || t == 9 || (t >= 14 && t <= 18);
      isKey = t == 5;
    }
    if (haveVcl && (startsAu || firstSlice)) flush();
    cur.insert(cur.end(), b.begin() + nal.start, b.begin() + nal.end);
    haveVcl = haveVcl || vcl;
    key = key || isKey;
  }
  flush();
  return frames;
}

// A 44-byte info source of the given subtype with recognisable field values.
std::vector<uint8_t> InfoSource(uint32_t subtype, uint32_t n) {
  std::vector<uint8_t> s(44);
  StoreLE32(&s[0], subtype);
  for (size_t i = 4; i < s.size(); ++i) s[i] = static_cast<uint8_t>(n + i);
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int r = ParseArgs(argc, argv, &o);
  if (r != 0) {
    fputs(kUsage, r > 0 ? stdout : stderr);
    return r > 0 ? 0 : 2;
  }
  std::vector<uint8_t> es, audio;
  if (!ReadFile(o.input, &es)) return 1;
  if (!o.audio.empty() && !ReadFile(o.audio, &audio)) return 1;
  std::vector<Frame> video = AccessUnits(es, o.h265);
  if (video.empty()) {
    fprintf(stderr, "velmar-mkrec: no %s pictures in %s\n", o.h265 ? "H.265" : "H.264",
            o.input.c_str());
    return 1;
  }
  const uint64_t t0 = static_cast<uint64_t>(o.start) * 1000000u;
  for (size_t i = 0; i < video.size(); ++i) video[i].time = t0 + i * 1000000ull / o.fps;
  uint64_t spanUs = (video.size() * 1000000ull + o.fps - 1) / o.fps;

  // Audio and info frames, merged with the pictures by time (a stable merge keeps a picture
  // before the other frames of the same time).
  std::vector<Frame> other;
  const size_t piece = 320;
  const uint64_t pieceUs = o.audioCodec == 0 ? 20000 : 40000;
  for (size_t k = 0; k * piece < audio.size(); ++k) {
    uint64_t t = t0 + k * pieceUs;
    if (t >= t0 + spanUs) break;
    size_t len = audio.size() - k * piece < piece ? audio.size() - k * piece : piece;
    other.push_back(
        {t, 3, std::vector<uint8_t>(audio.begin() + k * piece, audio.begin() + k * piece + len)});
  }
  size_t audioFrames = other.size();
  if (o.infoEvery > 0) {
    uint32_t n = 0;
    for (uint64_t t = t0; t < t0 + spanUs; t += o.infoEvery * 1000000ull, ++n) {
      other.push_back({t + 1, 5, InfoSource(n % 3, n)});
    }
  }
  std::vector<Frame> all;
  size_t a = 0;
  std::stable_sort(other.begin(), other.end(),
                   [](const Frame& x, const Frame& y) { return x.time < y.time; });
  for (Frame& v : video) {
    while (a < other.size() && other[a].time < v.time) all.push_back(std::move(other[a++]));
    all.push_back(std::move(v));
  }
  while (a < other.size()) all.push_back(std::move(other[a++]));

  EncodeParam_t param;
  memset(&param, 0, sizeof(param));
  param.codecFlags = o.h265 ? 1 : 0;
  param.fps = static_cast<uint8_t>(o.fps);
  param.resolution = static_cast<uint8_t>(o.resolution);
  param.audioCodec = static_cast<uint8_t>(o.audioCodec);
  param.standard = static_cast<uint32_t>(o.standard);

  FILE* f = fopen(o.output.c_str(), "wb");
  if (f == nullptr) {
    fprintf(stderr, "velmar-mkrec: cannot create %s: %s\n", o.output.c_str(), strerror(errno));
    return 1;
  }
  uint8_t head[kFrameStoreHeadLen] = {};
  memcpy(head, kFrameStoreMagic, sizeof(kFrameStoreMagic));
  memcpy(head + 8, &param, sizeof(param));
  bool ok = fwrite(head, 1, sizeof(head), f) == sizeof(head);
  uint64_t payload = 0, keys = 0, overhead = 0;
  for (const Frame& fr : all) {
    uint8_t fh[kFrameStoreFrameHeadLen];
    StoreLE64(fh, fr.time);
    StoreLE32(fh + 8, fr.type);
    StoreLE32(fh + 12, static_cast<uint32_t>(fr.data.size()));
    ok = ok && fwrite(fh, 1, sizeof(fh), f) == sizeof(fh);
    ok = ok && fwrite(fr.data.data(), 1, fr.data.size(), f) == fr.data.size();
    payload += fr.type == 5 ? 68 : fr.data.size();
    if (fr.type == 1) ++keys;
    if (fr.type > 2) overhead += 24;
  }
  ok = (fclose(f) == 0) && ok;
  if (!ok) {
    fprintf(stderr, "velmar-mkrec: writing %s failed\n", o.output.c_str());
    return 1;
  }
  // record_size: the bytes an estimated movi section needs beyond 24 per declared picture.
  printf("video_frames=%zu\nkey_frames=%llu\naudio_frames=%zu\ninfo_frames=%zu\n", video.size(),
         static_cast<unsigned long long>(keys), audioFrames, other.size() - audioFrames);
  printf("start=%ld\nend=%llu\nrecord_size=%llu\n", o.start,
         static_cast<unsigned long long>((t0 + spanUs + 999999) / 1000000),
         static_cast<unsigned long long>(payload + overhead));
  return 0;
}
