// state_space_recursion.cpp - runs the model forwards from given
// disturbances: the states and observations that they imply (LgmRecursion
// and its entry point LgmRecursion()).
//
// Output column t+1 holds the state of time t+1 over the observation of
// time t; column 0 holds the initial state over zeros. This one-column
// offset between a state and its observation is the output format.
#include "frame.h"

using namespace tessel;

TESSEL_EXPORT int LgmRecursion(int N, int nsteps, int m, double **sys, double **var, double *mean,
                               int **list, double **tvdata, double **init, double **work,
                               double **u, double **out) {
    const int mN = m + N;
    if (nsteps < 0) return 1;  // no columns at all
    const double kappa = diffuse_kappa(var, mN);
    double *s = work[0];
    double *q = work[1];

    // Initial state from the first disturbance column. A diffuse element is
    // scaled by kappa itself (not its square root); a proper row multiplies
    // the first m disturbances by the given row of InitMat.
    for (int j = 0; j < m; ++j) {
        if (!init) {
            s[j] = kappa * u[j][0];
        } else if (init[j][j] < 0.0) {
            s[j] = init[m][j] + kappa * u[j][0];
        } else {
            double acc = init[m][j];
            for (int k = 0; k < m; ++k) acc += init[j][k] * u[k][0];
            s[j] = acc;
        }
    }
    for (int k = 0; k < m; ++k) out[k][0] = s[k];
    for (int k = m; k < mN; ++k) out[k][0] = 0.0;

    for (int t = 0; t < nsteps; ++t) {
        if (list && tvdata) TVsystem(t, sys, var, mean, list, tvdata);
        for (int k = 0; k < mN; ++k) {
            const double *row = sys[k];
            double acc = mean[k];
            for (int j = 0; j < m; ++j) acc += row[j] * s[j];
            q[k] = acc;
        }
        for (int k = 0; k < mN; ++k) {
            s[k] = q[k] + u[k][t + 1];
            out[k][t + 1] = s[k];
        }
    }
    return 1;
}

TESSEL_EXPORT void FnLgmRecursion(ZuValue *rtn, ZuValue *args, int nargs) {
    Model model;
    model.check(FrameVariant::Copying, args, nargs, 0, 2);
    double **out = make_matrix_value_or_raise(rtn, model.mN, model.n);
    int code = kOk;
    Block work;
    if (!model.open(true) || !work.alloc(3, model.mN)) {
        code = kAllocFailed;
    } else {
        model.fill_mean(work[2]);
        LgmRecursion(model.N, model.n - 1, model.m, model.sys(), model.var(), work[2], model.list,
                     model.tvdata, model.init, work.get(), args[0].v.mat.data, out);
    }
    work.reset();
    model.close();
    report_status(code, rtn, ReturnKind::Matrix, "");
}
