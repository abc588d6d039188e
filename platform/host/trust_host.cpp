#include <errno.h>
#include <fcntl.h>
#include <mbedtls/base64.h>
#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/pk.h>
#include <mbedtls/sha256.h>
#include <sodium.h>
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

// The fixed DER forms of Ed25519 and Ed448 keys (RFC 8410): these prefixes, then the key.
const unsigned char kEd25519Public[] = {0x30, 0x2a, 0x30, 0x05, 0x06, 0x03,
                                        0x2b, 0x65, 0x70, 0x03, 0x21, 0x00};
const unsigned char kEd25519Private[] = {0x30, 0x2e, 0x02, 0x01, 0x00, 0x30, 0x05, 0x06,
                                         0x03, 0x2b, 0x65, 0x70, 0x04, 0x22, 0x04, 0x20};
const unsigned char kEd448Public[] = {0x30, 0x43, 0x30, 0x05, 0x06, 0x03,
                                      0x2b, 0x65, 0x71, 0x03, 0x3a, 0x00};
constexpr size_t kEdKeyBytes = 32;

// One key that may sign a list: Ed25519 (its 32 bytes) or RSA/EC (parsed).
struct PublicKey {
  PublicKey() { mbedtls_pk_init(&pk); }
  ~PublicKey() { mbedtls_pk_free(&pk); }
  PublicKey(const PublicKey&) = delete;
  PublicKey& operator=(const PublicKey&) = delete;

  std::string ed25519;  // empty for an RSA or EC key
  mbedtls_pk_context pk;
};
using Keys = std::vector<std::unique_ptr<PublicKey>>;

bool StartsWith(const std::vector<unsigned char>& der, const unsigned char* prefix, size_t n,
                size_t total) {
  return der.size() == total && memcmp(der.data(), prefix, n) == 0;
}

// The DER bytes of the PEM block of the given label that starts at pem[at]; false when the
// block is of another label, unterminated or not base64.
bool PemBlock(const std::string& pem, size_t at, const std::string& label,
              std::vector<unsigned char>* der) {
  std::string begin = "-----BEGIN " + label + "-----";
  std::string end = "-----END " + label + "-----";
  if (pem.compare(at, begin.size(), begin) != 0) return false;
  size_t body = at + begin.size();
  size_t stop = pem.find(end, body);
  if (stop == std::string::npos) return false;
  std::string text;
  for (size_t i = body; i < stop; ++i) {
    if (pem[i] != '\n' && pem[i] != '\r') text += pem[i];
  }
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  size_t len = 0;
  der->resize(text.size());
  if (mbedtls_base64_decode(der->data(), der->size(), &len, in, text.size()) != 0 || len == 0) {
    return false;
  }
  der->resize(len);
  return true;
}

// The public key of one PEM block; false with *why.
bool ParsePublicKey(const std::string& pem, size_t at, PublicKey* key, std::string* why) {
  std::vector<unsigned char> der;
  if (!PemBlock(pem, at, "PUBLIC KEY", &der)) {
    *why = "a PEM block that is not a public key";
    return false;
  }
  if (StartsWith(der, kEd25519Public, sizeof(kEd25519Public),
                 sizeof(kEd25519Public) + kEdKeyBytes)) {
    key->ed25519.assign(der.end() - kEdKeyBytes, der.end());
    return true;
  }
  if (StartsWith(der, kEd448Public, sizeof(kEd448Public), sizeof(kEd448Public) + 57)) {
    *why = "an Ed448 key, which velmar cannot check (use Ed25519, RSA or EC)";
    return false;
  }
  if (mbedtls_pk_parse_public_key(&key->pk, der.data(), der.size()) != 0) {
    *why = "a PEM block that is not a public key";
    return false;
  }
  return true;
}

// Every public key of the PEM text; false unless each "-----BEGIN " block is one.
bool ParsePublicKeys(const std::string& pem, Keys* keys, std::string* why) {
  for (size_t at = pem.find(kPemBegin); at != std::string::npos; at = pem.find(kPemBegin, at + 1)) {
    keys->emplace_back(new PublicKey);
    if (!ParsePublicKey(pem, at, keys->back().get(), why)) return false;
  }
  if (keys->empty()) {
    *why = "no public key in PEM form";
    return false;
  }
  return true;
}

bool Sha256(const std::string& data, unsigned char digest[32]) {
  return mbedtls_sha256_ret(reinterpret_cast<const unsigned char*>(data.data()), data.size(),
                            digest, 0) == 0;
}

bool VerifyWith(const PublicKey& key, const std::string& data, const std::string& sig) {
  const auto* sigBytes = reinterpret_cast<const unsigned char*>(sig.data());
  if (!key.ed25519.empty()) {
    return sodium_init() >= 0 && sig.size() == crypto_sign_BYTES &&
           crypto_sign_verify_detached(
               sigBytes, reinterpret_cast<const unsigned char*>(data.data()), data.size(),
               reinterpret_cast<const unsigned char*>(key.ed25519.data())) == 0;
  }
  unsigned char digest[32];
  return Sha256(data, digest) &&
         mbedtls_pk_verify(const_cast<mbedtls_pk_context*>(&key.pk), MBEDTLS_MD_SHA256, digest,
                           sizeof(digest), sigBytes, sig.size()) == 0;
}

bool SignEd25519(const std::vector<unsigned char>& der, const std::string& data, std::string* sig) {
  unsigned char pk[crypto_sign_PUBLICKEYBYTES];
  unsigned char sk[crypto_sign_SECRETKEYBYTES];
  unsigned char out[crypto_sign_BYTES];
  bool ok = sodium_init() >= 0 &&
            crypto_sign_seed_keypair(pk, sk, der.data() + sizeof(kEd25519Private)) == 0 &&
            crypto_sign_detached(out, nullptr, reinterpret_cast<const unsigned char*>(data.data()),
                                 data.size(), sk) == 0;
  sodium_memzero(sk, sizeof(sk));
  if (ok) sig->assign(reinterpret_cast<const char*>(out), sizeof(out));
  return ok;
}

// RSA (PKCS#1 v1.5) or ECDSA over the SHA-256 of data, with the key in pem (any PEM form the
// library reads).
bool SignWithPk(const std::string& pem, const std::string& data, std::string* sig) {
  mbedtls_pk_context pk;
  mbedtls_entropy_context entropy;
  mbedtls_ctr_drbg_context drbg;
  mbedtls_pk_init(&pk);
  mbedtls_entropy_init(&entropy);
  mbedtls_ctr_drbg_init(&drbg);
  unsigned char digest[32];
  unsigned char out[MBEDTLS_PK_SIGNATURE_MAX_SIZE];
  size_t len = 0;
  // The library reads PEM only with its final NUL counted.
  bool ok = mbedtls_pk_parse_key(&pk, reinterpret_cast<const unsigned char*>(pem.c_str()),
                                 pem.size() + 1, nullptr, 0) == 0 &&
            mbedtls_ctr_drbg_seed(&drbg, mbedtls_entropy_func, &entropy, nullptr, 0) == 0 &&
            Sha256(data, digest) &&
            mbedtls_pk_sign(&pk, MBEDTLS_MD_SHA256, digest, sizeof(digest), out, &len,
                            mbedtls_ctr_drbg_random, &drbg) == 0;
  if (ok) sig->assign(reinterpret_cast<const char*>(out), len);
  mbedtls_ctr_drbg_free(&drbg);
  mbedtls_entropy_free(&entropy);
  mbedtls_pk_free(&pk);
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
  Keys keys;
  if (!ParsePublicKeys(*pem, &keys, why)) return TrustFile::kBroken;
  return TrustFile::kKeys;
}

bool VerifyDetachedSignature(const std::string& pem, const std::string& data,
                             const std::string& sig, std::string* why) {
  Keys keys;
  if (!ParsePublicKeys(pem, &keys, why)) return false;
  for (const auto& key : keys) {
    if (VerifyWith(*key, data, sig)) return true;
  }
  *why = "no trusted key made this signature";
  return false;
}

bool SignDetached(const std::string& privatePem, const std::string& data, std::string* sig,
                  std::string* why) {
  size_t at = privatePem.find(kPemBegin);
  std::vector<unsigned char> der;
  bool ok;
  if (at != std::string::npos && PemBlock(privatePem, at, "PRIVATE KEY", &der) &&
      StartsWith(der, kEd25519Private, sizeof(kEd25519Private),
                 sizeof(kEd25519Private) + kEdKeyBytes)) {
    ok = SignEd25519(der, data, sig);
    sodium_memzero(der.data(), der.size());
  } else {
    ok = SignWithPk(privatePem, data, sig);
  }
  if (!ok) *why = "no private key in PEM form that can sign (Ed25519, RSA or EC)";
  return ok;
}

bool Sha256OfFile(const char* path, std::string* hex, std::string* why) {
  int fd = OpenRegularFile(path, O_RDONLY, why);
  if (fd < 0) return false;
  mbedtls_sha256_context ctx;
  mbedtls_sha256_init(&ctx);
  bool ok = mbedtls_sha256_starts_ret(&ctx, 0) == 0;
  std::vector<unsigned char> buffer(64 * 1024);
  while (ok) {
    ssize_t n = read(fd, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *why = strerror(errno);
      ok = false;
    }
    if (n <= 0) break;
    ok = mbedtls_sha256_update_ret(&ctx, buffer.data(), static_cast<size_t>(n)) == 0;
  }
  unsigned char digest[32];
  ok = ok && mbedtls_sha256_finish_ret(&ctx, digest) == 0;
  mbedtls_sha256_free(&ctx);
  close(fd);
  if (ok) *hex = Hex(digest, sizeof(digest));
  return ok;
}

bool FileHasSha256(const char* path, const std::string& hex, std::string* why) {
  std::string have;
  if (!Sha256OfFile(path, &have, why)) return false;
  if (have.size() == hex.size() && sodium_memcmp(have.data(), hex.data(), hex.size()) == 0) {
    return true;
  }
  *why = "SHA-256 " + have + " is not the listed " + hex;
  return false;
}

std::string Sha256OfText(const std::string& data) {
  unsigned char digest[32];
  if (!Sha256(data, digest)) return "";
  return Hex(digest, sizeof(digest));
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
