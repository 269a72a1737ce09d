"""Real servers for the mail tests, with the certificate CERT and its key KEY.

mail_servers.py smtp CERT KEY OUTDIR close|keep: STARTTLS required, login as "reporter" with the
password on the first line of standard input required over TLS. Recipients starting with
"nobody@" are refused; with "close", the connection is closed after the message's first line.
mail_servers.py https CERT KEY OUTDIR: records multipart/form-data posts; /refuse gets 403.
Each prints its port once it listens, parses what it receives with Python's MIME parser into
OUTDIR/N.json, and stops when standard input closes, or after five minutes.
"""
import base64, json, os, socket, ssl, sys, threading
from email import policy
from email.parser import BytesParser
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

kind, cert, key, outdir = sys.argv[1:5]
context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
context.load_cert_chain(cert, key)
count = [0]


def parse(data):
    return BytesParser(policy=policy.default).parsebytes(data)


def part_record(part, **extra):
    return dict(extra, filename=part.get_filename(), data=base64.b64encode(part.get_payload(decode=True)).decode())


def record(value):
    path = os.path.join(outdir, "%d.json" % count[0])
    count[0] += 1
    with open(path + ".tmp", "w") as out:
        json.dump(value, out)
    os.rename(path + ".tmp", path)


if kind == "smtp":
    from aiosmtpd.controller import Controller
    from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword

    password = sys.stdin.readline().rstrip("\n")

    def authenticator(server, session, envelope, mechanism, auth_data):
        return AuthResult(success=isinstance(auth_data, LoginPassword) and auth_data.login.decode() == "reporter"
                          and auth_data.password.decode() == password, handled=False)

    class Handler:
        async def handle_RCPT(self, server, session, envelope, address, options):
            if address.startswith("nobody@"):
                return "550 5.1.1 No such user here"
            envelope.rcpt_tos.append(address)
            return "250 OK"

        async def handle_DATA(self, server, session, envelope):
            message = parse(envelope.original_content)
            parts = [{"type": part.get_content_type()} if part.is_multipart() else
                     part_record(part, type=part.get_content_type(), disposition=part.get_content_disposition())
                     for part in message.walk()]
            record({"mail_from": envelope.mail_from, "rcpt_tos": envelope.rcpt_tos,
                    "headers": {k: str(v) for k, v in message.items()}, "parts": parts})
            return "250 Message accepted"

    class ClosingSMTP(SMTP):
        async def smtp_DATA(self, arg):
            await self.push("354 End data with <CR><LF>.<CR><LF>")
            await self._reader.readline()
            self.transport.close()

    class TestController(Controller):
        def factory(self):
            return (ClosingSMTP if sys.argv[5] == "close" else SMTP)(self.handler, **self.SMTP_kwargs)

    probe = socket.socket()
    probe.bind(("127.0.0.1", 0))
    port = probe.getsockname()[1]
    probe.close()
    server = TestController(Handler(), hostname="127.0.0.1", port=port, tls_context=context, require_starttls=True,
                            authenticator=authenticator, auth_require_tls=True)
    server.start()
else:
    class Handler(BaseHTTPRequestHandler):
        def do_POST(self):
            body = self.rfile.read(int(self.headers["Content-Length"]))
            if self.path != "/refuse":
                form = parse(b"Content-Type: " + self.headers["Content-Type"].encode() + b"\r\n\r\n" + body)
                record({"path": self.path, "content_type": self.headers["Content-Type"],
                        "fields": [part_record(part, name=part.get_param("name", header="content-disposition"))
                                   for part in form.iter_parts()]})
            self.send_response(403 if self.path == "/refuse" else 200)
            self.end_headers()
            self.wfile.write(b"ok")

        def log_message(self, *args):
            pass

    server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    server.stop, port = server.shutdown, server.server_address[1]
print(port, flush=True)
done = threading.Event()
threading.Thread(target=lambda: (sys.stdin.read(), done.set()), daemon=True).start()
done.wait(300)
server.stop()
