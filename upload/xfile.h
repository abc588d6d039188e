// An upload source: a plain file or a recording read as an AVI file, behind one interface.
// The kind is fixed at construction from the task's file type and never changes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

class AviSpanCache;
class CReadAvi;
class Env;
struct AviFileInfo_t;

enum XFILE_TYPE_E {
  XFILE_NORMAL = 0,  // plain file
  XFILE_AVI = 1,     // recording
};

class CXFile {
 public:
  // type 0 plain, 1 recording (read through env's recorder status and frame store); any
  // other: every operation fails. env must outlive the source, and so must spans, where the
  // measured lengths of closed recordings are kept when it is given.
  CXFile(int type, Env* env, AviSpanCache* spans = nullptr);
  ~CXFile();  // releases a recording's stream; a plain file needs Xclose
  CXFile(const CXFile&) = delete;
  CXFile& operator=(const CXFile&) = delete;

  // 1 when the file (recording) can be found; a recording's frames are not read for it.
  int Xexist(const char* path);
  // 0 or -1. A plain file is opened only when it is a regular file, and without waiting (a
  // FIFO or device is refused at once); for reading only unless mode asks to write ("+", "w",
  // "a"), so that a file the service may read but not write can be sent.
  int Xopen(const char* path, const char* mode);
  int64_t Xsize();                        // size of the open source, -1
  int64_t XsizeByPath(const char* path);  // size without opening; 0 on failure
  // Xexist and XsizeByPath in one: false when the file (recording) cannot be found, else true
  // and *size as XsizeByPath gives it. A recording is opened, and its frames counted, once.
  bool XsizeIfExists(const char* path, int64_t* size);
  int32_t Xread(void* buf, int size, int count);
  int Xseek(int64_t offset, int whence);  // recordings: absolute offset
  int Xclose();
  int32_t Xwrite(const void* buf, int size, int count);
  const char* XgetPath();  // the open path, or null

  Env* const m_env;
  AviSpanCache* const m_spans;
  int32_t m_nType;
  void* m_pHandle;         // FILE* or AviFileInfo_t*
  CReadAvi* m_pAviReader;  // owned; recordings only
  char m_szPath[128];

 private:
  AviFileInfo_t* Avi() const { return static_cast<AviFileInfo_t*>(m_pHandle); }
  // The stream buffer of an open plain file; kept for the life of the source, since a plain
  // file is closed only by Xclose.
  std::unique_ptr<char[]> m_readBuffer;
};
