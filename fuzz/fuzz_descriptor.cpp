// The descriptor readers GetUbootXMLSettings, GetKernelXMLSettings and GetRegionFileSettings on
// upgrade.xml, with the DEBUG lines on (they carry the element texts through the log formatter).
// Input: the descriptor.
#include "fuzz_device.h"

#include <cstring>

namespace {

const char kXml[] = "\\My Flash Disk\\upgrade.xml";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input;
    testing_support::TestDevice &td = input.td;
    td.put(kXml, std::string(reinterpret_cast<const char *>(data), size));
    const std::u16string path = testing_support::W(kXml);
    const LONG level = g_vlLogSettings.level;
    g_vlLogSettings.level = LOG_DEBUG;

    DeviceDescriptor uboot, kernel;
    std::memset(&uboot, 0, sizeof uboot);
    std::memset(&kernel, 0, sizeof kernel);
    FUZZ_CHECK(GetUbootXMLSettings(path.c_str(), &uboot) == 1);   // 1 whatever the file holds
    FUZZ_CHECK(GetKernelXMLSettings(path.c_str(), &kernel) == 1);
    fuzz::checkDescriptor(uboot);
    fuzz::checkDescriptor(kernel);

    RegionDescriptor region, untouched;
    std::memset(&region, 0, sizeof region);
    std::memset(&untouched, 0, sizeof untouched);
    const int found = GetRegionFileSettings(path.c_str(), &region);
    FUZZ_CHECK(found == 0 || found == 1);
    FUZZ_CHECK(found || std::memcmp(&region, &untouched, sizeof region) == 0);
    FUZZ_CHECK(fuzz::flag(region.force) && fuzz::flag(region.formatHidden) && fuzz::flag(region.formatVisible));
    FUZZ_CHECK(region.serialNumberPresent == 0);   // the engine's to set, not the reader's
    fuzz::terminatedLength(region.serialNumber, REGIONDESC_SERIAL_CHARS);

    g_vlLogSettings.level = level;
    return 0;
}
