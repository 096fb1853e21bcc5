"""Small dense linear algebra shared by the builders and the estimators."""

import numpy as np


def stationary_variance(T, Q):
    """Solution P of P = T P T' + Q for a stable T (every eigenvalue inside
    the unit circle), in O(m^3): Schur forms through scipy's discrete
    Lyapunov solver, then symmetrised. Raises ValueError when T is not
    stable (the solution would not be a variance)."""
    from scipy.linalg import solve_discrete_lyapunov

    T = np.asarray(T, dtype=float)
    Q = np.asarray(Q, dtype=float)
    if T.size and np.max(np.abs(np.linalg.eigvals(T))) >= 1.0:
        raise ValueError("the transition has an eigenvalue on or outside the unit circle")
    P = solve_discrete_lyapunov(T, Q, method="bilinear")
    return 0.5 * (P + P.T)
