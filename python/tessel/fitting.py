"""Maximum likelihood fitting.

``tessel.fit(y, [tessel.Level(), tessel.Irregular()])`` estimates every
parameter left as ``None`` in the components (standard deviations, cycle
periods and damping factors, autoregressive coefficients), or the
coefficients and variance of a :class:`tessel.SARIMA`, by maximising the
log-likelihood (:mod:`tessel.optimizer`) from several starting points.

The log-likelihood is a :class:`Likelihood`: the model prepared once (built,
validated, laid out for the library), after which an evaluation writes only
the elements that the parameters change (:mod:`tessel.forms`) and calls the
library's entry point (``LgmLik``, or ``LgmLikSco`` with the gradient)
directly.

Whether the point reached is a maximum is judged afterwards from central
first and second differences of the log-likelihood, which also give the
standard errors.
"""

import math
import sys
import warnings

import numpy as np

from . import components as C
from ._lowlevel import _capture_stack, _tessel
from .forms import _PACF_BOUND, _Sarima, _Structural
from .limits import check_fit
from .model import ModelError
from .optimizer import covariance, minimize_bounded, polish
from .sarima import SARIMA, coef_to_pacf

_tessel_call = _tessel.call
_INF, _NEG_INF = math.inf, -math.inf

__all__ = ["ConvergenceWarning", "Likelihood", "fit"]

#: the backends of the likelihood: the entry points with a large variance
#: for diffuse elements ("approximate"), or the exact diffuse routines
DIFFUSE = ("approximate", "exact")
DEFAULT_DIFFUSE = "approximate"

class ConvergenceWarning(UserWarning):
    """The optimiser did not reach a maximum of the log-likelihood, judged
    by the gradient and the curvature at the point it stopped (see
    :func:`fit`), or an estimate lies on the edge of the admissible region."""


def _number_map(d, what):
    if d is None:
        return {}
    if not isinstance(d, dict):
        raise ModelError(f"fit: {what} must be a dict {{parameter name: value}}, got "
                         f"{type(d).__name__}")
    out = {}
    for k, v in d.items():
        if isinstance(v, (bool, np.bool_)) or not isinstance(v, (int, float, np.integer,
                                                                  np.floating)):
            raise ModelError(f"fit: {what}[{k!r}] must be a number, got {v!r}")
        if not math.isfinite(float(v)):
            raise ModelError(f"fit: {what}[{k!r}] must be finite, got {v!r}")
        out[str(k)] = float(v)
    return out


# ---------------------------------------------------------------- likelihood


class Likelihood:
    """The log-likelihood of one model structure on one series, prepared
    for repeated evaluation.

    ``Likelihood(y, structure, exog=None, fixed=None, cycle_periods=(lo, hi),
    diffuse="approximate")``: ``y`` as for :func:`fit` (one series or several; the
    caller's array is copied), ``structure`` a component list or a
    :class:`tessel.SARIMA`, ``exog`` n x k regressors, ``fixed`` values of
    parameters by name. The model is built and validated once; afterwards
    :meth:`loglik` and :meth:`loglik_grad` write the changed elements into
    the prepared matrices and call the library, nothing else. ``theta`` is
    the vector of free parameters on the optimiser's scale, in the order of
    ``names``. Not thread-safe: one object per thread.
    """

    def __init__(self, y, structure, exog=None, fixed=None, cycle_periods=(2.0, 1e6),
                 diffuse=DEFAULT_DIFFUSE, _data=None):
        from .analysis import _Data
        if diffuse not in DIFFUSE:
            raise ModelError(f"fit: diffuse must be one of {DIFFUSE}, got {diffuse!r}")
        if diffuse == "exact":
            raise ModelError("fit: diffuse='exact' needs the exact diffuse routines, which this "
                             "build does not have yet; use diffuse='approximate'")
        self.diffuse = diffuse
        data = _data if _data is not None else _Data(y, None)
        self.data = data
        fixed = _number_map(fixed, "fixed")
        if data.N > 1 and (isinstance(structure, SARIMA) or exog is not None):
            raise ModelError("fit: several series take a structural model without regressors "
                             "(one series for SARIMA, ARMA or exog)")
        if isinstance(structure, SARIMA):
            self.form = _Sarima(structure, fixed)
        elif data.N > 1:
            from .sutse import Sutse
            self.form = Sutse(C.check_components(structure), data.columns, fixed)
        else:
            self.form = _Structural(C.check_components(structure), data, fixed, cycle_periods)
        self.fixed = {k: v for k, v in fixed.items() if k in self.form.fixed_used}
        unknown = set(fixed) - self.form.fixed_used
        if unknown:
            raise ModelError(f"fit: fixed names no estimated parameter: {sorted(unknown)}; the "
                             f"parameters are {self.form_names()}")
        self.params = self.form.params
        self.names = [p.name for p in self.params]
        self.label = self.form.label
        self.user_exog = exog
        scale, dvar = [], []
        for row in data.values:
            obs = row[~np.isnan(row)]
            scale.append(float(np.std(obs)) or 1.0)
            dv = float(np.var(np.diff(obs))) if obs.size > 2 else 0.0
            dvar.append(dv if dv > 0 else scale[-1] ** 2)
        self.nobs = int(np.sum(~np.isnan(data.values)))
        self.scale, self.dvar = (scale[0], dvar[0]) if data.N == 1 else (np.array(scale),
                                                                       np.array(dvar))
        self.start = self.form.start(self.scale ** 2, self.dvar)
        if data.N > 1:
            for p, (lo, hi) in zip(self.params, self.form.bounds(self.scale)):
                p.lo, p.hi = lo, hi
        for p in self.params:
            if p.kind == "var":
                p.lo, p.hi = math.log(self.scale) - 12.0, math.log(self.scale) + 6.0
        self.bounds = [(p.lo, p.hi) for p in self.params]
        self.path, self.unit = self._standardisation()
        self.model0 = self.model(self.start, unit=self.unit)
        self._prepare()
        if isinstance(structure, SARIMA) and structure.r and self.nobs == data.n:
            self._differenced(structure, fixed)

    def _standardisation(self):
        """(path, unit): the library sees (y - path) / unit. The path is the
        least-squares fit to the data of the paths that the diffuse states
        of fixed dynamics (and the regressors) generate, Z T^t a + x(t)' b,
        which the likelihood absorbs whatever a and b; unit is the standard
        deviation of the rest's changes. So the data the library sees are
        of the order of the model's variances, and its large variance for
        diffuse elements is large against them whatever the units or the
        level of the data; log-likelihoods are converted back."""
        base = self.form.base_model(self.start)
        states = self.form.fixed_diffuse_states(base)
        if base.init is not None:
            states = [i for i in states if base.init[i, i] < 0]
        paths, units = [], []
        for j, y in enumerate(self.data.values):
            cols = []
            if states:
                T, v = base.T, base.Z[j].copy()
                rows = np.empty((y.size, base.m))
                for t in range(y.size):
                    rows[t] = v
                    v = v @ T
                cols.append(rows[:, states])
            if self.user_exog is not None:
                cols.append(self.user_exog)
            path = np.zeros(y.size)
            obs = ~np.isnan(y)
            if cols:
                G = np.hstack(cols)
                path = G @ np.linalg.lstsq(G[obs], y[obs], rcond=None)[0]
            rest = (y - path)[obs]
            unit = float(np.std(np.diff(rest))) if rest.size > 2 else 0.0
            paths.append(path)
            units.append(unit or float(np.sqrt(np.mean(rest ** 2))) or 1.0)
        return np.array(paths), (units[0] if len(units) == 1 else np.array(units))

    def _differenced(self, spec, fixed):
        """Evaluate on the differenced series: with no value missing, the
        likelihood with diffuse difference states is the likelihood of the
        ARMA model (constant and regressors differenced too) of
        w(t) = (1-L)^d (1-L^s)^D y(t), t >= r -- the same parameters, r
        fewer states, and no large variance for the differences."""
        arma = SARIMA((spec.p, 0, spec.q), (spec.P, 0, spec.Q, spec.s if spec.P + spec.Q else 0),
                      spec.constant)
        delta = spec.difference_polynomial()
        r = spec.r

        def diff(x):
            return x[r:] - sum(c * x[r - i - 1:x.shape[0] - i - 1] for i, c in enumerate(delta))
        X = None if self.user_exog is None else diff(self.user_exog)
        inner = Likelihood(diff(self.data.values[0]), arma, X, fixed)
        self.params, self.start, self.bounds = inner.params, inner.start, inner.bounds
        self.loglik, self.loglik_grad = inner.loglik, inner.loglik_grad
        self.derivatives = inner.derivatives
        self._inner = inner

    def form_names(self):
        return [p.name for p in self.form.params] + sorted(self.form.fixed_used)

    # -- models
    def model(self, theta, exog=None, unit=1.0):
        """The full :class:`tessel.Model` at theta (validated; for results),
        with the regressors ``exog`` (time points x k; default: those of
        the data); ``unit`` divides every standard deviation."""
        mod = self.form.base_model(np.asarray(theta, dtype=float), unit)
        X = self.user_exog if exog is None else exog
        if X is not None:
            mod = C.add_regression(mod, X)
        return mod

    @property
    def k_reg(self):
        return 0 if self.user_exog is None else self.user_exog.shape[1]

    def effects(self):
        """(name, state index) of the regression effects and the constant."""
        k = self.k_reg
        names = getattr(self, "exog_names", None) or [f"beta{i}" for i in range(k)]
        return [(nm, i) for i, nm in enumerate(names[:k])] + \
               [(nm, k + i) for nm, i in self.form.effects()]

    def _prepare(self):
        mod = self.model0
        self.m = mod.m
        self.sys = np.array(mod.sys)
        self.var = np.array(mod.var)
        self.init = np.array(mod.init if mod.init is not None else
                             np.vstack([-np.eye(mod.m), np.zeros((1, mod.m))]))
        self.var_flat = self.var.reshape(-1)
        self.var_view = memoryview(self.var_flat)
        tail = [mod.mean, mod.sysidx, mod.varidx, mod.meanidx, mod.tvdata]
        while tail and tail[-1] is None:
            tail.pop()
        empty = np.empty((0, 0))
        yv = (self.data.values - self.path) / np.reshape(self.unit, (-1, 1))
        args = [yv, self.sys, self.var, self.init] + \
               [empty if x is None else x for x in tail]
        self._ll_args = [None, None] + args
        self._sco_args = [None, None, None] + args
        self.d = mod.diffuse
        # log-likelihood of y from that of (y - path) / unit: each series'
        # observed values beyond its diffuse elements carry log(unit)
        counts = np.sum(~np.isnan(self.data.values), axis=1) - self.d / self.data.N
        self._ll_shift = -float(np.sum(counts * np.log(np.reshape(self.unit, (-1,)))))
        if self.nobs <= self.d:
            raise ModelError(f"fit: {self.nobs} observed values for {self.d} diffuse initial "
                             "elements: at least one more observation is needed")
        self.form.prepare(self, self.start)
        analytic = np.zeros(len(self.params), dtype=bool)
        analytic[self.form.an_index] = True
        self._scale_index = getattr(self.form, "scale_index", None)
        if self._scale_index is not None:
            analytic[self._scale_index] = True
        self._numeric = [int(k) for k in np.flatnonzero(~analytic)]
        self._an_index = self.form.an_index if self.form.an_index.size else None
        self._messages = []
        self._refs = {2: ([None, None], [0, 1] + [-1] * len(args)),
                      3: ([None, None, None], [0, 1, 2] + [-1] * len(args))}

    def _call(self, name, values, nref):
        """The entry point with the prepared arguments (the library's
        messages are collected, not shown: a failure is an infinite
        log-likelihood here); returns (status, reference values)."""
        targets, slots = self._refs[nref]
        stack = _capture_stack()
        stack.append(self._messages)
        try:
            return _tessel_call(name, values, targets, slots)
        finally:
            stack.pop()
            if self._messages:
                del self._messages[:]

    def _write(self, theta):
        try:
            self.form.write(self, theta)
        except (ValueError, np.linalg.LinAlgError):
            return False                  # a non-stationary AR part (direct coefficients)
        return True

    def loglik(self, theta):
        """Log-likelihood at theta; -inf where the library cannot evaluate
        it (a singular innovation variance, a non-stationary AR part)."""
        if not self._write(theta):
            return _NEG_INF
        ok, w = self._call("LgmLik", self._ll_args, 2)
        ll = w[0]
        return ll + self._ll_shift if ok == 1 and _NEG_INF < ll < _INF else _NEG_INF

    def loglik_grad(self, theta, step=1e-3):
        """(log-likelihood, gradient in theta); (-inf, zeros) where the
        log-likelihood cannot be evaluated."""
        theta = np.asarray(theta, dtype=float)
        g = np.zeros(theta.size)
        if not self._write(theta):
            return _NEG_INF, g
        numeric = self._numeric
        if self._an_index is not None:
            ok, w = self._call("LgmLikSco", self._sco_args, 3)
            if ok == 1 and not self.form.gradient(w[2], g):
                # the score is NaN where a multivariate time point is wholly missing
                numeric = range(theta.size)
        else:
            ok, w = self._call("LgmLik", self._ll_args, 2)
        ll = w[0]
        if ok != 1 or not _NEG_INF < ll < _INF:
            return _NEG_INF, g
        if self._scale_index is not None:
            g[self._scale_index] = (self.nobs - self.d) * (w[1] - 1.0)
        if numeric:
            for k in numeric:
                h = step * max(1.0, abs(theta[k]))
                tp, tm = theta.copy(), theta.copy()
                tp[k] += h
                tm[k] -= h
                g[k] = (self.loglik(tp) - self.loglik(tm)) / (2 * h)
            self._write(theta)
        return ll + self._ll_shift, g

    def values(self, theta):
        """The free parameters on their reported scale (variances, damping
        factors, frequencies, coefficients)."""
        return self.form.values(np.asarray(theta, dtype=float))

    def theta(self, values, what="start"):
        """Reported values {name: value} -> theta (missing names keep the
        default start)."""
        th = self.start.copy()
        for i, p in enumerate(self.params):
            if p.name in values and p.kind != "pacf":     # coefficients: see _sarima_start
                th[i] = p.theta(values[p.name], what)
        if isinstance(self.form, _Sarima):
            th = self._sarima_start(th, values)
        return th

    def _sarima_start(self, th, values):
        """Coefficients given as start values of a polynomial estimated
        through partial autocorrelations: all of the polynomial's
        coefficients are needed, and they must be stationary/invertible."""
        f = self.form
        i = 0
        for (sl, direct, is_ar), (prefix, k, step, _) in zip(f.polys, f.spec.polynomials):
            names = f.spec.names[sl]
            if direct:
                i += sum(1 for j in range(sl.start, sl.stop) if f.free[j])
                continue
            given = [n in values for n in names]
            if any(given):
                if not all(given):
                    raise ModelError(f"fit: start values for {', '.join(names)} must be given "
                                     "together")
                c = np.array([values[n] for n in names])
                r = coef_to_pacf(c if is_ar else -c)
                if r is None:
                    raise ModelError(f"fit: start values {dict(zip(names, c))} are not "
                                     f"{'stationary' if is_ar else 'invertible'}")
                th[i:i + k] = np.arctanh(np.clip(r, -np.tanh(_PACF_BOUND), np.tanh(_PACF_BOUND)))
            i += k
        return th

    def jacobian(self, theta, h=1e-7):
        """d values / d theta (central differences; no library call)."""
        theta = np.asarray(theta, dtype=float)
        k = theta.size
        J = np.zeros((k, k))
        for j in range(k):
            step = h * max(1.0, abs(theta[j]))
            tp, tm = theta.copy(), theta.copy()
            tp[j] += step
            tm[j] -= step
            J[:, j] = (self.values(tp) - self.values(tm)) / (2 * step)
        return J

    def derivatives(self, theta):
        """(log-likelihood, gradient, Hessian) at theta from central first
        and second differences of the log-likelihood itself (step 1e-3
        max(1, |theta|)): consistent with the value whatever the accuracy
        of the score, for judging convergence and for standard errors."""
        theta = np.asarray(theta, dtype=float)
        k = theta.size
        H = np.zeros((k, k))
        g = np.zeros(k)
        h = 1e-3 * np.maximum(1.0, np.abs(theta))
        E = np.diag(h)
        f0 = self.loglik(theta)
        for i in range(k):
            fp, fm = self.loglik(theta + E[i]), self.loglik(theta - E[i])
            g[i] = (fp - fm) / (2 * h[i])
            H[i, i] = (fp - 2 * f0 + fm) / h[i] ** 2
            for j in range(i):
                H[i, j] = H[j, i] = (self.loglik(theta + E[i] + E[j]) -
                                     self.loglik(theta + E[i] - E[j]) -
                                     self.loglik(theta - E[i] + E[j]) +
                                     self.loglik(theta - E[i] - E[j])) / (4 * h[i] * h[j])
        self.loglik(theta)                         # leave the prepared arrays at theta
        return f0, g, H


# -------------------------------------------------------------------- fit


def _cycle_periods(value, data):
    """(shortest, longest) cycle period in time points: given, or 1.5 to 12
    years of the data's frequency, or 2 to n time points when the data
    carry no frequency."""
    from .data import periods_per_year
    if value is None:
        ppy = periods_per_year(data.index)
        lo, hi = (1.5 * ppy, 12.0 * ppy) if ppy else (2.0, float(max(data.n, 3)))
        return max(lo, 2.0), max(hi, 2.5)
    try:
        lo, hi = (float(v) for v in value)
    except (TypeError, ValueError):
        raise ModelError(f"fit: cycle_periods must be (shortest, longest) in time points, got "
                         f"{value!r}") from None
    if not (math.isfinite(lo) and math.isfinite(hi) and 2.0 <= lo < hi):
        raise ModelError(f"fit: cycle_periods must satisfy 2 <= shortest < longest, got {value!r}")
    return lo, hi


def _exog(exog, n):
    if exog is None:
        return None, []
    X = C._regressors(exog, "exog").T
    if X.shape[0] != n:
        raise ModelError(f"exog: has {X.shape[0]} time points, the series {n}")
    cols = getattr(exog, "columns", None)
    if cols is not None:
        names = [str(c) for c in cols]
    elif getattr(exog, "name", None) is not None and getattr(exog, "ndim", 2) == 1:
        names = [str(exog.name)]
    else:
        names = [f"beta{i}" for i in range(X.shape[1])]
    return X, names


def fit(y, structure, exog=None, *, fixed=None, start=None, cycle_periods=None, n_starts=3,
        maxiter=500, tol=1e-9, progress=None, diffuse=DEFAULT_DIFFUSE, names=None):
    """Estimate a model by maximum likelihood.

    ``y``: one series (1-D array or pandas Series; NaN for missing), or
    several (n x N array or DataFrame) for a structural model with
    correlated disturbances (see :mod:`tessel.sutse`).
    ``structure``: a list of structural components (parameters left as None
    are estimated, given ones stay) or a :class:`tessel.SARIMA` /
    :class:`tessel.ARMA`. ``exog``: regressors (n x k), regression effects
    in front of the model. ``fixed`` / ``start``: {parameter name: value on
    the reported scale} held fixed, or used as the starting point (names as
    in the result's ``params``, e.g. ``"sigma2.level"``, ``"ar.L1"``).
    ``cycle_periods``: (shortest, longest) period of cycles in time points
    (default 1.5 to 12 years of the data's frequency when its index has
    one, else 2 to n). ``n_starts``: the optimiser runs from this many of
    the best-scoring starting points (the default, those with each
    variance dominant, cycles at short, middle and long periods; the
    ``start`` given is always one) and keeps the best result.
    ``progress``: None, True (iterations and log-likelihood to stderr) or a
    callable ``progress(iteration, loglik)``, iterations counted over all
    starts. ``diffuse``: "approximate" (the entry points' large variance)
    or "exact". ``names``: names of the series for the report when ``y``
    is an array (default: y, or y0, y1, ...).

    Warns :class:`ConvergenceWarning` when the point reached is not a
    maximum (see ``FitResult.convergence``) or an ARMA polynomial is on the
    edge of stationarity or invertibility. Raises ModelError for invalid
    arguments, a constant series or too few observations.
    """
    from .analysis import _Data
    from .results import FitResult

    data = _Data(y, None)
    if names is not None:
        names = [str(n) for n in ([names] if isinstance(names, str) else names)]
        if len(names) != data.N or len(set(names)) != data.N:
            raise ModelError(f"fit: names must be {data.N} distinct names, got {names!r}")
        data.columns = names
    if isinstance(maxiter, bool) or not isinstance(maxiter, (int, np.integer)) or maxiter < 1:
        raise ModelError(f"fit: maxiter must be a positive int, got {maxiter!r}")
    if isinstance(n_starts, bool) or not isinstance(n_starts, (int, np.integer)) or n_starts < 1:
        raise ModelError(f"fit: n_starts must be a positive int, got {n_starts!r}")
    if isinstance(tol, bool) or not isinstance(tol, (int, float)) or not 0 < tol < 1:
        raise ModelError(f"fit: tol must be a float in (0, 1), got {tol!r}")
    if not (progress is None or progress is True or progress is False or callable(progress)):
        raise ModelError("fit: progress must be None, True or a callable(iteration, loglik)")
    for name, row in zip(data.columns, data.values):
        obs = row[~np.isnan(row)]
        if obs.size < 3:
            raise ModelError(f"fit: at least three observed values are needed ({name!r} has "
                             f"{obs.size})")
        if np.all(obs == obs[0]):
            raise ModelError(f"fit: the series {name!r} is constant (every observed value is "
                             f"{obs[0]:g}): there is nothing to estimate")
    if data.N > 1 and start:
        raise ModelError("fit: start values are not available for several series")
    X, xnames = _exog(exog, data.n)
    if not isinstance(structure, SARIMA):
        comps = C.check_components(structure, "fit: structure")
        if not any(c.sigma is None or any(getattr(c, a) is None for a in c.free_parameters)
                   for c in comps):
            raise ModelError("fit: nothing to estimate (every parameter is fixed)")
        structure = comps
    lik = Likelihood(None, structure, X, fixed, _cycle_periods(cycle_periods, data), diffuse,
                     _data=data)
    lik.exog_names = xnames
    if not lik.params:
        raise ModelError("fit: nothing to estimate (every parameter is fixed)")
    check_fit(lik.model0.m, data.n, len(lik.params), lik.nobs)
    start = _number_map(start, "start")
    unknown = set(start) - set(lik.names)
    if unknown:
        raise ModelError(f"fit: start names no estimated parameter: {sorted(unknown)}; the "
                         f"parameters are {lik.names}")
    base = lik.theta(start) if start else lik.start
    bounds = lik.bounds
    lo = np.array([-np.inf if b[0] is None else b[0] for b in bounds])
    hi = np.array([np.inf if b[1] is None else b[1] for b in bounds])
    base = np.clip(base, lo, hi)

    # screen the candidate starts by their log-likelihood
    cands = [np.clip(c, lo, hi) for c in lik.form.candidates(base, lik.scale ** 2)]
    scored = sorted(((lik.loglik(c), i) for i, c in enumerate(cands)),
                    key=lambda t: (-t[0] if math.isfinite(t[0]) else math.inf, t[1]))
    chosen = [0] + [i for _, i in scored if i != 0][:max(n_starts - 1, 0)]

    report = None
    if progress is True:
        def report(it, ll):
            print(f"  iteration {it:4d}   log-likelihood {ll:.6f}", file=sys.stderr, flush=True)
    elif callable(progress):
        report = progress
    nobs_eff = max(lik.nobs, 1)
    state = {"it": 0, "seen": {}, "evals": 0}

    def objective(theta):
        state["evals"] += 1
        ll, g = lik.loglik_grad(theta)
        if not math.isfinite(ll):
            return 1e10, np.zeros_like(theta)
        state["seen"] = {theta.tobytes(): ll}
        return -ll / nobs_eff, -g / nobs_eff

    def callback(xk):
        state["it"] += 1
        if report is not None:
            ll = state["seen"].get(np.asarray(xk, dtype=float).tobytes())
            report(state["it"], ll if ll is not None else lik.loglik(xk))

    best = None
    runs = []
    for i in chosen:
        res = minimize_bounded(objective, cands[i], lo, hi, int(maxiter), tol, 1e-7, callback)
        ll = lik.loglik(res.x)
        runs.append(float(ll))
        if best is None or ll > best[0]:
            best = (ll, res)
    ll, res = best
    theta, ll, g, H, (converged, at_bound, gain, gmax), newton = \
        polish(lik, np.asarray(res.x, dtype=float), lo, hi, bounds,
                steps=max(0, min(6, int(maxiter) - res.nit)))
    state["it"] += newton
    cov = covariance(H, at_bound)
    notes = lik.form.edge_notes(theta)
    convergence = {"converged": bool(converged), "optimizer_success": bool(res.success),
                   "optimizer_message": str(res.message), "iterations": state["it"],
                   "evaluations": state["evals"], "starts": len(chosen),
                   "start_logliks": runs, "max_gradient": gmax,
                   "expected_improvement": gain, "notes": notes}
    if not converged:
        warnings.warn(f"fit: {lik.label}: the optimiser stopped where the log-likelihood is not "
                      f"at a maximum (largest gradient {gmax:.3g}, expected improvement "
                      f"{gain:.3g}; optimiser: {res.message}); try other start values or "
                      "a larger maxiter", ConvergenceWarning, stacklevel=2)
    for note in notes:
        warnings.warn(f"fit: {lik.label}: {note}", ConvergenceWarning, stacklevel=2)
    return FitResult(lik, theta, float(ll), cov, at_bound, convergence)
