#!/usr/bin/env python3
"""check_follow.py PROGRAM FOLDER: follows a file on a terminal of its own while records come in, are moved away and
come in again; follows a link, and standard input. Exits with 1 and says what differs."""
import fcntl
import os
import pty
import re
import select
import shutil
import signal
import struct
import subprocess
import termios

from check_summary import FOLDER, PROGRAM, report

LIMIT_SECONDS = 30
LINES = [report("h b", number, number, (1, 0, 0, 0, 0)) for number in range(1, 41)]


class Terminal:
    """The program on a terminal of 80 columns."""

    def __init__(self, *names, rows=60):
        self.side, other = pty.openpty()
        fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", rows, 80, 0, 0))
        self.process = subprocess.Popen([PROGRAM, "--follow", *names], stdin=subprocess.PIPE, stdout=other,
                                        start_new_session=True)
        os.close(other)
        self.text = ""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()

    def wait_for(self, pattern):
        """Returns what was written until then."""
        while not re.search(pattern, self.text):
            if not select.select([self.side], [], [], LIMIT_SECONDS)[0]:
                raise SystemExit(f"no {pattern!r} within {LIMIT_SECONDS} s, but {self.text[-2000:]!r}")
            self.text += os.read(self.side, 65536).decode()
        text, self.text = self.text, ""
        return text

    def wait_for_count(self, count):
        return self.wait_for(rf"\s{count} read, 0 doubled, 0 missing, 0 not understood")

    def end(self, number):
        self.process.send_signal(number)
        expect("exit code", self.process.wait(LIMIT_SECONDS), 0)


def expect(what, got, expected):
    if got != expected:
        raise SystemExit(f"{what}: expected {expected!r}, got {got!r}")


def follow_files():
    """Begun late, in pieces, replaced with its last line unfinished, cut, and moved away."""
    path = FOLDER / "followed.jsonl"
    following = FOLDER / "aside" / "file"  # its folder is not watched: the move alone tells
    with Terminal(path) as terminal:
        expect("the first frame's begin", terminal.wait_for("no records")[:7], "\x1b[2J\x1b[H")
        path.write_bytes(b"".join(LINES[:10]) + LINES[10][:50])
        frame = terminal.wait_for_count(10)
        expect("a frame's begin", frame[frame.index("\x1b[H"):][:10], "\x1b[H\x1b[1mSto")
        expect("the screen is cleared again", "\x1b[2J" in frame, False)
        expect("lines that are not cleared", re.findall(r"[^K]\r\n", frame), [])
        for count, data in (11, LINES[10][50:]), (12, LINES[11] + LINES[12].rstrip(b"\n")):
            with path.open("ab") as file:
                file.write(data)
            terminal.wait_for_count(count)
        following.write_bytes(b"".join(LINES[13:30]))  # more than is there: it does not look as if it was cut
        following.rename(path)
        terminal.wait_for_count(30)
        path.write_bytes(b"".join(LINES[30:33]))
        terminal.wait_for_count(33)
        path.rename(path.with_suffix(".old"))
        path.write_bytes(b"".join(LINES[33:]))
        terminal.wait_for_count(len(LINES))
        terminal.end(signal.SIGTERM)


def follow_a_link():
    """To a file of another folder, on a small terminal, of which the last line stays free."""
    target = FOLDER / "aside" / "target"
    target.write_bytes(b"")
    (FOLDER / "link").symlink_to(target)
    with Terminal(FOLDER / "link", rows=4) as terminal:
        terminal.wait_for("no records")
        target.write_bytes(LINES[0])
        frame = terminal.wait_for(r"1 report\x1b\[K\r\n\x1b\[J")
        expect("lines of a small terminal", frame.split("\x1b[H")[-1].count("\n"), 3)
        terminal.end(signal.SIGINT)


def follow_streams():
    """Standard input shown on no terminal, its last line without a line feed; alone, twice, and beside a file."""
    given = b"".join(LINES[:3]).rstrip(b"\n")
    for names in ["-"], [], ["-", "-"]:
        done = subprocess.run([PROGRAM, "--follow", *names], input=given, capture_output=True, timeout=LIMIT_SECONDS)
        last = done.stdout.decode().split("Storage latency")[-1]
        expect(f"records for {names}", re.findall(r"(\d+) read, 0 doubled, 0 missing, 0 not", last), ["3"])
        expect("what a terminal would be told", ("\x1b" in last, last[-2:]), (False, "\n\n"))
        expect(f"exit code for {names}", (done.returncode, done.stderr), (0, b""))
    beside = FOLDER / "beside"
    beside.write_bytes(LINES[3])
    with Terminal("-", beside) as terminal:
        terminal.process.stdin.write(given)
        terminal.process.stdin.close()
        terminal.wait_for_count(4)
        with beside.open("ab") as file:
            file.write(LINES[4])
        terminal.wait_for_count(5)
        terminal.end(signal.SIGTERM)


if __name__ == "__main__":
    shutil.rmtree(FOLDER, ignore_errors=True)
    (FOLDER / "aside").mkdir(parents=True)
    follow_files()
    follow_a_link()
    follow_streams()
    print("followed to the end")
