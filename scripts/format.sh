#!/bin/sh
# Checks (or applies) the layout of .clang-format on the tests: one statement
# per line, at most 110 columns.
#
# Usage: scripts/format.sh [check|fix]     (default: check)
# Needs clang-format (14 or later). Exits non-zero when a file differs.
set -eu
cd "$(dirname "$0")/.."
MODE=${1:-check}
FORMAT=$(command -v clang-format-14 || command -v clang-format || true)
if [ -z "$FORMAT" ]; then
  echo "format: clang-format not found" >&2
  exit 1
fi
# Tests still laid out by hand; each leaves this list once it is formatted.
UNFORMATTED=""
FILES=""
for f in tests/*.cpp tests/*.h; do
  case " $(echo $UNFORMATTED) " in *" $f "*) continue ;; esac
  FILES="$FILES $f"
done
# shellcheck disable=SC2086
if [ "$MODE" = fix ]; then
  "$FORMAT" -i $FILES
else
  "$FORMAT" --dry-run -Werror $FILES
  echo "format: $(echo $FILES | wc -w) test files follow .clang-format"
fi
