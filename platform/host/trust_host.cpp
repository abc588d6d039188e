#include <errno.h>
#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/fileutil.h"
#include "platform/host/atomic_file.h"
#include "platform/paths.h"
#include "platform/trust.h"

namespace {

constexpr size_t kTrustMaxBytes = 64 * 1024;
constexpr size_t kSerialMaxBytes = 64;
constexpr const char* kPemBegin = "-----BEGIN ";

struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

// Every public key of the PEM text; false unless each "-----BEGIN " block is one.
bool ParsePublicKeys(const std::string& pem, std::vector<Pkey>* keys, std::string* why) {
  size_t blocks = 0;
  for (size_t at = pem.find(kPemBegin); at != std::string::npos; at = pem.find(kPemBegin, at + 1)) {
    ++blocks;
  }
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (bio == nullptr) {
    *why = "out of memory";
    return false;
  }
  for (;;) {
    EVP_PKEY* key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
    if (key == nullptr) break;
    keys->emplace_back(key);
  }
  BIO_free(bio);
  if (keys->empty()) {
    *why = "no public key in PEM form";
    return false;
  }
  if (keys->size() != blocks) {
    *why = "a PEM block that is not a public key";
    return false;
  }
  return true;
}

bool VerifyWith(EVP_PKEY* key, const std::string& data, const std::string& sig) {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  if (ctx == nullptr) return false;
  int id = EVP_PKEY_get_base_id(key);
  const EVP_MD* md = (id == EVP_PKEY_ED25519 || id == EVP_PKEY_ED448) ? nullptr : EVP_sha256();
  bool ok = EVP_DigestVerifyInit(ctx, nullptr, md, nullptr, key) == 1 &&
            EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(sig.data()), sig.size(),
                             reinterpret_cast<const unsigned char*>(data.data()), data.size()) == 1;
  EVP_MD_CTX_free(ctx);
  return ok;
}

std::string Hex(const unsigned char* bytes, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(n * 2);
  for (size_t i = 0; i < n; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 15];
  }
  return out;
}

}  // namespace

TrustFile ReadTrustFile(const char* path, std::string* pem, std::string* why) {
  if (NothingAt(path)) return TrustFile::kAbsent;
  if (!ReadRegularFile(path, kTrustMaxBytes, pem, why)) return TrustFile::kBroken;
  std::vector<Pkey> keys;
  if (!ParsePublicKeys(*pem, &keys, why)) return TrustFile::kBroken;
  return TrustFile::kKeys;
}

bool VerifyDetachedSignature(const std::string& pem, const std::string& data,
                             const std::string& sig, std::string* why) {
  std::vector<Pkey> keys;
  if (!ParsePublicKeys(pem, &keys, why)) return false;
  for (const Pkey& key : keys) {
    if (VerifyWith(key.get(), data, sig)) return true;
  }
  *why = "no trusted key made this signature";
  return false;
}

bool SignDetached(const std::string& privatePem, const std::string& data, std::string* sig,
                  std::string* why) {
  BIO* bio = BIO_new_mem_buf(privatePem.data(), static_cast<int>(privatePem.size()));
  Pkey key(bio != nullptr ? PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr) : nullptr);
  BIO_free(bio);
  if (!key) {
    *why = "no private key in PEM form";
    return false;
  }
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  int id = EVP_PKEY_get_base_id(key.get());
  const EVP_MD* md = (id == EVP_PKEY_ED25519 || id == EVP_PKEY_ED448) ? nullptr : EVP_sha256();
  const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
  size_t len = 0;
  bool ok = ctx != nullptr && EVP_DigestSignInit(ctx, nullptr, md, nullptr, key.get()) == 1 &&
            EVP_DigestSign(ctx, nullptr, &len, bytes, data.size()) == 1;
  if (ok) {
    sig->resize(len);
    ok = EVP_DigestSign(ctx, reinterpret_cast<unsigned char*>(&(*sig)[0]), &len, bytes,
                        data.size()) == 1;
    sig->resize(len);
  }
  EVP_MD_CTX_free(ctx);
  if (!ok) *why = "the key could not sign";
  return ok;
}

bool Sha256OfFile(const char* path, std::string* hex, std::string* why) {
  int fd = OpenRegularFile(path, O_RDONLY, why);
  if (fd < 0) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = ctx != nullptr && EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr) == 1;
  std::vector<char> buffer(64 * 1024);
  while (ok) {
    ssize_t n = read(fd, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *why = strerror(errno);
      ok = false;
    }
    if (n <= 0) break;
    ok = EVP_DigestUpdate(ctx, buffer.data(), static_cast<size_t>(n)) == 1;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  ok = ok && EVP_DigestFinal_ex(ctx, digest, &len) == 1;
  EVP_MD_CTX_free(ctx);
  close(fd);
  if (ok) *hex = Hex(digest, len);
  return ok;
}

bool FileHasSha256(const char* path, const std::string& hex, std::string* why) {
  std::string have;
  if (!Sha256OfFile(path, &have, why)) return false;
  if (have.size() == hex.size() && CRYPTO_memcmp(have.data(), hex.data(), hex.size()) == 0) {
    return true;
  }
  *why = "SHA-256 " + have + " is not the listed " + hex;
  return false;
}

std::string Sha256OfText(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &len, EVP_sha256(), nullptr) != 1) return "";
  return Hex(digest, len);
}

bool ReadAcceptedSerial(int64_t* serial, std::string* why) {
  std::string path = RootedPath(kMaintainSerialFile);
  *serial = 0;
  if (NothingAt(path.c_str())) return true;
  std::string text;
  if (!ReadRegularFile(path.c_str(), kSerialMaxBytes, &text, why)) return false;
  char* end = nullptr;
  errno = 0;
  long long value = strtoll(text.c_str(), &end, 10);
  bool digitsOnly = !text.empty() && text[0] >= '0' && text[0] <= '9';
  if (!digitsOnly || errno != 0 || (*end != '\n' && *end != '\0') ||
      (*end == '\n' && end[1] != '\0')) {
    *why = "not one decimal serial";
    return false;
  }
  *serial = value;
  return true;
}

int StoreAcceptedSerial(int64_t serial) {
  char text[32];
  int n = snprintf(text, sizeof(text), "%" PRId64 "\n", serial);
  return ReplaceFileAtomically(RootedPath(kMaintainSerialFile), text, static_cast<size_t>(n));
}
