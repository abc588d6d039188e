// Tasks admitted per second through InsertFileInfo with the durable database settings
// (every admission is on the medium before it returns). The database lies in a directory
// under the working directory, so that it measures the real disk, not a RAM file system.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "control/ftp_ctrl_mng.h"
#include "platform/byteorder.h"
#include "platform/env.h"
#include "platform/file2ftpdb.h"
#include "platform/fileutil.h"
#include "platform/status.h"
#include "platform/text.h"
#include "upload/ftp_upload_file_mng.h"

namespace {

// One disk with id 1 at dir; counts failed database writes. Everything else is the host's.
class OneDiskEnv : public EnvWrapper {
 public:
  struct CountingDb : public CFile2FtpDbMng {
    int errors = 0;
    int Insert(__ftp_log* row) override {
      int r = CFile2FtpDbMng::Insert(row);
      if (r < 0) ++errors;
      return r;
    }
  };

  explicit OneDiskEnv(std::string dir) : EnvWrapper(Env::Default()), m_dir(std::move(dir)) {}
  int GetStatus(STATUS_E which, void* buf) override {
    memset(buf, 0, StatusRecordSize(which));
    uint8_t* b = static_cast<uint8_t*>(buf);
    if (which == STATUS_DISK) {
      StoreLE32(b, 1);
      StoreLE32(b + 4, 1);
      StoreLE32(b + 12, 1);
    } else if (which == STATUS_RECORDER) {
      StoreLE32(b + 128, 1);
    }
    return 0;
  }
  int SetStatus(STATUS_E, void*) override { return 0; }
  int GetDiskForCommUsage(LOG_STATUS_E usage, PartStatus_t* list) override {
    memset(list, 0, sizeof(*list));
    if (usage == DISK_USAGE_UPLOAD) {
      list->count = 1;
      list->part[0].type = 1;
      CopyText(list->part[0].path, sizeof(list->part[0].path), m_dir.c_str());
    }
    return 0;
  }
  CFile2FtpDbMng* TaskDb() override { return &db; }

  CountingDb db;

 private:
  std::string m_dir;
};

void BM_InsertFileInfo(benchmark::State& state) {
  char tmpl[] = "./bench-intake-XXXXXX";
  std::string base = mkdtemp(tmpl);
  char cwd[512];
  std::string dir = std::string(getcwd(cwd, sizeof(cwd))) + "/" + base.substr(2) + "/mnt/sd1";
  MakeDirs(dir.c_str());
  // The per-task log lines go to the bench directory, not to the terminal.
  setenv("VELMAR_ROOT", base.c_str(), 1);
  int savedErr = dup(STDERR_FILENO);
  if (getenv("BENCH_VERBOSE") == nullptr) (void)!freopen("/dev/null", "w", stderr);
  OneDiskEnv env(dir);
  CFtpUploadFileMng engine(&env);
  CFtpCtrlMng* mng = new CFtpCtrlMng(&env, &engine);
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
  if (env.db.errors > 0) state.SkipWithError("database writes failed");
  state.SetItemsProcessed(n);
  delete mng;
  fflush(stderr);
  dup2(savedErr, STDERR_FILENO);
  close(savedErr);
  (void)!system(("rm -rf " + base).c_str());
}
BENCHMARK(BM_InsertFileInfo)->Unit(benchmark::kMicrosecond)->MinTime(3.0)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
