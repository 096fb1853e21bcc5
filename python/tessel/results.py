"""Fitted models: estimates and standard errors, fit statistics,
diagnostics, smoothed components, forecasts, plots and a JSON document.

Standard errors: from the Hessian H of the log-likelihood in theta (the
optimiser's scale; central differences of the gradient), carried to the
reported scale by the delta method (J Cov J' with J the Jacobian of the
reported values in theta). The rule at bounds: a parameter within 0.5 in
theta of a bound of the search (a variance below about 1e-10 of the data's
variance, a damping factor within 1e-5 of 1, a partial autocorrelation
within 1e-6 of +-1) is "at the bound" and has no standard error, because
the curvature there says nothing about its uncertainty; the others get
Cov(theta) = (-H)^-1 over the parameters not at a bound. Where that
matrix is not positive definite (a flat direction of the likelihood),
the parameters that load on a flat direction get none and the others the
generalised inverse. Parameter counts: k = number of estimated
parameters; d = number of diffuse initial elements (regression effects,
the SARIMA constant and difference states among them); AIC = -2 logL +
2 (k + d), BIC = -2 logL + (k + d) log(number of observed values).
"""

import json
import math
from dataclasses import dataclass
from typing import Any

import numpy as np

from . import analysis as A
from . import components as C
from .convert import integer, probability
from .diagnostics import Diagnostics, heteroskedasticity, jarque_bera, ljung_box, normal_quantile
from .limits import check_memory
from .model import ModelError

__all__ = ["FitResult", "Forecast", "extend_index", "RESULTS_SCHEMA_VERSION"]

RESULTS_SCHEMA_VERSION = 1


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
            raise ModelError("extend_index: the DatetimeIndex has no frequency to extend")
        return pd.date_range(index[-1], periods=h + 1, freq=freq)[1:]
    if isinstance(index, pd.RangeIndex):
        step = index.step
        return pd.RangeIndex(index[-1] + step, index[-1] + step * (h + 1), step, name=index.name)
    if pd.api.types.is_integer_dtype(index.dtype):
        vals = np.asarray(index)
        steps = np.diff(vals)
        step = int(steps[0]) if steps.size and np.all(steps == steps[0]) else None
        if step is None or step == 0:
            raise ModelError("extend_index: the integer index has no constant step to extend")
        return pd.Index(vals[-1] + step * np.arange(1, h + 1), name=index.name)
    raise ModelError(f"extend_index: cannot extend an index of type {type(index).__name__}")


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


def _num(x):
    """A float for JSON: None for NaN and infinities."""
    x = float(x)
    return x if math.isfinite(x) else None


class FitResult:
    """A fitted model.

    ``params``: DataFrame of the parameters (estimate on the reported
    scale, standard error, theta and its standard error, at_bound, fixed);
    ``loglik``; ``k`` estimated parameters; ``d`` diffuse initial elements;
    ``nobs`` observed values; ``n`` time points; ``aic``, ``bic``;
    ``convergence``: a dict (converged as judged from the gradient and the
    curvature, the optimiser's own verdict and message, iterations,
    evaluations, starts and their log-likelihoods, largest gradient,
    expected improvement of a Newton step, notes); ``model``: the fitted
    :class:`tessel.Model`; ``notes``: what was done to the input (set by
    the command). See the module docstring for the standard errors.
    """

    def __init__(self, lik, theta, loglik, cov, at_bound, convergence):
        self.likelihood = lik
        self.label = lik.label
        self.data = lik.data
        self.theta = np.asarray(theta, dtype=float)
        self.loglik = float(loglik)
        self.cov_theta = cov
        self.at_bound = np.asarray(at_bound, dtype=bool)
        self.convergence = convergence
        self.model = lik.model(self.theta)
        self.names = list(lik.names)
        self.estimates = lik.values(self.theta)
        self.se_theta = np.sqrt(np.where(np.diag(cov) >= 0, np.diag(cov), np.nan))
        J = lik.jacobian(self.theta)
        with np.errstate(invalid="ignore"):
            se = np.sqrt(np.diag(J @ np.where(np.isnan(cov), 0.0, cov) @ J.T))
        se[~np.isfinite(self.se_theta)] = np.nan
        self.std_errors = se
        self.fixed = dict(lik.fixed)
        self.k = len(self.names)
        self.d = self.model.diffuse
        self.nobs = lik.nobs
        self.n = self.data.n
        self.components_spec = lik.form.components(self.theta) if hasattr(lik.form, "comps") \
            else lik.form.spec
        self.notes = []
        self._smoothed = None

    # ---- compatibility views
    @property
    def converged(self):
        return self.convergence["converged"]

    @property
    def message(self):
        return self.convergence["optimizer_message"]

    @property
    def iterations(self):
        return self.convergence["iterations"]

    @property
    def params(self):
        import pandas as pd
        rows = [(n, e, s, t, st, b, False) for n, e, s, t, st, b in
                zip(self.names, self.estimates, self.std_errors, self.theta, self.se_theta,
                    self.at_bound)]
        rows += [(n, v, np.nan, np.nan, np.nan, False, True) for n, v in self.fixed.items()]
        df = pd.DataFrame([r[1:] for r in rows], index=[r[0] for r in rows],
                          columns=["estimate", "std.error", "theta", "theta.std.error",
                                   "at_bound", "fixed"])
        return df

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
            if d.N > 1:
                return pd.DataFrame(d.values.T, index=d.index, columns=d.columns)
            return pd.Series(d.values[0], index=d.index, name=d.columns[0])
        return self._y()

    def _y(self):
        """The data as the library functions take them (n, or n x N)."""
        return self.data.values[0].copy() if self.data.N == 1 else self.data.values.T.copy()

    @property
    def series(self):
        return [str(c) for c in self.data.columns]

    # ---- moments and components
    def smoothed(self):
        """Smoothed moments of the fitted model (computed once)."""
        if self._smoothed is None:
            self._smoothed = A.smoothed(self._y(), self.model)
        return self._smoothed

    def standardized_innovations(self):
        """n x N one-step innovations standardised by the Cholesky factor of
        their inverse variance (over the observed elements); NaN for the
        first d/N observed values of each series (the diffuse elements) and
        where missing."""
        f = A.kalman_filter(self._y(), self.model)
        v = np.asarray(f.innovations, dtype=float).reshape(self.n, self.data.N)
        e = np.full(v.shape, np.nan)
        if self.data.N == 1:
            e[:, 0] = f.standardized
        for t in range(self.n if self.data.N > 1 else 0):
            o = np.flatnonzero(~np.isnan(self.data.values[:, t]))
            if o.size:
                Fi = f.inverse_variances[t][np.ix_(o, o)]
                try:
                    e[t, o] = np.linalg.cholesky(Fi).T @ v[t, o]
                except np.linalg.LinAlgError:
                    pass
        skip = self.d // self.data.N
        for j in range(self.data.N):
            obs = np.flatnonzero(~np.isnan(self.data.values[j]))
            e[obs[:skip], j] = np.nan
        return e

    def diagnostics(self, lags=None):
        """Ljung-Box, Jarque-Bera and heteroskedasticity tests of the
        standardised innovations (the first d observed values left out): a
        Diagnostics, or a list of one per series for several series."""
        lags = integer(lags, "diagnostics: lags", 1, max(1, self.nobs - 1), allow_none=True)
        E = self.standardized_innovations()
        out = []
        for j, name in enumerate(self.series):
            e = E[:, j]
            ee = e[~np.isnan(e)]
            nl = max(1, min(10, ee.size // 5)) if lags is None else lags
            lb = ljung_box(ee, nl, dof_adjust=self.k - 1)
            resid = e
            if self.data.pandas:
                import pandas as pd
                resid = pd.Series(e, index=self.data.index, name=name)
            out.append(Diagnostics(resid, lb + (nl,), jarque_bera(ee), heteroskedasticity(ee)))
        return out[0] if self.data.N == 1 else out

    def _effects(self):
        """[(name, estimate, std. error)] of the regression effects (and a
        SARIMA constant): the smoothed constant states."""
        eff = self.likelihood.effects()
        if not eff:
            return []
        sm = self.smoothed()
        st, sv = np.asarray(sm.state), np.asarray(sm.state_var)
        return [(nm, float(st[-1, i]), float(math.sqrt(max(sv[-1, i], 0.0)))) for nm, i in eff]

    def regression_coefficients(self):
        """Estimated regression effects (and a SARIMA constant) with their
        standard errors: a DataFrame, or None when there are none."""
        import pandas as pd
        eff = self._effects()
        if not eff:
            return None
        return pd.DataFrame({"estimate": [e for _, e, _ in eff],
                             "std.error": [s for _, _, s in eff]}, index=[n for n, _, _ in eff])

    def component_columns(self, level=0.95):
        """Smoothed components as {column: array}; see :meth:`components`."""
        z = normal_quantile(0.5 + probability(level, "components: level") / 2)
        sm = self.smoothed()
        st, sv = np.asarray(sm.state), np.asarray(sm.state_var)
        N, m = self.data.N, self.model.m
        cols = {}
        dist = None

        def band(name, mean, var):
            cols[name] = mean
            sd = np.sqrt(np.clip(var, 0, None))
            cols[f"{name}.lower"] = mean - z * sd
            cols[f"{name}.upper"] = mean + z * sd

        for j, series in enumerate(self.series):
            tag = "" if N == 1 else f".{series}"
            Z = self.model.Z[j]
            cols[f"observed{tag}"] = self.data.values[j].copy()
            k = self.likelihood.k_reg
            if k:
                X = self.likelihood.user_exog
                P = np.asarray(A.predicted(self._y(), self.model).end)[:k, :k]
                band("regression", X @ st[-1, :k], np.einsum("ti,ij,tj->t", X, P, X))
            for name, start, size, comp in self.model.info.get("components", []):
                if isinstance(comp, C.Irregular):
                    dist = dist or A.disturbances(self._y(), self.model)
                    band(name + tag, np.asarray(dist.mean)[:, m + j],
                         np.asarray(dist.var)[:, m + j])
                    continue
                if isinstance(comp, C.Slope):
                    band(name + tag, st[:, start + j], sv[:, start + j])
                    continue
                w = Z[start:start + size]
                nz = np.flatnonzero(w)
                var = sv[:, start + nz[0]] * w[nz[0]] ** 2 if nz.size == 1 else \
                    np.full(st.shape[0], np.nan)
                band(name + tag, st[:, start:start + size] @ w, var)
            band("signal" + tag, np.asarray(sm.signal)[:, j].copy(),
                 np.asarray(sm.signal_var)[:, j])
        return cols

    def components(self, level=0.95):
        """Smoothed components with bands: a DataFrame with columns
        ``<name>``, ``<name>.lower``, ``<name>.upper`` for the regression
        effect x(t)' beta (when there are regressors) and each structural
        component (level or trend, slope, seasonal, cycles,
        autoregressions, irregular), plus ``signal`` (the smoothed signal)
        and the data (``observed``). Bands are mean -/+ z sqrt(variance);
        the trigonometric seasonal (a sum of states) has none (NaN)."""
        import pandas as pd
        return pd.DataFrame(self.component_columns(level), index=self.data.index)

    def forecast(self, h, level=0.95, exog=None):
        """Forecasts h steps beyond the data with prediction intervals:
        the series is extended by h missing values and the predicted
        moments (LgmMomentEst 0) give the mean and the variance F. With
        regressors, ``exog`` gives their h future values (h x k)."""
        if isinstance(h, bool) or not isinstance(h, (int, np.integer)) or h < 1:
            raise ModelError(f"forecast: h must be a positive int, got {h!r}")
        if not (isinstance(level, (float, np.floating)) and 0 < level < 1):
            raise ModelError(f"forecast: level must be a float in (0, 1), got {level!r}")
        lik, n, N = self.likelihood, self.data.n, self.data.N
        check_memory(8 * 8 * (n + h) * (self.model.m + N + 1), "forecast")
        y = np.vstack([self._y().reshape(n, N), np.full((h, N), np.nan)])
        y = y[:, 0] if N == 1 else y
        model = self.model
        if lik.user_exog is not None:
            if exog is None:
                raise ModelError("forecast: the model has regressors; give their future "
                                 f"values (exog, {h} x {lik.k_reg})")
            fut = C._regressors(exog, "exog").T
            if fut.shape != (h, lik.k_reg):
                raise ModelError(f"forecast: exog must be {h} x {lik.k_reg}, got {fut.shape}")
            model = lik.model(self.theta, np.vstack([lik.user_exog, fut]))
        pm = A.predicted(y, model)
        mean = np.asarray(pm.signal)[n:]
        var = np.asarray(pm.signal_var)[n:]
        z = normal_quantile(0.5 + level / 2)
        lo, up = mean - z * np.sqrt(var), mean + z * np.sqrt(var)
        if N == 1:
            mean, var, lo, up = (a[:, 0] for a in (mean, var, lo, up))
        if self.data.pandas:
            import pandas as pd
            idx = extend_index(self.data.index, h)
            if N == 1:
                name = self.data.columns[0]
                mean, var, lo, up = (pd.Series(a, index=idx, name=name)
                                     for a in (mean, var, lo, up))
            else:
                mean, var, lo, up = (pd.DataFrame(a, index=idx, columns=self.data.columns)
                                     for a in (mean, var, lo, up))
        return Forecast(mean, var, lo, up, level)

    # ---- output
    def plot(self, path=None, forecast=None, level=0.95, x=None, fx=None, xlabel=None):
        """Data, smoothed components with bands and optional forecasts
        (see :func:`tessel.plotting.plot_fit`)."""
        from .plotting import plot_fit
        if forecast is not None and not isinstance(forecast, Forecast):
            raise ModelError(f"plot: forecast must be the result of forecast(h) or None, got "
                             f"{type(forecast).__name__}")
        probability(level, "plot: level")
        return plot_fit(self, path=path, forecast=forecast, level=level, x=x, fx=fx,
                        xlabel=xlabel)

    def plot_diagnostics(self, path=None, x=None):
        """Standardised residuals, their autocorrelations, histogram and
        normal QQ plot (see :func:`tessel.plotting.plot_diagnostics`)."""
        from .plotting import plot_diagnostics
        return plot_diagnostics(self, path=path, x=x)

    def _cycle_lines(self):
        out = []
        for name, est in zip(self.names, self.estimates):
            if name.startswith("frequency.") and est > 0:
                out.append(f"  {name[len('frequency.'):]}: period {2 * math.pi / est:.4g} time "
                           f"points (frequency {est:.6g} radians)")
        return out

    def summary(self):
        """The report: parameters with standard errors, regression effects,
        fit statistics, convergence and residual diagnostics."""
        cells = self.n * self.data.N
        lines = [f"Tessel maximum likelihood fit: {self.label}",
                 f"  observations: {self.n} time points" +
                 (f" x {self.data.N} series" if self.data.N > 1 else "") +
                 f", {self.nobs} observed, {cells - self.nobs} missing"]
        lines += [f"  input: {note}" for note in self.notes]
        lines += ["", f"  {'parameter':<22}{'estimate':>14}{'std.error':>14}"]
        for name, est, se, ab in zip(self.names, self.estimates, self.std_errors,
                                     self.at_bound):
            se_s = f"{se:14.6g}" if np.isfinite(se) else \
                f"{'(at bound)' if ab else 'n/a (flat)':>14}"
            lines.append(f"  {name:<22}{est:14.6g}{se_s}")
        for name, v in self.fixed.items():
            lines.append(f"  {name:<22}{v:14.6g}{'(fixed)':>14}")
        lines += self._cycle_lines()
        eff = self._effects()
        if eff:
            lines += ["", f"  {'regression effect':<22}{'estimate':>14}{'std.error':>14}"]
            lines += [f"  {n:<22}{e:14.6g}{s:14.6g}" for n, e, s in eff]
        cv = self.convergence
        verdict = "converged" if cv["converged"] else "NOT converged"
        lines += ["",
                  f"  log-likelihood {self.loglik:.4f}   AIC {self.aic:.4f}   BIC {self.bic:.4f}",
                  f"  (k = {self.k} estimated parameters, d = {self.d} diffuse initial elements; "
                  "AIC = -2 logL + 2(k+d), BIC = -2 logL + (k+d) log(nobs))",
                  f"  optimiser: {verdict} (largest gradient {cv['max_gradient']:.2g}) after "
                  f"{cv['iterations']} iterations from {cv['starts']} start"
                  f"{'s' if cv['starts'] > 1 else ''} ({cv['optimizer_message']})"]
        lines += [f"  warning: {note}" for note in cv["notes"]]
        dgs = self.diagnostics()
        for name, dg in zip(self.series, dgs if isinstance(dgs, list) else [dgs]):
            q, df, p, lags = dg.ljung_box
            jb, sk, ku, pj = dg.normality
            H, hh, ph = dg.heteroskedasticity
            lines += ["",
                      "  Diagnostics of the standardised innovations" +
                      (f" of {name}:" if self.data.N > 1 else ":"),
                      f"    Ljung-Box Q({lags}) = {q:.3f}  (df {df}, p = {p:.3f})",
                      f"    Jarque-Bera normality = {jb:.3f}  (skewness {sk:.3f}, kurtosis "
                      f"{ku:.3f}, p = {pj:.3f})",
                      f"    Heteroskedasticity H({hh}) = {H:.3f}  (two-sided p = {ph:.3f})"]
        return "\n".join(lines)

    def to_dict(self):
        """Every figure of the summary as a JSON-ready dict (NaN as None);
        its schema is docs/results.schema.json."""
        from . import __version__
        dgs = self.diagnostics()
        diagnostics = []
        for name, dg in zip(self.series, dgs if isinstance(dgs, list) else [dgs]):
            q, df, p, lags = dg.ljung_box
            jb, sk, ku, pj = dg.normality
            H, hh, ph = dg.heteroskedasticity
            diagnostics.append({
                "series": name,
                "ljung_box": {"statistic": _num(q), "df": int(df), "p_value": _num(p),
                              "lags": int(lags)},
                "normality": {"statistic": _num(jb), "skewness": _num(sk),
                              "kurtosis": _num(ku), "p_value": _num(pj)},
                "heteroskedasticity": {"statistic": _num(H), "h": int(hh), "p_value": _num(ph)}})
        cv = self.convergence
        params = [{"name": n, "estimate": _num(e), "std_error": _num(s), "theta": _num(t),
                   "theta_std_error": _num(st), "at_bound": bool(b), "fixed": False}
                  for n, e, s, t, st, b in zip(self.names, self.estimates, self.std_errors,
                                               self.theta, self.se_theta, self.at_bound)]
        params += [{"name": n, "estimate": _num(v), "std_error": None, "theta": None,
                    "theta_std_error": None, "at_bound": False, "fixed": True}
                   for n, v in self.fixed.items()]
        return {
            "schema_version": RESULTS_SCHEMA_VERSION,
            "tessel_version": __version__,
            "model": self.label,
            "series": self.series,
            "observations": {"time_points": self.n, "observed": self.nobs,
                             "missing": self.n * self.data.N - self.nobs,
                             "notes": list(self.notes)},
            "diffuse": self.likelihood.diffuse,
            "parameters": params,
            "regression": [{"name": n, "estimate": _num(e), "std_error": _num(s)}
                           for n, e, s in self._effects()],
            "loglik": _num(self.loglik), "aic": _num(self.aic), "bic": _num(self.bic),
            "k": self.k, "d": self.d,
            "convergence": {"converged": bool(cv["converged"]),
                            "optimizer_success": bool(cv["optimizer_success"]),
                            "optimizer_message": cv["optimizer_message"],
                            "iterations": int(cv["iterations"]),
                            "evaluations": int(cv["evaluations"]),
                            "starts": int(cv["starts"]),
                            "start_logliks": [_num(v) for v in cv["start_logliks"]],
                            "max_gradient": _num(cv["max_gradient"]),
                            "expected_improvement": _num(cv["expected_improvement"]),
                            "notes": list(cv["notes"])},
            "diagnostics": diagnostics,
        }

    def to_json(self, **kw):
        """:meth:`to_dict` as a JSON text (``json.dumps`` keywords pass)."""
        return json.dumps(self.to_dict(), **kw)

    def __repr__(self):
        return f"<tessel.FitResult {self.label}: loglik {self.loglik:.4f}>"
