#!/bin/bash
# TLS sends with kemail-send against Postfix and Dovecot: STARTTLS on the
# listener that offers AUTH only inside TLS (so a delivered mail proves the
# order) and SMTPS, each AUTH mechanism Postfix offers; the Maildir copy's
# Received header names TLS. An untrusted CA, a wrong server name and
# STARTTLS against the open listener (which does not offer it) each give -30
# with the reason and deliver nothing; without verification the untrusted
# CA still gets the mail, encrypted. POP before SMTP with STLS and POP3S.
# Argument 1: the build directory (holds tools/kemail-send).
set -u
# shellcheck source-path=SCRIPTDIR
source "$(dirname "$0")/lib.sh"
build=${1:?usage: $0 BUILD_DIR}
export SEND_TOOL="$build/tools/kemail-send"
source "$(dirname "$0")/send_lib.sh"

peers_require
send_require_tools
send_begin tls
rcpt="$KEMAIL_PEER_USER@$KEMAIL_PEER_DOMAIN"
ca="$KEMAIL_PEER_TLS_DIR/ca.pem"
other_ca="$KEMAIL_PEER_TLS_DIR/other-ca.pem"
common=(--from "agent@$KEMAIL_PEER_DOMAIN" --to "$rcpt" --server "$KEMAIL_PEER_HOST"
        --subject "$(cat "$in/subject.sjis")" --body "$in/body.sjis"
        --timeout-connect 60 --timeout-mail 60 --timeout-rcpt 60 --timeout-data 60
        --timeout-block 60 --timeout-end 60)
auth=(--user "$KEMAIL_PEER_USER" --password-file "$SEND_WORK/password")

maildir_is_empty_after_a_while() {
  sleep 0.5
  [ "$(peers_maildir_count)" -eq 0 ]
}

# received_shows_tls FILE: Postfix's Received header of the message names the
# TLS session ("(using TLSv1.3 with cipher ...)").
received_shows_tls() {
  KEEP=postfix peers_postfix_headers "$1" | grep -q '(using TLSv1\.[23] with cipher '
}

# offered_mechanisms PORT MODE: the AUTH mechanisms the listener offers inside
# TLS, in lower case, one per line.
offered_mechanisms() {
  local connect=(-starttls smtp -connect "$KEMAIL_PEER_HOST:$1")
  [ "$2" = smtps ] && connect=(-connect "$KEMAIL_PEER_HOST:$1")
  { sleep 1; printf 'EHLO probe\r\n'; sleep 1; printf 'QUIT\r\n'; } |
    timeout 10 openssl s_client -quiet -CAfile "$ca" "${connect[@]}" 2>/dev/null |
    tr -d '\r' | sed -n 's/^250[- ]AUTH //p' | tr ' ' '\n' | tr '[:upper:]' '[:lower:]'
}

for mode in starttls smtps; do
  if [ "$mode" = starttls ]; then port=$KEMAIL_PEER_SMTP_STARTTLS_PORT; else port=$KEMAIL_PEER_SMTPS_PORT; fi
  mechanisms=$(offered_mechanisms "$port" "$mode")
  peers_check "$mode: the listener offers AUTH inside TLS" test -n "$mechanisms"
  for mechanism in $mechanisms; do
    case $mechanism in cram-md5 | plain | login) ;; *) continue ;; esac
    echo "# $mode (port $port), $mechanism"
    peers_maildir_clear
    send_mail "$mode-$mechanism" "${common[@]}" --port "$port" --tls "$mode" --tls-ca "$ca" \
      --tls-server-name "$KEMAIL_PEER_TLS_NAME" --auth-mechanisms "$mechanism" "${auth[@]}"
    peers_check "$mode $mechanism: result 0" send_result_is "$mode-$mechanism" 0
    peers_check "$mode $mechanism: no work file left" send_left_no_work_files "$mode-$mechanism"
    if mail=$(peers_wait_maildir 1); then
      peers_check "$mode $mechanism: the Received header shows TLS" received_shows_tls "$mail"
      SEND_LABEL="$mode $mechanism" send_py_checks whole "$in" "$mail"
    else
      peers_check "$mode $mechanism: the message is delivered" false
    fi
  done
done

echo "# STARTTLS with a CA that did not sign the server's certificate"
peers_maildir_clear
send_mail wrong-ca "${common[@]}" --port "$KEMAIL_PEER_SMTP_STARTTLS_PORT" --tls starttls \
  --tls-ca "$other_ca" --auth-mechanisms plain "${auth[@]}"
peers_check "wrong CA: result -30" send_result_is wrong-ca -30
peers_check "wrong CA: the reason names the verification" \
  send_detail_matches wrong-ca 'certificate verify failed: '
peers_check "wrong CA: nothing delivered" maildir_is_empty_after_a_while

echo "# STARTTLS verifying another name"
send_mail wrong-name "${common[@]}" --port "$KEMAIL_PEER_SMTP_STARTTLS_PORT" --tls starttls \
  --tls-ca "$ca" --tls-server-name other.kemail.test --auth-mechanisms plain "${auth[@]}"
peers_check "wrong name: result -30" send_result_is wrong-name -30
peers_check "wrong name: the reason is the name mismatch" \
  send_detail_matches wrong-name 'certificate verify failed: hostname mismatch'
peers_check "wrong name: nothing delivered" maildir_is_empty_after_a_while

echo "# STARTTLS against the open listener, which does not offer it"
send_mail not-offered "${common[@]}" --port "$KEMAIL_PEER_SMTP_OPEN_PORT" --tls starttls --tls-ca "$ca"
peers_check "not offered: result -30" send_result_is not-offered -30
peers_check "not offered: the reason" send_detail_matches not-offered 'STARTTLS not offered$'
peers_check "not offered: nothing delivered" maildir_is_empty_after_a_while

echo "# without verification, the CA that did not sign"
peers_maildir_clear
send_mail no-verify "${common[@]}" --port "$KEMAIL_PEER_SMTP_STARTTLS_PORT" --tls starttls \
  --tls-ca "$other_ca" --tls-no-verify --auth-mechanisms plain "${auth[@]}"
peers_check "no verification: result 0" send_result_is no-verify 0
if mail=$(peers_wait_maildir 1); then
  peers_check "no verification: the Received header shows TLS" received_shows_tls "$mail"
else
  peers_check "no verification: the message is delivered" false
fi

# POP before SMTP: the relay of the POP-before-SMTP listener opens only after
# a POP3 log-in, here over STLS and over POP3S.
foreign="someone@example.org"
popauth=(--from "agent@$KEMAIL_PEER_DOMAIN" --to "$foreign" --server "$KEMAIL_PEER_HOST"
         --port "$KEMAIL_PEER_SMTP_POPAUTH_PORT" --subject "$(cat "$in/subject.sjis")"
         --body "$in/body.sjis" --pop-server "$KEMAIL_PEER_HOST" --pop-user "$KEMAIL_PEER_USER"
         --pop-password-file "$SEND_WORK/password" --pop-timeout 60 --tls-ca "$ca")
# tls_logins: how many POP3 log-ins Dovecot has logged as made over TLS.
tls_logins() {
  grep -c "pop3-login: Info: Login: user=<$KEMAIL_PEER_USER>, .*, TLS, " "$KEMAIL_PEER_LOG_DIR/dovecot-pop3.log"
}

for pop_mode in stls pop3s; do
  if [ "$pop_mode" = stls ]; then pop_port=$KEMAIL_PEER_POP3_PORT; else pop_port=$KEMAIL_PEER_POP3S_PORT; fi
  echo "# POP before SMTP, $pop_mode (port $pop_port)"
  peers_popauth_clear || { echo "FAIL: cannot empty the POP-before-SMTP map" >&2; exit 1; }
  peers_maildir_clear
  before=$(tls_logins)
  send_mail "pop-$pop_mode" "${popauth[@]}" --pop-port "$pop_port" --pop-tls "$pop_mode"
  peers_check "POP $pop_mode: result 0" send_result_is "pop-$pop_mode" 0
  peers_check "POP $pop_mode: Dovecot logged one log-in over TLS" \
    send_eventually send_count_is $((before + 1)) tls_logins
  peers_check "POP $pop_mode: the message is delivered" peers_wait_maildir 1
done

echo "# POP before SMTP, STLS with a CA that did not sign"
peers_popauth_clear || { echo "FAIL: cannot empty the POP-before-SMTP map" >&2; exit 1; }
send_mail pop-wrong-ca "${popauth[@]}" --pop-port "$KEMAIL_PEER_POP3_PORT" --pop-tls stls \
  --tls-ca "$other_ca"
peers_check "POP wrong CA: result -18" send_result_is pop-wrong-ca -18
peers_check "POP wrong CA: the reason names the verification" \
  send_detail_matches pop-wrong-ca 'certificate verify failed: '

peers_finish
