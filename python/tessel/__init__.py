"""Tessel: state space models (Kalman filtering, smoothing, simulation).

The low-level layer calls the library's entry points by name, so that a Zu
program translates line by line:

    import tessel
    ll, s2 = tessel.Ref(), tessel.Ref()
    ok = tessel.call("LgmLik", ll, s2, y, sys, var)
    store = tessel.call("KalmanFil", y, sys, var, init)

On top of it, an idiomatic API (see docs/python-api.md)::

    y = tessel.load_example("nile")                       # pandas Series
    res = tessel.fit(y, [tessel.Level(), tessel.Irregular()])
    print(res.summary())

The compiled module ``_tessel`` must be importable (it is built into
``<build>/lib``; scripts/setup.sh puts that folder on ``sys.path``).
"""

from ._lowlevel import (
    EMPTY,
    Ref,
    ZuError,
    ZuMessage,
    call,
    capture_messages,
    set_seed,
    version,
)

from .model import Model, ModelError, NumericalError
from .components import (
    AR1, AR2, ButterworthCycle, Component, Cycle, DummySeasonal, Irregular, Level, Slope,
    SumSeasonal, Trend, TrigSeasonal, add_regression, arma, regression, spline, structural,
)
from .analysis import (
    conditional_density, disturbances, filtered, kalman_filter, loglik, loglik_concentrated,
    predicted, recursion, score, simulate, simulation_smoother, smoothed, weights,
)
from .estimation import ARMA, FitResult, Forecast, extend_index, fit
from .data import load_example

__version__ = "3.0.0"

__all__ = [
    # by-name call
    "EMPTY", "Ref", "ZuError", "ZuMessage", "call", "capture_messages", "set_seed", "version",
    # idiomatic API
    "Model", "ModelError", "NumericalError",
    "AR1", "AR2", "ButterworthCycle", "Component", "Cycle", "DummySeasonal", "Irregular",
    "Level", "Slope", "SumSeasonal", "Trend", "TrigSeasonal",
    "add_regression", "arma", "regression", "spline", "structural",
    "conditional_density", "disturbances", "filtered", "kalman_filter", "loglik",
    "loglik_concentrated", "predicted", "recursion", "score", "simulate",
    "simulation_smoother", "smoothed", "weights",
    "ARMA", "FitResult", "Forecast", "extend_index", "fit", "load_example",
]
