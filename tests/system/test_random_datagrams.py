"""10,000 random datagrams do not take the service down: afterwards it still admits a task."""
import os
import random
import socket
import struct
import unittest

from harness import SandboxRoot, Velmar, db_rows, encode_event, velmarctl, wait_until


class RandomDatagramTest(unittest.TestCase):
    def setUp(self):
        self.root = SandboxRoot()
        self.velmar = Velmar(self.root)
        self.velmar.start()
        self.assertTrue(self.velmar.wait_log("disk changed", 15), self.velmar.log())

    def tearDown(self):
        try:
            self.velmar.stop()
        finally:
            self.root.remove()

    def datagram(self, rng):
        kind = rng.random()
        length = rng.randint(0, 9000)
        if kind < 0.4:  # raw bytes, sometimes with the right magic
            body = os.urandom(length)
            return (b"EVB1" + body[4:]) if rng.random() < 0.5 else body
        # Well formed, random event and code. New tasks (0x700) are left out: they would
        # legitimately fill the queue up to its limit.
        event = rng.choice([16, 22, 6, rng.randint(0, 2**32 - 1)])
        code = rng.choice([0, 0x701, 0x702, 0x708, rng.randint(0, 2**32 - 1)])
        if event == 22 and code == 0x700:
            code = 0x701
        payload = struct.pack("<II", code, rng.randint(0, 2**32 - 1)) + os.urandom(
            min(length, 8192 - 8))
        if event == 16 and code == 0:
            payload = payload[:4] + b"/nonexistent/" + payload[17:]
        return encode_event(event, payload)

    def test_survives_and_still_admits(self):
        rng = random.Random(1234)
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        target = self.root.under("/tmp/ftpuploadfile.listen")
        sent = 0
        for _ in range(10000):
            try:
                sock.sendto(self.datagram(rng), target)
                sent += 1
            except (BlockingIOError, ConnectionRefusedError, OSError):
                pass  # a full queue drops a datagram; that is the bus, not the service
        sock.close()
        self.assertGreater(sent, 9000)
        self.assertTrue(self.velmar.alive(), self.velmar.log()[-2000:])
        # A real file and a server nobody listens on, so the task stays queued while we look.
        local = self.root.under("/after.bin")
        with open(local, "wb") as f:
            f.write(b"after")
        r = velmarctl(self.root, "upload", "--file", local, "--seq", "3",
                      "--server", "ftp://u:p@127.0.0.1:9/x")
        self.assertEqual(r.returncode, 0, r.stderr)
        sd1 = self.root.under("/mnt/sd1")
        self.assertTrue(wait_until(
            lambda: any(row["fullpath"] == local for row in db_rows(sd1)), 15))
        self.assertTrue(self.velmar.alive())


if __name__ == "__main__":
    unittest.main()
