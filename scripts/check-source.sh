#!/bin/bash
# Source guards that CI runs before building:
#  1. the tree is formatted with the checked-in .clang-format;
#  2. no unbounded or unchecked C string and number functions in the library
#     and the tools (the bounded formatter and copy_cut exist for that);
#  3. every "// Kept:" comment names a test that exists.
# Prints each finding and exits 1 when there is any.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
status=0

# 1. Formatting.
clang_format=${CLANG_FORMAT:-clang-format}
mapfile -t sources < <(git ls-files '*.c' '*.cpp' '*.h' | grep -v '^tests/fuzz/corpus/')
drift=()
for f in "${sources[@]}"; do
    [ -f "$f" ] || continue
    if ! "$clang_format" --style=file --dry-run -Werror "$f" >/dev/null 2>&1; then
        drift+=("$f")
    fi
done
if [ ${#drift[@]} -gt 0 ]; then
    echo "not formatted with .clang-format (run: $clang_format -i FILE):"
    printf '  %s\n' "${drift[@]}"
    status=1
fi

# 2. Banned calls. A word boundary before the name, an opening parenthesis
# after it: "snprintf(" and "my_strcpy(" do not match, "std::strcpy(" does.
banned='sprintf|vsprintf|strcpy|strcat|strncpy|sscanf|atoi|gets'
hits=$(git grep -n -I -P "(?<![A-Za-z0-9_])($banned)\s*\(" -- src tools \
       | grep -v -P '^\S+:\d+:\s*//' || true)
if [ -n "$hits" ]; then
    echo "banned functions in src/ or tools/ (use kemail::format_into, copy_cut, strtol):"
    printf '%s\n' "$hits"
    status=1
fi

# 3. Kept comments name real tests.
/usr/bin/python3 scripts/check-kept.py || status=1

exit $status
