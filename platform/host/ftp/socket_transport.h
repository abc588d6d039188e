// The host's FTP transport: TCP over POSIX sockets, IPv4 and IPv6 through getaddrinfo. Every
// wait is bounded with poll (bulk sends with SO_SNDTIMEO); descriptors are close-on-exec and
// sends never raise SIGPIPE. A connection's id() is its socket descriptor.
#pragma once

#include <memory>

#include "platform/host/ftp/transport.h"

std::unique_ptr<FtpTransport> NewSocketTransport();

// CLOCK_MONOTONIC, the clock the socket waits run on. Shared; safe from any thread.
FtpClock* MonotonicFtpClock();
