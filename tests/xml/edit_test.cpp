// Edits in place: exact output, the capacity and element limits, refusals
// that change nothing. Random edit series: fuzz_regression_test.cpp.
#include <gtest/gtest.h>

#include <memory>

#include "../../fuzz/xml_driver.h"

namespace {

using molk_fuzz::Doc;

// Each edit goes through molk_fuzz::checked_edit, which also checks the
// table against the text and a fresh parse, and that a refusal changed
// nothing. `want` is the text after a success, or the error text after a
// refusal (nullptr: not looked at). A row without a document goes on with
// the previous one. `main` selects the root (nullptr), the root's child of
// that name, or nothing (""). `cursor`, where given, is the cursor after the
// edit; attribute edits must leave it where it was.
TEST(XmlEdit, EditsAtTheCursor)
{
    const struct {
        const char *doc, *main;
        molk_fuzz::Edit op;
        const char *name, *value;
        int result;
        const char *want;
        int capacity = 256, length = -1, maxElements = 64;
        std::vector<int> cursor = {};
    } cases[] = {
        {"<p></p>", nullptr, MOLK_XML_AddChildElem, "n", "V", 0, "<p>\r\n<n>V</n>\r\n</p>"},
        {"<p>text</p>", nullptr, MOLK_XML_AddChildElem, "n", nullptr, 0, "<p>text<n/>\r\n</p>"},
        {"<p>text</p>", nullptr, MOLK_XML_InsertChildElem, "n", nullptr, 0, "<p><n/>\r\ntext</p>"},
        {"<p>  <q/>  </p>", nullptr, MOLK_XML_AddChildElem, "n", nullptr, 0, "<p>  <q/>  <n/>\r\n</p>"},
        {"<p>  <q/>  </p>", nullptr, MOLK_XML_InsertChildElem, "n", nullptr, 0, "<p>  <n/>\r\n<q/>  </p>"},
        {"<p><q/> <r/> </p>", "q", MOLK_XML_AddElem, "n", "V", 0, "<p><q/> <n>V</n>\r\n<r/> </p>"},
        {"<p><q/> <r/> </p>", "q", MOLK_XML_InsertElem, "n", "V", 0, "<p><n>V</n>\r\n<q/> <r/> </p>"},
        {"<p> x <q/> y <r/> z </p>", "q", MOLK_XML_AddElem, "n", nullptr, 0, "<p> x <q/><n/>\r\n y <r/> z </p>"},
        {"<p a=\"1\"/>", nullptr, MOLK_XML_AddChildElem, "n", nullptr, 0, "<p a=\"1\">\r\n<n/>\r\n</p>"},
        {"<p />", nullptr, MOLK_XML_AddChildElem, "n", "", 0, "<p >\r\n<n></n>\r\n</p>"},
        {"<x:p/>", nullptr, MOLK_XML_InsertChildElem, "n", "v", 0, "<x:p>\r\n<n>v</n>\r\n</x:p>"},
        {"<p><q/></p>", nullptr, MOLK_XML_AddChildElem, "b", "v<&>x", 0, "<p><q/><b>v&lt;&amp;&gt;x</b>\r\n</p>"},
        {"<a b='1'/>", nullptr, MOLK_XML_AddAttrib, "b", "xx", 0, "<a b='xx'/>"},
        {"<a b=\"1\" c=\"2\">t</a>", nullptr, MOLK_XML_AddAttrib, "b", "", 0, "<a b=\"\" c=\"2\">t</a>"},
        {"<a b=1>t</a>", nullptr, MOLK_XML_AddAttrib, "b", "2", 0, "<a b=1 b=\"2\">t</a>"},
        {"<a/>", nullptr, MOLK_XML_AddAttrib, "x", nullptr, 0, "<a x=\"\"/>"},
        {"<a />", nullptr, MOLK_XML_AddAttrib, "x", "1", 0, "<a  x=\"1\"/>"},
        {"<a x:b=\"1\"/>", nullptr, MOLK_XML_AddAttrib, "b", "2", 0, "<a x:b=\"2\"/>"},
        {"<a><c d=\"1\"/><e/></a>", nullptr, MOLK_XML_AddAttrib, "n", "v", 0, "<a n=\"v\"><c d=\"1\"/><e/></a>"},
        {"<r//>", nullptr, MOLK_XML_AddAttrib, "k", "v", 0, "<r/ k=\"v\"/>"},
        // A self-closed tag whose '/' follows another cannot take a child: the
        // start tag left behind would read as self-closed again. A blank
        // between the two is enough.
        {"<r//>", nullptr, MOLK_XML_AddChildElem, "n", nullptr, -5, nullptr},
        {"<r/ />", nullptr, MOLK_XML_AddChildElem, "n", nullptr, 0, "<r/ >\r\n<n/>\r\n</r>"},
        // A '>' right behind a quote closes an end tag; text written behind it,
        // a partner quote included, leaves that so.
        {"<r><a></a \">\"</r>", "a", MOLK_XML_AddElem, "n", nullptr, 0, "<r><a></a \"><n/>\r\n\"</r>"},
        {"<r><a></a \"></r>", nullptr, MOLK_XML_AddChildElem, "n", "\"", 0, "<r><a></a \"><n>\"</n>\r\n</r>"},
        {"<r><a></\"a\"></r>", "a", MOLK_XML_AddElem, "n", nullptr, 0, "<r><a></\"a\"><n/>\r\n</r>"},
        // A quote in a '<!' form keeps what it hides when an edit writes quotes
        // behind it.
        {"<r><!X \"y\"><a/></r>", "a", MOLK_XML_AddAttrib, "b", "1", 0, "<r><!X \"y\"><a b=\"1\"/></r>"},
        // A value whose quote has no partner in its tag is not rewritten.
        {"<r><a b=\"x>t</a><c \" e=\"1\"/></r>", "a", MOLK_XML_AddAttrib, "b", "v", -5, nullptr},
        {"<r><a b=\"x>t</a><c \" e=\"1\"/></r>", "a", MOLK_XML_AddAttrib, "e", "v", -5, nullptr},
        {"<r><a b=\"x>t</a><c \" e=\"1\"/></r>", "a", MOLK_XML_AddAttrib, "n", "v", 0,
         "<r><a b=\"x n=\"v\">t</a><c \" e=\"1\"/></r>"},
        // A document built from nothing; a second root is refused.
        {"", "", MOLK_XML_InsertElem, "r", "&", 0, "<r>&amp;</r>\r\n"},
        {"", "", MOLK_XML_AddChildElem, "a", nullptr, -5, nullptr},
        {"", "", MOLK_XML_AddElem, "root", nullptr, 0, "<root/>\r\n", 400, -1, 64, {0, 1, 0, 1}},
        {nullptr, "", MOLK_XML_AddChildElem, "a", nullptr, 0, "<root>\r\n<a/>\r\n</root>\r\n", 256, -1, 64,
         {0, 1, 2, 1}},
        {nullptr, "", MOLK_XML_AddChildElem, "b", "2", 0, "<root>\r\n<a/>\r\n<b>2</b>\r\n</root>\r\n"},
        {nullptr, "", MOLK_XML_AddChildAttrib, "k", "v", 0, "<root>\r\n<a/>\r\n<b k=\"v\">2</b>\r\n</root>\r\n"},
        {nullptr, "", MOLK_XML_AddAttrib, "m", "1", 0, "<root m=\"1\">\r\n<a/>\r\n<b k=\"v\">2</b>\r\n</root>\r\n"},
        {nullptr, "", MOLK_XML_AddElem, "s", nullptr, -5, nullptr},
        {"<r/>", "", MOLK_XML_AddElem, "s", nullptr, -5, nullptr},
        {"<r/>", "", MOLK_XML_AddChildAttrib, "k", "v", -5, nullptr},
        {"<r/>", nullptr, MOLK_XML_AddChildElem, nullptr, nullptr, -1, nullptr},
        {"<r/>", nullptr, MOLK_XML_AddAttrib, "", "v", -1, nullptr},
        // The capacity rule: the text plus the working size of the new markup
        // must leave a byte. The element limit counts parsed elements too.
        {"<r><a/></r>", nullptr, MOLK_XML_AddChildElem, "b", nullptr, 0, "<r><a/><b/>\r\n</r>", 23},
        {"<r><a/></r>", nullptr, MOLK_XML_AddChildElem, "b", nullptr, -16, "Buffer almost overrun!", 22},
        {"<r/>", nullptr, MOLK_XML_AddChildElem, "a", "v", -16, "Buffer almost overrun!", 29}, // needs 30
        {"<r b=\"1\"/>", nullptr, MOLK_XML_AddAttrib, "b", "2", 0, "<r b=\"2\"/>", 14},
        {"<r b=\"1\"/>", nullptr, MOLK_XML_AddAttrib, "b", "12", -16, "Buffer almost overrun!", 14},
        {"<r b=\"1\"/>", nullptr, MOLK_XML_AddAttrib, "c", "", -16, nullptr, 14},
        {"<r/>", nullptr, MOLK_XML_AddAttrib, "a", "", -16, nullptr, 5, 5}, // length = capacity
        {"<r/>", nullptr, MOLK_XML_AddChildElem, "a", nullptr, -16, nullptr, 5, 5},
        {"<r/>", nullptr, MOLK_XML_AddChildElem, "a", nullptr, 0, "<r>\r\n<a/>\r\n</r>", 256, -1, 2},
        {nullptr, "", MOLK_XML_AddChildElem, "b", nullptr, -8, "Element number limitation!"},
        // After an overflowing parse attributes can be set, elements not.
        {"<r><a/></r>", nullptr, MOLK_XML_AddAttrib, "k", "v", 0, "<r k=\"v\"><a/></r>", 256, -1, 1},
        {"<r><a/></r>", nullptr, MOLK_XML_AddChildElem, "b", nullptr, -8, nullptr, 256, -1, 1},
    };
    std::unique_ptr<Doc> x;
    int parsed = 0;
    for (const auto &c : cases) {
        if (c.doc) {
            x = std::make_unique<Doc>(c.maxElements);
            parsed = x->load(c.doc, c.capacity, c.length);
            ASSERT_EQ(c.maxElements == 1 ? -8 : 0, parsed) << c.doc;
        }
        if (!c.main || c.main[0]) {
            ASSERT_EQ(1, c.main ? MOLK_XML_FindChildElem(x->h, c.main) : MOLK_XML_FindElem(x->h, nullptr));
            ASSERT_EQ(1, c.main ? MOLK_XML_IntoElem(x->h) : 1);
        }
        const std::vector<int> before = x->cursor();
        int r;
        EXPECT_STREQ(nullptr, molk_fuzz::checked_edit(*x, parsed, c.op, c.name, c.value, &r)) << x->text();
        EXPECT_EQ(c.result, r) << x->text() << " " << (c.name ? c.name : "");
        if (c.want) {
            EXPECT_EQ(c.want, r == 0 ? x->text() : x->read('e'));
        }
        if (!c.cursor.empty() || c.op == MOLK_XML_AddAttrib || c.op == MOLK_XML_AddChildAttrib) {
            EXPECT_EQ(c.cursor.empty() ? before : c.cursor, x->cursor()) << x->text();
        }
    }
    EXPECT_EQ(-1, MOLK_XML_AddElem(nullptr, "a", nullptr));
}

} // namespace
