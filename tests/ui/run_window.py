#!/usr/bin/env python3
"""Window programs run by `zan run` with no display: the frame dumps they
leave, byte for byte against pixels worked out here, the scripted clicks they
read, and the runs that must end cleanly on bad input.

    run_window.py --zan PATH --work DIR

Frames go to the fixed paths /tmp/zan-ui-frame-NNN.ppm; ctest runs this test
under a lock so no other test writes them meanwhile.
"""

import argparse
import glob
import gzip
import os
import struct
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from zana import Prog  # noqa: E402

W, H = 12, 8
BLACK = 0xFF000000
failures = []
FONT = [""]


def check(what, got, want):
    if got != want:
        failures.append(f"{what}:\n  got  {got!r}\n  want {want!r}")


def clear_frames():
    for f in glob.glob("/tmp/zan-ui-frame-*.ppm"):
        if os.path.isdir(f):
            os.rmdir(f)
        else:
            os.remove(f)


def run(zan, work, prog, env):
    path = os.path.join(work, "p.zana")
    with open(path, "w") as f:
        f.write(prog.text())
    full = {k: v for k, v in os.environ.items() if not k.startswith("ZAN_") and k != "DISPLAY"}
    full["ZAN_UI_FONT"] = FONT[0]  # never the system's fonts
    full.update(env)
    r = subprocess.run([zan, "run", path], env=full, capture_output=True, timeout=60)
    return r.returncode, r.stdout.decode(), r.stderr.decode()


# A PSF2 font, 3 wide and 4 high, 128 glyphs: glyph g, row r has the bits
# of (g * 37 + r * 11) in its top three.
def glyph_row(g, r):
    return (g * 37 + r * 11) & 0xE0


def font_bytes():
    glyphs = bytes(glyph_row(g, r) for g in range(128) for r in range(4))
    return struct.pack("<8I", 0x864AB572, 0, 32, 0, 128, 4, 4, 3) + glyphs


class Canvas:
    """The drawing operations, written from their definitions."""

    def __init__(self):
        self.px = [BLACK] * (W * H)

    def set(self, x, y, c):
        if 0 <= x < W and 0 <= y < H:
            self.px[y * W + x] = c

    def fill(self, x, y, w, h, c):
        for yy in range(y, y + h):
            for xx in range(x, x + w):
                self.set(xx, yy, c)

    def line(self, x0, y0, x1, y1, c):
        dx, dy = x1 - x0, y1 - y0
        steps = max(abs(dx), abs(dy))
        trunc = lambda a, b: -(-a // b) if (a < 0) != (b < 0) else a // b
        for i in range(steps + 1):
            self.set(x0 + (trunc(dx * i, steps) if steps else 0),
                     y0 + (trunc(dy * i, steps) if steps else 0), c)

    def circle(self, cx, cy, r, c):
        for dy in range(-r, r + 1):
            for dx in range(-r, r + 1):
                if dx * dx + dy * dy <= r * r:
                    self.set(cx + dx, cy + dy, c)

    def text(self, x, y, s, c):
        px = x
        for ch in s.encode():
            for r in range(4):
                for col in range(3):
                    if glyph_row(ch, r) & (0x80 >> col):
                        self.set(px + col, y + r, c)
            px += 3

    def ppm(self):
        body = b"".join(bytes(((p >> 16) & 255, (p >> 8) & 255, p & 255)) for p in self.px)
        return f"P6\n{W} {H}\n255\n".encode() + body


def drawing(zan, work, font):
    p = Prog()
    p.string(100, "shapes")
    p.string(120, "Hi")
    p.call(10, 100, 6, W, H, 0)
    p.call(13, 0xFF202020)
    p.call(14, -2, 5, 6, 9, 0xFFFF0000)
    p.call(15, 0, 0, 11, 3, 0x8000FF00, 5)
    p.call(16, 9, 6, 2, 0xFF0000FF)
    p.call(17, 5, 0, 120, 0, 0xFFFFFFFF, 0)
    p.call(12)
    p.call(16, 0, 0, 0, 0xFF00FFFF)   # after the first frame
    p.call(12)
    c = Canvas()
    c.px = [0xFF202020] * (W * H)
    c.fill(-2, 5, 6, 9, 0xFFFF0000)
    c.line(0, 0, 11, 3, 0x8000FF00)
    c.circle(9, 6, 2, 0xFF0000FF)
    c.text(5, 0, "Hi", 0xFFFFFFFF)
    first = c.ppm()
    c.set(0, 0, 0xFF00FFFF)
    second = c.ppm()

    clear_frames()
    rc, out, err = run(zan, work, p, {"ZAN_UI_DUMP": "1", "ZAN_UI_FONT": font})
    check("drawing run", (rc, out, err), (0, "zan-ui: wrote /tmp/zan-ui-frame-000.ppm\n"
                                              "zan-ui: wrote /tmp/zan-ui-frame-001.ppm\n", ""))
    for n, want in ((0, first), (1, second)):
        with open(f"/tmp/zan-ui-frame-00{n}.ppm", "rb") as f:
            check(f"frame {n}", f.read(), want)

    # The limit counts frames; a frame whose file cannot be made is skipped
    # quietly and still counts; "0" turns dumping off.
    clear_frames()
    os.mkdir("/tmp/zan-ui-frame-000.ppm")
    rc, out, err = run(zan, work, p, {"ZAN_UI_DUMP": "yes", "ZAN_UI_DUMP_MAX": "x", "ZAN_UI_FONT": font})
    check("unwritable frame", (rc, out, err), (0, "zan-ui: wrote /tmp/zan-ui-frame-001.ppm\n", ""))
    clear_frames()
    rc, out, err = run(zan, work, p, {"ZAN_UI_DUMP": "1", "ZAN_UI_DUMP_MAX": "1", "ZAN_UI_FONT": font})
    check("dump limit", (rc, out, sorted(glob.glob("/tmp/zan-ui-frame-*"))),
          (0, "zan-ui: wrote /tmp/zan-ui-frame-000.ppm\n", ["/tmp/zan-ui-frame-000.ppm"]))
    clear_frames()
    rc, out, err = run(zan, work, p, {"ZAN_UI_DUMP": "0", "ZAN_UI_FONT": font})
    check("dump off", (rc, out, glob.glob("/tmp/zan-ui-frame-*")), (0, "", []))


def event_loop(width, height):
    """Opens a window and, while winPump says so, polls once, prints any
    click with eventX/eventY and presents; at the end prints the frames."""
    p = Prog()
    p.call(10, 0, 0, width, height, 0)
    p.print_slot(40)
    p.const(50, 0)
    p.const(51, 1)
    p.label("loop")
    p.call(11)
    p.jump("jz", "done", 40)
    p.call(18)
    p.emit("eq.i32 a=52 b=40 c=51")
    p.jump("jz", "present", 52)
    p.call(20, res=43)
    p.print_slot(43)
    p.call(21, res=43)
    p.print_slot(43)
    p.label("present")
    p.call(12)
    p.emit("add.i32 a=50 b=50 c=51")
    p.jump("jmp", "loop")
    p.label("done")
    p.print_slot(50)
    return p


def scripted(zan, work):
    rows = [
        # (width, height, env, stdout): stdout is winOpen's result, each
        # click's x and y, then the number of frames.
        (4, 4, {"ZAN_UI_SCRIPT": "wait2;3,4;1,-2", "ZAN_UI_EXIT_AFTER": "5"}, "1\n3\n4\n1\n-2\n5\n"),
        (4, 4, {"ZAN_UI_SCRIPT": "x;;wait;7", "ZAN_UI_EXIT_AFTER": "2"}, "1\n2\n"),
        (0, -3, {"ZAN_UI_EXIT_AFTER": "1"}, "1\n1\n"),
        # Too large for memory: no window, so winPump stops the loop at once.
        (100000, 100000, {"ZAN_UI_EXIT_AFTER": "1"}, "0\n0\n"),
    ]
    for w, h, env, want in rows:
        rc, out, err = run(zan, work, event_loop(w, h), env)
        check(f"event loop {w}x{h} {env}", (rc, out, err), (0, want, ""))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--work", required=True)
    args = ap.parse_args()
    os.makedirs(args.work, exist_ok=True)
    font = os.path.join(args.work, "a font with spaces.psf.gz")
    with gzip.open(font, "wb") as f:
        f.write(font_bytes())
    FONT[0] = font
    try:
        drawing(args.zan, args.work, font)
        scripted(args.zan, args.work)
    finally:
        clear_frames()
    for f in failures:
        print("FAIL", f)
    print(f"{len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
