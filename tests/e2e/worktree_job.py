"""A checkout that is worked in from both sides: modes, links and other files are the same for both."""
import os
import pathlib
import shutil
import stat
import unittest

from two_sides_job import TwoSides, soon

GIT = "git -c user.name=a -c user.email=a@b -c core.fileMode=true -c core.symlinks=true -c init.defaultBranch=main"


def look(path):
    info = os.lstat(path)
    return stat.filemode(info.st_mode), os.readlink(path) if stat.S_ISLNK(info.st_mode) else ""


class Modes(TwoSides):
    def test_a_mode_is_the_same_on_both_sides(self):
        (self.local / "old").write_bytes(b"")
        with self.share():
            for side, other in ((self.mount, self.local), (self.local, self.mount)):
                for mode in (0o600, 0o755, 0o444, 0o1777, 0o640, 0o200, 0o4711, 0o2755, 0o664):
                    if side == self.mount and mode & 0o6000:  # what it writes isn't to run as the owner
                        self.assertFails(1, os.chmod, side / "old", mode)
                        continue
                    os.chmod(side / "old", mode)
                    soon(lambda: stat.S_IMODE(os.stat(other / "old").st_mode) == mode, f"{mode:o}")
            for mask, wanted in ((0o022, "-rw-r--r-- drwxr-xr-x"), (0o077, "-rw------- drwx------"),
                                 (0, "-rw-rw-rw- drwxrwxrwx"), (0o777, "---------- d---------")):
                self.shell(f"umask {mask:o}; touch f; mkdir d", self.mount)
                self.assertEqual(" ".join(look(self.local / name)[0] for name in "fd"), wanted)
                self.assertEqual(" ".join(look(self.mount / name)[0] for name in "fd"), wanted)
                os.unlink(self.mount / "f")
                os.rmdir(self.mount / "d")
            private = os.open(self.mount / "secret", os.O_CREAT | os.O_WRONLY | os.O_EXCL, 0o600)
            self.assertEqual(look(self.local / "secret")[0], "-rw-------")
            os.fchmod(private, 0o400)
            os.write(private, b"s")
            os.close(private)
            self.assertEqual(look(self.local / "secret")[0], "-r--------")

    def test_what_tools_do_keeps_it(self):
        (self.local / "run").write_bytes(b"#!/bin/sh\necho ran\n")
        (self.local / "key").write_bytes(b"old\n")
        os.chmod(self.local / "run", 0o755)
        os.chmod(self.local / "key", 0o600)
        with self.share():
            self.assertEqual(self.shell("./run", self.mount), "ran\n")
            self.shell("sed -i s/old/new/ key; sed -i s/ran/RAN/ run; cp -p run copy; install -m 750 run tool", self.mount)
            self.assertEqual([look(self.local / name)[0] for name in ("key", "run", "copy", "tool")],
                             ["-rw-------", "-rwxr-xr-x", "-rwxr-xr-x", "-rwxr-x---"])
            self.assertEqual(self.shell("./run; chmod -x run; ./run || echo no; [ -x run ] || echo never", self.mount)
                             .splitlines()[0::2][:1], ["RAN"])
            self.assertFalse(os.access(self.mount / "run", os.X_OK))
            self.assertFails(1, os.chown, self.mount / "key", 1, 1)
            os.chown(self.mount / "key", os.getuid(), os.getgid())

    @unittest.skipUnless(os.geteuid() == 0, "only root gives files away")
    def test_owners_are_shown_and_given_if_that_is_wanted(self):
        (self.local / "f").write_bytes(b"")
        os.chown(self.local / "f", 123, 456)
        with self.share("--agent-option=--owners=real"):
            info = os.stat(self.mount / "f")
            self.assertEqual((info.st_uid, info.st_gid), (123, 456))
            os.chown(self.mount / "f", 7, -1)
            info = os.stat(self.local / "f")
            self.assertEqual((info.st_uid, info.st_gid), (7, 456))
        with self.share():
            self.assertEqual(os.stat(self.mount / "f").st_uid, os.getuid())


class Links(TwoSides):
    def test_what_the_mount_makes_is_a_link_on_both_sides(self):
        (self.local / "f").write_bytes(b"content")
        targets = {"l": "f", "dangling": "no/where", "absolute": "/etc/passwd", "up": "../outside", "odd": "a\\b:*\n",
                   "long": "x" * 4095, "bytes": b"\xff\xfe"}
        with self.share():
            for name, target in targets.items():
                os.symlink(target, os.fsencode(self.mount / name) if isinstance(target, bytes) else self.mount / name)
                self.assertEqual(os.readlink(os.fsencode(self.local / name)), os.fsencode(target))
                self.assertEqual(os.readlink(os.fsencode(self.mount / name)), os.fsencode(target))
                self.assertFails(17, os.symlink, "f", self.mount / name)
            self.assertEqual((self.mount / "l").read_bytes(), b"content")
            os.rename(self.mount / "l", self.mount / "f2")
            self.assertEqual(os.readlink(self.local / "f2"), "f")
            os.utime(self.mount / "f2", (1, 2), follow_symlinks=False)
            self.assertEqual(os.lstat(self.local / "f2").st_mtime, 2)
            os.unlink(self.mount / "f2")
            self.assertEqual(sorted(os.listdir(self.local)), sorted([*targets, "f"][1:]))
            self.assertFails(36, os.symlink, "f", self.mount / ("n" * 256))

    def fill_with_links(self):
        (self.local / "d/sub").mkdir(parents=True)
        (self.local / "d/sub/f").write_bytes(b"content")
        os.chmod(self.local / "d/sub/f", 0o640)
        for name, target in (("file", "d/sub/f"), ("folder", "d/sub"), ("absolute", self.local / "d"),
                             ("lost", "no/where"), ("outside", "/etc/passwd")):
            os.symlink(target, self.local / name)

    def test_links_are_followed_by_the_host_if_that_is_wanted(self):
        self.fill_with_links()
        with self.share("--agent-option=--links=follow"):
            kinds = {entry.name: (entry.is_symlink(), entry.is_dir(), entry.is_file())
                     for entry in os.scandir(self.mount)}
            folder, file = (False, True, False), (False, False, True)
            self.assertEqual(kinds, {"d": folder, "file": file, "folder": folder, "absolute": folder, "lost": file,
                                     "outside": file})
            for path in ("file", "folder/f", "absolute/sub/f", "d/sub/f"):
                self.assertEqual(look(self.mount / path), ("-rw-r-----", ""))
                self.assertEqual((self.mount / path).read_bytes(), b"content")
            self.assertFails(13, open, self.mount / "outside")
            self.assertFails(2, open, self.mount / "lost")
            self.assertFails(1, os.symlink, "d", self.mount / "new")
            (self.mount / "file").write_bytes(b"by the link")
            os.chmod(self.mount / "file", 0o600)
            (self.mount / "folder/made").write_bytes(b"made")
            self.assertEqual(look(self.local / "d/sub/f")[0], "-rw-------")
            self.assertEqual((self.mount / "d/sub/f").read_bytes(), b"by the link")
            self.assertEqual((self.local / "d/sub/made").read_bytes(), b"made")
            os.rename(self.mount / "folder", self.mount / "renamed")
            self.assertEqual(os.readlink(self.local / "renamed"), "d/sub")
            for name in ("file", "lost", "outside"):
                os.unlink(self.mount / name)
            os.rmdir(self.mount / "renamed")  # the link alone
            self.assertEqual(sorted(os.listdir(self.local)), ["absolute", "d"])
            self.assertEqual(sorted(os.listdir(self.local / "d/sub")), ["f", "made"])

    def test_links_are_hidden_if_that_is_wanted(self):
        self.fill_with_links()
        with self.share("--agent-option=--links=hide"):
            self.assertEqual(os.listdir(self.mount), ["d"])
            for name in ("file", "folder", "lost"):
                self.assertFails(2, os.lstat, self.mount / name)
                for flags, error in ((os.O_RDONLY, 17), (os.O_WRONLY, 17), (os.O_WRONLY | os.O_TRUNC, 13)):
                    self.assertFails(error, os.open, self.mount / name, os.O_CREAT | flags)
                self.assertFails(17, os.mkdir, self.mount / name)
            self.assertFails(1, os.symlink, "d", self.mount / "new")
            self.assertEqual((self.mount / "d/sub/f").read_bytes(), b"content")

    def test_names_of_one_file_are_counted_while_it_is_open(self):
        for name in ("a", "b", "c"):
            (self.local / name).write_bytes(b"")
        os.link(self.local / "a", self.local / "a2")
        os.link(self.local / "b", self.local / "b2")
        with self.share():
            with open(self.mount / "a") as a, open(self.mount / "b") as b:
                os.unlink(self.mount / "a2")
                os.rename(self.mount / "c", self.mount / "b2")
                self.assertEqual([os.fstat(file.fileno()).st_nlink for file in (a, b)], [1, 1])

    @unittest.skipUnless(os.geteuid() == 0, "others are refused")
    def test_root_sets_attributes_of_files_that_nobody_may_write(self):
        (self.local / "f").write_bytes(b"")
        os.chmod(self.local / "f", 0o444)
        with self.share():
            os.setxattr(self.mount / "f", "user.a", b"1")
            self.assertEqual(os.getxattr(self.local / "f", "user.a"), b"1")
            os.removexattr(self.mount / "f", "user.a")
            self.assertEqual(os.listxattr(self.local / "f"), [])

    def test_fifos_and_sockets_are_told_and_not_opened_by_the_host(self):
        with self.share():
            os.mkfifo(self.mount / "made", 0o640)
            os.mknod(self.mount / "plain", stat.S_IFREG | 0o604)
            os.mkfifo(self.local / "own")
            self.assertEqual(look(self.local / "made")[0], "prw-r-----")
            self.assertEqual(look(self.local / "plain")[0], "-rw----r--")
            soon(lambda: look(self.mount / "own")[0][0] == "p", "the owner's")
            if os.geteuid() == 0:
                self.assertFails(1, os.mknod, self.mount / "device", stat.S_IFCHR | 0o600, os.makedev(1, 3))
            # A FIFO is its machine's: what goes in there comes out there.
            self.assertEqual(self.shell("cat made & echo through >made; wait", self.mount), "through\n")


class Checkout(TwoSides):
    def fill(self, folder, files=300):
        for number in range(files):
            path = folder / f"d{number % 17}/e{number % 5}/f{number}"
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(b"line\n" * (number % 50))
            os.chmod(path, 0o755 if number % 3 == 0 else 0o644)
            if number % 7 == 0:
                path.with_name(f"l{number}").symlink_to(path.name)

    def git_status(self):
        return [self.shell(f"{GIT} status --porcelain", side) for side in (self.mount, self.local)]

    def test_a_repository_is_clean_on_both_sides(self):
        self.fill(self.local)
        self.shell(f"{GIT} init -q; {GIT} config core.fileMode true; {GIT} config core.symlinks true; {GIT} add .; "
                   f"{GIT} commit -qm one", self.local)
        with self.share():
            self.assertEqual(self.git_status(), ["", ""])
            self.shell(f"chmod 644 d0/e0/f0; ln -sf elsewhere d0/e0/l0; echo more >d1/e1/f1; {GIT} commit -qam two",
                       self.mount)
            self.assertEqual(self.git_status(), ["", ""])
            self.shell(f"{GIT} checkout -q HEAD~1", self.local)
            soon(lambda: self.git_status() == ["", ""], "what the owner has checked out")
            self.shell(f"{GIT} checkout -q main; {GIT} stash list; {GIT} gc -q; {GIT} fsck", self.mount)
            self.assertEqual(self.git_status(), ["", ""])
            self.assertEqual(look(self.local / "d0/e0/f0")[0], "-rw-r--r--")
            self.assertEqual(look(self.local / "d0/e0/l0")[1], "elsewhere")
            there = self.other / "there"
            self.shell(f"{GIT} clone -q . '{there}'; {GIT} clone -q '{there}' back; {GIT} -C back fsck", self.mount)
            self.shell(f"{GIT} fsck; {GIT} -C back fsck; [ $({GIT} -C back log --oneline | wc -l) = 2 ]", self.local)

    def tree(self, root):
        found = {}
        for folder, folders, files in os.walk(root):
            for name in folders + files:
                path = os.path.join(folder, name)
                info = os.lstat(path)
                content = pathlib.Path(path).read_bytes() if stat.S_ISREG(info.st_mode) else b""
                found[os.path.relpath(path, root)] = (*look(path), int(info.st_mtime), content)
        return found

    def test_copies_of_a_tree_are_equal_both_ways(self):
        source = self.other / "source"
        self.fill(source, 120)
        wanted = self.tree(source)
        with self.share():
            ways = {"cp": "cp -a {0} {1}", "tar": "mkdir {1}; tar -C {0} -cf - . | tar --no-same-owner -C {1} -xpf -"}
            if shutil.which("rsync"):
                ways["rsync"] = "rsync -rlptH {0}/ {1}"
            for name, way in ways.items():
                self.shell(way.format(source, self.mount / name), "/")
                self.assertEqual(self.tree(self.local / name), wanted, name)
                self.assertEqual(self.tree(self.mount / name), wanted, name)
                self.shell(way.format(self.mount / name, self.other / name), "/")
                self.assertEqual(self.tree(self.other / name), wanted, name)

    def test_projects_are_built_in_the_mount(self):
        (self.local / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.20)\nproject(p C)\n"
            "add_library(l SHARED l.c)\nadd_executable(e e.c)\ntarget_link_libraries(e l)\n")
        (self.local / "l.c").write_text("int f(void) { return 7; }\n")
        (self.local / "e.c").write_text("int f(void);\nint main(void) { return f(); }\n")
        with self.share():
            self.shell("cmake -S . -B b >log 2>&1 || (cat log; false)", self.mount)
            self.shell("cmake --build b >log 2>&1 || (cat log; false)", self.mount)
            self.shell("b/e", self.mount, code=7)
            self.shell("b/e", self.local, code=7)
            # As package managers do: many small files, links to programs, and a move of the whole.
            self.shell("python3 -m venv --without-pip v; "
                       "v/bin/python3 -c 'import sys; assert sys.prefix.endswith(\"/v\")'", self.mount)
            self.shell("mkdir -p m/.bin m/p; printf '#!/bin/sh\\necho tool\\n' >m/p/cli; chmod +x m/p/cli; "
                       "ln -s ../p/cli m/.bin/tool; mv m n; n/.bin/tool | grep -q tool; rm -r n", self.mount)


if __name__ == "__main__":
    unittest.main(verbosity=2)
