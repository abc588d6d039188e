#include "platform/host/ftp/socket_transport.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/host/ftp/tls_conn.h"

namespace {

int64_t NowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int Remaining(int64_t deadlineMs) {
  int64_t left = deadlineMs - NowMs();
  if (left <= 0) return 0;
  return left > 1000000 ? 1000000 : static_cast<int>(left);
}

// Waits for events on fd until deadlineMs. 1 ready, 0 time-out, -1 error.
int WaitFor(int fd, short events, int64_t deadlineMs) {
  for (;;) {
    pollfd p{fd, events, 0};
    int r = poll(&p, 1, Remaining(deadlineMs));
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return -1;
    return r > 0 ? 1 : 0;
  }
}

std::string Errno(const char* what) { return std::string(what) + ": " + strerror(errno); }

int ConnectAddr(const sockaddr* sa, socklen_t len, int timeoutMs, std::string* err) {
  int fd = socket(sa->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *err = Errno("socket");
    return -1;
  }
  if (connect(fd, sa, len) == 0) return fd;
  if (errno != EINPROGRESS) {
    *err = Errno("connect");
    close(fd);
    return -1;
  }
  int w = WaitFor(fd, POLLOUT, NowMs() + timeoutMs);
  int soErr = 0;
  socklen_t soLen = sizeof(soErr);
  if (w <= 0) {
    *err = w == 0 ? "connect: timed out" : Errno("poll");
  } else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &soErr, &soLen) != 0 || soErr != 0) {
    *err = std::string("connect: ") + strerror(soErr != 0 ? soErr : errno);
  } else {
    return fd;
  }
  close(fd);
  return -1;
}

// A connected, non-blocking socket until SetBulkSend makes it blocking with a send time-out.
class SocketConn : public FtpConn {
 public:
  explicit SocketConn(int fd) : m_fd(fd) {}
  ~SocketConn() override { close(m_fd); }
  int id() const override { return m_fd; }

  int Send(const char* data, size_t len, int idleMs, std::string* err) override {
    return m_bulkIdleMs >= 0 ? SendBlocking(data, len, err) : SendPolled(data, len, idleMs, err);
  }

  bool SetBulkSend(int idleMs) override {
    int flags = fcntl(m_fd, F_GETFL);
    if (flags < 0 || fcntl(m_fd, F_SETFL, flags & ~O_NONBLOCK) != 0) return false;
    timeval tv{idleMs / 1000, (idleMs % 1000) * 1000};
    if (setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0) return false;
    if (!SetLinger(true)) return false;
    m_bulkIdleMs = idleMs;
    return true;
  }

  bool EndBulkSend() override { return SetLinger(false); }

  ssize_t Recv(char* buf, size_t cap, int timeoutMs, std::string* err) override {
    int64_t deadline = NowMs() + (timeoutMs > 0 ? timeoutMs : 0);
    for (;;) {
      ssize_t n = recv(m_fd, buf, cap, MSG_DONTWAIT);
      if (n >= 0) return n;
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        *err = Errno("recv");
        return -1;
      }
      int w = WaitFor(m_fd, POLLIN, deadline);
      if (w <= 0) {
        *err = w == 0 ? "receive: timed out" : Errno("poll");
        return -1;
      }
    }
  }

 private:
  // A zero linger time makes close() send a reset and discard the queued bytes; without it,
  // the kernel delivers them after close(), even after the process has died.
  bool SetLinger(bool abortive) {
    linger l{abortive ? 1 : 0, 0};
    return setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &l, sizeof(l)) == 0;
  }

  int SendPolled(const char* data, size_t len, int idleMs, std::string* err) {
    while (len > 0) {
      ssize_t n = send(m_fd, data, len, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        data += n;
        len -= static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        int w = WaitFor(m_fd, POLLOUT, NowMs() + idleMs);
        if (w > 0) continue;
        *err = w == 0 ? "send: timed out" : Errno("poll");
        return -1;
      }
      *err = n < 0 ? Errno("send") : "send: nothing sent";
      return -1;
    }
    return 0;
  }

  // One system call per block; SO_SNDTIMEO ends a send that makes no progress.
  int SendBlocking(const char* data, size_t len, std::string* err) {
    while (len > 0) {
      ssize_t n = send(m_fd, data, len, MSG_NOSIGNAL);
      if (n > 0) {
        data += n;
        len -= static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      *err = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? "send: timed out"
             : n < 0                                            ? Errno("send")
                                                                : "send: nothing sent";
      return -1;
    }
    return 0;
  }

  const int m_fd;
  int m_bulkIdleMs = -1;  // -1: still non-blocking
};

class SocketTransport : public FtpTransport {
 public:
  std::unique_ptr<FtpConn> Connect(const std::string& host, int port, int timeoutMs,
                                   std::string* err) override {
    if (port <= 0 || port > 65535) {
      *err = "bad port";
      return nullptr;
    }
    char service[8];
    snprintf(service, sizeof(service), "%d", port);
    addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    int r = getaddrinfo(host.c_str(), service, &hints, &list);
    if (r != 0) {
      *err = std::string("resolve: ") + gai_strerror(r);
      return nullptr;
    }
    int fd = -1;
    *err = "no address";
    for (addrinfo* a = list; a != nullptr && fd < 0; a = a->ai_next) {
      fd = ConnectAddr(a->ai_addr, a->ai_addrlen, timeoutMs, err);
    }
    freeaddrinfo(list);
    if (fd < 0) return nullptr;
    return std::unique_ptr<FtpConn>(new SocketConn(fd));
  }

  int ConnectToPeer(const FtpConn& ctrl, int port, int timeoutMs, std::unique_ptr<FtpConn>* out,
                    std::string* err) override {
    sockaddr_storage a;
    socklen_t len = sizeof(a);
    memset(&a, 0, sizeof(a));
    if (getpeername(ctrl.id(), reinterpret_cast<sockaddr*>(&a), &len) != 0) return kNoPeer;
    if (a.ss_family == AF_INET) {
      reinterpret_cast<sockaddr_in*>(&a)->sin_port = htons(static_cast<uint16_t>(port));
      len = sizeof(sockaddr_in);
    } else if (a.ss_family == AF_INET6) {
      reinterpret_cast<sockaddr_in6*>(&a)->sin6_port = htons(static_cast<uint16_t>(port));
      len = sizeof(sockaddr_in6);
    } else {
      *err = "unknown address family";
      return -1;
    }
    int fd = ConnectAddr(reinterpret_cast<sockaddr*>(&a), len, timeoutMs, err);
    if (fd < 0) return -1;
    out->reset(new SocketConn(fd));
    return 0;
  }

  std::unique_ptr<FtpConn> StartTls(std::unique_ptr<FtpConn> plain, const std::string& host,
                                    const FtpTlsPolicy& policy, const FtpConn* resumeFrom,
                                    int timeoutMs, std::string* err) override {
    return StartTlsClient(std::move(plain), host, policy, resumeFrom, timeoutMs, err);
  }
};

class MonotonicClock : public FtpClock {
 public:
  int64_t NowMs() override { return ::NowMs(); }
};

}  // namespace

std::unique_ptr<FtpTransport> NewSocketTransport() {
  return std::unique_ptr<FtpTransport>(new SocketTransport());
}

FtpClock* MonotonicFtpClock() {
  static MonotonicClock* clock = new MonotonicClock();
  return clock;
}
