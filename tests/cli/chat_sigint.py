#!/usr/bin/env python3
"""Under a pseudo-terminal Ctrl-C stops each of two streamed chat turns and does nothing at the prompt; end of
input ends the chat with 0.   chat_sigint.py --zan PATH --plugins DIR [--wrapper wine]"""
import os, pty, re, select, sys, termios, time, tty
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, check, finish, home_env, WRAPPER

DEADLINE_SECONDS = 30
# wine's console draws the output with cursor moves: a move right stands for blanks, other sequences for nothing.
CURSOR_RIGHT = re.compile(rb"\x1b\[K\x1b\[(\d*)C")
CONTROL = re.compile(rb"\x1b\[[0-9;?]*[A-Za-z]")


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
        self.raw, self.taken = b"", 0

    @property
    def seen(self):
        return CONTROL.sub(b"", CURSOR_RIGHT.sub(lambda m: b" " * int(m.group(1) or 1), self.raw))[self.taken:]

    def read(self, what):
        """One chunk of output (b"" at its end), or an error naming `what`."""
        ready, _, _ = select.select([self.fd], [], [], max(0, self.end - time.monotonic()))
        if not ready:
            raise AssertionError(f"no {what} within {DEADLINE_SECONDS}s; output so far:\n"
                                 + self.seen.decode("utf-8", "replace"))
        try:
            chunk = os.read(self.fd, 4096)
        except OSError:  # the terminal's end once zan exited
            chunk = b""
        self.raw += chunk
        return chunk

    def expect(self, text):
        """Reads until `text` has appeared after what earlier calls took."""
        want, self.end = text.encode(), time.monotonic() + DEADLINE_SECONDS
        while want not in self.seen:
            if not self.read(repr(text)):
                raise AssertionError(f"zan ended before {text!r}; output:\n" + self.seen.decode("utf-8", "replace"))
        self.taken += self.seen.index(want) + len(want)

    def finish(self):
        """Drains the output and gives the exit status."""
        self.end = time.monotonic() + DEADLINE_SECONDS
        while self.read("end of zan after the end of input"):
            pass
        return os.waitpid(self.pid, 0)[1]


def main():
    env = dict(home_env("/nonexistent"), ZAN_PLUGIN_PATH=os.path.realpath(opts["--plugins"]) + "/model",
               ZAN_TEST_STREAM_FOREVER="1")
    s = Session(WRAPPER + [os.path.realpath(opts["--zan"]), "chat", "m.stream"], env, raw=bool(WRAPPER))
    try:
        s.expect("User: ")
        for turn in ("first", "second"):
            os.write(s.fd, turn.encode() + (b"\r" if WRAPPER else b"\n"))  # Enter
            s.expect("Model: ")
            s.expect("tick tick ")       # streaming is under way
            os.write(s.fd, b"\x03")  # the terminal's interrupt character
            s.expect("[stopped]")        # the runtime saw its stop word
            s.expect("User: ")           # and the loop asks again
        os.write(s.fd, b"\x03")  # at the prompt: no effect
        # end of input; wine's console gives no end for Ctrl-Z, so there the chat is left with /exit
        os.write(s.fd, b"/exit\r" if WRAPPER else b"\x04")
        status = s.finish()
    except AssertionError as e:
        os.kill(s.pid, 9)
        os.waitpid(s.pid, 0)
        print(f"FAIL {e}")
        return 1
    rest = s.seen.decode("utf-8", "replace")
    check(os.WIFEXITED(status) and os.WEXITSTATUS(status) == 0, f"status {status}; output after the turns:\n{rest}")
    check("[model] destroy" in rest, f"the runtime was not destroyed; output after the turns:\n{rest}")
    return finish()


if __name__ == "__main__":
    sys.exit(main())
