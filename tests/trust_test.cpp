// The maintenance trust gate: which file lists and downloads may be used.
#include "platform/trust.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fakes/fakes.h"
#include "maintain/ftp_maintain_mng.h"
#include "maintain/trust_gate.h"

namespace {

std::string Sign(const char* key, const std::string& data) {
  std::string sig;
  std::string why;
  EXPECT_TRUE(SignDetached(key, data, &sig, &why)) << why;
  return sig;
}

FtpFileItem_t Item(const std::string& crc) {
  FtpFileItem_t item{};
  strncpy(item.CrcValue, crc.c_str(), sizeof(item.CrcValue) - 1);
  return item;
}

}  // namespace

// A list is used without a trust file; with one, only when a trusted key signed exactly its
// bytes and its serial is not below the one kept, which then rises. A trust file or a kept
// serial that cannot be read completely trusts nothing.
TEST(TrustGateTest, FileListsNeedATrustedSignatureAndNoLowerSerial) {
  const std::string list = "<FileList serial=\"7\"><FILE>a.sw</FILE></FileList>";
  const std::string other = "<FileList serial=\"7\"><FILE>b.sw</FILE></FileList>";
  const std::string old = "<FileList serial=\"6\"><FILE>a.sw</FILE></FileList>";
  const std::string newer = "<FileList serial=\"9\"><FILE>a.sw</FILE></FileList>";
  const std::string unnumbered = "<FileList><FILE>a.sw</FILE></FileList>";
  const std::string pubs = std::string(kTestPubA) + kTestPubB;
  const std::string ed448 =
      "-----BEGIN PUBLIC KEY-----\nMEMwBQYDK2VxAzoAGSbsYFaooSkpONlsYMepW5IByLuFEFgJ66dGtTlsGpsEUMKq"
      "mxn2gglKDAIax0GGIdCBXvCEzQkA\n-----END PUBLIC KEY-----\n";
  struct Row {
    const char* what;
    std::string trust;             // "-": no trust file; "dir": a directory in its place
    std::string bytes, sig, kept;  // kept "-": no serial file
    bool used;
    const char* keptAfter;
  };
  const std::vector<Row> rows = {
      {"no trust file: as before", "-", list, "", "-", true, "-"},
      {"signed by the key", kTestPubA, list, Sign(kTestKeyA, list), "-", true, "7\n"},
      {"signed by the second key", pubs, list, Sign(kTestKeyB, list), "7\n", true, "7\n"},
      {"unsigned", kTestPubA, list, "", "-", false, "-"},
      {"signed by an EC key", pubs + kTestPubEc, list, Sign(kTestKeyEc, list), "-", true, "7\n"},
      {"signed by an unknown key", kTestPubA, list, Sign(kTestKeyB, list), "-", false, "-"},
      {"an EC key's signature over other bytes", kTestPubEc, list, Sign(kTestKeyEc, other), "-",
       false, "-"},
      {"a key velmar cannot check (Ed448)", pubs + ed448, list, Sign(kTestKeyA, list), "-", false,
       "-"},
      {"changed after signing", kTestPubA, list, Sign(kTestKeyA, other), "-", false, "-"},
      {"a lower serial", kTestPubA, old, Sign(kTestKeyA, old), "7\n", false, "7\n"},
      {"no serial after a serial", kTestPubA, unnumbered, Sign(kTestKeyA, unnumbered), "7\n", false,
       "7\n"},
      {"a higher serial is kept", kTestPubA, newer, Sign(kTestKeyA, newer), "7\n", true, "9\n"},
      {"a private key as trust", kTestKeyA, list, Sign(kTestKeyA, list), "-", false, "-"},
      {"a key and garbage", pubs + "-----BEGIN PUBLIC KEY-----\nxx\n", list, Sign(kTestKeyA, list),
       "-", false, "-"},
      {"an empty trust file", "", list, Sign(kTestKeyA, list), "-", false, "-"},
      {"a directory as trust file", "dir", list, Sign(kTestKeyA, list), "-", false, "-"},
      {"a kept serial that is no number", kTestPubA, list, Sign(kTestKeyA, list), "7x\n", false,
       "7x\n"},
  };
  for (const Row& row : rows) {
    TempRoot root;
    if (row.trust == "dir") {
      root.Write("/etc/velmar/maintain-trust.pem/key.pem", kTestPubA);
    } else if (row.trust != "-") {
      root.Write("/etc/velmar/maintain-trust.pem", row.trust);
    }
    if (row.kept != "-") root.Write("/etc/velmar/maintain-serial", row.kept);
    root.Write("/d/FileList.xml", row.bytes);
    if (!row.sig.empty()) root.Write("/d/FileList.xml.sig", row.sig);
    std::string bytes;
    std::string why;
    EXPECT_EQ(JudgeFileList((root.path() + "/d/FileList.xml").c_str(), &bytes, &why), row.used)
        << row.what << ": " << why;
    EXPECT_EQ(bytes, row.used ? row.bytes : bytes) << row.what;
    std::string kept = ReadWholeFile(root.path() + "/etc/velmar/maintain-serial");
    EXPECT_EQ(kept.empty() ? "-" : kept, row.keptAfter) << row.what;
  }
}

// A download is used when it has the SHA-256 its entry names; an entry without one only while
// lists need no signature; a value that only looks like one never.
TEST(TrustGateTest, DownloadsMustHaveTheirListedDigest) {
  const std::string body = "firmware";
  const std::string digest = Sha256OfText(body);
  std::string upper = digest;
  for (char& c : upper) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  std::string wrong = digest;
  wrong[63] = wrong[63] == '0' ? '1' : '0';
  struct Row {
    std::string crc;
    bool openUsed;
    bool signedUsed;
  };
  const std::vector<Row> rows = {
      {"sha256:" + digest, true, true},
      {"SHA256:" + upper, true, true},
      {"sha256:" + wrong, false, false},
      {"sha256:" + digest.substr(1), false, false},
      {"sha256:" + digest + "0", false, false},
      {"", true, false},
      {"1234abcd", true, false},
  };
  for (bool trusted : {false, true}) {
    TempRoot root;
    if (trusted) root.Write("/etc/velmar/maintain-trust.pem", kTestPubA);
    root.Write("/d/f.sw", body);
    for (const Row& row : rows) {
      std::string why;
      bool used = JudgeDownload(Item(row.crc), (root.path() + "/d/f.sw").c_str(), &why);
      EXPECT_EQ(used, trusted ? row.signedUsed : row.openUsed) << row.crc << ": " << why;
    }
  }
}
