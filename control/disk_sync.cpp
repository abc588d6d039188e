// Following the storage disks: the disk table, the current disk and loading each disk's
// database into the task list.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "control/ftp_ctrl_mng.h"
#include "platform/byteorder.h"
#include "platform/env.h"
#include "platform/file2ftpdb.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/status.h"
#include "platform/text.h"

namespace {

constexpr int kSlotCount = 6;
constexpr int kReloadSeconds = 30;
const char kDbBaseName[] = "new_file_op";

// Status identifier to slot; the smallest slot is preferred. -1 for an identifier without one.
int SlotOf(int id) {
  switch (id) {
    case 1:
      return 0;
    case 6:
      return 1;
    case 5:
      return 2;
    case 7:
      return 3;
    case 8:
      return 4;
    case 9:
      return 5;
    default:
      return -1;
  }
}

// True when one of rows is the task of the file at path.
bool HasPath(const std::list<__ftp_log>& rows, const char* path) {
  return std::any_of(rows.begin(), rows.end(), [path](const __ftp_log& row) {
    return strncmp(row.fullpath, path, sizeof(row.fullpath)) == 0;
  });
}

int Clamp8(int32_t count) { return count < 0 ? 0 : (count > 8 ? 8 : count); }

// Fills the slot directories from the mount lists: usage 18 for types 1, 6, 5, 7, 8 and
// usage 14 for type 9; a later entry of the same type wins.
void ReadSlotDirs(Env* env, char dirs[kSlotCount][128]) {
  memset(dirs, 0, kSlotCount * 128);
  PartStatus_t list;
  memset(&list, 0, sizeof(list));
  env->GetDiskForCommUsage(DISK_USAGE_UPLOAD, &list);
  for (int i = 0; i < Clamp8(list.count); ++i) {
    int slot = SlotOf(list.part[i].type);
    if (slot >= 0 && slot < 5) CopyField(dirs[slot], 128, list.part[i].path, 128);
  }
  memset(&list, 0, sizeof(list));
  env->GetDiskForCommUsage(DISK_USAGE_TYPE9, &list);
  for (int i = 0; i < Clamp8(list.count); ++i) {
    if (list.part[i].type == 9) CopyField(dirs[5], 128, list.part[i].path, 128);
  }
}

}  // namespace

void CFtpCtrlMng::CheckDiskState(uint32_t seconds) {
  uint8_t disks[kStatusDiskSize] = {};
  int count = 0;
  if (m_env->GetStatus(STATUS_DISK, disks) == 0) {
    count = static_cast<int32_t>(LoadLE32(disks));
    if (count <= 0) return;
  }
  char dirs[kSlotCount][128];
  ReadSlotDirs(m_env, dirs);
  for (int i = 0; i < Clamp8(count); ++i) {
    const uint8_t* entry = disks + 4 + 12 * i;
    int id = static_cast<int32_t>(LoadLE32(entry));
    bool present = LoadLE32(entry + 8) != 0;
    int slot = SlotOf(id);
    if (slot < 0) continue;
    auto it = m_diskMap.find(slot);
    if (it != m_diskMap.end()) {
      if (!present || dirs[slot][0] == '\0') {
        // The disk is gone (or no longer mounted: its directory left the mount lists); its
        // tasks stay queued, and the next disk can become current. An open table may be on
        // it, and a card put back at the same mount would otherwise be written through the
        // old handle.
        m_diskMap.erase(it);
        m_env->TaskDb()->m_bTabOpen = 0;
        continue;
      }
      // Compared as stored (cut to 63 characters), so a long mount path is not reloaded on
      // every check.
      char stored[64];
      CopyText(stored, sizeof(stored), dirs[slot]);
      if (strcmp(it->second.path, stored) != 0) {
        memcpy(it->second.path, stored, sizeof(stored));
        SyncDisk(it->second.path);
      }
    } else if (present && strfind_s(dirs[slot], "/mnt/")) {
      ftpDiskInfo_t disk{};
      disk.id = id;
      CopyText(disk.path, sizeof(disk.path), dirs[slot]);
      disk.pfnSync = dataSync;
      m_diskMap[slot] = disk;
      SyncDisk(m_diskMap[slot].path);
    }
  }

  ForgetGoneCurrentDisk();

  uint8_t recorder[kStatusRecorderSize] = {};
  if (m_env->GetStatus(STATUS_RECORDER, recorder) != 0 || LoadLE32(recorder + 128) != 1 ||
      m_diskMap.empty()) {
    return;
  }
  FollowSmallestSlot();
  RestoreRemade();
  SaveUnsaved(CurDisk().path);
  bool idle;
  {
    CAutoLock guard(&m_lock);
    idle = m_taskList.empty();
  }
  if (llabs(static_cast<int64_t>(seconds) - m_lastActive) >= kReloadSeconds && idle) {
    char path[128];
    CopyText(path, sizeof(path), CurDisk().path);
    SyncDisk(path);
    m_lastActive = static_cast<int32_t>(seconds);
  }
}

void CFtpCtrlMng::FollowSmallestSlot() {
  const ftpDiskInfo_t& first = m_diskMap.begin()->second;
  ftpCurDisk_t cur = CurDisk();
  if (first.id == cur.id && strcmp(first.path, cur.path) == 0) return;
  {
    CAutoLock guard(&m_curDiskLock);
    memset(&m_curDisk, 0, sizeof(m_curDisk));
    m_curDisk.id = first.id;
    CopyText(m_curDisk.path, sizeof(m_curDisk.path), first.path);
  }
  // The library keeps one table open; make the next intake open the new disk's database
  // rather than go on writing into the old one.
  m_env->TaskDb()->m_bTabOpen = 0;
  WriteDbgLog(0, "%s:%d disk changed [%d,%s]\n", "CheckDiskState", 349, first.id, first.path);
}

void CFtpCtrlMng::ForgetGoneCurrentDisk() {
  ftpCurDisk_t cur = CurDisk();
  if (cur.path[0] == '\0') return;
  for (const auto& slot : m_diskMap) {
    if (slot.second.id == cur.id && strcmp(slot.second.path, cur.path) == 0) return;
  }
  // Sending goes on, but intake must not write into the directory the disk left: a card
  // pulled leaves its mount point behind, and a database made there is hidden when the card
  // is mounted again. Tasks admitted meanwhile wait in memory and are stored once a disk is
  // current again.
  {
    CAutoLock guard(&m_curDiskLock);
    m_curDisk.path[0] = '\0';
  }
  m_env->TaskDb()->m_bTabOpen = 0;
  WriteDbgLog(2, "current disk %d left %s: new tasks are kept in memory until a disk is back\n",
              cur.id, cur.path);
}

void CFtpCtrlMng::RestoreRemade() {
  CFile2FtpDbMng* db = m_env->TaskDb();
  bool queued;
  {
    CAutoLock guard(&m_lock);
    queued = !m_taskList.empty();
  }
  // A lost database is found here even when no task is admitted to notice it.
  ftpCurDisk_t cur = CurDisk();
  queued = queued && cur.path[0] != '\0';
  if (queued && db->m_bTabOpen == 0) db->OpenTable(cur.path);
  if (queued && db->m_bTabOpen != 0) db->CheckTable();
  std::vector<std::string> dirs;  // taken first: writing may find another one to remake
  for (std::string dir = db->TakeRemade(); !dir.empty(); dir = db->TakeRemade()) {
    dirs.push_back(dir);
  }
  for (const std::string& dir : dirs) {
    std::list<__ftp_log> stored, rows;
    db->m_bTabOpen = 0;
    if (db->OpenTable(dir.c_str()) == 0) db->SearchAll(stored);
    CAutoLock guard(&m_lock);
    for (const ftpFileInfo_t& task : m_taskList) {
      if (HasPath(stored, task.fullName)) continue;
      rows.emplace_back();
      RowFromRecord(task, &rows.back());
    }
    size_t count = rows.size();
    if (!rows.empty() && db->InsertMore(rows) < 0) {
      m_unsaved.splice(m_unsaved.end(), rows);  // written at the next checks, to the current disk
    }
    m_unsaved.remove_if([&](const __ftp_log& row) { return HasPath(rows, row.fullpath); });
    db->m_bTabOpen = 0;  // the next intake reopens the current disk
    WriteDbgLog(2, "task database on %s was made anew: %zu queued tasks written to it again\n",
                dir.c_str(), count);
  }
}

void CFtpCtrlMng::SyncDisk(char* mountDir) {
  dataSync(m_env->TaskDb(), mountDir, m_taskList, &m_lock, &m_done);
}

void dataSync(char* mountDir, std::list<ftpFileInfo_t>& taskList, CLock* lock) {
  dataSync(CFile2FtpDbMng::Instance(), mountDir, taskList, lock);
}

void dataSync(CFile2FtpDbMng* db, char* mountDir, std::list<ftpFileInfo_t>& taskList, CLock* lock,
              const std::list<std::string>* done) {
  if (!strfind_s(mountDir, "/mnt/")) return;
  char dbFile[128];
  FormatBounded(dbFile, sizeof(dbFile), "%s/%s.db", mountDir, kDbBaseName);
  if (file_exist(dbFile) != 1) return;  // this loader never creates a database

  db->m_bTabOpen = 0;
  if (db->OpenTable(mountDir) < 0) {
    WriteDbgLog(0, "%s:%d open :%s db file error\n", "dataSync", 62, kDbBaseName);
  }
  std::list<__ftp_log> rows;
  if (db->SearchAll(rows) < 0) {
    WriteDbgLog(0, "%s:%d SearchAllLogFromDb error\n", "dataSync", 69);
  }
  if (rows.empty()) return;

  std::list<ftpFileInfo_t> loaded;
  for (const __ftp_log& row : rows) {
    ftpFileInfo_t rec;
    RecordFromRow(row, &rec);
    WriteDbgLog(0, "%s:%d type:%d fileDir:%s fileName:%s fullNmae:%s\n", "dataSync", 92, rec.type,
                rec.fileDir, rec.fileName, rec.fullName);
    loaded.push_back(rec);
  }

  std::list<std::string> ended;
  {
    CAutoLock guard(lock);
    for (const ftpFileInfo_t& queued : taskList) {
      for (auto it = loaded.begin(); it != loaded.end(); ++it) {
        if (strcmp(it->fullName, queued.fullName) == 0) {
          loaded.erase(it);
          break;
        }
      }
    }
    // Tasks that ended while this disk was away: completed once, never sent again.
    for (auto it = loaded.begin(); done != nullptr && it != loaded.end();) {
      bool gone = std::find(done->begin(), done->end(), it->fullName) != done->end();
      if (gone) ended.emplace_back(it->fullName);
      it = gone ? loaded.erase(it) : std::next(it);
    }
    taskList.splice(taskList.end(), loaded);
    db->m_bTabOpen = 0;  // the next intake or transfer control reopens the current disk
  }
  for (const std::string& name : ended) db->SearchDelete(mountDir, name.c_str());
  if (!ended.empty()) {
    WriteDbgLog(2, "%s: %zu stored tasks had ended while the disk was away; deleted\n", mountDir,
                ended.size());
  }
}
