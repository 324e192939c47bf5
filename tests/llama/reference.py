#!/usr/bin/python3
"""The llama runtime against a numpy reference of the forward pass.

    reference.py --zan ZAN --gguf-gen GGUF_GEN --plugin ZAN_LLAMA_SO --work DIR

For each weight type, gguf_gen writes a small llama model with seeded random
weights, `zan convert` turns it into a ZAN2 container, and the runtime's test
entry (loaded with ctypes) gives the logits after every token of a fixed
sequence and 32 greedy tokens after them. This script reads the same GGUF
file itself, dequantises the weights, runs the forward pass in float64 and
compares: F32 weights within 1e-4 relative error of the logits and the same
32 greedy tokens; F16 and BF16 within 1e-3; Q8_0 and Q4_0 within 3e-2, since
the runtime's quantised kernels also round the activations to 8 bits. Like
the runtime, the reference keeps cached keys and values as halves.
"""
import argparse
import ctypes
import os
import struct
import subprocess
import sys

import numpy as np

GGUF_SCALARS = {0: "<B", 1: "<b", 2: "<H", 3: "<h", 4: "<I", 5: "<i", 6: "<f", 7: "<?", 10: "<Q", 11: "<q", 12: "<d"}


def read_gguf(path):
    """Metadata and dequantised tensors (float64, shaped [rows, cols])."""
    data = open(path, "rb").read()
    pos = 0

    def take(fmt):
        nonlocal pos
        v = struct.unpack_from(fmt, data, pos)[0]
        pos += struct.calcsize(fmt)
        return v

    def string():
        nonlocal pos
        n = take("<Q")
        s = data[pos:pos + n].decode("utf-8", "replace")
        pos += n
        return s

    def value(t):
        if t in GGUF_SCALARS:
            return take(GGUF_SCALARS[t])
        if t == 8:
            return string()
        if t == 9:
            et, n = take("<I"), take("<Q")
            return [value(et) for _ in range(n)]
        raise ValueError(f"value type {t}")

    assert data[:4] == b"GGUF"
    pos = 4
    take("<I")
    n_tensors, n_kv = take("<Q"), take("<Q")
    meta = {}
    for _ in range(n_kv):
        key = string()
        meta[key] = value(take("<I"))
    infos = []
    for _ in range(n_tensors):
        name = string()
        nd = take("<I")
        dims = [take("<Q") for _ in range(nd)]
        infos.append((name, dims, take("<I"), take("<Q")))
    align = meta.get("general.alignment", 32)
    base = (pos + align - 1) // align * align
    tensors = {}
    for name, dims, t, off in infos:
        n = int(np.prod(dims))
        raw = memoryview(data)[base + off:]
        if t == 0:
            a = np.frombuffer(raw, np.float32, n).astype(np.float64)
        elif t == 1:
            a = np.frombuffer(raw, np.float16, n).astype(np.float64)
        elif t == 30:
            a = (np.frombuffer(raw, np.uint16, n).astype(np.uint32) << 16).view(np.float32).astype(np.float64)
        elif t == 8:
            blocks = np.frombuffer(raw, np.dtype([("d", "<f2"), ("q", "i1", 32)]), n // 32)
            a = (blocks["d"].astype(np.float64)[:, None] * blocks["q"]).reshape(-1)
        elif t == 2:
            blocks = np.frombuffer(raw, np.dtype([("d", "<f2"), ("q", "u1", 16)]), n // 32)
            lo = (blocks["q"] & 15).astype(np.int32) - 8
            hi = (blocks["q"] >> 4).astype(np.int32) - 8
            a = (blocks["d"].astype(np.float64)[:, None] * np.concatenate([lo, hi], axis=1)).reshape(-1)
        else:
            raise ValueError(f"tensor type {t}")
        tensors[name] = a.reshape(list(reversed(dims))) if len(dims) > 1 else a
    return meta, tensors


def forward_all(meta, w, tokens, steps):
    """Logits after each token, then `steps` greedy tokens, in float64."""
    dim = meta["llama.embedding_length"]
    layers = meta["llama.block_count"]
    heads = meta["llama.attention.head_count"]
    kv_heads = meta.get("llama.attention.head_count_kv", heads)
    eps = meta.get("llama.attention.layer_norm_rms_epsilon", 1e-5)
    base = meta.get("llama.rope.freq_base", 10000.0)
    hd = dim // heads
    group = heads // kv_heads
    out_w = w.get("output.weight", w["token_embd.weight"])
    freqs = base ** (-np.arange(0, hd, 2) / hd)
    kc = [[] for _ in range(layers)]
    vc = [[] for _ in range(layers)]

    def rms(x, g):
        return x / np.sqrt(np.mean(x * x) + eps) * g

    def rope(v, pos, n):
        v = v.reshape(n, hd).copy()
        c, s = np.cos(pos * freqs), np.sin(pos * freqs)
        a, b = v[:, 0::2].copy(), v[:, 1::2].copy()
        v[:, 0::2], v[:, 1::2] = a * c - b * s, a * s + b * c
        return v.reshape(-1)

    def step(tok, pos):
        x = w["token_embd.weight"][tok].copy()
        for l in range(layers):
            p = f"blk.{l}."
            xb = rms(x, w[p + "attn_norm.weight"])
            q = rope(w[p + "attn_q.weight"] @ xb, pos, heads)
            # The runtime keeps keys and values as halves in its cache.
            kc[l].append(rope(w[p + "attn_k.weight"] @ xb, pos, kv_heads).astype(np.float16).astype(np.float64))
            vc[l].append((w[p + "attn_v.weight"] @ xb).astype(np.float16).astype(np.float64))
            K, V = np.array(kc[l]), np.array(vc[l])
            out = np.zeros(dim)
            for h in range(heads):
                kv = (h // group) * hd
                sc = K[:, kv:kv + hd] @ q[h * hd:(h + 1) * hd] / np.sqrt(hd)
                a = np.exp(sc - sc.max())
                a /= a.sum()
                out[h * hd:(h + 1) * hd] = a @ V[:, kv:kv + hd]
            x = x + w[p + "attn_output.weight"] @ out
            xb = rms(x, w[p + "ffn_norm.weight"])
            g = w[p + "ffn_gate.weight"] @ xb
            x = x + w[p + "ffn_down.weight"] @ (g / (1 + np.exp(-g)) * (w[p + "ffn_up.weight"] @ xb))
        return out_w @ rms(x, w["output_norm.weight"])

    logits = [step(t, i) for i, t in enumerate(tokens)]
    greedy = []
    last = logits[-1]
    for s in range(steps):
        greedy.append(int(np.argmax(last)))
        last = step(greedy[-1], len(tokens) + s)
    return np.array(logits), greedy


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--gguf-gen", required=True)
    ap.add_argument("--plugin", required=True)
    ap.add_argument("--work", required=True)
    opts = ap.parse_args()
    os.makedirs(opts.work, exist_ok=True)
    lib = ctypes.CDLL(os.path.realpath(opts.plugin))
    run = lib.zan_llama_test_run
    run.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.c_int32), ctypes.c_int, ctypes.POINTER(ctypes.c_float),
                    ctypes.c_int, ctypes.POINTER(ctypes.c_int32), ctypes.c_char_p]
    tokens = [1, 5, 17, 40, 3, 88, 21, 9]
    steps = 32
    cases = [("f32", 1e-4, True), ("f16", 1e-3, True), ("bf16", 1e-3, True), ("q8_0", 3e-2, False),
             ("q4_0", 3e-2, False)]
    failed = 0
    for wtype, tol, same_greedy in cases:
        gg = os.path.join(opts.work, f"ref-{wtype}.gguf")
        zz = os.path.join(opts.work, f"ref-{wtype}.zan")
        subprocess.run([opts.gguf_gen, "--out", gg, "--type", wtype, "--dim", "64", "--layers", "2", "--ff", "160",
                        "--heads", "4", "--kv-heads", "2", "--vocab", "96", "--seed", "7"], check=True)
        r = subprocess.run([opts.zan, "convert", gg, zz], capture_output=True, text=True,
                           env={"PATH": os.environ.get("PATH", ""), "HOME": "/nonexistent"})
        if r.returncode != 0:
            print(f"FAIL {wtype}: convert: {r.stderr.strip()}")
            failed += 1
            continue
        meta, w = read_gguf(gg)
        vocab = w["token_embd.weight"].shape[0]
        want_logits, want_greedy = forward_all(meta, w, tokens, steps)
        got = (ctypes.c_float * (len(tokens) * vocab))()
        greedy = (ctypes.c_int32 * steps)()
        arr = (ctypes.c_int32 * len(tokens))(*tokens)
        if run(zz.encode(), arr, len(tokens), got, steps, greedy, b"cpu;kv=f16;") != 0:
            print(f"FAIL {wtype}: the runtime could not run the model")
            failed += 1
            continue
        got_logits = np.array(got, dtype=np.float64).reshape(len(tokens), vocab)
        err = np.max(np.abs(got_logits - want_logits)) / np.max(np.abs(want_logits))
        ok = err <= tol
        line = f"{wtype}: max relative logit error {err:.2e} (limit {tol:.0e})"
        if same_greedy:
            same = list(greedy) == want_greedy
            ok = ok and same
            line += f", greedy 32 tokens {'identical' if same else 'differ: ' + str(list(greedy)) + ' vs ' + str(want_greedy)}"
        print(("ok   " if ok else "FAIL ") + line)
        failed += not ok
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
