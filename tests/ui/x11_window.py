#!/usr/bin/env python3
"""The window on a private Xvfb: pixels read back with xwd, xdotool's input comes back as the events the
program prints, close ends it.   x11_window.py --zan PATH --keys PROBE --work DIR [--wrapper wine]"""
import gzip, os, shutil, struct, subprocess, sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from run_window import Canvas, font_bytes  # noqa: E402
import run_window  # noqa: E402
from zana import Prog  # noqa: E402
from zantest import opts, check, expect, finish, WRAPPER  # noqa: E402

TITLE = "zan-x11-test"
TIMEOUT = 30  # for the tools; a safety net against hangs, never a synchronisation
READY = 7777


def program():
    """One frame, READY, "kind x y" per event until winPump stops, one more poll's kind, -1."""
    p = Prog()
    p.string(100, TITLE)
    p.string(120, "Ok")
    p.call(10, 100, len(TITLE), run_window.W, run_window.H, 0)
    p.call(13, 0xFF203040)
    p.call(14, 1, 1, 4, 3, 0xFFFF0000)
    p.call(14, 8, 3, 9, 9, 0x000000FF)
    p.call(17, 2, 4, 120, 0, 0xFFFFFF00, 1)
    p.call(12)
    p.const(45, READY)
    p.print_slot(45)
    p.label("loop")
    p.call(11)
    p.jump("jz", "done", 40)
    p.call(18, res=44)
    p.jump("jz", "idle", 44)
    p.print_slot(44)
    for n in (20, 21):
        p.call(n, res=43)
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
    f = struct.unpack(">25I", data[:100])
    assert f[11] == 32, f"xwd: {f[11]} bits per pixel"
    order, masks = "<>"[f[7]] + "I", f[14:17]
    base, stride = f[0] + 12 * f[19], f[12]
    out = []
    for y in range(f[5]):
        for x in range(f[4]):
            (v,) = struct.unpack_from(order, data, base + y * stride + 4 * x)
            r, g, b = (((v & m) >> ((m & -m).bit_length() - 1)) for m in masks)
            out.append(0xFF000000 | r << 16 | g << 8 | b)
    return f[4], f[5], out


def events_until(values, last):
    got = []
    while not got or got[-1] != last:
        got.append((next(values), next(values), next(values)))
    return got


# Known keys, with modifiers, then dropped ones; as the probe prints them.
KEYS = ["BackSpace", "Tab", "Return", "Escape", "Home", "Left", "Up", "Right", "Down", "End", "Delete",
        "shift+Left", "ctrl+Home", "alt+End", "a", "shift+b", "F1", "Shift_L", "ctrl+c"]
KEY_EVENTS = [f"2 {k} 0 -" for k in (0xFF08, 0xFF09, 0xFF0D, 0xFF1B, 0xFF50, 0xFF51, 0xFF52, 0xFF53, 0xFF54,
                                      0xFF57, 0xFF9F)] + ["2 65361 1 -", "2 65360 2 -", "2 65367 4 -", "2 0 0 a", "2 0 1 B"]


def key_codes(env, xdo):
    app = subprocess.Popen(WRAPPER + [opts["--keys"]], env=env, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    try:
        lines = (line.decode().rstrip("\n") for line in app.stdout)
        if not check(next(lines).startswith("READY"), "probe did not start"):
            return
        wid = xdo("search", "--sync", "--name", "^zan-keys-test$")[0]
        xdo("windowfocus", "--sync", wid)
        xdo("mousemove", "--window", wid, "--sync", "3", "4")
        xdo("key", *KEYS, "click", "1")
        got = []
        while not got or not got[-1].startswith("1 "):
            got.append(next(lines))
        expect("probe keys", [g for g in got[:-1] if not g.startswith("5 ")], KEY_EVENTS)
    finally:
        app.kill()
        app.wait()


def main():
    missing = [t for t in ("Xvfb", "xdotool", "xwd") if not shutil.which(t)]
    if missing:
        print(f"SKIPPED: {' '.join(missing)} not installed (scripts/install-deps installs them)")
        return 0
    win, work = bool(WRAPPER), opts["--work"]
    os.makedirs(work, exist_ok=True)
    if win:  # Windows: a minimum width, and no gzip for the font
        run_window.W, run_window.H = 160, 48
    font = os.path.join(work, "font.psf" if win else "font.psf.gz")
    with (open if win else gzip.open)(font, "wb") as f:
        f.write(font_bytes())
    prog = os.path.join(work, "x11.zana")
    open(prog, "w").write(program().text())
    # Xvfb writes its display number once it accepts clients.
    rfd, wfd = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(wfd), "-screen", "0", "320x240x24", "-nolisten", "tcp"],
                            pass_fds=(wfd,), stderr=subprocess.DEVNULL)
    os.close(wfd)
    app = None
    try:
        env = {k: v for k, v in os.environ.items() if not k.startswith("ZAN_")}
        env.update(DISPLAY=":" + os.read(rfd, 64).decode().strip(), ZAN_UI_FONT=font, ZAN_RESIZE_DEBUG="1")
        app = subprocess.Popen(WRAPPER + [opts["--zan"], "run", prog], env=env, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE)
        out = (int(line) for line in app.stdout)
        if next(out) != READY:
            raise RuntimeError("program did not draw")

        def xdo(*words):
            return subprocess.run(["xdotool", *words], env=env, check=True, capture_output=True,
                                  timeout=TIMEOUT).stdout.decode().split()

        wid = xdo("search", "--sync", "--name", "^" + TITLE + "$")[0]
        w, h, pixels = xwd_pixels(subprocess.run(["xwd", "-silent", "-id", wid], env=env, check=True,
                                                 capture_output=True, timeout=TIMEOUT).stdout)
        c = Canvas(0xFF203040)  # alpha has no effect on the screen
        c.fill(1, 1, 4, 3, 0xFFFF0000)
        c.fill(8, 3, 9, 9, 0xFF0000FF)
        c.text(2, 4, "Ok", 0xFFFFFF00)
        if win and pixels[:1] == [c.px[0] ^ 0xFFFFFF]:
            pixels[0] = c.px[0]  # the focused window's caret: Windows draws a zero size as 1x1, inverted
        if expect("window size", (w, h), (run_window.W, run_window.H)) and pixels != c.px:
            bad = [i for i, (a, b) in enumerate(zip(pixels, c.px)) if a != b]
            check(False, f"{len(bad)} pixels differ, first at {bad[0] % w},{bad[0] // w}")

        # Each batch ends with a click at a known place.
        xdo("windowfocus", "--sync", wid)
        xdo("mousemove", "--window", wid, "--sync", "3", "4")
        events_until(out, (5, 3, 4))
        xdo("click", "1", "click", "4", "click", "5")
        expect("clicks and wheel", events_until(out, (4, 1, 0)),
               [(1, 3, 4), (1, 3, 4), (5, 3, 4), (4, -1, 0), (5, 3, 4), (4, 1, 0)])
        xdo("key", "a", "shift+b", "BackSpace", "ctrl+c", "Shift_L", "Left", "click", "1")
        expect("keys", events_until(out, (1, 3, 4)), [(2, 0, 0)] * 4 + [(1, 3, 4)])
        # The pump notes a resize; the close is the last event. Windows also
        # reports the first size, and taskkill posts its WM_CLOSE.
        size = ("200", "60") if win else ("30", "20")
        xdo("windowsize", wid, *size)
        if win:
            subprocess.run(WRAPPER + ["taskkill", "/im", os.path.basename(opts["--zan"])], check=True,
                           capture_output=True, timeout=TIMEOUT)
        else:
            xdo("windowclose", wid)
        tail = []
        while not tail or tail[-1] != -1:
            tail.append(next(out))
        check(tail[-2:] == [3, -1] and tail[:-2] in ([], [1, 3, 4]), f"after the close: {tail}")
        expect("exit code", app.wait(TIMEOUT), 0)
        first = f"[resize] takeResize {run_window.W}x{run_window.H}\n" if win else ""
        expect("resize notice", app.stderr.read().decode(), first + "[resize] takeResize %sx%s\n" % size)
        key_codes(env, xdo)
    finally:
        if app and app.poll() is None:
            app.kill()
            app.wait()
        xvfb.terminate()
        xvfb.wait()
        os.close(rfd)
    return finish()


if __name__ == "__main__":
    sys.exit(main())
