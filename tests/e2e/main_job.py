"""The main job, end to end: a local folder appears at a real mount, through the real plug-in."""
import filecmp
import hashlib
import json
import os
import pathlib
import signal
import subprocess
import sys
import time
import unittest

from share import FODR, ShareCase, mounted, wait_for


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


class Files(ShareCase):
    def test_bytes_cross_unchanged_both_ways(self):
        sizes = [0, 1, 511, 4096, 4097, 131072, 1048575, 1048577, 33554433]
        for size in sizes:
            (self.local / f"in{size}").write_bytes(os.urandom(size))
            (self.other / f"out{size}").write_bytes(os.urandom(size))
        with self.share():
            for size in sizes:
                self.assertTrue(filecmp.cmp(self.mount / f"in{size}", self.local / f"in{size}", shallow=False), size)
                self.shell(f"cp '{self.other}/out{size}' .")
                self.assertEqual((self.local / f"out{size}").stat().st_size, size)
                self.assertTrue(filecmp.cmp(self.other / f"out{size}", self.local / f"out{size}", shallow=False), size)

    def test_a_file_beyond_four_gigabytes(self):
        edges = [0, 2**31 - 3, 2**32 - 5, 2**32 + 7]
        with open(self.other / "big", "wb") as file:
            for edge in edges:
                file.seek(edge)
                file.write(os.urandom(100000))
        with self.share():
            self.shell(f"cp --sparse=always '{self.other}/big' big")
            self.assertEqual((self.mount / "big").stat().st_size, (self.other / "big").stat().st_size)
            for edge in edges:
                for place in (self.local, self.mount):
                    with open(self.other / "big", "rb") as good, open(place / "big", "rb") as file:
                        good.seek(edge)
                        file.seek(edge)
                        self.assertEqual(good.read(100000), file.read(100000), (place, edge))

    def test_names_in_any_script_and_of_any_bytes(self):
        names = [n.encode() for n in ("plain", "with space", "Größe.txt", "資料", "файл", "😀🎉", "a:b*c?d\"<e>|f", "trail.",
                                      "back\\slash", "x" * 255, ".hidden", "\uf02a", "tab\tname", "new\nline")]
        names += [b"\xff\xfe\x80", b"half\xc3"]
        base = os.fsencode(self.local)
        seen = os.fsencode(self.mount)
        for name in names[::2]:
            pathlib.Path(os.fsdecode(base + b"/" + name)).write_bytes(name)
        with self.share():
            for name in names[1::2]:
                with open(seen + b"/" + name, "wb") as file:
                    file.write(name)
            self.assertEqual(sorted(os.listdir(seen)), sorted(names))
            self.assertEqual(sorted(os.listdir(base)), sorted(names))
            for name in names:
                with open(seen + b"/" + name, "rb") as file:
                    self.assertEqual(file.read(), name)
                os.rename(seen + b"/" + name, seen + b"/moved")
                self.assertEqual(os.listdir(base).count(b"moved"), 1)
                os.unlink(seen + b"/moved")
            # The kernel may tell of a file's last close after the removal.
            wait_for(lambda: os.listdir(base) == [], "the removed files to go")

    def test_deep_paths(self):
        deep = "/".join(["a folder with a rather long name"] * 40)
        with self.share():
            os.makedirs(self.mount / deep)
            (self.mount / deep / "file").write_text("down here")
            self.assertEqual((self.local / deep / "file").read_text(), "down here")
            self.shell("rm -r a*")
            self.assertEqual(os.listdir(self.local), [])

    def test_times_sizes_and_permissions(self):
        (self.local / "old").write_text("12345")
        os.utime(self.local / "old", ns=(10**18, 10**18 + 123456700))
        with self.share():
            facts = (self.mount / "old").stat()
            self.assertEqual((facts.st_size, facts.st_mtime_ns), (5, 10**18 + 123456700))
            os.utime(self.mount / "old", ns=(2 * 10**18, 2 * 10**18 + 100))
            self.assertEqual((self.local / "old").stat().st_mtime_ns, 2 * 10**18 + 100)
            os.truncate(self.mount / "old", 3)
            self.assertEqual((self.local / "old").read_text(), "123")
            os.truncate(self.mount / "old", 10)
            self.assertEqual((self.local / "old").read_bytes(), b"123" + bytes(7))
            there, here = os.statvfs(self.mount), os.statvfs(self.local)
            self.assertEqual(there.f_blocks * there.f_frsize, here.f_blocks * here.f_frsize)

    def test_a_file_that_grows_while_it_is_read(self):
        (self.local / "log").write_text("")
        with self.share():
            with open(self.mount / "log") as reader, open(self.local / "log", "a") as writer:
                for number in range(20):
                    writer.write(f"{number}\n")
                    writer.flush()
                    wanted = f"{number}\n"
                    got = []
                    wait_for(lambda: got.append(reader.readline()) or got[-1] == wanted, "the new line")

    def test_changes_on_the_owning_side_become_visible(self):
        with self.share():
            self.assertEqual(os.listdir(self.mount), [])
            (self.local / "new").write_text("one")
            wait_for(lambda: (self.mount / "new").exists() and (self.mount / "new").read_text() == "one", "the new file")
            (self.local / "new").write_text("longer than one")
            wait_for(lambda: (self.mount / "new").read_text() == "longer than one", "the new content")
            os.unlink(self.local / "new")
            wait_for(lambda: not (self.mount / "new").exists(), "the deletion")


class Work(ShareCase):
    def test_twenty_thousand_files_list(self):
        for number in range(20000):
            (self.local / f"file{number:05}").write_bytes(b"x" * (number % 7))
        with self.share():
            listing = {entry.name: entry.stat().st_size for entry in os.scandir(self.mount)}
            self.assertEqual(listing, {f"file{n:05}": n % 7 for n in range(20000)})


class Command(ShareCase):
    def test_the_status_of_the_command_is_ours(self):
        for script, status in (("exit 0", 0), ("exit 7", 7), ("kill -TERM $$", 128 + signal.SIGTERM)):
            done = self.fodr("share", self.local, "--mount", self.mount, "--", "bash", "-c", script)
            self.assertEqual(done.returncode, status, done.stderr)
        done = self.fodr("share", self.local, "--mount", self.mount, "--", "bash", "-c", f"echo there > '{self.mount}/f'")
        self.assertEqual((self.local / "f").read_text(), "there\n")
        self.assertFalse(mounted(self.mount))
        talkative = self.fodr("share", self.local, "--mount", self.mount, "-v", "--", "true")
        self.assertEqual((talkative.returncode, talkative.stderr), (0, ""))

    def test_packets_are_shown_and_counted(self):
        (self.local / "f").write_text("seen")
        script = f"cat '{self.mount}/f'; '{FODR}' status --traffic; '{FODR}' status --traffic --json | tail -n 1"
        done = self.fodr("share", self.local, "--mount", self.mount, "--trace", "--", "bash", "-c", script)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertTrue(done.stdout.startswith("seen"), done.stdout)
        counted = {row["kind"]: row for row in json.loads(done.stdout.splitlines()[-1])}
        self.assertEqual(counted["CORE_SERVER_ANNOUNCE"], {"kind": "CORE_SERVER_ANNOUNCE", "packets": 1, "bytes": 12})
        self.assertRegex(done.stdout, r"\nCREATE +\d+ +\d+ +\d+ +[\d.]+\n")
        self.assertRegex(done.stdout, r"\ntotal +\d+ +\d+ +\d+ +100.00\n")
        # The plug-in says the same, and each packet in words.
        self.assertIn(r"Path:\f)", done.stderr)
        self.assertIn("SERVER_ANNOUNCE(VersionMajor:1, VersionMinor:c, ClientId:", done.stderr)
        self.assertIn("(CORE_SERVER_ANNOUNCE); 12 bytes over 1 packets; Average = 12 bytes per packet", done.stderr)
        quiet = self.fodr("share", self.local, "--mount", self.mount, "--", "true")
        self.assertEqual((quiet.returncode, quiet.stderr), (0, ""))

    def test_folders_come_and_go_while_it_runs(self):
        for name in ("one", "two"):
            (self.other / name).mkdir()
            (self.other / name / "f").write_text(name)
        with self.share("--layout", "folders"):
            self.assertEqual(os.listdir(self.mount), ["local"])
            facts = self.status()
            self.assertEqual([type(facts[name]) for name in ("pid", "seconds", "reconnects")], [int] * 3)
            self.assertEqual(self.fodr("add", self.scratch.root).returncode, 3)  # the mount is in it
            for name in ("one", "two"):
                done = self.fodr("add", self.other / name)
                self.assertEqual(done.returncode, 0, done.stderr)
                wait_for(lambda: (self.mount / name / "f").exists(), name)
                self.assertEqual((self.mount / name / "f").read_text(), name)
            self.assertIn(str(self.other / "two"), self.fodr("list").stdout)
            self.assertEqual(self.fodr("remove", self.other / "one").returncode, 0)
            wait_for(lambda: sorted(os.listdir(self.mount)) == ["local", "two"], "the folder's end")
            self.assertNotEqual(self.fodr("remove", self.other / "one").returncode, 0)
            self.assertNotEqual(self.fodr("add", self.other / "missing").returncode, 0)

    def test_a_read_only_share_makes_no_new_files(self):
        (self.local / "f").write_text("x")
        for options in (["--read-only"], ["--agent-option=--permission", "--agent-option=1"],
                        ["--agent-option=--force", f"--agent-option=2:{self.local}", "--agent-option=--only-forced"]):
            with self.subTest(options), self.share(*options):
                self.assertEqual((self.mount / "f").read_text(), "x")
                self.assertFalse(os.access(self.mount / "f", os.W_OK))
                for attempt in (lambda: (self.mount / "new").write_text("x"), lambda: (self.mount / "f").write_text("y"),
                                lambda: os.unlink(self.mount / "f"), lambda: os.mkdir(self.mount / "d")):
                    self.assertRaises(OSError, attempt)
        self.assertEqual((self.local / "f").read_text(), "x")

    def test_what_is_wrong_is_said_in_one_sentence(self):
        (self.other / "file").write_text("")
        taken = self.other / "taken"
        taken.mkdir()
        (taken / "something").write_text("")
        cases = [
            (["share", self.other / "missing", "--mount", self.mount], {}),
            (["share", self.other / "file", "--mount", self.mount], {}),
            (["share", self.local, "--mount", taken], {}),
            (["share", self.local, "--mount", self.other / "file"], {}),
            (["share", self.local, "--mount", self.local / "in"], {}),
            (["share", self.local, "--mount", self.mount], {"FODR_PLUGIN": "/nowhere/libfodrClient.so"}),
            (["share", self.local, "--mount", self.mount, "--agent-option=--exclude", "--agent-option=0781"], {}),
            (["share", self.local, "--mount", self.mount, "--read-only", "--agent-option=--permission",
              "--agent-option=5"], {}),
            (["list"], {}),
        ]
        codes = []
        for words, extra in cases:
            done = self.fodr(*words, "--", "true", env={**self.scratch.environment, **extra}) if words[0] == "share" else \
                self.fodr(*words)
            codes.append(done.returncode)
            self.assertNotIn(done.returncode, (0, 139, 134), words)
            self.assertEqual(len(done.stderr.strip().splitlines()), 1, f"{words}: {done.stderr}")
            self.assertFalse(mounted(self.mount))
        no_fuse = subprocess.run(
            ["unshare", "-m", "bash", "-c", 'mount --bind /dev/null /dev/fuse && exec "$@"', "sh", FODR, "share",
             self.local, "--mount", self.mount, "--", "true"], capture_output=True, text=True, env=self.scratch.environment)
        self.assertNotIn(no_fuse.returncode, (0, 1), no_fuse.stderr)
        self.assertEqual(len(no_fuse.stderr.strip().splitlines()), 1, no_fuse.stderr)


class Send(ShareCase):
    """Files of a folder that holds others, too."""

    def setUp(self):
        super().setUp()
        for name in ("a.txt", "secret", "A.TXT", "F/deep/in", "F2/x", "G/x", "a,b|c:d*"):
            (self.local / name).parent.mkdir(parents=True, exist_ok=True)
            (self.local / name).write_text(name)
        (self.other / "p.jpg").write_bytes(os.urandom(3 << 20))

    def send(self, *files, arguments=()):
        return self.share(*arguments, folders=[self.local / name for name in files], verb="send")

    def tree(self):
        return sorted(str(path.relative_to(self.mount)) for path in self.mount.rglob("*"))

    def test_the_other_side_sees_exactly_what_was_named(self):
        with self.send("a.txt", "F/", "a,b|c:d*"):
            for _ in range(2):  # the second listing is kept from the first
                self.assertEqual(sorted(os.listdir(self.mount)), ["F", "a,b|c:d*", "a.txt"])
            self.assertEqual(self.tree(), ["F", "F/deep", "F/deep/in", "a,b|c:d*", "a.txt"])
            for name in ("a.txt", "a,b|c:d*", "F/deep/in"):
                self.assertEqual((self.mount / name).read_text(), name)
            (self.mount / "F" / "new").write_text("into a folder that was sent")
            self.assertEqual((self.local / "F" / "new").read_text(), "into a folder that was sent")
            (self.mount / "a.txt").write_text("changed over there")
            self.assertEqual((self.local / "a.txt").read_text(), "changed over there")
            (self.local / "a.txt").write_text("and here again")
            wait_for(lambda: (self.mount / "a.txt").read_text() == "and here again", "the new content")

    def test_a_link_that_was_sent_is_what_it_leads_to(self):
        os.symlink("a.txt", self.local / "link")
        for links in ("show", "follow", "hide"):
            with self.send("link", arguments=(f"--agent-option=--links={links}",)):
                wanted = (self.local / "a.txt").read_text()
                self.assertEqual(os.listdir(self.mount), ["link"])
                self.assertFalse((self.mount / "link").is_symlink())
                self.assertEqual((self.mount / "link").read_text(), wanted)

    def test_files_of_several_folders_are_in_folders_of_their_names(self):
        (self.other / "local").mkdir()
        (self.other / "local" / "q").write_text("q")
        files = [self.local / "a.txt", self.other / "p.jpg", self.other / "local" / "q"]
        with self.share(folders=files, verb="send"):
            self.assertEqual(self.tree(), ["local", "local(1)", "local(1)/q", "local/a.txt", "other", "other/p.jpg"])
            self.assertTrue(filecmp.cmp(self.mount / "other" / "p.jpg", self.other / "p.jpg", shallow=False))
            listed = self.fodr("list").stdout
            self.assertIn(f"{self.other}/p.jpg at {self.mount}/other/p.jpg", listed)
            self.assertNotIn(f"{self.other} at", listed)

    def test_folders_that_differ_in_case_alone_are_two(self):
        for folder in ("Docs", "docs"):
            for name in ("a", "b", folder):
                (self.local / folder).mkdir(exist_ok=True)
                (self.local / folder / name).write_text(folder + name)
        with self.send("Docs/a", "docs/b"):
            shown = {path.read_text() for path in self.mount.rglob("*") if path.is_file()}
            self.assertEqual(shown, {"Docsa", "docsb"}, self.tree())
            listed = self.fodr("list").stdout
            for line in listed.splitlines():
                if " at " in line:
                    here, there = line.split(" at ")[0].strip(), line.split(" at ")[1].split(",")[0].strip()
                    self.assertEqual(pathlib.Path(here).read_text(), pathlib.Path(there).read_text(), listed)
        with self.share(folders=[self.local / "Docs", self.local / "docs"]):
            trees = [sorted(os.listdir(folder)) for folder in sorted(self.mount.iterdir())]
            self.assertEqual(trees, [["Docs", "a", "b"], ["a", "b", "docs"]])
            done = self.fodr("remove", self.local / "docs")
            self.assertEqual(done.returncode, 0, done.stderr)
            wait_for(lambda: os.listdir(self.mount) == ["Docs"], "the end of one share")
            self.assertEqual((self.mount / "Docs" / "b").read_text(), "Docsb")

    def test_a_command_runs_and_an_agent_that_asks_for_more_gets_nothing(self):
        done = self.fodr("send", "a.txt", "--mount", self.mount, "--agent-option=--force", f"--agent-option={self.local}",
                         "--", "bash", "-c", 'ls "$FODR_MOUNT"; exit 7', cwd=self.local)
        self.assertEqual((done.returncode, done.stdout), (7, "a.txt\n"), done.stderr)
        os.mkfifo(self.other / "fifo")
        for words in (["none"], ["a.txt", "./a.txt"], ["/"], [self.other / "fifo"], []):
            done = self.fodr("send", *words, "--mount", self.mount, "--", "true", cwd=self.local)
            self.assertIn(done.returncode, (2, 7), words)
            self.assertEqual(len(done.stderr.strip().splitlines()), 1, done.stderr)


class Loss(ShareCase):
    def test_killing_either_side_leaves_no_mount_and_no_obstacle(self):
        for victim in ("agent", "host", "both"):
            (self.local / "f").write_text(victim)
            share = self.share()
            share.__enter__()
            held = open(self.mount / "f", "r+")
            agent = share.agent_pid()
            if victim in ("host", "both"):
                os.kill(share.process.pid, signal.SIGKILL)
            if victim in ("agent", "both"):
                os.kill(agent, signal.SIGKILL)
            if victim != "both":
                wait_for(lambda: not mounted(self.mount), f"the mount to go after {victim}")
            share.process.wait(60)
            try:
                held.close()
            except OSError:
                pass  # nobody is there to hear of it
            self.assertEqual((self.local / "f").read_text(), victim)
            with self.share():
                self.assertEqual((self.mount / "f").read_text(), victim)

    def test_requests_in_flight_end_when_the_host_dies(self):
        (self.local / "f").write_bytes(bytes(1 << 20))
        share = self.share()
        share.__enter__()
        reader = subprocess.Popen(["bash", "-c", f"while cat '{self.mount}/f' > /dev/null; do :; done"],
                                  stderr=subprocess.DEVNULL)
        os.kill(share.process.pid, signal.SIGKILL)
        reader.wait(60)  # ends because the read fails
        share.process.wait(60)
        wait_for(lambda: not mounted(self.mount), "the mount to go")

    def test_an_agent_that_hears_nothing_is_given_up_in_five_seconds(self):
        share = self.share()
        share.__enter__()
        (self.mount / "f").write_text("written")
        os.kill(share.agent_pid(), signal.SIGSTOP)
        began = time.monotonic()
        share.process.send_signal(signal.SIGINT)
        self.assertEqual(share.process.wait(60), 4)
        self.assertLess(time.monotonic() - began, 5)
        self.assertFalse(mounted(self.mount))
        self.assertIn("the agent doesn't finish", share.log())


if __name__ == "__main__":
    program = unittest.main(exit=False, verbosity=2)
    result = program.result
    failed = len(result.failures) + len(result.errors)
    print(f"{result.testsRun - failed - len(result.skipped)} passed, {failed} failed, {len(result.skipped)} skipped")
    sys.exit(1 if failed or result.testsRun == 0 else 0)
