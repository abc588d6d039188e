// Reading FTP control replies from untrusted bytes.
#pragma once

#include <cstddef>
#include <string>

// Bounds on what one reply may hold. A server that exceeds them is treated as broken.
constexpr size_t kFtpMaxReplyLine = 1024;    // bytes of one reply line, without CR LF
constexpr size_t kFtpMaxReplyBytes = 65536;  // bytes of all lines of one reply

// One complete reply: its three-digit code and its lines joined by '\n' (without CR LF).
struct FtpReply {
  int code = 0;
  std::string text;
};

// Assembles replies from a byte stream, one at a time. A reply is a line "ddd text", or a
// multi-line reply "ddd-text" ... up to the line that begins with the same code followed by
// a space. The first digit must be 1 to 5. Anything else (a first line that is not a reply,
// a line longer than kFtpMaxReplyLine, a reply larger than kFtpMaxReplyBytes, a NUL byte)
// puts the parser in the error state, which only Reset() leaves.
class FtpReplyParser {
 public:
  enum Status { kNeedMore, kDone, kError };

  // Consumes bytes of data up to the end of the reply being assembled and stores in *used
  // how many. kDone: reply() holds the reply and bytes after it are left unconsumed for the
  // next reply (call Reset() first). kNeedMore: all bytes consumed. kError: see error().
  Status Feed(const char* data, size_t len, size_t* used);
  void Reset();
  const FtpReply& reply() const { return m_reply; }
  const char* error() const { return m_error; }

 private:
  Status EndLine();
  Status Fail(const char* why);

  std::string m_line;  // current line, without its terminator
  FtpReply m_reply;    // the reply being assembled
  bool m_inMulti = false;
  bool m_done = false;
  const char* m_error = nullptr;
};

// Port of a "229 Entering Extended Passive Mode (|||port|)" reply; -1 when it has none.
int ParseEpsvPort(const std::string& text);
// Port of a "227 Entering Passive Mode (h1,h2,h3,h4,p1,p2)" reply; -1 when it has none.
// The host part is checked for form only: the data connection always goes to the control
// connection's peer, never to an address a server names.
int ParsePasvPort(const std::string& text);
// True when a FEAT reply announces MLST (and with it MLSD).
bool FeatOffersMlsd(const std::string& text);
