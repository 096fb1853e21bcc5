// exact_filter.cpp - the exact initial Kalman filter (fKalmanExact) and its
// mean pass for new data (fKalmanExactMean).
//
// The initial variance is P_* + kappa P_inf; both parts are carried apart,
// kappa -> infinity taken exactly. At time t the ordinary step's joint
// prediction x = mean + SysMat a of (alpha(t+1), y(t)) has the two variances
//   Pbar_* = SysMat P_* SysMat' + VarMat,   Pbar_inf = SysMat P_inf SysMat',
// and the observed elements y_i(t) are conditioned on one at a time (series
// order). Conditioning on the joint vector takes the correlations of the
// observation noise among the series and with the state noise of the same
// time point along: after y_i, the later series and alpha(t+1) are those of
// the model with the noise decorrelated (y_o = L e, V_o = L D L') and the
// state noise conditioned on it (transition T - C V_o^-1 Z_o, input
// C V_o^-1 (y_o - d_o), variance Q - C V_o^-1 C'). For element i, with
// F_inf, F_* its two variances and M_inf, M_* its covariances with the
// elements still to come:
//   F_inf > 0 (a diffuse step; log F_inf enters the likelihood):
//     K0 = M_inf / F_inf, K1 = (M_* - K0 F_*) / F_inf, x += K0 v,
//     Pbar_* += K0 K0' F_* - K0 M_*' - M_* K0', Pbar_inf -= K0 M_inf';
//   F_inf = 0 (M_inf = 0 with it): the ordinary update with F_*.
// The top-left blocks are then P_*(t+1) and P_inf(t+1). Once P_inf is zero
// the ordinary filter (fUnivKalmanFil / fMultiKalmanFil, the same code as
// the entry points') continues from a(t+1), P_*(t+1).
#include <cmath>

#include "exact.h"
#include "filter_step.h"

using namespace tessel;

namespace {

// Upper triangles of the state record: P_* from row 2p (k < j), P_inf (with
// its diagonal) after it.
void record_state(int m, int p, int t, double **W1, double **Pi, double **states) {
    double **off = states + 2 * p;
    double **inf = off + m * (m - 1) / 2;
    int r = 0, q = 0;
    for (int k = 0; k < m; ++k) {
        states[k][t] = W1[p][k];
        states[p + k][t] = W1[k][k];
        for (int j = k + 1; j < m; ++j) off[r++][t] = W1[k][j];
        for (int j = k; j < m; ++j) inf[q++][t] = Pi ? Pi[k][j] : 0.0;
    }
}

// x = mean + SysMat a; W1 = Pbar_*; Pi = Pbar_inf.
void diffuse_prior(StepFrame &f, const LgmExactModel *rec, const ExactWork &w) {
    const int m = rec->m, p = m + rec->N;
    step_prior(f, m, p, rec->sys, rec->var, rec->mean, w.W1, w.W2, false);
    if (f.ok) {
        step_joint_variance(f, rec->sys, w.Pi, nullptr, w.Pi);
    } else {
        MatBSBt(rec->sys, p, w.Pi, m, w.X);
        for (int i = 0; i < p; ++i)
            for (int j = 0; j < p; ++j) w.Pi[i][j] = w.X[i][j];
    }
}

// The ordinary recursion over t0..n-1 from a(t0) (W1 row p) and P(t0) (W1
// top-left): the filter into store columns t0.. and the likelihood pieces;
// with states, the prediction pass writes the store and the state record.
int ordinary_pass(LgmExactModel *rec, double **y, int t0, const ExactWork &w, double **store,
                  double **states, LgmExactLik *lik) {
    const int N = rec->N, m = rec->m, n = rec->n, p = m + N;
    const int S = N + m * N + N * (N + 1) / 2;
    const int srows = 2 * p + m * (m - 1) / 2;
    for (int k = 0; k < m; ++k) {
        for (int j = 0; j < m; ++j) w.init[k][j] = w.W1[k][j];
        // The start is proper: a diagonal that rounding took below 0 is 0.
        if (!(w.init[k][k] >= 0.0)) w.init[k][k] = 0.0;
        w.init[m][k] = w.W1[p][k];
    }
    int observed = 0;
    for (int t = t0; t < n; ++t)
        for (int i = 0; i < N; ++i) observed += std::isnan(y[i][t]) ? 0 : 1;

    Views views;
    if (!views.alloc(N + S + srows + rec->tvrows)) return 0;
    double **ys = views.shift(y, N, t0), **ss = views.shift(store, S, t0);
    double **st = views.shift(states, srows, t0), **tv = views.shift(rec->tvdata, rec->tvrows, t0);
    const int T = n - t0;
    double logdet = 0.0, sumsq = 0.0;
    int cnt = 0;
    int rc = N == 1
                 ? univ_kalman_filter(T, ys[0], m, rec->sys, rec->var, rec->mean, rec->sysidx,
                                      rec->varidx, rec->meanidx, tv, w.init, w.W1, w.W2,
                                      states ? nullptr : ss, &logdet, &sumsq, &cnt, true, nullptr)
                 : multi_kalman_filter(N, T, ys, m, rec->sys, rec->var, rec->mean, rec->sysidx,
                                       rec->varidx, rec->meanidx, tv, w.init, w.W1, w.W2,
                                       states ? nullptr : ss, &logdet, &sumsq, &cnt, true, nullptr);
    if (observed == 0) rc = 1;  // nothing to count: not a failure
    if (rc != 1) return 0;
    lik->nobs += observed;
    lik->cnt += cnt;
    lik->logdet += logdet;
    lik->sumsq += sumsq * cnt;
    if (states) {
        rc = N == 1 ? fUnivStatePred(0, T, ys[0], m, rec->sys, rec->var, rec->mean, rec->sysidx,
                                     rec->varidx, rec->meanidx, tv, w.init, w.W1, w.W2, ss, st,
                                     st + 2 * p)
                    : fMultiStatePred(0, N, T, ys, m, rec->sys, rec->var, rec->mean, rec->sysidx,
                                      rec->varidx, rec->meanidx, tv, w.init, w.W1, w.W2, ss, st,
                                      st + 2 * p);
        if (rc != 1) return 0;
        double **inf = states + srows;
        for (int r = 0; r < m * (m + 1) / 2; ++r)
            for (int t = t0; t < n; ++t) inf[r][t] = 0.0;
    }
    // A time point with every element missing: v = 0 rather than NaN (its
    // zero inverse variances mark it), so that the backward passes carry
    // nothing but the transition through it.
    if (store)
        for (int t = t0; t < n; ++t)
            if (std::isnan(store[0][t]))
                for (int i = 0; i < N; ++i) store[i][t] = 0.0;
    return 1;
}

}  // namespace

TESSEL_EXPORT int fKalmanExact(LgmExactModel *rec, double **y, double **work, double **store,
                               double **states, LgmExactLik *lik) {
    const int N = rec->N, m = rec->m, n = rec->n, p = m + N;
    const ExactWork w = exact_work(work, m, N);
    double **W1 = w.W1, **Pi = w.Pi;
    double *a = W1[p], *x = w.W2[p];
    double *K0 = w.vec[0], *K1 = w.vec[1], *Mi = w.vec[2], *Ms = w.vec[3];
    *lik = LgmExactLik();
    auto finish = [&](int rc) {
        lik->loglik = -0.5 * (lik->cnt * std::log(kTwoPi) + lik->logdet + lik->sumsq);
        return rc;
    };

    MatZero(W1, p + 1, p);
    MatZero(Pi, p, p);
    for (int k = 0; k < m; ++k) {
        a[k] = rec->a0[k];
        for (int j = 0; j < m; ++j) W1[k][j] = rec->P0[k][j];
        Pi[k][k] = rec->diffuse[k];
    }
    StepFrame frame;
    build_pattern(frame, rec->sys, rec->sysidx, p, m, rec->var, rec->varidx);

    // sP[k]: the largest P_inf[k][k] met so far, the scale of the tests
    // (in the units of state k, so that the tests do not depend on them).
    double *sP = w.vec[4];
    for (int k = 0; k < m; ++k) sP[k] = rec->diffuse[k];
    bool diffuse = rec->d > 0;
    int t = 0;
    for (; t < n && diffuse; ++t) {
        exact_time_varying(rec, t, true, true, true);
        if (states) record_state(m, p, t, W1, Pi, states);
        for (int k = 0; k < m; ++k) sP[k] = std::fmax(sP[k], Pi[k][k]);
        diffuse_prior(frame, rec, w);
        if (states)
            for (int i = 0; i < N; ++i) {
                states[m + i][t] = x[m + i];
                states[2 * m + N + i][t] = W1[m + i][m + i];
            }

        for (int i = 0; i < N; ++i) {
            const int j = m + i, na = p - 1 - i;
            const int base = diffuse_block(N, m, i);
            auto put = [&](int r, double v) {
                if (store) store[base + r][t] = v;
            };
            if (std::isnan(y[i][t])) {
                if (store) {
                    SetNaN(&store[base][t]);
                    for (int r = 1; r < 3 + 2 * na; ++r) store[base + r][t] = 0.0;
                }
                continue;
            }
            ++lik->nobs;
            const double v = y[i][t] - x[j], Fi = Pi[j][j], Fs = W1[j][j];
            // The largest Z_i P_inf Z_i' the diffuse elements could give.
            double scale = 0.0;
            for (int k = 0; k < m; ++k) scale += rec->sys[j][k] * rec->sys[j][k] * sP[k];
            for (int k = 0; k < na; ++k) {
                const int jk = joint_index(m, i, k);
                Mi[k] = Pi[jk][j];
                Ms[k] = W1[jk][j];
            }
            if (scale > 0.0 && Fi > kDiffuseTol * scale) {
                for (int k = 0; k < na; ++k) {
                    K0[k] = Mi[k] / Fi;
                    K1[k] = (Ms[k] - K0[k] * Fs) / Fi;
                }
                for (int k = 0; k < na; ++k) {
                    const int jk = joint_index(m, i, k);
                    x[jk] += K0[k] * v;
                    for (int l = k; l < na; ++l) {
                        const int jl = joint_index(m, i, l);
                        const double ps =
                            W1[jk][jl] + K0[k] * K0[l] * Fs - K0[k] * Ms[l] - Ms[k] * K0[l];
                        const double pi = Pi[jk][jl] - K0[k] * Mi[l];
                        W1[jk][jl] = W1[jl][jk] = ps;
                        Pi[jk][jl] = Pi[jl][jk] = pi;
                    }
                }
                lik->logdet += std::log(Fi);
                ++lik->d;
                put(1, Fi);
            } else if (Fs > 0.0) {
                for (int k = 0; k < na; ++k) {
                    K0[k] = Ms[k] / Fs;
                    K1[k] = 0.0;
                }
                for (int k = 0; k < na; ++k) {
                    const int jk = joint_index(m, i, k);
                    x[jk] += K0[k] * v;
                    for (int l = k; l < na; ++l) {
                        const int jl = joint_index(m, i, l);
                        W1[jk][jl] = W1[jl][jk] = W1[jk][jl] - K0[k] * Ms[l];
                    }
                }
                lik->logdet += std::log(Fs);
                lik->sumsq += v * v / Fs;
                ++lik->cnt;
                put(1, 0.0);
            } else if (Fs == 0.0) {
                // Neither part varies: the element carries no information.
                for (int k = 0; k < na; ++k) K0[k] = K1[k] = 0.0;
                put(1, 0.0);
            } else {
                return finish(0);
            }
            put(0, v);
            put(2, Fs);
            for (int k = 0; k < na; ++k) {
                put(3 + k, K0[k]);
                put(3 + na + k, K1[k]);
            }
        }
        for (int k = 0; k < m; ++k) a[k] = x[k];
        // P_inf is positive semi-definite: a vanishing diagonal carries its
        // rows with it.
        diffuse = false;
        for (int k = 0; k < m; ++k) diffuse |= !(Pi[k][k] <= kDiffuseTol * sP[k]);
    }
    lik->diffuse_end = t;
    if (diffuse) return finish(0);  // P_inf still there at the end
    if (t < n && !ordinary_pass(rec, y, t, w, store, states, lik)) return finish(0);
    return finish(1);
}

TESSEL_EXPORT int fKalmanExactMean(LgmExactModel *rec, double **y, int diffuse_end, double **work,
                                   double **store, double *sumsq) {
    const int N = rec->N, m = rec->m, n = rec->n, p = m + N;
    const ExactWork w = exact_work(work, m, N);
    double *a = w.vec[0], *x = w.vec[1], *v = w.vec[2];
    StepFrame frame;
    build_pattern(frame, rec->sys, rec->sysidx, p, m);
    for (int k = 0; k < m; ++k) a[k] = rec->a0[k];
    double ss = 0.0;
    for (int t = 0; t < n; ++t) {
        exact_time_varying(rec, t, true, false, true);
        exact_predict(frame, rec, a, x);
        if (t < diffuse_end) {
            for (int i = 0; i < N; ++i) {
                const int base = diffuse_block(N, m, i), na = p - 1 - i;
                const bool missing = std::isnan(y[i][t]);
                if (missing != std::isnan(store[base][t])) return 0;
                if (missing) continue;
                const double vi = y[i][t] - x[m + i];
                const double Fi = store[base + 1][t], Fs = store[base + 2][t];
                for (int k = 0; k < na; ++k) x[joint_index(m, i, k)] += store[base + 3 + k][t] * vi;
                if (Fi == 0.0 && Fs > 0.0) ss += vi * vi / Fs;
                store[base][t] = vi;
            }
            for (int k = 0; k < m; ++k) a[k] = x[k];
            continue;
        }
        for (int i = 0; i < N; ++i) {
            const bool missing = ordinary_missing(store, N, m, i, t);
            if (missing != std::isnan(y[i][t])) return 0;
            v[i] = missing ? 0.0 : y[i][t] - x[m + i];
            store[i][t] = v[i];
        }
        for (int k = 0; k < m; ++k) a[k] = x[k];
        for (int i = 0; i < N; ++i) {
            const int base = store_block(N, m, i);
            for (int k = 0; k < m; ++k) a[k] += store[base + k][t] * v[i];
            double q = store[base + m + i][t] * v[i];
            for (int k = 0; k < i; ++k) q += 2.0 * store[base + m + k][t] * v[k];
            ss += q * v[i];
        }
    }
    if (sumsq) *sumsq = ss;
    return 1;
}
