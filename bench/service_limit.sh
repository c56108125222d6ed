#!/usr/bin/env bash
# A phone opens only so many services at once. `ls -l` of a Storage folder of
# 30,000 entries, then of ten app folders at once (ten `ls -l` started
# together), through Quorvel on a simulated device that opens at most three
# (lockdown and the media connection take two), and the same with no limit.
# Usage: bench/service_limit.sh [BUILD_DIR]
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/common.sh"

build=${1:-build}
devsim="$build/devsim/devsim"
quorvelfs="$build/tools/quorvelfs"
require_built "$devsim" "$quorvelfs"
require_fuse

work=$(mktemp -d /tmp/quorvel-bench-XXXXXX)
pid=""
cleanup() {
  "$fusermount" -u -z "$work/mnt" 2>/dev/null || true
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  [ -n "${KEEP_BENCH:-}" ] && echo "kept $work" >&2 || rm -rf "$work"
}
trap cleanup EXIT

udid=be9c0000000000000000000000000000000000ee
location=32
apps=""
mkdir -p "$work/image/media/general_storage/big" "$work/mnt" "$work/log"
for n in 0 1 2 3 4 5 6 7 8 9; do
  mkdir -p "$work/image/apps/com.example.app$n/Documents"
  (cd "$work/image/apps/com.example.app$n/Documents" && seq -f 'doc%04g.txt' 1 500 | xargs touch)
  apps+="${apps:+, }{\"bundle_id\": \"com.example.app$n\", \"display_name\": \"App $n\", \"file_sharing\": true}"
done
cat > "$work/image/device.json" <<JSON
{"name": "Bench", "udid": "$udid", "location_id": $location, "capacity_bytes": 64000000000, "block_size": 4096,
 "apps": [$apps]}
JSON
(cd "$work/image/media/general_storage/big" && seq -f 'entry%05g.txt' 1 30000 | xargs touch)

list_apps_at_once() {
  local n listers=()
  for n in 0 1 2 3 4 5 6 7 8 9; do ls -l "$work/mnt/Apps/App $n" > "$work/apps$n.out" & listers+=($!); done
  for n in "${listers[@]}"; do wait "$n"; done
  for n in 0 1 2 3 4 5 6 7 8 9; do
    [ "$(grep -c 'doc' "$work/apps$n.out")" -eq 500 ] || { echo "App $n did not list whole" >&2; exit 1; }
  done
}

# Prints "STORAGE_SECONDS APPS_SECONDS" for one devsim limit (0: none).
measure() {
  local limit=$1 big apps
  "$devsim" serve --socket "$work/mux.sock" "$work/image" > "$work/ready" 2> "$work/devsim.log" &
  pid=$!
  for _ in $(seq 1 200); do grep -qs '^ready:' "$work/ready" && break; sleep 0.05; done
  export USBMUXD_SOCKET_ADDRESS="UNIX:$work/mux.sock"
  "$devsim" control "$work/mux.sock.control" service-limit "$udid" "$limit" > /dev/null
  QUORVEL_LOG_DIR="$work/log" QUORVEL_PIPE="$work/no-tray" QUORVEL_DIALOG=/bin/true "$quorvelfs" "$work/mnt" \
    -devopt "$location" > "$work/quorvelfs.out" 2>&1 < /dev/null
  for _ in $(seq 1 400); do grep -q " $work/mnt fuse" /proc/mounts && break; sleep 0.05; done
  ls "$work/mnt/Apps" > /dev/null
  big=$(seconds ls -l "$work/mnt/Storage/big")
  [ "$(ls "$work/mnt/Storage/big" | wc -l)" -eq 30000 ] || { echo "Storage/big did not list whole" >&2; exit 1; }
  apps=$(seconds list_apps_at_once)
  "$fusermount" -u "$work/mnt"
  kill -TERM "$pid"; wait "$pid" || true; pid=""
  unset USBMUXD_SOCKET_ADDRESS
  echo "$big $apps"
}

echo "ls -l under a service limit of 3 and with none; load before: $(cut -d' ' -f1-3 /proc/loadavg)"
read -r limited_big limited_apps < <(measure 3)
read -r free_big free_apps < <(measure 0)
awk -v lb="$limited_big" -v la="$limited_apps" -v fb="$free_big" -v fa="$free_apps" 'BEGIN {
  printf "%-40s limit 3 %8.3f s   no limit %8.3f s   (limit/none %5.2f)\n", "Storage folder of 30,000 entries", lb, fb, lb / fb
  printf "%-40s limit 3 %8.3f s   no limit %8.3f s   (limit/none %5.2f)\n", "ten app folders of 500, at once", la, fa, la / fa
}'
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
