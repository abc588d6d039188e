#include "platform/fileutil.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/log.h"

namespace {

constexpr size_t kWholeFileMax = 16 * 1024 * 1024;

int64_t MonotonicMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void SleepMs(int ms) {
  timespec ts{ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&ts, nullptr);
}

// Closes every descriptor from 3 up. Async-signal-safe.
void CloseInheritedFds() {
#ifdef SYS_close_range
  if (syscall(SYS_close_range, 3U, ~0U, 0U) == 0) return;
#endif
  long maxFd = sysconf(_SC_OPEN_MAX);
  if (maxFd < 0 || maxFd > 65536) maxFd = 65536;
  for (int fd = 3; fd < maxFd; ++fd) close(fd);
}

// Body of the intermediate process: leader of the command's process group and subreaper of
// everything the command starts. Starts the shell, reaps every descendant, and exits with
// the shell's status. Blocks TERM so that it outlives the group's TERM and reaps the dead;
// KILL still ends it. Only async-signal-safe calls: the parent may be multi-threaded.
[[noreturn]] void RunReaper(char* const argv[]) {
  setpgid(0, 0);
  prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigprocmask(SIG_BLOCK, &term, nullptr);
  CloseInheritedFds();
  int devNull = open("/dev/null", O_RDONLY);
  if (devNull >= 0) {
    dup2(devNull, STDIN_FILENO);
    if (devNull != STDIN_FILENO) close(devNull);
  }
  pid_t shell = fork();
  if (shell < 0) _exit(127);
  if (shell == 0) {
    sigprocmask(SIG_UNBLOCK, &term, nullptr);
    signal(SIGPIPE, SIG_DFL);
    execv("/bin/sh", argv);
    _exit(127);
  }
  int shellStatus = 0;
  for (;;) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, 0);
    if (pid == shell) shellStatus = status;
    if (pid < 0 && errno != EINTR) break;
  }
  if (WIFEXITED(shellStatus)) _exit(WEXITSTATUS(shellStatus));
  _exit(128 + WTERMSIG(shellStatus));
}

// Waits up to limitMs for child; true with *status when it ended.
bool WaitChild(pid_t child, int64_t limitMs, int* status) {
  int64_t deadline = MonotonicMs() + limitMs;
  int pauseMs = 2;
  for (;;) {
    pid_t r = waitpid(child, status, WNOHANG);
    if (r == child) return true;
    if (r < 0 && errno != EINTR) return true;  // not ours any more
    if (MonotonicMs() >= deadline) return false;
    SleepMs(pauseMs);
    if (pauseMs < 50) pauseMs *= 2;
  }
}

int HostSystemDump(const char* command, int seconds) {
  if (command == nullptr) return -1;
  char shName[] = "sh";
  char dashC[] = "-c";
  std::string cmd(command);
  char* const argv[] = {shName, dashC, &cmd[0], nullptr};
  pid_t child = fork();
  if (child < 0) {
    WriteDbgLog(2, "systemdump: fork failed: %s\n", strerror(errno));
    return -1;
  }
  if (child == 0) RunReaper(argv);
  setpgid(child, child);  // also done by the child; whichever runs first wins the race
  int status = 0;
  int64_t limitMs = static_cast<int64_t>(seconds > 0 ? seconds : 0) * 1000;
  if (WaitChild(child, limitMs, &status)) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
  }
  WriteDbgLog(2, "systemdump: limit of %d s reached, ending: %.200s\n", seconds, command);
  kill(-child, SIGTERM);
  if (!WaitChild(child, 1000, &status)) {
    kill(-child, SIGKILL);
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
  }
  return -1;
}

class HostShellRunner {
 public:
  int RunLimited(const char* command, int seconds) { return HostSystemDump(command, seconds); }
  // Like system(3), but the command starts with SIGPIPE at its default: the service ignores
  // it, and a pipeline in a user command must end the way it would from a terminal.
  int RunUnlimited(const char* command) {
    if (command == nullptr) return -1;
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t dflt;
    sigemptyset(&dflt);
    sigaddset(&dflt, SIGPIPE);
    posix_spawnattr_setsigdefault(&attr, &dflt);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
    char sh[] = "sh", dashC[] = "-c";
    char* argv[] = {sh, dashC, const_cast<char*>(command), nullptr};
    pid_t pid = -1;
    int rc = posix_spawn(&pid, "/bin/sh", nullptr, &attr, argv, environ);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
};

HostShellRunner g_hostRunner;

}  // namespace

int systemdump(const char* command, int seconds) {
  return g_hostRunner.RunLimited(command, seconds);
}

int system_run(const char* command) { return g_hostRunner.RunUnlimited(command); }

int file_exist(const char* path) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0) return 0;
  return S_ISREG(st.st_mode) ? 1 : 0;
}

int fileisexist(const char* path) {
  struct stat st;
  return (path != nullptr && stat(path, &st) == 0) ? 0 : -1;
}

int getfilesize(const char* path) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0) return -1;
  return st.st_size > INT_MAX ? INT_MAX : static_cast<int>(st.st_size);
}

namespace {

// Keeps fd when it is a regular file, back in blocking mode; otherwise closes it. fd or -1,
// with *why.
int KeepIfRegular(int fd, std::string* why) {
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) {
    *why = strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    *why = "not a regular file";
  } else if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0) {
    return fd;
  } else {
    *why = strerror(errno);
  }
  if (fd >= 0) close(fd);
  return -1;
}

}  // namespace

int OpenRegularFile(const char* path, int flags, std::string* why) {
  std::string ignored;
  if (why == nullptr) why = &ignored;
  if (path == nullptr) {
    *why = "no path";
    return -1;
  }
  // O_NONBLOCK: opening a FIFO must not wait for a writer; it is cleared again for the file.
  return KeepIfRegular(open(path, (flags & ~O_CREAT) | O_NONBLOCK | O_CLOEXEC | O_NOCTTY), why);
}

int CreateRegularFile(const char* path, std::string* why) {
  if (path == nullptr) {
    *why = "no path";
    return -1;
  }
  return KeepIfRegular(
      open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644), why);
}

bool NothingAt(const char* path) {
  struct stat st;
  return path != nullptr && lstat(path, &st) != 0 && errno == ENOENT;
}

bool ReadRegularFile(const char* path, size_t maxBytes, std::string* out, std::string* why) {
  out->clear();
  int fd = OpenRegularFile(path, O_RDONLY, why);
  if (fd < 0) return false;
  struct stat st;
  bool ok = false;
  if (fstat(fd, &st) != 0) {
    *why = strerror(errno);
  } else if (static_cast<uint64_t>(st.st_size) > maxBytes) {
    *why = "larger than " + std::to_string(maxBytes) + " bytes";
  } else {
    out->resize(static_cast<size_t>(st.st_size));
    size_t got = 0;
    while (got < out->size()) {
      ssize_t n = read(fd, &(*out)[got], out->size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    out->resize(got);  // a file that shrank meanwhile is read as far as it goes
    ok = true;
  }
  close(fd);
  return ok;
}

char* filetobufwithoutbuf(const char* path, int* len) {
  std::string text, why;
  if (!ReadRegularFile(path, kWholeFileMax, &text, &why)) return nullptr;
  char* buf = static_cast<char*>(malloc(text.size() + 1));
  if (buf == nullptr) return nullptr;
  memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  if (len != nullptr) *len = static_cast<int>(text.size());
  return buf;
}

int strfind_s(const char* text, const char* part) {
  if (text == nullptr || part == nullptr) return 0;
  return strstr(text, part) != nullptr ? 1 : 0;
}

int MakeDirs(const char* dir) {
  if (dir == nullptr || dir[0] == '\0') return -1;
  std::string path(dir);
  for (size_t i = 1; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      std::string part = path.substr(0, i);
      if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return -1;
    }
  }
  struct stat st;
  return (stat(dir, &st) == 0 && S_ISDIR(st.st_mode)) ? 0 : -1;
}
