#!/bin/bash
# Installs, as root, the Debian packages that building and testing kemail
# needs and that are missing. Idempotent: with everything present it only
# checks and exits 0 without a word. Package lists are refreshed at most once,
# and only when a missing package is unknown to them (or a download fails).
set -euo pipefail

PACKAGES=(
  # build and analysis tools
  cmake g++ clang clang-format libclang-rt-14-dev make libgtest-dev libbenchmark-dev pkg-config valgrind strace
  # OpenSSL's headers (the public header must compile beside <openssl/md5.h>)
  libssl-dev
  # packaging and manuals: Debian packages, lintian, man, bash-completion
  dpkg-dev lintian man-db groff-base bash-completion
  # other mail senders run beside kemail-send for comparison
  msmtp swaks
  # real peers: Postfix with a Dovecot SASL server, Dovecot POP3, aiosmtpd
  postfix dovecot-core dovecot-pop3d python3 python3-aiosmtpd
  # independent readers of what the library sends
  nkf libgmime-3.0-dev gir1.2-gmime-3.0
  # localedef and the EUC-JP charmap; unshare for the private test root
  locales util-linux
  # TLS: OpenSSL headers (the library loads libssl.so.3 at run time), the
  # openssl command for test certificates
  libssl-dev openssl
)

fail() { echo "install-deps: $*" >&2; exit 1; }

is_installed() {
  [ "$(dpkg-query -W -f='${db:Status-Abbrev}' "$1" 2>/dev/null)" = "ii " ]
}

missing=()
for p in "${PACKAGES[@]}"; do
  is_installed "$p" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
[ "$(id -u)" -eq 0 ] || fail "missing ${missing[*]}; run as root to install them"

log=$(mktemp /tmp/kemail-install-deps.XXXXXX.log)
updated=no

refresh_lists() {
  [ "$updated" = yes ] && return 0
  updated=yes
  apt-get update >>"$log" 2>&1 || { tail -n 20 "$log" >&2; fail "apt-get update failed (log: $log)"; }
}

# A package without an install candidate means the lists are absent or stale.
for p in "${missing[@]}"; do
  candidate=$(apt-cache policy "$p" 2>/dev/null | awk '/Candidate:/ {print $2}')
  if [ -z "$candidate" ] || [ "$candidate" = "(none)" ]; then
    refresh_lists
    break
  fi
done

# Postfix must not ask questions nor write a configuration of its own; no
# package may start a stock daemon on ports 25 or 110 while installing.
echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
made_policy=no
if [ ! -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d
  chmod 755 /usr/sbin/policy-rc.d
  made_policy=yes
fi
trap 'if [ "$made_policy" = yes ]; then rm -f /usr/sbin/policy-rc.d; fi' EXIT

install_missing() {
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
    -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold \
    "${missing[@]}" </dev/null >>"$log" 2>&1
}

if ! install_missing; then
  # A download may fail on stale lists: refresh once and try again.
  if [ "$updated" = no ]; then
    refresh_lists
    install_missing || { tail -n 30 "$log" >&2; fail "apt-get install ${missing[*]} failed (log: $log)"; }
  else
    tail -n 30 "$log" >&2
    fail "apt-get install ${missing[*]} failed (log: $log)"
  fi
fi

for p in "${missing[@]}"; do
  is_installed "$p" || fail "$p is still not installed after apt-get (log: $log)"
done
rm -f "$log"
