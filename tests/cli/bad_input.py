#!/usr/bin/env python3
"""`zan run` on broken module files: every one must end with a clean message.

    bad_input.py --zan PATH --zana2zanb PATH

A valid binary module is assembled with zana2zanb, then run as copies cut at
every length from 0 to n-1, with header counts set near 2^32 (and codeCount
near 2^64), with other versions and magics, and as files of seeded random
bytes. Each run must exit 1 or 2 with nothing on standard output and exactly
one of the reader's messages on standard error: never a signal, never a hang.
"""

import argparse
import os
import random
import struct
import subprocess
import sys
import tempfile

TIMEOUT_SECONDS = 10  # a safety net against hangs, not a synchronisation
NAME = "m.zanb"

# Two named functions, a call between them, memory traffic and a write, so
# every table but globals and data segments is present.
SOURCE = """\
func 0 main slots=8
const.i32 a=0 b=5
call a=1 b=1 c=0
const.i64 a=2 bits=0x0a6b6f
const.i32 a=3 b=0
store.i64 a=3 b=2 c=0
const.i32 a=4 b=1
const.i32 a=5 b=0
const.i32 a=6 b=3
syscall a=1 b=7 c=4
syscall a=0 b=7 c=1
func 1 twice params=1 rets=1 slots=2
add.i32 a=1 b=0 c=0
ret a=1
"""

TOO_SMALL = f"zan run: {NAME}: zanb: too small\n"
TRUNCATED = f"zan run: {NAME}: zanb: truncated module\n"
NEITHER = f"zan run: {NAME} is neither ZANB bytecode nor ZANA text\n"


def version_message(v):
    return f"zan run: {NAME}: zanb: unsupported version {v}\n"


def expected_code(message):
    return 2 if message == NEITHER else 1


def is_documented(stderr):
    if stderr in (TOO_SMALL, TRUNCATED, NEITHER):
        return True
    prefix = f"zan run: {NAME}: zanb: unsupported version "
    return stderr.startswith(prefix) and stderr.endswith("\n") and stderr[len(prefix):-1].isdigit()


class Runner:
    def __init__(self, zan, workdir):
        self.zan = zan
        self.workdir = workdir
        self.failures = []
        self.runs = 0

    def run(self, label, data, expect=None):
        """Runs `zan run m.zanb` on `data`. `expect` is the exact message, or
        None for any of the documented ones."""
        self.runs += 1
        with open(os.path.join(self.workdir, NAME), "wb") as f:
            f.write(data)
        try:
            r = subprocess.run([self.zan, "run", NAME], cwd=self.workdir, capture_output=True,
                               env={"PATH": os.environ.get("PATH", ""), "HOME": self.workdir},
                               timeout=TIMEOUT_SECONDS)
        except subprocess.TimeoutExpired:
            self.fail(label, data, f"no exit within {TIMEOUT_SECONDS}s")
            return
        err = r.stderr.decode("utf-8", "backslashreplace")
        if r.returncode < 0:
            self.fail(label, data, f"killed by signal {-r.returncode}; stderr {err!r}")
            return
        problems = []
        if r.stdout:
            problems.append(f"stdout {r.stdout[:80]!r}")
        if expect is not None:
            if err != expect:
                problems.append(f"stderr {err!r}, expected {expect!r}")
            if r.returncode != expected_code(expect):
                problems.append(f"exit {r.returncode}, expected {expected_code(expect)}")
        else:
            if not is_documented(err):
                problems.append(f"stderr {err!r} is none of the reader's messages")
            elif r.returncode != expected_code(err):
                problems.append(f"exit {r.returncode} for {err!r}")
        if problems:
            self.fail(label, data, "; ".join(problems))

    def fail(self, label, data, what):
        self.failures.append(f"{label} ({len(data)} bytes): {what}")


def with_u32(data, offset, value):
    return data[:offset] + struct.pack("<I", value) + data[offset + 4:]


def with_u64(data, offset, value):
    return data[:offset] + struct.pack("<Q", value) + data[offset + 8:]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--zana2zanb", required=True)
    opts = ap.parse_args()

    with tempfile.TemporaryDirectory(prefix="zan-bad-input-") as tmp:
        src = os.path.join(tmp, "m.zana")
        good = os.path.join(tmp, "good.zanb")
        with open(src, "w") as f:
            f.write(SOURCE)
        r = subprocess.run([opts.zana2zanb, src, good], capture_output=True, timeout=TIMEOUT_SECONDS)
        if r.returncode != 0:
            print("cannot assemble the seed module: " + r.stderr.decode("utf-8", "backslashreplace"))
            return 1
        with open(good, "rb") as f:
            module = f.read()
        work = os.path.join(tmp, "run")
        os.mkdir(work)
        runner = Runner(os.path.realpath(opts.zan), work)

        # The seed itself must run, or the cuts below prove nothing.
        with open(os.path.join(work, NAME), "wb") as f:
            f.write(module)
        r = subprocess.run([runner.zan, "run", NAME], cwd=work, capture_output=True,
                           timeout=TIMEOUT_SECONDS)
        if r.returncode != 10 or r.stdout != b"ok\n" or r.stderr:
            print(f"the seed module misbehaves: exit {r.returncode}, stdout {r.stdout!r}, "
                  f"stderr {r.stderr!r}")
            return 1

        # Every cut: below 4 bytes there is no magic and the text assembler
        # refuses it; below 64 no header; after that the code runs short.
        for n in range(len(module)):
            expect = NEITHER if n < 4 else TOO_SMALL if n < 64 else TRUNCATED
            runner.run(f"cut at {n}", module[:n], expect)

        # Header counts: every one far beyond the file, including values whose
        # table sizes don't fit in 32 bits.
        for offset, field in ((16, "funcCount"), (20, "globalCount"), (24, "dataSegCount"),
                              (28, "namesSize")):
            for value in (0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFF0, 0x80000000, 0x7FFFFFFF, 0x10000000,
                          0x08000000, 0x00FFFFFF):
                runner.run(f"{field}={value:#x}", with_u32(module, offset, value), TRUNCATED)
        # codeCount is 64 bits: sizes that wrap past 2^64 when multiplied by 16
        # must not come out small.
        for value in (0xFFFFFFFF, 0x100000000, 0x100000001, 0x0FFFFFFFFFFFFFFF, 0x1000000000000000,
                      0x1000000000000001, 0x8000000000000000, 0xFFFFFFFFFFFFFFFF,
                      0xFFFFFFFFFFFFFFF0):
            runner.run(f"codeCount={value:#x}", with_u64(module, 40, value), TRUNCATED)
        # Every count at its maximum at once.
        data = module
        for offset in (16, 20, 24, 28):
            data = with_u32(data, offset, 0xFFFFFFFF)
        runner.run("all counts 0xffffffff", with_u64(data, 40, 0xFFFFFFFFFFFFFFFF), TRUNCATED)

        for v in (0, 2, 3, 0x100, 0xFFFFFFFF):
            runner.run(f"version {v}", with_u32(module, 4, v), version_message(v))
            runner.run(f"version {v}, cut to 64", with_u32(module, 4, v)[:64], version_message(v))

        # Another magic isn't a module at all, so it goes to the text assembler.
        for magic in (b"ZANA", b"ZAN2", b"zanb", b"\0ANB", b"BNAZ"):
            runner.run(f"magic {magic!r}", magic + module[4:], NEITHER)

        rng = random.Random(20261123)  # fixed: a failure must reproduce
        for i in range(150):
            n = rng.randrange(0, 400)
            runner.run(f"random #{i}", bytes(rng.randrange(256) for _ in range(n)))
        for i in range(150):
            n = rng.randrange(0, 400)
            runner.run(f"random behind the magic #{i}",
                       b"ZANB\x01\0\0\0" + bytes(rng.randrange(256) for _ in range(n)))
        # Random header counts on an otherwise valid module: the tables move
        # and whatever lies where they land is read.
        for i in range(150):
            data = module
            for offset in (16, 20, 24, 28):
                if rng.random() < 0.5:
                    data = with_u32(data, offset, rng.randrange(1 << 32))
            data = with_u64(data, 40, rng.randrange(1 << 64))
            runner.run(f"random counts #{i}", data)

        for f in runner.failures:
            print("FAIL " + f)
        print(f"{runner.runs} broken modules, {len(runner.failures)} failed")
        return 1 if runner.failures else 0


if __name__ == "__main__":
    sys.exit(main())
