#!/usr/bin/env python3
"""GGUF files from gguf_gen, read back by an independent reader.

    cross_check.py --gguf-gen PATH --node PATH [--npm PATH] --work DIR

Installs the npm package @huggingface/gguf (the version pinned by
package.json and package-lock.json beside this script) into DIR with
`npm ci`, unless that exact install is already there. Then, for each
configuration below, runs gguf_gen with --expect and read_gguf.mjs on the
file, and checks:

  * the reader's header, metadata (every key in order, its type, its value;
    arrays by element type, length, first elements and last element) and
    tensor infos (names, types, dims, offsets) against gguf_gen's --expect;
  * the same against this script's own model of the file: the tensor list,
    sizes and offsets a llama model of that shape must have, the model keys'
    values, and the tokenizer arrays read in full (unique tokens, token
    types, special ids, merges made of tokens, byte tokens);
  * the file size.

One "ok NAME" or "FAIL NAME: ..." line per configuration; the exit code is 1
when any failed, or when node or npm is missing or the install fails.
"""

import argparse
import json
import math
import os
import shutil
import struct
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
READER = os.path.join(HERE, "read_gguf.mjs")
PACKAGE = "@huggingface/gguf"
NPM_TIMEOUT = 600  # a safety net against a hung install, not a synchronisation
RUN_TIMEOUT = 120

# ---------------------------------------------------------------- configurations

DEFAULTS = dict(version=3, type="f32", dim=64, layers=2, ff=160, heads=4, kv_heads=2, vocab=96, ctx=256,
                seed=1, tokenizer="llama", tied=False, bad_type=False, alignment=32, test_keys=True)

# (name, settings)
CONFIGS = [
    ("v3 f32 llama", dict()),
    ("v3 f16 llama tied", dict(type="f16", tied=True, seed=2)),
    ("v3 bf16 gpt2", dict(type="bf16", tokenizer="gpt2", seed=3)),
    ("v3 q8_0 llama", dict(type="q8_0", seed=4)),
    ("v3 q4_0 gpt2 tied", dict(type="q4_0", tokenizer="gpt2", tied=True, seed=5)),
    ("v2 f32 gpt2 tied", dict(version=2, tokenizer="gpt2", tied=True, seed=6)),
    ("v2 f16 gpt2", dict(version=2, type="f16", tokenizer="gpt2", seed=7)),
    ("v2 bf16 llama tied", dict(version=2, type="bf16", tied=True, seed=8)),
    ("v2 q8_0 gpt2", dict(version=2, type="q8_0", tokenizer="gpt2", seed=9)),
    ("v2 q4_0 llama", dict(version=2, type="q4_0", seed=10)),
    ("v3 q8_0 llama byte tokens, 6 heads, alignment 64",
     dict(type="q8_0", vocab=600, dim=96, heads=6, kv_heads=3, ff=256, layers=1, alignment=64, seed=11)),
    ("v3 q4_0 gpt2 byte-level base, tied",
     dict(type="q4_0", tokenizer="gpt2", vocab=600, layers=1, tied=True, seed=12)),
    ("v3 f16 llama, sizes off the alignment (dim 36, ff 50)",
     dict(type="f16", dim=36, ff=50, heads=4, kv_heads=1, seed=17)),
    ("v3 f16 q4_1 tensor (--bad-type)", dict(type="f16", bad_type=True, seed=13)),
    ("v2 q8_0 llama without test keys", dict(version=2, type="q8_0", test_keys=False, seed=14)),
    ("v3 q8_0 gpt2 200000 tokens (header over several reader chunks)",
     dict(type="q8_0", tokenizer="gpt2", vocab=200000, dim=32, ff=32, heads=2, kv_heads=1, layers=1, seed=15)),
    ("v3 q4_k llama, K-quant super-blocks", dict(type="q4_k", dim=256, ff=512, layers=1, seed=18)),
    ("v3 q2_k gpt2", dict(type="q2_k", tokenizer="gpt2", dim=256, ff=256, layers=1, seed=19)),
    ("v2 q6_k llama tied", dict(version=2, type="q6_k", dim=256, ff=256, layers=1, tied=True, seed=20)),
    ("v3 q4_0 llama 40000 tokens",
     dict(type="q4_0", vocab=40000, dim=32, ff=64, heads=1, kv_heads=1, layers=1, seed=16)),
]

# ---------------------------------------------------------------- ggml facts

TYPE_IDS = {"f32": 0, "f16": 1, "q4_0": 2, "q4_1": 3, "q8_0": 8, "bf16": 30, "q2_k": 10, "q3_k": 11, "q4_k": 12,
            "q5_k": 13, "q6_k": 14}
BLOCKS = {0: (1, 4), 1: (1, 2), 2: (32, 18), 3: (32, 20), 8: (32, 34), 30: (1, 2),  # elements, bytes
          10: (256, 84), 11: (256, 110), 12: (256, 144), 13: (256, 176), 14: (256, 210)}
FILE_TYPES = {"f32": 0, "f16": 1, "q4_0": 2, "q8_0": 7, "bf16": 32,  # llama.cpp's general.file_type
              "q2_k": 10, "q3_k": 11, "q4_k": 14, "q5_k": 16, "q6_k": 18}


def align(x, a):
    return (x + a - 1) // a * a


def f32(x):
    """x rounded to the nearest binary32 value."""
    return struct.unpack("<f", struct.pack("<f", x))[0]


def expected_tensors(c):
    """(name, dims, type id) in file order, for settings c."""
    wt = TYPE_IDS[c["type"]]
    kv_dim = c["dim"] // c["heads"] * c["kv_heads"]
    out = [("token_embd.weight", [c["dim"], c["vocab"]], wt),
           ("output_norm.weight", [c["dim"]], 0)]
    if not c["tied"]:
        out.append(("output.weight", [c["dim"], c["vocab"]], wt))
    for layer in range(c["layers"]):
        p = "blk.%d." % layer
        out += [(p + "attn_norm.weight", [c["dim"]], 0),
                (p + "attn_q.weight", [c["dim"], c["dim"]], 3 if c["bad_type"] and layer == 0 else wt),
                (p + "attn_k.weight", [c["dim"], kv_dim], wt),
                (p + "attn_v.weight", [c["dim"], kv_dim], wt),
                (p + "attn_output.weight", [c["dim"], c["dim"]], wt),
                (p + "ffn_norm.weight", [c["dim"]], 0),
                (p + "ffn_gate.weight", [c["dim"], c["ff"]], wt),
                (p + "ffn_up.weight", [c["dim"], c["ff"]], wt),
                (p + "ffn_down.weight", [c["ff"], c["dim"]], wt)]
    return out


def nbytes(dims, type_id):
    elems, size = BLOCKS[type_id]
    rows = 1
    for d in dims[1:]:
        rows *= d
    return rows * (dims[0] // elems) * size


# ---------------------------------------------------------------- checks

class Errors(list):
    def check(self, ok, message):
        if not ok:
            self.append(message)
        return ok


def same_value(type_name, got, want):
    if type_name in ("u64", "i64"):
        return int(got) == int(want)
    if type_name in ("f32", "f64"):
        return isinstance(got, (int, float)) and float(got) == float(want)
    if type_name == "bool":
        return got is want
    if type_name in ("u8", "i8", "u16", "i16", "u32", "i32"):
        return isinstance(got, int) and not isinstance(got, bool) and got == want
    if type_name == "string":
        return got == want
    return False


def compare_array(errs, where, got, desc):
    """got: the reader's full list; desc: gguf_gen's element_type/length/head/last."""
    if not errs.check(isinstance(got, list), "%s: reader gave %r, not a list" % (where, type(got).__name__)):
        return
    errs.check(len(got) == desc["length"], "%s: length %d, expected %d" % (where, len(got), desc["length"]))
    samples = list(enumerate(desc["head"]))
    if desc["length"]:
        samples.append((desc["length"] - 1, desc["last"]))
    for i, want in samples:
        if i >= len(got):
            continue
        if desc["element_type"] == "array":
            compare_array(errs, "%s[%d]" % (where, i), got[i], want)
        else:
            errs.check(same_value(desc["element_type"], got[i], want),
                       "%s[%d]: %r, expected %r" % (where, i, got[i], want))


def check_against_expect(errs, expect, got):
    errs.check(got["version"] == expect["version"], "version %r, expected %r" % (got["version"], expect["version"]))
    errs.check(int(got["tensor_count"]) == expect["tensor_count"], "tensor_count %s" % got["tensor_count"])
    errs.check(int(got["kv_count"]) == expect["kv_count"], "kv_count %s" % got["kv_count"])
    errs.check(int(got["tensor_data_offset"]) == expect["data_offset"],
               "data offset %s, expected %d" % (got["tensor_data_offset"], expect["data_offset"]))
    got_keys = [m["key"] for m in got["metadata"]]
    want_keys = [m["key"] for m in expect["metadata"]]
    errs.check(got_keys == want_keys, "metadata keys differ: %s" % sorted(set(got_keys) ^ set(want_keys)))
    by_key = {m["key"]: m for m in got["metadata"]}
    for want in expect["metadata"]:
        key = want["key"]
        have = by_key.get(key)
        if have is None:
            continue
        if not errs.check(have["type"] == want["type"], "%s: type %s, expected %s" % (key, have["type"], want["type"])):
            continue
        if want["type"] == "array":
            errs.check(have.get("element_type") == want["element_type"], "%s: element type %s, expected %s"
                       % (key, have.get("element_type"), want["element_type"]))
            compare_array(errs, key, have["value"], want)
        else:
            errs.check(same_value(want["type"], have["value"], want["value"]),
                       "%s: %r, expected %r" % (key, have["value"], want["value"]))
    errs.check(len(got["tensors"]) == len(expect["tensors"]),
               "%d tensors, expected %d" % (len(got["tensors"]), len(expect["tensors"])))
    for have, want in zip(got["tensors"], expect["tensors"]):
        name = want["name"]
        errs.check(have["name"] == name, "tensor %s where %s was expected" % (have["name"], name))
        errs.check(have["type_id"] == want["type_id"], "%s: type %s, expected %s" % (name, have["type_id"], want["type_id"]))
        errs.check([int(d) for d in have["shape"]] == want["dims"] and have["n_dims"] == len(want["dims"]),
                   "%s: shape %s, expected %s" % (name, have["shape"], want["dims"]))
        errs.check(int(have["offset"]) == want["offset"], "%s: offset %s, expected %d" % (name, have["offset"], want["offset"]))


def check_model(errs, c, expect, got, file_size):
    """What a llama model with settings c must look like, whatever gguf_gen says."""
    tensors = expected_tensors(c)
    errs.check([t["name"] for t in got["tensors"]] == [t[0] for t in tensors], "tensor names or order differ from the model")
    offset = 0
    for (name, dims, type_id), have, listed in zip(tensors, got["tensors"], expect["tensors"]):
        errs.check(have["type_id"] == type_id, "%s: type %s, the model wants %d" % (name, have["type_id"], type_id))
        errs.check([int(d) for d in have["shape"]] == dims, "%s: shape %s, the model wants %s" % (name, have["shape"], dims))
        errs.check(int(have["offset"]) == offset, "%s: offset %s, the model wants %d" % (name, have["offset"], offset))
        size = nbytes(dims, type_id)
        errs.check(listed["size"] == size, "%s: size %d listed, %d by its shape and type" % (name, listed["size"], size))
        offset = align(offset + size, c["alignment"])
    data_offset = int(got["tensor_data_offset"])
    errs.check(data_offset % c["alignment"] == 0, "data offset %d not aligned to %d" % (data_offset, c["alignment"]))
    errs.check(file_size == data_offset + offset, "file size %d, expected %d (data at %d, %d bytes of padded tensors)"
               % (file_size, data_offset + offset, data_offset, offset))
    params = sum(math.prod(dims) for _, dims, _ in tensors)
    errs.check(got["parameter_count"] == params, "parameter count %s, expected %d" % (got["parameter_count"], params))

    meta = {m["key"]: m for m in got["metadata"]}
    quantised = c["type"] not in ("f32", "f16", "bf16")
    want = {
        "general.architecture": ("string", "llama"),
        "general.alignment": ("u32", c["alignment"]),
        "general.file_type": ("u32", FILE_TYPES[c["type"]]),
        "llama.context_length": ("u32", c["ctx"]),
        "llama.embedding_length": ("u32", c["dim"]),
        "llama.block_count": ("u32", c["layers"]),
        "llama.feed_forward_length": ("u32", c["ff"]),
        "llama.attention.head_count": ("u32", c["heads"]),
        "llama.attention.head_count_kv": ("u32", c["kv_heads"]),
        "llama.rope.freq_base": ("f32", 10000.0),
        "llama.attention.layer_norm_rms_epsilon": ("f32", f32(1e-5)),
        "llama.vocab_size": ("u32", c["vocab"]),
        "tokenizer.ggml.model": ("string", c["tokenizer"]),
        "tokenizer.ggml.add_bos_token": ("bool", c["tokenizer"] == "llama"),
    }
    if quantised:
        want["general.quantization_version"] = ("u32", 2)
    errs.check(("general.quantization_version" in meta) == quantised, "general.quantization_version present: %s"
               % ("general.quantization_version" in meta))
    errs.check("general.name" in meta and meta["general.name"]["type"] == "string", "general.name missing")
    for key, (type_name, value) in want.items():
        have = meta.get(key)
        if errs.check(have is not None, "%s missing" % key):
            errs.check(have["type"] == type_name and same_value(type_name, have["value"], value),
                       "%s: %s %r, the model wants %s %r" % (key, have["type"], have["value"], type_name, value))
    test_keys = sorted(k for k in meta if k.startswith("test."))
    if c["test_keys"]:
        types = {meta[k]["type"] for k in test_keys} | {meta[k].get("element_type") for k in test_keys}
        for t in ("u8", "i8", "u16", "i16", "i32", "u64", "i64", "f64", "bool", "string", "array"):
            errs.check(t in types, "no test key of type %s" % t)
    else:
        errs.check(not test_keys, "test keys present: %s" % test_keys)
    check_tokenizer(errs, c, meta)


def gpt2_byte_chars():
    direct = [b for b in range(256) if ord("!") <= b <= ord("~") or 0xA1 <= b <= 0xAC or 0xAE <= b <= 0xFF]
    rest = [b for b in range(256) if b not in direct]
    return [chr(b) for b in direct] + [chr(256 + i) for i in range(len(rest))]


def check_tokenizer(errs, c, meta):
    def array_of(key, element_type):
        m = meta.get(key)
        if not errs.check(m is not None and m["type"] == "array" and m.get("element_type") == element_type,
                          "%s is not an array of %s" % (key, element_type)):
            return None
        return m["value"]

    n = c["vocab"]
    tokens = array_of("tokenizer.ggml.tokens", "string")
    scores = array_of("tokenizer.ggml.scores", "f32")
    types = array_of("tokenizer.ggml.token_type", "i32")
    if tokens is None or scores is None or types is None:
        return
    if not errs.check(len(tokens) == len(scores) == len(types) == n,
                      "tokenizer arrays of %d, %d, %d entries for a vocabulary of %d" % (len(tokens), len(scores), len(types), n)):
        return
    errs.check(len(set(tokens)) == n, "%d duplicate tokens" % (n - len(set(tokens))))
    errs.check(all(t for t in tokens), "an empty token")
    errs.check(set(types) <= {1, 2, 3, 6}, "token types %s" % sorted(set(types) - {1, 2, 3, 6}))
    ids = {}
    for name in ("bos", "eos", "unknown", "padding"):
        m = meta.get("tokenizer.ggml.%s_token_id" % name)
        if errs.check(m is not None and m["type"] == "u32" and 0 <= m["value"] < n, "tokenizer.ggml.%s_token_id" % name):
            ids[name] = m["value"]
    for name in ("bos", "eos"):
        if name in ids:
            errs.check(types[ids[name]] == 3, "%s token %r is not a control token" % (name, tokens[ids[name]]))
    if c["tokenizer"] == "llama":
        errs.check(tokens[:3] == ["<unk>", "<s>", "</s>"] and types[:3] == [2, 3, 3], "special tokens %r" % tokens[:3])
        errs.check(ids.get("unknown") == 0 and ids.get("bos") == 1 and ids.get("eos") == 2, "special ids %r" % ids)
        errs.check("tokenizer.ggml.merges" not in meta, "merges in a llama tokenizer")
        if n >= 512:
            errs.check(tokens[3:259] == ["<0x%02X>" % b for b in range(256)] and types[3:259] == [6] * 256,
                       "byte tokens are not <0x00>..<0xFF> of type 6")
        errs.check(any(t.startswith("\u2581") for t in tokens), "no word-start pieces")
    else:
        merges = array_of("tokenizer.ggml.merges", "string")
        errs.check(tokens[-1] == "<|endoftext|>" and types[-1] == 3, "last token %r" % tokens[-1])
        errs.check(set(ids.values()) == {n - 1}, "special ids %r" % ids)
        if n >= 512:
            errs.check(tokens[:256] == gpt2_byte_chars(), "the first 256 tokens are not the byte-level alphabet")
        if merges is not None:
            errs.check(len(merges) > 0, "no merges")
            vocab = set(tokens)
            for m in merges:
                parts = m.split(" ")
                if not errs.check(len(parts) == 2 and parts[0] in vocab and parts[1] in vocab and "".join(parts) in vocab,
                                  "merge %r is not two tokens making a token" % m):
                    break


# ---------------------------------------------------------------- running

def gen_args(c, out, expect):
    a = ["--out", out, "--expect", expect, "--version", str(c["version"]), "--type", c["type"],
         "--dim", str(c["dim"]), "--layers", str(c["layers"]), "--ff", str(c["ff"]), "--heads", str(c["heads"]),
         "--kv-heads", str(c["kv_heads"]), "--vocab", str(c["vocab"]), "--ctx", str(c["ctx"]),
         "--seed", str(c["seed"]), "--tokenizer", c["tokenizer"], "--alignment", str(c["alignment"])]
    if c["tied"]:
        a.append("--tied")
    if c["bad_type"]:
        a.append("--bad-type")
    if not c["test_keys"]:
        a.append("--no-test-keys")
    return a


def run_config(args, tmp, settings):
    c = dict(DEFAULTS, **settings)
    errs = Errors()
    path = os.path.join(tmp, "model.gguf")
    expect_path = os.path.join(tmp, "model.json")
    gen = subprocess.run([args.gguf_gen] + gen_args(c, path, expect_path), capture_output=True, timeout=RUN_TIMEOUT)
    if gen.returncode != 0:
        return ["gguf_gen exited %d: %s" % (gen.returncode, gen.stderr.decode(errors="replace").strip())]
    errs.check(gen.stdout == b"", "gguf_gen printed on stdout: %r" % gen.stdout[:200])
    with open(expect_path, encoding="utf-8") as f:
        expect = json.load(f)
    read = subprocess.run([args.node, READER, "--modules", args.work, path], capture_output=True, timeout=RUN_TIMEOUT)
    if read.returncode != 0:
        return errs + ["read_gguf.mjs exited %d: %s" % (read.returncode, read.stderr.decode(errors="replace").strip())]
    got = json.loads(read.stdout)
    file_size = os.path.getsize(path)
    errs.check(expect["file_size"] == file_size, "--expect says %d bytes, the file has %d" % (expect["file_size"], file_size))
    errs.check(expect["version"] == c["version"] and expect["alignment"] == c["alignment"], "--expect header fields")
    check_against_expect(errs, expect, got)
    check_model(errs, c, expect, got, file_size)
    os.remove(path)
    return errs


def run_usage_errors(args, tmp):
    """gguf_gen refuses what it cannot write, with a message and exit 2."""
    errs = Errors()
    out = os.path.join(tmp, "refused.gguf")
    cases = [[], ["--out", out, "--type", "q4_1"], ["--out", out, "--type", "q8_0", "--dim", "48", "--heads", "4"],
             ["--out", out, "--heads", "5"], ["--out", out, "--version", "1"], ["--out", out, "--alignment", "24"],
             ["--out", out, "--vocab", "abc"], ["--out", out, "--frobnicate"]]
    for case in cases:
        r = subprocess.run([args.gguf_gen] + case, capture_output=True, timeout=RUN_TIMEOUT)
        errs.check(r.returncode == 2 and r.stderr and not r.stdout and not os.path.exists(out),
                   "%s: exit %d, stderr %r" % (" ".join(case[2:]) or "(no arguments)", r.returncode, r.stderr[:120]))
    # A file that cannot be written: a message and exit 1.
    bad = os.path.join(tmp, "no-such-dir", "model.gguf")
    r = subprocess.run([args.gguf_gen, "--out", bad], capture_output=True, timeout=RUN_TIMEOUT)
    errs.check(r.returncode == 1 and b"cannot write" in r.stderr and not r.stdout,
               "unwritable --out: exit %d, stderr %r" % (r.returncode, r.stderr[:120]))
    r = subprocess.run([args.gguf_gen, "--out", out, "--expect", bad], capture_output=True, timeout=RUN_TIMEOUT)
    errs.check(r.returncode == 1 and b"cannot write" in r.stderr and not r.stdout,
               "unwritable --expect: exit %d, stderr %r" % (r.returncode, r.stderr[:120]))
    return errs


def tool(path, name):
    if path and "NOTFOUND" not in path and os.path.isfile(path) and os.access(path, os.X_OK):
        return path
    return shutil.which(name)


def install(args, npm):
    """npm ci of the pinned reader into args.work, unless it is already there."""
    with open(os.path.join(HERE, "package.json"), encoding="utf-8") as f:
        version = json.load(f)["dependencies"][PACKAGE]
    os.makedirs(args.work, exist_ok=True)
    installed = os.path.join(args.work, "node_modules", *PACKAGE.split("/"), "package.json")
    same = True
    for name in ("package.json", "package-lock.json"):
        with open(os.path.join(HERE, name), "rb") as f:
            src = f.read()
        dst = os.path.join(args.work, name)
        if not os.path.exists(dst):
            same = False
            continue
        with open(dst, "rb") as f:
            same = same and f.read() == src
    if same and os.path.exists(installed):
        with open(installed, encoding="utf-8") as f:
            if json.load(f).get("version") == version:
                return version, True
    for name in ("package.json", "package-lock.json"):
        shutil.copyfile(os.path.join(HERE, name), os.path.join(args.work, name))
    cmd = [npm, "ci", "--prefix", args.work, "--no-audit", "--no-fund", "--loglevel=error"]
    try:
        r = subprocess.run(cmd, capture_output=True, timeout=NPM_TIMEOUT)
        failed = r.returncode != 0
        detail = (r.stdout + r.stderr).decode(errors="replace").strip()
    except subprocess.TimeoutExpired:
        failed, detail = True, "no answer in %d s" % NPM_TIMEOUT
    if failed:
        sys.stderr.write("FAIL: npm could not install %s@%s into %s; is the npm registry reachable?\n%s\n"
                         % (PACKAGE, version, args.work, "\n".join(detail.splitlines()[-15:])))
        sys.exit(1)
    return version, False


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--gguf-gen", required=True)
    p.add_argument("--node", default="")
    p.add_argument("--npm", default="")
    p.add_argument("--work", required=True, help="directory for the npm install (under the build tree)")
    args = p.parse_args()

    node = tool(args.node, "node")
    npm = tool(args.npm, "npm") or (node and tool(os.path.join(os.path.dirname(node), "npm"), "npm"))
    if not node or not npm:
        sys.stderr.write("FAIL: %s not found: this test reads GGUF files with the npm package %s and needs Node.js 20 "
                         "or newer with npm (Debian: apt-get install nodejs npm), then a new cmake configure\n"
                         % (" and ".join(n for n, t in (("node", node), ("npm", npm)) if not t), PACKAGE))
        return 1
    v = subprocess.run([node, "--version"], capture_output=True, text=True)
    major = int(v.stdout.strip().lstrip("v").split(".")[0]) if v.returncode == 0 and v.stdout.startswith("v") else 0
    if major < 20:
        sys.stderr.write("FAIL: %s is %r; %s needs Node.js 20 or newer\n" % (node, v.stdout.strip(), PACKAGE))
        return 1
    args.node = node
    version, cached = install(args, npm)
    print("reader: %s@%s (%s) on node %s" % (PACKAGE, version, "already installed" if cached else "installed", v.stdout.strip()))

    failed = 0
    with tempfile.TemporaryDirectory(prefix="zan-gguf-") as tmp:
        results = [("gguf_gen refusals and write errors", lambda: run_usage_errors(args, tmp))]
        results += [(name, lambda s=settings: run_config(args, tmp, s)) for name, settings in CONFIGS]
        for name, run in results:
            errs = run()
            if errs:
                failed += 1
                print("FAIL %s: %s%s" % (name, "; ".join(errs[:5]), " (and %d more)" % (len(errs) - 5) if len(errs) > 5 else ""))
            else:
                print("ok   %s" % name)
    total = len(CONFIGS) + 1
    print("%d passed, %d failed" % (total - failed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
