/* Compiled as C99: the public headers must stay plain C. */
#include "sharedmem.h"
#include "molkxmlprocessor.h"
#include "molkutil.h"

int molk_header_check_anchor(void);
int molk_header_check_anchor(void) { return (int)sizeof(SharedMemSectorHeader); }
