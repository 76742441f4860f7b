// ReadDebugIniFileDbgSettings on a debug.ini, section "Tarsk". Input: the file.
#include "fuzz_device.h"
#include "platform/inifile.h"

namespace {

const char kIni[] = "\\My Flash Disk\\debug.ini";
const DWORD kNamedModules = MODULE_ROOT | MODULE_TRAFFIC | MODULE_GPS | MODULE_UI | MODULE_SOUND;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input;
    testing_support::TestDevice &td = input.td;
    td.put(kIni, std::string(reinterpret_cast<const char *>(data), size));
    const VLLogSettings before = g_vlLogSettings;
    CIniFile ini;
    FUZZ_CHECK(ini.open(testing_support::W(kIni).c_str()));
    FUZZ_CHECK(ReadDebugIniFileDbgSettings(&ini, "Tarsk") == 1);

    const VLLogSettings &s = g_vlLogSettings;
    // A level is one of the names' values (there is no 6), or the one it had.
    FUZZ_CHECK((s.level >= LOG_NONE && s.level <= LOG_SNAPSHOT) || s.level == LOG_TRACE || s.level == before.level);
    // MODULE_ALL gives every bit; a list only the bits that can be named.
    FUZZ_CHECK(s.moduleMask == before.moduleMask || s.moduleMask == MODULE_ALL || (s.moduleMask & ~kNamedModules) == 0);
    for (BOOL b : {s.toFile, s.increment, s.ascii, s.console, s.debugPortOn}) FUZZ_CHECK(fuzz::flag(b));
    // The file keys count only under DebugToFile (which the snapshot's writer clears again when it
    // cannot use the file).
    FUZZ_CHECK(s.toFile || s.level >= LOG_SNAPSHOT || (s.increment == before.increment && s.ascii == before.ascii));
    fuzz::terminatedLength(s.fileName, sizeof s.fileName);
    FUZZ_CHECK(s.debugPortHandle == before.debugPortHandle);

    // The next input starts from the defaults again, with no log file open.
    ini.close();
    g_vlLogSettings = before;
    vl_closeLogFile();
    return 0;
}
