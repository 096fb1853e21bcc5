// test_builders.cpp - the model builders: GetLgmArma and fGetLgmUnivArma,
// GetLgmStsm and fGetLgmUnivStsm, GetLgmReg, AddLgmReg and GetLgmSpline.
//
// The worked models, the stationary variances against an independent
// Lyapunov solver, the seasonal and cycle blocks, placement by row order and
// the models run through the filter are tested from Python
// (tests/python/test_builders.py). Here: what the entry points do with
// unusual arguments and their references, the general difference/seasonal
// structure of fGetLgmUnivArma (by simulating its transition and
// differencing the observations), every validation message, and every host
// allocation failed in turn with nothing left behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "tessel/tessel.h"
#include "test_util.h"

namespace {

using namespace testutil;

// Tolerance for elements that the builders assign or compute with a handful
// of floating-point operations: a few ulps of the larger of 1 and |expected|.
constexpr double kAssigned = 1e-14;

void expect_matrix(const Value &v, int rows, int cols, const std::vector<double> &expected,
                   double tol, const std::string &what) {
    ASSERT_EQ(v.type(), ZU_MATRIX) << what;
    ASSERT_EQ(v.rows(), rows) << what;
    ASSERT_EQ(v.cols(), cols) << what;
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) {
            const double e = expected[i * cols + j];
            EXPECT_NEAR(v.at(i, j), e, tol * std::max(1.0, std::fabs(e)))
                << what << "[" << i << "][" << j << "]";
        }
}

// ================================================================== ARMA

struct ArmaResult {
    Value rtn, sys, var, init;
    std::vector<std::string> messages;
};

ArmaResult arma(Value ar, Value ma, Value sigma) {
    ArmaResult r;
    Args a = {std::move(ar),     std::move(ma),     std::move(sigma),
              Value::ref(r.sys), Value::ref(r.var), Value::ref(r.init)};
    MessageCapture cap;
    r.rtn = zu::call("GetLgmArma", a);
    r.messages = cap.messages;
    return r;
}
ArmaResult arma(Value ar, Value ma, double sigma) {
    return arma(std::move(ar), std::move(ma), Value::real(sigma));
}

// Row and column vectors and a mix of both give the same model; a scalar
// coefficient counts as a 1 x 1 matrix and an integer sigma is converted.
TEST(GetLgmArma, CoefficientShapes) {
    NoLeak guard;
    const std::vector<double> ar = {0.6, -0.3, 0.1}, ma = {0.5, 0.2};
    const ArmaResult row = arma(mat(1, 3, ar), mat(1, 2, ma), 1.5);
    ASSERT_EQ(row.rtn.as_int(), 1);
    for (const ArmaResult &other :
         {arma(mat(3, 1, ar), mat(2, 1, ma), 1.5), arma(mat(3, 1, ar), mat(1, 2, ma), 1.5)}) {
        ASSERT_EQ(other.rtn.as_int(), 1);
        EXPECT_EQ(row.sys.to_vector(), other.sys.to_vector());
        EXPECT_EQ(row.var.to_vector(), other.var.to_vector());
        EXPECT_EQ(row.init.to_vector(), other.init.to_vector());
    }
    const ArmaResult scalar = arma(Value::real(0.5), Value::empty(), Value::integer(1));
    EXPECT_EQ(scalar.rtn.as_int(), 1);
    expect_matrix(scalar.init, 2, 1, {1.0 / 0.75, 0.0}, kAssigned, "scalar AR(1) InitMat");
}

TEST(GetLgmArma, WhiteNoiseFullMatricesAndUnitRootsAreRefused) {
    NoLeak guard;
    // Both lists empty, or a full matrix (taken as empty): message and 0,
    // references untouched.
    const std::vector<std::pair<Value, Value>> empties = [] {
        std::vector<std::pair<Value, Value>> v;
        v.emplace_back(Value::empty(), Value::empty());
        v.emplace_back(mat(2, 2, {0.5, 0.1, 0.2, 0.3}), Value::empty());
        v.emplace_back(Value::empty(), mat(2, 3, {1, 2, 3, 4, 5, 6}));
        v.emplace_back(mat(1, 0, {}), mat(0, 3, {}));
        return v;
    }();
    for (size_t c = 0; c < empties.size(); ++c) {
        Value sys = Value::real(7.0), var = Value::real(8.0), init = Value::real(9.0);
        Args a = {empties[c].first, empties[c].second, Value::real(1.0),
                  Value::ref(sys),  Value::ref(var),   Value::ref(init)};
        MessageCapture cap;
        EXPECT_EQ(zu::call("GetLgmArma", a).as_int(), 0) << "case " << c;
        ASSERT_EQ(cap.messages.size(), 1u) << "case " << c;
        EXPECT_EQ(cap.messages[0], "GetLgmArma(): system error");
        EXPECT_EQ(sys.as_double(), 7.0);
        EXPECT_EQ(var.as_double(), 8.0);
        EXPECT_EQ(init.as_double(), 9.0);
    }
    // Unit roots make I - T (x) T singular (exactly so in floating point for
    // these coefficients): the matrices stay allocated, SysMat and VarMat
    // filled, InitMat zero.
    for (const std::vector<double> &ar :
         {std::vector<double>{1.0}, std::vector<double>{-1.0}, std::vector<double>{0.0, 1.0}}) {
        ArmaResult r = arma(mat(1, static_cast<int>(ar.size()), ar), Value::empty(), 1.0);
        EXPECT_EQ(r.rtn.as_int(), 0) << "AR " << ar[0];
        ASSERT_EQ(r.messages.size(), 1u);
        EXPECT_EQ(r.messages[0], "GetLgmArma(): system error");
        const int m = static_cast<int>(ar.size());
        ASSERT_EQ(r.sys.rows(), m + 1);
        EXPECT_EQ(r.sys.at(0, 0), ar[0]);
        EXPECT_EQ(r.sys.at(m, 0), 1.0);
        EXPECT_EQ(r.var.at(0, 0), 1.0);
        for (double x : r.init.to_vector()) EXPECT_EQ(x, 0.0);
    }
}

// The general routine: d ordinary differences and s seasonal lags in front
// of an ARMA(2, 1) block. Simulating the transition with disturbances in the
// ARMA block only, the differenced observations (1-L)^d (1-L^s) y(t) must
// equal the block's first state; the block itself, its variance and its
// stationary initial variance must be those of the plain ARMA model.
TEST(FGetLgmUnivArma, DifferencesAndSeasonalLagsInFront) {
    NoLeak guard;
    const double phi_b[2] = {0.5, -0.3}, theta_b[2] = {1.0, 0.4};
    const double sigma = 0.8;
    std::mt19937_64 gen(42);
    std::normal_distribution<double> normal;
    // Reference: the plain ARMA block.
    HostMat bsys(3, 2), bvar(3, 3), binit(3, 2);
    double bphi[2] = {phi_b[0], phi_b[1]}, btheta[2] = {theta_b[0], theta_b[1]};
    ASSERT_EQ(fGetLgmUnivArma(2, 0, 0, bphi, btheta, bsys.get(), bvar.get(), binit.get(), sigma),
              1);

    for (int d : {0, 1, 2}) {
        for (int s : {0, 3, 4}) {
            SCOPED_TRACE("d = " + std::to_string(d) + ", s = " + std::to_string(s));
            const int r = d + s, m = r + 2;
            std::vector<double> phi(m, 99.0), theta(m, 99.0);  // positions < r ignored
            phi[r] = phi_b[0], phi[r + 1] = phi_b[1];
            theta[r] = theta_b[0], theta[r + 1] = theta_b[1];
            HostMat sys(m + 1, m), var(m + 1, m + 1), init(m + 1, m);
            ASSERT_EQ(fGetLgmUnivArma(m, d, s, phi.data(), theta.data(), sys.get(), var.get(),
                                      init.get(), sigma),
                      1);

            for (int i = 0; i < 2; ++i)
                for (int j = 0; j < 2; ++j) {
                    EXPECT_EQ(sys[r + i][r + j], bsys[i][j]);
                    EXPECT_EQ(var[r + i][r + j], bvar[i][j]);
                    EXPECT_EQ(init[r + i][r + j], binit[i][j]);
                }
            for (int i = 0; i <= m; ++i)
                for (int j = 0; j < m; ++j) {
                    const bool block = i >= r && i < m && j >= r;
                    if (!block) {
                        EXPECT_EQ(init[i][j], (i == j && i < r) ? -1.0 : 0.0) << i << "," << j;
                        if (i < m) {
                            EXPECT_EQ(var[i][j], 0.0) << i << "," << j;
                        }
                    }
                }
            for (int j = 0; j <= m; ++j) EXPECT_EQ(var[m][j], 0.0);

            // Simulate: x(t+1) = T x(t) + e(t), e only in the ARMA block.
            const int n = 40;
            std::vector<double> x(m), y(n), w(n);
            for (double &v : x) v = normal(gen);
            for (int t = 0; t < n; ++t) {
                y[t] = 0.0;
                for (int j = 0; j < m; ++j) y[t] += sys[m][j] * x[j];
                w[t] = x[r];
                std::vector<double> next(m, 0.0);
                for (int i = 0; i < m; ++i)
                    for (int j = 0; j < m; ++j) next[i] += sys[i][j] * x[j];
                const double eps = normal(gen);
                next[r] += theta_b[0] * eps;
                next[r + 1] += theta_b[1] * eps;
                x = next;
            }
            std::vector<double> z = y;
            for (int k = 0; k < d; ++k)
                for (int t = n - 1; t >= 1; --t) z[t] -= z[t - 1];
            if (s > 0)
                for (int t = n - 1; t >= s; --t) z[t] -= z[t - s];
            // The integrated series grow to a few hundred: 1e-10 absolute.
            for (int t = d + s; t < n; ++t) EXPECT_NEAR(z[t], w[t], 1e-10) << "t = " << t;
        }
    }
    // No ARMA block left (m = d + s) or d outside 0..2: refused.
    double p[4] = {0, 0, 0, 0}, q[4] = {1, 0, 0, 0};
    EXPECT_EQ(fGetLgmUnivArma(2, 2, 0, p, q, bsys.get(), bvar.get(), binit.get(), 1.0), 0);
    EXPECT_EQ(fGetLgmUnivArma(2, 3, 0, p, q, bsys.get(), bvar.get(), binit.get(), 1.0), 0);
}

// ============================================================ structural

struct StsmResult {
    Value rtn, sys, var, init;
};

StsmResult stsm(int rows, int cols, const std::vector<double> &table) {
    StsmResult r;
    Args a = {mat(rows, cols, table), Value::ref(r.sys), Value::ref(r.var), Value::ref(r.init)};
    r.rtn = zu::call("GetLgmStsm", a);
    return r;
}

std::string stsm_error(int rows, int cols, const std::vector<double> &table) {
    NoLeak guard;
    Value sys, var, init;
    Args a = {mat(rows, cols, table), Value::ref(sys), Value::ref(var), Value::ref(init)};
    return call_error("GetLgmStsm", a).text;
}

// A slope listed before its level: the level adds the slope, starts follow
// the placement. A slope without a level places nothing and keeps start 0.
TEST(GetLgmStsm, SlopeOrderAndSlopeWithoutLevel) {
    NoLeak guard;
    StsmResult r = stsm(3, 2, {1, 0.1, 19, 1.0, 0, 0.3});
    expect_matrix(r.rtn, 1, 3, {1, 2, 0}, 0.0, "starts");
    expect_matrix(r.sys, 3, 2, {1, 1, 0, 1, 1, 0}, 0.0, "SysMat");
    expect_matrix(r.var, 3, 3, {0.09, 0, 0, 0, 0.01, 0, 0, 0, 1}, kAssigned, "VarMat");
    expect_matrix(r.init, 3, 2, {-1, 0, 0, -1, 0, 0}, 0.0, "InitMat");
    r = stsm(3, 4, {1, 0.1, 0, 0, 17, 2.0, 0, 0.5, 19, 1.0, 0, 0});
    expect_matrix(r.rtn, 1, 3, {0, 0, 1}, 0.0, "starts");
    expect_matrix(r.sys, 2, 1, {0.5, 1}, 0.0, "SysMat");
    expect_matrix(r.var, 2, 2, {3.0, 0, 0, 1}, kAssigned, "VarMat");
    expect_matrix(r.init, 2, 1, {4, 0}, 0.0, "InitMat");
}

TEST(GetLgmStsm, EveryValidationMessage) {
    const std::string p = "GetLgmStsm(): ";
    struct Case {
        int rows, cols;
        std::vector<double> table;
        std::string text;
    };
    const std::vector<Case> cases = {
        {1, 2, {0, 1}, "at least two components required in argument 1"},
        {2, 1, {0, 19}, "at least two columns required in argument 1"},
        {3, 2, {1, 1, 1, 1, 0, 1}, "only one slope component allowed in argument 1"},
        {2, 3, {0, 1, 0, 2, 1, 2}, "only one level/trend component allowed in argument 1"},
        {2, 3, {2, 1, 2, 0, 1, 0}, "only one level/trend component allowed in argument 1"},
        {2, 2, {2, 1, 19, 1}, "at least three columns required in argument 1"},
        {2, 2, {0, 1, 4, 1}, "at least three columns required in argument 1"},
        {3, 2, {0, 1, 19, 1, 19, 1}, "only one irregular component allowed in argument 1"},
        {3,
         4,
         {17, 1, 0, .5, 17, 1, 0, .5, 19, 1, 0, 0},
         "only one autoregressive(1) component allowed in argument 1"},
        {2, 3, {17, 1, 0, 19, 1, 0}, "at least four columns required in argument 1"},
        {3,
         5,
         {18, 1, 0, .5, .1, 18, 1, 0, .5, .1, 19, 1, 0, 0, 0},
         "only one autoregressive(2) component allowed in argument 1"},
        {2, 4, {18, 1, 0, .5, 19, 1, 0, 0}, "at least five columns required in argument 1"},
        {2, 4, {6, 1, 0.5, .5, 19, 1, 0, 0}, "at least five columns required in argument 1"},
        {2, 2, {20, 1, 19, 1}, "cannot recognize component in argument 1"},
        {2, 2, {0, 1, -1, 1}, "cannot recognize component in argument 1"},
        {2, 2, {0, 1, kNaN, 1}, "cannot recognize component in argument 1"},
        {2, 3, {2, 1, 0, 19, 1, 0}, "trend order not appropriate in argument 2"},
        {2, 3, {2, 1, 10, 19, 1, 0}, "trend order not appropriate in argument 2"},
        {3, 3, {3, 1, 4, 4, 1, 4, 19, 1, 0}, "seasonal parameters not appropriate in argument 2"},
        {2, 3, {5, 1, 1.9, 19, 1, 0}, "seasonal parameters not appropriate in argument 2"},
        {2,
         5,
         {6, 1, -0.1, .5, 1, 19, 1, 0, 0, 0},
         "bwcycle parameters not appropriate in argument 3"},
        {2,
         5,
         {6, 1, 0.5, 1.01, 1, 19, 1, 0, 0, 0},
         "bwcycle parameters not appropriate in argument 3"},
        {2, 5, {6, 1, 0.5, .5, 0, 19, 1, 0, 0, 0}, "bwcycle order not appropriate in argument 4"},
        {2, 5, {6, 1, 0.5, .5, 10, 19, 1, 0, 0, 0}, "bwcycle order not appropriate in argument 4"},
        {2, 3, {12, 1, 0.5, 19, 1, 0}, "at least four columns required in argument 1"},
        {2, 4, {8, 1, -0.5, .5, 19, 1, 0, 0}, "cycle parameters not appropriate in argument 1"},
        {2, 4, {16, 1, 0.5, -0.1, 19, 1, 0, 0}, "cycle parameters not appropriate in argument 1"},
        {2,
         4,
         {17, 1, 0, 1.5, 19, 1, 0, 0},
         "autoregressive(1) parameters not appropriate in argument 3"},
        {2,
         5,
         {18, 1, 0, -1.5, 0, 19, 1, 0, 0, 0},
         "autoregressive(2) parameters not appropriate in argument 3"},
        {2,
         5,
         {18, 1, 0, 0.5, 1.5, 19, 1, 0, 0, 0},
         "autoregressive(2) parameters not appropriate in argument 4"},
        // First-pass faults come before second-pass faults, whatever the rows.
        {3, 2, {25, 1, 19, 1, 19, 1}, "only one irregular component allowed in argument 1"},
        // Nothing to place: a slope without a level and an irregular.
        {2, 2, {1, 1, 19, 1}, "no model specified in argument 1"},
        // Counted states that are not placed.
        {3,
         4,
         {7, 1, .5, .5, 7, 1, .5, .5, 19, 1, 0, 0},
         "no correct model specified in argument 1"},
        {2, 5, {6, 1, 0.5, .5, 1.5, 19, 1, 0, 0, 0}, "no correct model specified in argument 1"},
        {2, 5, {6, 1, 0.5, .5, 0.3, 17, 1, 0, .5, 0}, "no correct model specified in argument 1"},
        {2, 4, {2, 1, 0.5, 0, 17, 1, 0, .5}, "no correct model specified in argument 1"},
    };
    for (const Case &c : cases) EXPECT_EQ(stsm_error(c.rows, c.cols, c.table), p + c.text);
}

// ============================================================ regression

struct RegModel {
    Value sys, var, init, idx;
};

// AddLgmReg with the model in `m` (moved in as the reference targets).
CallError add_reg(Value x, RegModel &m, Value *rtn = nullptr) {
    Args a = {std::move(x), Value::ref(m.sys), Value::ref(m.var), Value::ref(m.init),
              Value::ref(m.idx)};
    try {
        Value v = zu::call("AddLgmReg", a);
        if (rtn) *rtn = std::move(v);
    } catch (const zu::Error &e) {
        return {e.number(), e.what()};
    }
    return {};
}

// Regressors added in front of a model that already has one: a local level
// with a state/observation cross-covariance of 0.2 (dropped) and an initial
// mean of 5 (moved along). The two new regressors take TvData rows 0 and 1;
// SysIdx must be passed empty, so the earlier regressor's index is not
// carried: it keeps its fixed Z element 0. No regressors change nothing.
TEST(AddLgmReg, InFrontOfAModelWithARegressor) {
    NoLeak guard;
    RegModel m{mat(2, 1, {1, 1}), mat(2, 2, {0.7, 0.2, 0.2, 1.5}), mat(2, 1, {-1, 5}),
               Value::empty()};
    EXPECT_EQ(add_reg(Value::matrix(0, 20), m).number, -1);
    EXPECT_EQ(m.sys.rows(), 2);
    EXPECT_TRUE(m.idx.rows() == 0 && m.idx.cols() == 0);
    EXPECT_EQ(add_reg(Value::matrix(1, 20), m).number, -1);
    m.idx = Value::empty();
    EXPECT_EQ(add_reg(Value::matrix(2, 20), m).number, -1);
    ASSERT_EQ(m.sys.cols(), 4);
    expect_matrix(m.idx, 5, 4,
                  {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 1, -1, -1},
                  0.0, "SysIdx");
    for (int i = 0; i < 4; ++i) EXPECT_EQ(m.sys.at(i, i), 1.0);
    EXPECT_EQ(m.sys.at(4, 3), 1.0);
    EXPECT_EQ(m.var.at(4, 4), 1.5);
    EXPECT_EQ(m.init.at(4, 3), 5.0);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(m.var.at(i, 4), 0.0) << "cross-covariance dropped";
}

TEST(AddLgmReg, EveryCheckLeavesTheModelAlone) {
    NoLeak guard;
    const std::string p = "AddLgmReg(): ";
    auto level = [] {
        return RegModel{mat(2, 1, {1, 1}), mat(2, 2, {1, 0, 0, 1}), mat(2, 1, {-1, 0}),
                        Value::empty()};
    };
    {
        RegModel m = level();
        Args a = {Value::matrix(1, 5), Value::ref(m.sys)};
        EXPECT_EQ(call_error("AddLgmReg", a).text, p + "five arguments required");
        EXPECT_EQ(add_reg(Value::real(1.0), m).text, p + "argument 1 must be matrix");
    }
    for (int k = 1; k <= 4; ++k) {
        RegModel m = level();
        Value *slot[4] = {&m.sys, &m.var, &m.init, &m.idx};
        *slot[k - 1] = Value::real(3.0);
        EXPECT_EQ(add_reg(Value::matrix(1, 5), m).text,
                  p + "argument " + std::to_string(k + 1) + " no pointer to matrix");
        EXPECT_EQ(slot[k - 1]->as_double(), 3.0);
    }
    struct Case {
        RegModel m;
        std::string text;
    };
    std::vector<Case> cases;
    cases.push_back(
        {RegModel{mat(2, 1, {1, 1}), mat(2, 2, {1, 0, 0, 1}), mat(2, 1, {-1, 0}), mat(1, 1, {0})},
         "argument 5 must be empty matrix <>"});
    cases.push_back(
        {RegModel{Value::empty(), mat(2, 2, {1, 0, 0, 1}), Value::empty(), Value::empty()},
         "all pointers must be to empty matrices"});
    cases.push_back({RegModel{Value::empty(), Value::empty(), mat(1, 1, {1}), Value::empty()},
                     "all pointers must be to empty matrices"});
    cases.push_back({RegModel{mat(3, 1, {1, 1, 1}), mat(2, 2, {1, 0, 0, 1}), mat(2, 1, {-1, 0}),
                              Value::empty()},
                     "argument 2 wrong matrix dimension"});
    cases.push_back({RegModel{mat(2, 1, {1, 1}), mat(2, 3, {1, 0, 0, 0, 1, 0}), mat(2, 1, {-1, 0}),
                              Value::empty()},
                     "argument 3 wrong matrix dimension"});
    cases.push_back(
        {RegModel{mat(2, 1, {1, 1}), mat(2, 2, {1, 0, 0, 1}), mat(1, 1, {-1}), Value::empty()},
         "argument 4 wrong matrix dimension"});
    for (Case &c : cases) {
        const std::vector<double> sys = c.m.sys.to_vector();
        EXPECT_EQ(add_reg(Value::matrix(2, 5), c.m).text, p + c.text);
        EXPECT_EQ(c.m.sys.to_vector(), sys) << c.text;
    }
}

// ================================================================ spline

struct SplineResult {
    Value rtn;
    std::array<Value, 6> out;  // SysMat, VarMat, InitMat, SysIdx, VarIdx, TvData
};

SplineResult spline(double q, Value delta, int nargs) {
    SplineResult r;
    for (Value &v : r.out) v = Value::real(-7.0);  // "left alone" marker
    Args a = {Value::real(q), std::move(delta)};
    for (int k = 2; k < nargs; ++k) a.push_back(Value::ref(r.out[k - 2]));
    r.rtn = zu::call("GetLgmSpline", a);
    return r;
}

// References beyond the forms asked for are left alone (4 arguments: no
// InitMat; an empty delta with 8: no time-varying part); with 8 arguments,
// applying the index matrices at each t gives T = [[1, delta], [0, 1]] and
// the integrated random walk variance q [[d^3/3, d^2/2], [d^2/2, d]].
TEST(GetLgmSpline, FormsAndTimeVaryingValues) {
    NoLeak guard;
    const double q = 0.6;
    const std::vector<double> delta = {1.0, 0.5, 2.0, 3.25};
    SplineResult r = spline(q, mat(1, 4, delta), 4);
    EXPECT_EQ(r.rtn.as_int(), 1);
    for (int k = 2; k < 6; ++k) EXPECT_EQ(r.out[k].as_double(), -7.0);
    r = spline(q, Value::empty(), 8);
    EXPECT_EQ(r.rtn.as_int(), 1);
    expect_matrix(r.out[2], 3, 2, {-1, 0, 0, -1, 0, 0}, 0.0, "InitMat");
    for (int k = 3; k < 6; ++k) EXPECT_EQ(r.out[k].as_double(), -7.0);
    r = spline(q, mat(1, 4, delta), 8);
    ASSERT_EQ(r.out[5].rows(), 4);
    ASSERT_EQ(r.out[5].cols(), 4);
    for (int t = 0; t < 4; ++t) {
        const double d = delta[t];
        auto tv = [&](int row) { return r.out[5].at(row, t); };
        EXPECT_EQ(tv(static_cast<int>(r.out[3].at(0, 1))), d);
        const double want[2][2] = {{q * d * d * d / 3, q * d * d / 2}, {q * d * d / 2, q * d}};
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 2; ++j)
                EXPECT_NEAR(tv(static_cast<int>(r.out[4].at(i, j))), want[i][j],
                            kAssigned * std::max(1.0, want[i][j]))
                    << "t " << t << " (" << i << "," << j << ")";
    }
}

// Argument counts and types of every builder: the texts the builders give
// themselves, and host type errors for what the host checks.
TEST(Builders, ArgumentErrors) {
    NoLeak guard;
    std::array<Value, 8> t;
    auto refs = [&](Args a, int k) {
        for (int i = 0; i < k; ++i) a.push_back(Value::ref(t[i]));
        return a;
    };
    const Value ar = mat(1, 1, {0.5}), x = Value::matrix(1, 3), table = mat(2, 2, {0, 1, 19, 1});
    const Value q = Value::real(1.0), delta = mat(1, 2, {1, 1});
    struct Case {
        std::string name;
        Args args;
        std::string text;  // empty: a host type error
    };
    Args arma_no_refs = {
        ar, Value::empty(), Value::real(1), Value::real(0), Value::real(0), Value::real(0)};
    Args reg_no_ref = refs({x}, 3);
    reg_no_ref.push_back(Value::real(0));
    std::vector<Case> cases = {
        {"GetLgmArma", refs({ar, Value::empty(), Value::real(1)}, 2),
         "GetLgmArma(): six arguments required"},
        {"GetLgmArma", refs({ar, Value::empty(), Value::real(1)}, 4),
         "GetLgmArma(): six arguments required"},
        {"GetLgmArma", refs({ar, Value::empty(), mat(1, 2, {1, 2})}, 3), ""},
        {"GetLgmArma", arma_no_refs, ""},
        {"GetLgmStsm", refs({table}, 2), "GetLgmStsm(): at least four arguments required"},
        {"GetLgmStsm",
         [&] {
             Args a = refs({table}, 2);
             a.push_back(Value::real(0));
             return a;
         }(),
         ""},
        {"GetLgmReg", refs({x}, 3), "GetLgmReg(): five arguments required"},
        {"GetLgmReg", refs({Value::empty()}, 4),
         "GetLgmReg(): data matrix needed in first argument"},
        {"GetLgmReg", reg_no_ref, ""},
        {"GetLgmSpline", refs({delta, delta}, 2), ""},
    };
    for (int nargs : {3, 6, 7, 9})
        cases.push_back({"GetLgmSpline", refs({q, delta}, nargs - 2),
                         "GetLgmSpline(): wrong number of arguments"});
    for (Case &c : cases) {
        SCOPED_TRACE(c.name + " with " + std::to_string(c.args.size()) + " arguments");
        const CallError e = call_error(c.name, c.args);
        if (c.text.empty()) {
            EXPECT_EQ(e.number, zu::kErrorType);
        } else {
            EXPECT_EQ(e.text, c.text);
        }
        for (const Value &v : t) EXPECT_TRUE(v.is_none()) << "nothing written";
    }
}

// Every host allocation of each builder failed in turn. The reports: the
// result matrices of GetLgmArma have the builder's own text, a failed
// scratch matrix of the stationary system is its "system error"; GetLgmStsm
// fails its return vector with host error 4, its three results with its own
// text and the scratch of its Butterworth cycle as a model fault; the
// regression builders give their text or host error 4, AddLgmReg keeping
// the caller's model and GetLgmSpline writing nothing.
TEST(Builders, AllocationFailureSweeps) {
    std::vector<Value> t(6);
    struct Case {
        std::string name, variant;
        std::function<Args()> make;
        std::function<void(const SweepStep &)> check;
        long sites;  // exact count, or at least -sites
    };
    std::vector<Case> cases = {
        {"GetLgmArma", "ARMA(2,1)",
         [&] {
             return Args{mat(1, 2, {0.5, 0.2}), mat(1, 1, {0.3}), Value::real(1.0),
                         Value::ref(t[0]),      Value::ref(t[1]), Value::ref(t[2])};
         },
         [](const SweepStep &s) {
             if (s.threw) {
                 EXPECT_EQ(s.error_number, zu::kErrorMessage) << "step " << s.k;
                 EXPECT_EQ(s.error_text, "GetLgmArma(): memory allocation failure");
                 return;
             }
             EXPECT_EQ(s.result.as_int(), 0) << "step " << s.k;
             ASSERT_EQ(s.messages.size(), 1u) << "step " << s.k;
             EXPECT_EQ(s.messages[0], "GetLgmArma(): system error");
         },
         -4},  // three results and the scratch matrix
        {"GetLgmStsm", "level, Butterworth, irregular",
         [&] {
             return Args{mat(3, 5, {0, 1, 0, 0, 0, 6, 1, 0.5, 0.5, 2, 19, 1, 0, 0, 0}),
                         Value::ref(t[0]), Value::ref(t[1]), Value::ref(t[2])};
         },
         [](const SweepStep &s) {
             ASSERT_TRUE(s.threw) << "step " << s.k;
             EXPECT_TRUE(s.result.is_none());
             const char *want = s.k <= 4 ? "GetLgmStsm(): memory allocation failure"
                                         : "GetLgmStsm(): no correct model specified in argument 1";
             if (s.k == 1) {
                 EXPECT_EQ(s.error_number, zu::kErrorMemory);  // the return vector
             } else {
                 EXPECT_EQ(s.error_text, want);
             }
         },
         6},
        {"GetLgmReg", "k = 2",
         [&] {
             return Args{mat(2, 3, {1, 2, 3, 4, 5, 6}), Value::ref(t[0]), Value::ref(t[1]),
                         Value::ref(t[2]), Value::ref(t[3])};
         },
         [](const SweepStep &s) {
             ASSERT_TRUE(s.threw) << "step " << s.k;
             EXPECT_EQ(s.error_text, "GetLgmReg(): memory allocation failure");
         },
         4},
    };
    for (bool onto_level : {false, true})
        cases.push_back({"AddLgmReg", onto_level ? "onto a level" : "onto nothing",
                         [&, onto_level] {
                             t[0] = onto_level ? mat(2, 1, {1, 1}) : Value::empty();
                             t[1] = onto_level ? mat(2, 2, {1, 0, 0, 2}) : Value::empty();
                             t[2] = onto_level ? mat(2, 1, {-1, 0}) : Value::empty();
                             t[3] = Value::empty();
                             return Args{mat(2, 3, {1, 2, 3, 4, 5, 6}), Value::ref(t[0]),
                                         Value::ref(t[1]), Value::ref(t[2]), Value::ref(t[3])};
                         },
                         [&, onto_level](const SweepStep &s) {
                             ASSERT_TRUE(s.threw) << "step " << s.k;
                             EXPECT_EQ(s.error_number, zu::kErrorMemory);
                             // The caller's model is kept when the new one cannot be had.
                             EXPECT_EQ(t[0].rows(), onto_level ? 2 : 0);
                             EXPECT_EQ(t[3].rows(), 0);
                         },
                         4});
    for (int nargs : {4, 5, 8})
        cases.push_back({"GetLgmSpline", std::to_string(nargs) + " arguments",
                         [&, nargs] {
                             Args a = {Value::real(0.5), mat(1, 3, {1, 2, 3})};
                             for (int k = 2; k < nargs; ++k) a.push_back(Value::ref(t[k - 2]));
                             return a;
                         },
                         [&](const SweepStep &s) {
                             ASSERT_TRUE(s.threw) << "step " << s.k;
                             EXPECT_EQ(s.error_number, zu::kErrorMemory);
                             for (const Value &v : t) EXPECT_TRUE(v.is_none());
                         },
                         nargs == 4   ? 2
                         : nargs == 5 ? 3
                                      : 6});
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name + ", " + c.variant);
        const long sites = allocation_sweep(c.name, c.make, c.check, 500, release_all(t));
        if (c.sites < 0) {
            EXPECT_GE(sites, -c.sites);
        } else {
            EXPECT_EQ(sites, c.sites);
        }
    }
}

}  // namespace
