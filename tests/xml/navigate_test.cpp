// Cursor moves and the readers.
#include <string>

#include "xml_doc.h"

namespace {

const char kDoc[] = R"(<r><a id="1">one</a><b/><a id="2">two<c>three</c></a>)"
                    R"(<x:a y:id="3" z='4'>&lt;&amp;&gt;&apos;&quot;&#65;&nope;</x:a></r>)";

TEST(XmlNavigate, ConfigurationWalk)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load("<cfg><sect><mod><order>1,2</order></mod></sect></cfg>"));
    using V = std::vector<int>;
    EXPECT_EQ(1, MOLK_XML_FindChildElem(x.h, "sect"));
    EXPECT_EQ((V{0, 1, 2, 1}), x.cursor());
    EXPECT_EQ(1, MOLK_XML_IntoElem(x.h));
    EXPECT_EQ((V{1, 2, 0, 1}), x.cursor());
    EXPECT_EQ(1, MOLK_XML_FindChildElem(x.h, "mod"));
    EXPECT_EQ(1, MOLK_XML_IntoElem(x.h));
    EXPECT_EQ(1, MOLK_XML_FindChildElem(x.h, "order"));
    EXPECT_EQ((V{2, 3, 4, 1}), x.cursor());
    EXPECT_EQ("1,2", x.childData());
    EXPECT_EQ(1, MOLK_XML_OutOfElem(x.h));
    EXPECT_EQ((V{1, 2, 3, 1}), x.cursor());
    EXPECT_EQ(1, MOLK_XML_OutOfElem(x.h));
    EXPECT_EQ((V{0, 1, 2, 1}), x.cursor());
    EXPECT_EQ(0, MOLK_XML_OutOfElem(x.h));
    EXPECT_EQ((V{0, 1, 2, 1}), x.cursor());
}

TEST(XmlNavigate, SearchesRunForwardAndStripPrefixes)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load(kDoc));
    for (int child : {2, 4, 6}) {
        EXPECT_EQ(1, MOLK_XML_FindChildElem(x.h, "a"));
        EXPECT_EQ(1, x.h->m_iMainPos);
        EXPECT_EQ(child, x.h->m_iChildPos);
    }
    EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, "a"));
    EXPECT_EQ(6, x.h->m_iChildPos);
    EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, "x:a")); // the request keeps its prefix
    EXPECT_EQ("x:a", x.childTag());

    EXPECT_EQ(1, MOLK_XML_IntoElem(x.h));
    EXPECT_EQ(6, x.h->m_iMainPos);
    EXPECT_EQ(0, MOLK_XML_ResetMainPos(x.h));
    std::string names;
    while (MOLK_XML_FindElem(x.h, ""))
        names += x.tag() + ",";
    EXPECT_EQ("a,b,a,x:a,", names);
    EXPECT_EQ(0, MOLK_XML_ResetMainPos(x.h));
    for (const char *request : {"a[2]", "a/sub", "a="})
        EXPECT_EQ(1, MOLK_XML_FindElem(x.h, request)) << request;
    EXPECT_EQ(0, MOLK_XML_FindElem(x.h, "a "));
    EXPECT_EQ(0, MOLK_XML_ResetMainPos(x.h));
    for (const char *request : {"", "ab", "A", "a:"})
        EXPECT_EQ(request[0] == '\0', MOLK_XML_FindElem(x.h, request)) << request;
}

TEST(XmlNavigate, IntoAndOutAndResets)
{
    XmlDoc x;
    ASSERT_EQ(0, x.load(kDoc));
    using V = std::vector<int>;
    EXPECT_EQ(0, MOLK_XML_IntoElem(x.h)); // nothing selected
    ASSERT_EQ(1, MOLK_XML_FindElem(x.h, "r"));
    EXPECT_EQ(1, MOLK_XML_IntoElem(x.h));
    EXPECT_EQ((V{1, 0, 0, 0}), x.cursor());
    EXPECT_EQ(0, MOLK_XML_IntoElem(x.h));
    // No main element at this level yet: the child search has no element to
    // look into until one is selected.
    ASSERT_EQ(1, MOLK_XML_FindElem(x.h, "b"));
    EXPECT_EQ(1, MOLK_XML_IntoElem(x.h));
    EXPECT_EQ((V{3, 0, 0, 0}), x.cursor());
    EXPECT_EQ(0, MOLK_XML_FindChildElem(x.h, nullptr));
    EXPECT_EQ((V{3, 0, 0, 0}), x.cursor());
    EXPECT_EQ(1, MOLK_XML_OutOfElem(x.h));
    EXPECT_EQ((V{1, 3, 0, 1}), x.cursor());
    EXPECT_EQ(0, MOLK_XML_ResetChildPos(x.h));
    EXPECT_EQ((V{1, 3, 0, 1}), x.cursor());
    EXPECT_EQ(0, MOLK_XML_ResetPos(x.h));
    EXPECT_EQ((V{0, 0, 0, 0}), x.cursor());
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
    EXPECT_EQ(1, MOLK_XML_IntoElem(x.h));
    EXPECT_EQ(R"(<&>'"&#65;&nope;)", x.data());
    EXPECT_EQ("<", x.data(5)); // the cut counts source bytes: "&lt;" and "&"
    EXPECT_EQ("x:a", x.tag());
    EXPECT_EQ("x:", x.read(MOLK_XML_GetTagName, 3));
    EXPECT_EQ("3", x.attrib("id"));
    EXPECT_EQ("<-6>", x.attrib("y:id"));
    EXPECT_EQ("4", x.attrib("z"));
    EXPECT_EQ("y:id", x.attribName(0));
    EXPECT_EQ("z", x.attribName(1));
    EXPECT_EQ("<-6>", x.attribName(2));
    EXPECT_EQ("<-1>", x.attribName(-1));
    EXPECT_EQ("<x:a", x.read(MOLK_XML_GetWholeElement, 5));
    const std::string doc = kDoc;
    const size_t from = doc.find("<x:a"), to = doc.find("</x:a>") + 6;
    EXPECT_EQ(doc.substr(from, to - from), x.read(MOLK_XML_GetWholeElement));

    ASSERT_EQ(1, MOLK_XML_OutOfElem(x.h));
    EXPECT_EQ("x:a", x.childTag());
    EXPECT_EQ(0, MOLK_XML_ResetChildPos(x.h));
    ASSERT_EQ(1, MOLK_XML_FindChildElem(x.h, "a"));
    ASSERT_EQ(1, MOLK_XML_FindChildElem(x.h, "a"));
    EXPECT_EQ("<-6>", x.childData()); // holds <c>
    char dst[8] = "zzzzzzz";
    EXPECT_EQ(-6, MOLK_XML_GetChildData(x.h, dst, 8));
    EXPECT_STREQ("", dst);
    char out[8] = "zzzzzzz";
    EXPECT_EQ(0, XML_GetChildAttrib(x.h, "id", out, 8));
    EXPECT_STREQ("2", out);
    EXPECT_EQ(0, MOLK_XML_GetChildAttribName(x.h, 0, out, 8));
    EXPECT_STREQ("id", out);
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

TEST(XmlRead, DataForms)
{
    const struct {
        const char *doc;
        const char *data;
    } cases[] = {
        {"<a>  <![CDATA[x&lt;y]]>  tail</a>", "x<y"},
        {"<a>t<![CDATA[z]]></a>", "t<![CDATA[z]]>"},
        {"<a><!-- c -->t</a>", "<!-- c -->t"},
        {"<a><![CDATA[]]></a>", ""},
        {"<a><![CDATA[a]]>b<![CDATA[c]]></a>", "a"},
        {"<a> plain  </a>", " plain  "},
        {"<a>\n</a>", "\n"},
        {"<a></a>", ""},
        {"<a/>", ""},
        {"<a>&amp;lt;&#65;&amp&nope;&</a>", "&lt;&#65;&amp&nope;&"},
        {"<a>&apos&quot;</a>", "&apos\""},
    };
    for (const auto &c : cases) {
        XmlDoc x;
        ASSERT_EQ(0, x.load(c.doc)) << c.doc;
        ASSERT_EQ(1, MOLK_XML_FindElem(x.h, "a"));
        EXPECT_EQ(c.data, x.data()) << c.doc;
    }
}

TEST(XmlRead, AttributeWalk)
{
    const struct {
        const char *doc;
        const char *name;
        const char *value; // "<-6>" when not found
    } cases[] = {
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
        EXPECT_EQ(c.value, x.attrib(c.name)) << c.doc << " " << c.name;
    }
}

} // namespace
