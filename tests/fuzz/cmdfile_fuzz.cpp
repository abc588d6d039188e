// A command file from the server, parsed as a log-command and as a user-command file: every
// command stays inside its fields, and nothing outlives the parse.
#include <tinyxml.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "maintain/command_files.h"
#include "tests/fakes/fakes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  DiscardLogFiles();
  std::string text(reinterpret_cast<const char*>(data), size);
  TiXmlDocument doc;
  doc.Parse(text.c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
  const TiXmlElement* root = doc.RootElement();
  if (root == nullptr) return 0;

  int32_t expiry[6];
  LogCmdItem_t* logItems = nullptr;
  int n = ParseLogCmdItems(root, expiry, &logItems);
  for (int i = 0; i < n; ++i) {
    if (logItems[i].scope != nullptr && strlen(logItems[i].scope) > size) __builtin_trap();
  }
  FreeLogCmdItems(logItems, n);

  UsrCmdItem_t* usrItems = nullptr;
  n = ParseUsrCmdItems(root, &usrItems);
  for (int i = 0; i < n; ++i) {
    if (strnlen(usrItems[i].command, sizeof(usrItems[i].command)) >= sizeof(usrItems[i].command)) {
      __builtin_trap();
    }
    std::string followUp;
    int limit = 0;
    UsrCmdFollowUp(usrItems[i].command, &followUp, &limit);
  }
  FreeUsrCmdItems(usrItems, n);
  return 0;
}
