// regression_model.cpp - builders of univariate models whose observation or
// transition elements are supplied by data at filtering time: regression
// effects (GetLgmReg, AddLgmReg) and the continuous-time cubic smoothing
// spline for irregularly spaced observations (GetLgmSpline).
//
// Time-varying elements are marked in the index matrices (SysIdx, VarIdx)
// by the TvData row that supplies them; -1 marks a fixed element.
#include <cstdio>

#include "frame.h"

using namespace tessel;

namespace {

// A matrix value under construction: freed on scope exit unless handed to
// a caller's variable with move_into.
class PendingValue {
public:
    PendingValue() { value_.type = ZU_NONE; }
    ~PendingValue() { ZuFreeByValue(&value_); }
    PendingValue(const PendingValue &) = delete;
    PendingValue &operator=(const PendingValue &) = delete;
    bool alloc(int rows, int cols) { return make_matrix_value(&value_, rows, cols); }
    double **data() const { return value_.v.mat.data; }
    // Replaces what `target` holds by this value.
    void move_into(ZuValue *target) {
        ZuFreeByValue(target);
        *target = value_;
        value_ = ZuValue();
        value_.type = ZU_NONE;
    }

private:
    ZuValue value_{};
};

void fill(double **A, int rows, int cols, double x) {
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) A[i][j] = x;
}

bool is_empty_matrix(const ZuValue *v) { return v->v.mat.rows + v->v.mat.cols == 0; }

}  // namespace

TESSEL_EXPORT void FnGetLgmReg(ZuValue *rtn, ZuValue *args, int nargs) {
    if (nargs != 5) {
        ZuRunErrorMessage("GetLgmReg(): five arguments required");
        return;
    }
    ZuLibCheckType(ZU_MATRIX, args, 0, 0);
    ZuLibCheckType(ZU_REF, args, 1, 4);
    const int k = args[0].v.mat.rows;
    if (k < 1) {
        ZuRunErrorMessage("GetLgmReg(): data matrix needed in first argument");
        return;
    }
    ZuValue *sys = args[1].v.ref, *var = args[2].v.ref, *init = args[3].v.ref,
            *sysidx = args[4].v.ref;
    if (fit_size(k + 1LL) < 0) {  // k + 1 rows cannot be had
        ZuRunErrorMessage("GetLgmReg(): memory allocation failure");
        return;
    }
    const bool ok_sys = make_matrix_value(sys, k + 1, k);
    const bool ok_var = make_matrix_value(var, k + 1, k + 1);
    const bool ok_init = make_matrix_value(init, k + 1, k);
    const bool ok_idx = make_matrix_value(sysidx, k + 1, k);
    if (!ok_sys || !ok_var || !ok_init || !ok_idx) {
        ZuRunErrorMessage("GetLgmReg(): memory allocation failure");
        return;
    }
    double **T = sys->v.mat.data, **V = var->v.mat.data, **P = init->v.mat.data,
           **I = sysidx->v.mat.data;
    MatZero(T, k + 1, k);
    MatZero(V, k + 1, k + 1);
    MatZero(P, k + 1, k);
    fill(I, k + 1, k, -1.0);
    // Constant, diffuse coefficients; Z element i comes from TvData row i.
    for (int i = 0; i < k; ++i) {
        T[i][i] = 1.0;
        P[i][i] = -1.0;
        I[k][i] = i;
    }
    V[k][k] = 1.0;
    set_int(rtn, 1);
}

TESSEL_EXPORT void FnAddLgmReg(ZuValue *, ZuValue *args, int nargs) {
    if (nargs != 5) {
        ZuRunErrorMessage("AddLgmReg(): five arguments required");
        return;
    }
    ZuLibCheckType(ZU_REF, args, 1, 4);
    if (args[0].type != ZU_MATRIX) {
        ZuRunErrorMessage("AddLgmReg(): argument 1 must be matrix");
        return;
    }
    const int k = args[0].v.mat.rows;
    if (k == 0) return;  // no regressors: nothing to add
    for (int a = 1; a <= 4; ++a) {
        if (args[a].v.ref->type != ZU_MATRIX) {
            char text[64];
            std::snprintf(text, sizeof text, "AddLgmReg(): argument %d no pointer to matrix",
                          a + 1);
            ZuRunErrorMessage(text);
            return;
        }
    }
    const ZuValue *old_sys = args[1].v.ref, *old_var = args[2].v.ref, *old_init = args[3].v.ref;
    if (!is_empty_matrix(args[4].v.ref)) {
        ZuRunErrorMessage("AddLgmReg(): argument 5 must be empty matrix <>");
        return;
    }
    const int m = old_sys->v.mat.cols;
    if (m == 0) {
        if (!is_empty_matrix(old_sys) || !is_empty_matrix(old_var) || !is_empty_matrix(old_init)) {
            ZuRunErrorMessage("AddLgmReg(): all pointers must be to empty matrices");
            return;
        }
    } else {
        // Compared in long long: m is the caller's column count, up to INT_MAX.
        const long long m1 = m + 1LL;
        if (old_sys->v.mat.rows != m1) {
            ZuRunErrorMessage("AddLgmReg(): argument 2 wrong matrix dimension");
            return;
        }
        if (old_var->v.mat.rows != m1 || old_var->v.mat.cols != m1) {
            ZuRunErrorMessage("AddLgmReg(): argument 3 wrong matrix dimension");
            return;
        }
        if (old_init->v.mat.rows != m1 || old_init->v.mat.cols != m) {
            ZuRunErrorMessage("AddLgmReg(): argument 4 wrong matrix dimension");
            return;
        }
    }

    // The extended model is built in new values; the caller's variables are
    // replaced only once all of them exist.
    if (fit_size(static_cast<long long>(m) + k + 1) < 0) {  // M + 1 rows cannot be had
        ZuRunError(4, nullptr);
        return;
    }
    const int M = m + k;
    PendingValue sys, var, init, sysidx;
    if (!sys.alloc(M + 1, M) || !var.alloc(M + 1, M + 1) || !init.alloc(M + 1, M) ||
        !sysidx.alloc(M + 1, M)) {
        ZuRunError(4, nullptr);
        return;
    }
    double **T = sys.data(), **V = var.data(), **P = init.data(), **I = sysidx.data();
    MatZero(T, M + 1, M);
    MatZero(V, M + 1, M + 1);
    MatZero(P, M + 1, M);
    fill(I, M + 1, M, -1.0);

    for (int i = 0; i < k; ++i) {  // regression block first
        T[i][i] = 1.0;
        P[i][i] = -1.0;
        I[M][i] = i;
    }
    if (m == 0) {
        V[M][M] = 1.0;
    } else {
        // The old model moves down by k. Its state/observation
        // cross-covariances are not carried over.
        double **oT = old_sys->v.mat.data, **oV = old_var->v.mat.data, **oP = old_init->v.mat.data;
        for (int i = 0; i < m; ++i) {
            for (int j = 0; j < m; ++j) {
                T[k + i][k + j] = oT[i][j];
                V[k + i][k + j] = oV[i][j];
                P[k + i][k + j] = oP[i][j];
            }
            T[M][k + i] = oT[m][i];
            P[M][k + i] = oP[m][i];
        }
        V[M][M] = oV[m][m];
    }
    sys.move_into(args[1].v.ref);
    var.move_into(args[2].v.ref);
    init.move_into(args[3].v.ref);
    sysidx.move_into(args[4].v.ref);
}

TESSEL_EXPORT void FnGetLgmSpline(ZuValue *rtn, ZuValue *args, int nargs) {
    if (nargs != 4 && nargs != 5 && nargs != 8) {
        ZuRunErrorMessage("GetLgmSpline(): wrong number of arguments");
        return;
    }
    ZuLibCheckType(ZU_DOUBLE, args, 0, 0);
    ZuLibCheckType(ZU_MATRIX, args, 1, 1);
    const double q = args[0].v.dval;
    const int n = args[1].v.mat.cols;
    const bool time_varying = nargs == 8 && args[1].v.mat.rows > 0 && n > 0;
    const bool with_init = nargs >= 5;
    // Every argument written through must be a reference.
    ZuLibCheckType(ZU_REF, args, 2, time_varying ? 7 : (with_init ? 4 : 3));

    PendingValue sys, var, init, sysidx, varidx, tvdata;
    bool ok = sys.alloc(3, 2) && var.alloc(3, 3);
    if (ok && with_init) ok = init.alloc(3, 2);
    if (ok && time_varying) ok = sysidx.alloc(3, 2) && varidx.alloc(3, 3) && tvdata.alloc(4, n);
    if (!ok) {
        ZuRunError(4, nullptr);
        return;
    }

    double **T = sys.data(), **V = var.data();
    MatZero(T, 3, 2);
    MatZero(V, 3, 3);
    // Integrated random walk: the level adds the slope over one spacing.
    T[0][0] = T[0][1] = T[1][1] = 1.0;
    T[2][0] = 1.0;
    V[0][0] = q / 3.0;
    V[0][1] = V[1][0] = q / 2.0;
    V[1][1] = q;
    V[2][2] = 1.0;
    if (with_init) {
        double **P = init.data();
        MatZero(P, 3, 2);
        P[0][0] = P[1][1] = -1.0;
    }
    if (time_varying) {
        double **SI = sysidx.data(), **VI = varidx.data(), **D = tvdata.data();
        fill(SI, 3, 2, -1.0);
        fill(VI, 3, 3, -1.0);
        SI[0][1] = 0;             // T[0][1] = delta(t)
        VI[0][0] = 3;             // q delta^3 / 3
        VI[0][1] = VI[1][0] = 2;  // q delta^2 / 2
        VI[1][1] = 1;             // q delta
        const double *delta = args[1].v.mat.data[0];
        for (int j = 0; j < n; ++j) {
            const double dj = delta[j];
            D[0][j] = dj;
            D[1][j] = q * dj;
            D[2][j] = D[1][j] * dj * 0.5;
            D[3][j] = D[2][j] * dj / 1.5;
        }
    }
    sys.move_into(args[2].v.ref);
    var.move_into(args[3].v.ref);
    if (with_init) init.move_into(args[4].v.ref);
    if (time_varying) {
        sysidx.move_into(args[5].v.ref);
        varidx.move_into(args[6].v.ref);
        tvdata.move_into(args[7].v.ref);
    }
    set_int(rtn, 1);
}
