// The simulated device's file system and CE file API, held to the behaviour CE documents.
#include "test_device.h"
#include "devices.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>

using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

namespace {

const DWORD RW = GENERIC_READ | GENERIC_WRITE;
const DWORD kNoLastError = 0xDEADBEEF;

HANDLE openFile(const std::string &path, DWORD access, DWORD disposition) {
    return CreateFileW(W(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL, disposition,
                       FILE_ATTRIBUTE_NORMAL, NULL);
}

bool opens(const std::string &path, DWORD access, DWORD disposition) {   // and closes it again
    HANDLE h = openFile(path, access, disposition);
    return h != INVALID_HANDLE_VALUE && CloseHandle(h);
}

bool writeText(HANDLE h, const std::string &text) {
    DWORD n = 0;
    return WriteFile(h, text.data(), DWORD(text.size()), &n, NULL) && n == text.size();
}

uint64_t ticks100ns(const FILETIME &ft) { return (uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }

// A call by name with its result and the last error it leaves (set to `before` ahead of the call).
struct Call { std::string what; std::function<DWORD()> call; DWORD result, error; };

void expectCalls(const std::vector<Call> &calls, DWORD before = 0) {
    for (const Call &c : calls) {
        SCOPED_TRACE(c.what);
        SetLastError(before);
        EXPECT_EQ(c.call(), c.result);
        EXPECT_EQ(GetLastError(), c.error);
    }
}

using S = const std::string &;
template <class F> Call named(const char *what, S n, F f, DWORD result, DWORD e) {
    return {what + (" " + n), [=] { return DWORD(f(W(n).c_str())); }, result, e};
}
Call del(S n, bool ok, DWORD e) { return named("delete", n, DeleteFileW, ok, e); }
Call attrs(S n, DWORD result, DWORD e) { return named("attrs", n, GetFileAttributesW, result, e); }
Call rmDir(S n, bool ok, DWORD e) { return named("rmdir", n, RemoveDirectoryW, ok, e); }
Call mkDir(S n, bool ok, DWORD e) {
    return named("mkdir", n, [](LPCWSTR p) { return CreateDirectoryW(p, NULL); }, ok, e);
}
Call opening(S n, DWORD access, DWORD disposition, bool ok, DWORD e) {
    return {"open " + n, [=] { return DWORD(opens(n, access, disposition)); }, ok, e};
}
// The last error a call that should fail leaves (0 when it succeeds).
DWORD errorOf(BOOL ok) { return ok ? 0 : GetLastError(); }

}  // namespace

TEST(SimFiles, ResolvesWithoutRegardToCaseAndKeepsNewNamesAsWritten) {
    TestDevice t;
    t.put("\\My Flash Disk\\Data\\File.TXT", "x");
    sim::FileSystem &files = t.dev().files();
    const sim::fs::path root = files.root(), data = root / "My Flash Disk" / "Data";
    EXPECT_EQ(*files.resolve(W("\\my flash disk\\DATA\\file.txt")), data / "File.TXT");
    EXPECT_EQ(*files.resolve(W("/MY FLASH DISK/data/New Name")), data / "New Name");
    EXPECT_EQ(*files.resolve(W("\\My Flash Disk\\.\\Data\\..\\..\\..\\Data")), root / "Data");
    EXPECT_EQ(*files.resolve(W("\\\\My Flash Disk\\\\")), root / "My Flash Disk");
    EXPECT_FALSE(files.resolve(W("relative\\name")).has_value());
    // The API takes a name without a leading separator from the root, as CE has no current folder.
    expectCalls({opening("My Flash Disk/data/FILE.txt", GENERIC_READ, OPEN_EXISTING, true, 0)});
}

TEST(SimFiles, CreationDispositionsGiveTheDocumentedResults) {
    struct Row { DWORD disposition; bool exists, ok; DWORD error; const char *content; };   // null: no file after
    const Row rows[] = {
        {CREATE_NEW, false, true, 0, ""},     {CREATE_NEW, true, false, ERROR_FILE_EXISTS, "old"},
        {CREATE_ALWAYS, false, true, 0, ""},  {CREATE_ALWAYS, true, true, ERROR_ALREADY_EXISTS, ""},
        {OPEN_EXISTING, false, false, ERROR_FILE_NOT_FOUND, nullptr}, {OPEN_EXISTING, true, true, 0, "old"},
        {OPEN_ALWAYS, false, true, 0, ""},    {OPEN_ALWAYS, true, true, ERROR_ALREADY_EXISTS, "old"},
        {TRUNCATE_EXISTING, false, false, ERROR_FILE_NOT_FOUND, nullptr}, {TRUNCATE_EXISTING, true, true, 0, ""},
    };
    TestDevice t;
    t.put("\\Dir\\keep", "");
    for (const Row &r : rows) {
        SCOPED_TRACE("disposition " + std::to_string(r.disposition) + (r.exists ? " existing" : " missing"));
        if (r.exists) t.put("\\Dir\\f.bin", "old");
        else sim::fs::remove(t.host("\\Dir\\f.bin"));
        SetLastError(kNoLastError);
        HANDLE h = openFile("\\dir\\F.BIN", RW, r.disposition);
        EXPECT_EQ(h != INVALID_HANDLE_VALUE, r.ok);
        EXPECT_EQ(GetLastError(), r.error);
        if (h != INVALID_HANDLE_VALUE) { EXPECT_TRUE(CloseHandle(h)); }
        EXPECT_EQ(t.exists("\\Dir\\f.bin") ? t.get("\\Dir\\f.bin") : "(none)", r.content ? r.content : "(none)");
    }
}

TEST(SimFiles, NamesFoldersAndMissingPathsGiveTheCeErrors) {
    TestDevice t;
    for (const char *name : {"f", "a", "open"}) t.put(std::string("\\D\\") + name, "x");
    HANDLE h = openFile("\\D\\open", GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    const std::string a200 = "\\" + std::string(200, 'a');
    const DWORD kNoFile = ERROR_FILE_NOT_FOUND, kNoPath = ERROR_PATH_NOT_FOUND, kDenied = ERROR_ACCESS_DENIED,
                kName = ERROR_INVALID_NAME, kBad = ERROR_INVALID_PARAMETER, kExists = ERROR_ALREADY_EXISTS;
    expectCalls({
        opening("\\Nope\\f", RW, OPEN_ALWAYS, false, kNoPath), opening("\\Nope\\f", RW, OPEN_EXISTING, false, kNoPath),
        opening("\\D\\f\\below", RW, CREATE_ALWAYS, false, kNoPath), opening("", RW, OPEN_EXISTING, false, kNoPath),
        opening("\\D", RW, OPEN_EXISTING, false, kDenied), opening("\\d", RW, CREATE_ALWAYS, false, kDenied),
        opening("\\", RW, OPEN_EXISTING, false, kDenied), opening("NOPE9:", RW, OPEN_EXISTING, false, kNoFile),
        opening("\\D\\a*b", RW, CREATE_ALWAYS, false, kName), opening("\\D\\a|b", RW, CREATE_ALWAYS, false, kName),
        opening("\\D\\f", RW, 0, false, kBad), opening("\\D\\f", RW, 6, false, kBad),
        {"open no name",
         [] { return DWORD(CreateFileW(NULL, RW, 0, NULL, OPEN_EXISTING, 0, NULL) == INVALID_HANDLE_VALUE); },
         TRUE, kBad},
        // 260 characters are too long, even under a missing folder; 259, the most CE allows, work.
        opening(a200 + "\\" + std::string(58, 'b'), RW, CREATE_ALWAYS, false, 206), mkDir(a200, true, 0),
        opening(a200 + "\\" + std::string(57, 'b'), RW, CREATE_ALWAYS, true, 0),
        del("\\d\\A", true, 0), del("\\D\\a", false, kNoFile), del("\\Nope\\a", false, kNoPath),
        del("\\D", false, kDenied), del("\\D\\OPEN", false, ERROR_SHARING_VIOLATION),
        attrs("\\", FILE_ATTRIBUTE_DIRECTORY, 0), attrs("\\d", FILE_ATTRIBUTE_DIRECTORY, 0),
        attrs("\\D\\F", FILE_ATTRIBUTE_ARCHIVE, 0), attrs("\\D\\g", INVALID_FILE_ATTRIBUTES, kNoFile),
        attrs("\\E\\g", INVALID_FILE_ATTRIBUTES, kNoPath), attrs("\\D\\f\\g", INVALID_FILE_ATTRIBUTES, kNoPath),
        mkDir("\\D\\New", true, 0), mkDir("\\d\\NEW", false, kExists), mkDir("\\D\\f", false, kExists),
        mkDir("\\X\\Y", false, kNoPath), mkDir("\\D\\New\\Inner", true, 0),
        rmDir("\\D\\New", false, ERROR_DIR_NOT_EMPTY), rmDir("\\D\\new\\inner", true, 0), rmDir("\\D\\New", true, 0),
        rmDir("\\D\\New", false, kNoFile), rmDir("\\D\\f", false, 267),   // 267: ERROR_DIRECTORY
        rmDir("\\", false, kDenied),
    });
    CloseHandle(h);
    EXPECT_TRUE(DeleteFileW(u"\\D\\open") && !t.exists("\\D\\open"));   // once no handle holds it
    EXPECT_EQ(t.dev().objects().count(), 0u);
}

TEST(SimFiles, CallsOnAHandleCheckItsAccessAndType) {
    TestDevice t;
    t.put("\\f", "abc");
    char buf[8];
    DWORD n = 99, high = 0;
    WIN32_FIND_DATAW fd;
    HANDLE r = openFile("\\f", GENERIC_READ, OPEN_EXISTING), w = openFile("\\f", GENERIC_WRITE, OPEN_EXISTING);
    HANDLE q = openFile("\\f", 0, OPEN_EXISTING), find = FindFirstFileW(u"\\*", &fd);   // q: a query handle
    for (HANDLE h : {r, w, q, find}) ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(errorOf(WriteFile(r, "x", 1, &n, NULL)), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(ReadFile(r, buf, 8, &n, NULL) && n == 3);
    EXPECT_EQ(errorOf(ReadFile(w, buf, 8, &n, NULL)), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(writeText(w, "X"));
    EXPECT_FALSE(ReadFile(q, buf, 1, &n, NULL) || WriteFile(q, buf, 1, &n, NULL));   // it reads and writes nothing
    EXPECT_EQ(GetFileSize(q, NULL), 3u);
    const DWORD kInvalid = ERROR_INVALID_HANDLE;
    for (HANDLE h : {HANDLE(NULL), INVALID_HANDLE_VALUE, find}) {   // handles that are not files
        expectCalls({
            {"read", [&] { return DWORD(ReadFile(h, buf, 1, &n, NULL)); }, FALSE, kInvalid},
            {"write", [&] { return DWORD(WriteFile(h, buf, 1, &n, NULL)); }, FALSE, kInvalid},
            {"size", [&] { return GetFileSize(h, &high); }, INVALID_FILE_SIZE, kInvalid},
            {"seek", [&] { return SetFilePointer(h, 0, NULL, FILE_BEGIN); }, INVALID_SET_FILE_POINTER, kInvalid},
            {"flush", [&] { return DWORD(FlushFileBuffers(h)); }, FALSE, kInvalid},
        });
    }
    expectCalls({
        {"find next on a file", [&] { return DWORD(FindNextFileW(r, &fd)); }, FALSE, kInvalid},
        {"find close on a file", [&] { return DWORD(FindClose(r)); }, FALSE, kInvalid},
        {"flush a file", [&] { return DWORD(FlushFileBuffers(w)); }, TRUE, 0},
        {"find close", [&] { return DWORD(FindClose(find)); }, TRUE, 0},
        {"find close twice", [&] { return DWORD(FindClose(find)); }, FALSE, kInvalid},
        {"close", [&] { return DWORD(CloseHandle(r)); }, TRUE, 0},
        {"close twice", [&] { return DWORD(CloseHandle(r)); }, FALSE, kInvalid},
    });
    for (HANDLE h : {w, q}) CloseHandle(h);

    // Truncating needs write access. A host file without write permission is a read-only file.
    expectCalls({opening("\\f", GENERIC_READ, TRUNCATE_EXISTING, false, ERROR_INVALID_PARAMETER)});
    EXPECT_EQ(t.get("\\f"), "Xbc");
    sim::fs::permissions(t.host("\\f"), sim::fs::perms::owner_write, sim::fs::perm_options::remove);
    expectCalls({
        attrs("\\f", FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY, 0),
        opening("\\f", RW, OPEN_EXISTING, false, ERROR_ACCESS_DENIED),
        del("\\f", false, ERROR_ACCESS_DENIED),
        opening("\\f", GENERIC_READ, OPEN_EXISTING, true, 0),
    });
}

TEST(SimFiles, FilePointerMovesAndRefusesNegativePositions) {
    TestDevice t;
    HANDLE h = openFile("\\f", RW, CREATE_ALWAYS);
    ASSERT_TRUE(writeText(h, "hello world"));
    auto seek = [h](LONG distance, DWORD method, DWORD result, DWORD error) {
        return Call{std::to_string(distance) + " from " + std::to_string(method),
                    [=] { return SetFilePointer(h, distance, NULL, method); }, result, error};
    };
    const DWORD kBad = INVALID_SET_FILE_POINTER;   // a success clears the last error
    expectCalls({seek(0, FILE_CURRENT, 11, 0), seek(6, FILE_BEGIN, 6, 0), seek(-2, FILE_CURRENT, 4, 0),
                 seek(-5, FILE_CURRENT, kBad, 131), seek(0, FILE_CURRENT, 4, 0),   // would be -1: it stays at 4
                 seek(-11, FILE_END, 0, 0), seek(-12, FILE_END, kBad, 131), seek(-1, FILE_BEGIN, kBad, 131),
                 seek(3, 7, kBad, ERROR_INVALID_PARAMETER), seek(2, FILE_END, 13, 0)},
                kNoLastError);
    // Writing past the end fills the gap with zeros; reading at the end succeeds with no bytes.
    ASSERT_TRUE(writeText(h, "!"));
    EXPECT_EQ(GetFileSize(h, NULL), 14u);
    EXPECT_EQ(t.get("\\f"), std::string("hello world\0\0!", 14));
    char c;
    DWORD n = 7;
    EXPECT_TRUE(ReadFile(h, &c, 1, &n, NULL) && n == 0);
    LONG high = 1;   // with the high word the distance is 64 bits, the position comes back in two halves
    EXPECT_EQ(SetFilePointer(h, 5, &high, FILE_BEGIN), 5u);
    high = -1;
    EXPECT_EQ(SetFilePointer(h, -3, &high, FILE_CURRENT), 2u);   // 0x1_00000005 - 3
    EXPECT_EQ(high, 1);
    CloseHandle(h);
}

TEST(SimFiles, FindMatchesWildcardsWithoutRegardToCaseAndCarriesSizeAttributesAndTimes) {
    TestDevice t;
    const std::vector<std::string> all = {"alpha.TXT", "Beta.txt", "five", "gamma.bin", "noext", "Sub"};
    for (const std::string &n : all) t.put("\\D\\" + n + (n == "Sub" ? "\\x" : ""), n == "five" ? "12345" : "");
    struct Row { const char *pattern; std::vector<std::string> names; DWORD error; };   // error: when none match
    const Row rows[] = {
        {"\\d\\*", all, 0}, {"\\D\\*.*", all, 0}, {"\\D\\*.txt", {"alpha.TXT", "Beta.txt"}, 0},
        {"/D/?ETA.*", {"Beta.txt"}, 0}, {"\\D\\*a*", {"alpha.TXT", "Beta.txt", "gamma.bin"}, 0},
        {"\\D\\sub", {"Sub"}, 0}, {"\\D\\FIVE", {"five"}, 0},
        {"\\D\\*.doc", {}, ERROR_NO_MORE_FILES},   {"\\D\\missing.txt", {}, ERROR_FILE_NOT_FOUND},
        {"\\Nope\\*", {}, ERROR_PATH_NOT_FOUND},   {"\\D\\noext\\*", {}, ERROR_PATH_NOT_FOUND},
        {"\\", {}, ERROR_FILE_NOT_FOUND},
    };
    WIN32_FIND_DATAW fd;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.pattern);
        std::vector<std::string> names;
        HANDLE h = FindFirstFileW(W(r.pattern).c_str(), &fd);
        EXPECT_EQ(h == INVALID_HANDLE_VALUE ? GetLastError() : 0, r.error);
        if (h != INVALID_HANDLE_VALUE) {
            do names.push_back(U(fd.cFileName));
            while (FindNextFileW(h, &fd));
            EXPECT_EQ(GetLastError(), DWORD(ERROR_NO_MORE_FILES));
            EXPECT_TRUE(FindClose(h));
        }
        EXPECT_EQ(names, r.names);
    }

    const struct timespec times[2] = {{1204727410, 0}, {1204727410, 0}};   // 2008-03-05 14:30:10 UTC
    ASSERT_EQ(utimensat(AT_FDCWD, t.host("\\D\\five").c_str(), times, 0), 0);
    const uint64_t kMarch2008 = 128492010100000000ull;
    HANDLE h = FindFirstFileW(u"\\D\\five", &fd);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ((std::vector<uint64_t>{fd.nFileSizeLow, fd.nFileSizeHigh, fd.dwFileAttributes}),
              (std::vector<uint64_t>{5, 0, FILE_ATTRIBUTE_ARCHIVE}));
    EXPECT_EQ(ticks100ns(fd.ftLastWriteTime), kMarch2008);
    // Creation: the host's birth time (when the test made the file) where recorded, else the last write.
    EXPECT_GE(ticks100ns(fd.ftCreationTime), kMarch2008);
    EXPECT_TRUE(FindClose(h));
    h = FindFirstFileW(u"\\D\\Sub", &fd);
    EXPECT_TRUE(fd.dwFileAttributes == FILE_ATTRIBUTE_DIRECTORY && fd.nFileSizeLow == 0);
    EXPECT_TRUE(FindClose(h));
    EXPECT_EQ(t.dev().objects().count(), 0u);
}

TEST(SimFiles, VolumesGiveTheProfileSpaceAndRefuseChangesWhenReadOnlyOrFull) {
    TestDevice t("[storage.'\\My Flash Disk']\ntotal = 536870912\nfree = 12345\n[storage.'\\Rom']\nread_only = true\n"
                 "[storage.'\\Full']\ntotal = 268435456\nfree = 1048576\nfull = true\n[storage.'\\Slow']\nread_max = 3\n");
    t.put("\\My Flash Disk\\Dir\\f", "x");
    t.put("\\Rom\\f", "x");
    struct Row { const char *path; uint64_t total, free; };
    const Row rows[] = {
        {"\\My Flash Disk", 536870912, 12345}, {"\\my flash disk\\Dir", 536870912, 12345},
        {"\\My Flash Disk\\Dir\\f", 536870912, 12345},
        {"\\Full", 268435456, 0},   // a full volume has no free space whatever the profile says; made at start
    };
    ULARGE_INTEGER caller, total, free;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.path);
        ASSERT_TRUE(GetDiskFreeSpaceExW(W(r.path).c_str(), &caller, &total, &free));
        EXPECT_EQ(std::vector<uint64_t>({total.QuadPart, free.QuadPart, caller.QuadPart}),
                  std::vector<uint64_t>({r.total, r.free, r.free}));
    }
    ASSERT_TRUE(GetDiskFreeSpaceExW(u"\\", &caller, &total, NULL));   // outside: the host's figures
    EXPECT_TRUE(total.QuadPart > 0 && total.QuadPart != 536870912ull && caller.QuadPart <= total.QuadPart);
    EXPECT_EQ(errorOf(GetDiskFreeSpaceExW(u"\\Nowhere", &caller, &total, &free)), DWORD(ERROR_PATH_NOT_FOUND));

    expectCalls({
        opening("\\rom\\new", RW, CREATE_NEW, false, ERROR_ACCESS_DENIED),
        opening("\\Rom\\f", GENERIC_WRITE, OPEN_EXISTING, false, ERROR_ACCESS_DENIED),
        opening("\\Rom\\f", RW, CREATE_ALWAYS, false, ERROR_ACCESS_DENIED),
        opening("\\Rom\\g", GENERIC_READ, OPEN_ALWAYS, false, ERROR_ACCESS_DENIED),
        del("\\Rom\\f", false, ERROR_ACCESS_DENIED), mkDir("\\Rom\\Sub", false, ERROR_ACCESS_DENIED),
        opening("\\Rom\\F", GENERIC_READ, OPEN_EXISTING, true, 0),
        // The other volumes and a sibling name outside the volume are writable.
        opening("\\My Flash Disk\\new", RW, CREATE_NEW, true, 0), opening("\\Rom Two", RW, CREATE_NEW, true, 0),
    });
    EXPECT_EQ(t.get("\\Rom\\f"), "x");
    EXPECT_FALSE(t.exists("\\Rom\\g"));

    HANDLE h = openFile("\\Full\\f", RW, CREATE_ALWAYS);   // an empty file still fits
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DWORD n = 5;
    EXPECT_EQ(errorOf(WriteFile(h, "abc", 3, &n, NULL)), DWORD(ERROR_DISK_FULL));
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(WriteFile(h, "abc", 0, &n, NULL) && CloseHandle(h));
    EXPECT_EQ(t.get("\\Full\\f"), "");

    // A volume with read_max gives at most that many bytes per read, the rest on the next reads.
    t.put("\\Slow\\f", "abcdefg");
    h = openFile("\\Slow\\f", GENERIC_READ, OPEN_EXISTING);
    char buf[8] = {};
    std::string got;
    for (DWORD want : {5u, 2u, 9u, 9u}) {
        ASSERT_TRUE(ReadFile(h, buf, want, &n, NULL));
        got += std::string(buf, n) + "|";
    }
    EXPECT_EQ(got, "abc|de|fg||");
    EXPECT_TRUE(CloseHandle(h));
}

TEST(SimFiles, BadStorageValuesAreIgnoredAndFailuresAreInjectedByCallName) {
    TestDevice t("[storage.'\\My Flash Disk']\ntotal = -5\nfree = 'lots'\nread_only = 1\nread_max = -2\n[storage]\nplain = 3\n"
                 "[fail]\nCreateFileW = 32\nGetDiskFreeSpaceExW = 21\n");
    const sim::FileSystem::Volume *v = t.dev().files().volumeOf(u"\\My Flash Disk\\x");
    ASSERT_NE(v, nullptr);
    EXPECT_TRUE(v->total == 0 && v->free == 0 && v->readMax == 0 && !v->readOnly);
    ULARGE_INTEGER total;
    expectCalls({
        opening("\\My Flash Disk\\f", RW, CREATE_ALWAYS, false, 32),
        {"free space", [&] { return DWORD(GetDiskFreeSpaceExW(u"\\", NULL, &total, NULL)); }, FALSE, 21},
    });
    t.dev().setFailure("CreateFileW", std::nullopt);
    EXPECT_TRUE(opens("\\My Flash Disk\\f", RW, CREATE_ALWAYS));
}

TEST(SimFiles, FileTimesConvertToAndFromSystemTimes) {
    auto fields = [](const SYSTEMTIME &s) {   // year, month, day of week, day, hour, minute, second, ms
        return std::vector<int>{s.wYear, s.wMonth, s.wDayOfWeek, s.wDay, s.wHour, s.wMinute, s.wSecond,
                                s.wMilliseconds};
    };
    struct Row { uint64_t ticks; SYSTEMTIME st; };
    const Row rows[] = {
        {0ull, {1601, 1, 1, 1, 0, 0, 0, 0}}, {116444736000000000ull, {1970, 1, 4, 1, 0, 0, 0, 0}},
        {128492010105000000ull, {2008, 3, 3, 5, 14, 30, 10, 500}},
        {125963423999990000ull, {2000, 2, 2, 29, 23, 59, 59, 999}},
        {157520160000000000ull, {2100, 3, 1, 1, 0, 0, 0, 0}},
    };
    SYSTEMTIME st;
    FILETIME ft;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.ticks);
        std::memset(&st, 0xFF, sizeof st);
        ft = {DWORD(r.ticks), DWORD(r.ticks >> 32)};
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
        EXPECT_EQ(fields(st), fields(r.st));
        st.wDayOfWeek = 6;   // ignored
        ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
        EXPECT_EQ(ticks100ns(ft), r.ticks);
    }
    ft = {0, 0x80000000u};
    EXPECT_EQ(errorOf(FileTimeToSystemTime(&ft, &st)), DWORD(ERROR_INVALID_PARAMETER));
    const SYSTEMTIME invalid[] = {   // 1900 is not a leap year; 1600 is before the epoch
        {1900, 2, 0, 29, 0, 0, 0, 0}, {2001, 4, 0, 31, 0, 0, 0, 0}, {2008, 13, 0, 1, 0, 0, 0, 0},
        {2008, 0, 0, 1, 0, 0, 0, 0},  {2008, 1, 0, 0, 0, 0, 0, 0},  {2008, 1, 0, 1, 24, 0, 0, 0},
        {2008, 1, 0, 1, 0, 60, 0, 0}, {2008, 1, 0, 1, 0, 0, 60, 0}, {2008, 1, 0, 1, 0, 0, 0, 1000},
        {1600, 12, 0, 31, 0, 0, 0, 0},
    };
    for (const SYSTEMTIME &s : invalid) {
        SCOPED_TRACE(testing::PrintToString(fields(s)));
        SetLastError(0);
        EXPECT_EQ(errorOf(SystemTimeToFileTime(&s, &ft)), DWORD(ERROR_INVALID_PARAMETER));
    }
}

// The calls the fuzz targets make, on a device whose files live in memory and on one whose files
// live in its host folder: the same results, last errors, contents and listings. (A braced list is
// evaluated in order, so each step's calls run as written.)
TEST(SimFiles, FilesInMemoryBehaveAsFilesOnTheHost) {
    auto join = [](std::initializer_list<std::string> parts) {
        std::string out;
        for (const std::string &p : parts) out += (out.empty() ? "" : " ") + p;
        return out;
    };
    auto outcome = [](DWORD result) { return std::to_string(result) + "/" + std::to_string(GetLastError()); };
    auto listing = [](const char *pattern) {
        WIN32_FIND_DATAW fd;
        HANDLE h = FindFirstFileW(W(pattern).c_str(), &fd);
        if (h == INVALID_HANDLE_VALUE) return "error " + std::to_string(GetLastError());
        std::string names;
        do names += U(fd.cFileName) + (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY ? "/ " : " ");
        while (FindNextFileW(h, &fd));
        FindClose(h);
        return names;
    };
    HANDLE h = INVALID_HANDLE_VALUE;
    char buf[8] = {};
    DWORD n = 0;
    struct Step { const char *what; std::function<std::string(TestDevice &)> run; std::string expect; };
    const Step steps[] = {
        {"create, write, size", [&](TestDevice &) {
             h = openFile("\\My Flash Disk\\New.XML", RW, CREATE_ALWAYS);
             return join({outcome(writeText(h, "hello")), outcome(SetFilePointer(h, 0, NULL, FILE_END)),
                          outcome(GetFileSize(h, NULL)), outcome(CloseHandle(h))});
         }, "1/0 5/0 5/0 1/0"},
        {"names match without regard to case", [&](TestDevice &t) { return t.get("\\my flash disk\\new.xml"); }, "hello"},
        {"create always truncates", [&](TestDevice &) {
             h = openFile("\\MY FLASH DISK\\new.xml", RW, CREATE_ALWAYS);
             return join({outcome(h != INVALID_HANDLE_VALUE), outcome(GetFileSize(h, NULL)), outcome(CloseHandle(h)),
                          listing("\\My Flash Disk\\n*")});
         }, "1/183 0/0 1/0 New.XML "},
        {"read, and write on a read handle", [&](TestDevice &t) {
             t.put("\\My Flash Disk\\r.bin", "abc");
             h = openFile("\\My Flash Disk\\r.bin", GENERIC_READ, OPEN_EXISTING);
             return join({outcome(ReadFile(h, buf, sizeof buf, &n, NULL)), std::string(buf, n),
                          outcome(WriteFile(h, "x", 1, &n, NULL))});
         }, "1/0 abc 0/5"},
        {"an open file stays, a closed one goes", [&](TestDevice &t) {
             return join({outcome(DeleteFileW(u"\\My Flash Disk\\R.BIN")), outcome(CloseHandle(h)),
                          outcome(DeleteFileW(u"\\My Flash Disk\\r.bin")), outcome(t.exists("\\My Flash Disk\\r.bin"))});
         }, "0/32 1/32 1/32 0/32"},
        {"missing file and path", [&](TestDevice &) {
             return join({outcome(DeleteFileW(u"\\My Flash Disk\\gone")), outcome(DeleteFileW(u"\\Nope\\gone")),
                          outcome(GetFileAttributesW(u"\\My Flash Disk\\gone")), outcome(opens("\\Nope\\x", RW, CREATE_ALWAYS))});
         }, "0/2 0/3 4294967295/2 0/3"},
        {"attributes", [&](TestDevice &) {
             return join({outcome(GetFileAttributesW(u"\\my flash disk")), outcome(GetFileAttributesW(u"\\My Flash Disk\\new.xml"))});
         }, "16/0 32/0"},
        {"folders", [&](TestDevice &) {
             return join({outcome(CreateDirectoryW(u"\\My Flash Disk\\Sub", NULL)),
                          outcome(CreateDirectoryW(u"\\my flash disk\\sub", NULL)),
                          outcome(opens("\\My Flash Disk\\sub\\f", RW, CREATE_NEW)),
                          outcome(RemoveDirectoryW(u"\\My Flash Disk\\Sub")), outcome(DeleteFileW(u"\\My Flash Disk\\Sub\\F")),
                          outcome(RemoveDirectoryW(u"\\My Flash Disk\\SUB")), outcome(GetFileAttributesW(u"\\My Flash Disk\\Sub"))});
         }, "1/0 0/183 1/0 0/145 1/145 1/145 4294967295/2"},
        {"listings in name order", [&](TestDevice &t) {
             for (const char *name : {"b.txt", "A.txt", "c.bin", "D\\x"}) t.put(std::string("\\L\\") + name, "");
             return join({listing("\\L\\*"), listing("\\l\\*.TXT"), listing("\\L\\*.doc")});
         }, "A.txt b.txt c.bin D/  A.txt b.txt  error 18"},
        {"the flash disk's folder goes and comes back with its files", [&](TestDevice &t) {
             t.put("\\HDD\\keep.txt", "data");
             HANDLE driver = reinterpret_cast<HANDLE>(uintptr_t(t.dev().devices().activeHandle()));
             return join({outcome(DeactivateDevice(driver)), outcome(t.exists("\\HDD")),
                          outcome(ActivateDevice(u"Drivers\\BuiltIn\\FDSK", 0) != NULL), t.get("\\hdd\\KEEP.TXT")});
         }, "1/0 0/0 1/0 data"},
    };
    for (const char *files : {"disk", "memory"}) {
        TestDevice t(std::string("[device]\nfiles = '") + files + "'\n[storage.'\\My Flash Disk']\n[flash_disk]\n");
        EXPECT_EQ(t.dev().files().inMemory(), files == std::string("memory"));
        for (const Step &s : steps) {
            SetLastError(0);
            EXPECT_EQ(s.run(t), s.expect) << files << ": " << s.what;
        }
        EXPECT_EQ(t.dev().objects().count(), 0u);
        EXPECT_EQ(sim::fs::exists(t.folder() / "fs" / "My Flash Disk" / "New.XML"), files == std::string("disk"));
    }
}
