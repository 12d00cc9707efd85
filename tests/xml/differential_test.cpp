// Differential test over real documents found on the machine: the element
// tree built through the public cursor (names in order, nesting, leaf data)
// must match what libxml2 reads from the same text. libxml2 is loaded at run
// time, so the test binary needs nothing more at link time; where it is not
// installed (a cross build under the emulator) the test is skipped.
#include <dlfcn.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "xml_doc.h"

namespace {

namespace fs = std::filesystem;

// One event of a tree: '+' element with its name, '=' data of an element
// without child elements ("\1" when it is not comparable), '-' end.
struct Event {
    char kind;
    std::string text;
    bool operator==(const Event &o) const
    {
        return kind == o.kind && (text == o.text || text == "\1" || o.text == "\1");
    }
};
using Tree = std::vector<Event>;

struct LibXml2 {
    void *so = dlopen("libxml2.so.2", RTLD_NOW | RTLD_LOCAL);
    void *(*forMemory)(const char *, int, const char *, const char *, int) = nullptr;
    int (*read)(void *) = nullptr;
    int (*nodeType)(void *) = nullptr;
    const char *(*name)(void *) = nullptr;
    const char *(*value)(void *) = nullptr;
    int (*isEmpty)(void *) = nullptr;
    void (*release)(void *) = nullptr;

    LibXml2()
    {
        if (!so)
            return;
        bind(forMemory, "xmlReaderForMemory");
        bind(read, "xmlTextReaderRead");
        bind(nodeType, "xmlTextReaderNodeType");
        bind(name, "xmlTextReaderConstName");
        bind(value, "xmlTextReaderConstValue");
        bind(isEmpty, "xmlTextReaderIsEmptyElement");
        bind(release, "xmlFreeTextReader");
    }
    // Never unloaded: libxml2 keeps global state (its dictionary, its
    // parser set-up) that must stay reachable for the leak checker.
    template <typename F> void bind(F &f, const char *sym) { f = reinterpret_cast<F>(dlsym(so, sym)); }
    bool ok() const { return so && forMemory && read && nodeType && name && value && isEmpty && release; }

    // False if libxml2 finds the text not well-formed.
    bool tree(const std::string &text, Tree *out) const
    {
        const int kNoEntities = 2, kNoError = 32, kNoWarning = 64, kNoNet = 2048;
        void *r = forMemory(text.data(), static_cast<int>(text.size()), "doc.xml", nullptr,
                            kNoEntities | kNoError | kNoWarning | kNoNet);
        if (!r)
            return false;
        std::vector<std::pair<std::string, bool>> open; // data so far, has children
        int status;
        while ((status = read(r)) == 1) {
            switch (nodeType(r)) {
            case 1: // element
                if (!open.empty())
                    open.back().second = true;
                out->push_back({'+', name(r)});
                if (isEmpty(r)) {
                    out->push_back({'=', ""});
                    out->push_back({'-', ""});
                } else {
                    open.push_back({"", false});
                }
                break;
            case 3: case 4: case 13: case 14: // text, CDATA, blanks
                if (!open.empty() && value(r))
                    open.back().first += value(r);
                break;
            case 15: // end of element
                if (open.empty())
                    break;
                if (!open.back().second)
                    out->push_back({'=', open.back().first});
                out->push_back({'-', ""});
                open.pop_back();
                break;
            default:
                break;
            }
        }
        release(r);
        return status == 0;
    }
};

// Data is compared where it is plain text: no markup inside (comments,
// CDATA), no character references, no CR (which XML turns into LF).
bool plain_data(const std::string &raw)
{
    if (raw.find_first_of("<\r") != std::string::npos)
        return false;
    for (size_t at = raw.find('&'); at != std::string::npos; at = raw.find('&', at + 1)) {
        bool known = false;
        for (const char *e : {"&lt;", "&gt;", "&amp;", "&apos;", "&quot;"})
            known = known || raw.compare(at, strlen(e), e) == 0;
        if (!known)
            return false;
    }
    return true;
}

void walk(MolkXmlNavi *h, std::vector<char> &buf, Tree *out)
{
    while (MOLK_XML_FindElem(h, "")) {
        const int size = static_cast<int>(buf.size());
        ASSERT_EQ(0, MOLK_XML_GetTagName(h, buf.data(), size));
        out->push_back({'+', buf.data()});
        const int pos = h->m_iMainPos;
        const int data = MOLK_XML_GetData(h, buf.data(), size);
        if (data == 0) {
            const ElemPos &r = h->m_pElemPos[pos];
            const std::string raw = IsEmptyElement(&r) ? std::string()
                                                       : std::string(h->m_csDoc + r.iStartTagClose + 1,
                                                                     h->m_csDoc + r.iEndTagOpen);
            out->push_back({'=', plain_data(raw) ? std::string(buf.data()) : "\1"});
        } else {
            ASSERT_EQ(-6, data);
        }
        ASSERT_EQ(1, MOLK_XML_IntoElem(h));
        walk(h, buf, out);
        ASSERT_EQ(1, MOLK_XML_OutOfElem(h));
        out->push_back({'-', ""});
    }
}

std::vector<fs::path> machine_documents()
{
    std::vector<fs::path> found;
    for (const char *dir : {"/usr/share/mime", "/usr/share/xml", "/usr/share/dbus-1", "/usr/share/X11/xkb/rules",
                            "/usr/share/metainfo", "/usr/share/maven-repo", "/usr/share/doc"}) {
        std::error_code ec;
        size_t here = 0; // a few from each place, for variety
        fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
        for (; !ec && it != end; it.increment(ec)) {
            const fs::path &p = it->path();
            const auto ext = p.extension();
            std::error_code sec;
            if ((ext != ".xml" && ext != ".pom") || !it->is_regular_file(sec))
                continue;
            const uintmax_t size = it->file_size(sec);
            if (sec || size == 0 || size > (8u << 20))
                continue;
            found.push_back(p);
            if (++here == 80)
                break;
        }
    }
    return found;
}

TEST(XmlDifferential, MachineDocumentsGiveTheSameTreeAsLibxml2)
{
    const LibXml2 ref;
    if (!ref.ok())
        GTEST_SKIP() << "libxml2 is not installed for this architecture";
    int compared = 0, refused = 0, elements = 0;
    for (const fs::path &p : machine_documents()) {
        std::ifstream in(p, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        const std::string text = ss.str();
        Tree want;
        if (!ref.tree(text, &want) || want.empty())
            continue; // not well-formed: nothing to compare with
        XmlDoc x(static_cast<int>(text.size()));
        const int r = x.load(text);
        // Documented limits: attribute values holding '<' or '>', a nesting
        // deeper than MOLK_XML_MAX_DEPTH, or text with NUL bytes (UTF-16).
        if (r != 0) {
            ++refused;
            std::cout << "[ not compared " << p << ": " << x.error() << " ]\n";
            continue;
        }
        std::vector<char> buf(text.size() + 1);
        Tree got;
        walk(x.h, buf, &got);
        ASSERT_EQ(want.size(), got.size()) << p;
        for (size_t i = 0; i < want.size(); ++i)
            ASSERT_TRUE(want[i] == got[i]) << p << " event " << i << ": libxml2 " << want[i].kind << "'"
                                           << want[i].text << "', here " << got[i].kind << "'" << got[i].text << "'";
        ++compared;
        elements += static_cast<int>(want.size() / 3);
    }
    if (compared == 0)
        GTEST_SKIP() << "no well-formed XML documents found on this machine";
    RecordProperty("compared", compared);
    RecordProperty("refused", refused);
    std::cout << "[ compared " << compared << " documents (~" << elements << " elements), refused " << refused
              << " ]\n";
    EXPECT_GT(compared, 4 * refused); // the limits are rarely met in real documents
}

} // namespace
