// test_reliability_regressions.cpp - one test per fault that the fuzzer or
// the overflow review found, named after what it caught. Each call must end
// in a clean, documented report; the sanitizer job (UBSan) is what catches a
// return of the overflow itself, since a wrapped int often happens to give
// the same report in an ordinary build.
//
// Sizes that cannot be allocated in a test (2^31-1 rows with no columns
// needs a 16 GiB row-pointer array in our host) are given as raw host
// values that claim the size; the library must refuse them before it reads
// anything, and the sanitizer jobs would catch a read.
#include <gtest/gtest.h>

#include <climits>
#include <deque>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "tessel/tessel.h"
#include "test_util.h"

namespace {

using testutil::Args;
using testutil::call_crafted;
using testutil::Crafted;
using testutil::mat;
using testutil::NoLeak;
using testutil::Outcome;
using zu::Value;

// Found by the fuzzer: AddLgmReg compared the rows of the caller's SysMat
// with m + 1 in int, m being its column count (2^31-1 for a 0 x 2^31-1
// matrix, which our host makes without storage).
TEST(FuzzRegressions, AddLgmRegOntoAZeroByIntMaxSysMat) {
    NoLeak guard;
    std::deque<Value> t;
    t.push_back(Value::matrix(0, INT_MAX));
    t.push_back(Value::matrix(2, 2));
    t.push_back(Value::matrix(2, 1));
    t.push_back(Value::empty());
    Args a;
    a.push_back(mat(1, 2, {1, 2}));
    for (Value &v : t) a.push_back(Value::ref(v));
    try {
        zu::call("AddLgmReg", a);
        ADD_FAILURE() << "no error";
    } catch (const zu::Error &e) {
        EXPECT_EQ(std::string(e.what()), "AddLgmReg(): argument 2 wrong matrix dimension");
    }
    EXPECT_EQ(t[0].cols(), INT_MAX) << "the caller's model is kept";
}

// Found by review: k + 1 result rows for k = 2^31-1 regressors; the
// wrapped size made "empty" results that were then written into.
TEST(OverflowRegressions, GetLgmRegWithIntMaxRegressorRows) {
    NoLeak guard;
    std::deque<Value> t(4);
    Args a;
    a.push_back(Value::matrix(1, 1));
    for (Value &v : t) a.push_back(Value::ref(v));
    Crafted x(INT_MAX, 0);
    const Outcome r = call_crafted("GetLgmReg", a, {{0, &x}});
    ASSERT_TRUE(r.threw);
    EXPECT_EQ(r.text, "GetLgmReg(): memory allocation failure");
}

// Found by review: AddLgmReg's extended dimension M = m + k overflowed for
// k = 2^31-1 regressors.
TEST(OverflowRegressions, AddLgmRegWithIntMaxRegressorRows) {
    NoLeak guard;
    std::deque<Value> t;
    t.push_back(mat(2, 1, {1, 1}));
    t.push_back(mat(2, 2, {1, 0, 0, 1}));
    t.push_back(mat(2, 1, {-1, 0}));
    t.push_back(Value::empty());
    Args a;
    a.push_back(Value::matrix(1, 1));
    for (Value &v : t) a.push_back(Value::ref(v));
    Crafted x(INT_MAX, 0);
    const Outcome r = call_crafted("AddLgmReg", a, {{0, &x}});
    ASSERT_TRUE(r.threw);
    EXPECT_EQ(r.number, zu::kErrorMemory);
    EXPECT_EQ(t[0].rows(), 2) << "the caller's model is kept";
}

// Found by the bad-input catalogue: the filter store's row count was
// formed from N + 1 in int, so N = 2^31-1 observation rows (a SysMat with no
// state column) passed the size test with a negative store height.
TEST(OverflowRegressions, ModelCheckWithIntMaxObservationRows) {
    NoLeak guard;
    Args a;
    a.push_back(Value::matrix(1, 3));
    a.push_back(Value::matrix(1, 1));
    a.push_back(Value::matrix(1, 1));
    Crafted sys(INT_MAX, 0), var(INT_MAX, INT_MAX);
    for (const char *entry : {"KalmanFil", "KalmanSmo", "LgmRecursion"}) {
        const Outcome r = call_crafted(entry, a, {{1, &sys}, {2, &var}});
        EXPECT_TRUE(r.threw) << entry;
        EXPECT_EQ(r.text, "Lgm(): model dimension too large") << entry;
    }
}

// Found by review: the smoother output has n + 1 columns, formed in int; a
// store of 2^31-1 time points cannot have it, which is the allocation
// failure of the entry point (error 4), reported before the store is read.
TEST(OverflowRegressions, KalmanSmoWithIntMaxTimePoints) {
    NoLeak guard;
    Args a;
    a.push_back(Value::matrix(3, 1));  // replaced by a 3 x 2^31-1 store
    a.push_back(mat(2, 1, {1, 1}));
    a.push_back(mat(2, 2, {1, 0, 0, 1}));
    Crafted store(3, INT_MAX);
    const Outcome r = call_crafted("KalmanSmo", a, {{0, &store}});
    ASSERT_TRUE(r.threw);
    EXPECT_EQ(r.number, zu::kErrorMemory);
}

// Found by review: SimSmoDraw's result has n + 1 columns as well.
TEST(OverflowRegressions, SimSmoDrawWithIntMaxTimePoints) {
    NoLeak guard;
    Args a;
    a.push_back(mat(2, 2, {1, 0, 0, 0}));  // selection: the state disturbance
    a.push_back(Value::matrix(1, 1));      // draws, 1 x n
    a.push_back(Value::matrix(1, 1));      // weights, 3 x n
    a.push_back(Value::matrix(1, 1));      // store, 3 x n
    a.push_back(mat(2, 1, {1, 1}));
    a.push_back(mat(2, 2, {1, 0, 0, 1}));
    Crafted draws(1, INT_MAX), weights(3, INT_MAX), store(3, INT_MAX);
    const Outcome r = call_crafted("SimSmoDraw", a, {{1, &draws}, {2, &weights}, {3, &store}});
    EXPECT_TRUE(r.threw);
    EXPECT_EQ(r.number, zu::kErrorMemory) << r.text;
}

// Found by review: the stationary variance of an ARMA block of order n
// solves an n^2 x n^2 system, and n * n was formed in int. An order of
// 46341 or more is refused as the scratch allocation failure it is (the
// routine returns 0 without touching its outputs).
TEST(OverflowRegressions, ArmaOrderWhoseSquareOverflowsInt) {
    const int m = 46341;
    std::vector<double> phi(m, 0.0), theta(m, 0.0);
    theta[0] = 1.0;
    EXPECT_EQ(fGetLgmUnivArma(m, 0, 0, phi.data(), theta.data(), nullptr, nullptr, nullptr, 1.0),
              0);
}

}  // namespace
