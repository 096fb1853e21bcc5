#!/usr/bin/env python3
"""The measurements behind tessel.limits: seconds per time point of the
likelihood (filter) and the smoother for structural models of m states,
and the seconds of the ARMA builder's stationary variance for r states.

    PYTHONPATH=python:build/lib taskset -c 1 /usr/bin/python3 fuzz/limits_timing.py [--large]

``--large`` adds m = 401 (about two minutes of smoothing).
"""

import sys
import time

import numpy as np

import tessel
from tessel import limits


def seconds(f, repeat=1):
    best = float("inf")
    for _ in range(repeat):
        t = time.perf_counter()
        f()
        best = min(best, time.perf_counter() - t)
    return best


def main():
    rng = np.random.default_rng(0)
    sizes = (101, 201, 401) if "--large" in sys.argv else (101, 201)
    print(f"{'m':>5} {'filter ms/pt':>13} {'smoother ms/pt':>15} {'model':>8}")
    for m in sizes:
        model = tessel.structural([tessel.Level(1.0), tessel.DummySeasonal(m, 0.5), tessel.Irregular(1.0)])
        n = model.m + 100
        y = rng.normal(size=n)
        f = seconds(lambda: tessel.loglik(y, model)) / n
        s = seconds(lambda: tessel.smoothed(y, model)) / n
        print(f"{model.m:>5} {f * 1e3:>13.3f} {s * 1e3:>15.3f} {limits.filter_seconds(model.m) * 1e3:>8.3f}")
    print(f"\n{'r':>5} {'arma build s':>13}")
    for r in (200, 300):
        print(f"{r:>5} {seconds(lambda: tessel.arma([0.5], [0.01] * (r - 1)), 3):>13.3f}")


if __name__ == "__main__":
    main()
