"""Checks that a server on loopback answers with its greeting.

probe.py smtp PORT [MECHANISM...]  reads "220", sends EHLO, checks that the
                                   AUTH line names every MECHANISM, sends QUIT
probe.py pop3 PORT                 reads "+OK", sends QUIT
Exit 0 when the server answered as expected, 1 (with the reason) otherwise.
Host: $KEMAIL_PEER_HOST (127.0.0.1). Every step is bounded by 3 seconds.
"""
import os
import socket
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
    return greeting


def probe_pop3(f):
    greeting = read_line(f)
    if not greeting.startswith("+OK"):
        raise ValueError(f"greeting {greeting!r}")
    f.write(b"QUIT\r\n")
    f.flush()
    return greeting


def main():
    kind, port, extra = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
    host = os.environ.get("KEMAIL_PEER_HOST", "127.0.0.1")
    try:
        with socket.create_connection((host, port), timeout=3) as s:
            with s.makefile("rwb") as f:
                greeting = probe_smtp(f, extra) if kind == "smtp" else probe_pop3(f)
    except (OSError, ValueError) as e:
        print(f"{kind} {host}:{port}: {e}")
        return 1
    print(f"{kind} {host}:{port}: {greeting}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
