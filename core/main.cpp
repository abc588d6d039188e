// velmar: the upload and remote-maintenance service of the vehicle video recorder, and its
// control tool velmarctl in the same program, so that a recorder carries one copy of the
// libraries and runtimes both need. Started under a name that ends in "velmarctl" (the link
// installed as /usr/bin/velmarctl) it is the control tool, under any other name the service.
// The service has no command line and no configuration of its own; VELMAR_ROOT (empty on the
// device) names the sandbox root under which it finds its fixed paths.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "control/ftp_ctrl_mng.h"
#include "core/ftp_upload_interface.h"
#include "core/main_loop.h"
#include "core/velmarctl_main.h"
#include "maintain/ftp_maintain_mng.h"
#include "platform/env.h"
#include "platform/log.h"
#include "upload/ftp_upload_file_mng.h"

namespace {

const char kUsage[] =
    "usage: velmar\n"
    "  the recorder's upload and maintenance service: it takes no arguments, runs in the\n"
    "  foreground and finds its files under VELMAR_ROOT (the device's own paths when unset).\n"
    "  Started as velmarctl (a link to this program) it is the control tool: velmarctl --help\n";

// The control tool is the program started under a name (a path) that ends in "velmarctl":
// "/usr/bin/velmarctl", a wrapper's "armhf-velmarctl". No name, or an empty one, is the service.
bool StartedAsVelmarctl(const char* argv0) {
  const char kName[] = "velmarctl";
  const size_t suffix = sizeof(kName) - 1;
  const size_t len = argv0 != nullptr ? strlen(argv0) : 0;
  return len >= suffix && strcmp(argv0 + len - suffix, kName) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (StartedAsVelmarctl(argv[0])) return VelmarctlMain(argc, argv);
  if (argc > 1) {
    const bool help = strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0;
    if (!help) fprintf(stderr, "velmar: unexpected argument %s\n", argv[1]);
    fputs(kUsage, help ? stdout : stderr);
    return help ? 0 : 2;
  }
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
