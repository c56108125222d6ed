#!/usr/bin/env bash
# First listings of /Media through Quorvel on devsim, against the floor the
# device protocol sets, with shaping off and with 300 us of latency per
# request.
#
# Listings: a library of 50,000 photos (ios10 family), 10,000 songs and 10
# memos; for each shaping a fresh devsim and mount, then `ls /Media` (which
# copies the three databases from the device), `ls -l` of the Camera Roll and
# `ls -l` of Music, each timed on its own. Every listed row costs one AFC
# file-information request; the floor is afc_info_floor making those same
# requests, for the same device paths (read from the image's databases with
# sqlite3), one after another on one AFC connection. A ratio below 1 means
# Quorvel beat one connection (it spreads a folder of more than 64 rows over
# 4 connections).
#
# Database copy: a second image whose Photos.sqlite is padded to about 100 MB;
# the first `ls /Media` of a fresh mount against afc_raw_copy downloading that
# file, in 1 MiB requests (its default) and in the 65,535-byte requests the
# file system copies in.
#
# Entry counts are checked against the databases, so a broken listing cannot
# pass for a fast one.
# Usage: bench/media_listing.sh [BUILD_DIR]
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/common.sh"

build=${1:-build}
devsim="$build/devsim/devsim"
quorvelfs="$build/tools/quorvelfs"
floor="$build/bench/afc_info_floor"
rawcopy="$build/bench/afc_raw_copy"
require_built "$devsim" "$quorvelfs" "$floor" "$rawcopy"
command -v sqlite3 >/dev/null || { echo "sqlite3 is not installed" >&2; exit 1; }

require_fuse

photos=50000
songs=10000
memos=10
database_mb=100

work=$(mktemp -d /tmp/quorvel-bench-XXXXXX)
pid=""
cleanup() {
  "$fusermount" -u -z "$work/quorvel" 2>/dev/null || true
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

udid=be9c0000000000000000000000000000000000ee
location=32
mkdir -p "$work/quorvel" "$work/log"

make_image() {  # make_image DIR PHOTOS SONGS MEMOS [FAMILY]
  mkdir -p "$1/media"
  cat > "$1/device.json" <<JSON
{"name": "Bench", "udid": "$udid", "location_id": $location, "capacity_bytes": 64000000000, "block_size": 4096}
JSON
  "$devsim" make-media "$1" --photo-family "${5:-ios10}" --photos "$2" --songs "$3" --memos "$4" >&2
}

seconds() {  # seconds OUT COMMAND...: runs COMMAND with its output in OUT, prints the wall time
  # bash's own clock: starting `date` twice would add milliseconds.
  local out=$1 start end
  shift
  start=$EPOCHREALTIME
  "$@" > "$out"
  end=$EPOCHREALTIME
  awk -v s="$start" -v e="$end" 'BEGIN { printf "%.4f", e - s }'
}

wait_for_mount() {
  for _ in $(seq 1 400); do grep -q " $1 fuse" /proc/mounts && return 0; sleep 0.05; done
  echo "mount did not appear at $1" >&2; exit 1
}

start_devsim() {  # start_devsim IMAGE [SHAPING...]
  local image=$1
  shift
  rm -f "$work/ready"
  "$devsim" serve --socket "$work/mux.sock" "$@" "$image" > "$work/ready" 2> "$work/devsim.log" &
  pid=$!
  for _ in $(seq 1 200); do grep -qs '^ready:' "$work/ready" && break; sleep 0.05; done
  grep -qs '^ready:' "$work/ready" || { echo "devsim did not start" >&2; cat "$work/devsim.log" >&2; exit 1; }
  export USBMUXD_SOCKET_ADDRESS="UNIX:$work/mux.sock"
}

stop_devsim() {
  kill -TERM "$pid"; wait "$pid" || true; pid=""
  unset USBMUXD_SOCKET_ADDRESS
}

mount_quorvel() {
  rm -rf "$work/log" && mkdir -p "$work/log"
  QUORVEL_LOG_DIR="$work/log" QUORVEL_PIPE="$work/no-tray" "$quorvelfs" "$work/quorvel" -devopt "$location" \
    > "$work/quorvelfs.out" 2>&1 < /dev/null
  wait_for_mount "$work/quorvel"
  # The first operation of a mount waits for it to finish connecting to the
  # device (about 0.1 s); listing the root, which asks the device nothing,
  # takes that out of the /Media figure.
  ls "$work/quorvel" > "$work/root.ls"
  grep -qx Media "$work/root.ls" || { echo "the mount shows no Media folder" >&2; exit 1; }
}

unmount_quorvel() {
  "$fusermount" -u "$work/quorvel"
  # The file system removes its work folder, /tmp/LOCATION, as it ends; the
  # next mount makes it again, so wait for it to go.
  for _ in $(seq 1 200); do [ -e "/tmp/$location" ] || return 0; sleep 0.05; done
  echo "warning: /tmp/$location is still there after unmounting" >&2
}

check_count() {  # check_count WHAT GOT EXPECTED
  [ "$2" -eq "$3" ] || { echo "Quorvel listed $2 entries in $1, not $3" >&2; exit 1; }
}

# ---- the listing library and the paths its listings check -------------------

make_image "$work/image" "$photos" "$songs" "$memos"
photo_db="$work/image/media/PhotoData/Photos.sqlite"
music_db="$work/image/media/iTunes_Control/iTunes/MediaLibrary.sqlitedb"
# In the order the listings ask: a live photo's video right after its still.
sqlite3 "$photo_db" "select '/' || ZDIRECTORY || '/' || ZFILENAME,
    case when ZKINDSUBTYPE = 2 then '/' || replace(ZDIRECTORY || '/' || ZFILENAME, 'JPG', 'MOV') end
  from ZGENERICASSET where ZKIND = 0 and ZTRASHEDSTATE = 0 and ZVISIBILITYSTATE = 0" |
  tr '|' '\n' | sed '/^$/d' > "$work/camera-roll.paths"
sqlite3 "$music_db" "select '/' || base_location.path || '/' || item_extra.location
  from item join item_extra on item.item_pid = item_extra.item_pid
  join base_location on item.base_location_id = base_location.base_location_id
  where item_extra.media_kind = 1" > "$work/music.paths"
roll_rows=$(wc -l < "$work/camera-roll.paths")
music_rows=$(wc -l < "$work/music.paths")
# `ls /Media` shows the fixed folders; Music and Photo must be among them.
media_folders=(Movies Music Photo Podcast "Voice Memos")

results="$work/results"
: > "$results"

listings() {  # listings LABEL [SHAPING...]
  local label=$1 t_media t_roll t_music f_roll f_music got
  shift
  start_devsim "$work/image" "$@"
  mount_quorvel
  t_media=$(seconds "$work/media.ls" ls "$work/quorvel/Media")
  for folder in Music Photo; do
    grep -qx "$folder" "$work/media.ls" || { echo "ls /Media shows no $folder:" >&2; cat "$work/media.ls" >&2; exit 1; }
  done
  t_roll=$(seconds "$work/roll.ls" ls -l "$work/quorvel/Media/Photo/Camera Roll")
  got=$(grep -vc '^total ' "$work/roll.ls" || true)
  check_count "the Camera Roll" "$got" "$roll_rows"
  t_music=$(seconds "$work/music.ls" ls -l "$work/quorvel/Media/Music")
  got=$(grep -vc '^total ' "$work/music.ls" || true)
  check_count "Music" "$got" "$music_rows"
  unmount_quorvel
  # The floor on the same devsim, with the mount gone.
  read -r got f_roll < <("$floor" "$udid" "$work/camera-roll.paths")
  check_count "the Camera Roll floor" "$got" "$roll_rows"
  read -r got f_music < <("$floor" "$udid" "$work/music.paths")
  check_count "the Music floor" "$got" "$music_rows"
  stop_devsim
  printf '%s\t%s\t%s\t%s\t%s\n' "$label" "ls /Media" "$(wc -l < "$work/media.ls")" "$t_media" "-" >> "$results"
  printf '%s\t%s\t%s\t%s\t%s\n' "$label" "Camera Roll" "$roll_rows" "$t_roll" "$f_roll" >> "$results"
  printf '%s\t%s\t%s\t%s\t%s\n' "$label" "Music" "$music_rows" "$t_music" "$f_music" >> "$results"
}

echo "First listings of /Media through Quorvel on devsim against one AFC connection asking the same paths"
echo "library: $photos photos (ios10), $songs songs, $memos memos; Photos.sqlite $(stat -c %s "$photo_db") bytes," \
  "MediaLibrary.sqlitedb $(stat -c %s "$music_db") bytes"
per_photo=$(($(stat -c %s "$photo_db") / photos))
echo "Photos.sqlite holds about $per_photo bytes a photo: ~$((database_mb * 1000000 / per_photo)) photos" \
  "would make it $database_mb MB"
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
listings "shaping off"
listings "--latency-us 300" --latency-us 300
awk -F'\t' 'BEGIN {
    printf "%-18s %-12s %7s %11s %11s %8s\n", "shaping", "listing", "rows", "Quorvel s", "floor s", "ratio"
  }
  $5 == "-" { printf "%-18s %-12s %7s %11.4f %11s %8s\n", $1, $2, $3, $4, "-", "-"; next }
  { printf "%-18s %-12s %7d %11.4f %11.4f %8.2f\n", $1, $2, $3, $4, $5, $4 / $5 }' "$results"
echo "(ls /Media rows: folders shown; its time includes copying the three databases)"

# ---- the database copy ------------------------------------------------------

# A small library whose Photos.sqlite is padded with one table of incompressible
# bytes: generating a library that big takes far longer than the copy.
make_image "$work/big" 1000 200 10
big_db="$work/big/media/PhotoData/Photos.sqlite"
have=$(stat -c %s "$big_db")
want=$((database_mb * 1000 * 1000))
if [ "$have" -lt "$want" ]; then
  blobs=$(((want - have) / 1000000))
  sqlite3 "$big_db" "create table ZBENCHPADDING (Z_PK integer primary key, ZDATA blob);
    with recursive n(i) as (select 1 union all select i + 1 from n where i < $blobs)
    insert into ZBENCHPADDING (ZDATA) select randomblob(1000000) from n;"
fi
big_bytes=$(stat -c %s "$big_db")
other_bytes=$(($(stat -c %s "$work/big/media/iTunes_Control/iTunes/MediaLibrary.sqlitedb") +
  $(stat -c %s "$work/big/media/Recordings/Recordings.db")))

: > "$results"
database_copy() {  # database_copy LABEL [SHAPING...]
  local label=$1 t_media f_big f_small got
  shift
  start_devsim "$work/big" "$@"
  mount_quorvel
  t_media=$(seconds "$work/media.ls" ls "$work/quorvel/Media")
  for folder in Music Photo; do
    grep -qx "$folder" "$work/media.ls" || { echo "ls /Media shows no $folder:" >&2; cat "$work/media.ls" >&2; exit 1; }
  done
  got=$(ls "$work/quorvel/Media/Photo/Camera Roll" | wc -l)
  [ "$got" -gt 0 ] || { echo "the padded photo library lists no Camera Roll" >&2; exit 1; }
  unmount_quorvel
  read -r got f_big < <("$rawcopy" download "$udid" /PhotoData/Photos.sqlite "$work/copy.sqlite")
  check_count "the 1 MiB copy (bytes)" "$got" "$big_bytes"
  read -r got f_small < <("$rawcopy" --chunk 65535 download "$udid" /PhotoData/Photos.sqlite "$work/copy.sqlite")
  check_count "the 65,535-byte copy (bytes)" "$got" "$big_bytes"
  rm -f "$work/copy.sqlite"
  stop_devsim
  printf '%s\t%s\t%s\t%s\n' "$label" "$t_media" "$f_big" "$f_small" >> "$results"
}

echo
echo "First ls /Media copying a Photos.sqlite of $big_bytes bytes (and $other_bytes bytes of the other two)," \
  "against afc_raw_copy downloading the Photos.sqlite alone"
database_copy "shaping off"
database_copy "--latency-us 300" --latency-us 300
awk -F'\t' 'BEGIN {
    printf "%-18s %11s %13s %8s %15s %8s\n", "shaping", "ls /Media s", "raw 1 MiB s", "ratio", "raw 65,535 B s", "ratio"
  }
  { printf "%-18s %11.4f %13.4f %8.2f %15.4f %8.2f\n", $1, $2, $3, $2 / $3, $4, $2 / $4 }' "$results"

# ---- a library of iOS 14 and later --------------------------------------------

# 50,000 assets of which a tenth are only in iCloud: those are counted from
# the database and never asked about; every other still is, and the video
# half of each live photo beside it (the still's name up to its last dot,
# then MOV).
make_image "$work/modern" "$photos" 10 1 modern
modern_db="$work/modern/media/PhotoData/Photos.sqlite"
sqlite3 "$modern_db" "select '/' || ZDIRECTORY || '/' || ZFILENAME,
    case when ZKINDSUBTYPE = 2 then '/' || ZDIRECTORY || '/' ||
      rtrim(ZFILENAME, replace(ZFILENAME, '.', '')) || 'MOV' end
  from ZASSET where ZKIND = 0 and ZTRASHEDSTATE = 0 and ZHIDDEN = 0 and ZVISIBILITYSTATE = 0
  and not exists (select 1 from ZINTERNALRESOURCE where ZINTERNALRESOURCE.ZASSET = ZASSET.Z_PK
    and ZDATASTORESUBTYPE = 1 and ZRESOURCETYPE <> 3 and ZLOCALAVAILABILITY = -1)
  order by Z_PK" | tr '|' '\n' | sed '/^$/d' > "$work/modern.paths"
modern_asked=$(wc -l < "$work/modern.paths")
modern_rows=0
while read -r path; do [ -e "$work/modern/media$path" ] && modern_rows=$((modern_rows + 1)); done < "$work/modern.paths"
cloud_only=$(sqlite3 "$modern_db" "select count(*) from ZASSET where ZKIND = 0 and ZTRASHEDSTATE = 0 and ZHIDDEN = 0
  and ZVISIBILITYSTATE = 0 and exists (select 1 from ZINTERNALRESOURCE where ZINTERNALRESOURCE.ZASSET = ZASSET.Z_PK
    and ZDATASTORESUBTYPE = 1 and ZRESOURCETYPE <> 3 and ZLOCALAVAILABILITY = -1)")

: > "$results"
modern_listing() {  # modern_listing LABEL [SHAPING...]
  local label=$1 t_roll f_roll got
  shift
  start_devsim "$work/modern" "$@"
  mount_quorvel
  ls "$work/quorvel/Media/Photo" > "$work/modern-root.ls"
  grep -qx "Not on this device.txt" "$work/modern-root.ls" || { echo "no note on the iCloud photos" >&2; exit 1; }
  t_roll=$(seconds "$work/roll.ls" ls -l "$work/quorvel/Media/Photo/Camera Roll")
  got=$(grep -vc '^total ' "$work/roll.ls" || true)
  check_count "the modern Camera Roll" "$got" "$modern_rows"
  unmount_quorvel
  read -r got f_roll < <("$floor" "$udid" "$work/modern.paths")
  check_count "the modern Camera Roll floor" "$got" "$modern_asked"
  stop_devsim
  printf '%s\t%s\t%s\t%s\n' "$label" "$modern_rows" "$t_roll" "$f_roll" >> "$results"
}

echo
echo "First Camera Roll listing of a library of iOS 14 and later: $photos assets, $cloud_only photos only in iCloud" \
  "(left out), $modern_asked files asked about, $modern_rows listed"
modern_listing "shaping off"
modern_listing "--latency-us 300" --latency-us 300
awk -F'\t' 'BEGIN { printf "%-18s %7s %11s %11s %8s\n", "shaping", "rows", "Quorvel s", "floor s", "ratio" }
  { printf "%-18s %7d %11.4f %11.4f %8.2f\n", $1, $2, $3, $4, $3 / $4 }' "$results"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
