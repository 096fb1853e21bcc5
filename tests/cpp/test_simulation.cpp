// test_simulation.cpp - the simulation smoother entry points SimSmoWgt and
// SimSmoDraw and the conditional density LgmCondDens, called by name:
// determinism given the draws, the layout of weights and draws, a closed
// form for one time point, every documented failure report, and the leak
// check and allocation-failure sweep of the three entry points.
//
// Agreement in value and in distribution with the joint-Gaussian oracle,
// every element selected and a wholly missing time point are tested from
// Python (tests/python/test_simulation.py).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

using namespace testutil;

const char *const kCondDensPsd =
    "LgmCondDens(): non-positive semi-definite innovation variance matrix";

// Local linear trend observed once per time point, proper initial state.
LgmModel trend_model() {
    LgmModel md;
    md.m = 2;
    md.N = 1;
    md.sys = {1, 1, 0, 1, 1, 0};
    md.var = {0.4, 0, 0, 0, 0.05, 0, 0, 0, 1.0};
    md.init = {1.5, 0.2, 0.2, 0.5, 0.3, 0.1};
    md.mean = {0, 0, 0};
    return md;
}

// Random walk and AR(1) observed by two series with correlated noise.
LgmModel two_series_model() {
    LgmModel md;
    md.m = md.N = 2;
    md.sys = {1, 0, 0, 0.6, 1, 1, 1, -0.5};
    md.var = {0.2, 0, 0, 0, 0, 0.5, 0, 0, 0, 0, 1.0, 0.3, 0, 0, 0.3, 0.8};
    md.init = {4.0, 0, 0, 0.78125, 0.5, 0};
    md.mean = {0.1, 0, 0.3, -0.2};
    return md;
}

Value filter_store(const LgmModel &md, const std::vector<double> &y, int n) {
    return invoke("KalmanFil", with_model({mat(md.N, n, y)}, md));
}

// p x p selection with diagonal `diag` and nonzero entries off the
// diagonal, which must be ignored.
Value selection(const std::vector<double> &diag) {
    const int p = static_cast<int>(diag.size());
    std::vector<double> s(p * p, 5.0);
    for (int i = 0; i < p; ++i) s[i * p + i] = diag[i];
    return mat(p, p, s);
}

Value weights(const Value &sel, const Value &store, const LgmModel &md) {
    return invoke("SimSmoWgt", with_model({sel, store}, md));
}

Value draw(const Value &sel, const Value &z, const Value &wgt, const Value &store,
           const LgmModel &md) {
    return invoke("SimSmoDraw", with_model({sel, z, wgt, store}, md));
}

Value cond_dens(int which, const LgmModel &md, const std::vector<double> &y, int n) {
    return invoke("LgmCondDens", with_model({Value::integer(which), mat(md.N, n, y)}, md));
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
        LgmModel md;
        std::vector<double> diag;
        std::vector<int> missing;
    };
    const int n = 10;
    LgmModel tv = two_series_model();
    tv.add_time_varying(n);
    const Case cases[] = {{trend_model(), {1.0, 0.0, 1.0}, {}},
                          {two_series_model(), {0.0, 2.0, 0.0, -1.0}, {0 * n + 3, 1 * n + 6}},
                          {tv, {1.0, 0.0, 0.0, 1.0}, {1 * n + 2}}};
    for (const Case &c : cases) {
        SCOPED_TRACE("N = " + std::to_string(c.md.N) +
                     (c.md.time_varying() ? " time-varying" : ""));
        NoLeak no_leak;
        const int p = c.md.p(), q = 2;
        const Value store = filter_store(c.md, series(c.md.N, n, c.missing), n);
        const Value sel = selection(c.diag);
        const Value w1 = weights(sel, store, c.md), w2 = weights(sel, store, c.md);
        ASSERT_EQ(w1.type(), ZU_MATRIX);
        EXPECT_EQ(w1.rows(), weight_rows(p, q));
        EXPECT_EQ(w1.cols(), n);
        EXPECT_TRUE(bitwise_equal(w1, w2));

        const Value z = pseudo_normals(q, n, 0.3);
        const Value d1 = draw(sel, z, w1, store, c.md), d2 = draw(sel, z, w1, store, c.md);
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
        // Other draws give another result.
        EXPECT_FALSE(bitwise_equal(d1, draw(sel, pseudo_normals(q, n, 1.1), w1, store, c.md)));
    }
}

// NaN on the diagonal selects like 1, entries off the diagonal are ignored.
TEST(SimulationSmoother, NanOnTheDiagonalSelectsAndOffDiagonalIsIgnored) {
    const int n = 8;
    const LgmModel md = two_series_model();
    const Value store = filter_store(md, series(2, n, {5}), n);
    std::vector<double> plain(16, 0.0);
    plain[0] = plain[15] = 1.0;
    const Value w_one = weights(selection({1.0, 0.0, 0.0, 1.0}), store, md);
    EXPECT_TRUE(bitwise_equal(w_one, weights(selection({kNaN, 0.0, 0.0, -4.0}), store, md)));
    EXPECT_TRUE(bitwise_equal(w_one, weights(mat(4, 4, plain), store, md)));
}

// One time point of a local level model with alpha(0) ~ N(a0, P0): the
// observation disturbance given y(0) has mean h v / F and variance
// h - h^2 / F, with v = y(0) - a0 and F = P0 + h; the state disturbance is
// independent of y(0) (mean 0, variance s).
TEST(SimulationSmoother, OneTimePointClosedForm) {
    const double s = 0.7, h = 1.3, P0 = 2.0, a0 = 0.4, y0 = 1.9;
    LgmModel md;
    md.m = md.N = 1;
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
    // U), then its factor column (sqrt(s), 0) since G is diagonal. Block of
    // the observation disturbance: weights (0, (h / F) / sqrt(g)), then its
    // factor sqrt(g). A handful of operations on O(1) values: 1e-14.
    const double want[7] = {0, 0, std::sqrt(s), 0, 0, h / F / std::sqrt(g), std::sqrt(g)};
    const double tol = 1e-14;
    for (int r = 0; r < 7; ++r) EXPECT_NEAR(w.at(r, 0), want[r], tol) << "row " << r;

    const double z0 = 0.8, z1 = -1.4;
    const Value d = draw(sel, mat(2, 1, {z0, z1}), w, store, md);
    EXPECT_NEAR(d.at(0, 1), std::sqrt(s) * z0, tol);
    EXPECT_NEAR(d.at(1, 1), h * v / F + std::sqrt(g) * z1, tol);
    // r before the first time point: Z' u = v / F - (h / F) z1 / sqrt(g).
    EXPECT_NEAR(d.at(0, 0), v / F - h / F * z1 / std::sqrt(g), tol);
    EXPECT_EQ(d.at(1, 0), 0.0);
}

TEST(SimulationSmoother, WeightsWriteTimeVaryingValuesIntoTheCallersMatrices) {
    const int n = 6;
    LgmModel md = trend_model();
    md.add_time_varying(n);
    Args a = with_model({selection({1.0, 1.0, 0.0}), filter_store(md, series(1, n), n)}, md);
    zu::call("SimSmoWgt", a);
    // The backward pass ends at t = 0: SysMat holds T[0][1] of time 0 and
    // VarMat the observation variance of time 0.
    EXPECT_EQ(a[2].at(0, 1), md.tvdata[0]);
    EXPECT_EQ(a[3].at(2, 2), md.tvdata[n]);

    // LgmCondDens works on copies and leaves the caller's matrices alone.
    Args b = with_model({Value::integer(1), mat(1, n, series(1, n))}, md);
    zu::call("LgmCondDens", b);
    EXPECT_EQ(b[2].at(0, 1), 1.0);
    EXPECT_EQ(b[3].at(2, 2), 1.0);
}

// -------------------------------------------------------------- reports

// An empty selection (off-diagonal entries do not count) is an error of
// both entry points with SimSmoWgt's text; draws must be q x n (q = 2) and
// weights (q p + q (q + 1) / 2) x n.
TEST(SimulationSmoother, ArgumentReports) {
    const int n = 5;
    const LgmModel md = trend_model();
    const Value store = filter_store(md, series(1, n), n);
    const Value sel = selection({1.0, 0.0, 1.0}), w = weights(sel, store, md);
    NoLeak no_leak;
    const Value empty = selection({0.0, 0.0, 0.0});
    Args a = with_model({empty, store}, md);
    Args b = with_model({empty, mat(1, n, std::vector<double>(n, 0.0)),
                         mat(4, n, std::vector<double>(4 * n, 0.0)), store},
                        md);
    for (Args *args : {&a, &b}) {
        const CallError e = call_error(args == &a ? "SimSmoWgt" : "SimSmoDraw", *args);
        EXPECT_EQ(e.number, zu::kErrorMessage);
        EXPECT_EQ(e.text, "SimSmoWgt(): zero vector in argument 1");
    }
    Args draws3 = with_model({sel, mat(3, n, std::vector<double>(3 * n, 0.0)), w, store}, md);
    EXPECT_EQ(call_error("SimSmoDraw", draws3).number, zu::kErrorSize);
    Args wgt8 = with_model({sel, mat(2, n, std::vector<double>(2 * n, 0.0)),
                            mat(8, n, std::vector<double>(8 * n, 0.0)), store},
                           md);
    EXPECT_EQ(call_error("SimSmoDraw", wgt8).number, zu::kErrorSize);
}

TEST(SimulationSmoother, FactorisationFailureIsAMessageAndTheIntegerZero) {
    // A selected disturbance with zero variance has G(t) = 0.
    const int n = 5;
    LgmModel md = trend_model();
    md.var[1 * 3 + 1] = 0.0;
    const Value store = filter_store(md, series(1, n), n);
    const Value sel = selection({1.0, 1.0, 0.0});
    in_both_message_modes([&](bool, MessageCapture &capture) {
        const Value w = weights(sel, store, md);
        ASSERT_EQ(w.type(), ZU_INT);
        EXPECT_EQ(w.as_int(), 0);
        // The report is a plain message, printed whatever the switch says.
        ASSERT_EQ(capture.messages.size(), 1u);
        EXPECT_EQ(capture.messages[0], "SimSmoWgt(): choleski decomposition failed");
    });
}

// ----------------------------------------------------- conditional density

// Selections outside 1..4, and the simulating selections (2, 4) of a model
// whose state variances are all zero, negative or NaN, are errors; the
// smoothing selections still work for such a model.
TEST(ConditionalDensity, InvalidSelectionAndNoSimulationPossible) {
    const int n = 6;
    NoLeak no_leak;
    auto expect_error = [&](int which, const LgmModel &md, const std::string &text) {
        Args a = with_model({Value::integer(which), mat(1, n, series(1, n))}, md);
        const CallError e = call_error("LgmCondDens", a);
        EXPECT_EQ(e.number, zu::kErrorMessage) << which;
        EXPECT_EQ(e.text, text) << which;
    };
    for (int which : {0, 5, -1})
        expect_error(which, trend_model(), "LgmCondDens(): no valid selection in first argument");
    LgmModel md = trend_model();
    md.var[0] = 0.0;
    for (double v4 : {-0.1, kNaN}) {
        md.var[4] = v4;
        for (int which : {2, 4}) expect_error(which, md, "LgmCondDens(): no simulations possible");
    }
    md.var[4] = 0.0;
    for (int which : {1, 3}) {
        const Value r = cond_dens(which, md, series(1, n), n);
        ASSERT_EQ(r.type(), ZU_MATRIX) << which;
        EXPECT_EQ(r.rows(), 3);
        EXPECT_EQ(r.cols(), n);
    }
}

TEST(ConditionalDensity, FailuresAreReportedAsNonPositiveSemiDefinite) {
    const int n = 6;
    // (a) Both state disturbances have positive variance but are perfectly
    // correlated: G(t) is singular and cannot be factorised.
    LgmModel rank_one = two_series_model();
    rank_one.var[0] = rank_one.var[1] = rank_one.var[4] = rank_one.var[5] = 1.0;
    // (b) The filter fails: fully diffuse start with too few observations.
    LgmModel diffuse = trend_model();
    diffuse.init = {-1, 0, 0, -1, 0, 0};
    struct Case {
        const LgmModel *md;
        std::vector<double> y;
        std::vector<int> selections;
    };
    const Case cases[] = {{&rank_one, series(2, n), {2, 4}},
                          {&diffuse, series(1, n, {0, 1, 2, 3, 4}), {1, 2, 3, 4}}};
    for (const Case &c : cases)
        for (int which : c.selections) {
            SCOPED_TRACE("selection " + std::to_string(which));
            in_both_message_modes([&](bool quiet, MessageCapture &capture) {
                EXPECT_TRUE(cond_dens(which, *c.md, c.y, n).is_none());
                expect_message(capture, quiet, kCondDensPsd);
            });
        }
}

TEST(ConditionalDensity, ResultShapesAndMissingObservations) {
    const int n = 7;
    const LgmModel md = two_series_model();
    const std::vector<double> y = series(2, n, {0 * n + 2, 1 * n + 5});
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

class SimulationSweep : public ::testing::TestWithParam<int> {};

TEST_P(SimulationSweep, EveryAllocationFailureIsReportedAndNothingLeaks) {
    const int N = GetParam(), n = 6, q = 2;
    LgmModel md = N == 1 ? trend_model() : two_series_model();
    md.add_time_varying(n);
    const std::vector<double> y = series(N, n, {N * n - 1});
    const int p = md.p();
    const Value store = filter_store(md, y, n);
    const Value sel =
        selection(N == 1 ? std::vector<double>{1, 0, 1} : std::vector<double>{1, 0, 0, 1});
    const Value w = weights(sel, store, md);
    ASSERT_EQ(w.type(), ZU_MATRIX);
    const Value z = pseudo_normals(q, n, 0.2);

    struct SweepCase {
        std::string name;
        std::function<Args()> make_args;
        bool filter_failure_possible;  // an allocation inside the filter
        int rows;                      // of the result
    };
    std::vector<SweepCase> cases = {{"SimSmoWgt",
                                     [&] {
                                         return with_model({sel, store}, md);
                                     },
                                     false, weight_rows(p, q)},
                                    {"SimSmoDraw",
                                     [&] {
                                         return with_model({sel, z, w, store}, md);
                                     },
                                     false, p}};
    for (int which = 1; which <= 4; ++which)
        cases.push_back({"LgmCondDens",
                         [&, which] {
                             return with_model({Value::integer(which), mat(N, n, y)}, md);
                         },
                         N > 1, p});

    for (const SweepCase &c : cases) {
        SCOPED_TRACE(c.name);
        {
            // The normal path leaves nothing behind either.
            NoLeak no_leak;
            const Value r = invoke(c.name, c.make_args());
            EXPECT_EQ(r.type(), ZU_MATRIX);
            EXPECT_EQ(r.rows(), c.rows);
        }
        const long sites = allocation_sweep(c.name, c.make_args, [&](const SweepStep &s) {
            if (s.threw) {
                EXPECT_EQ(s.error_number, zu::kErrorMemory) << "step " << s.k;
                return;
            }
            // Only the multivariate filter allocates inside itself; its
            // failure is reported as a filter failure.
            ASSERT_TRUE(c.filter_failure_possible) << "step " << s.k;
            ASSERT_EQ(s.messages.size(), 1u) << "step " << s.k;
            EXPECT_EQ(s.messages[0], kCondDensPsd);
            EXPECT_TRUE(s.result.is_none());
        });
        EXPECT_GE(sites, 5);  // result, tables of the time-varying block, work storage
    }
}

INSTANTIATE_TEST_SUITE_P(SingleAndMulti, SimulationSweep, ::testing::Values(1, 2));

}  // namespace
