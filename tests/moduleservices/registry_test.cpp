// The registry file and the module description below the registration:
// the reader's limits and forward-only search, failed writes that keep the
// file, and the description's counting rules. What the builder writes for
// each filter is the registration model's part.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <memory>

#include "services_support.h"
// The file's operations are private to the library: compiled in here.
#include "moduleservices/registry_file.cpp"

namespace {

using svc::ReadText;
using svc::WriteText;

struct Doc {
    std::unique_ptr<OnvifAnalyticsDocument> d{new OnvifAnalyticsDocument()};
    std::unique_ptr<VideoAnalyticsConfigurationList> list{new VideoAnalyticsConfigurationList()};
    molk::RegistryVerdict verdict = molk::kRegistryUnusable;
    Doc() {
        d->param.maxElements = molk::kRegistryTextSize;
        EXPECT_EQ(0, MOLK_XML_Initial(&d->xml, &d->param));
    }
    ~Doc() { MOLK_XML_Release(&d->xml); }
    int Parse(const std::string &text) {
        *list = VideoAnalyticsConfigurationList();
        snprintf(d->text, sizeof d->text, "%s", text.c_str());
        return ParseOnvifAnalyticsText(d.get(), list.get(), &verdict);
    }
};

TEST(RegistryFile, ReaderTable) {
    std::string eleven = "<root>";
    for (int i = 0; i < 11; ++i) eleven += "<VideoAnalyticsConfiguration token=\"t" + std::to_string(i) + "\"/>";
    const std::string outOfOrder = "<root><VideoAnalyticsConfiguration token=\"a\"><AE><AnalyticsEnginePID>5"
        "</AnalyticsEnginePID><AnalyticsEngineDescription>d</AnalyticsEngineDescription></AE>"
        "</VideoAnalyticsConfiguration></root>";
    const struct { std::string text; int result, count; molk::RegistryVerdict verdict; } cases[] = {
        {"", -1, 0, molk::kRegistryEmpty},
        {" \r\n\t", -1, 0, molk::kRegistryEmpty},
        {"<root>\r\n</root>\r\n", -1, 0, molk::kRegistryEmpty},
        {"<root><VideoAnalyticsConfiguration token=\"a\">", -1, 0, molk::kRegistryUnusable},
        {eleven + "</root>", 0, 10, molk::kRegistryParsed},
        {outOfOrder, 0, 1, molk::kRegistryParsed},
    };
    for (const auto &c : cases) {
        Doc doc;
        EXPECT_EQ(c.result, doc.Parse(c.text)) << c.text;
        EXPECT_EQ(c.verdict, doc.verdict) << c.text;
        EXPECT_EQ(c.count, doc.list->count) << c.text;
    }
    Doc doc;
    doc.Parse(outOfOrder);
    EXPECT_EQ(0, doc.list->entries[0].ae.pid);  // stood ahead of the description
    EXPECT_STREQ("d", doc.list->entries[0].ae.description);
}

// A write that fails at any step keeps the registry and leaves no
// temporary file: the temporary name taken, then a full file system.
TEST(RegistryFile, FailedWritesKeepTheRegistry) {
    const std::string old = "<root>\r\n</root>\r\n", temporary = std::string(molk::kRegistryPath) + "~";
    mkdir("/etc/conf.d/config_onvif", 0755);
    ASSERT_EQ(0, mount("molk-full", "/etc/conf.d/config_onvif", "tmpfs", 0, "size=8k"));
    WriteText(molk::kRegistryPath, old);
    mkdir(temporary.c_str(), 0755);
    EXPECT_EQ(-1, WriteConfigFile("<root/>", 7));
    rmdir(temporary.c_str());
    const std::string big(8192, 'x');
    EXPECT_EQ(-1, WriteConfigFile(big.c_str(), static_cast<int>(big.size())));
    EXPECT_EQ(old, ReadText(molk::kRegistryPath));
    EXPECT_NE(0, access(temporary.c_str(), F_OK));
    EXPECT_EQ(0, WriteConfigFile("<root/>", 7));
    EXPECT_EQ("<root/>", ReadText(molk::kRegistryPath));
    umount("/etc/conf.d/config_onvif");
}

// Children counted once each, in order; a block that fails its own test
// keeps what it read.
TEST(RegistryFile, ModuleDescriptionTable) {
    const std::string head = "<molk><token>T</token><vendor>v</vendor><name>n</name>";
    const std::string pcd = "<pid>7</pid><config>c</config><description>d</description>";
    const struct { std::string xml; int result, aePid, aeCount, rePid; } cases[] = {
        {head + "<ae>" + pcd + "</ae></molk>", 0, 7, 1, 0},
        {head + "<ae>" + pcd + "<maxconfignumber>0</maxconfignumber></ae></molk>", 0, 7, 0, 0},
        {head + "<ae><config>c</config><pid>7</pid><description>d</description></ae></molk>", -1, 7, 1, 0},
        {head + "<ae>" + pcd + "<description>e</description></ae></molk>", -1, 7, 1, 0},
        {head + "<ae><pid>0</pid><config>c</config><description>d</description></ae></molk>", -1, 0, 1, 0},
        {head + "<re>" + pcd + "</re><ae>" + pcd + "</ae></molk>", 0, 7, 1, 0},  // re passed over
        {head + "<ae><pid>9</pid></ae><re>" + pcd + "</re></molk>", 0, 9, 1, 7},
        {"<molk><token></token><vendor>v</vendor><name>n</name><ae>" + pcd + "</ae></molk>", -1, 7, 1, 0},
        {"<module><token>T</token></module>", -1, 0, 0, 0},
    };
    for (const auto &c : cases) {
        Doc doc;
        std::string text = c.xml;
        const int n = static_cast<int>(text.size());
        ASSERT_EQ(0, MOLK_XML_SetBuffer(doc.d->xml, &text[0], n, n));
        VideoAnalyticsConfiguration r;
        EXPECT_EQ(c.result, Parse_MolkVAModuleInfo(doc.d->xml, &r)) << c.xml;
        EXPECT_EQ(c.aePid, r.ae.pid) << c.xml;
        EXPECT_EQ(c.aeCount, r.ae.confignumber) << c.xml;
        EXPECT_EQ(c.rePid, r.re.pid) << c.xml;
    }
}

}  // namespace
