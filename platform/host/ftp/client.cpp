// CFtpClient presents an FtpSession: each call forwards to the session's call of the same role.
#include "platform/host/ftp/client.h"

#include "platform/host/ftp/session.h"
#include "platform/host/ftp/socket_transport.h"
#include "platform/host/ftp/tls_policy.h"

struct CFtpClient::Impl {
  Impl(std::unique_ptr<FtpTransport> transport, FtpClock* clock)
      : session(std::move(transport), clock) {}
  FtpSession session;
};

namespace {

class ClientOver : public CFtpClient {
 public:
  ClientOver(std::unique_ptr<FtpTransport> transport, FtpClock* clock) {
    Impl* impl = new Impl(std::move(transport), clock);
    delete m_pImpl;  // the socket session the base made, never used
    m_pImpl = impl;
  }
};

}  // namespace

CFtpClient::CFtpClient() : m_pImpl(new Impl(NewSocketTransport(), MonotonicFtpClock())) {}

CFtpClient::~CFtpClient() { delete m_pImpl; }

int CFtpClient::Init(FtpLogFn_f log) { return m_pImpl->session.Init(log); }

void CFtpClient::FtpSetTimeLimits(const FtpTimeLimits_t& limits) {
  m_pImpl->session.SetTimeLimits(limits);
}

int CFtpClient::FtpSetServerInfo(UserDefServerSet_t* server) {
  return m_pImpl->session.SetServerInfo(server);
}

int CFtpClient::FtpSetLocalInfo(const char* dir, const char* name) {
  return m_pImpl->session.SetLocalInfo(dir, name);
}

int CFtpClient::FtpStart() { return m_pImpl->session.Start(); }

int CFtpClient::FtpGetServerDirFile() { return m_pImpl->session.GetServerDirFile(); }

FtpClientData_t* CFtpClient::FtpGetClientData() { return m_pImpl->session.ClientData(); }

int64_t CFtpClient::FtpGetFileSize() { return m_pImpl->session.GetFileSize(); }

int CFtpClient::FtpCreateDateSockFd(int mode) { return m_pImpl->session.CreateDataConn(mode); }

int CFtpClient::FtpWriteDate(int fd, const char* buf, int len, int timeout) {
  return m_pImpl->session.WriteData(fd, buf, len, timeout);
}

int64_t CFtpClient::FtpGetFile(int fd, int64_t maxBytes, int seconds) {
  return m_pImpl->session.Retrieve(fd, maxBytes, seconds);
}

bool FtpTlsRequiredFor(const char* host) {
  return LookupFtpTlsPolicy(host != nullptr ? host : "").mode != FtpTlsPolicy::kOff;
}

int CFtpClient::FtpClose() { return m_pImpl->session.Close(); }

CFtpClient* NewFtpClient() { return new CFtpClient(); }

CFtpClient* NewFtpClientOver(std::unique_ptr<FtpTransport> transport, FtpClock* clock) {
  return new ClientOver(std::move(transport), clock);
}
