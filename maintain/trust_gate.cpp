#include "maintain/trust_gate.h"

#include <strings.h>
#include <tinyxml.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "maintain/ftp_maintain_mng.h"
#include "platform/fileutil.h"
#include "platform/paths.h"
#include "platform/trust.h"
#include "platform/xml_file.h"

namespace {

constexpr size_t kSignatureMaxBytes = 4096;
constexpr char kShaPrefix[] = "sha256:";
constexpr size_t kShaPrefixLen = sizeof(kShaPrefix) - 1;

// What an entry's value says of its file's digest: kNone when it names no SHA-256, kBad when
// it starts like one but is not 64 hex digits (never read as none), kNamed with *hex in
// lowercase.
enum class Digest { kNone, kBad, kNamed };

Digest NamedDigest(const FtpFileItem_t& item, std::string* hex) {
  char value[sizeof(item.CrcValue) + 1] = {};
  memcpy(value, item.CrcValue, sizeof(item.CrcValue));
  if (strncasecmp(value, kShaPrefix, kShaPrefixLen) != 0) return Digest::kNone;
  *hex = value + kShaPrefixLen;
  if (hex->size() != 64) return Digest::kBad;
  for (char& c : *hex) {
    if (!isxdigit(static_cast<unsigned char>(c))) return Digest::kBad;
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return Digest::kNamed;
}

// The serial on the root element of a list: 0 when it has none; false when it is not a
// plain decimal number.
bool ListSerial(const std::string& bytes, int64_t* serial) {
  TiXmlDocument doc;
  std::string why;
  *serial = 0;
  if (!ParseXmlText(bytes, &doc, &why)) return true;  // the list's parser refuses it
  const char* text = doc.RootElement()->Attribute("serial");
  if (text == nullptr) return true;
  char* end = nullptr;
  errno = 0;
  long long value = strtoll(text, &end, 10);
  if (!isdigit(static_cast<unsigned char>(text[0])) || *end != '\0' || errno != 0) return false;
  *serial = value;
  return true;
}

}  // namespace

TrustMode CurrentTrustMode(std::string* why) {
  std::string pem;
  switch (ReadTrustFile(RootedPath(kMaintainTrustFile).c_str(), &pem, why)) {
    case TrustFile::kAbsent:
      return TrustMode::kOpen;
    case TrustFile::kKeys:
      return TrustMode::kSigned;
    default:
      return TrustMode::kNothing;
  }
}

bool JudgeFileList(const char* listPath, std::string* bytes, std::string* why) {
  if (!ReadRegularFile(listPath, kXmlMaxBytes, bytes, why)) return false;
  std::string pem;
  TrustFile trust = ReadTrustFile(RootedPath(kMaintainTrustFile).c_str(), &pem, why);
  if (trust == TrustFile::kAbsent) return true;
  if (trust == TrustFile::kBroken) {
    *why = "the trust file is unusable (" + *why + "): no list is trusted";
    return false;
  }
  std::string sig;
  std::string sigPath = std::string(listPath) + kListSignatureSuffix;
  if (!ReadRegularFile(sigPath.c_str(), kSignatureMaxBytes, &sig, why)) {
    *why = "no signature (" + *why + ")";
    return false;
  }
  if (!VerifyDetachedSignature(pem, *bytes, sig, why)) return false;
  int64_t serial = 0;
  int64_t accepted = 0;
  if (!ListSerial(*bytes, &serial)) {
    *why = "its serial is not a decimal number";
    return false;
  }
  if (!ReadAcceptedSerial(&accepted, why)) {
    *why = "the kept serial is unusable (" + *why + "): no list is trusted";
    return false;
  }
  if (serial < accepted) {
    *why = "serial " + std::to_string(serial) + " is lower than " + std::to_string(accepted) +
           ", accepted before";
    return false;
  }
  if (serial > accepted && StoreAcceptedSerial(serial) != 0) {
    *why = "serial " + std::to_string(serial) + " could not be kept";
    return false;
  }
  return true;
}

bool EntryNamesSha256(const FtpFileItem_t& item) {
  std::string hex;
  return NamedDigest(item, &hex) == Digest::kNamed;
}

bool EntryIsVerifiable(const FtpFileItem_t& item, std::string* why) {
  std::string hex;
  switch (NamedDigest(item, &hex)) {
    case Digest::kNamed:
      return true;
    case Digest::kBad:
      *why = "its sha256 value is not 64 hex digits";
      return false;
    default:
      if (CurrentTrustMode(why) == TrustMode::kOpen) return true;
      *why = "no sha256 value, and lists must be signed";
      return false;
  }
}

bool JudgeDownload(const FtpFileItem_t& item, const char* localPath, std::string* why) {
  std::string hex;
  if (NamedDigest(item, &hex) != Digest::kNamed) return EntryIsVerifiable(item, why);
  return FileHasSha256(localPath, hex, why);
}
