#!/bin/bash
# Builds the XML processor's libFuzzer target (clang, address and undefined
# behaviour sanitizers, the processor's source compiled in) and runs it for
# SECONDS on top of the seed corpus. Exits non-zero if it finds a crash or a
# broken invariant; the input is left in build-fuzz/xml/artifacts/.
# Usage: fuzz/run-xml.sh [SECONDS]
set -euo pipefail
secs=${1:-60}
source "$(dirname "$0")/build.sh"
build_fuzzer xml "$root/fuzz/xml_fuzz.cpp" "$root/src/molkxmlprocessor.cpp"
# New inputs go to the build directory; the seeds stay as they are.
cd "$out"
exec ./xml_fuzz -max_total_time="$secs" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
  -dict="$root/fuzz/xml.dict" -artifact_prefix="$out/artifacts/" -print_final_stats=1 \
  "$out/corpus" "$root/fuzz/corpus/xml"
