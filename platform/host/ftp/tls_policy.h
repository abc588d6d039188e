// Which FTP servers velmar speaks TLS with (explicit FTPS), from a line file of velmar's own,
// $VELMAR_ROOT/etc/velmar/ftps.conf (format in docs/FORMATS.md). The task record carries no
// TLS setting, so the policy is chosen by the server's host name alone.
#pragma once

#include <cstddef>
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
// the "*" entry, else kOff. Host words compare as hosts, not as texts: names without regard to
// case or a final dot, addresses by value in any form inet_aton or inet_pton reads. A file with
// one unusable line (a broken entry, or a second entry for one host) is never read in part:
// it yields kBroken for every host. Each unusable line appends one line to *problems (when
// not null).
FtpTlsPolicy ParseFtpTlsPolicy(const std::string& text, const std::string& host,
                               std::string* problems);

// True when pin (32 bytes) is the SHA-256 of the len bytes at der (a DER certificate).
bool FtpTlsPinMatches(const std::string& pin, const unsigned char* der, size_t len);

// The policy for host from the host's file, re-read whenever it changes (path, inode, size or
// modification time). Only a file that does not exist at all (not even as a dangling link) is
// kOff for every host. Fails closed: a file that cannot be read whole as a regular file, or is
// empty, or has an unusable line, is kBroken for every host. A leading UTF-8 byte-order mark
// is dropped. Problems are logged once per version of the file. Safe from any thread.
FtpTlsPolicy LookupFtpTlsPolicy(const std::string& host);
