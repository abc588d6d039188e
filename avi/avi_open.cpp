// Opening and closing an AVI stream: name parsing, partition lookup, layout set-up.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "avi/avi_layout.h"
#include "avi/read_avi.h"
#include "platform/env.h"
#include "platform/status.h"
#include "platform/text.h"

namespace {

struct PictureSize {
  uint32_t width;
  uint32_t height576;  // height when the video standard word is 0
  uint32_t height480;  // height otherwise
};

// Indexed by resolution code; codes 6, 7 and those past the table have no size.
const PictureSize kPictureSizes[] = {{704, 576, 480}, {704, 288, 240},  {352, 288, 240},
                                     {640, 480, 480}, {1280, 720, 720}, {1920, 1080, 1080},
                                     {0, 0, 0},       {0, 0, 0},        {320, 240, 240}};

PictureSize SizeOfResolution(uint32_t code) {
  const uint32_t count = sizeof(kPictureSizes) / sizeof(kPictureSizes[0]);
  return code < count ? kPictureSizes[code] : PictureSize{0, 0, 0};
}

// Looks the partition id up in the status lists 15, 17 and 16, in this order. On a match copies
// its path into access and item->part_path and returns true.
bool FindPartition(Env* env, int id, PartAccess_t* access, RecordItem_t* item) {
  const STATUS_E codes[] = {STATUS_PART_LIST_A, STATUS_PART_LIST_B, STATUS_PART_LIST_C};
  for (STATUS_E code : codes) {
    PartStatus_t list;
    memset(&list, 0, sizeof(list));
    if (env->GetStatus(code, &list) != 0) {
      if (code == STATUS_PART_LIST_C) return false;
      continue;
    }
    int count = list.count < 0 ? 0 : (list.count > 8 ? 8 : list.count);
    for (int i = 0; i < count; ++i) {
      if (list.part[i].type != id) continue;
      CopyField(access->path, sizeof(access->path), list.part[i].path, sizeof(list.part[i].path));
      memcpy(item->part_path, list.part[i].path, sizeof(item->part_path));
      return true;
    }
  }
  return false;
}

// Sum of (24 + payload) over every frame of the span, read with a reader of its own. The info
// frames update the stream's info record (record) on the way, as a reading would; their
// lengths depend on the subtype alone.
uint64_t PreScan(Env* env, const RecordItem_t& item, const PartAccess_t& access, uint8_t* record) {
  CReadDisk* reader = env->NewReadDisk();
  if (reader == nullptr) return 0;
  PartAccess_t acc = access;
  RecordItem_t it = item;
  reader->Init(&acc);
  void* handle = reader->StartRead(0, &it);
  uint64_t sum = 0;
  uint8_t scratch[kAviInfoRecordLen];
  for (;;) {
    FrameInfo_t info;
    memset(&info, 0, sizeof(info));
    void* data = nullptr;
    if (reader->ReadFrame(handle, &info, &data) != 0) {
      free(data);
      break;
    }
    uint32_t len = info.length;
    if (info.type == 5) {
      uint32_t srcLen = data != nullptr ? info.length : 0;
      len = CReadAvi::ReadAviPackInfo(info.time_us, static_cast<uint8_t*>(data), srcLen, record,
                                      scratch);
    }
    sum += kAviChunkOverhead + static_cast<uint64_t>(len);
    free(data);
  }
  reader->StopRead(handle);
  reader->Quit();
  delete reader;
  return sum;
}

}  // namespace

bool AviSpanCache::Find(const Key& key, Measure* m) {
  CAutoLock hold(&m_lock);
  for (const Entry& e : m_entries) {
    if (!e.used || memcmp(&e.key, &key, sizeof(key)) != 0) continue;
    *m = e.measure;
    return true;
  }
  return false;
}

void AviSpanCache::Store(const Key& key, const Measure& m) {
  CAutoLock hold(&m_lock);
  m_entries[m_next] = {true, key, m};
  m_next = (m_next + 1) % kEntries;
}

// Parses name into *item and *access (both zeroed first) and finds its partition. False, with a
// line on standard output, for a name the stream refuses before it asks the reader.
bool CReadAvi::Locate(const char* name, RecordItem_t* item, PartAccess_t* access) {
  memset(item, 0, sizeof(*item));
  uint8_t device[kStatusDeviceSize];
  memset(device, 0, sizeof(device));
  m_env->GetStatus(STATUS_DEVICE, device);
  memset(access, 0, sizeof(*access));
  access->devWord = LoadLE32(device);

  int channel = 0, partition = 0, start = 0, end = 0, type = 0, size = 0;
  unsigned fileNo = 0;
  if (name != nullptr) {
    sscanf(name, "/%04d_%08x_%d_%d_%d_%d_%d.avi", &channel, &fileNo, &partition, &start, &end,
           &type, &size);
  }
  item->channel = static_cast<uint32_t>(channel);
  item->fileNo = fileNo;
  item->start_time = static_cast<uint32_t>(start);
  item->end_time = static_cast<uint32_t>(end);
  item->record_type = static_cast<uint32_t>(type);
  item->record_size = static_cast<uint32_t>(size);
  bool found = FindPartition(m_env, partition, access, item);
  printf("-------------------item.RecordItem.record_type = %d\n", type);

  // Refusals: without a partition the reader would be pointed at no path at all, and a span
  // ending before it starts would wrap the duration into a layout of gigabytes.
  if (!found) {
    printf("ReadAviOpen: no partition %d for %s\n", partition, name != nullptr ? name : "(null)");
    return false;
  }
  if (item->end_time < item->start_time || item->end_time - item->start_time > kAviMaxDuration) {
    printf("ReadAviOpen: span %u..%u refused (backwards or longer than %u s)\n", item->start_time,
           item->end_time, kAviMaxDuration);
    return false;
  }
  return true;
}

bool CReadAvi::ReadAviProbe(const char* name) {
  RecordItem_t item;
  PartAccess_t access;
  if (!Locate(name, &item, &access)) return false;
  CReadDisk* reader = m_env->NewReadDisk();
  if (reader == nullptr) return false;
  EncodeParam_t param;
  memset(&param, 0, sizeof(param));
  reader->Init(&access);
  bool described = reader->GetInfo(&param, &item, 0) >= 0;
  reader->Quit();
  delete reader;
  return described;
}

AviFileInfo_t* CReadAvi::ReadAviOpen(const char* name) {
  puts("--------------------------------ReadAviOpen");
  RecordItem_t item;
  PartAccess_t access;
  if (!Locate(name, &item, &access)) return nullptr;
  AviFileInfo_t* h = static_cast<AviFileInfo_t*>(calloc(1, sizeof(AviFileInfo_t)));
  if (h == nullptr) return nullptr;
  h->reader = m_env->NewReadDisk();
  if (h->reader == nullptr) {
    free(h);
    return nullptr;
  }
  h->reader->Init(&access);
  h->read_handle = h->reader->StartRead(0, &item);
  if (ReadAviInit(h, &item, &access) != 0) {
    ReadAviClose(h);
    return nullptr;
  }
  return h;
}

int CReadAvi::ReadAviInit(AviFileInfo_t* h, const RecordItem_t* item, const PartAccess_t* access) {
  if (h == nullptr || item == nullptr || access == nullptr) return -1;
  h->item = static_cast<RecordItem_t*>(malloc(sizeof(RecordItem_t)));
  if (h->item == nullptr) return -1;
  *h->item = *item;

  EncodeParam_t param;
  memset(&param, 0, sizeof(param));
  if (h->reader->GetInfo(&param, h->item, 0) < 0) {
    h->reader->Quit();
    printf("ReadAviInit: no encode parameters for %04u_%08x\n", item->channel, item->fileNo);
    return -1;
  }
  PictureSize size = SizeOfResolution(param.resolution);
  h->width = size.width;
  h->height = param.standard == 0 ? size.height576 : size.height480;

  h->audio_format = 1;
  h->audio_channels = 1;
  h->audio_samplerate = 8000;
  h->audio_bits = 16;
  h->audio_kbps = 128;
  h->state = AVI_STATE_HEADER;
  h->cur_pos = 0;

  uint32_t duration = item->end_time - item->start_time;
  h->fps = param.fps;
  h->is_h265 = param.codecFlags & 1u;
  h->audio_codec = param.audioCodec;
  h->video_frametotal = h->fps * duration;
  h->audio_len = 16000u * duration;
  h->index_max = 100u * duration;

  h->idx1_count = h->widx_count = 0;
  size_t indexBytes = sizeof(AviIndexSlot_t) * h->index_max;
  // malloc(0) may answer null; an index of no entries is no failure.
  h->idx1_entries = static_cast<AviIndexSlot_t*>(malloc(indexBytes > 0 ? indexBytes : 1));
  h->widx_entries = static_cast<AviIndexSlot_t*>(malloc(indexBytes > 0 ? indexBytes : 1));
  if (h->idx1_entries == nullptr || h->widx_entries == nullptr) return -1;

  h->headlen = kAviHeadLen;
  // 1036: the 12-byte LIST movi head and 1024 bytes of room.
  uint64_t movilen;
  if (item->record_type == 0) {
    movilen = static_cast<uint64_t>(item->record_size) + 1036 +
              static_cast<uint64_t>(kAviChunkOverhead) * h->video_frametotal;
  } else {
    movilen = MeasureChunks(h, *access) + 1036;
  }
  movilen = (movilen + 15) & ~static_cast<uint64_t>(15);
  uint64_t indexLen = 16ull * h->index_max;
  uint64_t filelen = h->headlen + movilen + 2 * indexLen;
  // Every offset of the file is a 32-bit word (RIFF sizes, index offsets): a larger span cannot
  // be described and is refused rather than wrapped.
  if (filelen > UINT32_MAX) {
    printf("ReadAviInit: AVI of %llu bytes exceeds 4 GiB, refused\n",
           static_cast<unsigned long long>(filelen));
    return -1;
  }
  h->movilen = static_cast<uint32_t>(movilen);
  h->idx1len = h->widxlen = static_cast<uint32_t>(indexLen);
  h->filelen = static_cast<uint32_t>(filelen);

  h->out_buf = static_cast<uint8_t*>(calloc(1, kAviOutBufLen));
  if (h->out_buf == nullptr) return -1;
  memcpy(h->bt_record_open, h->bt_record, sizeof(h->bt_record_open));
  printf("filelen = %u, headlen = %u, movilen = %u, idx1len = %u, widxlen = %u, recordsize = %d\n",
         h->filelen, h->headlen, h->movilen, h->idx1len, h->widxlen,
         static_cast<int>(item->record_size));
  return 0;
}

// The pre-scan's sum for h's span, which leaves h->bt_record as the scan would. A span the
// recorder has moved past (kAviSettledSeconds after its end on its clock) is scanned once and
// then served from m_spans; one that can still grow is scanned at every opening, so that a
// length announced for it never misses frames that have arrived since.
uint64_t CReadAvi::MeasureChunks(AviFileInfo_t* h, const PartAccess_t& access) {
  AviSpanCache::Key key;
  key.item = *h->item;
  key.access = access;
  AviSpanCache::Measure m;
  if (m_spans != nullptr && m_spans->Find(key, &m)) {
    memcpy(h->bt_record, m.record, sizeof(h->bt_record));
    return m.chunks;
  }
  m.chunks = PreScan(m_env, *h->item, access, h->bt_record);
  bool closed = static_cast<int64_t>(m_env->WallSeconds()) >=
                static_cast<int64_t>(h->item->end_time) + kAviSettledSeconds;
  if (m_spans != nullptr && closed) {
    memcpy(m.record, h->bt_record, sizeof(m.record));
    m_spans->Store(key, m);
  }
  return m.chunks;
}

int CReadAvi::ReadAviClose(AviFileInfo_t* h) {
  puts("--------------------------------ReadAviClose");
  if (h == nullptr) return -1;
  free(h->idx1_entries);
  free(h->widx_entries);
  free(h->movi_head_buf);
  free(h->out_buf);
  if (h->reader != nullptr) {
    h->reader->StopRead(h->read_handle);
    h->reader->Quit();
    delete h->reader;
  }
  free(h->item);
  free(h->head_buf);
  free(h);
  return 0;
}

uint32_t CReadAvi::ReadAviGetSize(AviFileInfo_t* h) { return h != nullptr ? h->filelen : 0; }
