#!/bin/bash
# Every manual page renders with man without a single warning, and names
# what it must.
set -u
dir=${1:?usage: check-manuals.sh MAN-DIR}
status=0
for page in "$dir"/*.[1-8]; do
  warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
  if [ -n "$warnings" ]; then
    echo "$page: warnings:"; echo "$warnings"; status=1
  fi
  text=$(MANWIDTH=80 man -l "$page" 2>/dev/null)
  if [ -z "$text" ]; then echo "$page: renders empty"; status=1; fi
done
expect() {  # PAGE TEXT
  if ! MANWIDTH=200 man -l "$dir/$1" 2>/dev/null | grep -qF -- "$2"; then
    echo "$1: does not mention: $2"; status=1
  fi
}
for code in KEMAIL_OK KEMAIL_W_NO_AUTH KEMAIL_E_REFUSED KEMAIL_E_UNREACHABLE KEMAIL_E_NO_AUTH; do
  expect libkemail.3 "$code"
done
for key in TRACESIZE TRACELEVEL TRACENUM LOGSIZE LOGNUM; do expect trc_conf.5 "$key"; done
expect kemail.ini.5 CONTENT_DISPOSITION
for option in --require-auth --json --verbose --version; do expect kemail-send.1 "$option"; done
for option in --failures --grep --since --tail --summary --full --json; do expect kemail-trace.1 "$option"; done
expect kemail-trace-codes.7 ACERTFFFF
[ $status -eq 0 ] && echo "all manual pages render cleanly"
exit $status
