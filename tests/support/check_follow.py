#!/usr/bin/env python3
"""check_follow.py PROGRAM FOLDER: follows a file on a terminal of its own while records come in, are moved away and
come in again. Exits with 1 and says what differs."""
import fcntl
import os
import pathlib
import pty
import re
import select
import signal
import struct
import subprocess
import sys
import termios

import report_records

LIMIT_SECONDS = 30


class Terminal:
    """The program on a terminal of 80 columns and 50 rows."""

    def __init__(self, *command):
        self.side, other = pty.openpty()
        fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", 50, 80, 0, 0))
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=other, start_new_session=True)
        os.close(other)
        self.text = ""

    def wait_for(self, pattern):
        while not re.search(pattern, self.text):
            if not select.select([self.side], [], [], LIMIT_SECONDS)[0]:
                raise SystemExit(f"no {pattern!r} within {LIMIT_SECONDS} s, but {self.text[-2000:]!r}")
            self.text += os.read(self.side, 65536).decode()
        self.text = ""


def main():
    program, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)
    path = folder / "followed.jsonl"
    path.unlink(missing_ok=True)
    _, fleet = report_records.fleet_of([str(path), "--hosts", "1", "--reports", "40"])
    fleet.make()
    lines = fleet.lines
    terminal = Terminal(program, "--follow", str(path))
    try:
        terminal.wait_for("no records")
        path.write_bytes(b"".join(lines[:10]) + lines[10][:50])
        terminal.wait_for(r"\s10 read")
        with path.open("ab") as file:
            file.write(lines[10][50:])
        terminal.wait_for(r"\s11 read, \d+ doubled, \d+ missing, 0 not understood")
        path.rename(folder / "followed.old")
        path.write_bytes(b"".join(lines[11:]))
        terminal.wait_for(rf"\s{len(lines)} read, \d+ doubled, {fleet.truth['missing']} missing, 0 not")
        terminal.process.send_signal(signal.SIGTERM)
        status = terminal.process.wait(LIMIT_SECONDS)
    finally:
        terminal.process.kill()
    if status != 0:
        raise SystemExit(f"the program ended with {status}")
    print("followed to the end")


if __name__ == "__main__":
    main()
