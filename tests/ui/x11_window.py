#!/usr/bin/env python3
"""The X11 window on a private Xvfb: its pixels read back with xwd, input sent
with xdotool coming back as the events the program prints, closing ending its
loop.   x11_window.py --zan PATH --work DIR (skipped only without the tools)"""
import gzip, os, shutil, struct, subprocess, sys
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from run_window import Canvas, W, H, font_bytes
from zana import Prog
from zantest import opts, check, expect, finish

TITLE, READY = "zan-x11-test", 7777
TIMEOUT = 30  # for the tools; a safety net against hangs, never a synchronisation


def program():
    """Draws one frame, prints READY, then prints "kind x y" for every event
    until winPump says stop, then the kind of one more poll, and -1."""
    p = Prog()
    p.string(100, TITLE)
    p.string(120, "Ok")
    for call in [(10, 100, len(TITLE), W, H, 0), (13, 0xFF203040), (14, 1, 1, 4, 3, 0xFFFF0000),
                 (14, 8, 3, 9, 9, 0x000000FF), (17, 2, 4, 120, 0, 0xFFFFFF00, 1), (12,)]:
        p.call(*call)
    p.const(45, READY)
    p.print_slot(45)
    p.label("loop")
    p.call(11)
    p.jump("jz", "done", 40)
    p.call(18, res=44)
    p.jump("jz", "idle", 44)
    p.print_slot(44)
    for call in (20, 21):
        p.call(call, res=43)
        p.print_slot(43)
    p.jump("jmp", "loop")
    p.label("idle")
    p.call(19, 2)
    p.jump("jmp", "loop")
    p.label("done")
    p.call(18, res=44)  # the close is queued behind everything else
    p.print_slot(44)
    p.const(45, -1)
    p.print_slot(45)
    return p


def xwd_pixels(data):
    """Width, height and 0xFFRRGGBB words of a 32-bit ZPixmap XWD dump."""
    f = struct.unpack(">25I", data[:100])
    assert f[11] == 32, f"xwd: {f[11]} bits per pixel"
    order, masks, base, stride = "<>"[f[7]] + "I", f[14:17], f[0] + 12 * f[19], f[12]
    out = []
    for y in range(f[5]):
        for x in range(f[4]):
            (v,) = struct.unpack_from(order, data, base + y * stride + 4 * x)
            r, g, b = (((v & m) >> ((m & -m).bit_length() - 1)) for m in masks)
            out.append(0xFF000000 | r << 16 | g << 8 | b)
    return f[4], f[5], out


def events_until(values, last):
    """(kind, x, y) triples the program printed, up to `last`."""
    got = []
    while not got or got[-1] != last:
        got.append((next(values), next(values), next(values)))
    return got


def main(work):
    missing = [t for t in ("Xvfb", "xdotool", "xwd") if not shutil.which(t)]
    if missing:
        return print(f"SKIPPED: {' '.join(missing)} not installed (scripts/install-deps installs them)")
    os.makedirs(work, exist_ok=True)
    font, prog = work + "/font.psf.gz", work + "/x11.zana"
    with gzip.open(font, "wb") as f:
        f.write(font_bytes())
    open(prog, "w").write(program().text())
    # Xvfb picks a free display and writes its number once it accepts
    # clients; the read waits for that (ctest's timeout guards every wait).
    rfd, wfd = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(wfd), "-screen", "0", "320x240x24", "-nolisten", "tcp"],
                            pass_fds=(wfd,), stderr=subprocess.DEVNULL)
    os.close(wfd)
    app = None
    try:
        env = {k: v for k, v in os.environ.items() if not k.startswith("ZAN_")}
        env.update(DISPLAY=":" + os.read(rfd, 64).decode().strip(), ZAN_UI_FONT=font, ZAN_RESIZE_DEBUG="1")
        app = subprocess.Popen([opts["--zan"], "run", prog], env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        out = (int(line) for line in app.stdout)
        if next(out) != READY:
            raise RuntimeError("program did not draw")
        tool = lambda *w: subprocess.run(w, env=env, check=True, capture_output=True, timeout=TIMEOUT).stdout
        xdo = lambda *words: tool("xdotool", *words).decode().split()
        wid = xdo("search", "--sync", "--name", "^" + TITLE + "$")[0]
        c = Canvas(0xFF203040)  # as shown: alpha has no effect on the screen
        c.fill(1, 1, 4, 3, 0xFFFF0000)
        c.fill(8, 3, 9, 9, 0xFF0000FF)
        c.text(2, 4, "Ok", 0xFFFFFF00)
        w, h, pixels = xwd_pixels(tool("xwd", "-silent", "-id", wid))
        if check((w, h) == (W, H), f"window is {w}x{h}"):
            bad = [i for i, (a, b) in enumerate(zip(pixels, c.px)) if a != b]
            check(not bad, f"{len(bad)} pixels differ, first at {bad and bad[0] % w},{bad and bad[0] // w}")
        # Input. Each batch ends with a click at a known place, so every
        # event before it has been read when it arrives.
        xdo("windowfocus", "--sync", wid)
        xdo("mousemove", "--window", wid, "--sync", "3", "4")
        events_until(out, (5, 3, 4))
        xdo("click", "1", "click", "4", "click", "5")
        expect("clicks and wheel", events_until(out, (4, 1, 0)),
               [(1, 3, 4), (1, 3, 4), (5, 3, 4), (4, -1, 0), (5, 3, 4), (4, 1, 0)])
        # A key event carries no position; a modifier alone and Ctrl+c give none.
        xdo("key", "a", "shift+b", "BackSpace", "ctrl+c", "Shift_L", "Left", "click", "1")
        expect("keys", events_until(out, (1, 3, 4)), [(2, 0, 0)] * 4 + [(1, 3, 4)])
        # A resize is noticed (and dropped) by the pump; closing ends the loop
        # (winPump false), the close event being the last one queued.
        xdo("windowsize", wid, "30", "20")
        xdo("windowclose", wid)
        tail = []
        while not tail or tail[-1] != -1:
            tail.append(next(out))
        check(tail[-2:] == [3, -1] and tail[:-2] in ([], [1, 3, 4]), f"after the close: {tail}")
        expect("exit code", app.wait(TIMEOUT), 0)
        expect("resize notice", app.stderr.read().decode(), "[resize] takeResize 30x20\n")
    finally:
        if app and app.poll() is None:
            app.kill()
            app.wait()
        xvfb.terminate()
        xvfb.wait()
        os.close(rfd)
    return finish()


if __name__ == "__main__":
    sys.exit(main(opts["--work"]))
