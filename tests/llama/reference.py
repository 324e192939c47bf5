#!/usr/bin/python3
"""The llama runtime against a float64 numpy forward pass of the same GGUF:
    reference.py --zan ZAN --gguf-gen GGUF_GEN --plugin ZAN_LLAMA_SO --work DIR
Per weight type and architecture: the logits after each token of a fixed sequence (relative error 1e-4 for
F32, 1e-3 F16/BF16, 3e-2 quantised, whose kernels round activations to 8 bits) and, for float weights, the
same 32 greedy tokens. Then prompts of 1..500 tokens one at a time vs batches of 32 and 512."""
import argparse, ctypes, os, struct, subprocess, sys
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
        pos += n
        return data[pos - n:pos].decode("utf-8", "replace")

    def value(t):
        if t in GGUF_SCALARS:
            return take(GGUF_SCALARS[t])
        if t == 8:
            return string()
        et, n = take("<I"), take("<Q")  # 9: array
        return [value(et) for _ in range(n)]

    assert data[:4] == b"GGUF"
    pos = 8  # past the magic and the version
    n_tensors, n_kv = take("<Q"), take("<Q")
    meta = {string(): value(take("<I")) for _ in range(n_kv)}  # the key is read first
    # (name, dims, type, offset) of each tensor
    infos = [(string(), [take("<Q") for _ in range(take("<I"))], take("<I"), take("<Q")) for _ in range(n_tensors)]
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
            q = np.concatenate([blocks["q"] & 15, blocks["q"] >> 4], axis=1).astype(np.int32) - 8
            a = (blocks["d"].astype(np.float64)[:, None] * q).reshape(-1)
        else:
            a = dequant_k(t, raw, n)
        tensors[name] = a.reshape(list(reversed(dims))) if len(dims) > 1 else a
    return meta, tensors


KQUANT_BYTES = {10: 84, 11: 110, 12: 144, 13: 176, 14: 210}


def dequant_k(t, raw, n):
    """K-quant super-blocks of 256 values, as float64 [n]."""
    nb = n // 256
    b = np.frombuffer(raw, np.uint8, nb * KQUANT_BYTES[t]).reshape(nb, KQUANT_BYTES[t]).astype(np.int64)
    half = lambda col: np.frombuffer(b[:, col:col + 2].astype(np.uint8).tobytes(), "<f2").astype(np.float64)[:, None]
    j = np.arange(4)[None, None, :, None]  # the 2-bit plane within a half of 128
    h = np.arange(2)[None, :, None, None]
    if t in (10, 11):
        qs = b[:, 16:80] if t == 10 else b[:, 32:96]
        low = (qs.reshape(nb, 2, 1, 32) >> (2 * j)) & 3
        if t == 10:  # Q2_K: scales[16] (scale | min << 4), qs[64], d, dmin
            sc, mn = b[:, :16] & 15, b[:, :16] >> 4
            q = low.reshape(nb, 256)
            return (np.repeat(half(80) * sc, 16, 1) * q - np.repeat(half(82) * mn, 16, 1)).reshape(-1)
        # Q3_K: hmask[32], qs[64], scales[12], d
        hi = (b[:, None, None, :32] >> (4 * h + j)) & 1
        q = (low - 4 * (1 - hi)).reshape(nb, 256)
        s = b[:, 96:108]
        g = np.arange(16)
        lo4 = np.where(g < 8, s[:, g % 8] & 15, s[:, g % 8] >> 4)
        hi2 = (s[:, 8 + g % 4] >> (2 * (g // 4))) & 3
        return (np.repeat(half(108) * ((lo4 | hi2 << 4) - 32), 16, 1) * q).reshape(-1)
    if t in (12, 13):  # Q4_K / Q5_K: d, dmin, scales[12], (qh[32]), qs[128]
        s = b[:, 4:16]
        sc = np.concatenate([s[:, 0:4] & 63, (s[:, 8:12] & 15) | ((s[:, 0:4] >> 6) << 4)], 1)
        mn = np.concatenate([s[:, 4:8] & 63, (s[:, 8:12] >> 4) | ((s[:, 4:8] >> 6) << 4)], 1)
        qs = b[:, 48:176] if t == 13 else b[:, 16:144]
        c = np.arange(4)[None, :, None]
        lo, hi = qs.reshape(nb, 4, 32) & 15, qs.reshape(nb, 4, 32) >> 4
        if t == 13:
            qh = b[:, None, 16:48]
            lo, hi = lo | ((qh >> (2 * c)) & 1) << 4, hi | ((qh >> (2 * c + 1)) & 1) << 4
        q = np.stack([lo, hi], 2).reshape(nb, 256)
        return (np.repeat(half(0) * sc, 32, 1) * q - np.repeat(half(2) * mn, 32, 1)).reshape(-1)
    # Q6_K: ql[128], qh[64], int8 scales[16], d
    ql, qh = b[:, :128].reshape(nb, 2, 2, 32), b[:, 128:192].reshape(nb, 2, 1, 32)
    nib = np.stack([ql[:, :, 0] & 15, ql[:, :, 1] & 15, ql[:, :, 0] >> 4, ql[:, :, 1] >> 4], 2)
    q = ((nib | ((qh >> (2 * j)) & 3) << 4) - 32).reshape(nb, 256)
    sc = b[:, 192:208].astype(np.uint8).view(np.int8).astype(np.int64)
    return (np.repeat(half(208) * sc, 16, 1) * q).reshape(-1)


def forward_all(meta, w, tokens, steps):
    """Logits after each token, then `steps` greedy tokens, in float64."""
    arch = meta["general.architecture"]
    dim = meta[arch + ".embedding_length"]
    layers = meta[arch + ".block_count"]
    heads = meta[arch + ".attention.head_count"]
    kv_heads = meta.get(arch + ".attention.head_count_kv", heads)
    eps = meta.get(arch + ".attention.layer_norm_rms_epsilon", 1e-5)
    base = meta.get(arch + ".rope.freq_base", 10000.0)
    hd = meta.get(arch + ".attention.key_length", dim // heads)
    neox = arch in ("qwen2", "qwen3")  # rotate (i, i + hd/2), not (2i, 2i + 1)
    group = heads // kv_heads
    out_w = w.get("output.weight", w["token_embd.weight"])
    freqs = base ** (-np.arange(0, hd, 2) / hd)
    kc, vc = [[] for _ in range(layers)], [[] for _ in range(layers)]

    def rms(x, g):
        return x / np.sqrt(np.mean(x * x) + eps) * g

    def rope(v, pos, n):
        v = v.reshape(n, hd).copy()
        c, s = np.cos(pos * freqs), np.sin(pos * freqs)
        first, second = (slice(0, hd // 2), slice(hd // 2, hd)) if neox else (slice(0, hd, 2), slice(1, hd, 2))
        a, b = v[:, first].copy(), v[:, second].copy()
        v[:, first], v[:, second] = a * c - b * s, a * s + b * c
        return v.reshape(-1)

    def proj(p, part, x, n):
        """A projection with its bias if any, and its per-head norm if any."""
        y = w[p + f"attn_{part}.weight"] @ x + w.get(p + f"attn_{part}.bias", 0)
        if p + f"attn_{part}_norm.weight" in w:
            y = np.concatenate([rms(h, w[p + f"attn_{part}_norm.weight"]) for h in y.reshape(n, hd)])
        return y

    def step(tok, pos):
        x = w["token_embd.weight"][tok].copy()
        for l in range(layers):
            p = f"blk.{l}."
            xb = rms(x, w[p + "attn_norm.weight"])
            q = rope(proj(p, "q", xb, heads), pos, heads)
            # The runtime keeps keys and values as halves in its cache.
            kc[l].append(rope(proj(p, "k", xb, kv_heads), pos, kv_heads).astype(np.float16).astype(np.float64))
            vc[l].append(proj(p, "v", xb, kv_heads).astype(np.float16).astype(np.float64))
            K, V = np.array(kc[l]), np.array(vc[l])
            out = np.zeros(heads * hd)
            for h in range(heads):
                kv = (h // group) * hd
                sc = K[:, kv:kv + hd] @ q[h * hd:(h + 1) * hd] / np.sqrt(hd)
                a = np.exp(sc - sc.max())
                out[h * hd:(h + 1) * hd] = a @ V[:, kv:kv + hd] / a.sum()
            x = x + w[p + "attn_output.weight"] @ out
            xb = rms(x, w[p + "ffn_norm.weight"])
            g = w[p + "ffn_gate.weight"] @ xb
            x = x + w[p + "ffn_down.weight"] @ (g / (1 + np.exp(-g)) * (w[p + "ffn_up.weight"] @ xb))
        return out_w @ rms(x, w["output_norm.weight"])

    logits = [step(t, i) for i, t in enumerate(tokens)]
    greedy, last = [], logits[-1]
    for s in range(steps):
        greedy.append(int(np.argmax(last)))
        last = step(greedy[-1], len(tokens) + s)
    return np.array(logits), greedy


def main():
    ap = argparse.ArgumentParser()
    for o in ("--zan", "--gguf-gen", "--plugin", "--work"):
        ap.add_argument(o, required=True)
    opts = ap.parse_args()
    os.makedirs(opts.work, exist_ok=True)
    lib = ctypes.CDLL(os.path.realpath(opts.plugin))
    run = lib.zan_llama_test_run
    run.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.c_int32), ctypes.c_int, ctypes.POINTER(ctypes.c_float),
                    ctypes.c_int, ctypes.POINTER(ctypes.c_int32), ctypes.c_char_p]
    tokens, steps = [1, 5, 17, 40, 3, 88, 21, 9], 32
    small = ["--dim", "64", "--ff", "160", "--heads", "4", "--kv-heads", "2"]
    wide = ["--dim", "256", "--ff", "512", "--heads", "4", "--kv-heads", "2"]  # whole K-quant super-blocks
    # (name, gguf_gen arguments, logit tolerance, greedy tokens must match)
    cases = [("f32", small + ["--type", "f32"], 1e-4, True), ("f16", small + ["--type", "f16"], 1e-3, True),
             ("bf16", small + ["--type", "bf16"], 1e-3, True), ("q8_0", small + ["--type", "q8_0"], 3e-2, False),
             ("q4_0", small + ["--type", "q4_0"], 3e-2, False)]
    cases += [(t, wide + ["--type", t], 3e-2, False) for t in ("q2_k", "q3_k", "q4_k", "q5_k", "q6_k", "q4_k_m")]
    cases += [("mistral-f32", small + ["--type", "f32", "--arch", "mistral"], 1e-4, True),
              ("qwen2-f32", small + ["--type", "f32", "--arch", "qwen2", "--tied"], 1e-4, True),
              ("qwen3-f32", small + ["--type", "f32", "--arch", "qwen3", "--head-dim", "32"], 1e-4, True),
              ("qwen3-q6_k", ["--dim", "256", "--ff", "256", "--heads", "4", "--kv-heads", "1", "--head-dim", "64",
                              "--type", "q6_k", "--arch", "qwen3"], 3e-2, False)]
    env, fails = {"PATH": os.environ.get("PATH", ""), "HOME": "/nonexistent"}, []

    def verdict(ok, line):
        print(("ok   " if ok else "FAIL ") + line)
        if not ok:
            fails.append(line)

    def make(name, args):
        gg = os.path.join(opts.work, f"ref-{name}.gguf")
        zz = os.path.join(opts.work, f"ref-{name}.zan")
        subprocess.run([opts.gguf_gen, "--out", gg, "--layers", "2", "--vocab", "96", "--seed", "7"] + args,
                       check=True)
        r = subprocess.run([opts.zan, "convert", gg, zz], capture_output=True, text=True, env=env)
        if r.returncode != 0:
            verdict(False, f"{name}: convert: {r.stderr.strip()}")
        return gg, zz if r.returncode == 0 else None

    for name, args, tol, same_greedy in cases:
        gg, zz = make(name, args)
        if not zz:
            continue
        meta, w = read_gguf(gg)
        vocab = w["token_embd.weight"].shape[0]
        want_logits, want_greedy = forward_all(meta, w, tokens, steps)
        got = (ctypes.c_float * (len(tokens) * vocab))()
        greedy = (ctypes.c_int32 * steps)()
        arr = (ctypes.c_int32 * len(tokens))(*tokens)
        if run(zz.encode(), arr, len(tokens), got, steps, greedy, b"cpu;kv=f16;") != 0:
            verdict(False, f"{name}: the runtime could not run the model")
            continue
        got_logits = np.array(got, dtype=np.float64).reshape(len(tokens), vocab)
        err = np.max(np.abs(got_logits - want_logits)) / np.max(np.abs(want_logits))
        same = not same_greedy or list(greedy) == want_greedy
        verdict(err <= tol and same, f"{name}: max relative logit error {err:.2e} (limit {tol:.0e})"
                + ("" if same else f", greedy tokens differ: {list(greedy)} vs {want_greedy}"))

    # Batched against one-at-a-time prompts.
    prompt = lib.zan_llama_test_prompt
    prompt.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.c_int32), ctypes.c_int, ctypes.POINTER(ctypes.c_float),
                       ctypes.POINTER(ctypes.c_double), ctypes.c_char_p]
    rng = np.random.default_rng(5)
    # Quantised: an activation next to a rounding edge may round the other way.
    for name, args, limit in (("batch-q8_0", small + ["--type", "q8_0", "--ctx", "512"], 5e-3),
                              ("batch-f16", small + ["--type", "f16", "--ctx", "512", "--arch", "qwen2"], 1e-4),
                              ("batch-q4_k", wide + ["--type", "q4_k", "--ctx", "512", "--layers", "1"], 5e-3)):
        _, zz = make(name, args)
        if not zz:
            continue
        for n in (1, 31, 32, 33, 500):
            toks = (ctypes.c_int32 * n)(*rng.integers(0, 96, n).tolist())
            outs = []
            for batch in (1, 32, 512):
                logits = (ctypes.c_float * 96)()
                rc = prompt(zz.encode(), toks, n, logits, None, f"cpu;kv=f16;ctx=512;batch={batch};".encode())
                outs.append(np.array(logits, dtype=np.float64) if rc == 0 else None)
            if any(o is None for o in outs):
                verdict(False, f"{name} n={n}: the runtime could not run the prompt")
                continue
            err = max(np.max(np.abs(o - outs[0])) / np.max(np.abs(outs[0])) for o in outs[1:])
            verdict(err <= limit, f"{name} n={n}: batched vs one at a time, max relative difference "
                    f"{err:.1e} (limit {limit:.0e})")
    return 1 if fails else 0


if __name__ == "__main__":
    sys.exit(main())
