// filter_step.h - the pieces of one forward filter step that the filters
// and the prediction pass share, written for the small matrices of the
// recursions: the nonzero pattern of SysMat found once per call, the
// prediction mean + SysMat a and the joint variance
//   Pbar = SysMat P SysMat' + VarMat
// computed over that pattern, with nothing allocated (all scratch lives in
// a fixed-size frame on the caller's stack).
//
// The pattern holds every entry of SysMat that is nonzero on entry or marked
// time-varying in SysIdx; the values themselves are read from SysMat at every
// use, so time-varying writes are seen. Skipping the structural zeros changes
// only the order of the additions, so results agree with the dense products
// to rounding. Models too large for the frame use the host's dense routines.
#pragma once

#include <cmath>

#include "frame.h"
#include "row_kernels.h"

namespace tessel {

using rows::v2;

struct StepFrame {
    enum { kMaxOrder = 64, kMaxEntries = 1024, kMaxScratch = 2048 };
    bool ok = false;  // pattern built; false -> dense host routines
    int rows = 0, cols = 0;
    int start[kMaxOrder + 1];
    bool dense[kMaxOrder];  // row with every column present
    int unit[kMaxOrder];    // column of a row that is one fixed 1, else -1
    int col[kMaxEntries];
    // Elements of VarMat that are nonzero on entry or time-varying, as
    // row * mN + column; all of them when var_all.
    bool var_all = true;
    int nvar = 0;
    int var_at[kMaxEntries];
    bool rowwise = false;    // most rows full: register-blocked dense products
    bool st_fixed = false;   // St built once (SysMat fixed over time)
    double X[kMaxScratch];   // SysMat P, row by row
    double St[kMaxScratch];  // SysMat', m x mN, for the dense products
};

// Finds the pattern of the (mN x m) SysMat, and that of VarMat when it is
// given; false (frame unusable) when the model does not fit the frame.
inline bool build_pattern(StepFrame &f, double **sys, int **sysidx, int mN, int m,
                          double **var = nullptr, int **varidx = nullptr) {
    f.ok = false;
    f.var_all = true;
    f.nvar = 0;
    if (var && mN <= StepFrame::kMaxOrder) {
        int e = 0;
        bool fits = true;
        for (int i = 0; i < mN && fits; ++i)
            for (int j = 0; j < mN; ++j)
                if (var[i][j] != 0.0 || (varidx && varidx[i][j] >= 0)) {
                    if (e == StepFrame::kMaxEntries) {
                        fits = false;
                        break;
                    }
                    f.var_at[e++] = i * mN + j;
                }
        if (fits) {
            f.var_all = false;
            f.nvar = e;
        }
    }
    if (m < 1 || mN > StepFrame::kMaxOrder || mN * m > StepFrame::kMaxScratch) return false;
    int e = 0;
    for (int i = 0; i < mN; ++i) {
        f.start[i] = e;
        for (int j = 0; j < m; ++j)
            if (sys[i][j] != 0.0 || (sysidx && sysidx[i][j] >= 0)) {
                if (e == StepFrame::kMaxEntries) return false;
                f.col[e++] = j;
            }
        f.dense[i] = (e - f.start[i]) == m;
        // A row that copies one state (shift rows of lags and seasonals):
        // multiplying by 1 is exact, so copying gives the same numbers.
        f.unit[i] = -1;
        if (e - f.start[i] == 1) {
            const int k = f.col[f.start[i]];
            if (sys[i][k] == 1.0 && !(sysidx && sysidx[i][k] >= 0)) f.unit[i] = k;
        }
    }
    f.start[mN] = e;
    int full = 0;
    for (int i = 0; i < mN; ++i) full += f.dense[i] ? 1 : 0;
    f.rowwise = 2 * full > mN;
    // A SysMat fixed over time is transposed once here.
    f.st_fixed = f.rowwise && !sysidx;
    if (f.st_fixed)
        for (int j = 0; j < mN; ++j)
            for (int l = 0; l < m; ++l) f.St[l * mN + j] = sys[j][l];
    f.rows = mN;
    f.cols = m;
    f.ok = true;
    return true;
}

// p[k] = mean[k] + SysMat[k] a over the pattern, k < mN.
__attribute__((always_inline)) inline void step_predict(const StepFrame &f, double **sys,
                                                        const double *mean, const double *a,
                                                        double *p) {
    for (int k = 0; k < f.rows; ++k) {
        const double *s = sys[k];
        double acc = mean[k];
        if (f.unit[k] >= 0)
            acc += a[f.unit[k]];
        else if (f.dense[k])
            acc += rows::dot(s, a, f.cols);
        else
            for (int e = f.start[k]; e < f.start[k + 1]; ++e) acc += s[f.col[e]] * a[f.col[e]];
        p[k] = acc;
    }
}

// R = SysMat P SysMat' (+ VarMat when var is given), with P the top-left
// m x m block of W (symmetric, both triangles held). R may be W itself: P is
// read in full before R is written. The upper triangle is computed and the
// lower receives the same product (plus VarMat's own lower element, as an
// element-wise addition would give).
__attribute__((always_inline)) inline void step_joint_variance(StepFrame &f, double **sys,
                                                               double **W, double **var,
                                                               double **R) {
    const int mN = f.rows, m = f.cols;
    double *X = f.X;
    if (f.rowwise) {
        // Mostly full SysMat: X[i] = SysMat[i] P combines the rows of P, and
        // row i of X SysMat' (columns i..) combines the rows of SysMat'.
        double *St = f.St;
        double *strows[StepFrame::kMaxOrder];
        for (int l = 0; l < m; ++l) strows[l] = St + l * mN;
        if (!f.st_fixed) {
            // Time-varying SysMat: transposed afresh at every step.
            for (int j = 0; j < mN; ++j) {
                const double *s = sys[j];
                for (int l = 0; l < m; ++l) St[l * mN + j] = s[l];
            }
        }
        const bool add_var = var && f.var_all;
        int i = 0;
        for (; i + 2 <= mN; i += 2)
            rows::combine2(X + i * m, X + (i + 1) * m, sys[i], sys[i + 1], W, m, 0, m);
        if (i < mN) rows::combine(X + i * m, sys[i], W, m, 0, m);
        double row[StepFrame::kMaxOrder], row1[StepFrame::kMaxOrder];
        auto put = [&](int i, const double *rw) {  // rw[j - i] for j >= i
            for (int j = i; j < mN; ++j) {
                const double acc = rw[j - i];
                if (add_var) {
                    R[i][j] = acc + var[i][j];
                    R[j][i] = acc + var[j][i];
                } else {
                    R[i][j] = acc;
                    R[j][i] = acc;
                }
            }
        };
        i = 0;
        for (; i + 2 <= mN; i += 2) {
            // Rows i and i+1 from column i (row i+1's first value unused).
            rows::combine2(row, row1, X + i * m, X + (i + 1) * m, strows, m, i, mN - i);
            put(i, row);
            put(i + 1, row1 + 1);
        }
        if (i < mN) {
            rows::combine(row, X + i * m, strows, m, i, mN - i);
            put(i, row);
        }
        if (var && !f.var_all)
            for (int e = 0; e < f.nvar; ++e) {
                const int i = f.var_at[e] / mN, j = f.var_at[e] % mN;
                R[i][j] += var[i][j];
            }
        return;
    }
    // X = SysMat P: row i is a combination of the rows of P.
    for (int i = 0; i < mN; ++i) {
        double *x = X + i * m;
        const double *s = sys[i];
        const int e0 = f.start[i], e1 = f.start[i + 1];
        if (f.unit[i] >= 0) {
            const double *pk = W[f.unit[i]];
            int c = 0;
            for (; c + 2 <= m; c += 2) {
                v2 v;
                __builtin_memcpy(&v, pk + c, 16);
                __builtin_memcpy(x + c, &v, 16);
            }
            if (c < m) x[c] = pk[c];
            continue;
        }
        if (f.dense[i]) {
            // P symmetric: column c of P is its row c.
            for (int c = 0; c < m; ++c) x[c] = rows::dot(s, W[c], m);
            continue;
        }
        // Combine the rows of P named by the nonzeros of row i.
        double coef[StepFrame::kMaxOrder];
        double *prow[StepFrame::kMaxOrder];
        int n = 0;
        for (int e = e0; e < e1; ++e, ++n) {
            coef[n] = s[f.col[e]];
            prow[n] = W[f.col[e]];
        }
        rows::combine(x, coef, prow, n, 0, m);
    }
    // R[i][j] = X[i] . SysMat[j] for j >= i.
    for (int i = 0; i < mN; ++i) {
        const double *x = X + i * m;
        for (int j = i; j < mN; ++j) {
            const double *s = sys[j];
            double acc;
            if (f.unit[j] >= 0) {
                acc = x[f.unit[j]];
            } else if (f.dense[j]) {
                acc = rows::dot(x, s, m);
            } else {
                acc = 0.0;
                for (int e = f.start[j]; e < f.start[j + 1]; ++e) acc += x[f.col[e]] * s[f.col[e]];
            }
            if (var && f.var_all) {
                R[i][j] = acc + var[i][j];
                R[j][i] = acc + var[j][i];
            } else {
                R[i][j] = acc;
                R[j][i] = acc;
            }
        }
    }
    // VarMat over its pattern: the same single addition per element.
    if (var && !f.var_all)
        for (int e = 0; e < f.nvar; ++e) {
            const int i = f.var_at[e] / mN, j = f.var_at[e] % mN;
            R[i][j] += var[i][j];
        }
}

// The first two pieces of a filter step, by the pattern when the frame is
// usable and by the host's dense routines otherwise: p = mean + SysMat a
// (W2 row mN), Pbar = SysMat P SysMat' + VarMat (W1 top block). With
// keep_product, W2's top block receives SysMat P SysMat' as well.
inline void step_prior(StepFrame &f, int m, int mN, double **sys, double **var, const double *mean,
                       double **W1, double **W2, bool keep_product) {
    if (f.ok) {
        step_predict(f, sys, mean, W1[mN], W2[mN]);
        if (keep_product) {
            step_joint_variance(f, sys, W1, nullptr, W2);
            MatAdd(W2, mN, mN, var, 1.0, W1);
        } else {
            step_joint_variance(f, sys, W1, var, W1);
        }
        return;
    }
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

// Initial state mean and variance into W1 (a in row mN, P top-left), the
// diffuse elements at kappa. Returns d, the number of diffuse elements.
inline int step_initialise(int m, int mN, double **init, double kappa, double **W1) {
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

// ------------------------------------------------------ the update of a step
// Shared by the filters and the prediction pass, which run the same step.

// Innovations v = y(t) - p of a multivariate step (p the prediction of the
// observations, from element m). A missing element gets NaN, and a zero row
// and column with a unit diagonal in Pbar, so that inverting F leaves the
// observed part untouched. Returns the number of missing elements.
inline int step_multi_innovations(int N, int m, int t, double **y, const double *p, double **W1,
                                  double *v) {
    const int mN = m + N;
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
            v[i] = yi - p[m + i];
        }
    }
    return missing;
}

// Once F holds F^-1: a missing element gets a zero inverse variance and a
// zero innovation.
inline void step_multi_clear_missing(int N, double **F, double *v) {
    for (int i = 0; i < N; ++i)
        if (FIsNaN(v[i])) {
            F[i][i] = 0.0;
            v[i] = 0.0;
        }
}

// K = M F^-1: M' is read from the bottom-left block of Pbar, K is written
// into the top-right block, row by row as combinations of the rows of F^-1.
inline void step_multi_gain(int N, int m, double **W1, double **F) {
    if (N <= StepFrame::kMaxOrder) {
        double coef[StepFrame::kMaxOrder], coef1[StepFrame::kMaxOrder];
        int r = 0;
        for (; r + 2 <= m; r += 2) {
            for (int k = 0; k < N; ++k) {
                coef[k] = W1[m + k][r];
                coef1[k] = W1[m + k][r + 1];
            }
            rows::combine2(W1[r] + m, W1[r + 1] + m, coef, coef1, F, N, 0, N);
        }
        if (r < m) {
            for (int k = 0; k < N; ++k) coef[k] = W1[m + k][r];
            rows::combine(W1[r] + m, coef, F, N, 0, N);
        }
        return;
    }
    for (int r = 0; r < m; ++r) {
        double *Kr = W1[r] + m;
        for (int i = 0; i < N; ++i) Kr[i] = 0.0;
        for (int k = 0; k < N; ++k) {
            const double mk = W1[m + k][r];
            const double *fk = F[k];
            for (int i = 0; i < N; ++i) Kr[i] += mk * fk[i];
        }
    }
}

// Store column t: the gains from the top-right block of W1, F^-1 from F.
inline void step_multi_store(int N, int m, int t, double **W1, double **F, const double *v,
                             double **store) {
    store_write(
        store, N, m, t, v, [&](int r, int i) { return W1[r][m + i]; },
        [&](int k, int i) { return F[k][i]; });
}

// a(t+1) = p + K v.
inline void step_multi_state(int N, int m, double **W1, const double *v, const double *p,
                             double *a) {
    for (int r = 0; r < m; ++r) {
        const double *Kr = W1[r] + m;
        double acc = p[r];
        for (int k = 0; k < N; ++k) acc += Kr[k] * v[k];
        a[r] = acc;
    }
}

// P(t+1) = Pbar - K M': row r of the upper triangle less the rows of M'
// (bottom-left block) combined by row r of K; then mirrored.
inline void step_multi_variance(int N, int m, double **W1) {
    if (N <= StepFrame::kMaxOrder && m <= StepFrame::kMaxOrder) {
        double *Mrows[StepFrame::kMaxOrder];
        for (int k = 0; k < N; ++k) Mrows[k] = W1[m + k];
        double km[StepFrame::kMaxOrder], km1[StepFrame::kMaxOrder];
        int r = 0;
        for (; r + 2 <= m; r += 2) {
            // Rows r and r+1 from column r (row r+1's first value unused).
            rows::combine2(km, km1, W1[r] + m, W1[r + 1] + m, Mrows, N, r, m - r);
            double *Pr = W1[r], *Pr1 = W1[r + 1];
            for (int c = r; c < m; ++c) Pr[c] -= km[c - r];
            for (int c = r + 1; c < m; ++c) Pr1[c] -= km1[c - r];
        }
        if (r < m) {
            double *Pr = W1[r];
            rows::combine(km, W1[r] + m, Mrows, N, r, m - r);
            for (int c = r; c < m; ++c) Pr[c] -= km[c - r];
        }
    } else {
        for (int r = 0; r < m; ++r) {
            double *Pr = W1[r];
            const double *Kr = W1[r] + m;
            for (int k = 0; k < N; ++k) {
                const double kk = Kr[k];
                const double *Mk = W1[m + k];
                for (int c = r; c < m; ++c) Pr[c] -= kk * Mk[c];
            }
        }
    }
    for (int r = 0; r < m; ++r)
        for (int c = r + 1; c < m; ++c) W1[c][r] = W1[r][c];
}

// Single series, store column t: v, then the gain and 1/F (K[0..m]).
inline void step_univ_store(int m, int t, double v, const double *K, double **store) {
    store_write(
        store, 1, m, t, &v, [&](int r, int) { return K[r]; }, [&](int, int) { return K[m]; });
}

// Single series, once row m of W1 holds the gain and 1/F: P(t+1) = Pbar -
// M K' (M the unscaled last column of Pbar), mirrored.
inline void step_univ_variance(int m, double **W1) {
    const double *K = W1[m];
    for (int j = 0; j < m; ++j) {
        const double Mj = W1[j][m];
        const v2 mv = {Mj, Mj};
        double *Pj = W1[j];
        int k = j;
        for (; k + 2 <= m; k += 2) {
            v2 pv, kv;
            __builtin_memcpy(&pv, Pj + k, 16);
            __builtin_memcpy(&kv, K + k, 16);
            pv -= mv * kv;
            __builtin_memcpy(Pj + k, &pv, 16);
        }
        if (k < m) Pj[k] -= Mj * K[k];
    }
    for (int j = 0; j < m; ++j)
        for (int k = j + 1; k < m; ++k) W1[k][j] = W1[j][k];
}

// Single series: a(t+1) = p + K v, then P(t+1) as step_univ_variance.
inline void step_univ_update(int m, double **W1, const double *p, double v) {
    const double *K = W1[m];
    double *a = W1[m + 1];
    for (int j = 0; j < m; ++j) a[j] = p[j] + K[j] * v;
    step_univ_variance(m, W1);
}

// Internal forms of the two filters with the steady-state shortcut
// switchable (the exported routines allow it) and, when steady_steps is not
// null, the number of steps it took added there; tests compare both
// settings.
int univ_kalman_filter(int n, const double *y, int m, double **sys, double **var, double *mean,
                       int **sysidx, int **varidx, int *meanidx, double **tvdata, double **init,
                       double **W1, double **W2, double **store, double *dLogDet, double *dSumSq,
                       int *cnt, bool allow_steady, long *steady_steps);
int multi_kalman_filter(int N, int n, double **y, int m, double **sys, double **var, double *mean,
                        int **sysidx, int **varidx, int *meanidx, double **tvdata, double **init,
                        double **W1, double **W2, double **store, double *dLogDet, double *dSumSq,
                        int *cnt, bool allow_steady, long *steady_steps);

}  // namespace tessel
