// Version texts that the device's tools grep out of the binary.
#include "sharedmem.h"

extern "C" {
const char shmem_rcsid[] = "$Id: 1.0.2.24 shmem 2018/10/26 17:00:00 $";
const char molkutil_lib_rcsid[] = "$Id: 1.2.4.3 molkutil 2015/12/01 21:21 $";
}

// The two texts above are fixed by the interface the device's tools know, so
// they cannot say which build this is. This one can: the project version,
// for `strings libmolkutil.so.1 | grep 'molkutil version'` on an image that
// carries no package database. Not exported.
__attribute__((used)) static const char kBuildVersion[] = "molkutil version " MOLK_VERSION;
