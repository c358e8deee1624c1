#!/usr/bin/env python3
"""An ssh to a place far away: runs the command here, and hands on what goes in and out of it after half of
FODR_BENCH_DELAY_MS each."""
import os
import queue
import subprocess
import sys
import threading
import time

HALF = float(os.environ["FODR_BENCH_DELAY_MS"]) / 2000
SFTP_SERVER = "/usr/lib/openssh/sftp-server"


def command(words):
    """What follows the options and the host."""
    words = list(words)
    while words[0].startswith("-"):
        taken = words.pop(0)
        if taken in ("-o", "-p", "-l", "-e", "-F", "-i"):
            words.pop(0)
    del words[0]
    words = [word for word in words if word not in ("--", "-s")] if "sftp" in words else words
    if words == ["sftp"]:
        return [SFTP_SERVER]
    return ["sh", "-c", " ".join(words[1:] if words[0] == "--" else words)]


def pump(source, target):
    pieces = queue.Queue()

    def read():
        while True:
            piece = os.read(source, 1 << 20)
            pieces.put((time.monotonic() + HALF, piece))
            if not piece:
                return

    threading.Thread(target=read, daemon=True).start()
    while True:
        due, piece = pieces.get()
        time.sleep(max(0, due - time.monotonic()))
        if not piece:
            os.close(target)
            return
        while piece:
            piece = piece[os.write(target, piece):]


def main():
    child = subprocess.Popen(command(sys.argv[1:]), stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    into, out = os.dup(child.stdin.fileno()), os.dup(child.stdout.fileno())
    child.stdin.close()
    child.stdout.close()
    threading.Thread(target=pump, args=(0, into), daemon=True).start()
    pump(out, 1)
    return child.wait()


sys.exit(main())
