#include "platform/host/ftp_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

int Remaining(int64_t deadlineMs) {
  int64_t left = deadlineMs - FtpNowMs();
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
  int w = WaitFor(fd, POLLOUT, FtpNowMs() + timeoutMs);
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

}  // namespace

int64_t FtpNowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int FtpConnectHost(const char* host, int port, int timeoutMs, std::string* err) {
  if (port <= 0 || port > 65535) {
    *err = "bad port";
    return -1;
  }
  char service[8];
  snprintf(service, sizeof(service), "%d", port);
  addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* list = nullptr;
  int r = getaddrinfo(host, service, &hints, &list);
  if (r != 0) {
    *err = std::string("resolve: ") + gai_strerror(r);
    return -1;
  }
  int fd = -1;
  *err = "no address";
  for (addrinfo* a = list; a != nullptr && fd < 0; a = a->ai_next) {
    fd = ConnectAddr(a->ai_addr, a->ai_addrlen, timeoutMs, err);
  }
  freeaddrinfo(list);
  return fd;
}

int FtpConnectPeer(const sockaddr_storage& addr, int port, int timeoutMs, std::string* err) {
  sockaddr_storage a = addr;
  socklen_t len;
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
  return ConnectAddr(reinterpret_cast<sockaddr*>(&a), len, timeoutMs, err);
}

bool FtpPeerAddress(int fd, sockaddr_storage* addr) {
  socklen_t len = sizeof(*addr);
  memset(addr, 0, sizeof(*addr));
  return getpeername(fd, reinterpret_cast<sockaddr*>(addr), &len) == 0;
}

int FtpSendAll(int fd, const char* data, size_t len, int idleMs, std::string* err) {
  while (len > 0) {
    ssize_t n = send(fd, data, len, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      len -= static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      int w = WaitFor(fd, POLLOUT, FtpNowMs() + idleMs);
      if (w > 0) continue;
      *err = w == 0 ? "send: timed out" : Errno("poll");
      return -1;
    }
    *err = n < 0 ? Errno("send") : "send: nothing sent";
    return -1;
  }
  return 0;
}

bool FtpMakeBlockingSender(int fd, int idleMs) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) return false;
  timeval tv{idleMs / 1000, (idleMs % 1000) * 1000};
  return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) == 0;
}

int FtpSendAllBlocking(int fd, const char* data, size_t len, std::string* err) {
  while (len > 0) {
    ssize_t n = send(fd, data, len, MSG_NOSIGNAL);
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

ssize_t FtpRecvSome(int fd, char* buf, size_t cap, int64_t deadlineMs, std::string* err) {
  for (;;) {
    ssize_t n = recv(fd, buf, cap, MSG_DONTWAIT);
    if (n >= 0) return n;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      *err = Errno("recv");
      return -1;
    }
    int w = WaitFor(fd, POLLIN, deadlineMs);
    if (w <= 0) {
      *err = w == 0 ? "receive: timed out" : Errno("poll");
      return -1;
    }
  }
}
