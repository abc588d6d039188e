// The upload state that velmarctl status shows: "key=value" lines in run/velmar/upload.state,
// replaced once a second by the scheduler (format in docs/FORMATS.md).
#include <unistd.h>

#include <string>

#include "control/ftp_ctrl_mng.h"
#include "platform/env.h"
#include "platform/state_file.h"
#include "platform/text.h"
#include "upload/ftp_upload_file_mng.h"

namespace {

std::string Field(const char* field, size_t cap) {
  char text[256];
  CopyField(text, sizeof(text), field, cap);
  return text;
}

}  // namespace

void CFtpCtrlMng::PublishState(uint32_t seconds) {
  m_lastPublished = seconds;
  const ftpCurDisk_t disk = CurDisk();
  size_t queued;
  {
    CAutoLock guard(&m_lock);
    queued = m_taskList.size();
  }
  const ftpFileInfo_t held = m_pEngine->SnapshotTask();
  std::string text;
  AppendStateLine(&text, "time", std::to_string(m_env->WallSeconds()));
  AppendStateLine(&text, "pid", std::to_string(getpid()));
  AppendStateLine(&text, "disk",
                  std::to_string(disk.id) + " " + Field(disk.path, sizeof(disk.path)));
  AppendStateLine(&text, "link", std::to_string(m_netLink));
  AppendStateLine(&text, "links", std::to_string(m_netMask));
  AppendStateLine(&text, "queued", std::to_string(queued));
  AppendStateLine(&text, "state", std::to_string(m_pEngine->m_nTransState.load()));
  AppendStateLine(&text, "refused", std::to_string(m_nRefusedTotal.load()));
  AppendStateLine(&text, "last_refused",
                  std::to_string(m_nLastRefusedSeq.load()) + " " + m_pLastRefusal.load());
  AppendStateLine(&text, "gave_up", std::to_string(m_pEngine->m_nGaveUp.load()));
  AppendStateLine(&text, "last_gave_up", std::to_string(m_pEngine->m_nLastGaveUpSeq.load()));
  AppendStateLine(&text, "last_gave_up_reason",
                  m_pEngine->m_nLastGaveUpWhy == CFtpUploadFileMng::kGaveUpStores
                      ? "stored anew 3 times, never complete on the server"
                      : "four failed connections");
  if (held.valid == 1) {
    const UserDefServerSet_t& s = held.server;
    AppendStateLine(&text, "seq", std::to_string(held.seq));
    AppendStateLine(&text, "file", Field(held.fullName, sizeof(held.fullName)));
    AppendStateLine(&text, "server", Field(s.host, sizeof(s.host)) + ":" + std::to_string(s.port));
    std::string remote;  // path/dir/name, empty parts left out
    for (const std::string& part :
         {Field(s.path, sizeof(s.path)), Field(held.fileDir, sizeof(held.fileDir)),
          Field(held.fileName, sizeof(held.fileName))}) {
      if (!part.empty()) remote += (remote.empty() ? "" : "/") + part;
    }
    AppendStateLine(&text, "remote", remote);
    AppendStateLine(&text, "trans", std::to_string(held.trans));
    AppendStateLine(&text, "attempts", std::to_string(held.sendTimes));
    AppendStateLine(&text, "conn_fails", std::to_string(held.connFailTimes));
    AppendStateLine(&text, "from", std::to_string(m_pEngine->m_nSendFrom.load()));
    AppendStateLine(&text, "sent", std::to_string(m_pEngine->m_nSent.load()));
    AppendStateLine(&text, "total", std::to_string(m_pEngine->m_nSendTotal.load()));
    AppendStateLine(&text, "elapsed_ms",
                    std::to_string(m_env->NowMs() - m_pEngine->m_nSendStartMs.load()));
  }
  PublishStateFile("upload.state", text);
}
