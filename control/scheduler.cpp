// The upload scheduler: one pass every 200 ms on the main thread. It hands the head task to
// the engine, follows the engine's task until it has an outcome, and then completes it.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "control/ftp_ctrl_mng.h"
#include "platform/byteorder.h"
#include "platform/env.h"
#include "platform/file2ftpdb.h"
#include "platform/log.h"
#include "platform/status.h"
#include "upload/ftp_upload_file_mng.h"
#include "upload/task_status.h"
#include "upload/xfile.h"

namespace {

// Network link of status 11 to the mask of links allowed now.
uint32_t MaskOfLink(int32_t link) {
  switch (link) {
    case 1:
    case 2:
      return 4;
    case 3:
    case 4:
      return 1;
    case 5:
      return 2;
    default:
      return 0;
  }
}

}  // namespace

bool CFtpCtrlMng::UpdateNetwork(uint32_t seconds) {
  m_lastSecond = seconds;
  uint8_t block[kStatusNetworkSize] = {};
  if (m_env->GetStatus(STATUS_NETWORK, block) < 0) return false;
  m_netLink = static_cast<int32_t>(LoadLE32(block));
  m_netMask = MaskOfLink(m_netLink);
  int32_t state = m_pEngine->m_nTransState.load();  // sign-extended
  StoreLE32(block + 4, static_cast<uint32_t>(state));
  m_env->SetStatus(STATUS_NETWORK, block);
  return true;
}

void CFtpCtrlMng::DropHeadTask() {
  ftpFileInfo_t head = m_taskList.front();
  // The file goes with the rows, disk by disk: with no disk known, no file is removed.
  for (const auto& slot : m_diskMap) {
    m_env->TaskDb()->SearchDelete(slot.second.path, head.fullName);
    if (head.delAfterUpload == 1) remove(head.fullName);
  }
  m_taskList.pop_front();
}

void CFtpCtrlMng::ScheduleTask(uint32_t seconds) {
  if (seconds != m_lastPublished) {
    PublishState(seconds);
    FlushRefusals();
    // A database lost under the service gets the queue written back within a second, not only
    // at the next disk check: a power cut in between would lose every queued task.
    RestoreRemade();
  }
  if (CurDisk().id == 0) return;
  if (seconds != m_lastSecond && !UpdateNetwork(seconds)) return;
  CAutoLock guard(&m_lock);
  if (m_taskList.empty()) return;
  ftpFileInfo_t held = m_pEngine->SnapshotTask();
  if (held.valid == 1) {
    FollowEngineTask(held, seconds);
  } else {
    OfferHeadTask(seconds);
  }
}

void CFtpCtrlMng::FollowEngineTask(const ftpFileInfo_t& held, uint32_t seconds) {
  CFtpUploadFileMng* engine = m_pEngine;
  auto it = m_taskList.begin();
  while (it != m_taskList.end() && strcmp(it->fullName, held.fullName) != 0) ++it;
  if (it == m_taskList.end()) {
    // The engine's task has left the queue (or was marked valid again by a transfer control
    // after it was completed): released, so that the head task is handed over next.
    engine->SetTaskTrans(0, 0);
    return;
  }

  uint8_t valid = it->valid;
  uint8_t trans = it->trans;
  if (held.result == 0) {
    if (engine->m_nTransState == 2 && held.sendTimes > 3) {
      m_taskList.erase(it);  // its rows stay: it comes back with the next reload
      valid = 0;
    } else if ((it->net & m_netMask) == 0) {
      valid = 0;  // the present link is not allowed: stop, keep it queued
    }
  } else {
    int remaining = 0;
    for (const auto& slot : m_diskMap) {
      CFile2FtpDbMng* db = m_env->TaskDb();
      db->SearchDelete(slot.second.path, held.fullName);
      remaining += db->SearchBySeqAndType(slot.second.path, static_cast<int>(held.seq), held.type);
    }
    // Tasks of the number still queued count as well: their rows may be on a disk that is away
    // or may not have been written at all.
    remaining += static_cast<int>(
        std::count_if(m_taskList.begin(), m_taskList.end(), [&](const ftpFileInfo_t& t) {
          return &t != &*it && t.seq == held.seq && t.type == held.type;
        }));
    // A source that could not be read (gone, not a regular file) delivered nothing. The number
    // gets one status when its last task ends: 1 when any of its tasks failed so, else 0; and
    // a file is removed only when it was delivered.
    std::pair<uint32_t, int> key(held.seq, held.type);
    if (held.result == 2) m_failedSeqs.insert(key);
    if ((held.result == 1 || held.result == 2) && remaining == 0) {
      bool failed = m_failedSeqs.erase(key) > 0;
      SendTaskStatus(static_cast<int>(held.seq), failed ? 1 : 0);
      if (!failed && held.delAfterUpload == 1) remove(held.fullName);
    }
    RememberDone(held.fullName);
    m_taskList.erase(it);
    valid = 0;
  }
  engine->SetTaskTrans(valid, trans);
  m_lastActive = static_cast<int32_t>(seconds);
}

void CFtpCtrlMng::OfferHeadTask(uint32_t seconds) {
  ftpFileInfo_t head = m_taskList.front();
  CXFile source(head.type, m_env);
  if (source.Xexist(head.fullName) == 0) {
    WriteDbgLog(0, "file does not exist\n");
    DropHeadTask();
  } else if (head.valid == 1) {
    if ((head.net & m_netMask) == 0) {
      m_taskList.pop_front();  // not for the present link: to the back
      m_taskList.push_back(head);
    } else if (m_pEngine->m_nBusy == 0) {
      m_pEngine->SetTask(&head);
    }
    m_lastActive = static_cast<int32_t>(seconds);
  } else {
    DropHeadTask();  // no longer valid: dropped unsent
  }
}

void CFtpCtrlMng::SendTaskStatus(int seq, int status) { SendTaskStatusEvent(m_env, seq, status); }
