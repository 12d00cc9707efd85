// The package and system files: the file reader's block, the package list
// with its gaps and forward lookups, the order, the index search, the model.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "molkutil.h"
#include "moduleservices/paths.h"
#include "services_support.h"

namespace {

using svc::WriteText;

// The list as one line: "index:name|vendor|version|path;" per node.
std::string Describe(const MolkPkgInfo *list) {
    std::string s;
    for (; list != nullptr; list = list->next) {
        s += std::to_string(list->index) + ":" + list->name + "|" + list->vendor + "|" + list->version +
             "|" + list->path + ";";
    }
    return s;
}

MolkPkgId Id(const char *name, const char *vendor) {
    MolkPkgId id;
    memset(&id, 0, sizeof id);
    strncpy(id.name, name, sizeof id.name - 1);
    strncpy(id.vendor, vendor, sizeof id.vendor - 1);
    return id;
}

std::string Pkg(int n, const std::string &inner) {
    return "<i" + std::to_string(n) + ">" + inner + "</i" + std::to_string(n) + ">";
}

class PackageFileTest : public ::testing::Test {
protected:
    void TearDown() override {
        unlink(molk::kPackagePath);
        unlink(molk::kSystemPath);
    }
};

TEST_F(PackageFileTest, ReaderSizesItsBlockToTheFileWithNulsBehind) {
    const std::string longLine = std::string(300, 'x') + "\n" + std::string(40, 'y');
    for (const std::string &text : {std::string(), std::string("abcd"), std::string("abcde"),
                                    std::string("abc"), longLine}) {
        SCOPED_TRACE(text.size());
        WriteText("/tmp/readfile", text);
        char *buffer = nullptr;
        int size = 0;
        ASSERT_EQ(0, MolkUtil_ReadFile("/tmp/readfile", &buffer, &size));
        const size_t want = (text.size() + 3) / 4 * 4 + 4;  // 0->4, 4->8, 5->12
        EXPECT_EQ(want, static_cast<size_t>(size));
        EXPECT_EQ(text, std::string(buffer));
        for (size_t i = text.size(); i < want; ++i) EXPECT_EQ('\0', buffer[i]);
        free(buffer);
    }
    char *untouched = reinterpret_cast<char *>(0x1);
    int size = -5;
    EXPECT_EQ(-1, MolkUtil_ReadFile("/tmp/no-such-file", &untouched, &size));
    EXPECT_EQ(reinterpret_cast<char *>(0x1), untouched);
    EXPECT_EQ(-5, size);
    unlink("/tmp/readfile");
}

// Each row: a package file, then what the list, the order and a lookup of
// b/v give. "-" for the order means: the buffer kept what it held ("keep").
TEST_F(PackageFileTest, PackageListOrderAndIndexFollowTheFile) {
    const std::string a = Pkg(0, "<name>a</name><vendor>v</vendor><version>1</version><path>/p/a</path>");
    const std::string b1 = Pkg(1, "<name>b</name><vendor>v</vendor>");
    const struct {
        const char *what;
        std::string file;
        int parse;
        std::string list, order;
        int indexOfB;
    } rows[] = {
        {"in order", "<x><molk><module><order>1,0</order>" + a + b1 + "</module></molk></x>", 0,
         "0:a|v|1|/p/a;1:b|v||;", "1,0", 1},
        {"order after the packages", "<top><molk><module>" + a + b1 + "<order>0</order></module></molk></top>",
         0, "0:a|v|1|/p/a;1:b|v||;", "0", 1},
        {"gap ends the list", "<x><molk><module>" + a + b1 + Pkg(3, "<name>c</name>") + "</module></molk></x>",
         0, "0:a|v|1|/p/a;1:b|v||;", "keep", 1},
        {"no i0", "<x><molk><module>" + b1 + "</module></molk></x>", -1, "", "keep", -1},
        {"i1 before i0", "<x><molk><module>" + b1 + a + "</module></molk></x>", 0, "0:a|v|1|/p/a;", "keep", -1},
        {"empty package passed over", "<x><molk><module><i0/>" + Pkg(1, "<name>b</name><vendor>v</vendor>") +
                                          "</module></molk></x>",
         0, "0:|||;1:b|v||;", "keep", 1},
        {"fields out of order", "<x><molk><module>" + Pkg(0, "<vendor>v</vendor><name>b</name><path>/q</path>") +
                                    "</module></molk></x>",
         0, "0:b|||/q;", "keep", -1},
        {"cut at 39", "<x><molk><module><order>" + std::string(45, '7') + "</order>" +
                          Pkg(0, "<name>" + std::string(50, 'n') + "</name>") + "</module></molk></x>",
         0, "0:" + std::string(39, 'n') + "|||;", std::string(39, '7'), -1},
        {"no module", "<x><molk><order>1</order>" + a + "</molk></x>", -1, "", "keep", -1},
        {"no molk", "<x><module>" + a + "</module></x>", -1, "", "keep", -1},
        {"not well-formed", "<x><molk><module><order>3</order>" + a + "</molk></x>", -1, "", "keep", -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        WriteText(molk::kPackagePath, row.file);
        MolkPkgInfo *list = nullptr;
        EXPECT_EQ(row.parse, MolkUtil_ParseMolkConf(&list));
        EXPECT_EQ(row.list, Describe(list));
        MolkUtil_FreeMolkConf(&list);
        char order[40] = "keep";
        EXPECT_EQ(0, MolkUtil_ParseMolkOrder(order));
        EXPECT_EQ(row.order, order);
        EXPECT_EQ(row.indexOfB, MolkUtil_GetPkgIndex(Id("b", "v")));
    }
    unlink(molk::kPackagePath);
    MolkPkgInfo *list = nullptr;
    char order[40] = "keep";
    EXPECT_EQ(-1, MolkUtil_ParseMolkConf(&list));
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(0, MolkUtil_FreeMolkConf(&list));
    EXPECT_EQ(-1, MolkUtil_ParseMolkOrder(order));
    EXPECT_EQ(-1, MolkUtil_GetPkgIndex(Id("b", "v")));
}

TEST_F(PackageFileTest, SearchMatchesNameAndVendorAndSkipsNamelessNodes) {
    MolkPkgInfo nodes[4];
    memset(nodes, 0, sizeof nodes);
    const char *names[] = {"", "cam", "cam", "door"};
    for (int i = 0; i < 4; ++i) {
        nodes[i].index = 10 + i;
        strcpy(nodes[i].name, names[i]);
        strcpy(nodes[i].vendor, i == 1 ? "other" : "acme");
        nodes[i].next = i < 3 ? &nodes[i + 1] : nullptr;
    }
    const struct { const char *name, *vendor; int index; } rows[] = {
        {"cam", "acme", 12}, {"cam", "other", 11}, {"door", "acme", 13},
        {"", "acme", -1},    {"cam", "acm", -1},   {"door", "other", -1}};
    for (const auto &row : rows) {
        EXPECT_EQ(row.index, MolkUtil_SearchPkgIdx(nodes, Id(row.name, row.vendor)))
            << row.name << "/" << row.vendor;
    }
    EXPECT_EQ(-1, MolkUtil_SearchPkgIdx(nullptr, Id("cam", "acme")));
}

TEST_F(PackageFileTest, ModelNameFromTheSystemFile) {
    const struct { const char *file; int result; const char *model; } rows[] = {
        {"<s><system><info><modelname>VX-2000</modelname></info></system></s>", 0, "VX-2000"},
        {"<s><system><info><serial>1</serial></info></system></s>", 0, "keep"},
        {"<s><system><modelname>VX</modelname></system></s>", -1, "keep"},
        {"<s><info><modelname>VX</modelname></info></s>", -1, "keep"},
        {"", -1, "keep"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file);
        WriteText(molk::kSystemPath, row.file);
        char model[40] = "keep";
        EXPECT_EQ(row.result, MolkUtil_ParseSysConf(model));
        EXPECT_STREQ(row.model, model);
    }
    unlink(molk::kSystemPath);
    char model[40] = "keep";
    EXPECT_EQ(-1, MolkUtil_ParseSysConf(model));
}

TEST(ChildReaders, ReadStringsAndNumbersOfChildren) {
    char text[] = "<a><n>42</n><neg>-7x</neg><big>123456789012345678</big><s>hello</s></a>";
    MolkXmlNavi *xml = nullptr;
    MolkXmlInitParam param = {0, 16};
    ASSERT_EQ(0, MOLK_XML_Initial(&xml, &param));
    ASSERT_EQ(0, MOLK_XML_SetBuffer(xml, text, sizeof text, sizeof text - 1));
    ASSERT_EQ(1, MOLK_XML_FindElem(xml, "a"));
    // 15 characters of the big one are read; held to 32 bits.
    const struct { const char *name; int result, value; } rows[] = {
        {"n", 0, 42}, {"neg", 0, -7}, {"big", 0, 2147483647}, {"none", -1, 99}};
    for (const auto &row : rows) {
        MOLK_XML_ResetChildPos(xml);
        int value = 99;
        EXPECT_EQ(row.result, MolkUtil_GetChildInt(xml, row.name, &value)) << row.name;
        EXPECT_EQ(row.value, value) << row.name;
    }
    MOLK_XML_ResetChildPos(xml);
    char s[4] = "old";
    EXPECT_EQ(-1, MolkUtil_GetChildString(xml, "none", s, sizeof s));
    EXPECT_STREQ("old", s);
    EXPECT_EQ(0, MolkUtil_GetChildString(xml, "s", s, sizeof s));
    EXPECT_STREQ("hel", s);
    MOLK_XML_Release(&xml);
}

}  // namespace
