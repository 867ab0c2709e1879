"""A second SMTP server, independent of Postfix: Debian's aiosmtpd.

Offers AUTH LOGIN, PLAIN and CRAM-MD5 in the clear (not required) for one
account, and stores every accepted message byte for byte as received (CRLF
line ends, dot-stuffing undone) into SPOOL/NNNNNN.eml, with the envelope in
SPOOL/NNNNNN.env ("mail-from: ...", "rcpt-to: ..." per recipient,
"auth: <user>|-"). The .env is written first and the .eml appears by a rename,
so a reader that sees the .eml sees both complete.

Run under /usr/bin/python3 (Debian's modules):
  aiosmtpd_server.py HOST PORT SPOOL USER PASSWORD
"""
import asyncio
import hashlib
import hmac
import logging
import os
import signal
import sys
import time

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword, auth_mechanism


class Spool:
    def __init__(self, directory):
        self.directory = directory
        os.makedirs(directory, exist_ok=True)
        taken = [int(n.split(".")[0]) for n in os.listdir(directory) if n.endswith(".eml")]
        self.next = max(taken, default=0) + 1

    def store(self, envelope, login):
        name = os.path.join(self.directory, f"{self.next:06d}")
        self.next += 1
        lines = [f"mail-from: {envelope.mail_from}"]
        lines += [f"rcpt-to: {r}" for r in envelope.rcpt_tos]
        lines.append(f"auth: {login or '-'}")
        with open(name + ".env", "w") as f:
            f.write("\n".join(lines) + "\n")
        with open(name + ".tmp", "wb") as f:
            f.write(envelope.original_content)
        os.rename(name + ".tmp", name + ".eml")
        return name + ".eml"


class Handler:
    def __init__(self, spool, user, password):
        self.spool = spool
        self.user = user.encode()
        self.password = password.encode()

    def authenticate(self, server, session, envelope, mechanism, data):
        ok = (isinstance(data, LoginPassword) and data.login == self.user
              and data.password == self.password)
        return AuthResult(success=ok, handled=False, auth_data=data if ok else None)

    @auth_mechanism("CRAM-MD5")
    async def auth_CRAM__MD5(self, server, args):
        if len(args) != 1:
            await server.push("501 5.5.4 CRAM-MD5 takes no initial response")
            return AuthResult(success=False, handled=True)
        challenge = f"<{os.getpid()}.{time.time_ns()}@aiosmtpd.kemail.test>".encode()
        response = await server.challenge_auth(challenge)
        if not isinstance(response, bytes):
            return AuthResult(success=False, handled=True)
        login, _, digest = response.rpartition(b" ")
        expected = hmac.new(self.password, challenge, hashlib.md5).hexdigest().encode()
        ok = login == self.user and hmac.compare_digest(digest.lower(), expected)
        return AuthResult(success=ok, handled=False,
                          auth_data=LoginPassword(login, b"") if ok else None)

    async def handle_DATA(self, server, session, envelope):
        login = session.login_data.decode("latin-1") if session.login_data else None
        path = self.spool.store(envelope, login)
        logging.info("stored %s from %s for %s", path, envelope.mail_from, envelope.rcpt_tos)
        return "250 2.0.0 Ok: stored"


async def serve(host, port, handler):
    loop = asyncio.get_running_loop()
    server = await loop.create_server(
        lambda: SMTP(handler, hostname="aiosmtpd.kemail.test", auth_require_tls=False,
                     authenticator=handler.authenticate),
        host=host, port=port, reuse_address=True)
    stop = loop.create_future()
    for sig in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(sig, stop.set_result, None)
    logging.info("listening on %s:%d", host, port)
    await stop
    server.close()
    await server.wait_closed()


def main():
    host, port, spool, user, password = sys.argv[1:6]
    logging.basicConfig(level=logging.INFO, format="%(asctime)s %(name)s %(levelname)s %(message)s")
    asyncio.run(serve(host, int(port), Handler(Spool(spool), user, password)))


if __name__ == "__main__":
    main()
