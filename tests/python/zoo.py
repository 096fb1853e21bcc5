"""The model zoo of the Python tests: model blocks as a program passes them,
with data (N x n, NaN = missing), covering single and multivariate series;
proper, diffuse, partly diffuse and known initial states; d < N, d = N,
d > N; partial and whole gaps; time-varying SysMat, VarMat and MeanVec;
correlated noise; a rank-deficient state noise. Also the helpers that read
what the entry points return."""

import numpy as np
from scipy.linalg import solve_discrete_lyapunov

import tessel
from oracle import Oracle, StateSpace

OPTIONAL = ("init", "mean", "sysidx", "varidx", "meanidx", "tvdata")


class Block(StateSpace):
    """A model block as passed (the oracle's reading of it, the parts as
    given in `parts`) and its data y."""

    def __init__(self, sys, var, y=None, **parts):
        super().__init__(sys, var, **parts)
        self.parts, self.model = parts, self
        self.y = None if y is None else np.asarray(y, dtype=float)
        self.d = int(self.initial()[2].sum())

    def args(self):
        """The model arguments after the data: trailing absent parts left
        out, absent parts before a present one passed empty."""
        opt = [self.parts.get(k) for k in OPTIONAL]
        while opt and opt[-1] is None:
            opt.pop()
        return [self.sys, self.var] + [tessel.EMPTY if x is None else np.asarray(x, float) for x in opt]

    def replace(self, **kw):
        return Block(**{"sys": self.sys, "var": self.var, "y": self.y, **self.parts, **kw})

    def oracle(self, y=None, diffuse="kappa"):
        return Oracle(self, self.y if y is None else y, diffuse)

    @property
    def whole_gaps(self):  # time points with every series missing
        return np.nonzero(np.isnan(self.y).all(axis=0))[0]


def _data(seed, N, n, missing=(), shift=0.0):
    """Random walks plus noise, with NaN at the (series, time) pairs given
    (a bare time index: every series)."""
    rng = np.random.default_rng(seed)
    y = np.cumsum(rng.normal(size=(N, n)), axis=1) * 0.5 + rng.normal(size=(N, n)) + shift
    for k in missing:
        y[(slice(None), k) if np.isscalar(k) else k] = np.nan
    return y


def _tv(N, n, seed, state_mean=True):
    """Time-varying parts of an m = 2 model: T[0][0], Z[0][0] (index 1.7,
    truncated), observation variance 0 and its covariance with the last
    series (both halves), state intercept 0, last observation intercept."""
    p = 2 + N
    rng = np.random.default_rng(seed)
    sysidx, varidx, meanidx = -np.ones((p, 2)), -np.ones((p, p)), -np.ones((p, 1))
    sysidx[0, 0], sysidx[2, 0], varidx[2, 2], meanidx[p - 1, 0] = 0, 1.7, 2, 5
    if state_mean:
        meanidx[0, 0] = 4
    if N > 1:
        varidx[2, p - 1] = varidx[p - 1, 2] = 3
    tv = np.vstack([0.6 + 0.3 * rng.uniform(size=n), 1.0 + 0.5 * rng.uniform(size=n),
                    0.8 + rng.uniform(size=n), 0.2 * rng.uniform(-1, 1, size=n),
                    0.1 * rng.normal(size=n), 2.0 + rng.normal(size=n)])
    return dict(sysidx=sysidx, varidx=varidx, meanidx=meanidx, tvdata=tv)


def level_proper():
    """Local level, proper alpha(0) ~ N(0.4, 2), complete data."""
    rng = np.random.default_rng(20081)
    y = (np.cumsum(rng.normal(size=12)) + rng.normal(size=12)).reshape(1, -1)
    return Block([[1.0], [1.0]], np.diag([0.5, 1.3]), y, init=[[2.0], [0.4]])


def trend_diffuse():
    """Local linear trend without InitMat: d = 2 > N = 1; gaps."""
    return Block([[1, 1], [0, 1], [1, 0]], np.diag([0.6, 0.05, 1.4]), _data(1, 1, 14, [2, 7, 8]))


def arma_proper():
    """ARMA(2,1): rank-one state noise, stationary initial variance,
    observation noise correlated with the state noise, MeanVec, a gap."""
    T, R = np.array([[0.5, 1.0], [-0.3, 0.0]]), np.array([[1.0], [0.4]])
    var = np.zeros((3, 3))
    var[:2, :2], var[2, 2] = 0.8 * R @ R.T, 0.3
    var[:2, 2] = var[2, :2] = 0.1 * R[:, 0]
    P = solve_discrete_lyapunov(T, var[:2, :2])
    return Block(np.vstack([T, [[1.0, 0.0]]]), var, _data(2, 1, 12, [5], shift=1.5),
                 init=np.vstack([P, [[0.2, -0.1]]]), mean=[[0.05], [0.0], [1.5]])


def known_level():
    """Level known exactly (zero initial variance, not diffuse) next to a
    stationary AR(1); complete data."""
    return Block([[1.0, 0.0], [0.0, 0.6], [1.0, 1.0]], np.diag([0.3, 0.5, 0.8]),
                 _data(3, 1, 11, shift=2.0), init=[[0.0, 0.0], [0.0, 0.5 / 0.64], [2.0, 0.0]])


def univ_tv():
    """Time-varying SysMat, VarMat and MeanVec (state and observation), one
    diffuse and one proper element, gaps."""
    return Block([[0.7, 0.1], [0, 1], [1, 0.3]], np.diag([2.0, 0.1, 1.0]),
                 _data(6, 1, 12, [4, 5], shift=2.0), init=[[-1.0, 0.0], [0.3, 0.9], [0.0, 1.0]],
                 **_tv(1, 12, 6))


def multi_partly_diffuse():
    """N = 2: common diffuse level (d = 1 < N) and a stationary AR(1),
    correlated observation noise; gaps partial and whole."""
    var = np.zeros((4, 4))
    var[0, 0], var[1, 1], var[2:, 2:] = 0.3, 0.5, [[1.0, 0.4], [0.4, 0.8]]
    return Block([[1, 0], [0, 0.7], [1, 1], [0.5, -1]], var,
                 _data(3, 2, 13, [(0, 2), 6, (1, 9)]), init=[[-1, 0], [0, 0.5 / 0.51], [0, 0.3]])


def multi3_proper():
    """N = 3, m = 2: proper correlated alpha(0), MeanVec, noise correlated
    across every element; gaps partial and whole."""
    L = np.array([[0.7, 0, 0, 0, 0], [0.2, 0.5, 0, 0, 0], [0.1, 0, 0.9, 0, 0],
                  [0, 0.1, 0.2, 0.6, 0], [0.05, 0, 0.1, 0.3, 0.8]])
    return Block([[0.8, 0.2], [-0.1, 0.5], [1.0, 0.0], [0.3, 1.0], [-0.5, 0.7]], L @ L.T,
                 _data(4, 3, 11, [(2, 1), (0, 7), (1, 7), 4], shift=1.0),
                 init=[[1.5, 7.0], [0.4, 0.9], [0.3, -0.2]],  # 7.0 above the diagonal: never read
                 mean=[[0.1], [-0.05], [1.0], [2.0], [-1.0]])


def multi_diffuse_tv():
    """N = 2, m = 2 without InitMat (d = N), time-varying SysMat, VarMat
    (both halves) and observation intercept; partial gaps."""
    var = np.diag([0.4, 0.1, 1.0, 0.7])
    var[2, 3] = var[3, 2] = 0.25
    return Block([[0.7, 0.1], [0, 1], [1, 0.3], [0.2, 1]], var, _data(5, 2, 12, [(1, 3), (0, 8)]),
                 mean=[[0.0], [0.0], [0.5], [0.0]], **_tv(2, 12, 5, state_mean=False))


def multi_trend():
    """N = 2, m = 3, all diffuse (d = 3 > N): a trend and a second level;
    a whole gap after the diffuse steps."""
    return Block([[1, 1, 0], [0, 1, 0], [0, 0, 1], [1, 0, 0], [1, 0, 1]],
                 np.diag([0.3, 0.02, 0.2, 1.0, 0.6]), _data(7, 2, 12, [(1, 0), 5]))


def multi_correlated():
    """N = 2, m = 3: disturbances correlated across all blocks, proper
    alpha(0), MeanVec; single elements missing."""
    var = [[0.6, 0.1, 0.0, 0.05, 0.0], [0.1, 0.4, 0.0, 0.0, 0.1], [0.0, 0.0, 0.3, 0.0, 0.0],
           [0.05, 0.0, 0.0, 0.8, 0.2], [0.0, 0.1, 0.0, 0.2, 1.1]]
    return Block([[0.7, 0.2, 0.0], [0.0, 0.5, 0.3], [0.1, 0.0, 0.4], [1.0, 0.0, 0.5], [0.3, 1.0, 0.0]],
                 var, _data(8, 2, 10, [(0, 2), (1, 6)]),
                 init=[[1.2, 0.0, 0.0], [0.3, 0.9, 0.0], [0.0, 0.1, 0.7], [0.5, -0.3, 0.2]],
                 mean=[[0.1], [-0.2], [0.0], [1.0], [0.4]])


def multi_diffuse_late():
    """N = 2, m = 3: level and slope diffuse next to a stationary AR(1);
    y_0 resolves the level, which leaves y_1 (0.7 level - AR) an ordinary
    element while the slope is still diffuse (rounding leaves its F_inf
    just above 0); series 0 missing at t = 1."""
    var = np.diag([0.3, 0.05, 0.5, 0.4, 0.7])
    var[3, 4] = var[4, 3] = 0.1
    case = Block([[1, 1, 0], [0, 1, 0], [0, 0, 0.6], [1, 0, 1], [0.7, 0, -1]], var,
                 _data(9, 2, 12, [(0, 1)]), init=[[-1, 0, 0], [0, -1, 0], [0, 0, 0.5 / 0.64], [0, 0, 0]])
    case.tol = "kappa multi"  # one diffuse direction met by two series at t = 0
    return case


def bsm():
    """Basic structural model (level, slope, dummy seasonal of period 12,
    irregular): 13 diffuse elements, zero-variance states, 40 monthly points."""
    T = np.zeros((13, 13))
    T[0, :2], T[1, 1], T[2, 2:] = 1.0, 1.0, -1.0
    T[np.arange(3, 13), np.arange(2, 12)] = 1.0
    Z = np.zeros((1, 13))
    Z[0, [0, 2]] = 1.0
    var = np.diag(np.r_[np.array(BSM_SIGMAS[1:]) ** 2, np.zeros(10), BSM_SIGMAS[0] ** 2])
    return Block(np.vstack([T, Z]), var, bsm_data(40)[None], init=np.vstack([-np.eye(13), np.zeros(13)]))


ZOO = {f.__name__: f for f in (level_proper, trend_diffuse, arma_proper, known_level, univ_tv,
                               multi_partly_diffuse, multi3_proper, multi_diffuse_tv, multi_trend,
                               multi_correlated, multi_diffuse_late, bsm)}


# ------------------------------------------------------------------ helpers

def exact_model(case):
    """The case as a tessel.Model (InitMat's variance read from its lower
    triangle and index entries truncated, as the library reads them)."""
    parts = {k: np.trunc(v) if k.endswith("idx") else np.asarray(v, float)
             for k, v in case.parts.items() if v is not None}
    if "init" in parts:
        P = np.tril(parts["init"][:case.m])
        parts["init"] = np.vstack([P + np.tril(P, -1).T, parts["init"][case.m:]])
    return tessel.Model(case.sys, case.var, **parts)


def call_refs(name, *args, refs=3):
    """(return value, values of `refs` references appended to the arguments)."""
    out = [tessel.Ref() for _ in range(refs)]
    ret = tessel.call(name, *args, *out)
    return ret, [r.value for r in out]


def assert_close(actual, expected, tol, what=""):
    """|actual - expected| <= tol * max(1, max |expected|); NaN where expected is NaN."""
    actual, expected = np.asarray(actual, dtype=float), np.asarray(expected, dtype=float)
    assert actual.shape == expected.shape, f"{what}: shape {actual.shape} != {expected.shape}"
    assert np.array_equal(np.isnan(actual), np.isnan(expected)), f"{what}: NaN pattern differs"
    if np.isfinite(expected).any():
        scale = max(1.0, float(np.nanmax(np.abs(expected))))
        err = float(np.nanmax(np.abs(actual - expected)))
        assert err <= tol * scale, f"{what}: max error {err:.3e} > {tol:.1e} x {scale:.3g}"


def diag_rows(a):
    """(n, k, k) -> k x n matrix of the diagonals."""
    return np.einsum("tii->it", a)


def unpack_store(store, N, m):
    """(v N x n, K n x m x N, Finv n x N x N) from a filter store."""
    n = store.shape[1]
    K, Finv = np.zeros((n, m, N)), np.zeros((n, N, N))
    for i in range(N):
        start = N + i * m + i * (i + 1) // 2
        K[:, :, i] = store[start:start + m].T
        Finv[:, :i + 1, i] = Finv[:, i, :i + 1] = store[start + m:start + m + i + 1].T
    return store[:N], K, Finv


def recursion_reference(model, u, s0):
    """LgmRecursion's output from the model equations: column 0 holds s0
    over zeros, column t+1 holds alpha(t+1) over y(t)."""
    m = model.m
    out = np.zeros((model.p, u.shape[1]))
    out[:m, 0] = alpha = np.array(s0, dtype=float)
    for t in range(u.shape[1] - 1):
        T, Z, _, c, d = model.system(t)
        out[m:, t + 1] = d + Z @ alpha + u[m:, t + 1]
        out[:m, t + 1] = alpha = c + T @ alpha + u[:m, t + 1]
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


def bsm_data(n=144):
    """Monthly points (seed 5) with gaps after the diffuse steps."""
    y = simulate_bsm(np.random.default_rng(5), n, *BSM_SIGMAS)
    y[[k for k in (15, 28, 40, 41, 97) if k < n]] = np.nan
    return y

