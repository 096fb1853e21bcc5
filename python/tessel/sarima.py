"""Seasonal ARIMA models as state space models.

``tessel.SARIMA(order=(p, d, q), seasonal_order=(P, D, Q, s))`` is a model
structure for :func:`tessel.fit`:

    phi(L) Phi(L^s) w(t) = theta(L) Theta(L^s) e(t),   w(t) = (1-L)^d (1-L^s)^D y(t) - mu

with e(t) ~ N(0, sigma^2), the AR polynomials stationary and the MA
polynomials invertible, and mu (``constant=True``) a constant mean of the
differenced series. ``tessel.ARMA(p, q)`` is the case d = D = 0.

State (dimension r + [mu] + m_a, r = d + sD, m_a = max(p + sP, q + sQ + 1)):

    alpha(t) = (z(t-1), ..., z(t-r), [mu], a(t))

where z(t) = y(t) minus the regression effects, and a(t) is the ARMA(p +
sP, q + sQ) part in companion form (first column of its transition the
multiplied AR coefficients, disturbance loadings (1, theta_1, ...)). The
observation is z(t) = delta_1 z(t-1) + ... + delta_r z(t-r) + mu + a_1(t),
with 1 - delta_1 L - ... - delta_r L^r = (1-L)^d (1-L^s)^D, and the first
row of the transition carries z(t) into the lags. The r lags and mu are
diffuse (every solution of the homogeneous difference equation is
allowed); the ARMA part starts from its stationary variance, solved in
O(m_a^3) by :func:`tessel._linalg.stationary_variance`. Forecasts of y(t)
itself (not of the differences) come out of the same model.
"""

import numpy as np

from .model import ModelError

__all__ = ["SARIMA", "ARMA"]

#: the largest state dimension accepted (the filter costs O(m^2) to O(m^3)
#: per time point; m = 120 covers weekly data with s = 52 and D = 1)
MAX_STATES = 240


def _order(x, name, high):
    if isinstance(x, (bool, np.bool_)) or not isinstance(x, (int, np.integer)):
        raise ModelError(f"{name}: expected a whole number, got {x!r}")
    if not 0 <= int(x) <= high:
        raise ModelError(f"{name}: must be between 0 and {high}, got {int(x)}")
    return int(x)


def _tuple(x, n, name):
    try:
        t = tuple(x)
    except TypeError:
        raise ModelError(f"{name}: expected a tuple of {n} whole numbers, got {x!r}") from None
    if len(t) != n:
        raise ModelError(f"{name}: expected {n} whole numbers, got {len(t)}")
    return t


class SARIMA:
    """Seasonal ARIMA(p, d, q)(P, D, Q, s) structure for :func:`tessel.fit`.

    ``order`` = (p, d, q): AR order (0..20), ordinary differences (0..2), MA
    order (0..20); ``seasonal_order`` = (P, D, Q, s): seasonal AR order
    (0..4), seasonal differences (0..2), seasonal MA order (0..4), season
    length s (2..366, or 0 with P = D = Q = 0); ``constant``: a constant mean
    mu of the differenced series (a diffuse state; with d + D = 1 a drift).
    Parameters, named as they are reported: ``ar.L1``.., ``ma.L1``..,
    ``ar.S.L<s>``.., ``ma.S.L<s>``.., ``sigma2``. ModelError for orders out
    of range or a state dimension above ``MAX_STATES``.
    """

    def __init__(self, order=(1, 0, 0), seasonal_order=(0, 0, 0, 0), constant=False):
        p, d, q = _tuple(order, 3, "SARIMA: order")
        P, D, Q, s = _tuple(seasonal_order, 4, "SARIMA: seasonal_order")
        self.p, self.d, self.q = (_order(p, "SARIMA: p", 20), _order(d, "SARIMA: d", 2),
                                  _order(q, "SARIMA: q", 20))
        self.P, self.D, self.Q = (_order(P, "SARIMA: P", 4), _order(D, "SARIMA: D", 2),
                                  _order(Q, "SARIMA: Q", 4))
        self.s = _order(s, "SARIMA: s", 366)
        if self.s == 1 or (self.s == 0 and (self.P or self.D or self.Q)):
            raise ModelError("SARIMA: the season length s must be at least 2 when P, D or Q is "
                             f"given, got s = {self.s}")
        if isinstance(constant, (bool, np.bool_)):
            self.constant = bool(constant)
        else:
            raise ModelError(f"SARIMA: constant must be True or False, got {constant!r}")
        if self.states > MAX_STATES:
            raise ModelError(f"SARIMA: {self.states} states exceed the limit of {MAX_STATES} "
                             "(the filter's cost grows with the square to the cube of the states)")

    # dimensions
    @property
    def r(self):
        """Number of difference (lag) states: d + sD."""
        return self.d + self.s * self.D

    @property
    def arma_states(self):
        return max(self.p + self.s * self.P, self.q + self.s * self.Q + 1)

    @property
    def states(self):
        return self.r + int(self.constant) + self.arma_states

    @property
    def polynomials(self):
        """(name prefix, order, lag step, is AR) of the four polynomials."""
        return (("ar.L", self.p, 1, True), ("ma.L", self.q, 1, False),
                ("ar.S.L", self.P, self.s, True), ("ma.S.L", self.Q, self.s, False))

    @property
    def names(self):
        out = []
        for prefix, k, step, _ in self.polynomials:
            out += [f"{prefix}{step * (i + 1)}" for i in range(k)]
        return out + ["sigma2"]

    @property
    def label(self):
        seas = f"({self.P},{self.D},{self.Q}){self.s}" if self.s else ""
        return f"SARIMA({self.p},{self.d},{self.q}){seas}" + (" with constant" if self.constant
                                                            else "")

    def __repr__(self):
        return (f"SARIMA(order=({self.p}, {self.d}, {self.q}), seasonal_order=({self.P}, "
                f"{self.D}, {self.Q}, {self.s}), constant={self.constant})")

    def __eq__(self, other):
        return isinstance(other, SARIMA) and repr(self) == repr(other)

    __hash__ = None

    # model pieces
    def difference_polynomial(self):
        """delta_1..delta_r with 1 - sum delta_i L^i = (1-L)^d (1-L^s)^D."""
        poly = np.array([1.0])
        for _ in range(self.d):
            poly = np.convolve(poly, [1.0, -1.0])
        for _ in range(self.D):
            seas = np.zeros(self.s + 1)
            seas[0], seas[-1] = 1.0, -1.0
            poly = np.convolve(poly, seas)
        return -poly[1:]

    def layout(self):
        """Constant parts of the state space form: (sys, var, init) with
        the ARMA block zero and the positions of that block."""
        r, c, ma = self.r, int(self.constant), self.arma_states
        m = r + c + ma
        sys = np.zeros((m + 1, m))
        Z = sys[m]
        Z[:r] = self.difference_polynomial()
        if c:
            Z[r] = 1.0
            sys[r, r] = 1.0                           # mu stays
        Z[r + c] = 1.0
        if r:
            sys[0] = Z                                # z(t) becomes the first lag
        for i in range(1, r):
            sys[i, i - 1] = 1.0
        a = r + c
        for i in range(ma - 1):
            sys[a + i, a + i + 1] = 1.0
        init = np.zeros((m + 1, m))
        init[np.arange(r + c), np.arange(r + c)] = -1.0
        return sys, np.zeros((m + 1, m + 1)), init, a


def multiply(coefs, spec, sign):
    """Coefficients per polynomial (in ``spec.polynomials`` order) -> the
    multiplied non-seasonal x seasonal AR (sign = +1: 1 - sum a_i L^i) or
    MA (sign = -1: 1 + sum b_i L^i) coefficients."""
    out = np.array([1.0])
    for (_, k, step, is_ar), c in zip(spec.polynomials, coefs):
        if is_ar != (sign > 0) or k == 0:
            continue
        poly = np.zeros(k * step + 1)
        poly[0] = 1.0
        poly[step::step] = -sign * np.asarray(c)
        out = np.convolve(out, poly)
    return -sign * out[1:]


def pacf_to_coef(r):
    """Partial autocorrelations (each in (-1, 1)) -> the coefficients a of a
    stationary polynomial 1 - a_1 L - ... - a_k L^k (Durbin-Levinson)."""
    phi = np.zeros(0)
    for rk in r:
        phi = np.r_[phi - rk * phi[::-1], rk]
    return phi


def coef_to_pacf(a):
    """Inverse of :func:`pacf_to_coef` (step-down recursion); None when the
    polynomial 1 - a_1 L - ... is not stationary."""
    phi = np.array(a, dtype=float)
    out = np.zeros(phi.size)
    for k in range(phi.size - 1, -1, -1):
        rk = phi[k]
        if not abs(rk) < 1.0:
            return None
        out[k] = rk
        phi = (phi[:k] + rk * phi[:k][::-1]) / (1.0 - rk * rk)
    return out


class ARMA(SARIMA):
    """ARMA(p, q) structure for :func:`tessel.fit`: SARIMA((p, 0, q)) with a
    constant mean by default."""

    def __init__(self, p, q, constant=True):
        super().__init__((p, 0, q), (0, 0, 0, 0), constant)
        if self.p == 0 and self.q == 0:
            raise ModelError("ARMA: p and q cannot both be 0")

    @property
    def label(self):
        return f"ARMA({self.p},{self.q})" + (" with constant" if self.constant else "")

    def __repr__(self):
        return f"ARMA({self.p}, {self.q}, constant={self.constant})"
