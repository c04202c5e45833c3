// How a fuzz target says that something is wrong.
#ifndef SOAK_FUZZ_REQUIRE_H
#define SOAK_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "osa/sim/osasim.h"

// Ends the process with `what`, `detail` and the traces of the run unless the condition
// holds; the fuzzer then keeps the input.
inline void require(bool condition, const char *what, std::string_view detail = {})
{
    if (condition)
        return;
    std::fprintf(stderr, "FINDING: %s\n%s\n%s", what, std::string(detail).c_str(),
                 SIM_TraceText().c_str());
    std::abort();
}

#endif
