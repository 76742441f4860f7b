// The simulated device's file system and CE file API, held to the behaviour CE documents.
#include "test_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
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

// Whether the file opens (it is closed again at once).
bool opens(const std::string &path, DWORD access, DWORD disposition) {
    HANDLE h = openFile(path, access, disposition);
    return h != INVALID_HANDLE_VALUE && CloseHandle(h);
}

std::string readAll(HANDLE h) {
    std::string out;
    char buf[64];
    DWORD n = 0;
    while (ReadFile(h, buf, sizeof buf, &n, NULL) && n) out.append(buf, n);
    return out;
}

bool writeText(HANDLE h, const std::string &text) {
    DWORD n = 0;
    return WriteFile(h, text.data(), DWORD(text.size()), &n, NULL) && n == text.size();
}

uint64_t ticks100ns(const FILETIME &ft) { return (uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }

std::vector<std::string> findAll(const std::string &pattern, DWORD *firstError) {
    std::vector<std::string> names;
    WIN32_FIND_DATAW fd;
    HANDLE h = FindFirstFileW(W(pattern).c_str(), &fd);
    if (h == INVALID_HANDLE_VALUE) {
        *firstError = GetLastError();
        return names;
    }
    do names.push_back(U(fd.cFileName));
    while (FindNextFileW(h, &fd));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_NO_MORE_FILES));
    EXPECT_TRUE(FindClose(h));
    return names;
}

// A call by name with its result and the last error it leaves (cleared to 0 before the call).
struct Call {
    std::string what;
    std::function<DWORD()> call;
    DWORD result;
    DWORD error;
};

void expectCalls(const std::vector<Call> &calls) {
    for (const Call &c : calls) {
        SCOPED_TRACE(c.what);
        SetLastError(0);
        EXPECT_EQ(c.call(), c.result);
        EXPECT_EQ(GetLastError(), c.error);
    }
}

Call del(const std::string &name, bool ok, DWORD error) {
    return {"delete " + name, [=] { return DWORD(DeleteFileW(W(name).c_str())); }, DWORD(ok), error};
}
Call attrs(const std::string &name, DWORD result, DWORD error) {
    return {"attributes " + name, [=] { return GetFileAttributesW(W(name).c_str()); }, result, error};
}
Call mkDir(const std::string &name, bool ok, DWORD error) {
    return {"mkdir " + name, [=] { return DWORD(CreateDirectoryW(W(name).c_str(), NULL)); }, DWORD(ok), error};
}
Call rmDir(const std::string &name, bool ok, DWORD error) {
    return {"rmdir " + name, [=] { return DWORD(RemoveDirectoryW(W(name).c_str())); }, DWORD(ok), error};
}
Call opening(const std::string &name, DWORD access, DWORD disposition, bool ok, DWORD error) {
    return {"open " + name, [=] { return DWORD(opens(name, access, disposition)); }, DWORD(ok), error};
}

}  // namespace

TEST(SimFiles, ResolvesWithoutRegardToCaseAndKeepsNewNamesAsWritten) {
    TestDevice t;
    t.put("\\My Flash Disk\\Data\\File.TXT", "x");
    sim::FileSystem &files = t.dev().files();
    sim::fs::path root = files.root();

    EXPECT_EQ(*files.resolve(W("\\my flash disk\\DATA\\file.txt")), root / "My Flash Disk" / "Data" / "File.TXT");
    EXPECT_EQ(*files.resolve(W("/MY FLASH DISK/data/New Name")), root / "My Flash Disk" / "Data" / "New Name");
    EXPECT_EQ(*files.resolve(W("\\My Flash Disk\\.\\Data\\..\\..\\..\\Data")), root / "Data");
    EXPECT_EQ(*files.resolve(W("\\\\My Flash Disk\\\\")), root / "My Flash Disk");
    EXPECT_FALSE(files.resolve(W("relative\\name")).has_value());
    EXPECT_TRUE(files.exists(W("\\MY FLASH DISK\\data\\file.txt")));
    EXPECT_FALSE(files.exists(W("\\My Flash Disk\\Data\\File.TXT\\below")));

    // The API takes a name without a leading separator from the root, as CE has no current folder.
    HANDLE h = openFile("My Flash Disk/data/FILE.txt", GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(readAll(h), "x");
    CloseHandle(h);
}

TEST(SimFiles, CreationDispositionsGiveTheDocumentedResults) {
    // content: the file afterwards (nullptr: absent)
    struct Case { DWORD disposition; bool exists, ok; DWORD error; const char *content; };
    const Case cases[] = {
        {CREATE_NEW, false, true, 0, ""},
        {CREATE_NEW, true, false, ERROR_FILE_EXISTS, "old"},
        {CREATE_ALWAYS, false, true, 0, ""},
        {CREATE_ALWAYS, true, true, ERROR_ALREADY_EXISTS, ""},
        {OPEN_EXISTING, false, false, ERROR_FILE_NOT_FOUND, nullptr},
        {OPEN_EXISTING, true, true, 0, "old"},
        {OPEN_ALWAYS, false, true, 0, ""},
        {OPEN_ALWAYS, true, true, ERROR_ALREADY_EXISTS, "old"},
        {TRUNCATE_EXISTING, false, false, ERROR_FILE_NOT_FOUND, nullptr},
        {TRUNCATE_EXISTING, true, true, 0, ""},
    };
    TestDevice t;
    t.put("\\Dir\\keep", "");
    for (const Case &c : cases) {
        SCOPED_TRACE("disposition " + std::to_string(c.disposition) + (c.exists ? " existing" : " missing"));
        if (c.exists) t.put("\\Dir\\f.bin", "old");
        else sim::fs::remove(t.host("\\Dir\\f.bin"));
        SetLastError(kNoLastError);
        HANDLE h = openFile("\\dir\\F.BIN", RW, c.disposition);
        EXPECT_EQ(h != INVALID_HANDLE_VALUE, c.ok);
        EXPECT_EQ(GetLastError(), c.error);
        if (h != INVALID_HANDLE_VALUE) { EXPECT_TRUE(CloseHandle(h)); }
        EXPECT_EQ(t.exists("\\Dir\\f.bin"), c.content != nullptr);
        if (c.content) { EXPECT_EQ(t.get("\\Dir\\f.bin"), c.content); }
    }
}

TEST(SimFiles, CreateFileRefusesBadNamesFoldersAndMissingFolders) {
    TestDevice t;
    t.put("\\Dir\\file", "x");
    const std::string longName = "\\" + std::string(200, 'a') + "\\" + std::string(58, 'b');   // 260 characters
    expectCalls({
        opening("\\Missing\\f", RW, OPEN_ALWAYS, false, ERROR_PATH_NOT_FOUND),
        opening("\\Missing\\f", RW, OPEN_EXISTING, false, ERROR_PATH_NOT_FOUND),
        opening("\\Dir\\file\\below", RW, CREATE_ALWAYS, false, ERROR_PATH_NOT_FOUND),
        opening("\\Dir", RW, OPEN_EXISTING, false, ERROR_ACCESS_DENIED),
        opening("\\DIR", RW, CREATE_ALWAYS, false, ERROR_ACCESS_DENIED),
        opening("\\", RW, OPEN_EXISTING, false, ERROR_ACCESS_DENIED),
        opening("\\Dir\\a*b", RW, CREATE_ALWAYS, false, ERROR_INVALID_NAME),
        opening("\\Dir\\a|b", RW, CREATE_ALWAYS, false, ERROR_INVALID_NAME),
        opening("\\Dir\\file", RW, 0, false, ERROR_INVALID_PARAMETER),
        opening("\\Dir\\file", RW, 6, false, ERROR_INVALID_PARAMETER),
        opening("", RW, OPEN_EXISTING, false, ERROR_PATH_NOT_FOUND),
        opening(longName, RW, CREATE_ALWAYS, false, 206),
        opening("NOPE9:", RW, OPEN_EXISTING, false, ERROR_FILE_NOT_FOUND),
    });
    EXPECT_EQ(CreateFileW(NULL, RW, 0, NULL, OPEN_EXISTING, 0, NULL), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    // The longest name CE allows (259 characters) works.
    ASSERT_TRUE(CreateDirectoryW(W("\\" + std::string(200, 'a')).c_str(), NULL));
    EXPECT_TRUE(opens("\\" + std::string(200, 'a') + "\\" + std::string(57, 'b'), RW, CREATE_ALWAYS));
    EXPECT_EQ(t.dev().objects().count(), 0u);
}

TEST(SimFiles, AccessRightsAreEnforcedOnReadAndWrite) {
    TestDevice t;
    t.put("\\f", "abc");
    char buf[8];
    DWORD n = 99;
    HANDLE r = openFile("\\f", GENERIC_READ, OPEN_EXISTING);
    HANDLE w = openFile("\\f", GENERIC_WRITE, OPEN_EXISTING);
    HANDLE q = openFile("\\f", 0, OPEN_EXISTING);   // a query handle reads nothing and writes nothing
    ASSERT_TRUE(r != INVALID_HANDLE_VALUE && w != INVALID_HANDLE_VALUE && q != INVALID_HANDLE_VALUE);
    EXPECT_FALSE(WriteFile(r, "x", 1, &n, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(ReadFile(r, buf, 8, &n, NULL));
    EXPECT_EQ(n, 3u);
    EXPECT_FALSE(ReadFile(w, buf, 8, &n, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(writeText(w, "X"));
    EXPECT_FALSE(ReadFile(q, buf, 1, &n, NULL));
    EXPECT_FALSE(WriteFile(q, buf, 1, &n, NULL));
    EXPECT_EQ(GetFileSize(q, NULL), 3u);
    for (HANDLE h : {r, w, q}) CloseHandle(h);

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
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(writeText(h, "hello world"));
    // result: INVALID_SET_FILE_POINTER for a refusal
    struct Case { LONG distance; DWORD method, result, error; };
    const Case cases[] = {
        {0, FILE_CURRENT, 11, 0},
        {6, FILE_BEGIN, 6, 0},
        {-2, FILE_CURRENT, 4, 0},
        {-5, FILE_CURRENT, INVALID_SET_FILE_POINTER, 131},   // would be -1: the position stays 4
        {0, FILE_CURRENT, 4, 0},
        {-11, FILE_END, 0, 0},
        {-12, FILE_END, INVALID_SET_FILE_POINTER, 131},
        {-1, FILE_BEGIN, INVALID_SET_FILE_POINTER, 131},
        {3, 7, INVALID_SET_FILE_POINTER, ERROR_INVALID_PARAMETER},
        {2, FILE_END, 13, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.distance) + " from " + std::to_string(c.method));
        SetLastError(kNoLastError);
        EXPECT_EQ(SetFilePointer(h, c.distance, NULL, c.method), c.result);
        EXPECT_EQ(GetLastError(), c.error);
    }
    // Writing past the end fills the gap with zeros; reading at the end succeeds with no bytes.
    ASSERT_TRUE(writeText(h, "!"));
    EXPECT_EQ(GetFileSize(h, NULL), 14u);
    EXPECT_EQ(t.get("\\f"), std::string("hello world\0\0!", 14));
    char c;
    DWORD n = 7;
    EXPECT_TRUE(ReadFile(h, &c, 1, &n, NULL));
    EXPECT_EQ(n, 0u);

    LONG high = 1;   // with the high word the distance is 64 bits, the position comes back in two halves
    EXPECT_EQ(SetFilePointer(h, 5, &high, FILE_BEGIN), 5u);
    high = -1;
    EXPECT_EQ(SetFilePointer(h, -3, &high, FILE_CURRENT), 2u);   // 0x1_00000005 - 3
    EXPECT_EQ(high, 1);
    CloseHandle(h);
}

TEST(SimFiles, CallsOnAHandleThatIsNotAFileFailWithInvalidHandle) {
    TestDevice t;
    t.put("\\f", "x");
    char buf[4];
    DWORD n = 0, high = 0;
    WIN32_FIND_DATAW fd;
    HANDLE find = FindFirstFileW(W("\\*").c_str(), &fd);
    HANDLE file = openFile("\\f", RW, OPEN_EXISTING);
    ASSERT_TRUE(find != INVALID_HANDLE_VALUE && file != INVALID_HANDLE_VALUE);
    for (HANDLE h : {HANDLE(NULL), INVALID_HANDLE_VALUE, find}) {
        expectCalls({
            {"read", [&] { return DWORD(ReadFile(h, buf, 1, &n, NULL)); }, FALSE, ERROR_INVALID_HANDLE},
            {"write", [&] { return DWORD(WriteFile(h, buf, 1, &n, NULL)); }, FALSE, ERROR_INVALID_HANDLE},
            {"size", [&] { return GetFileSize(h, &high); }, INVALID_FILE_SIZE, ERROR_INVALID_HANDLE},
            {"seek", [&] { return SetFilePointer(h, 0, NULL, FILE_BEGIN); }, INVALID_SET_FILE_POINTER,
             ERROR_INVALID_HANDLE},
            {"flush", [&] { return DWORD(FlushFileBuffers(h)); }, FALSE, ERROR_INVALID_HANDLE},
        });
    }
    expectCalls({
        {"find next on a file", [&] { return DWORD(FindNextFileW(file, &fd)); }, FALSE, ERROR_INVALID_HANDLE},
        {"find close on a file", [&] { return DWORD(FindClose(file)); }, FALSE, ERROR_INVALID_HANDLE},
        {"flush a file", [&] { return DWORD(FlushFileBuffers(file)); }, TRUE, 0},
        {"find close", [&] { return DWORD(FindClose(find)); }, TRUE, 0},
        {"find close twice", [&] { return DWORD(FindClose(find)); }, FALSE, ERROR_INVALID_HANDLE},
        {"close", [&] { return DWORD(CloseHandle(file)); }, TRUE, 0},
        {"close twice", [&] { return DWORD(CloseHandle(file)); }, FALSE, ERROR_INVALID_HANDLE},
    });
}

TEST(SimFiles, FindMatchesWildcardsWithoutRegardToCase) {
    TestDevice t;
    const std::vector<std::string> all = {"alpha.TXT", "Beta.txt", "gamma.bin", "noext", "Sub"};
    for (const std::string &name : all) t.put("\\D\\" + name + (name == "Sub" ? "\\x" : ""), "");
    // error: the last error when nothing matches
    struct Case { const char *pattern; std::vector<std::string> names; DWORD error; };
    const Case cases[] = {
        {"\\d\\*", all, 0},
        {"\\D\\*.*", all, 0},
        {"\\D\\*.txt", {"alpha.TXT", "Beta.txt"}, 0},
        {"/D/?ETA.*", {"Beta.txt"}, 0},
        {"\\D\\*a*", {"alpha.TXT", "Beta.txt", "gamma.bin"}, 0},
        {"\\D\\sub", {"Sub"}, 0},
        {"\\D\\*.doc", {}, ERROR_NO_MORE_FILES},
        {"\\D\\missing.txt", {}, ERROR_FILE_NOT_FOUND},
        {"\\Nope\\*", {}, ERROR_PATH_NOT_FOUND},
        {"\\D\\noext\\*", {}, ERROR_PATH_NOT_FOUND},
        {"\\", {}, ERROR_FILE_NOT_FOUND},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pattern);
        DWORD error = 0;
        EXPECT_EQ(findAll(c.pattern, &error), c.names);
        EXPECT_EQ(error, c.error);
    }
    EXPECT_EQ(t.dev().objects().count(), 0u);
}

TEST(SimFiles, FindDataCarriesSizeAttributesAndTimes) {
    TestDevice t;
    t.put("\\D\\five", "12345");
    t.put("\\D\\Sub\\x", "");
    const time_t when = 1204727410;   // 2008-03-05 14:30:10 UTC
    struct timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, t.host("\\D\\five").c_str(), times, 0), 0);
    const uint64_t kMarch2008 = 128492010100000000ull;
    const uint64_t now = (uint64_t(std::time(nullptr)) + 11644473600ull) * 10000000ull;

    WIN32_FIND_DATAW fd;
    HANDLE h = FindFirstFileW(W("\\D\\FIVE").c_str(), &fd);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(U(fd.cFileName), "five");
    EXPECT_EQ(fd.nFileSizeLow, 5u);
    EXPECT_EQ(fd.nFileSizeHigh, 0u);
    EXPECT_EQ(fd.dwFileAttributes, DWORD(FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_EQ(ticks100ns(fd.ftLastWriteTime), kMarch2008);
    // Creation: the host's birth time (just now) where recorded, else the last write time.
    uint64_t created = ticks100ns(fd.ftCreationTime);
    EXPECT_TRUE(created == kMarch2008 || (created + 600000000ull > now && created < now + 600000000ull))
        << created;
    EXPECT_TRUE(FindClose(h));

    h = FindFirstFileW(W("\\d\\s*").c_str(), &fd);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(fd.dwFileAttributes, DWORD(FILE_ATTRIBUTE_DIRECTORY));
    EXPECT_EQ(fd.nFileSizeLow, 0u);
    EXPECT_FALSE(FindNextFileW(h, &fd));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_NO_MORE_FILES));
    FindClose(h);
}

TEST(SimFiles, DeleteAttributesAndFoldersGiveTheCeErrors) {
    TestDevice t;
    t.put("\\D\\f", "x");
    t.put("\\D\\a", "1");
    t.put("\\D\\open", "2");
    HANDLE h = openFile("\\D\\open", GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    expectCalls({
        del("\\d\\A", true, 0),
        del("\\D\\a", false, ERROR_FILE_NOT_FOUND),
        del("\\Nope\\a", false, ERROR_PATH_NOT_FOUND),
        del("\\D", false, ERROR_ACCESS_DENIED),
        del("\\D\\OPEN", false, ERROR_SHARING_VIOLATION),
        attrs("\\", FILE_ATTRIBUTE_DIRECTORY, 0),
        attrs("\\d", FILE_ATTRIBUTE_DIRECTORY, 0),
        attrs("\\D\\F", FILE_ATTRIBUTE_ARCHIVE, 0),
        attrs("\\D\\g", INVALID_FILE_ATTRIBUTES, ERROR_FILE_NOT_FOUND),
        attrs("\\E\\g", INVALID_FILE_ATTRIBUTES, ERROR_PATH_NOT_FOUND),
        attrs("\\D\\f\\g", INVALID_FILE_ATTRIBUTES, ERROR_PATH_NOT_FOUND),
        mkDir("\\D\\New", true, 0),
        mkDir("\\d\\NEW", false, ERROR_ALREADY_EXISTS),
        mkDir("\\D\\f", false, ERROR_ALREADY_EXISTS),
        mkDir("\\X\\Y", false, ERROR_PATH_NOT_FOUND),
        mkDir("\\D\\New\\Inner", true, 0),
        rmDir("\\D\\New", false, ERROR_DIR_NOT_EMPTY),
        rmDir("\\D\\new\\inner", true, 0),
        rmDir("\\D\\New", true, 0),
        rmDir("\\D\\New", false, ERROR_FILE_NOT_FOUND),
        rmDir("\\D\\f", false, 267),   // ERROR_DIRECTORY
        rmDir("\\", false, ERROR_ACCESS_DENIED),
    });
    EXPECT_FALSE(t.exists("\\D\\a") || t.exists("\\D\\New"));
    EXPECT_TRUE(sim::fs::is_directory(t.host("\\D")));
    CloseHandle(h);
    EXPECT_TRUE(DeleteFileW(u"\\D\\open"));   // once no handle holds it
    EXPECT_FALSE(t.exists("\\D\\open"));
}

TEST(SimFiles, ReadOnlyVolumeRefusesEveryChange) {
    TestDevice t(
        "[storage.'\\My Flash Disk']\nread_only = true\n"
        "[storage.'\\Storage Card']\ntotal = 1000\nfree = 400\n");
    t.put("\\My Flash Disk\\f", "x");
    EXPECT_TRUE(sim::fs::is_directory(t.host("\\Storage Card")));   // volume folders are made at start
    expectCalls({
        opening("\\my flash disk\\new", RW, CREATE_NEW, false, ERROR_ACCESS_DENIED),
        opening("\\My Flash Disk\\f", GENERIC_WRITE, OPEN_EXISTING, false, ERROR_ACCESS_DENIED),
        opening("\\My Flash Disk\\f", RW, CREATE_ALWAYS, false, ERROR_ACCESS_DENIED),
        opening("\\My Flash Disk\\g", GENERIC_READ, OPEN_ALWAYS, false, ERROR_ACCESS_DENIED),
        del("\\My Flash Disk\\f", false, ERROR_ACCESS_DENIED),
        mkDir("\\My Flash Disk\\Sub", false, ERROR_ACCESS_DENIED),
        // The other volume and a sibling name outside the volume are writable.
        opening("\\Storage Card\\new", RW, CREATE_NEW, true, 0),
        opening("\\My Flash Disk Two", RW, CREATE_NEW, true, 0),
    });
    EXPECT_EQ(t.get("\\My Flash Disk\\f"), "x");
    EXPECT_FALSE(t.exists("\\My Flash Disk\\g"));
    HANDLE r = openFile("\\My Flash Disk\\F", GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(r, INVALID_HANDLE_VALUE);
    EXPECT_EQ(readAll(r), "x");
    CloseHandle(r);
}

TEST(SimFiles, FullVolumeRefusesWritesAndReportsNoFreeSpace) {
    TestDevice t("[storage.'\\My Flash Disk']\ntotal = 268435456\nfree = 1048576\nfull = true\n");
    HANDLE h = openFile("\\My Flash Disk\\f", RW, CREATE_ALWAYS);   // an empty file still fits
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DWORD n = 5;
    EXPECT_FALSE(WriteFile(h, "abc", 3, &n, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_DISK_FULL));
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(WriteFile(h, "abc", 0, &n, NULL));
    CloseHandle(h);
    EXPECT_EQ(t.get("\\My Flash Disk\\f"), "");
}

TEST(SimFiles, FreeSpaceComesFromTheProfileElseFromTheHost) {
    TestDevice t("[storage.'\\My Flash Disk']\ntotal = 536870912\nfree = 12345\n"
                 "[storage.'\\Full']\ntotal = 268435456\nfree = 1048576\nfull = true\n");
    t.put("\\My Flash Disk\\Dir\\f", "x");
    struct Case { const char *path; uint64_t total, free; };
    const Case cases[] = {
        {"\\My Flash Disk", 536870912, 12345},
        {"\\my flash disk\\Dir", 536870912, 12345},
        {"\\My Flash Disk\\Dir\\f", 536870912, 12345},
        {"\\Full", 268435456, 0},   // a full volume has no free space whatever the profile says
    };
    ULARGE_INTEGER caller, total, free;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        ASSERT_TRUE(GetDiskFreeSpaceExW(W(c.path).c_str(), &caller, &total, &free));
        EXPECT_EQ(total.QuadPart, c.total);
        EXPECT_EQ(free.QuadPart, c.free);
        EXPECT_EQ(caller.QuadPart, c.free);
    }
    ASSERT_TRUE(GetDiskFreeSpaceExW(u"\\", &caller, &total, NULL));   // outside: the host's figures
    EXPECT_GT(total.QuadPart, 0ull);
    EXPECT_NE(total.QuadPart, 536870912ull);
    EXPECT_LE(caller.QuadPart, total.QuadPart);
    EXPECT_FALSE(GetDiskFreeSpaceExW(u"\\Nowhere", &caller, &total, &free));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_PATH_NOT_FOUND));
}

TEST(SimFiles, BadStorageProfileValuesAreIgnored) {
    TestDevice t("[storage.'\\My Flash Disk']\ntotal = -5\nfree = 'lots'\nread_only = 1\n[storage]\nplain = 3\n");
    const sim::FileSystem::Volume *v = t.dev().files().volumeOf(u"\\My Flash Disk\\x");
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->total, 0ull);
    EXPECT_EQ(v->free, 0ull);
    EXPECT_FALSE(v->readOnly);
    EXPECT_TRUE(opens("\\My Flash Disk\\f", RW, CREATE_ALWAYS));
}

TEST(SimFiles, ProfileFailuresAreInjectedByCallName) {
    TestDevice t("[fail]\nCreateFileW = 32\nGetDiskFreeSpaceExW = 21\n");
    t.put("\\f", "x");
    ULARGE_INTEGER total;
    expectCalls({
        opening("\\f", GENERIC_READ, OPEN_EXISTING, false, 32),
        {"free space", [&] { return DWORD(GetDiskFreeSpaceExW(u"\\", NULL, &total, NULL)); }, FALSE, 21},
    });
    t.dev().setFailure("CreateFileW", std::nullopt);
    EXPECT_TRUE(opens("\\f", GENERIC_READ, OPEN_EXISTING));
}

TEST(SimFiles, FileTimesConvertToAndFromSystemTimes) {
    // SYSTEMTIME: year, month, day of week, day, hour, minute, second, ms
    struct Case { uint64_t ticks; SYSTEMTIME st; };
    auto fields = [](const SYSTEMTIME &s) {
        return std::vector<int>{s.wYear, s.wMonth, s.wDayOfWeek, s.wDay, s.wHour, s.wMinute, s.wSecond, s.wMilliseconds};
    };
    const Case cases[] = {
        {0ull, {1601, 1, 1, 1, 0, 0, 0, 0}},
        {116444736000000000ull, {1970, 1, 4, 1, 0, 0, 0, 0}},
        {128492010105000000ull, {2008, 3, 3, 5, 14, 30, 10, 500}},
        {125963423999990000ull, {2000, 2, 2, 29, 23, 59, 59, 999}},
        {157520160000000000ull, {2100, 3, 1, 1, 0, 0, 0, 0}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.ticks);
        SYSTEMTIME st;
        std::memset(&st, 0xFF, sizeof st);
        FILETIME ft = {DWORD(c.ticks), DWORD(c.ticks >> 32)};
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
        EXPECT_EQ(fields(st), fields(c.st));
        SYSTEMTIME other = c.st;
        other.wDayOfWeek = 6;   // ignored
        ASSERT_TRUE(SystemTimeToFileTime(&other, &ft));
        EXPECT_EQ(ticks100ns(ft), c.ticks);
    }
    FILETIME tooBig = {0, 0x80000000u};
    SYSTEMTIME st;
    EXPECT_FALSE(FileTimeToSystemTime(&tooBig, &st));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));

    const SYSTEMTIME invalid[] = {   // 1900 is not a leap year; 1600 is before the epoch
        {1900, 2, 0, 29, 0, 0, 0, 0}, {2001, 4, 0, 31, 0, 0, 0, 0}, {2008, 13, 0, 1, 0, 0, 0, 0},
        {2008, 0, 0, 1, 0, 0, 0, 0},  {2008, 1, 0, 0, 0, 0, 0, 0},  {2008, 1, 0, 1, 24, 0, 0, 0},
        {2008, 1, 0, 1, 0, 60, 0, 0}, {2008, 1, 0, 1, 0, 0, 60, 0}, {2008, 1, 0, 1, 0, 0, 0, 1000},
        {1600, 12, 0, 31, 0, 0, 0, 0},
    };
    for (const SYSTEMTIME &s : invalid) {
        FILETIME ft;
        SetLastError(0);
        EXPECT_FALSE(SystemTimeToFileTime(&s, &ft)) << testing::PrintToString(fields(s));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    }
}
