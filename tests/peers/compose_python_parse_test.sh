#!/bin/bash
# Python's email package (Debian's /usr/bin/python3, policy=default) reads
# messages composed by kemail from Shift_JIS made with Python's codecs: the
# RFC 2047 ISO-2022-JP subject and the text part decode to the original
# text, every attachment decodes byte-identical, the Content-Disposition
# forms and the kept half-width katakana behaviour hold.
# Argument 1: the build directory (holds tests/peer_compose_message).
set -u
source "$(dirname "$0")/lib.sh"
build=${1:?usage: $0 BUILD_DIR}
peer="$build/tests/peer_compose_message"

[ -x /usr/bin/python3 ] || peers_skip_or_fail "Debian's /usr/bin/python3 is missing (apt-get install -y python3)"
[ -x "$peer" ] || { echo "FAIL: $peer is not built" >&2; exit 1; }

work=$(mktemp -d /tmp/kemail-compose-python.XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 "$(dirname "$0")/compose_check.py" python "$peer" "$work"
