"""Filtering, likelihood, smoothing and filter/smoother weights with named
results.

Data are time-major, as people hold series: a 1-D array or a pandas
``Series`` for one series, an n x N array or a ``DataFrame`` for N series;
NaN marks a missing observation (:class:`tessel.convert.Data`). Results are
time-major too (one row per time point) and, when the data came as pandas,
carry the same index.

Every function checks its arguments, calls the library and turns a failure
the library reports into :class:`~tessel.model.NumericalError` (with the
library's message); running out of memory raises MemoryError naming the
function. Simulation lives in :mod:`tessel.simulation`.
"""

import math
import warnings
from dataclasses import dataclass
from typing import Any

import numpy as np

from ._lowlevel import Ref, api_call
from .convert import Data, choice, integer, public
from .model import Model, ModelError, NumericalError

__all__ = [
    "kalman_filter", "loglik", "loglik_concentrated", "score", "predicted", "filtered",
    "smoothed", "disturbances", "weights",
    "FilterResult", "LogLik", "Score", "Moments", "Disturbances", "Weights",
]

_Data = Data                    # the name other modules use


def _check_model(model, where):
    if not isinstance(model, Model):
        raise ModelError(f"{where}: expected a tessel.Model, got {type(model).__name__}")


def _run(name, *args, where=None, seed=None):
    """Call an entry point for the public function ``where`` (default: the
    entry point's name), collecting its messages."""
    return api_call(where or name, name, *args, seed=seed)


def _failed(name, msgs):
    text = " ".join(m.strip() for m in msgs) or f"{name} failed"
    return NumericalError(f"{text} (singular innovation variance, or fewer observations "
                          "than diffuse initial elements)")


def _finite(where, *values):
    """NumericalError when a result that the data determine is not finite
    (values so large or small that the library's arithmetic overflowed)."""
    for v in values:
        if not (math.isfinite(v) if isinstance(v, float) else np.isfinite(v).all()):
            raise NumericalError(f"{where}: the result is not finite: the data or the variances are "
                                 "too large (or too small) for double precision; rescale them")


def state_names(model):
    return [f"state{i}" for i in range(model.m)]


def _prepare(y, model, where, smoother=False):
    """Check the data against the model. The library needs more observed
    elements than diffuse initial elements; ``smoother`` marks backward
    passes, whose multivariate form carries NaN from a time point with no
    observation back to every earlier time point (a warning says so)."""
    _check_model(model, where)
    data = Data(y, model)
    nobs = int(np.sum(~np.isnan(data.values)))
    if nobs <= model.diffuse:
        raise NumericalError(f"{where}: too few observations: {nobs} observed values for "
                             f"{model.diffuse} diffuse initial elements (at least one more needed)")
    if smoother and model.N > 1 and np.any(np.all(np.isnan(data.values), axis=0)):
        warnings.warn(f"{where}: a time point with every series missing makes the multivariate "
                      "smoother return NaN for it and every earlier time point", RuntimeWarning,
                      stacklevel=3)
    return data, model.args(data.n, where)


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


@public
def kalman_filter(y, model):
    """Run the Kalman filter (KalmanFil) and unpack its store."""
    data, args = _prepare(y, model, "kalman_filter")
    store, msgs = _run("KalmanFil", data.values, *args, where="kalman_filter")
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


@public
def loglik(y, model):
    """Gaussian log-likelihood (LgmLik), diffuse elements by a large variance
    with the log-determinant and the count corrected for them."""
    data, args = _prepare(y, model, "loglik")
    ll, s2 = Ref(), Ref()
    ok, msgs = _run("LgmLik", ll, s2, data.values, *args, where="loglik")
    if ok != 1:
        raise _failed("LgmLik", msgs)
    _finite("loglik", ll.value, s2.value)
    return LogLik(ll.value, s2.value, _nobs(data, model))


@public
def loglik_concentrated(y, model):
    """Log-likelihood with the scale factor concentrated out (LgmLikConc):
    the model's variances are taken relative to ``scale``."""
    data, args = _prepare(y, model, "loglik_concentrated")
    ll, s2 = Ref(), Ref()
    ok, msgs = _run("LgmLikConc", ll, s2, data.values, *args, where="loglik_concentrated")
    if ok != 1:
        raise _failed("LgmLikConc", msgs)
    _finite("loglik_concentrated", ll.value, s2.value)
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


@public
def score(y, model):
    """Log-likelihood and its score with respect to ``var`` (LgmLikSco)."""
    data, args = _prepare(y, model, "score", smoother=True)
    ll, s2, S = Ref(), Ref(), Ref()
    ok, msgs = _run("LgmLikSco", ll, s2, S, data.values, *args, where="score")
    if ok != 1:
        raise _failed("LgmLikSco", msgs)
    _finite("score", ll.value, S.value)
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
    end, msgs = _run("LgmMomentEst", _CODES[kind], M, data.values, *args, where=kind)
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


@public
def predicted(y, model):
    """One-step predicted state and observation moments (LgmMomentEst 0)."""
    return _moments(y, model, "predicted")


@public
def filtered(y, model):
    """Filtered state and observation moments (LgmMomentEst 5)."""
    return _moments(y, model, "filtered")


@public
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


@public
def disturbances(y, model):
    """Disturbance smoothing (LgmMomentEst 3): the smoothed mean of the
    disturbances and their conditional variance (var minus the reduction)."""
    data, args = _prepare(y, model, "disturbances", smoother=True)
    M = Ref()
    end, msgs = _run("LgmMomentEst", 3, M, data.values, *args, where="disturbances")
    if not isinstance(end, np.ndarray):
        raise _failed("LgmMomentEst", msgs)
    p = model.m + model.N
    mom = M.value.T
    var = model.var_path(data.n) - mom[:, p:]
    cols = [f"eta{i}" for i in range(model.m)] + [f"eps_{c}" for c in data.columns]
    return Disturbances(data.frame(mom[:, :p].copy(), cols), data.frame(var, cols), end, data.index)


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


@public
def weights(y, model, time, series=0, kind="smoothed"):
    """Filter and smoother weights (LgmWeights): how each observation of
    ``series`` enters the predicted, filtered or smoothed state and signal
    at ``time`` (0-based position). Only the missing pattern of ``y`` is
    used (NaN = missing); the target observation itself must be present.
    """
    codes = {"predicted": 0, "filtered": 5, "smoothed": 1}
    choice(kind, "weights: kind", tuple(codes))
    data, args = _prepare(y, model, "weights")
    time = integer(time, "weights: time", 0, data.n - 1)
    series = integer(series, "weights: series", 0, data.N - 1)
    if np.isnan(data.values[series, time]):
        raise ModelError("weights: the target observation (series, time) must not be missing")
    if kind != "predicted" and model.N > 1 and time == 0:
        raise ModelError("weights: filtered or smoothed weights at time 0 need N = 1")
    marker = np.where(np.isnan(data.values), np.nan, 0.0)
    marker[series, time] = 1.0
    out, msgs = _run("LgmWeights", codes[kind], marker, *args, where="weights")
    if not isinstance(out, np.ndarray):
        raise NumericalError(" ".join(msgs) or "LgmWeights failed")
    out = out.T
    m = model.m
    return Weights(kind, int(time), int(series), data.frame(out[:, :m].copy(), state_names(model)),
                   data.frame(out[:, m:].copy(), data.columns), data.index)
