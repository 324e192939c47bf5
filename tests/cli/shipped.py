#!/usr/bin/env python3
"""The shipped plugins, found beside zan with no setting: gguf_gen's files converted and checked against the GGUF
file; refusals leave nothing.   shipped.py --zan PATH --gguf-gen PATH --work DIR [--wrapper wine]"""
import json, os, re, struct, subprocess, sys
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, check, finish, run, home_env, WRAPPER

WORK, ZAN, GEN = opts["--work"], os.path.realpath(opts["--zan"]), opts["--gguf-gen"]
zan = lambda *args: run(WRAPPER + [ZAN, *args], env=home_env("/nonexistent"), cwd=WORK)


def read_zan2(path):
    """Meta entries, tokenizer vocabulary, and tensors {name: (dtype, dims, bytes)}."""
    data = open(path, "rb").read()
    u = lambda f, at: struct.unpack_from(f, data, at)
    secs = {}
    for i in range(u("<I", 12)[0]):
        t, _, off, size = u("<IIQQ", 64 + 24 * i)
        secs.setdefault(t, (off, size))

    def string(p, w):  # a length of w bytes, then the text: (text, next offset)
        n = u("<H" if w == 2 else "<I", p)[0]
        return data[p + w:p + w + n], p + w + n
    meta, p = {}, secs[1][0] + 4
    for _ in range(u("<I", secs[1][0])[0]):
        key, p = string(p, 2)
        t, p = data[p], p + 1
        if t < 4:
            meta[key.decode()], p = u(["<I", "<i", "<f", "<Q"][t], p)[0], p + (8 if t == 3 else 4)
        elif t == 4:
            v, p = string(p, 4)
            meta[key.decode()] = v.decode()
        else:
            n = u("<I", p)[0]
            meta[key.decode()], p = list(u(f"<{n}I", p + 4)), p + 4 + 4 * n
    vocab = []
    if 2 in secs:
        p = secs[2][0]
        assert data[p:p + 4] == b"TKNZ"
        _, p = string(p + 4, 4)
        n, p = u("<I", p)[0], p + 4
        for _ in range(n):
            v, p = string(p, 4)
            vocab.append(v.decode("utf-8", "surrogateescape"))
    tensors, tcount, ioff, woff = {}, u("<I", 40)[0], secs[4][0], secs[5][0]
    for i in range(tcount):
        rec = data[ioff + 128 * i:ioff + 128 * (i + 1)]
        name = rec[:64].rstrip(b"\0").decode()
        dtype, ndim = struct.unpack_from("<HH", rec, 66)
        toff, tsize = struct.unpack_from("<QQ", rec, 104)
        check(toff % 64 == 0, f"{path}: tensor {name} is not 64-aligned")
        tensors[name] = (dtype, list(struct.unpack_from("<4Q", rec, 72))[:ndim], data[woff + toff:woff + toff + tsize])
    names = [data[ioff + 128 * i:ioff + 128 * i + 64] for i in range(tcount)]
    check(names == sorted(names), f"{path}: tensor index not sorted")
    return meta, vocab, tensors


GGML = {"f32": 0, "f16": 1, "q4_0": 2, "q8_0": 8, "bf16": 30}


def main():
    os.makedirs(WORK, exist_ok=True)
    rc, out, err = zan("importer", "list")
    check(rc == 0 and "  gguf       GGUF importer (v2, v3: F32 F16 BF16 Q8_0 Q4_0 Q2_K..Q6_K) caps=0x0 ext=.gguf\n" in out,
          f"importer list: {out}{err}")
    rc, out, err = zan("plugins")
    check("  zan2             v1  ABI 1  caps=0x0  reads ZAN2 model containers\n" in out, f"plugins: {out}{err}")

    model, cores = "host CPU", os.sysconf("SC_NPROCESSORS_ONLN")
    for line in open("/proc/cpuinfo"):
        if line.startswith("model name") and ":" in line:
            model = line.split(":", 1)[1].strip(" \t\r\n") or model
            break
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    rc, out, err = zan("backend", "devices", "cpu")
    if WRAPPER:  # wine's memory total is its own reading of the machine's, within some pages
        m = re.search(r"memory=(\d+) ", out)
        if m and abs(int(m.group(1)) - memory) <= 1 << 20:
            memory = int(m.group(1))
    check(out == f"0: id=cpu0 name={model} ({cores} logical cores) api=1.0 memory={memory} caps=0x1\n",
          f"backend devices cpu: {out}{err}")
    # The CPU backend is a host backend: ls devices keeps it out of the GPUs.
    rc, out, err = zan("ls", "devices")
    check(rc == 0 and out.startswith(f"CPUs:\n  cpu 0: {cores} logical cores - ") and "backend=cpu " not in out,
          f"ls devices: {out}{err}")

    configs = [("v3-q8_0", ["--type", "q8_0"]), ("v2-f32-tied", ["--version", "2", "--tied"]),
               ("v3-q4_0-gpt2", ["--type", "q4_0", "--tokenizer", "gpt2"]), ("v3-bf16", ["--type", "bf16"]),
               ("v2-f16-gpt2", ["--version", "2", "--type", "f16", "--tokenizer", "gpt2", "--seed", "9"])]
    for name, args in configs:
        gguf, dst, exp = (os.path.join(WORK, name + s) for s in (".gguf", ".zan", ".json"))
        subprocess.run(WRAPPER + [GEN, "--out", gguf, "--expect", exp] + args, check=True)
        e = json.load(open(exp))
        kv = {m["key"]: m for m in e["metadata"]}
        arch = kv["general.architecture"]["value"]
        rc, out, err = zan("importer", "probe", gguf)
        check(rc == 0 and out == f"importer: gguf\nconfidence: 90\nformat: gguf\narchitecture: {arch}\n"
              f"reason: GGUF v{e['version']} header\n", f"{name}: probe: {out}{err}")
        rc, out, err = zan("convert", gguf, dst)
        size = os.path.getsize(dst) if os.path.exists(dst) else -1
        check(rc == 0 and re.fullmatch(
            rf"ZAN2\n  importer : gguf \(gguf\)\n  arch   : {arch}\n  output : {re.escape(dst)} "
            rf"\({size / 1048576:.2f} MB, {e['tensor_count']} tensors\) in \d+\.\d s\n", out) is not None,
            f"{name}: convert: {out}{err}")
        if not os.path.exists(dst):
            continue
        meta, vocab, tensors = read_zan2(dst)
        gg = open(gguf, "rb").read()
        for t in e["tensors"]:
            dtype, dims, data = tensors.get(t["name"], (None, None, b""))
            start = e["data_offset"] + t["offset"]
            check(dtype == GGML[t["type"]] and dims == t["dims"] and data == gg[start:start + t["size"]],
                  f"{name}: tensor {t['name']} differs from the GGUF file")
        check(len(tensors) == e["tensor_count"], f"{name}: {len(tensors)} tensors")
        for k in ("embedding_length", "block_count", "feed_forward_length", "attention.head_count",
                  "attention.head_count_kv", "context_length"):
            src, key = "llama." + k, "model." + k.replace("attention.", "")
            check(meta.get(key) == kv[src]["value"], f"{name}: {key} is {meta.get(key)}, GGUF says {kv[src]['value']}")
        check(meta.get("container.kind") == 1 and meta.get("container.version") == 2, f"{name}: container keys")
        tokens = kv["tokenizer.ggml.tokens"]
        check(len(vocab) == tokens["length"] and vocab[:len(tokens["head"])] == tokens["head"]
              and vocab[-1] == tokens["last"], f"{name}: tokenizer vocabulary")
        rc, out, err = zan("info", dst)
        rows = sorted(e["tensors"], key=lambda t: t["name"].encode())
        want = f"ZAN model: {dst}\n  version 2 | sections 5 | tensors {e['tensor_count']} | size {size} bytes\n"
        for i, t in enumerate(rows[:8]):
            want += f"  tensor[{i}] {t['name']} dtype={GGML[t['type']]} ndim={len(t['dims'])} size={t['size']}\n"
        want += f"  ... ({e['tensor_count']} tensors total)\n"
        check(rc == 0 and out.startswith(want), f"{name}: info:\n{out}{err}\nwanted to begin with\n{want}")
        rc, out, err = zan("type", dst)
        check(rc == 0 and f"  modelType: 1 | sections 5 | tensors {e['tensor_count']}\n  hidden "
              f"{kv['llama.embedding_length']['value']} | layers {kv['llama.block_count']['value']}"
              f" | vocab {kv['llama.vocab_size']['value']}\n" in out, f"{name}: type: {out}{err}")

    # Converting again replaces the output (the importer renames over it).
    again = os.path.join(WORK, "v3-q8_0.zan")
    rc, out, err = zan("convert", os.path.join(WORK, "v3-q8_0.gguf"), again)
    check(rc == 0 and os.path.getsize(again) > 0, f"convert over an existing output: {out}{err}")

    # A refusal names the problem and leaves nothing at the destination.
    bad, dst = os.path.join(WORK, "bad.gguf"), os.path.join(WORK, "refused.zan")
    subprocess.run(WRAPPER + [GEN, "--out", bad, "--bad-type"], check=True)
    rc, out, err = zan("convert", bad, dst)
    check(rc == 1 and err == "zan convert: importer 'gguf' failed (1): tensor 'blk.0.attn_q.weight' has type Q4_1, "
          "which is not supported (F32, F16, BF16, Q8_0, Q4_0, Q2_K, Q3_K, Q4_K, Q5_K, Q6_K are)\n", f"refusal: {err}")
    check(not any(n.startswith("refused.zan") for n in os.listdir(WORK)), "a refused convert left a file")

    return finish()


if __name__ == "__main__":
    sys.exit(main())
