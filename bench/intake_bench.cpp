// Tasks admitted per second through InsertFileInfo with the durable database settings
// (every admission is on the medium before it returns). The database lies in a directory
// under the working directory, so that it measures the real disk, not a RAM file system.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "control/ftp_ctrl_mng.h"
#include "platform/file2ftpdb.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/status.h"

namespace {

// Swallows the per-task log lines; counts failed database writes.
class QuietLog : public ILogSink {
 public:
  int errors = 0;
  void OnDbgLine(int, const char* line) override {
    if (strstr(line, "error") != nullptr) ++errors;
  }
  void OnUserRecord(int, unsigned, const void*, unsigned) override {}
};

// One disk with id 1 at dir.
class OneDisk : public IStatusService {
 public:
  explicit OneDisk(std::string dir) : m_dir(std::move(dir)) {}
  int GetStatus(STATUS_E which, void* buf) override {
    memset(buf, 0, StatusRecordSize(which));
    uint8_t* b = static_cast<uint8_t*>(buf);
    int32_t one = 1;
    if (which == STATUS_DISK) {
      memcpy(b, &one, 4);
      memcpy(b + 4, &one, 4);
      memcpy(b + 12, &one, 4);
    } else if (which == STATUS_RECORDER) {
      memcpy(b + 128, &one, 4);
    }
    return 0;
  }
  int SetStatus(STATUS_E, void*) override { return 0; }
  int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list) override {
    memset(list, 0, sizeof(*list));
    if (usage == DISK_USAGE_UPLOAD) {
      list->count = 1;
      list->part[0].type = 1;
      strncpy(list->part[0].path, m_dir.c_str(), sizeof(list->part[0].path) - 1);
    }
    return 0;
  }
  int CheckDog() override { return 0; }

 private:
  std::string m_dir;
};

class BenchCtrlMng : public CFtpCtrlMng {};

void BM_InsertFileInfo(benchmark::State& state) {
  char tmpl[] = "./bench-intake-XXXXXX";
  std::string base = mkdtemp(tmpl);
  char cwd[512];
  std::string dir = std::string(getcwd(cwd, sizeof(cwd))) + "/" + base.substr(2) + "/mnt/sd1";
  MakeDirs(dir.c_str());
  QuietLog quiet;
  ILogSink* prevLog = SetLogSinkForTest(getenv("BENCH_VERBOSE") ? nullptr : &quiet);
  OneDisk disk(dir);
  IStatusService* prevStatus = SetStatusServiceForTest(&disk);

  CFile2FtpDbMng::Instance()->m_bTabOpen = 0;
  BenchCtrlMng* mng = new BenchCtrlMng();
  mng->CheckDiskState(100);
  ftpFileInfo_t task{};
  task.valid = 1;
  task.trans = 1;
  strcpy(task.fileName, "remote.bin");
  int64_t n = 0;
  for (auto _ : state) {
    snprintf(task.fullName, sizeof(task.fullName), "/data/file-%lld", static_cast<long long>(n));
    task.seq = static_cast<uint32_t>(n++);
    if (mng->InsertFileInfo(&task) != 0) state.SkipWithError("refused");
    if (n % 1000 == 0) {  // keep under the queue limit: the list, not the database
      CAutoLock guard(&mng->m_lock);
      mng->m_taskList.clear();
    }
  }
  if (quiet.errors > 0) state.SkipWithError("database writes failed");
  state.SetItemsProcessed(n);
  SetStatusServiceForTest(prevStatus);
  SetLogSinkForTest(prevLog);
  (void)!system(("rm -rf " + base).c_str());
}
BENCHMARK(BM_InsertFileInfo)->Unit(benchmark::kMicrosecond)->MinTime(3.0)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
