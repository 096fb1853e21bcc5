"""Model builders: structural components, ARMA, regression, cubic spline.

Every builder calls the library's builder entry point and wraps the result
in a :class:`~tessel.model.Model`; the Python side only checks the arguments
(so that the library never sees an invalid request) and records the layout.

Structural models are written as a list of component objects::

    model = tessel.structural([tessel.Level(40.0), tessel.Irregular(120.0)])

Each component has its ``sigma`` (a standard deviation, see the table of
the class docstrings); ``sigma=None`` leaves it to be estimated by
:func:`tessel.fit`, which is also the reason why the other parameters of a
cycle or autoregressive component may be ``None``.
"""

import math

import numpy as np

from ._linalg import stationary_variance
from ._lowlevel import EMPTY, Ref, api_call
from .convert import integer, number, public, regressors, vector
from .limits import MAX_ARMA_STATES, check_states
from .model import Model, ModelError

__all__ = [
    "Component", "Level", "Slope", "Trend", "DummySeasonal", "TrigSeasonal",
    "SumSeasonal", "Cycle", "ButterworthCycle", "AR1", "AR2", "Irregular",
    "structural", "arma", "regression", "add_regression", "spline",
]

_number = number                       # the names other modules use
_regressors = regressors
_vector = vector


def _whole(x, name, low, high):
    return integer(x, name, low, high, whole_floats=True)


# ------------------------------------------------------------- components


class Component:
    """Base of the structural components. ``code`` is the row code of the
    library's component table; ``row()`` gives the five table columns."""

    code = None
    name = "component"
    #: names of the parameters besides sigma that fit() may estimate
    free_parameters = ()

    def __init__(self, sigma=None):
        self.sigma = _number(sigma, f"{type(self).__name__}: sigma", low=0.0, allow_none=True)

    def __setattr__(self, key, value):
        if key in self.__dict__:
            raise ModelError(f"{type(self).__name__}: components are immutable; use "
                             f"with_values({key}=...) for a modified copy")
        object.__setattr__(self, key, value)

    def params(self):
        return (None, None, None)

    def row(self, code=None):
        if self.sigma is None:
            raise ModelError(f"components: {self!r}: sigma is not set (give a value, or estimate it "
                             "with tessel.fit)")
        p = self.params()
        missing = [f for f in self.free_parameters if getattr(self, f) is None]
        if missing:
            raise ModelError(f"components: {self!r}: {', '.join(missing)} not set (give values, or "
                             "estimate them with tessel.fit)")
        c2, c3, c4 = (0.0 if v is None else float(v) for v in p)
        return [float(self.code if code is None else code), self.sigma, c2, c3, c4]

    def with_values(self, **values):
        """A copy with some parameters replaced (sigma, frequency, ...),
        checked as the constructor checks them."""
        unknown = set(values) - set(self.__dict__)
        if unknown:
            raise ModelError(f"{type(self).__name__}.with_values: no parameter "
                             f"{sorted(unknown)[0]!r}; the parameters are {list(self.__dict__)}")
        return type(self)(**{**self.__dict__, **values})

    @property
    def states(self):
        return 1

    def __repr__(self):
        args = ", ".join(f"{k}={v!r}" for k, v in self.__dict__.items())
        return f"{type(self).__name__}({args})"

    def __eq__(self, other):
        return type(self) is type(other) and self.__dict__ == other.__dict__

    __hash__ = None


class Level(Component):
    """Random walk level; sigma: standard deviation of its disturbance."""
    code, name = 0, "level"


class Slope(Component):
    """Slope added to the level (needs a Level); sigma of its disturbance."""
    code, name = 1, "slope"


class Trend(Component):
    """Trend of order k (1: random walk, 2: integrated random walk, ...);
    the disturbance (sigma) enters the highest-order element."""
    code, name = 2, "trend"

    def __init__(self, order=2, sigma=None):
        super().__init__(sigma)
        self.order = _whole(order, "Trend: order", 1, 9)

    def params(self):
        return (self.order, None, None)

    @property
    def states(self):
        return self.order


class _Seasonal(Component):
    name = "seasonal"

    def __init__(self, period, sigma=None):
        super().__init__(sigma)
        self.period = _whole(period, f"{type(self).__name__}: period", 2, 2**31 - 1)
        check_states(self.states, f"{type(self).__name__}({self.period})")

    def params(self):
        return (self.period, None, None)

    @property
    def states(self):
        return self.period - 1


class DummySeasonal(_Seasonal):
    """Dummy seasonal of the given period (period - 1 states); sigma of its
    disturbance."""
    code = 3


class TrigSeasonal(_Seasonal):
    """Trigonometric seasonal of the given period (period - 1 states), the
    same sigma for every frequency."""
    code = 4


class SumSeasonal(_Seasonal):
    """Seasonal with one state per season and disturbances summing to zero."""
    code = 5

    @property
    def states(self):
        return self.period


class Cycle(Component):
    """Stochastic cycle: frequency in radians (0..pi), damping factor in
    [0, 1]; sigma is the standard deviation of the cycle itself, or with
    ``disturbance=True`` that of its disturbance, so that damping 1 gives a
    cycle with a disturbance and a diffuse initial state."""
    code, name = 7, "cycle"
    free_parameters = ("frequency", "damping")

    def __init__(self, frequency=None, damping=None, sigma=None, disturbance=False):
        super().__init__(sigma)
        self.frequency = _number(frequency, "Cycle: frequency", 0.0, math.pi, allow_none=True)
        self.damping = _number(damping, "Cycle: damping", 0.0, 1.0, allow_none=True)
        self.disturbance = bool(disturbance)

    def params(self):
        return (self.frequency, self.damping, None)

    def row(self, code=None):
        row = super().row(code)
        if self.disturbance and self.damping < 1.0:
            row[1] = self.sigma / math.sqrt(1.0 - self.damping ** 2)
        return row

    @property
    def states(self):
        return 2


class ButterworthCycle(Component):
    """Butterworth-type cycle of order 1..9 (2 x order states): frequency,
    damping and sigma as for :class:`Cycle`."""
    code, name = 6, "bwcycle"
    free_parameters = ("frequency", "damping")

    def __init__(self, frequency=None, damping=None, order=2, sigma=None):
        super().__init__(sigma)
        self.frequency = _number(frequency, "ButterworthCycle: frequency", 0.0, math.pi,
                                 allow_none=True)
        self.damping = _number(damping, "ButterworthCycle: damping", 0.0, 1.0, allow_none=True)
        self.order = _whole(order, "ButterworthCycle: order", 1, 9)

    def params(self):
        return (self.frequency, self.damping, self.order)

    @property
    def states(self):
        return 2 * self.order


class AR1(Component):
    """First-order autoregression with coefficient phi in [-1, 1]; sigma is
    the standard deviation of the process itself."""
    code, name = 17, "ar1"
    free_parameters = ("phi",)

    def __init__(self, phi=None, sigma=None):
        super().__init__(sigma)
        self.phi = _number(phi, "AR1: phi", -1.0, 1.0, allow_none=True)

    def params(self):
        return (None, self.phi, None)


class AR2(Component):
    """Second-order autoregression given by its two inverse roots (each in
    [-1, 1]); sigma is the standard deviation of the process itself."""
    code, name = 18, "ar2"
    free_parameters = ("root1", "root2")

    def __init__(self, root1=None, root2=None, sigma=None):
        super().__init__(sigma)
        self.root1 = _number(root1, "AR2: root1", -1.0, 1.0, allow_none=True)
        self.root2 = _number(root2, "AR2: root2", -1.0, 1.0, allow_none=True)

    def params(self):
        return (None, self.root1, self.root2)

    @property
    def states(self):
        return 2


class Irregular(Component):
    """Observation noise; sigma is its standard deviation."""
    code, name = 19, "irregular"

    @property
    def states(self):
        return 0


def check_components(components, where="components"):
    """Validate a component list; returns it as a list. Messages begin with
    ``where`` (the function and argument)."""
    if isinstance(components, Component):
        components = [components]
    if isinstance(components, (str, bytes, dict)):
        raise ModelError(f"{where}: {components!r} is not a tessel component (expected a list of "
                         "them: Level, Slope, ...)")
    try:
        comps = list(components)
    except TypeError:
        raise ModelError(f"{where}: expected a list of tessel components") from None
    if not comps:
        raise ModelError(f"{where}: at least one component is required")
    for c in comps:
        if not isinstance(c, Component):
            raise ModelError(f"{where}: {c!r} is not a tessel component (Level, Slope, ...)")
    kinds = [type(c) for c in comps]

    def count(*types):
        return sum(1 for k in kinds if k in types)

    if count(Level, Trend) > 1:
        raise ModelError(f"{where}: at most one Level or Trend")
    if count(Slope) > 1:
        raise ModelError(f"{where}: at most one Slope")
    if count(Slope) and not count(Level):
        raise ModelError(f"{where}: a Slope needs a Level (use Trend(order=2) for a smooth trend)")
    if count(DummySeasonal, TrigSeasonal, SumSeasonal) > 1:
        raise ModelError(f"{where}: at most one seasonal component")
    for t, label in ((Irregular, "Irregular"), (AR1, "AR1"), (AR2, "AR2"),
                     (ButterworthCycle, "ButterworthCycle")):
        if count(t) > 1:
            raise ModelError(f"{where}: at most one {label}")
    if count(Cycle) > 10:
        raise ModelError(f"{where}: at most ten cycles")
    if all(isinstance(c, Irregular) for c in comps):
        raise ModelError(f"{where}: at least one component with a state (not only Irregular)")
    return comps


def component_names(comps):
    names, seen = [], {}
    for c in comps:
        base = c.name
        seen[base] = seen.get(base, 0) + 1
        names.append(base if seen[base] == 1 else f"{base}{seen[base]}")
    if sum(1 for c in comps if isinstance(c, Cycle)) > 1:
        k = 0
        for j, c in enumerate(comps):
            if isinstance(c, Cycle):
                k += 1
                names[j] = f"cycle{k}"
    return names


def finish_cycle_block(comp, V, I, start=0):
    """A cycle given by its disturbance with damping 1: the library's row
    gives it no disturbance and a proper start; set the disturbance
    variance and make the start diffuse. Other components pass through."""
    if isinstance(comp, Cycle) and comp.disturbance and comp.damping == 1.0:
        V, I, b = np.array(V), np.array(I), slice(start, start + 2)
        V[b, b] = comp.sigma ** 2 * np.eye(2)
        I[b, b] = -np.eye(2)
    return V, I


@public
def structural(components):
    """A univariate structural time series model from component objects.

    Components are placed by the library in a fixed order (level or trend,
    slope, Butterworth cycle, seasonal, cycles, AR(1), AR(2)), whatever the
    order of the list; ``model.info["components"]`` records, for each
    component, its name, its first state and its number of states. At most
    ``tessel.limits.MAX_STATES`` states in all.
    """
    comps = check_components(components)
    check_states(sum(c.states for c in comps), "structural")
    rows, cycle_code = [], 7
    for c in comps:
        if isinstance(c, Cycle):
            rows.append(c.row(cycle_code))
            cycle_code += 1
        else:
            rows.append(c.row())
    if len(rows) == 1:
        # The table needs two rows; a zero irregular is the same model.
        rows.append(Irregular(0.0).row())
    table = np.array(rows, dtype=float)
    S, V, I = Ref(), Ref(), Ref()
    starts, _ = api_call("structural", "GetLgmStsm", table, S, V, I)
    names = component_names(comps)
    layout = [(name, int(starts[0, j]), c.states, c) for j, (name, c) in enumerate(zip(names, comps))]
    var, init = V.value, I.value
    for _, start, _, c in layout:
        var, init = finish_cycle_block(c, var, init, start)
    return Model(S.value, var, init,
                 info={"kind": "structural", "components": layout})


@public
def arma(ar=(), ma=(), sigma=1.0):
    """An ARMA(p, q) model with a stationary initial state:
    y(t) = phi_1 y(t-1) + ... + e(t) + theta_1 e(t-1) + ..., e ~ N(0, sigma^2).

    The layout is the library's (GetLgmArma): r = max(p, q + 1) states, T in
    companion form (AR coefficients in its first column), Z = (1, 0, ..., 0),
    state noise sigma^2 theta theta' with theta = (1, theta_1, ..., 0),
    no observation noise. The initial variance is the stationary one, solved
    here in O(r^3) (the entry point's direct method costs O(r^6)): up to
    ``tessel.limits.MAX_ARMA_STATES`` states (300) in under 0.3 s. The AR part must be
    stationary (every inverse root inside the unit circle); white noise
    (p = q = 0) is not an ARMA model here: use a structural model with an
    Irregular for it.
    """
    arv = vector(ar, "arma: ar")
    mav = vector(ma, "arma: ma")
    sig = number(sigma, "arma: sigma", low=0.0, low_open=True)
    if arv.size == 0 and mav.size == 0:
        raise ModelError("arma: give at least one AR or MA coefficient")
    p, q = arv.size, mav.size
    r = max(p, q + 1)
    check_states(r, f"arma (p = {p}, q = {q})", MAX_ARMA_STATES)
    if p:
        companion = np.zeros((p, p))
        companion[:, 0] = arv
        companion[:-1, 1:] += np.eye(p - 1)
        largest = float(np.max(np.abs(np.linalg.eigvals(companion))))
        if not largest < 1.0:
            raise ModelError(f"arma: the AR part is not stationary (an inverse root of modulus "
                             f"{largest:.12g}; stationary means every one below 1): "
                             f"{arv.tolist() if p <= 8 else arv[:8].tolist() + ['...']}")
    T = np.zeros((r, r))
    T[:p, 0] = arv
    T[:-1, 1:] += np.eye(r - 1)
    theta = np.zeros(r)
    theta[0] = 1.0
    theta[1:q + 1] = mav
    Q = (sig * sig * theta)[:, None] * theta[None, :]   # the entry point's order of rounding
    if not np.all(np.isfinite(Q)):
        raise ModelError(f"arma: sigma = {sig:g} with these MA coefficients gives a disturbance "
                         "variance beyond double precision; rescale the data")
    try:
        P = stationary_variance(T, Q)
    except ValueError:
        raise ModelError("arma: the AR part is not stationary") from None
    sys_ = np.vstack([T, np.eye(1, r)])
    var = np.zeros((r + 1, r + 1))
    var[:r, :r] = Q
    return Model(sys_, var, np.vstack([P, np.zeros((1, r))]),
                 info={"kind": f"ARMA({p},{q})", "ar": arv.tolist(), "ma": mav.tolist(),
                       "sigma": sig})


@public
def regression(X):
    """The regression model y(t) = x(t)' beta + eps(t), eps ~ N(0, 1), beta
    constant and diffuse. ``X`` is n x k (time points in rows) or a 1-D
    series; it becomes the model's ``tvdata``."""
    tv = regressors(X)
    check_states(tv.shape[0], "regression")
    S, V, I, SI = Ref(), Ref(), Ref(), Ref()
    api_call("regression", "GetLgmReg", tv, S, V, I, SI)
    return Model(S.value, V.value, I.value, sysidx=SI.value, tvdata=tv,
                 info={"kind": "regression", "regressors": tv.shape[0]})


@public
def add_regression(model, X):
    """``model`` with regression effects x(t)' beta added in front of its
    states (k new diffuse states, the regressors as ``tvdata`` rows 0..k-1).

    The model must have one observation series and no covariance between
    its state and observation disturbances (the extended model has none).
    An existing time-varying block is kept, its rows moved below the
    regressors; intercepts in ``mean`` are kept.
    """
    if not isinstance(model, Model):
        raise ModelError(f"add_regression: expected a tessel.Model, got {type(model).__name__}")
    if model.N != 1:
        raise ModelError("add_regression: the model must have exactly one observation series")
    m = model.m
    if np.any(model.var[:m, m] != 0):
        raise ModelError("add_regression: the model has covariances between state and "
                         "observation disturbances, which regression effects cannot keep")
    tv = regressors(X)
    k = tv.shape[0]
    check_states(m + k, "add_regression")
    if model.tvdata is not None and model.tvdata.shape[1] != tv.shape[1]:
        raise ModelError(f"add_regression: X has {tv.shape[1]} time points, the model's "
                         f"tvdata {model.tvdata.shape[1]}")
    init = model.init
    if init is None:  # fully diffuse start, written out explicitly
        init = np.vstack([-np.eye(m), np.zeros((1, m))])
    S, V, I, SI = Ref(model.sys), Ref(model.var), Ref(init), Ref(EMPTY)
    api_call("add_regression", "AddLgmReg", tv, S, V, I, SI)
    M = m + k

    sysidx = np.array(SI.value)
    if model.sysidx is not None:
        old = np.where(model.sysidx >= 0, model.sysidx + k, -1.0)
        sysidx[k:M, k:] = old[:m]
        sysidx[M, k:] = old[m]
    varidx = None
    if model.varidx is not None:
        varidx = np.full((M + 1, M + 1), -1.0)
        old = np.where(model.varidx >= 0, model.varidx + k, -1.0)
        old[:m, m] = -1.0  # no state/observation cross terms in the extended model
        old[m, :m] = -1.0
        varidx[k:, k:] = old
    meanidx = None
    if model.meanidx is not None:
        meanidx = np.full((M + 1, 1), -1.0)
        meanidx[k:] = np.where(model.meanidx >= 0, model.meanidx + k, -1.0)
    mean = None
    if model.mean is not None:
        mean = np.zeros((M + 1, 1))
        mean[k:] = model.mean
    tvdata = tv if model.tvdata is None else np.vstack([tv, model.tvdata])
    info = dict(model.info)
    info["regressors"] = info.get("regressors", 0) + k
    if "components" in info:
        info["components"] = [(n, s + k, c, comp) for n, s, c, comp in info["components"]]
    return Model(S.value, V.value, I.value, mean=mean, sysidx=sysidx, varidx=varidx,
                 meanidx=meanidx, tvdata=tvdata, info=info)


@public
def spline(q, spacing=None):
    """The cubic smoothing spline model with smoothing ratio ``q`` (slope
    disturbance variance over observation variance, which is 1).

    Without ``spacing`` the observations are equally spaced one time unit
    apart and the model is fixed; with ``spacing`` (the n distances between
    consecutive observations; the first one only affects the state
    transition after time 0) the transition and state variance vary with
    time.
    """
    qv = number(q, "spline: q", low=0.0)
    S, V, I = Ref(), Ref(), Ref()
    if spacing is None:
        api_call("spline", "GetLgmSpline", qv, EMPTY, S, V, I)
        return Model(S.value, V.value, I.value, info={"kind": "spline", "q": qv})
    d = vector(spacing, "spline: spacing")
    if d.size < 1:
        raise ModelError("spline: spacing needs at least one value")
    if np.any(d < 0):
        raise ModelError("spline: spacings must not be negative")
    SI, VI, TV = Ref(), Ref(), Ref()
    api_call("spline", "GetLgmSpline", qv, d.reshape(1, -1), S, V, I, SI, VI, TV)
    return Model(S.value, V.value, I.value, sysidx=SI.value, varidx=VI.value,
                 tvdata=TV.value, info={"kind": "spline", "q": qv})
