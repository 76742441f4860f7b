// The diagnostic log: level and module tests, the line composer and its cut, the writer's second
// formatting pass, "\r\n" in every sink, the log file numbering, debug.ini and its settings.
#include "platform/dbgtrace.h"
#include "platform/inifile.h"
#include "platform/platform.h"
#include "test_device.h"

#include <gtest/gtest.h>

#include <string>

using namespace testing_support;

namespace {

const char *kProfile = R"(
[device]
program = '\My Flash Disk\tarsk\tarsk.exe'
[registry.'HKLM\Information']
Internal = '\My Flash Disk'
External1 = '\Storage Card'
)";

std::string ring() { return U(vl_ringBuffer(nullptr, nullptr)); }

// Reads debug.ini from the root with the given text and applies section "Log".
void applyIni(TestDevice &d, const std::string &text) {
    d.put("\\debug.ini", text);
    CIniFile ini;
    ASSERT_TRUE(ini.open(W("\\debug.ini").c_str()));
    ASSERT_EQ(1, ReadDebugIniFileDbgSettings(&ini, "Log"));
    ini.close();
}

}  // namespace

TEST(LogLevels, CallSiteTestsLevelAndModule) {
    TestDevice d(kProfile);
    struct Case {
        LONG level;
        DWORD mask;
        int line;          // level of the message
        bool module;       // tagged MODULE_PLATFORM
        bool written;
    } cases[] = {
        {LOG_WARNING, 0xFFFF, LOG_ERROR, false, true},
        {LOG_WARNING, 0xFFFF, LOG_WARNING, false, true},
        {LOG_WARNING, 0xFFFF, LOG_INFO, false, false},
        {LOG_WARNING, 0xFFFF, LOG_DEBUG, false, false},
        {LOG_TRACE, 0xFFFF, LOG_SNAPSHOT, false, true},
        {LOG_DEBUG, 0xFFFF, LOG_DEBUG, true, true},
        {LOG_DEBUG, 0x0C, LOG_DEBUG, true, false},
        {LOG_NONE, 0xFFFF, LOG_ERROR, false, false},
    };
    int n = 0;
    for (const Case &c : cases) {
        g_vlLogSettings.level = c.level;
        g_vlLogSettings.moduleMask = c.mask;
        std::string marker = "case" + std::to_string(n++) + "!";
        std::u16string text = W(marker);
        if (c.module) {
            switch (c.line) {
            case LOG_DEBUG: VLLOGM(LOG_DEBUG, MODULE_PLATFORM, TEXT("%s"), text.c_str()); break;
            default: FAIL();
            }
        } else {
            switch (c.line) {
            case LOG_ERROR: VLLOG(LOG_ERROR, TEXT("%s"), text.c_str()); break;
            case LOG_WARNING: VLLOG(LOG_WARNING, TEXT("%s"), text.c_str()); break;
            case LOG_INFO: VLLOG(LOG_INFO, TEXT("%s"), text.c_str()); break;
            case LOG_DEBUG: VLLOG(LOG_DEBUG, TEXT("%s"), text.c_str()); break;
            case LOG_SNAPSHOT: VLLOG(LOG_SNAPSHOT, TEXT("%s"), text.c_str()); break;
            default: FAIL();
            }
        }
        EXPECT_EQ(c.written, ring().find(marker) != std::string::npos) << marker;
    }
}

TEST(LogLine, PrefixWithAndWithoutModule) {
    TestDevice d(kProfile);
    WCHAR line[VL_LINE_SIZE];
    VLLogRecord plain(".\\src\\platform\\initfuncs.cpp", "ERROR", nullptr, 843);
    plain.tick = 51234;
    vl_composeLine(line, plain, TEXT("boom %d"), FmtArgList(7));
    EXPECT_EQ("initfuncs.cpp(843):, 51234, ERROR, boom 7\n", U(line));

    VLLogRecord tagged("src/platform/plat_file.cpp", "DEBUG", "MODULE_PLATFORM", 12);
    tagged.tick = 5;
    vl_composeLine(line, tagged, TEXT("x\n"), FmtArgList());
    EXPECT_EQ("plat_file.cpp(12):, 5, PLATFORM-DEBUG, x\n", U(line));
}

TEST(LogLine, CutAt1278AndLineFeedAdded) {
    TestDevice d(kProfile);
    VLLogRecord rec("a.cpp", "ERROR", nullptr, 1);
    rec.tick = 0;
    WCHAR line[VL_LINE_SIZE];
    const int prefix = vl_composeLine(line, rec, TEXT(""), FmtArgList()) - 1;   // without the added "\n"

    struct Case {
        int message;        // characters of message, no line feed
        int length;         // resulting line length
    } cases[] = {
        {VL_LINE_CUT - prefix - 1, VL_LINE_CUT},       // 1277: gets its "\n"
        {VL_LINE_CUT - prefix, VL_LINE_CUT + 1},       // exactly 1278: gets one
        {VL_LINE_CUT - prefix + 1, VL_LINE_CUT + 1},   // cut to 1278 plus "\n"
        {3000, VL_LINE_CUT + 1},                       // overflowing the buffer: 1278 plus "\n"
    };
    for (const Case &c : cases) {
        std::u16string msg(size_t(c.message), u'm');
        int length = vl_composeLine(line, rec, msg.c_str(), FmtArgList());
        EXPECT_EQ(c.length, length) << c.message;
        EXPECT_EQ(u'\n', line[length - 1]);
        EXPECT_EQ(0, line[length]);
        EXPECT_EQ(u'm', line[length - 2]);
    }
    // A message that ends in a line feed keeps it and gets no second one.
    EXPECT_EQ(prefix + 2, vl_composeLine(line, rec, TEXT("y\n"), FmtArgList()));
}

TEST(LogWriter, SecondPassReadsPercentAgain) {
    TestDevice d(kProfile);
    // The argument text survives the first pass as "%%" and "%d"; the writer formats it again,
    // without arguments: "%%" becomes "%", a conversion with nothing to read stays as it is.
    VLLOG(LOG_ERROR, TEXT("[%hs]"), "100%% done, %d left");
    EXPECT_NE(std::string::npos, ring().find("[100% done, %d left]\r\n"));
}

TEST(LogWriter, RingWrapsAndKeepsTheLastText) {
    TestDevice d(kProfile);
    for (int i = 0; i < 60; ++i) vl_write(TEXT("0123456789012345678901234567890123456789\n"));
    int position = -1;
    BOOL wrapped = FALSE;
    const WCHAR *r = vl_ringBuffer(&position, &wrapped);
    EXPECT_TRUE(wrapped);
    EXPECT_EQ((60 * 42) % 2047, position);
    EXPECT_EQ(0, r[position]);
    EXPECT_EQ(0, r[2047]);
}

TEST(LogSinks, CarriageReturnInEverySink) {
    TestDevice d(kProfile);
    // the debug port is any open handle; here a file
    HANDLE port = CreateFileW(W("\\port.txt").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, port);
    std::strcpy(g_vlLogSettings.fileName, "\\log.txt");
    g_vlLogSettings.toFile = TRUE;
    g_vlLogSettings.console = TRUE;
    g_vlLogSettings.debugPortOn = TRUE;
    g_vlLogSettings.debugPortHandle = port;

    testing::internal::CaptureStdout();
    vl_write(TEXT("one\ntwo\n"));
    std::string console = testing::internal::GetCapturedStdout();
    CloseHandle(port);

    EXPECT_EQ("one\r\ntwo\r\n", console);
    EXPECT_EQ("one\r\ntwo\r\n", d.get("\\port.txt"));
    EXPECT_EQ(std::string("\xFF\xFE", 2) + utf16le("one\r\ntwo\r\n"), d.get("\\log.txt"));
    EXPECT_EQ("one\r\ntwo\r\n", ring());

    // An ASCII file has no byte-order mark.
    vl_closeLogFile();
    std::strcpy(g_vlLogSettings.fileName, "\\ascii.txt");
    g_vlLogSettings.ascii = TRUE;
    vl_write(TEXT("a\n"));
    vl_write(TEXT("b\n"));
    EXPECT_EQ("a\r\nb\r\n", d.get("\\ascii.txt"));
}

// Past 99, or with a name too long to number, the file is given up while the other sinks go on; the
// message that found the long name reaches no sink at all.
TEST(LogFile, IncrementNumbering) {
    std::vector<std::string> all = {"\\debug.txt"};
    for (int i = 0; i <= 99; ++i) all.push_back("\\debug" + std::to_string(100 + i).substr(1) + ".txt");
    const std::string longName = "\\" + std::string(250, 'n') + ".txt";   // 255 characters
    struct Case {
        std::string name;
        std::vector<std::string> present;
        const char *receiver;   // nullptr: the file is given up
        bool lost;              // the message reached no sink
    } cases[] = {
        {"\\debug.txt", {}, "\\debug.txt", false},
        {"\\debug.txt", {"\\debug.txt"}, "\\debug00.txt", false},
        {"\\debug.txt", {"\\debug.txt", "\\debug00.txt", "\\debug01.txt"}, "\\debug02.txt", false},
        {"\\debug.txt", {"\\debug.txt", "\\debug01.txt"}, "\\debug00.txt", false},
        // the extension is at most four characters, the dot included
        {"\\debug.text", {"\\debug.text"}, "\\debug00.tex", false},
        // a name without a dot is numbered at its end
        {"\\debuglog", {"\\debuglog"}, "\\debuglog00", false},
        {"\\debug.txt", all, nullptr, false},
        {longName, {longName}, nullptr, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.receiver ? c.receiver : c.name.substr(0, 12));
        TestDevice d(kProfile);
        for (const std::string &p : c.present) d.put(p, "old");
        std::strcpy(g_vlLogSettings.fileName, c.name.c_str());
        g_vlLogSettings.toFile = TRUE;
        g_vlLogSettings.increment = TRUE;
        LogMark mark;
        vl_write(TEXT("x\n"));
        vl_write(TEXT("y\n"));
        EXPECT_EQ(mark.since(), c.lost ? "y\r\n" : "x\r\ny\r\n");
        EXPECT_EQ(bool(g_vlLogSettings.toFile), c.receiver != nullptr);
        if (c.receiver) { EXPECT_EQ(std::string("\xFF\xFE", 2) + utf16le("x\r\ny\r\n"), d.get(c.receiver)); }
        for (const std::string &p : c.present) EXPECT_EQ("old", d.get(p));
        size_t files = 0;
        for (const auto &f : sim::fs::directory_iterator(d.folder() / "fs")) files += f.is_regular_file();
        EXPECT_EQ(files, c.present.size() + (c.receiver ? 1 : 0));
        vl_closeLogFile();
    }
}

TEST(LogFile, PlainOpenFailureIsRetriedEachMessage) {
    TestDevice d(kProfile);
    std::strcpy(g_vlLogSettings.fileName, "\\missing\\log.txt");
    g_vlLogSettings.toFile = TRUE;
    os_setLastError(0);
    vl_write(TEXT("first\n"));
    EXPECT_TRUE(g_vlLogSettings.toFile);
    EXPECT_EQ(DWORD(ERROR_PATH_NOT_FOUND), os_getLastError());
    ASSERT_TRUE(CreateDirectoryW(W("\\missing").c_str(), nullptr));
    vl_write(TEXT("second\n"));
    EXPECT_EQ(std::string("\xFF\xFE", 2) + utf16le("second\r\n"), d.get("\\missing\\log.txt"));
}

TEST(DebugIni, Settings) {
    struct Case {
        const char *ini;
        LONG level;
        DWORD mask;
    } cases[] = {
        {"[Log]\nAppcoreDebug=log_debug\n", LOG_DEBUG, 0xFFFF},
        {"[Log]\nAppcoreDebug=LOG_Error\n", LOG_ERROR, 0xFFFF},
        {"[Log]\nAppcoreDebug=LOG_VERBOSE\n", LOG_WARNING, 0xFFFF},     // unknown: unchanged
        {"[Log]\nAppcoreDebugModules=MODULE_GPS,MODULE_UI\n", LOG_WARNING, 0x0C},
        {"[Log]\nAppcoreDebugModules=module_root module_sound\n", LOG_WARNING, 0x11},
        {"[Log]\nAppcoreDebugModules=MODULE_PLATFORM\n", LOG_WARNING, 0},   // cannot be named
        {"[Log]\nAppcoreDebugModules=MODULE_GPS,MODULE_ALL\n", LOG_WARNING, 0xFFFF},
        {"[Other]\nAppcoreDebug=LOG_DEBUG\n", LOG_WARNING, 0xFFFF},        // missing: defaults kept
    };
    for (const Case &c : cases) {
        TestDevice d(kProfile);
        g_vlLogSettings.level = LOG_WARNING;
        g_vlLogSettings.moduleMask = 0xFFFF;
        applyIni(d, c.ini);
        EXPECT_EQ(c.level, g_vlLogSettings.level) << c.ini;
        EXPECT_EQ(c.mask, g_vlLogSettings.moduleMask) << c.ini;
    }
}

TEST(DebugIni, TraceLevelTakesBothSnapshots) {
    TestDevice d(kProfile);
    applyIni(d, "[Log]\nAppcoreDebug=LOG_TRACE\n");
    EXPECT_EQ(LOG_TRACE, g_vlLogSettings.level);
    std::string r = ring();
    size_t first = r.find("SNAPSHOT, ReadDebugIniFileDbgSettings - setlevel finish\r\n");
    size_t second = r.find("SNAPSHOT, ReadDebugIniFileDbgSettings - finish\r\n");
    ASSERT_NE(std::string::npos, first);
    ASSERT_NE(std::string::npos, second);
    EXPECT_LT(first, second);
    // each followed by a snapshot table
    EXPECT_NE(std::string::npos, r.find("            snapshot, ", first));
    EXPECT_NE(std::string::npos, r.find("            snapshot, ", second));
}

TEST(DebugIni, FileKeysOnlyUnderDebugToFile) {
    TestDevice d(kProfile);
    applyIni(d, "[Log]\nDebugToFile=false\nIncrement=TRUE\nDebugFile=\\x.txt\nDebugToASCII=TRUE\n"
                "DebugToConsole=TRUE\nDebugPort=0x3\nDebugBaud=9600\nDebugOverDebugPort=true\n");
    EXPECT_FALSE(g_vlLogSettings.toFile);
    EXPECT_FALSE(g_vlLogSettings.increment);
    EXPECT_STREQ("", g_vlLogSettings.fileName);
    EXPECT_FALSE(g_vlLogSettings.ascii);
    EXPECT_TRUE(g_vlLogSettings.console);
    EXPECT_EQ(3, g_vlLogSettings.debugPort);
    EXPECT_EQ(9600, g_vlLogSettings.debugBaud);
    EXPECT_TRUE(g_vlLogSettings.debugPortOn);

    applyIni(d, "[Log]\nDebugToFile=TRUE\nIncrement=TRUE\nDebugFile=\\x.txt\nDebugToASCII=TRUE\n");
    EXPECT_TRUE(g_vlLogSettings.toFile);
    EXPECT_TRUE(g_vlLogSettings.increment);
    EXPECT_STREQ("\\x.txt", g_vlLogSettings.fileName);
    EXPECT_TRUE(g_vlLogSettings.ascii);
    EXPECT_TRUE(g_vlLogSettings.console);     // a missing key leaves the setting as it was
}

// Candidates in order: the card, the program's folder, the root, the internal flash, the first that
// opens wins; the roots come from the registry, else the defaults.
TEST(DebugIni, SearchOrder) {
    const std::string roots = "[device]\nprogram = '\\My Flash Disk\\tarsk\\tarsk.exe'\n"
                              "[registry.'HKLM\\Information']\nInternal = '\\Flash'\nExternal1 = '\\SD'\n";
    const std::string defaults = "[device]\nprogram = '\\Windows\\tarsk.exe'\n";
    const std::vector<std::string> candidates = {"\\SD\\debug.ini", "\\My Flash Disk\\tarsk\\debug.ini",
                                                 "\\debug.ini", "\\Flash\\debug.ini"};
    struct Case { std::string profile; std::vector<std::string> files; bool found; } cases[] = {   // the first wins
        {roots, candidates, true},
        {roots, {candidates.begin() + 1, candidates.end()}, true},
        {roots, {candidates.begin() + 2, candidates.end()}, true},
        {roots, {candidates.back()}, true},
        {defaults, {"\\Storage Card\\debug.ini", "\\My Flash Disk\\debug.ini"}, true},
        {defaults, {"\\My Flash Disk\\debug.ini"}, true},
        {defaults, {"\\Flash\\debug.ini", "\\SD\\debug.ini"}, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.files[0]);
        TestDevice d(c.profile);
        for (const std::string &f : c.files) d.put(f, "[Who]\nName=" + f + "\n");
        CIniFile ini;
        ASSERT_EQ(c.found ? 1 : 0, OpenDebugIniFile(&ini));
        char name[64] = "";
        EXPECT_EQ(c.found, ini.getString("Who", "Name", name, sizeof name) != 0);
        EXPECT_EQ(c.found ? c.files[0] : "", name);
        ini.close();
    }
    TestDevice d(defaults);
    EXPECT_EQ(0, OpenDebugIniFile(nullptr));
    EXPECT_EQ(0, ReadDebugIniFileDbgSettings(nullptr, "Log"));
    EXPECT_NE(std::string::npos, ring().find("ERROR, OpenDebugIniFile(): p_pIniFile == NULL\r\n"));
}

TEST(Verify, EndsTheProcessWithCodeOne) {
    EXPECT_EXIT(
        {
            TestDevice d(kProfile);
            int x = 1;
            VLVERIFY(x == 2);
        },
        testing::ExitedWithCode(1), "");
}

TEST(NarrowPrint, KeepsNarrowConventions) {
    TestDevice d(kProfile);
    vl_printA("%s|%S|%c|%5.2f|%hs\n", "narrow", u"wide", 'c', 3.14159, "h");
    EXPECT_EQ("narrow|wide|c| 3.14|h\r\n", ring());
}

TEST(Trace, OnlySetBitsComposeALine) {
    TestDevice d(kProfile);
    static std::string captured;
    captured.clear();
    g_salTraceOutput = [](const char *text) { captured += text; };
    SALTRACE(1, 64, "Thread entrypoint reached !");
    EXPECT_EQ("", captured);
    g_salTraceMasks[1] = 64;
    sal_traceSetThreadName("power");
    SALTRACE(1, 64, "Thread entrypoint reached !");
    EXPECT_EQ(0u, captured.find("tarsk> "));
    EXPECT_NE(std::string::npos, captured.find("-[power]-D-1-test_platform.cpp-"));
    EXPECT_NE(std::string::npos, captured.find("-Thread entrypoint reached !\n"));
    // the lock is left after each call: a second trace does not block
    SALTRACE(1, 64, "again %d", 2);
    EXPECT_NE(std::string::npos, captured.find("-again 2\n"));
}

TEST(LogWriter, MessageAfterExitCleanUpStillWrites) {
    // A static object's destructor may log after the exit handlers have destroyed the log lock.
    EXPECT_EXIT(
        {
            static TestDevice d(kProfile);
            struct Late {
                ~Late() {
                    vl_write(TEXT("late\n"));
                    std::_Exit(ring().find("late\r\n") != std::string::npos ? 7 : 1);
                }
            };
            static Late late;            // made before the lock, so destroyed after its exit handler
            vl_write(TEXT("first\n"));  // makes the lock and registers its exit handler
            std::exit(0);
        },
        testing::ExitedWithCode(7), "");
}
