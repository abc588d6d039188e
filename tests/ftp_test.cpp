// The FTP client over scripted servers on a fake clock (a silent server moves the clock by the
// wait allowed), and its reply, listing and TLS policy parsers. (The socket transport under it
// meets real servers in the system tests.)
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <tuple>

#include "platform/host/ftp/client.h"
#include "platform/host/ftp/listing.h"
#include "platform/host/ftp/reply.h"
#include "platform/host/ftp/tls_policy.h"
#include "platform/text.h"
#include "tests/fakes/fakes.h"

namespace {

// How the server misbehaves beyond its replies; the last two after taking kCap bytes of a transfer.
enum Trouble { kNone, kHangsUp, kConnectHangs, kDataConnectHangs, kStalls, kStopsReading, kCloses };
constexpr size_t kCap = 100000;

// The scripted server, which is also the transport the client owns and the clock it runs on.
// A script is lines: the server's, and the client's marked '>' (data connects as ">data
// <port>"); the server's lines after a command are its reply, sent a few bytes at a time.
struct Server : FtpTransport, FtpClock {
  struct Conn : FtpConn {  // the control connection (3) or a data connection (4)
    Conn(Server* server, bool isData) : s(server), data(isData), unread(isData ? s->listing : "") {}
    int id() const override { return data ? 4 : 3; }
    bool SetBulkSend(int) override { return true; }
    int Send(const char* p, size_t len, int idleMs, std::string* err) override {
      if (!data) {  // a command: the next reply follows
        s->seen.append(p, len);
        if (++s->turn < s->replies.size()) s->toClient += s->replies[s->turn];
        return 0;
      }
      size_t room = s->trouble >= kStopsReading ? kCap - std::min(kCap, s->stored.size()) : len;
      s->stored.append(p, std::min(room, len));
      if (len <= room) return 0;
      return s->TimeOut(s->trouble == kStopsReading ? idleMs : 0, "send failed", err);
    }
    ssize_t Recv(char* buf, size_t cap, int timeoutMs, std::string* err) override {
      std::string& from = data ? unread : s->toClient;
      size_t n = std::min({cap, from.size(), data ? cap : 7});
      memcpy(buf, from.data(), n);
      from.erase(0, n);
      if (n > 0 || (data ? s->trouble != kStalls : s->trouble == kHangsUp)) return ssize_t(n);
      return s->TimeOut(timeoutMs, "receive: timed out", err);
    }
    Server* const s;
    const bool data;
    std::string unread;
  };

  Server(const std::string& script, Trouble t, const std::string& list)
      : trouble(t), listing(list), replies(1) {
    std::istringstream lines(script);
    for (std::string line; std::getline(lines, line);) {
      if (line[0] != '>') replies.back() += line + "\r\n";
      if (line[0] == '>') want += line.substr(1) + "\r\n";
      if (line[0] == '>' && line.compare(0, 5, ">data") != 0 && line != ">tls") {
        replies.emplace_back();
      }
    }
  }
  int64_t NowMs() override { return now; }
  int TimeOut(int ms, const char* what, std::string* err) { return now += ms, *err = what, -1; }
  std::unique_ptr<FtpConn> Connect(const std::string& host, int port, int timeoutMs,
                                   std::string* err) override {
    EXPECT_EQ(host + ":" + std::to_string(port), "ftp.example:21");
    if (trouble == kConnectHangs) return TimeOut(timeoutMs, "connect: timed out", err), nullptr;
    toClient = replies[0];
    return std::unique_ptr<FtpConn>(new Conn(this, false));
  }
  int ConnectToPeer(const FtpConn& ctrl, int port, int timeoutMs, std::unique_ptr<FtpConn>* out,
                    std::string* err) override {
    EXPECT_EQ(ctrl.id(), 3);
    seen += "data " + std::to_string(port) + "\r\n";
    if (trouble == kDataConnectHangs) return TimeOut(timeoutMs, "connect: timed out", err);
    out->reset(new Conn(this, true));
    return 0;
  }
  // TLS that changes nothing on the wire but is seen as ">tls". (Refusals of a real TLS layer
  // are shown against real servers by the system tests.)
  std::unique_ptr<FtpConn> StartTls(std::unique_ptr<FtpConn> plain, const std::string&,
                                    const FtpTlsPolicy&, const FtpConn*, int,
                                    std::string*) override {
    seen += "tls\r\n";
    return plain;
  }

  const Trouble trouble;
  const std::string listing;         // what each data connection sends
  std::vector<std::string> replies;  // to the connect, then to each command
  std::string want, seen;            // the client's lines the script expects, and those it sent
  std::string toClient, stored;      // stored: bytes received on data connections
  size_t turn = 0;
  int64_t now = 0;
};

// Calls: S start, L list, Z size, O store anew, A append, X mode 7, W write the payload in
// 20000-byte blocks with the default limit (0), V the same with 3 s, w write on the control's id, C
// close, T set the time limits (connect 1 s, reply 2 s, listing 3 s). Results: each call's, with
// the record as "=name:size|..." after an L that leaves it not empty; W and V give the bytes the
// server holds, or -1.
struct Case {
  const char *name, *calls;
  std::string results, script;
  int64_t elapsedMs = 0;  // fake time the calls took
  Trouble trouble = kNone;
  std::string listing = "";
  const char *path = "", *dir = "", *file = "f.bin";
};

std::vector<Case> Cases() {
  const std::string in = "220 hi\n>USER u\n331 pw\n>PASS p\n230 in\n>TYPE I\n200 ok\n";
  const std::string epsv = ">EPSV\n229 Extended Passive Mode (|||5000|)\n>data 5000\n";
  const std::string mlsd = ">FEAT\n211-Features:\n MLST type*;size*;\n EPSV\n211 End\n" + epsv;
  const std::string list = in + ">FEAT\n211\n" + epsv + ">LIST\n150\n",
                    stor = in + epsv + ">STOR f.bin\n125\n";
  auto ls = [](const std::string& name, int size) {
    return "-rw-r--r--   1 owner group " + std::to_string(size) + " Jan 31 10:15 " + name + "\r\n";
  };
  std::string many, kept;  // the wanted file comes last, when the record is full
  for (int i = 0; i < 20000; ++i) many += ls("file" + std::to_string(i), i);
  for (int i = 0; i < 1023; ++i) kept += "file" + std::to_string(i) + ":" + std::to_string(i) + "|";
  const std::string f = "\r\ntype=file;size=2; ";  // then a name that cannot be kept
  const std::string names = "type=cdir;size=0; .\r\ntype=dir;size=0; sub\r\ntype=file;modify=1; x" +
                            f + "a/b" + f + "c\x01" + f + "." + f + ".." + f + "d\x7f" + f +
                            std::string(300, 'n') + f + std::string(128, 'm') +
                            "\r\ntype=file;size=2;" + std::string(5000, 'x') + " f.bin\r\n" +
                            "type=file;size=9; ...\r\ntype=file;size=15; " + std::string(127, 'k') +
                            "\r\ntype=file;modify=1; f.bin\r\ntype=file;size=9; with space\r\n" +
                            "type=file;size=99999999999; big";  // no line end
  const std::string kNames = "...:9|" + std::string(127, 'k') + ":15|with space:9|big:99999999999";
  std::string huge = "220-many lines\n";  // a reply over kFtpMaxReplyBytes
  while (huge.size() <= kFtpMaxReplyBytes) huge += std::string(1000, 'y') + "\n";
  std::vector<Case> cases;
  for (const std::string& bad : std::vector<std::string>{
           "620 bad class", "22 short", "220x", "SSH-2.0-OpenSSH_9.2", std::string("220 ok\0", 7),
           huge, "220 " + std::string(kFtpMaxReplyLine - 3, 'x'), "200 not a greeting",
           "220 ok\n>USER u\n332 account wanted", "220 ok\n>USER u\n331\n>PASS p\n200 what"}) {
    cases.push_back({"unreadable greeting, no login", "S", "-1", bad});
  }
  // clang-format off
  cases.insert(cases.end(), {
    {"the longest reply line", "S", "-1", "220 " + std::string(kFtpMaxReplyLine - 4, 'x') +
     "\n>USER u", 30000},
    {"multi-line replies; the path is joined, then walked and made", "SC", "0 0",
     "220-Welcome\n220-still\n220x not the end\n 220 indented\n331 not the end\n220 ready\n>USER u\n331-user\n"
     "331 password\n>PASS p\n230-Hello\n230 in\n>TYPE I\n110 mark\n200\n>CWD up/day\n550\n>CWD up\n250\n"
     ">CWD day\n550\n>MKD day\n257 \"day\" made\n>CWD day\n250\n>QUIT\n221-bye\n221 bye", 0, kNone,
     "", "up/", "/day/"},
    {"120 first, no password asked, absolute walk; a refused MKD is judged by the CWD after it",
     "SL", "-1 -1", "120 soon\n220 ok\n>USER u\n230 no password needed\n>TYPE I\n200\n"
     ">CWD /base/a/b\n550\n>CWD /\n250\n>CWD base\n250\n>CWD a\n550\n>MKD a\n550 exists\n>CWD a\n"
     "250\n>CWD b\n550\n>MKD b\n257 made\n>CWD b\n550", 0, kNone, "", "/base/", "a//./b"},
    {"EPSV refused: PASV for the session, its address ignored; FEAT asked once", "SLLOWC",
     "0 0=a:5 0=a:5 4 200000 0", in + ">FEAT\n211 no features\n>EPSV\n502 no\n>PASV\n"
     "227 Entering Passive Mode (10,255,255,1,19,137)\n>data 5001\n>LIST\n150\n226\n>PASV\n"
     "227 =10,0,0,1,19,138\n>data 5002\n>LIST\n150\n226\n>PASV\n227 (10,0,0,1,19,139)\n"
     ">data 5003\n>STOR f.bin\n150\n250\n>QUIT\n221", 0, kNone, ls("a", 5)},
    {"a 4xx to EPSV is asked again; a 2xx other than 229 or 227 gives no port", "SLL", "0 0 -1",
     in + ">FEAT\n211\n>EPSV\n425\n>PASV\n227 (1,2,3,4,19,137)\n>data 5001\n>LIST\n150\n226\n"
     ">EPSV\n200 (|||5000|)\n>PASV\n200 (1,2,3,4,19,139)"},
    {"a store answered 110 has no go-ahead", "SO", "0 -1", in + epsv + ">STOR f.bin\n110 MARK"},
    {"a CR never reaches the server", "S", "-1", in, 0, kNone, "", "", "day\rDELE keep.avi"},
    {"an LF never reaches the server", "S", "-1", in, 0, kNone, "", "", "day\nDELE keep.avi"},
    {"closes at once", "S", "-1", "", 0, kHangsUp},
    {"silent greeting, limits set", "TS", "0 -1", "", 2000},
    {"silent after USER", "S", "-1", "220 hi\n>USER u", 30000},
    {"connect never answered, limits set", "TS", "0 -1", "", 1000, kConnectHangs},
    {"data connect never answered", "SO", "0 -1", in + epsv, 10000, kDataConnectHangs},
    {"listing stalls", "SLC", "0 -1 0", list, 120000, kStalls, ls("a", 1)},
    {"transfer never confirmed", "SOWC", "0 4 200000 -1", stor, 30000},
    {"receiver stops reading: 10 s by default, then 3 s", "SOWV", "0 4 -1 -1", stor, 13000,
     kStopsReading},
    {"append cut half-way; QUIT unanswered", "SAWC", "0 4 -1 -1",
     in + epsv + ">APPE f.bin\n150 go\n426 aborted\n>QUIT", 2000, kCloses},
    {"listing cut half-way", "SL", "0 -1", list + "426", 0, kNone, ls("a", 1) + "-rw-r--r-- 1 o g"},
    {"20,000 entries, the wanted file last", "SLC", "0 0=" + kept + "f.bin:7 0",
     in + ">FEAT\n211-Features:\n EPSV\n211 End\n" + epsv + ">LIST\n125\n250\n>QUIT\n221", 0,
     kNone, many + ls("f.bin", 7)},
    {"unusable names skipped, not cut; the wanted file's missing size asked, then refused", "SLL",
     "0 0=" + kNames + "|f.bin:16 0=" + kNames, in + mlsd + ">MLSD\n150\n226\n>SIZE f.bin\n"
     "213 16\n" + epsv + ">MLSD\n150\n226\n>SIZE f.bin\n550", 0, kNone, names},
    {"550 to MLSD, then to LIST: an empty listing; 425, then 553 fail", "SLL", "0 0 -1", in + mlsd +
     ">MLSD\n550\n" + epsv + ">LIST\n550\n" + epsv + ">MLSD\n425\n" + epsv + ">LIST\n553"},
    {"calls outside a session, unknown mode, foreign descriptor, unusable name", "LOwCSXwO",
     "-1 -1 -1 0 0 -1 -1 -1", in, 0, kNone, "", "", "", "../escape"},
    {"SIZE: over 2 GiB, unknown when refused, -2 outside a session", "ZSZZ", "-2 0 3000000000 -1",
     in + ">SIZE f.bin\n213 3000000000\n>SIZE f.bin\n502 no"},
    {"a second transfer ends the session", "SOOL", "0 4 -1 -1", stor + "226\n>QUIT\n221"},
  });
  // clang-format on
  return cases;
}

// Points c at user "u" on host:port (0: the default) with the server path, and at the local file.
void PointAt(CFtpClient* c, const char* host, int port, const char* password, const char* path,
             const char* dir, const char* file) {
  UserDefServerSet_t srv{static_cast<uint16_t>(port), "", "u", "", ""};
  CopyText(srv.host, sizeof(srv.host), host);
  CopyText(srv.password, sizeof(srv.password), password);
  CopyText(srv.path, sizeof(srv.path), path);
  c->Init(nullptr);
  c->FtpSetServerInfo(&srv);
  c->FtpSetLocalInfo(dir, file);
}

std::string Call(CFtpClient* c, char op, const Server& s, const std::string& payload, int* fd) {
  const FtpClientData_t& d = *c->FtpGetClientData();
  std::string r;
  // clang-format off
  switch (op) {
    case 'S': return std::to_string(c->FtpStart());
    case 'w': return std::to_string(c->FtpWriteDate(3, "x", 1, 0));
    case 'C': return std::to_string(c->FtpClose());
    case 'Z': return std::to_string(c->FtpGetFileSize());
    case 'T': return c->FtpSetTimeLimits(FtpTimeLimits_t{1000, 2000, 3000}), "0";
    case 'L':
      r = std::to_string(c->FtpGetServerDirFile());
      for (int i = 0; i < std::min(d.entryCount, kFtpListCapacity); ++i)
        r += (i > 0 ? "|" : "=") + std::string(d.entries[i].name) + ":" +
             std::to_string(d.entries[i].size);
      return r;
    case 'W': case 'V':
      for (size_t off = 0; off < payload.size(); off += 20000)
        if (c->FtpWriteDate(*fd, &payload[off], 20000, op == 'W' ? 0 : 3) != 20000) return "-1";
      return std::to_string(s.stored.size());
  }
  // clang-format on
  *fd = c->FtpCreateDateSockFd(op == 'O' ? 0 : op == 'A' ? 1 : 7);  // O, A, X
  EXPECT_EQ(d.dataFd, *fd);  // the descriptor at byte 4, or -1
  return std::to_string(*fd);
}

TEST(FtpSessionTest, ScriptedServers) {
  std::string payload(200000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7 % 251);
  for (const Case& k : Cases()) {
    SCOPED_TRACE(k.name + (": " + k.script.substr(0, 20)));
    Server* s = new Server(k.script, k.trouble, k.listing);  // owned by the client
    std::unique_ptr<CFtpClient> c(NewFtpClientOver(std::unique_ptr<FtpTransport>(s), s));
    PointAt(c.get(), "ftp.example", 0, "p", k.path, k.dir, k.file);
    std::string results;
    int fd = -1;
    for (char op : std::string(k.calls)) results += " " + Call(c.get(), op, *s, payload, &fd);
    EXPECT_EQ(results, " " + k.results);
    EXPECT_EQ(s->seen, s->want);
    EXPECT_EQ(s->now, k.elapsedMs);
    EXPECT_EQ(s->stored, payload.substr(0, s->stored.size()));
  }
}

TEST(FtpSessionTest, RequiredTlsComesFirstAndNeverFallsBackToClearText) {
  TempRoot root;
  const std::string auth = "220 hi\n>AUTH TLS\n234 go\n>tls\n>USER u\n331\n>PASS p\n230\n";
  // The policy for ftp.example, calls and results (as in ScriptedServers), the script.
  // clang-format off
  for (auto [policy, calls, results, script, trouble] :
       std::vector<std::tuple<const char*, const char*, const char*, std::string, Trouble>>{
      {"* require", "SOWC", "0 4 200000 0", auth + ">PBSZ 0\n200\n>PROT P\n200\n>TYPE I\n200\n"
       ">EPSV\n229 (|||5000|)\n>data 5000\n>STOR f.bin\n150\n>tls\n226\n>QUIT\n221", kNone},
      {"ftp.example require", "S", "-1", auth + ">PBSZ 0\n200\n>PROT P\n534 no", kNone},
      {"ftp.example require pin=sha256:00\n* off", "S", "-1", "", kNone}}) {
    // clang-format on
    SCOPED_TRACE(policy + (": " + script));
    root.Write("/etc/velmar/ftps.conf", policy);
    Server* s = new Server(script, trouble, "");
    std::unique_ptr<CFtpClient> c(NewFtpClientOver(std::unique_ptr<FtpTransport>(s), s));
    PointAt(c.get(), "ftp.example", 0, "p", "", "", "f.bin");
    std::string got, payload(200000, 'x');
    int fd = -1;
    for (char op : std::string(calls))
      got += (got.empty() ? "" : " ") + Call(c.get(), op, *s, payload, &fd);
    EXPECT_EQ(got, results);
    EXPECT_EQ(s->seen, s->want);
  }
}

TEST(FtpParsersTest, PassivePortsAndFeatures) {
  // A reply, and the port that ParseEpsvPort and ParsePasvPort read in it (or -1).
  // clang-format off
  for (auto [text, epsv, pasv] : std::vector<std::tuple<const char*, int, int>>{
      {"229 ok (!!!1!)", 1, -1}, {"229 ok (|||65535|)", 65535, -1}, {"229 ok (|||0|)", -1, -1},
      {"229 ok (|||65536|)", -1, -1}, {"229 ok (||1|)", -1, -1}, {"229 ok (|||12", -1, -1},
      {"229 ok (|||12|", -1, -1}, {"227 (1,2,3,4,256,1)", -1, -1}, {"227 (1,2,3,4,5)", -1, -1},
      {"227 (1,2,3,4,0,0)", -1, -1}, {"227 (1,2,3,4,0,1)", -1, 1},
      {"227 1,2,3,4,255,255.", -1, 65535}, {"227 (1,2,3,1000,1,2)", -1, -1}}) {
    // clang-format on
    EXPECT_EQ(ParseEpsvPort(text), epsv) << text;
    EXPECT_EQ(ParsePasvPort(text), pasv) << text;
  }
  EXPECT_TRUE(FeatOffersMlsd("211-Features:\n MDTM\n mlsd\n211 End"));
  EXPECT_FALSE(FeatOffersMlsd("211-Features:\n MLSTX\n211 MLST"));
}

TEST(FtpParsersTest, TlsPolicyIsStrictAndNeverFallsBackToOff) {
  // A policy file, and for host "h": the mode (0 off, 1 require, 2 broken), ca, verify_host
  // and whether the pin read is the SHA-256 of the certificate "abc" (a wrong pin never is).
  const std::string sha = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015";
  const std::string pin = "pin=sha256:BA:78:16:" + sha.substr(6) + "aD";
  const auto* abc = reinterpret_cast<const unsigned char*>("abc");
  // clang-format off
  for (auto [text, mode, ca, verify, pinned] :
       std::vector<std::tuple<std::string, int, const char*, bool, bool>>{
      {"", 0, "", true, 0}, {"# h require\n\n", 0, "", true, 0}, {"hh require", 0, "", true, 0},
      {"h require ca=/c verify_host=no " + pin, 1, "/c", false, 1}, {"* require\nh off", 0, "", true, 0},
      {"h require pin=sha256:" + sha + "ae", 1, "", true, 0}, {"x off\n* require ca=/d", 1, "/d", true, 0},
      {"h require ca=/c\n* off", 1, "/c", true, 0}, {"h require ca=", 2, "", true, 0}, {"h on", 2, "", true, 0},
      {"h require CA=/c", 2, "", true, 0}, {"h require verify_host=maybe", 2, "", true, 0}, {"h", 2, "", true, 0},
      {"h require ca=/a ca=/b", 2, "", true, 0}, {"h require pin=sha256:00", 2, "", true, 0},
      {"h require pin=md5:" + std::string(32, '0'), 2, "", true, 0}, {"h off tls", 2, "", true, 0},
      {"h require\nH. off", 2, "", true, 0}, {"x require bogus\nh off", 2, "", true, 0},
      {"h require pin=sha256:" + std::string(63, '0'), 2, "", true, 0},
      {" \v#x\f\r\nh\trequire\fca=/c\r\n\n\tx off", 1, "/c", true, 0}}) {
    // clang-format on
    FtpTlsPolicy p = ParseFtpTlsPolicy(text, "h", nullptr);
    EXPECT_EQ(std::make_tuple(int{p.mode}, p.ca, p.verifyHost, FtpTlsPinMatches(p.pin, abc, 3)),
              std::make_tuple(mode, std::string(ca), verify, pinned))
        << text;
  }
  // An entry's host word, a host, and whether it is the host's (names by case, addresses by value).
  // clang-format off
  for (auto [entry, host, same] : std::vector<std::tuple<const char*, const char*, int>>{
      {"H.Example.", "h.example", 1}, {"h.example", "h.example.com", 0}, {"127.1", "0x7f.0.0.1", 1},
      {"2130706433", "127.0.0.1", 1}, {"::FFFF:127.0.0.1", "127.0.0.1", 1}, {"0:0::1", "::1", 1},
      {"127.0.0.2", "127.0.0.1", 0}})
    EXPECT_EQ(ParseFtpTlsPolicy(std::string(entry) + " require", host, nullptr).mode, same) << entry;
  // clang-format on
}

TEST(FtpParsersTest, ListingLines) {
  // A line, the file it describes as "name:size" ("" when none), and whether it is MLSD.
  for (auto [line, want, mlsd] : std::vector<std::tuple<const char*, const char*, bool>>{
           {"-rw-r--r--   1 owner   99 Dec  1  2023 no group", "no group:99", false},
           {"-rwxr-xr-x 1 1000 1000 0 feb 29 23:59  leading space", " leading space:0", false},
           {"-rw-r--r-- 1 o 99999999999999999999999 Jan 1 10:15 h", "h:4611686018427387904", false},
           {"drwxr-xr-x   2 owner group   4096 Jan 31 10:15 dir", "", false},
           {"lrwxrwxrwx   1 owner group      7 Jan 31 10:15 ln -> a.avi", "", false},
           {"total 12", "", false},
           {"-rw-r--r-- 1 owner group 12x Jan 31 10:15 badsize", "", false},
           {"-rw-r--r-- 1 owner group 12 Jan 31 10:15", "", false},
           {"-rw-r-- 1 owner group 12 Jan 31 10:15 short mode", "", false},
           {"01-31-24  10:15PM              5678 win file.avi", "win file.avi:5678", false},
           {"01-31-2024  22:15       <DIR>          folder", "", false},
           {"2024/01/31  22:15  42 iso.bin", "iso.bin:42", false},
           {"1-1-1  10:15PM  42 short date", "", false},
           {"Type=FILE;Size=7;Modify=1; m.bin", "m.bin:7", true},
           {"type=file;size=7", "", true},
           {"type=file;size=3; ", "", true}}) {
    FtpListItem item;
    FtpListFormat format = mlsd ? FtpListFormat::kMlsd : FtpListFormat::kList;
    bool file = ParseFtpListLine(line, strlen(line), format, &item);
    EXPECT_EQ(file ? item.name + ":" + std::to_string(item.size) : "", want) << line;
  }
}

}  // namespace
