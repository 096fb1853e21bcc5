// exact_model.cpp - the model record of the exact initial routines: opening
// it from a model block given as row-pointer matrices, closing it, the
// sizes callers allocate, the initial state (IKalmanInitial) and the
// semidefinite Cholesky factor the draws use.
#include <climits>
#include <cmath>

#include "exact.h"

using namespace tessel;

namespace {

// An index matrix (rows x cols, doubles truncated towards zero) as an int
// table; largest entry into *top. False on a failed allocation.
bool open_index(double **x, int rows, int cols, IntTable &table, int &top) {
    if (!x) return true;
    if (!table.alloc(rows, cols)) return false;
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) {
            const double v = x[i][j];
            // Beyond int (or NaN): an entry no TvData row can satisfy.
            const int k = v > -1.0 ? (v < 2147483647.0 ? static_cast<int>(v) : INT_MAX) : -1;
            table.get()[i][j] = k;
            if (k > top) top = k;
        }
    return true;
}

}  // namespace

bool tessel::psd_cholesky(int n, double **A, double **L) {
    double big = 0.0;
    for (int i = 0; i < n; ++i) big = std::fmax(big, std::fabs(A[i][i]));
    const double tol = kPsdTol * big;
    for (int j = 0; j < n; ++j) {
        double d = A[j][j];
        for (int k = 0; k < j; ++k) d -= L[j][k] * L[j][k];
        if (d < -tol || !(d == d)) return false;
        const double ljj = d > tol ? std::sqrt(d) : 0.0;
        // Rows below: column j of L (from A's lower triangle, read before
        // L's row i is written when L is A).
        for (int i = j + 1; i < n; ++i) {
            double s = A[i][j];
            for (int k = 0; k < j; ++k) s -= L[i][k] * L[j][k];
            L[i][j] = ljj > 0.0 ? s / ljj : 0.0;
        }
        L[j][j] = ljj;
        for (int k = j + 1; k < n; ++k) L[j][k] = 0.0;
    }
    return true;
}

TESSEL_EXPORT int IKalmanInitial(int m, double **init, double *a, double **P, int *diffuse) {
    int d = 0;
    for (int k = 0; k < m; ++k) {
        diffuse[k] = !init || init[k][k] < 0.0;
        d += diffuse[k];
        a[k] = init ? init[m][k] : 0.0;
    }
    for (int k = 0; k < m; ++k)
        for (int j = 0; j <= k; ++j) {
            const double x = diffuse[k] || diffuse[j] ? 0.0 : init[k][j];
            P[k][j] = P[j][k] = x;
        }
    return d;
}

// The record's own storage: sys and var copies, one block of m + 2 rows
// (P0 in the first m rows, the intercepts in row m, a0 in row m+1), the
// index tables and the int vectors.
TESSEL_EXPORT int LgmExactOpen(LgmExactModel *rec, int N, int m, int n, double **sys, double **var,
                               double **init, double **meanvec, double **sysidx, double **varidx,
                               double **meanidx, double **tvdata, int tvrows) {
    *rec = LgmExactModel();
    const long long p = static_cast<long long>(m) + N;
    if (N < 1 || m < 1 || n < 0 || !sys || !var || p * p > INT_MAX ||
        static_cast<long long>(m + 2) * p > INT_MAX)
        return 0;
    const bool indexed = sysidx || varidx || meanidx;
    if (indexed && (!tvdata || tvrows < 1)) return 0;
    const int pi = static_cast<int>(p);

    Block S, V, aux;
    IntTable sidx, vidx, midx_table;
    Buffer<int> midx, flags;
    int top = -1;
    if (!S.alloc(pi, m) || !V.alloc(pi, pi) || !aux.alloc(m + 2, pi) || !flags.alloc(m) ||
        !open_index(sysidx, pi, m, sidx, top) || !open_index(varidx, pi, pi, vidx, top) ||
        !open_index(meanidx, pi, 1, midx_table, top) || (meanidx && !midx.alloc(pi)))
        return 0;
    if (indexed && top >= tvrows) return 0;

    for (int i = 0; i < pi; ++i) {
        for (int j = 0; j < m; ++j) S[i][j] = sys[i][j];
        for (int j = 0; j < pi; ++j) V[i][j] = var[i][j];
        aux[m][i] = meanvec ? meanvec[i][0] : 0.0;
        if (meanidx) midx[i] = midx_table.get()[i][0];
    }
    rec->d = IKalmanInitial(m, init, aux[m + 1], aux.get(), flags.get());

    rec->N = N;
    rec->m = m;
    rec->n = n;
    rec->tvdata = indexed ? tvdata : nullptr;
    rec->tvrows = indexed ? tvrows : 0;
    rec->sys = S.release();
    rec->var = V.release();
    rec->P0 = aux.release();
    rec->mean = rec->P0[m];
    rec->a0 = rec->P0[m + 1];
    rec->diffuse = flags.release();
    rec->sysidx = sidx.release();
    rec->varidx = vidx.release();
    rec->meanidx = midx.release();
    return 1;
}

TESSEL_EXPORT void LgmExactClose(LgmExactModel *rec) {
    if (!rec) return;
    const int p = rec->m + rec->N;
    MatFreeBlock(rec->sys);
    MatFreeBlock(rec->var);
    MatFreeBlock(rec->P0);  // with the intercepts and a0
    if (rec->sysidx) TabFreePlain(reinterpret_cast<void **>(rec->sysidx), p, rec->m);
    if (rec->varidx) TabFreePlain(reinterpret_cast<void **>(rec->varidx), p, p);
    lib_free(rec->meanidx);
    lib_free(rec->diffuse);
    *rec = LgmExactModel();
}

TESSEL_EXPORT void LgmExactSizes(const LgmExactModel *rec, LgmExactSize *size) {
    const long long m = rec->m, N = rec->N, p = m + N;
    auto fit = [](long long x) { return x >= 0 && x <= INT_MAX ? static_cast<int>(x) : -1; };
    const long long S = N + m * N + N * (N + 1) / 2;
    const long long D = N * (2 * m + N + 2);
    size->store_rows = fit(D > S ? D : S);
    size->state_rows = fit(2 * p + m * m);
    size->work_rows = fit(8 * p + N + m + 16);
    size->work_cols = fit(p);
    size->wgt_rows = fit(2 * m + N + p * (p + 1) / 2);
    size->draw_rows = fit(2 * p);
}
