"""How each model structure is parametrised for fitting, and how its
parameters are written into the prepared model.

Parametrisation (theta, the optimiser's scale): a standard deviation sigma
= exp(theta) (reported as the variance sigma^2); a damping factor 1 / (1 +
exp(-theta)); a cycle period exp(theta) between the shortest and longest
allowed (reported as the frequency 2 pi / period); an autoregressive
coefficient or root tanh(theta); the coefficients of each SARIMA polynomial
through partial autocorrelations tanh(theta) (stationary and invertible by
construction) -- or, when some coefficients of a polynomial are fixed, its
free coefficients directly.

Gradient: for variances that enter only ``var`` linearly (level, slope,
trend, seasonals, irregular) it is analytic, from the score matrix S of
``LgmLikSco``: d loglik / d sigma^2 = tr(S B) / 2 with B = d var / d sigma^2,
so d / d theta = sigma^2 tr(S B); for the variance of a SARIMA, which
scales every variance, it follows from LgmLik's mean squared standardised
innovation. The other parameters (they also enter the transition or the
initial variance) get central differences (in :class:`tessel.Likelihood`).
"""

import math

import numpy as np

from . import components as C
from ._linalg import stationary_variance
from ._lowlevel import Ref, call, capture_messages
from .model import Model, ModelError
from .sarima import multiply, pacf_to_coef

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
        var = lik.var_view                      # a memoryview: cheaper single writes
        t = theta.tolist()
        es = self._e
        for k, (i, few, pos, coef) in enumerate(self.writers):
            e = es[k] = math.exp(2.0 * t[i])
            if few is not None:
                for q, c in few:
                    var[q] = c * e
            else:
                lik.var_flat[pos] = coef * e
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
        the theta last written: d loglik / d theta_i = sigma_i^2 tr(S B_i).
        False where S is not finite."""
        finite = True
        item = S.item                            # by flat index, as a Python float
        for (i, few, pos, coef), e in zip(self.writers, self._e):
            if few is not None:
                acc = 0.0
                for q, c in few:
                    acc += c * item(q)
            else:
                acc = float(coef @ S.reshape(-1)[pos])
            g[i] = acc * e
            finite = finite and acc == acc
        return finite

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
