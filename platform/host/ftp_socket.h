// TCP helpers of the FTP client: every call is bounded in time and reports failure in *err.
// Descriptors are non-blocking and close-on-exec; sends never raise SIGPIPE.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

// Monotonic milliseconds. Sockets need real time, so this does not follow the test clock.
int64_t FtpNowMs();

// Resolves host (name, IPv4 or IPv6 address) and connects to port, trying each address in
// turn, each within timeoutMs. Name resolution itself is bounded by the resolver's own
// settings. Returns the descriptor, or -1 with *err set.
int FtpConnectHost(const char* host, int port, int timeoutMs, std::string* err);

// Connects to addr with its port replaced by port, within timeoutMs. Descriptor or -1.
int FtpConnectPeer(const sockaddr_storage& addr, int port, int timeoutMs, std::string* err);

// Fills *addr with the peer of fd. False on failure.
bool FtpPeerAddress(int fd, sockaddr_storage* addr);

// Sends all len bytes; fails when no byte could be sent for idleMs. 0 or -1.
int FtpSendAll(int fd, const char* data, size_t len, int idleMs, std::string* err);

// Makes fd blocking with sends bounded by idleMs without progress (SO_SNDTIMEO). For a data
// connection that moves bulk data: one system call per block instead of send, poll, send.
bool FtpMakeBlockingSender(int fd, int idleMs);

// Sends all len bytes on a descriptor prepared with FtpMakeBlockingSender. 0 or -1.
int FtpSendAllBlocking(int fd, const char* data, size_t len, std::string* err);

// Receives up to cap bytes, waiting until deadlineMs (FtpNowMs time). Returns the count,
// 0 at end of stream, -1 on error or time-out.
ssize_t FtpRecvSome(int fd, char* buf, size_t cap, int64_t deadlineMs, std::string* err);
