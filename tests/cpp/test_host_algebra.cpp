// Conformance tests of the host's matrix algebra (zu.h): products against
// plain triple loops, IInvDet against cofactor determinants and a
// full-pivoting Gauss-Jordan inverse in long double, ILDLdec by
// reconstruction, IMatRank on matrices of constructed rank.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "host_test_util.h"
#include "tessel/zu.h"

using host_test::Mat;
using LMat = std::vector<std::vector<long double>>;

namespace {

constexpr double kEps = DBL_EPSILON;

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
        const long double term = a[row][c] == 0.0L ? 0.0L : a[row][c] * cofactor_det(a, cols, row + 1);
        cols[k] = c;
        sum += sign * term;
        sign = -sign;
    }
    return sum;
}

long double det_oracle(const LMat &a) {
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

LMat to_long(const Mat &a) {
    LMat out(a.rows(), std::vector<long double>(a.cols()));
    for (int i = 0; i < a.rows(); ++i)
        for (int j = 0; j < a.cols(); ++j) out[i][j] = a[i][j];
    return out;
}

// Checks IInvDet on a nonsingular A against the oracles. The forward error
// of an LU inverse and of its determinant is bounded by a modest multiple of
// n * eps * cond(A) (partial pivoting, no pathological growth on these
// matrices); we allow 16 n eps cond_1(A).
void check_inverse(const Mat &a, const char *what) {
    const int n = a.rows();
    SCOPED_TRACE(what);
    SCOPED_TRACE("n = " + std::to_string(n));
    const LMat al = to_long(a);
    const LMat ref = inverse_oracle(al);
    const long double det = det_oracle(al);
    const double cond = static_cast<double>(host_test::norm1(al) * host_test::norm1(ref));
    const double tol = 16.0 * n * kEps * cond;

    Mat x(a);
    double **rows_before = x.get();
    std::vector<double *> ptrs(x.get(), x.get() + n);
    double logdet = 12345.0;
    int sign = 12345;
    ASSERT_EQ(IInvDet(x.get(), n, &logdet, &sign), 0);
    ASSERT_EQ(x.get(), rows_before);
    for (int i = 0; i < n; ++i) ASSERT_EQ(x.get()[i], ptrs[i]) << "row pointers must stay in place";

    EXPECT_EQ(sign, det > 0 ? 1 : -1);
    EXPECT_NEAR(logdet, static_cast<double>(std::log(std::fabs(det))), tol);

    double refmax = 0.0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) refmax = std::fmax(refmax, std::fabs(static_cast<double>(ref[i][j])));
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            // X A = I, residual relative to |X||A| scale.
            long double r = 0.0L;
            for (int k = 0; k < n; ++k) r += static_cast<long double>(x[i][k]) * al[k][j];
            EXPECT_NEAR(static_cast<double>(r), i == j ? 1.0 : 0.0, tol) << "(X A)[" << i << "][" << j << "]";
            EXPECT_NEAR(x[i][j], static_cast<double>(ref[i][j]), tol * refmax) << "X[" << i << "][" << j << "]";
        }
}

}  // namespace

// ------------------------------------------------------------------ IInvDet

TEST(HostIInvDet, RandomMatricesOfEveryOrderUpToEight) {
    std::mt19937_64 rng(20261121);
    int negative = 0, positive = 0;
    for (int n = 1; n <= 8; ++n)
        for (int rep = 0; rep < 6; ++rep) {
            Mat a(n, n);
            host_test::fill_uniform(a, rng);
            check_inverse(a, "uniform(-1, 1)");
            const long double det = det_oracle(to_long(a));
            (det < 0 ? negative : positive)++;
        }
    // Both signs of the determinant were exercised.
    EXPECT_GT(negative, 5);
    EXPECT_GT(positive, 5);
}

TEST(HostIInvDet, SymmetricPositiveDefiniteAndIndefinite) {
    std::mt19937_64 rng(7);
    for (int n = 1; n <= 8; ++n) {
        Mat spd(n, n);
        host_test::fill_spd(spd, rng);
        check_inverse(spd, "SPD");
        // Indefinite symmetric: SPD minus a multiple of the identity large
        // enough to push some eigenvalues negative.
        Mat ind(spd);
        for (int i = 0; i < n; ++i) ind[i][i] -= 1.5 * n;
        if (std::fabs(static_cast<double>(det_oracle(to_long(ind)))) > 1e-3) check_inverse(ind, "indefinite");
    }
}

TEST(HostIInvDet, NeedsPivotingAndNegativeDeterminant) {
    // Zero leading element: fails without row exchanges; det = -2.
    Mat a(3, 3);
    const double v[3][3] = {{0, 1, 2}, {1, 0, 3}, {4, -3, 8}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) a[i][j] = v[i][j];
    ASSERT_NEAR(static_cast<double>(det_oracle(to_long(a))), -2.0, 1e-15);
    check_inverse(a, "permuted");

    // Swapping two rows of an SPD matrix flips the sign of the determinant.
    std::mt19937_64 rng(99);
    Mat s(5, 5);
    host_test::fill_spd(s, rng);
    for (int j = 0; j < 5; ++j) std::swap(s[0][j], s[3][j]);
    check_inverse(s, "SPD with two rows swapped");
}

TEST(HostIInvDet, WidelyScaledEntries) {
    // Diagonal scaling over 30 orders of magnitude: log|det| must be the sum
    // of the logs (no overflow of an accumulated product).
    Mat a(4, 4);
    const double d[4] = {1e-150, 1e150, -1e100, 3e-90};
    MatZero(a.get(), 4, 4);
    for (int i = 0; i < 4; ++i) a[i][i] = d[i];
    double logdet = 0;
    int sign = 0;
    ASSERT_EQ(IInvDet(a.get(), 4, &logdet, &sign), 0);
    double want = 0;
    for (double x : d) want += std::log(std::fabs(x));
    EXPECT_NEAR(logdet, want, 1e-12 * std::fabs(want) + 1e-12);
    EXPECT_EQ(sign, -1);
    for (int i = 0; i < 4; ++i) EXPECT_DOUBLE_EQ(a[i][i], 1.0 / d[i]);
}

TEST(HostIInvDet, SingularMatricesReportSignZero) {
    std::mt19937_64 rng(3);
    for (int n = 1; n <= 8; ++n) {
        SCOPED_TRACE("n = " + std::to_string(n));
        // Zero column.
        Mat a(n, n);
        host_test::fill_uniform(a, rng);
        for (int i = 0; i < n; ++i) a[i][n / 2] = 0.0;
        double logdet = 0;
        int sign = 7;
        EXPECT_NE(IInvDet(a.get(), n, &logdet, &sign), 0);
        EXPECT_EQ(sign, 0);
        if (n < 2) continue;
        // Two equal rows: elimination leaves an exact zero pivot.
        Mat b(n, n);
        host_test::fill_uniform(b, rng);
        for (int j = 0; j < n; ++j) b[n - 1][j] = b[0][j];
        sign = 7;
        EXPECT_NE(IInvDet(b.get(), n, &logdet, &sign), 0);
        EXPECT_EQ(sign, 0);
    }
    // Non-finite entries are a failure too.
    Mat c(2, 2);
    c[0][0] = 1;
    c[0][1] = std::numeric_limits<double>::quiet_NaN();
    c[1][0] = 2;
    c[1][1] = 1;
    int sign = 7;
    double logdet = 0;
    EXPECT_NE(IInvDet(c.get(), 2, &logdet, &sign), 0);
    EXPECT_EQ(sign, 0);
}

TEST(HostIInvDet, OrderZeroAndLargeOrder) {
    double logdet = 5;
    int sign = 5;
    EXPECT_EQ(IInvDet(nullptr, 0, &logdet, &sign), 0);
    EXPECT_EQ(logdet, 0.0);
    EXPECT_EQ(sign, 1);

    // Above the stack scratch size (64): the heap path must give the same
    // kind of answer. Diagonally dominant, so cond is small.
    const int n = 90;
    std::mt19937_64 rng(11);
    Mat a(n, n);
    host_test::fill_uniform(a, rng);
    for (int i = 0; i < n; ++i) a[i][i] += 2.0 * n;
    Mat x(a);
    ASSERT_EQ(IInvDet(x.get(), n, &logdet, &sign), 0);
    EXPECT_EQ(sign, 1);
    double worst = 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double r = 0;
            for (int k = 0; k < n; ++k) r += x[i][k] * a[k][j];
            worst = std::fmax(worst, std::fabs(r - (i == j ? 1.0 : 0.0)));
        }
    EXPECT_LT(worst, 100 * n * kEps);
}

// ------------------------------------------------------------------ ILDLdec

namespace {

// Checks L D L' against the lower triangle of the original, elementwise
// within 4 n eps (|L| |D| |L'|)_ij, the classical backward error bound of
// the factorisation with a safety factor; checks the upper triangle is kept.
void check_ldl(const Mat &orig, const char *what) {
    const int n = orig.rows();
    SCOPED_TRACE(what);
    SCOPED_TRACE("n = " + std::to_string(n));
    Mat f(orig);
    std::vector<double> d(n, -777.0);
    ASSERT_EQ(ILDLdec(f.get(), d.data(), n), 0);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j) {
            double s = 0, sabs = 0;
            for (int k = 0; k <= j; ++k) {
                const double lik = k == i ? 1.0 : f[i][k];
                const double ljk = k == j ? 1.0 : f[j][k];
                const double dk = 1.0 / d[k];
                s += lik * dk * ljk;
                sabs += std::fabs(lik * dk * ljk);
            }
            EXPECT_NEAR(s, orig[i][j], 4.0 * n * kEps * sabs + 1e-300) << "(" << i << ", " << j << ")";
        }
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j) EXPECT_EQ(f[i][j], orig[i][j]) << "upper triangle changed";
}

}  // namespace

TEST(HostILDLdec, ReconstructsPositiveDefinite) {
    std::mt19937_64 rng(5);
    for (int n = 1; n <= 9; ++n) {
        Mat a(n, n);
        host_test::fill_spd(a, rng);
        check_ldl(a, "SPD");
        // All pivots of an SPD matrix are positive.
        Mat f(a);
        std::vector<double> d(n);
        ASSERT_EQ(ILDLdec(f.get(), d.data(), n), 0);
        for (double x : d) EXPECT_GT(x, 0.0);
    }
}

TEST(HostILDLdec, ReconstructsIndefiniteAndReadsOnlyLowerTriangle) {
    std::mt19937_64 rng(6);
    for (int n = 2; n <= 8; ++n) {
        Mat a(n, n);
        host_test::fill_uniform(a, rng);
        for (int i = 0; i < n; ++i) {
            a[i][i] += (i % 2 ? -3.0 : 3.0);  // alternating signs of the pivots
            for (int j = 0; j < i; ++j) a[j][i] = a[i][j];
        }
        check_ldl(a, "indefinite");
        // Garbage in the strict upper triangle must not matter.
        Mat g(a);
        for (int i = 0; i < n; ++i)
            for (int j = i + 1; j < n; ++j) g[i][j] = 1e300;
        std::vector<double> d1(n), d2(n);
        Mat f1(a), f2(g);
        ASSERT_EQ(ILDLdec(f1.get(), d1.data(), n), 0);
        ASSERT_EQ(ILDLdec(f2.get(), d2.data(), n), 0);
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(d1[i], d2[i]);
            for (int j = 0; j < i; ++j) EXPECT_EQ(f1[i][j], f2[i][j]);
        }
    }
}

TEST(HostILDLdec, NegativePivotIsNotAFailure) {
    Mat a(2, 2);
    a[0][0] = -2;
    a[1][0] = a[0][1] = 1;
    a[1][1] = 3;
    std::vector<double> d(2);
    ASSERT_EQ(ILDLdec(a.get(), d.data(), 2), 0);
    EXPECT_DOUBLE_EQ(d[0], -0.5);            // 1 / -2
    EXPECT_DOUBLE_EQ(a[1][0], -0.5);         // 1 / -2
    EXPECT_DOUBLE_EQ(d[1], 1.0 / 3.5);       // 3 - (-0.5)^2 (-2) = 3.5
}

TEST(HostILDLdec, ZeroOrNonFinitePivotFails) {
    std::vector<double> d(3);
    Mat a(2, 2);
    a[0][0] = 0;
    a[1][0] = a[0][1] = 1;
    a[1][1] = 1;
    EXPECT_NE(ILDLdec(a.get(), d.data(), 2), 0);

    // Second pivot exactly zero: 1 - 1 * 1 * 1.
    Mat b(2, 2);
    b[0][0] = b[1][0] = b[0][1] = b[1][1] = 1;
    EXPECT_NE(ILDLdec(b.get(), d.data(), 2), 0);

    Mat c(3, 3);
    MatI(c.get(), 3, 3);
    c[2][2] = std::numeric_limits<double>::infinity();
    EXPECT_NE(ILDLdec(c.get(), d.data(), 3), 0);
    c[2][2] = std::numeric_limits<double>::quiet_NaN();
    EXPECT_NE(ILDLdec(c.get(), d.data(), 3), 0);
}

// ---------------------------------------------------------------- products

namespace {

// Naive products with the matching absolute-value products, for a rounding
// bound: a computed dot product of length k differs from the exact one by at
// most k eps sum |terms|; two such implementations differ by at most twice
// that. Nested products (B S B') use the length of both sums.
void naive_ab(const Mat &a, const Mat &b, int rows, int inner, int cols, Mat &r, Mat &rabs) {
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) {
            double s = 0, sa = 0;
            for (int k = 0; k < inner; ++k) s += a[i][k] * b[k][j], sa += std::fabs(a[i][k] * b[k][j]);
            r[i][j] = s;
            rabs[i][j] = sa;
        }
}

}  // namespace

TEST(HostProducts, MatABAgainstTripleLoop) {
    std::mt19937_64 rng(1);
    const int shapes[][3] = {{1, 1, 1}, {3, 4, 2}, {5, 1, 6}, {2, 7, 3}, {6, 6, 6}};
    for (const auto &s : shapes) {
        const int rows = s[0], inner = s[1], cols = s[2];
        Mat a(rows, inner), b(inner, cols), r(rows, cols), ref(rows, cols), rabs(rows, cols);
        host_test::fill_uniform(a, rng);
        host_test::fill_uniform(b, rng);
        // R starts as garbage: MatAB must overwrite, not accumulate.
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) r[i][j] = 1e6;
        MatAB(a.get(), rows, inner, b.get(), cols, r.get());
        naive_ab(a, b, rows, inner, cols, ref, rabs);
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) EXPECT_NEAR(r[i][j], ref[i][j], 2 * inner * kEps * rabs[i][j]);
    }
}

TEST(HostProducts, MatBSBtAgainstTripleLoopReadsLeadingBlockOnly) {
    std::mt19937_64 rng(2);
    const int shapes[][2] = {{1, 1}, {2, 5}, {5, 2}, {4, 4}, {3, 7}};
    for (const auto &s : shapes) {
        const int rowsB = s[0], order = s[1];
        Mat b(rowsB, order);
        host_test::fill_uniform(b, rng);
        // S is larger than its order; the rest holds NaN that must not leak.
        Mat S(order + 2, order + 2);
        for (int i = 0; i < order + 2; ++i)
            for (int j = 0; j < order + 2; ++j) S[i][j] = std::numeric_limits<double>::quiet_NaN();
        Mat core(order, order);
        host_test::fill_spd(core, rng);
        for (int i = 0; i < order; ++i)
            for (int j = 0; j < order; ++j) S[i][j] = core[i][j];
        Mat r(rowsB, rowsB);
        MatBSBt(b.get(), rowsB, S.get(), order, r.get());
        for (int i = 0; i < rowsB; ++i)
            for (int j = 0; j < rowsB; ++j) {
                double ref = 0, rabs = 0;
                for (int k = 0; k < order; ++k)
                    for (int l = 0; l < order; ++l) {
                        ref += b[i][k] * core[k][l] * b[j][l];
                        rabs += std::fabs(b[i][k] * core[k][l] * b[j][l]);
                    }
                EXPECT_NEAR(r[i][j], ref, 4 * order * kEps * rabs) << rowsB << "x" << order;
                EXPECT_EQ(r[i][j], r[j][i]) << "result must be exactly symmetric";
            }
    }
}

TEST(HostProducts, MatBtSBAgainstTripleLoop) {
    std::mt19937_64 rng(3);
    const int shapes[][2] = {{1, 1}, {2, 5}, {5, 2}, {4, 4}, {7, 3}};
    for (const auto &s : shapes) {
        const int rowsB = s[0], colsB = s[1];
        Mat b(rowsB, colsB), S(rowsB, rowsB), r(colsB, colsB);
        host_test::fill_uniform(b, rng);
        host_test::fill_spd(S, rng);
        MatBtSB(b.get(), rowsB, S.get(), colsB, r.get());
        for (int i = 0; i < colsB; ++i)
            for (int j = 0; j < colsB; ++j) {
                double ref = 0, rabs = 0;
                for (int k = 0; k < rowsB; ++k)
                    for (int l = 0; l < rowsB; ++l) {
                        ref += b[k][i] * S[k][l] * b[l][j];
                        rabs += std::fabs(b[k][i] * S[k][l] * b[l][j]);
                    }
                EXPECT_NEAR(r[i][j], ref, 4 * rowsB * kEps * rabs) << rowsB << "x" << colsB;
                EXPECT_EQ(r[i][j], r[j][i]);
            }
    }
}

TEST(HostProducts, MatAddWithFactorsAndAliasing) {
    std::mt19937_64 rng(4);
    Mat a(3, 4), b(3, 4);
    host_test::fill_uniform(a, rng);
    host_test::fill_uniform(b, rng);
    const double factors[] = {1.0, -2.5, 0.0};
    for (double f : factors) {
        Mat r(3, 4);
        MatAdd(a.get(), 3, 4, b.get(), f, r.get());
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 4; ++j) EXPECT_EQ(r[i][j], a[i][j] + f * b[i][j]);
        Mat ra(a);  // R == A
        MatAdd(ra.get(), 3, 4, b.get(), f, ra.get());
        Mat rb(b);  // R == B
        MatAdd(a.get(), 3, 4, rb.get(), f, rb.get());
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 4; ++j) {
                EXPECT_EQ(ra[i][j], a[i][j] + f * b[i][j]);
                EXPECT_EQ(rb[i][j], a[i][j] + f * b[i][j]);
            }
    }
}

TEST(HostProducts, MatZeroAndMatIOnRectangularBlocks) {
    Mat a(3, 5);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 5; ++j) a[i][j] = 9;
    MatI(a.get(), 2, 4);  // only the leading 2 x 4 block
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 5; ++j) {
            const double want = (i < 2 && j < 4) ? (i == j ? 1.0 : 0.0) : 9.0;
            EXPECT_EQ(a[i][j], want) << i << "," << j;
        }
    MatZero(a.get(), 3, 4);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 5; ++j) EXPECT_EQ(a[i][j], j < 4 ? 0.0 : 9.0);
}

// ----------------------------------------------------------------- IMatRank

TEST(HostIMatRank, ConstructedRanks) {
    std::mt19937_64 rng(8);
    const int shapes[][3] = {{5, 3, 3}, {3, 5, 3}, {6, 4, 2}, {4, 6, 1}, {5, 5, 4}, {7, 7, 7}};
    for (const auto &s : shapes) {
        const int rows = s[0], cols = s[1], rank = s[2];
        Mat u(rows, rank), v(rank, cols), a(rows, cols);
        host_test::fill_uniform(u, rng);
        host_test::fill_uniform(v, rng);
        MatAB(u.get(), rows, rank, v.get(), cols, a.get());
        Mat keep(a);
        EXPECT_EQ(IMatRank(a.get(), rows, cols, 0.0), rank) << rows << "x" << cols;
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) ASSERT_EQ(a[i][j], keep[i][j]) << "A must not be modified";
    }
}

TEST(HostIMatRank, ZeroMatrixAndTolerance) {
    Mat z(4, 3);
    EXPECT_EQ(IMatRank(z.get(), 4, 3, 0.0), 0);
    EXPECT_EQ(IMatRank(z.get(), 0, 3, 0.0), 0);

    // Singular values 1 and 1e-10 (orthogonal rotation of diag(1, 1e-10)).
    Mat a(2, 2);
    const double c = std::cos(0.3), s = std::sin(0.3);
    a[0][0] = c * 1.0;
    a[0][1] = -s * 1e-10;
    a[1][0] = s * 1.0;
    a[1][1] = c * 1e-10;
    EXPECT_EQ(IMatRank(a.get(), 2, 2, 0.0), 2);   // default 2 eps: 1e-10 counts
    EXPECT_EQ(IMatRank(a.get(), 2, 2, 1e-8), 1);  // relative 1e-8: it does not
    EXPECT_EQ(IMatRank(a.get(), 2, 2, 1e-12), 2);
}
