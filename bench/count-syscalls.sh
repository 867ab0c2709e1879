#!/bin/bash
# System calls of one small send: ZvKe_SendEMail beside the minimal C client,
# each sending the same 1 KiB alert to the benchmark's sink over a new
# connection, averaged over N sends (default 20) after one warm-up send.
# Prints one table of calls by name, the two side by side, ending with the
# totals. Needs strace; runs in the tests' private root so that the library's
# fixed directories are temporary ones.
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
# between the two marker calls.
count_mode() {
    local mode=$1 trace="$work/$1.strace"
    strace -f -qq -o "$trace" "$bench" "$mode" "$count" "$port" >/dev/null
    sed -n '/kemail-bench-mark\/begin/,/kemail-bench-mark\/end/p' "$trace" \
        | sed -n 's/^\([0-9]* *\)\{0,1\}\([a-z_0-9]*\)(.*/\2/p' \
        | grep -v '^access$' | sort | uniq -c \
        | awk '{ print $2, $1 }'
}

count_mode --small-sends >"$work/kemail"
count_mode --floor-small-sends >"$work/floor"

echo "system calls per small send (mean of $count)"
# Both lists by name, sorted by the library's count; a call only one side
# makes shows 0 on the other.
awk -v n="$count" 'FNR == NR { kemail[$1] = $2; names[$1] = 1; next }
     { floor[$1] = $2; names[$1] = 1 }
     END {
         for (name in names) {
             k = name in kemail ? kemail[name] : 0; f = name in floor ? floor[name] : 0
             printf "%-16s %10.1f %10.1f\n", name, k / n, f / n
             total_k += k; total_f += f
         }
         printf "%-16s %10.1f %10.1f\n", "~total", total_k / n, total_f / n
     }' "$work/kemail" "$work/floor" \
    | sort -k2,2nr -k1,1 | sed 's/^~total/total /' \
    | { printf "%-16s %10s %10s\n" "call" "kemail" "floor"; cat; } \
    | awk '/^total / { last = $0; next } { print } END { print last }'
