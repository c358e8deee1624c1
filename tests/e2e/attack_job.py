"""What a hostile agent may try, one row each (attack_rows.py): names that lead out, links, records that lie, other shares'
files, and changes of what is read-only. After every row nothing outside has changed, nothing of it was told, and an honest
request is still answered. ROW=WORDS runs the rows alone whose titles hold these words."""
import collections
import os
import pathlib
import shutil
import socket
import struct
import unicodedata
import unittest

import raw_agent as raw
from attack_rows import (ANSWERED, ANY, FILES, HIDDEN, LINKS, LISTED, NO, ODD, OK, OUTSIDE, ROWS, SILENCE,
                         WRITE_PROTECTED)
from raw_agent import ANY_ACCESS, CLOSE, create, listing, read, request, write
from share import Share, ShareCase

def build(base):
    shutil.rmtree(base, ignore_errors=True)
    (base / "empty").mkdir(parents=True)
    for name, content in FILES.items():
        path = base / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    for name, target in LINKS.items():
        (base / "docs/sub" / name).symlink_to(target)
    make_odd_ones(base)


def make_odd_ones(base):
    """What can't be copied, or leads to where it is built."""
    (base / "docs/sub/absolute").symlink_to(base / "outside")
    os.mkfifo(base / "docs/sub/fifo")
    with socket.socket(socket.AF_UNIX) as end:
        end.bind(str(base / "docs/sub/socket"))


def picture(base, may_change):
    """All that the agent may not change: names, kinds, modes, contents, times, links and extended attributes."""
    found = {}

    def add(path):
        name = str(path.relative_to(base))
        if name != "." and may_change(name):
            return
        facts = path.lstat()
        times = (facts.st_mtime_ns, facts.st_ctime_ns)
        if path.is_symlink():
            found[name] = os.readlink(path)
        elif path.is_dir():
            # A folder in which something may change has times that do.
            found[name] = (facts.st_mode, facts.st_uid, () if may_change(name + "/inside.txt") else times)
            for entry in path.iterdir():
                add(entry)
        elif not path.is_file():
            found[name] = (facts.st_mode, facts.st_uid, times)
        else:
            attributes = [(key, os.getxattr(path, key)) for key in os.listxattr(path)]
            found[name] = (facts.st_mode, facts.st_uid, facts.st_nlink, times, attributes, path.read_bytes())
    add(base)
    return found


def may_change_plain(name):
    return name.startswith(("docs/", "second/", "empty/"))


def may_change_listed(name):
    parts = name.split("/")
    return len(parts) > 1 and parts[0] in ("docs", "second") and parts[1] in LISTED


def may_change_nothing(_name):
    return False


Kind = collections.namedtuple("Kind", "verb read_only listed may_change")
KINDS = {
    "p": Kind("share", False, False, may_change_plain), "l": Kind("send", False, True, may_change_listed),
    "r": Kind("share", True, False, may_change_nothing), "q": Kind("send", True, True, may_change_nothing),
}

class Session:
    """A running share of one kind, and the raw agent that it is connected to."""

    def __init__(self, letter, scratch, *options, **agent):
        self.letter, self.kind, self.scratch = letter, KINDS[letter], scratch
        self.base = scratch.root / letter
        build(self.base)
        names = ("docs", "second") if self.kind.listed else ("docs", "second", "empty")
        self.agent = raw.RawAgent(**agent)
        offered = [self.base / name for name in names]
        if self.kind.listed:
            offered = [self.base / name / file for name in names for file in LISTED if (self.base / name / file).exists()]
        if self.kind.read_only:
            options = ("--read-only", *options)
        self.share = Share(scratch, *options, folders=offered, target=("--tcp", f"127.0.0.1:{self.agent.port}"),
                           verb=self.kind.verb)
        self.share.__enter__()
        self.agent.wait_devices(len(names))
        self.device, self.other = self.agent.devices["docs"], self.agent.devices["second"]
        self.before = picture(self.base, self.kind.may_change)
        self.handle = 0

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        self.share.__exit__(*failure)
        self.agent.close()

    def end(self):
        """A host that a row has killed was told of already."""
        self.__exit__(*([None] * 3 if self.share.process.poll() is None else [AssertionError] * 3))

    # What rows of their own ask for; closed at the end of the row.
    def open(self, device, what):
        file = raw.file_of(self.agent.call(device, 0, what))
        self.opened.append((device, file))
        return file

    folder = property(lambda self: self.open(self.device, create("\\sub")))
    root = property(lambda self: self.open(self.device, create("\\")))
    other_root = property(lambda self: self.open(self.other, create("\\")))
    other_folder = property(lambda self: self.open(self.other, create("\\sub")))
    other_file = property(lambda self: self.open(self.other, create("\\inside.txt")))

    def honest(self):
        answer = self.agent.call(self.device, 0, create("\\honest.txt"))
        file = raw.file_of(answer)
        got = self.agent.call(self.device, file, read(100))
        closed = self.agent.call(self.device, file, request(CLOSE))
        return bool(file and got and closed and raw.data_of(got) == b"honest" and closed.status == OK)

    def attack(self, given):
        """The status that counts."""
        self.opened, self.handle, self.missed = [], 0, False
        try:
            if given.opened:
                answer = self.agent.call(self.device, 0, given.opened)
                self.handle = raw.file_of(answer)
                if not self.handle:
                    self.missed = not self.kind.read_only and not given.title.startswith("the mark")
                    return answer and answer.status
                self.opened.append((self.device, self.handle))
            status = SILENCE
            for what in given.requests:
                status = self.send(given, what)
            return status
        finally:
            for device, file in reversed(self.opened):
                self.agent.call(device, file, request(CLOSE))

    def send(self, given, what):
        device, file = self.device, self.handle
        if isinstance(what, int):
            self.agent.send(self.agent.packet(device, file, read(10))[:what])
            return SILENCE
        if isinstance(what, tuple) and not isinstance(what, raw.Request):
            device = device if what[0] is None else what[0]
            file, what = what[1](self), what[2]
        elif not isinstance(what, raw.Request):
            what = what(self)
        waits = what.major == raw.DIRECTORY and what.minor == 2
        answer = self.agent.call(device, file, what, 0.1 if given.expected is SILENCE or waits else 10)
        if answer and what.major == raw.CREATE and answer.status < 0x80000000:
            made = raw.file_of(answer)
            self.opened.append((device, made))
            for look in (read(200), listing("\\*")):  # whatever it is shows what it holds
                self.agent.call(device, made, look)
        return answer and answer.status

    def leaks(self):
        """What answers told of outside; of unlisted neighbours as well, where there are any."""
        with self.agent.changed:
            seen = bytes(self.agent.seen)
            self.agent.seen.clear()
        words = [OUTSIDE, "secret.txt".encode("utf-16-le")]
        if self.kind.listed:
            words += [HIDDEN, "hidden".encode("utf-16-le"), "subway".encode("utf-16-le"), ".bak".encode("utf-16-le")]
        return [word for word in words if word in seen]


def problems_of(session, given):
    status = session.attack(given)
    found = []
    expected = given.expected
    if expected == NO:
        fits = status is not None and status >= 0x80000000
    elif expected == ANSWERED:
        fits = status is not None
    else:
        fits = expected == ANY or (status in expected if isinstance(expected, set) else status == expected)
    if not fits:
        found.append(f"answered {'nothing' if status is None else hex(status)}")
    if session.missed:
        found.append("what it is tried on can't be opened")
    now = picture(session.base, session.kind.may_change)
    changed = sorted(name for name in now.keys() | session.before.keys() if now.get(name) != session.before.get(name))
    if changed:
        found.append(f"changed {changed}")
    leaks = session.leaks()
    if leaks:
        found.append(f"told {leaks}")
    return found, bool(changed)


class Attacks(ShareCase):
    def run_rows(self, letter):
        session = Session(letter, self.scratch)
        chosen = os.environ.get("ROW", "")
        count = 0
        for given in ROWS:
            if letter not in given.kinds or chosen not in given.title:
                continue
            count += 1
            found, broken = problems_of(session, given)
            if not session.kind.read_only and not intact(session.base):
                broken = True  # what the agent may change: the next row wants it whole
            if broken and not found:
                repair(session)
            if not session.honest():
                found.append("an honest request isn't answered")
            if found:
                with self.subTest(share=letter, row=given.title):
                    self.fail("; ".join(found))
            if found and (broken or "an honest" in found[-1]):
                session.end()
                session = Session(letter, self.scratch)
        session.end()
        self.assertGreater(count, 100 if not chosen else 0)

    def test_plain(self):
        self.run_rows("p")

    def test_named_files(self):
        self.run_rows("l")

    def test_read_only(self):
        self.run_rows("r")

    def test_read_only_named_files(self):
        self.run_rows("q")


class Strangers(ShareCase):
    """What an agent says of itself, and asks for by other ways than requests."""

    def assert_whole(self, session):
        self.assertEqual(picture(session.base, session.kind.may_change), session.before)
        self.assertTrue(session.honest(), "an honest request isn't answered")

    def test_no_policy_makes_other_folders_appear(self):
        base = self.scratch.root / "p"
        wanted = [b"*all", b"/", b"", b"C", b"C:", b"C:\\", b"..", b"docs/..", b"/etc", b"\\??\\C:\\", b"/proc/self/root",
                  b"\xff\xfe"]
        wanted += [str(base / name).encode() for name in (
            "", "outside", "docs/..", "docs/../outside", "docs-next", "doc", "docs/sub/out", "docs/sub/up",
            "docs//../secret.txt", "docs/sub/absolute", "docs/./../outside")]
        block = raw.policy([(5, path) for path in wanted], forced=1)
        with Session("p", self.scratch, block=raw.policy()) as session:
            for again in range(2):
                session.agent.send(raw.policy_packet(block))
                session.agent.send(struct.pack("<HH", 0x4472, 0x554C))
                self.assertTrue(session.honest())
                self.assert_whole(session)
            names = {name.rstrip("0123456789()") for name in session.agent.devices}
            self.assertLessEqual(names, {"docs", "second", "empty"}, "another folder was shared")

    def test_read_only_whatever_the_agent_says(self):
        for version, permission in ((6, 0), (6, 3), (6, 4), (6, 5), (6, 255), (5, 5), (3, 5), (2, 5), (1, 5)):
            with self.subTest(version=version, permission=permission):
                block = raw.policy([(permission, str(self.scratch.root / "r/docs").encode())], permission)
                if version < 5:  # neither lengths nor a filter
                    block = bytes([1, 0, permission, 0, 0, 0, 0, 0])
                with Session("r", self.scratch, block=b"" if version == 1 else block, version=version) as session:
                    agent, device = session.agent, session.device
                    for what in (create("\\made.txt", raw.CREATE_NEW, access=ANY_ACCESS),
                                 create("\\inside.txt", raw.OVERWRITE_IF, access=ANY_ACCESS)):
                        self.assertEqual(agent.call(device, 0, what).status, WRITE_PROTECTED)
                    file = raw.file_of(agent.call(device, 0, create("\\inside.txt")))
                    agent.send(raw.policy_packet(raw.policy(permission=5)))  # once more, by another word
                    self.assertNotEqual(agent.call(device, file, write(b"hole")).status, OK)
                    agent.call(device, file, request(CLOSE))
                    self.assert_whole(session)

    def test_a_handshake_out_of_order(self):
        packets = [struct.pack("<HHHHI", 0x4472, 0x496E, 1, 12, 8), struct.pack("<HHHH", 0x4472, 0x5350, 9, 0),
                   struct.pack("<HH", 0x4472, 0x554C), raw.policy_packet(raw.policy()), b"", b"\0", b"\x72\x44",
                   b"\xfe\xff\1", raw.policy_packet(b"", 0xFFFFFFFF), raw.policy_packet(raw.policy(), 0),
                   struct.pack("<HHI", 0x4472, 0x6472, 0xFFFF), struct.pack("<HHII", 0x4472, 0x6472, 0x7FFFFFFF, 5),
                   struct.pack("<HHI", 0x5052, 0x5043, 1), struct.pack("<HHIIBB", 0xFFFE, 0x4952, 0xFFFF, 0, 0, 0),
                   *[struct.pack("<HHHH", 0xFFFE, 1, version, 0xFFFF) for version in (0, 1, 7, 0xFFFF, 6)]]
        with Session("p", self.scratch) as session:
            for packet in packets:
                session.agent.send(packet)
                self.assert_whole(session)
            for command in (f"ADD,{session.base}/outside|stolen", f"REMOVE,{session.base}/docs|docs"):
                session.agent.send_bytes(raw.RawAgent.as_frame(command.encode() + b"\0", raw.CONTROL_OBJECT))
                self.assert_whole(session)
            self.assertNotIn("stolen", session.agent.devices)

    def test_where_it_is_mounted_is_data(self):
        for text in (b"\x1b]0;taken\x07/there", b"/there\nfodr: all is well", b"\"},{\"pid\": 1", b"/\xc2\x9b31m",
                     b"/\xe2\x80\xae", b"-rf", b"$(touch x)", b"/x" * 2000):
            with self.subTest(text=text[:30]):
                plain = ""
                try:
                    with Session("p", self.scratch, mounted=text) as session:
                        self.assertEqual(self.status()["state"], "running")
                        plain = self.fodr("status").stdout + session.share.log()
                except AssertionError as refused:  # which is as good
                    self.assertIn("fodr share ended with 5", plain := str(refused))
                self.assertFalse([c for c in plain if c != "\n" and unicodedata.category(c) == "Cc"], plain)
                self.assertNotIn("\nfodr: all is well", plain)

    def test_the_mount_of_a_command_is_no_line_of_the_agents(self):
        not_text = (b"/\xff\xfe", b"/\xc3", b"/\xed\xa0\x80")
        for text in (*not_text, b"\x1b[31m/there", b"/there\nPATH=/tmp", b"relative", b"-rf"):
            agent = raw.RawAgent(mounted=text)
            done = self.fodr("share", self.local, "--tcp", f"127.0.0.1:{agent.port}", "--", "sh", "-c",
                             "printenv FODR_MOUNT; true", text=False)
            self.assertNotIn(text, done.stdout + (done.stderr if text in not_text else b""), "taken unchecked")
            (done.stdout + done.stderr).decode()  # is text all the same
            agent.close()


def intact(base):
    """Whether the offered files are as they were built."""
    names = {str(path.relative_to(base)) for path in base.rglob("*")}
    wanted = set(FILES) | {f"docs/sub/{odd}" for odd in (*LINKS, *ODD)}
    folders = {str(parent) for name in wanted for parent in pathlib.PurePath(name).parents} - {"."} | {"empty"}
    return names == wanted | folders and all(
        (base / name).read_bytes() == content and (base / name).stat().st_mode & 0o200 for name, content in FILES.items())


def repair(session):
    """The offered files anew; the folders that are offered stay the same ones."""
    fresh = session.scratch.root / "fresh"
    build(fresh)
    for odd in ODD:
        (fresh / "docs/sub" / odd).unlink()
    for name in ("docs", "second", "empty"):
        for entry in (session.base / name).iterdir():
            shutil.rmtree(entry) if entry.is_dir() and not entry.is_symlink() else entry.unlink()
        shutil.copytree(fresh / name, session.base / name, symlinks=True, dirs_exist_ok=True)
    make_odd_ones(session.base)
    session.before = picture(session.base, session.kind.may_change)


if __name__ == "__main__":
    print(f"{len(ROWS)} rows")
    unittest.main()
