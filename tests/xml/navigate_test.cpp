// Cursor moves and the readers.
#include <gtest/gtest.h>

#include <cctype>

#include "../../fuzz/xml_driver.h"

namespace {

using molk_fuzz::Doc;

struct Step {
    char op; // a move of molk_fuzz::call
    const char *name;
    int result;
    std::vector<int> cursor; // parent, main, child, main node
};

void walk(const char *doc, std::initializer_list<Step> steps)
{
    Doc x;
    ASSERT_EQ(0, x.load(doc));
    int i = 0;
    for (const Step &s : steps) {
        EXPECT_EQ(s.result, molk_fuzz::call(x.h, s.op, s.name)) << "step " << i;
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
    const char doc[] = R"(<r><a id="1">one</a><b/><a id="2">two<c>three</c></a><x:a y:id="3" z='4'>x</x:a></r>)";
    walk(doc, {{'C', "a", 1, {0, 1, 2, 1}}, {'C', "a", 1, {0, 1, 4, 1}}, {'C', "a", 1, {0, 1, 6, 1}},
               {'C', "a", 0, {0, 1, 6, 1}}, {'C', "x:a", 0, {0, 1, 6, 1}}, {'I', nullptr, 1, {1, 6, 0, 1}},
               {'M', nullptr, 0, {1, 0, 0, 0}}, {'F', "", 1, {1, 2, 0, 1}}, {'F', "", 1, {1, 3, 0, 1}},
               {'F', "", 1, {1, 4, 0, 1}}, {'F', "", 1, {1, 6, 0, 1}}, {'F', "", 0, {1, 6, 0, 1}},
               {'M', nullptr, 0, {1, 0, 0, 0}}, {'F', "ab", 0, {1, 0, 0, 0}}, {'F', "A", 0, {1, 0, 0, 0}},
               {'F', "a:", 0, {1, 0, 0, 0}}, {'F', "a[2]", 1, {1, 2, 0, 1}}, {'F', "a/sub", 1, {1, 4, 0, 1}},
               {'F', "a=", 1, {1, 6, 0, 1}}, {'M', nullptr, 0, {1, 0, 0, 0}}, {'F', "a ", 1, {1, 2, 0, 1}}});
    // Into an element with no child selected; a child search then finds none.
    walk(doc, {{'I', nullptr, 0, {0, 0, 0, 0}}, {'F', "r", 1, {0, 1, 0, 1}}, {'I', nullptr, 1, {1, 0, 0, 0}},
               {'I', nullptr, 0, {1, 0, 0, 0}}, {'F', "b", 1, {1, 3, 0, 1}}, {'I', nullptr, 1, {3, 0, 0, 0}},
               {'C', nullptr, 0, {3, 0, 0, 0}}, {'O', nullptr, 1, {1, 3, 0, 1}}, {'c', nullptr, 0, {1, 3, 0, 1}},
               {'R', nullptr, 0, {0, 0, 0, 0}}});
    EXPECT_EQ(-1, MOLK_XML_ResetPos(nullptr));
    EXPECT_EQ(0, MOLK_XML_FindElem(nullptr, "r"));
    EXPECT_EQ(0, MOLK_XML_OutOfElem(nullptr));
}

// Reads the root (reader letters of molk_fuzz::call), or its first child
// for an upper-case letter. The argument is the name, or for n/N the index.
// 'X' marks bytes of the caller's buffer that the reader did not touch.
TEST(XmlRead, Readers)
{
    const char xa[] = R"(<x:a y:id="3" z='4'>&lt;&amp;&gt;&apos;&quot;&#65;&nope;</x:a>)";
    const char two[] = R"(<r><a id="2">two<c>three</c></a></r>)";
    const struct {
        const char *doc;
        char which;
        const char *arg, *want;
        int size = 4096;
        bool select = true;
    } cases[] = {
        {xa, 'd', "", R"(<&>'"&#65;&nope;)"},
        {xa, 'd', "", "<", 5}, // the cut counts source bytes: "&lt;" and "&"
        {xa, 't', "", "x:a"},       {xa, 't', "", "x:", 3},
        {xa, 'a', "id", "3"},       {xa, 'a', "y:id", "<-6>"},     {xa, 'a', "z", "4"},
        {xa, 'n', "0", "y:id"},     {xa, 'n', "1", "z"},           {xa, 'n', "2", "<-6>XXXX", 4},
        {xa, 'n', "-1", "<-1>XXXX", 4},
        {xa, 'w', "", xa},          {xa, 'w', "", "<x:a", 5},
        {two, 'D', "", "<-6>"},     {two, 'A', "id", "2"},         {two, 'N', "0", "id"},
        {two, 'T', "", "a"},
        {"<a>  <![CDATA[x&lt;y]]>  tail</a>", 'd', "", "x<y"}, {"<a>t<![CDATA[z]]></a>", 'd', "", "t<![CDATA[z]]>"},
        {"<a><!-- c -->t</a>", 'd', "", "<!-- c -->t"},       {"<a><![CDATA[]]></a>", 'd', "", ""},
        {"<a> plain  </a>", 'd', "", " plain  "},             {"<a></a>", 'd', "", ""},
        {"<a/>", 'd', "", ""},                                {"<a bb=\"1\" b=\"2\"/>", 'a', "b", "2"},
        {"<a>&apos&quot;&amp;lt;&#65;&amp&nope;&</a>", 'd', "", "&apos\"&lt;&#65;&amp&nope;&"},
        {"<a b=1 c=\"2\"/>", 'a', "c", "<-6>"},                {"<a b=\"&lt;\"/>", 'a', "b", "&lt;"},
        {"<a b c=\"1\"/>", 'a', "c", "1"},                     {"<a b c=\"1\"/>", 'a', "b", "<-6>"},
        {"<a b='x\"y'/>", 'a', "b", "x\"y"},                    {"<a b=\"1\" ? c=\"2\"/>", 'a', "c", "<-6>"},
        // Refused arguments leave the buffer; a missing position clears it
        // for the data and tag name readers only.
        {"<a>t</a>", 'd', "", "<-1>X", 1},                    {"<a b=\"1\">t</a>", 'a', "", "<-1>XXXX", 4},
        {"<a b=\"1\">t</a>", 'a', "b", "<-1>XXXX", 4, false},   {"<a>t</a>", 'w', "", "<-1>XXXX", 4, false},
        {"<a>t</a>", 'd', "", "<-1>", 4, false},              {"<a>t</a>", 't', "", "<-1>", 4, false},
    };
    for (const auto &c : cases) {
        Doc x;
        ASSERT_EQ(0, x.load(c.doc)) << c.doc;
        if (c.select) {
            ASSERT_EQ(1, MOLK_XML_FindElem(x.h, nullptr));
        }
        if (isupper(c.which)) {
            ASSERT_EQ(1, MOLK_XML_FindChildElem(x.h, nullptr));
        }
        const int index = c.which == 'n' || c.which == 'N' ? atoi(c.arg) : 0;
        EXPECT_EQ(c.want, x.read(c.which, c.arg, index, c.size)) << c.doc << " " << c.which << " " << c.arg;
    }
    char d[4] = "zzz";
    EXPECT_EQ(-1, MOLK_XML_GetTagName(nullptr, d, 4));
    EXPECT_STREQ("zzz", d);
}

} // namespace
