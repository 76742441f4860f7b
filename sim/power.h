// Power, point-to-point message queues and device (card) notifications of the simulated device:
// GetSystemPowerStatusEx2, RequestPowerNotifications/StopPowerNotifications, SetSystemPowerState,
// CreateMsgQueue/ReadMsgQueue/WriteMsgQueue/CloseMsgQueue, RequestDeviceNotifications/
// StopDeviceNotifications. (CreateProcessW is in processes.cpp.)
//
// Profile:
//   [power]                     what GetSystemPowerStatusEx2 reports until an event changes it
//   ac_line = 1                 ACLineStatus 0..255 (0 offline, 1 online, 255 unknown); default 1
//   battery_percent = 100       BatteryLifePercent 0..100, 255 unknown; default 100
//   [[power.events]]            later notifications, in any order
//   at_ms = 5000                device time after the start of the run (required, >= 0)
//   type = 'status'             'status' (PBT_POWERSTATUSCHANGE 4), 'info' (PBT_POWERINFOCHANGE 8)
//                               or 'resume' (PBT_RESUME 2); required
//   ac_line = 0                 optional: the new status from then on (any type); unchanged when absent
//   battery_percent = 19
//
//   [card]                      the memory card, announced by device notifications of the FAT
//                               mount class {169E1941-04CE-4690-97AC-776187EB67CC}
//   present = true              mounted at start; default: whether the folder "\<name>" exists
//   name = 'Storage Card'       the mounted folder's name as notifications give it (no leading
//                               backslash); default 'Storage Card'
//   [[card.events]]
//   at_ms = 3000                required, >= 0
//   attached = false            required: true inserted (mounted), false removed
//   name = 'Storage Card'       optional; default [card] name. Another name is another volume: it
//                               is announced the same way but does not change the card's presence.
//
//   [fail] <CallName> = E       every call named here fails with E (see Device::failure)
//
// Unknown keys, wrong types, an unknown type, a percent or line status above 255 and a negative
// at_ms stop the making of the device (badProfile). Removing the card does not hide its folder in
// the file system: the folder's files stay where they are.
//
// Behaviour, as Windows CE 5.0 documents it:
// - Message queues are kernel objects in the handle table; each handle is either a read or a write
//   handle on a queue shared by every handle opened on it (named queues opened again share it and
//   set ERROR_ALREADY_EXISTS). WaitForSingleObject on a read handle is signalled while the queue
//   holds a message, on a write handle while the queue is not full. A read with no writer attached
//   (no write handle and no notification request feeding the queue) and an empty queue fails with
//   ERROR_PIPE_NOT_CONNECTED unless the queue was made with MSGQUEUE_ALLOW_BROKEN; so does a write
//   with no read handle open. A message larger than the reader's buffer is removed from the queue,
//   its first bytes copied, and the read fails with ERROR_INSUFFICIENT_BUFFER. A full queue fails a
//   write with ERROR_TIMEOUT once the write's time-out has passed (at once for 0). An alert message
//   (MSGQUEUE_MSGALERT) goes to the front when no other alert is queued.
// - The system's own notifications are written without waiting: a full queue, a message larger than
//   the queue's maximum or a queue with no reader drops them. Each notification is journaled:
//   "power_notification" {type} or "device_notification" {name, attached} when queued, the same
//   with "_dropped" appended to the event's name when dropped.
// - RequestPowerNotifications queues one PBT_POWERSTATUSCHANGE at once when its flags ask for it.
//   POWER_BROADCAST messages are 12 bytes (Message, Flags 0, Length 0), and PBT_POWERINFOCHANGE adds
//   a 24-byte POWER_BROADCAST_POWER_INFO (Length 24).
// - Device notifications are DEVDETAIL records: class, fAttached, cbName (bytes of the name with its
//   terminator), the name; the record is written up to the end of the name. A request for another
//   class gets nothing; a null class means every class.
// - SetSystemPowerState journals "set_power_state" {state, flags} (and "name" when given, "error"
//   when it fails). A reset (POWER_STATE_RESET with no state name, or the name "reboot") ends the
//   run: Device::endProcess(0, "reset").
#pragma once
#include "device.h"

#include <deque>

namespace sim {

constexpr DWORD kErrorPipeNotConnected = 233;   // ERROR_PIPE_NOT_CONNECTED

// The FAT volume mount class of device notifications.
extern const GUID kFatMountClass;

// A queue, shared by every handle opened on it. Guarded by the clock's mutex.
struct MsgQueueCore {
    std::u16string name;   // empty for an unnamed queue
    DWORD flags = 0, maxMessages = 0, maxMessage = 0;
    struct Message {
        std::vector<BYTE> bytes;
        bool alert = false;
    };
    std::deque<Message> messages;
    int readers = 0;   // open read handles
    int writers = 0;   // open write handles and the system's notification requests feeding it
    bool full() const { return maxMessages != 0 && messages.size() >= maxMessages; }
    bool allowBroken() const { return (flags & MSGQUEUE_ALLOW_BROKEN) != 0; }
};

// One handle on a queue: read or write access.
struct MsgQueueHandle : Waitable {
    MsgQueueHandle(Clock &clock, std::shared_ptr<MsgQueueCore> core, bool read);
    ~MsgQueueHandle() override;   // takes the clock's mutex: never release the last reference under it
    const char *type() const override { return "msgqueue"; }
    bool tryAcquire() override { return read ? !core->messages.empty() : !core->full(); }

    Clock &clock;
    std::shared_ptr<MsgQueueCore> core;
    const bool read;
};

class Power {
public:
    Power(Device &dev, const toml::table &profile);
    // Schedules the profile's events (called once by makePower with the part's own pointer).
    void scheduleEvents(const std::weak_ptr<Power> &self);

    struct Status {
        BYTE acLine = AC_LINE_ONLINE;
        BYTE percent = 100;
    };
    Status status();                 // the current status
    void setStatus(const Status &s); // a test's change; no notification
    bool cardPresent();
    std::u16string cardName() const { return m_cardName; }

    // The API calls (each has already passed Device::failure).
    HANDLE createQueue(const WCHAR *name, const MSGQUEUEOPTIONS *options);
    BOOL readQueue(HANDLE h, void *buffer, DWORD size, DWORD *read, DWORD timeout, DWORD *flags);
    BOOL writeQueue(HANDLE h, const void *buffer, DWORD size, DWORD timeout, DWORD flags);
    HANDLE requestPower(HANDLE queue, DWORD flags);
    DWORD stopPower(HANDLE h);
    DWORD statusEx2(SYSTEM_POWER_STATUS_EX2 *out, DWORD len);
    HANDLE requestDevice(const GUID *cls, HANDLE queue, BOOL all);
    BOOL stopDevice(HANDLE h);

private:
    struct PowerEvent {
        uint64_t atMs;
        DWORD type;
        std::optional<BYTE> acLine, percent;
    };
    struct CardEvent {
        uint64_t atMs;
        bool attached;
        std::u16string name;
    };
    struct Request {
        std::shared_ptr<MsgQueueCore> core;
        DWORD flags = 0;                 // power: PBT_* mask
        std::optional<GUID> cls;         // device: the class, none for every class
    };

    // With the clock's mutex held.
    void postLocked(MsgQueueCore &q, const std::vector<BYTE> &msg, const std::string &event,
                    const nlohmann::json &fields);
    void sendPowerLocked(Request &r, DWORD type);
    void sendDeviceLocked(Request &r, const std::u16string &name, bool attached);
    void powerEventLocked(const PowerEvent &e);
    void cardEventLocked(const CardEvent &e);
    HANDLE newRequest(std::map<uintptr_t, Request> &table, Request r);

    Device &m_dev;
    Status m_status;
    std::u16string m_cardName;
    std::vector<std::u16string> m_mounted;         // mounted volumes, in mounting order
    std::vector<PowerEvent> m_powerEvents;
    std::vector<CardEvent> m_cardEvents;
    std::map<std::u16string, std::weak_ptr<MsgQueueCore>> m_named;
    std::map<uintptr_t, Request> m_powerRequests, m_deviceRequests;
    uintptr_t m_nextRequest = 0x50000000;         // notification handles: not kernel handles
};

}  // namespace sim
