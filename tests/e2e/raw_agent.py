"""An agent that keeps to no rules: it speaks docs/transport.md and docs/wire.md itself, byte by byte."""
import collections
import socket
import struct
import threading

HELLO, OBJECT, STATE, MESSAGE, PING, PONG, NOTICE, GOODBYE = 1, 2, 3, 4, 12, 13, 14, 15
MOUNTED, WARNING, ERROR, UNMOUNTED = 1, 3, 4, 5
CONTROL_OBJECT, DATA_OBJECT = 1, 2
CONNECTED = 2

CREATE, CLOSE, READ, WRITE, QUERY, SET, QUERY_VOLUME, SET_VOLUME, DIRECTORY, CONTROL, LOCK = \
    0, 2, 3, 4, 5, 6, 10, 11, 12, 14, 17
DELETE, SYNCHRONIZE, GENERIC_READ, GENERIC_WRITE = 0x10000, 0x100000, 0x80000000, 0x40000000
READ_ONLY_ACCESS, ANY_ACCESS = 0x120089, 0x1301BF  # all rights but those over owner and rules
SUPERSEDE, OPEN, CREATE_NEW, OPEN_IF, OVERWRITE, OVERWRITE_IF = range(6)
IS_DIRECTORY, IS_FILE, DELETE_ON_CLOSE, BY_ID, LINK_ITSELF = 0x1, 0x40, 0x1000, 0x2000, 0x200000

# What a request is made of; device, file and completion are added when it is sent.
Request = collections.namedtuple("Request", "major minor body payload")
Answer = collections.namedtuple("Answer", "status body")


def units(text):
    """Bytes go as they are; text without an end of its own."""
    return text if isinstance(text, bytes) else text.encode("utf-16-le", "surrogatepass")


def terminated(text):
    return text if isinstance(text, bytes) else units(text) + b"\0\0"


def request(major, minor=0, body=b"", payload=b""):
    return Request(major, minor, body.ljust(32, b"\0"), payload)


def create(path, disposition=OPEN, options=0, access=READ_ONLY_ACCESS, length=None, attributes=0x80, sharing=7, size=0):
    name = terminated(path)
    length = len(name) if length is None else length
    return request(CREATE, 0, struct.pack("<IQIIIII", access, size, attributes, sharing, disposition, options, length), name)


def read(length, offset=0):
    return request(READ, 0, struct.pack("<IQ", length, offset))


def write(data, offset=0, length=None):
    return request(WRITE, 0, struct.pack("<IQ", len(data) if length is None else length, offset), data)


def query(info_class, major=QUERY):
    return request(major, 0, struct.pack("<I", info_class))


def change(info_class, data, length=None, major=SET):
    return request(major, 0, struct.pack("<II", info_class, len(data) if length is None else length), data)


def listing(pattern, info_class=3, initial=1, length=None):
    name = terminated(pattern) if pattern is not None else b""
    return request(DIRECTORY, 1, struct.pack("<IBI", info_class, initial, len(name) if length is None else length), name)


def notify(tree=1, completion_filter=0x17F):
    return request(DIRECTORY, 2, struct.pack("<BI", tree, completion_filter))


def control(code, data=b"", room=4096, length=None):
    return request(CONTROL, 0, struct.pack("<III", room, len(data) if length is None else length, code), data)


def lock(operation, *ranges, flags=1, count=None):
    body = struct.pack("<III", operation, flags, len(ranges) if count is None else count)
    return request(LOCK, 0, body, b"".join(struct.pack("<QQ", size, offset) for size, offset in ranges))


def rename(name, length=None, replace=1):
    """The record of class 10."""
    name = terminated(name)
    return struct.pack("<BBI", replace, 0, len(name) if length is None else length) + name


def rename_at(directory, name, flags=3, length=None):
    """The record of classes 65 and 72; that of class 11 has the same places."""
    name = units(name)
    return struct.pack("<IIQI", flags, 0, directory, len(name) if length is None else length) + name


def link_record(target, tag=0xA000000C):
    """A symbolic link's reparse data."""
    name = units(target)
    flags = 0 if target.startswith("\\??\\") else 1
    return struct.pack("<IHHHHHHI", tag, 12 + 2 * len(name), 0, 0, len(name), len(name), len(name), flags) + name + name


def policy(folders=(), permission=5, enabled=1, forced=0):
    """The block of version 5 and 6; `folders` are pairs of permission and path."""
    entries = b"".join(struct.pack("<B3xI", number, len(path)) + path for number, path in folders)
    return struct.pack("<BBB5xI", enabled, forced, permission, len(entries)) + entries + struct.pack("<I", 0)


def policy_packet(block, length=None):
    return struct.pack("<HHI", 0xFFFE, 2, len(block) if length is None else length) + block


class RawAgent:
    """Waits for one host, does an agent's handshake, and serves nothing: what comes is kept for the test."""

    def __init__(self, block=None, version=6, capabilities=1, mounted=b"/mnt", connect=None, token=b"", announces=True):
        self.block = policy() if block is None else block
        self.version, self.capabilities, self.mounted, self.token = version, capabilities, mounted, token
        self.accepts = announces  # answers that a share was taken
        self.devices = {}         # by name
        self.last_id = 0
        self.reading = threading.Event()
        self.reading.set()
        self.changed = threading.Condition()
        self.answers = {}
        self.seen = bytearray()   # all that completions carried
        self.sending = threading.Lock()
        self.closed = False
        self.stream = None
        self.listener = None if connect else socket.create_server(("127.0.0.1", 0))
        self.port = connect or self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.serve, args=(connect,), daemon=True)
        self.thread.start()

    # ---- frames

    def frame(self, kind, body=b""):
        self.send_bytes(struct.pack("<II", len(body), kind) + body)

    def send_bytes(self, data):
        try:
            with self.sending:
                self.stream.sendall(data)
        except OSError:
            self.end()

    @staticmethod
    def as_frame(packet, object_number=DATA_OBJECT):
        body = struct.pack("<IIIHHHHI", object_number, 1, 0, 1, 1, 0x41, 0, len(packet)) + packet
        return struct.pack("<II", len(body), MESSAGE) + body

    def notice(self, kind, text):
        self.frame(NOTICE, struct.pack("<IH", kind, len(text)) + text)

    def send(self, packet):
        self.send_bytes(self.as_frame(packet))

    def serve(self, connect):
        try:
            if connect:
                self.stream = socket.create_connection(("127.0.0.1", connect))
            else:
                self.stream, _ = self.listener.accept()
            self.stream.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.frame(HELLO, struct.pack("<4sHHIIH", b"FODR", 1, 2, 0, 0, len(self.token)) + self.token)
            connected = set()
            while True:
                self.reading.wait()
                size, kind = struct.unpack("<II", self.take(8))
                body = self.take(size)
                if kind == HELLO:
                    for number, name in ((CONTROL_OBJECT, b"fodrControlObj"), (DATA_OBJECT, b"fodrDataObj")):
                        self.frame(OBJECT, struct.pack("<IIIH", number, 0x0D, 0x30, len(name)) + name)
                elif kind == STATE:
                    number, state = struct.unpack("<Ii", body)
                    if state == CONNECTED:
                        connected.add(number)
                        if len(connected) == 2:
                            self.introduce()
                elif kind == MESSAGE:
                    self.take_packet(body[24:])
                elif kind == PING:
                    self.frame(PONG)
                elif kind == GOODBYE:
                    self.notice(UNMOUNTED, b"")
                    break
        except OSError:
            pass
        self.end()

    def take(self, count):
        data = bytearray()
        while len(data) < count:
            piece = self.stream.recv(min(count - len(data), 1 << 20))
            if not piece:
                raise OSError("the host closed")
            data += piece
        return bytes(data)

    def end(self):
        with self.changed:
            self.closed = True
            self.changed.notify_all()
        for end in (self.stream, self.listener):
            if end:
                end.close()

    # ---- packets

    def introduce(self):
        self.send(struct.pack("<HHHHI", 0x4472, 0x496E, 1, 12, 7))
        self.send(struct.pack("<HHHH", 0x4472, 0x5350, 0, 0))
        self.send(struct.pack("<HHHH", 0xFFFE, 1, self.version, self.capabilities))
        if self.block:
            self.send(policy_packet(self.block))
        self.send(struct.pack("<HH", 0x4472, 0x554C))
        if self.mounted is not None:
            self.notice(MOUNTED, self.mounted)

    def take_packet(self, packet):
        kind = struct.unpack_from("<H", packet, 2)[0]
        if kind == 0x4943:
            _, number, status = struct.unpack_from("<III", packet, 4)
            with self.changed:
                self.answers[number] = Answer(status, packet[16:])
                self.seen += packet[16:]
                self.changed.notify_all()
        elif kind == 0x4441:
            device = struct.unpack_from("<I", packet, 12)[0] & 0xFFFFFF
            name = packet[28:].split(b"\0")[0].decode().removeprefix("(OVFCP)")  # of named files
            with self.changed:
                self.devices[name] = device
                self.changed.notify_all()
            if self.accepts:
                self.send(struct.pack("<HHII", 0x4472, 0x6472, device, 0))

    def packet(self, device, file, what):
        self.last_id += 1
        head = struct.pack("<HHIIIII", 0x4472, 0x4952, device, file, self.last_id, what.major, what.minor)
        return head + what.body + what.payload

    def post(self, device, file, what):
        """Sends a request; the number of its answer."""
        self.send(self.packet(device, file, what))
        return self.last_id

    def answer(self, number, limit=10):
        """What came, or None when nothing did."""
        with self.changed:
            self.changed.wait_for(lambda: number in self.answers or self.closed, limit)
            return self.answers.pop(number, None)

    def call(self, device, file, what, limit=10):
        return self.answer(self.post(device, file, what), limit)

    def wait_devices(self, count, limit=60):
        with self.changed:
            self.changed.wait_for(lambda: len(self.devices) >= count or self.closed, limit)
            if len(self.devices) < count:
                raise AssertionError(f"only these shares came: {self.devices}")

    def close(self):
        """Without a word."""
        try:
            self.stream.shutdown(socket.SHUT_RDWR)
        except (AttributeError, OSError):  # nobody came, or is gone
            pass
        self.thread.join(10)


def file_of(answer):
    """The file's number in a create's answer; 0 when it was refused."""
    return struct.unpack_from("<I", answer.body)[0] if answer and answer.status < 0x80000000 else 0


def data_of(answer):
    size = struct.unpack_from("<I", answer.body)[0]
    return answer.body[4:4 + size]
