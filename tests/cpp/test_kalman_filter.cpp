// test_kalman_filter.cpp - the forward filters (fMultiKalmanFil,
// fUnivKalmanFil) called directly, and the entry points KalmanFil, LgmLik,
// LgmLikConc and LgmRecursion called by name: the single-series filter
// against the multivariate one, the failure rules of each filter with closed
// form results, the exact failure reports, and the leak check and
// allocation-failure sweep.
//
// Numerical agreement with the joint-Gaussian oracle is tested from Python
// (tests/python/test_filter.py); here the references are closed forms or the
// other filter.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "tessel/tessel.h"
#include "test_util.h"

namespace {

using testutil::Args;
using testutil::kNaN;
using testutil::mat;
using testutil::MessageCapture;
using testutil::NoLeak;
using zu::Value;

// A MatAllocBlock matrix from row-major values, owned by the test.
class HostMat {
public:
    HostMat(int rows, int cols, const std::vector<double> &v = {})
        : rows_(rows), cols_(cols), p_(MatAllocBlock(rows, cols > 0 ? cols : 1)) {
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) p_[i][j] = v.empty() ? 0.0 : v[i * cols + j];
    }
    ~HostMat() { MatFreeBlock(p_); }
    HostMat(const HostMat &) = delete;
    HostMat &operator=(const HostMat &) = delete;
    double **get() const { return p_; }
    double *operator[](int i) const { return p_[i]; }
    int rows() const { return rows_; }
    int cols() const { return cols_; }

private:
    int rows_, cols_;
    double **p_;
};

// An int index table (TabAllocPlain) from row-major entries.
class HostIdx {
public:
    HostIdx(int rows, int cols, const std::vector<int> &v)
        : rows_(rows), cols_(cols),
          p_(reinterpret_cast<int **>(TabAllocPlain(rows, cols, sizeof(int)))) {
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) p_[i][j] = v[i * cols + j];
    }
    ~HostIdx() { TabFreePlain(reinterpret_cast<void **>(p_), rows_, cols_); }
    HostIdx(const HostIdx &) = delete;
    HostIdx &operator=(const HostIdx &) = delete;
    int **get() const { return p_; }

private:
    int rows_, cols_;
    int **p_;
};

// A model for direct filter calls: fixed part, optional InitMat, and a
// time-varying part given by index tables into tvdata.
struct DirectModel {
    int m, N;
    std::vector<double> sys, var, init, mean;
    std::vector<int> sysidx, varidx, meanidx;
    std::vector<double> tvdata;  // rows x n, row-major
    int tvrows = 0;
};

struct FilterResult {
    int rc = -1;
    double logdet = NAN, sumsq = NAN;
    int cnt = -12345;
    std::vector<double> store;  // S x n, row-major
    int S = 0;
};

// Runs one of the filters on fresh copies of the model (the filters write
// time-varying values into SysMat, VarMat and the mean).
FilterResult run_filter(bool univ, const DirectModel &dm, int n, const std::vector<double> &y,
                        double store_fill = 0.0) {
    const int m = dm.m, N = dm.N, mN = m + N;
    HostMat sys(mN, m, dm.sys), var(mN, mN, dm.var);
    HostMat W1(mN + 1, mN), W2(mN + 2, mN);
    for (int k = 0; k < mN; ++k) W2[mN + 1][k] = dm.mean.empty() ? 0.0 : dm.mean[k];
    HostMat Y(N, n, y);
    HostMat init(m + 1, m, dm.init);
    const int S = N + N * (N + 1) / 2 + m * N;
    HostMat store(S, n);
    for (int r = 0; r < S; ++r)
        for (int t = 0; t < n; ++t) store[r][t] = store_fill;
    HostMat tv(dm.tvrows > 0 ? dm.tvrows : 1, n, dm.tvrows > 0 ? dm.tvdata : std::vector<double>());
    HostIdx sidx(mN, m, dm.sysidx.empty() ? std::vector<int>(mN * m, -1) : dm.sysidx);
    HostIdx vidx(mN, mN, dm.varidx.empty() ? std::vector<int>(mN * mN, -1) : dm.varidx);
    std::vector<int> midx = dm.meanidx.empty() ? std::vector<int>(mN, -1) : dm.meanidx;

    int **ps = dm.sysidx.empty() ? nullptr : sidx.get();
    int **pv = dm.varidx.empty() ? nullptr : vidx.get();
    int *pm = dm.meanidx.empty() ? nullptr : midx.data();
    double **ptv = dm.tvrows > 0 ? tv.get() : nullptr;
    double **pinit = dm.init.empty() ? nullptr : init.get();

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
    if (std::isnan(a) && std::isnan(b)) return ::testing::AssertionSuccess();
    if (std::fabs(a - b) <= tol) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << a << " vs " << b << " (tol " << tol << ")";
}

// Local linear trend with a partly diffuse start (level diffuse, slope
// proper), data with gaps, and a time-varying observation variance and
// observation intercept, so every code path of a step is used.
DirectModel trend_model(bool diffuse) {
    DirectModel dm;
    dm.m = 2;
    dm.N = 1;
    dm.sys = {1, 1, 0, 1, 1, 0};
    dm.var = {0.5, 0.1, 0, 0.1, 0.2, 0, 0, 0, 1.5};
    if (diffuse)
        dm.init = {-1, 0, 0.3, 0.4, 0.0, 0.2};
    else
        dm.init = {2.0, 0, 0.3, 0.4, 1.0, 0.2};
    dm.mean = {0.1, 0.0, 0.5};
    dm.varidx = {-1, -1, -1, -1, -1, -1, -1, -1, 0};
    dm.meanidx = {-1, -1, 1};
    dm.tvrows = 2;
    return dm;
}

std::vector<double> trend_data(int n) {
    std::vector<double> y(n);
    for (int t = 0; t < n; ++t) y[t] = 0.3 * t + std::sin(1.7 * t) + 0.2 * std::cos(3.1 * t);
    y[3] = kNaN;
    y[4] = kNaN;
    y[9] = kNaN;
    return y;
}

std::vector<double> trend_tv(int n) {
    std::vector<double> tv(2 * n);
    for (int t = 0; t < n; ++t) {
        tv[t] = 1.0 + 0.5 * std::sin(0.9 * t) * std::sin(0.9 * t);  // obs variance
        tv[n + t] = 0.05 * t;                                       // obs intercept
    }
    return tv;
}

// -------------------------------------------------- single series vs multi

// For N = 1 the two filters compute the same quantities in a different
// order (1/F by division vs LU inversion, log F vs -log(1/F)). For a proper
// start every quantity is O(1) and the difference is a few rounding errors:
// 1e-12 relative. With a diffuse element the variances pass through values
// of size kappa ~ 1.5e7 and lose about kappa * eps ~ 3e-9 absolute; the
// tolerance there is 1e-7 (a factor ~30 of headroom for propagation).
void expect_univ_equals_multi(const DirectModel &dm, int n, const std::vector<double> &y,
                              double tol) {
    const FilterResult u = run_filter(true, dm, n, y);
    const FilterResult mu = run_filter(false, dm, n, y);
    ASSERT_EQ(u.rc, 1);
    ASSERT_EQ(mu.rc, 1);
    EXPECT_EQ(u.cnt, mu.cnt);
    EXPECT_TRUE(Near(u.logdet, mu.logdet, tol * std::fmax(1.0, std::fabs(mu.logdet))));
    EXPECT_TRUE(Near(u.sumsq, mu.sumsq, tol * std::fmax(1.0, std::fabs(mu.sumsq))));
    ASSERT_EQ(u.S, dm.m + 2);
    ASSERT_EQ(u.store.size(), mu.store.size());
    for (std::size_t k = 0; k < u.store.size(); ++k)
        EXPECT_TRUE(Near(u.store[k], mu.store[k], tol * std::fmax(1.0, std::fabs(mu.store[k]))))
            << "store row " << k / n << " column " << k % n;
}

TEST(KalmanFilterUnivVsMulti, ProperStartTimeVaryingWithGaps) {
    const int n = 20;
    DirectModel dm = trend_model(false);
    dm.tvdata = trend_tv(n);
    expect_univ_equals_multi(dm, n, trend_data(n), 1e-12);
}

TEST(KalmanFilterUnivVsMulti, PartlyDiffuseStart) {
    const int n = 20;
    DirectModel dm = trend_model(true);
    dm.tvdata = trend_tv(n);
    expect_univ_equals_multi(dm, n, trend_data(n), 1e-7);
}

TEST(KalmanFilterUnivVsMulti, FullyDiffuseFixedModel) {
    const int n = 15;
    DirectModel dm = trend_model(true);
    dm.init.clear();
    dm.varidx.clear();
    dm.meanidx.clear();
    dm.tvrows = 0;
    expect_univ_equals_multi(dm, n, trend_data(n), 1e-7);
    // The count is the observed points less the two diffuse elements.
    const FilterResult u = run_filter(true, dm, n, trend_data(n));
    EXPECT_EQ(u.cnt, n - 3 - 2);
}

// --------------------------------------------------- single-series rules

// State alpha(t+1) = e(t) with variance 1 (T = 0) and alpha(0) ~ N(0, 1),
// observed as y = alpha + noise of variance h(t): every F(t) = 1 + h(t),
// every gain M = T P Z' = 0, innovations v = y. Closed forms follow.
DirectModel white_noise_model(int n, const std::vector<double> &h) {
    DirectModel dm;
    dm.m = 1;
    dm.N = 1;
    dm.sys = {0, 1};
    dm.var = {1, 0, 0, 1};
    dm.init = {1, 0};
    dm.varidx = {-1, -1, -1, 0};
    dm.tvrows = 1;
    dm.tvdata = h;
    (void)n;
    return dm;
}

TEST(KalmanFilterUnivRules, NegativeFIsFilteredButNotCounted) {
    const int n = 5;
    const std::vector<double> h = {1.0, 0.5, -3.0, 2.0, 0.25};
    const std::vector<double> y = {0.7, -1.2, 0.4, 2.2, -0.3};
    const DirectModel dm = white_noise_model(n, h);
    const FilterResult r = run_filter(true, dm, n, y);
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
}

TEST(KalmanFilterUnivRules, ZeroFStopsAtOnce) {
    const int n = 5;
    // F(2) = 1 + h(2) = 0 exactly.
    const std::vector<double> h = {1.0, 0.5, -1.0, 2.0, 0.25};
    const std::vector<double> y = {0.7, -1.2, 0.4, 2.2, -0.3};
    const DirectModel dm = white_noise_model(n, h);
    const double sentinel = 123.5;
    const FilterResult r = run_filter(true, dm, n, y, sentinel);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.cnt, -12345) << "cnt is written only on success";
    for (int row = 0; row < r.S; ++row) {
        EXPECT_NE(r.store[row * n + 1], sentinel) << "column 1 was filtered";
        for (int t = 2; t < n; ++t) EXPECT_EQ(r.store[row * n + t], sentinel) << row << "," << t;
    }
}

TEST(KalmanFilterUnivRules, MissingValuesAndTooFewObservations) {
    const int n = 4;
    const std::vector<double> h = {1.0, 1.0, 1.0, 1.0};
    const DirectModel dm = white_noise_model(n, h);
    // One observed value: cnt = 1, F = 2, v = y.
    FilterResult r = run_filter(true, dm, n, {kNaN, 3.0, kNaN, kNaN});
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
    r = run_filter(true, dm, n, {kNaN, kNaN, kNaN, kNaN});
    EXPECT_EQ(r.rc, 0);
}

// ------------------------------------------------------ multivariate rules

// Two series observing one random walk with no observation noise through
// the same loading: F = P [1 1; 1 1] is singular at the first step.
TEST(KalmanFilterMultiRules, SingularFFails) {
    DirectModel dm;
    dm.m = 1;
    dm.N = 2;
    dm.sys = {1, 1, 1};
    dm.var = {1, 0, 0, 0, 0, 0, 0, 0, 0};
    dm.init = {1, 0};
    const int n = 3;
    const FilterResult r = run_filter(false, dm, n, {1, 2, 3, 1, 2, 3}, 99.0);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.cnt, -12345);
    for (int row = 0; row < r.S; ++row) EXPECT_EQ(r.store[row * n], 99.0);
    // With one element missing at every time the same model is regular.
    const FilterResult ok = run_filter(false, dm, n, {1, kNaN, 3, kNaN, 2, kNaN});
    EXPECT_EQ(ok.rc, 1);
    EXPECT_EQ(ok.cnt, 3);
}

// Two independent random walks observed without cross terms: the filter
// splits into two scalar filters, so with series 1 missing at t = 1 and both
// missing at t = 2 the store follows from the scalar recursion
// P -> P + q, F = P + h, K = P / F (T = 1), P(t+1) = P - P^2/F + q.
TEST(KalmanFilterMultiRules, PartlyAndWhollyMissingColumns) {
    DirectModel dm;
    dm.m = 2;
    dm.N = 2;
    dm.sys = {1, 0, 0, 1, 1, 0, 0, 1};
    const double q0 = 0.4, q1 = 0.9, h0 = 1.3, h1 = 0.6;
    dm.var = {q0, 0, 0, 0, 0, q1, 0, 0, 0, 0, h0, 0, 0, 0, 0, h1};
    dm.init = {2.0, 0, 0, 3.0, 0.5, -0.5};
    const int n = 4;
    const std::vector<double> y = {1.0, 0.2, kNaN, 0.8, -1.0, kNaN, kNaN, 0.3};
    const FilterResult r = run_filter(false, dm, n, y);
    ASSERT_EQ(r.rc, 1);
    EXPECT_EQ(r.cnt, 5);

    // Scalar reference filters (q added after the update, as T = 1).
    double ld = 0.0, ss = 0.0;
    const double q[2] = {q0, q1}, h[2] = {h0, h1};
    double P[2] = {2.0, 3.0}, a[2] = {0.5, -0.5};
    // Store rows: v0, v1, K00 (K[0][0]), K10, Finv00, K01, K11, Finv01, Finv11.
    const int rowK[2][2] = {{2, 3}, {5, 6}};  // [series][state]
    const int rowFinv[2] = {4, 8};
    for (int t = 0; t < n; ++t) {
        const bool all_missing = std::isnan(y[t]) && std::isnan(y[n + t]);
        for (int i = 0; i < 2; ++i) {
            const double yi = y[i * n + t];
            const double v = r.store[i * n + t];
            if (std::isnan(yi)) {
                if (all_missing)
                    EXPECT_TRUE(std::isnan(v));
                else
                    EXPECT_EQ(v, 0.0);
                EXPECT_EQ(r.store[rowFinv[i] * n + t], 0.0);
                EXPECT_EQ(r.store[rowK[i][0] * n + t], 0.0);
                EXPECT_EQ(r.store[rowK[i][1] * n + t], 0.0);
                P[i] += q[i];
                continue;
            }
            const double F = P[i] + h[i];
            const double K = P[i] / F;
            const double vi = yi - a[i];
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

TEST(KalmanFilterMultiRules, AllMissingFailsWithNaNInnovations) {
    DirectModel dm;
    dm.m = 1;
    dm.N = 2;
    dm.sys = {1, 1, 2};
    dm.var = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const int n = 3;
    const FilterResult r = run_filter(false, dm, n, std::vector<double>(6, kNaN), 5.0);
    EXPECT_EQ(r.rc, 0);
    for (int t = 0; t < n; ++t) {
        EXPECT_TRUE(std::isnan(r.store[t]));
        EXPECT_TRUE(std::isnan(r.store[n + t]));
        for (int row = 2; row < r.S; ++row) EXPECT_EQ(r.store[row * n + t], 0.0);
    }
}

// ------------------------------------------------------------ entry points

const char *const kFilMsg = "KalmanFil(): non-positive semi-definite innovation variance matrix";
const char *const kLikMsg = "LgmLik(): non-positive semi-definite innovation variance matrix";
const char *const kConcMsg = "LgmLikConc(): non-positive semi-definite innovation variance matrix";

// Model block of the singular two-series model above, as host values.
void push_singular_model(Args &a) {
    a.push_back(mat(3, 1, {1, 1, 1}));
    a.push_back(mat(3, 3, {1, 0, 0, 0, 0, 0, 0, 0, 0}));
    a.push_back(mat(2, 1, {1, 0}));
}

TEST(FilterEntryPoints, SingularFReportsAndFreesTheStore) {
    NoLeak guard;
    Args a;
    a.push_back(mat(2, 3, {1, 2, 3, 1, 2, 3}));
    push_singular_model(a);
    {
        MessageCapture cap;
        Value r = zu::call("KalmanFil", a);
        EXPECT_TRUE(r.is_none());
        ASSERT_EQ(cap.messages.size(), 1u);
        EXPECT_EQ(cap.messages[0], kFilMsg);
    }
    {
        testutil::MessagesOff off;
        MessageCapture cap;
        Value r = zu::call("KalmanFil", a);
        EXPECT_TRUE(r.is_none());
        EXPECT_TRUE(cap.messages.empty());
    }
}

TEST(FilterEntryPoints, LikelihoodFailureReports) {
    NoLeak guard;
    Value ll = Value::integer(-7), s2 = Value::integer(-7);
    auto args = [&]() {
        Args a;
        a.push_back(Value::ref(ll));
        a.push_back(Value::ref(s2));
        a.push_back(mat(2, 3, {1, 2, 3, 1, 2, 3}));
        push_singular_model(a);
        return a;
    };
    {
        MessageCapture cap;
        Args a = args();
        Value r = zu::call("LgmLik", a);
        EXPECT_EQ(r.as_int(), 0);
        ASSERT_EQ(cap.messages.size(), 1u);
        EXPECT_EQ(cap.messages[0], kLikMsg);
        // Written although the filter failed (at its first step, where the
        // sums are still at their starting values: no diffuse element).
        EXPECT_EQ(ll.type(), ZU_DOUBLE);
        EXPECT_EQ(s2.type(), ZU_DOUBLE);
        EXPECT_EQ(ll.as_double(), 0.0);
        EXPECT_EQ(s2.as_double(), 0.0);
    }
    ll = Value::integer(-7);
    s2 = Value::integer(-7);
    {
        MessageCapture cap;
        Args a = args();
        Value r = zu::call("LgmLikConc", a);
        EXPECT_EQ(r.as_int(), 0);
        ASSERT_EQ(cap.messages.size(), 1u);
        EXPECT_EQ(cap.messages[0], kConcMsg);
        EXPECT_EQ(ll.type(), ZU_INT) << "not written on failure";
        EXPECT_EQ(s2.type(), ZU_INT);
    }
    {
        testutil::MessagesOff off;
        MessageCapture cap;
        Args a = args();
        EXPECT_EQ(zu::call("LgmLik", a).as_int(), 0);
        Args b = args();
        EXPECT_EQ(zu::call("LgmLikConc", b).as_int(), 0);
        EXPECT_TRUE(cap.messages.empty());
    }
}

// Fewer observed values than diffuse elements: a local linear trend (two
// diffuse elements, no InitMat) with one observation, at t = 0, where
// F = kappa + 1 and v = y. The filter fails at the end; LgmLik has written
// -0.5 (log F - 2 log kappa) (cnt stays 0) and the undivided v^2 / F.
TEST(FilterEntryPoints, FewerObservationsThanDiffuseElements) {
    NoLeak guard;
    Value ll, s2;
    Args a;
    a.push_back(Value::ref(ll));
    a.push_back(Value::ref(s2));
    a.push_back(mat(1, 3, {2.0, kNaN, kNaN}));
    a.push_back(mat(3, 2, {1, 1, 0, 1, 1, 0}));
    a.push_back(mat(3, 3, {0, 0, 0, 0, 0, 0, 0, 0, 1}));
    MessageCapture cap;
    Value r = zu::call("LgmLik", a);
    EXPECT_EQ(r.as_int(), 0);
    ASSERT_EQ(cap.messages.size(), 1u);
    EXPECT_EQ(cap.messages[0], kLikMsg);
    const double kappa = 9999999.99;
    const double F = kappa + 1.0;
    ASSERT_EQ(ll.type(), ZU_DOUBLE);
    EXPECT_NEAR(ll.as_double(), -0.5 * (std::log(F) - 2 * std::log(kappa)), 1e-12);
    EXPECT_NEAR(s2.as_double(), 4.0 / F, 1e-20);
}

// LgmLik for a model whose likelihood is a closed form: independent
// N(0, 1 + h(t)) observations (the white-noise model above with a fixed h).
TEST(FilterEntryPoints, LikelihoodClosedForm) {
    NoLeak guard;
    const std::vector<double> y = {0.7, -1.2, kNaN, 2.2, -0.3};
    const double h = 0.5;
    Value ll, s2, lc, sc;
    auto block = [&](Args &a) {
        a.push_back(mat(1, 5, y));
        a.push_back(mat(2, 1, {0, 1}));
        a.push_back(mat(2, 2, {1, 0, 0, h}));
        a.push_back(mat(2, 1, {1, 0}));
    };
    Args a{Value::ref(ll), Value::ref(s2)};
    block(a);
    ASSERT_EQ(zu::call("LgmLik", a).as_int(), 1);
    Args b{Value::ref(lc), Value::ref(sc)};
    block(b);
    ASSERT_EQ(zu::call("LgmLikConc", b).as_int(), 1);

    double ss = 0.0;
    for (double v : y)
        if (!std::isnan(v)) ss += v * v;
    const double F = 1.0 + h, cnt = 4;
    const double want = -0.5 * (cnt * std::log(2 * M_PI) + cnt * std::log(F) + ss / F);
    EXPECT_NEAR(ll.as_double(), want, 1e-13);
    EXPECT_NEAR(s2.as_double(), ss / F / cnt, 1e-15);
    const double sigma2 = ss / F / cnt;
    const double want_conc =
        -0.5 * (cnt * std::log(2 * M_PI) + cnt * std::log(F) + cnt * (std::log(sigma2) + 1.0));
    EXPECT_NEAR(lc.as_double(), want_conc, 1e-13);
    EXPECT_NEAR(sc.as_double(), sigma2, 1e-15);
}

TEST(FilterEntryPoints, ArgumentFaults) {
    NoLeak guard;
    {
        Args a;  // nothing at all
        const auto e = testutil::call_error("LgmLik", a);
        EXPECT_EQ(e.number, zu::kErrorMessage);
    }
    {
        Value s2;
        Args a;
        a.push_back(Value::real(1.0));  // not a reference
        a.push_back(Value::ref(s2));
        a.push_back(mat(1, 2, {1, 2}));
        a.push_back(mat(2, 1, {1, 1}));
        a.push_back(mat(2, 2, {1, 0, 0, 1}));
        const auto e = testutil::call_error("LgmLikConc", a);
        EXPECT_EQ(e.number, zu::kErrorType);
    }
    {
        Args a;
        a.push_back(mat(2, 2, {1, 2, 3, 4}));  // y must be N x n with N = 1
        a.push_back(mat(2, 1, {1, 1}));
        a.push_back(mat(2, 2, {1, 0, 0, 1}));
        const auto e = testutil::call_error("KalmanFil", a);
        EXPECT_EQ(e.number, zu::kErrorSize);
    }
}

// ------------------------------------------------------------- recursion

// alpha(t+1) = 0.5 alpha(t) + 1 + u, y(t) = 2 alpha(t) + 3 + u: with zero
// disturbances and a proper start at 4 the path is deterministic.
TEST(LgmRecursionEntry, DeterministicPathAndOffset) {
    NoLeak guard;
    const int n = 6;
    Args a;
    a.push_back(Value::matrix(2, n));  // zero disturbances
    a.push_back(mat(2, 1, {0.5, 2.0}));
    a.push_back(mat(2, 2, {1, 0, 0, 1}));
    a.push_back(mat(2, 1, {1.0, 4.0}));
    a.push_back(mat(2, 1, {1.0, 3.0}));
    Value out = zu::call("LgmRecursion", a);
    ASSERT_EQ(out.rows(), 2);
    ASSERT_EQ(out.cols(), n);
    double alpha = 4.0;
    EXPECT_EQ(out.at(0, 0), 4.0);
    EXPECT_EQ(out.at(1, 0), 0.0);
    for (int t = 0; t + 1 < n; ++t) {
        EXPECT_DOUBLE_EQ(out.at(1, t + 1), 2.0 * alpha + 3.0) << t;  // y(t) in column t+1
        alpha = 0.5 * alpha + 1.0;
        EXPECT_DOUBLE_EQ(out.at(0, t + 1), alpha) << t;
    }
}

TEST(LgmRecursionEntry, InitialStateScaling) {
    NoLeak guard;
    const double kappa = 9999999.99 * 3.0;  // largest VarMat diagonal is 3
    auto run = [&](Value init) {
        Args a;
        a.push_back(mat(3, 2, {0.5, 9, 0.25, 9, 9, 9}));  // u: column 0 starts, column 1 drives
        a.push_back(mat(3, 2, {1, 0, 0, 1, 1, 1}));
        a.push_back(mat(3, 3, {1, 0, 0, 0, 3, 0, 0, 0, 1}));
        if (!init.is_none()) a.push_back(init);
        return zu::call("LgmRecursion", a);
    };
    // No InitMat: s = kappa u (the factor is kappa, not its root).
    Value o = run(Value());
    EXPECT_DOUBLE_EQ(o.at(0, 0), kappa * 0.5);
    EXPECT_DOUBLE_EQ(o.at(1, 0), kappa * 0.25);
    EXPECT_EQ(o.at(2, 0), 0.0);
    // Element 0 diffuse, element 1 proper with row [0.3 2.0]: mean + row u.
    o = run(mat(3, 2, {-1, 0, 0.3, 2.0, 10.0, 20.0}));
    EXPECT_DOUBLE_EQ(o.at(0, 0), 10.0 + kappa * 0.5);
    EXPECT_DOUBLE_EQ(o.at(1, 0), 20.0 + 0.3 * 0.5 + 2.0 * 0.25);
    // Next column: T = I, so the state carries over plus its disturbance.
    EXPECT_DOUBLE_EQ(o.at(0, 1), o.at(0, 0) + 9);
    EXPECT_DOUBLE_EQ(o.at(2, 1), o.at(0, 0) + o.at(1, 0) + 9);
}

TEST(LgmRecursionEntry, SingleColumnAndTimeVarying) {
    NoLeak guard;
    {
        Args a;
        a.push_back(mat(2, 1, {0.5, 7}));
        a.push_back(mat(2, 1, {0.9, 1.0}));
        a.push_back(mat(2, 2, {1, 0, 0, 1}));
        a.push_back(mat(2, 1, {1.0, 2.0}));
        Value o = zu::call("LgmRecursion", a);
        ASSERT_EQ(o.cols(), 1);
        EXPECT_DOUBLE_EQ(o.at(0, 0), 2.0 + 0.5);
        EXPECT_EQ(o.at(1, 0), 0.0);
    }
    {
        // T(t) and the observation intercept from TvData; zero disturbances.
        const int n = 4;
        Args a;
        a.push_back(Value::matrix(2, n));
        a.push_back(mat(2, 1, {0.0, 1.0}));
        a.push_back(mat(2, 2, {1, 0, 0, 1}));
        a.push_back(mat(2, 1, {1.0, 1.0}));
        a.push_back(Value::empty());
        a.push_back(mat(2, 1, {0, -1}));
        a.push_back(Value::empty());
        a.push_back(mat(2, 1, {-1, 1}));
        a.push_back(mat(2, n, {2, 3, 4, 5, 10, 20, 30, 40}));
        Value o = zu::call("LgmRecursion", a);
        double alpha = 1.0;
        for (int t = 0; t + 1 < n; ++t) {
            const double tv_T[] = {2, 3, 4, 5}, tv_d[] = {10, 20, 30, 40};
            EXPECT_DOUBLE_EQ(o.at(1, t + 1), alpha + tv_d[t]);
            alpha *= tv_T[t];
            EXPECT_DOUBLE_EQ(o.at(0, t + 1), alpha);
        }
    }
}

// -------------------------------------------------- allocation failures

// A time-varying model (every index matrix used) so that opening, copying
// and the compact list all allocate.
void push_tv_model(Args &a, int N, int n) {
    const int m = 2, mN = m + N;
    std::vector<double> sys(mN * m, 0.0), var(mN * mN, 0.0);
    sys[0] = 1;
    sys[1] = 1;
    sys[3] = 1;
    for (int i = 0; i < N; ++i) sys[(m + i) * m] = 1.0 + i;
    for (int k = 0; k < mN; ++k) var[k * mN + k] = 1.0;
    std::vector<double> sysidx(mN * m, -1), varidx(mN * mN, -1), meanidx(mN, -1);
    sysidx[0] = 0;
    varidx[(mN - 1) * mN + mN - 1] = 1;
    meanidx[m] = 0;
    std::vector<double> tv(2 * n);
    for (int t = 0; t < n; ++t) {
        tv[t] = 0.9;
        tv[n + t] = 1.0 + 0.1 * t;
    }
    a.push_back(mat(mN, m, sys));
    a.push_back(mat(mN, mN, var));
    a.push_back(mat(m + 1, m, {-1, 0, 0, -1, 0, 0}));
    a.push_back(Value::empty());
    a.push_back(mat(mN, m, sysidx));
    a.push_back(mat(mN, mN, varidx));
    a.push_back(mat(mN, 1, meanidx));
    a.push_back(mat(2, n, tv));
}

std::vector<double> sweep_data(int N, int n) {
    std::vector<double> y(N * n);
    for (int k = 0; k < N * n; ++k) y[k] = std::sin(0.37 * k);
    return y;
}

class FilterAllocationSweep : public ::testing::TestWithParam<int> {};

TEST_P(FilterAllocationSweep, FilterAndLikelihoods) {
    const int N = GetParam(), n = 8;
    Value ll, s2;
    for (const std::string name : {"KalmanFil", "LgmLik", "LgmLikConc"}) {
        const bool lik = name != "KalmanFil";
        const std::string text = name + "(): non-positive semi-definite innovation variance matrix";
        const long sites = testutil::allocation_sweep(
            name,
            [&]() {
                Args a;
                if (lik) {
                    a.push_back(Value::ref(ll));
                    a.push_back(Value::ref(s2));
                }
                a.push_back(mat(N, n, sweep_data(N, n)));
                push_tv_model(a, N, n);
                return a;
            },
            [&](const testutil::SweepStep &s) {
                if (s.threw) {
                    EXPECT_EQ(s.error_number, zu::kErrorMemory) << name << " step " << s.k;
                } else {
                    // A failed allocation inside the filter (the F view)
                    // is reported as a filter failure.
                    ASSERT_EQ(s.messages.size(), 1u) << name << " step " << s.k;
                    EXPECT_EQ(s.messages[0], text);
                    if (lik)
                        EXPECT_EQ(s.result.as_int(), 0);
                    else
                        EXPECT_TRUE(s.result.is_none());
                }
            });
        EXPECT_GE(sites, 5) << name;  // return value, 3 tables, copies, W1, W2
        ll.reset();
        s2.reset();
    }
}

TEST_P(FilterAllocationSweep, Recursion) {
    const int N = GetParam(), n = 8;
    const long sites = testutil::allocation_sweep(
        "LgmRecursion",
        [&]() {
            Args a;
            a.push_back(mat(2 + N, n, std::vector<double>((2 + N) * n, 0.1)));
            push_tv_model(a, N, n);
            return a;
        },
        [&](const testutil::SweepStep &s) {
            EXPECT_TRUE(s.threw) << "step " << s.k;
            EXPECT_EQ(s.error_number, zu::kErrorMemory) << "step " << s.k;
        });
    EXPECT_GE(sites, 6);
}

INSTANTIATE_TEST_SUITE_P(SingleAndMulti, FilterAllocationSweep, ::testing::Values(1, 2));

}  // namespace
