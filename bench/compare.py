#!/usr/bin/python3
"""Side-by-side timings of Tessel against statsmodels and R on the same
workloads, in one run, with a check that the results agree.

Workloads (data simulated from each model, 1% of the values missing):
  log-likelihood  local level n=1e5; level+slope+dummy seasonal(12)+irregular
                  (m=13) n=1e4; ARMA(2,1) n=1e5; N=5 series, m=10 states n=1e4
  smoothing       smoothed states and variance diagonals (LgmMomentEst 1),
                  structural and N=5 models, n=1e4
  simulation      one draw of the states from their conditional density
                  (LgmCondDens 2), structural model, n=1e4
  growth          local level log-likelihood for n = 1e3 .. 1e7: time per step
                  and peak memory (child process per size)
  exact           the exact initial filter (log-likelihood, the four models
                  above) and state smoother (structural, N=5) against
                  statsmodels' exact diffuse initialisation, with the
                  filter's time per step over LgmLik's on the same data

Peers: statsmodels' low-level KalmanFilter / KalmanSmoother /
SimulationSmoother, and for single series R's KalmanLike through Rscript
(skipped when Rscript is not installed). All start every state element
diffuse with the same variance kappa = 9999999.99 x max(1, largest VarMat
diagonal) (Tessel: no InitMat).

Likelihood conventions: statsmodels and R sum the log-density of every
observed element; Tessel leaves out the d = m diffuse elements' share (d
fewer terms of log 2 pi and d log kappa off the log-determinant), so
    ll_tessel = ll_peer + (m / 2) log(2 pi kappa).
R's KalmanLike returns Lik = 0.5 (log(ssq/nu) + sumlog/nu) and s2 = ssq/nu
over the nu observed values, from which the full log-likelihood is
    -0.5 (nu log 2 pi + sumlog + ssq).

Times are medians of --repeat runs of the whole call as a user makes it
(Tessel through the Python host binding, statsmodels' method, R's function
timed inside R). "ratio" is the best peer's median divided by Tessel's.

Run (after building):
    PYTHONPATH=python:<build>/lib TESSEL_LIBRARY=<build>/lib/libtessel.so \\
        /usr/bin/python3 bench/compare.py [--repeat 7] [--skip-growth]
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import textwrap
import time

import numpy as np
from statsmodels.tsa.statespace.kalman_filter import KalmanFilter, MEMORY_CONSERVE
from statsmodels.tsa.statespace.kalman_smoother import (
    KalmanSmoother, SMOOTHER_STATE, SMOOTHER_STATE_COV)
from statsmodels.tsa.statespace.simulation_smoother import (
    SimulationSmoother, SIMULATION_STATE)

import tessel

TWO_PI = 6.283185307179586
KAPPA_FACTOR = 9999999.99


# ------------------------------------------------------------- workloads


def local_level(rng):
    sys = np.array([[1.0], [1.0]])
    var = np.diag([0.1, 1.0])
    return sys, var


def basic_structural(rng):
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


def arma21(rng):
    """ARMA(2,1): state (x(t), phi2 x(t-1) + theta e(t)), no observation
    noise."""
    phi1, phi2, theta, sigma2 = 0.6, -0.2, 0.4, 1.0
    sys = np.array([[phi1, 1.0], [phi2, 0.0], [1.0, 0.0]])
    R = np.array([1.0, theta])
    var = np.zeros((3, 3))
    var[:2, :2] = sigma2 * np.outer(R, R)
    return sys, var


def multivariate(rng):
    """N = 5 series loading on m = 10 states with a stable transition."""
    m, N = 10, 5
    T = 0.5 * np.eye(m) + 0.03 * rng.uniform(-1, 1, size=(m, m))
    Z = rng.uniform(-0.3, 0.3, size=(N, m))
    Z[np.arange(N), 2 * np.arange(N)] += 1.0
    var = np.diag([0.5] * m + [1.0] * N)
    return np.vstack([T, Z]), var


def simulate(sys, var, n, rng, missing=0.01):
    """Data from the model started at zero, with a share of values missing."""
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
    y[rng.uniform(size=y.shape) < missing] = np.nan
    return y


def kappa_of(var):
    return KAPPA_FACTOR * max(1.0, float(np.max(np.diag(var))))


def flops_per_step(m, N):
    """Floating-point operations of one step of the plain dense filter
    (multiply and add one flop each; see bench/README.md): prediction,
    SysMat P SysMat' + VarMat, F^-1, gain, innovations and likelihood terms,
    state and variance updates."""
    p = m + N
    inverse = 1 if N == 1 else 2 * N ** 3
    return (2 * p * m + 2 * p * m * m + p * (p + 1) * m + p * p + inverse + 2 * m * N * N
            + 2 * N * N + N + 2 * m * N + m * (m + 1) * N)


# ---------------------------------------------------------------- timing


def median_time(fn, repeat):
    times, value = [], None
    fn()  # warm
    for _ in range(repeat):
        t0 = time.perf_counter()
        value = fn()
        times.append(time.perf_counter() - t0)
    return statistics.median(times), value


def sm_setup(cls, y, sys, var, kappa, **kw):
    m = sys.shape[1]
    N = sys.shape[0] - m
    if np.any(var[:m, m:] != 0.0):
        raise ValueError("statsmodels has no state/observation cross covariance")
    mod = cls(k_endog=N, k_states=m, k_posdef=m, loglikelihood_burn=0, **kw)
    mod.bind(np.ascontiguousarray(y.T))
    mod["design"] = sys[m:]
    mod["obs_cov"] = var[m:, m:]
    mod["transition"] = sys[:m]
    mod["selection"] = np.eye(m)
    mod["state_cov"] = var[:m, :m]
    if kappa is None:
        mod.initialize("diffuse")  # exact diffuse
    else:
        mod.initialize_approximate_diffuse(kappa)
    return mod


# ------------------------------------------------------------------- R

R_SCRIPT = textwrap.dedent("""
    args <- commandArgs(trailingOnly = TRUE)
    dir <- args[1]; reps <- as.integer(args[2])
    dims <- scan(file.path(dir, "dims.txt"), quiet = TRUE)
    n <- dims[1]; m <- dims[2]; kappa <- dims[3]
    y <- readBin(file.path(dir, "y.bin"), "double", n)
    sys <- matrix(readBin(file.path(dir, "sys.bin"), "double", (m + 1) * m), m + 1, m, byrow = TRUE)
    var <- matrix(readBin(file.path(dir, "var.bin"), "double", (m + 1)^2), m + 1, m + 1, byrow = TRUE)
    mod <- list(T = sys[1:m, , drop = FALSE], Z = sys[m + 1, ], h = var[m + 1, m + 1],
                V = var[1:m, 1:m, drop = FALSE], a = rep(0, m),
                P = diag(kappa, m), Pn = diag(kappa, m))
    r <- KalmanLike(y, mod, nit = 0L)
    # proc.time counts in 1 ms steps: time batches of k calls of at least
    # 200 ms each and keep the median per call.
    t0 <- proc.time()[[3]]; k <- 0L
    while (proc.time()[[3]] - t0 < 0.2) { r <- KalmanLike(y, mod, nit = 0L); k <- k + 1L }
    times <- numeric(reps)
    for (i in seq_len(reps)) {
      t0 <- proc.time()[[3]]
      for (j in seq_len(k)) r <- KalmanLike(y, mod, nit = 0L)
      times[i] <- (proc.time()[[3]] - t0) / k
    }
    cat(sprintf("%.17g %.17g %d %.9g\\n", r$Lik, r$s2, sum(!is.na(y)), median(times)))
""")


def r_loglik(y, sys, var, kappa, repeat):
    """(median seconds, log-likelihood in Tessel's convention) or None."""
    rscript = shutil.which("Rscript")
    if rscript is None:
        return None
    m = sys.shape[1]
    with tempfile.TemporaryDirectory() as d:
        np.ascontiguousarray(y[0], dtype="<f8").tofile(os.path.join(d, "y.bin"))
        np.ascontiguousarray(sys, dtype="<f8").tofile(os.path.join(d, "sys.bin"))
        np.ascontiguousarray(var, dtype="<f8").tofile(os.path.join(d, "var.bin"))
        with open(os.path.join(d, "dims.txt"), "w") as f:
            f.write(f"{y.shape[1]} {m} {kappa!r}\n")
        with open(os.path.join(d, "run.R"), "w") as f:
            f.write(R_SCRIPT)
        out = subprocess.run([rscript, "--vanilla", os.path.join(d, "run.R"), d, str(repeat)],
                             capture_output=True, text=True, timeout=600)
    if out.returncode != 0:
        print("  R failed:", out.stderr.strip()[-300:])
        return None
    lik, s2, nu, med = out.stdout.split()
    lik, s2, nu = float(lik), float(s2), int(nu)
    ssq = nu * s2
    sumlog = nu * (2.0 * lik - np.log(s2))
    ll = -0.5 * (nu * np.log(TWO_PI) + sumlog + ssq)
    return float(med), ll + 0.5 * m * np.log(TWO_PI * kappa)


# ------------------------------------------------------------- sections


class Table:
    def __init__(self):
        self.rows = []
        self.ok = True

    def add(self, task, n, t_tessel, peers, agree, note=""):
        """peers: {name: seconds}; agree: bool."""
        best_name, best = min(peers.items(), key=lambda kv: kv[1])
        self.ok &= agree
        self.rows.append((task, n, t_tessel, peers, best_name, best / t_tessel, agree, note))
        peer_txt = "  ".join(f"{k} {v * 1e3:8.2f} ms" for k, v in peers.items())
        print(f"{task:46s} {n:>8d}  Tessel {t_tessel * 1e3:8.2f} ms {t_tessel / n * 1e9:8.1f} ns/step"
              f"  {peer_txt}  ratio {best / t_tessel:5.2f} vs {best_name}"
              f"{'' if agree else '  DISAGREE'}{'  ' + note if note else ''}", flush=True)


def loglik_section(table, rng, repeat, rtol):
    print("\n== log-likelihood (Tessel LgmLik; statsmodels KalmanFilter.loglike, "
          "memory conserved; R KalmanLike)")
    for name, build, n in [("loglik local level", local_level, 100_000),
                           ("loglik level+slope+seasonal(12)+irr, m=13", basic_structural, 10_000),
                           ("loglik ARMA(2,1)", arma21, 100_000),
                           ("loglik N=5 series, m=10", multivariate, 10_000)]:
        sys, var = build(rng)
        y = simulate(sys, var, n, rng)
        m = sys.shape[1]
        N = sys.shape[0] - m
        kappa = kappa_of(var)

        def tessel_ll():
            ll, s2 = tessel.Ref(), tessel.Ref()
            if tessel.call("LgmLik", ll, s2, y, sys, var) != 1:
                raise RuntimeError("LgmLik failed")
            return ll.value

        t_t, ll_t = median_time(tessel_ll, repeat)
        kf = sm_setup(KalmanFilter, y, sys, var, kappa)
        kf.conserve_memory = MEMORY_CONSERVE
        t_sm, ll_sm = median_time(kf.loglike, repeat)
        ll_sm += 0.5 * m * np.log(TWO_PI * kappa)
        peers = {"statsmodels": t_sm}
        rels = [abs(ll_t - ll_sm) / abs(ll_sm)]
        if N == 1:
            r = r_loglik(y, sys, var, kappa, repeat)
            if r is not None:
                peers["R"] = r[0]
                rels.append(abs(ll_t - r[1]) / abs(r[1]))
        table.add(name, n, t_t, peers, max(rels) <= rtol,
                  f"loglik {ll_t:.6f}, max rel diff {max(rels):.1e}; "
                  f"{flops_per_step(m, N)} flop/step dense")


def smoothing_section(table, rng, repeat):
    print("\n== smoothed states and variances (Tessel LgmMomentEst 1; statsmodels "
          "KalmanSmoother.smooth, state and state covariance)")
    for name, build in [("smooth level+slope+seasonal(12)+irr", basic_structural),
                        ("smooth N=5 series, m=10", multivariate)]:
        n = 10_000
        sys, var = build(rng)
        y = simulate(sys, var, n, rng)
        m = sys.shape[1]
        N = sys.shape[0] - m
        kappa = kappa_of(var)

        def tessel_smooth():
            mom = tessel.Ref()
            tessel.call("LgmMomentEst", 1, mom, y, sys, var)
            return np.asarray(mom.value)

        t_t, mom = median_time(tessel_smooth, repeat)
        ks = sm_setup(KalmanSmoother, y, sys, var, kappa,
                      smoother_output=SMOOTHER_STATE | SMOOTHER_STATE_COV)
        t_sm, res = median_time(ks.smooth, repeat)
        st, vr = mom[:m], mom[m + N:2 * m + N]
        sst = res.smoothed_state
        svr = np.diagonal(res.smoothed_state_cov, axis1=0, axis2=1).T
        # Both run the same recursions from variances ~1e7: until the
        # diffuse elements are pinned down, P - P N P cancels to ~kappa^2
        # eps ~ 1e-2 absolute, so the first 50 time points are left out;
        # beyond them, agreement on the data's scale.
        b = 50
        d_mean = float(np.max(np.abs(st[:, b:] - sst[:, b:]) / (1.0 + np.abs(sst[:, b:]))))
        d_var = float(np.max(np.abs(vr[:, b:] - svr[:, b:]) / (1.0 + np.abs(svr[:, b:]))))
        agree = d_mean < 1e-6 and d_var < 1e-6
        table.add(name, n, t_t, {"statsmodels": t_sm}, agree,
                  f"max diff mean {d_mean:.1e}, var {d_var:.1e}")


def simulation_section(table, rng, repeat):
    print("\n== one simulation smoother draw of the states (Tessel LgmCondDens 2; "
          "statsmodels SimulationSmoother.simulate)")
    n = 10_000
    sys, var = basic_structural(rng)
    # No missing values here: a time point with every observation missing
    # deliberately carries NaN through the whole backward draw.
    y = simulate(sys, var, n, rng, missing=0.0)
    m = sys.shape[1]
    kappa = kappa_of(var)
    tessel.set_seed(2008)
    t_t, draw = median_time(lambda: np.asarray(tessel.call("LgmCondDens", 2, y, sys, var)),
                            repeat)
    ss = sm_setup(SimulationSmoother, y, sys, var, kappa, simulation_output=SIMULATION_STATE)
    sim = ss.simulation_smoother()

    def sm_draw():
        sim.simulate()
        return np.array(sim.simulated_state)

    t_sm, sm_state = median_time(sm_draw, repeat)
    # Both draws against Tessel's smoothed moments: the standardised
    # deviations of a draw from the smoothed mean have mean square 1.
    mom = tessel.Ref()
    tessel.call("LgmMomentEst", 1, mom, y, sys, var)
    mom = np.asarray(mom.value)
    mean, sd = mom[:m], np.sqrt(np.clip(mom[m + 1:2 * m + 1], 0.0, None))
    keep = sd[:, 50:] > 1e-6 * (1.0 + np.abs(mean[:, 50:]))

    def msq(s):
        z = (s[:m, 50:] - mean[:, 50:]) / np.where(keep, sd[:, 50:], 1.0)
        return float(np.mean(z[keep] ** 2))

    q_t, q_sm = msq(draw), msq(sm_state)
    agree = 0.7 < q_t < 1.3 and 0.7 < q_sm < 1.3
    table.add("draw level+slope+seasonal(12)+irr", n, t_t, {"statsmodels": t_sm}, agree,
              f"mean sq. std. deviation Tessel {q_t:.3f}, statsmodels {q_sm:.3f}")


def exact_section(table, rng, repeat, rtol):
    """The exact routines (tessel._exact) against statsmodels' exact diffuse
    filter and smoother. Log-likelihoods: ours is statsmodels' + (d/2) log
    2 pi. The ratio to LgmLik on the same data (both start every state
    diffuse; both called on prepared arrays, the exact filter through its
    binding without tessel._exact's checks of the data) is the exact
    filter's cost per step after its few diffuse steps, where it runs
    LgmLik's own recursion."""
    from tessel import _exact
    print("\n== exact diffuse initialisation (Tessel fKalmanExact / StateSmoExact; statsmodels "
          "exact diffuse KalmanFilter.loglike / KalmanSmoother.smooth)")
    for name, build, n in [("exact loglik local level", local_level, 100_000),
                           ("exact loglik structural m=13", basic_structural, 10_000),
                           ("exact loglik ARMA(2,1)", arma21, 100_000),
                           ("exact loglik N=5 series, m=10", multivariate, 10_000),
                           ("exact smooth structural m=13", basic_structural, 10_000),
                           ("exact smooth N=5 series, m=10", multivariate, 10_000)]:
        sys_, var = build(rng)
        y = simulate(sys_, var, n, rng)
        m = sys_.shape[1]
        model = tessel.Model(sys_, var)
        if "loglik" in name:
            ll, s2 = tessel.Ref(), tessel.Ref()
            # Alternated, so that a change of load meets both alike.
            parts = _exact._parts(model, n)
            pairs = [(median_time(lambda: _exact._tessel.exact_filter(parts, y)[0]["loglik"], 1),
                      median_time(lambda: tessel.call("LgmLik", ll, s2, y, sys_, var), 1)[0])
                     for _ in range(repeat)]
            t_t, ll_t = statistics.median(p[0][0] for p in pairs), pairs[0][0][1]
            t_lgm = statistics.median(p[1] for p in pairs)
            kf = sm_setup(KalmanFilter, y, sys_, var, None)
            kf.conserve_memory = MEMORY_CONSERVE
            t_sm, ll_sm = median_time(kf.loglike, repeat)
            rel = abs(ll_t - ll_sm - 0.5 * m * np.log(TWO_PI)) / abs(ll_t)
            table.add(name, n, t_t, {"statsmodels": t_sm}, rel <= rtol,
                      f"{t_t / t_lgm:.2f} x LgmLik; rel diff {rel:.1e}")
        else:
            t_t, sm = median_time(lambda: _exact.smoothed(y.T, model), repeat)
            ks = sm_setup(KalmanSmoother, y, sys_, var, None,
                          smoother_output=SMOOTHER_STATE | SMOOTHER_STATE_COV)
            t_sm, res = median_time(ks.smooth, repeat)
            st, vr = np.asarray(sm.state).T, np.asarray(sm.state_var).T
            svr = np.diagonal(res.smoothed_state_cov, axis1=0, axis2=1).T
            # From t = 0: no kappa on either side.
            d = max(float(np.max(np.abs(st - res.smoothed_state) / (1 + np.abs(st)))),
                    float(np.max(np.abs(vr - svr) / (1 + np.abs(vr)))))
            table.add(name, n, t_t, {"statsmodels": t_sm}, d < 1e-8, f"max diff {d:.1e}")


GROWTH_CHILD = textwrap.dedent("""
    import sys, numpy as np, tessel
    n = int(sys.argv[1])
    rng = np.random.default_rng(1)
    # Filled in chunks, so that no temporary of size n raises the peak.
    y = np.empty((1, n)); level = 0.0
    for s in range(0, n, 65536):
        k = min(65536, n - s)
        path = level + np.cumsum(rng.normal(scale=0.1 ** 0.5, size=k))
        level = path[-1]
        y[0, s:s + k] = path + rng.normal(size=k)
    sys_ = np.array([[1.0], [1.0]]); var = np.diag([0.1, 1.0])
    ll, s2 = tessel.Ref(), tessel.Ref()
    tessel.call("LgmLik", ll, s2, y[:, :100], sys_, var)
    def hwm():  # peak resident set (kB) since the last reset
        for line in open("/proc/self/status"):
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    def reset():  # the peak restarts from the current resident set
        with open("/proc/self/clear_refs", "w") as f:
            f.write("5")
    reset(); base = hwm()
    tessel.call("LgmLik", ll, s2, y, sys_, var)
    lik = hwm()
    reset(); base2 = hwm()
    store = tessel.call("KalmanFil", y, sys_, var)
    fil = hwm() - base2
    lik -= base
    base = 0
    print(base, lik, fil)
""")


def growth_section(repeat, max_n):
    print("\n== growth with n: local level LgmLik (time) and peak RSS growth of a "
          "fresh process (LgmLik, then KalmanFil whose store is 3 x n doubles; the host\n"
          "   binding copies the data into a host matrix and the returned store into numpy)")
    ns = [10 ** k for k in range(3, 8) if 10 ** k <= max_n]
    per_step = {}
    rng = np.random.default_rng(7)
    sys, var = local_level(rng)
    for n in ns:
        y = (np.cumsum(rng.normal(scale=0.1 ** 0.5, size=n)) + rng.normal(size=n))[None, :]
        y[0, rng.uniform(size=n) < 0.01] = np.nan  # as in the other workloads
        ll, s2 = tessel.Ref(), tessel.Ref()
        reps = max(3, min(repeat, int(2e6 // n) or 1))
        t, _ = median_time(lambda: tessel.call("LgmLik", ll, s2, y, sys, var), reps)
        per_step[n] = t / n
        env = dict(os.environ)
        out = subprocess.run([sys_exe(), "-c", GROWTH_CHILD, str(n)], capture_output=True,
                             text=True, env=env, timeout=600)
        if out.returncode == 0:
            base, d_lik, d_fil = (int(x) for x in out.stdout.split())
            mem = (f"peak RSS +{d_lik / 1024:8.1f} MiB (LgmLik; input {8 * n / 2**20:.1f} MiB), "
                   f"+{d_fil / 1024:8.1f} MiB (KalmanFil; store {24 * n / 2**20:.1f} MiB)")
        else:
            mem = "memory probe failed: " + out.stderr.strip()[-200:]
        print(f"  n={n:>9d}  {t * 1e3:10.3f} ms  {t / n * 1e9:6.1f} ns/step  {mem}", flush=True)
    if len(ns) > 2:
        lo = per_step[ns[1]]
        worst = max(per_step[n] / lo for n in ns[1:])
        print(f"  ns/step relative to n={ns[1]}: at most {worst:.2f}x "
              f"({'linear' if worst < 1.5 else 'NOT linear'}); the time includes the host\n"
              "  binding's copy of the data into a fresh host matrix (page faults at large n)")
        return worst < 1.5
    return True


def sys_exe():
    return sys.executable or "/usr/bin/python3"


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--repeat", type=int, default=7, help="timed runs per side (median kept)")
    ap.add_argument("--rtol", type=float, default=1e-8,
                    help="relative agreement required of the log-likelihoods")
    ap.add_argument("--skip-growth", action="store_true")
    ap.add_argument("--max-n", type=float, default=1e7, help="largest n of the growth run")
    ap.add_argument("--only", default="", help="comma list of sections: loglik,smooth,sim,exact,growth")
    args = ap.parse_args()
    only = set(filter(None, args.only.split(",")))

    print(f"load average at start: {os.getloadavg()[0]:.2f} on {os.cpu_count()} cores; "
          f"R: {'found' if shutil.which('Rscript') else 'absent (skipped)'}")
    rng = np.random.default_rng(2008)
    table = Table()
    if not only or "loglik" in only:
        loglik_section(table, rng, args.repeat, args.rtol)
    if not only or "smooth" in only:
        smoothing_section(table, rng, args.repeat)
    if not only or "sim" in only:
        simulation_section(table, rng, args.repeat)
    if not only or "exact" in only:
        exact_section(table, rng, args.repeat, args.rtol)
    linear = True
    if (not only or "growth" in only) and not args.skip_growth:
        linear = growth_section(args.repeat, int(args.max_n))

    print("\n== summary (median seconds; ratio = best peer / Tessel)")
    print(f"{'task':46s} {'n':>8s} {'Tessel ms':>10s} {'ns/step':>8s} {'best peer':>12s} "
          f"{'peer ms':>9s} {'ratio':>6s}")
    for task, n, t, peers, best_name, ratio, agree, _ in table.rows:
        print(f"{task:46s} {n:>8d} {t * 1e3:10.2f} {t / n * 1e9:8.1f} {best_name:>12s} "
              f"{peers[best_name] * 1e3:9.2f} {ratio:6.2f}{'' if agree else '  DISAGREE'}")
    print(f"load average at end: {os.getloadavg()[0]:.2f}; results "
          f"{'agree' if table.ok else 'DO NOT agree'}")
    raise SystemExit(0 if table.ok and linear else 1)


if __name__ == "__main__":
    main()
