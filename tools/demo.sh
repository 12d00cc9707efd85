#!/bin/bash
# Demo of the frame store: builds the library and molkshm, then, in a
# private IPC namespace where the system allows it (else under a key of its
# own that it deletes), creates a block of a timeshift ring, a live ring and
# a streaming cache, shows it, resets a sector and deletes the block.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-demo
if [ "${MOLK_DEMO_INSIDE:-}" != 1 ]; then
  cmake -S "$root" -B "$build" -DBUILD_TESTING=OFF >/dev/null
  cmake --build "$build" -j2 --target molkshm >/dev/null
  export MOLK_DEMO_INSIDE=1
  if unshare --ipc true 2>/dev/null; then exec unshare --ipc "$0" "$@"; fi
  echo "(no private IPC namespace here: using key 0x4d4f4c4b and deleting it after)"
fi
molkshm=$build/tools/molkshm
key=0x4d4f4c4b
trap '"$molkshm" delete $key >/dev/null 2>&1 || true' EXIT

step() { printf '\n\033[1m$ molkshm %s\033[0m\n' "$*"; "$molkshm" "$@"; }
step create $key 64M 32M+video:/var/run/timeshift_adaptive.active 16M-live 6144K~512K~streaming
step info $key
step reset $key 1
step delete $key
trap - EXIT
