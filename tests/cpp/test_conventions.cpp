// Informational entry points, the message switch, NaN helpers and the
// numeric kernels, plus the shape of the shared library's dynamic symbol
// table (what it exports and what it needs at load).
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <sstream>

#include "frame.h"
#include "test_util.h"

using namespace testutil;

TEST(Informational, VersionAndBanner) {
    NoLeak guard;
    Args none;
    EXPECT_EQ(zu::call("LgmVersion", none).as_int(), 300);
    MessageCapture cap;
    zu::call("LgmAbout", none);
    ASSERT_EQ(cap.messages.size(), 8u);
    EXPECT_EQ(cap.messages[0], "\nTessel version 3.00 (September 2008)");
    EXPECT_NE(cap.messages[1].find("Tessel developers"), std::string::npos);
    for (size_t k = 2; k < cap.messages.size(); ++k) {
        EXPECT_EQ(cap.messages[k].compare(0, 4, "    "), 0) << cap.messages[k];
        EXPECT_NE(cap.messages[k][4], ' ') << cap.messages[k];
    }
}

TEST(Informational, WarningSwitchSetsTheExportedFlag) {
    Args none;
    zu::load_library();
    void *handle = dlopen(TESSEL_LIBRARY_FILE, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr);
    int *flag = static_cast<int *>(dlsym(handle, "fLgmNoErrorMessage"));
    ASSERT_NE(flag, nullptr);
    EXPECT_EQ(*flag, 0);
    EXPECT_EQ(call_error("LgmWarning", none).text, "LgmWarning(): at least one argument required");
    const std::pair<int, int> cases[] = {{0, 1}, {1, 0}, {-4, 1}, {5, 0}, {-1, 1}, {2, 0}};
    for (auto [arg, expected] : cases) {
        Args a;
        a.push_back(Value::integer(arg));
        zu::call("LgmWarning", a);
        EXPECT_EQ(*flag, expected) << "LgmWarning(" << arg << ")";
    }
    Args wrong;
    wrong.push_back(mat(2, 2, {1, 2, 3, 4}));
    EXPECT_EQ(call_error("LgmWarning", wrong).number, zu::kErrorType);
    EXPECT_EQ(*flag, 0);
    dlclose(handle);
}

TEST(InformationalDeathTest, WarningWithoutArgumentWhileSilencedExits) {
    EXPECT_EXIT(
        {
            Args a;
            a.push_back(Value::integer(0));
            zu::call("LgmWarning", a);
            Args none;
            zu::call("LgmWarning", none);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(NaNHelpers, RecogniseEveryNaNAndNoInfinity) {
    auto from_bits = [](std::uint64_t b) {
        double x;
        std::memcpy(&x, &b, sizeof x);
        return x;
    };
    EXPECT_EQ(FIsNaN(from_bits(0x7FF0000000000000ULL)), 0);  // +inf
    EXPECT_EQ(FIsNaN(from_bits(0xFFF0000000000000ULL)), 0);  // -inf
    EXPECT_EQ(FIsNaN(1e308), 0);
    EXPECT_EQ(FIsNaN(0.0), 0);
    for (std::uint64_t b : {0x7FF8000000000000ULL, 0xFFF8000000000000ULL, 0x7FF0000000000001ULL,
                            0xFFFFFFFFFFFFFFFFULL, 0x7FF4000000000000ULL})
        EXPECT_EQ(FIsNaN(from_bits(b)), 1) << std::hex << b;
    double x = 1.0;
    SetNaN(&x);
    std::uint64_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    EXPECT_EQ(bits, 0x7FF8000000000000ULL);
}

TEST(Kernels, ProductsMatchNaiveSums) {
    std::mt19937 gen(7);
    std::uniform_real_distribution<double> u(-2, 2);
    for (int n : {0, 1, 3, 6}) {
        Value A = Value::matrix(n > 0 ? n : 1, n > 0 ? n : 1);
        std::vector<double> x(n + 1), y(n + 1);
        for (int i = 0; i < n; ++i) {
            x[i] = u(gen);
            y[i] = u(gen);
            for (int j = 0; j < n; ++j) A.at(i, j) = u(gen);
        }
        double vv = 0, xax = 0, yax = 0;
        for (int i = 0; i < n; ++i) {
            vv += x[i] * y[i];
            for (int j = 0; j < n; ++j) {
                xax += x[i] * A.at(i, j) * x[j];
                yax += y[i] * A.at(i, j) * x[j];
            }
        }
        EXPECT_NEAR(dVecVec(n, x.data(), y.data()), vv, 1e-13);
        EXPECT_NEAR(dInnerProd(n, x.data(), A.data()), xax, 1e-12);
        EXPECT_NEAR(dVecMatVec(n, x.data(), A.data(), y.data()), yax, 1e-12);
    }
    EXPECT_EQ(dVecVec(-2, nullptr, nullptr), 0.0);
}

TEST(Kernels, IntegerMaximaIncludeTheFirstElement) {
    EXPECT_EQ(iMaxIntVec(3, nullptr), 0);
    int neg[] = {-5, -2, -9};
    EXPECT_EQ(iMaxIntVec(3, neg), -2);
    EXPECT_EQ(iMaxIntVec(0, neg), -5);  // n < 1 still reads the first element
    int r0[] = {-3, 4}, r1[] = {8, -1};
    int *t[] = {r0, r1};
    EXPECT_EQ(iMaxIntMat(2, 2, t), 8);
    EXPECT_EQ(iMaxIntMat(0, 2, t), -3);
    EXPECT_EQ(iMaxIntMat(2, 2, nullptr), 0);
}

TEST(Kernels, TriangularSolvesMatchSubstitution) {
    // L with divisors on the diagonal; junk in the other triangle must be ignored.
    double r0[] = {2, 99, 99}, r1[] = {1, 4, 99}, r2[] = {-1, 3, 5};
    double *L[] = {r0, r1, r2};
    double b[] = {2, 9, 20}, x[3];
    LDLbacksub(1, 3, L, b, x);
    EXPECT_DOUBLE_EQ(x[0], 1.0);
    EXPECT_DOUBLE_EQ(x[1], 2.0);
    EXPECT_DOUBLE_EQ(x[2], (20 + 1 - 6) / 5.0);
    double u0[] = {2, 1, -1}, u1[] = {77, 4, 3}, u2[] = {77, 77, 5};
    double *U[] = {u0, u1, u2};
    double c[] = {3, 11, 10};
    LDLbacksub(0, 3, U, c, c);  // in place
    EXPECT_DOUBLE_EQ(c[2], 2.0);
    EXPECT_DOUBLE_EQ(c[1], (11 - 6) / 4.0);
    EXPECT_DOUBLE_EQ(c[0], (3 - 1.25 + 2) / 2.0);
    LDLbacksub(1, 0, L, b, x);  // n < 1: nothing
}

TEST(Kernels, DiffuseKappaUsesTheLargestDiagonal) {
    Value v = mat(3, 3, {0.5, 9, 9, 9, 4, 9, 9, 9, -8});
    EXPECT_DOUBLE_EQ(tessel::diffuse_kappa(v.data(), 3), 9999999.99 * 4);
    EXPECT_DOUBLE_EQ(tessel::diffuse_kappa(v.data(), 1), 9999999.99);
}

namespace {

std::string run(const std::string &cmd) {
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[512];
    while (fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
    return out;
}

std::set<std::string> lines_of(const std::string &s) {
    std::set<std::string> out;
    std::istringstream in(s);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty()) out.insert(line);
    return out;
}

// Sanitizer runtimes add their own symbols to every instrumented object
// (__asan_*, __ubsan_* needed; __odr_asan_gen_* and friends exported), so
// the symbol table of a sanitized build is not the product's. The sanitizer
// jobs set TESSEL_SANITIZED_BUILD=1; the ordinary build checks the table.
bool sanitized_build() {
    const char *v = std::getenv("TESSEL_SANITIZED_BUILD");
    return v && *v && std::strcmp(v, "0") != 0;
}

}  // namespace

TEST(SharedLibrary, ExportsExactlyTheDocumentedNames) {
    if (sanitized_build())
        GTEST_SKIP() << "sanitizer runtimes add symbols (TESSEL_SANITIZED_BUILD)";
    const std::set<std::string> documented = {
        // entry points
        "FnLgmVersion", "FnLgmAbout", "FnLgmWarning", "FnKalmanFil", "FnLgmLik", "FnLgmLikConc",
        "FnLgmRecursion", "FnKalmanSmo", "FnLgmMomentEst", "FnLgmLikSco", "FnSimSmoWgt",
        "FnSimSmoDraw", "FnLgmCondDens", "FnLgmWeights", "FnGetLgmArma", "FnGetLgmStsm",
        "FnGetLgmReg", "FnAddLgmReg", "FnGetLgmSpline",
        // message switch and helpers
        "fLgmNoErrorMessage", "FIsNaN", "SetNaN",
        // kernels
        "dVecVec", "dInnerProd", "dVecMatVec", "iMaxIntVec", "iMaxIntMat", "LDLbacksub", "TVsystem",
        // numeric routines
        "fMultiKalmanFil", "fUnivKalmanFil", "LgmRecursion", "MultiKalmanSmo", "UnivKalmanSmo",
        "MultiDisturbSmo", "UnivDisturbSmo", "MultiStateSmo", "UnivStateSmo", "fMultiStatePred",
        "fUnivStatePred", "iMultiSimSmoWgt", "iUnivSimSmoWgt", "MultiSimSmoDraw", "UnivSimSmoDraw",
        "LgmSignalSmo", "fMultiWeightPred", "fUnivWeightPred", "fMultiWeightFil", "fUnivWeightFil",
        "fMultiWeightSmo", "fUnivWeightSmo", "fGetLgmUnivArma", "fGetLgmUnivStsm",
        // exact initial routines
        "LgmExactOpen", "LgmExactClose", "LgmExactSizes", "IKalmanInitial", "fKalmanExact",
        "fKalmanExactMean", "StateSmoExact", "DistSmoExact", "QuickStateSmo", "fLgmExactScore",
        "fLgmVarFactors", "LgmDraw", "SimSmoWgtExact", "SimSmoDrawExact", "LgmBootstrap"};
    const std::string lib = TESSEL_LIBRARY_FILE;
    const auto exported = lines_of(
        run("nm -D --defined-only --format=posix " + lib + " | awk '$2 ~ /[TDBRV]/ {print $1}'"));
    ASSERT_FALSE(exported.empty()) << "could not read the symbols of " << lib;
    for (const auto &name : exported) EXPECT_TRUE(documented.count(name)) << "exports " << name;
    for (const auto &name : documented) EXPECT_TRUE(exported.count(name)) << "misses " << name;
}

TEST(SharedLibrary, NeedsOnlyTheSystemLibrariesAndTheHost) {
    if (sanitized_build())
        GTEST_SKIP() << "sanitizer runtimes add symbols (TESSEL_SANITIZED_BUILD)";
    const std::string lib = TESSEL_LIBRARY_FILE;
    // The C++ runtime appears only for exception unwinding: host errors are
    // C++ exceptions, and the library's cleanups run while they pass.
    const std::set<std::string> allowed_needed = {"libc.so.6", "libm.so.6", "libstdc++.so.6",
                                                  "libgcc_s.so.1"};
    const auto needed =
        lines_of(run("readelf -d " + lib + " | sed -n 's/.*Shared library: \\[\\(.*\\)\\]/\\1/p'"));
    ASSERT_FALSE(needed.empty());
    for (const auto &n : needed) EXPECT_TRUE(allowed_needed.count(n)) << "needs " << n;

    const std::set<std::string> host_ops = {"ZuLibCheckType",
                                            "ZuLibCheckMatrixSize",
                                            "ZuLibValMatMalloc",
                                            "ZuFreeByValue",
                                            "ZuRunError",
                                            "ZuRunErrorMessage",
                                            "ZuRunMessage",
                                            "MatAllocBlock",
                                            "MatFreeBlock",
                                            "MatZero",
                                            "MatI",
                                            "MatAdd",
                                            "MatAB",
                                            "MatBSBt",
                                            "MatBtSB",
                                            "IInvDet",
                                            "ILDLdec",
                                            "IMatRank",
                                            "MatRann",
                                            "DRanNormalPM",
                                            "TabAllocPlain",
                                            "TabFreePlain"};
    const auto undefined = lines_of(
        run("nm -D --undefined-only --format=posix " + lib + " | awk '$2 == \"U\" {print $1}'"));
    for (const auto &sym : undefined) {
        const bool versioned = sym.find('@') != std::string::npos;  // libc, libm, C++ runtime
        EXPECT_TRUE(host_ops.count(sym) || versioned || sym == "_Unwind_Resume" ||
                    sym == "__gxx_personality_v0")
            << "needs unknown symbol " << sym;
    }
}
