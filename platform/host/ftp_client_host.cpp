// The host FTP client: one session over POSIX sockets, passive data connections only.
//
// Time limits (FtpTimeLimits_t): each connect within connectMs, each control reply within
// replyMs of its command, one listing within listingMs, and FtpWriteDate fails when no byte
// moves for its timeout argument. No call can wait longer than these, whatever a server does.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "platform/ftpclient.h"
#include "platform/host/ftp_control.h"
#include "platform/host/ftp_listing.h"
#include "platform/host/ftp_socket.h"
#include "platform/log.h"

namespace {

constexpr int kDefaultPort = 21;
constexpr int kDefaultWriteSeconds = 10;
constexpr int kQuitMs = 2000;                          // waiting for the reply to QUIT
constexpr int64_t kMaxListingBytes = 64 * 1024 * 1024;  // a listing larger than this is refused
constexpr size_t kMaxLocalText = 1024;

// A text field of a record that need not be NUL-terminated.
std::string Field(const char* field, size_t cap) { return std::string(field, strnlen(field, cap)); }

// Server text is hostile: only printable ASCII goes into the log, at most 160 characters.
std::string Printable(const std::string& text) {
  std::string out;
  for (char c : text.substr(0, 160)) {
    unsigned char u = static_cast<unsigned char>(c);
    out.push_back(u >= 0x20 && u < 0x7f ? c : (c == '\n' ? '|' : '?'));
  }
  return out;
}

bool Is2xx(int code) { return code >= 200 && code < 300; }

// Size of a "213 1234" reply to SIZE; -1 unless it is exactly that.
int64_t ParseSizeReply(const std::string& text) {
  if (text.size() < 5 || text.size() > 22 || text.compare(0, 4, "213 ") != 0) return -1;
  int64_t size = 0;
  for (size_t i = 4; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return -1;
    size = size * 10 + (text[i] - '0');
  }
  return size;
}

std::vector<std::string> SplitPath(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string part = path.substr(start, end - start);
    if (!part.empty() && part != ".") parts.push_back(part);
    start = end + 1;
  }
  return parts;
}

CFtpClient* NewHostClient() { return new CFtpClient(); }
FtpClientFactory_f g_factory = NewHostClient;

}  // namespace

struct CFtpClient::Impl {
  FtpLogFn_f log = WriteDbgLog;
  FtpTimeLimits_t limits;

  // Set by FtpSetServerInfo / FtpSetLocalInfo.
  UserDefServerSet_t server{};
  std::string dir;
  std::string name;

  // The session.
  FtpControl ctrl;
  int dataFd = -1;
  bool transferOpen = false;  // a STOR/APPE waits for its transfer reply
  int writeIdleMs = -1;       // send time-out set on dataFd; -1: not yet (still non-blocking)
  int mlsd = -1;              // -1 not asked yet, 0 no, 1 the server offers MLSD
  bool epsvRefused = false;

  FtpClientData_t data;

  void Log(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  void CloseData();
  void CloseSession();
  int Step(const char* what, const std::string& command, FtpReply* reply);
  int ChangeDir();
  int OpenPassive();
  int RunListing(FtpListFormat fmt);
};

void CFtpClient::Impl::Log(int level, const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  if (log != nullptr) log(level, "FtpClient: %s\n", text);
}

void CFtpClient::Impl::CloseData() {
  if (dataFd >= 0) close(dataFd);
  dataFd = -1;
  data.dataFd = -1;
  transferOpen = false;
  writeIdleMs = -1;
}

void CFtpClient::Impl::CloseSession() {
  CloseData();
  ctrl.Close();
  data.ctrlFd = -1;
}

// Sends command and reads its final reply. Returns the code, or -1 after logging and closing
// the session when the control connection failed.
int CFtpClient::Impl::Step(const char* what, const std::string& command, FtpReply* reply) {
  std::string err;
  int code = ctrl.Command(command, reply, limits.replyMs, &err);
  if (code < 0) {
    Log(2, "%s: %s", what, err.c_str());
    CloseSession();
  }
  return code;
}

// Changes to server path + task dir. The whole path is tried first; when the server refuses
// it, the path is walked one directory at a time, creating each one that is missing.
int CFtpClient::Impl::ChangeDir() {
  std::string path = Field(server.path, sizeof(server.path));
  std::string full = path.empty() ? dir : path + "/" + dir;
  bool absolute = !full.empty() && full[0] == '/';
  std::vector<std::string> parts = SplitPath(full);
  if (parts.empty() && !absolute) return 0;  // stay in the login directory
  std::string joined = absolute ? "/" : "";
  for (size_t i = 0; i < parts.size(); ++i) joined += (i > 0 ? "/" : "") + parts[i];
  FtpReply reply;
  int code = Step("CWD", "CWD " + joined, &reply);
  if (code < 0) return -1;
  if (Is2xx(code)) return 0;
  if (absolute && !Is2xx(code = Step("CWD", "CWD /", &reply))) {
    if (code >= 0) Log(2, "CWD / refused: %s", Printable(reply.text).c_str());
    return -1;
  }
  for (const std::string& part : parts) {
    code = Step("CWD", "CWD " + part, &reply);
    if (code < 0) return -1;
    if (Is2xx(code)) continue;
    code = Step("MKD", "MKD " + part, &reply);
    if (code < 0) return -1;
    // A refused MKD may mean another client made the directory meanwhile: the CWD decides.
    if (!Is2xx(code)) Log(0, "MKD %s: %s", part.c_str(), Printable(reply.text).c_str());
    code = Step("CWD", "CWD " + part, &reply);
    if (code < 0) return -1;
    if (!Is2xx(code)) {
      Log(2, "cannot enter remote directory %s: %s", part.c_str(), Printable(reply.text).c_str());
      return -1;
    }
  }
  return 0;
}

// Opens a passive data connection: EPSV, or PASV when the server refuses EPSV. The port comes
// from the reply; the address is always the control connection's peer, so that a server (or
// whoever tampers with its replies) cannot direct the client to a third host.
int CFtpClient::Impl::OpenPassive() {
  FtpReply reply;
  int port = -1;
  if (!epsvRefused) {
    int code = Step("EPSV", "EPSV", &reply);
    if (code < 0) return -1;
    if (code == 229) {
      port = ParseEpsvPort(reply.text);
      if (port < 0) Log(0, "unreadable EPSV reply: %s", Printable(reply.text).c_str());
    } else if (code >= 500) {
      epsvRefused = true;
    }
  }
  if (port < 0) {
    int code = Step("PASV", "PASV", &reply);
    if (code < 0) return -1;
    port = code == 227 ? ParsePasvPort(reply.text) : -1;
    if (port < 0) {
      Log(2, "no passive port: %s", Printable(reply.text).c_str());
      return -1;
    }
  }
  sockaddr_storage peer;
  if (!FtpPeerAddress(ctrl.fd(), &peer)) {
    Log(2, "no peer address for the data connection");
    return -1;
  }
  std::string err;
  int fd = FtpConnectPeer(peer, port, limits.connectMs, &err);
  if (fd < 0) Log(2, "data connection to port %d: %s", port, err.c_str());
  return fd;
}

// Runs one listing command into the record. 0 on success; the refusing reply's code when the
// server refused the command; -1 on any other failure.
int CFtpClient::Impl::RunListing(FtpListFormat fmt) {
  const char* command = fmt == FtpListFormat::kMlsd ? "MLSD" : "LIST";
  int fd = OpenPassive();
  if (fd < 0) return -1;
  std::string err;
  FtpReply reply;
  int code = -1;
  if (ctrl.Send(command, limits.replyMs, &err) == 0) code = ctrl.ReadReply(&reply, limits.replyMs, &err);
  if (code < 0) {
    close(fd);
    Log(2, "%s: %s", command, err.c_str());
    CloseSession();
    return -1;
  }
  if (code >= 300) {
    close(fd);
    Log(2, "%s refused: %s", command, Printable(reply.text).c_str());
    return code;
  }
  data.entryCount = 0;
  FtpListingParser parser(fmt, name.c_str(), data.entries, kFtpListCapacity);
  int64_t deadline = FtpNowMs() + limits.listingMs;
  int64_t total = 0;
  char buf[16384];
  ssize_t n;
  while ((n = FtpRecvSome(fd, buf, sizeof(buf), deadline, &err)) > 0) {
    total += n;
    if (total > kMaxListingBytes) {
      err = "listing too large";
      n = -1;
      break;
    }
    parser.Feed(buf, static_cast<size_t>(n));
  }
  close(fd);
  if (n < 0) {
    Log(2, "%s data: %s", command, err.c_str());
    CloseSession();
    return -1;
  }
  parser.Finish();
  if (code < 200) {  // the preliminary reply came first: now the transfer reply
    code = ctrl.ReadReply(&reply, limits.replyMs, &err);
    if (code < 0) {
      Log(2, "%s end: %s", command, err.c_str());
      CloseSession();
      return -1;
    }
  }
  if (!Is2xx(code)) {
    Log(2, "%s failed: %s", command, Printable(reply.text).c_str());
    return -1;
  }
  if (parser.wantedWithoutSize()) {
    // Without its size the file would be stored anew on every pass: ask the server.
    int64_t size = -1;
    code = Step("SIZE", "SIZE " + name, &reply);
    if (code < 0) return -1;
    if (code == 213) size = ParseSizeReply(reply.text);
    if (size >= 0) {
      parser.KeepWanted(size);
    } else {
      Log(2, "size of %s unknown: %s", name.c_str(), Printable(reply.text).c_str());
    }
  }
  data.entryCount = parser.count();
  Log(0, "%s: %d files kept, %d unusable names skipped, %d beyond capacity, %s %s", command,
      parser.count(), parser.skipped(), parser.dropped(), name.c_str(),
      parser.haveWanted() ? "listed" : "not listed");
  return 0;
}

CFtpClient::CFtpClient() : m_pImpl(new Impl) {
  memset(&m_pImpl->data, 0, sizeof(m_pImpl->data));
  m_pImpl->data.ctrlFd = -1;
  m_pImpl->data.dataFd = -1;
}

CFtpClient::~CFtpClient() {
  m_pImpl->CloseSession();
  delete m_pImpl;
}

int CFtpClient::Init(FtpLogFn_f log) {
  m_pImpl->CloseSession();
  m_pImpl->log = log;
  return 0;
}

void CFtpClient::FtpSetTimeLimits(const FtpTimeLimits_t& limits) { m_pImpl->limits = limits; }

int CFtpClient::FtpSetServerInfo(UserDefServerSet_t* server) {
  if (server == nullptr) return -1;
  memcpy(&m_pImpl->server, server, sizeof(*server));
  return 0;
}

int CFtpClient::FtpSetLocalInfo(const char* dir, const char* name) {
  m_pImpl->dir = dir != nullptr ? std::string(dir, strnlen(dir, kMaxLocalText)) : "";
  m_pImpl->name = name != nullptr ? std::string(name, strnlen(name, kMaxLocalText)) : "";
  return 0;
}

int CFtpClient::FtpStart() {
  Impl& s = *m_pImpl;
  s.CloseSession();
  s.mlsd = -1;
  s.epsvRefused = false;
  s.data.entryCount = 0;
  std::string host = Field(s.server.host, sizeof(s.server.host));
  int port = s.server.port != 0 ? s.server.port : kDefaultPort;
  std::string err;
  int fd = FtpConnectHost(host.c_str(), port, s.limits.connectMs, &err);
  if (fd < 0) {
    s.Log(2, "connect to %s port %d: %s", Printable(host).c_str(), port, err.c_str());
    return -1;
  }
  s.ctrl.Attach(fd);
  s.data.ctrlFd = fd;

  FtpReply reply;
  int code;
  int64_t deadline = FtpNowMs() + s.limits.replyMs;
  do {  // a "120 ready in n minutes" may come before the greeting
    int left = static_cast<int>(deadline - FtpNowMs());
    code = left > 0 ? s.ctrl.ReadReply(&reply, left, &err) : -1;
    if (left <= 0) err = "timed out";
  } while (code >= 100 && code < 200);
  if (code != 220) {
    s.Log(2, "greeting: %s", code < 0 ? err.c_str() : Printable(reply.text).c_str());
    s.CloseSession();
    return -1;
  }
  code = s.Step("USER", "USER " + Field(s.server.user, sizeof(s.server.user)), &reply);
  if (code == 331) {
    code = s.Step("PASS", "PASS " + Field(s.server.password, sizeof(s.server.password)), &reply);
  }
  if (code != 230 && code != 202) {
    if (code >= 0) s.Log(2, "login refused: %s", Printable(reply.text).c_str());
    s.CloseSession();
    return -1;
  }
  code = s.Step("TYPE", "TYPE I", &reply);
  if (!Is2xx(code)) {
    if (code >= 0) s.Log(2, "TYPE I refused: %s", Printable(reply.text).c_str());
    s.CloseSession();
    return -1;
  }
  if (s.ChangeDir() != 0) {
    s.CloseSession();
    return -1;
  }
  return 0;
}

// This client never answers -2 ("count the task as done"): no listing failure proves that the
// server holds the file. A permanent refusal to list (550) in the directory the session has
// just entered is taken as an empty listing, so the engine sends the whole file; a server that
// then refuses the store too makes the engine give the task up and announce it, rather than
// report an upload that never happened. Every other failure (time-out, lost connection, 4xx,
// other refusals) is -1, so the task is retried.
int CFtpClient::FtpGetServerDirFile() {
  Impl& s = *m_pImpl;
  s.data.entryCount = 0;
  if (s.ctrl.fd() < 0) {
    s.Log(2, "listing without a session");
    return -1;
  }
  s.CloseData();
  FtpReply reply;
  if (s.mlsd < 0) {
    int code = s.Step("FEAT", "FEAT", &reply);
    if (code < 0) return -1;
    s.mlsd = code == 211 && FeatOffersMlsd(reply.text) ? 1 : 0;
  }
  int r = -1;
  if (s.mlsd == 1) {
    r = s.RunListing(FtpListFormat::kMlsd);
    if (r == 0 || r < 300) return r == 0 ? 0 : -1;
  }
  r = s.RunListing(FtpListFormat::kList);
  if (r == 0) return 0;
  if (r == 550) {
    s.Log(2, "directory of %s cannot be listed (550): sending as if empty", s.name.c_str());
    s.data.entryCount = 0;
    return 0;
  }
  return -1;
}

FtpClientData_t* CFtpClient::FtpGetClientData() { return &m_pImpl->data; }

int CFtpClient::FtpCreateDateSockFd(int mode) {
  Impl& s = *m_pImpl;
  if (s.ctrl.fd() < 0) {
    s.Log(2, "data connection without a session");
    return -1;
  }
  if (mode != 0 && mode != 1) {
    s.Log(2, "unknown transfer mode %d", mode);
    return -1;
  }
  if (!IsUsableFtpName(s.name.data(), s.name.size())) {
    s.Log(2, "unusable remote file name");
    return -1;
  }
  if (s.dataFd >= 0) {  // one data connection per session: FtpClose ends the session too
    s.Log(2, "a transfer is already open; the session ends with it");
    FtpClose();
    return -1;
  }
  int fd = s.OpenPassive();
  if (fd < 0) return -1;
  std::string command = (mode == 0 ? "STOR " : "APPE ") + s.name;
  std::string err;
  FtpReply reply;
  int code = -1;
  if (s.ctrl.Send(command, s.limits.replyMs, &err) == 0) code = s.ctrl.ReadReply(&reply, s.limits.replyMs, &err);
  if (code != 125 && code != 150) {
    close(fd);
    if (code < 0) {
      s.Log(2, "%s: %s", command.c_str(), err.c_str());
      s.CloseSession();
    } else {
      s.Log(2, "%s refused: %s", command.c_str(), Printable(reply.text).c_str());
    }
    return -1;
  }
  s.dataFd = fd;
  s.data.dataFd = fd;
  s.transferOpen = true;
  return fd;
}

int CFtpClient::FtpWriteDate(int fd, const char* buf, int len, int timeout) {
  Impl& s = *m_pImpl;
  if (fd < 0 || fd != s.dataFd || buf == nullptr || len < 0) {
    s.Log(2, "write refused: descriptor %d is not the open data connection", fd);
    return -1;
  }
  int idleMs = (timeout > 0 ? timeout : kDefaultWriteSeconds) * 1000;
  std::string err;
  if (idleMs != s.writeIdleMs) {
    if (!FtpMakeBlockingSender(fd, idleMs)) {
      s.Log(2, "cannot set the write time-out");
      return -1;
    }
    s.writeIdleMs = idleMs;
  }
  if (FtpSendAllBlocking(fd, buf, static_cast<size_t>(len), &err) != 0) {
    s.Log(2, "data write: %s", err.c_str());
    return -1;
  }
  return len;
}

// Returns -1 when a transfer was open and the server did not confirm it with a 2xx reply;
// the session is closed in every case.
int CFtpClient::FtpClose() {
  Impl& s = *m_pImpl;
  int rc = 0;
  bool waitReply = s.transferOpen;
  s.CloseData();  // end of file for the server
  std::string err;
  FtpReply reply;
  if (waitReply && s.ctrl.fd() >= 0) {
    int code = s.ctrl.ReadReply(&reply, s.limits.replyMs, &err);
    if (!Is2xx(code)) {
      s.Log(2, "transfer of %s not confirmed: %s", s.name.c_str(),
            code < 0 ? err.c_str() : Printable(reply.text).c_str());
      rc = -1;
      if (code < 0) s.CloseSession();
    }
  } else if (waitReply) {
    rc = -1;
  }
  if (s.ctrl.fd() >= 0) {
    int quitMs = s.limits.replyMs < kQuitMs ? s.limits.replyMs : kQuitMs;
    (void)s.ctrl.Command("QUIT", &reply, quitMs, &err);
  }
  s.CloseSession();
  return rc;
}

CFtpClient* NewFtpClient() { return g_factory(); }

FtpClientFactory_f SetFtpClientFactoryForTest(FtpClientFactory_f factory) {
  FtpClientFactory_f old = g_factory;
  g_factory = factory != nullptr ? factory : NewHostClient;
  return old;
}
