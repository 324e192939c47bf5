#!/usr/bin/env python3
"""`zan build`, through the real zan with the shipped plugins beside it, and
the counter example it compiles, run headless with scripted clicks.

    build_cli.py --zan PATH --examples DIR --work DIR

Each output form is checked by what reads it back: a .zanb runs, a .zana
listing is the disassembler's text, a .zan app container runs and
shows its entry in appinfo. A compile error names the file and the
compiler's line message, exits 1 and leaves no file behind. The counter's
dumped frames show its colours where it draws them, and the label after "+"
then "-" is again the one it started with.
"""
import argparse
import glob
import os
import shutil
import subprocess
import sys

failures = []
PROG = 'let greeting = "built"\nfunc main\n  print greeting\n  exit 6 * 7\n'
USAGE_HEAD = "usage: zan build"


def check(cond, what):
    if not cond:
        failures.append(what)
    return cond


def zan(opts, *args, env=None):
    env = dict(env or {}, PATH=os.environ.get("PATH", "/usr/bin:/bin"), HOME=opts.work)
    env.update({k: v for k, v in os.environ.items() if k.startswith("WINE")})
    r = subprocess.run(([opts.wrapper] if opts.wrapper else []) + [opts.zan] + list(args), capture_output=True, env=env, cwd=opts.work, timeout=60)
    return r.returncode, r.stdout.decode("utf-8", "replace"), r.stderr.decode("utf-8", "replace")


def write(opts, name, text):
    path = os.path.join(opts.work, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(text.encode() if isinstance(text, str) else text)


def read_ppm(path):
    parts = open(path, "rb").read().split(maxsplit=4)
    w, h = int(parts[1]), int(parts[2])
    return w, h, parts[4][: w * h * 3]


def pixel(frame, x, y):
    i = (y * frame[0] + x) * 3
    return int.from_bytes(frame[2][i:i + 3], "big")


def region(frame, x0, y0, x1, y1):
    return [pixel(frame, x, y) for y in range(y0, y1) for x in range(x0, x1)]


def counter_frames(opts):
    rc, out, err = zan(opts, "build", os.path.join(opts.examples, "counter.zs"), "-o", "counter.zan")
    check(rc == 0, f"build counter: {rc} {err!r}")
    for f in glob.glob("/tmp/zan-ui-frame-*.ppm"):
        os.remove(f)
    rc, out, err = zan(opts, "run", "counter.zan", env={"ZAN_UI_DUMP": "1", "ZAN_UI_EXIT_AFTER": "6",
                                                        "ZAN_UI_SCRIPT": "wait2;230,150;wait2;60,140"})
    check(rc == 0, f"run counter: {rc} {err!r}")
    frames = [read_ppm(p) for p in sorted(glob.glob("/tmp/zan-ui-frame-*.ppm"))]
    if not check(len(frames) == 6, f"{len(frames)} frames, want 6"):
        return
    f0, f2, f4 = frames[0], frames[2], frames[4]
    check(f0[:2] == (320, 200), f"size {f0[:2]}")
    for what, x, y, want in [("background", 5, 5, 0x1E2430), ("minus", 35, 125, 0xC0504D),
                             ("plus", 285, 170, 0x4F9D5D)]:
        check(pixel(f4, x, y) == want, f"{what} at {x},{y}: {pixel(f4, x, y):06x}, want {want:06x}")
    label = (200, 30, 320, 110)  # where the number is drawn
    check(len(set(region(f0, *label))) > 1, "no number drawn")
    check(region(f0, *label) == region(f4, *label), "the label after + and - differs from the first one")
    check(region(f0, *label) != region(f2, *label), "the label did not change after the click on +")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--examples", required=True)
    ap.add_argument("--work", required=True)
    ap.add_argument("--wrapper", default="", help="runs a Windows build (wine)")
    opts = ap.parse_args()
    shutil.rmtree(opts.work, ignore_errors=True)
    os.makedirs(opts.work)
    write(opts, "prog.zs", PROG)

    rc, out, err = zan(opts, "build")
    check(rc == 2 and out == "" and err.startswith(USAGE_HEAD), f"no argument: {rc} {err!r}")
    rc, out, err = zan(opts, "build", "-h")
    check(rc == 0 and err == "" and out.startswith(USAGE_HEAD), f"-h: {rc} {out!r}")

    for name in ("prog.zanb", "prog.zana", "out.zan"):
        rc, out, err = zan(opts, "build", "prog.zs", "-o", name)
        check((rc, out, err) == (0, "", ""), f"build -o {name}: {rc} {out!r} {err!r}")
        if name.endswith(".zana"):
            continue  # a listing starts with "ZANB", which run takes for the binary magic
        rc, out, err = zan(opts, "run", name)
        check((rc, out, err) == (42, "built\n", ""), f"run {name}: {rc} {out!r} {err!r}")
    listing = open(os.path.join(opts.work, "prog.zana")).read()
    check(listing.startswith("ZANB v1: funcs=1 globals=0 data=8B code=15 insn entry=0 mem=1..1 pages\n"), f"listing head: {listing[:80]!r}")
    check("func 0 main params=0 rets=1 slots=" in listing, "listing names main")

    # Without -o: the base name with .zan, in the current directory.
    rc, out, err = zan(opts, "build", "prog.zs")
    check(rc == 0 and os.path.exists(os.path.join(opts.work, "prog.zan")), f"default output: {rc} {err!r}")
    rc, out, err = zan(opts, "appinfo", "prog.zan")
    check(rc == 0 and "entry:    prog.zanb" in out and "platform: zanb" in out, f"appinfo: {out!r}")

    # A directory: main.zs compiled, the assets packed beside it.
    write(opts, "app/main.zs", PROG)
    write(opts, "app/assets/data.txt", "asset\n")
    rc, out, err = zan(opts, "build", "app")
    check((rc, err) == (0, ""), f"build app: {rc} {err!r}")
    rc, out, err = zan(opts, "appinfo", "app.zan")
    check("entry:    main.zanb" in out and "files:    2" in out, f"app appinfo: {out!r}")
    rc, out, err = zan(opts, "run", "app.zan")
    check((rc, out) == (42, "built\n"), f"run app.zan: {rc} {out!r} {err!r}")

    # Compile errors: one line, exit 1, nothing written (not even the temporary).
    write(opts, "bad.zs", "func main\n  exit 1 +\n")
    for name in ("bad.zanb", "bad.zana", "bad.zan"):
        rc, out, err = zan(opts, "build", "bad.zs", "-o", name)
        check((rc, out, err) == (1, "", "zan build: bad.zs: line 2: expression expected\n"),
              f"bad -o {name}: {rc} {out!r} {err!r}")
        check(not os.path.exists(os.path.join(opts.work, name)), f"{name} left behind")
        check(not os.path.exists(os.path.join(opts.work, name + ".tmp")), f"{name}.tmp left behind")
    write(opts, "empty.zs", "")
    rc, out, err = zan(opts, "build", "empty.zs", "-o", "e.zanb")
    check((rc, err) == (1, "zan build: empty.zs: no func in the source\n"), f"empty: {rc} {err!r}")
    rc, out, err = zan(opts, "build", "missing.zs")
    check((rc, err) == (1, "zan build: cannot read missing.zs\n"), f"missing: {rc} {err!r}")
    rc, out, err = zan(opts, "build", "prog.zs", "-o", "prog.txt")
    check(rc == 2 and "must end in .zanb, .zana or .zan" in err, f"bad suffix: {rc} {err!r}")

    if opts.wrapper:
        print("SKIPPED counter frames: under wine the window is a real Win32 one, which dumps no frames")
    else:
        counter_frames(opts)
    for f in failures:
        print("FAIL:", f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
