#include "platform/host/ftp/tls_conn.h"

#include <arpa/inet.h>
#include <errno.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>

namespace {

int64_t NowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd is ready for what OpenSSL asked (ssl error kind) or deadlineMs passes.
// 1 ready, 0 time-out, -1 error.
int WaitFor(int fd, int sslError, int64_t deadlineMs) {
  short events = sslError == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
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

// The first queued OpenSSL error as text (the queue is emptied), or fallback.
std::string SslErrorText(const char* fallback) {
  unsigned long e = ERR_get_error();
  ERR_clear_error();
  if (e == 0) return fallback;
  char text[256];
  ERR_error_string_n(e, text, sizeof(text));
  return text;
}

// Short reasons for the verify results a person has to act on; OpenSSL's text for the rest.
std::string VerifyReason(long result) {
  switch (result) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return "certificate expired";
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return "certificate not yet valid";
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return "certificate of another host";
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return "certificate from an unknown CA";
    default:
      return std::string("certificate refused: ") + X509_verify_cert_error_string(result);
  }
}

// True when the SHA-256 of the peer's DER certificate is pin (32 bytes).
bool PinMatches(SSL* ssl, const std::string& pin) {
  X509* cert = SSL_get0_peer_certificate(ssl);
  unsigned char* der = nullptr;
  int len = cert != nullptr ? i2d_X509(cert, &der) : -1;
  bool same = len > 0 && FtpTlsPinMatches(pin, der, static_cast<size_t>(len));
  OPENSSL_free(der);
  return same;
}

// A context for one control connection and its data connections.
SSL_CTX* NewContext(const FtpTlsPolicy& policy, std::string* err) {
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  if (ctx == nullptr) {
    *err = "TLS: " + SslErrorText("no context");
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  int ok;
  if (policy.ca.empty()) {
    ok = SSL_CTX_set_default_verify_paths(ctx);
  } else {
    struct stat st;
    bool dir = stat(policy.ca.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    ok = SSL_CTX_load_verify_locations(ctx, dir ? nullptr : policy.ca.c_str(),
                                       dir ? policy.ca.c_str() : nullptr);
  }
  if (ok != 1) {
    *err = "CA " + (policy.ca.empty() ? std::string("defaults") : policy.ca) +
           " unusable: " + SslErrorText("cannot load");
    SSL_CTX_free(ctx);
    return nullptr;
  }
  return ctx;
}

class TlsConn : public FtpConn {
 public:
  TlsConn(std::unique_ptr<FtpConn> plain, SSL* ssl)
      : m_plain(std::move(plain)), m_fd(m_plain->id()), m_ssl(ssl) {}

  ~TlsConn() override {
    // An orderly end tells the peer that nothing was cut off; an armed abortive close (a
    // failed or unfinished bulk send) must not look like a complete file.
    if (!m_failed && !m_abortive && !m_shutDown && SSL_is_init_finished(m_ssl)) {
      (void)SSL_shutdown(m_ssl);
    }
    SSL_free(m_ssl);
    ERR_clear_error();
  }

  int id() const override { return m_fd; }
  SSL* ssl() const { return m_ssl; }

  int Send(const char* data, size_t len, int idleMs, std::string* err) override {
    if (m_bulkIdleMs >= 0) idleMs = m_bulkIdleMs;
    int64_t deadline = NowMs() + idleMs;
    while (len > 0) {
      int chunk = len > (1u << 30) ? (1 << 30) : static_cast<int>(len);
      int n = SSL_write(m_ssl, data, chunk);
      if (n > 0) {
        data += n;
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
  // What the server sent meanwhile (TLS 1.3 session tickets) is read first: a socket closed
  // with unread bytes is reset, and a server may then lose the end of the file.
  bool EndBulkSend() override {
    int64_t deadline = NowMs() + (m_bulkIdleMs > 0 ? m_bulkIdleMs : 10000);
    char sink[4096];
    std::string err;
    while (NowMs() < deadline && SSL_read(m_ssl, sink, sizeof(sink)) > 0) {
    }
    ERR_clear_error();
    for (;;) {
      int r = SSL_shutdown(m_ssl);
      if (r >= 0) break;  // sent; the peer's reply is not awaited
      if (!Wait(r, deadline, "close", &err)) return false;
    }
    m_shutDown = true;
    if (!SetLinger(false)) return false;
    m_abortive = false;
    return true;
  }

  ssize_t Recv(char* buf, size_t cap, int timeoutMs, std::string* err) override {
    int64_t deadline = NowMs() + (timeoutMs > 0 ? timeoutMs : 0);
    int want = cap > (1u << 30) ? (1 << 30) : static_cast<int>(cap);
    for (;;) {
      int n = SSL_read(m_ssl, buf, want);
      if (n > 0) return n;
      int e = SSL_get_error(m_ssl, n);
      if (e == SSL_ERROR_ZERO_RETURN) return 0;
      if (e == SSL_ERROR_SYSCALL && ERR_peek_error() == 0 && n == 0) {
        ERR_clear_error();
        return 0;  // closed without close_notify: the end, as on a plain connection
      }
      if (!Wait(n, deadline, "receive", err)) return -1;
    }
  }

  // Runs the handshake until deadlineMs. False with *err.
  bool Handshake(int64_t deadlineMs, std::string* err) {
    for (;;) {
      int r = SSL_connect(m_ssl);
      if (r == 1) return true;
      if (!Wait(r, deadlineMs, "handshake", err)) return false;
    }
  }

 private:
  // After an OpenSSL call returned r <= 0: waits for the socket when OpenSSL asks for it.
  // False with *err (and the connection marked failed) on an error or at deadlineMs.
  bool Wait(int r, int64_t deadlineMs, const char* what, std::string* err) {
    int e = SSL_get_error(m_ssl, r);
    if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
      int w = WaitFor(m_fd, e, deadlineMs);
      if (w > 0) return true;
      *err = std::string(what) + (w == 0 ? ": timed out" : ": poll failed");
    } else if (e == SSL_ERROR_SYSCALL && ERR_peek_error() == 0) {
      *err = std::string(what) + ": " + (errno != 0 ? strerror(errno) : "connection closed");
    } else {
      *err = std::string(what) + ": " + SslErrorText("TLS error");
    }
    ERR_clear_error();
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
  SSL* const m_ssl;
  int m_bulkIdleMs = -1;
  bool m_failed = false;
  bool m_abortive = false;
  bool m_shutDown = false;
};

}  // namespace

std::unique_ptr<FtpConn> StartTlsClient(std::unique_ptr<FtpConn> plain, const std::string& host,
                                        const FtpTlsPolicy& policy, const FtpConn* resumeFrom,
                                        int timeoutMs, std::string* err) {
  int64_t deadline = NowMs() + timeoutMs;
  ERR_clear_error();
  const TlsConn* ctrl = dynamic_cast<const TlsConn*>(resumeFrom);
  if (resumeFrom != nullptr && ctrl == nullptr) {
    *err = "control connection without TLS";
    return nullptr;
  }
  SSL_CTX* ctx = ctrl != nullptr ? SSL_get_SSL_CTX(ctrl->ssl()) : NewContext(policy, err);
  if (ctx == nullptr) return nullptr;
  SSL* ssl = SSL_new(ctx);
  if (ctrl == nullptr) SSL_CTX_free(ctx);  // the connection holds its own reference
  if (ssl == nullptr) {
    *err = "TLS: " + SslErrorText("no connection state");
    return nullptr;
  }
  unsigned char addr[16];
  bool literal =
      inet_pton(AF_INET, host.c_str(), addr) == 1 || inet_pton(AF_INET6, host.c_str(), addr) == 1;
  bool ok = SSL_set_fd(ssl, plain->id()) == 1;
  if (ok && !literal) ok = SSL_set_tlsext_host_name(ssl, host.c_str()) == 1;
  if (ok && policy.verifyHost) {
    ok = literal ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) == 1
                 : SSL_set1_host(ssl, host.c_str()) == 1;
  }
  if (ok && ctrl != nullptr) {
    SSL_SESSION* session = SSL_get1_session(ctrl->ssl());
    if (session != nullptr) ok = SSL_set_session(ssl, session) == 1;
    SSL_SESSION_free(session);
  }
  std::unique_ptr<TlsConn> conn(new TlsConn(std::move(plain), ssl));
  if (!ok) {
    *err = "TLS set-up: " + SslErrorText("refused");
    return nullptr;
  }
  if (!conn->Handshake(deadline, err)) {
    long result = SSL_get_verify_result(ssl);
    if (result != X509_V_OK) *err = VerifyReason(result);
    return nullptr;
  }
  if (!policy.pin.empty() && !PinMatches(ssl, policy.pin)) {
    *err = "certificate fingerprint mismatch";
    return nullptr;
  }
  return std::unique_ptr<FtpConn>(conn.release());
}
