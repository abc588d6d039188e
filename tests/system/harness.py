"""Helpers for system tests: a velmar process in its own sandbox root, and bus receivers."""
import json
import os
import shlex
import shutil
import signal
import sqlite3
import struct
import subprocess
import tempfile
import time
import unittest

SOURCE_DIR = os.environ.get("VELMAR_SOURCE_DIR",
                            os.path.abspath(os.path.join(os.path.dirname(__file__), "../..")))
BUILD_DIR = os.environ.get("VELMAR_BUILD_DIR", os.path.join(SOURCE_DIR, "build"))
# Binaries of another instruction set run under an emulator ("qemu-arm -L <root>"), which is
# several times slower: every deadline of the tests stretches by TIME_SCALE.
EXEC_PREFIX = shlex.split(os.environ.get("VELMAR_EXEC_PREFIX", ""))
TIME_SCALE = float(os.environ.get("VELMAR_TIME_SCALE", "4" if EXEC_PREFIX else "1"))


def built(name):
    """The command line that runs the build's program name."""
    return EXEC_PREFIX + [os.path.join(BUILD_DIR, name)]


def _run_env(root):
    return dict(os.environ, VELMAR_ROOT=root.path)


def read(path):
    with open(path, "rb") as f:
        return f.read().decode("utf-8", "replace")


def write(path, data):
    """Writes data (bytes or text) to path, making its directory."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


class SandboxRoot:
    """A temporary root filled from the example profile."""

    def __init__(self):
        self.path = tempfile.mkdtemp(prefix="velmar-sys-")
        shutil.copytree(os.path.join(SOURCE_DIR, "profile"), self.path, dirs_exist_ok=True)

    def under(self, device_path):
        return self.path + device_path

    def remove(self):
        shutil.rmtree(self.path, ignore_errors=True)


class Velmar:
    """The real velmar binary running in root, on a PATH with busybox's ftpget/ftpput (after
    the folders of path_first); its output goes to files in the root, and user commands run in
    the root."""

    def __init__(self, root):
        self.root, self.proc, self.path_first = root, None, []
        self.out_path, self.err_path = root.under("/velmar.out"), root.under("/velmar.err")

    def start(self):
        env = _run_env(self.root)
        env["PATH"] = ":".join(self.path_first + [os.path.join(BUILD_DIR, "busybox-bin"),
                                                   env.get("PATH", "")])
        with open(self.out_path, "ab") as out, open(self.err_path, "ab") as err:
            self.proc = subprocess.Popen(built("velmar"), env=env,
                                         stdout=out, stderr=err, cwd=self.root.path,
                                         start_new_session=True)

    def log(self):
        return read(self.err_path)

    def wait_log(self, text, timeout):
        """True once text is in the log; False at the timeout or when the service ended."""
        wait_until(lambda: text in self.log() or self.proc.poll() is not None, timeout)
        return text in self.log()

    def stop(self):
        """Kills the service; raises AssertionError when it had ended by itself or a sanitizer
        of an instrumented build reported something on its error output (the test then fails,
        also from a cleanup)."""
        proc, self.proc = self.proc, None
        if proc is None:
            return
        ended = proc.poll()
        if ended is None:
            os.killpg(proc.pid, signal.SIGKILL)
        proc.wait(timeout=10)
        lines = self.log().splitlines()
        marks = ("WARNING: ThreadSanitizer", "ERROR: AddressSanitizer", "runtime error:")
        reports = [l for i, line in enumerate(lines) if any(m in line for m in marks)
                   for l in lines[i:i + 12]]
        if reports:
            raise AssertionError("velmar: sanitizer report:\n" + "\n".join(reports))
        if ended is not None:
            raise AssertionError("velmar ended by itself (%d):\n" % ended + "\n".join(lines[-40:]))


class ServiceTest(unittest.TestCase):
    """A test with a sandbox root and a velmar in it (not yet started). At the end what the
    test started is stopped, the last first, then velmar, failing the test on a sanitizer
    report, and the root is removed."""

    def setUp(self):
        self.root = SandboxRoot()
        self.addCleanup(self.root.remove)
        self.velmar = Velmar(self.root)
        self.addCleanup(lambda: self.velmar.stop())  # the one running then

    def start(self, velmar=None):
        """Starts velmar and waits for its first disk check."""
        velmar = velmar or self.velmar
        velmar.start()
        self.assertTrue(velmar.wait_log("disk changed", 15), velmar.log())

    def ctl(self, *args, root=None, timeout=30):
        """Runs velmarctl, which must succeed; returns the CompletedProcess."""
        r = velmarctl(root or self.root, *args, timeout=timeout)
        self.assertEqual(r.returncode, 0, r.stderr)
        return r


def velmarctl(root, *args, timeout=30):
    """Runs velmarctl in root; returns the CompletedProcess."""
    return subprocess.run(built("velmarctl") + list(args), env=_run_env(root),
                          capture_output=True, text=True, timeout=timeout * TIME_SCALE)


def db_rows(mount_dir):
    """The rows of the task database in mount_dir as dicts, in queue order."""
    path = os.path.join(mount_dir, "new_file_op.db")
    if not os.path.exists(path):
        return []
    con = sqlite3.connect("file:%s?mode=ro" % path, uri=True)
    con.text_factory = lambda b: b.decode("utf-8", "replace")  # names may hold any bytes
    try:
        rows = con.execute("SELECT seq, type, fullpath, dir, filename, valid, net, trans, "
                           "server FROM ftp_log ORDER BY id").fetchall()
    except sqlite3.OperationalError:  # made, but its table not yet
        return []
    finally:
        con.close()
    keys = ("seq", "type", "fullpath", "dir", "filename", "valid", "net", "trans")
    text = lambda b: b.split(b"\0")[0].decode(errors="replace")
    return [dict(zip(keys, r), port=struct.unpack_from("<H", r[8])[0], host=text(r[8][2:34]),
                 user=text(r[8][34:66]), password=text(r[8][66:98]), path=text(r[8][98:226]))
            for r in rows]


def wait_until(predicate, timeout, step=0.1):
    deadline = time.time() + timeout * TIME_SCALE
    while time.time() < deadline and not predicate():
        time.sleep(step)
    return predicate()


class FtpServer:
    """pyftpdlib on 127.0.0.1 serving root_dir for user/secret; restartable on its port.
    events() gives the upload commands and finished uploads it saw, commands() every command
    line received, "tls LINE" or "clear LINE" (tests/servers/ftpd.py)."""

    def __init__(self, root_dir, throttle=0, lifetime=600, tls=None):
        os.makedirs(root_dir, exist_ok=True)
        self.root_dir, self.port, self.proc = root_dir, 0, None
        base = root_dir.rstrip("/")
        self.events_path, self.commands_path = base + ".events", base + ".commands"
        self.options = ["--lifetime", str(lifetime), "--throttle", str(throttle), "--events",
                        self.events_path, "--commands", self.commands_path] + (
                            ["--tls", tls] if tls else [])

    def start(self):
        cmd = ["/usr/bin/python3", os.path.join(SOURCE_DIR, "tests", "servers", "ftpd.py"),
               "--root", self.root_dir, "--port", str(self.port)] + self.options
        self.proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, text=True)
        self.port = int(self.proc.stdout.readline())
        return self

    def events(self):
        return read(self.events_path).splitlines() if os.path.exists(self.events_path) else []

    def commands(self):
        return read(self.commands_path).splitlines() if os.path.exists(self.commands_path) else []

    def url(self, path="/", host="127.0.0.1"):
        return "ftp://user:secret@%s:%d%s" % (host, self.port, path)

    def stop(self):
        if self.proc is not None:
            self.proc.kill()
            self.proc.wait(timeout=10)
            self.proc.stdout.close()
            self.proc = None


class Watch:
    """velmarctl watch in the background; task_status() gives its task lines so far."""

    def __init__(self, root, seconds):
        self.out_path = root.under("/watch.out")
        with open(self.out_path, "w") as out:
            self.proc = subprocess.Popen(built("velmarctl") + ["watch", "--seconds",
                                         str(int(seconds * TIME_SCALE))], env=_run_env(root),
                                         stdout=out)

    def task_status(self):
        return [l for l in read(self.out_path).splitlines() if l.startswith("task-status")]

    def stop(self):
        self.proc.terminate()
        self.proc.wait(timeout=10)


def make_recording(root, seconds, start=1700000000, large=False, h265=False, audio=False):
    """A frame-store recording of ffmpeg's test source (H.264, or H.265 with a G.711 tone and an
    info frame a second) on the profile's partition; returns its virtual name and velmar-mkrec's
    counts. large adds noise at 12 Mbit/s, so that it is 1.5 MB a second."""
    es, alaw = root.under("/src.es"), root.under("/src.alaw")
    source = "testsrc=size=640x480:rate=25" + (",noise=alls=60:allf=t" if large else "")
    codec = (["libx265", "-x265-params", "log-level=none", "-bsf:v", "hevc_mp4toannexb", "-f",
              "hevc"] if h265 else ["libx264", "-bsf:v", "h264_mp4toannexb", "-f", "h264"])
    quality = ["-b:v", "12M", "-maxrate", "12M", "-bufsize", "12M"] if large else []
    ffmpeg = ["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-t", str(seconds), "-i"]
    subprocess.run(ffmpeg + [source, "-g", "50", "-c:v"] + codec[:1] + quality + codec[1:] + [es],
                   check=True)
    options = ["--codec", "h265" if h265 else "h264", "--fps", "25", "--resolution", "3",
               "--start", str(start)]
    if audio:
        subprocess.run(ffmpeg + ["sine=frequency=440:sample_rate=8000", "-f", "alaw", alaw],
                       check=True)
        options += ["--audio", alaw, "--audio-codec", "g711a", "--info-every", "1"]
    part = root.under("/mnt/sd1/record")
    os.makedirs(part, exist_ok=True)
    made = subprocess.run(built("velmar-mkrec") + options +
                          [es, os.path.join(part, "0001_0000000a.vfs")],
                          check=True, capture_output=True, text=True).stdout
    info = dict(line.split("=", 1) for line in made.split())
    return "/0001_0000000a_1_%d_%d_1_%s.avi" % (start, start + seconds, info["record_size"]), info


def velmar_avi(root, name, out):
    subprocess.run(built("velmar-avi") + [name, out], env=_run_env(root),
                   check=True, capture_output=True)


def probe(path):
    """ffprobe's view of path read along its index (-fflags +sortdts: the recorder's "00tm" time
    chunks in the movi list are not packets), streams keyed by type, and ffmpeg's decoding
    errors (empty when every frame decodes)."""
    sortdts = ["-v", "error", "-fflags", "+sortdts"]
    shown = json.loads(subprocess.run(["ffprobe"] + sortdts + ["-count_packets", "-show_format",
                                      "-show_streams", "-of", "json", path],
                                      check=True, capture_output=True, text=True).stdout)
    decoded = subprocess.run(["ffmpeg"] + sortdts + ["-i", path, "-f", "null", "-"],
                             capture_output=True, text=True)
    streams = {s["codec_type"]: s for s in shown["streams"]}
    return streams, float(shown["format"]["duration"]), decoded.stderr + str(decoded.returncode)
