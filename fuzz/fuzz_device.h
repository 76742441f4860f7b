// What the fuzz targets share: the built-in default device (devices/default), made once for the
// whole run, and FUZZ_CHECK, which ends the run with a report when a contract does not hold.
#pragma once

#include "tarsk_engine_helpers.h"

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                           \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "%s:%d: FUZZ_CHECK(%s) failed\n", __FILE__, __LINE__, #cond);    \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

namespace fuzz {

// The device of one input, installed: its files in memory, as they were when it was made, and
// again so when the input is done; its journal neither written nor kept. Made at the top of
// LLVMFuzzerTestOneInput.
class Input {
public:
    Input();
    ~Input();
    testing_support::TestDevice &td;
};

// A wide text's length, checked to end within cap units.
size_t terminatedLength(const WCHAR *text, size_t cap);
size_t terminatedLength(const char *text, size_t cap);

inline bool flag(DWORD v) { return v == 0 || v == 1; }
// An image descriptor as the readers leave it: flags of 0 or 1, only the major version, no flash
// version, texts within their fields.
void checkDescriptor(const DeviceDescriptor &d);

}  // namespace fuzz
