// filter_entry_points.cpp - KalmanFil, LgmLik and LgmLikConc: the filter
// store and the Gaussian log-likelihood (plain and with the scale factor
// concentrated out) for a model block and its observations.
#include <cmath>

#include "frame.h"

using namespace tessel;

namespace {

// What one filter run produced.
struct FilterRun {
    int code = kOk;  // kOk, kAllocFailed, or 0 when the filter failed
    bool ran = false;
    double dLogDet = 0.0, dSumSq = 0.0;
    int cnt = 0;
};

// Opens the model, allocates W1 and W2 and runs the filter that fits N: the
// single-series filter for N = 1, the multivariate one otherwise. The store
// (null for the likelihoods) receives the filter store; the likelihood
// pieces are asked for only when `want_likelihood`.
FilterRun run_filter(Model &model, const ZuValue &data, double **store, bool want_likelihood) {
    FilterRun run;
    Block W1, W2;
    if (!model.open() || !W1.alloc(model.mN + 1, model.mN) || !W2.alloc(model.mN + 2, model.mN)) {
        run.code = kAllocFailed;
        return run;
    }
    double *mean = W2[model.mN + 1];
    model.fill_mean(mean);

    double **y = data.v.mat.data;
    double *lld = want_likelihood ? &run.dLogDet : nullptr;
    double *lls = want_likelihood ? &run.dSumSq : nullptr;
    int *llc = want_likelihood ? &run.cnt : nullptr;
    int ok;
    if (model.N == 1)
        ok = fUnivKalmanFil(model.n, y ? y[0] : nullptr, model.m, model.sys(), model.var(), mean,
                            model.sysidx, model.varidx, model.meanidx, model.tvdata, model.init,
                            W1.get(), W2.get(), store, lld, lls, llc);
    else
        ok = fMultiKalmanFil(model.N, model.n, y, model.m, model.sys(), model.var(), mean,
                             model.sysidx, model.varidx, model.meanidx, model.tvdata, model.init,
                             W1.get(), W2.get(), store, lld, lls, llc);
    run.ran = true;
    run.code = ok == 1 ? kOk : 0;
    return run;
}

// Checks the likelihood arguments: two references, then the model with its
// data argument at index 2. Too few arguments are reported by the model check.
void check_likelihood_args(Model &model, ZuValue *args, int nargs) {
    if (nargs >= 2) ZuLibCheckType(ZU_REF, args, 0, 1);
    model.check(FrameVariant::Copying, args, nargs, 2, 0);
}

}  // namespace

TESSEL_EXPORT void FnKalmanFil(ZuValue *rtn, ZuValue *args, int nargs) {
    Model model;
    model.check(FrameVariant::Copying, args, nargs, 0, 0);
    double **store = make_matrix_value_or_raise(rtn, model.S, model.n);
    const FilterRun run = run_filter(model, args[0], store, false);
    model.close();
    report_status(run.code, rtn, ReturnKind::Matrix,
                  "KalmanFil(): non-positive semi-definite innovation variance matrix");
}

TESSEL_EXPORT void FnLgmLik(ZuValue *rtn, ZuValue *args, int nargs) {
    Model model;
    check_likelihood_args(model, args, nargs);
    const FilterRun run = run_filter(model, args[2], nullptr, true);
    // Written whenever the filter ran, also when it failed.
    if (run.ran) {
        set_ref_double(&args[0], gaussian_loglik(run.cnt, run.dLogDet, run.dSumSq));
        set_ref_double(&args[1], run.dSumSq);
    }
    model.close();
    if (run.code == kOk) set_int(rtn, 1);
    report_status(run.code, rtn, ReturnKind::Flag,
                  "LgmLik(): non-positive semi-definite innovation variance matrix");
}

TESSEL_EXPORT void FnLgmLikConc(ZuValue *rtn, ZuValue *args, int nargs) {
    Model model;
    check_likelihood_args(model, args, nargs);
    const FilterRun run = run_filter(model, args[2], nullptr, true);
    // Written only when the filter succeeded.
    if (run.code == kOk) {
        const double sigma2 = run.dSumSq;
        set_ref_double(&args[0], gaussian_loglik(run.cnt, run.dLogDet, std::log(sigma2) + 1.0));
        set_ref_double(&args[1], sigma2);
    }
    model.close();
    if (run.code == kOk) set_int(rtn, 1);
    report_status(run.code, rtn, ReturnKind::Flag,
                  "LgmLikConc(): non-positive semi-definite innovation variance matrix");
}
