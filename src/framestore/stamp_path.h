// Which paths a ring's second tag may name as its adaptive-timestamp file.
#ifndef MOLK_FRAMESTORE_STAMP_PATH_H
#define MOLK_FRAMESTORE_STAMP_PATH_H

#include "framestore/paths.h"

namespace shm {

// Null when `path` may be opened as a stamp file: absolute, no ".."
// component, and a name directly in one of the ':'-separated directories
// of `dirs`.
// Otherwise why not, as a short text for the log. What the path finally
// names (a link, a directory, a FIFO) is judged at the open, not here.
const char *StampPathRefusal(const char *path, const char *dirs = kStampDirs);

}  // namespace shm

#endif  // MOLK_FRAMESTORE_STAMP_PATH_H
