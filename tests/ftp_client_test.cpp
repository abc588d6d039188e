// The host FTP client against a real server: pyftpdlib on 127.0.0.1, started per test on a
// free port over a temporary directory, and stopped by the fixture.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <netinet/in.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/ftpclient.h"
#include "platform/log.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"
#include "tests/fakes/pyftpd.h"

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
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

  void TearDown() override {
    if (HasFailure()) {
      for (const std::string& line : m_log.Lines()) fprintf(stderr, "log: %s", line.c_str());
    }
  }

  void StartServer(const std::vector<std::string>& extra = {}) {
    m_server.reset(new PyFtpd(m_store, extra));
    ASSERT_GT(m_server->port(), 0) << "pyftpdlib did not start";
  }

  std::unique_ptr<CFtpClient> Client(const char* path, const char* dir, const char* name,
                                     const char* password = "secret", const char* host = "127.0.0.1") {
    std::unique_ptr<CFtpClient> c(NewFtpClient());
    c->Init(WriteDbgLog);
    FtpTimeLimits_t limits;
    limits.connectMs = 3000;
    limits.replyMs = 5000;
    limits.listingMs = 10000;
    c->FtpSetTimeLimits(limits);
    UserDefServerSet_t s;
    memset(&s, 0, sizeof(s));
    s.port = static_cast<uint16_t>(m_server ? m_server->port() : 21);
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

TEST_F(FtpClientServerTest, UploadsNewFileThenStoresAnewOverIt) {
  StartServer();
  const std::string local = RandomBytes(5 * 16384 + 123, 1);
  auto c = Client("/", "", "clip.avi");
  ASSERT_EQ(c->FtpStart(), 0);
  ASSERT_EQ(c->FtpGetServerDirFile(), 0);
  EXPECT_EQ(c->FtpGetClientData()->entryCount, 0);
  int fd = c->FtpCreateDateSockFd(0);
  ASSERT_GE(fd, 0);
  int32_t atByte4;
  memcpy(&atByte4, reinterpret_cast<const char*>(c->FtpGetClientData()) + 4, 4);
  EXPECT_EQ(atByte4, fd);
  EXPECT_EQ(SendBlocks(c.get(), fd, local), 0);
  EXPECT_EQ(c->FtpClose(), 0);
  EXPECT_EQ(ReadFile(m_store + "/clip.avi"), local);

  // Mode 0 stores anew: a second, shorter upload replaces the file.
  ASSERT_EQ(c->FtpStart(), 0);
  fd = c->FtpCreateDateSockFd(0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(SendBlocks(c.get(), fd, "short"), 0);
  EXPECT_EQ(c->FtpClose(), 0);
  EXPECT_EQ(ReadFile(m_store + "/clip.avi"), "short");
}

TEST_F(FtpClientServerTest, AppendsAfterPartialFile) {
  StartServer();
  const std::string local = RandomBytes(3 * 16384 + 999, 2);
  std::ofstream(m_store + "/part.bin", std::ios::binary) << local.substr(0, 1000);
  auto c = Client("", "", "part.bin");
  ASSERT_EQ(c->FtpStart(), 0);
  ASSERT_EQ(c->FtpGetServerDirFile(), 0);
  ASSERT_EQ(Listed(c.get())["part.bin"], 1000);
  int fd = c->FtpCreateDateSockFd(1);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(SendBlocks(c.get(), fd, local.substr(1000)), 0);
  EXPECT_EQ(c->FtpClose(), 0);
  EXPECT_EQ(ReadFile(m_store + "/part.bin"), local);
}

TEST_F(FtpClientServerTest, ListsFilesWithSizesByMlsdAndByList) {
  std::ofstream(m_store + "/empty.txt");
  std::ofstream(m_store + "/one.bin") << "x";
  std::ofstream(m_store + "/with space.bin") << std::string(5000, 'y');
  mkdir((m_store + "/subdir").c_str(), 0755);
  const std::map<std::string, int> expected = {
      {"empty.txt", 0}, {"one.bin", 1}, {"with space.bin", 5000}};
  for (bool mlsd : {true, false}) {
    SCOPED_TRACE(mlsd ? "MLSD" : "LIST");
    StartServer(mlsd ? std::vector<std::string>{} : std::vector<std::string>{"--no-mlsd"});
    auto c = Client("/", "", "one.bin");
    ASSERT_EQ(c->FtpStart(), 0);
    ASSERT_EQ(c->FtpGetServerDirFile(), 0);
    EXPECT_EQ(Listed(c.get()), expected);
    EXPECT_EQ(m_log.Count(mlsd ? "MLSD: 3 files" : "LIST: 3 files"), 1);
    EXPECT_EQ(c->FtpClose(), 0);
  }
}

TEST_F(FtpClientServerTest, CreatesNestedRemoteDirectory) {
  StartServer();
  mkdir((m_store + "/base").c_str(), 0755);
  auto c = Client("/base/", "2024/01//31", "a.bin");
  ASSERT_EQ(c->FtpStart(), 0);
  struct stat st;
  ASSERT_EQ(stat((m_store + "/base/2024/01/31").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  int fd = c->FtpCreateDateSockFd(0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(SendBlocks(c.get(), fd, "abc"), 0);
  EXPECT_EQ(c->FtpClose(), 0);
  EXPECT_EQ(ReadFile(m_store + "/base/2024/01/31/a.bin"), "abc");
}

TEST_F(FtpClientServerTest, HostNameLoginAndConnectFailuresAndIpv6) {
  StartServer();
  // "localhost" may resolve to ::1 first, where nothing listens: the next address is tried.
  auto byName = Client("/", "", "a", "secret", "localhost");
  ASSERT_EQ(byName->FtpStart(), 0);
  EXPECT_EQ(byName->FtpGetServerDirFile(), 0);
  EXPECT_EQ(byName->FtpClose(), 0);

  auto wrong = Client("/", "", "a", "wrong");
  EXPECT_LT(wrong->FtpStart(), 0);
  EXPECT_EQ(m_log.Count("login refused"), 1);
  EXPECT_LT(wrong->FtpGetServerDirFile(), 0);  // no session after a failed start

  // A port nobody listens on: bind one, note it, close it.
  sockaddr_in a;
  int s = LoopbackSocket(-1, &a);
  ASSERT_GE(s, 0);
  close(s);
  m_server.reset();
  auto refused = Client("/", "", "a");
  UserDefServerSet_t srv{};
  srv.port = ntohs(a.sin_port);
  CopyText(srv.host, sizeof(srv.host), "127.0.0.1");
  refused->FtpSetServerInfo(&srv);
  auto start = std::chrono::steady_clock::now();
  EXPECT_LT(refused->FtpStart(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));

  CopyText(srv.host, sizeof(srv.host), "no-such-host.invalid");
  refused->FtpSetServerInfo(&srv);
  EXPECT_LT(refused->FtpStart(), 0);
  EXPECT_EQ(refused->FtpClose(), 0);  // nothing open: closing is harmless

  // Control and data connections over IPv6 (the data connection by EPSV: PASV cannot name an
  // IPv6 address).
  int v6 = socket(AF_INET6, SOCK_STREAM, 0);
  sockaddr_in6 loop6{};
  loop6.sin6_family = AF_INET6;
  loop6.sin6_addr = in6addr_loopback;
  bool haveV6 = v6 >= 0 && bind(v6, reinterpret_cast<sockaddr*>(&loop6), sizeof(loop6)) == 0;
  if (v6 >= 0) close(v6);
  if (!haveV6) GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
  StartServer({"--host", "::1"});
  auto c = Client("/", "", "v6.bin", "secret", "::1");
  ASSERT_EQ(c->FtpStart(), 0);
  int fd = c->FtpCreateDateSockFd(0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(SendBlocks(c.get(), fd, "over IPv6"), 0);
  EXPECT_EQ(c->FtpClose(), 0);
  EXPECT_EQ(ReadFile(m_store + "/v6.bin"), "over IPv6");
}

TEST_F(FtpClientServerTest, CallsOutsideASessionFailWithoutSideEffects) {
  StartServer();
  auto c = Client("/", "", "a.bin");
  EXPECT_LT(c->FtpGetServerDirFile(), 0);
  EXPECT_LT(c->FtpCreateDateSockFd(0), 0);
  int devnull = open("/dev/null", O_WRONLY);
  EXPECT_LT(c->FtpWriteDate(devnull, "x", 1, 1), 0);  // not the data connection
  close(devnull);
  ASSERT_EQ(c->FtpStart(), 0);
  EXPECT_LT(c->FtpCreateDateSockFd(7), 0);  // unknown mode
  auto bad = Client("/", "", "../escape");
  ASSERT_EQ(bad->FtpStart(), 0);
  EXPECT_LT(bad->FtpCreateDateSockFd(0), 0);  // a name with "/" is not stored
  EXPECT_EQ(c->FtpClose(), 0);
}

TEST_F(FtpClientServerTest, UnlistableDirectoryListsAsEmptySoTheFileIsStillSent) {
  StartServer({"--perm", "ewadfmT"});  // may store, may not list
  auto c = Client("/", "", "a.bin");
  ASSERT_EQ(c->FtpStart(), 0);
  EXPECT_EQ(c->FtpGetServerDirFile(), 0);
  EXPECT_EQ(c->FtpGetClientData()->entryCount, 0);
  int fd = c->FtpCreateDateSockFd(0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(c->FtpWriteDate(fd, "hello", 5, 10), 5);
  EXPECT_EQ(c->FtpClose(), 0);
}

}  // namespace
