#!/bin/bash
# The project's test command: installs what is missing, builds with warnings
# as errors and runs every test (labels unit, slow and peers: the slow one
# waits a real minute for a time-out, the peers ones use real mail servers),
# then builds again with AddressSanitizer and UndefinedBehaviorSanitizer and
# runs the unit tests once more, and runs every fuzz target for a short time
# (scripts/fuzz.sh, $KEMAIL_FUZZ_SECONDS each, default 6). Around them: the
# source checks first (formatting, banned calls, Kept comments), then every
# build type with GCC and clang, and the Debian packages built, installed,
# used and purged. Prints how long each step took. Exits non-zero when
# anything failed.
# Build directories: $KEMAIL_BUILD_DIR (build) and $KEMAIL_ASAN_BUILD_DIR
# (build-asan), relative to the repository root.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

build_dir=${KEMAIL_BUILD_DIR:-build}
asan_dir=${KEMAIL_ASAN_BUILD_DIR:-build-asan}
jobs=${KEMAIL_JOBS:-2}
status=0
summary=()
passed_total=0
failed_total=0

step_started=$SECONDS
step() {
  [ "$SECONDS" -gt "$step_started" ] && printf '(%d s)\n' $((SECONDS - step_started))
  step_started=$SECONDS
  printf '\n== %s\n' "$*"
}

# check NAME COMMAND...: a step that passes or fails as a whole.
check() {
  local name=$1
  shift
  if "$@"; then
    summary+=("$name: passed")
  else
    summary+=("$name: FAILED")
    status=1
  fi
}

# build DIR CMAKE-OPTION...: configure and build; the compiler's output is
# shown only when something fails.
build() {
  local dir=$1 log
  shift
  mkdir -p "$dir"
  log="$dir/build.log"
  if ! { cmake -S . -B "$dir" -DKEMAIL_TESTS=ON -DKEMAIL_WERROR=ON "$@" && cmake --build "$dir" -j "$jobs"; } >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "build in $dir failed (whole log: $log)"
    return 1
  fi
  echo "built in $dir"
}

# run_tests DIR CTEST-OPTION...: ctest with the failures' output; remembers
# its summary line.
run_tests() {
  local dir=$1 log line passed failed
  shift
  log="$dir/ctest-summary.log"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" "$@") | tee "$log"
  local rc=${PIPESTATUS[0]}
  line=$(grep -E '^[0-9]+% tests passed' "$log" | tail -n 1)
  if [ -n "$line" ]; then
    failed=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$line")
    passed=$(( $(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line") - failed ))
    passed_total=$((passed_total + passed))
    failed_total=$((failed_total + failed))
  else
    line="no test summary (ctest exit code $rc)"
  fi
  summary+=("$dir: $line")
  return "$rc"
}

step "dependencies"
bash scripts/install-deps.sh || exit 1
echo "all packages present"

step "source checks (formatting, banned calls, Kept comments)"
check "source checks" bash scripts/check-source.sh

step "build ($build_dir, -Wall -Wextra -Werror)"
matrix_pid=""
if build "$build_dir" -DKEMAIL_SANITIZE=OFF -DKEMAIL_BENCH=ON; then
  # The build matrix compiles while the tests mostly wait (the slow ones for
  # a minute, the real-peer ones on their servers); its report comes later.
  mkdir -p build-matrix
  bash scripts/build-matrix.sh >build-matrix/matrix.log 2>&1 &
  matrix_pid=$!
  step "tests ($build_dir: every test, the slow and real-peer ones included)"
  run_tests "$build_dir" || status=1
else
  summary+=("$build_dir: build failed")
  status=1
fi

step "build ($asan_dir, AddressSanitizer + UndefinedBehaviorSanitizer)"
if build "$asan_dir" -DKEMAIL_SANITIZE=ON -DKEMAIL_BENCH=OFF; then
  step "tests ($asan_dir: the unit tests)"
  run_tests "$asan_dir" -L unit || status=1
else
  summary+=("$asan_dir: build failed")
  status=1
fi

fuzz_seconds=${KEMAIL_FUZZ_SECONDS:-6}
step "fuzz (build-fuzz: every libFuzzer target for $fuzz_seconds s)"
if bash scripts/fuzz.sh "$fuzz_seconds"; then
  summary+=("fuzz: every target ran $fuzz_seconds s without a failure")
else
  summary+=("fuzz: a target failed (scripts/fuzz.sh output above)")
  status=1
fi

step "every build type with GCC and clang"
if [ -n "$matrix_pid" ]; then
  check "build matrix" wait "$matrix_pid"
  cat build-matrix/matrix.log
else
  check "build matrix" bash scripts/build-matrix.sh
fi

step "Debian packages: build, install, send, build the example, purge"
check "packages" bash scripts/ci-packaging.sh

step "summary"
printf '%s\n' "${summary[@]}"
echo "tests: $passed_total passed, $failed_total failed"
exit $status
