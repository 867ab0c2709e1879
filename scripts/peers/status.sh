#!/bin/bash
# Tells whether every real peer answers with its greeting.
#   status.sh            one line per listener; exit 0 when all greeted
#   status.sh --wait N   retries for up to N seconds before judging
#   status.sh --quiet    no output, only the exit status
set -u
source "$(dirname "${BASH_SOURCE[0]}")/env.sh"
source "$KEMAIL_PEERS_SCRIPTS/common.sh"

wait_for=0 quiet=no
while [ $# -gt 0 ]; do
  case "$1" in
    --wait) wait_for=${2:?--wait needs seconds}; shift 2 ;;
    --quiet) quiet=yes; shift ;;
    *) echo "usage: status.sh [--wait SECONDS] [--quiet]" >&2; exit 2 ;;
  esac
done

check_all() {
  local failed=0 line
  for line in \
    "Postfix open              |smtp $KEMAIL_PEER_SMTP_OPEN_PORT" \
    "Postfix AUTH              |smtp $KEMAIL_PEER_SMTP_AUTH_PORT CRAM-MD5 PLAIN LOGIN" \
    "Postfix POP before SMTP   |smtp $KEMAIL_PEER_SMTP_POPAUTH_PORT" \
    "Dovecot POP3              |pop3 $KEMAIL_PEER_POP3_PORT" \
    "aiosmtpd                  |smtp $KEMAIL_PEER_AIOSMTPD_PORT CRAM-MD5 PLAIN LOGIN"; do
    # shellcheck disable=SC2086 # the probe arguments are split on purpose
    if out=$(peer_probe ${line#*|}); then report+="ok    ${line%%|*} $out"$'\n'
    else report+="DOWN  ${line%%|*} $out"$'\n'; failed=1; fi
  done
  return $failed
}

deadline=$((SECONDS + wait_for))
while :; do
  report=""
  check_all && rc=0 || rc=1
  [ $rc -eq 0 ] || [ "$SECONDS" -ge "$deadline" ] && break
  sleep 0.2
done
[ "$quiet" = yes ] || printf '%s' "$report"
exit $rc
