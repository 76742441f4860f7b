// The device manager of the simulated device: the flash-disk driver and its disk.
//
// Profile (the device has a flash disk only when the table exists):
//   [flash_disk]
//   loaded = true              the driver is active at start (default true)
//   name = 'DSK1:'             its device name
//   sectors = 2048             total sectors
//   bytes_per_sector = 512
//   hdd_never_leaves = false   "\HDD" stays after DeactivateDevice
//   hdd_never_returns = false  "\HDD" does not come back after ActivateDevice
//   hdd_delay_ms = 0           device milliseconds before "\HDD" goes or comes
//   [flash_disk.fail]          getinfo, write, activate, deactivate = the error each fails with
//
// While the driver is active, HKLM\Drivers\Active\NN names it (Key, Name, Hnd) and the disk is
// mounted at "\HDD" (the host folder fs/HDD). While it is not, the folder's content is kept aside
// in DEVICE/run/flashdisk-hdd, so nothing on the disk is lost by a deactivation. A delayed change of
// "\HDD" is a clock event; a later change replaces one still pending. The sectors live in DEVICE/run/flashdisk.img, made at the disk's full
// size filled with 0xFF on the first write and kept from run to run as a disk would be. The state
// at start (loaded or not) holds at once, without the delay.
//
// Errors: an unknown driver key 2 (ERROR_FILE_NOT_FOUND), a second activation 2404
// (ERROR_DEVICE_IN_USE), a handle that is not the active driver's 6; on a disk handle, a handle of an
// earlier activation 6, a short output or a bad request 87, another control code 50. The write
// request is the host's SG_REQ (40 bytes here, pointers being 64 bits; the device's 28-byte form is
// refused), its sr_status set to the result; the callback is not called. Like the block driver, the
// handle's open access is not checked.
//
// Journal: activate_device {key, ok, error, handle}, deactivate_device {handle, ok, error},
// disk_ioctl {device, code, ok, error, and sector and sectors for a write that got that far}.
#pragma once
#include "device.h"

#include <condition_variable>
#include <thread>

namespace sim {

constexpr const char *kFlashDiskDriverKey = "Drivers\\BuiltIn\\FDSK";
constexpr const char *kActiveDriversKey = "HKLM\\Drivers\\Active";

class Devices {
public:
    Devices(Device &dev, const toml::table &profile);
    ~Devices();
    Devices(const Devices &) = delete;
    Devices &operator=(const Devices &) = delete;

    struct FlashDisk {
        bool present = false;             // the profile has a [flash_disk] table
        bool loaded = true;
        std::u16string name = u"DSK1:";
        DWORD sectors = 2048;
        DWORD bytesPerSector = 512;
        bool hddNeverLeaves = false;
        bool hddNeverReturns = false;
        DWORD hddDelayMs = 0;
        std::map<std::string, DWORD> failures;   // "getinfo", "write", "activate", "deactivate"
    };

    // The CE calls (each journaled, each sets the last error on failure).
    HANDLE activate(const std::u16string &key);
    bool deactivate(HANDLE h);
    // CreateFileW on a device name: see openDeviceName in device.h.
    bool open(const std::u16string &name, DWORD access, HANDLE *out);
    BOOL ioControl(HANDLE h, DWORD code, void *in, DWORD inSize, void *out, DWORD outSize, DWORD *returned);

    // State, for tests and the runner.
    const FlashDisk &flashDisk() const { return m_disk; }
    bool active() const;
    DWORD activeHandle() const;           // 0 when not active
    std::string activeKeyPath() const;    // "HKLM\Drivers\Active\01", empty when not active
    bool hddChangePending() const;
    fs::path imageFile() const;
    fs::path parkedFolder() const;
    void setFailure(const std::string &op, std::optional<DWORD> error);

private:
    std::optional<DWORD> failure(const std::string &op) const;
    bool createActiveKey(DWORD handle);   // with m_mutex held
    void scheduleHdd(bool present);
    void applyHdd(bool present);          // with m_hddMutex held
    bool ensureImage(std::string &why);

    Device &m_dev;
    FlashDisk m_disk;
    fs::path m_runDir;    // DEVICE/run

    mutable std::mutex m_mutex;
    bool m_active = false;
    DWORD m_handle = 0;
    std::string m_activeKey;
    unsigned m_instance = 0;             // counts activations; an open handle belongs to one
    DWORD m_nextHandle = 0x0DE00001;     // odd, so never a handle of the handle table

    mutable std::mutex m_hddMutex;
    struct HddChange { bool present; unsigned generation; };
    std::optional<HddChange> m_pending;
    unsigned m_hddGeneration = 0;
};

}  // namespace sim
