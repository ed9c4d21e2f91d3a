#!/usr/bin/env python3
"""A file server for the tests: serves the files of a folder over HTTP/1.1 with byte ranges,
on 127.0.0.1, after a delay a request, and misbehaves on demand.

    range_server.py ROOT [--latency SECONDS] [--mode ranges|whole|drop|flaky|stall] [--commands]
                         [--tls CERT KEY]

  ranges  answers "Range: bytes=a-b" with 206 and the bytes (the default)
  whole   ignores ranges: 200 and the whole file, as a plain server does
  drop    answers the first range of a file (its head), then cuts every connection that asks
          for another before sending its bytes
  flaky   cuts every other request halfway through its bytes
  stall   answers the first range of a file, then keeps every other request waiting a minute

Prints "PORT n" once it listens. With --commands, it reads its standard input (and stops at
its end): "mode MODE" changes the mode (it answers "OK"), "requests" asks for the number of range
requests answered so far (it answers "REQUESTS n").
"""

import argparse
import http.server
import os
import re
import socket
import socketserver
import ssl
import sys
import threading
import time

state = {"mode": "ranges", "requests": 0, "count": 0}
lock = threading.Lock()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        super().setup()
        # As web servers do: the headers and the bytes go at once, not held back until the
        # client acknowledges the headers (which it delays).
        self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def log_message(self, *args):
        pass

    def send_text(self, status, text):
        body = text.encode()
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        time.sleep(self.server.latency)
        path = os.path.join(self.server.root, self.path.lstrip("/").split("?")[0])
        if not os.path.isfile(path):
            return self.send_text(404, "not found")
        size = os.path.getsize(path)
        with lock:
            mode = state["mode"]
            state["count"] += 1
            count = state["count"]
        asked = re.match(r"bytes=(\d+)-(\d*)$", self.headers.get("Range", ""))
        if mode == "whole" or not asked:
            self.send_response(200)
            self.send_header("Content-Length", str(size))
            self.end_headers()
            with open(path, "rb") as f:
                while True:
                    chunk = f.read(1 << 16)
                    if not chunk:
                        break
                    try:
                        self.wfile.write(chunk)
                    except (BrokenPipeError, ConnectionResetError):
                        return
            return
        first = int(asked.group(1))
        last = min(int(asked.group(2)) if asked.group(2) else size - 1, size - 1)
        if first >= size:
            self.send_response(416)
            self.send_header("Content-Range", "bytes */%d" % size)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        if mode == "stall" and first > 0:
            time.sleep(60)
            return
        if mode == "drop" and first > 0:
            self.close_connection = True
            self.connection.shutdown(2)
            return
        with open(path, "rb") as f:
            f.seek(first)
            data = f.read(last - first + 1)
        with lock:
            state["requests"] += 1
        self.send_response(206)
        self.send_header("Content-Range", "bytes %d-%d/%d" % (first, last, size))
        self.send_header("Content-Length", str(len(data)))
        self.send_header("ETag", '"%d-%d"' % (size, int(os.path.getmtime(path))))
        self.end_headers()
        if mode == "flaky" and count % 2 == 0:
            self.wfile.write(data[: len(data) // 2])
            self.wfile.flush()
            self.close_connection = True
            self.connection.shutdown(2)
            return
        self.wfile.write(data)


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True


def commands():
    for line in sys.stdin:
        words = line.split()
        with lock:
            if words[:1] == ["mode"] and len(words) == 2:
                state["mode"] = words[1]
                print("OK", flush=True)
            elif words == ["requests"]:
                print("REQUESTS %d" % state["requests"], flush=True)
    os._exit(0)  # the test has gone


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("root")
    parser.add_argument("--latency", type=float, default=0)
    parser.add_argument("--mode", default="ranges")
    parser.add_argument("--commands", action="store_true")
    parser.add_argument("--tls", nargs=2, metavar=("CERT", "KEY"), help="serve HTTPS")
    args = parser.parse_args()
    state["mode"] = args.mode
    server = Server(("127.0.0.1", 0), Handler)
    if args.tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args.tls[0], args.tls[1])
        server.socket = context.wrap_socket(server.socket, server_side=True)
    server.root = args.root
    server.latency = args.latency
    print("PORT %d" % server.server_address[1], flush=True)
    if args.commands:
        threading.Thread(target=commands, daemon=True).start()
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
