// conditional_density.cpp - LgmCondDens: smoothed (selections 1, 3) or
// simulated (selections 2, 4) states, signals and disturbances given the
// data, and LgmSignalSmo, the forward pass that rebuilds states and signals
// from smoothed or drawn disturbances.
#include "frame.h"

using namespace tessel;

TESSEL_EXPORT void LgmSignalSmo(int mode, int N, int n, int m, double **sys, double **var,
                                double *mean, int **sysidx, int **varidx, int *meanidx,
                                double **tvdata, double **init, double **work, double **D,
                                double **out) {
    const int p = m + N;
    double *a = work[0];
    double *theta = work[1];
    const double kappa = diffuse_kappa(var, p);

    // Start: a + P r(-1), with column 0 of D holding r(-1) and P the initial
    // variance as the filters build it from InitMat: only the diagonal and
    // the part left of it are read, and a diffuse element k has no
    // covariance with the rows before it.
    for (int i = 0; i < m; ++i) {
        if (!init) {
            a[i] = kappa * D[i][0];
        } else if (init[i][i] < 0) {
            a[i] = init[m][i] + kappa * D[i][0];
        } else {
            double s = 0.0;
            for (int k = 0; k < m; ++k) {
                const double pik = k <= i ? init[i][k] : (init[k][k] < 0 ? 0.0 : init[k][i]);
                s += pik * D[k][0];
            }
            a[i] = init[m][i] + s;
        }
    }

    for (int t = 0; t < n; ++t) {
        for (int i = 0; i < m; ++i) out[i][t] = a[i];

        // Time-varying MeanVec elements lead by one column; the last time
        // point has no column n and keeps the values of column n-1.
        if (meanidx) {
            const int col = t + 1 < n ? t + 1 : n - 1;
            for (int k = 0; k < p; ++k)
                if (meanidx[k] >= 0) mean[k] = tvdata[meanidx[k]][col];
        }
        write_time_varying(t, m, p, sys, var, nullptr, sysidx, varidx, nullptr, tvdata);

        for (int i = 0; i < p; ++i) {
            double s = mean[i];
            for (int k = 0; k < m; ++k) s += sys[i][k] * a[k];
            theta[i] = s;
        }
        for (int i = 0; i < N; ++i) out[m + i][t] = theta[m + i];

        for (int i = 0; i < m; ++i) {
            double step;
            if (mode == 0) {
                step = D[i][t + 1];
            } else {
                step = 0.0;
                for (int k = 0; k < m; ++k) step += var[i][k] * D[k][t + 1];
            }
            a[i] = theta[i] + step;
        }
    }
}

namespace {

const char *const kFailureText =
    "LgmCondDens(): non-positive semi-definite innovation variance matrix";

// Number of state disturbances with a strictly positive variance; these
// (and only these) are drawn. Fills `flags` when given.
int count_drawable(double **var, int m, int p, int *flags) {
    int q = 0;
    for (int i = 0; i < p; ++i) {
        const int on = i < m && var[i][i] > 0.0 ? 1 : 0;
        if (flags) flags[i] = on;
        q += on;
    }
    return q;
}

// VarMat element (i, k) in force at time t.
inline double var_at(const Model &model, double **var, int i, int k, int t) {
    if (model.varidx && model.varidx[i][k] >= 0) return model.tvdata[model.varidx[i][k]][t];
    return var[i][k];
}

}  // namespace

TESSEL_EXPORT void FnLgmCondDens(ZuValue *rtn, ZuValue *args, int nargs) {
    int selection = 0;
    if (nargs >= 1) {
        ZuLibCheckType(ZU_INT, args, 0, 0);
        selection = args[0].v.ival;
        if (selection < 1 || selection > 4)
            ZuRunErrorMessage("LgmCondDens(): no valid selection in first argument");
    }
    Model model;
    model.check(FrameVariant::Copying, args, nargs, 1, 0);
    const int N = model.N, m = model.m, p = model.mN, n = model.n;
    const bool simulate = selection == 2 || selection == 4;

    int q = 0;
    if (simulate) {
        q = p < 1 ? 0 : count_drawable(model.block[1].v.mat.data, m, p, nullptr);
        if (q == 0) ZuRunErrorMessage("LgmCondDens(): no simulations possible");
    }

    double **out = make_matrix_value_or_raise(rtn, p, n);

    int code = kOk;
    Block W1, W2, store, D, wgt, G;
    Buffer<int> flags;
    const bool work_ok =
        model.open(true) && W1.alloc(p + 1, p) && W2.alloc(p + 2, p) && store.alloc(model.S, n) &&
        D.alloc(fit_size(2LL * p), fit_size(n + 1LL)) &&
        (!simulate || (wgt.alloc(fit_size((p + (q + 1) * 0.5) * q), fit_size(n + 1LL)) &&
                       flags.alloc(p) && G.alloc(q, q)));
    if (!work_ok) code = kAllocFailed;

    double **sys = model.sys();
    double **var = model.var();
    double *mean = work_ok ? W2[p + 1] : nullptr;
    double **y = args[1].v.mat.data;

    if (code == kOk) {
        model.fill_mean(mean);
        const int ok =
            N == 1 ? fUnivKalmanFil(n, y ? y[0] : nullptr, m, sys, var, mean, model.sysidx,
                                    model.varidx, model.meanidx, model.tvdata, model.init, W1.get(),
                                    W2.get(), store.get(), nullptr, nullptr, nullptr)
                   : fMultiKalmanFil(N, n, y, m, sys, var, mean, model.sysidx, model.varidx,
                                     model.meanidx, model.tvdata, model.init, W1.get(), W2.get(),
                                     store.get(), nullptr, nullptr, nullptr);
        if (ok != 1) code = 0;
    }

    if (code == kOk && !simulate) {
        if (N == 1)
            UnivKalmanSmo(n, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(), store.get(),
                          nullptr, D.get());
        else
            MultiKalmanSmo(N, n, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(),
                           store.get(), nullptr, D.get());
    }

    if (code == kOk && simulate) {
        count_drawable(model.block[1].v.mat.data, m, p, flags.get());
        const int rc = N == 1 ? iUnivSimSmoWgt(n, m, sys, var, model.sysidx, model.varidx,
                                               model.tvdata, W1.get(), W2.get(), store.get(), q,
                                               flags.get(), G.get(), wgt.get())
                              : iMultiSimSmoWgt(N, n, m, sys, var, model.sysidx, model.varidx,
                                                model.tvdata, W1.get(), W2.get(), store.get(), q,
                                                flags.get(), G.get(), wgt.get());
        if (rc != 0) {
            code = 0;
        } else {
            // One matrix serves as draws and result: column t of the draws
            // is read before column t + 1 is written, and that column has
            // been read already. Rows 0 and 1 of W2 are the r and u vectors
            // (the mean in its last row stays untouched).
            MatRann(D.get(), q, n + 1);
            if (N == 1)
                UnivSimSmoDraw(n, m, sys, var, model.sysidx, model.varidx, model.tvdata, W1.get(),
                               W2.get(), store.get(), q, flags.get(), G.get(), wgt.get(), D.get(),
                               D.get());
            else
                MultiSimSmoDraw(N, n, m, sys, var, model.sysidx, model.varidx, model.tvdata,
                                W1.get(), W2.get(), store.get(), q, flags.get(), G.get(), wgt.get(),
                                D.get(), D.get());
        }
    }

    if (code == kOk) {
        switch (selection) {
            case 1:
                LgmSignalSmo(1, N, n, m, sys, var, mean, model.sysidx, model.varidx, model.meanidx,
                             model.tvdata, model.init, W2.get(), D.get(), out);
                break;
            case 3:
                for (int t = 0; t < n; ++t)
                    for (int i = 0; i < p; ++i) {
                        double s = 0.0;
                        for (int k = 0; k < p; ++k) s += var_at(model, var, i, k, t) * D[k][t + 1];
                        out[i][t] = s;
                    }
                break;
            case 2:
            case 4:
                LgmSignalSmo(0, N, n, m, sys, var, mean, model.sysidx, model.varidx, model.meanidx,
                             model.tvdata, model.init, W2.get(), D.get(), out);
                if (selection == 4)
                    for (int t = 0; t < n; ++t) {
                        for (int j = 0; j < m; ++j) out[j][t] = D[j][t + 1];
                        for (int i = 0; i < N; ++i) out[m + i][t] = y[i][t] - out[m + i][t];
                    }
                break;
            default:
                break;
        }
    }

    model.close();
    report_status(code, rtn, ReturnKind::Matrix, kFailureText);
}
