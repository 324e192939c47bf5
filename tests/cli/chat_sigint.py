#!/usr/bin/env python3
"""Ctrl-C during a streamed chat turn, for real, under a pseudo-terminal.

    chat_sigint.py --zan PATH --plugins DIR

Runs `zan chat m.stream` with the test runtime streaming "tick " until its
stop word is set. The terminal's interrupt character ends the turn (the
runtime then writes "[stopped]"), the loop asks again, a second turn can be
stopped the same way, Ctrl-C at the prompt does nothing, and end of input
ends the chat with exit code 0 after destroy.
"""
import argparse
import os
import pty
import select
import sys
import time

DEADLINE_SECONDS = 30


class Session:
    def __init__(self, argv, env):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.execve(argv[0], argv, env)
        self.seen = b""

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
                self.seen += chunk
        at = self.seen.index(want) + len(want)
        taken, self.seen = self.seen[:at], self.seen[at:]
        return taken.decode("utf-8", "replace")

    def send(self, data):
        os.write(self.fd, data)

    def finish(self):
        """Drains the output and gives the exit status."""
        while True:
            try:
                chunk = os.read(self.fd, 4096)
            except OSError:
                break
            if not chunk:
                break
            self.seen += chunk
        _, status = os.waitpid(self.pid, 0)
        return status


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--plugins", required=True)
    opts = ap.parse_args()
    env = {
        "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
        "HOME": "/nonexistent",
        "ZAN_PLUGIN_PATH": os.path.join(os.path.realpath(opts.plugins), "model"),
        "ZAN_TEST_STREAM_FOREVER": "1",
    }
    s = Session([os.path.realpath(opts.zan), "chat", "m.stream"], env)
    try:
        s.expect("User: ")
        for turn in ("first", "second"):
            s.send(turn.encode() + b"\n")
            s.expect("Model: ")
            s.expect("tick tick ")       # streaming is under way
            s.send(b"\x03")              # the terminal's interrupt character
            s.expect("[stopped]")        # the runtime saw its stop word
            s.expect("User: ")           # and the loop asks again
        s.send(b"\x03")                  # at the prompt: no effect
        s.send(b"\x04")                  # end of input
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
