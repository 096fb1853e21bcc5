// host_conventions.cpp - the informational entry points, the message switch
// and the NaN helpers.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "frame.h"

using namespace tessel;

extern "C" __attribute__((visibility("default"))) int fLgmNoErrorMessage;
int fLgmNoErrorMessage = 0;

TESSEL_EXPORT int FIsNaN(double x) {
    std::uint64_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    const std::uint64_t exponent = bits & 0x7FF0000000000000ULL;
    const std::uint64_t mantissa = bits & 0x000FFFFFFFFFFFFFULL;
    return exponent == 0x7FF0000000000000ULL && mantissa != 0;
}

TESSEL_EXPORT void SetNaN(double *x) {
    const std::uint64_t bits = 0x7FF8000000000000ULL;
    std::memcpy(x, &bits, sizeof bits);
}

TESSEL_EXPORT void FnLgmVersion(ZuValue *rtn, ZuValue *, int) { set_int(rtn, 300); }

TESSEL_EXPORT void FnLgmAbout(ZuValue *, ZuValue *, int) {
    static const char *const lines[] = {
        "\nTessel version 3.00 (September 2008)",
        "Written by the Tessel developers; see for the methods:",
        "    Kalman, R. E. (1960). A new approach to linear filtering and",
        "    prediction problems. Journal of Basic Engineering, 82,",
        "    35-45.",
        "    Anderson, B. D. O. and J. B. Moore (1979). Optimal",
        "    Filtering. Englewood Cliffs, New Jersey:",
        "    Prentice-Hall.",
    };
    for (const char *line : lines) ZuRunMessage(line);
}

TESSEL_EXPORT void FnLgmWarning(ZuValue *, ZuValue *args, int nargs) {
    if (nargs < 1) {
        // With messages silenced the call ends the process, as it always has.
        if (fLgmNoErrorMessage) std::exit(0);
        ZuRunErrorMessage("LgmWarning(): at least one argument required");
        return;
    }
    ZuLibCheckType(ZU_INT, args, 0, 0);
    fLgmNoErrorMessage = args[0].v.ival < 1 ? 1 : 0;
}
