#!/bin/sh
# Both word sizes on one block: a native peer writes, the armhf peer under
# qemu-arm checks, and the other way round. Run inside isolated.sh.
# Usage: cross_arch.sh NATIVE_PEER ARM_PEER EMULATOR...
set -e
native=$1; arm=$2; shift 2
trap '"$native" delete 0x4d43 >/dev/null 2>&1; "$native" delete 0x4d44 >/dev/null 2>&1' EXIT
"$native" make 0x4d43 >/dev/null 2>&1
"$@" "$arm" check 0x4d43
"$@" "$arm" make 0x4d44 >/dev/null 2>&1
"$native" check 0x4d44
