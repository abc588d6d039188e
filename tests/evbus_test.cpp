#include "platform/evbus.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "core/main_loop.h"
#include "tests/fakes/fakes.h"

namespace {

// Collects the datagrams a listener receives.
struct Inbox {
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<std::vector<uint8_t>> datagrams;

  static int Handler(int, sockaddr_un*, unsigned*, char* msg, int len, void* ctx) {
    Inbox* self = static_cast<Inbox*>(ctx);
    std::lock_guard<std::mutex> g(self->mutex);
    self->datagrams.emplace_back(msg, msg + len);
    self->cv.notify_all();
    return 0;
  }

  // A copy of datagram i, taken under the lock: the listener thread may be appending.
  std::vector<uint8_t> At(size_t i) {
    std::lock_guard<std::mutex> g(mutex);
    return i < datagrams.size() ? datagrams[i] : std::vector<uint8_t>();
  }

  bool WaitFor(size_t n) {
    std::unique_lock<std::mutex> lock(mutex);
    return cv.wait_for(lock, std::chrono::seconds(5), [&] { return datagrams.size() >= n; });
  }
};

class EventBusTest : public ::testing::Test {
 protected:
  TempRoot root;
  LogCapture log;
};

TEST_F(EventBusTest, HeartbeatReachesARegisteredReceiverAsWireBytes) {
  Inbox inbox;
  // A socket path with a space and ".tmp" in it is still an ordinary receiver.
  const char* name = "/tmp/bus watch.tmp.sock";
  root.Write(name, "stale");  // a stale socket file of an earlier run
  void* listener = StartUnixDomainListen(name, Inbox::Handler, &inbox);
  ASSERT_NE(listener, nullptr);
  ASSERT_EQ(RegisterEventReciever(name, 1 << EVENT_HEARTBEAT), 0);
  // A receiver for other events only, and one that has gone away: both are skipped.
  ASSERT_EQ(RegisterEventReciever("/tmp/other.sock", 1 << EVENT_FILE_UPLOAD), 0);
  ASSERT_EQ(RegisterEventReciever("/tmp/gone.sock", 1 << EVENT_HEARTBEAT), 0);

  FakeClock clock;
  FakeStatus status;
  TestEnv env;
  env.clock = &clock;
  env.status = &status;
  CMainLoop loop(&env, CMainLoop::Targets{[](uint32_t) {}, [](uint32_t) {}});
  clock.SetMs(10000);
  loop.Pass();

  ASSERT_TRUE(inbox.WaitFor(1));
  std::vector<uint8_t> expected = {'E', 'V', 'B', '1', 6, 0, 0, 0, 68, 0, 0, 0, 2, 0, 0, 0};
  const char service[] = "velmar";
  expected.insert(expected.end(), service, service + 6);
  expected.resize(12 + 68, 0);
  EXPECT_EQ(inbox.At(0), expected);

  // Only receivers reached count: the mask of the listener excludes event 22.
  uint8_t payload[3] = {1, 2, 3};
  EXPECT_EQ(DistributeEvent(EVENT_FILE_UPLOAD, 3, payload), 0);
  EXPECT_EQ(DistributeEvent(EVENT_HEARTBEAT, 3, payload), 1);
  EXPECT_EQ(DistributeEvent(EVENT_HEARTBEAT, kEventPayloadMax + 1, payload), -1);
  ASSERT_TRUE(inbox.WaitFor(2));
  EXPECT_EQ(inbox.At(1).size(), 15u);

  EXPECT_EQ(UnregisterEventReciever(name), 0);
  EXPECT_EQ(DistributeEvent(EVENT_HEARTBEAT, 3, payload), 0);
  EXPECT_EQ(UnregisterEventReciever(name), -1);
  EXPECT_EQ(RegisterEventReciever("tmp/relative.sock", 1 << EVENT_HEARTBEAT), -1);
  EXPECT_EQ(StopUnixDomainListen(listener), 0);
  EXPECT_EQ(StopUnixDomainListen(nullptr), -1);
}

TEST(EventWireTest, ParseAcceptsOnlyWellFormedDatagrams) {
  std::vector<uint8_t> payload(300, 0xAB);
  unsigned char dgram[kEventHeaderSize + kEventPayloadMax + 16];
  int n = EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 300, dgram, sizeof(dgram));
  ASSERT_EQ(n, 312);
  std::vector<uint8_t> out(kEventPayloadMax, 0);
  EVENT_E ev = EVENT_HEARTBEAT;
  int reserved = 0;
  EXPECT_EQ(ParseRecvEvent(dgram, n, &ev, &reserved, out.data()), 300);
  EXPECT_EQ(ev, EVENT_FILE_UPLOAD);
  EXPECT_EQ(out[299], 0xAB);

  EXPECT_EQ(ParseRecvEvent(dgram, 11, &ev, &reserved, out.data()), -1);     // short
  EXPECT_EQ(ParseRecvEvent(dgram, n - 1, &ev, &reserved, out.data()), -1);  // length differs
  EXPECT_EQ(ParseRecvEvent(dgram, n + 1, &ev, &reserved, out.data()), -1);
  dgram[0] = 'X';
  EXPECT_EQ(ParseRecvEvent(dgram, n, &ev, &reserved, out.data()), -1);  // magic
  dgram[0] = 'E';
  dgram[8] = 0x01;  // claims 8193 bytes
  dgram[9] = 0x20;
  EXPECT_EQ(ParseRecvEvent(dgram, kEventHeaderSize + 8193, &ev, &reserved, out.data()), -1);
  EXPECT_EQ(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), 300, dgram, 100), -1);
  EXPECT_EQ(EncodeEvent(EVENT_FILE_UPLOAD, payload.data(), -1, dgram, sizeof(dgram)), -1);
}

}  // namespace
