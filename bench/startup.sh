#!/bin/bash
# Start-up cost of kemail-send beside curl's: the wall time of
# `kemail-send --version` and `curl --version`, and of `true` (what starting
# any program from this loop costs), run N times each in turn (default 200),
# medians in milliseconds. The clock is bash's $EPOCHREALTIME, read without
# starting a process of its own.
#   bench/startup.sh BUILD_DIR [N]
set -euo pipefail
build=$(cd "${1:?usage: startup.sh BUILD_DIR [N]}" && pwd)
runs=${2:-200}
kemail_send="$build/tools/kemail-send"
true_path=$(command -v true | grep / || echo /bin/true)
[ -x "$kemail_send" ] || { echo "$kemail_send is not built" >&2; exit 1; }
# Without curl (it is not among the build's packages) its line says so.
have_curl=0
command -v curl >/dev/null && have_curl=1
"$kemail_send" --version >/dev/null || { echo "kemail-send --version failed" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# elapsed FILE COMMAND...: appends the run's wall time in microseconds.
elapsed() {
    local out=$1 start end
    shift
    start=${EPOCHREALTIME/./}
    "$@" >/dev/null
    end=${EPOCHREALTIME/./}
    echo $((end - start)) >>"$out"
}

for ((i = 0; i < runs; ++i)); do
    elapsed "$work/kemail" "$kemail_send" --version
    [ "$have_curl" = 0 ] || elapsed "$work/curl" curl --version
    elapsed "$work/true" "$true_path"
done

median_ms() {
    sort -n "$1" | awk '{ v[NR] = $1 }
        END { m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2; printf "%.3f", m / 1000 }'
}

echo "start-up, median of $runs runs (ms)"
printf '%-24s %8s\n' "kemail-send --version" "$(median_ms "$work/kemail")"
if [ "$have_curl" = 1 ]; then
    printf '%-24s %8s\n' "curl --version" "$(median_ms "$work/curl")"
else
    printf '%-24s %8s\n' "curl --version" "-"
fi
printf '%-24s %8s\n' "true" "$(median_ms "$work/true")"
