#include "platform/host/ftp/session.h"

#include <errno.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/host/atomic_file.h"
#include "platform/log.h"

namespace {

constexpr int kDefaultPort = 21;
constexpr int kDefaultWriteSeconds = 10;
constexpr int kQuitMs = 2000;                           // waiting for the reply to QUIT
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

}  // namespace

FtpSession::FtpSession(std::unique_ptr<FtpTransport> transport, FtpClock* clock)
    : m_transport(std::move(transport)), m_clock(clock), m_log(WriteDbgLog), m_ctrl(clock) {
  memset(&m_data, 0, sizeof(m_data));
  m_data.ctrlFd = -1;
  m_data.dataFd = -1;
}

FtpSession::~FtpSession() { CloseSession(); }

void FtpSession::Log(int level, const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  if (m_log != nullptr) m_log(level, "FtpClient: %s\n", text);
}

void FtpSession::CloseData() {
  m_dataConn.reset();
  m_data.dataFd = -1;
  m_transferOpen = false;
  m_sendFailed = false;
  m_writeIdleMs = -1;
}

void FtpSession::CloseSession() {
  CloseData();
  m_ctrl.Close();
  m_data.ctrlFd = -1;
}

// Sends command and reads its final reply. Returns the code, or -1 after logging and closing
// the session when the control connection failed.
int FtpSession::Step(const char* what, const std::string& command, FtpReply* reply) {
  std::string err;
  int code = m_ctrl.Command(command, reply, m_limits.replyMs, &err);
  if (code < 0) {
    Log(2, "%s: %s", what, err.c_str());
    CloseSession();
  }
  return code;
}

// Changes to server path + task dir. The whole path is tried first; when the server refuses
// it, the path is walked one directory at a time, creating each one that is missing.
int FtpSession::ChangeDir() {
  std::string path = Field(m_server.path, sizeof(m_server.path));
  std::string full = path.empty() ? m_dir : path + "/" + m_dir;
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
std::unique_ptr<FtpConn> FtpSession::OpenPassive() {
  FtpReply reply;
  int port = -1;
  if (!m_epsvRefused) {
    int code = Step("EPSV", "EPSV", &reply);
    if (code < 0) return nullptr;
    if (code == 229) {
      port = ParseEpsvPort(reply.text);
      if (port < 0) Log(0, "unreadable EPSV reply: %s", Printable(reply.text).c_str());
    } else if (code >= 500) {
      m_epsvRefused = true;
    }
  }
  if (port < 0) {
    int code = Step("PASV", "PASV", &reply);
    if (code < 0) return nullptr;
    port = code == 227 ? ParsePasvPort(reply.text) : -1;
    if (port < 0) {
      Log(2, "no passive port: %s", Printable(reply.text).c_str());
      return nullptr;
    }
  }
  std::unique_ptr<FtpConn> conn;
  std::string err;
  int r = m_transport->ConnectToPeer(*m_ctrl.conn(), port, m_limits.connectMs, &conn, &err);
  if (r == FtpTransport::kNoPeer) {
    Log(2, "no peer address for the data connection");
  } else if (r != 0) {
    Log(2, "data connection to port %d: %s", port, err.c_str());
  }
  return r == 0 ? std::move(conn) : nullptr;
}

// Turns the control connection to TLS ("AUTH TLS"), before anything else is sent. 0, or -1
// after one log line naming the reason, the session then closed: a server that refuses TLS
// is never spoken to in clear.
int FtpSession::SecureControl(const std::string& host) {
  FtpReply reply;
  int code = Step("AUTH", "AUTH TLS", &reply);
  if (code < 0) return -1;
  if (code != 234) {
    Log(2, "TLS with %s refused: server answered AUTH TLS with %s", Printable(host).c_str(),
        Printable(reply.text).c_str());
    CloseSession();
    return -1;
  }
  std::string err;
  std::unique_ptr<FtpConn> conn =
      m_transport->StartTls(m_ctrl.Detach(), host, m_tls, nullptr, m_limits.connectMs, &err);
  if (conn == nullptr) {
    Log(2, "TLS with %s refused: %s", Printable(host).c_str(), err.c_str());
    CloseSession();
    return -1;
  }
  m_data.ctrlFd = conn->id();
  m_ctrl.Attach(std::move(conn));
  return 0;
}

// Turns a data connection whose transfer the server has accepted to TLS when the session
// speaks TLS. False after a log line, *conn then closed.
bool FtpSession::SecureData(std::unique_ptr<FtpConn>* conn) {
  if (m_tls.mode != FtpTlsPolicy::kRequire) return true;
  std::string err;
  std::string host = Field(m_server.host, sizeof(m_server.host));
  *conn =
      m_transport->StartTls(std::move(*conn), host, m_tls, m_ctrl.conn(), m_limits.connectMs, &err);
  if (*conn == nullptr) Log(2, "TLS on the data connection refused: %s", err.c_str());
  return *conn != nullptr;
}

int FtpSession::StartTransfer(const std::string& command, std::unique_ptr<FtpConn>* conn) {
  *conn = OpenPassive();
  if (*conn == nullptr) return -1;
  std::string err;
  FtpReply reply;
  int code = -1;
  if (m_ctrl.Send(command, m_limits.replyMs, &err) == 0) {
    code = m_ctrl.ReadReply(&reply, m_limits.replyMs, &err);
  }
  if (code != 125 && code != 150) {
    conn->reset();
    if (code < 0) {
      Log(2, "%s: %s", command.c_str(), err.c_str());
      CloseSession();
    } else {
      Log(2, "%s refused: %s", command.c_str(), Printable(reply.text).c_str());
    }
    return -1;
  }
  return SecureData(conn) ? 0 : kTransferNotSecured;
}

int64_t FtpSession::ReceiveAll(FtpConn* conn, int64_t deadline, int64_t maxBytes,
                               const std::function<bool(const char*, size_t, std::string*)>& take,
                               std::string* err) {
  int64_t total = 0;
  char buf[16384];
  for (;;) {
    int64_t left = deadline - m_clock->NowMs();
    ssize_t n = conn->Recv(buf, sizeof(buf), left > 0 ? static_cast<int>(left) : 0, err);
    if (n == 0) return total;
    if (n < 0) return -1;
    total += n;
    if (total > maxBytes) {
      *err = "more than " + std::to_string(maxBytes) + " bytes";
      return -1;
    }
    if (!take(buf, static_cast<size_t>(n), err)) return -1;
  }
}

// Runs one listing command into the record. 0 on success; the refusing reply's code when the
// server refused the command; -1 on any other failure.
int FtpSession::RunListing(FtpListFormat fmt) {
  const char* command = fmt == FtpListFormat::kMlsd ? "MLSD" : "LIST";
  std::unique_ptr<FtpConn> conn = OpenPassive();
  if (conn == nullptr) return -1;
  std::string err;
  FtpReply reply;
  int code = -1;
  if (m_ctrl.Send(command, m_limits.replyMs, &err) == 0) {
    code = m_ctrl.ReadReply(&reply, m_limits.replyMs, &err);
  }
  if (code < 0) {
    conn.reset();
    Log(2, "%s: %s", command, err.c_str());
    CloseSession();
    return -1;
  }
  if (code >= 300) {
    conn.reset();
    Log(2, "%s refused: %s", command, Printable(reply.text).c_str());
    return code;
  }
  if (!SecureData(&conn)) {
    CloseSession();
    return -1;
  }
  m_data.entryCount = 0;
  FtpListingParser parser(fmt, m_name.c_str(), m_data.entries, kFtpListCapacity);
  int64_t n = ReceiveAll(
      conn.get(), m_clock->NowMs() + m_limits.listingMs, kMaxListingBytes,
      [&parser](const char* buf, size_t len, std::string*) {
        parser.Feed(buf, len);
        return true;
      },
      &err);
  conn.reset();
  if (n < 0) {
    Log(2, "%s data: %s", command, err.c_str());
    CloseSession();
    return -1;
  }
  parser.Finish();
  if (code < 200) {  // the preliminary reply came first: now the transfer reply
    code = m_ctrl.ReadReply(&reply, m_limits.replyMs, &err);
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
    int64_t size = GetFileSize();
    if (size == -2) return -1;
    parser.KeepWanted(size);  // an unknown size keeps nothing
  }
  m_data.entryCount = parser.count();
  Log(0, "%s: %d files kept, %d unusable names skipped, %d beyond capacity, %s %s", command,
      parser.count(), parser.skipped(), parser.dropped(), m_name.c_str(),
      parser.haveWanted() ? "listed" : "not listed");
  return 0;
}

int FtpSession::Init(FtpLogFn_f log) {
  CloseSession();
  m_log = log;
  return 0;
}

int FtpSession::SetServerInfo(const UserDefServerSet_t* server) {
  if (server == nullptr) return -1;
  memcpy(&m_server, server, sizeof(*server));
  return 0;
}

int FtpSession::SetLocalInfo(const char* dir, const char* name) {
  m_dir = dir != nullptr ? std::string(dir, strnlen(dir, kMaxLocalText)) : "";
  m_name = name != nullptr ? std::string(name, strnlen(name, kMaxLocalText)) : "";
  return 0;
}

int FtpSession::Start() {
  CloseSession();
  m_mlsd = -1;
  m_epsvRefused = false;
  m_data.entryCount = 0;
  std::string host = Field(m_server.host, sizeof(m_server.host));
  int port = m_server.port != 0 ? m_server.port : kDefaultPort;
  m_tls = LookupFtpTlsPolicy(host);
  // Refused without a line of its own: the policy logged why once, not once per attempt.
  if (m_tls.mode == FtpTlsPolicy::kBroken) return -1;
  std::string err;
  std::unique_ptr<FtpConn> conn = m_transport->Connect(host, port, m_limits.connectMs, &err);
  if (conn == nullptr) {
    Log(2, "connect to %s port %d: %s", Printable(host).c_str(), port, err.c_str());
    return -1;
  }
  m_data.ctrlFd = conn->id();
  m_ctrl.Attach(std::move(conn));

  FtpReply reply;
  int code;
  int64_t deadline = m_clock->NowMs() + m_limits.replyMs;
  do {  // a "120 ready in n minutes" may come before the greeting
    int64_t left = deadline - m_clock->NowMs();
    code = left > 0 ? m_ctrl.ReadReply(&reply, static_cast<int>(left), &err) : -1;
    if (left <= 0) err = "timed out";
  } while (code >= 100 && code < 200);
  if (code != 220) {
    Log(2, "greeting: %s", code < 0 ? err.c_str() : Printable(reply.text).c_str());
    CloseSession();
    return -1;
  }
  if (m_tls.mode == FtpTlsPolicy::kRequire && SecureControl(host) != 0) return -1;
  code = Step("USER", "USER " + Field(m_server.user, sizeof(m_server.user)), &reply);
  if (code == 331) {
    code = Step("PASS", "PASS " + Field(m_server.password, sizeof(m_server.password)), &reply);
  }
  if (code != 230 && code != 202) {
    if (code >= 0) Log(2, "login refused: %s", Printable(reply.text).c_str());
    CloseSession();
    return -1;
  }
  if (m_tls.mode == FtpTlsPolicy::kRequire) {
    // Every data connection encrypted too.
    for (const char* command : {"PBSZ 0", "PROT P"}) {
      code = Step("PROT", command, &reply);
      if (!Is2xx(code)) {
        if (code >= 0) Log(2, "%s refused: %s", command, Printable(reply.text).c_str());
        CloseSession();
        return -1;
      }
    }
  }
  code = Step("TYPE", "TYPE I", &reply);
  if (!Is2xx(code)) {
    if (code >= 0) Log(2, "TYPE I refused: %s", Printable(reply.text).c_str());
    CloseSession();
    return -1;
  }
  if (ChangeDir() != 0) {
    CloseSession();
    return -1;
  }
  return 0;
}

// Never -2 ("count the task as done"): no listing failure proves that the server holds the
// file. A permanent refusal to list (550) in the directory the session has just entered is
// taken as an empty listing, so the engine sends the whole file; a server that then refuses
// the store too makes the engine give the task up and announce it, rather than report an
// upload that never happened. Every other failure (time-out, lost connection, 4xx, other
// refusals) is -1, so the task is retried.
int FtpSession::GetServerDirFile() {
  m_data.entryCount = 0;
  if (!m_ctrl.open()) {
    Log(2, "listing without a session");
    return -1;
  }
  CloseData();
  FtpReply reply;
  if (m_mlsd < 0) {
    int code = Step("FEAT", "FEAT", &reply);
    if (code < 0) return -1;
    m_mlsd = code == 211 && FeatOffersMlsd(reply.text) ? 1 : 0;
  }
  int r = -1;
  if (m_mlsd == 1) {
    r = RunListing(FtpListFormat::kMlsd);
    if (r == 0 || r < 300) return r == 0 ? 0 : -1;
  }
  r = RunListing(FtpListFormat::kList);
  if (r == 0) return 0;
  if (r == 550) {
    Log(2, "directory of %s cannot be listed (550): sending as if empty", m_name.c_str());
    m_data.entryCount = 0;
    return 0;
  }
  return -1;
}

int64_t FtpSession::GetFileSize() {
  if (!m_ctrl.open()) {
    Log(2, "SIZE without a session");
    return -2;
  }
  FtpReply reply;
  int code = Step("SIZE", "SIZE " + m_name, &reply);
  if (code < 0) return -2;
  int64_t size = code == 213 ? ParseSizeReply(reply.text) : -1;
  if (size < 0) Log(2, "size of %s unknown: %s", m_name.c_str(), Printable(reply.text).c_str());
  return size;
}

int FtpSession::CreateDataConn(int mode) {
  if (!m_ctrl.open()) {
    Log(2, "data connection without a session");
    return -1;
  }
  if (mode != 0 && mode != 1) {
    Log(2, "unknown transfer mode %d", mode);
    return -1;
  }
  if (!IsUsableFtpName(m_name.data(), m_name.size())) {
    Log(2, "unusable remote file name");
    return -1;
  }
  if (m_dataConn != nullptr) {  // one data connection per session: Close ends the session too
    Log(2, "a transfer is already open; the session ends with it");
    Close();
    return -1;
  }
  std::unique_ptr<FtpConn> conn;
  int r = StartTransfer((mode == 0 ? "STOR " : "APPE ") + m_name, &conn);
  if (r != 0) {
    if (r == kTransferNotSecured) Close();
    return -1;
  }
  m_dataConn = std::move(conn);
  m_data.dataFd = m_dataConn->id();
  m_transferOpen = true;
  return m_data.dataFd;
}

int FtpSession::WriteData(int fd, const char* buf, int len, int timeout) {
  if (fd < 0 || m_dataConn == nullptr || fd != m_dataConn->id() || buf == nullptr || len < 0) {
    Log(2, "write refused: descriptor %d is not the open data connection", fd);
    return -1;
  }
  int idleMs = (timeout > 0 ? timeout : kDefaultWriteSeconds) * 1000;
  std::string err;
  if (idleMs != m_writeIdleMs) {
    if (!m_dataConn->SetBulkSend(idleMs)) {
      Log(2, "cannot set the write time-out");
      return -1;
    }
    m_writeIdleMs = idleMs;
  }
  if (m_dataConn->Send(buf, static_cast<size_t>(len), idleMs, &err) != 0) {
    Log(2, "data write: %s", err.c_str());
    m_sendFailed = true;
    return -1;
  }
  return len;
}

int64_t FtpSession::Retrieve(int fd, int64_t maxBytes, int seconds) {
  if (!m_ctrl.open()) {
    Log(2, "RETR without a session");
    return -1;
  }
  if (!IsUsableFtpName(m_name.data(), m_name.size()) || m_dataConn != nullptr) {
    Log(2, "RETR refused: unusable remote file name or a transfer already open");
    return -1;
  }
  std::unique_ptr<FtpConn> conn;
  std::string command = "RETR " + m_name;
  if (StartTransfer(command, &conn) != 0) {
    CloseSession();
    return -1;
  }
  std::string err;
  FtpReply reply;
  int code = -1;
  int64_t n = ReceiveAll(
      conn.get(), m_clock->NowMs() + static_cast<int64_t>(seconds) * 1000, maxBytes,
      [fd](const char* buf, size_t len, std::string* why) {
        if (WriteAll(fd, buf, len)) return true;
        *why = std::string("local write: ") + strerror(errno);
        return false;
      },
      &err);
  conn.reset();
  if (n >= 0) code = m_ctrl.ReadReply(&reply, m_limits.replyMs, &err);
  if (n < 0 || !Is2xx(code)) {
    Log(2, "%s: %s", command.c_str(),
        n < 0 || code < 0 ? err.c_str() : Printable(reply.text).c_str());
    CloseSession();
    return -1;
  }
  return n;
}

// Returns -1 when a transfer was open and the server did not confirm it with a 2xx reply;
// the session is closed in every case. A transfer whose writes went through ends in an
// orderly way (everything sent is delivered); one whose write failed is reset, so that its
// queued bytes cannot reach the file after a later pass has listed its size.
int FtpSession::Close() {
  int rc = 0;
  bool waitReply = m_transferOpen;
  if (m_transferOpen && !m_sendFailed && !m_dataConn->EndBulkSend()) {
    Log(2, "transfer of %s reset: cannot end it in order", m_name.c_str());
  }
  CloseData();  // end of file for the server
  std::string err;
  FtpReply reply;
  if (waitReply && m_ctrl.open()) {
    int code = m_ctrl.ReadReply(&reply, m_limits.replyMs, &err);
    if (!Is2xx(code)) {
      Log(2, "transfer of %s not confirmed: %s", m_name.c_str(),
          code < 0 ? err.c_str() : Printable(reply.text).c_str());
      rc = -1;
      if (code < 0) CloseSession();
    }
  } else if (waitReply) {
    rc = -1;
  }
  if (m_ctrl.open()) {
    int quitMs = m_limits.replyMs < kQuitMs ? m_limits.replyMs : kQuitMs;
    (void)m_ctrl.Command("QUIT", &reply, quitMs, &err);
  }
  CloseSession();
  return rc;
}
