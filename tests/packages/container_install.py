#!/usr/bin/env python3
"""`zan install` of repo/plugin containers: local files, a server source and
--repo over HTTP, hostile names, truncations, and SIGKILL mid-fetch.
Usage: container_install.py --zan PATH --server raw_http_server.py"""
import json, os, shutil, subprocess, sys, tempfile
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../tools")
from zantest import opts, check, container, finish, raw_server, run

home, ZAN = tempfile.mkdtemp(prefix="zan-ct-"), os.path.abspath(opts["--zan"])
plug, env = home + "/.zan/plugin/", {"PATH": os.environ["PATH"], "HOME": home}
zan = lambda *args: run([ZAN, *args], cwd=home, env=env)
put = lambda name, data: open(os.path.join(home, name), "wb").write(data)
read = lambda rel: open(plug + rel, "rb").read()
state = lambda: [(e["name"], e["version"], e["origin"], e["files"])
                 for e in json.load(open(home + "/.zan/installed.json"))["plugins"]]

# A repo: a plugin in a subdirectory, a file with no size (always
# extracted), a file that is the manifest itself, and a config file.
repo1 = {"kind": "repo", "version": "2.0", "configs": [{"name": "p.conf", "section": 3}],
         "plugins": [{"name": "p", "desc": "d\n\"\\", "files": [{"name": "libzan_p.so", "section": 1, "bytes": 3},
                                                          {"name": "sub/p.dat", "section": 2}]},
                     {"name": "q", "version": "1", "files": [{"name": "zan_q.so", "section": 0}]}]}
put("r.zan", container(5, repo1, [b"PPP", b"data", b"conf=1"]))
origin = "zan://" + os.path.join(home, "r.zan")
rc, out, err = zan("install", "r.zan")
check((rc, err, out) == (0, "", "zan: sources.list initialized (%s/.zan/sources.list)\n" % home +
      "installed p 2.0 (from r.zan)\ninstalled q 1 (from r.zan)\nconfig p.conf -> %s/.zan/p.conf\n" % home +
      "zan: r.zan: 2 installed/updated, 0 failed (container repo)\n"), f"repo install {rc} {out!r} {err!r}")
text = open(home + "/.zan/installed.json").read()
check(text == '{\n  "plugins": [\n    {"name":"p","version":"2.0","origin":"%s","desc":"d\\u000a\\"\\\\",'
      '"files":["libzan_p.so","sub/p.dat"]},\n    {"name":"q","version":"1","origin":"%s","desc":"",'
      '"files":["zan_q.so"]}\n  ]\n}\n' % (origin, origin), f"state text {text!r}")
check(read("sub/p.dat") == b"data" and read("zan_q.so") == json.dumps(repo1).encode(), "repo files")

# Same size on disk: left alone without --force, replaced with it.
open(plug + "libzan_p.so", "wb").write(b"XXX")
zan("install", os.path.join(home, "r.zan"))
check(read("libzan_p.so") == b"XXX", "same-size file kept")
zan("install", "--force", "r.zan")
check(read("libzan_p.so") == b"PPP", "--force re-extracts")

# Version 2 drops q: its files and entry go; a damaged name is never
# deleted outside the install directory.
st = json.load(open(home + "/.zan/installed.json"))
st["plugins"][1]["files"].append("../outside")
json.dump(st, open(home + "/.zan/installed.json", "w"))
put(".zan/outside", b"keep")
put("r.zan", container(5, dict(repo1, plugins=repo1["plugins"][:1], configs=[]), [b"PPP", b"data"]))
rc, out, err = zan("install", "r.zan")
check(rc == 0 and [n for n, *_ in state()] == ["p"], f"dropped plugin {rc} {state()}")
check(not os.path.exists(plug + "zan_q.so") and os.path.exists(home + "/.zan/outside"), "dropped file, outside kept")

# Hostile names are refused and nothing is written outside; the plugin
# fails, and so does the run, but the state keeps what it had.
names = ("../esc", "/tmp/abs", "a/../../esc2", "")
bad = {"kind": "plugin", "name": "b", "files": [{"name": n, "section": 1} for n in names] +
       [{"name": "ok.so", "section": 9}, {"name": "ok.so", "section": 1, "bytes": 2}]}
put("b.zan", container(5, bad, [b"x"]))  # header kind 5, manifest says plugin
rc, out, err = zan("install", "b.zan")
check((rc, err) == (1, "".join("zan: b: bad file entry '%s'\n" % n for n in names + ("ok.so",)) +
      "zan: b: size mismatch for ok.so\n"), f"bad names {rc} {err!r}")
check(not os.path.exists(home + "/.zan/esc") and not os.path.exists("/tmp/abs"), "escaped")
check([n for n, *_ in state()] == ["p"], "state after bad plugin")

# Other refusals.
put("app.zan", container(6, {}))
put("app.bin", container(6, {}))
put("junk.zan", b"ZAN1" + b"\0" * 80)
for args, want in [(["app.zan"], "zan: app.zan is a kind=6 container; install accepts repo/plugin only\n"),
                   (["app.bin"], "zan: app.bin looks like an ZAN container; rename to *.zan or give a package name\n"),
                   (["junk.zan"], "zan: junk.zan is not an ZAN container\n"),
                   (["--bogus"], "zan: unknown option '--bogus'\n"), (["--dir"], "zan: missing value for --dir\n")]:
    rc, out, err = zan("install", *args)
    check((rc, err) == (2, want), f"{args}: {rc} {err!r}")

# Truncated at every length: a clean failure, never a crash or a write outside.
whole = container(2, {"kind": "plugin", "name": "t", "files": [{"name": "t.so", "section": 1, "bytes": 300}]},
                  [b"t" * 300])
for n in range(0, len(whole), 7):
    put("t.zan", whole[:n])
    rc, out, err = zan("install", "--force", "t.zan")
    check(rc in (1, 2) and err.startswith("zan: "), f"cut at {n}: {rc} {err!r}")

# Fetched containers: a server source and --repo; origin is the address.
srv, port = raw_server("--root", home)
url, none = "http://127.0.0.1:%d/file/r.zan?v=2" % port, "http://127.0.0.1:%d/file/none.zan" % port
put(".zan/sources.list", b"zan %s\nzan %s\n" % (url.encode(), none.encode()))
rc, out, err = zan("install", "p")
check(rc == 0 and err == "zan: container source %s -> %s/.zan/cache/r.zan\n" % (url, home) +
      "zan: cannot fetch container source %s\nzan: container source %s failed (1)\n" % (none, none), f"source {rc} {err!r}")
check(state()[0][2] == "zan://" + url and len(state()) == 1, f"source origin {state()}")
rc, out, err = zan("install", "--list", "--repo", url)
check((rc, out) == (0, "  container: %s (plugins bundled; run zan install to materialize)\n" % url), "--list")
srv.kill()

# SIGKILL while the container is on the wire: the state and the files it
# names stay those of the complete earlier install.
size, before = os.path.getsize(home + "/r.zan"), state()
for at in (0, 40, 64 + 24, size // 2, size - 1):
    srv, port = raw_server("--root", home, "--stall-at", str(at))
    z = subprocess.Popen([ZAN, "install", "--force", "--repo", "http://127.0.0.1:%d/file/r.zan" % port],
                         env=env, cwd=home, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    check(srv.stdout.readline().startswith("STALL"), f"stall at {at}")
    z.kill(), z.wait(), srv.kill(), srv.wait()
    check(state() == before and read("libzan_p.so") == b"PPP" and read("sub/p.dat") == b"data", f"kill at {at}")
shutil.rmtree(home)
sys.exit(finish())
