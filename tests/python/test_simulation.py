"""Simulation smoother (SimSmoWgt, SimSmoDraw) and the draws of LgmCondDens
against the joint-Gaussian oracle.

A draw of SimSmoDraw is affine in the normals z it is given, d(z) = d(0) +
L z: d(0) and L L' are its exact mean and covariance, to equal the oracle's
conditional moments (proper starts agree to ~1e-15: 1e-9; diffuse ones lose
up to 7 digits, measured ~5e-10: 1e-7). LgmCondDens draws with the host's
generator: one seeded moment check against the exact target."""

import numpy as np
import pytest
from scipy.stats import norm

import tessel
from tessel import _exact
from oracle import Oracle, StateSpace
from zoo import ZOO, assert_close, exact_model


def complete(name):
    case = ZOO[name]()
    return case.replace(y=np.where(np.isnan(case.y), 0.5, case.y))


def selected_rows(ora, sel):
    """Oracle rows of the selected disturbances, time-major."""
    return np.concatenate([ora.dist_rows(t)[sel] for t in range(ora.n)])


def draw_setup(case, diag):
    """Selection matrix (noise off the diagonal, which is ignored), its flags,
    the filter store and the simulation weights."""
    S = np.full((case.p, case.p), 7.0)
    np.fill_diagonal(S, diag)
    sel = (np.asarray(diag) != 0) | np.isnan(diag)
    store = tessel.call("KalmanFil", case.y, *case.args())
    wgt = tessel.call("SimSmoWgt", S, store, *case.args())
    q, n = sel.sum(), case.y.shape[1]
    assert wgt.shape == (q * case.p + q * (q + 1) // 2, n)
    return lambda z: tessel.call("SimSmoDraw", S, z, wgt, store, *case.args()), sel


@pytest.mark.parametrize("case, diag, tol", [
    (complete("trend_diffuse"), [1.0, 2.0, 0.0], 1e-7),
    (ZOO["level_proper"](), [0.0, np.nan], 1e-9),            # NaN selects
    (ZOO["known_level"](), [1.0, 1.0, 0.0], 1e-9),
    (ZOO["multi_correlated"](), [np.nan, 0.0, 1.0, 0.0, 1.0], 1e-9),
    (ZOO["multi_diffuse_tv"](), [1.0, 0.0, 1.0, 0.0], 1e-7),
    (ZOO["level_proper"]().replace(y=ZOO["level_proper"]().y[:, :2]), [1.0, 1.0], 1e-9),  # q = p
], ids=["diffuse", "observation", "known_start", "correlated", "time_varying", "all_selected"])
def test_draw_is_affine_with_the_conditional_moments(case, diag, tol):
    draw, sel = draw_setup(case, diag)
    q, n, m = sel.sum(), case.y.shape[1], case.m
    d0 = draw(np.zeros((q, n)))
    assert d0.shape == (case.p, n + 1)
    assert np.all(d0[~sel, 1:] == 0.0) and np.all(d0[m:, 0] == 0.0)
    mean = d0[sel, 1:].T.reshape(-1)
    L = np.zeros((mean.size, q * n))
    for k in range(q * n):
        z = np.zeros((q, n))
        z[k % q, k // q] = 1.0
        L[:, k] = draw(z)[sel, 1:].T.reshape(-1) - mean
    ora = case.oracle()
    given, _ = ora.observed_rows()
    rows = selected_rows(ora, sel)
    want_mean, want_cov, _ = ora.condition(rows, given)
    assert_close(mean, want_mean, tol, "draw at z = 0")
    assert_close(L @ L.T, want_cov, tol, "covariance of the draws")
    if not case.d and q < case.p:
        # Column 0 holds r with a + P r = E[alpha(0) | y, the drawn disturbances]
        # (with every disturbance drawn, the data would be conditioned on twice).
        d = draw(np.random.default_rng(5).normal(size=(q, n)))
        a0, P0, _ = case.model.initial()
        want, _, _ = ora.condition(ora.state_rows(0), np.r_[given, rows],
                                   np.r_[ora.values(given), d[sel, 1:].T.reshape(-1)])
        assert_close(a0 + P0 @ d[:m, 0], want, tol, "a + P r at the start")


def test_single_series_gap_carries_nan_backwards():
    """A single series missing at t0: the draws are NaN at t <= t0 and in
    column 0, and LgmCondDens, which rebuilds the states forward from
    column 0, is NaN everywhere."""
    case = complete("trend_diffuse")
    case.y[0, 6] = np.nan
    draw, _ = draw_setup(case, [1.0, 1.0, 0.0])
    d = draw(np.random.default_rng(3).normal(size=(2, case.y.shape[1])))
    assert np.all(np.isnan(d[:2, :7])) and np.all(np.isfinite(d[:2, 8:])) and np.all(d[2] == 0)
    assert np.all(np.isnan(tessel.call("LgmCondDens", 2, case.y, *case.args())))


def test_conditional_draws_in_distribution():
    """LgmCondDens 2: 10000 seeded draws of states and signals against their
    exact law. The state disturbances are drawn given y and the states
    rebuilt from a + P r, so the spread is Var(X | y) - Var(X | y, state
    disturbances), short of the smoothed variance. Standardised mean and
    covariance differences (a covariance estimate of jointly normal
    components has variance (S_jj S_kk + S_jk^2) / R) against the two-sided
    Bonferroni bound for a false-alarm rate of 1e-4 per check; the smoothed
    variance itself must fail it (the check has the power)."""
    case, R = ZOO["multi_correlated"](), 10000
    ora, m, N, n = case.oracle(), case.m, case.N, case.y.shape[1]
    given, _ = ora.observed_rows()
    X = np.zeros(((m + N) * n, ora.G.shape[0]))  # rows of the result, then time
    for t in range(n):
        X[np.arange(m) * n + t, ora.state_rows(t)] = 1.0
        X[(m + np.arange(N)) * n + t, ora.obs_rows(t)] = 1.0
        X[(m + np.arange(N)) * n + t, ora.dist_rows(t)[m:]] = -1.0  # signal = y - e_obs
    extra = selected_rows(ora, np.arange(case.p) < m)
    mean, smoothed, _ = ora.condition(X, given)
    both = np.r_[given, extra]
    cov = smoothed - ora.condition(X, both, np.zeros(both.size))[1]
    tessel.set_seed(79)
    draws = np.array([tessel.call("LgmCondDens", 2, case.y, *case.args()).reshape(-1)
                      for _ in range(R)])

    def worst(C):
        sd = np.sqrt(np.diag(C))
        D = draws - mean
        iu = np.triu_indices(len(sd))
        z_cov = ((D.T @ D / R - C) / np.sqrt((np.outer(sd**2, sd**2) + C**2) / R))[iu]
        return max(np.abs(D.mean(axis=0) / sd * np.sqrt(R)).max(), np.abs(z_cov).max()), \
            norm.isf(1e-4 / (2 * (len(sd) + iu[0].size)))

    z, bound = worst(cov)
    assert z < bound, f"draws off by {z:.2f} sd (bound {bound:.2f})"
    z, bound = worst(smoothed)
    assert z > bound, "the smoothed variance is not told apart"


def test_selection_4_uses_the_draw_of_selection_2():
    """With the same seed, selection 4 returns the state disturbances that
    carry the states of selection 2 from t to t+1 and the data minus its
    signal."""
    case = ZOO["multi_correlated"]()
    y, args = case.y, case.args()
    tessel.set_seed(2026)
    a = tessel.call("LgmCondDens", 2, y, *args)
    tessel.set_seed(2026)
    e = tessel.call("LgmCondDens", 4, y, *args)
    m, T, c = case.m, case.sys[:case.m], case.mean[:case.m]
    np.testing.assert_allclose(a[:m, 1:], c + T @ a[:m, :-1] + e[:m, :-1], rtol=0, atol=1e-12)
    np.testing.assert_allclose(e[m:], y - a[m:], rtol=0, atol=1e-12)  # NaN where y is missing


# ---------------------------------------------- exact initial routines

@pytest.mark.parametrize("name", ["trend_diffuse", "multi_trend", "arma_proper", "multi_correlated"])
def test_exact_draws_are_affine_with_the_exact_moments(name):
    """SimSmoDrawExact and LgmDraw are affine in the normals z: the draw at
    z = 0 and the columns of unit z's give the exact mean and covariance of
    what is drawn. Simulation smoother: states from t = 0 and every
    disturbance, given y (the oracle's exact diffuse limit; the ARMA state
    noise has rank one). LgmDraw: the model's unconditional moments with the
    diffuse elements held at their mean. Both sides are exact to rounding on
    O(1) matrices: 1e-9."""
    case = ZOO[name]()
    model, ora = exact_model(case), case.oracle(diffuse="exact")
    m, p, n = case.m, case.p, case.y.shape[1]
    units = np.vstack([np.zeros((1, p * (n + 1))), np.eye(p * (n + 1))]).reshape(-1, n + 1, p)
    z = units.transpose(0, 2, 1)  # column t of z: normals of column t
    rows = np.r_[[ora.state_rows(t)[k] for k in range(m) for t in range(n)],
                 [ora.dist_rows(t)[k] for k in range(p) for t in range(n)]]

    def moments(d):
        d = d.reshape(d.shape[0], -1)
        return d[0], (d[1:] - d[0]).T

    res = _exact.simulation_smoother(case.y.T, model, z=z)
    mean, L = moments(np.concatenate([res.state, res.disturbances], axis=2).transpose(0, 2, 1))
    want_mean, want_cov, _ = ora.condition(rows, ora.observed_rows()[0])
    assert_close(mean, want_mean, 1e-9, "conditional draw at z = 0")
    assert_close(L @ L.T, want_cov, 1e-9, "conditional covariance")
    sim = _exact.simulate(model, n, z=z)
    mean, L = moments(np.concatenate([sim.state, sim.disturbances, sim.observation],
                                     axis=2).transpose(0, 2, 1))
    obs = np.r_[[ora.obs_rows(t)[i] for i in range(case.N) for t in range(n)]]
    rows = np.r_[rows, obs]
    assert_close(mean, ora.mu[rows], 1e-9, "unconditional draw at z = 0")
    assert_close(L @ L.T, ora.G[rows] @ ora.G[rows].T, 1e-9, "unconditional covariance")


def test_exact_simulation_smoother_in_distribution():
    """numpy-driven draws (seeded) for the Nile local level at every t, t = 0
    included: standardised mean and variance differences within the
    Bonferroni bound for a false-alarm rate of 1e-4."""
    y, var, R = tessel.load_example("nile").to_numpy(dtype=float), [1469.1, 15099.0], 4000
    a, V = Oracle(StateSpace([[1.0], [1.0]], np.diag(var)), y[None], "exact").smoothed_states()
    model = tessel.Model([[1.0], [1.0]], np.diag(var))
    d = _exact.simulation_smoother(y, model, ndraws=R, seed=11).state
    sd = np.sqrt(np.einsum("tii->ti", V))
    z_mean = (d.mean(0) - a.T) / sd * np.sqrt(R)
    z_var = (d.var(0) / sd**2 - 1) / np.sqrt(2 / R)
    assert max(np.abs(z_mean).max(), np.abs(z_var).max()) < norm.isf(1e-4 / (4 * sd.size))


def test_exact_bootstrap_rebuilds_the_data():
    """LgmBootstrap through the innovations form: each position drawing its
    own standardised innovation gives y back; drawn ones keep the diffuse
    period and the missing values."""
    case = ZOO["multi_partly_diffuse"]()
    y, model, n = case.y.T, exact_model(case), case.y.shape[1]
    same = _exact.bootstrap(y, model, src=np.arange(n * case.N)[None])
    assert_close(same.replicates[0], y, 1e-12, "identity resampling")
    reps = _exact.bootstrap(y, model, nrep=5, seed=3)
    td, R = reps.diffuse_end, reps.replicates
    assert td == 1
    np.testing.assert_array_equal(R[:, :td], np.broadcast_to(y[:td], R[:, :td].shape))
    np.testing.assert_array_equal(np.isnan(R), np.broadcast_to(np.isnan(y), R.shape))
    assert np.all(np.abs(np.nan_to_num(R[:, td:] - y[td:])).max(axis=(1, 2)) > 0.1)


@pytest.mark.parametrize("name", ["multi_diffuse_late", "univ_tv"])
def test_exact_mean_pass_equals_a_filter_on_the_new_data(name):
    """fKalmanExactMean with a store of y and new data of y's missing
    pattern: the innovations and the sum of squares of the exact filter run
    on the new data; another missing pattern is refused."""
    case = ZOO[name]()
    parts, n = _exact._parts(exact_model(case), case.y.shape[1]), case.y.shape[1]
    ynew = case.y + np.random.default_rng(4).normal(size=case.y.shape)
    lik, ok, sumsq, store = _exact._tessel.exact_filter_mean(parts, case.y, ynew)
    fresh, store_new, _ = _exact._tessel.exact_filter(parts, ynew, True)
    assert ok and sumsq == pytest.approx(fresh["sumsq"], rel=1e-12)
    v = [_exact._innovations(s, case.m, case.N, lik["diffuse_end"], ~np.isnan(case.y))
         for s in (store, store_new)]
    assert_close(v[0], v[1], 1e-12, "innovations")
    ynew[0, n - 1] = np.nan if not np.isnan(case.y[0, n - 1]) else 1.0
    assert not _exact._tessel.exact_filter_mean(parts, case.y, ynew)[1]
