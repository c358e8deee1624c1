"""What a run of `fodr share` keeps to, whatever the agent says: read-only shares, and rights that it has given up."""
import errno
import json
import os
import pathlib
import signal
import unittest

from network_job import SshCase
from share import FODR, ShareCase, children, command_line, free_port, mounted, wait_for


def descendants(pid):
    """Of a process, those below its launcher as well."""
    found = children(pid)
    return found + [below for child in found for below in descendants(child)]


class Confinement(ShareCase):
    def setUp(self):
        super().setUp()
        (self.local / "f").write_text("x")

    def agent_of(self, share):
        return next(pid for pid in descendants(share.process.pid) if b"agent" in command_line(pid))

    def test_a_run_with_a_command_is_fixed_and_the_command_is_not_confined(self):
        script = (f'"{FODR}" status --json; echo made > "$FODR_MOUNT/g"; mkdir "$FODR_MOUNT/d"; '
                  f'mv "$FODR_MOUNT/g" "$FODR_MOUNT/d/h"; rm "$FODR_MOUNT/f"; '
                  f'echo free > "{self.other}/free"; "{FODR}" add "{self.other}"; exit 9')
        done = self.fodr("share", self.local, "--layout", "folders", "--mount", self.mount, "--", "sh", "-c",
                         f'FODR_MOUNT="$FODR_MOUNT/local"; {script}')
        facts = json.loads(done.stdout)
        self.assertEqual((done.returncode, facts["fixed"], facts["confined"], facts["mount"]),
                         (9, "yes", "yes", str(self.mount)), done.stderr)
        self.assertIn("--no-fixed", done.stderr)
        self.assertEqual((self.local / "d/h").read_text(), "made\n")
        self.assertFalse((self.local / "f").exists())
        self.assertEqual((self.other / "free").read_text(), "free\n")
        self.assertFalse(mounted(self.mount))

    def test_which_runs_are_fixed(self):
        made = self.scratch.root / "made-by-fodr"
        for fixed, verb, folders, options in (
                ("no", "share", [self.local], ()), ("yes", "share", [self.local], ("--fixed", "--mount", made)),
                ("yes", "send", [self.local / "f"], ()), ("no", "send", [self.local / "f"], ("--no-fixed",)),
                ("yes", "share", [self.local], ("--fixed", "--links-outside"))):
            target = () if "--mount" in options else None
            with self.subTest(options=options, verb=verb), \
                    self.share(*options, verb=verb, folders=folders, target=target) as share:
                facts = self.status()
                self.assertEqual(facts["fixed"], fixed)
                free = "--links-outside" in options
                self.assertEqual(facts["confined"] == "yes", fixed == "yes" and not free, facts["confined"])
                for task in pathlib.Path(f"/proc/{share.process.pid}/task").iterdir():
                    self.assertIn(f"NoNewPrivs:\t{int(fixed == 'yes' and not free)}", (task / "status").read_text())
                self.assertIn("confined: " + facts["confined"], self.fodr("status").stdout)
            self.assertFalse(made.exists())

    def test_the_mount_of_an_agent_that_dies_is_taken_away(self):
        for options, ends in ((("--fixed",), True), (("--fixed", "--reconnect"), False)):
            with self.share(*options) as share:
                os.kill(self.agent_of(share), signal.SIGKILL)
                if ends:
                    self.assertEqual(share.process.wait(60), 4)
                else:
                    wait_for(lambda: self.status()["reconnects"] == 1, "another agent")
                    self.assertEqual((self.mount / "f").read_text(), "x")
            self.assertFalse(mounted(self.mount))

    def test_a_read_only_share_is_kept_so_by_the_host(self):
        (self.local / "d").mkdir()
        before = {path: path.stat() for path in (self.local, self.local / "f", self.local / "d")}
        f, d = self.mount / "f", self.mount / "d"
        changes = {
            "make": lambda: (self.mount / "new").write_text("y"), "overwrite": lambda: f.write_text("y"),
            "append": lambda: f.open("a").close(), "cut": lambda: os.truncate(f, 0), "remove": f.unlink,
            "rename": lambda: f.rename(self.mount / "g"), "replace": lambda: f.rename(d / "f"),
            "make folder": lambda: (self.mount / "e").mkdir(), "remove folder": d.rmdir,
            "times": lambda: os.utime(f, (1, 1)), "mode": lambda: f.chmod(0o400),
            "attribute": lambda: os.setxattr(f, "user.a", b"b"), "link": lambda: os.link(f, self.mount / "h"),
        }
        for fixed in ("--fixed", "--no-fixed"):
            place = f"127.0.0.1:{free_port()}"
            agent = self.agent("--listen", place, "--permission", "4", self.mount)
            with self.share("--read-only", fixed, target=("--tcp", place)):
                self.assertEqual((f.read_text(), sorted(os.listdir(self.mount))), ("x", ["d", "f"]))
                for what, change in changes.items():
                    with self.subTest(what), self.assertRaises(OSError) as refused:
                        change()
                    self.assertIn(refused.exception.errno, (errno.EROFS, errno.ENOTSUP, errno.EPERM), what)
                    if what in ("make", "overwrite", "append", "cut", "remove", "rename", "make folder", "times"):
                        self.assertEqual(refused.exception.errno, errno.EROFS, what)
            agent.wait(60)
        for path, facts in before.items():
            now = path.stat()
            self.assertEqual((now.st_mtime_ns, now.st_ctime_ns, now.st_mode, now.st_size),
                             (facts.st_mtime_ns, facts.st_ctime_ns, facts.st_mode, facts.st_size), path)


class ConfinedSsh(SshCase):
    def test_a_fixed_run_connects_again(self):
        with self.share(*self.to("--fixed")) as share:
            self.assert_usable()
            ssh = next(pid for pid in descendants(share.process.pid) if command_line(pid)[:1] == [b"ssh"])
            os.kill(ssh, signal.SIGKILL)
            wait_for(lambda: self.status()["reconnects"] == 1, "ssh")
            self.assert_usable()


if __name__ == "__main__":
    unittest.main(verbosity=2)
