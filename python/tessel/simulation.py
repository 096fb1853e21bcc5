"""Simulation: conditional densities and draws given the data, the model
run forwards from disturbances, unconditional simulation and the
simulation smoother.

Random draws follow numpy's rule: ``seed=`` or ``rng=`` (a
``numpy.random.Generator``) reproduce them; without either they take fresh
entropy, so unseeded runs (and parallel chains) differ. Draws made by the
library use a generator of the call's own, seeded from the same source, so
that threads drawing at once cannot interleave their streams.
"""

from dataclasses import dataclass
from typing import Any

import numpy as np

from .analysis import _check_model, _failed, _prepare, _run, state_names
from .convert import choice, flag, floats, generator, host_seed, indices, integer, public
from .limits import check_memory
from .model import ModelError, NumericalError

__all__ = ["conditional_density", "recursion", "simulate", "simulation_smoother",
           "ConditionalDensity", "Recursion", "SimulationSmoother"]

# variance factors are formed in batches of about this many operations (a
# batch is one numpy call: Ctrl-C waits for it)
_BATCH_WORK = 4e6


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


@public
def conditional_density(y, model, target="state", draw=False, seed=None, rng=None):
    """Conditional mean or one conditional draw of the states and signal
    (``target="state"``) or of the disturbances (``target="disturbance"``)
    given the data.

    The mean comes from ``LgmCondDens`` (selections 1 and 3); note that its
    state mean uses the state block of ``var`` only, so for a model with
    covariance between state and observation disturbances it differs from
    :func:`smoothed`, which is exact. A draw comes from ``LgmCondDens``
    (selections 2 and 4, its generator seeded from ``seed``/``rng``) when no
    time point is wholly missing; otherwise, because that entry point
    returns NaN around missing time points, the same construction is made
    here from ``KalmanFil``, ``SimSmoWgt``, ``SimSmoDraw`` (a missing time
    point contributing nothing) and ``LgmRecursion``, with numpy's normal
    draws. The observation disturbances of a draw are data minus the drawn
    signal (NaN where the data are missing).
    """
    target = choice(target, "conditional_density: target", ("state", "disturbance"))
    draw = flag(draw, "conditional_density: draw")
    codes = {("state", False): 1, ("state", True): 2,
             ("disturbance", False): 3, ("disturbance", True): 4}
    data, args = _prepare(y, model, "conditional_density", smoother=not draw)
    if draw and not np.any(np.diag(model.var)[:model.m] > 0):
        raise ModelError("conditional_density: no state disturbance has a positive variance, "
                         "so there is nothing to draw")
    m = model.m
    sc = state_names(model) if target == "state" else [f"eta{i}" for i in range(m)]
    gaps = np.any(np.all(np.isnan(data.values), axis=0))
    if draw and gaps:
        gen = generator(seed, rng, "conditional_density")
        states, signal, eta = _composed_draw(data, model, args, gen)
        first = states if target == "state" else eta
        second = signal if target == "state" else data.values.T - signal
        return ConditionalDensity(target, True, data.frame(first, sc),
                                  data.frame(second, data.columns), data.index)
    call_seed = host_seed(seed, rng, "conditional_density") if draw else None
    out, msgs = _run("LgmCondDens", codes[(target, draw)], data.values, *args,
                     where="conditional_density", seed=call_seed)
    if not isinstance(out, np.ndarray):
        raise _failed("LgmCondDens", msgs)
    out = out.T
    return ConditionalDensity(target, draw, data.frame(out[:, :m].copy(), sc),
                              data.frame(out[:, m:].copy(), data.columns), data.index)


def _clean_store(store, N):
    """The filter store with the NaN innovations of wholly missing time
    points set to 0: their gains and inverse variances are already 0, so
    the time point then contributes nothing to a backward pass."""
    out = np.array(store)
    v = out[:N]
    v[np.isnan(v)] = 0.0
    return out


def _weights(data, model, args, sel, where):
    """Filter store and simulation smoother weights for the selection."""
    p = model.m + model.N
    selmat = np.zeros((p, p))
    selmat[sel, sel] = 1.0
    store, msgs = _run("KalmanFil", data.values, *args, where=where)
    if not isinstance(store, np.ndarray):
        raise _failed("KalmanFil", msgs)
    wgt, msgs = _run("SimSmoWgt", selmat, store, *args, where=where)
    if not isinstance(wgt, np.ndarray):
        raise NumericalError(f"{where}: " + (" ".join(msgs) or "SimSmoWgt failed"))
    return selmat, wgt, _clean_store(store, model.N)


def _composed_draw(data, model, args, gen):
    """One draw of the states, signal and state disturbances given the data
    (state disturbances with positive variance drawn by the simulation
    smoother, then run forwards through the model)."""
    m, p, n = model.m, model.m + model.N, data.n
    sel = np.flatnonzero(np.diag(model.var)[:m] > 0)
    selmat, wgt, clean = _weights(data, model, args, sel, "conditional_density")
    z = gen.standard_normal((sel.size, n))
    D, _ = _run("SimSmoDraw", selmat, z, wgt, clean, *args, where="conditional_density")
    # Row 0: r before time 0 maps to the initial state's deviation through
    # its variance; then the drawn eta(t).
    u = np.zeros((n + 1, p))
    u[1:, :m] = D[:m, 1:].T
    u[0, :m] = _initial_variance(model, kappa=True) @ D[:m, 0]
    rec = recursion(model.with_tvdata_length(n + 1), u)
    return rec.state, rec.observation, D[:m, 1:].T.copy()


def _initial_variance(model, kappa=False):
    """The initial state variance: with ``kappa`` the filter's (a diffuse
    element gets the variance kappa and no covariance with the elements
    before it), otherwise that of the proper elements alone (diffuse rows
    and columns zero: such an element starts at its mean)."""
    m = model.m
    big = 9999999.99 * max(1.0, float(np.max(np.diag(model.var))))
    if model.init is None:
        return np.eye(m) * (big if kappa else 0.0)
    P = np.array(model.init[:m])
    for k in np.flatnonzero(np.diag(P) < 0):
        if kappa:
            P[k, :k] = P[:k, k] = 0.0
            P[k, k] = big
        else:
            P[k, :] = P[:, k] = 0.0
    return P


# ------------------------------------------------------------ simulation


@dataclass
class Recursion:
    """States alpha(t) (n x m) and observations y(t) (n x N) that given
    disturbances imply."""
    state: np.ndarray
    observation: np.ndarray


@public
def recursion(model, disturbances):
    """Run the model forwards from disturbances (LgmRecursion).

    ``disturbances`` is (n+1) x (m+N), time-major: the first m elements of
    row 0 are the initial state's deviation from its initial mean,
    alpha(0) = a + u[0, :m] (a: the last row of ``init``, zero without it;
    the rest of row 0 is not used), and row t+1 holds the disturbances
    (state; observation) that produce alpha(t+1) and y(t):
    alpha(t+1) = d + T alpha(t) + u[t+1, :m], y(t) = c + Z alpha(t) +
    u[t+1, m:], with the system of time t. A time-varying model needs
    ``tvdata`` for n (or n+1) time points. For a draw of the initial state
    pass a draw from its variance in row 0 (:func:`simulate` does).
    """
    _check_model(model, "recursion")
    u = floats(disturbances, "recursion: disturbances")
    if u.ndim != 2 or u.shape[1] != model.m + model.N or u.shape[0] < 2:
        raise ModelError(f"recursion: disturbances must be (n+1) x {model.m + model.N} with n >= 1, "
                         f"got shape {u.shape}")
    if not np.all(np.isfinite(u)):
        raise ModelError("recursion: disturbances must be finite")
    n1, m = u.shape[0], model.m
    if model.tvdata is not None:
        if model.tvdata.shape[1] not in (n1 - 1, n1):
            raise ModelError(f"recursion: the model's tvdata has {model.tvdata.shape[1]} "
                             f"columns; {n1 - 1} disturbance rows after the first need "
                             f"{n1 - 1} (or {n1})")
        model = model.with_tvdata_length(n1)
    # The library forms alpha(0) = a + (init block) u0: an identity block
    # makes it the deviation itself, for diffuse elements too.
    mean = np.zeros(m) if model.init is None else model.init[m]
    start = model.replace(init=np.vstack([np.eye(m), mean]))
    out, _ = _run("LgmRecursion", np.ascontiguousarray(u.T), *start.args(n1), where="recursion")
    return Recursion(out[:m, :-1].T.copy(), out[m:, 1:].T.copy())


def _factors(V):
    """L with L L' = V for a stack of positive semi-definite matrices, by
    their eigenvectors (rank-deficient ones too: no Cholesky)."""
    w, U = np.linalg.eigh(0.5 * (V + np.swapaxes(V, -1, -2)))
    return U * np.sqrt(np.clip(w, 0.0, None))[..., None, :]


@public
def simulate(model, n, seed=None, rng=None):
    """Draw states and observations of n time points from the model.

    Disturbances are drawn from ``var`` (at each time point, for a
    time-varying model) and the proper part of the initial state from its
    initial variance, correlated and rank-deficient ones included; diffuse
    elements start at their initial mean. Draws come from numpy's generator
    (``seed`` or ``rng``; fresh entropy without either).
    """
    _check_model(model, "simulate")
    n = integer(n, "simulate: n", 1, None)
    check_memory(6 * 8 * (n + 1) * (model.m + model.N), "simulate")
    gen = generator(seed, rng, "simulate")
    m, p = model.m, model.m + model.N
    mod = model.with_tvdata_length(n + 1)
    z = gen.standard_normal((n + 1, p))
    u = np.empty_like(z)
    if mod.varidx is None or not np.any(mod.varidx >= 0):
        u[1:] = z[1:] @ _factors(np.asarray(mod.var)).T
    else:
        # disturbances of row t belong to the system of time t-1
        chunk = max(1, min(4096, int(_BATCH_WORK / p ** 3)))
        for t0 in range(0, n, chunk):
            t1 = min(n, t0 + chunk)
            L = _factors(mod.var_at(t0, t1))
            u[t0 + 1:t1 + 1] = np.einsum("tij,tj->ti", L, z[t0 + 1:t1 + 1])
    u[0] = 0.0
    u[0, :m] = _factors(_initial_variance(mod)) @ z[0, :m]
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


@public
def simulation_smoother(y, model, select=None, ndraws=1, seed=None, rng=None):
    """Simulation smoother (SimSmoWgt once, then SimSmoDraw per draw).

    ``select``: positions of the disturbance elements to draw (0..m-1 state,
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
        sel = indices(select, "simulation_smoother: select", p)
    if sel.size == 0:
        raise ModelError("simulation_smoother: nothing selected to draw")
    ndraws = integer(ndraws, "simulation_smoother: ndraws", 1, None)
    check_memory(8 * ndraws * (data.n + 1) * (p + 1), "simulation_smoother")
    gen = generator(seed, rng, "simulation_smoother")
    selmat, wgt, clean = _weights(data, model, args, sel, "simulation_smoother")
    q, n = sel.size, data.n
    draws = np.zeros((ndraws, n, p))
    r0 = np.zeros((ndraws, model.m))
    for k in range(ndraws):
        z = gen.standard_normal((q, n))
        out, _ = _run("SimSmoDraw", selmat, z, wgt, clean, *args, where="simulation_smoother")
        draws[k] = out[:, 1:].T
        r0[k] = out[:model.m, 0]
    return SimulationSmoother(draws, sel, r0, data.index)
