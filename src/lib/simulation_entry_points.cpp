// simulation_entry_points.cpp - SimSmoWgt and SimSmoDraw: the simulation
// smoother weights of a filter store, and one draw of the selected
// disturbances from those weights and caller-supplied standard normals.
//
// Both work in place on the caller's SysMat and VarMat (the in-place model
// frame): time-varying elements are written into them.
#include "frame.h"

using namespace tessel;

namespace {

// Selected elements of the p x p selection matrix: a diagonal entry that is
// nonzero or NaN selects (the test "x != 0" is true for NaN). Fills `flags`
// when given and returns the count q.
int count_selected(const ZuValue &selection, int p, int *flags) {
    double **s = selection.v.mat.data;
    int q = 0;
    for (int i = 0; i < p; ++i) {
        const int on = s[i][i] != 0.0 ? 1 : 0;
        if (flags) flags[i] = on;
        q += on;
    }
    return q;
}

// Rows of the weight matrix: q p + q (q+1) / 2, computed as the layout is
// defined, in floating point.
// -1 (matched by no argument, granted by no allocation) beyond int.
int weight_rows(int p, int q) { return fit_size((p + (q + 1) * 0.5) * q); }

void require_selection(const ZuValue &selection, int p, int *q) {
    *q = p < 1 ? 0 : count_selected(selection, p, nullptr);
    if (*q == 0) ZuRunErrorMessage("SimSmoWgt(): zero vector in argument 1");
}

}  // namespace

TESSEL_EXPORT void FnSimSmoWgt(ZuValue *rtn, ZuValue *args, int nargs) {
    Model model;
    model.check(FrameVariant::InPlace, args, nargs, 1, 1);
    ZuLibCheckType(ZU_MATRIX, args, 0, 0);
    const int p = model.mN;
    ZuLibCheckMatrixSize(args, 0, 0, p, p);
    int q = 0;
    require_selection(args[0], p, &q);

    double **wgt = make_matrix_value_or_raise(rtn, weight_rows(p, q), model.n);

    int code = kOk;
    Buffer<int> flags;
    Block A, U, G;
    if (!model.open() || !flags.alloc(p) || !A.alloc(p + 1, p) || !U.alloc(p + 1, p) ||
        !G.alloc(q, q)) {
        code = kAllocFailed;
    } else {
        count_selected(args[0], p, flags.get());
        double **store = args[1].v.mat.data;
        const int rc = model.N == 1
                           ? iUnivSimSmoWgt(model.n, model.m, model.sys(), model.var(),
                                            model.sysidx, model.varidx, model.tvdata, A.get(),
                                            U.get(), store, q, flags.get(), G.get(), wgt)
                           : iMultiSimSmoWgt(model.N, model.n, model.m, model.sys(), model.var(),
                                             model.sysidx, model.varidx, model.tvdata, A.get(),
                                             U.get(), store, q, flags.get(), G.get(), wgt);
        code = rc == 0 ? kOk : 0;
    }
    model.close();
    if (code == kOk) return;
    if (code == kAllocFailed) report_status(code, rtn, ReturnKind::Flag, "");
    // A failed factorisation is a message, not an error, and the result is
    // the integer 0; the message is printed whatever the message switch says.
    set_int(rtn, 0);
    ZuRunMessage("SimSmoWgt(): choleski decomposition failed");
}

TESSEL_EXPORT void FnSimSmoDraw(ZuValue *rtn, ZuValue *args, int nargs) {
    Model model;
    model.check(FrameVariant::InPlace, args, nargs, 3, 1);
    ZuLibCheckType(ZU_MATRIX, args, 0, 2);
    const int p = model.mN;
    ZuLibCheckMatrixSize(args, 0, 0, p, p);
    int q = 0;
    require_selection(args[0], p, &q);
    ZuLibCheckMatrixSize(args, 1, 1, q, model.n);
    ZuLibCheckMatrixSize(args, 2, 2, weight_rows(p, q), model.n);

    double **out = make_matrix_value_or_raise(rtn, p, fit_size(model.n + 1LL));

    int code = kOk;
    Buffer<int> flags;
    Block A, ru, G;
    if (!model.open() || !flags.alloc(p) || !A.alloc(p + 1, p) || !ru.alloc(2, p) ||
        !G.alloc(q, q)) {
        code = kAllocFailed;
    } else {
        count_selected(args[0], p, flags.get());
        double **draws = args[1].v.mat.data;
        double **wgt = args[2].v.mat.data;
        double **store = args[3].v.mat.data;
        if (model.N == 1)
            UnivSimSmoDraw(model.n, model.m, model.sys(), model.var(), model.sysidx, model.varidx,
                           model.tvdata, A.get(), ru.get(), store, q, flags.get(), G.get(), wgt,
                           draws, out);
        else
            MultiSimSmoDraw(model.N, model.n, model.m, model.sys(), model.var(), model.sysidx,
                            model.varidx, model.tvdata, A.get(), ru.get(), store, q, flags.get(),
                            G.get(), wgt, draws, out);
    }
    model.close();
    report_status(code, rtn, ReturnKind::Matrix, "");
}
