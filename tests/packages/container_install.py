#!/usr/bin/env python3
"""`zan install` of repo/plugin containers: local files, a server source and --repo over HTTP,
hostile names, truncations, SIGKILL mid-fetch.   container_install.py --zan PATH [--wrapper wine]"""
import json, os, shutil, subprocess, sys, tempfile
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, check, finish, run, container, raw_server, home_env, WRAPPER


def main():
    home = tempfile.mkdtemp(prefix="zan-ct-")
    plug, env = os.path.join(home, ".zan/plugin"), home_env(home)
    zan = lambda *args: run(WRAPPER + [opts["--zan"], *args], cwd=home, env=env)

    put = lambda name, data: open(os.path.join(home, name), "wb").write(data)
    read = lambda rel: open(os.path.join(plug, rel), "rb").read()
    state = lambda: [(e["name"], e["version"], e["origin"], e["files"])
                     for e in json.load(open(os.path.join(home, ".zan/installed.json")))["plugins"]]

    # A repo: a file in a subdirectory, one with no size (always extracted), the manifest itself, a config.
    repo1 = {"kind": "repo", "version": "2.0", "configs": [{"name": "p.conf", "section": 3}],
             "plugins": [{"name": "p", "desc": "d\n\"\\", "files": [{"name": "libzan_p.so", "section": 1, "bytes": 3},
                                                              {"name": "sub/p.dat", "section": 2}]},
                         {"name": "q", "version": "1", "files": [{"name": "zan_q.so", "section": 0}]}]}
    put("r.zan", container(5, repo1, [b"PPP", b"data", b"conf=1"]))
    # On Windows the working directory is a drive path, its backslashes escaped in the JSON text.
    origin = "zan://" + ("Z:" + home.replace("/", "\\\\") if WRAPPER else home) + "/r.zan"
    rc, out, err = zan("install", "r.zan")
    check((rc, err, out) == (0, "", "zan: sources.list initialized (%s/.zan/sources.list)\n" % home +
          "installed p 2.0 (from r.zan)\ninstalled q 1 (from r.zan)\nconfig p.conf -> %s/.zan/p.conf\n" % home +
          "zan: r.zan: 2 installed/updated, 0 failed (container repo)\n"), f"repo install {rc} {out!r} {err!r}")
    text = open(os.path.join(home, ".zan/installed.json")).read()
    check(text == '{\n  "plugins": [\n    {"name":"p","version":"2.0","origin":"%s","desc":"d\\u000a\\"\\\\",'
          '"files":["libzan_p.so","sub/p.dat"]},\n    {"name":"q","version":"1","origin":"%s","desc":"",'
          '"files":["zan_q.so"]}\n  ]\n}\n' % (origin, origin), f"state text {text!r}")
    check(read("sub/p.dat") == b"data" and read("zan_q.so") == json.dumps(repo1).encode(), "repo files")

    # Same size on disk: left alone without --force, replaced with it.
    open(os.path.join(plug, "libzan_p.so"), "wb").write(b"XXX")
    zan("install", os.path.join(home, "r.zan"))
    check(read("libzan_p.so") == b"XXX", "same-size file kept")
    zan("install", "--force", "r.zan")
    check(read("libzan_p.so") == b"PPP", "--force re-extracts")

    # Version 2 drops q: its files and entry go, but never a damaged name outside the install directory.
    st = json.load(open(os.path.join(home, ".zan/installed.json")))
    st["plugins"][1]["files"].append("../outside")
    json.dump(st, open(os.path.join(home, ".zan/installed.json"), "w"))
    put(".zan/outside", b"keep")
    repo2 = dict(repo1, plugins=repo1["plugins"][:1], configs=[])
    put("r.zan", container(5, repo2, [b"PPP", b"data"]))
    rc, out, err = zan("install", "r.zan")
    check(rc == 0 and [n for n, *_ in state()] == ["p"], f"dropped plugin {rc} {state()}")
    check(not os.path.exists(os.path.join(plug, "zan_q.so")), "dropped file removed")
    check(os.path.exists(os.path.join(home, ".zan/outside")), "nothing deleted outside")

    # Hostile names are refused, nothing is written outside; the run fails, the state keeps what it had.
    bad = {"kind": "plugin", "name": "b", "files": [
        {"name": n, "section": 1} for n in ("../esc", "/tmp/abs", "a/../../esc2", "")] +
        [{"name": "ok.so", "section": 9}, {"name": "ok.so", "section": 1, "bytes": 2}]}
    put("b.zan", container(5, bad, [b"x"]))  # header kind 5, manifest says plugin
    rc, out, err = zan("install", "b.zan")
    want = "".join("zan: b: bad file entry '%s'\n" % n for n in ("../esc", "/tmp/abs", "a/../../esc2", "", "ok.so"))
    check((rc, err) == (1, want + "zan: b: size mismatch for ok.so\n"), f"bad names {rc} {err!r}")
    check(not os.path.exists(os.path.join(home, ".zan/esc")) and not os.path.exists("/tmp/abs"), "escaped")
    check([n for n, *_ in state()] == ["p"], "state after bad plugin")

    put("app.zan", container(6, {}))
    put("app.bin", container(6, {}))
    put("junk.zan", b"ZAN1" + b"\0" * 80)
    for args, want in [(["app.zan"], (2, "zan: app.zan is a kind=6 container; install accepts repo/plugin only\n")),
                       (["app.bin"], (2, "zan: app.bin looks like an ZAN container; rename to *.zan or give a package name\n")),
                       (["junk.zan"], (2, "zan: junk.zan is not an ZAN container\n")),
                       (["--bogus"], (2, "zan: unknown option '--bogus'\n")),
                       (["--dir"], (2, "zan: missing value for --dir\n"))]:
        rc, out, err = zan("install", *args)
        check((rc, err) == want, f"{args}: {rc} {err!r}")

    # Truncated at every length: a clean failure, never a crash or a write outside.
    whole = container(2, {"kind": "plugin", "name": "t", "files": [{"name": "t.so", "section": 1, "bytes": 300}]},
                      [b"t" * 300])
    for n in range(0, len(whole), 7):
        put("t.zan", whole[:n])
        rc, out, err = zan("install", "--force", "t.zan")
        check(rc in (1, 2) and err.startswith("zan: "), f"cut at {n}: {rc} {err!r}")

    # Fetched containers: a server source and --repo; origin is the address.
    srv, port = raw_server("--root", home)
    url = "http://127.0.0.1:%d/file/r.zan?v=2" % port
    put(".zan/sources.list", b"zan %s\nzan http://127.0.0.1:%d/file/none.zan\n" % (url.encode(), port))
    rc, out, err = zan("install", "p")
    cache = home + "/.zan/cache/r.zan"
    check(rc == 0 and err == "zan: container source %s -> %s\n" % (url, cache) +
          "zan: cannot fetch container source http://127.0.0.1:%d/file/none.zan\n" % port +
          "zan: container source http://127.0.0.1:%d/file/none.zan failed (1)\n" % port, f"source {rc} {err!r}")
    check(state()[0][2] == "zan://" + url and len(state()) == 1, f"source origin {state()}")
    rc, out, err = zan("install", "--list", "--repo", url)
    check((rc, out) == (0, "  container: %s (plugins bundled; run zan install to materialize)\n" % url), "--list")
    srv.kill()

    # SIGKILL while the container is on the wire: the state and its files stay those of the earlier install.
    size = os.path.getsize(os.path.join(home, "r.zan"))
    before = state()
    for at in (0, 40, 64 + 24, size // 2, size - 1):
        srv, port = raw_server("--root", home, "--stall-at", str(at))
        z = subprocess.Popen(WRAPPER + [opts["--zan"], "install", "--force", "--repo", "http://127.0.0.1:%d/file/r.zan" % port],
                             env=env, cwd=home, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        check(srv.stdout.readline().startswith("STALL"), f"stall at {at}")
        z.kill()
        z.wait()
        srv.kill()
        srv.wait()
        check(state() == before and read("libzan_p.so") == b"PPP" and read("sub/p.dat") == b"data", f"kill at {at}")

    shutil.rmtree(home)
    return finish()


if __name__ == "__main__":
    sys.exit(main())
