// The file-to-FTP database: one SQLite file new_file_op.db in each disk's mount directory
// holding the persisted upload queue. All calls are serialised by a lock of its own, so it
// may be called from several threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <utility>

#include "platform/ftpserver.h"

// One row, 496 bytes.
struct __ftp_log {
  uint32_t seq;
  uint32_t type;
  char fullpath[128];
  char dir[64];
  char filename[64];
  uint8_t valid;
  uint8_t net;
  uint8_t trans;
  uint8_t result;
  UserDefServerSet_t server;
  uint8_t pad[2];
};
static_assert(sizeof(__ftp_log) == 496, "__ftp_log layout");
static_assert(offsetof(__ftp_log, type) == 4, "type offset");
static_assert(offsetof(__ftp_log, fullpath) == 8, "fullpath offset");
static_assert(offsetof(__ftp_log, dir) == 136, "dir offset");
static_assert(offsetof(__ftp_log, filename) == 200, "filename offset");
static_assert(offsetof(__ftp_log, valid) == 264, "valid offset");
static_assert(offsetof(__ftp_log, result) == 267, "result offset");
static_assert(offsetof(__ftp_log, server) == 268, "server offset");

// Reads the rows of the database in mountDir, in queue order, without writing anything (the
// service may be writing it meanwhile). 0, or -1 when there is no readable database.
int ReadQueuedRows(const char* mountDir, std::list<__ftp_log>* rows);

// The host database (SQLite). Its calls are virtual so that a test's Env can hand over a
// database with fault switches (busy, corrupt, full) that forwards to this one.
class CFile2FtpDbMng {
 public:
  // The host instance, which Env::Default() hands over.
  static CFile2FtpDbMng* Instance();
  virtual ~CFile2FtpDbMng();

  // Non-zero while a table is open. Callers write 0 to make the next user reopen.
  std::atomic<unsigned char> m_bTabOpen{0};

  // Opens mountDir/new_file_op.db (creating it) as the table of the calls below that take no
  // directory; sets m_bTabOpen. Negative on failure.
  virtual int OpenTable(const char* mountDir);
  virtual int Insert(__ftp_log* row);
  virtual int InsertMore(std::list<__ftp_log>& rows);
  // Appends every row, in insertion order. Negative on failure.
  virtual int SearchAll(std::list<__ftp_log>& rows);
  virtual int SearchBySeqAndType(int seq, unsigned char type, std::list<__ftp_log>& rows);
  virtual int DeleteBySeqAndType(int seq, unsigned char type);
  // DeleteBySeqAndType followed by InsertMore of rows, as one transaction: a crash in between
  // cannot lose the tasks. Negative on failure (nothing changed then).
  virtual int ReplaceBySeqAndType(int seq, unsigned char type, std::list<__ftp_log>& rows);
  // Rows with seq and type in the database of the disk mounted at mountDir; 0 on failure.
  virtual int SearchBySeqAndType(const char* mountDir, int seq, unsigned char type);
  // Deletes the rows whose fullpath equals fullPath from the database at mountDir.
  virtual int SearchDelete(const char* mountDir, const char* fullPath);
  // Checks that the open table's file is still the one opened and reads as a database; one
  // that was deleted, replaced or corrupted is made anew (see TakeRemade). 0 when usable.
  int CheckTable();
  // The mount directory of a database that was made anew in place of a lost one (deleted or
  // replaced under the service, or no database: corrupt, a directory, a FIFO, a link; set
  // aside) and not yet taken; its rows are gone, so the caller writes again what it holds.
  // Empty when there is none.
  std::string TakeRemade();

  CFile2FtpDbMng(const CFile2FtpDbMng&) = delete;
  CFile2FtpDbMng& operator=(const CFile2FtpDbMng&) = delete;

 protected:
  // A database of its own, with no table open. Tests make one per case.
  CFile2FtpDbMng();

 private:
  int Rewrite(const std::pair<int, unsigned char>* key, std::list<__ftp_log>& rows);
  // Closes the table after a failure with SQLite error code (see the host implementation).
  void DropTable(int code);

  struct Impl;
  Impl* m_pImpl;
};
