// velmar-avi: writes the AVI file of a virtual recording name, read through the AVI stream in
// 16384-byte pieces exactly as an upload reads it. The partition comes from the status service
// under VELMAR_ROOT ($VELMAR_ROOT/etc/velmar/recorder.xml), as for the service.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "avi/read_avi.h"
#include "platform/env.h"

int main(int argc, char** argv) {
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    printf(
        "usage: velmar-avi NAME OUTPUT\n"
        "  NAME    /<channel %%04d>_<file %%08x>_<partition>_<start>_<end>_<type>_<size>.avi\n"
        "  OUTPUT  file to write the AVI to\n");
    return 0;
  }
  if (argc != 3) {
    fprintf(stderr, "usage: velmar-avi NAME OUTPUT (--help for more)\n");
    return 2;
  }
  CReadAvi avi(Env::Default());
  AviFileInfo_t* h = avi.ReadAviOpen(argv[1]);
  if (h == nullptr) {
    fprintf(stderr, "velmar-avi: cannot open recording %s\n", argv[1]);
    return 1;
  }
  uint32_t size = avi.ReadAviGetSize(h);
  FILE* out = fopen(argv[2], "wb");
  if (out == nullptr) {
    fprintf(stderr, "velmar-avi: cannot create %s: %s\n", argv[2], strerror(errno));
    avi.ReadAviClose(h);
    return 1;
  }
  uint64_t total = 0;
  bool ok = true;
  for (;;) {
    uint8_t* data = nullptr;
    int32_t len = 0;
    int r = avi.ReadAviRead(h, &data, &len, 16384);
    if (r != 0) {
      ok = r == 1;
      break;
    }
    if (len > 0 && fwrite(data, 1, static_cast<size_t>(len), out) != static_cast<size_t>(len)) {
      ok = false;
      break;
    }
    total += static_cast<uint32_t>(len);
  }
  ok = fclose(out) == 0 && ok;
  avi.ReadAviClose(h);
  printf("velmar-avi: wrote %llu of %u bytes to %s\n", static_cast<unsigned long long>(total), size,
         argv[2]);
  if (!ok || total != size) {
    fprintf(stderr, "velmar-avi: incomplete AVI\n");
    return 1;
  }
  return 0;
}
