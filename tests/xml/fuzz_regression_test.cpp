// The fuzz driver's checks over the fuzz seeds, every input the fuzzer once
// broke the processor with (tests/xml/data), and random edit scripts.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "../../fuzz/xml_driver.h"

namespace {

namespace fs = std::filesystem;

const char *drive(const std::string &in, int *edits = nullptr)
{
    return molk_fuzz::drive(reinterpret_cast<const uint8_t *>(in.data()), in.size(), edits);
}

TEST(XmlFuzzRegression, KeptInputsPassTheDriversChecks)
{
    // ctest names the source tree; run by hand, it is found from this file.
    const char *src = getenv("MOLK_SOURCE_DIR");
    const fs::path root = src ? fs::path(src) : fs::path(__FILE__).parent_path().parent_path().parent_path();
    int replayed = 0, kept = 0;
    for (const char *dir : {"tests/xml/data", "fuzz/corpus/xml"})
        for (const fs::directory_entry &e : fs::directory_iterator(root / dir)) {
            std::ifstream in(e.path(), std::ios::binary);
            const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            EXPECT_STREQ(nullptr, drive(bytes)) << e.path();
            ++replayed;
            kept += e.path().filename().string().rfind("fuzz-", 0) == 0;
        }
    EXPECT_GT(replayed, 10);
    EXPECT_GE(kept, 3);
}

// Random scripts of cursor moves and edits on small documents with room to
// grow: every edit must keep the table right, every refusal change nothing.
TEST(XmlFuzzRegression, RandomEditScripts)
{
    const char *seeds[] = {"", "<r/>", "<r>t</r>", "<r> <a x='1'/> <b>v</b> </r>", "<r><a><b/></a><!-- c --></r>"};
    std::mt19937 rng(20240601);
    int edits = 0;
    for (int round = 0; round < 100; ++round) {
        // 40 elements; a buffer of the text + 1 + 8 * 255 bytes, all parsed
        std::string in = std::string("\x27\x03\xff", 3) + seeds[round % 5] + "\xff";
        for (int step = 0; step < 120; ++step)
            in += static_cast<char>(rng() % 4 == 0 ? rng() % 7 : 16 + rng() % 8), in += static_cast<char>(rng());
        ASSERT_STREQ(nullptr, drive(in, &edits)) << "round " << round;
    }
    EXPECT_GT(edits, 1000);
}

} // namespace
