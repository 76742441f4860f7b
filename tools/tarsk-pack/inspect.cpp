// tarsk-pack inspect: what the device will read from a package.
//
// The values shown "as read" come from the device's own descriptor readers, run on a throwaway
// simulated device that holds the deciphered descriptor as "\upgrade.xml". The texts "as written"
// come from reading the same XML here with Mini-XML; they are only shown and compared, never used
// to decide anything.
#include "inspect.h"

#include "device.h"

#include <mxml.h>

#include <cstdlib>
#include <cstring>
#include <iomanip>

namespace tarsk_tools {

namespace {

// ---------------------------------------------------------------- the texts as written

// Mini-XML's complaints, collected instead of printed.
std::string g_xmlError;
void collectXmlError(const char *message) {
    if (g_xmlError.empty()) g_xmlError = message ? message : "";
}

// The bytes as UTF-8 text: a UTF-16 file (with its byte order mark) is converted, as the device
// reads those too.
std::string asUtf8(const Bytes &data) {
    if (data.size() >= 2 && ((data[0] == 0xFF && data[1] == 0xFE) || (data[0] == 0xFE && data[1] == 0xFF))) {
        bool little = data[0] == 0xFF;
        std::u16string units;
        for (size_t i = 2; i + 1 < data.size(); i += 2)
            units.push_back(little ? char16_t(data[i] | data[i + 1] << 8) : char16_t(data[i] << 8 | data[i + 1]));
        return sim::utf8(units);
    }
    return std::string(data.begin(), data.end());
}

bool isComment(mxml_node_t *node) {
    const char *name = mxmlGetElement(node);
    return name && std::strncmp(name, "!--", 3) == 0;
}

// The first direct child element called name.
mxml_node_t *child(mxml_node_t *parent, const char *name) {
    if (!parent) return nullptr;
    for (mxml_node_t *c = mxmlGetFirstChild(parent); c; c = mxmlGetNextSibling(c)) {
        if (mxmlGetType(c) != MXML_ELEMENT || isComment(c)) continue;
        const char *n = mxmlGetElement(c);
        if (n && std::strcmp(n, name) == 0) return c;
    }
    return nullptr;
}

// The first element called name anywhere in the document.
mxml_node_t *anywhere(mxml_node_t *tree, const char *name) {
    return tree ? mxmlFindElement(tree, tree, name, nullptr, nullptr, MXML_DESCEND) : nullptr;
}

// The element's direct text, exactly as written; nullopt when the element is missing.
std::optional<std::string> textOf(mxml_node_t *element) {
    if (!element) return std::nullopt;
    std::string text;
    for (mxml_node_t *c = mxmlGetFirstChild(element); c; c = mxmlGetNextSibling(c))
        if (mxmlGetType(c) == MXML_OPAQUE)
            if (const char *s = mxmlGetOpaque(c)) text += s;
    return text;
}

// ---------------------------------------------------------------- presentation

std::string quoted(const std::string &text) {
    const size_t shown = 60;
    std::string out = "\"";
    size_t n = 0;
    for (char c : text) {
        if (n++ == shown) {
            out += "...";
            break;
        }
        if (c == '\n') out += "\\n";
        else if (c == '\r') out += "\\r";
        else if (c == '\t') out += "\\t";
        else out += c;
    }
    out += "\"";
    if (text.size() > shown) out += " (" + std::to_string(text.size()) + " bytes)";
    return out;
}

std::string shown(const std::optional<std::string> &raw) { return raw ? quoted(*raw) : "(missing)"; }

size_t wideLength(const std::string &utf8) { return sim::fromUtf8(utf8).size(); }

DWORD packed(DWORD major) { return DWORD(uint64_t(major) * 100u * 10000u); }

int digitRuns(const std::string &text) {
    int runs = 0;
    bool inRun = false;
    for (char c : text) {
        bool digit = c >= '0' && c <= '9';
        if (digit && !inRun) ++runs;
        inRun = digit;
    }
    return runs;
}

// The report, gathered here and printed as text or JSON by the caller.
struct Report {
    Inspection &in;
    Record *record = nullptr;

    void begin(const std::string &kind, const std::string &path, bool present) {
        in.records.push_back({kind, path, present, {}});
        record = &in.records.back();
    }
    void line(const std::string &field, const std::optional<std::string> &raw, const nlohmann::ordered_json &read) {
        record->fields.push_back({field, raw, read});
    }
    void warn(const std::string &text) { in.warnings.push_back(text); }
};

void checkVersion(Report &r, const char *kind, const std::optional<std::string> &raw, DWORD read) {
    if (!raw) return;
    int runs = digitRuns(*raw);
    if (runs == 0)
        r.warn(std::string(kind) + " version " + quoted(*raw) + " has no digits: the device reads 0");
    else if (runs > 1)
        r.warn(std::string(kind) + " version " + quoted(*raw) + " holds more than one number: the device reads only the first, " +
               std::to_string(read) + " (minor and build are ignored)");
    if (read >= 4295)
        r.warn(std::string(kind) + " version " + std::to_string(read) + " wraps when the device packs it (" +
               std::to_string(packed(read)) + "), so it may compare below the device's");
}

void checkFlag(Report &r, const std::string &what, const std::optional<std::string> &raw, DWORD read) {
    if (!raw || *raw == "0" || *raw == "1") return;
    r.warn(what + " " + quoted(*raw) + " is not \"0\" or \"1\": the device reads it as " + std::to_string(read));
}

void checkCut(Report &r, const std::string &what, const std::optional<std::string> &raw, size_t max) {
    if (!raw) return;
    size_t n = wideLength(*raw);
    if (n > max)
        r.warn(what + " has " + std::to_string(n) + " characters: the device keeps the first " + std::to_string(max));
}

std::string readText(const WCHAR *text) { return quoted(sim::utf8(text)); }
std::string plainText(const WCHAR *text) { return sim::utf8(text); }

// One image record: the texts as written beside the record as the device read it.
void imageRecord(Report &r, mxml_node_t *tree, const char *kind, const char *label, const DeviceDescriptor &d) {
    mxml_node_t *upgrade = child(child(anywhere(tree, "device"), kind), "upgrade");
    r.begin(label, std::string("device/") + kind + "/upgrade", upgrade != nullptr);
    mxml_node_t *hardware = child(upgrade, "hardware");
    auto version = textOf(child(upgrade, "version"));
    auto force = textOf(child(upgrade, "force"));
    auto format = textOf(child(upgrade, "format"));
    auto hwType = textOf(child(hardware, "type"));
    auto hwVersion = textOf(child(hardware, "version"));

    r.line("version", version, d.version[0]);
    r.line("force", force, d.force);
    r.line("format", format, d.format);
    r.line("hardware type", hwType, plainText(d.hardwareType));
    r.line("hardware version", hwVersion, plainText(d.hardwareVersion));

    checkVersion(r, label, version, d.version[0]);
    checkFlag(r, std::string(label) + " force", force, d.force);
    checkFlag(r, std::string(label) + " format", format, d.format);
    checkCut(r, std::string(label) + " hardware type", hwType, DEVDESC_TEXT_CHARS - 1);
    checkCut(r, std::string(label) + " hardware version", hwVersion, DEVDESC_TEXT_CHARS - 1);
    if (d.hardwareVersion[0])
        r.warn(std::string(label) + " hardware version " + readText(d.hardwareVersion) +
               ": a device whose kernel version text contains it BYPASSES this image whatever the versions; "
               "on other devices the version decides");
    if (std::strcmp(kind, "bootloader") == 0 && d.format)
        r.warn("bootloader format is set but has no effect: only the kernel's format is used");
}

void regionRecord(Report &r, mxml_node_t *tree, int found, const RegionDescriptor &d) {
    mxml_node_t *region = anywhere(tree, "region");
    mxml_node_t *upgrade = child(region, "upgrade");
    r.begin("region", "region/upgrade", upgrade != nullptr);
    auto serial = textOf(child(upgrade, "serialnum"));
    auto hidden = textOf(child(upgrade, "formatHidden"));
    auto visible = textOf(child(upgrade, "formatVisible"));
    auto force = textOf(child(upgrade, "force"));
    r.line("serialnum", serial, plainText(d.serialNumber));
    r.line("formatHidden", hidden, d.formatHidden);
    r.line("formatVisible", visible, d.formatVisible);
    r.line("force", force, d.force);

    if (!found && tree) r.warn("no region element: the device's region reader fails and the region is bypassed");
    checkCut(r, "region serialnum", serial, REGIONDESC_SERIAL_CHARS - 1);
    checkFlag(r, "region formatHidden", hidden, d.formatHidden);
    checkFlag(r, "region formatVisible", visible, d.formatVisible);
    checkFlag(r, "region force", force, d.force);
    if (found && !d.force && (d.serialNumber[0] || d.formatHidden || d.formatVisible))
        r.warn("region force is 0, so the region image is bypassed, but the serial number and disk formats "
               "asked for are still carried out");
}

// ---------------------------------------------------------------- the device's reading

struct DeviceReading {
    DeviceDescriptor bootloader;
    DeviceDescriptor kernel;
    RegionDescriptor region;
    int regionFound = 0;
};

// Runs the device's readers on the descriptor, on a simulated device made for this and removed after.
std::optional<DeviceReading> readOnDevice(const Bytes &plain, std::string &why) {
    std::string tmpl = (fs::temp_directory_path() / "tarsk-pack-XXXXXX").string();
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    if (!::mkdtemp(name.data())) {
        why = "cannot make a temporary folder: " + systemError(errno);
        return std::nullopt;
    }
    fs::path folder = name.data();
    std::optional<DeviceReading> result;
    {
        sim::Device device(folder);
        device.install();
        std::string writeWhy;
        if (writeFileAtomic(folder / "fs" / "upgrade.xml", plain, writeWhy)) {
            DeviceReading r;
            std::memset(&r.bootloader, 0, sizeof r.bootloader);
            std::memset(&r.kernel, 0, sizeof r.kernel);
            std::memset(&r.region, 0, sizeof r.region);
            const WCHAR *path = u"\\upgrade.xml";
            GetUbootXMLSettings(path, &r.bootloader);
            GetKernelXMLSettings(path, &r.kernel);
            r.regionFound = GetRegionFileSettings(path, &r.region);
            result = r;
        } else {
            why = "cannot write a temporary descriptor: " + writeWhy;
        }
        device.uninstall();
    }
    std::error_code ec;
    fs::remove_all(folder, ec);
    return result;
}

}  // namespace

int inspectPackage(const Bytes &plain, Inspection &in, std::string &why) {
    std::optional<DeviceReading> read = readOnDevice(plain, why);
    if (!read) return 2;

    g_xmlError.clear();
    mxmlSetErrorCallback(collectXmlError);
    std::string text = asUtf8(plain);
    // Parsed under a document node of our own, as the device does, so that several top-level
    // elements (device and region side by side) are accepted as the device accepts them.
    mxml_node_t *tree = nullptr;
    if (!text.empty()) {
        tree = mxmlNewElement(MXML_NO_PARENT, "?document");
        if (!mxmlLoadString(tree, text.c_str(), MXML_OPAQUE_CALLBACK) || !mxmlGetFirstChild(tree)) {
            mxmlDelete(tree);
            tree = nullptr;
        }
    }
    mxmlSetErrorCallback(nullptr);

    Report r{in};
    if (child(child(anywhere(tree, "device"), "bootloader"), "upgrade")) in.carries.push_back("bootloader");
    if (child(child(anywhere(tree, "device"), "kernel"), "upgrade")) in.carries.push_back("kernel");
    if (child(anywhere(tree, "region"), "upgrade")) in.carries.push_back("region");

    if (plain.empty()) {
        r.warn("the package is empty: the device ignores it without a word");
    } else if (!tree) {
        r.warn("the descriptor is not XML" + (g_xmlError.empty() ? std::string() : " (" + g_xmlError + ")") +
               ": the device reads nothing from it and bypasses every image (wrong key?)");
    } else {
        if (!anywhere(tree, "device"))
            r.warn("no device element: the bootloader and kernel are bypassed");
    }

    imageRecord(r, tree, "bootloader", "bootloader", read->bootloader);
    imageRecord(r, tree, "kernel", "kernel", read->kernel);
    regionRecord(r, tree, read->regionFound, read->region);
    if (tree) mxmlDelete(tree);
    return in.carries.empty() ? 1 : 0;
}

void printInspection(const Inspection &in, const std::string &header, std::ostream &out) {
    std::string kinds;
    for (const std::string &k : in.carries) kinds += (kinds.empty() ? "" : ", ") + k;
    out << header << "\n";
    out << "carries: " << (kinds.empty() ? "nothing the device can use" : kinds) << "\n\n";
    for (const Record &rec : in.records) {
        out << rec.kind << " (" << rec.path << ")" << (rec.present ? "" : ": not in the package") << "\n";
        for (const Field &f : rec.fields) {
            const std::string read = f.read.is_string() ? quoted(f.read.get<std::string>()) : f.read.dump();
            out << "  " << std::left << std::setw(18) << f.name << std::setw(28) << shown(f.written) << " -> " << read
                << "\n";
        }
    }
    if (!in.warnings.empty()) out << "\n";
    for (const std::string &w : in.warnings) out << "warning: " << w << "\n";
}

nlohmann::ordered_json inspectionJson(const Inspection &in) {
    nlohmann::ordered_json j = nlohmann::ordered_json::object();
    j["carries"] = in.carries;
    for (const Record &rec : in.records) {
        nlohmann::ordered_json fields = nlohmann::ordered_json::object();
        for (const Field &f : rec.fields)
            fields[f.name] = {{"written", f.written ? nlohmann::ordered_json(*f.written) : nlohmann::ordered_json()},
                              {"read", f.read}};
        j[rec.kind] = {{"path", rec.path}, {"present", rec.present}, {"fields", fields}};
    }
    j["warnings"] = in.warnings;
    return j;
}

}  // namespace tarsk_tools
