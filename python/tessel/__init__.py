"""Tessel: state space models (Kalman filtering, smoothing, simulation).

The low-level layer calls the library's entry points by name, so that a Zu
program translates line by line:

    import tessel
    ll, s2 = tessel.Ref(), tessel.Ref()
    ok = tessel.call("LgmLik", ll, s2, y, sys, var)
    store = tessel.call("KalmanFil", y, sys, var, init)

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
    _allocation_attempts,
    _fail_allocation,
    _injected_failure_delivered,
    _library_path,
    _live_allocations,
)

__version__ = "3.0.0"

__all__ = [
    "EMPTY",
    "Ref",
    "ZuError",
    "ZuMessage",
    "call",
    "capture_messages",
    "set_seed",
    "version",
]
