#!/usr/bin/env python3
"""Plants each fault of a list, one at a time, in a scratch copy of the repository
and records whether the test suite catches it.

    plant_faults.py FAULTS SCRATCH_DIR OUT

A fault line is `file|text|replacement` ("\\|" for a literal bar); the text
must occur exactly once. The scratch copy and its build directory are reused:
each run first copies over the files that changed, so a later run after the
tests changed rebuilds only what it must. OUT gets one line per fault:
caught, missed, nomatch or nobuild, a tab, the fault line.
"""
import os, re, shutil, subprocess, sys

faults, scratch, out = sys.argv[1:4]
repo = subprocess.check_output(["git", "rev-parse", "--show-toplevel"], text=True,
                               cwd=os.path.dirname(os.path.abspath(__file__))).strip()
build = os.path.join(scratch, "build")
files = set(subprocess.check_output(["git", "ls-files", "-co", "--exclude-standard"], cwd=repo,
                                    text=True).split("\n")) - {""}
for root, dirs, names in os.walk(scratch):
    dirs[:] = [d for d in dirs if os.path.join(root, d) != build]
    for n in names:
        rel = os.path.relpath(os.path.join(root, n), scratch)
        if rel not in files: os.remove(os.path.join(scratch, rel))
for rel in files:
    src, dst = os.path.join(repo, rel), os.path.join(scratch, rel)
    if not os.path.isfile(src): continue
    if not os.path.exists(dst) or open(src, "rb").read() != open(dst, "rb").read():
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        shutil.copy2(src, dst)

def sh(*cmd, cwd=build):
    return subprocess.run(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode

def suite():  # the unit tests first: most faults stop there
    t = ["ctest", "-j2", "--stop-on-failure", "--timeout", "120"]
    return sh(*t, "-E", r"^(cli|llama|gguf)\.") == 0 and sh(*t, "-R", r"^(cli|llama|gguf)\.") == 0

if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
    sh("cmake", "-S", ".", "-B", "build", "-DZAN_BENCH=OFF", "-DCMAKE_BUILD_TYPE=None",
       "-DCMAKE_CXX_FLAGS=-O1", "-DCMAKE_C_FLAGS=-O1", cwd=scratch)
if sh("cmake", "--build", ".", "-j2") or not suite():
    sys.exit("the unfaulted copy does not build and pass")
with open(out, "w") as log:
    for line in open(faults).read().splitlines():
        if not line.strip() or line.startswith("#"): continue
        rel, text, repl = [p.replace("\\|", "|") for p in re.split(r"(?<!\\)\|", line)]
        path = os.path.join(scratch, rel)
        orig = open(path).read()
        if orig.count(text) != 1:
            verdict = "nomatch"
        else:
            open(path, "w").write(orig.replace(text, repl))
            verdict = "nobuild" if sh("cmake", "--build", ".", "-j2") else "missed" if suite() else "caught"
            open(path, "w").write(orig)
        log.write(f"{verdict}\t{line}\n")
        log.flush()
        print(verdict, line, flush=True)
