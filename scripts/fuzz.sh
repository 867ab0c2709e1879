#!/bin/bash
# Builds the libFuzzer targets (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each of them for a fixed time, starting
# from its seed corpus in tests/fuzz/corpus/<name>/.
#   scripts/fuzz.sh                 every target 20 seconds (the CI run)
#   scripts/fuzz.sh 600             every target 600 seconds
#   scripts/fuzz.sh 60 pieces ...   only the named targets
# The corpus grown by a run stays in $KEMAIL_FUZZ_BUILD_DIR/corpus/<name>/
# (build dir default: build-fuzz), a crashing input in .../artifacts/<name>/.
# Prints executions and seconds per target; exits non-zero when a target
# crashed, leaked, timed out or failed one of its checks.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

seconds=${1:-20}
shift || true
build_dir=${KEMAIL_FUZZ_BUILD_DIR:-build-fuzz}
jobs=${KEMAIL_JOBS:-2}
[[ $seconds =~ ^[0-9]+$ ]] && [ "$seconds" -gt 0 ] || { echo "usage: $0 [SECONDS] [TARGET...]" >&2; exit 2; }

# Longest input per target: a reply stream, a message file or an ini file may
# be long; subjects and single lines are short.
declare -A max_len=([smtp_reply]=8192 [pop3_reply]=8192 [profile]=8192 [encoding]=1024
                    [charset]=4096 [pieces]=16384 [trace_reader]=16384)

log="$build_dir/build.log"
mkdir -p "$build_dir"
if ! { CC=clang CXX=clang++ cmake -S . -B "$build_dir" -DKEMAIL_FUZZ=ON -DKEMAIL_TESTS=OFF &&
       cmake --build "$build_dir" -j "$jobs" --target fuzz_all; } >"$log" 2>&1; then
  tail -n 40 "$log"
  echo "fuzz: build failed (log: $log)" >&2
  exit 1
fi

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for src in tests/fuzz/fuzz_*.cpp; do
    name=$(basename "$src" .cpp)
    targets+=("${name#fuzz_}")
  done
fi

# The programs use only the paths they are given (the ini target works in a
# temporary directory of its own); as root they run in the private root all
# the same, so that nothing can reach the machine's /etc/opt or /var/opt.
wrap=()
[ "$(id -u)" -eq 0 ] && wrap=(tests/support/private-root.sh)
# The ini target writes a file per input: on tmpfs where there is one.
[ -d /dev/shm ] && [ -w /dev/shm ] && export TMPDIR=/dev/shm

status=0
total=0
printf '%-12s %12s %8s  %s\n' target executions seconds result
for name in "${targets[@]}"; do
  bin="$build_dir/fuzz/fuzz_$name"
  seeds="tests/fuzz/corpus/$name"
  if [ ! -x "$bin" ] || [ ! -d "$seeds" ]; then
    echo "fuzz: no target $name (or no seeds in $seeds)" >&2
    status=1
    continue
  fi
  corpus="$build_dir/corpus/$name"
  artifacts="$build_dir/artifacts/$name"
  mkdir -p "$corpus" "$artifacts"
  out="$build_dir/fuzz-$name.log"
  start=$(date +%s)
  "${wrap[@]}" "$bin" -max_total_time="$seconds" -max_len="${max_len[$name]:-4096}" -timeout=25 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "$seeds" \
    >"$out" 2>&1
  rc=$?
  elapsed=$(( $(date +%s) - start ))
  runs=$(awk '/stat::number_of_executed_units/ {print $NF}' "$out" | tail -n 1)
  runs=${runs:-0}
  total=$((total + runs))
  if [ $rc -eq 0 ]; then
    result=ok
  else
    result="FAILED (exit $rc, log $out)"
    status=1
    grep -E 'check failed|ERROR|SUMMARY|Test unit written' "$out" | head -n 8 | sed 's/^/    /'
  fi
  printf '%-12s %12s %8s  %s\n' "$name" "$runs" "$elapsed" "$result"
done
printf '%-12s %12s\n' total "$total"
exit $status
