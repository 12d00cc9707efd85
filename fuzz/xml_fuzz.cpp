// libFuzzer target of the XML processor: see xml_driver.h for the input.
#include <cstdio>
#include <cstdlib>

#include "xml_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (const char *bad = molk_fuzz::drive(data, size)) {
        fprintf(stderr, "xml_fuzz: %s\n", bad);
        abort();
    }
    return 0;
}
