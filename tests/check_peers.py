#!/usr/bin/env python3
"""usage: check_peers.py TAVFETCH [TLS]: puts one list of transfers to servers of other makers, to
the tool and to curl; both must get the same. TLS 0: without https."""
import atexit, hashlib, os, pathlib, random, shutil, socket, subprocess, sys, tempfile, time

TOOL, WITH_TLS = os.path.abspath(sys.argv[1]), sys.argv[2:] != ["0"]
SINK = os.path.join(os.path.dirname(os.path.abspath(__file__)), "peers", "upload_sink.py")
work = pathlib.Path(tempfile.mkdtemp())
os.chdir(work)
atexit.register(shutil.rmtree, work)
failures = []


def free_port():
    """Below the ports that the system hands out, so that no other program is given it meanwhile."""
    while True:
        with socket.socket() as s:
            try:
                s.bind(("127.0.0.1", random.SystemRandom().randrange(20000, 32000)))
                return s.getsockname()[1]
            except OSError:
                pass


def start(*command, port):
    """Returns the process when its port takes connections; it ends with this program."""
    server = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    atexit.register(server.wait), atexit.register(server.kill)
    end = time.monotonic() + 20
    while True:
        try:
            socket.create_connection(("127.0.0.1", port)).close()
            return server
        except OSError:
            assert server.poll() is None and time.monotonic() < end, f"{command} did not start"
            time.sleep(0.02)


def run(*command):
    result = subprocess.run([str(word) for word in command], capture_output=True, timeout=60)
    return result.returncode, result.stdout


def expect(title, what, expected, seen):
    if expected != seen:
        failures.append(f"{title}: {what} is {str(seen)[:300]}, not {str(expected)[:300]}")


def compare(title, url, tool=(), curl=(), code=0):
    """The tool's exit code, and its output where curl has one."""
    got_code, got = run(TOOL, "-q", "-o", "-", *tool, url)
    expect(title, "the exit code", code, got_code)
    if code == 0:
        expect(title, "the body", run("curl", "-q", "-sk", "--max-time", 30, *curl, url), (0, got))


def certificate(name, *kind):
    run("openssl", "req", "-x509", "-nodes", "-days", 2, "-subj", f"/O=Test/CN={name}.test",
        "-keyout", name + ".key", "-out", name + ".crt", "-newkey", *kind)


certificate("ec", "ec", "-pkeyopt", "ec_paramgen_curve:P-256")
certificate("rsa", "rsa:2048")
root = work / "root"
root.mkdir()
data = random.Random(1).randbytes(3000000)
(root / "bytes").write_bytes(data), (work / "upload").write_bytes(data)
(root / "lines.txt").write_text("".join(f"line {i} of the text\n" for i in range(5000)))
(root / "empty").write_bytes(b"")

plain, three, tls12, tls13, sink = (free_port() for _ in range(5))
TLS = "ssl_certificate ec.crt; ssl_certificate_key ec.key;"
listens = [f"listen 127.0.0.1:{plain};", f"listen 127.0.0.1:{three}; keepalive_requests 3;"]
if WITH_TLS:
    listens += [f"listen 127.0.0.1:{port} ssl; ssl_protocols {name}; {TLS}"
                for port, name in ((tls12, "TLSv1.2"), (tls13, "TLSv1.3"))]
places = "".join(f"{kind}_temp_path {kind};"
                 for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
(work / "nginx.conf").write_text(f"""daemon off; master_process off; pid nginx.pid;
error_log error.log; events {{}} http {{ access_log off; {places} root {root};
types {{ text/plain txt; }} client_max_body_size 0; msie_padding off; keepalive_disable none;
""" + "".join(f"""server {{ {lines} location = /moved {{ return 302 /lines.txt; }}
location = /said {{ return 200 said$connection_requests; }}
location /zip/ {{ alias {root}/; gzip on; gzip_types text/plain; }}
location /sink/ {{ proxy_pass http://127.0.0.1:{sink}; }} }}
""" for lines in listens) + "}")
start(sys.executable, SINK, sink, port=sink)
start("nginx", "-p", work, "-e", "error.log", "-c", work / "nginx.conf", port=plain)

base = f"http://127.0.0.1:{plain}"
bases = [base] + [f"https://127.0.0.1:{port}" for port in (tls12, tls13) if WITH_TLS]
for each in bases:
    for path in ("/bytes", "/lines.txt", "/empty"):
        compare(path, each + path)
    compare("gzip", each + "/zip/lines.txt", curl=["--compressed"])
    compare("redirect", each + "/moved", curl=["-L"])
    compare("range", each + "/bytes", ["--range", "1000-2000"], ["-r", "1000-2000"])
    compare("last bytes", each + "/bytes", ["--range", "-500"], ["-r", "-500"])
    compare("missing", each + "/missing", code=4)
    compare("upload", each + "/sink/raw", ["--upload", "upload"],
            ["--data-binary", "@upload", "-H", "Expect:", "-H", "Content-Type: application/octet-stream"])
    compare("text", each + "/sink/raw", ["--data", "a=b", "-H", "Content-Type: a/b"],
            ["-d", "a=b", "-H", "Content-Type: a/b"])
# Boundaries differ; what a reader of multipart bodies finds does not.
form = ["field=a value", "none="]
parts = [out.partition(b"\n")[2] for out in (
    run(TOOL, "-q", "-o", "-", *(w for f in form for w in ("--form", f)), "--form-file",
        "f=upload;renamed", base + "/sink/form")[1],
    run("curl", "-qs", "-H", "Expect:", *(w for f in form for w in ("-F", f)), "-F",
        "f=@upload;filename=renamed", base + "/sink/form")[1])]
expect("form", "its parts", parts[1], parts[0])
expect("form", "its file", True, hashlib.md5(data).hexdigest().encode() in parts[0])

for present in (0, 1000001, len(data) - 1, len(data)):
    (work / "part").write_bytes(data[:present])
    expect(f"resume at {present}", "the exit code", 0,
           run(TOOL, "-q", "--resume", "-o", "part", base + "/bytes")[0])
    expect(f"resume at {present}", "the file", True, (work / "part").read_bytes() == data)

# One connection carries the requests of one run, as long as the server likes.
for each, counts in ((base, b"said1said2said3said4"),
                     (f"http://127.0.0.1:{three}", b"said1said2said3said1")):
    expect("connections", "their use", (0, counts),
           run(TOOL, "-q", "--to-memory", *[each + "/said"] * 4))

# ------------------------------------------------------------------------------------ proxies
for login in ("", "user:pass@"):
    http, socks = free_port(), free_port()
    (work / "tinyproxy.conf").write_text(
        f"Port {http}\nListen 127.0.0.1\nLogFile \"{work}/tiny.log\"\nAllow 127.0.0.1\n"
        + ("BasicAuth user pass\n" if login else ""))
    start("tinyproxy", "-d", "-c", work / "tinyproxy.conf", port=http)
    start("microsocks", "-i", "127.0.0.1", "-p", socks, *(["-u", "user", "-P", "pass"] if login else []),
          port=socks)
    for proxy in (f"http://{login}127.0.0.1:{http}", f"socks5://{login}127.0.0.1:{socks}"):
        for each in bases:
            compare(proxy, each + "/bytes", ["--proxy", proxy],
                    ["-p", "-x", proxy.replace("socks5:", "socks5h:")])
        if login:
            compare(proxy, base + "/bytes", ["--proxy", proxy.replace("pass@", "wrong@")], code=2)
            compare(proxy, base + "/bytes", ["--proxy", proxy.replace(login, "")], code=2)

# ---------------------------------------------------------------------------- openssl s_server
SETTINGS = [  # key, what the server is told, exit code, a text on its page
    ("rsa", ["-tls1_2"], 0, b"TLSv1.2"), ("rsa", ["-tls1_3"], 0, b"TLSv1.3"),
    ("ec", ["-tls1_2"], 0, b"TLSv1.2"), ("ec", ["-tls1_3", "-groups", "P-384"], 0, b"TLSv1.3"),
    ("rsa", ["-tls1_2", "-cipher", "AES128-SHA"], 0, b"AES128-SHA"),
    ("ec", ["-tls1_3", "-num_tickets", "9", "-max_send_frag", "512"], 0, b"TLSv1.3"),
    ("ec", ["-tls1_2", "-no_ticket", "-verify", "1"], 0, b"TLSv1.2"),
    ("ec", ["-tls1_2", "-Verify", "1"], 3, b""), ("ec", ["-tls1_3", "-Verify", "1"], 3, b""),
    ("ec", ["-tls1_2", "-cipher", "PSK-AES128-CBC-SHA"], 3, b"")]
for key, words, code, page in SETTINGS if WITH_TLS else []:
    port = free_port()
    start("openssl", "s_server", "-accept", f"127.0.0.1:{port}", "-key", key + ".key", "-cert",
          key + ".crt", "-www", *words, port=port)
    got_code, got = run(TOOL, "-q", "-o", "-", "--tls-name", key + ".test", f"https://127.0.0.1:{port}/")
    expect(words, "the exit code", code, got_code)
    expect(words, "the page", True, page in got)
    other = run(TOOL, "-q", "-o", "-", "--tls-name", "other.test", f"https://127.0.0.1:{port}/")
    expect(words, "the exit code for another name", 3, other[0])

print("\n".join(failures) or "check_peers: the same for both")
sys.exit(1 if failures else 0)
