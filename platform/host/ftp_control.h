// The control connection of an FTP session: commands out, replies in, each bounded in time.
#pragma once

#include <string>

#include "platform/host/ftp_reply.h"

class FtpControl {
 public:
  FtpControl() = default;
  ~FtpControl() { Close(); }
  FtpControl(const FtpControl&) = delete;
  FtpControl& operator=(const FtpControl&) = delete;

  // Takes ownership of a connected descriptor; drops bytes left from an earlier session.
  void Attach(int fd);
  void Close();
  int fd() const { return m_fd; }

  // Sends "command CRLF". Refuses (-1) a command containing CR, LF or NUL, so that a name
  // from a task record cannot smuggle in a second command. 0 or -1 with *err set.
  int Send(const std::string& command, int timeoutMs, std::string* err);

  // Reads the next complete reply within timeoutMs. Returns its code (100..599), or -1 with
  // *err set: time-out, connection closed, or a reply that breaks the bounds of FtpReplyParser.
  // After -1 the connection is unusable and should be closed.
  int ReadReply(FtpReply* reply, int timeoutMs, std::string* err);

  // Send() then ReadReply() for replies other than 1xx preliminaries (which are skipped).
  int Command(const std::string& command, FtpReply* reply, int timeoutMs, std::string* err);

 private:
  int m_fd = -1;
  std::string m_pending;  // received bytes not yet parsed
  FtpReplyParser m_parser;
};
