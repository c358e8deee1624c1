"""The mount without a connection: it stays, calls wait for the host, and nothing is lost or written elsewhere."""
import errno
import os
import signal
import subprocess
import threading
import time
import unittest

import network_job
from share import command_line, free_port, listens, mounted, wait_for

IO_TIMEOUT = 4


def parent_of(pid):
    with open(f"/proc/{pid}/stat") as stat:
        return int(stat.read().rsplit(")", 1)[1].split()[1])


class Appender(threading.Thread):
    """Appends numbered lines to a file in the mount; `done` are those whose every call succeeded."""

    def __init__(self, path, keeps_open):
        super().__init__()
        self.path, self.keeps_open = path, keeps_open
        self.done, self.failed = [], []
        self.ending = False
        self.file = None
        self.start()

    def run(self):
        number = 0
        while not self.ending:
            number += 1
            line = f"{self.name} {number}"
            try:
                if self.file is None:
                    self.file = os.open(self.path, os.O_WRONLY | os.O_APPEND)
                os.write(self.file, line.encode() + b"\n")
                os.fsync(self.file)
                self.done.append(line)
                if not self.keeps_open:
                    self.close()
            except OSError as problem:
                self.failed.append((line, problem))
                self.close()
            time.sleep(0.005)
        self.close()

    def close(self):
        if self.file is not None:
            file, self.file = self.file, None
            os.close(file)

    def finish(self):
        self.ending = True
        self.join()


class Linger(network_job.SshCase):
    def start(self, *words):
        return self.share(*self.to("--io-timeout", str(IO_TIMEOUT), *words))

    def agents(self):
        """The processes that serve the mount: those that weren't started by another agent's wait."""
        found = subprocess.run(["pgrep", "-f", f"agent.*{self.mount}$"], capture_output=True, text=True).stdout.split()
        agents = [int(pid) for pid in found if b"agent" in command_line(pid)]
        return [pid for pid in agents if not any(parent_of(other) == pid for other in agents) and
                os.path.exists(f"/proc/{pid}/fd") and any(
                    os.readlink(f"/proc/{pid}/fd/{fd}") == "/dev/fuse" for fd in os.listdir(f"/proc/{pid}/fd"))]

    def lose(self, share):
        before = share.log().count("again\n")
        os.kill(self.ssh_pid(share), signal.SIGKILL)
        return lambda: share.log().count("again\n") > before and "connected to" in share.log()

    def test_programs_go_on_over_losses(self):
        files = [self.local / "each", self.local / "open"]
        for file in files:
            file.touch()
        kept = self.local / "kept"
        kept.write_text("before the losses")
        with self.start() as share:
            agents = self.agents()
            reader = os.open(self.mount / "kept", os.O_RDONLY)
            appenders = [Appender(self.mount / file.name, file.name == "open") for file in files]
            for _ in range(5):
                lines = [len(appender.done) for appender in appenders]
                back = self.lose(share)
                self.assertTrue(mounted(self.mount))
                wait_for(back, "the connection")
                wait_for(lambda: all(len(a.done) > n + 5 for a, n in zip(appenders, lines)), "lines after it")
                self.assertTrue(mounted(self.mount))
            for appender in appenders:
                appender.finish()
            self.assertEqual(os.pread(reader, 100, 0), b"before the losses")
            os.close(reader)
            self.assertEqual(self.agents(), agents)
        for appender, file in zip(appenders, files):
            lines = file.read_text().replace("\0", "").split("\n")
            self.assertEqual(appender.failed, [])
            self.assertEqual(lines[:-1], appender.done)
        self.assertEqual(os.listdir(self.mount), [])

    def test_large_files_cross_losses(self):
        data = os.urandom(1 << 20)
        count = 150
        with self.start() as share:
            def write():
                with open(self.mount / "large", "wb", buffering=0) as file:
                    for _ in range(count):
                        file.write(data)

            def read():
                with open(self.mount / "large", "rb", buffering=0) as file:
                    return all(file.read(len(data)) == data for _ in range(count))
            for work in (write, read):
                outcome = []
                thread = threading.Thread(target=lambda: outcome.append(work()))
                thread.start()
                wait_for(self.lose(share), "the connection")
                thread.join()
                self.assertIn(outcome, ([None], [True]))
        self.assertEqual((self.local / "large").read_bytes(), data * count)

    def test_another_file_is_not_written_to(self):
        (self.local / "log").write_text("old")
        with self.start() as share:
            file = os.open(self.mount / "log", os.O_RDWR)
            back = self.lose(share)
            (self.local / "new").write_text("somebody else's")
            os.rename(self.local / "new", self.local / "log")
            wait_for(back, "the connection")
            self.assertFails(errno.ESTALE, lambda: (os.write(file, b"XXX"), os.fsync(file)))
            os.close(file)
            self.assertEqual((self.mount / "log").read_text(), "somebody else's")

    def test_a_frozen_host_gives_errors_in_time(self):
        with self.start() as share:
            file = os.open(self.mount / "greeting", os.O_RDWR)
            share.process.send_signal(signal.SIGSTOP)
            try:
                for call in (lambda: os.stat(self.mount / "unheard"), lambda: os.pread(file, 5, 0),
                             lambda: os.listdir(self.mount),
                             lambda: (os.pwrite(file, b"H", 0), os.fsync(file))):
                    begin = time.monotonic()
                    self.assertFails(errno.EIO, call)
                    self.assertLess(time.monotonic() - begin, IO_TIMEOUT + 2)
            finally:
                share.process.send_signal(signal.SIGCONT)
            os.close(file)
            wait_for(self.can_list, "the host again")
            self.assert_writable()

    def can_list(self):
        try:
            return "greeting" in os.listdir(self.mount)
        except OSError:
            return False

    def test_a_killed_agent_is_replaced(self):
        with self.start() as share:
            agent, = self.agents()
            os.kill(agent, signal.SIGKILL)
            wait_for(lambda: "connected to" in share.log(), "the connection")
            wait_for(self.usable, "the share again")
            self.assertNotIn(agent, self.agents())
            self.assert_usable()

    def test_a_killed_host_is_waited_for(self):
        first = self.start()
        first.__enter__()
        agent, = self.agents()
        # Whose host is connected isn't given away.
        second = self.fodr("share", self.other, *self.to("--no-reconnect"))
        self.assertEqual(second.returncode, 3, second.stderr)
        self.assertIn("is mounted already", second.stderr)
        first.kill()
        self.assertTrue(mounted(self.mount))
        begin = time.monotonic()
        with self.assertRaises(OSError):
            os.stat(self.mount / "unheard")
        self.assertLess(time.monotonic() - begin, IO_TIMEOUT + 2)
        other_options = self.fodr("share", self.local, *self.to("--read-only"))
        self.assertEqual(other_options.returncode, 3, other_options.stderr)
        with self.start():
            self.assertEqual(self.agents(), [agent])
            self.assert_usable()
        wait_for(lambda: not os.path.exists(f"/proc/{agent}"), "the agent's end")

    def test_a_lingering_mount_can_be_unmounted(self):
        share = self.start()
        share.__enter__()
        agent, = self.agents()
        share.kill()
        subprocess.run(["fusermount3", "-u", str(self.mount)], check=True)
        wait_for(lambda: not os.path.exists(f"/proc/{agent}"), "the agent's end")
        with self.start():
            self.assert_usable()

    def test_a_command_goes_on(self):
        script = f"kill -9 $(pgrep -x ssh -P $PPID); echo more >>'{self.mount}/greeting'; cat '{self.mount}/greeting'"
        done = self.fodr("share", self.local, *self.to(), "--", "sh", "-c", script)
        self.assertEqual((done.returncode, done.stdout), (0, "hellomore\n"), done.stderr)


class TcpLinger(network_job.NetworkCase):
    def test_the_agent_meets_the_host_again(self):
        for agent_listens in (True, False):
            port = free_port()
            place = f"127.0.0.1:{port}"
            options = ["--linger", "100", "--io-timeout", str(IO_TIMEOUT)]
            if agent_listens:
                agent = self.agent(self.mount, "--listen", place, *options)
            share = self.share(*(["--tcp", place] if agent_listens else ["--listen", port]),
                               ready=None if agent_listens else lambda: listens(port))
            share.__enter__()
            if not agent_listens:
                agent = self.agent(self.mount, "--connect", place, *options)
            wait_for(lambda: "is mounted at" in share.log(), "the mount")
            self.assert_usable()
            kept = os.open(self.mount / "greeting", os.O_RDONLY)
            share.kill()
            self.assertTrue(mounted(self.mount))
            again = self.share(*(["--tcp", place] if agent_listens else ["--listen", port]),
                               ready=lambda: "is mounted at" in again.log())
            with again:
                self.assertEqual(os.pread(kept, 10, 0), b"hello")
                os.close(kept)
                self.assert_usable()
            self.assertEqual(agent.wait(60), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
