// Process start on the simulated device: CreateProcessW succeeds when the program file exists on
// the device. The started program does not run; its process and thread handles are real handles of
// the table (never signalled: the program goes on by itself), so that closing them is checked.
// Journal: "process_start" {path, ok, error}, path as the caller named the program.
#include "device.h"

#include <atomic>

using namespace sim;

namespace {

struct StartedProcess : Waitable {
    const char *type() const override { return "process"; }
    bool tryAcquire() override { return false; }
};

struct StartedThread : Waitable {
    const char *type() const override { return "thread"; }
    bool tryAcquire() override { return false; }
};

std::atomic<DWORD> g_nextProcessId{0x41000000};   // apart from the ids of this process's threads

// The program's name: the application name, else the command line's first token (quoted or not).
std::u16string programName(LPCWSTR application, LPCWSTR commandLine) {
    if (application) return wide(application);
    std::u16string line = wide(commandLine);
    size_t i = line.find_first_not_of(u" \t");
    if (i == std::u16string::npos) return {};
    if (line[i] == u'"') {
        size_t end = line.find(u'"', i + 1);
        return line.substr(i + 1, end == std::u16string::npos ? std::u16string::npos : end - i - 1);
    }
    return line.substr(i, line.find_first_of(u" \t", i) - i);
}

// As CE looks a program up: a name without a folder in \Windows, then in the root; ".exe" added to a
// name without an extension.
bool programExists(const std::u16string &name) {
    std::u16string file = name;
    size_t slash = file.find_last_of(u"\\/");
    if (file.find(u'.', slash == std::u16string::npos ? 0 : slash) == std::u16string::npos) file += u".exe";
    std::vector<std::u16string> tries;
    if (!file.empty() && (file[0] == u'\\' || file[0] == u'/')) {
        tries.push_back(file);
    } else {
        tries.push_back(u"\\Windows\\" + file);
        tries.push_back(u"\\" + file);
    }
    for (const auto &t : tries)
        if (dev().files().isFile(t)) return true;
    return false;
}

}  // namespace

BOOL WINAPI CreateProcessW(LPCWSTR lpApplicationName, LPWSTR lpCommandLine, LPSECURITY_ATTRIBUTES,
                           LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR, LPSTARTUPINFOW,
                           LPPROCESS_INFORMATION info) {
    Device &d = dev();
    auto injected = d.failure("CreateProcessW");
    const std::u16string name = programName(lpApplicationName, lpCommandLine);
    DWORD error = injected ? *injected
                  : !lpApplicationName && !lpCommandLine ? DWORD(ERROR_INVALID_PARAMETER)
                  : name.empty() || !programExists(name) ? DWORD(ERROR_FILE_NOT_FOUND)
                                                         : DWORD(ERROR_SUCCESS);
    d.journal().write("process_start", {{"path", utf8(name)}, {"ok", error == ERROR_SUCCESS}, {"error", error}});
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return FALSE;
    }
    if (info) {
        info->dwProcessId = g_nextProcessId.fetch_add(8);
        info->dwThreadId = info->dwProcessId + 4;
        info->hProcess = d.objects().add(std::make_shared<StartedProcess>());
        info->hThread = d.objects().add(std::make_shared<StartedThread>());
    }
    return TRUE;
}
