"""Filtering, smoothing, simulation and weights with named results.

Data are time-major, as people hold series: a 1-D array or a pandas
``Series`` for one series, an n x N array or a ``DataFrame`` for N series;
NaN marks a missing observation. Results are time-major too (one row per
time point) and, when the data came as pandas, carry the same index.

Every function checks its arguments, calls the library through
``tessel.call`` and turns a failure the library reports into
:class:`~tessel.model.NumericalError` (with the library's message).
"""

import sys
import warnings
from dataclasses import dataclass
from typing import Any

import numpy as np

from ._lowlevel import Ref, ZuError, call, capture_messages, set_seed
from .model import Model, ModelError, NumericalError

__all__ = [
    "kalman_filter", "loglik", "loglik_concentrated", "score", "predicted", "filtered",
    "smoothed", "disturbances", "conditional_density", "recursion", "simulate",
    "simulation_smoother", "weights",
    "FilterResult", "LogLik", "Score", "Moments", "Disturbances", "ConditionalDensity",
    "Recursion", "SimulationSmoother", "Weights",
]


# ---------------------------------------------------------------- data


class _Data:
    """Observations converted for the library (N x n) with what is needed to
    give results the caller's index back."""

    def __init__(self, y, model=None, name="y"):
        # pandas data can only come from an imported pandas: no import here
        pd = sys.modules.get("pandas")
        self.index, self.columns, self.pandas = None, None, False
        if pd is None:
            pass
        elif isinstance(y, pd.Series):
            self.index, self.columns, self.pandas = y.index, [y.name if y.name is not None else "y"], True
            try:
                y = y.to_numpy(dtype=float, na_value=np.nan)
            except (TypeError, ValueError):
                raise ModelError(f"{name}: the series must be numeric") from None
        elif isinstance(y, pd.DataFrame):
            self.index, self.columns, self.pandas = y.index, list(y.columns), True
            try:
                y = y.to_numpy(dtype=float, na_value=np.nan)
            except (TypeError, ValueError):
                raise ModelError(f"{name}: every column must be numeric") from None
        if isinstance(y, (str, bytes)):
            raise ModelError(f"{name}: expected numbers, got a string")
        try:
            arr = np.array(y, dtype=float)
        except (TypeError, ValueError):
            raise ModelError(f"{name}: expected an array of numbers (NaN for missing)") from None
        if arr.ndim == 1:
            arr = arr[:, None]
        if arr.ndim != 2:
            raise ModelError(f"{name}: expected 1-D (one series) or 2-D (time points x series), "
                             f"got {arr.ndim}-D")
        if arr.shape[0] < 1:
            raise ModelError(f"{name}: no time points")
        if np.any(np.isinf(arr)):
            raise ModelError(f"{name}: infinite values (use NaN for missing observations)")
        if model is not None and arr.shape[1] != model.N:
            raise ModelError(f"{name}: has {arr.shape[1]} series but the model has N = {model.N}")
        self.values = np.ascontiguousarray(arr.T)  # N x n, a private copy
        self.N, self.n = self.values.shape
        if self.columns is None:
            self.columns = [f"y{i}" for i in range(self.N)] if self.N > 1 else ["y"]

    def frame(self, arr, columns):
        """n x k array -> DataFrame with the caller's index (pandas input) or
        the array itself."""
        if not self.pandas:
            return arr
        import pandas as pd
        return pd.DataFrame(arr, index=self.index, columns=columns)


def _check_model(model, where):
    if not isinstance(model, Model):
        raise ModelError(f"{where}: expected a tessel.Model, got {type(model).__name__}")


def _run(name, *args):
    """Call an entry point, collecting its messages; host errors (which the
    checks above should have made impossible) become ModelError."""
    with capture_messages() as msgs:
        try:
            out = call(name, *args)
        except ZuError as err:
            raise ModelError(f"{name}: {err}") from None
    return out, msgs


def _failed(name, msgs):
    text = " ".join(m.strip() for m in msgs) or f"{name} failed"
    return NumericalError(f"{text} (singular innovation variance, or fewer observations "
                          "than diffuse initial elements)")


def state_names(model):
    return [f"state{i}" for i in range(model.m)]


def _prepare(y, model, where, smoother=False):
    """Check the data against the model. The library needs more observed
    elements than diffuse initial elements; ``smoother`` marks backward
    passes, whose multivariate form carries NaN from a time point with no
    observation back to every earlier time point (a warning says so)."""
    _check_model(model, where)
    data = _Data(y, model)
    nobs = int(np.sum(~np.isnan(data.values)))
    if nobs <= model.diffuse:
        raise NumericalError(f"{where}: too few observations: {nobs} observed values for "
                             f"{model.diffuse} diffuse initial elements (at least one more needed)")
    if smoother and model.N > 1 and np.any(np.all(np.isnan(data.values), axis=0)):
        warnings.warn(f"{where}: a time point with every series missing makes the multivariate "
                      "smoother return NaN for it and every earlier time point", RuntimeWarning,
                      stacklevel=3)
    return data, model.args(data.n)


# ------------------------------------------------------------- filtering


@dataclass
class FilterResult:
    """Kalman filter output (time-major). ``innovations``: n x N (NaN when
    the whole observation vector is missing, 0 for a single missing
    element); ``gains``: n x m x N (K = M F^-1); ``inverse_variances``:
    n x N x N (F^-1; zero rows and columns for missing elements);
    ``store``: the library's filter store (S x n) for the smoothers."""
    innovations: Any
    gains: np.ndarray
    inverse_variances: np.ndarray
    store: np.ndarray
    index: Any = None

    @property
    def standardized(self):
        """Innovations scaled by sqrt(F) (one series only)."""
        v = np.asarray(self.innovations, dtype=float)
        f = self.inverse_variances[:, 0, 0]
        with np.errstate(invalid="ignore", divide="ignore"):
            e = np.where(f > 0, v[:, 0] * np.sqrt(f), np.nan)
        return e


def unpack_store(store, m, N):
    """Filter store (S x n) -> (innovations n x N, gains n x m x N,
    inverse variances n x N x N), following the store layout: rows 0..N-1
    the innovations, then for each series i the m gain elements of column i
    and the elements 0..i of column i of F^-1."""
    n = store.shape[1]
    v = store[:N].T.copy()
    K = np.zeros((n, m, N))
    Finv = np.zeros((n, N, N))
    for i in range(N):
        start = N + i * m + i * (i + 1) // 2
        K[:, :, i] = store[start:start + m].T
        col = store[start + m:start + m + i + 1].T  # Finv[0..i][i]
        Finv[:, : i + 1, i] = col
        Finv[:, i, : i + 1] = col
    return v, K, Finv


def kalman_filter(y, model):
    """Run the Kalman filter (KalmanFil) and unpack its store."""
    data, args = _prepare(y, model, "kalman_filter")
    store, msgs = _run("KalmanFil", data.values, *args)
    if store is None or not isinstance(store, np.ndarray):
        raise _failed("KalmanFil", msgs)
    v, K, Finv = unpack_store(store, model.m, model.N)
    return FilterResult(data.frame(v, data.columns), K, Finv, store, data.index)


@dataclass
class LogLik:
    """``loglik``: the log-likelihood; ``scale``: the mean squared
    standardised innovation (LgmLik) or the concentrated scale factor
    (LgmLikConc); ``nobs``: observed elements minus diffuse elements."""
    loglik: float
    scale: float
    nobs: int


def _nobs(data, model):
    return int(np.sum(~np.isnan(data.values))) - model.diffuse


def loglik(y, model):
    """Gaussian log-likelihood (LgmLik), diffuse elements by a large variance
    with the log-determinant and the count corrected for them."""
    data, args = _prepare(y, model, "loglik")
    ll, s2 = Ref(), Ref()
    ok, msgs = _run("LgmLik", ll, s2, data.values, *args)
    if ok != 1:
        raise _failed("LgmLik", msgs)
    return LogLik(ll.value, s2.value, _nobs(data, model))


def loglik_concentrated(y, model):
    """Log-likelihood with the scale factor concentrated out (LgmLikConc):
    the model's variances are taken relative to ``scale``."""
    data, args = _prepare(y, model, "loglik_concentrated")
    ll, s2 = Ref(), Ref()
    ok, msgs = _run("LgmLikConc", ll, s2, data.values, *args)
    if ok != 1:
        raise _failed("LgmLikConc", msgs)
    return LogLik(ll.value, s2.value, _nobs(data, model))


@dataclass
class Score:
    """``matrix`` S: d loglik / d var = S / 2 elementwise (for a symmetric
    change dV of the variance matrix, d loglik = tr(S dV) / 2)."""
    loglik: float
    scale: float
    matrix: np.ndarray

    @property
    def gradient(self):
        """d loglik / d var[i, j], treating the elements as free."""
        return self.matrix / 2.0


def score(y, model):
    """Log-likelihood and its score with respect to ``var`` (LgmLikSco)."""
    data, args = _prepare(y, model, "score", smoother=True)
    ll, s2, S = Ref(), Ref(), Ref()
    ok, msgs = _run("LgmLikSco", ll, s2, S, data.values, *args)
    if ok != 1:
        raise _failed("LgmLikSco", msgs)
    return Score(ll.value, s2.value, S.value)


# ------------------------------------------------------------- moments


@dataclass
class Moments:
    """Moments of the state and the observations at every time point.

    ``state``, ``state_var``: n x m (mean, variance diagonal);
    ``signal``, ``signal_var``: n x N. For predicted moments ``signal`` is
    the predicted observation and ``signal_var`` the innovation variance F;
    for filtered ones their updated versions; for smoothed ones the smoothed
    signal Z a^ plus the observation intercept and the variance of Z a^.
    ``end``: the library's (m+1) x m return value (predicted/filtered: the
    state variance and mean one step beyond the data; smoothed: N and r
    before the first time point).
    """
    kind: str
    state: Any
    state_var: Any
    signal: Any
    signal_var: Any
    end: np.ndarray
    index: Any = None


_CODES = {"predicted": 0, "filtered": 5, "smoothed": 1}


def _moments(y, model, kind):
    data, args = _prepare(y, model, kind, smoother=(kind == "smoothed"))
    M = Ref()
    end, msgs = _run("LgmMomentEst", _CODES[kind], M, data.values, *args)
    if not isinstance(end, np.ndarray):
        raise _failed("LgmMomentEst", msgs)
    m, N = model.m, model.N
    mom = M.value.T
    state, signal = mom[:, :m], mom[:, m:m + N].copy()
    svar, gvar = mom[:, m + N:2 * m + N], mom[:, 2 * m + N:]
    if kind == "smoothed":
        signal += model.obs_intercept_path(data.n)
    sn = state_names(model)
    return Moments(kind, data.frame(state, sn), data.frame(svar, sn),
                   data.frame(signal, data.columns), data.frame(gvar, data.columns),
                   end, data.index)


def predicted(y, model):
    """One-step predicted state and observation moments (LgmMomentEst 0)."""
    return _moments(y, model, "predicted")


def filtered(y, model):
    """Filtered state and observation moments (LgmMomentEst 5)."""
    return _moments(y, model, "filtered")


def smoothed(y, model):
    """Smoothed state and signal moments (LgmMomentEst 1)."""
    return _moments(y, model, "smoothed")


@dataclass
class Disturbances:
    """Smoothed disturbances: ``mean`` and ``var`` (variance diagonals), n x
    (m+N), state disturbances first, then the observation noise."""
    mean: Any
    var: Any
    end: np.ndarray
    index: Any = None


def disturbances(y, model):
    """Disturbance smoothing (LgmMomentEst 3): the smoothed mean of the
    disturbances and their conditional variance (var minus the reduction)."""
    data, args = _prepare(y, model, "disturbances", smoother=True)
    M = Ref()
    end, msgs = _run("LgmMomentEst", 3, M, data.values, *args)
    if not isinstance(end, np.ndarray):
        raise _failed("LgmMomentEst", msgs)
    p = model.m + model.N
    mom = M.value.T
    var = model.var_path(data.n) - mom[:, p:]
    cols = [f"eta{i}" for i in range(model.m)] + [f"eps_{c}" for c in data.columns]
    return Disturbances(data.frame(mom[:, :p].copy(), cols), data.frame(var, cols), end, data.index)


# -------------------------------------------------- conditional density


@dataclass
class ConditionalDensity:
    """State (n x m) and signal (n x N) -- or, for disturbances, state
    disturbances (n x m) and observation disturbances (n x N) -- either the
    conditional mean (``draw`` False) or one draw from the conditional
    density given the data."""
    target: str
    draw: bool
    state: Any
    observation: Any
    index: Any = None


def _check_seed(seed, rng):
    if seed is not None and rng is not None:
        raise ModelError("give seed or rng, not both")
    if rng is not None and not isinstance(rng, np.random.Generator):
        raise ModelError(f"rng: expected a numpy.random.Generator, got {type(rng).__name__}")
    if seed is not None and (isinstance(seed, bool) or not isinstance(seed, (int, np.integer))
                             or not 0 <= seed < 2**64):
        raise ModelError(f"seed: expected an int in [0, 2**64), got {seed!r}")


def _generator(seed, rng):
    """numpy Generator from seed= or rng= (checked)."""
    _check_seed(seed, rng)
    return rng if rng is not None else np.random.default_rng(seed)


def _seed(seed, rng):
    """Seed the host's generator from seed= or rng= (checked)."""
    _check_seed(seed, rng)
    if rng is not None:
        seed = int(rng.integers(0, 2**63))
    if seed is not None:
        set_seed(int(seed))


def conditional_density(y, model, target="state", draw=False, seed=None, rng=None):
    """Conditional mean or one conditional draw of the states and signal
    (``target="state"``) or of the disturbances (``target="disturbance"``)
    given the data.

    The mean comes from ``LgmCondDens`` (selections 1 and 3); note that its
    state mean uses the state block of ``var`` only, so for a model with
    covariance between state and observation disturbances it differs from
    :func:`smoothed`, which is exact. A draw comes from ``LgmCondDens``
    (selections 2 and 4, host generator seeded by ``seed``/``rng``) when no
    time point is wholly missing; otherwise, because that entry point
    returns NaN around missing time points, the same construction is made
    here from ``KalmanFil``, ``SimSmoWgt``, ``SimSmoDraw`` (a missing time
    point contributing nothing) and ``LgmRecursion``, with numpy's normal
    draws. The observation disturbances of a draw are data minus the drawn
    signal (NaN where the data are missing).
    """
    codes = {("state", False): 1, ("state", True): 2,
             ("disturbance", False): 3, ("disturbance", True): 4}
    if (target, bool(draw)) not in codes:
        raise ModelError(f"conditional_density: target must be 'state' or 'disturbance', got {target!r}")
    data, args = _prepare(y, model, "conditional_density", smoother=not draw)
    if draw and not np.any(np.diag(model.var)[:model.m] > 0):
        raise ModelError("conditional_density: no state disturbance has a positive variance, "
                         "so there is nothing to draw")
    m = model.m
    sc = state_names(model) if target == "state" else [f"eta{i}" for i in range(m)]
    gaps = np.any(np.all(np.isnan(data.values), axis=0))
    if draw and gaps:
        states, signal, eta = _composed_draw(data, model, args, seed, rng)
        first = states if target == "state" else eta
        second = signal if target == "state" else data.values.T - signal
        return ConditionalDensity(target, True, data.frame(first, sc),
                                  data.frame(second, data.columns), data.index)
    _seed(seed, rng)
    out, msgs = _run("LgmCondDens", codes[(target, bool(draw))], data.values, *args)
    if not isinstance(out, np.ndarray):
        raise _failed("LgmCondDens", msgs)
    out = out.T
    return ConditionalDensity(target, bool(draw), data.frame(out[:, :m].copy(), sc),
                              data.frame(out[:, m:].copy(), data.columns), data.index)


def _clean_store(store, N):
    """The filter store with the NaN innovations of wholly missing time
    points set to 0: their gains and inverse variances are already 0, so
    the time point then contributes nothing to a backward pass."""
    out = np.array(store)
    v = out[:N]
    v[np.isnan(v)] = 0.0
    return out


def _composed_draw(data, model, args, seed, rng):
    """One draw of the states, signal and state disturbances given the data
    (state disturbances with positive variance drawn by the simulation
    smoother, then run forwards through the model)."""
    gen = _generator(seed, rng)
    m, p, n = model.m, model.m + model.N, data.n
    sel = np.flatnonzero(np.diag(model.var)[:m] > 0)
    selmat = np.zeros((p, p))
    selmat[sel, sel] = 1.0
    store, msgs = _run("KalmanFil", data.values, *args)
    if not isinstance(store, np.ndarray):
        raise _failed("KalmanFil", msgs)
    wgt, msgs = _run("SimSmoWgt", selmat, store, *args)
    if not isinstance(wgt, np.ndarray):
        raise NumericalError(" ".join(msgs) or "SimSmoWgt failed")
    z = gen.standard_normal((sel.size, n))
    D, _ = _run("SimSmoDraw", selmat, z, wgt, _clean_store(store, model.N), *args)
    u = np.zeros((n + 1, p))
    u[:, :m] = D[:m].T                    # column 0: r before time 0; then the drawn eta(t)
    rec = recursion(model.with_tvdata_length(n + 1), u)
    return rec.state, rec.observation, D[:m, 1:].T.copy()


# ------------------------------------------------------------ simulation


@dataclass
class Recursion:
    """States alpha(t) (n x m) and observations y(t) (n x N) that given
    disturbances imply."""
    state: np.ndarray
    observation: np.ndarray


def recursion(model, disturbances):
    """Run the model forwards from disturbances (LgmRecursion).

    ``disturbances`` is (n+1) x (m+N), time-major: row 0 sets the initial
    state (see below), row t+1 holds the disturbances (state; observation)
    that produce alpha(t+1) and y(t). The initial state is a + kappa u for a
    diffuse element and a + (row of the init block) u otherwise, so pass the
    Choleski factor of the initial variance in ``init`` for a draw of the
    initial state (:func:`simulate` does that).
    """
    _check_model(model, "recursion")
    u = np.array(disturbances, dtype=float)
    if u.ndim != 2 or u.shape[1] != model.m + model.N or u.shape[0] < 2:
        raise ModelError(f"recursion: disturbances must be (n+1) x {model.m + model.N} with n >= 1, "
                         f"got shape {u.shape}")
    if not np.all(np.isfinite(u)):
        raise ModelError("recursion: disturbances must be finite")
    out, _ = _run("LgmRecursion", np.ascontiguousarray(u.T), *model.args(u.shape[0]))
    m = model.m
    return Recursion(out[:m, :-1].T.copy(), out[m:, 1:].T.copy())


def _sqrt_psd(a, name):
    w, v = np.linalg.eigh((a + a.T) / 2)
    if np.any(w < -1e-10 * max(1.0, np.abs(w).max())):
        raise ModelError(f"{name} is not positive semi-definite")
    return v * np.sqrt(np.clip(w, 0, None))


def simulate(model, n, seed=None, rng=None):
    """Draw states and observations of n time points from the model.

    Disturbances come from numpy's generator (``seed`` or ``rng``); the
    proper part of the initial state is drawn from its initial variance and
    diffuse elements start at their initial mean.
    """
    _check_model(model, "simulate")
    if isinstance(n, bool) or not isinstance(n, (int, np.integer)) or n < 1:
        raise ModelError(f"simulate: n must be a positive int, got {n!r}")
    gen = _generator(seed, rng)
    m, p = model.m, model.m + model.N
    mod = model.with_tvdata_length(n + 1)
    z = gen.standard_normal((n + 1, p))
    u = np.empty_like(z)
    if mod.varidx is None:
        u[1:] = z[1:] @ _sqrt_psd(mod.var, "var").T
    else:
        var = np.array(mod.var)
        tv = mod.tvdata
        for t in range(1, n + 1):
            # disturbances of column t belong to the system of time t-1
            mask = mod.varidx >= 0
            var[mask] = tv[mod.varidx[mask].astype(int), t - 1]
            u[t] = _sqrt_psd(var, "var") @ z[t]
    init = mod.init
    if init is None:
        u[0] = 0.0  # diffuse everywhere: start at zero
    else:
        P = np.array(init[:m])
        dif = np.diag(P) < 0
        P = np.tril(P) + np.tril(P, -1).T
        L = np.zeros((m, m))
        keep = ~dif
        if keep.any():
            L[np.ix_(keep, keep)] = _sqrt_psd(P[np.ix_(keep, keep)], "init")
        u[0] = 0.0
        u[0, :m] = z[0, :m]
        L[dif, dif] = -1.0  # diffuse marker; its disturbance is zero
        u[0, :m][dif] = 0.0
        mod = mod.replace(init=np.vstack([L, init[m:]]))
    return recursion(mod, u)


@dataclass
class SimulationSmoother:
    """Draws of the selected disturbances given the data: ``draws`` has
    shape (ndraws, n, m+N), unselected elements 0; ``selected``: the
    indices drawn; ``r0``: per draw, the backward vector before time 0."""
    draws: np.ndarray
    selected: np.ndarray
    r0: np.ndarray
    index: Any = None


def simulation_smoother(y, model, select=None, ndraws=1, seed=None, rng=None):
    """Simulation smoother (SimSmoWgt once, then SimSmoDraw per draw).

    ``select``: indices of the disturbance elements to draw (0..m-1 state,
    m..m+N-1 observation noise), default the state disturbances with a
    positive variance (selecting every element of a model makes the
    conditional variance singular: given the data and the later draws, the
    observation noise follows from the state disturbances). Standard normal
    draws come from numpy (``seed``/``rng``). A wholly missing time point
    contributes nothing (its NaN innovations are passed to the draws as 0).
    """
    data, args = _prepare(y, model, "simulation_smoother")
    p = model.m + model.N
    if select is None:
        sel = np.flatnonzero(np.diag(model.var)[:model.m] > 0)
        if sel.size == 0:
            sel = np.flatnonzero(np.diag(model.var) > 0)
    else:
        sel = np.unique(np.asarray(select, dtype=int).ravel())
        if sel.size and (sel.min() < 0 or sel.max() >= p):
            raise ModelError(f"simulation_smoother: select must be indices in 0..{p - 1}")
    if sel.size == 0:
        raise ModelError("simulation_smoother: nothing selected to draw")
    if isinstance(ndraws, bool) or not isinstance(ndraws, (int, np.integer)) or ndraws < 1:
        raise ModelError(f"simulation_smoother: ndraws must be a positive int, got {ndraws!r}")
    gen = _generator(seed, rng)
    selmat = np.zeros((p, p))
    selmat[sel, sel] = 1.0
    store, msgs = _run("KalmanFil", data.values, *args)
    if not isinstance(store, np.ndarray):
        raise _failed("KalmanFil", msgs)
    wgt, msgs = _run("SimSmoWgt", selmat, store, *args)
    if not isinstance(wgt, np.ndarray):
        raise NumericalError(" ".join(msgs) or "SimSmoWgt failed")
    clean = _clean_store(store, model.N)
    q, n = sel.size, data.n
    draws = np.zeros((ndraws, n, p))
    r0 = np.zeros((ndraws, model.m))
    for k in range(ndraws):
        z = gen.standard_normal((q, n))
        out, _ = _run("SimSmoDraw", selmat, z, wgt, clean, *args)
        draws[k] = out[:, 1:].T
        r0[k] = out[:model.m, 0]
    return SimulationSmoother(draws, sel, r0, data.index)


# --------------------------------------------------------------- weights


@dataclass
class Weights:
    """Weights of the observations of one series (one row per observation
    time) in the estimate of the state (n x m) and signal (n x N) at one
    time point."""
    kind: str
    time: int
    series: int
    state: Any
    signal: Any
    index: Any = None


def weights(y, model, time, series=0, kind="smoothed"):
    """Filter and smoother weights (LgmWeights): how each observation of
    ``series`` enters the predicted, filtered or smoothed state and signal
    at ``time`` (0-based position). Only the missing pattern of ``y`` is
    used (NaN = missing); the target observation itself must be present.
    """
    codes = {"predicted": 0, "filtered": 5, "smoothed": 1}
    if kind not in codes:
        raise ModelError(f"weights: kind must be one of {sorted(codes)}, got {kind!r}")
    data, args = _prepare(y, model, "weights")
    for name, v, top in (("time", time, data.n), ("series", series, data.N)):
        if isinstance(v, bool) or not isinstance(v, (int, np.integer)) or not 0 <= v < top:
            raise ModelError(f"weights: {name} must be an int in 0..{top - 1}, got {v!r}")
    if np.isnan(data.values[series, time]):
        raise ModelError("weights: the target observation (series, time) must not be missing")
    if kind != "predicted" and model.N > 1 and time == 0:
        raise ModelError("weights: filtered or smoothed weights at time 0 need N = 1")
    marker = np.where(np.isnan(data.values), np.nan, 0.0)
    marker[series, time] = 1.0
    out, msgs = _run("LgmWeights", codes[kind], marker, *args)
    if not isinstance(out, np.ndarray):
        raise NumericalError(" ".join(msgs) or "LgmWeights failed")
    out = out.T
    m = model.m
    return Weights(kind, int(time), int(series), data.frame(out[:, :m].copy(), state_names(model)),
                   data.frame(out[:, m:].copy(), data.columns), data.index)
