// arma_model.cpp - state space form of an ARMA(p, q) model, optionally with
// ordinary and seasonal differences in front (fGetLgmUnivArma), and its
// entry point GetLgmArma.
//
// The ARMA block is in companion form: the first column holds the AR
// coefficients, the super-diagonal ones shift the state, the disturbance
// loads on theta = (1, MA_1, ..., MA_q). Its stationary variance solves
// P = T P T' + Q, found by one dense inversion of I - T (x) T.
#include <algorithm>

#include "frame.h"

using namespace tessel;

namespace {

// Writes the difference and seasonal-lag structure (d ordinary differences,
// s seasonal lag states) into T (rows 0..m-1 of sys) and Z (row m).
void place_differences(int m, int d, int s, double **sys) {
    double *Z = sys[m];
    const int r = d + s;
    if (d == 0) {
        Z[s] = 1.0;
    } else {
        sys[0][r] = sys[0][r - 1] = 1.0;
        Z[r] = Z[r - 1] = 1.0;
        if (d == 2) {
            sys[1][s + 2] = sys[1][1] = 1.0;
            sys[0][0] = 1.0;
            Z[0] = 1.0;
        }
    }
    if (s > 0) {
        // Seasonal lags shift down by one each period.
        for (int k = 1; k < s; ++k) sys[d + k][d + k - 1] = 1.0;
        if (d == 0) {
            Z[s - 1] = 1.0;
            sys[0][s - 1] = 1.0;
            sys[0][s] = 1.0;
        } else {
            sys[d][r] = 1.0;
            sys[1][r - 1] = 1.0;
            sys[0][d - 1] = 1.0;
            Z[d - 1] = 1.0;
            if (d == 2) sys[2][s + 1] = 1.0;
        }
    }
}

// A coefficient argument as read by GetLgmArma: an empty matrix, or a full
// matrix (more than one row and more than one column), gives no
// coefficients; a row vector is read along row 0, a column vector down
// column 0.
struct Coefficients {
    double **data = nullptr;
    int count = 0;
    bool column = false;
    double operator[](int i) const { return column ? data[i][0] : data[0][i]; }
};

Coefficients read_coefficients(ZuValue *args, int k) {
    Coefficients c;
    ZuValue *v = &args[k];
    if (v->type == ZU_MATRIX && static_cast<long>(v->v.mat.rows) * v->v.mat.cols == 0) return c;
    ZuLibCheckType(ZU_MATRIX, args, k, k);
    const int rows = v->v.mat.rows, cols = v->v.mat.cols;
    c.data = v->v.mat.data;
    if (rows == 1) {
        c.count = cols;
    } else if (cols == 1) {
        c.count = rows;
        c.column = true;
    }
    return c;  // a full matrix keeps count 0: taken as an empty list
}

}  // namespace

TESSEL_EXPORT int fGetLgmUnivArma(int m, int d, int s, double *phi, double *theta, double **sys,
                                  double **var, double **init, double sigma) {
    const int r = d + s;
    const int n = m - r;
    // The ARMA block must hold at least the observed element that the
    // difference structure adds to.
    if (m < 1 || d < 0 || d > 2 || s < 0 || n < 1) return 0;
    // n^2 x n^2 system: an order whose square does not fit an int is refused
    // like the scratch allocation it could never get.
    const int n2 = fit_size(static_cast<long long>(n) * n);
    if (n2 < 0) return 0;
    Block A;
    Buffer<double> b, x;
    if (!A.alloc(n2, n2) || !b.alloc(n2) || !x.alloc(n2)) return 0;

    MatZero(sys, m + 1, m);
    MatZero(var, m + 1, m + 1);
    MatZero(init, m + 1, m);
    place_differences(m, d, s, sys);

    const double sigma2 = sigma * sigma;
    for (int i = 0; i < n; ++i) {
        sys[r + i][r] = phi[r + i];
        if (r + i < m - 1) sys[r + i][r + i + 1] = 1.0;
        for (int j = 0; j < n; ++j) var[r + i][r + j] = sigma2 * theta[r + i] * theta[r + j];
    }

    // (I - T_b (x) T_b) vec(P) = vec(Q_b), row-major vec: element (i, j) at
    // i*n + j. T_b has phi in column 0 and ones on the super-diagonal.
    MatZero(A.get(), n2, n2);
    const double *ph = phi + r;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            double *row = A[i * n + j];
            row[0] -= ph[i] * ph[j];
            if (j < n - 1) row[j + 1] -= ph[i];
            if (i < n - 1) row[(i + 1) * n] -= ph[j];
            if (i < n - 1 && j < n - 1) row[(i + 1) * n + j + 1] -= 1.0;
            row[i * n + j] += 1.0;
            b[i * n + j] = var[r + i][r + j];
        }
    }
    double logdet = 0.0;
    int sign = 0;
    if (IInvDet(A.get(), n2, &logdet, &sign) != 0) return 0;
    for (int k = 0; k < n2; ++k) {
        double sum = 0.0;
        const double *row = A[k];
        for (int l = 0; l < n2; ++l) sum += row[l] * b[l];
        x[k] = sum;
    }

    for (int k = 0; k < r; ++k) init[k][k] = -1.0;  // differences and lags are diffuse
    // Upper triangle from the solution, lower triangle the average of the two
    // solution elements, so that the result is exactly symmetric.
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            if (j >= i) {
                init[r + i][r + j] = x[i * n + j];
            } else {
                const double avg = (init[r + j][r + i] + x[i * n + j]) / 2.0;
                init[r + i][r + j] = avg;
                init[r + j][r + i] = avg;
            }
        }
    }
    return 1;
}

TESSEL_EXPORT void FnGetLgmArma(ZuValue *rtn, ZuValue *args, int nargs) {
    if (nargs != 6) {
        ZuRunErrorMessage("GetLgmArma(): six arguments required");
        return;
    }
    ZuLibCheckType(ZU_DOUBLE, args, 2, 2);
    ZuLibCheckType(ZU_REF, args, 3, 5);

    const Coefficients ar = read_coefficients(args, 0);
    const Coefficients ma = read_coefficients(args, 1);
    const int p = ar.count, q = ma.count;
    if (p == 0 && q == 0) {
        // A white-noise model is refused by design.
        ZuRunMessage("GetLgmArma(): system error");
        set_int(rtn, 0);
        return;
    }
    const int m = std::max(p, q + 1);

    // Copy the coefficients first: the result references may name the
    // variables that hold them.
    Buffer<double> phi, theta;
    const bool scratch = phi.alloc(m) && theta.alloc(m);
    if (scratch) {
        for (int i = 0; i < m; ++i) phi[i] = theta[i] = 0.0;
        theta[0] = 1.0;
        for (int i = 0; i < p; ++i) phi[i] = ar[i];
        for (int i = 0; i < q; ++i) theta[i + 1] = ma[i];
    }

    ZuValue *sys = args[3].v.ref, *var = args[4].v.ref, *init = args[5].v.ref;
    const bool ok_sys = make_matrix_value(sys, m + 1, m);
    const bool ok_var = make_matrix_value(var, m + 1, m + 1);
    const bool ok_init = make_matrix_value(init, m + 1, m);
    if (!ok_sys || !ok_var || !ok_init) {
        ZuRunErrorMessage("GetLgmArma(): memory allocation failure");
        return;
    }

    int result = 0;
    if (scratch)
        result = fGetLgmUnivArma(m, 0, 0, phi.get(), theta.get(), sys->v.mat.data, var->v.mat.data,
                                 init->v.mat.data, args[2].v.dval);
    if (result != 1) {
        ZuRunMessage("GetLgmArma(): system error");
        set_int(rtn, 0);
        return;
    }
    set_int(rtn, 1);
}
