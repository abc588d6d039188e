"""Crashes in the middle of an upload: the real velmar is killed with SIGKILL five times while
it sends a file to a slow pyftpdlib, each time started again at once, and continues from the
size the server holds. The server's copy must then be identical to the source.
(test_resume_recording does the same with a recording.)"""
import filecmp
import os
import unittest

from harness import FtpServer, ServiceTest, Velmar, Watch, db_rows, wait_until


def write_file(path, size, seed):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    block = bytes((i * 131 + seed) & 0xFF for i in range(65536))
    with open(path, "wb") as f:
        for at in range(0, size, len(block)):
            f.write(block[:min(size - at, len(block))])


class ResumeTest(ServiceTest):
    def remote(self, name):
        return self.root.under("/served/up/in/" + name)

    def send_kill_resume(self, local, name, throttle, recording=False, kills=5):
        """Queues local as name and kills velmar (SIGKILL) each time another sixth has arrived,
        starting it again at once, while the killed process's data may still be on its way;
        then waits for the task to complete."""
        server = FtpServer(self.root.under("/served"), throttle=throttle).start()
        self.addCleanup(server.stop)
        watch = Watch(self.root, 300)
        self.addCleanup(watch.stop)
        self.start()
        self.ctl("upload", "--recording" if recording else "--file", local, "--seq", "9",
                 "--name", name, "--dir", "in", "--server", server.url("/up"))
        remote = self.remote(name)
        sends = lambda: [e for e in server.events() if not e.startswith("closed ")]
        for k in range(1, kills + 1):
            # Killed while its own send is under way: k stores or appends so far, and the
            # copy grown by another 512 KiB since the last of them started.
            self.assertTrue(wait_until(lambda: len(sends()) >= k, 90), self.velmar.log()[-3000:])
            start = os.path.getsize(remote) if os.path.exists(remote) else 0
            self.assertTrue(wait_until(lambda: os.path.getsize(remote) > start + (512 << 10), 90),
                            self.velmar.log()[-3000:])
            self.velmar.stop()  # SIGKILL
            self.velmar = Velmar(self.root)
            self.velmar.start()
        self.assertTrue(wait_until(lambda: watch.task_status(), 180, step=0.5),
                        self.velmar.log()[-3000:])
        self.assertEqual(watch.task_status(), ["task-status seq=9 status=0"])
        # One store, then only appends: never stored anew, so the whole copy being identical
        # proves that each start continued from exactly the size the server held.
        sent = sends()
        self.assertEqual(sent[0], "STOR " + remote)
        self.assertEqual(set(sent[1:]), {"APPE " + remote})
        self.assertEqual(db_rows(self.root.under("/mnt/sd1")), [])

    def test_plain_file(self):
        # Read at 384 KiB/s: a killed sender's data (about 2 MB) goes on arriving for
        # seconds after a restart.
        local = self.root.under("/data/big.bin")
        write_file(local, 16 << 20, 3)
        self.send_kill_resume(local, "big.bin", throttle=384 << 10)
        self.assertTrue(filecmp.cmp(local, self.remote("big.bin"), shallow=False))


if __name__ == "__main__":
    unittest.main()
