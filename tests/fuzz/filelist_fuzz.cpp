// A file list from the server, parsed and judged: entries stay inside their fields, and the
// scope and date parsing of every entry ends.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "maintain/ftp_maintain_mng.h"
#include "tests/fakes/fakes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  DiscardLogFiles();
  static FakeStatus* status = new FakeStatus();
  static TestEnv* env = [] {
    TestEnv* e = new TestEnv();
    e->status = status;
    return e;
  }();
  static CFtpMaintainMng* mng = new CFtpMaintainMng(env);
  char path[] = "/tmp/velmar-filelist-fuzz-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return 0;
  if (write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    unlink(path);
    return 0;
  }
  close(fd);
  FtpFileList_t list{};
  mng->ParseFileList(path, &list);
  unlink(path);
  for (int i = 0; i < list.count; ++i) {
    const FtpFileItem_t& item = list.pItems[i];
    if (strnlen(item.FileName, sizeof(item.FileName)) >= sizeof(item.FileName) ||
        strnlen(item.Scope, sizeof(item.Scope)) >= sizeof(item.Scope)) {
      __builtin_trap();
    }
    mng->IsNeedLoadFile(&item);
  }
  CAutoLock guard(&mng->m_lock);
  ClearFileList(&list);
  return 0;
}
