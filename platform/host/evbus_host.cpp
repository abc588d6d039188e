// The host event bus. Registry: one file per receiver in $VELMAR_ROOT/run/evbus/, named by the
// receiver's name with "/" replaced by "_", holding "<16 hex digits mask> <socket path>\n".
// A receiver's name is a device path, so its file always begins with "_"; files beginning with
// "." (the registration being written) are never receivers.
// Wire format of one event, one datagram: "EVB1", event (u32 LE), payload length (u32 LE),
// payload (at most 8192 bytes). Socket paths lie under the sandbox root.
#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <new>
#include <string>

#include "platform/byteorder.h"
#include "platform/clock.h"
#include "platform/evbus.h"
#include "platform/fileutil.h"
#include "platform/host/atomic_file.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/thread.h"

namespace {

const char kMagic[4] = {'E', 'V', 'B', '1'};
constexpr size_t kRecvBufferSize = 16384;
constexpr size_t kEntryMaxBytes = 1024;  // a registry entry is one line of some 100 bytes
constexpr size_t kTrackedEntries = 64;   // unusable entries remembered for the log
constexpr int64_t kFullWaitMs = 2000;    // how long a full receiver may hold up a sender

std::string RegistryDir() { return RootedPath("/run/evbus"); }

std::string RegistryName(const char* name) {
  std::string file(name);
  for (char& c : file) {
    if (c == '/') c = '_';
  }
  return file;
}

std::string RegistryFile(const char* name) { return RegistryDir() + "/" + RegistryName(name); }

// Fills addr with the rooted socket path. False when it does not fit sun_path.
bool SocketAddress(const char* path, sockaddr_un* addr, socklen_t* len) {
  std::string full = RootedPath(path);
  memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  if (full.empty() || full.size() >= sizeof(addr->sun_path)) return false;
  memcpy(addr->sun_path, full.c_str(), full.size());
  *len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + full.size() + 1);
  return true;
}

struct Listener {
  int fd = -1;
  pthread_t tid{};
  std::atomic<bool> stop{false};
  UnixDomainHandler_f handler = nullptr;
  void* ctx = nullptr;
  std::string path;
};

void* ListenLoop(void* p) {
  Listener* l = static_cast<Listener*>(p);
  char* buf = new char[kRecvBufferSize];
  while (!l->stop.load()) {
    pollfd pfd{l->fd, POLLIN, 0};
    int r = poll(&pfd, 1, 100);
    if (r <= 0) continue;
    sockaddr_un from;
    socklen_t fromLen = sizeof(from);
    ssize_t n = recvfrom(l->fd, buf, kRecvBufferSize, MSG_TRUNC, reinterpret_cast<sockaddr*>(&from),
                         &fromLen);
    if (n < 0) continue;
    if (static_cast<size_t>(n) > kRecvBufferSize) {
      WriteDbgLog(0, "evbus: dropped a datagram of %zd bytes on %s\n", n, l->path.c_str());
      continue;
    }
    unsigned int len = fromLen;
    l->handler(l->fd, &from, &len, buf, static_cast<int>(n), l->ctx);
  }
  delete[] buf;
  return nullptr;
}

class HostPublisher {
 public:
  int Distribute(EVENT_E event, int len, const void* data) {
    unsigned char datagram[kEventHeaderSize + kEventPayloadMax];
    int size = EncodeEvent(event, data, len, datagram, sizeof(datagram));
    if (size < 0 || static_cast<unsigned>(event) > 63) return -1;
    DIR* dir = opendir(RegistryDir().c_str());
    if (dir == nullptr) return 0;
    int reached = 0;
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] == '.') continue;
      if (SendTo(RegistryDir() + "/" + entry->d_name, event, datagram, size)) ++reached;
    }
    closedir(dir);
    return reached;
  }

  int DistributeTo(const char* name, EVENT_E event, int len, const void* data) {
    unsigned char datagram[kEventHeaderSize + kEventPayloadMax];
    int size = EncodeEvent(event, data, len, datagram, sizeof(datagram));
    if (size < 0 || static_cast<unsigned>(event) > 63 || name == nullptr) return -1;
    return SendTo(RegistryFile(name), event, datagram, size) ? 1 : 0;
  }

 private:
  // Sends to the receiver registered in file when its mask has the event's bit.
  bool SendTo(const std::string& file, EVENT_E event, const unsigned char* datagram, int size) {
    std::string line, why;
    uint64_t mask = 0;
    if (!ReadRegularFile(file.c_str(), kEntryMaxBytes, &line, &why)) {
      Skip(file, why);
      return false;
    }
    if (!ParseEntry(&line, &mask)) {
      Skip(file, "not one line \"<16 hex digits> <socket path>\"");
      return false;
    }
    Skip(file, "");
    if ((mask & (1ULL << static_cast<unsigned>(event))) == 0) return false;
    sockaddr_un addr;
    socklen_t addrLen;
    if (!SocketAddress(line.c_str(), &addr, &addrLen)) return false;
    return SendWaiting(addr, addrLen, datagram, size);
  }

  // A receiver whose queue is full gets up to kFullWaitMs to make room, so that a burst of
  // requests is slowed down instead of dropped; one that is gone (nobody bound to its path) is
  // skipped at once. Connected, the socket reports room in the receiver's queue to poll.
  static bool SendWaiting(const sockaddr_un& addr, socklen_t addrLen, const unsigned char* datagram,
                          int size) {
    int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) return false;
    bool sent = false;
    if (connect(sock, reinterpret_cast<const sockaddr*>(&addr), addrLen) == 0) {
      const int64_t start = msecdiff(0);
      for (;;) {
        ssize_t n = send(sock, datagram, static_cast<size_t>(size), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
          sent = n == size;
          break;
        }
        int64_t left = kFullWaitMs - msecdiff(static_cast<uint64_t>(start));
        if (left <= 0) break;
        pollfd pfd{sock, POLLOUT, 0};
        poll(&pfd, 1, static_cast<int>(left));
      }
    }
    close(sock);
    return sent;
  }

  // Reads "<16 hex digits> <path>\n" and nothing else; leaves the path in *line.
  static bool ParseEntry(std::string* line, uint64_t* mask) {
    std::string& l = *line;
    if (l.size() < 19 || l[16] != ' ' || l.find('\n') != l.size() - 1 ||
        l.find('\0') != std::string::npos) {
      return false;
    }
    for (size_t i = 0; i < 16; ++i) {
      int digit = isdigit(static_cast<unsigned char>(l[i])) ? l[i] - '0'
                  : (l[i] >= 'a' && l[i] <= 'f')            ? l[i] - 'a' + 10
                                                            : -1;
      if (digit < 0) return false;
      *mask = (*mask << 4) | static_cast<uint64_t>(digit);
    }
    l = l.substr(17, l.find('\n') - 17);  // the socket path may hold spaces
    return true;
  }

  // Logs an unusable entry once while it stays unusable for the same reason (why empty: the
  // entry is usable). At most kTrackedEntries entries are remembered, so the log stays bounded
  // whatever lands in the directory.
  void Skip(const std::string& file, const std::string& why) {
    CAutoLock guard(&m_lock);
    auto at = m_skipped.find(file);
    if (why.empty()) {
      if (at != m_skipped.end()) m_skipped.erase(at);
      return;
    }
    if (at != m_skipped.end() && at->second == why) return;
    if (at == m_skipped.end() && m_skipped.size() >= kTrackedEntries) return;
    m_skipped[file] = why;
    WriteDbgLog(2, "evbus: receiver entry %.300s skipped: %s\n", file.c_str(), why.c_str());
  }

  CLock m_lock;
  std::map<std::string, std::string> m_skipped GUARDED_BY(m_lock);  // entry file, why
};

HostPublisher g_hostPublisher;

}  // namespace

int RegisterEventReciever(const char* name, int64_t mask) {
  if (name == nullptr || name[0] != '/' || strchr(name, '\n') != nullptr) return -1;
  if (MakeDirs(RegistryDir().c_str()) != 0) return -1;
  char line[600];
  int n = snprintf(line, sizeof(line), "%016" PRIx64 " %s\n", static_cast<uint64_t>(mask), name);
  if (n < 0 || static_cast<size_t>(n) >= sizeof(line)) return -1;
  // The temporary file has a hidden name, which no publisher takes for a receiver.
  return ReplaceFileAtomically(RegistryDir() + "/" + RegistryName(name), line,
                               static_cast<size_t>(n));
}

int UnregisterEventReciever(const char* name) {
  if (name == nullptr || name[0] == '\0') return -1;
  return unlink(RegistryFile(name).c_str()) == 0 ? 0 : -1;
}

void* StartUnixDomainListen(const char* path, UnixDomainHandler_f handler, void* ctx) {
  if (path == nullptr || handler == nullptr) return nullptr;
  sockaddr_un addr;
  socklen_t addrLen;
  if (!SocketAddress(path, &addr, &addrLen)) {
    WriteDbgLog(2, "evbus: socket path too long: %s\n", RootedPath(path).c_str());
    return nullptr;
  }
  std::string full = addr.sun_path;
  MakeDirs(full.substr(0, full.rfind('/')).c_str());
  unlink(full.c_str());  // a stale socket of an earlier run
  Listener* l = new (std::nothrow) Listener();
  if (l == nullptr) return nullptr;
  l->fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (l->fd < 0 || bind(l->fd, reinterpret_cast<sockaddr*>(&addr), addrLen) != 0) {
    WriteDbgLog(2, "evbus: cannot listen on %s: %s\n", full.c_str(), strerror(errno));
    if (l->fd >= 0) close(l->fd);
    delete l;
    return nullptr;
  }
  l->handler = handler;
  l->ctx = ctx;
  l->path = full;
  if (pthread_create(&l->tid, nullptr, ListenLoop, l) != 0) {
    close(l->fd);
    unlink(full.c_str());
    delete l;
    return nullptr;
  }
  pthread_setname_np(l->tid, "evbus listen");
  return l;
}

int StopUnixDomainListen(void* handle) {
  if (handle == nullptr) return -1;
  Listener* l = static_cast<Listener*>(handle);
  l->stop.store(true);
  pthread_join(l->tid, nullptr);
  close(l->fd);
  unlink(l->path.c_str());
  delete l;
  return 0;
}

int EncodeEvent(EVENT_E event, const void* data, int len, unsigned char* out, size_t cap) {
  if (len < 0 || len > kEventPayloadMax || (len > 0 && data == nullptr)) return -1;
  size_t size = static_cast<size_t>(kEventHeaderSize + len);
  if (out == nullptr || cap < size) return -1;
  memcpy(out, kMagic, 4);
  StoreLE32(out + 4, static_cast<uint32_t>(event));
  StoreLE32(out + 8, static_cast<uint32_t>(len));
  if (len > 0) memcpy(out + kEventHeaderSize, data, static_cast<size_t>(len));
  return static_cast<int>(size);
}

int ParseRecvEvent(const unsigned char* msg, int len, EVENT_E* event, int* /*reserved*/,
                   void* payload) {
  if (msg == nullptr || event == nullptr || payload == nullptr) return -1;
  if (len < kEventHeaderSize || memcmp(msg, kMagic, 4) != 0) return -1;
  uint32_t payloadLen = LoadLE32(msg + 8);
  if (payloadLen > static_cast<uint32_t>(kEventPayloadMax) ||
      payloadLen != static_cast<uint32_t>(len - kEventHeaderSize)) {
    return -1;
  }
  *event = static_cast<EVENT_E>(LoadLE32(msg + 4));
  memcpy(payload, msg + kEventHeaderSize, payloadLen);
  return static_cast<int>(payloadLen);
}

int DistributeEvent(EVENT_E event, int len, void* data) {
  return g_hostPublisher.Distribute(event, len, data);
}

int DistributeEventTo(const char* name, EVENT_E event, int len, void* data) {
  return g_hostPublisher.DistributeTo(name, event, len, data);
}
