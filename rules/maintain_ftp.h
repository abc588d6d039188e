// The maintenance road's transfers with the maintenance account: the file list and its
// signature, listed files and command files (fetched), debug logs (sent). When the TLS policy
// requires TLS for the account's host, or cannot be read for it, they go through the
// recorder's own FTP client over explicit FTPS, with the certificate checks uploads have, and
// never in clear text; otherwise through busybox ftpget/ftpput with exactly the command lines
// of FtpToolCommand, as always.
#pragma once

#include "platform/config.h"
#include "rules/shell_words.h"

class Env;

// Brings the file remote of the account's login directory to the local path, within seconds.
// FTP_COMMAND_OK when the transfer ran (whether it brought anything the caller judges by
// what arrived: a failed fetch over TLS leaves no file); otherwise why nothing was started
// (the caller logs it).
FtpCommandResult MaintainFetch(Env* env, const UpgradeSet_t& account, const char* local,
                               const char* remote, int seconds);

// Sends the local file as remote into the account's login directory, within seconds. Results
// as for MaintainFetch.
FtpCommandResult MaintainSend(Env* env, const UpgradeSet_t& account, const char* remote,
                              const char* local, int seconds);
