// The host FTP client over real sockets against pyftpdlib on 127.0.0.1: two servers over one
// temporary directory, one offering MLSD and one only LIST, each killed when the test ends.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>

#include "platform/ftpclient.h"
#include "platform/log.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"
#include "tests/fakes/pyftpd.h"

namespace {

// Starts a session in the server's root, lists it, and uploads bytes to name in 16384-byte
// blocks as the upload engine does (mode 0 stores anew, 1 appends). Returns the listing as
// "name:size|..." in name order, or "failed" at the first call that fails.
std::string Session(const PyFtpd& server, const char* host, const char* password, const char* name,
                    int mode, const std::string& bytes) {
  std::unique_ptr<CFtpClient> c(NewFtpClient());
  c->Init(WriteDbgLog);
  UserDefServerSet_t s{};
  s.port = static_cast<uint16_t>(server.port());
  CopyText(s.host, sizeof(s.host), host);
  CopyText(s.user, sizeof(s.user), "user");
  CopyText(s.password, sizeof(s.password), password);
  CopyText(s.path, sizeof(s.path), "/");
  c->FtpSetServerInfo(&s);
  c->FtpSetLocalInfo("", name);
  if (c->FtpStart() != 0 || c->FtpGetServerDirFile() != 0) return "failed";
  const FtpClientData_t* d = c->FtpGetClientData();
  std::set<std::string> entries;  // in name order
  for (int i = 0; i < d->entryCount; ++i) {
    entries.insert(std::string(d->entries[i].name) + ":" + std::to_string(d->entries[i].size));
  }
  std::string listed;
  for (const std::string& e : entries) listed += (listed.empty() ? "" : "|") + e;
  int fd = c->FtpCreateDateSockFd(mode);
  for (size_t off = 0; fd >= 0 && off < bytes.size(); off += 16384) {
    int n = static_cast<int>(std::min<size_t>(16384, bytes.size() - off));
    if (c->FtpWriteDate(fd, bytes.data() + off, n, 10) != n) fd = -1;
  }
  return fd >= 0 && c->FtpClose() == 0 ? listed : "failed";
}

TEST(FtpClientServerTest, ListsAppendsStoresAndRefusesAWrongPassword) {
  TempRoot root;
  LogCapture log;
  const std::string store = root.path() + "/store";
  std::string local(3 * 16384 + 999, '\0');
  for (size_t i = 0; i < local.size(); ++i) local[i] = static_cast<char>(i * 13 % 251);
  root.Write("/store/part.bin", local.substr(0, 1000));
  root.Write("/store/empty.txt", "");
  root.Write("/store/with space.bin", std::string(5000, 'y'));
  root.Write("/store/subdir/in.bin", "not listed");
  PyFtpd mlsd(store), list(store, "--no-mlsd");
  ASSERT_TRUE(mlsd.port() > 0 && list.port() > 0) << "pyftpdlib did not start";

  // "localhost" may resolve to ::1 first, where nothing listens: the next address is tried.
  EXPECT_EQ(Session(mlsd, "localhost", "secret", "part.bin", 1, local.substr(1000)),
            "empty.txt:0|part.bin:1000|with space.bin:5000");
  EXPECT_EQ(ReadWholeFile(store + "/part.bin"), local);
  EXPECT_EQ(Session(list, "127.0.0.1", "secret", "new.bin", 0, local),
            "empty.txt:0|part.bin:" + std::to_string(local.size()) + "|with space.bin:5000");
  EXPECT_EQ(ReadWholeFile(store + "/new.bin"), local);

  EXPECT_EQ(Session(mlsd, "127.0.0.1", "wrong", "a", 0, ""), "failed");
  EXPECT_EQ(log.Count("login refused"), 1);  // not a connect or protocol failure
}

}  // namespace
