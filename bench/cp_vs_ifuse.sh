#!/usr/bin/env bash
# Copy throughput on one simulated device: `cp` of a 256 MiB file out of and
# into the device through a Quorvel mount (/Storage) and through an ifuse
# mount (general_storage), set against a raw AFC client (bench/afc_raw_copy)
# that streams the file in 1 MiB requests, the best the protocol allows.
# Each is run with shaping off and with --bandwidth-mbps 35 --latency-us 300
# (a phone on USB 2).
# Usage: [DEVSIM_ARGS=--no-tls] bench/cp_vs_ifuse.sh [BUILD_DIR]
# (DEVSIM_ARGS: more devsim options; --no-tls skips the TLS of lockdown sessions)
#
# Columns of the table:
#   shaping       devsim's traffic shaping for that row
#   direction     "out": device -> local file (cp MNT/Storage/big.bin LOCAL);
#                 "in":   local file -> device (cp LOCAL MNT/Storage/up.bin)
#   Quorvel       MB/s of `cp` through a Quorvel mount (build/tools/quorvelfs)
#   ifuse         MB/s of `cp` through an ifuse mount of the same device
#   raw AFC       MB/s of afc_raw_copy: one AFC connection, open, 1 MiB
#                 reads (mode 1) or writes (mode 3), close
#   Q/ifuse       Quorvel MB/s divided by ifuse MB/s (above 1: Quorvel faster)
#   Q/raw         Quorvel MB/s divided by raw AFC MB/s (1 would be all the
#                 protocol gives; the rest is mount and kernel overhead)
#   ifuse/raw     the same for ifuse, for reference
# MB/s is 10^6 bytes per second. A mount's time is the wall time of `cp`
# (for "in", until the device's copy has reached its full size as well, in
# case a mount uploads on release, after cp has returned); the raw client's
# is its own from opening the device file to closing both files, so neither
# counts connecting or mounting.
#
# A figure is printed only for a copy whose bytes were then compared equal
# (cmp against the image's file or the local source). Otherwise the cell says
# "n/a" and a line under the row says why: "not available (cp failed: ...)"
# when the copy or mount is refused (as with a mount that does not serve file
# data yet), "timed out", or "broken copy". The other columns go on.
# Exit status: 1 when a copy came out with wrong bytes or the raw client
# failed (devsim itself is then in doubt), otherwise 0.
#
# Caches: every configuration gets a new devsim and new mounts, each file is
# read once per mount, and before a read the file is dropped from the kernel's
# page cache through the mount (dd iflag=nocache), so no earlier read can
# flatter it. The image's own files stay in this machine's page cache: they
# stand for the phone's flash, equally fast for all three.
#
# Every copy runs under `timeout` (CP_BENCH_TIMEOUT seconds, default 150:
# ifuse writes 4 KiB per request, a seek and a write each, so its upload
# under USB-2 shaping takes about 100 s), so the whole run stays within a few
# minutes. CP_BENCH_MIB changes the file
# size for a quick trial (default 256). The load average is printed before
# and after: figures from a busy machine are not comparable.
set -uo pipefail

build=${1:-build}
devsim="$build/devsim/devsim"
quorvelfs="$build/tools/quorvelfs"
raw="$build/bench/afc_raw_copy"
limit=${CP_BENCH_TIMEOUT:-150}
mib=${CP_BENCH_MIB:-256}
require_built "$devsim" "$quorvelfs" "$raw"
command -v ifuse >/dev/null || { echo "ifuse is not installed" >&2; exit 1; }
require_fuse

work=$(mktemp -d /tmp/quorvel-cp-bench-XXXXXX)
pid=""
exit_status=0
# shellcheck disable=SC2317  # run by the EXIT trap
cleanup() {
  "$fusermount" -u -z "$work/quorvel" 2>/dev/null || true
  "$fusermount" -u -z "$work/ifuse" 2>/dev/null || true
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

udid=be9c0000000000000000000000000000000000ee
location=37
bytes=$((mib * 1024 * 1024))
storage="$work/image/media/general_storage"
mkdir -p "$storage" "$work/quorvel" "$work/ifuse" "$work/log"
cat > "$work/image/device.json" <<JSON
{"name": "Bench", "udid": "$udid", "location_id": $location, "capacity_bytes": 64000000000, "block_size": 4096}
JSON
# Different bytes each way, so an upload cannot pass by finding the download.
head -c "$bytes" /dev/urandom > "$storage/big.bin"
head -c "$bytes" /dev/urandom > "$work/source.bin"

now() { date +%s.%N; }
mbps() { awk -v s="$1" -v e="$2" -v b="$bytes" 'BEGIN { t = e - s; if (t <= 0) t = 1e-9; printf "%.1f", b / t / 1e6 }'; }
ratio() {  # prints A/B, or n/a when either is missing
  if [ -n "$1" ] && [ -n "$2" ]; then awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; else printf "n/a"; fi
}
first_line() { head -n 1 "$1" | sed -e "s|$work/||g" -e 's/^cp: //'; }
# Empties the kernel's page cache of one file; a mount that cannot open it
# has nothing cached either.
drop_cache() { dd if="$1" iflag=nocache count=0 status=none 2>/dev/null || true; }

wait_for_mount() {
  for _ in $(seq 1 200); do grep -q " $1 fuse" /proc/mounts && return 0; sleep 0.05; done
  return 1
}

# Waits until FILE is SIZE bytes long, at most 10 s; an upload is complete
# only when the device holds all of it.
wait_for_size() {
  for _ in $(seq 1 1000); do
    [ "$(stat -c %s "$1" 2>/dev/null || echo -1)" -eq "$2" ] && return 0
    sleep 0.01
  done
  return 1
}

# Each copy sets speed (MB/s, empty when there is none) and why (the reason).
speed="" why=""

# copy_through_mount out|in SOURCE DEST CHECK_AGAINST
copy_through_mount() {
  local direction=$1 source=$2 dest=$3 reference=$4 start end status
  speed="" why=""
  rm -f "$work/down.bin"
  [ "$direction" = out ] && drop_cache "$source"
  start=$(now)
  timeout -k 5 "$limit" cp "$source" "$dest" 2> "$work/cp.err"
  status=$?
  if [ "$status" -eq 0 ] && [ "$direction" = in ]; then
    wait_for_size "$reference" "$bytes" ||
      { why="broken copy: the device's file has $(stat -c %s "$reference" 2>/dev/null || echo no) bytes, not $bytes"; return; }
  fi
  end=$(now)
  if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then why="timed out after $limit s"; return; fi
  if [ "$status" -ne 0 ]; then why="cp failed: $(first_line "$work/cp.err")"; return; fi
  if [ "$direction" = out ]; then
    cmp -s "$dest" "$reference" || { why="broken copy: bytes differ from the image's file"; return; }
  else
    cmp -s "$reference" "$source" || { why="broken copy: the device's bytes differ from the source"; return; }
  fi
  speed=$(mbps "$start" "$end")
}

# copy_raw download|upload FROM TO CHECK_LOCAL CHECK_AGAINST
copy_raw() {
  local mode=$1 from=$2 to=$3 check=$4 reference=$5 status seconds
  speed="" why=""
  rm -f "$work/down.bin"
  timeout -k 5 "$limit" "$raw" "$mode" "$udid" "$from" "$to" > "$work/raw.out" 2> "$work/raw.err"
  status=$?
  if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then why="timed out after $limit s"; return; fi
  if [ "$status" -ne 0 ]; then why="afc_raw_copy failed: $(first_line "$work/raw.err")"; return; fi
  cmp -s "$check" "$reference" || { why="broken copy: bytes differ"; return; }
  seconds=$(cut -d' ' -f2 "$work/raw.out")
  speed=$(mbps 0 "$seconds")
}

run() {
  local label=$1; shift
  local config=$1; shift
  local quorvel_up="" ifuse_up="" mount_why=""
  # shellcheck disable=SC2086  # DEVSIM_ARGS is a list of options
  "$devsim" serve --socket "$work/mux.sock" ${DEVSIM_ARGS:-} "$@" "$work/image" > "$work/ready" 2> "$work/devsim.log" &
  pid=$!
  for _ in $(seq 1 200); do grep -qs '^ready:' "$work/ready" && break; sleep 0.05; done
  grep -qs '^ready:' "$work/ready" || { echo "devsim did not start: $(head -n 3 "$work/devsim.log")" >&2; exit 1; }
  export USBMUXD_SOCKET_ADDRESS="UNIX:$work/mux.sock"

  # A cache folder of its own per configuration, so nothing Quorvel keeps on
  # disk can carry a file from one run to the next.
  if XDG_CACHE_HOME="$work/cache-$config" QUORVEL_LOG_DIR="$work/log" QUORVEL_PIPE="$work/no-tray" \
      timeout -k 5 30 "$quorvelfs" "$work/quorvel" -devopt "$location" > "$work/quorvelfs.out" 2>&1 < /dev/null &&
      wait_for_mount "$work/quorvel"; then
    quorvel_up=1
  else
    mount_why="mount failed: $(first_line "$work/quorvelfs.out")"
    [ "$mount_why" = "mount failed: " ] && mount_why="mount failed: no mount appeared at the mount point"
  fi
  if timeout -k 5 30 ifuse -u "$udid" "$work/ifuse" > "$work/ifuse.out" 2>&1 < /dev/null &&
      wait_for_mount "$work/ifuse"; then
    ifuse_up=1
  fi

  local direction q i r qwhy iwhy rwhy
  for direction in out in; do
    q="" i="" r="" qwhy="$mount_why" iwhy="mount failed: $(first_line "$work/ifuse.out")" rwhy=""
    if [ "$direction" = out ]; then
      if [ -n "$quorvel_up" ]; then
        copy_through_mount out "$work/quorvel/Storage/big.bin" "$work/down.bin" "$storage/big.bin"
        q=$speed qwhy=$why
      fi
      if [ -n "$ifuse_up" ]; then
        copy_through_mount out "$work/ifuse/general_storage/big.bin" "$work/down.bin" "$storage/big.bin"
        i=$speed iwhy=$why
      fi
      copy_raw download /general_storage/big.bin "$work/down.bin" "$work/down.bin" "$storage/big.bin"
      r=$speed rwhy=$why
      rm -f "$work/down.bin"
    else
      if [ -n "$quorvel_up" ]; then
        copy_through_mount in "$work/source.bin" "$work/quorvel/Storage/up-quorvel.bin" "$storage/up-quorvel.bin"
        q=$speed qwhy=$why
      fi
      if [ -n "$ifuse_up" ]; then
        copy_through_mount in "$work/source.bin" "$work/ifuse/general_storage/up-ifuse.bin" "$storage/up-ifuse.bin"
        i=$speed iwhy=$why
      fi
      copy_raw upload "$work/source.bin" /general_storage/up-raw.bin "$storage/up-raw.bin" "$work/source.bin"
      r=$speed rwhy=$why
      rm -f "$storage"/up-*.bin
    fi
    printf '%-38s %-9s %9s %9s %9s %8s %7s %9s\n' "$label" "$direction" "${q:-n/a}" "${i:-n/a}" "${r:-n/a}" \
      "$(ratio "$q" "$i")" "$(ratio "$q" "$r")" "$(ratio "$i" "$r")"
    [ -z "$q" ] && echo "    Quorvel: not available (${qwhy:-not run})"
    [ -z "$i" ] && echo "    ifuse: not available (${iwhy:-not run})"
    [ -z "$r" ] && echo "    raw AFC: not available (${rwhy:-not run})" && exit_status=1
    case "$qwhy$iwhy$rwhy" in *"broken copy"*) exit_status=1 ;; esac
  done

  [ -n "$quorvel_up" ] && "$fusermount" -u "$work/quorvel" 2>/dev/null
  [ -n "$ifuse_up" ] && "$fusermount" -u "$work/ifuse" 2>/dev/null
  # A mount that will not go quietly (still busy) is detached.
  "$fusermount" -u -z "$work/quorvel" 2>/dev/null
  "$fusermount" -u -z "$work/ifuse" 2>/dev/null
  kill -TERM "$pid"; wait "$pid" 2>/dev/null; pid=""
  unset USBMUXD_SOCKET_ADDRESS
}

echo "cp of a $mib MiB file on devsim, MB/s (10^6 bytes/s); load before: $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-38s %-9s %9s %9s %9s %8s %7s %9s\n' shaping direction Quorvel ifuse "raw AFC" Q/ifuse Q/raw ifuse/raw
run "shaping off" plain
run "--bandwidth-mbps 35 --latency-us 300" usb2 --bandwidth-mbps 35 --latency-us 300
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
exit $exit_status
