// state_prediction.cpp - the prediction pass: a forward Kalman filter that
// writes the filter store for the smoothers and records, for every time
// point, the one-step predicted state and observation with the diagonals of
// their variances, or on request the filtered versions of the same.
//
// Work: W1 (m+N+1) x (m+N) holds P(t) top-left and a(t) in its last row,
// and after the variance step the joint variance
//   Pbar = SysMat P SysMat' + VarMat = [ T P T' + HH'  M ]
//                                      [ M'            F ];
// W2 (m+2N+2) x (m+N) receives SysMat P SysMat' in its top block, the
// prediction (T a + c; Z a + d) in row m+N, holds the mean (c; d) in row
// m+N+1, and P Z' (one row per series) in rows m+N+2.. when filtered
// moments are asked for.
//
// The filtered variance rows follow two formulas that differ between the two
// routines and from the textbook quantities; both are kept as they are:
// the multivariate observation rows reduce F_ii by sum_j G[i][j] times
// element [j][i] of SysMat P SysMat' counted from its top-left (state)
// corner, G = Z P Z' F^-1; the single-series state rows subtract
// (P Z')_k F^-1 (Z P T')_k.
#include "filter_step.h"

using namespace tessel;

namespace {

// Column t of the moments: a(t), diag P(t); and the upper triangle of P(t).
void record_state(int m, int mN, int t, double **W1, double **moments, double **offdiag) {
    for (int k = 0; k < m; ++k) {
        moments[k][t] = W1[mN][k];
        moments[mN + k][t] = W1[k][k];
    }
    if (offdiag) {
        int row = 0;
        for (int k = 0; k < m; ++k)
            for (int j = k + 1; j < m; ++j) offdiag[row++][t] = W1[k][j];
    }
}

}  // namespace

TESSEL_EXPORT int fMultiStatePred(int filtered, int N, int T, double **y, int m, double **sys,
                                  double **var, double *mean, int **sysidx, int **varidx,
                                  int *meanidx, double **tvdata, double **init, double **W1,
                                  double **W2, double **store, double **moments, double **offdiag) {
    const int mN = m + N;
    Block Fview, scratch;
    if (!Fview.alloc(N, 0) || (filtered && !scratch.alloc(1, N))) return 0;
    double *x = filtered ? scratch[0] : nullptr;  // F^-1 v
    double **F = Fview.get();
    for (int i = 0; i < N; ++i) F[i] = W1[m + i] + m;

    step_initialise(m, mN, init, diffuse_kappa(var, mN), W1);
    double *a = W1[mN];
    double *v = W1[mN] + m;
    const double *p = W2[mN];
    double **PZ = W2 + mN + 2;  // row i: column i of P Z'
    // The filter's step (filter_step.h): SysMat's pattern found once; W2
    // keeps SysMat P SysMat' for the filtered rows.
    StepFrame frame;
    build_pattern(frame, sys, sysidx, mN, m, var, varidx);

    for (int t = 0; t < T; ++t) {
        record_state(m, mN, t, W1, moments, offdiag);
        write_time_varying(t, m, mN, sys, var, mean, sysidx, varidx, meanidx, tvdata);
        if (filtered)
            for (int i = 0; i < N; ++i) {
                const double *z = sys[m + i];
                for (int k = 0; k < m; ++k) {
                    double acc = 0.0;
                    for (int j = 0; j < m; ++j) acc += W1[k][j] * z[j];
                    PZ[i][k] = acc;
                }
            }
        step_prior(frame, m, mN, sys, var, mean, W1, W2, filtered != 0);
        for (int i = 0; i < N; ++i) {
            moments[m + i][t] = p[m + i];
            moments[2 * m + N + i][t] = W1[m + i][m + i];
        }

        const int missing = step_multi_innovations(N, m, t, y, p, W1, v);
        if (missing == N) {
            if (store) store_write_missing(store, N, m, t);
            for (int k = 0; k < m; ++k) a[k] = p[k];
            continue;
        }

        double logdet = 0.0;
        int sign = 0;
        IInvDet(F, N, &logdet, &sign);
        if (sign == 0) return 0;
        if (missing) step_multi_clear_missing(N, F, v);

        if (filtered) {
            // x = F^-1 v; states: + P Z' x and - diag(P Z' F^-1 Z P);
            // observations: + Z P Z' x (Z P Z' is the observation block of
            // SysMat P SysMat') and the reduction by G[i][j] x element [j][i].
            for (int j = 0; j < N; ++j) {
                double acc = 0.0;
                for (int k = 0; k < N; ++k) acc += F[j][k] * v[k];
                x[j] = acc;
            }
            for (int k = 0; k < m; ++k) {
                double mean_add = 0.0, var_sub = 0.0;
                for (int i = 0; i < N; ++i) {
                    double fi = 0.0;
                    for (int j = 0; j < N; ++j) fi += F[i][j] * PZ[j][k];
                    mean_add += PZ[i][k] * x[i];
                    var_sub += PZ[i][k] * fi;
                }
                moments[k][t] += mean_add;
                moments[mN + k][t] -= var_sub;
            }
            for (int i = 0; i < N; ++i) {
                const double *zpz = W2[m + i] + m;
                double mean_add = 0.0, var_sub = 0.0;
                for (int j = 0; j < N; ++j) {
                    double g = 0.0;
                    for (int k = 0; k < N; ++k) g += zpz[k] * F[k][j];
                    mean_add += zpz[j] * x[j];
                    var_sub += g * W2[j][i];
                }
                moments[m + i][t] += mean_add;
                moments[2 * m + N + i][t] -= var_sub;
            }
        }

        // Gain, store column, a(t+1) = p + K v, P(t+1) = Pbar - K M'.
        step_multi_gain(N, m, W1, F);
        if (store) step_multi_store(N, m, t, W1, F, v, store);
        step_multi_state(N, m, W1, v, p, a);
        step_multi_variance(N, m, W1);
    }
    return 1;
}

TESSEL_EXPORT int fUnivStatePred(int filtered, int T, double *y, int m, double **sys, double **var,
                                 double *mean, int **sysidx, int **varidx, int *meanidx,
                                 double **tvdata, double **init, double **W1, double **W2,
                                 double **store, double **moments, double **offdiag) {
    const int mN = m + 1;
    step_initialise(m, mN, init, diffuse_kappa(var, mN), W1);
    double *a = W1[mN];
    double *K = W1[m];  // row m of Pbar: M, then scaled into the gain
    const double *p = W2[mN];
    double *PZ = W2[mN + 2];
    StepFrame frame;
    build_pattern(frame, sys, sysidx, mN, m, var, varidx);

    for (int t = 0; t < T; ++t) {
        record_state(m, mN, t, W1, moments, offdiag);
        write_time_varying(t, m, mN, sys, var, mean, sysidx, varidx, meanidx, tvdata);
        if (filtered) {
            const double *z = sys[m];
            for (int k = 0; k < m; ++k) {
                double acc = 0.0;
                for (int j = 0; j < m; ++j) acc += W1[k][j] * z[j];
                PZ[k] = acc;
            }
        }
        step_prior(frame, m, mN, sys, var, mean, W1, W2, filtered != 0);
        const double F = W1[m][m];
        moments[m][t] = p[m];
        moments[2 * m + 1][t] = F;

        if (FIsNaN(y[t])) {
            SetNaN(&a[m]);
            if (store) store_write_missing(store, 1, m, t);
            for (int k = 0; k < m; ++k) a[k] = p[k];
            continue;
        }

        const double v = y[t] - p[m];
        a[m] = v;
        if (F == 0.0) return 0;
        const double finv = 1.0 / F;

        if (filtered) {
            const double zpz = W2[m][m];
            for (int k = 0; k < m; ++k) {
                moments[k][t] += PZ[k] * finv * v;
                moments[mN + k][t] -= PZ[k] * finv * W2[m][k];
            }
            moments[m][t] += zpz * finv * v;
            moments[2 * m + 1][t] = F - zpz * zpz * finv;
        }

        K[m] = finv;
        for (int k = 0; k < m; ++k) K[k] *= finv;
        if (store) step_univ_store(m, t, v, K, store);
        step_univ_update(m, W1, p, v);
    }
    return 1;
}
