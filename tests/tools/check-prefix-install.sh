#!/bin/bash
# A plain `cmake --install BUILD --prefix P` puts everything under P and
# nothing elsewhere (the library's fixed directories are the packages'
# business), its kemail.pc is right for P, and the installed programs find
# the library through their $ORIGIN run path.
set -u
build=${1:?usage: check-prefix-install.sh BUILD-DIR SOURCE-DIR}
source=${2:?usage: check-prefix-install.sh BUILD-DIR SOURCE-DIR}
prefix=$(mktemp -d /tmp/kemail-prefix.XXXXXX) || exit 1
trap 'rm -rf "$prefix"' EXIT
status=0
fail() { echo "prefix install: $*"; status=1; }

cmake --install "$build" --prefix "$prefix" >"$prefix.log" 2>&1 || { cat "$prefix.log"; rm -f "$prefix.log"; exit 1; }
rm -f "$prefix.log"
outside=$(grep -v "^$prefix/" "$build/install_manifest.txt")
[ -z "$outside" ] || fail "installed outside the prefix: $outside"
for f in bin/kemail-send bin/kemail-trace include/kemail.h share/man/man1/kemail-send.1.gz \
         share/man/man3/libkemail.3.gz share/bash-completion/completions/kemail-send; do
  [ -e "$prefix/$f" ] || fail "$f is missing"
done
pc=$(find "$prefix" -name kemail.pc | head -n 1)
[ -n "$pc" ] || fail "kemail.pc is missing"
libdir=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --variable=libdir kemail)
[ -e "$libdir/libkemail.so.1" ] || fail "kemail.pc's libdir $libdir holds no libkemail.so.1"
includedir=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --variable=includedir kemail)
[ -e "$includedir/kemail.h" ] || fail "kemail.pc's includedir $includedir holds no kemail.h"
# The installed programs run without LD_LIBRARY_PATH (exit 127 otherwise).
"$prefix/bin/kemail-send" --version >/dev/null || fail "installed kemail-send does not run ($?)"
"$prefix/bin/kemail-trace" --version >/dev/null || fail "installed kemail-trace does not run ($?)"
# The example builds against the installed kemail.pc and runs.
cc -std=c99 -Wall -Wextra -Werror "$source/examples/send_mail.c" \
  $(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs kemail) -o "$prefix/send_mail" \
  || fail "the example does not build against kemail.pc"
LD_LIBRARY_PATH=$libdir "$prefix/send_mail" >/dev/null 2>&1
[ $? -eq 64 ] || fail "the example does not run (usage exit 64 expected)"
[ $status -eq 0 ] && echo "prefix install under $prefix is complete and self-contained"
exit $status
