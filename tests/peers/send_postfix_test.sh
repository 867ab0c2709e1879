#!/bin/bash
# Whole sends through Postfix into its Maildir with kemail-send (the public
# send entry only): on the open listener without AUTH, and on the AUTH listener
# with CRAM-MD5, PLAIN and LOGIN each, then a wrong password. What arrives is
# read back by Python's email package; no work file may stay behind, an
# --attach-delete file goes after a successful send only, an --attach file
# never.
# Argument 1: the build directory (holds tools/kemail-send).
set -u
# shellcheck source-path=SCRIPTDIR
source "$(dirname "$0")/lib.sh"
build=${1:?usage: $0 BUILD_DIR}
export SEND_TOOL="$build/tools/kemail-send"
source "$(dirname "$0")/send_lib.sh"

peers_require
send_require_tools
send_begin postfix
rcpt="$KEMAIL_PEER_USER@$KEMAIL_PEER_DOMAIN"
printf 'wrong-%s\n' "$KEMAIL_PEER_PASSWORD" >"$SEND_WORK/wrong-password"
common=(--from "agent@$KEMAIL_PEER_DOMAIN" --to "$rcpt" --server "$KEMAIL_PEER_HOST"
        --subject "$(cat "$in/subject.sjis")" --body "$in/body.sjis"
        --timeout-connect 60 --timeout-mail 60 --timeout-rcpt 60 --timeout-data 60
        --timeout-block 60 --timeout-end 60)

# sasl_logins METHOD: how many log-ins Postfix has logged with METHOD so far.
sasl_logins() {
  grep -c "sasl_method=$1, sasl_username=$KEMAIL_PEER_USER" "$KEMAIL_PEER_LOG_DIR/postfix.log"
}

maildir_is_empty_after_a_while() {
  sleep 0.5
  [ "$(peers_maildir_count)" -eq 0 ]
}

# --- open listener, no AUTH -------------------------------------------------
echo "# open listener (port $KEMAIL_PEER_SMTP_OPEN_PORT), no AUTH"
peers_maildir_clear
del="$SEND_WORK/delete-open"
mkdir -p "$del" && cp "$in/big.bin" "$del/report.bin" && cp "$in/note.txt" "$SEND_WORK/note.ref"
send_mail open "${common[@]}" --port "$KEMAIL_PEER_SMTP_OPEN_PORT" \
  --attach "$in/note.txt" --attach-delete "$del/report.bin"
peers_check "open: result 0" send_result_is open 0
peers_check "open: no work file left in /var/opt/QRZNvolta/tmp" send_left_no_work_files open
peers_check "open: the --attach-delete file is gone" test ! -e "$del/report.bin"
peers_check "open: the --attach file is still there, unchanged" cmp -s "$in/note.txt" "$SEND_WORK/note.ref"
if mail=$(peers_wait_maildir 1); then
  peers_check "open: exactly one message delivered" test "$(peers_maildir_count)" -eq 1
  SEND_LABEL=open send_py_checks whole "$in" "$mail" "note.txt=$in/note.txt" "report.bin=$in/big.bin"
else
  peers_check "open: the message is delivered" false
fi

# --- AUTH listener, one mechanism at a time ----------------------------------
for mechanism in cram-md5 plain login; do
  method=$(tr '[:lower:]' '[:upper:]' <<<"$mechanism")
  echo "# AUTH listener (port $KEMAIL_PEER_SMTP_AUTH_PORT), $method only"
  peers_maildir_clear
  before=$(sasl_logins "$method")
  del="$SEND_WORK/delete-$mechanism"
  mkdir -p "$del" && cp "$in/note.txt" "$del/note-$mechanism.txt"
  send_mail "auth-$mechanism" "${common[@]}" --port "$KEMAIL_PEER_SMTP_AUTH_PORT" \
    --auth-mechanisms "$mechanism" --user "$KEMAIL_PEER_USER" --password-file "$SEND_WORK/password" \
    --attach-delete "$del/note-$mechanism.txt"
  peers_check "$method: result 0" send_result_is "auth-$mechanism" 0
  peers_check "$method: Postfix logged one $method log-in" send_eventually send_count_is $((before + 1)) sasl_logins "$method"
  peers_check "$method: no work file left" send_left_no_work_files "auth-$mechanism"
  peers_check "$method: the --attach-delete file is gone" test ! -e "$del/note-$mechanism.txt"
  if mail=$(peers_wait_maildir 1); then
    SEND_LABEL="$method" send_py_checks whole "$in" "$mail" "note-$mechanism.txt=$in/note.txt"
  else
    peers_check "$method: the message is delivered" false
  fi
done

# --- AUTH listener, wrong password, one mechanism at a time ------------------
# sasl_failures METHOD: how many refused METHOD log-ins Postfix has logged.
sasl_failures() {
  grep -c "SASL $1 authentication failed" "$KEMAIL_PEER_LOG_DIR/postfix.log"
}

# mail_rejections: how many MAIL FROM commands the AUTH listener answered 530.
mail_rejections() {
  grep -c "postfix/auth/smtpd.*NOQUEUE: reject: MAIL from .*: 530 " "$KEMAIL_PEER_LOG_DIR/postfix.log"
}

for mechanism in cram-md5 plain login; do
  method=$(tr '[:lower:]' '[:upper:]' <<<"$mechanism")
  echo "# AUTH listener, $method only, wrong password"
  peers_maildir_clear
  before=$(sasl_failures "$method")
  rejected=$(mail_rejections)
  del="$SEND_WORK/delete-wrong-$mechanism"
  mkdir -p "$del" && cp "$in/note.txt" "$del/kept.txt"
  send_mail "wrong-$mechanism" "${common[@]}" --port "$KEMAIL_PEER_SMTP_AUTH_PORT" \
    --auth-mechanisms "$mechanism" --user "$KEMAIL_PEER_USER" --password-file "$SEND_WORK/wrong-password" \
    --attach-delete "$del/kept.txt"
  peers_check "$method, wrong password: result -25" send_result_is "wrong-$mechanism" -25
  peers_check "$method, wrong password: the detail is the server's 530 reply to MAIL FROM" \
    send_detail_matches "wrong-$mechanism" '530 5\.7\.0 .*Authentication required'
  peers_check "$method, wrong password: Postfix logged one refused $method log-in" \
    send_eventually send_count_is $((before + 1)) sasl_failures "$method"
  peers_check "$method, wrong password: Postfix logged that it answered MAIL FROM with 530" \
    send_eventually send_count_is $((rejected + 1)) mail_rejections
  peers_check "$method, wrong password: no work file left" send_left_no_work_files "wrong-$mechanism"
  peers_check "$method, wrong password: the --attach-delete file is kept" cmp -s "$del/kept.txt" "$in/note.txt"
  peers_check "$method, wrong password: nothing delivered" maildir_is_empty_after_a_while
done

peers_finish
