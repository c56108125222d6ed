#!/usr/bin/env bash
# Throughput of `cp` of a 256 MiB file out of an ifuse mount of devsim, with
# shaping off and with USB-2-like shaping. Usage: bench/devsim_cp.sh [BUILD_DIR]
set -euo pipefail

build=${1:-build}
devsim="$build/devsim/devsim"
[ -x "$devsim" ] || { echo "devsim not built at $devsim" >&2; exit 1; }
command -v ifuse >/dev/null || { echo "ifuse is not installed" >&2; exit 1; }
[ -e /dev/fuse ] || { echo "/dev/fuse is missing" >&2; exit 1; }

work=$(mktemp -d /tmp/devsim-bench-XXXXXX)
pid=""
cleanup() {
  fusermount -u -z "$work/mnt" 2>/dev/null || true
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

udid=be9c0000000000000000000000000000000000cc
mkdir -p "$work/image/media/general_storage" "$work/mnt"
cat > "$work/image/device.json" <<JSON
{"name": "Bench", "udid": "$udid", "location_id": 9, "capacity_bytes": 64000000000, "block_size": 4096}
JSON
head -c $((256 * 1024 * 1024)) /dev/urandom > "$work/image/media/general_storage/big.bin"

run() {
  local label=$1; shift
  "$devsim" serve --socket "$work/mux.sock" "$@" "$work/image" > "$work/ready" 2> "$work/log" &
  pid=$!
  for _ in $(seq 1 200); do grep -qs '^ready:' "$work/ready" && break; sleep 0.05; done
  USBMUXD_SOCKET_ADDRESS="UNIX:$work/mux.sock" ifuse -u "$udid" "$work/mnt"
  local start end
  start=$(date +%s.%N)
  cp "$work/mnt/general_storage/big.bin" "$work/copy.bin"
  end=$(date +%s.%N)
  cmp -s "$work/copy.bin" "$work/image/media/general_storage/big.bin" || { echo "copy differs" >&2; exit 1; }
  fusermount -u "$work/mnt"
  kill -TERM "$pid"; wait "$pid" || true; pid=""
  rm -f "$work/copy.bin"
  awk -v s="$start" -v e="$end" -v l="$label" \
    'BEGIN { t = e - s; printf "%-40s %7.2f s  %8.1f MB/s\n", l, t, 268.435456 / t }'
}

run "shaping off"
run "--bandwidth-mbps 35 --latency-us 300" --bandwidth-mbps 35 --latency-us 300
