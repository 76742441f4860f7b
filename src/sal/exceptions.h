/*
 * Exception guards: a block run under an exception filter.
 *
 *     SAL_TRY(filter)
 *         result = MainWndProc(hWnd, message, wParam, lParam);
 *     SAL_EXCEPT(filter)
 *
 * filter is an SalExceptionFilter; it gets the exception pointers and answers
 * EXCEPTION_CONTINUE_SEARCH (the exception goes on to the next guard, and past the last one the
 * process ends) or EXCEPTION_EXECUTE_HANDLER (the exception ends at this guard, which then just
 * leaves its block). The block must not leave by return, break or goto.
 *
 * On the device (Visual C++) this is __try/__except. Elsewhere the guard frames are kept per thread
 * and the simulated device turns a fault (an access violation, a bad instruction, a division by zero,
 * or a fault injected by the device folder) into the exception record with the CE code, runs the
 * active filters innermost first, and ends the process as CE does; there, a filter that answers
 * EXCEPTION_EXECUTE_HANDLER also ends the process (the program has no such filter).
 */
#ifndef TARSK_SAL_EXCEPTIONS_H
#define TARSK_SAL_EXCEPTIONS_H

#include "sal/winapi.h"

typedef int (*SalExceptionFilter)(EXCEPTION_POINTERS *pointers);

#if defined(_MSC_VER)
#define SAL_TRY(filter) __try {
#define SAL_EXCEPT(filter) } __except ((filter)(GetExceptionInformation())) { }
#else
struct SalGuardFrame {
    SalExceptionFilter filter;
    SalGuardFrame *outer;
};
void sal_enterGuard(SalGuardFrame *frame, SalExceptionFilter filter);
void sal_leaveGuard(SalGuardFrame *frame);
#define SAL_TRY(filter) { SalGuardFrame sal_guardFrame_; sal_enterGuard(&sal_guardFrame_, (filter)); {
#define SAL_EXCEPT(filter) } sal_leaveGuard(&sal_guardFrame_); }
#endif

#endif /* TARSK_SAL_EXCEPTIONS_H */
