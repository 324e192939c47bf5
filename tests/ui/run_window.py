#!/usr/bin/env python3
"""Window programs run by `zan run` with no display: their frame dumps byte for byte, and the switches that
limit or stop them (fixed paths under /tmp: ctest runs this under a lock).   run_window.py --zan PATH --work DIR"""
import glob, gzip, os, struct, sys
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zana import Prog
from zantest import opts, expect, finish, run

W, H = 12, 8
FONT = [""]
FRAMES = "/tmp/zan-ui-frame-*"


def clear_frames():
    for f in glob.glob(FRAMES):
        (os.rmdir if os.path.isdir(f) else os.remove)(f)


def run_prog(prog, env):
    path = os.path.join(opts["--work"], "p.zana")
    open(path, "w").write(prog.text())
    full = {k: v for k, v in os.environ.items() if not k.startswith("ZAN_") and k != "DISPLAY"}
    full["ZAN_UI_FONT"] = FONT[0]  # never the system's fonts
    return run([opts["--zan"], "run", path], env=dict(full, **env))


# PSF2, 3x4, 128 glyphs: glyph g, row r has the top three bits of g * 37 + r * 11.
def glyph_row(g, r):
    return (g * 37 + r * 11) & 0xE0


def font_bytes():
    glyphs = bytes(glyph_row(g, r) for g in range(128) for r in range(4))
    return struct.pack("<8I", 0x864AB572, 0, 32, 0, 128, 4, 4, 3) + glyphs


class Canvas:
    """fillRect and text, written from their definitions."""
    def __init__(self, color):
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
        return f"P6\n{W} {H}\n255\n".encode() + b"".join(p.to_bytes(4, "big")[1:] for p in self.px)


def drawing():
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
    wrote = "zan-ui: wrote /tmp/zan-ui-frame-00%d.ppm\n"
    clear_frames()
    expect("drawing run", run_prog(p, {"ZAN_UI_DUMP": "1"}), (0, wrote % 0 + wrote % 1, ""))
    for n, want in ((0, first), (1, c.ppm())):
        expect(f"frame {n}", open(f"/tmp/zan-ui-frame-00{n}.ppm", "rb").read(), want)

    # An unwritable frame is skipped quietly but counts; so does the limit; a
    # display that cannot open leaves the dumper; "0" turns dumping off.
    clear_frames()
    os.mkdir("/tmp/zan-ui-frame-000.ppm")
    expect("unwritable frame", run_prog(p, {"ZAN_UI_DUMP": "yes", "ZAN_UI_DUMP_MAX": "x"}), (0, wrote % 1, ""))
    clear_frames()
    rc, out, err = run_prog(p, {"ZAN_UI_DUMP": "1", "ZAN_UI_DUMP_MAX": "1", "DISPLAY": ":9999"})
    expect("dump limit", (rc, out, sorted(glob.glob(FRAMES))), (0, wrote % 0, ["/tmp/zan-ui-frame-000.ppm"]))
    clear_frames()
    rc, out, err = run_prog(p, {"ZAN_UI_DUMP": "0"})
    expect("dump off", (rc, out, glob.glob(FRAMES)), (0, "", []))


if __name__ == "__main__":
    os.makedirs(opts["--work"], exist_ok=True)
    FONT[0] = os.path.join(opts["--work"], "a font with spaces.psf.gz")
    with gzip.open(FONT[0], "wb") as f:
        f.write(font_bytes())
    try:
        drawing()
    finally:
        clear_frames()
    sys.exit(finish())
