// host_test_util.h - helpers for the host runtime tests: an owning host
// matrix, seeded random fills, and plain reference computations.
#ifndef TESSEL_TESTS_HOST_TEST_UTIL_H
#define TESSEL_TESTS_HOST_TEST_UTIL_H

#include <cmath>
#include <random>
#include <vector>

#include "tessel/zu.h"

namespace host_test {

// A MatAllocBlock matrix owned by the test.
class Mat {
public:
    Mat(int rows, int cols) : rows_(rows), cols_(cols), p_(MatAllocBlock(rows, cols)) {}
    ~Mat() { MatFreeBlock(p_); }
    Mat(const Mat &o) : Mat(o.rows_, o.cols_) {
        for (int i = 0; i < rows_; ++i)
            for (int j = 0; j < cols_; ++j) p_[i][j] = o.p_[i][j];
    }
    Mat &operator=(const Mat &) = delete;
    double **get() const { return p_; }
    double *operator[](int i) const { return p_[i]; }
    int rows() const { return rows_; }
    int cols() const { return cols_; }

private:
    int rows_, cols_;
    double **p_;
};

inline void fill_uniform(Mat &a, std::mt19937_64 &rng, double lo = -1.0, double hi = 1.0) {
    std::uniform_real_distribution<double> u(lo, hi);
    for (int i = 0; i < a.rows(); ++i)
        for (int j = 0; j < a.cols(); ++j) a[i][j] = u(rng);
}

// Symmetric positive definite: M M' + n I from a random M.
inline void fill_spd(Mat &a, std::mt19937_64 &rng) {
    const int n = a.rows();
    Mat m(n, n);
    fill_uniform(m, rng);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double s = (i == j) ? n : 0.0;
            for (int k = 0; k < n; ++k) s += m[i][k] * m[j][k];
            a[i][j] = s;
        }
}

// Max-abs element.
inline double max_abs(const Mat &a) {
    double m = 0.0;
    for (int i = 0; i < a.rows(); ++i)
        for (int j = 0; j < a.cols(); ++j) m = std::fmax(m, std::fabs(a[i][j]));
    return m;
}

// 1-norm (largest column sum of absolute values) of a square long double matrix.
inline long double norm1(const std::vector<std::vector<long double>> &a) {
    long double best = 0;
    const std::size_t n = a.size();
    for (std::size_t j = 0; j < n; ++j) {
        long double s = 0;
        for (std::size_t i = 0; i < n; ++i) s += std::fabs(a[i][j]);
        if (s > best) best = s;
    }
    return best;
}

}  // namespace host_test

#endif  // TESSEL_TESTS_HOST_TEST_UTIL_H
