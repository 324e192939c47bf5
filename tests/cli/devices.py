#!/usr/bin/env python3
"""`zan ls devices` against this machine, read here independently.

    devices.py --zan PATH --plugins DIR

The CPU row and the kernel's card list depend on the machine, so the
expected text is worked out from /proc/cpuinfo and /sys/class/drm by this
script; the GPU rows of plugin backends come from the test plugins.
"""
import argparse
import os
import subprocess
import sys

FOOTER = "(indices above match -g <gpu index> and -cpu <cpu index>)\n"


def cpu_row():
    model, count = "host", 0
    try:
        with open("/proc/cpuinfo", "rb") as f:
            for raw in f:
                line = raw.decode("utf-8", "surrogateescape")
                if line.startswith("processor"):
                    count += 1
                if model == "host" and line.startswith("model name") and ":" in line:
                    text = line.split(":", 1)[1].lstrip(" \t").rstrip("\r\n")
                    if text:
                        model = text
    except OSError:
        pass
    if count == 0:
        count = os.cpu_count() or 0
    return f"CPUs:\n  cpu 0: {count} logical cores - {model}\n"


def kernel_block():
    vendors = {0x1002: "AMD", 0x10DE: "NVIDIA", 0x8086: "Intel"}
    drm = "/sys/class/drm"
    cards = []
    try:
        names = os.listdir(drm)
    except OSError:
        names = []
    for name in names:  # directory order, as the kernel gives it
        if not (name.startswith("card") and len(name) > 4 and name[4].isdigit()):
            continue
        try:
            with open(f"{drm}/{name}/device/vendor") as f:
                vendor = vendors.get(int(f.readline()[:64].strip(), 16))
        except (OSError, ValueError):
            continue
        if not vendor:
            continue
        try:
            with open(f"{drm}/{name}/device/mem_info_vram_total") as f:
                vram = int(f.readline().strip())
        except (OSError, ValueError):
            vram = 0
        cards.append((vendor, vram))
    cards.sort(key=lambda c: -c[1])  # stable
    out = "GPUs (kernel /sys/class/drm):\n"
    for i, (vendor, vram) in enumerate(cards):
        out += f"  gpu {i}: {vendor}" + (f" vram={vram >> 20}" if vram else "") + "\n"
    if not cards:
        out += "  (no GPU found)\n"
    return out + FOOTER


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--plugins", required=True)
    opts = ap.parse_args()
    zan = os.path.realpath(opts.zan)
    good = os.path.join(os.path.realpath(opts.plugins), "good")
    plugin_gpus = ("GPUs:\n"
                   "  gpu 0: backend=alpha-gpu idx=0 name=Test GPU A mem=8589934592 api=1.3\n"
                   "  gpu 1: backend=alpha-gpu idx=1 name=Test GPU B mem=4294967296 api=2.0\n" + FOOTER)
    fallback = "GPUs:\n" + kernel_block()
    cases = [
        ("plugin GPUs, the host backend left out", {"ZAN_PLUGIN_PATH": good}, plugin_gpus),
        ("no plugin: the kernel's cards", {}, fallback),
        ("a backend with no devices falls back", {"ZAN_PLUGIN_PATH": good, "ZAN_TEST_DEVICES": "0"}, fallback),
        ("a failed enumerate falls back", {"ZAN_PLUGIN_PATH": good, "ZAN_TEST_ENUM_RC2": "1"}, fallback),
    ]
    failed = 0
    for title, env, gpus in cases:
        full_env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": "/nonexistent"}
        full_env.update(env)
        r = subprocess.run([zan, "ls", "devices"], env=full_env, capture_output=True, cwd="/")
        want = cpu_row() + gpus
        got = r.stdout.decode("utf-8", "surrogateescape")
        if r.returncode != 0 or got != want or r.stderr:
            failed += 1
            print(f"FAIL {title}: exit {r.returncode}\n--- want\n{want}--- got\n{got}--- stderr\n"
                  + r.stderr.decode("utf-8", "replace"))
        else:
            print(f"ok   {title}")
    print(f"{len(cases)} cases, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
