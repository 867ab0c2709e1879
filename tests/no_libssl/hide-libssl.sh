#!/bin/bash
# Runs a command in a private mount namespace in which every libssl.so.3 the
# dynamic loader could find is an empty file, as on a host without OpenSSL.
set -u
if [ -z "${KEMAIL_LIBSSL_HIDDEN:-}" ]; then
  exec unshare --mount --propagation private env KEMAIL_LIBSSL_HIDDEN=1 "$0" "$@"
fi
hidden=0
for dir in $(ldconfig -p | awk '/libssl\.so\.3 /{print $NF}' | xargs -r -n1 dirname | sort -u) \
           /lib /usr/lib /lib64 /usr/lib64 /usr/local/lib; do
  for file in "$dir"/libssl.so.3*; do
    [ -e "$file" ] || continue
    mount --bind /dev/null "$(readlink -f "$file")" || exit 1
    hidden=$((hidden + 1))
  done
done
[ "$hidden" -gt 0 ] || { echo "hide-libssl: no libssl.so.3 found to hide" >&2; exit 1; }
exec "$@"
