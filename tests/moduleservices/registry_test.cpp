// The registry file and the module description, below the registration:
// the builder's filter, the reader's forward-only search, refusals that
// keep the file whole, and the description's counting rules.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cstdlib>
#include <memory>

#include "registry_support.h"
// The file's operations are private to the library: compiled in here.
#include "moduleservices/registry_file.cpp"

namespace {

using regtest::ReadText;
using regtest::WriteText;

struct Doc {
    std::unique_ptr<OnvifAnalyticsDocument> d{new OnvifAnalyticsDocument()};
    std::unique_ptr<VideoAnalyticsConfigurationList> list{new VideoAnalyticsConfigurationList()};
    Doc() {
        d->param.maxElements = molk::kRegistryTextSize;
        EXPECT_EQ(0, MOLK_XML_Initial(&d->xml, &d->param));
    }
    ~Doc() { MOLK_XML_Release(&d->xml); }
    int Parse(const std::string &text, molk::RegistryVerdict *verdict) {
        *list = VideoAnalyticsConfigurationList();
        memset(d->text, 0, sizeof d->text);
        memcpy(d->text, text.data(), std::min(text.size(), sizeof d->text - 1));
        return ParseOnvifAnalyticsText(d.get(), list.get(), verdict);
    }
    std::string Build(int pid) {
        int length = -1;
        if (BuildOnvifAnalyticsConfigText(list.get(), pid, d->text, &length) != 0) return "refused";
        EXPECT_EQ(strlen(d->text), static_cast<size_t>(length));
        return d->text;
    }
};

VideoAnalyticsConfiguration Record(const char *token, int ae, int re) {
    VideoAnalyticsConfiguration r = {};
    snprintf(r.token, sizeof r.token, "%s", token);
    snprintf(r.name, sizeof r.name, "motion");
    snprintf(r.vendor, sizeof r.vendor, "acme");
    r.UseCount = 3;
    r.ae = {ae, 2, "/a/ae.cfg", "/a/ae.desc"};
    r.re = {re, 4, "/a/re.cfg", "/a/re.desc"};
    if (ae == 0) r.ae = {};
    if (re == 0) r.re = {};
    return r;
}

// Which blocks survive a filter; "gone" when the record is dropped. Each
// built text reads back to the same PIDs, and building that again with
// filter 0 gives the same text as filter 0 gave before (empty blocks fall).
TEST(RegistryFile, BuilderFilterAndReadBack) {
    const struct { int ae, re, filter; const char *blocks; } cases[] = {
        {0, 700, 0, "RE"},       {700, 800, 700, "RE"},  {700, 800, 800, "AE"},
        {700, 800, 900, "AE RE"}, {700, 0, 700, "gone"},  {700, 0, 900, "AE RE"},
        {0, 0, 0, ""},           {0, 0, 5, "gone"},      {700, 800, 0, "AE RE"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.ae << "/" << c.re << " filter " << c.filter);
        Doc doc;
        doc.list->count = 1;
        doc.list->entries[0] = Record("T", c.ae, c.re);
        const std::string plain = doc.Build(0), text = doc.Build(c.filter);
        std::string blocks = text.find("<AE>") != std::string::npos ? "AE" : "";
        if (text.find("<RE>") != std::string::npos) blocks += blocks.empty() ? "RE" : " RE";
        if (text.find("<VideoAnalyticsConfiguration") == std::string::npos) blocks = "gone";
        EXPECT_EQ(c.blocks, blocks);
        molk::RegistryVerdict verdict;
        doc.Parse(text, &verdict);
        if (blocks == "gone") {
            EXPECT_EQ(molk::kRegistryEmpty, verdict);
            EXPECT_EQ("<root>\r\n</root>\r\n", text);
            continue;
        }
        ASSERT_EQ(1, doc.list->count);
        const VideoAnalyticsConfiguration &r = doc.list->entries[0];
        EXPECT_EQ(c.ae == c.filter ? 0 : c.ae, r.ae.pid);
        EXPECT_EQ(c.re == c.filter ? 0 : c.re, r.re.pid);
        EXPECT_EQ(3, r.UseCount);
        if (c.filter == 0) {
            EXPECT_EQ(plain, doc.Build(0));
        }
    }
}

// The reader: empty texts, a malformed one, the cap of ten, and an element
// out of order that the forward search passes over.
TEST(RegistryFile, ReaderTable) {
    std::string eleven = "<root>";
    for (int i = 0; i < 11; ++i) eleven += "<VideoAnalyticsConfiguration token=\"t" + std::to_string(i) + "\"/>";
    const struct { std::string text; int result, count; molk::RegistryVerdict verdict; } cases[] = {
        {"", -1, 0, molk::kRegistryEmpty},
        {" \r\n\t", -1, 0, molk::kRegistryEmpty},
        {"<root>\r\n</root>\r\n", -1, 0, molk::kRegistryEmpty},
        {"<root><VideoAnalyticsConfiguration token=\"a\">", -1, 0, molk::kRegistryUnusable},
        {eleven + "</root>", 0, 10, molk::kRegistryParsed},
        {"<root><VideoAnalyticsConfiguration token=\"a\" vendor=\"v\"><Name>n</Name><AE>"
         "<AnalyticsEnginePID>5</AnalyticsEnginePID><AnalyticsEngineDescription>d"
         "</AnalyticsEngineDescription></AE></VideoAnalyticsConfiguration></root>",
         0, 1, molk::kRegistryParsed},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Doc doc;
        molk::RegistryVerdict verdict;
        EXPECT_EQ(c.result, doc.Parse(c.text, &verdict));
        EXPECT_EQ(c.verdict, verdict);
        EXPECT_EQ(c.count, doc.list->count);
    }
    Doc doc;
    molk::RegistryVerdict verdict;
    doc.Parse(cases[5].text, &verdict);
    EXPECT_STREQ("v", doc.list->entries[0].vendor);
    EXPECT_EQ(0, doc.list->entries[0].ae.pid);  // stood ahead of the description
    EXPECT_STREQ("d", doc.list->entries[0].ae.description);
}

// Texts the builder must refuse rather than write: one over the buffer,
// and fields that would not read back as written.
TEST(RegistryFile, BuilderRefusesWhatCannotBeWrittenWhole) {
    Doc doc;
    doc.list->count = molk::kMaxConfigurations;
    for (VideoAnalyticsConfiguration &r : doc.list->entries) {
        r = Record("T", 1, 2);
        memset(r.ae.config, 'c', sizeof r.ae.config - 1);
        memset(r.re.config, 'c', sizeof r.re.config - 1);
    }
    EXPECT_EQ("refused", doc.Build(0));
    EXPECT_EQ(std::string(), doc.d->text);
    for (const char *bad : {"a<b", "v/>", "a&amp;b", "say \"x\""}) {
        doc.list->count = 1;
        doc.list->entries[0] = Record("T", 1, 0);
        snprintf(doc.list->entries[0].name, sizeof doc.list->entries[0].name, "%s", bad);
        EXPECT_EQ("refused", doc.Build(0)) << bad;
    }
}

// The file level: a file longer than the text is not read as a cut text;
// a failed write keeps the registry and leaves no temporary file.
TEST(RegistryFile, FileOverflowAndFailedWritesKeepTheRegistry) {
    mkdir("/etc/conf.d/config_onvif", 0755);
    Doc doc;
    WriteText(molk::kRegistryPath, "<root>" + std::string(9000, ' ') + "</root>");
    molk::RegistryVerdict verdict;
    EXPECT_EQ(-1, Parse_OnvifAnalyticsConfigFile(doc.d.get(), doc.list.get(), &verdict));
    EXPECT_EQ(molk::kRegistryUnusable, verdict);

    const std::string old = "<root>\r\n</root>\r\n", temporary = std::string(molk::kRegistryPath) + "~";
    WriteText(molk::kRegistryPath, old);
    mkdir(temporary.c_str(), 0755);  // the temporary name cannot be opened
    EXPECT_EQ(-1, WriteConfigFile("<root/>", 7));
    rmdir(temporary.c_str());
    // A full file system: the text does not fit, which fflush or fsync shows.
    ASSERT_EQ(0, mount("molk-full", "/etc/conf.d/config_onvif", "tmpfs", 0, "size=8k"));
    WriteText(molk::kRegistryPath, old);
    std::string big(8192, 'x');
    EXPECT_EQ(-1, WriteConfigFile(big.c_str(), static_cast<int>(big.size())));
    EXPECT_EQ(old, ReadText(molk::kRegistryPath));
    EXPECT_NE(0, access(temporary.c_str(), F_OK));
    EXPECT_EQ(0, WriteConfigFile("<root/>", 7));
    EXPECT_EQ("<root/>", ReadText(molk::kRegistryPath));
    umount("/etc/conf.d/config_onvif");
}

// The description: children counted once each, in order, and a block that
// fails its own test keeps what it read.
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
        SCOPED_TRACE(c.xml);
        Doc doc;
        std::string text = c.xml;
        ASSERT_EQ(0, MOLK_XML_SetBuffer(doc.d->xml, &text[0], static_cast<int>(text.size()),
                                        static_cast<int>(text.size())));
        VideoAnalyticsConfiguration r;
        EXPECT_EQ(c.result, Parse_MolkVAModuleInfo(doc.d->xml, &r));
        EXPECT_EQ(c.aePid, r.ae.pid);
        EXPECT_EQ(c.aeCount, r.ae.confignumber);
        EXPECT_EQ(c.rePid, r.re.pid);
    }
}

}  // namespace
