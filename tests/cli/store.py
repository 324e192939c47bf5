#!/usr/bin/env python3
"""`zan store` through every form of the store, with real files.

    store.py --zan PATH --zana2zanb PATH --echo examples/echo.zana

Each case lays out a fresh tree, runs zan from <tmp>/build/bin (so the
repository root is <tmp>) with <tmp>/home as HOME and <tmp>/cwd as working
directory, and compares stdout, stderr and the exit code. The bytecode
store is examples/echo.zana: it prints its arguments and exits with their
count. A native store is a script that prints its arguments and working
directory; zan does not wait for it, but it holds zan's stdout, so reading
that to its end waits for the script. After each case no file may have
changed outside the case's allowed directories.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile

STORE_SH = '#!/bin/sh\necho "$(basename "$0") args:$# cwd:$(pwd)"\n'
# Extracts by making an executable zan-store in its last argument.
PACK_SH = ('#!/bin/sh\necho "pack $#: $*"\nfor last; do :; done\nmkdir -p "$last"\n'
           'printf \'#!/bin/sh\\necho "extracted cwd:$(pwd)"\\n\' > "$last/zan-store"\n'
           'chmod +x "$last/zan-store"\n')
BUNDLE = "apps/zan_store/build/linux/x64/release/bundle"
FLUTTER_SH = '#!/bin/sh\necho "flutter $* in $(pwd)"\nmkdir -p ' + BUNDLE[15:] + '\n' \
             'printf \'#!/bin/sh\\necho built\\n\' > ' + BUNDLE[15:] + '/zan_store\nchmod +x ' + BUNDLE[15:] + '/zan_store\n'
BASE = "home/.zan/apps/zan-store"
USAGE = """usage: zan store [--zan <store.zan>]
  launch the ZAN software store (zan-store, Flutter).
  resolution order:
    --zan <file>            app container (extract + run)
    ~/.zan/apps/zan-store.zan  store compiled by zan build
    $ZAN_STORE_APP          path to the store executable
    ~/.zan/apps/zan-store   previously extracted store
    repo build bundle       apps/zan_store build output
"""
NO_STORE = ("zan store: no store found. Build it first:\n  cd apps/zan_store && flutter build linux --release\n"
            "then `zan store` (or: zan store --zan zan-store.zan)\n")

# (title, files {path: kind}, args, env, stdout, stderr, exit, allowed dirs).
# Kinds: "zan"/"zanb" the bytecode store, "sh" the store script, "pack" and
# "flutter" the fake tools, "dir", "text" (not executable), "old" a
# container older than everything else, "link:TARGET", "exec:TEXT".
CASES = [
    ("usage", {}, ["-h"], {}, USAGE, "", 0),
    ("no value", {}, ["--zanb"], {}, "", "zan store: unknown option '--zanb'\n", 2),
    ("bad word", {}, ["--zan", "a", "-x"], {}, "", "zan store: unknown option '-x'\n", 2),
    ("--zanb", {"cwd/s.zanb": "zanb"}, ["--zanb", "s.zanb"], {},
     "zan store: running s.zanb\n--zanb\ns.zanb\n", "", 2),
    ("later pair wins", {"cwd/b.zan": "zan"}, ["--zanb", "a.zan", "--zanb", "b.zan"], {},
     "zan store: running b.zan\n--zanb\na.zan\n--zanb\nb.zan\n", "", 4),
    ("ZAN_STORE_ZANB", {"cwd/e.zan": "zan"}, [], {"ZAN_STORE_ZANB": "e.zan"}, "zan store: running e.zan\n", "", 0),
    ("--zanb first", {"cwd/s.zanb": "zanb", "cwd/e.zan": "zan"}, ["--zanb", "s.zanb"], {"ZAN_STORE_ZANB": "e.zan"},
     "zan store: running s.zanb\n--zanb\ns.zanb\n", "", 2),
    ("missing, dir, link pass over to beside zan",
     {"cwd/d.zan": "dir", "cwd/l.zan": "link:nowhere", "build/bin/store.zan": "zan"},
     ["--zanb", "missing.zan", "--zan", "x.zan"], {"ZAN_STORE_ZANB": "d.zan"},
     "zan store: running @T/build/bin/store.zan\n--zanb\nmissing.zan\n--zan\nx.zan\n", "", 4),
    ("../apps", {"build/apps/store.zan": "zan", "build/bin/store.zanb": "zanb"}, [], {},
     "zan store: running @T/build/bin/../apps/store.zan\n", "", 0),
    ("store.zanb", {"build/bin/store.zanb": "zanb", "cwd/dist/apps/store.zan": "zan"}, [], {},
     "zan store: running @T/build/bin/store.zanb\n", "", 0),
    ("dist", {"cwd/dist/apps/store.zan": "zan", BASE + ".zan": "old"}, [], {},
     "zan store: running dist/apps/store.zan\n", "", 0),
    ("truncated container", {"cwd/t.zan": "truncated"}, ["--zanb", "t.zan"], {},
     "zan store: running t.zan\n", "zan run: t.zan: truncated section table\n", 1),
    ("container wins over ZAN_STORE_APP", {BASE + ".zan": "old", "build/bin/zan_flutter_pack": "pack"}, [],
     {"ZAN_STORE_APP": "/bin/false"},
     "pack 3: extract @T/" + BASE + ".zan @T/" + BASE + "\nextracted cwd:@T/" + BASE + "\n", "", 0, [BASE]),
    ("newer extraction is not redone", {BASE + ".zan": "old", BASE + "/zan-store": "sh"}, [], {},
     "zan-store args:0 cwd:@T/" + BASE + "\n", "", 0),
    ("--zan is extracted, unquoted", {"cwd/my box.zan": "old", "build/bin/zan_flutter_pack": "pack"},
     ["--zan", "my box.zan"], {},
     "pack 4: extract my box.zan @T/" + BASE + "\nextracted cwd:@T/" + BASE + "\n", "", 0, [BASE]),
    ("no pack", {BASE + ".zan": "old"}, [], {}, "",
     "sh: 1: @T/build/bin/zan_flutter_pack: not found\n"
     "zan store: extract failed (@T/build/bin/zan_flutter_pack not usable? install zan_flutter_pack next to zan)\n", 1),
    ("pack leaves nothing", {BASE + ".zan": "old", "build/bin/zan_flutter_pack": "exec:#!/bin/sh\nexit 0\n"}, [], {},
     "", "zan store: no executable in @T/" + BASE + "\n", 1),
    ("ZAN_STORE_APP first, odd name", {"it's \"my\" store.sh": "sh", BASE + "/zan-store": "sh"}, [],
     {"ZAN_STORE_APP": "../it's \"my\" store.sh"}, "it's \"my\" store.sh args:0 cwd:@T\n", "", 0),
    ("ZAN_STORE_APP not executable", {"s.sh": "text:x"}, [], {"ZAN_STORE_APP": "@T/s.sh"}, "",
     "zan store: cannot start @T/s.sh: Permission denied\n", 1),
    ("ZAN_STORE_APP a directory", {}, [], {"ZAN_STORE_APP": "@T"}, "",
     "zan store: cannot start @T: Permission denied\n", 1),
    ("extracted dir", {BASE + "/libfoo.so": "sh", BASE + "/data.bin": "sh", BASE + "/.sh": "sh",
                       BASE + "/run.sh": "sh", BASE + "/notes": "text:x", BASE + "/sub": "dir"}, [], {},
     "run.sh args:0 cwd:@T/" + BASE + "\n", "", 0),
    ("extracted before bundle", {BASE + "/store": "sh", BASE + "/run.sh": "sh", BUNDLE + "/b": "sh"}, [], {},
     "FIRST args:0 cwd:@T/" + BASE + "\n", "", 0),
    ("bundle", {BUNDLE + "/zan_store": "sh", BASE + "/dangling": "link:nowhere"}, [], {},
     "zan_store args:0 cwd:@T/" + BUNDLE + "\n", "", 0),
    ("flutter build", {"apps/zan_store/pubspec.yaml": "text:x", "home/.flutter/bin/flutter": "flutter"}, [], {},
     "flutter build linux --release in @T/apps/zan_store\nbuilt\n",
     "zan store: building store (flutter build linux --release)...\n", 0, ["apps/zan_store/build"]),
    ("nothing", {"home/.flutter/bin/flutter": "dir", BASE + "/.sh": "sh", BASE + "/a.so": "sh", BASE + "/a.b": "sh"},
     [], {}, "", NO_STORE, 1),
    ("HOME unset", {}, [], {"HOME": None, "ZAN_FLUTTER": "@T/none"}, "", NO_STORE, 1),
]


def make(tmp, path, kind, store_zan, store_zanb):
    full = os.path.join(tmp, path)
    os.makedirs(os.path.dirname(full), exist_ok=True)
    if kind == "dir":
        os.makedirs(full, exist_ok=True)
    elif kind.startswith("link:"):
        os.symlink(kind[5:], full)
    elif kind in ("zan", "zanb", "truncated", "old"):
        data = open(store_zanb if kind == "zanb" else store_zan, "rb").read()
        open(full, "wb").write(data[:100] if kind == "truncated" else data)
        if kind == "old":
            os.utime(full, (1000000000, 1000000000))
    else:
        text = {"sh": STORE_SH, "pack": PACK_SH, "flutter": FLUTTER_SH}.get(kind, kind[5:])
        open(full, "w").write(text)
        os.chmod(full, 0o644 if kind.startswith("text:") else 0o755)


def snapshot(tmp):
    out = {}
    for d, dirs, files in os.walk(tmp):
        for n in dirs + files:
            p = os.path.join(d, n)
            st = os.lstat(p)
            # A directory counts by its being there: new entries change its time.
            out[os.path.relpath(p, tmp)] = "dir" if os.path.isdir(p) else (st.st_mtime_ns, st.st_size)
    return out


def run(case, zan, store_zan, store_zanb):
    title, files, args, env, out, err, code = case[:7]
    allowed = case[7] if len(case) > 7 else []
    tmp = os.path.realpath(tempfile.mkdtemp(prefix="zan-store-"))
    try:
        for d in ("build/bin", "home", "cwd"):
            os.makedirs(os.path.join(tmp, d), exist_ok=True)
        shutil.copy2(zan, os.path.join(tmp, "build/bin/zan"))
        for path, kind in files.items():
            make(tmp, path, kind, store_zan, store_zanb)
        if "FIRST" in out:  # the executable met first in directory order
            first = [n for n in os.listdir(os.path.join(tmp, BASE)) if n in ("store", "run.sh")][0]
            out = out.replace("FIRST", first)
        before = snapshot(tmp)
        e = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": os.path.join(tmp, "home")}
        for k, v in env.items():
            if v is None:
                e.pop(k)
            else:
                e[k] = v.replace("@T", tmp)
        r = subprocess.run([os.path.join(tmp, "build/bin/zan"), "store"] + args, cwd=os.path.join(tmp, "cwd"),
                           env=e, capture_output=True, timeout=20)
        problems = []
        if r.returncode != code:
            problems.append(f"exit {r.returncode}, expected {code}")
        for name, want, got in (("stdout", out, r.stdout), ("stderr", err, r.stderr)):
            want = want.replace("@T", tmp).encode()
            if got != want:
                problems.append(f"{name}:\n  expected {want!r}\n  actual   {got!r}")
        after = snapshot(tmp)
        changed = [p for p in set(before) | set(after) if before.get(p) != after.get(p)]
        stray = [p for p in changed
                 if not any(p == a or p.startswith(a + "/") or a.startswith(p + "/") for a in allowed)]
        if stray:
            problems.append(f"changed outside the store: {sorted(stray)}")
        return problems
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--zana2zanb", required=True)
    ap.add_argument("--echo", required=True)
    opts = ap.parse_args()
    work = tempfile.mkdtemp(prefix="zan-store-apps-")
    try:
        store_zan, store_zanb = os.path.join(work, "store.zan"), os.path.join(work, "store.zanb")
        subprocess.run([opts.zan, "pack", opts.echo, "-o", store_zan], check=True, capture_output=True)
        subprocess.run([opts.zana2zanb, opts.echo, store_zanb], check=True, capture_output=True)
        failed = 0
        for case in CASES:
            problems = run(case, os.path.realpath(opts.zan), store_zan, store_zanb)
            print(("FAIL " if problems else "ok   ") + case[0])
            for p in problems:
                print("  " + p)
            failed += bool(problems)
        print(f"{len(CASES)} cases, {failed} failed")
        return 1 if failed else 0
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
