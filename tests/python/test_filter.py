"""KalmanFil, LgmLik and LgmLikConc against the joint-Gaussian oracle, and
the likelihood against statsmodels.

Every case is a model block given exactly as a Zu program passes it; the
oracle (tests/python/oracle.py) reads the same block and answers by dense
conditioning, with no recursion. From the library we compare:

- the log-likelihood, the scale estimate and the concentrated
  log-likelihood (LgmLik, LgmLikConc);
- from the filter store (KalmanFil): innovations v, the inverse innovation
  variance over the observed elements (and F recovered from it), and the
  gains K = M F^-1;
- predicted states a(t), P(t): the store does not hold them, so for each t
  the model is augmented with m extra series that observe the state
  directly with unit noise; they are missing except at time t, where their
  value is 0. Their innovation is then -a(t) and their block of F is
  P(t) + I. Missing series do not change the filter, so the real series are
  filtered as before (this goes through the multivariate filter).

Tolerances (TOL below). With a proper initial state every quantity is O(1)
and both sides agree to a few rounding errors (measured <= 1.5e-14): 1e-9.
Diffuse elements enter with variance kappa ~ 1e7:
- the oracle conditions through an orthogonal factorisation and the
  single-series filter divides by a scalar F, so kappa costs little: measured
  differences <= 1.4e-9 (innovations of the fully diffuse trend): 1e-8;
- the multivariate filter stores F^-1 explicitly and forms K = M F^-1 and
  P(t+1) = Pbar - K M'. When the kappa-sized part of F = kappa u u' + B does
  not have full rank (fewer diffuse directions than observed series), a
  rounding of F^-1 of relative size eps becomes kappa * eps ~ 2e-9 in K and
  kappa^2 * eps ~ 2e-2 in P after the first update, decaying as the start
  is forgotten. Against a 50-digit evaluation of the same recursion the
  log-likelihood of the N = 2 partly diffuse case is off by 2.6e-4 (the
  oracle by 2e-8; statsmodels, which solves with F instead of inverting it,
  by 3e-9). So multivariate diffuse cases (and the predicted states of any
  diffuse case, which go through the multivariate filter) use 1e-2 relative
  to the size of the compared array and 5e-3 absolute on the
  log-likelihood (measured: up to 9e-4, 4.1e-3 on P).
"""

import numpy as np
import pytest

import tessel
from oracle import KAPPA_FACTOR, Oracle, StateSpace, TWO_PI

NAN = np.nan

# ll: absolute on the log-likelihood; arr: relative to max(1, max |ref|) of
# each compared array (and relative on the scale estimates); aug: the
# predicted states through the augmented (multivariate) model.
TOL = {
    "proper": dict(ll=1e-9, arr=1e-9, aug=1e-9),
    "univ diffuse": dict(ll=1e-8, arr=1e-8, aug=2e-2),
    "multi diffuse": dict(ll=5e-3, arr=1e-2, aug=2e-2),
}

FAIL_TEXT = "{}(): non-positive semi-definite innovation variance matrix"


# ---------------------------------------------------------------- cases


class Case:
    """A model block as the library receives it, the data, and a name."""

    def __init__(self, name, y, sys, var, init=None, mean=None, sysidx=None, varidx=None,
                 meanidx=None, tvdata=None):
        self.name = name
        self.y = np.asarray(y, dtype=float)
        self.sys = np.asarray(sys, dtype=float)
        self.var = np.asarray(var, dtype=float)
        self.init = init
        self.mean = mean
        self.sysidx, self.varidx, self.meanidx, self.tvdata = sysidx, varidx, meanidx, tvdata
        self.model = StateSpace(sys, var, init=init, mean=mean, sysidx=sysidx, varidx=varidx,
                                meanidx=meanidx, tvdata=tvdata)
        self.m, self.N = self.model.m, self.model.N
        diffuse = init is None or np.any(np.diag(np.asarray(init)[: self.m]) < 0)
        kind = "proper" if not diffuse else "univ diffuse" if self.N == 1 else "multi diffuse"
        self.tol = TOL[kind]

    @property
    def time_varying(self):
        return self.tvdata is not None

    def block(self):
        """The model arguments after the data argument."""
        a = [self.sys, self.var]
        opt = [self.init, self.mean]
        if self.time_varying:
            opt += [self.sysidx, self.varidx, self.meanidx, self.tvdata]
        while opt and opt[-1] is None:
            opt.pop()
        return a + [tessel.EMPTY if x is None else x for x in opt]


def _stationary(T, Q):
    """Solution of P = T P T' + Q (the stationary state variance)."""
    m = T.shape[0]
    return np.linalg.solve(np.eye(m * m) - np.kron(T, T), Q.reshape(-1)).reshape(m, m)


def _rng_data(seed, N, n):
    rng = np.random.default_rng(seed)
    return np.cumsum(rng.normal(size=(N, n)), axis=1) * 0.5 + rng.normal(size=(N, n))


def case_univ_trend_diffuse():
    """Local linear trend, no InitMat (both elements diffuse), single gaps."""
    y = _rng_data(1, 1, 14)
    y[0, [2, 7, 8]] = NAN
    sys = [[1, 1], [0, 1], [1, 0]]
    var = np.diag([0.6, 0.05, 1.4])
    return Case("univ trend, fully diffuse", y, sys, var)


def case_univ_arma_proper():
    """ARMA(2,1) in state space form with its stationary initial variance,
    an observation noise correlated with the state noise, and MeanVec."""
    phi1, phi2, theta = 0.5, -0.3, 0.4
    T = np.array([[phi1, 1.0], [phi2, 0.0]])
    R = np.array([[1.0], [theta]])
    Q = R @ R.T * 0.8
    sys = np.vstack([T, [[1.0, 0.0]]])
    var = np.zeros((3, 3))
    var[:2, :2] = Q
    var[2, 2] = 0.3
    var[0, 2] = var[2, 0] = 0.1  # H G' != 0
    P0 = _stationary(T, Q)
    init = np.vstack([P0, [[0.2, -0.1]]])
    mean = np.array([[0.05], [0.0], [1.5]])
    y = _rng_data(2, 1, 12) + 1.5
    y[0, 5] = NAN
    return Case("univ ARMA, proper, MeanVec", y, sys, var, init=init, mean=mean)


def case_multi2_partly_diffuse():
    """N = 2: common level (diffuse) and a stationary AR(1) component
    (proper), correlated observation noise; missing singly, partly (one
    element) and wholly."""
    sys = [[1, 0], [0, 0.7], [1, 1], [0.5, -1]]
    var = np.zeros((4, 4))
    var[0, 0], var[1, 1] = 0.3, 0.5
    var[2:, 2:] = [[1.0, 0.4], [0.4, 0.8]]
    init = [[-1, 0], [0, 0.5 / (1 - 0.49)], [0, 0.3]]
    y = _rng_data(3, 2, 13)
    y[0, 2] = NAN  # partly
    y[:, 6] = NAN  # wholly
    y[1, 9] = NAN  # partly
    return Case("N=2, partly diffuse, missing", y, sys, var, init=init)


def case_multi3_proper_mean():
    """N = 3, m = 2, proper initial state with a correlated P, MeanVec,
    state/observation noise cross-covariance."""
    T = np.array([[0.8, 0.2], [-0.1, 0.5]])
    Z = np.array([[1.0, 0.0], [0.3, 1.0], [-0.5, 0.7]])
    L = np.array([[0.7, 0, 0, 0, 0], [0.2, 0.5, 0, 0, 0], [0.1, 0, 0.9, 0, 0],
                  [0, 0.1, 0.2, 0.6, 0], [0.05, 0, 0.1, 0.3, 0.8]])
    var = L @ L.T
    P0 = np.array([[1.5, 0.4], [0.4, 0.9]])
    init = np.vstack([P0, [[0.3, -0.2]]])
    mean = np.array([[0.1], [-0.05], [1.0], [2.0], [-1.0]])
    y = _rng_data(4, 3, 11) + np.array([[1.0], [2.0], [-1.0]])
    y[2, 1] = NAN
    y[:, 4] = NAN
    y[0, 7] = NAN
    y[1, 7] = NAN
    return Case("N=3, proper, MeanVec", y, np.vstack([T, Z]), var, init=init, mean=mean)


def case_multi3_fully_diffuse():
    """N = 3 with no InitMat."""
    c = case_multi3_proper_mean()
    return Case("N=3, fully diffuse", c.y, c.sys, c.var, mean=c.mean)


def _tv_block(N, n, seed):
    """A time-varying block for the m = 2 models: T[0][0] and Z[0][0]
    vary (SysIdx), the observation variance of series 0 and the covariance
    between series 0 and the last series vary (VarIdx, both halves marked),
    the state intercept 0 and the last observation intercept vary (MeanIdx).
    """
    m = 2
    p = m + N
    rng = np.random.default_rng(seed)
    sysidx = -np.ones((p, m))
    sysidx[0, 0] = 0
    sysidx[m, 0] = 1.7  # truncated to 1
    varidx = -np.ones((p, p))
    varidx[m, m] = 2
    if N > 1:
        varidx[m, p - 1] = varidx[p - 1, m] = 3
    meanidx = -np.ones((p, 1))
    meanidx[0, 0] = 4
    meanidx[p - 1, 0] = 5
    tv = np.vstack([
        0.6 + 0.3 * rng.uniform(size=n),     # T[0][0]
        1.0 + 0.5 * rng.uniform(size=n),     # Z[0][0]
        0.8 + rng.uniform(size=n),           # obs variance 0
        0.2 * rng.uniform(-1, 1, size=n),    # covariance 0 / last
        0.1 * rng.normal(size=n),            # state intercept 0
        2.0 + rng.normal(size=n),            # last observation intercept
    ])
    return sysidx, varidx, meanidx, tv


def case_multi2_time_varying():
    n = 12
    sys = [[0.7, 0.1], [0, 1], [1, 0.3], [0.2, 1]]
    var = np.diag([0.4, 0.1, 1.0, 0.7])
    var[2, 3] = var[3, 2] = 0.25  # replaced over time by TvData row 3
    init = [[1.2, 0], [0.3, 0.9], [0.5, 0.0]]
    sysidx, varidx, meanidx, tv = _tv_block(2, n, 5)
    y = _rng_data(5, 2, n) + np.array([[0.0], [2.0]])
    y[1, 3] = NAN
    y[:, 8] = NAN
    return Case("N=2, time-varying, proper", y, sys, var, init=init,
                mean=np.array([[0.0], [0.0], [0.5], [0.0]]), sysidx=sysidx, varidx=varidx,
                meanidx=meanidx, tvdata=tv)


def case_univ_time_varying():
    n = 12
    sys = [[0.7, 0.1], [0, 1], [1, 0.3]]
    var = np.diag([0.4, 0.1, 1.0])
    init = np.vstack([_stationary(np.array([[0.7, 0.1], [0, 0.5]]), np.diag([0.4, 0.1])),
                      [[0.0, 1.0]]])
    sysidx, varidx, meanidx, tv = _tv_block(1, n, 6)
    y = _rng_data(6, 1, n) + 2.0
    y[0, [4, 5]] = NAN
    return Case("univ time-varying, proper", y, sys, var, init=init, sysidx=sysidx,
                varidx=varidx, meanidx=meanidx, tvdata=tv)


CASES = [case_univ_trend_diffuse, case_univ_arma_proper, case_univ_time_varying,
         case_multi2_partly_diffuse, case_multi3_proper_mean, case_multi3_fully_diffuse,
         case_multi2_time_varying]


@pytest.fixture(params=CASES, ids=lambda f: f.__name__[5:])
def case(request):
    return request.param()


# ---------------------------------------------------------- library side


def unpack_store(store, N, m):
    """(v N x n, K n x m x N, Finv n x N x N) from a filter store."""
    n = store.shape[1]
    v = store[:N]
    K = np.zeros((n, m, N))
    Finv = np.zeros((n, N, N))
    for i in range(N):
        start = N + i * m + i * (i + 1) // 2
        K[:, :, i] = store[start:start + m].T
        col = store[start + m:start + m + i + 1].T  # Finv[0..i][i]
        Finv[:, :i + 1, i] = col
        Finv[:, i, :i + 1] = col
    return v, K, Finv


def lib_loglik(case):
    ll, s2 = tessel.Ref(), tessel.Ref()
    ok = tessel.call("LgmLik", ll, s2, case.y, *case.block())
    lc, sc = tessel.Ref(), tessel.Ref()
    okc = tessel.call("LgmLikConc", lc, sc, case.y, *case.block())
    assert ok == 1 and okc == 1
    return ll.value, s2.value, lc.value, sc.value


def lib_predicted_state(case, t):
    """(a(t), P(t)) through the augmented model described at the top."""
    m, N = case.m, case.N
    p = m + N
    sys = np.vstack([case.sys, np.eye(m)])
    var = np.zeros((p + m, p + m))
    var[:p, :p] = case.var
    var[p:, p:] = np.eye(m)
    y = np.full((N + m, t + 1), NAN)
    y[:N] = case.y[:, :t + 1]
    y[N:, t] = 0.0
    args = [sys, var, tessel.EMPTY if case.init is None else case.init]
    args.append(tessel.EMPTY if case.mean is None else np.vstack([case.mean, np.zeros((m, 1))]))
    if case.time_varying:
        args.append(np.vstack([case.sysidx, -np.ones((m, m))]))
        vi = -np.ones((p + m, p + m))
        vi[:p, :p] = case.varidx
        args.append(vi)
        args.append(np.vstack([case.meanidx, -np.ones((m, 1))]))
        args.append(case.tvdata[:, :t + 1])
    store = tessel.call("KalmanFil", y, *args)
    assert store is not None
    v, _, Finv = unpack_store(store, N + m, m)
    obs = ~np.isnan(y[:, t])
    F = np.linalg.inv(Finv[t][np.ix_(obs, obs)])
    return -v[N:, t], F[-m:, -m:] - np.eye(m)


def assert_close(actual, desired, rtol, what):
    desired = np.asarray(desired, dtype=float)
    scale = max(1.0, float(np.nanmax(np.abs(desired)))) if desired.size else 1.0
    np.testing.assert_allclose(actual, desired, rtol=0, atol=rtol * scale, err_msg=what)


# ------------------------------------------------------------- the tests


class TestAgainstOracle:
    def test_loglik(self, case):
        ora = Oracle(case.model, case.y)
        ll, s2, lc, sc = lib_loglik(case)
        ll_o, s2_o, cnt = ora.loglik()
        lc_o, sc_o = ora.loglik_concentrated()
        assert cnt == int((~np.isnan(case.y)).sum()) - ora.d
        tol = case.tol
        assert ll == pytest.approx(ll_o, rel=0, abs=tol["ll"])
        assert s2 == pytest.approx(s2_o, rel=tol["arr"])
        assert lc == pytest.approx(lc_o, rel=0, abs=tol["ll"])
        assert sc == pytest.approx(sc_o, rel=tol["arr"])
        assert sc == s2  # the same estimate under both names

    def test_store(self, case):
        ora = Oracle(case.model, case.y)
        store = tessel.call("KalmanFil", case.y, *case.block())
        N, m, n = case.N, case.m, case.y.shape[1]
        assert store.shape == (N + N * (N + 1) // 2 + m * N, n)
        if N == 1:
            assert store.shape[0] == m + 2
        v, K, Finv = unpack_store(store, N, m)
        v_o, F_o, _, K_o = ora.innovations()
        obs = ~np.isnan(case.y)
        whole = ~obs.any(axis=0)
        # innovations: observed equal the oracle; missing are 0, or NaN
        # when the whole vector is missing
        assert_close(v[obs], v_o[obs], case.tol["arr"], "innovations")
        assert np.all(v[:, whole] != v[:, whole])
        assert np.all(v[~obs & ~whole[None, :]] == 0.0)
        assert_close(K, K_o, case.tol["arr"], "gains")
        for t in range(n):
            o = obs[:, t]
            if not o.any():
                assert np.all(Finv[t] == 0.0)
                continue
            assert np.all(Finv[t][~o] == 0.0) and np.all(Finv[t][:, ~o] == 0.0)
            Fo = F_o[t][np.ix_(o, o)]
            assert_close(Finv[t][np.ix_(o, o)], np.linalg.inv(Fo), case.tol["arr"], f"Finv at {t}")
            assert_close(np.linalg.inv(Finv[t][np.ix_(o, o)]), Fo, case.tol["arr"], f"F at {t}")

    def test_predicted_states(self, case):
        ora = Oracle(case.model, case.y)
        a_o, P_o = ora.predicted_states()
        for t in range(case.y.shape[1]):
            a, P = lib_predicted_state(case, t)
            assert_close(a, a_o[:, t], case.tol["aug"], f"a({t})")
            assert_close(P, P_o[t], case.tol["aug"], f"P({t})")


def test_mean_vec_zero_is_absent():
    c = case_multi2_partly_diffuse()
    base = tessel.call("KalmanFil", c.y, *c.block())
    zero = tessel.call("KalmanFil", c.y, c.sys, c.var, c.init, 0.0)
    np.testing.assert_array_equal(base, zero)


def test_univ_and_multi_entry_paths_agree():
    """An N = 1 model filtered alone (single-series filter) and the same
    series next to a second, wholly missing series (multivariate filter)
    give the same likelihood, innovations, gains and 1/F."""
    c = case_univ_time_varying()
    ll1, s21, _, _ = lib_loglik(c)
    store1 = tessel.call("KalmanFil", c.y, *c.block())
    m = c.m
    sys = np.vstack([c.sys, [[0.0, 0.0]]])
    var = np.zeros((m + 2, m + 2))
    var[:m + 1, :m + 1] = c.var
    var[m + 1, m + 1] = 1.0
    y = np.vstack([c.y, np.full((1, c.y.shape[1]), NAN)])
    sysidx = np.vstack([c.sysidx, [[-1, -1]]])
    varidx = -np.ones((m + 2, m + 2))
    varidx[:m + 1, :m + 1] = c.varidx
    meanidx = np.vstack([c.meanidx, [[-1]]])
    block = [sys, var, c.init, tessel.EMPTY, sysidx, varidx, meanidx, c.tvdata]
    ll, s2 = tessel.Ref(), tessel.Ref()
    assert tessel.call("LgmLik", ll, s2, y, *block) == 1
    store2 = tessel.call("KalmanFil", y, *block)
    assert ll.value == pytest.approx(ll1, rel=1e-12)
    assert s2.value == pytest.approx(s21, rel=1e-12)
    v, K, Finv = unpack_store(store2, 2, m)
    np.testing.assert_allclose(v[0], store1[0], rtol=1e-12, atol=1e-14)
    np.testing.assert_allclose(K[:, :, 0].T, store1[1:m + 1], rtol=1e-12, atol=1e-14)
    np.testing.assert_allclose(Finv[:, 0, 0], store1[m + 1], rtol=1e-12, atol=1e-14)


# ------------------------------------------------------------ failures


def _singular_case():
    # Two series reading one random walk through the same loading, no noise.
    return Case("singular", [[1.0, 2.0, 3.0], [1.0, 2.0, 3.0]], [[1.0], [1.0], [1.0]],
                np.diag([1.0, 0.0, 0.0]), init=[[1.0], [0.0]])


def _all_missing_case():
    return Case("all missing", np.full((2, 4), NAN), [[1.0], [1.0], [2.0]], np.eye(3))


def _too_few_case():
    # Local linear trend (two diffuse elements) with one observation.
    return Case("too few", [[2.0, NAN, NAN, NAN]], [[1, 1], [0, 1], [1, 0]], np.eye(3))


FAILURES = [_singular_case, _all_missing_case, _too_few_case]


@pytest.mark.parametrize("make", FAILURES, ids=lambda f: f.__name__[1:-5])
class TestFailureReports:
    def test_kalmanfil(self, make):
        c = make()
        with tessel.capture_messages() as msgs:
            assert tessel.call("KalmanFil", c.y, *c.block()) is None
        assert msgs == [FAIL_TEXT.format("KalmanFil")]

    def test_lgmlik_writes_references(self, make):
        c = make()
        ll, s2 = tessel.Ref(7), tessel.Ref(7)
        with tessel.capture_messages() as msgs:
            assert tessel.call("LgmLik", ll, s2, c.y, *c.block()) == 0
        assert msgs == [FAIL_TEXT.format("LgmLik")]
        assert isinstance(ll.value, float) and isinstance(s2.value, float)

    def test_lgmlikconc_leaves_references(self, make):
        c = make()
        ll, s2 = tessel.Ref(7), tessel.Ref(7)
        with tessel.capture_messages() as msgs:
            assert tessel.call("LgmLikConc", ll, s2, c.y, *c.block()) == 0
        assert msgs == [FAIL_TEXT.format("LgmLikConc")]
        assert ll.value == 7 and s2.value == 7

    def test_silenced(self, make):
        c = make()
        tessel.call("LgmWarning", 0)
        try:
            with tessel.capture_messages() as msgs:
                assert tessel.call("KalmanFil", c.y, *c.block()) is None
                assert tessel.call("LgmLik", tessel.Ref(), tessel.Ref(), c.y, *c.block()) == 0
                assert tessel.call("LgmLikConc", tessel.Ref(), tessel.Ref(), c.y,
                                   *c.block()) == 0
        finally:
            tessel.call("LgmWarning", 1)
        assert msgs == []


def test_too_few_references_hold_partial_sums():
    """Local linear trend, no InitMat (d = 2), one observation y = 2 at
    t = 0 where F = kappa + 1: cnt stays 0, so LgmLik writes
    -0.5 (log F - 2 log kappa) and the undivided v^2 / F."""
    c = _too_few_case()
    kappa = KAPPA_FACTOR
    ll, s2 = tessel.Ref(), tessel.Ref()
    with tessel.capture_messages():
        tessel.call("LgmLik", ll, s2, c.y, *c.block())
    F = kappa + 1.0
    assert ll.value == pytest.approx(-0.5 * (np.log(F) - 2 * np.log(kappa)), rel=1e-12)
    assert s2.value == pytest.approx(4.0 / F, rel=1e-12)


def test_likelihood_argument_faults():
    y = np.array([[1.0, 2.0]])
    with pytest.raises(tessel.ZuError) as e:
        tessel.call("LgmLik", 1.0, tessel.Ref(), y, [[1.0], [1.0]], np.eye(2))
    assert e.value.number == 2
    with pytest.raises(tessel.ZuError) as e:
        tessel.call("LgmLik", tessel.Ref())
    assert e.value.number == 1


# ----------------------------------------------------------- statsmodels


def _statsmodels_loglik(case, init):
    """statsmodels' log-likelihood of the case: init is ("diffuse", kappa)
    or ("known", a, P)."""
    from statsmodels.tsa.statespace.kalman_filter import KalmanFilter

    m, N = case.m, case.N
    T, Z = case.sys[:m], case.sys[m:]
    V = case.var
    assert np.allclose(V[:m, m:], 0.0), "statsmodels has no state/observation cross term"
    kf = KalmanFilter(k_endog=N, k_states=m, k_posdef=m, loglikelihood_burn=0)
    kf.bind(np.ascontiguousarray(case.y.T))
    kf["design"] = Z
    kf["obs_cov"] = V[m:, m:]
    kf["transition"] = T
    kf["selection"] = np.eye(m)
    kf["state_cov"] = V[:m, :m]
    if case.mean is not None:
        mean = np.asarray(case.mean, dtype=float)[:, 0]
        kf["state_intercept"] = mean[:m].reshape(m, 1)
        kf["obs_intercept"] = mean[m:].reshape(N, 1)
    if init[0] == "diffuse":
        kf.initialize_approximate_diffuse(init[1])
    else:
        kf.initialize_known(np.asarray(init[1], dtype=float), np.asarray(init[2], dtype=float))
    return kf.loglike()


class TestAgainstStatsmodels:
    """Convention: statsmodels sums the full Gaussian log-density of every
    observed element, sum_t -0.5 (N_t log 2 pi + log|F_t| + v' F^-1 v). The
    library uses cnt = (observed elements) - d and subtracts d log(kappa)
    from the log-determinant, so with the same initial variance (kappa on
    the d diffuse elements)
        ll_library = ll_statsmodels + (d / 2) log(2 pi kappa).
    Tolerances: where the kappa-sized part of F has full rank (the
    single-series filter; N = 2 with both elements diffuse and Z of rank 2)
    nothing is amplified and the two agree to ~1e-9 on log-likelihoods of a
    few hundred: 1e-7 absolute. With one diffuse element observed by two
    series the multivariate filter loses precision as explained at the top
    of this file (measured 2.2e-4 here): 2e-3 absolute."""

    def test_univariate_local_level_with_gaps(self):
        rng = np.random.default_rng(11)
        n = 200
        y = (np.cumsum(rng.normal(size=n)) * 0.7 + rng.normal(size=n)).reshape(1, n)
        y[0, [0, 17, 18, 19, 120]] = NAN
        c = Case("local level", y, [[1.0], [1.0]], np.diag([0.49, 1.0]))
        kappa = c.model.kappa
        ll, _, _, _ = lib_loglik(c)
        ll_sm = _statsmodels_loglik(c, ("diffuse", kappa))
        assert ll == pytest.approx(ll_sm + 0.5 * np.log(TWO_PI * kappa), rel=0, abs=1e-7)

    def test_multivariate_partly_diffuse_with_gaps(self):
        c0 = case_multi2_partly_diffuse()
        rng = np.random.default_rng(12)
        n = 150
        y = rng.normal(size=(2, n)) + np.cumsum(rng.normal(size=n)) * 0.5
        y[0, 3] = NAN
        y[:, 40:43] = NAN
        y[1, 90] = NAN
        mean = np.array([[0.0], [0.1], [0.5], [-0.5]])
        c = Case("N=2", y, c0.sys, c0.var, init=c0.init, mean=mean)
        a, P, d = c.model.initial()
        assert d == 1
        ll, _, _, _ = lib_loglik(c)
        ll_sm = _statsmodels_loglik(c, ("known", a, P))
        assert ll == pytest.approx(ll_sm + 0.5 * d * np.log(TWO_PI * c.model.kappa), rel=0,
                                   abs=2e-3)

    def test_multivariate_fully_diffuse(self):
        c0 = case_multi2_partly_diffuse()
        rng = np.random.default_rng(13)
        y = rng.normal(size=(2, 80))
        y[1, 10:20] = NAN
        c = Case("N=2 diffuse", y, c0.sys, c0.var)
        ll, _, _, _ = lib_loglik(c)
        ll_sm = _statsmodels_loglik(c, ("diffuse", c.model.kappa))
        assert ll == pytest.approx(ll_sm + 0.5 * 2 * np.log(TWO_PI * c.model.kappa), rel=0,
                                   abs=1e-7)
