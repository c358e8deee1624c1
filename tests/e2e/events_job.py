"""A program that watches folders in the mount hears of what the owner does: all of it, soon, once."""
import collections
import contextlib
import ctypes
import json
import os
import pathlib
import random
import select
import struct
import subprocess
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(__file__))
from posix_job import PosixCase  # noqa: E402
from share import mounted, run, wait_for  # noqa: E402

BOUND = 0.5 * float(os.environ.get("FODR_TEST_PATIENCE", 1))
QUIET = 0.4  # for so long nothing more may come
WATCHED = 0.4  # until a folder that was just found is watched

NAMES = {0x2: "MODIFY", 0x4: "ATTRIB", 0x8: "CLOSE_WRITE", 0x40: "MOVED_FROM", 0x80: "MOVED_TO", 0x100: "CREATE",
         0x200: "DELETE"}
LIBC = ctypes.CDLL(None, use_errno=True)
Event = collections.namedtuple("Event", "folder kind name cookie")


# Grows a file and uses what it has mapped of it.
MAPPING = """
import mmap, os, sys, time
time.sleep(float(sys.argv[2]))
file = os.open(sys.argv[1], os.O_RDWR)
os.pwrite(file, bytes(4096), 28672)
memory, end = mmap.mmap(file, 32768), time.monotonic() + 0.1
while time.monotonic() < end:
    assert memory[30000] == 0 and len(os.pread(file, 4096, 28672)) == 4096 and os.fstat(file).st_size == 32768
"""


class Watcher:
    """inotify, as a watching program uses it: walks the folders once, and then only reads events."""

    def __init__(self, *folders):
        self.fd = LIBC.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        self.folders = {}
        for folder in folders:
            os.listdir(folder)
            number = LIBC.inotify_add_watch(self.fd, os.fsencode(folder), sum(NAMES))
            assert number >= 0, os.strerror(ctypes.get_errno())
            self.folders[number] = pathlib.Path(folder).name
        time.sleep(WATCHED)

    def close(self):
        os.close(self.fd)

    def read(self, timeout):
        events = []
        if select.select([self.fd], [], [], timeout)[0]:
            data, at = os.read(self.fd, 1 << 20), 0
            while at < len(data):
                number, mask, cookie, length = struct.unpack_from("iIII", data, at)
                name = data[at + 16:at + 16 + length].rstrip(b"\0").decode()
                at += 16 + length
                assert not mask & 0x4000, "the queue ran over"
                events += [Event(self.folders.get(number), kind, name, cookie) for bit, kind in NAMES.items() if mask & bit]
        return events

    def gather(self, enough):
        """The events until there are enough, then those that come in a quiet while; and when there were enough."""
        events, begun, met = [], time.monotonic(), None
        while True:
            if met is None and enough(events):
                met = time.monotonic() - begun
            last = time.monotonic()
            fresh = self.read(QUIET if met is not None else BOUND)
            events += fresh
            if not fresh and (met is not None or time.monotonic() - last >= BOUND):
                return events, met


def spelled(events):
    """"folder/KIND name" without the cookies, which number moves anew each time."""
    return [f"{event.folder}/{event.kind} {event.name}" for event in events]


class Events(PosixCase):
    def watch(self, *folders):
        watcher = Watcher(*folders)
        self.addCleanup(watcher.close)
        return watcher

    def expect(self, watcher, action, wanted):
        """Each of `wanted` comes in time, and nothing comes twice."""
        action()
        counted = collections.Counter(wanted)
        events, met = watcher.gather(lambda events: not counted - collections.Counter(spelled(events)))
        self.assertIsNotNone(met, f"missing {counted - collections.Counter(spelled(events))} in {spelled(events)}")
        self.assertLessEqual(met, BOUND, spelled(events))
        self.assertEqual(collections.Counter(spelled(events)) - counted, collections.Counter(), "more than happened")
        return events

    def asked(self, kind):
        out = run("status", "--traffic", "--json", env=self.scratch.environment).stdout
        return {row["kind"]: row["packets"] for row in json.loads(out.splitlines()[-1])}.get(kind, 0)

    def tree(self):
        """What the owner has: names, kinds, bytes, times."""
        return {str(path.relative_to(self.local)): (os.lstat(path).st_mode, os.lstat(path).st_ino, os.lstat(path).st_mtime_ns,
                                                    path.read_bytes() if path.is_file() and not path.is_symlink() else None)
                for path in self.local.rglob("*")}

    def test_each_kind_of_change_comes_once(self):
        local, mount, away = self.local, self.mount, self.local / "c/d/e"  # which nobody in the mount has seen
        away.mkdir(parents=True)
        (local / "a").mkdir()
        (local / "b").mkdir()
        (local / "a/kept").write_text("kept")
        (local / "a/dir").mkdir()
        (local / "a/dir/inside").write_text("x")

        # Each is one step: what takes two may be seen, and told, as two.
        def make():
            (away / "new").write_text("content")
            os.rename(away / "new", local / "a/new")

        def write(mode, text):
            with open(local / "a/new", mode) as file:
                file.write(text)

        def replace():
            (local / "b/beside").write_text("another")
            os.rename(local / "b/beside", local / "a/kept")

        cases = {
            "make": (make, ["a/CREATE new", "a/MODIFY new", "a/CLOSE_WRITE new"]),
            "make an empty one": (lambda: (local / "a/empty").touch(), ["a/CREATE empty", "a/CLOSE_WRITE empty"]),
            "append": (lambda: write("a", "more"), ["a/MODIFY new", "a/CLOSE_WRITE new"]),
            "overwrite": (lambda: write("r+", "CONTENT"), ["a/MODIFY new", "a/CLOSE_WRITE new"]),
            "mode": (lambda: os.chmod(local / "a/new", 0o600), ["a/ATTRIB new"]),
            "times": (lambda: os.utime(local / "a/new", (1e9, 1e9)), ["a/ATTRIB new"]),
            "replace": (replace, ["a/MOVED_TO kept"]),
            "link": (lambda: os.symlink("kept", local / "a/link"), ["a/CREATE link"]),
            "fifo": (lambda: os.mkfifo(local / "a/fifo"), ["a/CREATE fifo"]),
            "folder": (lambda: os.mkdir(local / "a/sub"), ["a/CREATE sub"]),
            "rename": (lambda: os.rename(local / "a/new", local / "a/newer"), ["a/MOVED_FROM new", "a/MOVED_TO newer"]),
            "rename over": (lambda: os.rename(local / "a/newer", local / "a/empty"),
                            ["a/MOVED_FROM newer", "a/MOVED_TO empty"]),
            "move": (lambda: os.rename(local / "a/empty", local / "b/moved"), ["a/MOVED_FROM empty", "b/MOVED_TO moved"]),
            "move a folder": (lambda: os.rename(local / "a/dir", local / "b/dir"), ["a/MOVED_FROM dir", "b/MOVED_TO dir"]),
            "move a folder away": (lambda: os.rename(local / "b/dir", away / "dir"), ["b/DELETE dir"]),
            "move it back": (lambda: os.rename(away / "dir", local / "b/dir"), ["b/CREATE dir"]),
            "remove": (lambda: os.unlink(local / "b/moved"), ["b/DELETE moved"]),
            "remove a link": (lambda: os.unlink(local / "a/link"), ["a/DELETE link"]),
            "remove a folder": (lambda: os.rmdir(local / "a/sub"), ["a/DELETE sub"]),
        }
        with self.share():
            watcher = self.watch(mount / "a", mount / "b")
            for what, (action, wanted) in cases.items():
                with self.subTest(what):
                    events = self.expect(watcher, action, wanted)
                    cookies = [event.cookie for event in events if event.kind in ("MOVED_FROM", "MOVED_TO")]
                    self.assertEqual(len(set(cookies)), min(len(cookies), 1))
                    for name in "ab":
                        self.assertEqual(sorted(os.listdir(mount / name)), sorted(os.listdir(local / name)))
            # A folder that seemed to be gone lives on.
            (mount / "b/dir/made").write_text("in the mount")
            self.assertEqual((local / "b/dir/made").read_text(), "in the mount")
            self.assertEqual((mount / "a/kept").read_text(), "another")
            before = self.tree()
            watcher.gather(lambda events: True)
            self.assertEqual(self.tree(), before)

    def test_several_shares_and_deep_folders(self):
        folders = [self.local / name for name in ("one", "two")]
        for folder in folders:
            (folder / "a/b/c").mkdir(parents=True)
            (folder / "a/b/c/f").write_text("old")
        with self.share(folders=folders):
            mounts = [next(path for path in self.mount.iterdir() if folder.name in path.name) for folder in folders]
            for folder, mount in zip(folders, mounts):
                watcher = self.watch(mount / "a/b/c")

                def replace():
                    (folder / "new").write_text("new")
                    os.rename(folder / "new", folder / "a/b/c/f")
                self.expect(watcher, replace, ["c/MOVED_TO f"])
                self.assertEqual((mount / "a/b/c/f").stat().st_ino, (folder / "a/b/c/f").stat().st_ino)
                self.assertEqual((mount / "a/b/c/f").read_text(), "new")
                self.expect(watcher, (folder / "a/b/c/f").unlink, ["c/DELETE f"])
                self.assertEqual(sorted(os.listdir(mount)), ["a"])
                self.assertFalse((mount / ".fodr-deleted-events").exists())

    def test_programs_that_look_and_stand_there_meanwhile_see_the_files(self):
        for name in ("held", "work"):
            (self.local / name).mkdir()
        with self.share():
            watcher = self.watch(self.mount)
            stop, wrong = threading.Event(), []

            def look():
                while not stop.is_set():
                    for name in os.listdir(self.local):
                        with contextlib.suppress(OSError):
                            content = (self.mount / name).read_bytes()
                            if content != b"x" * min(len(content), 5000):
                                wrong.append((name, content[:100]))

            lookers = [threading.Thread(target=look) for _ in range(2)]
            for looker in lookers:
                looker.start()
            folder = os.open(self.mount / "held", os.O_RDONLY | os.O_DIRECTORY)
            try:
                def act():
                    for number in range(40):
                        (self.local / f"f{number}").write_bytes(b"x" * 5000)
                    os.rename(self.local / "held", self.local / "moved")
                act()
                names = {f"{self.mount.name}/CREATE f{number}" for number in range(40)}
                events, met = watcher.gather(lambda events: names <= set(spelled(events)))
                self.assertIsNotNone(met, names - set(spelled(events)))
                made = [text for text in spelled(events) if "CREATE" in text]
                self.assertEqual(len(made), len(set(made)))
                fd = os.open("inside", os.O_CREAT | os.O_WRONLY, dir_fd=folder)
                os.close(fd)
                self.assertEqual(os.listdir(self.local / "moved"), ["inside"])
            finally:
                stop.set()
                for looker in lookers:
                    looker.join()
                os.close(folder)
            self.assertEqual(wrong, [])
            for number in range(40):
                self.assertEqual((self.mount / f"f{number}").read_bytes(), b"x" * 5000)

    def test_a_thousand_files(self):
        (self.local / "many").mkdir()
        with self.share():
            watcher = self.watch(self.mount / "many")
            names = [f"file-{number}" for number in range(1000)]

            def make():
                for name in names:
                    (self.local / "many" / name).touch()

            def remove():
                for name in names:
                    (self.local / "many" / name).unlink()

            self.expect(watcher, make, [f"many/{kind} {name}" for name in names for kind in ("CREATE", "CLOSE_WRITE")])
            before = self.tree()
            self.expect(watcher, remove, [f"many/DELETE {name}" for name in names])
            self.assertEqual(len(before), 1001)
            self.assertEqual(os.listdir(self.local / "many"), [])

    def test_what_the_mount_itself_does_comes_from_the_kernel_alone(self):
        with self.share():
            watcher = self.watch(self.mount)
            top = self.mount.name
            rng = random.Random(1)

            def work():
                for number in range(30):
                    path = self.mount / f"own{number}"
                    path.write_text("content")
                    time.sleep(rng.random() * 0.02)
                    with open(path, "a") as file:
                        file.write("more")
                    os.rename(path, self.mount / f"renamed{number}")
                    (self.mount / f"dir{number}").mkdir()
                    time.sleep(rng.random() * 0.02)
                    (self.mount / f"renamed{number}").unlink()
                    (self.mount / f"dir{number}").rmdir()

            wanted = []
            for number in range(30):
                wanted += [f"{top}/{text}{number}" for text in
                           ("CREATE own", "MODIFY own", "CLOSE_WRITE own", "MODIFY own", "CLOSE_WRITE own", "MOVED_FROM own",
                            "MOVED_TO renamed", "CREATE dir", "DELETE renamed", "DELETE dir")]
            self.expect(watcher, work, wanted)
            # Looking for the owner's changes among them costs little.
            asked, begun, calls = self.asked("CREATE"), time.monotonic(), 0
            while time.monotonic() < begun + 1:
                os.utime(self.mount, (5, calls))
                (self.mount / "x").touch()
                (self.mount / "x").unlink()
                calls += 3
            self.assertLess(self.asked("CREATE") - asked - calls, 12 * (time.monotonic() - begun))
            watcher.gather(lambda events: True)
            # The owner's files in the same folder aren't taken for the mount's.
            (self.mount / "mine").write_text("x")
            watcher.gather(lambda events: True)
            self.expect(watcher, lambda: (self.local / "theirs").touch(), [f"{top}/CREATE theirs", f"{top}/CLOSE_WRITE theirs"])

    def test_what_a_program_has_mapped_stays(self):
        # The owner's event comes with a size that was true before the program gave the file another.
        with self.share():
            watcher, seen = self.watch(self.mount), []
            for number in range(30):
                with self.subTest(number), open(self.local / f"f{number}", "w+b", buffering=0) as owners:
                    wait_for((self.mount / f"f{number}").exists, "the file")
                    program = subprocess.Popen([sys.executable, "-c", MAPPING, str(self.mount / f"f{number}"),
                                                str(number % 10 / 250)])
                    while program.poll() is None:
                        os.pwrite(owners.fileno(), b"owner", 0)
                        seen += watcher.read(0.002)
                    self.assertEqual(program.returncode, 0)
            self.assertIn("CREATE", {event.kind for event in seen})

    def test_a_log_that_is_written_here_is_rotated_there(self):
        with self.share():
            log = self.mount / "log"
            with open(log, "w", buffering=1) as writer:
                print("first", file=writer)
                watcher, top = self.watch(self.mount), self.mount.name

                def rotate():
                    os.rename(self.local / "log", self.local / "log.1")
                    (self.local / "log").touch()

                self.expect(watcher, rotate, [f"{top}/{text}" for text in
                                              ("MOVED_FROM log", "MOVED_TO log.1", "CREATE log", "CLOSE_WRITE log")])
                print("second", file=writer)
            self.assertEqual((self.local / "log.1").read_text(), "first\nsecond\n")
            self.assertEqual(log.read_bytes(), b"")

    def test_none_without_events_and_none_where_nothing_can_be_changed(self):
        for option in ("--agent-option=--no-events", "--read-only"):
            with self.subTest(option), self.share(option):
                watcher = self.watch(self.mount)
                (self.local / option).touch()
                wait_for((self.mount / option).exists, "the file")
                self.assertEqual(watcher.gather(lambda events: True)[0], [])

    def test_the_mount_ends_while_events_are_told(self):
        for how in ("signal", "umount", "kill"):
            for round_number in range(3):
                with self.subTest(how, round=round_number):
                    folder = self.local / f"{how}{round_number}"
                    share = self.share()
                    share.__enter__()
                    folder.mkdir()
                    watcher = self.watch(self.mount)
                    stop = threading.Event()

                    def churn():
                        number = 0
                        while not stop.is_set():
                            number += 1
                            (self.local / f"c{number % 50}").write_text(str(number))
                            with contextlib.suppress(OSError):
                                (self.local / f"c{(number + 25) % 50}").unlink()

                    worker = threading.Thread(target=churn)
                    worker.start()
                    try:
                        wait_for(lambda: watcher.read(0.1), "an event")
                        time.sleep(0.05 * round_number)
                        if how == "signal":
                            share.__exit__(None, None, None)
                        elif how == "umount":
                            wait_for(lambda: subprocess.run(["fusermount3", "-u", str(self.mount)],
                                                            capture_output=True).returncode == 0, "the unmounting")
                            share.process.wait(60)
                            share.__exit__(None, None, None)
                        else:
                            os.kill(share.agent_pid(), 9)
                            share.process.wait(60)
                            subprocess.run(["fusermount3", "-uz", str(self.mount)], capture_output=True)
                    finally:
                        stop.set()
                        worker.join()
                    self.assertFalse(mounted(self.mount))
                    self.assertEqual(os.listdir(self.mount), [], "acted in the folder below the mount")


if __name__ == "__main__":
    unittest.main(verbosity=2)
