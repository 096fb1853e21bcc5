"""The `tessel` command: help texts, the demo, fits of the bundled data and
refusals of bad arguments.

The demo runs as a real process (`python -m tessel`); the other cases call
the command's main() in the test process. Numbers are checked against
published values and statsmodels, not by their printed digits.
"""

import math
import os
import subprocess
import sys
import warnings
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

import tessel
from tessel import cli

DATA = Path(__file__).resolve().parents[2] / "examples" / "data"


def _run(*args, cwd=None):
    env = dict(os.environ, MPLBACKEND="Agg")
    return subprocess.run([sys.executable, "-m", "tessel", *args], capture_output=True, text=True,
                          cwd=cwd, env=env, timeout=120)


def test_help_texts_are_complete():
    top = _run("--help")
    assert top.returncode == 0
    for word in ("fit", "demo", "version", "maximum likelihood"):
        assert word in top.stdout
    fit = _run("fit", "--help")
    assert fit.returncode == 0
    for word in ("DATA.csv", "--model", "--column", "--out", "--forecast", "--quiet", "level",
                 "slope", "trend[=K]", "seasonal=S", "trig-seasonal=S", "sum-seasonal=S", "cycle[=P]",
                 "bwcycle[=K]", "ar1, ar2", "irregular", "arma=P,Q", "smoothed.csv", "fit.png"):
        assert word in fit.stdout, word
    demo = _run("demo", "--help")
    assert demo.returncode == 0 and "Nile" in demo.stdout and "--out" in demo.stdout
    bare = _run()
    assert bare.returncode == 2 and "COMMAND" in bare.stderr


def test_demo_writes_the_nile_local_level_fit(tmp_path):
    """Estimates within 0.05% of the published 15099 and 1469.1; the CSV
    files have the data's years; the smoothed level lies inside its band;
    the plot is a PNG of reasonable size."""
    out = tmp_path / "demo"
    proc = _run("demo", "--out", str(out), cwd=tmp_path)
    assert proc.returncode == 0, proc.stderr
    assert "sigma2.level" in proc.stdout and "Ljung-Box" in proc.stdout
    assert "iteration" in proc.stderr                   # progress of the optimiser
    params = pd.read_csv(out / "parameters.csv", index_col=0)
    assert params.loc["sigma2.irregular", "estimate"] == pytest.approx(15099.0, rel=5e-4)
    assert params.loc["sigma2.level", "estimate"] == pytest.approx(1469.1, rel=5e-4)
    sm = pd.read_csv(out / "smoothed.csv", index_col=0)
    assert list(sm.index) == list(range(1871, 1971))
    assert np.all(sm["level.lower"] < sm["level"]) and np.all(sm["level"] < sm["level.upper"])
    np.testing.assert_allclose(sm["level"] + sm["irregular"], sm["observed"], rtol=1e-9)
    fc = pd.read_csv(out / "forecast.csv", index_col=0)
    assert list(fc.index) == list(range(1971, 1981))
    png = (out / "fit.png").read_bytes()
    assert png[:8] == b"\x89PNG\r\n\x1a\n" and len(png) > 20000
    # the default output folder is ./tessel-demo
    proc = _run("demo", "--quiet", "--forecast", "0", cwd=tmp_path)
    assert proc.returncode == 0 and (tmp_path / "tessel-demo" / "fit.png").is_file()
    assert proc.stderr == ""


def test_fit_of_a_seasonal_model_agrees_with_statsmodels(tmp_path, capsys):
    """Level, slope, monthly dummy seasonal and irregular on the UK driver
    deaths: the reported log-likelihood equals statsmodels' exact diffuse
    log-likelihood at the same variances (+ 13 log(2 pi) / 2, see
    test_estimation) to 1e-6 relative, and statsmodels' own optimum is not
    better by more than 1e-4 (the optimisers stop at slightly different
    points of a flat maximum)."""
    sm_api = pytest.importorskip("statsmodels.api")
    out = tmp_path / "uk"
    code = cli.main(["fit", str(DATA / "uk_driver_deaths.csv"), "--model",
                     "level,slope,seasonal=12,irregular", "--forecast", "12", "--out", str(out), "-q"])
    assert code == 0
    text = capsys.readouterr().out
    assert "log-likelihood" in text and "d = 13 diffuse" in text
    params = pd.read_csv(out / "parameters.csv", index_col=0)["estimate"]
    y = pd.read_csv(DATA / "uk_driver_deaths.csv")["deaths"].to_numpy(dtype=float)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        mod = sm_api.tsa.UnobservedComponents(y, "local linear trend", seasonal=12,
                                              use_exact_diffuse=True)
        theirs_at_ours = mod.loglike([params["sigma2.irregular"], params["sigma2.level"],
                                      params["sigma2.slope"], params["sigma2.seasonal"]])
        best = mod.fit(disp=False, method="lbfgs", maxiter=500).llf
    shift = 13 * 0.5 * math.log(2 * math.pi)
    ours = float(text.split("log-likelihood")[1].split()[0])
    assert ours == pytest.approx(theirs_at_ours + shift, rel=1e-6)
    assert best + shift <= ours + 1e-4 * abs(ours)
    fc = pd.read_csv(out / "forecast.csv", index_col=0, parse_dates=True)
    assert [d.strftime("%Y-%m") for d in fc.index] == [f"1985-{k:02d}" for k in range(1, 13)]
    assert np.all(fc["lower"] < fc["forecast"]) and np.all(fc["forecast"] < fc["upper"])
    sm = pd.read_csv(out / "smoothed.csv", index_col=0)
    assert {"level", "slope", "seasonal", "irregular", "signal"} <= set(sm.columns)


def test_fit_arma_and_column_choice(tmp_path, capsys):
    csv = tmp_path / "two.csv"
    y = tessel.load_example("nile")
    pd.DataFrame({"year": y.index, "flow": y.to_numpy(), "other": np.arange(100.0)}).to_csv(
        csv, index=False)
    code = cli.main(["fit", str(csv), "--model", "arma=1,1", "--column", "flow", "-q",
                     "--out", str(tmp_path / "arma")])
    assert code == 0
    out = capsys.readouterr().out
    assert "ARMA(1,1) with constant" in out and "const" in out
    params = pd.read_csv(tmp_path / "arma" / "parameters.csv", index_col=0)
    assert list(params.index) == ["ar.L1", "ma.L1", "sigma2"]
    direct = tessel.fit(y, tessel.ARMA(1, 1))
    np.testing.assert_allclose(params["estimate"], direct.params["estimate"], rtol=1e-9)


BAD_ARGS = [
    (["--model", "level,wobble"], 2, "unknown term 'wobble'"),
    (["--model", "slope,irregular"], 2, "needs a Level"),
    (["--model", "level,seasonal"], 2, "seasonal needs a value"),
    (["--model", "level,seasonal=x"], 2, "not a valid number"),
    (["--model", "level,seasonal=1"], 2, "period: must be between 2"),
    (["--model", "arma=2"], 2, "arma=P,Q"),
    (["--model", "arma=0,0"], 2, "cannot both be 0"),
    (["--model", "level,cycle=1.5"], 2, "must exceed 2"),
    (["--model", "level,irregular", "--column", "nope"], 1, "no column 'nope'"),
    (["--model", "level,irregular", "--forecast", "-2"], 2, "must not be negative"),
]


@pytest.mark.parametrize("extra,code,message", BAD_ARGS)
def test_bad_arguments_are_refused(tmp_path, capsys, extra, code, message):
    argv = ["fit", str(DATA / "nile.csv"), "--out", str(tmp_path / "x"), "-q", *extra]
    try:
        got = cli.main(argv)
    except SystemExit as exc:
        got = exc.code
    assert got == code
    assert message in capsys.readouterr().err


def test_missing_file_and_bad_csv(tmp_path, capsys):
    with pytest.raises(SystemExit) as exc:
        cli.main(["fit", str(tmp_path / "none.csv"), "--model", "level,irregular"])
    assert exc.value.code == 2 and "no such file" in capsys.readouterr().err
    text = tmp_path / "text.csv"
    text.write_text("when,what\n1,a\n2,b\n3,c\n")
    assert cli.main(["fit", str(text), "--model", "level,irregular", "-q"]) == 1
    assert "no numeric column" in capsys.readouterr().err
