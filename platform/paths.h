// The sandbox root. Every fixed absolute path that the service composes itself (/tmp/...,
// /app/diskaccess, /mnt/sd1, ...) is resolved here: the environment variable VELMAR_ROOT is
// put in front of it (empty on the device, so the paths are exactly the device's). Paths
// that arrive from outside (task file paths, mount directories reported by the status
// service) are used as they are and never pass through here.
#pragma once

#include <cstddef>
#include <string>

// The current root, "" when VELMAR_ROOT is unset. Read anew on every call.
std::string SandboxRoot();

// root + devicePath. Writes at most cap-1 characters and a NUL into out.
// Returns 0, or -1 when the result did not fit (out then holds the cut text).
int RootedPath(const char* devicePath, char* out, size_t cap);
std::string RootedPath(const char* devicePath);
