"""A running `fodr share` for a test: started on real folders, ended in every way a user might end it."""
import ctypes
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

FODR = os.environ["FODR_BIN"]
# A thread-local of a loaded library that happens to begin 16 bytes behind a page makes g++ 12's leak check at exit read
# its size from the wrong place, and crash. Nothing of ours lives in thread-locals alone.
os.environ["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "") + ":intercept_tls_get_addr=0"
os.environ["LC_ALL"] = "C.UTF-8"  # some words of other programs are looked for
START_LIMIT = 60  # seconds until a share that doesn't come up counts as failed


def wait_for(condition, what, limit=START_LIMIT):
    """Until `condition` holds. The limit only ends a hung test; nothing is measured against it."""
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"never came: {what}")
        time.sleep(0.02)


def mounted(path):
    path = os.path.abspath(path)
    with open("/proc/self/mountinfo") as table:
        return any(line.split()[4].encode().decode("unicode_escape") == path for line in table)


def forget_names(path):
    """Has the kernel drop the names of one mount that nobody uses, as it does when it is short of memory."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(None, os.fsencode(path), None, 0x20 | 0x2 | 0x4, None) != 0:  # MS_REMOUNT, MS_NOSUID, MS_NODEV
        raise OSError(ctypes.get_errno(), "remount", str(path))


def command_line(pid):
    """The words of a process; none of one that is gone."""
    try:
        return pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
    except OSError:
        return []


def run(*arguments, **options):
    """One `fodr` call to its end."""
    options.setdefault("timeout", 120)
    return subprocess.run([FODR, *map(str, arguments)], capture_output=True, text=True, **options)


class Scratch:
    """Folders of one test: `local` to be shared, `mount` to see it at, `other` beside them."""

    def __init__(self):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="fodr-e2e-"))
        self.local = self.root / "local"
        self.mount = self.root / "mount"
        self.other = self.root / "other"
        for folder in (self.local, self.mount, self.other):
            folder.mkdir()
        runtime = self.root / "runtime"
        runtime.mkdir(mode=0o700)
        self.environment = {**os.environ, "XDG_RUNTIME_DIR": str(runtime), "FODR_SETTINGS_DIR": str(self.root / "settings")}

    def remove(self):
        for _ in range(3):
            if not mounted(self.mount):
                break
            subprocess.run(["fusermount3", "-uz", str(self.mount)], capture_output=True)
        shutil.rmtree(self.root, ignore_errors=True)


class Share:
    """`fodr share ARGUMENTS` in the background; a context that ends it by SIGINT and expects a clean end. `verb` may be
    "send": then `folders` are files."""

    def __init__(self, scratch, *arguments, folders=None, mount=None, ready=None, target=None, verb="share"):
        self.scratch = scratch
        self.mount = pathlib.Path(mount or scratch.mount)
        folders = [scratch.local] if folders is None else folders
        target = ("--mount", self.mount) if target is None else target
        self.command = [FODR, verb, *map(str, (*folders, *target, *arguments))]
        self.ready = ready
        self.process = None
        self.output = open(scratch.root / "share.log", "w+b")

    def log(self):
        self.output.flush()
        return pathlib.Path(self.output.name).read_text(errors="replace")

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=self.output,
                                        stderr=subprocess.STDOUT, env=self.scratch.environment,
                                        start_new_session=True)
        ready = self.ready or (lambda: "Press Ctrl-C" in self.log())
        wait_for(lambda: ready() or self.process.poll() is not None, "the share")
        if self.process.poll() is not None:
            raise AssertionError(f"fodr share ended with {self.process.returncode}:\n{self.log()}")
        return self

    def __exit__(self, kind, value, trace):
        try:
            if self.process.poll() is None:
                self.process.send_signal(signal.SIGINT)
                try:
                    self.process.wait(60)
                except subprocess.TimeoutExpired:
                    os.killpg(self.process.pid, signal.SIGKILL)
                    raise AssertionError(f"fodr share didn't end:\n{self.log()}")
                if kind is None:
                    assert self.process.returncode == 0, f"ended with {self.process.returncode}:\n{self.log()}"
                    assert not mounted(self.mount), "still mounted after the end"
        finally:
            if kind is not None:
                print(self.log())
            self.output.close()

    def agent_pid(self):
        out = subprocess.run(["pgrep", "-P", str(self.process.pid)], capture_output=True, text=True).stdout.split()
        for pid in map(int, out):
            if b"agent" in command_line(pid):
                return pid
        raise AssertionError("no agent runs")
