// The host FTP client against a scripted server that answers what each test tells it:
// unusual but legal replies, and replies meant to break or stall the client.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/ftpclient.h"
#include "platform/log.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"
#include "tests/ftp_script_server.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string UnixLine(const std::string& name, long size) {
  return "-rw-r--r--   1 owner    group    " + std::to_string(size) + " Jan 31 10:15 " + name + "\r\n";
}

class FtpClientHostileTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (HasFailure()) {
      for (const std::string& line : m_log.Lines()) fprintf(stderr, "log: %s", line.c_str());
    }
  }

  // A client for the scripted server, with short limits so that stalls end quickly.
  std::unique_ptr<CFtpClient> Client(int port, const char* path = "", const char* dir = "",
                                     const char* name = "f.bin") {
    std::unique_ptr<CFtpClient> c(NewFtpClient());
    c->Init(WriteDbgLog);
    FtpTimeLimits_t limits;
    limits.connectMs = 1000;
    limits.replyMs = 400;
    limits.listingMs = 800;
    c->FtpSetTimeLimits(limits);
    UserDefServerSet_t s;
    memset(&s, 0, sizeof(s));
    s.port = static_cast<uint16_t>(port);
    CopyText(s.host, sizeof(s.host), "127.0.0.1");
    CopyText(s.user, sizeof(s.user), "u");
    CopyText(s.password, sizeof(s.password), "p");
    CopyText(s.path, sizeof(s.path), path);
    c->FtpSetServerInfo(&s);
    c->FtpSetLocalInfo(dir, name);
    return c;
  }

  static void ExpectClean(ScriptServer& server) {
    for (const std::string& f : server.Join()) ADD_FAILURE() << "script: " << f;
  }

  TempRoot m_root;
  LogCapture m_log;
};

TEST_F(FtpClientHostileTest, MultiLineRepliesAndPathJoin) {
  ScriptServer server([](ScriptConn& c) {
    c.Send("220-Welcome\r\n220-second line\r\n220x not the end\r\n 220 indented\r\n");
    c.Send("220 ready\r\n");
    c.On("USER u", "331-user ok\r\n331 password\r\n");
    c.On("PASS p", "230-Hello\r\n230 Logged in\r\n");
    c.On("TYPE I", "200 ok\r\n");
    c.On("CWD up/day", "550 no such\r\n");
    c.On("CWD up", "250 ok\r\n");
    c.On("CWD day", "550 no such\r\n");
    c.On("MKD day", "257 \"day\" created\r\n");
    c.On("CWD day", "250 ok\r\n");
    c.On("QUIT", "221-bye\r\n221 bye\r\n");
  });
  auto c = Client(server.port(), "up/", "/day/");
  EXPECT_EQ(c->FtpStart(), 0);
  EXPECT_EQ(c->FtpClose(), 0);
  ExpectClean(server);
}

TEST_F(FtpClientHostileTest, PasvAddressIgnoredAndNoCommandInjected) {
  std::string received;
  ScriptServer server([&](ScriptConn& c) {
    c.Login();
    c.On("EPSV", "502 not here\r\n");
    int port = c.OpenData();
    // A third host: the client must go to the control connection's peer instead.
    c.On("PASV", "227 Entering Passive Mode (10,255,255,1," + std::to_string(port / 256) + "," +
                     std::to_string(port % 256) + ")\r\n");
    c.AcceptData();
    c.On("STOR f.bin", "150 go\r\n");
    received = c.RecvData();
    c.Send("226 stored\r\n");
    c.On("QUIT", "221 bye\r\n");
  });
  auto c = Client(server.port());
  ASSERT_EQ(c->FtpStart(), 0);
  int fd = c->FtpCreateDateSockFd(0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(c->FtpWriteDate(fd, "payload", 7, 10), 7);
  EXPECT_EQ(c->FtpClose(), 0);
  ExpectClean(server);
  EXPECT_EQ(received, "payload");

  // A directory name with a line break is refused before any byte of it is sent.
  ScriptServer injected([](ScriptConn& conn) {
    conn.Login();
    std::string next = conn.ReadLine();  // "" once the client has closed
    if (!next.empty()) conn.failures.push_back("reached the server: " + next);
  });
  auto bad = Client(injected.port(), "", "day\r\nDELE keep.avi");
  EXPECT_LT(bad->FtpStart(), 0);
  EXPECT_EQ(m_log.Count("command contains a line break"), 1);
  ExpectClean(injected);
}

TEST_F(FtpClientHostileTest, BrokenRepliesFailFast) {
  const std::string cases[] = {
      "220 " + std::string(5000, 'x') + "\r\n",   // overlong line
      std::string(200000, 'y'),                     // endless line, no terminator
      "SSH-2.0-OpenSSH_9.2\r\n",                    // not FTP
      "220-start\r\n" + std::string(70000, ' ') + "\r\n",  // one line too long inside a reply
      std::string("220 ok\0\r\n", 9),               // NUL byte
      "",                                           // closes at once
  };
  for (const std::string& greeting : cases) {
    ScriptServer server([&](ScriptConn& c) {
      c.Send(greeting);
    });
    auto c = Client(server.port());
    auto start = Clock::now();
    EXPECT_LT(c->FtpStart(), 0) << greeting.substr(0, 40);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
    server.Join();
  }
  EXPECT_GE(m_log.Count("reply line too long"), 3);
  EXPECT_EQ(m_log.Count("not an FTP reply"), 1);
  EXPECT_EQ(m_log.Count("NUL byte in reply"), 1);
}

TEST_F(FtpClientHostileTest, SilentServerHitsTheTimeLimit) {
  // Silent at the greeting, after USER, during a listing and at the end of a transfer.
  ScriptServer greeting([](ScriptConn& c) { c.Silent(); });
  ScriptServer afterUser([](ScriptConn& c) {
    c.Send("220 hi\r\n");
    c.Expect("USER");
    c.Silent();
  });
  ScriptServer inListing([](ScriptConn& c) {
    c.Login();
    c.On("FEAT", "211 no features\r\n");
    c.PassiveByEpsv();
    c.On("LIST", "150 here it comes\r\n");
    c.SendData(UnixLine("a", 1));  // then nothing, the data connection stays open
    c.Silent();
  });
  ScriptServer atTransferEnd([](ScriptConn& c) {
    c.Login();
    c.PassiveByEpsv();
    c.On("STOR", "150 go\r\n");
    c.RecvData();
    c.Silent();  // never confirms the transfer
  });
  ScriptServer stopsReading([](ScriptConn& c) {
    c.Login();
    c.PassiveByEpsv();
    c.On("STOR", "150 go\r\n");
    c.Silent();  // the data connection is accepted but never read
  });
  for (ScriptServer* s : {&greeting, &afterUser}) {
    auto c = Client(s->port());
    auto start = Clock::now();
    EXPECT_LT(c->FtpStart(), 0);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
  }
  {
    auto c = Client(inListing.port());
    ASSERT_EQ(c->FtpStart(), 0);
    auto start = Clock::now();
    EXPECT_EQ(c->FtpGetServerDirFile(), -1);
    auto took = Clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(700));
    EXPECT_LT(took, std::chrono::milliseconds(2500));
  }
  {
    auto c = Client(atTransferEnd.port());
    ASSERT_EQ(c->FtpStart(), 0);
    int fd = c->FtpCreateDateSockFd(0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(c->FtpWriteDate(fd, "abc", 3, 1), 3);
    auto start = Clock::now();
    EXPECT_EQ(c->FtpClose(), -1);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
  }
  {
    auto c = Client(stopsReading.port());
    ASSERT_EQ(c->FtpStart(), 0);
    int fd = c->FtpCreateDateSockFd(0);
    ASSERT_GE(fd, 0);
    const std::string block(16384, 'w');
    int writes = 0;  // until the socket buffers are full (a few MB on loopback)
    auto start = Clock::now();
    while (writes < 8192 && c->FtpWriteDate(fd, block.data(), 16384, 1) == 16384) {
      ++writes;
      start = Clock::now();
    }
    auto took = Clock::now() - start;  // the write that failed
    EXPECT_LT(writes, 8192);
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::milliseconds(3000));  // a partial send may restart the 1 s once
    EXPECT_EQ(m_log.Count("send: timed out"), 1);
    EXPECT_EQ(c->FtpClose(), -1);
  }
  {
    // A listener with a full queue (backlog 0): the kernel drops further connection requests
    // unanswered, so the connect hangs until the client's limit.
    sockaddr_in a;
    int l = LoopbackSocket(0, &a);
    ASSERT_GE(l, 0);
    std::vector<int> queued;
    for (bool answered = true; answered && queued.size() < 8;) {
      queued.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
      connect(queued.back(), reinterpret_cast<sockaddr*>(&a), sizeof(a));
      pollfd p{queued.back(), POLLOUT, 0};
      answered = poll(&p, 1, 300) > 0;
    }
    auto c = Client(ntohs(a.sin_port));
    auto start = Clock::now();
    EXPECT_LT(c->FtpStart(), 0);
    auto took = Clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::milliseconds(2000));
    EXPECT_EQ(m_log.Count("connect: timed out"), 1);
    for (int q : queued) close(q);
    close(l);
  }
  EXPECT_GE(m_log.Count("timed out"), 6);
}

TEST_F(FtpClientHostileTest, LargeListingKeepsTheWantedFile) {
  std::string listing;
  for (int i = 0; i < 20000; ++i) listing += UnixLine("file" + std::to_string(i) + ".avi", i);
  listing += UnixLine("wanted.avi", 777777);
  ScriptServer server([&](ScriptConn& c) {
    c.Login();
    c.On("FEAT", "211-Features:\r\n EPSV\r\n211 End\r\n");
    c.PassiveByEpsv();
    c.On("LIST", "150 here\r\n");
    c.SendData(listing);
    c.CloseData();
    c.Send("226 done\r\n");
    c.On("QUIT", "221 bye\r\n");
  });
  auto c = Client(server.port(), "", "", "wanted.avi");
  ASSERT_EQ(c->FtpStart(), 0);
  ASSERT_EQ(c->FtpGetServerDirFile(), 0);
  FtpClientData_t* d = c->FtpGetClientData();
  ASSERT_EQ(d->entryCount, kFtpListCapacity);
  EXPECT_STREQ(d->entries[0].name, "file0.avi");
  EXPECT_STREQ(d->entries[kFtpListCapacity - 2].name,
               ("file" + std::to_string(kFtpListCapacity - 2) + ".avi").c_str());
  EXPECT_STREQ(d->entries[kFtpListCapacity - 1].name, "wanted.avi");
  EXPECT_EQ(d->entries[kFtpListCapacity - 1].size, 777777);
  EXPECT_EQ(c->FtpClose(), 0);
  ExpectClean(server);
}

TEST_F(FtpClientHostileTest, UnusableNamesAreSkippedNotCutAndAMissingSizeIsAsked) {
  const std::string longName(300, 'n');
  const std::string name127(127, 'k');
  std::string listing = "type=cdir;size=0; .\r\n"
                        "type=dir;size=0; sub\r\n"
                        "type=file;size=10; " + longName + "\r\n"
                        "type=file;size=11; " + std::string(128, 'm') + "\r\n"
                        "type=file;size=12; a/b\r\n"
                        "type=file;size=13; ctl\x01name\r\n"
                        "type=file;size=14; ..\r\n"
                        "type=file;size=15; " + name127 + "\r\n"
                        "type=file;modify=1; nosize\r\n"
                        "type=file;modify=1; with space\r\n"
                        "type=file;size=99999999999; big";  // no terminator at the end
  ScriptServer server([&](ScriptConn& c) {
    c.Login();
    c.On("FEAT", "211-Features:\r\n MLST type*;size*;\r\n EPSV\r\n211 End\r\n");
    c.PassiveByEpsv();
    c.On("MLSD", "150 here\r\n");
    c.SendData(listing);
    c.CloseData();
    c.Send("226 done\r\n");
    c.On("SIZE with space", "213 16\r\n");  // only the wanted file's size is asked
  });
  auto c = Client(server.port(), "", "", "with space");
  ASSERT_EQ(c->FtpStart(), 0);
  ASSERT_EQ(c->FtpGetServerDirFile(), 0);
  FtpClientData_t* d = c->FtpGetClientData();
  ASSERT_EQ(d->entryCount, 3);
  EXPECT_EQ(std::string(d->entries[0].name), name127);
  EXPECT_EQ(d->entries[0].size, 15);
  EXPECT_STREQ(d->entries[1].name, "big");
  EXPECT_EQ(d->entries[1].size, INT32_MAX);  // sizes beyond the record saturate
  EXPECT_STREQ(d->entries[2].name, "with space");
  EXPECT_EQ(d->entries[2].size, 16);
  EXPECT_EQ(m_log.Count("5 unusable names skipped"), 1);
  ExpectClean(server);
}

TEST_F(FtpClientHostileTest, DataConnectionClosedHalfWay) {
  ScriptServer upload([](ScriptConn& c) {
    c.Login();
    c.PassiveByEpsv();
    c.On("APPE f.bin", "150 go\r\n");
    c.RecvData(100000);
    c.CloseData();
    c.Send("426 transfer aborted\r\n");
    c.Silent();
  });
  ScriptServer listing([](ScriptConn& c) {
    c.Login();
    c.On("FEAT", "500 what\r\n");
    c.PassiveByEpsv();
    c.On("LIST", "150 here\r\n");
    c.SendData(UnixLine("a", 1) + "-rw-r--r-- 1 o g 5 Ja");
    c.CloseData();
    c.Send("426 aborted\r\n");
    c.Silent();
  });
  {
    auto c = Client(upload.port());
    ASSERT_EQ(c->FtpStart(), 0);
    int fd = c->FtpCreateDateSockFd(1);
    ASSERT_GE(fd, 0);
    std::string block(16384, 'd');
    int failed = 0;
    auto start = Clock::now();
    for (int i = 0; i < 1024 && failed == 0; ++i) {
      if (c->FtpWriteDate(fd, block.data(), 16384, 1) < 0) ++failed;
    }
    EXPECT_EQ(failed, 1);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(2500));
    EXPECT_EQ(c->FtpClose(), -1);
    EXPECT_EQ(m_log.Count("426 transfer aborted"), 1);
  }
  {
    auto c = Client(listing.port());
    ASSERT_EQ(c->FtpStart(), 0);
    EXPECT_EQ(c->FtpGetServerDirFile(), -1);
    EXPECT_EQ(m_log.Count("LIST failed: 426"), 1);
  }
}

TEST_F(FtpClientHostileTest, A550ListingRefusalListsEmptyOtherFailuresAreRetried) {
  struct Case {
    const char* reply;
    int expected;
  } cases[] = {{"550 No such directory\r\n", 0}, {"450 busy, try later\r\n", -1},
               {"425 cannot open data connection\r\n", -1}};
  for (const Case& k : cases) {
    ScriptServer server([&](ScriptConn& c) {
      c.Login();
      c.On("FEAT", "211-Features:\r\n MLSD\r\n211 End\r\n");
      c.PassiveByEpsv();
      c.On("MLSD", "550 MLSD not allowed\r\n");  // refused: the client falls back to LIST
      c.PassiveByEpsv();
      c.On("LIST", k.reply);
    });
    auto c = Client(server.port());
    ASSERT_EQ(c->FtpStart(), 0);
    EXPECT_EQ(c->FtpGetServerDirFile(), k.expected) << k.reply;
    c->FtpClose();
    ExpectClean(server);
  }
}

}  // namespace
