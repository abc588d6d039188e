// The FTP client library used by the upload engine.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/ftpserver.h"

constexpr int kFtpListCapacity = 1024;  // entries kept from one directory listing

// Sizes are 64-bit: files over 2 GiB are uploaded. The record stays inside the process (the
// client and the engine share it in memory; it is never written to a file or sent), so no
// wire format fixes the width.
struct FtpDirEntry_t {
  int64_t size;    // bytes
  char name[128];  // NUL-terminated
};

// The client's data record. Readers rely on: the data-connection descriptor at byte 4, the
// entry count at byte 500 and the 136-byte entries from byte 504.
struct FtpClientData_t {
  int32_t ctrlFd;
  int32_t dataFd;
  uint8_t reserved[492];
  int32_t entryCount;
  FtpDirEntry_t entries[kFtpListCapacity];
};
static_assert(sizeof(FtpDirEntry_t) == 136, "FtpDirEntry_t layout");
static_assert(offsetof(FtpClientData_t, dataFd) == 4, "dataFd offset");
static_assert(offsetof(FtpClientData_t, entryCount) == 500, "entryCount offset");
static_assert(offsetof(FtpClientData_t, entries) == 504, "entries offset");

typedef void (*FtpLogFn_f)(int level, const char* fmt, ...);

// Time limits of a client, in milliseconds. The defaults suit a mobile link; tests shorten them.
struct FtpTimeLimits_t {
  int connectMs = 10000;   // each TCP connect, control and data
  int replyMs = 30000;     // each control reply, counted from the command
  int listingMs = 120000;  // receiving one whole directory listing
};

// One FTP session at a time. Every call returns a negative value on failure within its time
// limit; none blocks for ever. Not thread-safe: one thread drives a client.
class CFtpClient {
 public:
  CFtpClient();
  virtual ~CFtpClient();
  virtual int Init(FtpLogFn_f log);
  virtual int FtpSetServerInfo(UserDefServerSet_t* server);
  virtual int FtpSetLocalInfo(const char* dir, const char* name);
  // Connects, logs in, sets binary type and changes to server path + dir (creating it).
  virtual int FtpStart();
  // Lists the current directory into the data record (regular files only, listing order, at
  // most kFtpListCapacity; the file named by FtpSetLocalInfo is always kept when listed).
  // Never -2 (the caller would count the task as done): no listing failure proves that the
  // server holds the file. A 550 to LIST is an empty listing (0); other failures are -1.
  virtual int FtpGetServerDirFile();
  virtual FtpClientData_t* FtpGetClientData();
  // The server's own answer for the size of the file named by FtpSetLocalInfo (SIZE), a second
  // opinion beside its listing: the size in bytes; -1 when the server gives none (refused,
  // unknown file, no such command); -2 when the session failed.
  virtual int64_t FtpGetFileSize();
  // Opens the passive data connection (EPSV, else PASV; always to the control connection's
  // peer): mode 0 stores anew, mode 1 appends. Returns its descriptor, also stored at byte 4.
  // One data connection per session: FtpClose ends both, so the next store needs FtpStart.
  virtual int FtpCreateDateSockFd(int mode);
  // Writes all len bytes on the open data connection or fails (-1); timeout: seconds without
  // progress. Returns len.
  virtual int FtpWriteDate(int fd, const char* buf, int len, int timeout);
  // Fetches the file named by FtpSetLocalInfo from the directory FtpStart entered into the
  // open descriptor fd: RETR over a passive data connection (TLS when the session is), at
  // most maxBytes, within seconds. Returns the bytes written and confirmed by the server's
  // 2xx reply, or -1.
  virtual int64_t FtpGetFile(int fd, int64_t maxBytes, int seconds);
  // Finishes a transfer (waiting for the server's reply; -1 unless it is 2xx), QUIT and close.
  // Safe to call in any state.
  virtual int FtpClose();

  // Replaces the time limits; takes effect with the next call.
  void FtpSetTimeLimits(const FtpTimeLimits_t& limits);

 protected:
  struct Impl;
  Impl* m_pImpl = nullptr;
};

// True when the TLS policy requires TLS for host, or cannot be read for it: a transfer with
// host must then go through CFtpClient, which speaks TLS or nothing, never through a tool
// that speaks clear text.
bool FtpTlsRequiredFor(const char* host);

// The host client: one session over sockets. Service code gets its clients through
// Env::NewFtpClient() (platform/env.h), whose host implementation calls this.
CFtpClient* NewFtpClient();
