// Values from outside (file names, user names, passwords, hosts, paths) before they enter a
// shell command line, and the command lines of busybox ftpget and ftpput built from them.
#pragma once

#include <cstddef>

#include "platform/config.h"

// A name of a file to download: one path component of letters, digits and "._+-@=,", not
// starting with "-" or ".", without "..". Anything else is refused: it could run something,
// name another file ("~" is a home directory to a shell) or write outside the target directory.
bool IsSafeFileName(const char* name);

// Writes value as one shell word into out: unchanged when it has only characters a shell
// takes literally anywhere in a word (so not "~"), otherwise in single quotes. False (and
// nothing usable) for an empty value, one with control characters, one starting with "-" (it
// would read as an option), or one that does not fit.
bool ShellWord(const char* value, char* out, size_t cap);

// What FtpToolCommand made of its values.
enum FtpCommandResult {
  FTP_COMMAND_OK = 0,
  FTP_COMMAND_BAD_ACCOUNT = -1,  // user, password or host is no usable shell word
  FTP_COMMAND_BAD_FIRST = -2,    // the first file is none
  FTP_COMMAND_BAD_SECOND = -3,   // the second file is none
  FTP_COMMAND_TOO_LONG = -4,     // the line does not fit
};

// Composes "<tool> -u USER -p PASSWORD -P PORT HOST FIRST SECOND" into out (cap bytes), each
// value one shell word (ShellWord), so that tool receives exactly these values as its
// arguments. User, password and host are read within their fields of account (they need not
// be terminated). For ftpget, first is the local file and second the remote one; for ftpput,
// first is the remote file and second the local one. A line that does not fit is never cut.
// On any result but FTP_COMMAND_OK, out holds an empty text.
FtpCommandResult FtpToolCommand(const char* tool, const UpgradeSet_t& account, const char* first,
                                const char* second, char* out, size_t cap);
