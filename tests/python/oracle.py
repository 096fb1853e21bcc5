"""Joint-Gaussian oracle for linear Gaussian state space models.

Independent of every recursion in the library: all states alpha(0..n),
observations y(0..n-1) and disturbances e(0..n-1) of a short series are
written as one affine map X = mu + G z + D delta of independent proper
sources z ~ N(0, I) and the diffuse initial elements delta, and every
question (likelihood, innovations, predicted / filtered / smoothed moments,
smoothed disturbances, weights) is answered by conditioning on the observed
values with orthogonal factorisations.

Model conventions (the library's): for t = 0 .. n-1, with the system of time t

    alpha(t+1) = c(t) + T(t) alpha(t) + e_state(t)
    y(t)       = d(t) + Z(t) alpha(t) + e_obs(t)
    (e_state(t), e_obs(t)) ~ N(0, VarMat(t)),   independent over t

SysMat = [T; Z], MeanVec = [c; d]. alpha(0) ~ N(a, P) from InitMat (last row
a, top block P read on and left of the diagonal; a negative diagonal element
marks a diffuse element). Without InitMat, a = 0 and every element is
diffuse. Time-varying elements: an index entry r >= 0 (truncated towards
zero) takes TvData[r][t]; VarMat is written only where marked.

Two treatments of the diffuse elements:

- diffuse="kappa" (the entry points'): variance kappa = 9999999.99 *
  max(1, largest VarMat diagonal), covariances with earlier elements
  dropped. Quantities that depend on diffuse elements lose about
  log10(kappa * cond) digits, here as in the library.
- diffuse="exact": the limit kappa -> infinity, computed directly. delta gets
  a flat prior: the observations are split by an SVD of their diffuse
  loading D_o into U1' y (which determines delta) and U2' y (free of it);
  everything is conditioned on U2' y as an ordinary Gaussian, and delta is
  its generalised least squares estimate. Covariances between a diffuse and
  a proper initial element vanish in the limit and are dropped. Moments that
  are infinite (a direction of delta not yet determined) are NaN; their
  means are the limits (the unidentified part of delta at its prior mean 0).
  Everything runs on O(1) matrices: expect agreement to ~1e-13 relative on
  the small models of the tests (condition numbers times eps).

Use: ora = Oracle(StateSpace(sys, var, init=init), y, diffuse) with y N x n
(NaN = missing), then ora.loglik(), ora.predicted_states(), ...
"""

import numpy as np
import scipy.linalg

KAPPA_FACTOR = 9999999.99
TWO_PI = 6.283185307179586
# The data conditioned on for the state at t.
UPTO = {"predicted": lambda t: t, "filtered": lambda t: t + 1, "smoothed": lambda t: None}


def _present(x):
    """The array, or None for an absent optional argument (empty or 0)."""
    a = None if x is None else np.array(x, dtype=float)
    return None if a is None or a.size == 0 or (a.shape == (1, 1) and a[0, 0] == 0.0) else a


def _factor(S):
    """F with F F' = S for a symmetric positive semi-definite S. Elements
    uncorrelated with all others are factored exactly as square roots (so a
    kappa-sized diagonal costs no digits); the rest by an eigendecomposition."""
    S = 0.5 * (S + S.T)
    k = S.shape[0]
    F = np.zeros((k, k))
    lone = np.array([not np.any(np.delete(S[i], i)) for i in range(k)], dtype=bool)
    F[lone, lone] = np.sqrt(np.clip(S[lone, lone], 0.0, None))
    rest = np.nonzero(~lone)[0]
    if rest.size:
        w, U = np.linalg.eigh(S[np.ix_(rest, rest)])
        if w.min() < -1e-12 * max(1.0, np.abs(w).max()):
            raise ValueError("the oracle needs positive semi-definite variances")
        F[np.ix_(rest, rest)] = U * np.sqrt(np.clip(w, 0.0, None))
    return F


class StateSpace:
    """A model block: SysMat, VarMat and the optional parts, as numpy arrays."""

    def __init__(self, sys, var, init=None, mean=None, sysidx=None, varidx=None,
                 meanidx=None, tvdata=None):
        self.sys = np.array(sys, dtype=float)
        self.m, self.p = self.sys.shape[1], self.sys.shape[0]
        self.N = self.p - self.m
        self.var = np.array(var, dtype=float).reshape(self.p, self.p)
        self.init, self.mean = _present(init), _present(mean)
        idx = [_present(x) for x in (sysidx, varidx, meanidx)]
        self.sysidx, self.varidx, self.meanidx = (None if x is None else np.trunc(x).astype(int)
                                                  for x in idx)
        self.tvdata = None if tvdata is None else np.array(tvdata, dtype=float)
        # kappa is fixed from VarMat as passed, before any time-varying write.
        self.kappa = KAPPA_FACTOR * max(1.0, float(np.max(np.diag(self.var))))

    def system(self, t):
        """(T, Z, V, c, d) in force at time t."""
        sys, var = self.sys.copy(), self.var.copy()
        mean = np.zeros(self.p) if self.mean is None else self.mean[:, 0].copy()
        if self.tvdata is not None:
            for idx, target in ((self.sysidx, sys), (self.varidx, var), (self.meanidx, mean[:, None])):
                if idx is not None:
                    rows, cols = np.nonzero(idx >= 0)
                    target[rows, cols] = self.tvdata[idx[rows, cols], t]
        m = self.m
        return sys[:m], sys[m:], var, mean[:m], mean[m:]

    def initial(self, exact=False):
        """(a, P, diffuse flags). Kappa mode, as the library builds it: kappa
        on a diffuse diagonal, its covariances with earlier elements dropped
        (those with later proper elements kept). Exact mode: the proper part,
        every covariance of a diffuse element dropped."""
        m = self.m
        if self.init is None:
            return np.zeros(m), (0.0 if exact else self.kappa) * np.eye(m), np.ones(m, dtype=bool)
        diffuse = np.diag(self.init[:m]) < 0
        P = np.tril(self.init[:m])
        P[diffuse] = 0.0
        if exact:
            P[:, diffuse] = 0.0
        P = P + np.tril(P, -1).T
        P[diffuse, diffuse] = 0.0 if exact else self.kappa
        return self.init[m].copy(), P, diffuse


class Oracle:
    """The joint Gaussian of alpha(0..n), y(0..n-1), e(0..n-1) given the data.

    Layout of X: alpha(t) at rows t*m .. (t+1)*m-1 for t = 0..n; y(t) at
    Y0 + t*N; e(t) at E0 + t*p."""

    def __init__(self, model, y, diffuse="kappa"):
        if diffuse not in ("kappa", "exact"):
            raise ValueError("diffuse must be 'kappa' or 'exact'")
        self.model, self.exact = model, diffuse == "exact"
        self.y = np.array(y, dtype=float).reshape(model.N, -1)
        m, N, p = model.m, model.N, model.p
        self.n = n = self.y.shape[1]
        self.Y0 = (n + 1) * m
        self.E0 = self.Y0 + n * N
        dim = self.E0 + n * p
        a0, P0, flags = model.initial(self.exact)
        self.d = int(flags.sum())
        # X = mu + G z + D delta, built by stepping the model: the sources z
        # are alpha(0)'s proper part (m) and each e(t) (p), each through a
        # factor of its variance; delta are the diffuse elements (exact mode).
        mu, G, D = np.zeros(dim), np.zeros((dim, m + n * p)), np.zeros((dim, m))
        mu[:m], G[:m, :m], D[:m] = a0, _factor(P0), np.eye(m)
        self.systems = []
        for t in range(n):
            T, Z, V, c, dd = model.system(t)
            self.systems.append((T, Z, V, c, dd))
            F, s = _factor(V), slice(m + t * p, m + (t + 1) * p)
            at, nxt = slice(t * m, (t + 1) * m), slice((t + 1) * m, (t + 2) * m)
            yt = slice(self.Y0 + t * N, self.Y0 + (t + 1) * N)
            G[self.E0 + t * p:self.E0 + (t + 1) * p, s] = F
            mu[nxt], G[nxt], D[nxt] = c + T @ mu[at], T @ G[at], T @ D[at]
            mu[yt], G[yt], D[yt] = dd + Z @ mu[at], Z @ G[at], Z @ D[at]
            G[nxt, s] += F[:m]
            G[yt, s] += F[m:]
        self.mu, self.G = mu, G
        self.D = D[:, flags] if self.exact else np.zeros((dim, 0))
        self.observed = ~np.isnan(self.y)
        self._cache = {}

    # ------------------------------------------------------------ indexing
    def state_rows(self, t):
        return np.arange(t * self.model.m, (t + 1) * self.model.m)

    def obs_rows(self, t):
        return self.Y0 + np.arange(t * self.model.N, (t + 1) * self.model.N)

    def dist_rows(self, t):
        return self.E0 + np.arange(t * self.model.p, (t + 1) * self.model.p)

    def observed_rows(self, upto=None):
        """Rows of X of the observed values at times < upto (all when None),
        and their (series, time) labels."""
        n = self.n if upto is None else upto
        labels = [(i, t) for t in range(n) for i in range(self.model.N) if self.observed[i, t]]
        rows = np.array([self.Y0 + t * self.model.N + i for i, t in labels], dtype=int)
        return rows, labels

    def values(self, rows):
        return self.y.T.reshape(-1)[np.asarray(rows) - self.Y0]

    # --------------------------------------------------------- conditioning
    def _factors(self, given):
        """Factorisations for conditioning on X[given], cached: the SVD of the
        diffuse loading D_g = U1 diag(s) Vr' (Vnull spans what the data do not
        determine), so that U1' X[given] pins down delta and U2' X[given] is
        free of it, and the QR factors of the proper loading of U2' X[given]."""
        key = given.tobytes()
        if key not in self._cache:
            U, s, Vt = np.linalg.svd(self.D[given], full_matrices=True)
            r = int(np.sum(s > 1e-10 * max(s.max(initial=0.0), 1.0)))
            U1, U2, s, Vr, Vnull = U[:, :r], U[:, r:], s[:r], Vt[:r].T, Vt[r:].T
            QR = np.linalg.qr((U2.T @ self.G[given]).T) if U2.shape[1] else None
            self._cache[key] = (U1, U2, s, Vr, Vnull, QR)
        return self._cache[key]

    def condition(self, target, given, values=None):
        """Mean and covariance of target @ X (target: rows of X or a matrix)
        given X[given] = values (default: the data), and the weights
        d mean / d values. Infinite covariance entries are NaN."""
        target = np.asarray(target)
        pick = (lambda A: A[target]) if target.ndim == 1 else (lambda A: target @ A)
        given = np.asarray(given, dtype=int)
        res = (self.values(given) if values is None else np.asarray(values)) - self.mu[given]
        Gt, Dt = pick(self.G), pick(self.D)
        U1, U2, s, Vr, Vnull, QR = self._factors(given)
        A = (Dt @ Vr) / s  # delta's loading on the target through U1' X[given]
        Gt = Gt - A @ (U1.T @ self.G[given])
        W = A @ U1.T
        mean = pick(self.mu) + W @ res
        if QR is not None:
            Q, R = QR
            W2 = scipy.linalg.solve_triangular(R, (Gt @ Q).T).T
            mean, W, Gt = mean + W2 @ (U2.T @ res), W + W2 @ U2.T, Gt - (Gt @ Q) @ Q.T
        cov = Gt @ Gt.T
        infinite = np.linalg.norm(Dt @ Vnull, axis=1) > 1e-9 * (1.0 + np.linalg.norm(Dt, axis=1))
        cov[infinite], cov[:, infinite] = np.nan, np.nan
        return mean, cov, W

    def _loglik_parts(self):
        """(log det of Var(y_obs) without the diffuse part, quadratic form,
        observed count); NaN when the diffuse elements are not identified."""
        rows, _ = self.observed_rows()
        _, U2, s, _, Vnull, (_, R) = self._factors(rows)
        if Vnull.shape[1]:
            return np.nan, np.nan, rows.size
        u = scipy.linalg.solve_triangular(R, U2.T @ (self.values(rows) - self.mu[rows]), trans="T")
        logdet = 2.0 * (np.sum(np.log(np.abs(np.diag(R)))) + np.sum(np.log(s)))
        if not self.exact:
            logdet -= self.d * np.log(self.model.kappa)
        return logdet, float(u @ u), rows.size

    # ----------------------------------------------------------- likelihood
    def loglik(self):
        """(log-likelihood, scale, cnt) in the library's convention:
        cnt = observed elements - d, the d log(kappa) term removed from the
        log-determinant (kappa mode), scale = quadratic form / cnt. In the
        exact mode this is the limit: statsmodels' exact diffuse value plus
        (d/2) log(2 pi)."""
        if not self.observed.any():
            return np.nan, np.nan, -self.d
        logdet, quad, nobs = self._loglik_parts()
        cnt = nobs - self.d
        return -0.5 * (cnt * np.log(TWO_PI) + logdet + quad), quad / cnt, cnt

    def loglik_concentrated(self):
        """(log-likelihood with the scale concentrated out, scale)."""
        logdet, quad, nobs = self._loglik_parts()
        cnt = nobs - self.d
        scale = quad / cnt
        return -0.5 * (cnt * np.log(TWO_PI) + logdet + cnt * (np.log(scale) + 1.0)), scale

    # ------------------------------------------------------- one-step ahead
    def innovations(self):
        """v (N x n), F (n x N x N), M (n x m x N) with M = Cov(alpha(t+1),
        y(t) | y before t), and the gains K (n x m x N) = M F^-1 over the
        observed elements of y(t) (zero columns for missing ones). v is NaN
        for missing elements; F, M and K are NaN where F is infinite."""
        m, N, n = self.model.m, self.model.N, self.n
        v, F = np.full((N, n), np.nan), np.zeros((n, N, N))
        M, K = np.zeros((n, m, N)), np.zeros((n, m, N))
        for t in range(n):
            given, _ = self.observed_rows(t)
            mean, cov, _ = self.condition(np.r_[self.obs_rows(t), self.state_rows(t + 1)], given)
            F[t], M[t] = cov[:N, :N], cov[N:, :N]
            o = self.observed[:, t]
            v[o, t] = self.y[o, t] - mean[:N][o]
            finite = o.any() and np.isfinite(F[t]).all()
            K[t][:, o] = np.linalg.solve(F[t][np.ix_(o, o)], M[t][:, o].T).T if finite else np.nan
        return v, F, M, K

    # ------------------------------------------------------ states, signals
    def states(self, kind):
        """E[alpha(t) | y] and its variance given y before t ("predicted",
        t = 0..n), up to t ("filtered") or all ("smoothed", both t < n)."""
        parts = [self.condition(self.state_rows(t), self.observed_rows(UPTO[kind](t))[0])
                 for t in range(self.n + (kind == "predicted"))]
        a, P = (np.array([x[k] for x in parts]) for k in (0, 1))
        return a.T.reshape(self.model.m, -1), P

    def predicted_states(self):
        return self.states("predicted")

    def filtered_states(self):
        return self.states("filtered")

    def smoothed_states(self):
        return self.states("smoothed")

    def signals(self, kind="smoothed", intercept=False):
        """Z(t) alpha(t) (+ d(t) when intercept), t = 0..n-1, given the data
        as for states(kind): mean N x n, variance n x N x N."""
        a, P = self.states(kind)
        mean = [s[1] @ a[:, t] + (s[4] if intercept else 0.0) for t, s in enumerate(self.systems)]
        var = [s[1] @ Pt @ s[1].T for s, Pt in zip(self.systems, P)]
        return np.array(mean).T.reshape(self.model.N, -1), np.array(var)

    # -------------------------------------------------------- disturbances
    def smoothed_disturbances(self):
        """E[e(t) | all y] (p x n), Var(e(t) | all y) (n x p x p), and the
        variance reduction VarMat(t) - Var(e(t) | all y) (n x p x p)."""
        given, _ = self.observed_rows()
        parts = [self.condition(self.dist_rows(t), given) for t in range(self.n)]
        var = np.array([c for _, c, _ in parts])
        return (np.array([mu for mu, _, _ in parts]).T, var,
                np.array([s[2] for s in self.systems]) - var)

    # -------------------------------------------------------------- weights
    def weights(self, t_star, series, kind):
        """Weights of y[series][j] (j = 0..n-1) on the state at t_star given y
        before t_star ("predicted"), up to t_star ("filtered") or all
        ("smoothed"): m x n, zero where y[series][j] is not conditioned on."""
        given, labels = self.observed_rows(UPTO[kind](t_star))
        W, out = self.condition(self.state_rows(t_star), given)[2], np.zeros((self.model.m, self.n))
        cols = [k for k, (i, _) in enumerate(labels) if i == series]
        out[:, [labels[k][1] for k in cols]] = W[:, cols]
        return out

