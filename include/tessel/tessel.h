/*
 * tessel.h - exports of libtessel.so: entry points and numeric routines for
 * linear Gaussian state space models.
 *
 * Model (state dimension m, N observation series, n time points):
 *   alpha(t+1) = d_state + T alpha(t) + H eps(t)
 *   y(t)       = d_obs   + Z alpha(t) + G eps(t)
 * given as SysMat = [T; Z] ((m+N) x m), VarMat = [HH' HG'; GH' GG']
 * ((m+N) x (m+N)), InitMat = [P; a'] ((m+1) x m; a negative diagonal element
 * of P marks a diffuse element), mean = [d_state; d_obs] (m+N).
 *
 * All matrices are row-pointer matrices (double **) owned by the caller.
 * Numeric routines never allocate inside their time loops; their work
 * matrices are allocated by the caller with the sizes stated. Missing
 * observations are NaN. Status results are 1 for success, 0 for failure
 * unless stated otherwise.
 *
 * Entry points (Fn...) are called by a host with the ZuEntryPoint signature
 * of zu.h; their argument lists are documented in docs/entry-points.md.
 */
#ifndef TESSEL_TESSEL_H
#define TESSEL_TESSEL_H

#include "zu.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Nonzero silences warnings and the non-positive semi-definite reports. */
extern int fLgmNoErrorMessage;

/* ===================== entry points (ZuEntryPoint signature) ===================== */

/* () -> integer 300 (version 3.00). */
void FnLgmVersion(ZuValue *rtn, ZuValue *args, int nargs);
/* () -> prints the banner, one message per line. */
void FnLgmAbout(ZuValue *rtn, ZuValue *args, int nargs);
/* (flag) -> sets fLgmNoErrorMessage (flag < 1 silences messages). */
void FnLgmWarning(ZuValue *rtn, ZuValue *args, int nargs);
/* (y, model...) -> filter store, S x n. */
void FnKalmanFil(ZuValue *rtn, ZuValue *args, int nargs);
/* (&loglik, &scale, y, model...) -> 1/0. */
void FnLgmLik(ZuValue *rtn, ZuValue *args, int nargs);
/* (&loglik, &sigma2, y, model...) -> 1/0, scale concentrated out. */
void FnLgmLikConc(ZuValue *rtn, ZuValue *args, int nargs);
/* (u, model...) -> states over observations, (m+N) x n. */
void FnLgmRecursion(ZuValue *rtn, ZuValue *args, int nargs);
/* (store, model...) -> smoothing output, 2(m+N) x (n+1). */
void FnKalmanSmo(ZuValue *rtn, ZuValue *args, int nargs);
/* (selection, &moments, y, model...) -> (m+1) x m. */
void FnLgmMomentEst(ZuValue *rtn, ZuValue *args, int nargs);
/* (&loglik, [&scale,] &score, y, model...) -> 1/0. */
void FnLgmLikSco(ZuValue *rtn, ZuValue *args, int nargs);
/* (selection, store, model...) -> simulation smoother weights. */
void FnSimSmoWgt(ZuValue *rtn, ZuValue *args, int nargs);
/* (selection, draws, weights, store, model...) -> draws, p x (n+1). */
void FnSimSmoDraw(ZuValue *rtn, ZuValue *args, int nargs);
/* (selection, y, model...) -> smoothed or simulated states/signals/disturbances. */
void FnLgmCondDens(ZuValue *rtn, ZuValue *args, int nargs);
/* (selection, marker, model...) -> filter/smoother weights, (m+N) x n. */
void FnLgmWeights(ZuValue *rtn, ZuValue *args, int nargs);
/* (ar, ma, sigma, &SysMat, &VarMat, &InitMat) -> 1/0. */
void FnGetLgmArma(ZuValue *rtn, ZuValue *args, int nargs);
/* (table, &SysMat, &VarMat, &InitMat) -> 1 x rows block starts. */
void FnGetLgmStsm(ZuValue *rtn, ZuValue *args, int nargs);
/* (x, &SysMat, &VarMat, &InitMat, &SysIdx) -> 1. */
void FnGetLgmReg(ZuValue *rtn, ZuValue *args, int nargs);
/* (x, &SysMat, &VarMat, &InitMat, &SysIdx) -> regression added in front. */
void FnAddLgmReg(ZuValue *rtn, ZuValue *args, int nargs);
/* (q, delta, &SysMat, &VarMat[, &InitMat[, &SysIdx, &VarIdx, &TvData]]) -> 1. */
void FnGetLgmSpline(ZuValue *rtn, ZuValue *args, int nargs);

/* ===================== plain helpers ===================== */

/* 1 exactly when x is a NaN of any sign and payload (infinity gives 0). */
int FIsNaN(double x);
/* *x = the quiet NaN 0x7FF8000000000000. */
void SetNaN(double *x);

/* ===================== numeric kernels (no allocation) ===================== */

/* sum_{i<n} x[i] y[i]; 0 when n < 1. */
double dVecVec(int n, const double *x, const double *y);
/* x' A x over the leading n x n block of A; 0 when n < 1. */
double dInnerProd(int n, const double *x, double **A);
/* y' A x over the leading n x n block of A; 0 when n < 1. */
double dVecMatVec(int n, const double *x, double **A, const double *y);
/* 0 for null v; else max(v[0], v[0..n)) (v[0] itself when n < 1). */
int iMaxIntVec(int n, const int *v);
/* 0 for null t; else max(t[0][0], all rows x cols elements). */
int iMaxIntMat(int rows, int cols, int **t);
/* Triangular solve with divisors on the diagonal of L, into x (x may be b):
 * forward (flag nonzero) with the lower triangle, backward with the upper. */
void LDLbacksub(int forward, int n, double **L, const double *b, double *x);
/* Writes the time-t values of the elements in the compact index list (8 int
 * rows) from tvdata[row][t] into sys, var and mean (each may be null). */
void TVsystem(int t, double **sys, double **var, double *mean, int **list, double **tvdata);

/* ===================== filtering ===================== */

/* Multivariate Kalman filter (N >= 2) over n points. W1: (m+N+1) x (m+N),
 * W2: (m+N+2) x (m+N) with the mean in row m+N+1 (mean points at it).
 * store: optional S x n, S = N + N(N+1)/2 + mN. Outputs optional.
 * Returns 1, or 0 on a singular F, cnt < 1 or a failed F view. */
int fMultiKalmanFil(int N, int n, double **y, int m, double **sys, double **var, double *mean,
                    int **sysidx, int **varidx, int *meanidx, double **tvdata, double **init,
                    double **W1, double **W2, double **store, double *dLogDet, double *dSumSq,
                    int *cnt);
/* Single-series Kalman filter; y has n values; W1 (m+2) x (m+1),
 * W2 (m+3) x (m+1); store optional (m+2) x n. Returns 1, or 0 when some F is
 * exactly 0 or cnt < 1. */
int fUnivKalmanFil(int n, double *y, int m, double **sys, double **var, double *mean, int **sysidx,
                   int **varidx, int *meanidx, double **tvdata, double **init, double **W1,
                   double **W2, double **store, double *dLogDet, double *dSumSq, int *cnt);
/* States and observations implied by disturbances u ((m+N) x (nsteps+1));
 * out (m+N) x (nsteps+1); work 3 x (m+N) with the mean in row 2; list is the
 * compact index list or null. Returns 1. */
int LgmRecursion(int N, int nsteps, int m, double **sys, double **var, double *mean, int **list,
                 double **tvdata, double **init, double **work, double **u, double **out);

/* ===================== smoothing ===================== */

/* Backward smoothing recursion over a filter store (T columns). W1, W2:
 * (m+N+1) x (m+N). S: optional (m+N) x (m+N) score accumulation. out:
 * optional 2(m+N) x (T+1). */
void MultiKalmanSmo(int N, int T, int m, double **sys, int **sysidx, double **tvdata, double **W1,
                    double **W2, double **store, double **S, double **out);
void UnivKalmanSmo(int T, int m, double **sys, int **sysidx, double **tvdata, double **W1,
                   double **W2, double **store, double **S, double **out);
/* Disturbance smoother; out optional 2(m+N) x T (mean, variance reduction). */
void MultiDisturbSmo(int N, int T, int m, double **sys, double **var, int **sysidx, int **varidx,
                     double **tvdata, double **W1, double **W2, double **store, double **out);
void UnivDisturbSmo(int T, int m, double **sys, double **var, int **sysidx, int **varidx,
                    double **tvdata, double **W1, double **W2, double **store, double **out);
/* State smoother; pred (2(m+N) x T) and offdiag (m(m-1)/2 x T) from the
 * prediction pass; out may be pred itself. */
void MultiStateSmo(int N, int T, int m, double **sys, int **sysidx, double **tvdata, double **W1,
                   double **W2, double **store, double **pred, double **offdiag, double **out);
void UnivStateSmo(int T, int m, double **sys, int **sysidx, double **tvdata, double **W1,
                  double **W2, double **store, double **pred, double **offdiag, double **out);
/* Prediction pass writing the store, the moments (2(m+N) x T, predicted or
 * filtered) and optionally the off-diagonal store. W1 (m+N+1) x (m+N), W2
 * (m+2N+2) x (m+N) with the mean in row m+N+1. Returns 1 or 0. */
int fMultiStatePred(int filtered, int N, int T, double **y, int m, double **sys, double **var,
                    double *mean, int **sysidx, int **varidx, int *meanidx, double **tvdata,
                    double **init, double **W1, double **W2, double **store, double **moments,
                    double **offdiag);
int fUnivStatePred(int filtered, int T, double *y, int m, double **sys, double **var, double *mean,
                   int **sysidx, int **varidx, int *meanidx, double **tvdata, double **init,
                   double **W1, double **W2, double **store, double **moments, double **offdiag);

/* ===================== simulation smoothing ===================== */

/* Simulation smoother weights; A, U: (p+1) x p; G q x q; sel: p flags;
 * wgt: (q p + q(q+1)/2) x n. Returns 0 or the nonzero ILDLdec code. */
int iMultiSimSmoWgt(int N, int n, int m, double **sys, double **var, int **sysidx, int **varidx,
                    double **tvdata, double **A, double **U, double **store, int q, int *sel,
                    double **G, double **wgt);
int iUnivSimSmoWgt(int n, int m, double **sys, double **var, int **sysidx, int **varidx,
                   double **tvdata, double **A, double **U, double **store, int q, int *sel,
                   double **G, double **wgt);
/* Simulation smoother draw from standard normals draws (q x n) into out
 * (p x (n+1)); ru: 2 x p work. draws and out may be the same matrix. */
void MultiSimSmoDraw(int N, int n, int m, double **sys, double **var, int **sysidx, int **varidx,
                     double **tvdata, double **A, double **ru, double **store, int q, int *sel,
                     double **G, double **wgt, double **draws, double **out);
void UnivSimSmoDraw(int n, int m, double **sys, double **var, int **sysidx, int **varidx,
                    double **tvdata, double **A, double **ru, double **store, int q, int *sel,
                    double **G, double **wgt, double **draws, double **out);
/* Forward pass rebuilding states and signals (p x n into out) from
 * disturbances (mode 0) or smoother output (mode 1) in D (p+ rows, n+1 cols);
 * work (p+2) x p. */
void LgmSignalSmo(int mode, int N, int n, int m, double **sys, double **var, double *mean,
                  int **sysidx, int **varidx, int *meanidx, double **tvdata, double **init,
                  double **work, double **D, double **out);

/* ===================== filter and smoother weights ===================== */

/* Weights of y[istar][j] on the predicted state at tstar into out
 * ((m+N) x n). Returns 1. */
int fMultiWeightPred(int N, int n, int tstar, int istar, int m, double **sys, int **sysidx,
                     double **tvdata, double **W1, double **W2, double **store, double **out);
int fUnivWeightPred(int n, int tstar, int m, double **sys, int **sysidx, double **tvdata,
                    double **W1, double **W2, double **store, double **out);
/* Weights on the filtered state at tstar; W3 holds P(tstar) and a(tstar). */
int fMultiWeightFil(int N, int n, int tstar, int istar, int m, double **sys, int **sysidx,
                    double **tvdata, double **W1, double **W2, double **store, double **W3,
                    double **out);
int fUnivWeightFil(int n, int tstar, int m, double **sys, int **sysidx, double **tvdata,
                   double **W1, double **W2, double **store, double **W3, double **out);
/* Weights on the smoothed state at tstar; smo is 2(m+N) x (n+1) scratch. */
int fMultiWeightSmo(int N, int n, int tstar, int istar, int m, double **sys, int **sysidx,
                    double **tvdata, double **W1, double **W2, double **store, double **smo,
                    double **W3, double **out);
int fUnivWeightSmo(int n, int tstar, int m, double **sys, int **sysidx, double **tvdata,
                   double **W1, double **W2, double **store, double **smo, double **W3,
                   double **out);

/* ===================== model builders ===================== */

/* ARMA state space form with d differences and s seasonal lags in front;
 * phi, theta: m values by state position; sys (m+1) x m, var (m+1) x (m+1),
 * init (m+1) x m filled. Returns 1, or 0 on a singular stationary system or
 * a failed scratch allocation. */
int fGetLgmUnivArma(int m, int d, int s, double *phi, double *theta, double **sys, double **var,
                    double **init, double sigma);
/* Structural model from the component table rows; rowofcode: 20 row indices
 * (or -1) by component code; start: one double per table row. Returns 1 when
 * the placed states add up to m, else 0. */
int fGetLgmUnivStsm(int *rowofcode, double **table, int m, double *start, double **sys,
                    double **var, double **init);

#ifdef __cplusplus
}
#endif

#endif /* TESSEL_TESSEL_H */
