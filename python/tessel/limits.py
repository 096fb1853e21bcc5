"""Size limits of the model builders and of the fit, and the measured cost
they rest on.

The library's filter and smoothers update a dense m x m state variance at
every time point, so their cost grows as m^3 per time point (m states).
Measured on the reference machine (one core, single series, structural
models with a dummy seasonal; fuzz/limits_timing.py measures them):

=======  ====================  ====================
 m        filter (likelihood)   smoother
=======  ====================  ====================
 101      0.45 ms / time point  1.8 ms / time point
 201      3.2 ms                16 ms
 401      35 ms                 160 ms
=======  ====================  ====================

that is about ``FILTER_SECONDS * m**3`` seconds per time point for the
likelihood and five times that for smoothing. Memory is a few m x m
matrices plus the filter store (m + 2 rows per time point for one series).

* Builders refuse models of more than ``MAX_STATES`` states (400: 35 ms per
  time point to filter, 0.16 s to smooth -- a year of daily data already
  takes a minute to smooth), before any work, naming the cost. A dummy
  seasonal of period 10000 would have 9999 states: 0.5 s per time point to
  filter and about 6 GB in the builder.
* The ARMA builder solves for the stationary variance in one LAPACK call
  that Ctrl-C cannot interrupt: 0.10 s at r = 200 states, 0.29 s at 300,
  0.70 s at 400; so ARMA models have at most ``MAX_ARMA_STATES`` (300)
  states, which still covers seasonal ARMA models of weekly data.
* Arrays that a call would make (draws, forecasts, simulated series) are
  refused with MemoryError, naming the call, when they would not fit in
  the machine's memory.
* A fit costs about ``FIT_EVALUATIONS * (k + 1)`` likelihood evaluations
  for k parameters; it is refused when that is estimated above
  ``MAX_FIT_SECONDS`` (ten minutes), or when it has as many parameters as
  observed values.
"""

from .convert import ModelError

import os

__all__ = ["MAX_STATES", "MAX_ARMA_STATES", "FILTER_SECONDS", "FIT_EVALUATIONS",
           "MAX_FIT_SECONDS", "filter_seconds", "check_states", "check_fit", "check_memory"]

MAX_STATES = 400
MAX_ARMA_STATES = 300
FILTER_SECONDS = 5.4e-10        # seconds per time point per m^3 (35 ms at m = 401)
SMOOTHER_FACTOR = 5.0
FIT_EVALUATIONS = 40            # likelihood evaluations per parameter (and one more)
MAX_FIT_SECONDS = 600.0


def filter_seconds(m, n=1):
    """Estimated seconds to filter n time points with m states."""
    return FILTER_SECONDS * float(m) ** 3 * n


def _duration(seconds):
    if seconds < 1.0:
        return f"{seconds * 1e3:.3g} ms"
    if seconds < 3600:
        return f"{seconds:.3g} s"
    return f"{seconds / 3600:.3g} hours"


def check_states(m, where, limit=MAX_STATES):
    """Refuses a model of more than ``limit`` states, naming the cost."""
    if m > limit:
        gib = 3 * 8.0 * m * m / 2**30
        raise ModelError(
            f"{where}: {m} states exceed the limit of {limit}: each time point would cost "
            f"about {_duration(filter_seconds(m))} to filter and "
            f"{_duration(SMOOTHER_FACTOR * filter_seconds(m))} to smooth (the cost grows as "
            f"the cube of the states), and the model matrices {gib:.3g} GiB")


def check_fit(m, n, k, nobs, where="fit"):
    """Refuses a fit of k parameters of an m-state model to n time points
    (nobs observed values) that is estimated above MAX_FIT_SECONDS, or that
    has at least as many parameters as observed values."""
    if k >= nobs:
        raise ModelError(f"{where}: {k} parameters to estimate from {nobs} observed values: at "
                         "least one more observation than parameters is needed")
    est = FIT_EVALUATIONS * (k + 1) * filter_seconds(m, n)
    if est > MAX_FIT_SECONDS:
        raise ModelError(
            f"{where}: estimated to take about {_duration(est)} ({k} parameters, {m} states, "
            f"{n} time points: about {FIT_EVALUATIONS * (k + 1)} likelihood evaluations of "
            f"{_duration(filter_seconds(m, n))} each); the limit is "
            f"{_duration(MAX_FIT_SECONDS)}: use fewer states or a shorter series")


def _memory():
    try:
        return os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    except (ValueError, OSError):       # pragma: no cover - not on Linux
        return 2**40


def check_memory(nbytes, where):
    """MemoryError naming ``where`` when a call would make arrays of
    ``nbytes`` bytes (an int) in all, more than the machine's memory."""
    have = _memory()
    if nbytes > have:
        need = f"{nbytes // 2**30} GiB" if nbytes < 2**80 else f"2^{nbytes.bit_length() - 1} bytes"
        raise MemoryError(f"{where}: out of memory: the result would take {need}, the machine "
                          f"has {have // 2**30} GiB")
