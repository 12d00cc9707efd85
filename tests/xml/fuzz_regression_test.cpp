// Replays the fuzz seeds and every input the fuzzer once broke the
// processor with (tests/xml/data) through the fuzz driver's checks.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "../../fuzz/xml_driver.h"
#include "xml_doc.h"

namespace {

namespace fs = std::filesystem;

TEST(XmlFuzzRegression, KeptInputsPassTheDriversChecks)
{
    // ctest names the source tree; run by hand, it is found from this file.
    const char *src = getenv("MOLK_SOURCE_DIR");
    const fs::path root = src ? fs::path(src) : fs::path(__FILE__).parent_path().parent_path().parent_path();
    int replayed = 0;
    for (const char *dir : {"tests/xml/data", "fuzz/corpus/xml"}) {
        std::error_code ec;
        for (fs::directory_iterator it(root / dir, ec), end; !ec && it != end; it.increment(ec)) {
            if (it->path().filename().string().rfind("fuzz-", 0) != 0 && std::string(dir) == "tests/xml/data")
                continue;
            std::ifstream in(it->path(), std::ios::binary);
            const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            const char *bad = molk_fuzz::drive(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            EXPECT_EQ(nullptr, bad) << it->path() << ": " << (bad ? bad : "");
            ++replayed;
        }
    }
    EXPECT_GT(replayed, 10);
}

// The shape the fuzzer found first: a self-closed parent whose '/' follows
// another '/' cannot take a child without changing what its start tag means.
TEST(XmlFuzzRegression, DoubleSlashParentRefusesAChild)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load("<r//>", 64));
    ASSERT_EQ(1, MOLK_XML_FindElem(x.h, "r"));
    EXPECT_EQ(-5, MOLK_XML_AddChildElem(x.h, "n", nullptr));
    EXPECT_EQ("<r//>", x.text());
    EXPECT_EQ(0, MOLK_XML_AddAttrib(x.h, "k", "v"));
    EXPECT_EQ("<r/ k=\"v\"/>", x.text());
}

} // namespace
