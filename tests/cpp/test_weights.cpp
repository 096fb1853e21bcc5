// test_weights.cpp - LgmWeights called by name: what only a C++ caller can
// see (the time-varying values left in the caller's own SysMat and VarMat),
// the failure reports, and the allocation-failure sweep.
//
// The weights themselves (against the joint-Gaussian oracle, with missing
// data, time-varying systems, the target search and the zero results) are
// tested from Python (tests/python/test_weights.py).
#include <gtest/gtest.h>

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
    a.push_back(mat(4, 4,
                    {1.0, 0.1, 0.0, 0.0,  //
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
// Var(eta) = 0.4, Var(eps) = 1.3 and alpha(0) ~ N(0.5, 2).
Args local_level(int selection, Value mk) {
    return {Value::integer(selection), std::move(mk), mat(2, 1, {1.0, 1.0}),
            mat(2, 2, {0.4, 0.0, 0.0, 1.3}), mat(2, 1, {2.0, 0.5})};
}

// Calls by name and returns the error (or none) with the leak check.
testutil::CallError failing_call(Args args) {
    NoLeak guard;
    return testutil::call_error("LgmWeights", args);
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

TEST(LgmWeightsInPlace, CallerMatricesHoldLastWrittenTimePoint) {
    const int n = kTime, last = kTime - 1;
    struct Model {
        int N;
        std::vector<InPlaceCase> cases;
        std::vector<std::pair<int, int>> sysmarked, varmarked;
    };
    const Model models[] = {
        {2,
         {{0, 3, 0, last},
          {5, 3, 0, 2},
          {1, 3, last, 2},
          {3, 3, 0, last},
          {0, 0, last, last}},  // nothing before t* = 0: the filter's values stay
         {{0, 0}, {3, 1}},
         {{0, 2}, {2, 0}}},
        // t* = 0 with one series: the second filter writes nothing; the
        // filtering weights write time 0, the smoothing weights end their
        // forward pass at n-1.
        {1,
         {{0, 4, 0, last},
          {5, 4, 0, 3},
          {1, 4, last, 3},
          {3, 4, 0, last},
          {5, 0, 0, last},
          {1, 0, last, last}},
         {{0, 1}, {2, 0}},
         {{1, 1}}},
    };
    for (const Model &md : models)
        for (const InPlaceCase &c : md.cases) {
            SCOPED_TRACE("N " + std::to_string(md.N) + ", selection " +
                         std::to_string(c.selection) + ", t* " + std::to_string(c.tstar));
            NoLeak guard;
            Args a = md.N == 2 ? two_series_model(c.selection, marker(2, n, 1, c.tstar))
                               : one_series_model(c.selection, marker(1, n, 0, c.tstar));
            // Expected: the values passed, with each marked element replaced
            // by its TvData row (SysIdx rows in order, VarIdx row 2) at the
            // time the pass that wrote it last ended.
            std::vector<double> sys = a[2].to_vector(), var = a[3].to_vector();
            const int mN = 2 + md.N;
            for (std::size_t k = 0; k < md.sysmarked.size(); ++k)
                sys[md.sysmarked[k].first * 2 + md.sysmarked[k].second] =
                    tv_value(static_cast<int>(k), c.sys_time);
            for (const auto &rc : md.varmarked)
                var[rc.first * mN + rc.second] = tv_value(2, c.var_time);
            ASSERT_EQ(zu::call("LgmWeights", a).type(), ZU_MATRIX);
            EXPECT_EQ(a[2].to_vector(), sys);
            EXPECT_EQ(a[3].to_vector(), var);
        }
}

TEST(LgmWeightsInPlace, FixedModelLeavesCallerMatricesAlone) {
    for (int selection : {0, 5, 1, 3}) {
        NoLeak guard;
        Args a = local_level(selection, marker(1, kTime, 0, 3));
        const std::vector<double> sys0 = a[2].to_vector(), var0 = a[3].to_vector();
        Value w = zu::call("LgmWeights", a);
        EXPECT_EQ(a[2].to_vector(), sys0);
        EXPECT_EQ(a[3].to_vector(), var0);
    }
}

// ---------------------------------------------------------- failures

// "unknown error" for: two series filtered or smoothed at the first time
// point; a filter failure (every observation missing, cnt = -d < 1), which
// is a run-time error whatever the message switch says; a marker with no
// columns (the filter sees no observation). Selections other than 0, 5, 1,
// 3 have their own text; a matrix selection is a type error.
TEST(LgmWeightsFailures, Reports) {
    std::vector<Args> unknown;
    for (int selection : {5, 1})
        unknown.push_back(two_series_model(selection, marker(2, kTime, 0, 0)));
    unknown.push_back(local_level(0, mat(1, kTime, std::vector<double>(kTime, kNaN))));
    for (int selection : {0, 5, 1, 3}) unknown.push_back(local_level(selection, mat(1, 0, {})));
    for (std::size_t k = 0; k < unknown.size(); ++k) {
        SCOPED_TRACE("case " + std::to_string(k));
        testutil::MessagesOff off;
        testutil::MessageCapture capture;
        const testutil::CallError e = failing_call(unknown[k]);
        EXPECT_EQ(e.number, zu::kErrorMessage);
        EXPECT_EQ(e.text, kUnknownError);
        EXPECT_TRUE(capture.messages.empty());
    }
    for (int selection : {-1, 2, 4, 6}) {
        const testutil::CallError e = failing_call(local_level(selection, marker(1, kTime, 0, 3)));
        EXPECT_EQ(e.number, zu::kErrorMessage);
        EXPECT_EQ(e.text, "LgmWeights(): no valid selection in first argument");
    }
    Args a = local_level(0, marker(1, kTime, 0, 3));
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
        const SweepCounts one =
            sweep([&] { return one_series_model(selection, marker(1, kTime, 0, 3)); });
        EXPECT_GE(one.memory, 6 + extra);
        EXPECT_EQ(one.unknown, 0);
        const SweepCounts two =
            sweep([&] { return two_series_model(selection, marker(2, kTime, 1, 3)); });
        EXPECT_GE(two.memory, 7 + extra);
        EXPECT_EQ(two.unknown, selection == 1 || selection == 5 ? 2 : 1);
    }
}

}  // namespace
