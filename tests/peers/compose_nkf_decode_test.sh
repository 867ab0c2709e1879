#!/bin/bash
# nkf decodes the subject and the text part of messages composed by kemail
# (ISO-2022-JP, also with the kept 8-bit half-width katakana), and iconv
# decodes the ISO-2022-JP text parts that hold no half-width katakana.
# Argument 1: the build directory (holds tests/peer_compose_message).
set -u
source "$(dirname "$0")/lib.sh"
build=${1:?usage: $0 BUILD_DIR}
peer="$build/tests/peer_compose_message"

[ -x /usr/bin/python3 ] || peers_skip_or_fail "Debian's /usr/bin/python3 is missing (apt-get install -y python3)"
command -v nkf >/dev/null || peers_skip_or_fail "nkf is missing (apt-get install -y nkf)"
command -v iconv >/dev/null || peers_skip_or_fail "iconv is missing (apt-get install -y libc-bin)"
[ -x "$peer" ] || { echo "FAIL: $peer is not built" >&2; exit 1; }

work=$(mktemp -d /tmp/kemail-compose-nkf.XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 "$(dirname "$0")/compose_check.py" nkf "$peer" "$work"
