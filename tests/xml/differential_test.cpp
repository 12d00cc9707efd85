// Differential test over the XML documents found on the machine: the element
// tree built through the public cursor (names in order, nesting, leaf data)
// must match what libxml2 reads from the same text. libxml2 is loaded at run
// time, so the test binary needs nothing more at link time; where it is not
// installed (a cross build under the emulator) the test is skipped.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "../../fuzz/xml_driver.h"

namespace {

namespace fs = std::filesystem;

// A tree as events: "+name" opens an element, "=data" is the data of one
// without child elements ("=\1" where it is not comparable), "-" closes.
using Tree = std::vector<std::string>;
const char kAnyData[] = "=\1";

// libxml2's tree of `text`, read by its text reader; false if it finds the
// text not well-formed.
bool reference_tree(void *so, const std::string &text, Tree *out)
{
    using Fn = int (*)(void *);
    using StrFn = const char *(*)(void *);
    const auto forMemory = reinterpret_cast<void *(*)(const char *, int, const char *, const char *, int)>(
        dlsym(so, "xmlReaderForMemory"));
    const auto read = reinterpret_cast<Fn>(dlsym(so, "xmlTextReaderRead"));
    const auto nodeType = reinterpret_cast<Fn>(dlsym(so, "xmlTextReaderNodeType"));
    const auto isEmpty = reinterpret_cast<Fn>(dlsym(so, "xmlTextReaderIsEmptyElement"));
    const auto name = reinterpret_cast<StrFn>(dlsym(so, "xmlTextReaderConstName"));
    const auto value = reinterpret_cast<StrFn>(dlsym(so, "xmlTextReaderConstValue"));
    const auto release = reinterpret_cast<void (*)(void *)>(dlsym(so, "xmlFreeTextReader"));
    const int options = 2 | 32 | 64 | 2048; // entities replaced, quiet, no network
    void *r = forMemory(text.data(), static_cast<int>(text.size()), "doc.xml", nullptr, options);
    if (!r)
        return false;
    // Data is kept until the element ends, and told only if no child
    // element began in between.
    std::string data;
    bool leaf = false;
    int status;
    while ((status = read(r)) == 1) {
        const int type = nodeType(r);
        if (type == 1) { // element
            out->push_back(std::string("+") + name(r));
            data.clear();
            leaf = !isEmpty(r);
            if (!leaf)
                out->insert(out->end(), {"=", "-"});
        } else if (type == 15) { // end of element
            if (leaf)
                out->push_back("=" + data);
            out->push_back("-");
            leaf = false;
        } else if ((type == 3 || type == 4 || type == 13 || type == 14) && value(r)) {
            data += value(r); // text, CDATA, blanks
        }
    }
    release(r);
    return status == 0;
}

void walk(MolkXmlNavi *h, std::vector<char> &buf, Tree *out)
{
    const int size = static_cast<int>(buf.size());
    while (MOLK_XML_FindElem(h, "")) {
        ASSERT_EQ(0, MOLK_XML_GetTagName(h, buf.data(), size));
        out->push_back(std::string("+") + buf.data());
        const ElemPos &r = h->m_pElemPos[h->m_iMainPos];
        const std::string raw(h->m_csDoc + r.iStartTagClose + 1, std::max(0, r.iEndTagOpen - r.iStartTagClose - 1));
        const int data = MOLK_XML_GetData(h, buf.data(), size);
        ASSERT_TRUE(data == 0 || data == -6);
        // Data is compared where it is plain text: no markup inside
        // (comments, CDATA), no references, no CR (which XML turns into LF).
        // The decoding has tests of its own.
        if (data == 0)
            out->push_back(raw.find_first_of("<&\r") == std::string::npos ? "=" + std::string(buf.data()) : kAnyData);
        ASSERT_EQ(1, MOLK_XML_IntoElem(h));
        walk(h, buf, out);
        ASSERT_EQ(1, MOLK_XML_OutOfElem(h));
        out->push_back("-");
    }
}

TEST(XmlDifferential, MachineDocumentsGiveTheSameTreeAsLibxml2)
{
    // Never closed: libxml2 keeps global state that must stay reachable for
    // the leak checker.
    void *so = dlopen("libxml2.so.2", RTLD_NOW | RTLD_LOCAL);
    if (!so)
        GTEST_SKIP() << "libxml2 is not installed for this architecture";
    int compared = 0, refused = 0;
    for (const char *dir : {"/usr/share/mime", "/usr/share/xml", "/usr/share/dbus-1", "/usr/share/X11/xkb/rules",
                            "/usr/share/metainfo", "/usr/share/maven-repo", "/usr/share/doc"}) {
        std::error_code ec;
        fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
        for (; !ec && it != end; it.increment(ec)) {
            const fs::path p = it->path();
            if (p.extension() != ".xml" && p.extension() != ".pom")
                continue;
            std::ifstream in(p, std::ios::binary);
            const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            Tree want, got;
            if (!reference_tree(so, text, &want) || want.empty())
                continue; // not well-formed: nothing to compare with
            molk_fuzz::Doc x(static_cast<int>(text.size()));
            // Documented limits: attribute values holding '<' or '>', a
            // nesting deeper than MOLK_XML_MAX_DEPTH, or text with NUL bytes
            // (UTF-16).
            if (x.load(text) != 0) {
                ++refused;
                std::cout << "[ not compared " << p << ": " << x.read('e') << " ]\n";
                continue;
            }
            std::vector<char> buf(text.size() + 1);
            walk(x.h, buf, &got);
            ASSERT_EQ(want.size(), got.size()) << p;
            for (size_t i = 0; i < want.size(); ++i)
                ASSERT_TRUE(want[i] == got[i] || (got[i] == kAnyData && want[i][0] == '='))
                    << p << " event " << i << ": libxml2 '" << want[i] << "', here '" << got[i] << "'";
            ++compared;
        }
    }
    if (compared == 0)
        GTEST_SKIP() << "no well-formed XML documents found on this machine";
    std::cout << "[ compared " << compared << " documents, refused " << refused << " ]\n";
    EXPECT_GT(compared, 4 * refused); // the limits are rarely met in real documents
}

} // namespace
