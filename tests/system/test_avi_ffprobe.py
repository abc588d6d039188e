"""Real video through the AVI stream: a 4 s 640x480 25 fps H.265 recording with G.711 audio and
info frames, made from ffmpeg's test sources, packed by velmar-mkrec, written by velmar-avi and
checked with ffprobe and ffmpeg. (H.264 is checked the same way by the resume test.)

The movi list carries the recorder's own "00tm" time chunks after every frame. A demuxer that
scans the movi list chunk by chunk takes them for stream-0 packets, so the checks of packets and
decoding read the file the way its idx1 index describes it (-fflags +sortdts makes ffmpeg's AVI
demuxer follow the index)."""
import json
import os
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(__file__))
from harness import BUILD_DIR  # noqa: E402

START = 1700000000


def run(cmd, **kw):
    return subprocess.run(cmd, check=True, capture_output=True, text=True, timeout=300, **kw)


def main():
    if shutil.which("ffmpeg") is None or shutil.which("ffprobe") is None:
        print("ffmpeg/ffprobe missing")
        return 1
    root = tempfile.mkdtemp(prefix="velmar-avi-")
    try:
        part = os.path.join(root, "mnt", "rec")
        os.makedirs(part)
        os.makedirs(os.path.join(root, "etc", "velmar"))
        with open(os.path.join(root, "etc", "velmar", "recorder.xml"), "w") as f:
            f.write('<recorder>\n  <device type="3"/>\n'
                    '  <partition list="15" id="1" path="%s"/>\n</recorder>\n' % part)
        env = dict(os.environ, VELMAR_ROOT=root)
        es = os.path.join(root, "x.h265")
        alaw = os.path.join(root, "a.alaw")
        run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=640x480:rate=25",
             "-t", "4", "-c:v", "libx265", "-x265-params", "log-level=none", "-g", "25",
             "-bsf:v", "hevc_mp4toannexb", "-f", "hevc", es])
        run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=8000",
             "-t", "4", "-f", "alaw", "-ar", "8000", "-ac", "1", alaw])
        made = run([os.path.join(BUILD_DIR, "velmar-mkrec"), "--codec", "h265", "--fps", "25",
                    "--resolution", "3", "--start", str(START + 100), "--audio", alaw,
                    "--audio-codec", "g711a", "--info-every", "1", es,
                    os.path.join(part, "0001_0000000b.vfs")]).stdout
        info = dict(line.split("=", 1) for line in made.split())
        assert (info["video_frames"], info["audio_frames"], info["info_frames"]) == \
            ("100", "100", "4"), made
        out = os.path.join(root, "h265.avi")
        run([os.path.join(BUILD_DIR, "velmar-avi"), "/0001_0000000b_1_%d_%d_1_0.avi"
             % (START + 100, START + 104), out], env=env)
        probe = json.loads(run(["ffprobe", "-v", "error", "-fflags", "+sortdts", "-count_packets",
                                "-show_streams", "-of", "json", out]).stdout)
        kinds = {s["codec_type"]: s for s in probe["streams"]}
        v, a = kinds["video"], kinds["audio"]
        assert (v["codec_name"], v["width"], v["height"]) == ("hevc", 640, 480), v
        assert v["avg_frame_rate"] == "25/1" and int(v["nb_read_packets"]) == 100, v
        assert (a["codec_name"], a["sample_rate"]) == ("pcm_s16le", "8000"), a
        dec = subprocess.run(["ffmpeg", "-v", "error", "-fflags", "+sortdts", "-i", out,
                              "-map", "0:v", "-f", "null", "-"],
                             capture_output=True, text=True, timeout=300)
        assert dec.returncode == 0 and dec.stderr.strip() == "", dec.stderr[:2000]
        print("h265 with audio and info frames: %d bytes, decodes cleanly" % os.path.getsize(out))
        return 0
    finally:
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
