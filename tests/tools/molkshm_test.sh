#!/bin/sh
# molkshm against a real block: create, info, reset, delete, and the exit
# codes of bad requests. Run inside isolated.sh.
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
check "info after delete" 1 $tool info 0x5a5a
check "delete missing" 1 $tool delete 0x5a5a
check "bad key" 1 $tool info 12z
check "unknown command" 2 $tool frobnicate
check "no command" 2 $tool
check "too small" 1 $tool create 0x5a5b 10K 8M-video
if [ $fails = 0 ]; then echo "molkshm: all checks passed"; fi
exit $fails
