"""Joint-Gaussian oracle for linear Gaussian state space models.

Independent of every recursion in the library: it writes all states,
observations and disturbances of a short series as one linear map of
independent Gaussian sources, forms their joint mean and covariance, and
answers every question (likelihood, innovations, predicted / filtered /
smoothed moments, smoothed disturbances, filter and smoother weights) by
conditioning that joint Gaussian on the observed values with dense linear
algebra.

Model conventions (the library's): for t = 0 .. n-1, with the system of time t

    alpha(t+1) = c(t) + T(t) alpha(t) + e_state(t)
    y(t)       = d(t) + Z(t) alpha(t) + e_obs(t)
    (e_state(t), e_obs(t)) ~ N(0, VarMat(t)),   independent over t

SysMat = [T; Z], MeanVec = [c; d]. alpha(0) ~ N(a, P) from InitMat (last row
a, top block P; a negative diagonal element marks a diffuse element, which
gets variance kappa = 9999999.99 * max(1, largest diagonal of VarMat)).
Without InitMat, a = 0 and P = kappa I. Time-varying elements: an index
matrix entry r >= 0 (truncated towards zero) takes TvData[r][t]; VarMat is
written only where marked (no mirroring), so tests that compare against
this oracle must mark both halves of a time-varying covariance.

Precision: diffuse elements enter with variance ~1e7, so quantities that
depend on them lose about log10(kappa * cond) digits in double precision,
here as in the library. Tests state their tolerances with that in mind.

Typical use::

    model = StateSpace(sys, var, init=init)
    ora = Oracle(model, y)                 # y: N x n, NaN = missing
    ll, scale, cnt = ora.loglik()          # the library's convention
    a, P = ora.predicted_states()          # a: m x (n+1), P: (n+1) x m x m
"""

import numpy as np
import scipy.linalg

KAPPA_FACTOR = 9999999.99
TWO_PI = 6.283185307179586


def _mat(x, shape=None):
    if x is None:
        return None
    a = np.array(x, dtype=float)
    if a.size == 0 or (a.shape == (1, 1) and a[0, 0] == 0.0):
        return None  # absent, as the library reads an optional argument
    if shape is not None and a.shape != shape:
        raise ValueError(f"expected shape {shape}, got {a.shape}")
    return a


def _index(x):
    """Index matrix entries truncated towards zero (None when absent)."""
    if x is None:
        return None
    a = np.array(x, dtype=float)
    if a.size == 0 or (a.shape == (1, 1) and a[0, 0] == 0.0):
        return None
    return np.trunc(a).astype(int)


def _factor(S, kappa=None):
    """F with F F' = S for a symmetric positive semi-definite S. Elements
    that are uncorrelated with all others (the diffuse ones) are factored
    exactly as square roots; the rest by an eigendecomposition."""
    S = 0.5 * (S + S.T)
    k = S.shape[0]
    F = np.zeros((k, k))
    lone = np.array([np.all(S[i, np.arange(k) != i] == 0.0) for i in range(k)], dtype=bool)
    for i in np.nonzero(lone)[0]:
        F[i, i] = np.sqrt(max(S[i, i], 0.0))
    rest = np.nonzero(~lone)[0]
    if rest.size:
        w, U = np.linalg.eigh(S[np.ix_(rest, rest)])
        if w.min() < -1e-12 * max(1.0, np.abs(w).max()):
            return None  # indefinite: no real factor
        F[np.ix_(rest, rest)] = U * np.sqrt(np.clip(w, 0.0, None))
    return F


def _qr(At):
    """Economic QR of A' (sources x given) with R's diagonal made positive."""
    Q, R = np.linalg.qr(At, mode="reduced")
    signs = np.where(np.diag(R) < 0, -1.0, 1.0)
    return Q * signs, R * signs[:, None]


class StateSpace:
    """A model block: SysMat, VarMat and the optional parts, as numpy arrays."""

    def __init__(self, sys, var, init=None, mean=None, sysidx=None, varidx=None,
                 meanidx=None, tvdata=None):
        self.sys = np.array(sys, dtype=float)
        self.m = self.sys.shape[1]
        self.N = self.sys.shape[0] - self.m
        p = self.m + self.N
        self.var = np.array(var, dtype=float).reshape(p, p)
        self.init = _mat(init, (self.m + 1, self.m))
        self.mean = _mat(mean, (p, 1))
        self.sysidx = _index(sysidx)
        self.varidx = _index(varidx)
        self.meanidx = _index(meanidx)
        self.tvdata = None if tvdata is None else np.array(tvdata, dtype=float)
        # kappa is fixed from VarMat as passed, before any time-varying write.
        self.kappa = KAPPA_FACTOR * max(1.0, float(np.max(np.diag(self.var))))

    @property
    def p(self):
        return self.m + self.N

    def system(self, t):
        """(T, Z, V, c, d) in force at time t."""
        sys = self.sys.copy()
        var = self.var.copy()
        mean = np.zeros(self.p) if self.mean is None else self.mean[:, 0].copy()
        if self.tvdata is not None:
            for idx, target in ((self.sysidx, sys), (self.varidx, var)):
                if idx is not None:
                    rows, cols = np.nonzero(idx >= 0)
                    target[rows, cols] = self.tvdata[idx[rows, cols], t]
            if self.meanidx is not None:
                rows = np.nonzero(self.meanidx[:, 0] >= 0)[0]
                mean[rows] = self.tvdata[self.meanidx[rows, 0], t]
        m = self.m
        return sys[:m], sys[m:], var, mean[:m], mean[m:]

    def initial(self):
        """(a, P, d): initial mean, variance (diffuse elements at kappa) and
        the number of diffuse elements, built in the library's order."""
        m = self.m
        if self.init is None:
            return np.zeros(m), self.kappa * np.eye(m), m
        a = self.init[m].copy()
        P = np.zeros((m, m))
        d = 0
        for k in range(m):
            if self.init[k, k] < 0:
                P[k, k] = self.kappa
                P[:k, k] = 0.0
                P[k, :k] = 0.0
                d += 1
            else:
                P[k, k] = self.init[k, k]
                P[:k, k] = self.init[k, :k]
                P[k, :k] = self.init[k, :k]
        return a, P, d


class Oracle:
    """Joint Gaussian of all states alpha(0..n), observations y(0..n-1) and
    disturbances e(0..n-1) of a model, conditioned on observed data.

    The layout of the joint vector X: alpha(t) at rows t*m .. (t+1)*m-1 for
    t = 0..n; then y(t) at Y0 + t*N; then e(t) at E0 + t*p."""

    def __init__(self, model, y):
        self.model = model
        y = np.array(y, dtype=float)
        if y.ndim != 2 or y.shape[0] != model.N:
            raise ValueError("y must be N x n")
        self.y = y
        m, N, p = model.m, model.N, model.p
        n = y.shape[1]
        self.n = n
        self.Y0 = (n + 1) * m
        self.E0 = self.Y0 + n * N
        dim = self.E0 + n * p
        nsrc = m + n * p  # alpha(0) - a, then e(0..n-1)

        a0, P0, self.d = model.initial()
        # X = mu + G z with z ~ N(0, I): G = B L where L factors the block
        # diagonal covariance of the sources (alpha(0) - a, e(0), ..., e(n-1)).
        # Conditioning works on G by orthogonal factorisation rather than on
        # the covariance of X, whose diffuse directions (variance ~ kappa)
        # would square the condition number.
        mu = np.zeros(dim)
        B = np.zeros((dim, nsrc))
        L = np.zeros((nsrc, nsrc))
        src_cov = np.zeros((nsrc, nsrc))
        src_cov[:m, :m] = P0
        factors = [_factor(P0)]
        L[:m, :m] = factors[0] if factors[0] is not None else 0.0
        mu[:m] = a0
        B[:m, :m] = np.eye(m)
        self.systems = []
        for t in range(n):
            T, Z, V, c, dd = model.system(t)
            self.systems.append((T, Z, V, c, dd))
            s = m + t * p
            src_cov[s:s + p, s:s + p] = V
            factors.append(_factor(V))
            if factors[-1] is not None:
                L[s:s + p, s:s + p] = factors[-1]
            at = slice(t * m, (t + 1) * m)
            nxt = slice((t + 1) * m, (t + 2) * m)
            yt = slice(self.Y0 + t * N, self.Y0 + (t + 1) * N)
            et = slice(self.E0 + t * p, self.E0 + (t + 1) * p)
            B[et, s:s + p] = np.eye(p)
            mu[nxt] = c + T @ mu[at]
            B[nxt] = T @ B[at]
            B[nxt, s:s + m] += np.eye(m)
            mu[yt] = dd + Z @ mu[at]
            B[yt] = Z @ B[at]
            B[yt, s + m:s + p] += np.eye(N)
        self.mu = mu
        if all(f is not None for f in factors):
            self.G = B @ L
            self.cov = self.G @ self.G.T
        else:
            # An indefinite VarMat (which the filters accept) has no real
            # factor: condition on the covariance itself instead.
            self.G = None
            self.cov = B @ src_cov @ B.T
            self.cov = 0.5 * (self.cov + self.cov.T)
        self.observed = ~np.isnan(y)

    # ------------------------------------------------------------ indexing
    def state_rows(self, t):
        m = self.model.m
        return np.arange(t * m, (t + 1) * m)

    def obs_rows(self, t):
        N = self.model.N
        return np.arange(self.Y0 + t * N, self.Y0 + (t + 1) * N)

    def dist_rows(self, t):
        p = self.model.p
        return np.arange(self.E0 + t * p, self.E0 + (t + 1) * p)

    def observed_rows(self, upto=None):
        """Rows of X (and their (series, time) labels) of the observed
        values at times < upto (all times when upto is None)."""
        n = self.n if upto is None else upto
        rows, labels = [], []
        for t in range(n):
            for i in range(self.model.N):
                if self.observed[i, t]:
                    rows.append(self.Y0 + t * self.model.N + i)
                    labels.append((i, t))
        return np.array(rows, dtype=int), labels

    # --------------------------------------------------------- conditioning
    def condition(self, target, given):
        """Mean and covariance of X[target] given X[given] = observed values,
        and the weight matrix Cov(target, given) Var(given)^-1."""
        target = np.asarray(target, dtype=int)
        given = np.asarray(given, dtype=int)
        if self.G is None:
            return self._condition_cov(target, given)
        Gt = self.G[target]
        if given.size == 0:
            return self.mu[target].copy(), Gt @ Gt.T, np.zeros((target.size, 0))
        Q, R = _qr(self.G[given].T)
        # Cov(t, g) Var(g)^-1 = Gt A' (A A')^-1 = Gt Q R^-T with A' = Q R.
        W = scipy.linalg.solve_triangular(R, (Gt @ Q).T).T
        r = self._values(given) - self.mu[given]
        mean = self.mu[target] + W @ r
        H = Gt - (Gt @ Q) @ Q.T  # the part of X[target] independent of X[given]
        return mean, H @ H.T, W

    def _condition_cov(self, target, given):
        Stt = self.cov[np.ix_(target, target)]
        if given.size == 0:
            return self.mu[target].copy(), Stt.copy(), np.zeros((target.size, 0))
        Sgg = self.cov[np.ix_(given, given)]
        Stg = self.cov[np.ix_(target, given)]
        W = np.linalg.solve(Sgg, Stg.T).T
        mean = self.mu[target] + W @ (self._values(given) - self.mu[given])
        cov = Stt - W @ Stg.T
        return mean, 0.5 * (cov + cov.T), W

    def _loglik_parts(self):
        """(log det Var(y_obs), quadratic form, observed count)."""
        rows, _ = self.observed_rows()
        if self.G is None:
            S = self.cov[np.ix_(rows, rows)]
            r = self._values(rows) - self.mu[rows]
            return np.linalg.slogdet(S)[1], float(r @ np.linalg.solve(S, r)), rows.size
        _, R = _qr(self.G[rows].T)
        r = self._values(rows) - self.mu[rows]
        u = scipy.linalg.solve_triangular(R, r, trans="T")
        return 2.0 * float(np.sum(np.log(np.abs(np.diag(R))))), float(u @ u), rows.size

    def _values(self, rows):
        flat = np.empty(self.n * self.model.N)
        flat[:] = self.y.T.reshape(-1)
        return flat[np.asarray(rows) - self.Y0]

    # ----------------------------------------------------------- likelihood
    def loglik(self):
        """(log-likelihood, scale, cnt) in the library's convention:
        cnt = observed elements - d, the d log(kappa) term removed from the
        log-determinant, scale = (y - mu)' Var^-1 (y - mu) / cnt."""
        if not self.observed.any():
            return float("nan"), float("nan"), -self.d
        logdet, quad, nobs = self._loglik_parts()
        cnt = nobs - self.d
        logdet -= self.d * np.log(self.model.kappa)
        ll = -0.5 * (cnt * np.log(TWO_PI) + logdet + quad)
        return ll, quad / cnt, cnt

    def loglik_concentrated(self):
        """(log-likelihood with the scale concentrated out, sigma2)."""
        logdet, quad, nobs = self._loglik_parts()
        cnt = nobs - self.d
        logdet -= self.d * np.log(self.model.kappa)
        scale = quad / cnt
        return -0.5 * (cnt * np.log(TWO_PI) + logdet + cnt * (np.log(scale) + 1.0)), scale

    # ------------------------------------------------------- one-step ahead
    def innovations(self):
        """v (N x n), F (n x N x N), M (n x m x N) with M = Cov(alpha(t+1),
        y(t) | y before t), and the gains K (n x m x N) = M F^-1 over the
        observed elements of y(t) (zero columns for missing ones). v and F
        are given for every element, observed or not."""
        m, N, n = self.model.m, self.model.N, self.n
        v = np.full((N, n), np.nan)
        F = np.zeros((n, N, N))
        M = np.zeros((n, m, N))
        K = np.zeros((n, m, N))
        for t in range(n):
            given, _ = self.observed_rows(t)
            target = np.concatenate([self.obs_rows(t), self.state_rows(t + 1)])
            mean, cov, _ = self.condition(target, given)
            F[t] = cov[:N, :N]
            M[t] = cov[N:, :N]
            obs = self.observed[:, t]
            v[obs, t] = self.y[obs, t] - mean[:N][obs]
            if obs.any():
                Fo = F[t][np.ix_(obs, obs)]
                K[t][:, obs] = M[t][:, obs] @ np.linalg.inv(Fo)
        return v, F, M, K

    # -------------------------------------------------------------- states
    def _states(self, times, upto):
        m = self.model.m
        a = np.zeros((m, len(times)))
        P = np.zeros((len(times), m, m))
        for k, t in enumerate(times):
            given, _ = self.observed_rows(upto(t))
            a[:, k], P[k], _ = self.condition(self.state_rows(t), given)
        return a, P

    def predicted_states(self):
        """a(t) = E[alpha(t) | y before t], P(t), for t = 0..n (m x (n+1),
        (n+1) x m x m)."""
        return self._states(range(self.n + 1), lambda t: t)

    def filtered_states(self):
        """E[alpha(t) | y up to t] and its variance, t = 0..n-1."""
        return self._states(range(self.n), lambda t: t + 1)

    def smoothed_states(self):
        """E[alpha(t) | all y] and its variance, t = 0..n-1."""
        return self._states(range(self.n), lambda t: None)

    # ------------------------------------------------------------- signals
    def signals(self, kind="smoothed", intercept=False):
        """Z(t) alpha(t) (+ d(t) when intercept) for t = 0..n-1 given y before
        t ("predicted"), up to t ("filtered") or all ("smoothed"): mean N x n
        and variance n x N x N."""
        upto = {"predicted": lambda t: t, "filtered": lambda t: t + 1,
                "smoothed": lambda t: None}[kind]
        N = self.model.N
        mean = np.zeros((N, self.n))
        var = np.zeros((self.n, N, N))
        for t in range(self.n):
            T, Z, V, c, d = self.systems[t]
            given, _ = self.observed_rows(upto(t))
            a, P, _ = self.condition(self.state_rows(t), given)
            mean[:, t] = Z @ a + (d if intercept else 0.0)
            var[t] = Z @ P @ Z.T
        return mean, var

    # -------------------------------------------------------- disturbances
    def smoothed_disturbances(self):
        """E[e(t) | all y] ((m+N) x n), Var(e(t) | all y) (n x p x p), and the
        variance reduction VarMat(t) - Var(e(t) | all y) (n x p x p)."""
        p = self.model.p
        given, _ = self.observed_rows()
        mean = np.zeros((p, self.n))
        var = np.zeros((self.n, p, p))
        red = np.zeros((self.n, p, p))
        for t in range(self.n):
            mean[:, t], var[t], _ = self.condition(self.dist_rows(t), given)
            red[t] = self.systems[t][2] - var[t]
        return mean, var, red

    # -------------------------------------------------------------- weights
    def weights(self, t_star, series, kind):
        """Weights of y[series][j] (j = 0..n-1) on the state at t_star given y
        before t_star ("predicted"), up to t_star ("filtered") or all
        ("smoothed"): an m x n matrix whose column j is the column of
        Cov(alpha, y_used) Var(y_used)^-1 that belongs to y[series][j] (0
        where y[series][j] is not in the conditioning set)."""
        upto = {"predicted": t_star, "filtered": t_star + 1, "smoothed": None}[kind]
        given, labels = self.observed_rows(upto)
        _, _, W = self.condition(self.state_rows(t_star), given)
        out = np.zeros((self.model.m, self.n))
        for col, (i, j) in enumerate(labels):
            if i == series:
                out[:, j] = W[:, col]
        return out


def simulate(model, n, rng, init_mean=None, init_var=None):
    """Draws states (m x (n+1)) and observations (N x n) from the model with
    alpha(0) ~ N(init_mean, init_var) (defaults: the InitMat mean and a unit
    variance for diffuse elements)."""
    m, N, p = model.m, model.N, model.p
    a0, P0, _ = model.initial()
    if init_mean is not None:
        a0 = np.asarray(init_mean, dtype=float)
    if init_var is None:
        P0 = np.where(P0 == model.kappa, 1.0, P0)
    else:
        P0 = np.asarray(init_var, dtype=float)
    alpha = np.zeros((m, n + 1))
    y = np.zeros((N, n))
    alpha[:, 0] = rng.multivariate_normal(a0, P0) if m else a0
    for t in range(n):
        T, Z, V, c, d = model.system(t)
        e = rng.multivariate_normal(np.zeros(p), V, method="eigh")
        y[:, t] = d + Z @ alpha[:, t] + e[m:]
        alpha[:, t + 1] = c + T @ alpha[:, t] + e[:m]
    return alpha, y
