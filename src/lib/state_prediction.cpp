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
#include "frame.h"

using namespace tessel;

namespace {

void write_time_varying(int t, int m, int mN, double **sys, double **var, double *mean,
                        int **sysidx, int **varidx, const int *meanidx, double **tvdata) {
    if (meanidx)
        for (int k = 0; k < mN; ++k)
            if (meanidx[k] >= 0) mean[k] = tvdata[meanidx[k]][t];
    if (sysidx)
        for (int k = 0; k < mN; ++k)
            for (int j = 0; j < m; ++j)
                if (sysidx[k][j] >= 0) sys[k][j] = tvdata[sysidx[k][j]][t];
    if (varidx)
        for (int k = 0; k < mN; ++k)
            for (int j = 0; j < mN; ++j)
                if (varidx[k][j] >= 0) var[k][j] = tvdata[varidx[k][j]][t];
}

// Initial a and P into W1 (diffuse elements at kappa).
void initialise(int m, int mN, double **init, double kappa, double **W1) {
    if (!init) {
        MatZero(W1, mN + 1, mN);
        for (int k = 0; k < m; ++k) W1[k][k] = kappa;
        return;
    }
    double *a = W1[mN];
    for (int k = 0; k < m; ++k) {
        a[k] = init[m][k];
        if (init[k][k] < 0.0) {
            W1[k][k] = kappa;
            for (int j = 0; j < k; ++j) W1[k][j] = W1[j][k] = 0.0;
        } else {
            W1[k][k] = init[k][k];
            for (int j = 0; j < k; ++j) W1[k][j] = W1[j][k] = init[k][j];
        }
    }
}

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

// p = mean + SysMat a; W2 top = SysMat P SysMat'; W1 top = W2 + VarMat.
void predict(int m, int mN, double **sys, double **var, const double *mean, double **W1,
             double **W2) {
    const double *a = W1[mN];
    double *p = W2[mN];
    for (int k = 0; k < mN; ++k) {
        double acc = mean[k];
        for (int j = 0; j < m; ++j) acc += sys[k][j] * a[j];
        p[k] = acc;
    }
    MatBSBt(sys, mN, W1, m, W2);
    MatAdd(W2, mN, mN, var, 1.0, W1);
}

}  // namespace

TESSEL_EXPORT int fMultiStatePred(int filtered, int N, int T, double **y, int m, double **sys,
                                  double **var, double *mean, int **sysidx, int **varidx,
                                  int *meanidx, double **tvdata, double **init, double **W1,
                                  double **W2, double **store, double **moments,
                                  double **offdiag) {
    const int mN = m + N;
    Block Fview, scratch;
    if (!Fview.alloc(N, 0) || (filtered && !scratch.alloc(1, N))) return 0;
    double *x = filtered ? scratch[0] : nullptr;  // F^-1 v
    double **F = Fview.get();
    for (int i = 0; i < N; ++i) F[i] = W1[m + i] + m;

    initialise(m, mN, init, diffuse_kappa(var, mN), W1);
    double *a = W1[mN];
    double *v = W1[mN] + m;
    const double *p = W2[mN];
    double **PZ = W2 + mN + 2;  // row i: column i of P Z'

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
        predict(m, mN, sys, var, mean, W1, W2);
        for (int i = 0; i < N; ++i) {
            moments[m + i][t] = p[m + i];
            moments[2 * m + N + i][t] = W1[m + i][m + i];
        }

        int missing = 0;
        for (int i = 0; i < N; ++i) {
            if (FIsNaN(y[i][t])) {
                const int r = m + i;
                for (int k = 0; k < mN; ++k) W1[r][k] = W1[k][r] = 0.0;
                W1[r][r] = 1.0;
                SetNaN(&v[i]);
                ++missing;
            } else {
                v[i] = y[i][t] - p[m + i];
            }
        }

        if (missing == N) {
            if (store) {
                for (int i = 0; i < N; ++i) SetNaN(&store[i][t]);
                for (int r = N; r < N + N * (N + 1) / 2 + m * N; ++r) store[r][t] = 0.0;
            }
            for (int k = 0; k < m; ++k) a[k] = p[k];
            continue;
        }

        double logdet = 0.0;
        int sign = 0;
        IInvDet(F, N, &logdet, &sign);
        if (sign == 0) return 0;
        if (missing)
            for (int i = 0; i < N; ++i)
                if (FIsNaN(v[i])) {
                    F[i][i] = 0.0;
                    v[i] = 0.0;
                }

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

        // K = M F^-1 into the top-right block (M' read from the bottom-left).
        for (int r = 0; r < m; ++r) {
            double *Kr = W1[r] + m;
            for (int i = 0; i < N; ++i) {
                double acc = 0.0;
                for (int k = 0; k < N; ++k) acc += W1[m + k][r] * F[k][i];
                Kr[i] = acc;
            }
        }
        if (store) {
            for (int i = 0; i < N; ++i) store[i][t] = v[i];
            int row = N;
            for (int i = 0; i < N; ++i) {
                for (int r = 0; r < m; ++r) store[row++][t] = W1[r][m + i];
                for (int k = 0; k <= i; ++k) store[row++][t] = F[k][i];
            }
        }

        // a(t+1) = p + K v; P(t+1) = Pbar - K M'.
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
                W1[r][c] = W1[c][r] = acc;
            }
        }
    }
    return 1;
}

TESSEL_EXPORT int fUnivStatePred(int filtered, int T, double *y, int m, double **sys, double **var,
                                 double *mean, int **sysidx, int **varidx, int *meanidx,
                                 double **tvdata, double **init, double **W1, double **W2,
                                 double **store, double **moments, double **offdiag) {
    const int mN = m + 1;
    initialise(m, mN, init, diffuse_kappa(var, mN), W1);
    double *a = W1[mN];
    double *K = W1[m];  // row m of Pbar: M, then scaled into the gain
    const double *p = W2[mN];
    double *PZ = W2[mN + 2];

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
        predict(m, mN, sys, var, mean, W1, W2);
        const double F = W1[m][m];
        moments[m][t] = p[m];
        moments[2 * m + 1][t] = F;

        if (FIsNaN(y[t])) {
            SetNaN(&a[m]);
            if (store) {
                SetNaN(&store[0][t]);
                for (int r = 1; r <= mN; ++r) store[r][t] = 0.0;
            }
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
        if (store) {
            store[0][t] = v;
            for (int r = 0; r <= m; ++r) store[r + 1][t] = K[r];
        }
        for (int j = 0; j < m; ++j) a[j] = p[j] + K[j] * v;
        for (int j = 0; j < m; ++j) {
            const double Mj = W1[j][m];
            for (int k = j; k < m; ++k) {
                const double x = W1[j][k] - Mj * K[k];
                W1[j][k] = W1[k][j] = x;
            }
        }
    }
    return 1;
}
