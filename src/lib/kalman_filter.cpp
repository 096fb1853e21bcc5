// kalman_filter.cpp - the forward Kalman filter, multivariate (N >= 2) and
// single-series (N = 1), writing the filter store that the backward passes
// read and the pieces of the Gaussian log-likelihood.
//
// Both filters work on the stacked system: with P the state variance,
//   Pbar = SysMat P SysMat' + VarMat = [ T P T' + HH'   M ]
//                                      [ M'             F ]
// where M = T P Z' + H G' and F = Z P Z' + G G' is the innovation variance.
// The filter state lives in the caller's work matrix W1: rows 0..m+N-1 hold
// P (top-left m x m) and, during a step, the whole Pbar; row m+N holds the
// state a (columns 0..m-1) and the innovations v (columns m..m+N-1). W2 rows
// 0..m+N-1 are scratch for SysMat P SysMat', row m+N the prediction and row
// m+N+1 the mean.
//
// Diffuse initial elements get the variance kappa; d log(kappa) is taken off
// the log-determinant and d off the count of usable observations, so the
// likelihood is that of the observations beyond the d needed to pin down the
// diffuse elements.
//
// Steady state: the variance recursion does not depend on the data values.
// With SysMat and VarMat fixed over time, a step with every element observed
// is a fixed function of P(t) that yields Pbar, the gain, F^-1 and P(t+1).
// Once such steps have returned to an earlier input bit for bit (P(t+1) =
// P(t), or, as rounding often settles, P(t+1) = P(t-q+1) for a short cycle
// of q <= 4 steps), every following step with every element observed would
// repeat the same cycle exactly; those steps run only the mean recursion
// with the saved quantities, and the results are the same bit for bit as the
// full recursion's. A step with a missing element leaves the steady state.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "filter_step.h"

using namespace tessel;

namespace {

// Detects that the variance recursion of a fixed model has become periodic
// with period 1 or 2, bit for bit, and replays the cycle. Holds, for the
// last two full steps with every element observed, the input P and the whole
// top block of W1 that the step left (P(t+1), gain, F^-1, M) with its log
// term.
class SteadyState {
public:
    enum { kMaxOrder = 16, kMaxPeriod = 4 };

    SteadyState(bool allowed, int m, int mN)
        : usable_(allowed && mN <= kMaxOrder), m_(m), mN_(mN) {}
    bool usable() const { return usable_; }

    // Before a step taken in full: a fully observed one may start or
    // continue a cycle, any other breaks it.
    void observe(bool missing, double **W1) {
        if (!usable_) return;
        if (missing)
            broken();
        else
            before(W1);
    }

    // A step that is not a full step with every element observed.
    void broken() {
        run_ = 0;
        tracked_ = 0;
        tracking_ = false;
    }

    // Before a full step with every element observed: keep its input P
    // (only its diagonal until the recursion is close to converging).
    void before(double **W1) {
        if (!tracking_) {
            for (int r = 0; r < m_; ++r) diag_[r] = W1[r][r];
            return;
        }
        if (tracked_ > kPatience) return;
        cur_ = (cur_ + 1) % kMaxPeriod;
        double *pin = e_[cur_].pin;
        for (int r = 0; r < m_; ++r)
            for (int c = 0; c < m_; ++c) pin[r * m_ + c] = W1[r][c];
    }

    // After that step: keep what it left; true when the recursion has
    // returned to the input of this step (period 1) or of one of the last
    // few before it (period q: P(t+1) = P(t-q+1)). block() then gives the
    // following steps.
    bool after(double **W1, double logv) {
        if (!tracking_) {
            // Track in full once the diagonal has settled to 1e-12.
            double change = 0.0, size = 0.0;
            for (int r = 0; r < m_; ++r) {
                const double dr = std::fabs(W1[r][r] - diag_[r]), sr = std::fabs(W1[r][r]);
                change = dr > change ? dr : change;
                size = sr > size ? sr : size;
            }
            tracking_ = change <= 1e-12 * size;
            return false;
        }
        // Rounding that wanders without settling into a short cycle: stop
        // looking until the next break.
        if (++tracked_ > kPatience) return false;
        Entry &e = e_[cur_];
        for (int r = 0; r < mN_; ++r)
            for (int c = 0; c < mN_; ++c) e.blk[r * mN_ + c] = W1[r][c];
        e.logv = logv;
        ++run_;
        for (int q = 1; q <= kMaxPeriod && q <= run_; ++q)
            if (same(W1, e_[(cur_ - q + 1 + kMaxPeriod) % kMaxPeriod].pin)) {
                period_ = q;
                return true;
            }
        return false;
    }

    // Step k (k = 0, 1, ...) of a run of steps in the cycle: the top block
    // of W1 that the full step would leave (mN x mN, row by row; row m holds
    // the gain and F^-1 of a single series), and its log term.
    double *block(int k) { return e_[index(k)].blk; }
    const double *block(int k) const { return e_[index(k)].blk; }
    double logv(int k) const { return e_[index(k)].logv; }

    // After a run of k >= 1 steps: W1's top block as the last of them left
    // it (the run ends the steady state).
    void settle(double **W1, int k) const {
        if (period_ == 1) return;  // W1 holds it already
        const double *b = block(k - 1);
        for (int r = 0; r < mN_; ++r)
            for (int c = 0; c < mN_; ++c) W1[r][c] = b[r * mN_ + c];
    }

private:
    struct Entry {
        double pin[kMaxOrder * kMaxOrder];
        double blk[kMaxOrder * kMaxOrder];
        double logv;
    };
    // P (top-left of W1) equal bit for bit to the saved one (NaN never is).
    bool same(double **W1, const double *pin) const {
        for (int r = 0; r < m_; ++r)
            for (int c = r; c < m_; ++c) {
                std::uint64_t x, y;
                std::memcpy(&x, &W1[r][c], sizeof x);
                std::memcpy(&y, &pin[r * m_ + c], sizeof y);
                if (x != y || W1[r][c] != W1[r][c]) return false;
            }
        return true;
    }
    // With P(t+1) = P(t-q+1), step k of the run repeats step t-q+1+(k mod q),
    // whose entry lies q-1-(k mod q) places before the last one.
    int index(int k) const {
        return (cur_ - (period_ - 1 - k % period_) + kMaxPeriod) % kMaxPeriod;
    }

    enum { kPatience = 64 };  // full steps tracked before giving up

    bool usable_;
    int m_, mN_;
    bool tracking_ = false;
    int tracked_ = 0;
    double diag_[kMaxOrder];
    Entry e_[kMaxPeriod];
    int cur_ = 0, run_ = 0, period_ = 0;
};

// The observation part of a multivariate step once F holds F^-1 and the
// top-right block of W1 holds the gain: likelihood pieces, store column, new
// state. Shared by full and steady steps so that both do the same arithmetic.
inline void multi_update_mean(int N, int m, int t, double **W1, double **F, const double *v,
                              const double *p, double *a, double logdet, double **store,
                              double &logdet_sum, double &sumsq) {
    logdet_sum += logdet;
    {
        double q = 0.0;
        for (int i = 0; i < N; ++i) {
            double row = 0.0;
            for (int k = 0; k < N; ++k) row += F[i][k] * v[k];
            q += v[i] * row;
        }
        sumsq += q;
    }
    if (store) step_multi_store(N, m, t, W1, F, v, store);
    step_multi_state(N, m, W1, v, p, a);
}

// A product of positive numbers kept as mantissa x 2^exponent, so that the
// single-series filter takes one logarithm per call rather than one per
// time point; factors and running products far from 1 are split to stay in
// range.
struct LogProduct {
    double mant = 1.0;
    long expo = 0;
    void mul(double x) {
        if (x > 1e-100 && x < 1e100) {
            mant *= x;
        } else {
            int e;
            mant *= std::frexp(x, &e);
            expo += e;
        }
        if (!(mant > 1e-100 && mant < 1e100)) {
            int e;
            mant = std::frexp(mant, &e);
            expo += e;
        }
    }
    double log() const { return std::log(mant) + double(expo) * 0.69314718055994530942; }
};

// The likelihood pieces of the single-series filter.
struct UnivSums {
    int count = 0;            // usable observations (less the diffuse elements)
    LogProduct finv_product;  // product of the 1/F, for log|F|
    double sumsq = 0.0;       // sum of v^2 / F
};

// The observation part of a single-series step once the gain K[0..m) and
// 1/F (K[m]) are known: v = y - p[m], the likelihood pieces (a negative F is
// filtered through but not counted), store column t and a(t+1) = p + K v.
// Returns v. Every observed step of the filter, full or replayed, ends here.
template <int M>
__attribute__((always_inline)) inline double univ_observe(int m_arg, int t, double y,
                                                          const double *p, const double *K,
                                                          double *a, double **store,
                                                          UnivSums &sums) {
    const int m = M > 0 ? M : m_arg;
    const double v = y - p[m];
    const double Finv = K[m];
    if (Finv > 0.0) {
        ++sums.count;
        sums.finv_product.mul(Finv);
        sums.sumsq += v * v * Finv;
    }
    if (store) step_univ_store(m, t, v, K, store);
    for (int j = 0; j < m; ++j) a[j] = p[j] + K[j] * v;
    return v;
}

// p = mean + SysMat a and Pbar = SysMat P SysMat' + VarMat for a single
// series and a state of compile-time order M: the dense products, unrolled.
template <int M>
inline void small_prior(double **sys, double **var, const double *mean, const double (&P)[M][M],
                        double (&Pb)[M + 1][M + 1], double **W1, double *p) {
    constexpr int R = M + 1;
    double S[R][M], X[R][M];
    const double *a = W1[R];
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < M; ++j) S[i][j] = sys[i][j];
    for (int i = 0; i < R; ++i) {
        double acc = mean[i];
        for (int j = 0; j < M; ++j) acc += S[i][j] * a[j];
        p[i] = acc;
    }
    for (int i = 0; i < R; ++i)
        for (int c = 0; c < M; ++c) {
            double acc = 0.0;
            for (int k = 0; k < M; ++k) acc += S[i][k] * P[k][c];
            X[i][c] = acc;
        }
    for (int i = 0; i < R; ++i)
        for (int j = i; j < R; ++j) {
            double acc = 0.0;
            for (int l = 0; l < M; ++l) acc += X[i][l] * S[j][l];
            Pb[i][j] = acc + var[i][j];
            Pb[j][i] = acc + var[j][i];
        }
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < R; ++j) W1[i][j] = Pb[i][j];
}

// The single-series filter; M > 0 fixes the state order at compile time
// (small models, loops unrolled), M = 0 takes it from m.
template <int M>
int univ_filter(int n, const double *y, int m_arg, double **sys, double **var, double *mean,
                int **sysidx, int **varidx, int *meanidx, double **tvdata, double **init,
                double **W1, double **W2, double **store, double *dLogDet, double *dSumSq, int *cnt,
                bool allow_steady, long *steady_steps) {
    const int m = M > 0 ? M : m_arg;
    const int mN = m + 1;
    const double kappa = diffuse_kappa(var, mN);
    const int d = step_initialise(m, mN, init, kappa, W1);
    // The likelihood pieces accumulate locally and are written back on every
    // return (a failed filter still reports what it had summed).
    // log|F| summed as the logarithm of the product of the 1/F.
    const double logdet0 = -d * std::log(kappa);
    UnivSums sums;
    sums.count = -d;
    auto finish = [&](int rc) {
        if (dLogDet) *dLogDet = logdet0 - sums.finv_product.log();
        if (rc && dSumSq) sums.sumsq /= sums.count;
        if (dSumSq) *dSumSq = sums.sumsq;
        if (rc && cnt) *cnt = sums.count;
        return rc;
    };

    StepFrame frame;
    if (M == 0) build_pattern(frame, sys, sysidx, mN, m, var, varidx);
    SteadyState steady_state(allow_steady && !sysidx && !varidx, m, mN);
    bool steady = false;

    // Small models keep P and Pbar in local arrays (registers) from step to
    // step, W1 receiving the same values as it goes; the arithmetic is that
    // of the general path.
    constexpr int ML = M > 0 ? M : 1;
    double Pl[ML][ML], Pb[ML + 1][ML + 1];
    auto load_P = [&] {
        if constexpr (M > 0)
            for (int i = 0; i < M; ++i)
                for (int j = 0; j < M; ++j) Pl[i][j] = W1[i][j];
    };
    load_P();

    double *a = W1[mN];  // a in columns 0..m-1, v in column m
    double *K = W1[m];   // row m of Pbar: M, then scaled into the gain
    double *p = W2[mN];

    // Paths after a gap (small models): the full steps that follow a gap
    // taken from the cycle depend on nothing but P at the gap, so the first
    // gap at a given point of the cycle records the top block of W1 after
    // each step until the cycle is found again, and later gaps starting from
    // the same P (bit for bit) replay the record while the data stay
    // observed. The replay does the arithmetic of the full steps' mean
    // recursion on the recorded blocks, so results are the same bit for bit.
    constexpr int kPaths = 4, kPathLen = 96, kBlock = (ML + 1) * (ML + 1);
    struct Path {
        double start[ML * ML];
        double blk[kPathLen][kBlock];
        int len;
        bool done;
    };
    Path paths[M > 0 ? kPaths : 1];
    int npaths = 0, recording = -1;
    bool gap_from_cycle = false;
    auto same_start = [&](const Path &q) {
        for (int i = 0; i < ML; ++i)
            for (int j = 0; j < ML; ++j) {
                std::uint64_t x, z;
                std::memcpy(&x, &Pl[i][j], sizeof x);
                std::memcpy(&z, &q.start[i * ML + j], sizeof z);
                if (x != z) return false;
            }
        return true;
    };
    auto record = [&] {  // the block a full step left, onto the open path
        if (recording < 0) return;
        Path &q = paths[recording];
        if (q.len == kPathLen) {  // too long to keep: drop it
            --npaths;
            recording = -1;
            return;
        }
        for (int i = 0; i <= ML; ++i)
            for (int j = 0; j <= ML; ++j) q.blk[q.len][i * (ML + 1) + j] = W1[i][j];
        ++q.len;
    };

    for (int t = 0; t < n; ++t) {
        write_time_varying(t, m, mN, sys, var, mean, sysidx, varidx, meanidx, tvdata);
        const double yt = y[t];
        const bool missing = std::isnan(yt);

        if constexpr (M > 0) {
            if (missing && steady_state.usable()) {
                int hit = -1;
                if (gap_from_cycle)
                    for (int c = 0; c < npaths; ++c)
                        if (paths[c].done && same_start(paths[c])) hit = c;
                if (hit >= 0) {
                    const Path &q = paths[hit];
                    // The gap: prediction only, as the full step.
                    for (int i = 0; i < mN; ++i) {
                        double acc = mean[i];
                        for (int j = 0; j < M; ++j) acc += sys[i][j] * a[j];
                        p[i] = acc;
                    }
                    for (int k = 0; k < M; ++k) a[k] = p[k];
                    SetNaN(&a[M]);
                    if (store) store_write_missing(store, 1, M, t);
                    int j = 1, s = t + 1;
                    for (; j < q.len && s < n; ++j, ++s) {
                        if (meanidx)
                            write_time_varying(s, m, mN, sys, var, mean, nullptr, nullptr, meanidx,
                                               tvdata);
                        const double ys = y[s];
                        if (std::isnan(ys)) break;
                        const double *Kb = q.blk[j] + M * (M + 1);
                        for (int i = 0; i < mN; ++i) {
                            double acc = mean[i];
                            for (int c = 0; c < M; ++c) acc += sys[i][c] * a[c];
                            p[i] = acc;
                        }
                        a[M] = univ_observe<M>(M, s, ys, p, Kb, a, store, sums);
                    }
                    const double *last = q.blk[j - 1];
                    for (int i = 0; i <= M; ++i)
                        for (int c = 0; c <= M; ++c) W1[i][c] = last[i * (M + 1) + c];
                    load_P();
                    steady_state.broken();
                    gap_from_cycle = false;
                    if (steady_steps) *steady_steps += j;
                    t = s - 1;  // the step that ended the replay is taken next
                    continue;
                }
                if (recording >= 0) {  // a second gap before the path closed
                    --npaths;
                    recording = -1;
                }
                if (gap_from_cycle && npaths < kPaths) {
                    recording = npaths++;
                    Path &q = paths[recording];
                    for (int i = 0; i < M; ++i)
                        for (int c = 0; c < M; ++c) q.start[i * ML + c] = Pl[i][c];
                    q.len = 0;
                    q.done = false;
                }
            }
            gap_from_cycle = false;
        }

        if (steady && !missing) {
            // A run of observed steps in the cycle: the arithmetic of the
            // full step below, on the gains and inverse variances the cycle
            // saved, with the state held locally.
            double al[SteadyState::kMaxOrder], v = 0.0;
            for (int j = 0; j < m; ++j) al[j] = a[j];
            int k = 0;
            for (int s = t; s < n; ++s, ++k) {
                if (s > t && meanidx)
                    write_time_varying(s, m, mN, sys, var, mean, nullptr, nullptr, meanidx, tvdata);
                const double ys = y[s];
                if (std::isnan(ys)) break;
                const double *Kb = steady_state.block(k) + m * mN;
                if (M > 0) {
                    for (int i = 0; i < mN; ++i) {
                        double acc = mean[i];
                        for (int j = 0; j < m; ++j) acc += sys[i][j] * al[j];
                        p[i] = acc;
                    }
                } else {
                    step_predict(frame, sys, mean, al, p);
                }
                v = univ_observe<M>(m, s, ys, p, Kb, al, store, sums);
            }
            for (int j = 0; j < m; ++j) a[j] = al[j];
            a[m] = v;
            steady_state.settle(W1, k);
            load_P();
            if (steady_steps) *steady_steps += k;
            steady = false;
            gap_from_cycle = t + k < n;  // the run ended at a gap
            t += k - 1;                  // the step that ended the run is taken next
            continue;
        }
        steady = false;
        steady_state.observe(missing, W1);
        if constexpr (M > 0)
            small_prior<M>(sys, var, mean, Pl, Pb, W1, p);
        else
            step_prior(frame, m, mN, sys, var, mean, W1, W2, false);

        if (missing) {
            if constexpr (M > 0)
                for (int i = 0; i < M; ++i)
                    for (int j = 0; j < M; ++j) Pl[i][j] = Pb[i][j];
            for (int k = 0; k < m; ++k) a[k] = p[k];
            SetNaN(&a[m]);
            if (store) store_write_missing(store, 1, m, t);
            if constexpr (M > 0) record();
            continue;
        }

        a[m] = yt - p[m];  // the innovation is left in W1 also when F = 0 ends the filter
        const double F = M > 0 ? Pb[ML][ML] : K[m];
        if (F == 0.0) return finish(0);
        const double Finv = 1.0 / F;
        double Kl[ML];
        if constexpr (M > 0) {
            for (int k = 0; k < M; ++k) K[k] = Kl[k] = Pb[M][k] * Finv;
        } else {
            for (int k = 0; k < m; ++k) K[k] *= Finv;
        }
        K[m] = Finv;
        // v, likelihood pieces, store, a(t+1) = p + K v; then P(t+1) = Pbar -
        // M K', with M the unscaled last column of Pbar.
        a[m] = univ_observe<M>(m, t, yt, p, K, a, store, sums);
        if constexpr (M > 0) {
            for (int j = 0; j < M; ++j)
                for (int k = j; k < M; ++k) {
                    const double x = Pb[j][k] - Pb[j][M] * Kl[k];
                    Pl[j][k] = Pl[k][j] = x;
                    W1[j][k] = W1[k][j] = x;
                }
        } else {
            step_univ_variance(m, W1);
        }

        if constexpr (M > 0) record();
        if (steady_state.usable()) steady = steady_state.after(W1, 0.0);
        if constexpr (M > 0)
            if (steady && recording >= 0) {  // the path is back in the cycle
                paths[recording].done = true;
                recording = -1;
            }
    }

    return finish(sums.count < 1 ? 0 : 1);
}

}  // namespace

int tessel::multi_kalman_filter(int N, int n, double **y, int m, double **sys, double **var,
                                double *mean, int **sysidx, int **varidx, int *meanidx,
                                double **tvdata, double **init, double **W1, double **W2,
                                double **store, double *dLogDet, double *dSumSq, int *cnt,
                                bool allow_steady, long *steady_steps) {
    const int mN = m + N;

    // F view: row i addresses column m of W1 row m+i, so F is the
    // bottom-right block of Pbar and is inverted where it lies.
    Block Fview;
    if (!Fview.alloc(N, 0)) return 0;
    double **F = Fview.get();
    for (int i = 0; i < N; ++i) F[i] = W1[m + i] + m;

    const double kappa = diffuse_kappa(var, mN);
    const int d = step_initialise(m, mN, init, kappa, W1);
    int count = -d;
    // The likelihood pieces accumulate locally and are written back on every
    // return (a failed filter still reports what it had summed).
    double logdet_sum = -d * std::log(kappa), sumsq = 0.0;
    auto finish = [&](int rc) {
        if (dLogDet) *dLogDet = logdet_sum;
        if (rc && dSumSq) sumsq /= count;
        if (dSumSq) *dSumSq = sumsq;
        if (rc && cnt) *cnt = count;
        return rc;
    };

    StepFrame frame;
    build_pattern(frame, sys, sysidx, mN, m, var, varidx);
    SteadyState steady_state(allow_steady && !sysidx && !varidx, m, mN);
    bool steady = false;

    double *a = W1[mN];
    double *v = W1[mN] + m;
    double *p = W2[mN];

    for (int t = 0; t < n; ++t) {
        write_time_varying(t, m, mN, sys, var, mean, sysidx, varidx, meanidx, tvdata);
        int missing = 0;
        for (int i = 0; i < N; ++i) missing += std::isnan(y[i][t]) ? 1 : 0;

        if (steady && !missing) {
            // A run of fully observed steps in the cycle: multi_update_mean
            // on the saved blocks (gain in the top-right block, F^-1 in the
            // bottom-right), the state held locally.
            double al[SteadyState::kMaxOrder], vl[SteadyState::kMaxOrder];
            double *Brows[SteadyState::kMaxOrder], *Frows[SteadyState::kMaxOrder];
            for (int j = 0; j < m; ++j) al[j] = a[j];
            int k = 0;
            for (int s = t; s < n; ++s, ++k) {
                if (s > t && meanidx)
                    write_time_varying(s, m, mN, sys, var, mean, nullptr, nullptr, meanidx, tvdata);
                bool all = true;
                for (int i = 0; i < N; ++i) all &= !std::isnan(y[i][s]);
                if (!all) break;
                double *B = steady_state.block(k);
                for (int r = 0; r < mN; ++r) Brows[r] = B + r * mN;
                for (int i = 0; i < N; ++i) Frows[i] = Brows[m + i] + m;
                if (frame.ok)
                    step_predict(frame, sys, mean, al, p);
                else
                    for (int r = 0; r < mN; ++r) {
                        double acc = mean[r];
                        for (int j = 0; j < m; ++j) acc += sys[r][j] * al[j];
                        p[r] = acc;
                    }
                for (int i = 0; i < N; ++i) vl[i] = y[i][s] - p[m + i];
                count += N;
                multi_update_mean(N, m, s, Brows, Frows, vl, p, al, steady_state.logv(k), store,
                                  logdet_sum, sumsq);
            }
            for (int j = 0; j < m; ++j) a[j] = al[j];
            for (int i = 0; i < N; ++i) v[i] = vl[i];
            steady_state.settle(W1, k);
            if (steady_steps) *steady_steps += k;
            steady = false;
            t += k - 1;  // the step that ended the run is taken next
            continue;
        }
        steady = false;
        steady_state.observe(missing, W1);
        step_prior(frame, m, mN, sys, var, mean, W1, W2, false);

        step_multi_innovations(N, m, t, y, p, W1, v);
        count += N - missing;

        if (missing == N) {
            if (store) store_write_missing(store, N, m, t);
            for (int k = 0; k < m; ++k) a[k] = p[k];
            continue;  // P(t+1) is already the top-left block of Pbar
        }

        double logdet = 0.0;
        int sign = 0;
        IInvDet(F, N, &logdet, &sign);
        if (sign == 0) return finish(0);  // F view freed by its guard
        if (missing) step_multi_clear_missing(N, F, v);

        step_multi_gain(N, m, W1, F);
        multi_update_mean(N, m, t, W1, F, v, p, a, logdet, store, logdet_sum, sumsq);
        step_multi_variance(N, m, W1);

        if (steady_state.usable() && !missing) steady = steady_state.after(W1, logdet);
    }

    return finish(count < 1 ? 0 : 1);
}

int tessel::univ_kalman_filter(int n, const double *y, int m, double **sys, double **var,
                               double *mean, int **sysidx, int **varidx, int *meanidx,
                               double **tvdata, double **init, double **W1, double **W2,
                               double **store, double *dLogDet, double *dSumSq, int *cnt,
                               bool allow_steady, long *steady_steps) {
    switch (m) {
        case 1:
            return univ_filter<1>(n, y, m, sys, var, mean, sysidx, varidx, meanidx, tvdata, init,
                                  W1, W2, store, dLogDet, dSumSq, cnt, allow_steady, steady_steps);
        case 2:
            return univ_filter<2>(n, y, m, sys, var, mean, sysidx, varidx, meanidx, tvdata, init,
                                  W1, W2, store, dLogDet, dSumSq, cnt, allow_steady, steady_steps);
        case 3:
            return univ_filter<3>(n, y, m, sys, var, mean, sysidx, varidx, meanidx, tvdata, init,
                                  W1, W2, store, dLogDet, dSumSq, cnt, allow_steady, steady_steps);
        default:
            return univ_filter<0>(n, y, m, sys, var, mean, sysidx, varidx, meanidx, tvdata, init,
                                  W1, W2, store, dLogDet, dSumSq, cnt, allow_steady, steady_steps);
    }
}

TESSEL_EXPORT int fMultiKalmanFil(int N, int n, double **y, int m, double **sys, double **var,
                                  double *mean, int **sysidx, int **varidx, int *meanidx,
                                  double **tvdata, double **init, double **W1, double **W2,
                                  double **store, double *dLogDet, double *dSumSq, int *cnt) {
    return multi_kalman_filter(N, n, y, m, sys, var, mean, sysidx, varidx, meanidx, tvdata, init,
                               W1, W2, store, dLogDet, dSumSq, cnt, true, nullptr);
}

TESSEL_EXPORT int fUnivKalmanFil(int n, double *y, int m, double **sys, double **var, double *mean,
                                 int **sysidx, int **varidx, int *meanidx, double **tvdata,
                                 double **init, double **W1, double **W2, double **store,
                                 double *dLogDet, double *dSumSq, int *cnt) {
    return univ_kalman_filter(n, y, m, sys, var, mean, sysidx, varidx, meanidx, tvdata, init, W1,
                              W2, store, dLogDet, dSumSq, cnt, true, nullptr);
}
