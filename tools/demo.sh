#!/bin/bash
# The frame store at work: one writer process streams synthetic frames into
# a timeshift ring at 30 frames per second (a key frame every 30), and four
# reader processes follow it for a few seconds:
#   live      in place, always the newest frame
#   timeshift two seconds behind the live stream (calibrate, no overtake)
#   adaptive  thinned to key frames until the demo publishes an adaptive
#             tick, which opens a 3-second window of the full stream
#   slow      a network client on a bad link: holds every frame 300 ms, and
#             reads through the "streaming" cache sector, so that what it
#             holds is a copy and the ring entry is free at once
# Runs in a private IPC namespace where the system allows it, else under a
# key of its own that it deletes at the end.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-demo
if [ "${MOLK_DEMO_INSIDE:-}" != 1 ]; then
  echo "building molkshm..."
  cmake -S "$root" -B "$build" -DBUILD_TESTING=OFF >/dev/null
  cmake --build "$build" -j2 --target molkshm >/dev/null
  export MOLK_DEMO_INSIDE=1
  if unshare --ipc true 2>/dev/null; then exec unshare --ipc "$0" "$@"; fi
  echo "(no private IPC namespace here: using key 0x4d4f4c4b and deleting it after)"
fi
molkshm=$build/tools/molkshm
key=0x4d4f4c4b
stampdir=$(mktemp -d /tmp/molkdemo.XXXXXX)
stamp=$stampdir/stamp
seconds=10
cleanup() {
  kill $(jobs -p) 2>/dev/null || true
  wait 2>/dev/null || true
  "$molkshm" delete $key >/dev/null 2>&1 || true
  rm -rf "$stampdir"
}
trap cleanup EXIT

step() { printf '\n\033[1m$ molkshm %s\033[0m\n' "$*"; "$molkshm" "$@"; }
# The "streaming" cache's slots (512K) hold the largest frame plus the
# 4-byte tick that a read-through copy begins with.
step create $key 64M "32M+video:$stamp" 16M-audio 6144K~512K~streaming

echo
echo "Streaming for $seconds seconds; each reader prints what it received per second."
"$molkshm" write $key video --size 20000 --key-size 60000 --rate 30 --key-every 30 \
  --count $((30 * (seconds + 1))) > "$stampdir/writer.log" 2>&1 &
sleep 0.3
# The readers' own summaries only; the library's conflict messages are quiet.
export SHM_DEBUG=4
reader() {  # label, options...
  local label=$1; shift
  "$molkshm" read $key video --label "$label" --summary --seconds $seconds "$@" 2>&1 |
    tee "$stampdir/$label.log" | grep --line-buffered "^\[$label\] *[0-9]" &
}
reader live --attach 3 --flags in_place
reader timeshift --attach 4 --delay 2000 --flags in_place,calibrate,no_overtake
reader adaptive --attach 0 --window 3000 --flags in_place,adaptive_by_attach,key_start
reader slow --attach 1 --flags via_cache --hold 300
sleep 5
printf '\n\033[1m$ molkshm stamp %s now\033[0m   (opens the adaptive window)\n' "$stamp"
"$molkshm" stamp "$stamp" now
wait $(jobs -p | tail -n 4) 2>/dev/null || true
wait
echo
echo "Summary of the whole run: the live reader held its frames in the ring, the"
echo "slow one held each of its frames 300 ms as a copy in the cache (\"via cache\"),"
echo "which leaves the ring entry free: the writer's refusals stay at 0."
for label in live slow; do
  printf '  %s\n' "$(grep "^\[$label\] total" "$stampdir/$label.log")"
done
echo "  writer: $(tail -n 1 "$stampdir/writer.log")"
unset SHM_DEBUG
step top $key --count 1
