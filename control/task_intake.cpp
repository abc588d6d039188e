// Intake of new tasks and transfer control. The database is always changed before the
// list, and the engine is told while the list lock is held.
#include <cstring>

#include "control/ftp_ctrl_mng.h"
#include "platform/env.h"
#include "platform/file2ftpdb.h"
#include "platform/log.h"
#include "upload/ftp_upload_file_mng.h"

namespace {

constexpr size_t kTaskListMax = 1000;
const char kDbBaseName[] = "new_file_op";

bool Matches(const ftpFileInfo_t& rec, int fileType, int seq) {
  return rec.type == static_cast<uint32_t>(fileType) && rec.seq == static_cast<uint32_t>(seq);
}

// Opens the current disk's table when the library has none open.
void EnsureTableOpen(CFile2FtpDbMng* db, const char* diskPath, int line) {
  if (db->m_bTabOpen == 0 && db->OpenTable(diskPath) < 0) {
    WriteDbgLog(0, "%s:%d open :%s db file error\n", "SetFtpTrans", line, kDbBaseName);
  }
}

}  // namespace

// Refusals are logged, but at most one line per kRefusalLogSeconds with the count since the
// last line, so that a flood of requests cannot flood the log as well.
void CFtpCtrlMng::LogRefusal(const ftpFileInfo_t& task, const char* why) {
  m_nLastRefusedSeq = task.seq;
  m_pLastRefusal = why;
  ++m_nRefusedTotal;
  ++m_nRefused;
  FlushRefusals();
}

// Also called once a second by the scheduler: the refusals of a burst that ends within the
// interval are reported once it is over, not only when the next refusal comes.
void CFtpCtrlMng::FlushRefusals() {
  int64_t now = m_env->NowMs() / 1000;
  int64_t last = m_lastRefusalLog.load();
  if (m_nRefused.load() == 0 || (last != 0 && now - last < kRefusalLogSeconds)) return;
  // Request and main thread may both get here; the one that moves the time writes the line.
  if (!m_lastRefusalLog.compare_exchange_strong(last, now != 0 ? now : 1)) return;
  WriteDbgLog(2, "task seq:%u refused (%s); %u refused since the last such line\n",
              m_nLastRefusedSeq.load(), m_pLastRefusal.load(), m_nRefused.exchange(0));
}

void CFtpCtrlMng::RememberDone(const char* fullName) {
  m_done.emplace_back(fullName, strnlen(fullName, sizeof(ftpFileInfo_t::fullName)));
  if (m_done.size() > kDoneMax) m_done.pop_front();
}

int CFtpCtrlMng::InsertFileInfo(ftpFileInfo_t* info) {
  ftpCurDisk_t disk = CurDisk();
  if (disk.id == 0) {
    WriteDbgLog(0, "%s:%d no disk ret\n", "InsertFileInfo", 156);
    if (info->type == 1) {  // a recording needs its disk
      LogRefusal(*info, "a recording while no disk is known");
      return -1;
    }
  }
  CAutoLock guard(&m_lock);
  if (m_taskList.size() >= kTaskListMax) {
    LogRefusal(*info, "the queue holds its maximum of 1000 tasks");
    return -1;
  }

  info->result = 0;
  __ftp_log row;
  RowFromRecord(*info, &row);
  WriteDbgLog(0, "set db info=>net:%d type:%d seq:%d dir:%s filename:%s fullpath:%s\n", row.net,
              static_cast<int>(row.type), static_cast<int>(row.seq), row.dir, row.filename,
              row.fullpath);
  CFile2FtpDbMng* db = m_env->TaskDb();
  if (db->m_bTabOpen == 0) {
    WriteDbgLog(0, "CFile2FtpDbMng Tab not open \n");
    if (db->OpenTable(disk.path) < 0) WriteDbgLog(0, "CFile2FtpDbMng open :%s error\n", disk.path);
  }
  if (db->Insert(&row) < 0) {
    // The task is still queued and is sent in this run; its row is written again on every
    // disk check until the database takes it, so that it is remembered across a restart.
    WriteDbgLog(0, "CFile2FtpDbMng::Instance()->Insert error \n");
    m_unsaved.push_back(row);
  }
  char* path = info->server.path;
  if (path[0] == '/') {
    memmove(path, path + 1, sizeof(info->server.path) - 1);
    path[sizeof(info->server.path) - 1] = '\0';
  }
  m_done.remove(std::string(info->fullName, strnlen(info->fullName, sizeof(info->fullName))));
  m_taskList.push_back(*info);
  return 0;
}

void CFtpCtrlMng::SetFtpTrans(int fileType, unsigned int ctrType, int seq) {
  WriteDbgLog(0, "%s:%d filetype:%d ctrtype:%d seq:%d \n", "SetFtpTrans", 361, fileType,
              static_cast<int>(ctrType), seq);
  ftpCurDisk_t disk = CurDisk();
  if (ctrType == 2) {
    DeleteTasks(fileType, seq, disk.path);
  } else if (ctrType == 0 || ctrType == 1) {
    SwitchTasks(fileType, ctrType, seq, disk.path);
  }
}

void CFtpCtrlMng::DeleteTasks(int fileType, int seq, const char* diskPath) {
  EnsureTableOpen(m_env->TaskDb(), diskPath, 368);
  m_env->TaskDb()->DeleteBySeqAndType(seq, static_cast<unsigned char>(fileType));
  CAutoLock guard(&m_lock);
  for (const ftpFileInfo_t& rec : m_taskList) {
    if (Matches(rec, fileType, seq)) RememberDone(rec.fullName);
  }
  m_taskList.remove_if([&](const ftpFileInfo_t& rec) { return Matches(rec, fileType, seq); });
  m_pEngine->SetTaskTrans(0, 0);
}

void CFtpCtrlMng::SwitchTasks(int fileType, unsigned int ctrType, int seq, const char* diskPath) {
  EnsureTableOpen(m_env->TaskDb(), diskPath, 400);
  CFile2FtpDbMng* db = m_env->TaskDb();
  std::list<__ftp_log> rows;
  db->SearchBySeqAndType(seq, static_cast<unsigned char>(fileType), rows);
  if (rows.empty()) return;  // nothing of this sequence number is stored: nothing changes
  for (__ftp_log& row : rows) {
    if (row.type == static_cast<uint32_t>(fileType) && row.seq == static_cast<uint32_t>(seq)) {
      row.trans = static_cast<uint8_t>(ctrType);
    }
  }
  // Deleted and written back with the new trans in one transaction, so that a power loss
  // in between cannot lose the tasks.
  db->ReplaceBySeqAndType(seq, static_cast<unsigned char>(fileType), rows);

  CAutoLock guard(&m_lock);
  for (ftpFileInfo_t& rec : m_taskList) {
    if (Matches(rec, fileType, seq)) rec.trans = static_cast<uint8_t>(ctrType);
  }
  m_pEngine->SetTaskTrans(1, static_cast<uint8_t>(ctrType));
}

void CFtpCtrlMng::SaveUnsaved(const char* diskPath) {
  CAutoLock guard(&m_lock);
  if (m_unsaved.empty()) return;
  // Only the rows of tasks still queued, with their present transfer switch.
  std::list<__ftp_log> rows;
  for (const __ftp_log& row : m_unsaved) {
    for (const ftpFileInfo_t& task : m_taskList) {
      if (Matches(task, static_cast<int>(row.type), static_cast<int>(row.seq)) &&
          strncmp(task.fullName, row.fullpath, sizeof(row.fullpath)) == 0) {
        rows.push_back(row);
        rows.back().trans = task.trans;
        break;
      }
    }
  }
  CFile2FtpDbMng* db = m_env->TaskDb();
  EnsureTableOpen(db, diskPath, 420);
  if (!rows.empty() && db->InsertMore(rows) < 0) return;  // kept for the next check
  if (!rows.empty()) {
    WriteDbgLog(2, "%zu tasks that were queued only in memory are stored now\n", rows.size());
  }
  m_unsaved.clear();
}
