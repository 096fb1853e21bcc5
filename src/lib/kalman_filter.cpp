// kalman_filter.cpp - the forward Kalman filter, multivariate (N >= 2) and
// single-series (N = 1), writing the filter store that the backward passes
// read and the pieces of the Gaussian log-likelihood.
//
// Both filters work on the stacked system: with P the state variance,
//   Pbar = SysMat P SysMat' + VarMat = [ T P T' + HH'   M ]
//                                      [ M'             F ]
// where M = T P Z' + H G' and F = Z P Z' + G G' is the innovation variance.
// The filter state lives in the caller's work matrix W1: rows 0..m+N-1 hold
// P (top-left m x m) and, during a step, the whole Pbar; row m+N holds the
// state a (columns 0..m-1) and the innovations v (columns m..m+N-1). W2 rows
// 0..m+N-1 are scratch for SysMat P SysMat', row m+N the prediction and row
// m+N+1 the mean.
//
// Diffuse initial elements get the variance kappa; d log(kappa) is taken off
// the log-determinant and d off the count of usable observations, so the
// likelihood is that of the observations beyond the d needed to pin down the
// diffuse elements.
#include <cmath>

#include "frame.h"

using namespace tessel;

namespace {

// Writes the time-t values of the time-varying elements straight from the
// open index tables (each may be null).
void write_time_varying(int t, int m, int mN, double **sys, double **var, double *mean,
                        int **sysidx, int **varidx, const int *meanidx, double **tvdata) {
    if (meanidx)
        for (int k = 0; k < mN; ++k)
            if (meanidx[k] >= 0) mean[k] = tvdata[meanidx[k]][t];
    if (sysidx)
        for (int k = 0; k < mN; ++k) {
            const int *idx = sysidx[k];
            for (int j = 0; j < m; ++j)
                if (idx[j] >= 0) sys[k][j] = tvdata[idx[j]][t];
        }
    if (varidx)
        for (int k = 0; k < mN; ++k) {
            const int *idx = varidx[k];
            for (int j = 0; j < mN; ++j)
                if (idx[j] >= 0) var[k][j] = tvdata[idx[j]][t];
        }
}

// Initial state mean and variance into W1 (a in row mN, P top-left).
// Returns d, the number of diffuse elements.
int initialise(int m, int mN, double **init, double kappa, double **W1) {
    double *a = W1[mN];
    if (!init) {
        MatZero(W1, mN + 1, mN);
        for (int k = 0; k < m; ++k) W1[k][k] = kappa;
        return m;
    }
    int d = 0;
    for (int k = 0; k < m; ++k) {
        a[k] = init[m][k];
        if (init[k][k] < 0.0) {
            W1[k][k] = kappa;
            for (int j = 0; j < k; ++j) W1[j][k] = W1[k][j] = 0.0;
            ++d;
        } else {
            // Lower triangle read and mirrored; a later proper row still
            // writes into the column of an earlier diffuse element.
            W1[k][k] = init[k][k];
            for (int j = 0; j < k; ++j) W1[j][k] = W1[k][j] = init[k][j];
        }
    }
    return d;
}

// p = mean + SysMat a (mN values) and Pbar = SysMat P SysMat' + VarMat.
void predict(int m, int mN, double **sys, double **var, const double *mean, double **W1,
             double **W2) {
    const double *a = W1[mN];
    double *p = W2[mN];
    for (int k = 0; k < mN; ++k) {
        const double *s = sys[k];
        double acc = mean[k];
        for (int j = 0; j < m; ++j) acc += s[j] * a[j];
        p[k] = acc;
    }
    MatBSBt(sys, mN, W1, m, W2);
    MatAdd(W2, mN, mN, var, 1.0, W1);
}

}  // namespace

TESSEL_EXPORT int fMultiKalmanFil(int N, int n, double **y, int m, double **sys, double **var,
                                  double *mean, int **sysidx, int **varidx, int *meanidx,
                                  double **tvdata, double **init, double **W1, double **W2,
                                  double **store, double *dLogDet, double *dSumSq, int *cnt) {
    const int mN = m + N;

    // F view: row i addresses column m of W1 row m+i, so F is the
    // bottom-right block of Pbar and is inverted where it lies.
    Block Fview;
    if (!Fview.alloc(N, 0)) return 0;
    double **F = Fview.get();
    for (int i = 0; i < N; ++i) F[i] = W1[m + i] + m;

    const double kappa = diffuse_kappa(var, mN);
    const int d = initialise(m, mN, init, kappa, W1);
    int count = -d;
    if (dLogDet) *dLogDet = -d * std::log(kappa);
    if (dSumSq) *dSumSq = 0.0;

    double *a = W1[mN];
    double *v = W1[mN] + m;
    const double *p = W2[mN];

    for (int t = 0; t < n; ++t) {
        write_time_varying(t, m, mN, sys, var, mean, sysidx, varidx, meanidx, tvdata);
        predict(m, mN, sys, var, mean, W1, W2);

        // Innovations; a missing element gets a unit row and column in F so
        // that the inversion leaves the observed part untouched.
        int missing = 0;
        for (int i = 0; i < N; ++i) {
            const double yi = y[i][t];
            if (FIsNaN(yi)) {
                const int r = m + i;
                for (int k = 0; k < mN; ++k) W1[r][k] = W1[k][r] = 0.0;
                W1[r][r] = 1.0;
                SetNaN(&v[i]);
                ++missing;
            } else {
                ++count;
                v[i] = yi - p[m + i];
            }
        }

        if (missing == N) {
            if (store) {
                for (int i = 0; i < N; ++i) SetNaN(&store[i][t]);
                for (int r = N; r < N + N * (N + 1) / 2 + m * N; ++r) store[r][t] = 0.0;
            }
            for (int k = 0; k < m; ++k) a[k] = p[k];
            continue;  // P(t+1) is already the top-left block of Pbar
        }

        double logdet = 0.0;
        int sign = 0;
        IInvDet(F, N, &logdet, &sign);
        if (sign == 0) return 0;  // F view freed by its guard

        if (missing)
            for (int i = 0; i < N; ++i)
                if (FIsNaN(v[i])) {
                    F[i][i] = 0.0;
                    v[i] = 0.0;
                }

        // K = M Finv: M' is read from the bottom-left block of Pbar, K is
        // written into the top-right block.
        for (int r = 0; r < m; ++r) {
            double *Kr = W1[r] + m;
            for (int i = 0; i < N; ++i) {
                double acc = 0.0;
                for (int k = 0; k < N; ++k) acc += W1[m + k][r] * F[k][i];
                Kr[i] = acc;
            }
        }

        if (dLogDet) *dLogDet += logdet;
        if (dSumSq) {
            double q = 0.0;
            for (int i = 0; i < N; ++i) {
                double row = 0.0;
                for (int k = 0; k < N; ++k) row += F[i][k] * v[k];
                q += v[i] * row;
            }
            *dSumSq += q;
        }

        if (store) {
            for (int i = 0; i < N; ++i) store[i][t] = v[i];
            int row = N;
            for (int i = 0; i < N; ++i) {
                for (int r = 0; r < m; ++r) store[row++][t] = W1[r][m + i];
                for (int k = 0; k <= i; ++k) store[row++][t] = F[k][i];
            }
        }

        // a(t+1) = p + K v; P(t+1) = Pbar - K M', upper triangle then mirrored.
        for (int r = 0; r < m; ++r) {
            const double *Kr = W1[r] + m;
            double acc = p[r];
            for (int k = 0; k < N; ++k) acc += Kr[k] * v[k];
            a[r] = acc;
        }
        for (int r = 0; r < m; ++r) {
            const double *Kr = W1[r] + m;
            for (int c = r; c < m; ++c) {
                double acc = W1[r][c];
                for (int k = 0; k < N; ++k) acc -= Kr[k] * W1[m + k][c];
                W1[r][c] = acc;
                W1[c][r] = acc;
            }
        }
    }

    if (count < 1) return 0;
    if (dSumSq) *dSumSq /= count;
    if (cnt) *cnt = count;
    return 1;
}

TESSEL_EXPORT int fUnivKalmanFil(int n, double *y, int m, double **sys, double **var,
                                 double *mean, int **sysidx, int **varidx, int *meanidx,
                                 double **tvdata, double **init, double **W1, double **W2,
                                 double **store, double *dLogDet, double *dSumSq, int *cnt) {
    const int mN = m + 1;
    const double kappa = diffuse_kappa(var, mN);
    const int d = initialise(m, mN, init, kappa, W1);
    int count = -d;
    if (dLogDet) *dLogDet = -d * std::log(kappa);
    if (dSumSq) *dSumSq = 0.0;

    double *a = W1[mN];  // a in columns 0..m-1, v in column m
    double *K = W1[m];   // row m of Pbar: M, then scaled into the gain
    const double *p = W2[mN];

    for (int t = 0; t < n; ++t) {
        write_time_varying(t, m, mN, sys, var, mean, sysidx, varidx, meanidx, tvdata);
        predict(m, mN, sys, var, mean, W1, W2);

        if (FIsNaN(y[t])) {
            for (int k = 0; k < m; ++k) a[k] = p[k];
            SetNaN(&a[m]);
            if (store) {
                SetNaN(&store[0][t]);
                for (int r = 1; r <= mN; ++r) store[r][t] = 0.0;
            }
            continue;
        }

        const double v = y[t] - p[m];
        a[m] = v;
        const double F = K[m];
        if (F == 0.0) return 0;
        const double Finv = 1.0 / F;
        K[m] = Finv;
        for (int k = 0; k < m; ++k) K[k] *= Finv;

        // A negative F is filtered through but not counted.
        if (Finv > 0.0) {
            ++count;
            if (dLogDet) *dLogDet -= std::log(Finv);
            if (dSumSq) *dSumSq += v * v * Finv;
        }

        if (store) {
            store[0][t] = v;
            for (int r = 0; r <= m; ++r) store[r + 1][t] = K[r];
        }

        for (int j = 0; j < m; ++j) a[j] = p[j] + K[j] * v;
        // P(t+1) = Pbar - M K', with M the unscaled last column of Pbar.
        for (int j = 0; j < m; ++j) {
            const double Mj = W1[j][m];
            for (int k = j; k < m; ++k) {
                const double x = W1[j][k] - Mj * K[k];
                W1[j][k] = x;
                W1[k][j] = x;
            }
        }
    }

    if (count < 1) return 0;
    if (dSumSq) *dSumSq /= count;
    if (cnt) *cnt = count;
    return 1;
}
