#!/usr/bin/env bash
# Move throughput on one simulated device: `mv` from /Storage into an app's
# folder through a Quorvel mount, which the file system carries out as a
# device-to-device copy (read through the media AFC connection, write through
# a house-arrest connection under a hidden name, size check, rename, remove
# the source), set against a raw client (bench/afc_raw_move) that does the
# same work with libimobiledevice alone: 64 KiB reads and writes, the chunk
# the file system copies with, and no staging name or checks.
# Two loads: a 256 MiB file, and a folder of 1,000 files of 4 KiB. Each is run
# with shaping off and with --bandwidth-mbps 35 --latency-us 300 (a phone on
# USB 2).
# Usage: bench/mv_vs_raw.sh [BUILD_DIR]
#
# Columns of the table:
#   shaping   devsim's traffic shaping for that row
#   load      "big": mv MNT/Storage/big.bin MNT/Apps/Files/, in MB/s (10^6
#             bytes of the file per second; each byte is read once and
#             written once on the device);
#             "small": mv MNT/Storage/small MNT/Apps/Files/, in files/s
#   Quorvel   the rate of `mv` through a Quorvel mount (build/tools/quorvelfs)
#   raw       the rate of afc_raw_move on the same data
#   Q/raw     Quorvel divided by raw (1 would be all the protocols give)
# A mount's time is the wall time of `mv` ($EPOCHREALTIME around it); the
# raw client's is its own, from the first request about the source to the
# removal of the last one. Neither counts connecting, mounting or vending the
# app's documents. Before `mv` is timed, the source and the app folder are
# looked up once (stat), so listing the apps and /Storage is not counted; the
# moved folder's own listing is, as it is for the raw client.
#
# Every run has a fresh image (the same bytes each time, copied from a kept
# set), a fresh devsim and, for Quorvel, a fresh mount. A figure is printed
# only when, afterwards, the app's documents hold exactly the kept bytes
# (cmp, or diff -r for the folder), nothing else (no hidden staging copy),
# and the source is gone from the image. Otherwise the cell says "n/a" and a
# line under the row says why. Exit status: 1 when any run failed or came out
# wrong, otherwise 0.
#
# MV_BENCH_MIB (default 256) and MV_BENCH_FILES (default 1000) change the
# loads for a quick trial; every run is under `timeout` (MV_BENCH_TIMEOUT
# seconds, default 300). MV_BENCH_REPEAT=N (default 1) runs each cell N
# times, Quorvel and raw in turn, and prints the best rate of each, which
# steadies the figures on a machine that is not idle; every failed run is
# still listed under its row and fails the benchmark. MV_BENCH_REQUESTS=1
# runs devsim with --verbose and adds, under each row, the AFC requests each
# side sent, by operation (the logging costs a little time, on both sides
# alike). The load average is
# printed before and after: figures from a busy machine are not comparable.
set -uo pipefail

build=${1:-build}
devsim="$build/devsim/devsim"
quorvelfs="$build/tools/quorvelfs"
raw="$build/bench/afc_raw_move"
limit=${MV_BENCH_TIMEOUT:-300}
mib=${MV_BENCH_MIB:-256}
small_files=${MV_BENCH_FILES:-1000}
small_size=4096
count_requests=${MV_BENCH_REQUESTS:-0}
repeat=${MV_BENCH_REPEAT:-1}
case "$repeat" in '' | *[!0-9]* | 0) echo "MV_BENCH_REPEAT takes a whole number from 1" >&2; exit 1 ;; esac
require_built "$devsim" "$quorvelfs" "$raw"
require_fuse

work=$(mktemp -d /tmp/quorvel-mv-bench-XXXXXX)
pid=""
exit_status=0
# shellcheck disable=SC2317  # run by the EXIT trap
cleanup() {
  "$fusermount" -u -z "$work/quorvel" 2>/dev/null || true
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

udid=be9c0000000000000000000000000000000000ef
location=38
bundle=com.example.benchfiles
app_name=Files
big_bytes=$((mib * 1024 * 1024))
image="$work/image"
storage="$image/media/general_storage"
documents="$image/apps/$bundle/Documents"
mkdir -p "$work/quorvel" "$work/log" "$work/kept/small"

# The kept set every image is made from, and every result compared with.
head -c "$big_bytes" /dev/urandom > "$work/kept/big.bin"
head -c $((small_files * small_size)) /dev/urandom > "$work/small.blob"
split -b "$small_size" -a 5 -d --additional-suffix=.bin "$work/small.blob" "$work/kept/small/file-"
rm -f "$work/small.blob"

make_image() {
  rm -rf "$image"
  mkdir -p "$storage" "$documents"
  cat > "$image/device.json" <<JSON
{"name": "Bench", "udid": "$udid", "location_id": $location, "capacity_bytes": 64000000000, "block_size": 4096,
 "apps": [{"bundle_id": "$bundle", "display_name": "$app_name", "file_sharing": true}]}
JSON
  cp "$work/kept/big.bin" "$storage/big.bin"
  cp -r "$work/kept/small" "$storage/small"
}

first_line() { head -n 1 "$1" | sed -e "s|$work/||g" -e 's/^mv: //'; }
rate() {  # rate AMOUNT SECONDS SCALE: AMOUNT / SECONDS / SCALE, one decimal
  awk -v a="$1" -v t="$2" -v s="$3" 'BEGIN { if (t <= 0) t = 1e-9; printf "%.1f", a / t / s }'
}
best() {  # prints the larger of A and B, either of which may be empty
  if [ -z "$1" ]; then printf '%s' "$2"; elif [ -z "$2" ]; then printf '%s' "$1"; else
    awk -v a="$1" -v b="$2" 'BEGIN { print (a + 0 >= b + 0) ? a : b }'; fi
}
ratio() {  # prints A/B, or n/a when either is missing
  if [ -n "$1" ] && [ -n "$2" ]; then awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; else printf "n/a"; fi
}

wait_for_mount() {
  for _ in $(seq 1 200); do grep -q " $1 fuse" /proc/mounts && return 0; sleep 0.05; done
  return 1
}

start_devsim() {
  local verbose=()
  [ "$count_requests" = 1 ] && verbose=(--verbose)
  "$devsim" serve --socket "$work/mux.sock" "${verbose[@]}" "$@" "$image" > "$work/ready" 2> "$work/devsim.log" &
  pid=$!
  # Up to 30 s: on a busy machine a start can take a while.
  for _ in $(seq 1 600); do grep -qs '^ready:' "$work/ready" && break; sleep 0.05; done
  grep -qs '^ready:' "$work/ready" || { echo "devsim did not start: $(head -n 3 "$work/devsim.log")" >&2; exit 1; }
  export USBMUXD_SOCKET_ADDRESS="UNIX:$work/mux.sock"
}

stop_devsim() {
  kill -TERM "$pid"; wait "$pid" 2>/dev/null; pid=""
  unset USBMUXD_SOCKET_ADDRESS
}

# The AFC requests devsim logged since line FROM, by operation name.
requests_since() {
  tail -n +"$1" "$work/devsim.log" | sed -n 's/.*afc: op \(0x[0-9a-f]*\) .*/\1/p' | sort | uniq -c |
    awk '
      BEGIN { n["0x3"]="list"; n["0x8"]="remove"; n["0x9"]="mkdir"; n["0xa"]="info"; n["0xd"]="open";
              n["0xf"]="read"; n["0x10"]="write"; n["0x11"]="seek"; n["0x12"]="tell"; n["0x14"]="close";
              n["0x15"]="truncate"; n["0x18"]="rename"; n["0x1e"]="mtime" }
      { name = ($2 in n) ? n[$2] : $2; printf " %s=%d", name, $1; total += $1 }
      END { printf "  (total %d)", total }'
}

# check NAME: the app's documents hold exactly the kept NAME and nothing else,
# and the source is gone. Sets why when not.
check() {
  local name=$1 listing
  listing=$(ls -A "$documents" 2>/dev/null)
  if [ -d "$work/kept/$name" ]; then
    diff -r "$work/kept/$name" "$documents/$name" > "$work/diff.out" 2>&1 ||
      { why="broken move: $(first_line "$work/diff.out")"; return 1; }
  else
    cmp -s "$work/kept/$name" "$documents/$name" || { why="broken move: the app's copy differs from the source"; return 1; }
  fi
  [ "$listing" = "$name" ] || { why="broken move: the app's documents hold $(echo "$listing" | tr '\n' ' ')"; return 1; }
  [ ! -e "$storage/$name" ] || { why="the source is still in the image"; return 1; }
  return 0
}

# Each run sets seconds (empty when it failed), why and requests.
seconds="" why="" requests=""

# mv_through_mount NAME SHAPING...
mv_through_mount() {
  local name=$1 start end status mark; shift
  seconds="" why="" requests=""
  make_image
  start_devsim "$@"
  if ! XDG_CACHE_HOME="$work/cache" QUORVEL_LOG_DIR="$work/log" QUORVEL_PIPE="$work/no-tray" \
      timeout -k 5 30 "$quorvelfs" "$work/quorvel" -devopt "$location" > "$work/quorvelfs.out" 2>&1 < /dev/null ||
      ! wait_for_mount "$work/quorvel"; then
    why="mount failed: $(first_line "$work/quorvelfs.out")"
    "$fusermount" -u -z "$work/quorvel" 2>/dev/null
    stop_devsim
    return
  fi
  # Both ends looked up once, as a shell or file manager would have.
  stat "$work/quorvel/Storage/$name" "$work/quorvel/Apps/$app_name" > /dev/null 2> "$work/mv.err" ||
    why="lookup failed: $(first_line "$work/mv.err")"
  if [ -z "$why" ]; then
    mark=$(($(wc -l < "$work/devsim.log") + 1))
    start=$EPOCHREALTIME
    timeout -k 5 "$limit" mv "$work/quorvel/Storage/$name" "$work/quorvel/Apps/$app_name/" 2> "$work/mv.err"
    status=$?
    end=$EPOCHREALTIME
    [ "$count_requests" = 1 ] && requests=$(requests_since "$mark")
    if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then
      why="timed out after $limit s"
    elif [ "$status" -ne 0 ]; then
      why="mv failed: $(first_line "$work/mv.err")"
    fi
  fi
  "$fusermount" -u "$work/quorvel" 2>/dev/null || "$fusermount" -u -z "$work/quorvel" 2>/dev/null
  stop_devsim
  [ -z "$why" ] && check "$name" && seconds=$(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.6f", e - s }')
}

# mv_raw NAME FILES BYTES SHAPING...
mv_raw() {
  local name=$1 files=$2 bytes=$3 status mark; shift 3
  seconds="" why="" requests=""
  make_image
  start_devsim "$@"
  mark=$(($(wc -l < "$work/devsim.log") + 1))
  timeout -k 5 "$limit" "$raw" "$udid" "$bundle" "/general_storage/$name" "/Documents/$name" \
    > "$work/raw.out" 2> "$work/raw.err"
  status=$?
  [ "$count_requests" = 1 ] && requests=$(requests_since "$mark")
  stop_devsim
  if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then why="timed out after $limit s"; return; fi
  if [ "$status" -ne 0 ]; then why="afc_raw_move failed: $(first_line "$work/raw.err")"; return; fi
  read -r moved_files moved_bytes moved_seconds < "$work/raw.out"
  if [ "$moved_files" != "$files" ] || [ "$moved_bytes" != "$bytes" ]; then
    why="afc_raw_move moved $moved_files files, $moved_bytes bytes; expected $files, $bytes"
    return
  fi
  check "$name" && seconds=$moved_seconds
}

run() {
  local label=$1; shift
  local name files bytes amount scale unit q r qwhy rwhy qreq rreq turn
  for name in big.bin small; do
    if [ "$name" = big.bin ]; then
      files=1 bytes=$big_bytes amount=$big_bytes scale=1000000 unit="big MB/s"
    else
      files=$small_files bytes=$((small_files * small_size)) amount=$small_files scale=1 unit="small files/s"
    fi
    q="" r="" qwhy="" rwhy=""
    for turn in $(seq 1 "$repeat"); do
      mv_through_mount "$name" "$@"
      [ -n "$why" ] && qwhy="$qwhy${qwhy:+; }run $turn: $why"
      qreq=$requests
      [ -n "$seconds" ] && q=$(best "$q" "$(rate "$amount" "$seconds" "$scale")")
      mv_raw "$name" "$files" "$bytes" "$@"
      [ -n "$why" ] && rwhy="$rwhy${rwhy:+; }run $turn: $why"
      rreq=$requests
      [ -n "$seconds" ] && r=$(best "$r" "$(rate "$amount" "$seconds" "$scale")")
    done
    printf '%-38s %-14s %9s %9s %7s\n' "$label" "$unit" "${q:-n/a}" "${r:-n/a}" "$(ratio "$q" "$r")"
    # A failed run is shown, and fails the benchmark, even when another
    # run of the cell gave a figure.
    [ -n "$qwhy" ] && echo "    Quorvel: ${q:+one or more runs }not available ($qwhy)" && exit_status=1
    [ -n "$rwhy" ] && echo "    raw: ${r:+one or more runs }not available ($rwhy)" && exit_status=1
    [ -n "$qreq" ] && echo "    Quorvel requests:$qreq"
    [ -n "$rreq" ] && echo "    raw requests:    $rreq"
  done
}

echo "mv from /Storage into an app on devsim: a $mib MiB file and $small_files files of $small_size bytes," \
  "best of $repeat; load before: $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-38s %-14s %9s %9s %7s\n' shaping load Quorvel raw Q/raw
run "shaping off"
run "--bandwidth-mbps 35 --latency-us 300" --bandwidth-mbps 35 --latency-us 300
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
exit $exit_status
