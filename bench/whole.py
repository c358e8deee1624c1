"""The whole product measured: the same work through sshfs and through fodr, in turn, in one run.

Prints ratios of medians, not seconds: what the machine is doing meanwhile weighs on both alike. What doesn't depend on
the machine stands beside them: requests and context switches per operation, and with --delay the round trips that an
operation waited for.
"""
import argparse
import concurrent.futures
import json
import os
import pathlib
import random
import shutil
import statistics
import subprocess
import tempfile
import time

parser = argparse.ArgumentParser()
parser.add_argument("fodr")
parser.add_argument("--size", type=int, default=256, help="MiB of the sequential read and write")
parser.add_argument("--rounds", type=int, default=5)
parser.add_argument("--files", type=int, default=500, help="of the work on small files")
parser.add_argument("--delay", type=float, default=0, help="milliseconds of a round trip to the mounts")
parser.add_argument("--names", type=int, nargs="*", default=[5000, 50000], help="entries of the folders that are listed")
parser.add_argument("--only", help="work whose name has this in it")
parser.add_argument("--save", action="store_true", help="put the table into bench/results.md")
options = parser.parse_args()

SFTP_SERVER = "/usr/lib/openssh/sftp-server"
RESULTS = pathlib.Path(__file__).with_name("results.md")
BLOCK = bytes(1 << 20)
READS = 100 if options.delay else 2000
GIT = {"GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_SYSTEM": "/dev/null", "GIT_AUTHOR_NAME": "a", "GIT_AUTHOR_EMAIL": "a@b",
       "GIT_COMMITTER_NAME": "a", "GIT_COMMITTER_EMAIL": "a@b", "PATH": os.environ["PATH"]}


def drop_caches():
    """So that a read is a read. Needs root; without it the page cache of both mounts stays warm alike."""
    try:
        pathlib.Path("/proc/sys/vm/drop_caches").write_text("3")
    except PermissionError:
        pass


# ---- What is done. Each returns how many operations that were. ----

def write_file(folder, _):
    with open(folder / "sequential", "wb", buffering=0) as file:
        for _ in range(options.size):
            file.write(BLOCK)
    return options.size


def read_file(folder, _):
    with open(folder / "sequential", "rb", buffering=0) as file:
        while file.read(1 << 20):
            pass
    return options.size


def places(turn, count):
    return [page << 12 for page in random.Random(turn).choices(range(options.size << 8), k=count)]


def read_pages(folder, turn):
    file = os.open(folder / "sequential", os.O_RDONLY)
    for place in places(turn, READS):
        assert len(os.pread(file, 4096, place)) == 4096
    os.close(file)
    return READS


def read_pages_together(folder, turn):
    file = os.open(folder / "sequential", os.O_RDONLY)
    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        list(pool.map(lambda place: os.pread(file, 4096, place), places(1000 + turn, 4 * READS)))
    os.close(file)
    return 4 * READS


def list_names(count):
    def work(folder, _):
        assert sum(1 for entry in os.scandir(folder / f"many{count}") if entry.stat()) == count
        return count
    return work


# Names that nobody has seen yet: another folder in each round.
def look_at(folder, turn):
    for number in range(options.files):
        os.stat(folder / f"look{turn}" / f"file{number}")
    return options.files


def read_small(folder, turn):
    for number in range(options.files):
        file = os.open(folder / f"read{turn}" / f"file{number}", os.O_RDONLY)
        os.read(file, os.fstat(file).st_size + 1)
        os.close(file)
    return options.files


def create(folder, turn):
    (folder / f"new{turn}").mkdir()
    for number in range(options.files):
        file = os.open(folder / f"new{turn}" / f"f{number}", os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644)
        os.write(file, b"some bytes")
        os.close(file)
    return options.files


def rename(folder, turn):
    for number in range(options.files):
        os.rename(folder / f"new{turn}" / f"f{number}", folder / f"new{turn}" / f"g{number}")
    return options.files


def delete(folder, turn):
    for number in range(options.files):
        os.unlink(folder / f"new{turn}" / f"g{number}")
    return options.files


def grep(folder, turn):
    subprocess.run(["grep", "-r", "needle", folder / f"tree{turn}"], stdout=subprocess.DEVNULL, check=False)
    return options.files


def untar(folder, turn):
    (folder / f"tar{turn}").mkdir()
    subprocess.run(["tar", "xf", folder.parent / "tree.tar", "-C", folder / f"tar{turn}"], check=True)
    return options.files


def git(folder, turn):
    for words in (["init"], ["add", "."], ["commit", "-m", "all"], ["status"]):
        subprocess.run(["git", *words], cwd=folder / f"git{turn}", env=GIT, check=True, capture_output=True)
    return options.files


WORK = [
    ("sequential write, 1 MiB", write_file),
    ("sequential read, 1 MiB", read_file),
    ("4 KiB reads, one by one", read_pages),
    ("4 KiB reads, 16 threads", read_pages_together),
    *[(f"ls -l of {count:,}", list_names(count)) for count in options.names],
    ("stat one by one", look_at),
    ("open, fstat, read, close", read_small),
    ("create, write, close", create),
    ("rename", rename),
    ("delete", delete),
    ("grep -r, a file", grep),
    ("tar x, a file", untar),
    ("git init add commit status, a file", git),
]
if options.only:
    wanted = {what for what, _ in WORK if options.only in what}
    for what, needed in (("delete", "rename"), ("rename", "create, write, close")):  # its files come from there
        wanted |= {needed} if what in wanted else set()
    WORK = [(what, work) for what, work in WORK if what in wanted]
    if options.save:
        parser.error("a part of the table isn't kept")


def make_tree(top):
    for number in range(options.files):
        folder = top / f"dir{number // 10}"
        folder.mkdir(parents=True, exist_ok=True)
        (folder / f"file{number}.c").write_bytes(b"a line of text\n" * (number % 200))


class Mounts:
    def __init__(self, root):
        self.places = {name: root / f"local-{name}" for name in ("sshfs", "fodr")}
        turns = range(options.rounds)
        small = [(f"{what}{turn}", options.files) for what in ("read", "look") for turn in turns]
        make_tree(root / "tree")
        subprocess.run(["tar", "cf", root / "tree.tar", "-C", root / "tree", "."], check=True)
        for place in self.places.values():
            place.mkdir()
            (place / "sequential").write_bytes(bytes(options.size << 20))
            for folder, count in [*((f"many{count}", count) for count in options.names), *small]:
                (place / folder).mkdir(parents=True)
                for number in range(count):
                    (place / folder / f"file{number}").write_bytes(b"x" * (number % 100))
            for turn in turns:
                shutil.copytree(root / "tree", place / f"tree{turn}")
                shutil.copytree(root / "tree", place / f"git{turn}")
        self.seen = {name: root / f"mount-{name}" for name in self.places}
        self.root = root

    def __enter__(self):
        for mount in self.seen.values():
            mount.mkdir()
        # sshfs starts its "ssh" with a host and -s sftp; ours is the server itself, or as far away as is wanted.
        helper = self.root / "sftp"
        helper.write_text(f"#!/bin/sh\nexec {SFTP_SERVER}\n")
        helper.chmod(0o755)
        where = ["--mount", self.seen["fodr"]]
        if options.delay:
            os.environ["FODR_BENCH_DELAY_MS"] = str(options.delay)
            helper = pathlib.Path(__file__).with_name("delayed_ssh.py").resolve()
            where = ["--to", f"bench:{self.seen['fodr']}", "--ssh-command", helper, "--remote-fodr", options.fodr]
        # What sshfs knows of files it believes as long as fodr does: folders are listed more than once.
        subprocess.run(["sshfs", "-o", f"ssh_command={helper},dcache_timeout=1", f"bench:{self.places['sshfs']}", self.seen["sshfs"]],
                       check=True)
        runtime = self.root / "runtime"
        runtime.mkdir(mode=0o700)
        self.environment = {**os.environ, "XDG_RUNTIME_DIR": str(runtime)}
        self.share = subprocess.Popen([options.fodr, "share", self.places["fodr"], *where], env=self.environment,
                                      stdout=subprocess.PIPE, text=True)
        self.share.stdout.readline()
        return self

    def __exit__(self, *_):
        self.share.send_signal(2)
        self.share.wait(60)
        subprocess.run(["fusermount3", "-u", self.seen["sshfs"]], check=False)

    def requests(self):
        out = subprocess.run([options.fodr, "status", "--traffic", "--json"], env=self.environment, capture_output=True,
                             text=True, check=True).stdout
        return sum(row["packets"] for row in json.loads(out.splitlines()[-1]) if row["kind"] != "CORE_DEVICE_IOCOMPLETION")

    def switches(self):
        """Of the host and the agent, whoever started it."""
        total, found = 0, [self.share.pid]
        for pid in found:
            for task in pathlib.Path(f"/proc/{pid}/task").glob("*"):
                try:
                    found += [int(child) for child in (task / "children").read_text().split()]
                    if (task / "comm").read_text().startswith(("python", "sh")):
                        continue
                    total += sum(int(line.split()[1]) for line in (task / "status").read_text().splitlines()
                                 if "ctxt_switches" in line)
                except OSError:
                    pass
        return total


def measure(mounts):
    rows = {what: {"sshfs": [], "fodr": [], "requests": [], "switches": []} for what, _ in WORK}
    for turn in range(options.rounds):
        for what, work in WORK:
            row = rows[what]
            for name, folder in list(mounts.seen.items())[::1 if turn % 2 else -1]:
                drop_caches()
                before = (mounts.requests(), mounts.switches()) if name == "fodr" else (0, 0)
                begin = time.perf_counter()
                count = work(folder, turn)
                row[name].append((time.perf_counter() - begin) / count)
                if name == "fodr":
                    row["switches"].append((mounts.switches() - before[1]) / count)
                    row["requests"].append((mounts.requests() - before[0]) / count)
    return {what: {column: statistics.median(values) for column, values in row.items()} for what, row in rows.items()}


def table(rows):
    yield "| work | sshfs ÷ fodr | requests | " + ("waits" if options.delay else "switches") + " |"
    yield "|---|---|---|---|"
    for what, row in rows.items():
        last = row["fodr"] * 1000 / options.delay if options.delay else row["switches"]
        yield f"| {what} | {row['sshfs'] / row['fodr']:.2f} | {row['requests']:.2f} | {last:.1f} |"


def save(lines):
    title = f"## A round trip of {options.delay:g} ms" if options.delay else "## On one machine"
    kept = RESULTS.read_text() if RESULTS.exists() else "# The last runs of script/bench --save\n"
    head, *sections = kept.split("\n## ")
    sections = [section for section in sections if not ("## " + section).startswith(title)]
    sections.append("\n".join([title[3:], "", f"{os.cpu_count()} processors, {time.strftime('%Y-%m-%d')}, medians of "
                               f"{options.rounds} rounds. Above 1 fodr is faster. The other columns are per operation.", "",
                               *lines]))
    RESULTS.write_text("\n## ".join([head.rstrip("\n") + "\n", *(section.rstrip("\n") + "\n" for section in sections)]))


def main():
    folder = os.environ.get("TMPDIR") or ("/dev/shm" if os.access("/dev/shm", os.W_OK) else "/var/tmp")
    root = pathlib.Path(tempfile.mkdtemp(prefix="fodr-bench-", dir=folder))
    try:
        with Mounts(root) as mounts:
            lines = list(table(measure(mounts)))
    finally:
        shutil.rmtree(root, ignore_errors=True)
    print("\n".join(lines))
    print(f"Medians of {options.rounds} rounds, taken in turn. Above 1 fodr is faster. Requests, and "
          + ("round trips waited for" if options.delay else "context switches of host and agent") + ", are per operation.")
    if options.save:
        save(lines)


main()
