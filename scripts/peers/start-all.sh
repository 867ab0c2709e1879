#!/bin/bash
# Starts every real peer on loopback from a fresh state directory
# ($KEMAIL_PEERS_STATE, /tmp/kemail-peers by default): Postfix with its SASL
# Dovecot, Dovecot POP3 and aiosmtpd. Whatever of them runs is stopped first.
# Returns once each listener has greeted (bounded), non-zero with the reason
# when one did not.
set -u
source "$(dirname "${BASH_SOURCE[0]}")/env.sh"
source "$KEMAIL_PEERS_SCRIPTS/common.sh"

peer_require_root
command -v postfix >/dev/null && command -v dovecot >/dev/null && [ -x /usr/bin/python3 ] ||
  peer_die "Postfix, Dovecot or Debian's python3 is missing: run scripts/install-deps.sh"

"$KEMAIL_PEERS_SCRIPTS/stop-all.sh" || exit 1
case "$KEMAIL_PEERS_STATE" in
  /tmp/?* | /var/tmp/?* | /run/?*) rm -rf "$KEMAIL_PEERS_STATE" ;;
  *) rm -rf "${KEMAIL_PEERS_STATE:?}/postfix" "$KEMAIL_PEERS_STATE/mail" "$KEMAIL_PEERS_STATE/log" ;;
esac
mkdir -p "$KEMAIL_PEER_LOG_DIR"

"$KEMAIL_PEERS_SCRIPTS/postfix.sh" start || exit 1
"$KEMAIL_PEERS_SCRIPTS/dovecot-pop3.sh" start || exit 1
"$KEMAIL_PEERS_SCRIPTS/aiosmtpd.sh" start || exit 1
