#include "platform/evbus.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "core/main_loop.h"
#include "platform/byteorder.h"
#include "tests/fakes/fakes.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Collects the datagrams a listener receives.
struct Inbox {
  std::mutex mutex;
  std::vector<Bytes> got;
  static int Handler(int, sockaddr_un*, unsigned*, char* msg, int len, void* self) {
    std::lock_guard<std::mutex> g(static_cast<Inbox*>(self)->mutex);
    static_cast<Inbox*>(self)->got.emplace_back(msg, msg + len);
    return 0;
  }
  // Datagram i, waited for up to 30 s (far beyond a healthy machine); empty without it.
  Bytes Wait(size_t i) {
    for (int tries = 0; tries < 3000; ++tries, usleep(10000)) {
      std::lock_guard<std::mutex> g(mutex);
      if (got.size() > i) return got[i];
    }
    return {};
  }
};

TEST(EventBusTest, EventsReachTheReceiversRegisteredForThemAsWireBytes) {
  TempRoot root;
  Inbox inbox;
  const char* name = "/tmp/bus watch.tmp.sock";  // a space and ".tmp" are ordinary
  root.Write(name, "stale");                     // a socket file of an earlier run
  void* listener = StartUnixDomainListen(name, Inbox::Handler, &inbox);
  ASSERT_NE(listener, nullptr);
  ASSERT_EQ(RegisterEventReciever(name, 1 << EVENT_HEARTBEAT), 0);
  const std::string entry = root.path() + "/run/evbus/_tmp_bus watch.tmp.sock";
  EXPECT_EQ(ReadWholeFile(entry), "0000000000000040 /tmp/bus watch.tmp.sock\n");
  // Skipped: a receiver of other events, one that has gone, a registration being written.
  ASSERT_EQ(RegisterEventReciever("/tmp/other.sock", 1 << EVENT_FILE_UPLOAD), 0);
  ASSERT_EQ(RegisterEventReciever("/tmp/gone.sock", 1 << EVENT_HEARTBEAT), 0);
  root.Write("/run/evbus/._x.tmp", "0000000000000040 /tmp/bus watch.tmp.sock\n");

  FakeClock clock;  // the heartbeat of a real pass of the main loop
  TestEnv env;
  env.clock = &clock;
  CMainLoop(&env, CMainLoop::Targets{[](uint32_t) {}, [](uint32_t) {}}).Pass();
  Bytes beat(80, 0);  // "EVB1", event 6, 68 bytes: 2 and the service name
  memcpy(beat.data(), "EVB1\x06\0\0\0\x44\0\0\0\x02\0\0\0velmar", 22);
  EXPECT_EQ(inbox.Wait(0), beat);

  uint8_t payload[3] = {1, 2, 3};  // the count is of receivers reached
  EXPECT_EQ(DistributeEvent(EVENT_FILE_UPLOAD, 3, payload), 0);
  EXPECT_EQ(DistributeEvent(EVENT_HEARTBEAT, 3, payload), 1);
  EXPECT_EQ(inbox.Wait(1), Bytes({'E', 'V', 'B', '1', 6, 0, 0, 0, 3, 0, 0, 0, 1, 2, 3}));
  EXPECT_EQ(DistributeEvent(EVENT_HEARTBEAT, kEventPayloadMax + 1, payload), -1);

  EXPECT_EQ(UnregisterEventReciever(name), 0);
  EXPECT_EQ(ReadWholeFile(entry), "");
  EXPECT_EQ(DistributeEvent(EVENT_HEARTBEAT, 3, payload), 0);
  EXPECT_EQ(UnregisterEventReciever(name), -1);
  EXPECT_EQ(RegisterEventReciever("tmp/relative.sock", 1 << EVENT_HEARTBEAT), -1);
  EXPECT_EQ(StopUnixDomainListen(listener), 0);
  EXPECT_EQ(StopUnixDomainListen(nullptr), -1);
}

TEST(EventWireTest, EncodeAndParseAcceptOnlyWellFormedDatagrams) {
  Bytes payload(kEventPayloadMax + 1, 0xAB), dgram(kEventHeaderSize + kEventPayloadMax + 1, 0xAB);
  unsigned char* d = dgram.data();
  EXPECT_EQ(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 300, d, 311), -1);  // no room
  EXPECT_EQ(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), -1, d, dgram.size()), -1);
  EXPECT_EQ(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 8193, d, dgram.size()), -1);
  ASSERT_EQ(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 300, d, 312), 312);
  EXPECT_EQ(Bytes(d, d + 12), Bytes({'E', 'V', 'B', '1', 22, 0, 0, 0, 0x2C, 0x01, 0, 0}));

  // Columns: datagram length, its length field, its first byte, the expected answer.
  const int cases[][4] = {
      {312, 300, 'E', 300},       {12 + 8192, 8192, 'E', 8192}, {12, 0, 'E', 0},
      {11, 0, 'E', -1},                                 // shorter than a header
      {311, 300, 'E', -1},        {313, 300, 'E', -1},  // the length field disagrees
      {312, 300, 'X', -1},                              // wrong magic
      {12 + 8193, 8193, 'E', -1},                       // over 8192
  };
  for (const auto& c : cases) {
    StoreLE32(d + 8, c[1]);
    d[0] = static_cast<unsigned char>(c[2]);
    Bytes out(dgram.size(), 0);
    EVENT_E ev = EVENT_HEARTBEAT;
    int reserved = 0;
    EXPECT_EQ(ParseRecvEvent(d, c[0], &ev, &reserved, out.data()), c[3]) << c[0];
    if (c[3] < 0) continue;
    EXPECT_EQ(ev, EVENT_FILE_UPLOAD);
    EXPECT_EQ(std::count(out.begin(), out.end(), 0xAB), c[3]);  // the payload and no more
  }
}

}  // namespace
