#!/bin/bash
# Builds the library and the tools in every build type with GCC and with
# clang, warnings as errors, tests left out to keep it quick except in GCC's
# Release build (its optimiser warns about code the other builds accept, such
# as GCC 12's false -Wrestrict in operator+ of strings); then checks
# that the public header compiles beside OpenSSL's <openssl/md5.h> with both
# compilers. Build directories: build-matrix/<compiler>-<type>.
# Exits non-zero when any build fails; prints one line per build.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
jobs=${KEMAIL_JOBS:-2}
types=(${KEMAIL_MATRIX_TYPES:-Debug Release RelWithDebInfo MinSizeRel})
compilers=(${KEMAIL_MATRIX_COMPILERS:-gcc clang})
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
status=0
for compiler in "${compilers[@]}"; do
  case $compiler in
    gcc) cc=gcc cxx=g++ ;;
    clang) cc=clang cxx=clang++ ;;
    *) echo "unknown compiler $compiler"; exit 2 ;;
  esac
  for type in "${types[@]}"; do
    dir=build-matrix/$compiler-$type
    mkdir -p "$dir"
    tests=OFF
    [ "$compiler-$type" = gcc-Release ] && tests=ON
    if { cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DCMAKE_C_COMPILER="$cc" \
           -DCMAKE_CXX_COMPILER="$cxx" -DKEMAIL_TESTS="$tests" -DKEMAIL_WERROR=ON "${launcher[@]}" &&
         cmake --build "$dir" -j "$jobs"; } >"$dir/build.log" 2>&1; then
      echo "ok      $compiler $type$([ "$tests" = ON ] && echo ', tests too')"
    else
      echo "FAILED  $compiler $type (log: $dir/build.log)"
      tail -n 20 "$dir/build.log"
      status=1
    fi
  done
  if printf '#include <openssl/md5.h>\n#include "kemail.h"\nint main(void) { KEMAIL_MD5_CTX a; MD5_CTX b; (void)a; (void)b; return 0; }\n' |
     "$cc" -std=c99 -Wall -Wextra -Werror -Iinclude -x c -fsyntax-only -; then
    echo "ok      $compiler kemail.h beside <openssl/md5.h>"
  else
    echo "FAILED  $compiler kemail.h beside <openssl/md5.h>"
    status=1
  fi
done
exit $status
