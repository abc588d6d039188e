// Which FTP servers velmar speaks TLS with (explicit FTPS), from a line file of velmar's own,
// $VELMAR_ROOT/etc/velmar/ftps.conf (format in docs/FORMATS.md). The task record carries no
// TLS setting, so the policy is chosen by the server's host name alone.
#pragma once

#include <string>

struct FtpTlsPolicy {
  enum Mode {
    kOff,      // clear text, as without the file
    kRequire,  // TLS on every connection; never clear text
    kBroken,   // the entry for this host could not be read: no connection at all
  };
  Mode mode = kOff;
  std::string ca;          // CA file or directory; empty: the system's default CAs
  bool verifyHost = true;  // the certificate must name the host (DNS name or IP address)
  std::string pin;         // 32-byte SHA-256 of the server's DER certificate; empty: none
  std::string why;         // kBroken: what was wrong with the entry
};

// Parses the whole text of the policy file. Returns the policy for host: its own entry, else
// the "*" entry, else kOff. An entry that breaks the format is never dropped and never read
// as "off": it yields kBroken for its host (for every host when the host word is "*"), and a
// host named by two entries is kBroken too. Each unusable line appends one line to *problems
// (when not null).
FtpTlsPolicy ParseFtpTlsPolicy(const std::string& text, const std::string& host,
                               std::string* problems);

// The policy for host from the host's file, re-read whenever it changes (path, inode, size or
// modification time). A missing file is kOff for every host; one that cannot be read is
// kBroken. Problems are logged once per version of the file. Safe from any thread.
FtpTlsPolicy LookupFtpTlsPolicy(const std::string& host);
