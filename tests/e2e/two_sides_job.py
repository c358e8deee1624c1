"""The owner works in the folder while others work in the mount: a file is not its name, on either side."""
import contextlib
import errno
import os
import pathlib
import shutil
import signal
import stat
import subprocess
import sys
import time
import unittest

from posix_job import PosixCase
from share import forget_names, mounted, wait_for

# What the owner changed, look-ups show after this time at the latest; opens and listings at once.
BOUND = 0.5 * float(os.environ.get("FODR_TEST_PATIENCE", 1))


def soon(look, what):
    """Looks until there is something to see. Only a look that began after the bound counts as a failure."""
    end = time.monotonic() + BOUND
    while True:
        late = time.monotonic() > end
        try:
            if look():
                return
            problem = None
        except OSError as error:
            problem = error
        if late:
            raise AssertionError(f"not seen in time: {what}; {problem}")
        time.sleep(0.002)


def replace(path, content):
    """As an editor saves: another file takes the name."""
    beside = path.with_name(path.name + ".new")
    beside.write_bytes(content)
    os.rename(beside, path)


class TwoSides(PosixCase):
    def open(self, path, flags=os.O_RDONLY, **options):
        """A descriptor that is closed after the test, before the mount goes."""
        fd = os.open(path, flags, 0o644, **options)
        self.opened.append(fd)
        return fd

    @contextlib.contextmanager
    def share(self, *arguments, **options):
        self.opened = []
        with super().share(*arguments, **options) as share:
            try:
                yield share
            finally:
                for fd in self.opened:
                    with contextlib.suppress(OSError):
                        os.close(fd)


class Replaced(TwoSides):
    """The owner puts another file in a file's place."""

    def test_the_new_file_is_read_whole_and_who_has_the_old_one_open_keeps_it(self):
        for seen in ("at once", "by name first"):
            versions = [b"old!\n", b"new content, longer\n", b"", b"x" * 10_000, b"short\n", b"y" * 4096, b"z" * 300_000]
            (self.local / "f").write_bytes(versions[0])
            with self.subTest(seen), self.share():
                held = []
                for version in versions:
                    replace(self.local / "f", version)
                    if seen != "at once":
                        soon(lambda: os.stat(self.mount / "f").st_size == len(version), "the size of the new file")
                    for fd, content in held:  # one that follows a file asks for its size all the time
                        self.assertEqual(os.fstat(fd).st_size, len(content))
                    self.assertEqual((self.mount / "f").read_bytes(), version)
                    for fd, content in held:
                        self.assertEqual(os.pread(fd, 1 << 20, 0), content)
                    held.append((self.open(self.mount / "f"), version))
                forget_names(self.mount)
                for fd, content in held:
                    self.assertEqual(os.pread(fd, 1 << 20, 0), content)

    def test_a_log_that_the_owner_rotates_goes_on_in_its_own_file(self):
        (self.local / "log").write_bytes(b"1\n")
        with self.share():
            writer = self.open(self.mount / "log", os.O_WRONLY | os.O_APPEND)
            reader = self.open(self.mount / "log")
            os.write(writer, b"2\n")
            os.fsync(writer)
            self.assertEqual(os.read(reader, 100), b"1\n2\n")
            os.rename(self.local / "log", self.local / "log.1")
            (self.local / "log").write_bytes(b"first of the new log\n")
            self.assertEqual((self.mount / "log").read_bytes(), b"first of the new log\n")
            os.fstat(reader)
            os.write(writer, b"3\n")
            with open(self.mount / "log", "ab") as later:
                later.write(b"second\n")
            os.fsync(writer)
            self.assertEqual((self.local / "log").read_bytes(), b"first of the new log\nsecond\n")
            self.assertEqual((self.local / "log.1").read_bytes(), b"1\n2\n3\n")
            self.assertEqual((self.mount / "log.1").read_bytes(), b"1\n2\n3\n")
            self.assertEqual(os.read(reader, 100), b"3\n")

    def test_one_who_follows_a_name_sees_the_rotation(self):
        (self.local / "log").write_bytes(b"before\n")
        with self.share():
            number = os.stat(self.mount / "log").st_ino
            with open(self.scratch.root / "seen", "w+b") as seen:
                tail = subprocess.Popen(["tail", "-n", "+1", "---disable-inotify", "-s", "0.02", "-F", self.mount / "log"],
                                        stdout=seen, stderr=subprocess.DEVNULL)
                self.addCleanup(tail.wait)
                self.addCleanup(tail.kill)
                shown = pathlib.Path(seen.name).read_bytes
                try:
                    wait_for(lambda: shown() == b"before\n", "the first line")
                    replace(self.local / "log", b"behind\n")  # of the same size
                    soon(lambda: os.stat(self.mount / "log").st_ino != number, "another file's number")
                    wait_for(lambda: shown() == b"before\nbehind\n", "the line of the new log", 5)
                finally:
                    tail.kill()
                    tail.wait()

    def test_a_program_that_is_replaced_while_it_runs_goes_on(self):
        shutil.copy(os.path.realpath(sys.executable), self.local / "program")
        script = "print('up', flush=True); input(); import decimal, json, sqlite3, xml.dom.minidom; print(json.dumps([1]))"
        with self.share():
            with subprocess.Popen([self.mount / "program", "-c", script], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  env={**os.environ, "PYTHONHOME": sys.base_prefix}) as program:
                try:
                    self.assertEqual(program.stdout.readline(), b"up\n")
                    replace(self.local / "program", b"#!/bin/sh\n")
                    soon(lambda: os.stat(self.mount / "program").st_size == 10, "the new program")
                    self.assertEqual(program.communicate(b"\n", timeout=60)[0], b"[1]\n")
                    self.assertEqual(program.returncode, 0)
                finally:
                    program.kill()

    def test_a_file_that_moved_is_removed_under_its_new_name(self):
        (self.local / "f").write_bytes(b"moved")
        with self.share():
            held = self.open(self.mount / "f")
            os.rename(self.local / "f", self.local / "g")
            soon(lambda: os.stat(self.mount / "g"), "the new name")
            os.unlink(self.mount / "g")
            self.assertEqual(os.listdir(self.local), [])
            for name in "fg":
                (self.mount / name).write_bytes(b"again")
                self.assertEqual((self.local / name).read_bytes(), b"again")
            self.assertEqual(os.pread(held, 10, 0), b"moved")
            self.assertEqual(os.fstat(held).st_nlink, 0)


class Folders(TwoSides):
    def test_a_folder_that_was_made_anew_shows_what_is_in_it(self):
        for change in ("rm -rf dist; mkdir dist", "mv dist x; mkdir dist", "mkdir new; mv -T dist x; mv -T new dist"):
            with self.subTest(change), self.share():
                os.mkdir(self.mount / "dist")
                (self.mount / "dist" / "old").write_bytes(b"1")
                os.listdir(self.mount / "dist")
                self.assertFails(errno.ENOENT, open, self.mount / "dist" / "none")
                self.shell(f"{change}; echo 2 >dist/new; echo 3 >dist/none", self.local)
                for name in ("new", "none"):
                    soon(lambda: os.stat(self.mount / "dist" / name), name)
                self.assertEqual((self.mount / "dist" / "new").read_bytes(), b"2\n")
                self.assertEqual(sorted(os.listdir(self.mount / "dist")), ["new", "none"])
                self.assertFalse((self.mount / "dist" / "old").exists())
                if "mv" in change:
                    self.assertEqual(os.listdir(self.mount / "x"), ["old"])
                    self.assertEqual((self.mount / "x" / "old").read_bytes(), b"1")
                self.shell("rm -rf dist x", self.mount)
                self.assertEqual(os.listdir(self.local), [])

    def test_a_folder_is_gone_when_its_removal_says_so(self):
        with self.share():
            folder, mine = self.mount / "d", self.local / "d"
            for round_ in range(10):
                os.mkdir(folder)
                (folder / "f").touch()
                self.assertFalse((folder / "none").exists())
                forget_names(self.mount)
                os.unlink(folder / "f")
                os.rmdir(folder)
                self.assertFalse(mine.exists(), round_)
            os.mkdir(folder)
            self.assertFalse((folder / "none").exists())
            os.rename(mine, self.local / "d2")
            soon(lambda: os.stat(self.mount / "d2"), "the new name")
            os.rmdir(self.mount / "d2")
            self.assertEqual(os.listdir(self.local), [])

    def test_a_repository_is_removed_after_its_names_were_forgotten(self):
        with self.share():
            self.shell("""git init -q r && cd r && for n in $(seq 20); do mkdir d$n; echo $n >d$n/f; done && git add . &&
                git -c user.name=n -c user.email=e commit -qm one && git status --porcelain""", self.mount)
            forget_names(self.mount)
            self.shell("rm -rf r; mkdir r; rmdir r", self.mount)
            self.assertEqual(os.listdir(self.local), [])

    def test_who_stands_in_a_folder_goes_with_it(self):
        os.makedirs(self.local / "a" / "in")
        (self.local / "a" / "in" / "f").write_bytes(b"of a")
        with self.share():
            here = self.open(self.mount / "a" / "in", os.O_RDONLY | os.O_DIRECTORY)

            def read(name):
                return os.read(self.open(name, dir_fd=here), 100)

            self.assertEqual(read("f"), b"of a")
            self.shell("mv a b; mkdir -p a/in; echo other >a/in/f", self.local)
            self.assertEqual(read("f"), b"of a")
            self.open("made", os.O_CREAT | os.O_WRONLY, dir_fd=here)
            self.assertEqual(sorted(os.listdir(self.local / "b" / "in")), ["f", "made"])
            soon(lambda: (self.mount / "a" / "in" / "f").read_bytes() == b"other\n", "the folder that has the name now")
            self.shell("rm -r b", self.local)
            self.shell("mkdir -p b/in; echo more >b/in/f", self.local)
            for action in (lambda: read("f"), lambda: self.open("late", os.O_CREAT | os.O_WRONLY, dir_fd=here),
                           lambda: os.mkdir("late", dir_fd=here)):
                with self.assertRaises(OSError) as caught:
                    action()
                self.assertIn(caught.exception.errno, (errno.ENOENT, errno.ESTALE))
            self.assertEqual(os.listdir(self.local / "b" / "in"), ["f"])
            soon(lambda: (self.mount / "b" / "in" / "f").read_bytes() == b"more\n", "the folder that was made anew")


class Identity(TwoSides):
    """Every name of a file leads to that file, and its numbers say so."""

    def test_two_names_are_known_as_one_file(self):
        content = os.urandom(5_000_000)
        (self.local / "a").write_bytes(content)
        os.link(self.local / "a", self.local / "b")
        (self.local / "c").symlink_to("a")
        (self.local / "d").write_bytes(b"alone")
        with self.share():
            for target in "bc":
                self.assertIn("are the same file", self.shell(f"cp a {target}", self.mount, code=1))
                self.assertEqual((self.local / "a").read_bytes(), content)
            number = os.stat(self.local / "a").st_ino
            self.assertEqual([os.stat(self.mount / name).st_ino for name in "abc"], [number] * 3)
            self.assertEqual({entry.name: entry.inode() for entry in os.scandir(self.mount)},
                             {entry.name: entry.inode() for entry in os.scandir(self.local)})
            self.assertEqual([os.stat(self.mount / name).st_nlink for name in "abd"], [2, 2, 1])
            (self.mount / "a").write_bytes(b"through one name")
            self.assertEqual((self.mount / "b").read_bytes(), b"through one name")
            os.rename(self.mount / "a", self.mount / "b")  # as rename(2): two names of one file stay
            self.assertEqual(sorted(os.listdir(self.local)), ["a", "b", "c", "d"])
            os.rename(self.mount / "b", self.mount / "e")
            forget_names(self.mount)
            self.assertEqual([os.stat(self.mount / name).st_ino for name in "ae"], [number] * 2)
            os.unlink(self.mount / "a")
            self.assertEqual((self.mount / "e").read_bytes(), b"through one name")
            soon(lambda: os.stat(self.mount / "e").st_nlink == 1, "the number of names")

    def test_a_name_that_leads_to_another_file_is_not_opened_by_the_other_name(self):
        (self.local / "a").write_bytes(b"of two names")
        os.link(self.local / "a", self.local / "b")
        with self.share():
            for count in range(20):
                self.assertEqual([os.stat(self.mount / name).st_nlink for name in ("ab", "ba")[count % 2]], [2, 2])
                replace(self.local / "a", b"new %d" % count)
                self.assertEqual((self.mount / "a").read_bytes(), b"new %d" % count)
                os.unlink(self.local / "b")
                os.link(self.local / "a", self.local / "b")
                self.assertEqual((self.mount / "b").read_bytes(), b"new %d" % count)
                soon(lambda: os.stat(self.mount / "a").st_nlink == 2, "the number of names")

    def test_names_that_differ_in_case_are_two(self):
        (self.other / "xt_MARK.h").write_bytes(b"target")
        (self.other / "xt_mark.h").write_bytes(b"match")
        (self.local / "Important").write_bytes(b"keep")
        self.shell("tar cf ../both.tar xt_MARK.h xt_mark.h", self.other)
        with self.share():
            self.shell("tar xf ../both.tar", self.mount)
            for place in (self.local, self.mount):
                self.assertEqual([(place / name).read_bytes() for name in ("xt_MARK.h", "xt_mark.h")], [b"target", b"match"])
            self.assertFails(errno.ENOENT, os.unlink, self.mount / "important")
            self.assertFails(errno.ENOENT, open, self.mount / "important")
            self.assertFails(errno.ENOENT, os.rename, self.mount / "important", self.mount / "x")
            os.rename(self.mount / "xt_MARK.h", self.mount / "xt_mark.h")
            self.assertEqual((self.local / "xt_mark.h").read_bytes(), b"target")
            self.assertEqual(sorted(os.listdir(self.local)), ["Important", "xt_mark.h"])
            os.mkdir(self.mount / "Folder")
            os.mkdir(self.mount / "folder")

    def test_a_share_without_case_merges_no_files(self):
        (self.local / "File").write_bytes(b"keep")
        (self.local / "other").write_bytes(b"other")
        (self.local / "Folder").mkdir()
        with self.share("--case=insensitive"):
            file = self.mount / "file"
            self.assertFails(errno.EEXIST, os.open, file, os.O_CREAT | os.O_EXCL | os.O_WRONLY)
            self.assertFails(errno.EEXIST, os.open, file, os.O_CREAT | os.O_TRUNC | os.O_WRONLY)
            self.assertFails(errno.EEXIST, os.rename, self.mount / "other", file)
            self.assertFails(errno.EEXIST, os.mkdir, self.mount / "folder")
            self.assertEqual((self.local / "File").read_bytes(), b"keep")
            self.assertEqual(sorted(os.listdir(self.local)), ["File", "Folder", "other"])
            os.rename(self.mount / "File", file)  # its own name in another case is no other file
            self.assertEqual(sorted(os.listdir(self.local)), ["Folder", "file", "other"])


class Links(TwoSides):
    """Made by the owner, shown as what they are."""
    TARGETS = {b"relative": b"t/f", b"up": b"../local/t", b"outside": None, b"absolute": None, b"dangling": b"no/where",
               b"loop": b"loop", b"folder": b"t", b"raw": b"\xff\xfe/half\xc3", b"long": b"l/" * 2000 + b"x",
               b"backslash": b"a\\b:c?"}

    def setUp(self):
        super().setUp()
        (self.local / "t").mkdir()
        (self.local / "t" / "f").write_bytes(b"content")
        (self.other / "precious").write_bytes(b"precious")
        self.targets = {**self.TARGETS, b"outside": os.fsencode(self.other), b"absolute": os.fsencode(self.local / "t/f")}
        for name, target in self.targets.items():
            os.symlink(target, os.fsencode(self.local) + b"/" + name)

    def test_they_are_told_as_links_and_lead_where_they_say(self):
        with self.share():
            base = os.fsencode(self.mount)
            kinds = {entry.name: entry.is_symlink() for entry in os.scandir(base)}
            self.assertEqual(kinds, {b"t": False, **{name: True for name in self.targets}})
            for name, target in self.targets.items():
                facts, own = os.lstat(base + b"/" + name), os.lstat(os.fsencode(self.local) + b"/" + name)
                self.assertTrue(stat.S_ISLNK(facts.st_mode), name)
                self.assertEqual((facts.st_size, facts.st_ino), (len(target), own.st_ino), name)
                self.assertEqual(os.readlink(base + b"/" + name), target)
            self.assertEqual((self.mount / "folder" / "f").read_bytes(), b"content")
            for name, error in (("dangling", errno.ENOENT), ("loop", errno.ELOOP)):
                for flags in (os.O_RDONLY, os.O_RDWR):
                    self.assertFails(error, os.open, self.mount / name, flags)
                self.assertFails(error, os.stat, self.mount / name)
            os.unlink(self.local / "relative")
            os.symlink("dangling", self.local / "relative")
            soon(lambda: os.readlink(self.mount / "relative") == "dangling", "the new target")

    def test_tools_that_walk_a_tree_do_not_follow_them(self):
        (self.local / "t" / "here").symlink_to(".")
        (self.local / "t" / "above").symlink_to("..")
        with self.share():
            listing = "find . -printf '%p %y %l\\n' | LC_ALL=C sort"
            self.assertEqual(self.shell(listing, self.mount), self.shell(listing, self.local))
            for copy in ("cp -a . '{0}'", "tar c . | tar x -C '{0}'"):
                target = self.scratch.root / "copy"
                target.mkdir()
                self.shell(copy.format(target), self.mount)
                self.assertEqual(self.shell(listing, target), self.shell(listing, self.local))
                shutil.rmtree(target)
            os.rename(self.mount / "outside", self.mount / "moved")
            self.assertEqual(os.readlink(self.local / "moved"), str(self.other))
            os.rename(self.mount / "t" / "f", self.mount / "moved")  # over a link: the link is replaced
            self.assertEqual((self.local / "moved").read_bytes(), b"content")
            os.symlink(self.other, self.local / "t" / "link")
            self.shell("rm -rf t; rm -r *", self.mount)
            self.assertEqual(os.listdir(self.local), [])
            self.assertEqual((self.other / "precious").read_bytes(), b"precious")

    def test_a_link_that_is_moved_up_opens_nothing_beside_the_share(self):
        shared = self.local / "t"
        (shared / "x" / "y").mkdir(parents=True)
        (shared / "x" / "y" / "up").symlink_to("../..")
        mount = self.other / "deep" / "mount"
        mount.mkdir(parents=True)
        with self.share(folders=[shared], mount=mount):
            self.assertTrue((mount / "x" / "y" / "up" / "f").exists())
            os.rename(mount / "x" / "y" / "up", mount / "up")
            with contextlib.suppress(PermissionError):
                # Over here it leads to what is two above the mount, never to what is two above the shared folder.
                self.assertEqual(sorted(os.listdir(mount / "up")), ["deep", "precious"])


class Appends(TwoSides):
    def test_a_line_of_the_owner_is_not_written_over(self):
        with self.share():
            fd = self.open(self.mount / "log", os.O_CREAT | os.O_WRONLY | os.O_APPEND)
            expected = b""
            for round_ in range(20):
                os.write(fd, b"1\n" * (round_ + 1))
                os.fsync(fd)
                with open(self.local / "log", "ab") as mine:
                    mine.write(b"2\n")
                expected += b"1\n" * (round_ + 1) + b"2\n"
                if round_ % 2:
                    soon(lambda: os.stat(self.mount / "log").st_size == len(expected), "the owner's line")
                self.assertEqual((self.local / "log").read_bytes(), expected)

    def test_lines_from_both_sides_at_once_are_all_there(self):
        script = """
import os, sys
fd = os.open(sys.argv[1], os.O_CREAT | os.O_WRONLY | os.O_APPEND)
print("ready", flush=True)
sys.stdin.read()
for line in range(400):
    os.write(fd, b"%s %03d %s\\n" % (sys.argv[2].encode(), line, b"x" * (line % 60)))
"""
        with self.share():
            writers = [subprocess.Popen([sys.executable, "-c", script, folder / "log", f"{place}{number}"],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
                       for place, folder in (("m", self.mount), ("s", self.local)) for number in range(2)]
            for writer in writers:
                self.assertEqual(writer.stdout.readline(), b"ready\n")
            for writer in writers:
                writer.stdin.close()
            self.assertEqual([writer.wait(120) for writer in writers], [0] * 4)
            for writer in writers:
                writer.stdout.close()
            lines = [line.split()[:2] for line in (self.local / "log").read_bytes().splitlines()]
            for who in (b"m0", b"m1", b"s0", b"s1"):
                self.assertEqual([line for line in lines if line[:1] == [who]], [[who, b"%03d" % n] for n in range(400)])


class Gone(TwoSides):
    """What is removed while it is open."""

    def test_a_folder_is_empty_as_soon_as_its_last_file_was_removed(self):
        for options in ((), ("--agent-option=--deny-writers",)):
            with self.subTest(options), self.share(*options):
                for round_ in range(30):
                    os.mkdir(self.mount / "t")
                    fd = os.open(self.mount / "t" / "f", os.O_CREAT | os.O_WRONLY)
                    os.write(fd, b"x")
                    os.unlink(self.mount / "t" / "f")
                    self.assertEqual(os.listdir(self.local / "t"), [], round_)
                    if round_ % 3:
                        os.close(fd)
                    os.rmdir(self.mount / "t")
                    if round_ % 3 == 0:
                        os.close(fd)

    def test_a_killed_host_or_agent_leaves_nothing_of_it(self):
        for victim in ("host", "agent"):
            share = PosixCase.share(self)
            share.__enter__()
            os.mkdir(self.mount / "d")
            fd = os.open(self.mount / "d" / "f", os.O_CREAT | os.O_WRONLY)
            os.write(fd, b"x")
            os.unlink(self.mount / "d" / "f")
            self.assertEqual(os.listdir(self.local / "d"), [])
            os.kill(share.process.pid if victim == "host" else share.agent_pid(), signal.SIGKILL)
            share.process.wait(60)
            with contextlib.suppress(OSError):
                os.close(fd)
            self.assertEqual(os.listdir(self.local / "d"), [])
            wait_for(lambda: not mounted(self.mount), "the unmount")
            with self.share():
                self.shell("rm -r d", self.mount)

    def test_a_reader_that_closed_keeps_no_writer_out(self):
        (self.local / "f").write_bytes(b"0")
        with self.share("--agent-option=--deny-writers"):
            for round_ in range(500):
                (self.mount / "f").read_bytes()
                fd = os.open(self.mount / "f", os.O_WRONLY)
                os.pwrite(fd, b"%d" % (round_ % 10), 0)
                os.close(fd)


class Refused(TwoSides):
    """What can't be done is said, and changes nothing."""

    def test_names_that_are_too_long_are_told_as_such(self):
        (self.local / "f").touch()
        with self.share():
            for name in ("x" * 256, "資" * 86):
                path = self.mount / name
                for action in (open, os.stat, os.mkdir, os.unlink, lambda path: open(path, "w"),
                               lambda path: os.rename(self.mount / "f", path)):
                    self.assertFails(errno.ENAMETOOLONG, action, path)
            (self.mount / ("資" * 85)).touch()

    def test_a_full_disk_costs_nothing_of_what_was_there(self):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", str(self.local)], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", str(self.local)])
        old = os.urandom(100_000)
        (self.local / "f").write_bytes(old)
        with self.share():
            fd = self.open(self.mount / "f", os.O_RDWR)
            with open(self.local / "filler", "wb", buffering=0) as filler:
                self.assertFails(errno.ENOSPC, lambda: [filler.write(bytes(4096)) for _ in range(300)])

            def write():
                for offset in range(len(old), 300_000, 50_000):  # the last piece that fits may be written in part
                    os.pwrite(fd, bytes(50_000), offset)
                os.fsync(fd)

            self.assertFails(errno.ENOSPC, write)
            self.assertEqual((self.local / "f").read_bytes()[:len(old)], old)
            self.assertEqual((self.mount / "f").read_bytes()[:len(old)], old)

    @unittest.skipUnless(shutil.which("strace"), "no strace here")
    def test_a_listing_that_cannot_be_read_to_its_end_is_an_error(self):
        names = {f"{number:04} {'n' * 60}" for number in range(3000)}
        for name in names:
            (self.local / name).touch()
        with self.share() as share:
            def failing():
                """The second and every later read of a folder fails in each thread of the host."""
                tracer = subprocess.Popen(["strace", "-f", "-p", str(share.process.pid), "-o", "/dev/null", "-e",
                                           "inject=getdents64:error=EIO:when=2+"], stderr=subprocess.PIPE)
                tracer.stderr.readline()  # that it is attached
                return tracer

            tracer = failing()
            try:
                self.assertFails(errno.EIO, os.listdir, self.mount)
            finally:
                tracer.send_signal(signal.SIGINT)
                tracer.wait()
                tracer.stderr.close()
            self.assertEqual(set(os.listdir(self.mount)), names)


if __name__ == "__main__":
    unittest.main(verbosity=2)
