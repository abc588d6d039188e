// The control connection of an FTP session: commands out, replies in, each bounded in time on
// the session's clock.
#pragma once

#include <memory>
#include <string>

#include "platform/host/ftp/reply.h"
#include "platform/host/ftp/transport.h"

class FtpControl {
 public:
  explicit FtpControl(FtpClock* clock) : m_clock(clock) {}
  FtpControl(const FtpControl&) = delete;
  FtpControl& operator=(const FtpControl&) = delete;

  // Takes a new connection; drops the old one and bytes left from it.
  void Attach(std::unique_ptr<FtpConn> conn);
  void Close();
  // Hands the connection over (to be wrapped in TLS) and drops bytes received but not yet
  // read, so that nothing sent before the switch is read as if it came after it.
  std::unique_ptr<FtpConn> Detach();
  bool open() const { return m_conn != nullptr; }
  // The connection, or nullptr when none is open.
  const FtpConn* conn() const { return m_conn.get(); }

  // Sends "command CRLF". Refuses (-1) a command containing CR, LF or NUL, so that a name
  // from a task record cannot smuggle in a second command. 0 or -1 with *err set.
  int Send(const std::string& command, int timeoutMs, std::string* err);

  // Reads the next complete reply within timeoutMs. Returns its code (100..599), or -1 with
  // *err set: time-out, connection closed, or a reply that breaks the bounds of FtpReplyParser.
  // After -1 the connection is unusable and should be closed.
  int ReadReply(FtpReply* reply, int timeoutMs, std::string* err);

  // Send() then ReadReply() for replies other than 1xx preliminaries (which are skipped), all
  // within timeoutMs.
  int Command(const std::string& command, FtpReply* reply, int timeoutMs, std::string* err);

 private:
  FtpClock* const m_clock;
  std::unique_ptr<FtpConn> m_conn;
  std::string m_pending;  // received bytes not yet parsed
  FtpReplyParser m_parser;
};
