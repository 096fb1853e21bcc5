"""Shared fixtures of the Python tests.

Every test runs under `host_clean`: afterwards the host must hold no matrix
block and no table (error or not), no injected allocation failure may be left
pending, and the library's messages are switched back on (a later
``LgmWarning()`` with messages off would end the process).
"""

import numpy as np
import pytest

import tessel
import tessel.testing
from models import Block


@pytest.fixture(autouse=True)
def host_clean():
    yield
    tessel.testing.fail_allocation(0)
    live = tessel.testing.live_allocations()
    tessel.call("LgmWarning", 1)
    assert live == (0, 0), f"host values left live after the test: (blocks, tables) = {live}"


@pytest.fixture
def local_level():
    """Local level model y(t) = alpha(t) + eps(t), alpha(t+1) = alpha(t) + eta(t)
    with a proper initial state alpha(0) ~ N(0.4, 2), twelve observations."""
    rng = np.random.default_rng(20081)
    y = (np.cumsum(rng.normal(size=12)) + rng.normal(size=12)).reshape(1, -1)
    return Block([[1.0], [1.0]], np.diag([0.5, 1.3]), y, init=[[2.0], [0.4]])
