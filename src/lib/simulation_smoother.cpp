// simulation_smoother.cpp - the simulation smoother: per-time weights and
// factors of the conditional variance of selected disturbances (one backward
// pass over a filter store), and the backward pass that turns those weights
// and caller-supplied standard normal numbers into one draw of the selected
// disturbances given the data.
//
// Dimensions: m states, N series, p = m + N stacked disturbances (state
// first), q selected ones. The single-series routines run the general
// recursion with N = 1: the store layout is the same.
#include <cmath>

#include "frame.h"

using tessel::store_read_block;
using tessel::write_time_varying;

namespace {

// First weight row of selected element s: p weights, then the q - s
// entries of column s of the factor.
inline int weight_block(int p, int q, int s) { return s * p + s * q - s * (s - 1) / 2; }

// Columns m..p-1 of A, rows 0..m+i of column m+i: the store block of series
// i at time t, or zeros when its innovation is missing.
void load_store_columns(int N, int m, int t, double **store, double **A) {
    for (int i = 0; i < N; ++i)
        store_read_block(store, N, m, i, t, [&](int j, double x) { A[j][m + i] = x; });
}

int sim_smo_weights(int N, int n, int m, double **sys, double **var, int **sysidx, int **varidx,
                    double **tvdata, double **A, double **U, double **store, int q, const int *sel,
                    double **G, double **wgt) {
    const int p = m + N;
    for (int r = 0; r < p; ++r)
        for (int c = 0; c < p; ++c) A[r][c] = 0.0;
    double *pivots = A[p];

    for (int t = n - 1; t >= 0; --t) {
        write_time_varying(t, m, p, sys, var, nullptr, sysidx, varidx, nullptr, tvdata);
        load_store_columns(N, m, t, store, A);

        // U = [[M, -M K], [-K' M, F^-1 + K' M K]] with M the state block of A.
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j)
                U[m + i][m + j] = i <= j ? A[m + i][m + j] : A[m + j][m + i];
        for (int j = 0; j < m; ++j) {
            U[j][j] = A[j][j];
            for (int k = j + 1; k < m; ++k) U[j][k] = U[k][j] = A[k][j];
        }
        for (int j = 0; j < m; ++j)
            for (int i = 0; i < N; ++i) {
                double s = 0.0;
                for (int k = 0; k < m; ++k) s += A[j][k] * A[k][m + i];
                U[j][m + i] = U[m + i][j] = -s;
            }
        for (int i = m; i < p; ++i)
            for (int j = i; j < p; ++j) {
                double s = 0.0;
                for (int k = 0; k < m; ++k) s += U[i][k] * A[k][j];
                U[i][j] -= s;
                U[j][i] = U[i][j];
            }

        // Column s of A = U VarMat' for selected element i; G = VarMat -
        // VarMat U VarMat over the selected rows and columns.
        for (int i = 0, s = 0; i < p; ++i) {
            if (!sel[i]) continue;
            for (int c = 0; c < p; ++c) {
                double acc = 0.0;
                for (int k = 0; k < p; ++k) acc += var[i][k] * U[k][c];
                A[c][s] = acc;
            }
            for (int j = 0, s2 = 0; j <= i; ++j) {
                if (!sel[j]) continue;
                double acc = 0.0;
                for (int k = 0; k < p; ++k) acc += A[k][s] * var[k][j];
                G[s][s2] = var[i][j] - acc;
                if (s2 < s) G[s2][s] = G[s][s2];
                ++s2;
            }
            ++s;
        }

        const int code = ILDLdec(G, pivots, q);
        if (code != 0) return code;

        // Lower Choleski factor: L times the square roots of the pivots.
        G[0][0] = 1.0 / std::sqrt(pivots[0]);
        for (int s = 1; s < q; ++s) {
            G[s][s] = 1.0 / std::sqrt(pivots[s]);
            for (int k = 0; k < s; ++k) G[s][k] *= G[k][k];
        }

        // Weights: each row of A becomes C^-1 times itself (C the factor).
        for (int c = 0; c < p; ++c) LDLbacksub(1, q, G, A[c], A[c]);

        // U += W' G(t)^-1 W.
        for (int i = 0; i < p; ++i)
            for (int j = i; j < p; ++j) {
                double acc = 0.0;
                for (int k = 0; k < q; ++k) acc += A[i][k] * A[j][k];
                U[i][j] += acc;
                U[j][i] = U[i][j];
            }

        for (int s = 0; s < q; ++s) {
            const int base = weight_block(p, q, s);
            for (int c = 0; c < p; ++c) wgt[base + c][t] = A[c][s];
            for (int k = s; k < q; ++k) wgt[base + p + k - s][t] = G[k][s];
        }

        MatBtSB(sys, p, U, m, A);
    }
    return 0;
}

void sim_smo_draw(int N, int n, int m, double **sys, double **var, int **sysidx, int **varidx,
                  double **tvdata, double **A, double **ru, double **store, int q, const int *sel,
                  double **G, double **wgt, double **draws, double **out) {
    const int p = m + N;
    double *r = ru[0];
    double *u = ru[1];
    for (int j = 0; j < p; ++j) r[j] = 0.0;

    for (int t = n - 1; t >= 0; --t) {
        write_time_varying(t, m, p, sys, var, nullptr, sysidx, varidx, nullptr, tvdata);
        // The innovations go into r as stored: a wholly missing time point
        // carries its NaN into the draw and into every earlier r.
        for (int i = 0; i < N; ++i) r[m + i] = store[i][t];
        load_store_columns(N, m, t, store, A);

        // u = (r; F^-1 v - K' r).
        for (int i = m; i < p; ++i) {
            for (int j = 0; j < i; ++j) A[i][j] = A[j][i];
            double acc = 0.0;
            for (int j = m; j < p; ++j) acc += A[i][j] * r[j];
            u[i] = acc;
        }
        for (int j = 0; j < m; ++j) u[j] = r[j];
        for (int i = 0; i < N; ++i) {
            double acc = 0.0;
            for (int k = 0; k < m; ++k) acc += A[k][m + i] * u[k];
            u[m + i] -= acc;
        }

        // Weights and factor of time t; the draws z(t) take r's first q places.
        for (int s = 0; s < q; ++s) {
            const int base = weight_block(p, q, s);
            for (int c = 0; c < p; ++c) A[c][s] = wgt[base + c][t];
            for (int k = s; k < q; ++k) G[k][s] = wgt[base + p + k - s][t];
        }
        for (int s = 0; s < q; ++s) r[s] = draws[s][t];
        const double *z = r;

        for (int i = 0, s = 0; i < p; ++i) {
            if (!sel[i]) {
                out[i][t + 1] = 0.0;
                continue;
            }
            double acc = 0.0;
            for (int k = 0; k <= s; ++k) acc += G[s][k] * z[k];
            for (int j = 0; j < p; ++j) acc += var[i][j] * u[j];
            out[i][t + 1] = acc;
            ++s;
        }

        for (int i = 0; i < p; ++i) {
            double acc = 0.0;
            for (int k = 0; k < q; ++k) acc += A[i][k] * z[k];
            u[i] -= acc;
        }
        for (int j = 0; j < m; ++j) {
            double acc = 0.0;
            for (int i = 0; i < p; ++i) acc += sys[i][j] * u[i];
            r[j] = acc;
        }
    }

    for (int j = 0; j < m; ++j) out[j][0] = r[j];
    for (int i = 0; i < N; ++i) out[m + i][0] = 0.0;
}

}  // namespace

TESSEL_EXPORT int iMultiSimSmoWgt(int N, int n, int m, double **sys, double **var, int **sysidx,
                                  int **varidx, double **tvdata, double **A, double **U,
                                  double **store, int q, int *sel, double **G, double **wgt) {
    return sim_smo_weights(N, n, m, sys, var, sysidx, varidx, tvdata, A, U, store, q, sel, G, wgt);
}

TESSEL_EXPORT int iUnivSimSmoWgt(int n, int m, double **sys, double **var, int **sysidx,
                                 int **varidx, double **tvdata, double **A, double **U,
                                 double **store, int q, int *sel, double **G, double **wgt) {
    return sim_smo_weights(1, n, m, sys, var, sysidx, varidx, tvdata, A, U, store, q, sel, G, wgt);
}

TESSEL_EXPORT void MultiSimSmoDraw(int N, int n, int m, double **sys, double **var, int **sysidx,
                                   int **varidx, double **tvdata, double **A, double **ru,
                                   double **store, int q, int *sel, double **G, double **wgt,
                                   double **draws, double **out) {
    sim_smo_draw(N, n, m, sys, var, sysidx, varidx, tvdata, A, ru, store, q, sel, G, wgt, draws,
                 out);
}

TESSEL_EXPORT void UnivSimSmoDraw(int n, int m, double **sys, double **var, int **sysidx,
                                  int **varidx, double **tvdata, double **A, double **ru,
                                  double **store, int q, int *sel, double **G, double **wgt,
                                  double **draws, double **out) {
    sim_smo_draw(1, n, m, sys, var, sysidx, varidx, tvdata, A, ru, store, q, sel, G, wgt, draws,
                 out);
}
