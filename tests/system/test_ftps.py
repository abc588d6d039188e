"""Uploads over explicit FTPS with the TLS policy "require": each refusal (a server without
TLS, a certificate of another host, an expired one, one from an unknown CA, a fingerprint
mismatch) has its own log line and nothing but AUTH reaches the server; to vsftpd with TLS
forced on both connections a file and a recording arrive byte-identical, and a partial copy is
continued with APPE. The recording (H.265 with G.711 audio and info frames, from ffmpeg's test
sources) is also read back by ffprobe and ffmpeg: every frame decodes."""
import filecmp
import os
import shutil
import signal
import subprocess
import unittest

from harness import (SOURCE_DIR, FtpServer, SandboxRoot, ServiceTest, Velmar, Watch,
                     make_recording, probe, velmar_avi, wait_until, write)

CERT_TOOL = os.path.join(SOURCE_DIR, "scripts", "ftps-cert")


def make_cert(path, *options):
    """A test certificate and key in path (scripts/ftps-cert); returns its SHA-256 in hex."""
    return subprocess.run([CERT_TOOL, path] + list(options), check=True, capture_output=True,
                          text=True).stdout.strip()


def write_policy(root, text):  # replaced whole, as an editor would
    write(root.under("/etc/velmar/ftps.tmp"), text)
    os.replace(root.under("/etc/velmar/ftps.tmp"), root.under("/etc/velmar/ftps.conf"))


class FtpsTest(ServiceTest):
    def queue(self, seq, kind, source, name, url, root=None):
        self.ctl("upload", kind, source, "--seq", str(seq), "--name", name, "--server", url,
                 root=root)

    def test_refusals(self):
        good, other, wrong_host, expired = (self.root.under("/%s.pem" % n) for n in "gowe")
        for path, options in [(good, []), (other, []), (expired, ["--expired"]),
                              (wrong_host, ["--name", "elsewhere.example"])]:
            make_cert(path, *options)
        cases = [  # (server certificate or None for no TLS, policy words, expected reason)
            (None, "ca=" + good, "server answered AUTH TLS with 500"),
            (wrong_host, "ca=" + wrong_host, "certificate of another host"),
            (expired, "ca=" + expired, "certificate expired"),
            (good, "ca=" + other, "certificate from an unknown CA"),
            (good, "ca=%s pin=sha256:%s" % (good, "00" * 32), "certificate fingerprint mismatch"),
        ]
        for seq, (cert, words, reason) in enumerate(cases, 1):
            server = FtpServer(self.root.under("/served%d" % seq), tls=cert).start()
            self.addCleanup(server.stop)
            velmar = Velmar(SandboxRoot())
            self.addCleanup(velmar.root.remove)
            self.addCleanup(velmar.stop)
            write_policy(velmar.root, "* off\n")
            self.start(velmar)
            # Re-read when it changes: an entry for this server's host, one for all others.
            write_policy(velmar.root, "127.0.0.1 require %s\n* off\n" % words)
            self.queue(seq, "--file", good, "x.txt", server.url("/"), root=velmar.root)
            line = "TLS with 127.0.0.1 refused: " + reason
            self.assertTrue(velmar.wait_log(line, 60), (reason, velmar.log()[-2000:]))
            velmar.stop()
            server.stop()
            # Only AUTH reached the server: no login and no store, in clear or otherwise.
            self.assertEqual(set(server.commands()), {"clear AUTH TLS"}, reason)

    def test_require_against_vsftpd(self):
        tmp = self.root.under("/vsftpd")
        os.makedirs(tmp)
        pin = make_cert(tmp + "/cert.pem")
        log = tmp + "/commands.log"
        script = ". scripts/lib-vsftpd.sh; start_vsftpd; echo $PORT; wait $PID"
        proc = subprocess.Popen(["bash", "-c", script], cwd=SOURCE_DIR, stdout=subprocess.PIPE,
                                text=True, start_new_session=True,
                                env=dict(os.environ, TMP=tmp, VSFTPD_TLS=tmp + "/cert.pem",
                                         VSFTPD_LOG=log))
        self.addCleanup(lambda: (os.killpg(proc.pid, signal.SIGKILL), proc.wait(),
                                 proc.stdout.close()))
        url = "ftp://anonymous:x@127.0.0.1:%d/up" % int(proc.stdout.readline())
        write_policy(self.root, "127.0.0.1 require ca=%s/cert.pem verify_host=yes pin=sha256:%s\n"
                     % (tmp, pin))
        local, up = self.root.under("/file.bin"), tmp + "/root/up/"
        write(local, os.urandom(3 << 20))
        # A copy cut short by an earlier pass: the upload must continue it with APPE.
        shutil.copyfile(local, up + "part.bin")
        os.truncate(up + "part.bin", 1 << 20)
        shutil.chown(up + "part.bin", "ftp")
        recording, made = make_recording(self.root, 4, h265=True, audio=True)
        self.assertEqual((made["video_frames"], made["audio_frames"], made["info_frames"]),
                         ("100", "100", "4"))
        velmar_avi(self.root, recording, self.root.under("/expected.avi"))
        watch = Watch(self.root, 120)
        self.addCleanup(watch.stop)
        self.start()
        self.queue(1, "--file", local, "file.bin", url)
        self.queue(2, "--recording", recording, "rec.avi", url)
        self.queue(3, "--file", local, "part.bin", url)
        wait_until(lambda: len(watch.task_status()) == 3, 90, step=0.5)
        self.assertEqual(sorted(watch.task_status()),
                         ["task-status seq=%d status=0" % i for i in (1, 2, 3)],
                         self.velmar.log()[-3000:])
        for name, source in [("file.bin", local), ("part.bin", local),
                             ("rec.avi", self.root.under("/expected.avi"))]:
            self.assertTrue(filecmp.cmp(source, up + name, shallow=False), name)
        with open(log, errors="replace") as f:
            sent = [l.split('", "', 1)[1].rstrip('"\n') for l in f if "FTP command" in l]
        self.assertIn("APPE part.bin", sent)
        self.assertNotIn("STOR part.bin", sent)
        streams, duration, errors = probe(up + "rec.avi")
        v, a = streams["video"], streams["audio"]
        self.assertEqual((v["codec_name"], v["width"], v["height"], v["avg_frame_rate"],
                          v["nb_read_packets"], a["codec_name"], a["sample_rate"], errors),
                         ("hevc", 640, 480, "25/1", "100", "pcm_s16le", "8000", "0"))
        self.assertAlmostEqual(duration, 4.0, delta=0.05)


if __name__ == "__main__":
    unittest.main()
