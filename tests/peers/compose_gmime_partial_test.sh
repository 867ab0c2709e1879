#!/bin/bash
# GMime reassembles the message/partial pieces of a split send: the inner
# message is composed for pieces, cut with SMTP_getSendData, every piece is
# sent with SMTP_sendData_Partial to a recording TCP server, and GMime's
# g_mime_message_partial_reconstruct_message() must give back the composed
# message (GMime writes LF line ends), whose attachments Python then decodes
# byte-identical.
# Argument 1: the build directory (holds tests/peer_compose_message).
set -u
source "$(dirname "$0")/lib.sh"
build=${1:?usage: $0 BUILD_DIR}
peer="$build/tests/peer_compose_message"
here=$(cd "$(dirname "$0")" && pwd)

[ -x /usr/bin/python3 ] || peers_skip_or_fail "Debian's /usr/bin/python3 is missing (apt-get install -y python3)"
command -v pkg-config >/dev/null || peers_skip_or_fail "pkg-config is missing (apt-get install -y pkg-config)"
pkg-config --exists gmime-3.0 || peers_skip_or_fail "GMime 3 is missing (apt-get install -y libgmime-3.0-dev)"
command -v cc >/dev/null || peers_skip_or_fail "no C compiler (apt-get install -y gcc)"
[ -x "$peer" ] || { echo "FAIL: $peer is not built" >&2; exit 1; }

work=$(mktemp -d /tmp/kemail-compose-gmime.XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
# shellcheck disable=SC2046 # pkg-config prints several words on purpose
cc -O1 -Wall -Wextra -o "$work/reassemble" "$here/compose_gmime_reassemble.c" \
   $(pkg-config --cflags --libs gmime-3.0) || { echo "FAIL: cannot build the GMime program" >&2; exit 1; }
/usr/bin/python3 "$here/compose_check.py" gmime "$peer" "$work/reassemble" "$work"
