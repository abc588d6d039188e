// Values from outside (file names, user names, passwords, hosts, paths) before they enter a
// shell command line.
#pragma once

#include <cstddef>

// A name of a file to download: one path component of letters, digits and "._+-@=,", not
// starting with "-" or ".", without "..". Anything else is refused: it could run something,
// name another file ("~" is a home directory to a shell) or write outside the target directory.
bool IsSafeFileName(const char* name);

// Writes value as one shell word into out: unchanged when it has only characters a shell
// takes literally anywhere in a word (so not "~"), otherwise in single quotes. False (and nothing usable) for an empty value,
// one with control characters, one starting with "-" (it would read as an option), or one
// that does not fit.
bool ShellWord(const char* value, char* out, size_t cap);
