#!/usr/bin/env python3
"""update, install, remove and upgrade against real local servers (static, a fake GitHub, a stalling one);
each step compares stdout, stderr and exit code.   pkg_cli.py --zan PATH [--wrapper wine]"""
import functools, hashlib, http.server, json, os, signal, ssl, subprocess, sys, tempfile, threading
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, expect, finish, container, self_signed, home_env, WRAPPER
import zantest

sha = lambda b: hashlib.sha256(b).hexdigest()
body = lambda name: (name * 50).encode()  # the bytes of each plugin file


def serve(handler, tls=None):
    srv = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    srv.handle_error = lambda *a: None  # a killed client's broken pipe
    if tls: srv.socket = tls.wrap_socket(srv.socket, server_side=True)
    threading.Thread(target=srv.serve_forever, daemon=True).start()
    return "http%s://127.0.0.1:%d" % ("s" if tls else "", srv.server_port)


class Stalling(http.server.SimpleHTTPRequestHandler):
    """Serves a directory; unless stalled is set, a request for slow* sends half its body and hangs."""
    stalled = threading.Event()
    def do_GET(self):
        if "slow" not in self.path or Stalling.stalled.is_set(): return super().do_GET()
        data = open(self.directory + self.path, "rb").read()
        self.send_response(200)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data[: len(data) // 2])
        self.wfile.flush()
        Stalling.stalled.set()
        threading.Event().wait()
    def log_message(self, *a): pass


def static_server(root, packages):
    os.makedirs(root + "/plugins", exist_ok=True)
    for f in [f["file"] for p in packages for f in p["files"] if not set("/\0") & set(f["file"])]:
        open(root + "/plugins/" + f, "wb").write(body(f))
    open(root + "/manifest.json", "w").write(json.dumps({"packages": packages}))
    return serve(functools.partial(Stalling, directory=root))


def pkg(name, version, files, deps=(), **over):
    fs = [dict({"file": f, "sha256": sha(body(f)), "size": len(body(f))}, **over.get(f, {})) for f in files]
    return {"name": name, "version": version, "desc": "the " + name, "files": fs,
            "dependencies": [{"name": d[0], "version": d[1]} for d in deps]}


class FakeGithub(http.server.BaseHTTPRequestHandler):
    """The API wants the token and its route's Accept header, the raw host neither."""
    files = {}  # path -> bytes
    def do_GET(self):
        api = self.path.startswith("/api/")
        accept = "application/vnd.github+json" if "/search/" in self.path else "application/vnd.github.raw"
        ok = not api or (self.headers["Authorization"] == "Bearer tok-1.x_Y" and self.headers["Accept"] == accept)
        data = self.files.get(self.path) if ok else None
        self.send_response(200 if data is not None else 404)
        self.send_header("Content-Length", str(len(data or b"")))
        self.end_headers()
        self.wfile.write(data or b"")
    def log_message(self, *a): pass


def run(args, stdin=b"", env=None, home=None):
    return zantest.run(WRAPPER + [ZAN] + args, stdin, env=dict(home_env(home or HOME), **(env or {})))


def check(title, args, code, out, err, **kw):
    expect(title, run(args, **kw), (code, out.format(**V), err.format(**V)))


def state(home=None):
    """The recorded plugins; a damaged file (a kill inside its one write) reads as none, as zan reads it."""
    try:
        return [(e["name"], e["version"], e["files"]) for e in json.load(open((home or HOME) + "/.zan/installed.json"))["plugins"]]
    except (OSError, ValueError, KeyError, TypeError):
        return []

pad = str.ljust


def main_scenario(tmp):
    A = [pkg("base", "1.0", ["libzan_base.so"]),
         pkg("mid", "1.1", ["libzan_mid.so", "shared.so"], [("base", ">=1.0")]),
         pkg("top", "2.0", ["libzan_top.so", "shared.so"], [("mid", "")]),
         pkg("dia", "1", ["libzan_dia.so"], [("base", ""), ("mid", "1.1")]),
         pkg("cyca", "1", ["libzan_cyca.so"], [("cycb", "")]),
         pkg("cycb", "1", ["libzan_cycb.so"], [("cyca", "")]),
         pkg("lonely", "1", ["libzan_lonely.so"], [("ghost", ">=2")]),
         pkg("badsha", "1", ["libzan_badsha.so"], **{"libzan_badsha.so": {"sha256": "0" * 64}}),
         pkg("badsize", "1", ["libzan_badsize.so"], **{"libzan_badsize.so": {"size": -5}}),
         pkg("evil", "1", ["../evil.so", "/tmp/zan-evil.so", "x\0.so"])]
    B = [pkg("base", "0.9", ["libzan_base.so"], **{"libzan_base.so": {"sha256": sha(b"other")}}),
         pkg("extra", "1", ["libzan_extra.so"])]
    V["A"], V["B"] = static_server(tmp + "/a", A), static_server(tmp + "/b", B)
    os.makedirs(tmp + "/a/bad")
    open(tmp + "/a/bad/manifest.json", "w").write("[" * 10000 + "]" * 10000)
    os.makedirs(HOME + "/.zan")
    open(HOME + "/.zan/sources.list", "w").write("zan {A}\nzan {B}\nzan {A}/nothere\nzan {A}/bad\n".format(**V))
    V["D"] = HOME + "/.zan/plugin"
    fails = "zan: source {A}/nothere failed: cannot fetch {A}/nothere/manifest.json\n" \
            "zan: source {A}/bad failed: bad manifest from {A}/bad\n"
    V["SRC"] = ("zan: source %s 10 package(s), 14 file(s)\nzan: source %s 2 package(s), 2 file(s)\n" % (
        pad(V["A"], 22), pad(V["B"], 22)) + fails + "".join(
        "zan: skipping %s missing dependency %s\n" % (pad(p, 28), d) for p, d in
        [("cyca", "cycb"), ("cycb", "cyca"), ("lonely", "ghost (need >=2)")])).format(**V)
    V["CONF"] = "zan: 'libzan_base.so' also provided elsewhere with a different sha - keeping first\n"
    inst = lambda *fs: "".join("installed %s (%d bytes)\n" % (f, len(body(f))) for f in fs)
    V["I5"] = inst("libzan_base.so", "libzan_mid.so", "shared.so", "libzan_top.so", "libzan_dia.so")
    row = lambda f, size, h: "%-40s %10s  %s\n" % (f, size, h)
    check("--list of one --repo server", ["install", "--repo", V["B"], "--list"], 0, row("file", "size", "sha256") +
          row("libzan_base.so", 700, sha(b"other")) + row("libzan_extra.so", 750, sha(body("libzan_extra.so"))), "")
    check("update", ["update"], 0, "zan update: 12 package(s), 11 file(s) available\n", "{SRC}{CONF}")
    check("install with a chain and a diamond of dependents", ["install", "base", "-y"], 0,
          "{I5}zan: 5 installed, 0 up-to-date, 0 failed\n", "{SRC}{CONF}")
    expect("state after install", state(), [("base", "1.0", ["libzan_base.so"]),
           ("mid", "1.1", ["libzan_mid.so", "shared.so"]), ("top", "2.0", ["libzan_top.so", "shared.so"]),
           ("dia", "1", ["libzan_dia.so"])])
    check("already installed", ["install", "base"], 0, "zan: 0 installed, 5 up-to-date, 0 failed\n", "{SRC}{CONF}")
    check("forced reinstall by file name", ["install", "libzan_top", "--force", "-y"], 0,
          inst("libzan_top.so", "shared.so") + "zan: 2 installed, 0 up-to-date, 0 failed\n", "{SRC}")
    check("digest, size and unsafe names", ["install", "badsha", "badsize", "evil", "-y"], 1,
          "zan: 0 installed, 0 up-to-date, 5 failed\n",
          "{SRC}zan: sha256 mismatch for libzan_badsha.so\nzan: size mismatch for libzan_badsize.so\n"
          "zan: skipping unsafe name '../evil.so'\nzan: skipping unsafe name '/tmp/zan-evil.so'\n"
          "zan: skipping unsafe name 'x'\n")
    expect("nothing written for refused files", sorted(os.listdir(V["D"])) + sorted(os.listdir(HOME + "/.zan")),
           ["libzan_base.so", "libzan_dia.so", "libzan_mid.so", "libzan_top.so", "shared.so",
            "installed.json", "plugin", "sources.list"])
    check("cycle and missing dependency", ["install", "lonely", "cyc"], 1, "",
          "{SRC}zan: package not found: lonely\nzan: package not found: cyc\n"
          "zan: no matching package (run `zan update` to list what is available)\n")
    prompt = "The following package(s) will be installed ({D}):\n  extra 1\n      the extra\nInstall 1 package(s)? [y/N] "
    check("prompt refused", ["install", "extra"], 1, prompt + "zan: install aborted\n", "{SRC}",
          stdin=b" n\n", env={"ZAN_CONFIRM": ""})
    check("prompt accepted", ["install", "extra"], 0, prompt + inst("libzan_extra.so") +
          "zan: 1 installed, 0 up-to-date, 0 failed\n", "{SRC}", stdin=b"\t Y\n", env={"ZAN_CONFIRM": "1"})
    check("remove keeps a shared file", ["remove", "mid", "-y"], 0,
          "removed mid (2 files)\nzan: 1 removed, 1 files deleted\n", "")
    # The forced reinstall recorded top anew, behind dia.
    check("remove by substring, one unknown", ["remove", "to", "dia", "nothere", "-y"], 1,
          "removed dia (1 files)\nremoved top (2 files)\nzan: 2 removed, 3 files deleted\n",
          "zan: package 'nothere' not installed (plugin ls)\n")
    check("remove ambiguous", ["remove", "a"], 1, "", "zan: 'a' is ambiguous, matches: base extra (use the full name)\n")
    expect("files after remove", sorted(os.listdir(V["D"])), ["libzan_base.so", "libzan_extra.so"])
    check("upgrade, nothing newer", ["upgrade"], 0, "zan: all 2 installed package(s) up-to-date\n", fails)
    # A newer base, and extra's file lost on disk: both are due.
    open(tmp + "/a/plugins/libzan_base.so", "ab").write(b"v2")
    A[0] = pkg("base", "1.1", ["libzan_base.so"], **{"libzan_base.so": {"sha256": sha(body("libzan_base.so") + b"v2"), "size": 702}})
    open(tmp + "/a/manifest.json", "w").write(json.dumps({"packages": A}))
    os.remove(V["D"] + "/libzan_extra.so")
    check("upgrade refused", ["upgrade"], 1, "The following package(s) will be upgraded:\n  base 1.0 -> 1.1\n"
          "  extra 1 -> 1\nUpgrade 2 package(s)? [y/N] zan: upgrade aborted\n", fails, env={"ZAN_CONFIRM": "1"})
    check("upgrade", ["upgrade", "-y"], 0, V["I5"].replace("(700", "(702") + inst("libzan_extra.so") +
          "zan: 6 installed, 0 up-to-date, 0 failed\n", fails + "{SRC}{CONF}")
    expect("state after upgrade", [(n, v) for n, v, _ in state()],
           [("base", "1.1"), ("mid", "1.1"), ("top", "2.0"), ("dia", "1"), ("extra", "1")])
    check("upgrade by name, up to date", ["upgrade", "extra"], 0, "zan: requested package(s) up-to-date\n", fails)


def github_scenario(tmp):
    home = tmp + "/gh"
    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(*self_signed(tmp))
    G, env = serve(FakeGithub, tls), {"CURL_CA_BUNDLE": tmp + "/cert.pem", "ZAN_GITHUB_TOKEN": "tok-1.x_Y"}
    gc, gm = b"container plugin bytes", body("libzan_gm.so")
    FakeGithub.files = {
        "/api/search/repositories?q=topic%3Azan-plugin&per_page=100": json.dumps({"items": [
            {"full_name": "o/cont", "default_branch": "main"}, {"full_name": "o/man", "default_branch": "dev"},
            {"full_name": ""}, {"x": 1}]}).encode(),
        "/raw/o/cont/main/plugins.zan": container(2, {"kind": "plugin", "name": "gc", "version": "1", "files": [
            {"name": "libzan_gc.so", "section": 1, "bytes": len(gc)}]}, [gc]),
        "/raw/o/man/dev/zan-plugin/manifest.json": json.dumps({"name": "gm", "version": "3", "files": [
            {"file": "libzan_gm.so", "sha256": sha(gm), "size": len(gm)}]}).encode(),
        "/api/repos/o/man/contents/zan-plugin/libzan_gm.so": gm}
    os.makedirs(home + "/.zan")
    open(home + "/.zan/sources.list", "w").write("zan %s/api github-topic=zan-plugin raw=%s/raw\n" % (G, G))
    cache = home + "/.zan/cache/plugins.zan"
    fromc = "installed gc 1 (from %s)\nzan: %s: 1 installed/updated, 0 failed (container plugin)\n" % (cache, cache)
    # Files come through the contents API: the built-in client refuses https.
    check("github topic: a container and a manifest", ["install", "-y"], 0, fromc +
          "installed libzan_gm.so (600 bytes)\nzan: 1 installed, 0 up-to-date, 0 failed\n",
          "zan: source %s 2 repos, 2 with plugins\n" % pad(G + "/api", 22), home=home, env=env)
    check("upgrade refreshes the container", ["upgrade", "-y"], 0, fromc +
          "zan: all 2 installed package(s) up-to-date\n", "", home=home, env=env)
    expect("github state", [(n, v) for n, v, _ in state(home)], [("gc", "1"), ("gm", "3")])


def kill_test(tmp):
    names = ["k0", "k1", "slow", "k2", "k3"]
    packages = [pkg(n, "1", ["libzan_%s.so" % n]) for n in names]
    K = static_server(tmp + "/k", packages)
    want = {n: ("1", body("libzan_%s.so" % n)) for n in names}
    # Kill points: in a stalled download (of install, then of upgrade to slow 2), after the n-th line of install/remove.
    for point in ["stall", 1, 3, "remove2", "upgrade"]:
        home = "%s/kill-%s" % (tmp, point)
        os.makedirs(home + "/.zan")
        open(home + "/.zan/sources.list", "w").write("zan %s\n" % K)
        cmd, removing = ["install", "-y"], ()
        Stalling.stalled.set()
        if str(point).startswith("remove"):
            run(cmd, home=home)
            cmd, removing = ["remove", "k0", "k1", "slow", "-y"], ("k0", "k1", "slow")
        elif point == "upgrade":
            run(cmd, home=home)
            want["slow"] = ("2", b"version two")
            open(tmp + "/k/plugins/libzan_slow.so", "wb").write(b"version two")
            packages[2] = pkg("slow", "2", ["libzan_slow.so"], **{"libzan_slow.so": {"sha256": sha(b"version two"), "size": 11}})
            open(tmp + "/k/manifest.json", "w").write(json.dumps({"packages": packages}))
            cmd = ["upgrade", "-y"]
        if point in ("stall", "upgrade"):
            Stalling.stalled.clear()
        p = subprocess.Popen((WRAPPER or ["stdbuf", "-oL"]) + [ZAN] + cmd, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=home_env(home))
        if point in ("stall", "upgrade"):
            Stalling.stalled.wait(60)
        else:
            for _ in range(point if isinstance(point, int) else int(point[-1])): p.stdout.readline()
        p.send_signal(signal.SIGKILL)
        p.wait()
        # The state parses for ls, and every file it records is on disk (but for packages being removed).
        expect("kill at %s: ls" % point, run(["ls", "plugins", "-a"], home=home)[0::2], (0, ""))
        expect("kill at %s: files" % point, [f for n, _, fs in state(home) for f in fs if n not in removing
                                             and not os.path.exists(home + "/.zan/plugin/" + f)], [])
        # A kill inside the state's one straight write loses the records (never the files): remove then knows nothing.
        wiped = os.path.exists(home + "/.zan/installed.json") and not state(home)
        Stalling.stalled.set()
        rc = run(cmd, home=home)[0]
        done = {n: w for n, w in want.items() if n not in removing}
        recorded = sorted((n, v, ["libzan_%s.so" % n]) for n, (v, _) in done.items())
        expect("kill at %s: rerun" % point, (rc if not removing else 0, sorted(state(home))),
               (0, [] if wiped and removing else recorded))
        for n, (_, data) in done.items():
            expect("kill at %s: %s" % (point, n), sha(open(home + "/.zan/plugin/libzan_%s.so" % n, "rb").read()), sha(data))


def main():
    global HOME
    with tempfile.TemporaryDirectory() as tmp:
        HOME = tmp + "/home"
        main_scenario(tmp)
        if WRAPPER:
            print("SKIPPED github scenario: https goes to curl.exe, which wine lacks")
        else:
            github_scenario(tmp)
        kill_test(tmp)
    return finish()


V, ZAN, HOME = {}, os.path.abspath(opts["--zan"]), ""
if __name__ == "__main__":
    sys.exit(main())
