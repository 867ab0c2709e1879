"""Checks that a server on loopback answers with its greeting.

probe.py smtp PORT [MECHANISM...]  reads "220", sends EHLO, checks that the
                                   AUTH line names every MECHANISM, sends QUIT
probe.py pop3 PORT                 reads "+OK", sends QUIT
probe.py smtps|pop3s PORT [...]    the same inside TLS from the first byte
probe.py starttls PORT [MECH...]   greeting, EHLO, STARTTLS, then the smtp
                                   probe's EHLO and AUTH check inside TLS
TLS is verified against $KEMAIL_PEER_TLS_DIR/ca.pem for $KEMAIL_PEER_TLS_NAME.
Exit 0 when the server answered as expected, 1 (with the reason) otherwise.
Host: $KEMAIL_PROBE_HOST, else $KEMAIL_PEER_HOST (127.0.0.1). Every step is
bounded by 3 seconds.
"""
import os
import socket
import ssl
import sys


def read_line(f):
    line = f.readline(4096)
    if not line:
        raise ConnectionError("connection closed")
    return line.decode("latin-1").rstrip("\r\n")


def probe_smtp(f, mechanisms):
    greeting = read_line(f)
    if not greeting.startswith("220"):
        raise ValueError(f"greeting {greeting!r}")
    if mechanisms:
        probe_smtp_ehlo(f, mechanisms)
    else:
        f.write(b"QUIT\r\n")
        f.flush()
    return greeting


def probe_pop3(f):
    greeting = read_line(f)
    if not greeting.startswith("+OK"):
        raise ValueError(f"greeting {greeting!r}")
    f.write(b"QUIT\r\n")
    f.flush()
    return greeting


def tls_context():
    ca = os.path.join(os.environ.get("KEMAIL_PEER_TLS_DIR", "/tmp/kemail-peers/tls"), "ca.pem")
    return ssl.create_default_context(cafile=ca)


def tls_name():
    return os.environ.get("KEMAIL_PEER_TLS_NAME", "mx.kemail.test")


def probe_starttls(s, mechanisms):
    with s.makefile("rwb") as f:
        greeting = read_line(f)
        if not greeting.startswith("220"):
            raise ValueError(f"greeting {greeting!r}")
        f.write(b"EHLO probe.kemail.test\r\n")
        f.flush()
        while True:
            line = read_line(f)
            if line[3:4] != "-":
                break
        f.write(b"STARTTLS\r\n")
        f.flush()
        line = read_line(f)
        if not line.startswith("220"):
            raise ValueError(f"STARTTLS reply {line!r}")
    with tls_context().wrap_socket(s, server_hostname=tls_name()) as t:
        with t.makefile("rwb") as f:
            # After STARTTLS the server sends no new greeting.
            probe_smtp_ehlo(f, mechanisms)
    return greeting


def probe_smtp_ehlo(f, mechanisms):
    f.write(b"EHLO probe.kemail.test\r\n")
    f.flush()
    offered = set()
    while True:
        line = read_line(f)
        if not line.startswith("250"):
            raise ValueError(f"EHLO reply {line!r}")
        words = line[4:].upper().split()
        if words and words[0] == "AUTH":
            offered.update(words[1:])
        if line[3:4] != "-":
            break
    lacking = [m for m in mechanisms if m.upper() not in offered]
    if lacking:
        raise ValueError(f"AUTH lacks {' '.join(lacking)} (offered: {' '.join(sorted(offered))})")
    f.write(b"QUIT\r\n")
    f.flush()


def main():
    kind, port, extra = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
    host = os.environ.get("KEMAIL_PROBE_HOST") or os.environ.get("KEMAIL_PEER_HOST", "127.0.0.1")
    try:
        with socket.create_connection((host, port), timeout=3) as s:
            if kind == "starttls":
                greeting = probe_starttls(s, extra)
            else:
                if kind in ("smtps", "pop3s"):
                    s = tls_context().wrap_socket(s, server_hostname=tls_name())
                with s.makefile("rwb") as f:
                    greeting = probe_smtp(f, extra) if kind.startswith("smtp") else probe_pop3(f)
    except (OSError, ValueError) as e:
        print(f"{kind} {host}:{port}: {e}")
        return 1
    print(f"{kind} {host}:{port}: {greeting}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
