"""LgmWeights: filter and smoother weights against the joint-Gaussian oracle.

The oracle (oracle.Oracle.weights) forms Cov(alpha(t*), y_used) Var(y_used)^-1
by dense conditioning, with no recursion. The library's weights must equal it
for the predicted (selection 0), filtered (5) and smoothed (1) state, on a
single-series and a two-series model with missing observations (one element
of a vector, and a whole time point) and time-varying SysMat elements, at a
target time point at the start, in the middle and at the end.

Second check, independent of the oracle's weight routine: the estimators are
linear in the data, so with w_i the weights of series i,

    estimate(y) = estimate(y0) + sum_i sum_j w_i[:, j] y[i, j]

where y0 has the missing pattern of y and zeros wherever y is observed:
estimate(y0) is the intercept part (MeanVec and the initial mean carried
through the estimator). For a model without MeanVec and with a zero initial
mean it is zero, and the weighted sum alone is the estimate. The estimates
come from LgmMomentEst and from the oracle's predicted/filtered/smoothed
states.

Tolerances: with a proper initial state every quantity is O(1) and both sides
are computed in double precision with well-conditioned matrices (variances
of order 1), so they agree to ~1e-15; TOL = 1e-10 leaves room for
accumulated rounding. With diffuse elements (variance kappa ~ 1e7) both
sides lose about 7 digits, hence TOL_DIFFUSE = 1e-6.
"""

import numpy as np
import pytest

import tessel
from models import Block

TOL = 1e-10
TOL_DIFFUSE = 1e-6
SELECTIONS = {0: "predicted", 5: "filtered", 1: "smoothed"}
N_TIME = 9


def univariate_model():
    """m = 2, N = 1: T[0][0] and T[0][1] vary over time, correlated state and
    observation disturbances, a proper initial state, intercepts."""
    rng = np.random.default_rng(501)
    sysidx = np.full((3, 2), -1.0)
    sysidx[0, 0], sysidx[0, 1] = 0, 1
    tvdata = np.vstack([rng.uniform(0.5, 1.0, N_TIME), rng.uniform(-0.3, 0.3, N_TIME)])
    missing = np.zeros((1, N_TIME), bool)
    missing[0, [3, 6]] = True
    return Block([[0.9, 0.2], [0.0, 0.7], [1.0, 0.5]],
                 [[0.5, 0.1, 0.05], [0.1, 0.3, 0.0], [0.05, 0.0, 0.8]],
                 init=[[2.0, 0.0], [0.3, 1.5], [0.4, -0.2]], mean=[[0.3], [-0.1], [1.2]],
                 sysidx=sysidx, tvdata=tvdata, missing=missing)


def multivariate_model():
    """m = 2, N = 2: T[0][1] and Z[1][0] vary over time, a full 4 x 4
    disturbance variance, a proper initial state, intercepts. Series 0 is
    missing at time 2, both series at time 5, series 1 at time 7."""
    rng = np.random.default_rng(502)
    a = rng.normal(size=(4, 4))
    sysidx = np.full((4, 2), -1.0)
    sysidx[0, 1], sysidx[3, 0] = 0, 1
    tvdata = np.vstack([rng.uniform(0.0, 0.5, N_TIME), rng.uniform(0.1, 0.6, N_TIME)])
    missing = np.zeros((2, N_TIME), bool)
    missing[0, 2] = missing[1, 7] = True
    missing[:, 5] = True
    return Block([[0.8, 0.3], [-0.2, 0.6], [1.0, 0.5], [0.3, 1.0]],
                 0.3 * a @ a.T + np.diag([0.4, 0.3, 0.6, 0.5]),
                 init=[[1.5, 0.0], [0.2, 1.0], [-0.3, 0.6]], mean=[[0.2], [0.1], [-0.5], [0.7]],
                 sysidx=sysidx, tvdata=tvdata, missing=missing)


MODELS = {"univariate": univariate_model, "multivariate": multivariate_model}


def marker_for(missing, series, t_star):
    """Marker with NaN at missing elements before the target, -1 at those
    after it (both mean "missing"), 0 elsewhere and 1 at the target."""
    assert not missing[series, t_star], "the target element is always observed"
    flat = np.arange(missing.size).reshape(missing.shape)
    mk = np.where(missing, np.where(flat < flat[series, t_star], np.nan, -1.0), 0.0)
    mk[series, t_star] = 1.0
    return mk


def weights(selection, b, series, t_star):
    return tessel.call("LgmWeights", selection, marker_for(b.missing, series, t_star), *b.args())


def oracle_weights(b, t_star, series, selection, missing=None):
    missing = b.missing if missing is None else missing
    return b.oracle(np.where(missing, np.nan, 1.0)).weights(t_star, series, SELECTIONS[selection])


def targets(name, selection):
    """(t*, series) pairs at the start, in the middle and at the end, only at
    observed elements. Two series: the filter over the points before t*
    needs at least one of them, so selections 5 and 1 start at t* = 1."""
    if name == "univariate":
        return [(0, 0), (4, 0), (8, 0)]
    start = 0 if selection == 0 else 1
    return [(start, 0), (start, 1), (4, 0), (4, 1), (8, 0), (8, 1)]


CASES = [(name, sel, t, i) for name in MODELS for sel in SELECTIONS
         for (t, i) in targets(name, sel)]


@pytest.mark.parametrize("name,selection,t_star,series", CASES)
def test_weights_equal_the_oracle(name, selection, t_star, series):
    b = MODELS[name]()
    expected = oracle_weights(b, t_star, series, selection)
    w = weights(selection, b, series, t_star)
    assert w.shape == (b.p, N_TIME)
    np.testing.assert_allclose(w[:b.m], expected, rtol=0, atol=TOL)
    # Signal rows: the observation rows of SysMat in force at time j times
    # the state weight of column j.
    signal = np.stack([b.model.system(j)[1] @ expected[:, j] for j in range(N_TIME)], axis=1)
    np.testing.assert_allclose(w[b.m:], signal, rtol=0, atol=TOL)
    # Missing observations of the target series carry no weight; the
    # comparison above is not vacuous.
    assert np.all(w[:, b.missing[series]] == 0.0)
    if not (selection == 0 and t_star == 0):
        assert np.abs(expected).max() > 0.01


@pytest.mark.parametrize("name", MODELS)
@pytest.mark.parametrize("selection", SELECTIONS)
def test_weights_with_diffuse_initial_state(name, selection):
    """InitMat absent: every state element diffuse."""
    b = MODELS[name]().replace(init=None)
    for t_star in (4, 8):
        np.testing.assert_allclose(weights(selection, b, 0, t_star)[:b.m],
                                   oracle_weights(b, t_star, 0, selection), rtol=0, atol=TOL_DIFFUSE)


def moment_states(selection, y, b):
    """Rows 0..m-1 of LgmMomentEst's moments (the state estimates)."""
    ref = tessel.Ref()
    tessel.call("LgmMomentEst", selection, ref, y, *b.args())
    return ref.value[:b.m]


def oracle_states(selection, y, b):
    ora = b.oracle(y)
    kind = SELECTIONS[selection]
    return {"predicted": ora.predicted_states, "filtered": ora.filtered_states,
            "smoothed": ora.smoothed_states}[kind]()[0]


@pytest.mark.parametrize("name", MODELS)
@pytest.mark.parametrize("selection", SELECTIONS)
@pytest.mark.parametrize("with_mean", [True, False], ids=["MeanVec", "no-intercept"])
def test_weights_reproduce_the_estimates(name, selection, with_mean):
    b = MODELS[name]()
    if name == "multivariate":
        # LgmMomentEst's multivariate smoother carries the NaN innovations of
        # a wholly missing time point into every earlier estimate (documented
        # behaviour), so here time 5 loses only series 1.
        b.missing[0, 5] = False
    if not with_mean:
        init = b.init.copy()
        init[-1] = 0.0  # zero initial mean: no intercept part at all
        b = b.replace(mean=None, init=init)
    rng = np.random.default_rng(77)
    y = np.where(b.missing, np.nan, rng.normal(size=b.missing.shape) * 2.0)
    y0 = np.where(b.missing, np.nan, 0.0)
    for t_star in (4, 8):
        assert not b.missing[:, t_star].any()
        total = sum(weights(selection, b, i, t_star)[:b.m] @ np.nan_to_num(y[i]) for i in range(b.N))
        for source in (moment_states, oracle_states):
            est = source(selection, y, b)[:, t_star]
            intercept = source(selection, y0, b)[:, t_star]
            assert np.all(np.isfinite(est)) and np.all(np.isfinite(intercept))
            if not with_mean:
                np.testing.assert_allclose(intercept, 0.0, rtol=0, atol=TOL)
            np.testing.assert_allclose(intercept + total, est, rtol=0, atol=TOL,
                                       err_msg=f"{source.__name__} t*={t_star}")
            assert np.abs(total).max() > 0.1


# ------------------------------------------------------------ the marker

def test_marker_minus_one_before_the_target_becomes_the_target():
    """-1 means "missing", but the target search reads the marker as passed:
    a -1 met before the intended 1 is the target, and is then filtered as a
    missing element."""
    b = multivariate_model()
    mk = np.zeros((2, N_TIME))
    mk[0, 2] = -1.0
    mk[1, 6] = 1.0
    missing = np.zeros((2, N_TIME), bool)
    missing[0, 2] = True
    expected = oracle_weights(b, 2, 0, 0, missing)
    np.testing.assert_allclose(tessel.call("LgmWeights", 0, mk, *b.args())[:2], expected,
                               rtol=0, atol=TOL)
    assert np.abs(expected).max() > 0.01


def test_all_zero_marker_targets_last_series_at_last_time():
    b = multivariate_model()
    w = tessel.call("LgmWeights", 1, np.zeros((2, N_TIME)), *b.args())
    expected = oracle_weights(b, N_TIME - 1, 1, 1, np.zeros((2, N_TIME), bool))
    np.testing.assert_allclose(w[:2], expected, rtol=0, atol=TOL)


# ------------------------------------------------------- edge selections

@pytest.mark.parametrize("name", MODELS)
@pytest.mark.parametrize("selection, t_star", [(0, 0), (3, 4)],
                         ids=["predicted_at_first_time_point", "selection_3"])
def test_zero_weights(name, selection, t_star):
    b = MODELS[name]()
    w = weights(selection, b, 0, t_star)
    assert w.shape == (b.p, N_TIME) and np.all(w == 0.0)


@pytest.mark.parametrize("selection", [5, 1])
def test_two_series_filtered_or_smoothed_at_first_time_point_fails(selection):
    with pytest.raises(tessel.ZuError) as err:
        weights(selection, multivariate_model(), 0, 0)
    assert str(err.value) == "LgmWeights(): unknown error"
    assert err.value.number == 1


def test_too_few_observations_before_target_fails_for_two_series():
    """Diffuse start (d = 2): the filter over the points before t* = 1 sees
    two observed elements, cnt = 0 < 1."""
    b = multivariate_model().replace(init=None)
    with pytest.raises(tessel.ZuError, match=r"^LgmWeights\(\): unknown error$"):
        weights(5, b, 0, 1)
    # One more time point (four observed elements) is enough.
    assert np.abs(weights(5, b, 1, 2)).max() > 0.01


@pytest.mark.parametrize("selection", [2, 4, -1, 6])
def test_invalid_selection(selection):
    with pytest.raises(tessel.ZuError) as err:
        weights(selection, univariate_model(), 0, 4)
    assert str(err.value) == "LgmWeights(): no valid selection in first argument"


def test_failed_filter_reports_unknown_error_even_with_messages_off():
    """All observations missing: the filter fails (cnt < 1). The report is a
    run-time error, not a message, so switching messages off changes
    nothing."""
    tessel.call("LgmWarning", 0)
    with pytest.raises(tessel.ZuError, match=r"^LgmWeights\(\): unknown error$"):
        tessel.call("LgmWeights", 0, np.full((1, N_TIME), np.nan), *univariate_model().args())
