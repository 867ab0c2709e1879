#!/bin/bash
# One send case beside its floor, in several builds (a build before a change
# and one after it), the builds taking turns run after run so that each sees
# the same drift of the machine's state:
#
#   bench/compare-builds.sh [--tmpfs | --ext4] [--runs N] CASE BUILD_DIR...
#
# CASE is a send_bench case without its BM_Kemail_/BM_Floor_ prefix, for
# example HundredMiBSplit/plain or ThousandSmall/plain. Each run is one
# send_bench process per build (5 repetitions of the case and of its floor in
# random order, medians); N runs, default 6. Prints a line per run and build
# (wall of kemail and of the floor, scaled to the same number of pieces for
# split cases, and their ratio, and the same for CPU), then per build the
# median and the range of the ratios. The file-system options are those of
# bench/in-root.sh.
set -euo pipefail
fs_option=()
runs=6
while [ $# -gt 0 ]; do
    case $1 in
        --tmpfs | --ext4) fs_option=("$1") ;;
        --runs) runs=${2:?--runs needs a number}; shift ;;
        *) break ;;
    esac
    shift
done
[ $# -ge 2 ] || { echo "usage: compare-builds.sh [--tmpfs | --ext4] [--runs N] CASE BUILD_DIR..." >&2; exit 2; }
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
        "$here/in-root.sh" "${fs_option[@]}" "${builds[$index]}/bench/send_bench" \
            --benchmark_filter="$filter" --benchmark_repetitions=5 \
            --benchmark_report_aggregates_only=true --benchmark_enable_random_interleaving=true \
            --benchmark_out="$out" --benchmark_out_format=json >/dev/null 2>"$work/err" || {
            cat "$work/err" >&2
            exit 1
        }
    done
done

python3 - "$work" "$runs" "${builds[@]}" <<'PY'
import json
import statistics
import sys

work, runs, builds = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
to_ms = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}


def medians(path):
    found = {}
    for b in json.load(open(path))["benchmarks"]:
        if b.get("error_occurred"):
            sys.exit(f"{path}: {b['run_name']}: {b.get('error_message', 'failed')}")
        if b.get("aggregate_name") == "median":
            found["kemail" if b["run_name"].startswith("BM_Kemail_") else "floor"] = b
    if set(found) != {"kemail", "floor"}:
        sys.exit(f"{path}: the case or its floor did not run")
    return found["kemail"], found["floor"]


def fmt(ms):
    return f"{ms:.3f} ms" if ms < 10 else f"{ms:.1f} ms"


ratios = {b: [] for b in builds}
print(f"{'build':<40} {'run':>3} {'kemail':>10} {'floor':>10} {'ratio':>6} "
      f"{'CPU':>10} {'floor':>10} {'ratio':>6}")
for run in range(1, runs + 1):
    for index, build in enumerate(builds):
        kemail, floor = medians(f"{work}/run{run}-build{index}.json")
        scale = kemail["pieces"] / floor["pieces"] if floor.get("pieces") else 1.0
        wall_k = kemail["real_time"] * to_ms[kemail["time_unit"]]
        wall_f = floor["real_time"] * to_ms[floor["time_unit"]] * scale
        cpu_k, cpu_f = kemail["cpu_s"] * 1e3, floor["cpu_s"] * 1e3 * scale
        ratios[build].append(wall_k / wall_f)
        print(f"{build[-40:]:<40} {run:>3} {fmt(wall_k):>10} {fmt(wall_f):>10} {wall_k / wall_f:>6.3f} "
              f"{fmt(cpu_k):>10} {fmt(cpu_f):>10} {cpu_k / cpu_f:>6.3f}")
print()
for build in builds:
    r = ratios[build]
    print(f"{build}: wall ratio median {statistics.median(r):.3f}, "
          f"from {min(r):.3f} to {max(r):.3f} over {len(r)} runs")
PY
