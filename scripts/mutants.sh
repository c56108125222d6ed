#!/usr/bin/env bash
# Deliberate one-line faults in tarnifs/, and which of them the suite notices.
#
#   scripts/mutants.sh pick [COUNT] > scripts/mutants.tsv
#       spreads COUNT faults evenly over the candidate lines of tarnifs/*.cpp
#       (a comparison turned round, && for ||, true for false, an off-by-one,
#       a success for a failure); no randomness, so the same sources give the
#       same list on every machine.
#   scripts/mutants.sh run RESULTS [TESTS_COMMIT [CODE_COMMIT]]
#       builds this checkout's code (or CODE_COMMIT's) in a worktree of its own (with tests/ taken
#       from TESTS_COMMIT when given, so two suites can be measured against the
#       same code); runs each test alone in a coverage build to learn which
#       tests run each fault's line (RESULTS.coverage); checks the suite passes
#       unmutated; then for each fault of scripts/mutants.tsv: applies it,
#       rebuilds, runs the tests that run its line until one fails, and writes
#       a line to RESULTS: "<n> caught <first failing test>", "<n> missed" or
#       "<n> no-build". A test that never runs a line cannot notice a fault in
#       it, so this counts what running the whole suite would, in far less time.
#       An interrupted run, started again with the same RESULTS, goes on from
#       where it stopped.
#   scripts/mutants.sh table RESULTS_BEFORE RESULTS_AFTER
#       counts both runs side by side, with the faults only one of them caught.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
list="$repo/scripts/mutants.tsv"

pick() {
  local count=${1:-80}
  cd "$repo"
  # Candidates: code lines (not comments, not log or message text) holding
  # one operator we know how to turn round.
  find tarnifs -name '*.cpp' | sort | xargs awk -v OFS='\t' '
    FNR == 1 { block = 0 }
    {
      line = $0
      if (block) { if (line ~ /\*\//) block = 0; next }
      if (line ~ /^[ \t]*\/\*/ && line !~ /\*\//) { block = 1; next }
      if (line ~ /^[ \t]*(\/\/|#)/ || line ~ /"/ || line ~ /static_assert/) next
      to = ""
      if      (line ~ / == /)          { to = line; sub(/ == /, " != ", to) }
      else if (line ~ / != /)          { to = line; sub(/ != /, " == ", to) }
      else if (line ~ / && /)          { to = line; sub(/ && /, " || ", to) }
      else if (line ~ / \|\| /)        { to = line; sub(/ \|\| /, " \\&\\& ", to) }
      else if (line ~ / <= /)          { to = line; sub(/ <= /, " < ", to) }
      else if (line ~ / >= /)          { to = line; sub(/ >= /, " > ", to) }
      else if (line ~ /[a-z_)\]] < [a-zA-Z0-9_(]/) { to = line; sub(/ < /, " <= ", to) }
      else if (line ~ /[a-z_)\]] > [a-zA-Z0-9_(]/) { to = line; sub(/ > /, " >= ", to) }
      else if (line ~ /return true;/)  { to = line; sub(/return true;/, "return false;", to) }
      else if (line ~ /return false;/) { to = line; sub(/return false;/, "return true;", to) }
      else if (line ~ / \+ 1\>/)       { to = line; sub(/ \+ 1/, " + 2", to) }
      else if (line ~ / - 1\>/)        { to = line; sub(/ - 1/, "", to) }
      else if (line ~ /return 0;/)     { to = line; sub(/return 0;/, "return -EIO;", to) }
      else if (line ~ /if \(!/)        { to = line; sub(/if \(!/, "if (", to) }
      if (to != "" && to != line) print FILENAME, FNR, line, to
    }' > /tmp/mutant-candidates.$$
  local total
  total=$(wc -l < /tmp/mutant-candidates.$$)
  awk -v total="$total" -v count="$count" 'BEGIN { step = total / count; next_pick = step / 2 }
    NR >= next_pick && picked < count { print; picked++; next_pick += step }' /tmp/mutant-candidates.$$
  rm -f /tmp/mutant-candidates.$$
}

# Prints, for each fault of the list, the tests that run its line: the
# suite is built with coverage in BUILD_DIR and run one test at a time. A
# test that never runs a line cannot notice a fault in it, so only these are
# run against that fault.
map_coverage() {
  local work=$1 out=$2
  cmake -S "$work" -B "$work/build-cov" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS='--coverage -DNDEBUG' \
    -DCMAKE_C_FLAGS='--coverage -DNDEBUG' -DCMAKE_EXE_LINKER_FLAGS='--coverage -fuse-ld=lld' \
    -DQUORVEL_BENCH=OFF -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
  cmake --build "$work/build-cov" -j "$(nproc)" -- --no-print-directory >/dev/null
  local objects="$work/build-cov/tarnifs/CMakeFiles/quorvel_tarnifs.dir"
  local files
  files=$(cut -f1 "$list" | sort -u)
  : > "$out"
  local name
  (cd "$work/build-cov" && ctest -N) | awk '/Test +#[0-9]+:/ { print $3 }' | grep -v "$skip" | while read -r name; do
    find "$objects" -name '*.gcda' -delete
    (cd "$work/build-cov" && ctest --timeout 300 -R "^${name//./\\.}\$" < /dev/null >/dev/null 2>&1) || true
    local file
    for file in $files; do
      [[ -e "$objects/$(basename "$file").gcda" ]] || continue
      # Executed lines of that source: "<count>:<line>:" with a count that is a
      # number. gcov runs where the compiler did, to find the source.
      (cd "$work/build-cov/tarnifs" && gcov -t -o "$objects" "$objects/$(basename "$file").gcda" 2>/dev/null) |
        awk -v want="$file" -v test="$name" -F: '
          /^ *-: *0:Source:/ { keep = (index($0, want) > 0) ; next }
          keep && $1 ~ /^ *[0-9]+\*?$/ { gsub(/ /, "", $2); print want "\t" $2 "\t" test }'
    done >> "$out"
  done
}

run() {
  local results=$1 tests_commit=${2:-} code_commit=${3:-HEAD}
  [[ -s $list ]] || { echo "no $list: run '$0 pick' first" >&2; exit 2; }
  local work=/work/wt-mutants-$$
  [[ -d /work ]] || work=$(mktemp -d)/wt
  git -C "$repo" worktree add --detach "$work" "$code_commit" >/dev/null
  # Expanded now: $work is gone by the time the shell exits.
  trap "git -C '$repo' worktree remove --force '$work' >/dev/null 2>&1 || true" EXIT
  if [[ -n $tests_commit ]]; then
    git -C "$work" rm -rq tests
    git -C "$work" checkout "$tests_commit" -- tests
    # A test program of a unit the code commit does not have yet cannot
    # build against it, nor run any of its lines: it is left out.
    local program header
    for program in "$work"/tests/*_test.cpp; do
      for header in $(sed -n 's/^#include "\(tarnifs\/[a-z_]*\.h\)".*/\1/p' "$program"); do
        if [[ ! -e $work/$header ]]; then
          echo "leaving out $(basename "$program"): $header is not in $code_commit" >&2
          rm "$program"; break
        fi
      done
    done
    # Code from before the record kept its open-file and rare fields apart
    # holds them in the record itself: what the tests read through Extras()
    # and write through EditExtras() is then the record.
    if ! grep -q 'EditExtras' "$work/tarnifs/catalogue.h"; then
      printf '%s\n' 'inline const _KTL_OBJECT &Extras(const _KTL_OBJECT *object) { return *object; }' \
        'inline _KTL_OBJECT &EditExtras(_KTL_OBJECT *object) { return *object; }' >> "$work/tarnifs/catalogue.h"
    fi
  fi
  # The setup script's own test runs no tarnifs code and takes longest.
  skip='^SetupPackages\.'
  # A map and results left by an interrupted run are taken up where they stopped.
  if [[ ! -s $results.coverage ]]; then
    echo "mapping which tests run which lines ($(date +%T))" >&2
    map_coverage "$work" "$results.coverage.part"
    mv "$results.coverage.part" "$results.coverage"
  fi
  # Quick to build and link: -O1 without debug information, linked by lld.
  cmake -S "$work" -B "$work/build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE='-O1 -DNDEBUG' \
    -DCMAKE_C_FLAGS_RELEASE='-O1 -DNDEBUG' -DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld -DQUORVEL_BENCH=OFF \
    -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
  cmake --build "$work/build" -j "$(nproc)" -- --no-print-directory >/dev/null
  echo "checking the unmutated suite ($(date +%T))" >&2
  (cd "$work/build" && ctest -j "$(nproc)" -E "$skip" --timeout 300 >/dev/null) ||
    { echo "the unmutated suite fails in $work: nothing to measure" >&2; exit 1; }
  touch "$results"
  local n=0 file line from to
  while IFS=$'\t' read -r file line from to; do
    n=$((n + 1))
    grep -q "^$n " "$results" && continue
    if [[ $(sed -n "${line}p" "$work/$file") != "$from" ]]; then
      echo "$n stale $file:$line" >> "$results"; continue
    fi
    local covering
    covering=$(awk -F'\t' -v f="$file" -v l="$line" '$1 == f && $2 == l { gsub(/[.]/, "\\.", $3); printf "%s^%s$", sep, $3; sep = "|" }' \
               "$results.coverage")
    # A line no test was seen to run (a process that never wrote its coverage
    # counts) is tried against the whole suite.
    local select=(-R "$covering" -E "$skip")
    [[ -z $covering ]] && select=(-E "$skip")
    local escaped
    escaped=$(printf '%s' "$to" | sed 's/[&\\|]/\\&/g')
    sed -i "${line}s|.*|${escaped}|" "$work/$file"
    local verdict attempt failed
    if ! cmake --build "$work/build" -j "$(nproc)" -- --no-print-directory < /dev/null >/dev/null 2>&1; then
      verdict="no-build"
    else
      verdict="missed"
      # A failure counts only when the failing test fails again on its own:
      # on a loaded machine an end-to-end test can miss a deadline once.
      for attempt in 1 2; do
        (cd "$work/build" && ctest -j "$(nproc)" --stop-on-failure --timeout 120 "${select[@]}" \
           < /dev/null > "$work/build/mutant.log" 2>&1) && break
        failed=$(awk '/The following tests FAILED/ { f = 1; next } f && NF { print $3; exit }' \
                 "$work/build/mutant.log")
        if ! (cd "$work/build" && ctest --timeout 120 -R "^${failed//./\\.}\$" < /dev/null > /dev/null 2>&1); then
          verdict="caught $failed"; break
        fi
        verdict="missed (flaky: $failed)"
      done
    fi
    echo "$n $verdict $file:$line" | tee -a "$results"
    git -C "$work" checkout -q -- "$file"
  done < "$list"
}

table() {
  local before=$1 after=$2
  awk '
    FNR == 1 { run++ }
    { verdict[run, $1] = $2; where[$1] = $NF; if ($1 > last) last = $1 }
    END {
      for (i = 1; i <= last; i++) {
        if (verdict[1, i] == "no-build" || verdict[1, i] == "stale") { unbuilt++; continue }
        built++
        if (verdict[1, i] == "caught") b++
        if (verdict[2, i] == "caught") a++
        if (verdict[1, i] != verdict[2, i]) diff = diff sprintf("| %d | %s | %s | %s |\n", i, where[i], verdict[1, i], verdict[2, i])
      }
      printf "| | before | after |\n|---|---|---|\n| faults built and run | %d | %d |\n", built, built
      printf "| caught | %d | %d |\n| missed | %d | %d |\n", b, a, built - b, built - a
      if (unbuilt) printf "\n%d more did not build (the same both times) and are not counted.\n", unbuilt
      if (diff != "") printf "\nCaught by one suite only:\n\n| fault | where | before | after |\n|---|---|---|---|\n%s", diff
    }' "$before" "$after"
}

case ${1:-} in
  pick) shift; pick "$@" ;;
  run) shift; run "$@" ;;
  table) shift; table "$@" ;;
  *) sed -n '2,17p' "$0" >&2; exit 2 ;;
esac
