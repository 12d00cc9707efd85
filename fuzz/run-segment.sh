#!/bin/bash
# Builds the segment's libFuzzer target (clang, address and undefined
# behaviour sanitizers, the frame store's sources compiled in) and runs it
# for SECONDS in a private IPC and mount namespace. Exits non-zero if it
# finds a crash, a stray write or a pointer outside a data area; the input
# is left in build-fuzz/segment/artifacts/.
# Usage: fuzz/run-segment.sh [SECONDS] [libFuzzer options...]
set -euo pipefail
secs=${1:-60}
shift || true
source "$(dirname "$0")/build.sh"
build_fuzzer segment "$root/fuzz/segment_fuzz.cpp" "$root"/src/framestore/*.cpp
cd "$out"
exec "$root/tests/support/isolated.sh" ./segment_fuzz -max_total_time="$secs" -max_len=512 \
  -timeout=10 -rss_limit_mb=2048 -artifact_prefix="$out/artifacts/" -print_final_stats=1 \
  "$@" "$out/corpus" "$root/fuzz/corpus/segment"
