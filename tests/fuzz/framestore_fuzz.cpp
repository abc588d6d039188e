// A frame-store file of arbitrary bytes (frame types, lengths and times) read by the host reader
// through the whole AVI stream: every stream ends at exactly its announced length.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "avi/read_avi.h"
#include "tests/fakes/fakes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = freopen("/dev/null", "w", stdout) != nullptr;
  static std::string dir = [] {
    char tmpl[] = "/tmp/velmar-fsfuzz-XXXXXX";
    const char* d = mkdtemp(tmpl);
    return std::string(d != nullptr ? d : "/tmp");
  }();
  (void)quiet;
  std::string path = dir + "/0001_0000000a.vfs";
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return 0;
  fwrite(data, 1, size, f);
  fclose(f);

  FakeStatus status;
  status.partLists[15] = {FakeStatus::Entry(1, dir)};
  TestEnv env;
  env.status = &status;
  CReadAvi avi(&env);
  for (int type = 0; type < 2; ++type) {
    char name[100];
    snprintf(name, sizeof(name), "/0001_0000000a_1_1700000000_1700000010_%d_20000.avi", type);
    AviFileInfo_t* h = avi.ReadAviOpen(name);
    if (h == nullptr) continue;
    uint64_t total = 0;
    uint8_t* d;
    int32_t n;
    while (avi.ReadAviRead(h, &d, &n, 16384) == 0) total += static_cast<uint32_t>(n);
    if (total != avi.ReadAviGetSize(h)) __builtin_trap();
    // A seek into the middle regenerates the same tail length.
    uint32_t mid = avi.ReadAviGetSize(h) / 2;
    if (avi.ReadAviSeek(h, mid) != 0) __builtin_trap();
    avi.ReadAviClose(h);
  }
  unlink(path.c_str());
  return 0;
}
