#!/bin/bash
# shellcheck disable=SC2016,SC2317 # checks reach peers_check as functions or eval'd text
# The library's POP3 client (Pop3_SetTimeOut, Pop3_Connect, Pop3_Login,
# Pop3_STAT, Pop3_Logout, through peer_pop3_session) against Dovecot POP3 on
# loopback: a full session gives 0 at every step and STAT counts the Maildir;
# a wrong password gives -4 with Dovecot's "-ERR" line, CR LF included, in
# the reply buffer; the mail log shows "******" for the password and never
# the password itself; the trace file records the session.
# Argument 1: the build directory (holds tests/peer_pop3_session).
set -u
source "$(dirname "$0")/lib.sh"
build=${1:?usage: $0 BUILD_DIR}
driver="$build/tests/peer_pop3_session"
private_root="$KEMAIL_REPO_ROOT/tests/support/private-root.sh"

peers_require
[ -x "$driver" ] || { echo "FAIL: $driver is not built" >&2; exit 1; }
work=$(mktemp -d /tmp/kemail-pop3-dovecot.XXXXXX) || exit 1
peers_start
trap 'peers_stop; rm -rf "$work"' EXIT

USER=$KEMAIL_PEER_USER
PASSWORD=$KEMAIL_PEER_PASSWORD
WRONG="wrong-$KEMAIL_PEER_PASSWORD"
POP3_LOG="$KEMAIL_PEER_LOG_DIR/dovecot-pop3.log"

# session NAME HOST PASSWORD: one POP3 session in a private root (the mail
# log lives under the library's fixed directory), bounded in time; output in
# $work/NAME.out (step lines shown), trace in $work/NAME.trc.
session() {
  local name=$1 host=$2 password=$3
  timeout 60 "$private_root" "$driver" --host "$host" --port "$KEMAIL_PEER_POP3_PORT" --user "$USER" \
    --password "$password" --timeout 20 --trace "$work/$name.trc" --maillog >"$work/$name.out" 2>&1
  sed -n '/^--- mail log/q; s/^/    [pop3 '"$name"'] /p' "$work/$name.out"
}

# step NAME STEP RESULT [REPLY-REGEX]: the step's result, and its reply
# buffer (escaped: \r \n) matched whole by the extended regex.
step() {
  grep -qE "^$2 $3 err=0 reply=${4:-}\$" "$work/$1.out"
}

no_step() {
  ! grep -qE "^$2 " "$work/$1.out"
}

# The mail log lines' texts (time stamp and the line's own CR LF dropped).
mail_log() {
  sed -n '/^--- mail log/,/^--- end of mail log/p' "$work/$1.out" | tr -d '\r' |
    sed -n 's/^[0-9][0-9]:[0-9][0-9]:[0-9][0-9] //p'
}

# mail_log_is NAME LINE...: the mail log holds exactly these lines, in order,
# after a positive greeting (whose text is Dovecot's to choose).
mail_log_is() {
  local name=$1
  shift
  mail_log "$name" | head -n 1 | grep -q '^R: +OK ' || { echo "    no greeting in the mail log"; return 1; }
  diff <(mail_log "$name" | tail -n +2) <(printf '%s\n' "$@")
}

never_the_password() {
  grep -q '^--- end of mail log' "$work/$1.out" && ! grep -qF "$2" "$work/$1.out"
}

# trace_has NAME CODE...: the trace file holds every one of these codes.
trace_has() {
  local name=$1 code
  shift
  for code in "$@"; do
    grep -aqF "$code" "$work/$name.trc" || { echo "    no $code in the trace"; return 1; }
  done
}

# dovecot_logged KIND COUNT: Dovecot's log holds COUNT log-ins (KIND Login)
# or failed log-ins (KIND failed) of the test user from loopback; waits up
# to 5 s for Dovecot's log writer.
dovecot_logged() {
  local pattern got deadline=$((SECONDS + 5))
  case $1 in
    Login) pattern="pop3-login: Info: Login: user=<$USER>, method=PLAIN, rip=127\.0\.0\.1," ;;
    failed) pattern="pop3-login: Info: Disconnected: .*\(auth failed, 1 attempts .*user=<$USER>, method=PLAIN, rip=127\.0\.0\.1," ;;
  esac
  while :; do
    got=$(grep -cE "$pattern" "$POP3_LOG")
    [ "$got" -eq "$2" ] && return 0
    [ "$SECONDS" -ge "$deadline" ] && { echo "    Dovecot logged $got $1 lines, want $2"; return 1; }
    sleep 0.1
  done
}

# One message in the Maildir so that STAT has something to count; Dovecot
# reports sizes with CR LF line ends.
message="$KEMAIL_PEER_MAILDIR/new/1700000000.kemail-pop3-test.localhost"
printf 'From: a@%s\nSubject: for STAT\n\nbody\n' "$KEMAIL_PEER_DOMAIN" >"$message"
chown "$KEMAIL_PEER_MAIL_USER:" "$message"
size=$(($(wc -c <"$message") + $(wc -l <"$message")))

# --- Full session. ------------------------------------------------------------
session good 127.0.0.1 "$PASSWORD"
peers_check "full session: Pop3_SetTimeOut 0, Pop3_Connect gives a socket" \
  eval 'step good settimeout 0 && step good connect 0'
peers_check "full session: Pop3_Login 0, reply buffer emptied" step good login 0 ""
peers_check "full session: Pop3_STAT 0, reply buffer emptied" step good stat 0 ""
peers_check "full session: Pop3_Logout 0" step good logout 0 ""
peers_check "full session: the mail log is the dialogue, the password as ******, STAT counting 1 message" \
  mail_log_is good "S: USER $USER" "R: +OK" "S: ******" "R: +OK Logged in." \
  "S: STAT" "R: +OK 1 $size" "S: QUIT" "R: +OK Logging out."
peers_check "full session: the password appears nowhere in the output and mail log" \
  never_the_password good "$PASSWORD"
peers_check "full session: Dovecot logged one log-in of the user" dovecot_logged Login 1
peers_check "full session: the trace records connect, log-in, STAT and log-out" \
  trace_has good Pop3_03ff Pop3_07ff Pop3_09ff Pop3_08ff

# --- Wrong password. ------------------------------------------------------------
session wrong 127.0.0.1 "$WRONG"
peers_check "wrong password: Pop3_Login gives -4 with Dovecot's -ERR line, CR LF included" \
  step wrong login -4 '-ERR .*\\r\\n'
peers_check "wrong password: no STAT; QUIT still answered +OK" \
  eval 'no_step wrong stat && step wrong logout 0 ""'
peers_check "wrong password: the mail log shows ****** and Dovecot's refusal" \
  eval 'mail_log wrong | grep -qx "S: \*\*\*\*\*\*" && mail_log wrong | grep -q "^R: -ERR "'
peers_check "wrong password: the password appears nowhere in the output and mail log" \
  never_the_password wrong "$WRONG"
peers_check "wrong password: the trace records the refused PASS" trace_has wrong Pop3_0630
peers_check "wrong password: the trace has no successful log-in" \
  bash -c "! grep -aqF Pop3_07ff '$work/wrong.trc'"
peers_check "wrong password: Dovecot logged one failed log-in and no second log-in" \
  eval 'dovecot_logged failed 1 && dovecot_logged Login 1'

# --- Server given by name. --------------------------------------------------------
session byname localhost "$PASSWORD"
peers_check "server given as localhost: the full session gives 0 at every step" \
  eval 'step byname connect 0 && step byname login 0 "" && step byname stat 0 "" && step byname logout 0 ""'
peers_check "server given as localhost: the trace records the name lookup" trace_has byname getpopFFFF
peers_check "server given as localhost: Dovecot logged the second log-in" dovecot_logged Login 2

find "$KEMAIL_PEER_MAILDIR/new" "$KEMAIL_PEER_MAILDIR/cur" -name "${message##*/}*" -delete
peers_check "no session met a sanitizer report" \
  bash -c "! grep -lE 'ERROR: (Address|Leak)Sanitizer|runtime error:' '$work'/*.out"
peers_finish
