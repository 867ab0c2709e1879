#!/bin/bash
# The kemail demo. On Debian 12, as root, from the repository root:  bash scripts/demo.sh
# Installs what is missing, builds the library and installs it (with kemail-send
# and kemail-trace) into out/demo/prefix, starts Postfix on loopback, and sends
# a Japanese mail (Shift_JIS subject and text, a 200 KB attachment) with the
# installed kemail-send: once whole, once as message/partial pieces, once over
# STARTTLS with AUTH PLAIN (the test CA's certificate verified). Shows what
# arrived, decoded (Python's email package; GMime joins the pieces), the
# attachment's sha256 beside the original's, the library's mail log and trace.
# The sends run in a private mount namespace (tests/support/private-root.sh), so
# the machine's /etc/opt and /var/opt stay untouched. Everything is kept in
# out/demo/. Exits non-zero when a send failed or what arrived differs.
# shellcheck disable=SC2317 # functions called in the private root look unreachable
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build_dir=${KEMAIL_BUILD_DIR:-build}
out=$PWD/out/demo
prefix=$out/prefix
# A Postfix of its own, with state and ports apart from the tests' servers.
export KEMAIL_PEERS_STATE=${KEMAIL_DEMO_PEERS_STATE:-/tmp/kemail-demo-peers}
export KEMAIL_PEER_SMTP_OPEN_PORT=26025 KEMAIL_PEER_SMTP_AUTH_PORT=26587 KEMAIL_PEER_SMTP_POPAUTH_PORT=26026 \
  KEMAIL_PEER_SMTP_STARTTLS_PORT=26588 KEMAIL_PEER_SMTPS_PORT=26465
source scripts/peers/env.sh
export DEMO_REPO=$PWD DEMO_OUT=$out DEMO_BIN=$prefix/bin DEMO_BUILD=$(realpath -m "$build_dir") PYTHONIOENCODING=utf-8

say() { printf '\n== %s\n' "$*"; }
die() { echo "demo: $*" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || die "run me as root: I install packages and start Postfix"

say "packages: scripts/install-deps.sh installs what is missing"
bash scripts/install-deps.sh
echo "all present"

say "building libkemail.so, kemail-send and kemail-trace in $build_dir/"
rm -rf "$out" && mkdir -p "$out/input"
# shellcheck disable=SC2016 # $ORIGIN is for the dynamic linker: the installed tools find ../lib
{ cmake -S . -B "$build_dir" -DKEMAIL_WERROR=ON &&
  cmake --build "$build_dir" -j 2 --target kemail kemail-send kemail-trace; } >"$out/build.log" 2>&1 ||
  { tail -n 40 "$out/build.log"; die "build failed (log: $out/build.log)"; }
echo "built (compiler output in $out/build.log)"

say "installing: cmake --install $build_dir --prefix $prefix"
# A prefix install makes none of /etc/opt/QRZNvolta and /var/opt/QRZNvolta/*
# (the component system-dirs does, below); in a private root all the same.
tests/support/private-root.sh cmake --install "$build_dir" --prefix "$prefix" >"$out/install.log" 2>&1 ||
  { cat "$out/install.log"; die "install failed"; }
(cd "$prefix" && find . ! -type d | sort | sed 's|^\./|  |')
echo "kemail-send uses $(ldd "$DEMO_BIN/kemail-send" | awk '/libkemail/ {print $3}')"

say "starting Postfix: open listener on $KEMAIL_PEER_HOST:$KEMAIL_PEER_SMTP_OPEN_PORT, state in $KEMAIL_PEERS_STATE"
exec 9>"$KEMAIL_PEERS_STATE.lock"
flock -w 300 9 || die "another demo keeps $KEMAIL_PEERS_STATE.lock"
stop_postfix() { scripts/peers/postfix.sh stop 9>&- || true; }
stop_postfix
rm -rf "$KEMAIL_PEERS_STATE"
trap 'stop_postfix; echo "Postfix stopped"' EXIT
scripts/peers/postfix.sh start 9>&- || die "Postfix did not start (logs: $KEMAIL_PEER_LOG_DIR)"
echo "Postfix answers; it delivers every recipient into $KEMAIL_PEER_MAILDIR"

say "the mail: subject and text written in UTF-8, made Shift_JIS with iconv; a 200 KB attachment"
in=$out/input
printf '%s' "kemail デモ：ディスク使用率の警告 host1 95%" >"$in/subject.txt"
cat >"$in/body.txt" <<'TEXT'
運用担当者各位

これは kemail のデモで送ったメールです。
件名と本文は Shift_JIS で渡し、ISO-2022-JP で届きます。
ホスト host1 のディスク使用率が９５％を超えました。
漢字、ひらがな、カタカナと ASCII text 123 が混在しています。
添付ファイル report.bin（約 200 KB のバイナリ）もご確認ください。

以上、よろしくお願いいたします。
TEXT
iconv -f UTF-8 -t SHIFT_JIS "$in/subject.txt" >"$in/subject.sjis"
iconv -f UTF-8 -t SHIFT_JIS "$in/body.txt" >"$in/body.sjis"
head -c 204800 /dev/urandom >"$in/report.bin"
echo "Subject:    $(cat "$in/subject.txt")"
echo "            $(wc -c <"$in/subject.sjis") bytes of Shift_JIS: $(od -An -tx1 -N 16 "$in/subject.sjis") ..."
echo "Text:       $(wc -l <"$in/body.txt") lines, $(wc -c <"$in/body.sjis") bytes of Shift_JIS (input/body.txt, body.sjis)"
echo "Attachment: report.bin, $(wc -c <"$in/report.bin") random bytes, sha256 $(sha256sum "$in/report.bin" | cut -d' ' -f1)"
# shellcheck disable=SC2046 # pkg-config prints several words on purpose
cc -O1 -o "$out/gmime-reassemble" tests/peers/compose_gmime_reassemble.c $(pkg-config --cflags --libs gmime-3.0) ||
  die "cannot compile tests/peers/compose_gmime_reassemble.c with GMime"

# The functions below run in the private root (bash -c, after export -f).
# shellcheck disable=SC2016 # the printed command names $(cat ...) literally
# send KIND [OPTION...]: sends the mail with the installed kemail-send through
# Postfix, waits until it arrived and keeps it in out/demo/KIND/.
send() {
  local kind=$1 dir=$DEMO_OUT/$1 pid rc=0 count want=1 i a prev=
  shift
  mkdir -p "$dir" && find "$KEMAIL_PEER_MAILDIR"/{new,cur} -type f -delete
  local args=(--from "agent@$KEMAIL_PEER_DOMAIN" --to "$KEMAIL_PEER_USER@$KEMAIL_PEER_DOMAIN"
              --server "$KEMAIL_PEER_HOST" --port "${DEMO_PORT:-$KEMAIL_PEER_SMTP_OPEN_PORT}"
              --subject "$(cat "$DEMO_OUT/input/subject.sjis")" --body "$DEMO_OUT/input/body.sjis"
              --attach "$DEMO_OUT/input/report.bin" "$@")
  printf '$ kemail-send'
  for a in "${args[@]}"; do   # the subject's bytes are named, not printed
    [ "$prev" = --subject ] && a='"$(cat input/subject.sjis)"'
    printf ' %s' "${a#"$DEMO_OUT"/}"
    prev=$a
  done
  echo
  # The library reads the text as Shift_JIS unless the locale is an EUC-JP one.
  LC_ALL=C "$DEMO_BIN/kemail-send" "${args[@]}" >"$dir/kemail-send.out" 2>&1 &
  pid=$!
  wait "$pid" || rc=$?
  echo "$pid" >"$dir/pid"
  sed 's/^/  /' "$dir/kemail-send.out"
  [ "$rc" -eq 0 ] || { echo "  the send FAILED (exit status $rc)"; return 1; }
  for ((i = 0; i < 300; i++)); do   # Postfix delivers a moment after its 250
    count=$(find "$KEMAIL_PEER_MAILDIR"/{new,cur} -type f | wc -l)
    [ "$kind" = split ] && [ "$count" -gt 0 ] &&   # every piece names the total
      want=$(find "$KEMAIL_PEER_MAILDIR"/{new,cur} -type f -exec grep -ho 'total=[0-9]*' {} + | head -n 1 | cut -d= -f2)
    want=${want:-1}
    [ "$count" -ge "$want" ] && break
    sleep 0.1
  done
  echo "  Postfix delivered $count message(s) into its Maildir"
  find "$KEMAIL_PEER_MAILDIR"/{new,cur} -type f | while read -r f; do
    if [ "$kind" != split ]; then cp "$f" "$dir/message.eml"
    else cp "$f" "$dir/piece-$(printf %02d "$(grep -m1 -o 'number=[0-9]*' "$f" | cut -d= -f2)").eml"; fi
  done
  [ "$count" -ge "$want" ]
}

# mail_log_and_trace KIND: the library's mail log and trace of that send.
mail_log_and_trace() {
  local dir=$DEMO_OUT/$1 pid log trc
  pid=$(cat "$dir/pid")
  log=/var/opt/QRZNvolta/log/kesmtp$pid.log
  trc=$(find /var/opt/QRZNvolta/tmp2 -name "acert$pid-*.trc")
  if [ ! -f "$log" ] || [ ! -f "$trc" ]; then echo "no mail log or trace of process $pid"; return 1; fi
  cp "$log" "$dir/kesmtp.log" && cp "$trc" "$dir/acert.trc"
  say "mail log of the $1 send: $log (S: sent, R: received; Shift_JIS shown as UTF-8)"
  # The subject is logged as given, in Shift_JIS.
  iconv -f CP932 -t UTF-8 -c "$log" | sed 's/\r$//' >"$dir/kesmtp.utf8.log"
  if [ "$1" != split ]; then cat "$dir/kesmtp.utf8.log"; else
    head -n 24 "$dir/kesmtp.utf8.log"
    echo "... $(wc -l <"$log") lines in all, $(grep -c 'queued as' "$log") pieces queued; the last lines:"
    tail -n 6 "$dir/kesmtp.utf8.log"
  fi
  "$DEMO_BIN/kemail-trace" "$trc" >"$dir/trace.txt"
  say "trace of the $1 send: kemail-trace $trc (first 40 of $(wc -l <"$dir/trace.txt") records, cut at 120 columns)"
  head -n 40 "$dir/trace.txt" | cut -c 1-120
  echo "... (all of it in $dir/trace.txt)"
}

show() { /usr/bin/python3 "$DEMO_REPO/scripts/demo_show.py" "$@"; }

# Everything that uses /etc/opt/QRZNvolta and /var/opt/QRZNvolta: one private root.
in_private_root() {
  local status=0
  echo "private root: $KEMAIL_TEST_ROOT stands over /etc/opt and /var/opt"
  # The library's directories as a package makes them: 0700, the agent's user.
  cmake --install "$DEMO_BUILD" --component system-dirs | sed 's/^/  /' || return 1
  # A trace ring that holds a whole send, at the normal level.
  printf '[ACERT]\nTRACESIZE=1024\nTRACELEVEL=1\nTRACENUM=5\n' >/etc/opt/QRZNvolta/trc_conf
  echo "/etc/opt/QRZNvolta/trc_conf: $(tr '\n' ' ' </etc/opt/QRZNvolta/trc_conf)"

  say "sending it whole"
  send whole || status=1
  say "what arrived (whole): out/demo/whole/message.eml, read by Python's email package"
  [ -f "$DEMO_OUT/whole/message.eml" ] && { show mail "$DEMO_OUT/whole/message.eml" "$DEMO_OUT/input" "$DEMO_OUT/whole" || status=1; }

  say "sending it split: message/partial pieces of 10 KB"
  send split --split --part-size 10 || status=1
  say "what arrived (split): the pieces; GMime joins them into out/demo/split/reassembled.eml"
  if compgen -G "$DEMO_OUT/split/piece-*.eml" >/dev/null; then
    show pieces "$DEMO_OUT"/split/piece-*.eml
    "$DEMO_OUT/gmime-reassemble" "$DEMO_OUT/split/reassembled.eml" "$DEMO_OUT"/split/piece-*.eml >/dev/null &&
      show mail "$DEMO_OUT/split/reassembled.eml" "$DEMO_OUT/input" "$DEMO_OUT/split" || status=1
  else
    echo "  nothing arrived"
  fi

  mail_log_and_trace whole || status=1
  mail_log_and_trace split || status=1

  say "sending it over STARTTLS with AUTH PLAIN (port $KEMAIL_PEER_SMTP_STARTTLS_PORT: AUTH only inside TLS)"
  (umask 077 && printf '%s\n' "$KEMAIL_PEER_PASSWORD" >"$DEMO_OUT/tls-password")
  DEMO_PORT=$KEMAIL_PEER_SMTP_STARTTLS_PORT send tls --tls starttls --tls-ca "$KEMAIL_PEER_TLS_DIR/ca.pem" \
    --tls-server-name "$KEMAIL_PEER_TLS_NAME" --auth-mechanisms plain --user "$KEMAIL_PEER_USER" \
    --password-file "$DEMO_OUT/tls-password" || status=1
  rm -f "$DEMO_OUT/tls-password"
  if [ -f "$DEMO_OUT/tls/message.eml" ]; then
    say "what arrived (STARTTLS): Postfix's Received header names the TLS session"
    sed -n '/^Received:/,/^[^ \t]/p' "$DEMO_OUT/tls/message.eml" | sed '$d' | sed 's/^/  /'
    show mail "$DEMO_OUT/tls/message.eml" "$DEMO_OUT/input" "$DEMO_OUT/tls" >/dev/null || status=1
    grep -q 'using TLSv1' "$DEMO_OUT/tls/message.eml" || { echo "  no TLS in the Received header"; status=1; }
  fi
  mail_log_and_trace tls || status=1
  return "$status"
}
export -f say send mail_log_and_trace show in_private_root

if tests/support/private-root.sh bash -c in_private_root; then status=0; else status=1; fi
cp "$KEMAIL_PEER_LOG_DIR/postfix.log" "$out/postfix.log"
say "done: $([ $status -eq 0 ] && echo "all three sends delivered (the third over STARTTLS); subject, text and attachment arrived intact" || echo FAILED)"
echo "kept in $out/: input/, whole/, split/, tls/ (what arrived, kemail-send.out, kesmtp.log, acert.trc, trace.txt), postfix.log"
exit $status
