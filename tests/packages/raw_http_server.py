#!/usr/bin/env python3
"""A raw-socket HTTP server for the replies a static server cannot give.

    raw_http_server.py [--root DIR] [--stall-at N] [--tls CERT KEY]

Prints "READY <port>" once listening on 127.0.0.1 (an OS-chosen port), then
answers each connection by the request path:

    /ok /nolen /short /long /301 /404 /split /early /upper /zero /http10
    /echo          the request bytes themselves as the body
    /big           100000 bytes with a Content-Length
    /file/NAME     NAME under --root; with --stall-at N only the first N
                   body bytes go out, then "STALL <path>" is printed and
                   the connection is held open until the server is killed

With --tls the socket is wrapped in TLS (for curl's https route).
"""

import argparse
import os
import socket
import ssl
import sys
import threading
import time

BIG = bytes((i * 7) & 0xFF for i in range(100000))


def reply(status, body, length=None, extra=b""):
    head = b"HTTP/1.1 " + status + b"\r\n"
    if length is not None:
        head += b"Content-Length: " + str(length).encode() + b"\r\n"
    return head + extra + b"\r\n" + body


FIXED = {
    "/ok": reply(b"200 OK", b"hello world", 11),
    "/nolen": reply(b"200 OK", b"until close"),
    "/short": reply(b"200 OK", b"12345678", 10),
    "/long": reply(b"200 OK", b"123456789012", 10),
    "/301": reply(b"301 Moved Permanently", b"", 0, b"Location: /ok\r\n"),
    "/404": reply(b"404 Not Found", b"missing", 7),
    "/early": b"HTTP/1.1 200 OK\r\nContent-Len",
    "/upper": b"HTTP/1.1 200 OK\r\nCONTENT-LENGTH:   5\r\n\r\nabcdefgh",
    "/zero": reply(b"200 OK", b"", 0),
    "/http10": b"HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nok",
    "/big": reply(b"200 OK", BIG, len(BIG)),
}


def read_request(conn):
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = conn.recv(4096)
        if not chunk:
            break
        data += chunk
    return data


def handle(conn, opts):
    try:
        req = read_request(conn)
        path = req.split(b" ")[1].decode() if req.count(b" ") >= 2 else "/"
        if path.split("?")[0] in ("/", "/echo"):
            conn.sendall(reply(b"200 OK", req, len(req)))
        elif path == "/split":
            # Headers in several packets: the client must join them.
            conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for piece in (b"HTTP/1.1 200 OK\r\nConte", b"nt-Length: 4\r", b"\n\r", b"\nbody"):
                conn.sendall(piece)
                time.sleep(0.05)  # lets each piece leave as its own segment
        elif path.startswith("/file/"):
            with open(os.path.join(opts.root, path[len("/file/"):]), "rb") as f:
                body = f.read()
            if opts.stall_at is None:
                conn.sendall(reply(b"200 OK", body, len(body)))
            else:
                conn.sendall(reply(b"200 OK", body[: opts.stall_at], len(body)))
                print("STALL", path, flush=True)
                threading.Event().wait()
        else:
            conn.sendall(FIXED.get(path, FIXED["/404"]))
    except OSError:
        pass
    finally:
        conn.close()


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--root", default=".")
    ap.add_argument("--stall-at", type=int)
    ap.add_argument("--tls", nargs=2)
    opts = ap.parse_args()
    srv = socket.socket()
    srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    srv.bind(("127.0.0.1", 0))
    srv.listen(16)
    ctx = None
    if opts.tls:
        ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        ctx.load_cert_chain(*opts.tls)
    print("READY", srv.getsockname()[1], flush=True)
    while True:
        conn, _ = srv.accept()
        if ctx:
            try:
                conn = ctx.wrap_socket(conn, server_side=True)
            except (ssl.SSLError, OSError):
                conn.close()
                continue
        threading.Thread(target=handle, args=(conn, opts), daemon=True).start()


if __name__ == "__main__":
    sys.exit(main())
