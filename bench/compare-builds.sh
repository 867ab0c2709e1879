#!/bin/bash
# One send case beside its floor, in several builds (a build before a change
# and one after it), the builds taking turns run after run so that each sees
# the same drift of the machine's state:
#
#   bench/compare-builds.sh [--tmpfs | --ext4] [--settle] [--runs N] CASE BUILD_DIR...
#
# CASE is a send_bench case without its BM_Kemail_/BM_Floor_ prefix, for
# example HundredMiBSplit/plain or ThousandSmall/plain. Each run is one
# send_bench process per build (5 repetitions of the case and of its floor in
# random order, medians); N runs, default 6. Prints a line per run and build
# (wall of kemail and of the floor, scaled to the same number of pieces for
# split cases, and their ratio, and the same for CPU), then per build the
# median and the range of the ratios. The file-system options are those of
# bench/in-root.sh; --settle lets the file system settle before each process
# (bench/settle.sh), so that no run inherits the files an earlier one deleted.
set -euo pipefail
fs_option=()
runs=6
settle=0
while [ $# -gt 0 ]; do
    case $1 in
        --tmpfs | --ext4) fs_option=("$1") ;;
        --settle) settle=1 ;;
        --runs) runs=${2:?--runs needs a number}; shift ;;
        *) break ;;
    esac
    shift
done
[ $# -ge 2 ] || { echo "usage: compare-builds.sh [--tmpfs | --ext4] [--settle] [--runs N] CASE BUILD_DIR..." >&2; exit 2; }
case_name=$1
shift
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
builds=()
for dir in "$@"; do
    dir=$(cd "$dir" && pwd)
    [ -x "$dir/bench/send_bench" ] || { echo "$dir/bench/send_bench is not built" >&2; exit 1; }
    builds+=("$dir")
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
filter="^BM_(Kemail|Floor)_${case_name}(/|\$)"
for run in $(seq "$runs"); do
    for index in "${!builds[@]}"; do
        out="$work/run$run-build$index.json"
        [ "$settle" = 0 ] || "$here/settle.sh"
        "$here/in-root.sh" "${fs_option[@]}" "${builds[$index]}/bench/send_bench" \
            --benchmark_filter="$filter" --benchmark_repetitions=5 \
            --benchmark_report_aggregates_only=true --benchmark_enable_random_interleaving=true \
            --benchmark_out="$out" --benchmark_out_format=json >/dev/null 2>"$work/err" || {
            cat "$work/err" >&2
            exit 1
        }
    done
done

PYTHONPATH="$here" PYTHONDONTWRITEBYTECODE=1 python3 - "$work" "$runs" "$case_name" "${builds[@]}" <<'PY'
import statistics
import sys

from bench_results import cpu_ms, floor_scale, lookup, medians, wall_ms

work, runs, case_name, builds = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4:]


def case_and_floor(path):
    found = medians(path)
    kemail = lookup(found, f"BM_Kemail_{case_name}")
    floor = lookup(found, f"BM_Floor_{case_name}")
    if kemail is None or floor is None:
        sys.exit(f"{path}: the case or its floor did not run")
    for run in (kemail, floor):
        if "error" in run:
            sys.exit(f"{path}: {run['error']}")
    return kemail, floor


def fmt(ms):
    return f"{ms:.3f} ms" if ms < 10 else f"{ms:.1f} ms"


ratios = {b: [] for b in builds}
print(f"{'build':<40} {'run':>3} {'kemail':>10} {'floor':>10} {'ratio':>6} "
      f"{'CPU':>10} {'floor':>10} {'ratio':>6}")
for run in range(1, runs + 1):
    for index, build in enumerate(builds):
        kemail, floor = case_and_floor(f"{work}/run{run}-build{index}.json")
        scale = floor_scale(kemail, floor)
        wall_k, wall_f = wall_ms(kemail), wall_ms(floor) * scale
        cpu_k, cpu_f = cpu_ms(kemail), cpu_ms(floor) * scale
        ratios[build].append(wall_k / wall_f)
        print(f"{build[-40:]:<40} {run:>3} {fmt(wall_k):>10} {fmt(wall_f):>10} {wall_k / wall_f:>6.3f} "
              f"{fmt(cpu_k):>10} {fmt(cpu_f):>10} {cpu_k / cpu_f:>6.3f}")
print()
for build in builds:
    r = ratios[build]
    print(f"{build}: wall ratio median {statistics.median(r):.3f}, "
          f"from {min(r):.3f} to {max(r):.3f} over {len(r)} runs")
PY
