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
  local failed=0 line ipv6=()
  if [ "$KEMAIL_PEER_HAS_IPV6" = yes ]; then
    ipv6=("Postfix open, IPv6        |smtp $KEMAIL_PEER_SMTP_OPEN_PORT|$KEMAIL_PEER_HOST6"
          "Dovecot POP3, IPv6        |pop3 $KEMAIL_PEER_POP3_PORT|$KEMAIL_PEER_HOST6")
  fi
  for line in \
    "Postfix open              |smtp $KEMAIL_PEER_SMTP_OPEN_PORT" \
    "Postfix AUTH              |smtp $KEMAIL_PEER_SMTP_AUTH_PORT CRAM-MD5 PLAIN LOGIN" \
    "Postfix POP before SMTP   |smtp $KEMAIL_PEER_SMTP_POPAUTH_PORT" \
    "Dovecot POP3              |pop3 $KEMAIL_PEER_POP3_PORT" \
    "aiosmtpd                  |smtp $KEMAIL_PEER_AIOSMTPD_PORT CRAM-MD5 PLAIN LOGIN" \
    "Postfix STARTTLS          |starttls $KEMAIL_PEER_SMTP_STARTTLS_PORT CRAM-MD5 PLAIN LOGIN" \
    "Postfix SMTPS             |smtps $KEMAIL_PEER_SMTPS_PORT CRAM-MD5 PLAIN LOGIN" \
    "Dovecot POP3S             |pop3s $KEMAIL_PEER_POP3S_PORT" \
    "${ipv6[@]}"; do
    [ -n "$line" ] || continue
    local probe=${line#*|} host=""
    if [[ $probe == *"|"* ]]; then host=${probe#*|}; probe=${probe%%|*}; fi
    # shellcheck disable=SC2086 # the probe arguments are split on purpose
    if out=$(KEMAIL_PROBE_HOST=$host peer_probe $probe); then report+="ok    ${line%%|*} $out"$'\n'
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
