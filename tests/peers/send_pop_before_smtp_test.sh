#!/bin/bash
# POP before SMTP with kemail-send against Postfix's POP-before-SMTP listener
# and Dovecot POP3: before any POP3 log-in the relay is refused (-6 with
# Postfix's 554), a wrong POP3 password gives -15 with Dovecot's "-ERR" line
# and still no relay, and with the right password the mail is relayed and
# arrives as sent. No work file may stay behind.
# The library always connects from 127.0.0.1, so the client map is emptied
# explicitly before the refused cases.
# Argument 1: the build directory (holds tools/kemail-send).
set -u
# shellcheck source-path=SCRIPTDIR
source "$(dirname "$0")/lib.sh"
build=${1:?usage: $0 BUILD_DIR}
export SEND_TOOL="$build/tools/kemail-send"
source "$(dirname "$0")/send_lib.sh"

peers_require
send_require_tools
send_begin popauth
printf 'wrong-%s\n' "$KEMAIL_PEER_PASSWORD" >"$SEND_WORK/wrong-password"
# Only a domain the listener does not serve needs the relay permission.
foreign="someone@example.org"
common=(--from "agent@$KEMAIL_PEER_DOMAIN" --to "$foreign" --server "$KEMAIL_PEER_HOST"
        --port "$KEMAIL_PEER_SMTP_POPAUTH_PORT"
        --subject "$(cat "$in/subject.sjis")" --body "$in/body.sjis" --attach "$in/note.txt"
        --timeout-connect 60 --timeout-mail 60 --timeout-rcpt 60 --timeout-data 60
        --timeout-block 60 --timeout-end 60)
pop=(--pop-server "$KEMAIL_PEER_HOST" --pop-port "$KEMAIL_PEER_POP3_PORT" --pop-user "$KEMAIL_PEER_USER"
     --pop-timeout 60)

maildir_is_empty_after_a_while() {
  sleep 0.5
  [ "$(peers_maildir_count)" -eq 0 ]
}

echo "# before any POP3 log-in (client map emptied)"
peers_popauth_clear || { echo "FAIL: cannot empty the POP-before-SMTP map" >&2; exit 1; }
peers_maildir_clear
send_mail nopop "${common[@]}"
peers_check "no POP3 log-in: result -6" send_result_is nopop -6
peers_check "no POP3 log-in: the detail is Postfix's relay refusal" \
  send_detail_matches nopop '554 5\.7\.1 .*Relay access denied'
peers_check "no POP3 log-in: no work file left" send_left_no_work_files nopop
peers_check "no POP3 log-in: nothing delivered" maildir_is_empty_after_a_while

echo "# wrong POP3 password"
send_mail wrongpop "${common[@]}" "${pop[@]}" --pop-password-file "$SEND_WORK/wrong-password"
peers_check "wrong POP3 password: result -15" send_result_is wrongpop -15
peers_check "wrong POP3 password: the detail is Dovecot's -ERR line" send_detail_matches wrongpop '-ERR '
peers_check "wrong POP3 password: no work file left" send_left_no_work_files wrongpop
send_mail stillrefused "${common[@]}"
peers_check "after the failed POP3 log-in the relay is still refused (-6)" send_result_is stillrefused -6
peers_check "nothing delivered so far" maildir_is_empty_after_a_while

echo "# POP before SMTP with the right password"
send_mail popok "${common[@]}" "${pop[@]}" --pop-password-file "$SEND_WORK/password" --pop-wait 200
peers_check "POP before SMTP: result 0" send_result_is popok 0
peers_check "POP before SMTP: no work file left" send_left_no_work_files popok
peers_check "Dovecot logged the POP3 log-in" send_eventually grep -q "pop3-login: Info: Login: user=<$KEMAIL_PEER_USER>" \
  "$KEMAIL_PEER_LOG_DIR/dovecot-pop3.log"
peers_check "the POP3 session ended with QUIT" send_eventually grep -q "pop3($KEMAIL_PEER_USER).*Disconnected: Logged out" \
  "$KEMAIL_PEER_LOG_DIR/dovecot-pop3.log"
if mail=$(peers_wait_maildir 1); then
  peers_check "the relayed message went to $foreign" \
    grep -qi "^X-Original-To: $foreign" "$mail"
  SEND_LABEL="POP before SMTP" send_py_checks whole "$in" "$mail" "note.txt=$in/note.txt"
else
  peers_check "POP before SMTP: the message is delivered" false
fi

peers_finish
