"""A server whose paths name its moods: /silent, /stalled, /cut, /busy, /away, ... For the tests of
command-line programs."""
import http.server, re, threading

BODY = bytes(range(256)) * 2048
HALF = len(BODY) // 2
ETAG, MODIFIED, MODIFIED_SECONDS = '"one"', "Wed, 01 Jan 2020 00:00:00 GMT", 1577836800


class Server(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    requests, seen, asked, over = [], set(), threading.Event(), threading.Event()

    def answer(self, status, body, headers=(), sent=None):
        self.send_response(status)
        for name, value in [("Content-Length", len(body)), *headers]:
            self.send_header(name, str(value))
        self.end_headers()
        self.wfile.write(body[:sent])

    def answer_file(self, sent=None):
        headers = [("ETag", ETAG), ("Last-Modified", MODIFIED)]
        wanted = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
        if not wanted or "norange" in self.path or self.headers.get("If-Range", ETAG) != ETAG:
            return self.answer(200, BODY, headers, sent)
        first, last = int(wanted[1]), int(wanted[2] or len(BODY) - 1)
        headers += [("Content-Range", f"bytes {first}-{last}/{len(BODY)}")]
        return self.answer(206, BODY[first : last + 1], headers)

    def do_GET(self):
        Server.requests.append((self.path, self.headers))
        fails = self.path not in Server.seen or self.path.endswith("always")
        Server.seen.add(self.path)
        kind = self.path.split("/")[1]
        if kind in ("silent", "stalled"):
            if kind == "stalled":
                self.answer_file(HALF)
            Server.asked.set()
            Server.over.wait()
        elif kind == "cut" and fails:
            self.answer_file(HALF)
        elif kind == "busy" and fails:
            return self.answer(503, b"later", [("Retry-After", 0)])
        elif kind == "away":
            port = self.server.server_port
            # the second: this host for who ends it at '#', another for who looks for '@' first
            disguise = f"127.0.0.1:{port}#@" if "disguised" in self.path else ""
            where = f"http://{disguise}localhost:{port}/"
            return self.answer(302, b"", [("Location", where)])
        elif kind == "named":
            name = "attachment; filename*=UTF-8''..%2Fgr%C3%BC%C3%9Fe.txt"
            return self.answer(200, b"hello", [("Content-Disposition", name)])
        elif kind in ("missing", "text", "binary"):
            body = b"\0" if kind == "binary" else b"plain\n"
            return self.answer(404 if kind == "missing" else 200, body)
        else:
            return self.answer_file()
        self.close_connection = True

    def do_CONNECT(self):  # What comes through the tunnel is served here.
        Server.requests.append((self.path, self.headers))
        self.send_response(200)
        self.end_headers()

    def log_message(self, *args):
        pass


def start():
    """Returns the server, whose thread ends with the program, and its URL."""
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Server)
    server.handle_error = lambda *args: None  # an ended transfer resets its connection
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server, f"http://127.0.0.1:{server.server_port}"
