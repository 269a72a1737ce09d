"""A real HTTPS server for the web-mail test: records multipart/form-data posts.

Usage: https_server.py CERT KEY OUTDIR. Prints the port once it listens. A POST to /refuse gets
403; any other POST is parsed with Python's MIME parser into OUTDIR/N.json and gets 200. Stops
when standard input closes, or after five minutes.
"""
import base64, json, os, ssl, sys, threading
from email import policy
from email.parser import BytesParser
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

cert, key, outdir = sys.argv[1:4]
count = [0]


class Handler(BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        if self.path == "/refuse":
            self.send_response(403)
            self.end_headers()
            return
        head = b"Content-Type: " + self.headers["Content-Type"].encode() + b"\r\n\r\n"
        form = BytesParser(policy=policy.default).parsebytes(head + body)
        fields = []
        for part in form.iter_parts():
            fields.append({"name": part.get_param("name", header="content-disposition"),
                           "filename": part.get_filename(),
                           "data": base64.b64encode(part.get_payload(decode=True)).decode()})
        path = os.path.join(outdir, "%d.json" % count[0])
        count[0] += 1
        with open(path + ".tmp", "w") as out:
            json.dump({"path": self.path, "content_type": self.headers["Content-Type"], "fields": fields}, out)
        os.rename(path + ".tmp", path)
        self.send_response(200)
        self.end_headers()
        self.wfile.write(b"ok")

    def log_message(self, *args):
        pass


server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
context.load_cert_chain(cert, key)
server.socket = context.wrap_socket(server.socket, server_side=True)
threading.Thread(target=server.serve_forever, daemon=True).start()
print(server.server_address[1], flush=True)
done = threading.Event()
threading.Thread(target=lambda: (sys.stdin.read(), done.set()), daemon=True).start()
done.wait(300)
server.shutdown()
