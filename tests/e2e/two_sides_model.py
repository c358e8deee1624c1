#!/usr/bin/env python3
"""two_sides_model.py [--seed N | --seeds A-B] [--calls N] [--jobs N]: the owner and the mount do random calls on one
tree, one call at a time, and a plain folder gets the same calls: every result, every error and every byte must be the
same. The mount may be behind the owner only where and as long as MAY_BE_BEHIND says; how often it was, is printed."""
import argparse
import collections
import concurrent.futures
import errno
import os
import random
import stat
import sys
import time
import traceback

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from share import Scratch, Share, forget_names  # noqa: E402

BOUND = 0.5 * float(os.environ.get("FODR_TEST_PATIENCE", 1))

# Where the mount may show what was before the owner's change, and for BOUND after it at the longest. All else is at once.
MAY_BE_BEHIND = {
    "look": "stat, lstat and readlink of a name, and fstat: facts are remembered",
    "name": "a call that fails for what a remembered name says, as ENOENT does: nothing was done, and it is done again",
    "way": "a path that leads through a folder or link which the owner moved, made or removed: the way is remembered",
    "held": "reading through a descriptor that was open before the change: the pages are remembered",
}
NAME_ERRORS = {"ENOENT", "EEXIST", "ENOTDIR", "EISDIR", "ELOOP"}
WAY_ERRORS = NAME_ERRORS | {"EINVAL", "ENOTEMPTY"}

# What else may differ: (call on a descriptor of a removed folder, plain folder's result): the mount's results.
REMOVED_FOLDER = {"ENOENT": ("ENOENT", "ESTALE"), "[]": ("[]", "ENOENT", "ESTALE")}

FOLDERS, NAMES = "abc", ("a", "b", "f", "g", "h", "i")
SIZES = (0, 1, 15, 100, 4095, 4096, 4097, 8192, 12_289, 65_536, 100_000)
LINK_TARGETS = ("a", "b/f", "f", "g", "../f", "../a", "../../b", "nowhere", ".", "a/../g")
MOST = 300_000


class Difference(Exception):
    pass


def said(result):
    """A result, short. Each write has its number in every 16 bytes."""
    if isinstance(result, bytes):
        numbers = [result[at + 1:at + 15].lstrip(b"0").decode("latin1") for at in range(0, len(result), 16)]
        runs = [number for at, number in enumerate(numbers) if at == 0 or number != numbers[at - 1]]
        return f"{len(result)} bytes of {runs[:12]}"
    return str(result)


class Place:
    """One way to the tree, with the descriptors that are open there."""

    def __init__(self, root):
        self.root = str(root)
        self.fds = {}

    def at(self, path):
        return f"{self.root}/{path}" if path else self.root

    def attempt(self, call, *arguments):
        try:
            return call(self, *arguments)
        except OSError as error:
            return errno.errorcode[error.errno]


# The calls. Each does the same to any place and says what a program sees.

def read_all(fd):
    pieces = []
    while piece := os.pread(fd, MOST, sum(map(len, pieces))):
        pieces.append(piece)
    return b"".join(pieces)


def with_open(place, path, flags, work, fd=None):
    fd = os.open(path if fd is not None else place.at(path), flags, 0o644, dir_fd=fd)
    try:
        return work(fd)
    finally:
        os.close(fd)


def facts(info):
    """Folders have no size and number of names to compare."""
    kind = stat.S_IFMT(info.st_mode)
    return (oct(kind), *((info.st_size, info.st_nlink) if kind != stat.S_IFDIR else ()))


def read(place, path):
    return with_open(place, path, os.O_RDONLY, read_all)


def write(place, path, flags, data):
    return with_open(place, path, os.O_WRONLY | flags, lambda fd: os.write(fd, data))


def write_at(place, path, offset, data):
    return with_open(place, path, os.O_RDWR, lambda fd: os.pwrite(fd, data, offset))


def replace(place, path, data):
    write(place, path + ".new", os.O_CREAT | os.O_TRUNC, data)
    os.rename(place.at(path + ".new"), place.at(path))


def truncate(place, path, size):
    os.truncate(place.at(path), size)


def unlink(place, path):
    os.unlink(place.at(path))


def mkdir(place, path):
    os.mkdir(place.at(path))


def rmdir(place, path):
    os.rmdir(place.at(path))


def rename(place, path, target):
    os.rename(place.at(path), place.at(target))


def link(place, path, target):
    os.link(place.at(path), place.at(target), follow_symlinks=False)


def symlink(place, path, text):
    os.symlink(text, place.at(path))


def listing(place, path):
    with os.scandir(place.at(path)) as entries:
        return sorted((e.name, e.is_symlink(), e.is_dir(follow_symlinks=False)) for e in entries)


def long_listing(place, path):
    return sorted((name, facts(os.lstat(place.at(f"{path}/{name}")))) for name in os.listdir(place.at(path)))


def lstat(place, path):
    return facts(os.lstat(place.at(path)))


def look(place, path):
    return facts(os.stat(place.at(path)))


def readlink(place, path):
    return os.readlink(place.at(path))


def hold(place, path, handle, flags):
    fd = os.open(place.at(path), flags, 0o644)
    place.fds[handle] = fd
    if flags & (os.O_PATH | os.O_DIRECTORY):
        return "folder"
    return "write-only" if flags & os.O_WRONLY else os.pread(fd, 64, 0)


def release(place, handle):
    os.close(place.fds.pop(handle))


def held_read(place, handle):
    return read_all(place.fds[handle])


def held_read_at(place, handle, offset, length):
    return os.pread(place.fds[handle], length, offset)


def held_facts(place, handle):
    return facts(os.fstat(place.fds[handle]))


def held_write(place, handle, offset, data):
    return os.pwrite(place.fds[handle], data, offset)


def held_append(place, handle, data):
    return os.write(place.fds[handle], data)


def held_truncate(place, handle, size):
    os.ftruncate(place.fds[handle], size)


def in_read(place, handle, name):
    return with_open(place, name, os.O_RDONLY, read_all, place.fds[handle])


def in_write(place, handle, name, data):
    return with_open(place, name, os.O_WRONLY | os.O_CREAT, lambda fd: os.write(fd, data), place.fds[handle])


def in_unlink(place, handle, name):
    os.unlink(name, dir_fd=place.fds[handle])


def in_mkdir(place, handle, name):
    os.mkdir(name, dir_fd=place.fds[handle])


def in_rmdir(place, handle, name):
    os.rmdir(name, dir_fd=place.fds[handle])


def in_rename(place, handle, name, target):
    os.rename(name, target, src_dir_fd=place.fds[handle], dst_dir_fd=place.fds[handle])


def in_look(place, handle, name):
    return facts(os.lstat(name, dir_fd=place.fds[handle]))


def in_listing(place, handle):
    return sorted(os.listdir(place.fds[handle]))


# How often each is called, and by which side: the mount can't make links.
CALLS = {read: 10, write: 10, write_at: 6, replace: 8, truncate: 3, unlink: 5, mkdir: 6, rmdir: 4, rename: 10, link: 4,
         symlink: 4, listing: 5, long_listing: 3, lstat: 4, look: 5, readlink: 2, hold: 10, release: 6, held_read: 6,
         held_read_at: 3, held_facts: 3, held_write: 6, held_append: 6, held_truncate: 2, in_read: 3, in_write: 3,
         in_unlink: 2, in_mkdir: 2, in_rmdir: 1, in_rename: 2, in_look: 2, in_listing: 2}
OWNERS = {link, symlink}
LOOKS = {lstat, look, readlink, held_facts, in_look, long_listing}
READS = {read, listing, in_read, in_listing, hold}
HELD_READS = {held_read, held_read_at}
TWO_PATHS = {rename, link}


class Model:
    def __init__(self, seed, scratch, counts):
        self.rng = random.Random(seed)
        self.mount, self.shared, self.plain = Place(scratch.mount), Place(scratch.local), Place(scratch.root / "plain")
        os.mkdir(self.plain.root)
        self.handles = {}  # number: (side, kind)
        self.unsynced = set()  # the mount's descriptors that were written to since their last sync
        self.serial = 0
        self.paths = []
        # When the owner last changed a name, a name that is or was a folder or link, a file by its number in `plain`.
        self.names, self.ways, self.files = {}, {}, {}
        self.changed = 0.0
        self.log = collections.deque(maxlen=30)
        self.counts = counts

    # What to call

    def data(self):
        self.serial += 1
        size = self.rng.choice(SIZES) if self.rng.random() < 0.7 else self.rng.randrange(100_000)
        return (b"<%014d>" % self.serial * (size // 16 + 1))[:size]

    def path(self):
        if self.paths and self.rng.random() < 0.6:
            return self.rng.choice(self.paths)
        depth = self.rng.choice((0, 0, 1, 1, 2, 3))
        return "/".join([*(self.rng.choice(FOLDERS) for _ in range(depth)), self.rng.choice(NAMES)])

    def folder(self):
        return os.path.dirname(self.path()) if self.rng.random() < 0.8 else self.path()

    def handle(self, side, kinds):
        fitting = [number for number, (owner, kind) in self.handles.items() if owner == side and kind in kinds]
        return self.rng.choice(fitting) if fitting else None

    def arguments(self, side, call):
        """None: there is nothing to call it with."""
        rng, name = self.rng, call.__name__
        offset = rng.choice((0, 1, 4096, 5000, 8191, 70_000, rng.randrange(120_000)))
        if name.startswith(("held", "in_")) or call is release:
            kinds = {held_read: "ru", held_read_at: "ru", held_write: "u", held_append: "a", held_truncate: "u",
                     held_facts: "rua", release: "ruadp", in_listing: "d"}.get(call, "dp")
            number = self.handle(side, kinds)
            if number is None:
                return None
            more = {held_read_at: (offset, rng.choice(SIZES[1:])), held_write: (offset, self.data()), held_append: (self.data(),),
                    held_truncate: (offset,), in_rename: (rng.choice(NAMES), rng.choice(NAMES)),
                    in_write: (rng.choice(NAMES), self.data())}
            return (number, *more.get(call, (rng.choice(NAMES),) if name.startswith("in_") and call is not in_listing else ()))
        path = self.path()
        if call is hold:
            kind = rng.choice("ruuaadp")
            if sum(owner == side for owner, _ in self.handles.values()) > 15:
                return None
            create = os.O_CREAT if rng.random() < 0.5 else 0
            flags = {"r": os.O_RDONLY, "u": os.O_RDWR | create, "a": os.O_WRONLY | os.O_APPEND | create,
                     "d": os.O_DIRECTORY, "p": os.O_PATH | os.O_DIRECTORY}[kind]
            self.serial += 1
            return (os.path.dirname(path) if kind in "dp" and rng.random() < 0.7 else path, f"{kind}{self.serial}", flags)
        return {write: (path, rng.choice((os.O_CREAT | os.O_TRUNC, os.O_CREAT | os.O_APPEND, os.O_APPEND, os.O_TRUNC,
                                          os.O_CREAT | os.O_EXCL)), self.data()),
                write_at: (path, offset, self.data()), replace: (path, self.data()), truncate: (path, offset),
                rename: (path, self.path()), link: (path, self.path()), symlink: (path, rng.choice(LINK_TARGETS)),
                listing: (self.folder(),), long_listing: (self.folder(),)}.get(call, (path,))

    # What the owner changed, and since when

    def keys(self, call, arguments):
        """The names that a call goes by: those on its way, those at its end; and the numbers of its files."""
        way, ends, files = set(), set(), set()
        if arguments[0] in self.plain.fds:
            fd = self.plain.fds[arguments[0]]
            files.add(os.fstat(fd).st_ino)
            base = os.readlink(f"/proc/self/fd/{fd}")
            paths = [f"{base}/{name}" for name in arguments[1:3] if isinstance(name, str)]
        else:
            texts = arguments[:2] if call in TWO_PATHS else arguments[:1]
            paths = [self.plain.at(text) for text in texts]
            paths += [path + ".new" for path in paths if call is replace]
            for path in paths:
                for form in (path, os.path.realpath(path), f"{os.path.realpath(os.path.dirname(path))}/{os.path.basename(path)}"):
                    while len(form) > len(self.plain.root):
                        (ends if form in (path, os.path.realpath(path)) else way).add(form)
                        form = os.path.dirname(form)
        for path in paths:
            ends |= {path, os.path.realpath(path)}
            for ask in (os.stat, os.lstat):
                try:
                    files.add(ask(path).st_ino)
                except OSError:
                    pass
        return way, ends, files

    @staticmethod
    def is_way(path):
        try:
            return not stat.S_ISREG(os.lstat(path).st_mode)
        except OSError:
            return False

    def owner_calls(self, call, arguments):
        way, ends, files = self.keys(call, arguments)
        ways = {path for path in ends if self.is_way(path)}
        plain, real = self.plain.attempt(call, *arguments), self.shared.attempt(call, *arguments)
        if call not in LOOKS | READS | HELD_READS or call is hold and arguments[-1] & os.O_CREAT:
            if arguments[0] in self.plain.fds or call is not release:
                _, more, others = self.keys(call, arguments)
                ends, files = ends | more, files | others
            self.changed = time.monotonic()
            self.ways.update(dict.fromkeys(ways | {path for path in ends if self.is_way(path)}, self.changed))
            self.names.update(dict.fromkeys(ends, self.changed))
            self.files.update(dict.fromkeys(files, self.changed))
        return plain, real

    # What the mount says

    def may_be_behind(self, call, arguments, keys, plain, real):
        """By which entry of MAY_BE_BEHIND, and until when."""
        way, ends, files = keys
        of = lambda table, wanted: max((table[key] for key in wanted if key in table), default=0)  # noqa: E731
        on_way = of(self.ways, way | ends)
        error = isinstance(real, str) and real.startswith("E")
        creates = call in (in_write, replace) or any(isinstance(a, int) and a & os.O_CREAT for a in arguments[1:2] + arguments[2:3]
                                                     if call in (write, hold))
        if call is long_listing:
            return "look", self.changed
        if call in LOOKS:
            return "look", max(on_way, of(self.names, ends), of(self.files, files))
        if call in HELD_READS:
            return "held", of(self.files, files)
        if on_way and (real in WAY_ERRORS if error else call in READS):
            return "way", on_way
        if error and real in NAME_ERRORS and not (creates and real == "ENOENT"):
            return "name", of(self.names, way | ends)
        return "", 0

    def settle(self, call, arguments, keys):
        """A changing call can't be taken back: the mount first has to know the way that the owner has changed."""
        since = max((self.ways[key] for key in keys[0] | keys[1] if key in self.ways), default=0)
        if not since or not isinstance(arguments[0], str) or arguments[0] in self.plain.fds:
            return

        def number(ask, place, path):
            try:
                return ask(place.at(path)).st_ino
            except OSError as error:
                return errno.errorcode[error.errno]

        for path in arguments[:2] if call in TWO_PATHS else arguments[:1]:
            for ask, place in ((os.stat, os.path.dirname(path)), (os.lstat, path), (os.stat, path)):
                def same():
                    return number(ask, self.mount, place) == number(ask, self.shared, place)
                self.until(same, "way", since, lambda: f"{place or 'the root'} leads elsewhere in the mount: "
                           f"{number(ask, self.mount, place)}, {number(ask, self.shared, place)} for the owner")

    def until(self, same, why, since, what):
        start = time.monotonic()
        while True:
            asked = time.monotonic()
            if same():
                break
            if asked > since + BOUND:
                raise Difference(what() + (f" (behind by \"{why}\" for {asked - since:.3f} s)" if why else ""))
            time.sleep(0.001)
        if asked > start:
            late = self.counts[why]
            late[0] += 1
            late[1] = max(late[1], asked - since)

    def mount_calls(self, call, arguments):
        keys = self.keys(call, arguments)
        if call not in LOOKS | READS | HELD_READS or call is hold and arguments[-1] & os.O_CREAT:
            self.settle(call, arguments, keys)
        removed = False
        if arguments[0] in self.plain.fds:
            removed = self.handles[arguments[0]][1] in "dp" and os.fstat(self.plain.fds[arguments[0]]).st_nlink == 0
        plain = self.plain.attempt(call, *arguments)
        real = self.mount.attempt(call, *arguments)
        if real != plain and not (removed and real in REMOVED_FOLDER.get(str(plain), ())):
            why, since = self.may_be_behind(call, arguments, keys, plain, real)

            def same():
                nonlocal real
                if call is hold and arguments[1] in self.mount.fds:
                    os.close(self.mount.fds.pop(arguments[1]))
                real = self.mount.attempt(call, *arguments)
                return real == plain

            if not why:
                raise Difference(f"the mount says {said(real)}, the plain folder {said(plain)}")
            first = real
            started = time.monotonic()
            self.until(same, why, since, lambda: f"the mount says {said(real)}, the plain folder {said(plain)}")
            self.counts[why][0] += 1
            self.counts[why][1] = max(self.counts[why][1], started - since)
            self.log.append(f"      (first {said(first)})")
        elif real != plain:
            self.counts["removed folder"][0] += 1
        if call in (held_write, held_append):
            self.unsynced.add(arguments[0])
            if self.rng.random() < 0.3:
                self.sync()
        if call is release:
            self.unsynced.discard(arguments[0])
        return plain

    def sync(self):
        """What is written through a descriptor, the owner sees at its sync or close."""
        for number in sorted(self.unsynced):
            os.fsync(self.mount.fds[number])
        self.unsynced.clear()

    # The run

    def tree(self, place, numbers=False):
        found = {}
        for folder, folders, files in os.walk(place.root):
            for name in folders + files:
                path = os.path.join(folder, name)
                info = os.lstat(path)
                content = None
                if stat.S_ISLNK(info.st_mode):
                    content = os.readlink(path)
                elif stat.S_ISREG(info.st_mode):
                    content = said(with_open(place, os.path.relpath(path, place.root), os.O_RDONLY, read_all))
                found[os.path.relpath(path, place.root)] = (facts(info), content, info.st_ino if numbers else 0)
        return found

    def compare(self, one, other, numbers=False):
        one, other = self.tree(one, numbers), self.tree(other, numbers)
        return {path: (one.get(path), other.get(path)) for path in one | other if one.get(path) != other.get(path)}

    def step(self, number):
        rng = self.rng
        if rng.random() < 0.02:
            forget_names(self.mount.root)
            self.log.append("      names are forgotten")
        if rng.random() < 0.0007:
            with open("/proc/sys/vm/drop_caches", "w") as file:
                file.write(rng.choice("23"))
        side = rng.choice("MS")
        call = rng.choices(list(CALLS), CALLS.values())[0]
        if side == "M" and call in OWNERS:
            call = rename
        arguments = self.arguments(side, call)
        if arguments is None:
            return
        self.log.append(f"{number:5} {side} {call.__name__} " + " ".join(
            said(a) if isinstance(a, bytes) else oct(a) if call in (hold, write) and isinstance(a, int) else repr(a) for a in arguments))
        if side == "S":
            self.sync()
            plain, real = self.owner_calls(call, arguments)
            if real != plain:
                raise Difference(f"the shared folder says {said(real)}, the plain folder {said(plain)}")
        else:
            plain = self.mount_calls(call, arguments)
        self.log[-1] += f" -> {said(plain)}"
        if call is hold and not (isinstance(plain, str) and plain.startswith("E")):
            self.handles[arguments[1]] = (side, arguments[1][0])
        if call is release:
            del self.handles[arguments[0]]
        if call not in LOOKS | HELD_READS:
            self.paths = sorted(os.path.relpath(os.path.join(folder, name), self.plain.root)
                                for folder, folders, files in os.walk(self.plain.root) for name in folders + files)
        if side == "M" and call not in LOOKS | READS | HELD_READS and (rng.random() < 0.25 or number % 100 == 0):
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
            for fd in place.fds.values():
                try:
                    os.close(fd)
                except OSError:
                    pass


def run_seed(seed, calls, options):
    """The report of one seed: what differed, or nothing; how often the mount was behind, and by how much."""
    scratch, counts, problem = Scratch(), collections.defaultdict(lambda: [0, 0.0]), ""
    started = time.monotonic()
    try:
        with Share(scratch, *options):
            model = Model(seed, scratch, counts)
            started = time.monotonic()
            try:
                model.run(calls)
            except (Difference, OSError) as error:
                what = error if isinstance(error, Difference) else traceback.format_exc()
                problem = "\n".join((*model.log, f"seed {seed}: {what}"))
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
    failed, total, began = [], collections.defaultdict(lambda: [0, 0.0]), time.monotonic()
    with concurrent.futures.ProcessPoolExecutor(words.jobs) as pool:
        for seed, problem, counts, seconds in pool.map(run_seed, seeds, *zip(*[(words.calls, words.options)] * len(seeds))):
            if problem:
                failed.append(seed)
                print(problem, flush=True)
            else:
                print(f"seed {seed}: {words.calls} calls in {seconds:.1f} s", flush=True)
            for why, (times, longest) in counts.items():
                total[why][0] += times
                total[why][1] = max(total[why][1], longest)
    for why, (times, longest) in sorted(total.items()):
        print(f"behind by \"{why}\": {times} times, at most {longest * 1000:.0f} ms after the change")
    print(f"{len(seeds)} seeds in {time.monotonic() - began:.0f} s, {len(failed)} with a difference {failed or ''}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
