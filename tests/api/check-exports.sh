#!/bin/bash
# Compares the dynamic symbols the library defines with the list of names it
# is meant to export, and checks that the public header declares each one.
set -u
lib=$1 list=$2 header=$3
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v -E '^(_init|_fini|_edata|_end|__bss_start|__odr_asan\..*)$' | sort -u)
expected=$(grep -v -E '^\s*(#|$)' "$list" | sort -u)
status=0
if [ "$actual" != "$expected" ]; then
  echo "exported symbols differ from $list (< exported, > expected):"
  diff <(echo "$actual") <(echo "$expected")
  status=1
fi
for name in $expected; do
  grep -q -E "\\b$name\\b" "$header" || { echo "not declared in kemail.h: $name"; status=1; }
done
[ $status -eq 0 ] && echo "$(echo "$expected" | wc -l) exported symbols match"
exit $status
