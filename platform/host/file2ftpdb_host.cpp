// The host file-to-FTP database on SQLite. One file new_file_op.db per disk, one table of
// rows in insertion order. Every call is serialised by one mutex, because the library is
// called from the main thread, the request thread and the upload thread.
//
// Durability: once Insert has returned 0 the row survives a kill of the process and a power
// loss. The database uses a rollback journal in TRUNCATE mode with synchronous=FULL: every
// commit is on the medium before it returns. A rollback journal rather than WAL, because the
// recorder's disks are SD cards, often FAT-formatted and sometimes mounted read-only, where
// WAL's shared-memory file is a liability and a read-only WAL database cannot be read at all;
// the queue sees a few inserts per minute, so WAL's write savings do not matter here.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "platform/file2ftpdb.h"
#include "platform/log.h"
#include "platform/text.h"
#include "platform/thread.h"

namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 2000;  // a busy database is waited for at most this long
const char kDbBaseName[] = "new_file_op";

const char kCreateSchema[] =
    "CREATE TABLE IF NOT EXISTS ftp_log ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " seq INTEGER NOT NULL, type INTEGER NOT NULL, fullpath TEXT NOT NULL,"
    " dir TEXT NOT NULL, filename TEXT NOT NULL, valid INTEGER NOT NULL,"
    " net INTEGER NOT NULL, trans INTEGER NOT NULL, result INTEGER NOT NULL,"
    " server BLOB NOT NULL);"
    "CREATE INDEX IF NOT EXISTS ftp_log_seq_type ON ftp_log(seq, type);"
    "CREATE INDEX IF NOT EXISTS ftp_log_fullpath ON ftp_log(fullpath);";

const char kColumns[] = "seq, type, fullpath, dir, filename, valid, net, trans, result, server";

std::string DbPath(const char* mountDir) {
  return std::string(mountDir) + "/" + kDbBaseName + ".db";
}

void LogDbError(sqlite3* db, const char* what, const std::string& path) {
  WriteDbgLog(2, "new_file_op db %s failed on %s: %s\n", what, path.c_str(),
              db != nullptr ? sqlite3_errmsg(db) : "cannot allocate");
}

// True for the errors that say the file itself is no usable database (as opposed to a
// medium that fails or a database that is busy).
bool NotADatabase(int code) { return code == SQLITE_CORRUPT || code == SQLITE_NOTADB; }

// Moves a database file that is no database (and its journal, which would otherwise be
// rolled into the fresh one) aside as path.corrupt-<seconds>, so that a new one can be made
// and the old one examined. True when the path is free afterwards.
bool SetAside(const std::string& path) {
  std::string aside = path + ".corrupt-" + std::to_string(static_cast<long long>(time(nullptr)));
  // A bad journal beside no database at all is moved alone.
  if (rename(path.c_str(), aside.c_str()) != 0 && errno != ENOENT) {
    WriteDbgLog(2, "new_file_op db %s is corrupt and cannot be moved aside: %s\n", path.c_str(),
                strerror(errno));
    return false;
  }
  rename((path + "-journal").c_str(), (aside + "-journal").c_str());
  WriteDbgLog(2, "new_file_op db %s is corrupt: moved aside as %s, a new one is made\n",
              path.c_str(), aside.c_str());
  return true;
}

// Identity of the file at path (0 when there is none), to notice a file deleted or replaced
// under an open handle.
ino_t InodeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Why the file at path must not reach SQLite, which would wait for ever on a FIFO and follow a
// link wherever it points; empty for a regular file or none at all.
std::string Unusable(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return errno == ENOENT ? "" : strerror(errno);
  if (S_ISLNK(st.st_mode)) return "a symbolic link";
  return S_ISREG(st.st_mode) ? "" : "not a regular file";
}

// Unusable for the database file or its journal, with a log line; a file that is no regular
// file counts as no database (SQLITE_NOTADB in *code), so that it is set aside.
bool Refused(const std::string& path, int* code) {
  for (const std::string& file : {path, path + "-journal"}) {
    std::string why = Unusable(file);
    if (why.empty()) continue;
    WriteDbgLog(2, "new_file_op db %s refused: %s\n", file.c_str(), why.c_str());
    if (code != nullptr) *code = SQLITE_NOTADB;
    return true;
  }
  return false;
}

// Opens an existing database file (create: or makes it) with the durable settings and the
// schema in place. Null on failure, with one log line and the SQLite error code in *code.
sqlite3* OpenDb(const std::string& path, bool create, int* code = nullptr) {
  sqlite3* db = nullptr;
  if (Refused(path, code)) return nullptr;
  // A disk that never held a task has no database: nothing to find there, nothing to log.
  if (!create && access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
    if (code != nullptr) *code = SQLITE_CANTOPEN;
    return nullptr;
  }
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
  if (code != nullptr) *code = SQLITE_OK;
  if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    LogDbError(db, "open", path);
    if (code != nullptr) *code = db != nullptr ? sqlite3_errcode(db) : SQLITE_NOMEM;
    sqlite3_close(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  sqlite3_stmt* st = nullptr;
  int version = -1;
  if (sqlite3_prepare_v2(db, "PRAGMA user_version", -1, &st, nullptr) == SQLITE_OK &&
      sqlite3_step(st) == SQLITE_ROW) {
    version = sqlite3_column_int(st, 0);
  }
  sqlite3_finalize(st);
  if (version < 0) {
    LogDbError(db, "read", path);  // not a database, or unreadable
    if (code != nullptr) *code = sqlite3_errcode(db);
    sqlite3_close(db);
    return nullptr;
  }
  if (version > kSchemaVersion) {
    WriteDbgLog(2, "new_file_op db %s has schema %d, newer than %d\n", path.c_str(), version,
                kSchemaVersion);
    sqlite3_close(db);
    return nullptr;
  }
  // A read-only medium refuses these; reading the queue still works.
  sqlite3_exec(db, "PRAGMA journal_mode=TRUNCATE; PRAGMA synchronous=FULL;", nullptr, nullptr,
               nullptr);
  if (version < kSchemaVersion) {
    char sql[sizeof(kCreateSchema) + 64];
    snprintf(sql, sizeof(sql), "BEGIN; %s PRAGMA user_version=%d; COMMIT;", kCreateSchema,
             kSchemaVersion);
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
      LogDbError(db, "schema", path);
      sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  return db;
}

void BindRow(sqlite3_stmt* st, const __ftp_log& row) {
  char text[128];
  sqlite3_bind_int64(st, 1, row.seq);
  sqlite3_bind_int64(st, 2, row.type);
  CopyField(text, sizeof(text), row.fullpath, sizeof(row.fullpath));
  sqlite3_bind_text(st, 3, text, -1, SQLITE_TRANSIENT);
  CopyField(text, sizeof(row.dir), row.dir, sizeof(row.dir));
  sqlite3_bind_text(st, 4, text, -1, SQLITE_TRANSIENT);
  CopyField(text, sizeof(row.filename), row.filename, sizeof(row.filename));
  sqlite3_bind_text(st, 5, text, -1, SQLITE_TRANSIENT);
  sqlite3_bind_int(st, 6, row.valid);
  sqlite3_bind_int(st, 7, row.net);
  sqlite3_bind_int(st, 8, row.trans);
  sqlite3_bind_int(st, 9, row.result);
  uint8_t server[kServerSetSize];
  EncodeServerSet(row.server, server);
  sqlite3_bind_blob(st, 10, server, sizeof(server), SQLITE_TRANSIENT);
}

void CopyColumnText(sqlite3_stmt* st, int col, char* dst, size_t cap) {
  const unsigned char* t = sqlite3_column_text(st, col);
  int n = sqlite3_column_bytes(st, col);
  CopyField(dst, cap, reinterpret_cast<const char*>(t), t != nullptr ? static_cast<size_t>(n) : 0);
}

void ReadRow(sqlite3_stmt* st, __ftp_log* row) {
  memset(row, 0, sizeof(*row));
  row->seq = static_cast<uint32_t>(sqlite3_column_int64(st, 0));
  row->type = static_cast<uint32_t>(sqlite3_column_int64(st, 1));
  CopyColumnText(st, 2, row->fullpath, sizeof(row->fullpath));
  CopyColumnText(st, 3, row->dir, sizeof(row->dir));
  CopyColumnText(st, 4, row->filename, sizeof(row->filename));
  row->valid = static_cast<uint8_t>(sqlite3_column_int(st, 5));
  row->net = static_cast<uint8_t>(sqlite3_column_int(st, 6));
  row->trans = static_cast<uint8_t>(sqlite3_column_int(st, 7));
  row->result = static_cast<uint8_t>(sqlite3_column_int(st, 8));
  const void* blob = sqlite3_column_blob(st, 9);
  int size = sqlite3_column_bytes(st, 9);
  if (blob != nullptr && size > 0) {
    DecodeServerSet(static_cast<const uint8_t*>(blob), static_cast<size_t>(size), &row->server);
  }
}

// True when the last failure on db means the medium or the file under the open table is
// broken (card pulled, I/O error, file replaced); such a handle is of no further use.
bool MediumFailed(sqlite3* db) {
  switch (sqlite3_errcode(db)) {
    case SQLITE_IOERR:
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_CANTOPEN:
      return true;
    default:
      return false;
  }
}

// Runs a statement to completion; SQLITE_DONE or SQLITE_ROW count as success.
bool Exec(sqlite3* db, const char* sql, const std::function<void(sqlite3_stmt*)>& bind,
          const std::function<void(sqlite3_stmt*)>& onRow, const std::string& path) {
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &st, nullptr) != SQLITE_OK) {
    LogDbError(db, "prepare", path);
    return false;
  }
  if (bind) bind(st);
  int rc;
  while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
    if (onRow) onRow(st);
  }
  sqlite3_finalize(st);
  if (rc != SQLITE_DONE) {
    LogDbError(db, "statement", path);
    return false;
  }
  return true;
}

}  // namespace

struct CFile2FtpDbMng::Impl {
  CLock mutex;
  sqlite3* db GUARDED_BY(mutex) = nullptr;
  std::string path GUARDED_BY(mutex);  // file of the open table
  ino_t inode GUARDED_BY(mutex) = 0;   // its identity when it was opened
  // Mount directories whose database was made anew in place of a lost one, for TakeRemade.
  std::vector<std::string> remade GUARDED_BY(mutex);

  void NoteRemade(const std::string& file) REQUIRES(mutex) {
    std::string dir = file.substr(0, file.rfind('/'));
    if (std::find(remade.begin(), remade.end(), dir) == remade.end()) remade.push_back(dir);
  }

  void Close() REQUIRES(mutex) {
    if (db != nullptr) sqlite3_close(db);
    db = nullptr;
    path.clear();
    inode = 0;
  }

  // Opens (making it when needed) the database at path as the table; a file that is no
  // database is set aside and replaced by a new one. False when none could be opened.
  bool Open(const std::string& at) REQUIRES(mutex) {
    // The file open here until now has gone or been replaced: its rows went with it.
    bool lost = db != nullptr && at == path && InodeOf(at) != inode;
    Close();
    int code;
    sqlite3* opened = OpenDb(at, true, &code);
    if (opened == nullptr && NotADatabase(code) && SetAside(at)) {
      lost = true;
      opened = OpenDb(at, true);
    }
    if (opened == nullptr) return false;
    if (lost) NoteRemade(at);
    db = opened;
    path = at;
    inode = InodeOf(at);
    return true;
  }

  // A write to a handle whose file was deleted or replaced would vanish with the unlinked
  // file: the table is opened anew at its path first. False when that fails.
  bool EnsureFileIsOurs() REQUIRES(mutex) {
    if (db == nullptr) return false;
    ino_t now = InodeOf(path);
    bool badJournal = !Unusable(path + "-journal").empty();  // SQLite would wait on a FIFO
    if (now != 0 && now == inode && !badJournal) return true;
    WriteDbgLog(2, "new_file_op db %s %s under the service: opened anew\n", path.c_str(),
                now == 0 ? "was deleted" : (now != inode ? "was replaced" : "got a bad journal"));
    return Open(std::string(path));
  }
};

CFile2FtpDbMng::CFile2FtpDbMng() : m_pImpl(new Impl()) {}

CFile2FtpDbMng::~CFile2FtpDbMng() {
  {
    CAutoLock guard(&m_pImpl->mutex);
    m_pImpl->Close();
  }
  delete m_pImpl;
}

CFile2FtpDbMng* CFile2FtpDbMng::Instance() {
  static CFile2FtpDbMng* instance = new CFile2FtpDbMng();
  return instance;
}

int CFile2FtpDbMng::OpenTable(const char* mountDir) {
  CAutoLock guard(&m_pImpl->mutex);
  m_pImpl->Close();
  m_bTabOpen = 0;
  if (mountDir == nullptr || mountDir[0] == '\0') {
    WriteDbgLog(2, "new_file_op db: no mount directory to open\n");
    return -1;
  }
  if (!m_pImpl->Open(DbPath(mountDir))) return -1;
  m_bTabOpen = 1;
  return 0;
}

int CFile2FtpDbMng::Insert(__ftp_log* row) {
  if (row == nullptr) return -1;
  std::list<__ftp_log> one{*row};
  return InsertMore(one);
}

int CFile2FtpDbMng::InsertMore(std::list<__ftp_log>& rows) { return Rewrite(nullptr, rows); }

int CFile2FtpDbMng::ReplaceBySeqAndType(int seq, unsigned char type, std::list<__ftp_log>& rows) {
  const std::pair<int, unsigned char> key{seq, type};
  return Rewrite(&key, rows);
}

// In one transaction: deletes the rows of *key (when given), then appends rows. A crash or a
// power loss leaves either the old rows or the new ones, never neither.
int CFile2FtpDbMng::Rewrite(const std::pair<int, unsigned char>* key, std::list<__ftp_log>& rows) {
  CAutoLock guard(&m_pImpl->mutex);
  if (!m_pImpl->EnsureFileIsOurs()) {
    DropTable(SQLITE_OK);
    return -1;
  }
  sqlite3* db = m_pImpl->db;
  const std::string path = m_pImpl->path;  // a copy: DropTable clears the original
  std::string sql =
      std::string("INSERT INTO ftp_log (") + kColumns + ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
  if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    LogDbError(db, "begin", path);
    if (MediumFailed(db)) DropTable(sqlite3_errcode(db));
    return -1;
  }
  bool ok = key == nullptr || Exec(
                                  db, "DELETE FROM ftp_log WHERE seq = ? AND type = ?",
                                  [&](sqlite3_stmt* st) {
                                    sqlite3_bind_int64(st, 1, static_cast<uint32_t>(key->first));
                                    sqlite3_bind_int(st, 2, key->second);
                                  },
                                  nullptr, path);
  for (auto it = rows.begin(); ok && it != rows.end(); ++it) {
    const __ftp_log& row = *it;
    ok = Exec(
        db, sql.c_str(), [&](sqlite3_stmt* st) { BindRow(st, row); }, nullptr, path);
  }
  if (ok && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    LogDbError(db, "commit", path);
    ok = false;
  }
  if (!ok) {
    bool broken = MediumFailed(db);
    int code = sqlite3_errcode(db);
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    if (broken) DropTable(code);
    return -1;
  }
  return 0;
}

// Closes a table whose medium failed, so that the next user reopens it; a file found to be no
// database is set aside first, so that the reopening makes a new one. Called with the mutex
// held.
void CFile2FtpDbMng::DropTable(int code) {
  m_pImpl->mutex.AssertHeld();
  if (m_pImpl->db != nullptr && NotADatabase(code) && SetAside(m_pImpl->path)) {
    m_pImpl->NoteRemade(m_pImpl->path);
  }
  m_pImpl->Close();
  m_bTabOpen = 0;
}

int CFile2FtpDbMng::CheckTable() {
  CAutoLock guard(&m_pImpl->mutex);
  if (!m_pImpl->EnsureFileIsOurs()) return -1;
  // Runs every second while tasks are queued: one row, not a count of the whole table. The
  // file's identity is checked above; damage deeper in the file shows at the next write.
  if (Exec(m_pImpl->db, "SELECT 1 FROM ftp_log LIMIT 1", nullptr, nullptr, m_pImpl->path)) return 0;
  if (MediumFailed(m_pImpl->db)) {
    DropTable(sqlite3_errcode(m_pImpl->db));
    return -1;
  }
  // A database without the table (the file emptied under the service): opening it anew
  // makes the table.
  const std::string at = m_pImpl->path;
  if (!m_pImpl->Open(at)) {
    m_bTabOpen = 0;
    return -1;
  }
  m_pImpl->NoteRemade(at);
  return 0;
}

std::string CFile2FtpDbMng::TakeRemade() {
  CAutoLock guard(&m_pImpl->mutex);
  if (m_pImpl->remade.empty()) return "";
  std::string dir = m_pImpl->remade.front();
  m_pImpl->remade.erase(m_pImpl->remade.begin());
  return dir;
}

int CFile2FtpDbMng::SearchAll(std::list<__ftp_log>& rows) {
  CAutoLock guard(&m_pImpl->mutex);
  if (m_pImpl->db == nullptr) return -1;
  std::string sql = std::string("SELECT ") + kColumns + " FROM ftp_log ORDER BY id";
  bool ok = Exec(
      m_pImpl->db, sql.c_str(), nullptr,
      [&](sqlite3_stmt* st) {
        __ftp_log row;
        ReadRow(st, &row);
        rows.push_back(row);
      },
      m_pImpl->path);
  if (!ok && MediumFailed(m_pImpl->db)) DropTable(sqlite3_errcode(m_pImpl->db));
  return ok ? 0 : -1;
}

int CFile2FtpDbMng::SearchBySeqAndType(int seq, unsigned char type, std::list<__ftp_log>& rows) {
  CAutoLock guard(&m_pImpl->mutex);
  if (m_pImpl->db == nullptr) return -1;
  std::string sql =
      std::string("SELECT ") + kColumns + " FROM ftp_log WHERE seq = ? AND type = ? ORDER BY id";
  bool ok = Exec(
      m_pImpl->db, sql.c_str(),
      [&](sqlite3_stmt* st) {
        sqlite3_bind_int64(st, 1, static_cast<uint32_t>(seq));
        sqlite3_bind_int(st, 2, type);
      },
      [&](sqlite3_stmt* st) {
        __ftp_log row;
        ReadRow(st, &row);
        rows.push_back(row);
      },
      m_pImpl->path);
  return ok ? static_cast<int>(rows.size()) : -1;
}

int CFile2FtpDbMng::DeleteBySeqAndType(int seq, unsigned char type) {
  CAutoLock guard(&m_pImpl->mutex);
  if (m_pImpl->db == nullptr) return -1;
  bool ok = Exec(
      m_pImpl->db, "DELETE FROM ftp_log WHERE seq = ? AND type = ?",
      [&](sqlite3_stmt* st) {
        sqlite3_bind_int64(st, 1, static_cast<uint32_t>(seq));
        sqlite3_bind_int(st, 2, type);
      },
      nullptr, m_pImpl->path);
  return ok ? 0 : -1;
}

int CFile2FtpDbMng::SearchBySeqAndType(const char* mountDir, int seq, unsigned char type) {
  if (mountDir == nullptr || mountDir[0] == '\0') return 0;
  CAutoLock guard(&m_pImpl->mutex);
  std::string path = DbPath(mountDir);
  sqlite3* db = OpenDb(path, false);
  if (db == nullptr) return 0;
  int count = 0;
  Exec(
      db, "SELECT COUNT(*) FROM ftp_log WHERE seq = ? AND type = ?",
      [&](sqlite3_stmt* st) {
        sqlite3_bind_int64(st, 1, static_cast<uint32_t>(seq));
        sqlite3_bind_int(st, 2, type);
      },
      [&](sqlite3_stmt* st) { count = sqlite3_column_int(st, 0); }, path);
  sqlite3_close(db);
  return count;
}

int CFile2FtpDbMng::SearchDelete(const char* mountDir, const char* fullPath) {
  if (mountDir == nullptr || mountDir[0] == '\0' || fullPath == nullptr) return -1;
  CAutoLock guard(&m_pImpl->mutex);
  std::string path = DbPath(mountDir);
  sqlite3* db = OpenDb(path, false);
  if (db == nullptr) return -1;
  bool ok = Exec(
      db, "DELETE FROM ftp_log WHERE fullpath = ?",
      [&](sqlite3_stmt* st) { sqlite3_bind_text(st, 1, fullPath, -1, SQLITE_TRANSIENT); }, nullptr,
      path);
  sqlite3_close(db);
  return ok ? 0 : -1;
}

int ReadQueuedRows(const char* mountDir, std::list<__ftp_log>* rows) {
  if (mountDir == nullptr || mountDir[0] == '\0') return -1;
  const std::string path = DbPath(mountDir);
  sqlite3* db = nullptr;
  if (Refused(path, nullptr)) return -1;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr) !=
      SQLITE_OK) {
    sqlite3_close(db);
    return -1;
  }
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  std::string sql = std::string("SELECT ") + kColumns + " FROM ftp_log ORDER BY id";
  bool ok = Exec(
      db, sql.c_str(), nullptr,
      [&](sqlite3_stmt* st) {
        __ftp_log row;
        ReadRow(st, &row);
        rows->push_back(row);
      },
      path);
  sqlite3_close(db);
  return ok ? 0 : -1;
}
