#include "platform/host/ftp/control.h"

void FtpControl::Attach(std::unique_ptr<FtpConn> conn) {
  Close();
  m_conn = std::move(conn);
}

void FtpControl::Close() {
  m_conn.reset();
  m_pending.clear();
  m_parser.Reset();
}

std::unique_ptr<FtpConn> FtpControl::Detach() {
  std::unique_ptr<FtpConn> conn = std::move(m_conn);
  Close();
  return conn;
}

int FtpControl::Send(const std::string& command, int timeoutMs, std::string* err) {
  if (m_conn == nullptr) {
    *err = "not connected";
    return -1;
  }
  if (command.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    *err = "command contains a line break or NUL";
    return -1;
  }
  std::string line = command + "\r\n";
  return m_conn->Send(line.data(), line.size(), timeoutMs, err);
}

int FtpControl::ReadReply(FtpReply* reply, int timeoutMs, std::string* err) {
  if (m_conn == nullptr) {
    *err = "not connected";
    return -1;
  }
  int64_t deadline = m_clock->NowMs() + timeoutMs;
  m_parser.Reset();
  char buf[4096];
  for (;;) {
    if (!m_pending.empty()) {
      size_t used = 0;
      FtpReplyParser::Status s = m_parser.Feed(m_pending.data(), m_pending.size(), &used);
      m_pending.erase(0, used);
      if (s == FtpReplyParser::kDone) {
        *reply = m_parser.reply();
        return reply->code;
      }
      if (s == FtpReplyParser::kError) {
        *err = m_parser.error();
        return -1;
      }
    }
    int64_t left = deadline - m_clock->NowMs();
    ssize_t n = m_conn->Recv(buf, sizeof(buf), left > 0 ? static_cast<int>(left) : 0, err);
    if (n < 0) return -1;
    if (n == 0) {
      *err = "connection closed by server";
      return -1;
    }
    m_pending.append(buf, static_cast<size_t>(n));
  }
}

int FtpControl::Command(const std::string& command, FtpReply* reply, int timeoutMs,
                        std::string* err) {
  int64_t deadline = m_clock->NowMs() + timeoutMs;
  if (Send(command, timeoutMs, err) != 0) return -1;
  for (;;) {
    int64_t left = deadline - m_clock->NowMs();
    if (left <= 0) {
      *err = "timed out waiting for a final reply";
      return -1;
    }
    int code = ReadReply(reply, static_cast<int>(left), err);
    if (code < 100 || code >= 200) return code;
  }
}
