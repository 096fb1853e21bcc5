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
from oracle import Oracle, StateSpace

TOL = 1e-10
TOL_DIFFUSE = 1e-6
SELECTIONS = {0: "predicted", 5: "filtered", 1: "smoothed"}
N_TIME = 9


def _tv(rng, n, lo, hi):
    return rng.uniform(lo, hi, size=n)


def univariate_model():
    """m = 2, N = 1: T[0][0] and T[0][1] vary over time, correlated state and
    observation disturbances, a proper initial state, intercepts."""
    rng = np.random.default_rng(501)
    sys = np.array([[0.9, 0.2], [0.0, 0.7], [1.0, 0.5]])
    var = np.array([[0.5, 0.1, 0.05], [0.1, 0.3, 0.0], [0.05, 0.0, 0.8]])
    init = np.array([[2.0, 0.0], [0.3, 1.5], [0.4, -0.2]])
    mean = np.array([[0.3], [-0.1], [1.2]])
    sysidx = np.full((3, 2), -1.0)
    sysidx[0, 0], sysidx[0, 1] = 0, 1
    tvdata = np.vstack([_tv(rng, N_TIME, 0.5, 1.0), _tv(rng, N_TIME, -0.3, 0.3)])
    missing = np.zeros((1, N_TIME), bool)
    missing[0, [3, 6]] = True
    return dict(sys=sys, var=var, init=init, mean=mean, sysidx=sysidx, tvdata=tvdata,
                missing=missing)


def multivariate_model():
    """m = 2, N = 2: T[0][1] and Z[1][0] vary over time, a full 4 x 4
    disturbance variance, a proper initial state, intercepts. Series 0 is
    missing at time 2, both series at time 5, series 1 at time 7."""
    rng = np.random.default_rng(502)
    sys = np.array([[0.8, 0.3], [-0.2, 0.6], [1.0, 0.5], [0.3, 1.0]])
    a = rng.normal(size=(4, 4))
    var = 0.3 * a @ a.T + np.diag([0.4, 0.3, 0.6, 0.5])
    init = np.array([[1.5, 0.0], [0.2, 1.0], [-0.3, 0.6]])
    mean = np.array([[0.2], [0.1], [-0.5], [0.7]])
    sysidx = np.full((4, 2), -1.0)
    sysidx[0, 1], sysidx[3, 0] = 0, 1
    tvdata = np.vstack([_tv(rng, N_TIME, 0.0, 0.5), _tv(rng, N_TIME, 0.1, 0.6)])
    missing = np.zeros((2, N_TIME), bool)
    missing[0, 2] = True
    missing[:, 5] = True
    missing[1, 7] = True
    return dict(sys=sys, var=var, init=init, mean=mean, sysidx=sysidx, tvdata=tvdata,
                missing=missing)


MODELS = {"univariate": univariate_model, "multivariate": multivariate_model}


def model_args(case_model, diffuse=False, with_mean=True):
    """The model block as LgmWeights takes it after the marker."""
    init = tessel.EMPTY if diffuse else case_model["init"]
    mean = case_model["mean"] if with_mean else tessel.EMPTY
    return [case_model["sys"], case_model["var"], init, mean, case_model["sysidx"], tessel.EMPTY, tessel.EMPTY,
            case_model["tvdata"]]


def oracle_model(case_model, diffuse=False, with_mean=True):
    return StateSpace(case_model["sys"], case_model["var"], init=None if diffuse else case_model["init"],
                      mean=case_model["mean"] if with_mean else None, sysidx=case_model["sysidx"],
                      tvdata=case_model["tvdata"])


def marker_for(missing, series, t_star):
    """Marker with NaN at missing elements before the target, -1 at those
    after it (both mean "missing"), 0 elsewhere and 1 at the target."""
    mk = np.zeros(missing.shape)
    flat_target = series * missing.shape[1] + t_star
    for i in range(missing.shape[0]):
        for t in range(missing.shape[1]):
            if missing[i, t]:
                mk[i, t] = np.nan if i * missing.shape[1] + t < flat_target else -1.0
    assert not missing[series, t_star], "the target element is always observed"
    mk[series, t_star] = 1.0
    return mk


def weights(selection, case_model, series, t_star, **kw):
    mk = marker_for(case_model["missing"], series, t_star)
    return tessel.call("LgmWeights", selection, mk, *model_args(case_model, **kw))


def signal_expected(model, state_weights):
    """Signal rows: the observation rows of SysMat in force at time j times
    the state weight of column j (for a fixed Z, the weights of the signal
    Z alpha(t*))."""
    out = np.zeros((model.N, state_weights.shape[1]))
    for j in range(state_weights.shape[1]):
        out[:, j] = model.system(j)[1] @ state_weights[:, j]
    return out


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
    case_model = MODELS[name]()
    model = oracle_model(case_model)
    y = np.where(case_model["missing"], np.nan, 1.0)
    expected = Oracle(model, y).weights(t_star, series, SELECTIONS[selection])
    w = weights(selection, case_model, series, t_star)
    m = model.m
    assert w.shape == (model.m + model.N, N_TIME)
    np.testing.assert_allclose(w[:m], expected, rtol=0, atol=TOL)
    np.testing.assert_allclose(w[m:], signal_expected(model, expected), rtol=0, atol=TOL)
    # Missing observations of the target series carry no weight; the
    # comparison above is not vacuous.
    assert np.all(w[:, case_model["missing"][series]] == 0.0)
    if not (selection == 0 and t_star == 0):
        assert np.abs(expected).max() > 0.01


@pytest.mark.parametrize("name", MODELS)
@pytest.mark.parametrize("selection", SELECTIONS)
def test_weights_with_diffuse_initial_state(name, selection):
    """InitMat absent: every state element diffuse."""
    case_model = MODELS[name]()
    model = oracle_model(case_model, diffuse=True)
    y = np.where(case_model["missing"], np.nan, 1.0)
    for t_star in (4, 8):
        expected = Oracle(model, y).weights(t_star, 0, SELECTIONS[selection])
        w = weights(selection, case_model, 0, t_star, diffuse=True)
        np.testing.assert_allclose(w[:model.m], expected, rtol=0, atol=TOL_DIFFUSE)


def moment_states(selection, y, case_model, with_mean):
    """Rows 0..m-1 of LgmMomentEst's moments (the state estimates)."""
    ref = tessel.Ref()
    tessel.call("LgmMomentEst", selection, ref, y, *model_args(case_model, with_mean=with_mean))
    return ref.value[: case_model["sys"].shape[1]]


def oracle_states(kind, y, case_model, with_mean):
    ora = Oracle(oracle_model(case_model, with_mean=with_mean), y)
    return {"predicted": ora.predicted_states, "filtered": ora.filtered_states,
            "smoothed": ora.smoothed_states}[kind]()[0]


@pytest.mark.parametrize("name", MODELS)
@pytest.mark.parametrize("selection", SELECTIONS)
@pytest.mark.parametrize("with_mean", [True, False], ids=["MeanVec", "no-intercept"])
def test_weights_reproduce_the_estimates(name, selection, with_mean):
    case_model = MODELS[name]()
    if name == "multivariate":
        # LgmMomentEst's multivariate smoother carries the NaN innovations of
        # a wholly missing time point into every earlier estimate (documented
        # behaviour), so here time 5 loses only series 1.
        case_model["missing"][0, 5] = False
    if not with_mean:
        case_model["init"] = case_model["init"].copy()
        case_model["init"][-1] = 0.0  # zero initial mean: no intercept part at all
    m, N = case_model["sys"].shape[1], case_model["sys"].shape[0] - case_model["sys"].shape[1]
    rng = np.random.default_rng(77)
    y = np.where(case_model["missing"], np.nan, rng.normal(size=case_model["missing"].shape) * 2.0)
    y0 = np.where(case_model["missing"], np.nan, 0.0)
    kind = SELECTIONS[selection]
    for t_star in (4, 8):
        assert not case_model["missing"][:, t_star].any()
        total = np.zeros(m)
        for i in range(N):
            w = weights(selection, case_model, i, t_star, with_mean=with_mean)
            total += w[:m] @ np.nan_to_num(y[i])
        for source in (moment_states, oracle_states):
            key = selection if source is moment_states else kind
            est = source(key, y, case_model, with_mean)[:, t_star]
            intercept = source(key, y0, case_model, with_mean)[:, t_star]
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
    case_model = multivariate_model()
    mk = np.zeros((2, N_TIME))
    mk[0, 2] = -1.0
    mk[1, 6] = 1.0
    w = tessel.call("LgmWeights", 0, mk, *model_args(case_model))
    missing = np.zeros((2, N_TIME), bool)
    missing[0, 2] = True
    expected = Oracle(oracle_model(case_model), np.where(missing, np.nan, 1.0)).weights(2, 0, "predicted")
    np.testing.assert_allclose(w[:2], expected, rtol=0, atol=TOL)
    assert np.abs(expected).max() > 0.01


def test_all_zero_marker_targets_last_series_at_last_time():
    case_model = multivariate_model()
    mk = np.zeros((2, N_TIME))
    w = tessel.call("LgmWeights", 1, mk, *model_args(case_model))
    expected = Oracle(oracle_model(case_model), np.ones((2, N_TIME))).weights(N_TIME - 1, 1, "smoothed")
    np.testing.assert_allclose(w[:2], expected, rtol=0, atol=TOL)


# ------------------------------------------------------- edge selections

@pytest.mark.parametrize("name", MODELS)
def test_predicted_weights_at_first_time_point_are_zero(name):
    case_model = MODELS[name]()
    w = weights(0, case_model, 0, 0)
    assert w.shape == (case_model["sys"].shape[0], N_TIME)
    assert np.all(w == 0.0)


@pytest.mark.parametrize("selection", [5, 1])
def test_two_series_filtered_or_smoothed_at_first_time_point_fails(selection):
    case_model = multivariate_model()
    with pytest.raises(tessel.ZuError) as err:
        weights(selection, case_model, 0, 0)
    assert str(err.value) == "LgmWeights(): unknown error"
    assert err.value.number == 1


def test_too_few_observations_before_target_fails_for_two_series():
    """Diffuse start (d = 2): the filter over the points before t* = 1 sees
    two observed elements, cnt = 0 < 1."""
    case_model = multivariate_model()
    with pytest.raises(tessel.ZuError, match=r"^LgmWeights\(\): unknown error$"):
        weights(5, case_model, 0, 1, diffuse=True)
    # One more time point (four observed elements) is enough.
    w = weights(5, case_model, 1, 2, diffuse=True)
    assert np.abs(w).max() > 0.01


@pytest.mark.parametrize("name", MODELS)
def test_selection_3_returns_zeros(name):
    case_model = MODELS[name]()
    w = weights(3, case_model, 0, 4)
    assert w.shape == (case_model["sys"].shape[0], N_TIME)
    assert np.all(w == 0.0)


@pytest.mark.parametrize("selection", [2, 4, -1, 6])
def test_invalid_selection(selection):
    case_model = univariate_model()
    with pytest.raises(tessel.ZuError) as err:
        weights(selection, case_model, 0, 4)
    assert str(err.value) == "LgmWeights(): no valid selection in first argument"


def test_failed_filter_reports_unknown_error_even_with_messages_off():
    """All observations missing: the filter fails (cnt < 1). The report is a
    run-time error, not a message, so switching messages off changes
    nothing."""
    case_model = univariate_model()
    mk = np.full((1, N_TIME), np.nan)
    tessel.call("LgmWarning", 0)
    with pytest.raises(tessel.ZuError, match=r"^LgmWeights\(\): unknown error$"):
        tessel.call("LgmWeights", 0, mk, *model_args(case_model))
