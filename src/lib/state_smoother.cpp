// state_smoother.cpp - smoothed states and signals with the diagonals of
// their variances, from the backward recursion (r, N) and the predicted
// state moments that the prediction pass recorded:
//   a^(t) = a(t) + P(t) r(t-1),     V(t) = P(t) - P(t) N(t-1) P(t),
//   signal Z a^(t) with variance Z P Z' - Z P N(t-1) P Z'
// (no observation intercept). The output may be the prediction matrix
// itself: a column's prediction is read before that column is written.
#include "filter_step.h"
#include "frame.h"
#include "smoothing_steps.h"

using namespace tessel;

namespace {

void state_smo(bool univ, int N, int T, int m, double **sys, int **sysidx, double **tvdata,
               double **W1, double **W2, double **store, double **pred, double **offdiag,
               double **out) {
    const int mN = m + N;
    MatZero(W1, mN + 1, mN);
    if (T == 0) return;
    const double *r = W1[mN];
    double *a = W2[mN];
    // x' N(t-1) x for the rows x of P and of Z P: N is exactly symmetric, so
    // x' N is the combination of the rows of N by x (register-blocked, the
    // shared row kernel), then one dot product with x.
    const bool blocked = m <= StepFrame::kMaxOrder;
    double *nrows[StepFrame::kMaxOrder];
    if (blocked)
        for (int j = 0; j < m; ++j) nrows[j] = W1[j];
    auto quad = [&](const double *x) {
        if (!blocked) return dInnerProd(m, x, W1);
        double xn[StepFrame::kMaxOrder];
        rows::combine(xn, x, nrows, m, 0, m);
        double acc = 0.0;
        for (int c = 0; c < m; ++c) acc += xn[c] * x[c];
        return acc;
    };

    for (int t = T - 1; t >= 0; --t) {
        write_time_varying(t, m, mN, sys, nullptr, nullptr, sysidx, nullptr, nullptr, tvdata);
        if (univ)
            univ_form_u_D(m, t, W1, W2, store);
        else
            multi_form_u_D(N, m, t, W1, W2, store);
        smooth_advance(m, mN, sys, W1, W2);

        // Prediction of time t into W2: a in the last row, P top-left.
        for (int k = 0; k < m; ++k) {
            a[k] = pred[k][t];
            W2[k][k] = pred[mN + k][t];
        }
        int row = 0;
        for (int k = 0; k < m; ++k)
            for (int j = k + 1; j < m; ++j, ++row) W2[k][j] = W2[j][k] = offdiag[row][t];
        // Z P in rows m..m+N-1 (row i combines the rows of P by Z[i]).
        if (blocked) {
            double *prows[StepFrame::kMaxOrder];
            for (int j = 0; j < m; ++j) prows[j] = W2[j];
            for (int i = 0; i < N; ++i) rows::combine(W2[m + i], sys[m + i], prows, m, 0, m);
        } else {
            for (int i = 0; i < N; ++i) {
                const double *z = sys[m + i];
                double *zp = W2[m + i];
                for (int k = 0; k < m; ++k) {
                    double acc = 0.0;
                    for (int j = 0; j < m; ++j) acc += z[j] * W2[j][k];
                    zp[k] = acc;
                }
            }
        }

        for (int k = 0; k < m; ++k) {
            const double *pk = W2[k];
            double acc = a[k];
            for (int j = 0; j < m; ++j) acc += pk[j] * r[j];
            out[k][t] = acc;
            out[mN + k][t] = pk[k] - quad(pk);
        }
        for (int i = 0; i < N; ++i) {
            const double *z = sys[m + i];
            const double *zp = W2[m + i];
            double mean = 0.0, var = 0.0;
            for (int k = 0; k < m; ++k) {
                mean += z[k] * out[k][t];
                var += z[k] * zp[k];
            }
            out[m + i][t] = mean;
            out[2 * m + N + i][t] = var - quad(zp);
        }
    }
}

}  // namespace

TESSEL_EXPORT void MultiStateSmo(int N, int T, int m, double **sys, int **sysidx, double **tvdata,
                                 double **W1, double **W2, double **store, double **pred,
                                 double **offdiag, double **out) {
    state_smo(false, N, T, m, sys, sysidx, tvdata, W1, W2, store, pred, offdiag, out);
}

TESSEL_EXPORT void UnivStateSmo(int T, int m, double **sys, int **sysidx, double **tvdata,
                                double **W1, double **W2, double **store, double **pred,
                                double **offdiag, double **out) {
    state_smo(true, 1, T, m, sys, sysidx, tvdata, W1, W2, store, pred, offdiag, out);
}
