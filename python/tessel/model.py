"""The model object: one linear Gaussian state space model block.

A :class:`Model` holds the matrices that every filtering entry point takes
after its data argument, in the library's own layout:

``sys``      (m+N) x m   transition matrix T over observation matrix Z
``var``      (m+N) x (m+N) variance of (state disturbances; observation noise)
``init``     (m+1) x m   initial state variance over the initial mean; a
                         negative diagonal element marks a diffuse element;
                         the variance is read from its lower triangle and
                         stored symmetric
``mean``     (m+N) x 1   state and observation intercepts
``sysidx``, ``varidx``, ``meanidx``  index matrices of time-varying elements
                         (-1: fixed; r >= 0: row r of ``tvdata``)
``tvdata``   k x n       values of the time-varying elements, one column per
                         time point

A model is immutable: the arrays are copied on construction and stored
read-only, attributes cannot be set, and :meth:`Model.replace` makes a
modified copy. Everything the library would reject or misread is rejected
here with a :class:`ModelError` that names the argument: shapes, values
that are not finite real numbers, missing parts of the time-varying block,
index rows beyond ``tvdata``, and variance matrices that are not symmetric
positive semi-definite -- ``var`` (at every time point where ``tvdata``
supplies some of its elements) and the proper (non-diffuse) part of
``init``.

Tolerance of the variance checks: a matrix V is scaled to unit diagonal,
C = D^-1/2 V D^-1/2 with D = diag(V) (an element of zero variance scaled by
the largest standard deviation), so that the units of the states and series
do not matter; V is accepted when |C - C'| <= 1e-10 elementwise and the
smallest eigenvalue of C is >= -1e-8 (rounding in a computed variance of
order m is of order m * 1e-16).
"""

import types

import numpy as np

from ._lowlevel import EMPTY
from .convert import ModelError, NumericalError, floats, public

__all__ = ["Model", "ModelError", "NumericalError"]

SYMMETRY_TOL = 1e-10
PSD_TOL = 1e-8
# variance matrices are checked in batches of about this many operations
# (a batch is one numpy call: Ctrl-C waits for it)
_BATCH_WORK = 4e6


def _frozen(arr):
    """A read-only view of a private array that cannot be made writable
    again (its base is read-only)."""
    arr.setflags(write=False)
    view = arr.view()
    view.setflags(write=False)
    return view


def _matrix(x, name, shape=None, allow_nan=False, column=False, required=False):
    """A private float64 copy of ``x`` as a 2-D matrix, checked."""
    if x is None:
        if required:
            raise ModelError(f"{name}: a matrix is required")
        return None
    arr = floats(x, name)
    if arr.ndim > 2:
        raise ModelError(f"{name}: expected a 2-D array of numbers, got {arr.ndim} dimensions")
    if arr.ndim == 0:
        arr = arr.reshape(1, 1)
    elif arr.ndim == 1:
        arr = arr.reshape(-1, 1) if column else arr.reshape(1, -1)
    if shape is not None and arr.shape != tuple(shape):
        raise ModelError(f"{name}: expected shape {tuple(shape)}, got {arr.shape}")
    if not allow_nan and not np.all(np.isfinite(arr)):
        raise ModelError(f"{name}: every element must be finite (NaN marks missing data only)")
    return np.ascontiguousarray(arr)


def _index(x, name, shape):
    arr = _matrix(x, name, shape)
    if arr is None:
        return None
    if np.any(arr != np.round(arr)):
        raise ModelError(f"{name}: entries must be whole numbers (-1 fixed, r >= 0 a row of tvdata)")
    return arr


def _scaled(V):
    """V (stack of square matrices) scaled to unit diagonal; a zero
    variance is scaled by the largest standard deviation of its matrix."""
    d = np.sqrt(np.clip(np.diagonal(V, axis1=-2, axis2=-1), 0.0, None))
    top = d.max(axis=-1, keepdims=True)
    s = np.where(d > 0, d, np.where(top > 0, top, 1.0))
    return V / (s[..., :, None] * s[..., None, :])


def psd_problem(V):
    """Why the stack of square matrices V is not a variance matrix (within
    the tolerances of this module), as (position in the stack, text), or
    None when every one is."""
    V = np.asarray(V, dtype=float)
    if V.size == 0:
        return None
    flat = V.reshape((-1,) + V.shape[-2:])
    diag = np.diagonal(flat, axis1=1, axis2=2)
    neg = np.argwhere(diag < 0)
    if neg.size:
        k, i = neg[0]
        return int(k), f"element [{i}, {i}] (a variance) is negative: {flat[k, i, i]:g}"
    C = _scaled(flat)
    asym = np.abs(C - np.swapaxes(C, 1, 2)).max(axis=(1, 2))
    if np.any(asym > SYMMETRY_TOL):
        k = int(np.argmax(asym > SYMMETRY_TOL))
        i, j = np.unravel_index(np.argmax(np.abs(C[k] - C[k].T)), C[k].shape)
        return k, f"is not symmetric: [{i}, {j}] = {flat[k, i, j]:g} but [{j}, {i}] = {flat[k, j, i]:g}"
    low = np.linalg.eigvalsh(0.5 * (C + np.swapaxes(C, 1, 2)))[:, 0]
    if np.any(low < -PSD_TOL):
        k = int(np.argmax(low < -PSD_TOL))
        return k, (f"is not positive semi-definite (smallest eigenvalue {low[k]:.3g} after scaling "
                   "to unit diagonal; a variance matrix has none below zero)")
    return None


def _check_var_path(var, varidx, tvdata):
    """var at every time point where tvdata supplies some of its elements,
    checked in batches. Only the rows and columns J that vary are formed:
    with the rest K fixed, var is a variance matrix at t exactly when
    A = var[K, K] is, B = var[K, J] lies in A's column space, and the Schur
    complement D_t - B' A^+ B of the varying block D_t is one. When B does not
    lie in that space the whole matrices are checked."""
    tv_at = np.argwhere(varidx >= 0)
    rows = varidx[tv_at[:, 0], tv_at[:, 1]].astype(np.int64)
    J = np.unique(tv_at.ravel())
    K = np.setdiff1d(np.arange(var.shape[0]), J)
    G = np.zeros((J.size, J.size))
    if K.size:
        A, B = var[np.ix_(K, K)], var[np.ix_(K, J)]
        s = np.sqrt(np.diag(A))
        s = np.where(s > 0, s, max(s.max(), 1.0))
        w, U = np.linalg.eigh(A / np.outer(s, s))
        U = U[:, w > PSD_TOL * max(w.max(), 1.0)]
        Bs = B / s[:, None]
        inside = np.abs(Bs - U @ (U.T @ Bs)).max(initial=0.0) <= 1e-12 * max(np.abs(Bs).max(), 1e-300)
        if inside:
            W = U.T @ Bs
            G = W.T @ (W / w[w > PSD_TOL * max(w.max(), 1.0)][:, None])
        else:
            G, J = None, np.arange(var.shape[0])
    pos = np.full(var.shape[0], -1)
    pos[J] = np.arange(J.size)
    chunk = max(1, min(4096, int(_BATCH_WORK / max(J.size, 1) ** 3)))
    for t0 in range(0, tvdata.shape[1], chunk):
        t1 = min(tvdata.shape[1], t0 + chunk)
        M = np.repeat(var[np.ix_(J, J)][None], t1 - t0, axis=0)
        for (i, j), r in zip(tv_at, rows):
            M[:, pos[i], pos[j]] = tvdata[r, t0:t1]
        bad = psd_problem(M if G is None else M - G)
        if bad is not None:
            what = bad[1] if G is None else (
                "is not positive semi-definite (the elements from tvdata are not a variance "
                "matrix given the fixed ones)")
            raise ModelError(f"var at time point {t0 + bad[0]} (elements from tvdata) {what}")


class Model:
    """A state space model block with its dimensions ``m`` (states) and ``N``
    (observation series).

    Parameters are those of the class docstring of this module; ``mean`` may
    also be given as a vector of length m+N. ``sysidx``/``varidx``/``meanidx``
    and ``tvdata`` form the time-varying block: give ``tvdata`` together with
    at least one index matrix, or none of them. ``info`` is free-form
    metadata kept by the builders (component layout, parameter names); it is
    kept as a read-only mapping.
    """

    __slots__ = ("sys", "var", "init", "mean", "sysidx", "varidx", "meanidx",
                 "tvdata", "m", "N", "info")

    @public
    def __init__(self, sys, var, init=None, mean=None, sysidx=None, varidx=None,
                 meanidx=None, tvdata=None, info=None):
        s = _matrix(sys, "sys", required=True)
        if s.shape[1] < 1 or s.shape[0] <= s.shape[1]:
            raise ModelError(
                f"sys: expected (m+N) x m with m >= 1 and N >= 1 (more rows than columns), got {s.shape}")
        m, p = s.shape[1], s.shape[0]
        v = _matrix(var, "var", (p, p), required=True)
        bad = psd_problem(v)
        if bad is not None:
            raise ModelError(f"var {bad[1]}")
        i = _matrix(init, "init", (m + 1, m))
        if i is not None:
            # The filters read the diagonal and the lower triangle; mirror it
            # so that the entry points reading whole rows see the same matrix.
            P = np.tril(i[:m]) + np.tril(i[:m], -1).T
            upper = np.triu(i[:m], 1)
            if np.any((upper != 0) & (np.abs(upper - np.triu(P, 1)) >
                                      SYMMETRY_TOL * np.abs(np.triu(P, 1)))):
                raise ModelError("init: the initial variance must be symmetric (or given by its "
                                 "lower triangle)")
            proper = np.diag(P) >= 0
            bad = psd_problem(P[np.ix_(proper, proper)])
            if bad is not None:
                raise ModelError(f"init: the variance of the proper (non-diffuse) elements {bad[1]}")
            i = np.vstack([P, i[m:]])
        mu = _matrix(mean, "mean", (p, 1), column=True)
        si = _index(sysidx, "sysidx", (p, m))
        vi = _index(varidx, "varidx", (p, p))
        mi = _index(meanidx, "meanidx", (p, 1), ) if meanidx is None or np.ndim(meanidx) != 1 \
            else _index(np.reshape(floats(meanidx, "meanidx"), (-1, 1)), "meanidx", (p, 1))
        tv = _matrix(tvdata, "tvdata")
        given = [x is not None for x in (si, vi, mi)]
        if tv is None and any(given):
            raise ModelError("tvdata: an index matrix (sysidx, varidx, meanidx) needs tvdata")
        if tv is not None:
            if not any(given):
                raise ModelError("tvdata: given without any index matrix (sysidx, varidx, meanidx)")
            if tv.shape[0] < 1:
                raise ModelError("tvdata: needs at least one row")
            top = max(int(x.max()) for x in (si, vi, mi) if x is not None)
            if top >= tv.shape[0]:
                raise ModelError(f"index matrices refer to row {top} of tvdata, which has "
                                 f"{tv.shape[0]} rows")
            if vi is not None and np.any(vi >= 0):
                _check_var_path(v, vi, tv)
        put = object.__setattr__
        for key, val in (("sys", s), ("var", v), ("init", i), ("mean", mu), ("sysidx", si),
                         ("varidx", vi), ("meanidx", mi), ("tvdata", tv)):
            put(self, key, None if val is None else _frozen(val))
        put(self, "m", m)
        put(self, "N", p - m)
        put(self, "info", types.MappingProxyType(dict(info or {})))

    def __setattr__(self, key, value):
        raise ModelError(f"tessel.Model is immutable: {key} cannot be set; use "
                         f"model.replace({key}=...) for a modified copy")

    def __delattr__(self, key):
        raise ModelError(f"tessel.Model is immutable: {key} cannot be deleted")

    def __reduce__(self):
        return (_rebuild, (self.sys, self.var, self.init, self.mean, self.sysidx, self.varidx,
                           self.meanidx, self.tvdata, dict(self.info)))

    def __copy__(self):
        return self

    def __deepcopy__(self, memo):
        return self

    # ------------------------------------------------------------ views
    @property
    def T(self):
        """The transition matrix (m x m)."""
        return self.sys[: self.m]

    @property
    def Z(self):
        """The observation matrix (N x m)."""
        return self.sys[self.m:]

    @property
    def time_varying(self):
        return self.tvdata is not None

    @property
    def n_tv(self):
        """Number of time points that ``tvdata`` covers (None when fixed)."""
        return None if self.tvdata is None else self.tvdata.shape[1]

    @property
    def diffuse(self):
        """Number of diffuse initial elements (all m when ``init`` is absent)."""
        if self.init is None:
            return self.m
        return int(np.sum(np.diag(self.init[: self.m]) < 0))

    def replace(self, **changes):
        """A copy with some of the matrices replaced (``var=...`` etc.)."""
        unknown = set(changes) - set(_PARTS)
        if unknown:
            raise ModelError(f"Model.replace: unknown part(s) {sorted(unknown)}; the parts are "
                             f"{', '.join(_PARTS)}")
        kw = {k: getattr(self, k) for k in _PARTS}
        kw.update(changes)
        return Model(**kw)

    def args(self, n=None, where="Model.args"):
        """The model block as the positional arguments of ``tessel.call``.

        ``n`` is the number of time points of the data the call will use; a
        time-varying model must cover exactly that many (ModelError naming
        ``where`` otherwise). The block is passed whole or not at all: the
        library treats part of it as an error that can end the process.
        """
        out = [self.sys, self.var]
        tail = [self.init, self.mean]
        if self.tvdata is not None:
            if n is not None and self.tvdata.shape[1] != n:
                raise ModelError(f"{where}: the model's tvdata has {self.tvdata.shape[1]} columns "
                                 f"but the data has {n} time points")
            tail += [self.sysidx, self.varidx, self.meanidx, self.tvdata]
        while tail and tail[-1] is None:
            tail.pop()
        out += [EMPTY if x is None else x for x in tail]
        return tuple(out)

    def with_tvdata_length(self, n):
        """A copy whose ``tvdata`` covers n time points: columns beyond the
        current ones repeat the last column (used for forecasting ranges and
        for simulation, where trailing columns are required but not read)."""
        if self.tvdata is None or self.tvdata.shape[1] == n:
            return self
        tv = self.tvdata
        if tv.shape[1] > n:
            return self.replace(tvdata=tv[:, :n])
        pad = np.repeat(tv[:, -1:], n - tv.shape[1], axis=1)
        return self.replace(tvdata=np.hstack([tv, pad]))

    def var_at(self, t0, t1):
        """``var`` at time points t0..t1-1, as a (t1-t0) x (m+N) x (m+N)
        stack (the time-varying elements from ``tvdata``; beyond its last
        column its last column holds)."""
        V = np.repeat(np.asarray(self.var)[None], t1 - t0, axis=0)
        if self.varidx is not None:
            cols = np.minimum(np.arange(t0, t1), self.tvdata.shape[1] - 1)
            for i, j in np.argwhere(self.varidx >= 0):
                V[:, i, j] = self.tvdata[int(self.varidx[i, j]), cols]
        return V

    def var_path(self, n):
        """The diagonal of ``var`` at each of n time points (n x (m+N))."""
        d = np.tile(np.diag(self.var), (n, 1))
        if self.varidx is not None:
            tv = self.with_tvdata_length(n).tvdata
            for i in range(self.m + self.N):
                r = int(self.varidx[i, i])
                if r >= 0:
                    d[:, i] = tv[r, :n]
        return d

    def obs_intercept_path(self, n):
        """The observation intercepts at each of n time points (n x N)."""
        c = np.zeros((n, self.N))
        if self.mean is not None:
            c[:] = self.mean[self.m:, 0]
        if self.meanidx is not None:
            tv = self.with_tvdata_length(n).tvdata
            for i in range(self.N):
                r = int(self.meanidx[self.m + i, 0])
                if r >= 0:
                    c[:, i] = tv[r, :n]
        return c

    def __repr__(self):
        kind = self.info.get("kind", "model")
        tv = ", time-varying" if self.time_varying else ""
        return f"<tessel.Model {kind}: m={self.m}, N={self.N}, diffuse={self.diffuse}{tv}>"


_PARTS = ("sys", "var", "init", "mean", "sysidx", "varidx", "meanidx", "tvdata", "info")


def _rebuild(*parts):
    return Model(*parts)
