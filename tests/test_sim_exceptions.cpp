// Exception guards on the simulated device: a fault runs the active filters innermost first with the
// CE exception record, then the process ends with "exception" and end "crash" in the journal.
#include "sal/exceptions.h"
#include "test_device.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>

using testing_support::TestDevice;

#if defined(__SANITIZE_ADDRESS__)
#define HOST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HOST_SANITIZED 1
#endif
#endif

namespace {

std::string g_trace;                 // what the filters saw, in the child
void (*g_faultFn)() = nullptr;       // where ExceptionAddress must point (null: anywhere)
EXCEPTION_RECORD *g_firstRecord = nullptr;

int note(const char *who, EXCEPTION_POINTERS *p) {
    const EXCEPTION_RECORD *r = p->ExceptionRecord;
    const char *at = static_cast<const char *>(r->ExceptionAddress);
    const char *fn = reinterpret_cast<const char *>(g_faultFn);
    char line[160];
    std::snprintf(line, sizeof line, "%s %08X n=%u %lu %s at=%s%s;", who, unsigned(r->ExceptionCode),
                  unsigned(r->NumberParameters), (unsigned long)r->ExceptionInformation[0],
                  r->ExceptionInformation[1] ? "p" : "0",
                  !fn ? "-" : (at > fn && at < fn + 1024) ? "fault" : "elsewhere",
                  g_firstRecord == r ? " same" : "");
    g_trace += line;
    g_firstRecord = p->ExceptionRecord;
    return EXCEPTION_CONTINUE_SEARCH;
}
int innerFilter(EXCEPTION_POINTERS *p) { return note("inner", p); }
int outerFilter(EXCEPTION_POINTERS *p) { return note("outer", p); }
int faultingFilter(EXCEPTION_POINTERS *p) { note("bad", p); sim::raiseAccessViolation(); }

int *volatile g_null = nullptr;
volatile int g_zero = 0;
__attribute__((noinline)) void injected() { sim::raiseAccessViolation(); }
__attribute__((noinline)) void crashTable() { CreateEventW(NULL, FALSE, FALSE, NULL); }
__attribute__((noinline)) void nullWrite() { *g_null = 1; }
__attribute__((noinline)) void divideByZero() { g_zero = 7 / g_zero; }
volatile int g_depth = 1 << 30;     // far deeper than the stack allows
__attribute__((noinline)) int recurse(int n) {
    volatile char pad[1024];
    pad[0] = char(n);
    return n < g_depth ? recurse(n + 1) + pad[0] : 0;
}
void overflow() { recurse(0); }

void guarded(void (*fault)()) {
    SAL_TRY(outerFilter)
        SAL_TRY(innerFilter)
            fault();
        SAL_EXCEPT(innerFilter)
    SAL_EXCEPT(outerFilter)
}
void *overflowThread(void *) { guarded(overflow); return nullptr; }
void overflowOnSmallStack() {   // on a thread of its own, so the overflow is quick and bounded
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 256 * 1024);
    pthread_t t;
    pthread_create(&t, &attr, overflowThread, nullptr);
    pthread_join(t, nullptr);
}

// Runs body in a child that must end by a crash; returns the filters' trace, checks the journal.
std::string crashRun(const std::string &profile, const std::function<void()> &body, void (*faultFn)(), DWORD code) {
    TestDevice td(profile);
    std::string traceFile = (td.folder() / "trace.txt").string();
    td.dev().setEndHandler([traceFile](UINT, const std::string &) {
        std::ofstream(traceFile) << g_trace;
        return 7;
    });
    g_trace.clear();
    g_firstRecord = nullptr;
    g_faultFn = faultFn;
    EXPECT_EXIT(body(), testing::ExitedWithCode(7), "");
    std::ifstream journal(td.folder() / "run" / "journal.jsonl");
    std::string ends;   // the events that end the run, in order
    for (std::string line; std::getline(journal, line);) {
        nlohmann::json e = nlohmann::json::parse(line);
        if (e["event"] == "exception" || e["event"] == "exit") ends += e["event"].get<std::string>() + " " + e["code"].dump() + ";";
        if (e["event"] == "end") ends += "end " + e["reason"].get<std::string>() + ";";
    }
    std::string c = std::to_string(code);
    EXPECT_EQ(ends, "exception " + c + ";exit " + c + ";end crash;");
    std::ifstream in(traceFile);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(SimExceptions, FaultRunsFiltersInnermostFirstThenEndsTheProcess) {
    const char *av = "C0000005 n=2 ";
    struct Case { const char *name, *profile; void (*fault)(); void (*at)(); bool real; DWORD code; std::string seen; } cases[] = {
        {"injected", "", injected, injected, false, 3221225477u, av + std::string("0 0 at=fault")},
        {"crash table", "[crash]\nCreateEventW = 1\n", crashTable, nullptr, false, 3221225477u, av + std::string("0 0 at=-")},
        {"null write", "", nullWrite, nullWrite, true, 3221225477u, av + std::string("1 0 at=fault")},
        {"divide by zero", "", divideByZero, divideByZero, true, 3221225620u, "C0000094 n=0 0 0 at=fault"},
        {"stack overflow", "", nullptr, reinterpret_cast<void (*)()>(recurse), true, 3221225477u, av + std::string("1 p at=fault")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
#ifdef HOST_SANITIZED
        if (c.real) continue;   // the sanitizers catch a real fault before the device does
#endif
        std::string trace = crashRun(c.profile, [&] { c.fault ? guarded(c.fault) : overflowOnSmallStack(); }, c.at, c.code);
        EXPECT_EQ(trace, "inner " + c.seen + ";outer " + c.seen + " same;");
    }
}

TEST(SimExceptions, GuardLeftNormallyLeavesNoFrame) {
    std::string trace = crashRun("", [] {
        static SalGuardFrame outer, inner;   // still readable after leaving: a frame left behind would run
        sal_enterGuard(&outer, outerFilter);
        sal_enterGuard(&inner, innerFilter);
        sal_leaveGuard(&inner);
        sal_leaveGuard(&outer);
        injected();
    }, injected, 3221225477u);
    EXPECT_EQ(trace, "");
}

TEST(SimExceptions, FaultInsideFilterEndsAtOnce) {
    std::string trace = crashRun("", [] {
        SAL_TRY(outerFilter)
            SAL_TRY(faultingFilter)
                injected();
            SAL_EXCEPT(faultingFilter)
        SAL_EXCEPT(outerFilter)
    }, injected, 3221225477u);
    EXPECT_EQ(trace, "bad C0000005 n=2 0 0 at=fault;");   // the outer filter never ran
}
