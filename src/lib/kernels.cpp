// kernels.cpp - small routines on plain arrays and row-pointer matrices
// shared by the recursions. None allocates.
#include "frame.h"

TESSEL_EXPORT double dVecVec(int n, const double *x, const double *y) {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += x[i] * y[i];
    return s;
}

TESSEL_EXPORT double dInnerProd(int n, const double *x, double **A) {
    double s = 0.0;
    for (int i = 0; i < n; ++i) {
        const double *a = A[i];
        double row = 0.0;
        for (int j = 0; j < n; ++j) row += a[j] * x[j];
        s += x[i] * row;
    }
    return s;
}

TESSEL_EXPORT double dVecMatVec(int n, const double *x, double **A, const double *y) {
    double s = 0.0;
    for (int i = 0; i < n; ++i) {
        const double *a = A[i];
        double row = 0.0;
        for (int j = 0; j < n; ++j) row += a[j] * x[j];
        s += y[i] * row;
    }
    return s;
}

// The first element takes part even when n < 1; callers rely on that read.
TESSEL_EXPORT int iMaxIntVec(int n, const int *v) {
    if (!v) return 0;
    int best = v[0];
    for (int i = 0; i < n; ++i)
        if (v[i] > best) best = v[i];
    return best;
}

TESSEL_EXPORT int iMaxIntMat(int rows, int cols, int **t) {
    if (!t) return 0;
    int best = t[0][0];
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c)
            if (t[r][c] > best) best = t[r][c];
    return best;
}

TESSEL_EXPORT void LDLbacksub(int forward, int n, double **L, const double *b, double *x) {
    if (n < 1) return;
    if (forward) {
        for (int i = 0; i < n; ++i) {
            double s = b[i];
            const double *l = L[i];
            for (int j = 0; j < i; ++j) s -= l[j] * x[j];
            x[i] = s / l[i];
        }
    } else {
        for (int i = n - 1; i >= 0; --i) {
            double s = b[i];
            const double *l = L[i];
            for (int j = i + 1; j < n; ++j) s -= l[j] * x[j];
            x[i] = s / l[i];
        }
    }
}

TESSEL_EXPORT void TVsystem(int t, double **sys, double **var, double *mean, int **list,
                            double **tvdata) {
    if (sys)
        for (int k = 1; k <= list[0][0]; ++k) sys[list[0][k]][list[1][k]] = tvdata[list[2][k]][t];
    if (var)
        for (int k = 1; k <= list[3][0]; ++k) var[list[3][k]][list[4][k]] = tvdata[list[5][k]][t];
    if (mean)
        for (int k = 1; k <= list[6][0]; ++k) mean[list[6][k]] = tvdata[list[7][k]][t];
}
