#!/usr/bin/env bash
# Runs the libFuzzer targets of a fuzz build folder (see QUORVEL_FUZZ).
#
#   fuzz.sh run BUILD SECONDS      every target for SECONDS; inputs that reach
#                                  new code are merged into the kept corpus
#                                  tests/fuzz/corpus/<target>/, crashes are
#                                  left in BUILD/fuzz-artifacts/
#   fuzz.sh smoke PROGRAM CORPUS SECONDS
#                                  one target over its corpus for SECONDS,
#                                  never writing into the corpus (the test)
set -euo pipefail

here="$(cd "$(dirname "$0")/.." && pwd)"
options=(-timeout=10 -rss_limit_mb=2048 -print_final_stats=1)

smoke() {
  local program=$1 corpus=$2 seconds=$3
  local work
  work="$(mktemp -d /tmp/quorvel-fuzz-smoke-XXXXXX)"
  trap 'rm -rf "$work"' RETURN
  mkdir -p "$work/new"
  if ! "$program" "${options[@]}" -max_total_time="$seconds" -artifact_prefix="$work/" "$work/new" "$corpus"; then
    for crash in "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-*; do
      [ -e "$crash" ] || continue
      echo "failing input $(basename "$crash") (hex):"
      od -An -tx1 -v "$crash" | head -40
    done
    return 1
  fi
}

run() {
  local build=$1 seconds=$2 failed=0
  local artifacts="$build/fuzz-artifacts"
  mkdir -p "$artifacts"
  for program in "$build"/tests/fuzz/fuzz_*; do
    [ -x "$program" ] || continue
    local name corpus work
    name="$(basename "$program")"
    corpus="$here/tests/fuzz/corpus/$name"
    work="$build/fuzz-work/$name"
    mkdir -p "$corpus" "$work"
    echo "== $name: $seconds s"
    if ! "$program" "${options[@]}" -max_total_time="$seconds" -artifact_prefix="$artifacts/$name-" "$work" "$corpus"; then
      echo "== $name found a failing input: see $artifacts"
      failed=1
      continue
    fi
    # Only inputs that add coverage join the kept corpus.
    "$program" -merge=1 "$corpus" "$work" >/dev/null 2>&1 || true
    rm -rf "$work"
  done
  return $failed
}

case "${1:-}" in
  run) run "$2" "$3" ;;
  smoke) smoke "$2" "$3" "$4" ;;
  *) echo "usage: $0 run BUILD SECONDS | smoke PROGRAM CORPUS SECONDS" >&2; exit 2 ;;
esac
