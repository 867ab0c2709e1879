# shellcheck shell=bash
# Settings shared by the real-peer scripts and the tests that use them.
# Source it; every value may be overridden from the environment.
#
# Loopback ports (all fixed, below the kernel's ephemeral range 32768-60999 so
# no outgoing connection can hold one):
#   25025  Postfix, open: no AUTH offered, relays for 127.0.0.0/8
#   25587  Postfix, SMTP AUTH (CRAM-MD5, PLAIN, LOGIN) through Dovecot; MAIL
#          without AUTH gets 530
#   25026  Postfix, POP before SMTP: relaying refused ("554 5.7.1") until a
#          POP3 log-in from the same IP address on port 25110
#   25110  Dovecot POP3 (USER/PASS in plain text, no TLS)
#   25125  aiosmtpd: a second, independent SMTP server (AUTH LOGIN, PLAIN,
#          CRAM-MD5 offered, not required) storing each message as received
#   25588  Postfix, STARTTLS offered, AUTH only after STARTTLS and required
#   25465  Postfix, SMTPS (TLS from the first byte), AUTH required
#   25995  Dovecot POP3S (TLS from the first byte); STLS on 25110 too
# and, when the loopback has IPv6, on [::1]:
#   25025  Postfix, open (the same listener as on 127.0.0.1)
#   25110  Dovecot POP3
# TLS: a test CA made at the first start (scripts/peers/test-ca.sh), the
# servers' certificate for mx.kemail.test, localhost, 127.0.0.1 and ::1.

: "${KEMAIL_PEERS_STATE:=/tmp/kemail-peers}"
: "${KEMAIL_PEER_HOST:=127.0.0.1}"
: "${KEMAIL_PEER_SMTP_OPEN_PORT:=25025}"
: "${KEMAIL_PEER_SMTP_AUTH_PORT:=25587}"
: "${KEMAIL_PEER_SMTP_POPAUTH_PORT:=25026}"
: "${KEMAIL_PEER_POP3_PORT:=25110}"
: "${KEMAIL_PEER_AIOSMTPD_PORT:=25125}"
: "${KEMAIL_PEER_SMTP_STARTTLS_PORT:=25588}"
: "${KEMAIL_PEER_SMTPS_PORT:=25465}"
: "${KEMAIL_PEER_POP3S_PORT:=25995}"
: "${KEMAIL_PEER_HOST6:=::1}"
: "${KEMAIL_PEER_TLS_NAME:=mx.kemail.test}"

# The one test account, for SMTP AUTH (Postfix and aiosmtpd) and POP3.
: "${KEMAIL_PEER_USER:=kemailtest}"
: "${KEMAIL_PEER_PASSWORD:=Test-Pass-1}"

# Postfix delivers to every address of this domain (and, where relaying is
# allowed, to every other address too) into one Maildir: nothing leaves.
: "${KEMAIL_PEER_DOMAIN:=kemail.test}"
# Unprivileged system user that owns the Maildir (Postfix's virtual delivery
# refuses root); created on first start.
: "${KEMAIL_PEER_MAIL_USER:=kemailpeer}"

# How long a start waits for a server's greeting, in seconds.
: "${KEMAIL_PEER_START_TIMEOUT:=20}"

KEMAIL_PEERS_SCRIPTS=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
KEMAIL_PEER_MAILDIR="$KEMAIL_PEERS_STATE/mail/Maildir"
KEMAIL_PEER_AIOSMTPD_SPOOL="$KEMAIL_PEERS_STATE/aiosmtpd/spool"
KEMAIL_PEER_LOG_DIR="$KEMAIL_PEERS_STATE/log"
KEMAIL_PEER_TLS_DIR="$KEMAIL_PEERS_STATE/tls"
# Yes when the loopback has ::1, and the IPv6 listeners are started.
if grep -q '^0\{31\}1 .* lo$' /proc/net/if_inet6 2>/dev/null; then
  KEMAIL_PEER_HAS_IPV6=yes
else
  KEMAIL_PEER_HAS_IPV6=no
fi

export KEMAIL_PEERS_STATE KEMAIL_PEER_HOST KEMAIL_PEER_SMTP_OPEN_PORT KEMAIL_PEER_SMTP_AUTH_PORT \
  KEMAIL_PEER_SMTP_POPAUTH_PORT KEMAIL_PEER_POP3_PORT KEMAIL_PEER_AIOSMTPD_PORT KEMAIL_PEER_USER \
  KEMAIL_PEER_PASSWORD KEMAIL_PEER_DOMAIN KEMAIL_PEER_MAIL_USER KEMAIL_PEER_START_TIMEOUT \
  KEMAIL_PEERS_SCRIPTS KEMAIL_PEER_MAILDIR KEMAIL_PEER_AIOSMTPD_SPOOL KEMAIL_PEER_LOG_DIR \
  KEMAIL_PEER_SMTP_STARTTLS_PORT KEMAIL_PEER_SMTPS_PORT KEMAIL_PEER_POP3S_PORT KEMAIL_PEER_HOST6 \
  KEMAIL_PEER_TLS_NAME KEMAIL_PEER_TLS_DIR KEMAIL_PEER_HAS_IPV6
