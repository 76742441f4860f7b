// Power status and notifications, point-to-point message queues and device (card) notifications
// of the simulated device. Everything a waiter looks at (queues, requests, the status, the mounted
// volumes) is guarded by the clock's mutex.
#include "power.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace sim {

const GUID kFatMountClass = {0x169E1941, 0x04CE, 0x4690, {0x97, 0xAC, 0x77, 0x61, 0x87, 0xEB, 0x67, 0xCC}};

namespace {

constexpr BYTE kBatteryHigh = 0x01, kBatteryLow = 0x02, kBatteryCritical = 0x04, kBatteryCharging = 0x08;
constexpr BYTE kBatteryUnknown = 0xFF;
constexpr DWORD kLifeUnknown = 0xFFFFFFFF;
constexpr BYTE kChemistryLithiumIon = 0x04;
constexpr DWORD kFullLifeSeconds = 5 * 3600;   // a full battery lasts five hours
constexpr size_t kBroadcastHeader = offsetof(POWER_BROADCAST, SystemPowerState);
constexpr DWORD kPowerInfoSize = 24;            // POWER_BROADCAST_POWER_INFO: 4 DWORDs, 5 BYTEs, padded
constexpr size_t kDetailHeader = offsetof(DEVDETAIL, szName);

bool sameGuid(const GUID &a, const GUID &b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

bool sameName(const std::u16string &a, const std::u16string &b) { return lower(utf8(a)) == lower(utf8(b)); }

void checkKeys(const toml::table &t, std::initializer_list<const char *> known, const std::string &where) {
    for (auto &&[key, value] : t) {
        (void)value;
        bool ok = false;
        for (const char *k : known) ok = ok || key.str() == k;
        if (!ok) badProfile(where + "." + std::string(key.str()), "unknown key");
    }
}

const toml::table *tableKey(const toml::table &t, const char *key, const std::string &where) {
    const toml::node *n = t.get(key);
    if (!n) return nullptr;
    if (!n->is_table()) badProfile(where, "must be a table");
    return n->as_table();
}

// An array of tables ([[x.events]]), each checked by the caller.
std::vector<const toml::table *> eventTables(const toml::table &t, const std::string &where) {
    std::vector<const toml::table *> out;
    const toml::node *n = t.get("events");
    if (!n) return out;
    const toml::array *a = n->as_array();
    if (!a) badProfile(where, "must be an array of tables ([[...]])");
    for (const toml::node &e : *a) {
        if (!e.is_table()) badProfile(where, "must be an array of tables ([[...]])");
        out.push_back(e.as_table());
    }
    return out;
}

std::optional<int64_t> intKey(const toml::table &t, const char *key, int64_t lo, int64_t hi, const std::string &where) {
    const toml::node *n = t.get(key);
    if (!n) return std::nullopt;
    if (!n->is_integer()) badProfile(where + "." + key, "must be a number");
    int64_t v = *n->value<int64_t>();
    if (v < lo || v > hi)
        badProfile(where + "." + key, hi == INT64_MAX ? "must not be negative"
                                                      : "must be " + std::to_string(lo) + " to " + std::to_string(hi));
    return v;
}

std::optional<std::string> textKey(const toml::table &t, const char *key, const std::string &where) {
    const toml::node *n = t.get(key);
    if (!n) return std::nullopt;
    if (!n->is_string()) badProfile(where + "." + key, "must be a text");
    return *n->value<std::string>();
}

std::optional<bool> boolKey(const toml::table &t, const char *key, const std::string &where) {
    const toml::node *n = t.get(key);
    if (!n) return std::nullopt;
    if (!n->is_boolean()) badProfile(where + "." + key, "must be true or false");
    return *n->value<bool>();
}

std::u16string volumeName(const toml::table &t, const std::string &where, const std::u16string &def) {
    auto text = textKey(t, "name", where);
    if (!text) return def;
    std::u16string name = fromUtf8(*text);
    if (name.empty() || name.size() >= MAX_PATH) badProfile(where + ".name", "must be 1 to 259 characters");
    return name;
}

void put32(std::vector<BYTE> &out, size_t at, DWORD v) {
    for (int i = 0; i < 4; ++i) out[at + i] = BYTE(v >> (8 * i));
}

BYTE batteryFlag(const Power::Status &s) {
    if (s.percent == BATTERY_PERCENTAGE_UNKNOWN) return kBatteryUnknown;
    BYTE flag = s.percent > 66 ? kBatteryHigh : s.percent < 33 ? kBatteryLow : 0;
    if (s.percent < 5) flag |= kBatteryCritical;
    if (s.acLine == AC_LINE_ONLINE && s.percent < 100) flag |= kBatteryCharging;
    return flag;
}

DWORD lifeTime(const Power::Status &s) {
    if (s.percent == BATTERY_PERCENTAGE_UNKNOWN || s.acLine != AC_LINE_OFFLINE) return kLifeUnknown;
    return kFullLifeSeconds / 100 * std::min<DWORD>(s.percent, 100);
}

DWORD fullLifeTime(const Power::Status &s) {
    return s.percent == BATTERY_PERCENTAGE_UNKNOWN ? kLifeUnknown : kFullLifeSeconds;
}

}  // namespace

// ---------------------------------------------------------------- queue handles

MsgQueueHandle::MsgQueueHandle(Clock &c, std::shared_ptr<MsgQueueCore> q, bool r)
    : clock(c), core(std::move(q)), read(r) {}

MsgQueueHandle::~MsgQueueHandle() {
    std::lock_guard<std::mutex> lock(clock.mutex());
    --(read ? core->readers : core->writers);
    clock.notifyLocked();   // a reader or writer blocked on a broken queue gives up
}

// ---------------------------------------------------------------- the part

Power::Power(Device &dev, const toml::table &profile) : m_dev(dev), m_cardName(u"Storage Card") {
    if (const toml::table *p = tableKey(profile, "power", "power")) {
        checkKeys(*p, {"ac_line", "battery_percent", "events"}, "power");
        if (auto v = intKey(*p, "ac_line", 0, 255, "power")) m_status.acLine = BYTE(*v);
        if (auto v = intKey(*p, "battery_percent", 0, 255, "power")) m_status.percent = BYTE(*v);
        for (const toml::table *e : eventTables(*p, "power.events")) {
            const std::string where = "power.events";
            checkKeys(*e, {"at_ms", "type", "ac_line", "battery_percent"}, where);
            PowerEvent ev;
            auto at = intKey(*e, "at_ms", 0, INT64_MAX, where);
            auto type = textKey(*e, "type", where);
            if (!at) badProfile(where + ".at_ms", "is required");
            if (!type) badProfile(where + ".type", "is required");
            ev.atMs = uint64_t(*at);
            if (*type == "status") ev.type = PBT_POWERSTATUSCHANGE;
            else if (*type == "info") ev.type = PBT_POWERINFOCHANGE;
            else if (*type == "resume") ev.type = PBT_RESUME;
            else badProfile(where + ".type", "must be 'status', 'info' or 'resume'");
            if (auto v = intKey(*e, "ac_line", 0, 255, where)) ev.acLine = BYTE(*v);
            if (auto v = intKey(*e, "battery_percent", 0, 255, where)) ev.percent = BYTE(*v);
            m_powerEvents.push_back(ev);
        }
    }
    std::optional<bool> present;
    if (const toml::table *c = tableKey(profile, "card", "card")) {
        checkKeys(*c, {"present", "name", "events"}, "card");
        present = boolKey(*c, "present", "card");
        m_cardName = volumeName(*c, "card", m_cardName);
        for (const toml::table *e : eventTables(*c, "card.events")) {
            const std::string where = "card.events";
            checkKeys(*e, {"at_ms", "attached", "name"}, where);
            auto at = intKey(*e, "at_ms", 0, INT64_MAX, where);
            auto attached = boolKey(*e, "attached", where);
            if (!at) badProfile(where + ".at_ms", "is required");
            if (!attached) badProfile(where + ".attached", "is required");
            m_cardEvents.push_back({uint64_t(*at), *attached, volumeName(*e, where, m_cardName)});
        }
    }
    if (!present) present = dev.files().exists(u"\\" + m_cardName);
    if (*present) m_mounted.push_back(m_cardName);
}

void Power::scheduleEvents(const std::weak_ptr<Power> &self) {
    for (const PowerEvent &e : m_powerEvents)
        m_dev.clock().at(e.atMs, [self, e] {
            if (auto p = self.lock()) p->powerEventLocked(e);
        });
    for (const CardEvent &e : m_cardEvents)
        m_dev.clock().at(e.atMs, [self, e] {
            if (auto p = self.lock()) p->cardEventLocked(e);
        });
}

Power::Status Power::status() {
    std::lock_guard<std::mutex> lock(m_dev.clock().mutex());
    return m_status;
}

void Power::setStatus(const Status &s) {
    std::lock_guard<std::mutex> lock(m_dev.clock().mutex());
    m_status = s;
}

bool Power::cardPresent() {
    std::lock_guard<std::mutex> lock(m_dev.clock().mutex());
    for (const auto &v : m_mounted)
        if (sameName(v, m_cardName)) return true;
    return false;
}

// The system writes without waiting; what cannot be written is dropped. Journals either way.
void Power::postLocked(MsgQueueCore &q, const std::vector<BYTE> &msg, const std::string &event,
                       const nlohmann::json &fields) {
    if (msg.size() > q.maxMessage || q.full() || (q.readers == 0 && !q.allowBroken())) {
        m_dev.journal().write(event + "_dropped", fields);
        return;
    }
    q.messages.push_back({msg, false});
    m_dev.journal().write(event, fields);
    m_dev.clock().notifyLocked();
}

void Power::sendPowerLocked(Request &r, DWORD type) {
    if (!(r.flags & type)) return;
    std::vector<BYTE> msg(kBroadcastHeader + (type == PBT_POWERINFOCHANGE ? kPowerInfoSize : 0), 0);
    put32(msg, 0, type);
    if (type == PBT_POWERINFOCHANGE) {
        put32(msg, 8, kPowerInfoSize);
        BYTE *info = msg.data() + kBroadcastHeader;
        put32(msg, kBroadcastHeader + 0, lifeTime(m_status));
        put32(msg, kBroadcastHeader + 4, fullLifeTime(m_status));
        put32(msg, kBroadcastHeader + 8, kLifeUnknown);
        put32(msg, kBroadcastHeader + 12, kLifeUnknown);
        info[16] = m_status.acLine;
        info[17] = batteryFlag(m_status);
        info[18] = m_status.percent;
        info[19] = kBatteryUnknown;            // no backup battery known
        info[20] = BATTERY_PERCENTAGE_UNKNOWN;
    }
    postLocked(*r.core, msg, "power_notification", {{"type", type}});
}

void Power::sendDeviceLocked(Request &r, const std::u16string &name, bool attached) {
    if (r.cls && !sameGuid(*r.cls, kFatMountClass)) return;
    const size_t cbName = (name.size() + 1) * sizeof(WCHAR);
    std::vector<BYTE> msg(kDetailHeader + cbName, 0);
    std::memcpy(msg.data(), &kFatMountClass, sizeof(GUID));
    put32(msg, offsetof(DEVDETAIL, fAttached), attached ? TRUE : FALSE);
    put32(msg, offsetof(DEVDETAIL, cbName), DWORD(cbName));
    for (size_t i = 0; i < name.size(); ++i) {
        msg[kDetailHeader + 2 * i] = BYTE(name[i]);
        msg[kDetailHeader + 2 * i + 1] = BYTE(name[i] >> 8);
    }
    postLocked(*r.core, msg, "device_notification", {{"name", utf8(name)}, {"attached", attached}});
}

void Power::powerEventLocked(const PowerEvent &e) {
    if (e.acLine) m_status.acLine = *e.acLine;
    if (e.percent) m_status.percent = *e.percent;
    for (auto &[h, r] : m_powerRequests) {
        (void)h;
        sendPowerLocked(r, e.type);
    }
}

void Power::cardEventLocked(const CardEvent &e) {
    auto it = std::find_if(m_mounted.begin(), m_mounted.end(), [&](const std::u16string &v) { return sameName(v, e.name); });
    if (e.attached && it == m_mounted.end()) m_mounted.push_back(e.name);
    if (!e.attached && it != m_mounted.end()) m_mounted.erase(it);
    for (auto &[h, r] : m_deviceRequests) {
        (void)h;
        sendDeviceLocked(r, e.name, e.attached);
    }
}

HANDLE Power::newRequest(std::map<uintptr_t, Request> &table, Request r) {
    uintptr_t h = m_nextRequest;
    m_nextRequest += 4;
    ++r.core->writers;   // the system keeps its own write handle on the queue
    table.emplace(h, std::move(r));
    return reinterpret_cast<HANDLE>(h);
}

// ---------------------------------------------------------------- message queues

HANDLE Power::createQueue(const WCHAR *name, const MSGQUEUEOPTIONS *o) {
    std::u16string text = wide(name);
    if (!o || o->dwSize != sizeof(MSGQUEUEOPTIONS) || o->cbMaxMessage == 0 || text.size() >= MAX_PATH) {
        setLastError(ERROR_INVALID_PARAMETER);
        return NULL;
    }
    const bool read = o->bReadAccess != FALSE;
    std::shared_ptr<MsgQueueHandle> handle;
    bool exists = false;
    {
        std::lock_guard<std::mutex> lock(m_dev.clock().mutex());
        std::shared_ptr<MsgQueueCore> core;
        if (name) {
            core = m_named[text].lock();
            exists = core != nullptr;
        }
        if (!core) {
            core = std::make_shared<MsgQueueCore>();
            core->name = text;
            core->flags = o->dwFlags;
            core->maxMessages = o->dwMaxMessages;
            core->maxMessage = o->cbMaxMessage;
            if (name) m_named[text] = core;
        }
        ++(read ? core->readers : core->writers);
        handle = std::make_shared<MsgQueueHandle>(m_dev.clock(), core, read);
        m_dev.clock().notifyLocked();   // a blocked writer or reader now has its peer
    }
    HANDLE h = m_dev.objects().add(handle);
    setLastError(exists ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return h;
}

BOOL Power::readQueue(HANDLE h, void *buffer, DWORD size, DWORD *read, DWORD timeout, DWORD *flags) {
    auto q = m_dev.objects().getAs<MsgQueueHandle>(h);   // released after the lock below
    if (!q) { setLastError(ERROR_INVALID_HANDLE); return FALSE; }
    if (!buffer || size == 0 || !read) { setLastError(ERROR_INVALID_PARAMETER); return FALSE; }
    if (!q->read) { setLastError(ERROR_ACCESS_DENIED); return FALSE; }
    std::optional<MsgQueueCore::Message> taken;
    bool broken = false;
    {
        std::unique_lock<std::mutex> lock(m_dev.clock().mutex());
        MsgQueueCore &core = *q->core;
        auto ready = [&] {
            if (!core.messages.empty()) {
                taken = std::move(core.messages.front());
                core.messages.pop_front();
                return true;
            }
            broken = core.writers == 0 && !core.allowBroken();
            return broken;
        };
        m_dev.clock().wait(lock, ready, timeout);
        if (taken) m_dev.clock().notifyLocked();   // room for a blocked writer
    }
    if (!taken) {
        setLastError(broken ? kErrorPipeNotConnected : ERROR_TIMEOUT);
        return FALSE;
    }
    const DWORD n = DWORD(std::min<size_t>(taken->bytes.size(), size));
    std::memcpy(buffer, taken->bytes.data(), n);
    *read = n;
    if (flags) *flags = taken->alert ? MSGQUEUE_MSGALERT : 0;
    if (n < taken->bytes.size()) {
        setLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    return TRUE;
}

BOOL Power::writeQueue(HANDLE h, const void *buffer, DWORD size, DWORD timeout, DWORD flags) {
    auto q = m_dev.objects().getAs<MsgQueueHandle>(h);   // released after the lock below
    if (!q) { setLastError(ERROR_INVALID_HANDLE); return FALSE; }
    if (!buffer || size == 0) { setLastError(ERROR_INVALID_PARAMETER); return FALSE; }
    if (q->read) { setLastError(ERROR_ACCESS_DENIED); return FALSE; }
    MsgQueueCore &core = *q->core;
    if (size > core.maxMessage) { setLastError(ERROR_INSUFFICIENT_BUFFER); return FALSE; }
    MsgQueueCore::Message msg{std::vector<BYTE>(static_cast<const BYTE *>(buffer), static_cast<const BYTE *>(buffer) + size),
                              (flags & MSGQUEUE_MSGALERT) != 0};
    bool written = false, broken = false;
    {
        std::unique_lock<std::mutex> lock(m_dev.clock().mutex());
        auto ready = [&] {
            broken = core.readers == 0 && !core.allowBroken();
            if (broken) return true;
            if (core.full()) return false;
            bool front = msg.alert && std::none_of(core.messages.begin(), core.messages.end(),
                                                   [](const MsgQueueCore::Message &m) { return m.alert; });
            msg.alert = front;   // a second alert is queued as a normal message
            if (front) core.messages.push_front(std::move(msg));
            else core.messages.push_back(std::move(msg));
            written = true;
            return true;
        };
        m_dev.clock().wait(lock, ready, timeout);
        if (written) m_dev.clock().notifyLocked();
    }
    if (written) return TRUE;
    setLastError(broken ? kErrorPipeNotConnected : ERROR_TIMEOUT);
    return FALSE;
}

// ---------------------------------------------------------------- power

HANDLE Power::requestPower(HANDLE queue, DWORD flags) {
    if (!queue || !flags) { setLastError(ERROR_INVALID_PARAMETER); return NULL; }
    auto q = m_dev.objects().getAs<MsgQueueHandle>(queue);
    if (!q) { setLastError(ERROR_INVALID_HANDLE); return NULL; }
    std::lock_guard<std::mutex> lock(m_dev.clock().mutex());
    HANDLE h = newRequest(m_powerRequests, {q->core, flags, std::nullopt});
    // The current status at once, so that a new listener need not wait for the next change.
    sendPowerLocked(m_powerRequests.at(reinterpret_cast<uintptr_t>(h)), PBT_POWERSTATUSCHANGE);
    return h;
}

DWORD Power::stopPower(HANDLE h) {
    std::shared_ptr<MsgQueueCore> core;   // released after the lock
    std::lock_guard<std::mutex> lock(m_dev.clock().mutex());
    auto it = m_powerRequests.find(reinterpret_cast<uintptr_t>(h));
    if (it == m_powerRequests.end()) return ERROR_INVALID_HANDLE;
    core = it->second.core;
    --core->writers;
    m_powerRequests.erase(it);
    m_dev.clock().notifyLocked();
    return ERROR_SUCCESS;
}

DWORD Power::statusEx2(SYSTEM_POWER_STATUS_EX2 *out, DWORD len) {
    if (!out || len == 0) { setLastError(ERROR_INVALID_PARAMETER); return 0; }
    const Status s = status();
    SYSTEM_POWER_STATUS_EX2 r;
    std::memset(&r, 0, sizeof r);
    r.ACLineStatus = s.acLine;
    r.BatteryFlag = batteryFlag(s);
    r.BatteryLifePercent = s.percent;
    r.BatteryLifeTime = lifeTime(s);
    r.BatteryFullLifeTime = fullLifeTime(s);
    r.BackupBatteryFlag = kBatteryUnknown;
    r.BackupBatteryLifePercent = BATTERY_PERCENTAGE_UNKNOWN;
    r.BackupBatteryLifeTime = kLifeUnknown;
    r.BackupBatteryFullLifeTime = kLifeUnknown;
    if (s.percent != BATTERY_PERCENTAGE_UNKNOWN) {
        r.BatteryVoltage = 3300 + 9 * std::min<DWORD>(s.percent, 100);   // millivolts
        r.BatteryTemperature = 250;                                       // tenths of a degree
        r.BatteryChemistry = kChemistryLithiumIon;
    }
    const DWORD n = std::min<DWORD>(len, sizeof r);
    std::memcpy(out, &r, n);
    return n;
}

// ---------------------------------------------------------------- device notifications

HANDLE Power::requestDevice(const GUID *cls, HANDLE queue, BOOL all) {
    if (!queue) { setLastError(ERROR_INVALID_PARAMETER); return NULL; }
    auto q = m_dev.objects().getAs<MsgQueueHandle>(queue);
    if (!q) { setLastError(ERROR_INVALID_HANDLE); return NULL; }
    std::lock_guard<std::mutex> lock(m_dev.clock().mutex());
    Request r{q->core, 0, cls ? std::optional<GUID>(*cls) : std::nullopt};
    HANDLE h = newRequest(m_deviceRequests, r);
    if (all)
        for (const auto &v : m_mounted) sendDeviceLocked(m_deviceRequests.at(reinterpret_cast<uintptr_t>(h)), v, true);
    return h;
}

BOOL Power::stopDevice(HANDLE h) {
    std::shared_ptr<MsgQueueCore> core;   // released after the lock
    std::lock_guard<std::mutex> lock(m_dev.clock().mutex());
    auto it = m_deviceRequests.find(reinterpret_cast<uintptr_t>(h));
    if (it == m_deviceRequests.end()) {
        setLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    core = it->second.core;
    --core->writers;
    m_deviceRequests.erase(it);
    m_dev.clock().notifyLocked();
    return TRUE;
}

std::shared_ptr<Power> makePower(Device &dev, const toml::table &profile) {
    auto power = std::make_shared<Power>(dev, profile);
    power->scheduleEvents(power);
    return power;
}

}  // namespace sim

using namespace sim;

// ---------------------------------------------------------------- the API

HANDLE CreateMsgQueue(LPCWSTR lpName, LPMSGQUEUEOPTIONS lpOptions) {
    if (dev().injected("CreateMsgQueue")) return NULL;
    return dev().power().createQueue(lpName, lpOptions);
}

BOOL ReadMsgQueue(HANDLE hMsgQ, LPVOID lpBuffer, DWORD cbBufferSize, LPDWORD lpNumberOfBytesRead, DWORD dwTimeout,
                  DWORD *pdwFlags) {
    if (dev().injected("ReadMsgQueue")) return FALSE;
    return dev().power().readQueue(hMsgQ, lpBuffer, cbBufferSize, lpNumberOfBytesRead, dwTimeout, pdwFlags);
}

BOOL WriteMsgQueue(HANDLE hMsgQ, LPVOID lpBuffer, DWORD cbDataSize, DWORD dwTimeout, DWORD dwFlags) {
    if (dev().injected("WriteMsgQueue")) return FALSE;
    return dev().power().writeQueue(hMsgQ, lpBuffer, cbDataSize, dwTimeout, dwFlags);
}

BOOL CloseMsgQueue(HANDLE hMsgQ) {
    if (dev().injected("CloseMsgQueue")) return FALSE;
    if (!dev().objects().getAs<MsgQueueHandle>(hMsgQ) || !dev().objects().close(hMsgQ)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return TRUE;
}

HANDLE RequestPowerNotifications(HANDLE hMsgQ, DWORD Flags) {
    if (dev().injected("RequestPowerNotifications")) return NULL;
    return dev().power().requestPower(hMsgQ, Flags);
}

DWORD StopPowerNotifications(HANDLE h) {
    if (auto e = dev().failure("StopPowerNotifications")) { SetLastError(*e); return *e; }
    DWORD result = dev().power().stopPower(h);
    if (result != ERROR_SUCCESS) SetLastError(result);
    return result;
}

DWORD GetSystemPowerStatusEx2(PSYSTEM_POWER_STATUS_EX2 pSystemPowerStatusEx2, DWORD dwLen, BOOL) {
    if (dev().injected("GetSystemPowerStatusEx2")) return 0;
    return dev().power().statusEx2(pSystemPowerStatusEx2, dwLen);
}

DWORD SetSystemPowerState(LPCWSTR pwsSystemState, DWORD StateFlags, DWORD Options) {
    Device &d = dev();
    auto e = d.failure("SetSystemPowerState");
    nlohmann::json fields = {{"state", StateFlags}, {"flags", Options}};
    const std::u16string name = wide(pwsSystemState);
    if (!name.empty()) fields["name"] = utf8(name);
    if (e) fields["error"] = *e;
    d.journal().write("set_power_state", fields);
    if (e) {
        SetLastError(*e);
        return *e;
    }
    // A state name, when given, stands for the flags.
    const bool reset = name.empty() ? (StateFlags & POWER_STATE_RESET) != 0 : lower(utf8(name)) == "reboot";
    if (reset) d.endProcess(0, "reset");
    return ERROR_SUCCESS;
}

HANDLE RequestDeviceNotifications(LPCGUID devclass, HANDLE hMsgQ, BOOL fAll) {
    if (dev().injected("RequestDeviceNotifications")) return NULL;
    return dev().power().requestDevice(devclass, hMsgQ, fAll);
}

BOOL StopDeviceNotifications(HANDLE h) {
    if (dev().injected("StopDeviceNotifications")) return FALSE;
    return dev().power().stopDevice(h);
}
