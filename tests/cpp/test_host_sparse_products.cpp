// test_host_sparse_products.cpp - B S B' and B' S B when B is mostly zeros
// and ones (the transition matrices of structural models), where the host
// works over the nonzeros of B only. Oracle: the products summed from their
// definition in long double; the result must agree to the rounding of the
// sums and be exactly symmetric. A non-finite element of S must still reach
// the result as the dense product would carry it.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "tessel/tessel.h"

namespace {

struct Mat {
    Mat(int r, int c) : rows(r), cols(c), p(MatAllocBlock(r, c)) {
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

// Level + slope + dummy seasonal(s) + observation row: zeros, ones and -1.
void structural(Mat &B, int s) {
    const int m = B.cols;
    B[0][0] = B[0][1] = B[1][1] = 1.0;
    for (int j = 2; j < 2 + s - 1 && j < m; ++j) B[2][j] = -1.0;
    for (int j = 3; j < m; ++j) B[j][j - 1] = 1.0;
    for (int i = m; i < B.rows; ++i) {
        B[i][0] = 1.0;
        B[i][2] = 0.5 * (i - m + 1);
    }
}

void spd(Mat &S, std::mt19937_64 &rng) {
    const int n = S.rows;
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> a(std::size_t(n) * n);
    for (double &x : a) x = u(rng);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double acc = i == j ? 0.5 : 0.0;
            for (int k = 0; k < n; ++k) acc += a[i * n + k] * a[j * n + k];
            S[i][j] = acc;
        }
}

// B S B' (transposed = false, S of B's column order) or B' S B.
void check(const Mat &B, const Mat &S, bool transposed) {
    const int out = transposed ? B.cols : B.rows, order = transposed ? B.rows : B.cols;
    Mat R(out, out);
    if (transposed)
        MatBtSB(B.p, B.rows, S.p, B.cols, R.p);
    else
        MatBSBt(B.p, B.rows, S.p, order, R.p);
    auto b = [&](int i, int k) { return transposed ? B[k][i] : B[i][k]; };
    for (int i = 0; i < out; ++i)
        for (int j = 0; j < out; ++j) {
            long double ref = 0, mag = 0;
            for (int k = 0; k < order; ++k)
                for (int l = 0; l < order; ++l) {
                    const long double x = (long double)b(i, k) * S[k][l] * b(j, l);
                    ref += x;
                    mag += std::fabs((double)x);
                }
            // Each of at most order^2 products and sums rounds once.
            EXPECT_NEAR(R[i][j], (double)ref, 2.0 * order * order * 1.1e-16 * (double)mag + 1e-300)
                << i << "," << j;
            EXPECT_EQ(R[i][j], R[j][i]) << "exactly symmetric";
        }
}

TEST(HostSparseProducts, StructuralTransitionAgainstDefinition) {
    std::mt19937_64 rng(7);
    for (int N : {1, 3})
        for (int s : {4, 12}) {
            const int m = s + 1, p = m + N;
            SCOPED_TRACE("N=" + std::to_string(N) + " s=" + std::to_string(s));
            Mat B(p, m), Sm(m, m), Sp(p, p);
            structural(B, s);
            spd(Sm, rng);
            spd(Sp, rng);
            check(B, Sm, false);
            check(B, Sp, true);
        }
}

TEST(HostSparseProducts, ZeroRowsAndScatteredEntries) {
    std::mt19937_64 rng(8);
    std::uniform_real_distribution<double> u(-2.0, 2.0);
    Mat B(9, 6), S6(6, 6), S9(9, 9);
    B[0][5] = u(rng);
    B[2][0] = u(rng);
    B[2][3] = 1.0;
    B[4][4] = -1.0;
    B[8][1] = u(rng);
    B[8][5] = u(rng);  // rows 1, 3, 5, 6, 7 stay zero
    spd(S6, rng);
    spd(S9, rng);
    check(B, S6, false);
    check(B, S9, true);
}

TEST(HostSparseProducts, NonFiniteVarianceStillPropagates) {
    // With a NaN in S every element of the dense product that multiplies it
    // (even by zero) is NaN; the same must come out for a sparse B.
    Mat B(4, 3), S3(3, 3), S4(4, 4), R3(3, 3), R4(4, 4);
    B[0][0] = B[1][1] = B[2][2] = 1.0;
    B[3][0] = 1.0;
    for (int i = 0; i < 3; ++i) S3[i][i] = 1.0;
    for (int i = 0; i < 4; ++i) S4[i][i] = 1.0;
    S3[1][1] = std::nan("");
    S4[2][2] = std::nan("");
    MatBSBt(B.p, 4, S3.p, 3, R4.p);
    MatBtSB(B.p, 4, S4.p, 3, R3.p);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) EXPECT_TRUE(std::isnan(R4[i][j])) << i << "," << j;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_TRUE(std::isnan(R3[i][j])) << i << "," << j;
}

}  // namespace
