#include "platform/host/ftp/tls_policy.h"

#include <arpa/inet.h>
#include <errno.h>
#include <mbedtls/sha256.h>
#include <sodium.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <vector>

#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/thread.h"

namespace {

constexpr size_t kMaxPolicyBytes = 256 * 1024;  // a larger file is refused as a whole
constexpr const char* kPinPrefix = "sha256:";
constexpr const char* kUtf8Bom = "\xEF\xBB\xBF";

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "sha256:" and 64 hex digits, colons between byte pairs allowed (as openssl prints them).
bool ParsePin(const std::string& text, std::string* pin) {
  if (text.compare(0, 7, kPinPrefix) != 0) return false;
  std::string digits;
  for (size_t i = 7; i < text.size(); ++i) {
    if (text[i] == ':') continue;
    if (HexDigit(text[i]) < 0) return false;
    digits.push_back(text[i]);
  }
  if (digits.size() != 64) return false;
  pin->clear();
  for (size_t i = 0; i < 64; i += 2) {
    pin->push_back(static_cast<char>(HexDigit(digits[i]) * 16 + HexDigit(digits[i + 1])));
  }
  return true;
}

// Reads the words after the host word into *p. False with p->why on the first bad word.
bool ParseEntry(const std::vector<std::string>& words, FtpTlsPolicy* p) {
  if (words.size() < 2) {
    p->why = "no mode";
    return false;
  }
  if (words[1] == "off") {
    p->mode = FtpTlsPolicy::kOff;
  } else if (words[1] == "require") {
    p->mode = FtpTlsPolicy::kRequire;
  } else {
    p->why = "unknown mode \"" + words[1].substr(0, 64) + "\"";
    return false;
  }
  bool seenCa = false, seenVerify = false, seenPin = false;
  for (size_t i = 2; i < words.size(); ++i) {
    const std::string& w = words[i];
    size_t eq = w.find('=');
    std::string key = w.substr(0, eq), value = eq == std::string::npos ? "" : w.substr(eq + 1);
    bool* seen = key == "ca"            ? &seenCa
                 : key == "verify_host" ? &seenVerify
                 : key == "pin"         ? &seenPin
                                        : nullptr;
    bool ok = seen != nullptr && !*seen && eq != std::string::npos && !value.empty();
    if (ok && key == "ca") p->ca = value;
    if (ok && key == "verify_host") {
      ok = value == "yes" || value == "no";
      p->verifyHost = value == "yes";
    }
    if (ok && key == "pin") ok = ParsePin(value, &p->pin);
    if (!ok) {
      p->why = "bad word \"" + w.substr(0, 64) + "\"";
      return false;
    }
    *seen = true;
  }
  return true;
}

// One form of a host for comparison: an address as its bytes (IPv4 in any form inet_aton reads,
// IPv6 in any form inet_pton reads, an IPv4-mapped IPv6 address as its IPv4 address), a name
// in lower case without a final dot.
std::string HostKey(const std::string& host) {
  in_addr v4;
  in6_addr v6;
  if (inet_aton(host.c_str(), &v4) != 0) {
    return "4:" + std::string(reinterpret_cast<const char*>(&v4.s_addr), 4);
  }
  if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
    const char* b = reinterpret_cast<const char*>(v6.s6_addr);
    if (IN6_IS_ADDR_V4MAPPED(&v6)) return "4:" + std::string(b + 12, 4);
    return "6:" + std::string(b, 16);
  }
  std::string name = host;
  if (name.size() > 1 && name.back() == '.') name.pop_back();
  for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return "n:" + name;
}

// Every entry of a policy text, keyed by HostKey (or "*"), or why the text is unusable.
struct ParsedPolicy {
  std::map<std::string, FtpTlsPolicy> entries;
  FtpTlsPolicy broken;  // kBroken, with why, when one line is unusable
};

// The policy file as last read: what it was (its signature) and its entries, or why it is
// unusable. Parsed once per version of the file, not once per connection.
struct Cached {
  std::string signature;  // empty: never read; "absent": no file
  ParsedPolicy parsed;
  std::string unusable;  // why the whole file refuses every host; empty when it is usable
};

CLock g_policyLock;
Cached g_policy GUARDED_BY(g_policyLock);

// What identifies one version of the file at path (also a broken one): "" when it does not
// exist at all. A link is followed for its target's version.
std::string Signature(const std::string& path) {
  if (NothingAt(path.c_str())) return "";
  struct stat st;
  char sig[160];
  if (stat(path.c_str(), &st) != 0) {
    snprintf(sig, sizeof(sig), "error %d", errno);
  } else {
    snprintf(sig, sizeof(sig), "%lu %lu %lld %lld.%09ld %o", static_cast<unsigned long>(st.st_dev),
             static_cast<unsigned long>(st.st_ino), static_cast<long long>(st.st_size),
             static_cast<long long>(st.st_mtim.tv_sec), st.st_mtim.tv_nsec,
             static_cast<unsigned>(st.st_mode));
  }
  return sig;
}

// The words of a line: runs of anything but blanks (space, tab, CR, LF, VT, FF).
std::vector<std::string> Words(const std::string& line) {
  static const char kBlanks[] = " \t\r\n\v\f";
  std::vector<std::string> words;
  for (size_t at = line.find_first_not_of(kBlanks); at != std::string::npos;) {
    size_t end = line.find_first_of(kBlanks, at);
    words.push_back(line.substr(at, end - at));
    at = line.find_first_not_of(kBlanks, end);
  }
  return words;
}

// Every entry of text; each unusable line appends one line to *problems (when not null), and
// the first makes the whole text unusable.
ParsedPolicy ParseAll(const std::string& text, std::string* problems) {
  ParsedPolicy parsed;
  parsed.broken.mode = FtpTlsPolicy::kBroken;
  for (size_t start = 0, number = 1; start < text.size(); ++number) {
    size_t end = std::min(text.find('\n', start), text.size());
    const std::vector<std::string> words = Words(text.substr(start, end - start));
    start = end + 1;
    if (words.empty() || words[0][0] == '#') continue;
    FtpTlsPolicy p;
    std::string entryKey = words[0] == "*" ? "*" : HostKey(words[0]);
    bool ok = ParseEntry(words, &p);
    if (ok && !parsed.entries.emplace(entryKey, p).second) {
      ok = false;
      p.why = "second entry for " + words[0].substr(0, 64);
    }
    if (!ok) {  // one unusable line makes the whole file unusable, for every host
      std::string why = "line " + std::to_string(number) + ": " + p.why;
      if (problems != nullptr) *problems += why + "\n";
      if (parsed.broken.why.empty()) parsed.broken.why = why;
    }
  }
  return parsed;
}

// The policy for host: its own entry, else the "*" entry, else kOff.
FtpTlsPolicy PolicyFor(const ParsedPolicy& parsed, const std::string& host) {
  if (!parsed.broken.why.empty()) return parsed.broken;
  auto own = parsed.entries.find(HostKey(host));
  if (own != parsed.entries.end()) return own->second;
  auto any = parsed.entries.find("*");
  return any != parsed.entries.end() ? any->second : FtpTlsPolicy();
}

// Reads the file at path into *c and logs what makes it unusable or what was changed.
void ReadPolicy(const std::string& path, Cached* c) {
  std::string why;
  std::string text;
  if (!ReadRegularFile(path.c_str(), kMaxPolicyBytes, &text, &why)) {
    c->unusable = why;
  } else if (text.empty()) {
    // A file cut to nothing is a failed edit far more often than a wish for clear text.
    c->unusable = "empty";
  } else {
    if (text.compare(0, 3, kUtf8Bom) == 0) {
      WriteDbgLog(2, "TLS policy %s: UTF-8 byte-order mark ignored\n", path.c_str());
      text.erase(0, 3);
    }
    std::string problems;
    c->parsed = ParseAll(text, &problems);
    if (!problems.empty()) {
      WriteDbgLog(2, "TLS policy %s: entries refused:\n%s", path.c_str(), problems.c_str());
      c->unusable = "unusable entries";
    }
  }
  if (!c->unusable.empty()) {
    WriteDbgLog(2, "TLS policy %s unusable (%s): every FTP connection refused\n", path.c_str(),
                c->unusable.c_str());
  }
}

}  // namespace

FtpTlsPolicy ParseFtpTlsPolicy(const std::string& text, const std::string& host,
                               std::string* problems) {
  return PolicyFor(ParseAll(text, problems), host);
}

bool FtpTlsPinMatches(const std::string& pin, const unsigned char* der, size_t len) {
  unsigned char digest[32];
  if (pin.size() != sizeof(digest) || der == nullptr) return false;
  return mbedtls_sha256_ret(der, len, digest, 0) == 0 &&
         sodium_memcmp(digest, pin.data(), sizeof(digest)) == 0;
}

FtpTlsPolicy LookupFtpTlsPolicy(const std::string& host) {
  std::string path = RootedPath("/etc/velmar/ftps.conf");
  CAutoLock guard(&g_policyLock);
  Cached& cache = g_policy;
  // The path is part of the signature: another root is another file.
  std::string signature = Signature(path);
  signature = signature.empty() ? "absent" : path + " " + signature;
  if (signature != cache.signature) {
    cache = Cached();
    cache.signature = signature;
    if (signature != "absent") ReadPolicy(path, &cache);
  }
  if (signature == "absent") return FtpTlsPolicy();
  if (!cache.unusable.empty()) {
    FtpTlsPolicy p;
    p.mode = FtpTlsPolicy::kBroken;
    p.why = "policy file unusable: " + cache.unusable;
    return p;
  }
  return PolicyFor(cache.parsed, host);
}
