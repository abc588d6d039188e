#include "platform/host/ftp/tls_conn.h"

#include <arpa/inet.h>
#include <errno.h>
#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/net_sockets.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

// The system's CAs when the policy names none: Debian's bundle, else its folder.
constexpr const char* kSystemCaFile = "/etc/ssl/certs/ca-certificates.crt";
constexpr const char* kSystemCaDir = "/etc/ssl/certs";

int64_t NowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd is ready for what the TLS library asked (a WANT_READ or WANT_WRITE result)
// or deadlineMs passes. 1 ready, 0 time-out, -1 error.
int WaitFor(int fd, int want, int64_t deadlineMs) {
  short events = want == MBEDTLS_ERR_SSL_WANT_WRITE ? POLLOUT : POLLIN;
  for (;;) {
    int64_t left = deadlineMs - NowMs();
    if (left <= 0) return 0;
    pollfd p{fd, events, 0};
    int r = poll(&p, 1, left > 1000000 ? 1000000 : static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return -1;
    if (r > 0) return 1;
  }
}

std::string TlsErrorText(int ret) {
  char text[160];
  mbedtls_strerror(ret, text, sizeof(text));
  return text;
}

// Short reasons for the verify results a person has to act on; the library's text for the rest.
std::string VerifyReason(uint32_t flags) {
  if (flags & MBEDTLS_X509_BADCERT_EXPIRED) return "certificate expired";
  if (flags & MBEDTLS_X509_BADCERT_FUTURE) return "certificate not yet valid";
  if (flags & MBEDTLS_X509_BADCERT_CN_MISMATCH) return "certificate of another host";
  if (flags & MBEDTLS_X509_BADCERT_NOT_TRUSTED) return "certificate from an unknown CA";
  char text[256];
  int n = mbedtls_x509_crt_verify_info(text, sizeof(text), "", flags);
  std::string reason(text, n > 0 ? static_cast<size_t>(n) : 0);
  while (!reason.empty() && reason.back() == '\n') reason.pop_back();
  for (char& c : reason) c = c == '\n' ? ';' : c;
  return "certificate refused: " + reason;
}

// What one control connection and its data connections share: the random source, the CAs
// and the settings, with the host the certificate must name.
struct TlsContext {
  TlsContext() {
    mbedtls_entropy_init(&entropy);
    mbedtls_ctr_drbg_init(&drbg);
    mbedtls_x509_crt_init(&ca);
    mbedtls_ssl_config_init(&conf);
  }
  ~TlsContext() {
    mbedtls_ssl_config_free(&conf);
    mbedtls_x509_crt_free(&ca);
    mbedtls_ctr_drbg_free(&drbg);
    mbedtls_entropy_free(&entropy);
  }
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  mbedtls_entropy_context entropy;
  mbedtls_ctr_drbg_context drbg;
  mbedtls_x509_crt ca;
  mbedtls_ssl_config conf;
  bool verifyHost = true;
  int family = AF_UNSPEC;  // AF_INET or AF_INET6 when the host is an address literal
  unsigned char addr[16] = {};
};

// The verify step for the server's own certificate (depth 0): an address literal must be one
// of its iPAddress names (the library compares DNS names only), and without host checking
// the name may be any.
int CheckPeerName(void* data, mbedtls_x509_crt* crt, int depth, uint32_t* flags) {
  const auto* ctx = static_cast<const TlsContext*>(data);
  if (depth != 0) return 0;
  if (!ctx->verifyHost) {
    *flags &= ~static_cast<uint32_t>(MBEDTLS_X509_BADCERT_CN_MISMATCH);
    return 0;
  }
  if (ctx->family == AF_UNSPEC) return 0;
  size_t len = ctx->family == AF_INET ? 4 : 16;
  for (const mbedtls_x509_sequence* san = &crt->subject_alt_names; san != nullptr;
       san = san->next) {
    bool ip = san->buf.tag == (MBEDTLS_ASN1_CONTEXT_SPECIFIC | MBEDTLS_X509_SAN_IP_ADDRESS);
    if (ip && san->buf.len == len && memcmp(san->buf.p, ctx->addr, len) == 0) return 0;
  }
  *flags |= MBEDTLS_X509_BADCERT_CN_MISMATCH;
  return 0;
}

// Loads the CAs: policy.ca as a file or a folder, else the system's.
bool LoadCas(const std::string& ca, mbedtls_x509_crt* chain, std::string* err) {
  std::string path = ca.empty() ? kSystemCaFile : ca;
  struct stat st;
  if (ca.empty() && stat(path.c_str(), &st) != 0) path = kSystemCaDir;
  bool dir = stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  // A folder may hold other files besides certificates; a positive result counts those.
  int r = dir ? mbedtls_x509_crt_parse_path(chain, path.c_str())
              : mbedtls_x509_crt_parse_file(chain, path.c_str());
  if (r >= 0 && chain->version != 0) return true;
  *err = "CA " + (ca.empty() ? std::string("defaults") : ca) +
         " unusable: " + (r < 0 ? TlsErrorText(r) : std::string("no certificate in it"));
  return false;
}

// The cipher suites offered, best first: ChaCha20-Poly1305 leads, since it is several times
// cheaper than AES-GCM where the CPU has no AES instructions (the recorder's ARM cores),
// then the library's own order. Made once; the settings keep pointing at it.
const int* OfferedCipherSuites() {
  static const std::vector<int> suites = [] {
    std::vector<int> list = {MBEDTLS_TLS_ECDHE_ECDSA_WITH_CHACHA20_POLY1305_SHA256,
                             MBEDTLS_TLS_ECDHE_RSA_WITH_CHACHA20_POLY1305_SHA256};
    for (const int* id = mbedtls_ssl_list_ciphersuites(); *id != 0; ++id) {
      if (std::find(list.begin(), list.end(), *id) == list.end()) list.push_back(*id);
    }
    list.push_back(0);
    return list;
  }();
  return suites.data();
}

std::shared_ptr<TlsContext> NewContext(const FtpTlsPolicy& policy, const std::string& host,
                                       std::string* err) {
  auto ctx = std::make_shared<TlsContext>();
  if (!LoadCas(policy.ca, &ctx->ca, err)) return nullptr;
  int r = mbedtls_ctr_drbg_seed(&ctx->drbg, mbedtls_entropy_func, &ctx->entropy, nullptr, 0);
  if (r == 0) {
    r = mbedtls_ssl_config_defaults(&ctx->conf, MBEDTLS_SSL_IS_CLIENT, MBEDTLS_SSL_TRANSPORT_STREAM,
                                    MBEDTLS_SSL_PRESET_DEFAULT);
  }
  if (r != 0) {
    *err = "TLS: " + TlsErrorText(r);
    return nullptr;
  }
  ctx->verifyHost = policy.verifyHost;
  if (inet_pton(AF_INET, host.c_str(), ctx->addr) == 1) {
    ctx->family = AF_INET;
  } else if (inet_pton(AF_INET6, host.c_str(), ctx->addr) == 1) {
    ctx->family = AF_INET6;
  }
  mbedtls_ssl_conf_min_version(&ctx->conf, MBEDTLS_SSL_MAJOR_VERSION_3,
                               MBEDTLS_SSL_MINOR_VERSION_3);  // TLS 1.2 and later
  mbedtls_ssl_conf_authmode(&ctx->conf, MBEDTLS_SSL_VERIFY_REQUIRED);
  mbedtls_ssl_conf_ca_chain(&ctx->conf, &ctx->ca, nullptr);
  mbedtls_ssl_conf_rng(&ctx->conf, mbedtls_ctr_drbg_random, &ctx->drbg);
  mbedtls_ssl_conf_verify(&ctx->conf, CheckPeerName, ctx.get());
  mbedtls_ssl_conf_ciphersuites(&ctx->conf, OfferedCipherSuites());
  return ctx;
}

// The socket under a TLS connection, non-blocking: the library's "want" results when it
// would wait, so that every wait has a deadline.
int SendBytes(void* fdp, const unsigned char* buf, size_t len) {
  ssize_t n = send(*static_cast<int*>(fdp), buf, len, MSG_NOSIGNAL);
  if (n >= 0) return static_cast<int>(n);
  if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
    return MBEDTLS_ERR_SSL_WANT_WRITE;
  }
  return errno == EPIPE || errno == ECONNRESET ? MBEDTLS_ERR_NET_CONN_RESET
                                               : MBEDTLS_ERR_NET_SEND_FAILED;
}

int RecvBytes(void* fdp, unsigned char* buf, size_t len) {
  ssize_t n = recv(*static_cast<int*>(fdp), buf, len, 0);
  if (n >= 0) return static_cast<int>(n);
  if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
    return MBEDTLS_ERR_SSL_WANT_READ;
  }
  return errno == ECONNRESET ? MBEDTLS_ERR_NET_CONN_RESET : MBEDTLS_ERR_NET_RECV_FAILED;
}

bool Wants(int r) { return r == MBEDTLS_ERR_SSL_WANT_READ || r == MBEDTLS_ERR_SSL_WANT_WRITE; }

class TlsConn : public FtpConn {
 public:
  TlsConn(std::unique_ptr<FtpConn> plain, std::shared_ptr<TlsContext> ctx)
      : m_plain(std::move(plain)), m_fd(m_plain->id()), m_ctx(std::move(ctx)) {
    mbedtls_ssl_init(&m_ssl);
  }

  ~TlsConn() override {
    // An orderly end tells the peer that nothing was cut off; an armed abortive close (a
    // failed or unfinished bulk send) must not look like a complete file.
    if (!m_failed && !m_abortive && !m_shutDown && m_established) {
      (void)mbedtls_ssl_close_notify(&m_ssl);
    }
    mbedtls_ssl_free(&m_ssl);
  }

  TlsConn(const TlsConn&) = delete;
  TlsConn& operator=(const TlsConn&) = delete;

  int id() const override { return m_fd; }
  const std::shared_ptr<TlsContext>& context() const { return m_ctx; }

  // Prepares the connection for host. False with *err.
  bool Setup(const std::string& host, std::string* err) {
    int r = mbedtls_ssl_setup(&m_ssl, &m_ctx->conf);
    // A DNS name is sent (SNI) and checked; an address literal is checked in CheckPeerName.
    if (r == 0 && m_ctx->family == AF_UNSPEC) r = mbedtls_ssl_set_hostname(&m_ssl, host.c_str());
    if (r != 0) {
      *err = "TLS set-up: " + TlsErrorText(r);
      return false;
    }
    mbedtls_ssl_set_bio(&m_ssl, const_cast<int*>(&m_fd), SendBytes, RecvBytes, nullptr);
    return true;
  }

  // Offers the TLS session of the control connection ctrl again. False with *err.
  bool ResumeFrom(const TlsConn& ctrl, std::string* err) {
    mbedtls_ssl_session session;
    mbedtls_ssl_session_init(&session);
    int r = mbedtls_ssl_get_session(&ctrl.m_ssl, &session);
    if (r == 0) r = mbedtls_ssl_set_session(&m_ssl, &session);
    mbedtls_ssl_session_free(&session);
    if (r != 0) *err = "TLS set-up: " + TlsErrorText(r);
    return r == 0;
  }

  int Send(const char* data, size_t len, int idleMs, std::string* err) override {
    if (m_bulkIdleMs >= 0) idleMs = m_bulkIdleMs;
    int64_t deadline = NowMs() + idleMs;
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    while (len > 0) {
      // A write the library could not finish is called again with the same bytes.
      int n = mbedtls_ssl_write(&m_ssl, bytes, len);
      if (n > 0) {
        bytes += n;
        len -= static_cast<size_t>(n);
        deadline = NowMs() + idleMs;
        continue;
      }
      if (!Wait(n, deadline, "send", err)) return -1;
    }
    return 0;
  }

  bool SetBulkSend(int idleMs) override {
    if (!SetLinger(true)) return false;
    m_abortive = true;
    m_bulkIdleMs = idleMs;
    return true;
  }

  // Sends close_notify (the end of the file for a server that checks it) before the close.
  // What the server sent meanwhile is read first: a socket closed with unread bytes is reset,
  // and a server may then lose the end of the file.
  bool EndBulkSend() override {
    int64_t deadline = NowMs() + (m_bulkIdleMs > 0 ? m_bulkIdleMs : 10000);
    unsigned char sink[4096];
    std::string err;
    while (NowMs() < deadline && mbedtls_ssl_read(&m_ssl, sink, sizeof(sink)) > 0) {
    }
    for (;;) {
      int r = mbedtls_ssl_close_notify(&m_ssl);
      if (r == 0) break;  // sent; the peer's reply is not awaited
      if (!Wait(r, deadline, "close", &err)) return false;
    }
    m_shutDown = true;
    if (!SetLinger(false)) return false;
    m_abortive = false;
    return true;
  }

  ssize_t Recv(char* buf, size_t cap, int timeoutMs, std::string* err) override {
    int64_t deadline = NowMs() + (timeoutMs > 0 ? timeoutMs : 0);
    auto* bytes = reinterpret_cast<unsigned char*>(buf);
    for (;;) {
      int n = mbedtls_ssl_read(&m_ssl, bytes, cap);
      if (n > 0) return n;
      // close_notify, or closed without it: the end, as on a plain connection.
      if (n == 0 || n == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY || n == MBEDTLS_ERR_SSL_CONN_EOF) {
        return 0;
      }
      if (!Wait(n, deadline, "receive", err)) return -1;
    }
  }

  // Runs the handshake until deadlineMs. False with *err.
  bool Handshake(int64_t deadlineMs, std::string* err) {
    for (;;) {
      int r = mbedtls_ssl_handshake(&m_ssl);
      if (r == 0) {
        m_established = true;
        return true;
      }
      if (!Wait(r, deadlineMs, "handshake", err)) {
        uint32_t flags = mbedtls_ssl_get_verify_result(&m_ssl);
        if (r == MBEDTLS_ERR_X509_CERT_VERIFY_FAILED && flags != 0) *err = VerifyReason(flags);
        return false;
      }
    }
  }

  // True when the SHA-256 of the server's DER certificate is pin (32 bytes).
  bool PinMatches(const std::string& pin) const {
    const mbedtls_x509_crt* cert = mbedtls_ssl_get_peer_cert(&m_ssl);
    return cert != nullptr && FtpTlsPinMatches(pin, cert->raw.p, cert->raw.len);
  }

 private:
  // After a library call returned r < 0: waits for the socket when the library asks for it.
  // False with *err (and the connection marked failed) on an error or at deadlineMs.
  bool Wait(int r, int64_t deadlineMs, const char* what, std::string* err) {
    if (Wants(r)) {
      int w = WaitFor(m_fd, r, deadlineMs);
      if (w > 0) return true;
      *err = std::string(what) + (w == 0 ? ": timed out" : ": poll failed");
    } else if (r == MBEDTLS_ERR_NET_CONN_RESET || r == MBEDTLS_ERR_SSL_CONN_EOF) {
      *err = std::string(what) + ": connection closed";
    } else {
      *err = std::string(what) + ": " + TlsErrorText(r);
    }
    m_failed = true;
    return false;
  }

  // A zero linger time makes close() send a reset and discard the queued bytes.
  bool SetLinger(bool abortive) {
    linger l{abortive ? 1 : 0, 0};
    return setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &l, sizeof(l)) == 0;
  }

  const std::unique_ptr<FtpConn> m_plain;  // the socket, closed after m_ssl is freed
  const int m_fd;
  const std::shared_ptr<TlsContext> m_ctx;  // outlives m_ssl, which points into it
  mbedtls_ssl_context m_ssl;
  int m_bulkIdleMs = -1;
  bool m_established = false;
  bool m_failed = false;
  bool m_abortive = false;
  bool m_shutDown = false;
};

}  // namespace

std::unique_ptr<FtpConn> StartTlsClient(std::unique_ptr<FtpConn> plain, const std::string& host,
                                        const FtpTlsPolicy& policy, const FtpConn* resumeFrom,
                                        int timeoutMs, std::string* err) {
  int64_t deadline = NowMs() + timeoutMs;
  const TlsConn* ctrl = dynamic_cast<const TlsConn*>(resumeFrom);
  if (resumeFrom != nullptr && ctrl == nullptr) {
    *err = "control connection without TLS";
    return nullptr;
  }
  std::shared_ptr<TlsContext> ctx =
      ctrl != nullptr ? ctrl->context() : NewContext(policy, host, err);
  if (!ctx) return nullptr;
  std::unique_ptr<TlsConn> conn(new TlsConn(std::move(plain), std::move(ctx)));
  if (!conn->Setup(host, err)) return nullptr;
  if (ctrl != nullptr && !conn->ResumeFrom(*ctrl, err)) return nullptr;
  if (!conn->Handshake(deadline, err)) return nullptr;
  if (!policy.pin.empty() && !conn->PinMatches(policy.pin)) {
    *err = "certificate fingerprint mismatch";
    return nullptr;
  }
  return std::unique_ptr<FtpConn>(conn.release());
}
