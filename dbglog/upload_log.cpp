// Debug-log upload: picks the debug logs of a time span from each disk's debug directory and
// sends them to the maintenance FTP server with ftpput, optionally with a disk report first.
#include "dbglog/upload_log.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/clock.h"
#include "platform/env.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/status.h"
#include "platform/text.h"
#include "rules/date_text.h"
#include "rules/maintain_ftp.h"
#include "rules/scope.h"
#include "rules/shell_words.h"

namespace {

const char kLogNameFormat[] = "dbglog-%04d%02d%02d-%02d%02d%02d.log";
const size_t kLogNameLength = 26;
const int kMaxResults = 10;

// The moment of a command's span: six bytes, the year given as year - 2000.
int64_t SpanTime(const uint8_t* v) {
  const int32_t fields[6] = {v[0], v[1], v[2], v[3], v[4], v[5]};
  return LocalTime2000(fields);
}

// True for the four command types that have the disk-access tool write a report first.
bool IsReportType(int type) { return type == 10 || type == 13 || type == 20 || type == 23; }

// Why an upload is not sent, for the log; null when its command line was made. The remote
// name carries the file name, the local one the directory as well.
const char* FtpRefusal(FtpCommandResult result) {
  switch (result) {
    case FTP_COMMAND_OK:
      return nullptr;
    case FTP_COMMAND_BAD_ACCOUNT:
      return "user, password or host unusable in a command line";
    case FTP_COMMAND_BAD_FIRST:
      return "file name unusable in a command line";
    case FTP_COMMAND_BAD_SECOND:
      return "directory unusable in a command line";
    case FTP_COMMAND_TOO_LONG:
      break;
  }
  return "command line too long";
}

// Sends dir/name as "<deviceNo>_<name>" unless its time lies outside (start, end).
void UploadOne(Env* env, const UpgradeSet_t* settings, long long deviceNo, const char* dir,
               const char* name, int64_t start, int64_t end) {
  int f[6] = {0, 0, 0, 0, 0, 0};
  int parsed = sscanf(name, kLogNameFormat, &f[0], &f[1], &f[2], &f[3], &f[4], &f[5]);
  printf("FileRtc: %04d-%02d-%02d %02d:%02d:%02d\n", f[0], f[1], f[2], f[3], f[4], f[5]);
  // A name whose time does not read completely has no time, so it is never in a span.
  if (parsed != 6) return;
  const int32_t fields[6] = {f[0] - 2000, f[1], f[2], f[3], f[4], f[5]};
  int64_t when = LocalTime2000(fields);
  if (!(start < when && when < end)) return;

  char remote[160];
  char local[512];
  const char* refusal = nullptr;
  if (deviceNo < 0) {
    refusal = "a negative device number would make the remote name read as an option";
  } else if (FormatBounded(remote, sizeof(remote), "%lld_%s", deviceNo, name) != 0 ||
             FormatBounded(local, sizeof(local), "%s/%s", dir, name) != 0) {
    refusal = "command line too long";
  } else {
    refusal = FtpRefusal(MaintainSend(env, *settings, remote, local, 600));
  }
  if (refusal != nullptr) {
    // A cut command line could name another file or break a quote: never run it.
    WriteDbgLog(2, "UploadDiskLog: %s/%s not sent: %s\n", dir, name, refusal);
  }
}

}  // namespace

int DbgLogFilter(const struct dirent* entry) {
  if (entry == nullptr) return 0;
  const char* name = entry->d_name;
  if (strlen(name) != kLogNameLength) return 0;
  return strncmp(name, "dbglog", 6) == 0 && strcmp(name + 22, ".log") == 0 ? 1 : 0;
}

int queryDiskInfo(Env* env, const char* device, const char* reportPath, int parameter) {
  char tool[256];
  char toolWord[300];
  char reportWord[300];
  char command[256];
  // device is composed by the caller (" /dev/sdaN") and goes in as it is. A cut command line
  // could redirect the report into another file, so it is never run.
  if (RootedPath("/app/diskaccess", tool, sizeof(tool)) != 0 ||
      !ShellWord(tool, toolWord, sizeof(toolWord)) ||
      !ShellWord(reportPath, reportWord, sizeof(reportWord)) ||
      FormatBounded(command, sizeof(command), "%s %s p %d >%s", toolWord, device, parameter,
                    reportWord) != 0) {
    WriteDbgLog(2, "queryDiskInfo: no report for %s: command line unusable or too long\n", device);
    return -1;
  }
  printf("cmd:%s\n", command);
  env->RunCommandUnlimited(command);
  env->SleepMs(2000);

  // The report is opened as a regular file only: something else in its place must not stall
  // the maintenance thread.
  std::string why;
  int report = OpenRegularFile(reportPath, O_RDONLY, &why);
  if (report < 0) {
    WriteDbgLog(2, "queryDiskInfo: report %s unusable: %s\n", reportPath, why.c_str());
    return -1;
  }
  // The tool may still be writing: wait until two sizes taken 500 ms apart agree.
  long previous = -1;
  for (int i = 0; i < 172; ++i) {
    struct stat st;
    long size = fstat(report, &st) == 0 ? static_cast<long>(st.st_size) : -1;
    if (i > 0 && size == previous) break;
    previous = size;
    if (i < 171) env->SleepMs(500);
  }
  close(report);
  puts("queryDiskInfo quit");
  return 0;
}

int UploadDiskLog(Env* env, UpgradeSet_t* settings, long long deviceNo, const char* diskPath,
                  LogCmdItem_t* item) {
  if (settings == nullptr || diskPath == nullptr || item == nullptr) return -1;
  {
    char host[sizeof(settings->host) + 1], user[sizeof(settings->user) + 1];
    char password[sizeof(settings->password) + 1];
    char path[sizeof(settings->path) + 1], name[sizeof(settings->name) + 1];
    CopyField(host, sizeof(host), settings->host, sizeof(settings->host));
    CopyField(user, sizeof(user), settings->user, sizeof(settings->user));
    CopyField(password, sizeof(password), settings->password, sizeof(settings->password));
    CopyField(path, sizeof(path), settings->path, sizeof(settings->path));
    CopyField(name, sizeof(name), settings->name, sizeof(settings->name));
    // GBK text: "IP:%s   port:%d    user:%s  password:%s\n".
    printf("IP:%s   \xb6\xcb\xbf\xda:%d    \xd3\xc3\xbb\xa7:%s  \xc3\xdc\xc2\xeb:%s\n", host,
           settings->port, user, password);
    printf("path:%s  name:%s\n", path, name);
  }
  if (item->type == 1) return 0;

  int64_t start = SpanTime(item->start);
  int64_t end = SpanTime(item->end);
  char reportPath[256] = "";
  char reportWord[300] = "";
  bool reportMade = false;
  if (IsReportType(item->type)) {
    long now = static_cast<long>(env->WallSeconds());
    struct tm t;
    memset(&t, 0, sizeof(t));
    comm_localtime_r(&now, &t);
    // A cut path could name some other file: then no report at all.
    if (FormatBounded(reportPath, sizeof(reportPath),
                      "%s/debug/dbglog-%04d%02d%02d-%02d%02d%02d.log", diskPath, t.tm_year + 1900,
                      t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec) == 0 &&
        ShellWord(reportPath, reportWord, sizeof(reportWord))) {
      char device[32];
      FormatBounded(device, sizeof(device), " /dev/sda%d", item->type / 10);
      queryDiskInfo(env, device, reportPath, item->type % 10);
      reportMade = true;
    } else {
      WriteDbgLog(2, "UploadDiskLog: no disk report on %s: path too long or unusable\n", diskPath);
    }
  }

  char dir[256];
  if (FormatBounded(dir, sizeof(dir), "%s/debug", diskPath) != 0) {
    WriteDbgLog(2, "UploadDiskLog: disk path too long: %s\n", diskPath);
    return -1;
  }
  struct dirent** list = nullptr;
  int count = scandir(dir, &list, DbgLogFilter, alphasort);
  if (count <= 0) {
    WriteDbgLog(0, "UploadDiskLog: no debug logs in %s\n", dir);
    free(list);
    return -1;
  }

  for (int i = 0; i < count; ++i) {
    printf("LogFileList[%d] = %s\n", i, list[i]->d_name);
    UploadOne(env, settings, deviceNo, dir, list[i]->d_name, start, end);
    free(list[i]);
  }
  free(list);

  if (reportMade) {
    char command[256];
    if (FormatBounded(command, sizeof(command), "rm %s", reportWord) == 0) {
      env->RunCommand(command, 60);
    } else {
      WriteDbgLog(2, "UploadDiskLog: report %s not removed: path too long\n", reportPath);
    }
  }
  return count;
}

int UploadLog(Env* env, UpgradeSet_t* settings, const int32_t* expiry, LogCmdItem_t* item) {
  if (settings == nullptr || expiry == nullptr || item == nullptr) {
    WriteDbgLog(2, "UploadLog: no settings, expiry or command\n");
    return -1;
  }
  int64_t expires = LocalTime2000(expiry);
  if (expires < static_cast<int64_t>(env->WallSeconds())) {
    WriteDbgLog(2, "UploadLog out of date\n");
    return -1;
  }
  long long deviceNo = ConfigDeviceNumber(env->Config());
  // Each range examined is echoed on standard error so that a refused command can be
  // followed by hand.
  bool in = InScope(item->scope, deviceNo, [deviceNo](const char* at, long long lo, long long hi) {
    fprintf(stderr, "UploadLog : %s --> %lld~%lld, %lld\n", at, lo, hi, deviceNo);
  });
  if (!in) {
    WriteDbgLog(2, "UploadLog not in scope\n");
    return -1;
  }

  PartStatus_t disks;
  memset(&disks, 0, sizeof(disks));
  if (env->GetDiskForCommUsage(DISK_USAGE_MAINTAIN, &disks) != 0) disks.count = 0;
  WriteDbgLog(2, "PathCount = %d\n", disks.count);
  int results[kMaxResults];
  memset(results, 0, sizeof(results));
  const int n = disks.count < 0 ? 0 : (disks.count > 8 ? 8 : disks.count);
  for (int i = 0; i < n; ++i) {
    char path[sizeof(disks.part[i].path) + 1];
    CopyField(path, sizeof(path), disks.part[i].path, sizeof(disks.part[i].path));
    WriteDbgLog(2, "  PathName = %s\n", path);
    results[i] = UploadDiskLog(env, settings, deviceNo, path, item);
  }

  if (IsReportType(item->type) || n == 0) return 0;
  bool anyLogs = false;
  for (int i = 0; i < n; ++i) anyLogs = anyLogs || results[i] > 0;
  if (anyLogs) {
    // The account was lent for this one command: it is withdrawn once the uploads are done.
    env->SleepMs(2000);
    memset(settings->user, 0, sizeof(settings->user));
    memset(settings->password, 0, sizeof(settings->password));
  }
  return 0;
}
