"""Maximising a log-likelihood over a box of parameters, and judging the
point reached: the optimiser (a projected BFGS), Newton steps while the
point is not a maximum, the verdict, and the covariance of the estimates.
Here rather than scipy's L-BFGS-B so that a fit does not load
scipy.optimize."""

import math

import numpy as np

class _Optimum:
    __slots__ = ("x", "f", "success", "message", "nit")

    def __init__(self, x, f, success, message, nit):
        self.x, self.f, self.success, self.message, self.nit = x, f, success, message, nit


def minimize_bounded(fg, x0, lo, hi, maxiter=500, ftol=1e-9, gtol=1e-7, callback=None):
    """Minimise f over the box lo <= x <= hi by projected BFGS: the
    quasi-Newton direction over the variables not held at a bound (a
    variable at a bound whose gradient points out of the box is held), a
    backtracking (Armijo) search along the path projected onto the box,
    and the BFGS update of the inverse Hessian when the curvature is
    positive. ``fg(x)`` returns (f, gradient). Stops when the projected
    gradient is below gtol, when three steps in a row reduce f by less than
    ftol * max(|f|, 1), after maxiter iterations, or when the search finds
    no decrease."""
    x = np.clip(np.asarray(x0, dtype=float), lo, hi)
    f, g = fg(x)
    n = x.size
    H = np.eye(n) / max(1.0, float(np.max(np.abs(g))) if n else 1.0)
    scaled, small = False, 0
    for it in range(1, maxiter + 1):
        held = ((x <= lo) & (g > 0)) | ((x >= hi) & (g < 0))
        pg = np.where(held, 0.0, g)
        if not n or float(np.max(np.abs(pg))) <= gtol:
            return _Optimum(x, f, True, "projected gradient below gtol", it - 1)
        free = ~held
        d = np.zeros(n)
        d[free] = -H[np.ix_(free, free)] @ g[free]
        slope = float(g @ d)
        if not slope < 0:
            H = np.eye(n) / max(1.0, float(np.max(np.abs(pg))))
            d = -H @ pg
            slope = float(g @ d)
        t = min(1.0, 5.0 / max(float(np.max(np.abs(d))), 1e-300))
        for _ in range(40):
            xn = np.clip(x + t * d, lo, hi)
            fn, gn = fg(xn)
            if fn <= f + 1e-4 * float(g @ (xn - x)) and math.isfinite(fn):
                break
            # quadratic interpolation, kept within [0.1, 0.5] of the step
            denom = 2.0 * (fn - f - t * slope) if math.isfinite(fn) else 0.0
            t = min(max(-slope * t * t / denom if denom > 0 else 0.1 * t, 0.1 * t), 0.5 * t)
        else:
            return _Optimum(x, f, False, "the line search found no decrease", it - 1)
        s, yv = xn - x, gn - g
        sy = float(s @ yv)
        if sy > 1e-12 * float(np.linalg.norm(s) * np.linalg.norm(yv)):
            if not scaled:
                H = np.eye(n) * (sy / float(yv @ yv))
                scaled = True
            rho = 1.0 / sy
            Hy = H @ yv
            H += (rho + rho * rho * float(yv @ Hy)) * np.outer(s, s) - \
                rho * (np.outer(Hy, s) + np.outer(s, Hy))
        small = small + 1 if f - fn <= ftol * max(abs(fn), 1.0) else 0
        x, f, g = xn, fn, gn
        if callback is not None:
            callback(x)
        if small == 3:
            return _Optimum(x, f, True, "relative reduction of f below ftol three times", it)
    return _Optimum(x, f, False, "iteration limit reached", maxiter)


def judge(lik, theta, ll, g, H, bounds):
    """Convergence by the point reached, not the optimiser's message:
    (converged, at_bound mask, expected improvement, largest gradient).

    A parameter within ``lik.params[j].near`` of a bound (0.5 in theta; 1e-3
    for a cycle's log period) is held there, and counts as free where its
    gradient points inside. Where the Hessian of the others is negative
    definite, the expected improvement of a Newton step g' (-H)^-1 g / 2
    must be below 1e-4 (log-likelihood units, which do not depend on the
    units of the data) and the largest gradient below 0.1 sqrt(nobs);
    otherwise (a flat direction) the largest gradient below 1e-3
    sqrt(nobs)."""
    k = theta.size
    at_bound = np.zeros(k, dtype=bool)
    viol = np.abs(g).astype(float)
    for j, (lo, hi) in enumerate(bounds):
        near = lik.params[j].near
        if lo is not None and theta[j] <= lo + near:
            at_bound[j] = True
            viol[j] = max(g[j], 0.0)
        elif hi is not None and theta[j] >= hi - near:
            at_bound[j] = True
            viol[j] = max(-g[j], 0.0)
    free = ~at_bound
    gmax = float(np.max(viol)) if k else 0.0
    gain = math.nan
    if free.any():
        sub = -H[np.ix_(free, free)]
        try:
            L = np.linalg.cholesky(sub)
            z = np.linalg.solve(L, g[free])
            gain = 0.5 * float(z @ z)
        except np.linalg.LinAlgError:
            pass
    if math.isfinite(gain):
        ok = gain < 1e-4 and gmax < 1e-1 * max(1.0, math.sqrt(lik.nobs))
    else:
        ok = gmax < 1e-3 * max(1.0, math.sqrt(lik.nobs))
    return ok, at_bound, (gain if free.any() else 0.0), gmax


def polish(lik, theta, lo, hi, bounds, steps=6):
    """Newton steps from where the optimiser stopped, while the point is
    not judged a maximum: the step -H^-1 g over the parameters not at a
    bound, halved until the log-likelihood rises. Returns (theta, loglik,
    gradient, Hessian, judgement, Newton steps taken)."""
    for step in range(steps + 1):
        ll, g, H = lik.derivatives(theta)
        verdict = judge(lik, theta, ll, g, H, bounds)
        if verdict[0] or step == steps:
            break
        free = ~verdict[1]
        try:
            d = np.zeros(theta.size)
            d[free] = np.linalg.solve(-H[np.ix_(free, free)], g[free])
        except np.linalg.LinAlgError:
            break
        t = 1.0
        while t > 1e-3:
            cand = np.clip(theta + t * d, lo, hi)
            if lik.loglik(cand) > ll:
                theta = cand
                break
            t /= 2
        else:
            break
    return theta, ll, g, H, verdict, step


def covariance(H, at_bound):
    """Covariance of theta from the Hessian: the inverse of -H over the
    parameters not at a bound; where -H is not positive definite there
    (flat directions), the parameters that load on a non-positive
    direction get none, the others the generalised inverse."""
    k = H.shape[0]
    cov = np.full((k, k), np.nan)
    free = np.flatnonzero(~at_bound)
    if free.size == 0:
        return cov
    sub = -H[np.ix_(free, free)]
    lam, V = np.linalg.eigh(sub)
    good = lam > 1e-10 * max(float(np.max(np.abs(lam))), 1e-300)
    inv = (V[:, good] / lam[good]) @ V[:, good].T
    flat = np.any(np.abs(V[:, ~good]) > 1e-3, axis=1) if (~good).any() else \
        np.zeros(free.size, dtype=bool)
    c = np.where(np.outer(~flat, ~flat), inv, np.nan)
    cov[np.ix_(free, free)] = c
    return cov
