#!/bin/bash
# System calls of one small send: ZvKe_SendEMail beside the minimal C client,
# each sending the same 1 KiB alert to the benchmark's sink over a new
# connection, averaged over N sends (default 20) after one warm-up send.
# Prints a table of calls by name for both. Needs strace; runs in the tests'
# private root so that the library's fixed directories are temporary ones.
#   bench/count-syscalls.sh BUILD_DIR [N]
set -euo pipefail
build=$(cd "${1:?usage: count-syscalls.sh BUILD_DIR [N]}" && pwd)
count=${2:-20}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
bench="$build/bench/send_bench"
command -v strace >/dev/null || { echo "strace is not installed" >&2; exit 1; }

if [ -z "${KEMAIL_IN_PRIVATE_ROOT:-}" ]; then
    exec "$here/../tests/support/private-root.sh" "$0" "$@"
fi

work=$(mktemp -d)
trap 'kill "$sink_pid" 2>/dev/null || true; rm -rf "$work"' EXIT
"$bench" --sink 0 >"$work/sink.out" &
sink_pid=$!
for _ in $(seq 50); do
    grep -q listening "$work/sink.out" 2>/dev/null && break
    sleep 0.1
done
port=$(sed -n 's/.*127.0.0.1:\([0-9]*\).*/\1/p' "$work/sink.out")

# count MODE: strace the sends of MODE and print "name calls" per system call
# between the two marker calls, divided by the number of sends.
count_mode() {
    local mode=$1 trace="$work/$1.strace"
    strace -f -qq -o "$trace" "$bench" "$mode" "$count" "$port" >/dev/null
    sed -n '/kemail-bench-mark\/begin/,/kemail-bench-mark\/end/p' "$trace" \
        | sed -n 's/^\([0-9]* *\)\{0,1\}\([a-z_0-9]*\)(.*/\2/p' \
        | grep -v '^access$' | sort | uniq -c \
        | awk -v n="$count" '{ total += $1; printf "%-14s %8.1f\n", $2, $1 / n }
                             END { printf "%-14s %8.1f\n", "total", total / n }' \
        | sort -k2 -nr
}

echo "system calls per small send (mean of $count)"
echo "-- ZvKe_SendEMail"
count_mode --small-sends
echo "-- minimal C client"
count_mode --floor-small-sends
