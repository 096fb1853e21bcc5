// test_smoothing.cpp - the smoothing recursions, the prediction pass and
// their entry points KalmanSmo, LgmMomentEst and LgmLikSco: structural
// properties (exact symmetry of the score, the start column, the off-diagonal
// store only for m > 1, the output written over the prediction in place),
// the single-series routines against the multivariate ones with N = 1
// including their documented differences, the failure reports with their
// exact texts, and the allocation-failure sweeps of LgmMomentEst and
// LgmLikSco with what they must free (KalmanSmo's sweep, with the other
// entry points', is in test_reliability.cpp).
//
// Numerical agreement with the joint-Gaussian oracle and statsmodels is
// tested from Python (tests/python/test_smoothing.py).
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "tessel/tessel.h"
#include "test_util.h"

namespace {

using namespace testutil;

const char *const kMomentMsg =
    "LgmMomentEst(): non-positive semi-definite innovation variance matrix";
const char *const kScoreMsg = "LgmLikSco(): non-positive semi-definite innovation matrix";

// Two states, N series: a damped trend with correlated disturbances and a
// proper initial state.
LgmModel make_model(int N) {
    LgmModel md;
    md.m = 2;
    md.N = N;
    const int m = 2, mN = m + N;
    md.sys = {0.8, 0.3, 0.0, 0.6};
    for (int i = 0; i < N; ++i) md.sys.insert(md.sys.end(), {1.0, 0.4 * i});
    md.var.assign(mN * mN, 0.0);
    for (int k = 0; k < mN; ++k) md.var[k * mN + k] = 0.5 + 0.1 * k;
    md.var[0 * mN + 1] = md.var[1 * mN + 0] = 0.1;
    md.var[0 * mN + m] = md.var[m * mN + 0] = 0.05;
    if (N > 1) md.var[m * mN + m + 1] = md.var[(m + 1) * mN + m] = 0.2;
    md.init = {1.0, 0.0, 0.2, 0.7, 0.3, -0.1};
    return md;
}

// Runs fMultiStatePred (univ = false) or fUnivStatePred on the model.
int run_pred(bool univ, int filtered, const LgmModel &md, int n, const std::vector<double> &y,
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

// KalmanSmo's output for the model and data, through KalmanFil's store.
Value smoothed(const LgmModel &md, int n, const std::vector<double> &y) {
    return invoke("KalmanSmo",
                  with_model({invoke("KalmanFil", with_model({mat(md.N, n, y)}, md))}, md));
}

// ------------------------------------------- single-series vs multivariate

// With N = 1 and no missing value, the multivariate routines run the same
// arithmetic as the single-series ones: prediction, smoothing output and
// score agree to rounding. The filtered state variance rows differ by
// design: the single-series routine subtracts (P Z')_k F^-1 (Z P T')_k, the
// multivariate one the textbook (P Z' F^-1 Z P)_kk (and the observation
// variance row differs too, tested from Python); means agree.
TEST(UnivMultiAgreement, PredictionKalmanSmoAndScore) {
    NoLeak guard;
    const LgmModel md = make_model(1);
    const int n = 7, m = 2, mN = 3, S = 4;
    const std::vector<double> y = series(1, n);
    HostMat st_u(S, n), st_m(S, n), mo_u(2 * mN, n), mo_m(2 * mN, n), off_u(1, n), off_m(1, n);
    double gap = 0.0;
    for (int filtered : {1, 0}) {
        ASSERT_EQ(run_pred(true, filtered, md, n, y, st_u, mo_u, off_u), 1);
        ASSERT_EQ(run_pred(false, filtered, md, n, y, st_m, mo_m, off_m), 1);
        for (int t = 0; t < n; ++t) {
            for (int r = 0; r < S; ++r) EXPECT_NEAR(st_u[r][t], st_m[r][t], 1e-13) << r << "," << t;
            for (int r = 0; r < 2 * mN; ++r) {
                if (filtered && r >= 3)  // variances; the observation row differs as well
                    gap = std::fmax(gap, r < 5 ? std::fabs(mo_u[r][t] - mo_m[r][t]) : 0.0);
                else
                    EXPECT_NEAR(mo_u[r][t], mo_m[r][t], 1e-13) << filtered << " " << r << "," << t;
            }
            EXPECT_NEAR(off_u[0][t], off_m[0][t], 1e-13);
        }
    }
    EXPECT_GT(gap, 1e-3);

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
    const LgmModel md = make_model(1);
    const int n = 6, m = 2, mN = 3, S = 4, t0 = 3;
    HostMat st(S, n), mo(2 * mN, n), off(1, n);
    ASSERT_EQ(run_pred(true, 0, md, n, series(1, n, {t0}), st, mo, off), 1);
    ASSERT_TRUE(std::isnan(st[0][t0]));

    HostMat sys(mN, m, md.sys), W1(mN + 1, mN), W2(mN + 1, mN), out_u(2 * mN, n + 1),
        out_m(2 * mN, n + 1);
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

// ------------------------------------------------------------ structure

// S is accumulated over the upper triangle and mirrored: exactly symmetric.
// Its diagonal is the sum over time of u~_i^2 - D~_ii, which KalmanSmo's
// output lists column by column.
TEST(Structure, ScoreIsExactlySymmetricAndMatchesTheOutputDiagonal) {
    NoLeak guard;
    for (int N : {1, 2}) {
        SCOPED_TRACE(N);
        const LgmModel md = make_model(N);
        const int n = 8, mN = md.m + N;
        const std::vector<double> y = series(N, n, {2});
        Value ll, sc;
        ASSERT_EQ(
            invoke("LgmLikSco", with_model({Value::ref(ll), Value::ref(sc), mat(N, n, y)}, md))
                .as_int(),
            1);
        ASSERT_EQ(sc.rows(), mN);
        ASSERT_EQ(sc.cols(), mN);
        for (int i = 0; i < mN; ++i)
            for (int j = 0; j < i; ++j) EXPECT_EQ(sc.at(i, j), sc.at(j, i));
        const Value out = smoothed(md, n, y);
        ASSERT_EQ(out.rows(), 2 * mN);
        ASSERT_EQ(out.cols(), n + 1);
        for (int i = 0; i < mN; ++i) {
            double want = 0.0;
            for (int t = 1; t <= n; ++t) want += out.at(i, t) * out.at(i, t) - out.at(mN + i, t);
            EXPECT_NEAR(sc.at(i, i), want, 1e-12 * (1.0 + std::fabs(want))) << i;
        }
    }
}

// The start column holds r and diag N before the first time point in the
// state rows and zeros in the observation rows; LgmMomentEst's return value
// for the smoothing selections is N over r' at the same point.
TEST(Structure, StartColumnAndMomentReturnValue) {
    NoLeak guard;
    const LgmModel md = make_model(2);
    const int n = 6, m = 2, N = 2, mN = 4;
    const std::vector<double> y = series(N, n);
    const Value out = smoothed(md, n, y);
    for (int i = m; i < mN; ++i) {
        EXPECT_EQ(out.at(i, 0), 0.0);
        EXPECT_EQ(out.at(mN + i, 0), 0.0);
    }
    for (int sel : {1, 3}) {
        Value mom;
        const Value ret = invoke(
            "LgmMomentEst", with_model({Value::integer(sel), Value::ref(mom), mat(N, n, y)}, md));
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
        const LgmModel md = make_model(N);
        const int n = 6, m = 2, mN = m + N;
        HostMat st(md.store_rows(), n), pred(2 * mN, n), off(1, n);
        ASSERT_EQ(run_pred(N == 1, 0, md, n, series(N, n, {(N - 1) * n + 2}), st, pred, off), 1);
        HostMat copy(pred), sep(2 * mN, n);
        HostMat sys(mN, m, md.sys), W1(mN + 1, mN), W2(mN + 1, mN);
        for (double **out : {sep.get(), pred.get()}) {
            double **in = out == sep.get() ? copy.get() : pred.get();
            if (N == 1)
                UnivStateSmo(n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st.get(), in,
                             off.get(), out);
            else
                MultiStateSmo(N, n, m, sys.get(), nullptr, nullptr, W1.get(), W2.get(), st.get(),
                              in, off.get(), out);
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
    LgmModel one;
    one.m = one.N = 1;
    one.sys = {0.9, 1.0};
    one.var = {0.5, 0.0, 0.0, 1.0};
    one.init = {1.0, 0.0};
    auto attempts = [](int sel, const LgmModel &md) {
        Value mom;
        Args a = with_model({Value::integer(sel), Value::ref(mom), mat(1, 5, series(1, 5))}, md);
        const long before = zu::allocation_attempts();
        EXPECT_FALSE(zu::call("LgmMomentEst", a).is_none());
        EXPECT_EQ(mom.rows(), 2 * md.p());
        return zu::allocation_attempts() - before;
    };
    EXPECT_EQ(attempts(1, one), attempts(0, one));
    EXPECT_EQ(attempts(1, make_model(1)), attempts(0, make_model(1)) + 1);
}

// With no time points the prediction pass records nothing and leaves the
// initial state, so LgmMomentEst's selections 0 and 5 return InitMat's P (kappa on the diffuse
// diagonal) over its a; the backward selections start from and return zeros. The covariance of the
// diffuse state 0 with the later proper state 1 is still written from
// InitMat's lower triangle (the initial rows are read in order, and a proper
// row fills the column of an earlier diffuse one).
TEST(MomentEst, NoTimePointsReturnTheInitialMoments) {
    NoLeak guard;
    const double kappa = 9999999.99;
    for (int sel : {0, 5, 1, 3}) {
        Value mom;
        const Value ret =
            invoke("LgmMomentEst", {Value::integer(sel), Value::ref(mom), Value::matrix(2, 0),
                                    mat(4, 2, {0.8, 0.3, 0.0, 0.6, 1.0, 0.0, 0.0, 1.0}),
                                    mat(4, 4, {0.5, 0, 0, 0, 0, 0.5, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}),
                                    mat(3, 2, {-1.0, 0.0, 0.3, 0.7, 0.25, -0.5})});
        ASSERT_EQ(mom.rows(), 8);
        EXPECT_EQ(mom.cols(), 0);
        const bool forward = sel == 0 || sel == 5;
        const std::vector<double> want = forward
                                             ? std::vector<double>{kappa, 0.3, 0.3, 0.7, 0.25, -0.5}
                                             : std::vector<double>(6, 0.0);
        EXPECT_EQ(ret.to_vector(), want) << sel;
    }
}

// --------------------------------------------------- entry point behaviour

TEST(EntryPoints, ArgumentFaults) {
    NoLeak guard;
    const LgmModel md = make_model(2);
    Args store = with_model({Value::matrix(5, 4)}, md);  // a store needs 2 + 3 + 4 = 9 rows
    EXPECT_EQ(call_error("KalmanSmo", store).number, zu::kErrorSize);
    Value mom;
    Args rows =
        with_model({Value::integer(1), Value::ref(mom), mat(1, 4, {1, 2, 3, 4})}, md);  // N = 2
    EXPECT_EQ(call_error("LgmMomentEst", rows).number, zu::kErrorSize);
    EXPECT_TRUE(mom.is_none());
    Value ll, sc;
    Args square = {Value::ref(ll), Value::ref(sc), mat(2, 3, {1, 2, 3, 4, 5, 6}),
                   mat(2, 2, {1, 0, 0, 1}), mat(2, 2, {1, 0, 0, 1})};  // SysMat square: N = 0
    const CallError e = call_error("LgmLikSco", square);
    EXPECT_EQ(e.number, zu::kErrorMessage);
    EXPECT_EQ(e.text, "\nLgm(): number of rows or columns not correct in argument 2\n");
    EXPECT_TRUE(sc.is_none());
    Args no_ref = with_model({Value::real(0.0), Value::ref(sc), mat(2, 6, series(2, 6))}, md);
    EXPECT_EQ(call_error("LgmLikSco", no_ref).number, zu::kErrorType);
    // Selections other than 0, 5, 1, 3 are refused; the moments untouched.
    for (int sel : {2, 4, 6, -1}) {
        mom = Value::integer(3);
        Args a =
            with_model({Value::integer(sel), Value::ref(mom), mat(1, 3, {1, 2, 3})}, make_model(1));
        const CallError bad = call_error("LgmMomentEst", a);
        EXPECT_EQ(bad.number, zu::kErrorMessage);
        EXPECT_EQ(bad.text, "LgmMomentEst(): no valid selection in first argument");
        EXPECT_EQ(mom.type(), ZU_INT) << "untouched";
    }
}

TEST(MomentEst, ByValueSecondArgumentGivesOnlyTheReturnValue) {
    NoLeak guard;
    const LgmModel md = make_model(2);
    const int n = 5;
    for (int sel : {0, 5, 1, 3}) {
        Value mom;
        const Value want =
            invoke("LgmMomentEst",
                   with_model({Value::integer(sel), Value::ref(mom), mat(2, n, series(2, n))}, md));
        Args b = with_model({Value::integer(sel), Value::integer(7), mat(2, n, series(2, n))}, md);
        const Value got = zu::call("LgmMomentEst", b);
        EXPECT_EQ(b[1].as_int(), 7);
        ASSERT_EQ(got.rows(), 3);
        EXPECT_EQ(got.to_vector(), want.to_vector()) << sel;
    }
}

// Singular F in the multivariate pass (two identical noiseless series of
// one fixed state), F = 0 in the single-series pass: the return value and
// the moments are freed and the message is printed unless messages are off.
TEST(MomentEst, NonPositiveInnovationVarianceReports) {
    NoLeak guard;
    LgmModel singular[2];
    singular[0].m = singular[0].N = 1;
    singular[0].sys = {1, 1};
    singular[0].var = {0, 0, 0, 0};
    singular[0].init = {0, 0};
    singular[1].m = 1;
    singular[1].N = 2;
    singular[1].sys = {1, 1, 1};
    singular[1].var.assign(9, 0.0);
    singular[1].init = {1, 0};
    for (const LgmModel &md : singular)
        for (int sel : {0, 5, 1, 3}) {
            SCOPED_TRACE("N = " + std::to_string(md.N) + ", selection " + std::to_string(sel));
            in_both_message_modes([&](bool quiet, MessageCapture &capture) {
                Value mom = Value::integer(-3);
                const Value r = invoke(
                    "LgmMomentEst", with_model({Value::integer(sel), Value::ref(mom),
                                                mat(md.N, 3, std::vector<double>(md.N * 3, 1.0))},
                                               md));
                EXPECT_TRUE(r.is_none());
                EXPECT_TRUE(mom.is_none()) << "moments freed";
                expect_message(capture, quiet, kMomentMsg);
            });
        }
}

// All data missing: the filter fails (cnt < 1); the score is freed, the
// log-likelihood and dSumSq references keep their values, the call returns
// 0 and prints its message (unless messages are off).
TEST(LikSco, AllMissingFailsAndFreesTheScore) {
    NoLeak guard;
    for (int N : {1, 2})
        for (bool three : {false, true}) {
            SCOPED_TRACE("N = " + std::to_string(N) + (three ? ", three refs" : ", two refs"));
            in_both_message_modes([&](bool quiet, MessageCapture &capture) {
                Value ll = Value::integer(-1), s2 = Value::integer(-2), sc = Value::integer(-3);
                Args a{Value::ref(ll)};
                if (three) a.push_back(Value::ref(s2));
                a.push_back(Value::ref(sc));
                a.push_back(mat(N, 4, std::vector<double>(N * 4, kNaN)));
                EXPECT_EQ(invoke("LgmLikSco", with_model(a, make_model(N))).as_int(), 0);
                EXPECT_TRUE(sc.is_none());
                EXPECT_EQ(ll.type(), ZU_INT);
                EXPECT_EQ(s2.type(), ZU_INT);
                expect_message(capture, quiet, kScoreMsg);
            });
        }
}

// Two and three references give the same score; the log-likelihood is
// LgmLik's, and dSumSq its scale.
TEST(LikSco, TwoAndThreeReferenceForms) {
    NoLeak guard;
    const LgmModel md = make_model(2);
    const int n = 6;
    const Value y = mat(2, n, series(2, n));
    Value ll2, sc2, ll3, s23, sc3, ll, s2;
    ASSERT_EQ(invoke("LgmLikSco", with_model({Value::ref(ll2), Value::ref(sc2), y}, md)).as_int(),
              1);
    ASSERT_EQ(
        invoke("LgmLikSco", with_model({Value::ref(ll3), Value::ref(s23), Value::ref(sc3), y}, md))
            .as_int(),
        1);
    ASSERT_EQ(invoke("LgmLik", with_model({Value::ref(ll), Value::ref(s2), y}, md)).as_int(), 1);
    EXPECT_EQ(ll2.as_double(), ll3.as_double());
    EXPECT_EQ(sc2.to_vector(), sc3.to_vector());
    EXPECT_EQ(ll.as_double(), ll3.as_double());
    EXPECT_EQ(s2.as_double(), s23.as_double());
}

// ----------------------------------------------- allocation-failure sweeps

// Time-varying model (SysIdx, VarIdx) so that opening and copying allocate.
LgmModel sweep_model(int N, int n) {
    LgmModel md = make_model(N);
    md.add_time_varying(n, false);
    return md;
}

class SmoothingSweep : public ::testing::TestWithParam<int> {};

// The return value and the moments are freed whatever fails. An allocation
// inside the multivariate pass (F view, filtered scratch) is reported as the
// pass's failure.
TEST_P(SmoothingSweep, LgmMomentEst) {
    const int N = GetParam(), n = 6;
    const LgmModel md = sweep_model(N, n);
    std::vector<Value> targets(1);
    for (int sel : {0, 5, 1, 3})
        for (bool by_ref : {true, false}) {
            SCOPED_TRACE("selection " + std::to_string(sel) +
                         (by_ref ? " by reference" : " by value"));
            bool pass_failure_seen = false;
            const long sites = allocation_sweep(
                "LgmMomentEst",
                [&] {
                    return with_model(
                        {Value::integer(sel), by_ref ? Value::ref(targets[0]) : Value::integer(0),
                         mat(N, n, series(N, n, {(N - 1) * n + 3}))},
                        md);
                },
                [&](const SweepStep &s) {
                    EXPECT_TRUE(s.result.is_none());
                    EXPECT_TRUE(targets[0].is_none()) << "moments freed";
                    if (s.threw) {
                        EXPECT_EQ(s.error_number, zu::kErrorMemory);
                        return;
                    }
                    EXPECT_EQ(N, 2);
                    ASSERT_EQ(s.messages.size(), 1u);
                    EXPECT_EQ(s.messages[0], kMomentMsg);
                    pass_failure_seen = true;
                },
                5000, release_all(targets));
            EXPECT_GE(sites, 7);
            EXPECT_EQ(pass_failure_seen, N == 2);
        }
}

// The score is freed and the log-likelihood not written whatever fails. The
// score matrix itself has its own message; every other allocation is error
// 4, or for two series the filter's F view, reported as the filter failure.
TEST_P(SmoothingSweep, LgmLikSco) {
    const int N = GetParam(), n = 6;
    const LgmModel md = sweep_model(N, n);
    std::vector<Value> targets(3);
    for (bool three : {false, true}) {
        SCOPED_TRACE(three ? "three refs" : "two refs");
        bool score_message_seen = false;
        const long sites = allocation_sweep(
            "LgmLikSco",
            [&] {
                Args a{Value::ref(targets[0])};
                if (three) a.push_back(Value::ref(targets[1]));
                a.push_back(Value::ref(targets[2]));
                a.push_back(mat(N, n, series(N, n, {1})));
                return with_model(a, md);
            },
            [&](const SweepStep &s) {
                EXPECT_TRUE(targets[2].is_none()) << "score freed";
                EXPECT_TRUE(targets[0].is_none()) << "log-likelihood not written";
                if (s.threw && s.error_number == zu::kErrorMessage) {
                    EXPECT_EQ(s.error_text, "LgmLikSco(): memory allocation failure");
                    score_message_seen = true;
                } else if (s.threw) {
                    EXPECT_EQ(s.error_number, zu::kErrorMemory);
                } else {
                    EXPECT_EQ(s.result.as_int(), 0);
                    EXPECT_EQ(N, 2);
                    ASSERT_EQ(s.messages.size(), 1u);
                    EXPECT_EQ(s.messages[0], kScoreMsg);
                }
            },
            5000, release_all(targets));
        EXPECT_GE(sites, 7);
        EXPECT_TRUE(score_message_seen);
    }
}

INSTANTIATE_TEST_SUITE_P(SingleAndMulti, SmoothingSweep, ::testing::Values(1, 2));

}  // namespace
