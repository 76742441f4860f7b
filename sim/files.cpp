// The file system of the simulated device: CE paths mapped under DEVICE/fs, the storage volumes of
// the profile, and the CE file API (files, find, attributes, folders, free space, file times).
//
// The entries live in a store: the host folder DEVICE/fs, or memory ([device] files = 'memory': a
// copy of DEVICE/fs made when the device is made, never written back). The rules below are the
// API's and hold for both; a file in memory is never read-only and its times are the host clock's.
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
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

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

FILETIME nowFileTime() {
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                  std::chrono::system_clock::now().time_since_epoch()).count();
    return fileTime(ns / 1000000000, ns % 1000000000);
}

}  // namespace

namespace sim {

// Where a CE path lies in its store.
struct FileWhere {
    fs::path host;            // on the host: the host path of the whole name (empty in memory)
    std::u16string key;       // in memory: the folded CE path ("" for the root)
    bool parentIsDir = false; // every component but the last exists and is a folder
    bool exists = false;
    bool isDir = false;
    std::u16string ce;        // normalised: "\A\b" with the store's spelling of what exists
    bool isRoot = false;      // "\"
    std::u16string last;      // the last component as given
    // The entry's identity across the stores (open files are tracked by it).
    std::string id() const { return host.string() + "|" + utf8(key); }
};

struct FileFacts {
    DWORD attributes = 0;
    uint64_t size = 0;
    FILETIME created{}, accessed{}, written{};
    uint64_t inode = 0;
};

// One open file. Results are byte counts, or an errno value negated.
class OpenFile {
public:
    virtual ~OpenFile() = default;
    virtual int64_t read(void *buffer, size_t n, uint64_t at) = 0;
    virtual int64_t write(const void *buffer, size_t n, uint64_t at) = 0;
    virtual int64_t size() = 0;
    virtual int truncate() = 0;   // to 0 bytes: 0 or an errno value
};

// Where the entries are kept. It finds, reads and changes them; the CE rules (names, errors,
// volumes, sharing) are the API's. Results that can fail are 0 or an errno value.
class FileStore {
public:
    virtual ~FileStore() = default;
    virtual FileWhere locate(const std::vector<std::u16string> &parts) const = 0;
    virtual bool facts(const FileWhere &w, FileFacts &out) const = 0;
    // The entries of the folder that holds w's last component, with their facts.
    virtual std::vector<std::pair<std::u16string, FileFacts>> siblings(const FileWhere &w) const = 0;
    // create: a new file, EEXIST when there is one.
    virtual std::shared_ptr<OpenFile> open(const FileWhere &w, bool write, bool create, int &error) = 0;
    virtual int removeFile(const FileWhere &w) = 0;
    virtual int makeFolder(const FileWhere &w) = 0;
    virtual int removeFolder(const FileWhere &w) = 0;   // ENOTEMPTY when it holds anything
    virtual bool park(const FileWhere &w, const fs::path &parked) = 0;
    virtual bool unpark(const FileWhere &w, const fs::path &parked) = 0;
};

}  // namespace sim

namespace {

using Where = FileWhere;

// The host entry of a folder that matches name without regard to case (exact spelling first).
std::optional<std::string> matchEntry(const fs::path &dir, const std::u16string &name) {
    std::error_code ec;
    std::string exact = utf8(name);
    if (fs::symlink_status(dir / exact, ec).type() != fs::file_type::not_found && !ec) return exact;
    std::vector<std::string> hits;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        std::string entry = it->path().filename().string();
        if (sameName(fromUtf8(entry), name)) hits.push_back(entry);
    }
    if (hits.empty()) return std::nullopt;
    std::sort(hits.begin(), hits.end());
    return hits.front();
}

bool hostFacts(const fs::path &p, FileFacts &out) {
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

// ---------------------------------------------------------------- the host's folder DEVICE/fs

class HostFile : public OpenFile {
public:
    explicit HostFile(int fd) : m_fd(fd) {}
    ~HostFile() override { ::close(m_fd); }
    int64_t read(void *buffer, size_t n, uint64_t at) override {
        ssize_t r;
        do r = ::pread(m_fd, buffer, n, off_t(at));
        while (r < 0 && errno == EINTR);
        return r < 0 ? -errno : r;
    }
    int64_t write(const void *buffer, size_t n, uint64_t at) override {
        ssize_t r;
        do r = ::pwrite(m_fd, buffer, n, off_t(at));
        while (r < 0 && errno == EINTR);
        return r < 0 ? -errno : r;
    }
    int64_t size() override {
        struct stat st;
        return ::fstat(m_fd, &st) != 0 ? -errno : int64_t(st.st_size);
    }
    int truncate() override { return ::ftruncate(m_fd, 0) != 0 ? errno : 0; }

private:
    int m_fd;
};

class HostStore : public FileStore {
public:
    explicit HostStore(fs::path root) : m_root(std::move(root)) {}

    Where locate(const std::vector<std::u16string> &parts) const override {
        Where w;
        w.host = m_root;
        w.isRoot = parts.empty();
        std::vector<std::u16string> spelled;
        bool present = true;   // the folder reached so far exists
        std::error_code ec;
        for (size_t i = 0; i < parts.size(); ++i) {
            bool last = i + 1 == parts.size();
            if (last) w.parentIsDir = present && fs::is_directory(w.host, ec);
            std::optional<std::string> entry;
            if (present && fs::is_directory(w.host, ec)) entry = matchEntry(w.host, parts[i]);
            if (entry) {
                w.host /= *entry;
                spelled.push_back(fromUtf8(*entry));
            } else {
                w.host /= utf8(parts[i]);
                spelled.push_back(parts[i]);
                present = false;
            }
        }
        if (parts.empty()) w.parentIsDir = true;
        else w.last = parts.back();
        fs::file_status st = fs::status(w.host, ec);
        w.exists = present && !ec && st.type() != fs::file_type::not_found;
        w.isDir = w.exists && fs::is_directory(st);
        w.ce = joinCe(spelled, spelled.size());
        return w;
    }
    bool facts(const Where &w, FileFacts &out) const override { return hostFacts(w.host, out); }
    std::vector<std::pair<std::u16string, FileFacts>> siblings(const Where &w) const override {
        std::vector<std::pair<std::u16string, FileFacts>> out;
        const fs::path folder = w.host.parent_path();
        std::error_code ec;
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
            FileFacts facts;
            if (hostFacts(it->path(), facts))   // else gone meanwhile
                out.emplace_back(fromUtf8(it->path().filename().string()), facts);
        }
        return out;
    }
    std::shared_ptr<OpenFile> open(const Where &w, bool write, bool create, int &error) override {
        int flags = (write ? O_RDWR : O_RDONLY) | O_CLOEXEC | (create ? O_CREAT | O_EXCL : 0);
        int fd = ::open(w.host.c_str(), flags, 0644);
        if (fd < 0) {
            error = errno;
            return nullptr;
        }
        return std::make_shared<HostFile>(fd);
    }
    int removeFile(const Where &w) override { return ::unlink(w.host.c_str()) != 0 ? errno : 0; }
    int makeFolder(const Where &w) override { return ::mkdir(w.host.c_str(), 0755) != 0 ? errno : 0; }
    int removeFolder(const Where &w) override {
        if (::rmdir(w.host.c_str()) == 0) return 0;
        return errno == EEXIST ? ENOTEMPTY : errno;
    }
    bool park(const Where &w, const fs::path &parked) override {
        std::error_code ec;
        if (fs::exists(parked, ec)) fs::remove_all(parked, ec);   // a stale copy of an earlier run
        fs::create_directories(parked.parent_path(), ec);
        fs::rename(w.host, parked, ec);
        if (ec) std::fprintf(stderr, "sim: cannot move %s aside: %s\n", w.host.c_str(), ec.message().c_str());
        return !ec;
    }
    bool unpark(const Where &w, const fs::path &parked) override {
        std::error_code ec;
        if (!fs::is_directory(parked, ec)) return false;
        fs::rename(parked, w.host, ec);
        if (ec) std::fprintf(stderr, "sim: cannot move %s back: %s\n", parked.c_str(), ec.message().c_str());
        return !ec;
    }

private:
    fs::path m_root;
};

// ---------------------------------------------------------------- memory

// A file's bytes, shared by its entry and the handles open on it.
struct MemoryContent {
    std::mutex m;
    std::string bytes;
    FILETIME accessed{}, written{};
};

struct MemoryEntry {
    std::u16string name;                      // the last component as it was created
    bool folder = false;
    std::shared_ptr<MemoryContent> content;   // files only
    FILETIME created{};
    uint64_t inode = 0;
};

class MemoryFile : public OpenFile {
public:
    explicit MemoryFile(std::shared_ptr<MemoryContent> c) : m_c(std::move(c)) {}
    int64_t read(void *buffer, size_t n, uint64_t at) override {
        std::lock_guard<std::mutex> lock(m_c->m);
        m_c->accessed = nowFileTime();
        if (at >= m_c->bytes.size()) return 0;
        n = std::min<uint64_t>(n, m_c->bytes.size() - at);
        std::memcpy(buffer, m_c->bytes.data() + at, n);
        return int64_t(n);
    }
    int64_t write(const void *buffer, size_t n, uint64_t at) override {
        std::lock_guard<std::mutex> lock(m_c->m);
        if (at + n > kMaxFile) return -EFBIG;
        if (m_c->bytes.size() < at + n) m_c->bytes.resize(at + n);   // a gap reads as zeros
        std::memcpy(&m_c->bytes[at], buffer, n);
        m_c->written = m_c->accessed = nowFileTime();
        return int64_t(n);
    }
    int64_t size() override {
        std::lock_guard<std::mutex> lock(m_c->m);
        return int64_t(m_c->bytes.size());
    }
    int truncate() override {
        std::lock_guard<std::mutex> lock(m_c->m);
        m_c->bytes.clear();
        m_c->written = nowFileTime();
        return 0;
    }

private:
    static constexpr uint64_t kMaxFile = uint64_t(1) << 32;
    std::shared_ptr<MemoryContent> m_c;
};

// Entries by folded CE path ("\my flash disk\a.txt"); the root ("") is always there. A folder's
// entries are those whose key continues its own with "\" and one more component.
class MemoryStore : public FileStore {
public:
    explicit MemoryStore(fs::path root) : m_root(std::move(root)) {}

    Where locate(const std::vector<std::u16string> &parts) const override {
        Where w;
        w.isRoot = parts.empty();
        bool present = true, folder = true;   // the entry reached so far
        std::lock_guard<std::mutex> lock(m_mutex);
        for (size_t i = 0; i < parts.size(); ++i) {
            if (i + 1 == parts.size()) w.parentIsDir = present && folder;
            w.key += u'\\';
            for (char16_t c : parts[i]) w.key += fold(c);
            auto it = present && folder ? m_entries.find(w.key) : m_entries.end();
            present = it != m_entries.end();
            if (present) folder = it->second.folder;
            w.ce += u'\\';
            w.ce += present ? it->second.name : parts[i];
        }
        if (parts.empty()) {
            w.parentIsDir = true;
            w.ce.push_back(u'\\');
        } else {
            w.last = parts.back();
        }
        w.exists = present;
        w.isDir = present && folder;
        return w;
    }
    bool facts(const Where &w, FileFacts &out) const override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (w.isRoot) {
            out = FileFacts();
            out.attributes = FILE_ATTRIBUTE_DIRECTORY;
            return true;
        }
        auto it = m_entries.find(w.key);
        return it != m_entries.end() && factsOf(it->second, out);
    }
    std::vector<std::pair<std::u16string, FileFacts>> siblings(const Where &w) const override {
        std::vector<std::pair<std::u16string, FileFacts>> out;
        const std::u16string prefix = w.key.substr(0, w.key.find_last_of(u'\\') + 1);
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_entries.lower_bound(prefix); it != m_entries.end(); ++it) {
            if (it->first.compare(0, prefix.size(), prefix) != 0) break;
            if (it->first.find(u'\\', prefix.size()) != std::u16string::npos) continue;
            FileFacts facts;
            factsOf(it->second, facts);
            out.emplace_back(it->second.name, facts);
        }
        return out;
    }
    std::shared_ptr<OpenFile> open(const Where &w, bool write, bool create, int &error) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_entries.find(w.key);
        if (create) {
            if (it != m_entries.end()) {
                error = EEXIST;
                return nullptr;
            }
            MemoryEntry e = make(w.last, false);
            e.content = std::make_shared<MemoryContent>();
            e.content->accessed = e.content->written = e.created;
            it = m_entries.emplace(w.key, std::move(e)).first;
        } else if (it == m_entries.end() || it->second.folder) {
            error = it == m_entries.end() ? ENOENT : EISDIR;
            return nullptr;
        }
        return std::make_shared<MemoryFile>(it->second.content);
    }
    int removeFile(const Where &w) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries.erase(w.key) ? 0 : ENOENT;
    }
    int makeFolder(const Where &w) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries.emplace(w.key, make(w.last, true)).second ? 0 : EEXIST;
    }
    int removeFolder(const Where &w) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto below = m_entries.lower_bound(w.key + u'\\');
        if (below != m_entries.end() && below->first.compare(0, w.key.size() + 1, w.key + u'\\') == 0)
            return ENOTEMPTY;
        return m_entries.erase(w.key) ? 0 : ENOENT;
    }
    bool park(const Where &w, const fs::path &parked) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        Subtree &aside = m_parked[parked.string()];
        aside.clear();   // a stale copy of an earlier unmount
        for (auto it = m_entries.lower_bound(w.key); it != m_entries.end();) {
            if (it->first != w.key && it->first.compare(0, w.key.size() + 1, w.key + u'\\') != 0) break;
            aside.emplace(it->first.substr(w.key.size()), std::move(it->second));
            it = m_entries.erase(it);
        }
        return true;
    }
    bool unpark(const Where &w, const fs::path &parked) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto p = m_parked.find(parked.string());
        if (p == m_parked.end()) return false;
        for (auto &[rest, e] : p->second) {
            if (rest.empty()) e.name = w.last;   // mounted under the name asked for
            m_entries.emplace(w.key + rest, std::move(e));
        }
        m_parked.erase(p);
        return true;
    }

    void save() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_saved = copy(m_entries);
    }
    void restore() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries = copy(m_saved);
    }

    // Copies the host folder's files and folders in (the store's first content).
    void load(const fs::path &folder, const std::u16string &key = u"") {
        std::error_code ec;
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
            std::u16string name = fromUtf8(it->path().filename().string()), sub = key + u'\\';
            for (char16_t c : name) sub += fold(c);
            MemoryEntry e = make(name, it->is_directory(ec));
            if (!e.folder) {
                e.content = std::make_shared<MemoryContent>();
                std::ifstream in(it->path(), std::ios::binary);
                e.content->bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
                e.content->accessed = e.content->written = e.created;
            }
            bool folder = e.folder;
            m_entries.emplace(sub, std::move(e));
            if (folder) load(it->path(), sub);
        }
    }

private:
    typedef std::map<std::u16string, MemoryEntry> Subtree;

    MemoryEntry make(const std::u16string &name, bool folder) {
        MemoryEntry e;
        e.name = name;
        e.folder = folder;
        e.created = nowFileTime();
        e.inode = ++m_inodes;
        return e;
    }
    // The entries with contents of their own.
    static Subtree copy(const Subtree &from) {
        Subtree out = from;
        for (auto &[key, e] : out) {
            if (!e.content) continue;
            const std::shared_ptr<MemoryContent> old = e.content;
            e.content = std::make_shared<MemoryContent>();
            std::lock_guard<std::mutex> lock(old->m);
            e.content->bytes = old->bytes;
            e.content->accessed = old->accessed;
            e.content->written = old->written;
        }
        return out;
    }
    static bool factsOf(const MemoryEntry &e, FileFacts &out) {
        out.attributes = e.folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
        out.created = e.created;
        out.inode = e.inode;
        out.size = 0;
        out.accessed = out.written = e.created;
        if (e.content) {
            std::lock_guard<std::mutex> lock(e.content->m);
            out.size = e.content->bytes.size();
            out.accessed = e.content->accessed;
            out.written = e.content->written;
        }
        return true;
    }

    fs::path m_root;
    mutable std::mutex m_mutex;
    Subtree m_entries;
    std::map<std::string, Subtree> m_parked;   // by the host path they stand for
    Subtree m_saved;
    uint64_t m_inodes = 0;
};

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
    return dev().files().store().locate(parts);
}

// The error for a name that does not exist.
DWORD missingError(const Where &w) { return w.parentIsDir ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND; }

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

// Files open through a handle, by their identity in the store: they cannot be deleted while open.
std::mutex g_openMutex;
std::map<std::string, int> g_open;

void markOpen(const std::string &id, int delta) {
    std::lock_guard<std::mutex> lock(g_openMutex);
    int &n = g_open[id];
    n += delta;
    if (n <= 0) g_open.erase(id);
}

bool isOpen(const std::string &id) {
    std::lock_guard<std::mutex> lock(g_openMutex);
    return g_open.count(id) != 0;
}

// ---------------------------------------------------------------- handle objects

struct FileObject : Object {
    std::shared_ptr<OpenFile> file;
    DWORD access = 0;
    uint64_t position = 0;
    uint64_t readMax = 0;      // the volume's limit per ReadFile, 0 for none
    std::string id;           // the entry's identity, while open
    std::u16string ce;
    std::mutex m;
    const char *type() const override { return "file"; }
    ~FileObject() override {
        if (!id.empty()) markOpen(id, -1);
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

void fillFindData(WIN32_FIND_DATAW &fd, const std::u16string &w, const FileFacts &facts) {
    std::memset(&fd, 0, sizeof fd);
    fd.dwFileAttributes = facts.attributes;
    fd.ftCreationTime = facts.created;
    fd.ftLastAccessTime = facts.accessed;
    fd.ftLastWriteTime = facts.written;
    fd.nFileSizeHigh = DWORD(facts.size >> 32);
    fd.nFileSizeLow = DWORD(facts.size);
    fd.dwOID = DWORD(facts.inode);
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

FileSystem::FileSystem(fs::path root) : m_root(std::move(root)), m_store(std::make_unique<HostStore>(m_root)) {}

FileSystem::~FileSystem() = default;

void FileSystem::keepInMemory() {
    if (m_inMemory) return;
    auto memory = std::make_unique<MemoryStore>(m_root);
    memory->load(m_root);
    m_store = std::move(memory);
    m_inMemory = true;
}

// An absolute CE path's place in the store; nullopt for a relative one.
static std::optional<Where> placeOf(const FileStore &store, const std::u16string &cePath) {
    if (cePath.empty() || !isSeparator(cePath[0])) return std::nullopt;
    return store.locate(components(cePath));
}

std::optional<fs::path> FileSystem::resolve(const std::u16string &cePath) const {
    std::optional<Where> w = placeOf(*m_store, cePath);
    if (!w) return std::nullopt;
    if (!m_inMemory) return w->host;
    fs::path host = m_root;
    for (const std::u16string &part : components(w->ce)) host /= utf8(part);
    return host;
}

bool FileSystem::exists(const std::u16string &cePath) const {
    std::optional<Where> w = placeOf(*m_store, cePath);
    return w && w->exists;
}

bool FileSystem::isFile(const std::u16string &cePath) const {
    std::optional<Where> w = placeOf(*m_store, cePath);
    return w && w->exists && !w->isDir;
}

std::optional<std::string> FileSystem::readFile(const std::u16string &cePath) const {
    std::optional<Where> w = placeOf(*m_store, cePath);
    int error = 0;
    std::shared_ptr<OpenFile> f = w && w->exists ? m_store->open(*w, false, false, error) : nullptr;
    if (!f) return std::nullopt;
    std::string bytes(size_t(std::max<int64_t>(f->size(), 0)), '\0');
    int64_t n = bytes.empty() ? 0 : f->read(&bytes[0], bytes.size(), 0);
    if (n < 0) return std::nullopt;
    bytes.resize(size_t(n));
    return bytes;
}

bool FileSystem::makeFolders(const std::u16string &cePath) {
    if (cePath.empty() || !isSeparator(cePath[0])) return false;
    std::vector<std::u16string> path;
    for (const std::u16string &part : components(cePath)) {
        path.push_back(part);
        Where step = m_store->locate(path);
        if (step.exists ? !step.isDir : m_store->makeFolder(step) != 0) return false;
    }
    return true;
}

bool FileSystem::writeFile(const std::u16string &cePath, const std::string &bytes) {
    if (cePath.empty() || !isSeparator(cePath[0])) return false;
    std::vector<std::u16string> parts = components(cePath);
    if (parts.empty() || !makeFolders(joinCe(parts, parts.size() - 1))) return false;
    Where w = m_store->locate(parts);
    int error = 0;
    std::shared_ptr<OpenFile> f = w.isDir ? nullptr : m_store->open(w, true, !w.exists, error);
    return f && f->truncate() == 0 && f->write(bytes.data(), bytes.size(), 0) == int64_t(bytes.size());
}

bool FileSystem::saveFiles() {
    if (!m_inMemory) return false;
    static_cast<MemoryStore &>(*m_store).save();
    return true;
}

bool FileSystem::restoreFiles() {
    if (!m_inMemory) return false;
    static_cast<MemoryStore &>(*m_store).restore();
    return true;
}

bool FileSystem::park(const std::u16string &cePath, const fs::path &parked) {
    std::optional<Where> w = placeOf(*m_store, cePath);
    return w && w->isDir && m_store->park(*w, parked);
}

bool FileSystem::unpark(const std::u16string &cePath, const fs::path &parked) {
    std::optional<Where> w = placeOf(*m_store, cePath);
    return w && !w->exists && w->parentIsDir && m_store->unpark(*w, parked);
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
    m_volumeParts.push_back(components(norm.root));
}

// Whether a CE path has no "." or ".." component (its components are those written).
static bool plainPath(const std::u16string &ce) {
    for (size_t at = 0; at < ce.size();) {
        while (at < ce.size() && isSeparator(ce[at])) ++at;
        size_t end = at;
        while (end < ce.size() && !isSeparator(ce[end])) ++end;
        if (ce.compare(at, end - at, u".") == 0 || ce.compare(at, end - at, u"..") == 0) return false;
        at = end;
    }
    return true;
}

// Whether a plain CE path lies at or below root (its components).
static bool underRoot(const std::u16string &ce, const std::vector<std::u16string> &root) {
    size_t at = 0;
    for (const std::u16string &name : root) {
        while (at < ce.size() && isSeparator(ce[at])) ++at;
        size_t end = at;
        while (end < ce.size() && !isSeparator(ce[end])) ++end;
        if (end - at != name.size()) return false;
        for (size_t i = 0; i < name.size(); ++i)
            if (fold(ce[at + i]) != fold(name[i])) return false;
        at = end;
    }
    return true;
}

const FileSystem::Volume *FileSystem::volumeOf(const std::u16string &cePath) const {
    if (!plainPath(cePath)) {
        std::vector<std::u16string> parts = components(cePath);
        return volumeOf(joinCe(parts, parts.size()));
    }
    const Volume *best = nullptr;
    size_t bestDepth = 0;
    for (size_t k = 0; k < m_volumes.size(); ++k) {
        const std::vector<std::u16string> &root = m_volumeParts[k];
        if (underRoot(cePath, root) && (!best || root.size() >= bestDepth)) {
            best = &m_volumes[k];
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
    Where w = m_store->locate(components(cePath));
    fs::path p = w.exists && !m_inMemory ? w.host : m_root;
    if (::statvfs(p.c_str(), &sv) != 0) return false;
    out.total = ULONGLONG(sv.f_blocks) * sv.f_frsize;
    out.free = (v && v->full) ? 0 : ULONGLONG(sv.f_bfree) * sv.f_frsize;
    out.freeToCaller = (v && v->full) ? 0 : ULONGLONG(sv.f_bavail) * sv.f_frsize;
    return true;
}

// [device] files = 'disk' (default) or 'memory'.
// [storage.'\My Flash Disk'] total = bytes, free = bytes, read_only = bool, full = bool,
// read_max = bytes (the most one ReadFile gives, as from a medium that delivers in pieces).
// Each declared volume's root folder is made (the store is mounted).
void loadStorageProfile(Device &dev, const toml::table &profile) {
    if (const toml::node *n = profile.at_path("device.files").node()) {
        auto where = n->value<std::string>();
        if (!where || (*where != "disk" && *where != "memory")) badProfile("device.files", "must be 'disk' or 'memory'");
        if (*where == "memory") dev.files().keepInMemory();
    }
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
        dev.files().makeFolders(joinCe(components(v.root), SIZE_MAX));
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
    FileStore &store = files.store();
    FileFacts facts;
    bool readOnlyFile = w->exists && store.facts(*w, facts) && (facts.attributes & FILE_ATTRIBUTE_READONLY);
    if ((readOnlyVolume && (wantWrite || create || truncate)) || (readOnlyFile && (wantWrite || truncate))) {
        setLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    int error = 0;
    std::shared_ptr<OpenFile> file = store.open(*w, wantWrite, create, error);
    if (!file && create && error == EEXIST) {   // made by someone else in between
        file = store.open(*w, wantWrite, false, error);
    }
    if (!file) {
        setLastError(errnoToError(error));
        return INVALID_HANDLE_VALUE;
    }
    if (truncate && (error = file->truncate()) != 0) {
        setLastError(errnoToError(error));
        return INVALID_HANDLE_VALUE;
    }
    auto obj = std::make_shared<FileObject>();
    obj->file = file;
    obj->access = access;
    obj->id = w->id();
    obj->ce = w->ce;
    if (const FileSystem::Volume *v = dev().files().volumeOf(w->ce)) obj->readMax = v->readMax;
    markOpen(obj->id, +1);
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
        int64_t n = f->file->read(static_cast<char *>(buffer) + done, toRead - done, f->position + done);
        if (n < 0) {
            setLastError(errnoToError(int(-n)));
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
        int64_t n = f->file->write(static_cast<const char *>(buffer) + done, toWrite - done, f->position + done);
        if (n < 0) {
            f->position += done;
            if (written) *written = done;
            setLastError(errnoToError(int(-n)));
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
        int64_t size = f->file->size();
        if (size < 0) {
            setLastError(errnoToError(int(-size)));
            return INVALID_SET_FILE_POINTER;
        }
        base = size;
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
    int64_t bytes = f->file->size();
    if (bytes < 0) {
        setLastError(errnoToError(int(-bytes)));
        return INVALID_FILE_SIZE;
    }
    uint64_t size = uint64_t(bytes);
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
    FileStore &store = dev().files().store();
    FileFacts facts;
    if (w->isDir || w->isRoot || dev().files().readOnly(w->ce) ||
        (store.facts(*w, facts) && (facts.attributes & FILE_ATTRIBUTE_READONLY))) {
        setLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (isOpen(w->id())) {
        setLastError(ERROR_SHARING_VIOLATION);
        return FALSE;
    }
    if (int error = store.removeFile(*w)) {
        setLastError(errnoToError(error));
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
    if (pat == u"*.*") pat.assign(1, u'*');
    std::vector<std::pair<std::u16string, FileFacts>> found;
    for (auto &entry : dev().files().store().siblings(*w))
        if (wildMatch(pat, entry.first)) found.push_back(std::move(entry));
    std::sort(found.begin(), found.end(), [](const auto &a, const auto &b) {
        std::u16string x = a.first, y = b.first;
        for (char16_t &c : x) c = fold(c);
        for (char16_t &c : y) c = fold(c);
        return x != y ? x < y : a.first < b.first;
    });
    auto obj = std::make_shared<FindObject>();
    for (const auto &entry : found) {
        WIN32_FIND_DATAW fd;
        fillFindData(fd, entry.first, entry.second);
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
    FileFacts facts;
    if (!w->exists || !dev().files().store().facts(*w, facts)) {
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
    if (int error = dev().files().store().makeFolder(*w)) {
        setLastError(errnoToError(error));
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
    if (int error = dev().files().store().removeFolder(*w)) {
        setLastError(errnoToError(error));
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
