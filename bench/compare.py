#!/usr/bin/python3
"""Side-by-side: the same Gaussian log-likelihoods from Tessel (LgmLik) and
from statsmodels' low-level KalmanFilter, in one run.

Both start every state element diffuse with the same variance kappa
(Tessel: no InitMat, kappa = 9999999.99 x max(1, largest VarMat diagonal);
statsmodels: initialize_approximate_diffuse(kappa)). Their conventions then
differ by a constant: statsmodels sums the full log-density of every
observed element, Tessel leaves out the d = m diffuse elements' share (d
fewer terms of log 2 pi, and d log kappa off the log-determinant), so

    ll_tessel = ll_statsmodels + (m / 2) log(2 pi kappa).

Run (after building):
    PYTHONPATH=python:build/lib /usr/bin/python3 bench/compare.py [--repeat 5]
"""

import argparse
import time

import numpy as np
from statsmodels.tsa.statespace.kalman_filter import KalmanFilter, MEMORY_CONSERVE

import tessel

TWO_PI = 6.283185307179586
KAPPA_FACTOR = 9999999.99


# ------------------------------------------------------------- workloads


def local_level(n, rng):
    sys = np.array([[1.0], [1.0]])
    var = np.diag([0.1, 1.0])
    return sys, var


def basic_structural(n, rng):
    """Level + slope + dummy seasonal (12) + irregular: m = 13."""
    m = 13
    sys = np.zeros((m + 1, m))
    sys[0, 0] = sys[0, 1] = sys[1, 1] = 1.0
    sys[2, 2:m] = -1.0  # seasonal: s(t+1) = -(s(t) + ... + s(t-10))
    for j in range(3, m):
        sys[j, j - 1] = 1.0
    sys[m, 0] = sys[m, 2] = 1.0  # y = level + seasonal + irregular
    var = np.zeros((m + 1, m + 1))
    var[0, 0], var[1, 1], var[2, 2], var[m, m] = 0.1, 0.01, 0.05, 1.0
    return sys, var


def arma21(n, rng):
    """ARMA(2,1): state (x(t), phi2 x(t-1) + theta e(t)), no observation
    noise."""
    phi1, phi2, theta, sigma2 = 0.6, -0.2, 0.4, 1.0
    sys = np.array([[phi1, 1.0], [phi2, 0.0], [1.0, 0.0]])
    R = np.array([1.0, theta])
    var = np.zeros((3, 3))
    var[:2, :2] = sigma2 * np.outer(R, R)
    return sys, var


def multivariate(n, rng):
    """N = 5 series loading on m = 10 states with a stable transition."""
    m, N = 10, 5
    T = 0.5 * np.eye(m) + 0.03 * rng.uniform(-1, 1, size=(m, m))
    Z = rng.uniform(-0.3, 0.3, size=(N, m))
    Z[np.arange(N), 2 * np.arange(N)] += 1.0
    var = np.diag([0.5] * m + [1.0] * N)
    return np.vstack([T, Z]), var


WORKLOADS = [
    ("local level", local_level, 100_000),
    ("level+slope+seasonal(12)+irregular, m=13", basic_structural, 10_000),
    ("ARMA(2,1)", arma21, 100_000),
    ("N=5 series, m=10", multivariate, 10_000),
]


def simulate(sys, var, n, rng):
    """Data from the model (stationary parts from zero, unit-root parts
    from zero too), with 1% of the values missing."""
    m = sys.shape[1]
    N = sys.shape[0] - m
    p = m + N
    w, U = np.linalg.eigh(var)
    L = U * np.sqrt(np.clip(w, 0.0, None))
    e = rng.normal(size=(n, p)) @ L.T
    T, Z = sys[:m], sys[m:]
    alpha = np.zeros(m)
    y = np.empty((N, n))
    for t in range(n):
        y[:, t] = Z @ alpha + e[t, m:]
        alpha = T @ alpha + e[t, :m]
    y[rng.uniform(size=y.shape) < 0.01] = np.nan
    return y


# ---------------------------------------------------------------- the two


def tessel_loglik(y, sys, var):
    ll, s2 = tessel.Ref(), tessel.Ref()
    if tessel.call("LgmLik", ll, s2, y, sys, var) != 1:
        raise RuntimeError("LgmLik failed")
    return ll.value


def statsmodels_filter(y, sys, var, kappa):
    m = sys.shape[1]
    N = sys.shape[0] - m
    kf = KalmanFilter(k_endog=N, k_states=m, k_posdef=m, loglikelihood_burn=0)
    kf.bind(np.ascontiguousarray(y.T))
    kf["design"] = sys[m:]
    kf["obs_cov"] = var[m:, m:]
    kf["transition"] = sys[:m]
    kf["selection"] = np.eye(m)
    kf["state_cov"] = var[:m, :m]
    if np.any(var[:m, m:] != 0.0):
        raise ValueError("statsmodels has no state/observation cross covariance")
    kf.initialize_approximate_diffuse(kappa)
    kf.conserve_memory = MEMORY_CONSERVE  # likelihood only, as LgmLik
    return kf


def best_time(fn, repeat):
    best, value = np.inf, None
    for _ in range(repeat):
        t0 = time.perf_counter()
        value = fn()
        best = min(best, time.perf_counter() - t0)
    return best, value


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--repeat", type=int, default=5, help="timed runs per side (best kept)")
    ap.add_argument("--rtol", type=float, default=1e-8,
                    help="relative agreement required of the log-likelihoods")
    args = ap.parse_args()

    rng = np.random.default_rng(2008)
    print(f"{'workload':44s} {'n':>7s} {'loglik (Tessel)':>18s} {'rel. diff':>9s} "
          f"{'Tessel s':>9s} {'statsm. s':>9s} {'ratio':>6s}")
    ok = True
    for name, build, n in WORKLOADS:
        sys, var = build(n, rng)
        y = simulate(sys, var, n, rng)
        m = sys.shape[1]
        kappa = KAPPA_FACTOR * max(1.0, float(np.max(np.diag(var))))
        kf = statsmodels_filter(y, sys, var, kappa)

        t_tessel, ll_t = best_time(lambda: tessel_loglik(y, sys, var), args.repeat)
        t_sm, ll_sm = best_time(kf.loglike, args.repeat)
        ll_sm_conv = ll_sm + 0.5 * m * np.log(TWO_PI * kappa)
        rel = abs(ll_t - ll_sm_conv) / abs(ll_sm_conv)
        agree = rel <= args.rtol
        ok &= agree
        print(f"{name:44s} {n:7d} {ll_t:18.6f} {rel:9.1e} {t_tessel:9.4f} {t_sm:9.4f} "
              f"{t_sm / t_tessel:6.2f}{'' if agree else '  DISAGREE'}")
    print("ratio = statsmodels time / Tessel time (best of "
          f"{args.repeat}); log-likelihoods {'agree' if ok else 'DO NOT agree'} "
          f"to {args.rtol:g} relative")
    raise SystemExit(0 if ok else 1)


if __name__ == "__main__":
    main()
