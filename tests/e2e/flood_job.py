"""What a hostile agent may pile up: packets, calls that wait, open files, bytes, policies, connections. During each flood
the host's threads and memory stay within bounds; after it `fodr status` and an honest request are answered.

The host runs under limits of its own, and is killed when it makes more threads than any limit of it allows: what goes wrong
here must not take the machine along."""
import os
import pathlib
import socket
import struct
import subprocess
import threading
import time
import unittest

import raw_agent as raw
from raw_agent import CLOSE, control, create, listing, lock, notify, read, request, write
from share import FODR, Share, ShareCase, free_port, listens, wait_for

MIB = 1 << 20
THREADS = 1500        # the pool's 500, the waiting calls' own, and what else there is
RESIDENT = 600 * MIB
LIMITS = ["prlimit", f"--as={12 << 30}", "--nofile=1024:1024", "--core=0"]
TOO_MANY_FILES = 0xC000011F


class Watch:
    """The most threads and memory that a process had."""

    def __init__(self, pid):
        self.pid, self.threads, self.resident, self.stopped = pid, 0, 0, threading.Event()
        self.status = pathlib.Path(f"/proc/{pid}/status")
        self.thread = threading.Thread(target=self.look, daemon=True)
        self.thread.start()

    def look(self):
        while not self.stopped.wait(0.02):
            try:
                facts = dict(line.split(":", 1) for line in self.status.read_text().splitlines())
            except OSError:
                return
            self.threads = max(self.threads, int(facts.get("Threads", 0)))
            self.resident = max(self.resident, int(facts.get("VmHWM", "0 kB").split()[0]) * 1024)
            if self.threads > 2 * THREADS or self.resident > 6 * RESIDENT:
                os.kill(self.pid, 9)

    def stop(self):
        self.stopped.set()
        self.thread.join()


class Case(ShareCase):
    def setUp(self):
        super().setUp()
        (self.local / "honest.txt").write_bytes(b"honest")
        (self.local / "sub").mkdir()

    def begin(self, *options, ends_with=0, **agent):
        """A share whose agent is ours."""
        self.agent = raw.RawAgent(**agent)
        self.share = Share(self.scratch, *options, target=("--tcp", f"127.0.0.1:{self.agent.port}"))
        self.share.command = LIMITS + self.share.command
        self.share.__enter__()
        self.addCleanup(self.finish, self.share, self.agent, Watch(self.share.process.pid), ends_with)
        self.agent.wait_devices(1)
        self.device = next(iter(self.agent.devices.values()))

    def finish(self, share, agent, watch, ends_with):
        watch.stop()
        if ends_with == 0:
            share.__exit__(*([None] * 3 if share.process.poll() is None else [AssertionError] * 3))
        else:
            share.kill()
        agent.close()
        self.assertLess(watch.threads, THREADS, "threads")
        self.assertLess(watch.resident, RESIDENT, "bytes of memory")

    def open(self, path, **fields):
        file = raw.file_of(self.agent.call(self.device, 0, create(path, **fields), 30))
        self.assertTrue(file, f"{path} can't be opened")
        return file

    def post(self, file, *requests):
        """Sends them together; the numbers of their answers."""
        frames, numbers = bytearray(), []
        for what in requests:
            frames += raw.RawAgent.as_frame(self.agent.packet(self.device, file, what))
            numbers.append(self.agent.last_id)
        self.agent.send_bytes(frames)
        return numbers

    def answers(self, numbers, limit=30):
        end = time.monotonic() + limit
        return [self.agent.answer(number, max(0.01, end - time.monotonic())) for number in numbers]

    def assert_alive(self, opened=None, limit=10):
        status = self.fodr("status", "--json", timeout=limit)
        self.assertEqual(status.returncode, 0, status.stderr + self.share.log())
        file = opened or self.open("\\honest.txt")
        got = self.agent.call(self.device, file, read(100), limit)
        self.assertTrue(got and got.status == 0 and raw.data_of(got) == b"honest", "an honest request isn't answered")
        if not opened:
            self.agent.call(self.device, file, request(CLOSE))

    def is_idle(self):
        def used():
            stat = pathlib.Path(f"/proc/{self.share.process.pid}/stat").read_text()
            return sum(map(int, stat.rsplit(")")[1].split()[11:13]))
        before = used()
        time.sleep(0.2)
        return used() - before < 5  # hundredths of a second


class Flood(Case):
    # ---- packets

    def test_tiny_packets(self):
        self.begin()
        for packet in (b"\x72\x44\0\0", b"", b"\x72\x44\x52\x49", b"\x50\x52\x43\x50", b"\x72\x44\x52\x49" + b"\xff" * 20):
            frames = raw.RawAgent.as_frame(packet) * 1000
            for _ in range(60):
                self.agent.send_bytes(frames)
            self.assert_alive(limit=60)

    def test_handshakes(self):
        self.begin()
        for packet in (struct.pack("<HHHHI", 0x4472, 0x496E, 1, 12, 8), struct.pack("<HH", 0x4472, 0x554C),
                       raw.policy_packet(raw.policy())):
            self.agent.send_bytes(raw.RawAgent.as_frame(packet) * 3000)
            self.assert_alive(limit=60)

    def test_policies_of_16_mib(self):
        self.begin()
        for entry in (b"\0" * 8, struct.pack("<B3xI", 5, 5) + b"/none", struct.pack("<B3xI", 1, 4) + b"*all",
                      struct.pack("<B3xI", 5, len(str(self.local))) + str(self.local).encode()):
            entries = entry * ((16 * MIB - 64) // len(entry))
            block = struct.pack("<BBB5xI", 1, 0, 5, len(entries)) + entries + struct.pack("<I", 0)
            self.agent.send(raw.policy_packet(block))
            self.agent.send(struct.pack("<HH", 0x4472, 0x554C))
            self.assert_alive()
            wait_for(self.is_idle, "the end of reading the policy", 10)

    # ---- calls that wait

    def pile_up(self, file, what, count=10000):
        numbers = []
        for _ in range(count // 100):
            numbers += self.post(file, *[what] * 100)
        began = time.monotonic()
        self.assert_alive()
        self.assertLess(time.monotonic() - began, 5, "an honest request waits behind those that wait")
        self.agent.call(self.device, file, request(CLOSE), 30)
        unanswered = self.answers(numbers).count(None)
        self.assertEqual(unanswered, 0, "never answered")
        self.assert_alive()

    def test_notifications(self):
        self.begin()
        self.pile_up(self.open("\\sub"), notify())

    def test_notifications_on_many_handles(self):
        self.begin()
        files = [self.open("\\sub") for _ in range(300)]
        numbers = [number for file in files for number in self.post(file, notify(), notify(tree=0))]
        self.assert_alive()
        for file in files:
            self.agent.call(self.device, file, request(CLOSE))
        self.assertEqual(self.answers(numbers).count(None), 0, "never answered")

    def pile_up_locks(self, payload_size, count):
        waiting = lock(3, (1, 1 << 40), flags=0)
        self.begin()
        held = self.open("\\honest.txt", access=raw.ANY_ACCESS)
        self.agent.call(self.device, held, lock(3, (1, 1 << 40)))
        self.pile_up(self.open("\\honest.txt", access=raw.ANY_ACCESS),
                     waiting._replace(payload=waiting.payload.ljust(payload_size, b"\0")), count)

    def test_locks_that_wait(self):
        self.pile_up_locks(0, 10000)

    def test_locks_that_wait_with_much_behind_them(self):
        self.pile_up_locks(4 * MIB, 200)

    def test_shared_locks_of_one_handle(self):
        self.begin()
        file = self.open("\\honest.txt", access=raw.ANY_ACCESS)
        numbers = []
        for at in range(0, 20000, 100):
            numbers += self.post(file, *[lock(2, (1, at + i)) for i in range(100)])
        self.assertEqual(self.answers(numbers).count(None), 0, "never answered")
        self.assert_alive()
        self.agent.call(self.device, file, request(CLOSE), 30)

    # ---- what is kept open

    def test_more_files_than_there_are_descriptors(self):
        self.begin()
        honest = self.open("\\honest.txt")
        numbers = []
        for _ in range(20):
            numbers += self.post(0, *[create("\\honest.txt")] * 100)
        given = self.answers(numbers)
        self.assertEqual(given.count(None), 0, "never answered")
        self.assert_alive(honest)
        refused = {answer.status for answer in given if answer.status}
        self.assertEqual(refused, {TOO_MANY_FILES})
        for answer in given:
            if answer.status == 0:
                self.agent.call(self.device, raw.file_of(answer), request(CLOSE))
        self.assert_alive()

    def test_listings_that_are_never_ended(self):
        for number in range(3000):
            (self.local / "sub" / f"{'x' * 200}{number}").touch()
        self.begin(capabilities=0)
        for _ in range(400):
            self.agent.call(self.device, self.open("\\sub"), listing("\\*"))
        self.assert_alive()

    def test_no_room_for_another_thread(self):
        self.begin()
        limit = ["prlimit", "--pid", str(self.share.process.pid)]
        facts = pathlib.Path(f"/proc/{self.share.process.pid}/status").read_text()
        size = next(int(line.split()[1]) * 1024 for line in facts.splitlines() if line.startswith("VmSize"))
        subprocess.run([*limit, f"--as={size + MIB}:"], check=True)
        for _ in range(5):
            status = self.fodr("status", "--json", timeout=20)
            self.assertEqual(status.returncode, 0, status.stderr + self.share.log())
        subprocess.run([*limit, f"--as={12 << 30}:"], check=True)
        self.assert_alive()

    # ---- bytes

    def sparse(self, size):
        with open(self.local / "big", "wb") as big:
            big.truncate(size)
        return self.open("\\big", access=raw.ANY_ACCESS)

    def test_reads_of_gigabytes(self):
        self.begin()
        file = self.sparse(9 << 30)
        for lengths in ([17 * MIB], [0xFFFFFFFF], [1 << 30] * 8):
            for answer in self.answers(self.post(file, *[read(length, at << 30) for at, length in enumerate(lengths)]), 20):
                self.assertIsNotNone(answer, "never answered")
                self.assertEqual(answer.status, 0)
                data = raw.data_of(answer)
                self.assertTrue(0 < len(data) <= 16 * MIB and not any(data), "a short count and what was read")
            self.assert_alive()

    def test_room_for_gigabytes(self):
        self.begin()
        file = self.sparse(1 << 30)
        rooms = [control(0x940CF, struct.pack("<QQ", 0, 1 << 30), room) for room in [0xFFFFFFFF] * 4 + [1 << 30] * 8]
        self.assertNotIn(None, self.answers(self.post(file, *rooms)))
        self.assert_alive()

    def test_a_peer_that_takes_no_answers(self):
        self.begin("--io-timeout", "2", ends_with=4)
        file = self.sparse(1 << 30)
        self.agent.reading.clear()
        sender = threading.Thread(target=lambda: [self.post(file, *[read(MIB)] * 20) for _ in range(200)], daemon=True)
        sender.start()
        self.assertEqual(self.share.process.wait(30), 4, self.share.log())
        self.agent.reading.set()

    def test_writes_that_are_queued(self):
        self.begin()
        file = self.sparse(0)
        numbers = [number for _ in range(20) for number in self.post(file, write(b"x" * (15 * MIB)))]
        self.assertNotIn(None, self.answers(numbers))
        self.assert_alive()

    # ---- the end

    def test_a_loss_behind_queued_packets(self):
        for late in (create("\\sub"), notify(), lock(3, (1, 1 << 40), flags=0), read(MIB), listing("\\*")):
            with self.subTest(function=late.major):
                self.begin(ends_with=4)
                file = self.open("\\sub" if late.major == raw.DIRECTORY else "\\honest.txt")
                loggedOn = raw.RawAgent.as_frame(struct.pack("<HH", 0x4472, 0x554C))
                frames = b"".join(raw.RawAgent.as_frame(self.agent.packet(self.device, at, late)) + loggedOn
                                  for at in [file, *range(file, file + 400)])
                self.agent.send_bytes(frames)
                self.agent.close()
                self.assertEqual(self.share.process.wait(15), 4, self.share.log())


class Listening(Case):
    """Strangers at the port of `fodr share --listen`."""

    def test_strangers_come_first(self):
        port = free_port()
        environment = {**self.scratch.environment, "FODR_TOKEN": "agreed"}
        process = subprocess.Popen([*LIMITS, FODR, "share", self.local, "--listen", str(port)], env=environment,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(lambda: (process.kill(), process.communicate()))
        strangers = []

        def come(data=b"", stays=True):
            stranger = socket.create_connection(("127.0.0.1", port), 10)
            stranger.sendall(data)
            strangers.append(stranger) if stays else stranger.close()

        wait_for(lambda: listens(port) or process.poll() is not None, "the port")
        hello = struct.pack("<II4sHHIIH", 23, 1, b"FODR", 1, 2, 0, 0, 5) + b"wrong"
        for data, stays in ((b"", False), (b"GET / HTTP/1.1\r\n\r\n", True), (hello, True), (hello[:9], True),
                            (struct.pack("<II", 0xFFFFFFFF, 1), True), (struct.pack("<II", 16 * MIB, 1) + b"x" * MIB, True),
                            *[(b"", True)] * 40):
            try:
                come(data, stays)
            except OSError:
                self.assertIsNone(process.poll(), "the share ended")
        agent = raw.RawAgent(connect=port, token=b"agreed")
        self.addCleanup(agent.close)
        try:
            agent.wait_devices(1, 20)
        finally:
            for stranger in strangers:
                stranger.close()
        self.assertIsNone(process.poll(), "the share ended")
        status = self.fodr("status", "--json", env=environment)
        self.assertIn('"running"', status.stdout, status.stderr)
        process.send_signal(2)
        self.assertEqual(process.wait(20), 0)
        said = process.stderr.read()
        reasons = said.count("has connected") + said.count("doesn't know the agreed token")
        self.assertEqual((reasons, said.count("isn't told any more")), (10, 1), said)


if __name__ == "__main__":
    unittest.main()
