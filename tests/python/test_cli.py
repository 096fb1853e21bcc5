"""The `tessel` command: help, imports, the demo, fits of the bundled data,
every option, a table of bad inputs and arguments, the documentation's
examples. Processes run as `python -m tessel` where the process matters
(exit status, imports, files); numbers are checked against statsmodels and
the Python API, not by their printed digits."""

import json
import math
import os
import re
import subprocess
import sys
import warnings
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

import tessel
from tessel import cli

ROOT = Path(__file__).resolve().parents[2]
DATA = ROOT / "examples" / "data"
ENV = dict(os.environ, MPLBACKEND="Agg", PYTHONPATH=os.pathsep.join(sys.path))


def _run(*args, cwd=None):
    return subprocess.run([sys.executable, "-m", "tessel", *args], capture_output=True, text=True,
                          cwd=cwd, env=ENV, timeout=180)


def _main(argv):
    try:
        return cli.main([str(a) for a in argv])
    except SystemExit as exc:
        return exc.code


def test_help_version_and_imports():
    """Help texts name every option and term; --help loads no numpy, a fit
    without a plot no pandas, scipy or matplotlib."""
    top = _run("--help")
    assert top.returncode == 0 and "maximum likelihood" in top.stdout
    fit = _run("fit", "--help")
    for word in ("DATA.csv", "--model", "--column", "--exog", "--log", "--fix", "--start",
                 "--cycle-periods", "--json", "--no-plot", "--diagnostics", "--strict",
                 "--forecast", "sarima=p,d,q[,P,D,Q,s]", "arma=P,Q", "trig-seasonal=S",
                 "results.json", "exit status"):
        assert word in fit.stdout, word
    assert _run("--version").stdout.startswith(f"Tessel {tessel.__version__} (library ")
    assert _run().returncode == 2
    probe = ("import sys, runpy; sys.argv = ['tessel'] + sys.argv[1:]\n"
             "try: runpy.run_module('tessel', run_name='__main__')\n"
             "except SystemExit: pass\n"
             "print(sorted(m for m in ('numpy', 'pandas', 'scipy', 'matplotlib') "
             "if m in sys.modules), file=sys.stderr)")
    for argv, loaded in ((["--help"], "[]"), (["fit", DATA / "nile.csv", "-m", "level,irregular",
                                               "--no-plot", "-q", "-o", "/tmp/tessel-probe"],
                                              "['numpy']")):
        p = subprocess.run([sys.executable, "-c", probe, *map(str, argv)], capture_output=True,
                           text=True, env=ENV, timeout=60)
        assert p.stderr.strip().splitlines()[-1] == loaded, p.stderr


def test_demo_writes_the_nile_local_level_fit(tmp_path):
    """Estimates within 0.05% of the published 15099 and 1469.1; the files
    carry the data's years; the smoothed level lies inside its band."""
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
    assert list(pd.read_csv(out / "forecast.csv", index_col=0).index) == list(range(1971, 1981))
    png = (out / "fit.png").read_bytes()
    assert png[:8] == b"\x89PNG\r\n\x1a\n" and len(png) > 20000
    proc = _run("demo", "--quiet", "--no-plot", "--out", str(out))   # fit.png of before goes
    assert proc.returncode == 0 and proc.stderr == ""
    assert sorted(p.name for p in out.iterdir()) == [
        "forecast.csv", "parameters.csv", "results.json", "smoothed.csv", "summary.txt"]


def test_fit_of_a_seasonal_model_agrees_with_statsmodels(tmp_path, capsys):
    """Level, slope, monthly dummy seasonal and irregular on the UK driver
    deaths: the log-likelihood equals statsmodels' exact diffuse one at the
    same variances + 13 log(2 pi)/2 to 1e-6 relative, and statsmodels' own
    optimum is not better by more than 1e-4."""
    from statsmodels.tsa.statespace.structural import UnobservedComponents
    out = tmp_path / "uk"
    assert _main(["fit", DATA / "uk_driver_deaths.csv", "--model",
                  "level,slope,seasonal=12,irregular", "--forecast", "12", "--out", out, "-q"]) == 0
    text = capsys.readouterr().out
    assert "d = 13 diffuse" in text
    p = pd.read_csv(out / "parameters.csv", index_col=0)["estimate"]
    y = pd.read_csv(DATA / "uk_driver_deaths.csv")["deaths"].to_numpy(dtype=float)
    mod = UnobservedComponents(y, "local linear trend", seasonal=12, use_exact_diffuse=True)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        theirs = mod.loglike([p["sigma2.irregular"], p["sigma2.level"], p["sigma2.slope"],
                              p["sigma2.seasonal"]])
        best = mod.fit(disp=False, method="lbfgs", maxiter=500).llf
    ours = json.loads((out / "results.json").read_text())["loglik"]
    shift = 13 * 0.5 * math.log(2 * math.pi)
    assert ours == pytest.approx(theirs + shift, rel=1e-6)
    assert best + shift <= ours + 1e-4 * abs(ours)
    fc = pd.read_csv(out / "forecast.csv", index_col=0)
    assert list(fc.index) == [f"1985-{k:02d}" for k in range(1, 13)]
    assert np.all(fc["lower"] < fc["forecast"]) and np.all(fc["forecast"] < fc["upper"])


def test_airline_model_in_one_line(tmp_path):
    """sarima=0,1,1,0,1,1,12 with --log, --json and --diagnostics: the
    printed document validates against docs/results.schema.json and equals
    results.json; the estimates are those of tessel.fit on log passengers;
    exp.forecast is exp(forecast); no fit.png with --no-plot."""
    import jsonschema
    out = tmp_path / "air"
    proc = _run("fit", str(DATA / "air_passengers.csv"), "-m", "sarima=0,1,1,0,1,1,12", "--log",
                "--forecast", "12", "--json", "--diagnostics", "--no-plot", "--out", str(out))
    assert proc.returncode == 0, proc.stderr
    doc = json.loads(proc.stdout)
    schema = json.loads((ROOT / "docs" / "results.schema.json").read_text())
    jsonschema.validate(doc, schema, cls=jsonschema.Draft202012Validator)
    assert doc == json.loads((out / "results.json").read_text())
    api = tessel.fit(np.log(tessel.load_example("air_passengers")),
                     tessel.SARIMA((0, 1, 1), (0, 1, 1, 12)))
    np.testing.assert_allclose([p["estimate"] for p in doc["parameters"]], api.estimates, rtol=1e-9)
    assert doc["model"] == "SARIMA(0,1,1)(0,1,1)12" and doc["d"] == 13
    assert "logarithm of 'passengers'" in doc["observations"]["notes"]
    fc = pd.read_csv(out / "forecast.csv", index_col=0)
    np.testing.assert_allclose(fc["exp.forecast"], np.exp(fc["forecast"]), rtol=1e-12)
    assert fc.index[0] == "1961-01" and 400 < fc["exp.forecast"].iloc[0] < 500
    assert sorted(p.name for p in out.iterdir()) == [
        "diagnostics.png", "forecast.csv", "parameters.csv", "results.json", "smoothed.csv",
        "summary.txt"]


def test_regressors_fixed_values_and_arma(tmp_path, capsys):
    """--exog: the law dummy of the UK driver deaths as a regression effect,
    its future values in rows after the series ends, reported in
    parameters.csv, smoothed.csv and forecast.csv, as tessel.fit finds it;
    --fix holds a variance; arma=1,1 reports its constant."""
    uk = pd.read_csv(DATA / "uk_driver_deaths.csv")
    uk["law"] = (uk["month"] >= "1983-02").astype(float)
    future = pd.DataFrame({"month": [f"1985-{k:02d}" for k in range(1, 7)], "law": 1.0})
    path = tmp_path / "uk.csv"
    pd.concat([uk[["month", "law", "deaths"]], future]).to_csv(path, index=False)
    out = tmp_path / "reg"
    assert _main(["fit", path, "-m", "level,seasonal=12,irregular", "--column", "deaths", "--exog",
                  "law", "--fix", "sigma2.seasonal=0", "--forecast", "6", "-q", "-o", out]) == 0
    assert "6 rows after the last observation" in capsys.readouterr().out
    p = pd.read_csv(out / "parameters.csv", index_col=0)
    api = tessel.fit(uk["deaths"].to_numpy(float), [tessel.Level(), tessel.DummySeasonal(12, 0.0),
                                                     tessel.Irregular()], exog=uk[["law"]])
    assert p.loc["law", "estimate"] == pytest.approx(
        api.regression_coefficients().loc["law", "estimate"], rel=1e-6)
    assert p.loc["sigma2.seasonal", "fixed"] and p.loc["law", "estimate"] < -200
    sm = pd.read_csv(out / "smoothed.csv", index_col=0)
    np.testing.assert_allclose(sm["regression"], p.loc["law", "estimate"] * uk["law"], rtol=1e-9)
    assert list(pd.read_csv(out / "forecast.csv", index_col=0).index)[-1] == "1985-06"
    y = tessel.load_example("nile")
    two = tmp_path / "two.csv"
    pd.DataFrame({"year": y.index, "flow": y.to_numpy(), "other": np.arange(100.0)}).to_csv(
        two, index=False)
    assert _main(["fit", two, "-m", "arma=1,1", "--column", "flow", "-q", "-o",
                  tmp_path / "arma"]) == 0
    assert "ARMA(1,1) with constant" in capsys.readouterr().out
    params = pd.read_csv(tmp_path / "arma" / "parameters.csv", index_col=0)
    assert list(params.index) == ["ar.L1", "ma.L1", "sigma2", "const"]
    assert _main(["fit", two, "-m", "level,irregular", "--columns", "flow,other", "-q", "-o",
                  tmp_path / "two"]) == 0
    assert "cov.level.flow.other" in capsys.readouterr().out
    np.testing.assert_allclose(params["estimate"][:3], tessel.fit(y, tessel.ARMA(1, 1)).estimates,
                               rtol=1e-9)


def test_strict_refuses_a_doubtful_fit(tmp_path):
    """The cycle of log air passengers ends at its shortest allowed period:
    a visible warning and exit 0, or with --strict exit 3 and no files."""
    args = [str(DATA / "air_passengers.csv"), "-m", "level,slope,seasonal=12,cycle,irregular",
            "--log", "-q", "--no-plot"]
    ok = _run("fit", *args, "-o", str(tmp_path / "a"))
    assert ok.returncode == 0 and "tessel: warning: fit: " in ok.stderr
    assert "period of cycle is at the shortest allowed (18" in ok.stderr
    strict = _run("fit", *args, "--strict", "-o", str(tmp_path / "b"))
    assert strict.returncode == 3 and "--strict" in strict.stderr
    assert sorted(p.name for p in tmp_path.iterdir()) == ["a"]


BAD_ARGS = [
    (["--model", "level,wobble"], "unknown term 'wobble'"),
    (["--model", "slope,irregular"], "needs a Level"),
    (["--model", "level,seasonal"], "seasonal needs a value"),
    (["--model", "level,seasonal=x"], "not a valid number"),
    (["--model", "level,seasonal=1"], "period: must be between 2"),
    (["--model", "arma=2"], "arma=P,Q"),
    (["--model", "arma=0,0"], "cannot both be 0"),
    (["--model", "sarima=0,1"], "sarima=p,d,q"),
    (["--model", "sarima=0,1,1,0,1,1"], "sarima=p,d,q or"),
    (["--model", "sarima=0,1,1,0,1,1,1"], "season length"),
    (["--model", "level,cycle=1.5"], "must exceed 2"),
    (["--model", "level,irregular", "--forecast", "-2"], "must not be negative"),
    (["--model", "level,irregular", "--fix", "sigma2.level"], "write NAME=VALUE"),
    (["--model", "level,irregular", "--fix", "sigma2.slope=1"], "--fix: names no estimated"),
    (["--model", "level,irregular", "--start", "sigma2.level=-1"], "--start: value of"),
    (["--model", "level,cycle", "--cycle-periods", "12"], "write LO,HI"),
    (["--model", "level,irregular", "--exog", "flow"], "is the series itself"),
    (["--model", "level,irregular", "--columns", "flow,flow"], "named twice"),
]


@pytest.mark.parametrize("extra,message", BAD_ARGS)
def test_bad_arguments_are_refused(tmp_path, capsys, extra, message):
    assert _main(["fit", DATA / "nile.csv", "--out", tmp_path / "x", "-q", *extra]) == 2
    err = capsys.readouterr().err
    assert message in err and err.count("\n") == 1
    assert list(tmp_path.iterdir()) == []


def _variant(rows, kind):
    """The UK driver deaths file rewritten as files come in practice."""
    head, body = rows[0], rows[1:]
    month = [r.split(",")[0] for r in body]
    value = [r.split(",")[1] for r in body]
    lines = {
        "shuffled": [head] + body[:10] + [body[11], body[10]] + body[12:],
        "duplicated": [head] + body[:21] + body[20:],
        "gaps": [head] + body[:30] + body[44:],
        "semicolon, decimal comma": ['"month";"deaths"'] + [f"{m};{v},0" for m, v in
                                                            zip(month, value)],
        "tab": [r.replace(",", "\t") for r in rows],
        "FRED missing": [head] + [f"{m},{v if i % 17 else '.'}" for i, (m, v) in
                                  enumerate(zip(month, value))],
        "thousands": [head] + [f'{m},"{int(v):,}"' for m, v in zip(month, value)],
        "stray x": [head] + body[:50] + [f"{month[50]},x"] + body[51:],
        "empty": [],
        "no header": [r.replace('"', "").replace("-", "") for r in body],
        "header only": [head],
        "ragged": [head] + body[:5] + [body[5] + ",3"] + body[6:],
        "bad date": [head] + body[:5] + ['"1969-13",1600'] + body[6:],
        "irregular": ["day,v", "2001-01-05,1", "2001-02-11,2", "2001-05-01,3", "2001-07-19,4"],
        "duplicate column": ['"month","deaths","deaths"'] + [r + ",1" for r in body],
    }[kind]
    return "\n".join(lines) + ("\n" if lines else "")


BAD_INPUT = [  # (variant, exit status, message: the error, or what the fit says it did)
    ("shuffled", 1, "row 13: the time '1969-11' comes after '1969-12': the rows must be sorted"),
    ("duplicated", 1, "row 23: the time '1970-09' appears twice (rows 22 and 23)"),
    ("stray x", 1, "row 52, column 'deaths': cannot read 'x' as a number"),
    ("empty", 1, "the file is empty"),
    ("no header", 1, "must be a header naming the columns"),
    ("header only", 1, "a header but no data rows"),
    ("ragged", 1, "row 7 has 3 fields where the header has 2"),
    ("bad date", 1, "row 7, column 'month': cannot read '1969-13' as a date"),
    ("irregular", 1, "the time index has no regular step"),
    ("duplicate column", 1, "the column name 'deaths' appears twice"),
    ("gaps", 0, "14 time points missing from the monthly index (1971-07, 1971-08"),
    ("semicolon, decimal comma", 0, "decimal commas in 'deaths'"),
    ("tab", 0, "columns separated by tabs"),
    ("FRED missing", 0, "12 cells '.' in 'deaths' read as missing"),
    ("thousands", 0, "thousands separators in 'deaths' (e.g. '1,687')"),
]


@pytest.fixture(scope="module")
def uk_clean():
    return tessel.fit(pd.read_csv(DATA / "uk_driver_deaths.csv")["deaths"].to_numpy(float),
                      [tessel.Level(), tessel.Irregular()])


@pytest.mark.parametrize("kind,code,message", BAD_INPUT)
def test_bad_inputs_are_named_or_repaired(tmp_path, capsys, kind, code, message, uk_clean):
    """Each bad file: one line naming the problem and the cure, exit 1, no
    files. Each recoverable one: a fit whose summary says what was done; a
    file that differs only in its format gives the clean file's estimates."""
    path = tmp_path / "in.csv"
    path.write_text(_variant((DATA / "uk_driver_deaths.csv").read_text().splitlines(), kind))
    out = tmp_path / "out"
    assert _main(["fit", path, "-m", "level,irregular", "-q", "--no-plot", "-o", out]) == code
    cap = capsys.readouterr()
    if code:
        assert message in cap.err and cap.err.count("\n") == 1 and not out.exists()
        assert sorted(p.name for p in tmp_path.iterdir()) == ["in.csv"]
        return
    assert f"input: {message}" in cap.out
    doc = json.loads((out / "results.json").read_text())
    assert message in " | ".join(doc["observations"]["notes"])
    est = [p["estimate"] for p in doc["parameters"]]
    if kind in ("gaps", "FRED missing"):
        assert doc["observations"]["missing"] in (12, 14) and doc["observations"]["time_points"] == 192
    else:
        np.testing.assert_allclose(est, uk_clean.estimates, rtol=1e-9)


def _blocks(path):
    return re.findall(r"```(python|sh)\n(.*?)```", path.read_text(), flags=re.S)


@pytest.mark.parametrize("doc", ["README.md", "docs/python-api.md"])
def test_documentation_examples_run(doc, tmp_path, monkeypatch):
    """Every python block of the document runs (in one namespace, in a
    scratch folder); every `tessel` line of its sh blocks exits 0."""
    import matplotlib
    matplotlib.use("Agg")
    monkeypatch.chdir(tmp_path)
    (tmp_path / "examples").symlink_to(ROOT / "examples")
    namespace = {}
    blocks = _blocks(ROOT / doc)
    assert blocks
    for lang, code in blocks:
        if lang == "python":
            with warnings.catch_warnings():
                warnings.simplefilter("ignore", tessel.ConvergenceWarning)
                exec(compile(code, f"{doc} example", "exec"), namespace)
            continue
        for line in code.splitlines():
            cmd = line.split("#")[0].split()
            if cmd[:1] == ["tessel"]:
                proc = _run(*cmd[1:], cwd=tmp_path)
                assert proc.returncode == 0, (line, proc.stderr)
