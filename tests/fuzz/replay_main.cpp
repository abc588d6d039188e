// Runs a fuzz target's entry point over every file of a corpus directory, so that the test
// suite replays the seeds and the kept crash inputs in every build.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s corpus-dir\n", argv[0]);
    return 2;
  }
  DIR* dir = opendir(argv[1]);
  if (dir == nullptr) {
    fprintf(stderr, "no corpus at %s\n", argv[1]);
    return 1;
  }
  int count = 0;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream in(std::string(argv[1]) + "/" + e->d_name, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++count;
  }
  closedir(dir);
  printf("replayed %d inputs from %s\n", count, argv[1]);
  return count > 0 ? 0 : 1;
}
