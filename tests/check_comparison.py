#!/usr/bin/env python3
"""usage: check_comparison.py TAVFETCH: puts each claim of the table in docs/tavfetch.md to the
programs of its columns, as far as they are installed."""
import json, os, pathlib, pty, shutil, signal, ssl, subprocess, sys, tempfile, time, unittest

sys.path.append(os.path.join(os.path.dirname(__file__), "peers"))
from moody_server import BODY, Server, start

PAGE = pathlib.Path(__file__).resolve().parent.parent / "docs" / "tavfetch.md"
PROGRAM = os.path.abspath(sys.argv.pop(1))
SUM = "md5=" + 32 * "0"

PLAIN = {  # each as quiet as it gets, without the user's settings
    "tavfetch": [PROGRAM, "-q"], "curl": ["curl", "-q", "-fsS"],
    "wget": ["wget", "--no-config", "-q", "--tries=1"],
    "aria2c": ["aria2c", "--no-conf", "-q", "--max-tries=1", "--file-allocation=none",
               "--allow-overwrite=true", "--disk-cache=0"]}
NAMED = {"tavfetch": ["-o", "x"], "curl": ["-o", "x"], "wget": ["-O", "x"], "aria2c": ["-o", "x"]}
UNNAMED = {"curl": ["-O"]}
PRINTED = {"tavfetch": ["-o", "-"], "curl": [], "wget": ["-O", "-"], "aria2c": ["-o", "/dev/stdout"]}
RETRYING = {
    "tavfetch": ["--retry", "1", "--retry-delay", "1ms"],
    "curl": ["--retry", "1", "--retry-all-errors", "--retry-delay", "1"],
    "wget": ["--tries=2", "--waitretry=0"], "aria2c": ["--max-tries=2", "--retry-wait=0"]}


class Trial:
    """One program in a folder of its own, with a file x in it."""

    def __init__(self, program, folder):
        self.program, self.x = program, folder / "x"
        self.folder = folder
        self.x.write_bytes(b"old"), self.x.chmod(0o640)
        Server.requests.clear(), Server.seen.clear(), Server.asked.clear()

    def start(self, path, *options, stdout=subprocess.PIPE):
        words = [*PLAIN[self.program]]
        for option in options:
            words += option.get(self.program, []) if isinstance(option, dict) else [option]
        return subprocess.Popen([*words, path if "//" in path else URL + path], stdout=stdout,
                                stderr=subprocess.DEVNULL, cwd=self.folder,
                                env={"PATH": os.environ["PATH"], "HOME": str(self.folder)})

    def end(self, process):
        try:
            return process.communicate(timeout=30)[0]
        except subprocess.TimeoutExpired:
            process.kill()
            raise

    def run(self, *words, **options):
        with self.start(*words, **options) as process:
            self.out = self.end(process)
        return process.returncode

    def stop_half_way(self, *words):
        with self.start("/stalled", *words) as process:
            end = time.monotonic() + 30
            while not any(p.stat().st_size for p in self.folder.rglob("x*") if p.is_file()):
                if time.monotonic() > end:
                    process.kill()
                    raise TimeoutError("nothing was written")
            names = {path.name for path in self.folder.iterdir()}
            process.send_signal(signal.SIGINT)
            self.end(process)
        return names, process.returncode

    def keeps_the_old(self):
        self.run("/cut/always", NAMED)
        return self.x.read_bytes() == b"old"

    def keeps_the_mode(self):
        self.run("/file", NAMED)
        return self.x.read_bytes() == BODY and self.x.stat().st_mode & 0o777 == 0o640

    def shows_no_half(self):
        self.x.unlink()
        return "x" not in self.stop_half_way(NAMED)[0]

    def dies_of_ctrl_c(self):
        self.x.unlink()
        return self.stop_half_way(NAMED)[1] == -signal.SIGINT

    def continues(self):
        code = self.run("/cut", NAMED, RETRYING)
        return code == 0 and Server.requests[-1][1]["Range"] is not None

    def checks_sums(self):
        self.x.unlink()
        options = {"tavfetch": ["--checksum", SUM], "aria2c": ["--checksum=md5=" + SUM[4:]]}
        return self.run("/file", NAMED, options) != 0 and not self.x.exists()

    def decodes_names(self):
        self.run("/a%20b", UNNAMED)
        return (self.folder / "a b").exists()

    def spares_the_terminal(self):
        master, slave = pty.openpty()
        code = self.run("/binary", PRINTED, stdout=slave)
        os.close(slave), os.close(master)
        return code != 0

    def keeps_logins(self):
        self.run(URL.replace("//", "//user:secret@") + "/away", NAMED, {"curl": ["-L"]})
        return len(Server.requests) == 2 and Server.requests[1][1]["Authorization"] is None

    def asks_for_gzip(self):
        self.run("/file", NAMED)
        return "gzip" in Server.requests[0][1].get("Accept-Encoding", "")

    def follows(self):
        return self.run("/away", NAMED) == 0 and len(Server.requests) == 2

    def prints_json(self):
        options = {"tavfetch": ["--json"], "curl": ["-w", "%{json}"]}
        try:
            return self.run("/file", NAMED, options) == 0 and bool(json.loads(self.out))
        except ValueError:
            return False

    def refuses_strangers(self):
        return self.run(TLS_URL + "/file", NAMED) != 0


CLAIMS = {
    "A download that breaks off leaves the file that was there": Trial.keeps_the_old,
    "A file that is replaced keeps its mode": Trial.keeps_the_mode,
    "Nothing half-written has the file's name": Trial.shows_no_half,
    "Ctrl-C ends the process with the signal, so that a loop in a shell stops": Trial.dies_of_ctrl_c,
    "Asked to try again, goes on where it stopped": Trial.continues,
    "A body with the wrong checksum never gets the file's name": Trial.checks_sums,
    "`a%20b` becomes the file `a b`": Trial.decodes_names,
    "Bytes that are no text do not go to a terminal": Trial.spares_the_terminal,
    "User and password are not sent to the host of a redirect": Trial.keeps_logins,
    "Asks for gzip without being told": Trial.asks_for_gzip,
    "Follows redirects without being told": Trial.follows,
    "Prints a JSON record of the transfer": Trial.prints_json,
    "Refuses an https server that no authority vouches for": Trial.refuses_strangers,
}


class Comparison(unittest.TestCase):
    def test_table(self):
        rows = [[cell.strip() for cell in line.split("|")[1:-1]]
                for line in PAGE.read_text().splitlines() if line.startswith("|")]
        self.assertEqual([row[0] for row in rows[2:]], list(CLAIMS))
        for row in rows[2:]:
            for program, cell in zip(rows[0][1:], row[1:]):
                if program != "tavfetch" and not shutil.which(program):
                    continue
                with self.subTest(row[0], program=program), tempfile.TemporaryDirectory() as name:
                    shown = CLAIMS[row[0]](Trial(program, pathlib.Path(name)))
                    self.assertEqual("yes" if shown else "no", cell)


with tempfile.TemporaryDirectory() as name:
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj",
                    "/O=Test/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
                    "key", "-out", "cert"], cwd=name, stderr=subprocess.DEVNULL, check=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(f"{name}/cert", f"{name}/key")
server, URL = start()
tls_server, TLS_URL = start()
tls_server.socket = context.wrap_socket(tls_server.socket, server_side=True)
TLS_URL = TLS_URL.replace("http", "https")
unittest.main()
