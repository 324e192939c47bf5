#!/usr/bin/env python3
"""`zan build` through the real zan and its shipped plugins, each output form
checked by what reads it back, and the counter example's frames run headless
with scripted clicks.   build_cli.py --zan PATH --examples DIR --work DIR"""
import glob, os, shutil, sys
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, check, expect, finish, run

WORK = opts["--work"]
PROG = 'let greeting = "built"\nfunc main\n  print greeting\n  exit 6 * 7\n'


def zan(*args, env={}):
    return run([opts["--zan"], *args], cwd=WORK, env=dict(env, PATH=os.environ.get("PATH", "/usr/bin:/bin"), HOME=WORK))


def write(name, text):
    os.makedirs(os.path.dirname(os.path.join(WORK, name)), exist_ok=True)
    open(os.path.join(WORK, name), "w").write(text)


def counter_frames():
    expect("build counter", zan("build", os.path.join(opts["--examples"], "counter.zs"), "-o", "counter.zan"), (0, "", ""))
    for f in glob.glob("/tmp/zan-ui-frame-*.ppm"):
        os.remove(f)
    rc, out, err = zan("run", "counter.zan", env={"ZAN_UI_DUMP": "1", "ZAN_UI_EXIT_AFTER": "6",
                                                 "ZAN_UI_SCRIPT": "wait2;230,150;wait2;60,140"})
    check(rc == 0, f"run counter: {rc} {err!r}")
    frames = [open(p, "rb").read().split(maxsplit=4) for p in sorted(glob.glob("/tmp/zan-ui-frame-*.ppm"))]
    if not check(len(frames) == 6 and frames[0][1:3] == [b"320", b"200"], f"{len(frames)} frames, want 6 of 320x200"):
        return
    pixel = lambda f, x, y: int.from_bytes(f[4][(y * 320 + x) * 3:][:3], "big")
    label = lambda f: [pixel(f, x, y) for y in range(30, 110) for x in range(200, 320)]  # where the number is
    for what, x, y, want in [("background", 5, 5, 0x1E2430), ("minus", 35, 125, 0xC0504D), ("plus", 285, 170, 0x4F9D5D)]:
        expect(f"{what} at {x},{y}", pixel(frames[4], x, y), want)
    check(len(set(label(frames[0]))) > 1, "no number drawn")
    check(label(frames[0]) == label(frames[4]), "the label after + and - differs from the first one")
    check(label(frames[0]) != label(frames[2]), "the label did not change after the click on +")


shutil.rmtree(WORK, ignore_errors=True)
write("prog.zs", PROG)
rc, out, err = zan("build")
check(rc == 2 and out == "" and err.startswith("usage: zan build"), f"no argument: {rc} {err!r}")
rc, out, err = zan("build", "-h")
check(rc == 0 and err == "" and out.startswith("usage: zan build"), f"-h: {rc} {out!r}")
for name in ("prog.zanb", "prog.zana", "out.zan"):
    expect(f"build -o {name}", zan("build", "prog.zs", "-o", name), (0, "", ""))
    if not name.endswith(".zana"):  # a listing starts with "ZANB", which run takes for the binary magic
        expect(f"run {name}", zan("run", name), (42, "built\n", ""))
listing = open(os.path.join(WORK, "prog.zana")).read()
check(listing.startswith("ZANB v1: funcs=1 globals=0 data=8B code=15 insn entry=0 mem=1..1 pages\n"
                         "func 0 main params=0 rets=1 slots="), f"listing head: {listing[:120]!r}")
# Without -o: the base name with .zan, in the current directory.
rc, out, err = zan("build", "prog.zs")
check(rc == 0 and os.path.exists(os.path.join(WORK, "prog.zan")), f"default output: {rc} {err!r}")
rc, out, err = zan("appinfo", "prog.zan")
check(rc == 0 and "entry:    prog.zanb" in out and "platform: zanb" in out, f"appinfo: {out!r}")
# A directory: main.zs compiled, the assets packed beside it.
write("app/main.zs", PROG)
write("app/assets/data.txt", "asset\n")
expect("build app", zan("build", "app")[::2], (0, ""))
rc, out, err = zan("appinfo", "app.zan")
check("entry:    main.zanb" in out and "files:    2" in out, f"app appinfo: {out!r}")
expect("run app.zan", zan("run", "app.zan")[:2], (42, "built\n"))
# Compile errors: one line, exit 1, nothing written (not even the temporary).
write("bad.zs", "func main\n  exit 1 +\n")
for name in ("bad.zanb", "bad.zana", "bad.zan"):
    expect(f"bad -o {name}", zan("build", "bad.zs", "-o", name), (1, "", "zan build: bad.zs: line 2: expression expected\n"))
    check(not glob.glob(os.path.join(WORK, name) + "*"), f"{name} or its temporary left behind")
write("empty.zs", "")
for args, want in [(["empty.zs", "-o", "e.zanb"], (1, "zan build: empty.zs: no func in the source\n")),
                   (["missing.zs"], (1, "zan build: cannot read missing.zs\n")),
                   (["prog.zs", "-o", "prog.txt"], (2, "zan build: prog.txt: the output must end in .zanb, .zana or .zan\n"))]:
    expect(f"build {args}", zan("build", *args)[::2], want)
counter_frames()
sys.exit(finish())
