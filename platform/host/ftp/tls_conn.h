// TLS client connections over the host's sockets (mbedTLS), for explicit FTPS: the control
// connection turns to TLS after "AUTH TLS", each data connection right after it is opened,
// resuming the control connection's TLS session (servers such as vsftpd insist on it, so that
// nobody else can take over a data connection).
#pragma once

#include <memory>
#include <string>

#include "platform/host/ftp/tls_policy.h"
#include "platform/host/ftp/transport.h"

// Runs the TLS handshake as a client on plain, a connected socket connection (its id() is
// the descriptor), within timeoutMs, and checks the server's certificate as policy says: the
// chain against policy.ca (or the system's CAs), the host name or address host when
// policy.verifyHost, and the SHA-256 fingerprint when policy.pin is set. resumeFrom, when not
// null, is the session's TLS control connection, whose TLS session is offered again.
// Returns the TLS connection, which owns plain and has its id(); nullptr with *err naming the
// reason ("certificate expired", "certificate of another host", "certificate from an unknown
// CA", "certificate fingerprint mismatch", or what failed) otherwise, plain then closed.
// Once TLS is up, bytes pass only encrypted; destroying the connection after an orderly end
// sends close_notify first.
std::unique_ptr<FtpConn> StartTlsClient(std::unique_ptr<FtpConn> plain, const std::string& host,
                                        const FtpTlsPolicy& policy, const FtpConn* resumeFrom,
                                        int timeoutMs, std::string* err);
