"""Model builders against independent references: ARMA autocovariances
(statsmodels' arma_acovf, from the lag polynomials alone), stationary
variances (scipy's Lyapunov solver on the builder's own T and Q), the
defining properties of seasonal blocks, a regression run through the
filter. Argument checks, messages and the spline forms live in the C++
tests."""

import numpy as np
import pytest
from scipy.linalg import solve_discrete_lyapunov as lyapunov
from statsmodels.tsa.arima_process import arma_acovf

import tessel
from zoo import BSM_TABLE, ZOO, call_refs

EMPTY = tessel.EMPTY


def stsm(table):
    """(block starts, SysMat, VarMat, InitMat) of GetLgmStsm."""
    start, (sys, var, init) = call_refs("GetLgmStsm", np.asarray(table, dtype=float))
    m = sys.shape[1]
    assert np.all(var[:m, m] == 0) and np.all(init[m] == 0)
    return start, sys, var, init


def block(built, start, size):
    """T, Z, Q, P of the component at `start`."""
    _, sys, var, init = built
    s, m = slice(start, start + size), sys.shape[1]
    return sys[s, s], sys[m, s], var[s, s], init[s, s]


@pytest.mark.parametrize("roots, ma, sigma", [
    ([0.5], [], 1.0), ([], [0.4], 2.0), ([0.7, -0.4], [0.3], 0.8),
    ([0.8 * np.exp(1j), 0.8 * np.exp(-1j), -0.5], [0.4, 0.3, -0.2], 1.0),
    ([], [0.9, 0.5, -0.4, 0.2], 1.0), ([-0.6, 0.75], [0.2, 0.6, -0.3], 2.5)])
def test_arma_has_the_arma_autocovariances(roots, ma, sigma):
    """Companion form with loading (1, MA), InitMat the exactly symmetric
    stationary variance (1e-12 relative: both solvers are accurate to a few
    eps on these damped systems, measured 1.4e-15), and Cov(y(t+k), y(t)) =
    Z T^k P Z' the ARMA autocovariance."""
    phi = -np.real(np.poly(roots))[1:] if roots else np.zeros(0)
    m = max(phi.size, len(ma) + 1)
    ok, (sys, var, init) = call_refs("GetLgmArma", phi[None] if phi.size else EMPTY,
                                     np.array([ma]) if ma else EMPTY, sigma)
    assert ok == 1
    T, Z, Q, P = sys[:m], sys[m], var[:m, :m], init[:m]
    T_exp = np.eye(m, k=1)
    T_exp[:phi.size, 0] = phi
    theta = np.r_[1.0, ma, np.zeros(m - 1 - len(ma))]
    np.testing.assert_allclose(T, T_exp, rtol=0, atol=1e-14)
    np.testing.assert_array_equal(Z, np.eye(m)[0])
    np.testing.assert_allclose(Q, sigma**2 * np.outer(theta, theta), rtol=1e-15)
    assert np.all(var[m] == 0) and np.all(init[m] == 0)
    np.testing.assert_array_equal(P, P.T)
    scale = np.abs(P).max()
    np.testing.assert_allclose(P, lyapunov(T, Q), rtol=0, atol=1e-12 * scale)
    acov = arma_acovf(np.r_[1.0, -phi], np.r_[1.0, ma], nobs=m + 3, sigma2=sigma**2)
    implied = [Z @ np.linalg.matrix_power(T, k) @ P @ Z for k in range(m + 3)]
    np.testing.assert_allclose(implied, acov, rtol=0, atol=1e-12 * scale)


@pytest.mark.parametrize("code, s", [(3, 4), (3, 7), (4, 5), (4, 12), (5, 4), (5, 5)])
def test_seasonal_blocks(code, s):
    """Without disturbances a pattern repeats after s periods (and for the
    dummy and trigonometric forms sums to zero over them); every element is
    diffuse. Dummy: the new effect is minus the sum of the others; summing
    to zero: a cyclic shift whose s disturbances sum to zero, each of
    variance sigma^2, with diffuse marks -(s-1) on the diagonal, -1 off it."""
    size = s if code == 5 else s - 1
    T, Z, Q, P = block(stsm([[code, 0.5, s], [19, 1.0, 0]]), 0, size)
    np.testing.assert_allclose(np.linalg.matrix_power(T, s), np.eye(size), rtol=0, atol=1e-12)
    if code == 5:
        ones = np.ones(s)
        np.testing.assert_array_equal(T, np.roll(np.eye(s), 1, axis=1))
        np.testing.assert_allclose(Q, 0.25 * s / (s - 1) * (np.eye(s) - np.outer(ones, ones) / s),
                                   rtol=1e-14, atol=1e-16)
        np.testing.assert_array_equal(P, -(s - 2) * np.eye(s) - np.outer(ones, ones))
        return
    total = sum(Z @ np.linalg.matrix_power(T, k) for k in range(s))
    np.testing.assert_allclose(total, 0.0, atol=1e-12)
    np.testing.assert_array_equal(P, -np.eye(size))
    if code == 3:
        T_exp = np.eye(size, k=-1)
        T_exp[0] = -1.0
        np.testing.assert_array_equal(T, T_exp)
        np.testing.assert_array_equal(Q, np.diag(np.r_[0.25, np.zeros(size - 1)]))
    else:
        np.testing.assert_array_equal(Q, 0.25 * np.eye(size))


@pytest.mark.parametrize("row, size", [
    ([7, 1.7, 0.9, 0.8, 0], 2), ([16, 1.7, 0.9, 0.8, 0], 2), ([17, 1.3, 0, -0.6, 0], 1),
    ([18, 1.4, 0, 0.7, -0.4], 2), ([18, 1.4, 0, -0.9, 0.2], 2), ([6, 1.2, 0.6, 0.85, 2], 4),
    ([6, 1.2, 1.0, 0.7, 4], 8)])
def test_stationary_blocks(row, size):
    """Cycles, AR(1), AR(2) by inverse roots and Butterworth cycles: InitMat
    solves P = T P T' + Q for the builder's T and Q (1e-12 relative to |P|;
    the Butterworth closed form grows like (1 - rho^2)^-(2n-1), measured
    1.3e-15), and the component variance Z P Z' is sigma^2 (cycle, AR)."""
    T, Z, Q, P = block(stsm([[19, 1.0, 0, 0, 0], row]), 0, size)
    np.testing.assert_array_equal(P, P.T)
    np.testing.assert_allclose(P, lyapunov(T, Q), rtol=0, atol=1e-12 * np.abs(P).max())
    code, sigma, lam, rho, n = row
    if code == 6:
        rot = rho * np.array([[np.cos(lam), np.sin(lam)], [-np.sin(lam), np.cos(lam)]])
        T_exp = np.kron(np.eye(n), rot) + np.eye(2 * n, k=2)
        np.testing.assert_allclose(T, T_exp, rtol=0, atol=1e-14)
        assert np.all(Q[:-2] == 0) and np.all(Q[:, :-2] == 0)
    else:
        assert Z @ P @ Z == pytest.approx(sigma**2, rel=1e-12)
    if code == 18:
        np.testing.assert_allclose(T, [[rho + n, 1], [-rho * n, 0]], rtol=1e-15, atol=1e-16)


def test_structural_model_and_placement():
    """The structural table builds the zoo's hand-written basic structural
    model (level, slope, dummy seasonal, irregular), and block placement
    does not depend on the row order of the table."""
    _, sys, var, init = stsm(BSM_TABLE)
    want = ZOO["bsm"]()
    for got, exp in ((sys, want.sys), (var, want.var), (init, want.init)):
        np.testing.assert_allclose(got, exp, rtol=1e-15, atol=0)
    rows = [[0, 0.3, 0, 0, 0], [1, 0.1, 0, 0, 0], [4, 0.2, 7, 0, 0], [11, 1.1, 0.4, 0.8, 0],
            [8, 0.9, 0.7, 0.6, 0], [17, 0.7, 0, 0.5, 0], [18, 1.3, 0, 0.6, -0.2],
            [6, 0.8, 0.5, 0.7, 3], [19, 1.0, 0, 0, 0]]
    start = np.array([0, 1, 8, 16, 14, 18, 19, 2, 21])
    ref = stsm(rows)
    np.testing.assert_array_equal(ref[0][0], start)
    order = np.random.default_rng(3).permutation(len(rows))
    built = stsm([rows[i] for i in order])
    np.testing.assert_array_equal(built[0][0], start[order])
    for a, b in zip(built[1:], ref[1:]):
        np.testing.assert_array_equal(a, b)
    # A trend of order k: each element adds the next, only the last disturbed.
    T, Z, Q, P = block(stsm([[19, 1.0, 0], [2, 0.4, 3]]), 0, 3)
    np.testing.assert_array_equal(T, np.eye(3) + np.eye(3, k=1))
    np.testing.assert_allclose(Q, np.diag([0, 0, 0.16]), rtol=1e-15)
    np.testing.assert_array_equal(P, -np.eye(3))


def test_regression_coefficients_recovered_by_the_filter():
    """y(t) = x(t)' beta exactly: the filtered state is (X X' + I / kappa)^-1
    X y, off beta by |(X X')^-1| |beta| / kappa ~ 1e-9, and rounding through
    kappa costs ~ kappa eps ~ 1e-9: 1e-7. Added in front of a level with
    zero variance and a known initial value, it recovers beta and that value."""
    rng = np.random.default_rng(17)
    beta, x = np.array([1.5, -2.0, 0.7, 0.25]), rng.normal(size=(4, 80))
    y = (beta @ x).reshape(1, -1)
    _, (sys, var, init, idx) = call_refs("GetLgmReg", x, refs=4)
    out = tessel.Ref()
    beyond = tessel.call("LgmMomentEst", 0, out, y, sys, var, init, EMPTY, idx, EMPTY, EMPTY, x)
    np.testing.assert_allclose(beyond[-1], beta, rtol=0, atol=1e-7)
    refs = [tessel.Ref(np.array([[1.0], [1.0]])), tessel.Ref(np.diag([0.0, 1.0])),
            tessel.Ref(np.array([[0.0], [3.0]])), tessel.Ref(EMPTY)]
    tessel.call("AddLgmReg", x, *refs)
    sys, var, init, idx = (r.value for r in refs)
    beyond = tessel.call("LgmMomentEst", 0, out, y + 3.0, sys, var, init, EMPTY, idx, EMPTY, EMPTY, x)
    np.testing.assert_allclose(beyond[-1], np.r_[beta, 3.0], rtol=0, atol=1e-7)

