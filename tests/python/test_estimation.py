"""Maximum likelihood fitting, diagnostics and forecasts.

Oracles: statsmodels' UnobservedComponents with exact diffuse
initialisation (Tessel approximates a diffuse element by the variance
kappa = 9999999.99 max(1, largest variance) and removes d log(kappa) and d
observations from the likelihood, which agrees with the exact diffuse
likelihood up to O(1/kappa) terms and a constant: statsmodels counts the d
diffuse observations in the 2 pi term, so its log-likelihood is lower by
d log(2 pi) / 2); published estimates for the Nile data; simulated data
with known parameters; central differences of the log-likelihood.
"""

import math
import warnings

import numpy as np
import pandas as pd
import pytest

import tessel
from zoo import simulate_bsm
from tessel import estimation

sm = pytest.importorskip("statsmodels.api")


@pytest.fixture(scope="module")
def nile():
    return tessel.load_example("nile")


@pytest.fixture(scope="module")
def nile_fit(nile):
    return tessel.fit(nile, [tessel.Level(), tessel.Irregular()])


@pytest.fixture(scope="module")
def nile_statsmodels(nile, nile_fit):
    """statsmodels' exact diffuse local level: its own ML fit (tight
    tolerance) and its filter run at Tessel's estimates."""
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        mod = sm.tsa.UnobservedComponents(nile.to_numpy(), "local level", use_exact_diffuse=True)
        own = mod.fit(start_params=[15000.0, 1500.0], disp=False, method="bfgs", gtol=1e-10,
                      maxiter=2000)
        est = nile_fit.params["estimate"]
        at_ours = mod.smooth([est["sigma2.irregular"], est["sigma2.level"]])
    return own, at_ours


def test_nile_local_level_matches_published_values_and_statsmodels(nile_fit, nile_statsmodels):
    est = nile_fit.params["estimate"]
    # published ML estimates 15099 and 1469.1 (rounded as published)
    assert est["sigma2.irregular"] == pytest.approx(15099.0, abs=1.0)
    assert est["sigma2.level"] == pytest.approx(1469.1, abs=0.5)
    own, _ = nile_statsmodels
    # statsmodels' optimum, exact diffuse: the two optimisers stop within
    # 1e-4 relative of each other on this flat likelihood
    assert est["sigma2.irregular"] == pytest.approx(own.params[0], rel=1e-4)
    assert est["sigma2.level"] == pytest.approx(own.params[1], rel=1e-4)
    assert nile_fit.loglik == pytest.approx(own.llf + 0.5 * math.log(2 * math.pi) * 1, abs=1e-5)
    assert nile_fit.d == 1 and nile_fit.k == 2 and nile_fit.nobs == 100
    assert nile_fit.aic == pytest.approx(-2 * nile_fit.loglik + 2 * 3)
    assert nile_fit.bic == pytest.approx(-2 * nile_fit.loglik + 3 * math.log(100))
    # standard errors from the Hessian: statsmodels' numerical-Hessian
    # covariance ("approx") at the same parameters, to 1e-4 relative (two
    # different finite-difference schemes on the same smooth function)
    _, at_ours = nile_statsmodels
    se = np.sqrt(np.diag(at_ours.cov_params_approx))
    assert nile_fit.params.loc["sigma2.irregular", "std.error"] == pytest.approx(se[0], rel=1e-4)
    assert nile_fit.params.loc["sigma2.level", "std.error"] == pytest.approx(se[1], rel=1e-4)


def test_nile_diagnostics_and_forecasts_match_statsmodels(nile_fit, nile_statsmodels):
    """At the same parameters: the standardised innovations after the
    diffuse observation agree with statsmodels' to 1e-6 (the diffuse
    approximation changes them by O(1/kappa)); the test statistics then
    agree with statsmodels' own implementations; forecasts and their
    variances agree to 1e-7 relative."""
    from statsmodels.stats.diagnostic import acorr_ljungbox
    from statsmodels.stats.stattools import jarque_bera
    _, ref = nile_statsmodels
    dg = nile_fit.diagnostics(lags=10)
    ours = dg.residuals.to_numpy()[1:]
    theirs = ref.standardized_forecasts_error[0, 1:]
    np.testing.assert_allclose(ours, theirs, rtol=0, atol=1e-5)
    assert np.isnan(dg.residuals.iloc[0])                  # the diffuse observation is left out
    q, df, p, lags = dg.ljung_box
    lb = acorr_ljungbox(ours, lags=[10], model_df=nile_fit.k - 1)
    assert q == pytest.approx(float(lb["lb_stat"].iloc[0]), rel=1e-10)
    assert p == pytest.approx(float(lb["lb_pvalue"].iloc[0]), rel=1e-8)
    jb, skew, kurt, pj = dg.normality
    jb_ref = jarque_bera(ours)
    assert (jb, pj, skew, kurt) == pytest.approx(jb_ref, rel=1e-10)
    H, h, ph = dg.heteroskedasticity
    het = ref.test_heteroskedasticity("breakvar")[0]
    assert H == pytest.approx(het[0], rel=1e-6) and ph == pytest.approx(het[1], rel=1e-5)

    fc = nile_fit.forecast(8, level=0.9)
    ref_fc = ref.get_forecast(8)
    np.testing.assert_allclose(np.asarray(fc.mean), ref_fc.predicted_mean, rtol=1e-7)
    np.testing.assert_allclose(np.asarray(fc.var), ref_fc.var_pred_mean, rtol=1e-7)
    ci = ref_fc.conf_int(alpha=0.1)
    np.testing.assert_allclose(np.asarray(fc.lower), ci[:, 0], rtol=1e-7)
    assert list(fc.mean.index) == list(range(1971, 1979))


def test_ml_recovers_a_simulated_structural_model():
    """Data drawn (numpy, seed 2024) from level + slope + quarterly dummy
    seasonal + irregular with known standard deviations: every estimate on
    the optimiser's scale log(sigma) lies within 3 standard errors of the
    truth, and the optimum is a maximum (the gradient vanishes)."""
    truth = {"sigma2.level": 0.8, "sigma2.slope": 0.15, "sigma2.seasonal": 0.5,
             "sigma2.irregular": 1.5}
    rng = np.random.default_rng(2024)
    s_lev, s_slo, s_sea, s_irr = truth.values()
    y = simulate_bsm(rng, 400, s_irr, s_lev, s_slo, s_sea, period=4)
    res = tessel.fit(y, [tessel.Level(), tessel.Slope(), tessel.DummySeasonal(4), tessel.Irregular()])
    assert res.converged
    for name, sd in truth.items():
        row = res.params.loc[name]
        assert not row["at_bound"]
        z = (row["theta"] - math.log(sd)) / row["theta.std.error"]
        assert abs(z) < 3.0, (name, row["estimate"], sd ** 2, z)
    assert res.d == 5 and res.k == 4
    _, g = res._problem.loglik_grad(res.theta)
    assert np.max(np.abs(g)) < 1e-2 * res.nobs ** 0.5


def test_score_gradient_equals_numerical_gradient_at_random_parameters():
    """The gradient used by the optimiser (analytic from LgmLikSco for the
    variances, differences for the others) against central differences of
    the log-likelihood with step 1e-4 in theta (truncation ~1e-8 relative),
    at five random parameter vectors; agreement to 1e-5 relative."""
    rng = np.random.default_rng(77)
    y = simulate_bsm(rng, 120, 1.0, 0.5, 0.1, 0.4, period=4)
    y[[10, 11, 50]] = np.nan
    structure = [tessel.Level(), tessel.DummySeasonal(4), tessel.Cycle(), tessel.AR1(), tessel.Irregular()]
    data = tessel.analysis._Data(y)
    prob = estimation._Problem(structure, data, None)
    analytic = [p.analytic for p in prob.params]
    assert sum(analytic) == 3 and len(analytic) == 8      # level, seasonal, irregular
    for _ in range(5):
        theta = prob.start + rng.normal(scale=0.5, size=prob.start.size)
        _, g = prob.loglik_grad(theta)
        h = 1e-4
        for k in range(theta.size):
            tp, tm = theta.copy(), theta.copy()
            tp[k] += h
            tm[k] -= h
            num = (prob.loglik(tp) - prob.loglik(tm)) / (2 * h)
            assert g[k] == pytest.approx(num, rel=1e-5, abs=1e-5), (k, prob.params[k].name)


def test_arma_fit_recovers_simulated_parameters():
    """ARMA(1,1) plus a constant mean 5, data from a numpy recursion (seed
    99, 600 points after 200 burn-in): AR, MA and sigma^2 within 3 standard
    errors, the constant within 3 standard errors of its smoothed value."""
    rng = np.random.default_rng(99)
    e = rng.normal(scale=1.3, size=800)
    x = np.zeros(800)
    for t in range(1, 800):
        x[t] = 0.7 * x[t - 1] + e[t] + 0.4 * e[t - 1]
    y = 5.0 + x[200:]
    res = tessel.fit(y, tessel.ARMA(1, 1))
    for name, value in (("ar.L1", 0.7), ("ma.L1", 0.4), ("sigma2", 1.69)):
        row = res.params.loc[name]
        assert abs(row["estimate"] - value) < 3 * row["std.error"], (name, row["estimate"])
    const = res.regression_coefficients().loc["const"]
    assert abs(const["estimate"] - 5.0) < 3 * const["std.error"]


def test_regression_effect_missing_data_and_forecast_with_exog():
    rng = np.random.default_rng(5)
    n = 150
    x = rng.normal(size=n).cumsum() * 0.1 + rng.normal(size=n)
    level = np.cumsum(rng.normal(scale=0.3, size=n))
    y = pd.Series(level + 2.0 * x + rng.normal(scale=0.8, size=n),
                  index=pd.period_range("2000-01", periods=n, freq="M"))
    y.iloc[[20, 21, 90]] = np.nan
    X = pd.DataFrame({"x": x}, index=y.index)
    res = tessel.fit(y, [tessel.Level(), tessel.Irregular()], exog=X)
    beta = res.regression_coefficients().loc["x"]
    assert abs(beta["estimate"] - 2.0) < 3 * beta["std.error"]
    assert res.nobs == n - 3 and res.d == 2
    with pytest.raises(tessel.ModelError, match="give their future values"):
        res.forecast(4)
    fc = res.forecast(4, exog=np.ones((4, 1)))
    assert [str(p) for p in fc.mean.index] == ["2012-07", "2012-08", "2012-09", "2012-10"]
    assert np.all(np.diff(np.asarray(fc.var)) > 0)       # uncertainty grows with the horizon
    assert np.all(np.isfinite(np.asarray(res.components()["level"])))


def test_fit_and_forecast_refuse_invalid_input(nile_fit):
    y = np.arange(20.0) + np.random.default_rng(1).normal(size=20)
    before = y.copy()
    bad = [
        (lambda: tessel.fit(y, "level"), "not a tessel component"),
        (lambda: tessel.fit(y, [tessel.Level(1.0), tessel.Irregular(1.0)]), "nothing to estimate"),
        (lambda: tessel.fit(np.ones((20, 2)), [tessel.Level()]), "one series"),
        (lambda: tessel.fit(y, [tessel.Level()], exog=np.ones((5, 1))), "time points"),
        (lambda: tessel.fit(y, [tessel.Level()], maxiter=0), "maxiter"),
        (lambda: tessel.fit(y, [tessel.Level()], progress="yes"), "progress"),
        (lambda: tessel.fit([1.0, np.nan, np.nan], [tessel.Level()]), "at least three"),
        (lambda: tessel.ARMA(0, 0), "cannot both be 0"),
        (lambda: nile_fit.forecast(0), "positive int"),
        (lambda: nile_fit.forecast(3, level=95), "level must be a float"),
        (lambda: tessel.extend_index(pd.DatetimeIndex(["2001-01-05", "2001-02-11", "2001-05-01"]), 2),
         "no frequency"),
    ]
    for make, match in bad:
        with pytest.raises(tessel.ModelError, match=match):
            make()
    np.testing.assert_array_equal(y, before)


def test_progress_reports_each_iteration(nile):
    seen = []
    res = tessel.fit(nile, [tessel.Level(), tessel.Irregular()], progress=lambda i, ll: seen.append((i, ll)))
    assert [i for i, _ in seen] == list(range(1, res.iterations + 1))
    assert seen[-1][1] == pytest.approx(res.loglik, abs=1e-6)
    # the accepted points never lose likelihood by more than rounding
    lls = np.array([ll for _, ll in seen])
    assert np.all(np.diff(lls) > -1e-8)


def test_plots_are_drawn_headless(nile_fit, tmp_path):
    """The fit plot has one panel per component besides the level and
    shows the forecasts; the forecast plot saves a PNG; an ARMA fit (no
    components) plots its smoothed signal."""
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    from tessel.plotting import plot_forecast
    fc = nile_fit.forecast(5)
    fig = nile_fit.plot(tmp_path / "fit.png", forecast=fc)
    assert len(fig.axes) == 2                       # level (+ data, forecasts), irregular
    labels = [t.get_text() for t in fig.axes[0].get_legend().get_texts()]
    assert labels == ["data", "smoothed level", "95% band", "forecast", "95% interval"]
    assert fig.axes[1].get_ylabel() == "irregular" and fig.axes[1].get_xlabel() == "year"
    plt.close(fig)
    fig = plot_forecast(nile_fit, fc, tmp_path / "fc.png", history=30)
    plt.close(fig)
    assert (tmp_path / "fc.png").read_bytes()[:4] == b"\x89PNG"
    arma = tessel.fit(tessel.load_example("nile"), tessel.ARMA(1, 0))
    fig = arma.plot(tmp_path / "arma.png")
    assert len(fig.axes) == 1
    plt.close(fig)
    assert (tmp_path / "arma.png").stat().st_size > 10000
