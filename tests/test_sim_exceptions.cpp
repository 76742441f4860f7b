// Exception guards on the simulated device: a fault runs the active filters innermost first with the
// CE exception record, then the process ends with "exception" and end "crash" in the journal.
#include "sal/exceptions.h"
#include "test_device.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <cstdio>

using testing_support::TestDevice;

#if defined(__SANITIZE_ADDRESS__)
#define HOST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HOST_SANITIZED 1
#endif
#endif

namespace {

std::string g_trace;                 // what the filters saw (in the child that faults)
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
int writingFilter(EXCEPTION_POINTERS *p) {   // a real fault while the filters run
    note("bad", p);
    nullWrite();
    return EXCEPTION_CONTINUE_SEARCH;
}
volatile int g_depth = 1 << 30;     // far deeper than the stack allows
__attribute__((noinline)) int recurse(int n) {
    volatile char pad[1024];
    pad[0] = char(n);
    return n < g_depth ? recurse(n + 1) + pad[0] : 0;
}
void overflow() { recurse(0); }

template <void (*Fault)(), SalExceptionFilter Inner = innerFilter>
void guarded() {
    SAL_TRY(outerFilter)
        SAL_TRY(Inner)
            Fault();
        SAL_EXCEPT(Inner)
    SAL_EXCEPT(outerFilter)
}
void *overflowThread(void *) {
    guarded<overflow>();
    return nullptr;
}
void overflowOnSmallStack() {   // on a thread of its own, so the overflow is quick and bounded
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 256 * 1024);
    pthread_t t;
    pthread_create(&t, &attr, overflowThread, nullptr);
    pthread_join(t, nullptr);
}
void guardsLeftThenFault() {
    static SalGuardFrame outer, inner;   // still readable after leaving: a frame left behind would run
    sal_enterGuard(&outer, outerFilter);
    sal_enterGuard(&inner, innerFilter);
    sal_leaveGuard(&inner);
    sal_leaveGuard(&outer);
    injected();
}
std::string both(const std::string &seen) { return "inner " + seen + ";outer " + seen + " same;"; }

}  // namespace

// Each row runs in a child that must end by a crash.
TEST(SimExceptions, FaultRunsFiltersInnermostFirstThenEndsTheProcess) {
    const DWORD av = EXCEPTION_ACCESS_VIOLATION;
    const std::string avSeen = "C0000005 n=2 ";
    struct Row {
        const char *name, *profile;
        void (*body)();
        void (*at)();     // where the exception address must point (null: anywhere)
        bool real;        // a real host fault: the sanitizers catch it before the device does
        DWORD code;
        std::string trace;
    } const rows[] = {
        {"injected", "", guarded<injected>, injected, false, av, both(avSeen + "0 0 at=fault")},
        {"crash table", "[crash]\nCreateEventW = 1\n", guarded<crashTable>, nullptr, false, av, both(avSeen + "0 0 at=-")},
        {"null write", "", guarded<nullWrite>, nullWrite, true, av, both(avSeen + "1 0 at=fault")},
        {"divide by zero", "", guarded<divideByZero>, divideByZero, true, EXCEPTION_INT_DIVIDE_BY_ZERO,
         both("C0000094 n=0 0 0 at=fault")},
        {"stack overflow", "", overflowOnSmallStack, reinterpret_cast<void (*)()>(recurse), true, av,
         both(avSeen + "1 p at=fault")},
        {"guards left normally run no filter", "", guardsLeftThenFault, injected, false, av, ""},
        {"a fault inside a filter ends at once", "", guarded<injected, faultingFilter>, injected, false, av,
         "bad " + avSeen + "0 0 at=fault;"},
        {"a real fault inside a filter ends at once", "", guarded<nullWrite, writingFilter>, nullWrite, true, av,
         "bad " + avSeen + "1 0 at=fault;"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
#ifdef HOST_SANITIZED
        if (r.real) continue;
#endif
        TestDevice td(r.profile);
        // In the child, once the run ends: what the filters saw, then the journal's exception and the end.
        td.dev().setEndHandler([&td](UINT code, const std::string &reason) {
            const std::vector<nlohmann::json> raised = td.events("exception");
            std::fprintf(stderr, "filters saw [%s], %zu exception %s, end %u %s\n", g_trace.c_str(), raised.size(),
                         raised.empty() ? "" : raised[0]["code"].dump().c_str(), code, reason.c_str());
            return 7;
        });
        g_faultFn = r.at;
        const std::string code = std::to_string(r.code);
        EXPECT_EXIT(r.body(), testing::ExitedWithCode(7),
                    "filters saw \\[" + r.trace + "\\], 1 exception " + code + ", end " + code + " crash\n");
    }
}
