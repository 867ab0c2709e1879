#!/usr/bin/env python3
"""A small SMTP sink on loopback for scripts: accepts CONNECTIONS sessions
(default 1) on 127.0.0.1:PORT, answers every command with success, and
appends each message as received (between DATA and the lone dot) to OUT.
Writes its port to PORTFILE once it listens (PORT 0 picks a free one).
Every wait is bounded by --timeout seconds."""
import argparse
import socket
import sys


def session(conn, out, timeout):
    conn.settimeout(timeout)
    reader = conn.makefile("rb")
    conn.sendall(b"220 sink ESMTP\r\n")
    in_data = False
    message = []
    for raw in reader:
        if in_data:
            if raw in (b".\r\n", b".\n"):
                in_data = False
                with open(out, "ab") as f:
                    f.write(b"".join(message))
                    f.write(b"\n--- end of message ---\n")
                message = []
                conn.sendall(b"250 2.0.0 queued\r\n")
            else:
                message.append(raw)
            continue
        verb = raw[:4].upper()
        if verb == b"EHLO":
            conn.sendall(b"250-sink\r\n250 8BITMIME\r\n")
        elif verb == b"DATA":
            in_data = True
            conn.sendall(b"354 go ahead\r\n")
        elif verb == b"QUIT":
            conn.sendall(b"221 bye\r\n")
            return
        else:
            conn.sendall(b"250 ok\r\n")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--portfile", required=True)
    parser.add_argument("--out", required=True)
    parser.add_argument("--connections", type=int, default=1)
    parser.add_argument("--timeout", type=float, default=30.0)
    args = parser.parse_args()
    server = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind(("127.0.0.1", args.port))
    server.listen(4)
    server.settimeout(args.timeout)
    with open(args.portfile, "w") as f:
        f.write(str(server.getsockname()[1]))
    for _ in range(args.connections):
        try:
            conn, _ = server.accept()
        except socket.timeout:
            print("smtp-sink: no connection within the time-out", file=sys.stderr)
            return 1
        with conn:
            try:
                session(conn, args.out, args.timeout)
            except (socket.timeout, ConnectionError) as error:
                print(f"smtp-sink: session ended: {error}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
