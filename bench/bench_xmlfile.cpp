// Loading a 1 MiB XML file: XmlFile::create (the file read through the character source, then
// Mini-XML) beside a bare mxmlLoadString of the same bytes already in memory, in the same binary.
#include "framework/xmlfile.h"
#include "test_device.h"

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <mxml.h>

#include <string>

namespace {

const char *const kXmlPath = "\\My Flash Disk\\bench.xml";

// Packages of files with attributes, indented text and a little text that is not ASCII.
std::string packageText() {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<packages>\n";
    for (int p = 0; text.size() < (1u << 20); ++p) {
        const std::string n = std::to_string(p);
        text += "  <package name=\"Paket " + n + "\" version=\"1." + n + "\">\n";
        for (int f = 0; f < 8; ++f) {
            const std::string m = std::to_string(f);
            text += "    <file path=\"\\Storage Card\\maps\\region" + n + "\\tile" + m + ".bin\" size=\"" +
                    std::to_string(p * 7919 + f) + "\">Kachel " + m + (f == 3 ? " \xC3\xBC" "ber Stra\xC3\x9F" "e" : "") +
                    "</file>\n";
        }
        text += "  </package>\n";
    }
    return text + "</packages>\n";
}

struct Files {
    testing_support::TestDevice device;
    std::string text = packageText();
    Files() {
        device.put(testing_support::kDeviceSettingsFile, "");
        device.put(kXmlPath, text);
    }
};

Files &files() {
    static Files f;
    return f;
}

// Every load starts from a tidied C heap: left as the last load's frees leave it, the allocator's
// state (and so the cost of Mini-XML's many small allocations) depends on what ran before.
void tidyHeap(benchmark::State &state) {
    state.PauseTiming();
    malloc_trim(0);
    state.ResumeTiming();
}

void BM_XmlLoadOurs(benchmark::State &state) {
    files();
    const std::u16string name = testing_support::W(kXmlPath);
    for (auto _ : state) {
        XmlFile *file = NULL;
        if (!XmlFile::create(name.c_str(), &file)) {
            state.SkipWithError("XmlFile::create failed");
            break;
        }
        file->release();
        tidyHeap(state);
    }
    state.counters["target"] = 1.2;
}

// What our loader hands Mini-XML: the text under a document node, with the text callback.
void BM_XmlLoadReference(benchmark::State &state) {
    const std::string &text = files().text;
    for (auto _ : state) {
        mxml_node_t *top = mxmlNewElement(MXML_NO_PARENT, "#document");
        if (mxmlLoadString(top, text.c_str(), MXML_TEXT_CALLBACK) == NULL) state.SkipWithError("mxmlLoadString failed");
        mxmlDelete(top);
        tidyHeap(state);
    }
}

}  // namespace

BENCHMARK(BM_XmlLoadOurs)->Name("xml_load/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_XmlLoadReference)->Name("xml_load/reference")->Unit(benchmark::kMillisecond);
