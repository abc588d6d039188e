#include "platform/state_file.h"

#include "platform/fileutil.h"
#include "platform/host/atomic_file.h"
#include "platform/paths.h"

int PublishStateFile(const char* name, const std::string& text) {
  const std::string dir = RootedPath("/run/velmar");
  if (MakeDirs(dir.c_str()) != 0) return -1;
  return ReplaceFileAtomically(dir + "/" + name, text.data(), text.size());
}

bool ReadStateFile(const char* name, std::string* text) {
  std::string why;
  return ReadRegularFile((RootedPath("/run/velmar") + "/" + name).c_str(), 64 * 1024, text, &why);
}
