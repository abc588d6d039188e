#include "platform/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/byteorder.h"
#include "platform/fileutil.h"
#include "platform/host/atomic_file.h"
#include "platform/paths.h"
#include "platform/thread.h"

namespace {

CLock g_fileMutex;

constexpr int64_t kDefaultLogMaxKiB = 1024;

struct LogFile {
  std::string path;
  int fd = -1;
  int64_t size = 0;      // bytes in the file
  int64_t maxBytes = 0;  // the file is rotated before it would grow past this
};
LogFile g_dbgFile GUARDED_BY(g_fileMutex);
LogFile g_userFile GUARDED_BY(g_fileMutex);

// The size cap of each log file: VELMAR_LOG_MAX_KIB (KiB, at least 1), else 1 MiB.
int64_t LogMaxBytes() {
  const char* text = getenv("VELMAR_LOG_MAX_KIB");
  char* end = nullptr;
  long long kib = text != nullptr ? strtoll(text, &end, 10) : 0;
  if (text == nullptr || end == text || *end != '\0' || kib < 1 || kib > (1LL << 30)) {
    kib = kDefaultLogMaxKiB;
  }
  return kib * 1024;
}

void OpenLog(LogFile* file) REQUIRES(g_fileMutex) {
  std::string dir = file->path.substr(0, file->path.rfind('/'));
  MakeDirs(dir.c_str());
  file->fd = open(file->path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  struct stat st;
  file->size = file->fd >= 0 && fstat(file->fd, &st) == 0 ? st.st_size : 0;
}

// Returns a descriptor open for appending `bytes` more to root + devicePath, reopening when the
// sandbox root changed. A file that would grow past its cap is first renamed to "<name>.1"
// (replacing the older one), so that a log takes at most twice its cap on the card. Caller
// holds g_fileMutex.
int AppendFd(LogFile* file, const char* devicePath, size_t bytes) REQUIRES(g_fileMutex) {
  std::string path = RootedPath(devicePath);
  if (file->fd < 0 || file->path != path) {
    if (file->fd >= 0) close(file->fd);
    file->path = path;
    file->maxBytes = LogMaxBytes();
    OpenLog(file);
  }
  if (file->fd >= 0 && file->size > 0 &&
      file->size + static_cast<int64_t>(bytes) > file->maxBytes) {
    close(file->fd);
    rename(path.c_str(), (path + ".1").c_str());
    OpenLog(file);
  }
  if (file->fd >= 0) file->size += static_cast<int64_t>(bytes);
  return file->fd;
}

}  // namespace

bool TraceEnabled() {
  static const bool enabled = [] {
    const char* v = getenv("VELMAR_TRACE");
    return v != nullptr && strcmp(v, "1") == 0;
  }();
  return enabled;
}

void WriteDbgLog(int level, const char* fmt, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  if (n < 0) return;
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tmv;
  localtime_r(&ts.tv_sec, &tmv);
  char line[1100];
  int len = snprintf(line, sizeof(line), "%04d-%02d-%02d %02d:%02d:%02d.%03ld [%d] %s",
                     tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min,
                     tmv.tm_sec, ts.tv_nsec / 1000000, level, text);
  if (len < 0) return;
  size_t size =
      static_cast<size_t>(len) < sizeof(line) ? static_cast<size_t>(len) : sizeof(line) - 1;
  if (size == 0 || line[size - 1] != '\n') {
    if (size == sizeof(line) - 1) --size;
    line[size++] = '\n';
  }
  // Values from outside (names, accounts, replies) end up in log lines: a control byte among
  // them must neither forge a line of its own nor drive the terminal that shows the log. Blank
  // lines that a format puts before or after its text are kept.
  size_t first = static_cast<size_t>(len) - strlen(text);  // where the text begins
  while (first < size && line[first] == '\n') ++first;
  size_t last = size;
  while (last > first && line[last - 1] == '\n') --last;
  for (size_t i = first; i < last; ++i) {
    unsigned char c = static_cast<unsigned char>(line[i]);
    if ((c < 0x20 && c != '\t') || c == 0x7f) line[i] = '?';
  }
  CAutoLock guard(&g_fileMutex);
  WriteAll(STDERR_FILENO, line, size);
  int fd = AppendFd(&g_dbgFile, "/var/log/velmar/velmar.log", size);
  if (fd >= 0) WriteAll(fd, line, size);
}

int WriteUserLog(LOG_TYPE_E type, unsigned int code, unsigned int len, void* data) {
  if (len > 4096 || (len > 0 && data == nullptr)) return -1;
  unsigned char record[12 + 4096];
  StoreLE32(record, static_cast<uint32_t>(type));
  StoreLE32(record + 4, code);
  StoreLE32(record + 8, len);
  if (len > 0) memcpy(record + 12, data, len);
  CAutoLock guard(&g_fileMutex);
  int fd = AppendFd(&g_userFile, "/var/log/velmar/user.log", 12 + len);
  if (fd < 0) return -1;
  WriteAll(fd, reinterpret_cast<const char*>(record), 12 + len);
  return 0;
}
