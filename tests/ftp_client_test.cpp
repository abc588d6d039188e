// The host FTP client over real sockets against pyftpdlib on 127.0.0.1, started per test on a
// free port over a temporary directory and stopped by the fixture.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/ftpclient.h"
#include "platform/log.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"
#include "tests/fakes/pyftpd.h"

namespace {

std::string Bytes(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * seed) % 251);
  return s;
}

// Writes bytes on the open data connection in 16384-byte blocks, as the upload engine does.
// Returns the number of failed writes.
int SendBlocks(CFtpClient* c, int fd, const std::string& bytes) {
  int failures = 0;
  for (size_t off = 0; off < bytes.size(); off += 16384) {
    int n = static_cast<int>(std::min<size_t>(16384, bytes.size() - off));
    if (c->FtpWriteDate(fd, bytes.data() + off, n, 10) != n) ++failures;
  }
  return failures;
}

std::map<std::string, int> Listed(CFtpClient* c) {
  std::map<std::string, int> out;
  FtpClientData_t* d = c->FtpGetClientData();
  for (int i = 0; i < d->entryCount; ++i) out[d->entries[i].name] = d->entries[i].size;
  return out;
}

class FtpClientServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_store = m_root.path() + "/store";
    mkdir(m_store.c_str(), 0755);
  }

  void StartServer(const std::vector<std::string>& extra = {}) {
    m_server.reset(new PyFtpd(m_store, extra));
    ASSERT_GT(m_server->port(), 0) << "pyftpdlib did not start";
  }

  std::unique_ptr<CFtpClient> Client(const char* path, const char* dir, const char* name,
                                     const char* password = "secret",
                                     const char* host = "127.0.0.1") {
    std::unique_ptr<CFtpClient> c(NewFtpClient());
    c->Init(WriteDbgLog);
    UserDefServerSet_t s;
    memset(&s, 0, sizeof(s));
    s.port = static_cast<uint16_t>(m_server->port());
    CopyText(s.host, sizeof(s.host), host);
    CopyText(s.user, sizeof(s.user), "user");
    CopyText(s.password, sizeof(s.password), password);
    CopyText(s.path, sizeof(s.path), path);
    c->FtpSetServerInfo(&s);
    c->FtpSetLocalInfo(dir, name);
    return c;
  }

  TempRoot m_root;
  LogCapture m_log;
  std::string m_store;
  std::unique_ptr<PyFtpd> m_server;
};

TEST_F(FtpClientServerTest, ListsAppendsAndStoresANewFile) {
  const std::string local = Bytes(3 * 16384 + 999, 13);
  std::ofstream(m_store + "/part.bin", std::ios::binary) << local.substr(0, 1000);
  std::ofstream(m_store + "/empty.txt");
  std::ofstream(m_store + "/with space.bin") << std::string(5000, 'y');
  mkdir((m_store + "/subdir").c_str(), 0755);
  const std::map<std::string, int> expected = {
      {"empty.txt", 0}, {"part.bin", 1000}, {"with space.bin", 5000}};
  for (bool mlsd : {false, true}) {
    SCOPED_TRACE(mlsd ? "MLSD" : "LIST");
    StartServer(mlsd ? std::vector<std::string>{} : std::vector<std::string>{"--no-mlsd"});
    // "localhost" may resolve to ::1 first, where nothing listens: the next address is tried.
    auto c = Client("/", "", "part.bin", "secret", "localhost");
    ASSERT_EQ(c->FtpStart(), 0);
    ASSERT_EQ(c->FtpGetServerDirFile(), 0);
    EXPECT_EQ(Listed(c.get()), expected);
    EXPECT_EQ(c->FtpClose(), 0);
  }

  auto c = Client("", "", "part.bin");
  ASSERT_EQ(c->FtpStart(), 0);
  int fd = c->FtpCreateDateSockFd(1);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(SendBlocks(c.get(), fd, local.substr(1000)), 0);
  EXPECT_EQ(c->FtpClose(), 0);
  EXPECT_EQ(ReadWholeFile(m_store + "/part.bin"), local);

  const std::string clip = Bytes(5 * 16384 + 123, 7);
  mkdir((m_store + "/base").c_str(), 0755);
  c = Client("/base/", "2024/01//31", "clip.avi");
  ASSERT_EQ(c->FtpStart(), 0);
  fd = c->FtpCreateDateSockFd(0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(SendBlocks(c.get(), fd, clip), 0);
  EXPECT_EQ(c->FtpClose(), 0);
  EXPECT_EQ(ReadWholeFile(m_store + "/base/2024/01/31/clip.avi"), clip);
}

TEST_F(FtpClientServerTest, WrongPasswordIsRefused) {
  StartServer();
  auto c = Client("/", "", "a", "wrong");
  EXPECT_EQ(c->FtpStart(), -1);
  EXPECT_EQ(m_log.Count("login refused"), 1);  // not a connect or protocol failure
  EXPECT_EQ(c->FtpGetServerDirFile(), -1);
}

}  // namespace
