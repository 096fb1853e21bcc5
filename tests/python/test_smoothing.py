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
from models import BSM_SIGMAS, BSM_TABLE, Block, assert_close, bsm_data, bsm_statsmodels, diag_rows
from oracle import simulate

TOL = 1e-9
TOL_DIFFUSE = 1e-5
N_TIME = 10


# ---------------------------------------------------------------- models

def model_univariate_tv():
    """N = 1, m = 2, T = I: local level plus a random-walk regression
    coefficient on a time-varying regressor (SysMat[2][1] from TvData), a
    time-varying observation variance (VarMat[2][2]), intercepts, a diffuse
    level and a proper coefficient; two single missing values."""
    rng = np.random.default_rng(11)
    sysidx = np.full((3, 2), -1.0)
    sysidx[2, 1] = 0
    varidx = np.full((3, 3), -1.0)
    varidx[2, 2] = 1
    tvdata = np.vstack([rng.uniform(-2, 2, N_TIME), rng.uniform(0.5, 1.5, N_TIME)])
    return Block([[1.0, 0.0], [0.0, 1.0], [1.0, 0.0]], np.diag([0.4, 0.05, 0.9]),
                 init=[[-1.0, 0.0], [0.0, 0.8], [0.0, 0.3]], mean=[[0.1], [0.0], [0.5]],
                 sysidx=sysidx, varidx=varidx, tvdata=tvdata, missing=[(0, 3), (0, 7)],
                 tol=TOL_DIFFUSE, seed=1)


def model_univariate_ar():
    """N = 1, m = 2: an ARMA-like transition with correlated state and
    observation disturbances, proper initial state, intercepts."""
    return Block([[0.6, 1.0], [-0.2, 0.0], [1.0, 0.0]],
                 [[0.7, 0.2, 0.1], [0.2, 0.3, 0.0], [0.1, 0.0, 0.5]],
                 init=[[1.5, 0.0], [0.2, 0.6], [0.3, -0.1]], mean=[[0.2], [0.0], [-0.4]],
                 missing=[(0, 0), (0, 5)], tol=TOL, seed=2)


def model_univariate_diffuse():
    """N = 1, m = 1 local level without InitMat (fully diffuse)."""
    return Block([[1.0], [1.0]], np.diag([0.3, 1.0]), missing=[(0, 4)], tol=TOL_DIFFUSE, seed=3)


def model_multivariate():
    """N = 2, m = 3: correlated disturbances across all blocks, proper
    initial state, intercepts; one element missing at two time points."""
    var = [[0.6, 0.1, 0.0, 0.05, 0.0], [0.1, 0.4, 0.0, 0.0, 0.1], [0.0, 0.0, 0.3, 0.0, 0.0],
           [0.05, 0.0, 0.0, 0.8, 0.2], [0.0, 0.1, 0.0, 0.2, 1.1]]
    return Block([[0.7, 0.2, 0.0], [0.0, 0.5, 0.3], [0.1, 0.0, 0.4], [1.0, 0.0, 0.5], [0.3, 1.0, 0.0]],
                 var, init=[[1.2, 0.0, 0.0], [0.3, 0.9, 0.0], [0.0, 0.1, 0.7], [0.5, -0.3, 0.2]],
                 mean=[[0.1], [-0.2], [0.0], [1.0], [0.4]], missing=[(0, 2), (1, 6)], tol=TOL, seed=4)


def model_multivariate_diffuse_tv():
    """N = 2, m = 2, no InitMat (both states diffuse); SysMat[2][1] and
    SysMat[3][0] vary, and the observation covariance varies with both of
    its halves marked; intercepts; partial missing values."""
    rng = np.random.default_rng(12)
    sysidx = np.full((4, 2), -1.0)
    sysidx[2, 1] = 0
    sysidx[3, 0] = 1
    varidx = np.full((4, 4), -1.0)
    varidx[2, 3] = varidx[3, 2] = 2
    tvdata = np.vstack([rng.uniform(-1, 1, N_TIME), rng.uniform(0.0, 1.0, N_TIME),
                        rng.uniform(-0.3, 0.3, N_TIME)])
    var = np.diag([0.3, 0.1, 0.9, 0.7])
    var[2, 3] = var[3, 2] = 0.2
    return Block([[1.0, 1.0], [0.0, 1.0], [1.0, 0.0], [0.0, 1.0]], var,
                 mean=[[0.0], [0.05], [0.3], [-0.2]], sysidx=sysidx, varidx=varidx, tvdata=tvdata,
                 missing=[(1, 1), (0, 5), (1, 8)], tol=TOL_DIFFUSE, seed=5)


MODELS = {
    "univariate_tv_diffuse_level": model_univariate_tv,
    "univariate_correlated_proper": model_univariate_ar,
    "univariate_fully_diffuse": model_univariate_diffuse,
    "multivariate_correlated_proper": model_multivariate,
    "multivariate_diffuse_time_varying": model_multivariate_diffuse_tv,
}


def build(name, extra_missing=()):
    """The model with data simulated from it and its missing values set."""
    b = MODELS[name]()
    _, y = simulate(b.model, N_TIME, np.random.default_rng(b.seed))
    for i, t in list(b.missing) + list(extra_missing):
        y[i, t] = np.nan
    return b.replace(y=y)


def moments(selection, b, y=None):
    ref = tessel.Ref()
    ret = tessel.call("LgmMomentEst", selection, ref, b.y if y is None else y, *b.args())
    return ref.value, ret


def kalman_smo(b):
    store = tessel.call("KalmanFil", b.y, *b.args())
    return tessel.call("KalmanSmo", store, *b.args())


# ------------------------------------------------------------ smoothing

@pytest.mark.parametrize("name", list(MODELS))
def test_smoothed_moments_and_kalman_smo_equal_the_oracle(name):
    b = build(name)
    ora = b.oracle()
    m, N, p, tol = b.m, b.N, b.p, b.tol
    mom, ret = moments(1, b)
    a, P = ora.smoothed_states()
    s, sv = ora.signals("smoothed")
    assert_close(mom[:m], a, tol, "smoothed state")
    assert_close(mom[m:m + N], s, tol, "smoothed signal")
    # Absolute rounding floor at t = 0 for diffuse starts (see the module notes).
    first = 10 * np.finfo(float).eps * b.model.kappa ** 2 if tol == TOL_DIFFUSE else tol
    for cols, t in ((slice(0, 1), first), (slice(1, None), tol)):
        assert_close(mom[m + N:2 * m + N, cols], diag_rows(P)[:, cols], t,
                     "smoothed state variance")
        assert_close(mom[2 * m + N:, cols], diag_rows(sv)[:, cols], t, "smoothed signal variance")
    # The return value is N(-1) over r(-1)': the same cumulant that KalmanSmo
    # leaves in its start column.
    smo = kalman_smo(b)
    assert smo.shape == (2 * p, N_TIME + 1)
    assert_close(ret[m], smo[:m, 0], 1e-12, "r before the first time point")
    assert_close(np.diag(ret[:m]), smo[m + N:2 * m + N, 0], 1e-12,
                 "diag N before the first time point")
    # a^(t) = a(t) + P(t) r(t-1): the oracle's predicted moments combined
    # with KalmanSmo's r (column t holds r(t-1)) give the smoothed states.
    a_p, P_p = ora.predicted_states()
    rebuilt = np.stack([a_p[:, t] + P_p[t] @ smo[:m, t] for t in range(N_TIME)], axis=1)
    assert_close(rebuilt, a, tol, "a(t) + P(t) r(t-1)")
    if m == 1:
        # V(t) = P(t) - P(t)^2 N(t-1), from t = 1 (t = 0 is at the rounding
        # floor for a diffuse start, see the module notes).
        rebuilt_v = [P_p[t][0, 0] - P_p[t][0, 0] ** 2 * smo[m + N, t] for t in range(1, N_TIME)]
        assert_close(rebuilt_v, P[1:, 0, 0], tol, "P - P N P")

    mom3, _ = moments(3, b)
    mean, _, red = ora.smoothed_disturbances()
    assert_close(mom3[:p], mean, tol, "smoothed disturbance mean")
    assert_close(mom3[p:], diag_rows(red), tol, "disturbance variance reduction")


def test_kalman_smo_disturbance_relations_equal_the_oracle():
    """With VarMat = diag(HH', GG') both diagonal: the smoothed state
    disturbance is HH' r(t), the observation one GG' u(t), and the variance
    reductions are H_ii^2 N_ii(t) and G_ii^2 D_ii(t) (column t+1 of the
    output belongs to time point t)."""
    b = Block([[0.8, 0.3], [0.0, 0.6], [1.0, 0.0], [0.4, 1.0]], np.diag([0.5, 0.2, 0.9, 0.6]),
              init=[[1.0, 0.0], [0.2, 0.5], [0.0, 0.1]])
    _, y = simulate(b.model, N_TIME, np.random.default_rng(7))
    y[1, 4] = np.nan
    b = b.replace(y=y)
    mean, _, red = b.oracle().smoothed_disturbances()
    smo = kalman_smo(b)
    d = np.diag(b.var)[:, None]
    assert_close(d * smo[:4, 1:], mean, TOL, "VarMat (r; u)")
    assert_close(d ** 2 * smo[4:, 1:], diag_rows(red), TOL, "diag VarMat D VarMat")
    # Start column: rows of u and of F^-1 + K'NK are 0.
    assert np.all(smo[2:4, 0] == 0) and np.all(smo[6:8, 0] == 0)


def test_univariate_kalman_smo_missing_value_gives_zero_u_and_plain_transport():
    """Single series, missing y(t): u(t) = 0, its D entry 0, and
    r(t-1) = T' r(t), diag N(t-1) = diag T' N(t) T (m = 1: T^2 N)."""
    b = Block([[0.9], [1.0]], np.diag([0.4, 1.0]), [[0.3, -0.2, np.nan, 1.1, 0.4]],
              init=[[1.0], [0.0]])
    smo = kalman_smo(b)
    t = 2
    assert smo[1, t + 1] == 0.0 and smo[3, t + 1] == 0.0
    assert smo[0, t] == pytest.approx(0.9 * smo[0, t + 1], rel=1e-15)
    assert smo[2, t] == pytest.approx(0.81 * smo[2, t + 1], rel=1e-15)


def test_kalman_smo_with_no_time_points_returns_one_zero_column():
    smo = tessel.call("KalmanSmo", np.zeros((3, 0)), [[1.0], [1.0]], np.diag([0.3, 1.0]))
    assert smo.shape == (4, 1) and np.all(smo == 0.0)


# ------------------------------------- whole observation vector missing

def test_whole_vector_missing_propagates_nan_backwards_in_multivariate_smoothers():
    """Multivariate, y(t0) entirely missing: the filter stores NaN
    innovations with zero gains and inverse variances; the multivariate
    smoother multiplies the NaN innovations as they stand, so u(t0) and every
    r before it are NaN (kept deliberately). Means at times <= t0 are NaN;
    means after t0 and all variances are still those of the oracle."""
    t0 = 4
    b = build("multivariate_correlated_proper", extra_missing=[(0, t0), (1, t0)])
    ora = b.oracle()
    m, N, p = b.m, b.N, b.p
    smo = kalman_smo(b)
    assert np.all(np.isnan(smo[m:m + N, t0 + 1]))          # u(t0)
    assert np.all(np.isnan(smo[:m, :t0 + 1]))              # r(t) for t < t0
    assert np.all(np.isfinite(smo[:, t0 + 2:]))            # later columns unaffected
    assert np.all(np.isfinite(smo[m + N:2 * m + N]))       # N(t) never NaN

    mom, ret = moments(1, b)
    a, P = ora.smoothed_states()
    a[:, :t0 + 1] = np.nan
    assert_close(mom[:m], a, TOL, "smoothed state with NaN before t0")
    assert_close(mom[m + N:2 * m + N], diag_rows(P), TOL, "smoothed state variance")
    assert np.all(np.isnan(ret[m]))  # r(-1)

    mom3, _ = moments(3, b)
    mean, _, red = ora.smoothed_disturbances()
    mean[:, :t0 + 1] = np.nan
    assert_close(mom3[:p], mean, TOL, "smoothed disturbances with NaN before t0")
    assert_close(mom3[p:], diag_rows(red), TOL, "variance reduction")


def test_whole_missing_single_series_does_not_propagate_nan():
    b = build("univariate_correlated_proper", extra_missing=[(0, 3)])
    mom, _ = moments(1, b)
    assert_close(mom[:2], b.oracle().smoothed_states()[0], TOL, "smoothed state")


# ------------------------------------------------ prediction and filtering

@pytest.mark.parametrize("name", list(MODELS))
def test_predicted_moments_equal_the_oracle(name):
    b = build(name)
    ora = b.oracle()
    m, N, n, tol = b.m, b.N, N_TIME, b.tol
    mom, ret = moments(0, b)
    a, P = ora.predicted_states()
    s, _ = ora.signals("predicted", intercept=True)
    _, F, _, _ = ora.innovations()
    assert_close(mom[:m], a[:, :n], tol, "predicted state")
    assert_close(mom[m:m + N], s, tol, "predicted observation")
    assert_close(mom[m + N:2 * m + N], diag_rows(P[:n]), tol, "predicted state variance")
    assert_close(mom[2 * m + N:], diag_rows(F), tol, "innovation variance")
    # Return value: the prediction one step beyond the data.
    assert_close(ret[:m], P[n], tol, "P(n)")
    assert_close(ret[m], a[:, n], tol, "a(n)")


@pytest.mark.parametrize("name", ["univariate_tv_diffuse_level", "univariate_fully_diffuse",
                                  "multivariate_correlated_proper",
                                  "multivariate_diffuse_time_varying"])
def test_filtered_moments_equal_the_oracle(name):
    """Filtered states, their variances and the filtered signals (with
    intercept). The single-series models have T = I, where that routine's
    state variance formula (P Z')_k F^-1 (Z P T')_k is the textbook one; its
    observation variance row is the filtered signal variance plus GG'."""
    b = build(name)
    ora = b.oracle()
    m, N, tol = b.m, b.N, b.tol
    mom, ret = moments(5, b)
    a, P = ora.filtered_states()
    s, sv = ora.signals("filtered", intercept=True)
    assert_close(mom[:m], a, tol, "filtered state")
    assert_close(mom[m:m + N], s, tol, "filtered observation")
    assert_close(mom[m + N:2 * m + N], diag_rows(P), tol, "filtered state variance")
    if N == 1:
        # At a missing time point nothing is filtered: F stays the predicted
        # one, which is Var(signal) + GG' as well.
        gg = np.array([b.model.system(t)[2][m, m] for t in range(N_TIME)])
        assert_close(mom[2 * m + 1], sv[:, 0, 0] + gg, tol, "filtered observation variance")
        np.testing.assert_array_equal(ret, moments(0, b)[1])


def test_univariate_filtered_state_variance_uses_Z_P_T_not_textbook_Z_P():
    """With T != I the single-series routine subtracts (P Z')_k (Z P T')_k / F
    from P_kk, not the textbook (P Z')_k^2 / F. The documented formula is
    checked against oracle moments, and it differs from the textbook value
    here; the filtered means are textbook."""
    b = build("univariate_correlated_proper")
    ora = b.oracle()
    m, n, y = b.m, N_TIME, b.y
    mom, _ = moments(5, b)
    _, P = ora.predicted_states()
    _, F, _, _ = ora.innovations()
    a_fil, P_fil = ora.filtered_states()
    documented = np.zeros((m, n))
    for t in range(n):
        T, Z, _, _, _ = b.model.system(t)
        pz, zpt = P[t] @ Z[0], T @ P[t] @ Z[0]
        documented[:, t] = np.diag(P[t]) - (0 if np.isnan(y[0, t]) else pz * zpt / F[t, 0, 0])
    assert_close(mom[m + 1:2 * m + 1], documented, TOL, "documented filtered variance")
    gap = np.abs(diag_rows(P_fil) - documented)[:, ~np.isnan(y[0])]
    assert gap.max() > 1e-2, "the case must tell the two formulas apart"
    assert_close(mom[:m], a_fil, TOL, "filtered state")


def test_multivariate_filtered_observation_variance_reads_state_block_not_textbook():
    """Multivariate filtered observation variance rows: F_ii - sum_j G[i][j]
    X[j][i] with G = Z P Z' F^-1 and X = SysMat P SysMat' read from its
    top-left (state) corner, i.e. T P T' here (N <= m), where the textbook
    quantity reads Z P Z'. Checked against that formula from oracle moments,
    on a model where the two differ."""
    b = build("multivariate_correlated_proper")
    b = b.replace(y=np.where(np.isnan(b.y), 0.5, b.y))  # no missing values: F^-1 is the full inverse
    ora = b.oracle()
    m, N, n = b.m, b.N, N_TIME
    mom, _ = moments(5, b)
    _, P = ora.predicted_states()
    _, F, _, _ = ora.innovations()
    documented, textbook = np.zeros((N, n)), np.zeros((N, n))
    for t in range(n):
        T, Z, _, _, _ = b.model.system(t)
        S = np.vstack([T, Z])
        X = S @ P[t] @ S.T
        zpz = Z @ P[t] @ Z.T
        G = zpz @ np.linalg.inv(F[t])
        documented[:, t] = np.diag(F[t]) - np.einsum("ij,ji->i", G, X[:N, :N])
        textbook[:, t] = np.diag(F[t]) - np.diag(G @ zpz)
    assert_close(mom[2 * m + N:], documented, TOL, "documented filtered observation variance")
    assert np.abs(documented - textbook).max() > 1e-2, "the case must tell the two apart"


# ---------------------------------------------------------------- score

@pytest.mark.parametrize("name", ["univariate_correlated_proper", "multivariate_correlated_proper"])
def test_score_is_twice_the_numerical_derivative_of_the_loglikelihood(name):
    """S = 2 dL/dVarMat for the free elements: a diagonal element is
    perturbed alone; an off-diagonal pair (i, j), (j, i) is perturbed
    together by h, which moves L by (S_ij + S_ji)/2 h = S_ij h, so S_ij is
    compared with twice the derivative with respect to each half of the pair.
    Central differences with h = 1e-5: truncation error ~h^2 |L'''| ~1e-10,
    rounding ~1e-16 |L| / h ~1e-10; tolerance 1e-6 (relative to max(1, |S|)).
    The two-reference form gives the same S and log-likelihood."""
    b = build(name)
    ll, s2, S = tessel.Ref(), tessel.Ref(), tessel.Ref()
    assert tessel.call("LgmLikSco", ll, s2, S, b.y, *b.args()) == 1
    S = S.value
    np.testing.assert_array_equal(S, S.T)
    want_ll, want_scale, _ = b.oracle().loglik()
    assert ll.value == pytest.approx(want_ll, rel=1e-12)
    assert s2.value == pytest.approx(want_scale, rel=1e-12)
    ll2, S2 = tessel.Ref(), tessel.Ref()
    assert tessel.call("LgmLikSco", ll2, S2, b.y, *b.args()) == 1
    np.testing.assert_array_equal(S2.value, S)
    assert ll2.value == ll.value

    def loglik(var):
        out = tessel.Ref()
        assert tessel.call("LgmLik", out, tessel.Ref(), b.y, b.sys, var, b.init, b.mean) == 1
        return out.value

    h = 1e-5
    numeric = np.zeros((b.p, b.p))
    for i in range(b.p):
        for j in range(i, b.p):
            E = np.zeros((b.p, b.p))
            E[i, j] = E[j, i] = h
            d = (loglik(b.var + E) - loglik(b.var - E)) / (2 * h)
            numeric[i, j] = numeric[j, i] = 2 * d if i == j else d
    assert_close(S, numeric, 1e-6, "score vs numerical derivative")


# ------------------------------------------------ entry point behaviour

def test_moments_passed_by_value_still_give_the_return_value():
    b = build("univariate_correlated_proper")
    _, ret_ref = moments(1, b)
    np.testing.assert_array_equal(tessel.call("LgmMomentEst", 1, 0, b.y, *b.args()), ret_ref)
    assert tessel.call("LgmMomentEst", 0, np.zeros((2, 2)), b.y, *b.args()).shape == (3, 2)


@pytest.mark.parametrize("selection", [2, 4, -1, 6])
def test_invalid_selection_is_refused(selection):
    b = build("univariate_correlated_proper")
    with pytest.raises(tessel.ZuError) as err:
        tessel.call("LgmMomentEst", selection, tessel.Ref(), b.y, *b.args())
    assert str(err.value) == "LgmMomentEst(): no valid selection in first argument"


def test_failures_report_their_messages():
    sys = np.array([[1.0], [1.0]])
    with tessel.capture_messages() as msgs:
        assert tessel.call("LgmMomentEst", 0, tessel.Ref(), [[1.0, 2.0]], sys, np.zeros((2, 2)),
                           np.zeros((2, 1))) is None
    assert msgs == ["LgmMomentEst(): non-positive semi-definite innovation variance matrix"]
    S = tessel.Ref(np.ones((1, 1)))
    with tessel.capture_messages() as msgs:
        assert tessel.call("LgmLikSco", tessel.Ref(), S, np.full((1, 3), np.nan),
                           sys, np.diag([1.0, 1.0])) == 0
    assert msgs == ["LgmLikSco(): non-positive semi-definite innovation matrix"]
    assert S.value is None


# ------------------------------------------------------- statsmodels

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
    y = bsm_data()
    sys, var, init = tessel.Ref(), tessel.Ref(), tessel.Ref()
    tessel.call("GetLgmStsm", np.array(BSM_TABLE, dtype=float), sys, var, init)
    m = 13
    assert sys.value.shape == (m + 1, m) and np.all(np.diag(init.value[:m]) == -1)
    mom, _ = moments(1, Block(sys.value, var.value, y[None, :], init=init.value))

    mod = bsm_statsmodels(y, exact)
    if not exact:
        mod.ssm.initialize_approximate_diffuse(9999999.99 * max(1.0, np.diag(var.value).max()))
    res = mod.smooth(np.array(BSM_SIGMAS) ** 2)
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
