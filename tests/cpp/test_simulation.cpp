// test_simulation.cpp - the simulation smoother entry points SimSmoWgt and
// SimSmoDraw and the conditional density LgmCondDens, called by name:
// determinism given the draws, the layout of weights and draws, a closed
// form for one time point, every documented failure report, and the leak
// check and allocation-failure sweep of the three entry points.
//
// Agreement in value and in distribution with the joint-Gaussian oracle is
// tested from Python (tests/python/test_simulation.py).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "test_util.h"

namespace {

using testutil::Args;
using testutil::call_error;
using testutil::kNaN;
using testutil::mat;
using testutil::MessageCapture;
using testutil::MessagesOff;
using testutil::NoLeak;
using zu::Value;

// A model block as host values, with an optional time-varying part.
struct Model {
    int m = 0, N = 0;
    std::vector<double> sys, var, init, mean;
    bool time_varying = false;
    std::vector<double> sysidx, varidx, meanidx, tvdata;
    int tvrows = 0;
    int p() const { return m + N; }
};

// Local linear trend observed once per time point, proper initial state.
Model trend_model() {
    Model md;
    md.m = 2;
    md.N = 1;
    md.sys = {1, 1, 0, 1, 1, 0};
    md.var = {0.4, 0, 0, 0, 0.05, 0, 0, 0, 1.0};
    md.init = {1.5, 0.2, 0.2, 0.5, 0.3, 0.1};
    md.mean = {0, 0, 0};
    return md;
}

// Random walk and AR(1) observed by two series with correlated noise.
Model two_series_model() {
    Model md;
    md.m = 2;
    md.N = 2;
    md.sys = {1, 0, 0, 0.6, 1, 1, 1, -0.5};
    md.var = {0.2, 0, 0, 0, 0, 0.5, 0, 0, 0, 0, 1.0, 0.3, 0, 0, 0.3, 0.8};
    md.init = {4.0, 0, 0, 0.78125, 0.5, 0};
    md.mean = {0.1, 0, 0.3, -0.2};
    return md;
}

// Marks T[0][1] (TvData row 0), the first observation variance (row 1) and
// the first observation intercept (row 2) as time-varying.
void add_time_varying(Model &md, int n) {
    const int p = md.p();
    md.time_varying = true;
    md.sysidx.assign(p * md.m, -1);
    md.varidx.assign(p * p, -1);
    md.meanidx.assign(p, -1);
    md.sysidx[0 * md.m + 1] = 0;
    md.varidx[md.m * p + md.m] = 1;
    md.meanidx[md.m] = 2;
    md.tvrows = 3;
    md.tvdata.resize(3 * n);
    for (int t = 0; t < n; ++t) {
        md.tvdata[t] = 0.5 + 0.05 * t;
        md.tvdata[n + t] = 0.8 + 0.1 * (t % 3);
        md.tvdata[2 * n + t] = 0.2 * std::sin(t);
    }
}

void push_model(Args &a, const Model &md) {
    const int p = md.p();
    a.push_back(mat(p, md.m, md.sys));
    a.push_back(mat(p, p, md.var));
    a.push_back(mat(md.m + 1, md.m, md.init));
    a.push_back(mat(p, 1, md.mean));
    if (md.time_varying) {
        const int n = static_cast<int>(md.tvdata.size()) / md.tvrows;
        a.push_back(mat(p, md.m, md.sysidx));
        a.push_back(mat(p, p, md.varidx));
        a.push_back(mat(p, 1, md.meanidx));
        a.push_back(mat(md.tvrows, n, md.tvdata));
    }
}

// Observations: a smooth path with a little structure; element (i, t) of
// `missing` (given as i * n + t) is NaN.
std::vector<double> data(int N, int n, const std::vector<int> &missing = {}) {
    std::vector<double> y(N * n);
    for (int i = 0; i < N; ++i)
        for (int t = 0; t < n; ++t) y[i * n + t] = 0.3 * t + std::sin(1.7 * t + i) + 0.5 * i;
    for (int k : missing) y[k] = kNaN;
    return y;
}

Value filter_store(const Model &md, const std::vector<double> &y, int n) {
    Args a;
    a.push_back(mat(md.N, n, y));
    push_model(a, md);
    return zu::call("KalmanFil", a);
}

// p x p selection with diagonal `diag` and nonzero entries off the
// diagonal, which must be ignored.
Value selection(const std::vector<double> &diag) {
    const int p = static_cast<int>(diag.size());
    std::vector<double> s(p * p, 5.0);
    for (int i = 0; i < p; ++i) s[i * p + i] = diag[i];
    return mat(p, p, s);
}

Value weights(const Value &sel, const Value &store, const Model &md) {
    Args a;
    a.push_back(sel);
    a.push_back(store);
    push_model(a, md);
    return zu::call("SimSmoWgt", a);
}

Value draw(const Value &sel, const Value &z, const Value &wgt, const Value &store,
           const Model &md) {
    Args a;
    a.push_back(sel);
    a.push_back(z);
    a.push_back(wgt);
    a.push_back(store);
    push_model(a, md);
    return zu::call("SimSmoDraw", a);
}

Value cond_dens(int which, const Model &md, const std::vector<double> &y, int n) {
    Args a;
    a.push_back(Value::integer(which));
    a.push_back(mat(md.N, n, y));
    push_model(a, md);
    return zu::call("LgmCondDens", a);
}

// Deterministic stand-in for standard normal numbers.
Value pseudo_normals(int rows, int cols, double phase) {
    std::vector<double> z(rows * cols);
    for (int k = 0; k < rows * cols; ++k) z[k] = std::sin(12.9898 * k + phase) * 1.7;
    return mat(rows, cols, z);
}

bool bitwise_equal(const Value &a, const Value &b) {
    if (a.rows() != b.rows() || a.cols() != b.cols()) return false;
    const std::vector<double> x = a.to_vector(), y = b.to_vector();
    return std::memcmp(x.data(), y.data(), x.size() * sizeof(double)) == 0;
}

int weight_rows(int p, int q) { return q * p + q * (q + 1) / 2; }

// ------------------------------------------------------------ the draws

TEST(SimulationSmoother, SameDrawsSameResultAndUnselectedRowsExactlyZero) {
    struct Case {
        Model md;
        std::vector<double> diag;
        std::vector<int> missing;
    };
    const int n = 10;
    std::vector<Case> cases;
    cases.push_back({trend_model(), {1.0, 0.0, 1.0}, {}});
    cases.push_back({two_series_model(), {0.0, 2.0, 0.0, -1.0}, {0 * n + 3, 1 * n + 6}});
    Model tv = two_series_model();
    add_time_varying(tv, n);
    cases.push_back({tv, {1.0, 0.0, 0.0, 1.0}, {1 * n + 2}});

    for (const Case &c : cases) {
        SCOPED_TRACE("N = " + std::to_string(c.md.N) + (c.md.time_varying ? " time-varying" : ""));
        NoLeak no_leak;
        const int p = c.md.p(), q = 2;
        const std::vector<double> y = data(c.md.N, n, c.missing);
        const Value store = filter_store(c.md, y, n);
        const Value sel = selection(c.diag);
        const Value w1 = weights(sel, store, c.md);
        const Value w2 = weights(sel, store, c.md);
        ASSERT_EQ(w1.type(), ZU_MATRIX);
        EXPECT_EQ(w1.rows(), weight_rows(p, q));
        EXPECT_EQ(w1.cols(), n);
        EXPECT_TRUE(bitwise_equal(w1, w2));

        const Value z = pseudo_normals(q, n, 0.3);
        const Value d1 = draw(sel, z, w1, store, c.md);
        const Value d2 = draw(sel, z, w1, store, c.md);
        ASSERT_EQ(d1.rows(), p);
        ASSERT_EQ(d1.cols(), n + 1);
        EXPECT_TRUE(bitwise_equal(d1, d2));
        for (int i = 0; i < p; ++i)
            for (int t = 0; t <= n; ++t) {
                const double x = d1.at(i, t);
                if (t == 0 && i >= c.md.m) {
                    EXPECT_EQ(x, 0.0) << "column 0, row " << i;
                } else if (t > 0 && c.diag[i] == 0.0) {
                    EXPECT_EQ(x, 0.0) << "row " << i << " col " << t;
                } else if (t > 0) {
                    EXPECT_TRUE(std::isfinite(x)) << "row " << i << " col " << t;
                }
            }
        // Other draws give another result in the selected rows only.
        const Value d3 = draw(sel, pseudo_normals(q, n, 1.1), w1, store, c.md);
        EXPECT_FALSE(bitwise_equal(d1, d3));
    }
}

TEST(SimulationSmoother, NanOnTheDiagonalSelectsAndOffDiagonalIsIgnored) {
    const int n = 8;
    const Model md = two_series_model();
    const std::vector<double> y = data(2, n, {5});
    const Value store = filter_store(md, y, n);
    const Value w_one = weights(selection({1.0, 0.0, 0.0, 1.0}), store, md);
    const Value w_nan = weights(selection({kNaN, 0.0, 0.0, -4.0}), store, md);
    // No off-diagonal entries at all.
    std::vector<double> plain(16, 0.0);
    plain[0] = plain[15] = 1.0;
    const Value w_plain = weights(mat(4, 4, plain), store, md);
    EXPECT_TRUE(bitwise_equal(w_one, w_nan));
    EXPECT_TRUE(bitwise_equal(w_one, w_plain));
}

// One time point of a local level model with alpha(0) ~ N(a0, P0): the
// observation disturbance given y(0) has mean h v / F and variance
// h - h^2 / F, with v = y(0) - a0 and F = P0 + h; the state disturbance is
// independent of y(0) (mean 0, variance s).
TEST(SimulationSmoother, OneTimePointClosedForm) {
    const double s = 0.7, h = 1.3, P0 = 2.0, a0 = 0.4, y0 = 1.9;
    Model md;
    md.m = 1;
    md.N = 1;
    md.sys = {1, 1};
    md.var = {s, 0, 0, h};
    md.init = {P0, a0};
    md.mean = {0, 0};
    const Value store = filter_store(md, {y0}, 1);
    const Value sel = selection({1.0, 1.0});
    const Value w = weights(sel, store, md);
    ASSERT_EQ(w.type(), ZU_MATRIX);
    ASSERT_EQ(w.rows(), weight_rows(2, 2));
    const double F = P0 + h, v = y0 - a0;
    const double g = h - h * h / F;  // conditional variance of the noise
    // Block of the state disturbance: weights (0, 0) (it does not load on
    // U), then its factor column (sqrt(s), 0) since G is diagonal.
    const double tol = 1e-14;
    EXPECT_NEAR(w.at(0, 0), 0.0, tol);
    EXPECT_NEAR(w.at(1, 0), 0.0, tol);
    EXPECT_NEAR(w.at(2, 0), std::sqrt(s), tol);
    EXPECT_NEAR(w.at(3, 0), 0.0, tol);
    // Block of the observation disturbance: weights (0, (h / F) / sqrt(g)),
    // then its factor sqrt(g).
    EXPECT_NEAR(w.at(4, 0), 0.0, tol);
    EXPECT_NEAR(w.at(5, 0), h / F / std::sqrt(g), tol);
    EXPECT_NEAR(w.at(6, 0), std::sqrt(g), tol);

    const double z0 = 0.8, z1 = -1.4;
    const Value d = draw(sel, mat(2, 1, {z0, z1}), w, store, md);
    EXPECT_NEAR(d.at(0, 1), std::sqrt(s) * z0, tol);
    EXPECT_NEAR(d.at(1, 1), h * v / F + std::sqrt(g) * z1, tol);
    // r before the first time point: Z' u = v / F - (h / F) z1 / sqrt(g).
    EXPECT_NEAR(d.at(0, 0), v / F - h / F * z1 / std::sqrt(g), tol);
    EXPECT_EQ(d.at(1, 0), 0.0);
}

TEST(SimulationSmoother, EveryElementSelected) {
    // With two time points the conditional variance of all three
    // disturbances stays positive definite (see the Python tests).
    const int n = 2, p = 3;
    const Model md = trend_model();
    const Value store = filter_store(md, data(1, n), n);
    const Value sel = selection({1.0, 1.0, 1.0});
    NoLeak no_leak;
    const Value w = weights(sel, store, md);
    ASSERT_EQ(w.type(), ZU_MATRIX);
    EXPECT_EQ(w.rows(), p * p + p * (p + 1) / 2);
    const Value d = draw(sel, pseudo_normals(p, n, 0.0), w, store, md);
    ASSERT_EQ(d.rows(), p);
    for (int i = 0; i < p; ++i)
        for (int t = 1; t <= n; ++t) EXPECT_TRUE(std::isfinite(d.at(i, t)));
}

TEST(SimulationSmoother, WholeTimePointMissingGivesNanBackwards) {
    const int n = 8;
    const Model md = two_series_model();
    // Both series missing at t = 4: NaN innovations in the store.
    const std::vector<double> y = data(2, n, {0 * n + 4, 1 * n + 4});
    const Value store = filter_store(md, y, n);
    const Value sel = selection({1.0, 1.0, 0.0, 0.0});
    const Value w = weights(sel, store, md);
    const Value d = draw(sel, pseudo_normals(2, n, 0.5), w, store, md);
    // Column t + 1 holds time t, column 0 the r left after time 0: NaN from
    // t = 4 back to the start, finite after it; unselected rows stay 0.
    for (int i = 0; i < 2; ++i) {
        for (int col = 0; col <= 5; ++col) EXPECT_TRUE(std::isnan(d.at(i, col))) << i << "," << col;
        for (int col = 6; col <= n; ++col)
            EXPECT_TRUE(std::isfinite(d.at(i, col))) << i << "," << col;
    }
    for (int col = 0; col <= n; ++col) {
        EXPECT_EQ(d.at(2, col), 0.0);
        EXPECT_EQ(d.at(3, col), 0.0);
    }
}

TEST(SimulationSmoother, WeightsWriteTimeVaryingValuesIntoTheCallersMatrices) {
    const int n = 6;
    Model md = trend_model();
    add_time_varying(md, n);
    const Value store = filter_store(md, data(1, n), n);
    Args a;
    a.push_back(selection({1.0, 1.0, 0.0}));
    a.push_back(store);
    push_model(a, md);
    zu::call("SimSmoWgt", a);
    // The backward pass ends at t = 0: SysMat holds T[0][1] of time 0 and
    // VarMat the observation variance of time 0.
    EXPECT_EQ(a[2].at(0, 1), md.tvdata[0]);
    EXPECT_EQ(a[3].at(2, 2), md.tvdata[n]);

    // LgmCondDens works on copies and leaves the caller's matrices alone.
    Args b;
    b.push_back(Value::integer(1));
    b.push_back(mat(1, n, data(1, n)));
    push_model(b, md);
    zu::call("LgmCondDens", b);
    EXPECT_EQ(b[2].at(0, 1), 1.0);
    EXPECT_EQ(b[3].at(2, 2), 1.0);
}

// -------------------------------------------------------------- reports

TEST(SimulationSmoother, EmptySelectionIsAnError) {
    const int n = 5;
    const Model md = trend_model();
    const Value store = filter_store(md, data(1, n), n);
    NoLeak no_leak;
    const Value empty = selection({0.0, 0.0, 0.0});  // off-diagonal entries do not count
    Args a;
    a.push_back(empty);
    a.push_back(store);
    push_model(a, md);
    testutil::CallError e = call_error("SimSmoWgt", a);
    EXPECT_EQ(e.number, zu::kErrorMessage);
    EXPECT_EQ(e.text, "SimSmoWgt(): zero vector in argument 1");

    Args b;
    b.push_back(empty);
    b.push_back(mat(1, n, std::vector<double>(n, 0.0)));
    b.push_back(mat(4, n, std::vector<double>(4 * n, 0.0)));
    b.push_back(store);
    push_model(b, md);
    e = call_error("SimSmoDraw", b);
    EXPECT_EQ(e.number, zu::kErrorMessage);
    EXPECT_EQ(e.text, "SimSmoWgt(): zero vector in argument 1");
}

TEST(SimulationSmoother, DrawShapesAreChecked) {
    const int n = 5;
    const Model md = trend_model();
    const Value store = filter_store(md, data(1, n), n);
    const Value sel = selection({1.0, 0.0, 1.0});
    const Value w = weights(sel, store, md);
    NoLeak no_leak;
    // Draws must be q x n (q = 2), weights (q p + q (q + 1) / 2) x n.
    Args a;
    a.push_back(sel);
    a.push_back(mat(3, n, std::vector<double>(3 * n, 0.0)));
    a.push_back(w);
    a.push_back(store);
    push_model(a, md);
    EXPECT_EQ(call_error("SimSmoDraw", a).number, zu::kErrorSize);
    Args b;
    b.push_back(sel);
    b.push_back(mat(2, n, std::vector<double>(2 * n, 0.0)));
    b.push_back(mat(8, n, std::vector<double>(8 * n, 0.0)));
    b.push_back(store);
    push_model(b, md);
    EXPECT_EQ(call_error("SimSmoDraw", b).number, zu::kErrorSize);
}

TEST(SimulationSmoother, FactorisationFailureIsAMessageAndTheIntegerZero) {
    // A selected disturbance with zero variance has G(t) = 0.
    const int n = 5;
    Model md = trend_model();
    md.var[1 * 3 + 1] = 0.0;
    const Value store = filter_store(md, data(1, n), n);
    const Value sel = selection({1.0, 1.0, 0.0});
    for (bool quiet : {false, true}) {
        SCOPED_TRACE(quiet ? "messages off" : "messages on");
        NoLeak no_leak;
        MessageCapture capture;
        Value w;
        if (quiet) {
            MessagesOff off;
            w = weights(sel, store, md);
        } else {
            w = weights(sel, store, md);
        }
        ASSERT_EQ(w.type(), ZU_INT);
        EXPECT_EQ(w.as_int(), 0);
        // The report is a plain message, printed whatever the switch says.
        ASSERT_EQ(capture.messages.size(), 1u);
        EXPECT_EQ(capture.messages[0], "SimSmoWgt(): choleski decomposition failed");
    }
}

// ----------------------------------------------------- conditional density

TEST(ConditionalDensity, SelectionMustBeOneToFour) {
    const int n = 5;
    const Model md = trend_model();
    NoLeak no_leak;
    for (int which : {0, 5, -1}) {
        Args a;
        a.push_back(Value::integer(which));
        a.push_back(mat(1, n, data(1, n)));
        push_model(a, md);
        const testutil::CallError e = call_error("LgmCondDens", a);
        EXPECT_EQ(e.number, zu::kErrorMessage) << which;
        EXPECT_EQ(e.text, "LgmCondDens(): no valid selection in first argument") << which;
    }
}

TEST(ConditionalDensity, NoStateVarianceMeansNoSimulation) {
    const int n = 6;
    Model md = trend_model();
    // Zero, negative and NaN state variances select nothing to draw.
    md.var[0] = 0.0;
    md.var[4] = -0.1;
    for (double v4 : {-0.1, kNaN}) {
        md.var[4] = v4;
        NoLeak no_leak;
        for (int which : {2, 4}) {
            Args a;
            a.push_back(Value::integer(which));
            a.push_back(mat(1, n, data(1, n)));
            push_model(a, md);
            const testutil::CallError e = call_error("LgmCondDens", a);
            EXPECT_EQ(e.number, zu::kErrorMessage) << which;
            EXPECT_EQ(e.text, "LgmCondDens(): no simulations possible") << which;
        }
    }
    // Smoothing still works for such a model.
    md.var[4] = 0.0;
    NoLeak no_leak;
    for (int which : {1, 3}) {
        const Value r = cond_dens(which, md, data(1, n), n);
        ASSERT_EQ(r.type(), ZU_MATRIX) << which;
        EXPECT_EQ(r.rows(), 3);
        EXPECT_EQ(r.cols(), n);
    }
}

TEST(ConditionalDensity, FailuresAreReportedAsNonPositiveSemiDefinite) {
    const std::string text = "LgmCondDens(): non-positive semi-definite innovation variance matrix";
    const int n = 6;
    // (a) Both state disturbances have positive variance but are perfectly
    // correlated: G(t) is singular and cannot be factorised.
    Model rank_one = two_series_model();
    rank_one.var[0] = rank_one.var[1] = rank_one.var[4] = rank_one.var[5] = 1.0;
    // (b) The filter fails: fully diffuse start with too few observations.
    Model diffuse = trend_model();
    diffuse.init = {-1, 0, 0, -1, 0, 0};
    std::vector<double> y_short = data(1, n, {0, 1, 2, 3, 4});
    struct Case {
        const Model *md;
        std::vector<double> y;
        std::vector<int> selections;
    };
    const std::vector<Case> cases = {{&rank_one, data(2, n), {2, 4}},
                                     {&diffuse, y_short, {1, 2, 3, 4}}};
    for (const Case &c : cases)
        for (int which : c.selections) {
            for (bool quiet : {false, true}) {
                SCOPED_TRACE("selection " + std::to_string(which) + (quiet ? " quiet" : ""));
                NoLeak no_leak;
                MessageCapture capture;
                Value r;
                if (quiet) {
                    MessagesOff off;
                    r = cond_dens(which, *c.md, c.y, n);
                } else {
                    r = cond_dens(which, *c.md, c.y, n);
                }
                EXPECT_TRUE(r.is_none());
                if (quiet) {
                    EXPECT_TRUE(capture.messages.empty());
                } else {
                    ASSERT_EQ(capture.messages.size(), 1u);
                    EXPECT_EQ(capture.messages[0], text);
                }
            }
        }
}

TEST(ConditionalDensity, ResultShapesAndMissingObservations) {
    const int n = 7;
    const Model md = two_series_model();
    const std::vector<double> y = data(2, n, {0 * n + 2, 1 * n + 5});
    NoLeak no_leak;
    for (int which = 1; which <= 4; ++which) {
        SCOPED_TRACE(which);
        const Value r = cond_dens(which, md, y, n);
        ASSERT_EQ(r.type(), ZU_MATRIX);
        ASSERT_EQ(r.rows(), 4);
        ASSERT_EQ(r.cols(), n);
        for (int i = 0; i < 4; ++i)
            for (int t = 0; t < n; ++t) {
                const bool missing_obs = which == 4 && i >= 2 && std::isnan(y[(i - 2) * n + t]);
                EXPECT_EQ(std::isnan(r.at(i, t)), missing_obs) << i << "," << t;
            }
    }
}

// ------------------------------------------------ leaks and allocations

struct SweepCase {
    std::string name;
    std::function<Args()> make_args;
    bool filter_failure_possible;  // an allocation inside the filter
    int rows;                      // of the result
};

class SimulationSweep : public ::testing::TestWithParam<int> {};

TEST_P(SimulationSweep, EveryAllocationFailureIsReportedAndNothingLeaks) {
    const int N = GetParam(), n = 6;
    Model md = N == 1 ? trend_model() : two_series_model();
    add_time_varying(md, n);
    const std::vector<double> y = data(N, n, {N * n - 1});
    const int p = md.p();
    const std::vector<double> diag = N == 1 ? std::vector<double>{1, 0, 1}
                                            : std::vector<double>{1, 0, 0, 1};
    const int q = 2;
    Value store = filter_store(md, y, n);
    Value sel = selection(diag);
    Value w = weights(sel, store, md);
    ASSERT_EQ(w.type(), ZU_MATRIX);
    Value z = pseudo_normals(q, n, 0.2);

    std::vector<SweepCase> cases;
    cases.push_back({"SimSmoWgt",
                     [&]() {
                         Args a;
                         a.push_back(sel);
                         a.push_back(store);
                         push_model(a, md);
                         return a;
                     },
                     false, weight_rows(p, q)});
    cases.push_back({"SimSmoDraw",
                     [&]() {
                         Args a;
                         a.push_back(sel);
                         a.push_back(z);
                         a.push_back(w);
                         a.push_back(store);
                         push_model(a, md);
                         return a;
                     },
                     false, p});
    for (int which = 1; which <= 4; ++which)
        cases.push_back({"LgmCondDens",
                         [&, which]() {
                             Args a;
                             a.push_back(Value::integer(which));
                             a.push_back(mat(N, n, y));
                             push_model(a, md);
                             return a;
                         },
                         N > 1, p});

    for (const SweepCase &c : cases) {
        SCOPED_TRACE(c.name);
        {
            // The normal path leaves nothing behind either.
            NoLeak no_leak;
            Args a = c.make_args();
            Value r = zu::call(c.name, a);
            EXPECT_EQ(r.type(), ZU_MATRIX);
            EXPECT_EQ(r.rows(), c.rows);
        }
        const long sites = testutil::allocation_sweep(
            c.name, c.make_args, [&](const testutil::SweepStep &s) {
                if (s.threw) {
                    EXPECT_EQ(s.error_number, zu::kErrorMemory) << "step " << s.k;
                } else {
                    // Only the multivariate filter allocates inside itself;
                    // its failure is reported as a filter failure.
                    ASSERT_TRUE(c.filter_failure_possible) << "step " << s.k;
                    ASSERT_EQ(s.messages.size(), 1u) << "step " << s.k;
                    EXPECT_EQ(s.messages[0],
                              "LgmCondDens(): non-positive semi-definite innovation variance matrix");
                    EXPECT_TRUE(s.result.is_none());
                }
            });
        // Result, tables of the time-varying block and the work storage.
        EXPECT_GE(sites, 5);
    }
}

INSTANTIATE_TEST_SUITE_P(SingleAndMulti, SimulationSweep, ::testing::Values(1, 2));

}  // namespace
