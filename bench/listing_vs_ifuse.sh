#!/usr/bin/env bash
# `ls -l` of a Storage folder of 30,000 entries and of one of 1,000 through
# Quorvel and through ifuse, on the same simulated device, first and second
# listing, with shaping off and with 300 us of latency per request. The second
# listing comes 2 s after the first, as when a user looks at a folder again:
# ifuse's kernel caches last 1 s, so a second listing straight after a short
# first one would only measure that cache.
# Usage: [DEVSIM_ARGS=--no-tls] bench/listing_vs_ifuse.sh [BUILD_DIR]
# (DEVSIM_ARGS: more devsim options; --no-tls skips the TLS of lockdown sessions)
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/common.sh"

build=${1:-build}
devsim="$build/devsim/devsim"
quorvelfs="$build/tools/quorvelfs"
require_built "$devsim" "$quorvelfs"
command -v ifuse >/dev/null || { echo "ifuse is not installed" >&2; exit 1; }

require_fuse

work=$(mktemp -d /tmp/quorvel-bench-XXXXXX)
pid=""
cleanup() {
  "$fusermount" -u -z "$work/quorvel" 2>/dev/null || true
  "$fusermount" -u -z "$work/ifuse" 2>/dev/null || true
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

udid=be9c0000000000000000000000000000000000dd
location=31
mkdir -p "$work/image/media/general_storage/big" "$work/image/media/general_storage/small" \
  "$work/quorvel" "$work/ifuse" "$work/log"
cat > "$work/image/device.json" <<JSON
{"name": "Bench", "udid": "$udid", "location_id": $location, "capacity_bytes": 64000000000, "block_size": 4096}
JSON
(cd "$work/image/media/general_storage/big" && seq -f 'entry%05g.txt' 1 30000 | xargs touch)
(cd "$work/image/media/general_storage/small" && seq -f 'entry%04g.txt' 1 1000 | xargs touch)

wait_for_mount() {
  for _ in $(seq 1 400); do grep -q " $1 fuse" /proc/mounts && return 0; sleep 0.05; done
  echo "mount did not appear at $1" >&2; exit 1
}

run() {
  local label=$1; shift
  # shellcheck disable=SC2086  # DEVSIM_ARGS is a list of options
  "$devsim" serve --socket "$work/mux.sock" ${DEVSIM_ARGS:-} "$@" "$work/image" > "$work/ready" 2> "$work/devsim.log" &
  pid=$!
  for _ in $(seq 1 200); do grep -qs '^ready:' "$work/ready" && break; sleep 0.05; done
  export USBMUXD_SOCKET_ADDRESS="UNIX:$work/mux.sock"
  QUORVEL_LOG_DIR="$work/log" QUORVEL_PIPE="$work/no-tray" "$quorvelfs" "$work/quorvel" -devopt "$location" \
    > "$work/quorvelfs.out" 2>&1 < /dev/null
  wait_for_mount "$work/quorvel"
  ifuse -u "$udid" "$work/ifuse" > "$work/ifuse.out" 2>&1 < /dev/null
  wait_for_mount "$work/ifuse"

  for folder in big small; do
    local q1 q2 i1 i2 count expected
    expected=$(ls "$work/image/media/general_storage/$folder" | wc -l)
    q1=$(seconds ls -l "$work/quorvel/Storage/$folder")
    sleep 2
    q2=$(seconds ls -l "$work/quorvel/Storage/$folder")
    i1=$(seconds ls -l "$work/ifuse/general_storage/$folder")
    sleep 2
    i2=$(seconds ls -l "$work/ifuse/general_storage/$folder")
    count=$(ls "$work/quorvel/Storage/$folder" | wc -l)
    [ "$count" -eq "$expected" ] || { echo "Quorvel listed $count entries, not $expected" >&2; exit 1; }
    awk -v l="$label, $expected entries" -v q1="$q1" -v q2="$q2" -v i1="$i1" -v i2="$i2" 'BEGIN {
      printf "%-34s first:  Quorvel %8.4f s  ifuse %8.4f s  (ifuse/Quorvel %6.2f)\n", l, q1, i1, i1 / q1
      printf "%-34s second: Quorvel %8.4f s  ifuse %8.4f s  (ifuse/Quorvel %6.2f)\n", "", q2, i2, i2 / q2
    }'
  done

  "$fusermount" -u "$work/quorvel"
  "$fusermount" -u "$work/ifuse"
  kill -TERM "$pid"; wait "$pid" || true; pid=""
  unset USBMUXD_SOCKET_ADDRESS
}

echo "ls -l of Storage folders through Quorvel and ifuse on devsim; load before: $(cut -d' ' -f1-3 /proc/loadavg)"
run "shaping off"
run "--latency-us 300" --latency-us 300
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
