"""The oracle's exact diffuse limit against statsmodels' exact diffuse
initialisation and against its own kappa mode."""

import numpy as np
import pytest

import tessel
from models import BSM_SIGMAS, BSM_TABLE, bsm_data, bsm_statsmodels
from oracle import TWO_PI, Oracle, StateSpace


def _local_level():
    rng = np.random.default_rng(5)
    y = np.cumsum(rng.normal(size=60)) * 0.7 + rng.normal(size=60) + 100.0
    y[[0, 10, 11, 40]] = np.nan
    from statsmodels.tsa.statespace.structural import UnobservedComponents
    return (StateSpace([[1.0], [1.0]], np.diag([0.49, 1.0])), y,
            UnobservedComponents(y, level="llevel", use_exact_diffuse=True).smooth([1.0, 0.49]))


def _bsm():
    y = bsm_data()
    S, V, I = tessel.Ref(), tessel.Ref(), tessel.Ref()
    tessel.call("GetLgmStsm", np.array(BSM_TABLE, dtype=float), S, V, I)
    res = bsm_statsmodels(y, exact=True).smooth(np.array(BSM_SIGMAS) ** 2)
    return StateSpace(S.value, V.value, init=I.value), y, res


@pytest.mark.parametrize("make", [_local_level, _bsm], ids=["local_level", "structural"])
def test_exact_limit_equals_statsmodels_exact_diffuse(make):
    """Log-likelihood: ours is statsmodels' plus (d/2) log(2 pi). Both sides
    are exact to rounding on O(1) matrices (measured 1.3e-10 absolute on the
    local level at level 100, 1e-13 on the structural model): 1e-8 relative
    to the largest compared value."""
    model, y, res = make()
    ora = Oracle(model, y[None], diffuse="exact")
    m = model.m
    ll, _, _ = ora.loglik()
    assert ll == pytest.approx(res.llf + 0.5 * ora.d * np.log(TWO_PI), rel=1e-10)
    a, P = ora.smoothed_states()
    np.testing.assert_allclose(a, res.smoothed_state, rtol=0, atol=1e-8 * np.abs(a).max())
    np.testing.assert_allclose(P, res.smoothed_state_cov.transpose(2, 0, 1), rtol=0,
                               atol=1e-8 * np.abs(P).max())
    mean, var, _ = ora.smoothed_disturbances()
    eta = res.smoothed_state_disturbance  # statsmodels: the stochastic states only
    k = eta.shape[0]
    np.testing.assert_allclose(mean[:k], eta, rtol=0, atol=1e-8 * np.abs(eta).max())
    np.testing.assert_allclose(mean[m], res.smoothed_measurement_disturbance[0], rtol=0,
                               atol=1e-8 * np.abs(mean[m]).max())
    np.testing.assert_allclose(var[:, m, m], res.smoothed_measurement_disturbance_cov[0, 0],
                               rtol=0, atol=1e-8 * var[:, m, m].max())
