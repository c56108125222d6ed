#!/usr/bin/env bash
# Runs every benchmark against a build folder and prints the figures.
# Usage: bench/run.sh [BUILD_DIR]
# The mount benchmarks need /dev/fuse and (but for the media listing one)
# ifuse; without them they say so and are left out, and the others still run.
set -uo pipefail

build=${1:-build}
here=$(cd "$(dirname "$0")" && pwd)
failed=0

echo "== catalogue lookups (100,000 paths) =="
if [ -x "$build/bench/catalogue_bench" ]; then
  "$build/bench/catalogue_bench" || failed=1
else
  echo "not built: $build/bench/catalogue_bench (is Google Benchmark installed?)"
  failed=1
fi

if [ -e /dev/fuse ] && command -v ifuse >/dev/null; then
  echo "== cp of 256 MiB out of an ifuse mount of devsim =="
  bash "$here/devsim_cp.sh" "$build" < /dev/null || failed=1
  echo "== ls -l of a 30,000-entry folder: Quorvel and ifuse =="
  bash "$here/listing_vs_ifuse.sh" "$build" < /dev/null || failed=1
  echo "== cp of 256 MiB out of and into the device: Quorvel, ifuse and raw AFC =="
  bash "$here/cp_vs_ifuse.sh" "$build" < /dev/null || failed=1
  echo "== mv of 256 MiB and of 1,000 small files from /Storage into an app: Quorvel and raw AFC =="
  bash "$here/mv_vs_raw.sh" "$build" < /dev/null || failed=1
else
  echo "left out: the mount benchmarks need /dev/fuse and ifuse"
fi

# These compare with raw AFC only, so they need no ifuse.
if [ -e /dev/fuse ]; then
  echo "== first listings of /Media (50,000 photos, 10,000 songs) and a 100 MB database copy: Quorvel and raw AFC =="
  bash "$here/media_listing.sh" "$build" < /dev/null || failed=1
  echo "== ls of a hostile device's 1,000,000-entry folder: time and memory =="
  bash "$here/hostile_listing.sh" "$build" < /dev/null || failed=1
  echo "== ls -l of 30,000 entries and of ten app folders at once: a service limit of 3 and none =="
  bash "$here/service_limit.sh" "$build" < /dev/null || failed=1
else
  echo "left out: the media listing, hostile listing and service limit benchmarks need /dev/fuse"
fi

if [ -e /dev/fuse ] && command -v heif-convert >/dev/null && command -v identify >/dev/null; then
  echo "== 100 12-megapixel HEIC stills copied as JPEG views: Quorvel -o jpeg, heif-convert and a plain copy =="
  bash "$here/jpeg_views.sh" "$build" < /dev/null || failed=1
else
  echo "left out: the JPEG views benchmark needs /dev/fuse, heif-convert and ImageMagick"
fi
exit $failed
