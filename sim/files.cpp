// The file system of the simulated device: CE paths mapped under DEVICE/fs, the storage volumes of
// the profile, and the CE file API (files, find, attributes, folders, free space, file times).
//
// CE rules kept here:
//   - "\" and "/" both separate; a name without a leading separator is taken from the root (CE has
//     no current folder); "." is skipped and ".." goes up one level, never above the root.
//   - Components that exist are matched without regard to case (exact spelling first); the rest
//     are created as written.
//   - A name is at most MAX_PATH - 1 (259) characters: longer ones fail with
//     ERROR_FILENAME_EXCED_RANGE (206). The characters < > : " | * ? and controls in a name fail
//     with ERROR_INVALID_NAME (123).
//   - Missing last component: ERROR_FILE_NOT_FOUND (2); a missing or non-folder component before
//     it: ERROR_PATH_NOT_FOUND (3).
//   - A read-only volume refuses every creation, write and deletion with ERROR_ACCESS_DENIED (5),
//     the code CE gives for media that cannot be written (ROM and write-protected stores); a full
//     volume refuses writes of one byte or more with ERROR_DISK_FULL (112) and reports 0 free bytes.
//   - A file open through a handle cannot be deleted: ERROR_SHARING_VIOLATION (32). Share modes
//     are otherwise not enforced (the device program always shares read and write).
//   - Host files without the owner's write bit carry FILE_ATTRIBUTE_READONLY and refuse writing
//     and deletion (5). Plain files carry FILE_ATTRIBUTE_ARCHIVE, folders FILE_ATTRIBUTE_DIRECTORY.
//   - File times are UTC FILETIMEs. The creation time is the host's birth time (statx) where the
//     host file system records one, else its last modification time.
//   - Find: "*" and "?" without regard to case, "*.*" matches every name; no "." or ".." entries
//     (CE has none); entries come in name order, taken when the search starts. A pattern with a
//     wildcard that matches nothing fails with ERROR_NO_MORE_FILES (18), a plain name that does
//     not exist with ERROR_FILE_NOT_FOUND (2), as the CE file systems report them.
//   - GetFileSize and SetFilePointer clear the last error on success (callers tell a size or
//     position of 0xFFFFFFFF from a failure that way); CreateFileW sets it as CE documents
//     (183 when CREATE_ALWAYS/OPEN_ALWAYS found the file, else 0). Other successes leave it alone.
//   - Each call can be made to fail from the profile's [fail] table (name = error code).
#include "device.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace sim;

namespace {

constexpr DWORD kErrorNegativeSeek = 131;          // ERROR_NEGATIVE_SEEK
constexpr DWORD kErrorFilenameExcedRange = 206;    // ERROR_FILENAME_EXCED_RANGE
constexpr DWORD kErrorDirectory = 267;             // ERROR_DIRECTORY

// ---------------------------------------------------------------- names

// Case folding for name comparison: ASCII, Latin-1, Latin Extended-A, Greek and Cyrillic capitals.
char16_t fold(char16_t c) {
    if (c >= u'A' && c <= u'Z') return char16_t(c + 32);
    if (c < 0x80) return c;
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return char16_t(c + 32);
    if (c >= 0x100 && c <= 0x137 && !(c & 1)) return char16_t(c + 1);
    if (c >= 0x139 && c <= 0x148 && (c & 1)) return char16_t(c + 1);
    if (c >= 0x14A && c <= 0x177 && !(c & 1)) return char16_t(c + 1);
    if (c == 0x178) return 0xFF;
    if (c >= 0x179 && c <= 0x17E && (c & 1)) return char16_t(c + 1);
    if (c >= 0x391 && c <= 0x3AB && c != 0x3A2) return char16_t(c + 32);
    if (c >= 0x410 && c <= 0x42F) return char16_t(c + 32);
    if (c >= 0x400 && c <= 0x40F) return char16_t(c + 80);
    return c;
}

bool sameName(const std::u16string &a, const std::u16string &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (fold(a[i]) != fold(b[i])) return false;
    return true;
}

bool isSeparator(char16_t c) { return c == u'\\' || c == u'/'; }

bool validComponent(const std::u16string &c, bool wildcards) {
    for (char16_t ch : c) {
        if (ch < 0x20) return false;
        switch (ch) {
        case u'<': case u'>': case u':': case u'"': case u'|': return false;
        case u'*': case u'?': if (!wildcards) return false; break;
        default: break;
        }
    }
    return true;
}

// The components of a CE path; relative names count from the root. Empty components are dropped.
std::vector<std::u16string> components(const std::u16string &path) {
    std::vector<std::u16string> parts;
    std::u16string cur;
    auto flush = [&] {
        if (cur.empty() || cur == u".") {
        } else if (cur == u"..") {
            if (!parts.empty()) parts.pop_back();
        } else {
            parts.push_back(cur);
        }
        cur.clear();
    };
    for (char16_t c : path) {
        if (isSeparator(c)) flush();
        else cur.push_back(c);
    }
    flush();
    return parts;
}

std::u16string joinCe(const std::vector<std::u16string> &parts, size_t n) {
    std::u16string out;
    for (size_t i = 0; i < n && i < parts.size(); ++i) out += u"\\" + parts[i];
    return out.empty() ? u"\\" : out;
}

// Where a CE path lies on the host.
struct Where {
    fs::path host;            // host path of the whole name
    bool parentIsDir = false; // every component but the last exists and is a folder
    bool exists = false;
    bool isDir = false;
    std::u16string ce;        // normalised: "\A\b" with the host's spelling of what exists
    bool isRoot = false;      // "\"
    std::u16string last;      // the last component as given
};

// The type of a host file from its mode.
fs::file_type typeOfMode(mode_t mode) {
    if (S_ISREG(mode)) return fs::file_type::regular;
    if (S_ISDIR(mode)) return fs::file_type::directory;
    if (S_ISLNK(mode)) return fs::file_type::symlink;
    if (S_ISBLK(mode)) return fs::file_type::block;
    if (S_ISCHR(mode)) return fs::file_type::character;
    if (S_ISFIFO(mode)) return fs::file_type::fifo;
    if (S_ISSOCK(mode)) return fs::file_type::socket;
    return fs::file_type::unknown;
}

// The type of what a host path names, a symbolic link followed: not_found when nothing is there,
// none when it cannot be told (as std::filesystem::status gives them).
fs::file_type statusType(const char *p) {
    struct stat st;
    if (::stat(p, &st) == 0) return typeOfMode(st.st_mode);
    return errno == ENOENT || errno == ENOTDIR ? fs::file_type::not_found : fs::file_type::none;
}

// An entry of a host folder: its name and its type, a symbolic link followed.
struct Entry {
    std::string name;
    fs::file_type type;
};

// Calls fn(name, d_type) for each entry of a host folder but "." and ".."; false when the folder
// cannot be read. Plain getdents64 on the folder: a listing is one open, its reads and one close.
template <class Fn> bool listFolder(const char *dir, Fn fn) {
    const int fd = ::open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    alignas(dirent64) char buf[4096];
    ssize_t n;
    while ((n = ::getdents64(fd, buf, sizeof buf)) > 0) {
        for (ssize_t at = 0; at < n;) {
            const auto *e = reinterpret_cast<const dirent64 *>(buf + at);
            at += e->d_reclen;
            if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..")) fn(e->d_name, e->d_type);
        }
    }
    ::close(fd);
    return n == 0;
}

// The entry of a host folder that matches name without regard to case (exact spelling first, else
// the first matching name in byte order). A path is resolved on nearly every call of the program, so
// this asks the host as little as it can (one lstat for an exact spelling, else one listing) and
// works on plain strings: std::filesystem splits a path into its parts at every step.
std::optional<Entry> matchEntry(const std::string &dir, const std::u16string &name) {
    std::string exact = utf8(name);
    const std::string spelled = dir + '/' + exact;
    struct stat st;
    if (::lstat(spelled.c_str(), &st) == 0)
        return Entry{exact, S_ISLNK(st.st_mode) ? statusType(spelled.c_str()) : typeOfMode(st.st_mode)};
    std::vector<std::pair<std::string, unsigned char>> hits;
    listFolder(dir.c_str(), [&](const char *entry, unsigned char type) {
        if (sameName(fromUtf8(entry), name)) hits.emplace_back(entry, type);
    });
    if (hits.empty()) return std::nullopt;
    std::sort(hits.begin(), hits.end());
    const auto &[hit, type] = hits.front();
    if (type == DT_REG) return Entry{hit, fs::file_type::regular};
    if (type == DT_DIR) return Entry{hit, fs::file_type::directory};
    return Entry{hit, statusType((dir + '/' + hit).c_str())};
}

Where locateParts(const fs::path &root, const std::vector<std::u16string> &parts) {
    Where w;
    w.isRoot = parts.empty();
    std::string host = root.string();
    std::vector<std::u16string> spelled;
    // The type of what host names so far (not_found once a part is missing). The root's is asked for
    // only when its first part is not found in it: when one is, the root is a folder.
    fs::file_type type = parts.empty() ? statusType(host.c_str()) : fs::file_type::directory;
    for (size_t i = 0; i < parts.size(); ++i) {
        std::optional<Entry> entry;
        if (type == fs::file_type::directory) entry = matchEntry(host, parts[i]);
        if (i == 0 && !entry) type = statusType(root.c_str());
        if (i + 1 == parts.size()) w.parentIsDir = type == fs::file_type::directory;
        if (entry) {
            host += '/' + entry->name;
            spelled.push_back(fromUtf8(entry->name));
            type = entry->type;
        } else {
            host += '/' + utf8(parts[i]);
            spelled.push_back(parts[i]);
            type = fs::file_type::not_found;
        }
    }
    w.host = host;
    if (parts.empty()) w.parentIsDir = true;
    else w.last = parts.back();
    w.exists = type != fs::file_type::not_found && type != fs::file_type::none;
    w.isDir = type == fs::file_type::directory;
    w.ce = joinCe(spelled, spelled.size());
    return w;
}

// Checks a name given to the API and locates it. On failure sets the last error and returns nullopt.
std::optional<Where> locate(LPCWSTR name, bool wildcardsInLast = false) {
    if (!name) {
        setLastError(ERROR_INVALID_PARAMETER);
        return std::nullopt;
    }
    std::u16string path = wide(name);
    if (path.empty()) {
        setLastError(ERROR_PATH_NOT_FOUND);
        return std::nullopt;
    }
    if (path.size() >= MAX_PATH) {
        setLastError(kErrorFilenameExcedRange);
        return std::nullopt;
    }
    std::vector<std::u16string> parts = components(path);
    for (size_t i = 0; i < parts.size(); ++i) {
        if (!validComponent(parts[i], wildcardsInLast && i + 1 == parts.size())) {
            setLastError(ERROR_INVALID_NAME);
            return std::nullopt;
        }
    }
    return locateParts(dev().files().root(), parts);
}

// The error for a name that does not exist.
DWORD missingError(const Where &w) { return w.parentIsDir ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND; }

// ---------------------------------------------------------------- host facts

FILETIME fileTime(int64_t sec, int64_t nsec) {
    // 100-ns intervals since 1 January 1601 (UTC); 11644473600 s lie between 1601 and 1970.
    int64_t t = (sec + 11644473600LL) * 10000000LL + nsec / 100;
    if (t < 0) t = 0;
    FILETIME ft;
    ft.dwLowDateTime = DWORD(uint64_t(t));
    ft.dwHighDateTime = DWORD(uint64_t(t) >> 32);
    return ft;
}

struct HostFacts {
    DWORD attributes = 0;
    uint64_t size = 0;
    FILETIME created{}, accessed{}, written{};
    uint64_t inode = 0;
};

bool hostFacts(const fs::path &p, HostFacts &out) {
    struct statx sx;
    if (::statx(AT_FDCWD, p.c_str(), AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
        return false;
    bool dir = S_ISDIR(sx.stx_mode);
    out.attributes = dir ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
    if (!dir && !(sx.stx_mode & S_IWUSR)) out.attributes |= FILE_ATTRIBUTE_READONLY;
    out.size = dir ? 0 : sx.stx_size;
    out.written = fileTime(sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec);
    out.accessed = fileTime(sx.stx_atime.tv_sec, sx.stx_atime.tv_nsec);
    out.created = (sx.stx_mask & STATX_BTIME) ? fileTime(sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec)
                                              : out.written;
    out.inode = sx.stx_ino;
    return true;
}

DWORD errnoToError(int e) {
    switch (e) {
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES: case EPERM: case EROFS: case EISDIR: return ERROR_ACCESS_DENIED;
    case EEXIST: return ERROR_ALREADY_EXISTS;
    case ENOSPC: case EDQUOT: return ERROR_DISK_FULL;
    case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
    case ENAMETOOLONG: return kErrorFilenameExcedRange;
    case EBADF: return ERROR_INVALID_HANDLE;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    default: return ERROR_GEN_FAILURE;
    }
}

// Files open through a handle, by host path: they cannot be deleted while open.
std::mutex g_openMutex;
std::map<std::string, int> g_open;

void markOpen(const std::string &host, int delta) {
    std::lock_guard<std::mutex> lock(g_openMutex);
    int &n = g_open[host];
    n += delta;
    if (n <= 0) g_open.erase(host);
}

bool isOpen(const std::string &host) {
    std::lock_guard<std::mutex> lock(g_openMutex);
    return g_open.count(host) != 0;
}

// ---------------------------------------------------------------- handle objects

struct FileObject : Object {
    int fd = -1;
    DWORD access = 0;
    uint64_t position = 0;
    uint64_t readMax = 0;      // the volume's limit per ReadFile, 0 for none
    std::string host;
    std::u16string ce;
    std::mutex m;
    const char *type() const override { return "file"; }
    ~FileObject() override {
        if (fd >= 0) ::close(fd);
        if (!host.empty()) markOpen(host, -1);
    }
};

struct FindObject : Object {
    std::vector<WIN32_FIND_DATAW> entries;
    size_t next = 0;
    std::mutex m;
    const char *type() const override { return "find"; }
};

std::shared_ptr<FileObject> fileOf(HANDLE h) {
    std::shared_ptr<FileObject> f = dev().objects().getAs<FileObject>(h);
    if (!f) setLastError(ERROR_INVALID_HANDLE);
    return f;
}

void fillFindData(WIN32_FIND_DATAW &fd, const std::string &name, const HostFacts &facts) {
    std::memset(&fd, 0, sizeof fd);
    fd.dwFileAttributes = facts.attributes;
    fd.ftCreationTime = facts.created;
    fd.ftLastAccessTime = facts.accessed;
    fd.ftLastWriteTime = facts.written;
    fd.nFileSizeHigh = DWORD(facts.size >> 32);
    fd.nFileSizeLow = DWORD(facts.size);
    fd.dwOID = DWORD(facts.inode);
    std::u16string w = fromUtf8(name);
    size_t n = std::min<size_t>(w.size(), MAX_PATH - 1);
    std::copy(w.begin(), w.begin() + long(n), fd.cFileName);
    fd.cFileName[n] = 0;
}

// Wildcard match without regard to case: "*" any run, "?" one character.
bool wildMatch(const std::u16string &pat, const std::u16string &name) {
    size_t p = 0, n = 0, star = std::u16string::npos, mark = 0;
    while (n < name.size()) {
        if (p < pat.size() && pat[p] == u'*') {
            star = p++;
            mark = n;
        } else if (p < pat.size() && (pat[p] == u'?' || fold(pat[p]) == fold(name[n]))) {
            ++p;
            ++n;
        } else if (star != std::u16string::npos) {
            p = star + 1;
            n = ++mark;
        } else {
            return false;
        }
    }
    while (p < pat.size() && pat[p] == u'*') ++p;
    return p == pat.size();
}

// ---------------------------------------------------------------- calendar

int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {   // days since 1970-01-01
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = unsigned(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + int64_t(doe) - 719468;
}

void civilFromDays(int64_t z, int64_t &y, unsigned &m, unsigned &d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = unsigned(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    y = int64_t(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y += m <= 2;
}

bool leapYear(unsigned y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

const int64_t kDays1601To1970 = 134774;

}  // namespace

// ================================================================ sim::FileSystem

namespace sim {

FileSystem::FileSystem(fs::path root) : m_root(std::move(root)) {}

std::optional<fs::path> FileSystem::resolve(const std::u16string &cePath) const {
    if (cePath.empty() || !isSeparator(cePath[0])) return std::nullopt;
    return locateParts(m_root, components(cePath)).host;
}

bool FileSystem::exists(const std::u16string &cePath) const {
    if (cePath.empty() || !isSeparator(cePath[0])) return false;
    return locateParts(m_root, components(cePath)).exists;
}

void FileSystem::addVolume(const Volume &v) {
    Volume norm = v;
    norm.root = joinCe(components(v.root), SIZE_MAX);
    for (Volume &old : m_volumes) {
        if (sameName(old.root, norm.root)) {
            old = norm;
            return;
        }
    }
    m_volumes.push_back(norm);
}

const FileSystem::Volume *FileSystem::volumeOf(const std::u16string &cePath) const {
    std::vector<std::u16string> parts = components(cePath);
    const Volume *best = nullptr;
    size_t bestDepth = 0;
    for (const Volume &v : m_volumes) {
        std::vector<std::u16string> root = components(v.root);
        if (root.size() > parts.size()) continue;
        bool inside = true;
        for (size_t i = 0; i < root.size() && inside; ++i) inside = sameName(root[i], parts[i]);
        if (inside && (!best || root.size() >= bestDepth)) {
            best = &v;
            bestDepth = root.size();
        }
    }
    return best;
}

bool FileSystem::readOnly(const std::u16string &cePath) const {
    const Volume *v = volumeOf(cePath);
    return v && v->readOnly;
}

bool FileSystem::full(const std::u16string &cePath) const {
    const Volume *v = volumeOf(cePath);
    return v && v->full;
}

bool FileSystem::space(const std::u16string &cePath, Space &out) const {
    const Volume *v = volumeOf(cePath);
    if (v && (v->total || v->free)) {
        out.total = v->total;
        out.free = v->full ? 0 : v->free;
        out.freeToCaller = out.free;
        return true;
    }
    struct statvfs sv;
    Where w = locateParts(m_root, components(cePath));
    fs::path p = w.exists ? w.host : m_root;
    if (::statvfs(p.c_str(), &sv) != 0) return false;
    out.total = ULONGLONG(sv.f_blocks) * sv.f_frsize;
    out.free = (v && v->full) ? 0 : ULONGLONG(sv.f_bfree) * sv.f_frsize;
    out.freeToCaller = (v && v->full) ? 0 : ULONGLONG(sv.f_bavail) * sv.f_frsize;
    return true;
}

// [storage.'\My Flash Disk'] total = bytes, free = bytes, read_only = bool, full = bool,
// read_max = bytes (the most one ReadFile gives, as from a medium that delivers in pieces).
// Each declared volume's root folder is made under fs/ (the store is mounted).
void loadStorageProfile(Device &dev, const toml::table &profile) {
    const toml::table *storage = profile["storage"].as_table();
    if (!storage) return;
    for (auto &&[key, node] : *storage) {
        std::string root(key.str());
        const toml::table *t = node.as_table();
        if (!t) {
            std::fprintf(stderr, "sim: device.toml: storage '%s' is not a table, ignored\n", root.c_str());
            continue;
        }
        FileSystem::Volume v;
        v.root = fromUtf8(root);
        auto size = [&](const char *name, ULONGLONG &to) {
            const toml::node *n = t->get(name);
            if (!n) return;
            const toml::value<int64_t> *i = n->as_integer();
            if (i && i->get() >= 0) to = ULONGLONG(i->get());
            else std::fprintf(stderr, "sim: device.toml: storage '%s': '%s' must be a byte count, ignored\n",
                              root.c_str(), name);
        };
        auto flag = [&](const char *name, bool &to) {
            const toml::node *n = t->get(name);
            if (!n) return;
            if (const toml::value<bool> *b = n->as_boolean()) to = b->get();
            else std::fprintf(stderr, "sim: device.toml: storage '%s': '%s' must be true or false, ignored\n",
                              root.c_str(), name);
        };
        size("total", v.total);
        size("free", v.free);
        size("read_max", v.readMax);
        flag("read_only", v.readOnly);
        flag("full", v.full);
        dev.files().addVolume(v);
        if (auto host = dev.files().resolve(joinCe(components(v.root), SIZE_MAX))) {
            std::error_code ec;
            fs::create_directories(*host, ec);
        }
    }
}

}  // namespace sim

// ================================================================ the CE file API

HANDLE WINAPI CreateFileW(LPCWSTR name, DWORD access, DWORD /*share*/, LPSECURITY_ATTRIBUTES,
                          DWORD disposition, DWORD /*flags*/, HANDLE /*templateFile*/) {
    // A device name ("DSK1:") goes to the device manager.
    std::u16string text = wide(name);
    if (!text.empty() && text.back() == u':' && !isSeparator(text[0])) {
        HANDLE h = INVALID_HANDLE_VALUE;
        if (openDeviceName(text, access, &h)) return h;
        setLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if (dev().injected("CreateFileW")) return INVALID_HANDLE_VALUE;
    if (disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING) {
        setLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::optional<Where> w = locate(name);
    if (!w) return INVALID_HANDLE_VALUE;
    if (w->isDir || w->isRoot) {
        setLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    if (!w->exists && !w->parentIsDir) {
        setLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    FileSystem &files = dev().files();
    bool readOnlyVolume = files.readOnly(w->ce);
    bool wantWrite = (access & GENERIC_WRITE) != 0;
    bool create = false, truncate = false;
    DWORD successError = NO_ERROR;
    switch (disposition) {
    case CREATE_NEW:
        if (w->exists) {
            setLastError(ERROR_FILE_EXISTS);
            return INVALID_HANDLE_VALUE;
        }
        create = true;
        break;
    case CREATE_ALWAYS:
        if (w->exists) { truncate = true; successError = ERROR_ALREADY_EXISTS; }
        else create = true;
        break;
    case OPEN_EXISTING:
        if (!w->exists) {
            setLastError(ERROR_FILE_NOT_FOUND);
            return INVALID_HANDLE_VALUE;
        }
        break;
    case OPEN_ALWAYS:
        if (w->exists) successError = ERROR_ALREADY_EXISTS;
        else create = true;
        break;
    case TRUNCATE_EXISTING:
        if (!w->exists) {
            setLastError(ERROR_FILE_NOT_FOUND);
            return INVALID_HANDLE_VALUE;
        }
        if (!wantWrite) {   // truncating needs write access
            setLastError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
        }
        truncate = true;
        break;
    }
    HostFacts facts;
    bool readOnlyFile = w->exists && hostFacts(w->host, facts) && (facts.attributes & FILE_ATTRIBUTE_READONLY);
    if ((readOnlyVolume && (wantWrite || create || truncate)) || (readOnlyFile && (wantWrite || truncate))) {
        setLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    int flags = wantWrite ? O_RDWR : O_RDONLY;
    if (create) flags |= O_CREAT | O_EXCL;
    int fd = ::open(w->host.c_str(), flags | O_CLOEXEC, 0644);
    if (fd < 0 && create && errno == EEXIST) {   // made by someone else in between
        fd = ::open(w->host.c_str(), (flags & ~(O_CREAT | O_EXCL)) | O_CLOEXEC);
    }
    if (fd < 0) {
        setLastError(errnoToError(errno));
        return INVALID_HANDLE_VALUE;
    }
    if (truncate && ::ftruncate(fd, 0) != 0) {
        DWORD e = errnoToError(errno);
        ::close(fd);
        setLastError(e);
        return INVALID_HANDLE_VALUE;
    }
    auto obj = std::make_shared<FileObject>();
    obj->fd = fd;
    obj->access = access;
    obj->host = w->host.string();
    obj->ce = w->ce;
    if (const FileSystem::Volume *v = dev().files().volumeOf(w->ce)) obj->readMax = v->readMax;
    markOpen(obj->host, +1);
    HANDLE h = dev().objects().add(obj);
    setLastError(successError);
    return h;
}

BOOL WINAPI ReadFile(HANDLE h, LPVOID buffer, DWORD toRead, LPDWORD read, LPOVERLAPPED overlapped) {
    if (read) *read = 0;
    if (dev().injected("ReadFile")) return FALSE;
    std::shared_ptr<FileObject> f = fileOf(h);
    if (!f) return FALSE;
    if (overlapped || (!buffer && toRead)) {
        setLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!(f->access & GENERIC_READ)) {
        setLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(f->m);
    if (f->readMax && toRead > f->readMax) toRead = DWORD(f->readMax);
    DWORD done = 0;
    while (done < toRead) {
        ssize_t n = ::pread(f->fd, static_cast<char *>(buffer) + done, toRead - done, off_t(f->position + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            setLastError(errnoToError(errno));
            return FALSE;
        }
        if (n == 0) break;
        done += DWORD(n);
    }
    f->position += done;
    if (read) *read = done;
    return TRUE;
}

BOOL WINAPI WriteFile(HANDLE h, LPCVOID buffer, DWORD toWrite, LPDWORD written, LPOVERLAPPED overlapped) {
    if (written) *written = 0;
    if (dev().injected("WriteFile")) return FALSE;
    std::shared_ptr<FileObject> f = fileOf(h);
    if (!f) return FALSE;
    if (overlapped || (!buffer && toWrite)) {
        setLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!(f->access & GENERIC_WRITE) || dev().files().readOnly(f->ce)) {
        setLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (toWrite && dev().files().full(f->ce)) {
        setLastError(ERROR_DISK_FULL);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(f->m);
    DWORD done = 0;
    while (done < toWrite) {
        ssize_t n = ::pwrite(f->fd, static_cast<const char *>(buffer) + done, toWrite - done,
                             off_t(f->position + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            f->position += done;
            if (written) *written = done;
            setLastError(errnoToError(errno));
            return FALSE;
        }
        done += DWORD(n);
    }
    f->position += done;
    if (written) *written = done;
    return TRUE;
}

DWORD WINAPI SetFilePointer(HANDLE h, LONG distance, PLONG distanceHigh, DWORD method) {
    if (dev().injected("SetFilePointer")) return INVALID_SET_FILE_POINTER;
    std::shared_ptr<FileObject> f = fileOf(h);
    if (!f) return INVALID_SET_FILE_POINTER;
    std::lock_guard<std::mutex> lock(f->m);
    int64_t move = distanceHigh ? int64_t((uint64_t(uint32_t(*distanceHigh)) << 32) | uint32_t(distance))
                                : int64_t(distance);
    int64_t base;
    switch (method) {
    case FILE_BEGIN: base = 0; break;
    case FILE_CURRENT: base = int64_t(f->position); break;
    case FILE_END: {
        struct stat st;
        if (::fstat(f->fd, &st) != 0) {
            setLastError(errnoToError(errno));
            return INVALID_SET_FILE_POINTER;
        }
        base = st.st_size;
        break;
    }
    default:
        setLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    int64_t pos = base + move;
    if (pos < 0) {
        setLastError(kErrorNegativeSeek);
        return INVALID_SET_FILE_POINTER;
    }
    if (!distanceHigh && pos > int64_t(0xFFFFFFFEu)) {   // not expressible without the high word
        setLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    f->position = uint64_t(pos);
    if (distanceHigh) *distanceHigh = LONG(uint32_t(uint64_t(pos) >> 32));
    setLastError(NO_ERROR);
    return DWORD(uint64_t(pos));
}

DWORD WINAPI GetFileSize(HANDLE h, LPDWORD sizeHigh) {
    if (dev().injected("GetFileSize")) return INVALID_FILE_SIZE;
    std::shared_ptr<FileObject> f = fileOf(h);
    if (!f) return INVALID_FILE_SIZE;
    struct stat st;
    if (::fstat(f->fd, &st) != 0) {
        setLastError(errnoToError(errno));
        return INVALID_FILE_SIZE;
    }
    uint64_t size = uint64_t(st.st_size);
    if (sizeHigh) *sizeHigh = DWORD(size >> 32);
    setLastError(NO_ERROR);
    return DWORD(size);
}

// Every write reaches the host at once; nothing is held back to flush.
BOOL WINAPI FlushFileBuffers(HANDLE h) {
    if (dev().injected("FlushFileBuffers")) return FALSE;
    return fileOf(h) ? TRUE : FALSE;
}

BOOL WINAPI DeleteFileW(LPCWSTR name) {
    if (dev().injected("DeleteFileW")) return FALSE;
    std::optional<Where> w = locate(name);
    if (!w) return FALSE;
    if (!w->exists) {
        setLastError(missingError(*w));
        return FALSE;
    }
    HostFacts facts;
    if (w->isDir || w->isRoot || dev().files().readOnly(w->ce) ||
        (hostFacts(w->host, facts) && (facts.attributes & FILE_ATTRIBUTE_READONLY))) {
        setLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (isOpen(w->host.string())) {
        setLastError(ERROR_SHARING_VIOLATION);
        return FALSE;
    }
    if (::unlink(w->host.c_str()) != 0) {
        setLastError(errnoToError(errno));
        return FALSE;
    }
    return TRUE;
}

HANDLE WINAPI FindFirstFileW(LPCWSTR pattern, LPWIN32_FIND_DATAW data) {
    if (dev().injected("FindFirstFileW")) return INVALID_HANDLE_VALUE;
    if (!data) {
        setLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::optional<Where> w = locate(pattern, true);
    if (!w) return INVALID_HANDLE_VALUE;
    if (w->isRoot || w->last.empty()) {
        setLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if (!w->parentIsDir) {
        setLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    std::u16string pat = w->last;
    bool wild = pat.find_first_of(u"*?") != std::u16string::npos;
    if (!wild && !w->exists) {
        // The lookup found no spelling of the name: the listing would find none either.
        setLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if (pat == u"*.*") pat.assign(1, u'*');
    fs::path folder = w->host.parent_path();
    std::vector<std::string> names;
    listFolder(folder.c_str(), [&](const char *entry, unsigned char) {
        if (wildMatch(pat, fromUtf8(entry))) names.push_back(entry);
    });
    std::sort(names.begin(), names.end(), [](const std::string &a, const std::string &b) {
        std::u16string x = fromUtf8(a), y = fromUtf8(b);
        for (char16_t &c : x) c = fold(c);
        for (char16_t &c : y) c = fold(c);
        return x != y ? x < y : a < b;
    });
    auto obj = std::make_shared<FindObject>();
    for (const std::string &n : names) {
        HostFacts facts;
        if (!hostFacts(folder / n, facts)) continue;   // gone meanwhile
        WIN32_FIND_DATAW fd;
        fillFindData(fd, n, facts);
        obj->entries.push_back(fd);
    }
    if (obj->entries.empty()) {
        setLastError(wild ? ERROR_NO_MORE_FILES : ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    *data = obj->entries[0];
    obj->next = 1;
    return dev().objects().add(obj);
}

BOOL WINAPI FindNextFileW(HANDLE h, LPWIN32_FIND_DATAW data) {
    if (dev().injected("FindNextFileW")) return FALSE;
    std::shared_ptr<FindObject> f = dev().objects().getAs<FindObject>(h);
    if (!f) {
        setLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (!data) {
        setLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(f->m);
    if (f->next >= f->entries.size()) {
        setLastError(ERROR_NO_MORE_FILES);
        return FALSE;
    }
    *data = f->entries[f->next++];
    return TRUE;
}

BOOL WINAPI FindClose(HANDLE h) {
    if (!dev().objects().getAs<FindObject>(h)) {
        setLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    dev().objects().close(h);
    return TRUE;
}

DWORD WINAPI GetFileAttributesW(LPCWSTR name) {
    if (dev().injected("GetFileAttributesW")) return INVALID_FILE_ATTRIBUTES;
    std::optional<Where> w = locate(name);
    if (!w) return INVALID_FILE_ATTRIBUTES;
    HostFacts facts;
    if (!w->exists || !hostFacts(w->host, facts)) {
        setLastError(missingError(*w));
        return INVALID_FILE_ATTRIBUTES;
    }
    return facts.attributes;
}

BOOL WINAPI CreateDirectoryW(LPCWSTR name, LPSECURITY_ATTRIBUTES) {
    if (dev().injected("CreateDirectoryW")) return FALSE;
    std::optional<Where> w = locate(name);
    if (!w) return FALSE;
    if (w->exists || w->isRoot) {
        setLastError(ERROR_ALREADY_EXISTS);
        return FALSE;
    }
    if (!w->parentIsDir) {
        setLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    if (dev().files().readOnly(w->ce)) {
        setLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (::mkdir(w->host.c_str(), 0755) != 0) {
        setLastError(errnoToError(errno));
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPI RemoveDirectoryW(LPCWSTR name) {
    if (dev().injected("RemoveDirectoryW")) return FALSE;
    std::optional<Where> w = locate(name);
    if (!w) return FALSE;
    if (!w->exists) {
        setLastError(missingError(*w));
        return FALSE;
    }
    if (!w->isDir) {
        setLastError(kErrorDirectory);
        return FALSE;
    }
    // The root, a volume's mount folder and anything on a read-only volume stay.
    const FileSystem::Volume *v = dev().files().volumeOf(w->ce);
    if (w->isRoot || (v && (v->readOnly || sameName(v->root, w->ce)))) {
        setLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (::rmdir(w->host.c_str()) != 0) {
        setLastError(errno == EEXIST ? ERROR_DIR_NOT_EMPTY : errnoToError(errno));
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPI GetDiskFreeSpaceExW(LPCWSTR folder, PULARGE_INTEGER freeToCaller, PULARGE_INTEGER total,
                                PULARGE_INTEGER totalFree) {
    if (dev().injected("GetDiskFreeSpaceExW")) return FALSE;
    std::optional<Where> w = locate(folder ? folder : u"\\");
    if (!w) return FALSE;
    if (!w->exists) {
        setLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    FileSystem::Space s{};
    if (!dev().files().space(w->ce, s)) {
        setLastError(errnoToError(errno));
        return FALSE;
    }
    if (freeToCaller) freeToCaller->QuadPart = s.freeToCaller;
    if (total) total->QuadPart = s.total;
    if (totalFree) totalFree->QuadPart = s.free;
    return TRUE;
}

BOOL WINAPI FileTimeToSystemTime(const FILETIME *ft, LPSYSTEMTIME st) {
    if (!ft || !st) {
        setLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    uint64_t t = (uint64_t(ft->dwHighDateTime) << 32) | ft->dwLowDateTime;
    if (t > 0x7FFFFFFFFFFFFFFFull) {
        setLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    uint64_t ms = t / 10000;
    int64_t days = int64_t(ms / 86400000ull);
    uint64_t rest = ms % 86400000ull;
    int64_t y;
    unsigned m, d;
    civilFromDays(days - kDays1601To1970, y, m, d);
    st->wYear = WORD(y);
    st->wMonth = WORD(m);
    st->wDay = WORD(d);
    st->wDayOfWeek = WORD((days + 1) % 7);   // 1 January 1601 was a Monday
    st->wHour = WORD(rest / 3600000);
    st->wMinute = WORD(rest / 60000 % 60);
    st->wSecond = WORD(rest / 1000 % 60);
    st->wMilliseconds = WORD(rest % 1000);
    return TRUE;
}

BOOL WINAPI SystemTimeToFileTime(const SYSTEMTIME *st, LPFILETIME ft) {
    static const unsigned monthDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (!st || !ft || st->wYear < 1601 || st->wYear > 30827 || st->wMonth < 1 || st->wMonth > 12 ||
        st->wDay < 1 ||
        st->wDay > monthDays[st->wMonth - 1] + (st->wMonth == 2 && leapYear(st->wYear) ? 1 : 0) ||
        st->wHour > 23 || st->wMinute > 59 || st->wSecond > 59 || st->wMilliseconds > 999) {
        setLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    int64_t days = daysFromCivil(st->wYear, st->wMonth, st->wDay) + kDays1601To1970;
    uint64_t ms = uint64_t(days) * 86400000ull + st->wHour * 3600000ull + st->wMinute * 60000ull +
                  st->wSecond * 1000ull + st->wMilliseconds;
    uint64_t t = ms * 10000;
    ft->dwLowDateTime = DWORD(t);
    ft->dwHighDateTime = DWORD(t >> 32);
    return TRUE;
}
