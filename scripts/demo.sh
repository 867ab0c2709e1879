#!/bin/bash
# A first look at kemail: installs what is missing, builds the library and its
# tools, and runs a small program that writes through the library's trace
# ring and mail log; then shows both, the trace through the kemail-trace tool.
# Everything runs in a private mount namespace (tests/support/private-root.sh),
# so the machine's /etc/opt and /var/opt are never touched; the files it made
# are copied to out/demo/.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build_dir=${KEMAIL_BUILD_DIR:-build}
out=out/demo
say() { printf '\n== %s\n' "$*"; }

say "installing missing packages (scripts/install-deps.sh)"
bash scripts/install-deps.sh

say "building libkemail.so and kemail-trace in $build_dir/"
mkdir -p "$build_dir" "$out"
cmake -S . -B "$build_dir" >"$out/build.log" 2>&1 &&
  cmake --build "$build_dir" -j 2 --target kemail kemail-trace >>"$out/build.log" 2>&1 ||
  { tail -n 40 "$out/build.log"; echo "build failed (log: $out/build.log)"; exit 1; }
ls -l "$build_dir"/libkemail.so* "$build_dir"/tools/kemail-trace | sed 's/^/  /'

say "compiling a small program on the public header: $out/trace_demo.c"
cat >"$out/trace_demo.c" <<'C'
/* Writes a few trace records and mail-log lines the way a send does. */
#include <stdio.h>
#include <string.h>
#include "kemail.h"

int main(void) {
    char name[KEMAIL_TRACE_NAME_SIZE] = "";
    MakeTraceFileName(name, 0, "demo", 2);
    TraceHandle* trace = Topen(name, 5, 2);
    if (trace == NULL) { fprintf(stderr, "Topen %s failed\n", name); return 1; }
    const char greeting[] = "220 mx.example.test ESMTP";
    unsigned int value = 42;
    Twrite(trace, 1, "DEMO0000", NULL, 0);
    Twrite(trace, 2, "DEMO0010", greeting, (unsigned int)strlen(greeting));
    Twrite(trace, 0, "DEMO0020", &value, sizeof value);
    Twrite(trace, 1, "DEMOFFFF", NULL, 0);

    MailLogHandle* log = MailLogOpen(0);
    if (log == NULL) { fprintf(stderr, "MailLogOpen failed\n"); return 1; }
    MailLogWrite(log, KEMAIL_LOG_RECEIVED, greeting);
    MailLogWrite(log, KEMAIL_LOG_SENT, "EHLO client.example.test");
    MailLogTimeOutWrite(log, 30, 1, "recv");
    printf("trace file: %s\nmail log:   %s\n", name, log->path);
    MailLogClose(log);
    Tclose(trace);
    return 0;
}
C
cc -std=c99 -Wall -Wextra -Werror -Iinclude "$out/trace_demo.c" -o "$out/trace_demo" \
  -L"$build_dir" -lkemail -Wl,-rpath,"$PWD/$build_dir"

say "running it in a private /etc/opt and /var/opt"
export DEMO_OUT="$PWD/$out" DEMO_TRACE_TOOL="$PWD/$build_dir/tools/kemail-trace"
tests/support/private-root.sh bash -c '
  set -e
  "$DEMO_OUT/trace_demo" | tee "$DEMO_OUT/run.txt"
  trace=$(sed -n "s/^trace file: //p" "$DEMO_OUT/run.txt")
  log=$(sed -n "s/^mail log: *//p" "$DEMO_OUT/run.txt")
  cp "$trace" "$DEMO_OUT/demo.trc"
  cp "$log" "$DEMO_OUT/kesmtp.log"
  echo; echo "-- kemail-trace $trace"
  "$DEMO_TRACE_TOOL" "$trace"
  echo; echo "-- $log (CR LF shown as \\r)"
  sed "s/\r$/\\\\r/" "$log"
'

say "done: the trace and the mail log are kept in $out/ (demo.trc, kesmtp.log)"
