#!/bin/bash
# Builds the libFuzzer target of the registry file and the module
# description (clang, address and undefined behaviour sanitizers, the
# reader's and the XML processor's sources compiled in) and runs it for
# SECONDS on top of the seed corpus. Exits non-zero if it finds a crash or
# a broken invariant; the input is left in build-fuzz/registry/artifacts/.
# Usage: fuzz/run-registry.sh [SECONDS]
set -euo pipefail
secs=${1:-60}
source "$(dirname "$0")/build.sh"
build_fuzzer registry "$root/fuzz/registry_fuzz.cpp" "$root/src/moduleservices/registry_file.cpp" \
  "$root/src/molkxmlprocessor.cpp"
# New inputs go to the build directory; the seeds stay as they are.
cd "$out"
exec ./registry_fuzz -max_total_time="$secs" -max_len=9000 -timeout=10 -rss_limit_mb=2048 \
  -dict="$root/fuzz/registry.dict" -artifact_prefix="$out/artifacts/" -print_final_stats=1 \
  "$out/corpus" "$root/fuzz/corpus/registry"
