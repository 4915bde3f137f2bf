#!/usr/bin/env python3
"""usage: check_peers.py Tool|Comparison|Servers TAVFETCH, or Examples DIRECTORY
Tool: exit codes, messages and files. Comparison: each claim of the table in docs/tavfetch.md is
put to the programs of its columns, as far as they are installed. Servers: one list of transfers to
servers of other makers; the tool and curl must get the same; NOTLS behind it leaves https out.
Examples: what they print and leave."""
import hashlib, json, os, pathlib, pty, random, re, shutil, signal, sys, time, unittest

from peers.moods import (BODY, HALF, MODIFIED_SECONDS, SIZE, URL, Case, Server, certificate, digest,
                         free_port, start)

PROJECT = pathlib.Path(__file__).resolve().parent.parent
PROGRAM, WITH_TLS = os.path.abspath(sys.argv[2]), "NOTLS" not in sys.argv
GOOD_SUM, BAD_SUM = hashlib.sha256(BODY).hexdigest(), 32 * "0"

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
    (["URL/file", "--checksum", "sha256=" + GOOD_SUM], {}, 0, {"file": BODY}, "as expected"),
    (["URL/file", "--checksum", "md5=" + BAD_SUM], {}, 9, {}, "not the one of --checksum"),
    (["URL/silent", "--io-timeout", "0.2s"], {}, 6, {}, "--io-timeout"),
    (["URL/stalled", "--timeout", "500ms"], {}, 6, {}, "--timeout"),
    (["URL/file", "--timeout", "5 s"], {}, 1, {}, "wants a time"),
    (["URL/file", "-o", "/"], {}, 5, {}, "/ is a directory"),
    (["URL/file", "-o", "no/such"], {}, 5, {}, "cannot write in no"),
    (["ftp://a/b"], {}, 1, {}, "http:// or https://"),
    (["-V"], {}, 0, {}, ""),
]


class Tool(Case):
    def fetch(self, *words, code=0, **options):
        self.call(PROGRAM, *words, code=code, **options)

    def test_outcomes(self):
        for words, before, code, after, text in ROWS:
            with self.subTest(words):
                self.setUp(**before)
                self.fetch(*words, code=code)
                self.assertIn(text, self.err.decode())
                self.assertEqual(self.files(), after)

    def test_retry_continues_where_it_stopped(self):
        self.fetch("URL/cut", "--retry", "1", "--retry-delay", "1ms")
        self.assertEqual(self.files(), {"cut": BODY})
        self.assertEqual(self.asked("Range"), [None, f"bytes={HALF}-"])

    def test_what_is_there_keeps_its_kind_and_mode(self):
        real, link, pipe = [self.folder / name for name in ("real", "link", "pipe")]
        real.write_bytes(b"old"), real.chmod(0o640), link.symlink_to("real"), os.mkfifo(pipe)
        self.fetch("URL/file", "-o", "link", "--remote-time")
        self.assertEqual((link.is_symlink(), real.read_bytes()), (True, BODY))
        status = real.stat()
        self.assertEqual((status.st_mode & 0o777, status.st_mtime), (0o640, MODIFIED_SECONDS))
        with self.start(PROGRAM, "URL/file", "-o", "pipe") as process:
            self.assertEqual(pipe.read_bytes(), BODY)
        self.assertEqual((process.returncode, pipe.is_fifo()), (0, True))

    def test_only_text_goes_to_a_terminal(self):
        master, slave = pty.openpty()
        self.fetch("URL/file", "-o", "-", code=5, stdout=slave)
        self.fetch("URL/file", "--to-memory", code=5, stdout=slave)
        self.fetch("URL/text", "-o", "-", stdout=slave)
        self.assertEqual(os.read(master, 100), b"plain\r\n")
        os.close(master), os.close(slave)
        self.fetch("URL/file", "-o", "-")
        self.assertEqual(self.out, BODY)

    def test_login_stays_with_its_host_and_is_not_printed(self):
        url = URL.replace("//", "//user:s%C3%A9cret@") + "/away"
        self.fetch(url, "-v", "--json", "--log", "detail", "-o", "x")
        self.assertEqual(self.asked("Authorization"), ["Basic dXNlcjpzw6ljcmV0", None])
        self.assertNotRegex((self.out + self.err).decode(), "(?i)cret|dXNlcjpz")
        self.assertEqual(json.loads(self.out)["url"], URL + "/away")
        login, _ = self.asked("Authorization")
        Server.requests.clear()
        self.fetch(url + "/disguised", "-o", "x")
        hosts = list(zip(self.asked("Host"), self.asked("Authorization")))
        self.assertEqual(hosts, [("127.0.0.1", login), ("localhost", None)])

    def test_proxies_of_the_environment(self):
        proxy = URL.replace("//", "//me:secret@")
        for env, tunnels in [  # nobody listens there, but the proxy answers in its place
                ({"http_proxy": proxy}, 1), ({"all_proxy": proxy}, 1), ({"HTTP_PROXY": proxy}, 0),
                ({"http_proxy": proxy, "no_proxy": "x, .0.0.2"}, 0), ({"https_proxy": proxy}, 0)]:
            with self.subTest(env):
                Server.requests.clear()
                self.fetch("http://127.0.0.2:1/", "-o", "x", code=0 if tunnels else 2, **env)
                paths = [path for path, _ in Server.requests]
                self.assertEqual(paths.count("127.0.0.2:1"), tunnels)

    def test_signals_end_at_once_and_tidily(self):
        for path in ("silent", "stalled"):
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
                with self.subTest(path, signal=number), \
                        self.start(PROGRAM, "URL/" + path, "--io-timeout", "100s") as process:
                    self.assertTrue(Server.asked.wait(20))
                    Server.asked.clear()
                    process.send_signal(number)
                    self.end(process)  # well below that time-out
                self.assertEqual((process.returncode, self.files()), (-number, {}))

    def test_completion_knows_the_options(self):
        self.fetch("--help")
        listed = (PROJECT / "examples/tavfetch/tavfetch.bash").read_text()
        for option in re.findall(r"--[a-z][a-z0-9-]+", self.out.decode().split("\nFiles:")[0]):
            self.assertRegex(listed, option + r"\b")


PLAIN = {  # each as quiet as it gets, without the user's settings
    "tavfetch": [PROGRAM, "-q"], "curl": ["curl", "-q", "-fsS"],
    "wget": ["wget", "--no-config", "-q", "--tries=1"],
    "aria2c": ["aria2c", "--no-conf", "-q", "--max-tries=1", "--file-allocation=none",
               "--allow-overwrite=true", "--disk-cache=0"]}
NAMED = {"tavfetch": ["-o", "x"], "curl": ["-o", "x"], "wget": ["-O", "x"], "aria2c": ["-o", "x"]}
PRINTED = {"tavfetch": ["-o", "-"], "wget": ["-O", "-"], "aria2c": ["-o", "/dev/stdout"]}
RETRYING = {
    "tavfetch": ["--retry", "1", "--retry-delay", "1ms"],
    "curl": ["--retry", "1", "--retry-all-errors", "--retry-delay", "1"],
    "wget": ["--tries=2", "--waitretry=0"], "aria2c": ["--max-tries=2", "--retry-wait=0"]}
CHECKING = {"tavfetch": ["--checksum", "md5=" + BAD_SUM], "aria2c": ["--checksum=md5=" + BAD_SUM]}
JSON = {"tavfetch": ["--json"], "curl": ["-w", "%{json}"]}

CLAIMS = {
    "A download that breaks off leaves the file that was there":
        lambda t: t.get("URL/cut/always") and t.x.read_bytes() == b"old",
    "A file that is replaced keeps its mode":
        lambda t: t.get("URL/file") == 0 and t.x.stat().st_mode & 0o777 == 0o640,
    "Nothing half-written has the file's name": lambda t: "x" not in t.stop_half_way()[0],
    "Ctrl-C ends the process with the signal, so that a loop in a shell stops":
        lambda t: t.stop_half_way()[1] == -signal.SIGINT,
    "Asked to try again, goes on where it stopped":
        lambda t: t.get("URL/cut", RETRYING) == 0 and t.asked("Range")[-1],
    "A body with the wrong checksum never gets the file's name":
        lambda t: t.x.unlink() or t.get("URL/file", CHECKING) and not t.x.exists(),
    "`a%20b` becomes the file `a b`":
        lambda t: t.get("URL/a%20b", {"curl": ["-O"]}, name={}) == 0 and "a b" in t.files(),
    "Bytes that are no text do not go to a terminal": lambda t: t.print_to_terminal() != 0,
    "User and password are not sent to the host of a redirect":
        lambda t: t.get(URL.replace("//", "//user:secret@") + "/away", {"curl": ["-L"]}) == 0
        and len(t.asked("Authorization")) == 2 and t.asked("Authorization")[1] is None,
    "Asks for gzip without being told":
        lambda t: t.get("URL/file") == 0 and "gzip" in (t.asked("Accept-Encoding")[0] or ""),
    "Follows redirects without being told":
        lambda t: t.get("URL/away") == 0 and len(Server.requests) == 2,
    "Prints a JSON record of the transfer":
        lambda t: t.get("URL/file", JSON) == 0 and t.out.startswith(b"{") and json.loads(t.out),
    "Refuses an https server that no authority vouches for":
        lambda t: t.get(f"https://127.0.0.1:{t.tls_port}/") != 0,
}


class Comparison(Case):
    def words(self, url, *options):
        return PLAIN[self.program] + sum((o.get(self.program, []) for o in options), []) + [url]

    def get(self, url, options={}, name=NAMED):
        return self.call(*self.words(url, name, options))

    def stop_half_way(self):
        self.x.unlink()
        with self.start(*self.words("URL/stalled", NAMED)) as process:
            end = time.monotonic() + 30
            while not any(p.is_file() and p.stat().st_size for p in self.folder.rglob("x*")
                          if ".aria2" not in p.name):  # aria2c renames its notes
                if time.monotonic() > end:
                    process.kill()
                    raise TimeoutError("nothing was written")
            names = os.listdir(self.folder)
            process.send_signal(signal.SIGINT)
            self.end(process)
        return names, process.returncode

    def print_to_terminal(self):
        master, slave = pty.openpty()
        code = self.call(*self.words("URL/binary", PRINTED), stdout=slave)
        os.close(slave), os.close(master)
        return code

    def test_table(self):
        rows = [[cell.strip() for cell in line.split("|")[1:-1]] for line in
                (PROJECT / "docs/tavfetch.md").read_text().splitlines() if line.startswith("|")]
        self.assertEqual([row[0] for row in rows[2:]], list(CLAIMS))
        certificate(self.folder, "127.0.0.1", "rsa:2048", "-addext", "subjectAltName=IP:127.0.0.1")
        self.tls_port = free_port()
        start("openssl", "s_server", "-accept", self.tls_port, "-www", "-key", "127.0.0.1.key",
              "-cert", "127.0.0.1.crt", port=self.tls_port, folder=self.folder)
        for claim, *cells in rows[2:]:
            for self.program, cell in zip(rows[0][1:], cells):
                if shutil.which(PLAIN[self.program][0]):
                    with self.subTest(claim, program=self.program):
                        self.setUp(x=b"old")
                        self.x = self.folder / "x"
                        self.x.chmod(0o640)
                        self.assertEqual("yes" if CLAIMS[claim](self) else "no", cell)


class Examples(Case):
    def test_examples(self):
        for words, code, text in [
                (["minimal_c", "URL/file"], 0, BODY), (["minimal_c_as_cpp", "URL/file"], 0, BODY),
                (["minimal", "URL/missing"], 1, b"the server answered 404"),
                (["cpp_multipart_upload", "URL", "A title", "upload"], 0,
                 f"title - {digest(b'A title')}\nfile upload {digest(BODY)}".encode())]:
            with self.subTest(words):
                self.setUp(upload=BODY)
                self.call(f"{PROGRAM}/{words[0]}", *words[1:], code=code)
                self.assertIn(text, self.out)
        for path, before, ranges in [
                ("file", None, [None]), ("file", BODY[:9], ["bytes=9-"]),
                ("norange", BODY[:9], ["bytes=9-", None]), ("file", BODY, [f"bytes={SIZE}-"])]:
            with self.subTest(path, ranges=ranges):
                self.setUp(**{"x": before} if before else {})
                self.call(PROGRAM + "/cpp_resumable_download", "URL/" + path, "x", code=0)
                self.assertEqual(self.files(), {"x": BODY})
                self.assertEqual(self.asked("Range"), ranges)


SETTINGS = [  # key, what the server is told, exit code, a text on its page
    ("rsa.test", ["-tls1_2"], 0, b"TLSv1.2"), ("rsa.test", ["-tls1_3"], 0, b"TLSv1.3"),
    ("ec.test", ["-tls1_2"], 0, b"TLSv1.2"),
    ("ec.test", ["-tls1_3", "-groups", "P-384"], 0, b"TLSv1.3"),
    ("rsa.test", ["-tls1_2", "-cipher", "AES128-SHA"], 0, b"AES128-SHA"),
    ("ec.test", ["-tls1_3", "-num_tickets", "9", "-max_send_frag", "512"], 0, b"TLSv1.3"),
    ("ec.test", ["-tls1_2", "-no_ticket", "-verify", "1"], 0, b"TLSv1.2"),
    ("ec.test", ["-tls1_2", "-Verify", "1"], 3, b""),
    ("ec.test", ["-tls1_3", "-Verify", "1"], 3, b""),
    ("ec.test", ["-tls1_2", "-cipher", "PSK-AES128-CBC-SHA"], 3, b"")]
RAW = ["-H", "Expect:", "-H", "Content-Type: application/octet-stream"]
TRANSFERS = [  # path, options of the tool, of curl, exit code
    ("/bytes", [], [], 0), ("/lines.txt", [], [], 0), ("/empty", [], [], 0),
    ("/zip/lines.txt", [], ["--compressed"], 0), ("/moved", [], ["-L"], 0),
    ("/bytes", ["--range", "1000-2000"], ["-r", "1000-2000"], 0),
    ("/bytes", ["--range", "-500"], ["-r", "-500"], 0), ("/missing", [], [], 4),
    ("/sink/raw", ["--upload", "bytes"], ["--data-binary", "@bytes", *RAW], 0),
    ("/sink/raw", *2 * [["--data", "a=b", "-H", "Content-Type: a/b"]], 0)]
NGINX = """daemon off; master_process off; pid nginx.pid; error_log error.log; events {} http {
access_log off; root ROOT; types { text/plain txt; } client_max_body_size 0; msie_padding off;
keepalive_disable none; """
PLACES = """ location = /moved { return 302 /lines.txt; }
location = /said { return 200 said$connection_requests; }
location /zip/ { alias ROOT/; gzip on; gzip_types text/plain; }
location /sink/ { proxy_pass SINK; } }
"""


class Servers(Case):
    def setUp(self):
        super().setUp(bytes=(data := random.Random(1).randbytes(3000000)), empty=b"",
                      **{"lines.txt": b"".join(b"line %d of it\n" % i for i in range(5000))})
        self.data, self.folder_name = data, str(self.folder)
        certificate(self.folder, "ec.test", "ec", "-pkeyopt", "ec_paramgen_curve:P-256")
        certificate(self.folder, "rsa.test", "rsa:2048")

    def run_server(self, *command, port):
        start(*command, port=port, folder=self.folder)

    def fetch(self, *words, code=0):
        self.call(PROGRAM, "-q", "-o", "-", *words, code=code)
        return self.out

    def compare(self, url, tool=(), curl=(), code=0):
        """The tool's exit code, and its output where curl has one."""
        with self.subTest(url, tool=tool):
            got = self.fetch(*tool, url, code=code)
            if code == 0:
                self.call("curl", "-q", "-sk", "--max-time", 30, *curl, url, code=0)
                self.assertTrue(got == self.out, (got[:300], self.out[:300]))

    def start_nginx(self):
        plain, three, *tls = (free_port() for _ in range(4))
        listens = [f"listen 127.0.0.1:{plain};", f"listen 127.0.0.1:{three}; keepalive_requests 3;"]
        if WITH_TLS:
            listens += [f"listen 127.0.0.1:{port} ssl; ssl_protocols {name}; ssl_certificate "
                        "ec.test.crt; ssl_certificate_key ec.test.key;"
                        for port, name in zip(tls, ("TLSv1.2", "TLSv1.3"))]
        kinds = ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        text = NGINX + "".join(f"{kind}_temp_path {kind};" for kind in kinds)
        text += "".join("server { " + lines + PLACES for lines in listens) + "}"
        text = text.replace("ROOT", self.folder_name).replace("SINK", URL)
        (self.folder / "nginx.conf").write_text(text)
        self.run_server("nginx", "-p", self.folder, "-e", "error.log", "-c",
                        self.folder / "nginx.conf", port=plain)
        self.bases = [f"http://127.0.0.1:{plain}"]
        self.bases += [f"https://127.0.0.1:{port}" for port in tls if WITH_TLS]
        return self.bases[0], f"http://127.0.0.1:{three}"

    def test_nginx_and_proxies(self):
        base, three = self.start_nginx()
        for each in self.bases:
            for path, tool, curl, code in TRANSFERS:
                self.compare(each + path, tool, curl, code)
        # Boundaries differ; what a reader of multipart bodies finds does not.
        found = self.fetch("--form", "field=a value", "--form", "none=", "--form-file",
                           "f=bytes;renamed", base + "/sink/form").decode()
        self.assertEqual(found.split("\n")[1:], [f"field - {digest(b'a value')}",
                         f"none - {digest(b'')}", f"f renamed {digest(self.data)}"])
        for present in (0, 1000001, len(self.data) - 1, len(self.data)):
            with self.subTest(resumed_at=present):
                (self.folder / "part").write_bytes(self.data[:present])
                self.call(PROGRAM, "-q", "--resume", "-o", "part", base + "/bytes", code=0)
                self.assertTrue((self.folder / "part").read_bytes() == self.data)
        # One connection carries the requests of one run, as long as the server likes.
        for each, said in ((base, b"said1said2said3said4"), (three, b"said1said2said3said1")):
            self.call(PROGRAM, "-q", "--to-memory", *[each + "/said"] * 4, code=0)
            self.assertEqual(self.out, said)
        for login in ("", "user:pass@"):
            self.check_proxies(login)

    def check_proxies(self, login):
        http, socks = free_port(), free_port()
        (self.folder / "tinyproxy.conf").write_text(
            f"Port {http}\nListen 127.0.0.1\nLogFile \"{self.folder}/tiny.log\"\nAllow 127.0.0.1\n"
            + ("BasicAuth user pass\n" if login else ""))
        self.run_server("tinyproxy", "-d", "-c", self.folder / "tinyproxy.conf", port=http)
        self.run_server("microsocks", "-i", "127.0.0.1", "-p", socks,
                        *(["-u", "user", "-P", "pass"] if login else []), port=socks)
        for proxy in (f"http://{login}127.0.0.1:{http}", f"socks5://{login}127.0.0.1:{socks}"):
            for each in self.bases:
                self.compare(each + "/bytes", ["--proxy", proxy],
                             ["-p", "-x", proxy.replace("socks5:", "socks5h:")])
            for wrong in ("user:wrong@", "") if login else ():
                self.compare(self.bases[0] + "/bytes", ["--proxy", proxy.replace(login, wrong)],
                             code=2)

    def test_s_server(self):
        for key, words, code, page in SETTINGS if WITH_TLS else []:
            with self.subTest(words):
                port = free_port()
                url = f"https://127.0.0.1:{port}/"
                self.run_server("openssl", "s_server", "-accept", f"127.0.0.1:{port}", "-key",
                                key + ".key", "-cert", key + ".crt", "-www", *words, port=port)
                self.assertIn(page, self.fetch("--tls-name", key, url, code=code))
                self.fetch("--tls-name", "other.test", url, code=3)


unittest.main(argv=[sys.argv[0], sys.argv[1]])
