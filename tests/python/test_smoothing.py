"""Smoothing, moment estimation and the likelihood score.

Reference: the joint-Gaussian oracle (tests/python/oracle.py), which builds
the joint mean and covariance of all states, observations and disturbances
of a short series and conditions on the observed values with dense linear
algebra, independently of every recursion of the library. Second reference
for a larger model: statsmodels' smoother.

What the library returns and what it is compared with:
- LgmMomentEst selection 1: rows a^(t), Z a^(t) (no intercept), diag V(t),
  diag Z V(t) Z' -> Oracle.smoothed_states / Oracle.signals("smoothed").
- selection 3: VarMat u~(t) and diag VarMat D~(t) VarMat ->
  Oracle.smoothed_disturbances (mean and the variance reduction).
- selection 0: a(t), Z a(t) + d, diag P(t), diag F(t) -> predicted states,
  predicted signals with intercept, innovation variances.
- selection 5: the filtered columns (see the tests for the two documented
  variance formulas).
- KalmanSmo: r(t), u(t) and the diagonals of N(t) and D(t); tested through
  a^(t) = a(t) + P(t) r(t-1) and, for block-diagonal VarMat with diagonal
  blocks, E[state disturbance(t) | y] = HH' r(t),
  E[observation disturbance(t) | y] = GG' u(t) and the diagonal variance
  reductions H_ii^2 N_ii(t), G_ii^2 D_ii(t).
- LgmLikSco: S against twice the numerical derivative of the log-likelihood.

Tolerances: with proper initial states every quantity is O(1) and both the
library and the oracle work with well-conditioned matrices, so they agree to
~1e-14; TOL = 1e-9 leaves room for accumulated rounding. With diffuse
elements (variance kappa ~ 1e7) conditioning loses about 7 of the 16 digits
on both sides, hence TOL_DIFFUSE = 1e-5 (measured errors are <= 5e-7). One
exception: the smoothed variance at t = 0 of a diffuse state is
P - P N P with both terms of size kappa, so rounding alone leaves an
absolute error of order eps kappa^2 ~ 0.02 on either side (measured between
5e-3 and 3e-2 depending on the summation order of the host algebra); those
entries are compared with the absolute bound 10 eps kappa^2, a check of
magnitude only.
"""

import numpy as np
import pytest

import tessel
from oracle import Oracle, StateSpace, simulate

TOL = 1e-9
TOL_DIFFUSE = 1e-5
N_TIME = 10


def diag_rows(a):
    """(n, k, k) -> k x n matrix of the diagonals."""
    return np.einsum("tii->it", a)


def assert_close(actual, expected, tol, what):
    actual = np.asarray(actual, dtype=float)
    expected = np.asarray(expected, dtype=float)
    assert actual.shape == expected.shape, what
    scale = max(1.0, float(np.nanmax(np.abs(expected))))
    err = float(np.nanmax(np.abs(actual - expected))) if actual.size else 0.0
    assert np.array_equal(np.isnan(actual), np.isnan(expected)), f"{what}: NaN pattern differs"
    assert err <= tol * scale, f"{what}: max error {err:.3e} > {tol:.1e} x {scale:.3g}"


# ---------------------------------------------------------------- models

def model_univariate_tv():
    """N = 1, m = 2, T = I: local level plus a random-walk regression
    coefficient on a time-varying regressor (SysMat[2][1] from TvData), a
    time-varying observation variance (VarMat[2][2]), intercepts, a diffuse
    level and a proper coefficient; two single missing values."""
    rng = np.random.default_rng(11)
    sys = np.array([[1.0, 0.0], [0.0, 1.0], [1.0, 0.0]])
    var = np.diag([0.4, 0.05, 0.9])
    init = np.array([[-1.0, 0.0], [0.0, 0.8], [0.0, 0.3]])
    mean = np.array([[0.1], [0.0], [0.5]])
    sysidx = np.full((3, 2), -1.0)
    sysidx[2, 1] = 0
    varidx = np.full((3, 3), -1.0)
    varidx[2, 2] = 1
    tvdata = np.vstack([rng.uniform(-2, 2, N_TIME), rng.uniform(0.5, 1.5, N_TIME)])
    missing = [(0, 3), (0, 7)]
    return dict(sys=sys, var=var, init=init, mean=mean, sysidx=sysidx, varidx=varidx,
                tvdata=tvdata, missing=missing, tol=TOL_DIFFUSE, seed=1)


def model_univariate_ar():
    """N = 1, m = 2: an ARMA-like transition with correlated state and
    observation disturbances, proper initial state, intercepts."""
    sys = np.array([[0.6, 1.0], [-0.2, 0.0], [1.0, 0.0]])
    var = np.array([[0.7, 0.2, 0.1], [0.2, 0.3, 0.0], [0.1, 0.0, 0.5]])
    init = np.array([[1.5, 0.0], [0.2, 0.6], [0.3, -0.1]])
    mean = np.array([[0.2], [0.0], [-0.4]])
    return dict(sys=sys, var=var, init=init, mean=mean, missing=[(0, 0), (0, 5)], tol=TOL,
                seed=2)


def model_univariate_diffuse():
    """N = 1, m = 1 local level without InitMat (fully diffuse)."""
    return dict(sys=np.array([[1.0], [1.0]]), var=np.diag([0.3, 1.0]), missing=[(0, 4)],
                tol=TOL_DIFFUSE, seed=3)


def model_multivariate():
    """N = 2, m = 3: correlated disturbances across all blocks, proper
    initial state, intercepts; one element missing at two time points."""
    sys = np.array([[0.7, 0.2, 0.0], [0.0, 0.5, 0.3], [0.1, 0.0, 0.4],
                    [1.0, 0.0, 0.5], [0.3, 1.0, 0.0]])
    var = np.array([[0.6, 0.1, 0.0, 0.05, 0.0],
                    [0.1, 0.4, 0.0, 0.0, 0.1],
                    [0.0, 0.0, 0.3, 0.0, 0.0],
                    [0.05, 0.0, 0.0, 0.8, 0.2],
                    [0.0, 0.1, 0.0, 0.2, 1.1]])
    init = np.array([[1.2, 0.0, 0.0], [0.3, 0.9, 0.0], [0.0, 0.1, 0.7], [0.5, -0.3, 0.2]])
    mean = np.array([[0.1], [-0.2], [0.0], [1.0], [0.4]])
    return dict(sys=sys, var=var, init=init, mean=mean, missing=[(0, 2), (1, 6)], tol=TOL,
                seed=4)


def model_multivariate_diffuse_tv():
    """N = 2, m = 2, no InitMat (both states diffuse); SysMat[2][1] and
    SysMat[3][0] vary, and the observation covariance varies with both of
    its halves marked; intercepts; partial missing values."""
    rng = np.random.default_rng(12)
    sys = np.array([[1.0, 1.0], [0.0, 1.0], [1.0, 0.0], [0.0, 1.0]])
    var = np.array([[0.3, 0.0, 0.0, 0.0], [0.0, 0.1, 0.0, 0.0],
                    [0.0, 0.0, 0.9, 0.2], [0.0, 0.0, 0.2, 0.7]])
    mean = np.array([[0.0], [0.05], [0.3], [-0.2]])
    sysidx = np.full((4, 2), -1.0)
    sysidx[2, 1] = 0
    sysidx[3, 0] = 1
    varidx = np.full((4, 4), -1.0)
    varidx[2, 3] = varidx[3, 2] = 2
    tvdata = np.vstack([rng.uniform(-1, 1, N_TIME), rng.uniform(0.0, 1.0, N_TIME),
                        rng.uniform(-0.3, 0.3, N_TIME)])
    return dict(sys=sys, var=var, mean=mean, sysidx=sysidx, varidx=varidx, tvdata=tvdata,
                missing=[(1, 1), (0, 5), (1, 8)], tol=TOL_DIFFUSE, seed=5)


MODELS = {
    "univariate_tv_diffuse_level": model_univariate_tv,
    "univariate_correlated_proper": model_univariate_ar,
    "univariate_fully_diffuse": model_univariate_diffuse,
    "multivariate_correlated_proper": model_multivariate,
    "multivariate_diffuse_time_varying": model_multivariate_diffuse_tv,
}


def build(name, extra_missing=()):
    structure = MODELS[name]()
    model = StateSpace(structure["sys"], structure["var"], init=structure.get("init"), mean=structure.get("mean"),
                       sysidx=structure.get("sysidx"), varidx=structure.get("varidx"),
                       tvdata=structure.get("tvdata"))
    rng = np.random.default_rng(structure["seed"])
    _, y = simulate(model, N_TIME, rng)
    for i, t in list(structure["missing"]) + list(extra_missing):
        y[i, t] = np.nan
    return structure, model, y


def model_args(structure):
    """The model block after the data argument, as the library takes it."""
    args = [structure["sys"], structure["var"], structure.get("init", tessel.EMPTY),
            structure.get("mean", tessel.EMPTY)]
    if "tvdata" in structure:
        args += [structure.get("sysidx", tessel.EMPTY), structure.get("varidx", tessel.EMPTY),
                 tessel.EMPTY, structure["tvdata"]]
    return args


def moments(selection, structure, y):
    ref = tessel.Ref()
    ret = tessel.call("LgmMomentEst", selection, ref, y, *model_args(structure))
    return ref.value, ret


# ------------------------------------------------------------ smoothing

@pytest.mark.parametrize("name", list(MODELS))
def test_smoothed_states_and_signals_equal_the_oracle(name):
    structure, model, y = build(name)
    ora = Oracle(model, y)
    m, N = model.m, model.N
    mom, ret = moments(1, structure, y)
    a, P = ora.smoothed_states()
    s, sv = ora.signals("smoothed")
    tol = structure["tol"]
    assert_close(mom[:m], a, tol, "smoothed state")
    assert_close(mom[m:m + N], s, tol, "smoothed signal")
    # Absolute rounding floor at t = 0 for diffuse starts (see the module notes).
    first = 10 * np.finfo(float).eps * model.kappa ** 2 if tol == TOL_DIFFUSE else tol
    for cols, t in ((slice(0, 1), first), (slice(1, None), tol)):
        assert_close(mom[m + N:2 * m + N, cols], diag_rows(P)[:, cols], t,
                     "smoothed state variance")
        assert_close(mom[2 * m + N:, cols], diag_rows(sv)[:, cols], t, "smoothed signal variance")
    # The return value is N(-1) over r(-1)': the same cumulant that KalmanSmo
    # leaves in its start column.
    store = tessel.call("KalmanFil", y, *model_args(structure))
    smo = tessel.call("KalmanSmo", store, *model_args(structure))
    assert_close(ret[m], smo[:m, 0], 1e-12, "r before the first time point")
    assert_close(np.diag(ret[:m]), smo[m + N:2 * m + N, 0], 1e-12,
                 "diag N before the first time point")


@pytest.mark.parametrize("name", list(MODELS))
def test_smoothed_disturbances_and_variance_reductions_equal_the_oracle(name):
    structure, model, y = build(name)
    ora = Oracle(model, y)
    p = model.p
    mom, _ = moments(3, structure, y)
    mean, _, red = ora.smoothed_disturbances()
    assert_close(mom[:p], mean, structure["tol"], "smoothed disturbance mean")
    assert_close(mom[p:], diag_rows(red), structure["tol"], "disturbance variance reduction")


@pytest.mark.parametrize("name", list(MODELS))
def test_kalman_smo_cumulant_reproduces_the_oracle_smoothed_states(name):
    """a^(t) = a(t) + P(t) r(t-1): the oracle's predicted moments combined
    with KalmanSmo's r give the oracle's smoothed states; column t of the
    output holds r(t-1) (column 0 the cumulant before the first point)."""
    structure, model, y = build(name)
    ora = Oracle(model, y)
    m, n = model.m, N_TIME
    store = tessel.call("KalmanFil", y, *model_args(structure))
    smo = tessel.call("KalmanSmo", store, *model_args(structure))
    assert smo.shape == (2 * model.p, n + 1)
    a, P = ora.predicted_states()
    rebuilt = np.stack([a[:, t] + P[t] @ smo[:m, t] for t in range(n)], axis=1)
    a_s, V = ora.smoothed_states()
    tol = structure["tol"]
    assert_close(rebuilt, a_s, tol, "a(t) + P(t) r(t-1)")
    if m == 1:
        # V(t) = P(t) - P(t)^2 N(t-1), from t = 1 (t = 0 is at the rounding
        # floor for a diffuse start, see the module notes).
        rebuilt_v = np.array([P[t][0, 0] - P[t][0, 0] ** 2 * smo[m + model.N, t]
                              for t in range(1, n)])
        assert_close(rebuilt_v, V[1:, 0, 0], tol, "P - P N P")


def test_kalman_smo_disturbance_relations_equal_the_oracle():
    """With VarMat = diag(HH', GG') both diagonal: the smoothed state
    disturbance is HH' r(t), the observation one GG' u(t), and the variance
    reductions are H_ii^2 N_ii(t) and G_ii^2 D_ii(t) (column t+1 of the
    output belongs to time point t)."""
    sys = np.array([[0.8, 0.3], [0.0, 0.6], [1.0, 0.0], [0.4, 1.0]])
    var = np.diag([0.5, 0.2, 0.9, 0.6])
    init = np.array([[1.0, 0.0], [0.2, 0.5], [0.0, 0.1]])
    model = StateSpace(sys, var, init=init)
    _, y = simulate(model, N_TIME, np.random.default_rng(7))
    y[1, 4] = np.nan
    ora = Oracle(model, y)
    mean, _, red = ora.smoothed_disturbances()
    store = tessel.call("KalmanFil", y, sys, var, init)
    smo = tessel.call("KalmanSmo", store, sys, var, init)
    d = np.diag(var)[:, None]
    assert_close(d * smo[:4, 1:], mean, TOL, "VarMat (r; u)")
    assert_close(d ** 2 * smo[4:, 1:], diag_rows(red), TOL, "diag VarMat D VarMat")
    # Start column: rows of u and of F^-1 + K'NK are 0.
    assert np.all(smo[2:4, 0] == 0) and np.all(smo[6:8, 0] == 0)


def test_univariate_kalman_smo_missing_value_gives_zero_u_and_plain_transport():
    """Single series, missing y(t): u(t) = 0, its D entry 0, and
    r(t-1) = T' r(t), diag N(t-1) = diag T' N(t) T (m = 1: T^2 N)."""
    sys = np.array([[0.9], [1.0]])
    var = np.diag([0.4, 1.0])
    init = np.array([[1.0], [0.0]])
    y = np.array([[0.3, -0.2, np.nan, 1.1, 0.4]])
    store = tessel.call("KalmanFil", y, sys, var, init)
    smo = tessel.call("KalmanSmo", store, sys, var, init)
    t = 2
    assert smo[1, t + 1] == 0.0 and smo[3, t + 1] == 0.0
    assert smo[0, t] == pytest.approx(0.9 * smo[0, t + 1], rel=1e-15)
    assert smo[2, t] == pytest.approx(0.81 * smo[2, t + 1], rel=1e-15)


def test_kalman_smo_with_no_time_points_returns_one_zero_column():
    sys = np.array([[1.0], [1.0]])
    var = np.diag([0.3, 1.0])
    smo = tessel.call("KalmanSmo", np.zeros((3, 0)), sys, var)
    assert smo.shape == (4, 1)
    assert np.all(smo == 0.0)


# ------------------------------------- whole observation vector missing

def test_whole_vector_missing_propagates_nan_backwards_in_multivariate_smoothers():
    """Multivariate, y(t0) entirely missing: the filter stores NaN
    innovations with zero gains and inverse variances; the multivariate
    smoother multiplies the NaN innovations as they stand, so u(t0) and every
    r before it are NaN (kept deliberately). Means at times <= t0 are NaN;
    means after t0 and all variances are still those of the oracle."""
    t0 = 4
    structure, model, y = build("multivariate_correlated_proper", extra_missing=[(0, t0), (1, t0)])
    ora = Oracle(model, y)
    m, N, p = model.m, model.N, model.p

    store = tessel.call("KalmanFil", y, *model_args(structure))
    smo = tessel.call("KalmanSmo", store, *model_args(structure))
    assert np.all(np.isnan(smo[m:m + N, t0 + 1]))          # u(t0)
    assert np.all(np.isnan(smo[:m, :t0 + 1]))              # r(t) for t < t0
    assert np.all(np.isfinite(smo[:, t0 + 2:]))            # later columns unaffected
    assert np.all(np.isfinite(smo[m + N:2 * m + N]))       # N(t) never NaN

    mom, ret = moments(1, structure, y)
    a, P = ora.smoothed_states()
    expect = a.copy()
    expect[:, :t0 + 1] = np.nan
    assert_close(mom[:m], expect, TOL, "smoothed state with NaN before t0")
    assert_close(mom[m + N:2 * m + N], diag_rows(P), TOL, "smoothed state variance")
    assert np.all(np.isnan(ret[m]))  # r(-1)

    mom3, _ = moments(3, structure, y)
    mean, _, red = ora.smoothed_disturbances()
    expect = mean.copy()
    expect[:, :t0 + 1] = np.nan
    assert_close(mom3[:p], expect, TOL, "smoothed disturbances with NaN before t0")
    assert_close(mom3[p:], diag_rows(red), TOL, "variance reduction")


def test_whole_missing_single_series_does_not_propagate_nan():
    structure, model, y = build("univariate_correlated_proper", extra_missing=[(0, 3)])
    mom, _ = moments(1, structure, y)
    a, _ = Oracle(model, y).smoothed_states()
    assert_close(mom[:2], a, TOL, "smoothed state")


# ------------------------------------------------ prediction and filtering

@pytest.mark.parametrize("name", list(MODELS))
def test_predicted_moments_equal_the_oracle(name):
    structure, model, y = build(name)
    ora = Oracle(model, y)
    m, N, n = model.m, model.N, N_TIME
    mom, ret = moments(0, structure, y)
    a, P = ora.predicted_states()
    s, _ = ora.signals("predicted", intercept=True)
    _, F, _, _ = ora.innovations()
    tol = structure["tol"]
    assert_close(mom[:m], a[:, :n], tol, "predicted state")
    assert_close(mom[m:m + N], s, tol, "predicted observation")
    assert_close(mom[m + N:2 * m + N], diag_rows(P[:n]), tol, "predicted state variance")
    assert_close(mom[2 * m + N:], diag_rows(F), tol, "innovation variance")
    # Return value: the prediction one step beyond the data.
    assert_close(ret[:m], P[n], tol, "P(n)")
    assert_close(ret[m], a[:, n], tol, "a(n)")


@pytest.mark.parametrize("name", ["univariate_tv_diffuse_level", "univariate_fully_diffuse"])
def test_univariate_filtered_moments_equal_the_oracle(name):
    """Models with T = I, where the single-series state variance formula
    (P Z')_k F^-1 (Z P T')_k is the textbook one. The observation rows are the
    filtered signal (with intercept) and its variance plus GG'."""
    structure, model, y = build(name)
    ora = Oracle(model, y)
    m, n = model.m, N_TIME
    mom, ret = moments(5, structure, y)
    a, P = ora.filtered_states()
    s, sv = ora.signals("filtered", intercept=True)
    gg = np.array([model.system(t)[2][m, m] for t in range(n)])
    tol = structure["tol"]
    assert_close(mom[:m], a, tol, "filtered state")
    assert_close(mom[m + 1:2 * m + 1], diag_rows(P), tol, "filtered state variance")
    assert_close(mom[m], s[0], tol, "filtered observation")
    # At a missing time point nothing is filtered: F stays the predicted one,
    # which is Var(signal) + GG' as well.
    assert_close(mom[2 * m + 1], sv[:, 0, 0] + gg, tol, "filtered observation variance")
    _, pred_ret = moments(0, structure, y)
    np.testing.assert_array_equal(ret, pred_ret)


def test_univariate_filtered_state_variance_uses_Z_P_T_not_textbook_Z_P():
    """With T != I the single-series routine subtracts (P Z')_k (Z P T')_k / F
    from P_kk, not the textbook (P Z')_k^2 / F. The documented formula is
    checked against oracle moments, and it differs from the textbook value
    here; the filtered means are textbook."""
    structure, model, y = build("univariate_correlated_proper")
    ora = Oracle(model, y)
    m, n = model.m, N_TIME
    mom, _ = moments(5, structure, y)
    a_pred, P = ora.predicted_states()
    _, F, _, _ = ora.innovations()
    a_fil, P_fil = ora.filtered_states()
    documented = np.zeros((m, n))
    for t in range(n):
        T, Z, _, _, _ = model.system(t)
        pz = P[t] @ Z[0]
        zpt = T @ P[t] @ Z[0]
        documented[:, t] = np.diag(P[t]) - (0 if np.isnan(y[0, t]) else pz * zpt / F[t, 0, 0])
    assert_close(mom[m + 1:2 * m + 1], documented, TOL, "documented filtered variance")
    observed = ~np.isnan(y[0])
    gap = np.abs(diag_rows(P_fil) - documented)[:, observed]
    assert gap.max() > 1e-2, "the case must tell the two formulas apart"
    assert_close(mom[:m], a_fil, TOL, "filtered state")


@pytest.mark.parametrize("name", ["multivariate_correlated_proper", "multivariate_diffuse_time_varying"])
def test_multivariate_filtered_means_and_state_variances_equal_the_oracle(name):
    structure, model, y = build(name)
    ora = Oracle(model, y)
    m, N = model.m, model.N
    mom, _ = moments(5, structure, y)
    a, P = ora.filtered_states()
    s, _ = ora.signals("filtered", intercept=True)
    tol = structure["tol"]
    assert_close(mom[:m], a, tol, "filtered state")
    assert_close(mom[m:m + N], s, tol, "filtered observation")
    assert_close(mom[m + N:2 * m + N], diag_rows(P), tol, "filtered state variance")


def test_multivariate_filtered_observation_variance_reads_state_block_not_textbook():
    """Multivariate filtered observation variance rows: F_ii - sum_j G[i][j]
    X[j][i] with G = Z P Z' F^-1 and X = SysMat P SysMat' read from its
    top-left (state) corner, i.e. T P T' here (N <= m), where the textbook
    quantity reads Z P Z'. Checked against that formula from oracle moments,
    on a model where the two differ."""
    structure, model, y = build("multivariate_correlated_proper")
    y = y.copy()
    y[:, :] = np.where(np.isnan(y), 0.5, y)  # no missing values: F^-1 is the full inverse
    ora = Oracle(model, y)
    m, N, n = model.m, model.N, N_TIME
    mom, _ = moments(5, structure, y)
    _, P = ora.predicted_states()
    _, F, _, _ = ora.innovations()
    documented = np.zeros((N, n))
    textbook = np.zeros((N, n))
    for t in range(n):
        T, Z, _, _, _ = model.system(t)
        S = np.vstack([T, Z])
        X = S @ P[t] @ S.T
        zpz = Z @ P[t] @ Z.T
        G = zpz @ np.linalg.inv(F[t])
        documented[:, t] = np.diag(F[t]) - np.einsum("ij,ji->i", G, X[:N, :N])
        textbook[:, t] = np.diag(F[t]) - np.diag(G @ zpz)
    assert_close(mom[2 * m + N:], documented, TOL, "documented filtered observation variance")
    assert np.abs(documented - textbook).max() > 1e-2, "the case must tell the two apart"


# ---------------------------------------------------------------- score

def loglik(y, sys, var, init, mean=None):
    ll, s2 = tessel.Ref(), tessel.Ref()
    args = [y, sys, var, init] + ([mean] if mean is not None else [])
    assert tessel.call("LgmLik", ll, s2, *args) == 1
    return ll.value


@pytest.mark.parametrize("name", ["univariate_correlated_proper", "multivariate_correlated_proper"])
def test_score_is_twice_the_numerical_derivative_of_the_loglikelihood(name):
    """S = 2 dL/dVarMat for the free elements: a diagonal element is
    perturbed alone; an off-diagonal pair (i, j), (j, i) is perturbed
    together by h, which moves L by (S_ij + S_ji)/2 h = S_ij h, so S_ij is
    compared with twice the derivative with respect to each half of the pair.
    Central differences with h = 1e-5: truncation error ~h^2 |L'''| ~1e-10,
    rounding ~1e-16 |L| / h ~1e-10; tolerance 1e-6 (relative to max(1, |S|))."""
    structure, model, y = build(name)
    ll, s2, S = tessel.Ref(), tessel.Ref(), tessel.Ref()
    assert tessel.call("LgmLikSco", ll, s2, S, y, *model_args(structure)) == 1
    S = S.value
    np.testing.assert_array_equal(S, S.T)
    assert ll.value == pytest.approx(Oracle(model, y).loglik()[0], rel=1e-12)
    p = model.p
    h = 1e-5
    numeric = np.zeros((p, p))
    for i in range(p):
        for j in range(i, p):
            up, down = structure["var"].copy(), structure["var"].copy()
            up[i, j] += h
            down[i, j] -= h
            if i != j:
                up[j, i] += h
                down[j, i] -= h
            d = (loglik(y, structure["sys"], up, structure["init"], structure["mean"]) -
                 loglik(y, structure["sys"], down, structure["init"], structure["mean"])) / (2 * h)
            numeric[i, j] = numeric[j, i] = 2 * d if i == j else d
    assert_close(S, numeric, 1e-6, "score vs numerical derivative")


def test_score_two_and_three_reference_forms_agree():
    structure, model, y = build("multivariate_correlated_proper")
    ll3, s2, S3 = tessel.Ref(), tessel.Ref(), tessel.Ref()
    ll2, S2 = tessel.Ref(), tessel.Ref()
    assert tessel.call("LgmLikSco", ll3, s2, S3, y, *model_args(structure)) == 1
    assert tessel.call("LgmLikSco", ll2, S2, y, *model_args(structure)) == 1
    np.testing.assert_array_equal(S2.value, S3.value)
    assert ll2.value == ll3.value
    _, scale, _ = Oracle(model, y).loglik()
    assert s2.value == pytest.approx(scale, rel=1e-12)


# ------------------------------------------------ entry point behaviour

def test_moments_passed_by_value_still_give_the_return_value():
    structure, model, y = build("univariate_correlated_proper")
    by_ref, ret_ref = moments(1, structure, y)
    ret = tessel.call("LgmMomentEst", 1, 0, y, *model_args(structure))
    np.testing.assert_array_equal(ret, ret_ref)
    ret = tessel.call("LgmMomentEst", 0, np.zeros((2, 2)), y, *model_args(structure))
    assert ret.shape == (3, 2)


@pytest.mark.parametrize("selection", [2, 4, -1, 6])
def test_invalid_selection_is_refused(selection):
    structure, _, y = build("univariate_correlated_proper")
    with pytest.raises(tessel.ZuError) as err:
        tessel.call("LgmMomentEst", selection, tessel.Ref(), y, *model_args(structure))
    assert str(err.value) == "LgmMomentEst(): no valid selection in first argument"


def test_failures_report_their_messages():
    sys = np.array([[1.0], [1.0]])
    var = np.diag([0.0, 0.0])
    init = np.array([[0.0], [0.0]])
    y = np.array([[1.0, 2.0]])
    with tessel.capture_messages() as msgs:
        assert tessel.call("LgmMomentEst", 0, tessel.Ref(), y, sys, var, init) is None
    assert msgs == ["LgmMomentEst(): non-positive semi-definite innovation variance matrix"]
    S = tessel.Ref(np.ones((1, 1)))
    with tessel.capture_messages() as msgs:
        assert tessel.call("LgmLikSco", tessel.Ref(), S, np.full((1, 3), np.nan),
                           sys, np.diag([1.0, 1.0])) == 0
    assert msgs == ["LgmLikSco(): non-positive semi-definite innovation matrix"]
    assert S.value is None


# ------------------------------------------------------- statsmodels

def simulate_bsm(rng, n, s_irr, s_lev, s_slo, s_sea):
    """Level, slope, dummy seasonal of period 12 and irregular, simulated
    straight from their defining equations."""
    mu, beta = 10.0, 0.2
    gam = list(rng.normal(size=11))
    y = np.empty(n)
    for t in range(n):
        y[t] = mu + gam[0] + s_irr * rng.normal()
        mu, beta = mu + beta + s_lev * rng.normal(), beta + s_slo * rng.normal()
        gam = [-sum(gam) + s_sea * rng.normal()] + gam[:-1]
    return y


@pytest.mark.parametrize("exact", [True, False], ids=["exact_diffuse", "same_kappa"])
def test_smoothed_states_agree_with_statsmodels_basic_structural_model(exact):
    """The basic structural model of the builders' tests (level, slope,
    dummy seasonal of period 12, irregular; sigmas 0.5, 0.1, 0.3, 1.0) built
    by GetLgmStsm (13 states, all diffuse: variance kappa ~ 1e7), 144
    points with three gaps, against statsmodels' UnobservedComponents (same
    state order) with its exact diffuse initialisation, and with its
    approximate diffuse initialisation at the library's kappa.

    Smoothed means are compared at every time point: exact diffuse differs
    from the kappa treatment by O(1/kappa) relative to the data (measured
    4.5e-7 at t = 0, ~1e-7 later, data of size ~10), same kappa only by
    rounding (measured 7e-9); tolerances 1e-5 and 1e-7 x the largest
    observation. Smoothed variances are compared only from t = 13 on: before
    that the diffuse states are not yet pinned down by as many observations,
    P(t) still holds kappa-sized entries and P - P N P sits at the rounding
    floor eps kappa^2 cond (measured errors up to 1.5 in both comparisons);
    from t = 13 the measured error is 1.4e-8, tolerance 1e-6 x the largest
    smoothed variance."""
    from statsmodels.tsa.statespace.structural import UnobservedComponents
    sig = (1.0, 0.5, 0.1, 0.3)  # irregular, level, slope, seasonal
    y = simulate_bsm(np.random.default_rng(5), 144, *sig)
    y[[40, 41, 97]] = np.nan
    s_irr, s_lev, s_slo, s_sea = sig
    sys, var, init = tessel.Ref(), tessel.Ref(), tessel.Ref()
    table = np.array([[0, s_lev, 0], [1, s_slo, 0], [3, s_sea, 12], [19, s_irr, 0]], dtype=float)
    tessel.call("GetLgmStsm", table, sys, var, init)
    m = 13
    assert sys.value.shape == (m + 1, m) and np.all(np.diag(init.value[:m]) == -1)
    mom, _ = moments(1, dict(sys=sys.value, var=var.value, init=init.value), y[None, :])

    mod = UnobservedComponents(y, level=True, trend=True, seasonal=12, irregular=True,
                               stochastic_level=True, stochastic_trend=True,
                               stochastic_seasonal=True, use_exact_diffuse=exact)
    if not exact:
        mod.ssm.initialize_approximate_diffuse(9999999.99 * max(1.0, np.diag(var.value).max()))
    res = mod.smooth(np.array(sig) ** 2)
    ref_mean = res.smoothed_state
    ref_var = np.einsum("iit->it", res.smoothed_state_cov)

    scale = np.nanmax(np.abs(y))
    err = np.abs(mom[:m] - ref_mean).max()
    assert err <= (1e-5 if exact else 1e-7) * scale, f"smoothed state: max error {err:.3e}"
    err = np.abs(mom[m] - (ref_mean[0] + ref_mean[2])).max()
    assert err <= (1e-5 if exact else 1e-7) * scale, f"smoothed signal: max error {err:.3e}"
    d = 13
    err = np.abs(mom[m + 1:2 * m + 1, d:] - ref_var[:, d:]).max()
    assert err <= 1e-6 * ref_var[:, d:].max(), f"smoothed variance: max error {err:.3e}"
