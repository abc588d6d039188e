#include "platform/host/ftp/listing.h"

#include <strings.h>

#include <cstring>
#include <vector>

#include "platform/text.h"

namespace {

constexpr int64_t kSizeCap = int64_t(1) << 62;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

struct Token {
  size_t begin;
  size_t end;
};

std::vector<Token> Tokens(const char* line, size_t len, size_t maxTokens) {
  std::vector<Token> out;
  size_t i = 0;
  while (i < len && out.size() < maxTokens) {
    while (i < len && line[i] == ' ') ++i;
    if (i >= len) break;
    size_t b = i;
    while (i < len && line[i] != ' ') ++i;
    out.push_back({b, i});
  }
  return out;
}

// Decimal size of line[t], saturating at kSizeCap; false when it is not all digits.
bool ParseSize(const char* line, Token t, int64_t* size) {
  if (t.end == t.begin) return false;
  int64_t v = 0;
  for (size_t i = t.begin; i < t.end; ++i) {
    if (!IsDigit(line[i])) return false;
    v = v < kSizeCap / 10 ? v * 10 + (line[i] - '0') : kSizeCap;  // no signed overflow
  }
  *size = v < kSizeCap ? v : kSizeCap;
  return true;
}

bool AllOf(const char* line, Token t, const char* allowed) {
  if (t.end == t.begin) return false;
  for (size_t i = t.begin; i < t.end; ++i) {
    if (!IsDigit(line[i]) && strchr(allowed, line[i]) == nullptr) return false;
  }
  return true;
}

bool IsMonth(const char* line, Token t) {
  static const char* const kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                        "jul", "aug", "sep", "oct", "nov", "dec"};
  if (t.end - t.begin != 3) return false;
  for (const char* m : kMonths) {
    if (strncasecmp(line + t.begin, m, 3) == 0) return true;
  }
  return false;
}

// The name starts one separator after the token before it and runs to the end of the line.
bool NameAfter(const char* line, size_t len, Token before, FtpListItem* out) {
  size_t start = before.end + 1;
  if (start >= len) return false;
  out->name.assign(line + start, len - start);
  return true;
}

// "-rw-r--r-- 1 owner group 1234 Jan 31 10:15 name" (group or owner may be absent).
bool ParseUnix(const char* line, size_t len, FtpListItem* out) {
  std::vector<Token> t = Tokens(line, len, 9);
  if (t.size() < 6 || t[0].end - t[0].begin < 10 || line[0] != '-') return false;
  for (size_t m = 2; m + 2 < t.size(); ++m) {
    if (!IsMonth(line, t[m])) continue;
    int64_t size = 0;
    if (!ParseSize(line, t[m - 1], &size)) continue;
    Token day = t[m + 1];
    Token when = t[m + 2];
    if (day.end - day.begin > 2 || !AllOf(line, day, "")) continue;
    if (!AllOf(line, when, ":")) continue;
    if (!NameAfter(line, len, when, out)) return false;
    out->size = size;
    return true;
  }
  return false;
}

// "01-31-24  10:15PM      1234 name" or "01-31-2024  22:15  <DIR>  name".
bool ParseDos(const char* line, size_t len, FtpListItem* out) {
  std::vector<Token> t = Tokens(line, len, 3);
  if (t.size() < 3) return false;
  if (!AllOf(line, t[0], "-/.") || t[0].end - t[0].begin < 6) return false;
  Token time = t[1];
  size_t timeEnd = time.end;
  if (timeEnd - time.begin > 2 && (strncasecmp(line + timeEnd - 2, "AM", 2) == 0 ||
                                   strncasecmp(line + timeEnd - 2, "PM", 2) == 0)) {
    timeEnd -= 2;
  }
  if (!AllOf(line, Token{time.begin, timeEnd}, ":")) return false;
  int64_t size = 0;
  if (!ParseSize(line, t[2], &size)) return false;  // "<DIR>" and the like
  if (!NameAfter(line, len, t[2], out)) return false;
  out->size = size;
  return true;
}

// "type=file;size=1234;modify=20240131101500; name"
bool ParseMlsd(const char* line, size_t len, FtpListItem* out) {
  const char* space = static_cast<const char*>(memchr(line, ' ', len));
  if (space == nullptr) return false;
  size_t factsLen = static_cast<size_t>(space - line);
  bool isFile = false;
  bool haveSize = false;
  int64_t size = 0;
  size_t i = 0;
  while (i < factsLen) {
    size_t end = i;
    while (end < factsLen && line[end] != ';') ++end;
    const char* eq = static_cast<const char*>(memchr(line + i, '=', end - i));
    if (eq != nullptr) {
      size_t keyLen = static_cast<size_t>(eq - (line + i));
      size_t valBegin = static_cast<size_t>(eq - line) + 1;
      Token val{valBegin, end};
      if (keyLen == 4 && strncasecmp(line + i, "type", 4) == 0) {
        isFile = end - valBegin == 4 && strncasecmp(line + valBegin, "file", 4) == 0;
      } else if (keyLen == 4 && strncasecmp(line + i, "size", 4) == 0) {
        haveSize = ParseSize(line, val, &size);
      }
    }
    i = end + 1;
  }
  if (!isFile) return false;
  size_t start = factsLen + 1;
  if (start >= len) return false;
  out->name.assign(line + start, len - start);
  out->size = haveSize ? size : -1;  // the facts a server sends are its choice
  return true;
}

}  // namespace

bool IsUsableFtpName(const char* name, size_t len) {
  if (len == 0 || len >= sizeof(FtpDirEntry_t::name)) return false;
  if ((len == 1 && name[0] == '.') || (len == 2 && name[0] == '.' && name[1] == '.')) return false;
  for (size_t i = 0; i < len; ++i) {
    unsigned char c = static_cast<unsigned char>(name[i]);
    if (c < 0x20 || c == 0x7f || c == '/') return false;
  }
  return true;
}

bool ParseFtpListLine(const char* line, size_t len, FtpListFormat fmt, FtpListItem* out) {
  if (fmt == FtpListFormat::kMlsd) return ParseMlsd(line, len, out);
  if (len > 0 && IsDigit(line[0])) return ParseDos(line, len, out);
  return ParseUnix(line, len, out);
}

FtpListingParser::FtpListingParser(FtpListFormat fmt, const char* wanted, FtpDirEntry_t* entries,
                                   int capacity)
    : m_format(fmt),
      m_wanted(wanted != nullptr ? wanted : ""),
      m_entries(entries),
      m_capacity(capacity > 0 ? capacity : 0) {}

void FtpListingParser::Feed(const char* data, size_t len) {
  for (size_t i = 0; i < len; ++i) {
    char c = data[i];
    if (c == '\n') {
      if (!m_discarding) EndLine();
      m_discarding = false;
      m_line.clear();
      continue;
    }
    if (m_discarding) continue;
    if (m_line.size() >= kFtpMaxListLine) {
      m_discarding = true;
      m_line.clear();
      continue;
    }
    m_line.push_back(c);
  }
}

void FtpListingParser::Finish() {
  if (!m_discarding && !m_line.empty()) EndLine();
  m_discarding = false;
  m_line.clear();
}

void FtpListingParser::EndLine() {
  if (!m_line.empty() && m_line.back() == '\r') m_line.pop_back();
  FtpListItem item;
  if (!ParseFtpListLine(m_line.data(), m_line.size(), m_format, &item)) return;
  if (!IsUsableFtpName(item.name.data(), item.name.size())) {
    ++m_skipped;
    return;
  }
  // An entry without a size would read as size 0 and make the caller append the whole file
  // to the server's copy. It is left out; for the wanted file the caller asks for its size.
  if (item.size < 0) {
    if (item.name == m_wanted) m_wantedWithoutSize = true;
    return;
  }
  Keep(item);
}

void FtpListingParser::KeepWanted(int64_t size) {
  if (m_haveWanted || m_wanted.empty() || size < 0) return;
  FtpListItem item;
  item.name = m_wanted;
  item.size = size;
  Keep(item);
}

void FtpListingParser::Keep(const FtpListItem& item) {
  bool wanted = !m_haveWanted && !m_wanted.empty() && item.name == m_wanted;
  int slot = m_count;
  if (m_count >= m_capacity) {
    ++m_dropped;
    if (!wanted || m_capacity == 0) return;
    slot = m_capacity - 1;  // the wanted file replaces the last entry kept
  } else {
    ++m_count;
  }
  if (wanted) m_haveWanted = true;
  FtpDirEntry_t& e = m_entries[slot];
  e.size = item.size;
  CopyText(e.name, sizeof(e.name), item.name.c_str());
}
