// test_builders.cpp - the model builders: GetLgmArma and fGetLgmUnivArma,
// GetLgmStsm and fGetLgmUnivStsm, GetLgmReg, AddLgmReg and GetLgmSpline.
//
// References here are closed forms and hand-derived matrices; the general
// difference/seasonal structure of fGetLgmUnivArma is checked by simulating
// its transition and differencing the observations. Comparisons with an
// independent Lyapunov solver and with the filter are made from Python
// (tests/python/test_builders.py).
//
// Every entry point is also run with each of its host allocations failing in
// turn, and every call (success or error) must leave no host allocation
// behind.
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

using testutil::Args;
using testutil::kNaN;
using testutil::mat;
using testutil::MessageCapture;
using testutil::NoLeak;
using zu::Value;

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

// The error a call raised, with every host allocation released afterwards.
testutil::CallError error_of(const std::string &name, Args &args) {
    return testutil::call_error(name, args);
}

// Argument block of a builder call: the reference targets live next to the
// arguments so that one object owns everything a call can write.
struct BuilderCall {
    std::array<Value, 8> targets;
    Args args;
    Value &ref_arg(int k) {
        args.push_back(Value::ref(targets[k]));
        return targets[k];
    }
};

struct BuilderStep {
    long k = 0;
    bool threw = false;
    int error_number = -1;
    std::string error_text;
    std::vector<std::string> messages;
    Value result;
};

// Allocation-failure sweep for entry points that write reference arguments
// (testutil::allocation_sweep keeps the arguments only; the targets must be
// released with them). Returns the number of allocation sites met.
long builder_sweep(const std::string &name, const std::function<void(BuilderCall &)> &make,
                   const std::function<void(const BuilderStep &, const BuilderCall &)> &check) {
    long k = 1;
    const long max_steps = 500;
    for (; k <= max_steps; ++k) {
        const long before = zu::live_allocations().total();
        bool delivered = false;
        {
            BuilderCall call;
            make(call);
            BuilderStep step;
            step.k = k;
            MessageCapture capture;
            zu::fail_allocation(k);
            try {
                step.result = zu::call(name, call.args);
            } catch (const zu::Error &e) {
                step.threw = true;
                step.error_number = e.number();
                step.error_text = e.what();
            }
            delivered = zu::injected_failure_delivered();
            zu::fail_allocation(0);
            step.messages = capture.messages;
            if (delivered) check(step, call);
        }
        EXPECT_EQ(zu::live_allocations().total(), before)
            << name << ": allocations left live after failing allocation " << k;
        if (!delivered) break;
    }
    EXPECT_LT(k, max_steps) << name << ": sweep did not finish";
    return k - 1;
}

// ================================================================== ARMA

struct ArmaResult {
    Value rtn, sys, var, init;
    std::vector<std::string> messages;
};

ArmaResult arma(Value ar, Value ma, double sigma) {
    ArmaResult r;
    Args a;
    a.push_back(std::move(ar));
    a.push_back(std::move(ma));
    a.push_back(Value::real(sigma));
    a.push_back(Value::ref(r.sys));
    a.push_back(Value::ref(r.var));
    a.push_back(Value::ref(r.init));
    MessageCapture cap;
    r.rtn = zu::call("GetLgmArma", a);
    r.messages = cap.messages;
    return r;
}

// max |P - T P T' - Q| over the state block of a built model.
double lyapunov_residual(const Value &sys, const Value &var, const Value &init) {
    const int m = sys.cols();
    double worst = 0.0;
    for (int i = 0; i < m; ++i)
        for (int j = 0; j < m; ++j) {
            double tpt = 0.0;
            for (int k = 0; k < m; ++k)
                for (int l = 0; l < m; ++l) tpt += sys.at(i, k) * init.at(k, l) * sys.at(j, l);
            worst = std::max(worst, std::fabs(init.at(i, j) - tpt - var.at(i, j)));
        }
    return worst;
}

TEST(GetLgmArma, WorkedAr1AndMa1) {
    NoLeak guard;
    {
        ArmaResult r = arma(mat(1, 1, {0.5}), Value::empty(), 1.0);
        EXPECT_EQ(r.rtn.as_int(), 1);
        EXPECT_TRUE(r.messages.empty());
        expect_matrix(r.sys, 2, 1, {0.5, 1.0}, kAssigned, "AR(1) SysMat");
        expect_matrix(r.var, 2, 2, {1, 0, 0, 0}, kAssigned, "AR(1) VarMat");
        expect_matrix(r.init, 2, 1, {1.0 / 0.75, 0.0}, kAssigned, "AR(1) InitMat");
    }
    {
        // sigma = 2: Q = 4 [[1, .4], [.4, .16]], P0 = Q + T Q T' = 4 [[1.16, .4], [.4, .16]].
        // The 4 x 4 inversion costs a few ulps per element.
        ArmaResult r = arma(Value::empty(), mat(1, 1, {0.4}), 2.0);
        EXPECT_EQ(r.rtn.as_int(), 1);
        expect_matrix(r.sys, 3, 2, {0, 1, 0, 0, 1, 0}, kAssigned, "MA(1) SysMat");
        expect_matrix(r.var, 3, 3, {4, 1.6, 0, 1.6, 0.64, 0, 0, 0, 0}, kAssigned, "MA(1) VarMat");
        expect_matrix(r.init, 3, 2, {4.64, 1.6, 1.6, 0.64, 0, 0}, 1e-13, "MA(1) InitMat");
    }
}

TEST(GetLgmArma, RowColumnAndScalarCoefficientsGiveTheSameModel) {
    NoLeak guard;
    const std::vector<double> ar = {0.6, -0.3, 0.1}, ma = {0.5, 0.2};
    ArmaResult row = arma(mat(1, 3, ar), mat(1, 2, ma), 1.5);
    ArmaResult col = arma(mat(3, 1, ar), mat(2, 1, ma), 1.5);
    ArmaResult mixed = arma(mat(3, 1, ar), mat(1, 2, ma), 1.5);
    ASSERT_EQ(row.rtn.as_int(), 1);
    ASSERT_EQ(col.rtn.as_int(), 1);
    EXPECT_EQ(row.sys.to_vector(), col.sys.to_vector());
    EXPECT_EQ(row.var.to_vector(), col.var.to_vector());
    EXPECT_EQ(row.init.to_vector(), col.init.to_vector());
    EXPECT_EQ(row.init.to_vector(), mixed.init.to_vector());
    // m = max(3, 2 + 1) = 3: companion form, theta = (1, .5, .2).
    expect_matrix(row.sys, 4, 3, {0.6, 1, 0, -0.3, 0, 1, 0.1, 0, 0, 1, 0, 0}, kAssigned, "SysMat");
    const double th[3] = {1, 0.5, 0.2};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            EXPECT_NEAR(row.var.at(i, j), 2.25 * th[i] * th[j], kAssigned) << i << "," << j;
    for (int i = 0; i < 4; ++i) EXPECT_EQ(row.var.at(3, i), 0.0);
    // The stationary variance solves P = T P T' + Q (dense inversion of a
    // 9 x 9 system with P elements of order 10: 1e-12 absolute).
    EXPECT_LT(lyapunov_residual(row.sys, row.var, row.init), 1e-12);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(row.init.at(3, i), 0.0) << "mean row";
        for (int j = 0; j < 3; ++j) EXPECT_EQ(row.init.at(i, j), row.init.at(j, i)) << "symmetry";
    }
    // A scalar coefficient counts as a 1 x 1 matrix.
    ArmaResult scalar_ar = [&] {
        ArmaResult r;
        Args a;
        a.push_back(Value::real(0.5));
        a.push_back(Value::empty());
        a.push_back(Value::integer(1));  // sigma converted to double
        a.push_back(Value::ref(r.sys));
        a.push_back(Value::ref(r.var));
        a.push_back(Value::ref(r.init));
        r.rtn = zu::call("GetLgmArma", a);
        return r;
    }();
    EXPECT_EQ(scalar_ar.rtn.as_int(), 1);
    expect_matrix(scalar_ar.init, 2, 1, {1.0 / 0.75, 0.0}, kAssigned, "scalar AR(1) InitMat");
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
        Args a;
        a.push_back(empties[c].first);
        a.push_back(empties[c].second);
        a.push_back(Value::real(1.0));
        a.push_back(Value::ref(sys));
        a.push_back(Value::ref(var));
        a.push_back(Value::ref(init));
        MessageCapture cap;
        Value rtn = zu::call("GetLgmArma", a);
        EXPECT_EQ(rtn.as_int(), 0) << "case " << c;
        ASSERT_EQ(cap.messages.size(), 1u) << "case " << c;
        EXPECT_EQ(cap.messages[0], "GetLgmArma(): system error");
        EXPECT_EQ(sys.as_double(), 7.0);
        EXPECT_EQ(var.as_double(), 8.0);
        EXPECT_EQ(init.as_double(), 9.0);
    }
    // Unit roots make I - T (x) T singular (exactly so in floating point for
    // these coefficients): the matrices stay allocated, SysMat and VarMat
    // filled, InitMat zero.
    for (const std::vector<double> &ar : {std::vector<double>{1.0}, std::vector<double>{-1.0},
                                          std::vector<double>{0.0, 1.0}}) {
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

TEST(GetLgmArma, ArgumentErrors) {
    NoLeak guard;
    Value sys, var, init;
    auto args = [&](Value sigma, bool refs) {
        Args a;
        a.push_back(mat(1, 1, {0.5}));
        a.push_back(Value::empty());
        a.push_back(std::move(sigma));
        if (refs) {
            a.push_back(Value::ref(sys));
            a.push_back(Value::ref(var));
            a.push_back(Value::ref(init));
        } else {
            a.push_back(Value::real(0));
            a.push_back(Value::real(0));
            a.push_back(Value::real(0));
        }
        return a;
    };
    Args five = args(Value::real(1), true);
    five.pop_back();
    EXPECT_EQ(error_of("GetLgmArma", five).text, "GetLgmArma(): six arguments required");
    Args seven = args(Value::real(1), true);
    seven.push_back(Value::real(1));
    EXPECT_EQ(error_of("GetLgmArma", seven).text, "GetLgmArma(): six arguments required");
    Args bad_sigma = args(mat(1, 2, {1, 2}), true);
    EXPECT_EQ(error_of("GetLgmArma", bad_sigma).number, zu::kErrorType);
    Args no_refs = args(Value::real(1), false);
    EXPECT_EQ(error_of("GetLgmArma", no_refs).number, zu::kErrorType);
    EXPECT_TRUE(sys.is_none());
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
    double **bsys = MatAllocBlock(3, 2), **bvar = MatAllocBlock(3, 3), **binit = MatAllocBlock(3, 2);
    double bphi[2] = {phi_b[0], phi_b[1]}, btheta[2] = {theta_b[0], theta_b[1]};
    ASSERT_EQ(fGetLgmUnivArma(2, 0, 0, bphi, btheta, bsys, bvar, binit, sigma), 1);

    for (int d : {0, 1, 2}) {
        for (int s : {0, 3, 4}) {
            SCOPED_TRACE("d = " + std::to_string(d) + ", s = " + std::to_string(s));
            const int r = d + s, m = r + 2;
            std::vector<double> phi(m, 99.0), theta(m, 99.0);  // positions < r ignored
            phi[r] = phi_b[0], phi[r + 1] = phi_b[1];
            theta[r] = theta_b[0], theta[r + 1] = theta_b[1];
            double **sys = MatAllocBlock(m + 1, m), **var = MatAllocBlock(m + 1, m + 1),
                   **init = MatAllocBlock(m + 1, m);
            ASSERT_EQ(fGetLgmUnivArma(m, d, s, phi.data(), theta.data(), sys, var, init, sigma), 1);

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
            MatFreeBlock(sys);
            MatFreeBlock(var);
            MatFreeBlock(init);
        }
    }
    // No ARMA block left (m = d + s) or d outside 0..2: refused.
    double p[4] = {0, 0, 0, 0}, q[4] = {1, 0, 0, 0};
    EXPECT_EQ(fGetLgmUnivArma(2, 2, 0, p, q, bsys, bvar, binit, 1.0), 0);
    EXPECT_EQ(fGetLgmUnivArma(2, 3, 0, p, q, bsys, bvar, binit, 1.0), 0);
    MatFreeBlock(bsys);
    MatFreeBlock(bvar);
    MatFreeBlock(binit);
}

TEST(GetLgmArma, AllocationFailureSweep) {
    const long sites = builder_sweep(
        "GetLgmArma",
        [](BuilderCall &c) {
            c.args.push_back(mat(1, 2, {0.5, 0.2}));
            c.args.push_back(mat(1, 1, {0.3}));
            c.args.push_back(Value::real(1.0));
            c.ref_arg(0);
            c.ref_arg(1);
            c.ref_arg(2);
        },
        [](const BuilderStep &s, const BuilderCall &) {
            if (s.threw) {
                // A result matrix could not be had.
                EXPECT_EQ(s.error_number, zu::kErrorMessage) << "step " << s.k;
                EXPECT_EQ(s.error_text, "GetLgmArma(): memory allocation failure");
            } else {
                // The stationary system's scratch could not be had.
                EXPECT_EQ(s.result.as_int(), 0) << "step " << s.k;
                ASSERT_EQ(s.messages.size(), 1u) << "step " << s.k;
                EXPECT_EQ(s.messages[0], "GetLgmArma(): system error");
            }
        });
    EXPECT_GE(sites, 4);  // three results and the scratch matrix
}

// ============================================================ structural

struct StsmResult {
    Value rtn, sys, var, init;
};

StsmResult stsm(int rows, int cols, const std::vector<double> &table) {
    StsmResult r;
    Args a;
    a.push_back(mat(rows, cols, table));
    a.push_back(Value::ref(r.sys));
    a.push_back(Value::ref(r.var));
    a.push_back(Value::ref(r.init));
    r.rtn = zu::call("GetLgmStsm", a);
    return r;
}

std::string stsm_error(int rows, int cols, const std::vector<double> &table) {
    NoLeak guard;
    Value sys, var, init;
    Args a;
    a.push_back(mat(rows, cols, table));
    a.push_back(Value::ref(sys));
    a.push_back(Value::ref(var));
    a.push_back(Value::ref(init));
    return error_of("GetLgmStsm", a).text;
}

TEST(GetLgmStsm, LevelIrregularAndSlope) {
    NoLeak guard;
    {
        StsmResult r = stsm(2, 2, {0, 0.5, 19, 2.0});
        expect_matrix(r.rtn, 1, 2, {0, 1}, 0.0, "starts");
        expect_matrix(r.sys, 2, 1, {1, 1}, 0.0, "SysMat");
        expect_matrix(r.var, 2, 2, {0.25, 0, 0, 4}, 0.0, "VarMat");
        expect_matrix(r.init, 2, 1, {-1, 0}, 0.0, "InitMat");
    }
    {
        // Slope listed before its level: the level adds the slope.
        StsmResult r = stsm(3, 2, {1, 0.1, 19, 1.0, 0, 0.3});
        expect_matrix(r.rtn, 1, 3, {1, 2, 0}, 0.0, "starts");
        expect_matrix(r.sys, 3, 2, {1, 1, 0, 1, 1, 0}, 0.0, "SysMat");
        expect_matrix(r.var, 3, 3, {0.09, 0, 0, 0, 0.01, 0, 0, 0, 1}, kAssigned, "VarMat");
        expect_matrix(r.init, 3, 2, {-1, 0, 0, -1, 0, 0}, 0.0, "InitMat");
    }
    {
        // A slope without a level places nothing and keeps its start 0.
        StsmResult r = stsm(3, 4, {1, 0.1, 0, 0, 17, 2.0, 0, 0.5, 19, 1.0, 0, 0});
        expect_matrix(r.rtn, 1, 3, {0, 0, 1}, 0.0, "starts");
        expect_matrix(r.sys, 2, 1, {0.5, 1}, 0.0, "SysMat");
        expect_matrix(r.var, 2, 2, {3.0, 0, 0, 1}, kAssigned, "VarMat");
        expect_matrix(r.init, 2, 1, {4, 0}, 0.0, "InitMat");
    }
}

TEST(GetLgmStsm, TrendAndSeasonalBlocks) {
    NoLeak guard;
    {
        StsmResult r = stsm(2, 3, {2, 0.5, 2, 19, 1, 0});
        expect_matrix(r.sys, 3, 2, {1, 1, 0, 1, 1, 0}, 0.0, "trend 2 SysMat");
        expect_matrix(r.var, 3, 3, {0, 0, 0, 0, 0.25, 0, 0, 0, 1}, 0.0, "trend 2 VarMat");
        expect_matrix(r.init, 3, 2, {-1, 0, 0, -1, 0, 0}, 0.0, "trend 2 InitMat");
    }
    {
        // Trigonometric seasonal of period 4: a block at pi/2, then -1 at pi.
        StsmResult r = stsm(3, 3, {0, 1, 0, 4, 0.5, 4, 19, 1, 0});
        expect_matrix(r.rtn, 1, 3, {0, 1, 4}, 0.0, "starts");
        expect_matrix(r.sys, 5, 4,
                      {1, 0, 0, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 0, 0, -1, 1, 1, 0, 1}, 1e-15,
                      "seasonal SysMat");
        for (int i = 1; i < 4; ++i) {
            EXPECT_EQ(r.var.at(i, i), 0.25);
            EXPECT_EQ(r.init.at(i, i), -1.0);
        }
    }
    {
        // Dummy seasonal of period 3 and the summing-to-zero form of period 3.
        StsmResult r = stsm(2, 3, {3, 2, 3, 19, 1, 0});
        expect_matrix(r.sys, 3, 2, {-1, -1, 1, 0, 1, 0}, 0.0, "dummy SysMat");
        expect_matrix(r.var, 3, 3, {4, 0, 0, 0, 0, 0, 0, 0, 1}, 0.0, "dummy VarMat");
        StsmResult z = stsm(2, 3, {5, 2, 3, 19, 1, 0});
        expect_matrix(z.sys, 4, 3, {0, 1, 0, 0, 0, 1, 1, 0, 0, 1, 0, 0}, 0.0, "sum SysMat");
        expect_matrix(z.var, 4, 4, {4, -2, -2, 0, -2, 4, -2, 0, -2, -2, 4, 0, 0, 0, 0, 1}, 0.0,
                      "sum VarMat");
        expect_matrix(z.init, 4, 3, {-2, -1, -1, -1, -2, -1, -1, -1, -2, 0, 0, 0}, 0.0,
                      "sum InitMat");
    }
}

TEST(GetLgmStsm, PlacementDoesNotDependOnRowOrder) {
    NoLeak guard;
    // level, slope, dummy seasonal 4, cycle 9, cycle 7, AR(1), AR(2),
    // Butterworth order 2, irregular.
    const std::vector<std::vector<double>> rows = {
        {0, 0.3, 0, 0, 0},        {1, 0.1, 0, 0, 0},         {3, 0.2, 4, 0, 0},
        {9, 1.1, 0.4, 0.8, 0},    {7, 0.9, 0.7, 0.6, 0},     {17, 0.7, 0, 0.5, 0},
        {18, 1.3, 0, 0.6, -0.2},  {6, 0.8, 0.5, 0.7, 2},     {19, 1.0, 0, 0, 0},
    };
    // Fixed placement: level 0, slope 1, Butterworth 2..5, seasonal 6..8,
    // cycle 7 at 9, cycle 9 at 11, AR(1) 13, AR(2) 14..15, irregular 16.
    const double start_of[9] = {0, 1, 6, 11, 9, 13, 14, 2, 16};
    std::vector<int> order(rows.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<int>(i);
    std::mt19937 gen(7);
    StsmResult first;
    for (int trial = 0; trial < 6; ++trial) {
        if (trial > 0) std::shuffle(order.begin(), order.end(), gen);
        std::vector<double> table;
        for (int i : order) table.insert(table.end(), rows[i].begin(), rows[i].end());
        StsmResult r = stsm(9, 5, table);
        ASSERT_EQ(r.sys.cols(), 16);
        for (size_t k = 0; k < order.size(); ++k)
            EXPECT_EQ(r.rtn.at(0, static_cast<int>(k)), start_of[order[k]]) << "row " << k;
        if (trial == 0) {
            first = std::move(r);
            continue;
        }
        EXPECT_EQ(r.sys.to_vector(), first.sys.to_vector());
        EXPECT_EQ(r.var.to_vector(), first.var.to_vector());
        EXPECT_EQ(r.init.to_vector(), first.init.to_vector());
    }
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
        {3, 4, {17, 1, 0, .5, 17, 1, 0, .5, 19, 1, 0, 0},
         "only one autoregressive(1) component allowed in argument 1"},
        {2, 3, {17, 1, 0, 19, 1, 0}, "at least four columns required in argument 1"},
        {3, 5, {18, 1, 0, .5, .1, 18, 1, 0, .5, .1, 19, 1, 0, 0, 0},
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
        {2, 5, {6, 1, -0.1, .5, 1, 19, 1, 0, 0, 0},
         "bwcycle parameters not appropriate in argument 3"},
        {2, 5, {6, 1, 0.5, 1.01, 1, 19, 1, 0, 0, 0},
         "bwcycle parameters not appropriate in argument 3"},
        {2, 5, {6, 1, 0.5, .5, 0, 19, 1, 0, 0, 0}, "bwcycle order not appropriate in argument 4"},
        {2, 5, {6, 1, 0.5, .5, 10, 19, 1, 0, 0, 0}, "bwcycle order not appropriate in argument 4"},
        {2, 3, {12, 1, 0.5, 19, 1, 0}, "at least four columns required in argument 1"},
        {2, 4, {8, 1, -0.5, .5, 19, 1, 0, 0}, "cycle parameters not appropriate in argument 1"},
        {2, 4, {16, 1, 0.5, -0.1, 19, 1, 0, 0}, "cycle parameters not appropriate in argument 1"},
        {2, 4, {17, 1, 0, 1.5, 19, 1, 0, 0},
         "autoregressive(1) parameters not appropriate in argument 3"},
        {2, 5, {18, 1, 0, -1.5, 0, 19, 1, 0, 0, 0},
         "autoregressive(2) parameters not appropriate in argument 3"},
        {2, 5, {18, 1, 0, 0.5, 1.5, 19, 1, 0, 0, 0},
         "autoregressive(2) parameters not appropriate in argument 4"},
        // First-pass faults come before second-pass faults, whatever the rows.
        {3, 2, {25, 1, 19, 1, 19, 1}, "only one irregular component allowed in argument 1"},
        // Nothing to place: a slope without a level and an irregular.
        {2, 2, {1, 1, 19, 1}, "no model specified in argument 1"},
        // Counted states that are not placed.
        {3, 4, {7, 1, .5, .5, 7, 1, .5, .5, 19, 1, 0, 0},
         "no correct model specified in argument 1"},
        {2, 5, {6, 1, 0.5, .5, 1.5, 19, 1, 0, 0, 0}, "no correct model specified in argument 1"},
        {2, 5, {6, 1, 0.5, .5, 0.3, 17, 1, 0, .5, 0}, "no correct model specified in argument 1"},
        {2, 4, {2, 1, 0.5, 0, 17, 1, 0, .5}, "no correct model specified in argument 1"},
    };
    for (const Case &c : cases) EXPECT_EQ(stsm_error(c.rows, c.cols, c.table), p + c.text);

    NoLeak guard;
    Value s, v, i;
    Args three;
    three.push_back(mat(2, 2, {0, 1, 19, 1}));
    three.push_back(Value::ref(s));
    three.push_back(Value::ref(v));
    EXPECT_EQ(error_of("GetLgmStsm", three).text, p + "at least four arguments required");
    Args not_refs;
    not_refs.push_back(mat(2, 2, {0, 1, 19, 1}));
    not_refs.push_back(Value::ref(s));
    not_refs.push_back(Value::ref(v));
    not_refs.push_back(Value::real(0));
    EXPECT_EQ(error_of("GetLgmStsm", not_refs).number, zu::kErrorType);
}

TEST(GetLgmStsm, AllocationFailureSweep) {
    // A Butterworth cycle needs the two scratch matrices of its initial
    // variance as well.
    const long sites = builder_sweep(
        "GetLgmStsm",
        [](BuilderCall &c) {
            c.args.push_back(mat(3, 5, {0, 1, 0, 0, 0, 6, 1, 0.5, 0.5, 2, 19, 1, 0, 0, 0}));
            c.ref_arg(0);
            c.ref_arg(1);
            c.ref_arg(2);
        },
        [](const BuilderStep &s, const BuilderCall &) {
            ASSERT_TRUE(s.threw) << "step " << s.k;
            EXPECT_TRUE(s.result.is_none());
            if (s.k == 1) {
                EXPECT_EQ(s.error_number, zu::kErrorMemory);  // the return vector
            } else if (s.k <= 4) {
                EXPECT_EQ(s.error_text, "GetLgmStsm(): memory allocation failure");
            } else {
                EXPECT_EQ(s.error_text, "GetLgmStsm(): no correct model specified in argument 1");
            }
        });
    EXPECT_EQ(sites, 6);
}

// ============================================================ regression

struct RegModel {
    Value sys, var, init, idx;
};

TEST(GetLgmReg, TwoRegressors) {
    NoLeak guard;
    RegModel r;
    Args a;
    a.push_back(Value::matrix(2, 100));
    a.push_back(Value::ref(r.sys));
    a.push_back(Value::ref(r.var));
    a.push_back(Value::ref(r.init));
    a.push_back(Value::ref(r.idx));
    EXPECT_EQ(zu::call("GetLgmReg", a).as_int(), 1);
    expect_matrix(r.sys, 3, 2, {1, 0, 0, 1, 0, 0}, 0.0, "SysMat");
    expect_matrix(r.idx, 3, 2, {-1, -1, -1, -1, 0, 1}, 0.0, "SysIdx");
    expect_matrix(r.var, 3, 3, {0, 0, 0, 0, 0, 0, 0, 0, 1}, 0.0, "VarMat");
    expect_matrix(r.init, 3, 2, {-1, 0, 0, -1, 0, 0}, 0.0, "InitMat");
}

TEST(GetLgmReg, ArgumentErrors) {
    NoLeak guard;
    RegModel r;
    auto args = [&](Value x) {
        Args a;
        a.push_back(std::move(x));
        a.push_back(Value::ref(r.sys));
        a.push_back(Value::ref(r.var));
        a.push_back(Value::ref(r.init));
        a.push_back(Value::ref(r.idx));
        return a;
    };
    Args four = args(Value::matrix(1, 3));
    four.pop_back();
    EXPECT_EQ(error_of("GetLgmReg", four).text, "GetLgmReg(): five arguments required");
    Args empty = args(Value::empty());
    EXPECT_EQ(error_of("GetLgmReg", empty).text, "GetLgmReg(): data matrix needed in first argument");
    Args no_ref = args(Value::matrix(1, 3));
    no_ref[4] = Value::real(0);
    EXPECT_EQ(error_of("GetLgmReg", no_ref).number, zu::kErrorType);
    EXPECT_TRUE(r.sys.is_none());
}

// AddLgmReg with the model in `m` (moved in as the reference targets).
testutil::CallError add_reg(Value x, RegModel &m, Value *rtn = nullptr) {
    Args a;
    a.push_back(std::move(x));
    a.push_back(Value::ref(m.sys));
    a.push_back(Value::ref(m.var));
    a.push_back(Value::ref(m.init));
    a.push_back(Value::ref(m.idx));
    try {
        Value v = zu::call("AddLgmReg", a);
        if (rtn) *rtn = std::move(v);
    } catch (const zu::Error &e) {
        return {e.number(), e.what()};
    }
    return {};
}

TEST(AddLgmReg, OntoEmptyEqualsGetLgmReg) {
    NoLeak guard;
    RegModel got;
    Args a;
    a.push_back(Value::matrix(3, 10));
    a.push_back(Value::ref(got.sys));
    a.push_back(Value::ref(got.var));
    a.push_back(Value::ref(got.init));
    a.push_back(Value::ref(got.idx));
    zu::call("GetLgmReg", a);
    RegModel added{Value::empty(), Value::empty(), Value::empty(), Value::empty()};
    Value rtn;
    EXPECT_EQ(add_reg(Value::matrix(3, 10), added, &rtn).number, -1);
    EXPECT_TRUE(rtn.is_none());  // no return value
    EXPECT_EQ(added.sys.rows(), 4);
    EXPECT_EQ(added.sys.to_vector(), got.sys.to_vector());
    EXPECT_EQ(added.var.to_vector(), got.var.to_vector());
    EXPECT_EQ(added.init.to_vector(), got.init.to_vector());
    EXPECT_EQ(added.idx.to_vector(), got.idx.to_vector());
    EXPECT_EQ(added.idx.cols(), 3);
}

TEST(AddLgmReg, InFrontOfALocalLevelAndNoOpForNoRegressors) {
    NoLeak guard;
    // Old model with a state/observation cross-covariance of 0.2 and an
    // initial mean of 5: the covariance is dropped, the mean moves along.
    RegModel m{mat(2, 1, {1, 1}), mat(2, 2, {0.7, 0.2, 0.2, 1.5}), mat(2, 1, {-1, 5}),
               Value::empty()};
    EXPECT_EQ(add_reg(Value::matrix(0, 20), m).number, -1);
    EXPECT_EQ(m.sys.rows(), 2);
    EXPECT_TRUE(m.idx.rows() == 0 && m.idx.cols() == 0);

    EXPECT_EQ(add_reg(Value::matrix(1, 20), m).number, -1);
    expect_matrix(m.sys, 3, 2, {1, 0, 0, 1, 0, 1}, 0.0, "SysMat");
    expect_matrix(m.idx, 3, 2, {-1, -1, -1, -1, 0, -1}, 0.0, "SysIdx");
    expect_matrix(m.var, 3, 3, {0, 0, 0, 0, 0.7, 0, 0, 0, 1.5}, 0.0, "VarMat");
    expect_matrix(m.init, 3, 2, {-1, 0, 0, -1, 0, 5}, 0.0, "InitMat");

    // Two more regressors in front of that take TvData rows 0 and 1. SysIdx
    // must be passed empty, so the earlier regressor's index is not carried:
    // it keeps its fixed Z element 0.
    m.idx = Value::empty();
    EXPECT_EQ(add_reg(Value::matrix(2, 20), m).number, -1);
    ASSERT_EQ(m.sys.cols(), 4);
    expect_matrix(m.idx, 5, 4, {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                0, 1, -1, -1},
                  0.0, "SysIdx");
    for (int i = 0; i < 4; ++i) EXPECT_EQ(m.sys.at(i, i), 1.0);
    EXPECT_EQ(m.sys.at(4, 3), 1.0);
    EXPECT_EQ(m.var.at(4, 4), 1.5);
    EXPECT_EQ(m.init.at(4, 3), 5.0);
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
        Args a;
        a.push_back(Value::matrix(1, 5));
        a.push_back(Value::ref(m.sys));
        EXPECT_EQ(error_of("AddLgmReg", a).text, p + "five arguments required");
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
    cases.push_back({RegModel{mat(2, 1, {1, 1}), mat(2, 2, {1, 0, 0, 1}), mat(2, 1, {-1, 0}),
                              mat(1, 1, {0})},
                     "argument 5 must be empty matrix <>"});
    cases.push_back({RegModel{Value::empty(), mat(2, 2, {1, 0, 0, 1}), Value::empty(),
                              Value::empty()},
                     "all pointers must be to empty matrices"});
    cases.push_back({RegModel{Value::empty(), Value::empty(), mat(1, 1, {1}), Value::empty()},
                     "all pointers must be to empty matrices"});
    cases.push_back({RegModel{mat(3, 1, {1, 1, 1}), mat(2, 2, {1, 0, 0, 1}), mat(2, 1, {-1, 0}),
                              Value::empty()},
                     "argument 2 wrong matrix dimension"});
    cases.push_back({RegModel{mat(2, 1, {1, 1}), mat(2, 3, {1, 0, 0, 0, 1, 0}),
                              mat(2, 1, {-1, 0}), Value::empty()},
                     "argument 3 wrong matrix dimension"});
    cases.push_back({RegModel{mat(2, 1, {1, 1}), mat(2, 2, {1, 0, 0, 1}), mat(1, 1, {-1}),
                              Value::empty()},
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
    Args a;
    a.push_back(Value::real(q));
    a.push_back(std::move(delta));
    for (int k = 2; k < nargs; ++k) a.push_back(Value::ref(r.out[k - 2]));
    r.rtn = zu::call("GetLgmSpline", a);
    return r;
}

TEST(GetLgmSpline, FixedAndTimeVaryingForms) {
    NoLeak guard;
    const double q = 0.6;
    const std::vector<double> delta = {1.0, 0.5, 2.0, 3.25};
    const std::vector<double> sys = {1, 1, 0, 1, 1, 0};
    const std::vector<double> var = {q / 3, q / 2, 0, q / 2, q, 0, 0, 0, 1};
    {
        SplineResult r = spline(q, mat(1, 4, delta), 4);
        EXPECT_EQ(r.rtn.as_int(), 1);
        expect_matrix(r.out[0], 3, 2, sys, 0.0, "SysMat");
        expect_matrix(r.out[1], 3, 3, var, kAssigned, "VarMat");
        for (int k = 2; k < 6; ++k) EXPECT_EQ(r.out[k].as_double(), -7.0);
    }
    {
        SplineResult r = spline(q, mat(1, 4, delta), 5);
        expect_matrix(r.out[2], 3, 2, {-1, 0, 0, -1, 0, 0}, 0.0, "InitMat");
    }
    {
        SplineResult r = spline(q, Value::empty(), 8);
        EXPECT_EQ(r.rtn.as_int(), 1);
        expect_matrix(r.out[2], 3, 2, {-1, 0, 0, -1, 0, 0}, 0.0, "InitMat");
        for (int k = 3; k < 6; ++k) EXPECT_EQ(r.out[k].as_double(), -7.0);
    }
    SplineResult r = spline(q, mat(1, 4, delta), 8);
    expect_matrix(r.out[0], 3, 2, sys, 0.0, "SysMat");
    expect_matrix(r.out[3], 3, 2, {-1, 0, -1, -1, -1, -1}, 0.0, "SysIdx");
    expect_matrix(r.out[4], 3, 3, {3, 2, -1, 2, 1, -1, -1, -1, -1}, 0.0, "VarIdx");
    ASSERT_EQ(r.out[5].rows(), 4);
    ASSERT_EQ(r.out[5].cols(), 4);
    // Applying the index matrices at each t gives T = [[1, delta], [0, 1]]
    // and the integrated random walk variance q [[d^3/3, d^2/2], [d^2/2, d]].
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

TEST(GetLgmSpline, ArgumentErrors) {
    NoLeak guard;
    for (int nargs : {3, 6, 7, 9}) {
        std::array<Value, 8> t;
        Args a;
        a.push_back(Value::real(1.0));
        a.push_back(mat(1, 2, {1, 1}));
        for (int k = 2; k < nargs; ++k) a.push_back(Value::ref(t[k - 2]));
        EXPECT_EQ(error_of("GetLgmSpline", a).text, "GetLgmSpline(): wrong number of arguments")
            << nargs;
    }
    Value s, v;
    Args bad_q;
    bad_q.push_back(mat(1, 2, {1, 1}));
    bad_q.push_back(mat(1, 2, {1, 1}));
    bad_q.push_back(Value::ref(s));
    bad_q.push_back(Value::ref(v));
    EXPECT_EQ(error_of("GetLgmSpline", bad_q).number, zu::kErrorType);
}

TEST(RegressionBuilders, AllocationFailureSweeps) {
    long sites = builder_sweep(
        "GetLgmReg",
        [](BuilderCall &c) {
            c.args.push_back(mat(2, 3, {1, 2, 3, 4, 5, 6}));
            for (int k = 0; k < 4; ++k) c.ref_arg(k);
        },
        [](const BuilderStep &s, const BuilderCall &) {
            ASSERT_TRUE(s.threw) << "step " << s.k;
            EXPECT_EQ(s.error_text, "GetLgmReg(): memory allocation failure");
        });
    EXPECT_EQ(sites, 4);

    for (bool onto_level : {false, true}) {
        sites = builder_sweep(
            "AddLgmReg",
            [&](BuilderCall &c) {
                c.targets[0] = onto_level ? mat(2, 1, {1, 1}) : Value::empty();
                c.targets[1] = onto_level ? mat(2, 2, {1, 0, 0, 2}) : Value::empty();
                c.targets[2] = onto_level ? mat(2, 1, {-1, 0}) : Value::empty();
                c.targets[3] = Value::empty();
                c.args.push_back(mat(2, 3, {1, 2, 3, 4, 5, 6}));
                for (int k = 0; k < 4; ++k) c.ref_arg(k);
            },
            [&](const BuilderStep &s, const BuilderCall &c) {
                ASSERT_TRUE(s.threw) << "step " << s.k;
                EXPECT_EQ(s.error_number, zu::kErrorMemory);
                // The caller's model is kept when the new one cannot be had.
                EXPECT_EQ(c.targets[0].rows(), onto_level ? 2 : 0);
                EXPECT_EQ(c.targets[3].rows(), 0);
            });
        EXPECT_EQ(sites, 4);
    }

    for (int nargs : {4, 5, 8}) {
        sites = builder_sweep(
            "GetLgmSpline",
            [&](BuilderCall &c) {
                c.args.push_back(Value::real(0.5));
                c.args.push_back(mat(1, 3, {1, 2, 3}));
                for (int k = 2; k < nargs; ++k) c.ref_arg(k - 2);
            },
            [](const BuilderStep &s, const BuilderCall &c) {
                ASSERT_TRUE(s.threw) << "step " << s.k;
                EXPECT_EQ(s.error_number, zu::kErrorMemory);
                for (const Value &t : c.targets) EXPECT_TRUE(t.is_none());
            });
        EXPECT_EQ(sites, nargs == 4 ? 2 : nargs == 5 ? 3 : 6);
    }
}

}  // namespace
