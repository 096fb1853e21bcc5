"""Model builders (GetLgmArma, GetLgmStsm, GetLgmReg, AddLgmReg, GetLgmSpline)
against independent references, and built models run through the filter.

References:
- ARMA: the stationary initial variance against
  scipy.linalg.solve_discrete_lyapunov on the builder's own T and Q, and the
  whole representation against the ARMA autocovariances of statsmodels'
  arma_acovf (which knows nothing of state space forms);
- structural components: hand-derived matrices, defining properties (a
  seasonal pattern repeats after s periods and sums to zero over a period;
  the summing-to-zero disturbances), solve_discrete_lyapunov for every
  stationary block, arma_acovf for the AR(2) disturbance variance;
- regression: a noise-free regression filtered with its TvData gives back
  its coefficients;
- end to end: the log-likelihood of a basic structural model against
  statsmodels' UnobservedComponents.

The leak check after every test is the autouse fixture of conftest.py.
"""

import numpy as np
import pytest
from scipy.linalg import solve_discrete_lyapunov as lyapunov
from statsmodels.tsa.arima_process import arma_acovf

import tessel
from models import BSM_SIGMAS, BSM_TABLE, Block, bsm_data, bsm_statsmodels, call_refs, lgm_lik
from oracle import KAPPA_FACTOR, TWO_PI

EMPTY = tessel.EMPTY

# Elements assigned or computed with a few operations (trigonometric values
# included): a few ulps.
ATOL_ASSIGNED = 1e-14


# ------------------------------------------------------------------- helpers


def arma(ar, ma, sigma):
    """(return value, SysMat, VarMat, InitMat, messages) of GetLgmArma."""
    with tessel.capture_messages() as msgs:
        ok, (sys, var, init) = call_refs("GetLgmArma", ar, ma, sigma)
    return ok, sys, var, init, list(msgs)


def row(v):
    v = np.asarray(v, dtype=float).reshape(1, -1)
    return v if v.size else EMPTY


def col(v):
    v = np.asarray(v, dtype=float).reshape(-1, 1)
    return v if v.size else EMPTY


def stationary_ar(roots):
    """AR coefficients phi_1..phi_p whose inverse roots are `roots`."""
    return -np.real(np.poly(roots))[1:]


class Stsm:
    """A structural model built by GetLgmStsm, split into its parts."""

    def __init__(self, table):
        self.start, (self.sys, self.var, self.init) = call_refs(
            "GetLgmStsm", np.asarray(table, dtype=float))
        m = self.sys.shape[1]
        self.m = m
        self.T, self.Z = self.sys[:m], self.sys[m]
        self.Q, self.H = self.var[:m, :m], self.var[m, m]
        self.P, self.a = self.init[:m], self.init[m]
        assert np.all(self.var[:m, m] == 0) and np.all(self.var[m, :m] == 0)
        assert np.all(self.a == 0)

    def block(self, start, size):
        s = slice(start, start + size)
        return self.T[s, s], self.Z[s], self.Q[s, s], self.P[s, s]


# ---------------------------------------------------------------------- ARMA

ARMA_CASES = [
    # (inverse AR roots, MA coefficients, sigma)
    ([0.5], [], 1.0),
    ([], [0.4], 2.0),
    ([0.7, -0.4], [0.3], 0.8),
    ([0.6], [0.5, -0.2], 1.3),
    ([0.8 * np.exp(1j), 0.8 * np.exp(-1j), -0.5], [0.4, 0.3, -0.2], 1.0),
    ([0.85 * np.exp(0.4j), 0.85 * np.exp(-0.4j), 0.6 * np.exp(2j), 0.6 * np.exp(-2j)],
     [0.5, -0.3, 0.2, 0.1], 0.7),
    ([0.9, -0.8, 0.5, 0.3], [], 1.1),
    ([], [0.9, 0.5, -0.4, 0.2], 1.0),
    ([-0.6, 0.75], [0.2, 0.6, -0.3], 2.5),
]


@pytest.mark.parametrize("roots, ma, sigma", ARMA_CASES,
                         ids=[f"ARMA({len(c[0])},{len(c[1])})#{i}"
                              for i, c in enumerate(ARMA_CASES)])
class TestArma:
    def test_stationary_variance_and_representation(self, roots, ma, sigma):
        phi = stationary_ar(roots) if roots else np.zeros(0)
        ma = np.asarray(ma, dtype=float)
        p, q = phi.size, ma.size
        m = max(p, q + 1)
        ok, sys, var, init, msgs = arma(row(phi), row(ma), sigma)
        assert ok == 1 and msgs == []
        assert sys.shape == (m + 1, m) and var.shape == (m + 1, m + 1) and init.shape == (m + 1, m)
        T, Z, Q, P = sys[:m], sys[m], var[:m, :m], init[:m]

        # Companion form and the disturbance loading theta = (1, MA).
        T_exp = np.zeros((m, m))
        T_exp[:p, 0] = phi
        T_exp[np.arange(m - 1), np.arange(1, m)] = 1.0
        theta = np.zeros(m)
        theta[0] = 1.0
        theta[1:q + 1] = ma
        np.testing.assert_allclose(T, T_exp, rtol=0, atol=ATOL_ASSIGNED)
        np.testing.assert_array_equal(Z, np.eye(m)[0])
        np.testing.assert_allclose(Q, sigma ** 2 * np.outer(theta, theta), rtol=1e-15,
                                   atol=0)
        assert np.all(var[m] == 0) and np.all(var[:, m] == 0) and np.all(init[m] == 0)

        # InitMat is exactly symmetric and solves P = T P T' + Q. Both sides
        # solve the same well-conditioned system (inverse roots of modulus
        # <= 0.9): the library by one dense LU inversion of the m^2 x m^2
        # matrix I - T (x) T, scipy through its own solver. Their errors are
        # ~ cond * eps * |P| (measured: 1.4e-15 relative at worst); 1e-12
        # relative to the largest element leaves a wide margin yet catches
        # any misplaced coefficient.
        np.testing.assert_array_equal(P, P.T)
        P_ref = lyapunov(T, Q)
        scale = np.abs(P_ref).max()
        np.testing.assert_allclose(P, P_ref, rtol=0, atol=1e-12 * scale)

        # The model as a whole: Cov(y(t+k), y(t)) = Z T^k P Z' must be the
        # ARMA autocovariance (statsmodels, from the lag polynomials alone).
        acov = arma_acovf(np.r_[1.0, -phi], np.r_[1.0, ma], nobs=m + 3, sigma2=sigma ** 2)
        implied = [Z @ np.linalg.matrix_power(T, k) @ P @ Z for k in range(m + 3)]
        np.testing.assert_allclose(implied, acov, rtol=0, atol=1e-12 * scale)

    def test_row_and_column_vectors_give_the_same_model(self, roots, ma, sigma):
        phi = stationary_ar(roots) if roots else np.zeros(0)
        by_row = arma(row(phi), row(ma), sigma)
        by_col = arma(col(phi), col(ma), sigma)
        for a, b in zip(by_row[1:4], by_col[1:4]):
            np.testing.assert_array_equal(a, b)


def test_arma_worked_examples():
    ok, sys, var, init, _ = arma(np.array([[0.5]]), EMPTY, 1.0)
    assert ok == 1
    np.testing.assert_allclose(sys, [[0.5], [1.0]], rtol=0, atol=ATOL_ASSIGNED)
    np.testing.assert_allclose(var, [[1.0, 0.0], [0.0, 0.0]], rtol=0, atol=ATOL_ASSIGNED)
    np.testing.assert_allclose(init, [[1 / 0.75], [0.0]], rtol=ATOL_ASSIGNED)
    s2 = 1.7 ** 2
    ok, sys, var, init, _ = arma(EMPTY, np.array([[0.4]]), 1.7)
    np.testing.assert_allclose(sys, [[0, 1], [0, 0], [1, 0]], rtol=0, atol=ATOL_ASSIGNED)
    np.testing.assert_allclose(var[:2, :2], s2 * np.array([[1, 0.4], [0.4, 0.16]]), rtol=1e-15)
    # A 4 x 4 inversion: a few ulps per element, 1e-13 relative.
    np.testing.assert_allclose(init, np.r_[s2 * np.array([[1.16, 0.4], [0.4, 0.16]]),
                                           [[0.0, 0.0]]], rtol=1e-13, atol=1e-15)


@pytest.mark.parametrize("ar, ma", [
    (EMPTY, EMPTY),
    (np.array([[0.5, 0.1], [0.2, 0.3]]), EMPTY),          # a full matrix counts as empty
    (np.array([[1.0]]), EMPTY),                             # unit root: singular system
    (np.array([[-1.0]]), np.array([[0.3]])),
])
def test_arma_refusals(ar, ma):
    ok, *_, msgs = arma(ar, ma, 1.0)
    assert ok == 0
    assert msgs == ["GetLgmArma(): system error"]


# ---------------------------------------------------------------- structural


def test_level_irregular_and_trends():
    s = Stsm([[0, 0.6, 0], [19, 1.5, 0]])
    np.testing.assert_array_equal(s.start, [[0, 1]])
    np.testing.assert_array_equal(s.sys, [[1], [1]])
    np.testing.assert_allclose(s.var, [[0.36, 0], [0, 2.25]], rtol=1e-15)
    np.testing.assert_array_equal(s.init, [[-1], [0]])

    for k in (2, 3):
        s = Stsm([[19, 1.0, 0], [2, 0.4, k]])
        T = np.eye(k) + np.eye(k, k, 1)  # each element adds the next one
        np.testing.assert_array_equal(s.T, T)
        np.testing.assert_array_equal(s.Z, np.eye(k)[0])
        np.testing.assert_allclose(s.Q, np.diag(np.r_[np.zeros(k - 1), 0.16]), rtol=1e-15)
        np.testing.assert_array_equal(s.P, -np.eye(k))
        np.testing.assert_array_equal(s.start, [[k, 0]])
    # A trend of order 2 is a level with a slope.
    a = Stsm([[2, 0.4, 2], [19, 1.0, 0]])
    b = Stsm([[0, 0.0, 0], [1, 0.4, 0], [19, 1.0, 0]])
    np.testing.assert_array_equal(a.sys, b.sys)
    np.testing.assert_array_equal(a.var, b.var)
    np.testing.assert_array_equal(a.init, b.init)


def seasonal_pattern_checks(T, Z, s):
    """Without disturbances a seasonal pattern repeats after s periods and
    its s consecutive effects sum to zero, whatever the starting state."""
    np.testing.assert_allclose(np.linalg.matrix_power(T, s), np.eye(T.shape[0]),
                               rtol=0, atol=1e-12)
    total = sum(Z @ np.linalg.matrix_power(T, k) for k in range(s))
    np.testing.assert_allclose(total, 0.0, atol=1e-12)


@pytest.mark.parametrize("s", [4, 5, 6, 7, 12])
def test_dummy_seasonal(s):
    st = Stsm([[3, 0.5, s], [19, 1.0, 0]])
    T, Z, Q, P = st.block(0, s - 1)
    T_exp = np.eye(s - 1, k=-1)
    T_exp[0] = -1.0  # the new effect is minus the sum of the previous s-1
    np.testing.assert_array_equal(T, T_exp)
    np.testing.assert_array_equal(Z, np.eye(s - 1)[0])
    np.testing.assert_array_equal(Q, np.diag(np.r_[0.25, np.zeros(s - 2)]))
    np.testing.assert_array_equal(P, -np.eye(s - 1))
    seasonal_pattern_checks(T, Z, s)


@pytest.mark.parametrize("s", [4, 5, 6, 7, 12])
def test_trigonometric_seasonal(s):
    st = Stsm([[4, 0.5, s], [19, 1.0, 0]])
    T, Z, Q, P = st.block(0, s - 1)
    T_exp = np.zeros((s - 1, s - 1))
    Z_exp = np.zeros(s - 1)
    for j in range(1, (s - 1) // 2 + 1):
        lam = 2 * np.pi * j / s
        p = 2 * (j - 1)
        T_exp[p:p + 2, p:p + 2] = [[np.cos(lam), np.sin(lam)], [-np.sin(lam), np.cos(lam)]]
        Z_exp[p] = 1.0
    if s % 2 == 0:
        T_exp[s - 2, s - 2] = -1.0
        Z_exp[s - 2] = 1.0
    # lambda_j is accumulated by adding 2 pi / s: a few ulps off 2 pi j / s.
    np.testing.assert_allclose(T, T_exp, rtol=0, atol=1e-13)
    np.testing.assert_array_equal(Z, Z_exp)
    np.testing.assert_array_equal(Q, 0.25 * np.eye(s - 1))
    np.testing.assert_array_equal(P, -np.eye(s - 1))
    seasonal_pattern_checks(T, Z, s)


@pytest.mark.parametrize("s", [4, 5, 12])
def test_summing_to_zero_seasonal(s):
    st = Stsm([[5, 0.5, s], [19, 1.0, 0]])
    T, Z, Q, P = st.block(0, s)
    np.testing.assert_array_equal(T, np.roll(np.eye(s), 1, axis=1))  # cyclic shift
    np.testing.assert_array_equal(Z, np.eye(s)[0])
    ones = np.ones(s)
    # Disturbances sum to zero over the s states, each with variance sigma^2.
    np.testing.assert_allclose(ones @ Q @ ones, 0.0, atol=1e-14)
    np.testing.assert_allclose(np.diag(Q), 0.25, rtol=1e-15)
    np.testing.assert_allclose(Q, 0.25 * s / (s - 1) * (np.eye(s) - np.outer(ones, ones) / s),
                               rtol=1e-14)
    # Diffuse marker -(s-1) on the diagonal, -1 off it.
    np.testing.assert_array_equal(P, -(s - 2) * np.eye(s) - np.outer(ones, ones))
    np.testing.assert_array_equal(np.linalg.matrix_power(T, s), np.eye(s))


# Stationary blocks: P must solve P = T P T' + Q for the builder's T and Q.
# scipy's solver is accurate to ~1e-14 relative for these small, damped
# systems; 1e-12 relative to |P| allows for that.
RTOL_LYAP = 1e-12


@pytest.mark.parametrize("code", [7, 12, 16])
def test_cycle(code):
    lam, rho, sigma = 0.9, 0.8, 1.7
    st = Stsm([[19, 1.0, 0, 0], [code, sigma, lam, rho]])
    T, Z, Q, P = st.block(0, 2)
    c, s = rho * np.cos(lam), rho * np.sin(lam)
    np.testing.assert_allclose(T, [[c, s], [-s, c]], rtol=0, atol=ATOL_ASSIGNED)
    np.testing.assert_array_equal(Z, [1, 0])
    np.testing.assert_allclose(Q, sigma ** 2 * (1 - rho ** 2) * np.eye(2), rtol=1e-15)
    np.testing.assert_allclose(P, lyapunov(T, Q), rtol=RTOL_LYAP)
    np.testing.assert_allclose(P, sigma ** 2 * np.eye(2), rtol=1e-15)


def test_autoregressive_components():
    st = Stsm([[17, 1.3, 0, -0.6, 0], [19, 1.0, 0, 0, 0]])
    T, Z, Q, P = st.block(0, 1)
    np.testing.assert_array_equal(T, [[-0.6]])
    np.testing.assert_allclose(P, lyapunov(T, Q), rtol=RTOL_LYAP)
    np.testing.assert_allclose(P, [[1.69]], rtol=1e-15)

    for r1, r2 in [(0.7, -0.4), (0.5, 0.5), (-0.9, 0.2), (0.8, 0.0)]:
        sigma = 1.4
        st = Stsm([[18, sigma, 0, r1, r2], [19, 1.0, 0, 0, 0]])
        T, Z, Q, P = st.block(0, 2)
        phi1, phi2 = r1 + r2, -r1 * r2
        np.testing.assert_allclose(T, [[phi1, 1], [phi2, 0]], rtol=1e-15, atol=0)
        np.testing.assert_array_equal(Z, [1, 0])
        # The disturbance variance makes the process variance sigma^2 ...
        gamma0 = arma_acovf([1.0, -phi1, -phi2], [1.0], nobs=1, sigma2=Q[0, 0])[0]
        assert gamma0 == pytest.approx(sigma ** 2, rel=1e-12)
        # ... and InitMat is the stationary variance of the state.
        np.testing.assert_allclose(P, lyapunov(T, Q), rtol=RTOL_LYAP, atol=1e-15)


def butterworth_structure(st, start, n, lam, rho, sigma):
    T, Z, Q, P = st.block(start, 2 * n)
    c, s = rho * np.cos(lam), rho * np.sin(lam)
    T_exp = np.kron(np.eye(n), [[c, s], [-s, c]]) + np.eye(2 * n, k=2)
    np.testing.assert_allclose(T, T_exp, rtol=0, atol=ATOL_ASSIGNED)
    np.testing.assert_array_equal(Z, np.eye(2 * n)[0])
    Q_exp = np.zeros((2 * n, 2 * n))
    Q_exp[-2:, -2:] = sigma ** 2 * (1 - rho ** 2) * np.eye(2)  # only the last block
    np.testing.assert_allclose(Q, Q_exp, rtol=1e-15)
    return T, Q, P


def test_butterworth_cycle():
    lam, rho, sigma = 0.6, 0.85, 1.2
    one = Stsm([[6, sigma, lam, rho, 1], [19, 1.0, 0, 0, 0]])
    cyc = Stsm([[9, sigma, lam, rho, 0], [19, 1.0, 0, 0, 0]])
    np.testing.assert_array_equal(one.sys, cyc.sys)
    np.testing.assert_array_equal(one.var, cyc.var)
    np.testing.assert_array_equal(one.init, cyc.init)

    for n, lam, rho in [(2, 0.6, 0.85), (2, 2.1, 0.5), (3, 0.3, 0.9), (4, 1.0, 0.7)]:
        st = Stsm([[19, 1.0, 0, 0, 0], [0, 0.3, 0, 0, 0], [6, sigma, lam, rho, n]])
        np.testing.assert_array_equal(st.start, [[1 + 2 * n, 0, 1]])
        T, Q, P = butterworth_structure(st, 1, n, lam, rho, sigma)
        # The closed form against the stationary variance solved from T and
        # Q. Its elements grow like (1 - rho^2)^-(2n-1); measured agreement
        # 1.3e-15 relative to the largest element, tolerance 1e-12.
        P_ref = lyapunov(T, Q)
        np.testing.assert_allclose(P, P_ref, rtol=0, atol=1e-12 * np.abs(P_ref).max())
        np.testing.assert_array_equal(P, P.T)


def test_placement_does_not_depend_on_row_order():
    rows = [[0, 0.3, 0, 0, 0], [1, 0.1, 0, 0, 0], [4, 0.2, 7, 0, 0], [11, 1.1, 0.4, 0.8, 0],
            [8, 0.9, 0.7, 0.6, 0], [17, 0.7, 0, 0.5, 0], [18, 1.3, 0, 0.6, -0.2],
            [6, 0.8, 0.5, 0.7, 3], [19, 1.0, 0, 0, 0]]
    # level 0, slope 1, Butterworth 2..7, seasonal 8..13, cycle 8 at 14,
    # cycle 11 at 16, AR(1) 18, AR(2) 19..20, irregular 21.
    start = np.array([0, 1, 8, 16, 14, 18, 19, 2, 21])
    ref = Stsm(rows)
    np.testing.assert_array_equal(ref.start[0], start)
    rng = np.random.default_rng(3)
    for _ in range(5):
        order = rng.permutation(len(rows))
        st = Stsm([rows[i] for i in order])
        np.testing.assert_array_equal(st.start[0], start[order])
        np.testing.assert_array_equal(st.sys, ref.sys)
        np.testing.assert_array_equal(st.var, ref.var)
        np.testing.assert_array_equal(st.init, ref.init)


@pytest.mark.parametrize("table, text", [
    ([[0, 1]], "at least two components required in argument 1"),
    ([[0, 1, 4], [3, 1, 4], [5, 1, 4]], "seasonal parameters not appropriate in argument 2"),
    ([[7, 1, .5, .5], [7, 1, .5, .5], [19, 1, 0, 0]], "no correct model specified in argument 1"),
    ([[0, 1], [4, 1]], "at least three columns required in argument 1"),
    ([[1, 1], [19, 1]], "no model specified in argument 1"),
])
def test_stsm_errors(table, text):
    with pytest.raises(tessel.ZuError) as err:
        call_refs("GetLgmStsm", np.asarray(table, dtype=float))
    assert str(err.value) == "GetLgmStsm(): " + text


# ---------------------------------------------------------------- regression


def reg(x):
    return call_refs("GetLgmReg", x, refs=4)


def test_get_lgm_reg_two_regressors():
    ok, (sys, var, init, idx) = reg(np.zeros((2, 100)))
    assert ok == 1
    np.testing.assert_array_equal(sys, [[1, 0], [0, 1], [0, 0]])
    np.testing.assert_array_equal(idx, [[-1, -1], [-1, -1], [0, 1]])
    np.testing.assert_array_equal(var, np.diag([0, 0, 1]))
    np.testing.assert_array_equal(init, [[-1, 0], [0, -1], [0, 0]])


def test_add_lgm_reg():
    x = np.ones((3, 10))
    _, got = reg(x)
    refs = [tessel.Ref(EMPTY) for _ in range(4)]
    assert tessel.call("AddLgmReg", x, *refs) is None
    for a, b in zip(refs, got):
        np.testing.assert_array_equal(a.value, b)

    # One regressor in front of a local level with a cross-covariance 0.2:
    # the level moves down, the cross-covariance is dropped.
    refs = [tessel.Ref(np.array([[1.0], [1.0]])), tessel.Ref(np.array([[0.7, 0.2], [0.2, 1.5]])),
            tessel.Ref(np.array([[-1.0], [3.0]])), tessel.Ref(EMPTY)]
    tessel.call("AddLgmReg", np.ones((0, 10)), *refs)  # no regressors: no change
    np.testing.assert_array_equal(refs[0].value, [[1.0], [1.0]])
    tessel.call("AddLgmReg", np.ones((1, 10)), *refs)
    sys, var, init, idx = (r.value for r in refs)
    np.testing.assert_array_equal(sys, [[1, 0], [0, 1], [0, 1]])
    np.testing.assert_array_equal(idx, [[-1, -1], [-1, -1], [0, -1]])
    np.testing.assert_array_equal(var, np.diag([0, 0.7, 1.5]))
    np.testing.assert_array_equal(init, [[-1, 0], [0, -1], [0, 3]])


def test_regression_coefficients_recovered_by_the_filter():
    """y(t) = x(t)' beta exactly: the filtered (and smoothed) state is the
    least-squares fit of beta under a diffuse prior of variance kappa, i.e.
    (X X' + I / kappa)^-1 X y, which differs from beta by about
    |(X X')^-1| |beta| / kappa ~ 1e-9 here. Rounding through the kappa-sized
    initial variance costs ~ kappa eps ~ 1e-9 as well: 1e-7 absolute."""
    rng = np.random.default_rng(17)
    beta = np.array([1.5, -2.0, 0.7, 0.25])
    x = rng.normal(size=(4, 80))
    y = (beta @ x).reshape(1, -1)
    ok, (sys, var, init, idx) = reg(x)
    model = (sys, var, init, EMPTY, idx, EMPTY, EMPTY, x)
    moments = tessel.Ref()
    beyond = tessel.call("LgmMomentEst", 0, moments, y, *model)
    np.testing.assert_allclose(beyond[-1], beta, rtol=0, atol=1e-7)
    tessel.call("LgmMomentEst", 1, moments, y, *model)
    smoothed = moments.value[:4]
    np.testing.assert_allclose(smoothed, np.repeat(beta[:, None], 80, axis=1), rtol=0, atol=1e-7)
    # The same regression added in front of a local level with zero level
    # variance and zero initial level recovers beta and the constant.
    refs = [tessel.Ref(np.array([[1.0], [1.0]])), tessel.Ref(np.diag([0.0, 1.0])),
            tessel.Ref(np.array([[-1.0], [0.0]])), tessel.Ref(EMPTY)]
    tessel.call("AddLgmReg", x, *refs)
    model = (refs[0].value, refs[1].value, refs[2].value, EMPTY, refs[3].value, EMPTY, EMPTY, x)
    beyond = tessel.call("LgmMomentEst", 0, moments, y + 3.0, *model)
    np.testing.assert_allclose(beyond[-1], np.r_[beta, 3.0], rtol=0, atol=1e-7)


def spline(q, delta, nargs):
    return call_refs("GetLgmSpline", q, delta, refs=nargs - 2)


def test_spline_forms():
    q = 0.3
    delta = np.array([[1.0, 0.5, 2.0, 0.25, 3.0]])
    ok, (sys, var) = spline(q, delta, 4)
    assert ok == 1
    np.testing.assert_array_equal(sys, [[1, 1], [0, 1], [1, 0]])
    np.testing.assert_allclose(var, [[q / 3, q / 2, 0], [q / 2, q, 0], [0, 0, 1]], rtol=1e-15)
    ok, (_, _, init) = spline(q, delta, 5)
    np.testing.assert_array_equal(init, [[-1, 0], [0, -1], [0, 0]])
    ok, (sys, var, init, sysidx, varidx, tv) = spline(q, delta, 8)
    assert tv.shape == (4, 5)
    # At each t: T[0][1] = delta and Q = q [[d^3/3, d^2/2], [d^2/2, d]].
    d = delta[0]
    np.testing.assert_array_equal(tv[int(sysidx[0, 1])], d)
    want = {(0, 0): q * d ** 3 / 3, (0, 1): q * d ** 2 / 2, (1, 0): q * d ** 2 / 2, (1, 1): q * d}
    for (i, j), w in want.items():
        np.testing.assert_allclose(tv[int(varidx[i, j])], w, rtol=1e-14)  # a few ulps
    assert np.all(sysidx[[0, 1, 1, 2, 2], [0, 0, 1, 0, 1]] == -1)
    assert np.all(varidx[2] == -1) and np.all(varidx[:, 2] == -1)


def test_spline_model_runs_through_the_filter():
    """The spline model with its index matrices and TvData, filtered by the
    library, against the joint-Gaussian oracle reading the same block. Two
    diffuse elements pass through kappa-sized variances: 1e-6 relative, as
    in the filter tests."""
    rng = np.random.default_rng(8)
    n, q = 30, 0.4
    delta = rng.uniform(0.2, 2.0, size=(1, n))
    y = (np.cumsum(np.cumsum(rng.normal(size=n)) * 0.1) + rng.normal(size=n) * 0.3).reshape(1, n)
    y[0, 12] = np.nan
    _, (sys, var, init, sysidx, varidx, tv) = spline(q, delta, 8)
    b = Block(sys, var, y, init=init, sysidx=sysidx, varidx=varidx, tvdata=tv)
    ok, ll, s2 = lgm_lik(y, *b.args())
    ll_ref, s2_ref, _ = b.oracle().loglik()
    assert ok == 1
    assert ll == pytest.approx(ll_ref, rel=1e-6)
    assert s2 == pytest.approx(s2_ref, rel=1e-6)


# ------------------------------------------------------- statsmodels: BSM


class TestBasicStructuralModelAgainstStatsmodels:
    """Conventions. The library's log-likelihood is
        -0.5 [(n_obs - d) log 2 pi + sum log F_t - d log kappa + sum v_t^2 / F_t]
    with kappa on the d diffuse elements. statsmodels' log-likelihood under
    exact diffuse initialisation (use_exact_diffuse=True) is
        -0.5 [n_obs log 2 pi + sum_{t<d} log F_inf,t + sum_{t>=d} (log F_t + v_t^2 / F_t)].
    In the first d steps F_t = kappa F_inf,t + F_*,t + O(1/kappa), so
    log F_t - log kappa = log F_inf,t + O(1/kappa) and v_t^2 / F_t = O(1/kappa);
    afterwards the kappa filter's moments equal the exact ones up to O(1/kappa).
    Hence
        ll_library = ll_exact + (d / 2) log 2 pi + c / kappa + O(1/kappa^2).
    With statsmodels' approximate diffuse filter at the same kappa and no
    burn-in, both compute the same thing and
        ll_library = ll_approx + (d / 2) log(2 pi kappa) + rounding."""

    D = 13  # level, slope and 11 seasonal states, all diffuse
    PARAMS = np.array(BSM_SIGMAS) ** 2

    @pytest.fixture(scope="class")
    def data(self):
        return bsm_data()  # 144 points, gaps after the diffuse steps

    def library_loglik(self, y):
        st = Stsm(BSM_TABLE)
        assert st.m == self.D and np.all(np.diag(st.P) == -1)
        ok, ll, _ = lgm_lik(y.reshape(1, -1), st.sys, st.var, st.init)
        assert ok == 1
        return ll, KAPPA_FACTOR * max(1.0, np.diag(st.var).max())

    def approx_loglik(self, y, kappa):
        mod = bsm_statsmodels(y, exact=False)
        mod.ssm.initialize_approximate_diffuse(kappa)
        mod.ssm.loglikelihood_burn = 0
        return mod.loglike(self.PARAMS)

    def test_same_kappa_approximate_diffuse(self, data):
        """Same algorithm on both sides: only rounding through the
        kappa-sized variances differs, ~ kappa eps ~ 2e-9 relative on each
        of the d diffuse F_t (measured: 5e-9 absolute); 1e-7 absolute."""
        ll, kappa = self.library_loglik(data)
        ll_sm = self.approx_loglik(data, kappa)
        assert ll == pytest.approx(ll_sm + 0.5 * self.D * np.log(TWO_PI * kappa), abs=1e-7)

    def test_exact_diffuse(self, data):
        """The O(1/kappa) remainder c / kappa is measured from statsmodels'
        approximate filter at kappa / 1000, where it is a thousand times
        larger and rounding is negligible (it scales as 1/kappa over
        kappa = 1e4 .. 1e7 to 4 digits). What is left after removing it is
        O(1/kappa^2) plus the rounding of the previous test: 1e-7 absolute.
        Without the correction the two differ by |c| / kappa only (about
        4e-6 here), which is the tolerance of the plain relation."""
        ll, kappa = self.library_loglik(data)
        ll_exact = bsm_statsmodels(data, exact=True).loglike(self.PARAMS)
        half_d_log2pi = 0.5 * self.D * np.log(TWO_PI)
        small = kappa / 1000
        c = small * (self.approx_loglik(data, small) + 0.5 * self.D * np.log(TWO_PI * small)
                     - ll_exact - half_d_log2pi)
        diff = ll - ll_exact - half_d_log2pi
        assert diff == pytest.approx(c / kappa, abs=1e-7)
        assert abs(diff) <= 2 * abs(c) / kappa
