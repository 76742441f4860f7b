// Kernel objects of the simulated device, held to the behaviour CE documents for each call.
#include "test_device.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>

using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

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
    HANDLE t = CreateThread(nullptr, 0, [](LPVOID) -> DWORD {
        Sleep(300);
        SetEvent(event);
        return 0;
    }, nullptr, 0, nullptr);
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

TEST(SimObjects, LastErrorIsPerThread) {
    TestDevice d;
    SetLastError(183);
    std::atomic<DWORD> seen{999};
    HANDLE t = CreateThread(nullptr, 0, [](LPVOID p) -> DWORD {
        static_cast<std::atomic<DWORD> *>(p)->store(GetLastError());
        SetLastError(5);
        return 7;
    }, &seen, 0, nullptr);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, INFINITE));
    EXPECT_EQ(0u, seen.load());
    EXPECT_EQ(183u, GetLastError());
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(t, &code));
    EXPECT_EQ(7u, code);
    EXPECT_TRUE(CloseHandle(t));
}

TEST(SimObjects, CloseHandleOfUnknownHandleFails) {
    TestDevice d;
    SetLastError(0);
    EXPECT_FALSE(CloseHandle(reinterpret_cast<HANDLE>(0x7777)));
    EXPECT_EQ(DWORD(ERROR_INVALID_HANDLE), GetLastError());
    HANDLE e = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    EXPECT_TRUE(CloseHandle(e));
    EXPECT_FALSE(CloseHandle(e));   // closed twice
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(e, 0));
}

TEST(SimObjects, EventsAutoAndManualReset) {
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
}

TEST(SimObjects, MutexOwnershipAndRecursion) {
    TestDevice d;
    HANDLE m = CreateMutexW(nullptr, TRUE, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(m, 0));   // owner may take it again
    std::atomic<DWORD> other{0};
    std::pair<HANDLE, std::atomic<DWORD> *> args(m, &other);
    HANDLE t = CreateThread(nullptr, 0, [](LPVOID p) -> DWORD {
        auto *a = static_cast<std::pair<HANDLE, std::atomic<DWORD> *> *>(p);
        a->second->store(WaitForSingleObject(a->first, 0));
        return 0;
    }, &args, 0, nullptr);
    WaitForSingleObject(t, INFINITE);
    EXPECT_EQ(WAIT_TIMEOUT, other.load());
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_TRUE(ReleaseMutex(m));
    EXPECT_FALSE(ReleaseMutex(m));   // not owned any more
}

TEST(SimObjects, NamedMutexSeenByASecondProcess) {
    TestDevice d;
    HANDLE first = CreateMutexW(nullptr, TRUE, W("TarskUpgrade").c_str());
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(0u, GetLastError());
    // same process, same name: already exists
    HANDLE again = CreateMutexW(nullptr, FALSE, W("TarskUpgrade").c_str());
    EXPECT_EQ(DWORD(ERROR_ALREADY_EXISTS), GetLastError());
    CloseHandle(again);

    // another process on the same device folder sees the name too
    pid_t pid = fork();
    if (pid == 0) {
        sim::Device other(d.folder(), d.folder() / "run" / "child.jsonl");
        other.install();
        HANDLE h = CreateMutexW(nullptr, TRUE, W("tarskupgrade").c_str());
        _exit(h && GetLastError() == ERROR_ALREADY_EXISTS ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));

    // once closed, the name is free again
    CloseHandle(first);
    pid = fork();
    if (pid == 0) {
        sim::Device other(d.folder(), d.folder() / "run" / "child.jsonl");
        other.install();
        HANDLE h = CreateMutexW(nullptr, TRUE, W("TarskUpgrade").c_str());
        _exit(h && GetLastError() == 0 ? 0 : 1);
    }
    waitpid(pid, &status, 0);
    EXPECT_EQ(0, WEXITSTATUS(status));
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
    static int counter = 0;
    InitializeCriticalSection(&cs);
    EnterCriticalSection(&cs);
    EnterCriticalSection(&cs);
    LeaveCriticalSection(&cs);
    LeaveCriticalSection(&cs);
    HANDLE threads[4];
    for (HANDLE &t : threads)
        t = CreateThread(nullptr, 0, [](LPVOID) -> DWORD {
            for (int i = 0; i < 10000; ++i) {
                EnterCriticalSection(&cs);
                int v = counter;
                counter = v + 1;
                LeaveCriticalSection(&cs);
            }
            return 0;
        }, nullptr, 0, nullptr);
    for (HANDLE t : threads) WaitForSingleObject(t, INFINITE);
    EXPECT_EQ(40000, counter);
    DeleteCriticalSection(&cs);
}

TEST(SimProcess, ModuleFileNameFromTheProfile) {
    TestDevice d("[device]\nprogram = '\\Storage Card\\tarsk.exe'\n");
    WCHAR buf[MAX_PATH];
    EXPECT_EQ(23u, GetModuleFileNameW(nullptr, buf, MAX_PATH));
    EXPECT_EQ("\\Storage Card\\tarsk.exe", U(buf));
    WCHAR small[8];
    EXPECT_EQ(7u, GetModuleFileNameW(nullptr, small, 8));   // cut and terminated
    EXPECT_EQ("\\Storag", U(small));
}

TEST(SimProcess, TerminateEndsWithTheCodeAndJournalsIt) {
    TestDevice d("", true);
    sim::fs::path journal = d.folder() / "run" / "journal.jsonl";
    EXPECT_EXIT(TerminateProcess(GetCurrentProcess(), 3), testing::ExitedWithCode(3), "");
    std::ifstream in(journal);
    std::string line, last;
    std::vector<std::string> lines;
    while (std::getline(in, line)) lines.push_back(line);
    ASSERT_GE(lines.size(), 2u);
    auto exitEvent = nlohmann::json::parse(lines[lines.size() - 2]);
    auto endEvent = nlohmann::json::parse(lines.back());
    EXPECT_EQ("exit", exitEvent["event"]);
    EXPECT_EQ(3, exitEvent["code"]);
    EXPECT_EQ("end", endEvent["event"]);
    EXPECT_EQ("exit", endEvent["reason"]);
    sim::fs::remove_all(d.folder());
}

TEST(SimJournal, EventsCarryNameAndTick) {
    TestDevice d;
    d.dev().journal().write("progress", {{"text", "a"}});
    d.dev().journal().write("other");
    auto all = d.dev().journal().events();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ("progress", all[0]["event"]);
    EXPECT_TRUE(all[0]["t"].is_number_unsigned());
    ASSERT_EQ(1u, d.events("progress").size());
    std::ifstream in(d.folder() / "run" / "journal.jsonl");
    std::string first;
    std::getline(in, first);
    EXPECT_EQ(all[0], nlohmann::json::parse(first));
}

TEST(SimDevice, MalformedProfileIsAClearError) {
    sim::fs::path folder = sim::fs::temp_directory_path() / ("tarsk-bad-" + std::to_string(getpid()));
    sim::fs::create_directories(folder);
    std::ofstream(folder / "device.toml") << "[device\nprogram = ";
    EXPECT_THROW(sim::Device dev(folder), std::runtime_error);
    sim::fs::remove_all(folder);
}
