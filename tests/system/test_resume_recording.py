"""The crash test of test_resume with a recording: the AVI stream generated anew at each start
must continue the server's copy exactly, and the result must be a valid AVI."""
import filecmp
import unittest

from harness import make_recording, probe, velmar_avi
import test_resume


class RecordingResumeTest(test_resume.ResumeTest):
    test_plain_file = None  # run by test_resume

    def test_recording(self):
        name, _ = make_recording(self.root, 12, large=True)
        expected = self.root.under("/expected.avi")
        velmar_avi(self.root, name, expected)
        self.send_kill_resume(name, "rec.avi", throttle=384 << 10, recording=True)
        self.assertTrue(filecmp.cmp(expected, self.remote("rec.avi"), shallow=False))
        streams, duration, errors = probe(self.remote("rec.avi"))
        video = streams["video"]  # 12 s at 25 fps, every frame decoded
        self.assertEqual((video["codec_name"], video["width"], video["height"],
                          video["nb_read_packets"], errors), ("h264", 640, 480, "300", "0"))
        self.assertAlmostEqual(duration, 12.0, delta=0.05)


if __name__ == "__main__":
    unittest.main()
