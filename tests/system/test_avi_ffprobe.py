"""Real video through the AVI stream: 4 s of 640x480 25 fps H.265 with G.711 audio and info
frames, from ffmpeg's test sources, packed by velmar-mkrec, written by velmar-avi and read back
by ffprobe and ffmpeg. (H.264 is checked the same way by the resume test.)"""
import unittest

from harness import SandboxRoot, make_recording, probe, velmar_avi


class AviTest(unittest.TestCase):
    def test_h265_with_audio_and_info_frames(self):
        root = SandboxRoot()
        self.addCleanup(root.remove)
        name, made = make_recording(root, 4, h265=True, audio=True)
        self.assertEqual((made["video_frames"], made["audio_frames"], made["info_frames"]),
                         ("100", "100", "4"))
        velmar_avi(root, name, root.under("/h265.avi"))
        streams, duration, errors = probe(root.under("/h265.avi"))
        v, a = streams["video"], streams["audio"]
        self.assertEqual((v["codec_name"], v["width"], v["height"], v["avg_frame_rate"],
                          v["nb_read_packets"], a["codec_name"], a["sample_rate"], errors),
                         ("hevc", 640, 480, "25/1", "100", "pcm_s16le", "8000", "0"))
        self.assertAlmostEqual(duration, 4.0, delta=0.05)


if __name__ == "__main__":
    unittest.main()
