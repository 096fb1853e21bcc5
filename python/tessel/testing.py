"""Hooks for testing code that calls Tessel: the host's allocation counts and
failure injection. Not part of the modelling API.

    from tessel import testing
    testing.fail_allocation(3)      # the 3rd host allocation from now fails
    ...
    assert testing.live_allocations() == (0, 0)
"""

import numpy as np

from ._lowlevel import _tessel

__all__ = ["live_allocations", "allocation_attempts", "fail_allocation",
           "injected_failure_delivered", "library_path", "running_calls"]


def live_allocations():
    """(blocks, tables) the host currently holds."""
    return _tessel.live_allocations()


def allocation_attempts():
    """Host allocations attempted since the process started."""
    return _tessel.allocation_attempts()


def fail_allocation(k):
    """Make the k-th host allocation from now fail (k >= 1); 0 switches it off."""
    if isinstance(k, bool) or not isinstance(k, (int, np.integer)) or k < 0:
        raise ValueError(f"tessel.testing.fail_allocation: k must be an int >= 0, not {k!r}")
    _tessel.fail_allocation(int(k))


def injected_failure_delivered():
    """True once the failure set by fail_allocation has happened."""
    return _tessel.injected_failure_delivered()


def library_path():
    """Path of the library file the host loads."""
    return _tessel.library_path()


def running_calls():
    """Library calls still running, those abandoned after an interrupt
    included (their host values are freed when they end)."""
    return _tessel.running_calls()
