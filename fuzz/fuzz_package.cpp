// The whole package path: upgrade.bin in the program's folder, CheckForUpgrade through the engine.
// Byte 0 chooses: bit 0 the rest is a plain descriptor, enciphered with the build's key before it is
// put down (else the rest is the package as it stands); bit 1 the with-region flag; bit 2 the
// program runs from the card (the package stays) instead of the internal flash (it is used once).
#include "fuzz_device.h"
#include "tarsklib/tarsk_progress.h"

namespace {

const char *const kFolders[2] = {"\\My Flash Disk", "\\Storage Card"};

BOOL checkProgress(LPCWSTR line) {
    size_t n = fuzz::terminatedLength(line, TARSK_PROGRESS_CHARS);
    FUZZ_CHECK(n >= 2 && line[n - 2] == '\r' && line[n - 1] == '\n');
    return TRUE;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    fuzz::Input input;
    testing_support::TestDevice &td = input.td;
    const bool seal = data[0] & 1, withRegion = data[0] & 2, fromCard = data[0] & 4;
    std::string package(reinterpret_cast<const char *>(data) + 1, size - 1);
    if (seal) package = engine_test::sealPackage(package);

    const std::string folder = kFolders[fromCard];
    const std::string bin = folder + "\\upgrade.bin";
    td.dev().setProgramPath(testing_support::W(folder + "\\tarsk.exe"));
    td.put(bin, package);

    TarskEngine *e = new TarskEngine(checkProgress);
    FUZZ_CHECK(e->IsConstructed());
    const DWORD result = e->CheckForUpgrade(withRegion ? 1 : 0);

    FUZZ_CHECK(fuzz::flag(result));
    FUZZ_CHECK(result == (e->m_bUpgradeBboot || e->m_bUpgradeKernel || e->m_bUpgradeRegion ? 1u : 0u));
    FUZZ_CHECK(fuzz::flag(e->m_bUpgradeFromSDCard) && e->m_bUpgradeFromSDCard == (fromCard ? 1u : 0u));
    const RegionDescriptor &r = e->m_RegionDescriptor;
    for (DWORD f : {e->m_bUbootExists, e->m_bUpgradeBboot, e->m_bKernelExists, e->m_bUpgradeKernel,
                    e->m_bFormatKernel, e->m_bRegionExists, e->m_bUpgradeRegion, e->m_bSerialNumberFail,
                    e->m_bFormatHiddenFail, e->m_bFormatVisibleAreaFail, r.force, r.serialNumberPresent,
                    r.formatHidden, r.formatVisible})
        FUZZ_CHECK(fuzz::flag(f));
    FUZZ_CHECK(!e->m_bFormatKernel || e->m_bUpgradeKernel);
    fuzz::checkDescriptor(e->m_UbootDescriptor);
    fuzz::checkDescriptor(e->m_KernelDescriptor);
    FUZZ_CHECK(r.serialNumberPresent == (fuzz::terminatedLength(r.serialNumber, REGIONDESC_SERIAL_CHARS) > 0));
    FUZZ_CHECK(withRegion || (!e->m_bRegionExists && !e->m_bUpgradeRegion && !r.serialNumber[0]));

    // The plain descriptor is temporary; the package is used once from the internal flash and stays
    // on the card, untouched.
    FUZZ_CHECK(!td.exists(folder + "\\upgrade.xml"));
    if (fromCard || package.empty()) FUZZ_CHECK(td.get(bin) == package);
    else FUZZ_CHECK(!td.exists(bin));
    // A package that could be read leaves its report.
    FUZZ_CHECK(td.exists(folder + "\\upgrade.winceimg.tag") == !package.empty());

    delete e;
    return 0;
}
