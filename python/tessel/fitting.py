"""Maximum likelihood fitting.

``tessel.fit(y, [tessel.Level(), tessel.Irregular()])`` estimates every
parameter left as ``None`` in the components (standard deviations, cycle
frequencies and damping factors, autoregressive coefficients), or the
coefficients and variance of a :class:`tessel.SARIMA`, by maximising the
log-likelihood with scipy's L-BFGS-B.

The log-likelihood is a :class:`Likelihood`: the model prepared once (built,
validated, laid out for the library), after which an evaluation writes only
the elements that the parameters change and calls the library's entry point
(``LgmLik``, or ``LgmLikSco`` with the gradient) directly.

Parametrisation (theta, the optimiser's scale): a standard deviation sigma
= exp(theta) (reported as the variance sigma^2); a damping factor 1 / (1 +
exp(-theta)); a cycle frequency lo + (hi - lo) / (1 + exp(-theta)) between
the frequencies of the longest and shortest allowed period; an
autoregressive coefficient or root tanh(theta); the coefficients of each
SARIMA polynomial through partial autocorrelations tanh(theta)
(stationary and invertible by construction) -- or, when some coefficients
of a polynomial are fixed, its free coefficients directly.

Gradient: for variances that enter only ``var`` linearly (level, slope,
trend, seasonals, irregular) it is analytic, from the score matrix S of
``LgmLikSco``: d loglik / d sigma^2 = tr(S B) / 2 with B = d var / d sigma^2,
so d / d theta = sigma^2 tr(S B); for the variance of a SARIMA, which
scales every variance, it follows from LgmLik's mean squared standardised
innovation. The other parameters (they also enter the transition or the
initial variance) get central differences.

The optimiser (a projected BFGS, then Newton steps) stops where it stops;
whether that is a maximum is judged afterwards from central first and
second differences of the log-likelihood (see :func:`_judge`), which also
give the standard errors.
"""

import math
import sys
import warnings

import numpy as np

from . import components as C
from ._linalg import stationary_variance
from ._lowlevel import Ref, _capture_stack, _tessel, call, capture_messages

from .model import Model, ModelError
from .sarima import SARIMA, coef_to_pacf, multiply, pacf_to_coef

_tessel_call = _tessel.call
_INF, _NEG_INF = math.inf, -math.inf

__all__ = ["ConvergenceWarning", "Likelihood", "fit"]

#: the backends of the likelihood: the entry points with a large variance
#: for diffuse elements ("approximate"), or the exact diffuse routines
DIFFUSE = ("approximate", "exact")
DEFAULT_DIFFUSE = "approximate"

# limits of theta for the bounded kinds (logistic, tanh): within 6e-6 of the
# ends of (0, 1), 7.5e-11 of (-1, 1); partial autocorrelations of SARIMA
# polynomials stop at 1 - 1.7e-6, where the stationary variance is still
# well conditioned
_LOGIT_BOUND = 12.0
_PACF_BOUND = 7.0
# a partial autocorrelation beyond this is reported as non-stationary
_PACF_EDGE = 0.9999
# parameters within this distance (in theta) of a search bound are "at the
# bound": no standard error
_NEAR_BOUND = 0.5


class ConvergenceWarning(UserWarning):
    """The optimiser did not reach a maximum of the log-likelihood, judged
    by the gradient and the curvature at the point it stopped (see
    :func:`fit`), or an estimate lies on the edge of the admissible region."""


class _Param:
    """One estimated parameter: reported name, kind of the map theta ->
    value, bounds of theta, and where it goes."""

    __slots__ = ("name", "kind", "lo", "hi", "comp", "attr", "analytic", "near")

    def __init__(self, name, kind, lo, hi, comp=-1, attr="", analytic=False):
        self.name, self.kind, self.lo, self.hi = name, kind, lo, hi
        self.comp, self.attr, self.analytic = comp, attr, analytic
        # distance in theta within which the parameter counts as at a bound
        self.near = 1e-3 if kind == "freq" else _NEAR_BOUND

    def natural(self, t):
        """theta -> value as reported."""
        k = self.kind
        if k == "var":
            return math.exp(2.0 * t)
        if k == "unit":
            return 1.0 / (1.0 + math.exp(-t))
        if k == "freq":
            return 2.0 * math.pi * math.exp(-t)
        if k in ("corr", "pacf"):
            return math.tanh(t)
        return t

    def theta(self, v, what="start"):
        """Value as reported -> theta (ModelError outside the open range)."""
        k = self.kind
        try:
            if k == "var":
                if v <= 0:
                    raise ValueError
                return 0.5 * math.log(v)
            if k == "unit":
                return math.log(v / (1.0 - v))
            if k == "freq":
                t = math.log(2.0 * math.pi / v)
                if not self.lo <= t <= self.hi:
                    raise ValueError
                return t
            if k in ("corr", "pacf"):
                return math.atanh(v)
        except (ValueError, ZeroDivisionError):
            rng = {"var": "> 0", "unit": "in (0, 1)", "corr": "in (-1, 1)", "pacf": "in (-1, 1)",
                   "freq": f"in [{2 * math.pi / math.exp(self.hi):.6g}, "
                           f"{2 * math.pi / math.exp(self.lo):.6g}] (the allowed cycle periods)"}[k]
            raise ModelError(f"fit: {what} value of {self.name} must be {rng}, got {v!r}") from None
        return float(v)


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


# ------------------------------------------------------- model structures


class _Structural:
    """Structural components: the variances of level, slope, trend,
    seasonals and irregular enter ``var`` linearly (analytic gradient); a
    cycle or autoregression block is rebuilt by the library's builder when
    one of its parameters changes."""

    def __init__(self, comps, data, fixed, cycle_periods):
        self.comps = [c for c in comps]
        names = C.component_names(self.comps)
        self.names = names
        params, used = [], set()
        self.periods = cycle_periods
        for j, (c, nm) in enumerate(zip(self.comps, names)):
            attrs = ["sigma"] * (c.sigma is None) + [a for a in c.free_parameters
                                                     if getattr(c, a) is None]
            for attr in attrs:
                pname = f"sigma2.{nm}" if attr == "sigma" else f"{attr}.{nm}"
                if pname in fixed:
                    used.add(pname)
                    v = fixed[pname]
                    if attr == "sigma":
                        if v < 0:
                            raise ModelError(f"fit: fixed value of {pname} must be >= 0, got {v}")
                        v = math.sqrt(v)
                    self.comps[j] = self.comps[j].with_values(**{attr: v})
                    continue
                if attr == "sigma":
                    analytic = isinstance(c, (C.Level, C.Slope, C.Trend, C._Seasonal, C.Irregular))
                    params.append(_Param(pname, "var", 0.0, 0.0, j, "sigma", analytic))
                elif attr == "frequency":
                    # log period, between the shortest and longest allowed
                    params.append(_Param(pname, "freq", math.log(cycle_periods[0]),
                                         math.log(cycle_periods[1]), j, attr))
                elif attr == "damping":
                    params.append(_Param(pname, "unit", -_LOGIT_BOUND, _LOGIT_BOUND, j, attr))
                else:
                    params.append(_Param(pname, "corr", -_LOGIT_BOUND, _LOGIT_BOUND, j, attr))
        self.params, self.fixed_used = params, used
        self.label = " + ".join(names)
        self.nonlinear = sorted({p.comp for p in params if not p.analytic})

    def components(self, theta, unit=1.0):
        """The components at theta, standard deviations divided by unit."""
        comps = list(self.comps)
        for p, t in zip(self.params, theta):
            val = math.exp(t) if p.kind == "var" else p.natural(t)
            comps[p.comp] = comps[p.comp].with_values(**{p.attr: val})
        if unit != 1.0:
            comps = [c.with_values(sigma=c.sigma / unit) for c in comps]
        return comps

    def base_model(self, theta, unit=1.0):
        return C.structural(self.components(theta, unit))

    def fixed_diffuse_states(self, model):
        """States of the components whose dynamics no parameter changes
        (level, slope, trend, seasonals): diffuse, so that every path
        Z T^t a they generate is absorbed by the likelihood."""
        keep = (C.Level, C.Slope, C.Trend, C._Seasonal)
        return [i for _, start, size, comp in model.info["components"] if isinstance(comp, keep)
                for i in range(start, start + size)]

    def effects(self):
        return []

    def prepare(self, lik, theta):
        """Positions of the parameters in the prepared arrays."""
        k, M = lik.k_reg, lik.m
        layout = {name: (start, size) for name, start, size, _ in lik.model0.info["components"]}
        self.blocks = [(j, layout[self.names[j]]) for j in self.nonlinear]
        ms = M - k

        def full(i):
            return i + k if i < ms else M
        rows, self.an_index = [], []
        for i, p in enumerate(self.params):
            if not p.analytic:
                continue
            th1 = np.array(theta, dtype=float)
            th0 = np.array(theta, dtype=float)
            th1[i], th0[i] = 0.0, -np.inf
            B = self.base_model(th1, lik.unit).var - self.base_model(th0, lik.unit).var
            W = np.zeros((M + 1, M + 1))
            for a, b in zip(*np.nonzero(B)):
                W[full(a), full(b)] = B[a, b]
            rows.append(W.ravel())
            self.an_index.append(i)
        self.an_index = np.array(self.an_index, dtype=int)
        self.patterns = np.array(rows) if rows else np.zeros((0, (M + 1) ** 2))
        # (theta index, [(flat position, coefficient)] or None, positions, coefficients):
        # a few elements are written one by one, many at once
        self.writers = []
        for i, w in zip(self.an_index, self.patterns):
            pos = np.flatnonzero(w)
            few = [(int(q), float(w[q])) for q in pos] if pos.size <= 4 else None
            self.writers.append((int(i), few, pos, w[pos]))
        self._e = [0.0] * len(self.writers)      # sigma^2 of each, as last written

    def write(self, lik, theta):
        var = lik.var_flat
        t = theta.tolist()
        es = self._e
        for k, (i, few, pos, coef) in enumerate(self.writers):
            e = es[k] = math.exp(2.0 * t[i])
            if few is not None:
                for q, c in few:
                    var[q] = c * e
            else:
                var[pos] = coef * e
        if self.blocks:
            comps = self.components(theta, lik.unit)
            for j, (start, size) in self.blocks:
                c = comps[j]
                S, V, I = Ref(), Ref(), Ref()
                table = np.array([c.row(7 if isinstance(c, C.Cycle) else None),
                                  C.Irregular(0.0).row()])
                with capture_messages():
                    call("GetLgmStsm", table, S, V, I)
                V, I = C.finish_cycle_block(c, V.value, I.value)
                b = slice(start, start + size)
                lik.sys[b, b] = S.value[:size]
                lik.var[b, b] = V[:size, :size]
                lik.init[b, b] = I[:size]

    def gradient(self, S, g):
        """The analytic elements of the gradient from the score matrix S at
        the theta last written: d loglik / d theta_i = sigma_i^2 tr(S B_i)."""
        Sf = S.reshape(-1)
        for (i, few, pos, coef), e in zip(self.writers, self._e):
            if few is not None:
                acc = 0.0
                for q, c in few:
                    acc += c * float(Sf[q])
            else:
                acc = float(coef @ Sf[pos])
            g[i] = acc * e

    def values(self, theta):
        return np.array([p.natural(t) for p, t in zip(self.params, theta)])

    def candidates(self, base, scale2):
        """Starting points: the base, each variance dominant in turn, and
        cycles started at short, middle and long periods."""
        out = [base]
        var_idx = [i for i, p in enumerate(self.params) if p.kind == "var"]
        if len(var_idx) > 1:
            for i in var_idx:
                th = base.copy()
                th[var_idx] = 0.5 * math.log(scale2 * 1e-3)
                th[i] = 0.5 * math.log(scale2)
                out.append(th)
        freq = [p for p in self.params if p.kind == "freq"]
        if freq:
            idx = [i for i, p in enumerate(self.params) if p.kind == "freq"]
            for th0 in list(out):
                for u in (0.15, 0.85):
                    th = th0.copy()
                    th[idx] = [p.lo + u * (p.hi - p.lo) for p in freq]
                    out.append(th)
        return out

    def start(self, scale2, dvar):
        nvar = sum(1 for p in self.params if p.kind == "var")
        st = []
        for p in self.params:
            c = self.comps[p.comp]
            if p.kind == "var":
                if isinstance(c, (C.Cycle, C.ButterworthCycle, C.AR1, C.AR2)):
                    st.append(0.5 * math.log(dvar))
                else:
                    st.append(0.5 * math.log(dvar / max(nvar, 1)))
            elif p.kind == "freq":
                st.append(0.5 * (p.lo + p.hi))
            elif p.kind == "unit":
                st.append(math.log(0.9 / 0.1))
            else:
                st.append({"phi": math.atanh(0.5), "root1": math.atanh(0.5),
                           "root2": math.atanh(0.3)}[p.attr])
        return np.array(st)

    def edge_notes(self, theta):
        """Notes on cycle periods at an end of the allowed range."""
        notes = []
        for p, t in zip(self.params, theta):
            if p.kind == "freq" and min(t - p.lo, p.hi - t) <= p.near:
                end = "shortest" if t - p.lo <= p.near else "longest"
                notes.append(f"the period of {p.name[len('frequency.'):]} is at the {end} "
                             f"allowed ({math.exp(t):.4g} time points; cycle_periods = "
                             f"{self.periods[0]:g} to {self.periods[1]:g}): the likelihood "
                             "prefers a cycle outside the range")
        return notes


class _Sarima:
    """SARIMA: the ARMA block (transition column, disturbance variance,
    stationary initial variance) is rewritten at every evaluation."""

    def __init__(self, spec, fixed):
        self.spec = spec
        self.label = spec.label
        names = spec.names
        self.fixed_used = {n for n in names if n in fixed}
        self.full = np.zeros(len(names))           # theta of every parameter, fixed ones included
        self.free = np.ones(len(names), dtype=bool)
        self.polys = []                            # (slice of full, direct?)
        self.params = []
        pos = 0
        for prefix, k, step, is_ar in spec.polynomials:
            sl = slice(pos, pos + k)
            pnames = names[sl]
            direct = any(n in fixed for n in pnames)
            self.polys.append((sl, direct, is_ar))
            if direct:
                # some coefficients fixed: the free ones are estimated directly
                for i, n in enumerate(pnames):
                    if n in fixed:
                        self.full[pos + i] = fixed[n]
                        self.free[pos + i] = False
                    else:
                        self.params.append(_Param(n, "free", None, None))
            else:
                for n in pnames:
                    self.params.append(_Param(n, "pacf", -_PACF_BOUND, _PACF_BOUND))
            pos += k
        if "sigma2" in fixed:
            if fixed["sigma2"] <= 0:
                raise ModelError(f"fit: fixed value of sigma2 must be > 0, got {fixed['sigma2']}")
            self.full[pos] = 0.5 * math.log(fixed["sigma2"])
            self.free[pos] = False
        else:
            self.params.append(_Param("sigma2", "var", 0.0, 0.0))
        self.sys0, self.var0, self.init0, self.a = spec.layout()

    def _coefs(self, theta):
        full = self.full.copy()
        full[self.free] = theta
        out = []
        for sl, direct, is_ar in self.polys:
            t = full[sl]
            if direct:
                out.append(t)
            else:
                c = pacf_to_coef(np.tanh(t))
                out.append(c if is_ar else -c)     # MA: 1 + b L + ... = 1 - (-b) L - ...
        return out, math.exp(2.0 * full[-1])

    def arma_block(self, theta, unit=1.0):
        """(T block, Q block, P0 block) of the ARMA part, variances divided
        by unit^2; ValueError when the AR part is not stationary."""
        coefs, s2 = self._coefs(theta)
        s2 /= unit * unit
        spec, ma_n = self.spec, self.spec.arma_states
        ar = multiply(coefs, spec, +1)
        ma = multiply(coefs, spec, -1)
        T = np.eye(ma_n, k=1)
        T[:ar.size, 0] = ar
        R = np.zeros(ma_n)
        R[0] = 1.0
        R[1:1 + ma.size] = ma
        Q = s2 * np.outer(R, R)
        return T, Q, stationary_variance(T, Q)

    def base_model(self, theta, unit=1.0):
        T, Q, P = self.arma_block(theta, unit)
        sys_, var, init = self.sys0.copy(), self.var0.copy(), self.init0.copy()
        b = slice(self.a, self.a + T.shape[0])
        sys_[b, b], var[b, b], init[b, b] = T, Q, P
        return Model(sys_, var, init, info={"kind": self.label})

    def effects(self):
        return [("const", self.spec.r)] if self.spec.constant else []

    def fixed_diffuse_states(self, model):
        """The difference states and the constant."""
        return list(range(self.spec.r + int(self.spec.constant)))

    def prepare(self, lik, theta):
        self.an_index = np.zeros(0, dtype=int)
        self.patterns = np.zeros((0, (lik.m + 1) ** 2))
        # sigma^2 scales every variance: d loglik / d log sigma = (nobs - d) (s - 1)
        # with s the mean squared standardised innovation that LgmLik returns
        self.scale_index = len(self.params) - 1 if self.free[-1] else None
        a = lik.k_reg + self.a
        self.block = slice(a, a + self.spec.arma_states)

    def write(self, lik, theta):
        T, Q, P = self.arma_block(theta, lik.unit)
        b = self.block
        lik.sys[b, b] = T
        lik.var[b, b] = Q
        lik.init[b, b] = P

    def values(self, theta):
        coefs, s2 = self._coefs(theta)
        full = np.r_[np.concatenate(coefs) if coefs else np.zeros(0), s2]
        return full[self.free]

    def start(self, scale2, dvar):
        st = []
        for p in self.params:
            st.append(0.5 * math.log(scale2) if p.kind == "var" else 0.0)
        return np.array(st)

    def candidates(self, base, scale2):
        return [base]

    def edge_notes(self, theta):
        """Warnings for polynomials (estimated through partial
        autocorrelations) with a root on the edge of the unit circle."""
        notes = []
        i = 0
        coefs, _ = self._coefs(theta)
        for (sl, direct, is_ar), (prefix, k, step, _), c in zip(self.polys, self.spec.polynomials,
                                                                 coefs):
            if direct:
                i += sum(1 for j in range(sl.start, sl.stop) if self.free[j])
                continue
            r = np.tanh(np.asarray(theta[i:i + k]))
            i += k
            if not (k and np.max(np.abs(r)) > _PACF_EDGE):
                continue
            seas = "seasonal " if step > 1 else ""
            shown = ", ".join(f"{n} = {v:.6g}" for n, v in zip(self.spec.names[sl], c))
            if is_ar:
                notes.append(f"the {seas}AR part is on the edge of stationarity ({shown}: a root "
                             "on the unit circle): the series looks non-stationary; difference it "
                             f"(tessel.SARIMA with d = 1{' or D = 1' if step > 1 else ''}) or "
                             "model its trend")
            else:
                notes.append(f"the {seas}MA part is on the edge of invertibility ({shown}: a root "
                             "on the unit circle): the series may be over-differenced")
        return notes


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
        if self._an_index is not None:
            ok, w = self._call("LgmLikSco", self._sco_args, 3)
            if ok == 1:
                self.form.gradient(w[2], g)
        else:
            ok, w = self._call("LgmLik", self._ll_args, 2)
        ll = w[0]
        if ok != 1 or not _NEG_INF < ll < _INF:
            return _NEG_INF, g
        if self._scale_index is not None:
            g[self._scale_index] = (self.nobs - self.d) * (w[1] - 1.0)
        numeric = self._numeric
        if not np.all(np.isfinite(g)):
            # the score is NaN where a multivariate time point is wholly missing
            numeric = range(theta.size)
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


# -------------------------------------------------------------- optimiser


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
    no decrease. (Here rather than scipy's L-BFGS-B so that a fit does not
    load scipy.optimize.)"""
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


def _judge(lik, theta, ll, g, H, bounds):
    """Convergence by the point reached, not the optimiser's message:
    (converged, at_bound mask, expected improvement, largest gradient).

    Parameters near a bound (_NEAR_BOUND in theta; 1e-3 for a cycle's log
    period) are held there. With the
    remaining Hessian negative definite the expected improvement of a
    Newton step g' (-H)^-1 g / 2 must be below 1e-4 (log-likelihood
    units, which do not depend on the units of the data); otherwise
    (a flat direction) the largest gradient element must be below 1e-3.
    A parameter at a bound whose gradient points inside counts as free."""
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


def _polish(lik, theta, lo, hi, bounds, steps=6):
    """Newton steps from where the optimiser stopped, while the point is
    not judged a maximum: the step -H^-1 g over the parameters not at a
    bound, halved until the log-likelihood rises. Returns (theta, loglik,
    gradient, Hessian, judgement, Newton steps taken)."""
    for step in range(steps + 1):
        ll, g, H = lik.derivatives(theta)
        verdict = _judge(lik, theta, ll, g, H, bounds)
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


def _covariance(H, at_bound):
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
        comps = C.check_components(structure)
        if not any(c.sigma is None or any(getattr(c, a) is None for a in c.free_parameters)
                   for c in comps):
            raise ModelError("fit: nothing to estimate (every parameter is fixed)")
        structure = comps
    lik = Likelihood(None, structure, X, fixed, _cycle_periods(cycle_periods, data), diffuse,
                     _data=data)
    lik.exog_names = xnames
    if not lik.params:
        raise ModelError("fit: nothing to estimate (every parameter is fixed)")
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
        _polish(lik, np.asarray(res.x, dtype=float), lo, hi, bounds,
                steps=max(0, min(6, int(maxiter) - res.nit)))
    state["it"] += newton
    cov = _covariance(H, at_bound)
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
