#!/usr/bin/env python3
"""Ctrl-C during a streamed chat turn, for real, under a pseudo-terminal.

    chat_sigint.py --zan PATH --plugins DIR [--wrapper PROGRAM]

--wrapper runs a Windows build through wine, whose console reads the keys
itself (Enter is a carriage return) while the terminal still turns Ctrl-C
into an interrupt. Ctrl-C stops each of two streamed turns, does nothing at
the prompt, and end of input ends the chat with exit code 0.
"""
import argparse
import os
import pty
import re
import select
import sys
import termios
import time
import tty

DEADLINE_SECONDS = 30

# wine's console draws what the program writes with cursor moves: a move
# right stands for blanks, other control sequences for nothing.
CURSOR_RIGHT = re.compile(rb"\x1b\[K\x1b\[(\d*)C")
CONTROL = re.compile(rb"\x1b\[[0-9;?]*[A-Za-z]")


def screen_text(raw):
    raw = CURSOR_RIGHT.sub(lambda m: b" " * int(m.group(1) or 1), raw)
    return CONTROL.sub(b"", raw)


class Session:
    def __init__(self, argv, env, raw=False):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            if raw:  # wine's console reads keys itself; the terminal keeps Ctrl-C
                tty.setraw(0)
                mode = termios.tcgetattr(0)
                mode[3] |= termios.ISIG
                termios.tcsetattr(0, termios.TCSANOW, mode)
            os.execve(argv[0], argv, env)
        self.raw = b""
        self.taken = 0

    @property
    def seen(self):
        return screen_text(self.raw)[self.taken:]

    def expect(self, text):
        """Reads until `text` has appeared after what earlier calls took."""
        want = text.encode()
        end = time.monotonic() + DEADLINE_SECONDS
        while want not in self.seen:
            left = end - time.monotonic()
            if left <= 0:
                raise AssertionError(f"no {text!r} within {DEADLINE_SECONDS}s; output so far:\n"
                                     + self.seen.decode("utf-8", "replace"))
            ready, _, _ = select.select([self.fd], [], [], left)
            if ready:
                try:
                    chunk = os.read(self.fd, 4096)
                except OSError:
                    chunk = b""
                if not chunk:
                    raise AssertionError(f"zan ended before {text!r}; output:\n"
                                         + self.seen.decode("utf-8", "replace"))
                self.raw += chunk
        seen = self.seen
        at = seen.index(want) + len(want)
        self.taken += at
        return seen[:at].decode("utf-8", "replace")

    def send(self, data):
        os.write(self.fd, data)

    def finish(self):
        """Drains the output and gives the exit status."""
        end = time.monotonic() + DEADLINE_SECONDS
        while True:
            ready, _, _ = select.select([self.fd], [], [], max(0, end - time.monotonic()))
            if not ready:
                raise AssertionError(f"zan still running {DEADLINE_SECONDS}s after the end of input; output:\n"
                                     + self.seen.decode("utf-8", "replace"))
            try:
                chunk = os.read(self.fd, 4096)
            except OSError:
                break
            if not chunk:
                break
            self.raw += chunk
        _, status = os.waitpid(self.pid, 0)
        return status


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--plugins", required=True)
    ap.add_argument("--wrapper", default="")
    opts = ap.parse_args()
    env = {
        "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
        "HOME": "/nonexistent",
        "ZAN_PLUGIN_PATH": os.path.join(os.path.realpath(opts.plugins), "model"),
        "ZAN_TEST_STREAM_FOREVER": "1",
    }
    wrapper = [opts.wrapper] if opts.wrapper else []
    if wrapper:
        env.update({k: v for k, v in os.environ.items() if k.startswith("WINE")})
    s = Session(wrapper + [os.path.realpath(opts.zan), "chat", "m.stream"], env, raw=bool(wrapper))
    try:
        s.expect("User: ")
        for turn in ("first", "second"):
            s.send(turn.encode() + (b"\r" if wrapper else b"\n"))  # Enter
            s.expect("Model: ")
            s.expect("tick tick ")       # streaming is under way
            s.send(b"\x03")              # the terminal's interrupt character
            s.expect("[stopped]")        # the runtime saw its stop word
            s.expect("User: ")           # and the loop asks again
        s.send(b"\x03")                  # at the prompt: no effect
        # end of input; wine's console gives no end for Ctrl-Z, so there the
        # chat is left with /exit
        s.send(b"/exit\r" if wrapper else b"\x04")
        status = s.finish()
    except AssertionError as e:
        os.kill(s.pid, 9)
        os.waitpid(s.pid, 0)
        print(f"FAIL {e}")
        return 1
    rest = s.seen.decode("utf-8", "replace")
    if not os.WIFEXITED(status) or os.WEXITSTATUS(status) != 0:
        print(f"FAIL zan did not exit with 0 (status {status}); output after the turns:\n{rest}")
        return 1
    if "[model] destroy" not in rest:
        print(f"FAIL the runtime was not destroyed; output after the turns:\n{rest}")
        return 1
    print("ok   two streamed turns stopped by Ctrl-C, Ctrl-C at the prompt ignored, exit 0 at end of input")
    return 0


if __name__ == "__main__":
    sys.exit(main())
