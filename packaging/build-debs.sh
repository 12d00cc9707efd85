#!/bin/bash
# Builds the Debian packages libmolkutil1, libmolkutil-dev and molkutil-tools
# for amd64 and for armhf (cross build) into build-debs/.
# Usage: bash packaging/build-debs.sh [AMD64_BUILD_DIR ARMHF_BUILD_DIR]
# Defaults: build-pkg and build-pkg-arm. Existing build directories (CI's)
# are reused: reconfigured for /usr, their other settings kept.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=$root/build-debs

package() {  # build directory, cmake arguments for a new one...
  local dir=$1; shift
  [ -f "$dir/CMakeCache.txt" ] || set -- -DBUILD_TESTING=OFF "$@"
  cmake -S "$root" -B "$dir" -DCMAKE_INSTALL_PREFIX=/usr "$@" >/dev/null
  cmake --build "$dir" -j2
  rm -rf "$dir/debs"
  (cd "$dir" && cpack -G DEB -B "$dir/debs" >/dev/null)
  cp "$dir"/debs/*.deb "$out/"
}

rm -rf "$out" && mkdir -p "$out"
package "$(realpath -m "${1:-$root/build-pkg}")"
package "$(realpath -m "${2:-$root/build-pkg-arm}")" \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/arm-linux-gnueabihf.cmake"
ls -1 "$out"
