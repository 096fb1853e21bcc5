"""Timing of the fitting layer: one prepared likelihood evaluation against
the library call inside it, and the `tessel` command's wall time.

    PYTHONPATH=python:build/lib taskset -c 1 /usr/bin/python3 bench/fit_timing.py [--command]

For each model, the prepared evaluation (tessel.Likelihood.loglik, and
loglik_grad with the score) is timed next to the bare library call with
the same prepared arguments; the Python share is 1 - call / evaluation.
Best of 5 repeats of a loop. --command also times `tessel --help` and
`tessel fit --no-plot` on the Nile data (20 runs each, mean and spread).
"""

import statistics
import subprocess
import sys
import time
from pathlib import Path

import numpy as np

import tessel
from tessel._lowlevel import _tessel

ROOT = Path(__file__).resolve().parents[1]


def best_of(f, n):
    f()
    times = []
    for _ in range(5):
        t = time.perf_counter()
        for _ in range(n):
            f()
        times.append((time.perf_counter() - t) / n)
    return min(times) * 1e6


def evaluations():
    air = np.log(tessel.load_example("air_passengers"))
    cases = [("Nile, level + irregular", tessel.load_example("nile"),
              [tessel.Level(), tessel.Irregular()]),
             ("log air passengers, level + slope + seasonal(12) + irregular", air,
              [tessel.Level(), tessel.Slope(), tessel.DummySeasonal(12), tessel.Irregular()])]
    print(f"{'model':<62}{'what':<12}{'evaluation':>12}{'library call':>14}{'Python share':>14}")
    for label, y, comps in cases:
        lik = tessel.Likelihood(y, comps)
        th = lik.start + 0.1
        n = 20000 if lik.m < 5 else 2000
        for what, ev, name, args, nref in (
                ("loglik", lambda: lik.loglik(th), "LgmLik", lik._ll_args, 2),
                ("with score", lambda: lik.loglik_grad(th), "LgmLikSco", lik._sco_args, 3)):
            e = best_of(ev, n)
            targets, slots = lik._refs[nref]
            c = best_of(lambda: _tessel.call(name, args, targets, slots), n)
            print(f"{label:<62}{what:<12}{e:10.2f}us{c:12.2f}us{1 - c / e:13.0%}")


def command():
    nile = ROOT / "examples" / "data" / "nile.csv"
    runs = {"tessel --help": ["--help"],
            "tessel fit nile.csv --model level,irregular --no-plot -q":
                ["fit", str(nile), "--model", "level,irregular", "--no-plot", "-q",
                 "--out", "/tmp/tessel-bench-nile"]}
    for label, argv in runs.items():
        times = []
        for _ in range(20):
            t = time.perf_counter()
            subprocess.run([sys.executable, "-m", "tessel", *argv], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            times.append(time.perf_counter() - t)
        print(f"{label:<62}{statistics.mean(times) * 1e3:8.0f} ms +- "
              f"{statistics.stdev(times) * 1e3:.0f} ms (min {min(times) * 1e3:.0f})")


if __name__ == "__main__":
    evaluations()
    if "--command" in sys.argv:
        command()
