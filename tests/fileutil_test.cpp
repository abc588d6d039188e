// Host platform pieces: commands, whole files, the debug log and the SQLite task database.
#include "platform/fileutil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <tuple>

#include "platform/file2ftpdb.h"
#include "platform/host/atomic_file.h"
#include "platform/log.h"
#include "tests/fakes/fakes.h"

namespace {

// The values, each followed by a space.
template <typename... T>
std::string Ints(T... values) {
  return ((std::to_string(values) + " ") + ...);
}

TEST(SystemDumpTest, CommandsEndWithTheirStatusAllTheyStartedAndNoDescriptorOfOurs) {
  TempRoot root;
  const int fd = open((root.path() + "/open").c_str(), O_WRONLY | O_CREAT, 0644);  // inheritable
  const std::string arg = "100." + std::to_string(getpid()), sleeper = "sleep " + arg + " & wait";
  ASSERT_GE(fd, 3);
  const std::string leak =
      "[ -e /proc/self/fd/" + std::to_string(fd) +
      " ] && exit 3; [ \"$(readlink /proc/self/fd/0)\" = /dev/null ] || exit 4";
  signal(SIGPIPE, SIG_IGN);  // as the service does: commands must not inherit that
  const std::string deaf = "trap '' TERM; " + sleeper + "; wait";  // ignores TERM
  // command, limit (0: system_run), result
  const std::tuple<std::string, int, int> cases[] = {{"true", 5, 0},
                                                     {"exit 7", 5, 7},
                                                     {"kill -9 $$", 5, 137},
                                                     {"/nonexistent/tool", 5, 127},
                                                     {"kill -PIPE $$", 5, 141},
                                                     {"kill -PIPE $$", 0, 141},
                                                     {"exit 3", 0, 3},
                                                     {leak, 5, 0},
                                                     {sleeper, 1, -1},
                                                     {deaf, 1, -1}};
  for (const auto& [command, limit, result] : cases) {
    const auto start = std::chrono::steady_clock::now();
    const char* cmd = command.c_str();
    EXPECT_EQ(limit > 0 ? systemdump(cmd, limit) : system_run(cmd), result) << cmd;
    // Well before the sleeper's own 100 s, with all it started ended and reaped.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(50)) << cmd;
    EXPECT_EQ(system_run(("pgrep -f '^sleep " + arg + "$'").c_str()), 1) << cmd;
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << cmd;
  }
  signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(systemdump(nullptr, 5), -1);
  close(fd);
}

TEST(FileUtilTest, ExistenceSizeWholeFileReadsAndDirectories) {
  TempRoot root;
  root.Write("/a.txt", "hello");
  const std::string file = root.path() + "/a.txt", none = root.path() + "/none";
  const std::string xyz = root.path() + "/x/y/z";
  // A directory is no file; a file in the way of a directory fails MakeDirs.
  EXPECT_EQ(
      Ints(file_exist(file.c_str()), file_exist(root.path().c_str()), file_exist(none.c_str()),
           fileisexist(file.c_str()), fileisexist(none.c_str()) < 0, getfilesize(file.c_str()),
           getfilesize(none.c_str()), strfind_s("/mnt/sd1", "/mnt/") != 0,
           strfind_s("/media/sd1", "/mnt/"), strfind_s(nullptr, "/mnt/"), MakeDirs(xyz.c_str()),
           MakeDirs((file + "/sub").c_str())),
      "1 0 0 0 1 5 -1 1 0 0 0 -1 ");
  EXPECT_EQ(fileisexist(xyz.c_str()), 0);
  int len = -1;
  char* buf = filetobufwithoutbuf(file.c_str(), &len);
  EXPECT_EQ(std::string(buf ? buf : "null") + std::to_string(len), "hello5");
  free(buf);
  EXPECT_EQ(filetobufwithoutbuf(root.path().c_str(), &len), nullptr);
  EXPECT_EQ(filetobufwithoutbuf(none.c_str(), &len), nullptr);
}

TEST(AtomicFileTest, ReplacesTheWholeFileOrLeavesTheOldOneAndNoTemporary) {
  TempRoot root;
  for (const char* f : {"/d/old", "/d/dir/inside", "/file", "/d/.stale.tmp", "/d/victim"}) {
    root.Write(f, "old");
  }
  ASSERT_EQ(symlink("victim", (root.path() + "/d/.link.tmp").c_str()), 0);
  // check: a file that must then hold want
  const struct {
    const char *target, *check;
    int result;
    const char* want;
  } cases[] = {{"/d/new", "/d/new", 0, "new"},        {"/d/old", "/d/old", 0, "new"},
               {"/d/stale", "/d/stale", 0, "new"},    {"/d/link", "/d/victim", 0, "old"},
               {"/missing/x", "/missing/x", -1, ""},  {"/file/x", "/file", -1, "old"},
               {"/d/dir", "/d/dir/inside", -1, "old"}};  // links and directories stay
  for (const auto& c : cases) {
    std::string path = root.path() + c.target;
    EXPECT_EQ(ReplaceFileAtomically(path, "new", 3), c.result) << c.target;
    EXPECT_EQ(ReadWholeFile(root.path() + c.check), c.want) << c.target;
    EXPECT_NE(access(path.insert(path.rfind('/') + 1, ".").append(".tmp").c_str(), F_OK), 0);
  }
}

TEST(HostLogTest, DebugLinesReachTheLogFileOneLineEachWithControlBytesMasked) {
  TempRoot root;
  WriteDbgLog(2, "FTP Update [%s]\n", "u\nforged line\x1b[2J");
  WriteDbgLog(0, "no newline %d", 7);
  WriteDbgLog(0, "\n\n%s:%d exist!\n\n", "a\nb", 3);  // a format's own blank lines stay
  std::string text = ReadWholeFile(root.path() + "/var/log/velmar/velmar.log");
  EXPECT_NE(text.find(" [2] FTP Update [u?forged line?[2J]\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" [0] no newline 7\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" [0] \n\na?b:3 exist!\n\n"), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
}

struct TaskDb : CFile2FtpDbMng {};

// The rows of db in order, as "seq/type fullpath".
std::string Rows(CFile2FtpDbMng* db, std::list<__ftp_log>* rows) {
  std::string s = db->SearchAll(*rows) == 0 ? "" : "error";
  for (const __ftp_log& r : *rows) s += std::to_string(r.seq * 10 + r.type) + r.fullpath + " ";
  return s;
}

TEST(File2FtpDbTest, KeepsRowsInOrderDeletesExactlyAndRefusesForeignFilesUntouched) {
  TempRoot root;
  std::list<__ftp_log> rows, more, got;
  for (const char* key : {"51/a", "21/b", "52/c", "51/d", "91/a"}) {
    __ftp_log r{};
    r.seq = key[0] - '0';
    r.type = key[1] - '0';
    strcpy(r.fullpath, key + 2);
    r.valid = r.result = 1;
    r.server = {2121, "host", "user", "pw", "/dir"};
    (rows.empty() ? rows : more).push_back(r);
  }
  {
    TaskDb first;
    ASSERT_EQ(first.OpenTable(root.path().c_str()), 0);
    ASSERT_EQ(first.Insert(&rows.front()), 0);
    ASSERT_EQ(first.InsertMore(more), 0);
  }
  rows.splice(rows.end(), more);
  TaskDb db;
  ASSERT_EQ(db.OpenTable(root.path().c_str()), 0);
  EXPECT_EQ(Rows(&db, &got), "51/a 21/b 52/c 51/d 91/a ");
  EXPECT_TRUE(std::equal(got.begin(), got.end(), rows.begin(), rows.end(),
                         [](auto& a, auto& b) { return memcmp(&a, &b, sizeof(a)) == 0; }));
  EXPECT_EQ(db.SearchDelete(root.path().c_str(), "/a"), 0);
  EXPECT_EQ(Rows(&db, &(got = {})), "21/b 52/c 51/d ");
  EXPECT_EQ(db.DeleteBySeqAndType(5, 1), 0);
  EXPECT_EQ(Rows(&db, &(got = {})), "21/b 52/c ");

  // A file that is no database, and one of a newer schema.
  root.Write("/junk/new_file_op.db", std::string(2048, 'j'));
  sqlite3* newer = nullptr;
  sqlite3_open(root.Make("/newer/new_file_op.db").c_str(), &newer);
  sqlite3_exec(newer, "CREATE TABLE ftp_log(x); PRAGMA user_version=99;", nullptr, nullptr,
               nullptr);
  sqlite3_close(newer);
  for (const char* dir : {"/junk", "/newer"}) {
    const std::string mount = root.path() + dir, before = ReadWholeFile(mount + "/new_file_op.db");
    EXPECT_LT(db.OpenTable(mount.c_str()), 0) << dir;
    EXPECT_EQ(db.m_bTabOpen, 0);
    EXPECT_EQ(Rows(&db, &(got = {})), "error");  // the earlier table is closed
    EXPECT_LT(db.SearchDelete(mount.c_str(), "/a"), 0);
    EXPECT_EQ(ReadWholeFile(mount + "/new_file_op.db"), before) << dir;
  }
}

}  // namespace
