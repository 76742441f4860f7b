// The kernel side of the simulated device: KernelIoControl, store information, memory status and
// message boxes.
//
// Profile:
//   [kernel]
//   version = 'V3.10 HW1'        wide text answered to 0x8000208C (absent: the query fails)
//   bootloader_version = 'UB2'   8-bit text answered to 0x80002090 (absent: the query fails)
//   hardware_type = 'X7'         leading wide text of the 804-byte hardware record (0x80002E90)
//   region_version = 4           32-bit word at byte 452 of that record
//   hardware_version = 3         answer to IOCTL_HAL_READ_HW_VERSION (absent: the query fails)
//   [kernel.fail]                control codes that fail, and the error each sets
//   '0x80002E78' = 31            ([fail] KernelIoControl fails calls by number, whatever the code)
//   [memory]                     store_size, store_free, total_phys, avail_phys, total_virtual,
//                                avail_virtual, memory_load (defaults: a 64 MB device)
//                                largest_allocation (bytes; LocalAlloc and HeapAlloc refuse anything larger)
//   [fail] GetStoreInformation = 5
//
// A query whose answer is not in the profile fails with ERROR_NOT_SUPPORTED, as an unknown code
// does. The hardware record fails only when neither hardware_type nor region_version is given.
// Text answers are cut to the output size with their terminator; too small an output fails with
// ERROR_INSUFFICIENT_BUFFER. The hardware record's input is not checked. A request with the wrong
// input size fails with ERROR_INVALID_PARAMETER before any injected failure. Every call is
// journaled as "ioctl" {code, input, ok, error}.
#pragma once
#include "device.h"

#include <array>
#include <optional>
#include <vector>

namespace sim {

// The device's own control codes.
constexpr DWORD kIoctlKernelVersion = 0x8000208C;
constexpr DWORD kIoctlBootloaderVersion = 0x80002090;
constexpr DWORD kIoctlHardwareRecord = 0x80002E90;
constexpr DWORD kIoctlImageUpgrade = 0x80002E78;
constexpr DWORD kIoctlSerialNumber = 0x80002098;
constexpr DWORD kIoctlHiddenFormat = 0x80002EB4;

constexpr DWORD kImageRequestSize = 24;
constexpr DWORD kSerialNumberSize = 40;
constexpr DWORD kHiddenFormatSize = 4096;
constexpr DWORD kHardwareRecordSize = 804;
constexpr DWORD kRegionVersionOffset = 452;

class Kernel {
public:
    Kernel(Device &dev, const toml::table &profile);

    // What the profile answers; tests may change it after the device is made.
    struct Answers {
        std::optional<std::u16string> version;            // 0x8000208C
        std::optional<std::string> bootloaderVersion;     // 0x80002090
        std::optional<std::u16string> hardwareType;       // 0x80002E90, leading text
        std::optional<DWORD> regionVersion;               // 0x80002E90, word at 452
        std::optional<DWORD> hardwareVersion;             // IOCTL_HAL_READ_HW_VERSION
    };
    struct Memory {
        DWORD storeSize, storeFree;
        DWORD totalPhys, availPhys;
        DWORD totalVirtual, availVirtual;
        DWORD memoryLoad;
        DWORD largestAllocation;   // 0: no limit
    };
    // An image request the kernel accepted: the record as sent and its three fields.
    struct ImageRequest {
        std::array<BYTE, kImageRequestSize> bytes;
        DWORD upgradeType, upgradeVia, upgradeFormat;
    };

    // KernelIoControl; journals "ioctl" and sets the last error on failure.
    BOOL ioControl(DWORD code, const void *in, DWORD inSize, void *out, DWORD outSize, DWORD *returned);
    bool storeInformation(STORE_INFORMATION *out);       // GetStoreInformation
    void memoryStatus(MEMORYSTATUS *out) const;           // GlobalMemoryStatus
    void *localAlloc(UINT flags, SIZE_T bytes);           // LocalAlloc

    // What the kernel accepted, in order.
    std::vector<ImageRequest> acceptedImageRequests() const;
    std::vector<std::u16string> acceptedSerialNumbers() const;   // the text up to its terminator
    int acceptedHiddenFormats() const;

    Answers answers() const;
    void setAnswers(const Answers &a);
    const Memory &memory() const { return m_memory; }
    // Failure injection by control code (nullopt clears it).
    void setFailure(DWORD code, std::optional<DWORD> error);

private:
    BOOL fail(DWORD code, const void *in, DWORD inSize, DWORD error);
    BOOL succeed(DWORD code, const void *in, DWORD inSize);

    Device &m_dev;
    mutable std::mutex m_mutex;
    Answers m_answers;
    Memory m_memory;
    std::map<DWORD, DWORD> m_failures;
    std::vector<ImageRequest> m_imageRequests;
    std::vector<std::u16string> m_serialNumbers;
    int m_hiddenFormats = 0;
};

}  // namespace sim
