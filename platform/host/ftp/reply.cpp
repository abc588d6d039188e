#include "platform/host/ftp/reply.h"

#include <cctype>
#include <cstring>

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Parses up to maxDigits decimal digits at text[*pos]; -1 when there is none.
long ParseNumber(const std::string& text, size_t* pos, int maxDigits) {
  long value = 0;
  int digits = 0;
  while (*pos < text.size() && IsDigit(text[*pos]) && digits < maxDigits) {
    value = value * 10 + (text[*pos] - '0');
    ++*pos;
    ++digits;
  }
  if (digits == 0 || (*pos < text.size() && IsDigit(text[*pos]))) return -1;
  return value;
}

}  // namespace

void FtpReplyParser::Reset() {
  m_line.clear();
  m_reply = FtpReply();
  m_inMulti = false;
  m_done = false;
  m_error = nullptr;
}

FtpReplyParser::Status FtpReplyParser::Fail(const char* why) {
  m_error = why;
  return kError;
}

FtpReplyParser::Status FtpReplyParser::Feed(const char* data, size_t len, size_t* used) {
  *used = 0;
  if (m_error != nullptr) return kError;
  if (m_done) return kDone;
  for (size_t i = 0; i < len; ++i) {
    char c = data[i];
    *used = i + 1;
    if (c == '\0') return Fail("NUL byte in reply");
    if (c == '\n') {
      if (!m_line.empty() && m_line.back() == '\r') m_line.pop_back();
      Status s = EndLine();
      if (s != kNeedMore) return s;
      continue;
    }
    // One byte of slack for the CR that precedes LF.
    if (m_line.size() >= kFtpMaxReplyLine + 1) return Fail("reply line too long");
    m_line.push_back(c);
  }
  return kNeedMore;
}

FtpReplyParser::Status FtpReplyParser::EndLine() {
  const std::string& l = m_line;  // cleared once the line is used
  if (l.size() > kFtpMaxReplyLine) return Fail("reply line too long");
  if (m_reply.text.size() + l.size() + 1 > kFtpMaxReplyBytes) return Fail("reply too large");
  bool hasCode = l.size() >= 3 && l[0] >= '1' && l[0] <= '5' && IsDigit(l[1]) && IsDigit(l[2]) &&
                 (l.size() == 3 || l[3] == ' ' || l[3] == '-');
  int code = hasCode ? (l[0] - '0') * 100 + (l[1] - '0') * 10 + (l[2] - '0') : 0;
  if (!m_inMulti) {
    if (!hasCode) return Fail("not an FTP reply");
    bool multi = l.size() > 3 && l[3] == '-';
    m_reply.code = code;
    m_reply.text = l;
    m_line.clear();
    if (multi) {
      m_inMulti = true;
      return kNeedMore;
    }
    m_done = true;
    return kDone;
  }
  bool last = hasCode && code == m_reply.code && (l.size() == 3 || l[3] == ' ');
  m_reply.text.push_back('\n');
  m_reply.text += l;
  m_line.clear();
  if (last) {
    m_inMulti = false;
    m_done = true;
    return kDone;
  }
  return kNeedMore;
}

int ParseEpsvPort(const std::string& text) {
  size_t open = text.find('(');
  if (open == std::string::npos || open + 4 > text.size()) return -1;
  char d = text[open + 1];
  if (d < 33 || d > 126 || IsDigit(d)) return -1;
  if (text[open + 2] != d || text[open + 3] != d) return -1;
  size_t pos = open + 4;
  long port = ParseNumber(text, &pos, 5);
  if (port <= 0 || port > 65535) return -1;
  if (pos + 1 >= text.size() || text[pos] != d || text[pos + 1] != ')') return -1;
  return static_cast<int>(port);
}

int ParsePasvPort(const std::string& text) {
  // The numbers follow the code, in parentheses or not: find the first digit after it.
  size_t pos = 3;
  while (pos < text.size() && !IsDigit(text[pos])) ++pos;
  long n[6];
  for (int i = 0; i < 6; ++i) {
    n[i] = ParseNumber(text, &pos, 3);
    if (n[i] < 0 || n[i] > 255) return -1;
    if (i < 5) {
      if (pos >= text.size() || text[pos] != ',') return -1;
      ++pos;
    }
  }
  int port = static_cast<int>(n[4] * 256 + n[5]);
  return port > 0 ? port : -1;
}

bool FeatOffersMlsd(const std::string& text) {
  // Feature lines begin with a space; the first and last lines carry the code.
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    size_t i = 0;
    while (i < line.size() && line[i] == ' ') ++i;
    if (i > 0 && line.size() >= i + 4) {
      std::string word = line.substr(i, 4);
      for (char& c : word) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
      bool ends = line.size() == i + 4 || line[i + 4] == ' ';
      if (ends && (word == "MLST" || word == "MLSD")) return true;
    }
    start = end + 1;
  }
  return false;
}
