// Parser: position table, results and error texts, limits, what a failed
// parse leaves behind.
#include <climits>
#include <cstring>
#include <string>

#include "xml_doc.h"

namespace {

TEST(XmlParse, FillsThePositionTable)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load(R"(<r><a id="1">x</a><b/></r>)"));
    EXPECT_EQ(4, x.h->m_iFreePos);
    const int want[4][7] = {
        {0, 0, 0, 0, 0, 1, 0},     {0, 2, 22, 25, 0, 2, 0},
        {3, 12, 14, 17, 1, 0, 3},  {18, 21, 20, 21, 1, 0, 0},
    };
    for (int i = 0; i < 4; ++i) {
        const ElemPos &r = x.rec(i);
        const int got[7] = {r.iStartTagOpen, r.iStartTagClose, r.iEndTagOpen, r.iEndTagClose,
                            r.iParent,       r.iFirstChild,    r.iNextSibling};
        for (int k = 0; k < 7; ++k)
            EXPECT_EQ(want[i][k], got[k]) << "record " << i << " field " << k;
    }
    EXPECT_EQ(1, IsEmptyElement(&x.rec(3)));
    EXPECT_EQ(0, IsEmptyElement(&x.rec(2)));
}

struct Case {
    const char *text;
    int result;
    const char *error; // nullptr: not checked
    int length;        // -1: the text's length
};

TEST(XmlParse, ResultsAndErrorTexts)
{
    const Case cases[] = {
        {"<a/>", 0, nullptr, -1},
        {"<a></a>", 0, nullptr, -1},
        {"  junk <a>x</a> trailing <b/>", 0, nullptr, -1},
        {"< a>< /a>", 0, nullptr, -1},
        {"<a></a >", 0, nullptr, -1},
        {"<a><!-- <b> --></a>", 0, nullptr, -1},
        {"<a><![CDATA[<b>]]></a>", 0, nullptr, -1},
        {"<?xml version=\"1.0\"?><!-- c --><a><?pi x?></a>", 0, nullptr, -1},
        {"<!DOCTYPE a [ <!ELEMENT a (#PCDATA)> ]><a/>", 0, nullptr, -1},
        {"<!DOCTYPE a [ \"x>\" ]><a/>", 0, nullptr, -1},
        {"<a><!--></a>", 0, nullptr, -1},
        {"<a></a>xxx", 0, nullptr, 7},
        {"<a>x>y</a>", -4, "Element tag not found", -1},
        {"<a b=\">\">x</a>", -4, "Element tag not found", -1},
        {"<a b=\"<\">x</a>", -4, "End of tag not found", -1},
        {"<a>", -4, "Element tag not found", -1},
        {"<a>x", -4, "Element tag not found", -1},
        {"<a><b></b>", -4, "Element tag not found", -1},
        {"<a/ >", -4, "Element tag not found", -1},
        {"   ", -4, "Element tag not found", -1},
        {"no tag at all", -4, "Element tag not found", -1},
        {"<a><b></a>", -4, "End tag does not correspond to b", -1},
        {"<a></a x>", -4, "End tag not completed for element a", -1},
        {"<a></a", -4, "End tag not completed for element a", -1},
        {"<a></", -4, "End tag not completed for element a", -1},
        {"<a></a>", -4, "End tag not completed for element a", 6},
        {"<a></a \">\">", -4, "End tag not completed for element a", -1},
        {"</a>", -4, "Empty tag", -1},
        {"<\"a\"></a>", -4, "Tag starts with quote", -1},
        {"<", -4, "Abrupt end within tag", -1},
        {"<a", -4, "End of tag not found", -1},
        {"<?", -4, "Invalid node", -1},
        {"<!", -4, "Invalid node", -1},
        {"<!-- c", -4, "Invalid node", -1},
        {"<?xml version=\"1.0\"", -4, "Invalid node", -1},
        {"<!DOCTYPE a [><a/>", -4, "Invalid node", -1},
        {"<!DOCTYPE a ]><a/>", -4, "Invalid node", -1},
        {"<!DOCTYPE a [ <!-- 'tis --> ]><a>'</a>", -4, "Invalid node", -1},
        {"<!DOCTYPE a [ <!-- it's --> ]><a>'</a>", 0, nullptr, -1},
        {"<!DOCTYPE a [ 'x ]><a/>", -4, "Invalid node", -1},
        // A '<' with blanks before '?' or '!' is no skippable node.
        {"< ?x?><a/>", -4, "Invalid node", -1},
        {"<a>< !-- c --></a>", -4, "Invalid node", -1},
    };
    for (const Case &c : cases) {
        XmlDoc x;
        EXPECT_EQ(c.result, x.load(c.text, -1, c.length)) << c.text;
        if (c.error) {
            EXPECT_EQ(c.error, x.error()) << c.text;
        }
    }
}

TEST(XmlParse, StopsAtNulAndLengthAndAcceptsAZeroFilledBuffer)
{
    XmlDoc x;
    EXPECT_EQ(-4, x.load(std::string("<a>\0x</a>", 9), -1, 9));
    EXPECT_EQ("Element tag not found", x.error());
    EXPECT_EQ(0, x.load("<a></a>", 20, 20));
    EXPECT_EQ(20, x.h->m_nDocLength);
}

TEST(XmlParse, MatchesLongNamesInFullAndCutsThemInMessages)
{
    const std::string n40(40, 'n');
    XmlDoc x;
    EXPECT_EQ(0, x.load("<" + n40 + "></" + n40 + ">"));
    EXPECT_EQ(-4, x.load("<" + n40 + "></" + n40 + "x>"));
    EXPECT_EQ("End tag does not correspond to " + n40.substr(0, 31), x.error());
    EXPECT_LE(x.error().size(), 63u);
}

TEST(XmlParse, ElementLimit)
{
    struct {
        int maxElements;
        const char *text;
        int result;
    } cases[] = {{2, "<a><b/></a>", 0},     {2, "<a><b/><c/></a>", -8}, {1, "<a/>", 0},
                 {0, "<a><b/></a>", -8},    {-3, "<a/>", 0},            {1, "<a><b/><c/><d/></a>", -8},
                 {1, "<a><b><c><d/></c></b><e/></a>", -8}, {1, "<a><b/><c></a>", -4}};
    for (const auto &c : cases) {
        XmlDoc x(c.maxElements);
        EXPECT_EQ(c.result, x.load(c.text)) << c.text;
        // Searches over the overflowed table end; they must not loop on the
        // overflow record's links to itself.
        EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, "zz")) << c.text;
        EXPECT_EQ(0, MOLK_XML_FindElem(x.h, "zz"));
    }
    XmlDoc x(2);
    EXPECT_EQ(-8, x.load("<a><b/><c/></a>"));
    EXPECT_EQ("Element limited at around 11", x.error());
    EXPECT_LT(x.h->m_iFreePos, 1);
    EXPECT_EQ(1, MOLK_XML_FindChildElem(x.h, "b"));
    EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, "c")); // only in the overflow record

    MolkXmlInitParam p{0, -7};
    MolkXmlNavi *h = nullptr;
    ASSERT_EQ(0, MOLK_XML_Initial(&h, &p));
    EXPECT_EQ(1, p.maxElements);
    EXPECT_EQ(3, h->m_nElemPosCount);
    EXPECT_EQ(0, MOLK_XML_Release(&h));
    EXPECT_EQ(nullptr, h);
    EXPECT_EQ(-1, MOLK_XML_Release(&h));

    p.maxElements = INT_MAX; // 32-bit size of the table would overflow
    EXPECT_EQ(-1, MOLK_XML_Initial(&h, &p));
    EXPECT_EQ(nullptr, h);
}

TEST(XmlParse, FailureDetachesTheDocumentAndLeavesTheBuffer)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load("<r><a/></r>"));
    ASSERT_EQ(1, MOLK_XML_FindChildElem(x.h, "a"));
    const std::string bad = "<r><a></r>";
    EXPECT_EQ(-4, x.load(bad, 64));
    EXPECT_EQ(bad, x.text());
    EXPECT_EQ(nullptr, x.h->m_csDoc);
    EXPECT_EQ(0, x.h->m_nDocCapacity);
    EXPECT_EQ(0, x.h->m_nDocLength);
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), x.cursor());
    EXPECT_EQ(1, x.h->m_iFreePos);
    EXPECT_EQ(0, x.rec(0).iFirstChild);
    EXPECT_EQ(0, MOLK_XML_FindElem(x.h, "r"));
    EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, nullptr));
    EXPECT_EQ("<-1>", x.tag());
    EXPECT_EQ("<-1>", x.data());
    EXPECT_EQ(-1, MOLK_XML_AddElem(x.h, "n", nullptr));
    EXPECT_EQ(-1, MOLK_XML_AddAttrib(x.h, "n", "v"));
}

TEST(XmlParse, BadArgumentsChangeNothing)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load("<r/>"));
    char b[8] = "<r/>";
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(x.h, b, 2, 1));
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(x.h, b, 8, 9));
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(x.h, b, 8, -1));
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(x.h, nullptr, 8, 4));
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(nullptr, b, 8, 4));
    EXPECT_EQ(x.buf.data(), x.h->m_csDoc);
    EXPECT_EQ(1, x.rec(0).iFirstChild);
    EXPECT_EQ(-1, MOLK_XML_ResetAll(nullptr));
    EXPECT_EQ(-1, MOLK_XML_Initial(nullptr, nullptr));
}

TEST(XmlParse, EmptyDocumentClearsTheBuffer)
{
    XmlDoc x;
    EXPECT_EQ(0, x.load("leftover", 16, 0));
    EXPECT_EQ(std::string(16, '\0'), std::string(x.buf.data(), 16));
    EXPECT_EQ("Empty document", x.error());
    EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, nullptr)); // nothing to select
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), x.cursor());
}

TEST(XmlParse, ErrorTextOutlivesSuccessAndIsCutToTheCallersSize)
{
    XmlDoc x;
    EXPECT_EQ("No error occurs", x.error());
    EXPECT_EQ(-4, x.load("<a>"));
    EXPECT_EQ(0, x.load("<a/>"));
    EXPECT_EQ("Element tag not found", x.error());
    char b[6] = "zzzzz";
    EXPECT_EQ(0, MOLK_XML_GetError(x.h, b, 6));
    EXPECT_STREQ("Eleme", b);
    EXPECT_EQ(-1, MOLK_XML_GetError(x.h, b, 1));
    EXPECT_EQ(-1, MOLK_XML_GetError(nullptr, b, 6));
}

TEST(XmlParse, ANewDocumentLeavesNoStaleRecords)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load("<r><a/><b><c/></b><d/></r>"));
    ASSERT_EQ(0, x.load("<s/>"));
    for (int i = 2; i < x.h->m_nElemPosCount; ++i) {
        const ElemPos &r = x.rec(i);
        EXPECT_EQ(0, r.iStartTagOpen | r.iStartTagClose | r.iEndTagOpen | r.iEndTagClose | r.iParent |
                         r.iFirstChild | r.iNextSibling) << "record " << i;
    }
    ASSERT_EQ(0, MOLK_XML_ResetAll(x.h));
    EXPECT_EQ(0, x.rec(1).iStartTagClose);
    EXPECT_EQ(nullptr, x.h->m_csDoc);
}

TEST(XmlParse, RefusesDeepNestingWithoutRecursion)
{
    auto nested = [](int depth, const char *leaf) {
        std::string s;
        for (int i = 0; i < depth; ++i)
            s += "<e>";
        s += leaf;
        for (int i = 0; i < depth; ++i)
            s += "</e>";
        return s;
    };
    XmlDoc x(1 << 20);
    EXPECT_EQ(0, x.load(nested(MOLK_XML_MAX_DEPTH, "x")));
    EXPECT_EQ(0, x.load(nested(MOLK_XML_MAX_DEPTH - 1, "<e/>")));
    EXPECT_EQ(-4, x.load(nested(MOLK_XML_MAX_DEPTH, "<e/>")));
    EXPECT_EQ("Element nesting too deep at around " + std::to_string(3 * MOLK_XML_MAX_DEPTH), x.error());
    EXPECT_EQ(-4, x.load(nested(200000, "")));
    XmlDoc tiny(1); // after an overflow the table no longer bounds anything
    EXPECT_EQ(-4, tiny.load(nested(200000, "")));
}

} // namespace
