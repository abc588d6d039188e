// The host's CFtpClient assembled from its layers. ::NewFtpClient() (platform/ftpclient.h)
// gives the client over sockets on the monotonic clock; NewFtpClientOver builds the same client
// over another transport and clock, so that a test can script a server and run every time
// limit on a fake clock.
#pragma once

#include <memory>

#include "platform/ftpclient.h"
#include "platform/host/ftp/transport.h"

// The caller owns the client; clock must outlive it.
CFtpClient* NewFtpClientOver(std::unique_ptr<FtpTransport> transport, FtpClock* clock);
