#!/usr/bin/env python3
"""check_follow.py PROGRAM FOLDER: follows a file on a terminal of its own while records come in, are moved away and
come in again; follows a link, and standard input. Exits with 1 and says what differs."""
import fcntl
import os
import pathlib
import pty
import re
import select
import shutil
import signal
import struct
import subprocess
import sys
import termios

import report_records

LIMIT_SECONDS = 30


class Terminal:
    """The program on a terminal of 80 columns."""

    def __init__(self, *command, rows=60):
        self.side, other = pty.openpty()
        fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", rows, 80, 0, 0))
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=other, start_new_session=True)
        os.close(other)
        self.text = ""

    def wait_for(self, pattern):
        """Returns what was written until then."""
        while not re.search(pattern, self.text):
            if not select.select([self.side], [], [], LIMIT_SECONDS)[0]:
                raise SystemExit(f"no {pattern!r} within {LIMIT_SECONDS} s, but {self.text[-2000:]!r}")
            self.text += os.read(self.side, 65536).decode()
        text, self.text = self.text, ""
        return text

    def end(self, number):
        self.process.send_signal(number)
        expect("exit code", self.process.wait(LIMIT_SECONDS), 0)


def expect(what, got, expected):
    if got != expected:
        raise SystemExit(f"{what}: expected {expected!r}, got {got!r}")


def files(terminal, path, lines, fleet):
    """Begun late, in pieces, replaced with its last line unfinished, cut, and ended."""
    first = terminal.wait_for("no records")
    expect("the first frame's begin", first[:7], "\x1b[2J\x1b[H")
    path.write_bytes(b"".join(lines[:10]) + lines[10][:50])
    frame = terminal.wait_for(r"\s10 read")
    expect("a frame's begin", frame[frame.index("\x1b[H"):][:10], "\x1b[H\x1b[1mSto")
    expect("the screen is cleared again", "\x1b[2J" in frame, False)
    expect("lines that are not cleared", re.findall(r"[^K]\r\n", frame), [])
    with path.open("ab") as file:
        file.write(lines[10][50:])
    terminal.wait_for(r"\s11 read, \d+ doubled, \d+ missing, 0 not understood")
    with path.open("ab") as file:
        file.write(lines[11] + lines[12].rstrip(b"\n"))
    terminal.wait_for(r"\s12 read")
    following = path.parent / "aside" / "file"  # its folder is not watched: the move alone tells
    following.write_bytes(b"".join(lines[13:20]))
    following.rename(path)
    terminal.wait_for(r"\s20 read, \d+ doubled, \d+ missing, 0 not understood")
    path.write_bytes(b"".join(lines[20:23]))
    terminal.wait_for(r"\s23 read, \d+ doubled, \d+ missing, 0 not understood")
    path.rename(path.with_suffix(".old"))
    path.write_bytes(b"".join(lines[23:]))
    terminal.wait_for(rf"\s{len(lines)} read, \d+ doubled, {fleet.truth['missing']} missing, 0 not")


def link(program, folder, lines):
    """A link to a file of another folder, on a small terminal, of which the last line stays free."""
    (folder / "target").mkdir(exist_ok=True)
    (folder / "target" / "file").write_bytes(b"")
    (folder / "link").unlink(missing_ok=True)
    (folder / "link").symlink_to("target/file")
    terminal = Terminal(program, "--follow", str(folder / "link"), rows=4)
    try:
        terminal.wait_for("no records")
        (folder / "target" / "file").write_bytes(lines[0])
        frame = terminal.wait_for(r"1 report\x1b\[K\r\n\x1b\[J")
        expect("lines of a small terminal", frame.split("\x1b[H")[-1].count("\n"), 3)
        terminal.end(signal.SIGINT)
    finally:
        terminal.process.kill()


def stream(program, folder, lines):
    """Standard input shown on no terminal, its last line without a line feed; alone, twice, and beside a file."""
    given = b"".join(lines[:3]).rstrip(b"\n")
    for names in ["-"], [], ["-", "-"]:
        done = subprocess.run([program, "--follow", *names], input=given, capture_output=True, timeout=LIMIT_SECONDS)
        expect(f"exit code for {names}", (done.returncode, done.stderr), (0, b""))
        last = done.stdout.decode().split("Storage latency")[-1]
        expect(f"records for {names}", re.findall(r"(\d+) read, 0 doubled, 0 missing, 0 not", last), ["3"])
        expect("what a terminal would be told", ("\x1b" in last, last[-2:]), (False, "\n\n"))
    (folder / "beside").write_bytes(lines[3])
    process = subprocess.Popen([program, "--follow", "-", folder / "beside"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        process.stdin.write(given.decode())
        process.stdin.close()
        expect("read beside the stream", any(line.startswith("  4 read") for line in process.stdout), True)
        with (folder / "beside").open("ab") as file:  # after the end of the stream
            file.write(lines[4])
        expect("read after the stream's end", any(line.startswith("  5 read") for line in process.stdout), True)
        process.terminate()
        process.stdout.read()
        expect("exit code beside a file", process.wait(LIMIT_SECONDS), 0)
    finally:
        process.kill()


def main():
    program, folder = sys.argv[1], pathlib.Path(sys.argv[2]) / "follow"
    shutil.rmtree(folder, ignore_errors=True)
    (folder / "aside").mkdir(parents=True)
    path = folder / "followed.jsonl"
    _, fleet = report_records.fleet_of([str(path), "--hosts", "1", "--reports", "40"])
    fleet.make()
    terminal = Terminal(program, "--follow", str(path))
    try:
        files(terminal, path, fleet.lines, fleet)
        terminal.end(signal.SIGTERM)
    finally:
        terminal.process.kill()
    link(program, folder, fleet.lines)
    stream(program, folder, fleet.lines)
    print("followed to the end")


if __name__ == "__main__":
    main()
