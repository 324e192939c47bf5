#!/usr/bin/env python3
"""`zan store` through every form of the store (under wine only the bytecode ones: the others are shell scripts).
zan runs from <tmp>/build/bin (<tmp> being the repository root; @E, a drive path under wine), HOME <tmp>/home,
in <tmp>/cwd.   store.py --zan ZAN --zana2zanb Z --echo ECHO.zana [--wrapper wine]"""
import os, shutil, subprocess, sys, tempfile
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, check, expect, finish, home_env, WRAPPER

STORE = '#!/bin/sh\necho "$(basename "$0") args:$# cwd:$(pwd)"\n'
PACK = ('#!/bin/sh\necho "pack $#: $*"\nfor last; do :; done\nmkdir -p "$last"\n'  # extracts into its last argument
        'printf \'#!/bin/sh\\necho "extracted cwd:$(pwd)"\\n\' > "$last/zan-store"\nchmod +x "$last/zan-store"\n')
BUNDLE = "apps/zan_store/build/linux/x64/release/bundle"
FLUTTER = ('#!/bin/sh\necho "flutter $* in $(pwd)"\nmkdir -p {0}\nprintf \'#!/bin/sh\\necho built\\n\' > {0}/zan_store\n'
           'chmod +x {0}/zan_store\n').format(BUNDLE[15:])
BASE, BIN = "home/.zan/apps/zan-store", "build/bin/"
USAGE = """usage: zan store [--zan <store.zan>]
  launch the ZAN software store (zan-store, Flutter).
  resolution order:
    --zan <file>            app container (extract + run)
    ~/.zan/apps/zan-store.zan  store compiled by zan build
    $ZAN_STORE_APP          path to the store executable
    ~/.zan/apps/zan-store   previously extracted store
    repo build bundle       apps/zan_store build output
"""
NONE = ("zan store: no store found. Build it first:\n  cd apps/zan_store && flutter build linux --release\n"
        "then `zan store` (or: zan store --zan zan-store.zan)\n")
EXTRACTED = "\nextracted cwd:@T/" + BASE + "\n"
PACK_GONE = "zan store: extract failed (@T/build/bin/zan_flutter_pack not usable? install zan_flutter_pack next to zan)\n"

# (title, files {path: kind}, args, env, stdout, stderr, exit, allowed paths). Kinds: zan, zanb (the
# bytecode store), cut (it truncated), old (it, dated 2001), sh, pack, flutter, dir, link:T, text:T, exec:T.
CASES = [
    ("usage", {}, ["-h"], {}, USAGE, "", 0),
    ("no value", {}, ["--zanb"], {}, "", "zan store: unknown option '--zanb'\n", 2),
    ("bad word before a value", {}, ["-x", "a"], {}, "", "zan store: unknown option '-x'\n", 2),
    ("later --zanb wins", {"cwd/s.zanb": "zanb", "cwd/e.zan": "zan"}, ["--zanb", "e.zan", "--zanb", "s.zanb"],
     {"ZAN_STORE_ZANB": "e.zan"}, "zan store: running s.zanb\n--zanb\ne.zan\n--zanb\ns.zanb\n", "", 4),
    ("ZAN_STORE_ZANB", {"cwd/e.zan": "zan", BIN + "store.zan": "zan"}, [], {"ZAN_STORE_ZANB": "e.zan"},
     "zan store: running e.zan\n", "", 0),
    ("missing, dir, dangling link pass over", {"cwd/d.zan": "dir", "cwd/l.zan": "link:no", BIN + "store.zan": "zan"},
     ["--zanb", "l.zan", "--zan", "x.zan"], {"ZAN_STORE_ZANB": "d.zan"},
     "zan store: running @E/store.zan\n--zanb\nl.zan\n--zan\nx.zan\n", "", 4),
    ("../apps", {"build/apps/store.zan": "zan", BIN + "store.zanb": "zanb"}, [], {},
     "zan store: running @E/../apps/store.zan\n", "", 0),
    ("store.zanb", {BIN + "store.zanb": "zanb", "cwd/dist/apps/store.zan": "zan"}, [], {},
     "zan store: running @E/store.zanb\n", "", 0),
    ("dist", {"cwd/dist/apps/store.zan": "zan", BASE + ".zan": "old"}, [], {}, "zan store: running dist/apps/store.zan\n",
     "", 0),
    ("truncated", {"cwd/t.zan": "cut"}, ["--zanb", "t.zan"], {}, "zan store: running t.zan\n",
     "zan run: t.zan: truncated section table\n", 1),
    ("container before ZAN_STORE_APP", {BASE + ".zan": "old", BIN + "zan_flutter_pack": "pack"}, [],
     {"ZAN_STORE_APP": "/bin/false"}, "pack 3: extract @T/" + BASE + ".zan @T/" + BASE + EXTRACTED, "", 0, [BASE]),
    ("newer extraction kept", {BASE + ".zan": "old", BASE + "/zan-store": "sh"}, [], {},
     "zan-store args:0 cwd:@T/" + BASE + "\n", "", 0),
    ("--zan unquoted", {"cwd/my box.zan": "old", BIN + "zan_flutter_pack": "pack"}, ["--zan", "my box.zan"], {},
     "pack 4: extract my box.zan @T/" + BASE + EXTRACTED, "", 0, [BASE]),
    ("no pack", {BASE + ".zan": "old"}, [], {}, "", "sh: 1: @T/build/bin/zan_flutter_pack: not found\n" + PACK_GONE, 1),
    ("pack extracts nothing", {BASE + ".zan": "old", BIN + "zan_flutter_pack": "exec:#!/bin/sh\n"}, [], {}, "",
     "zan store: no executable in @T/" + BASE + "\n", 1),
    ("ZAN_STORE_APP before extracted", {"it's \"my\" store.sh": "sh", BASE + "/zan-store": "sh"}, [],
     {"ZAN_STORE_APP": "../it's \"my\" store.sh"}, "it's \"my\" store.sh args:0 cwd:@T\n", "", 0),
    ("ZAN_STORE_APP not executable", {"s.sh": "text:x"}, [], {"ZAN_STORE_APP": "@T/s.sh"}, "",
     "zan store: cannot start @T/s.sh: Permission denied\n", 1),
    ("extracted dir", {BASE + "/libfoo.so": "sh", BASE + "/data.bin": "sh", BASE + "/run.sh": "sh",
                       BASE + "/notes": "text:x", BASE + "/sub": "dir"}, [], {}, "run.sh args:0 cwd:@T/" + BASE + "\n", "", 0),
    ("directory order; before bundle", {BASE + "/store": "sh", BASE + "/run.sh": "sh", BUNDLE + "/b": "sh"}, [], {},
     "FIRST args:0 cwd:@T/" + BASE + "\n", "", 0),
    ("bundle", {BUNDLE + "/zan_store": "sh", BASE + "/dangling": "link:no"}, [], {},
     "zan_store args:0 cwd:@T/" + BUNDLE + "\n", "", 0),
    ("flutter build", {"apps/zan_store/x": "text:x", "home/.flutter/bin/flutter": "flutter"}, [], {},
     "flutter build linux --release in @T/apps/zan_store\nbuilt\n",
     "zan store: building store (flutter build linux --release)...\n", 0, ["apps/zan_store/build"]),
    ("nothing", {"home/.flutter/bin/flutter": "dir", BASE + "/.sh": "sh", BASE + "/a.so": "sh", BASE + "/a.b": "sh"},
     [], {}, "", NONE, 1),
    ("HOME unset", {BASE + "/zan-store": "sh"}, [], {"HOME": None, "ZAN_FLUTTER": "@T/none"}, "", NONE, 1),
]


def snapshot(tmp):  # a directory counts by its being there: new entries change its time
    return {os.path.relpath(os.path.join(d, n), tmp): "dir" if os.path.isdir(os.path.join(d, n))
            else os.lstat(os.path.join(d, n)).st_mtime_ns for d, ds, fs in os.walk(tmp) for n in ds + fs}


def run(case, zan, stores):
    title, files, args, env, out, err, code = case[:7]
    allowed = case[7] if len(case) > 7 else []
    tmp = os.path.realpath(tempfile.mkdtemp(prefix="zan-store-"))
    try:
        for d in (BIN, "home", "cwd"):
            os.makedirs(os.path.join(tmp, d), exist_ok=True)
        exe = os.path.join(tmp, BIN, "zan.exe" if WRAPPER else "zan")
        shutil.copy2(zan, exe)
        exe_dir = "Z:" + os.path.dirname(exe).replace("/", "\\") if WRAPPER else os.path.dirname(exe)
        for path, kind in files.items():
            full = os.path.join(tmp, path)
            os.makedirs(os.path.dirname(full), exist_ok=True)
            if kind == "dir":
                os.makedirs(full)
            elif kind.startswith("link:"):
                os.symlink(kind[5:], full)
            elif kind in stores:
                open(full, "wb").write(stores[kind])
                if kind == "old":
                    os.utime(full, (1e9, 1e9))
            else:
                open(full, "w").write({"sh": STORE, "pack": PACK, "flutter": FLUTTER}.get(kind, kind[5:]))
                os.chmod(full, 0o644 if kind.startswith("text:") else 0o755)
        if "FIRST" in out:
            out = out.replace("FIRST", [n for n in os.listdir(os.path.join(tmp, BASE)) if n in ("store", "run.sh")][0])
        before = snapshot(tmp)
        e = dict(home_env(os.path.join(tmp, "home")), **{k: v.replace("@T", tmp) for k, v in env.items() if v is not None})
        e = {k: v for k, v in e.items() if env.get(k, "") is not None}
        r = subprocess.run(WRAPPER + [exe, "store"] + args, cwd=os.path.join(tmp, "cwd"), env=e, capture_output=True, timeout=20)
        fix = lambda t: t.replace("@E", exe_dir).replace("@T", tmp).encode()
        expect(title, (r.returncode, r.stdout, r.stderr), (code, fix(out), fix(err)))
        after = snapshot(tmp)
        stray = [p for p in set(before) | set(after) if before.get(p) != after.get(p) and not any(
            p == a or p.startswith(a + "/") or a.startswith(p + "/") for a in allowed)]
        check(not stray, f"{title}: changed outside the store: {sorted(stray)}")
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


def main():
    work = tempfile.mkdtemp(prefix="zan-store-apps-")
    try:
        subprocess.run(WRAPPER + [opts["--zan"], "pack", opts["--echo"], "-o", work + "/s.zan"], check=True, capture_output=True)
        subprocess.run(WRAPPER + [opts["--zana2zanb"], opts["--echo"], work + "/s.zanb"], check=True, capture_output=True)
        box, zanb = open(work + "/s.zan", "rb").read(), open(work + "/s.zanb", "rb").read()
        cases = CASES[:10] if WRAPPER else CASES  # the bytecode stores
        for case in cases:
            run(case, os.path.realpath(opts["--zan"]), {"zan": box, "old": box, "cut": box[:100], "zanb": zanb})
        return finish()
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
