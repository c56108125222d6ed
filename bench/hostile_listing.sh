#!/usr/bin/env bash
# Lists a hostile device's 1,000,000-entry folder through a Quorvel mount
# (devsim makes the entries up as they are listed; nothing is on disk) and
# prints the time to list, quorvelfs's peak resident memory (VmHWM) and
# resident memory (VmRSS) before and after, and what each catalogue record
# costs: (VmHWM after - VmHWM before) / entries.
# Usage: bench/hostile_listing.sh [BUILD_DIR] [FOLDER]
#   FOLDER: million (default) or hundred-thousand
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/common.sh"

build=${1:-build}
folder=${2:-million}
devsim="$build/devsim/devsim"
quorvelfs="$build/tools/quorvelfs"
require_built "$devsim" "$quorvelfs"
require_fuse

work=$(mktemp -d /tmp/quorvel-bench-XXXXXX)
sim=""
fs=""
cleanup() {
  "$fusermount" -u -z "$work/mnt" 2>/dev/null || true
  if [ -n "$fs" ]; then kill -TERM "$fs" 2>/dev/null || true; wait "$fs" 2>/dev/null || true; fi
  if [ -n "$sim" ]; then kill -TERM "$sim" 2>/dev/null || true; wait "$sim" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

location=88
mkdir -p "$work/image/media/general_storage" "$work/mnt" "$work/log"
cat > "$work/image/device.json" <<JSON
{"name": "Hostile bench", "location_id": $location, "hostile": ["million"]}
JSON

"$devsim" serve --socket "$work/mux.sock" "$work/image" > "$work/ready" 2> "$work/devsim.log" &
sim=$!
for _ in $(seq 1 200); do grep -q ready "$work/ready" 2>/dev/null && break; sleep 0.05; done
grep -q ready "$work/ready" || { echo "devsim did not start" >&2; cat "$work/devsim.log" >&2; exit 1; }

USBMUXD_SOCKET_ADDRESS="UNIX:$work/mux.sock" QUORVEL_LOG_DIR="$work/log" QUORVEL_DIALOG=/bin/true \
  "$quorvelfs" "$work/mnt" -f -devopt "$location" > "$work/quorvelfs.out" 2>&1 &
fs=$!
for _ in $(seq 1 400); do grep -q " $work/mnt fuse" /proc/mounts && break; sleep 0.05; done
grep -q " $work/mnt fuse" /proc/mounts || { echo "the mount did not appear" >&2; exit 1; }

kib() { awk -v key="$1:" '$1 == key { print $2 }' "/proc/$fs/status"; }

# Everything up to the big folder is listed first, so that "before" holds
# the connections and the catalogue the listing starts from.
ls "$work/mnt/Storage/Hostile" > /dev/null
hwm_before=$(kib VmHWM)
rss_before=$(kib VmRSS)

start=$EPOCHREALTIME
entries=$(ls -f "$work/mnt/Storage/Hostile/$folder" | grep -cv '^\.\.\?$' || true)
end=$EPOCHREALTIME
hwm_after=$(kib VmHWM)
rss_after=$(kib VmRSS)
kill -0 "$fs" 2>/dev/null || { echo "quorvelfs is gone" >&2; exit 1; }

awk -v s="$start" -v e="$end" -v n="$entries" -v hb="$hwm_before" -v ha="$hwm_after" \
    -v rb="$rss_before" -v ra="$rss_after" -v f="$folder" 'BEGIN {
  printf "folder                 %s\n", f
  printf "entries listed         %d\n", n
  printf "time to list           %.2f s\n", e - s
  printf "VmHWM before / after   %d / %d KiB\n", hb, ha
  printf "VmRSS before / after   %d / %d KiB\n", rb, ra
  if (n > 0) printf "bytes per record       %.0f (VmHWM), %.0f (VmRSS)\n", (ha - hb) * 1024 / n, (ra - rb) * 1024 / n
}'
