# shellcheck shell=bash
# Helpers for tests that drive real mail servers (Postfix, Dovecot, aiosmtpd).
# Source it from a tests/peers/*_test.sh script:
#     source "$(dirname "$0")/lib.sh"
# It brings the settings of scripts/peers/env.sh: ports (KEMAIL_PEER_*_PORT),
# the test account (KEMAIL_PEER_USER, KEMAIL_PEER_PASSWORD), the mail domain
# (KEMAIL_PEER_DOMAIN), and where things land (KEMAIL_PEER_MAILDIR,
# KEMAIL_PEER_AIOSMTPD_SPOOL, KEMAIL_PEER_LOG_DIR).

KEMAIL_REPO_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
# shellcheck source=../../scripts/peers/env.sh
source "$KEMAIL_REPO_ROOT/scripts/peers/env.sh"

PEERS_PASSED=0
PEERS_FAILED=0

# peers_skip_or_fail REASON: a test that cannot run here. Outside CI it
# prints the reason and exits 0; in CI (CI=true) a missing peer is a failure.
peers_skip_or_fail() {
  if [ "${CI:-}" = true ]; then
    echo "FAIL: $* (CI must have every real peer: scripts/install-deps.sh installs them)" >&2
    exit 1
  fi
  echo "SKIPPED: $*"
  exit 0
}

# peers_require: root and the servers' packages are there, else skip or fail.
peers_require() {
  [ "$(id -u)" -eq 0 ] || peers_skip_or_fail "real-peer tests need root"
  local missing=() p
  for p in postfix dovecot-core dovecot-pop3d python3-aiosmtpd; do
    [ "$(dpkg-query -W -f='${db:Status-Abbrev}' "$p" 2>/dev/null)" = "ii " ] || missing+=("$p")
  done
  [ -x /usr/bin/python3 ] || missing+=(/usr/bin/python3)
  [ ${#missing[@]} -eq 0 ] || peers_skip_or_fail "not installed: ${missing[*]} (run scripts/install-deps.sh)"
}

# peers_start: starts every peer from a fresh state directory and stops them
# all when the calling script exits (it sets an EXIT trap: a script with an
# EXIT trap of its own sets it after peers_start and calls peers_stop in it).
# On a failed start it prints the reason and the logs' last lines and exits 1.
# One script at a time owns the peers: a second one (another ctest run on the
# same machine) waits here, up to 10 minutes, until the first has exited.
peers_start() {
  exec 7>"$KEMAIL_PEERS_STATE.lock"
  if ! flock -w 600 7; then
    echo "FAIL: the real peers stayed in use by another test for 10 minutes ($KEMAIL_PEERS_STATE.lock)" >&2
    exit 1
  fi
  # The servers must not inherit the lock (7>&-), or it would outlive the test.
  if ! "$KEMAIL_REPO_ROOT/scripts/peers/start-all.sh" 7>&-; then
    local f
    for f in "$KEMAIL_PEER_LOG_DIR"/*.log; do
      [ -f "$f" ] && { echo "--- $f:"; tail -n 15 "$f"; }
    done >&2
    peers_stop
    echo "FAIL: the real peers did not start" >&2
    exit 1
  fi
  trap peers_stop EXIT
}

peers_stop() {
  "$KEMAIL_REPO_ROOT/scripts/peers/stop-all.sh" 7>&-
}

# --- Postfix's Maildir (every recipient of every Postfix listener) ----------
# Dovecot moves a message from new/ to cur/ (renaming it) once a POP3 session
# has seen it, so messages are counted and listed in both.

peers_maildir_clear() {
  find "$KEMAIL_PEER_MAILDIR/new" "$KEMAIL_PEER_MAILDIR/cur" -type f -delete
}

peers_maildir_count() {
  find "$KEMAIL_PEER_MAILDIR/new" "$KEMAIL_PEER_MAILDIR/cur" -type f | wc -l
}

# peers_maildir_list: every message file, oldest delivery first.
peers_maildir_list() {
  find "$KEMAIL_PEER_MAILDIR/new" "$KEMAIL_PEER_MAILDIR/cur" -type f -printf '%T@ %p\n' |
    sort -n | cut -d' ' -f2-
}

# peers_wait_maildir N [SECONDS]: waits (10 s by default) until the Maildir
# holds at least N messages, then prints their paths (oldest first). Returns 1
# and prints what is there when they did not all arrive in time. Postfix
# delivers about 50 ms after its "250".
peers_wait_maildir() {
  local want=$1 bound=${2:-10}
  local deadline=$((SECONDS + bound))
  while [ "$(peers_maildir_count)" -lt "$want" ]; do
    if [ "$SECONDS" -ge "$deadline" ]; then
      echo "peers_wait_maildir: $(peers_maildir_count) of $want messages after ${bound}s" >&2
      peers_maildir_list >&2
      return 1
    fi
    sleep 0.05
  done
  peers_maildir_list
}

# The headers Postfix puts on top of a delivered message: Return-Path,
# X-Original-To, Delivered-To and one Received. Headers further down are never
# counted among them. KEEP=client prints the rest, KEEP=postfix those.
peers_split_postfix_headers_() {
  awk -v keep="$1" '
    BEGIN { top = 1; ours = 0; received = 0; header = 1 }
    !header { if (keep == "client") print; next }
    /^\r?$/ { header = 0; if (keep == "client") print; next }
    /^[ \t]/ { if (ours == (keep == "postfix")) print; next }
    {
      name = tolower(substr($0, 1, index($0, ":") - 1))
      ours = top && (name == "return-path" || name == "x-original-to" || name == "delivered-to" ||
                     (name == "received" && !received))
      if (ours && name == "received") received = 1
      if (!ours) top = 0
      if (ours == (keep == "postfix")) print
    }' "${2:--}"
}

# peers_strip_postfix_headers [FILE]: the message as its client sent it, with
# Postfix's own headers set aside (LF line ends, as Postfix stores them).
peers_strip_postfix_headers() {
  peers_split_postfix_headers_ client "${1:--}"
}

# peers_postfix_headers [FILE]: only the headers Postfix added.
peers_postfix_headers() {
  peers_split_postfix_headers_ postfix "${1:--}"
}

# peers_lf_to_crlf [FILE]: every line end as CR LF (Postfix stores LF; the
# library sends CR LF). A CR LF already there stays as it is.
peers_lf_to_crlf() {
  perl -pe 's/(?<!\r)\n/\r\n/' "${1:--}"
}

# --- aiosmtpd's spool: NNNNNN.eml (bytes as received) + NNNNNN.env ---------

peers_aiosmtpd_clear() {
  find "$KEMAIL_PEER_AIOSMTPD_SPOOL" -type f \( -name '*.eml' -o -name '*.env' \) -delete
}

peers_aiosmtpd_list() {
  find "$KEMAIL_PEER_AIOSMTPD_SPOOL" -name '*.eml' | sort
}

# peers_wait_aiosmtpd N [SECONDS]: like peers_wait_maildir, for aiosmtpd's
# stored messages (in arrival order). NNNNNN.env beside each .eml holds the
# envelope: "mail-from: A", "rcpt-to: B" per recipient, "auth: USER" or "-".
peers_wait_aiosmtpd() {
  local want=$1 bound=${2:-10}
  local deadline=$((SECONDS + bound))
  while [ "$(peers_aiosmtpd_list | wc -l)" -lt "$want" ]; do
    if [ "$SECONDS" -ge "$deadline" ]; then
      echo "peers_wait_aiosmtpd: $(peers_aiosmtpd_list | wc -l) of $want messages after ${bound}s" >&2
      return 1
    fi
    sleep 0.05
  done
  peers_aiosmtpd_list
}

# --- POP before SMTP ---------------------------------------------------------
# Postfix's listener on $KEMAIL_PEER_SMTP_POPAUTH_PORT relays to a domain
# other than $KEMAIL_PEER_DOMAIN only for an IP address that logged in to
# Dovecot POP3 since the peers started. Every loopback client is 127.0.0.1
# unless it binds another source address (all of 127.0.0.0/8 is local).

# peers_popauth_clear: forget every POP3 log-in (relaying refused again).
peers_popauth_clear() {
  "$KEMAIL_REPO_ROOT/scripts/peers/popauth-map.sh" clear
}

# --- Locale --------------------------------------------------------------------

# peers_make_eucjp_locale DIR: compiles the ja_JP.eucJP locale into DIR; a
# program then runs in it with LOCPATH=DIR LC_ALL=ja_JP.eucJP.
peers_make_eucjp_locale() {
  localedef -i ja_JP -f EUC-JP "$1/ja_JP.eucJP" >/dev/null 2>&1 ||
    { echo "peers_make_eucjp_locale: localedef failed (package locales?)" >&2; return 1; }
}

# --- Checks ------------------------------------------------------------------

# peers_check DESCRIPTION COMMAND...: runs COMMAND, prints "ok"/"FAIL" with
# the description, and counts it. peers_finish prints the count and exits 1
# when any check failed.
peers_check() {
  local what=$1
  shift
  if "$@"; then
    echo "ok   $what"
    PEERS_PASSED=$((PEERS_PASSED + 1))
  else
    echo "FAIL $what"
    PEERS_FAILED=$((PEERS_FAILED + 1))
  fi
}

peers_finish() {
  echo "$(basename "$0"): $PEERS_PASSED checks passed, $PEERS_FAILED failed"
  [ "$PEERS_FAILED" -eq 0 ] && [ "$PEERS_PASSED" -gt 0 ]
  exit $?
}
