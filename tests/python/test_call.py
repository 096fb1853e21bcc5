"""tessel.call: conversions each way, references, errors, messages and host
accounting.

Round trips of values use ``LgmVersion``, which ignores its arguments: a Ref
passed to it goes into a host variable and comes back unchanged, so what
comes out is exactly what the conversion put in (exact comparisons). The
types the host actually received are read from its own type-check errors
(``LgmWarning`` wants an integer). Numerical paths go through
``LgmRecursion`` (oracle: the model equations stepped in numpy) and
``LgmLik`` (oracle: the joint Gaussian of the local level model of
conftest.py).
"""

import os
import pickle
import subprocess
import sys
import threading
import time
import warnings

import numpy as np
import pytest

import tessel
import tessel.testing
from models import Block, recursion_reference

INT_MAX = 2**31 - 1
INT_MIN = -(2**31)


def echo(value):
    """value -> host variable -> Python, through a reference."""
    r = tessel.Ref(value)
    assert tessel.call("LgmVersion", r) == 300
    return r.value


# m = 2 states, N = 1 series, with intercepts and a correlated initial draw.
MODEL = Block([[0.9, 0.2], [0.0, 0.5], [1.0, -0.7]], np.diag([0.3, 0.2, 1.0]),
              init=[[1.0, 0.0], [0.3, 2.0], [0.5, -1.0]], mean=[[0.1], [-0.2], [0.3]])


def recursion_oracle(u):
    """Column 0 is (a + P u0; 0), then the model equations stepped in numpy."""
    return recursion_reference(MODEL.model, u, MODEL.init[2] + MODEL.init[:2] @ u[:2, 0])


def recursion(u):
    return tessel.call("LgmRecursion", u, *MODEL.args())


@pytest.fixture
def disturbances():
    return np.random.default_rng(7).normal(size=(3, 9))


# ----------------------------------------------------------------- scalars


class TestScalars:
    @pytest.mark.parametrize("value", [7, -7, 0, INT_MAX, INT_MIN, np.int8(-7), np.uint16(65535),
                                       np.int64(INT_MIN), np.array(12)])
    def test_integers_round_trip_as_int(self, value):
        out = echo(value)
        assert type(out) is int and out == int(value)

    @pytest.mark.parametrize("value", [0.1, -0.0, 1e-300, 5e-324, -1.7976931348623157e308,
                                       np.inf, np.float32(0.1), np.float16(-2.5), np.array(0.25)])
    def test_floats_round_trip_bit_for_bit(self, value):
        out = echo(value)
        assert type(out) is float
        assert np.float64(out).tobytes() == np.float64(value).tobytes()

    def test_nan_round_trips(self):
        out = echo(float("nan"))
        assert type(out) is float and np.isnan(out)

    @pytest.mark.parametrize("value", [1, np.int32(1), np.uint8(1), np.array(1, dtype=np.int16)])
    def test_integers_reach_the_host_as_integers(self, value):
        # LgmWarning type-checks its argument as an integer.
        assert tessel.call("LgmWarning", value) is None

    @pytest.mark.parametrize("value, found", [
        (2.5, "double that is not an integer"),
        (np.float32(2.5), "double that is not an integer"),
        (np.ones((2, 3)), "matrix"),
        (np.ones((2, 3), dtype=np.int64), "matrix"),
        (tessel.EMPTY, "matrix"),
        (np.zeros((0, 0)), "matrix"),
        (tessel.Ref(1), "reference"),
    ])
    def test_host_sees_the_converted_type(self, value, found):
        with pytest.raises(tessel.ZuError) as err:
            tessel.call("LgmWarning", value)
        assert err.value.number == 2
        assert str(err.value) == f"LgmWarning(): argument 1: expected integer, found {found}"

    def test_integer_value_reaches_the_library(self, local_level):
        # The message switch reads the integer: 0 and negatives silence the
        # failing likelihood's message, 1 and more bring it back.
        for flag, expect in [(np.int16(0), 0), (-3, 0), (np.uint8(1), 1), (0, 0), (INT_MAX, 1)]:
            tessel.call("LgmWarning", flag)
            with tessel.capture_messages() as msgs:
                ok = tessel.call("LgmLik", tessel.Ref(), tessel.Ref(), local_level.y,
                                 local_level.sys, np.zeros((2, 2)), np.zeros((2, 1)))
            assert ok == 0
            assert len(msgs) == expect, f"flag {flag!r}"


# ---------------------------------------------------------------- matrices


class TestMatrices:
    BASE = np.arange(1.0, 13.0).reshape(3, 4) / 8.0

    @pytest.mark.parametrize("make", [
        lambda b: b,
        lambda b: np.asfortranarray(b),
        lambda b: b.astype(np.float32),
        lambda b: (b * 8).astype(np.int8),
        lambda b: (b * 8).astype(np.uint64),
        lambda b: (b * 8).astype(np.int32).T.copy().T,
        lambda b: b.tolist(),
        lambda b: tuple(map(tuple, b)),
    ], ids=["c", "fortran", "float32", "int8", "uint64", "int32-fortran", "list", "tuple"])
    def test_values_and_layout_survive(self, make):
        src = make(self.BASE)
        out = echo(src)
        assert out.dtype == np.float64 and out.shape == (3, 4) and out.flags.c_contiguous
        np.testing.assert_array_equal(out, np.asarray(src, dtype=np.float64))

    def test_non_contiguous_views(self):
        big = np.arange(80.0).reshape(8, 10)
        for view in (big[::2, 1::3], big[1:4, 2:7], big.T[::3], big[::-1, ::-2]):
            out = echo(view)
            np.testing.assert_array_equal(out, view)
        np.testing.assert_array_equal(big, np.arange(80.0).reshape(8, 10))

    def test_special_values_and_masked_elements(self):
        src = np.array([[np.nan, np.inf, -np.inf], [-0.0, 5e-324, 1e308]])
        out = echo(src)
        assert out.tobytes() == src.tobytes()
        masked = np.ma.masked_array([[1, 2, 3]], mask=[[False, True, False]])
        np.testing.assert_array_equal(echo(masked), [[1.0, np.nan, 3.0]])

    @pytest.mark.parametrize("shape", [(0, 0), (4, 0), (0, 3)])
    def test_shapes_without_elements(self, shape):
        out = echo(np.zeros(shape, dtype=np.int32))
        assert out.shape == shape and out.dtype == np.float64

    def test_empty(self):
        assert echo(tessel.EMPTY).shape == (0, 0)
        assert np.asarray(tessel.EMPTY).shape == (0, 0)
        assert repr(tessel.EMPTY) == "tessel.EMPTY"

    def test_output_is_a_new_writable_array(self):
        src = self.BASE.copy()
        src.flags.writeable = False
        out = echo(src)
        assert not np.shares_memory(out, src) and out.flags.writeable
        out[:] = -1
        np.testing.assert_array_equal(src, self.BASE)

    def test_every_input_layout_gives_identical_results(self, disturbances):
        # The host receives the same doubles whatever the layout or dtype, so
        # the results must be bit-identical.
        u = np.round(disturbances * 4)
        want = recursion(u)
        big = np.zeros((6, 18))
        big[::2, ::2] = u
        for variant in (np.asfortranarray(u), u.astype(np.int16), big[::2, ::2], u.tolist(),
                        u.T.copy().T):
            np.testing.assert_array_equal(recursion(variant), want)
        init_view = np.vstack([MODEL.init, np.zeros((1, 2))])[:3]
        np.testing.assert_array_equal(tessel.call(
            "LgmRecursion", u, np.asfortranarray(MODEL.sys), MODEL.var.astype(np.float32),
            init_view, MODEL.mean.T.T), want)

# -------------------------------------------------------------- references


class TestReferences:
    @pytest.mark.parametrize("gaps", [False, True])
    def test_likelihood_written_through_references(self, local_level, gaps):
        # Missing values come as NaN or as masked elements; the caller's
        # arrays, and an array held by a Ref, are never written.
        y = local_level.y.copy()
        if gaps:
            y[0, [2, 7]] = np.nan
        want_ll, want_s2, _ = local_level.oracle(y).loglik()
        for data in (y, np.ma.masked_invalid(y)):
            args = [data, *local_level.args()]
            before = [np.ma.getdata(a).copy() for a in args]
            held = np.array([[5.0, 6.0]])
            ll, s2 = tessel.Ref(held), tessel.Ref(np.float64(3.0))
            ok = tessel.call("LgmLik", ll, s2, *args)
            assert ok == 1 and type(ok) is int
            assert type(ll.value) is float and type(s2.value) is float
            # Dense log-determinant and solve against the recursion: 1e-10 relative.
            assert ll.value == pytest.approx(want_ll, rel=1e-10)
            assert s2.value == pytest.approx(want_s2, rel=1e-10)
            for a, b in zip(args, before):
                np.testing.assert_array_equal(np.ma.getdata(a), b)
            np.testing.assert_array_equal(held, [[5.0, 6.0]])

    def test_value_replaced_by_a_new_object(self):
        src = np.arange(6.0).reshape(2, 3)
        r = tessel.Ref(src)
        tessel.call("LgmVersion", r)
        assert r.value is not src and not np.shares_memory(r.value, src)
        np.testing.assert_array_equal(r.value, src)
        for start, want in ((None, None), (tessel.EMPTY, (0, 0))):
            r = tessel.Ref(start)
            tessel.call("LgmVersion", r)
            assert (r.value if want is None else r.value.shape) == want

    def test_one_ref_passed_twice_is_one_variable(self):
        src = np.ones((4, 5))
        once = tessel.Ref(src)
        before = tessel.testing.allocation_attempts()
        tessel.call("LgmVersion", once, once)
        assert tessel.testing.allocation_attempts() - before == 1
        before = tessel.testing.allocation_attempts()
        tessel.call("LgmVersion", tessel.Ref(src), tessel.Ref(src))
        assert tessel.testing.allocation_attempts() - before == 2
        np.testing.assert_array_equal(once.value, src)

    def test_ref_left_alone_when_the_call_fails(self, local_level):
        held = np.zeros((1, 1))
        ll = tessel.Ref(held)
        with pytest.raises(tessel.ZuError):
            tessel.call("LgmLik", ll, tessel.Ref(), local_level.y, local_level.sys, np.eye(3))
        assert ll.value is held

    def test_builder_replaces_values_not_caller_arrays(self):
        # One regressor added in front of a local level: every reference gets
        # a new, larger matrix (their values are checked in test_builders).
        sys_, var, init = np.array([[1.0], [1.0]]), np.diag([0.3, 0.7]), np.array([[2.0], [0.5]])
        kept = [sys_.copy(), var.copy(), init.copy()]
        refs = [tessel.Ref(sys_), tessel.Ref(var), tessel.Ref(init), tessel.Ref(tessel.EMPTY)]
        assert tessel.call("AddLgmReg", np.arange(5.0).reshape(1, 5), *refs) is None
        assert [r.value.shape for r in refs] == [(3, 2), (3, 3), (3, 2), (3, 2)]
        for arr, copy in zip((sys_, var, init), kept):
            np.testing.assert_array_equal(arr, copy)

    def test_repr(self):
        assert repr(tessel.Ref(3)) == "Ref(3)"
        assert tessel.Ref().value is None


# ---------------------------------------------------------------- refusals


class TestRefusals:
    @pytest.mark.parametrize("bad, exc, words", [
        (True, TypeError, "bool"),
        (np.bool_(False), TypeError, "bool"),
        ([1.0, 2.0], TypeError, r"1-D array of shape \(2,\)"),
        (np.zeros(5), TypeError, r"1-D array of shape \(5,\)"),
        (np.zeros((2, 2, 2)), TypeError, r"3-D array of shape \(2, 2, 2\)"),
        ("1.0", TypeError, "str"),
        (b"x", TypeError, "bytes"),
        ({"a": 1}, TypeError, "dict"),
        (1 + 2j, TypeError, "complex"),
        (np.ones((2, 2), dtype=complex), TypeError, "complex128"),
        (np.array([[1, "a"]], dtype=object), TypeError, "object"),
        (np.ones((2, 2), dtype=bool), TypeError, "booleans"),
        ([["a", "b"]], TypeError, "<U1"),
        ([[1.0, 2.0], [3.0]], TypeError, "cannot be read as a matrix"),
        (object(), TypeError, "object"),
        (None, TypeError, "None"),
        (2**31, OverflowError, "2147483648"),
        (-(2**31) - 1, OverflowError, "-2147483649"),
        (np.int64(2**40), OverflowError, str(2**40)),
        (np.uint64(2**63), OverflowError, str(2**63)),
        (np.broadcast_to(0.0, (2**31, 1)), ValueError, r"\(2147483648, 1\)"),
    ])
    def test_refused_with_position(self, bad, exc, words):
        before = tessel.testing.allocation_attempts()
        with pytest.raises(exc, match=rf"'LgmVersion'\): argument 3: .*{words}"):
            tessel.call("LgmVersion", 1, np.ones((2, 2)), bad)
        # Refused before anything reached the host.
        assert tessel.testing.allocation_attempts() == before

    @pytest.mark.parametrize("bad, exc", [
        (tessel.Ref(), TypeError), (np.zeros(3), TypeError), ("x", TypeError),
        (True, TypeError), (2**31, OverflowError),
    ])
    def test_ref_values_refused_with_position(self, bad, exc):
        r = tessel.Ref(bad)
        with pytest.raises(exc, match=r"argument 2 \(Ref value\)"):
            tessel.call("LgmVersion", 0, r)
        assert r.value is bad

    def test_name_must_be_str(self):
        with pytest.raises(TypeError, match="name"):
            tessel.call(b"LgmVersion")


# ------------------------------------------------------------------ errors


class TestErrors:
    @pytest.mark.parametrize("args, number, text", [
        (("NoSuchRoutine", np.ones((2, 2))), 1, "unknown entry point FnNoSuchRoutine"),
        (("LgmWarning",), 1, "LgmWarning(): at least one argument required"),
        # the library's own text, passed on unchanged
        (("KalmanFil", np.ones((1, 5)), np.eye(2), np.eye(2)), 1,
         "\nLgm(): number of rows or columns not correct in argument 0\n"),
        (("KalmanFil", np.ones((1, 5)), np.ones((2, 1)), np.eye(3)), 3,
         "KalmanFil(): argument 3: expected 2 x 2 matrix, found 3 x 3"),
    ], ids=["unknown_entry_point", "missing_argument", "library_text", "size"])
    def test_error_number_and_text(self, args, number, text):
        with pytest.raises(tessel.ZuError) as err:
            tessel.call(*args)
        assert isinstance(err.value, RuntimeError)
        assert err.value.number == number and str(err.value) == text

    def test_pickles(self):
        err = tessel.ZuError(4, "out of memory")
        back = pickle.loads(pickle.dumps(err))
        assert type(back) is tessel.ZuError and back.number == 4 and str(back) == "out of memory"


# ---------------------------------------------------------------- messages

BANNER = "\nTessel version 3.00 (September 2008)"


class TestMessages:
    def test_capture_in_order(self):
        with tessel.capture_messages() as msgs:
            assert tessel.call("LgmAbout") is None
        assert msgs[0] == BANNER
        assert len(msgs) == 8 and all(type(m) is str for m in msgs)
        # Two references of three lines each, indented by four blanks.
        assert all(m.startswith("    ") for m in msgs[2:])

    def test_warnings_by_default(self):
        with tessel.capture_messages() as captured:
            tessel.call("LgmAbout")
        with pytest.warns(tessel.ZuMessage) as record:
            tessel.call("LgmAbout")
        assert [str(w.message) for w in record] == captured
        # Reported at the caller's line, not inside the package.
        assert all(w.filename == __file__ for w in record)
        assert issubclass(tessel.ZuMessage, Warning)

    def test_nesting_innermost_wins(self):
        with tessel.capture_messages() as outer:
            with tessel.capture_messages() as inner:
                tessel.call("LgmAbout")
            assert len(inner) == 8 and outer == []
            tessel.call("LgmAbout")
        assert outer == inner

    def test_restored_after_an_exception(self):
        with pytest.raises(tessel.ZuError):
            with tessel.capture_messages() as msgs:
                tessel.call("LgmAbout")
                tessel.call("LgmWarning")
        assert len(msgs) == 8
        with pytest.warns(tessel.ZuMessage):
            tessel.call("LgmAbout")

    def test_warning_turned_into_error(self):
        with warnings.catch_warnings():
            warnings.simplefilter("error", tessel.ZuMessage)
            with pytest.raises(tessel.ZuMessage, match="Tessel version 3.00"):
                tessel.call("LgmAbout")
        # The host is usable again and nothing was left behind.
        assert tessel.testing.live_allocations() == (0, 0)
        with tessel.capture_messages() as msgs:
            tessel.call("LgmAbout")
        assert len(msgs) == 8

    def test_no_calls_from_inside_a_message_handler(self):
        # The host runs one call at a time: a nested call from a warning
        # handler is refused, and the refusal surfaces from the outer call.
        def show(*args, **kwargs):
            tessel.call("LgmVersion")

        with warnings.catch_warnings():
            warnings.simplefilter("always")
            warnings.showwarning = show
            with pytest.raises(RuntimeError, match="already running a call"):
                tessel.call("LgmAbout")
        assert tessel.call("LgmVersion") == 300

    def test_other_threads_wait_for_the_host(self, disturbances):
        # While a message handler has let go of the interpreter lock, another
        # thread's call must wait until the first call has finished.
        events, results = [], []

        def other():
            results.append(recursion(disturbances))
            events.append("other done")

        worker = threading.Thread(target=other)

        def show(*args, **kwargs):
            if not worker.is_alive() and not events:
                worker.start()
                time.sleep(0.2)  # releases the interpreter lock
                events.append("handler done")

        with warnings.catch_warnings():
            warnings.simplefilter("always")
            warnings.showwarning = show
            tessel.call("LgmAbout")
        events.append("call done")
        worker.join(timeout=10)
        assert events == ["handler done", "call done", "other done"]
        np.testing.assert_allclose(results[0], recursion_oracle(disturbances), rtol=1e-12, atol=1e-12)

    def test_capture_belongs_to_its_thread(self):
        seen = {}

        def worker():
            with tessel.capture_messages() as mine:
                tessel.call("LgmAbout")
            seen["worker"] = mine

        with tessel.capture_messages() as main:
            t = threading.Thread(target=worker)
            t.start()
            t.join()
        assert main == [] and len(seen["worker"]) == 8


# --------------------------------------------------- version, seed, host


class TestHostFunctions:
    def test_version(self):
        v = tessel.call("LgmVersion")
        assert v == 300 and type(v) is int
        assert tessel.version() == "3.00"
        assert tessel.__version__ == "3.0.0"

    @pytest.mark.parametrize("seed", [0, 1, 2**64 - 1, np.uint64(2**64 - 1)])
    def test_seed_reproduces_draws(self, seed, local_level):
        def draw():
            return tessel.call("LgmCondDens", 2, local_level.y, *local_level.args())

        tessel.set_seed(seed)
        first = draw()
        second = draw()
        tessel.set_seed(seed)
        np.testing.assert_array_equal(draw(), first)
        assert not np.array_equal(first, second)
        tessel.set_seed((int(seed) + 1) % 2**64)
        assert not np.array_equal(draw(), first)

    @pytest.mark.parametrize("seed, exc", [(-1, ValueError), (2**64, ValueError), (True, TypeError),
                                           (1.0, TypeError), ("1", TypeError)])
    def test_seed_refused(self, seed, exc):
        with pytest.raises(exc, match="seed"):
            tessel.set_seed(seed)

    def test_library_path(self):
        path = tessel.testing.library_path()
        assert os.path.isfile(path) and os.path.basename(path).startswith("libtessel")
        if os.environ.get("TESSEL_LIBRARY"):
            assert path == os.environ["TESSEL_LIBRARY"]

    def test_allocation_failure_at_every_step(self, disturbances):
        # Fail each host allocation of one call in turn: conversion of the
        # arguments and the library's own work. Each gives the memory error
        # and leaves nothing live; one step past the last, the call succeeds.
        want = recursion(disturbances)
        before = tessel.testing.allocation_attempts()
        recursion(disturbances)
        steps = tessel.testing.allocation_attempts() - before
        assert steps >= 4  # at least the four matrix arguments
        for k in range(1, steps + 1):
            tessel.testing.fail_allocation(k)
            with pytest.raises(tessel.ZuError) as err:
                recursion(disturbances)
            assert err.value.number == 4, f"step {k}"
            assert tessel.testing.injected_failure_delivered()
            assert tessel.testing.live_allocations() == (0, 0), f"step {k}"
        tessel.testing.fail_allocation(steps + 1)
        np.testing.assert_array_equal(recursion(disturbances), want)
        assert not tessel.testing.injected_failure_delivered()

def test_missing_extension_is_explained():
    code = "import sys; sys.modules['_tessel'] = None; import tessel"
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    run = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, env=env,
                         timeout=60)
    assert run.returncode != 0
    assert "ImportError: the Tessel extension is not built: run scripts/setup.sh" in run.stderr
