#!/bin/bash
# PIPELINING=1 against Postfix, which announces PIPELINING: the whole and the
# split sends of the split test, made with the setting in kemail.ini, must
# deliver the same mails. Under strace, the transaction's opening commands
# are seen to leave in one write (MAIL FROM, RCPT TO and DATA together; a
# piece's end-of-data mark and RSET with the next piece's MAIL FROM), and the
# replies Postfix sends to such a group together are taken in one read.
# Argument 1: the build directory (holds tools/kemail-send).
set -u
build=${1:?usage: $0 BUILD_DIR}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/kemail-pipelining.XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/build/tools" "$work/writes" || exit 1
tool=$(cd "$build/tools" && pwd)/kemail-send
[ -x "$tool" ] || { echo "FAIL: $tool is missing" >&2; exit 1; }

# The split test runs "BUILD/tools/kemail-send" inside its private root; this
# stand-in writes the setting there first and records the tool's socket
# writes when strace is at hand.
cat >"$work/build/tools/kemail-send" <<WRAPPER
#!/bin/bash
printf '[KEMAIL]\nPIPELINING=1\n' >/etc/opt/QRZNvolta/kemail.ini || exit 70
if command -v strace >/dev/null; then
  exec strace -f -qq -s 512 -e trace=sendto,sendmsg,write,recvfrom -e signal=none \
    -o "$work/writes/\$\$.strace" "$tool" "\$@"
fi
exec "$tool" "\$@"
WRAPPER
chmod +x "$work/build/tools/kemail-send" || exit 1

"$here/send_split_test.sh" "$work/build"
status=$?
[ "$status" -eq 0 ] || exit "$status"

if ! command -v strace >/dev/null; then
  echo "ok - (strace is missing: the grouping of the commands was not looked at)"
  exit 0
fi
fails=0
check() {
  local what=$1
  shift
  if "$@"; then echo "ok - $what"; else echo "not ok - $what"; fails=$((fails + 1)); fi
}
grouped() {
  grep -h 'sendto(' "$work"/writes/*.strace | grep -q "$1"
}
check "MAIL FROM, RCPT TO and DATA leave in one write" \
  grouped '"MAIL FROM:<[^>]*>\\r\\nRCPT TO:<[^>]*>\\r\\nDATA\\r\\n"'
check "a piece's end of data and RSET leave with the next piece's MAIL FROM, RCPT TO and DATA" \
  grouped '"\\r\\n\.\\r\\nRSET\\r\\nMAIL FROM:<[^>]*>\\r\\nRCPT TO:<[^>]*>\\r\\nDATA\\r\\n"'
check "no MAIL FROM leaves on its own" \
  bash -c "! grep -h 'sendto(' $work/writes/*.strace | grep -q '\"MAIL FROM:<[^>]*>\\\\r\\\\n\", [0-9]*,'"
check "the replies to MAIL FROM, RCPT TO and DATA are taken in one read" \
  bash -c "grep -h 'recvfrom(' $work/writes/*.strace | grep -v MSG_PEEK \
    | grep -q '\"250 [^\"]*\\\\r\\\\n250 [^\"]*\\\\r\\\\n354 '"
[ "$fails" -eq 0 ]
