"""Test models and helpers shared by the Python tests: a model block as the
library receives it (with the oracle's reading of the same block), the
basic structural model used against statsmodels, the model equations
stepped in numpy, and comparison helpers."""

import numpy as np

import tessel
from oracle import Oracle, StateSpace

NAN = np.nan
EMPTY = tessel.EMPTY
OPTIONAL = ("init", "mean", "sysidx", "varidx", "meanidx", "tvdata")


class Block:
    """SysMat, VarMat and the optional parts of a model (None = absent),
    the data y (N x n, NaN = missing) and any extra attributes (tol, ...)."""

    def __init__(self, sys, var, y=None, init=None, mean=None, sysidx=None, varidx=None,
                 meanidx=None, tvdata=None, **extra):
        self.sys = np.asarray(sys, dtype=float)
        self.var = np.asarray(var, dtype=float)
        self.y = None if y is None else np.asarray(y, dtype=float)
        for name, x in zip(OPTIONAL, (init, mean, sysidx, varidx, meanidx, tvdata)):
            setattr(self, name, None if x is None else np.asarray(x, dtype=float))
        self.__dict__.update(extra)
        self.model = StateSpace(self.sys, self.var, **{k: getattr(self, k) for k in OPTIONAL})
        self.m, self.N, self.p = self.model.m, self.model.N, self.model.p

    @property
    def diffuse(self):
        return self.init is None or bool(np.any(np.diag(self.init[:self.m]) < 0))

    def args(self):
        """The model arguments after the data argument; trailing absent
        parts left out, absent parts before a present one passed empty."""
        opt = [getattr(self, k) for k in OPTIONAL]
        while opt and opt[-1] is None:
            opt.pop()
        return [self.sys, self.var] + [EMPTY if x is None else x for x in opt]

    def replace(self, **kw):
        parts = dict(self.__dict__)
        for k in ("model", "m", "N", "p"):
            parts.pop(k)
        parts.update(kw)
        return Block(**parts)

    def oracle(self, y=None):
        return Oracle(self.model, self.y if y is None else y)


def call_refs(name, *args, refs=3):
    """(return value, values of `refs` references appended to the arguments)."""
    out = [tessel.Ref() for _ in range(refs)]
    ret = tessel.call(name, *args, *out)
    return ret, [r.value for r in out]


def lgm_lik(y, *args):
    """(return code, log-likelihood, scale) of LgmLik."""
    ll, s2 = tessel.Ref(), tessel.Ref()
    ok = tessel.call("LgmLik", ll, s2, y, *args)
    return ok, ll.value, s2.value


def assert_close(actual, expected, tol, what=""):
    """|actual - expected| <= tol * max(1, max |expected|), NaN where expected is NaN."""
    actual = np.asarray(actual, dtype=float)
    expected = np.asarray(expected, dtype=float)
    assert actual.shape == expected.shape, f"{what}: shape {actual.shape} != {expected.shape}"
    assert np.array_equal(np.isnan(actual), np.isnan(expected)), f"{what}: NaN pattern differs"
    if not actual.size:
        return
    scale = max(1.0, float(np.nanmax(np.abs(expected)))) if np.isfinite(expected).any() else 1.0
    err = float(np.nanmax(np.abs(actual - expected))) if np.isfinite(expected).any() else 0.0
    assert err <= tol * scale, f"{what}: max error {err:.3e} > {tol:.1e} x {scale:.3g}"


def diag_rows(a):
    """(n, k, k) -> k x n matrix of the diagonals."""
    return np.einsum("tii->it", a)


def unpack_store(store, N, m):
    """(v N x n, K n x m x N, Finv n x N x N) from a filter store: rows 0..N-1
    the innovations, then per series i its m gains and rows 0..i of column i
    of F^-1."""
    n = store.shape[1]
    K = np.zeros((n, m, N))
    Finv = np.zeros((n, N, N))
    for i in range(N):
        start = N + i * m + i * (i + 1) // 2
        K[:, :, i] = store[start:start + m].T
        col = store[start + m:start + m + i + 1].T
        Finv[:, :i + 1, i] = col
        Finv[:, i, :i + 1] = col
    return store[:N], K, Finv


def recursion_reference(model, u, s0):
    """LgmRecursion's output from the model equations (systems of each time
    point read by the oracle's StateSpace): column 0 holds s0 over zeros,
    column t+1 holds alpha(t+1) over y(t)."""
    m, N = model.m, model.N
    out = np.zeros((m + N, u.shape[1]))
    out[:m, 0] = s0
    alpha = np.array(s0, dtype=float)
    for t in range(u.shape[1] - 1):
        T, Z, _, c, d = model.system(t)
        out[m:, t + 1] = d + Z @ alpha + u[m:, t + 1]
        alpha = c + T @ alpha + u[:m, t + 1]
        out[:m, t + 1] = alpha
    return out


# ------------------------------------------------ basic structural model

BSM_SIGMAS = (1.0, 0.5, 0.1, 0.3)  # irregular, level, slope, seasonal
BSM_TABLE = [[0, 0.5, 0], [1, 0.1, 0], [3, 0.3, 12], [19, 1.0, 0]]


def simulate_bsm(rng, n, s_irr, s_lev, s_slo, s_sea, period=12):
    """Level (from 10), slope (from 0.2), dummy seasonal and irregular,
    simulated straight from their defining equations."""
    mu, beta = 10.0, 0.2
    gam = list(rng.normal(size=period - 1))
    y = np.empty(n)
    for t in range(n):
        y[t] = mu + gam[0] + s_irr * rng.normal()
        mu, beta = mu + beta + s_lev * rng.normal(), beta + s_slo * rng.normal()
        gam = [-sum(gam) + s_sea * rng.normal()] + gam[:-1]
    return y


def bsm_data():
    """144 monthly points (seed 5) with gaps after the diffuse steps."""
    y = simulate_bsm(np.random.default_rng(5), 144, *BSM_SIGMAS)
    y[[40, 41, 97]] = np.nan
    return y


def bsm_statsmodels(y, exact):
    """statsmodels' UnobservedComponents of the same model (same state order)."""
    from statsmodels.tsa.statespace.structural import UnobservedComponents
    return UnobservedComponents(y, level=True, trend=True, seasonal=12, irregular=True,
                                stochastic_level=True, stochastic_trend=True,
                                stochastic_seasonal=True, use_exact_diffuse=exact)
