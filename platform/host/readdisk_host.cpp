// The host CReadDisk: reads frame-store files (platform/framestore.h). Every file is treated as
// hostile: a bad magic fails StartRead and GetInfo, and a frame head that is cut off, claims more
// than kFrameStoreMaxFrame bytes or runs past the end of the file ends the frames there.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/byteorder.h"
#include "platform/fileutil.h"
#include "platform/framestore.h"
#include "platform/log.h"
#include "platform/readdisk.h"
#include "platform/text.h"

struct CReadDisk::Impl {
  char partPath[128] = {};
};

namespace {

constexpr size_t kReadAheadLen = 256 * 1024;

// One started read.
struct ReadHandle {
  int fd = -1;
  uint64_t size = 0;
  uint64_t pos = 0;
  uint64_t startUs = 0;
  uint64_t startPos = 0;  // first frame at or after startUs
  uint64_t endUs = 0;     // frames at or after this time are outside the span
  bool ended = false;
  // Read-ahead window: bytes [winAt, winAt + winLen) of the file. Frames are read in order,
  // so one read of the file serves many frame heads and payloads.
  uint8_t* window = nullptr;
  uint64_t winAt = 0;
  size_t winLen = 0;
};

bool ReadAt(int fd, void* buf, size_t len, uint64_t at) {
  uint8_t* p = static_cast<uint8_t*>(buf);
  while (len > 0) {
    ssize_t n = pread(fd, p, len, static_cast<off_t>(at));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
    at += static_cast<uint64_t>(n);
  }
  return true;
}

// Copies len bytes at file offset at into buf through h's read-ahead window. A request larger
// than the window is read directly. False when the file ends first.
bool Fetch(ReadHandle* h, void* buf, size_t len, uint64_t at) {
  if (at >= h->winAt && at + len <= h->winAt + h->winLen) {
    memcpy(buf, h->window + (at - h->winAt), len);
    return true;
  }
  if (len >= kReadAheadLen / 2 || h->window == nullptr) return ReadAt(h->fd, buf, len, at);
  uint64_t want = h->size > at ? h->size - at : 0;
  if (want > kReadAheadLen) want = kReadAheadLen;
  if (want < len || !ReadAt(h->fd, h->window, static_cast<size_t>(want), at)) {
    h->winLen = 0;
    return false;
  }
  h->winAt = at;
  h->winLen = static_cast<size_t>(want);
  memcpy(buf, h->window, len);
  return true;
}

// Opens the file of item under dir and checks its head; fills param when given. -1 on failure.
int OpenStore(const char* dir, const RecordItem_t* item, EncodeParam_t* param, uint64_t* size) {
  char path[300];
  if (FrameStorePath(dir, item->channel, item->fileNo, path, sizeof(path)) != 0) return -1;
  std::string why;
  int fd = OpenRegularFile(path, O_RDONLY, &why);
  if (fd < 0) {
    WriteDbgLog(0, "CReadDisk: cannot open %s: %s\n", path, why.c_str());
    return -1;
  }
  uint8_t head[kFrameStoreHeadLen];
  struct stat st;
  if (fstat(fd, &st) != 0 || !ReadAt(fd, head, sizeof(head), 0) ||
      memcmp(head, kFrameStoreMagic, sizeof(kFrameStoreMagic)) != 0) {
    WriteDbgLog(0, "CReadDisk: %s is no frame-store file\n", path);
    close(fd);
    return -1;
  }
  if (param != nullptr) memcpy(param, head + 8, sizeof(EncodeParam_t));
  if (size != nullptr) *size = static_cast<uint64_t>(st.st_size);
  return fd;
}

// Reads the frame head at h->pos. False when there is no whole, sane frame there.
bool FrameHead(ReadHandle* h, uint64_t* timeUs, uint32_t* type, uint32_t* len) {
  uint8_t head[kFrameStoreFrameHeadLen];
  if (h->pos + sizeof(head) > h->size || !Fetch(h, head, sizeof(head), h->pos)) return false;
  *timeUs = LoadLE64(head);
  *type = LoadLE32(head + 8);
  *len = LoadLE32(head + 12);
  return *len <= kFrameStoreMaxFrame && h->pos + sizeof(head) + *len <= h->size;
}

// Moves to the first frame at or after timeUs, or to the first damaged place.
void PositionAt(ReadHandle* h, uint64_t timeUs) {
  h->pos = kFrameStoreHeadLen;
  h->ended = false;
  uint64_t t;
  uint32_t type, len;
  while (FrameHead(h, &t, &type, &len) && t < timeUs) {
    h->pos += kFrameStoreFrameHeadLen + len;
  }
}

}  // namespace

int FrameStorePath(const char* dir, uint32_t channel, uint32_t fileNo, char* out, size_t cap) {
  return FormatBounded(out, cap, "%s/%04u_%08x.vfs", dir, channel, fileNo);
}

CReadDisk::CReadDisk() = default;

CReadDisk::~CReadDisk() { delete m_pImpl; }

int CReadDisk::Init(PartAccess_t* access) {
  if (m_pImpl == nullptr) m_pImpl = new Impl;
  if (access == nullptr) return -1;
  CopyField(m_pImpl->partPath, sizeof(m_pImpl->partPath), access->path, sizeof(access->path));
  return 0;
}

void* CReadDisk::StartRead(int, RecordItem_t* item) {
  if (m_pImpl == nullptr || item == nullptr) return nullptr;
  ReadHandle* h = new ReadHandle;
  h->fd = OpenStore(m_pImpl->partPath, item, nullptr, &h->size);
  h->window = static_cast<uint8_t*>(malloc(kReadAheadLen));  // without it: direct reads
  if (h->fd < 0) {
    free(h->window);
    delete h;
    return nullptr;
  }
  h->startUs = static_cast<uint64_t>(item->start_time) * 1000000u;
  h->endUs = static_cast<uint64_t>(item->end_time) * 1000000u;
  PositionAt(h, h->startUs);
  h->startPos = h->pos;
  return h;
}

int CReadDisk::GetInfo(EncodeParam_t* param, RecordItem_t* item, int) {
  if (m_pImpl == nullptr || item == nullptr || param == nullptr) return -1;
  int fd = OpenStore(m_pImpl->partPath, item, param, nullptr);
  if (fd < 0) return -1;
  close(fd);
  return 0;
}

int CReadDisk::ReadFrame(void* handle, FrameInfo_t* info, void** data) {
  ReadHandle* h = static_cast<ReadHandle*>(handle);
  if (h == nullptr || info == nullptr || data == nullptr || h->ended) return -1;
  uint64_t t;
  uint32_t type, len;
  if (!FrameHead(h, &t, &type, &len) || t >= h->endUs) {
    h->ended = true;
    return -1;
  }
  void* buf = malloc(len > 0 ? len : 1);
  if (buf == nullptr || !Fetch(h, buf, len, h->pos + kFrameStoreFrameHeadLen)) {
    free(buf);
    h->ended = true;
    return -1;
  }
  h->pos += kFrameStoreFrameHeadLen + len;
  info->time_us = t;
  info->type = type;
  info->length = len;
  *data = buf;
  return 0;
}

int CReadDisk::SeekTime(void* handle, long* seconds) {
  ReadHandle* h = static_cast<ReadHandle*>(handle);
  if (h == nullptr || seconds == nullptr) return -1;
  uint64_t us = *seconds < 0 ? 0 : static_cast<uint64_t>(*seconds);
  us = us > UINT64_MAX / 1000000u ? UINT64_MAX : us * 1000000u;
  if (us == h->startUs) {
    h->pos = h->startPos;
    h->ended = false;
  } else {
    PositionAt(h, us);
  }
  return 0;
}

int CReadDisk::StopRead(void* handle) {
  ReadHandle* h = static_cast<ReadHandle*>(handle);
  if (h == nullptr) return -1;
  close(h->fd);
  free(h->window);
  delete h;
  return 0;
}

int CReadDisk::Quit() { return 0; }

CReadDisk* NewReadDisk() { return new CReadDisk; }
