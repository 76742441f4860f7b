// The file wrappers: the mode table, the return conventions, the find search and its record, the
// bounded formatters and the file classes, on the simulated device's file system.
#include "platform/plat_alloc.h"
#include "test_device.h"

#include "platform/plat_file.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

using namespace testing_support;

namespace {

FILETIME fileTimeOf(WORD y, WORD mo, WORD d, WORD h, WORD mi, WORD s) {
    SYSTEMTIME st = {y, mo, 0, d, h, mi, s, 0};
    FILETIME ft = {0, 0};
    EXPECT_TRUE(SystemTimeToFileTime(&st, &ft));
    return ft;
}

}  // namespace

// Each test starts from the default log settings, also when the tests share one process.
class PlatFile : public ::testing::Test {
protected:
    void SetUp() override {
        g_vlLogSettings.level = LOG_WARNING;
        g_vlLogSettings.moduleMask = MODULE_ALL;
    }
    // The handles open once the allocator is set up: the memory organisation's mutex stays open for
    // the whole boot, and tests that allocate count file handles above it.
    static size_t handlesOnceOrganised(TestDevice &t) {
        os_free(os_malloc(1));
        return t.dev().objects().count();
    }
};

TEST_F(PlatFile, ModeTableFirstMatchingRowWins) {
    enum Creation { ALWAYS_NEW, OPEN_OR_CREATE, MUST_EXIST };
    struct Case { const char *mode; bool write; Creation creation; bool append; } const cases[] = {
        {"w", true, ALWAYS_NEW, false},    {"wb", true, ALWAYS_NEW, false},   {"wbc", true, ALWAYS_NEW, false},
        {"wb+", true, ALWAYS_NEW, false},  {"a", true, OPEN_OR_CREATE, true}, {"r+", true, MUST_EXIST, false},
        {"r+b", true, MUST_EXIST, false},  {"w+", true, ALWAYS_NEW, false},   {"w+b", true, ALWAYS_NEW, false},
        {"a+", true, OPEN_OR_CREATE, true}, {"a+b", true, OPEN_OR_CREATE, true},
        // Everything else reads an existing file, including texts a C library would write with.
        {"ab", false, MUST_EXIST, false},  {"wt", false, MUST_EXIST, false},  {"W", false, MUST_EXIST, false},
        {"rb", false, MUST_EXIST, false},  {"r", false, MUST_EXIST, false},   {"", false, MUST_EXIST, false},
    };
    TestDevice t;
    g_vlLogSettings.level = LOG_TRACE;
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string("mode \"") + c.mode + "\"");
        // A missing file; opening logs nothing and leaves the last error alone, also when it fails.
        sim::fs::remove(t.host("\\f.txt"));
        os_setLastError(777);
        testing_support::LogMark log;
        HANDLE h = os_wfopen(u"\\f.txt", W(c.mode).c_str());
        EXPECT_EQ(h != NULL, c.creation != MUST_EXIST);
        EXPECT_EQ(t.exists("\\f.txt"), c.creation != MUST_EXIST);
        EXPECT_EQ(h ? os_fclose(h) : 1, 1);
        EXPECT_EQ(os_getLastError(), 777u);
        EXPECT_EQ(log.since(), "");

        // An existing file: where does a write go, and what is left of the old content?
        t.put("\\f.txt", "0123456789");
        h = os_wfopen(u"\\F.TXT", W(c.mode).c_str());
        ASSERT_NE(h, (HANDLE)NULL);
        char first = 0;
        EXPECT_EQ(os_fread(&first, 1, h), c.append || c.creation == ALWAYS_NEW ? 0u : 1u);
        if (!c.append && c.creation != ALWAYS_NEW) os_fseek(h, 0, 0);
        EXPECT_EQ(os_fwrite("AB", 2, h), c.write ? 2u : 0u);
        EXPECT_EQ(os_fclose(h), 1);
        EXPECT_EQ(t.get("\\f.txt"), !c.write                    ? "0123456789"
                                    : c.creation == ALWAYS_NEW ? "AB"
                                    : c.append                 ? "0123456789AB"
                                                               : "AB23456789");
    }
    os_setLastError(777);
    testing_support::LogMark log;
    EXPECT_EQ(os_wfopen(u"\\No Folder\\x", u"w"), (HANDLE)NULL);
    EXPECT_EQ(os_wfopen(NULL, u"w"), (HANDLE)NULL);
    EXPECT_EQ(os_getLastError(), 777u);
    EXPECT_EQ(log.since(), "");

    // Appending where the end cannot be reached: logged, and the handle closed.
    t.dev().setFailure("SetFilePointer", 87);
    EXPECT_EQ(os_wfopen(u"\\f.txt", u"a+"), (HANDLE)NULL);
    EXPECT_EQ(os_getLastError(), 87u);
    EXPECT_TRUE(log.has("os_wfopen(\\f.txt, a+): fopen() failed, error 87\r\n")) << log.since();
    EXPECT_EQ(t.dev().objects().count(), 0u);
}

TEST_F(PlatFile, ReturnConventionsOfCloseSeekReadAndWrite) {
    TestDevice t;
    t.put("\\f", "0123456789");
    HANDLE h = os_wfopen(u"\\f", u"rb");
    ASSERT_NE(h, (HANDLE)NULL);
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%x", TARSK_HANDLE_TEXT(h));
    // os_fseek: 0 on success; any origin other than 1 and 2 counts from the beginning.
    struct { LONG offset; int origin, result; char next; } const seeks[] = {   // next: the byte read afterwards
        {3, 0, 0, '3'}, {2, 1, 0, '6'}, {-1, 2, 0, '9'}, {5, 9, 0, '5'}, {-1, 0, 131, '6'}};
    testing_support::LogMark log;
    for (const auto &s : seeks) {
        SCOPED_TRACE(std::to_string(s.offset) + "," + std::to_string(s.origin));
        EXPECT_EQ(os_fseek(h, s.offset, s.origin), s.result);
        char c = 0;
        EXPECT_EQ(os_fread(&c, 1, h), 1u);
        EXPECT_EQ(c, s.next);
    }
    EXPECT_EQ(os_getLastError(), 131u);
    EXPECT_TRUE(log.has("os_fseek(" + std::string(hex) + ", 0xffffffff, 0) returned -1, error 131\r\n")) << log.since();
    // Writing through a read handle: 0 and the system's error.
    EXPECT_EQ(os_fwrite("x", 1, h), 0u);
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(log.has("os_fwrite(0x") && log.has(", 1, " + std::string(hex) + ") failed, error 5\r\n"))
        << log.since();
    char buf[4];
    EXPECT_EQ(os_fread(buf, 4, NULL), 0u);
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(log.has("os_fread(0x") && log.has(", 4, 0x0) failed, error 6\r\n")) << log.since();
    // os_fclose: 1 on success, the error code otherwise; an invalid handle is a DEBUG matter.
    EXPECT_EQ(os_fclose(h), 1);
    g_vlLogSettings.level = LOG_DEBUG;
    EXPECT_EQ(os_fclose((HANDLE)0x1234), ERROR_INVALID_HANDLE);
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(log.has("PLATFORM-DEBUG, os_fclose(0x1234) failed, error 6 (the handle is invalid)\r\n"))
        << log.since();
}

TEST_F(PlatFile, FileSizeByPathIsZeroForAMissingFile) {
    TestDevice t;
    t.put("\\five", "12345");
    t.put("\\empty", "");
    EXPECT_EQ(os_wGetFileSize(u"\\FIVE"), 5u);
    EXPECT_EQ(os_wGetFileSize(u"\\empty"), 0u);
    g_vlLogSettings.level = LOG_DEBUG;
    testing_support::LogMark log;
    EXPECT_EQ(os_wGetFileSize(u"\\missing"), 0u);
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(log.has("PLATFORM-DEBUG, os_wGetFileSize(\\missing): "
                        "os_getFileSizeFromHandle(0x0) failed, error 6\r\n"))
        << log.since();
    // Any other error is an ERROR line without module.
    t.dev().setFailure("GetFileSize", 29);
    EXPECT_EQ(os_wGetFileSize(u"\\five"), 0u);
    EXPECT_EQ(os_getLastError(), 29u);
    EXPECT_TRUE(log.has(", ERROR, os_wGetFileSize(\\five): os_getFileSizeFromHandle(0x") &&
                log.has(") failed, error 29\r\n"))
        << log.since();
    EXPECT_EQ(t.dev().objects().count(), 0u);
}

// Creation time (not last write) in MS-DOS form; size = low + (high << 16); name cut to 255.
TEST_F(PlatFile, FindRecordFromTheSystemsFindData) {
    struct { WORD year, month, day, hour, minute, second; DWORD time, date, high, size; } const cases[] = {
        {2008, 3, 5, 14, 30, 10, 0x73C5, 0x3865, 0, 5},
        {2008, 3, 5, 14, 30, 11, 0x73C5, 0x3865, 1, 0x10005},   // two-second steps
        {1980, 1, 1, 0, 0, 0, 0x0000, 0x0021, 0, 5},
        {2107, 12, 31, 23, 59, 58, 0xBF7D, 0xFF9F, 0, 5},
        {2108, 1, 1, 0, 0, 0, 0x0000, 0x0021, 0, 5},     // the year wraps at 128
        {1979, 12, 31, 0, 0, 0, 0x0000, 0xFF9F, 0, 5},   // (1979 - 1980) mod 128 = 127
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.year);
        WIN32_FIND_DATAW fd;
        std::memset(&fd, 0, sizeof fd);
        fd.ftCreationTime = fileTimeOf(c.year, c.month, c.day, c.hour, c.minute, c.second);
        fd.ftLastWriteTime = fileTimeOf(2020, 6, 7, 8, 9, 10);
        fd.nFileSizeLow = 5;
        fd.nFileSizeHigh = c.high;
        fd.dwFileAttributes = FILE_ATTRIBUTE_ARCHIVE;
        std::fill(fd.cFileName, fd.cFileName + (c.high ? MAX_PATH - 1 : 8), u'n');
        OS_FIND_RECORD r;
        std::memset(&r, 0xAB, sizeof r);
        os_fillFindRecord(&r, &fd);
        EXPECT_EQ(r.reserved, 0xABABABABu);
        EXPECT_EQ(r.size, c.size);
        EXPECT_EQ(r.attrib, DWORD(FILE_ATTRIBUTE_ARCHIVE));
        EXPECT_EQ(r.time, c.time);
        EXPECT_EQ(r.date, c.date);
        EXPECT_EQ(U(r.name), std::string(c.high ? 255 : 8, 'n'));
    }
}

TEST_F(PlatFile, FindKeepsOneSearchAndWarnsWhenTheLastOneWasNotClosed) {
    TestDevice t;
    t.put("\\D\\a.txt", "12345");
    t.put("\\D\\b.txt", "");
    t.put("\\D\\c.bin", "");
    OS_FIND_RECORD r;
    // A failed search empties the name and keeps no search open.
    std::memcpy(r.name, u"old", sizeof(u"old"));
    EXPECT_EQ(os_wfindfirstfilter(u"\\D\\*.doc", &r), -1);
    EXPECT_EQ(r.name[0], 0);
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_NO_MORE_FILES));
    EXPECT_EQ(os_wfindfirstfilter(u"\\Nope\\*", &r), -1);
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_PATH_NOT_FOUND));
    testing_support::LogMark log;
    ASSERT_EQ(os_wfindfirstfilter(u"\\D\\*.bin", &r), 0);
    EXPECT_EQ(U(r.name), "c.bin");
    ASSERT_EQ(os_wfindfirstfilter(u"\\d\\*.TXT", &r), 0);
    const std::string warn = "ERROR File not closed from previous use";   // once, for the second search only
    EXPECT_TRUE(log.has("os_wfindfirstfilter(\\d\\*.TXT): " + warn + "\r\n") &&
                log.since().find(warn) == log.since().rfind(warn))
        << log.since();
    EXPECT_EQ(U(r.name), "a.txt");
    EXPECT_EQ(r.size, 5u);
    // The search in progress is the second one; the first is dropped, not closed.
    EXPECT_EQ(os_wfindnext(&r), 0);
    EXPECT_EQ(U(r.name), "b.txt");
    EXPECT_EQ(os_wfindnext(&r), -1);
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_NO_MORE_FILES));
    EXPECT_EQ(r.name[0], 0);
    EXPECT_EQ(t.dev().objects().count(), 2u);
    EXPECT_TRUE(os_wfindclose());
    EXPECT_EQ(t.dev().objects().count(), 1u);
    // With the search closed, a new one starts quietly; a closed search cannot be closed again.
    testing_support::LogMark quiet;
    ASSERT_EQ(os_wfindfirstfilter((u"\\D\\a.txt" + std::u16string(300, u'*')).c_str(), &r), 0);   // cut to 259
    EXPECT_TRUE(os_wfindclose());
    EXPECT_FALSE(os_wfindclose());
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_EQ(os_wfindnext(&r), -1);
    EXPECT_EQ(quiet.since(), "");
}

TEST_F(PlatFile, BoundedFormattersCutAtTheCount) {
    WCHAR w[8];
    EXPECT_EQ(os_snwprintf(w, 8, u"%s-%d", u"abc", 12345), 9);
    EXPECT_EQ(U(w), "abc-123");
    EXPECT_EQ(os_snwprintf(w, 8, u"%hs", "hi"), 2);
    EXPECT_EQ(U(w), "hi");
    w[0] = u'z';
    os_snwprintf(w, 0, u"abc");
    EXPECT_EQ(w[0], u'z');
    // The wide scratch holds 1023 characters: a longer text is cut there whatever the count.
    std::vector<WCHAR> wide(2000, u'?');
    EXPECT_EQ(os_snwprintf(wide.data(), wide.size(), u"%s", std::u16string(1500, u'x').c_str()), -1);
    EXPECT_EQ(U(wide.data()), std::string(1023, 'x'));
    // The narrow one has no such bound.
    const std::string longText(3000, 'y');
    std::vector<char> narrow(4000, '?');
    EXPECT_EQ(os_snprintf(narrow.data(), narrow.size(), "%s!", longText.c_str()), 3001);
    EXPECT_EQ(std::string(narrow.data()), longText + "!");
    char small[6];
    EXPECT_EQ(os_snprintf(small, sizeof small, "%s", longText.c_str()), 3000);
    EXPECT_EQ(std::string(small), "yyyyy");
    EXPECT_EQ(os_snprintf(small, sizeof small, "%ls=%d", u"k", 7), 3);
    EXPECT_EQ(std::string(small), "k=7");
}

TEST_F(PlatFile, COSFileOpensReadsAndRemoves) {
    TestDevice t;
    t.put("\\Dir\\data.bin", "abcdef");
    {
        COSFile f(u"\\dir\\DATA.BIN");   // "rb"
        ASSERT_TRUE(f.IsOpen());
        EXPECT_EQ(U(f.GetPathName()), "\\dir\\DATA.BIN");
        EXPECT_EQ(f.GetSize(), 6u);
        char c = 0;
        EXPECT_EQ(f.Seek(-1, 2), 0);   // the origin is passed through
        EXPECT_EQ(f.Read(&c, 1), 1u);
        EXPECT_EQ(c, 'f');
        f.Close();
        EXPECT_FALSE(f.IsOpen());
        f.Close();   // no effect
        EXPECT_EQ(f.Open(u"\\Dir\\none", u"r"), 0);
        EXPECT_EQ(U(f.GetPathName()), "\\Dir\\none");
        EXPECT_EQ(f.Open(u"\\Dir\\new", u"w"), 1);
        EXPECT_EQ(f.Write("xyz", 3), 3u);
    }   // the destructor closes
    EXPECT_EQ(t.get("\\Dir\\new"), "xyz");
    EXPECT_EQ(t.dev().objects().count(), 0u);

    testing_support::LogMark quiet;
    EXPECT_EQ(COSFile::Remove(NULL), 0);
    EXPECT_EQ(quiet.since(), "");
    EXPECT_EQ(COSFile::Remove(u"\\Dir\\new"), 1);
    EXPECT_FALSE(t.exists("\\Dir\\new"));
    testing_support::LogMark log;
    EXPECT_EQ(COSFile::Remove(u"\\Dir\\new"), 0);
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(log.has("COSFile::Remove(\\Dir\\new): DeleteFile() failed, error 2")) << log.since();
    EXPECT_EQ(os_wremove(u"\\Dir\\data.bin"), 1);
    EXPECT_EQ(os_wremove(u"\\Dir\\data.bin"), 0);
    EXPECT_EQ(os_getLastError(), DWORD(ERROR_FILE_NOT_FOUND));
}

TEST_F(PlatFile, BufferedOutputHoldsBytesUntilFlushOrDestruction) {
    TestDevice t;
    const size_t kept = handlesOnceOrganised(t);
    {
        COSBufferOutputFile out;
        ASSERT_EQ(out.Open(u"\\out.txt", u"wb"), 1);
        ASSERT_EQ(out.SetBufferSize(8), 1);
        EXPECT_EQ(out.Write("abc", 3), 3u);
        EXPECT_EQ(out.Write("def", 3), 3u);
        EXPECT_EQ(t.get("\\out.txt"), "");        // still held
        EXPECT_EQ(out.Write("ghi", 3), 3u);       // would overflow: the held bytes go first
        EXPECT_EQ(t.get("\\out.txt"), "abcdef");
        EXPECT_EQ(out.Write("0123456789", 10), 10u);   // larger than the buffer: straight through
        EXPECT_EQ(t.get("\\out.txt"), "abcdefghi0123456789");
        EXPECT_EQ(out.Write("tail", 4), 4u);
        EXPECT_EQ(out.GetSize(), 23u);
        EXPECT_EQ(out.Write("!", 1), 1u);
        EXPECT_TRUE(out.FlushBuffer());
        EXPECT_EQ(t.get("\\out.txt"), "abcdefghi0123456789tail!");
        EXPECT_EQ(out.Write("end", 3), 3u);
    }
    EXPECT_EQ(t.get("\\out.txt"), "abcdefghi0123456789tail!end");
    EXPECT_EQ(t.dev().objects().count(), kept);
}

TEST_F(PlatFile, BufferedInputAlwaysReadsInKilobyteBlocks) {
    TestDevice t;
    const size_t kept = handlesOnceOrganised(t);
    std::string content;
    for (int i = 0; i < 3000; ++i) content.push_back(char('a' + i % 26));
    t.put("\\in.bin", content);
    t.put("\\two.bin", "XY");
    COSBufferInputFile *in = os_getBufferInputFile();
    ASSERT_TRUE(in != nullptr && os_getBufferInputFile() == in);
    ASSERT_EQ(in->SetBufferSize(5), 1);   // the size asked for is not used
    ASSERT_EQ(in->Open(u"\\in.bin", u"rb"), 1);
    EXPECT_EQ(in->ReadByte(), 'a');
    EXPECT_EQ(SetFilePointer(in->GetHandle(), 0, NULL, FILE_CURRENT), 1024u);
    std::vector<char> buf(1500);
    EXPECT_EQ(in->Read(buf.data(), 3), 3u);
    EXPECT_EQ(std::string(buf.data(), 3), "bcd");
    // From the current position counts from what was taken, not from the file's position.
    EXPECT_EQ(in->Seek(-2, 1), 0);
    EXPECT_EQ(in->ReadByte(), 'c');
    EXPECT_EQ(in->Seek(1020, 0), 0);
    EXPECT_EQ(in->Read(buf.data(), 1500), 1500u);
    EXPECT_EQ(std::string(buf.data(), 1500), content.substr(1020, 1500));
    EXPECT_EQ(in->Read(buf.data(), 1500), 480u);
    EXPECT_EQ(std::string(buf.data(), 480), content.substr(2520));
    EXPECT_EQ(in->Read(buf.data(), 4), 0u);
    EXPECT_EQ(in->ReadByte(), -1);
    // Reopening drops what the last file left in the buffer.
    ASSERT_EQ(in->Seek(0, 0), 0);
    EXPECT_EQ(in->ReadByte(), 'a');
    ASSERT_EQ(in->Open(u"\\two.bin", u"rb"), 1);
    EXPECT_EQ(in->ReadByte(), 'X');
    EXPECT_EQ(in->ReadByte(), 'Y');
    EXPECT_EQ(in->ReadByte(), -1);
    in->Close();
    EXPECT_EQ(t.dev().objects().count(), kept);

    // Without memory for the buffer it cannot be set up.
    t.dev().setFailure("HeapAlloc", 8);
    testing_support::LogMark log;
    COSBufferInputFile refused;
    EXPECT_EQ(refused.SetBufferSize(5), 0);
    EXPECT_TRUE(log.has(", ERROR, COSBufferInputFile::SetBufferSize(1024): os_malloc() failed\r\n")) << log.since();
}
