// test_filter_steady.cpp - the filters' steady-state shortcut. For a model
// fixed over time the shortcut replays the variance recursion once it has
// returned to an earlier input bit for bit, so its results must be the full
// recursion's bit for bit: the store, the likelihood pieces, the count and
// the state and variance left in W1. The oracle is the same filter with the
// shortcut switched off; each case also checks that the shortcut was taken
// (or, for time-varying models, that it was not).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "filter_step.h"
#include "tessel/tessel.h"

namespace {

const double kNaN = std::nan("");

// A MatAllocBlock matrix owned by the test.
struct Mat {
    Mat(int r, int c) : rows(r), cols(c), p(MatAllocBlock(r, c > 0 ? c : 1)) {
        for (int i = 0; i < r; ++i)
            for (int j = 0; j < c; ++j) p[i][j] = 0.0;
    }
    ~Mat() { MatFreeBlock(p); }
    Mat(const Mat &) = delete;
    Mat &operator=(const Mat &) = delete;
    double *operator[](int i) const { return p[i]; }
    int rows, cols;
    double **p;
};

bool same_bits(double a, double b) {
    std::uint64_t x, y;
    std::memcpy(&x, &a, sizeof x);
    std::memcpy(&y, &b, sizeof y);
    return x == y;
}

struct Model {
    int m, N;
    std::vector<double> sys, var;  // row-major (m+N) x m, (m+N) x (m+N)
    std::vector<int> varidx;       // empty, or (m+N) x (m+N) rows of tvdata
    std::vector<double> tv;        // one row of n values when varidx is given
};

struct FilterRun {
    int rc = -1, cnt = -7;
    double logdet = 0.0, sumsq = 0.0;
    long steady = 0;
    std::vector<double> store, W1, prediction;
};

FilterRun filter(const Model &md, const std::vector<double> &y, int n, bool allow) {
    const int m = md.m, N = md.N, mN = m + N;
    const int S = N == 1 ? m + 2 : N + N * (N + 1) / 2 + m * N;
    Mat sys(mN, m), var(mN, mN), W1(mN + 1, mN), W2(mN + N + 2, mN), store(S, n), Y(N, n);
    Mat tv(1, n);
    for (int i = 0; i < mN; ++i) {
        for (int j = 0; j < m; ++j) sys[i][j] = md.sys[i * m + j];
        for (int j = 0; j < mN; ++j) var[i][j] = md.var[i * mN + j];
    }
    for (int i = 0; i < N; ++i)
        for (int t = 0; t < n; ++t) Y[i][t] = y[i * n + t];
    std::vector<int> vi(md.varidx);
    std::vector<int *> vrows;
    if (!vi.empty()) {
        for (int i = 0; i < mN; ++i) vrows.push_back(&vi[i * mN]);
        for (int t = 0; t < n; ++t) tv[0][t] = md.tv[t];
    }
    int **varidx = vi.empty() ? nullptr : vrows.data();
    std::vector<double> mean(mN, 0.0);
    mean[m] = 0.25;  // an observation intercept, so the prediction matters
    FilterRun r;
    if (N == 1)
        r.rc = tessel::univ_kalman_filter(n, Y[0], m, sys.p, var.p, mean.data(), nullptr, varidx,
                                          nullptr, varidx ? tv.p : nullptr, nullptr, W1.p, W2.p,
                                          store.p, &r.logdet, &r.sumsq, &r.cnt, allow, &r.steady);
    else
        r.rc = tessel::multi_kalman_filter(N, n, Y.p, m, sys.p, var.p, mean.data(), nullptr, varidx,
                                           nullptr, varidx ? tv.p : nullptr, nullptr, W1.p, W2.p,
                                           store.p, &r.logdet, &r.sumsq, &r.cnt, allow, &r.steady);
    for (int i = 0; i < S; ++i)
        for (int t = 0; t < n; ++t) r.store.push_back(store[i][t]);
    for (int i = 0; i <= mN; ++i)
        for (int j = 0; j < mN; ++j) r.W1.push_back(W1[i][j]);
    for (int j = 0; j < mN; ++j) r.prediction.push_back(W2[mN][j]);
    return r;
}

// Runs with and without the shortcut; everything must agree bit for bit.
// Returns the number of steps the shortcut took.
long expect_same_as_full(const Model &md, const std::vector<double> &y, int n) {
    const FilterRun full = filter(md, y, n, false);
    const FilterRun fast = filter(md, y, n, true);
    EXPECT_EQ(full.steady, 0);
    EXPECT_EQ(full.rc, 1);
    EXPECT_EQ(fast.rc, full.rc);
    EXPECT_EQ(fast.cnt, full.cnt);
    EXPECT_TRUE(same_bits(fast.logdet, full.logdet)) << fast.logdet << " vs " << full.logdet;
    EXPECT_TRUE(same_bits(fast.sumsq, full.sumsq)) << fast.sumsq << " vs " << full.sumsq;
    EXPECT_EQ(fast.store.size(), full.store.size());
    int bad = 0;
    for (std::size_t k = 0; k < full.store.size() && bad < 5; ++k)
        if (!same_bits(fast.store[k], full.store[k])) {
            ++bad;
            ADD_FAILURE() << "store row " << k / n << " column " << k % n << ": " << fast.store[k]
                          << " vs " << full.store[k];
        }
    for (std::size_t k = 0; k < full.W1.size(); ++k)
        EXPECT_TRUE(same_bits(fast.W1[k], full.W1[k])) << "W1 element " << k;
    for (std::size_t k = 0; k < full.prediction.size(); ++k)
        EXPECT_TRUE(same_bits(fast.prediction[k], full.prediction[k])) << "prediction " << k;
    return fast.steady;
}

// Data of N series: random walks plus noise, with single gaps (every
// `gap` steps in series 0) and, for N > 1, a partly and a wholly missing
// time point.
std::vector<double> data(int N, int n, int gap, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> z;
    std::vector<double> y(std::size_t(N) * n);
    for (int i = 0; i < N; ++i) {
        double level = 0.0;
        for (int t = 0; t < n; ++t) {
            level += 0.3 * z(rng);
            y[std::size_t(i) * n + t] = level + z(rng);
        }
    }
    for (int t = gap / 2; gap > 0 && t < n; t += gap) y[t] = kNaN;
    if (N > 1) {
        const int partly = n / 4, wholly = n / 2;
        y[std::size_t(1) * n + partly] = kNaN;
        for (int i = 0; i < N; ++i) y[std::size_t(i) * n + wholly] = kNaN;
    }
    return y;
}

Model local_level() { return {1, 1, {1, 1}, {0.1, 0, 0, 1}, {}, {}}; }

Model arma21() {
    // phi 0.6, -0.2; theta 0.4; no observation noise.
    return {2, 1, {0.6, 1, -0.2, 0, 1, 0}, {1, 0.4, 0, 0.4, 0.16, 0, 0, 0, 0}, {}, {}};
}

// Level + slope + dummy seasonal(12) + irregular (sparse T, m = 13).
Model structural() {
    const int m = 13, p = 14;
    Model md{m, 1, std::vector<double>(p * m, 0.0), std::vector<double>(p * p, 0.0), {}, {}};
    auto S = [&](int i, int j) -> double & { return md.sys[i * m + j]; };
    S(0, 0) = S(0, 1) = S(1, 1) = 1.0;
    for (int j = 2; j < m; ++j) S(2, j) = -1.0;
    for (int j = 3; j < m; ++j) S(j, j - 1) = 1.0;
    S(m, 0) = S(m, 2) = 1.0;
    md.var[0] = 0.1;
    md.var[1 * p + 1] = 0.01;
    md.var[2 * p + 2] = 0.05;
    md.var[m * p + m] = 1.0;
    return md;
}

// N = 3 series on m = 4 states, dense T with a state/observation cross
// covariance.
Model multi() {
    const int m = 4, N = 3, p = 7;
    Model md{m, N, std::vector<double>(p * m), std::vector<double>(p * p, 0.0), {}, {}};
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> u(-0.2, 0.2);
    for (int i = 0; i < p; ++i)
        for (int j = 0; j < m; ++j)
            md.sys[i * m + j] = u(rng) + (i == j ? 0.6 : 0.0) + (i >= m && j == i - m ? 1.0 : 0.0);
    for (int i = 0; i < p; ++i) md.var[i * p + i] = i < m ? 0.3 : 1.0;
    md.var[0 * p + m] = md.var[m * p + 0] = 0.1;
    return md;
}

TEST(FilterSteadyState, LocalLevelWithGapsMatchesFullRecursion) {
    const int n = 5000;
    const long steady = expect_same_as_full(local_level(), data(1, n, 97, 1), n);
    EXPECT_GT(steady, n / 4) << "the shortcut should carry a good part of the run";
}

// Gaps at random, some close together: paths recorded after a gap from the
// cycle are replayed, cut short by the next gap, or dropped when a second
// gap comes before they close; all of it must stay exact.
std::vector<double> with_random_gaps(std::vector<double> y, double share, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (double &x : y)
        if (u(rng) < share) x = kNaN;
    return y;
}

TEST(FilterSteadyState, SmallModelsWithRandomGapsMatchFullRecursion) {
    const int n = 20000;
    for (double share : {0.003, 0.01, 0.05}) {
        SCOPED_TRACE(share);
        // With gaps every 20 steps on average few runs reach the cycle.
        const long floor = share <= 0.01 ? n / 5 : 0;
        const long ll =
            expect_same_as_full(local_level(), with_random_gaps(data(1, n, 0, 6), share, 7), n);
        EXPECT_GT(ll, floor);
        const long arma =
            expect_same_as_full(arma21(), with_random_gaps(data(1, n, 0, 8), share, 9), n);
        EXPECT_GT(arma, floor);
    }
}

TEST(FilterSteadyState, ArmaWithoutObservationNoiseMatchesFullRecursion) {
    const int n = 3000;
    const long steady = expect_same_as_full(arma21(), data(1, n, 301, 2), n);
    EXPECT_GT(steady, n / 2);
}

// Companion form of an AR(5) observed with noise: the general (not
// unrolled) path of the single-series filter, with a sparse SysMat.
Model ar5_with_noise() {
    const int m = 5, p = 6;
    Model md{m, 1, std::vector<double>(p * m, 0.0), std::vector<double>(p * p, 0.0), {}, {}};
    const double phi[m] = {0.5, -0.2, 0.1, 0.05, -0.05};
    for (int j = 0; j < m; ++j) md.sys[0 * m + j] = phi[j];
    for (int j = 1; j < m; ++j) md.sys[j * m + j - 1] = 1.0;
    md.sys[m * m + 0] = 1.0;
    md.var[0] = 1.0;
    md.var[m * p + m] = 0.5;
    return md;
}

TEST(FilterSteadyState, SparseAutoregressionMatchesFullRecursion) {
    const int n = 4000;
    const long steady = expect_same_as_full(ar5_with_noise(), data(1, n, 997, 3), n);
    EXPECT_GT(steady, n / 2);
}

// A level + slope + seasonal model converges slowly and its rounding
// wanders without settling into a short cycle: the shortcut is rarely
// taken, and whatever it takes must still be exact.
TEST(FilterSteadyState, StructuralModelMatchesFullRecursion) {
    const int n = 6000;
    expect_same_as_full(structural(), data(1, n, 2500, 3), n);
}

TEST(FilterSteadyState, MultivariateWithPartlyAndWhollyMissingTimesMatchesFullRecursion) {
    const int n = 3000;
    const long steady = expect_same_as_full(multi(), data(3, n, 0, 4), n);
    EXPECT_GT(steady, n / 2);
}

TEST(FilterSteadyState, TimeVaryingVarianceNeverTakesTheShortcut) {
    const int n = 800;
    for (int N : {1, 3}) {
        Model md = N == 1 ? local_level() : multi();
        const int mN = md.m + N;
        md.varidx.assign(std::size_t(mN) * mN, -1);
        md.varidx[std::size_t(md.m) * mN + md.m] = 0;  // first observation variance
        md.tv.assign(n, 1.0);                          // constant values, still time-varying
        const FilterRun r = filter(md, data(N, n, 0, 5), n, true);
        EXPECT_EQ(r.rc, 1);
        EXPECT_EQ(r.steady, 0) << "N = " << N;
        expect_same_as_full(md, data(N, n, 0, 5), n);
    }
}

}  // namespace
