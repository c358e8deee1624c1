"""What programs expect of a file system, through a real mount of a real share."""
import ctypes
import errno
import hashlib
import json
import mmap
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import threading
import unittest

from share import ShareCase, mounted, wait_for


class PosixCase(ShareCase):
    def stop(self, process):
        """Freezes a process with all its threads."""
        os.kill(process.pid, signal.SIGSTOP)
        tasks = pathlib.Path(f"/proc/{process.pid}/task")
        wait_for(lambda: all((task / "stat").read_text().rpartition(")")[2].split()[0] == "T"
                             for task in tasks.iterdir()), "the freeze")


class OpenFiles(PosixCase):
    def test_a_deleted_file_lives_until_its_last_close_and_leaves_nothing(self):
        with self.share():
            path = self.mount / "f"
            path.write_bytes(b"before")
            with open(path, "r+b") as held, open(path, "rb") as other:
                path.unlink()
                self.assertFalse(path.exists())
                self.assertEqual(os.listdir(self.mount), [])
                self.assertEqual(os.fstat(held.fileno()).st_nlink, 0)
                held.write(b"after!")
                held.flush()
                self.assertEqual(other.read(), b"after!")
                path.write_bytes(b"another")  # the name is free
                self.assertEqual(os.pread(other.fileno(), 10, 0), b"after!")
            wait_for(lambda: os.listdir(self.local) == ["f"], "the deleted file to go")
            self.assertEqual((self.local / "f").read_bytes(), b"another")

    def test_renaming_over_an_open_file(self):
        with self.share():
            (self.mount / "old").write_text("old")
            (self.mount / "new").write_text("new")
            with open(self.mount / "old") as held:
                os.rename(self.mount / "new", self.mount / "old")
                self.assertEqual((self.mount / "old").read_text(), "new")
                self.assertEqual(held.read(), "old")
            wait_for(lambda: os.listdir(self.local) == ["old"], "the replaced file to go")

    def test_a_reader_never_misses_a_file_that_is_replaced(self):
        with self.share():
            path = self.mount / "config"
            path.write_text("0" * 100)
            stop = threading.Event()
            seen = []

            def read():
                while not stop.is_set():
                    text = path.read_text()
                    if len(set(text)) != 1 or len(text) != 100:
                        seen.append(text)

            readers = [threading.Thread(target=read) for _ in range(2)]
            errors = []
            threading.excepthook = lambda args: errors.append(args.exc_value)
            for reader in readers:
                reader.start()
            for number in range(300):
                (self.mount / "config.new").write_text(str(number % 10) * 100)
                os.rename(self.mount / "config.new", path)
            stop.set()
            for reader in readers:
                reader.join()
            self.assertEqual(errors, [])
            self.assertEqual(seen, [])

    def test_sharing_modes_of_opening(self):
        with self.share():
            path = self.mount / "f"
            os.close(os.open(path, os.O_CREAT | os.O_EXCL | os.O_WRONLY))
            self.assertFails(errno.EEXIST, os.open, path, os.O_CREAT | os.O_EXCL | os.O_WRONLY)
            path.write_text("content")
            os.close(os.open(path, os.O_WRONLY | os.O_TRUNC))
            self.assertEqual((self.local / "f").stat().st_size, 0)
            self.assertFails(errno.EISDIR, os.open, self.mount, os.O_WRONLY)
            self.assertFails(errno.ENOTDIR, os.open, path / "x", os.O_RDONLY)
            self.assertFails(errno.ENOENT, os.open, self.mount / "none", os.O_RDWR)


class Data(PosixCase):
    def test_random_operations_agree_with_a_model(self):
        rng = random.Random(20)
        with self.share():
            path = self.mount / "f"
            path.touch()
            model = bytearray()
            handles = [os.open(path, os.O_RDWR), os.open(path, os.O_RDWR)]
            for step in range(3000):
                fd = rng.choice(handles)
                kind = rng.choice("wwwwrrrrtsmo")
                offset, length = rng.randrange(300_000), rng.choice((1, 100, 4096, 5000, 70_000, 200_000))
                if kind == "w":
                    data = rng.randbytes(length)
                    if offset > len(model):
                        model.extend(bytes(offset - len(model)))
                    model[offset:offset + length] = data
                    os.pwrite(fd, data, offset)
                elif kind == "r":
                    self.assertEqual(os.pread(fd, length, offset), bytes(model[offset:offset + length]), step)
                elif kind == "t" and rng.random() < 0.3:
                    size = rng.randrange(300_000)
                    os.ftruncate(fd, size)
                    model = model[:size] + bytes(max(0, size - len(model)))
                elif kind == "s":
                    self.assertEqual(os.stat(path).st_size, len(model), step)
                elif kind == "m" and len(model) > 5000:
                    with mmap.mmap(fd, 0) as mapped:
                        at = rng.randrange(len(model) - 100)
                        self.assertEqual(mapped[at:at + 100], bytes(model[at:at + 100]), step)
                        mapped[at:at + 50] = model[at:at + 50] = rng.randbytes(50)
                        mapped.flush()
                elif kind == "o":
                    handles.remove(fd)
                    os.close(fd)
                    handles.append(os.open(path, os.O_RDWR))
            for fd in handles:
                os.fsync(fd)
                os.close(fd)
            self.assertEqual((self.local / "f").read_bytes(), bytes(model))

    def test_what_was_synced_is_there_before_the_close(self):
        with self.share(), open(self.mount / "f", "wb", buffering=0) as file:
            content = b""
            for number in range(50):
                piece = os.urandom(random.Random(number).randrange(1, 200_000))
                file.write(piece)
                content += piece
                if number % 10 == 9:
                    os.fsync(file.fileno())
                    self.assertEqual((self.local / "f").read_bytes(), content)

    def test_a_reader_sees_each_version_that_the_owner_wrote(self):
        with self.share():
            for number in range(500):
                content = os.urandom(random.Random(number).randrange(0, 20_000))
                (self.local / "f").write_bytes(content)
                self.assertEqual((self.mount / "f").read_bytes(), content, number)

    def test_a_reader_and_its_map_see_each_write_while_the_name_is_fought_over(self):
        with self.share():
            path = self.mount / "f"
            path.write_bytes(bytes(8192))
            stop = threading.Event()

            def others():
                number = 0
                while not stop.is_set():
                    number += 1
                    os.rename(path, self.mount / "g")  # holds the folder, and waits for the file
                    os.rename(self.mount / "g", path)
                    (self.local / f"owners{number % 3}").write_text(str(number))

            worker = threading.Thread(target=others)
            with open(path, "rb", buffering=0) as reader, mmap.mmap(reader.fileno(), 8192, prot=mmap.PROT_READ) as memory:
                writer = os.open(path, os.O_WRONLY)
                worker.start()
                try:
                    for number in range(1, 500):
                        os.pwrite(writer, number.to_bytes(4, "little"), 4096)
                        self.assertEqual(int.from_bytes(memory[4096:4100], "little"), number)
                        self.assertEqual(int.from_bytes(os.pread(reader.fileno(), 4, 4096), "little"), number)
                finally:
                    stop.set()
                    worker.join()
                    os.close(writer)

    @unittest.skipUnless(os.geteuid() == 0, "only root becomes another user")
    def test_writing_takes_the_set_id_bits_away(self):
        with self.share("--agent-option=--allow-other"):
            path = self.local / "f"
            path.write_text("before")
            path.chmod(0o6777)
            program = "import os, sys; os.setuid(65534); os.write(os.open(sys.argv[1], os.O_WRONLY), b'x')"
            self.scratch.root.chmod(0o755)
            subprocess.run([sys.executable, "-c", program, str(self.mount / "f")], check=True)
            self.assertEqual((path.read_text(), oct(path.stat().st_mode & 0o7777)), ("xefore", "0o777"))

    def test_appenders_do_not_overwrite_each_other(self):
        with self.share():
            files = [open(self.mount / "log", "ab", buffering=0) for _ in range(4)]

            def append(number):
                for line in range(200):
                    files[number].write(b"%d %03d %s\n" % (number, line, b"x" * (line % 50)))

            threads = [threading.Thread(target=append, args=(n,)) for n in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            for file in files:
                file.close()
            lines = (self.local / "log").read_bytes().splitlines()
            self.assertEqual(len(lines), 800)
            for number in range(4):
                mine = [line.split()[1] for line in lines if line.startswith(b"%d " % number)]
                self.assertEqual(mine, [b"%03d" % line for line in range(200)])

    def test_large_files_cross_in_pieces_of_any_size(self):
        source = self.other / "source"
        source.write_bytes(os.urandom(40_000_003))
        with self.share():
            for block in ("777", "64k", "1M", "7M"):
                subprocess.run(["dd", f"if={source}", f"of={self.mount}/f", f"bs={block}", "status=none"] +
                               (["count=20000"] if block == "777" else []), check=True)
                whole = source.read_bytes()[:777 * 20000] if block == "777" else source.read_bytes()
                self.assertEqual((self.local / "f").read_bytes(), whole)
                read = subprocess.run(["dd", f"if={self.mount}/f", f"bs={block}", "status=none"],
                                      check=True, capture_output=True).stdout
                self.assertEqual(hashlib.sha256(read).digest(), hashlib.sha256(whole).digest())

    def test_growing_a_file_without_writing(self):
        with self.share():
            fd = os.open(self.mount / "f", os.O_RDWR | os.O_CREAT)
            os.posix_fallocate(fd, 0, 100_000)
            self.assertEqual(os.fstat(fd).st_size, 100_000)
            os.posix_fallocate(fd, 0, 10)  # never shrinks
            self.assertEqual((self.local / "f").stat().st_size, 100_000)
            os.close(fd)

    def test_ranges_are_reserved_punched_found_and_copied(self):
        libc = ctypes.CDLL(None, use_errno=True)
        libc.fallocate.argtypes = (ctypes.c_int, ctypes.c_int, ctypes.c_long, ctypes.c_long)
        kib = 1024

        def allocate(fd, mode, offset, length):
            return 0 if libc.fallocate(fd, mode, offset, length) == 0 else ctypes.get_errno()

        def do(folder):
            """What each call gives, in a folder of any kind."""
            with open(folder / "f", "w+b", buffering=0) as file, open(folder / "g", "w+b", buffering=0) as copy:
                fd, seen = file.fileno(), []

                def note(what):
                    seen.append((what, os.fstat(fd).st_size))

                note(allocate(fd, 1, 0, 1024 * kib))
                note(os.fstat(fd).st_blocks >= 2048)
                file.write(b"x" * 512 * kib)
                note(allocate(fd, 3, 64 * kib, 128 * kib))
                note(allocate(fd, 16, 300 * kib, 5))
                note(allocate(fd, 17, 512 * kib, 5))
                note(allocate(fd, 16, 512 * kib, 5))
                note(allocate(fd, 0, 0, 600 * kib))
                note(allocate(fd, 3, 520 * kib, 80 * kib))
                note(allocate(fd, 2, 0, 1))
                for whence in (os.SEEK_DATA, os.SEEK_HOLE):
                    for at in (0, 64 * kib, 192 * kib, 599 * kib):
                        try:
                            note(os.lseek(fd, at, whence))
                        except OSError as error:
                            note(error.errno)
                note(hashlib.sha256(os.pread(fd, 1024 * kib, 0)).hexdigest())
                note(os.copy_file_range(fd, copy.fileno(), 300 * kib, 5, 3))
                note(os.copy_file_range(fd, copy.fileno(), 1024 * kib, 599 * kib, 0))
                note(os.copy_file_range(fd, copy.fileno(), 10, 600 * kib, 0))
                note(os.copy_file_range(copy.fileno(), fd, 7, 0, 590 * kib))
                note(os.pread(copy.fileno(), 2000, 0))
            return seen

        with self.share():
            mine, plain = do(self.mount), do(self.scratch.other)
            self.assertEqual(mine, plain)
            for name in "fg":
                self.assertEqual((self.local / name).read_bytes(), (self.scratch.other / name).read_bytes())


class Names(PosixCase):
    def test_a_tree_is_removed_while_others_look(self):
        with self.share():
            for folder in range(20):
                (self.mount / f"d{folder}" / "inner").mkdir(parents=True)
                for file in range(30):
                    (self.mount / f"d{folder}" / "inner" / f"f{file}").write_text("x")
            stop = threading.Event()

            def look():
                while not stop.is_set():
                    for _ in os.walk(self.mount):
                        pass

            looker = threading.Thread(target=look)
            looker.start()
            for folder in range(20):
                subprocess.run(["rm", "-r", str(self.mount / f"d{folder}")], check=True)
            stop.set()
            looker.join()
            self.assertEqual(os.listdir(self.local), [])

    def test_renames_of_every_kind(self):
        rename = ctypes.CDLL(None, use_errno=True).renameat2

        def renameat2(old, new, flags):
            if rename(-100, os.fsencode(old), -100, os.fsencode(new), flags) != 0:
                raise OSError(ctypes.get_errno(), "renameat2")

        with self.share():
            a, b, empty, full = (self.mount / n for n in ("a", "b", "empty", "full"))
            a.mkdir()
            (a / "in").write_text("in")
            empty.mkdir()
            full.mkdir()
            (full / "x").write_text("x")
            self.assertFails(errno.ENOTEMPTY, os.rename, a, full)
            os.rename(a, empty)
            self.assertEqual((empty / "in").read_text(), "in")
            os.rename(empty, b)
            self.assertFails(errno.EEXIST, renameat2, b, full, 1)
            self.assertFails(errno.ENOENT, renameat2, b, a, 2)
            self.assertFails(errno.EINVAL, renameat2, b, b / "in", 2)
            with open(full / "x") as held:
                renameat2(b, full / "x", 2)  # a folder and a file in another
                self.assertEqual((b.read_text(), os.listdir(full / "x"), held.read()), ("x", ["in"], "x"))
                self.assertEqual((self.local / "b").read_text(), "x")
                renameat2(full / "x", b, 2)
            self.assertEqual(((b / "in").read_text(), (full / "x").read_text()), ("in", "x"))
            self.assertFails(errno.EISDIR, os.rename, full / "x", b)
            os.rename(full / "x", b / "in")
            self.assertEqual((b / "in").read_text(), "x")
            os.rename(b / "in", b / "IN")  # only its case
            self.assertEqual(os.listdir(self.local / "b"), ["IN"])
            with open(b / "IN") as held:
                os.rename(b, full / "deep")
                self.assertEqual((full / "deep" / "IN").read_text(), "x")
                self.assertEqual(held.read(), "x")
            self.assertFails(errno.ENOTEMPTY, os.rmdir, full)
            self.assertFails(errno.ENOTDIR, os.rmdir, full / "deep" / "IN")
            self.assertFails(errno.EISDIR, os.unlink, full / "deep")

    def test_a_read_only_file_can_be_replaced_and_removed(self):
        with self.share():
            for name in ("kept", "gone"):
                (self.mount / name).write_text("old")
                os.chmod(self.mount / name, 0o444)
                self.assertEqual((self.mount / name).stat().st_mode & 0o777, 0o444)
                self.assertEqual((self.local / name).stat().st_mode & 0o200, 0)
                self.assertFalse(os.access(self.mount / name, os.W_OK))
                self.assertTrue(os.access(self.mount / name, os.R_OK))
                self.assertFalse(os.access(self.mount / name, os.X_OK))
                self.assertFails(errno.EACCES, open, self.mount / name, "a")
            (self.mount / "new").write_text("new")
            os.rename(self.mount / "new", self.mount / "kept")
            self.assertEqual((self.local / "kept").read_text(), "new")
            (self.mount / "gone").unlink()
            os.chmod(self.mount / "kept", 0o755)
            self.assertTrue(os.access(self.mount / "kept", os.W_OK))
            self.assertEqual(sorted(os.listdir(self.local)), ["kept"])

    def test_what_a_share_cannot_hold_is_refused(self):
        with self.share():
            (self.mount / "f").write_text("")
            self.assertFails(errno.EPERM, os.chown, self.mount / "f", 12345, 12345)
            os.chown(self.mount / "f", os.getuid(), os.getgid())
            for kind in ("security.x", "trusted.x", "system.x"):
                self.assertFails(errno.ENOTSUP, os.setxattr, self.mount / "f", kind, b"1")

    def test_a_listing_has_every_name_once_from_any_position(self):
        names = {f"file {n:05d} " + "n" * (n % 90) for n in range(12000)}
        for name in names:
            (self.local / name).touch()
        with self.share():
            self.assertEqual(sorted(os.listdir(self.mount)), sorted(names))
            shown = subprocess.run(["ls", "-lU", str(self.mount)], capture_output=True, check=True).stdout
            self.assertEqual(len(shown.splitlines()), 12001)
            libc = ctypes.CDLL(None)
            libc.opendir.restype = libc.readdir.restype = ctypes.c_void_p
            libc.telldir.restype = ctypes.c_long
            folder = ctypes.c_void_p(libc.opendir(os.fsencode(self.mount)))
            for _ in range(1000):
                libc.readdir(folder)
            position = libc.telldir(folder)
            expected = ctypes.string_at(libc.readdir(folder) + 19)
            for _ in range(2000):
                libc.readdir(folder)
            libc.seekdir(folder, ctypes.c_long(position))
            self.assertEqual(ctypes.string_at(libc.readdir(folder) + 19), expected)
            (self.local / "late").touch()
            libc.rewinddir(folder)
            again = set()
            while entry := libc.readdir(folder):
                again.add(os.fsdecode(ctypes.string_at(entry + 19)))
            self.assertEqual(again, names | {".", "..", "late"})
            libc.closedir(folder)

    def test_a_change_by_the_owner_shows_before_the_cache_runs_out(self):
        # So long that only a notification can be what shows it.
        (self.local / "first").write_text("")
        with self.share("--agent-option=--cache-ms=600000"):
            os.stat(self.mount / "first")

            def is_watched():
                with open(self.local / "first", "a") as file:
                    file.write("x")
                return os.stat(self.mount / "first").st_size > 0

            wait_for(is_watched, "the first notification")  # what came before the watch, nobody tells
            (self.mount / "f").write_text("1")  # what this side did itself doesn't hide what comes next
            os.stat(self.mount / "f")
            (self.local / "f").write_text("22")
            wait_for(lambda: os.stat(self.mount / "f").st_size == 2, "the new size")
            (self.local / "f").rename(self.local / "g")
            wait_for(lambda: not (self.mount / "f").exists(), "the old name to go")


    def test_hard_links_are_one_file_on_both_sides(self):
        with self.share():
            first, second = self.mount / "first", self.mount / "folder" / "second"
            first.write_text("1")
            (self.mount / "folder").mkdir()
            os.symlink("nowhere", self.mount / "symlink")
            os.mkfifo(self.mount / "pipe")
            os.link(first, second)
            for path in (first, second, self.local / "first", self.local / "folder" / "second"):
                self.assertEqual((path.stat().st_nlink, path.stat().st_ino), (2, first.stat().st_ino), path)
            with open(second, "a") as file:
                file.write("2")
            self.assertEqual(first.read_text(), "12")
            for name in ("symlink", "pipe"):
                os.link(self.mount / name, self.mount / "folder" / name, follow_symlinks=False)
                self.assertEqual(os.lstat(self.local / name).st_nlink, 2)
            self.assertFails(errno.EEXIST, os.link, first, second)
            self.assertFails(errno.EPERM, os.link, self.mount / "folder", self.mount / "other")
            self.assertFails(errno.ENOENT, os.link, self.mount / "none", self.mount / "other")
            self.assertFails(errno.ENOENT, os.link, first, self.mount / "none" / "x")
            self.assertFails(errno.EXDEV, os.link, first, self.scratch.other / "x")
            second.unlink()
            self.assertEqual(first.stat().st_nlink, 1)
            os.link(self.local / "first", self.local / "owners")
            wait_for(lambda: (self.mount / "owners").exists(), "the owner's link")
            self.assertEqual((self.mount / "owners").stat().st_ino, first.stat().st_ino)
            (self.mount / "owners").unlink()
            # As programs make them.
            git = ("git", "-c", "init.defaultBranch=m", "-c", "user.name=a", "-c", "user.email=a@b", "-c", "protocol.file.allow=always")
            for command in (("cp", "-al", f"{self.mount}/first", f"{self.mount}/copy"), ("mkdir", f"{self.mount}/r"),
                            (*git, "-C", f"{self.mount}/r", "init", "-q"),
                            (*git, "-C", f"{self.mount}/r", "commit", "-q", "--allow-empty", "-m", "x"),
                            (*git, "clone", "-q", "--local", f"{self.mount}/r", f"{self.mount}/clone")):
                subprocess.run(command, check=True, capture_output=True)
            self.assertEqual((self.local / "copy").stat().st_nlink, 2)
            objects = [path for path in (self.local / "clone/.git/objects").rglob("*") if path.is_file()]
            self.assertEqual({path.stat().st_nlink for path in objects}, {2})

    def test_attributes_of_users_are_the_same_on_both_sides(self):
        file, theirs = self.mount / "f", self.local / "f"
        theirs.write_text("x")
        zone = "user.DosStream.Zone.Identifier:$DATA"
        many = [(f"user.{number:030}", b"") for number in range(12)]
        for name, value in ((zone, b"[Z]\0"), ("user.owner", b"\0"), ("user.none", b""), *many):
            os.setxattr(theirs, name, value)
        with self.share():
            def values(path):
                return {name: os.getxattr(path, name) for name in os.listxattr(path)}

            self.assertEqual(values(file), values(theirs))
            for name, value, flags, error in (
                    ("user.a", b"long value", 0, 0), ("user.a", b"1", os.XATTR_CREATE, errno.EEXIST),
                    ("user.A", b"2\0", os.XATTR_CREATE, 0), ("user.b", b"1", os.XATTR_REPLACE, errno.ENODATA),
                    ("user.a", b"3", os.XATTR_REPLACE, 0), ("user.owner", b"", 0, 0), (zone, b"other\0", 0, 0),
                    ("user.a", bytes(60_000), 0, errno.ENOSPC), ("user.new", bytes(60_000), 0, errno.ENOSPC),
                    ("user." + "n" * 250, b"x", 0, 0), ("user.\u00e4 \"?*\\", b"x", 0, 0)):
                with self.subTest(name=name, flags=flags):
                    if error:
                        self.assertFails(error, os.setxattr, file, name, value, flags)
                    else:
                        os.setxattr(file, name, value, flags)
                    self.assertEqual(values(file), values(theirs))
            self.assertEqual([os.getxattr(theirs, name) for name in ("user.a", "user.A")], [b"3", b"2\0"])
            os.removexattr(file, "user.a")
            self.assertFails(errno.ENODATA, os.removexattr, file, "user.a")
            self.assertFails(errno.ENODATA, os.getxattr, file, "user.a")
            libc = ctypes.CDLL(None, use_errno=True)
            self.assertEqual(libc.getxattr(os.fsencode(file), b"user.A", bytes(1), 1), -1)
            self.assertEqual(ctypes.get_errno(), errno.ERANGE)
            subprocess.run(["cp", "-a", str(file), str(self.mount / "copy")], check=True)
            self.assertEqual(values(self.local / "copy"), values(theirs))
            with open(file, "rb") as held:  # what has its name by now stays as it is
                (self.other / "f").write_text("another")
                os.setxattr(self.other / "f", "user.owner", b"theirs")
                os.replace(shutil.copy2(self.other / "f", self.local / "n"), theirs)
                self.assertFails(errno.ESTALE, os.setxattr, held.fileno(), "user.a", b"x")
                self.assertFails(errno.ESTALE, os.removexattr, held.fileno(), "user.owner")
                self.assertEqual(values(theirs), {"user.owner": b"theirs"})


class Trips(PosixCase):
    """What a user's call asks of the other side, counted. Notifications and lookups come as they like, and aren't."""
    COUNTED = ("CREATE", "CLOSE", "READ", "WRITE", "QUERY_INFORMATION", "SET_INFORMATION")

    def traffic(self):
        out = self.fodr("status", "--traffic", "--json").stdout
        return {row["kind"]: row["packets"] for row in json.loads(out.splitlines()[-1])}

    def assertAsks(self, wanted, action, more=()):
        """`more`: kinds of which there may be more."""
        before = self.traffic()
        action()
        wanted = dict(zip(self.COUNTED, wanted))

        def asked():
            now = self.traffic()
            counts = {kind: now.get(kind, 0) - before.get(kind, 0) for kind in self.COUNTED}
            return counts | {kind: min(counts[kind], wanted[kind]) for kind in more}

        wait_for(lambda: asked()["CLOSE"] >= wanted["CLOSE"], "the close")
        self.assertEqual(asked(), wanted)

    def test_no_call_asks_for_more_than_it_must(self):
        def create():
            os.close(os.open(self.mount / "new", os.O_CREAT | os.O_WRONLY))

        # For others the kernel checks modes, and asks for the facts of what has changed before it does. It asks again
        # when it is told of the change, and that may be before the end.
        for option, changing, checking in (("--allow-other", 1, 1), ("--deny-writers", 1, 0), ("--no-pre-read", 2, 0)):
            (self.local / "f").write_text("hello")
            for folder in ("from", "to"):
                (self.local / folder).mkdir(exist_ok=True)
            # What the agent asks by itself, for events of the owner's changes, is no call's.
            with self.subTest(option), self.share("--agent-option=--cache-ms=600000", f"--agent-option={option}",
                                                  "--agent-option=--no-events"):
                os.listdir(self.mount)
                self.assertFalse((self.mount / "none").exists())  # opens the folder's handle
                wait_for(lambda: self.traffic().get("CLOSE"), "the listing's close")
                self.assertAsks((1, 1, 1, 0, 1, 0), (self.mount / "f").read_text)
                self.assertAsks((1, 1, 0, 0, changing, 1), lambda: os.utime(self.mount / "f", (5, 5)))
                more = ["QUERY_INFORMATION"] if checking else []
                self.assertAsks((1, 1, 0, 0, checking, 0), create, more)
                self.assertAsks((1, 1, 0, 0, checking, 1), lambda: os.unlink(self.mount / "new"), more)
                self.assertAsks((1, 1, 0, 0, 1 + checking, 1),
                                lambda: os.rename(self.mount / "from", self.mount / "to"), more)
                (self.local / "to").rmdir()
                self.assertEqual(os.listdir(self.local), ["f"])

    @unittest.skipUnless(os.access("/proc/sys/vm/drop_caches", os.W_OK), "caches can't be dropped")
    def test_folders_that_the_kernel_forgot_are_watched_no_more(self):
        folders = [f"folder{number}" for number in range(3)]
        for name in folders:
            (self.local / name).mkdir()
        with self.share():
            for name in folders:
                folder = self.mount / name
                self.assertFalse((folder / "none").exists())  # opens the folder's handle
                pathlib.Path("/proc/sys/vm/drop_caches").write_text("3")
                before = self.traffic()["DIRECTORY_CONTROL"]
                for _ in range(100):
                    (folder / "f").touch()
                    (folder / "f").unlink()
                with self.subTest(name):
                    self.assertLess(self.traffic()["DIRECTORY_CONTROL"] - before, 300)

    def test_names_of_a_folder_are_told_together(self):
        (self.local / "folder").mkdir()
        for number in range(400):
            (self.local / "folder" / f"f{number}").write_text("old")

        def lookups(numbers):
            before = self.traffic().get("DIRECTORY_CONTROL", 0)
            for number in numbers:
                os.stat(self.mount / "folder" / f"f{number}")
            return self.traffic()["DIRECTORY_CONTROL"] - before

        with self.share("--agent-option=--cache-ms=600000"):
            fresh = iter(range(300))
            wait_for(lambda: lookups([next(fresh)]) == 0, "names told ahead of their lookup")
            self.assertEqual(lookups(range(300, 390)), 0)
            # What the owner does to others of them meanwhile is seen all the same.
            (self.local / "folder" / "f398").write_text("longer")
            (self.local / "folder" / "f399").unlink()
            wait_for(lambda: (self.mount / "folder" / "f398").stat().st_size == 6, "the new size")
            wait_for(lambda: not (self.mount / "folder" / "f399").exists(), "the deletion")
            # And what happens here at once.
            (self.mount / "folder" / "f397").write_text("mine, longer")
            self.assertEqual((self.mount / "folder" / "f397").stat().st_size, 12)
            (self.mount / "folder" / "f396").rename(self.mount / "folder" / "f395")
            self.assertFalse((self.mount / "folder" / "f396").exists())


class Trouble(PosixCase):
    def test_a_waiting_caller_can_be_killed(self):
        # One each: those who look for the same name wait for the first of them, and that no signal ends.
        for number in range(3):
            (self.local / f"f{number}").write_bytes(bytes(1 << 20))
        with self.share() as share:
            self.stop(share.process)
            readers = [subprocess.Popen(["cat", str(self.mount / f"f{number}")], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL) for number in range(3)]
            try:
                for reader, number in zip(readers, (signal.SIGINT, signal.SIGTERM, signal.SIGKILL)):
                    wait_for(lambda: "fuse" in pathlib.Path(f"/proc/{reader.pid}/wchan").read_text() or
                             pathlib.Path(f"/proc/{reader.pid}/stat").read_text().split()[2] in "SD", "the wait")
                    reader.send_signal(number)
                    self.assertEqual(reader.wait(60), -number)
            finally:
                os.kill(share.process.pid, signal.SIGCONT)
            self.assertEqual((self.mount / "f0").stat().st_size, 1 << 20)

    def test_silence_becomes_an_error(self):
        (self.local / "f").write_text("x")
        with self.share("--agent-option=--io-timeout=5") as share:
            held = os.open(self.mount / "f", os.O_RDWR)
            self.stop(share.process)
            try:
                self.assertFails(errno.EIO, os.stat, self.mount / "none")
                os.pwrite(held, b"unheard", 0)
                self.assertFails(errno.EIO, os.fsync, held)
            finally:
                os.kill(share.process.pid, signal.SIGCONT)
            os.close(held)

    def test_a_full_disk_is_told_at_write_sync_or_close(self):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", str(self.local)], check=True)
        self.addCleanup(subprocess.run, ["umount", str(self.local)])
        source = self.other / "source"
        source.write_bytes(os.urandom(2 << 20))
        with self.share():
            file = open(self.mount / "f", "wb", buffering=0)

            def fill():
                for _ in range(64):
                    file.write(bytes(65536))
                os.fsync(file.fileno())

            self.assertFails(errno.ENOSPC, fill)
            try:
                file.close()
            except OSError as error:
                self.assertEqual(error.errno, errno.ENOSPC)
            (self.mount / "f").unlink()
            wait_for(lambda: os.listdir(self.local) == [], "the file to go")  # with its last close
            copied = subprocess.run(["cp", source, self.mount / "f"], capture_output=True, text=True)
            self.assertNotEqual(copied.returncode, 0)
            self.assertIn("No space left", copied.stderr)
            (self.mount / "f").unlink()
            wait_for(lambda: os.listdir(self.local) == [], "the copy to go")
            (self.mount / "g").write_bytes(b"fits")  # there is room again
            self.assertEqual((self.local / "g").read_bytes(), b"fits")

    def test_a_busy_mount_is_given_up_with_its_holder_named(self):
        share = self.share()
        share.__enter__()
        sleeper = subprocess.Popen(["sleep", "600"], cwd=self.mount)
        self.addCleanup(sleeper.kill)
        share.process.send_signal(signal.SIGINT)
        share.process.wait(60)
        self.assertFalse(mounted(self.mount))
        self.assertIn(f"sleep ({sleeper.pid})", share.log())

    def test_many_at_once_get_what_is_theirs(self):
        with self.share():
            script = """
import hashlib, os, random, sys
base, number = sys.argv[1], int(sys.argv[2])
rng = random.Random(number)
for turn in range(40):
    path = f"{base}/{number}-{turn % 5}"
    data = rng.randbytes(rng.randrange(300000))
    with open(path + ".tmp", "wb") as file:
        file.write(data)
    os.rename(path + ".tmp", path)
    with open(path, "rb") as file:
        assert file.read() == data
    if turn % 3 == 0:
        os.unlink(path)
        assert not os.path.exists(path)
"""
            workers = [subprocess.Popen([sys.executable, "-c", script, str(self.mount), str(n)]) for n in range(8)]
            self.assertEqual([worker.wait(300) for worker in workers], [0] * 8)


if __name__ == "__main__":
    unittest.main(verbosity=2)
