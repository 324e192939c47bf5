"""Side-by-side timing of the ZANA workloads against their Lua versions.

Usage: compare.py <zan> <lua> [<zanb_insn_bench>]

Each workload runs 3 times on each side, zan and Lua interleaved, timed by
wall clock around the process. The printed results of both sides must be
identical; any difference (or a failed run) stops the benchmark with exit
status 1. The table shows the best time of each side and zan/Lua.
"""
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
RUNS = 3

# name, file stem, target for zan/Lua
WORKLOADS = [
    ("fib(32)", "fib", 1.5),
    ("loop 100M", "loop", 1.0),
    ("sieve 10M", "sieve", 1.0),
    ("mandelbrot 400", "mandelbrot", 1.0),
]


def run(cmd):
    t0 = time.perf_counter()
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    t = time.perf_counter() - t0
    if p.returncode != 0:
        sys.stderr.write("bench: FAILED (exit %d): %s\n%s" % (
            p.returncode, " ".join(cmd), p.stderr.decode(errors="replace")))
        sys.exit(1)
    return t, p.stdout.decode(errors="replace").strip()


def main():
    if len(sys.argv) < 3:
        sys.stderr.write(__doc__)
        return 2
    zan, lua = sys.argv[1], sys.argv[2]
    insn = sys.argv[3] if len(sys.argv) > 3 else None

    rows = []
    for label, stem, target in WORKLOADS:
        zcmd = [zan, "run", os.path.join(HERE, "zana", stem + ".zana")]
        lcmd = [lua, os.path.join(HERE, "lua", stem + ".lua")]
        zbest = lbest = None
        zout = lout = None
        for _ in range(RUNS):
            tz, oz = run(zcmd)
            tl, ol = run(lcmd)
            if zout is not None and (oz != zout or ol != lout):
                sys.stderr.write("bench: %s: output changed between runs\n" % label)
                return 1
            zout, lout = oz, ol
            zbest = tz if zbest is None else min(zbest, tz)
            lbest = tl if lbest is None else min(lbest, tl)
        if zout != lout:
            sys.stderr.write("bench: %s: RESULTS DIFFER\n  zan: %r\n  lua: %r\n"
                             % (label, zout, lout))
            return 1
        rows.append((label, zout, zbest, lbest, zbest / lbest, target))

    head = ("workload", "result", "zan s", "lua s", "zan/lua", "target")
    cells = [head] + [
        (label, out, "%.3f" % z, "%.3f" % l, "%.2f" % r,
         "<=%.1f %s" % (t, "ok" if r <= t else "MISSED"))
        for label, out, z, l, r, t in rows]
    widths = [max(len(c[i]) for c in cells) for i in range(len(head))]
    print("best of %d runs each, zan and lua interleaved" % RUNS)
    for c in cells:
        print("  ".join(c[i].ljust(widths[i]) if i < 2 else c[i].rjust(widths[i])
                        for i in range(len(c))))
    sys.stdout.flush()

    if insn:
        p = subprocess.run([insn], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if p.returncode != 0:
            sys.stderr.write("bench: FAILED: %s\n%s" % (insn, p.stderr.decode(errors="replace")))
            return 1
        print(p.stdout.decode(errors="replace").strip())
    return 0


if __name__ == "__main__":
    sys.exit(main())
