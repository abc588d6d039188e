#include "platform/paths.h"

#include <cstdlib>

#include "platform/text.h"

std::string SandboxRoot() {
  const char* root = getenv("VELMAR_ROOT");
  return root != nullptr ? std::string(root) : std::string();
}

std::string RootedPath(const char* devicePath) {
  return SandboxRoot() + (devicePath != nullptr ? devicePath : "");
}

int RootedPath(const char* devicePath, char* out, size_t cap) {
  return FormatBounded(out, cap, "%s", RootedPath(devicePath).c_str());
}
