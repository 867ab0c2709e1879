#!/bin/bash
# shellcheck disable=SC2016,SC2317 # checks reach peers_check as functions or eval'd text
# The library's SMTP session (through peer_smtp_session) against a second,
# independent server, Debian's aiosmtpd, which stores each message byte for
# byte as received (CR LF kept, dot-stuffing undone) with its envelope: a
# plain delivery to two recipients, AUTH CRAM-MD5, PLAIN and LOGIN each, and
# a wrong password that falls through every mechanism to 3 (aiosmtpd does not
# require AUTH, so that mail still goes through, unauthenticated).
# Argument 1: the build directory (holds tests/peer_smtp_session).
set -u
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/smtp_lib.sh"
build=${1:?usage: $0 BUILD_DIR}
SMTP_DRIVER="$build/tests/peer_smtp_session"

peers_require
[ -x "$SMTP_DRIVER" ] || { echo "FAIL: $SMTP_DRIVER is not built" >&2; exit 1; }
SMTP_WORK=$(mktemp -d /tmp/kemail-smtp-aiosmtpd.XXXXXX) || exit 1
peers_start
trap 'peers_stop; rm -rf "$SMTP_WORK"' EXIT

USER=$KEMAIL_PEER_USER
PASSWORD=$KEMAIL_PEER_PASSWORD
FROM="sender@$KEMAIL_PEER_DOMAIN"
RCPT="$USER@$KEMAIL_PEER_DOMAIN"
SECOND="second@$KEMAIL_PEER_DOMAIN"

every_step_zero() {
  local step
  for step in connect initialize mail data send end quit; do
    smtp_step "$1" "$step" 0 || { echo "    $step did not return 0"; return 1; }
  done
}

# stored NAME AUTH RCPT...: aiosmtpd's only stored message is NAME's staged
# message, byte for byte, and its envelope names the sender, the recipients
# and the authenticated user (or "-").
stored() {
  local name=$1 auth=$2 file
  shift 2
  file=$(peers_wait_aiosmtpd 1) || return 1
  [ "$(printf '%s\n' "$file" | wc -l)" -eq 1 ] || { echo "    more than one message stored"; return 1; }
  cmp "$file" "$SMTP_WORK/$name.want" || return 1
  printf 'mail-from: %s\n' "$FROM" >"$SMTP_WORK/$name.env-want"
  printf 'rcpt-to: %s\n' "$@" >>"$SMTP_WORK/$name.env-want"
  printf 'auth: %s\n' "$auth" >>"$SMTP_WORK/$name.env-want"
  diff "${file%.eml}.env" "$SMTP_WORK/$name.env-want"
}

# --- Plain delivery, two recipients, no AUTH. ------------------------------
name="plain-two-rcpts"
peers_aiosmtpd_clear
smtp_stage "$name" "$name"
smtp_session "$name" --port "$KEMAIL_PEER_AIOSMTPD_PORT" --from "$FROM" --to "$RCPT,$SECOND" \
  --file "$SMTP_WORK/$name.msg" --timeout 20
peers_check "no AUTH, two recipients: every step returns 0" every_step_zero "$name"
peers_check "no AUTH: no AUTH command although aiosmtpd offers it" smtp_auth_sequence_is "$name" ""
peers_check "no AUTH: one RCPT TO per recipient in the mail log" \
  eval '[ "$(grep -cE "^[0-9:]+ S: RCPT TO:<($RCPT|$SECOND)>" "$SMTP_WORK/$name.out")" -eq 2 ]'
peers_check "no AUTH: stored byte for byte, envelope with both recipients and no login" \
  stored "$name" - "$RCPT" "$SECOND"

name="plain-crlf-ending"
peers_aiosmtpd_clear
smtp_stage "$name" "$name" crlf
smtp_session "$name" --port "$KEMAIL_PEER_AIOSMTPD_PORT" --from "$FROM" --to "$RCPT" \
  --file "$SMTP_WORK/$name.msg" --timeout 20
peers_check "staged message ending in CR LF: stored with one empty line more" stored "$name" - "$RCPT"

# --- Each mechanism alone. ----------------------------------------------------
for entry in 4:CRAM-MD5 2:PLAIN 1:LOGIN; do
  mask=${entry%%:*} mech=${entry#*:}
  name="auth-$mech"
  peers_aiosmtpd_clear
  smtp_stage "$name" "$name"
  smtp_session "$name" --port "$KEMAIL_PEER_AIOSMTPD_PORT" --from "$FROM" --to "$RCPT" \
    --file "$SMTP_WORK/$name.msg" --mech "$mask" --user "$USER" --password "$PASSWORD" --timeout 20
  peers_check "$mech (mask $mask): every step returns 0, AUTH answered 235" \
    eval 'every_step_zero "$name" && smtp_reply_starts "$name" initialize 235'
  peers_check "$mech: the only AUTH command sent is AUTH $mech" smtp_auth_sequence_is "$name" "$mech"
  peers_check "$mech: the mail log masks the password" smtp_log_masks "$name" "$PASSWORD"
  peers_check "$mech: stored byte for byte, envelope names the logged-in user" stored "$name" "$USER" "$RCPT"
done

# --- Wrong password, every mechanism allowed. --------------------------------
name="wrong-7"
peers_aiosmtpd_clear
smtp_stage "$name" "$name"
smtp_session "$name" --port "$KEMAIL_PEER_AIOSMTPD_PORT" --from "$FROM" --to "$RCPT" \
  --file "$SMTP_WORK/$name.msg" --mech 7 --user "$USER" --password "wrong-$PASSWORD" --timeout 20
peers_check "wrong password, mask 7: initialisation gives 3 after a 535" \
  eval 'smtp_step "$name" initialize 3 && smtp_reply_starts "$name" initialize 535'
peers_check "wrong password, mask 7: CRAM-MD5, PLAIN, LOGIN tried in this order" \
  smtp_auth_sequence_is "$name" "CRAM-MD5 PLAIN LOGIN"
peers_check "wrong password: the mail log masks the password" smtp_log_masks "$name" "wrong-$PASSWORD"
peers_check "wrong password: aiosmtpd needs no AUTH, so the mail is stored, with no login" \
  eval 'smtp_step "$name" end 0 && stored "$name" - "$RCPT"'

peers_check "no session met a sanitizer report" smtp_no_sanitizer_report
peers_finish
