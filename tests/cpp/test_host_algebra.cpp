// Conformance tests of the host's matrix algebra (zu.h): products against
// plain loops, IInvDet against cofactor determinants and a full-pivoting
// Gauss-Jordan inverse in long double, ILDLdec by reconstruction, IMatRank on
// matrices of constructed rank.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using testutil::fill_spd;
using testutil::fill_uniform;
using Mat = testutil::HostMat;
using LMat = std::vector<std::vector<long double>>;

constexpr double kEps = DBL_EPSILON;
const double kInf = std::numeric_limits<double>::infinity();

// ---------------------------------------------------------------- oracles

// Determinant by cofactor expansion along the first row (n <= 8: 8! terms).
long double cofactor_det(const LMat &a, std::vector<int> &cols, int row) {
    const int n = static_cast<int>(a.size());
    if (row == n) return 1.0L;
    long double sum = 0.0L;
    int sign = 1;
    for (std::size_t k = 0; k < cols.size(); ++k) {
        const int c = cols[k];
        if (c < 0) continue;
        cols[k] = -1;
        const long double term =
            a[row][c] == 0.0L ? 0.0L : a[row][c] * cofactor_det(a, cols, row + 1);
        cols[k] = c;
        sum += sign * term;
        sign = -sign;
    }
    return sum;
}

LMat to_long(const Mat &a) {
    LMat out(a.rows(), std::vector<long double>(a.cols()));
    for (int i = 0; i < a.rows(); ++i)
        for (int j = 0; j < a.cols(); ++j) out[i][j] = a[i][j];
    return out;
}

long double det_oracle(const Mat &m) {
    const LMat a = to_long(m);
    std::vector<int> cols(a.size());
    for (std::size_t j = 0; j < a.size(); ++j) cols[j] = static_cast<int>(j);
    return cofactor_det(a, cols, 0);
}

// Inverse by Gauss-Jordan elimination with full pivoting, in long double.
LMat inverse_oracle(LMat a) {
    const int n = static_cast<int>(a.size());
    LMat inv(n, std::vector<long double>(n, 0.0L));
    for (int i = 0; i < n; ++i) inv[i][i] = 1.0L;
    std::vector<int> colperm(n);
    for (int j = 0; j < n; ++j) colperm[j] = j;
    for (int k = 0; k < n; ++k) {
        int pr = k, pc = k;
        for (int i = k; i < n; ++i)
            for (int j = k; j < n; ++j)
                if (std::fabs(a[i][j]) > std::fabs(a[pr][pc])) pr = i, pc = j;
        std::swap(a[k], a[pr]);
        std::swap(inv[k], inv[pr]);
        for (int i = 0; i < n; ++i) std::swap(a[i][k], a[i][pc]);
        std::swap(colperm[k], colperm[pc]);
        const long double p = a[k][k];
        for (int j = 0; j < n; ++j) a[k][j] /= p, inv[k][j] /= p;
        for (int i = 0; i < n; ++i) {
            if (i == k) continue;
            const long double f = a[i][k];
            for (int j = 0; j < n; ++j) a[i][j] -= f * a[k][j], inv[i][j] -= f * inv[k][j];
        }
    }
    // a was turned into I by row operations on A Q (Q the column
    // permutation): inv holds (A Q)^-1 = Q' A^-1, so row k of inv is row
    // colperm[k] of A^-1.
    LMat out(n, std::vector<long double>(n));
    for (int k = 0; k < n; ++k) out[colperm[k]] = inv[k];
    return out;
}

// 1-norm (largest column sum of absolute values) of a square matrix.
long double norm1(const LMat &a) {
    long double best = 0;
    for (std::size_t j = 0; j < a.size(); ++j) {
        long double s = 0;
        for (std::size_t i = 0; i < a.size(); ++i) s += std::fabs(a[i][j]);
        best = std::max(best, s);
    }
    return best;
}

// Checks IInvDet on a nonsingular A against the oracles; returns the sign of
// the determinant. The forward error of an LU inverse and of its
// determinant is bounded by a modest multiple of n * eps * cond(A) (partial
// pivoting, no pathological growth on these matrices); we allow
// 16 n eps cond_1(A).
int check_inverse(const Mat &a, const char *what) {
    const int n = a.rows();
    SCOPED_TRACE(std::string(what) + ", n = " + std::to_string(n));
    const LMat al = to_long(a), ref = inverse_oracle(al);
    const long double det = det_oracle(a);
    const double tol = 16.0 * n * kEps * static_cast<double>(norm1(al) * norm1(ref));

    Mat x(a);
    const std::vector<double *> rows_before(x.get(), x.get() + n);
    double logdet = 12345.0;
    int sign = 12345;
    EXPECT_EQ(IInvDet(x.get(), n, &logdet, &sign), 0);
    for (int i = 0; i < n; ++i)
        EXPECT_EQ(x.get()[i], rows_before[i]) << "row pointers must stay in place";
    EXPECT_EQ(sign, det > 0 ? 1 : -1);
    EXPECT_NEAR(logdet, static_cast<double>(std::log(std::fabs(det))), tol);

    double refmax = 0.0;
    for (const auto &row : ref)
        for (long double v : row) refmax = std::fmax(refmax, std::fabs(static_cast<double>(v)));
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            // X A = I, residual relative to |X||A| scale.
            long double r = 0.0L;
            for (int k = 0; k < n; ++k) r += static_cast<long double>(x[i][k]) * al[k][j];
            EXPECT_NEAR(static_cast<double>(r), i == j ? 1.0 : 0.0, tol)
                << "(X A)[" << i << "][" << j << "]";
            EXPECT_NEAR(x[i][j], static_cast<double>(ref[i][j]), tol * refmax)
                << "X[" << i << "][" << j << "]";
        }
    return det > 0 ? 1 : -1;
}

}  // namespace

// ------------------------------------------------------------------ IInvDet

// Uniform random matrices of every order up to eight (both signs of the
// determinant must occur), SPD and indefinite symmetric ones, a matrix that
// fails without row exchanges (zero leading element, det = -2), and an SPD
// matrix with two rows swapped (negative determinant).
TEST(HostIInvDet, AgainstTheOracles) {
    std::mt19937_64 rng(20261121);
    int negative = 0, positive = 0;
    for (int n = 1; n <= 8; ++n) {
        for (int rep = 0; rep < 6; ++rep) {
            Mat a(n, n);
            fill_uniform(a, rng);
            (check_inverse(a, "uniform(-1, 1)") < 0 ? negative : positive)++;
        }
        Mat spd(n, n);
        fill_spd(spd, rng);
        check_inverse(spd, "SPD");
        // SPD minus a multiple of the identity large enough to push some
        // eigenvalues negative.
        Mat ind(spd);
        for (int i = 0; i < n; ++i) ind[i][i] -= 1.5 * n;
        if (std::fabs(static_cast<double>(det_oracle(ind))) > 1e-3)
            check_inverse(ind, "indefinite");
    }
    EXPECT_GT(negative, 5);
    EXPECT_GT(positive, 5);

    const Mat permuted(3, 3, {0, 1, 2, 1, 0, 3, 4, -3, 8});
    ASSERT_NEAR(static_cast<double>(det_oracle(permuted)), -2.0, 1e-15);
    EXPECT_EQ(check_inverse(permuted, "permuted"), -1);
    Mat s(5, 5);
    fill_spd(s, rng);
    for (int j = 0; j < 5; ++j) std::swap(s[0][j], s[3][j]);
    EXPECT_EQ(check_inverse(s, "SPD with two rows swapped"), -1);
}

TEST(HostIInvDet, ScalingOrderZeroAndLargeOrder) {
    // Diagonal scaling over 30 orders of magnitude: log|det| must be the sum
    // of the logs (no overflow of an accumulated product).
    const double d[4] = {1e-150, 1e150, -1e100, 3e-90};
    Mat a(4, 4);
    for (int i = 0; i < 4; ++i) a[i][i] = d[i];
    double logdet = 0, want = 0;
    int sign = 0;
    ASSERT_EQ(IInvDet(a.get(), 4, &logdet, &sign), 0);
    for (double x : d) want += std::log(std::fabs(x));
    EXPECT_NEAR(logdet, want, 1e-12 * std::fabs(want) + 1e-12);
    EXPECT_EQ(sign, -1);
    for (int i = 0; i < 4; ++i) EXPECT_DOUBLE_EQ(a[i][i], 1.0 / d[i]);

    logdet = sign = 5;
    EXPECT_EQ(IInvDet(nullptr, 0, &logdet, &sign), 0);
    EXPECT_EQ(logdet, 0.0);
    EXPECT_EQ(sign, 1);

    // Above the stack scratch size (64): the heap path must give the same
    // kind of answer. Diagonally dominant, so cond is small.
    const int n = 90;
    std::mt19937_64 rng(11);
    Mat b(n, n);
    fill_uniform(b, rng);
    for (int i = 0; i < n; ++i) b[i][i] += 2.0 * n;
    Mat x(b);
    ASSERT_EQ(IInvDet(x.get(), n, &logdet, &sign), 0);
    EXPECT_EQ(sign, 1);
    double worst = 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double r = 0;
            for (int k = 0; k < n; ++k) r += x[i][k] * b[k][j];
            worst = std::fmax(worst, std::fabs(r - (i == j ? 1.0 : 0.0)));
        }
    EXPECT_LT(worst, 100 * n * kEps);
}

// A zero column, two equal rows (elimination leaves an exact zero pivot) or
// a non-finite entry: failure with sign 0.
TEST(HostIInvDet, SingularMatricesReportSignZero) {
    std::mt19937_64 rng(3);
    auto expect_singular = [](Mat &a) {
        double logdet = 0;
        int sign = 7;
        EXPECT_NE(IInvDet(a.get(), a.rows(), &logdet, &sign), 0);
        EXPECT_EQ(sign, 0);
    };
    for (int n = 1; n <= 8; ++n) {
        SCOPED_TRACE("n = " + std::to_string(n));
        Mat a(n, n), b(n, n);
        fill_uniform(a, rng);
        fill_uniform(b, rng);
        for (int i = 0; i < n; ++i) a[i][n / 2] = 0.0;
        expect_singular(a);
        if (n < 2) continue;
        for (int j = 0; j < n; ++j) b[n - 1][j] = b[0][j];
        expect_singular(b);
    }
    Mat c(2, 2, {1, std::numeric_limits<double>::quiet_NaN(), 2, 1});
    expect_singular(c);
}

// ------------------------------------------------------------------ ILDLdec

// Checks L D L' against the lower triangle of the original, elementwise
// within 4 n eps (|L| |D| |L'|)_ij, the classical backward error bound of
// the factorisation with a safety factor; checks the upper triangle is kept
// and that garbage there does not matter. Returns the pivots (1 / D).
std::vector<double> check_ldl(const Mat &orig, const char *what) {
    const int n = orig.rows();
    SCOPED_TRACE(std::string(what) + ", n = " + std::to_string(n));
    Mat f(orig), g(orig);
    std::vector<double> d(n, -777.0), dg(n);
    EXPECT_EQ(ILDLdec(f.get(), d.data(), n), 0);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j) {
            double s = 0, sabs = 0;
            for (int k = 0; k <= j; ++k) {
                const double term = (k == i ? 1.0 : f[i][k]) / d[k] * (k == j ? 1.0 : f[j][k]);
                s += term;
                sabs += std::fabs(term);
            }
            EXPECT_NEAR(s, orig[i][j], 4.0 * n * kEps * sabs + 1e-300)
                << "(" << i << ", " << j << ")";
        }
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j) {
            EXPECT_EQ(f[i][j], orig[i][j]) << "upper triangle changed";
            g[i][j] = 1e300;
        }
    EXPECT_EQ(ILDLdec(g.get(), dg.data(), n), 0);
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(dg[i], d[i]);
        for (int j = 0; j < i; ++j) EXPECT_EQ(g[i][j], f[i][j]);
    }
    return d;
}

TEST(HostILDLdec, ReconstructsDefiniteAndIndefinite) {
    std::mt19937_64 rng(5);
    for (int n = 1; n <= 9; ++n) {
        Mat a(n, n);
        fill_spd(a, rng);
        // All pivots of an SPD matrix are positive.
        for (double x : check_ldl(a, "SPD")) EXPECT_GT(x, 0.0);
        Mat b(n, n);
        fill_uniform(b, rng);
        for (int i = 0; i < n; ++i) {
            b[i][i] += (i % 2 ? -3.0 : 3.0);  // alternating signs of the pivots
            for (int j = 0; j < i; ++j) b[j][i] = b[i][j];
        }
        check_ldl(b, "indefinite");
    }
}

// A negative pivot is no failure; a zero (first or second, 1 - 1 * 1 * 1)
// or non-finite pivot is.
TEST(HostILDLdec, PivotRules) {
    Mat a(2, 2, {-2, 1, 1, 3});
    std::vector<double> d(3);
    ASSERT_EQ(ILDLdec(a.get(), d.data(), 2), 0);
    EXPECT_DOUBLE_EQ(d[0], -0.5);       // 1 / -2
    EXPECT_DOUBLE_EQ(a[1][0], -0.5);    // 1 / -2
    EXPECT_DOUBLE_EQ(d[1], 1.0 / 3.5);  // 3 - (-0.5)^2 (-2) = 3.5
    for (const std::vector<double> &v :
         {std::vector<double>{0, 1, 1, 1}, std::vector<double>{1, 1, 1, 1}}) {
        Mat z(2, 2, v);
        EXPECT_NE(ILDLdec(z.get(), d.data(), 2), 0);
    }
    for (double bad : {kInf, std::numeric_limits<double>::quiet_NaN()}) {
        Mat c(3, 3, {1, 0, 0, 0, 1, 0, 0, 0, bad});
        EXPECT_NE(ILDLdec(c.get(), d.data(), 3), 0);
    }
}

// ---------------------------------------------------------------- products

// A computed dot product of length k differs from the exact one by at most
// k eps sum |terms|; two such implementations differ by at most twice that.
// Nested products (B S B') use the length of both sums.
TEST(HostProducts, MatABAgainstTripleLoop) {
    std::mt19937_64 rng(1);
    const int shapes[][3] = {{1, 1, 1}, {3, 4, 2}, {5, 1, 6}, {2, 7, 3}, {6, 6, 6}};
    for (const auto &s : shapes) {
        const int rows = s[0], inner = s[1], cols = s[2];
        Mat a(rows, inner), b(inner, cols);
        fill_uniform(a, rng);
        fill_uniform(b, rng);
        // R starts as garbage: MatAB must overwrite, not accumulate.
        Mat r(rows, cols, std::vector<double>(rows * cols, 1e6));
        MatAB(a.get(), rows, inner, b.get(), cols, r.get());
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) {
                double ref = 0, rabs = 0;
                for (int k = 0; k < inner; ++k)
                    ref += a[i][k] * b[k][j], rabs += std::fabs(a[i][k] * b[k][j]);
                EXPECT_NEAR(r[i][j], ref, 2 * inner * kEps * rabs);
            }
    }
}

// B S B' (reading only the leading order x order block of a larger S whose
// rest holds NaN) and B' S B, both exactly symmetric.
TEST(HostProducts, MatBSBtAndMatBtSBAgainstLoops) {
    std::mt19937_64 rng(2);
    const int shapes[][2] = {{1, 1}, {2, 5}, {5, 2}, {4, 4}, {3, 7}, {7, 3}};
    for (bool transposed : {false, true})
        for (const auto &s : shapes) {
            SCOPED_TRACE(std::string(transposed ? "B' S B " : "B S B' ") + std::to_string(s[0]) +
                         "x" + std::to_string(s[1]));
            const int rowsB = s[0], colsB = s[1], order = transposed ? rowsB : colsB,
                      out = transposed ? colsB : rowsB;
            Mat b(rowsB, colsB), core(order, order), r(out, out);
            fill_uniform(b, rng);
            fill_spd(core, rng);
            Mat S(order + 2, order + 2,
                  std::vector<double>((order + 2) * (order + 2), std::nan("")));
            for (int i = 0; i < order; ++i)
                for (int j = 0; j < order; ++j) S[i][j] = core[i][j];
            if (transposed)
                MatBtSB(b.get(), rowsB, S.get(), colsB, r.get());
            else
                MatBSBt(b.get(), rowsB, S.get(), order, r.get());
            auto B = [&](int i, int k) { return transposed ? b[k][i] : b[i][k]; };
            for (int i = 0; i < out; ++i)
                for (int j = 0; j < out; ++j) {
                    double ref = 0, rabs = 0;
                    for (int k = 0; k < order; ++k)
                        for (int l = 0; l < order; ++l) {
                            ref += B(i, k) * core[k][l] * B(j, l);
                            rabs += std::fabs(B(i, k) * core[k][l] * B(j, l));
                        }
                    EXPECT_NEAR(r[i][j], ref, 4 * order * kEps * rabs);
                    EXPECT_EQ(r[i][j], r[j][i]) << "result must be exactly symmetric";
                }
        }
}

// MatAdd with factors 1, -2.5 and 0, into a third matrix and over either
// operand; MatI and MatZero touch only the leading block.
TEST(HostProducts, MatAddMatIAndMatZero) {
    std::mt19937_64 rng(4);
    Mat a(3, 4), b(3, 4);
    fill_uniform(a, rng);
    fill_uniform(b, rng);
    for (double f : {1.0, -2.5, 0.0}) {
        Mat r(3, 4), ra(a), rb(b);
        MatAdd(a.get(), 3, 4, b.get(), f, r.get());
        MatAdd(ra.get(), 3, 4, b.get(), f, ra.get());
        MatAdd(a.get(), 3, 4, rb.get(), f, rb.get());
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 4; ++j)
                for (const Mat *m : {&r, &ra, &rb}) EXPECT_EQ((*m)[i][j], a[i][j] + f * b[i][j]);
    }
    Mat c(3, 5, std::vector<double>(15, 9.0));
    MatI(c.get(), 2, 4);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 5; ++j)
            EXPECT_EQ(c[i][j], (i < 2 && j < 4) ? (i == j ? 1.0 : 0.0) : 9.0) << i << "," << j;
    MatZero(c.get(), 3, 4);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 5; ++j) EXPECT_EQ(c[i][j], j < 4 ? 0.0 : 9.0);
}

// ----------------------------------------------------------------- IMatRank

TEST(HostIMatRank, ConstructedRanksZeroMatrixAndTolerance) {
    std::mt19937_64 rng(8);
    const int shapes[][3] = {{5, 3, 3}, {3, 5, 3}, {6, 4, 2}, {4, 6, 1}, {5, 5, 4}, {7, 7, 7}};
    for (const auto &s : shapes) {
        const int rows = s[0], cols = s[1], rank = s[2];
        Mat u(rows, rank), v(rank, cols), a(rows, cols);
        fill_uniform(u, rng);
        fill_uniform(v, rng);
        MatAB(u.get(), rows, rank, v.get(), cols, a.get());
        const Mat keep(a);
        EXPECT_EQ(IMatRank(a.get(), rows, cols, 0.0), rank) << rows << "x" << cols;
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j)
                ASSERT_EQ(a[i][j], keep[i][j]) << "A must not be modified";
    }
    Mat z(4, 3);
    EXPECT_EQ(IMatRank(z.get(), 4, 3, 0.0), 0);
    EXPECT_EQ(IMatRank(z.get(), 0, 3, 0.0), 0);
    // Singular values 1 and 1e-10 (orthogonal rotation of diag(1, 1e-10)).
    const double c = std::cos(0.3), s = std::sin(0.3);
    Mat a(2, 2, {c, -s * 1e-10, s, c * 1e-10});
    EXPECT_EQ(IMatRank(a.get(), 2, 2, 0.0), 2);   // default 2 eps: 1e-10 counts
    EXPECT_EQ(IMatRank(a.get(), 2, 2, 1e-8), 1);  // relative 1e-8: it does not
    EXPECT_EQ(IMatRank(a.get(), 2, 2, 1e-12), 2);
}
