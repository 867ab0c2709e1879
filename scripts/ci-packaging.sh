#!/bin/bash
# Builds the Debian packages (libkemail1, libkemail-dev, kemail-tools) from
# the tree, checks them with lintian, installs them with dpkg -i, sends a
# mail with the installed kemail-send to a loopback sink, builds the C
# example against the installed kemail.pc and runs it, then purges the
# packages again and checks that nothing is left behind. Root is needed
# (dpkg). Exits non-zero at the first failure.
# Build directory: $KEMAIL_PKG_BUILD_DIR (default build-pkg).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root_dir=$PWD
build_dir=${KEMAIL_PKG_BUILD_DIR:-build-pkg}
jobs=${KEMAIL_JOBS:-2}
packages=(libkemail1 libkemail-dev kemail-tools)

step() { printf '\n== %s\n' "$*"; }
fail() { echo "ci-packaging: $*" >&2; exit 1; }

[ "$(id -u)" -eq 0 ] || fail "run as root (dpkg -i)"
for p in "${packages[@]}"; do
  if dpkg-query -W -f='${db:Status-Abbrev}' "$p" 2>/dev/null | grep -q '^ii'; then
    fail "$p is installed already; purge it first"
  fi
done
# The fixed directories are created by the package; remember whether they
# were there before, so that the purge can be checked.
preexisting=no
[ -e /etc/opt/QRZNvolta ] || [ -e /var/opt/QRZNvolta ] && preexisting=yes

work=$(mktemp -d /tmp/kemail-ci-packaging.XXXXXX)
sink_pid=
installed=no
cleanup() {
  [ -n "$sink_pid" ] && kill "$sink_pid" 2>/dev/null || true
  if [ "$installed" = yes ]; then
    dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

step "build and package ($build_dir)"
cmake -S . -B "$build_dir" -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKEMAIL_TESTS=OFF -DKEMAIL_WERROR=ON >"$work/configure.log" 2>&1 \
  || { cat "$work/configure.log"; fail "configure failed"; }
cmake --build "$build_dir" -j "$jobs" >"$work/build.log" 2>&1 \
  || { tail -n 40 "$work/build.log"; fail "build failed"; }
rm -f "$build_dir"/*.deb
(cd "$build_dir" && cpack -G DEB) >"$work/cpack.log" 2>&1 \
  || { tail -n 40 "$work/cpack.log"; fail "cpack failed"; }
debs=()
for p in "${packages[@]}"; do
  deb=$(ls "$build_dir"/${p}_*.deb 2>/dev/null | head -n 1)
  [ -n "$deb" ] || fail "no package $p was built"
  debs+=("$deb")
  echo "built $deb"
done

step "lintian"
# No tag is expected; any tag fails the check.
lintian_out=$(lintian --tag-display-limit 0 "${debs[@]}" 2>&1 | grep -v 'running with root privileges' || true)
if [ -n "$lintian_out" ]; then
  echo "$lintian_out"
  fail "lintian reported tags"
fi
echo "lintian: no tags"

step "install"
dpkg -i "${debs[@]}"
installed=yes
for dir in /etc/opt/QRZNvolta /var/opt/QRZNvolta/tmp /var/opt/QRZNvolta/tmp2 /var/opt/QRZNvolta/log; do
  [ -d "$dir" ] || fail "$dir was not created"
  mode=$(stat -c %a "$dir")
  [ "$mode" = 700 ] || fail "$dir has mode $mode, not 700"
done
echo "fixed directories present with mode 700"
command -v kemail-send >/dev/null || fail "kemail-send is not on the PATH"
kemail-send --version
kemail-trace --version
MANWIDTH=80 man --warnings kemail-send 2>&1 >/dev/null | grep . && fail "man kemail-send warns"
MANWIDTH=80 man -w libkemail >/dev/null || fail "man libkemail not found"
pkg-config --exists kemail || fail "pkg-config does not find kemail"
[ -f /usr/share/bash-completion/completions/kemail-send ] || fail "no completion installed"

# start_sink CONNECTIONS: a loopback sink; sets sink_pid and port.
start_sink() {
  rm -f "$work/port" "$work/received"
  python3 "$root_dir/scripts/smtp-sink.py" --portfile "$work/port" --out "$work/received" \
    --connections "$1" --timeout 30 &
  sink_pid=$!
  for _ in $(seq 100); do [ -s "$work/port" ] && break; sleep 0.1; done
  [ -s "$work/port" ] || fail "the sink did not start"
  port=$(cat "$work/port")
}
wait_sink() {
  wait "$sink_pid" || fail "the sink failed"
  sink_pid=
}

step "send with the installed kemail-send"
start_sink 1
printf 'Sent by the installed kemail-send.\n' >"$work/body"
# The send runs in a private root so that its mail log and trace ring do not
# land in the machine's /var/opt/QRZNvolta.
"$root_dir/tests/support/private-root.sh" /usr/bin/kemail-send --from ci@example.com \
  --to ops@example.com --subject "ci packaging" --server 127.0.0.1 --port "$port" \
  --body "$work/body" --json >"$work/result.json"
wait_sink
cat "$work/result.json"
grep -q '"code":0' "$work/result.json" || fail "kemail-send did not report result 0"
grep -q 'Sent by the installed kemail-send.' "$work/received" || fail "the sink did not get the text"

step "build the example against the installed kemail.pc"
cc -std=c99 -Wall -Wextra -Werror /usr/share/doc/libkemail-dev/examples/send_mail.c \
  $(pkg-config --cflags --libs kemail) -o "$work/send_mail"
start_sink 1
"$root_dir/tests/support/private-root.sh" "$work/send_mail" 127.0.0.1 "$port" \
  ci@example.com ops@example.com | tee "$work/example.out"
wait_sink
grep -qx 'sent: result 0' "$work/example.out" || fail "the example did not send"
grep -q 'send_mail example of libkemail' "$work/received" || fail "the sink did not get the example's mail"

step "purge"
dpkg --purge "${packages[@]}"
installed=no
for f in /usr/bin/kemail-send /usr/include/kemail.h /usr/lib/x86_64-linux-gnu/libkemail.so.1; do
  [ ! -e "$f" ] || fail "$f is still there after the purge"
done
if [ "$preexisting" = no ]; then
  [ ! -e /etc/opt/QRZNvolta ] || fail "/etc/opt/QRZNvolta is still there after the purge"
  [ ! -e /var/opt/QRZNvolta ] || fail "/var/opt/QRZNvolta is still there after the purge"
fi
echo "ci-packaging: all steps passed"
