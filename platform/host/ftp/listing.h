// Reading FTP directory listings (MLSD, and LIST in the Unix and the Windows/DOS formats)
// from untrusted bytes into the client's data record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/ftpclient.h"

enum class FtpListFormat { kMlsd, kList };

// Longest listing line considered; longer lines are skipped whole.
constexpr size_t kFtpMaxListLine = 4096;

struct FtpListItem {
  std::string name;
  int64_t size = 0;  // -1: the line gave none (MLSD without a readable "size" fact)
};

// True when name (len bytes) can be stored in a record entry as it is: 1 to 127 bytes, no
// '/', no control character (below 0x20, or 0x7f), not "." or "..". Names that fail are
// skipped by the listing, never cut, so that a long name cannot turn into another one.
bool IsUsableFtpName(const char* name, size_t len);

// Parses one listing line (without line terminator). True, with *out filled, when the line
// describes a regular file; directories, links, totals and unreadable lines give false. LIST
// lines need a size; an MLSD line without one gives size -1. kList accepts the Unix "ls -l" format
// (owner or group column may be missing) and the Windows/DOS format ("01-31-24  10:15PM  1234
// name"). The name is not checked here.
bool ParseFtpListLine(const char* line, size_t len, FtpListFormat fmt, FtpListItem* out);

// Streams a listing into entries[0..capacity), in listing order. Only regular files with a
// usable name are kept. When more files are listed than fit, the rest are dropped, except the
// file named wanted: if it comes after the record is full it takes the last slot, so that it is
// always in the record when the server lists it. Files listed without a size are left out.
class FtpListingParser {
 public:
  FtpListingParser(FtpListFormat fmt, const char* wanted, FtpDirEntry_t* entries, int capacity);
  void Feed(const char* data, size_t len);
  // Parses a last line that had no terminator.
  void Finish();

  int count() const { return m_count; }
  int skipped() const { return m_skipped; }  // files with an unusable name
  int dropped() const { return m_dropped; }  // usable files beyond the capacity
  bool haveWanted() const { return m_haveWanted; }
  // The wanted file was listed, but without a size, and not kept.
  bool wantedWithoutSize() const { return m_wantedWithoutSize && !m_haveWanted; }
  // Keeps the wanted file with a size learnt otherwise, as if it had been listed with it.
  void KeepWanted(int64_t size);

 private:
  void EndLine();
  void Keep(const FtpListItem& item);

  const FtpListFormat m_format;
  const std::string m_wanted;
  FtpDirEntry_t* const m_entries;
  const int m_capacity;

  std::string m_line;
  bool m_discarding = false;  // inside a line longer than kFtpMaxListLine
  int m_count = 0;
  int m_skipped = 0;
  int m_dropped = 0;
  bool m_haveWanted = false;
  bool m_wantedWithoutSize = false;
};
