// Replacing a whole file so that readers, and the file system after a power cut, see either
// the old content or the new one, never a part.
#pragma once

#include <cstddef>
#include <string>

// Writes len bytes of data to the temporary file ".<name>.tmp" beside path (a hidden name, so
// that a reader who lists the directory and skips hidden entries never takes it for a finished
// file), syncs it, renames it over path and syncs the directory. Returns 0, or -1 when any
// step failed: then the temporary file is gone and path holds what it held before, except
// when only the final sync of the directory failed (the new content is in place but may not
// survive a power cut).
int ReplaceFileAtomically(const std::string& path, const void* data, size_t len);

// Writes all len bytes to fd, resuming after a signal or a short write. False when a write
// failed or wrote nothing.
bool WriteAll(int fd, const void* data, size_t len);
