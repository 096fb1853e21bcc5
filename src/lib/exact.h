// exact.h - internal pieces shared by the exact initial routines
// (exact_model.cpp, exact_filter.cpp, exact_smoother.cpp,
// exact_simulation.cpp): the work layout, the diffuse record of the exact
// store, row-pointer views shifted in time, and the semidefinite Cholesky
// factor.
#pragma once

#include "filter_step.h"

namespace tessel {

// Tolerance of the diffuse tests (F_inf and P_inf relative to the largest
// diagonals of P_inf met so far, see fKalmanExact).
constexpr double kDiffuseTol = 1e-10;
// A pivot at most this share of the largest diagonal is a zero pivot of a
// positive semi-definite matrix.
constexpr double kPsdTol = 1e-13;

// Rows of the exact store's diffuse record for N series and m states: per
// series i, v, F_inf, F_* and two vectors over the a_i = m + N - 1 - i
// elements of the joint vector still to be conditioned on.
inline int diffuse_record_rows(int N, int m) { return N * (2 * m + N + 2); }
inline int diffuse_block(int N, int m, int i) {
    // sum_{k<i} (3 + 2 (m + N - 1 - k))
    return i * (2 * (m + N) + 1) - i * (i - 1);
}
// Joint index of the k-th remaining element after series i: the m states,
// then the series i+1..N-1 at m+i+1...
inline int joint_index(int m, int i, int k) { return k < m ? k : k + i + 1; }

// The work matrix (rows p wide, p = m + N) cut into the pieces the
// routines use. Row offsets only: no allocation.
struct ExactWork {
    double **W1;              // (p+1) x p: P_* / Pbar_* and a; the backward N and r
    double **W2;              // (p+N+2) x p: scratch, the prediction (row p), mean (p+1)
    double **Pi;              // p x p: P_inf / Pbar_inf
    double **init;            // (m+1) x m: P over a, to start the ordinary recursion
    double **N0, **N1, **N2;  // p x p each: the joint backward variances
    double **vec;             // 12 rows: vectors (states, gains, cumulants, scratch)
    double **X;               // p x p scratch
    double **Y;               // p x p scratch
};
// Rows in all: 8p + N + m + 16 (LgmExactSizes).
inline ExactWork exact_work(double **w, int m, int N) {
    const int p = m + N;
    ExactWork e;
    e.W1 = w;
    e.W2 = e.W1 + p + 1;
    e.Pi = e.W2 + p + N + 2;
    e.init = e.Pi + p;
    e.N0 = e.init + m + 1;
    e.N1 = e.N0 + p;
    e.N2 = e.N1 + p;
    e.vec = e.N2 + p;
    e.X = e.vec + 12;
    e.Y = e.X + p;
    return e;
}

// Row-pointer views of matrices starting at column t0 (a time shift), cut
// from one allocation of row pointers.
class Views {
public:
    bool alloc(int rows) { return rows == 0 || block_.alloc(rows, 0); }
    // rows pointers to m's rows from column t0; null for a null m.
    double **shift(double **m, int rows, int t0) {
        if (!m) return nullptr;
        double **v = block_.get() + used_;
        for (int r = 0; r < rows; ++r) v[r] = m[r] + t0;
        used_ += rows;
        return v;
    }

private:
    Block block_;
    int used_ = 0;
};

// Lower factor L (n x n, L L' = A) of a symmetric positive semi-definite A
// (lower triangle read) by Cholesky with zero pivots accepted: a pivot at
// most kPsdTol times the largest diagonal of A gives a zero column. L may
// be A. Returns false on a pivot below -kPsdTol times that diagonal.
bool psd_cholesky(int n, double **A, double **L);

// Writes the time-t values of rec's time-varying elements.
inline void exact_time_varying(const LgmExactModel *rec, int t, bool sys, bool var, bool mean) {
    write_time_varying(t, rec->m, rec->m + rec->N, sys ? rec->sys : nullptr,
                       var ? rec->var : nullptr, mean ? rec->mean : nullptr, rec->sysidx,
                       rec->varidx, rec->meanidx, rec->tvdata);
}

// t is missing for series i in the ordinary part of the exact store: a zero
// inverse-variance diagonal.
inline bool ordinary_missing(double **store, int N, int m, int i, int t) {
    return store[store_block(N, m, i) + m + i][t] == 0.0;
}

// p = mean + SysMat a by the pattern, or densely when the frame is unusable.
inline void exact_predict(const StepFrame &f, const LgmExactModel *rec, const double *a,
                          double *x) {
    if (f.ok) {
        step_predict(f, rec->sys, rec->mean, a, x);
        return;
    }
    const int p = rec->m + rec->N;
    for (int k = 0; k < p; ++k) {
        double acc = rec->mean[k];
        for (int j = 0; j < rec->m; ++j) acc += rec->sys[k][j] * a[j];
        x[k] = acc;
    }
}

}  // namespace tessel
