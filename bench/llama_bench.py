#!/usr/bin/python3
"""Decode and prompt speed of the llama runtime.

    llama_bench.py --zan ZAN --gguf-gen GGUF_GEN --membw MEMBW --plugin ZAN_LLAMA_SO --work DIR

Generates a Q8_0 llama model of about 250 MB (1024 wide, 16 layers, feed-
forward 2816, 32000 tokens), converts it, then in one run measures the
machine's streaming read bandwidth with all cores and `zan bench` on the
model, alternating them three times, and prints tokens/s, the bandwidth, and
the ratio of weight bytes read per second to that bandwidth (target 0.6).
Decode reads every weight once per token, so this ratio is how close the
runtime comes to the memory limit. Last, the peak resident memory of a short
`zan run` on the model, next to the mapped weights and the KV cache.

Prompt processing: a prompt of 512 tokens goes through the runtime's test
entry (loaded with ctypes) in batches and one token at a time, side by side
in one run; printed are tokens/s of each, their ratio, and tokens per
CPU-second (all threads), which a busy machine disturbs less than wall time
(target: 250 tokens/s batched on this model). The same on a 4-layer Q4_K_M
model of the same width, for the K-quant path.
"""
import ctypes
import resource
import argparse
import os
import re
import subprocess
import sys

SHAPE = ["--dim", "1024", "--layers", "16", "--ff", "2816", "--heads", "16", "--kv-heads", "16", "--vocab", "32000",
         "--ctx", "2048", "--type", "q8_0", "--seed", "3"]


def run(cmd, env=None):
    r = subprocess.run(cmd, capture_output=True, text=True, env=env)
    if r.returncode != 0:
        sys.exit(f"llama bench: {' '.join(cmd)} failed ({r.returncode}):\n{r.stdout}{r.stderr}")
    return r.stdout


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--gguf-gen", required=True)
    ap.add_argument("--membw", required=True)
    ap.add_argument("--plugin", required=True)
    ap.add_argument("--work", required=True)
    opts = ap.parse_args()
    os.makedirs(opts.work, exist_ok=True)
    gguf = os.path.join(opts.work, "bench-q8_0.gguf")
    model = os.path.join(opts.work, "bench-q8_0.zan")
    env = {"PATH": os.environ.get("PATH", ""), "HOME": "/nonexistent"}
    if not os.path.exists(model):
        run([opts.gguf_gen, "--out", gguf] + SHAPE)
        run([opts.zan, "convert", gguf, model], env)
        os.remove(gguf)
    # The weight bytes: the WeightData section of the container.
    table = run([opts.zan, "type", model], env)
    weights = int(re.search(r"type=5 flags=\d+ off=\d+ size=(\d+)", table).group(1))

    rows = []
    for _ in range(3):
        bw = float(run([opts.membw]).split()[0])  # GB/s
        out = run([opts.zan, "bench", model, "--tokens", "32", "--warmup", "4", "--runs", "1"], env)
        ms = float(re.search(r"mean ([\d.]+) ms", out).group(1))
        rows.append((bw, ms))
    print(f"llama decode, Q8_0 model: {weights / 2**20:.0f} MiB of weights, all cores "
          f"(best of {len(rows)} runs, alternating with the bandwidth measurement)")
    print(f"{'run':>4} {'read GB/s':>10} {'ms/token':>9} {'tok/s':>7} {'weights GB/s':>13} {'ratio':>6}")
    best = 0.0
    for i, (bw, ms) in enumerate(rows, 1):
        tps = 1000.0 / ms
        wgbs = weights * tps / 1e9
        best = max(best, wgbs / bw)
        print(f"{i:>4} {bw:>10.2f} {ms:>9.2f} {tps:>7.2f} {wgbs:>13.2f} {wgbs / bw:>6.3f}")
    print(f"ratio of weight bytes/s to read bandwidth: {best:.3f} (target >= 0.6) {'ok' if best >= 0.6 else 'MISSED'}")

    # wait4 gives the resources of this one child, not of all of them.
    p = subprocess.Popen([opts.zan, "run", model, "-p", "Once upon a time", "-n", "16", "-c", "2048"], env=env,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(p.pid, 0)
    p.returncode = os.waitstatus_to_exitcode(status)
    if p.returncode != 0:
        sys.exit(f"llama bench: zan run failed ({p.returncode})")
    peak = usage.ru_maxrss
    kv = 2 * 16 * 2048 * 1024 * 2  # keys and values, 16 layers, 2048 positions, 1024 wide, f16
    print(f"peak resident memory of zan run: {peak / 1024:.0f} MiB "
          f"(weights {weights / 2**20:.0f} MiB mapped + KV cache {kv / 2**20:.0f} MiB)")

    lib = ctypes.CDLL(os.path.realpath(opts.plugin))
    prompt = lib.zan_llama_test_prompt
    prompt.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.c_int32), ctypes.c_int, ctypes.POINTER(ctypes.c_float),
                       ctypes.POINTER(ctypes.c_double), ctypes.c_char_p]

    def timed(path, n, batch):
        toks = (ctypes.c_int32 * n)(*[(i * 7919 + 11) % 32000 for i in range(n)])
        ms = ctypes.c_double()
        cpu0 = resource.getrusage(resource.RUSAGE_SELF)
        if prompt(path.encode(), toks, n, None, ctypes.byref(ms), f"cpu;kv=f16;ctx=2048;batch={batch};".encode()):
            sys.exit("llama bench: the prompt run failed")
        cpu1 = resource.getrusage(resource.RUSAGE_SELF)
        cpu = (cpu1.ru_utime - cpu0.ru_utime) + (cpu1.ru_stime - cpu0.ru_stime)
        return n * 1000.0 / ms.value, n / cpu

    def side_by_side(label, path, n, runs):
        one = timed(path, n, 1)
        batched = max((timed(path, n, 512) for _ in range(runs)), key=lambda r: r[0])
        print(f"prompt of {n} tokens, {label}: batched {batched[0]:.1f} tok/s ({batched[1]:.1f} per CPU-s), "
              f"one at a time {one[0]:.1f} tok/s ({one[1]:.1f} per CPU-s), ratio {batched[0] / one[0]:.1f} "
              f"(per CPU-s {batched[1] / one[1]:.1f})")
        return batched[0]

    best = side_by_side("Q8_0 model", model, 512, 3)
    print(f"batched prompt tokens/s: {best:.1f} (target >= 250) {'ok' if best >= 250 else 'MISSED'}")
    kq = os.path.join(opts.work, "bench-q4_k_m.zan")
    if not os.path.exists(kq):
        gg = os.path.join(opts.work, "bench-q4_k_m.gguf")
        shape = SHAPE[:SHAPE.index("--type")] + ["--type", "q4_k_m", "--seed", "3"]
        shape[shape.index("--layers") + 1] = "4"
        run([opts.gguf_gen, "--out", gg] + shape)
        run([opts.zan, "convert", gg, kq], env)
        os.remove(gg)
    side_by_side("4-layer Q4_K_M model", kq, 128, 1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
