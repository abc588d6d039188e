#include "rules/shell_words.h"

#include <cstring>
#include <string>

#include "platform/text.h"

namespace {

bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         strchr("._+-@=,/:%", c) != nullptr;
}

// value as one shell word into *word; false when it cannot be one (see ShellWord).
bool QuoteWord(const char* value, std::string* word) {
  if (value == nullptr || value[0] == '\0' || value[0] == '-') return false;
  bool plain = true;
  for (const char* p = value; *p != '\0'; ++p) {
    if (static_cast<unsigned char>(*p) < 0x20 || *p == 0x7f) return false;
    plain = plain && IsPlain(*p);
  }
  if (plain) {
    *word = value;
    return true;
  }
  *word = "'";
  for (const char* p = value; *p != '\0'; ++p) {
    if (*p == '\'') {
      *word += "'\\''";
    } else {
      *word += *p;
    }
  }
  *word += "'";
  return true;
}

// A field of account as a terminated text.
template <size_t N>
std::string Field(const char (&field)[N]) {
  char text[N + 1];
  CopyField(text, sizeof(text), field, N);
  return text;
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
  std::string word;
  if (cap == 0 || !QuoteWord(value, &word) || word.size() >= cap) return false;
  memcpy(out, word.c_str(), word.size() + 1);
  return true;
}

FtpCommandResult FtpToolCommand(const char* tool, const UpgradeSet_t& account, const char* first,
                                const char* second, char* out, size_t cap) {
  if (cap > 0) out[0] = '\0';
  std::string user, password, host, firstWord, secondWord;
  if (!QuoteWord(Field(account.user).c_str(), &user) ||
      !QuoteWord(Field(account.password).c_str(), &password) ||
      !QuoteWord(Field(account.host).c_str(), &host)) {
    return FTP_COMMAND_BAD_ACCOUNT;
  }
  if (!QuoteWord(first, &firstWord)) return FTP_COMMAND_BAD_FIRST;
  if (!QuoteWord(second, &secondWord)) return FTP_COMMAND_BAD_SECOND;
  std::string line = std::string(tool) + " -u " + user + " -p " + password + " -P " +
                     std::to_string(account.port) + " " + host + " " + firstWord + " " + secondWord;
  if (line.size() >= cap) return FTP_COMMAND_TOO_LONG;
  memcpy(out, line.c_str(), line.size() + 1);
  return FTP_COMMAND_OK;
}
