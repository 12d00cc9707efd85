# Sourced by the fuzz/run-*.sh scripts: builds the libFuzzer target NAME
# from SOURCES (clang, address and undefined behaviour sanitizers) as
# build-fuzz/NAME/NAME_fuzz, with corpus/ and artifacts/ beside it. Sets
# root (the checkout) and out (the target's directory).
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_fuzzer() {  # name, sources...
  local name=$1; shift
  out=$root/build-fuzz/$name
  mkdir -p "$out/corpus" "$out/artifacts"
  "${CXX:-clang++}" -std=c++17 -O1 -g -fno-omit-frame-pointer \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all \
    -Wall -Wextra -Wshadow -Werror \
    -I"$root/include" -I"$root/src" -I"$root/fuzz" \
    "$@" -o "$out/${name}_fuzz"
}
