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

The arrays are copied on construction and stored read-only, so neither the
caller's arrays nor the model change afterwards; :meth:`Model.replace` makes
a modified copy. Everything the library would reject (shapes, missing parts
of the time-varying block, index rows beyond ``tvdata``) is rejected here
with a :class:`ModelError` that names the argument.
"""

import numpy as np

from ._lowlevel import EMPTY

__all__ = ["Model", "ModelError", "NumericalError"]


class ModelError(ValueError):
    """An invalid model or an invalid argument to the Python API."""


class NumericalError(RuntimeError):
    """The library could not complete a computation (for example a singular
    innovation variance, or fewer observations than diffuse elements)."""


def _matrix(x, name, shape=None, allow_nan=False, column=False):
    """A read-only float64 copy of ``x`` as a 2-D matrix, checked."""
    if x is None:
        return None
    if isinstance(x, (str, bytes)) or np.ndim(x) > 2:
        raise ModelError(f"{name}: expected a 2-D array of numbers, got {type(x).__name__}"
                         f" with {np.ndim(x)} dimensions" if not isinstance(x, (str, bytes))
                         else f"{name}: expected a 2-D array of numbers, got a string")
    try:
        arr = np.array(x, dtype=np.float64, copy=True)
    except (TypeError, ValueError) as exc:
        raise ModelError(f"{name}: cannot be read as a matrix of numbers ({exc})") from None
    if arr.ndim == 0:
        arr = arr.reshape(1, 1)
    elif arr.ndim == 1:
        arr = arr.reshape(-1, 1) if column else arr.reshape(1, -1)
    if shape is not None and arr.shape != tuple(shape):
        raise ModelError(f"{name}: expected shape {tuple(shape)}, got {arr.shape}")
    if not allow_nan and not np.all(np.isfinite(arr)):
        raise ModelError(f"{name}: every element must be finite (NaN marks missing data only)")
    arr.setflags(write=False)
    return arr


def _index(x, name, shape):
    arr = _matrix(x, name, shape)
    if arr is None:
        return None
    if np.any(arr != np.round(arr)):
        raise ModelError(f"{name}: entries must be whole numbers (-1 fixed, r >= 0 a row of tvdata)")
    return arr


class Model:
    """A state space model block with its dimensions ``m`` (states) and ``N``
    (observation series).

    Parameters are those of the class docstring of this module; ``mean`` may
    also be given as a vector of length m+N. ``sysidx``/``varidx``/``meanidx``
    and ``tvdata`` form the time-varying block: give ``tvdata`` together with
    at least one index matrix, or none of them. ``info`` is free-form
    metadata kept by the builders (component layout, parameter names).
    """

    __slots__ = ("sys", "var", "init", "mean", "sysidx", "varidx", "meanidx",
                 "tvdata", "m", "N", "info")

    def __init__(self, sys, var, init=None, mean=None, sysidx=None, varidx=None,
                 meanidx=None, tvdata=None, info=None):
        s = _matrix(sys, "sys")
        if s.shape[1] < 1 or s.shape[0] <= s.shape[1]:
            raise ModelError(
                f"sys: expected (m+N) x m with m >= 1 and N >= 1 (more rows than columns), got {s.shape}")
        m, p = s.shape[1], s.shape[0]
        v = _matrix(var, "var", (p, p))
        if np.any(np.diag(v) < 0):
            raise ModelError("var: diagonal elements (variances) must not be negative")
        if not np.allclose(v, v.T, rtol=1e-10, atol=1e-12 * max(1.0, np.abs(v).max())):
            raise ModelError("var: must be symmetric")
        i = _matrix(init, "init", (m + 1, m))
        if i is not None:
            # The filters read the diagonal and the lower triangle; mirror it
            # so that the entry points reading whole rows see the same matrix.
            P = np.tril(i[:m]) + np.tril(i[:m], -1).T
            if np.any((np.triu(i[:m], 1) != 0) & (np.triu(i[:m], 1) != np.triu(P, 1))):
                raise ModelError("init: the initial variance must be symmetric (or given by its "
                                 "lower triangle)")
            i = np.vstack([P, i[m:]])
            i.setflags(write=False)
        mu = _matrix(mean, "mean", (p, 1), column=True)
        si = _index(sysidx, "sysidx", (p, m))
        vi = _index(varidx, "varidx", (p, p))
        mi = _index(meanidx, "meanidx", (p, 1)) if meanidx is None or np.ndim(meanidx) != 1 \
            else _index(np.reshape(meanidx, (-1, 1)), "meanidx", (p, 1))
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
        self.sys, self.var, self.init, self.mean = s, v, i, mu
        self.sysidx, self.varidx, self.meanidx, self.tvdata = si, vi, mi, tv
        self.m, self.N = m, p - m
        self.info = dict(info or {})

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
        kw = {k: getattr(self, k) for k in ("sys", "var", "init", "mean", "sysidx",
                                            "varidx", "meanidx", "tvdata", "info")}
        kw.update(changes)
        return Model(**kw)

    def args(self, n=None):
        """The model block as the positional arguments of ``tessel.call``.

        ``n`` is the number of time points of the data the call will use; a
        time-varying model must cover exactly that many (ModelError
        otherwise).
        """
        out = [self.sys, self.var]
        tail = [self.init, self.mean]
        if self.tvdata is not None:
            if n is not None and self.tvdata.shape[1] != n:
                raise ModelError(f"tvdata has {self.tvdata.shape[1]} columns but the data "
                                 f"has {n} time points")
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
