#include "tools/velmarctl/report.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "platform/env.h"
#include "platform/file2ftpdb.h"
#include "platform/paths.h"
#include "platform/state_file.h"
#include "platform/status.h"
#include "platform/text.h"
#include "upload/xfile.h"

namespace {

using State = std::map<std::string, std::string>;

State ReadState() {
  State state;
  ReadStateLines("upload.state", [&](const std::string& k, const std::string& v) { state[k] = v; });
  return state;
}

long long Num(const State& s, const char* key) {
  auto it = s.find(key);
  return it == s.end() ? 0 : atoll(it->second.c_str());
}

std::string Str(const State& s, const char* key) {
  auto it = s.find(key);
  return it == s.end() ? "" : it->second;
}

// Running: the published process exists and wrote its state within the last 5 seconds.
bool Running(const State& s) {
  pid_t pid = static_cast<pid_t>(Num(s, "pid"));
  bool alive = pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
  return alive && llabs(static_cast<long long>(time(nullptr)) - Num(s, "time")) <= 5;
}

// The mount directories of the upload disks, as the status service reports them.
std::vector<std::string> UploadDisks() {
  std::vector<std::string> dirs;
  for (LOG_STATUS_E usage : {DISK_USAGE_UPLOAD, DISK_USAGE_TYPE9}) {
    PartStatus_t list{};
    if (Env::Default()->GetDiskForCommUsage(usage, &list) != 0) continue;
    for (int i = 0; i < list.count && i < 8; ++i) {
      char path[129];
      CopyField(path, sizeof(path), list.part[i].path, 128);
      bool known = false;
      for (const std::string& d : dirs) known = known || d == path;
      if (!known && path[0] != '\0') dirs.push_back(path);
    }
  }
  return dirs;
}

// The last n level-2 (notable) lines of the debug log.
std::vector<std::string> LastNotableLines(size_t n) {
  std::vector<std::string> lines;
  FILE* in = fopen(RootedPath("/var/log/velmar/velmar.log").c_str(), "rb");
  if (in == nullptr) return lines;
  char* buf = nullptr;
  size_t cap = 0;
  for (ssize_t len; (len = getline(&buf, &cap, in)) > 0;) {
    std::string line(buf, static_cast<size_t>(len));
    if (line.find(" [2] ") == std::string::npos) continue;
    if (line.back() == '\n') line.pop_back();
    lines.push_back(line);
    if (lines.size() > n) lines.erase(lines.begin());
  }
  free(buf);
  fclose(in);
  return lines;
}

std::string Json(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7f) {
      char esc[8];
      snprintf(esc, sizeof(esc), "\\u%04x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string Bytes(long long n) {
  char text[32];
  if (n >= 1 << 20) {
    snprintf(text, sizeof(text), "%.1f MB", n / 1048576.0);
  } else {
    snprintf(text, sizeof(text), "%.1f KB", n / 1024.0);
  }
  return text;
}

const char* EntryStatus(int status) {
  static const char* const kNames[] = {"waiting", "skipped", "done", "failed"};
  return status >= 0 && status < 4 ? kNames[status] : "?";
}

// The maintenance state: "server", "state", "list_fetched", "entries" and "entry" lines
// ("type status name").
struct Maintenance {
  State fields;
  std::vector<std::string> entries;
};

Maintenance ReadMaintenance() {
  Maintenance m;
  ReadStateLines("maintain.state", [&](const std::string& k, const std::string& v) {
    if (k == "entry") {
      m.entries.push_back(v);
    } else {
      m.fields[k] = v;
    }
  });
  return m;
}

// "type status name" as "name (type T): status".
std::string DescribeEntry(const std::string& e) {
  int type = 0, status = 0, used = 0;
  if (sscanf(e.c_str(), "%d %d %n", &type, &status, &used) < 2) return e;
  return e.substr(static_cast<size_t>(used)) + " (type " + std::to_string(type) +
         "): " + EntryStatus(status);
}

}  // namespace

int StatusCommand(int argc, char** argv) {
  bool json = argc == 2 && strcmp(argv[1], "--json") == 0;
  if (argc > 2 || (argc == 2 && !json)) {
    fputs("usage: velmarctl status [--json]\n", stderr);
    return 2;
  }
  const State s = ReadState();
  const bool running = Running(s), sending = s.count("seq") != 0;
  const long long onServer = Num(s, "from") + Num(s, "sent"), total = Num(s, "total");
  const long long ms = Num(s, "elapsed_ms"), rate = ms > 0 ? Num(s, "sent") * 1000 / ms : 0;
  std::vector<std::pair<std::string, int>> dbs;
  for (const std::string& dir : UploadDisks()) {
    std::list<__ftp_log> rows;
    dbs.emplace_back(dir, ReadQueuedRows(dir.c_str(), &rows) == 0 ? int(rows.size()) : -1);
  }
  const std::vector<std::string> errors = LastNotableLines(3);
  const Maintenance m = ReadMaintenance();
  if (json) {
    std::string out = "{\"running\":" + std::string(running ? "true" : "false") +
                      ",\"pid\":" + std::to_string(Num(s, "pid")) +
                      ",\"published\":" + std::to_string(Num(s, "time")) +
                      ",\"disk\":" + Json(Str(s, "disk")) +
                      ",\"link\":" + std::to_string(Num(s, "link")) +
                      ",\"links\":" + std::to_string(Num(s, "links")) +
                      ",\"queued\":" + std::to_string(Num(s, "queued")) + ",\"databases\":[";
    for (size_t i = 0; i < dbs.size(); ++i) {
      out += (i ? "," : "") + std::string("{\"path\":") + Json(dbs[i].first) +
             ",\"tasks\":" + std::to_string(dbs[i].second) + "}";
    }
    out += "],\"task\":";
    if (sending) {
      out += "{\"seq\":" + std::to_string(Num(s, "seq")) + ",\"file\":" + Json(Str(s, "file")) +
             ",\"server\":" + Json(Str(s, "server")) + ",\"remote\":" + Json(Str(s, "remote")) +
             ",\"trans\":" + std::to_string(Num(s, "trans")) +
             ",\"attempts\":" + std::to_string(Num(s, "attempts")) +
             ",\"connFails\":" + std::to_string(Num(s, "conn_fails")) +
             ",\"state\":" + std::to_string(Num(s, "state")) +
             ",\"onServer\":" + std::to_string(onServer) + ",\"total\":" + std::to_string(total) +
             ",\"rate\":" + std::to_string(rate) + "}";
    } else {
      out += "null";
    }
    out += ",\"maintenance\":{\"server\":" + Json(Str(m.fields, "server")) +
           ",\"state\":" + std::to_string(Num(m.fields, "state")) +
           ",\"listFetched\":" + std::to_string(Num(m.fields, "list_fetched")) + ",\"entries\":[";
    for (size_t i = 0; i < m.entries.size(); ++i) {
      out += (i ? "," : "") + Json(DescribeEntry(m.entries[i]));
    }
    out += "]},\"refused\":" + std::to_string(Num(s, "refused")) +
           ",\"gaveUp\":" + std::to_string(Num(s, "gave_up"));
    out += ",\"errors\":[";
    for (size_t i = 0; i < errors.size(); ++i) out += (i ? "," : "") + Json(errors[i]);
    printf("%s]}\n", out.c_str());
    return running ? 0 : 3;
  }
  if (s.empty()) {
    printf("velmar: no state published (not running?)\n");
  } else {
    printf("velmar: %s (pid %lld), state published %lld s ago\n",
           running ? "running" : "NOT RUNNING", Num(s, "pid"),
           static_cast<long long>(time(nullptr)) - Num(s, "time"));
    printf("disk: %s   network link: %lld (allowed links mask %lld)   tasks in memory: %lld\n",
           Str(s, "disk").c_str(), Num(s, "link"), Num(s, "links"), Num(s, "queued"));
  }
  for (const auto& db : dbs) {
    printf("database %s: %s\n", db.first.c_str(),
           db.second < 0 ? "none" : (std::to_string(db.second) + " tasks").c_str());
  }
  if (sending) {
    printf("task seq %lld: %s -> %s %s (transfer %s, %lld sends ended, %lld failed connections)\n",
           Num(s, "seq"), Str(s, "file").c_str(), Str(s, "server").c_str(),
           Str(s, "remote").c_str(), Num(s, "trans") ? "on" : "off", Num(s, "attempts"),
           Num(s, "conn_fails"));
    long long pct = total > 0 ? onServer * 100 / total : 0;
    if (isatty(STDOUT_FILENO)) {
      std::string bar(static_cast<size_t>(pct * 30 / 100), '#');
      bar.resize(30, '.');
      printf("  [%s] %3lld%%", bar.c_str(), pct);
    } else {
      printf("  %lld%%", pct);
    }
    printf("  %s of %s", Bytes(onServer).c_str(), Bytes(total).c_str());
    if (rate > 0 && total > onServer) {
      printf("  %s/s  %llds left", Bytes(rate).c_str(), (total - onServer) / rate);
    }
    printf("\n");
  }
  printf("refused tasks: %lld   given up: %lld\n", Num(s, "refused"), Num(s, "gave_up"));
  if (!m.fields.empty()) {
    time_t fetched = static_cast<time_t>(Num(m.fields, "list_fetched"));
    char when[32] = "not fetched yet";
    struct tm tmv;
    if (fetched > 0 && localtime_r(&fetched, &tmv) != nullptr) {
      strftime(when, sizeof(when), "fetched %Y-%m-%d %H:%M:%S", &tmv);
    }
    printf("maintenance server %s, cycle state %lld, file list %s\n",
           Str(m.fields, "server").c_str(), Num(m.fields, "state"), when);
    for (const std::string& e : m.entries) printf("  %s\n", DescribeEntry(e).c_str());
  }
  if (!errors.empty()) printf("last notable log lines:\n");
  for (const std::string& e : errors) printf("  %s\n", e.c_str());
  return running ? 0 : 3;
}

int QueueCommand(int argc, char**) {
  if (argc != 1) {
    fputs("usage: velmarctl queue\n", stderr);
    return 2;
  }
  // Sends and failed connections are counted in memory for the task being sent only.
  const State s = ReadState();
  const bool sending = s.count("seq") != 0;
  printf("%-8s %-4s %-10s %-5s %-8s %-40s %s\n", "seq", "type", "size", "trans", "attempts", "file",
         "server and remote name  [database]");
  for (const std::string& dir : UploadDisks()) {
    std::list<__ftp_log> rows;
    if (ReadQueuedRows(dir.c_str(), &rows) != 0) continue;
    for (const __ftp_log& r : rows) {
      char file[129], host[33], path[129], rdir[65], name[65];
      CopyField(file, sizeof(file), r.fullpath, sizeof(r.fullpath));
      CopyField(host, sizeof(host), r.server.host, sizeof(r.server.host));
      CopyField(path, sizeof(path), r.server.path, sizeof(r.server.path));
      CopyField(rdir, sizeof(rdir), r.dir, sizeof(r.dir));
      CopyField(name, sizeof(name), r.filename, sizeof(r.filename));
      CXFile source(static_cast<int>(r.type), Env::Default());
      const bool held = sending && Num(s, "seq") == r.seq && Str(s, "file") == file;
      const std::string attempts =
          held ? Str(s, "attempts") + "/" + Str(s, "conn_fails") : std::string("-");
      printf("%-8u %-4s %-10lld %-5s %-8s %-40s %s:%u%s/%s/%s  [%s]\n", r.seq,
             r.type == 1 ? "rec" : "file", static_cast<long long>(source.XsizeByPath(file)),
             r.trans ? "on" : "off", attempts.c_str(), file, host, r.server.port, path, rdir, name,
             dir.c_str());
    }
  }
  return 0;
}

void PrintStateChanges() {
  static long long refused = -1, gaveUp = -1;
  const State s = ReadState();
  if (s.empty()) return;
  const bool tty = isatty(STDOUT_FILENO);
  if (refused >= 0 && Num(s, "refused") > refused) {
    const std::string last = Str(s, "last_refused");  // "seq reason"
    const size_t space = last.find(' ');
    printf("%srefused count=%lld last_seq=%s reason=\"%s\"\n", tty ? "\n" : "",
           Num(s, "refused") - refused, last.substr(0, space).c_str(),
           space == std::string::npos ? "" : last.substr(space + 1).c_str());
  }
  if (gaveUp >= 0 && Num(s, "gave_up") > gaveUp) {
    printf("%sgave-up seq=%lld reason=\"%s\"\n", tty ? "\n" : "", Num(s, "last_gave_up"),
           Str(s, "last_gave_up_reason").c_str());
  }
  refused = Num(s, "refused");
  gaveUp = Num(s, "gave_up");
  if (s.count("seq") != 0 && Num(s, "state") == 1) {
    const long long onServer = Num(s, "from") + Num(s, "sent"), total = Num(s, "total");
    const long long ms = Num(s, "elapsed_ms"), rate = ms > 0 ? Num(s, "sent") * 1000 / ms : 0;
    const long long pct = total > 0 ? onServer * 100 / total : 0;
    if (tty) {
      std::string bar(static_cast<size_t>(pct * 30 / 100), '#');
      bar.resize(30, '.');
      printf("\rseq %lld [%s] %3lld%% %s/s ", Num(s, "seq"), bar.c_str(), pct, Bytes(rate).c_str());
    } else {
      printf("progress seq=%lld on_server=%lld total=%lld rate=%lld\n", Num(s, "seq"), onServer,
             total, rate);
    }
  }
  fflush(stdout);
}
