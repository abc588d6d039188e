// The FTP client over a scripted server on a fake clock: unusual but legal replies, and replies
// meant to break or stall the client. Nothing waits for real: where the server keeps silent,
// the transport moves the clock by the whole wait the client allowed.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/ftp/client.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"

namespace {

// How the server misbehaves beyond its replies.
enum Trouble {
  kNone,
  kHangsUp,           // closes the control connection once its replies are read
  kConnectHangs,      // never answers the control connect
  kDataConnectHangs,  // never answers a data connect
  kListingStalls,     // sends the listing, then nothing, with the data connection open
  kStopsReading,      // stores kCap bytes, then reads no more
  kClosesHalfWay,     // stores kCap bytes, then closes the data connection
};
constexpr size_t kCap = 100000;

// The server's side of one session, what it saw, and the clock of the scripted world.
struct Server : FtpClock {
  std::vector<std::string> turns;  // the greeting, then the reply to each command ('\n' = CRLF)
  Trouble trouble = kNone;
  std::string listing;  // what each data connection sends
  FakeClock clock;
  std::string connectedTo;
  std::vector<std::string> seen;  // command lines and data connects ("data <port>"), in order
  std::string stored;             // bytes received on data connections
  std::string toClient, fromClient;
  size_t turn = 0;

  int64_t NowMs() override { return clock.NowMs(); }
  void PlayTurn() {
    if (turn >= turns.size()) return;
    for (char c : turns[turn++]) toClient += c == '\n' ? std::string("\r\n") : std::string(1, c);
  }
  ssize_t TimeOut(int ms, const char* what, std::string* err) {
    clock.AdvanceMs(ms);
    *err = what;
    return -1;
  }
};

class ScriptConn : public FtpConn {
 public:
  ScriptConn(Server* s, bool data) : m_s(s), m_data(data), m_unread(data ? s->listing : "") {}
  int id() const override { return m_data ? 4 : 3; }
  bool SetBulkSend(int) override { return true; }

  int Send(const char* p, size_t len, int idleMs, std::string* err) override {
    if (!m_data) {
      m_s->fromClient.append(p, len);
      for (size_t nl; (nl = m_s->fromClient.find("\r\n")) != std::string::npos;) {
        m_s->seen.push_back(m_s->fromClient.substr(0, nl));
        m_s->fromClient.erase(0, nl + 2);
        m_s->PlayTurn();
      }
      return 0;
    }
    bool capped = m_s->trouble == kStopsReading || m_s->trouble == kClosesHalfWay;
    size_t room = capped ? kCap - std::min(kCap, m_s->stored.size()) : len;
    m_s->stored.append(p, std::min(room, len));
    if (len <= room) return 0;
    if (m_s->trouble == kStopsReading) return m_s->TimeOut(idleMs, "send: timed out", err);
    *err = "send: Broken pipe";
    return -1;
  }

  ssize_t Recv(char* buf, size_t cap, int timeoutMs, std::string* err) override {
    std::string& from = m_data ? m_unread : m_s->toClient;
    if (!from.empty()) {
      size_t n = std::min(cap, from.size());
      memcpy(buf, from.data(), n);
      from.erase(0, n);
      return static_cast<ssize_t>(n);
    }
    if (m_data ? m_s->trouble != kListingStalls : m_s->trouble == kHangsUp) return 0;
    return m_s->TimeOut(timeoutMs, "receive: timed out", err);
  }

 private:
  Server* const m_s;
  const bool m_data;
  std::string m_unread;
};

class ScriptTransport : public FtpTransport {
 public:
  explicit ScriptTransport(Server* s) : m_s(s) {}
  std::unique_ptr<FtpConn> Connect(const std::string& host, int port, int timeoutMs,
                                   std::string* err) override {
    m_s->connectedTo = host + ":" + std::to_string(port);
    if (m_s->trouble == kConnectHangs) {
      m_s->TimeOut(timeoutMs, "connect: timed out", err);
      return nullptr;
    }
    m_s->PlayTurn();
    return std::unique_ptr<FtpConn>(new ScriptConn(m_s, false));
  }
  int ConnectToPeer(const FtpConn& ctrl, int port, int timeoutMs, std::unique_ptr<FtpConn>* out,
                    std::string* err) override {
    EXPECT_EQ(ctrl.id(), 3);
    m_s->seen.push_back("data " + std::to_string(port));
    if (m_s->trouble == kDataConnectHangs)
      return m_s->TimeOut(timeoutMs, "connect: timed out", err);
    out->reset(new ScriptConn(m_s, true));
    return 0;
  }

 private:
  Server* const m_s;
};

std::string Join(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& i : items) out += (out.empty() ? "" : "|") + i;
  return out;
}

// The record's entries as "name:size|...".
std::string Render(const FtpClientData_t& d) {
  std::vector<std::string> items;
  for (int i = 0; i < std::min(d.entryCount, kFtpListCapacity); ++i) {
    items.push_back(std::string(d.entries[i].name) + ":" + std::to_string(d.entries[i].size));
  }
  return Join(items);
}

std::string UnixLine(const std::string& name, long size) {
  return "-rw-r--r--   1 owner    group    " + std::to_string(size) + " Jan 31 10:15 " + name +
         "\r\n";
}

struct Case {
  const char* name;
  std::vector<std::string> turns;
  // S start, L list, O store anew, A append, X mode 7, W write the payload in 16384-byte blocks
  // with the default limit (0), V the same with 3 s, w write on the control's id, C close,
  // T replace the time limits (connect 1 s, reply 2 s, listing 3 s).
  const char* calls;
  const char* results;  // each call's result; W and V give the bytes written or -1, T 0
  std::string seen;
  int64_t elapsedMs = 0;  // fake time the calls took
  Trouble trouble = kNone;
  std::string listing = "";
  std::string entries = "";  // the record after the calls
  const char* path = "";
  const char* dir = "";
  const char* file = "f.bin";
};

std::vector<std::string> Login(std::vector<std::string> more) {
  more.insert(more.begin(), {"220 hi\n", "331 pw\n", "230 in\n", "200 ok\n"});
  return more;
}

std::vector<Case> Cases() {
  const std::string in = "USER u|PASS p|TYPE I|";
  const char* const epsv = "229 Extended Passive Mode (|||5000|)\n";
  const char* const mlsd = "211-Features:\n MLST type*;size*;\n EPSV\n211 End\n";
  std::string many, kept;  // the wanted file takes the last slot
  for (int i = 0; i < 20000; ++i) many += UnixLine("file" + std::to_string(i) + ".avi", i);
  many += UnixLine("wanted.avi", 777777);
  for (int i = 0; i < 1023; ++i)
    kept += "file" + std::to_string(i) + ".avi:" + std::to_string(i) + "|";
  const std::string k127(127, 'k');
  const std::string names =
      "type=cdir;size=0; .\r\ntype=dir;size=0; sub\r\ntype=file;size=10; " + std::string(300, 'n') +
      "\r\ntype=file;size=11; " + std::string(128, 'm') + "\r\ntype=file;size=12; a/b\r\n" +
      "type=file;size=13; ctl\x01name\r\ntype=file;size=14; ..\r\ntype=file;size=15; " + k127 +
      "\r\ntype=file;modify=1; nosize\r\ntype=file;modify=1; with space\r\n" +
      "type=file;size=99999999999; big";  // no line end
  // clang-format off
  return {
    {"multi-line replies; the path is joined, then walked and made",
     {"220-Welcome\n220-second line\n220x not the end\n 220 indented\n220 ready\n",
      "331-user ok\n331 password\n", "230-Hello\n230 Logged in\n", "200 ok\n", "550 no\n", "250 ok\n",
      "550 no\n", "257 \"day\" created\n", "250 ok\n", "221-bye\n221 bye\n"},
     "SC", "0 0", in + "CWD up/day|CWD up|CWD day|MKD day|CWD day|QUIT", 0, kNone, "", "", "up/", "/day/"},
    {"120 first, no password asked, absolute walk; a refused MKD is judged by the CWD after it",
     {"120 soon\n220 ok\n", "230 no password needed\n", "200 ok\n", "550 no\n", "250 ok\n", "250 ok\n",
      "550 no\n", "550 exists\n", "250 ok\n", "550 no\n", "257 made\n", "550 no\n"},
     "SL", "-1 -1", "USER u|TYPE I|CWD /base/a/b|CWD /|CWD base|CWD a|MKD a|CWD a|CWD b|MKD b|CWD b",
     0, kNone, "", "", "/base/", "a//./b"},
    {"EPSV refused: PASV for the session, its address ignored; FEAT asked once",
     Login({"211 no features\n", "502 no\n", "227 Entering Passive Mode (10,255,255,1,19,137)\n",
            "150 here\n226 done\n", "227 =10,0,0,1,19,138\n", "150 here\n226 done\n",
            "227 (10,0,0,1,19,139)\n", "150 go\n226 stored\n", "221 bye\n"}),
     "SLLOWC", "0 0 0 4 200000 0",
     in + "FEAT|EPSV|PASV|data 5001|LIST|PASV|data 5002|LIST|PASV|data 5003|STOR f.bin|QUIT", 0,
     kNone, UnixLine("a.avi", 5), "a.avi:5"},
    {"a directory name with a line break never reaches the server", Login({}), "S", "-1",
     "USER u|PASS p|TYPE I", 0, kNone, "", "", "", "day\r\nDELE keep.avi"},
    {"overlong reply line", {"220 " + std::string(5000, 'x') + "\n"}, "S", "-1", ""},
    {"endless line", {std::string(200000, 'y')}, "S", "-1", ""},
    {"not FTP", {"SSH-2.0-OpenSSH_9.2\n"}, "S", "-1", ""},
    {"overlong line inside a reply", {"220-start\n" + std::string(70000, ' ') + "\n"}, "S", "-1", ""},
    {"NUL byte", {std::string("220 ok\0\n", 8)}, "S", "-1", ""},
    {"closes at once", {}, "S", "-1", "", 0, kHangsUp},
    {"silent greeting", {}, "S", "-1", "", 30000},
    {"silent greeting, limits replaced", {}, "TS", "0 -1", "", 2000},
    {"silent after USER", {"220 hi\n"}, "S", "-1", "USER u", 30000},
    {"connect never answered", {}, "S", "-1", "", 10000, kConnectHangs},
    {"connect never answered, limits replaced", {}, "TS", "0 -1", "", 1000, kConnectHangs},
    {"data connect never answered", Login({epsv}), "SO", "0 -1", in + "EPSV|data 5000", 10000,
     kDataConnectHangs},
    {"listing stalls", Login({"211 no features\n", epsv, "150 here\n"}), "SLC", "0 -1 0",
     in + "FEAT|EPSV|data 5000|LIST", 120000, kListingStalls, UnixLine("a", 1)},
    {"transfer never confirmed", Login({epsv, "150 go\n"}), "SOWC", "0 4 200000 -1",
     in + "EPSV|data 5000|STOR f.bin", 30000},
    {"receiver stops reading", Login({epsv, "150 go\n"}), "SOW", "0 4 -1",
     in + "EPSV|data 5000|STOR f.bin", 10000, kStopsReading},
    {"receiver stops reading, 3 s", Login({epsv, "150 go\n"}), "SOV", "0 4 -1",
     in + "EPSV|data 5000|STOR f.bin", 3000, kStopsReading},
    {"append cut half-way; QUIT unanswered", Login({epsv, "150 go\n426 transfer aborted\n"}), "SAWC",
     "0 4 -1 -1", in + "EPSV|data 5000|APPE f.bin|QUIT", 2000, kClosesHalfWay},
    {"listing cut half-way", Login({"500 what\n", epsv, "150 here\n426 aborted\n"}), "SL", "0 -1",
     in + "FEAT|EPSV|data 5000|LIST", 0, kNone, UnixLine("a", 1) + "-rw-r--r-- 1 o g 5 Ja"},
    {"20,000 entries, the wanted file last",
     Login({"211-Features:\n EPSV\n211 End\n", epsv, "150 here\n226 done\n", "221 bye\n"}), "SLC",
     "0 0 0", in + "FEAT|EPSV|data 5000|LIST|QUIT", 0, kNone, many,
     kept + "wanted.avi:777777", "", "", "wanted.avi"},
    {"unusable names skipped, not cut; the wanted file's missing size asked",
     Login({mlsd, epsv, "150 here\n226 done\n", "213 16\n"}), "SL", "0 0",
     in + "FEAT|EPSV|data 5000|MLSD|SIZE with space", 0, kNone, names,
     k127 + ":15|big:2147483647|with space:16", "", "", "with space"},
    {"size refused: the file stays out", Login({mlsd, epsv, "150 here\n226 done\n", "550 no\n"}),
     "SL", "0 0", in + "FEAT|EPSV|data 5000|MLSD|SIZE f.bin", 0, kNone,
     "type=file;modify=1; f.bin\r\ntype=file;size=3; g\r\n", "g:3"},
    {"550 to MLSD, then to LIST: an empty listing",
     Login({mlsd, epsv, "550 not allowed\n", epsv, "550 no such directory\n"}), "SLC", "0 0 0",
     in + "FEAT|EPSV|data 5000|MLSD|EPSV|data 5000|LIST|QUIT", 2000},
    {"450 to LIST", Login({"211 x\n", epsv, "450 busy\n"}), "SL", "0 -1",
     in + "FEAT|EPSV|data 5000|LIST"},
    {"425 to LIST", Login({"211 x\n", epsv, "425 no data connection\n"}), "SL", "0 -1",
     in + "FEAT|EPSV|data 5000|LIST"},
    {"calls outside a session, unknown mode, foreign descriptor, unusable name", Login({}),
     "LOwCSXwO", "-1 -1 -1 0 0 -1 -1 -1", "USER u|PASS p|TYPE I", 0, kNone, "", "", "", "",
     "../escape"},
    {"a second data connection ends the session", Login({epsv, "150 go\n226 ok\n", "221 bye\n"}),
     "SOOL", "0 4 -1 -1", in + "EPSV|data 5000|STOR f.bin|QUIT"},
  };
  // clang-format on
}

// Runs one call; O, A and X also check that the record holds the descriptor at byte 4.
int Call(CFtpClient* c, char op, const std::string& payload, int* fd) {
  // clang-format off
  switch (op) {
    case 'S': return c->FtpStart();
    case 'L': return c->FtpGetServerDirFile();
    case 'w': return c->FtpWriteDate(3, "x", 1, 0);
    case 'C': return c->FtpClose();
    case 'T': return c->FtpSetTimeLimits(FtpTimeLimits_t{1000, 2000, 3000}), 0;
    case 'O': case 'A': case 'X': {
      int r = c->FtpCreateDateSockFd(op == 'O' ? 0 : op == 'A' ? 1 : 7);
      if (r >= 0) *fd = r;
      int32_t atByte4;
      memcpy(&atByte4, reinterpret_cast<const char*>(c->FtpGetClientData()) + 4, 4);
      EXPECT_EQ(atByte4, r >= 0 ? r : -1);
      return r;
    }
    case 'W': case 'V':
      for (size_t off = 0; off < payload.size(); off += 16384) {
        int n = static_cast<int>(std::min<size_t>(16384, payload.size() - off));
        if (c->FtpWriteDate(*fd, payload.data() + off, n, op == 'W' ? 0 : 3) != n) return -1;
      }
      return static_cast<int>(payload.size());
  }
  // clang-format on
  ADD_FAILURE() << "unknown call " << op;
  return -9;
}

TEST(FtpSessionTest, ScriptedServers) {
  std::string payload(200000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7 % 251);
  for (const Case& k : Cases()) {
    SCOPED_TRACE(k.name);
    Server s;
    s.turns = k.turns;
    s.trouble = k.trouble;
    s.listing = k.listing;
    std::unique_ptr<CFtpClient> c(
        NewFtpClientOver(std::unique_ptr<FtpTransport>(new ScriptTransport(&s)), &s));
    c->Init(nullptr);
    UserDefServerSet_t srv{};
    CopyText(srv.host, sizeof(srv.host), "ftp.example");
    CopyText(srv.user, sizeof(srv.user), "u");
    CopyText(srv.password, sizeof(srv.password), "p");
    CopyText(srv.path, sizeof(srv.path), k.path);
    c->FtpSetServerInfo(&srv);
    c->FtpSetLocalInfo(k.dir, k.file);
    int64_t start = s.NowMs();
    std::string results;
    int fd = -1;
    for (const char* op = k.calls; *op != '\0'; ++op) {
      results += (results.empty() ? "" : " ") + std::to_string(Call(c.get(), *op, payload, &fd));
    }
    EXPECT_EQ(results, k.results);
    EXPECT_EQ(Join(s.seen), k.seen);
    EXPECT_EQ(s.NowMs() - start, k.elapsedMs);
    EXPECT_EQ(Render(*c->FtpGetClientData()), k.entries);
    bool wrote = strpbrk(k.calls, "WV") != nullptr;
    bool capped = k.trouble == kStopsReading || k.trouble == kClosesHalfWay;
    EXPECT_EQ(s.stored, payload.substr(0, !wrote ? 0 : capped ? kCap : payload.size()));
    EXPECT_EQ(s.connectedTo, strchr(k.calls, 'S') ? "ftp.example:21" : "");
  }
}

}  // namespace
