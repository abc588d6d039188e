// One FTP session over a transport: the protocol behind CFtpClient (platform/ftpclient.h),
// whose calls map one to one onto these and share their contracts. Every time limit is
// measured on the clock given: each connect within connectMs, each control reply within
// replyMs of its command, one listing within listingMs, and Write fails when no byte moves for
// its timeout argument. No call waits longer, whatever a server does.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/ftpclient.h"
#include "platform/host/ftp/control.h"
#include "platform/host/ftp/listing.h"
#include "platform/host/ftp/tls_policy.h"
#include "platform/host/ftp/transport.h"

class FtpSession {
 public:
  // clock must outlive the session.
  FtpSession(std::unique_ptr<FtpTransport> transport, FtpClock* clock);
  ~FtpSession();
  FtpSession(const FtpSession&) = delete;
  FtpSession& operator=(const FtpSession&) = delete;

  int Init(FtpLogFn_f log);
  void SetTimeLimits(const FtpTimeLimits_t& limits) { m_limits = limits; }
  int SetServerInfo(const UserDefServerSet_t* server);
  int SetLocalInfo(const char* dir, const char* name);
  int Start();
  int GetServerDirFile();
  FtpClientData_t* ClientData() { return &m_data; }
  int64_t GetFileSize();
  int CreateDataConn(int mode);
  int WriteData(int fd, const char* buf, int len, int timeout);
  int64_t Retrieve(int fd, int64_t maxBytes, int seconds);
  int Close();

 private:
  void Log(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  void CloseData();
  void CloseSession();
  int Step(const char* what, const std::string& command, FtpReply* reply);
  int ChangeDir();
  std::unique_ptr<FtpConn> OpenPassive();
  int SecureControl(const std::string& host);
  bool SecureData(std::unique_ptr<FtpConn>* conn);
  int RunListing(FtpListFormat fmt);
  // Opens a passive data connection, sends command (STOR, APPE, RETR) and waits for the
  // server's go-ahead (125 or 150); the connection then under TLS when the session is. 0 with
  // *conn; -1 when the server refused or the session broke (then closed);
  // kTransferNotSecured when the server accepted but TLS on the data connection failed.
  static constexpr int kTransferNotSecured = -2;
  int StartTransfer(const std::string& command, std::unique_ptr<FtpConn>* conn);
  // Receives a data connection's stream to its end, handing each piece to take, until
  // deadline and at most maxBytes. The byte count, or -1 with *err.
  int64_t ReceiveAll(FtpConn* conn, int64_t deadline, int64_t maxBytes,
                     const std::function<bool(const char*, size_t, std::string*)>& take,
                     std::string* err);

  // Constant after construction.
  const std::unique_ptr<FtpTransport> m_transport;
  FtpClock* const m_clock;

  FtpLogFn_f m_log;
  FtpTimeLimits_t m_limits;

  // Set by SetServerInfo / SetLocalInfo.
  UserDefServerSet_t m_server{};
  std::string m_dir;
  std::string m_name;

  // The session.
  FtpControl m_ctrl;
  std::unique_ptr<FtpConn> m_dataConn;
  bool m_transferOpen = false;  // a STOR/APPE waits for its transfer reply
  bool m_sendFailed = false;    // a write on m_dataConn failed: its close must be abortive
  int m_writeIdleMs = -1;       // send time-out set on m_dataConn; -1: not yet
  FtpTlsPolicy m_tls;           // for the server of this session; kRequire: TLS is up
  int m_mlsd = -1;              // -1 not asked yet, 0 no, 1 the server offers MLSD
  bool m_epsvRefused = false;

  FtpClientData_t m_data;
};
