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

/* ===================== exact initial filtering and smoothing =====================
 *
 * Diffuse initial elements treated exactly (the limit of a variance kappa ->
 * infinity, no kappa anywhere): the initial variance is P_* + kappa P_inf
 * with P_inf the 0/1 diagonal of the diffuse elements, and the filter carries
 * P_* and P_inf apart until P_inf vanishes (the diffuse period, time points
 * 0 .. diffuse_end-1), then runs the ordinary recursion of fUnivKalmanFil /
 * fMultiKalmanFil (the same code). In the diffuse period the observations of
 * a time point are taken one element at a time on the joint predicted vector
 * (alpha(t+1), y(t)), whose variance SysMat P SysMat' + VarMat the ordinary
 * step forms: conditioning on y_i(t) there removes its correlation with the
 * later elements and with the state noise of the same time point, which is
 * what decorrelating the observation noise (LDL of its observed block) and
 * conditioning the state noise on it (transition T - C V_o^-1 Z_o, input
 * C V_o^-1 (y_o - d_o), variance Q - C V_o^-1 C') amount to, so neither an
 * N x N inverse nor a factorisation of the observation noise is needed.
 * No entry point calls these routines.
 *
 * Log-likelihood convention: the exact diffuse value without d log(2 pi)/2
 * for the d diffuse elements, i.e. -0.5 (cnt log 2pi + logdet + sumsq) with
 * logdet summing log F_inf over the d diffuse steps and log F over the cnt
 * usable observations. statsmodels' exact diffuse log-likelihood (llf) is
 * this value minus d log(2 pi)/2. The concentrated form: sigma2 =
 * sumsq / cnt, -0.5 (cnt log 2pi + logdet + cnt (log sigma2 + 1)).
 *
 * Exact store (store_rows x n, see LgmExactSizes): one column per time
 * point.
 *  - t >= diffuse_end: rows 0 .. S-1 hold the ordinary filter store column
 *    (layout of fMultiKalmanFil, S = N + mN + N(N+1)/2), except that a
 *    missing element or time point stores v = 0 (never NaN) with zero gain
 *    and inverse-variance entries: a zero diagonal of F^-1 marks it.
 *  - t < diffuse_end (the diffuse record): for each series i in turn a
 *    block of 3 + 2 a_i rows, a_i = m + N - 1 - i, starting at row
 *    sum_{k<i} (3 + 2 a_k): v_i (NaN when missing), F_inf, F_*, then the a_i
 *    gains K0 of the joint vector's remaining elements (the m states, then
 *    the series i+1..N-1), then a_i values K1. With F_inf > 0 (a diffuse
 *    step) K0 = M_inf / F_inf and K1 = (M_* - K0 F_*) / F_inf, M_inf and M_*
 *    the covariances of those elements with y_i(t); with F_inf = 0 (an
 *    ordinary step) F_* > 0, K0 = M_* / F_* and K1 = 0; F_inf = F_* = 0
 *    marks an element that carries no information.
 *
 * State record (state_rows x n, optional output of fKalmanExact, input of
 * StateSmoExact): column t holds the predicted moments of time t as the
 * prediction pass (fMultiStatePred) writes them: rows 0..m-1 a(t), m..m+N-1
 * the predicted observation, m+N..2m+N-1 the diagonal of P_*(t), 2m+N ..
 * 2(m+N)-1 the diagonal of F_*(t); then m(m-1)/2 rows of P_*(t)'s upper
 * triangle (row-major, k < j); then m(m+1)/2 rows of P_inf(t)'s upper
 * triangle with its diagonal (zero from diffuse_end on). P(t) is stored
 * rather than recomputed: the variance recursion cannot run backwards, and
 * running it forward again needs the same storage.
 *
 * Work: one matrix of work_rows x work_cols (LgmExactSizes), used by every
 * routine below; nothing is allocated inside a time loop (each routine
 * allocates a few row-pointer views once per call, and returns 0 when that
 * fails). None of the routines writes the caller's model matrices.
 */

/* A model opened for the exact routines (caller-owned struct; the storage
 * it points to is owned by it from LgmExactOpen to LgmExactClose). */
typedef struct LgmExactModel {
    int N, m, n;     /* series, state order, time points */
    double **sys;    /* (m+N) x m copy of SysMat; time-varying elements
                        are written into it at each time point */
    double **var;    /* (m+N) x (m+N) copy of VarMat, likewise */
    double *mean;    /* m+N intercepts [d_state; d_obs] (0 when absent) */
    int **sysidx;    /* (m+N) x m TvData rows of SysMat, or NULL */
    int **varidx;    /* (m+N) x (m+N), or NULL */
    int *meanidx;    /* m+N, or NULL */
    double **tvdata; /* borrowed: tvrows x n TvData, or NULL */
    int tvrows;
    double *a0;   /* m initial mean */
    double **P0;  /* m x m proper initial variance P_* */
    int *diffuse; /* m flags: 1 for a diffuse initial element */
    int d;        /* number of diffuse initial elements */
} LgmExactModel;

/* Sizes of the caller-allocated matrices (columns: store and states n,
 * wgt n+1, scratch n, work work_cols). */
typedef struct LgmExactSize {
    int store_rows; /* exact store */
    int state_rows; /* state record: 2(m+N) + m^2 */
    int work_rows, work_cols;
    int wgt_rows;  /* SimSmoWgtExact: 2m+N + (m+N)(m+N+1)/2 */
    int draw_rows; /* LgmDraw output and SimSmoDrawExact scratch: 2(m+N) */
} LgmExactSize;

/* Likelihood pieces of fKalmanExact (see the convention above). */
typedef struct LgmExactLik {
    double loglik;   /* -0.5 (cnt log 2pi + logdet + sumsq) */
    double logdet;   /* sum of log F_inf (diffuse steps) and log F */
    double sumsq;    /* sum of squared standardised innovations, not divided */
    int nobs;        /* observed elements */
    int cnt;         /* usable observations (nobs - d when every element informs) */
    int d;           /* diffuse steps taken */
    int diffuse_end; /* first time point of the ordinary recursion */
} LgmExactLik;

/* Opens rec from a model block given as row-pointer matrices: sys
 * ((m+N) x m), var ((m+N) x (m+N)), and optionally (NULL = absent) init
 * ((m+1) x m InitMat: diagonal < 0 marks a diffuse element, the lower
 * triangle and diagonal are read; absent = every element diffuse with mean
 * 0), meanvec ((m+N) x 1), the index matrices sysidx ((m+N) x m), varidx
 * ((m+N) x (m+N)), meanidx ((m+N) x 1) (entries truncated to int; r >= 0
 * takes tvdata[r][t] at time t) and tvdata (tvrows x n, borrowed: it must
 * outlive rec). Copies everything else. Returns 1, or 0 (rec left empty,
 * safe to close) on N < 1, m < 1, n < 0, an index without tvdata or beyond
 * tvrows, sizes beyond int, or a failed allocation. */
int LgmExactOpen(LgmExactModel *rec, int N, int m, int n, double **sys, double **var, double **init,
                 double **meanvec, double **sysidx, double **varidx, double **meanidx,
                 double **tvdata, int tvrows);
/* Frees what rec owns and empties it (rec may be empty or NULL). */
void LgmExactClose(LgmExactModel *rec);
/* Fills *size for rec's dimensions; a size beyond int is -1. */
void LgmExactSizes(const LgmExactModel *rec, LgmExactSize *size);

/* From InitMat ((m+1) x m, or NULL: all diffuse, mean 0): the mean a (m),
 * the proper variance P (m x m; diffuse rows and columns 0: a covariance
 * between a diffuse and a proper element vanishes in the limit and is
 * dropped) and the flags diffuse (m; a negative diagonal marks a diffuse
 * element, a zero one is a proper element of variance 0). Returns d, the
 * number of diffuse elements. */
int IKalmanInitial(int m, double **init, double *a, double **P, int *diffuse);

/* Exact initial Kalman filter over y (N x n, NaN = missing). store
 * (optional) receives the exact store, states (optional) the state record;
 * lik (required) the likelihood pieces. With s_k the largest P_inf[k][k]
 * met so far, F_inf of series i counts as zero when it is at most
 * 1e-10 sum_k Z[i][k]^2 s_k, and the diffuse period ends when every
 * P_inf[k][k] is at most 1e-10 s_k (P_inf is then set to zero): both tests
 * are free of the units of the data and of each state, except that a
 * state whose diffuse part the transition shrinks below 1e-10 of its
 * largest earlier value (states in units some 1e8 apart) counts as
 * resolved.
 * Returns 1; 0 when P_inf has not vanished by the last time point (the data
 * do not determine every diffuse element), on a negative F_* in the diffuse
 * period, when the ordinary recursion fails (as fUnivKalmanFil /
 * fMultiKalmanFil) or a view allocation fails. lik is filled also then. */
int fKalmanExact(LgmExactModel *rec, double **y, double **work, double **store, double **states,
                 LgmExactLik *lik);
/* Mean pass for new data y (N x n) with the gains and variances of a store
 * from fKalmanExact on the same model and missing pattern: rewrites the
 * store's innovations in place (gains and variances kept) and writes the
 * sum of squared standardised innovations to *sumsq (optional). Returns 1,
 * or 0 when y's missing pattern differs from the store's. */
int fKalmanExactMean(LgmExactModel *rec, double **y, int diffuse_end, double **work, double **store,
                     double *sumsq);

/* Exact state smoother: out (2(m+N) x n) column t: smoothed state (m), the
 * smoothed signal Z alpha (N, no intercept), the diagonal of Var(alpha(t)|y)
 * (m), the diagonal of Z Var Z' (N): the layout of LgmMomentEst's smoothed
 * moments, from t = 0. states is the state record of the same fKalmanExact
 * run; out may be states itself (each column is read before written).
 * Returns 1, or 0 when its views cannot be allocated. */
int StateSmoExact(LgmExactModel *rec, int diffuse_end, double **work, double **store,
                  double **states, double **out);
/* Exact disturbance smoother: out (2(m+N) x n) column t: the smoothed
 * disturbances (state m, then observation N), then the diagonal of their
 * conditional variance (not the reduction). Returns 1, or 0 when its views
 * cannot be allocated. */
int DistSmoExact(LgmExactModel *rec, int diffuse_end, double **work, double **store, double **out);
/* Fast smoother (means only, no variances, no state record): out
 * ((2m+N) x n) column t: the smoothed state (m), then the smoothed
 * disturbances (m+N). */
void QuickStateSmo(LgmExactModel *rec, int diffuse_end, double **work, double **store,
                   double **out);

/* Score of the exact log-likelihood with respect to VarMat: S ((m+N) x
 * (m+N)) = the sum over time of u~ u~' - D~ (the smoothing cumulant of the
 * joint vector and its variance; in the diffuse period their kappa^0
 * parts), so that d loglik = tr(S dVarMat) / 2 as for LgmLikSco, VarMat
 * fixed over time. Returns 1, or 0 when its views cannot be allocated. */
int fLgmExactScore(LgmExactModel *rec, int diffuse_end, double **work, double **store, double **S);

/* Factors F with F F' = V of the initial and disturbance variances for the
 * draws: fac ((m+N)(m+N+1)/2 x (n+1), lower triangles packed row by row)
 * column 0 the proper initial variance P_* (m(m+1)/2 values), column t+1
 * VarMat at time t. Positive semi-definite matrices of any rank are
 * accepted (semidefinite Cholesky: a pivot at most 1e-13 of the largest
 * diagonal is taken as 0 with its column). Returns 1, or 0 on a matrix that
 * is not positive semi-definite. */
int fLgmVarFactors(LgmExactModel *rec, double **work, double **fac);
/* Unconditional draw from standard normals z ((m+N) x (n+1): column 0 rows
 * 0..m-1 for the initial state, column t+1 for the disturbances of time t)
 * into out (2(m+N) x n): column t holds alpha(t) (m), the disturbances of
 * time t (m+N) and y(t) (N). Diffuse initial elements are held at their
 * given mean (a0). fac from fLgmVarFactors. */
void LgmDraw(LgmExactModel *rec, double **fac, double **z, double **out);
/* Prepares the simulation smoother from a store of fKalmanExact on y: wgt
 * (wgt_rows x (n+1)): rows 0..2m+N-1, columns 0..n-1 the smoothed means
 * (QuickStateSmo's layout); then the factors of fLgmVarFactors. Returns 1,
 * or 0 as fLgmVarFactors. */
int SimSmoWgtExact(LgmExactModel *rec, int diffuse_end, double **work, double **store,
                   double **wgt);
/* One draw of states and disturbances from their exact conditional
 * distribution given y (the initial state included) by mean correction: an
 * unconditional draw (LgmDraw from z) with y's missing pattern is smoothed
 * with the same gains, and out = wgt's means + draw - smoothed draw. The
 * diffuse initial value of the draw cancels: the exact smoother reproduces
 * any shift along the diffuse directions (a flat prior), so draw minus its
 * smoothed mean does not depend on it. out ((2m+N) x n) as QuickStateSmo;
 * scratch (draw_rows x n). The store's innovations are overwritten (its
 * gains are not). Affine in z. Returns 1, or 0 (store inconsistent). */
int SimSmoDrawExact(LgmExactModel *rec, int diffuse_end, double **work, double **store,
                    double **wgt, double **z, double **scratch, double **out);

/* Bootstrap replicate of y (N x n) from a store of fKalmanExact on y. out
 * (2N x n): rows N..2N-1 receive the standardised innovations e(t) = R' v(t)
 * (R R' = F(t)^-1 over the observed elements; NaN where missing and in the
 * diffuse period); rows 0..N-1 the replicate: y itself for t < diffuse_end,
 * then, through the innovations form of the filter (a(t+1) = T a + c + K v,
 * y*(t) = Z a + d + v), the innovations v*(t) = R'^-1 e*(t) with e*_i(t) =
 * the standardised innovation at flat position src[t N + i] (= s N + k:
 * series k at time s, observed, s >= diffuse_end), for each observed element
 * at t >= diffuse_end (other entries of src are ignored); NaN where y is
 * missing. Returns 1, or 0 when src names a position outside that pool or
 * the store does not match y. */
int LgmBootstrap(LgmExactModel *rec, double **y, int diffuse_end, double **work, double **store,
                 const int *src, double **out);

#ifdef __cplusplus
}
#endif

#endif /* TESSEL_TESSEL_H */
