// velmar-sign: the operator's side of signed maintenance. Fills in the size and SHA-256 of
// every entry of a FileList.xml from the files beside it, sets the list's serial, signs the
// list with a private key (the same detached signature `openssl pkeyutl -sign -rawin` makes)
// and verifies a list against a recorder's trust file.
#include <tinyxml.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "maintain/ftp_maintain_mng.h"
#include "maintain/trust_gate.h"
#include "platform/fileutil.h"
#include "platform/trust.h"
#include "platform/xml_file.h"

namespace {

const char kUsage[] =
    "usage: velmar-sign fill LIST [--serial N]\n"
    "       velmar-sign sign LIST --key PRIVATE.pem\n"
    "       velmar-sign verify LIST --trust TRUST.pem\n"
    "  fill    sets size=\"...\" and crcvalue=\"sha256:...\" of every entry from the file of\n"
    "          that name beside LIST, and serial=\"N\" on the root element when given\n"
    "  sign    writes LIST.sig, a detached signature over LIST's exact bytes\n"
    "  verify  checks LIST.sig against the public keys of TRUST.pem and that every entry\n"
    "          carries a SHA-256 value; prints the serial; exit 1 when anything is wrong\n";

constexpr size_t kMaxKeyBytes = 64 * 1024;

// The value of option name in argv[from..], or nullptr.
const char* Option(int argc, char** argv, int from, const char* name) {
  for (int i = from; i + 1 < argc; ++i) {
    if (strcmp(argv[i], name) == 0) return argv[i + 1];
  }
  return nullptr;
}

std::string Beside(const std::string& list, const char* name) {
  size_t slash = list.rfind('/');
  return (slash == std::string::npos ? std::string() : list.substr(0, slash + 1)) + name;
}

// Sets every attribute whose name contains part (the service matches attributes by part of
// their name), or adds one named part.
void SetMatching(TiXmlElement* e, const char* part, const std::string& value) {
  bool set = false;
  for (TiXmlAttribute* a = e->FirstAttribute(); a != nullptr; a = a->Next()) {
    if (strstr(a->Name(), part) != nullptr) {
      a->SetValue(value.c_str());
      set = true;
    }
  }
  if (!set) e->SetAttribute(part, value.c_str());
}

int Fill(const char* list, const char* serial) {
  TiXmlDocument doc;
  std::string why;
  if (!LoadXmlFile(list, &doc, &why)) {
    fprintf(stderr, "velmar-sign: %s: %s\n", list, why.c_str());
    return 1;
  }
  TiXmlElement* root = doc.RootElement();
  if (serial != nullptr) {
    char* end = nullptr;
    long long n = strtoll(serial, &end, 10);
    if (*serial < '0' || *serial > '9' || *end != '\0' || n < 0) {
      fprintf(stderr, "velmar-sign: --serial takes a decimal number\n");
      return 2;
    }
    root->SetAttribute("serial", serial);
  }
  for (TiXmlElement* e = root->FirstChildElement(); e != nullptr; e = e->NextSiblingElement()) {
    if (!IsFileListEntry(e)) continue;
    std::string path = Beside(list, e->GetText());
    std::string hex;
    if (!Sha256OfFile(path.c_str(), &hex, &why)) {
      fprintf(stderr, "velmar-sign: %s: %s\n", path.c_str(), why.c_str());
      return 1;
    }
    SetMatching(e, "size", std::to_string(getfilesize(path.c_str())));
    SetMatching(e, "crcvalue", "sha256:" + hex);
    printf("%s  %s\n", hex.c_str(), e->GetText());
  }
  if (!doc.SaveFile(list)) {
    fprintf(stderr, "velmar-sign: cannot write %s\n", list);
    return 1;
  }
  return 0;
}

int Sign(const char* list, const char* keyPath) {
  std::string key, data, sig, why;
  if (!ReadRegularFile(keyPath, kMaxKeyBytes, &key, &why) ||
      !ReadRegularFile(list, kXmlMaxBytes, &data, &why) || !SignDetached(key, data, &sig, &why)) {
    fprintf(stderr, "velmar-sign: %s\n", why.c_str());
    return 1;
  }
  std::string out = std::string(list) + ".sig";
  FILE* f = fopen(out.c_str(), "wb");
  bool ok = f != nullptr && fwrite(sig.data(), 1, sig.size(), f) == sig.size();
  if (f != nullptr) ok = fclose(f) == 0 && ok;
  if (!ok) {
    fprintf(stderr, "velmar-sign: cannot write %s: %s\n", out.c_str(), strerror(errno));
    return 1;
  }
  printf("velmar-sign: wrote %s\n", out.c_str());
  return 0;
}

int Verify(const char* list, const char* trustPath) {
  std::string pem, data, sig, why;
  if (ReadTrustFile(trustPath, &pem, &why) != TrustFile::kKeys) {
    fprintf(stderr, "velmar-sign: %s: %s\n", trustPath, why.empty() ? "missing" : why.c_str());
    return 1;
  }
  std::string sigPath = std::string(list) + ".sig";
  if (!ReadRegularFile(list, kXmlMaxBytes, &data, &why) ||
      !ReadRegularFile(sigPath.c_str(), kMaxKeyBytes, &sig, &why) ||
      !VerifyDetachedSignature(pem, data, sig, &why)) {
    fprintf(stderr, "velmar-sign: %s: signature refused: %s\n", list, why.c_str());
    return 1;
  }
  TiXmlDocument doc;
  if (!ParseXmlText(data, &doc, &why)) {
    fprintf(stderr, "velmar-sign: %s: %s\n", list, why.c_str());
    return 1;
  }
  const TiXmlElement* root = doc.RootElement();
  int unverifiable = 0;
  for (const TiXmlElement* e = root->FirstChildElement(); e != nullptr;
       e = e->NextSiblingElement()) {
    FtpFileItem_t item;
    if (ReadFileListEntry(e, &item) && !EntryNamesSha256(item)) {
      fprintf(stderr, "velmar-sign: entry %s has no sha256 value: a recorder refuses it\n",
              item.FileName);
      ++unverifiable;
    }
  }
  const char* serial = root->Attribute("serial");
  printf("velmar-sign: %s: signature good, serial %s\n", list, serial != nullptr ? serial : "0");
  return unverifiable == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
    fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  const char* list = argv[2];
  if (strcmp(argv[1], "fill") == 0) return Fill(list, Option(argc, argv, 3, "--serial"));
  const char* key = Option(argc, argv, 3, "--key");
  if (strcmp(argv[1], "sign") == 0 && key != nullptr) return Sign(list, key);
  const char* trust = Option(argc, argv, 3, "--trust");
  if (strcmp(argv[1], "verify") == 0 && trust != nullptr) return Verify(list, trust);
  fputs(kUsage, stderr);
  return 2;
}
