"""The `tessel` command: fit a state space model to a series in a CSV file.

    tessel fit DATA.csv --model level,slope,seasonal=12,irregular [--column NAME]
                        [--out DIR] [--forecast H]
    tessel demo [--out DIR]
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
                    otherwise the frequency is estimated; damping estimated
  bwcycle[=K]       Butterworth cycle of order K (default 2)
  ar1, ar2          autoregressive components
  irregular         observation noise
  arma=P,Q          ARMA(P, Q) with a constant mean (alone)
Every variance (and cycle or AR parameter) is estimated by maximum likelihood."""


class UsageError(Exception):
    """A command-line argument that cannot be used."""


def parse_model(text):
    """'level,slope,seasonal=12,irregular' -> list of components, or
    'arma=2,1' -> ARMA structure."""
    import tessel
    if not text or not text.strip():
        raise UsageError("--model: empty model")
    tokens = [t.strip() for t in text.split(",")]
    if tokens and tokens[0].lower().startswith("arma"):
        if len(tokens) != 2 or "=" not in tokens[0]:
            raise UsageError("--model: write an ARMA model as arma=P,Q (alone)")
        try:
            p, q = int(tokens[0].split("=", 1)[1]), int(tokens[1])
        except ValueError:
            raise UsageError(f"--model: ARMA orders must be integers, got {text!r}") from None
        try:
            return tessel.ARMA(p, q)
        except tessel.ModelError as err:
            raise UsageError(f"--model: {err}") from None
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
                if period is not None and period <= 2:
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


def _progress(it, ll):
    print(f"  iteration {it:4d}   log-likelihood {ll:14.6f}", file=sys.stderr, flush=True)


def run_fit(series, structure, out, forecast=0, quiet=False, title=None):
    """Fit, print the report, write the files; returns the FitResult."""
    import tessel
    out = Path(out)
    try:
        out.mkdir(parents=True, exist_ok=True)
    except OSError as err:
        raise UsageError(f"--out: cannot create {out}: {err}") from None
    if not quiet:
        print(f"tessel: fitting {title or series.name} ({len(series)} time points) by maximum "
              "likelihood", file=sys.stderr, flush=True)
    res = tessel.fit(series, structure, progress=None if quiet else _progress)
    summary = res.summary()
    print(summary)
    files = []
    comps = res.components()
    comps.to_csv(out / "smoothed.csv")
    files.append("smoothed.csv")
    res.params.to_csv(out / "parameters.csv")
    files.append("parameters.csv")
    (out / "summary.txt").write_text(summary + "\n")
    files.append("summary.txt")
    fc = None
    if forecast:
        fc = res.forecast(forecast)
        fc.frame().to_csv(out / "forecast.csv")
        files.append("forecast.csv")
        print("")
        print(f"  Forecasts ({int(round(fc.level * 100))}% intervals):")
        print("  " + fc.frame().drop(columns="variance").to_string().replace("\n", "\n  "))
    fig = res.plot(out / "fit.png", forecast=fc)
    import matplotlib.pyplot as plt
    plt.close(fig)
    files.append("fit.png")
    print("")
    print(f"  written to {out}/: {', '.join(files)}")
    return res


def _cmd_fit(args):
    from .data import read_series
    structure = parse_model(args.model)
    path = Path(args.data)
    if not path.is_file():
        raise UsageError(f"{path}: no such file")
    series = read_series(path, args.column)
    if args.forecast < 0:
        raise UsageError("--forecast: H must not be negative")
    out = args.out or f"tessel-{path.stem}"
    run_fit(series, structure, out, args.forecast, args.quiet, title=f"{path.name}:{series.name}")
    return 0


def _cmd_demo(args):
    import tessel
    from .data import example_path, read_series
    print(f"Tessel {tessel.version()} demo: local level model for the annual flow of the Nile "
          "at Aswan, 1871-1970")
    series = read_series(example_path("nile"))
    res = run_fit(series, [tessel.Level(), tessel.Irregular()], args.out, forecast=args.forecast,
                  quiet=args.quiet, title="Nile flow")
    print("")
    print("  Published maximum likelihood estimates for these data: sigma2.irregular ~ 15099, "
          "sigma2.level ~ 1469.1")
    est = res.params["estimate"]
    print(f"  Tessel: sigma2.irregular = {est['sigma2.irregular']:.1f}, "
          f"sigma2.level = {est['sigma2.level']:.1f}")
    return 0


def build_parser():
    parser = argparse.ArgumentParser(
        prog="tessel",
        description="Tessel: linear Gaussian state space models for time series. Fit a "
                    "structural or ARMA model to a series by maximum likelihood, print the "
                    "estimates with standard errors, fit statistics and residual diagnostics, "
                    "and write the smoothed components, forecasts and a plot.",
        epilog="Run 'tessel fit --help' for the model terms; 'tessel demo' for an example.")
    sub = parser.add_subparsers(dest="command", metavar="COMMAND")
    sub.required = True

    fit = sub.add_parser(
        "fit", help="fit a model to one column of a CSV file",
        description="Fit a model to a series from a CSV file by maximum likelihood. The first "
                    "column of the file is the time index (years, dates such as 1949-01, or "
                    "anything else); the series is --column or the last numeric column. "
                    "Missing values (empty cells, NA) are allowed. Progress of the optimiser "
                    "goes to stderr, the report to stdout; files go to --out: smoothed.csv "
                    "(data, smoothed components and signal with 95%% bands), parameters.csv, "
                    "summary.txt, fit.png and, with --forecast, forecast.csv.",
        epilog=MODEL_HELP, formatter_class=argparse.RawDescriptionHelpFormatter)
    fit.add_argument("data", metavar="DATA.csv", help="CSV file with a header row")
    fit.add_argument("--model", "-m", required=True, metavar="TERMS",
                     help="model terms, e.g. level,slope,seasonal=12,irregular or arma=2,1")
    fit.add_argument("--column", "-c", metavar="NAME", help="column holding the series "
                     "(default: the last numeric column)")
    fit.add_argument("--out", "-o", metavar="DIR",
                     help="output folder (default: ./tessel-<file name>)")
    fit.add_argument("--forecast", "-f", type=int, default=0, metavar="H",
                     help="forecast H time points beyond the data (default 0: none)")
    fit.add_argument("--quiet", "-q", action="store_true", help="no progress on stderr")
    fit.set_defaults(func=_cmd_fit)

    demo = sub.add_parser(
        "demo", help="fit a local level model to the bundled Nile series",
        description="Fit the local level model (level + irregular) to the annual flow of the "
                    "Nile at Aswan, 1871-1970 (bundled with Tessel), print the estimates, "
                    "diagnostics and 10 years of forecasts, and write the files of 'tessel "
                    "fit' (with fit.png showing the data and the smoothed level with its band).")
    demo.add_argument("--out", "-o", metavar="DIR", default="tessel-demo",
                      help="output folder (default: ./tessel-demo)")
    demo.add_argument("--forecast", "-f", type=int, default=10, metavar="H",
                      help="forecast horizon (default 10)")
    demo.add_argument("--quiet", "-q", action="store_true", help="no progress on stderr")
    demo.set_defaults(func=_cmd_demo)

    ver = sub.add_parser("version", help="print the library version",
                         description="Print the version of the Tessel library.")
    ver.set_defaults(func=_cmd_version)
    return parser


def _cmd_version(_args):
    import tessel
    print(f"Tessel {tessel.version()}")
    return 0


def main(argv=None):
    os.environ.setdefault("MPLBACKEND", "Agg")
    parser = build_parser()
    args = parser.parse_args(argv)
    try:
        return args.func(args)
    except BrokenPipeError:
        # the reader went away (e.g. `tessel demo | head`): stop quietly
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())
        return 1
    except UsageError as err:
        parser.exit(2, f"tessel: error: {err}\n")
    except Exception as err:  # noqa: BLE001 - a clean message for every failure
        import tessel
        if isinstance(err, (tessel.ModelError, tessel.NumericalError, FileNotFoundError)):
            print(f"tessel: error: {err}", file=sys.stderr)
            return 1
        raise
