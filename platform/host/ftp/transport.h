// What an FTP session runs over: byte-stream connections that a transport opens, and the clock
// the session measures its time limits with. The host's transport is socket_transport.h; a test
// supplies a scripted one on a fake clock, so that no limit needs real waiting.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/host/ftp/tls_policy.h"

// Monotonic milliseconds; only differences mean anything.
class FtpClock {
 public:
  virtual ~FtpClock() = default;
  virtual int64_t NowMs() = 0;
};

// One connected byte stream; destroying it closes it. Every call returns within its limit and
// on failure says why in *err. A connection whose call failed should be dropped.
class FtpConn {
 public:
  virtual ~FtpConn() = default;

  // The number that names this connection in the client's data record (on the host, the
  // socket descriptor). Non-negative and constant.
  virtual int id() const = 0;

  // Sends all len bytes; fails when no byte could be sent for idleMs. 0 or -1.
  virtual int Send(const char* data, size_t len, int idleMs, std::string* err) = 0;

  // Prepares the connection for bulk sends: from now on each Send fails after idleMs without
  // progress, whatever its own idleMs (the host then spends one system call per block).
  // It also arms an abortive close: until EndBulkSend, closing the connection, also by the
  // death of the process, resets it and drops the bytes not yet delivered, so that a sender
  // that died never goes on feeding a file behind the one that took its place.
  // False when the transport cannot.
  virtual bool SetBulkSend(int idleMs) = 0;

  // The sender has handed over its last byte: from now on a close delivers everything sent
  // and then ends the stream. False when the transport cannot.
  virtual bool EndBulkSend() { return true; }

  // Receives up to cap bytes, waiting at most timeoutMs (0: only what has arrived). Returns
  // the count, 0 at the end of the stream, -1 on error or time-out.
  virtual ssize_t Recv(char* buf, size_t cap, int timeoutMs, std::string* err) = 0;
};

class FtpTransport {
 public:
  virtual ~FtpTransport() = default;

  // Resolves host (name, IPv4 or IPv6 address) and connects to port, trying each address in
  // turn, each within timeoutMs. nullptr with *err set on failure.
  virtual std::unique_ptr<FtpConn> Connect(const std::string& host, int port, int timeoutMs,
                                           std::string* err) = 0;

  // Connects to port at the address of ctrl's peer (ctrl came from this transport's Connect),
  // within timeoutMs. There is no way to name another address: a server cannot direct the
  // client to a third host. 0 with *out set; kNoPeer when ctrl's peer address is unknown;
  // -1 with *err set when the connect failed.
  static constexpr int kNoPeer = -2;
  virtual int ConnectToPeer(const FtpConn& ctrl, int port, int timeoutMs,
                            std::unique_ptr<FtpConn>* out, std::string* err) = 0;

  // Turns plain (from this transport) into a TLS client connection to host within timeoutMs,
  // checking the server's certificate as policy says; resumeFrom, when not null, is the TLS
  // control connection whose session a data connection resumes. nullptr with *err naming the
  // reason otherwise. A transport without TLS refuses every call.
  virtual std::unique_ptr<FtpConn> StartTls(std::unique_ptr<FtpConn> plain, const std::string& host,
                                            const FtpTlsPolicy& policy, const FtpConn* resumeFrom,
                                            int timeoutMs, std::string* err) {
    (void)plain, (void)host, (void)policy, (void)resumeFrom, (void)timeoutMs;
    *err = "this transport has no TLS";
    return nullptr;
  }
};
