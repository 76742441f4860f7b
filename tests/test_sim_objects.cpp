// Kernel objects of the simulated device, held to the behaviour CE documents for each call.
#include "test_device.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>

using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

namespace {

// Runs `fn` on a second device thread and waits for it to end; its exit code.
DWORD onAnotherThread(std::function<DWORD()> fn) {
    HANDLE t = CreateThread(nullptr, 0, [](LPVOID p) -> DWORD { return (*static_cast<std::function<DWORD()> *>(p))(); },
                            &fn, 0, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, INFINITE));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(t, &code));
    EXPECT_TRUE(CloseHandle(t));
    return code;
}

// Whether another process on the same device folder finds the named mutex with `error` left.
bool secondProcessCreatesMutex(TestDevice &d, const char *name, DWORD error) {
    pid_t pid = fork();
    if (pid == 0) {
        sim::Device other(d.folder(), d.folder() / "run" / "child.jsonl");
        other.install();
        HANDLE h = CreateMutexW(nullptr, TRUE, W(name).c_str());
        _exit(h && GetLastError() == error ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

// Deterministic device time: it stands while a device thread runs and jumps to the earliest
// deadline or event once every device thread waits, so each wait ends at an exact device time.
TEST(SimClock, WaitsEndAtExactDeviceTimes) {
    TestDevice d;
    static HANDLE event;
    event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const DWORD t0 = GetTickCount();
    Sleep(2500);
    EXPECT_EQ(GetTickCount() - t0, 2500u);
    EXPECT_EQ(WaitForSingleObject(event, 1000), WAIT_TIMEOUT);
    EXPECT_EQ(GetTickCount() - t0, 3500u);

    // another device thread sets the event after 300 ms: the wait ends then, not at its time-out
    HANDLE t = CreateThread(nullptr, 0, [](LPVOID) -> DWORD { Sleep(300); return SetEvent(event); }, nullptr, 0, nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 1000), WAIT_OBJECT_0);
    EXPECT_EQ(GetTickCount() - t0, 3800u);
    EXPECT_EQ(WaitForSingleObject(t, INFINITE), WAIT_OBJECT_0);

    // a scheduled event runs at its time, while the device sleeps past it
    std::vector<DWORD> seen;
    d.dev().clock().at(d.dev().clock().now() + 500, [&seen] { seen.push_back(GetTickCount()); });
    Sleep(1000);
    EXPECT_EQ(seen, std::vector<DWORD>{t0 + 4300});
    EXPECT_EQ(GetTickCount() - t0, 4800u);
}

TEST(SimObjects, LastErrorAndMutexOwnershipArePerThread) {
    TestDevice d;
    SetLastError(183);
    DWORD seen = 999;
    EXPECT_EQ(7u, onAnotherThread([&seen] { seen = GetLastError(); SetLastError(5); return DWORD(7); }));   // its exit code
    EXPECT_EQ(std::make_pair(seen, GetLastError()), std::make_pair(0u, 183u));

    HANDLE m = CreateMutexW(nullptr, TRUE, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(m, 0));   // the owner may take it again
    EXPECT_EQ(WAIT_TIMEOUT, onAnotherThread([m] { return WaitForSingleObject(m, 0); }));
    EXPECT_TRUE(ReleaseMutex(m) && ReleaseMutex(m));
    EXPECT_FALSE(ReleaseMutex(m));   // not owned any more
}

TEST(SimObjects, EventsAutoAndManualResetAndHandlesCloseOnce) {
    TestDevice d;
    HANDLE autoEvent = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(autoEvent, 0));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(autoEvent, 0));   // consumed by the first wait
    HANDLE manual = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(manual, 10));
    SetEvent(manual);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(manual, 0));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(manual, 0));     // stays set
    ResetEvent(manual);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(manual, 0));

    SetLastError(0);
    EXPECT_FALSE(CloseHandle(reinterpret_cast<HANDLE>(0x7777)));
    EXPECT_EQ(DWORD(ERROR_INVALID_HANDLE), GetLastError());
    EXPECT_TRUE(CloseHandle(manual));
    EXPECT_FALSE(CloseHandle(manual));   // closed twice
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(manual, 0));
}

TEST(SimObjects, NamedMutexSeenByASecondProcess) {
    TestDevice d;
    HANDLE first = CreateMutexW(nullptr, TRUE, W("TarskUpgrade").c_str());
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(0u, GetLastError());
    HANDLE again = CreateMutexW(nullptr, FALSE, W("TarskUpgrade").c_str());
    EXPECT_EQ(DWORD(ERROR_ALREADY_EXISTS), GetLastError());   // same process, same name
    CloseHandle(again);
    EXPECT_TRUE(secondProcessCreatesMutex(d, "tarskupgrade", ERROR_ALREADY_EXISTS));
    CloseHandle(first);
    EXPECT_TRUE(secondProcessCreatesMutex(d, "TarskUpgrade", 0));   // once closed, the name is free again
}

TEST(SimObjects, InterlockedCompareExchangeReturnsTheInitialValue) {
    TestDevice d;
    volatile LONG word = 0;
    EXPECT_EQ(0, InterlockedCompareExchange(&word, 1, 0));
    EXPECT_EQ(1, word);
    EXPECT_EQ(1, InterlockedCompareExchange(&word, 5, 0));   // no match: unchanged
    EXPECT_EQ(1, word);
    EXPECT_EQ(2, InterlockedIncrement(&word));
    EXPECT_EQ(1, InterlockedDecrement(&word));
    EXPECT_EQ(1, InterlockedExchange(&word, 9));
    EXPECT_EQ(9, word);
}

TEST(SimObjects, CriticalSectionIsRecursiveAndExcludes) {
    TestDevice d;
    static CRITICAL_SECTION cs;
    static int counter;
    counter = 0;
    InitializeCriticalSection(&cs);
    EnterCriticalSection(&cs);
    EnterCriticalSection(&cs);   // the owner may enter again
    LeaveCriticalSection(&cs);
    LeaveCriticalSection(&cs);
    LPTHREAD_START_ROUTINE count = [](LPVOID) -> DWORD {
        for (int i = 0; i < 10000; ++i) { EnterCriticalSection(&cs); counter = counter + 1; LeaveCriticalSection(&cs); }
        return 0;
    };
    HANDLE threads[4];
    for (HANDLE &t : threads) t = CreateThread(nullptr, 0, count, nullptr, 0, nullptr);
    for (HANDLE t : threads) WaitForSingleObject(t, INFINITE);
    EXPECT_EQ(40000, counter);
    DeleteCriticalSection(&cs);
}

TEST(SimProcess, ModuleFileNameFromTheProfile) {
    TestDevice d("[device]\nprogram = '\\Storage Card\\tarsk.exe'\n");
    WCHAR buf[MAX_PATH], small[8];
    EXPECT_EQ(23u, GetModuleFileNameW(nullptr, buf, MAX_PATH));
    EXPECT_EQ("\\Storage Card\\tarsk.exe", U(buf));
    EXPECT_EQ(7u, GetModuleFileNameW(nullptr, small, 8));   // cut and terminated
    EXPECT_EQ("\\Storag", U(small));
}

TEST(SimProcess, TerminateEndsWithTheCodeAfterTheJournaledEvents) {
    TestDevice d;
    d.dev().journal().write("progress", {{"text", "a"}});
    d.dev().journal().write("other");
    auto all = d.dev().journal().events();
    ASSERT_EQ(2u, all.size());
    EXPECT_TRUE(all[0]["event"] == "progress" && all[0]["t"].is_number_unsigned()) << all[0];
    EXPECT_EXIT(TerminateProcess(GetCurrentProcess(), 3), testing::ExitedWithCode(3), "");
    std::ifstream in(d.folder() / "run" / "journal.jsonl");
    std::vector<nlohmann::json> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(4u, lines.size());
    EXPECT_TRUE(lines[0] == all[0] && lines[1] == all[1]);
    EXPECT_TRUE(lines[2]["event"] == "exit" && lines[2]["code"] == 3) << lines[2];
    EXPECT_TRUE(lines[3]["event"] == "end" && lines[3]["reason"] == "exit") << lines[3];
}

// The end is the journal's last line: what another thread of the program writes while the process
// ends is dropped.
TEST(SimProcess, NothingIsJournaledAfterTheEnd) {
    TestDevice d;
    sim::Journal &j = d.dev().journal();
    j.write("progress");
    j.finish({{"exit", {{"code", 0}}}, {"end", {{"reason", "exit"}}}});
    j.write("late");
    std::vector<std::string> kept, inFile;
    for (const auto &e : j.events()) kept.push_back(e["event"]);
    std::ifstream in(j.file());
    for (std::string line; std::getline(in, line);) inFile.push_back(nlohmann::json::parse(line)["event"]);
    const std::vector<std::string> want = {"progress", "exit", "end"};
    EXPECT_EQ(kept, want);
    EXPECT_EQ(inFile, want);
}

TEST(SimDevice, MalformedProfileIsAClearError) { EXPECT_THROW(TestDevice td("[device\nprogram = "), std::runtime_error); }
