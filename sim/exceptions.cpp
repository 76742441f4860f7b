// Exception guards over the host's signals.
//
// Each thread keeps its own stack of guard frames (SAL_TRY pushes one, SAL_EXCEPT pops it). A fault
// (SIGSEGV, SIGBUS, SIGFPE, SIGILL, or an access violation injected by the device folder) becomes an
// EXCEPTION_RECORD with the CE code, the active filters run innermost first, and the process then
// ends as CE ends it: the journal gets "exception" {code}, and Device::endProcess(code, "crash")
// journals exit/end and runs the runner's end handler.
//
// A filter that answers EXCEPTION_CONTINUE_SEARCH passes the exception on to the next guard. Any
// other answer also ends the process at once: the program has no filter that handles an exception,
// so the simulated device does not resume execution past a fault.
//
// The filters run on the thread that faulted, but not inside the signal handler: the handler only
// notes the fault and changes the interrupted context so that, when the handler returns, the thread
// goes on in a continuation that runs the filters, on the thread's alternate signal stack (so a stack
// overflow is still reported). The faulting frames, with the guard frames in them, stay where they
// are above it. The filters are then ordinary code with the thread's own signal mask (the thread
// sanitizer, for one, sees no allocation inside a signal handler). A filter is free to call what the
// device program calls (the diagnostic log, the file wrappers); a fault inside the host's allocator
// could still hang there, which is accepted for a simulated device, whose faults are the program's
// own. Where the context cannot be changed (an architecture not listed below), the filters run
// inside the handler.
#include "device.h"
#include "sal/exceptions.h"

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

// Innermost guard frame of this thread (null: no guard).
thread_local SalGuardFrame *t_innermost = nullptr;

// What this thread's fault path is doing: a second fault while the filters run, or while the process
// is being ended, must not run the filters again.
enum FaultState { kIdle = 0, kFiltering = 1, kEnding = 2 };
thread_local int t_faultState = kIdle;

// The thread's alternate signal stack, made on its first guard and released when the thread ends.
// Large enough for the filters and the end of the process (journal, end handler), which run on it.
const size_t kAltStackSize = 1024 * 1024;

struct AltStack {
    void *base = nullptr;
    size_t size = 0;
    ~AltStack() {
        if (!base) return;
        stack_t ss;
        std::memset(&ss, 0, sizeof ss);
        ss.ss_flags = SS_DISABLE;
        sigaltstack(&ss, nullptr);
        munmap(base, size);
    }
};
thread_local AltStack t_altStack;

void giveThreadAltStack() {
    if (t_altStack.base) return;
    long page = sysconf(_SC_PAGESIZE);
    size_t guard = page > 0 ? size_t(page) : 4096;
    size_t size = kAltStackSize + guard;
    void *base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                      -1, 0);
    if (base == MAP_FAILED) return;   // faults are still handled, only not on a stack overflow
    mprotect(base, guard, PROT_NONE);  // an overflow of the alternate stack faults instead of writing on
    stack_t ss;
    std::memset(&ss, 0, sizeof ss);
    ss.ss_sp = static_cast<char *>(base) + guard;
    ss.ss_size = kAltStackSize;
    ss.ss_flags = 0;
    if (sigaltstack(&ss, nullptr) != 0) {
        munmap(base, size);
        return;
    }
    t_altStack.base = base;
    t_altStack.size = size;
}

struct Fault {
    DWORD code;
    void *address;       // the faulting instruction
    bool hasAccess;      // an access violation: read/write and the address accessed
    bool write;
    void *accessed;
};

[[noreturn]] void dispatch(const Fault &fault);

// The instruction pointer and, for a page fault, whether it was a write, from the host's context.
void *instructionOf(const ucontext_t *uc) {
#if defined(__x86_64__)
    return reinterpret_cast<void *>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__i386__)
    return reinterpret_cast<void *>(uc->uc_mcontext.gregs[REG_EIP]);
#elif defined(__aarch64__)
    return reinterpret_cast<void *>(uc->uc_mcontext.pc);
#else
    (void)uc;
    return nullptr;
#endif
}

bool isWrite(const ucontext_t *uc) {
#if defined(__x86_64__)
    return (uc->uc_mcontext.gregs[REG_ERR] & 2) != 0;       // page-fault error code: W/R bit
#elif defined(__i386__)
    return (uc->uc_mcontext.gregs[REG_ERR] & 2) != 0;
#elif defined(__aarch64__)
    // The kernel leaves the fault's syndrome register in an ESR record among the context records.
    struct Head { uint32_t magic, size; };
    const uint32_t kEsrMagic = 0x45535201;
    const unsigned char *p = reinterpret_cast<const unsigned char *>(uc->uc_mcontext.__reserved);
    const unsigned char *end = p + sizeof uc->uc_mcontext.__reserved;
    while (p + sizeof(Head) <= end) {
        Head h;
        std::memcpy(&h, p, sizeof h);
        if (h.magic == 0 || h.size == 0) break;
        if (h.magic == kEsrMagic && p + sizeof(Head) + 8 <= end) {
            uint64_t esr;
            std::memcpy(&esr, p + sizeof(Head), sizeof esr);
            return (esr & (1u << 6)) != 0;                    // WnR of a data abort
        }
        p += h.size;
    }
    return false;
#else
    (void)uc;
    return false;
#endif
}

// The fault the continuation dispatches, noted by the handler of this thread.
thread_local Fault t_pendingFault;

[[noreturn]] void continueAfterFault() { dispatch(t_pendingFault); }

// Makes the interrupted thread, once the handler returns, enter continueAfterFault() as if called,
// on a stack that is free then: the top of the alternate stack when the fault came from elsewhere
// (the thread's stack may be exhausted), else below the faulting frame and its red zone (a fault
// inside a filter, which runs on the alternate stack). False where this is not done.
bool resumeInContinuation(ucontext_t *uc) {
    uintptr_t sp;
#if defined(__x86_64__)
    sp = uintptr_t(uc->uc_mcontext.gregs[REG_RSP]);
#elif defined(__i386__)
    sp = uintptr_t(uc->uc_mcontext.gregs[REG_ESP]);
#elif defined(__aarch64__)
    sp = uintptr_t(uc->uc_mcontext.sp);
#else
    (void)uc;
    return false;
#endif
    const uintptr_t altLow = uintptr_t(t_altStack.base) + (t_altStack.size - kAltStackSize);
    const uintptr_t altHigh = uintptr_t(t_altStack.base) + t_altStack.size;
    const bool onAlt = t_altStack.base && sp > altLow && sp <= altHigh;
    const uintptr_t top = ((t_altStack.base && !onAlt) ? altHigh : sp - 512) & ~uintptr_t(15);
    const uintptr_t entry = reinterpret_cast<uintptr_t>(&continueAfterFault);
#if defined(__x86_64__)
    uc->uc_mcontext.gregs[REG_RSP] = greg_t(top - 8);   // where a call leaves its return address
    uc->uc_mcontext.gregs[REG_RBP] = 0;                 // ends a frame-pointer walk here
    uc->uc_mcontext.gregs[REG_RIP] = greg_t(entry);
#elif defined(__i386__)
    uc->uc_mcontext.gregs[REG_ESP] = greg_t(top - 4);
    uc->uc_mcontext.gregs[REG_EBP] = 0;
    uc->uc_mcontext.gregs[REG_EIP] = greg_t(entry);
#elif defined(__aarch64__)
    uc->uc_mcontext.sp = top;
    uc->uc_mcontext.regs[29] = 0;
    uc->uc_mcontext.regs[30] = 0;
    uc->uc_mcontext.pc = entry;
#endif
    return true;
}

void onSignal(int sig, siginfo_t *info, void *context) {
    ucontext_t *uc = static_cast<ucontext_t *>(context);
    Fault f;
    f.address = uc ? instructionOf(uc) : nullptr;
    f.hasAccess = false;
    f.write = false;
    f.accessed = nullptr;
    switch (sig) {
    case SIGILL:
        f.code = EXCEPTION_ILLEGAL_INSTRUCTION;
        if (!f.address) f.address = info->si_addr;
        break;
    case SIGFPE:
        f.code = EXCEPTION_INT_DIVIDE_BY_ZERO;
        if (!f.address) f.address = info->si_addr;
        break;
    default:   // SIGSEGV, SIGBUS
        f.code = EXCEPTION_ACCESS_VIOLATION;
        f.hasAccess = true;
        f.write = uc && isWrite(uc);
        f.accessed = info->si_addr;
        break;
    }
    if (uc && resumeInContinuation(uc)) {
        t_pendingFault = f;
        return;
    }
    dispatch(f);
}

std::once_flag g_handlersOnce;

void installHandlers() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = onSignal;
    // SA_NODEFER: a fault inside a filter must reach the handler again (a blocked synchronous fault
    // would kill the process without a journal line).
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigemptyset(&sa.sa_mask);
    const int signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
    for (int sig : signals) sigaction(sig, &sa, nullptr);
}

// Ends the process for an exception: the journal line, then the end of the run.
[[noreturn]] void endForException(DWORD code) {
    t_faultState = kEnding;
    sim::Device *d = sim::Device::current();
    if (!d) {
        std::fprintf(stderr, "sim: exception 0x%08X with no simulated device installed\n", unsigned(code));
        std::fflush(stderr);
        std::_Exit(int(code));
    }
    d->journal().write("exception", {{"code", code}});
    d->endProcess(code, "crash");
}

[[noreturn]] void dispatch(const Fault &fault) {
    if (t_faultState == kEnding) {
        // A fault while the process is already being ended: end it now, without anything more.
        std::fprintf(stderr, "sim: exception 0x%08X while ending the process\n", unsigned(fault.code));
        std::fflush(stderr);
        std::_Exit(int(fault.code));
    }
    if (t_faultState == kFiltering) endForException(fault.code);   // a fault inside a filter

    EXCEPTION_RECORD record;
    std::memset(&record, 0, sizeof record);
    record.ExceptionCode = fault.code;
    record.ExceptionFlags = 0;
    record.ExceptionRecord = nullptr;
    record.ExceptionAddress = fault.address;
    if (fault.hasAccess) {
        record.NumberParameters = 2;
        record.ExceptionInformation[0] = fault.write ? 1 : 0;
        record.ExceptionInformation[1] = reinterpret_cast<ULONG_PTR>(fault.accessed);
    }
    CONTEXT context;
    std::memset(&context, 0, sizeof context);
    EXCEPTION_POINTERS pointers;
    pointers.ExceptionRecord = &record;
    pointers.ContextRecord = &context;

    if (sim::Device::current()) {
        t_faultState = kFiltering;
        for (SalGuardFrame *frame = t_innermost; frame; frame = frame->outer) {
            if (!frame->filter) continue;
            if (frame->filter(&pointers) != EXCEPTION_CONTINUE_SEARCH) break;
        }
    }
    endForException(fault.code);
}

}  // namespace

void sal_enterGuard(SalGuardFrame *frame, SalExceptionFilter filter) {
    std::call_once(g_handlersOnce, installHandlers);
    giveThreadAltStack();
    frame->filter = filter;
    frame->outer = t_innermost;
    t_innermost = frame;
}

void sal_leaveGuard(SalGuardFrame *frame) {
    // Frames leave in the order they entered; a frame that is not the innermost (a block left by a
    // jump past its SAL_EXCEPT) takes the frames inside it with it.
    for (SalGuardFrame *f = t_innermost; f; f = f->outer) {
        if (f == frame) {
            t_innermost = frame->outer;
            return;
        }
    }
}

namespace sim {

// Not inlined: the caller's return address is the exception address.
[[noreturn]] __attribute__((noinline)) void raiseAccessViolation() {
    Fault f;
    f.code = EXCEPTION_ACCESS_VIOLATION;
    f.address = __builtin_extract_return_addr(__builtin_return_address(0));
    // Reported as a read of address 0, the fault a null pointer gives.
    f.hasAccess = true;
    f.write = false;
    f.accessed = nullptr;
    dispatch(f);
}

}  // namespace sim
