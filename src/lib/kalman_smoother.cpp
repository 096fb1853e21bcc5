// kalman_smoother.cpp - the backward smoothing recursion over a filter
// store: the cumulant r(t) with its variance N(t), the smoothing errors u(t)
// of the observations with their variance, and the sum over time of
// u~ u~' - D~ that the score needs; and the KalmanSmo entry point.
//
// With v, K = M F^-1 and F^-1 from the filter store, for t = T-1 down to 0:
//   u(t)    = F^-1 v - K' r(t)
//   D~(t)   = [ N(t)       -N(t) K         ]
//             [ -K' N(t)   F^-1 + K' N(t) K ]
//   r(t-1)  = SysMat' (r(t); u(t))      = T' r(t) + Z' u(t)
//   N(t-1)  = SysMat' D~(t) SysMat       = Z' F^-1 Z + L' N(t) L, L = T - K Z
// starting from r = 0 and N = 0 after the last time point.
#include "filter_step.h"
#include "frame.h"
#include "smoothing_steps.h"

using namespace tessel;

namespace tessel {

void multi_form_u_D(int N, int m, int t, double **W1, double **W2, double **store) {
    const int mN = m + N;
    double *w1last = W1[mN];
    double *u = W2[mN];

    if (store) {
        for (int i = 0; i < N; ++i)
            w1last[m + i] =
                store_read_block(store, N, m, i, t, [&](int j, double x) { W1[j][m + i] = x; });
    }

    // F^-1 (from the upper triangles of the store columns) and F^-1 v; the
    // innovations are used as stored.
    for (int a = 0; a < N; ++a) {
        for (int b = a; b < N; ++b) W2[m + a][m + b] = W2[m + b][m + a] = W1[m + a][m + b];
    }
    for (int a = 0; a < N; ++a) {
        const double *fa = W2[m + a] + m;
        double acc = 0.0;
        for (int b = 0; b < N; ++b) acc += fa[b] * w1last[m + b];
        u[m + a] = acc;
    }
    // u = F^-1 v - K' r.
    for (int k = 0; k < m; ++k) u[k] = w1last[k];
    for (int a = 0; a < N; ++a) {
        const int col = m + a;
        double acc = 0.0;
        for (int j = 0; j < m; ++j) acc += W1[j][col] * u[j];
        u[col] -= acc;
    }

    // D~: N(t) from its lower triangle, -N K and F^-1 + K' N K.
    for (int k = 0; k < m; ++k)
        for (int j = 0; j <= k; ++j) W2[k][j] = W2[j][k] = W1[k][j];
    if (m <= StepFrame::kMaxOrder && N <= StepFrame::kMaxOrder) {
        // The same sums in the same order, as register-blocked combinations
        // of rows: row k of N K combines the gain rows (W1[j] from column m)
        // by N[k]; row a of K' N K combines the rows of N K by column a of K.
        double *krows[StepFrame::kMaxOrder], tmp[StepFrame::kMaxOrder], coef[StepFrame::kMaxOrder];
        for (int j = 0; j < m; ++j) krows[j] = W1[j] + m;
        for (int k = 0; k < m; ++k) {
            rows::combine(tmp, W2[k], krows, m, 0, N);
            for (int a = 0; a < N; ++a) W2[k][m + a] = W2[m + a][k] = -tmp[a];
        }
        for (int k = 0; k < m; ++k) krows[k] = W2[k] + m;
        for (int a = 0; a < N; ++a) {
            const int ca = m + a;
            for (int k = 0; k < m; ++k) coef[k] = W1[k][ca];
            rows::combine(tmp, coef, krows, m, a, N - a);
            for (int b = a; b < N; ++b) {
                const int cb = m + b;
                const double x = W2[ca][cb] - tmp[b - a];
                W2[ca][cb] = W2[cb][ca] = x;
            }
        }
        return;
    }
    for (int k = 0; k < m; ++k) {
        const double *nk = W2[k];
        for (int a = 0; a < N; ++a) {
            const int col = m + a;
            double acc = 0.0;
            for (int j = 0; j < m; ++j) acc += nk[j] * W1[j][col];
            W2[k][col] = W2[col][k] = -acc;
        }
    }
    for (int a = 0; a < N; ++a) {
        const int ca = m + a;
        for (int b = a; b < N; ++b) {
            const int cb = m + b;
            double acc = 0.0;
            for (int k = 0; k < m; ++k) acc += W1[k][ca] * W2[k][cb];
            const double x = W2[ca][cb] - acc;
            W2[ca][cb] = W2[cb][ca] = x;
        }
    }
}

void univ_form_u_D(int m, int t, double **W1, double **W2, double **store) {
    const int mN = m + 1;
    double *w1last = W1[mN];
    double *u = W2[mN];
    double *K = W1[m];  // gain in columns 0..m-1, F^-1 in column m

    if (store) w1last[m] = store_read_block(store, 1, m, 0, t, [&](int j, double x) { K[j] = x; });
    const double v = w1last[m];
    double um;
    if (FIsNaN(v)) {
        um = 0.0;
        W2[m][m] = 0.0;
        for (int k = 0; k <= m; ++k) K[k] = 0.0;
    } else {
        um = v * K[m];
        W2[m][m] = K[m];
    }
    for (int k = 0; k < m; ++k) {
        u[k] = w1last[k];
        um -= u[k] * K[k];
    }
    u[m] = um;

    for (int k = 0; k < m; ++k)
        for (int j = 0; j <= k; ++j) W2[k][j] = W2[j][k] = W1[k][j];
    for (int k = 0; k < m; ++k) {
        const double *nk = W2[k];
        double acc = 0.0;
        for (int j = 0; j < m; ++j) acc += nk[j] * K[j];
        W2[m][k] = W2[k][m] = -acc;
    }
    double d = W2[m][m];
    for (int k = 0; k < m; ++k) d -= W2[m][k] * K[k];
    W2[m][m] = d;
}

void smooth_advance(int m, int mN, double **sys, double **W1, double **W2) {
    const double *u = W2[mN];
    double *r = W1[mN];
    for (int k = 0; k < m; ++k) {
        double acc = 0.0;
        for (int j = 0; j < mN; ++j) acc += sys[j][k] * u[j];
        r[k] = acc;
    }
    if (m > 0) MatBtSB(sys, mN, W2, m, W1);
}

}  // namespace tessel

namespace {

// The loop shared by both routines; `univ` selects the single-series step.
void kalman_smo(bool univ, int N, int T, int m, double **sys, int **sysidx, double **tvdata,
                double **W1, double **W2, double **store, double **S, double **out) {
    const int mN = m + N;
    MatZero(W1, mN + 1, mN);
    if (S) MatZero(S, mN, mN);
    const double *u = W2[mN];

    for (int t = T - 1; t >= 0; --t) {
        write_time_varying(t, m, mN, sys, nullptr, nullptr, sysidx, nullptr, nullptr, tvdata);
        if (univ)
            univ_form_u_D(m, t, W1, W2, store);
        else
            multi_form_u_D(N, m, t, W1, W2, store);

        if (S)
            for (int i = 0; i < mN; ++i) {
                const double ui = u[i];
                const double *d = W2[i];
                double *s = S[i];
                for (int j = i; j < mN; ++j) s[j] += ui * u[j] - d[j];
            }
        if (out)
            for (int i = 0; i < mN; ++i) {
                out[i][t + 1] = u[i];
                out[mN + i][t + 1] = W2[i][i];
            }

        smooth_advance(m, mN, sys, W1, W2);
    }

    if (S)
        for (int i = 0; i < mN; ++i)
            for (int j = 0; j < i; ++j) S[i][j] = S[j][i];
    if (out) {
        for (int i = 0; i < m; ++i) {
            out[i][0] = W1[mN][i];
            out[mN + i][0] = W1[i][i];
        }
        for (int i = m; i < mN; ++i) out[i][0] = out[mN + i][0] = 0.0;
    }
}

}  // namespace

TESSEL_EXPORT void MultiKalmanSmo(int N, int T, int m, double **sys, int **sysidx, double **tvdata,
                                  double **W1, double **W2, double **store, double **S,
                                  double **out) {
    kalman_smo(false, N, T, m, sys, sysidx, tvdata, W1, W2, store, S, out);
}

TESSEL_EXPORT void UnivKalmanSmo(int T, int m, double **sys, int **sysidx, double **tvdata,
                                 double **W1, double **W2, double **store, double **S,
                                 double **out) {
    kalman_smo(true, 1, T, m, sys, sysidx, tvdata, W1, W2, store, S, out);
}

TESSEL_EXPORT void FnKalmanSmo(ZuValue *rtn, ZuValue *args, int nargs) {
    Model model;
    model.check(FrameVariant::Copying, args, nargs, 0, 1);
    const int mN = model.mN, T = model.n;
    double **out = make_matrix_value_or_raise(rtn, fit_size(2LL * mN), fit_size(T + 1LL));

    int code = kOk;
    Block W1, W2;
    if (!model.open() || !W1.alloc(mN + 1, mN) || !W2.alloc(mN + 1, mN)) {
        code = kAllocFailed;
    } else {
        double **store = args[0].v.mat.data;
        if (model.N == 1)
            UnivKalmanSmo(T, model.m, model.sys(), model.sysidx, model.tvdata, W1.get(), W2.get(),
                          store, nullptr, out);
        else
            MultiKalmanSmo(model.N, T, model.m, model.sys(), model.sysidx, model.tvdata, W1.get(),
                           W2.get(), store, nullptr, out);
    }
    model.close();
    // Only allocation failures are possible here: error 4.
    report_status(code, rtn, ReturnKind::Matrix, "");
}
