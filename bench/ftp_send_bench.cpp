// Sends one local file with CFtpClient the way the upload engine does: a new file (mode 0)
// written in 16384-byte blocks (the file is read in 1 MiB pieces). The server and the file
// come from the environment, so that
// scripts/bench-ftp can run it beside other clients against the same server:
//   FTP_BENCH_HOST, FTP_BENCH_PORT, FTP_BENCH_USER, FTP_BENCH_PASS, FTP_BENCH_DIR (remote),
//   FTP_BENCH_FILE (local path).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/ftpclient.h"
#include "platform/text.h"

namespace {

void Quiet(int, const char*, ...) {}

std::string Env(const char* name, const char* fallback) {
  const char* v = getenv(name);
  return v != nullptr ? v : fallback;
}

void BM_FtpSendFile(benchmark::State& state) {
  std::string file = Env("FTP_BENCH_FILE", "");
  if (file.empty()) {
    state.SkipWithError("FTP_BENCH_FILE not set (run scripts/bench-ftp)");
    return;
  }
  UserDefServerSet_t server;
  memset(&server, 0, sizeof(server));
  server.port = static_cast<uint16_t>(atoi(Env("FTP_BENCH_PORT", "21").c_str()));
  CopyText(server.host, sizeof(server.host), Env("FTP_BENCH_HOST", "127.0.0.1").c_str());
  CopyText(server.user, sizeof(server.user), Env("FTP_BENCH_USER", "anonymous").c_str());
  CopyText(server.password, sizeof(server.password), Env("FTP_BENCH_PASS", "bench@").c_str());
  CopyText(server.path, sizeof(server.path), Env("FTP_BENCH_DIR", "").c_str());
  // The file is read in 1 MiB pieces, so that what is measured is the client's sending: the
  // pieces go out in 16384-byte writes, as the upload engine hands them over.
  constexpr size_t kReadSize = 1 << 20;
  constexpr size_t kWriteSize = 16384;
  std::unique_ptr<char[]> block(new char[kReadSize]);
  int64_t total = 0;
  for (auto _ : state) {
    std::unique_ptr<CFtpClient> c(NewFtpClient());
    c->Init(Quiet);
    c->FtpSetServerInfo(&server);
    c->FtpSetLocalInfo("", "velmar.bin");
    int in = open(file.c_str(), O_RDONLY);
    if (in < 0 || c->FtpStart() != 0) {
      if (in >= 0) close(in);
      state.SkipWithError("cannot open the file or log in");
      return;
    }
    int fd = c->FtpCreateDateSockFd(0);
    ssize_t n = 0;
    while (fd >= 0 && (n = read(in, block.get(), kReadSize)) > 0) {
      for (ssize_t at = 0; fd >= 0 && at < n; at += kWriteSize) {
        int len = static_cast<int>(std::min<ssize_t>(kWriteSize, n - at));
        if (c->FtpWriteDate(fd, block.get() + at, len, 10) != len) fd = -1;
      }
      if (fd >= 0) total += n;
    }
    close(in);
    if (fd < 0 || c->FtpClose() != 0) {
      state.SkipWithError("transfer failed");
      return;
    }
  }
  state.SetBytesProcessed(total);
}
BENCHMARK(BM_FtpSendFile)
    ->Iterations(1)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
