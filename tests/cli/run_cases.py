#!/usr/bin/env python3
"""Runs the cases of .case files against a built zan; stdout, stderr and exit code must match exactly. windows:
zan.exe and .dll plugins, through --wrapper (wine) when given.   run_cases.py --zan PATH --zana2zanb PATH
[--plugins DIR] [--platform linux|windows] [--wrapper PROG] FILE...

"=== TITLE" opens a case, "=== text NAME" a named text (its lines up to the next section). A case: header
lines, then blocks opened by "--- ". Header: `args: run "two words"` (split as a shell would; each args
line runs the case once), `env: NAME=VALUE` (repeatable; before the first section: every case), `exit: N`
(default 0); `env windows:` / `exit windows:` are a Windows build's own values. Blocks:
    --- stdout|stderr [text=NAME] [noeol] [hex] [part] [windows]   expected output (missing: empty; part:
                                   found within it; windows: a Windows build's own)
    --- stdin / --- file NAME [size=N] [text=T] [exec]   standard input / a text fixture
    --- zana NAME [size=N]         ZANA text, assembled by zana2zanb into NAME
    --- hex NAME [size=N] [text=T] bytes: "5a41", "BB*N" (N copies), "quoted" (\\n \\t \\0 \\" \\\\), "#" comments
    --- link NAME / --- copy NAME  a symbolic link to / a copy of the body's line
Body lines end with a line feed (noeol: not the last); trailing blank and "#" lines are dropped; a leading
backslash is dropped ("\\---", "\\#", a lone "\\" for a kept empty line); "@@ N TEXT" is N lines of TEXT, {i}
counting from 0; size=N cuts or zero-pads. @TMP@ (the case's directory, cwd and HOME), @ZAN@, @PLUGINS@ and
@SO@ (".so" or ".dll") are replaced in args, env, stdin, fixture names and texts, link and copy bodies and
expected output. zan runs as a copy in a directory of its own with only PATH, HOME and the env lines set.
"""
import os, re, shlex, shutil, subprocess, sys, tempfile
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, WRAPPER  # WRAPPER: --wrapper, the program that runs a Windows build here

WINDOWS = opts.get("--platform") == "windows"


def body(lines, noeol=False):
    while lines and not lines[-1].strip():
        lines = lines[:-1]
    lines = [x for l in lines for x in ([l] if not l.startswith("@@ ") else
             [l.split(" ", 2)[2].replace("{i}", str(i)) for i in range(int(l.split(" ", 2)[1]))])]
    text = "".join((l[1:] if l.startswith("\\") else l) + "\n" for l in lines)
    return text[:-1] if noeol and text else text


def hex_bytes(lines):
    out = bytearray()
    for line in lines:
        for tok in re.findall(r'"(?:\\.|[^"\\])*"|#.*|\S+', line):
            if tok.startswith("#"):
                break
            if tok.startswith('"'):
                out += re.sub(r"\\(.)", lambda m: {"n": "\n", "t": "\t", "0": "\0"}.get(m[1], m[1]),
                              tok[1:-1]).encode()
            elif "*" in tok:
                b, n = tok.split("*")
                out += bytes.fromhex(b) * int(n)
            else:
                out += bytes.fromhex(tok)
    return bytes(out)


def parse(path):
    sections, blocks, common = [], None, {}
    for line in open(path, encoding="utf-8").read().split("\n"):
        if not sections and line.startswith("env:"):
            k, _, v = line[4:].strip().partition("=")
            common[k] = v
        elif line.startswith("=== "):
            sections.append((line[4:].strip(), [], []))
            blocks = None
        elif line.startswith("--- "):
            blocks = sections[-1][2]
            blocks.append((line[4:].split(), []))
        elif blocks is not None:
            blocks[-1][1].append(line)
        elif sections and (sections[-1][0].startswith("text ") or line.strip() and line[0] != "#"):
            sections[-1][1].append(line)
    for _, h, bl in sections:  # comments between sections belong to no block
        last = bl[-1][1] if bl else h
        while last and (not last[-1].strip() or last[-1].startswith("#")):
            last.pop()
    texts = {t[5:]: body(h) for t, h, _ in sections if t.startswith("text ")}
    cases = []
    for title, header, bl in sections:
        if title.startswith("text "):
            continue
        c = {"title": title, "args": [], "env": dict(common), "exit": 0, "stdin": b"", "stdout": b"", "stderr": b"", "fix": []}
        for line in header:
            k, _, v = line.partition(":")
            v = v.strip()
            if k.endswith(" windows"):  # a Windows build's own value, or nothing here
                k = k[:-8]
                if not WINDOWS:
                    continue
            if k == "args":
                c["args"].append(shlex.split(v))
            elif k == "env":
                c["env"][v.split("=", 1)[0]] = v.split("=", 1)[1]
            elif k == "exit":
                c["exit"] = int(v)
            else:
                raise SystemExit(f"{path}: {title}: bad header line {line!r}")
        for (kind, *words), lines in bl:
            flags = ("noeol", "hex", "exec", "part", "windows")
            opt = dict((w.split("=", 1) + [True])[:2] for w in words if "=" in w or w in flags)
            name = next((w for w in words if "=" not in w and w not in flags), None)
            text = texts[opt["text"]] if "text" in opt else body(lines, "noeol" in opt)
            if "text" in opt and "noeol" in opt:
                text = text[:-1]
            if kind in ("stdout", "stderr", "stdin"):
                win = "windows" in opt
                if (win and not WINDOWS) or (not win and kind + "win" in c):
                    continue  # another platform's block, or the Windows block came first
                if win:
                    c[kind + "win"] = True
                c[kind] = hex_bytes(lines) if "hex" in opt else text.encode()
                c[kind + "part"] = "part" in opt
            else:
                data = hex_bytes(text.split("\n")) if kind == "hex" else text.strip() if kind in ("link", "copy") else text
                c["fix"].append((kind, name, data, int(opt["size"]) if "size" in opt else None, "exec" in opt))
        c["args"] = c["args"] or [[]]
        cases.append(c)
    return cases


def run(c, args, zan, tools, plugins):
    with tempfile.TemporaryDirectory(prefix="zan-cli-") as tmp:
        tmp = os.path.realpath(tmp)
        sub = lambda s: s.replace("@TMP@", tmp).replace("@ZAN@", zan).replace("@PLUGINS@", plugins).replace(
            "@SO@", ".dll" if WINDOWS else ".so")
        subb = lambda b: sub(b.decode("latin-1")).encode("latin-1")
        for kind, name, data, size, ex in c["fix"]:
            target = os.path.join(tmp, sub(name))
            os.makedirs(os.path.dirname(target), exist_ok=True)
            if kind in ("link", "copy"):
                (os.symlink if kind == "link" else shutil.copyfile)(sub(data), target)
                continue
            if kind == "zana":
                src = os.path.join(tmp, ".src.zana")
                open(src, "w").write(data)
                r = subprocess.run(WRAPPER + [tools, src, target], capture_output=True)
                os.remove(src)
                if r.returncode:
                    return [f"zana2zanb failed on {name}: {r.stderr.decode()}"]
                data = open(target, "rb").read()
            elif kind == "file":
                data = sub(data).encode()
            if size is not None:
                data = data[:size] + b"\0" * max(0, size - len(data))
            open(target, "wb").write(data)
            if ex:
                os.chmod(target, 0o755)
        env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": tmp}
        if WINDOWS:
            # What wine itself needs: its prefix, its switches, the display.
            env.update({k: v for k, v in os.environ.items() if k.startswith("WINE") or k == "DISPLAY"})
            env["LANG"] = "C.UTF-8"  # the encoding wine reads this environment in
        env.update({k: sub(v) for k, v in c["env"].items()})
        if WINDOWS and WRAPPER:
            # wine keeps HOME, TEMP and TMP of the host to itself and hands
            # the program the WINE-prefixed ones under the plain names.
            env.update({"WINE" + k: env[k] for k in ("HOME", "TEMP", "TMP") if k in env})
        try:
            r = subprocess.run(WRAPPER + [zan] + [sub(a) for a in args], cwd=tmp, env=env, input=subb(c["stdin"]),
                               capture_output=True, timeout=20)
        except subprocess.TimeoutExpired:
            return ["timed out"]
        bad = [] if r.returncode == c["exit"] else [f"exit code {r.returncode}, expected {c['exit']}"]
        for label in ("stdout", "stderr"):
            want = subb(c[label])
            if want != getattr(r, label) and not (c.get(label + "part") and want in getattr(r, label)):
                bad.append(f"{label}:\n  expected {want!r}\n  actual   {getattr(r, label)!r}")
        return bad


def main():
    failed = 0
    with tempfile.TemporaryDirectory(prefix="zan-cli-bin-") as bindir:
        # A copy of its own, so the plugins built beside the real zan don't join.
        zan = os.path.join(bindir, "zan.exe" if WINDOWS else "zan")
        shutil.copy2(os.path.realpath(opts["--zan"]), zan)
        plugins = os.path.realpath(opts["--plugins"]) if opts.get("--plugins") else ""
        for path in [a for a in sys.argv[1:] if a.endswith(".case")]:
            for c in parse(path):
                for args in c["args"]:
                    bad = run(c, args, zan, os.path.realpath(opts["--zana2zanb"]), plugins)
                    failed += bool(bad)
                    print(("FAIL " if bad else "ok   ") + c["title"] + ("  $ zan " + shlex.join(args) if bad else ""))
                    for b in bad:
                        print("  " + b)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
