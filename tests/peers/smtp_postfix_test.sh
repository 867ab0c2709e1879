#!/bin/bash
# shellcheck disable=SC2016,SC2317 # checks reach peers_check as functions or eval'd text
# The library's SMTP session (SMTP_connect ... SMTP_QUIT, through
# peer_smtp_session) against Postfix on loopback with SASL through Dovecot:
# AUTH CRAM-MD5, PLAIN and LOGIN each deliver into the Maildir; a wrong
# password gives 3, alone or after falling through every allowed mechanism
# in the order CRAM-MD5, PLAIN, LOGIN (seen in the mail log and in Postfix's
# log); the open listener delivers without AUTH; the AUTH listener refuses
# MAIL without it; every delivered message is the staged one (line ends
# normalised, dots undone, Postfix's own headers set aside).
# Argument 1: the build directory (holds tests/peer_smtp_session).
set -u
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/smtp_lib.sh"
build=${1:?usage: $0 BUILD_DIR}
SMTP_DRIVER="$build/tests/peer_smtp_session"

peers_require
[ -x "$SMTP_DRIVER" ] || { echo "FAIL: $SMTP_DRIVER is not built" >&2; exit 1; }
SMTP_WORK=$(mktemp -d /tmp/kemail-smtp-postfix.XXXXXX) || exit 1
peers_start
trap 'peers_stop; rm -rf "$SMTP_WORK"' EXIT

USER=$KEMAIL_PEER_USER
PASSWORD=$KEMAIL_PEER_PASSWORD
WRONG="wrong-$KEMAIL_PEER_PASSWORD"
FROM="sender@$KEMAIL_PEER_DOMAIN"
RCPT="$USER@$KEMAIL_PEER_DOMAIN"
POSTFIX_LOG="$KEMAIL_PEER_LOG_DIR/postfix.log"

# to_auth NAME MASK PASSWORD [MORE-ARGS...]: one session on the AUTH listener.
to_auth() {
  local name=$1 mask=$2 password=$3
  shift 3
  smtp_session "$name" --port "$KEMAIL_PEER_SMTP_AUTH_PORT" --from "$FROM" --to "$RCPT" \
    --file "$SMTP_WORK/$name.msg" --mech "$mask" --user "$USER" --password "$password" --timeout 20 "$@"
}

every_step_zero() {
  local step
  for step in connect initialize mail data send end quit; do
    smtp_step "$1" "$step" 0 || { echo "    $step did not return 0"; return 1; }
  done
}

# delivered NAME: the newest Maildir message is NAME's staged message, under
# exactly the four headers Postfix adds (Return-Path of the envelope sender,
# X-Original-To and Delivered-To of the recipient, one Received).
delivered() {
  local file
  file=$(peers_wait_maildir 1 | tail -n 1) || return 1
  peers_strip_postfix_headers "$file" | peers_lf_to_crlf - >"$SMTP_WORK/$1.got"
  cmp "$SMTP_WORK/$1.got" "$SMTP_WORK/$1.want" || return 1
  peers_postfix_headers "$file" | sed 's/^\t.*//' | grep -c . | grep -qx 4 || return 1
  peers_postfix_headers "$file" >"$SMTP_WORK/$1.headers"
  grep -qx "Return-Path: <$FROM>" "$SMTP_WORK/$1.headers" &&
    grep -qx "X-Original-To: $RCPT" "$SMTP_WORK/$1.headers" &&
    grep -qx "Delivered-To: $RCPT" "$SMTP_WORK/$1.headers" &&
    grep -q "^Received: from " "$SMTP_WORK/$1.headers"
}

# received_with NAME PROTOCOL: Postfix's Received header names ESMTP or ESMTPA.
received_with() {
  grep -qE "^[[:space:]]by mx\.$KEMAIL_PEER_DOMAIN \(Postfix\) with $2 id " "$SMTP_WORK/$1.headers"
}

# postfix_sasl NAME MECHANISM: Postfix logged the delivered message's client
# as authenticated by MECHANISM as the test user.
postfix_sasl() {
  local id
  id=$(smtp_queue_id "$1")
  [ -n "$id" ] && grep -q "$id: client=.*, sasl_method=$2, sasl_username=$USER\$" "$POSTFIX_LOG"
}

# postfix_failures_since LINE "MECH ...": after line LINE of Postfix's log,
# exactly these SASL failures were logged, in this order (waits up to 5 s
# for Postfix's log writer).
postfix_failures_since() {
  local from=$1 want=$2 got deadline=$((SECONDS + 5))
  while :; do
    got=$(tail -n +"$((from + 1))" "$POSTFIX_LOG" |
      sed -n 's/.*warning: .*: SASL \([A-Z0-9-]*\) authentication failed.*/\1/p' | paste -sd' ')
    [ "$got" = "$want" ] && return 0
    [ "$SECONDS" -ge "$deadline" ] && { echo "    Postfix logged failures: '$got', want '$want'"; return 1; }
    sleep 0.1
  done
}

log_lines() { wc -l <"$POSTFIX_LOG"; }

# --- Each mechanism alone, right password: delivered. ----------------------
for entry in 4:CRAM-MD5 2:PLAIN 1:LOGIN; do
  mask=${entry%%:*} mech=${entry#*:}
  name="auth-$mech"
  peers_maildir_clear
  smtp_stage "$name" "$name"
  to_auth "$name" "$mask" "$PASSWORD"
  peers_check "$mech (mask $mask): every step returns 0" every_step_zero "$name"
  peers_check "$mech: the only AUTH command sent is AUTH $mech" smtp_auth_sequence_is "$name" "$mech"
  peers_check "$mech: the mail log masks the password" smtp_log_masks "$name" "$PASSWORD"
  peers_check "$mech: the Maildir copy is the staged message under Postfix's 4 headers" delivered "$name"
  peers_check "$mech: Received says ESMTPA" received_with "$name" ESMTPA
  peers_check "$mech: Postfix logged sasl_method=$mech for this queue id" postfix_sasl "$name" "$mech"
done

# A staged message that ends with CR LF gains an empty last line.
name="auth-crlf-ending"
peers_maildir_clear
smtp_stage "$name" "$name" crlf
to_auth "$name" 2 "$PASSWORD"
peers_check "staged message ending in CR LF: delivered with one empty line more" delivered "$name"

# --- Several mechanisms allowed, right password: only CRAM-MD5 is used. ----
name="auth-all-right"
peers_maildir_clear
smtp_stage "$name" "$name"
to_auth "$name" 7 "$PASSWORD"
peers_check "mask 7, right password: every step returns 0" every_step_zero "$name"
peers_check "mask 7, right password: CRAM-MD5 alone is tried" smtp_auth_sequence_is "$name" CRAM-MD5
peers_check "mask 7, right password: delivered as staged" delivered "$name"
peers_check "mask 7, right password: Postfix logged sasl_method=CRAM-MD5" postfix_sasl "$name" CRAM-MD5

# --- Wrong password: 3, no mail. --------------------------------------------
peers_maildir_clear
for entry in 4:CRAM-MD5 2:PLAIN 1:LOGIN "7:CRAM-MD5 PLAIN LOGIN" "5:CRAM-MD5 LOGIN" "6:CRAM-MD5 PLAIN"; do
  mask=${entry%%:*} mechs=${entry#*:}
  name="wrong-$mask"
  smtp_stage "$name" "$name"
  mark=$(log_lines)
  to_auth "$name" "$mask" "$WRONG"
  peers_check "wrong password, mask $mask: initialisation gives 3" smtp_step "$name" initialize 3
  peers_check "wrong password, mask $mask: the last reply is Postfix's 535" smtp_reply_starts "$name" initialize 535
  peers_check "wrong password, mask $mask: AUTH commands in the mail log: $mechs" \
    smtp_auth_sequence_is "$name" "$mechs"
  peers_check "wrong password, mask $mask: Postfix logged the failures $mechs" \
    postfix_failures_since "$mark" "$mechs"
  peers_check "wrong password, mask $mask: the mail log masks the password" smtp_log_masks "$name" "$WRONG"
  peers_check "wrong password, mask $mask: MAIL then gets 530 (-22), no DATA" \
    eval 'smtp_step "$name" mail -22 && smtp_reply_starts "$name" mail 530 && smtp_no_step "$name" data'
  peers_check "wrong password, mask $mask: QUIT returns 0" smtp_step "$name" quit 0
done

# --- AUTH listener without AUTH: MAIL refused. --------------------------------
name="auth-listener-no-auth"
smtp_stage "$name" "$name"
smtp_session "$name" --port "$KEMAIL_PEER_SMTP_AUTH_PORT" --from "$FROM" --to "$RCPT" \
  --file "$SMTP_WORK/$name.msg" --timeout 20
peers_check "AUTH listener, no AUTH asked: initialisation 0 without any AUTH command" \
  eval 'smtp_step "$name" initialize 0 && smtp_auth_sequence_is "$name" ""'
peers_check "AUTH listener, no AUTH asked: MAIL refused with 530 (-22)" \
  eval 'smtp_step "$name" mail -22 && smtp_reply_starts "$name" mail 530 && smtp_no_step "$name" data'

# None of the refused sessions left a message behind: the next delivery is
# the only one in the Maildir.
name="after-refusals"
smtp_stage "$name" "$name"
to_auth "$name" 1 "$PASSWORD"
peers_check "after the refused sessions the Maildir holds only the next delivery" \
  eval 'delivered "$name" && [ "$(peers_maildir_count)" -eq 1 ]'

# --- Open listener: no AUTH offered. ------------------------------------------
name="open-no-auth"
peers_maildir_clear
smtp_stage "$name" "$name"
smtp_session "$name" --host localhost --port "$KEMAIL_PEER_SMTP_OPEN_PORT" --from "$FROM" --to "$RCPT" \
  --file "$SMTP_WORK/$name.msg" --timeout 20
peers_check "open listener by host name, no AUTH: every step returns 0" every_step_zero "$name"
peers_check "open listener: no AUTH command sent" smtp_auth_sequence_is "$name" ""
peers_check "open listener: delivered as staged" delivered "$name"
peers_check "open listener: Received says ESMTP" received_with "$name" ESMTP

name="open-auth-wanted"
peers_maildir_clear
smtp_stage "$name" "$name"
smtp_session "$name" --port "$KEMAIL_PEER_SMTP_OPEN_PORT" --from "$FROM" --to "$RCPT" \
  --file "$SMTP_WORK/$name.msg" --mech 7 --user "$USER" --password "$PASSWORD" --timeout 20
peers_check "open listener, AUTH asked but not offered: initialisation gives 2, no AUTH command" \
  eval 'smtp_step "$name" initialize 2 && smtp_auth_sequence_is "$name" ""'
peers_check "open listener, AUTH not possible: the mail still goes through" \
  eval 'smtp_step "$name" end 0 && delivered "$name"'

peers_check "no session met a sanitizer report" smtp_no_sanitizer_report
peers_finish
