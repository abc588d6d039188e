#include "maintain/shell_values.h"

#include <cstring>
#include <string>

namespace {

bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         strchr("._+-@=,/:%", c) != nullptr;
}

}  // namespace

bool IsSafeFileName(const char* name) {
  if (name == nullptr || name[0] == '\0' || name[0] == '-' || name[0] == '.') return false;
  if (strstr(name, "..") != nullptr) return false;
  for (const char* p = name; *p != '\0'; ++p) {
    char c = *p;
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              strchr("._+-@=,", c) != nullptr;
    if (!ok) return false;
  }
  return true;
}

bool ShellWord(const char* value, char* out, size_t cap) {
  if (value == nullptr || value[0] == '\0' || value[0] == '-' || cap == 0) return false;
  bool plain = true;
  for (const char* p = value; *p != '\0'; ++p) {
    if (static_cast<unsigned char>(*p) < 0x20 || *p == 0x7f) return false;
    plain = plain && IsPlain(*p);
  }
  std::string word;
  if (plain) {
    word = value;
  } else {
    word = "'";
    for (const char* p = value; *p != '\0'; ++p) word += *p == '\'' ? std::string("'\\''") : std::string(1, *p);
    word += "'";
  }
  if (word.size() >= cap) return false;
  memcpy(out, word.c_str(), word.size() + 1);
  return true;
}
