"""tremor-farm on a local cluster of several workers gives the whole render's pictures, timestamps
and audio, also when a worker dies in the middle of a chunk."""

import os
import shutil
import signal
import subprocess
import sys
import time
import unittest

import psutil

BUILD = os.environ["TD_BUILD_DIR"]
TMP = os.environ["TD_TEST_TMP"]
FARM = [sys.executable, os.path.join(BUILD, "tremor-farm")]
RENDER = os.path.join(BUILD, "tremor-render")
EFFECT = ["--frames", "12", "--frames-offset", "1.5"]


def framemd5(path, stream):
    """Pictures decoded, audio packets as stored: each with its timestamps."""
    codec = ["-c", "copy"] if stream == "a" else []
    out = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-map", f"0:{stream}", *codec, "-f", "framemd5", "-"],
                         capture_output=True, text=True, check=True).stdout
    return [line for line in out.splitlines() if not line.startswith("#")]


class FarmTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        shutil.rmtree(TMP, ignore_errors=True)
        os.makedirs(TMP)
        cls.clip = os.path.join(TMP, "clip.mp4")
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=s=160x90:r=25:d=3", "-f", "lavfi",
                        "-i", "sine=f=440:d=3", "-c:v", "libx264", "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest",
                        cls.clip], check=True)

    def farm_equals_whole(self, name, farm_args, during=None):
        whole, farmed = os.path.join(TMP, f"whole-{name}.mkv"), os.path.join(TMP, f"{name}.mkv")
        range_ = ["--start", "5", "--end", "66"]
        subprocess.run([RENDER, self.clip, "-o", whole, *EFFECT, *range_, "-q"], check=True)
        farm = subprocess.Popen([*FARM, self.clip, "-o", farmed, *EFFECT, *range_, "--chunk-frames", "8",
                                 *farm_args], stderr=subprocess.PIPE, text=True)
        if during:
            during(farm)
        _, err = farm.communicate(timeout=500)
        self.assertEqual(farm.returncode, 0, err)
        self.assertIn("62 frames in 8 chunks", err)
        for stream in "va":
            self.assertEqual(framemd5(farmed, stream), framemd5(whole, stream), stream)
        self.assertEqual([f for f in os.listdir(TMP) if f.startswith(".")], [])  # no chunk left behind

    def test_WholeRender(self):
        self.farm_equals_whole("three", ["--workers", "3"])
        # A bad command line stops before any cluster, with one line and nothing written.
        bad = subprocess.run([*FARM, self.clip, "-o", os.path.join(TMP, "bad.mkv"), "--frames", "99"],
                             capture_output=True, text=True)
        self.assertEqual(bad.returncode, 2)
        self.assertEqual(bad.stderr, "tremor-farm: --frames: value 99 is outside 3..50 (see --help)\n")
        self.assertFalse(os.path.exists(os.path.join(TMP, "bad.mkv")))

    def test_WorkerKilledMidChunk(self):
        killed = []

        def kill_a_worker(farm):
            # The first chunk render seen, by its output in the farm's hidden folder (the farm's own
            # checks run tremor-render too, and a sanitized one has a child of its own): its worker
            # goes, which takes the render with it.
            deadline = time.monotonic() + 120
            while not killed and time.monotonic() < deadline:
                for p in psutil.Process(farm.pid).children(recursive=True):
                    try:
                        chunk = p.name() == "tremor-render" and any(".tremor-farm-" in a for a in p.cmdline())
                        chunk = chunk and p.parent().name() != "tremor-render"
                    except psutil.NoSuchProcess:
                        continue
                    if chunk:
                        worker = p.parent()
                        worker.send_signal(signal.SIGKILL)
                        killed.append(p)
                        break
                time.sleep(0.01)
            self.assertTrue(killed, "no chunk render seen")
            killed[0].wait(timeout=30)  # gone with its worker, unfinished

        self.farm_equals_whole("killed", ["--workers", "3"], during=kill_a_worker)


if __name__ == "__main__":
    unittest.main()
