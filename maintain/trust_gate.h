// Whether what a maintenance server sent may be used. Every file list and every download
// passes here before anything in it is parsed for action, loaded, imported or run; nothing
// else decides trust.
//
// Without a trust file (etc/velmar/maintain-trust.pem) lists and downloads are used as they
// come, except that a download whose entry names a SHA-256 must match it. With one, a list is
// used only when its detached signature (FileList.xml.sig) verifies against one of the keys
// and its serial is not lower than the highest one accepted before; every entry must then
// name the SHA-256 of its file. A trust file that cannot be read completely trusts nothing.
#pragma once

#include <cstdint>
#include <string>

struct FtpFileItem_t;

// The detached signature's file name beside a list.
constexpr const char* kListSignatureSuffix = ".sig";

enum class TrustMode {
  kOpen,     // no trust file: lists need no signature
  kSigned,   // lists must be signed by a key of the trust file
  kNothing,  // the trust file (or the kept serial) is broken: every list is refused
};

// The recorder's trust setting now, read anew on every call. *why says what is broken.
TrustMode CurrentTrustMode(std::string* why);

// Judges the file list at listPath (its signature at listPath + ".sig"). True when it may be
// used: *bytes then holds the exact bytes that were judged, to be parsed from memory (a file
// changed after the check is never read again). A signed list's serial, when higher than the
// one kept, is kept. False with *why otherwise.
bool JudgeFileList(const char* listPath, std::string* bytes, std::string* why);

// Whether an entry may be fetched at all: with signed lists (or broken trust) it must name
// its file's SHA-256 as "sha256:<64 hex digits>". False with *why.
bool EntryIsVerifiable(const FtpFileItem_t& item, std::string* why);

// True when the entry names its file's SHA-256 as "sha256:<64 hex digits>" (any case).
bool EntryNamesSha256(const FtpFileItem_t& item);

// Judges a downloaded file against its entry: the entry's SHA-256, when it names one, must be
// the file's. True when it may be used; false with *why (the caller deletes the copy).
bool JudgeDownload(const FtpFileItem_t& item, const char* localPath, std::string* why);
