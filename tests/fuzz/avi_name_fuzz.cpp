// Any virtual name either opens a stream whose reading ends at exactly its announced length, or
// is refused; nothing crashes or hangs.
#include <cstdint>
#include <cstdio>
#include <string>

#include "avi/read_avi.h"
#include "tests/fakes/fake_readdisk.h"
#include "tests/fakes/fakes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = freopen("/dev/null", "w", stdout) != nullptr;
  (void)quiet;
  FakeStatus status;
  status.partLists[15] = {FakeStatus::Entry(1, "/mnt/a"), FakeStatus::Entry(-3, "/mnt/b")};
  status.partLists[16] = {FakeStatus::Entry(2, "/mnt/c")};
  FakeRecording rec;
  for (uint32_t i = 0; i < 30; ++i) {
    rec.Add(1700000000ull * 1000000u + i * 40000ull, i % 7, (i * 97) % 600,
            static_cast<uint8_t>(i));
  }
  rec.AddInfo(1700000000ull * 1000000u + 5, 0);
  std::string name(reinterpret_cast<const char*>(data), size);
  TestEnv env;
  env.status = &status;
  CReadAvi avi(&env);
  AviFileInfo_t* h = avi.ReadAviOpen(name.c_str());
  if (h == nullptr) return 0;
  // Read only files small enough to finish quickly; the length is checked in any case.
  uint32_t size32 = avi.ReadAviGetSize(h);
  if (size32 <= (8u << 20)) {
    uint64_t total = 0;
    uint8_t* d;
    int32_t n;
    while (avi.ReadAviRead(h, &d, &n, 16384) == 0) total += static_cast<uint32_t>(n);
    if (total != size32) __builtin_trap();
  }
  avi.ReadAviClose(h);
  return 0;
}
