"""What the Python test drivers share: their --name value options, failure
counting, running a program, ZAN2 containers, and local servers."""
import json, os, struct, subprocess, sys

opts = dict(zip(sys.argv[1::2], sys.argv[2::2]))
failures = []


def check(ok, what):
    if not ok:
        failures.append(what)
        print("FAIL", what)
    return ok


def expect(what, got, want):
    return check(got == want, "%s\n  want %r\n  got  %r" % (what, want, got))


def finish():
    print("%d failure(s)" % len(failures))
    return 1 if failures else 0


def run(argv, stdin=b"", **kw):
    p = subprocess.run(argv, input=stdin, capture_output=True, timeout=120, **kw)
    return p.returncode, p.stdout.decode(errors="replace"), p.stderr.decode(errors="replace")


def container(kind, manifest, blobs=()):
    """A ZAN2 file: header, section table, then the manifest and the blobs, 64-aligned."""
    secs = [json.dumps(manifest).encode(), *blobs]
    at, table, body = 64 + 24 * len(secs), b"", b""
    for s in secs:
        body += b"\0" * (-(at + len(body)) % 64)
        table += struct.pack("<IIQQ", 0, 0, at + len(body), len(s))
        body += s
    return b"ZAN2" + struct.pack("<III28xH18x", 2, 0x01020304, len(secs), kind) + table + body


def raw_server(*args):
    """raw_http_server.py with args, and the port it listens on."""
    srv = subprocess.Popen([sys.executable, os.path.dirname(__file__) + "/../packages/raw_http_server.py", *args],
                           stdout=subprocess.PIPE, text=True)
    return srv, int(srv.stdout.readline().split()[1])


def self_signed(d):
    """A certificate for 127.0.0.1 and its key in d: (cert, key)."""
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj", "/CN=127.0.0.1",
                    "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", d + "/key.pem", "-out", d + "/cert.pem"],
                   check=True, capture_output=True)
    return d + "/cert.pem", d + "/key.pem"


WRAPPER = [opts["--wrapper"]] if opts.get("--wrapper") else []  # wine, for a Windows build


def home_env(home, wine=None):
    """The environment of a zan run in HOME home; wine passes HOME to Windows programs only as WINEHOME."""
    e = {k: v for k, v in os.environ.items() if k.startswith("WINE")}
    e.update({"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "WINEHOME" if (WRAPPER if wine is None else wine) else "HOME": home})
    return e
