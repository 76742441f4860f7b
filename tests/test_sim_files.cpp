// The simulated device's file system and CE file API, held to the behaviour CE documents.
#include "test_device.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <fcntl.h>
#include <cstring>
#include <ctime>
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

FILETIME fileTimeOf(uint64_t v) {
    FILETIME ft;
    ft.dwLowDateTime = DWORD(v);
    ft.dwHighDateTime = DWORD(v >> 32);
    return ft;
}

std::vector<std::string> findAll(const std::string &pattern, DWORD *firstError = nullptr) {
    std::vector<std::string> names;
    WIN32_FIND_DATAW fd;
    HANDLE h = FindFirstFileW(W(pattern).c_str(), &fd);
    if (h == INVALID_HANDLE_VALUE) {
        if (firstError) *firstError = GetLastError();
        return names;
    }
    do names.push_back(U(fd.cFileName));
    while (FindNextFileW(h, &fd));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_NO_MORE_FILES));
    EXPECT_TRUE(FindClose(h));
    return names;
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
    struct Case {
        DWORD disposition;
        bool exists;
        bool ok;
        DWORD error;          // the last error after the call
        const char *content;  // the file afterwards (nullptr: absent)
    };
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
        if (h != INVALID_HANDLE_VALUE) {
            EXPECT_TRUE(CloseHandle(h));
        }
        EXPECT_EQ(t.exists("\\Dir\\f.bin"), c.content != nullptr);
        if (c.content) {
            EXPECT_EQ(t.get("\\Dir\\f.bin"), c.content);
        }
    }
}

TEST(SimFiles, CreateFileRefusesBadNamesFoldersAndMissingFolders) {
    TestDevice t;
    t.put("\\Dir\\file", "x");
    struct Case {
        std::string name;
        DWORD disposition;
        DWORD error;
    };
    const Case cases[] = {
        {"\\Missing\\f", OPEN_ALWAYS, ERROR_PATH_NOT_FOUND},
        {"\\Missing\\f", OPEN_EXISTING, ERROR_PATH_NOT_FOUND},
        {"\\Dir\\file\\below", CREATE_ALWAYS, ERROR_PATH_NOT_FOUND},
        {"\\Dir", OPEN_EXISTING, ERROR_ACCESS_DENIED},
        {"\\DIR", CREATE_ALWAYS, ERROR_ACCESS_DENIED},
        {"\\", OPEN_EXISTING, ERROR_ACCESS_DENIED},
        {"\\Dir\\a*b", CREATE_ALWAYS, ERROR_INVALID_NAME},
        {"\\Dir\\a|b", CREATE_ALWAYS, ERROR_INVALID_NAME},
        {"\\Dir\\file", 0, ERROR_INVALID_PARAMETER},
        {"\\Dir\\file", 6, ERROR_INVALID_PARAMETER},
        {"", OPEN_EXISTING, ERROR_PATH_NOT_FOUND},
        {"\\" + std::string(200, 'a') + "\\" + std::string(58, 'b'), CREATE_ALWAYS, 206},
        {"NOPE9:", OPEN_EXISTING, ERROR_FILE_NOT_FOUND},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetLastError(kNoLastError);
        EXPECT_EQ(openFile(c.name, RW, c.disposition), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), c.error);
    }
    EXPECT_EQ(CreateFileW(NULL, RW, 0, NULL, OPEN_EXISTING, 0, NULL), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    // The longest name CE allows (259 characters) works.
    ASSERT_TRUE(CreateDirectoryW(W("\\" + std::string(200, 'a')).c_str(), NULL));
    HANDLE h = openFile("\\" + std::string(200, 'a') + "\\" + std::string(57, 'b'), RW, CREATE_ALWAYS);
    EXPECT_NE(h, INVALID_HANDLE_VALUE);
    CloseHandle(h);
    EXPECT_EQ(t.dev().objects().count(), 0u);
}

TEST(SimFiles, AccessRightsAreEnforcedOnReadAndWrite) {
    TestDevice t;
    t.put("\\f", "abc");
    char buf[8];
    DWORD n = 99;

    HANDLE r = openFile("\\f", GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(r, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(WriteFile(r, "x", 1, &n, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(ReadFile(r, buf, 8, &n, NULL));
    EXPECT_EQ(n, 3u);
    CloseHandle(r);

    HANDLE w = openFile("\\f", GENERIC_WRITE, OPEN_EXISTING);
    ASSERT_NE(w, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(ReadFile(w, buf, 8, &n, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(writeText(w, "X"));
    CloseHandle(w);
    EXPECT_EQ(t.get("\\f"), "Xbc");

    HANDLE q = openFile("\\f", 0, OPEN_EXISTING);   // a query handle reads nothing and writes nothing
    ASSERT_NE(q, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(ReadFile(q, buf, 1, &n, NULL));
    EXPECT_FALSE(WriteFile(q, buf, 1, &n, NULL));
    EXPECT_EQ(GetFileSize(q, NULL), 3u);
    CloseHandle(q);

    EXPECT_EQ(openFile("\\f", GENERIC_READ, TRUNCATE_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(t.get("\\f"), "Xbc");

    // A host file without write permission is a read-only file.
    sim::fs::permissions(t.host("\\f"), sim::fs::perms::owner_write, sim::fs::perm_options::remove);
    EXPECT_EQ(GetFileAttributesW(W("\\f").c_str()), DWORD(FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(openFile("\\f", RW, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_FALSE(DeleteFileW(W("\\f").c_str()));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    HANDLE ro = openFile("\\f", GENERIC_READ, OPEN_EXISTING);
    EXPECT_NE(ro, INVALID_HANDLE_VALUE);
    CloseHandle(ro);
}

TEST(SimFiles, FilePointerMovesAndRefusesNegativePositions) {
    TestDevice t;
    HANDLE h = openFile("\\f", RW, CREATE_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(writeText(h, "hello world"));

    struct Case {
        LONG distance;
        DWORD method;
        DWORD result;   // INVALID_SET_FILE_POINTER for a refusal
        DWORD error;
    };
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
    // Writing past the end fills the gap with zeros.
    ASSERT_TRUE(writeText(h, "!"));
    EXPECT_EQ(GetFileSize(h, NULL), 14u);
    EXPECT_EQ(t.get("\\f"), std::string("hello world\0\0!", 14));

    // With the high word the distance is 64 bits and the position comes back in two halves.
    LONG high = 1;
    EXPECT_EQ(SetFilePointer(h, 5, &high, FILE_BEGIN), 5u);
    EXPECT_EQ(high, 1);
    high = -1;
    EXPECT_EQ(SetFilePointer(h, -3, &high, FILE_CURRENT), 2u);   // 0x1_00000005 - 3
    EXPECT_EQ(high, 1);
    high = 0;
    EXPECT_EQ(SetFilePointer(h, 0, &high, FILE_BEGIN), 0u);

    // Reading at the end succeeds with no bytes.
    SetFilePointer(h, 0, NULL, FILE_END);
    char c;
    DWORD n = 7;
    EXPECT_TRUE(ReadFile(h, &c, 1, &n, NULL));
    EXPECT_EQ(n, 0u);
    CloseHandle(h);
}

TEST(SimFiles, CallsOnAHandleThatIsNotAFileFailWithInvalidHandle) {
    TestDevice t;
    t.put("\\f", "x");
    char buf[4];
    DWORD n = 0;
    WIN32_FIND_DATAW fd;
    HANDLE find = FindFirstFileW(W("\\*").c_str(), &fd);
    ASSERT_NE(find, INVALID_HANDLE_VALUE);
    HANDLE file = openFile("\\f", RW, OPEN_EXISTING);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    DWORD high = 0;

    for (HANDLE h : {HANDLE(NULL), INVALID_HANDLE_VALUE, find}) {
        SetLastError(0);
        EXPECT_FALSE(ReadFile(h, buf, 1, &n, NULL));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
        EXPECT_FALSE(WriteFile(h, buf, 1, &n, NULL));
        EXPECT_EQ(GetFileSize(h, &high), INVALID_FILE_SIZE);
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
        EXPECT_EQ(SetFilePointer(h, 0, NULL, FILE_BEGIN), INVALID_SET_FILE_POINTER);
        EXPECT_FALSE(FlushFileBuffers(h));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    }
    EXPECT_FALSE(FindNextFileW(file, &fd));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(FindClose(file));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(FlushFileBuffers(file));
    EXPECT_TRUE(FindClose(find));
    EXPECT_FALSE(FindClose(find));
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_FALSE(CloseHandle(file));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
}

TEST(SimFiles, DeleteFileGivesTheCeErrors) {
    TestDevice t;
    t.put("\\Dir\\a", "1");
    t.put("\\Dir\\open", "2");
    HANDLE h = openFile("\\Dir\\open", GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    struct Case {
        const char *name;
        bool ok;
        DWORD error;
    };
    const Case cases[] = {
        {"\\DIR\\A", true, 0},
        {"\\Dir\\a", false, ERROR_FILE_NOT_FOUND},
        {"\\Nope\\a", false, ERROR_PATH_NOT_FOUND},
        {"\\Dir", false, ERROR_ACCESS_DENIED},
        {"\\Dir\\OPEN", false, ERROR_SHARING_VIOLATION},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetLastError(0);
        EXPECT_EQ(DeleteFileW(W(c.name).c_str()), c.ok ? TRUE : FALSE);
        EXPECT_EQ(GetLastError(), c.error);
    }
    EXPECT_FALSE(t.exists("\\Dir\\a"));
    CloseHandle(h);
    EXPECT_TRUE(DeleteFileW(W("\\Dir\\open").c_str()));
    EXPECT_FALSE(t.exists("\\Dir\\open"));
}

TEST(SimFiles, FindMatchesWildcardsWithoutRegardToCase) {
    TestDevice t;
    t.put("\\D\\alpha.TXT", "");
    t.put("\\D\\Beta.txt", "");
    t.put("\\D\\gamma.bin", "");
    t.put("\\D\\noext", "");
    t.put("\\D\\Sub\\x", "");
    struct Case {
        const char *pattern;
        std::vector<std::string> names;
        DWORD error;   // when nothing matches
    };
    const Case cases[] = {
        {"\\d\\*", {"alpha.TXT", "Beta.txt", "gamma.bin", "noext", "Sub"}, 0},
        {"\\D\\*.*", {"alpha.TXT", "Beta.txt", "gamma.bin", "noext", "Sub"}, 0},
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
    // Last write 2008-03-05 14:30:10 UTC.
    std::tm tm{};
    tm.tm_year = 108;
    tm.tm_mon = 2;
    tm.tm_mday = 5;
    tm.tm_hour = 14;
    tm.tm_min = 30;
    tm.tm_sec = 10;
    time_t when = timegm(&tm);
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
    SYSTEMTIME st;
    ASSERT_TRUE(FileTimeToSystemTime(&fd.ftLastWriteTime, &st));
    EXPECT_EQ(st.wYear, 2008);
    EXPECT_EQ(st.wHour, 14);
    EXPECT_TRUE(FindClose(h));

    h = FindFirstFileW(W("\\d\\s*").c_str(), &fd);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(fd.dwFileAttributes, DWORD(FILE_ATTRIBUTE_DIRECTORY));
    EXPECT_EQ(fd.nFileSizeLow, 0u);
    EXPECT_FALSE(FindNextFileW(h, &fd));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_NO_MORE_FILES));
    EXPECT_FALSE(FindNextFileW(h, &fd));   // stays at the end
    EXPECT_EQ(GetLastError(), DWORD(ERROR_NO_MORE_FILES));
    FindClose(h);
}

TEST(SimFiles, AttributesAndFolders) {
    TestDevice t;
    t.put("\\D\\f", "x");
    const DWORD missing = INVALID_FILE_ATTRIBUTES;
    struct Case {
        const char *name;
        DWORD attributes;
        DWORD error;
    };
    const Case cases[] = {
        {"\\", FILE_ATTRIBUTE_DIRECTORY, 0},
        {"\\d", FILE_ATTRIBUTE_DIRECTORY, 0},
        {"\\D\\F", FILE_ATTRIBUTE_ARCHIVE, 0},
        {"\\D\\g", missing, ERROR_FILE_NOT_FOUND},
        {"\\E\\g", missing, ERROR_PATH_NOT_FOUND},
        {"\\D\\f\\g", missing, ERROR_PATH_NOT_FOUND},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SetLastError(0);
        EXPECT_EQ(GetFileAttributesW(W(c.name).c_str()), c.attributes);
        EXPECT_EQ(GetLastError(), c.error);
    }

    struct Step {
        bool create;   // CreateDirectoryW, else RemoveDirectoryW
        const char *name;
        bool ok;
        DWORD error;
    };
    const Step steps[] = {
        {true, "\\D\\New", true, 0},
        {true, "\\d\\NEW", false, ERROR_ALREADY_EXISTS},
        {true, "\\D\\f", false, ERROR_ALREADY_EXISTS},
        {true, "\\", false, ERROR_ALREADY_EXISTS},
        {true, "\\X\\Y", false, ERROR_PATH_NOT_FOUND},
        {true, "\\D\\New\\Inner", true, 0},
        {false, "\\D\\New", false, ERROR_DIR_NOT_EMPTY},
        {false, "\\D\\new\\inner", true, 0},
        {false, "\\D\\New", true, 0},
        {false, "\\D\\New", false, ERROR_FILE_NOT_FOUND},
        {false, "\\Q\\New", false, ERROR_PATH_NOT_FOUND},
        {false, "\\D\\f", false, 267},
        {false, "\\", false, ERROR_ACCESS_DENIED},
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(std::string(s.create ? "create " : "remove ") + s.name);
        SetLastError(0);
        BOOL ok = s.create ? CreateDirectoryW(W(s.name).c_str(), NULL) : RemoveDirectoryW(W(s.name).c_str());
        EXPECT_EQ(ok, s.ok ? TRUE : FALSE);
        EXPECT_EQ(GetLastError(), s.error);
    }
    EXPECT_TRUE(sim::fs::is_directory(t.folder() / "fs" / "D"));
    EXPECT_FALSE(sim::fs::exists(t.folder() / "fs" / "D" / "New"));
}

TEST(SimFiles, ReadOnlyVolumeRefusesEveryChange) {
    TestDevice t(
        "[storage.'\\My Flash Disk']\nread_only = true\n"
        "[storage.'\\Storage Card']\ntotal = 1000\nfree = 400\n");
    t.put("\\My Flash Disk\\f", "x");
    struct Case {
        const char *what;
        std::function<bool()> call;
    };
    const Case cases[] = {
        {"create", [] { return openFile("\\my flash disk\\new", RW, CREATE_NEW) != INVALID_HANDLE_VALUE; }},
        {"open for writing", [] { return openFile("\\My Flash Disk\\f", GENERIC_WRITE, OPEN_EXISTING) != INVALID_HANDLE_VALUE; }},
        {"truncate", [] { return openFile("\\My Flash Disk\\f", RW, CREATE_ALWAYS) != INVALID_HANDLE_VALUE; }},
        {"create by open always", [] { return openFile("\\My Flash Disk\\g", GENERIC_READ, OPEN_ALWAYS) != INVALID_HANDLE_VALUE; }},
        {"delete", [] { return DeleteFileW(u"\\My Flash Disk\\f") != FALSE; }},
        {"make a folder", [] { return CreateDirectoryW(u"\\My Flash Disk\\Sub", NULL) != FALSE; }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        SetLastError(0);
        EXPECT_FALSE(c.call());
        EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    }
    EXPECT_EQ(t.get("\\My Flash Disk\\f"), "x");
    EXPECT_FALSE(t.exists("\\My Flash Disk\\g"));
    HANDLE r = openFile("\\My Flash Disk\\F", GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(r, INVALID_HANDLE_VALUE);
    EXPECT_EQ(readAll(r), "x");
    CloseHandle(r);
    // The other volume and the root are writable; the volume folders were made at start.
    EXPECT_TRUE(sim::fs::is_directory(t.host("\\Storage Card")));
    HANDLE w = openFile("\\Storage Card\\new", RW, CREATE_NEW);
    EXPECT_NE(w, INVALID_HANDLE_VALUE);
    CloseHandle(w);
    w = openFile("\\My Flash Disk Two", RW, CREATE_NEW);   // a sibling name, not inside the volume
    EXPECT_NE(w, INVALID_HANDLE_VALUE);
    CloseHandle(w);
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

    ULARGE_INTEGER caller, total, free;
    ASSERT_TRUE(GetDiskFreeSpaceExW(u"\\my flash disk", &caller, &total, &free));
    EXPECT_EQ(total.QuadPart, 268435456ull);
    EXPECT_EQ(free.QuadPart, 0ull);
    EXPECT_EQ(caller.QuadPart, 0ull);
}

TEST(SimFiles, FreeSpaceComesFromTheProfileElseFromTheHost) {
    TestDevice t("[storage.'\\My Flash Disk']\ntotal = 536870912\nfree = 12345\n");
    t.put("\\My Flash Disk\\Dir\\f", "x");
    ULARGE_INTEGER caller, total, free;
    for (const char *path : {"\\My Flash Disk", "\\My Flash Disk\\Dir", "\\My Flash Disk\\Dir\\f"}) {
        SCOPED_TRACE(path);
        ASSERT_TRUE(GetDiskFreeSpaceExW(W(path).c_str(), &caller, &total, &free));
        EXPECT_EQ(total.QuadPart, 536870912ull);
        EXPECT_EQ(free.QuadPart, 12345ull);
        EXPECT_EQ(caller.QuadPart, 12345ull);
    }
    ASSERT_TRUE(GetDiskFreeSpaceExW(u"\\", &caller, &total, NULL));   // outside: the host's figures
    EXPECT_GT(total.QuadPart, 0ull);
    EXPECT_NE(total.QuadPart, 536870912ull);
    EXPECT_LE(caller.QuadPart, total.QuadPart);
    EXPECT_FALSE(GetDiskFreeSpaceExW(u"\\Nowhere", &caller, &total, &free));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_PATH_NOT_FOUND));
}

TEST(SimFiles, BadStorageProfileValuesAreIgnored) {
    TestDevice t(
        "[storage.'\\My Flash Disk']\ntotal = -5\nfree = 'lots'\nread_only = 1\n"
        "[storage]\nplain = 3\n");
    const sim::FileSystem::Volume *v = t.dev().files().volumeOf(u"\\My Flash Disk\\x");
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->total, 0ull);
    EXPECT_EQ(v->free, 0ull);
    EXPECT_FALSE(v->readOnly);
    HANDLE h = openFile("\\My Flash Disk\\f", RW, CREATE_ALWAYS);
    EXPECT_NE(h, INVALID_HANDLE_VALUE);
    CloseHandle(h);
}

TEST(SimFiles, ProfileFailuresAreInjectedByCallName) {
    TestDevice t("[fail]\nCreateFileW = 32\nGetDiskFreeSpaceExW = 21\n");
    t.put("\\f", "x");
    EXPECT_EQ(openFile("\\f", GENERIC_READ, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), 32u);
    ULARGE_INTEGER total;
    EXPECT_FALSE(GetDiskFreeSpaceExW(u"\\", NULL, &total, NULL));
    EXPECT_EQ(GetLastError(), 21u);
    t.dev().setFailure("CreateFileW", std::nullopt);
    HANDLE h = openFile("\\f", GENERIC_READ, OPEN_EXISTING);
    EXPECT_NE(h, INVALID_HANDLE_VALUE);
    CloseHandle(h);
}

TEST(SimFiles, FileTimesConvertToAndFromSystemTimes) {
    struct Case {
        uint64_t ticks;
        SYSTEMTIME st;   // year, month, day of week, day, hour, minute, second, ms
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
        FILETIME ft = fileTimeOf(c.ticks);
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
        EXPECT_EQ(0, std::memcmp(&st, &c.st, sizeof st))
            << st.wYear << "-" << st.wMonth << "-" << st.wDay << " dow " << st.wDayOfWeek << " " << st.wHour
            << ":" << st.wMinute << ":" << st.wSecond << "." << st.wMilliseconds;
        FILETIME back{};
        SYSTEMTIME other = c.st;
        other.wDayOfWeek = 6;   // ignored
        ASSERT_TRUE(SystemTimeToFileTime(&other, &back));
        EXPECT_EQ(ticks100ns(back), c.ticks);
    }
    FILETIME tooBig = fileTimeOf(0x8000000000000000ull);
    SYSTEMTIME st;
    EXPECT_FALSE(FileTimeToSystemTime(&tooBig, &st));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));

    const SYSTEMTIME invalid[] = {
        {1900, 2, 0, 29, 0, 0, 0, 0},    // not a leap year
        {2001, 4, 0, 31, 0, 0, 0, 0},
        {2008, 13, 0, 1, 0, 0, 0, 0},
        {2008, 0, 0, 1, 0, 0, 0, 0},
        {2008, 1, 0, 0, 0, 0, 0, 0},
        {2008, 1, 0, 1, 24, 0, 0, 0},
        {2008, 1, 0, 1, 0, 60, 0, 0},
        {2008, 1, 0, 1, 0, 0, 60, 0},
        {2008, 1, 0, 1, 0, 0, 0, 1000},
        {1600, 12, 0, 31, 0, 0, 0, 0},
    };
    for (const SYSTEMTIME &s : invalid) {
        FILETIME ft;
        SetLastError(0);
        EXPECT_FALSE(SystemTimeToFileTime(&s, &ft)) << s.wYear << "-" << s.wMonth << "-" << s.wDay;
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    }
}
