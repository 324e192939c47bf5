#!/usr/bin/env python3
"""`zan build` through the real zan and shipped plugins: each output form is
read back (a .zanb and .zan run, a .zana is the listing); compile errors exit 1
and leave no file; the counter example's dumped frames react to clicks.
    build_cli.py --zan PATH --examples DIR --work DIR [--wrapper wine]"""
import glob, os, shutil, sys
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, check, finish, run

PROG = 'let greeting = "built"\nfunc main\n  print greeting\n  exit 6 * 7\n'
WORK = opts["--work"]


def zan(*args, env=None):
    env = dict(env or {}, PATH=os.environ.get("PATH", "/usr/bin:/bin"), HOME=WORK)
    env.update({k: v for k, v in os.environ.items() if k.startswith("WINE")})
    wrapper = [opts["--wrapper"]] if opts.get("--wrapper") else []
    return run(wrapper + [opts["--zan"], *args], env=env, cwd=WORK)


def write(name, text):
    path = os.path.join(WORK, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    open(path, "w").write(text)


def counter_frames():
    rc, out, err = zan("build", os.path.join(opts["--examples"], "counter.zs"), "-o", "counter.zan")
    check(rc == 0, f"build counter: {rc} {err!r}")
    for f in glob.glob("/tmp/zan-ui-frame-*.ppm"):
        os.remove(f)
    rc, out, err = zan("run", "counter.zan", env={"ZAN_UI_DUMP": "1", "ZAN_UI_EXIT_AFTER": "6",
                                                  "ZAN_UI_SCRIPT": "wait2;230,150;wait2;60,140"})
    check(rc == 0, f"run counter: {rc} {err!r}")
    frames = []
    for p in sorted(glob.glob("/tmp/zan-ui-frame-*.ppm")):
        parts = open(p, "rb").read().split(maxsplit=4)
        frames.append((int(parts[1]), int(parts[2]), parts[4]))
    if not check(len(frames) == 6, f"{len(frames)} frames, want 6"):
        return
    px = lambda f, x, y: int.from_bytes(f[2][(y * f[0] + x) * 3:][:3], "big")
    label = lambda f: [px(f, x, y) for y in range(30, 110) for x in range(200, 320)]  # the number
    f0, f2, f4 = frames[0], frames[2], frames[4]
    check(f0[:2] == (320, 200), f"size {f0[:2]}")
    for what, x, y, want in [("background", 5, 5, 0x1E2430), ("minus", 35, 125, 0xC0504D), ("plus", 285, 170, 0x4F9D5D)]:
        check(px(f4, x, y) == want, f"{what} at {x},{y}: {px(f4, x, y):06x}, want {want:06x}")
    check(len(set(label(f0))) > 1, "no number drawn")
    check(label(f0) == label(f4), "the label after + and - differs from the first one")
    check(label(f0) != label(f2), "the label did not change after the click on +")


def main():
    shutil.rmtree(WORK, ignore_errors=True)
    write("prog.zs", PROG)
    rc, out, err = zan("build")
    check(rc == 2 and out == "" and err.startswith("usage: zan build"), f"no argument: {rc} {err!r}")
    for name in ("prog.zanb", "prog.zana", "out.zan"):
        got = zan("build", "prog.zs", "-o", name)
        check(got == (0, "", ""), f"build -o {name}: {got}")
        if not name.endswith(".zana"):  # a listing starts with "ZANB", the binary magic
            got = zan("run", name)
            check(got == (42, "built\n", ""), f"run {name}: {got}")
    listing = open(os.path.join(WORK, "prog.zana")).read()
    check(listing.startswith("ZANB v1: funcs=1 globals=0 data=8B code=15 insn entry=0 mem=1..1 pages\n"),
          f"listing head: {listing[:80]!r}")
    # Without -o: the base name with .zan, here; a directory packs its assets beside main.zs.
    zan("build", "prog.zs")
    rc, out, err = zan("appinfo", "prog.zan")
    check(rc == 0 and "entry:    prog.zanb" in out and "platform: zanb" in out, f"appinfo: {out!r}")
    write("app/main.zs", PROG)
    write("app/assets/data.txt", "asset\n")
    check(zan("build", "app")[::2] == (0, ""), "build app")
    rc, out, err = zan("appinfo", "app.zan")
    check("entry:    main.zanb" in out and "files:    2" in out, f"app appinfo: {out!r}")
    check(zan("run", "app.zan")[:2] == (42, "built\n"), "run app.zan")

    write("bad.zs", "func main\n  exit 1 +\n")
    for name in ("bad.zanb", "bad.zana", "bad.zan"):
        got = zan("build", "bad.zs", "-o", name)
        check(got == (1, "", "zan build: bad.zs: line 2: expression expected\n"), f"bad -o {name}: {got}")
        check(not glob.glob(os.path.join(WORK, name + "*")), f"{name} or its .tmp left behind")
    write("empty.zs", "")
    for args, want in [(("empty.zs", "-o", "e.zanb"), (1, "zan build: empty.zs: no func in the source\n")),
                       (("missing.zs",), (1, "zan build: cannot read missing.zs\n")),
                       (("prog.zs", "-o", "prog.txt"), (2, "zan build: prog.txt: the output must end in .zanb, .zana or .zan\n"))]:
        got = zan("build", *args)[::2]
        check(got[0] == want[0] and want[1] in got[1], f"build {args}: {got}")
    if opts.get("--wrapper"):
        print("SKIPPED counter frames: under wine the window is a real Win32 one, which dumps no frames")
    else:
        counter_frames()
    return finish()


if __name__ == "__main__":
    sys.exit(main())
