// Files in which the service publishes its state for other programs (velmarctl status): each
// is replaced atomically, so a reader sees the old or the new text, never a mixture.
#pragma once

#include <functional>
#include <string>

// Appends "key=value\n" to *text. A control byte in the value (which may come from outside)
// is written as '?', so that no value can start a line of its own.
void AppendStateLine(std::string* text, const char* key, const std::string& value);

// Calls line(key, value) for each "key=value" line of the state file <name>, in order. False
// when the file cannot be read.
bool ReadStateLines(const char* name,
                    const std::function<void(const std::string&, const std::string&)>& line);

// Writes text as $VELMAR_ROOT/run/velmar/<name>, atomically. 0, or -1 on failure.
int PublishStateFile(const char* name, const std::string& text);

// Reads $VELMAR_ROOT/run/velmar/<name> (at most 64 KiB). False when it cannot be read.
bool ReadStateFile(const char* name, std::string* text);
