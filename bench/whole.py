"""The whole product measured: the same work through fodr, through sshfs and on the local disk, turn by turn.

Prints ratios of medians, not seconds: what the machine is doing meanwhile weighs on all three alike.
"""
import argparse
import os
import pathlib
import shutil
import statistics
import subprocess
import tempfile
import time

parser = argparse.ArgumentParser()
parser.add_argument("fodr")
parser.add_argument("--size", type=int, default=512, help="MiB of the sequential read and write")
parser.add_argument("--rounds", type=int, default=5)
parser.add_argument("--files", type=int, default=1000, help="of the work on small files")
parser.add_argument("--delay", type=float, default=0, help="milliseconds of a round trip to the mounts")
options = parser.parse_args()

SFTP_SERVER = "/usr/lib/openssh/sftp-server"
BLOCK = bytes(1 << 20)


def drop_caches():
    """So that a read is a read. Needs root; without it the page cache of every mount stays warm alike."""
    try:
        pathlib.Path("/proc/sys/vm/drop_caches").write_text("3")
    except PermissionError:
        pass


def write_file(folder, _):
    with open(folder / "sequential", "wb", buffering=0) as file:
        for _ in range(options.size):
            file.write(BLOCK)


def read_file(folder, _):
    with open(folder / "sequential", "rb", buffering=0) as file:
        while file.read(1 << 20):
            pass


def list_files(folder, _):
    assert sum(1 for entry in os.scandir(folder / "many") if entry.stat()) == 5000


def make_and_delete(folder, _):
    place = folder / "new"
    place.mkdir()
    for number in range(options.files):
        with open(place / f"f{number}", "wb") as file:
            file.write(b"some bytes")
    for number in range(options.files):
        os.unlink(place / f"f{number}")
    place.rmdir()


# Names that nobody has seen yet: another folder in each round.
def read_small(folder, turn):
    for number in range(options.files):
        with open(folder / f"read{turn}" / f"file{number}", "rb") as file:
            file.read()


def look_at(folder, turn):
    for number in range(options.files):
        os.stat(folder / f"look{turn}" / f"file{number}")


WORK = [
    ("sequential write", write_file),
    ("sequential read", read_file),
    ("list 5,000 files with attributes", list_files),
    (f"create and delete {options.files:,} files", make_and_delete),
    (f"open, read, close {options.files:,} files", read_small),
    (f"look at {options.files:,} files", look_at),
]


class Mounts:
    def __init__(self, root):
        self.places = {name: root / f"local-{name}" for name in ("disk", "sshfs", "fodr")}
        for place in self.places.values():
            fresh = [(f"{what}{turn}", options.files) for what in ("read", "look") for turn in range(options.rounds)]
            for folder, count in [("many", 5000), *fresh]:
                (place / folder).mkdir(parents=True)
                for number in range(count):
                    (place / folder / f"file{number}").write_bytes(b"x" * (number % 100))
        self.seen = dict(self.places)
        self.root = root
        self.processes = []

    def __enter__(self):
        for name in ("sshfs", "fodr"):
            self.seen[name] = self.root / f"mount-{name}"
            self.seen[name].mkdir()
        # sshfs starts its "ssh" with a host and -s sftp; ours is the server itself, or as far away as is wanted.
        helper = self.root / "sftp"
        helper.write_text(f"#!/bin/sh\nexec {SFTP_SERVER}\n")
        helper.chmod(0o755)
        where = ["--mount", self.seen["fodr"]]
        if options.delay:
            os.environ["FODR_BENCH_DELAY_MS"] = str(options.delay)
            helper = pathlib.Path(__file__).with_name("delayed_ssh.py").resolve()
            where = ["--to", f"bench:{self.seen['fodr']}", "--ssh-command", helper, "--remote-fodr", options.fodr]
        subprocess.run(["sshfs", "-o", f"ssh_command={helper}", f"bench:{self.places['sshfs']}", self.seen["sshfs"]],
                       check=True)
        runtime = self.root / "runtime"
        runtime.mkdir(mode=0o700)
        environment = {**os.environ, "XDG_RUNTIME_DIR": str(runtime)}
        self.processes.append(subprocess.Popen(
            [options.fodr, "share", self.places["fodr"], *where], env=environment,
            stdout=subprocess.PIPE, text=True))
        self.processes[0].stdout.readline()
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.send_signal(2)
            process.wait(60)
        subprocess.run(["fusermount3", "-u", self.seen["sshfs"]], check=False)


def main():
    root = pathlib.Path(tempfile.mkdtemp(prefix="fodr-bench-", dir=os.environ.get("TMPDIR", "/var/tmp")))
    times = {}
    try:
        with Mounts(root) as mounts:
            for turn in range(options.rounds):
                for what, work in WORK:
                    for name, folder in mounts.seen.items():
                        drop_caches()
                        begin = time.perf_counter()
                        work(folder, turn)
                        times.setdefault((what, name), []).append(time.perf_counter() - begin)
    finally:
        shutil.rmtree(root, ignore_errors=True)
    print(f"{'time taken, as a ratio':36} {'fodr/sshfs':>12} {'fodr/disk':>12} {'sshfs/disk':>12}")
    for what, _ in WORK:
        disk, sshfs, fodr = (statistics.median(times[what, name]) for name in ("disk", "sshfs", "fodr"))
        print(f"{what:36} {fodr / sshfs:12.2f} {fodr / disk:12.2f} {sshfs / disk:12.2f}")
    print("Below 1 is faster. Medians of", options.rounds, "rounds, taken in turn.")


main()
