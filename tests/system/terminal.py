"""A terminal of 80 columns for tests of interactive programs: keys go in, and the screen is what a person would see."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import termios
import time

SEQUENCE = re.compile(r"\x1b\[(\??[0-9;]*)([A-Za-z@])|\x1b[()][A-Z0-9]|\x1b[=>78]")


class Screen:
    """What a VT100 makes of the output, as far as line editors go. Lines that scroll out are kept above the screen."""

    def __init__(self, rows, columns):
        self.rows, self.columns = rows, columns
        self.lines, self.top, self.row, self.column, self.pending = [""], 0, 0, 0, ""

    def feed(self, text):
        text, self.pending = self.pending + text, ""
        at = 0
        while at < len(text):
            if text[at] == "\x1b":
                found = SEQUENCE.match(text, at)
                if not found:
                    if len(text) - at < 12:                  # the rest of it is still to come
                        self.pending = text[at:]
                        return
                    raise AssertionError(f"a sequence that this terminal does not know: {text[at:at + 12]!r}")
                self._control(found.group(1) or "", found.group(2) or "")
                at = found.end()
            else:
                self._character(text[at])
                at += 1

    def _line(self):
        while len(self.lines) <= self.row:
            self.lines.append("")
        return self.lines[self.row].ljust(self.column)

    def _character(self, c):
        if c == "\n":
            self.row += 1
            self._line()
            self.top = max(self.top, self.row - self.rows + 1)
        elif c == "\r":
            self.column = 0
        elif c == "\b":
            self.column = max(0, self.column - 1)
        elif c == "\t":
            self.column = min(self.columns - 1, self.column // 8 * 8 + 8)
        elif c in "\a\0":                                   # a bell, and padding for slow terminals
            pass
        elif c < " ":
            raise AssertionError(f"a control character reaches the terminal: {c!r}")
        else:
            if self.column == self.columns:
                self.column = 0
                self._character("\n")
            line = self._line()
            self.lines[self.row] = line[:self.column] + c + line[self.column + 1:]
            self.column += 1

    def _control(self, number, letter):
        count = int(number) if number.isdigit() else 1
        if letter == "A":
            self.row = max(self.top, self.row - count)
        elif letter == "B":
            self.row += count
        elif letter == "C":
            self.column = min(self.columns - 1, self.column + count)
        elif letter == "D":
            self.column = max(0, self.column - count)
        elif letter == "K":
            self.lines[self.row] = self._line()[:self.column]
        elif letter == "J":
            self.lines[self.row] = self._line()[:self.column]
            del self.lines[self.row + 1:]
        elif letter == "P":
            line = self._line()
            self.lines[self.row] = line[:self.column] + line[self.column + count:]
        elif letter == "@":
            line = self._line()
            self.lines[self.row] = line[:self.column] + " " * count + line[self.column:]
        elif letter == "H":
            assert number == "", f"the cursor is sent to {number}"
            self.row, self.column = self.top, 0
        elif letter not in "mhl":
            raise AssertionError(f"a sequence that this terminal does not know: {number}{letter}")

    @property
    def text(self):
        """Everything printed so far, a line each."""
        return "\n".join(line.rstrip() for line in self.lines)

    @property
    def last(self):
        return self.lines[self.row].rstrip()


class Terminal:
    """A program on a pseudo-terminal. `screen` is what it shows."""

    def __init__(self, argv, rows=24, columns=80, env=None):
        self.screen = Screen(rows, columns)
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
            os.environ.update({"TERM": "vt100", "LINES": "", "COLUMNS": "", **(env or {})})
            os.execvp(str(argv[0]), [str(a) for a in argv])
        self.status, self.raw = None, ""

    def type(self, keys, at_once=False):
        """Keys for a program that reads them one by one. It may show its prompt a moment before it does so: what is
        typed in between would be edited by the kernel; `at_once` types all the same."""
        end = time.monotonic() + 5
        while not at_once and termios.tcgetattr(self.fd)[3] & termios.ICANON:
            if time.monotonic() > end:
                raise AssertionError(f"the program does not read keys; the screen:\n{self.screen.text}")
            time.sleep(0.001)
        os.write(self.fd, keys.encode())

    def read(self, timeout):
        """False: the program has closed its terminal."""
        if not select.select([self.fd], [], [], timeout)[0]:
            return True
        try:
            piece = os.read(self.fd, 65536).decode(errors="replace")
        except OSError:
            return False
        self.raw += piece
        self.screen.feed(piece)
        return bool(piece)

    def wait(self, condition, what, timeout=10):
        """Reads until the condition holds of the screen."""
        end = time.monotonic() + timeout
        while not condition(self.screen):
            if time.monotonic() > end or not self.read(0.1):
                if condition(self.screen):
                    break
                raise AssertionError(f"{what}: not seen; the screen:\n{self.screen.text}")
        return self.screen

    def settle(self, quiet=0.3):
        """Reads until nothing more comes for a moment."""
        while select.select([self.fd], [], [], quiet)[0]:
            if not self.read(0):
                break
        return self.screen

    def ended(self, timeout=10):
        """Exit status of the program."""
        end = time.monotonic() + timeout
        while self.status is None:
            self.read(0.05)
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                self.status = os.waitstatus_to_exitcode(status)
            elif time.monotonic() > end:
                raise AssertionError(f"the program does not end; the screen:\n{self.screen.text}")
        return self.status

    def close(self):
        if self.status is None:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        os.close(self.fd)
