#!/bin/bash
# Runs a command where the library's fixed directories (/etc/opt/QRZNvolta,
# /var/opt/QRZNvolta and its tmp, tmp2 and log) are fresh and private to it:
#
#   bench/in-root.sh [--tmpfs | --ext4] COMMAND...
#
# By default they are the tests' private root in /tmp; with --tmpfs on tmpfs;
# with --ext4 on a fresh ext4 made by mkfs.ext4's defaults (with a journal,
# as Debian's installer makes it) in a loop-mounted image. Root is needed.
set -euo pipefail
files_on=tmp
case ${1:-} in
    --tmpfs) files_on=tmpfs; shift ;;
    --ext4) files_on=ext4; shift ;;
esac
[ $# -gt 0 ] || { echo "usage: in-root.sh [--tmpfs | --ext4] COMMAND..." >&2; exit 2; }
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
if [ "$files_on" = tmp ]; then
    exec "$here/../tests/support/private-root.sh" "$@"
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if [ "$files_on" = ext4 ]; then
    # Sparse: only what the command writes takes room in /tmp. The loop
    # device goes with the mount when the namespace ends.
    truncate -s 2G "$work/ext4.img"
    mkfs.ext4 -q -F "$work/ext4.img"
fi
unshare --mount --propagation private bash -c '
    set -e
    if [ "$1" = ext4 ]; then
        mkdir "$2/ext4"
        mount -o loop "$2/ext4.img" "$2/ext4"
        mkdir "$2/ext4/etc" "$2/ext4/var"
        mount --bind "$2/ext4/etc" /etc/opt
        mount --bind "$2/ext4/var" /var/opt
    else
        mount -t tmpfs -o mode=0755 kemail-bench /etc/opt
        mount -t tmpfs -o mode=0755 kemail-bench /var/opt
    fi
    mkdir -p /etc/opt/QRZNvolta /var/opt/QRZNvolta/tmp /var/opt/QRZNvolta/tmp2 \
             /var/opt/QRZNvolta/log
    shift 2
    exec "$@"' in-root "$files_on" "$work" "$@"
