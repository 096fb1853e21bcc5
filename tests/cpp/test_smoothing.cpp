// test_smoothing.cpp - the smoothing recursions, the prediction pass and
// their entry points KalmanSmo, LgmMomentEst and LgmLikSco: structural
// properties (exact symmetry of the score, the start column, T = 0, the
// off-diagonal store only for m > 1, the output written over the prediction
// in place), the single-series routines against the multivariate ones with
// N = 1 including their documented differences, the failure reports with
// their exact texts, and the leak check and allocation-failure sweeps.
//
// Numerical agreement with the joint-Gaussian oracle and statsmodels is
// tested from Python (tests/python/test_smoothing.py).
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
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

const char *const kMomentMsg =
    "LgmMomentEst(): non-positive semi-definite innovation variance matrix";
const char *const kScoreMsg = "LgmLikSco(): non-positive semi-definite innovation matrix";
const char *const kSelectionMsg = "LgmMomentEst(): no valid selection in first argument";

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

private:
    int rows_, cols_;
    double **p_;
};

// -------------------------------------------------------------- models

// Two states, N series: a damped trend with correlated disturbances and a
// proper initial state.
struct Model {
    int m = 2, N = 1;
    std::vector<double> sys, var, init;
};

Model make_model(int N) {
    Model md;
    md.N = N;
    const int m = md.m, mN = m + N;
    md.sys = {0.8, 0.3, 0.0, 0.6};
    for (int i = 0; i < N; ++i) {
        md.sys.push_back(1.0);
        md.sys.push_back(0.4 * i);
    }
    md.var.assign(mN * mN, 0.0);
    for (int k = 0; k < mN; ++k) md.var[k * mN + k] = 0.5 + 0.1 * k;
    md.var[0 * mN + 1] = md.var[1 * mN + 0] = 0.1;
    md.var[0 * mN + m] = md.var[m * mN + 0] = 0.05;
    if (N > 1) md.var[m * mN + m + 1] = md.var[(m + 1) * mN + m] = 0.2;
    md.init = {1.0, 0.0, 0.2, 0.7, 0.3, -0.1};
    return md;
}

std::vector<double> data(int N, int n, std::vector<std::pair<int, int>> missing = {}) {
    std::vector<double> y(N * n);
    for (int k = 0; k < N * n; ++k) y[k] = std::sin(0.37 * k) + 0.1 * k;
    for (auto [i, t] : missing) y[i * n + t] = kNaN;
    return y;
}

void push_model(Args &a, const Model &md) {
    const int mN = md.m + md.N;
    a.push_back(mat(mN, md.m, md.sys));
    a.push_back(mat(mN, mN, md.var));
    a.push_back(mat(md.m + 1, md.m, md.init));
}

// Forward store of the model by the multivariate routine (any N), through
// the prediction pass, as the smoothers read it.
struct Forward {
    int S = 0;
    std::vector<double> store, moments, offdiag;
};

// Runs fMultiStatePred (univ = false) or fUnivStatePred on the model.
int run_pred(bool univ, int filtered, const Model &md, int n, const std::vector<double> &y,
             HostMat &store, HostMat &moments, HostMat &offdiag) {
    const int m = md.m, N = md.N, mN = m + N;
    HostMat sys(mN, m, md.sys), var(mN, mN, md.var), init(m + 1, m, md.init);
    HostMat W1(mN + 1, mN), W2(mN + N + 2, mN), Y(N, n, y);
    if (univ)
        return fUnivStatePred(filtered, n, Y[0], m, sys.get(), var.get(), W2[mN + 1], nullptr,
                              nullptr, nullptr, nullptr, init.get(), W1.get(), W2.get(),
                              store.get(), moments.get(), offdiag.get());
    return fMultiStatePred(filtered, N, n, Y.get(), m, sys.get(), var.get(), W2[mN + 1], nullptr,
                           nullptr, nullptr, nullptr, init.get(), W1.get(), W2.get(), store.get(),
                           moments.get(), offdiag.get());
}

// ------------------------------------------- single-series vs multivariate

// With N = 1 and no missing value, the multivariate routines run the same
// arithmetic as the single-series ones: prediction, smoothing output and
// score agree to rounding.
TEST(UnivMultiAgreement, PredictionKalmanSmoAndScore) {
    NoLeak guard;
    const Model md = make_model(1);
    const int n = 7, m = 2, mN = 3, S = 4;
    const std::vector<double> y = data(1, n);
    HostMat st_u(S, n), st_m(S, n), mo_u(2 * mN, n), mo_m(2 * mN, n), off_u(1, n), off_m(1, n);
    ASSERT_EQ(run_pred(true, 0, md, n, y, st_u, mo_u, off_u), 1);
    ASSERT_EQ(run_pred(false, 0, md, n, y, st_m, mo_m, off_m), 1);
    for (int t = 0; t < n; ++t) {
        for (int r = 0; r < S; ++r) EXPECT_NEAR(st_u[r][t], st_m[r][t], 1e-13) << r << "," << t;
        for (int r = 0; r < 2 * mN; ++r) EXPECT_NEAR(mo_u[r][t], mo_m[r][t], 1e-13);
        EXPECT_NEAR(off_u[0][t], off_m[0][t], 1e-13);
    }

    HostMat sys(mN, m, md.sys), W1(mN + 1, mN), W2(mN + 1, mN);
    HostMat Su(mN, mN), Sm(mN, mN), out_u(2 * mN, n + 1), out_m(2 * mN, n + 1);
    UnivKalmanSmo(n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st_u.get(), Su.get(),
                  out_u.get());
    MultiKalmanSmo(1, n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st_u.get(), Sm.get(),
                   out_m.get());
    for (int i = 0; i < mN; ++i) {
        for (int j = 0; j < mN; ++j) EXPECT_NEAR(Su[i][j], Sm[i][j], 1e-12);
        for (int t = 0; t <= n; ++t) {
            EXPECT_NEAR(out_u[i][t], out_m[i][t], 1e-12);
            EXPECT_NEAR(out_u[mN + i][t], out_m[mN + i][t], 1e-12);
        }
    }
}

// The documented difference at a missing observation: the single-series
// smoother forces u(t) = 0, the multivariate one multiplies the stored NaN
// innovation by the zero inverse variance and the NaN runs backwards.
TEST(UnivMultiAgreement, MissingObservationZeroVersusNaN) {
    NoLeak guard;
    const Model md = make_model(1);
    const int n = 6, m = 2, mN = 3, S = 4, t0 = 3;
    HostMat st(S, n), mo(2 * mN, n), off(1, n);
    ASSERT_EQ(run_pred(true, 0, md, n, data(1, n, {{0, t0}}), st, mo, off), 1);
    ASSERT_TRUE(std::isnan(st[0][t0]));

    HostMat sys(mN, m, md.sys), W1(mN + 1, mN), W2(mN + 1, mN);
    HostMat out_u(2 * mN, n + 1), out_m(2 * mN, n + 1);
    UnivKalmanSmo(n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st.get(), nullptr,
                  out_u.get());
    MultiKalmanSmo(1, n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st.get(), nullptr,
                   out_m.get());
    EXPECT_EQ(out_u[m][t0 + 1], 0.0);
    EXPECT_EQ(out_u[2 * mN - 1][t0 + 1], 0.0);
    // r(t0-1) = T' r(t0) when nothing is observed at t0.
    for (int k = 0; k < m; ++k) {
        double want = 0.0;
        for (int j = 0; j < m; ++j) want += md.sys[j * m + k] * out_u[j][t0 + 1];
        EXPECT_NEAR(out_u[k][t0], want, 1e-14);
    }
    EXPECT_TRUE(std::isnan(out_m[m][t0 + 1]));
    for (int t = 0; t <= t0; ++t)
        for (int k = 0; k < m; ++k) EXPECT_TRUE(std::isnan(out_m[k][t])) << k << "," << t;
    for (int t = t0 + 2; t <= n; ++t)
        for (int k = 0; k < m; ++k) EXPECT_EQ(out_m[k][t], out_u[k][t]);
    // Variances (N and D) carry no NaN in either routine.
    for (int t = 0; t <= n; ++t)
        for (int i = mN; i < 2 * mN; ++i) EXPECT_NEAR(out_m[i][t], out_u[i][t], 1e-13);
}

// The filtered state variance rows of the two prediction routines differ by
// design: the single-series routine subtracts (P Z')_k F^-1 (Z P T')_k, the
// multivariate one the textbook (P Z' F^-1 Z P)_kk. Means and the predicted
// columns agree.
TEST(UnivMultiAgreement, FilteredStateVarianceFormulasDiffer) {
    NoLeak guard;
    const Model md = make_model(1);
    const int n = 5, mN = 3, S = 4;
    const std::vector<double> y = data(1, n);
    HostMat st_u(S, n), st_m(S, n), mo_u(2 * mN, n), mo_m(2 * mN, n), off_u(1, n), off_m(1, n);
    ASSERT_EQ(run_pred(true, 1, md, n, y, st_u, mo_u, off_u), 1);
    ASSERT_EQ(run_pred(false, 1, md, n, y, st_m, mo_m, off_m), 1);
    double gap = 0.0;
    for (int t = 0; t < n; ++t) {
        for (int r : {0, 1, 2}) EXPECT_NEAR(mo_u[r][t], mo_m[r][t], 1e-13);
        for (int r : {3, 4}) gap = std::fmax(gap, std::fabs(mo_u[r][t] - mo_m[r][t]));
    }
    EXPECT_GT(gap, 1e-3);
}

// ------------------------------------------------------------ structure

// S is accumulated over the upper triangle and mirrored: exactly symmetric.
// Its diagonal is the sum over time of u~_i^2 - D~_ii, which KalmanSmo's
// output lists column by column.
TEST(Structure, ScoreIsExactlySymmetricAndMatchesTheOutputDiagonal) {
    NoLeak guard;
    for (int N : {1, 2}) {
        const Model md = make_model(N);
        const int n = 8, mN = md.m + N;
        const std::vector<double> y = data(N, n, {{0, 2}});
        Value ll, sc;
        Args a{Value::ref(ll), Value::ref(sc), mat(N, n, y)};
        push_model(a, md);
        ASSERT_EQ(zu::call("LgmLikSco", a).as_int(), 1);
        ASSERT_EQ(sc.rows(), mN);
        ASSERT_EQ(sc.cols(), mN);
        for (int i = 0; i < mN; ++i)
            for (int j = 0; j < i; ++j) EXPECT_EQ(sc.at(i, j), sc.at(j, i)) << N;

        Args f{mat(N, n, y)};
        push_model(f, md);
        Value store = zu::call("KalmanFil", f);
        Args s{store};
        push_model(s, md);
        Value out = zu::call("KalmanSmo", s);
        ASSERT_EQ(out.rows(), 2 * mN);
        ASSERT_EQ(out.cols(), n + 1);
        for (int i = 0; i < mN; ++i) {
            double want = 0.0;
            for (int t = 1; t <= n; ++t) want += out.at(i, t) * out.at(i, t) - out.at(mN + i, t);
            EXPECT_NEAR(sc.at(i, i), want, 1e-12 * (1.0 + std::fabs(want))) << N << " " << i;
        }
    }
}

TEST(Structure, NoTimePointsGiveOneZeroStartColumn) {
    NoLeak guard;
    for (int N : {1, 2}) {
        const Model md = make_model(N);
        const int mN = md.m + N, S = N + N * (N + 1) / 2 + md.m * N;
        Args a{Value::matrix(S, 0)};
        push_model(a, md);
        Value out = zu::call("KalmanSmo", a);
        ASSERT_EQ(out.rows(), 2 * mN);
        ASSERT_EQ(out.cols(), 1);
        for (int i = 0; i < 2 * mN; ++i) EXPECT_EQ(out.at(i, 0), 0.0);
    }
}

// The start column holds r and diag N before the first time point in the
// state rows and zeros in the observation rows; LgmMomentEst's return value
// for the smoothing selections is N over r' at the same point.
TEST(Structure, StartColumnAndMomentReturnValue) {
    NoLeak guard;
    const Model md = make_model(2);
    const int n = 6, m = 2, N = 2, mN = 4;
    const std::vector<double> y = data(N, n);
    Args f{mat(N, n, y)};
    push_model(f, md);
    Value store = zu::call("KalmanFil", f);
    Args s{store};
    push_model(s, md);
    Value out = zu::call("KalmanSmo", s);
    for (int i = m; i < mN; ++i) {
        EXPECT_EQ(out.at(i, 0), 0.0);
        EXPECT_EQ(out.at(mN + i, 0), 0.0);
    }
    for (int sel : {1, 3}) {
        Value mom;
        Args a{Value::integer(sel), Value::ref(mom), mat(N, n, y)};
        push_model(a, md);
        Value ret = zu::call("LgmMomentEst", a);
        ASSERT_EQ(ret.rows(), m + 1);
        ASSERT_EQ(ret.cols(), m);
        ASSERT_EQ(mom.rows(), 2 * mN);
        ASSERT_EQ(mom.cols(), n);
        for (int k = 0; k < m; ++k) {
            EXPECT_NEAR(ret.at(m, k), out.at(k, 0), 1e-13) << sel;
            EXPECT_NEAR(ret.at(k, k), out.at(mN + k, 0), 1e-13) << sel;
        }
        EXPECT_EQ(ret.at(0, 1), ret.at(1, 0));
    }
}

// The state smoother reads each column of the prediction before writing it:
// writing over the prediction matrix gives what a separate output gets.
TEST(Structure, StateSmootherInPlaceEqualsSeparateOutput) {
    NoLeak guard;
    for (int N : {1, 2}) {
        const Model md = make_model(N);
        const int n = 6, m = 2, mN = m + N, S = N + N * (N + 1) / 2 + m * N;
        const std::vector<double> y = data(N, n, {{N - 1, 2}});
        HostMat st(S, n), pred(2 * mN, n), off(1, n);
        ASSERT_EQ(run_pred(N == 1, 0, md, n, y, st, pred, off), 1);
        HostMat copy(2 * mN, n), sep(2 * mN, n);
        for (int r = 0; r < 2 * mN; ++r)
            for (int t = 0; t < n; ++t) copy[r][t] = pred[r][t];
        HostMat sys(mN, m, md.sys), W1(mN + 1, mN), W2(mN + 1, mN);
        if (N == 1) {
            UnivStateSmo(n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st.get(),
                         copy.get(), off.get(), sep.get());
            UnivStateSmo(n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st.get(),
                         pred.get(), off.get(), pred.get());
        } else {
            MultiStateSmo(N, n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st.get(),
                          copy.get(), off.get(), sep.get());
            MultiStateSmo(N, n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st.get(),
                          pred.get(), off.get(), pred.get());
        }
        for (int r = 0; r < 2 * mN; ++r)
            for (int t = 0; t < n; ++t)
                EXPECT_EQ(pred[r][t], sep[r][t]) << N << " " << r << "," << t;
    }
}

// Selection 1 allocates the off-diagonal store only when m(m-1)/2 > 0: with
// m = 1 it makes as many host allocations as selection 0, with m = 2 one
// more. Both succeed.
TEST(Structure, OffDiagonalStoreOnlyForMoreThanOneState) {
    NoLeak guard;
    auto attempts = [](int sel, bool one_state) {
        Value mom;
        Args a{Value::integer(sel), Value::ref(mom), mat(1, 5, data(1, 5))};
        if (one_state) {
            a.push_back(mat(2, 1, {0.9, 1.0}));
            a.push_back(mat(2, 2, {0.5, 0.0, 0.0, 1.0}));
            a.push_back(mat(2, 1, {1.0, 0.0}));
        } else {
            push_model(a, make_model(1));
        }
        const long before = zu::allocation_attempts();
        Value ret = zu::call("LgmMomentEst", a);
        EXPECT_FALSE(ret.is_none());
        EXPECT_EQ(mom.rows(), one_state ? 4 : 6);
        return zu::allocation_attempts() - before;
    };
    EXPECT_EQ(attempts(1, true), attempts(0, true));
    EXPECT_EQ(attempts(1, false), attempts(0, false) + 1);
}

// --------------------------------------------------- entry point behaviour

// No time points: the prediction pass records nothing and leaves the initial
// state, so selections 0 and 5 return InitMat's P (kappa on the diffuse
// diagonal) over its a; the backward selections start from and return zeros.
// The covariance of the diffuse state 0 with the later proper state 1 is
// still written from InitMat's lower triangle (the initial rows are read in
// order, and a proper row fills the column of an earlier diffuse one).
TEST(MomentEst, NoTimePoints) {
    NoLeak guard;
    const double kappa = 9999999.99;
    for (int sel : {0, 5, 1, 3}) {
        Value mom;
        Args a{Value::integer(sel), Value::ref(mom), Value::matrix(2, 0)};
        a.push_back(mat(4, 2, {0.8, 0.3, 0.0, 0.6, 1.0, 0.0, 0.0, 1.0}));
        a.push_back(mat(4, 4, {0.5, 0, 0, 0, 0, 0.5, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}));
        a.push_back(mat(3, 2, {-1.0, 0.0, 0.3, 0.7, 0.25, -0.5}));
        Value ret = zu::call("LgmMomentEst", a);
        ASSERT_EQ(mom.rows(), 8);
        EXPECT_EQ(mom.cols(), 0);
        const bool forward = sel == 0 || sel == 5;
        const std::vector<double> want =
            forward ? std::vector<double>{kappa, 0.3, 0.3, 0.7, 0.25, -0.5}
                    : std::vector<double>(6, 0.0);
        EXPECT_EQ(ret.to_vector(), want) << sel;
    }
}

TEST(EntryPoints, ArgumentFaults) {
    NoLeak guard;
    const Model md = make_model(2);
    {
        Args a{Value::matrix(5, 4)};  // a store needs 2 + 3 + 4 = 9 rows
        push_model(a, md);
        EXPECT_EQ(testutil::call_error("KalmanSmo", a).number, zu::kErrorSize);
    }
    {
        Value mom;
        Args a{Value::integer(1), Value::ref(mom), mat(1, 4, {1, 2, 3, 4})};  // N = 2 rows needed
        push_model(a, md);
        EXPECT_EQ(testutil::call_error("LgmMomentEst", a).number, zu::kErrorSize);
        EXPECT_TRUE(mom.is_none());
    }
    {
        Value ll, sc;
        Args a{Value::ref(ll), Value::ref(sc), mat(2, 3, {1, 2, 3, 4, 5, 6})};
        a.push_back(mat(2, 2, {1, 0, 0, 1}));  // SysMat square: N = 0
        a.push_back(mat(2, 2, {1, 0, 0, 1}));
        const auto e = testutil::call_error("LgmLikSco", a);
        EXPECT_EQ(e.number, zu::kErrorMessage);
        EXPECT_EQ(e.text, "\nLgm(): number of rows or columns not correct in argument 2\n");
        EXPECT_TRUE(sc.is_none());
    }
}


TEST(MomentEst, ByValueSecondArgumentGivesOnlyTheReturnValue) {
    NoLeak guard;
    const Model md = make_model(2);
    const int n = 5;
    for (int sel : {0, 5, 1, 3}) {
        Value mom;
        Args a{Value::integer(sel), Value::ref(mom), mat(2, n, data(2, n))};
        push_model(a, md);
        Value want = zu::call("LgmMomentEst", a);
        Args b{Value::integer(sel), Value::integer(7), mat(2, n, data(2, n))};
        push_model(b, md);
        Value got = zu::call("LgmMomentEst", b);
        EXPECT_EQ(b[1].type(), ZU_INT);
        EXPECT_EQ(b[1].as_int(), 7);
        ASSERT_EQ(got.rows(), 3);
        EXPECT_EQ(got.to_vector(), want.to_vector()) << sel;
    }
}

TEST(MomentEst, InvalidSelection) {
    NoLeak guard;
    for (int sel : {2, 4, 6, -1}) {
        Value mom = Value::integer(3);
        Args a{Value::integer(sel), Value::ref(mom), mat(1, 3, {1, 2, 3})};
        push_model(a, make_model(1));
        const auto e = testutil::call_error("LgmMomentEst", a);
        EXPECT_EQ(e.number, zu::kErrorMessage);
        EXPECT_EQ(e.text, kSelectionMsg);
        EXPECT_EQ(mom.type(), ZU_INT) << "untouched";
    }
}

// Singular F in the multivariate pass (two identical noiseless series of
// one fixed state), F = 0 in the single-series pass: the return value and
// the moments are freed and the message is printed unless messages are off.
TEST(MomentEst, NonPositiveInnovationVarianceReports) {
    NoLeak guard;
    auto singular = [](Args &a, int N) {
        if (N == 2) {
            a.push_back(mat(3, 1, {1, 1, 1}));
            a.push_back(mat(3, 3, {0, 0, 0, 0, 0, 0, 0, 0, 0}));
            a.push_back(mat(2, 1, {1, 0}));
        } else {
            a.push_back(mat(2, 1, {1, 1}));
            a.push_back(mat(2, 2, {0, 0, 0, 0}));
            a.push_back(mat(2, 1, {0, 0}));
        }
    };
    for (int N : {1, 2})
        for (int sel : {0, 5, 1, 3}) {
            Value mom = Value::integer(-3);
            const std::vector<double> ones(N * 3, 1.0);
            Args a{Value::integer(sel), Value::ref(mom), mat(N, 3, ones)};
            singular(a, N);
            {
                MessageCapture cap;
                Value r = zu::call("LgmMomentEst", a);
                EXPECT_TRUE(r.is_none());
                EXPECT_TRUE(mom.is_none()) << "moments freed";
                ASSERT_EQ(cap.messages.size(), 1u);
                EXPECT_EQ(cap.messages[0], kMomentMsg);
            }
            {
                testutil::MessagesOff off;
                MessageCapture cap;
                Args b{Value::integer(sel), Value::ref(mom), mat(N, 3, ones)};
                singular(b, N);
                EXPECT_TRUE(zu::call("LgmMomentEst", b).is_none());
                EXPECT_TRUE(cap.messages.empty());
            }
        }
}

// All data missing: the filter fails (cnt < 1); the score is freed, the
// log-likelihood and dSumSq references keep their values, the call returns
// 0 and prints its message (unless messages are off).
TEST(LikSco, AllMissingFailsAndFreesTheScore) {
    NoLeak guard;
    for (int N : {1, 2})
        for (bool three : {false, true}) {
            Value ll = Value::integer(-1), s2 = Value::integer(-2), sc = Value::integer(-3);
            auto args = [&]() {
                Args a{Value::ref(ll)};
                if (three) a.push_back(Value::ref(s2));
                a.push_back(Value::ref(sc));
                a.push_back(mat(N, 4, std::vector<double>(N * 4, kNaN)));
                push_model(a, make_model(N));
                return a;
            };
            {
                MessageCapture cap;
                Args a = args();
                EXPECT_EQ(zu::call("LgmLikSco", a).as_int(), 0);
                ASSERT_EQ(cap.messages.size(), 1u);
                EXPECT_EQ(cap.messages[0], kScoreMsg);
            }
            EXPECT_TRUE(sc.is_none());
            EXPECT_EQ(ll.type(), ZU_INT);
            EXPECT_EQ(s2.type(), ZU_INT);
            {
                testutil::MessagesOff off;
                MessageCapture cap;
                Args a = args();
                EXPECT_EQ(zu::call("LgmLikSco", a).as_int(), 0);
                EXPECT_TRUE(cap.messages.empty());
            }
        }
}

TEST(LikSco, FormsAndArgumentFaults) {
    NoLeak guard;
    const Model md = make_model(2);
    const int n = 6;
    Value ll2, sc2, ll3, s23, sc3;
    Args a{Value::ref(ll2), Value::ref(sc2), mat(2, n, data(2, n))};
    push_model(a, md);
    ASSERT_EQ(zu::call("LgmLikSco", a).as_int(), 1);
    Args b{Value::ref(ll3), Value::ref(s23), Value::ref(sc3), mat(2, n, data(2, n))};
    push_model(b, md);
    ASSERT_EQ(zu::call("LgmLikSco", b).as_int(), 1);
    EXPECT_EQ(ll2.as_double(), ll3.as_double());
    EXPECT_EQ(sc2.to_vector(), sc3.to_vector());
    // The log-likelihood is LgmLik's, and dSumSq its scale.
    Value ll, s2;
    Args c{Value::ref(ll), Value::ref(s2), mat(2, n, data(2, n))};
    push_model(c, md);
    ASSERT_EQ(zu::call("LgmLik", c).as_int(), 1);
    EXPECT_EQ(ll.as_double(), ll3.as_double());
    EXPECT_EQ(s2.as_double(), s23.as_double());

    Args d{Value::real(0.0), Value::ref(sc2), mat(2, n, data(2, n))};
    push_model(d, md);
    EXPECT_EQ(testutil::call_error("LgmLikSco", d).number, zu::kErrorType);
}

// ----------------------------------------------- allocation-failure sweeps

// Fails allocation k = 1, 2, ... of one call until a call completes without
// meeting the failure. `targets` are the variables the reference arguments
// name: they are emptied after every step, before the leak check, so that
// the check sees exactly what the library left behind. Returns the number
// of allocation sites met.
long sweep(const std::string &name, std::vector<Value> &targets,
           const std::function<Args()> &make_args,
           const std::function<void(bool threw, int number, const std::string &text,
                                    const std::vector<std::string> &msgs, Value &result)> &check) {
    long k = 1;
    for (; k < 500; ++k) {
        const long before = zu::live_allocations().total();
        bool delivered;
        {
            Args args = make_args();
            MessageCapture cap;
            Value result;
            bool threw = false;
            int number = -1;
            std::string text;
            zu::fail_allocation(k);
            try {
                result = zu::call(name, args);
            } catch (const zu::Error &e) {
                threw = true;
                number = e.number();
                text = e.what();
            }
            delivered = zu::injected_failure_delivered();
            zu::fail_allocation(0);
            if (delivered) check(threw, number, text, cap.messages, result);
        }
        for (Value &v : targets) v.reset();
        EXPECT_EQ(zu::live_allocations().total(), before)
            << name << ": leak failing allocation " << k;
        if (!delivered) break;
    }
    EXPECT_LT(k, 500);
    return k - 1;
}

// Time-varying model (SysIdx, VarIdx) so that opening and copying allocate.
void push_tv_model(Args &a, int N, int n) {
    const Model md = make_model(N);
    const int m = md.m, mN = m + N;
    push_model(a, md);
    a.push_back(Value::empty());
    std::vector<double> sysidx(mN * m, -1), varidx(mN * mN, -1), tv(2 * n);
    sysidx[0] = 0;
    varidx[(mN - 1) * mN + mN - 1] = 1;
    for (int t = 0; t < n; ++t) {
        tv[t] = 0.7 + 0.02 * t;
        tv[n + t] = 0.5 + 0.1 * t;
    }
    a.push_back(mat(mN, m, sysidx));
    a.push_back(mat(mN, mN, varidx));
    a.push_back(Value::empty());
    a.push_back(mat(2, n, tv));
}

class SmoothingSweep : public ::testing::TestWithParam<int> {};

TEST_P(SmoothingSweep, KalmanSmo) {
    const int N = GetParam(), n = 6;
    Args f{mat(N, n, data(N, n, {{0, 2}}))};
    push_tv_model(f, N, n);
    const Value store = zu::call("KalmanFil", f);
    std::vector<Value> none;
    const long sites = sweep(
        "KalmanSmo", none,
        [&]() {
            Args a{store};
            push_tv_model(a, N, n);
            return a;
        },
        [&](bool threw, int number, const std::string &, const std::vector<std::string> &,
            Value &) {
            EXPECT_TRUE(threw);
            EXPECT_EQ(number, zu::kErrorMemory);
        });
    EXPECT_GE(sites, 6);  // return value, 2 tables, 2 copies, W1, W2
}

TEST_P(SmoothingSweep, LgmMomentEst) {
    const int N = GetParam(), n = 6;
    for (int sel : {0, 5, 1, 3})
        for (bool by_ref : {true, false}) {
            std::vector<Value> targets(1);
            bool pass_failure_seen = false;
            const long sites = sweep(
                "LgmMomentEst", targets,
                [&]() {
                    Args a{Value::integer(sel),
                           by_ref ? Value::ref(targets[0]) : Value::integer(0),
                           mat(N, n, data(N, n, {{N - 1, 3}}))};
                    push_tv_model(a, N, n);
                    return a;
                },
                [&](bool threw, int number, const std::string &,
                    const std::vector<std::string> &msgs, Value &result) {
                    EXPECT_TRUE(result.is_none()) << sel;
                    EXPECT_TRUE(targets[0].is_none()) << "moments freed, selection " << sel;
                    if (threw) {
                        EXPECT_EQ(number, zu::kErrorMemory);
                    } else {
                        // Inside the multivariate pass (F view, filtered
                        // scratch): reported as the pass's failure.
                        EXPECT_EQ(N, 2);
                        ASSERT_EQ(msgs.size(), 1u);
                        EXPECT_EQ(msgs[0], kMomentMsg);
                        pass_failure_seen = true;
                    }
                });
            EXPECT_GE(sites, 7) << sel;
            EXPECT_EQ(pass_failure_seen, N == 2) << sel;
        }
}

TEST_P(SmoothingSweep, LgmLikSco) {
    const int N = GetParam(), n = 6;
    for (bool three : {false, true}) {
        std::vector<Value> targets(3);
        bool score_message_seen = false;
        const long sites = sweep(
            "LgmLikSco", targets,
            [&]() {
                Args a{Value::ref(targets[0])};
                if (three) a.push_back(Value::ref(targets[1]));
                a.push_back(Value::ref(targets[2]));
                a.push_back(mat(N, n, data(N, n, {{0, 1}})));
                push_tv_model(a, N, n);
                return a;
            },
            [&](bool threw, int number, const std::string &text,
                const std::vector<std::string> &msgs, Value &result) {
                EXPECT_TRUE(targets[2].is_none()) << "score freed";
                EXPECT_TRUE(targets[0].is_none()) << "log-likelihood not written";
                if (threw) {
                    // The score matrix itself has its own message; every
                    // other allocation is error 4.
                    if (number == zu::kErrorMessage) {
                        EXPECT_EQ(text, "LgmLikSco(): memory allocation failure");
                        score_message_seen = true;
                    } else {
                        EXPECT_EQ(number, zu::kErrorMemory);
                    }
                } else {
                    EXPECT_EQ(result.as_int(), 0);
                    EXPECT_EQ(N, 2);  // the filter's F view
                    ASSERT_EQ(msgs.size(), 1u);
                    EXPECT_EQ(msgs[0], kScoreMsg);
                }
            });
        EXPECT_GE(sites, 7);
        EXPECT_TRUE(score_message_seen);
    }
}

INSTANTIATE_TEST_SUITE_P(SingleAndMulti, SmoothingSweep, ::testing::Values(1, 2));

}  // namespace
