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

import importlib
import importlib.util
import sys as _sys

if _sys.argv[:1] == ["-m"]:          # loaded as the command: Ctrl-C from the start
    from . import _interrupt
    _interrupt.install()

if importlib.util.find_spec("_tessel") is None:
    raise ImportError("the Tessel extension is not built: run scripts/setup.sh (the compiled "
                      "module _tessel is not on sys.path)")

# Names are loaded from their modules on first use (PEP 562), so that the
# command's --help and a fit without a plot load only what they need.
_HOMES = {
    "._lowlevel": ("EMPTY", "Ref", "ZuError", "ZuMessage", "call", "capture_messages",
                   "set_seed", "version"),
    ".model": ("Model", "ModelError", "NumericalError"),
    ".components": ("AR1", "AR2", "ButterworthCycle", "Component", "Cycle", "DummySeasonal",
                    "Irregular", "Level", "Slope", "SumSeasonal", "Trend", "TrigSeasonal",
                    "add_regression", "arma", "regression", "spline", "structural"),
    ".analysis": ("disturbances", "filtered", "kalman_filter", "loglik", "loglik_concentrated",
                  "predicted", "score", "smoothed", "weights"),
    ".simulation": ("conditional_density", "recursion", "simulate", "simulation_smoother"),
    ".sarima": ("ARMA", "SARIMA"),
    ".fitting": ("ConvergenceWarning", "Likelihood", "fit"),
    ".results": ("FitResult", "Forecast", "extend_index"),
    ".data": ("load_example", "read_series"),
}
_HOME = {name: module for module, names in _HOMES.items() for name in names}


def __getattr__(name):
    module = _HOME.get(name)
    if module is None:
        raise AttributeError(f"module 'tessel' has no attribute {name!r}")
    value = getattr(importlib.import_module(module, __name__), name)
    globals()[name] = value
    return value


def __dir__():
    return sorted(set(globals()) | set(_HOME))


__version__ = "3.0.0"

__all__ = [name for names in _HOMES.values() for name in names]
