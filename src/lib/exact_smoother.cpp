// exact_smoother.cpp - exact state and disturbance smoothing and the fast
// (means only) state smoother over an exact store.
//
// From diffuse_end on the store is the ordinary filter's, and the ordinary
// backward passes (UnivStateSmo / MultiStateSmo, UnivDisturbSmo /
// MultiDisturbSmo: the same code as the entry points') run over those
// columns; they leave r and N before diffuse_end. Through the diffuse period
// the smoothed mean and variance of the joint vector x = (alpha(t+1), y(t))
// are, in the limit,
//   x + Pbar_* r0 + Pbar_inf r1,   Pbar_* - Pbar_* N0 Pbar_* - Pbar_inf N1
//   Pbar_* - Pbar_* N1 Pbar_inf - Pbar_inf N2 Pbar_inf,
// with r = r0 + r1/kappa and N = N0 + N1/kappa + N2/kappa^2 expanded in the
// ordinary recursions r <- e v/F + L'r, N <- e e'/F + L'N L of the elements
// taken backwards (L = I - k e', e the unit vector of y_i). For a diffuse
// element (1/F = 1/(kappa F_inf) - F_*/(kappa F_inf)^2 + ...,
// k = K0 + K1/kappa, L0 = I - K0 e', L1 = -K1 e'):
//   r0 <- L0'r0,  r1 <- e v/F_inf + L0'r1 + L1'r0,
//   N0 <- L0'N0 L0,  N1 <- e e'/F_inf + L0'N1 L0 + L1'N0 L0 + L0'N0 L1,
//   N2 <- -e e' F_*/F_inf^2 + L0'N2 L0 + L1'N1 L0 + L0'N1 L1 + L1'N0 L1;
// for an ordinary element (F_inf = 0) r0 and N0 take the ordinary step and
// r1, N1, N2 the same L alone. Row and column j of the joint matrices are
// zero until element j is taken and K0_j = 1, so each step writes row and
// column j only. The state's quantities follow by r(t-1) = SysMat' r and
// N(t-1) = SysMat' N SysMat (all three parts), the disturbances' by VarMat
// (the disturbances carry no diffuse part, so r0 and N0 alone).
#include <cmath>

#include "exact.h"
#include "filter_step.h"
#include "smoothing_steps.h"

using namespace tessel;

namespace {

enum Level { kMeans, kDisturbances, kStates };

// ret[k] = N[A][A] K over the remaining elements of series i (a_i of them).
void product(double **N, const double *K, int m, int i, int na, double *ret) {
    for (int k = 0; k < na; ++k) {
        const double *row = N[joint_index(m, i, k)];
        double acc = 0.0;
        for (int l = 0; l < na; ++l) acc += row[joint_index(m, i, l)] * K[l];
        ret[k] = acc;
    }
}
double dot(const double *x, const double *y, int n) {
    double acc = 0.0;
    for (int k = 0; k < n; ++k) acc += x[k] * y[k];
    return acc;
}
// Row and column j of N: -(x + y) over the remaining elements, diag on j.
void set_cross(double **N, int m, int i, int na, const double *x, const double *y, double diag) {
    const int j = m + i;
    for (int k = 0; k < na; ++k) {
        const int jk = joint_index(m, i, k);
        N[j][jk] = N[jk][j] = -(x[k] + (y ? y[k] : 0.0));
    }
    N[j][j] = diag;
}

// The backward recursion through the diffuse period, t = td-1 .. 0, from
// r(td-1) in W1 row p and (level > kMeans) N(td-1) in W1's top-left block,
// as the ordinary passes leave them. at_joint(t) sees the joint r0 and N0 of
// time t (vec[0], w.N0), at_state(t) the state's r0, r1 (W1 row p, vec[2])
// and N0, N1, N2 (W1, Pi, W2 top-left) before time t.
template <class AtJoint, class AtState>
void diffuse_backward(LgmExactModel *rec, int td, const ExactWork &w, double **store, Level level,
                      AtJoint &&at_joint, AtState &&at_state) {
    const int N = rec->N, m = rec->m, p = m + N;
    double **sys = rec->sys;
    double *r0j = w.vec[0], *r1j = w.vec[1], *r0 = w.W1[p], *r1 = w.vec[2];
    double *K0 = w.vec[3], *K1 = w.vec[4], *w0 = w.vec[5], *z0 = w.vec[6], *w1 = w.vec[7],
           *z1 = w.vec[8], *w2 = w.vec[9];
    double **Ns[3] = {w.W1, w.Pi, w.W2}, **Nj[3] = {w.N0, w.N1, w.N2};
    const int nmat = level == kStates ? 3 : level == kDisturbances ? 1 : 0;
    for (int k = 0; k < m; ++k) r1[k] = 0.0;
    for (int q = 1; q < nmat; ++q) MatZero(Ns[q], m, m);

    for (int t = td - 1; t >= 0; --t) {
        exact_time_varying(rec, t, true, true, false);
        for (int k = 0; k < p; ++k) {
            r0j[k] = k < m ? r0[k] : 0.0;
            r1j[k] = k < m ? r1[k] : 0.0;
        }
        for (int q = 0; q < nmat; ++q)
            for (int k = 0; k < p; ++k)
                for (int l = 0; l < p; ++l) Nj[q][k][l] = k < m && l < m ? Ns[q][k][l] : 0.0;

        for (int i = N - 1; i >= 0; --i) {
            const int base = diffuse_block(N, m, i), na = p - 1 - i, j = m + i;
            const double v = store[base][t], Fi = store[base + 1][t], Fs = store[base + 2][t];
            if (std::isnan(v) || (Fi == 0.0 && Fs == 0.0)) continue;
            double s0 = 0.0, s1 = 0.0, s2 = 0.0;
            for (int k = 0; k < na; ++k) {
                const int jk = joint_index(m, i, k);
                K0[k] = store[base + 3 + k][t];
                K1[k] = store[base + 3 + na + k][t];
                s0 += K0[k] * r0j[jk];
                s1 += K1[k] * r0j[jk];
                s2 += K0[k] * r1j[jk];
            }
            const bool diffuse = Fi > 0.0;
            r0j[j] = diffuse ? -s0 : v / Fs - s0;
            r1j[j] = diffuse ? v / Fi - s2 - s1 : -s2;
            if (nmat == 0) continue;
            product(w.N0, K0, m, i, na, w0);
            const double c0 = dot(K0, w0, na);
            if (nmat == 1) {
                set_cross(w.N0, m, i, na, w0, nullptr, diffuse ? c0 : c0 + 1.0 / Fs);
                continue;
            }
            product(w.N1, K0, m, i, na, w1);
            product(w.N2, K0, m, i, na, w2);
            if (diffuse) {
                product(w.N0, K1, m, i, na, z0);
                product(w.N1, K1, m, i, na, z1);
                const double k1w0 = dot(K1, w0, na), k1w1 = dot(K1, w1, na), k1z0 = dot(K1, z0, na);
                set_cross(w.N0, m, i, na, w0, nullptr, c0);
                set_cross(w.N1, m, i, na, w1, z0, dot(K0, w1, na) + 1.0 / Fi + 2.0 * k1w0);
                set_cross(w.N2, m, i, na, w2, z1,
                          dot(K0, w2, na) - Fs / (Fi * Fi) + 2.0 * k1w1 + k1z0);
            } else {
                set_cross(w.N0, m, i, na, w0, nullptr, c0 + 1.0 / Fs);
                set_cross(w.N1, m, i, na, w1, nullptr, dot(K0, w1, na));
                set_cross(w.N2, m, i, na, w2, nullptr, dot(K0, w2, na));
            }
        }
        at_joint(t);
        for (int k = 0; k < m; ++k) {
            double a0 = 0.0, a1 = 0.0;
            for (int l = 0; l < p; ++l) {
                a0 += sys[l][k] * r0j[l];
                a1 += sys[l][k] * r1j[l];
            }
            r0[k] = a0;
            r1[k] = a1;
        }
        for (int q = 0; q < nmat; ++q) MatBtSB(sys, p, Nj[q], m, Ns[q]);
        at_state(t);
    }
}

// The ordinary passes' views of columns td.. (store rows S, out rows, the
// state record's rows, TvData).
struct Segment {
    Views views;
    double **store = nullptr, **out = nullptr, **pred = nullptr, **tv = nullptr;
    bool open(const LgmExactModel *rec, int td, double **st, double **o, int orows,
              double **states) {
        const int N = rec->N, m = rec->m, p = m + N;
        const int S = N + m * N + N * (N + 1) / 2, srows = 2 * p + m * (m - 1) / 2;
        if (!views.alloc(S + orows + srows + rec->tvrows)) return false;
        store = views.shift(st, S, td);
        out = views.shift(o, orows, td);
        pred = views.shift(states, srows, td);
        tv = views.shift(rec->tvdata, rec->tvrows, td);
        return true;
    }
};

// u~ = (r; F^-1 v - K' r) of an ordinary store column.
void ordinary_u(double **store, int N, int m, int t, const double *r, double *u) {
    for (int k = 0; k < m; ++k) u[k] = r[k];
    for (int i = 0; i < N; ++i) {
        double acc = 0.0;
        for (int k = 0; k < N; ++k) {
            const int lo = k < i ? k : i, hi = k < i ? i : k;
            acc += store[store_block(N, m, hi) + m + lo][t] * store[k][t];
        }
        const int base = store_block(N, m, i);
        for (int k = 0; k < m; ++k) acc -= store[base + k][t] * r[k];
        u[m + i] = acc;
    }
}

}  // namespace

TESSEL_EXPORT int StateSmoExact(LgmExactModel *rec, int diffuse_end, double **work, double **store,
                                double **states, double **out) {
    const int N = rec->N, m = rec->m, n = rec->n, p = m + N, td = diffuse_end;
    const ExactWork w = exact_work(work, m, N);
    Segment seg;
    if (!seg.open(rec, td, store, out, 2 * p, states)) return 0;
    const int T = n - td;
    if (N == 1)
        UnivStateSmo(T, m, rec->sys, rec->sysidx, seg.tv, w.W1, w.W2, seg.store, seg.pred,
                     seg.pred + 2 * p, seg.out);
    else
        MultiStateSmo(N, T, m, rec->sys, rec->sysidx, seg.tv, w.W1, w.W2, seg.store, seg.pred,
                      seg.pred + 2 * p, seg.out);
    if (td == 0) return 1;

    double **Ps = w.X, **Pf = w.Y, **B1 = w.N0, **B2 = w.N1, **V = w.N2;
    double *ah = w.vec[10];
    double **off = states + 2 * p, **inf = off + m * (m - 1) / 2;
    auto at_state = [&](int t) {
        double **N0 = w.W1, **N1 = w.Pi, **N2 = w.W2;
        const double *r0 = w.W1[p], *r1 = w.vec[2];
        int ro = 0, ri = 0;
        for (int k = 0; k < m; ++k) {
            Ps[k][k] = states[p + k][t];
            for (int j = k + 1; j < m; ++j, ++ro) Ps[k][j] = Ps[j][k] = off[ro][t];
            for (int j = k; j < m; ++j, ++ri) Pf[k][j] = Pf[j][k] = inf[ri][t];
        }
        // alpha^ = a + P_* r0 + P_inf r1; V = P_* - P_* B1 - P_inf B2 with
        // B1 = N0 P_* + N1 P_inf, B2 = N1 P_* + N2 P_inf.
        for (int k = 0; k < m; ++k) {
            double acc = states[k][t];
            for (int j = 0; j < m; ++j) acc += Ps[k][j] * r0[j] + Pf[k][j] * r1[j];
            ah[k] = acc;
            for (int j = 0; j < m; ++j) {
                double b1 = 0.0, b2 = 0.0;
                for (int l = 0; l < m; ++l) {
                    b1 += N0[k][l] * Ps[l][j] + N1[k][l] * Pf[l][j];
                    b2 += N1[k][l] * Ps[l][j] + N2[k][l] * Pf[l][j];
                }
                B1[k][j] = b1;
                B2[k][j] = b2;
            }
        }
        for (int k = 0; k < m; ++k)
            for (int j = 0; j < m; ++j) {
                double acc = Ps[k][j];
                for (int l = 0; l < m; ++l) acc -= Ps[k][l] * B1[l][j] + Pf[k][l] * B2[l][j];
                V[k][j] = acc;
            }
        for (int k = 0; k < m; ++k) {
            out[k][t] = ah[k];
            out[p + k][t] = V[k][k];
        }
        for (int i = 0; i < N; ++i) {
            const double *z = rec->sys[m + i];
            double mean = 0.0, var = 0.0;
            for (int k = 0; k < m; ++k) {
                mean += z[k] * ah[k];
                double zv = 0.0;
                for (int j = 0; j < m; ++j) zv += V[k][j] * z[j];
                var += z[k] * zv;
            }
            out[m + i][t] = mean;
            out[2 * m + N + i][t] = var;
        }
    };
    diffuse_backward(
        rec, td, w, store, kStates, [](int) {}, at_state);
    return 1;
}

TESSEL_EXPORT int DistSmoExact(LgmExactModel *rec, int diffuse_end, double **work, double **store,
                               double **out) {
    const int N = rec->N, m = rec->m, n = rec->n, p = m + N, td = diffuse_end;
    const ExactWork w = exact_work(work, m, N);
    Segment seg;
    if (!seg.open(rec, td, store, out, 2 * p, nullptr)) return 0;
    const int T = n - td;
    if (N == 1)
        UnivDisturbSmo(T, m, rec->sys, rec->var, rec->sysidx, rec->varidx, seg.tv, w.W1, w.W2,
                       seg.store, seg.out);
    else
        MultiDisturbSmo(N, T, m, rec->sys, rec->var, rec->sysidx, rec->varidx, seg.tv, w.W1, w.W2,
                        seg.store, seg.out);
    // The ordinary passes give the reduction VarMat D~ VarMat: the variance
    // is VarMat's diagonal less it.
    for (int t = td; t < n; ++t) {
        exact_time_varying(rec, t, false, true, false);
        for (int k = 0; k < p; ++k) out[p + k][t] = rec->var[k][k] - out[p + k][t];
    }
    if (td == 0) return 1;
    double **var = rec->var;
    const double *r0j = w.vec[0];
    auto at_joint = [&](int t) {
        for (int k = 0; k < p; ++k) {
            const double *vk = var[k];
            double mean = 0.0, red = 0.0;
            for (int l = 0; l < p; ++l) {
                mean += vk[l] * r0j[l];
                double nv = 0.0;
                for (int q = 0; q < p; ++q) nv += w.N0[l][q] * var[q][k];
                red += vk[l] * nv;
            }
            out[k][t] = mean;
            out[p + k][t] = vk[k] - red;
        }
    };
    // The ordinary pass left N(td-1) over r(td-1) in W1.
    diffuse_backward(rec, td, w, store, kDisturbances, at_joint, [](int) {});
    return 1;
}

TESSEL_EXPORT void QuickStateSmo(LgmExactModel *rec, int diffuse_end, double **work, double **store,
                                 double **out) {
    const int N = rec->N, m = rec->m, n = rec->n, p = m + N, td = diffuse_end;
    const ExactWork w = exact_work(work, m, N);
    double *r = w.W1[p], *u = w.vec[11];
    double **eps = out + m;  // rows m..2m+N-1: the disturbances
    for (int k = 0; k < m; ++k) r[k] = 0.0;
    // Ordinary part: u~ = (r; F^-1 v - K' r), disturbances VarMat u~, r <-
    // SysMat' u~.
    for (int t = n - 1; t >= td; --t) {
        exact_time_varying(rec, t, true, true, false);
        ordinary_u(store, N, m, t, r, u);
        for (int k = 0; k < p; ++k) eps[k][t] = dot(rec->var[k], u, p);
        for (int k = 0; k < m; ++k) {
            double acc = 0.0;
            for (int l = 0; l < p; ++l) acc += rec->sys[l][k] * u[l];
            r[k] = acc;
        }
    }
    const double *r0j = w.vec[0];
    auto at_joint = [&](int t) {
        for (int k = 0; k < p; ++k) eps[k][t] = dot(rec->var[k], r0j, p);
    };
    diffuse_backward(rec, td, w, store, kMeans, at_joint, [](int) {});
    // alpha^(0) = a0 + P_* r0 + P_inf r1 before the first time point, then
    // alpha^(t+1) = c + T alpha^(t) + eta^(t).
    const double *r1 = w.vec[2];
    double *alpha = w.vec[10];
    for (int k = 0; k < m; ++k) {
        double acc = rec->a0[k] + (td > 0 && rec->diffuse[k] ? r1[k] : 0.0);
        for (int j = 0; j < m; ++j) acc += rec->P0[k][j] * r[j];
        alpha[k] = acc;
    }
    for (int t = 0; t < n; ++t) {
        exact_time_varying(rec, t, true, false, true);
        for (int k = 0; k < m; ++k) out[k][t] = alpha[k];
        for (int k = 0; k < m; ++k) {
            double acc = rec->mean[k] + eps[k][t];
            for (int j = 0; j < m; ++j) acc += rec->sys[k][j] * out[j][t];
            alpha[k] = acc;
        }
    }
}

TESSEL_EXPORT int fLgmExactScore(LgmExactModel *rec, int diffuse_end, double **work, double **store,
                                 double **S) {
    const int N = rec->N, m = rec->m, n = rec->n, p = m + N, td = diffuse_end;
    const ExactWork w = exact_work(work, m, N);
    Segment seg;
    if (!seg.open(rec, td, store, nullptr, 0, nullptr)) return 0;
    if (N == 1)
        UnivKalmanSmo(n - td, m, rec->sys, rec->sysidx, seg.tv, w.W1, w.W2, seg.store, S, nullptr);
    else
        MultiKalmanSmo(N, n - td, m, rec->sys, rec->sysidx, seg.tv, w.W1, w.W2, seg.store, S,
                       nullptr);
    // The diffuse steps add their kappa^0 part, r0 r0' - N0 (VarMat enters
    // the exact likelihood through P_* alone).
    const double *r0j = w.vec[0];
    auto at_joint = [&](int) {
        for (int i = 0; i < p; ++i)
            for (int j = 0; j < p; ++j) S[i][j] += r0j[i] * r0j[j] - w.N0[i][j];
    };
    diffuse_backward(rec, td, w, store, kDisturbances, at_joint, [](int) {});
    return 1;
}
