// Remote maintenance: the maintenance FTP account and the two file lists.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "platform/config.h"
#include "platform/thread.h"

class Env;
class TiXmlElement;

enum FTP_FILE_TYPE_E {
  FTP_FILE_UPGRADE = 1,  // firmware package, "*.sw"
  FTP_FILE_LOGCMD = 2,   // log-command file
  FTP_FILE_USRCMD = 3,   // user-command file
  FTP_FILE_MCU = 4,      // microcontroller image, "*.crc"
  FTP_FILE_CONFIG = 5,   // configuration archive, "*.tar"
};

enum FILE_STATUS_E {
  FILE_STATUS_WAIT = 0,
  FILE_STATUS_SKIP = 1,  // not for this recorder, already installed, or refused as unsafe
  FILE_STATUS_DONE = 2,
  FILE_STATUS_FAIL = 3,
};

// One entry of a file list.
struct FtpFileItem_t {
  int32_t FileType;
  int32_t FileSize;
  int32_t DevType;
  char ExpiryDate[32];  // 20YYMMDD-hhmmss
  char Scope[256];      // lo~hi;lo~hi;...
  char CrcValue[128];   // "sha256:<64 hex digits>" is checked after the download
  char FileName[128];
  int32_t ErrTimes;
  int32_t Status;
};

struct FtpFileList_t {
  char dir[128];  // local directory of this list's downloads
  int32_t count;
  int32_t index;
  FtpFileItem_t* pItems;  // realloc'ed array of count entries; null when empty
};

struct FtpMaintainData_t {
  int32_t state;  // cycle state; 8 while FtpConnectTo replaces the account
  CommonThread_st* pThread;
  UpgradeSet_t upgradeSet;
  FtpFileList_t fileList;    // the periodic list
  FtpFileList_t onlineList;  // entries of FileDownloadCmd files
};

class CFtpMaintainMng {
 public:
  // The singleton on the default Env, created on first use. Safe from any thread.
  static CFtpMaintainMng* Instance();

  // A manager that reaches clock, status, shell and configuration through env (which must
  // outlive it).
  explicit CFtpMaintainMng(Env* env);
  ~CFtpMaintainMng();

  // Installs a new account and restarts the cycle at once. Request thread.
  int FtpConnectTo(const char* user, const char* password, const char* host, uint16_t port,
                   const char* path);

  // Fetches FileList.xml from the account's login directory into dir (always 0).
  int GetFileList(const UpgradeSet_t* account, const char* dir);
  // Appends the entries of the XML file at path to list: 0 when at least one was added.
  int ParseFileList(const char* path, FtpFileList_t* list);
  // The same for a list already read (path only names it in log lines).
  int ParseFileListText(const char* path, const std::string& bytes, FtpFileList_t* list);
  // Parses a FileDownloadCmd file into the online list.
  int HandleFileDownloadCmd(const char* path);
  // 0 when this recorder needs the entry, -1 when not (also for a file name that is not one
  // plain name: see IsSafeFileName).
  int IsNeedLoadFile(const FtpFileItem_t* item);

  // Mode 0 fetches the file list, mode 1 loads the periodic list's current entry.
  int LoadFtpFile(int mode);
  int DownloadFile(FtpFileItem_t* item, const UpgradeSet_t* account, const char* dir);
  int LoadUpgradeFile(FtpFileItem_t* item, const UpgradeSet_t* account, const char* dir);
  int LoadLogCmdFile(FtpFileItem_t* item, const UpgradeSet_t* account, const char* dir);
  int LoadUsrCmdFile(FtpFileItem_t* item, const UpgradeSet_t* account, const char* dir);
  int LoadMcuFile(FtpFileItem_t* item, const UpgradeSet_t* account, const char* dir);
  int LoadConfigFile(FtpFileItem_t* item, const UpgradeSet_t* account, const char* dir);
  // The loader of the entry's file type: 1 when the recorder has this version already,
  // otherwise 0 (an unknown type loads nothing).
  int LoadByType(FtpFileItem_t* item, const UpgradeSet_t* account, const char* dir);
  // The package name of the running software, into a 256-byte buffer.
  int GetUpgradeFileName(char* out);

  // A copy of the account. Safe from any thread.
  UpgradeSet_t Account();

  // Command files. HandleRemoteCmd (request thread) tells the kind by a marker in the text;
  // HandleFtpCmdFile (maintenance thread) by the list entry's file type. Both return 0.
  int HandleRemoteCmd(const char* path);
  int HandleFtpCmdFile(int type, const char* path);
  // 0, or -1 when the file is not XML with a root element (nothing is executed then).
  int HandleLogCmd(const char* path);
  int HandleUsrDefineCmd(const char* path);
  // Imports the configuration files of a tar archive. -1 when the archive is refused as unsafe
  // or yields no config directory.
  int HandleConfigCmd(const char* path);

  // Replaces run/velmar/maintain.state: server, cycle state, last list fetch, the entries.
  void PublishState();

  // The maintenance thread. Start: 0, or -1 when it cannot be created. Stop joins it.
  int Start();
  int Stop();
  // One pass of the thread's loop: a cycle step when more than *interval seconds have passed
  // since the last one (the difference taken as an absolute value), then one online step.
  void ProcPass(int* interval);
  // One step of the periodic cycle; may set *interval to 60 (retry) or 900 (rest).
  void FtpUpgradeStep(int* interval);
  // Mode 0 parses the fetched list (0 or -1); mode 1 checks the current entry's download
  // (0 handled, 1 settled without handling, -1 download again).
  int setconfig(int mode);
  // One entry of the online list per call.
  void OnlineFtpProc();
  // Chooses the directory of the periodic list: the first maintenance disk, "/tmp" when none
  // appears within 120 s. Always 0.
  int SelectWorkDir();

  Env* const m_env;  // constant after construction
  FtpMaintainData_t* m_pData PT_GUARDED_BY(m_lock);
  time_t m_lastStepTime GUARDED_BY(m_lock) = 0;
  time_t m_lastListFetch GUARDED_BY(m_lock) = 0;  // wall time of the last file-list fetch
  // Under m_lock. Grows whenever FtpConnectTo replaces the account and the lists, so that a
  // step that ran without the lock (a download) does not write its outcome into the new ones.
  uint32_t m_nEpoch GUARDED_BY(m_lock) = 0;
  // Serialises the lists, their arrays and the account between the request thread and the
  // maintenance thread. Never held across a shell command.
  CLock m_lock;

  CFtpMaintainMng(const CFtpMaintainMng&) = delete;
  CFtpMaintainMng& operator=(const CFtpMaintainMng&) = delete;

 private:
  static CFtpMaintainMng* m_pInstance;
};

// Empties a list (count, index 0; array freed). Caller holds the manager's lock.
void ClearFileList(FtpFileList_t* list);
// True when e is an entry of a file list: its name contains "FILE" and it has text (the file
// name on the server).
bool IsFileListEntry(const TiXmlElement* e);
// Reads the entry e into *item (zeroed first) as the service reads a list: attributes matched
// by part of their name. False, item untouched, when e is no entry.
bool ReadFileListEntry(const TiXmlElement* e, FtpFileItem_t* item);
// Logs that the XML document at path cannot be used: the fixed line, then the reason in a line
// of its own.
void LogLoadFailed(const char* path, const std::string& why);

// The body of the maintenance thread; arg is the CFtpMaintainMng.
void FtpProc(CommonThread_st* thread, void* arg);
