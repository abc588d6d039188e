// The AVI stream of a one-hour recording at 4 Mbit/s (about 1.8 GB of frames), read in
// 16384-byte pieces as an upload reads it, against reading the frame-store file itself with
// `cat file > /dev/null` in the same run. Reports the throughput ratio (goal >= 0.5), the memory
// a stream adds while open (goal < 16 MiB) and the time of a seek to the middle of the file.
//
// The frame-store file is generated in a temporary directory and deleted at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "avi/read_avi.h"
#include "platform/byteorder.h"
#include "platform/env.h"
#include "platform/framestore.h"
#include "platform/readdisk.h"

namespace {

constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kSeconds = 3600;
constexpr uint32_t kFps = 25;
constexpr uint32_t kBytesPerSecond = 4000000 / 8;

struct Fixture {
  std::string root, file, name;
  uint64_t fileBytes = 0;
  uint64_t payload = 0;
  double catSeconds = 0;

  Fixture() {
    char tmpl[] = "/tmp/velmar-bench-XXXXXX";
    root = mkdtemp(tmpl);
    std::string part = root + "/mnt/rec";
    std::string cmd = "mkdir -p " + part + " " + root + "/etc/velmar";
    if (system(cmd.c_str()) != 0) abort();
    FILE* x = fopen((root + "/etc/velmar/recorder.xml").c_str(), "w");
    fprintf(x,
            "<recorder>\n<device type=\"3\"/>\n<partition list=\"15\" id=\"1\" path=\"%s\"/>\n"
            "</recorder>\n",
            part.c_str());
    fclose(x);
    setenv("VELMAR_ROOT", root.c_str(), 1);
    file = part + "/0001_0000000a.vfs";
    Generate();
    char n[128];
    snprintf(n, sizeof(n), "/0001_0000000a_1_%u_%u_0_%llu.avi", kStart, kStart + kSeconds,
             static_cast<unsigned long long>(payload));
    name = n;
  }
  ~Fixture() {
    std::string cmd = "rm -rf " + root;
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", root.c_str());
  }

  // Frames of 4 Mbit/s on average: a key frame every 2 s at four times a picture's size.
  void Generate() {
    FILE* f = fopen(file.c_str(), "wb");
    uint8_t head[kFrameStoreHeadLen] = {};
    memcpy(head, kFrameStoreMagic, 8);
    EncodeParam_t p{};
    p.fps = kFps;
    p.resolution = 5;
    p.audioCodec = 1;
    memcpy(head + 8, &p, sizeof(p));
    fwrite(head, 1, sizeof(head), f);
    const uint32_t perGop = kBytesPerSecond * 2;
    const uint32_t small = perGop / (49 + 4);
    std::vector<uint8_t> buf(small * 4);
    for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<uint8_t>(i * 131);
    for (uint32_t i = 0; i < kSeconds * kFps; ++i) {
      uint32_t len = i % 50 == 0 ? small * 4 : small;
      uint8_t fh[16];
      StoreLE64(fh, static_cast<uint64_t>(kStart) * 1000000u + i * (1000000ull / kFps));
      StoreLE32(fh + 8, i % 50 == 0 ? 1 : 0);
      StoreLE32(fh + 12, len);
      fwrite(fh, 1, 16, f);
      fwrite(buf.data(), 1, len, f);
      payload += len;
      fileBytes += 16 + len;
    }
    fclose(f);
  }
};

Fixture* g_fx = nullptr;

long RssKiB(const char* field) {
  FILE* f = fopen("/proc/self/status", "r");
  char line[256];
  long v = -1;
  while (f != nullptr && fgets(line, sizeof(line), f) != nullptr) {
    if (strncmp(line, field, strlen(field)) == 0) v = atol(line + strlen(field) + 1);
  }
  if (f != nullptr) fclose(f);
  return v;
}

// Resets the process's peak resident size (VmHWM) to its current size.
void WriteClearRefs() {
  FILE* f = fopen("/proc/self/clear_refs", "w");
  if (f == nullptr) return;
  fputs("5", f);
  fclose(f);
}

void BM_CatFrameStore(benchmark::State& state) {
  std::string cmd = "cat " + g_fx->file + " > /dev/null";
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    if (system(cmd.c_str()) != 0) state.SkipWithError("cat failed");
    g_fx->catSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    state.SetIterationTime(g_fx->catSeconds);
  }
  state.SetBytesProcessed(static_cast<int64_t>(g_fx->fileBytes) * state.iterations());
}

void BM_AviStream16K(benchmark::State& state) {
  CReadAvi avi(Env::Default());
  for (auto _ : state) {
    // The stream's own lines would mix with the report: send them to /dev/null meanwhile.
    fflush(stdout);
    int saved = dup(1);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    // Peak memory the open stream adds: the high-water mark is reset to the current size
    // first, so VmHWM afterwards is the peak while the stream was open, read and sought.
    WriteClearRefs();
    long before = RssKiB("VmHWM");
    auto t0 = std::chrono::steady_clock::now();
    AviFileInfo_t* h = avi.ReadAviOpen(g_fx->name.c_str());
    if (h == nullptr) {
      dup2(saved, 1);
      close(saved);
      close(null);
      state.SkipWithError("open failed");
      break;
    }
    uint64_t total = 0;
    uint8_t* d;
    int32_t n;
    while (avi.ReadAviRead(h, &d, &n, 16384) == 0) total += static_cast<uint32_t>(n);
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    state.SetIterationTime(secs);
    state.counters["avi_bytes"] = static_cast<double>(total);
    state.counters["ratio_vs_cat"] =
        (static_cast<double>(total) / secs) / (g_fx->fileBytes / g_fx->catSeconds);

    auto s0 = std::chrono::steady_clock::now();
    if (avi.ReadAviSeek(h, avi.ReadAviGetSize(h) / 2) != 0) state.SkipWithError("seek failed");
    state.counters["seek_middle_s"] =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - s0).count();
    state.counters["peak_added_MiB"] = (RssKiB("VmHWM") - before) / 1024.0;
    avi.ReadAviClose(h);
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(null);
    state.SetBytesProcessed(static_cast<int64_t>(total));
  }
}

BENCHMARK(BM_CatFrameStore)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AviStream16K)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Fixture fx;
  g_fx = &fx;
  fprintf(stderr, "frame store: %llu bytes\n", static_cast<unsigned long long>(fx.fileBytes));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
