"""tessel.call: conversions each way, references, refusals, errors, messages
and the host's one-call-at-a-time rule.

Round trips go through LgmVersion, which ignores its arguments: a Ref passed
to it becomes a host variable and comes back unchanged, so what comes out is
exactly what the conversion put in. The types the host received are read
from its own type-check errors (LgmWarning wants an integer)."""

import os
import pickle
import subprocess
import sys
import threading
import warnings

import numpy as np
import pytest

import tessel
import tessel.testing
from zoo import ZOO

INT_MAX, INT_MIN = 2**31 - 1, -(2**31)
LEVEL = ZOO["level_proper"]()
ARMA = ZOO["arma_proper"]()  # m = 2 with intercepts for LgmRecursion


def echo(value):
    r = tessel.Ref(value)
    assert tessel.call("LgmVersion", r) == 300
    return r.value


def recursion(u):
    return tessel.call("LgmRecursion", u, *ARMA.args())


U = np.round(np.random.default_rng(7).normal(size=(3, 9)) * 4)


@pytest.mark.parametrize("value", [7, INT_MAX, INT_MIN, np.int8(-7), np.uint16(65535), np.array(12),
                                   -0.0, 5e-324, -1.7976931348623157e308, np.inf, np.nan,
                                   np.float32(0.1), np.float16(-2.5), np.array(0.25)])
def test_scalars_round_trip_bit_for_bit(value):
    out = echo(value)
    assert type(out) is (int if np.issubdtype(type(np.asarray(value).item()), np.integer) else float)
    assert np.asarray(out, dtype=float).tobytes() == np.asarray(value, dtype=float).tobytes()


@pytest.mark.parametrize("value, found", [
    (2.5, "double that is not an integer"), (np.float32(2.5), "double that is not an integer"),
    (np.ones((2, 3), dtype=np.int64), "matrix"), (tessel.EMPTY, "matrix"), (tessel.Ref(1), "reference")])
def test_host_sees_the_converted_type(value, found):
    with pytest.raises(tessel.ZuError) as err:
        tessel.call("LgmWarning", value)
    assert err.value.number == 2
    assert str(err.value) == f"LgmWarning(): argument 1: expected integer, found {found}"


@pytest.mark.parametrize("make", [
    np.asfortranarray, lambda b: b.astype(np.float32), lambda b: (b * 8).astype(np.int8),
    lambda b: (b * 8).astype(np.uint64), lambda b: b.tolist(), lambda b: tuple(map(tuple, b)),
    lambda b: np.vstack([b, b])[::2], lambda b: b[::-1, ::-1]],
    ids=["fortran", "float32", "int8", "uint64", "list", "tuple", "strided", "reversed"])
def test_matrix_values_and_layout_survive(make):
    src = make(np.arange(1.0, 13.0).reshape(3, 4) / 8.0)
    out = echo(src)
    assert out.dtype == np.float64 and out.shape == (3, 4) and out.flags.c_contiguous
    np.testing.assert_array_equal(out, np.asarray(src, dtype=np.float64))
    assert out.flags.writeable and not np.shares_memory(out, np.asarray(src))


def test_special_values_and_empty_matrices():
    src = np.array([[np.nan, np.inf, -np.inf], [-0.0, 5e-324, 1e308]])
    assert echo(src).tobytes() == src.tobytes()
    for shape in [(0, 0), (4, 0), (0, 3)]:
        assert echo(np.zeros(shape, dtype=np.int32)).shape == shape
    assert echo(tessel.EMPTY).shape == (0, 0) and repr(tessel.EMPTY) == "tessel.EMPTY"


def test_references_written_and_inputs_left_alone():
    """Missing values as NaN or as masked elements (holding junk) give the
    same results; the caller's arrays and an array held by a Ref are never
    written."""
    y = LEVEL.y.copy()
    y[0, [2, 7]] = np.nan
    want = None
    for data in (y, np.ma.masked_array(np.nan_to_num(y, nan=99.0), mask=np.isnan(y))):
        args = [data, *LEVEL.args()]
        before = [np.ma.getdata(a).copy() for a in args]
        held = np.array([[5.0, 6.0]])
        ll, s2 = tessel.Ref(held), tessel.Ref(np.float64(3.0))
        ok = tessel.call("LgmLik", ll, s2, *args)
        assert ok == 1 and type(ok) is int and type(ll.value) is float
        assert (ll.value, s2.value) == (want or (ll.value, s2.value))
        want = (ll.value, s2.value)
        for a, b in zip(args, before):
            np.testing.assert_array_equal(np.ma.getdata(a), b)
        np.testing.assert_array_equal(held, [[5.0, 6.0]])


def test_reference_identity():
    """A Ref gets a new object; one Ref passed twice is one host variable;
    a failing call leaves the Ref alone."""
    src = np.ones((4, 5))
    r = tessel.Ref(src)
    before = tessel.testing.allocation_attempts()
    tessel.call("LgmVersion", r, r)
    assert tessel.testing.allocation_attempts() - before == 1
    assert r.value is not src and not np.shares_memory(r.value, src)
    before = tessel.testing.allocation_attempts()
    tessel.call("LgmVersion", tessel.Ref(src), tessel.Ref(src))
    assert tessel.testing.allocation_attempts() - before == 2
    held = np.zeros((1, 1))
    ll = tessel.Ref(held)
    with pytest.raises(tessel.ZuError):
        tessel.call("LgmLik", ll, tessel.Ref(), LEVEL.y, LEVEL.sys, np.eye(3))
    assert ll.value is held and tessel.Ref().value is None and repr(tessel.Ref(3)) == "Ref(3)"


@pytest.mark.parametrize("bad, exc, words", [
    (True, TypeError, "bool is not"), (np.bool_(0), TypeError, "bool is not"), ([1.0, 2.0], TypeError, r"1-D array of shape \(2,\)"),
    (np.zeros((2, 2, 2)), TypeError, r"3-D array of shape \(2, 2, 2\)"), ("1.0", TypeError, "str"),
    (1 + 2j, TypeError, "complex"), (np.ones((2, 2), dtype=complex), TypeError, "complex128"),
    (np.array([[1, "a"]], dtype=object), TypeError, "object"),
    (np.ones((2, 2), dtype=bool), TypeError, "booleans"), ([["a", "b"]], TypeError, "<U1"),
    ([[1.0, 2.0], [3.0]], TypeError, "cannot be read as a matrix"), (None, TypeError, "None"),
    (2**31, OverflowError, "2147483648"), (-(2**31) - 1, OverflowError, "-2147483649"),
    (np.uint64(2**63), OverflowError, str(2**63)),
    (np.broadcast_to(0.0, (2**31, 1)), ValueError, r"\(2147483648, 1\)")])
def test_refused_with_position_before_the_host(bad, exc, words):
    before = tessel.testing.allocation_attempts()
    with pytest.raises(exc, match=rf"'LgmVersion'\): argument 3: .*{words}"):
        tessel.call("LgmVersion", 1, np.ones((2, 2)), bad)
    assert tessel.testing.allocation_attempts() == before
    r = tessel.Ref(bad)
    if bad is not None:  # an unset Ref
        with pytest.raises(exc, match=r"argument 2 \(Ref value\)"):
            tessel.call("LgmVersion", 0, r)
    assert r.value is bad
    with pytest.raises(TypeError, match="name"):
        tessel.call(b"LgmVersion")


@pytest.mark.parametrize("args, number, text", [
    (("NoSuchRoutine", np.ones((2, 2))), 1, "unknown entry point FnNoSuchRoutine"),
    (("LgmWarning",), 1, "LgmWarning(): at least one argument required"),
    (("KalmanFil", np.ones((1, 5)), np.eye(2), np.eye(2)), 1,
     "\nLgm(): number of rows or columns not correct in argument 0\n")])
def test_error_number_and_text(args, number, text):
    with pytest.raises(tessel.ZuError) as err:
        tessel.call(*args)
    assert isinstance(err.value, RuntimeError)
    assert err.value.number == number and str(err.value) == text
    back = pickle.loads(pickle.dumps(err.value))
    assert type(back) is tessel.ZuError and back.number == number and str(back) == text


def test_messages_captured_or_warned_at_the_callers_line():
    with tessel.capture_messages() as outer:
        with tessel.capture_messages() as msgs:
            assert tessel.call("LgmAbout") is None
        assert outer == []
    assert msgs[0] == "\nTessel version 3.00 (September 2008)" and len(msgs) == 8
    assert all(type(m) is str for m in msgs) and all(m.startswith("    ") for m in msgs[2:])
    with pytest.warns(tessel.ZuMessage) as record:
        tessel.call("LgmAbout")
    assert [str(w.message) for w in record] == msgs and all(w.filename == __file__ for w in record)
    with pytest.raises(tessel.ZuError):  # capture ends with the exception
        with tessel.capture_messages() as msgs:
            tessel.call("LgmWarning")
    with warnings.catch_warnings():
        warnings.simplefilter("error", tessel.ZuMessage)
        with pytest.raises(tessel.ZuMessage, match="Tessel version 3.00"):
            tessel.call("LgmAbout")
    assert tessel.testing.live_allocations() == (0, 0)
    seen = {}

    def worker():
        with tessel.capture_messages() as mine:
            tessel.call("LgmAbout")
        seen["worker"] = mine

    with tessel.capture_messages() as main:  # a capture belongs to its thread
        t = threading.Thread(target=worker)
        t.start()
        t.join()
    assert main == [] and len(seen["worker"]) == 8


@pytest.mark.parametrize("seed", [0, 2**64 - 1, np.uint64(2**64 - 1)])
def test_seed_reproduces_draws(seed):
    def draw():
        return tessel.call("LgmCondDens", 2, LEVEL.y, *LEVEL.args())

    tessel.set_seed(seed)
    first, second = draw(), draw()
    tessel.set_seed(seed)
    np.testing.assert_array_equal(draw(), first)
    assert not np.array_equal(first, second)
    tessel.set_seed((int(seed) + 1) % 2**64)
    assert not np.array_equal(draw(), first)
    for bad, exc in [(-1, ValueError), (2**64, ValueError), (True, TypeError), (1.0, TypeError)]:
        with pytest.raises(exc, match="seed"):
            tessel.set_seed(bad)


def test_version_library_and_allocation_failure():
    """An allocation failed inside a call surfaces as host error 4 with
    nothing left live; the next call succeeds."""
    assert tessel.version() == "3.00" and tessel.__version__ == "3.0.0"
    path = tessel.testing.library_path()
    assert os.path.isfile(path) and os.path.basename(path).startswith("libtessel")
    before = tessel.testing.allocation_attempts()
    want = recursion(U)
    tessel.testing.fail_allocation(tessel.testing.allocation_attempts() - before)  # the last one
    with pytest.raises(tessel.ZuError) as err:
        recursion(U)
    assert err.value.number == 4 and tessel.testing.injected_failure_delivered()
    assert tessel.testing.live_allocations() == (0, 0)
    np.testing.assert_array_equal(recursion(U), want)


def test_missing_extension_is_explained():
    code = "import sys; sys.modules['_tessel'] = None; import tessel"
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    run = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, env=env,
                         timeout=60)
    assert run.returncode != 0
    assert "ImportError: the Tessel extension is not built: run scripts/setup.sh" in run.stderr
