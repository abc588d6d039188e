// Every fuzz target, found by name. Built with VELMAR_FUZZ_TARGET="<name>" this file is that
// libFuzzer target; otherwise its main replays each file of a corpus directory through the named
// target, so that the test suite replays the seeds and the kept crash inputs in every build.
#include <dirent.h>
#include <tinyxml.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "avi/read_avi.h"
#include "core/ftp_upload_interface.h"
#include "maintain/command_files.h"
#include "maintain/ftp_maintain_mng.h"
#include "platform/host/ftp/listing.h"
#include "platform/host/ftp/reply.h"
#include "tests/fakes/fakes.h"
#include "upload/ftp_records.h"

namespace {

// A broken promise of the code under test: a crash the fuzzer keeps.
void Check(bool ok) {
  if (!ok) __builtin_trap();
}
bool Terminated(const char* text, size_t size) { return strnlen(text, size) < size; }

// Opens the stream of name over the partitions of status. A stream small enough to be read
// quickly is read to exactly its announced length, then seeks to its middle.
void ReadStream(FakeStatus* status, const char* name) {
  static bool quiet = freopen("/dev/null", "w", stdout) != nullptr;
  (void)quiet;
  TestEnv env;
  env.status = status;
  CReadAvi avi(&env);
  AviFileInfo_t* h = avi.ReadAviOpen(name);
  if (h == nullptr) return;
  uint64_t total = 0, size = avi.ReadAviGetSize(h);
  uint8_t* d;
  int32_t n;
  if (size <= (8u << 20)) {
    while (avi.ReadAviRead(h, &d, &n, 16384) == 0) total += static_cast<uint32_t>(n);
    Check(total == size && avi.ReadAviSeek(h, static_cast<uint32_t>(size / 2)) == 0);
  }
  avi.ReadAviClose(h);
}

// Any virtual name either opens a stream whose reading ends at exactly its announced length, or
// is refused; nothing crashes or hangs.
void AviName(const uint8_t* data, size_t size) {
  FakeStatus status;
  status.partLists[15] = {FakeStatus::Entry(1, "/mnt/a"), FakeStatus::Entry(-3, "/mnt/b")};
  status.partLists[16] = {FakeStatus::Entry(2, "/mnt/c")};
  FakeRecording rec;
  for (uint32_t i = 0; i < 30; ++i) {
    rec.Add(1700000000ull * 1000000u + i * 40000ull, i % 7, (i * 97) % 600,
            static_cast<uint8_t>(i));
  }
  rec.AddInfo(1700000000ull * 1000000u + 5, 0);
  ReadStream(&status, std::string(reinterpret_cast<const char*>(data), size).c_str());
}

// A frame-store file of arbitrary bytes (frame types, lengths and times) read by the host reader
// through the whole AVI stream: every stream ends at exactly its announced length.
void Framestore(const uint8_t* data, size_t size) {
  static std::string dir = [] {
    char tmpl[] = "/tmp/velmar-fsfuzz-XXXXXX";
    const char* d = mkdtemp(tmpl);
    return std::string(d != nullptr ? d : "/tmp");
  }();
  std::string path = dir + "/0001_0000000a.vfs";
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return;
  fwrite(data, 1, size, f);
  fclose(f);
  FakeStatus status;
  status.partLists[15] = {FakeStatus::Entry(1, dir)};
  ReadStream(&status, "/0001_0000000a_1_1700000000_1700000010_0_20000.avi");
  ReadStream(&status, "/0001_0000000a_1_1700000000_1700000010_1_20000.avi");
  unlink(path.c_str());
}

// A command file from the server, parsed as a log-command and as a user-command file: every
// command stays inside its fields, and nothing outlives the parse.
void Cmdfile(const uint8_t* data, size_t size) {
  DiscardLogFiles();
  std::string text(reinterpret_cast<const char*>(data), size);
  TiXmlDocument doc;
  doc.Parse(text.c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
  const TiXmlElement* root = doc.RootElement();
  if (root == nullptr) return;
  int32_t expiry[6];
  LogCmdItem_t* logItems = nullptr;
  int n = ParseLogCmdItems(root, expiry, &logItems);
  for (int i = 0; i < n; ++i)
    Check(logItems[i].scope == nullptr || strlen(logItems[i].scope) <= size);
  FreeLogCmdItems(logItems, n);
  UsrCmdItem_t* usrItems = nullptr;
  n = ParseUsrCmdItems(root, &usrItems);
  for (int i = 0; i < n; ++i) {
    Check(Terminated(usrItems[i].command, sizeof(usrItems[i].command)));
    std::string followUp;
    int limit = 0;
    UsrCmdFollowUp(usrItems[i].command, &followUp, &limit);
  }
  FreeUsrCmdItems(usrItems, n);
}

std::string Field(const uint8_t* h, size_t offset, size_t len) {
  return std::string(reinterpret_cast<const char*>(h + offset),
                     strnlen(reinterpret_cast<const char*>(h + offset), len));
}

bool HasDotDot(const std::string& path) {
  return ("/" + path + "/").find("/../") != std::string::npos;
}

// A configuration archive from the server, checked before it is unpacked: the check ends on
// any bytes, and whatever it accepts has only plain members inside the config directory.
void ConfigArchive(const uint8_t* data, size_t size) {
  std::string why;
  if (!CheckConfigArchive(data, size, &why)) return Check(!why.empty());  // a refusal says why
  for (size_t pos = 0; pos + 512 <= size;) {                              // walk the headers again
    const uint8_t* h = data + pos;
    if (std::all_of(h, h + 512, [](uint8_t b) { return b == 0; })) break;
    std::string name = Field(h, 0, 100);
    std::string prefix = memcmp(h + 257, "ustar\0", 6) == 0 ? Field(h, 345, 155) : "";
    char type = static_cast<char>(h[156]);
    Check((name.empty() || name[0] != '/') && (prefix.empty() || prefix[0] != '/'));
    Check(!HasDotDot(name) && !HasDotDot(prefix));
    Check(type == '0' || type == '\0' || type == '7' || type == '5');
    unsigned long long length = strtoull(Field(h, 124, 12).c_str(), nullptr, 8);
    pos += 512 + static_cast<size_t>((length + 511) / 512) * 512;
  }
}

// A file list from the server, parsed and judged: entries stay inside their fields, and the
// scope and date parsing of every entry ends.
void Filelist(const uint8_t* data, size_t size) {
  DiscardLogFiles();
  static TestEnv* env = new TestEnv();  // kept for the life of the process, like mng
  static FakeStatus* status = new FakeStatus();
  env->status = status;
  static CFtpMaintainMng* mng = new CFtpMaintainMng(env);
  char path[] = "/tmp/velmar-filelist-fuzz-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return;
  bool written = write(fd, data, size) == static_cast<ssize_t>(size);
  close(fd);
  FtpFileList_t list{};
  if (written) mng->ParseFileList(path, &list);
  unlink(path);
  for (int i = 0; i < list.count; ++i) {
    const FtpFileItem_t& item = list.pItems[i];
    Check(Terminated(item.FileName, sizeof(item.FileName)) &&
          Terminated(item.Scope, sizeof(item.Scope)));
    mng->IsNeedLoadFile(&item);
  }
  CAutoLock guard(&mng->m_lock);
  ClearFileList(&list);
}

// Listings from arbitrary bytes: every entry kept is a usable, terminated name with a
// non-negative size, the count never exceeds the capacity, and the wanted name is kept.
void FtpListing(const uint8_t* data, size_t size) {
  if (size < 2) return;
  FtpListFormat fmt = (data[0] & 1) ? FtpListFormat::kMlsd : FtpListFormat::kList;
  int capacity = (data[1] % 8) + 1;
  static FtpDirEntry_t entries[8];
  memset(entries, 0x55, sizeof(entries));
  FtpListingParser parser(fmt, "want", entries, capacity);
  const char* p = reinterpret_cast<const char*>(data) + 2;
  size_t len = size - 2, step = (data[0] >> 1) + 1;
  for (size_t off = 0; off < len; off += step) parser.Feed(p + off, std::min(len - off, step));
  parser.Finish();
  Check(parser.count() >= 0 && parser.count() <= capacity);
  bool found = false;
  for (int i = 0; i < parser.count(); ++i) {
    Check(Terminated(entries[i].name, sizeof(entries[i].name)));
    Check(IsUsableFtpName(entries[i].name, strlen(entries[i].name)) && entries[i].size >= 0);
    found = found || strcmp(entries[i].name, "want") == 0;
  }
  Check(parser.haveWanted() == found);
}

// Control replies from arbitrary bytes: the parser stays within its bounds, every reply it
// completes has a valid code, and the passive-port readers accept only real port numbers.
void FtpReplies(const uint8_t* data, size_t size) {
  const char* p = reinterpret_cast<const char*>(data);
  // The first byte picks the chunk size, so that replies split across reads are covered.
  size_t step = size > 0 ? (data[0] % 64) + 1 : 1;
  FtpReplyParser parser;
  for (size_t off = 0; off < size;) {
    size_t len = std::min(size - off, step), used = 0;
    FtpReplyParser::Status s = parser.Feed(p + off, len, &used);
    Check(used <= len);
    off += used;
    if (s == FtpReplyParser::kError) break;
    Check(s == FtpReplyParser::kDone || used > 0);  // progress
    if (s != FtpReplyParser::kDone) continue;
    const FtpReply& r = parser.reply();
    Check(r.code >= 100 && r.code <= 599 && r.text.size() <= kFtpMaxReplyBytes);
    int e = ParseEpsvPort(r.text), v = ParsePasvPort(r.text);
    Check(e != 0 && e <= 65535 && v != 0 && v <= 65535);
    FeatOffersMlsd(r.text);
    parser.Reset();
  }
}

// Decoding a task record or server block from arbitrary bytes stays inside the record.
void Records(const uint8_t* data, size_t size) {
  ftpFileInfo_t rec, back;
  DecodeTaskRecord(data, size, &rec);
  Check(Terminated(rec.fullName, sizeof(rec.fullName)));
  __ftp_log row;
  RowFromRecord(rec, &row);
  RecordFromRow(row, &back);
  Check(strcmp(back.fullName, rec.fullName) == 0);
  UserDefServerSet_t server;
  DecodeServerSet(data, size, &server);
}

// Targets that check what a dispatched request gives them: every text terminated inside its
// field.
class CheckingTargets : public IRequestTargets {
 public:
  void InsertTask(ftpFileInfo_t* t) override {
    Check(Terminated(t->fullName, sizeof(t->fullName)) &&
          Terminated(t->fileName, sizeof(t->fileName)) &&
          Terminated(t->server.path, sizeof(t->server.path)));
  }
  void SetTransfer(int fileType, unsigned int ctrType, int seq) override {
    Check(fileType == 1 && ctrType <= 255 && seq >= 0 && seq <= 0xFFFF);
  }
  void ConnectTo(const char* user, const char* password, const char* host, uint16_t,
                 const char* path) override {
    Check(strlen(user) <= 31 && strlen(password) <= 31 && strlen(host) <= 31 &&
          strlen(path) <= 127);
  }
  void RemoteCommand(const char* path) override {
    Check(strlen(path) <= static_cast<size_t>(kEventPayloadMax - 4));
  }
};

// A datagram from the bus, decoded and dispatched: never a read past the payload.
void Request(const uint8_t* data, size_t size) {
  if (size > 3 * kEventPayloadMax) return;
  std::vector<uint8_t> payload(kEventPayloadMax + 1, 0);
  EVENT_E event;
  int reserved = 0;
  int n = ParseRecvEvent(data, static_cast<int>(size), &event, &reserved, payload.data());
  if (n < 0) return;
  Check(static_cast<size_t>(n) + kEventHeaderSize == size);
  CheckingTargets targets;
  DispatchRequest(event, payload.data(), &targets);
}

using Target = void (*)(const uint8_t*, size_t);

Target Find(const std::string& name) {
  const std::pair<const char*, Target> targets[] = {
      {"avi_name", AviName},     {"cmdfile", Cmdfile},       {"config_archive", ConfigArchive},
      {"filelist", Filelist},    {"framestore", Framestore}, {"ftp_listing", FtpListing},
      {"ftp_reply", FtpReplies}, {"records", Records},       {"request", Request}};
  for (const auto& t : targets) {
    if (name == t.first) return t.second;
  }
  return nullptr;
}

}  // namespace

#ifdef VELMAR_FUZZ_TARGET
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Target target = Find(VELMAR_FUZZ_TARGET);
  target(data, size);
  return 0;
}
#else
int main(int argc, char** argv) {
  Target target = argc == 3 ? Find(argv[1]) : nullptr;
  DIR* dir = target != nullptr ? opendir(argv[2]) : nullptr;
  if (dir == nullptr) {
    fprintf(stderr, "usage: %s target corpus-dir (an existing one)\n", argv[0]);
    return 2;
  }
  int count = 0;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream in(std::string(argv[2]) + "/" + e->d_name, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
    target(bytes.data(), bytes.size());
    ++count;
  }
  closedir(dir);
  fprintf(stderr, "replayed %d inputs from %s\n", count, argv[2]);
  return count > 0 ? 0 : 1;
}
#endif
