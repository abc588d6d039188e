// Parsing of command files and checking of configuration archives, apart from acting on
// them, so that each can be tested and fuzzed on its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "dbglog/upload_log.h"

class TiXmlElement;

// One command of a user-command file.
struct UsrCmdItem_t {
  char command[128];  // the shell command line, at most 127 characters
  char* scope;        // heap copy of attribute "scope", null when absent; only logged
};

// Builds the commands of a log-command file from the children of root into a new realloc'ed
// array (*items, released with FreeLogCmdItems) and returns their number. expiry receives the
// six values of the file's ExpiryDate; without a readable one they are all 0, a moment long
// past, so that such a file is refused as out of date.
int ParseLogCmdItems(const TiXmlElement* root, int32_t expiry[6], LogCmdItem_t** items);
void FreeLogCmdItems(LogCmdItem_t* items, int count);

// The same for a user-command file. A CMDITEM without text is left out.
int ParseUsrCmdItems(const TiXmlElement* root, UsrCmdItem_t** items);
void FreeUsrCmdItems(UsrCmdItem_t* items, int count);

// True when the user command text (compared exactly) is followed by a disk-wide variant;
// command and limit (seconds) then receive it. Its /mnt/sd1 and /mnt/sd2 lie under the
// sandbox root.
bool UsrCmdFollowUp(const char* text, std::string* command, int* limit);

// True when the tar archive in data is safe to unpack into a directory: plain ustar/GNU
// headers with valid checksums, and only regular files and directories named "config" or
// "config/...", without an absolute path, a ".." component, a link or a special file.
// Otherwise false, with the reason in why.
bool CheckConfigArchive(const uint8_t* data, size_t len, std::string* why);
