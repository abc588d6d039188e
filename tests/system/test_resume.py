"""A crash in the middle of an upload: the real velmar is killed with SIGKILL while it sends a
plain file or a recording to pyftpdlib, started again, and continues from the size the server
holds. The server's copy must then be identical to the source, the recording a valid AVI."""
import filecmp
import os
import unittest

from harness import (FtpServer, SandboxRoot, Velmar, Watch, db_rows, make_recording, probe,
                     velmar_avi, velmarctl, wait_until)


def write_file(path, size, seed):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    block = bytes((i * 131 + seed) & 0xFF for i in range(65536))
    with open(path, "wb") as f:
        for at in range(0, size, len(block)):
            f.write(block[:min(size - at, len(block))])


class ResumeTest(unittest.TestCase):
    def setUp(self):
        self.root = SandboxRoot()
        self.served = self.root.under("/served")
        self.velmar = Velmar(self.root)
        self.server = self.watch = None

    def tearDown(self):
        try:
            if self.watch:
                self.watch.stop()
            self.velmar.stop()
        finally:
            if self.server:
                self.server.stop()
            self.root.remove()

    def remote(self, name):
        return os.path.join(self.served, "up", "in", name)

    def closed(self, name):
        """Sizes at which the server closed an upload of name, in order."""
        marks = [e.split() for e in self.server.events() if e.startswith("closed ")]
        return [int(m[2]) for m in marks if m[1] == self.remote(name)]

    def send_kill_resume(self, local, name, total, throttle, recording=False):
        """Queues local as name, kills velmar once a fifth has arrived, waits until the server
        has closed that transfer, restarts velmar and waits for the task to complete."""
        self.server = FtpServer(self.served, throttle=throttle).start()
        self.velmar.start()
        self.assertTrue(self.velmar.wait_log("disk changed", 15), self.velmar.log())
        r = velmarctl(self.root, "upload", "--recording" if recording else "--file", local,
                      "--seq", "9", "--name", name, "--dir", "in",
                      "--server", self.server.url("/up"))
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertTrue(wait_until(lambda: os.path.exists(self.remote(name)) and
                                   os.path.getsize(self.remote(name)) > total // 5, 60))
        self.velmar.stop()  # SIGKILL
        # The server still stores what the socket held, then sees the connection end.
        self.assertTrue(wait_until(lambda: self.closed(name), 60), self.server.events())
        partial = self.closed(name)[-1]
        self.assertLess(partial, total)
        before = len(self.server.events())
        self.velmar = Velmar(self.root)
        self.watch = Watch(self.root, 120)
        self.velmar.start()
        self.assertTrue(wait_until(lambda: self.watch.task_status(), 120, step=0.5),
                        self.velmar.log()[-3000:])
        self.assertEqual(self.watch.task_status(), ["task-status seq=9 status=0"])
        # Continued by appending (never stored anew), so the whole copy being identical
        # proves it continued from exactly the size the server held.
        again = [e for e in self.server.events()[before:] if not e.startswith("closed ")]
        self.assertEqual(again, ["APPE " + self.remote(name)])
        self.assertEqual(db_rows(self.root.under("/mnt/sd1")), [])

    def test_plain_file(self):
        local = self.root.under("/data/big.bin")
        write_file(local, 200 << 20, 3)
        self.send_kill_resume(local, "big.bin", 200 << 20, throttle=40 << 20)
        self.assertTrue(filecmp.cmp(local, self.remote("big.bin"), shallow=False))

    def test_recording(self):
        name, _ = make_recording(self.root, 20, large=True)
        expected = self.root.under("/expected.avi")
        velmar_avi(self.root, name, expected)
        size = os.path.getsize(expected)
        self.send_kill_resume(name, "rec.avi", size, throttle=max(size // 8, 65536),
                              recording=True)
        self.assertTrue(filecmp.cmp(expected, self.remote("rec.avi"), shallow=False))
        streams, duration, errors = probe(self.remote("rec.avi"))
        video = streams["video"]  # 20 s at 25 fps, every frame decoded
        self.assertEqual((video["codec_name"], video["width"], video["height"],
                          video["nb_read_packets"], errors), ("h264", 640, 480, "500", "0"))
        self.assertAlmostEqual(duration, 20.0, delta=0.05)


if __name__ == "__main__":
    unittest.main()
