// Uploads many small files through upload control, the scheduler and the upload engine with
// the host's FTP client, task database and log files, and reports how the log files fared
// against their size cap (VELMAR_LOG_MAX_KIB). Only the clock, the status service and the bus
// are simulated: a clock that jumps over the engine's pauses is what lets 10,000 tasks run in
// minutes instead of the 17 hours their pauses take. The server comes from the environment
// (scripts/log-soak starts one): FTP_BENCH_HOST, FTP_BENCH_PORT, FTP_BENCH_USER,
// FTP_BENCH_PASS; LOG_BENCH_TASKS tasks (default 10000).
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "control/ftp_ctrl_mng.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"
#include "upload/ftp_upload_file_mng.h"

namespace {

std::string EnvOr(const char* name, const char* fallback) {
  const char* v = getenv(name);
  return v != nullptr ? v : fallback;
}

struct LogWatch {
  std::string path;
  int64_t last = 0, written = 0, largest = 0, rotations = 0;
  // Follows the file's size after each task: a shrink is a rotation.
  void Sample() {
    struct stat st;
    int64_t now = stat(path.c_str(), &st) == 0 ? st.st_size : 0;
    if (now < last) {
      ++rotations;
      written += now;
    } else {
      written += now - last;
    }
    if (now > largest) largest = now;
    last = now;
  }
};

void BM_SmallUploadsAgainstTheLogCap(benchmark::State& state) {
  if (getenv("FTP_BENCH_PORT") == nullptr) {
    state.SkipWithError("FTP_BENCH_PORT not set (run scripts/log-soak)");
    return;
  }
  const int tasks = atoi(EnvOr("LOG_BENCH_TASKS", "10000").c_str());
  for (auto _ : state) {
    TempRoot root;
    FakeClock clock;
    FakeStatus status;
    FakeBus bus;
    TestEnv env;
    env.clock = &clock, env.status = &status, env.bus = &bus;
    const std::string disk = root.path() + "/mnt/sd1";
    MakeDirs(disk.c_str());
    status.disks.push_back({1, 1});
    status.mounts[DISK_USAGE_UPLOAD].push_back(FakeStatus::Entry(1, disk));
    CFtpUploadFileMng engine(&env);
    CFtpCtrlMng mng(&env, &engine);
    engine.m_pFtpClient = env.NewFtpClient();  // the engine deletes it
    engine.m_pFtpClient->Init(WriteDbgLog);
    mng.CheckDiskState(static_cast<uint32_t>(clock.NowMs() / 1000));

    LogWatch logs[] = {{root.path() + "/var/log/velmar/velmar.log"},
                       {root.path() + "/var/log/velmar/user.log"}};
    ftpFileInfo_t previous{};
    int completed = 0, stuck = 0;
    for (int i = 1; i <= tasks && stuck == 0; ++i) {
      const std::string name = "f" + std::to_string(i) + ".bin";
      root.Write("/data/" + name, "task " + std::to_string(i) + "\n");
      ftpFileInfo_t t{};
      t.seq = static_cast<uint32_t>(i), t.valid = 1, t.net = 7, t.trans = 1;
      t.server.port = static_cast<uint16_t>(atoi(EnvOr("FTP_BENCH_PORT", "21").c_str()));
      CopyText(t.server.host, sizeof(t.server.host), EnvOr("FTP_BENCH_HOST", "127.0.0.1").c_str());
      CopyText(t.server.user, sizeof(t.server.user), EnvOr("FTP_BENCH_USER", "user").c_str());
      CopyText(t.server.password, sizeof(t.server.password),
               EnvOr("FTP_BENCH_PASS", "secret").c_str());
      CopyText(t.fullName, sizeof(t.fullName), (root.path() + "/data/" + name).c_str());
      CopyText(t.fileName, sizeof(t.fileName), name.c_str());
      // At most 500 files per directory, so that listings stay short.
      CopyText(t.fileDir, sizeof(t.fileDir), ("b" + std::to_string(i / 500)).c_str());
      mng.InsertFileInfo(&t);
      // Scheduler passes and upload passes, as the main loop and the upload thread make
      // them, until the task's completion is announced (a pass that cannot end it in 20
      // steps means the server or the engine is stuck).
      for (int step = 0; bus.Events(EVENT_FILE_UPLOAD).size() < size_t(i); ++step) {
        if (step == 20) {
          stuck = i;
          break;
        }
        mng.ScheduleTask(static_cast<uint32_t>(clock.NowMs() / 1000));
        clock.AdvanceMs(200);
        TaskControl_t c = LoadTaskControl(&engine.m_stTask);
        if (c.valid == 1 && c.result == 0 && c.trans == 1) engine.RunPass(&previous);
      }
      completed = static_cast<int>(bus.Events(EVENT_FILE_UPLOAD).size());
      for (LogWatch& w : logs) w.Sample();
    }
    if (stuck != 0) {
      state.SkipWithError(("task " + std::to_string(stuck) + " did not complete").c_str());
      return;
    }
    state.counters["tasks"] = completed;
    state.counters["log_bytes_per_task"] = double(logs[0].written) / completed;
    state.counters["log_largest_bytes"] = double(logs[0].largest);
    state.counters["log_rotations"] = double(logs[0].rotations);
    state.counters["user_log_largest_bytes"] = double(logs[1].largest);
  }
}
BENCHMARK(BM_SmallUploadsAgainstTheLogCap)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
