"""A real SMTP server for the mail tests: STARTTLS required, login required over TLS.

Usage: smtp_server.py CERT KEY USER OUTDIR [close]
The password is read from standard input. Prints the port once the server listens; every
message received is parsed with Python's MIME parser and written to OUTDIR/N.json. Recipients
whose address starts with "nobody@" are refused. With "close", the connection is closed after
the first line of the message. Stops when standard input closes, or after five minutes.
"""
import base64, json, os, socket, ssl, sys, threading
from email import policy
from email.parser import BytesParser

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword

cert, key, user, outdir = sys.argv[1:5]
close_mid_message = len(sys.argv) > 5 and sys.argv[5] == "close"
password = sys.stdin.readline().rstrip("\n")
received = []


def authenticator(server, session, envelope, mechanism, auth_data):
    ok = (isinstance(auth_data, LoginPassword) and auth_data.login.decode() == user
          and auth_data.password.decode() == password)
    return AuthResult(success=ok, handled=False)


class Handler:
    async def handle_RCPT(self, server, session, envelope, address, options):
        if address.startswith("nobody@"):
            return "550 5.1.1 No such user here"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        message = BytesParser(policy=policy.default).parsebytes(envelope.original_content)
        parts = []
        for part in message.walk():
            if part.is_multipart():
                parts.append({"type": part.get_content_type()})
                continue
            parts.append({"type": part.get_content_type(), "filename": part.get_filename(),
                          "disposition": part.get_content_disposition(),
                          "charset": part.get_content_charset(),
                          "data": base64.b64encode(part.get_payload(decode=True)).decode()})
        record = {"mail_from": envelope.mail_from, "rcpt_tos": envelope.rcpt_tos,
                  "headers": {k: str(v) for k, v in message.items()}, "parts": parts}
        path = os.path.join(outdir, "%d.json" % len(received))
        with open(path + ".tmp", "w") as out:
            json.dump(record, out)
        os.rename(path + ".tmp", path)
        received.append(path)
        return "250 Message accepted"


class ClosingSMTP(SMTP):
    async def smtp_DATA(self, arg):
        await self.push("354 End data with <CR><LF>.<CR><LF>")
        await self._reader.readline()
        self.transport.close()


class TestController(Controller):
    def factory(self):
        kind = ClosingSMTP if close_mid_message else SMTP
        return kind(self.handler, **self.SMTP_kwargs)


context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
context.load_cert_chain(cert, key)
probe = socket.socket()
probe.bind(("127.0.0.1", 0))
port = probe.getsockname()[1]
probe.close()
controller = TestController(Handler(), hostname="127.0.0.1", port=port, tls_context=context,
                            require_starttls=True, authenticator=authenticator, auth_require_tls=True)
controller.start()
print(port, flush=True)
done = threading.Event()
threading.Thread(target=lambda: (sys.stdin.read(), done.set()), daemon=True).start()
done.wait(300)
controller.stop()
