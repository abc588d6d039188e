#include "platform/host/ftp/tls_policy.h"

#include <sys/stat.h>

#include <fstream>
#include <mutex>
#include <sstream>
#include <vector>

#include "platform/log.h"
#include "platform/paths.h"

namespace {

constexpr size_t kMaxPolicyBytes = 256 * 1024;  // a larger file is refused as a whole
constexpr const char* kPinPrefix = "sha256:";

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

struct Cached {
  bool valid = false;
  std::string path;
  timespec mtime{};
  off_t size = -1;
  ino_t ino = 0;
  std::string text;
  bool unreadable = false;
};

}  // namespace

FtpTlsPolicy ParseFtpTlsPolicy(const std::string& text, const std::string& host,
                               std::string* problems) {
  FtpTlsPolicy own, any;
  bool haveOwn = false, haveAny = false;
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    if (words.empty() || words[0][0] == '#') continue;
    FtpTlsPolicy p;
    bool ok = ParseEntry(words, &p);
    bool mine = words[0] == host, star = words[0] == "*";
    if (ok && ((mine && haveOwn) || (star && haveAny))) {
      ok = false;
      p.why = "second entry for " + words[0].substr(0, 64);
    }
    if (!ok && problems != nullptr) {
      *problems += "line " + std::to_string(number) + ": " + p.why + "\n";
    }
    if (!ok) {  // nothing of a broken entry is used
      FtpTlsPolicy broken;
      broken.mode = FtpTlsPolicy::kBroken;
      broken.why = "line " + std::to_string(number) + ": " + p.why;
      p = broken;
    }
    if (mine) {
      // A broken entry stays broken whatever follows.
      if (!haveOwn || own.mode != FtpTlsPolicy::kBroken) own = p;
      haveOwn = true;
    } else if (star) {
      if (!haveAny || any.mode != FtpTlsPolicy::kBroken) any = p;
      haveAny = true;
    }
  }
  if (haveAny && any.mode == FtpTlsPolicy::kBroken) return any;
  if (haveOwn) return own;
  return any;
}

FtpTlsPolicy LookupFtpTlsPolicy(const std::string& host) {
  static std::mutex mutex;
  static Cached* cache = new Cached();
  std::string path = RootedPath("/etc/velmar/ftps.conf");
  std::lock_guard<std::mutex> lock(mutex);
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    cache->valid = false;
    return FtpTlsPolicy();
  }
  bool same = cache->valid && cache->path == path && st.st_ino == cache->ino &&
              st.st_size == cache->size && st.st_mtim.tv_sec == cache->mtime.tv_sec &&
              st.st_mtim.tv_nsec == cache->mtime.tv_nsec;
  if (!same) {
    *cache = Cached();
    cache->valid = true;
    cache->path = path;
    cache->mtime = st.st_mtim;
    cache->size = st.st_size;
    cache->ino = st.st_ino;
    cache->unreadable = !S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) > kMaxPolicyBytes;
    std::ifstream in(path, std::ios::binary);
    if (!cache->unreadable && in.is_open()) {
      std::vector<char> buf(kMaxPolicyBytes + 1);
      in.read(buf.data(), static_cast<std::streamsize>(buf.size()));
      size_t got = static_cast<size_t>(in.gcount());
      cache->unreadable = in.bad() || got > kMaxPolicyBytes;
      cache->text.assign(buf.data(), got);
    } else {
      cache->unreadable = true;
    }
    if (cache->unreadable) {
      WriteDbgLog(2, "TLS policy %s unreadable: every FTP connection refused\n", path.c_str());
    } else {
      std::string problems;
      ParseFtpTlsPolicy(cache->text, "", &problems);
      if (!problems.empty()) {
        WriteDbgLog(2, "TLS policy %s: entries refused:\n%s", path.c_str(), problems.c_str());
      }
    }
  }
  if (cache->unreadable) {
    FtpTlsPolicy p;
    p.mode = FtpTlsPolicy::kBroken;
    p.why = "policy file unreadable";
    return p;
  }
  return ParseFtpTlsPolicy(cache->text, host, nullptr);
}
