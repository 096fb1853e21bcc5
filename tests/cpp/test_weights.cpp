// test_weights.cpp - LgmWeights called by name: what only a C++ caller can
// see (the time-varying values left in the caller's own SysMat and VarMat),
// the target search, the first time point for each selection, selection 3,
// the failure reports, and the leak check and allocation-failure sweep.
//
// Agreement with the joint-Gaussian oracle over models with missing data and
// time-varying systems is tested from Python (tests/python/test_weights.py).
// Here numerical references come from a local level model whose joint
// Gaussian is written out in closed form and conditioned with a small dense
// solve.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "test_util.h"

namespace {

using testutil::Args;
using testutil::kNaN;
using testutil::mat;
using testutil::NoLeak;
using zu::Value;

const char *const kUnknownError = "LgmWeights(): unknown error";

// ------------------------------------------------------------- models

// Time-varying models whose TvData value at (row r, time t) is
// tv_value(r, t), distinct for every row and time point.
double tv_value(int r, int t) { return 0.3 + 0.1 * r + 0.01 * t; }

constexpr int kTime = 7;

// Marker: 0 (observed) everywhere, 1 at the target.
Value marker(int N, int n, int istar, int tstar) {
    std::vector<double> v(static_cast<std::size_t>(N) * n, 0.0);
    if (istar >= 0) v[static_cast<std::size_t>(istar) * n + tstar] = 1.0;
    return mat(N, n, v);
}

Value tvdata(int rows, int n) {
    std::vector<double> v;
    for (int r = 0; r < rows; ++r)
        for (int t = 0; t < n; ++t) v.push_back(tv_value(r, t));
    return mat(rows, n, v);
}

// m = 2, N = 2. SysIdx marks T[0][0] (TvData row 0) and Z[1][1] (row 1);
// VarIdx marks the covariance VarMat[0][2] = VarMat[2][0] (row 2).
Args two_series_model(int selection, Value mk) {
    Args a;
    a.push_back(Value::integer(selection));
    a.push_back(std::move(mk));
    a.push_back(mat(4, 2, {0.8, 0.2, 0.0, 0.6, 1.0, 0.0, 0.5, 1.0}));
    a.push_back(mat(4, 4, {1.0, 0.1, 0.0, 0.0,  //
                           0.1, 0.8, 0.0, 0.0,  //
                           0.0, 0.0, 1.2, 0.2,  //
                           0.0, 0.0, 0.2, 0.9}));
    a.push_back(mat(3, 2, {2.0, 0.0, 0.3, 1.5, 0.1, -0.2}));
    a.push_back(mat(4, 1, {0.1, 0.0, 0.5, -0.3}));
    a.push_back(mat(4, 2, {0, -1, -1, -1, -1, -1, -1, 1}));
    std::vector<double> varidx(16, -1.0);
    varidx[0 * 4 + 2] = varidx[2 * 4 + 0] = 2;
    a.push_back(mat(4, 4, varidx));
    a.push_back(Value::empty());
    a.push_back(tvdata(3, kTime));
    return a;
}

// m = 2, N = 1. SysIdx marks T[0][1] (row 0) and Z[0][0] (row 1); VarIdx
// marks the variance VarMat[1][1] (row 2).
Args one_series_model(int selection, Value mk) {
    Args a;
    a.push_back(Value::integer(selection));
    a.push_back(std::move(mk));
    a.push_back(mat(3, 2, {0.9, 0.0, 0.1, 0.7, 1.0, 0.5}));
    a.push_back(mat(3, 3, {0.5, 0.1, 0.0, 0.1, 0.3, 0.0, 0.0, 0.0, 0.8}));
    a.push_back(mat(3, 2, {2.0, 0.0, 0.3, 1.5, 0.4, -0.2}));
    a.push_back(Value::empty());
    a.push_back(mat(3, 2, {-1, 0, -1, -1, 1, -1}));
    a.push_back(mat(3, 3, {-1, -1, -1, -1, 2, -1, -1, -1, -1}));
    a.push_back(Value::empty());
    a.push_back(tvdata(3, kTime));
    return a;
}

// Local level: alpha(t+1) = alpha(t) + eta, y(t) = alpha(t) + eps, with
// Var(eta) = q, Var(eps) = h and alpha(0) ~ N(a0, p0).
struct LocalLevel {
    double q = 0.4, h = 1.3, p0 = 2.0, a0 = 0.5;

    Args args(int selection, Value mk) const {
        Args a;
        a.push_back(Value::integer(selection));
        a.push_back(std::move(mk));
        a.push_back(mat(2, 1, {1.0, 1.0}));
        a.push_back(mat(2, 2, {q, 0.0, 0.0, h}));
        a.push_back(mat(2, 1, {p0, a0}));
        return a;
    }

    // Weights of y(0..n-1) on alpha(tstar) given the observations at the
    // times in `given`: Var(y_g)^-1 Cov(y_g, alpha(tstar)), from
    // Cov(y(s), y(t)) = p0 + min(s, t) q + h [s = t] and
    // Cov(y(s), alpha(t)) = p0 + min(s, t) q, solved densely.
    std::vector<double> weights(int n, int tstar, const std::vector<int> &given) const {
        const std::size_t k = given.size();
        std::vector<std::vector<double>> A(k, std::vector<double>(k + 1));
        for (std::size_t a = 0; a < k; ++a) {
            for (std::size_t b = 0; b < k; ++b)
                A[a][b] = p0 + std::min(given[a], given[b]) * q + (a == b ? h : 0.0);
            A[a][k] = p0 + std::min(given[a], tstar) * q;
        }
        // Gauss-Jordan elimination; the matrix is SPD, no pivoting needed.
        for (std::size_t c = 0; c < k; ++c)
            for (std::size_t r = 0; r < k; ++r) {
                if (r == c) continue;
                const double f = A[r][c] / A[c][c];
                for (std::size_t j = c; j <= k; ++j) A[r][j] -= f * A[c][j];
            }
        std::vector<double> w(n, 0.0);
        for (std::size_t a = 0; a < k; ++a) w[given[a]] = A[a][k] / A[a][a];
        return w;
    }
};

std::vector<int> times_before(int t) {
    std::vector<int> v;
    for (int j = 0; j < t; ++j) v.push_back(j);
    return v;
}

// Calls by name and returns the error (or none) with the leak check.
testutil::CallError failing_call(Args args) {
    NoLeak guard;
    return testutil::call_error("LgmWeights", args);
}

bool all_zero(const Value &v) {
    for (double x : v.to_vector())
        if (x != 0.0) return false;
    return true;
}

// ------------------------------------------- the caller's own matrices

// The weights entry point writes time-varying elements into the caller's
// SysMat and VarMat and leaves them there: after the call they hold the
// values of the last time point each was written for. The passes, in their
// documented order: the filter over all points (SysMat and VarMat, times 0
// up to n-1), for selections 1 and 3 the smoother (SysMat, n-1 down to 0),
// for selections 1 and 5 the filter over the points before t* (both, up to
// t*-1), then the weight recursion (SysMat only: selections 0 and 5 end at
// time 0, selection 1 runs forward to n-1 last).
struct InPlaceCase {
    int selection;
    int tstar;
    int sys_time;  // time whose values SysMat holds afterwards
    int var_time;  // same for VarMat
};

void expect_in_place(Args &a, const std::vector<double> &sys0, const std::vector<double> &var0,
                     int m, int mN, const std::vector<std::pair<int, int>> &sysmarked,
                     const std::vector<std::pair<int, int>> &varmarked, const InPlaceCase &c) {
    const Value &sys = a[2];
    const Value &var = a[3];
    for (int r = 0; r < mN; ++r)
        for (int j = 0; j < m; ++j) {
            double want = sys0[r * m + j];
            for (std::size_t k = 0; k < sysmarked.size(); ++k)
                if (sysmarked[k] == std::make_pair(r, j)) want = tv_value(static_cast<int>(k), c.sys_time);
            EXPECT_EQ(sys.at(r, j), want) << "SysMat[" << r << "][" << j << "]";
        }
    for (int r = 0; r < mN; ++r)
        for (int j = 0; j < mN; ++j) {
            double want = var0[r * mN + j];
            for (const auto &p : varmarked)
                if (p == std::make_pair(r, j)) want = tv_value(2, c.var_time);
            EXPECT_EQ(var.at(r, j), want) << "VarMat[" << r << "][" << j << "]";
        }
}

TEST(LgmWeightsInPlace, TwoSeriesCallerMatricesHoldLastWrittenTimePoint) {
    const int n = kTime, last = kTime - 1;
    const std::vector<InPlaceCase> cases = {
        {0, 3, 0, last}, {5, 3, 0, 2}, {1, 3, last, 2}, {3, 3, 0, last},
        {0, 0, last, last},  // nothing before t* = 0: the filter's values stay
    };
    for (const InPlaceCase &c : cases) {
        SCOPED_TRACE("selection " + std::to_string(c.selection) + ", t* " + std::to_string(c.tstar));
        NoLeak guard;
        Args a = two_series_model(c.selection, marker(2, n, 1, c.tstar));
        const std::vector<double> sys0 = a[2].to_vector(), var0 = a[3].to_vector();
        Value w = zu::call("LgmWeights", a);
        ASSERT_EQ(w.type(), ZU_MATRIX);
        expect_in_place(a, sys0, var0, 2, 4, {{0, 0}, {3, 1}}, {{0, 2}, {2, 0}}, c);
    }
}

TEST(LgmWeightsInPlace, OneSeriesCallerMatricesHoldLastWrittenTimePoint) {
    const int n = kTime, last = kTime - 1;
    const std::vector<InPlaceCase> cases = {
        {0, 4, 0, last}, {5, 4, 0, 3}, {1, 4, last, 3}, {3, 4, 0, last},
        // t* = 0: the second filter writes nothing; the filtering weights
        // write time 0, the smoothing weights end their forward pass at n-1.
        {5, 0, 0, last}, {1, 0, last, last},
    };
    for (const InPlaceCase &c : cases) {
        SCOPED_TRACE("selection " + std::to_string(c.selection) + ", t* " + std::to_string(c.tstar));
        NoLeak guard;
        Args a = one_series_model(c.selection, marker(1, n, 0, c.tstar));
        const std::vector<double> sys0 = a[2].to_vector(), var0 = a[3].to_vector();
        Value w = zu::call("LgmWeights", a);
        ASSERT_EQ(w.type(), ZU_MATRIX);
        expect_in_place(a, sys0, var0, 2, 3, {{0, 1}, {2, 0}}, {{1, 1}}, c);
    }
}

TEST(LgmWeightsInPlace, FixedModelLeavesCallerMatricesAlone) {
    LocalLevel ll;
    for (int selection : {0, 5, 1, 3}) {
        NoLeak guard;
        Args a = ll.args(selection, marker(1, kTime, 0, 3));
        const std::vector<double> sys0 = a[2].to_vector(), var0 = a[3].to_vector();
        Value w = zu::call("LgmWeights", a);
        EXPECT_EQ(a[2].to_vector(), sys0);
        EXPECT_EQ(a[3].to_vector(), var0);
    }
}

// ------------------------------------------------------------- values

// Tolerance for the local level references: weights of order 0.1-1 from a
// well-conditioned 7 x 7 solve on each side; 1e-12 covers rounding.
constexpr double kTol = 1e-12;

void expect_weights(const Value &w, const std::vector<double> &want) {
    ASSERT_EQ(w.type(), ZU_MATRIX);
    ASSERT_EQ(w.rows(), 2);
    ASSERT_EQ(w.cols(), static_cast<int>(want.size()));
    for (std::size_t j = 0; j < want.size(); ++j) {
        EXPECT_NEAR(w.at(0, static_cast<int>(j)), want[j], kTol) << "state, column " << j;
        // Signal: Z = 1.
        EXPECT_NEAR(w.at(1, static_cast<int>(j)), want[j], kTol) << "signal, column " << j;
    }
}

TEST(LgmWeightsValues, OneSeriesAtFirstTimePointForEachSelection) {
    LocalLevel ll;
    const int n = kTime;
    std::vector<int> all = times_before(n);
    {
        NoLeak guard;
        Args a = ll.args(0, marker(1, n, 0, 0));
        Value w = zu::call("LgmWeights", a);
        ASSERT_EQ(w.type(), ZU_MATRIX);
        EXPECT_EQ(w.rows(), 2);
        EXPECT_EQ(w.cols(), n);
        EXPECT_TRUE(all_zero(w)) << "a(0) depends on no observation";
    }
    {
        NoLeak guard;
        Args a = ll.args(5, marker(1, n, 0, 0));
        Value w = zu::call("LgmWeights", a);
        // Only y(0) counts: p0 / (p0 + h).
        std::vector<double> want(n, 0.0);
        want[0] = ll.p0 / (ll.p0 + ll.h);
        expect_weights(w, want);
    }
    {
        NoLeak guard;
        Args a = ll.args(1, marker(1, n, 0, 0));
        Value w = zu::call("LgmWeights", a);
        expect_weights(w, ll.weights(n, 0, all));
    }
}

TEST(LgmWeightsValues, OneSeriesInteriorTargetWithMissingObservation) {
    // Times 2 and 5 missing (-1 after the target, NaN before it).
    LocalLevel ll;
    const int n = kTime, tstar = 3;
    std::vector<double> mk(n, 0.0);
    mk[2] = kNaN;
    mk[tstar] = 1.0;
    mk[5] = -1.0;
    const std::vector<int> before = {0, 1}, upto = {0, 1, 3}, all = {0, 1, 3, 4, 6};
    const std::pair<int, std::vector<int>> cases[] = {{0, before}, {5, upto}, {1, all}};
    for (const auto &c : cases) {
        SCOPED_TRACE("selection " + std::to_string(c.first));
        NoLeak guard;
        Args a = ll.args(c.first, mat(1, n, mk));
        Value w = zu::call("LgmWeights", a);
        expect_weights(w, ll.weights(n, tstar, c.second));
    }
}

TEST(LgmWeightsValues, AllZeroMarkerTargetsLastSeriesAtLastTime) {
    // Two series: the result equals that of the explicit target (1, n-1).
    for (int selection : {0, 5, 1}) {
        SCOPED_TRACE("selection " + std::to_string(selection));
        NoLeak guard;
        Args implicit = two_series_model(selection, marker(2, kTime, -1, 0));
        Args explicit_target = two_series_model(selection, marker(2, kTime, 1, kTime - 1));
        Args other = two_series_model(selection, marker(2, kTime, 0, kTime - 1));
        Value w = zu::call("LgmWeights", implicit);
        Value want = zu::call("LgmWeights", explicit_target);
        Value series0 = zu::call("LgmWeights", other);
        EXPECT_EQ(w.to_vector(), want.to_vector());
        EXPECT_NE(w.to_vector(), series0.to_vector()) << "the target series matters";
        EXPECT_FALSE(all_zero(w));
    }
    // One series, against the local level reference.
    LocalLevel ll;
    NoLeak guard;
    Args a = ll.args(0, marker(1, kTime, -1, 0));
    Value w = zu::call("LgmWeights", a);
    expect_weights(w, ll.weights(kTime, kTime - 1, times_before(kTime - 1)));
}

TEST(LgmWeightsValues, SelectionThreeReturnsZeros) {
    for (int N : {1, 2}) {
        NoLeak guard;
        Args a = N == 1 ? one_series_model(3, marker(1, kTime, 0, 4))
                        : two_series_model(3, marker(2, kTime, 1, 4));
        Value w = zu::call("LgmWeights", a);
        ASSERT_EQ(w.type(), ZU_MATRIX);
        EXPECT_EQ(w.rows(), 2 + N);
        EXPECT_EQ(w.cols(), kTime);
        EXPECT_TRUE(all_zero(w));
    }
}

TEST(LgmWeightsValues, TwoSeriesPredictedAtFirstTimePointIsZero) {
    NoLeak guard;
    Args a = two_series_model(0, marker(2, kTime, 1, 0));
    Value w = zu::call("LgmWeights", a);
    ASSERT_EQ(w.type(), ZU_MATRIX);
    EXPECT_EQ(w.rows(), 4);
    EXPECT_TRUE(all_zero(w));
}

// ---------------------------------------------------------- failures

TEST(LgmWeightsFailures, TwoSeriesFilteredOrSmoothedAtFirstTimePoint) {
    for (int selection : {5, 1}) {
        const testutil::CallError e = failing_call(two_series_model(selection, marker(2, kTime, 0, 0)));
        EXPECT_EQ(e.number, zu::kErrorMessage);
        EXPECT_EQ(e.text, kUnknownError);
    }
}

TEST(LgmWeightsFailures, FilterFailureIsAnErrorWhateverTheMessageSwitch) {
    // Every observation missing: cnt = -d < 1. Messages off changes nothing:
    // the report is a run-time error.
    testutil::MessagesOff off;
    testutil::MessageCapture capture;
    LocalLevel ll;
    std::vector<double> mk(kTime, kNaN);
    const testutil::CallError e = failing_call(ll.args(0, mat(1, kTime, mk)));
    EXPECT_EQ(e.number, zu::kErrorMessage);
    EXPECT_EQ(e.text, kUnknownError);
    EXPECT_TRUE(capture.messages.empty());
}

TEST(LgmWeightsFailures, NoTimePoints) {
    // A marker with no columns: the filter sees no observation (cnt < 1).
    LocalLevel ll;
    for (int selection : {0, 5, 1, 3}) {
        const testutil::CallError e = failing_call(ll.args(selection, mat(1, 0, {})));
        EXPECT_EQ(e.number, zu::kErrorMessage);
        EXPECT_EQ(e.text, kUnknownError);
    }
}

TEST(LgmWeightsFailures, InvalidSelection) {
    LocalLevel ll;
    for (int selection : {-1, 2, 4, 6}) {
        const testutil::CallError e = failing_call(ll.args(selection, marker(1, kTime, 0, 3)));
        EXPECT_EQ(e.number, zu::kErrorMessage);
        EXPECT_EQ(e.text, "LgmWeights(): no valid selection in first argument");
    }
    // The selection must be an integer; a matrix is a type error.
    Args a = ll.args(0, marker(1, kTime, 0, 3));
    a[0] = mat(1, 2, {0.0, 1.0});
    EXPECT_EQ(failing_call(std::move(a)).number, zu::kErrorType);
}

TEST(LgmWeightsFailures, TvDataTooSmallIsAnOpeningFailure) {
    // The weights group opens without a message: index entry 2 needs three
    // TvData rows; with two the opening fails and host error 4 follows.
    Args a = one_series_model(0, marker(1, kTime, 0, 3));
    a[9] = tvdata(2, kTime);
    testutil::MessageCapture capture;
    const testutil::CallError e = failing_call(std::move(a));
    EXPECT_EQ(e.number, zu::kErrorMemory);
    EXPECT_TRUE(capture.messages.empty());
}

// ------------------------------------------------------------- sweep

// Every allocation of the call failed in turn: the report is host error 4,
// or, when the failed allocation is the filter's own (the row-pointer view
// of F in the multivariate filter), the filter fails and the call reports
// "unknown error". Nothing stays allocated (asserted by the sweep).
struct SweepCounts {
    long memory = 0, unknown = 0;
};

SweepCounts sweep(const std::function<Args()> &make) {
    SweepCounts n;
    testutil::allocation_sweep("LgmWeights", make, [&](const testutil::SweepStep &s) {
        ASSERT_TRUE(s.threw) << "allocation " << s.k << " failed silently";
        if (s.error_number == zu::kErrorMemory) {
            ++n.memory;
        } else {
            EXPECT_EQ(s.error_number, zu::kErrorMessage) << "allocation " << s.k;
            EXPECT_EQ(s.error_text, kUnknownError) << "allocation " << s.k;
            ++n.unknown;
        }
        EXPECT_TRUE(s.result.is_none());
    });
    return n;
}

TEST(LgmWeightsSweep, EverySelectionBothModels) {
    // The entry point's own allocations: the return value, two index
    // tables, W1, W2, the store, then (selections other than 0) W3 and the
    // smoother output, and for two series the marker copy. The
    // multivariate filter adds its F view (once, or twice with the second
    // filter of selections 1 and 5); the single-series filter allocates
    // nothing.
    for (int selection : {0, 5, 1, 3}) {
        SCOPED_TRACE("selection " + std::to_string(selection));
        const long extra = selection == 0 ? 0 : 2;
        const SweepCounts one = sweep([&] { return one_series_model(selection, marker(1, kTime, 0, 3)); });
        EXPECT_GE(one.memory, 6 + extra);
        EXPECT_EQ(one.unknown, 0);
        const SweepCounts two = sweep([&] { return two_series_model(selection, marker(2, kTime, 1, 3)); });
        EXPECT_GE(two.memory, 7 + extra);
        EXPECT_EQ(two.unknown, selection == 1 || selection == 5 ? 2 : 1);
    }
}

}  // namespace
