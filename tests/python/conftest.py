"""Every test runs under `host_clean`: afterwards the host holds no matrix
block and no table, no injected allocation failure is pending, and messages
are back on (a later LgmWarning() with messages off would end the process)."""

import pytest

import tessel
import tessel.testing


@pytest.fixture(autouse=True)
def host_clean():
    yield
    tessel.testing.fail_allocation(0)
    live = tessel.testing.live_allocations()
    tessel.call("LgmWarning", 1)
    assert live == (0, 0), f"host values left live after the test: (blocks, tables) = {live}"

