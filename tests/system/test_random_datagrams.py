"""10,000 random datagrams, a few hundred of them new tasks, do not take the service down:
afterwards its database reads and it still admits a task."""
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

    MAX_NEW_TASKS = 300  # well below the queue's limit of 1000, which admission must leave room

    def datagram(self, rng):
        kind = rng.random()
        length = rng.randint(0, 9000)
        if kind < 0.4:  # raw bytes, sometimes with the right magic
            body = os.urandom(length)
            return (b"EVB1" + body[4:]) if rng.random() < 0.5 else body
        # Well formed, random event and code.
        event = rng.choice([16, 22, 6, rng.randint(0, 2**32 - 1)])
        code = rng.choice([0, 0x701, 0x702, 0x708, rng.randint(0, 2**32 - 1)])
        if event == 22 and (code == 0x700 or rng.random() < 0.2):
            if self.new_tasks >= self.MAX_NEW_TASKS:
                code = 0x701
            else:
                # A random record, possibly cut short, for a local file that does not exist,
                # so the scheduler drops it instead of sending to a random server.
                self.new_tasks += 1
                record = bytearray(os.urandom(496))
                record[8:21] = b"/nonexistent/"
                record = bytes(record[:rng.randint(21, 496)])
                return encode_event(22, struct.pack("<II", 0x700, rng.randint(0, 2**32 - 1))
                                    + record)
        payload = struct.pack("<II", code, rng.randint(0, 2**32 - 1)) + os.urandom(
            min(length, 8192 - 8))
        if event == 16 and code == 0:
            payload = payload[:4] + b"/nonexistent/" + payload[17:]
        return encode_event(event, payload)

    def test_survives_and_still_admits(self):
        rng = random.Random(1234)
        self.new_tasks = 0
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
        self.assertGreater(self.new_tasks, 100)
        self.assertTrue(self.velmar.alive(), self.velmar.log()[-2000:])
        # A real file and a server nobody listens on, so the task stays queued while we look.
        local = self.root.under("/after.bin")
        with open(local, "wb") as f:
            f.write(b"after")
        r = velmarctl(self.root, "upload", "--file", local, "--seq", "3",
                      "--server", "ftp://u:p@127.0.0.1:9/x")
        self.assertEqual(r.returncode, 0, r.stderr)
        sd1 = self.root.under("/mnt/sd1")
        # The whole database still reads, random tasks and all.
        self.assertTrue(wait_until(
            lambda: any(row["fullpath"] == local for row in db_rows(sd1)), 15))
        self.assertTrue(self.velmar.alive())


if __name__ == "__main__":
    unittest.main()
