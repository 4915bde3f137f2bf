"""Takes uploads and answers with what arrived, as a multipart reader of another make sees it.

usage: upload_sink.py PORT

Answer, as text lines: "METHOD PATH TYPE LENGTH MD5", then for each part of a multipart body
"part NAME FILE-NAME LENGTH MD5". A field that is missing is "-".
"""

import email.parser
import hashlib
import http.server
import sys


def described(data):
    return "%d %s" % (len(data), hashlib.md5(data).hexdigest())


def parts_of(content_type, body):
    head = ("Content-Type: %s\r\nMIME-Version: 1.0\r\n\r\n" % content_type).encode("latin-1")
    message = email.parser.BytesParser().parsebytes(head + body)
    if message.defects or not message.is_multipart():
        return ["defects %r" % message.defects]
    lines = []
    for part in message.get_payload():
        name = part.get_param("name", "-", header="content-disposition")
        data = part.get_payload(decode=True)
        lines.append("part %s %s %s" % (name, part.get_filename("-"), described(data)))
    return lines


class Sink(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        content_type = self.headers.get("Content-Type", "-")
        kind = content_type.split(";")[0]
        lines = ["%s %s %s %s" % (self.command, self.path, kind, described(body))]
        if kind.startswith("multipart/"):
            lines += parts_of(content_type, body)
        answer = "".join(line + "\n" for line in lines).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def log_message(self, format, *args):
        pass


http.server.ThreadingHTTPServer(("127.0.0.1", int(sys.argv[1])), Sink).serve_forever()
