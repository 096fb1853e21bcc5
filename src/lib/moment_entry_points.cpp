// moment_entry_points.cpp - LgmMomentEst (predicted, filtered, state
// smoothed or disturbance smoothed moments at every time point) and
// LgmLikSco (log-likelihood and its score with respect to VarMat).
#include <cmath>

#include "frame.h"

using namespace tessel;

namespace {

enum Selection { kPredict = 0, kStateSmooth = 1, kDisturbSmooth = 3, kFilter = 5 };

// Frees the matrix that a reference argument received, if any.
void free_ref(ZuValue *ref) {
    if (ref && ref->type == ZU_REF) ZuFreeByValue(ref->v.ref);
}

}  // namespace

TESSEL_EXPORT void FnLgmMomentEst(ZuValue *rtn, ZuValue *args, int nargs) {
    int sel = -1;
    if (nargs >= 1) {
        ZuLibCheckType(ZU_INT, args, 0, 0);
        sel = args[0].v.ival;
        if (sel != kPredict && sel != kFilter && sel != kStateSmooth && sel != kDisturbSmooth) {
            ZuRunErrorMessage("LgmMomentEst(): no valid selection in first argument");
            return;
        }
    }
    Model model;
    model.check(FrameVariant::Copying, args, nargs, 2, 0);
    const int N = model.N, m = model.m, mN = model.mN, T = model.n;

    // Moments go to the variable that argument 1 names; passed by value,
    // they are computed into scratch storage and dropped.
    ZuValue *ref = args[1].type == ZU_REF ? &args[1] : nullptr;
    double **moments = nullptr;
    if (ref) {
        if (!make_matrix_value(ref->v.ref, fit_size(2LL * mN), T)) {
            ZuFreeByValue(ref->v.ref);
            ZuRunError(4, nullptr);
        }
        moments = ref->v.ref->v.mat.data;
    }
    if (!make_matrix_value(rtn, m + 1, m)) {
        ZuFreeByValue(rtn);
        free_ref(ref);
        ZuRunError(4, nullptr);
    }

    int code = kOk;
    // -1 beyond int: then the allocation below fails, as it would have to.
    const int noff = fit_size(static_cast<long long>(m) * (m - 1) / 2);
    Block W1, W2, store, scratch, offdiag;
    if (!model.open() || !W1.alloc(mN + 1, mN) || !W2.alloc(mN + N + 2, mN) ||
        !store.alloc(model.S, T) || (!ref && !scratch.alloc(fit_size(2LL * mN), T)) ||
        (sel == kStateSmooth && noff != 0 && !offdiag.alloc(noff, T))) {
        code = kAllocFailed;
    } else {
        if (!ref) moments = scratch.get();
        double *mean = W2[mN + 1];
        model.fill_mean(mean);
        double **y = args[2].v.mat.data;
        double **sys = model.sys(), **var = model.var();
        const int filtered = sel == kFilter;
        int ok;
        if (N == 1)
            ok = fUnivStatePred(filtered, T, y ? y[0] : nullptr, m, sys, var, mean, model.sysidx,
                                model.varidx, model.meanidx, model.tvdata, model.init, W1.get(),
                                W2.get(), store.get(), moments, offdiag.get());
        else
            ok = fMultiStatePred(filtered, N, T, y, m, sys, var, mean, model.sysidx, model.varidx,
                                 model.meanidx, model.tvdata, model.init, W1.get(), W2.get(),
                                 store.get(), moments, offdiag.get());
        if (ok != 1) {
            code = 0;
        } else if (sel == kStateSmooth) {
            if (N == 1)
                UnivStateSmo(T, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(), store.get(),
                             moments, offdiag.get(), moments);
            else
                MultiStateSmo(N, T, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(),
                              store.get(), moments, offdiag.get(), moments);
        } else if (sel == kDisturbSmooth) {
            if (N == 1)
                UnivDisturbSmo(T, m, sys, var, model.sysidx, model.varidx, model.tvdata, W1.get(),
                               W2.get(), store.get(), moments);
            else
                MultiDisturbSmo(N, T, m, sys, var, model.sysidx, model.varidx, model.tvdata,
                                W1.get(), W2.get(), store.get(), moments);
        }
        if (code == kOk) {
            // P(T) over a(T)' after a forward pass; N over r' before the
            // first time point after a backward pass.
            double **out = rtn->v.mat.data;
            for (int k = 0; k < m; ++k)
                for (int j = 0; j < m; ++j) out[k][j] = W1[k][j];
            for (int j = 0; j < m; ++j) out[m][j] = W1[mN][j];
        }
    }
    model.close();
    if (code != kOk) free_ref(ref);
    report_status(code, rtn, ReturnKind::Matrix,
                  "LgmMomentEst(): non-positive semi-definite innovation variance matrix");
}

TESSEL_EXPORT void FnLgmLikSco(ZuValue *rtn, ZuValue *args, int nargs) {
    // Three references (log-likelihood, dSumSq, score) or two (no dSumSq).
    const bool three = nargs > 2 && args[2].type == ZU_REF;
    const int nref = three ? 3 : 2;
    if (nargs >= nref) ZuLibCheckType(ZU_REF, args, 0, nref - 1);
    Model model;
    model.check(FrameVariant::Copying, args, nargs, nref, 0);
    const int N = model.N, m = model.m, mN = model.mN, T = model.n;

    ZuValue *score_ref = &args[nref - 1];
    if (!make_matrix_value(score_ref->v.ref, mN, mN)) {
        ZuFreeByValue(score_ref->v.ref);
        ZuRunErrorMessage("LgmLikSco(): memory allocation failure");
    }
    double **S = score_ref->v.ref->v.mat.data;

    int code = kOk;
    Block W1, W2, store;
    if (!model.open() || !W1.alloc(mN + 1, mN) || !W2.alloc(mN + 2, mN) ||
        !store.alloc(model.S, T)) {
        code = kAllocFailed;
    } else {
        double *mean = W2[mN + 1];
        model.fill_mean(mean);
        double **y = args[nref].v.mat.data;
        double **sys = model.sys(), **var = model.var();
        double dLogDet = 0.0, dSumSq = 0.0;
        int cnt = 0, ok;
        if (N == 1)
            ok = fUnivKalmanFil(T, y ? y[0] : nullptr, m, sys, var, mean, model.sysidx,
                                model.varidx, model.meanidx, model.tvdata, model.init, W1.get(),
                                W2.get(), store.get(), &dLogDet, &dSumSq, &cnt);
        else
            ok = fMultiKalmanFil(N, T, y, m, sys, var, mean, model.sysidx, model.varidx,
                                 model.meanidx, model.tvdata, model.init, W1.get(), W2.get(),
                                 store.get(), &dLogDet, &dSumSq, &cnt);
        if (ok != 1) {
            code = 0;
        } else {
            if (N == 1)
                UnivKalmanSmo(T, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(),
                              store.get(), S, nullptr);
            else
                MultiKalmanSmo(N, T, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(),
                               store.get(), S, nullptr);
            set_ref_double(&args[0], gaussian_loglik(cnt, dLogDet, dSumSq));
            if (three) set_ref_double(&args[1], dSumSq);
        }
    }
    model.close();
    if (code != kOk)
        ZuFreeByValue(score_ref->v.ref);
    else
        set_int(rtn, 1);
    report_status(code, rtn, ReturnKind::Flag,
                  "LgmLikSco(): non-positive semi-definite innovation matrix");
}
