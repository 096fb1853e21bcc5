// exact_simulation.cpp - draws with the exact initial routines: the
// factors of the initial and disturbance variances (semidefinite, any
// rank), unconditional draws of states, disturbances and observations, the
// simulation smoother by mean correction, and bootstrap replicates of a
// series from its standardised innovations.
#include <cmath>

#include "exact.h"

using namespace tessel;

namespace {

// Packed lower triangle: element (k, j <= k) at k (k+1)/2 + j.
inline int packed(int k, int j) { return k * (k + 1) / 2 + j; }

// Factor of the n x n matrix A into column c of fac; X is n x n scratch.
bool factor_into(int n, double **A, double **X, double **fac, int c) {
    for (int k = 0; k < n; ++k)
        for (int j = 0; j <= k; ++j) X[k][j] = A[k][j];
    if (!psd_cholesky(n, X, X)) return false;
    for (int k = 0; k < n; ++k)
        for (int j = 0; j <= k; ++j) fac[packed(k, j)][c] = X[k][j];
    return true;
}

// Whether y(t) element i is missing according to the exact store.
inline bool store_missing(double **store, int N, int m, int td, int i, int t) {
    return t < td ? std::isnan(store[diffuse_block(N, m, i)][t])
                  : ordinary_missing(store, N, m, i, t);
}

// F(t)^-1 of an ordinary store column into X (N x N) and R with R R' = F^-1
// (zero columns for missing elements) into Y. False when not semidefinite.
bool inverse_factor(double **store, int N, int m, int t, double **X, double **Y) {
    for (int i = 0; i < N; ++i)
        for (int k = 0; k <= i; ++k) X[i][k] = X[k][i] = store[store_block(N, m, i) + m + k][t];
    return psd_cholesky(N, X, Y);
}

}  // namespace

TESSEL_EXPORT int fLgmVarFactors(LgmExactModel *rec, double **work, double **fac) {
    const int m = rec->m, p = m + rec->N, n = rec->n;
    const ExactWork w = exact_work(work, m, rec->N);
    const int rows = p * (p + 1) / 2;
    for (int r = 0; r < rows; ++r)
        for (int t = 0; t <= n; ++t) fac[r][t] = 0.0;
    if (!factor_into(m, rec->P0, w.X, fac, 0)) return 0;
    for (int t = 0; t < n; ++t) {
        if (rec->varidx || t == 0) {
            exact_time_varying(rec, t, false, true, false);
            if (!factor_into(p, rec->var, w.X, fac, t + 1)) return 0;
        } else {
            for (int r = 0; r < rows; ++r) fac[r][t + 1] = fac[r][t];
        }
    }
    return 1;
}

TESSEL_EXPORT void LgmDraw(LgmExactModel *rec, double **fac, double **z, double **out) {
    const int N = rec->N, m = rec->m, n = rec->n, p = m + N;
    if (n == 0) return;
    // alpha(0) = a0 + L0 z: the diffuse rows of L0 are zero.
    for (int k = 0; k < m; ++k) {
        double acc = rec->a0[k];
        for (int j = 0; j <= k; ++j) acc += fac[packed(k, j)][0] * z[j][0];
        out[k][0] = acc;
    }
    for (int t = 0; t < n; ++t) {
        exact_time_varying(rec, t, true, false, true);
        for (int k = 0; k < p; ++k) {
            double acc = 0.0;
            for (int j = 0; j <= k; ++j) acc += fac[packed(k, j)][t + 1] * z[j][t + 1];
            out[m + k][t] = acc;
        }
        for (int i = 0; i < N; ++i) {
            double acc = rec->mean[m + i] + out[2 * m + i][t];
            for (int j = 0; j < m; ++j) acc += rec->sys[m + i][j] * out[j][t];
            out[m + p + i][t] = acc;
        }
        if (t + 1 < n)
            for (int k = 0; k < m; ++k) {
                double acc = rec->mean[k] + out[m + k][t];
                for (int j = 0; j < m; ++j) acc += rec->sys[k][j] * out[j][t];
                out[k][t + 1] = acc;
            }
    }
}

TESSEL_EXPORT int SimSmoWgtExact(LgmExactModel *rec, int diffuse_end, double **work, double **store,
                                 double **wgt) {
    QuickStateSmo(rec, diffuse_end, work, store, wgt);
    return fLgmVarFactors(rec, work, wgt + 2 * rec->m + rec->N);
}

TESSEL_EXPORT int SimSmoDrawExact(LgmExactModel *rec, int diffuse_end, double **work,
                                  double **store, double **wgt, double **z, double **scratch,
                                  double **out) {
    const int N = rec->N, m = rec->m, n = rec->n, rows = 2 * m + N;
    LgmDraw(rec, wgt + rows, z, scratch);
    double **yplus = scratch + rows;
    for (int t = 0; t < n; ++t)
        for (int i = 0; i < N; ++i)
            if (store_missing(store, N, m, diffuse_end, i, t)) SetNaN(&yplus[i][t]);
    if (!fKalmanExactMean(rec, yplus, diffuse_end, work, store, nullptr)) return 0;
    QuickStateSmo(rec, diffuse_end, work, store, out);
    for (int r = 0; r < rows; ++r)
        for (int t = 0; t < n; ++t) out[r][t] = wgt[r][t] + (scratch[r][t] - out[r][t]);
    return 1;
}

TESSEL_EXPORT int LgmBootstrap(LgmExactModel *rec, double **y, int diffuse_end, double **work,
                               double **store, const int *src, double **out) {
    const int N = rec->N, m = rec->m, n = rec->n, p = m + N, td = diffuse_end;
    const ExactWork w = exact_work(work, m, N);
    double **pool = out + N;
    double *a = w.vec[0], *x = w.vec[1], *e = w.vec[2], *v = w.vec[3];
    // The standardised innovations e = R' v of y.
    for (int t = 0; t < n; ++t) {
        for (int i = 0; i < N; ++i) {
            if (store_missing(store, N, m, td, i, t) != std::isnan(y[i][t])) return 0;
            SetNaN(&pool[i][t]);
        }
        if (t < td) continue;
        if (!inverse_factor(store, N, m, t, w.X, w.Y)) return 0;
        for (int i = 0; i < N; ++i) {
            if (std::isnan(y[i][t])) continue;
            double acc = 0.0;
            for (int k = i; k < N; ++k) acc += w.Y[k][i] * store[k][t];
            pool[i][t] = acc;
        }
    }
    // The replicate through the innovations form, from the diffuse period's
    // observations as they are.
    StepFrame frame;
    build_pattern(frame, rec->sys, rec->sysidx, p, m);
    for (int k = 0; k < m; ++k) a[k] = rec->a0[k];
    for (int t = 0; t < n; ++t) {
        exact_time_varying(rec, t, true, false, true);
        exact_predict(frame, rec, a, x);
        if (t < td) {
            for (int i = 0; i < N; ++i) {
                out[i][t] = y[i][t];
                if (std::isnan(y[i][t])) continue;
                const int base = diffuse_block(N, m, i), na = p - 1 - i;
                const double vi = y[i][t] - x[m + i];
                for (int k = 0; k < na; ++k) x[joint_index(m, i, k)] += store[base + 3 + k][t] * vi;
            }
            for (int k = 0; k < m; ++k) a[k] = x[k];
            continue;
        }
        inverse_factor(store, N, m, t, w.X, w.Y);
        for (int i = 0; i < N; ++i) {
            e[i] = 0.0;
            if (std::isnan(y[i][t])) continue;
            const long long q = src[static_cast<long long>(t) * N + i];
            const long long s = q >= 0 ? q / N : -1, k = q >= 0 ? q % N : 0;
            if (s < td || s >= n || std::isnan(pool[k][s])) return 0;
            e[i] = pool[k][s];
        }
        // v* from R' v* = e*, R lower: back substitution over the observed.
        for (int i = N - 1; i >= 0; --i) {
            v[i] = 0.0;
            if (std::isnan(y[i][t]) || w.Y[i][i] == 0.0) continue;
            double acc = e[i];
            for (int k = i + 1; k < N; ++k) acc -= w.Y[k][i] * v[k];
            v[i] = acc / w.Y[i][i];
        }
        for (int k = 0; k < m; ++k) a[k] = x[k];
        for (int i = 0; i < N; ++i) {
            if (std::isnan(y[i][t])) {
                SetNaN(&out[i][t]);
                continue;
            }
            out[i][t] = x[m + i] + v[i];
            const int base = store_block(N, m, i);
            for (int k = 0; k < m; ++k) a[k] += store[base + k][t] * v[i];
        }
    }
    return 1;
}
