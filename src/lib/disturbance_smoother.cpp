// disturbance_smoother.cpp - smoothed disturbances: for every time point the
// smoothed mean VarMat u~(t) of the stacked disturbance (state over
// observation) and the diagonal of VarMat D~(t) VarMat, by which observing
// the data reduces its variance. The backward recursion is that of
// kalman_smoother.cpp; the disturbance products of a time point are taken
// with its own u~, D~ and VarMat, before r and N move to t-1.
#include "frame.h"
#include "smoothing_steps.h"

using namespace tessel;

namespace {

void disturb_smo(bool univ, int N, int T, int m, double **sys, double **var, int **sysidx,
                 int **varidx, double **tvdata, double **W1, double **W2, double **store,
                 double **out) {
    const int mN = m + N;
    MatZero(W1, mN + 1, mN);
    if (T == 0) return;
    const double *u = W2[mN];
    double *w1last = W1[mN];

    for (int t = T - 1; t >= 0; --t) {
        write_time_varying(t, m, mN, sys, var, nullptr, sysidx, varidx, nullptr, tvdata);
        if (univ)
            univ_form_u_D(m, t, W1, W2, store);
        else
            multi_form_u_D(N, m, t, W1, W2, store);

        // Smoothed mean VarMat u~ and variance reduction VarMat' D~ VarMat.
        for (int i = 0; i < mN; ++i) {
            const double *vi = var[i];
            double acc = 0.0;
            for (int j = 0; j < mN; ++j) acc += vi[j] * u[j];
            w1last[i] = acc;
        }
        MatBtSB(var, mN, W2, mN, W1);
        if (out)
            for (int i = 0; i < mN; ++i) {
                out[i][t] = w1last[i];
                out[mN + i][t] = W1[i][i];
            }

        smooth_advance(m, mN, sys, W1, W2);
    }
}

}  // namespace

TESSEL_EXPORT void MultiDisturbSmo(int N, int T, int m, double **sys, double **var, int **sysidx,
                                   int **varidx, double **tvdata, double **W1, double **W2,
                                   double **store, double **out) {
    disturb_smo(false, N, T, m, sys, var, sysidx, varidx, tvdata, W1, W2, store, out);
}

TESSEL_EXPORT void UnivDisturbSmo(int T, int m, double **sys, double **var, int **sysidx,
                                  int **varidx, double **tvdata, double **W1, double **W2,
                                  double **store, double **out) {
    disturb_smo(true, 1, T, m, sys, var, sysidx, varidx, tvdata, W1, W2, store, out);
}
