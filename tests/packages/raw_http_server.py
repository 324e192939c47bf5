#!/usr/bin/env python3
"""Raw-socket HTTP replies a static server cannot give. Prints "READY <port> <pid>" once listening on 127.0.0.1,
then answers by request path (see FIXED); / and /echo send the request back; /file/NAME sends NAME under --root,
and with --stall-at N only its first N body bytes, then prints "STALL" and holds the connection."""
import argparse, os, socket, threading, time


def reply(status, body, length=None, extra=b""):
    cl = b"Content-Length: %d\r\n" % length if length is not None else b""
    return b"HTTP/1.1 " + status + b"\r\n" + cl + extra + b"\r\n" + body


BIG = bytes((i * 7) & 0xFF for i in range(100000))
FIXED = {"/ok": reply(b"200 OK", b"hello world", 11), "/nolen": reply(b"200 OK", b"until close"),
         "/short": reply(b"200 OK", b"123456789", 10), "/long": reply(b"200 OK", b"123456789012", 10),
         "/301": reply(b"301 Moved", b"", 0, b"Location: /ok\r\n"), "/404": reply(b"404 Not Found", b"missing", 7),
         "/early": b"HTTP/1.1 200 OK\r\nContent-Len", "/zero": reply(b"200 OK", b"", 0),
         "/upper": b"HTTP/1.1 200 OK\r\nCONTENT-LENGTH:   5\r\n\r\nabcdefgh",
         "/http10": b"HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nok", "/big": reply(b"200 OK", BIG, len(BIG))}


def handle(conn, opts):
    try:
        req = b""
        while b"\r\n\r\n" not in req and (chunk := conn.recv(4096)):
            req += chunk
        path = req.split(b" ")[1].decode().split("?")[0] if req.count(b" ") >= 2 else "/"
        if path in ("/", "/echo"):
            conn.sendall(reply(b"200 OK", req, len(req)))
        elif path == "/split":  # headers over several segments
            conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for piece in (b"HTTP/1.1 200 OK\r\nConte", b"nt-Length: 4\r", b"\n\r", b"\nbody"):
                conn.sendall(piece)
                time.sleep(0.05)  # lets each piece leave on its own
        elif path.startswith("/file/"):
            body = open(os.path.join(opts.root, path[6:]), "rb").read()
            conn.sendall(reply(b"200 OK", body[:opts.stall_at], len(body)))
            if opts.stall_at is not None:
                print("STALL", flush=True)
                threading.Event().wait()
        else:
            conn.sendall(FIXED.get(path, FIXED["/404"]))
    except OSError:
        pass
    conn.close()


ap = argparse.ArgumentParser()
ap.add_argument("--root", default=".")
ap.add_argument("--stall-at", type=int)
opts = ap.parse_args()
srv = socket.create_server(("127.0.0.1", 0))
print("READY", srv.getsockname()[1], os.getpid(), flush=True)
while True:
    threading.Thread(target=handle, args=(srv.accept()[0], opts), daemon=True).start()
