#include "tests/fakes/fake_readdisk.h"

#include <cstdlib>
#include <cstring>

FakeRecording* FakeRecording::current = nullptr;

namespace {

struct FakeHandle {
  size_t pos = 0;
  int delivered = 0;
};

class FakeReadDisk : public CReadDisk {
 public:
  FakeReadDisk() { ++FakeRecording::current->created; }
  ~FakeReadDisk() override { ++FakeRecording::current->destroyed; }
  int Init(PartAccess_t* access) override {
    FakeRecording::current->inits.push_back(*access);
    return 0;
  }
  void* StartRead(int, RecordItem_t* item) override {
    FakeRecording::current->starts.push_back(*item);
    m_start = item->start_time;
    FakeHandle* h = new FakeHandle;
    Position(h, m_start);
    return h;
  }
  int GetInfo(EncodeParam_t* param, RecordItem_t*, int) override {
    if (FakeRecording::current->failGetInfo) return -1;
    *param = FakeRecording::current->param;
    return 0;
  }
  int ReadFrame(void* handle, FrameInfo_t* info, void** data) override {
    FakeHandle* h = static_cast<FakeHandle*>(handle);
    FakeRecording* rec = FakeRecording::current;
    if (h == nullptr || h->pos >= rec->frames.size()) return -1;
    if (rec->failAfter >= 0 && h->delivered >= rec->failAfter) return -1;
    const FakeFrame& f = rec->frames[h->pos++];
    ++h->delivered;
    info->time_us = f.time_us;
    info->type = f.type;
    info->length = static_cast<uint32_t>(f.data.size());
    void* buf = malloc(f.data.size() + 1);
    if (!f.data.empty()) memcpy(buf, f.data.data(), f.data.size());
    *data = buf;
    return 0;
  }
  int SeekTime(void* handle, long* seconds) override {
    ++FakeRecording::current->seeks;
    Position(static_cast<FakeHandle*>(handle), *seconds);
    return 0;
  }
  int StopRead(void* handle) override {
    ++FakeRecording::current->stops;
    delete static_cast<FakeHandle*>(handle);
    return 0;
  }
  int Quit() override {
    ++FakeRecording::current->quits;
    return 0;
  }

 private:
  static void Position(FakeHandle* h, long seconds) {
    const std::vector<FakeFrame>& frames = FakeRecording::current->frames;
    uint64_t us = seconds < 0 ? 0 : static_cast<uint64_t>(seconds) * 1000000u;
    h->pos = 0;
    h->delivered = 0;
    while (h->pos < frames.size() && frames[h->pos].time_us < us) ++h->pos;
  }
  long m_start = 0;
};

}  // namespace

CReadDisk* NewFakeReadDisk() { return new FakeReadDisk; }

FakeRecording::FakeRecording() {
  current = this;
  SetParam(25, 3);
}

FakeRecording::~FakeRecording() { current = nullptr; }

void FakeRecording::SetParam(int fps, int resolution, bool h265, int audioCodec, int standard) {
  memset(&param, 0, sizeof(param));
  param.fps = static_cast<uint8_t>(fps);
  param.resolution = static_cast<uint8_t>(resolution);
  param.codecFlags = h265 ? 1 : 0;
  param.audioCodec = static_cast<uint8_t>(audioCodec);
  param.standard = static_cast<uint32_t>(standard);
}

void FakeRecording::Add(uint64_t time_us, uint32_t type, uint32_t len, uint8_t seed) {
  FakeFrame f{time_us, type, std::vector<uint8_t>(len)};
  for (uint32_t i = 0; i < len; ++i) f.data[i] = static_cast<uint8_t>(seed + i);
  frames.push_back(std::move(f));
}

void FakeRecording::AddInfo(uint64_t time_us, uint32_t subtype, uint8_t seed) {
  Add(time_us, 5, 44, seed);
  std::vector<uint8_t>& d = frames.back().data;
  for (int i = 0; i < 4; ++i) d[i] = static_cast<uint8_t>(subtype >> (8 * i));
}
