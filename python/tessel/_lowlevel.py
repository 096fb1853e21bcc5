"""Low-level access to the library: call an entry point by name.

Every Zu statement translates line by line::

    ll, s2 = tessel.Ref(), tessel.Ref()
    ok = tessel.call("LgmLik", ll, s2, y, sys, var)   # ok == 1; ll.value, s2.value
    store = tessel.call("KalmanFil", y, sys, var, init)

Arguments are converted to host values here (with messages that name the
argument) and handed to the compiled module ``_tessel``, which copies them
into host storage. Nothing the caller passes is ever written to.
"""

import contextlib
import sys
import threading
import warnings

import numpy as np

try:
    import _tessel
except ImportError as exc:  # pragma: no cover - depends on the installation
    raise ImportError(
        "the Tessel extension is not built: run scripts/setup.sh "
        f"(importing the compiled module _tessel failed: {exc})"
    ) from exc

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

_INT_MIN = -(2**31)
_INT_MAX = 2**31 - 1
_SEED_LIMIT = 2**64


class ZuError(RuntimeError):
    """A run-time error raised by the host or the library.

    ``number`` is the host error number (1: the library's own message,
    2: argument type, 3: matrix size, 4: out of memory); ``str(err)`` is the
    text exactly as the library or host produced it.
    """

    def __init__(self, number, text):
        super().__init__(text)
        self.number = number

    def __reduce__(self):
        return (type(self), (self.number, str(self)))


class ZuMessage(UserWarning):
    """Category of the warnings that carry the library's messages."""


class _Empty:
    """The empty matrix ``<>`` of the host (0 x 0)."""

    __slots__ = ()
    shape = (0, 0)

    def __repr__(self):
        return "tessel.EMPTY"

    def __reduce__(self):
        return "EMPTY"

    def __array__(self, dtype=None):
        return np.empty((0, 0), dtype=np.float64 if dtype is None else dtype)


EMPTY = _Empty()


class Ref:
    """A variable passed by reference to an entry point.

    ``value`` is passed in (converted like any argument; ``None`` means the
    variable holds nothing) and, after the call, replaced by what the entry
    point left in the variable: an ``int``, a ``float``, a new 2-D float64
    ``ndarray`` or ``None``. Passing the same Ref twice passes one variable.
    When the call raises, ``value`` is left unchanged.
    """

    __slots__ = ("value",)

    def __init__(self, value=None):
        self.value = value

    def __repr__(self):
        return f"Ref({self.value!r})"


# ---------------------------------------------------------------- messages

_local = threading.local()


def _capture_stack():
    stack = getattr(_local, "stack", None)
    if stack is None:
        stack = _local.stack = []
    return stack


def _stacklevel():
    """Stack level of the first frame outside this package (for warnings)."""
    level, frame = 1, sys._getframe(1)
    while frame is not None:
        module = frame.f_globals.get("__name__", "")
        if module != "tessel" and not module.startswith("tessel."):
            return level
        frame, level = frame.f_back, level + 1
    return level


def _deliver(text):
    # Called by the host, with the GIL held, for every message line.
    stack = _capture_stack()
    if stack:
        stack[-1].append(text)
    else:
        warnings.warn(text, ZuMessage, stacklevel=_stacklevel())


@contextlib.contextmanager
def capture_messages():
    """Collect the library's messages instead of warning.

    ``with tessel.capture_messages() as msgs:`` makes ``msgs`` a list that
    receives each message text (``str``, exactly as the library passed it)
    in order. Captures nest (the innermost one receives) and are per thread;
    the previous behaviour is restored on exit, also after an exception.
    """
    msgs = []
    stack = _capture_stack()
    stack.append(msgs)
    try:
        yield msgs
    finally:
        for i in range(len(stack) - 1, -1, -1):
            if stack[i] is msgs:
                del stack[i]
                break


_tessel.set_message_handler(_deliver)
_tessel.set_error_class(ZuError)


# -------------------------------------------------------------- conversion

_ACCEPTED = "an int, a float, a 2-D array of numbers, tessel.EMPTY or a tessel.Ref"


def _where(name, pos, in_ref):
    ref = " (Ref value)" if in_ref else ""
    return f"tessel.call({name!r}): argument {pos}{ref}"


def _int_value(x, name, pos, in_ref):
    v = int(x)
    if not _INT_MIN <= v <= _INT_MAX:
        raise OverflowError(
            f"{_where(name, pos, in_ref)}: integer {v} does not fit in a C int "
            f"[{_INT_MIN}, {_INT_MAX}]"
        )
    return v


def _host_value(x, name, pos, in_ref):
    """One argument (or Ref value) -> int, float, 2-D float64 array or None.

    ``name`` and ``pos`` only serve the error messages.
    """
    # Fast paths for what a likelihood inside an optimiser passes.
    tx = type(x)
    if tx is np.ndarray:
        if (x.ndim == 2 and x.dtype == np.float64 and x.flags.c_contiguous
                and x.shape[0] <= _INT_MAX and x.shape[1] <= _INT_MAX):
            return x
    elif tx is float:
        return x

    if x is EMPTY:
        return np.empty((0, 0))
    if isinstance(x, Ref):
        raise TypeError(f"{_where(name, pos, in_ref)}: a Ref cannot hold another Ref")
    if x is None:
        if in_ref:
            return None
        raise TypeError(
            f"{_where(name, pos, in_ref)}: None is accepted only as the value of a tessel.Ref "
            "(pass tessel.EMPTY for the empty matrix)"
        )
    if isinstance(x, (bool, np.bool_)):
        raise TypeError(f"{_where(name, pos, in_ref)}: bool is not accepted (pass 1 or 0 as an int)")
    if isinstance(x, (int, np.integer)):
        return _int_value(x, name, pos, in_ref)
    if isinstance(x, (float, np.floating)):
        return float(x)
    if isinstance(x, (str, bytes, bytearray, dict, set, frozenset, complex, np.complexfloating)):
        raise TypeError(
            f"{_where(name, pos, in_ref)}: {type(x).__name__} is not accepted; expected {_ACCEPTED}"
        )

    if isinstance(x, np.ma.MaskedArray):
        # Masked elements are missing observations: NaN for the library.
        if x.dtype.kind in "iuf":
            x = x.astype(np.float64).filled(np.nan)
    try:
        arr = np.asarray(x)
    except (ValueError, TypeError) as exc:
        raise TypeError(f"{_where(name, pos, in_ref)}: cannot be read as a matrix ({exc})") from None
    kind = arr.dtype.kind
    if kind not in "iuf":
        what = "booleans" if kind == "b" else f"dtype {arr.dtype}"
        raise TypeError(
            f"{_where(name, pos, in_ref)}: {type(x).__name__} of {what} is not accepted; "
            f"expected {_ACCEPTED}"
        )
    if arr.ndim == 0:
        return _int_value(arr, name, pos, in_ref) if kind in "iu" else float(arr)
    if arr.ndim != 2:
        raise TypeError(
            f"{_where(name, pos, in_ref)}: {arr.ndim}-D array of shape {arr.shape} is not "
            "accepted; matrices must be 2-D (for one row use x.reshape(1, -1))"
        )
    rows, cols = arr.shape
    if rows > _INT_MAX or cols > _INT_MAX:
        raise ValueError(
            f"{_where(name, pos, in_ref)}: shape {arr.shape} does not fit in a host matrix "
            f"(at most {_INT_MAX} rows and columns)"
        )
    # C-contiguous float64; the compiled module copies it into host storage.
    return np.ascontiguousarray(arr, dtype=np.float64)


def call(name, *args, seed=None):
    """Call the entry point ``Fn<name>`` of the library.

    Arguments: ``int`` (C int range) -> integer; ``float`` -> double; 2-D
    array-like of numbers -> matrix (copied as float64); ``tessel.EMPTY`` or
    any 0 x 0 array -> the empty matrix; ``tessel.Ref`` -> reference (see
    :class:`Ref`). numpy scalars count as ``int``/``float``; ``bool``, 1-D and
    3-D arrays, strings and other objects raise ``TypeError`` naming the
    argument. Returns an ``int``, ``float``, a 2-D float64 ``ndarray`` or
    ``None`` (nothing returned). Host errors raise :class:`ZuError`; messages
    become :class:`ZuMessage` warnings (see :func:`capture_messages`).

    ``seed`` (keyword, 0 <= seed < 2**64): the call's random draws come from
    a generator of its own seeded with it, so seeding and drawing are one
    step that other threads cannot interleave; without it the call draws
    from the generator the process shares (:func:`set_seed`).

    Threads and interrupts: the call runs with the interpreter lock
    released, so threads run calls at once; Ctrl-C interrupts a long call
    at once (its work finishes in the background and is discarded).

    Two paths end the process (exit status 0, no ``finally`` or ``atexit``
    handler runs), as the library prescribes, once messages are switched
    off with ``call("LgmWarning", 0)``: a later ``call("LgmWarning")``
    without an argument, and a filtering call given part of the
    time-varying block (one to three of SysIdx, VarIdx, MeanIdx, TvData
    after InitMat and MeanVec). With messages off, calls run on the calling
    thread and cannot be interrupted. The switch set here applies to
    ``tessel.call`` only: the functions of the idiomatic API run their calls
    with messages on and never pass part of a block.
    """
    if type(name) is not str:
        raise TypeError(f"tessel.call: the entry point name must be a str, not {type(name).__name__}")
    if seed is not None:
        seed = _seed_value(seed, f"tessel.call({name!r}): seed")
    values, targets, slots = [], [], []
    refs = None
    for pos, arg in enumerate(args, 1):
        if type(arg) is Ref or isinstance(arg, Ref):
            if refs is None:
                refs = {}
            slot = refs.get(id(arg))
            if slot is None:
                slot = refs[id(arg)] = len(targets)
                targets.append(_host_value(arg.value, name, pos, True))
            values.append(None)
            slots.append(slot)
        else:
            values.append(_host_value(arg, name, pos, False))
            slots.append(-1)
    result, written = _tessel.call(name, values, targets, slots, seed, True)
    if refs is not None:
        for arg, slot in zip(args, slots):
            if slot >= 0:
                arg.value = written[slot]
    return result


def api_call(where, name, *args, seed=None):
    """The idiomatic layer's call of an entry point: ``(result, messages)``.

    The arguments are already checked (a host error here is a bug of the
    checks, reported as ModelError naming ``where`` and the entry point);
    messages are collected, not shown; the call runs with messages on
    whatever :func:`call` users chose; running out of memory raises
    MemoryError naming ``where``.
    """
    from .convert import ModelError

    values, targets, slots = [], [], []
    refs = []
    for pos, arg in enumerate(args, 1):
        if isinstance(arg, Ref):
            slots.append(len(targets))
            targets.append(_host_value(arg.value, name, pos, True))
            refs.append(arg)
            values.append(None)
        else:
            values.append(_host_value(arg, name, pos, False))
            slots.append(-1)
    with capture_messages() as msgs:
        try:
            result, written = _tessel.call(name, values, targets, slots, seed, False)
        except ZuError as err:
            if err.number == 4:
                raise MemoryError(f"{where}: out of memory in {name} ({err})") from None
            raise ModelError(f"{where}: {name} refused the arguments: {err}") from None
    for ref, value in zip(refs, written):
        ref.value = value
    return result, msgs


def version():
    """Version of the loaded library as a string, e.g. ``"3.00"``.

    It is ``LgmVersion`` (version times 100) written with two decimals.
    """
    v = call("LgmVersion")
    return f"{v // 100}.{v % 100:02d}"


def _seed_value(n, where):
    if isinstance(n, (bool, np.bool_)) or not isinstance(n, (int, np.integer)):
        raise TypeError(f"{where}: the seed must be an int, not {type(n).__name__}")
    n = int(n)
    if not 0 <= n < _SEED_LIMIT:
        raise ValueError(f"{where}: the seed must be in [0, 2**64), not {n}")
    return n


def set_seed(n):
    """Reseed the random generator the process shares with ``n``
    (0 <= n < 2**64); until then it is seeded from the system's entropy.

    The same seed reproduces the same draws on every machine. Threads that
    draw at once share this generator: for draws that a seed reproduces
    under threads, pass ``seed=`` to :func:`call` (or to the idiomatic
    functions) instead.
    """
    _tessel.set_seed(_seed_value(n, "tessel.set_seed"))
