// The kernel of the simulated device: KernelIoControl answered from the profile, the object store
// and memory figures, and message boxes (answered at once, as if the user pressed OK).
#include "kernel.h"

#include "library.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace sim {

namespace {

const toml::table *tableAt(const toml::table &profile, const std::string &name, const std::string &where) {
    const toml::node *node = profile.get(name);
    if (!node) return nullptr;
    const toml::table *t = node->as_table();
    if (!t) badProfile(where, "must be a table");
    return t;
}

std::optional<std::string> textKey(const toml::table *t, const char *key, const std::string &where) {
    if (!t) return std::nullopt;
    const toml::node *n = t->get(key);
    if (!n) return std::nullopt;
    if (auto s = n->value<std::string>()) return *s;
    badProfile(where + "." + key, "must be a text");
}

std::optional<DWORD> dwordKey(const toml::table *t, const char *key, const std::string &where) {
    if (!t) return std::nullopt;
    const toml::node *n = t->get(key);
    if (!n) return std::nullopt;
    auto v = n->value<int64_t>();
    if (!n->is_integer() || !v) badProfile(where + "." + key, "must be a number");
    if (*v < 0 || *v > int64_t(0xFFFFFFFFu)) badProfile(where + "." + key, "must fit 32 unsigned bits");
    return DWORD(*v);
}

// "0x80002E78" (any case) or a decimal number.
std::optional<DWORD> parseCode(const std::string &text) {
    if (text.empty()) return std::nullopt;
    char *end = nullptr;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (!end || *end || v > 0xFFFFFFFFull) return std::nullopt;
    return DWORD(v);
}

DWORD readDword(const BYTE *p) {
    return DWORD(p[0]) | DWORD(p[1]) << 8 | DWORD(p[2]) << 16 | DWORD(p[3]) << 24;
}

void writeDword(BYTE *p, DWORD v) {
    p[0] = BYTE(v);
    p[1] = BYTE(v >> 8);
    p[2] = BYTE(v >> 16);
    p[3] = BYTE(v >> 24);
}

// Copies wide text into a byte buffer of outSize bytes as little-endian WCHARs: as many characters as
// fit with a terminator. Returns the bytes written.
DWORD putWide(const std::u16string &text, void *out, DWORD outSize) {
    DWORD cap = outSize / 2;                  // characters that fit, terminator included
    if (!cap) return 0;
    DWORD n = DWORD(std::min<size_t>(text.size(), cap - 1));
    BYTE *p = static_cast<BYTE *>(out);
    for (DWORD i = 0; i < n; ++i) {
        p[2 * i] = BYTE(text[i] & 0xFF);
        p[2 * i + 1] = BYTE(text[i] >> 8);
    }
    p[2 * n] = p[2 * n + 1] = 0;
    return (n + 1) * 2;
}

// The kernel's default memory figures: a 64 MB device whose object store takes 16 MB of its RAM.
const Kernel::Memory kDefaultMemory = {
    0x01000000, 0x00C00000,   // store 16 MB, 12 MB free
    0x02E00000, 0x01A00000,   // program memory 46 MB, 26 MB free
    0x02000000, 0x01C00000,   // a 32 MB process slot, 28 MB free
    0,                        // load: computed from the physical figures unless given
    0,                        // no limit on one allocation
};

}  // namespace

Kernel::Kernel(Device &dev, const toml::table &profile) : m_dev(dev), m_memory(kDefaultMemory) {
    const toml::table *k = tableAt(profile, "kernel", "kernel");
    if (auto s = textKey(k, "version", "kernel")) m_answers.version = fromUtf8(*s);
    m_answers.bootloaderVersion = textKey(k, "bootloader_version", "kernel");
    if (auto s = textKey(k, "hardware_type", "kernel")) m_answers.hardwareType = fromUtf8(*s);
    m_answers.regionVersion = dwordKey(k, "region_version", "kernel");
    m_answers.hardwareVersion = dwordKey(k, "hardware_version", "kernel");
    if (k) {
        if (const toml::node *f = k->get("fail")) {
            const toml::table *fails = f->as_table();
            if (!fails) badProfile("kernel.fail", "must be a table of control codes");
            for (auto &&[key, value] : *fails) {
                std::string name(key.str());
                auto code = parseCode(name);
                if (!code) badProfile("kernel.fail." + name, "the key must be a control code such as '0x80002E78'");
                auto error = dwordKey(fails, name.c_str(), "kernel.fail");
                m_failures[*code] = *error;
            }
        }
    }

    const toml::table *m = tableAt(profile, "memory", "memory");
    struct Field { const char *key; DWORD *to; } fields[] = {
        {"store_size", &m_memory.storeSize},     {"store_free", &m_memory.storeFree},
        {"total_phys", &m_memory.totalPhys},     {"avail_phys", &m_memory.availPhys},
        {"total_virtual", &m_memory.totalVirtual}, {"avail_virtual", &m_memory.availVirtual},
        {"largest_allocation", &m_memory.largestAllocation},
    };
    for (const Field &f : fields)
        if (auto v = dwordKey(m, f.key, "memory")) *f.to = *v;
    if (auto load = dwordKey(m, "memory_load", "memory")) {
        m_memory.memoryLoad = std::min<DWORD>(*load, 100);
    } else if (m_memory.totalPhys && m_memory.availPhys <= m_memory.totalPhys) {
        m_memory.memoryLoad = DWORD(uint64_t(m_memory.totalPhys - m_memory.availPhys) * 100 / m_memory.totalPhys);
    }
}

// The input bytes go into the journal as hex (4 KiB for a hidden-disk format): only when it records.
BOOL Kernel::fail(DWORD code, const void *in, DWORD inSize, DWORD error) {
    if (m_dev.journal().recording())
        m_dev.journal().write("ioctl", {{"code", hexCode(code)},
                                        {"input", hexBytes(in, in ? inSize : 0)},
                                        {"ok", false},
                                        {"error", error}});
    setLastError(error);
    return FALSE;
}

BOOL Kernel::succeed(DWORD code, const void *in, DWORD inSize) {
    if (m_dev.journal().recording())
        m_dev.journal().write("ioctl", {{"code", hexCode(code)},
                                        {"input", hexBytes(in, in ? inSize : 0)},
                                        {"ok", true},
                                        {"error", 0}});
    return TRUE;
}

BOOL Kernel::ioControl(DWORD code, const void *in, DWORD inSize, void *out, DWORD outSize, DWORD *returned) {
    Answers answers;
    // [fail] KernelIoControl (every call, or the Nth) as well as [kernel.fail] by control code.
    std::optional<DWORD> injected = m_dev.failure("KernelIoControl");
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        answers = m_answers;
        auto it = m_failures.find(code);
        if (!injected && it != m_failures.end()) injected = it->second;
    }
    if (!out) outSize = 0;
    if (in == nullptr && inSize) return fail(code, in, 0, ERROR_INVALID_PARAMETER);

    // The requests: the input size is part of each one's contract.
    DWORD expected = 0;
    switch (code) {
    case kIoctlImageUpgrade: expected = kImageRequestSize; break;
    case kIoctlSerialNumber: expected = kSerialNumberSize; break;
    case kIoctlHiddenFormat: expected = kHiddenFormatSize; break;
    default: break;
    }
    if (expected) {
        if (inSize != expected) return fail(code, in, inSize, ERROR_INVALID_PARAMETER);
        if (injected) return fail(code, in, inSize, *injected);
        const BYTE *p = static_cast<const BYTE *>(in);
        std::lock_guard<std::mutex> lock(m_mutex);
        if (code == kIoctlImageUpgrade) {
            ImageRequest r;
            std::memcpy(r.bytes.data(), p, kImageRequestSize);
            r.upgradeType = readDword(p);
            r.upgradeVia = readDword(p + 4);
            r.upgradeFormat = readDword(p + 8);
            m_imageRequests.push_back(r);
        } else if (code == kIoctlSerialNumber) {
            std::u16string serial;
            for (DWORD i = 0; i + 1 < kSerialNumberSize; i += 2) {
                char16_t c = char16_t(p[i] | p[i + 1] << 8);
                if (!c) break;
                serial.push_back(c);
            }
            m_serialNumbers.push_back(serial);
        } else {
            ++m_hiddenFormats;
        }
        if (returned) *returned = 0;
        return succeed(code, in, inSize);
    }

    // The queries.
    switch (code) {
    case kIoctlKernelVersion:
    case kIoctlBootloaderVersion:
    case kIoctlHardwareRecord:
    case IOCTL_HAL_READ_HW_VERSION:
        break;
    default:
        return fail(code, in, inSize, ERROR_NOT_SUPPORTED);
    }
    if (injected) return fail(code, in, inSize, *injected);

    DWORD written = 0;
    if (code == kIoctlKernelVersion) {
        if (!answers.version) return fail(code, in, inSize, ERROR_NOT_SUPPORTED);
        if (outSize < 2) return fail(code, in, inSize, ERROR_INSUFFICIENT_BUFFER);
        written = putWide(*answers.version, out, outSize);
    } else if (code == kIoctlBootloaderVersion) {
        if (!answers.bootloaderVersion) return fail(code, in, inSize, ERROR_NOT_SUPPORTED);
        if (outSize < 1) return fail(code, in, inSize, ERROR_INSUFFICIENT_BUFFER);
        const std::string &text = *answers.bootloaderVersion;
        DWORD n = DWORD(std::min<size_t>(text.size(), outSize - 1));
        std::memcpy(out, text.data(), n);
        static_cast<BYTE *>(out)[n] = 0;
        written = n + 1;
    } else if (code == kIoctlHardwareRecord) {
        if (!answers.hardwareType && !answers.regionVersion) return fail(code, in, inSize, ERROR_NOT_SUPPORTED);
        if (outSize == 0) return fail(code, in, inSize, ERROR_INSUFFICIENT_BUFFER);
        // The record: the hardware type text leads (it never reaches the region word), the region
        // version is the word at byte 452, the rest is zero.
        BYTE record[kHardwareRecordSize] = {};
        if (answers.hardwareType) putWide(*answers.hardwareType, record, kRegionVersionOffset);
        writeDword(record + kRegionVersionOffset, answers.regionVersion.value_or(0));
        written = std::min(outSize, kHardwareRecordSize);
        std::memcpy(out, record, written);
    } else {   // IOCTL_HAL_READ_HW_VERSION
        if (!answers.hardwareVersion) return fail(code, in, inSize, ERROR_NOT_SUPPORTED);
        if (outSize < 4) return fail(code, in, inSize, ERROR_INSUFFICIENT_BUFFER);
        writeDword(static_cast<BYTE *>(out), *answers.hardwareVersion);
        written = 4;
    }
    if (returned) *returned = written;
    return succeed(code, in, inSize);
}

bool Kernel::storeInformation(STORE_INFORMATION *out) {
    if (m_dev.injected("GetStoreInformation")) return false;
    if (!out) {
        setLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    out->dwStoreSize = m_memory.storeSize;
    out->dwFreeSize = m_memory.storeFree;
    return true;
}

void Kernel::memoryStatus(MEMORYSTATUS *out) const {
    if (!out) return;
    std::memset(out, 0, sizeof *out);
    out->dwLength = sizeof *out;
    out->dwMemoryLoad = m_memory.memoryLoad;
    out->dwTotalPhys = m_memory.totalPhys;
    out->dwTotalVirtual = m_memory.totalVirtual;
    // What the heaps hold is no longer available (the profile's figures are those of empty heaps).
    const uint64_t held = m_dev.heaps().held();
    auto less = [held](DWORD avail) { return DWORD(avail > held ? avail - held : 0); };
    out->dwAvailPhys = less(m_memory.availPhys);
    out->dwAvailVirtual = less(m_memory.availVirtual);
}

void *Kernel::localAlloc(UINT flags, SIZE_T bytes) {
    std::optional<DWORD> error = m_dev.failure("LocalAlloc");
    if (!error && m_memory.largestAllocation && bytes > m_memory.largestAllocation) error = ERROR_NOT_ENOUGH_MEMORY;
    void *block = error ? nullptr : std::malloc(bytes ? bytes : 1);
    if (!block) {
        setLastError(error ? *error : DWORD(ERROR_NOT_ENOUGH_MEMORY));
        return nullptr;
    }
    if (flags & LMEM_ZEROINIT) std::memset(block, 0, bytes);
    return block;
}

std::vector<Kernel::ImageRequest> Kernel::acceptedImageRequests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_imageRequests;
}

std::vector<std::u16string> Kernel::acceptedSerialNumbers() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_serialNumbers;
}

int Kernel::acceptedHiddenFormats() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_hiddenFormats;
}

Kernel::Answers Kernel::answers() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_answers;
}

void Kernel::setAnswers(const Answers &a) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_answers = a;
}

void Kernel::setFailure(DWORD code, std::optional<DWORD> error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (error) m_failures[code] = *error;
    else m_failures.erase(code);
}

std::shared_ptr<Kernel> makeKernel(Device &dev, const toml::table &profile) {
    return std::make_shared<Kernel>(dev, profile);
}

}  // namespace sim

// ---------------------------------------------------------------- the CE API

BOOL KernelIoControl(DWORD dwIoControlCode, LPVOID lpInBuf, DWORD nInBufSize, LPVOID lpOutBuf, DWORD nOutBufSize,
                     LPDWORD lpBytesReturned) {
    return sim::dev().kernel().ioControl(dwIoControlCode, lpInBuf, nInBufSize, lpOutBuf, nOutBufSize,
                                         lpBytesReturned);
}

BOOL GetStoreInformation(LPSTORE_INFORMATION lpsi) {
    return sim::dev().kernel().storeInformation(lpsi) ? TRUE : FALSE;
}

void WINAPI GlobalMemoryStatus(LPMEMORYSTATUS lpBuffer) { sim::dev().kernel().memoryStatus(lpBuffer); }

HLOCAL WINAPI LocalAlloc(UINT uFlags, SIZE_T uBytes) { return sim::dev().kernel().localAlloc(uFlags, uBytes); }

HLOCAL WINAPI LocalFree(HLOCAL hMem) {
    std::free(hMem);
    return nullptr;
}

// Answered at once with IDOK: there is nobody to press the button. The box is journaled and echoed
// on one line to stderr.
int WINAPI MessageBoxW(HWND, LPCWSTR lpText, LPCWSTR lpCaption, UINT) {
    sim::Device &d = sim::dev();
    std::string text = sim::utf8(lpText);
    std::string caption = sim::utf8(lpCaption);
    d.journal().write("message_box", {{"text", text}, {"caption", caption}});
    std::string line = caption + ": " + text;
    for (char &c : line)
        if (c == '\r' || c == '\n') c = ' ';
    if (line.size() > 160) {
        size_t cut = 157;
        while (cut > 0 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80) --cut;   // whole characters
        line = line.substr(0, cut) + "...";
    }
    std::fprintf(stderr, "message box: %s\n", line.c_str());
    return IDOK;
}
