# shellcheck shell=bash
# Helpers for the send_*_test.sh scripts: one mail sent with kemail-send (the
# public API only) inside a private root, and what it left behind.
# Source it after lib.sh; needs $SEND_TOOL (the kemail-send program) and
# $SEND_WORK (a scratch directory of the calling test).

SEND_PRIVATE_ROOT="$KEMAIL_REPO_ROOT/tests/support/private-root.sh"
SEND_CHECK="$KEMAIL_REPO_ROOT/tests/peers/send_check.py"

# send_require_tools: kemail-send is built and Debian's Python is there.
send_require_tools() {
  [ -x "$SEND_TOOL" ] || { echo "FAIL: $SEND_TOOL is not built" >&2; exit 1; }
  [ -x /usr/bin/python3 ] || peers_skip_or_fail "Debian's /usr/bin/python3 is missing"
}

# send_mail NAME ARGS...: runs "kemail-send --json ARGS..." in a fresh private
# root, bounded to 120 s. Leaves in $SEND_WORK/NAME/: out (its JSON result),
# err (its messages), rc (its exit status) and tmp (what stayed in
# /var/opt/QRZNvolta/tmp afterwards).
send_mail() {
  local dir="$SEND_WORK/$1"
  shift
  rm -rf "$dir" && mkdir -p "$dir" || return 1
  # shellcheck disable=SC2016 # expanded by the inner shell
  timeout 120 "$SEND_PRIVATE_ROOT" bash -c '
    out=$1; shift
    "$@" >"$out/out" 2>"$out/err"
    echo $? >"$out/rc"
    ls -A /var/opt/QRZNvolta/tmp >"$out/tmp"' send-in-root "$dir" "$SEND_TOOL" --json "$@"
  [ -f "$dir/rc" ] || echo "timed out or the private root failed" >"$dir/rc"
  sed 's/^/    | /' "$dir/out" "$dir/err"
}

# send_json_field NAME FIELD: one field of the send's JSON result.
send_json_field() {
  /usr/bin/python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))[sys.argv[2]])' \
    "$SEND_WORK/$1/out" "$2" 2>/dev/null
}

# send_result_is NAME CODE: the send's result was CODE, it exited with the
# status its JSON names (0 for a code >= 0 unless the relay skipped the
# authentication, else a sysexits code), said nothing on stderr when it
# succeeded, and no sanitizer reported on stderr in any case.
send_result_is() {
  local dir="$SEND_WORK/$1" rc code exit_status
  rc=$(cat "$dir/rc")
  code=$(send_json_field "$1" code) || return 1
  exit_status=$(send_json_field "$1" exit) || return 1
  [ "$code" = "$2" ] && [ "$rc" = "$exit_status" ] || return 1
  if [ "$2" -eq 0 ]; then
    [ "$rc" = 0 ] && [ ! -s "$dir/err" ]
  else
    [ "$2" -gt 0 ] || [ "$rc" != 0 ] || return 1
    ! grep -qE 'Sanitizer|runtime error' "$dir/err"
  fi
}

# send_detail_matches NAME REGEX: the detail of the result matches REGEX
# (grep -E, anchored at its start).
send_detail_matches() {
  send_json_field "$1" detail | grep -qE "^$2"
}

# send_left_no_work_files NAME: /var/opt/QRZNvolta/tmp was empty afterwards.
send_left_no_work_files() {
  [ -f "$SEND_WORK/$1/tmp" ] && [ ! -s "$SEND_WORK/$1/tmp" ] && return 0
  echo "    left in tmp: $(cat "$SEND_WORK/$1/tmp" 2>/dev/null)"
  return 1
}

# send_make_inputs DIR: the Shift_JIS subject and text and the attachments
# (see send_check.py make).
send_make_inputs() {
  mkdir -p "$1" && /usr/bin/python3 "$SEND_CHECK" make "$1"
}

# send_begin NAME: a work directory /tmp/kemail-send-NAME.*, the peers
# started (stopped, and the directory removed, when the script exits), the
# test input made in $in and the peers' password in $SEND_WORK/password.
send_begin() {
  SEND_WORK=$(mktemp -d "/tmp/kemail-send-$1.XXXXXX") || exit 1
  peers_start
  trap 'peers_stop; rm -rf "$SEND_WORK"' EXIT
  in="$SEND_WORK/input"
  send_make_inputs "$in" || { echo "FAIL: cannot make the test input" >&2; exit 1; }
  printf '%s\n' "$KEMAIL_PEER_PASSWORD" >"$SEND_WORK/password"
}

# send_py_checks ARGS...: runs send_check.py ARGS..., prints its lines and
# counts each "ok"/"FAIL" line as one check (see lib.sh's peers_check).
send_py_checks() {
  local output rc
  output=$(timeout 120 /usr/bin/python3 "$SEND_CHECK" "$@" 2>&1)
  rc=$?
  echo "$output"
  PEERS_PASSED=$((PEERS_PASSED + $(grep -c '^ok ' <<<"$output")))
  PEERS_FAILED=$((PEERS_FAILED + $(grep -c '^FAIL ' <<<"$output")))
  if [ "$rc" -ne 0 ] && ! grep -q '^FAIL ' <<<"$output"; then
    echo "FAIL send_check.py $1 ended with status $rc"
    PEERS_FAILED=$((PEERS_FAILED + 1))
  fi
}

# send_eventually COMMAND...: COMMAND succeeds within 3 s (servers write their
# logs a moment after they answer).
send_eventually() {
  local deadline=$((SECONDS + 3))
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}

# send_count_is N COMMAND...: COMMAND prints the number N.
send_count_is() {
  [ "$("${@:2}")" -eq "$1" ]
}
