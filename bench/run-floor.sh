#!/bin/bash
# Every send case beside its floor, in one table: case | kemail | floor |
# ratio (kemail ÷ floor), medians over repetitions.
#
#   bench/run-floor.sh [--smoke] [--tmpfs | --ext4] [--settle] BUILD_DIR [REPETITIONS]
#
# It runs send_bench in the tests' private root (each BM_Kemail_ case and its
# BM_Floor_ twin in one process, REPETITIONS times, default 5, in random
# order, the median taken), bench/count-syscalls.sh (system calls of one small send) and
# bench/startup.sh (kemail-send beside curl). Wall is elapsed time; CPU is the
# sending side's (the benchmark thread and the children it waited for, such as
# coreutils base64; the sink's thread is not counted). A case whose options
# the library does not accept yet shows as skipped with the reason.
#
# The library's work files, trace and mail log go to the private root's
# directories in /tmp; with --tmpfs to tmpfs instead, which shows how much of
# a small send's wall time is the file system's; with --ext4 to a fresh ext4
# with a journal (bench/in-root.sh). --settle lets the file system settle
# first (bench/settle.sh), so that the run does not pay for files deleted
# just before it.
#
# --smoke runs the small cases once, briefly, and fails when a floor case or
# a plain kemail case fails: a check that the benchmarks still work, not a
# measurement.
set -euo pipefail
smoke=0
settle=0
files_on=tmp
while [ $# -gt 0 ]; do
    case $1 in
        --smoke) smoke=1 ;;
        --settle) settle=1 ;;
        --tmpfs) files_on=tmpfs ;;
        --ext4) files_on=ext4 ;;
        *) break ;;
    esac
    shift
done
build=$(cd "${1:?usage: run-floor.sh [--smoke] [--tmpfs | --ext4] [--settle] BUILD_DIR [REPETITIONS]}" && pwd)
repetitions=${2:-5}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
bench="$build/bench/send_bench"
[ -x "$bench" ] || { echo "$bench is not built" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if [ "$smoke" = 1 ]; then
    filter='BM_(Kemail|Floor)_OneSmall/|BM_PeakMemory/MiB:1/'
    options=(--benchmark_min_time=0.02)
    repetitions=1
    syscall_sends=3
    startup_runs=5
else
    filter='BM_(Kemail|Floor)_|BM_PeakMemory'
    # Repetitions interleaved at random: a case and its floor see the same
    # spread of the machine's other load.
    options=(--benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true
             --benchmark_enable_random_interleaving=true)
    syscall_sends=20
    startup_runs=200
fi

[ "$settle" = 0 ] || "$here/settle.sh"
read -r load_before _ </proc/loadavg
echo "send_bench: $filter, $repetitions repetitions" >&2
case $files_on in
    tmp)
        files="$(df --output=fstype /tmp | tail -n 1)"
        if [ "$files" = ext4 ]; then
            # A journal shows as a jbd2 entry named after the device.
            device=$(basename "$(findmnt -n -o SOURCE -T /tmp)")
            if compgen -G "/proc/fs/jbd2/$device-*" >/dev/null; then
                files="ext4 with a journal"
            else
                files="ext4 without a journal"
            fi
        fi
        files="$files (/tmp)" ;;
    tmpfs) files=tmpfs ;;
    ext4) files="ext4 with a journal (a fresh loop-mounted image)" ;;
esac
fs_option=()
[ "$files_on" = tmp ] || fs_option=(--"$files_on")
"$here/in-root.sh" "${fs_option[@]}" "$bench" --benchmark_filter="$filter" "${options[@]}" \
    --benchmark_out="$work/send.json" --benchmark_out_format=json >"$work/send.txt" 2>&1 || {
    cat "$work/send.txt" >&2
    exit 1
}
echo "count-syscalls.sh: $syscall_sends sends" >&2
"$here/count-syscalls.sh" "$build" "$syscall_sends" >"$work/syscalls.txt"
echo "startup.sh: $startup_runs runs" >&2
"$here/startup.sh" "$build" "$startup_runs" >"$work/startup.txt"

read -r load_after _ </proc/loadavg
echo "load average (1 min) $load_before before, $load_after after, on $(nproc) CPUs;" \
    "work files, trace and mail log on $files$([ "$settle" = 0 ] || echo ', settled first')"
PYTHONPATH="$here" PYTHONDONTWRITEBYTECODE=1 python3 - "$work" "$smoke" <<'EOF'
import sys

from bench_results import cpu_ms, floor_scale, is_split, lookup, medians, wall_ms

work, smoke = sys.argv[1], sys.argv[2] == "1"
found = medians(f"{work}/send.json")


def fmt(ms):
    return f"{ms:.3f} ms" if ms < 10 else f"{ms:.0f} ms"


rows = []
failures = []


def pair(label, case, unit_note=""):
    kemail = lookup(found, f"BM_Kemail_{case}")
    floor = lookup(found, f"BM_Floor_{case}")
    if floor is None or kemail is None:
        return  # not in this run's filter
    if "error" in floor:
        failures.append(f"floor {case}: {floor['error']}")
        rows.append((label, "–", "failed: " + floor["error"], "–"))
        return
    if "error" in kemail:
        if not kemail["error"].startswith("skipped:"):
            failures.append(f"kemail {case}: {kemail['error']}")
        rows.append((f"{label}, wall", kemail["error"], fmt(wall_ms(floor)), "–"))
        rows.append((f"{label}, CPU", "skipped", fmt(cpu_ms(floor)), "–"))
        return
    scale = floor_scale(kemail, floor)
    note = unit_note
    if is_split(kemail, floor):
        note = (f" ({kemail['pieces']:.0f} pieces; floor {floor['pieces']:.0f} pieces,"
                f" {floor['round_trips'] / floor['pieces']:.0f} round trips each, scaled)")
    for what, value in (("wall", wall_ms), ("CPU", cpu_ms)):
        k, f = value(kemail), value(floor) * scale
        detail = ""
        if what == "wall" and "base64_s" in floor:
            detail = (f" (base64 {floor['base64_s'] * 1e3:.0f} + client"
                      f" {floor['client_s'] * 1e3:.0f})")
        rows.append((f"{label}, {what}{note if what == 'wall' else ''}", fmt(k),
                     fmt(f) + detail, f"{k / f:.2f}" if f > 0 else "–"))


pair("100 MiB attachment, whole", "HundredMiBWhole/plain")
pair("100 MiB attachment, whole, STARTTLS", "HundredMiBWhole/starttls")
pair("one small mail", "OneSmall/plain")
pair("one small mail, STARTTLS", "OneSmall/starttls")
pair("1000 small mails, a connection each, trace and log on", "ThousandSmall/plain")
pair("1000 small mails, STARTTLS", "ThousandSmall/starttls")
pair("100 MiB in 64 KiB pieces, designed dialogue", "HundredMiBSplit/plain")
pair("100 MiB in 64 KiB pieces, PIPELINING=1", "HundredMiBSplit/pipelining")
pair("100 MiB in 64 KiB pieces, STARTTLS", "HundredMiBSplit/starttls")

for line in open(f"{work}/syscalls.txt"):
    if line.startswith("total "):
        k, f = (float(x) for x in line.split()[1:3])
        rows.append(("system calls of one small send", f"{k:.0f}", f"{f:.0f}", f"{k / f:.2f}"))
startup = {}
for line in open(f"{work}/startup.txt"):
    parts = line.rsplit(None, 1)
    if len(parts) == 2 and parts[0].strip() in ("kemail-send --version", "curl --version", "true"):
        startup[parts[0].strip()] = None if parts[1] == "-" else float(parts[1])
if len(startup) == 3:
    k, c = startup["kemail-send --version"], startup["curl --version"]
    rows.append(("start-up (kemail-send --version; floor: curl --version)", fmt(k),
                 fmt(c) if c else "curl not installed", f"{k / c:.2f}" if c else "–"))
    rows.append(("start-up of `true` (the loop's own cost)", "", fmt(startup["true"]), ""))

# STARTTLS beside the same case in clear, for each side.
for label, case in (("100 MiB whole", "HundredMiBWhole"), ("one small mail", "OneSmall")):
    cells = []
    for side in ("Kemail", "Floor"):
        tls = lookup(found, f"BM_{side}_{case}/starttls")
        plain = lookup(found, f"BM_{side}_{case}/plain")
        ok = tls and plain and "error" not in tls and "error" not in plain
        cells.append(f"{wall_ms(tls) / wall_ms(plain):.2f}" if ok else "–")
    if cells != ["–", "–"]:
        rows.append((f"{label}: wall over STARTTLS ÷ wall in clear", cells[0], cells[1], ""))

peaks = []
for name, run in found.items():
    if name.startswith("BM_PeakMemory/"):
        params = dict(p.split(":") for p in name.split("/")[1:] if ":" in p)
        peaks.append((int(params["split"]), int(params["MiB"]), name, run))
for split, mib, name, run in sorted(peaks):
    label = f"peak memory of a process sending {mib} MiB, {'split' if split else 'whole'}"
    if "error" in run:
        failures.append(f"{name}: {run['error']}")
        rows.append((label, run["error"], "", ""))
    else:
        rows.append((label, f"{run['peak_MiB']:.1f} MiB (the send: {run['send_MiB']:.1f})",
                     "", ""))

header = ("case", "kemail", "floor", "ratio")
print("| " + " | ".join(header) + " |")
print("|" + "---|" * len(header))
for row in rows:
    print("| " + " | ".join(row) + " |")
if failures:
    print("\nfailed:\n  " + "\n  ".join(failures), file=sys.stderr)
    sys.exit(1)
EOF
