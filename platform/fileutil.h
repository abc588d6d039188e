// File and shell helpers of the recorder's platform library.
#pragma once

#include <cstddef>
#include <string>

// Exactly 1 when path names an existing regular file, 0 otherwise.
int file_exist(const char* path);
// 0 when path names an existing file or directory, -1 otherwise.
int fileisexist(const char* path);
// Size of the file in bytes (capped at INT32_MAX), -1 when it cannot be examined.
int getfilesize(const char* path);
// Opens path for reading (flags may add O_RDWR or O_APPEND, never O_CREAT) so that the open
// itself cannot wait: a FIFO, device, socket or directory is refused without blocking, and so
// is a symbolic link loop. Returns a descriptor of a regular file, in blocking mode, with
// close-on-exec; or -1 with *why (when not null) saying what was wrong. Every file the
// service reads that may come from outside is opened through here.
int OpenRegularFile(const char* path, int flags, std::string* why);
// True only when nothing at all is at path, not even a dangling link: the one case in which a
// setting file (TLS policy, trust keys, kept serial) counts as absent. Anything else that is
// there but cannot be read must be refused, never read as "no setting".
bool NothingAt(const char* path);
// Creates (or empties) the regular file at path for writing, mode 0644, without following a
// symbolic link and without waiting on a FIFO. A descriptor with close-on-exec, or -1 with
// *why.
int CreateRegularFile(const char* path, std::string* why);
// Reads the regular file at path, of at most maxBytes, into *out. False, with *why saying what
// was wrong, for anything else (missing, a directory, a FIFO or device: never waits for a
// writer, larger than maxBytes, unreadable).
bool ReadRegularFile(const char* path, size_t maxBytes, std::string* out, std::string* why);
// Reads a whole regular file (at most 16 MiB) into a new NUL-terminated heap buffer that the caller
// releases with free(); stores the length in *len. Null on failure or for a larger file.
char* filetobufwithoutbuf(const char* path, int* len);
// Non-zero when part occurs in text; 0 otherwise or when either is null.
int strfind_s(const char* text, const char* part);

// Runs "/bin/sh -c command" in its own process group, with standard input from /dev/null,
// standard output and error shared with the caller (so its messages reach the service's log
// stream) and none of the caller's other descriptors. Waits at most `seconds` seconds for the
// command and every process it started (a job left in the background counts as running);
// then ends the whole group (TERM, then KILL one second later) and reaps it. No zombie is
// left behind. Returns the command's exit status (128+signal when it was killed by a
// signal), or -1 when it could not be started or ran past its limit.
int systemdump(const char* command, int seconds);

// Runs a command like system(3) (no time limit, SIGPIPE at its default in the command): the
// shell's exit status, or -1.
int system_run(const char* command);

// Creates dir and its missing parents (mode 0755). 0 when it exists afterwards, -1 otherwise.
int MakeDirs(const char* dir);
