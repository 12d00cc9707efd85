// Cursor moves and the readers.
#include <string>

#include "xml_doc.h"

namespace {

const char kDoc[] = R"(<r><a id="1">one</a><b/><a id="2">two<c>three</c></a>)"
                    R"(<x:a y:id="3" z='4'>&lt;&amp;&gt;&apos;&quot;&#65;&nope;</x:a></r>)";

struct Step {
    char op;
    const char *name;
    int result;
    std::vector<int> cursor; // parent, main, child, main node
};

void walk(const char *doc, std::initializer_list<Step> steps)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load(doc));
    int i = 0;
    for (const Step &s : steps) {
        EXPECT_EQ(s.result, move(x.h, s.op, s.name)) << "step " << i;
        EXPECT_EQ(s.cursor, x.cursor()) << "step " << i++;
    }
}

TEST(XmlNavigate, CursorTables)
{
    walk("<cfg><sect><mod><order>1,2</order></mod></sect></cfg>",
         {{'C', "sect", 1, {0, 1, 2, 1}}, {'I', nullptr, 1, {1, 2, 0, 1}}, {'C', "mod", 1, {1, 2, 3, 1}},
          {'I', nullptr, 1, {2, 3, 0, 1}}, {'C', "order", 1, {2, 3, 4, 1}}, {'O', nullptr, 1, {1, 2, 3, 1}},
          {'O', nullptr, 1, {0, 1, 2, 1}}, {'O', nullptr, 0, {0, 1, 2, 1}}});
    // Searches run forward, match names without their prefix, and read a
    // request's name up to the first byte that ends a name.
    walk(kDoc, {{'C', "a", 1, {0, 1, 2, 1}}, {'C', "a", 1, {0, 1, 4, 1}}, {'C', "a", 1, {0, 1, 6, 1}},
                {'C', "a", 0, {0, 1, 6, 1}}, {'C', "x:a", 0, {0, 1, 6, 1}}, {'I', nullptr, 1, {1, 6, 0, 1}},
                {'M', nullptr, 0, {1, 0, 0, 0}}, {'F', "", 1, {1, 2, 0, 1}}, {'F', "", 1, {1, 3, 0, 1}},
                {'F', "", 1, {1, 4, 0, 1}}, {'F', "", 1, {1, 6, 0, 1}}, {'F', "", 0, {1, 6, 0, 1}},
                {'M', nullptr, 0, {1, 0, 0, 0}}, {'F', "ab", 0, {1, 0, 0, 0}}, {'F', "A", 0, {1, 0, 0, 0}},
                {'F', "a:", 0, {1, 0, 0, 0}}, {'F', "a[2]", 1, {1, 2, 0, 1}}, {'F', "a/sub", 1, {1, 4, 0, 1}},
                {'F', "a=", 1, {1, 6, 0, 1}}, {'M', nullptr, 0, {1, 0, 0, 0}}, {'F', "a ", 1, {1, 2, 0, 1}}});
    // Into an element with no child selected; a child search then finds none.
    walk(kDoc, {{'I', nullptr, 0, {0, 0, 0, 0}}, {'F', "r", 1, {0, 1, 0, 1}}, {'I', nullptr, 1, {1, 0, 0, 0}},
                {'I', nullptr, 0, {1, 0, 0, 0}}, {'F', "b", 1, {1, 3, 0, 1}}, {'I', nullptr, 1, {3, 0, 0, 0}},
                {'C', nullptr, 0, {3, 0, 0, 0}}, {'O', nullptr, 1, {1, 3, 0, 1}}, {'c', nullptr, 0, {1, 3, 0, 1}},
                {'R', nullptr, 0, {0, 0, 0, 0}}});
    EXPECT_EQ(-1, MOLK_XML_ResetPos(nullptr));
    EXPECT_EQ(0, MOLK_XML_FindElem(nullptr, "r"));
    EXPECT_EQ(0, MOLK_XML_OutOfElem(nullptr));
}

TEST(XmlRead, DataAttributesAndNames)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load(kDoc));
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(1, MOLK_XML_FindChildElem(x.h, "a"));
    EXPECT_EQ("x:a", x.read(MOLK_XML_GetChildTagName));
    EXPECT_EQ(1, MOLK_XML_IntoElem(x.h));
    EXPECT_EQ(R"(<&>'"&#65;&nope;)", x.read(MOLK_XML_GetData));
    EXPECT_EQ("<", x.read(MOLK_XML_GetData, 5)); // the cut counts source bytes: "&lt;" and "&"
    EXPECT_EQ("x:a", x.read(MOLK_XML_GetTagName));
    EXPECT_EQ("x:", x.read(MOLK_XML_GetTagName, 3));
    EXPECT_EQ("3|<-6>|4", x.attrib("id") + "|" + x.attrib("y:id") + "|" + x.attrib("z"));
    EXPECT_EQ("y:id|z|<-6>|<-1>", x.attribName(0) + "|" + x.attribName(1) + "|" + x.attribName(2) + "|" +
                                      x.attribName(-1));
    const std::string doc = kDoc, whole = doc.substr(doc.find("<x:a"), doc.find("</x:a>") + 6 - doc.find("<x:a"));
    EXPECT_EQ(whole, x.read(MOLK_XML_GetWholeElement));
    EXPECT_EQ("<x:a", x.read(MOLK_XML_GetWholeElement, 5));

    ASSERT_EQ(1, MOLK_XML_OutOfElem(x.h));
    EXPECT_EQ(0, MOLK_XML_ResetChildPos(x.h));
    ASSERT_EQ(1, MOLK_XML_FindChildElem(x.h, "a"));
    ASSERT_EQ(1, MOLK_XML_FindChildElem(x.h, "a"));
    char dst[8] = "zzzzzzz";
    EXPECT_EQ(-6, MOLK_XML_GetChildData(x.h, dst, 8)); // holds <c>
    EXPECT_STREQ("", dst);
    EXPECT_EQ("2", x.read([](MolkXmlNavi *n, char *d, int s) { return XML_GetChildAttrib(n, "id", d, s); }));
    EXPECT_EQ("id", x.read([](MolkXmlNavi *n, char *d, int s) { return MOLK_XML_GetChildAttribName(n, 0, d, s); }));
}

TEST(XmlRead, ArgumentTestsLeaveTheDestination)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load("<a b=\"1\">t</a>"));
    char d[4] = "zzz";
    EXPECT_EQ(-1, MOLK_XML_GetData(x.h, d, 1));
    EXPECT_EQ(-1, MOLK_XML_GetAttrib(x.h, "b", d, 4)); // no main position
    EXPECT_EQ(-1, MOLK_XML_GetAttrib(x.h, "", d, 4));
    EXPECT_EQ(-1, MOLK_XML_GetWholeElement(x.h, d, 4));
    EXPECT_STREQ("zzz", d);
    EXPECT_EQ(-1, MOLK_XML_GetData(x.h, d, 4)); // only the position is missing
    EXPECT_STREQ("", d);
    EXPECT_EQ(-1, MOLK_XML_GetTagName(nullptr, d, 4));
}

// The data of `a` (attribute nullptr) or one of its attributes.
TEST(XmlRead, DataAndAttributeForms)
{
    const struct {
        const char *doc, *attribute, *want;
    } cases[] = {
        {"<a>  <![CDATA[x&lt;y]]>  tail</a>", nullptr, "x<y"},  {"<a>t<![CDATA[z]]></a>", nullptr, "t<![CDATA[z]]>"},
        {"<a><!-- c -->t</a>", nullptr, "<!-- c -->t"},          {"<a><![CDATA[]]></a>", nullptr, ""},
        {"<a><![CDATA[a]]>b<![CDATA[c]]></a>", nullptr, "a"},   {"<a> plain  </a>", nullptr, " plain  "},
        {"<a>\n</a>", nullptr, "\n"},                            {"<a></a>", nullptr, ""},
        {"<a/>", nullptr, ""},                                   {"<a>&apos&quot;</a>", nullptr, "&apos\""},
        {"<a>&amp;lt;&#65;&amp&nope;&</a>", nullptr, "&lt;&#65;&amp&nope;&"},
        {"<a b=1 c=\"2\"/>", "b", "<-6>"},   {"<a b=1 c=\"2\"/>", "c", "<-6>"},
        {"<a b = \"1\"/>", "b", "1"},         {"<a b=\"1\"c=\"2\"/>", "c", "2"},
        {"<a b=\"1\" b=\"2\"/>", "b", "1"},   {"<a bb=\"1\" b=\"2\"/>", "b", "2"},
        {"<a b=\"1\"/>", "b=", "1"},          {"<a b=\"1\"/>", "b[", "1"},
        {"<a b=\"&lt;\"/>", "b", "&lt;"},     {"<a b c=\"1\"/>", "c", "1"},
        {"<a b c=\"1\"/>", "b", "<-6>"},      {"<a b='x\"y'/>", "b", "x\"y"},
        {"<a/>", "a", "<-6>"},                {"<a b=\"1\" ? c=\"2\"/>", "c", "<-6>"},
    };
    for (const auto &c : cases) {
        XmlDoc x;
        ASSERT_EQ(0, x.load(c.doc)) << c.doc;
        ASSERT_EQ(1, MOLK_XML_FindElem(x.h, "a"));
        EXPECT_EQ(c.want, c.attribute ? x.attrib(c.attribute) : x.read(MOLK_XML_GetData)) << c.doc;
    }
}

} // namespace
