"""fodr.exe shares a folder of its drive C, and the Linux agent mounts it: Wine is the other machine.

FODR_BIN is the Linux build, FODR_EXE the Windows one. A display is wanted: without one the hidden window of the
drive watcher can't be made, and Windows always has one."""
import filecmp
import os
import pathlib
import random
import shutil
import subprocess
import tempfile
import unittest

import share

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXE = os.environ["FODR_EXE"]
PREFIX = pathlib.Path(os.environ.get("WINEPREFIX", ROOT / "build/windows/wine"))


def windows(*arguments, **options):
    return subprocess.Popen([ROOT / "script/wine", EXE, *map(str, arguments)], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)


class WindowsShare(unittest.TestCase):
    def setUp(self):
        self.local = pathlib.Path(tempfile.mkdtemp(prefix="fodr-e2e-", dir=PREFIX / "drive_c"))
        self.folder = "C:\\" + self.local.name
        self.mount = pathlib.Path(tempfile.mkdtemp(prefix="fodr-e2e-mount-"))
        self.port = share.free_port()
        self.running = []

    def tearDown(self):
        for process in self.running:
            process.kill()
            process.communicate()
        subprocess.run(["fusermount3", "-uzq", str(self.mount)], capture_output=True)
        shutil.rmtree(self.local, ignore_errors=True)
        self.mount.rmdir()

    def start(self, process):
        self.running.append(process)
        return process

    def agent(self, *arguments):
        return self.start(subprocess.Popen([share.FODR, "agent", *map(str, arguments), str(self.mount)],
                                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                           stderr=subprocess.STDOUT, text=True))

    def listening_agent(self):
        process = self.agent("--listen", f"127.0.0.1:{self.port}")
        share.wait_for(lambda: share.listens(self.port), "the agent's port")  # which takes the first peer for its host
        return process

    def await_mount(self):
        share.wait_for(lambda: share.mounted(self.mount), "the mount")

    def test_files_are_the_same_on_both_sides(self):
        random.seed(7)
        (self.local / "sub" / "deep").mkdir(parents=True)
        (self.local / "sub" / "big.bin").write_bytes(random.randbytes(9_000_001))
        (self.local / "sub" / "deep" / "Größe 資料.txt").write_text("words", encoding="utf-8")
        for number in range(600):
            (self.local / "sub" / f"file {number}.txt").write_text(str(number))
        self.listening_agent()
        self.start(windows("share", self.folder, "--tcp", f"127.0.0.1:{self.port}"))
        self.await_mount()

        def compare(comparison):
            self.assertEqual((comparison.left_only, comparison.right_only, comparison.funny_files), ([], [], []))
            same, different, errors = filecmp.cmpfiles(comparison.left, comparison.right, comparison.common_files,
                                                       shallow=False)
            self.assertEqual((different, errors), ([], []))
            for below in comparison.subdirs.values():
                compare(below)

        compare(filecmp.dircmp(self.local, self.mount))
        # And back: what this side makes, changes, renames and removes.
        (self.mount / "made" / "ünder").mkdir(parents=True)
        (self.mount / "made" / "ünder" / "big.bin").write_bytes(random.randbytes(5_000_003))
        shutil.copytree(self.mount / "sub" / "deep", self.mount / "made" / "copy")
        (self.mount / "made" / "copy").rename(self.mount / "made" / "moved")
        with open(self.mount / "sub" / "file 7.txt", "r+b") as file:
            file.seek(3)
            file.write(b"patch")
            file.truncate(6)
        with open(self.mount / "sub" / "file 8.txt", "a") as file:
            file.write(" more")
        (self.mount / "sub" / "file 9.txt").unlink()
        os.replace(self.mount / "sub" / "file 10.txt", self.mount / "sub" / "file 11.txt")
        os.utime(self.mount / "sub" / "file 12.txt", (1_600_000_000, 1_600_000_000))
        self.assertEqual((self.local / "sub" / "file 7.txt").read_bytes(), b"7\0\0pat")
        self.assertEqual((self.local / "sub" / "file 8.txt").read_text(), "8 more")
        self.assertEqual((self.local / "sub" / "file 11.txt").read_text(), "10")
        self.assertEqual((self.local / "sub" / "file 12.txt").stat().st_mtime, 1_600_000_000)
        compare(filecmp.dircmp(self.local, self.mount))
        # What its own side makes is seen without a remount.
        (self.local / "late.txt").write_text("late")
        share.wait_for(lambda: (self.mount / "late.txt").exists(), "a file of the sharing side")

    def test_a_command_runs_in_the_share_and_gives_its_status(self):
        (self.local / "a.txt").write_text("a")
        agent = self.listening_agent()
        command = self.start(windows("share", self.folder, "--tcp", f"127.0.0.1:{self.port}", "--", "cmd", "/c",
                                     f"type {self.folder}\\a.txt & exit 7"))
        output, _ = command.communicate(timeout=60)
        self.assertEqual(command.returncode, 7, output)
        self.assertIn("a", output)
        self.assertEqual(agent.wait(timeout=60), 0)
        self.assertFalse(share.mounted(self.mount))

    def test_a_running_share_is_asked_by_other_processes(self):
        other = self.local / "other"
        other.mkdir()
        (other / "b.txt").write_text("b")
        os.environ["FODR_TOKEN"] = "agreed"
        self.addCleanup(os.environ.pop, "FODR_TOKEN")
        host = self.start(windows("share", self.folder, "--listen", f"127.0.0.1:{self.port}", "--layout", "folders"))
        share.wait_for(lambda: share.listens(self.port), "the host's port")
        self.agent("--connect", f"127.0.0.1:{self.port}", "--layout", "folders")
        self.await_mount()
        name = self.local.name
        share.wait_for(lambda: (self.mount / name).exists(), "the first share")
        added = windows("add", self.folder + "\\other", "--name", "zwei")
        self.assertEqual(added.communicate(timeout=60)[0] and added.returncode, 0)
        self.assertEqual((self.mount / "zwei" / "b.txt").read_text(), "b")
        listed = windows("list", "--json").communicate(timeout=60)[0]
        self.assertIn("zwei", listed)
        removed = windows("remove", "zwei")
        removed.communicate(timeout=60)
        self.assertEqual(removed.returncode, 0)
        share.wait_for(lambda: not (self.mount / "zwei").exists(), "the removal")
        self.assertIsNone(host.poll())

    def test_this_side_can_not_be_mounted(self):
        for words in (["agent", "--stdio", "C:\\x"], ["share", self.folder, "--mount", "C:\\x"]):
            refused = windows(*words)
            output, _ = refused.communicate(timeout=60)
            self.assertEqual(refused.returncode, 8)
            self.assertIn("Windows", output)


if __name__ == "__main__":
    unittest.main(verbosity=2)
