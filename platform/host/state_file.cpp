#include "platform/state_file.h"

#include "platform/fileutil.h"
#include "platform/host/atomic_file.h"
#include "platform/paths.h"

int PublishStateFile(const char* name, const std::string& text) {
  const std::string dir = RootedPath("/run/velmar");
  if (MakeDirs(dir.c_str()) != 0) return -1;
  return ReplaceFileAtomically(dir + "/" + name, text.data(), text.size());
}

void AppendStateLine(std::string* text, const char* key, const std::string& value) {
  *text += key;
  *text += '=';
  for (char c : value) *text += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  *text += '\n';
}

bool ReadStateLines(const char* name,
                    const std::function<void(const std::string&, const std::string&)>& line) {
  std::string text;
  if (!ReadStateFile(name, &text)) return false;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    size_t eq = text.find('=', at);
    if (eq < end) line(text.substr(at, eq - at), text.substr(eq + 1, end - eq - 1));
    at = end + 1;
  }
  return true;
}

bool ReadStateFile(const char* name, std::string* text) {
  std::string why;
  return ReadRegularFile((RootedPath("/run/velmar") + "/" + name).c_str(), 64 * 1024, text, &why);
}
