#!/usr/bin/env bash
# JPEG views of HEIC stills: 100 real 12-megapixel HEIC photos copied out of
# /Media/Photo with -o jpeg (converted on the fly), against
#   - heif-convert turning the same HEIC files into JPEGs on this machine,
#     as many at once as there are cores (the same cores Quorvel uses), and
#   - a plain copy of the HEICs themselves through Quorvel (no conversion),
# both copies with devsim shaping the link like USB 2: --bandwidth-mbps 35 (MB/s)
# --latency-us 300. Figures: photos per second and CPU seconds used (the
# file system's process for the copies; heif-convert's for the local run).
# The aim is a conversion at least as fast as the link delivers the HEICs.
#
# Every JPEG copied is checked to be a JPEG of the still's size, so a broken
# conversion cannot pass for a fast one.
# Usage: bench/jpeg_views.sh [BUILD_DIR] [PHOTOS]
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/common.sh"

build=${1:-build}
photos=${2:-100}
devsim="$build/devsim/devsim"
quorvelfs="$build/tools/quorvelfs"
require_built "$devsim" "$quorvelfs"
command -v heif-convert >/dev/null || { echo "heif-convert is not installed (libheif-examples)" >&2; exit 1; }
command -v identify >/dev/null || { echo "identify is not installed (imagemagick)" >&2; exit 1; }
require_fuse

cores=$(nproc)
work=$(mktemp -d /tmp/quorvel-bench-XXXXXX)
pid=""
fs_pid=""
cleanup() {
  "$fusermount" -u -z "$work/mnt" 2>/dev/null || true
  if [ -n "$fs_pid" ]; then wait "$fs_pid" 2>/dev/null || true; fi
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

udid=be9c0000000000000000000000000000000009499
location=9499
mkdir -p "$work/image/media" "$work/mnt" "$work/log"
cat > "$work/image/device.json" <<JSON
{"name": "Bench", "udid": "$udid", "location_id": $location, "capacity_bytes": 64000000000, "block_size": 4096}
JSON
# About one asset in three is not a plain HEIC still (videos, screenshots,
# iCloud-only, hidden, burst frames): half as many again covers the count.
"$devsim" make-media "$work/image" --photo-family modern --photos $((photos * 3 / 2 + 20)) --songs 0 --memos 0 \
  --photo-size 4032x3024 >&2

start_devsim() {
  rm -f "$work/ready"
  "$devsim" serve --socket "$work/mux.sock" --bandwidth-mbps 35 --latency-us 300 "$work/image" \
    > "$work/ready" 2> "$work/devsim.log" &
  pid=$!
  for _ in $(seq 1 200); do grep -qs '^ready:' "$work/ready" && break; sleep 0.05; done
  grep -qs '^ready:' "$work/ready" || { echo "devsim did not start" >&2; cat "$work/devsim.log" >&2; exit 1; }
  export USBMUXD_SOCKET_ADDRESS="UNIX:$work/mux.sock"
}

mount_quorvel() {  # mount_quorvel [FUSE OPTIONS...]
  QUORVEL_LOG_DIR="$work/log" QUORVEL_PIPE="$work/no-tray" "$quorvelfs" "$work/mnt" -f "$@" -devopt "$location" \
    > "$work/quorvelfs.out" 2>&1 < /dev/null &
  fs_pid=$!
  for _ in $(seq 1 400); do grep -q " $work/mnt fuse" /proc/mounts && break; sleep 0.05; done
  grep -q " $work/mnt fuse" /proc/mounts || { echo "mount did not appear" >&2; cat "$work/quorvelfs.out" >&2; exit 1; }
  ls "$work/mnt/Media/Photo/Camera Roll" > "$work/roll.ls"
}

unmount_quorvel() {
  "$fusermount" -u "$work/mnt"
  wait "$fs_pid" || true
  fs_pid=""
  for _ in $(seq 1 200); do [ -e "/tmp/$location" ] || return 0; sleep 0.05; done
}

cpu_seconds() {  # cpu_seconds PID: user + system time of a running process
  awk -v hz="$(getconf CLK_TCK)" '{ printf "%.2f", ($14 + $15) / hz }' "/proc/$1/stat"
}

report() {  # report LABEL SECONDS CPU
  awk -v l="$1" -v t="$2" -v c="$3" -v n="$photos" -v mb="$4" \
    'BEGIN { printf "%-46s %6.2f s  %5.2f photos/s  %6.1f MB/s  CPU %6.2f s (%3.0f%% of %d cores)\n",
             l, t, n / t, mb / t, c, 100 * c / t / '"$cores"', '"$cores"' }'
}

copy_timed() {  # copy_timed LABEL DEST NAMES_FILE: copies the named Camera Roll files, one cp
  local start end before after
  mkdir -p "$2"
  mapfile -t names < "$3"
  local paths=()
  for name in "${names[@]}"; do paths+=("$work/mnt/Media/Photo/Camera Roll/$name"); done
  before=$(cpu_seconds "$fs_pid")
  start=$EPOCHREALTIME
  cp "${paths[@]}" "$2/"
  end=$EPOCHREALTIME
  after=$(cpu_seconds "$fs_pid")
  local bytes
  bytes=$(du -cb "$2" | tail -1 | cut -f1)
  report "$1" "$(awk -v s="$start" -v e="$end" 'BEGIN { print e - s }')" \
    "$(awk -v a="$before" -v b="$after" 'BEGIN { print b - a }')" "$(awk -v b="$bytes" 'BEGIN { print b / 1e6 }')"
}

start_devsim

# The HEICs as they are, through a plain mount.
mount_quorvel
grep '\.HEIC$' "$work/roll.ls" | head -n "$photos" > "$work/heic.names"
[ "$(wc -l < "$work/heic.names")" -eq "$photos" ] || { echo "fewer than $photos HEIC stills listed" >&2; exit 1; }
echo "$photos HEIC stills of 4032x3024, $(du -cb "$work/image/media/DCIM" | tail -1 | cut -f1) bytes in DCIM; $cores cores"
copy_timed "cp of the HEICs, no conversion (35 MB/s link)" "$work/heic" "$work/heic.names"
unmount_quorvel

# The same stills as JPEG views.
mount_quorvel -o jpeg
sed 's/\.HEIC$/.JPG/' "$work/heic.names" > "$work/jpeg.names"
copy_timed "cp of the JPEG views, -o jpeg (35 MB/s link)" "$work/jpeg" "$work/jpeg.names"
unmount_quorvel
while read -r name; do
  size=$(identify -format '%wx%h' "$work/jpeg/$name")
  case "$size" in 4032x3024|3024x4032) ;; *) echo "$name is not a 12-megapixel JPEG ($size)" >&2; exit 1 ;; esac
done < "$work/jpeg.names"

# heif-convert on the same files, $cores at a time.
mkdir -p "$work/local"
start=$EPOCHREALTIME
times_before=$(awk '{ print $14 + $15 + $16 + $17 }' /proc/$$/stat)
sed 's/\.HEIC$//' "$work/heic.names" |
  xargs -P "$cores" -I{} heif-convert -q 90 "$work/heic/{}.HEIC" "$work/local/{}.jpg" > /dev/null
end=$EPOCHREALTIME
times_after=$(awk '{ print $14 + $15 + $16 + $17 }' /proc/$$/stat)
report "heif-convert -q 90 of the same files, $cores at once" "$(awk -v s="$start" -v e="$end" 'BEGIN { print e - s }')" \
  "$(awk -v a="$times_before" -v b="$times_after" -v hz="$(getconf CLK_TCK)" 'BEGIN { print (b - a) / hz }')" \
  "$(du -cb "$work/local" | tail -1 | cut -f1 | awk '{ print $1 / 1e6 }')"
