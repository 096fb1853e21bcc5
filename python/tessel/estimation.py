"""Maximum likelihood estimation, diagnostics and forecasts.

``tessel.fit(y, [tessel.Level(), tessel.Irregular()])`` estimates every
parameter left as ``None`` in the components (standard deviations, cycle
frequencies and damping factors, autoregressive coefficients) by maximising
the log-likelihood of the library (``LgmLik``) with scipy's L-BFGS-B.

Parametrisation (theta, the optimiser's scale): a standard deviation
sigma = exp(theta) (reported as the variance sigma^2); a damping factor
1 / (1 + exp(-theta)); a frequency pi / (1 + exp(-theta)); an autoregressive
coefficient or root tanh(theta); ARMA coefficients through partial
autocorrelations tanh(theta) (stationary and invertible by construction).

Gradient: for variances that enter only ``var`` (level, slope, trend,
seasonals, irregular) it is analytic, from the score matrix S of
``LgmLikSco``: d loglik / d sigma^2 = tr(S B) / 2 with B = d var / d sigma^2,
and d / d theta = 2 sigma^2 times that. Parameters that also enter the
initial variance (cycles, autoregressions, ARMA) get central differences of
the log-likelihood.

Standard errors: from the Hessian of the log-likelihood in theta (central
differences of the gradient), Cov(theta) = (-H)^-1, carried to the reported
scale by the delta method (J Cov J' with J the Jacobian of the reported
values in theta). A parameter at a bound of the search (a variance
estimated as zero) gets no standard error. Parameter counts: k = number
of estimated parameters; d = number of diffuse initial elements (regression
effects and the constant of an ARMA fit among them); AIC = -2 logL +
2 (k + d), BIC = -2 logL + (k + d) log(number of observed values).
"""

import math
import sys
from dataclasses import dataclass
from typing import Any

import numpy as np

from . import analysis as A
from . import components as C
from .model import Model, ModelError, NumericalError

__all__ = ["ARMA", "fit", "FitResult", "Diagnostics", "Forecast", "extend_index",
           "ljung_box", "jarque_bera", "heteroskedasticity"]


# ----------------------------------------------------------- specifications


class ARMA:
    """Orders of an ARMA(p, q) model to estimate; ``constant`` adds a
    diffuse constant mean as a regression effect."""

    def __init__(self, p, q, constant=True):
        self.p = C._whole(p, "ARMA: p", 0, 20)
        self.q = C._whole(q, "ARMA: q", 0, 20)
        if self.p == 0 and self.q == 0:
            raise ModelError("ARMA: p and q cannot both be 0")
        self.constant = bool(constant)

    def __repr__(self):
        return f"ARMA({self.p}, {self.q}, constant={self.constant})"


_LOG_SD = "log_sd"


@dataclass
class _Param:
    name: str          # reported name, e.g. "sigma2.level"
    kind: str          # log_sd | unit | freq | corr | free
    comp: int          # component position (structural) or -1
    attr: str          # attribute of the component
    analytic: bool     # gradient from the score

    def natural(self, th):
        if self.kind == _LOG_SD:
            return math.exp(2 * th)       # variance
        if self.kind == "unit":
            return 1.0 / (1.0 + math.exp(-th))
        if self.kind == "freq":
            return math.pi / (1.0 + math.exp(-th))
        if self.kind == "corr":
            return math.tanh(th)
        return th

    def bounds(self, scale):
        if self.kind == _LOG_SD:
            return (math.log(scale) - 12.0, math.log(scale) + 6.0)
        if self.kind == "free":
            return (None, None)
        return (-12.0, 12.0)


def _pacf_to_coef(r):
    """Partial autocorrelations -> coefficients of a stationary AR
    polynomial (Durbin-Levinson); used for AR and, with the sign convention
    of the MA polynomial, for invertible MA parts."""
    phi = np.zeros(0)
    for k, rk in enumerate(r):
        phi = np.r_[phi - rk * phi[::-1], rk]
    return phi


class _Problem:
    """The map theta -> Model for one model structure and data set."""

    def __init__(self, structure, data, exog):
        self.data = data
        y = data.values[0]
        obs = y[~np.isnan(y)]
        if obs.size < 3:
            raise ModelError("fit: at least three observed values are needed")
        dy = np.diff(obs)
        self.scale = float(np.std(obs)) or 1.0
        self.user_exog = exog          # n x k regressors given by the caller, or None
        self.constant = isinstance(structure, ARMA) and structure.constant
        self.exog = self.design(exog, data.n)
        self.params = []
        self.start = []
        if isinstance(structure, ARMA):
            self.kind = "arma"
            self.structure = structure
            for i in range(structure.p):
                self.params.append(_Param(f"ar.L{i + 1}", "corr", -1, "", False))
                self.start.append(0.0)
            for i in range(structure.q):
                self.params.append(_Param(f"ma.L{i + 1}", "corr", -1, "", False))
                self.start.append(0.0)
            self.params.append(_Param("sigma2", _LOG_SD, -1, "", False))
            self.start.append(math.log(self.scale))
            self.label = f"ARMA({structure.p},{structure.q})" + (" with constant" if structure.constant else "")
        else:
            self.kind = "structural"
            comps = C.check_components(structure)
            self.comps = comps
            names = C.component_names(comps)
            nvar = sum(1 for c in comps if c.sigma is None)
            v0 = float(np.var(dy)) if dy.size > 1 else self.scale ** 2
            v0 = v0 if v0 > 0 else self.scale ** 2
            for j, (c, nm) in enumerate(zip(comps, names)):
                if c.sigma is None:
                    analytic = isinstance(c, (C.Level, C.Slope, C.Trend, C._Seasonal, C.Irregular))
                    self.params.append(_Param(f"sigma2.{nm}", _LOG_SD, j, "sigma", analytic))
                    if isinstance(c, (C.Cycle, C.ButterworthCycle, C.AR1, C.AR2)):
                        sd0 = math.sqrt(v0)
                    else:
                        sd0 = math.sqrt(v0 / max(nvar, 1))
                    self.start.append(math.log(sd0))
                for attr in c.free_parameters:
                    if getattr(c, attr) is None:
                        kind = {"frequency": "freq", "damping": "unit"}.get(attr, "corr")
                        self.params.append(_Param(f"{attr}.{nm}", kind, j, attr, False))
                        st = {"frequency": math.log((2 * math.pi / 20) / (math.pi - 2 * math.pi / 20)),
                              "damping": math.log(0.9 / 0.1), "phi": math.atanh(0.5),
                              "root1": math.atanh(0.5), "root2": math.atanh(0.3)}[attr]
                        self.start.append(st)
            self.label = " + ".join(names)
        self.start = np.array(self.start, dtype=float)
        self._var_pattern = None

    def design(self, user, n):
        """The regressors of the model: a constant (ARMA with constant)
        followed by the caller's regressors; None when there are none."""
        parts = ([np.ones((n, 1))] if self.constant else []) + ([user] if user is not None else [])
        return np.column_stack(parts) if parts else None

    # natural values and models
    def values(self, theta):
        """The reported parameters: variances, damping factors, frequencies,
        AR coefficients; for ARMA the AR and MA coefficients and sigma^2."""
        if self.kind == "arma":
            sp = self.structure
            ar = _pacf_to_coef(np.tanh(theta[:sp.p]))
            ma = -_pacf_to_coef(np.tanh(theta[sp.p:sp.p + sp.q]))
            return np.r_[ar, ma, math.exp(2 * theta[-1])]
        return np.array([p.natural(t) for p, t in zip(self.params, theta)])

    def jacobian(self, theta, h=1e-7):
        """d values / d theta (central differences; no library call)."""
        k = len(theta)
        J = np.zeros((k, k))
        for j in range(k):
            step = h * max(1.0, abs(theta[j]))
            tp, tm = np.array(theta, dtype=float), np.array(theta, dtype=float)
            tp[j] += step
            tm[j] -= step
            J[:, j] = (self.values(tp) - self.values(tm)) / (2 * step)
        return J

    def components(self, theta):
        comps = [c for c in self.comps]
        for p, t in zip(self.params, theta):
            c = comps[p.comp]
            val = math.exp(t) if p.kind == _LOG_SD else p.natural(t)
            comps[p.comp] = c.with_values(**{p.attr: val})
        return comps

    def model(self, theta, exog=None):
        exog = self.exog if exog is None else exog
        if self.kind == "arma":
            sp = self.structure
            ar = _pacf_to_coef(np.tanh(theta[:sp.p]))
            ma = -_pacf_to_coef(np.tanh(theta[sp.p:sp.p + sp.q]))
            sigma = math.exp(theta[-1])
            mod = _arma_model(ar, ma, sigma)
        else:
            mod = C.structural(self.components(theta))
        if exog is not None:
            mod = C.add_regression(mod, exog)
        return mod

    def var_patterns(self, theta):
        """B_k = d var / d sigma_k^2 for the analytic parameters (the
        structural variances enter var linearly)."""
        if self._var_pattern is None:
            pats = {}
            for k, p in enumerate(self.params):
                if p.analytic:
                    hi, lo = np.array(theta, dtype=float), np.array(theta, dtype=float)
                    hi[k] = 0.0                      # sigma = 1
                    lo[k] = -np.inf                  # sigma = 0
                    pats[k] = self.model(hi).var - self.model(lo).var
            self._var_pattern = pats
        return self._var_pattern

    # log-likelihood and gradient
    def loglik(self, theta):
        return A.loglik(self.data_y, self.model(theta)).loglik

    @property
    def data_y(self):
        return self.data.values.T

    def loglik_grad(self, theta, step=1e-4):
        theta = np.asarray(theta, dtype=float)
        mod = self.model(theta)
        pats = self.var_patterns(theta)
        g = np.zeros(theta.size)
        if pats:
            sc = A.score(self.data_y, mod)
            ll = sc.loglik
            for k, B in pats.items():
                g[k] = 0.5 * float(np.sum(sc.matrix * B)) * 2.0 * math.exp(2 * theta[k])
        else:
            ll = A.loglik(self.data_y, mod).loglik
        for k, p in enumerate(self.params):
            if not p.analytic:
                h = step * max(1.0, abs(theta[k]))
                tp, tm = theta.copy(), theta.copy()
                tp[k] += h
                tm[k] -= h
                g[k] = (self.loglik(tp) - self.loglik(tm)) / (2 * h)
        return ll, g


def _arma_model(ar, ma, sigma):
    # Guards the builder against coefficients that are stationary only up to
    # rounding: the transform keeps them strictly inside.
    if ar.size == 0 and ma.size == 0:
        raise ModelError("ARMA: nothing to build")
    return C.arma(ar, ma, sigma)


# ------------------------------------------------------------ diagnostics


def ljung_box(e, lags, dof_adjust=0):
    """Ljung-Box portmanteau statistic of the series e (NaN dropped) over
    ``lags`` autocorrelations; returns (Q, df, p-value) with df = lags -
    dof_adjust (at least 1)."""
    from scipy import stats
    e = np.asarray(e, dtype=float)
    e = e[~np.isnan(e)]
    n = e.size
    d = e - e.mean()
    denom = np.sum(d * d)
    r = np.array([np.sum(d[k:] * d[:-k]) / denom for k in range(1, lags + 1)])
    q = n * (n + 2) * np.sum(r ** 2 / (n - np.arange(1, lags + 1)))
    df = max(lags - dof_adjust, 1)
    return float(q), int(df), float(stats.chi2.sf(q, df))


def jarque_bera(e):
    """Jarque-Bera normality statistic (skewness and kurtosis of e) and its
    chi-squared(2) p-value."""
    from scipy import stats
    e = np.asarray(e, dtype=float)
    e = e[~np.isnan(e)]
    n = e.size
    d = e - e.mean()
    m2 = np.mean(d ** 2)
    skew = np.mean(d ** 3) / m2 ** 1.5
    kurt = np.mean(d ** 4) / m2 ** 2
    jb = n * (skew ** 2 / 6 + (kurt - 3) ** 2 / 24)
    return float(jb), float(skew), float(kurt), float(stats.chi2.sf(jb, 2))


def heteroskedasticity(e):
    """H(h): sum of squares of the last h over the first h values of e (NaN
    dropped), h = round(n/3); two-sided p-value from F(h, h)."""
    from scipy import stats
    e = np.asarray(e, dtype=float)
    e = e[~np.isnan(e)]
    h = int(round(e.size / 3))
    if h < 1:
        return float("nan"), h, float("nan")
    H = float(np.sum(e[-h:] ** 2) / np.sum(e[:h] ** 2))
    p = 2 * min(stats.f.sf(H, h, h), stats.f.cdf(H, h, h))
    return H, h, float(p)


@dataclass
class Diagnostics:
    """Residual diagnostics of the standardised one-step innovations
    (observed times after the first d, the diffuse elements)."""
    residuals: Any
    ljung_box: tuple     # (Q, df, p, lags)
    normality: tuple     # (JB, skewness, kurtosis, p)
    heteroskedasticity: tuple  # (H, h, p)


# --------------------------------------------------------------- forecasts


def extend_index(index, h):
    """The index of h further time points after ``index``: a DatetimeIndex
    with a frequency (given or inferred), a PeriodIndex, a RangeIndex or an
    integer index with a constant step (e.g. years); None stays None."""
    import pandas as pd
    if index is None:
        return None
    if isinstance(index, pd.PeriodIndex):
        return pd.period_range(index[-1] + 1, periods=h, freq=index.freq)
    if isinstance(index, pd.DatetimeIndex):
        freq = index.freq or (pd.infer_freq(index) if len(index) >= 3 else None)
        if freq is None:
            raise ModelError("forecast: the DatetimeIndex has no frequency to extend")
        return pd.date_range(index[-1], periods=h + 1, freq=freq)[1:]
    if isinstance(index, pd.RangeIndex):
        step = index.step
        return pd.RangeIndex(index[-1] + step, index[-1] + step * (h + 1), step, name=index.name)
    if pd.api.types.is_integer_dtype(index.dtype):
        vals = np.asarray(index)
        steps = np.diff(vals)
        step = int(steps[0]) if steps.size and np.all(steps == steps[0]) else None
        if step is None or step == 0:
            raise ModelError("forecast: the integer index has no constant step to extend")
        return pd.Index(vals[-1] + step * np.arange(1, h + 1), name=index.name)
    raise ModelError(f"forecast: cannot extend an index of type {type(index).__name__}")


@dataclass
class Forecast:
    """h-step forecasts of the observations: ``mean``, ``var`` (prediction
    variance, observation noise included), ``lower``/``upper`` bounds at
    ``level``; pandas objects with the extended index when the data came as
    pandas."""
    mean: Any
    var: Any
    lower: Any
    upper: Any
    level: float

    def frame(self):
        import pandas as pd
        return pd.DataFrame({"forecast": np.asarray(self.mean), "lower": np.asarray(self.lower),
                             "upper": np.asarray(self.upper), "variance": np.asarray(self.var)},
                            index=getattr(self.mean, "index", None))


# ----------------------------------------------------------------- result


@dataclass
class FitResult:
    """A fitted model. ``params``: DataFrame (estimate on the reported scale,
    standard error, theta and its standard error, whether at a bound);
    ``loglik``; ``k`` estimated parameters; ``d`` diffuse initial elements;
    ``nobs`` observed values; AIC = -2 loglik + 2 (k + d), BIC = -2 loglik
    + (k + d) log(nobs)."""
    label: str
    model: Model
    params: Any
    loglik: float
    k: int
    d: int
    nobs: int
    n: int
    converged: bool
    message: str
    iterations: int
    theta: np.ndarray
    cov_theta: np.ndarray
    components_spec: Any
    data: Any
    exog: Any = None
    exog_names: Any = None
    _problem: Any = None

    @property
    def aic(self):
        return -2 * self.loglik + 2 * (self.k + self.d)

    @property
    def bic(self):
        return -2 * self.loglik + (self.k + self.d) * math.log(self.nobs)

    @property
    def y(self):
        d = self.data
        if d.pandas:
            import pandas as pd
            return pd.Series(d.values[0], index=d.index, name=d.columns[0])
        return d.values[0].copy()

    # ---- moments and components
    def smoothed(self):
        return A.smoothed(self.y, self.model)

    def diagnostics(self, lags=None):
        f = A.kalman_filter(self.y, self.model)
        e = np.array(f.standardized)
        # drop the first d observed values (the diffuse elements)
        obs = np.flatnonzero(~np.isnan(self.data.values[0]))
        e[obs[: self.d]] = np.nan
        ee = e[~np.isnan(e)]
        if lags is None:
            lags = max(1, min(10, ee.size // 5))
        lb = ljung_box(ee, lags, dof_adjust=self.k - 1)
        resid = e
        if self.data.pandas:
            import pandas as pd
            resid = pd.Series(e, index=self.data.index, name="standardised innovation")
        return Diagnostics(resid, lb + (lags,), jarque_bera(ee), heteroskedasticity(ee))

    def components(self, level=0.95):
        """Smoothed components with bands (structural models): a DataFrame
        with columns ``<name>``, ``<name>.lower``, ``<name>.upper`` for each
        component (level or trend, slope, seasonal, cycles, autoregressions,
        irregular), plus ``signal`` (the smoothed signal) and the data.
        Bands are mean -/+ z sqrt(variance); the trigonometric seasonal (a
        sum of states) has no band."""
        import pandas as pd
        from scipy import stats
        z = stats.norm.ppf(0.5 + level / 2)
        sm = self.smoothed()
        st = np.asarray(sm.state)
        sv = np.asarray(sm.state_var)
        Z = self.model.Z[0]
        cols = {"observed": self.data.values[0]}
        layout = self.model.info.get("components", [])
        for name, start, size, comp in layout:
            if isinstance(comp, C.Irregular):
                dist = A.disturbances(self.y, self.model)
                mean = np.asarray(dist.mean)[:, self.model.m]
                var = np.asarray(dist.var)[:, self.model.m]
            elif isinstance(comp, C.Slope):
                mean, var = st[:, start], sv[:, start]
            else:
                w = Z[start:start + size]
                mean = st[:, start:start + size] @ w
                nz = np.flatnonzero(w)
                var = sv[:, start + nz[0]] * w[nz[0]] ** 2 if nz.size == 1 else np.full(len(mean), np.nan)
            cols[name] = mean
            sd = np.sqrt(np.clip(var, 0, None))
            cols[f"{name}.lower"] = mean - z * sd
            cols[f"{name}.upper"] = mean + z * sd
        sig = np.asarray(sm.signal)[:, 0]
        sgv = np.asarray(sm.signal_var)[:, 0]
        cols["signal"] = sig
        cols["signal.lower"] = sig - z * np.sqrt(np.clip(sgv, 0, None))
        cols["signal.upper"] = sig + z * np.sqrt(np.clip(sgv, 0, None))
        return pd.DataFrame(cols, index=self.data.index)

    def regression_coefficients(self):
        """Estimated regression effects (the diffuse constant of an ARMA fit
        among them): smoothed value and standard error."""
        import pandas as pd
        if self.exog is None:
            return None
        k = self.exog.shape[1]
        sm = self.smoothed()
        st, sv = np.asarray(sm.state), np.asarray(sm.state_var)
        names = self.exog_names or [f"beta{i}" for i in range(k)]
        return pd.DataFrame({"estimate": st[-1, :k], "std.error": np.sqrt(sv[-1, :k])}, index=names)

    def forecast(self, h, level=0.95, exog=None):
        """Forecasts h steps beyond the data with prediction intervals:
        the series is extended by h missing values and the predicted
        moments (LgmMomentEst 0) give the mean and the variance F."""
        import pandas as pd
        from scipy import stats
        if isinstance(h, bool) or not isinstance(h, (int, np.integer)) or h < 1:
            raise ModelError(f"forecast: h must be a positive int, got {h!r}")
        if not (isinstance(level, float) and 0 < level < 1):
            raise ModelError(f"forecast: level must be a float in (0, 1), got {level!r}")
        n = self.data.n
        y = np.r_[self.data.values[0], np.full(h, np.nan)]
        model = self.model
        if self.exog is not None:
            prob = self._problem
            fut = None
            if prob.user_exog is not None:
                if exog is None:
                    raise ModelError("forecast: the model has regressors; give their future "
                                     "values (exog, h x k)")
                fut = C._regressors(exog, "exog").T
                if fut.shape != (h, prob.user_exog.shape[1]):
                    raise ModelError(f"forecast: exog must be {h} x {prob.user_exog.shape[1]}, "
                                     f"got {fut.shape}")
                fut = np.vstack([prob.user_exog, fut])
            model = prob.model(self.theta, prob.design(fut, n + h))
        pm = A.predicted(y, model)
        mean = np.asarray(pm.signal)[n:, 0]
        var = np.asarray(pm.signal_var)[n:, 0]
        z = stats.norm.ppf(0.5 + level / 2)
        lo, up = mean - z * np.sqrt(var), mean + z * np.sqrt(var)
        if self.data.pandas:
            idx = extend_index(self.data.index, h)
            name = self.data.columns[0]
            mean, var, lo, up = (pd.Series(a, index=idx, name=name) for a in (mean, var, lo, up))
        return Forecast(mean, var, lo, up, level)

    def plot(self, path=None, forecast=None, level=0.95):
        """Data, smoothed components with bands and optional forecasts
        (see :func:`tessel.plotting.plot_fit`)."""
        from .plotting import plot_fit
        return plot_fit(self, path=path, forecast=forecast, level=level)

    def summary(self):
        lines = [f"Tessel maximum likelihood fit: {self.label}",
                 f"  observations: {self.n} time points, {self.nobs} observed, "
                 f"{self.n - self.nobs} missing",
                 "",
                 f"  {'parameter':<22}{'estimate':>14}{'std.error':>14}"]
        for name, row in self.params.iterrows():
            se = row["std.error"]
            se_s = f"{se:14.6g}" if np.isfinite(se) else f"{'(at bound)' if row['at_bound'] else 'n/a':>14}"
            lines.append(f"  {name:<22}{row['estimate']:14.6g}{se_s}")
        reg = self.regression_coefficients()
        if reg is not None:
            lines.append("")
            lines.append(f"  {'regression effect':<22}{'estimate':>14}{'std.error':>14}")
            for name, row in reg.iterrows():
                lines.append(f"  {str(name):<22}{row['estimate']:14.6g}{row['std.error']:14.6g}")
        lines += ["",
                  f"  log-likelihood {self.loglik:.4f}   AIC {self.aic:.4f}   BIC {self.bic:.4f}",
                  f"  (k = {self.k} estimated parameters, d = {self.d} diffuse initial elements; "
                  "AIC = -2 logL + 2(k+d), BIC = -2 logL + (k+d) log(nobs))",
                  f"  optimiser: {'converged' if self.converged else 'NOT converged'} after "
                  f"{self.iterations} iterations ({self.message})"]
        dg = self.diagnostics()
        q, df, p, lags = dg.ljung_box
        jb, sk, ku, pj = dg.normality
        H, hh, ph = dg.heteroskedasticity
        lines += ["",
                  "  Diagnostics of the standardised innovations:",
                  f"    Ljung-Box Q({lags}) = {q:.3f}  (df {df}, p = {p:.3f})",
                  f"    Jarque-Bera normality = {jb:.3f}  (skewness {sk:.3f}, kurtosis {ku:.3f}, "
                  f"p = {pj:.3f})",
                  f"    Heteroskedasticity H({hh}) = {H:.3f}  (two-sided p = {ph:.3f})"]
        return "\n".join(lines)

    def __repr__(self):
        return f"<tessel.FitResult {self.label}: loglik {self.loglik:.4f}>"


# -------------------------------------------------------------------- fit


def fit(y, structure, exog=None, maxiter=500, progress=None, tol=1e-9):
    """Estimate a model by maximum likelihood.

    ``structure``: a list of structural components (parameters left as None are
    estimated; fixed values stay), or :class:`ARMA` orders. ``exog``:
    regressors (n x k), added as regression effects in front of the model.
    ``progress``: None, True (print iterations and log-likelihood to
    stderr) or a callable ``progress(iteration, loglik)``.
    """
    from scipy import optimize
    import pandas as pd

    data = A._Data(y, None)
    if data.N != 1:
        raise ModelError("fit: one series is expected (1-D array or pandas Series)")
    X = None
    xnames = []
    if exog is not None:
        X = C._regressors(exog, "exog").T
        if X.shape[0] != data.n:
            raise ModelError(f"exog: has {X.shape[0]} time points, the series {data.n}")
        xnames = list(exog.columns) if isinstance(exog, pd.DataFrame) else \
            [exog.name] if isinstance(exog, pd.Series) and exog.name is not None else \
            [f"beta{i}" for i in range(X.shape[1])]
    if isinstance(maxiter, bool) or not isinstance(maxiter, (int, np.integer)) or maxiter < 1:
        raise ModelError(f"fit: maxiter must be a positive int, got {maxiter!r}")
    if not (progress is None or progress is True or progress is False or callable(progress)):
        raise ModelError("fit: progress must be None, True or a callable(iteration, loglik)")
    if not isinstance(structure, ARMA):
        comps = C.check_components(structure)
        if not any(c.sigma is None or any(getattr(c, a) is None for a in c.free_parameters)
                   for c in comps):
            raise ModelError("fit: nothing to estimate (every parameter is fixed)")
        structure = comps
    prob = _Problem(structure, data, X)
    prob.exog_names = (["const"] if isinstance(structure, ARMA) and structure.constant else []) + xnames
    if not prob.params:
        raise ModelError("fit: nothing to estimate")
    nobs_eff = max(int(np.sum(~np.isnan(data.values))), 1)

    report = None
    if progress is True:
        def report(it, ll):
            print(f"  iteration {it:4d}   log-likelihood {ll:.6f}", file=sys.stderr, flush=True)
    elif callable(progress):
        report = progress

    last = {"ll": -np.inf, "it": 0, "seen": {}}

    def objective(theta):
        try:
            ll, g = prob.loglik_grad(theta)
        except NumericalError:
            return 1e10, np.zeros_like(theta)
        if not np.isfinite(ll):
            return 1e10, np.zeros_like(theta)
        last["ll"] = ll
        last["seen"] = {theta.tobytes(): ll}
        return -ll / nobs_eff, -g / nobs_eff

    def callback(xk):
        last["it"] += 1
        if report is not None:
            ll = last["seen"].get(np.asarray(xk, dtype=float).tobytes())
            report(last["it"], ll if ll is not None else prob.loglik(xk))

    bounds = [p.bounds(prob.scale) for p in prob.params]
    res = optimize.minimize(objective, prob.start, jac=True, method="L-BFGS-B", bounds=bounds,
                            callback=callback, options={"maxiter": int(maxiter), "ftol": tol,
                                                        "gtol": 1e-7})
    theta = res.x
    model = prob.model(theta)
    ll = A.loglik(prob.data_y, model).loglik

    # Hessian in theta from central differences of the gradient
    k = theta.size
    at_bound = np.array([(b[0] is not None and t <= b[0] + 1e-6) or
                         (b[1] is not None and t >= b[1] - 1e-6) for t, b in zip(theta, bounds)])
    H = np.zeros((k, k))
    for j in range(k):
        hstep = 1e-4 * max(1.0, abs(theta[j]))
        tp, tm = theta.copy(), theta.copy()
        tp[j] += hstep
        tm[j] -= hstep
        H[:, j] = (prob.loglik_grad(tp)[1] - prob.loglik_grad(tm)[1]) / (2 * hstep)
    H = (H + H.T) / 2
    cov = np.full((k, k), np.nan)
    free = ~at_bound
    if free.any():
        sub = -H[np.ix_(free, free)]
        try:
            cov_sub = np.linalg.inv(sub)
            if np.all(np.diag(cov_sub) > 0):
                cov[np.ix_(free, free)] = cov_sub
        except np.linalg.LinAlgError:
            pass
    se_theta = np.sqrt(np.diag(cov))
    est = prob.values(theta)
    J = prob.jacobian(theta)
    with np.errstate(invalid="ignore"):
        se = np.sqrt(np.diag(J @ np.where(np.isnan(cov), 0.0, cov) @ J.T))
    se[~np.isfinite(se_theta)] = np.nan
    params = pd.DataFrame({"estimate": est, "std.error": se, "theta": theta,
                           "theta.std.error": se_theta, "at_bound": at_bound},
                          index=[p.name for p in prob.params])
    fitted_structure = prob.components(theta) if prob.kind == "structural" else prob.structure
    return FitResult(
        label=prob.label, model=model, params=params, loglik=float(ll), k=k, d=model.diffuse,
        nobs=int(np.sum(~np.isnan(data.values))), n=data.n, converged=bool(res.success),
        message=str(res.message), iterations=int(res.nit), theta=theta, cov_theta=cov,
        components_spec=fitted_structure, data=data, exog=prob.exog,
        exog_names=prob.exog_names or None, _problem=prob)
