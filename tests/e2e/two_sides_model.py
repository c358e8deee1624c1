#!/usr/bin/env python3
"""The owner and the mount do random calls on one tree, one call at a time, and a plain folder gets the same calls: every
result, every error and every byte must be the same. The mount may be behind the owner only where MAY_BE_BEHIND says so,
and only for BOUND; how often it was, is printed."""
import argparse
import collections
import concurrent.futures
import errno
import os
import random
import shutil
import stat
import sys
import time
import traceback

from share import Scratch, Share, forget_names

PATIENCE = float(os.environ.get("FODR_TEST_PATIENCE", 1))
BOUND = 0.5 * PATIENCE  # seconds after an owner's change
LOST_NAME = 0.5 * PATIENCE  # and so much more if no notice comes: the file is open by a name that it has lost

# Where the mount may show what was before the owner's change. Everything else is at once.
MAY_BE_BEHIND = {
    "look": "stat, lstat, readlink, fstat: facts are remembered",
    "name": "a call that fails for what a remembered name says, as ENOENT does: nothing was done, and it is done again",
    "way": "a path through a folder or over a link which the owner moved, made or removed: the way is remembered",
    "held": "reading through a descriptor that was open before the change: what was read is remembered",
}
NAME_ERRORS = {"ENOENT", "EEXIST", "ENOTDIR", "EISDIR", "ELOOP"}
WAY_ERRORS = NAME_ERRORS | {"EINVAL", "ENOTEMPTY"}  # moving a folder into itself or over what it is in

# What a call through the descriptor of a removed folder says: in the plain folder, in the mount. A removed folder is
# unknown to the host, so the mount can't always tell why.
REMOVED_FOLDER = {"ENOENT": ("ESTALE",), "[]": ("ENOENT", "ESTALE")}

FOLDERS, NAMES = "abc", "abcfghij"
SIZES = (1, 15, 100, 4095, 4096, 4097, 8192, 12_289, 65_536, 100_000)
LINK_TARGETS = ("a", "b/f", "f", "g", "../f", "../a", "../../b", "nowhere", ".", "a/../g")
HELD = {"r": os.O_RDONLY, "u": os.O_RDWR, "a": os.O_WRONLY | os.O_APPEND, "d": os.O_DIRECTORY,
        "p": os.O_PATH | os.O_DIRECTORY}  # kinds of descriptors: reader, updater, appender, folder, working directory


class Difference(Exception):
    pass


class Place:
    """One way to the tree, with the descriptors that are open there."""

    def __init__(self, root):
        self.root = str(root)
        self.fds = {}

    def at(self, path):
        return f"{self.root}/{path}" if path else self.root

    def attempt(self, call, *arguments):
        """What a program sees: a value, or the name of an error."""
        try:
            return call(self, *arguments)
        except OSError as error:
            return errno.errorcode.get(error.errno, "refused by Python")


def read_all(fd):
    pieces, size = [], 0
    while piece := os.pread(fd, 1 << 19, size):
        pieces.append(piece)
        size += len(piece)
    return b"".join(pieces)


def opened(path, flags, work, **options):
    fd = os.open(path, flags, 0o644, **options)
    try:
        return work(fd)
    finally:
        os.close(fd)


def facts(info):
    """Of folders neither size nor number of names: those are the file system's own."""
    kind = stat.S_IFMT(info.st_mode)
    return (oct(kind), *((info.st_size, info.st_nlink) if kind != stat.S_IFDIR else ()))


def listing(place, path):
    with os.scandir(place.at(path)) as entries:
        return sorted((e.name, e.is_symlink(), e.is_dir(follow_symlinks=False)) for e in entries)


def long_listing(place, path):
    return sorted((name, facts(os.lstat(f"{place.at(path)}/{name}"))) for name in os.listdir(place.at(path)))


def replace(place, path, data):
    opened(place.at(path + ".new"), os.O_WRONLY | os.O_CREAT | os.O_TRUNC, lambda fd: os.write(fd, data))
    os.rename(place.at(path + ".new"), place.at(path))


def hold(place, path, name, create=0):
    fd = place.fds[name] = os.open(place.at(path), HELD[name[0]] | create, 0o644)
    if name[0] == "p":
        os.access(place.at(path), os.X_OK)  # as chdir does
    return os.pread(fd, 64, 0) if name[0] in "ru" else "held"


def make(place, path, name):
    return hold(place, path, name, os.O_CREAT)


def release(place, name):
    os.close(place.fds.pop(name))


# Weight; what it is: a look, a reading, a held reading, a change, the owner's change; its arguments (any Path, mostly a
# File, Directory, Link or a New name, Bytes, Offset, Size, Text of a link, name in a folder (I), Write flags, + and *: a
# new descriptor, or small letters: one of these kinds); and the call, on a place.
CALLS = {
    "read": (10, "read", "F", lambda p, path: opened(p.at(path), os.O_RDONLY, read_all)),
    "listing": (5, "read", "D", listing),
    "long_listing": (3, "look", "D", long_listing),
    "lstat": (4, "look", "P", lambda p, path: facts(os.lstat(p.at(path)))),
    "stat": (5, "look", "P", lambda p, path: facts(os.stat(p.at(path)))),
    "readlink": (2, "look", "L", lambda p, path: os.readlink(p.at(path))),
    "write": (10, "change", "FWB", lambda p, path, flags, data: opened(p.at(path), os.O_WRONLY | flags,
                                                                       lambda fd: os.write(fd, data))),
    "write_at": (6, "change", "FOB", lambda p, path, offset, data: opened(p.at(path), os.O_RDWR,
                                                                          lambda fd: os.pwrite(fd, data, offset))),
    "replace": (8, "change", "FB", replace),
    "truncate": (3, "change", "FO", lambda p, path, size: os.truncate(p.at(path), size)),
    "unlink": (5, "change", "F", lambda p, path: os.unlink(p.at(path))),
    "mkdir": (6, "change", "N", lambda p, path: os.mkdir(p.at(path))),
    "rmdir": (4, "change", "D", lambda p, path: os.rmdir(p.at(path))),
    "rmtree": (1, "change", "D", lambda p, path: shutil.rmtree(p.at(path))),
    "rename": (10, "change", "PN", lambda p, path, target: os.rename(p.at(path), p.at(target))),
    "link": (4, "owner", "FN", lambda p, path, target: os.link(p.at(path), p.at(target), follow_symlinks=False)),
    "symlink": (4, "owner", "NT", lambda p, path, text: os.symlink(text, p.at(path))),
    "hold": (10, "read", "F+", hold),
    "make": (5, "change", "F*", make),
    "release": (6, "held", "ruadp", release),
    "held_read": (6, "held", "ru", lambda p, name: read_all(p.fds[name])),
    "held_read_at": (3, "held", "ruOS", lambda p, name, offset, size: os.pread(p.fds[name], size, offset)),
    "held_stat": (3, "look", "rua", lambda p, name: facts(os.fstat(p.fds[name]))),
    "held_write": (6, "change", "uOB", lambda p, name, offset, data: os.pwrite(p.fds[name], data, offset)),
    "held_append": (6, "change", "aB", lambda p, name, data: os.write(p.fds[name], data)),
    "held_truncate": (2, "change", "uO", lambda p, name, size: os.ftruncate(p.fds[name], size)),
    "in_read": (3, "read", "dpI", lambda p, name, file: opened(file, os.O_RDONLY, read_all, dir_fd=p.fds[name])),
    "in_write": (3, "change", "dpIB", lambda p, name, file, data: opened(file, os.O_WRONLY | os.O_CREAT, lambda fd: os.write(
        fd, data), dir_fd=p.fds[name])),
    "in_unlink": (2, "change", "dpI", lambda p, name, file: os.unlink(file, dir_fd=p.fds[name])),
    "in_mkdir": (2, "change", "dpI", lambda p, name, file: os.mkdir(file, dir_fd=p.fds[name])),
    "in_rmdir": (1, "change", "dpI", lambda p, name, file: os.rmdir(file, dir_fd=p.fds[name])),
    "in_rename": (2, "change", "dpII", lambda p, name, file, target: os.rename(
        file, target, src_dir_fd=p.fds[name], dst_dir_fd=p.fds[name])),
    "in_lstat": (2, "look", "dpI", lambda p, name, file: facts(os.lstat(file, dir_fd=p.fds[name]))),
    "in_listing": (2, "read", "d", lambda p, name: sorted(os.listdir(p.fds[name]))),
}
WEIGHTS = [weight for weight, *_ in CALLS.values()]


def said(value):
    """A value of the log, short. Each write has its number in every 16 bytes."""
    if not isinstance(value, bytes):
        return repr(value)
    numbers = [value[at + 1:at + 15].lstrip(b"0").decode("latin1") for at in range(0, len(value), 16)]
    runs = [number for at, number in enumerate(numbers) if at == 0 or number != numbers[at - 1]]
    return f"{len(value)} bytes of {runs[:12]}"


def failed(result):
    return isinstance(result, str) and result in errno.errorcode.values()


def latest(table, wanted):
    return max((table[key] for key in wanted if key in table), default=0)


class Model:
    def __init__(self, seed, scratch, counts):
        self.rng = random.Random(seed)
        self.mount, self.shared, self.plain = Place(scratch.mount), Place(scratch.local), Place(scratch.root / "plain")
        os.mkdir(self.plain.root)
        self.own = {"M": self.mount, "S": self.shared}
        self.unsynced = set()  # the mount's descriptors that were written to since their last sync
        self.serial = 0
        self.paths = []  # what there is, each with its kind
        self.used = collections.deque(maxlen=6)
        # When the owner last changed a name; one of a folder or link; one of a link; a file, by its number in `plain`; any.
        self.names, self.ways, self.links, self.files, self.changed = {}, {}, {}, {}, 0.0
        self.linked = set()  # numbers of files that have had a second name
        self.log = collections.deque(maxlen=int(os.environ.get("FODR_TEST_LOG", 30)))
        self.counts = counts

    # What to call it with

    def path(self, kind=None):
        """Mostly one of this kind: a new name (N) in a folder, or what is there; often one that was just used."""
        rng = self.rng
        fitting = [""] + [path for path, its in self.paths if its == "D"] if kind == "N" else \
            [path for path, its in self.paths if kind in (None, its)]
        if self.used and rng.random() < 0.3:
            path = rng.choice(self.used)
        elif not fitting or rng.random() < 0.25:
            path = "/".join([*rng.choices(FOLDERS, k=rng.choice((0, 0, 1, 1, 2, 3))), rng.choice(NAMES)])
        else:
            path = os.path.join(rng.choice(fitting), *rng.choices(NAMES, k=int(kind == "N")))
        self.used.append(path)
        return path

    def data(self):
        self.serial += 1
        size = self.rng.choice(SIZES) if self.rng.random() < 0.7 else self.rng.randrange(100_000)
        return (b"<%014d>" % self.serial * (size // 16 + 1))[:size]

    def new_descriptor(self, kinds):
        self.serial += 1
        return f"{self.rng.choice(kinds)}{self.serial}"

    def arguments(self, side, pattern):
        """None: there is no such descriptor, or there are enough."""
        rng, fds = self.rng, self.own[side].fds
        kinds = "".join(letter for letter in pattern if letter.islower())
        fitting = [name for name in fds if name[0] in kinds]
        if kinds and not fitting or pattern[-1] in "+*" and len(fds) > 15:
            return None
        found = [rng.choice(fitting)] if kinds else []
        for letter in pattern:
            if letter in "PFDLN":
                if letter == "F" and rng.random() < 0.3:
                    letter = "N"
                found.append(self.path(None if letter == "P" else letter))
            elif not letter.islower():
                found.append({"B": self.data, "S": lambda: rng.choice(SIZES), "T": lambda: rng.choice(LINK_TARGETS),
                              "O": lambda: rng.choice((0, 1, 4096, 5000, 8191, 70_000, rng.randrange(120_000))),
                              "I": lambda: rng.choice(NAMES), "+": lambda: self.new_descriptor("ruadp"),
                              "*": lambda: self.new_descriptor("ua"), "W": lambda: rng.choice((0, os.O_CREAT)) | rng.choice(
                                  (os.O_TRUNC, os.O_APPEND, os.O_EXCL | os.O_CREAT))}[letter]())
        if pattern == "F+" and found[1][0] in "dp":
            found[0] = self.path("D")
        return found

    # What the owner changed, and since when

    def targets(self, name, arguments):
        """The arguments that are paths."""
        return [argument for argument, letter in zip(arguments, CALLS[name][2]) if letter in "PFDLN"]

    def keys(self, name, arguments):
        """What a call goes by in the plain folder: names on its way, names at its end, numbers of its files."""
        way, ends, files = set(), set(), set()
        if arguments[0] in self.plain.fds:
            fd = self.plain.fds[arguments[0]]
            files.add(os.fstat(fd).st_ino)
            base = os.readlink(f"/proc/self/fd/{fd}")
            if base.endswith(" (deleted)"):  # perhaps with a folder that it was in
                base = base.removesuffix(" (deleted)")
                ends |= {base[:at] for at, letter in enumerate(base) if letter == "/"}
            paths = [f"{base}/{file}" for file in arguments[1:] if isinstance(file, str)]
        else:
            paths = [self.plain.at(path) for path in self.targets(name, arguments)]
            paths += [path + ".new" for path in paths if name == "replace"]
        for path in paths:
            real = os.path.realpath(path)
            ends |= {path, real, f"{os.path.realpath(os.path.dirname(path))}/{os.path.basename(path)}"}
            for ask in (os.stat, os.lstat):
                try:
                    files.add(ask(path).st_ino)
                except OSError:
                    pass
            if arguments[0] not in self.plain.fds:
                for form in (path, real):
                    while len(form := os.path.dirname(form)) > len(self.plain.root):
                        way.add(form)
        return way, ends, files

    def on_plain(self, name, arguments):
        """Does the call there. What is known of names below a folder goes with it."""
        plain, old = self.plain, None
        if name == "rename":
            old, new = (f"{os.path.realpath(os.path.dirname(path))}/{os.path.basename(path)}"
                        for path in map(plain.at, arguments))
        elif name == "in_rename":
            base = os.readlink(f"/proc/self/fd/{plain.fds[arguments[0]]}")
            old, new = f"{base}/{arguments[1]}", f"{base}/{arguments[2]}"
        result = plain.attempt(CALLS[name][3], *arguments)
        if old and not failed(result):
            for table in (self.names, self.ways, self.links):
                table.update({new + key[len(old):]: since for key, since in table.items() if key.startswith(old + "/")})
        return result

    def owner_calls(self, name, arguments):
        kind, call = CALLS[name][1], CALLS[name][3]
        if kind in ("change", "owner"):
            _, ends, files = self.keys(name, arguments)
            ways, links = set(filter(os.path.isdir, ends)), set(filter(os.path.islink, ends))
        plain, real = self.on_plain(name, arguments), self.shared.attempt(call, *arguments)
        if kind in ("change", "owner"):
            _, more, others = self.keys(name, arguments)
            ends |= more
            self.changed = time.monotonic()
            links.update(filter(os.path.islink, ends))
            ways.update(links, filter(os.path.isdir, ends))
            for table, found in ((self.names, ends), (self.ways, ways), (self.links, links), (self.files, files | others)):
                table.update(dict.fromkeys(found, self.changed))
            self.files.update(dict.fromkeys((files | others) & self.linked, self.changed + LOST_NAME))
            if name == "link":
                self.linked |= others
        if real != plain:
            raise Difference(f"the shared folder says {said(real)}, the plain folder {said(plain)}")
        return plain

    # What the mount says

    def may_be_behind(self, name, arguments, keys, real):
        """By which entry of MAY_BE_BEHIND, and since when."""
        kind, (way, ends, files) = CALLS[name][1], keys

        on_way = max(latest(self.ways, way), latest(self.names, way), latest(self.links, ends))
        many = name in ("long_listing", "rmtree")  # these go by every name in a folder
        if failed(real) and real not in WAY_ERRORS:
            return "", 0
        if kind == "look":
            return "look", self.changed if many else max(latest(self.names, way | ends), latest(self.files, files))
        if kind == "held":
            return ("held", latest(self.files, files)) if not failed(real) else ("", 0)
        if on_way + BOUND > time.monotonic() and (failed(real) or kind == "read"):
            return "way", max(on_way, latest(self.names, ends)) if failed(real) else on_way
        # Who makes a file is never told that it isn't there.
        creates = name in ("replace", "make", "in_write") or name == "write" and arguments[1] & os.O_CREAT
        if failed(real) and real in NAME_ERRORS and not (creates and real == "ENOENT"):
            return "name", self.changed if many else latest(self.names, way | ends)
        return "", 0

    def until(self, same, why, since, what):
        asked = time.monotonic()
        while True:
            if same():
                break
            if asked > since + BOUND:
                raise Difference(f"{what()}; may be behind ({why}), but not so long")
            time.sleep(0.001)
            asked = time.monotonic()
        late = self.counts[why]
        late[0] += 1
        late[1] = max(late[1], asked - since)

    def settle(self, name, arguments, keys):
        """Before a change, which can't be taken back, and before a descriptor of what may be another file, the mount has
        to know the way that the owner has just changed. A working directory is found by a look, no open tells of it."""
        kind, (way, ends, _) = CALLS[name][1], keys
        if kind != "change" and name != "hold":
            return
        since = max(latest(self.ways, way), latest(self.names, way | ends))
        if arguments[0] in self.plain.fds or since + BOUND < time.monotonic():
            return

        def number(place):
            return place.attempt(lambda place: ask(place.at(path)).st_ino)

        for target in self.targets(name, arguments):
            for ask, path in ((os.stat, os.path.dirname(target)), (os.lstat, target), (os.stat, target)):
                if path and number(self.mount) != number(self.shared):
                    self.until(lambda: number(self.mount) == number(self.shared), "way", since,
                               lambda: f"{path} is {number(self.mount)} in the mount, {number(self.shared)} for the owner")

    def mount_calls(self, name, arguments):
        call, keys = CALLS[name][3], self.keys(name, arguments)
        self.settle(name, arguments, keys)
        fd = self.plain.fds.get(arguments[0])
        removed = fd is not None and arguments[0][0] in "dp" and os.fstat(fd).st_nlink == 0
        asked = time.monotonic()
        plain, real = self.on_plain(name, arguments), self.mount.attempt(call, *arguments)

        def removed_folder():
            return removed and real in REMOVED_FOLDER.get(str(plain), ())

        if real != plain and removed_folder():
            self.counts["removed folder"][0] += 1
        elif real != plain:
            def again():
                nonlocal real
                if name in ("hold", "make") and not failed(real):
                    release(self.mount, arguments[1])
                real = self.mount.attempt(call, *arguments)
                return real == plain or removed_folder()

            why, since = self.may_be_behind(name, arguments, keys, real)
            what = f"the mount says {said(real)}, the plain folder {said(plain)}"
            if not why or asked > since + BOUND:
                raise Difference(what)
            self.log.append((f"      first {said(real)}",))
            self.until(again, why, since, lambda: f"{what}, and at the end {said(real)}")
        if name in ("held_write", "held_append"):
            self.unsynced.add(arguments[0])
            if self.rng.random() < 0.3:
                self.sync()
        if name == "release":
            self.unsynced.discard(arguments[0])
        return plain

    def sync(self):
        """What is written through a descriptor, the owner sees at its sync or close."""
        for name in sorted(self.unsynced):
            os.fsync(self.mount.fds[name])
        self.unsynced.clear()

    # The run

    def find(self, folder, prefix):
        found = []
        with os.scandir(folder) as entries:
            for entry in sorted(entries, key=lambda entry: entry.name):
                kind = "L" if entry.is_symlink() else "D" if entry.is_dir() else "F"
                found.append((prefix + entry.name, kind))
                if kind == "D":
                    found += self.find(entry.path, f"{prefix}{entry.name}/")
        return found

    def tree(self, place, numbers=False):
        found = {}
        for folder, folders, files in os.walk(place.root):
            for name in folders + files:
                path = os.path.join(folder, name)
                info, content = os.lstat(path), None
                if stat.S_ISLNK(info.st_mode):
                    content = os.readlink(path)
                elif stat.S_ISREG(info.st_mode):
                    content = opened(path, os.O_RDONLY, read_all)
                found[os.path.relpath(path, place.root)] = (*facts(info), content, info.st_ino if numbers else 0)
        return found

    def compare(self, one, other, numbers=False):
        """What differs, by path."""
        one, other = (place.attempt(lambda place: self.tree(place, numbers)) for place in (one, other))
        if failed(one) or failed(other):
            return f"{one}, {other}"
        return "".join(f"\n  {path}: " + " / ".join(" ".join(map(said, found.get(path, ()))) for found in (one, other))
                       for path in sorted(one | other) if one.get(path) != other.get(path))

    def step(self, number):
        rng = self.rng
        if rng.random() < 0.02:
            forget_names(self.mount.root)
            self.log.append(("      names are forgotten",))
        if rng.random() < 0.0007:
            with open("/proc/sys/vm/drop_caches", "w") as file:
                file.write(rng.choice("23"))
            self.log.append(("      caches are dropped",))
        side = rng.choice("MS")
        name = rng.choices(list(CALLS), WEIGHTS)[0]
        if side == "M" and CALLS[name][1] == "owner":
            name = "rename"
        arguments = self.arguments(side, CALLS[name][2])
        if arguments is None:
            return
        entry = [f"{number:5} {side} {name}", *arguments]
        self.log.append(entry)
        if side == "S":
            self.sync()
            entry += ["->", self.owner_calls(name, arguments)]
        else:
            entry += ["->", self.mount_calls(name, arguments)]
        if CALLS[name][1] in ("change", "owner"):
            self.paths = self.find(self.plain.root, "")
            if side == "M" and rng.random() < 0.2:
                self.sync()
                if wrong := self.compare(self.shared, self.plain):
                    raise Difference(f"the shared folder and the plain one: {wrong}")

    def run(self, calls):
        for number in range(calls):
            self.step(number)
        self.sync()
        if wrong := self.compare(self.shared, self.plain):
            raise Difference(f"the shared folder and the plain one at the end: {wrong}")
        self.until(lambda: not self.compare(self.mount, self.shared, True), "look", self.changed,
                   lambda: f"the mount and the shared folder at the end: {self.compare(self.mount, self.shared, True)}")

    def close(self):
        for place in (self.mount, self.shared, self.plain):
            for name in list(place.fds):
                place.attempt(release, name)


def run_seed(seed, calls, options):
    """The report of one seed: what differed, or nothing; how often the mount was behind, and by how much."""
    scratch, counts, problem = Scratch(), collections.defaultdict(lambda: [0, 0.0]), ""
    started = time.monotonic()
    try:
        with Share(scratch, *options):
            model = Model(seed, scratch, counts)
            try:
                model.run(calls)
            except Exception as error:
                lines = [" ".join(part if at == 0 or part == "->" else said(part) for at, part in enumerate(entry))
                         for entry in model.log]
                what = error if isinstance(error, Difference) else traceback.format_exc()
                problem = "\n".join((*lines, f"seed {seed}: {what}"))
            finally:
                model.close()
    except AssertionError as error:
        problem += f"\nseed {seed}: {error}"
    finally:
        scratch.remove()
    return seed, problem, dict(counts), time.monotonic() - started


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seed", type=int)
    parser.add_argument("--seeds", default="1-4", help="A-B (default: %(default)s)")
    parser.add_argument("--calls", type=int, default=3000)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("options", nargs="*", help="of fodr share, behind --")
    words = parser.parse_args()
    first, _, last = words.seeds.partition("-")
    seeds = [words.seed] if words.seed is not None else range(int(first), int(last or first) + 1)
    wrong, total, began = [], collections.defaultdict(lambda: [0, 0.0]), time.monotonic()
    with concurrent.futures.ProcessPoolExecutor(words.jobs) as pool:
        for seed, problem, counts, seconds in pool.map(run_seed, seeds, *zip(*[(words.calls, words.options)] * len(seeds))):
            wrong += [seed] if problem else []
            print(problem or f"seed {seed}: {words.calls} calls in {seconds:.1f} s", flush=True)
            for why, (times, longest) in counts.items():
                total[why] = [total[why][0] + times, max(total[why][1], longest)]
    for why, (times, longest) in sorted(total.items()):
        print(f"{why}: {times} times, up to {longest * 1000:.0f} ms after the owner's change")
    print(f"{len(seeds)} seeds in {time.monotonic() - began:.0f} s, {len(wrong)} with a difference {wrong or ''}")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
