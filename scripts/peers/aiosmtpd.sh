#!/bin/bash
# aiosmtpd on loopback: a second SMTP server that stores each message as it
# came (see aiosmtpd_server.py).   aiosmtpd.sh start | stop
set -u
source "$(dirname "${BASH_SOURCE[0]}")/env.sh"
source "$KEMAIL_PEERS_SCRIPTS/common.sh"

base="$KEMAIL_PEERS_STATE/aiosmtpd"
log="$KEMAIL_PEER_LOG_DIR/aiosmtpd.log"

stop() {
  peer_stop_pid "aiosmtpd" "$base/aiosmtpd.pid" 10
}

start() {
  stop
  peer_require_free_port "$KEMAIL_PEER_AIOSMTPD_PORT"
  rm -rf "$base"
  mkdir -p "$KEMAIL_PEER_AIOSMTPD_SPOOL" "$KEMAIL_PEER_LOG_DIR"
  # Debian's interpreter: the first python3 on PATH may lack Debian's modules.
  peer_spawn "$log" "$base/aiosmtpd.pid" /usr/bin/python3 "$KEMAIL_PEERS_SCRIPTS/aiosmtpd_server.py" \
    "$KEMAIL_PEER_HOST" "$KEMAIL_PEER_AIOSMTPD_PORT" "$KEMAIL_PEER_AIOSMTPD_SPOOL" \
    "$KEMAIL_PEER_USER" "$KEMAIL_PEER_PASSWORD"
  peer_wait_greeting "aiosmtpd" "$log" smtp "$KEMAIL_PEER_AIOSMTPD_PORT" CRAM-MD5 PLAIN LOGIN >/dev/null || exit 1
}

case "${1:-}" in
  start) start ;;
  stop) stop ;;
  *) echo "usage: aiosmtpd.sh start|stop" >&2; exit 2 ;;
esac
