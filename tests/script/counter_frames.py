#!/usr/bin/env python3
"""The counter example, compiled by `zan build` and run headless with
scripted clicks: the dumped frames show its colours where it draws them, and
the label after "+" then "-" is again the label it started with.

    counter_frames.py --zan PATH --source examples/counter.zs --work DIR
"""
import argparse
import glob
import os
import shutil
import subprocess
import sys

FRAME = "/tmp/zan-ui-frame-%03d.ppm"


def read_ppm(path):
    data = open(path, "rb").read()
    parts = data.split(maxsplit=4)
    assert parts[0] == b"P6", path
    w, h = int(parts[1]), int(parts[2])
    pixels = parts[4][: w * h * 3]
    return w, h, pixels


def pixel(frame, x, y):
    w, _, p = frame
    i = (y * w + x) * 3
    return (p[i] << 16) | (p[i + 1] << 8) | p[i + 2]


def region(frame, x0, y0, x1, y1):
    return [pixel(frame, x, y) for y in range(y0, y1) for x in range(x0, x1)]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--source", required=True)
    ap.add_argument("--work", required=True)
    o = ap.parse_args()
    shutil.rmtree(o.work, ignore_errors=True)
    os.makedirs(o.work)
    app = os.path.join(o.work, "counter.zan")
    r = subprocess.run([o.zan, "build", o.source, "-o", app], capture_output=True, text=True)
    if r.returncode != 0:
        print("build failed:", r.stderr)
        return 1
    for f in glob.glob("/tmp/zan-ui-frame-*.ppm"):
        os.remove(f)
    env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": o.work, "ZAN_UI_DUMP": "1",
           "ZAN_UI_DUMP_MAX": "8", "ZAN_UI_SCRIPT": "wait2;230,150;wait2;60,140", "ZAN_UI_EXIT_AFTER": "6"}
    r = subprocess.run([o.zan, "run", app], capture_output=True, text=True, env=env, cwd=o.work, timeout=60)
    failures = []
    if r.returncode != 0:
        failures.append(f"run: {r.returncode} {r.stderr}")
    frames = [read_ppm(FRAME % i) for i in range(6) if os.path.exists(FRAME % i)]
    if len(frames) != 6:
        failures.append(f"{len(frames)} frames, want 6")
    else:
        f0, f2, f4 = frames[0], frames[2], frames[4]
        if f0[:2] != (320, 200):
            failures.append(f"size {f0[:2]}")
        for what, (x, y), want in [("background", (5, 5), 0x1E2430), ("minus", (35, 125), 0xC0504D),
                                   ("plus", (285, 170), 0x4F9D5D)]:
            if pixel(f4, x, y) != want:
                failures.append(f"{what} at {x},{y}: {pixel(f4, x, y):06x}, want {want:06x}")
        label = (200, 30, 320, 110)  # where the number is drawn
        if region(f0, *label) != region(f4, *label):
            failures.append("the label after + and - differs from the first one")
        if region(f0, *label) == region(f2, *label):
            failures.append("the label did not change after the click on +")
        if len(set(region(f0, *label))) < 2:
            failures.append("no number drawn")
    for f in failures:
        print("FAIL:", f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
