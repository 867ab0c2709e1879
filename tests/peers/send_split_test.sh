#!/bin/bash
# A split send through Postfix's open listener with kemail-send: --split with
# 10 KiB pieces and a 40,000-byte attachment arrive as several message/partial
# pieces, which GMime reassembles into the composed message; Python's email
# package then reads its subject, text and attachments. The same mail sent
# whole is compared with the reassembled one. No work file may stay behind;
# an --attach-delete file goes after the successful split send.
# Argument 1: the build directory (holds tools/kemail-send).
set -u
# shellcheck source-path=SCRIPTDIR
source "$(dirname "$0")/lib.sh"
build=${1:?usage: $0 BUILD_DIR}
export SEND_TOOL="$build/tools/kemail-send"
source "$(dirname "$0")/send_lib.sh"
here=$(cd "$(dirname "$0")" && pwd)

peers_require
send_require_tools
command -v pkg-config >/dev/null || peers_skip_or_fail "pkg-config is missing (apt-get install -y pkg-config)"
pkg-config --exists gmime-3.0 || peers_skip_or_fail "GMime 3 is missing (apt-get install -y libgmime-3.0-dev)"
command -v cc >/dev/null || peers_skip_or_fail "no C compiler (apt-get install -y gcc)"
SEND_WORK=$(mktemp -d /tmp/kemail-send-split.XXXXXX) || exit 1
trap 'rm -rf "$SEND_WORK"' EXIT
# shellcheck disable=SC2046 # pkg-config prints several words on purpose
cc -O1 -Wall -Wextra -o "$SEND_WORK/reassemble" "$here/compose_gmime_reassemble.c" \
  $(pkg-config --cflags --libs gmime-3.0) || { echo "FAIL: cannot build the GMime program" >&2; exit 1; }
peers_start
trap 'peers_stop; rm -rf "$SEND_WORK"' EXIT

in="$SEND_WORK/input"
send_make_inputs "$in" || { echo "FAIL: cannot make the test input" >&2; exit 1; }
common=(--from "agent@$KEMAIL_PEER_DOMAIN" --to "$KEMAIL_PEER_USER@$KEMAIL_PEER_DOMAIN"
        --server "$KEMAIL_PEER_HOST" --port "$KEMAIL_PEER_SMTP_OPEN_PORT"
        --subject "$(cat "$in/subject.sjis")" --body "$in/body.sjis"
        --timeout-connect 60 --timeout-mail 60 --timeout-rcpt 60 --timeout-data 60
        --timeout-block 60 --timeout-end 60)

# maildir_settled: waits (bounded) until at least one message is there and
# the count has not changed for one second; prints the messages.
maildir_settled() {
  local last=-1 now deadline=$((SECONDS + 15))
  while [ "$SECONDS" -lt "$deadline" ]; do
    now=$(peers_maildir_count)
    [ "$now" -gt 0 ] && [ "$now" -eq "$last" ] && { peers_maildir_list; return 0; }
    last=$now
    sleep 1
  done
  return 1
}

# body_after_header FILE: the message body, after the first empty line.
body_after_header() {
  sed '1,/^$/d' "$1"
}

echo "# split send: --split --part-size 10, a 40,000-byte attachment"
peers_maildir_clear
del="$SEND_WORK/delete"
mkdir -p "$del" && cp "$in/note.txt" "$del/note.txt" && cp "$in/big.bin" "$SEND_WORK/big.ref"
send_mail split "${common[@]}" --split --part-size 10 --attach "$in/big.bin" --attach-delete "$del/note.txt"
peers_check "split: result 0" send_result_is split 0
peers_check "split: no work file left in /var/opt/QRZNvolta/tmp" send_left_no_work_files split
peers_check "split: the --attach-delete file is gone" test ! -e "$del/note.txt"
peers_check "split: the --attach file is still there, unchanged" cmp -s "$in/big.bin" "$SEND_WORK/big.ref"
piece_files=()
if pieces=$(maildir_settled); then
  mapfile -t piece_files <<<"$pieces"
  echo "    ${#piece_files[@]} messages delivered"
  send_py_checks split "$in" "$SEND_WORK/reassemble" "$SEND_WORK/reassembled.eml" "${piece_files[@]}" -- \
    "big.bin=$in/big.bin" "note.txt=$in/note.txt"
else
  peers_check "split: the pieces are delivered" false
fi

echo "# the same mail sent whole"
peers_maildir_clear
send_mail whole "${common[@]}" --attach "$in/big.bin" --attach "$in/note.txt"
peers_check "whole: result 0" send_result_is whole 0
peers_check "whole: no work file left" send_left_no_work_files whole
if mail=$(peers_wait_maildir 1); then
  send_py_checks whole "$in" "$mail" "big.bin=$in/big.bin" "note.txt=$in/note.txt"
  # Everything below the headers is the same composition; only the boundary
  # (made per message) may differ. The end-of-data mark always brings its own
  # line break, so each piece but the last ends in one more empty line, which
  # GMime keeps where the pieces join: n-1 empty lines, nothing else.
  boundary_free() { body_after_header "$1" | sed -E 's/[Bb]oundary[^ ]*|^--.*$/B/'; }
  same_body_but_joins() {
    diff <(boundary_free "$SEND_WORK/reassembled.eml") <(boundary_free "$mail") >"$SEND_WORK/body.diff"
    local joins other
    joins=$(grep -c '^< $' "$SEND_WORK/body.diff")
    other=$(grep -cvE '^[0-9]+d[0-9]+$|^< $' "$SEND_WORK/body.diff")
    [ "$joins" -eq $((${#piece_files[@]} - 1)) ] && [ "$other" -eq 0 ] && return 0
    echo "    $joins empty lines at joins, $other other differences:"
    head -n 20 "$SEND_WORK/body.diff" | sed 's/^/    /'
    return 1
  }
  peers_check "the reassembled body is the whole message's body plus one empty line per join (boundaries aside)" \
    same_body_but_joins
else
  peers_check "whole: the message is delivered" false
fi

peers_finish
