# Shared by the benchmark scripts: sourced, never run.

# Stops the benchmark unless every program given is built.
require_built() {
  local program
  for program in "$@"; do
    [ -x "$program" ] || { echo "not built: $program" >&2; exit 1; }
  done
}

# Stops the benchmark unless FUSE can be mounted; sets $fusermount.
require_fuse() {
  [ -e /dev/fuse ] || { echo "/dev/fuse is missing" >&2; exit 1; }
  fusermount=$(command -v fusermount3 || command -v fusermount || true)
  [ -n "$fusermount" ] || { echo "neither fusermount3 nor fusermount is installed" >&2; exit 1; }
}

# Runs "$@" with its output thrown away and prints the wall time in seconds,
# by bash's own clock: starting `date` twice would add milliseconds to
# commands that take only a few.
seconds() {
  local start end
  start=$EPOCHREALTIME
  "$@" > /dev/null
  end=$EPOCHREALTIME
  awk -v s="$start" -v e="$end" 'BEGIN { printf "%.4f", e - s }'
}
