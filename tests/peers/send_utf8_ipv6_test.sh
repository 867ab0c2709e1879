#!/bin/bash
# UTF-8 input and IPv6 against the real servers, with kemail-send:
# - a subject and text typed in a UTF-8 terminal (kanji, kana, half-width
#   katakana, ASCII, a CP932-only circled digit and an emoji) and a UTF-8
#   attachment name go through Postfix; the Maildir copy, read back by
#   Python's email package and by nkf, equals what was typed, the emoji as
#   GETA MARK, and the send answers 1;
# - the same text given with --charset EUC-JP needs no library conversion;
# - with --ipv6 a mail reaches Postfix on [::1] and POP before SMTP logs in to
#   Dovecot on [::1].
# Argument 1: the build directory (holds tools/kemail-send).
set -u
# shellcheck source-path=SCRIPTDIR
source "$(dirname "$0")/lib.sh"
build=${1:?usage: $0 BUILD_DIR}
export SEND_TOOL="$build/tools/kemail-send"
source "$(dirname "$0")/send_lib.sh"

peers_require
send_require_tools
command -v nkf >/dev/null || peers_skip_or_fail "nkf is missing (run scripts/install-deps.sh)"
locale -a 2>/dev/null | grep -qix 'c.utf-\?8' || peers_skip_or_fail "the C.UTF-8 locale is missing"
SEND_WORK=$(mktemp -d /tmp/kemail-send-utf8.XXXXXX) || exit 1
peers_start
trap 'peers_stop; rm -rf "$SEND_WORK"' EXIT

rcpt="$KEMAIL_PEER_USER@$KEMAIL_PEER_DOMAIN"
check="$(dirname "$0")/send_utf8_check.py"

# What the operator types, and what must arrive (the emoji as GETA MARK).
# The subject's double-byte runs start early in the line: the designed
# subject fold would otherwise show as a blank in a reader.
subject='①😀ASCII日本語かな'
text=$'日本語 かな ｶﾀｶﾅ ASCII ① 😀\nsecond line, ASCII only\n漢字とカナ'
printf '%s' "${subject//😀/〓}" >"$SEND_WORK/subject.want"
printf '%s\n' "${text//😀/〓}" >"$SEND_WORK/text.want"
printf '%s\n' "$text" >"$SEND_WORK/body.utf8"
printf 'plain ASCII text\n' >"$SEND_WORK/body.ascii"
mkdir -p "$SEND_WORK/files" && printf 'report\n' >"$SEND_WORK/files/報告.txt"

echo "# UTF-8 terminal: subject, text and attachment name in UTF-8"
peers_maildir_clear
LC_ALL=C.UTF-8 send_mail utf8 --from "agent@$KEMAIL_PEER_DOMAIN" --to "$rcpt" \
  --server "$KEMAIL_PEER_HOST" --port "$KEMAIL_PEER_SMTP_OPEN_PORT" \
  --subject "$subject" --body "$SEND_WORK/body.utf8" --attach "$SEND_WORK/files/報告.txt"
peers_check "utf8: result 1 (the emoji has no Shift_JIS form)" send_result_is utf8 1
peers_check "utf8: a warning names the GETA MARK" grep -q 'GETA MARK' "$SEND_WORK/utf8/err"
peers_check "utf8: no work file left" send_left_no_work_files utf8
if mail=$(peers_wait_maildir 1); then
  send_py_checks_utf8() {
    local output rc
    output=$(timeout 60 /usr/bin/python3 "$check" "$1" "$SEND_WORK/subject.want" \
      "$SEND_WORK/text.want" "報告.txt" 2>&1)
    rc=$?
    echo "$output"
    PEERS_PASSED=$((PEERS_PASSED + $(grep -c '^ok ' <<<"$output")))
    PEERS_FAILED=$((PEERS_FAILED + $(grep -c '^FAIL ' <<<"$output")))
    if [ "$rc" -ne 0 ]; then
      echo "FAIL send_utf8_check.py ended with status $rc"
      PEERS_FAILED=$((PEERS_FAILED + 1))
    fi
  }
  send_py_checks_utf8 "$mail"
else
  peers_check "utf8: the message is delivered" false
fi

echo "# --charset EUC-JP-MS: converted by kemail-send, no character lost"
peers_maildir_clear
printf '%s\n' "${text//😀/〓}" | iconv -f UTF-8 -t EUC-JP-MS >"$SEND_WORK/body.euc"
euc_subject=$(printf '%s' "${subject//😀/〓}" | iconv -f UTF-8 -t EUC-JP-MS)
LC_ALL=C.UTF-8 send_mail euc --from "agent@$KEMAIL_PEER_DOMAIN" --to "$rcpt" \
  --server "$KEMAIL_PEER_HOST" --port "$KEMAIL_PEER_SMTP_OPEN_PORT" --charset EUC-JP-MS \
  --subject "$euc_subject" --body "$SEND_WORK/body.euc"
peers_check "euc: result 0" send_result_is euc 0
if mail=$(peers_wait_maildir 1); then
  subject_seen=$(nkf -w -x -m --cp932 "$mail" | sed -n 's/^Subject: //p')
  peers_check "euc: nkf reads the subject" test "$subject_seen" = "$(cat "$SEND_WORK/subject.want")"
else
  peers_check "euc: the message is delivered" false
fi

if [ "$KEMAIL_PEER_HAS_IPV6" = yes ]; then
  echo "# --ipv6: Postfix on [$KEMAIL_PEER_HOST6]:$KEMAIL_PEER_SMTP_OPEN_PORT"
  peers_maildir_clear
  send_mail ipv6 --from "agent@$KEMAIL_PEER_DOMAIN" --to "$rcpt" --ipv6 \
    --server "$KEMAIL_PEER_HOST6" --port "$KEMAIL_PEER_SMTP_OPEN_PORT" --subject "over IPv6" \
    --body "$SEND_WORK/body.ascii"
  peers_check "ipv6: result 0" send_result_is ipv6 0
  if mail=$(peers_wait_maildir 1); then
    peers_check "ipv6: Postfix received it from [IPv6:::1]" grep -q 'IPv6:::1' "$mail"
    peers_check "ipv6: the subject arrived" grep -q '^Subject: over IPv6$' "$mail"
  else
    peers_check "ipv6: the message is delivered" false
  fi

  echo "# --ipv6: POP before SMTP with Dovecot on [$KEMAIL_PEER_HOST6]:$KEMAIL_PEER_POP3_PORT"
  printf '%s\n' "$KEMAIL_PEER_PASSWORD" >"$SEND_WORK/pop-password"
  logins() { grep -c "pop3-login: .*Login: user=<$KEMAIL_PEER_USER>, .*rip=::1," "$KEMAIL_PEER_LOG_DIR"/dovecot*.log 2>/dev/null | awk -F: '{s+=$NF} END {print s+0}'; }
  before=$(logins)
  peers_maildir_clear
  send_mail pop6 --from "agent@$KEMAIL_PEER_DOMAIN" --to "$rcpt" --ipv6 \
    --server "$KEMAIL_PEER_HOST6" --port "$KEMAIL_PEER_SMTP_OPEN_PORT" --subject "pop over IPv6" \
    --pop-server "$KEMAIL_PEER_HOST6" --pop-port "$KEMAIL_PEER_POP3_PORT" \
    --pop-user "$KEMAIL_PEER_USER" --pop-password-file "$SEND_WORK/pop-password" \
    --body "$SEND_WORK/body.ascii"
  peers_check "pop6: result 0" send_result_is pop6 0
  peers_check "pop6: Dovecot logged a log-in from ::1" send_eventually send_count_is $((before + 1)) logins
  peers_check "pop6: the message is delivered" peers_wait_maildir 1
else
  echo "# the loopback has no ::1: the IPv6 checks are left out"
fi

peers_finish
