// Files in which the service publishes its state for other programs (velmarctl status): each
// is replaced atomically, so a reader sees the old or the new text, never a mixture.
#pragma once

#include <string>

// Writes text as $VELMAR_ROOT/run/velmar/<name>, atomically. 0, or -1 on failure.
int PublishStateFile(const char* name, const std::string& text);

// Reads $VELMAR_ROOT/run/velmar/<name> (at most 64 KiB). False when it cannot be read.
bool ReadStateFile(const char* name, std::string* text);
