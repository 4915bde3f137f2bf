#!/usr/bin/env python3
"""usage: check_tool.py TAVFETCH: runs it against a server of its own and checks its exit code, what
it prints and what it leaves."""
import hashlib, json, os, pathlib, pty, re, shutil, signal, subprocess, sys, tempfile, unittest

sys.path.append(os.path.join(os.path.dirname(__file__), "peers"))
from moody_server import BODY, HALF, MODIFIED_SECONDS, Server, start

DIGEST = hashlib.sha256(BODY).hexdigest()
SOURCES = pathlib.Path(__file__).resolve().parent.parent / "examples" / "tavfetch"
PROGRAM = os.path.abspath(sys.argv.pop(1))

ROWS = [  # arguments, files before, exit code, files after, a text on standard error
    (["URL/file"], {}, 0, {"file": BODY}, "saved to file"),
    (["HOST/file", "-q", "-O"], {"file": b""}, 0, {"file": b"", "file.1": BODY}, ""),
    (["URL/a%20b%2F..%2Fc"], {}, 0, {"a b_.._c": BODY}, "saved to"),
    (["URL/named", "-J"], {}, 0, {"_._grüße.txt": b"hello"}, "saved to"),
    (["URL/missing", "-o", "x"], {"x": b"old"}, 4, {"x": b"old"}, "answered 404 Not Found (TAV_"),
    (["URL/missing", "-o", "x", "--resume"], {"x": b"old"}, 4, {"x": b"old"}, "answered 404"),
    (["URL/file", "-o", "x", "--resume"], {"x": BODY[:9]}, 0, {"x": BODY}, "resumed at 9 B"),
    (["URL/busy", "--retry", "1"], {}, 0, {"busy": BODY}, "attempt 2"),
    (["URL/busy/always", "--retry", "2"], {}, 4, {}, "attempt 3"),
    (["URL/cut/always"], {}, 2, {}, "nothing was kept"),
    (["URL/cut/norange", "--resume"], {}, 0, {"norange": BODY}, "the whole file"),
    (["URL/file", "--checksum", "sha256=" + DIGEST], {}, 0, {"file": BODY}, "as expected"),
    (["URL/file", "--checksum", "md5=" + 32 * "0"], {}, 9, {}, "not the one of --checksum"),
    (["URL/silent", "--io-timeout", "0.2s"], {}, 6, {}, "--io-timeout"),
    (["URL/stalled", "--timeout", "500ms"], {}, 6, {}, "--timeout"),
    (["URL/file", "--timeout", "5 s"], {}, 1, {}, "wants a time"),
    (["URL/file", "-o", "/"], {}, 5, {}, "/ is a directory"),
    (["URL/file", "-o", "no/such"], {}, 5, {}, "cannot write in no"),
    (["ftp://a/b"], {}, 1, {}, "http:// or https://"),
    (["-V"], {}, 0, {}, ""),
]


class Tool(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        Server.requests.clear(), Server.seen.clear(), Server.asked.clear()

    def start(self, *words, stdout=subprocess.PIPE, **env):
        words = [word.replace("URL", URL).replace("HOST", URL[7:]) for word in words]
        return subprocess.Popen([PROGRAM, *words], stdout=stdout, stderr=subprocess.PIPE,
                                cwd=self.folder, env={"PATH": os.environ["PATH"], **env})

    def end(self, process):
        try:
            return process.communicate(timeout=20)
        except subprocess.TimeoutExpired:
            process.kill()
            raise

    def fetch(self, *words, code=0, **options):
        with self.start(*words, **options) as process:
            stdout, stderr = self.end(process)
        self.assertEqual(process.returncode, code, stderr.decode())
        return stdout, stderr.decode()

    def files(self):
        return {path.name: path.read_bytes() for path in self.folder.iterdir()}

    def test_outcomes(self):
        for words, before, code, after, text in ROWS:
            with self.subTest(words):
                self.setUp()
                for name, content in before.items():
                    (self.folder / name).write_bytes(content)
                self.assertIn(text, self.fetch(*words, code=code)[1])
                self.assertEqual(self.files(), after)

    def test_retry_continues_where_it_stopped(self):
        self.fetch("URL/cut", "--retry", "1", "--retry-delay", "1ms")
        self.assertEqual(self.files(), {"cut": BODY})
        ranges = [headers["Range"] for _, headers in Server.requests]
        self.assertEqual(ranges, [None, f"bytes={HALF}-"])

    def test_what_is_there_keeps_its_kind_and_mode(self):
        real, link, pipe = [self.folder / name for name in ("real", "link", "pipe")]
        real.write_bytes(b"old"), real.chmod(0o640), link.symlink_to("real"), os.mkfifo(pipe)
        self.fetch("URL/file", "-o", "link", "--remote-time")
        self.assertTrue(link.is_symlink())
        self.assertEqual(real.read_bytes(), BODY)
        status = real.stat()
        self.assertEqual((status.st_mode & 0o777, status.st_mtime), (0o640, MODIFIED_SECONDS))
        with self.start("URL/file", "-o", "pipe") as process:
            self.assertEqual(pipe.read_bytes(), BODY)
        self.assertEqual((process.returncode, pipe.is_fifo()), (0, True))

    def test_only_text_goes_to_a_terminal(self):
        master, slave = pty.openpty()
        self.fetch("URL/file", "-o", "-", code=5, stdout=slave)
        self.fetch("URL/file", "--to-memory", code=5, stdout=slave)
        self.fetch("URL/text", "-o", "-", stdout=slave)
        self.assertEqual(os.read(master, 100), b"plain\r\n")
        os.close(master), os.close(slave)
        self.assertEqual(self.fetch("URL/file", "-o", "-")[0], BODY)

    def test_login_stays_with_its_host_and_is_not_printed(self):
        url = URL.replace("//", "//user:s%C3%A9cret@") + "/away"
        out, err = self.fetch(url, "-v", "--json", "--log", "detail", "-o", "x")
        logins = [headers["Authorization"] for _, headers in Server.requests]
        self.assertEqual(logins, ["Basic dXNlcjpzw6ljcmV0", None])
        self.assertNotRegex(out.decode() + err, "(?i)cret|dXNlcjpz")
        self.assertEqual(json.loads(out)["url"], URL + "/away")
        Server.requests.clear()
        self.fetch(url + "/disguised", "-o", "x")
        hosts = [(headers["Host"], headers["Authorization"]) for _, headers in Server.requests]
        self.assertEqual(hosts, [("127.0.0.1", logins[0]), ("localhost", None)])

    def test_proxies_of_the_environment(self):
        proxy = URL.replace("//", "//me:secret@")
        for env, tunnels in [  # nobody listens there, but the proxy answers in its place
                ({"http_proxy": proxy}, 1), ({"all_proxy": proxy}, 1), ({"HTTP_PROXY": proxy}, 0),
                ({"http_proxy": proxy, "no_proxy": "x, .0.0.2"}, 0), ({"https_proxy": proxy}, 0)]:
            with self.subTest(env):
                Server.requests.clear()
                self.fetch("http://127.0.0.2:1/", "-o", "x", code=0 if tunnels else 2, **env)
                self.assertEqual(len([0 for path, _ in Server.requests if path == "127.0.0.2:1"]), tunnels)

    def test_signals_end_at_once_and_tidily(self):
        for path in ("silent", "stalled"):
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
                with self.subTest(path, signal=number), self.start(f"URL/{path}") as process:
                    self.assertTrue(Server.asked.wait(20))
                    Server.asked.clear()
                    process.send_signal(number)
                    self.end(process)  # well below the time-out of a receive
                self.assertEqual((process.returncode, self.files()), (-number, {}))

    def test_lists_of_options_agree(self):
        text = self.fetch("--help")[0].decode().split("\nFiles:")[0]
        for source in ("tavfetch.bash", "tavfetch.1"):
            listed = (SOURCES / source).read_text().replace("\\-", "-")
            for option in set(re.findall(r"--[a-z][a-z0-9-]+", text)):
                self.assertRegex(listed, option + r"\b")


server, URL = start()
unittest.main()
