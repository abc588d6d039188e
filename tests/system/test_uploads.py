"""Uploads end to end: the real velmar, velmarctl and pyftpdlib on loopback."""
import filecmp
import json
import os
import re
import subprocess
import time
import unittest

from harness import (FtpServer, SandboxRoot, Velmar, Watch, db_rows, make_recording, velmar_avi,
                     velmarctl, wait_until)


def write_file(path, size, seed):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    block = bytes((i * 131 + seed) & 0xFF for i in range(65536))
    with open(path, "wb") as f:
        left = size
        while left > 0:
            f.write(block[:min(left, len(block))])
            left -= min(left, len(block))


class UploadTest(unittest.TestCase):
    def setUp(self):
        self.root = SandboxRoot()
        self.served = self.root.under("/served")
        self.velmar = Velmar(self.root)
        self.server = None
        self.watch = None

    def tearDown(self):
        try:
            if self.watch:
                self.watch.stop()
            self.velmar.stop()
        finally:
            if self.server:
                self.server.stop()
            self.root.remove()

    def start(self, throttle=0):
        self.server = FtpServer(self.served, throttle=throttle).start()
        self.velmar.start()
        self.assertTrue(self.velmar.wait_log("disk changed", 15), self.velmar.log())

    def queue(self, local, seq, name, *extra, recording=False):
        kind = "--recording" if recording else "--file"
        r = velmarctl(self.root, "upload", kind, local, "--seq", str(seq), "--name", name,
                      "--dir", "in", "--server", self.server.url("/up"), *extra)
        self.assertEqual(r.returncode, 0, r.stderr)

    def remote(self, name):
        return os.path.join(self.served, "up", "in", name)

    def all_rows(self):
        return db_rows(self.root.under("/mnt/sd1")) + db_rows(self.root.under("/mnt/sd2"))

    def test_twenty_files_arrive_once_each(self):
        self.start()
        self.watch = Watch(self.root, 400)
        sizes = [0, 1, 100, 16383, 16384, 16385, 65536, 100000, 1 << 20, 3 << 20,
                 50 << 20, 7, 500, 32768, 49153, 250000, 2 << 20, 5 << 20, 12345, 999999]
        files = []
        for i, size in enumerate(sizes):
            local = self.root.under("/data/f%02d.bin" % i)
            write_file(local, size, i)
            keep = self.root.under("/keep/f%02d.bin" % i)
            write_file(keep, size, i)
            flagged = i % 3 == 0 or i == 19
            self.queue(local, 100 + i % 2, "f%02d.bin" % i, *(["--delete"] if flagged else []))
            # A flagged file is removed when its task completes its sequence number, that is
            # when it is the last task of that number (18 for seq 100, 19 for seq 101).
            files.append((local, keep, flagged and i in (18, 19)))
        done = wait_until(lambda: len(self.watch.task_status()) >= 2 and not self.all_rows(),
                          400, step=1)
        self.assertTrue(done, (self.watch.lines(), len(self.all_rows())))
        time.sleep(1)
        for i, (local, keep, delete) in enumerate(files):
            self.assertTrue(filecmp.cmp(keep, self.remote("f%02d.bin" % i), shallow=False), i)
            self.assertEqual(os.path.exists(local), not delete, i)
        self.assertEqual(sorted(self.watch.task_status()),
                         ["task-status seq=100 status=0", "task-status seq=101 status=0"])

    def test_recording_arrives_as_the_announced_avi(self):
        name = make_recording(self.root, 20)
        expected = self.root.under("/expected.avi")
        velmar_avi(self.root, name, expected)
        self.start()
        self.watch = Watch(self.root, 120)
        self.queue(name, 7, "front.avi", recording=True)
        self.assertTrue(wait_until(lambda: self.watch.task_status(), 120, step=1),
                        self.velmar.log()[-3000:])
        self.assertTrue(filecmp.cmp(expected, self.remote("front.avi"), shallow=False))
        # Exactly the length the stream announced when velmar opened the recording.
        with open(self.velmar.out_path) as f:
            announced = set(re.findall(r"^filelen = (\d+),", f.read(), re.M))
        self.assertEqual(announced, {str(os.path.getsize(self.remote("front.avi")))})
        probe = json.loads(subprocess.run(
            ["ffprobe", "-v", "error", "-fflags", "+sortdts", "-count_packets", "-show_format",
             "-show_streams", "-of", "json", self.remote("front.avi")],
            check=True, capture_output=True, text=True).stdout)
        video = [s for s in probe["streams"] if s["codec_type"] == "video"]
        self.assertEqual((video[0]["codec_name"], video[0]["width"], video[0]["height"],
                          video[0]["nb_read_packets"]), ("h264", 640, 480, "500"))  # 20 s, 25 fps
        self.assertAlmostEqual(float(probe["format"]["duration"]), 20.0, delta=0.05)

    def test_kill_during_upload_resumes_from_the_servers_size(self):
        local = self.root.under("/data/big.bin")
        write_file(local, 200 << 20, 3)
        self.start(throttle=40 << 20)  # about 5 s for the file
        self.queue(local, 9, "big.bin")
        self.assertTrue(wait_until(lambda: os.path.exists(self.remote("big.bin")) and
                                   os.path.getsize(self.remote("big.bin")) > (40 << 20), 60))
        self.velmar.stop()  # SIGKILL
        # The server still stores what the socket held; then the copy stands still.
        sizes = []
        self.assertTrue(wait_until(lambda: sizes.append(os.path.getsize(self.remote("big.bin")))
                                   or (len(sizes) > 5 and sizes[-1] == sizes[-6]), 30, step=0.2))
        partial = sizes[-1]
        self.assertLess(partial, 200 << 20)
        self.velmar = Velmar(self.root)
        self.watch = Watch(self.root, 120)
        self.velmar.start()
        self.assertTrue(wait_until(lambda: self.watch.task_status(), 120, step=1),
                        self.velmar.log()[-3000:])
        # Continued (mode 1) from exactly what the server held, not started anew.
        self.assertIn("seq:9 file:%s size[%d,%d] ..." % (local, partial, 200 << 20),
                      self.velmar.log())
        self.assertTrue(filecmp.cmp(local, self.remote("big.bin"), shallow=False))
        self.assertEqual(self.watch.task_status(), ["task-status seq=9 status=0"])
        self.assertEqual(self.all_rows(), [])

    def test_server_outage_of_thirty_seconds(self):
        local = self.root.under("/data/mid.bin")
        write_file(local, 60 << 20, 5)
        self.start(throttle=10 << 20)
        self.watch = Watch(self.root, 200)
        self.queue(local, 11, "mid.bin")
        self.assertTrue(wait_until(lambda: os.path.exists(self.remote("mid.bin")) and
                                   os.path.getsize(self.remote("mid.bin")) > (10 << 20), 60))
        self.server.stop()
        time.sleep(30)
        self.server.start()  # same port
        self.assertTrue(wait_until(lambda: self.watch.task_status(), 150, step=1),
                        self.velmar.log()[-3000:])
        self.assertTrue(filecmp.cmp(local, self.remote("mid.bin"), shallow=False))
        self.assertEqual(self.watch.task_status(), ["task-status seq=11 status=0"])

    def test_transfer_off_on_and_delete(self):
        name = make_recording(self.root, 20, large=True)
        expected = self.root.under("/expected.avi")
        velmar_avi(self.root, name, expected)
        size = os.path.getsize(expected)
        self.start(throttle=max(size // 15, 65536))  # about 15 s for the whole file
        self.watch = Watch(self.root, 200)
        self.queue(name, 21, "rec.avi", recording=True)
        self.assertTrue(wait_until(lambda: os.path.exists(self.remote("rec.avi")) and
                                   os.path.getsize(self.remote("rec.avi")) > size // 8, 60))
        self.assertEqual(velmarctl(self.root, "trans", "off", "--seq", "21").returncode, 0)
        self.assertTrue(self.velmar.wait_log("stop by:2", 20), self.velmar.log()[-3000:])
        # The server still drains what the socket buffers held, in throttled bursts with
        # pauses of a second or more; then the file stands still.
        sizes = []
        self.assertTrue(wait_until(lambda: sizes.append(os.path.getsize(self.remote("rec.avi")))
                                   or (len(sizes) > 6 and sizes[-1] == sizes[-7]), 60, step=1))
        stopped = sizes[-1]
        self.assertLess(stopped, size)
        time.sleep(4)
        self.assertEqual(os.path.getsize(self.remote("rec.avi")), stopped)
        self.assertEqual([r["trans"] for r in self.all_rows()], [0])

        # Delete: a second recording task, queued while the first one holds the engine,
        # vanishes from the database and is never sent, also once the first one is done.
        self.queue(name, 22, "gone.avi", recording=True)
        self.assertTrue(wait_until(lambda: any(r["seq"] == 22 for r in self.all_rows()), 10))
        self.assertEqual(velmarctl(self.root, "trans", "delete", "--seq", "22").returncode, 0)
        self.assertTrue(wait_until(lambda: [r["seq"] for r in self.all_rows()] == [21], 10))
        self.assertEqual(velmarctl(self.root, "trans", "on", "--seq", "21").returncode, 0)
        self.assertTrue(wait_until(lambda: self.watch.task_status(), 150, step=1),
                        self.velmar.log()[-3000:])
        self.assertTrue(filecmp.cmp(expected, self.remote("rec.avi"), shallow=False))
        self.assertEqual(self.all_rows(), [])
        time.sleep(5)  # a task still queued would be on its way now
        self.assertFalse(os.path.exists(self.remote("gone.avi")))
        self.assertEqual(self.watch.task_status(), ["task-status seq=21 status=0"])


if __name__ == "__main__":
    unittest.main()
