#include "rules/maintain_ftp.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/env.h"
#include "platform/fileutil.h"
#include "platform/ftpclient.h"
#include "platform/log.h"
#include "platform/text.h"

namespace {

constexpr int64_t kMaxFetchBytes = INT32_MAX;  // an entry's size is a 32-bit number
constexpr int kSendBlock = 16384;
constexpr int kWriteIdleSeconds = 10;

// The account as a client's server record; false when a value does not fit it.
bool ServerOf(const UpgradeSet_t& account, UserDefServerSet_t* server) {
  memset(server, 0, sizeof(*server));
  char host[sizeof(account.host) + 1];
  char user[sizeof(account.user) + 1];
  char password[sizeof(account.password) + 1];
  CopyField(host, sizeof(host), account.host, sizeof(account.host));
  CopyField(user, sizeof(user), account.user, sizeof(account.user));
  CopyField(password, sizeof(password), account.password, sizeof(account.password));
  if (host[0] == '\0' || strlen(host) >= sizeof(server->host) ||
      strlen(user) >= sizeof(server->user) || strlen(password) >= sizeof(server->password)) {
    return false;
  }
  memcpy(server->host, host, strlen(host));
  memcpy(server->user, user, strlen(user));
  memcpy(server->password, password, strlen(password));
  server->port = account.port;
  return true;
}

// A client logged in to the account's login directory for the file name, or null (logged).
std::unique_ptr<CFtpClient> LoggedIn(Env* env, const UpgradeSet_t& account, const char* name) {
  UserDefServerSet_t server;
  if (!ServerOf(account, &server)) {
    WriteDbgLog(2, "maintenance over TLS: the account does not fit the FTP client\n");
    return nullptr;
  }
  std::unique_ptr<CFtpClient> client(env->NewFtpClient());
  client->Init(WriteDbgLog);
  client->FtpSetServerInfo(&server);
  client->FtpSetLocalInfo("", name);
  if (client->FtpStart() < 0) {
    client->FtpClose();
    return nullptr;
  }
  return client;
}

void TlsFetch(Env* env, const UpgradeSet_t& account, const char* local, const char* remote,
              int seconds) {
  std::string why;
  int fd = CreateRegularFile(local, &why);
  if (fd < 0) {
    WriteDbgLog(2, "maintenance fetch of %s: %s: %s\n", remote, local, why.c_str());
    return;
  }
  std::unique_ptr<CFtpClient> client = LoggedIn(env, account, remote);
  int64_t got = client != nullptr ? client->FtpGetFile(fd, kMaxFetchBytes, seconds) : -1;
  if (client != nullptr) client->FtpClose();
  close(fd);
  if (got < 0) {
    unlink(local);  // a part of a file is never left to be judged
    WriteDbgLog(2, "maintenance fetch of %s over TLS failed\n", remote);
    return;
  }
  WriteDbgLog(0, "maintenance fetch of %s over TLS: %lld bytes\n", remote,
              static_cast<long long>(got));
}

void TlsSend(Env* env, const UpgradeSet_t& account, const char* remote, const char* local,
             int seconds) {
  std::string why;
  int fd = OpenRegularFile(local, O_RDONLY, &why);
  if (fd < 0) {
    WriteDbgLog(2, "maintenance send of %s: %s\n", local, why.c_str());
    return;
  }
  std::unique_ptr<CFtpClient> client = LoggedIn(env, account, remote);
  int data = client != nullptr ? client->FtpCreateDateSockFd(0) : -1;
  bool ok = data >= 0;
  const int64_t deadline = env->NowMs() + static_cast<int64_t>(seconds) * 1000;
  char buf[kSendBlock];
  while (ok) {
    if (env->NowMs() > deadline) {  // a server that takes each block slowly, but takes it
      ok = false;
      break;
    }
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n <= 0) {
      ok = n == 0;
      break;
    }
    ok = client->FtpWriteDate(data, buf, static_cast<int>(n), kWriteIdleSeconds) == n;
  }
  if (client != nullptr) ok = client->FtpClose() == 0 && ok;
  close(fd);
  WriteDbgLog(2, "maintenance send of %s as %s over TLS %s\n", local, remote,
              ok ? "done" : "failed");
}

bool NeedsTls(const UpgradeSet_t& account) {
  char host[sizeof(account.host) + 1];
  CopyField(host, sizeof(host), account.host, sizeof(account.host));
  return FtpTlsRequiredFor(host);
}

// The busybox tool's line, logged at logLevel and run within seconds; nothing runs unless it
// could be composed whole.
FtpCommandResult ViaBusybox(Env* env, const char* tool, const UpgradeSet_t& account,
                            const char* first, const char* second, int seconds, int logLevel) {
  char command[256];
  FtpCommandResult r = FtpToolCommand(tool, account, first, second, command, sizeof(command));
  if (r != FTP_COMMAND_OK) return r;
  WriteDbgLog(logLevel, "%s\n", command);
  env->RunCommand(command, seconds);
  return FTP_COMMAND_OK;
}

}  // namespace

FtpCommandResult MaintainFetch(Env* env, const UpgradeSet_t& account, const char* local,
                               const char* remote, int seconds) {
  if (NeedsTls(account)) {
    if (local == nullptr || !IsSafeFileName(remote)) return FTP_COMMAND_BAD_SECOND;
    TlsFetch(env, account, local, remote, seconds);
    return FTP_COMMAND_OK;
  }
  return ViaBusybox(env, "ftpget", account, local, remote, seconds, 0);
}

FtpCommandResult MaintainSend(Env* env, const UpgradeSet_t& account, const char* remote,
                              const char* local, int seconds) {
  if (NeedsTls(account)) {
    if (!IsSafeFileName(remote) || local == nullptr) return FTP_COMMAND_BAD_FIRST;
    TlsSend(env, account, remote, local, seconds);
    return FTP_COMMAND_OK;
  }
  return ViaBusybox(env, "ftpput", account, remote, local, seconds, 2);
}
