"""The idiomatic Python API: builders, named results, pandas indexes and
input checking.

Oracles: the direct by-name calls (builders must produce exactly what the
entry points produce), the joint-Gaussian oracle of tests/python/oracle.py
(named results of the filter, smoother, disturbance smoother and weights),
a numerical derivative (the score convention), plain numpy recursions
(simulation from disturbances) and Monte Carlo moments (draws).
"""

import copy
import math

import numpy as np
import pandas as pd
import pytest

import tessel
from zoo import call_refs as _ref_call
from zoo import recursion_reference
from oracle import Oracle, StateSpace

# Oracle comparisons with proper initial states: both sides are exact
# linear algebra, so differences are rounding (1e-9 relative covers ~1e4
# condition numbers of the small covariance matrices used here).
RTOL = 1e-8
ATOL = 1e-9


# ------------------------------------------------------------- builders


STRUCTURAL_CASES = [
    ([tessel.Level(2.0), tessel.Irregular(3.0)], [[0, 2, 0, 0, 0], [19, 3, 0, 0, 0]]),
    ([tessel.Level(1.0), tessel.Slope(0.5), tessel.DummySeasonal(4, 0.7), tessel.Irregular(2.0)],
     [[0, 1, 0, 0, 0], [1, 0.5, 0, 0, 0], [3, 0.7, 4, 0, 0], [19, 2, 0, 0, 0]]),
    ([tessel.Trend(3, 0.2), tessel.TrigSeasonal(6, 0.3), tessel.Cycle(0.5, 0.9, 1.5),
      tessel.Cycle(1.2, 0.8, 0.5), tessel.Irregular(1.0)],
     [[2, 0.2, 3, 0, 0], [4, 0.3, 6, 0, 0], [7, 1.5, 0.5, 0.9, 0], [8, 0.5, 1.2, 0.8, 0],
      [19, 1, 0, 0, 0]]),
    ([tessel.AR2(0.6, -0.3, 1.1), tessel.ButterworthCycle(0.4, 0.85, 3, 0.6),
      tessel.SumSeasonal(5, 0.25), tessel.AR1(0.7, 2.0), tessel.Level(0.1)],
     [[18, 1.1, 0, 0.6, -0.3], [6, 0.6, 0.4, 0.85, 3], [5, 0.25, 5, 0, 0], [17, 2.0, 0, 0.7, 0],
      [0, 0.1, 0, 0, 0]]),
]


@pytest.mark.parametrize("comps,table", STRUCTURAL_CASES)
def test_structural_builder_equals_direct_call(comps, table):
    model = tessel.structural(comps)
    starts, (S, V, I) = _ref_call("GetLgmStsm", np.array(table, dtype=float))
    np.testing.assert_array_equal(model.sys, S)
    np.testing.assert_array_equal(model.var, V)
    np.testing.assert_array_equal(model.init, I)
    # the recorded layout is the library's block starts, row by row
    assert [s for _, s, _, _ in model.info["components"]] == list(starts[0].astype(int))
    assert model.m == S.shape[1] and model.N == 1
    assert sum(size for _, _, size, _ in model.info["components"]) == model.m


def test_single_component_gets_a_zero_irregular():
    model = tessel.structural([tessel.Level(2.0)])
    _, (S, V, I) = _ref_call("GetLgmStsm", np.array([[0, 2.0], [19, 0.0]]))
    np.testing.assert_array_equal(model.var, V)
    np.testing.assert_array_equal(model.sys, S)


@pytest.mark.parametrize("ar,ma,sigma", [([0.5], [], 1.0), ([], [0.4], 2.0),
                                         ([0.6, -0.2], [0.3], 1.5), ([0.1, 0.2, 0.3], [0.5, 0.1], 0.7)])
def test_arma_builder_equals_direct_call(ar, ma, sigma):
    model = tessel.arma(ar, ma, sigma)
    arg = (lambda v: np.array([v], dtype=float) if v else tessel.EMPTY)
    ok, (S, V, I) = _ref_call("GetLgmArma", arg(ar), arg(ma), float(sigma))
    assert ok == 1
    np.testing.assert_array_equal(model.sys, S)
    np.testing.assert_array_equal(model.var, V)
    np.testing.assert_array_equal(model.init, I)


def test_regression_and_spline_builders_equal_direct_calls():
    rng = np.random.default_rng(1)
    X = rng.normal(size=(12, 2))                       # time-major, as the API takes it
    model = tessel.regression(X)
    _, direct = _ref_call("GetLgmReg", X.T.copy(), refs=4)
    for a, b in zip((model.sys, model.var, model.init, model.sysidx, model.tvdata), direct + [X.T]):
        np.testing.assert_array_equal(a, b)

    base = tessel.structural([tessel.Level(1.5), tessel.Irregular(0.5)])
    ext = tessel.add_regression(base, X)
    refs = [tessel.Ref(x) for x in (base.sys, base.var, base.init, tessel.EMPTY)]
    tessel.call("AddLgmReg", X.T.copy(), *refs)
    for a, r in zip((ext.sys, ext.var, ext.init, ext.sysidx), refs):
        np.testing.assert_array_equal(a, r.value)
    # the component layout moves behind the two regression states
    assert [s for _, s, _, _ in ext.info["components"]] == [2, 3]

    d = np.array([1.0, 0.5, 2.0, 1.5])
    sp = tessel.spline(3.0, d)
    _, direct = _ref_call("GetLgmSpline", 3.0, d[None, :], refs=6)
    for a, b in zip((sp.sys, sp.var, sp.init, sp.sysidx, sp.varidx, sp.tvdata), direct):
        np.testing.assert_array_equal(a, b)
    fixed = tessel.spline(3.0)
    np.testing.assert_array_equal(fixed.var, _ref_call("GetLgmSpline", 3.0, tessel.EMPTY)[1][1])
    assert not fixed.time_varying


def test_add_regression_keeps_an_existing_time_varying_block():
    """Regression added to a regression model: the old regressors move to
    rows k.. of tvdata and the likelihood equals that of one regression on
    both regressors (the two models are the same up to the order of the
    states)."""
    rng = np.random.default_rng(5)
    n = 30
    X1, X2 = rng.normal(size=(n, 1)), rng.normal(size=(n, 2))
    y = X1[:, 0] * 0.5 + X2 @ [1.0, -2.0] + rng.normal(size=n)
    nested = tessel.add_regression(tessel.regression(X1), X2)
    joint = tessel.regression(np.hstack([X2, X1]))
    np.testing.assert_array_equal(nested.tvdata, joint.tvdata)
    assert tessel.loglik(y, nested).loglik == pytest.approx(tessel.loglik(y, joint).loglik, rel=1e-10)


# ---------------------------------------------------------- model object


def test_model_copies_in_and_is_read_only():
    sys_ = np.array([[1.0], [1.0]])
    var = np.diag([0.5, 1.0])
    model = tessel.Model(sys_, var)
    sys_[0, 0] = 9.0
    var[0, 0] = 9.0
    assert model.sys[0, 0] == 1.0 and model.var[0, 0] == 0.5
    with pytest.raises(ValueError):
        model.var[0, 0] = 2.0
    changed = model.replace(var=np.diag([2.0, 1.0]))
    assert changed.var[0, 0] == 2.0 and model.var[0, 0] == 0.5
    assert (model.m, model.N, model.diffuse) == (1, 1, 1)


BAD_MODELS = [
    (dict(sys=np.ones((2, 2)), var=np.eye(2)), "more rows than columns"),
    (dict(sys=np.ones((3, 1)), var=np.eye(2)), r"var: expected shape \(3, 3\)"),
    (dict(sys=[[np.nan], [1.0]], var=np.eye(2)), "sys: every element must be finite"),
    (dict(sys=[[1.0], [1.0]], var=[[1.0, 0.0], [0.0, np.inf]]), "var: every element"),
    (dict(sys=[[1.0], [1.0]], var=[[1.0, 0.2], [0.0, 1.0]]), "var: must be symmetric"),
    (dict(sys=[[1.0], [1.0]], var=[[-1.0, 0.0], [0.0, 1.0]]), "must not be negative"),
    (dict(sys=[[1.0], [1.0]], var=np.eye(2), init=np.ones((1, 1))), r"init: expected shape \(2, 1\)"),
    (dict(sys=[[1.0], [1.0]], var=np.eye(2), mean=[0.0]), r"mean: expected shape \(2, 1\)"),
    (dict(sys=[[1.0], [1.0]], var=np.eye(2), sysidx=[[-1.0], [0.0]]), "needs tvdata"),
    (dict(sys=[[1.0], [1.0]], var=np.eye(2), tvdata=np.ones((1, 4))), "without any index"),
    (dict(sys=[[1.0], [1.0]], var=np.eye(2), sysidx=[[-1.0], [1.0]], tvdata=np.ones((1, 4))),
     "refer to row 1 of tvdata"),
    (dict(sys=[[1.0], [1.0]], var=np.eye(2), sysidx=[[-1.0], [0.5]], tvdata=np.ones((1, 4))),
     "whole numbers"),
    (dict(sys="abc", var=np.eye(2)), "string"),
]


@pytest.mark.parametrize("kwargs,match", BAD_MODELS)
def test_invalid_models_are_refused_and_arrays_unchanged(kwargs, match):
    before = copy.deepcopy(kwargs)
    with pytest.raises(tessel.ModelError, match=match):
        tessel.Model(**kwargs)
    for k, v in kwargs.items():
        if not isinstance(v, str):
            np.testing.assert_array_equal(np.asarray(v, dtype=float), np.asarray(before[k], float))


BAD_COMPONENTS = [
    (lambda: tessel.Level(-1.0), "sigma: must be >= 0"),
    (lambda: tessel.Trend(0, 1.0), "order: must be between 1 and 9"),
    (lambda: tessel.DummySeasonal(1, 1.0), "period: must be between 2"),
    (lambda: tessel.DummySeasonal(4.5, 1.0), "whole number"),
    (lambda: tessel.Cycle(4.0, 0.5, 1.0), r"frequency: must be <= 3.14"),
    (lambda: tessel.Cycle(1.0, 1.5, 1.0), "damping: must be <= 1"),
    (lambda: tessel.AR1(1.2, 1.0), "phi: must be <= 1"),
    (lambda: tessel.AR2(0.5, -1.5, 1.0), "root2: must be >= -1"),
    (lambda: tessel.structural([tessel.Slope(1.0), tessel.Irregular(1.0)]), "needs a Level"),
    (lambda: tessel.structural([tessel.Level(1.0), tessel.Trend(2, 1.0)]), "at most one Level"),
    (lambda: tessel.structural([tessel.Level(1.0), tessel.DummySeasonal(4, 1.0),
                                tessel.TrigSeasonal(4, 1.0)]), "at most one seasonal"),
    (lambda: tessel.structural([tessel.Irregular(1.0)]), "not only Irregular"),
    (lambda: tessel.structural([]), "at least one component"),
    (lambda: tessel.structural([tessel.Level(1.0), "irregular"]), "not a tessel component"),
    (lambda: tessel.structural([tessel.Level(), tessel.Irregular(1.0)]), "sigma is not set"),
    (lambda: tessel.structural([tessel.Cycle(sigma=1.0), tessel.Irregular(1.0)]), "not set"),
    (lambda: tessel.arma([], [], 1.0), "at least one AR or MA"),
    (lambda: tessel.arma([1.0], [], 1.0), "not stationary"),
    (lambda: tessel.arma([0.5], [], 0.0), "sigma: must be > 0"),
    (lambda: tessel.arma([[0.5, 0.1], [0.2, 0.3]], [], 1.0), "1-D sequence"),
    (lambda: tessel.regression(np.zeros((0, 2))), "non-empty"),
    (lambda: tessel.regression([[1.0], [np.nan]]), "must be finite"),
    (lambda: tessel.spline(-1.0), "q: must be >= 0"),
    (lambda: tessel.spline(1.0, [1.0, -1.0]), "must not be negative"),
    (lambda: tessel.add_regression("model", [1.0, 2.0]), "expected a tessel.Model"),
    (lambda: tessel.add_regression(tessel.Model(np.ones((3, 1)), np.eye(3)), [1.0]),
     "exactly one observation series"),
    (lambda: tessel.add_regression(tessel.Model([[1.0], [1.0]], [[1.0, 0.5], [0.5, 1.0]]), [1.0]),
     "covariances between state and observation"),
]


@pytest.mark.parametrize("make,match", BAD_COMPONENTS)
def test_invalid_builder_arguments(make, match):
    with pytest.raises(tessel.ModelError, match=match):
        make()


# ------------------------------------------- named results vs the oracle


@pytest.fixture
def bivariate():
    """Two series, two states, proper initial state, intercepts, a
    state/observation covariance and one element missing."""
    rng = np.random.default_rng(42)
    sys_ = np.array([[0.8, 0.2], [0.0, 0.6], [1.0, 0.0], [0.5, 1.0]])
    var = np.diag([0.4, 0.3, 0.9, 0.6])
    var[0, 2] = var[2, 0] = 0.1
    init = np.array([[1.2, 0.0], [0.3, 0.8], [0.1, -0.2]])
    mean = np.array([[0.1], [0.0], [1.0], [-0.5]])
    n = 8
    y = rng.normal(size=(n, 2)) + [1.0, -0.5]
    y[2, 1] = np.nan
    y[5, 0] = np.nan
    model = tessel.Model(sys_, var, init, mean)
    ora = Oracle(StateSpace(sys_, var, init=init, mean=mean), y.T.copy())
    return model, y, ora


def test_filter_results_unpack_the_store(bivariate):
    model, y, ora = bivariate
    y_before = y.copy()
    f = tessel.kalman_filter(y, model)
    np.testing.assert_array_equal(y, y_before)
    v, F, M, K = ora.innovations()
    obs = ~np.isnan(y)
    np.testing.assert_allclose(f.innovations[obs], v.T[obs], rtol=RTOL, atol=ATOL)
    np.testing.assert_allclose(f.gains, K, rtol=RTOL, atol=ATOL)
    for t in range(y.shape[0]):
        o = obs[t]
        if o.any():
            Finv = np.zeros((2, 2))
            Finv[np.ix_(o, o)] = np.linalg.inv(F[t][np.ix_(o, o)])
            np.testing.assert_allclose(f.inverse_variances[t], Finv, rtol=RTOL, atol=ATOL)
    assert f.innovations[2, 1] == 0.0 and f.innovations[5, 0] == 0.0   # missing elements
    assert np.all(f.gains[2][:, 1] == 0.0) and np.all(f.inverse_variances[2][1] == 0.0)
    assert f.store.shape == (2 + 3 + 4, y.shape[0])      # N + N(N+1)/2 + mN rows


def test_likelihoods_and_moments_match_the_oracle(bivariate):
    model, y, ora = bivariate
    ll, scale, cnt = ora.loglik()
    res = tessel.loglik(y, model)
    assert res.loglik == pytest.approx(ll, rel=1e-10)
    assert res.scale == pytest.approx(scale, rel=1e-10)
    assert res.nobs == cnt
    llc, s2c = ora.loglik_concentrated()
    conc = tessel.loglik_concentrated(y, model)
    assert (conc.loglik, conc.scale) == pytest.approx((llc, s2c), rel=1e-10)

    a, P = ora.predicted_states()
    pm = tessel.predicted(y, model)
    np.testing.assert_allclose(pm.state, a[:, :-1].T, rtol=RTOL, atol=ATOL)
    np.testing.assert_allclose(pm.state_var, np.diagonal(P[:-1], axis1=1, axis2=2), rtol=RTOL)
    np.testing.assert_allclose(pm.end[-1], a[:, -1], rtol=RTOL, atol=ATOL)   # a(n) beyond the data
    af, Pf = ora.filtered_states()
    fm = tessel.filtered(y, model)
    np.testing.assert_allclose(fm.state, af.T, rtol=RTOL, atol=ATOL)
    np.testing.assert_allclose(fm.state_var, np.diagonal(Pf, axis1=1, axis2=2), rtol=RTOL)
    As, Ps = ora.smoothed_states()
    sm = tessel.smoothed(y, model)
    np.testing.assert_allclose(sm.state, As.T, rtol=RTOL, atol=ATOL)
    np.testing.assert_allclose(sm.state_var, np.diagonal(Ps, axis1=1, axis2=2), rtol=RTOL)
    sig, sigvar = ora.signals("smoothed", intercept=True)
    np.testing.assert_allclose(sm.signal, sig.T, rtol=RTOL, atol=ATOL)      # intercept included
    np.testing.assert_allclose(sm.signal_var, np.diagonal(sigvar, axis1=1, axis2=2), rtol=RTOL)

    mean, var, _ = ora.smoothed_disturbances()
    dist = tessel.disturbances(y, model)
    np.testing.assert_allclose(dist.mean, mean.T, rtol=RTOL, atol=ATOL)
    np.testing.assert_allclose(dist.var, np.diagonal(var, axis1=1, axis2=2), rtol=RTOL, atol=ATOL)


def test_whole_missing_time_point_in_a_multivariate_smoother_warns(bivariate):
    """The multivariate backward pass carries the NaN innovations of a time
    point without observations back to every earlier time point (the
    library's documented behaviour); the API says so and the forward
    results stay finite."""
    model, y, _ = bivariate
    y = y.copy()
    y[4, :] = np.nan
    with pytest.warns(RuntimeWarning, match="every series missing"):
        sm = tessel.smoothed(y, model)
    assert np.all(np.isnan(sm.state[:5])) and np.all(np.isfinite(sm.state[5:]))
    assert np.all(np.isfinite(tessel.predicted(y, model).state))


def test_score_is_twice_the_derivative_with_respect_to_var(bivariate):
    """d loglik / d var[i, i] = S[i, i] / 2, and a symmetric change of an
    off-diagonal pair changes loglik by S[i, j] (central differences, step
    1e-6 on O(1) variances: truncation ~1e-12, rounding ~1e-9)."""
    model, y, _ = bivariate
    sc = tessel.score(y, model)
    assert sc.loglik == pytest.approx(tessel.loglik(y, model).loglik, rel=1e-12)
    h = 1e-6
    for i, j in ((0, 0), (1, 1), (2, 2), (3, 3), (0, 2), (1, 3)):
        E = np.zeros((4, 4))
        E[i, j] = E[j, i] = h
        up = tessel.loglik(y, model.replace(var=model.var + E)).loglik
        dn = tessel.loglik(y, model.replace(var=model.var - E)).loglik
        numeric = (up - dn) / (2 * h)
        expected = sc.gradient[i, i] if i == j else sc.matrix[i, j]
        assert expected == pytest.approx(numeric, rel=1e-5, abs=1e-6), (i, j)


def test_weights_match_the_oracle():
    rng = np.random.default_rng(3)
    sys_ = np.array([[0.9, 1.0], [0.0, 0.7], [1.0, 0.0]])
    var = np.diag([0.5, 0.2, 1.0])
    init = np.array([[2.0, 0.0], [0.0, 1.0], [0.0, 0.0]])
    y = rng.normal(size=9)
    y[3] = np.nan
    model = tessel.Model(sys_, var, init)
    ora = Oracle(StateSpace(sys_, var, init=init), y[None, :])
    for kind in ("predicted", "filtered", "smoothed"):
        w = tessel.weights(y, model, time=5, kind=kind)
        np.testing.assert_allclose(w.state.T, ora.weights(5, 0, kind), rtol=1e-8, atol=1e-10,
                                   err_msg=kind)
        np.testing.assert_allclose(w.signal[:, 0], (sys_[2:] @ w.state.T)[0], rtol=1e-12, atol=1e-14)


def test_conditional_density_mean_equals_the_smoothers(bivariate):
    """LgmCondDens's state mean uses the state block of var only, so the
    comparison is made without the state/observation covariance."""
    model, y, _ = bivariate
    var = np.array(model.var)
    var[0, 2] = var[2, 0] = 0.0
    model = model.replace(var=var)
    sm = tessel.smoothed(y, model)
    cd = tessel.conditional_density(y, model)
    np.testing.assert_allclose(cd.state, sm.state, rtol=1e-10, atol=1e-12)
    np.testing.assert_allclose(cd.observation, sm.signal, rtol=1e-10, atol=1e-12)
    cdd = tessel.conditional_density(y, model, target="disturbance")
    dist = tessel.disturbances(y, model)
    np.testing.assert_allclose(np.hstack([cdd.state, cdd.observation]), dist.mean, rtol=1e-10,
                               atol=1e-12)


def test_draws_have_the_conditional_moments():
    """Simulation smoother and conditional-density draws of a local level
    model: over 2000 draws the mean of each disturbance is within 4.5
    Monte Carlo standard errors of the smoothed mean and the variance within
    4.5 standard errors (sd of a variance estimate ~ var sqrt(2/R))."""
    rng = np.random.default_rng(11)
    y = np.cumsum(rng.normal(size=25)) + rng.normal(size=25)
    y[[4, 17]] = np.nan
    model = tessel.structural([tessel.Level(0.8), tessel.Irregular(1.1)])
    dist = tessel.disturbances(y, model)
    R = 2000
    sim = tessel.simulation_smoother(y, model, select=[0], ndraws=R, seed=7)
    draws = sim.draws[:, :, 0]
    mu, var = dist.mean[:, 0], dist.var[:, 0]
    z = (draws.mean(0) - mu) / np.sqrt(var / R)
    assert np.max(np.abs(z)) < 4.5
    zv = (draws.var(0) - var) / (var * math.sqrt(2.0 / R))
    assert np.max(np.abs(zv)) < 4.5
    assert np.all(sim.draws[:, :, 1] == 0.0)              # unselected element
    # conditional-density draws of the state, seeded through the host
    sm = tessel.smoothed(y, model)
    states = np.array([np.asarray(tessel.conditional_density(y, model, draw=True, seed=s).state)[:, 0]
                       for s in range(300)])
    z = (states.mean(0) - np.asarray(sm.state)[:, 0]) / np.sqrt(np.asarray(sm.state_var)[:, 0] / 300)
    assert np.max(np.abs(z)) < 4.5
    a = tessel.conditional_density(y, model, draw=True, seed=5).state
    b = tessel.conditional_density(y, model, draw=True, seed=5).state
    np.testing.assert_array_equal(a, b)


def test_recursion_and_simulate():
    """LgmRecursion against a numpy loop of the state space equations, and
    simulate() draws with the stationary moments of an AR(1)."""
    sys_ = np.array([[0.5, 1.0], [0.2, 0.0], [1.0, 0.0]])
    var = np.diag([1.0, 0.3, 0.5])
    init = np.array([[1.0, 0.0], [0.0, 2.0], [0.3, -0.1]])
    mean = np.array([[0.1], [0.0], [2.0]])
    model = tessel.Model(sys_, var, init, mean)
    rng = np.random.default_rng(2)
    u = rng.normal(size=(6, 3))
    out = tessel.recursion(model, u)
    ref = recursion_reference(StateSpace(sys_, var, init=init, mean=mean), u.T,
                              init[2] + init[:2] @ u[0, :2])
    np.testing.assert_allclose(out.state, ref[:2, :-1].T, rtol=1e-12, atol=1e-12)
    np.testing.assert_allclose(out.observation, ref[2:, 1:].T, rtol=1e-12, atol=1e-12)

    ar = tessel.arma([0.6], [], 1.0)
    sim = tessel.simulate(ar, 20000, seed=4)
    x = sim.observation[:, 0]
    # stationary variance 1/(1-0.36); sd of the sample variance ~ 0.02 here
    assert x.var() == pytest.approx(1 / (1 - 0.36), rel=0.05)
    assert np.corrcoef(x[1:], x[:-1])[0, 1] == pytest.approx(0.6, abs=0.03)
    again = tessel.simulate(ar, 50, seed=4)
    np.testing.assert_array_equal(again.observation, tessel.simulate(ar, 50, seed=4).observation)


# ------------------------------------------------------------------ pandas


INDEXES = [
    pd.date_range("2001-01-01", periods=24, freq="MS"),
    pd.period_range("1990Q1", periods=24, freq="Q"),
    pd.RangeIndex(10, 58, 2),
    pd.Index(np.arange(1901, 1925), name="year"),
]


@pytest.mark.parametrize("index", INDEXES, ids=["datetime", "period", "range", "years"])
def test_pandas_indexes_survive(index):
    rng = np.random.default_rng(8)
    y = pd.Series(np.cumsum(rng.normal(size=24)) + 10, index=index, name="flow")
    y.iloc[3] = np.nan
    model = tessel.structural([tessel.Level(1.0), tessel.Irregular(0.5)])
    for res in (tessel.smoothed(y, model), tessel.predicted(y, model)):
        assert res.state.index.equals(index) and res.signal.index.equals(index)
        assert list(res.signal.columns) == ["flow"]
    assert tessel.kalman_filter(y, model).innovations.index.equals(index)
    assert tessel.disturbances(y, model).mean.index.equals(index)
    assert tessel.conditional_density(y, model).state.index.equals(index)
    assert tessel.weights(y, model, time=5).state.index.equals(index)
    fit = tessel.fit(y, [tessel.Level(), tessel.Irregular()])
    assert fit.components().index.equals(index)
    fc = fit.forecast(3)
    expected = tessel.extend_index(index, 3)
    assert fc.mean.index.equals(expected)
    if isinstance(index, pd.DatetimeIndex):
        assert list(expected.month) == [1, 2, 3] and list(expected.year) == [2003] * 3
    elif isinstance(index, pd.PeriodIndex):
        assert [str(p) for p in expected] == ["1996Q1", "1996Q2", "1996Q3"]
    else:
        assert list(expected) == [index[-1] + k * (index[1] - index[0]) for k in (1, 2, 3)]


def test_dataframe_in_dataframe_out(bivariate):
    model, y, _ = bivariate
    idx = pd.date_range("2020-01-31", periods=y.shape[0], freq="M")
    frame = pd.DataFrame(y, index=idx, columns=["a", "b"])
    sm = tessel.smoothed(frame, model)
    assert list(sm.signal.columns) == ["a", "b"] and sm.signal.index.equals(idx)
    np.testing.assert_allclose(sm.signal.to_numpy(), np.asarray(tessel.smoothed(y, model).signal))


# ------------------------------------------------------------ invalid calls


def test_invalid_calls_raise_and_leave_arrays_alone():
    model = tessel.structural([tessel.Level(1.0), tessel.Irregular(1.0)])
    y = np.array([1.0, 2.0, np.nan, 3.0])
    y2 = np.ones((4, 2))
    keep = y.copy(), y2.copy()
    cases = [
        (lambda: tessel.loglik(y2, model), "has 2 series but the model has N = 1"),
        (lambda: tessel.loglik(np.ones((2, 2, 2)), model), "1-D .* or 2-D"),
        (lambda: tessel.loglik(np.array([1.0, np.inf]), model), "infinite"),
        (lambda: tessel.loglik(np.array([]), model), "no time points"),
        (lambda: tessel.loglik(["a", "b"], model), "array of numbers"),
        (lambda: tessel.loglik(pd.Series(["a", "b"]), model), "must be numeric"),
        (lambda: tessel.loglik(y, "model"), "expected a tessel.Model"),
        (lambda: tessel.smoothed(y, tessel.regression(np.ones(3))), "tvdata has 3 columns"),
        (lambda: tessel.conditional_density(y, model, target="signal"), "target must be"),
        (lambda: tessel.conditional_density(y, model, draw=True, seed=-1), "seed"),
        (lambda: tessel.conditional_density(y, model, draw=True, seed=1, rng=np.random.default_rng()),
         "not both"),
        (lambda: tessel.conditional_density(
            y, tessel.structural([tessel.Level(0.0), tessel.Irregular(1.0)]), draw=True),
         "nothing to draw"),
        (lambda: tessel.weights(y, model, time=2), "must not be missing"),
        (lambda: tessel.weights(y, model, time=9), "time must be an int in 0..3"),
        (lambda: tessel.weights(y, model, time=1, kind="best"), "kind must be one of"),
        (lambda: tessel.simulation_smoother(y, model, select=[5]), "indices in 0..1"),
        (lambda: tessel.simulation_smoother(y, model, ndraws=0), "ndraws"),
        (lambda: tessel.simulate(model, 0), "positive int"),
        (lambda: tessel.recursion(model, np.ones((1, 2))), r"\(n\+1\) x 2"),
        (lambda: tessel.recursion(model, np.full((3, 2), np.nan)), "finite"),
    ]
    for make, match in cases:
        with pytest.raises(tessel.ModelError, match=match):
            make()
    np.testing.assert_array_equal(y, keep[0])
    np.testing.assert_array_equal(y2, keep[1])


def test_library_failures_become_numerical_errors():
    model = tessel.structural([tessel.Trend(3, 1.0), tessel.Irregular(1.0)])
    y = np.array([1.0, np.nan, np.nan, 2.0])        # two observed values, three diffuse states
    for fn in (tessel.loglik, tessel.loglik_concentrated, tessel.score, tessel.smoothed,
               tessel.kalman_filter, tessel.disturbances, tessel.conditional_density):
        with pytest.raises(tessel.NumericalError, match="too few observations: 2 observed values "
                                                        "for 3 diffuse"):
            fn(y, model)
    # a singular innovation variance is reported by the library itself
    flat = tessel.Model([[1.0], [1.0]], np.zeros((2, 2)), init=[[0.0], [1.0]])
    with pytest.raises(tessel.NumericalError, match="non-positive semi-definite"):
        tessel.loglik([1.0, 2.0, 3.0], flat)
