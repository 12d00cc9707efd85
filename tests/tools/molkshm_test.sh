#!/bin/sh
# molkshm against a real block: create, info, reset, delete, the cache
# sector commands and top, and the exit codes of bad requests. Run inside
# isolated.sh.
# Usage: molkshm_test.sh [EMULATOR...] MOLKSHM
set -u
fails=0
check() {  # description, expected exit code, command...
  what=$1; want=$2; shift 2
  out=$("$@" 2>&1); got=$?
  if [ "$got" != "$want" ]; then
    echo "FAIL: $what: exit $got, expected $want"; echo "$out"; fails=$((fails + 1))
  fi
  LAST=$out
}
expect_in() {  # description, text
  case "$LAST" in *"$2"*) ;; *) echo "FAIL: $1: '$2' not in output:"; echo "$LAST"; fails=$((fails + 1));; esac
}
expect_not() {  # description, text
  case "$LAST" in *"$2"*) echo "FAIL: $1: '$2' in output:"; echo "$LAST"; fails=$((fails + 1));; esac
}
expect_lines() {  # description, text, count of lines that hold it
  n=$(printf '%s\n' "$LAST" | grep -cF -- "$2")
  if [ "$n" != "$3" ]; then echo "FAIL: $1: $n lines with '$2', expected $3"; fails=$((fails + 1)); fi
}
tool="$*"

check "create" 0 $tool create 0x5a5a 16M 8M+video:/var/run/timeshift_adaptive.active 4M~streaming
expect_in "create prints sectors" "Sector[0] timeshift = 8388608, video /var/run/timeshift_adaptive.active"
check "create twice" 1 $tool create 0x5a5a 16M 8M-video
check "info" 0 $tool info 23130
expect_in "info ring" "sector 0: ring (timeshift) tag 'video' second tag '/var/run/timeshift_adaptive.active'"
expect_in "info ring indices" "oldest -1 latest -1 write 0 boundary -1 max 1279"
expect_in "info cache" "sector 1: cache tag 'streaming'"
expect_in "info pins" "pinned entries per AttachID: none"
check "write" 0 $tool write 0x5a5a video --rate 0 --count 40 --key-every 10 --size 100
check "read from oldest" 0 $tool read 0x5a5a video --attach 3 --flags in_place,from_oldest --count 3
expect_in "first frame" "frame    0 tick"
expect_in "key frame" "flags 0x00000 KEY"
check "read key frames" 0 $tool read 0x5a5a video --flags in_place,from_oldest,mark_only --count 2
expect_in "next key frame" "frame   10 tick"
check "read summary" 0 $tool read 0x5a5a video --flags in_place --summary --seconds 1 --label x
expect_in "summary" "[x]"
check "read bad flag" 1 $tool read 0x5a5a video --flags in_plaice
check "read bad tag" 1 $tool read 0x5a5a nosuch --count 1
check "stamp" 0 $tool stamp /tmp/molkshm-test.stamp 12345
expect_in "stamp published" "adaptive tick 12345 published"
if [ "$(od -An -tu4 /tmp/molkshm-test.stamp | tr -d ' ')" != 12345 ]; then
  echo "FAIL: stamp file does not hold the tick"; fails=$((fails + 1))
fi
check "stamp clear" 0 $tool stamp /tmp/molkshm-test.stamp 0
expect_in "stamp cleared" "cleared"
check "stamp bad tick" 1 $tool stamp /tmp/molkshm-test.stamp soon
check "reset" 0 $tool reset 0x5a5a 1
check "reset bad sector" 1 $tool reset 0x5a5a 2
check "reset bad number" 1 $tool reset 0x5a5a one
check "delete" 0 $tool delete 0x5a5a

# Cache sectors: a direct writer and its reader, a ring read through its
# cache, the slot table, and top, one plain block per refresh.
k=0x5a5c
check "create with caches" 0 $tool create $k 16M 8M-video 2M~64K~streaming 160K~16K~snapshots
check "cache-write" 0 $tool cache-write $k snapshots --rate 0 --count 12 --size 1000 --class 3
expect_in "cache-write tally" "12 items offered, 12 written (11 KiB), 0 refused"
check "cache-write too large" 1 $tool cache-write $k snapshots --size 16385 --count 1
check "cache-write to a ring" 1 $tool cache-write $k video --count 1
check "cache-write bad class" 1 $tool cache-write $k snapshots --class 65536
check "read a cache sector" 0 $tool read $k snapshots --count 10 --verify
expect_in "oldest item first" "item slot  2 tick"
expect_in "its class" "flags 0x00030000 class 3"
expect_lines "ten items, all whole" "item slot" 10
expect_not "no torn item" "BAD"
check "read another class" 0 $tool read $k snapshots --class 4 --seconds 1 --summary --label c4
expect_in "nothing of class 4" "0 items"
check "write for the cache" 0 $tool write $k video --rate 0 --count 20 --size 1000
check "read via cache" 0 $tool read $k video --attach 1 --flags via_cache,from_oldest --count 3 --verify
expect_lines "each frame a copy" "cache slot" 3
expect_not "copies whole" "BAD"
check "info" 0 $tool info $k
expect_in "ring figures" "20 frames, 23000 bytes stored"
expect_in "read-through key" "flags 0x00000000 ring sector 0 entry 0 (current)"
expect_in "direct item" "flags 0x00030000 class 3"
expect_in "latest and oldest" "slot  1 +  size"
check "top once" 0 $tool top $k --count 1
expect_lines "one block" "SECTOR  TAG" 1
expect_in "ring row" "     0  video            ring"
expect_in "cache row" "     2  snapshots        cache"
expect_in "slots in use" "10/10"
check "top bad count" 1 $tool top $k --count 0
$tool read $k video --attach 5 --flags in_place --hold 60000 --count 1 > /tmp/holder.out 2>&1 &
holder=$!
i=0; while ! grep -q "^frame" /tmp/holder.out && [ $i -lt 600 ]; do sleep 0.1; i=$((i + 1)); done
check "top sees a stuck pin" 0 $tool top $k --count 3 --stuck-after 1
expect_in "stuck pin" "stuck: AttachID 5 on sector 0 entry"
expect_lines "a block per refresh" "SECTOR  TAG" 3
# The holder dies with its pin: unpin takes it off and says where it was.
kill -9 $holder; wait $holder 2>/dev/null
check "unpin a dead reader" 0 $tool unpin $k 5
expect_in "pin per sector" "sector 0 'video': 1 pins of AttachID 5"
expect_in "pins cleared" "AttachID 5: 1 pins cleared"
check "unpin again" 0 $tool unpin $k 5
expect_in "nothing left" "AttachID 5: 0 pins cleared"
check "unpin bad AttachID" 1 $tool unpin $k 16
check "delete with caches" 0 $tool delete $k

check "help" 0 $tool --help
expect_lines "an example per command" "  molkshm " 20
check "info after delete" 1 $tool info 0x5a5a
check "delete missing" 1 $tool delete 0x5a5a
check "bad key" 1 $tool info 12z
check "unknown command" 2 $tool frobnicate
check "no command" 2 $tool
check "too small" 1 $tool create 0x5a5b 10K 8M-video
if [ $fails = 0 ]; then echo "molkshm: all checks passed"; fi
exit $fails
