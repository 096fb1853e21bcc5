"""Residual diagnostics: Ljung-Box, Jarque-Bera and heteroskedasticity
tests, and the distribution functions their p-values need (written here,
so that a fit's summary does not load scipy.stats)."""

import math
from dataclasses import dataclass
from statistics import NormalDist
from typing import Any

import numpy as np

__all__ = ["Diagnostics", "ljung_box", "jarque_bera", "heteroskedasticity", "chi2_sf",
           "f_cdf", "normal_quantile"]


# ------------------------------------------------------- distributions


def _gamma_q(a, x):
    """Regularised upper incomplete gamma Q(a, x): the series for x < a +
    1, the continued fraction (modified Lentz) beyond; about 1e-15
    relative."""
    if x <= 0:
        return 1.0
    lead = math.exp(-x + a * math.log(x) - math.lgamma(a))
    if x < a + 1:
        term = total = 1.0 / a
        ap = a
        for _ in range(10000):
            ap += 1
            term *= x / ap
            total += term
            if abs(term) < abs(total) * 1e-17:
                break
        return max(0.0, 1.0 - total * lead)
    b = x + 1 - a
    c, d = 1e300, 1.0 / b
    h = d
    for i in range(1, 10000):
        an = -i * (i - a)
        b += 2
        d = an * d + b
        d = 1e-300 if abs(d) < 1e-300 else d
        c = b + an / c
        c = 1e-300 if abs(c) < 1e-300 else c
        d = 1.0 / d
        step = d * c
        h *= step
        if abs(step - 1) < 1e-16:
            break
    return lead * h


def chi2_sf(x, df):
    """P(X > x) for X ~ chi-squared(df)."""
    return _gamma_q(df / 2.0, x / 2.0)


def _beta_cf(a, b, x):
    # continued fraction of the incomplete beta function (modified Lentz)
    c, d = 1.0, 1.0 - (a + b) * x / (a + 1)
    d = 1.0 / (1e-300 if abs(d) < 1e-300 else d)
    h = d
    for m in range(1, 10000):
        m2 = 2 * m
        for num in (m * (b - m) * x / ((a + m2 - 1) * (a + m2)),
                    -(a + m) * (a + b + m) * x / ((a + m2) * (a + m2 + 1))):
            d = 1.0 + num * d
            d = 1.0 / (1e-300 if abs(d) < 1e-300 else d)
            c = 1.0 + num / c
            c = 1e-300 if abs(c) < 1e-300 else c
            h *= d * c
        if abs(d * c - 1) < 1e-16:
            break
    return h


def _beta_i(a, b, x):
    """Regularised incomplete beta I_x(a, b)."""
    if x <= 0:
        return 0.0
    if x >= 1:
        return 1.0
    lead = math.exp(math.lgamma(a + b) - math.lgamma(a) - math.lgamma(b) + a * math.log(x)
                    + b * math.log1p(-x))
    if x < (a + 1) / (a + b + 2):
        return lead * _beta_cf(a, b, x) / a
    return 1.0 - lead * _beta_cf(b, a, 1 - x) / b


def f_cdf(x, d1, d2):
    """P(X <= x) for X ~ F(d1, d2)."""
    if x <= 0:
        return 0.0
    return _beta_i(d1 / 2.0, d2 / 2.0, d1 * x / (d1 * x + d2))


def normal_quantile(p):
    """The p-quantile of the standard normal distribution."""
    return NormalDist().inv_cdf(p)


# ---------------------------------------------------------------- tests


def _clean(e):
    e = np.asarray(e, dtype=float)
    return e[~np.isnan(e)]


def ljung_box(e, lags, dof_adjust=0):
    """Ljung-Box portmanteau statistic of the series e (NaN dropped) over
    ``lags`` autocorrelations; returns (Q, df, p-value) with df = lags -
    dof_adjust (at least 1)."""
    n = _clean(e).size
    r = acf(e, lags)
    q = n * (n + 2) * np.sum(r ** 2 / (n - np.arange(1, lags + 1)))
    df = max(lags - dof_adjust, 1)
    return float(q), int(df), float(chi2_sf(q, df))


def jarque_bera(e):
    """Jarque-Bera normality statistic (skewness and kurtosis of e) and its
    chi-squared(2) p-value."""
    e = _clean(e)
    n = e.size
    d = e - e.mean()
    m2 = np.mean(d ** 2)
    skew = np.mean(d ** 3) / m2 ** 1.5
    kurt = np.mean(d ** 4) / m2 ** 2
    jb = n * (skew ** 2 / 6 + (kurt - 3) ** 2 / 24)
    return float(jb), float(skew), float(kurt), float(chi2_sf(jb, 2))


def heteroskedasticity(e):
    """H(h): sum of squares of the last h over the first h values of e (NaN
    dropped), h = round(n/3); two-sided p-value from F(h, h)."""
    e = _clean(e)
    h = int(round(e.size / 3))
    if h < 1:
        return float("nan"), h, float("nan")
    H = float(np.sum(e[-h:] ** 2) / np.sum(e[:h] ** 2))
    c = f_cdf(H, h, h)
    return H, h, float(2 * min(c, 1 - c))


def acf(e, lags):
    """Sample autocorrelations 1..lags of e (NaN dropped)."""
    e = _clean(e)
    d = e - e.mean()
    denom = np.sum(d * d)
    return np.array([np.sum(d[k:] * d[:-k]) / denom for k in range(1, lags + 1)])


@dataclass
class Diagnostics:
    """Residual diagnostics of the standardised one-step innovations
    (observed times after the first d, the diffuse elements)."""
    residuals: Any
    ljung_box: tuple     # (Q, df, p, lags)
    normality: tuple     # (JB, skewness, kurtosis, p)
    heteroskedasticity: tuple  # (H, h, p)
