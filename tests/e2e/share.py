"""A running `fodr share` for a test: started on real folders, ended in every way a user might end it."""
import ctypes
import errno
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

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


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def listens(port):
    sockets = subprocess.run(["ss", "-Hltn"], capture_output=True, text=True).stdout
    return f":{port} " in sockets


def children(pid):
    found = subprocess.run(["pgrep", "-P", str(pid)], capture_output=True, text=True).stdout
    return [int(child) for child in found.split()]


def run(*arguments, **options):
    """One `fodr` call to its end."""
    return subprocess.run([FODR, *map(str, arguments)], **{"capture_output": True, "text": True, "timeout": 120, **options})


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
        self.output = scratch.root / "share.log"

    def log(self):
        return self.output.read_text(errors="replace")

    def __enter__(self):
        with open(self.output, "wb") as output:
            self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                            env=self.scratch.environment, start_new_session=True)
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

    def kill(self):
        self.process.kill()
        self.process.wait(60)

    def agent_pid(self):
        for pid in children(self.process.pid):
            if b"agent" in command_line(pid):
                return pid
        raise AssertionError("no agent runs")


class ShareCase(unittest.TestCase):
    """A test with folders of its own."""

    def setUp(self):
        self.scratch = Scratch()
        self.addCleanup(self.scratch.remove)
        self.local, self.mount, self.other = self.scratch.local, self.scratch.mount, self.scratch.other

    def share(self, *arguments, **options):
        return Share(self.scratch, *arguments, **options)

    def fodr(self, *words, **options):
        """One `fodr` call to its end."""
        return run(*words, **{"env": self.scratch.environment, **options})

    def status(self):
        return json.loads(self.fodr("status", "--json").stdout)

    def agent(self, *words):
        """An agent that the test starts itself; it waits for its port when it has one."""
        process = subprocess.Popen([FODR, "agent", *map(str, words)], env=self.scratch.environment,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)

        def stop():
            process.kill()
            process.communicate()
        self.addCleanup(stop)
        if "--listen" in words:
            port = words[words.index("--listen") + 1].rpartition(":")[2]
            wait_for(lambda: listens(port), "the agent")
        return process

    def shell(self, script, folder=None, code=0):
        done = subprocess.run(["timeout", "-s", "KILL", "300", "bash", "-euc", script], cwd=folder or self.mount,
                              capture_output=True, text=True, errors="replace")
        self.assertEqual(done.returncode, code, f"{script}\n{done.stdout[-2000:]}{done.stderr[-2000:]}")
        return done.stdout + done.stderr

    def assertFails(self, error, action, *arguments):
        with self.assertRaises(OSError) as caught:
            action(*arguments)
        self.assertEqual(errno.errorcode[caught.exception.errno], errno.errorcode[error])
