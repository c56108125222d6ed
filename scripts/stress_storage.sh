#!/usr/bin/env bash
# Runs stress-ng's file stressors with --verify, one after another, on
# /Storage of a simulated device mounted through quorvelfs, and prints one
# line per stressor: pass or fail, and the first failure stress-ng gave.
#
#   scripts/stress_storage.sh BUILD_DIR [SECONDS_EACH]   (default 7 s each)
#
# Everything it makes lives in a private temporary folder, removed at the end.
set -euo pipefail
build=$(cd "${1:?usage: $0 BUILD_DIR [SECONDS_EACH]}" && pwd)
seconds=${2:-7}
stressors=(hdd rename dir dentry filename seek fstat io readahead fallocate copy-file sendfile utime xattr link symlink)
command -v stress-ng >/dev/null || { echo "stress-ng is not installed (package stress-ng)" >&2; exit 2; }

work=$(mktemp -d)
devsim_pid=""
fs_pid=""
cleanup() {
  if [ -n "$fs_pid" ]; then fusermount3 -u "$work/mnt" 2>/dev/null || umount "$work/mnt" 2>/dev/null || true; wait "$fs_pid" 2>/dev/null || true; fi
  if [ -n "$devsim_pid" ]; then kill "$devsim_pid" 2>/dev/null || true; wait "$devsim_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

"$build/devsim/devsim" make-sample "$work/image" >/dev/null
location=$(sed -n 's/.*"location_id": *\([0-9]*\).*/\1/p' "$work/image/device.json")
mkdir -p "$work/mnt"
"$build/devsim/devsim" serve --socket "$work/usbmux.sock" "$work/image" >"$work/devsim.out" 2>&1 &
devsim_pid=$!
for _ in $(seq 50); do grep -q '^ready:' "$work/devsim.out" && break; sleep 0.1; done
USBMUXD_SOCKET_ADDRESS="UNIX:$work/usbmux.sock" QUORVEL_LOG_DIR="$work" QUORVEL_PIPE="$work/pipe" \
  QUORVEL_DIALOG=/bin/true "$build/tools/quorvelfs" "$work/mnt" -f -devopt "$location" >"$work/fs.out" 2>&1 &
fs_pid=$!
for _ in $(seq 100); do mountpoint -q "$work/mnt" && break; sleep 0.1; done
mountpoint -q "$work/mnt" || { echo "the mount did not appear" >&2; exit 1; }
mkdir "$work/mnt/Storage/stress"

failed=0
for stressor in "${stressors[@]}"; do
  out="$work/$stressor.out"
  status=0
  timeout $((seconds * 10 + 60)) stress-ng --"$stressor" 1 --timeout "$seconds" --verify \
    --temp-path "$work/mnt/Storage/stress" --stdout >"$out" 2>&1 || status=$?
  if [ "$status" -eq 0 ] && ! grep -q ' fail: ' "$out"; then
    printf '%-10s pass\n' "$stressor"
  elif [ "$status" -eq 3 ]; then
    # stress-ng's "not implemented here": what it needs was refused (symlinks).
    printf '%-10s skipped by stress-ng: %s\n' "$stressor" "$(grep -m1 -iE 'not supported|not implemented|skipp' "$out" | sed 's/^.*\] //')"
  else
    failed=$((failed + 1))
    printf '%-10s FAIL (exit %s) %s\n' "$stressor" "$status" "$(grep -m1 -E ' fail: | error: ' "$out" | sed 's/^.*\] //')"
  fi
done
left=$(find "$work/image/media/general_storage/stress" -mindepth 1 | wc -l)
echo "left behind on the device: $left entries"
exit $((failed > 0))
