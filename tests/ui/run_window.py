#!/usr/bin/env python3
"""Window programs run by `zan run` with no display: the frame dumps they
leave, byte for byte against pixels worked out here, and the switches that
limit or stop them.

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
    """fillRect and text, written from their definitions."""

    def __init__(self, color=BLACK):
        self.px = [color] * (W * H)

    def fill(self, x, y, w, h, c):
        for yy in range(max(y, 0), min(y + h, H)):
            for xx in range(max(x, 0), min(x + w, W)):
                self.px[yy * W + xx] = c

    def text(self, x, y, s, c):
        for i, ch in enumerate(s.encode()):
            for r in range(4):
                for col in range(3):
                    if glyph_row(ch, r) & (0x80 >> col):
                        self.fill(x + 3 * i + col, y + r, 1, 1, c)

    def ppm(self):
        body = b"".join(bytes(((p >> 16) & 255, (p >> 8) & 255, p & 255)) for p in self.px)
        return f"P6\n{W} {H}\n255\n".encode() + body


def drawing(zan, work):
    p = Prog()
    p.string(100, "shapes")
    p.string(120, "Hi")
    p.call(10, 100, 6, W, H, 0)
    p.call(13, 0xFF202020)
    p.call(14, -2, 5, 6, 9, 0x80FF0000)
    p.call(17, 5, 0, 120, 0, 0xFFFFFFFF, 0)
    p.call(12)
    p.call(16, 0, 0, 0, 0xFF00FFFF)   # after the first frame
    p.call(12)
    c = Canvas(0xFF202020)
    c.fill(-2, 5, 6, 9, 0x80FF0000)
    c.text(5, 0, "Hi", 0xFFFFFFFF)
    first = c.ppm()
    c.fill(0, 0, 1, 1, 0xFF00FFFF)
    second = c.ppm()

    clear_frames()
    rc, out, err = run(zan, work, p, {"ZAN_UI_DUMP": "1"})
    check("drawing run", (rc, out, err), (0, "zan-ui: wrote /tmp/zan-ui-frame-000.ppm\n"
                                              "zan-ui: wrote /tmp/zan-ui-frame-001.ppm\n", ""))
    for n, want in ((0, first), (1, second)):
        with open(f"/tmp/zan-ui-frame-00{n}.ppm", "rb") as f:
            check(f"frame {n}", f.read(), want)

    # A frame whose file cannot be made is skipped quietly and still counts;
    # the limit counts frames; a display that cannot be opened leaves the
    # dumper; "0" turns dumping off.
    clear_frames()
    os.mkdir("/tmp/zan-ui-frame-000.ppm")
    rc, out, err = run(zan, work, p, {"ZAN_UI_DUMP": "yes", "ZAN_UI_DUMP_MAX": "x"})
    check("unwritable frame", (rc, out, err), (0, "zan-ui: wrote /tmp/zan-ui-frame-001.ppm\n", ""))
    clear_frames()
    rc, out, err = run(zan, work, p, {"ZAN_UI_DUMP": "1", "ZAN_UI_DUMP_MAX": "1", "DISPLAY": ":9999"})
    check("dump limit", (rc, out, sorted(glob.glob("/tmp/zan-ui-frame-*"))),
          (0, "zan-ui: wrote /tmp/zan-ui-frame-000.ppm\n", ["/tmp/zan-ui-frame-000.ppm"]))
    clear_frames()
    rc, out, err = run(zan, work, p, {"ZAN_UI_DUMP": "0"})
    check("dump off", (rc, out, glob.glob("/tmp/zan-ui-frame-*")), (0, "", []))


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
        drawing(args.zan, args.work)
    finally:
        clear_frames()
    for f in failures:
        print("FAIL", f)
    print(f"{len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
