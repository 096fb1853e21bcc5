"""Structural models of several series (SUTSE: seemingly unrelated time
series equations) for :func:`tessel.fit`.

Each component of the list is a block per series with the univariate
component's dynamics, and its disturbances are correlated across the
series: for a univariate model with transition T, observation row Z and
disturbance pattern B_c of component c (the variance matrix with sigma_c =
1 and the other sigmas 0), the model of N series has

    T (x) I_N,   Z (x) I_N,   var = sum over c of B_c (x) Sigma_c,

the initial variance of the univariate model (x) I_N, and Sigma_c the N x
N covariance matrix of component c's disturbances. Sigma_c = L_c L_c' is
estimated through its Cholesky factor (log of the diagonal, the rest as
is); reported are its elements: ``sigma2.<component>.<series>`` and
``cov.<component>.<series>.<series>``. Components: level, slope, trend,
seasonals and irregular (their variances enter ``var`` linearly, so the
gradient comes from the score); a component given a sigma keeps Sigma =
sigma^2 I.
"""

import math

import numpy as np

from . import components as C
from .model import Model, ModelError

_ALLOWED = (C.Level, C.Slope, C.Trend, C._Seasonal, C.Irregular)


class Sutse:
    """The fitting form of a structural model of N series (see the module
    docstring); used by :class:`tessel.Likelihood` for data of several
    series."""

    def __init__(self, comps, series, fixed):
        from .forms import _Param
        for c in comps:
            if not isinstance(c, _ALLOWED):
                raise ModelError(f"fit: several series: {type(c).__name__} is not available; "
                                 "use level, slope, trend, seasonals and irregular")
        if fixed:
            raise ModelError("fit: several series: fix a component through its sigma (e.g. "
                             "tessel.Level(0.0)), not by name")
        self.comps, self.series, self.N = list(comps), [str(s) for s in series], len(series)
        self.cnames = C.component_names(self.comps)
        self.label = " + ".join(self.cnames) + f" ({self.N} series)"
        self.fixed_used = set()
        zero = [c.with_values(sigma=0.0) for c in self.comps]
        base = C.structural(zero)
        self.layout = base.info["components"]
        self.m_u = base.m
        self.T_u, self.Z_u = np.array(base.T), np.array(base.Z[0])
        self.init_u = np.array(base.init[:base.m])
        # per estimated component: (name, nonzeros (a, b, coef) of its pattern)
        self.free, self.fixed_sigma, self.params = [], [], []
        for j, (c, nm) in enumerate(zip(self.comps, self.cnames)):
            one = list(zero)
            one[j] = c.with_values(sigma=1.0)
            B = C.structural(one).var - base.var
            nz = [(int(a), int(b), float(B[a, b])) for a, b in zip(*np.nonzero(B))]
            if c.sigma is None:
                self.free.append((nm, nz))
                for i in range(self.N):
                    for k in range(i + 1):
                        if i == k:
                            name = f"sigma2.{nm}.{self.series[i]}"
                            self.params.append(_Param(name, "chol", 0.0, 0.0))
                        else:
                            name = f"cov.{nm}.{self.series[k]}.{self.series[i]}"
                            self.params.append(_Param(name, "free", None, None))
            elif c.sigma > 0:
                self.fixed_sigma.append((c.sigma ** 2, nz))
        self.an_index = np.arange(len(self.params))
        self.npc = self.N * (self.N + 1) // 2          # parameters per component

    # theta -> covariance matrices
    def _factors(self, theta):
        """Cholesky factors L of the estimated components' Sigma = L L' (in
        the data's units; the library gets D^-1 Sigma D^-1, D = diag(unit))."""
        out = []
        for c in range(len(self.free)):
            t = theta[c * self.npc:(c + 1) * self.npc]
            L = np.zeros((self.N, self.N))
            L[np.tril_indices(self.N)] = t
            L[np.diag_indices(self.N)] = np.exp(np.diag(L))
            out.append(L)
        return out

    def _var(self, theta, unit):
        N, M = self.N, (self.m_u + 1) * self.N
        var = np.zeros((M, M))
        inv = 1.0 / np.broadcast_to(np.asarray(unit, dtype=float), (N,))
        scale = np.outer(inv, inv)
        pairs = [(L @ L.T, nz) for L, (_, nz) in zip(self._factors(theta), self.free)]
        pairs += [(s2 * np.eye(N), nz) for s2, nz in self.fixed_sigma]
        for S, nz in pairs:
            S = S * scale
            for a, b, coef in nz:
                var[a * N:(a + 1) * N, b * N:(b + 1) * N] += coef * S
        return var

    def base_model(self, theta, unit=1.0):
        N, m = self.N, self.m_u * self.N
        sys_ = np.vstack([np.kron(self.T_u, np.eye(N)), np.kron(self.Z_u[None, :], np.eye(N))])
        init = np.vstack([np.kron(self.init_u, np.eye(N)), np.zeros((1, m))])
        layout = [(name, start * N, size * N, comp) for name, start, size, comp in self.layout]
        return Model(sys_, self._var(np.asarray(theta, dtype=float), unit), init,
                     info={"kind": "structural", "series": self.series, "components": layout,
                           "sutse": N})

    def components(self, theta, unit=1.0):
        return self.comps

    def effects(self):
        return []

    def fixed_diffuse_states(self, model):
        keep = (C.Level, C.Slope, C.Trend, C._Seasonal)
        return [i for _, start, size, comp in model.info["components"] if isinstance(comp, keep)
                for i in range(start, start + size)]

    def prepare(self, lik, theta):
        self._unit = lik.unit
        self.patterns = None

    def write(self, lik, theta):
        self._theta = np.asarray(theta, dtype=float)
        lik.var[...] = self._var(self._theta, self._unit)

    def gradient(self, S, g):
        """d loglik / d theta from the score S (d loglik = tr(S dvar) / 2):
        G_c = sum over the pattern of B_c[a, b] S_(b, a) is d loglik / d
        Sigma_c times 2 (scaled units), then the chain through D and L.
        False where S is not finite."""
        N = self.N
        inv = 1.0 / np.broadcast_to(np.asarray(self._unit, dtype=float), (N,))
        for c, (L, (_, nz)) in enumerate(zip(self._factors(self._theta), self.free)):
            G = np.zeros((N, N))
            for a, b, coef in nz:
                G += coef * S[b * N:(b + 1) * N, a * N:(a + 1) * N]
            G = G * np.outer(inv, inv)
            dL = 0.5 * (G + G.T) @ L
            dL[np.diag_indices(N)] *= np.diag(L)       # theta = log L_ii
            g[c * self.npc:(c + 1) * self.npc] = dL[np.tril_indices(N)]
        return bool(np.all(np.isfinite(g)))

    def values(self, theta):
        """The elements of each Sigma_c: variances and covariances."""
        out = []
        for L in self._factors(np.asarray(theta, dtype=float)):
            S = L @ L.T
            out.extend(S[np.tril_indices(self.N)])
        return np.array(out)

    def start(self, scale2, dvar):
        """Each component an equal share of each series' variance of
        changes, no correlation."""
        dv = np.broadcast_to(np.asarray(dvar, dtype=float), (self.N,))
        t = np.zeros((self.N, self.N))
        t[np.diag_indices(self.N)] = 0.5 * np.log(dv / max(len(self.free), 1))
        return np.tile(t[np.tril_indices(self.N)], len(self.free))

    def bounds(self, scale):
        sc = np.broadcast_to(np.asarray(scale, dtype=float), (self.N,))
        diag = [(math.log(s) - 12.0, math.log(s) + 6.0) for s in sc]
        out = []
        for _ in self.free:
            for i in range(self.N):
                for k in range(i + 1):
                    out.append(diag[i] if i == k else (None, None))
        return out

    def candidates(self, base, scale2):
        return [base]

    def edge_notes(self, theta):
        return []
