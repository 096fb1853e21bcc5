"""Shared fixtures of the Python tests.

Every test runs under `host_clean`: afterwards the host must hold no matrix
block and no table (error or not), no injected allocation failure may be left
pending, and the library's messages are switched back on (a later
``LgmWarning()`` with messages off would end the process).
"""

import numpy as np
import pytest

import tessel


@pytest.fixture(autouse=True)
def host_clean():
    yield
    tessel._fail_allocation(0)
    live = tessel._live_allocations()
    tessel.call("LgmWarning", 1)
    assert live == (0, 0), f"host values left live after the test: (blocks, tables) = {live}"


class LocalLevel:
    """Local level model y(t) = alpha(t) + eps(t), alpha(t+1) = alpha(t) + eta(t)
    with a proper initial state alpha(0) ~ N(a0, p0), and its joint Gaussian
    moments written out directly (no recursion)."""

    def __init__(self, y, var_level=0.5, var_obs=1.3, a0=0.4, p0=2.0):
        self.y = np.asarray(y, dtype=float).reshape(1, -1)
        self.var_level, self.var_obs, self.a0, self.p0 = var_level, var_obs, a0, p0
        self.sys = np.array([[1.0], [1.0]])
        self.var = np.diag([var_level, var_obs])
        self.init = np.array([[p0], [a0]])

    def moments(self):
        """Mean vector and covariance matrix of (y(0), ..., y(n-1))."""
        n = self.y.shape[1]
        t = np.arange(n)
        cov = self.p0 + np.minimum.outer(t, t) * self.var_level + self.var_obs * np.eye(n)
        return np.full(n, self.a0), cov

    def loglik(self):
        """(log-likelihood, mean squared standardised innovation) over the
        observed elements (NaN = missing)."""
        mean, cov = self.moments()
        obs = ~np.isnan(self.y[0])
        r = self.y[0, obs] - mean[obs]
        c = cov[np.ix_(obs, obs)]
        _, logdet = np.linalg.slogdet(c)
        quad = r @ np.linalg.solve(c, r)
        k = obs.sum()
        return -0.5 * (k * np.log(2 * np.pi) + logdet + quad), quad / k

    def innovations(self):
        """One-step prediction errors v(t) and their variances F(t)
        (all observed), by conditioning on the past directly."""
        mean, cov = self.moments()
        y = self.y[0]
        n = y.size
        v, f = np.empty(n), np.empty(n)
        for t in range(n):
            w = np.linalg.solve(cov[:t, :t], cov[:t, t]) if t else np.zeros(0)
            v[t] = y[t] - mean[t] - w @ (y[:t] - mean[:t])
            f[t] = cov[t, t] - w @ cov[:t, t]
        return v, f


@pytest.fixture
def local_level():
    rng = np.random.default_rng(20081)
    return LocalLevel(np.cumsum(rng.normal(size=12)) + rng.normal(size=12))
