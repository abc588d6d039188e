#include "platform/host/atomic_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

bool WriteAll(int fd, const void* data, size_t len) {
  const char* at = static_cast<const char*>(data);
  while (len > 0) {
    ssize_t n = write(fd, at, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    at += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

namespace {

bool SyncDirectory(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fsync(fd) == 0;
  return close(fd) == 0 && ok;
}

}  // namespace

int ReplaceFileAtomically(const std::string& path, const void* data, size_t len) {
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty()) return -1;
  std::string tmp =
      (slash == std::string::npos ? "" : path.substr(0, slash + 1)) + "." + name + ".tmp";
  // A leftover of an earlier attempt goes first; the new one is created afresh, so that a link
  // planted under the temporary name is never followed.
  unlink(tmp.c_str());
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  bool ok = WriteAll(fd, data, len) && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
    unlink(tmp.c_str());
    return -1;
  }
  return SyncDirectory(dir) ? 0 : -1;
}
