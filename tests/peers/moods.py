"""For checks of programs: a server whose paths name its moods, servers of other makers, one run."""
import atexit, email, hashlib, http.server, os, pathlib, random, re, shutil, socket
import subprocess, tempfile, threading, time, unittest

BODY = bytes(range(256)) * 2048
HALF, SIZE = len(BODY) // 2, len(BODY)
ETAG, MODIFIED, MODIFIED_SECONDS = '"one"', "Wed, 01 Jan 2020 00:00:00 GMT", 1577836800


def digest(data):
    return f"{len(data)} {hashlib.md5(data).hexdigest()}"


class Server(http.server.BaseHTTPRequestHandler):
    protocol_version, disable_nagle_algorithm = "HTTP/1.1", True
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
        first, last = int(wanted[1]), int(wanted[2] or SIZE - 1)
        if first >= SIZE:
            return self.answer(416, b"beyond", [("Content-Range", f"bytes */{SIZE}")])
        headers += [("Content-Range", f"bytes {first}-{last}/{SIZE}")]
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

    def do_POST(self):  # Says what arrived, as a multipart reader of another make sees it.
        body = self.rfile.read(int(self.headers["Content-Length"]))
        kind = self.headers.get("Content-Type", "-")
        lines = [f"{self.path} {kind.split(';')[0]} {digest(body)}"]
        if kind.startswith("multipart/"):
            message = email.message_from_bytes(f"Content-Type: {kind}\r\n\r\n".encode() + body)
            lines += map(repr, message.defects)
            for part in message.get_payload():
                name = part.get_param("name", header="content-disposition")
                data = digest(part.get_payload(decode=True))
                lines.append(f"{name} {part.get_filename('-')} {data}")
        self.answer(200, "\n".join(lines).encode())

    def do_CONNECT(self):  # What comes through the tunnel is served here.
        Server.requests.append((self.path, self.headers))
        self.send_response(200)
        self.end_headers()

    def log_message(self, *args):
        pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Server)
server.handle_error = lambda *args: None  # an ended transfer resets its connection
threading.Thread(target=server.serve_forever, daemon=True).start()
URL = f"http://127.0.0.1:{server.server_port}"


def free_port():
    """Below the ports that the system hands out, so that no other program is given it meanwhile."""
    while True:
        with socket.socket() as s:
            try:
                s.bind(("127.0.0.1", random.SystemRandom().randrange(20000, 32000)))
                return s.getsockname()[1]
            except OSError:
                pass


def start(*command, port, folder):
    """Returns when the server's port takes connections; it ends with this program."""
    process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, cwd=folder,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    atexit.register(process.wait), atexit.register(process.kill)
    end = time.monotonic() + 20
    while True:
        try:
            return socket.create_connection(("127.0.0.1", port)).close()
        except OSError:
            assert process.poll() is None and time.monotonic() < end, f"{command} did not start"
            time.sleep(0.02)


def certificate(folder, name, *kind):
    subprocess.run(["openssl", "req", "-x509", "-nodes", "-subj", f"/O=Test/CN={name}", "-keyout",
                    name + ".key", "-out", name + ".crt", "-newkey", *kind],
                   cwd=folder, stderr=subprocess.DEVNULL, check=True)


class Case(unittest.TestCase):
    """Programs that run in a folder of their own, which has some files."""

    def setUp(self, **files):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        for name, content in files.items():
            (self.folder / name).write_bytes(content)
        Server.requests.clear(), Server.seen.clear(), Server.asked.clear()

    def start(self, *words, stdout=subprocess.PIPE, **env):
        words = [str(word).replace("URL", URL).replace("HOST", URL[7:]) for word in words]
        return subprocess.Popen(words, stdout=stdout, stderr=subprocess.PIPE, cwd=self.folder,
                                env={"PATH": os.environ["PATH"], "HOME": str(self.folder), **env})

    def end(self, process):
        try:
            return process.communicate(timeout=60)
        except subprocess.TimeoutExpired:
            process.kill()
            raise

    def call(self, *words, code=None, **options):
        with self.start(*words, **options) as process:
            self.out, self.err = self.end(process)
        if code is not None:
            self.assertEqual(process.returncode, code, (words, self.err.decode()))
        return process.returncode

    def files(self):
        return {path.name: path.read_bytes() for path in self.folder.iterdir()}

    def asked(self, header):
        return [headers[header] for _, headers in Server.requests]
