#include "upload/xfile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "avi/read_avi.h"
#include "platform/fileutil.h"
#include "platform/log.h"
#include "platform/text.h"

namespace {
constexpr size_t kPlainReadBuffer = 256 * 1024;
}  // namespace

CXFile::CXFile(int type, Env* env, AviSpanCache* spans)
    : m_env(env),
      m_spans(spans),
      m_nType(type),
      m_pHandle(nullptr),
      m_pAviReader(nullptr),
      m_szPath() {}

CXFile::~CXFile() {
  if (m_nType == XFILE_AVI && m_pAviReader != nullptr) {
    m_pAviReader->ReadAviClose(Avi());
    delete m_pAviReader;
  }
}

int CXFile::Xexist(const char* path) {
  if (m_nType == XFILE_NORMAL) return file_exist(path);
  if (m_nType != XFILE_AVI) return 0;
  if (m_pHandle != nullptr) return 1;
  return CReadAvi(m_env).ReadAviProbe(path) ? 1 : 0;
}

int CXFile::Xopen(const char* path, const char* mode) {
  m_pHandle = nullptr;
  // Paths longer than 127 characters are cut; the task record cannot carry more.
  CopyText(m_szPath, sizeof(m_szPath), path);
  if (m_nType == XFILE_NORMAL) {
    std::string why;
    int fd = OpenRegularFile(m_szPath, strpbrk(mode, "+wa") != nullptr ? O_RDWR : O_RDONLY, &why);
    FILE* f = fd >= 0 ? fdopen(fd, mode) : nullptr;
    if (f == nullptr) {
      if (fd >= 0) {
        why = strerror(errno);
        close(fd);
      }
      printf("fopen faild %s\n", why.c_str());
      return -1;
    }
    // Uploads read in 16 KiB pieces; a larger stream buffer makes that one read system call
    // per 256 KiB instead of one or two per piece. Without it the default buffer serves.
    if (m_readBuffer == nullptr) m_readBuffer.reset(new (std::nothrow) char[kPlainReadBuffer]);
    if (m_readBuffer != nullptr) setvbuf(f, m_readBuffer.get(), _IOFBF, kPlainReadBuffer);
    m_pHandle = f;
    return 0;
  }
  if (m_nType != XFILE_AVI) return -1;
  if (m_pAviReader == nullptr) m_pAviReader = new (std::nothrow) CReadAvi(m_env, m_spans);
  if (m_pAviReader == nullptr) return -1;
  m_pHandle = m_pAviReader->ReadAviOpen(m_szPath);
  return m_pHandle != nullptr ? 0 : -1;
}

int64_t CXFile::Xsize() {
  if (m_pHandle == nullptr) return -1;
  if (m_nType == XFILE_NORMAL) {
    struct stat st;
    if (stat(m_szPath, &st) != 0) return -1;
    return st.st_size;
  }
  if (m_nType == XFILE_AVI && m_pAviReader != nullptr) {
    return m_pAviReader->ReadAviGetSize(Avi());
  }
  return -1;
}

int64_t CXFile::XsizeByPath(const char* path) {
  int64_t size = 0;
  return XsizeIfExists(path, &size) ? size : 0;
}

bool CXFile::XsizeIfExists(const char* path, int64_t* size) {
  if (m_nType == XFILE_NORMAL) {
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    *size = st.st_size;
    return true;
  }
  if (m_nType != XFILE_AVI) return false;
  CReadAvi reader(m_env, m_spans);
  AviFileInfo_t* h = reader.ReadAviOpen(path);
  if (h == nullptr) return false;
  *size = reader.ReadAviGetSize(h);
  reader.ReadAviClose(h);
  return true;
}

int32_t CXFile::Xread(void* buf, int size, int count) {
  if (m_nType == XFILE_NORMAL) {
    if (m_pHandle == nullptr) return -1;
    size_t n = fread(buf, static_cast<size_t>(size), static_cast<size_t>(count),
                     static_cast<FILE*>(m_pHandle));
    if (TraceEnabled()) printf("Xread: %d ret = %d\n", size * count, static_cast<int>(n));
    return static_cast<int32_t>(n);
  }
  if (m_nType != XFILE_AVI) return -1;
  if (m_pAviReader == nullptr) return 0;  // the stream refuses a null handle
  uint8_t* data = nullptr;
  int32_t length = 0;
  if (m_pAviReader->ReadAviRead(Avi(), &data, &length, size * count) != 0) return 0;
  if (length > 0) memcpy(buf, data, static_cast<size_t>(length));
  return length;
}

int CXFile::Xseek(int64_t offset, int whence) {
  if (m_pHandle == nullptr) return -1;
  if (m_nType == XFILE_NORMAL) {
    return fseeko(static_cast<FILE*>(m_pHandle), static_cast<off_t>(offset), whence);
  }
  if (m_nType != XFILE_AVI || m_pAviReader == nullptr) return -1;
  if (offset < 0 || offset > UINT32_MAX) return -1;  // beyond any recording's stream
  return m_pAviReader->ReadAviSeek(Avi(), static_cast<uint32_t>(offset));  // always absolute
}

int CXFile::Xclose() {
  if (m_pHandle == nullptr) return -1;
  if (m_nType == XFILE_NORMAL) return fclose(static_cast<FILE*>(m_pHandle));
  if (m_nType != XFILE_AVI || m_pAviReader == nullptr) return -1;
  int r = m_pAviReader->ReadAviClose(Avi());
  delete m_pAviReader;
  m_pAviReader = nullptr;
  m_pHandle = nullptr;
  return r;
}

int32_t CXFile::Xwrite(const void* buf, int size, int count) {
  if (m_nType != XFILE_NORMAL || m_pHandle == nullptr) return -1;
  return static_cast<int32_t>(fwrite(buf, static_cast<size_t>(size), static_cast<size_t>(count),
                                     static_cast<FILE*>(m_pHandle)));
}

const char* CXFile::XgetPath() { return m_pHandle != nullptr ? m_szPath : nullptr; }
