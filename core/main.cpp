// velmar: the upload and remote-maintenance service of the vehicle video recorder.
// It has no command line and no configuration of its own; VELMAR_ROOT (empty on the device)
// names the sandbox root under which it finds its fixed paths.
#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "control/ftp_ctrl_mng.h"
#include "core/ftp_upload_interface.h"
#include "core/main_loop.h"
#include "maintain/ftp_maintain_mng.h"
#include "platform/env.h"
#include "platform/log.h"
#include "upload/ftp_upload_file_mng.h"

int main() {
  // A send prints a line per 16 KiB block: on a terminal line by line, elsewhere in blocks
  // that the main loop flushes on every pass.
  setvbuf(stdout, nullptr, isatty(STDOUT_FILENO) ? _IOLBF : _IOFBF, 0);
  // A peer that closes a socket must end a transfer, not the service.
  signal(SIGPIPE, SIG_IGN);
  // A file size limit (ulimit -f) must fail the write that passes it, which is logged where
  // it happens, not end the service.
  signal(SIGXFSZ, SIG_IGN);

  Env::Default()->SleepUs(3 * 1000000ULL);
  CFtpMaintainMng* maintain = CFtpMaintainMng::Instance();
  // Created before any thread that could reach them is started; the control manager hands
  // itself to the engine as its task control.
  CFtpCtrlMng::Instance();

  CFtpUploadInterface::Instance()->StartListen();
  CFtpUploadFileMng::Instance()->StartSyncThread();
  maintain->Start();

  WriteDbgLog(0, "Velmar Start\n");
  CMainLoop loop;
  loop.Run();
}
