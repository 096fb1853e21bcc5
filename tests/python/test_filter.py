"""Filtering entry points: the documented results that are not conditional
moments (partial sums after a failure, the weights' target search, zero
weights, empty input). The moments themselves are in test_oracle.py."""

import numpy as np
import pytest

import tessel
from oracle import KAPPA_FACTOR
from zoo import ZOO


def test_too_few_observations_leave_partial_sums():
    """Local linear trend without InitMat (d = 2) and one observation y = 2
    with F = kappa + 1 (unit variances): cnt stays 0, LgmLik returns 0 and
    writes -0.5 (log F - 2 log kappa) and the undivided v^2 / F."""
    ll, s2 = tessel.Ref(), tessel.Ref()
    with tessel.capture_messages():
        y = [[2.0, np.nan, np.nan]]
        assert tessel.call("LgmLik", ll, s2, y, ZOO["trend_diffuse"]().sys, np.eye(3)) == 0
    F = KAPPA_FACTOR + 1.0
    assert ll.value == pytest.approx(-0.5 * (np.log(F) - 2 * np.log(KAPPA_FACTOR)), rel=1e-12)
    assert s2.value == pytest.approx(4.0 / F, rel=1e-12)


def test_weights_target_search_and_zero_weights():
    """The marker's first nonzero, non-NaN element (row by row) is the
    target, a -1 included, which is then filtered as missing; an all-zero
    marker targets the last series at the last time. The predicted state at
    t = 0 and selection 3 have zero weights."""
    case = ZOO["multi_correlated"]()
    n = case.y.shape[1]
    ora = case.oracle(np.zeros((2, n)))
    mk = np.zeros((2, n))
    mk[0, 2], mk[1, 6] = -1.0, 1.0
    missing = np.zeros((2, n))
    missing[0, 2] = np.nan
    want = case.oracle(missing).weights(2, 0, "predicted")
    np.testing.assert_allclose(tessel.call("LgmWeights", 0, mk, *case.args())[:3], want, atol=1e-12)
    assert np.abs(want).max() > 0.01
    w = tessel.call("LgmWeights", 1, np.zeros((2, n)), *case.args())
    np.testing.assert_allclose(w[:3], ora.weights(n - 1, 1, "smoothed"), rtol=0, atol=1e-12)
    for sel, t in ((0, 0), (3, 4)):
        mk = np.zeros((2, n))
        mk[0, t] = 1.0
        w = tessel.call("LgmWeights", sel, mk, *case.args())
        assert w.shape == (case.p, n) and np.all(w == 0.0)


def test_kalman_smo_without_time_points_returns_one_zero_column():
    smo = tessel.call("KalmanSmo", np.zeros((3, 0)), [[1.0], [1.0]], np.diag([0.3, 1.0]))
    assert smo.shape == (4, 1) and np.all(smo == 0.0)
