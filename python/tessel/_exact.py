"""Exact diffuse initialisation: the library's exact initial routines
(fKalmanExact and its smoothers, simulation smoother, draws and bootstrap)
on a :class:`~tessel.Model` and data, returning the result types of
:mod:`tessel.analysis` where they exist.

Diffuse initial elements are treated exactly (the limit of an infinite
initial variance) instead of through the entry points' large variance
kappa, so results do not depend on the units of the data and the smoothed
moments are right from the first time point. Log-likelihood convention:
the exact diffuse value without d log(2 pi)/2 for the d diffuse elements
(``nobs`` = observed elements minus d); statsmodels' exact diffuse ``llf``
is ``loglik - d/2 log(2 pi)``.

Private: the idiomatic API switches to these functions with
``diffuse="exact"``.
"""

from dataclasses import dataclass
from typing import Any

import numpy as np

from . import _lowlevel
from .analysis import Disturbances, LogLik, Moments, Score, _check_model, state_names
from .convert import Data as _Data, generator
from .model import ModelError, NumericalError

_tessel = _lowlevel._tessel

_FAILED = ("the exact filter failed: the data do not determine every diffuse initial "
           "element, or an innovation variance is singular or negative")


def _parts(model, n):
    """The model as the binding takes it: (sys, var, init, mean, sysidx,
    varidx, meanidx, tvdata), None for absent parts, tvdata covering n."""
    mod = model.with_tvdata_length(n)
    return tuple(None if x is None else np.ascontiguousarray(x, dtype=float)
                 for x in (mod.sys, mod.var, mod.init, mod.mean, mod.sysidx, mod.varidx,
                           mod.meanidx, mod.tvdata))


def _prepare(y, model, where):
    _check_model(model, where)
    data = _Data(y, model)
    if model.tvdata is not None and model.tvdata.shape[1] < data.n:
        raise ModelError(f"{where}: tvdata has {model.tvdata.shape[1]} columns but the data "
                         f"has {data.n} time points")
    return data, _parts(model, data.n)


def _check(lik, where):
    if not lik["ok"]:
        raise NumericalError(f"{where}: {_FAILED}")
    return lik


@dataclass
class ExactFilter:
    """Exact filter: ``loglik`` and its pieces (``logdet``, ``sumsq``: the
    sum of squared standardised innovations, ``nobs``: usable observations,
    ``d``: diffuse steps), ``diffuse_end`` (first time point of the ordinary
    recursion), the exact ``store`` (layout in tessel.h) and ``innovations``
    (n x N, NaN where missing)."""
    loglik: float
    logdet: float
    sumsq: float
    nobs: int
    d: int
    diffuse_end: int
    store: np.ndarray
    innovations: Any
    index: Any = None


def _innovations(store, m, N, td, observed):
    """n x N innovations: the diffuse record's v before td, store rows after."""
    n = store.shape[1]
    v = np.full((n, N), np.nan)
    for i in range(N):
        base = i * (2 * (m + N) + 1) - i * (i - 1)
        v[:td, i] = store[base, :td]
        v[td:, i] = store[i, td:]
    v[~observed.T] = np.nan
    return v


def kalman_filter(y, model):
    """Run the exact filter (fKalmanExact) and keep its store."""
    data, parts = _prepare(y, model, "kalman_filter")
    lik, store, _ = _tessel.exact_filter(parts, data.values, True, False)
    _check(lik, "kalman_filter")
    td = lik["diffuse_end"]
    v = _innovations(store, model.m, model.N, td, ~np.isnan(data.values))
    return ExactFilter(lik["loglik"], lik["logdet"], lik["sumsq"], lik["cnt"], lik["d"], td, store,
                       data.frame(v, data.columns), data.index)


def loglik(y, model):
    """Exact diffuse log-likelihood; ``scale`` is the mean squared
    standardised innovation."""
    data, parts = _prepare(y, model, "loglik")
    lik = _check(_tessel.exact_filter(parts, data.values, False, False)[0], "loglik")
    cnt = lik["cnt"]
    return LogLik(lik["loglik"], lik["sumsq"] / cnt if cnt else np.nan, cnt)


def loglik_concentrated(y, model):
    """Exact diffuse log-likelihood with the scale factor concentrated out."""
    data, parts = _prepare(y, model, "loglik_concentrated")
    lik = _check(_tessel.exact_filter(parts, data.values, False, False)[0], "loglik_concentrated")
    cnt = lik["cnt"]
    if cnt < 1:
        raise NumericalError("loglik_concentrated: no observation beyond the diffuse elements")
    s2 = lik["sumsq"] / cnt
    ll = -0.5 * (cnt * np.log(2.0 * np.pi) + lik["logdet"] + cnt * (np.log(s2) + 1.0))
    return LogLik(ll, s2, cnt)


def predicted(y, model):
    """One-step predicted state and observation moments of the exact filter
    (its state record): a(t), diag P(t), the predicted observation (with the
    intercept) and the diagonal of F(t); a variance is NaN (infinite) while
    a diffuse element still reaches it. ``end`` is None."""
    data, parts = _prepare(y, model, "predicted")
    lik, _, rec = _tessel.exact_filter(parts, data.values, False, True)
    _check(lik, "predicted")
    m, N, n, p = model.m, model.N, data.n, model.m + model.N
    iu = np.triu_indices(m)
    Pinf = np.zeros((n, m, m))
    Pinf[:, iu[0], iu[1]] = rec[2 * p + m * (m - 1) // 2:].T
    Pinf = Pinf + np.triu(Pinf, 1).transpose(0, 2, 1)
    Z = np.repeat(model.Z[None], n, axis=0)
    if model.sysidx is not None:
        tv, (r, c) = model.with_tvdata_length(n).tvdata, np.nonzero(model.sysidx[m:] >= 0)
        Z[:, r, c] = tv[model.sysidx[m:][r, c].astype(int), :n].T
    svar, fvar = rec[m + N:2 * m + N].T.copy(), rec[2 * m + N:2 * p].T.copy()
    svar[np.einsum("tkk->tk", Pinf) > 0] = np.nan
    fvar[np.einsum("tik,tkl,til->ti", Z, Pinf, Z) > 0] = np.nan
    sn = state_names(model)
    return Moments("predicted", data.frame(rec[:m].T.copy(), sn), data.frame(svar, sn),
                   data.frame(rec[m:m + N].T.copy(), data.columns), data.frame(fvar, data.columns),
                   None, data.index)


def score(y, model):
    """Exact log-likelihood and its score with respect to ``var``
    (fLgmExactScore): ``matrix`` S with d loglik = tr(S dV) / 2, as
    :func:`tessel.analysis.score`."""
    data, parts = _prepare(y, model, "score")
    lik, S = _tessel.exact_smooth(parts, data.values, 3)
    _check(lik, "score")
    return Score(lik["loglik"], lik["sumsq"] / lik["cnt"] if lik["cnt"] else np.nan, S)


def smoothed(y, model):
    """Exact smoothed state and signal moments (StateSmoExact), from t = 0;
    ``signal`` includes the observation intercept. ``end`` is None."""
    data, parts = _prepare(y, model, "smoothed")
    lik, out = _tessel.exact_smooth(parts, data.values, 0)
    _check(lik, "smoothed")
    m, N = model.m, model.N
    mom = out.T
    signal = mom[:, m:m + N] + model.obs_intercept_path(data.n)
    sn = state_names(model)
    return Moments("smoothed", data.frame(mom[:, :m].copy(), sn),
                   data.frame(mom[:, m + N:2 * m + N].copy(), sn),
                   data.frame(signal, data.columns), data.frame(mom[:, 2 * m + N:].copy(), data.columns),
                   None, data.index)


def disturbances(y, model):
    """Exact smoothed disturbances (DistSmoExact): means and conditional
    variances (diagonals), state disturbances first."""
    data, parts = _prepare(y, model, "disturbances")
    lik, out = _tessel.exact_smooth(parts, data.values, 1)
    _check(lik, "disturbances")
    p = model.m + model.N
    cols = [f"eta{i}" for i in range(model.m)] + [f"eps_{c}" for c in data.columns]
    mom = out.T
    return Disturbances(data.frame(mom[:, :p].copy(), cols), data.frame(mom[:, p:].copy(), cols),
                        None, data.index)


@dataclass
class FastSmoothed:
    """Smoothed means only (QuickStateSmo): ``state`` n x m, ``disturbances``
    n x (m+N)."""
    state: Any
    disturbances: Any
    index: Any = None


def fast_smoothed(y, model):
    """Smoothed state and disturbance means without variances (QuickStateSmo)."""
    data, parts = _prepare(y, model, "fast_smoothed")
    lik, out = _tessel.exact_smooth(parts, data.values, 2)
    _check(lik, "fast_smoothed")
    m = model.m
    cols = [f"eta{i}" for i in range(m)] + [f"eps_{c}" for c in data.columns]
    return FastSmoothed(data.frame(out[:m].T.copy(), state_names(model)),
                        data.frame(out[m:].T.copy(), cols), data.index)


def _count(ndraws, where, name="ndraws"):
    if isinstance(ndraws, bool) or not isinstance(ndraws, (int, np.integer)) or ndraws < 1:
        raise ModelError(f"{where}: {name} must be a positive int, got {ndraws!r}")
    return int(ndraws)


@dataclass
class ExactDraws:
    """Draws from the exact conditional distribution given the data:
    ``state`` (ndraws, n, m) and ``disturbances`` (ndraws, n, m+N); the
    smoothed means they are centred on (``mean_state`` n x m,
    ``mean_disturbances`` n x (m+N))."""
    state: np.ndarray
    disturbances: np.ndarray
    mean_state: np.ndarray
    mean_disturbances: np.ndarray
    index: Any = None


def simulation_smoother(y, model, ndraws=1, seed=None, rng=None, z=None):
    """Draws of the states (the initial one included) and all disturbances
    from their exact conditional distribution given y (SimSmoWgtExact once,
    SimSmoDrawExact per draw), by mean correction; works for rank-deficient
    variances. ``z`` (ndraws x (m+N) x (n+1) standard normals) replaces
    numpy's draws (``seed``/``rng``); column 0 rows 0..m-1 drive the initial
    state, column t+1 the disturbances of time t."""
    data, parts = _prepare(y, model, "simulation_smoother")
    m, p, n = model.m, model.m + model.N, data.n
    if z is None:
        z = generator(seed, rng, "simulation_smoother").standard_normal((_count(ndraws, "simulation_smoother"), p, n + 1))
    z = np.ascontiguousarray(z, dtype=float)
    if z.ndim != 3 or z.shape[1:] != (p, n + 1):
        raise ModelError(f"simulation_smoother: z must be ndraws x {p} x {n + 1}")
    lik, means, draws = _tessel.exact_simulation_smoother(parts, data.values, z)
    _check(lik, "simulation_smoother")
    return ExactDraws(draws[:, :m].transpose(0, 2, 1).copy(), draws[:, m:].transpose(0, 2, 1).copy(),
                      means[:m].T.copy(), means[m:].T.copy(), data.index)


@dataclass
class ExactSimulation:
    """Unconditional draws: ``state`` (ndraws, n, m), ``observation``
    (ndraws, n, N), ``disturbances`` (ndraws, n, m+N)."""
    state: np.ndarray
    observation: np.ndarray
    disturbances: np.ndarray


def simulate(model, n, ndraws=1, seed=None, rng=None, z=None):
    """Unconditional draws of n time points (LgmDraw): the proper part of the
    initial state from its variance, diffuse elements at their initial
    mean; ``z`` as in :func:`simulation_smoother`."""
    _check_model(model, "simulate")
    n = _count(n, "simulate", "n")
    m, p = model.m, model.m + model.N
    if z is None:
        z = generator(seed, rng, "simulate").standard_normal((_count(ndraws, "simulate"), p, n + 1))
    z = np.ascontiguousarray(z, dtype=float)
    if z.ndim != 3 or z.shape[1:] != (p, n + 1):
        raise ModelError(f"simulate: z must be ndraws x {p} x {n + 1}")
    ok, out = _tessel.exact_draw(_parts(model, n), n, z)
    if not ok:
        raise NumericalError("simulate: var or init is not positive semi-definite")
    t = out.transpose(0, 2, 1)
    return ExactSimulation(t[:, :, :m].copy(), t[:, :, m + p:].copy(), t[:, :, m:m + p].copy())


@dataclass
class Bootstrap:
    """Bootstrap replicates ``replicates`` (nrep, n, N) of the data, and the
    standardised innovations they resample (n x N, NaN in the diffuse
    period and where missing)."""
    replicates: np.ndarray
    innovations: Any
    diffuse_end: int
    index: Any = None


def bootstrap(y, model, nrep=1, seed=None, rng=None, src=None):
    """Replicates of y from its standardised innovations resampled with
    replacement (LgmBootstrap), rebuilt through the innovations form of the
    filter; the observations of the diffuse period are kept as they are and
    missing values stay missing. ``src`` (nrep x n N flat positions t N + i)
    replaces numpy's choice (``seed``/``rng``)."""
    data, parts = _prepare(y, model, "bootstrap")
    N, n = model.N, data.n
    if src is None:
        lik, _, _ = _tessel.exact_filter(parts, data.values, False, False)
        _check(lik, "bootstrap")
        obs = ~np.isnan(data.values)
        obs[:, :lik["diffuse_end"]] = False
        pool = np.flatnonzero(obs.T.reshape(-1))
        if pool.size == 0:
            raise NumericalError("bootstrap: no observation after the diffuse period")
        src = pool[generator(seed, rng, "bootstrap").integers(0, pool.size, (_count(nrep, "bootstrap", "nrep"), n * N))]
    lik, ok, reps, pool = _tessel.exact_bootstrap(parts, data.values, np.asarray(src, dtype=np.int32))
    _check(lik, "bootstrap")
    if not ok:
        raise ModelError("bootstrap: src names a position that is missing or in the diffuse period")
    return Bootstrap(reps.transpose(0, 2, 1).copy(), data.frame(pool.T.copy(), data.columns),
                     lik["diffuse_end"], data.index)
