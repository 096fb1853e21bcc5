// test_kalman_filter.cpp - the forward filters (fMultiKalmanFil,
// fUnivKalmanFil) called directly, and the entry points KalmanFil, LgmLik
// and LgmLikConc called by name: the single-series filter
// against the multivariate one, the failure rules of each filter with closed
// form results, and the failure reports with messages on and off.
//
// Every allocation of these entry points failed in turn, for one and two
// series with fixed and time-varying models, is tested in
// test_reliability.cpp.
//
// The likelihoods against the joint-Gaussian oracle, the partial sums left
// by too few observations and LgmRecursion's paths are tested from Python
// (tests/python/test_filter.py, test_recursion.py).
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "tessel/tessel.h"
#include "test_util.h"

namespace {

using namespace testutil;

struct FilterResult {
    int rc = -1;
    double logdet = NAN, sumsq = NAN;
    int cnt = -12345;
    std::vector<double> store;  // S x n, row-major
    int S = 0;
};

std::vector<int> ints(const std::vector<double> &v) { return std::vector<int>(v.begin(), v.end()); }

// Runs one of the filters on fresh copies of the model (the filters write
// time-varying values into SysMat, VarMat and the mean). An empty InitMat is
// passed as null (every element diffuse), empty index tables as null.
FilterResult run_filter(bool univ, const LgmModel &md, int n, const std::vector<double> &y,
                        double store_fill = 0.0) {
    const int m = md.m, N = md.N, mN = m + N, S = md.store_rows();
    HostMat sys(mN, m, md.sys), var(mN, mN, md.var), W1(mN + 1, mN), W2(mN + 2, mN);
    for (int k = 0; k < mN; ++k) W2[mN + 1][k] = md.mean.empty() ? 0.0 : md.mean[k];
    HostMat Y(N, n, y), init(m + 1, m, md.init),
        store(S, n, std::vector<double>(S * n, store_fill));
    HostMat tv(md.tvrows > 0 ? md.tvrows : 1, n, md.tvrows > 0 ? md.tvdata : std::vector<double>());
    HostIdx sidx(mN, m, md.sysidx.empty() ? std::vector<int>(mN * m, -1) : ints(md.sysidx));
    HostIdx vidx(mN, mN, md.varidx.empty() ? std::vector<int>(mN * mN, -1) : ints(md.varidx));
    std::vector<int> midx = md.meanidx.empty() ? std::vector<int>(mN, -1) : ints(md.meanidx);
    int **ps = md.sysidx.empty() ? nullptr : sidx.get();
    int **pv = md.varidx.empty() ? nullptr : vidx.get();
    int *pm = md.meanidx.empty() ? nullptr : midx.data();
    double **ptv = md.tvrows > 0 ? tv.get() : nullptr;
    double **pinit = md.init.empty() ? nullptr : init.get();

    FilterResult r;
    r.S = S;
    if (univ)
        r.rc = fUnivKalmanFil(n, Y[0], m, sys.get(), var.get(), W2[mN + 1], ps, pv, pm, ptv, pinit,
                              W1.get(), W2.get(), store.get(), &r.logdet, &r.sumsq, &r.cnt);
    else
        r.rc = fMultiKalmanFil(N, n, Y.get(), m, sys.get(), var.get(), W2[mN + 1], ps, pv, pm, ptv,
                               pinit, W1.get(), W2.get(), store.get(), &r.logdet, &r.sumsq, &r.cnt);
    for (int i = 0; i < S; ++i)
        for (int t = 0; t < n; ++t) r.store.push_back(store[i][t]);
    return r;
}

// |a - b| <= tol, with NaN equal to NaN.
::testing::AssertionResult Near(double a, double b, double tol) {
    if ((std::isnan(a) && std::isnan(b)) || std::fabs(a - b) <= tol)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << a << " vs " << b << " (tol " << tol << ")";
}

// -------------------------------------------------- single series vs multi

// Local linear trend (level diffuse or proper, slope proper), data with
// gaps, and a time-varying observation variance and intercept, so every
// code path of a step is used.
LgmModel trend_model(int n, bool diffuse, bool time_varying) {
    LgmModel md;
    md.m = 2;
    md.N = 1;
    md.sys = {1, 1, 0, 1, 1, 0};
    md.var = {0.5, 0.1, 0, 0.1, 0.2, 0, 0, 0, 1.5};
    md.init = {diffuse ? -1.0 : 2.0, 0, 0.3, 0.4, diffuse ? 0.0 : 1.0, 0.2};
    if (!time_varying) return md;
    md.mean = {0.1, 0.0, 0.5};
    md.varidx = {-1, -1, -1, -1, -1, -1, -1, -1, 0};
    md.meanidx = {-1, -1, 1};
    md.tvrows = 2;
    md.tvdata.resize(2 * n);
    for (int t = 0; t < n; ++t) {
        md.tvdata[t] = 1.0 + 0.5 * std::sin(0.9 * t) * std::sin(0.9 * t);  // obs variance
        md.tvdata[n + t] = 0.05 * t;                                       // obs intercept
    }
    return md;
}

// For N = 1 the two filters compute the same quantities in a different
// order (1/F by division vs LU inversion, log F vs -log(1/F)). For a proper
// start every quantity is O(1) and the difference is a few rounding errors:
// 1e-12 relative. With a diffuse element the variances pass through values
// of size kappa ~ 1.5e7 and lose about kappa * eps ~ 3e-9 absolute; the
// tolerance there is 1e-7 (a factor ~30 of headroom for propagation).
TEST(KalmanFilterUnivVsMulti, SameStoreAndLikelihoodPieces) {
    struct Case {
        const char *what;
        int n;
        bool diffuse, time_varying, no_init;
        double tol;
    };
    const Case cases[] = {{"proper start, time-varying, gaps", 20, false, true, false, 1e-12},
                          {"partly diffuse start", 20, true, true, false, 1e-7},
                          {"fully diffuse, fixed model", 15, true, false, true, 1e-7}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        LgmModel md = trend_model(c.n, c.diffuse, c.time_varying);
        if (c.no_init) md.init.clear();
        const std::vector<double> y = series(1, c.n, {3, 4, 9});
        const FilterResult u = run_filter(true, md, c.n, y), mu = run_filter(false, md, c.n, y);
        ASSERT_EQ(u.rc, 1);
        ASSERT_EQ(mu.rc, 1);
        EXPECT_EQ(u.cnt, mu.cnt);
        // Observed points less the diffuse elements (all of them with no InitMat).
        EXPECT_EQ(u.cnt, c.n - 3 - (c.no_init ? 2 : c.diffuse ? 1 : 0));
        EXPECT_TRUE(Near(u.logdet, mu.logdet, c.tol * std::fmax(1.0, std::fabs(mu.logdet))));
        EXPECT_TRUE(Near(u.sumsq, mu.sumsq, c.tol * std::fmax(1.0, std::fabs(mu.sumsq))));
        ASSERT_EQ(u.store.size(), mu.store.size());
        for (std::size_t k = 0; k < u.store.size(); ++k)
            EXPECT_TRUE(
                Near(u.store[k], mu.store[k], c.tol * std::fmax(1.0, std::fabs(mu.store[k]))))
                << "store row " << k / c.n << " column " << k % c.n;
    }
}

// --------------------------------------------------- single-series rules

// State alpha(t+1) = e(t) with variance 1 (T = 0) and alpha(0) ~ N(0, 1),
// observed as y = alpha + noise of variance h(t): every F(t) = 1 + h(t),
// every gain M = T P Z' = 0, innovations v = y. Closed forms follow.
LgmModel white_noise_model(const std::vector<double> &h) {
    LgmModel md;
    md.m = md.N = 1;
    md.sys = {0, 1};
    md.var = {1, 0, 0, 1};
    md.init = {1, 0};
    md.varidx = {-1, -1, -1, 0};
    md.tvrows = 1;
    md.tvdata = h;
    return md;
}

TEST(KalmanFilterUnivRules, NegativeFIsFilteredButNotCountedZeroFStops) {
    const int n = 5;
    const std::vector<double> y = {0.7, -1.2, 0.4, 2.2, -0.3};
    std::vector<double> h = {1.0, 0.5, -3.0, 2.0, 0.25};
    FilterResult r = run_filter(true, white_noise_model(h), n, y);
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(r.cnt, 4);
    double ld = 0.0, ss = 0.0;
    for (int t = 0; t < n; ++t)
        if (t != 2) {
            ld += std::log(1.0 + h[t]);
            ss += y[t] * y[t] / (1.0 + h[t]);
        }
    EXPECT_NEAR(r.logdet, ld, 1e-13);
    EXPECT_NEAR(r.sumsq, ss / 4, 1e-13);
    // The negative F is still stored: 1/F = 1/(1 - 3) at t = 2.
    EXPECT_DOUBLE_EQ(r.store[2 * n + 2], -0.5);
    EXPECT_DOUBLE_EQ(r.store[0 * n + 2], 0.4);

    // F(2) = 1 + h(2) = 0 exactly: the filter stops at once, columns from 2
    // on keep what they held, cnt is written only on success.
    h[2] = -1.0;
    const double sentinel = 123.5;
    r = run_filter(true, white_noise_model(h), n, y, sentinel);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.cnt, -12345);
    for (int row = 0; row < r.S; ++row) {
        EXPECT_NE(r.store[row * n + 1], sentinel) << "column 1 was filtered";
        for (int t = 2; t < n; ++t) EXPECT_EQ(r.store[row * n + t], sentinel) << row << "," << t;
    }
}

TEST(KalmanFilterUnivRules, MissingValuesAndTooFewObservations) {
    const int n = 4;
    const LgmModel md = white_noise_model({1.0, 1.0, 1.0, 1.0});
    // One observed value: cnt = 1, F = 2, v = y.
    FilterResult r = run_filter(true, md, n, {kNaN, 3.0, kNaN, kNaN});
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(r.cnt, 1);
    EXPECT_NEAR(r.logdet, std::log(2.0), 1e-15);
    EXPECT_NEAR(r.sumsq, 4.5, 1e-14);
    for (int t : {0, 2, 3}) {
        EXPECT_TRUE(std::isnan(r.store[t]));
        EXPECT_EQ(r.store[n + t], 0.0);
        EXPECT_EQ(r.store[2 * n + t], 0.0);
    }
    // Nothing observed: cnt = 0 < 1 is a failure.
    EXPECT_EQ(run_filter(true, md, n, {kNaN, kNaN, kNaN, kNaN}).rc, 0);
}

// ------------------------------------------------------ multivariate rules

// Two series observing one random walk with no observation noise through
// the same loading: F = P [1 1; 1 1] is singular at the first step.
LgmModel singular_model() {
    LgmModel md;
    md.m = 1;
    md.N = 2;
    md.sys = {1, 1, 1};
    md.var = {1, 0, 0, 0, 0, 0, 0, 0, 0};
    md.init = {1, 0};
    return md;
}

TEST(KalmanFilterMultiRules, SingularFFailsAllMissingFails) {
    const int n = 3;
    FilterResult r = run_filter(false, singular_model(), n, {1, 2, 3, 1, 2, 3}, 99.0);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.cnt, -12345);
    for (int row = 0; row < r.S; ++row) EXPECT_EQ(r.store[row * n], 99.0);
    // With one element missing at every time the same model is regular.
    r = run_filter(false, singular_model(), n, {1, kNaN, 3, kNaN, 2, kNaN});
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.cnt, 3);

    // Nothing observed: NaN innovations, zero gains and inverses, failure.
    LgmModel md = singular_model();
    md.sys = {1, 1, 2};
    md.var = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    md.init.clear();
    r = run_filter(false, md, n, std::vector<double>(6, kNaN), 5.0);
    EXPECT_EQ(r.rc, 0);
    for (int t = 0; t < n; ++t) {
        EXPECT_TRUE(std::isnan(r.store[t]));
        EXPECT_TRUE(std::isnan(r.store[n + t]));
        for (int row = 2; row < r.S; ++row) EXPECT_EQ(r.store[row * n + t], 0.0);
    }
}

// Two independent random walks observed without cross terms: the filter
// splits into two scalar filters, so with series 1 missing at t = 1 and both
// missing at t = 2 the store follows from the scalar recursion
// P -> P + q, F = P + h, K = P / F (T = 1), P(t+1) = P - P^2/F + q.
TEST(KalmanFilterMultiRules, PartlyAndWhollyMissingColumns) {
    LgmModel md;
    md.m = md.N = 2;
    md.sys = {1, 0, 0, 1, 1, 0, 0, 1};
    const double q[2] = {0.4, 0.9}, h[2] = {1.3, 0.6};
    md.var = {q[0], 0, 0, 0, 0, q[1], 0, 0, 0, 0, h[0], 0, 0, 0, 0, h[1]};
    md.init = {2.0, 0, 0, 3.0, 0.5, -0.5};
    const int n = 4;
    const std::vector<double> y = {1.0, 0.2, kNaN, 0.8, -1.0, kNaN, kNaN, 0.3};
    const FilterResult r = run_filter(false, md, n, y);
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(r.cnt, 5);

    double ld = 0.0, ss = 0.0, P[2] = {2.0, 3.0}, a[2] = {0.5, -0.5};
    // Store rows: v0, v1, K00 (K[0][0]), K10, Finv00, K01, K11, Finv01, Finv11.
    const int rowK[2][2] = {{2, 3}, {5, 6}};  // [series][state]
    const int rowFinv[2] = {4, 8};
    for (int t = 0; t < n; ++t) {
        const bool all_missing = std::isnan(y[t]) && std::isnan(y[n + t]);
        for (int i = 0; i < 2; ++i) {
            const double yi = y[i * n + t], v = r.store[i * n + t];
            if (std::isnan(yi)) {
                EXPECT_TRUE(all_missing ? std::isnan(v) : v == 0.0) << i << "," << t;
                EXPECT_EQ(r.store[rowFinv[i] * n + t], 0.0);
                EXPECT_EQ(r.store[rowK[i][0] * n + t], 0.0);
                EXPECT_EQ(r.store[rowK[i][1] * n + t], 0.0);
                P[i] += q[i];
                continue;
            }
            const double F = P[i] + h[i], K = P[i] / F, vi = yi - a[i];
            EXPECT_NEAR(v, vi, 1e-13);
            EXPECT_NEAR(r.store[rowFinv[i] * n + t], 1.0 / F, 1e-13);
            EXPECT_NEAR(r.store[rowK[i][i] * n + t], K, 1e-13);
            EXPECT_EQ(r.store[rowK[i][1 - i] * n + t], 0.0);
            ld += std::log(F);
            ss += vi * vi / F;
            a[i] += K * vi;
            P[i] = P[i] - P[i] * P[i] / F + q[i];
        }
        EXPECT_EQ(r.store[7 * n + t], 0.0) << "off-diagonal of Finv";
    }
    EXPECT_NEAR(r.logdet, ld, 1e-13);
    EXPECT_NEAR(r.sumsq, ss / 5, 1e-13);
}

// ------------------------------------------------------------ entry points

std::string psd_message(const std::string &name) {
    return name + "(): non-positive semi-definite innovation variance matrix";
}

// The singular model through each entry point: KalmanFil frees its store
// (returns nothing), the likelihoods return 0; LgmLik writes its references
// even so (the filter failed at its first step, where the sums are still
// at their starting values), LgmLikConc does not. The message goes only
// while messages are on.
TEST(FilterEntryPoints, SingularFReports) {
    for (const std::string name : {"KalmanFil", "LgmLik", "LgmLikConc"}) {
        SCOPED_TRACE(name);
        const bool lik = name != "KalmanFil", written = name == "LgmLik";
        in_both_message_modes([&](bool quiet, MessageCapture &capture) {
            Value ll = Value::integer(-7), s2 = Value::integer(-7);
            Args a;
            if (lik) a = {Value::ref(ll), Value::ref(s2)};
            a.push_back(mat(2, 3, {1, 2, 3, 1, 2, 3}));
            const Value r = invoke(name, with_model(a, singular_model()));
            EXPECT_TRUE(lik ? r.as_int() == 0 : r.is_none());
            expect_message(capture, quiet, psd_message(name));
            EXPECT_EQ(ll.type(), written ? ZU_DOUBLE : ZU_INT);
            EXPECT_EQ(s2.type(), written ? ZU_DOUBLE : ZU_INT);
            if (written) {
                EXPECT_EQ(ll.as_double(), 0.0);
                EXPECT_EQ(s2.as_double(), 0.0);
            }
        });
    }
}

TEST(FilterEntryPoints, ArgumentFaults) {
    NoLeak guard;
    Args none;
    EXPECT_EQ(call_error("LgmLik", none).number, zu::kErrorMessage);
    Value s2;
    Args not_ref = {Value::real(1.0), Value::ref(s2), mat(1, 2, {1, 2}), mat(2, 1, {1, 1}),
                    mat(2, 2, {1, 0, 0, 1})};
    EXPECT_EQ(call_error("LgmLikConc", not_ref).number, zu::kErrorType);
    // y must be N x n with N = 1.
    Args wrong_rows = {mat(2, 2, {1, 2, 3, 4}), mat(2, 1, {1, 1}), mat(2, 2, {1, 0, 0, 1})};
    EXPECT_EQ(call_error("KalmanFil", wrong_rows).number, zu::kErrorSize);
}

}  // namespace
