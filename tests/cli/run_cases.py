#!/usr/bin/env python3
"""Runs the CLI cases of one or more .case files against a built zan.

    run_cases.py --zan PATH --zana2zanb PATH [--plugins DIR] [-k TEXT]
                 [--platform linux|windows] [--wrapper PROGRAM] FILE.case...

--platform windows checks a Windows build (zan.exe and .dll plugins), run
through --wrapper (wine) when given.

Each case runs zan once, in a fresh temporary directory holding the case's
fixture files, and compares stdout, stderr and the exit code exactly.

Case file format
----------------
A file is a sequence of sections; each starts with a line beginning "=== ".
Before the first section only blank lines and "#" comments may stand.

    === text NAME           a named text, usable by any case of the same file
    === TITLE               a case; any other title

A case opens with header lines (blank lines and "#" comments allowed):

    args: run "two words" x.zanb   the words after `zan`, split like a POSIX
                                   shell would (quotes, backslashes); no
                                   args line runs `zan` alone
    env: NAME=VALUE                 one variable; repeat the line for more
    env windows: NAME=VALUE         a variable for a Windows build instead
                                    of the env line of that name
    exit: N                         the expected exit code (required)
    exit windows: N                 the exit code a Windows build gives, where
                                    it differs
    pending: REASON                 the case is expected to fail until REASON
                                    is done; it fails if it passes

followed by blocks. A block runs from its "--- " line to the next "--- " or
"=== " line:

    --- stdout [text=NAME] [noeol] [hex]  expected standard output; with
                                    hex, bytes written as in a hex block
    --- stderr [text=NAME] [noeol] [hex]  expected standard error
    --- stdout windows [...]        the expected output of a Windows build,
    --- stderr windows [...]        where its text really differs (system
                                    error texts, "\\" in paths); same options
    --- stdin [noeol]               standard input (default: empty)
    --- file NAME [size=N] [noeol] [text=T] [exec]   a text fixture file;
                                    exec makes it executable
    --- zana NAME [size=N] [text=T] ZANA text, assembled by zana2zanb into NAME
    --- link NAME                   a symbolic link; the body's one line is
                                    its target
    --- copy NAME                   a copy of the file the body's one line
                                    names (a built test plugin, say)
    --- hex NAME [size=N] [text=T]  raw bytes: hex digits ("5a 41" or "5a41"),
                                    "BB*N" for N copies of byte BB, and
                                    "quoted text" for its UTF-8 bytes (escapes
                                    \\n \\t \\0 \\" \\\\); whitespace separates,
                                    "#" starts a comment

text=NAME takes the body from the named text instead; the block then has no
body of its own.

Blank lines and "#" lines right before a "===" line are comments between
sections, not part of the block above them; write "\\#" for a body line that
starts with "#" there.

A missing stdout or stderr block means that stream must be empty. Text
bodies end every line with a line feed ("noeol" drops the last one); trailing
blank lines of a body are dropped. A body line starting with a backslash
loses that one backslash, so "\\---" is a line "---" and a lone "\\" is an
empty line that is kept even at the end. `size=N` cuts the fixture to N bytes
or pads it with zero bytes to N.

Fixture names may hold "/": the directories are made. Cases run a copy of zan placed in a directory of its own, with no plugins
beside it. In args, env values,
stdin, fixture names, text fixtures, link and copy bodies and expected output, @TMP@ stands
for the case's directory, @ZAN@ for the path of zan and @PLUGINS@ for the
directory of the built test plugins, and @SO@ for the platform's plugin suffix
(".so", or ".dll" on Windows). Cases run with the
case's directory as working directory and HOME, and an environment holding
only PATH, HOME and the case's env lines.
"""

import argparse
import shutil
import difflib
import os
import re
import shlex
import subprocess
import sys
import tempfile

TIMEOUT_SECONDS = 20  # a safety net against hangs, not a synchronisation

MARKER = re.compile(r"^(===|---)( |$)")


class CaseFileError(Exception):
    pass


class Block:
    def __init__(self, kind, words, lineno):
        self.kind = kind
        self.words = words
        self.lineno = lineno
        self.lines = []
        self.options = {}
        self.name = None


class Case:
    def __init__(self, title, path, lineno):
        self.title = title
        self.where = f"{path}:{lineno}"
        self.args = []
        self.env = {}
        self.envWindows = {}
        self.exit = None
        self.exitWindows = None
        self.pending = None
        self.stdin = b""
        self.stdout = b""
        self.stderr = b""
        self.stdoutWindows = None  # None: the same as stdout
        self.stderrWindows = None
        self.fixtures = []  # (kind, name, bytes, size)


def is_comment_or_blank(line):
    return not line.strip() or line.startswith("#")


def body_text(lines, noeol):
    lines = list(lines)
    while lines and lines[-1].strip() == "":
        lines.pop()
    out = []
    for line in lines:
        out.append(line[1:] if line.startswith("\\") else line)
    if not out:
        return ""
    text = "\n".join(out) + "\n"
    return text[:-1] if noeol else text


def hex_bytes(lines, where):
    out = bytearray()
    for n, line in enumerate(lines):
        rest = line
        while rest:
            rest = rest.lstrip()
            if not rest or rest.startswith("#"):
                break
            if rest.startswith('"'):
                end = 1
                chars = []
                while end < len(rest) and rest[end] != '"':
                    if rest[end] == "\\" and end + 1 < len(rest):
                        end += 1
                        chars.append({"n": "\n", "t": "\t", "0": "\0"}.get(rest[end], rest[end]))
                    else:
                        chars.append(rest[end])
                    end += 1
                if end >= len(rest):
                    raise CaseFileError(f"{where}: unterminated string in hex block")
                out += "".join(chars).encode("utf-8")
                rest = rest[end + 1:]
                continue
            token = rest.split(None, 1)[0]
            rest = rest[len(token):]
            m = re.fullmatch(r"([0-9a-fA-F]{2})\*(\d+)", token)
            if m:
                out += bytes([int(m.group(1), 16)]) * int(m.group(2))
            elif re.fullmatch(r"(?:[0-9a-fA-F]{2})+", token):
                out += bytes.fromhex(token)
            else:
                raise CaseFileError(f"{where}: bad hex token {token!r}")
    return bytes(out)


def parse_options(block, allowed, where):
    for word in block.words:
        if "=" in word:
            key, value = word.split("=", 1)
        else:
            key, value = word, True
        if key not in allowed:
            raise CaseFileError(f"{where}: '--- {block.kind}' takes no option {word!r}")
        block.options[key] = value
    if "size" in block.options:
        try:
            block.options["size"] = int(block.options["size"])
        except ValueError:
            raise CaseFileError(f"{where}: size must be a number")


def parse_file(path):
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    if lines and lines[-1] == "":
        lines.pop()

    # Split into sections: (title, lineno, header lines, blocks).
    sections = []
    cur = None
    block = None
    for i, line in enumerate(lines, 1):
        m = MARKER.match(line)
        if m and m.group(1) == "===":
            # "#" and blank lines right before a section belong to no block.
            if block is not None:
                while block.lines and is_comment_or_blank(block.lines[-1]):
                    block.lines.pop()
            elif cur is not None:
                while cur["header"] and is_comment_or_blank(cur["header"][-1][1]):
                    cur["header"].pop()
            cur = {"title": line[4:].strip(), "lineno": i, "header": [], "blocks": []}
            sections.append(cur)
            block = None
        elif m:
            if cur is None:
                raise CaseFileError(f"{path}:{i}: block outside a section")
            words = line[4:].split()
            if not words:
                raise CaseFileError(f"{path}:{i}: block without a kind")
            block = Block(words[0], words[1:], i)
            cur["blocks"].append(block)
        elif cur is None:
            if line.strip() and not line.startswith("#"):
                raise CaseFileError(f"{path}:{i}: text before the first '===' line")
        elif block is not None:
            block.lines.append(line)
        elif cur["title"].startswith("text "):
            cur["header"].append((i, line))
        elif line.strip() and not line.startswith("#"):
            cur["header"].append((i, line))

    if block is not None:
        while block.lines and is_comment_or_blank(block.lines[-1]):
            block.lines.pop()

    texts = {}
    for s in sections:
        if s["title"].startswith("text "):
            name = s["title"][5:].strip()
            if s["blocks"]:
                raise CaseFileError(f"{path}:{s['lineno']}: a text section holds no blocks")
            texts[name] = body_text([l for _, l in s["header"]], False)

    cases = []
    for s in sections:
        if s["title"].startswith("text "):
            continue
        if not s["title"]:
            raise CaseFileError(f"{path}:{s['lineno']}: a case needs a title")
        case = Case(s["title"], path, s["lineno"])
        for lineno, line in s["header"]:
            where = f"{path}:{lineno}"
            key, sep, value = line.partition(":")
            if not sep:
                raise CaseFileError(f"{where}: expected 'key: value', got {line!r}")
            key, value = key.strip(), value.strip()
            if key == "args":
                try:
                    case.args = shlex.split(value)
                except ValueError as e:
                    raise CaseFileError(f"{where}: {e}")
            elif key in ("env", "env windows"):
                name, eq, val = value.partition("=")
                if not eq or not name:
                    raise CaseFileError(f"{where}: {key} needs NAME=VALUE")
                (case.env if key == "env" else case.envWindows)[name] = val
            elif key in ("exit", "exit windows"):
                if not re.fullmatch(r"\d+", value):
                    raise CaseFileError(f"{where}: {key} needs a number")
                setattr(case, "exit" if key == "exit" else "exitWindows", int(value))
            elif key == "pending":
                if not value:
                    raise CaseFileError(f"{where}: pending needs a reason")
                case.pending = value
            else:
                raise CaseFileError(f"{where}: unknown key {key!r}")
        if case.exit is None:
            raise CaseFileError(f"{case.where}: case {case.title!r} has no exit line")

        seen = set()
        for b in s["blocks"]:
            where = f"{path}:{b.lineno}"
            if b.kind in ("stdout", "stderr", "stdin"):
                parse_options(b, {"text", "noeol", "hex", "windows"} if b.kind != "stdin" else {"noeol"}, where)
                field = b.kind + ("Windows" if b.options.pop("windows", False) else "")
                if field in seen:
                    raise CaseFileError(f"{where}: second {b.kind} block" +
                                        (" for windows" if field != b.kind else ""))
                seen.add(field)
                if "text" in b.options:
                    if any(l.strip() for l in b.lines):
                        raise CaseFileError(f"{where}: a block with text= has no body")
                    if b.options["text"] not in texts:
                        raise CaseFileError(f"{where}: no text named {b.options['text']!r}")
                    text = texts[b.options["text"]]
                    if "noeol" in b.options and text.endswith("\n"):
                        text = text[:-1]
                elif "hex" in b.options:
                    setattr(case, field, hex_bytes(b.lines, where))
                    continue
                else:
                    text = body_text(b.lines, "noeol" in b.options)
                setattr(case, field, text.encode("utf-8"))
            elif b.kind in ("file", "zana", "hex", "link", "copy"):
                if not b.words or "=" in b.words[0]:
                    raise CaseFileError(f"{where}: '--- {b.kind}' needs a file name")
                name = b.words[0]
                if name.startswith("/") or ".." in name.split("/") or name in (".", ""):
                    raise CaseFileError(f"{where}: fixture names are relative paths inside the case")
                b.words = b.words[1:]
                if b.kind in ("link", "copy"):
                    parse_options(b, set(), where)
                    lines = [l for l in b.lines if l.strip()]
                    if len(lines) != 1:
                        raise CaseFileError(f"{where}: a {b.kind} block holds exactly one line")
                    case.fixtures.append((b.kind, name, lines[0].strip().encode("utf-8"), None))
                    continue
                parse_options(b, {"size", "noeol", "text", "exec"} if b.kind == "file" else {"size", "text"},
                              where)
                lines = b.lines
                if "text" in b.options:
                    if any(l.strip() for l in b.lines):
                        raise CaseFileError(f"{where}: a block with text= has no body")
                    if b.options["text"] not in texts:
                        raise CaseFileError(f"{where}: no text named {b.options['text']!r}")
                    lines = texts[b.options["text"]].split("\n")
                if b.kind == "hex":
                    content = hex_bytes(lines, where)
                else:
                    content = body_text(lines, "noeol" in b.options).encode("utf-8")
                kind = "exec" if "exec" in b.options else b.kind
                case.fixtures.append((kind, name, content, b.options.get("size")))
            else:
                raise CaseFileError(f"{where}: unknown block kind {b.kind!r}")
        cases.append(case)
    return cases


PLUGINS = ""  # --plugins
WINDOWS = False  # --platform windows
WRAPPER = []  # --wrapper: the program that runs a Windows build here


def subst(data, tmp, zan):
    return data.replace(b"@TMP@", tmp.encode()).replace(b"@ZAN@", zan.encode()).replace(
        b"@PLUGINS@", PLUGINS.encode()).replace(b"@SO@", b".dll" if WINDOWS else b".so")


def subst_text(text, tmp, zan):
    return subst(text.encode("utf-8"), tmp, zan).decode("utf-8")


def make_fixtures(case, tmp, zan, zana2zanb, scratch):
    for kind, name, content, size in case.fixtures:
        target = os.path.join(tmp, subst_text(name, tmp, zan))
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if kind == "link":
            os.symlink(subst(content, tmp, zan).decode("utf-8"), target)
            continue
        if kind == "copy":
            shutil.copyfile(subst(content, tmp, zan).decode("utf-8"), target)
            continue
        if kind == "zana":
            src = os.path.join(scratch, name + ".zana")
            with open(src, "wb") as f:
                f.write(content)
            try:
                r = subprocess.run(WRAPPER + [zana2zanb, src, target], capture_output=True,
                                   timeout=TIMEOUT_SECONDS)
            except (OSError, subprocess.TimeoutExpired) as e:
                return f"fixture {name}: cannot run zana2zanb: {e}"
            if r.returncode != 0:
                return f"fixture {name}: zana2zanb failed ({r.returncode}): " + r.stderr.decode(
                    "utf-8", "backslashreplace").strip()
            with open(target, "rb") as f:
                content = f.read()
        elif kind in ("file", "exec"):
            content = subst(content, tmp, zan)
        if size is not None:
            content = content[:size] + b"\0" * max(0, size - len(content))
        with open(target, "wb") as f:
            f.write(content)
        if kind == "exec":
            os.chmod(target, 0o755)
    return None


def show(data):
    return data.decode("utf-8", "backslashreplace")


def diff(label, expected, actual):
    exp = show(expected).splitlines(keepends=True)
    act = show(actual).splitlines(keepends=True)
    out = [f"  {label} differs (--- expected, +++ actual):\n"]
    for line in difflib.unified_diff(exp, act, "expected", "actual", n=2):
        if line.startswith(("---", "+++")):
            continue
        out.append("    " + line.rstrip("\n") + "\n")
        if not line.endswith("\n"):
            out.append("    \\ no line feed at the end\n")
    return "".join(out)


def run_case(case, zan, zana2zanb):
    """Gives a list of problems; empty when the case passed."""
    with tempfile.TemporaryDirectory(prefix="zan-cli-") as tmp, \
            tempfile.TemporaryDirectory(prefix="zan-cli-src-") as scratch:
        tmp = os.path.realpath(tmp)
        err = make_fixtures(case, tmp, zan, zana2zanb, scratch)
        if err:
            return [err]
        env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": tmp}
        if WINDOWS:
            # What wine itself needs: its prefix, its switches, the display.
            env.update({k: v for k, v in os.environ.items() if k.startswith("WINE") or k == "DISPLAY"})
            env["LANG"] = "C.UTF-8"  # the encoding wine reads this environment in
        for k, v in (case.env | case.envWindows if WINDOWS else case.env).items():
            env[k] = subst_text(v, tmp, zan)
        if WINDOWS and WRAPPER:
            # wine keeps HOME, TEMP and TMP of the host to itself and hands
            # the program the WINE-prefixed ones under the plain names.
            for k in ("HOME", "TEMP", "TMP"):
                if k in env:
                    env["WINE" + k] = env[k]
        argv = WRAPPER + [zan] + [subst_text(a, tmp, zan) for a in case.args]
        try:
            r = subprocess.run(argv, cwd=tmp, env=env, input=subst(case.stdin, tmp, zan),
                               capture_output=True, timeout=TIMEOUT_SECONDS)
        except subprocess.TimeoutExpired:
            return [f"timed out after {TIMEOUT_SECONDS}s"]
        except OSError as e:
            return [f"cannot run zan: {e}"]
        problems = []
        want_exit, want_out, want_err = case.exit, case.stdout, case.stderr
        if WINDOWS:
            want_exit = case.exit if case.exitWindows is None else case.exitWindows
            want_out = case.stdout if case.stdoutWindows is None else case.stdoutWindows
            want_err = case.stderr if case.stderrWindows is None else case.stderrWindows
        if r.returncode < 0:
            problems.append(f"killed by signal {-r.returncode}")
        elif r.returncode != want_exit:
            problems.append(f"exit code {r.returncode}, expected {want_exit}")
        for label, expected, actual in (("stdout", want_out, r.stdout),
                                        ("stderr", want_err, r.stderr)):
            expected = subst(expected, tmp, zan)
            if expected != actual:
                problems.append(diff(label, expected, actual))
        return problems


def main():
    ap = argparse.ArgumentParser(description="Run zan CLI case files.")
    ap.add_argument("--zan", required=True, help="path of the built zan")
    ap.add_argument("--zana2zanb", required=True, help="path of the ZANA assembler tool")
    ap.add_argument("--plugins", default="", help="directory of the built test plugins")
    ap.add_argument("-k", dest="filter", help="run only cases whose title contains this text")
    ap.add_argument("--platform", choices=("linux", "windows"), default="linux",
                    help="the platform zan was built for")
    ap.add_argument("--wrapper", default="", help="program that runs zan (wine for a Windows build)")
    ap.add_argument("files", nargs="+")
    opts = ap.parse_args()
    # Cases run a copy of zan in a directory of its own, so that the plugins
    # built beside the real one (found through the executable's directory)
    # don't join every case; cases choose their plugins with ZAN_PLUGIN_PATH,
    # ./plugins or HOME.
    global WINDOWS, WRAPPER
    WINDOWS = opts.platform == "windows"
    WRAPPER = [opts.wrapper] if opts.wrapper else []
    bindir = tempfile.mkdtemp(prefix="zan-cli-bin-")
    zan = os.path.join(bindir, "zan.exe" if WINDOWS else "zan")
    shutil.copy2(os.path.realpath(opts.zan), zan)
    try:
        return run_files(opts, zan)
    finally:
        shutil.rmtree(bindir, ignore_errors=True)


def run_files(opts, zan):
    zana2zanb = os.path.realpath(opts.zana2zanb)
    global PLUGINS
    PLUGINS = os.path.realpath(opts.plugins) if opts.plugins else ""

    total = failed = pending = 0
    for path in opts.files:
        try:
            cases = parse_file(path)
        except (CaseFileError, OSError, UnicodeDecodeError) as e:
            print(f"ERROR {e}")
            failed += 1
            continue
        if not cases:
            print(f"ERROR {path}: no cases")
            failed += 1
        for case in cases:
            if opts.filter and opts.filter not in case.title:
                continue
            total += 1
            problems = run_case(case, zan, zana2zanb)
            if case.pending:
                if problems:
                    pending += 1
                    print(f"pending {case.title}  [{case.pending}]")
                else:
                    failed += 1
                    print(f"FAIL {case.title}  ({case.where})")
                    print(f"  passes now: remove its 'pending: {case.pending}' line")
            elif problems:
                failed += 1
                print(f"FAIL {case.title}  ({case.where})")
                print(f"  $ zan {shlex.join(case.args)}")
                for p in problems:
                    print(p if p.startswith("  ") else "  " + p, end="" if p.endswith("\n") else "\n")
            else:
                print(f"ok   {case.title}")
    print(f"{total} cases, {failed} failed" + (f", {pending} pending" if pending else ""))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
