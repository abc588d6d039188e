// Trust in what a maintenance server sends: detached signatures over a file list, checked
// against public keys kept on the recorder, SHA-256 digests of downloads, and the highest list
// serial accepted so far. Only the crypto library's own calls check anything here; which list
// or download may be used is decided in one place of the maintenance cycle.
#pragma once

#include <cstdint>
#include <string>

// The recorder's keys that may sign a file list, and the serial kept across restarts (device
// paths, under the sandbox root).
constexpr const char* kMaintainTrustFile = "/etc/velmar/maintain-trust.pem";
constexpr const char* kMaintainSerialFile = "/etc/velmar/maintain-serial";

enum class TrustFile {
  kAbsent,  // nothing at all at the path (not even a dangling link): lists need no signature
  kKeys,    // one or more public keys, every block of the file read
  kBroken,  // exists in some form but cannot be read completely: nothing may be trusted
};

// Reads the PEM public keys of the file at path (a regular file of at most 64 KiB) into *pem.
// *why says what was wrong for kBroken.
TrustFile ReadTrustFile(const char* path, std::string* pem, std::string* why);

// True when sig is a valid signature over exactly data by one of the public keys in pem, as
// `openssl pkeyutl -sign -rawin` makes it: Ed25519 and Ed448 sign the bytes themselves, RSA
// and EC keys their SHA-256. *why says why not.
bool VerifyDetachedSignature(const std::string& pem, const std::string& data,
                             const std::string& sig, std::string* why);

// Signs data with the private key in privatePem the way VerifyDetachedSignature checks it
// (for the operator's tool and the tests; the service never signs). False with *why.
bool SignDetached(const std::string& privatePem, const std::string& data, std::string* sig,
                  std::string* why);

// The SHA-256 of the regular file at path, as 64 lowercase hex digits. False with *why.
bool Sha256OfFile(const char* path, std::string* hex, std::string* why);
// True when the regular file at path has the SHA-256 hex (64 lowercase hex digits). False
// with *why (the digest it has, or why it could not be read).
bool FileHasSha256(const char* path, const std::string& hex, std::string* why);
// The SHA-256 of data, as 64 lowercase hex digits.
std::string Sha256OfText(const std::string& data);

// The highest serial of a signed list accepted so far: true with *serial (0 when none was
// ever kept). False with *why when the kept serial cannot be read completely: the caller must
// then accept no list, since an older one could be replayed.
bool ReadAcceptedSerial(int64_t* serial, std::string* why);
// Keeps serial durably (the file replaced atomically). 0, or -1 on failure.
int StoreAcceptedSerial(int64_t serial);
