// Edits in place: exact output, the capacity rule, failures that change
// nothing, and random edit series checked against the table's invariants.
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "xml_doc.h"

namespace {

using Op = int (*)(MolkXmlNavi *, const char *, const char *);

// The text of `x` parses again into the same tree.
::testing::AssertionResult reparses_same(const XmlDoc &x)
{
    XmlDoc again(x.h->m_nElemPosCount - 2);
    const int r = again.load(x.text(), x.h->m_nDocCapacity);
    if (r != 0)
        return ::testing::AssertionFailure() << "reparse gives " << r << " (" << again.error() << ") for " << x.text();
    if (tree_of(again.h) != tree_of(x.h))
        return ::testing::AssertionFailure() << tree_of(again.h) << "\n  !=\n" << tree_of(x.h);
    return ::testing::AssertionSuccess();
}

void select_main(MolkXmlNavi *h, const char *name)
{
    ASSERT_EQ(1, MOLK_XML_FindChildElem(h, name));
    ASSERT_EQ(1, MOLK_XML_IntoElem(h));
}

TEST(XmlEdit, WritesCrLfMarkupAtTheCursor)
{
    const auto root = [](MolkXmlNavi *h) { ASSERT_EQ(1, MOLK_XML_FindElem(h, nullptr)); };
    const auto q = [](MolkXmlNavi *h) { select_main(h, "q"); };
    const struct {
        const char *doc;
        std::function<void(MolkXmlNavi *)> select;
        Op op;
        const char *name, *value, *want;
    } cases[] = {
        {"<p></p>", root, MOLK_XML_AddChildElem, "n", "V", "<p>\r\n<n>V</n>\r\n</p>"},
        {"<p></p>", root, MOLK_XML_InsertChildElem, "n", "V", "<p>\r\n<n>V</n>\r\n</p>"},
        {"<p>text</p>", root, MOLK_XML_AddChildElem, "n", nullptr, "<p>text<n/>\r\n</p>"},
        {"<p>text</p>", root, MOLK_XML_InsertChildElem, "n", nullptr, "<p><n/>\r\ntext</p>"},
        {"<p>  <q/>  </p>", root, MOLK_XML_AddChildElem, "n", nullptr, "<p>  <q/>  <n/>\r\n</p>"},
        {"<p>  <q/>  </p>", root, MOLK_XML_InsertChildElem, "n", nullptr, "<p>  <n/>\r\n<q/>  </p>"},
        {"<p><q/> <r/> </p>", q, MOLK_XML_AddElem, "n", "V", "<p><q/> <n>V</n>\r\n<r/> </p>"},
        {"<p><q/> <r/> </p>", q, MOLK_XML_InsertElem, "n", "V", "<p><n>V</n>\r\n<q/> <r/> </p>"},
        {"<p> x <q/> y <r/> z </p>", q, MOLK_XML_AddElem, "n", nullptr, "<p> x <q/><n/>\r\n y <r/> z </p>"},
        {"<p a=\"1\"/>", root, MOLK_XML_AddChildElem, "n", nullptr, "<p a=\"1\">\r\n<n/>\r\n</p>"},
        {"<p />", root, MOLK_XML_AddChildElem, "n", "", "<p >\r\n<n></n>\r\n</p>"},
        {"<x:p/>", root, MOLK_XML_InsertChildElem, "n", "v", "<x:p>\r\n<n>v</n>\r\n</x:p>"},
        {"<p><q/></p>", root, MOLK_XML_AddChildElem, "b", "v<&>x", "<p><q/><b>v&lt;&amp;&gt;x</b>\r\n</p>"},
        {"<a b='1'/>", root, MOLK_XML_AddAttrib, "b", "xx", "<a b='xx'/>"},
        {"<a b=\"1\" c=\"2\">t</a>", root, MOLK_XML_AddAttrib, "b", "", "<a b=\"\" c=\"2\">t</a>"},
        {"<a b=1>t</a>", root, MOLK_XML_AddAttrib, "b", "2", "<a b=1 b=\"2\">t</a>"},
        {"<a/>", root, MOLK_XML_AddAttrib, "x", nullptr, "<a x=\"\"/>"},
        {"<a />", root, MOLK_XML_AddAttrib, "x", "1", "<a  x=\"1\"/>"},
        {"<a x:b=\"1\"/>", root, MOLK_XML_AddAttrib, "b", "2", "<a x:b=\"2\"/>"},
        {"<r><q a=\"1\"><s/></q></r>", q, MOLK_XML_AddAttrib, "a", "123", "<r><q a=\"123\"><s/></q></r>"},
        {"<a><c d=\"1\"/><e/></a>", root, MOLK_XML_AddAttrib, "n", "v", "<a n=\"v\"><c d=\"1\"/><e/></a>"},
    };
    for (const auto &c : cases) {
        XmlDoc x;
        ASSERT_EQ(0, x.load(c.doc, 256)) << c.doc;
        c.select(x.h);
        const std::vector<int> before = x.cursor();
        EXPECT_EQ(0, c.op(x.h, c.name, c.value)) << c.doc;
        EXPECT_EQ(c.want, x.text()) << c.doc;
        EXPECT_EQ(static_cast<int>(strlen(c.want)), x.h->m_nDocLength);
        EXPECT_TRUE(offsets_on_markup(x.h));
        EXPECT_TRUE(reparses_same(x));
        if (c.op == MOLK_XML_AddAttrib) {
            EXPECT_EQ(before, x.cursor()) << c.doc;
        }
    }
}

TEST(XmlEdit, BuildsADocumentFromNothing)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load("", 400, 0));
    EXPECT_EQ(-5, MOLK_XML_AddChildElem(x.h, "a", nullptr)); // no main element
    EXPECT_EQ(-5, MOLK_XML_AddAttrib(x.h, "a", "1"));
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
    EXPECT_EQ("2", x.childData());
    EXPECT_EQ(-5, MOLK_XML_AddElem(x.h, "second", nullptr));
    EXPECT_EQ(-5, MOLK_XML_InsertElem(x.h, "second", nullptr));
    EXPECT_EQ(0, MOLK_XML_ResetPos(x.h));
    EXPECT_EQ(-5, MOLK_XML_AddElem(x.h, "second", nullptr));
    EXPECT_TRUE(offsets_on_markup(x.h));
    EXPECT_TRUE(reparses_same(x));

    XmlDoc y;
    ASSERT_EQ(0, y.load("", 64, 0));
    ASSERT_EQ(0, MOLK_XML_InsertElem(y.h, "r", "&"));
    EXPECT_EQ("<r>&amp;</r>\r\n", y.text());
}

// A failed edit changes nothing but the error text.
struct Snapshot {
    std::string text;
    std::vector<ElemPos> table;
    std::vector<int> cursor;
    int freePos;
    explicit Snapshot(const XmlDoc &x)
        : text(x.buf.begin(), x.buf.end()), table(x.h->m_pElemPos, x.h->m_pElemPos + x.h->m_nElemPosCount),
          cursor(x.cursor()), freePos(x.h->m_iFreePos) {}
    bool operator==(const Snapshot &o) const
    {
        return text == o.text && cursor == o.cursor && freePos == o.freePos &&
               memcmp(table.data(), o.table.data(), table.size() * sizeof(ElemPos)) == 0;
    }
};

TEST(XmlEdit, CapacityRuleAndFailuresChangeNothing)
{
    for (int capacity : {22, 23}) {
        XmlDoc x;
        ASSERT_EQ(0, x.load("<r><a/></r>", capacity));
        ASSERT_EQ(1, MOLK_XML_FindElem(x.h, "r"));
        const Snapshot before(x);
        const int r = MOLK_XML_AddChildElem(x.h, "b", nullptr);
        if (capacity == 22) {
            EXPECT_EQ(-16, r);
            EXPECT_EQ("Buffer almost overrun!", x.error());
            EXPECT_TRUE(before == Snapshot(x));
        } else {
            EXPECT_EQ(0, r);
            EXPECT_EQ("<r><a/><b/>\r\n</r>", x.text());
        }
    }
    XmlDoc full;
    ASSERT_EQ(0, full.load("<r/>", 5, 5)); // length = capacity: never editable
    ASSERT_EQ(1, MOLK_XML_FindElem(full.h, "r"));
    EXPECT_EQ(-16, MOLK_XML_AddAttrib(full.h, "a", ""));
    EXPECT_EQ(-16, MOLK_XML_AddChildElem(full.h, "a", nullptr));

    XmlDoc attr;
    ASSERT_EQ(0, attr.load("<r b=\"1\"/>", 14)); // length 10
    ASSERT_EQ(1, MOLK_XML_FindElem(attr.h, "r"));
    const Snapshot a(attr);
    EXPECT_EQ(-16, MOLK_XML_AddAttrib(attr.h, "b", "12"));
    EXPECT_EQ(-16, MOLK_XML_AddAttrib(attr.h, "c", ""));
    EXPECT_TRUE(a == Snapshot(attr));
    EXPECT_EQ(0, MOLK_XML_AddAttrib(attr.h, "b", "2"));
}

TEST(XmlEdit, ElementLimitAndArguments)
{
    XmlDoc x(2);
    ASSERT_EQ(0, x.load("<r/>", 128));
    ASSERT_EQ(1, MOLK_XML_FindElem(x.h, "r"));
    EXPECT_EQ(0, MOLK_XML_AddChildElem(x.h, "a", nullptr));
    const Snapshot before(x);
    EXPECT_EQ(-8, MOLK_XML_AddChildElem(x.h, "b", nullptr));
    EXPECT_EQ("Element number limitation!", x.error());
    EXPECT_TRUE(before == Snapshot(x));

    XmlDoc over(1);
    ASSERT_EQ(-8, over.load("<r><a/></r>", 128));
    ASSERT_EQ(1, MOLK_XML_FindElem(over.h, "r"));
    EXPECT_EQ(-8, MOLK_XML_AddChildElem(over.h, "b", nullptr));
    EXPECT_EQ(0, MOLK_XML_AddAttrib(over.h, "k", "v")); // walks past the overflow record
    EXPECT_EQ("<r k=\"v\"><a/></r>", over.text());

    EXPECT_EQ(-1, MOLK_XML_AddElem(nullptr, "a", nullptr));
    EXPECT_EQ(-1, MOLK_XML_AddChildElem(x.h, nullptr, nullptr));
    EXPECT_EQ(-1, MOLK_XML_AddAttrib(x.h, "", "v"));
    EXPECT_EQ(0, MOLK_XML_ResetPos(x.h));
    EXPECT_EQ(-5, MOLK_XML_AddAttrib(x.h, "k", "v"));
    EXPECT_EQ(-5, MOLK_XML_AddChildAttrib(x.h, "k", "v"));
    EXPECT_EQ(-5, MOLK_XML_InsertChildElem(x.h, "k", "v"));
}

TEST(XmlEdit, RefusesToRewriteAValueWhoseQuoteHasNoPartnerInTheTag)
{
    for (const char *name : {"b", "e"}) {
        XmlDoc x;
        ASSERT_EQ(0, x.load("<r><a b=\"x>t</a><c \" e=\"1\"/></r>", 128));
        select_main(x.h, "a");
        const Snapshot before(x);
        EXPECT_EQ(-5, MOLK_XML_AddAttrib(x.h, name, "v")) << name;
        EXPECT_TRUE(before == Snapshot(x));
        EXPECT_EQ(0, MOLK_XML_AddAttrib(x.h, "n", "v")); // a new one is safe
        EXPECT_TRUE(offsets_on_markup(x.h));
        EXPECT_TRUE(reparses_same(x));
    }
}

// Random series of cursor moves and edits on small documents: after every
// successful edit each record stands on its markup and a fresh parse of the
// text gives the same tree.
TEST(XmlEdit, RandomSeriesKeepTheTableRight)
{
    const char *seeds[] = {"", "<r/>", "<r>t</r>", "<r> <a x='1'/> <b>v</b> </r>", "<r><a><b/></a><!-- c --></r>"};
    const char *names[] = {"a", "b", "x:c"};
    const char *values[] = {nullptr, "", "v", "<&>"};
    std::mt19937 rng(20240601);
    int edits = 0;
    for (int round = 0; round < 60; ++round) {
        XmlDoc x(40);
        const char *seed = seeds[round % 5];
        ASSERT_EQ(0, x.load(seed, 2048, static_cast<int>(strlen(seed))));
        for (int step = 0; step < 60; ++step) {
            const unsigned pick = rng() % 12;
            const char *name = names[rng() % 3];
            const char *value = values[rng() % 4];
            switch (pick) {
            case 0: MOLK_XML_FindElem(x.h, nullptr); continue;
            case 1: MOLK_XML_FindChildElem(x.h, nullptr); continue;
            case 2: MOLK_XML_IntoElem(x.h); continue;
            case 3: MOLK_XML_OutOfElem(x.h); continue;
            case 4: MOLK_XML_ResetMainPos(x.h); continue;
            default: break;
            }
            const Op ops[] = {MOLK_XML_AddElem,      MOLK_XML_InsertElem, MOLK_XML_AddChildElem,
                              MOLK_XML_InsertChildElem, MOLK_XML_AddAttrib, MOLK_XML_AddChildAttrib,
                              MOLK_XML_AddChildElem};
            const Op op = ops[pick - 5];
            if ((op == MOLK_XML_AddAttrib || op == MOLK_XML_AddChildAttrib) && value && value[0] == '<')
                value = "w";
            const Snapshot before(x);
            const int r = op(x.h, name, value);
            if (r != 0) {
                EXPECT_TRUE(before == Snapshot(x)) << "failed edit " << r << " changed something";
                continue;
            }
            ++edits;
            ASSERT_EQ(static_cast<int>(strlen(x.buf.data())), x.h->m_nDocLength);
            ASSERT_TRUE(offsets_on_markup(x.h)) << "round " << round << " step " << step;
            ASSERT_TRUE(reparses_same(x)) << "round " << round << " step " << step;
        }
    }
    EXPECT_GT(edits, 500);
}

} // namespace
