// Parse throughput of the XML processor beside pugixml (in-situ,
// parse_minimal), expat, tinyxml2 and libxml2, on a large real document of
// the machine and on a configuration-sized document. Every parser reads the
// whole text each iteration; the counter MB/s is text bytes per second.
//
//   cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DMOLK_BENCH=ON
//   cmake --build build-bench --target xml_parse_bench
//   build-bench/bench/xml_parse_bench [--benchmark_repetitions=5]
#include <benchmark/benchmark.h>
#include <expat.h>
#include <libxml/parser.h>
#include <tinyxml2.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <pugixml.hpp>
#include <string>
#include <vector>

#include "molkxmlprocessor.h"

namespace {

const char kLargePath[] = "/usr/share/mime/packages/freedesktop.org.xml";

// The kind of file the device's processes read: a few dozen elements.
const char kConfig[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- module configuration -->
<config version="2">
  <system>
    <model>VX-4620</model>
    <firmware build="1187">3.2.1</firmware>
    <timezone offset="+08:00">Asia/Taipei</timezone>
  </system>
  <modules order="3,1,2">
    <module index="1" name="vca" vendor="molk" enable="1">
      <path>/usr/lib/molk/vca</path>
      <version>1.4.2</version>
      <profile stream="1" fps="15" resolution="1280x720"/>
      <rule id="r1" type="line-crossing" sensitivity="70"/>
      <rule id="r2" type="intrusion" sensitivity="55"/>
    </module>
    <module index="2" name="counter" vendor="molk" enable="0">
      <path>/usr/lib/molk/counter</path>
      <version>2.0.0</version>
      <profile stream="2" fps="10" resolution="640x360"/>
    </module>
    <module index="3" name="lpr" vendor="acme" enable="1">
      <path>/usr/lib/acme/lpr</path>
      <version>0.9.7</version>
      <profile stream="1" fps="25" resolution="1920x1080"/>
      <region x="10" y="20" w="600" h="200"/>
    </module>
  </modules>
  <event>
    <notify method="http" url="http://10.0.0.5/hook?src=cam&amp;id=7"/>
    <notify method="mail" to="ops@example.com"/>
  </event>
</config>
)";

const std::string &large_text()
{
    static const std::string text = [] {
        std::ifstream in(kLargePath, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }();
    return text;
}

const std::string &input(int which) { static const std::string config = kConfig; return which ? config : large_text(); }

void finish(benchmark::State &state, size_t bytes)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    state.counters["MB/s"] = benchmark::Counter(static_cast<double>(bytes) * state.iterations() / 1e6,
                                                benchmark::Counter::kIsRate);
}

bool usable(benchmark::State &state, const std::string &text)
{
    if (text.empty()) {
        state.SkipWithError("input document not found");
        return false;
    }
    return true;
}

// Copies of the text for the parsers that write into it, refilled with the
// timer stopped, so that the copying is not counted.
struct InSituCopies {
    std::vector<std::vector<char>> copies;
    size_t next = 0;
    InSituCopies(const std::string &text, size_t total)
    {
        const size_t n = std::max<size_t>(4, total / (text.size() + 1));
        copies.assign(n, std::vector<char>(text.begin(), text.end()));
    }
    char *take(benchmark::State &state, const std::string &text)
    {
        if (next == copies.size()) {
            state.PauseTiming();
            for (auto &c : copies)
                std::copy(text.begin(), text.end(), c.begin());
            next = 0;
            state.ResumeTiming();
        }
        return copies[next++].data();
    }
};

void BM_Molk(benchmark::State &state)
{
    const std::string &text = input(static_cast<int>(state.range(0)));
    if (!usable(state, text))
        return;
    // As the device's callers size it: the text length or 8192.
    MolkXmlInitParam param{0, std::max<int>(8192, static_cast<int>(text.size()))};
    MolkXmlNavi *h = nullptr;
    MOLK_XML_Initial(&h, &param);
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    for (auto _ : state) {
        const int r = MOLK_XML_SetBuffer(h, buf.data(), static_cast<int>(buf.size()), static_cast<int>(text.size()));
        if (r != 0)
            state.SkipWithError("the document does not parse");
        benchmark::DoNotOptimize(h->m_iFreePos);
    }
    MOLK_XML_Release(&h);
    finish(state, text.size());
}

void BM_PugiInSitu(benchmark::State &state)
{
    const std::string &text = input(static_cast<int>(state.range(0)));
    if (!usable(state, text))
        return;
    InSituCopies copies(text, 64u << 20);
    pugi::xml_document doc;
    for (auto _ : state) {
        char *b = copies.take(state, text);
        const pugi::xml_parse_result r = doc.load_buffer_inplace(b, text.size(), pugi::parse_minimal);
        if (!r)
            state.SkipWithError(r.description());
        benchmark::DoNotOptimize(doc.first_child());
    }
    finish(state, text.size());
}

void BM_Expat(benchmark::State &state)
{
    const std::string &text = input(static_cast<int>(state.range(0)));
    if (!usable(state, text))
        return;
    XML_Parser p = XML_ParserCreate(nullptr);
    for (auto _ : state) {
        XML_ParserReset(p, nullptr);
        if (XML_Parse(p, text.data(), static_cast<int>(text.size()), 1) != XML_STATUS_OK)
            state.SkipWithError(XML_ErrorString(XML_GetErrorCode(p)));
    }
    XML_ParserFree(p);
    finish(state, text.size());
}

void BM_TinyXml2(benchmark::State &state)
{
    const std::string &text = input(static_cast<int>(state.range(0)));
    if (!usable(state, text))
        return;
    tinyxml2::XMLDocument doc(false);
    for (auto _ : state) {
        if (doc.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS)
            state.SkipWithError(doc.ErrorStr());
        benchmark::DoNotOptimize(doc.RootElement());
    }
    finish(state, text.size());
}

void BM_LibXml2(benchmark::State &state)
{
    const std::string &text = input(static_cast<int>(state.range(0)));
    if (!usable(state, text))
        return;
    xmlParserCtxtPtr ctxt = xmlNewParserCtxt();
    for (auto _ : state) {
        xmlDocPtr doc = xmlCtxtReadMemory(ctxt, text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                          XML_PARSE_NONET | XML_PARSE_COMPACT);
        if (!doc)
            state.SkipWithError("libxml2 refused the document");
        xmlFreeDoc(doc);
    }
    xmlFreeParserCtxt(ctxt);
    finish(state, text.size());
}

// Argument 0: the large document; 1: the configuration document.
BENCHMARK(BM_Molk)->ArgName("config")->Arg(0)->Arg(1);
BENCHMARK(BM_PugiInSitu)->ArgName("config")->Arg(0)->Arg(1);
BENCHMARK(BM_Expat)->ArgName("config")->Arg(0)->Arg(1);
BENCHMARK(BM_TinyXml2)->ArgName("config")->Arg(0)->Arg(1);
BENCHMARK(BM_LibXml2)->ArgName("config")->Arg(0)->Arg(1);

} // namespace

BENCHMARK_MAIN();
