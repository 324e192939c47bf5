#!/usr/bin/env python3
"""The llama runtime through zan: run, chat and bench on generated models
(noise text, so the checks are about behaviour):
runtime_cli.py --zan ZAN --gguf-gen GGUF_GEN --work DIR [--wrapper PROGRAM (wine)]"""
import os, re, subprocess, sys
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, check, finish, run, WRAPPER


def main():
    os.makedirs(opts["--work"], exist_ok=True)
    env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": "/nonexistent"}
    wrapper = WRAPPER
    if WRAPPER:
        env.update({k: v for k, v in os.environ.items() if k.startswith("WINE")}, WINEHOME="/nonexistent")

    def zan(*args, stdin=""):
        return run(wrapper + [os.path.realpath(opts["--zan"]), *args], stdin=stdin.encode(), env=env, cwd=opts["--work"])

    for t in ("llama", "gpt2"):  # the tokenizer
        gguf = os.path.join(opts["--work"], f"{t}.gguf")
        model = os.path.join(opts["--work"], f"{t}.zan")
        subprocess.run(wrapper + [opts["--gguf-gen"], "--out", gguf, "--type", "q8_0", "--tokenizer", t, "--vocab", "400",
                        "--seed", "11"], check=True)
        rc, _, err = zan("convert", gguf, model)
        check(rc == 0, f"{t}: convert: {err}")

        a, b = (zan("run", model, "-p", "the cat sat", "--seed", "5", "-n", "24") for _ in range(2))
        check(a[0] == 0 and a[1] == b[1], f"{t}: the same seed gave different text: {a[1]!r} vs {b[1]!r}")
        check(a[2] == "[plugin-runtime] llama (cpu)\n", f"{t}: run stderr: {a[2]!r}")
        rc, out, err = zan("run", model, "-p", "x", "-n", "0")
        check(rc == 0 and out == "\n", f"{t}: -n 0 should answer nothing: {out!r} {err}")
        rc, out, err = zan("run", model, "-p", "hi", "-kv", "q8_0", "-c", "64", "-n", "8")
        check(rc == 0 and "[cfg] ctx=64 kv=q8_0\n" in err, f"{t}: -kv q8_0 -c 64: {rc} {err}")
        rc, out, err = zan("run", model, "-p", "one two three four five six seven", "-c", "4")
        check(rc == 1 and re.search(r"zan_llama: the prompt is \d+ tokens; with 0 already in use the context of 4 "
                                    r"holds only 4 more\nzan: generation failed \(3\)\n$", err),
              f"{t}: a prompt over the context: {rc} {err}")

        rc, text, err = zan("chat", model, "-n", "8", stdin="hello there\n/clear\nagain\n")
        check(rc == 0 and text.startswith("Halden chat (plugin runtime llama)\ncommands: /exit /quit, /clear\nUser: ")
              and text.count("\nModel: ") == 2 and text.endswith("User: "), f"{t}: chat: {rc} {text!r}")
        check(err.count("[zan chat] streaming via llama (v2s)\n") == 2, f"{t}: chat stderr: {err!r}")

        # A conversation longer than the context starts over instead of failing.
        rc, text, err = zan("chat", model, "-c", "80", stdin="one\ntwo\nthree\nfour\n")
        check(rc == 0 and text.count("\nModel: ") == 4 and text.endswith("User: ") and "failed" not in err,
              f"{t}: chat over a small context: {rc} {text!r} {err!r}")

        rc, out, err = zan("bench", model, "--tokens", "8", "--warmup", "2", "--runs", "2")
        check(rc == 0 and len(out.splitlines()) == 3, f"{t}: bench: {out!r} {err}")  # the format: models.case

    # A container whose tensor index lost a tensor (the index isn't under the
    # header checksum, so the file still opens): create says what is missing.
    data = bytearray(open(os.path.join(opts["--work"], "llama.zan"), "rb").read())
    at = data.find(b"token_embd.weight\0")
    check(at > 0, "no token_embd.weight record in the container")
    data[at + 16:at + 17] = b"X"
    broken = os.path.join(opts["--work"], "broken.zan")
    # Another architecture is claimed weakly, and create names it.
    other = data.replace(b"\x05\x00\x00\x00llama", b"\x05\x00\x00\x00gemma", 1)
    for blob, why in ((data, "missing tensor token_embd.weight"),
                      (other, "architecture 'gemma' is not supported (llama, mistral, qwen2 and qwen3 are)")):
        open(broken, "wb").write(bytes(blob))
        rc, out, err = zan("run", broken, "-p", "hi")
        check(rc == 1 and err == f"[plugin-runtime] llama (cpu)\nzan: runtime create failed: {broken}: {why}\n",
              f"broken model: {rc} {err!r}")

    # A qwen2 file with a byte-level BPE tokenizer and a pre-tokenizer name
    # we don't know: it runs on the GPT-2 split and says so, once.
    gguf = os.path.join(opts["--work"], "qwen.gguf")
    model = os.path.join(opts["--work"], "qwen.zan")
    subprocess.run(wrapper + [opts["--gguf-gen"], "--out", gguf, "--type", "q4_k", "--dim", "256", "--ff", "256", "--arch", "qwen2",
                    "--tokenizer", "gpt2", "--pre", "tekken", "--vocab", "400"], check=True)
    rc, _, err = zan("convert", gguf, model)
    check(rc == 0, f"qwen2: convert: {err}")
    rc, out, err = zan("run", model, "-p", "the cat sat 123", "-n", "8")
    check(rc == 0 and err == "[plugin-runtime] llama (cpu)\n"
          "zan_llama: unknown pre-tokenizer \"tekken\": using the GPT-2 split\n", f"qwen2 run: {rc} {err!r}")

    rc, out, err = zan("info", os.path.join(opts["--work"], "llama.zan"))
    check(rc == 0 and "  runtime: llama (conf 80, arch llama)\n" in out, f"info: {out!r} {err}")
    return finish()


if __name__ == "__main__":
    sys.exit(main())
