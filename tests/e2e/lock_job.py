"""Locks of fcntl and flock between programs on both sides, and a database that both sides write."""
import contextlib
import errno
import fcntl
import os
import signal
import sqlite3
import struct
import subprocess
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(__file__))
import network_job  # noqa: E402
from posix_job import PosixCase  # noqa: E402
from share import Share, wait_for  # noqa: E402

# A program that takes locks as it is told: KIND TYPE BEGIN LENGTH HOW a line, and says what came of each.
PROGRAM = """
import errno, fcntl, os, struct, sys
file = open(sys.argv[1], "r+b")
types = {"shared": (fcntl.LOCK_SH, fcntl.F_RDLCK), "exclusive": (fcntl.LOCK_EX, fcntl.F_WRLCK),
         "none": (fcntl.LOCK_UN, fcntl.F_UNLCK)}
print("ready", flush=True)
for line in sys.stdin:
    kind, type, begin, length, how = line.split()
    operation, number = types[type]
    try:
        if kind == "flock":
            fcntl.flock(file, operation | (0 if how == "wait" or type == "none" else fcntl.LOCK_NB))
        elif kind == "posix":
            fcntl.lockf(file, operation | (0 if how == "wait" or type == "none" else fcntl.LOCK_NB), int(length), int(begin))
        else:
            fcntl.fcntl(file, 38 if how == "wait" else 37, struct.pack("hhqqi4x", number, 0, int(begin), int(length), 0))
        print("ok", flush=True)
    except OSError as problem:
        print(errno.errorcode[problem.errno], flush=True)
"""


class Program:
    def __init__(self, path):
        self.process = subprocess.Popen([sys.executable, "-c", PROGRAM, str(path)], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        assert self.answer() == "ready"

    def ask(self, kind, type, begin=0, length=0, how="try"):
        self.process.stdin.write(f"{kind} {type} {begin} {length} {how}\n")
        self.process.stdin.flush()

    def answer(self):
        return self.process.stdout.readline().strip()

    def lock(self, *words, **options):
        self.ask(*words, **options)
        return self.answer()

    def end(self, how=signal.SIGKILL):
        self.process.send_signal(how)
        self.process.wait(30)
        self.process.stdin.close()
        self.process.stdout.close()


def is_waiting(program):
    """Whether it is in a lock call that doesn't end."""
    with open(f"/proc/{program.process.pid}/syscall") as call:
        return call.read().split()[0] in ("72", "73")  # fcntl, flock


class Locks(PosixCase):
    def setUp(self):
        super().setUp()
        self.ends = contextlib.ExitStack()
        self.addCleanup(self.ends.close)
        (self.local / "f").write_bytes(bytes(100))

    def program(self, folder):
        program = Program(folder / "f")
        self.ends.callback(program.end)
        return program

    def two_mounts(self):
        """The second is of a host and an agent of its own."""
        self.ends.enter_context(self.share())
        # One log file serves a scratch.
        second = Share(self.scratch, mount=self.scratch.other,
                       ready=lambda: os.path.exists(self.scratch.other / "f"))
        self.ends.enter_context(second)
        return second

    def waits(self, program, *words):
        program.ask(*words, how="wait")
        wait_for(lambda: is_waiting(program), "the wait")
        time.sleep(0.05)

    def test_they_exclude_each_other_wherever_the_programs_are(self):
        self.two_mounts()
        programs = [self.program(self.mount), self.program(self.mount), self.program(self.local),
                    self.program(self.scratch.other)]
        for kind in ("posix", "ofd", "flock"):
            for holder in programs:
                for other in programs:
                    if other is holder:
                        continue
                    with self.subTest(kind=kind, holder=programs.index(holder), other=programs.index(other)):
                        self.assertEqual(holder.lock(kind, "exclusive", 10, 10), "ok")
                        self.assertEqual(other.lock(kind, "shared", 19, 1), "EAGAIN")
                        self.assertEqual(holder.lock(kind, "shared", 10, 10), "ok")
                        self.assertEqual(other.lock(kind, "shared", 0, 0), "ok")
                        self.assertEqual(other.lock(kind, "exclusive", 0, 0), "EAGAIN")
                        if kind != "flock":
                            self.assertEqual(other.lock(kind, "exclusive", 20, 10), "ok")
                            # A part of a range is unlocked.
                            self.assertEqual(holder.lock(kind, "none", 12, 2), "ok")
                            self.assertEqual(other.lock(kind, "exclusive", 12, 2), "ok")
                            self.assertEqual(holder.lock(kind, "exclusive", 11, 1), "EAGAIN")
                            self.assertEqual(other.lock(kind, "exclusive", 14, 1), "EAGAIN")
                        self.assertEqual(holder.lock(kind, "none"), "ok")
                        self.assertEqual(other.lock(kind, "exclusive", 10, 10), "ok")
                        self.assertEqual(other.lock(kind, "none"), "ok")

    def test_a_wait_ends_when_the_holder_does(self):
        second = self.two_mounts()
        cases = {"unlocked": lambda holder: holder.lock(holder.kind, "none"), "killed": Program.end}
        for kind in ("posix", "ofd", "flock"):
            for held in (self.mount, self.local, self.scratch.other):
                for name, give_up in cases.items():
                    for waited in (self.mount, self.local):
                        with self.subTest(kind=kind, held=held.name, waited=waited.name, how=name):
                            holder, waiter = self.program(held), self.program(waited)
                            holder.kind = kind
                            self.assertEqual(holder.lock(kind, "exclusive", 5, 5), "ok")
                            self.waits(waiter, kind, "exclusive", 0, 50)
                            give_up(holder)
                            self.assertEqual(waiter.answer(), "ok")
                            waiter.end()
        holder, waiter = self.program(self.scratch.other), self.program(self.mount)
        self.assertEqual(holder.lock("posix", "exclusive", 5, 5), "ok")
        self.waits(waiter, "posix", "shared", 0, 50)
        os.kill(second.agent_pid(), signal.SIGKILL)  # while its program goes on
        self.assertEqual(waiter.answer(), "ok")
        os.kill(second.process.pid, signal.SIGKILL)
        second.process.wait(30)

    def test_a_signal_ends_a_wait_and_takes_nothing(self):
        with self.share():
            for kind in ("posix", "ofd", "flock"):
                with self.subTest(kind=kind):
                    holder, waiter, other = (self.program(folder) for folder in (self.local, self.mount, self.mount))
                    self.assertEqual(holder.lock(kind, "exclusive", 0, 5), "ok")
                    if kind != "flock":
                        self.assertEqual(waiter.lock(kind, "shared", 5, 5), "ok")
                    self.waits(waiter, kind, "exclusive", 0, 10)
                    begun = time.monotonic()
                    waiter.process.send_signal(signal.SIGINT)  # python ends by it
                    waiter.process.wait(20)
                    self.assertLess(time.monotonic() - begun, 3)
                    holder.end()
                    self.assertEqual(other.lock(kind, "exclusive", 0, 10), "ok")
                    other.end()

    def test_closing_any_descriptor_ends_a_processes_locks_and_no_childs(self):
        with self.share():
            other = self.program(self.local)
            held = open(self.mount / "f", "r+b")
            fcntl.lockf(held, fcntl.LOCK_EX)
            subprocess.run([sys.executable, "-c", "pass"], pass_fds=[held.fileno()], check=True)
            self.assertEqual(other.lock("posix", "shared"), "EAGAIN")
            open(self.mount / "f", "rb").close()
            self.assertEqual(other.lock("posix", "exclusive"), "ok")
            self.assertEqual(other.lock("posix", "none"), "ok")
            # Those of an open file last until its last descriptor is closed.
            fcntl.flock(held, fcntl.LOCK_EX)
            copy = os.dup(held.fileno())
            held.close()
            self.assertEqual(other.lock("flock", "shared"), "EAGAIN")
            os.close(copy)
            self.assertEqual(other.lock("flock", "exclusive", how="wait"), "ok")

    def test_an_open_that_is_closed_gives_up_its_locks_whatever_comes_next(self):
        # The kernel names the owner by an id that it uses again for the next open.
        def take(file, wait):
            if kind == "flock":
                fcntl.flock(file, fcntl.LOCK_EX | (0 if wait else fcntl.LOCK_NB))
            else:
                fcntl.fcntl(file, 38 if wait else 37, struct.pack("hhqqi4x", fcntl.F_WRLCK, 0, 0, 10, 0))

        def is_free():
            with contextlib.suppress(BlockingIOError), open(self.local / kind, "r+b") as file:
                take(file, False)
                return True
            return False

        with self.share():
            for kind in ("flock", "ofd"):
                (self.local / kind).touch()
                def take_and_close():
                    for _ in range(300):
                        with open(self.mount / kind, "r+b") as file:
                            take(file, True)

                worker = threading.Thread(target=take_and_close, daemon=True)
                worker.start()
                wait_for(lambda: not worker.is_alive(), "the last lock", 60)
                wait_for(is_free, "the lock of the last open", 30)

    def test_who_is_in_the_way_is_told(self):
        def ask(file):
            told = fcntl.fcntl(file, fcntl.F_GETLK, struct.pack("hhqqi4x", fcntl.F_WRLCK, 0, 0, 0, 0))
            return struct.unpack("hhqqi4x", told)

        with self.share(), open(self.mount / "f", "r+b") as file:
            self.assertEqual(ask(file)[0], fcntl.F_UNLCK)
            holder = self.program(self.local)
            self.assertEqual(holder.lock("posix", "exclusive", 30, 5), "ok")
            self.assertEqual(ask(file), (fcntl.F_WRLCK, 0, 30, 5, 0))
            holder.end()
            holder = self.program(self.mount)
            self.assertEqual(holder.lock("posix", "shared", 40, 0), "ok")
            self.assertEqual(ask(file), (fcntl.F_RDLCK, 0, 40, 0, holder.process.pid))
            fcntl.lockf(file, fcntl.LOCK_EX, 5, 0)
            self.assertEqual(ask(file)[2], 40)  # not one's own
            holder.end()

    def test_with_a_lock_comes_what_others_wrote_before(self):
        with self.share(), open(self.mount / "f", "r+b", buffering=0) as here, \
                open(self.local / "f", "r+b", buffering=0) as there:
            for turn in range(60):
                for mine, its in ((here, there), (there, here)):
                    fcntl.lockf(mine, fcntl.LOCK_EX)
                    value = struct.pack("q", turn) + os.urandom(8)
                    os.pwrite(mine.fileno(), value, 8)
                    fcntl.lockf(mine, fcntl.LOCK_UN)
                    fcntl.lockf(its, fcntl.LOCK_SH)
                    self.assertEqual(os.pread(its.fileno(), 16, 8), value)
                    fcntl.lockf(its, fcntl.LOCK_UN)

    def test_a_file_without_a_name_has_locks_too(self):
        with self.share():
            first, second = open(self.mount / "f", "r+b"), open(self.mount / "f", "r+b")
            (self.mount / "f").unlink()
            fcntl.flock(first, fcntl.LOCK_EX)
            self.assertFails(errno.EAGAIN, fcntl.flock, second, fcntl.LOCK_SH | fcntl.LOCK_NB)
            first.close()
            fcntl.flock(second, fcntl.LOCK_EX)
            second.close()


WRITER = """
import sqlite3, sys
path, name, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
done = 0
while done < count:
    database = sqlite3.connect(path, timeout=60, isolation_level=None)
    for _ in range(25):
        database.execute("BEGIN IMMEDIATE")
        number = database.execute("SELECT coalesce(max(n), 0) FROM lines").fetchone()[0]
        database.execute("INSERT INTO lines VALUES (?, ?, ?)", (number + 1, name, "x" * 500))
        database.execute("UPDATE total SET n = n + 1")
        database.execute("COMMIT")
        done += 1
    database.close()
"""


class Databases(PosixCase):
    def test_both_sides_write_at_the_same_time(self):
        for mode in ("delete", "truncate", "persist", "wal"):
            with self.subTest(mode=mode), self.share():
                name = f"{mode}.db"
                database = sqlite3.connect(self.local / name)
                database.execute(f"PRAGMA journal_mode={mode}")
                database.execute("CREATE TABLE lines(n INTEGER PRIMARY KEY, who, text)")
                database.execute("CREATE TABLE total(n)")
                database.execute("INSERT INTO total VALUES (0)")
                database.commit()
                database.close()
                writers = [subprocess.Popen([sys.executable, "-c", WRITER, str(folder / name), f"{folder.name}{n}", "100"])
                           for folder in (self.local, self.mount) for n in range(2)]
                self.assertEqual([writer.wait(300) for writer in writers], [0] * 4)
                for folder in (self.mount, self.local):
                    with contextlib.closing(sqlite3.connect(folder / name, timeout=60)) as database:
                        self.assertEqual(database.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
                        self.assertEqual(database.execute("SELECT count(*), (SELECT n FROM total) FROM lines").fetchone(),
                                         (400, 400))

    def test_a_log_in_shared_memory_is_one_sides_at_a_time(self):
        with self.share():
            for first, second in ((self.local, self.mount), (self.mount, self.local)):
                name = f"{first.name}.db"
                holder = sqlite3.connect(first / name)
                holder.execute("PRAGMA journal_mode=wal")
                holder.execute("CREATE TABLE t(n)")
                holder.commit()
                with contextlib.closing(sqlite3.connect(first / name)) as beside:
                    beside.execute("INSERT INTO t VALUES (1)")
                    beside.commit()
                with contextlib.closing(sqlite3.connect(second / name, timeout=0.2)) as other:
                    # After ten seconds.
                    with self.assertRaisesRegex(sqlite3.OperationalError, "locking protocol"):
                        other.execute("INSERT INTO t VALUES (2)")
                holder.close()
                with contextlib.closing(sqlite3.connect(second / name, timeout=10)) as other:
                    other.execute("INSERT INTO t VALUES (3)")
                    other.commit()
                    self.assertEqual(other.execute("SELECT n FROM t").fetchall(), [(1,), (3,)])


class LostLocks(network_job.SshCase):
    def test_locks_that_went_with_a_connection_are_missed_loudly(self):
        (self.local / "f").write_bytes(bytes(100))
        with self.share(*self.to("--io-timeout", "4")) as share:
            with open(self.mount / "f", "r+b", buffering=0) as held, open(self.mount / "f", "rb", buffering=0) as free:
                fcntl.lockf(held, fcntl.LOCK_EX)
                before = share.log().count("again\n")
                os.kill(self.ssh_pid(share), signal.SIGKILL)
                wait_for(lambda: share.log().count("again\n") > before, "the connection")
                with open(self.local / "f", "r+b") as owner:
                    fcntl.lockf(owner, fcntl.LOCK_EX)  # nobody keeps it any more
                for action in (lambda: held.write(b"x"), lambda: held.read(1),
                               lambda: fcntl.lockf(held, fcntl.LOCK_SH, 1, 0)):
                    with self.assertRaises(OSError) as caught:
                        action()
                    self.assertEqual(caught.exception.errno, errno.EIO)
                self.assertEqual(len(free.read(1)), 1)
                fcntl.lockf(held, fcntl.LOCK_UN)
                fcntl.lockf(held, fcntl.LOCK_EX)
                held.write(b"x")


if __name__ == "__main__":
    unittest.main(verbosity=2)
