"""The rows of attack_job.py: what a hostile agent asks for, and what may be answered."""
import collections
import struct

import raw_agent as raw
from raw_agent import (ANY_ACCESS, CLOSE, CREATE_NEW, DELETE, DELETE_ON_CLOSE, IS_DIRECTORY, LINK_ITSELF, OPEN, OPEN_IF,
                       OVERWRITE, OVERWRITE_IF, QUERY_VOLUME, READ_ONLY_ACCESS, SET_VOLUME, SUPERSEDE, change, control,
                       create, link_record, listing, lock, notify, query, read, rename, rename_at, request, write)

# ---- What may be answered. A row expects one status or a set of them.

OK = 0
INVALID_CLASS, BAD_HANDLE, BAD_PARAMETER = 0xC0000003, 0xC0000008, 0xC000000D
BAD_REQUEST, DENIED, BAD_NAME = 0xC0000010, 0xC0000022, 0xC0000033
EXISTS, DEVICE_GONE, WRITE_PROTECTED = 0xC0000035, 0xC00002B6, 0xC00000A2
SILENCE = None
ABSENT = {0xC000000F, 0xC0000034, 0xC000003A}  # no such file, name or path
NO_NAME = ABSENT | {BAD_NAME, 0xC000003B, 0xC0000106}
OUT = NO_NAME | {DENIED, 0x8000002D, 0xC0000280, 0xC0000103}  # also links that lead elsewhere, a file as a folder
NO = "refused"    # any status that is an error
ANSWERED = "any status"
ANY = "anything"  # or none: only what is left behind counts

# ---- The tree. Every kind of share has one of its own; `docs`, `second` and `empty` are offered.

OUTSIDE, HIDDEN = b"told of outside", b"told of hidden"
FILES = {
    "docs/inside.txt": b"inside", "docs/honest.txt": b"honest", "docs/sub/deep.txt": b"deep", "docs/sub/deeper/x": b"x",
    "docs/hidden.txt": HIDDEN, "docs/inside.txt.bak": HIDDEN, "docs/subway/x": HIDDEN, "docs/hiddendir/x": HIDDEN,
    "second/inside.txt": b"second", "second/sub/deep.txt": b"other", "second/hidden.txt": HIDDEN,
    "outside/secret.txt": OUTSIDE, "outside/linked.txt": OUTSIDE, "outside/dir/x": OUTSIDE,
    "docs-next/secret.txt": OUTSIDE, "secret.txt": OUTSIDE,
}
LINKS = {
    "out": "../../outside", "file": "../../outside/linked.txt", "dangling": "../../outside/made.txt", "up": "../..",
    "chain": "out", "loop": "loop", "next": "../../docs-next", "second": "../../second", "dev": "/dev/zero", "proc": "/proc",
}
ODD = ("absolute", "fifo", "socket")  # made by hand
LISTED = ("inside.txt", "honest.txt", "sub")

# ---- The rows: kinds of shares, what is tried, what is expected, on what it is opened, requests. The last answer counts,
# or that of the first open that is refused. A request may be made of the session, for numbers that only it knows.

Row = collections.namedtuple("Row", "kinds title expected opened requests")
ROWS = []


def row(kinds, title, expected, opened, *requests):
    ROWS.append(Row(kinds, title, expected, opened, requests))


def rows(kinds, title, expected, opened, *requests):
    """One row for each request."""
    for number, what in enumerate(requests):
        row(kinds, f"{title}, {number}", expected, opened, what)


FILE, FOLDER, DEEP, ROOT = create("\\inside.txt", access=ANY_ACCESS), create("\\sub", access=ANY_ACCESS), \
    create("\\sub\\deep.txt", access=ANY_ACCESS), create("\\", access=ANY_ACCESS)
READABLE, READABLE_FOLDER = create("\\inside.txt"), create("\\sub")
MOST, MOST_ROOT = create("\\inside.txt", access=0x2000000), create("\\", access=0x2000000)  # all that may be had

NAMES_OUT = [
    "\\..\\outside\\secret.txt", "..\\outside\\secret.txt", "\\sub\\..\\..\\outside\\secret.txt",
    "/../outside/secret.txt", "\\sub/../../outside/secret.txt", "\\.\\..\\secret.txt",
    "\\sub\\deeper\\..\\..\\..\\secret.txt", "\\..", "\\sub\\..\\..", "\\...\\secret.txt",
    "\\..\\docs-next\\secret.txt", "-next\\secret.txt", "-next/secret.txt", "\\\\..\\secret.txt", "\\/..\\secret.txt",
    "\\.. \\secret.txt", "\\..\\second\\inside.txt", "\\sub\\..\\..\\second\\inside.txt", "\\..:x",
    "\\..\\secret.txt:x", "\\..::$INDEX_ALLOCATION\\secret.txt", "/etc/passwd", "\\etc\\passwd", "\\??\\/etc/passwd",
    "\\??\\C:\\Windows", "C:\\Windows", "\\C:\\Windows", "C:", "\\C:", "\\\\?\\C:\\x", "\\\\.\\C:", "\\Device\\Null",
    "\\GLOBAL??\\C:", "\\??\\UNC\\host\\share\\x", "\\\\host\\share\\x", "\\dev\\null", "NUL", "\\NUL", "\\CON",
    "\\COM1", "\\AUX.txt", "\\proc\\self\\environ", "\\sub\\NUL\\x", "\\inside.txt\\..\\..\\secret.txt",
    "\\inside.txt\\", "\\inside.txt\\x", "\\inside.txt:..\\secret", "\\inside.txt:a/../../b", "\\:x", ":x",
    "\\sub\\\0\\..", "\\\ud800", "\\sub\\\udc00x", "\\" + "x" * 256, "\\" + "x\\" * 12000, "\\" + "y" * 32760,
]
for name in NAMES_OUT:
    row("plrq", f"opens {name[:40]!r}", ANY if "\0" in name else OUT, None, create(name))
    row("pl", f"makes {name[:40]!r}", ANY, None, create(name, OPEN_IF, access=ANY_ACCESS))
for link in (*LINKS, "absolute"):
    for tail in ("", "\\secret.txt", "\\made.txt", "\\x\\..\\secret.txt", ":mark"):
        row("plrq", f"opens sub\\{link}{tail}", OUT, None, create(f"\\sub\\{link}{tail}"))
for disposition in range(8):
    for name in ("\\sub\\dangling", "\\sub\\out\\made.txt", "\\sub\\file", "\\..\\outside\\linked.txt",
                 "\\sub\\chain\\secret.txt", "\\sub\\file:mark"):
        row("plrq", f"creates {name} with disposition {disposition}", NO, None, create(name, disposition, access=ANY_ACCESS))
for option in (raw.BY_ID, DELETE_ON_CLOSE, IS_DIRECTORY, IS_DIRECTORY | DELETE_ON_CLOSE, raw.IS_FILE):
    row("plrq", f"opens out of the share with options {option:#x}", NO, None,
        create("\\sub\\out\\secret.txt", options=option, access=ANY_ACCESS))
row("plrq", "opens by id", NO, None, create(b"\2\0\0\0\0\0\0\0", options=raw.BY_ID))
# The link itself may be opened; what is done to it may not be done to what it names.
for link in ("out", "file", "absolute", "dangling"):
    opened = create(f"\\sub\\{link}", options=LINK_ITSELF, access=ANY_ACCESS)
    for what in (read(100), write(b"hole"), change(20, struct.pack("<Q", 0)), change(19, struct.pack("<Q", 0)),
                 change(4, struct.pack("<QQQQI", *[1 << 56] * 4, 1)), change(15, b"\0" * 16), listing("\\*"), notify(),
                 control(0x980C8, struct.pack("<QQ", 0, 99)), query(22), lock(3, (1, 1))):
        row("pl", f"class {what.major} on the link {link}", ANY, opened, what)

# An open that waits for another program would hold its thread for ever.
for name in ("fifo", "socket"):
    for access in (0x80, READ_ONLY_ACCESS, 0x120116, ANY_ACCESS):
        for disposition in range(6):
            row("plrq", f"the {name} with disposition {disposition} and access {access:#x}", ANSWERED, None,
                create(f"\\sub\\{name}", disposition, access=access))

ROOT_NAMES = ("\\", b"", "/", "\\\\", "\\.", "\\sub\\..", "\\sub\\up\\docs", "\\sub\\")
for name in ROOT_NAMES:
    row("plrq", f"removes the root {name!r} on close", ANY, None,
        create(name, options=DELETE_ON_CLOSE | IS_DIRECTORY, access=ANY_ACCESS))
for info_class, data in ((13, b"\1"), (13, b""), (64, b"\1\0\0\0"), (64, b"\x1b\0\0\0"), (64, b"\3\0\0\0")):
    for kinds, expected in (("pl", NO), ("rq", {WRITE_PROTECTED, DENIED})):
        row(kinds, f"removes the root by class {info_class} {data.hex()}", expected, ROOT, change(info_class, data))
row("pl", "renames the root", NO, ROOT, change(10, rename("\\stolen")))
row("pl", "renames the root by its handle", NO, ROOT, lambda c: change(65, rename_at(c.handle, "stolen")))
row("pl", "renames a file over the root", NO, FILE, change(10, rename("\\")))
row("pl", "renames a folder over the root", NO, FOLDER, change(10, rename(b"")))

BAD_TARGETS = [
    rename(b""), rename("\\x", 0), rename("\\x", 1), rename("", 1), rename(b"\\"), rename(b"x", 1), rename("\\x", 3),
    rename("\\x", 0xFFFFFFFF), rename("\\x", 0xFFFFFFFE), rename("\\x", 0x7FFFFFFF), rename("\\x", 1000),
    rename("\\..\\stolen"), rename("..\\stolen"), rename("/../stolen"), rename("\\sub\\..\\..\\stolen"),
    rename("-next\\stolen"), rename("stolen"), rename("-stolen"), rename("\\sub\\out\\stolen"),
    rename("\\sub\\out\\secret.txt"), rename("\\sub\\chain\\x"), rename("\\sub\\absolute\\secret.txt"),
    rename("\\sub\\second\\inside.txt"), rename("\\sub\\up\\stolen"), rename("\\sub\\next\\x"), rename("\\??\\C:\\x"),
    rename("/tmp/fodr-stolen/x"), rename("\\??\\/tmp"), rename("C:\\x"), rename("\\\\host\\share\\x"),
    rename("\\..\\docs-next\\secret.txt"), rename("\\..\\second\\inside.txt"), rename("\\sub\\..\\..\\secret.txt"),
]
for number, record in enumerate(BAD_TARGETS):
    row("plrq", f"renames to bad target {number} {record[6:26]!r}", NO, FILE, change(10, record))
# The terminator isn't counted: what a wire length of 2 leaves is the root itself.
rows("pl", "renames with a cut record", NO, FILE, *[change(10, rename("\\stolen")[:cut]) for cut in range(7)])
rows("pl", "renames with a wrong set length", NO, FILE, *[
    change(10, rename("\\stolen"), length) for length in (0, 1, 5, 6, 7, 23, 0x7FFFFFFF, 0xFFFFFFFF)])
for info_class in (11, 65, 72, 31, 40, 56, 57, 66, 73):
    names = ["stolen", "", "..", ".", "a\\b", "a/b", "\\x", "..\\stolen", "x:y", "x\0y", "/tmp/stolen", "\\??\\C:\\stolen",
             b"x", b"xyz", "sub\\out\\stolen"]
    for name in names:
        if (info_class, name) != (65, "stolen"):  # class 11 with the flags of 65 would replace
            row("plrq", f"class {info_class} {name!r} below its own folder", NO, FILE,
                lambda c, i=info_class, n=name: change(i, rename_at(c.folder, n)))
        if info_class == 11 and name != "stolen":
            row("plrq", f"links {name!r} below its own folder", NO, FILE, lambda c, n=name: change(11, rename_at(c.folder, n, 0)))
    if info_class in (11, 65, 72):
        for title, directory in (("another share's folder", lambda c: c.other_folder),
                                 ("the other root", lambda c: c.other_root), ("no folder", lambda c: 0),
                                 ("a file", lambda c: c.handle), ("an unknown one", lambda c: 99999999),
                                 ("a number of 64 bits", lambda c: c.folder | 1 << 32),
                                 ("all ones", lambda c: (1 << 64) - 1)):
            for name in ("stolen", "/tmp/stolen", "\\??\\C:\\stolen"):
                row("plrq", f"class {info_class} {name!r} below {title}", NO, FILE,
                    lambda c, i=info_class, d=directory, n=name: change(i, rename_at(d(c), n, 0 if i == 11 else 3)))
        for length in (0, 1, 3, 1000, 0x7FFFFFFF, 0xFFFFFFFF):
            row("plrq", f"class {info_class} with a name of {length:#x} bytes", NO, FILE,
                lambda c, i=info_class, n=length: change(i, rename_at(c.folder, "stolen", length=n)))
        for cut in (0, 1, 8, 16, 19, 20):
            row("plrq", f"class {info_class} cut to {cut}", NO, FILE,
                lambda c, i=info_class, n=cut: change(i, rename_at(c.folder, "stolen")[:n]))

row("lrq", "makes a link of a shared file", NO, FILE, lambda c: change(11, rename_at(c.folder, "linked", 0)))
row("pl", "makes a link of the root", NO, ROOT, lambda c: change(11, rename_at(c.handle, "stolen", 0)))
for title, source in (("another share's file", lambda c: c.other_file), ("no file", lambda c: 0), ("an unknown one", lambda c: 99999999),
                      ("a number of 64 bits", lambda c: c.handle | 1 << 32), ("all ones", lambda c: (1 << 64) - 1)):
    for code in (0x9A3E4, 0x98344):
        row("plrq", f"copies by {code:#x} out of {title}", NO, FILE,
            lambda c, k=code, s=source: control(k, struct.pack("<QQQQ", s(c), 0, 0, 9), 8))
for code in (0x90074, 0x900FC, 0x983E8):
    row("plrq", f"control {code:#x} with a handle", NO, FILE, lambda c, k=code: control(k, struct.pack("<QQQQ", c.handle, 0, 0, 9)))

# ---- Files of a folder that aren't offered.
for name in ("\\hidden.txt", "\\HIDDEN.TXT", "\\sub\\..\\hidden.txt", "\\inside.txt\\..\\hidden.txt",
             "\\.\\hidden.txt", "/hidden.txt", "\\\\hidden.txt", "\\inside.txt.bak", "\\subway\\x", "\\subway",
             "\\hiddendir", "\\hiddendir\\x", "\\hidden.txt:x", "\\hidden.txt::$DATA", "\\hidden.txt\\", "\\new.txt",
             "\\new.txt:x", "\\subtle", "\\inside.txt2", "\\sub.txt", "\\sub\\up\\docs\\hidden.txt",
             "\\sub\\deeper\\..\\..\\hidden.txt", "\\INSIDE.TXT.bak"):
    for disposition in (OPEN, OPEN_IF, SUPERSEDE):
        row("lq", f"an unlisted file {name} with disposition {disposition}", NO, None,
            create(name, disposition, access=READ_ONLY_ACCESS if disposition == OPEN else ANY_ACCESS))
for name in ("\\hidden.txt:Zone.Identifier", "\\hidden.txt:zone.identifier", "\\hidden.txt:Zone.Identifier:$DATA",
             "\\absent.txt:Zone.Identifier", "\\hiddendir:Zone.Identifier", "\\hiddendir\\x:Zone.Identifier",
             "\\sub\\..\\hidden.txt:Zone.Identifier", "\\subway\\x:Zone.Identifier", "\\inside.txt.bak:Zone.Identifier",
             "\\:Zone.Identifier", ":Zone.Identifier", "\\..:Zone.Identifier", "\\..\\secret.txt:Zone.Identifier"):
    for disposition in range(6):
        row("lq", f"the mark {name} with disposition {disposition}", NO, None, create(name, disposition, access=ANY_ACCESS))
    row("lq", f"the mark {name}, seen", NO, create(name, access=0x80), query(4))
    row("lq", f"the mark {name}, removed", NO, None, create(name, options=DELETE_ON_CLOSE, access=DELETE))
for target in ("\\hidden.txt", "\\new.txt", "\\hiddendir\\new", "\\subway\\new", "\\inside.txt.bak",
               "\\hidden.txt:Zone.Identifier", "\\inside.txt.new", "\\sub\\..\\hidden.txt", "\\HIDDEN.txt",
               "\\subtle\\x", "\\absent:Zone.Identifier"):
    row("l", f"renames a listed file to {target}", NO, FILE, change(10, rename(target)))
    row("l", f"renames a deep file to {target}", NO, DEEP, change(10, rename(target)))
row("l", "renames into the root by its handle", NO, DEEP, lambda c: change(65, rename_at(c.root, "hidden.txt")))
for pattern in ("\\*", "\\hid*", "\\hidden.txt", "\\hiddendir\\*", "*", "\\?idden.txt", "\\inside.txt.bak",
                "\\subway\\*", "\\..\\*", "\\<.txt", "\\hidden\0x"):
    for info_class in (1, 2, 3, 12, 37, 38, 59, 60, 63):
        row("lq", f"lists {pattern!r} by class {info_class}", ANY, create("\\"), listing(pattern, info_class),
            listing(None, info_class, 0), listing(None, info_class, 0), listing(pattern, info_class, 0))
row("lq", "lists on from nowhere", NO, create("\\"), listing(None, 3, 0))
row("lq", "an unlisted name of a listed folder's parent", ANY, READABLE_FOLDER, listing("\\..\\hidden.txt"))
for code in (0x900A8, 0x900A4, 0x900AC, 0x900C4, 0x980C8, 0x940CF, 0x9003C, 0x9C040, 0x900EB, 0x9008F, 0x90073,
             0x90074, 0x98344):
    row("lq", f"control {code:#x} on the root", BAD_REQUEST, create("\\"), control(code, b"\0" * 64))

# ---- What is read-only stays as it is, whatever the agent says of itself.
for disposition in (SUPERSEDE, CREATE_NEW, OPEN_IF, OVERWRITE, OVERWRITE_IF):
    for name in ("\\inside.txt", "\\sub\\new.txt", "\\inside.txt:mark", "\\inside.txt:Zone.Identifier", "\\sub\\deeper"):
        makes = disposition not in (OPEN_IF, OVERWRITE, CREATE_NEW) or ":" in name or name.endswith("new.txt")
        for access in (READ_ONLY_ACCESS, ANY_ACCESS):
            expected = WRITE_PROTECTED if makes and disposition != OVERWRITE else ANY
            if name == "\\sub\\deeper" and makes:
                expected = {WRITE_PROTECTED, EXISTS}
            title = f"{name} with disposition {disposition} and access {access:#x}"
            row("r", title, expected, None, create(name, disposition, access=access))
            # No stream but the mark is offered of a named file.
            row("q", title, expected if expected == ANY or "mark" not in name else DENIED, None,
                create(name, disposition, access=access))
row("rq", "sets the position, which changes no file", OK, READABLE, change(14, struct.pack("<Q", 3)))
row("rq", "makes a folder", WRITE_PROTECTED, None, create("\\sub\\made", CREATE_NEW, IS_DIRECTORY))
row("rq", "overwrites", WRITE_PROTECTED, None, create("\\inside.txt", OVERWRITE, access=ANY_ACCESS))
for name in ("\\inside.txt", "\\sub\\deep.txt", "\\sub\\deeper", "\\sub", "\\sub\\out"):
    for option in (DELETE_ON_CLOSE, DELETE_ON_CLOSE | LINK_ITSELF):
        expected = OUT | {WRITE_PROTECTED} if name.endswith("out") else WRITE_PROTECTED
        row("rq", f"removes {name} on close, {option:#x}", expected, None,
            create(name, options=option, access=DELETE | 0x80))
CHANGES = [
    ("writes", write(b"hole", 0)), ("appends", write(b"more", 0xFFFFFFFFFFFFFFFF)),
    ("writes at the position", write(b"x", (1 << 64) - 2)), ("writes behind the end", write(b"x", 5000)),
    ("truncates", change(20, struct.pack("<Q", 0))), ("lengthens", change(20, struct.pack("<Q", 9999))),
    ("allocates", change(19, struct.pack("<Q", 9999))), ("frees", change(19, struct.pack("<Q", 0))),
    ("sets times", change(4, struct.pack("<QQQQI", *[1 << 56] * 4, 0))),
    ("sets attributes", change(4, struct.pack("<QQQQI", 0, 0, 0, 0, 1))), ("renames", change(10, rename("\\stolen"))),
    ("renames over another", change(10, rename("\\honest.txt"))),
    ("renames the case", change(10, rename("\\INSIDE.TXT"))), ("renames to a stream", change(10, rename(":stream"))),
    ("removes", change(13, b"\1")), ("removes with no record", change(13, b"")),
    ("removes at once", change(64, b"\x13\0\0\0")), ("sets a valid length", change(39, struct.pack("<Q", 0))),
    ("sets attributes of its own", change(15, struct.pack("<IBBH", 0, 0, 1, 1) + b"a\0x")),
    ("zeroes", control(0x980C8, struct.pack("<QQ", 0, 9))),
    ("renames by a folder", lambda c: change(65, rename_at(c.folder, "stolen"))),
]
for title, what in CHANGES:
    expected = {WRITE_PROTECTED}
    if title in ("sets a valid length", "sets attributes of its own", "renames by a folder"):
        expected |= {INVALID_CLASS}  # of named files, or of all
    if title.startswith("renames"):
        expected |= {DENIED, BAD_NAME}
    for name, options in (("\\inside.txt", 0), ("\\sub\\deep.txt", 0x40), ("\\sub\\deeper", 1)):
        opened = create(name, options=options, access=ANY_ACCESS)
        row("rq", f"{title} {name}", NO if options == 1 and what.__class__ is raw.Request else expected, opened, what)
    row("rq", f"{title} what is open for reading", NO, READABLE, what)
    row("rq", f"{title} what is open for all that may be had", expected, MOST, what)
for code in (0x900C4, 0x980C8, 0x9C040, 0x900A4, 0x900AC, 0x90098, 0x980A0, 0x98344, 0x980D0, 0x98208, 0x940B3):
    for opened in (FILE, MOST):
        row("rq", f"control {code:#x}", {WRITE_PROTECTED, BAD_REQUEST, DENIED}, opened,
            control(code, link_record("..\\..\\outside")))
for info_class in (2, 6, 8, 9):
    for opened in (ROOT, MOST_ROOT):
        row("plrq", f"sets facts of the volume, class {info_class}", NO, opened,
            change(info_class, b"\2\0\0\0x\0", major=SET_VOLUME))

# ---- Wrong numbers at every field.
for name in ("\\inside.txt", "\\sub\\out\\secret.txt", "\\..\\secret.txt"):
    for length in (0, 1, 2, 3, len(name), 2 * len(name) - 1, 2 * len(name) + 1, 2 * len(name) + 2, 0x10000, 0x7FFFFFFF,
                   0xFFFFFFFE, 0xFFFFFFFF):
        row("plrq", f"{name} with a length of {length:#x}", ANY, None, create(name, length=length))
for field, values in (("access", (0, 0x2000000, 0x1000000, 0xFFFFFFFF)), ("attributes", (0, 0x10, 0x400, 0xFFFFFFFF)),
                      ("sharing", (0, 8, 0xFFFFFFFF)), ("options", (0x3, 0x41, 0x30, 0x80000000, 0xFFFFFFFF)),
                      ("disposition", (6, 7, 0xFF, 0xFFFFFFFF)), ("size", (1 << 63, (1 << 64) - 1))):
    for value in values:
        row("plrq", f"{field} {value:#x}", ANY, None, create("\\inside.txt", **{field: value}))
ENDS = (1 << 63, (1 << 64) - 1, (1 << 64) - 2, (1 << 63) - 1, 1 << 40)
for offset in ENDS:
    row("plrq", f"reads at {offset:#x}", ANY, READABLE, read(100, offset))
    row("plrq", f"writes nothing at {offset:#x}", ANY, FILE, write(b"", offset))
    for size in (0, 1, 1 << 63, (1 << 64) - 1):
        row("plrq", f"locks {size:#x} at {offset:#x}", ANY, READABLE, lock(3, (size, offset)), lock(4, (size, offset)))
for length in (5, 100, 0x10000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF):
    row("pl", f"states {length:#x} bytes to write", BAD_PARAMETER, FILE, write(b"hole", 0, length))
    row("rq", f"states {length:#x} bytes to write", {BAD_PARAMETER, WRITE_PROTECTED}, FILE, write(b"hole", 0, length))
    for title, opened, what in (("a record", FILE, change(4, b"", length)),
                                ("a label", ROOT, change(2, b"x", length, SET_VOLUME)),
                                ("input", READABLE, control(0x980C8, b"xxxx", length=length))):
        row("plrq", f"states {length:#x} bytes of {title}", {BAD_PARAMETER, WRITE_PROTECTED}, opened, what)
    row("plrq", f"states {length:#x} ranges", BAD_PARAMETER, READABLE, lock(5, (1, 1), count=length))
    row("plrq", f"states {length:#x} bytes of a pattern", ANY, create("\\sub"), listing("\\*", length=length))
for room in (0, 1, 3, 7, 0x10000, 0x7FFFFFFF, 0xFFFFFFFF):
    row("plrq", f"wants {room:#x} bytes out of a control", ANY, READABLE, control(0x940CF, struct.pack("<QQ", 0, 99), room))
rows("plrq", "locks by an unknown operation", BAD_PARAMETER, READABLE, *[lock(n, (1, 1)) for n in (0, 1, 6, 0xFFFFFFFF)])
row("plrq", "locks two ranges at once", BAD_PARAMETER, READABLE, lock(3, (1, 1), (1, 2)))
for info_class in (0, 11, 30, 36, 61, 100, 0x7FFFFFFF, 0xFFFFFFFF):
    row("plrq", f"sets class {info_class:#x}", NO, FILE, change(info_class, b"\1" * 64))
    row("plrq", f"lists class {info_class:#x}", NO, create("\\"), listing("\\*", info_class))
for info_class in (*range(82), 0xFFFFFFFF):
    row("plrq", f"queries class {info_class:#x}", ANY, create("\\"), query(info_class), query(info_class, QUERY_VOLUME))
for info_class in (4, 13, 19, 20, 64):
    rows("pl", f"a short record of class {info_class}", ANY, DEEP, *[change(info_class, b"\1" * n) for n in (0, 1, 3, 7)])
rows("plrq", "an unknown function", SILENCE, READABLE, *[request(n) for n in (1, 7, 9, 13, 15, 18, 0xFFFFFFFF)])
rows("plrq", "an unknown minor function", 0xC0000002, create("\\"), *[request(raw.DIRECTORY, n) for n in (0, 3, 0xFFFFFFFF)])
ALL = [read(10), write(b"hole"), query(4), query(5, QUERY_VOLUME), change(13, b"\1"), change(10, rename("\\stolen")),
       change(64, b"\3\0\0\0"), change(2, b"x", major=SET_VOLUME), listing("\\*"), notify(), control(0x900A8),
       lock(3, (1, 1)), request(CLOSE), request(99)]
for title, expected, device, file in (
        ("another share's file", BAD_HANDLE, None, lambda c: c.other_file),
        ("another share's root", BAD_HANDLE, None, lambda c: c.other_root),
        ("file 0", BAD_HANDLE, None, lambda c: 0), ("an unknown file", BAD_HANDLE, None, lambda c: 99999999),
        ("file -1", BAD_HANDLE, None, lambda c: 0xFFFFFFFF), ("file -2", BAD_HANDLE, None, lambda c: 0xFFFFFFFE),
        ("an unknown device", DEVICE_GONE, 1, lambda c: c.handle), ("device 0", DEVICE_GONE, 0, lambda c: c.handle),
        ("a device with its permission", DEVICE_GONE, 0x0500FFFF, lambda c: c.handle)):
    for what in ALL:
        row("plrq", f"function {what.major} of {title}", expected, READABLE, (device, file, what))
for length in (0, 1, 3, 4, 8, 16, 20, 24, 40, 55):
    row("plrq", f"requests cut to {length}", ANY, READABLE, length)
