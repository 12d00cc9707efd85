// Edits in place: exact output, the capacity and element limits, refusals
// that change nothing. Random edit series: fuzz_regression_test.cpp.
#include <cstring>
#include <string>

#include "xml_doc.h"

namespace {

using Op = int (*)(MolkXmlNavi *, const char *, const char *);

// Selects the root as main, or with `main` the root's child of that name;
// "" selects nothing.
void select(XmlDoc &x, const char *main)
{
    if (main && !main[0])
        return;
    ASSERT_EQ(1, main ? MOLK_XML_FindChildElem(x.h, main) : MOLK_XML_FindElem(x.h, nullptr));
    ASSERT_EQ(1, main ? MOLK_XML_IntoElem(x.h) : 1);
}

// Every successful edit here also keeps the table right (x.sound()), which
// checks the shifted offsets of the records behind the edit.
TEST(XmlEdit, WritesCrLfMarkupAtTheCursor)
{
    const struct {
        const char *doc, *main;
        Op op;
        const char *name, *value, *want;
        int capacity = 256, maxElements = 64;
    } cases[] = {
        {"<p></p>", nullptr, MOLK_XML_AddChildElem, "n", "V", "<p>\r\n<n>V</n>\r\n</p>"},
        {"<p></p>", nullptr, MOLK_XML_InsertChildElem, "n", "V", "<p>\r\n<n>V</n>\r\n</p>"},
        {"<p>text</p>", nullptr, MOLK_XML_AddChildElem, "n", nullptr, "<p>text<n/>\r\n</p>"},
        {"<p>text</p>", nullptr, MOLK_XML_InsertChildElem, "n", nullptr, "<p><n/>\r\ntext</p>"},
        {"<p>  <q/>  </p>", nullptr, MOLK_XML_AddChildElem, "n", nullptr, "<p>  <q/>  <n/>\r\n</p>"},
        {"<p>  <q/>  </p>", nullptr, MOLK_XML_InsertChildElem, "n", nullptr, "<p>  <n/>\r\n<q/>  </p>"},
        {"<p><q/> <r/> </p>", "q", MOLK_XML_AddElem, "n", "V", "<p><q/> <n>V</n>\r\n<r/> </p>"},
        {"<p><q/> <r/> </p>", "q", MOLK_XML_InsertElem, "n", "V", "<p><n>V</n>\r\n<q/> <r/> </p>"},
        {"<p> x <q/> y <r/> z </p>", "q", MOLK_XML_AddElem, "n", nullptr, "<p> x <q/><n/>\r\n y <r/> z </p>"},
        {"<p a=\"1\"/>", nullptr, MOLK_XML_AddChildElem, "n", nullptr, "<p a=\"1\">\r\n<n/>\r\n</p>"},
        {"<p />", nullptr, MOLK_XML_AddChildElem, "n", "", "<p >\r\n<n></n>\r\n</p>"},
        {"<x:p/>", nullptr, MOLK_XML_InsertChildElem, "n", "v", "<x:p>\r\n<n>v</n>\r\n</x:p>"},
        {"<p><q/></p>", nullptr, MOLK_XML_AddChildElem, "b", "v<&>x", "<p><q/><b>v&lt;&amp;&gt;x</b>\r\n</p>"},
        {"<a b='1'/>", nullptr, MOLK_XML_AddAttrib, "b", "xx", "<a b='xx'/>"},
        {"<a b=\"1\" c=\"2\">t</a>", nullptr, MOLK_XML_AddAttrib, "b", "", "<a b=\"\" c=\"2\">t</a>"},
        {"<a b=1>t</a>", nullptr, MOLK_XML_AddAttrib, "b", "2", "<a b=1 b=\"2\">t</a>"},
        {"<a/>", nullptr, MOLK_XML_AddAttrib, "x", nullptr, "<a x=\"\"/>"},
        {"<a />", nullptr, MOLK_XML_AddAttrib, "x", "1", "<a  x=\"1\"/>"},
        {"<a x:b=\"1\"/>", nullptr, MOLK_XML_AddAttrib, "b", "2", "<a x:b=\"2\"/>"},
        {"<r><q a=\"1\"><s/></q></r>", "q", MOLK_XML_AddAttrib, "a", "123", "<r><q a=\"123\"><s/></q></r>"},
        {"<a><c d=\"1\"/><e/></a>", nullptr, MOLK_XML_AddAttrib, "n", "v", "<a n=\"v\"><c d=\"1\"/><e/></a>"},
        {"<r//>", nullptr, MOLK_XML_AddAttrib, "k", "v", "<r/ k=\"v\"/>"},
        {"", "", MOLK_XML_InsertElem, "r", "&", "<r>&amp;</r>\r\n"},
        // Next to the refusals below: what just fits.
        {"<r><a/></r>", nullptr, MOLK_XML_AddChildElem, "b", nullptr, "<r><a/><b/>\r\n</r>", 23},
        {"<r b=\"1\"/>", nullptr, MOLK_XML_AddAttrib, "b", "2", "<r b=\"2\"/>", 14},
        {"<r/>", nullptr, MOLK_XML_AddChildElem, "a", nullptr, "<r>\r\n<a/>\r\n</r>", 256, 2},
        {"<r><a/></r>", nullptr, MOLK_XML_AddAttrib, "k", "v", "<r k=\"v\"><a/></r>", 256, 1}, // table overflowed
        {"<r><a b=\"x>t</a><c \" e=\"1\"/></r>", "a", MOLK_XML_AddAttrib, "n", "v",
         "<r><a b=\"x n=\"v\">t</a><c \" e=\"1\"/></r>"},
    };
    for (const auto &c : cases) {
        XmlDoc x(c.maxElements);
        const int parsed = x.load(c.doc, c.capacity);
        ASSERT_EQ(c.maxElements == 1 ? -8 : 0, parsed) << c.doc;
        select(x, c.main);
        const std::vector<int> before = x.cursor();
        EXPECT_EQ(0, c.op(x.h, c.name, c.value)) << c.doc;
        EXPECT_EQ(c.want, x.text()) << c.doc;
        EXPECT_TRUE(x.sound(parsed)) << c.doc;
        if (c.op == MOLK_XML_AddAttrib) {
            EXPECT_EQ(before, x.cursor()) << c.doc;
        }
    }
}

TEST(XmlEdit, BuildsADocumentFromNothing)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load("", 400, 0));
    ASSERT_EQ(0, MOLK_XML_AddElem(x.h, "root", nullptr));
    EXPECT_EQ("<root/>\r\n", x.text());
    EXPECT_EQ((std::vector<int>{0, 1, 0, 1}), x.cursor());
    EXPECT_EQ(9, x.h->m_nDocLength);
    ASSERT_EQ(0, MOLK_XML_AddChildElem(x.h, "a", nullptr));
    EXPECT_EQ("<root>\r\n<a/>\r\n</root>\r\n", x.text());
    EXPECT_EQ((std::vector<int>{0, 1, 2, 1}), x.cursor());
    ASSERT_EQ(0, MOLK_XML_AddChildElem(x.h, "b", "2")); // behind the selected child
    ASSERT_EQ(0, MOLK_XML_AddChildAttrib(x.h, "k", "v"));
    EXPECT_EQ("<root>\r\n<a/>\r\n<b k=\"v\">2</b>\r\n</root>\r\n", x.text());
    EXPECT_EQ("2", x.read(MOLK_XML_GetChildData));
    EXPECT_TRUE(x.sound());
}

// A refused edit changes nothing but the error text.
TEST(XmlEdit, RefusalsChangeNothing)
{
    const struct {
        const char *doc, *main;
        Op op;
        const char *name, *value;
        int result;
        const char *error = nullptr;
        int capacity = 256, length = -1, maxElements = 64;
    } cases[] = {
        {"", "", MOLK_XML_AddChildElem, "a", nullptr, -5}, // no main element
        {"", "", MOLK_XML_AddAttrib, "a", "1", -5},
        {"<r/>", nullptr, MOLK_XML_AddElem, "s", nullptr, -5}, // a second root
        {"<r/>", nullptr, MOLK_XML_InsertElem, "s", nullptr, -5},
        {"<r/>", "", MOLK_XML_AddElem, "s", nullptr, -5},
        {"<r/>", "", MOLK_XML_AddAttrib, "k", "v", -5},
        {"<r/>", "", MOLK_XML_AddChildAttrib, "k", "v", -5},
        {"<r/>", "", MOLK_XML_InsertChildElem, "k", "v", -5},
        {"<r/>", nullptr, MOLK_XML_AddChildElem, nullptr, nullptr, -1},
        {"<r/>", nullptr, MOLK_XML_AddAttrib, "", "v", -1},
        // A self-closed tag whose '/' follows another cannot take a child.
        {"<r//>", nullptr, MOLK_XML_AddChildElem, "n", nullptr, -5},
        // A value whose quote has no partner in its tag is not rewritten.
        {"<r><a b=\"x>t</a><c \" e=\"1\"/></r>", "a", MOLK_XML_AddAttrib, "b", "v", -5},
        {"<r><a b=\"x>t</a><c \" e=\"1\"/></r>", "a", MOLK_XML_AddAttrib, "e", "v", -5},
        // The capacity rule: the text plus the new markup must leave a byte.
        {"<r><a/></r>", nullptr, MOLK_XML_AddChildElem, "b", nullptr, -16, "Buffer almost overrun!", 22},
        {"<r b=\"1\"/>", nullptr, MOLK_XML_AddAttrib, "b", "12", -16, nullptr, 14},
        {"<r b=\"1\"/>", nullptr, MOLK_XML_AddAttrib, "c", "", -16, nullptr, 14},
        {"<r/>", nullptr, MOLK_XML_AddAttrib, "a", "", -16, nullptr, 5, 5}, // length = capacity
        {"<r/>", nullptr, MOLK_XML_AddChildElem, "a", nullptr, -16, nullptr, 5, 5},
        {"<r><a/></r>", nullptr, MOLK_XML_AddChildElem, "b", nullptr, -8, "Element number limitation!", 256, -1, 2},
        {"<r><a/></r>", "a", MOLK_XML_InsertElem, "b", nullptr, -8, "Element number limitation!", 256, -1, 2},
        {"<r><a/></r>", nullptr, MOLK_XML_AddChildElem, "b", nullptr, -8, nullptr, 256, -1, 1}, // overflowed
    };
    for (const auto &c : cases) {
        XmlDoc x(c.maxElements);
        ASSERT_EQ(c.maxElements == 1 ? -8 : 0, x.load(c.doc, c.capacity, c.length)) << c.doc;
        select(x, c.main);
        const std::vector<char> before = molk_fuzz::snapshot(x);
        EXPECT_EQ(c.result, c.op(x.h, c.name, c.value)) << c.doc << " " << c.name;
        EXPECT_TRUE(before == molk_fuzz::snapshot(x)) << c.doc;
        if (c.error) {
            EXPECT_EQ(c.error, x.error());
        }
    }
    EXPECT_EQ(-1, MOLK_XML_AddElem(nullptr, "a", nullptr));
}

} // namespace
