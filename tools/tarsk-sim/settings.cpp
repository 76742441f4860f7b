// tarsk-sim settings: device_settings.ini as the device reads it. The device's own reader runs on the
// simulated device made from the folder (its device library answers the hardware version and the GPS
// chip); an observer of the reader's callbacks records the sections applied and what was set or
// skipped, and each value that the device reads differently from how it looks becomes a warning.
#include "simtool.h"

#include "framework/common.h"
#include "platform/devicesettings.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>
#include <unistd.h>

namespace tarsk_sim {

namespace {

struct Seen {
    std::vector<std::string> sections;   // applied, in file order, as written
    std::vector<std::string> warnings;
};
Seen g_seen;

std::string quoted(const std::string &s) { return "\"" + s + "\""; }

std::string trimmed(const std::string &s) {
    size_t a = s.find_first_not_of(" \t"), b = s.find_last_not_of(" \t");
    return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
}

std::string lower(std::string s) {
    for (char &c : s)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return s;
}

bool allOf(const std::string &s, size_t from, const char *set) {
    return from < s.size() && s.find_first_not_of(set, from) == std::string::npos;
}

// What a reader would take the number for: nullopt when it does not look like a number at all.
std::optional<long long> plainNumber(const std::string &v) {
    if (v.empty()) return 0;
    errno = 0;
    if (v.size() > 2 && v[0] == '0' && (v[1] == 'x' || v[1] == 'X') && allOf(v, 2, "0123456789abcdefABCDEF")) {
        unsigned long long n = std::strtoull(v.c_str() + 2, nullptr, 16);
        return errno ? std::nullopt : std::optional<long long>(n > (unsigned long long)LLONG_MAX ? LLONG_MAX : n);
    }
    if (allOf(v, v[0] == '-' ? 1 : 0, "0123456789")) {
        long long n = std::strtoll(v.c_str(), nullptr, 10);
        return errno ? std::optional<long long>(v[0] == '-' ? LLONG_MIN : LLONG_MAX) : std::optional<long long>(n);
    }
    return std::nullopt;
}

void warn(const std::string &text) { g_seen.warnings.push_back(text); }

void checkNumber(const std::string &where, const std::string &value) {
    long long held = velmar::ds_atoi(value.c_str());
    std::optional<long long> looks = plainNumber(value);
    if (!looks)
        warn(where + " = " + quoted(value) + ": not a plain number; the device reads " + std::to_string(held));
    else if (*looks != held)
        warn(where + " = " + quoted(value) + ": the device reads " + std::to_string(held) +
             " (a 32-bit number" + (value.size() > 127 ? ", of the first 127 characters" : "") + ")");
}

void checkValue(const velmar::DeviceSettingsKey &k, const std::string &where, const std::string &value) {
    if (k.type == DS_TYPE_INT32) {
        checkNumber(where, value);
    } else if (k.type == DS_TYPE_BOOL) {
        if (lower(value) == "true") return;
        std::string t = lower(trimmed(value));
        if (t == "true" || t == "1" || t == "yes" || t == "on")
            warn(where + " = " + quoted(value) +
                 ": the device reads false (only the whole value TRUE, in any case, is true)");
    } else if (value.size() >= k.size) {
        warn(where + " = " + quoted(value) + ": fills its " + std::to_string(k.size) +
             " bytes without a terminator; the device holds " + quoted(value.substr(0, k.size)) + " unterminated");
    }
}

// The reader's callbacks as they happen.
void observe(int event, int index, const char *section, const char *key, const char *value) {
    const std::string s = section ? section : "", k = key ? key : "", v = value ? value : "";
    const std::string where = "[" + s + "] " + k;
    switch (event) {
    case DS_EVENT_READING:
        g_seen = Seen();   // a new attempt: what an earlier one saw no longer counts
        break;
    case DS_EVENT_SECTION:
        g_seen.sections.push_back(s);
        break;
    case DS_EVENT_SECTION_UNKNOWN:
        warn("unknown section [" + s + "]: its keys are not read on this device");
        break;
    case DS_EVENT_KEY:
        checkValue(velmar::g_deviceSettingsKeys[index], where, v);
        break;
    case DS_EVENT_KEYMAP:
        checkNumber(where, v);
        break;
    case DS_EVENT_KEY_UNKNOWN:
    case DS_EVENT_KEYMAP_UNKNOWN: {
        std::string text = "[" + s + "] unknown key " + quoted(k) + " = " + quoted(v);
        std::string t = lower(trimmed(k));
        if (event == DS_EVENT_KEY_UNKNOWN) {
            for (const velmar::DeviceSettingsKey &known : velmar::g_deviceSettingsKeys) {
                if (lower(known.name) != t) continue;
                if (trimmed(k) != k)
                    text += " (the blanks around it are part of the name: \"" + std::string(known.name) + "\" meant?)";
                else if (known.matchCase)
                    text += " (\"" + std::string(known.name) + "\" is only read in lower case)";
                break;
            }
        }
        warn(text);
        break;
    }
    default:
        break;
    }
}

// A text field as the device holds it: up to its NUL or its full size.
std::string fieldText(const char *field, size_t size) { return std::string(field, strnlen(field, size)); }

ordered_json settingsJson(const velmar::CDeviceSettings &ds) {
    ordered_json out = ordered_json::object();
    const char *base = reinterpret_cast<const char *>(&ds);
    for (const velmar::DeviceSettingsKey &k : velmar::g_deviceSettingsKeys) {
        const char *field = base + k.offset;
        if (k.type == DS_TYPE_TEXT)
            out[k.name] = fieldText(field, k.size);
        else if (k.type == DS_TYPE_BOOL)
            out[k.name] = *reinterpret_cast<const BOOL *>(field);
        else
            out[k.name] = *reinterpret_cast<const LONG *>(field);
    }
    return out;
}

ordered_json keyMapJson(const velmar::CDeviceSettings &ds) {
    ordered_json out = ordered_json::object();
    for (const velmar::DeviceSettingsKeyCode &c : velmar::g_deviceSettingsKeyMap) out[c.name] = ds.m_anKeyMap[c.code];
    return out;
}

std::string joined(const std::vector<std::string> &items) {
    std::string out;
    for (const std::string &s : items) out += (out.empty() ? "" : ", ") + s;
    return out.empty() ? "none" : out;
}

void printText(const ordered_json &j, const std::string &host) {
    std::printf("file:              %s\n", j["file"].get<std::string>().c_str());
    std::printf("host file:         %s\n", host.c_str());
    std::printf("hardware version:  %d\n", j["hardware_version"].get<int>());
    std::printf("hardware section:  %s\n", j["hardware_section"].get<std::string>().c_str());
    std::printf("GPS section:       %s\n", j["gps_section"].get<std::string>().c_str());
    std::printf("sections applied:  %s\n", joined(j["sections"].get<std::vector<std::string>>()).c_str());
    std::printf("\nsettings:\n");
    for (const auto &[name, value] : j["settings"].items())
        std::printf("  %-37s %s\n", name.c_str(),
                    value.is_string() ? quoted(value.get<std::string>()).c_str() : value.dump().c_str());
    std::printf("\nkey map:\n");
    for (const auto &[name, value] : j["keymap"].items())
        std::printf("  %-12s %s\n", name.c_str(), value.dump().c_str());
    const auto &warnings = j["warnings"];
    std::printf("\nwarnings:%s\n", warnings.empty() ? " none" : "");
    for (const auto &w : warnings) std::printf("  %s\n", w.get<std::string>().c_str());
}

}  // namespace

int settings(const SettingsOptions &o) {
    // The note on a copy of the default device goes to stderr with --json.
    std::optional<JsonStdout> json;
    if (o.json) json.emplace();
    fs::path folder = prepareFolder(o.device);
    std::unique_ptr<sim::Device> dev = makeDevice(folder, {});
    dev->install();

    g_seen = Seen();
    velmar::setDeviceSettingsObserver(observe);
    const velmar::CDeviceSettings &ds = *velmar::getDeviceSettings();
    velmar::setDeviceSettingsObserver(nullptr);
    const bool loaded = velmar::isDeviceSettingsLoaded();
    const std::string ceFile = sim::utf8(velmar::getDeviceSettingsFileName());
    auto host = dev->files().resolve(velmar::getDeviceSettingsFileName());
    const std::string hostFile = host ? host->string() : "(not a device path)";

    // What the device library could not tell comes first.
    std::vector<std::string> library;
    CCommon *common = GetCommon();
    if (!common || !common->getEntry(DEV_getHardwareVersion))
        library.push_back("the device library reports no hardware version (no library, or no getHardwareVersion): "
                          "the section " + std::string(ds.m_szHardwareSection) + " is read");
    if (!common || !common->getEntry(DEV_getGPSType))
        library.push_back("the device library reports no GPS chip (no library, or no getGPSType): the section " +
                          std::string(ds.m_szGPSSection) + " is read");
    g_seen.warnings.insert(g_seen.warnings.begin(), library.begin(), library.end());

    ordered_json j = ordered_json::object();
    j["file"] = ceFile;
    j["hardware_version"] = ds.m_nHardwareVersion;
    j["hardware_section"] = fieldText(ds.m_szHardwareSection, sizeof ds.m_szHardwareSection);
    j["gps_section"] = fieldText(ds.m_szGPSSection, sizeof ds.m_szGPSSection);
    j["sections"] = g_seen.sections;
    j["settings"] = settingsJson(ds);
    j["keymap"] = keyMapJson(ds);
    j["warnings"] = g_seen.warnings;

    dev->journal().write("end", {{"reason", "exit"}});
    dev->uninstall();
    if (!loaded)
        fail(1, "no device_settings.ini: the device looks for " + ceFile + " (" + hostFile + ")");
    // The file's bytes are not necessarily UTF-8: what is not becomes U+FFFD rather than an error.
    if (json)
        json->print(j);
    else
        printText(j, hostFile);
    return 0;
}

}  // namespace tarsk_sim
