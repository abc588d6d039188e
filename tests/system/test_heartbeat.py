"""The real service starts, logs "Velmar Start" and sends its heartbeat about every 5 s."""
import struct
import time
import unittest

from harness import EVENT_HEARTBEAT, Receiver, SandboxRoot, Velmar


class HeartbeatTest(unittest.TestCase):
    def setUp(self):
        self.root = SandboxRoot()
        self.receiver = Receiver(self.root, "/tmp/test.heartbeat", [EVENT_HEARTBEAT])
        self.velmar = Velmar(self.root)

    def tearDown(self):
        try:
            self.velmar.stop()
        finally:
            self.receiver.close()
            self.root.remove()

    def test_heartbeats_every_five_seconds(self):
        self.velmar.start()
        self.assertTrue(self.velmar.wait_log("Velmar Start", 10), self.velmar.log())
        arrivals = []
        while len(arrivals) < 3:
            got = self.receiver.receive(timeout=8)
            self.assertIsNotNone(got, "no heartbeat within 8 s")
            event, payload = got
            self.assertEqual(event, EVENT_HEARTBEAT)
            self.assertEqual(len(payload), 68)
            self.assertEqual(struct.unpack_from("<i", payload)[0], 2)
            self.assertEqual(payload[4:], b"velmar" + b"\0" * 58)
            arrivals.append(time.monotonic())
        for a, b in zip(arrivals, arrivals[1:]):
            self.assertGreaterEqual(b - a, 4.5)
            self.assertLess(b - a, 6.5)
        self.assertTrue(self.velmar.alive())


if __name__ == "__main__":
    unittest.main()
