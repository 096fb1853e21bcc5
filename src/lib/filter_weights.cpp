// filter_weights.cpp - LgmWeights: the weights with which the observations
// of one series enter the predicted, filtered or smoothed state (and
// signal) at one time point, and the recursions that compute them from a
// filter store.
//
// The estimators are linear in the observations, so the weights depend only
// on the model and on which observations are missing. With K the gain of
// the filter store (a(t+1) = T a(t) + K v(t) + ...) and L = T - K Z:
//   predicted  a(t*):      w_j = L(t*-1) ... L(j+1) K(j)                 j < t*
//   filtered   a(t*|t*):   w_t* = P Z' F^-1,  w_j = (I - P Z' F^-1 Z) x
//                          the predicted weight                          j < t*
//   smoothed   a(t*|n):    w_j = (I - P N(t*-1)) x predicted weight      j < t*
//                          w_j = P L(t*)' ... L(j-1)' s(j)               j >= t*
// with P = P(t*), N(t) the smoothing variance cumulant and
// s(j) = Z' F^-1 e - L' N(j) K e for the target series e. Column j of the
// result holds the weight of y[i*][j]: rows 0..m-1 on the state, rows
// m..m+N-1 on the signal (the observation rows of SysMat at time j times the
// state weight).
//
// Work layout shared by the recursions (W1 is (m+N+1) x (m+N)):
//   W1[0..m-1][0..m-1]     the running weight matrix W (or N, or V)
//   W1[0..m-1][m..m+N-1]   scratch for -W K (or V Z', or K in the first
//                          smoothing pass)
//   W1[m+i][0..m+i]        the store block of series i at the current time:
//                          K[.][i], then Finv[0..i][i]
//   W1[m+N][m..m+N-1]      the innovations
// W2 ((m+N+2) x (m+N)) is scratch: the product W L, or D~ in the first
// smoothing pass. Its last row (the mean) is never touched here.
#include <cmath>

#include "frame.h"

using namespace tessel;

namespace {

// Loads store column t into W1: innovations into row m+N, and the block of
// each series i into row m+i, columns 0..m+i. A series whose innovation is
// NaN (everything missing at t) loads zeros.
void load_store_rows(int N, int m, double **store, int t, double **W1) {
    const int mN = m + N;
    for (int i = 0; i < N; ++i) {
        double *row = W1[m + i];
        W1[mN][m + i] = store_read_block(store, N, m, i, t, [&](int k, double x) { row[k] = x; });
    }
}

// Element (a, b) of F^-1 as load_store_rows left it (lower triangle).
inline double finv_at(double **W1, int m, int a, int b) {
    return a >= b ? W1[m + a][m + b] : W1[m + b][m + a];
}

// Signal rows of result column j: the observation rows of SysMat times the
// state rows of that column.
void signal_rows(int N, int m, double **sys, double **out, int j) {
    for (int i = 0; i < N; ++i) {
        const double *z = sys[m + i];
        double s = 0.0;
        for (int k = 0; k < m; ++k) s += z[k] * out[k][j];
        out[m + i][j] = s;
    }
}

// W := W2's top-left block, copied into W1.
void take_from_W2(int m, double **W1, double **W2) {
    for (int r = 0; r < m; ++r)
        for (int c = 0; c < m; ++c) W1[r][c] = W2[r][c];
}

// The backward prediction recursion for j = from down to 0, starting from
// the W in W1's top-left block: result column j = W K(j) e(i*) and its
// signal rows, then W := W L(j).
void backward_weights(int N, int from, int istar, int m, double **sys, int **sysidx,
                      double **tvdata, double **W1, double **W2, double **store, double **out) {
    const int mN = m + N;
    for (int j = from; j >= 0; --j) {
        write_time_varying(j, m, mN, sys, nullptr, nullptr, sysidx, nullptr, nullptr, tvdata);
        load_store_rows(N, m, store, j, W1);
        // W1[r][m+c] = -(W K)[r][c]; K[k][c] sits in W1[m+c][k].
        for (int r = 0; r < m; ++r) {
            const double *w = W1[r];
            for (int c = 0; c < N; ++c) {
                const double *kc = W1[m + c];
                double s = 0.0;
                for (int k = 0; k < m; ++k) s += w[k] * kc[k];
                W1[r][m + c] = -s;
            }
        }
        for (int r = 0; r < m; ++r) out[r][j] = -W1[r][m + istar];
        // W2 = [W, -W K] [T; Z] = W (T - K Z).
        for (int r = 0; r < m; ++r) {
            const double *w = W1[r];
            double *dst = W2[r];
            for (int c = 0; c < m; ++c) dst[c] = 0.0;
            for (int k = 0; k < mN; ++k) {
                const double wk = w[k];
                const double *s = sys[k];
                for (int c = 0; c < m; ++c) dst[c] += wk * s[c];
            }
        }
        signal_rows(N, m, sys, out, j);
        take_from_W2(m, W1, W2);
    }
}

int weight_pred(int N, int n, int tstar, int istar, int m, double **sys, int **sysidx,
                double **tvdata, double **W1, double **W2, double **store, double **out) {
    MatI(W1, m, m);
    MatZero(out, m + N, n);
    // The predicted state at the first time point depends on no observation.
    if (tstar < 1) return 1;
    backward_weights(N, tstar - 1, istar, m, sys, sysidx, tvdata, W1, W2, store, out);
    return 1;
}

int weight_fil(int N, int n, int tstar, int istar, int m, double **sys, int **sysidx,
               double **tvdata, double **W1, double **W2, double **store, double **W3,
               double **out) {
    const int mN = m + N;
    MatZero(out, mN, n);
    write_time_varying(tstar, m, mN, sys, nullptr, nullptr, sysidx, nullptr, nullptr, tvdata);
    load_store_rows(N, m, store, tstar, W1);
    // W2[r][m+a] = (P Z')[r][a], P = P(t*) from W3.
    for (int r = 0; r < m; ++r) {
        const double *p = W3[r];
        for (int a = 0; a < N; ++a) {
            const double *z = sys[m + a];
            double s = 0.0;
            for (int k = 0; k < m; ++k) s += p[k] * z[k];
            W2[r][m + a] = s;
        }
    }
    // G = P Z' F^-1 into W1[r][m+b].
    for (int r = 0; r < m; ++r)
        for (int b = 0; b < N; ++b) {
            double s = 0.0;
            for (int a = 0; a < N; ++a) s += W2[r][m + a] * finv_at(W1, m, a, b);
            W1[r][m + b] = s;
        }
    for (int r = 0; r < m; ++r) out[r][tstar] = W1[r][m + istar];
    signal_rows(N, m, sys, out, tstar);
    // W = I - G Z.
    for (int r = 0; r < m; ++r)
        for (int c = 0; c < m; ++c) {
            double s = r == c ? 1.0 : 0.0;
            for (int a = 0; a < N; ++a) s -= W1[r][m + a] * sys[m + a][c];
            W1[r][c] = s;
        }
    backward_weights(N, tstar - 1, istar, m, sys, sysidx, tvdata, W1, W2, store, out);
    return 1;
}

int weight_smo(int N, int n, int tstar, int istar, int m, double **sys, int **sysidx,
               double **tvdata, double **W1, double **W2, double **store, double **smo, double **W3,
               double **out) {
    const int mN = m + N;
    MatZero(out, mN, n);

    // Pass 1, j = n-1 .. t*: N(j) and s(j) (kept in rows 0..m-1 of smo).
    MatZero(W1, mN + 1, mN);
    for (int j = n - 1; j >= tstar; --j) {
        write_time_varying(j, m, mN, sys, nullptr, nullptr, sysidx, nullptr, nullptr, tvdata);
        // Gains into W1's columns m.., F^-1 as a full block into W2's
        // bottom-right block, innovations into W1's last row.
        for (int i = 0; i < N; ++i)
            W1[mN][m + i] = store_read_block(store, N, m, i, j, [&](int k, double x) {
                if (k < m)
                    W1[k][m + i] = x;
                else
                    W2[k][m + i] = W2[m + i][k] = x;
            });
        // D~ = [[N, -N K], [-K' N, F^-1 + K' N K]] in W2.
        for (int r = 0; r < m; ++r)
            for (int c = 0; c < m; ++c) W2[r][c] = r >= c ? W1[r][c] : W1[c][r];
        for (int k = 0; k < m; ++k)
            for (int a = 0; a < N; ++a) {
                double s = 0.0;
                for (int l = 0; l < m; ++l) s += W2[k][l] * W1[l][m + a];
                W2[k][m + a] = -s;
                W2[m + a][k] = -s;
            }
        for (int a = 0; a < N; ++a)
            for (int b = a; b < N; ++b) {
                double s = W2[m + a][m + b];
                for (int k = 0; k < m; ++k) s -= W1[k][m + a] * W2[k][m + b];
                W2[m + a][m + b] = s;
                W2[m + b][m + a] = s;
            }
        // s(j) = column m+i* of SysMat' D~.
        for (int k = 0; k < m; ++k) {
            double s = 0.0;
            for (int r = 0; r < mN; ++r) s += sys[r][k] * W2[r][m + istar];
            smo[k][j] = s;
        }
        // N(j-1) = SysMat' D~ SysMat.
        MatBtSB(sys, mN, W2, m, W1);
    }

    // Pass 2, j = t*-1 .. 0: W = I - P N(t*-1), then the prediction
    // recursion.
    if (tstar > 0) {
        MatAB(W3, m, m, W1, m, W2);
        for (int r = 0; r < m; ++r)
            for (int c = 0; c < m; ++c) W1[r][c] = (r == c ? 1.0 : 0.0) - W2[r][c];
        backward_weights(N, tstar - 1, istar, m, sys, sysidx, tvdata, W1, W2, store, out);
    }

    // Pass 3, j = t* .. n-1: V = P L(t*)' ... L(j-1)', weight V s(j).
    for (int r = 0; r < m; ++r)
        for (int c = 0; c < m; ++c) W1[r][c] = W3[r][c];
    for (int j = tstar; j < n; ++j) {
        write_time_varying(j, m, mN, sys, nullptr, nullptr, sysidx, nullptr, nullptr, tvdata);
        for (int r = 0; r < m; ++r) {
            double s = 0.0;
            for (int k = 0; k < m; ++k) s += W1[r][k] * smo[k][j];
            out[r][j] = s;
        }
        signal_rows(N, m, sys, out, j);
        load_store_rows(N, m, store, j, W1);
        // W1[r][m+a] = (V Z')[r][a].
        for (int r = 0; r < m; ++r)
            for (int a = 0; a < N; ++a) {
                double s = 0.0;
                for (int k = 0; k < m; ++k) s += W1[r][k] * sys[m + a][k];
                W1[r][m + a] = s;
            }
        // W2 = V T' - V Z' K'.
        for (int r = 0; r < m; ++r)
            for (int c = 0; c < m; ++c) {
                double s = 0.0;
                for (int k = 0; k < m; ++k) s += W1[r][k] * sys[c][k];
                for (int a = 0; a < N; ++a) s -= W1[r][m + a] * W1[m + a][c];
                W2[r][c] = s;
            }
        take_from_W2(m, W1, W2);
    }
    return 1;
}

}  // namespace

// ------------------------------------------------------- numeric routines

TESSEL_EXPORT int fMultiWeightPred(int N, int n, int tstar, int istar, int m, double **sys,
                                   int **sysidx, double **tvdata, double **W1, double **W2,
                                   double **store, double **out) {
    return weight_pred(N, n, tstar, istar, m, sys, sysidx, tvdata, W1, W2, store, out);
}

TESSEL_EXPORT int fUnivWeightPred(int n, int tstar, int m, double **sys, int **sysidx,
                                  double **tvdata, double **W1, double **W2, double **store,
                                  double **out) {
    return weight_pred(1, n, tstar, 0, m, sys, sysidx, tvdata, W1, W2, store, out);
}

TESSEL_EXPORT int fMultiWeightFil(int N, int n, int tstar, int istar, int m, double **sys,
                                  int **sysidx, double **tvdata, double **W1, double **W2,
                                  double **store, double **W3, double **out) {
    return weight_fil(N, n, tstar, istar, m, sys, sysidx, tvdata, W1, W2, store, W3, out);
}

TESSEL_EXPORT int fUnivWeightFil(int n, int tstar, int m, double **sys, int **sysidx,
                                 double **tvdata, double **W1, double **W2, double **store,
                                 double **W3, double **out) {
    return weight_fil(1, n, tstar, 0, m, sys, sysidx, tvdata, W1, W2, store, W3, out);
}

TESSEL_EXPORT int fMultiWeightSmo(int N, int n, int tstar, int istar, int m, double **sys,
                                  int **sysidx, double **tvdata, double **W1, double **W2,
                                  double **store, double **smo, double **W3, double **out) {
    return weight_smo(N, n, tstar, istar, m, sys, sysidx, tvdata, W1, W2, store, smo, W3, out);
}

TESSEL_EXPORT int fUnivWeightSmo(int n, int tstar, int m, double **sys, int **sysidx,
                                 double **tvdata, double **W1, double **W2, double **store,
                                 double **smo, double **W3, double **out) {
    return weight_smo(1, n, tstar, 0, m, sys, sysidx, tvdata, W1, W2, store, smo, W3, out);
}

// ------------------------------------------------------------ entry point

namespace {

constexpr int kFailed = 0;

// The target of the marker: the first element in row-major order that is
// non-zero and not NaN (also a -1 meant as "missing"); the last series at
// the last time point when there is none.
void find_target(double **marker, int N, int n, int *istar, int *tstar) {
    *istar = N - 1;
    *tstar = n - 1;
    for (int i = 0; i < N; ++i)
        for (int t = 0; t < n; ++t) {
            const double x = marker[i][t];
            if (x != 0.0 && !FIsNaN(x)) {
                *istar = i;
                *tstar = t;
                return;
            }
        }
}

// Filter, smoother and weight recursion of one LgmWeights call. Every work
// matrix is freed on return; the result code tells the caller what to report.
int compute_weights(Model &model, int selection, double **marker, int istar, int tstar,
                    double **out) {
    const int N = model.N, m = model.m, mN = model.mN, n = model.n;
    if (!model.open()) return kAllocFailed;

    Block W1, W2, store, W3, smo, ycopy;
    Buffer<double> yrow;
    if (!W1.alloc(mN + 1, mN) || !W2.alloc(mN + 2, mN) || !store.alloc(model.S, n))
        return kAllocFailed;
    if (selection != 0 &&
        (!W3.alloc(mN + 1, mN) || !smo.alloc(fit_size(2LL * mN), fit_size(n + 1LL))))
        return kAllocFailed;
    if (N == 1 ? !yrow.alloc(static_cast<std::size_t>(n)) : !ycopy.alloc(N, n)) return kAllocFailed;
    double *mean = W2[mN + 1];
    model.fill_mean(mean);

    // Observations as the filter sees them: -1 marks a missing element.
    for (int i = 0; i < N; ++i) {
        double *dst = N == 1 ? yrow.get() : ycopy[i];
        for (int t = 0; t < n; ++t) {
            const double x = marker[i][t];
            if (x == -1.0)
                SetNaN(&dst[t]);
            else
                dst[t] = x;
        }
    }

    double **sys = model.sys(), **var = model.var();
    double **y = ycopy.get();
    double *y1 = yrow.get();
    int ok;
    if (N == 1)
        ok = fUnivKalmanFil(n, y1, m, sys, var, mean, model.sysidx, model.varidx, model.meanidx,
                            model.tvdata, model.init, W1.get(), W2.get(), store.get(), nullptr,
                            nullptr, nullptr);
    else
        ok = fMultiKalmanFil(N, n, y, m, sys, var, mean, model.sysidx, model.varidx, model.meanidx,
                             model.tvdata, model.init, W1.get(), W2.get(), store.get(), nullptr,
                             nullptr, nullptr);
    if (ok != 1) return kFailed;

    if (selection == 1 || selection == 3) {
        if (N == 1)
            UnivKalmanSmo(n, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(), store.get(),
                          nullptr, smo.get());
        else
            MultiKalmanSmo(N, n, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(),
                           store.get(), nullptr, smo.get());
    }

    switch (selection) {
        case 0:
            ok = N == 1 ? fUnivWeightPred(n, tstar, m, sys, model.sysidx, model.tvdata, W1.get(),
                                          W2.get(), store.get(), out)
                        : fMultiWeightPred(N, n, tstar, istar, m, sys, model.sysidx, model.tvdata,
                                           W1.get(), W2.get(), store.get(), out);
            return ok == 0 ? kFailed : kOk;
        case 1:
        case 5:
            // P(t*) and a(t*) into W3: the filter over the points before t*. For
            // one series its result is not consulted.
            if (N == 1) {
                fUnivKalmanFil(tstar, y1, m, sys, var, mean, model.sysidx, model.varidx,
                               model.meanidx, model.tvdata, model.init, W3.get(), W2.get(), nullptr,
                               nullptr, nullptr, nullptr);
            } else if (fMultiKalmanFil(N, tstar, y, m, sys, var, mean, model.sysidx, model.varidx,
                                       model.meanidx, model.tvdata, model.init, W3.get(), W2.get(),
                                       nullptr, nullptr, nullptr, nullptr) != 1) {
                return kFailed;
            }
            if (selection == 1) {
                if (N == 1)
                    fUnivWeightSmo(n, tstar, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(),
                                   store.get(), smo.get(), W3.get(), out);
                else
                    fMultiWeightSmo(N, n, tstar, istar, m, sys, model.sysidx, model.tvdata,
                                    W1.get(), W2.get(), store.get(), smo.get(), W3.get(), out);
            } else {
                if (N == 1)
                    fUnivWeightFil(n, tstar, m, sys, model.sysidx, model.tvdata, W1.get(), W2.get(),
                                   store.get(), W3.get(), out);
                else
                    fMultiWeightFil(N, n, tstar, istar, m, sys, model.sysidx, model.tvdata,
                                    W1.get(), W2.get(), store.get(), W3.get(), out);
            }
            return kOk;
        default:
            // Selection 3: the return value goes back as the host allocated it.
            return kOk;
    }
}

}  // namespace

TESSEL_EXPORT void FnLgmWeights(ZuValue *rtn, ZuValue *args, int nargs) {
    int selection = 0;
    if (nargs >= 1) {
        ZuLibCheckType(ZU_INT, args, 0, 0);
        selection = args[0].v.ival;
        if (selection != 0 && selection != 1 && selection != 3 && selection != 5) {
            ZuRunErrorMessage("LgmWeights(): no valid selection in first argument");
            return;
        }
    }
    Model model;
    model.check(FrameVariant::InPlace, args, nargs, 1, 0);
    if (!make_matrix_value(rtn, model.mN, model.n)) {
        set_int(rtn, 0);
        ZuRunError(4, nullptr);
        return;
    }
    int istar = 0, tstar = 0;
    find_target(args[1].v.mat.data, model.N, model.n, &istar, &tstar);

    const int code =
        compute_weights(model, selection, args[1].v.mat.data, istar, tstar, rtn->v.mat.data);
    model.close();
    if (code == kOk) return;
    set_int(rtn, 0);
    if (code == kAllocFailed)
        ZuRunError(4, nullptr);
    else
        ZuRunErrorMessage("LgmWeights(): unknown error");
}
