# shellcheck shell=bash
# Shared by tests/peers/smtp_*_test.sh: staging a message in wire form, one
# SMTP session through peer_smtp_session, and predicates on what it printed.
# Source lib.sh first; set SMTP_WORK (a scratch directory) and SMTP_DRIVER
# (the built peer_smtp_session) before calling smtp_session.

SMTP_PRIVATE_ROOT="$KEMAIL_REPO_ROOT/tests/support/private-root.sh"
# Upper bound of one session (the library's own phase time-outs are shorter).
SMTP_SESSION_BOUND=60

# smtp_stage NAME TAG [crlf]: writes $SMTP_WORK/NAME.msg, a message as the
# library stages it (CR LF line ends, every line that starts with a dot
# doubled), several 1028-byte read chunks long, with lines cut across chunks,
# a lone dot line, an empty line, ISO-2022-JP escapes, a tab and trailing
# blanks. Its last line has no CR LF unless "crlf" is given. Also writes
# $SMTP_WORK/NAME.want: what a server must store, the dots undone and the
# CR LF of the end-of-data mark behind it (that mark always begins with its
# own CR LF, so a message that ended with one gains an empty line).
smtp_stage() {
  local msg="$SMTP_WORK/$1.msg" tag=$2 ending=${3:-none} i
  {
    printf 'From: sender@%s\r\n' "$KEMAIL_PEER_DOMAIN"
    printf 'To: %s@%s\r\n' "$KEMAIL_PEER_USER" "$KEMAIL_PEER_DOMAIN"
    printf 'Subject: kemail peer test %s\r\n' "$tag"
    printf 'Date: Sun, 22 Nov 2026 11:00:00 +0900\r\n'
    printf 'Message-Id: <%s.%s@%s>\r\n' "$tag" "$$" "$KEMAIL_PEER_DOMAIN"
    printf 'MIME-Version: 1.0\r\n'
    printf 'Content-Type: text/plain; charset=ISO-2022-JP\r\n'
    printf 'Content-Transfer-Encoding: 7bit\r\n'
    printf '\r\n'
    printf 'Staged by the kemail real-peer tests (%s).\r\n' "$tag"
    printf '..A line that began with a dot goes out with its dot doubled.\r\n'
    printf '..\r\n'
    printf 'The line above is a lone dot; an empty line follows.\r\n'
    printf '\r\n'
    # shellcheck disable=SC2016 # JIS X 0208 bytes, no expansion
    printf '\033$B$3$s$K$A$O\033(J kemail\r\n'
    for ((i = 1; i <= 60; i++)); do
      printf 'line %03d %s\r\n' "$i" "$(printf '%0.s0123456789' {1..9})"
    done
    printf 'a long line: %s\r\n' "$(printf '%0.s-=' {1..450})"
    printf 'tab\there and trailing blanks   \r\n'
    printf '...two dots went out as three\r\n'
    printf 'last line'
    [ "$ending" = crlf ] && printf '\r\n'
  } >"$msg"
  { perl -pe 's/^\.//' "$msg" && printf '\r\n'; } >"$SMTP_WORK/$1.want"
}

# smtp_session NAME DRIVER-ARGS...: runs one session in a private root with
# the mail log on; its whole output goes to $SMTP_WORK/NAME.out and its step
# lines are shown. The driver's exit status is returned (not judged here).
smtp_session() {
  local name=$1 rc
  shift
  timeout "$SMTP_SESSION_BOUND" "$SMTP_PRIVATE_ROOT" "$SMTP_DRIVER" --maillog "$@" \
    >"$SMTP_WORK/$name.out" 2>&1
  rc=$?
  sed -n '/^--- mail log/q; s/^/    [smtp '"$name"'] /p' "$SMTP_WORK/$name.out"
  return $rc
}

# smtp_step NAME STEP RESULT: the session's STEP (connect, initialize, mail,
# data, send, end, quit) returned RESULT.
smtp_step() {
  grep -qE "^$2 $3( |\$)" "$SMTP_WORK/$1.out"
}

# smtp_reply_starts NAME STEP TEXT: the server's reply after STEP begins so.
smtp_reply_starts() {
  grep -q "^$2 [-0-9]* err=[0-9]* reply=$3" "$SMTP_WORK/$1.out"
}

# smtp_no_step NAME STEP: the session never came to STEP.
smtp_no_step() {
  ! grep -qE "^$2 " "$SMTP_WORK/$1.out"
}

# The AUTH commands of a session as its mail log recorded them, in order.
smtp_auth_sequence() {
  grep -oE '^[0-9:]+ S: AUTH [A-Z0-9-]+' "$SMTP_WORK/$1.out" | awk '{ print $4 }' | paste -sd' '
}

# smtp_auth_sequence_is NAME "CRAM-MD5 PLAIN ...": exactly these AUTH commands.
smtp_auth_sequence_is() {
  local got
  got=$(smtp_auth_sequence "$1")
  [ "$got" = "$2" ] || { echo "    AUTH commands: '$got', want '$2'"; return 1; }
}

# smtp_log_masks NAME PASSWORD: the mail log holds a masked response for every
# mechanism tried and the password nowhere, neither clear nor in base64 (the
# PLAIN string, the LOGIN answer).
smtp_log_masks() {
  local out="$SMTP_WORK/$1.out" password=$2 mech plain login
  grep -q '^--- end of mail log' "$out" || { echo "    no mail log printed"; return 1; }
  for mech in $(smtp_auth_sequence "$1"); do
    case $mech in
      CRAM-MD5 | LOGIN) grep -qE $'^[0-9:]+ S: \\*{6}\r?$' "$out" || { echo "    no masked $mech response"; return 1; } ;;
      PLAIN) grep -qE $'^[0-9:]+ S: AUTH PLAIN \\*{6}\r?$' "$out" || { echo "    AUTH PLAIN not masked"; return 1; } ;;
    esac
  done
  plain=$(printf '%s\0%s\0%s' "$KEMAIL_PEER_USER" "$KEMAIL_PEER_USER" "$password" | base64 -w0)
  login=$(printf '%s' "$password" | base64 -w0)
  ! grep -qF -e "$password" -e "$plain" -e "$login" "$out" || { echo "    password found in the output"; return 1; }
}

# smtp_queue_id NAME: the id Postfix named in its reply to the end of data.
smtp_queue_id() {
  sed -n 's/^end 0 .*queued as \([0-9A-F]*\).*/\1/p' "$SMTP_WORK/$1.out"
}

# smtp_no_sanitizer_report: no session's output holds a report of the
# address or undefined-behaviour sanitizer (builds with KEMAIL_SANITIZE=ON).
smtp_no_sanitizer_report() {
  ! grep -lE 'ERROR: (Address|Leak)Sanitizer|runtime error:' "$SMTP_WORK"/*.out
}
