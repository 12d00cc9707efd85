// Parser: position table, results and error texts, limits, what a failed
// parse leaves behind.
#include <gtest/gtest.h>

#include <climits>

#include "../../fuzz/xml_driver.h"

namespace {

using molk_fuzz::Doc;

TEST(XmlParse, FillsThePositionTable)
{
    Doc x;
    ASSERT_EQ(0, x.load(R"(<r><a id="1">x</a><b/></r>)"));
    EXPECT_EQ(4, x.h->m_iFreePos);
    const ElemPos want[4] = {{0, 0, 0, 0, 0, 0, 1, 0}, {0, 2, 22, 25, 0, 0, 2, 0}, {3, 12, 14, 17, 0, 1, 0, 3},
                             {18, 21, 20, 21, 0, 1, 0, 0}};
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(0, memcmp(&want[i], &x.h->m_pElemPos[i], sizeof(ElemPos))) << "record " << i;
    EXPECT_EQ(1, IsEmptyElement(&x.h->m_pElemPos[3]));
    EXPECT_EQ(0, IsEmptyElement(&x.h->m_pElemPos[2]));
    // A quoted end tag token starts behind its quote.
    for (const char *text : {"<a></\"a\">", "<a></a \">\""}) {
        ASSERT_EQ(0, x.load(text)) << text;
        const ElemPos &a = x.h->m_pElemPos[1];
        EXPECT_EQ((std::vector<int>{0, 2, 3, 8}),
                  (std::vector<int>{a.iStartTagOpen, a.iStartTagClose, a.iEndTagOpen, a.iEndTagClose}))
            << text;
    }
}

// A '|' in a text ends the length given to the parse and is dropped.
TEST(XmlParse, ResultsAndErrorTexts)
{
    using namespace std::string_literals;
    const std::string n40(40, 'n');
    const struct {
        int result;
        std::string error;
        std::vector<std::string> texts;
        int maxElements = 64;
    } groups[] = {
        {0, "No error occurs",
         {"<a/>", "<a></a >", "< a>< /a>", "<a><!--></a>", "  junk <a>x</a> trailing <b/>", "<a><!-- <b> --></a>",
          "<a><![CDATA[<b>]]></a>", "<?xml version=\"1.0\"?><!-- c --><a><?pi x?></a>", "<!DOCTYPE a [ \"x>\" ]><a/>",
          "<!DOCTYPE a [ <!ELEMENT a (#PCDATA)> ]><a/>", "<!DOCTYPE a [ <!-- it's --> ]><a>'</a>", "<a></a>|xxx",
          "<a></a>\0\0\0\0\0\0\0\0\0\0"s, "<" + n40 + "></" + n40 + ">",
          // End tag tokens count by their bytes, quoted or not; a '>' right
          // behind a quote closes the tag whether the quote has a partner or not.
          "<a></\"a\">", "<a></a \">\"", "<a></a '>'", "<a></a \">\">", "<a></a \">", "<a></a \">\0\"x"s,
          // A quote in a '<!' form hides what stands up to its partner.
          "<!DOCTYPE a \"x\"><a/>", "<!NOTE 'x'><a/>", "<!NOTE 'x>\"'><a/>"}},
        {-4, "Element tag not found",
         {"<a>x>y</a>", "<a b=\">\">x</a>", "<a>", "<a>x", "<a><b></b>", "<a/ >", "   ", "<a>\0x</a>"s}},
        {-4, "End of tag not found", {"<a b=\"<\">x</a>", "<a"}},
        {-4, "End tag does not correspond to b", {"<a><b></a>"}},
        {-4, "End tag does not correspond to a", {"<a></\"a>"}},
        // Names are matched in full and cut to 31 bytes in messages.
        {-4, "End tag does not correspond to " + n40.substr(0, 31), {"<" + n40 + "></" + n40 + "x>"}},
        {-4, "End tag not completed for element a",
         {"<a></a x>", "<a></a", "<a></", "<a></a|>", "<a></a \"x>\"", "<a></a \"", "<a></a \"|>\"", "<a></\"a\"x>"}},
        {-4, "Empty tag", {"</a>"}},
        {-4, "Tag starts with quote", {"<\"a\"></a>"}},
        {-4, "Abrupt end within tag", {"<"}},
        // A quote in a '<!' form needs its partner before the length or a NUL
        // (the header says why; tests/xml/data/doctype-lone-quote-then-attribute
        // is the edit that would otherwise change the tree). The last two: a
        // '<' with blanks before '?' or '!' is no skippable node.
        {-4, "Invalid node",
         {"<?", "<!", "<!-- c", "<?xml version=\"1.0\"", "<!DOCTYPE a [><a/>", "<!DOCTYPE a ]><a/>",
          "<!DOCTYPE a [ 'x ]><a/>", "<!DOCTYPE a [ <!-- 'tis --> ]><a>'</a>", "<!DOCTYPE a \"x><a/>",
          "<!NOTE 'x><a/>", "<!NOTE 'x>|'<a/>", "<!NOTE 'x>\0'<a/>"s, "< ?x?><a/>", "<a>< !-- c --></a>"}},
        // The element limit; below 1 it is 1. Parsing goes on after an
        // overflow, naming each scan offset that found the table full.
        {0, "No error occurs", {"<a><b/></a>"}, 2},
        {0, "No error occurs", {"<a/>"}, 0},
        {-8, "Element limited at around 11", {"<a><b/><c/></a>"}, 2},
        {-8, "Element limited at around 7", {"<a><b/></a>"}, -3},
        {-8, "Element limited at around 15", {"<a><b/><c/><d/></a>"}, 1},
        {-8, "Element limited at around 13", {"<a><b><c><d/></c></b><e/></a>"}, 1},
        {-4, "End tag does not correspond to c", {"<a><b/><c></a>"}, 1},
    };
    for (const auto &g : groups)
        for (std::string text : g.texts) {
            const size_t cut = text.find('|');
            if (cut != std::string::npos)
                text.erase(cut, 1);
            Doc x(g.maxElements);
            EXPECT_EQ(g.result, x.load(text, -1, cut == std::string::npos ? -1 : static_cast<int>(cut))) << text;
            EXPECT_EQ(g.error, x.read('e')) << text;
            // Searches must not loop on the overflow record's links to itself.
            EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, "zz")) << text;
            EXPECT_EQ(0, MOLK_XML_FindElem(x.h, "zz"));
        }
}

TEST(XmlParse, HandleAndOverflow)
{
    Doc x(2);
    EXPECT_EQ(-8, x.load("<a><b/><c/></a>"));
    EXPECT_EQ(1, MOLK_XML_FindChildElem(x.h, "b"));
    EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, "c")); // only in the overflow record

    MolkXmlInitParam p{0, -7};
    MolkXmlNavi *h = nullptr;
    ASSERT_EQ(0, MOLK_XML_Initial(&h, &p));
    EXPECT_EQ(1, p.maxElements);
    EXPECT_EQ(3, h->m_nElemPosCount);
    EXPECT_EQ(0, MOLK_XML_Release(&h));
    EXPECT_EQ(-1, MOLK_XML_Release(&h)); // the pointer is null now
    p.maxElements = INT_MAX; // 32-bit size of the table would overflow
    EXPECT_EQ(-1, MOLK_XML_Initial(&h, &p));
    EXPECT_EQ(-1, MOLK_XML_Initial(nullptr, nullptr));
}

// The handle's fields from the record count up to the error text, and its
// first `records` records, are those of a new handle.
bool as_new(const Doc &x, int records)
{
    const Doc fresh(x.h->m_nElemPosCount - 2);
    const size_t from = offsetof(MolkXmlNavi, m_nElemPosCount), to = offsetof(MolkXmlNavi, m_csError);
    return memcmp(reinterpret_cast<char *>(x.h) + from, reinterpret_cast<char *>(fresh.h) + from, to - from) == 0 &&
           memcmp(x.h->m_pElemPos, fresh.h->m_pElemPos, sizeof(ElemPos) * static_cast<size_t>(records)) == 0;
}

TEST(XmlParse, WhatFailuresLeave)
{
    Doc x;
    ASSERT_EQ(0, x.load("<r><a/></r>"));
    const std::vector<char> loaded = molk_fuzz::snapshot(x);
    char b[8] = "<r/>"; // refused arguments leave the document attached
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(x.h, b, 2, 1));
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(x.h, b, 8, 9));
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(x.h, b, 8, -1));
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(x.h, nullptr, 8, 4));
    EXPECT_EQ(-1, MOLK_XML_SetBuffer(nullptr, b, 8, 4));
    EXPECT_TRUE(loaded == molk_fuzz::snapshot(x));

    // A failed parse detaches the document and leaves the buffer; records
    // behind record 0 may stay stale, since nothing reaches them.
    EXPECT_EQ(-4, x.load("<r><a></r>", 64));
    EXPECT_EQ("<r><a></r>", x.text());
    EXPECT_TRUE(as_new(x, 1)); // so searches find nothing and readers have no position
    EXPECT_EQ(-1, MOLK_XML_AddElem(x.h, "n", nullptr));
    EXPECT_EQ(-1, MOLK_XML_AddAttrib(x.h, "n", "v"));

    // The error text outlives a success and is cut to the caller's size.
    EXPECT_EQ(0, x.load("<a/>"));
    EXPECT_EQ("End t", x.read('e', nullptr, 0, 6));
    EXPECT_EQ("<-1>X", x.read('e', nullptr, 0, 1)); // left alone
    EXPECT_EQ(-1, MOLK_XML_GetError(nullptr, b, 6));

    // An empty document clears the whole buffer and selects nothing.
    EXPECT_EQ(0, x.load("leftover", 16, 0));
    EXPECT_EQ("Empty document", x.read('e'));
    EXPECT_EQ(std::string(16, '\0'), std::string(x.buf.data(), 16));
    EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, nullptr));

    // A new document, or a reset, leaves no stale records.
    ASSERT_EQ(0, x.load("<r><a/><b><c/></b><d/></r>"));
    Doc small;
    ASSERT_EQ(0, x.load("<s/>"));
    ASSERT_EQ(0, small.load("<s/>"));
    EXPECT_EQ(0, memcmp(x.h->m_pElemPos, small.h->m_pElemPos, sizeof(ElemPos) * 66));
    EXPECT_EQ(0, MOLK_XML_ResetAll(x.h));
    EXPECT_TRUE(as_new(x, 66));
    EXPECT_EQ(-1, MOLK_XML_ResetAll(nullptr));
}

TEST(XmlParse, RefusesDeepNestingWithoutRecursion)
{
    const auto nested = [](int depth, const char *leaf) {
        std::string open, close;
        while (depth-- > 0)
            open += "<e>", close += "</e>";
        return open + leaf + close;
    };
    Doc x(1 << 20);
    EXPECT_EQ(0, x.load(nested(MOLK_XML_MAX_DEPTH - 1, "<e/>")));
    EXPECT_EQ(-4, x.load(nested(MOLK_XML_MAX_DEPTH, "<e/>")));
    EXPECT_EQ("Element nesting too deep at around " + std::to_string(3 * MOLK_XML_MAX_DEPTH), x.read('e'));
    EXPECT_EQ(-4, x.load(nested(200000, "")));
    Doc tiny(1); // after an overflow the table no longer bounds anything
    EXPECT_EQ(-4, tiny.load(nested(200000, "")));
}

} // namespace
