// The device manager of the simulated device: ActivateDevice/DeactivateDevice of the flash-disk
// driver, CreateFileW on its device name and DeviceIoControl on the handle (disk information and
// sector writes on a sector image).
#include "devices.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace sim {

namespace {

constexpr DWORD kErrorDeviceInUse = 2404;   // ERROR_DEVICE_IN_USE: the driver is already active
constexpr DWORD kMaxSectorSize = 0x10000;
constexpr uint64_t kMaxDiskBytes = uint64_t(1) << 32;   // the image is a host file; keep it sane
const std::u16string kHdd = u"\\HDD";                    // where the disk is mounted

bool boolKey(const toml::table &t, const char *key, bool def) {
    const toml::node *n = t.get(key);
    if (!n) return def;
    if (auto b = n->value<bool>(); b && n->is_boolean()) return *b;
    badProfile(std::string("flash_disk.") + key, "must be true or false");
}

DWORD dwordKey(const toml::table &t, const std::string &key, DWORD def, const std::string &where) {
    const toml::node *n = t.get(key);
    if (!n) return def;
    auto v = n->value<int64_t>();
    if (!n->is_integer() || !v || *v < 0 || *v > int64_t(0xFFFFFFFFu))
        badProfile(where + "." + key, "must be a number of 32 unsigned bits");
    return DWORD(*v);
}

std::u16string upper(const std::u16string &s) {
    std::u16string out(s);
    for (char16_t &c : out)
        if (c >= u'a' && c <= u'z') c = char16_t(c - u'a' + u'A');
    return out;
}

// A handle opened on the flash disk's device name; it works while the activation it was opened
// under lasts.
struct DiskHandle : Object {
    unsigned instance;
    std::string name;
    DiskHandle(unsigned i, std::string n) : instance(i), name(std::move(n)) {}
    const char *type() const override { return "device"; }
};

}  // namespace

Devices::Devices(Device &dev, const toml::table &profile)
    : m_dev(dev), m_runDir(dev.runDir()) {
    const toml::node *node = profile.get("flash_disk");
    if (!node) return;
    const toml::table *t = node->as_table();
    if (!t) badProfile("flash_disk", "must be a table");
    m_disk.present = true;
    m_disk.loaded = boolKey(*t, "loaded", true);
    if (const toml::node *n = t->get("name")) {
        auto s = n->value<std::string>();
        if (!s || s->empty() || s->back() != ':') badProfile("flash_disk.name", "must be a device name such as 'DSK1:'");
        m_disk.name = fromUtf8(*s);
    }
    m_disk.sectors = dwordKey(*t, "sectors", m_disk.sectors, "flash_disk");
    m_disk.bytesPerSector = dwordKey(*t, "bytes_per_sector", m_disk.bytesPerSector, "flash_disk");
    if (!m_disk.sectors) badProfile("flash_disk.sectors", "must not be 0");
    if (!m_disk.bytesPerSector || m_disk.bytesPerSector > kMaxSectorSize)
        badProfile("flash_disk.bytes_per_sector", "must be 1 to 65536");
    if (uint64_t(m_disk.sectors) * m_disk.bytesPerSector > kMaxDiskBytes)
        badProfile("flash_disk.sectors", "the disk must not exceed 4 GB");
    m_disk.hddNeverLeaves = boolKey(*t, "hdd_never_leaves", false);
    m_disk.hddNeverReturns = boolKey(*t, "hdd_never_returns", false);
    m_disk.hddDelayMs = dwordKey(*t, "hdd_delay_ms", 0, "flash_disk");
    if (const toml::node *f = t->get("fail")) {
        const toml::table *fails = f->as_table();
        if (!fails) badProfile("flash_disk.fail", "must be a table");
        for (auto &&[key, value] : *fails) {
            std::string op(key.str());
            if (op != "getinfo" && op != "write" && op != "activate" && op != "deactivate")
                badProfile("flash_disk.fail." + op, "known failures are getinfo, write, activate, deactivate");
            m_disk.failures[op] = dwordKey(*fails, op, 0, "flash_disk.fail");
        }
    }

    // The state at start: a loaded driver has its Active entry and its mounted disk; an unloaded
    // one has neither.
    std::lock_guard<std::mutex> hold(m_hddMutex);
    if (m_disk.loaded) {
        std::lock_guard<std::mutex> lock(m_mutex);
        DWORD handle = m_nextHandle;
        m_nextHandle += 0x100;
        if (createActiveKey(handle)) {
            m_active = true;
            m_handle = handle;
            ++m_instance;
        }
        applyHdd(true);
    } else {
        applyHdd(false);
    }
}

Devices::~Devices() = default;

std::optional<DWORD> Devices::failure(const std::string &op) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_disk.failures.find(op);
    if (it == m_disk.failures.end()) return std::nullopt;
    return it->second;
}

void Devices::setFailure(const std::string &op, std::optional<DWORD> error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (error) m_disk.failures[op] = *error;
    else m_disk.failures.erase(op);
}

bool Devices::active() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_active;
}

DWORD Devices::activeHandle() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_active ? m_handle : 0;
}

std::string Devices::activeKeyPath() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_active ? m_activeKey : std::string();
}

fs::path Devices::imageFile() const { return m_runDir / "flashdisk.img"; }
fs::path Devices::parkedFolder() const { return m_runDir / "flashdisk-hdd"; }

// HKLM\Drivers\Active\NN with the first free two-digit number from 01, made with its values in one
// step so an enumeration never sees it half made.
bool Devices::createActiveKey(DWORD handle) {
    Registry &reg = m_dev.registry();
    std::lock_guard<std::mutex> lock(reg.mutex());
    Registry::Key *parent = reg.pathLocked(kActiveDriversKey, true);
    if (!parent) return false;
    for (int n = 1; n <= 99; ++n) {
        char nn[8];
        std::snprintf(nn, sizeof nn, "%02d", n);
        if (parent->find(nn)) continue;
        Registry::Key *key = reg.openLocked(parent, fromUtf8(nn), true);
        if (!key) return false;
        key->put("Key", REG_SZ, Registry::stringBytes(fromUtf8(kFlashDiskDriverKey)));
        key->put("Name", REG_SZ, Registry::stringBytes(m_disk.name));
        std::vector<BYTE> hnd(4);
        std::memcpy(hnd.data(), &handle, 4);
        key->put("Hnd", REG_DWORD, hnd);
        m_activeKey = std::string(kActiveDriversKey) + "\\" + nn;
        return true;
    }
    return false;
}

HANDLE Devices::activate(const std::u16string &key) {
    nlohmann::json fields = {{"key", utf8(key)}};
    auto finish = [&](DWORD handle, DWORD error) -> HANDLE {
        fields["ok"] = handle != 0;
        fields["error"] = error;
        if (handle) fields["handle"] = hexCode(handle);
        m_dev.journal().write("activate_device", fields);
        if (!handle) setLastError(error);
        return reinterpret_cast<HANDLE>(uintptr_t(handle));
    };
    if (!m_disk.present || upper(key) != upper(fromUtf8(kFlashDiskDriverKey))) return finish(0, ERROR_FILE_NOT_FOUND);
    if (auto e = failure("activate")) return finish(0, *e);
    DWORD handle;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_active) return finish(0, kErrorDeviceInUse);
        handle = m_nextHandle;
        if (!createActiveKey(handle)) return finish(0, ERROR_GEN_FAILURE);
        m_nextHandle += 0x100;
        m_active = true;
        m_handle = handle;
        ++m_instance;
    }
    if (!m_disk.hddNeverReturns) scheduleHdd(true);
    return finish(handle, 0);
}

bool Devices::deactivate(HANDLE h) {
    DWORD value = DWORD(reinterpret_cast<uintptr_t>(h));
    nlohmann::json fields = {{"handle", hexCode(value)}};
    auto finish = [&](DWORD error) {
        fields["ok"] = error == 0;
        fields["error"] = error;
        m_dev.journal().write("deactivate_device", fields);
        if (error) setLastError(error);
        return error == 0;
    };
    std::string keyPath;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_active || !value || value != m_handle) return finish(ERROR_INVALID_HANDLE);
        auto it = m_disk.failures.find("deactivate");
        if (it != m_disk.failures.end()) return finish(it->second);
        m_active = false;
        keyPath = m_activeKey;
        m_activeKey.clear();
    }
    m_dev.registry().remove(keyPath);
    if (!m_disk.hddNeverLeaves) scheduleHdd(false);
    return finish(0);
}

bool Devices::open(const std::u16string &name, DWORD, HANDLE *out) {
    std::u16string n = name;
    while (!n.empty() && (n[0] == u'\\' || n[0] == u'/')) n.erase(0, 1);
    unsigned instance;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_disk.present || !m_active || upper(n) != upper(m_disk.name)) return false;
        instance = m_instance;
    }
    // The block driver does not check the open access: a handle opened for reading may write.
    HANDLE h = m_dev.objects().add(std::make_shared<DiskHandle>(instance, utf8(m_disk.name)));
    if (out) *out = h;
    return true;
}

bool Devices::ensureImage(std::string &why) {
    fs::path file = imageFile();
    uint64_t size = uint64_t(m_disk.sectors) * m_disk.bytesPerSector;
    std::error_code ec;
    uint64_t have = fs::exists(file, ec) ? fs::file_size(file, ec) : 0;
    if (ec) have = 0;
    if (have >= size) return true;
    // Made (or grown) with erased flash: 0xFF.
    fs::create_directories(file.parent_path(), ec);
    std::ofstream f(file, std::ios::binary | std::ios::app);
    if (!f) {
        why = "cannot create " + file.string();
        return false;
    }
    std::vector<char> erased(64 * 1024, char(0xFF));
    while (have < size) {
        size_t n = size_t(std::min<uint64_t>(erased.size(), size - have));
        f.write(erased.data(), std::streamsize(n));
        if (!f) {
            why = "cannot write " + file.string();
            return false;
        }
        have += n;
    }
    return true;
}

BOOL Devices::ioControl(HANDLE h, DWORD code, void *in, DWORD inSize, void *out, DWORD outSize, DWORD *returned) {
    auto disk = m_dev.objects().getAs<DiskHandle>(h);
    nlohmann::json fields = {{"device", disk ? disk->name : std::string()}, {"code", hexCode(code)}};
    auto finish = [&](DWORD error) -> BOOL {
        fields["ok"] = error == 0;
        fields["error"] = error;
        m_dev.journal().write("disk_ioctl", fields);
        if (error) setLastError(error);
        return error == 0 ? TRUE : FALSE;
    };
    if (!disk) return finish(m_dev.objects().get(h) ? ERROR_NOT_SUPPORTED : ERROR_INVALID_HANDLE);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_active || disk->instance != m_instance) return finish(ERROR_INVALID_HANDLE);   // driver gone
    }
    if (returned) *returned = 0;

    if (code == DISK_IOCTL_GETINFO) {
        if (auto e = failure("getinfo")) return finish(*e);
        if (!out || outSize < sizeof(DISK_INFO)) return finish(ERROR_INVALID_PARAMETER);
        DISK_INFO info;
        info.di_total_sectors = m_disk.sectors;
        info.di_bytes_per_sect = m_disk.bytesPerSector;
        info.di_cylinders = 1;
        info.di_heads = 1;
        info.di_sectors = m_disk.sectors;
        info.di_flags = 0;
        std::memcpy(out, &info, sizeof info);
        if (returned) *returned = sizeof info;
        return finish(0);
    }

    if (code == DISK_IOCTL_WRITE) {
        // The request is the host's SG_REQ (wider than the device's 28 bytes: pointers are 64 bits
        // here), followed by sr_num_sg - 1 further buffer entries when it has more than one.
        const size_t head = offsetof(SG_REQ, sr_sglist);
        if (!in || inSize < sizeof(SG_REQ)) return finish(ERROR_INVALID_PARAMETER);
        SG_REQ *req = static_cast<SG_REQ *>(in);
        auto reject = [&](DWORD error) {
            req->sr_status = error;
            return finish(error);
        };
        if (auto e = failure("write")) return reject(*e);
        if (req->sr_num_sg == 0 || head + uint64_t(req->sr_num_sg) * sizeof(SG_BUF) > inSize)
            return reject(ERROR_INVALID_PARAMETER);
        if (req->sr_num_sec == 0 || uint64_t(req->sr_start) + req->sr_num_sec > m_disk.sectors)
            return reject(ERROR_INVALID_PARAMETER);
        fields["sector"] = req->sr_start;
        fields["sectors"] = req->sr_num_sec;
        uint64_t need = uint64_t(req->sr_num_sec) * m_disk.bytesPerSector;
        std::vector<char> data;
        data.reserve(size_t(need));
        for (DWORD i = 0; i < req->sr_num_sg && data.size() < need; ++i) {
            const SG_BUF &b = req->sr_sglist[i];
            if (!b.sb_buf && b.sb_len) return reject(ERROR_INVALID_PARAMETER);
            size_t take = size_t(std::min<uint64_t>(b.sb_len, need - data.size()));
            data.insert(data.end(), reinterpret_cast<const char *>(b.sb_buf),
                        reinterpret_cast<const char *>(b.sb_buf) + take);
        }
        if (data.size() < need) return reject(ERROR_INVALID_PARAMETER);
        std::string why;
        if (!ensureImage(why)) {
            std::fprintf(stderr, "sim: flash disk: %s\n", why.c_str());
            return reject(ERROR_GEN_FAILURE);
        }
        std::fstream f(imageFile(), std::ios::binary | std::ios::in | std::ios::out);
        f.seekp(std::streamoff(uint64_t(req->sr_start) * m_disk.bytesPerSector));
        f.write(data.data(), std::streamsize(data.size()));
        f.flush();
        if (!f) return reject(ERROR_GEN_FAILURE);
        req->sr_status = ERROR_SUCCESS;
        return finish(0);
    }

    return finish(ERROR_NOT_SUPPORTED);
}

// ---- "\HDD": mounted while the driver is active ----

// A change of "\HDD" after the disk's delay, as a clock event; a later change replaces one still
// pending (the event of the replaced one finds another generation and does nothing).
void Devices::scheduleHdd(bool present) {
    unsigned generation;
    {
        std::lock_guard<std::mutex> lock(m_hddMutex);
        if (m_disk.hddDelayMs == 0) {
            m_pending.reset();
            applyHdd(present);
            return;
        }
        generation = ++m_hddGeneration;
        m_pending = HddChange{present, generation};
    }
    m_dev.clock().at(m_dev.clock().now() + m_disk.hddDelayMs, [this, generation] {
        std::lock_guard<std::mutex> lock(m_hddMutex);
        if (!m_pending || m_pending->generation != generation) return;
        bool change = m_pending->present;
        m_pending.reset();
        applyHdd(change);
    });
}

bool Devices::hddChangePending() const {
    std::lock_guard<std::mutex> lock(m_hddMutex);
    return m_pending.has_value();
}

// Mounting brings the kept content back (or an empty folder); unmounting moves it aside.
void Devices::applyHdd(bool present) {
    FileSystem &files = m_dev.files();
    const bool mounted = files.exists(kHdd);
    if (present) {
        if (!mounted && !files.unpark(kHdd, parkedFolder())) files.makeFolders(kHdd);
    } else if (mounted) {
        files.park(kHdd, parkedFolder());
    }
}

std::shared_ptr<Devices> makeDevices(Device &dev, const toml::table &profile) {
    return std::make_shared<Devices>(dev, profile);
}

bool openDeviceName(const std::u16string &name, DWORD access, HANDLE *out) {
    return dev().devices().open(name, access, out);
}

}  // namespace sim

// ---------------------------------------------------------------- the CE API

HANDLE ActivateDevice(LPCWSTR lpszDevKey, DWORD) {
    sim::Device &d = sim::dev();
    if (!lpszDevKey) {
        d.journal().write("activate_device", {{"key", ""}, {"ok", false}, {"error", ERROR_INVALID_PARAMETER}});
        sim::setLastError(ERROR_INVALID_PARAMETER);
        return NULL;
    }
    return d.devices().activate(sim::wide(lpszDevKey));
}

BOOL DeactivateDevice(HANDLE hDevice) { return sim::dev().devices().deactivate(hDevice) ? TRUE : FALSE; }

BOOL WINAPI DeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer, DWORD nInBufferSize,
                            LPVOID lpOutBuffer, DWORD nOutBufferSize, LPDWORD lpBytesReturned, LPOVERLAPPED) {
    return sim::dev().devices().ioControl(hDevice, dwIoControlCode, lpInBuffer, nInBufferSize, lpOutBuffer,
                                          nOutBufferSize, lpBytesReturned);
}
