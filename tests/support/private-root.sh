#!/bin/bash
# Runs a command in a private mount namespace in which fresh temporary
# directories stand over /etc/opt and /var/opt, so the library under test reads
# and writes its fixed paths without touching the machine's real ones.
# The command finds the temporary root in $KEMAIL_TEST_ROOT. With
# $KEMAIL_TEST_PRELOAD set, that library is preloaded into the command.
set -u
if [ -z "${KEMAIL_IN_PRIVATE_ROOT:-}" ]; then
  exec unshare --mount --propagation private env KEMAIL_IN_PRIVATE_ROOT=1 "$0" "$@"
fi
root=$(mktemp -d /tmp/kemail-root.XXXXXX) || exit 1
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/etc/QRZNvolta" "$root/var/QRZNvolta/tmp" "$root/var/QRZNvolta/tmp2" \
         "$root/var/QRZNvolta/log" || exit 1
mount --bind "$root/etc" /etc/opt || exit 1
mount --bind "$root/var" /var/opt || exit 1
export KEMAIL_TEST_ROOT="$root"
# The test clock is preloaded into the test program only, not into the tools
# above. It comes before a sanitizer's runtime, which must be told to allow it.
if [ -n "${KEMAIL_TEST_PRELOAD:-}" ]; then
  export LD_PRELOAD="$KEMAIL_TEST_PRELOAD${LD_PRELOAD:+:$LD_PRELOAD}"
  export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0"
fi
"$@"
