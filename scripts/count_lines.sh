#!/usr/bin/env bash
# Lines of code and of tests, counted the same way every time: every line of
# a C++ source or header (.cpp, .h) and of a shell script (.sh) that holds
# more than blanks and is not a comment alone ("//", "#", or inside a
# "/* */" block). Code is device/, devsim/, tarnifs/, tools/, util/ and
# bench/; tests are tests/ (support code and fuzz targets included).
# Usage: scripts/count_lines.sh [REPOSITORY]
set -euo pipefail
cd "${1:-$(dirname "$0")/..}"

count() {  # prints the counted lines of the files under the folders given
  find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.sh' \) -print0 | sort -z |
    xargs -0 awk '
      FNR == 1 { block = 0 }
      {
        line = $0
        sub(/^[ \t]+/, "", line)
        sub(/[ \t\r]+$/, "", line)
        if (block) { if (line ~ /\*\//) { block = 0; sub(/^.*\*\//, "", line) } else next }
        if (line ~ /^\/\*/ && line !~ /\*\//) { block = 1; next }
        if (line == "" || line ~ /^\/\// || line ~ /^#($|[^a-z!])/ || line ~ /^\/\*.*\*\/$/) next
        n++
      }
      END { print n + 0 }'
}

code=$(count device devsim tarnifs tools util bench)
tests=$(count tests)
awk -v c="$code" -v t="$tests" 'BEGIN {
  printf "code   %6d lines\ntests  %6d lines\ntests are %.1f %% of all %d lines\n", c, t, 100 * t / (c + t), c + t
}'
