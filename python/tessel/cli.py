"""The `tessel` command: fit a state space model to a series in a CSV file.

    tessel fit DATA.csv --model level,slope,seasonal=12,irregular [--column NAME]
                        [--out DIR] [--forecast H] [--log] [--exog COLS] ...
    tessel demo [--out DIR]
    tessel version | tessel --version

Exit status: 0 success; 1 the data, the model or the fit failed (one line
naming the problem and the cure); 2 a command-line argument cannot be used;
3 with --strict, the optimiser did not converge (or an estimate is on the
edge); 130 interrupted. Output files are written only after a successful
fit, into a temporary folder that then replaces them.

pandas, scipy.stats and matplotlib are imported only when needed (the plot),
so that `tessel --help` and a fit without a plot start quickly.
"""

import argparse
import math
import os
import sys
from pathlib import Path

MODEL_HELP = """\
model terms, separated by commas:
  level             random walk level
  slope             slope of the level (needs level)
  trend[=K]         trend of order K (default 2: smooth trend)
  seasonal=S        dummy seasonal of period S
  trig-seasonal=S   trigonometric seasonal of period S
  sum-seasonal=S    seasonal with S states and disturbances summing to zero
  cycle[=P]         stochastic cycle; P fixes its period (in time points),
                    otherwise the period is estimated within --cycle-periods
  bwcycle[=K]       Butterworth cycle of order K (default 2)
  ar1, ar2          autoregressive components
  irregular         observation noise
  arma=P,Q          ARMA(P, Q) with a constant mean (alone)
  sarima=p,d,q[,P,D,Q,s][,constant]
                    seasonal ARIMA (alone), e.g. sarima=0,1,1,0,1,1,12 (the
                    airline model); constant: a constant mean of the
                    differenced series
Every variance (and cycle, AR or ARMA parameter) is estimated by maximum
likelihood unless fixed with --fix. Parameter names (for --fix and --start)
are those of the report: sigma2.level, frequency.cycle, ar.L1, ma.S.L12, ...

exit status: 0 success, 1 bad data or failed fit, 2 bad argument,
3 not converged with --strict, 130 interrupted."""


class UsageError(Exception):
    """A command-line argument that cannot be used."""


class Failure(Exception):
    """A failed fit (exit status 1), or with --strict a doubtful one (3)."""

    def __init__(self, text, status=1):
        super().__init__(text)
        self.status = status


def _orders(text, tokens, n_min, n_max, what):
    try:
        vals = [int(t) for t in tokens]
    except ValueError:
        raise UsageError(f"--model: {what} orders must be whole numbers, got {text!r}") from None
    if not n_min <= len(vals) <= n_max:
        raise UsageError(f"--model: write {what}")
    return vals


def parse_model(text):
    """'level,slope,seasonal=12,irregular' -> list of components;
    'arma=2,1' -> ARMA; 'sarima=0,1,1,0,1,1,12' -> SARIMA."""
    import tessel
    if not text or not text.strip():
        raise UsageError("--model: empty model")
    tokens = [t.strip() for t in text.split(",")]
    head = tokens[0].lower()
    if head.startswith("arma") or head.startswith("sarima"):
        kind, _, first = tokens[0].partition("=")
        kind = kind.strip().lower()
        if not first:
            raise UsageError(f"--model: write {kind}=... (see tessel fit --help)")
        rest = [first] + tokens[1:]
        try:
            if kind == "arma":
                p, q = _orders(text, rest, 2, 2, "an ARMA model as arma=P,Q (alone)")
                return tessel.ARMA(p, q)
            if kind == "sarima":
                constant = rest[-1].lower() == "constant"
                if constant:
                    rest = rest[:-1]
                v = _orders(text, rest, 3, 7, "a SARIMA model as sarima=p,d,q[,P,D,Q,s]"
                            "[,constant] (alone)")
                if len(v) not in (3, 7):
                    raise UsageError("--model: write a SARIMA model as sarima=p,d,q or "
                                     "sarima=p,d,q,P,D,Q,s")
                seas = tuple(v[3:]) if len(v) == 7 else (0, 0, 0, 0)
                return tessel.SARIMA(tuple(v[:3]), seas, constant=constant)
        except tessel.ModelError as err:
            raise UsageError(f"--model: {err}") from None
        raise UsageError(f"--model: unknown term {tokens[0]!r} (see tessel fit --help)")
    comps = []
    for tok in tokens:
        if not tok:
            raise UsageError(f"--model: empty term in {text!r}")
        name, _, arg = tok.partition("=")
        name = name.strip().lower().replace("_", "-")

        def number(kind=int, required=True, default=None):
            if not arg:
                if required:
                    raise UsageError(f"--model: {name} needs a value ({name}=...)")
                return default
            try:
                return kind(arg)
            except ValueError:
                raise UsageError(f"--model: {tok!r}: {arg!r} is not a valid number") from None

        try:
            if name == "level" and not arg:
                comps.append(tessel.Level())
            elif name == "slope" and not arg:
                comps.append(tessel.Slope())
            elif name == "trend":
                comps.append(tessel.Trend(number(required=False, default=2)))
            elif name in ("seasonal", "dummy-seasonal"):
                comps.append(tessel.DummySeasonal(number()))
            elif name in ("trig-seasonal", "trigseasonal"):
                comps.append(tessel.TrigSeasonal(number()))
            elif name in ("sum-seasonal", "sumseasonal"):
                comps.append(tessel.SumSeasonal(number()))
            elif name == "cycle":
                period = number(float, required=False)
                if period is not None and not period > 2:
                    raise UsageError(f"--model: {tok!r}: the period must exceed 2")
                comps.append(tessel.Cycle(None if period is None else 2 * math.pi / period))
            elif name == "bwcycle":
                comps.append(tessel.ButterworthCycle(order=number(required=False, default=2)))
            elif name == "ar1" and not arg:
                comps.append(tessel.AR1())
            elif name == "ar2" and not arg:
                comps.append(tessel.AR2())
            elif name == "irregular" and not arg:
                comps.append(tessel.Irregular())
            else:
                raise UsageError(f"--model: unknown term {tok!r} (see tessel fit --help)")
        except tessel.ModelError as err:
            raise UsageError(f"--model: {tok!r}: {err}") from None
    try:
        from .components import check_components
        check_components(comps)
    except tessel.ModelError as err:
        raise UsageError(f"--model: {err}") from None
    return comps


def _assignments(items, option):
    """['a=1', 'b=2,c=3'] -> {'a': 1.0, 'b': 2.0, 'c': 3.0}."""
    out = {}
    for item in items or []:
        for part in item.split(","):
            name, eq, value = part.partition("=")
            name = name.strip()
            if not eq or not name:
                raise UsageError(f"{option}: write NAME=VALUE, got {part!r}")
            try:
                out[name] = float(value)
            except ValueError:
                raise UsageError(f"{option}: {name}: {value!r} is not a number") from None
            if not math.isfinite(out[name]):
                raise UsageError(f"{option}: {name}: the value must be finite")
    return out


def _columns(text, option):
    cols = [c.strip() for c in (text or "").split(",") if c.strip()]
    if text is not None and not cols:
        raise UsageError(f"{option}: give column names separated by commas")
    return cols


def _progress(it, ll):
    print(f"  iteration {it:4d}   log-likelihood {ll:14.6f}", file=sys.stderr, flush=True)


def _write_csv(path, header, rows):
    import csv
    with open(path, "w", newline="") as fh:
        w = csv.writer(fh)
        w.writerow(header)
        for r in rows:
            w.writerow(["" if isinstance(v, float) and math.isnan(v) else
                        (repr(v) if isinstance(v, float) else v) for v in r])


OUTPUT_FILES = {"smoothed.csv", "parameters.csv", "summary.txt", "results.json", "forecast.csv",
                "fit.png", "diagnostics.png"}


class _Output:
    """Files written into a temporary folder beside the output folder,
    moved into it only when everything succeeded."""

    def __init__(self, out):
        import tempfile
        self.out = Path(out)
        parent = self.out.resolve().parent
        try:
            parent.mkdir(parents=True, exist_ok=True)
            if self.out.exists() and not self.out.is_dir():
                raise UsageError(f"--out: {self.out} exists and is not a folder")
            self.tmp = Path(tempfile.mkdtemp(prefix=f".{self.out.name}.", dir=parent))
        except OSError as err:
            raise UsageError(f"--out: cannot write into {parent}: {err.strerror}") from None
        self.files = []

    def path(self, name):
        self.files.append(name)
        return self.tmp / name

    def commit(self):
        if not self.out.exists():
            os.rename(self.tmp, self.out)
            return
        for name in self.files:
            os.replace(self.tmp / name, self.out / name)
        os.rmdir(self.tmp)
        for name in OUTPUT_FILES - set(self.files):
            # a file of an earlier run that this one did not write
            (self.out / name).unlink(missing_ok=True)

    def discard(self):
        import shutil
        shutil.rmtree(self.tmp, ignore_errors=True)


def _load(args, path):
    """(series names, values (n, or n x N), index, exog array, exog names,
    future exog, notes) from the CSV file and the column options."""
    import numpy as np
    from .data import pick_column, read_csv
    data = read_csv(path)
    names = _columns(args.columns, "--columns") or [pick_column(data, args.column)]
    if len(set(names)) < len(names):
        raise UsageError("--columns: a column is named twice")
    Y = np.column_stack([data.column(c) for c in names])
    notes = list(data.notes)
    index = data.index
    xnames = _columns(args.exog, "--exog")
    if xnames and len(names) > 1:
        raise UsageError("--exog: regressors go with one series (--column), not --columns")
    for c in xnames:
        if c in names:
            raise UsageError(f"--exog: {c!r} is the series itself")
    X = np.column_stack([data.column(c) for c in xnames]) if xnames else None
    for j, name in enumerate(names):
        if np.all(np.isnan(Y[:, j])):
            raise Failure(f"{path}: column {name!r} has no values")
    future = None
    if X is not None:
        # rows after the last observation hold the regressors' future values
        last = int(np.flatnonzero(~np.isnan(Y[:, 0]))[-1]) + 1
        X, future = X[:last], X[last:]
        if future.shape[0]:
            notes.append(f"{future.shape[0]} rows after the last observation of {names[0]!r} "
                         "hold future values of the regressors")
        Y, index = Y[:last], _head(index, last)
        bad = np.argwhere(np.isnan(X))
        if bad.size:
            t, j = bad[0]
            raise Failure(f"{path}: the regressor {xnames[j]!r} is missing at "
                          f"{index.labels()[t]}: regressors need a value at every time point "
                          "(fill it in, or drop the regressor)")
    if args.log:
        bad = np.argwhere(~np.isnan(Y) & (np.nan_to_num(Y, nan=1.0) <= 0))
        if bad.size:
            t, j = bad[0]
            raise Failure(f"--log: {names[j]!r} is {Y[t, j]:g} at {index.labels()[t]}: the "
                          "logarithm needs positive values (drop --log, or shift the series)")
        Y = np.log(Y)
    return names, (Y[:, 0] if len(names) == 1 else Y), index, X, xnames, future, notes


def _head(index, n):
    from .data import TimeIndex
    return TimeIndex(index.kind, index.ordinals[:n], index.step, index.style, index.name)


def run_fit(args, path, structure, title=None):
    """Fit, print the report, write the files; returns the FitResult."""
    import warnings
    import numpy as np
    import tessel
    names, y, index, X, xnames, future, notes = _load(args, path)
    name = ", ".join(names)
    if args.forecast and X is not None and future.shape[0] < args.forecast:
        raise Failure(f"--forecast {args.forecast}: the regressors {', '.join(xnames)} have "
                      f"{future.shape[0]} future values; add {args.forecast} rows after the "
                      f"last observation of {name!r} with the regressors filled in and "
                      f"{name!r} empty")
    quiet = args.quiet or args.json
    fixed = _assignments(args.fix, "--fix")
    start = _assignments(args.start, "--start")
    periods = _cycle_periods(args.cycle_periods, index)
    if not quiet:
        print(f"tessel: fitting {title or name} ({len(y)} time points) by maximum likelihood",
              file=sys.stderr, flush=True)
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always", tessel.ConvergenceWarning)
        try:
            res = tessel.fit(y, structure, exog=X, fixed=fixed, start=start, names=names,
                             cycle_periods=periods, progress=None if quiet else _progress)
        except tessel.ModelError as err:
            text = str(err)
            if text.startswith("fit: ") and ("fixed" in text or "start" in text):
                raise UsageError(text.replace("fit: fixed", "--fix:", 1)
                                 .replace("fit: start", "--start:", 1)) from None
            raise
    if xnames:
        res.likelihood.exog_names = xnames
    res.notes = notes + ([f"logarithm of {', '.join(map(repr, names))}"] if args.log else [])
    problems = [str(w.message) for w in caught if issubclass(w.category, tessel.ConvergenceWarning)]
    for text in problems:
        print(f"tessel: warning: {text}", file=sys.stderr)
    if problems and args.strict:
        raise Failure("the fit is not trustworthy (see the warning above; --strict); no files "
                      "written", status=3)

    out = _Output(args.out)
    try:
        summary = res.summary()
        fc = None
        if args.forecast:
            fc = res.forecast(args.forecast, exog=None if X is None else future[:args.forecast])
        _write_outputs(out, res, index, fc, summary, args)
        out.commit()
    except BaseException:
        out.discard()
        raise
    if args.json:
        print(res.to_json(indent=2))
    else:
        print(summary)
        if fc is not None:
            print("")
            print(f"  Forecasts ({int(round(fc.level * 100))}% intervals):")
            labels = index.extend(args.forecast).labels()
            parts = [np.asarray(a).reshape(args.forecast, -1) for a in (fc.mean, fc.lower,
                                                                      fc.upper)]
            for j, series in enumerate(names):
                print(f"  {series if len(names) > 1 else '':<12}{'forecast':>14}{'lower':>14}"
                      f"{'upper':>14}")
                for t, lab in enumerate(labels):
                    print(f"  {lab:<12}" + "".join(f"{a[t, j]:14.6g}" for a in parts))
        print("")
        print(f"  written to {out.out}/: {', '.join(out.files)}")
    return res


def _cycle_periods(text, index):
    if text is None:
        ppy = index.periods_per_year
        if ppy is None:
            return None
        return (max(1.5 * ppy, 2.0), max(12.0 * ppy, 2.5))
    try:
        lo, hi = (float(v) for v in text.split(","))
    except ValueError:
        raise UsageError(f"--cycle-periods: write LO,HI (time points), got {text!r}") from None
    if not (2.0 <= lo < hi and math.isfinite(hi)):
        raise UsageError(f"--cycle-periods: need 2 <= LO < HI, got {text!r}")
    return lo, hi


def _write_outputs(out, res, index, fc, summary, args):
    import numpy as np
    labels = index.labels()
    cols = res.component_columns()
    time_name = index.name or "time"
    _write_csv(out.path("smoothed.csv"), [time_name] + list(cols),
               [[lab] + [float(v[t]) for v in cols.values()] for t, lab in enumerate(labels)])
    rows = [[n, e, s, t, st, bool(b), False] for n, e, s, t, st, b in
            zip(res.names, res.estimates, res.std_errors, res.theta, res.se_theta, res.at_bound)]
    rows += [[n, v, math.nan, math.nan, math.nan, False, True] for n, v in res.fixed.items()]
    rows += [[n, e, s, math.nan, math.nan, False, False] for n, e, s in res._effects()]
    _write_csv(out.path("parameters.csv"), ["parameter", "estimate", "std.error", "theta",
                                            "theta.std.error", "at_bound", "fixed"],
               [[r[0]] + [float(v) if not isinstance(v, bool) else v for v in r[1:]]
                for r in rows])
    (out.path("summary.txt")).write_text(summary + "\n")
    out.path("results.json").write_text(res.to_json(indent=2) + "\n")
    if fc is not None:
        names = res.series
        tags = [""] if len(names) == 1 else [f".{s}" for s in names]
        header, series = [time_name], []
        for j, tag in enumerate(tags):
            part = [np.asarray(a).reshape(args.forecast, -1)[:, j]
                    for a in (fc.mean, fc.lower, fc.upper, fc.var)]
            header += [f"{k}{tag}" for k in ("forecast", "lower", "upper", "variance")]
            series += part
            if args.log:
                header += [f"exp.{k}{tag}" for k in ("forecast", "lower", "upper")]
                series += [np.exp(part[0]), np.exp(part[1]), np.exp(part[2])]
        ext = index.extend(args.forecast).labels()
        _write_csv(out.path("forecast.csv"), header,
                   [[lab] + [float(s[t]) for s in series] for t, lab in enumerate(ext)])
    if not args.no_plot:
        import matplotlib.pyplot as plt
        fx = index.extend(args.forecast).plot_values() if fc is not None else None
        fig = res.plot(out.path("fit.png"), forecast=fc, x=index.plot_values(), fx=fx,
                       xlabel=time_name)
        plt.close(fig)
    if args.diagnostics:
        import matplotlib.pyplot as plt
        fig = res.plot_diagnostics(out.path("diagnostics.png"), x=index.plot_values())
        plt.close(fig)


def _cmd_fit(args):
    structure = parse_model(args.model)
    path = Path(args.data)
    if not path.is_file():
        raise UsageError(f"{path}: no such file")
    if args.forecast < 0:
        raise UsageError("--forecast: H must not be negative")
    if args.column and args.columns:
        raise UsageError("--column and --columns: give one of them")
    args.out = args.out or f"tessel-{path.stem}"
    run_fit(args, path, structure)
    return 0


def _cmd_demo(args):
    import tessel
    from .data import example_path
    if not args.json:
        print(f"Tessel {tessel.version()} demo: local level model for the annual flow of the "
              "Nile at Aswan, 1871-1970")
    for k, v in dict(column=None, columns=None, exog=None, log=False, fix=None, start=None,
                     cycle_periods=None, strict=False, diagnostics=False).items():
        setattr(args, k, v)
    res = run_fit(args, example_path("nile"), [tessel.Level(), tessel.Irregular()],
                  title="Nile flow")
    if not args.json:
        print("")
        print("  Published maximum likelihood estimates for these data: sigma2.irregular ~ "
              "15099, sigma2.level ~ 1469.1")
        est = dict(zip(res.names, res.estimates))
        print(f"  Tessel: sigma2.irregular = {est['sigma2.irregular']:.1f}, "
              f"sigma2.level = {est['sigma2.level']:.1f}")
    return 0


def _cmd_version(_args):
    import tessel
    print(f"Tessel {tessel.__version__} (library {tessel.version()})")
    return 0


def _common(p):
    p.add_argument("--forecast", "-f", type=int, default=None, metavar="H",
                   help="forecast H time points beyond the data")
    p.add_argument("--quiet", "-q", action="store_true", help="no progress on stderr")
    p.add_argument("--json", action="store_true",
                   help="print the results as one JSON document (see docs/results.schema.json) "
                        "instead of the report")
    p.add_argument("--no-plot", action="store_true", help="do not draw fit.png")


def build_parser():
    parser = argparse.ArgumentParser(
        prog="tessel",
        description="Tessel: linear Gaussian state space models for time series. Fit a "
                    "structural, ARMA or seasonal ARIMA model to a series by maximum likelihood, "
                    "print the estimates with standard errors, fit statistics and residual "
                    "diagnostics, and write the smoothed components, forecasts and plots.",
        epilog="Run 'tessel fit --help' for the model terms; 'tessel demo' for an example.")
    parser.add_argument("--version", action="store_true", help="print the version and exit")
    sub = parser.add_subparsers(dest="command", metavar="COMMAND")

    fit = sub.add_parser(
        "fit", help="fit a model to a column of a CSV file",
        description="Fit a model to a series from a CSV file by maximum likelihood. The first "
                    "column of the file is the time index (years, dates such as 1949-01 or "
                    "1949-01-31, quarters such as 1949Q1, or whole numbers): it must be sorted "
                    "and unique, and time points missing from its regular step become missing "
                    "observations (reported). The separator (comma, semicolon, tab) and "
                    "decimal commas are recognised; empty cells, NA, '.', '-' and n/a are "
                    "missing values. The series is --column or the last numeric column. "
                    "Progress goes to stderr, the report to stdout; files go to --out, written "
                    "only when the fit succeeds: smoothed.csv (data, smoothed components and "
                    "signal with 95%% bands), parameters.csv (estimates, standard errors, "
                    "regression effects), summary.txt, results.json, fit.png, and with "
                    "--forecast forecast.csv, with --diagnostics diagnostics.png.",
        epilog=MODEL_HELP, formatter_class=argparse.RawDescriptionHelpFormatter)
    fit.add_argument("data", metavar="DATA.csv", help="CSV file with a header row")
    fit.add_argument("--model", "-m", required=True, metavar="TERMS",
                     help="model terms, e.g. level,slope,seasonal=12,irregular or arma=2,1 or "
                          "sarima=0,1,1,0,1,1,12")
    fit.add_argument("--column", "-c", metavar="NAME", help="column holding the series "
                     "(default: the last numeric column)")
    fit.add_argument("--columns", metavar="A,B", help="several series for one structural "
                     "model with correlated disturbances (a covariance matrix per component)")
    fit.add_argument("--exog", metavar="COLS", help="columns of regressors (comma-separated): "
                     "regression effects; rows after the series' last value give their future "
                     "values for --forecast")
    fit.add_argument("--log", action="store_true", help="fit the logarithm of the series "
                     "(forecast.csv then also has exp.forecast, exp.lower, exp.upper)")
    fit.add_argument("--fix", action="append", metavar="NAME=VALUE",
                     help="hold a parameter at a value (repeatable, or NAME=V,NAME=V)")
    fit.add_argument("--start", action="append", metavar="NAME=VALUE",
                     help="start the optimiser there (repeatable)")
    fit.add_argument("--cycle-periods", metavar="LO,HI",
                     help="shortest and longest cycle period in time points (default: 1.5 to "
                          "12 years of the data's frequency)")
    fit.add_argument("--out", "-o", metavar="DIR",
                     help="output folder (default: ./tessel-<file name>)")
    fit.add_argument("--diagnostics", action="store_true",
                     help="also draw diagnostics.png: standardised residuals, their "
                          "autocorrelations, histogram and normal QQ plot")
    fit.add_argument("--strict", action="store_true",
                     help="exit with status 3 (and write nothing) when the optimiser did not "
                          "converge or an estimate is on the edge")
    _common(fit)
    fit.set_defaults(func=_cmd_fit, forecast=0)

    demo = sub.add_parser(
        "demo", help="fit a local level model to the bundled Nile series",
        description="Fit the local level model (level + irregular) to the annual flow of the "
                    "Nile at Aswan, 1871-1970 (bundled with Tessel), print the estimates, "
                    "diagnostics and 10 years of forecasts, and write the files of 'tessel "
                    "fit' (with fit.png showing the data and the smoothed level with its band).")
    demo.add_argument("--out", "-o", metavar="DIR", default="tessel-demo",
                      help="output folder (default: ./tessel-demo)")
    _common(demo)
    demo.set_defaults(func=_cmd_demo, forecast=10)

    ver = sub.add_parser("version", help="print the version",
                         description="Print the version of Tessel and of its library.")
    ver.set_defaults(func=_cmd_version)
    return parser


def main(argv=None):
    os.environ.setdefault("MPLBACKEND", "Agg")
    parser = build_parser()
    args = parser.parse_args(argv)
    if args.version:
        return _cmd_version(args)
    if args.command is None:
        parser.print_usage(sys.stderr)
        parser.exit(2, "tessel: error: a COMMAND is required (fit, demo or version)\n")
    try:
        return args.func(args)
    except BrokenPipeError:
        # the reader went away (e.g. `tessel demo | head`): stop quietly
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())
        return 1
    except KeyboardInterrupt:
        print("tessel: interrupted", file=sys.stderr)
        return 130
    except UsageError as err:
        parser.exit(2, f"tessel: error: {err}\n")
    except Failure as err:
        print(f"tessel: error: {err}", file=sys.stderr)
        return err.status
    except Exception as err:  # noqa: BLE001 - a clean message for every failure
        import tessel
        if isinstance(err, (tessel.ModelError, tessel.NumericalError, FileNotFoundError,
                            MemoryError)):
            print(f"tessel: error: {err}", file=sys.stderr)
            return 1
        raise
