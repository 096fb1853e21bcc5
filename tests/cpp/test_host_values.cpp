// Conformance tests of the host's values, storage accounting, argument
// checks, errors and messages.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "../../src/host/host_internal.h"
#include "tessel/host.hpp"
#include "tessel/zu.h"

namespace {

// Runs body inside a simulated call of the entry point `name`.
template <typename F>
void in_call(const char *name, std::vector<zu::Value> &args, F body) {
    zu::detail::CallScope scope(name, args.empty() ? nullptr : args.front().raw(),
                                static_cast<int>(args.size()));
    body(args.empty() ? nullptr : args.front().raw());
}

// Expects fn to throw zu::Error with the given number and exact text.
template <typename F>
void expect_error(F fn, int number, const std::string &text) {
    try {
        fn();
        ADD_FAILURE() << "no error raised; expected \"" << text << "\"";
    } catch (const zu::Error &e) {
        EXPECT_EQ(e.number(), number);
        EXPECT_EQ(std::string(e.what()), text);
    }
}

}  // namespace

// ------------------------------------------------------------------- values

TEST(HostValue, LayoutIsZuValue) {
    static_assert(sizeof(zu::Value) == sizeof(ZuValue), "layout");
    std::vector<zu::Value> v;
    v.push_back(zu::Value::integer(3));
    v.push_back(zu::Value::real(2.5));
    v.push_back(zu::Value::matrix(2, 1, {1.0, 2.0}));
    const ZuValue *raw = v.front().raw();
    EXPECT_EQ(raw[0].type, ZU_INT);
    EXPECT_EQ(raw[0].v.ival, 3);
    EXPECT_EQ(raw[1].type, ZU_DOUBLE);
    EXPECT_EQ(raw[1].v.dval, 2.5);
    EXPECT_EQ(raw[2].type, ZU_MATRIX);
    EXPECT_EQ(raw[2].v.mat.rows, 2);
    EXPECT_EQ(raw[2].v.mat.data[1][0], 2.0);
}

TEST(HostValue, MatrixCopyMoveAndAccess) {
    const zu::LiveCounts before = zu::live_allocations();
    {
        zu::Value m = zu::Value::matrix(2, 3, {1, 2, 3, 4, 5, 6});
        EXPECT_EQ(m.rows(), 2);
        EXPECT_EQ(m.cols(), 3);
        EXPECT_EQ(m.at(1, 2), 6.0);
        // One contiguous block, row by row.
        EXPECT_EQ(m.data()[1], m.data()[0] + 3);
        EXPECT_EQ(m.to_vector(), (std::vector<double>{1, 2, 3, 4, 5, 6}));

        zu::Value c = m;  // deep copy
        EXPECT_NE(c.data(), m.data());
        c.at(0, 0) = 42;
        EXPECT_EQ(m.at(0, 0), 1.0);
        EXPECT_EQ(zu::live_allocations().blocks, before.blocks + 2);

        zu::Value moved = std::move(c);
        EXPECT_TRUE(c.is_none());
        EXPECT_EQ(moved.at(0, 0), 42.0);
        EXPECT_EQ(zu::live_allocations().blocks, before.blocks + 2);

        m = moved;  // copy-assign over a matrix frees the old one
        EXPECT_EQ(m.at(0, 0), 42.0);
        EXPECT_EQ(zu::live_allocations().blocks, before.blocks + 2);

        EXPECT_THROW(m.at(2, 0), zu::Error);
        EXPECT_THROW(m.at(0, -1), zu::Error);
        EXPECT_THROW(m.as_int(), zu::Error);
        EXPECT_THROW(zu::Value::matrix(2, 2, {1, 2, 3}), zu::Error);
    }
    EXPECT_EQ(zu::live_allocations().blocks, before.blocks);
}

TEST(HostValue, ScalarsReferencesAndEmpty) {
    zu::Value i = zu::Value::integer(-7);
    EXPECT_EQ(i.as_int(), -7);
    EXPECT_EQ(i.as_double(), -7.0);
    EXPECT_THROW(i.rows(), zu::Error);
    zu::Value d = zu::Value::real(0.25);
    EXPECT_EQ(d.as_double(), 0.25);
    EXPECT_THROW(d.as_int(), zu::Error);

    zu::Value target = zu::Value::integer(1);
    zu::Value r = zu::Value::ref(target);
    EXPECT_EQ(r.type(), ZU_REF);
    EXPECT_EQ(&r.target(), &target);
    zu::Value r2 = r;  // copies the pointer, not the target
    EXPECT_EQ(&r2.target(), &target);
    r.reset();  // references are not followed
    EXPECT_EQ(target.as_int(), 1);
    EXPECT_THROW(r.target(), zu::Error);

    zu::Value e = zu::Value::empty();
    EXPECT_EQ(e.type(), ZU_MATRIX);
    EXPECT_EQ(e.rows(), 0);
    EXPECT_EQ(e.data(), nullptr);
    EXPECT_TRUE(e.to_vector().empty());
    EXPECT_EQ(zu::Value::matrix(0, 0).data(), nullptr);

    expect_error([] { zu::Value::matrix(-1, 2); }, zu::kErrorSize, "negative matrix size -1 x 2");
}

TEST(HostValue, ValMatMallocAndFreeByValue) {
    const long blocks = zu::live_allocations().blocks;
    ZuValue v{};
    v.type = ZU_INT;
    v.v.ival = 5;
    ZuLibValMatMalloc(&v, 3, 2);
    ASSERT_EQ(v.type, ZU_MATRIX);
    ASSERT_NE(v.v.mat.data, nullptr);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 2; ++j) EXPECT_EQ(v.v.mat.data[i][j], 0.0);
    v.v.mat.data[2][1] = 1;
    ZuLibValMatMalloc(&v, 4, 4);  // frees the 3 x 2 first
    EXPECT_EQ(zu::live_allocations().blocks, blocks + 1);
    EXPECT_EQ(v.v.mat.data[3][3], 0.0);

    // 0 x 0 is the empty matrix: no storage, no allocation attempt.
    const long attempts = zu::allocation_attempts();
    ZuLibValMatMalloc(&v, 0, 0);
    EXPECT_EQ(v.v.mat.data, nullptr);
    EXPECT_EQ(zu::allocation_attempts(), attempts);
    EXPECT_EQ(zu::live_allocations().blocks, blocks);

    // 0 x k is a success with storage: a null data pointer means failure.
    ZuLibValMatMalloc(&v, 0, 4);
    EXPECT_NE(v.v.mat.data, nullptr);
    ZuFreeByValue(&v);
    EXPECT_EQ(v.type, ZU_NONE);
    EXPECT_EQ(zu::live_allocations().blocks, blocks);

    // Failure: a matrix of the requested shape with null data, no throw.
    zu::fail_allocation(1);
    ZuLibValMatMalloc(&v, 2, 2);
    EXPECT_TRUE(zu::injected_failure_delivered());
    EXPECT_EQ(v.type, ZU_MATRIX);
    EXPECT_EQ(v.v.mat.rows, 2);
    EXPECT_EQ(v.v.mat.cols, 2);
    EXPECT_EQ(v.v.mat.data, nullptr);
    ZuFreeByValue(&v);
    ZuLibValMatMalloc(&v, INT_MAX, INT_MAX);
    EXPECT_EQ(v.v.mat.data, nullptr);
    ZuFreeByValue(&v);

    ZuValue d{};
    d.type = ZU_DOUBLE;
    d.v.dval = 2;
    ZuFreeByValue(&d);
    EXPECT_EQ(d.type, ZU_NONE);
    EXPECT_EQ(zu::live_allocations().blocks, blocks);
}

// ------------------------------------------------------------------ storage

TEST(HostStorage, BlocksAreContiguousZeroFilledAndCounted) {
    const zu::LiveCounts before = zu::live_allocations();
    double **m = MatAllocBlock(4, 3);
    ASSERT_NE(m, nullptr);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(m[i], m[0] + 3 * i);
        for (int j = 0; j < 3; ++j) EXPECT_EQ(m[i][j], 0.0);
    }
    double **p = MatAllocBlock(5, 0);  // row pointers only
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(p[i], nullptr);
    double **z = MatAllocBlock(0, 7);  // valid, not a failure
    EXPECT_NE(z, nullptr);
    int **t = reinterpret_cast<int **>(TabAllocPlain(3, 5, sizeof(int)));
    ASSERT_NE(t, nullptr);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 5; ++j) EXPECT_EQ(t[i][j], 0);
    t[2][4] = 1;
    EXPECT_EQ(zu::live_allocations().blocks, before.blocks + 3);
    EXPECT_EQ(zu::live_allocations().tables, before.tables + 1);
    MatFreeBlock(m);
    MatFreeBlock(p);
    MatFreeBlock(z);
    MatFreeBlock(nullptr);
    TabFreePlain(reinterpret_cast<void **>(t), 3, 5);
    EXPECT_EQ(zu::live_allocations().blocks, before.blocks);
    EXPECT_EQ(zu::live_allocations().tables, before.tables);
    EXPECT_EQ(zu::live_allocations().total(), before.total());
}

TEST(HostStorage, AbsurdSizesGiveNull) {
    const zu::LiveCounts before = zu::live_allocations();
    EXPECT_EQ(MatAllocBlock(-1, 3), nullptr);
    EXPECT_EQ(MatAllocBlock(3, -1), nullptr);
    EXPECT_EQ(MatAllocBlock(1000000, 1000000), nullptr);  // 8e12 bytes
    EXPECT_EQ(MatAllocBlock(INT_MAX, INT_MAX), nullptr);
    EXPECT_EQ(TabAllocPlain(INT_MAX, INT_MAX, INT_MAX), nullptr);
    EXPECT_EQ(TabAllocPlain(2, 2, -4), nullptr);
    EXPECT_EQ(zu::live_allocations().total(), before.total());
}

TEST(HostStorage, FailureInjectionHitsExactlyTheKthAllocation) {
    for (long k = 1; k <= 4; ++k) {
        SCOPED_TRACE("k = " + std::to_string(k));
        const long attempts = zu::allocation_attempts();
        zu::fail_allocation(k);
        EXPECT_FALSE(zu::injected_failure_delivered());
        std::vector<double **> got;
        for (int i = 1; i <= 6; ++i) {
            double **m = (i % 2) ? MatAllocBlock(2, 2)
                                 : reinterpret_cast<double **>(TabAllocPlain(2, 2, sizeof(double)));
            EXPECT_EQ(m == nullptr, i == k) << "allocation " << i;
            EXPECT_EQ(zu::injected_failure_delivered(), i >= k) << "after allocation " << i;
            got.push_back(m);
        }
        EXPECT_EQ(zu::allocation_attempts(), attempts + 6);
        for (int i = 1; i <= 6; ++i) {
            if (i % 2)
                MatFreeBlock(got[i - 1]);
            else if (got[i - 1])
                TabFreePlain(reinterpret_cast<void **>(got[i - 1]), 2, 2);
        }
    }
    zu::fail_allocation(3);
    zu::fail_allocation(0);  // switched off before it fires
    double **m = MatAllocBlock(1, 1), **n = MatAllocBlock(1, 1), **o = MatAllocBlock(1, 1);
    EXPECT_TRUE(m && n && o);
    EXPECT_FALSE(zu::injected_failure_delivered());
    MatFreeBlock(m);
    MatFreeBlock(n);
    MatFreeBlock(o);
    // Value::matrix turns an injected failure into error 4.
    zu::fail_allocation(1);
    EXPECT_THROW(
        {
            try {
                zu::Value::matrix(2, 2);
            } catch (const zu::Error &e) {
                EXPECT_EQ(e.number(), zu::kErrorMemory);
                throw;
            }
        },
        zu::Error);
}

// ------------------------------------------------------------------- checks

TEST(HostChecks, NumericScalarsConvertInPlace) {
    std::vector<zu::Value> a;
    a.push_back(zu::Value::integer(3));
    a.push_back(zu::Value::real(4.0));
    a.push_back(zu::Value::real(-2.0));
    a.push_back(zu::Value::integer(7));
    a.push_back(zu::Value::real(1.5));
    a.push_back(zu::Value::matrix(2, 1));
    a.push_back(zu::Value::real(5));
    in_call("KalmanFil", a, [](ZuValue *args) {
        ZuLibCheckType(ZU_DOUBLE, args, 0, 0);
        ZuLibCheckType(ZU_INT, args, 1, 2);  // exact integers only
        ZuLibCheckType(ZU_MATRIX, args, 3, 4);
        ZuLibCheckMatrixSize(args, 5, 5, 2, 1);
        ZuLibCheckMatrixSize(args, 6, 6, 1, 1);  // a scalar becomes 1 x 1
    });
    EXPECT_EQ(a[6].type(), ZU_MATRIX);
    EXPECT_EQ(a[6].at(0, 0), 5.0);
    EXPECT_EQ(a[0].type(), ZU_DOUBLE);
    EXPECT_EQ(a[0].as_double(), 3.0);
    EXPECT_EQ(a[1].as_int(), 4);
    EXPECT_EQ(a[2].as_int(), -2);
    EXPECT_EQ(a[3].rows(), 1);
    EXPECT_EQ(a[3].cols(), 1);
    EXPECT_EQ(a[3].at(0, 0), 7.0);
    EXPECT_EQ(a[4].at(0, 0), 1.5);
}

// Every failed check names the function, the argument (counted from the
// call's first argument even when the array is passed from an offset), what
// was expected and what was found, and leaves the value as it was. Missing
// arguments are errors, not reads; in a call without arguments any index is
// missing.
TEST(HostChecks, ErrorTextsAndMissingArguments) {
    struct Case {
        int number;
        std::string text;
        std::function<void(ZuValue *)> check;
    };
    zu::Value target = zu::Value::real(0);
    std::vector<zu::Value> a;
    a.push_back(zu::Value::matrix(2, 2));
    a.push_back(zu::Value::real(2.5));
    a.push_back(zu::Value::ref(target));
    a.push_back(zu::Value::real(3e10));
    a.push_back(zu::Value::matrix(3, 1));
    a.push_back(zu::Value::integer(6));
    const std::string f = "KalmanFil(): argument ";
    const std::vector<Case> cases = {
        {zu::kErrorType, f + "3: expected matrix, found reference",
         [](ZuValue *v) { ZuLibCheckType(ZU_MATRIX, v, 0, 2); }},
        {zu::kErrorType, f + "2: expected integer, found double that is not an integer",
         [](ZuValue *v) { ZuLibCheckType(ZU_INT, v, 1, 1); }},
        {zu::kErrorType, f + "4: expected integer, found double that is not an integer",
         [](ZuValue *v) { ZuLibCheckType(ZU_INT, v, 3, 3); }},
        {zu::kErrorType, f + "1: expected reference, found matrix",
         [](ZuValue *v) { ZuLibCheckType(ZU_REF, v, 0, 0); }},
        {zu::kErrorType, f + "1: expected double, found matrix",
         [](ZuValue *v) { ZuLibCheckType(ZU_DOUBLE, v, 0, 0); }},
        {zu::kErrorType, f + "3: expected matrix, found reference",
         [](ZuValue *v) { ZuLibCheckType(ZU_MATRIX, v + 2, 0, 0); }},
        {zu::kErrorSize, f + "5: expected 2 x 1 matrix, found 3 x 1",
         [](ZuValue *v) { ZuLibCheckMatrixSize(v, 4, 4, 2, 1); }},
        {zu::kErrorSize, f + "6: expected 2 x 2 matrix, found 1 x 1",
         [](ZuValue *v) { ZuLibCheckMatrixSize(v, 5, 5, 2, 2); }},
        {zu::kErrorSize, f + "3: expected 1 x 1 matrix, found reference",
         [](ZuValue *v) { ZuLibCheckMatrixSize(v, 2, 2, 1, 1); }},
        {zu::kErrorType, f + "7 missing", [](ZuValue *v) { ZuLibCheckType(ZU_MATRIX, v, 4, 7); }},
        {zu::kErrorSize, f + "7 missing", [](ZuValue *v) { ZuLibCheckMatrixSize(v, 6, 8, 1, 1); }},
        {zu::kErrorType, f + "0 missing", [](ZuValue *v) { ZuLibCheckType(ZU_MATRIX, v, -1, 0); }},
        {zu::kErrorType, f + "7 missing",
         [](ZuValue *v) { ZuLibCheckType(ZU_MATRIX, v + 5, 1, 1); }},
    };
    in_call("KalmanFil", a, [&](ZuValue *args) {
        for (const Case &c : cases) expect_error([&] { c.check(args); }, c.number, c.text);
        ZuLibCheckType(ZU_REF, args, 2, 2);     // no error
        ZuLibCheckType(ZU_MATRIX, args, 1, 0);  // empty range
    });
    EXPECT_EQ(a[1].type(), ZU_DOUBLE);
    std::vector<zu::Value> none;
    in_call("LgmVersion", none, [](ZuValue *args) {
        expect_error([&] { ZuLibCheckType(ZU_INT, args, 0, 0); }, zu::kErrorType,
                     "LgmVersion(): argument 1 missing");
    });
}

// ----------------------------------------------------------- errors, messages

TEST(HostErrors, RunErrorTexts) {
    std::vector<zu::Value> none;
    in_call("KalmanSmo", none, [](ZuValue *) {
        expect_error([] { ZuRunError(4, nullptr); }, zu::kErrorMemory,
                     "KalmanSmo(): out of memory");
        expect_error([] { ZuRunError(4, "ignored"); }, zu::kErrorMemory,
                     "KalmanSmo(): out of memory");
        expect_error([] { ZuRunError(17, nullptr); }, 17, "KalmanSmo(): run-time error 17");
        expect_error([] { ZuRunError(17, "SysMat"); }, 17,
                     "KalmanSmo(): run-time error 17: SysMat");
        expect_error([] { ZuRunErrorMessage("GetLgmArma(): six arguments required"); },
                     zu::kErrorMessage, "GetLgmArma(): six arguments required");
        EXPECT_EQ(zu::current_function(), "KalmanSmo");
    });
    EXPECT_EQ(zu::current_function(), "");
    expect_error([] { ZuRunError(4, nullptr); }, zu::kErrorMemory, "out of memory");
}

TEST(HostErrors, CallScopesNestAndRestore) {
    std::vector<zu::Value> a;
    a.push_back(zu::Value::integer(1));
    {
        zu::detail::CallScope outer("Outer", a.front().raw(), 1);
        {
            zu::detail::CallScope inner("Inner", nullptr, 0);
            EXPECT_EQ(zu::current_function(), "Inner");
        }
        EXPECT_EQ(zu::current_function(), "Outer");
        ZuLibCheckType(ZU_INT, a.front().raw(), 0, 0);  // outer bound is back
    }
    EXPECT_EQ(zu::current_function(), "");
}

TEST(HostMessages, SinkAndDefault) {
    std::vector<std::string> seen;
    zu::MessageSink old = zu::set_message_sink([&](const char *t) { seen.push_back(t); });
    ZuRunMessage("first line");
    ZuRunMessage("\nTessel");
    zu::MessageSink mine = zu::set_message_sink(old);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], "first line");
    EXPECT_EQ(seen[1], "\nTessel");
    ASSERT_TRUE(static_cast<bool>(mine));
    mine("third");  // the returned previous sink is the one we set
    EXPECT_EQ(seen.size(), 3u);

    zu::MessageSink prev = zu::set_message_sink(nullptr);
    testing::internal::CaptureStderr();
    ZuRunMessage("to stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to stderr\n");
    zu::set_message_sink(prev);
}
