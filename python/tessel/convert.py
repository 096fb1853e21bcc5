"""Data conversion and argument checking shared by the public functions.

Every public function of the package turns what the caller passed into the
forms the library takes through the helpers here, so that a bad argument
gives a :class:`ModelError` naming the function and the argument, never a
bare Python, numpy or scipy exception and never a silently reinterpreted
value: complex numbers are not truncated to their real part, dates are not
read as raw numbers, booleans are not read as 0 and 1, ``None`` is not a
missing value (NaN is).

The checkers take the name to report as ``where`` ("fit: tol",
"DummySeasonal: period") and return the normalised value.
"""

import functools
import math
import sys

import numpy as np

__all__ = [
    "ModelError", "NumericalError", "floats", "integer", "number", "choice", "probability",
    "flag", "indices", "generator", "host_seed", "vector", "regressors", "Data", "public",
]


class ModelError(ValueError):
    """An invalid model or an invalid argument to the Python API."""


class NumericalError(RuntimeError):
    """The library could not complete a computation (for example a singular
    innovation variance, or fewer observations than diffuse elements)."""


def _describe(x):
    return type(x).__name__


# numpy dtype kinds and what they are called in messages
_REFUSED_KINDS = {"b": "booleans", "c": "complex numbers", "M": "dates", "m": "time spans",
                  "U": "strings", "S": "byte strings", "V": "structured records"}


def _is_real(v):
    return (isinstance(v, (int, float, np.integer, np.floating))
            and not isinstance(v, (bool, np.bool_)))


def floats(x, where):
    """``x`` as a new float64 ndarray (any number of dimensions). Accepts
    numbers, nested sequences of numbers, numpy arrays of integers or floats
    (masked elements become NaN) and pandas objects of numeric columns
    (missing values become NaN). Refuses booleans, complex numbers, dates,
    strings, None and other objects, and ragged nesting."""
    pd = sys.modules.get("pandas")
    if pd is not None and isinstance(x, (pd.Series, pd.DataFrame, pd.Index)):
        cols = x.items() if isinstance(x, pd.DataFrame) else [(None, x)]
        for name, col in cols:
            dt = col.dtype
            if not (pd.api.types.is_numeric_dtype(dt) and not pd.api.types.is_bool_dtype(dt)
                    and not pd.api.types.is_complex_dtype(dt)):
                label = "" if name is None else f" (column {name!r})"
                raise ModelError(f"{where}: expected numbers{label}, got values of dtype {dt}")
        plain = all(isinstance(col.dtype, np.dtype) for _, col in
                    (x.items() if isinstance(x, pd.DataFrame) else [(None, x)]))
        try:
            if plain:                   # numpy-backed: NaN is already the missing value
                return np.array(x.to_numpy(), dtype=np.float64)
            return np.array(x.to_numpy(dtype=np.float64, na_value=np.nan), dtype=np.float64)
        except (TypeError, ValueError) as exc:
            raise ModelError(f"{where}: cannot be read as numbers ({exc})") from None
    if isinstance(x, (str, bytes, bytearray)):
        raise ModelError(f"{where}: expected numbers, got a string")
    if isinstance(x, np.ma.MaskedArray):
        if x.dtype.kind not in "iuf":
            raise ModelError(f"{where}: expected numbers, got a masked array of dtype {x.dtype}")
        x = x.astype(np.float64).filled(np.nan)
    if isinstance(x, (dict, set, frozenset)) or x is None:
        raise ModelError(f"{where}: expected numbers, got {_describe(x)}")
    try:
        arr = np.asarray(x)
    except (TypeError, ValueError, OverflowError):
        raise ModelError(f"{where}: cannot be read as an array of numbers (rows of different "
                         "lengths, or values that are not numbers)") from None
    kind = arr.dtype.kind
    if kind in _REFUSED_KINDS:
        raise ModelError(f"{where}: expected numbers, got {_REFUSED_KINDS[kind]}")
    if kind == "O":
        bad = next((v for v in arr.ravel() if not _is_real(v)), arr)
        what = ("None (use NaN for a missing value)" if bad is None else
                f"a value of type {_describe(bad)}" if bad is not arr else
                "an array of Python objects (dtype object; convert it with np.asarray(x, dtype=float))")
        raise ModelError(f"{where}: expected numbers, got {what}")
    return np.array(arr, dtype=np.float64)


def number(x, where, low=None, high=None, low_open=False, high_open=False, allow_none=False):
    """A finite real number within the bounds given, as float."""
    if x is None:
        if allow_none:
            return None
        raise ModelError(f"{where}: a number is required")
    if not _is_real(x):
        raise ModelError(f"{where}: expected a number, got {_describe(x)}")
    try:
        x = float(x)
    except OverflowError:
        raise ModelError(f"{where}: {x} is too large for a double") from None
    if not math.isfinite(x):
        raise ModelError(f"{where}: must be finite, got {x}")
    if low is not None and (x < low or (low_open and x == low)):
        raise ModelError(f"{where}: must be {'>' if low_open else '>='} {low}, got {x}")
    if high is not None and (x > high or (high_open and x == high)):
        raise ModelError(f"{where}: must be {'<' if high_open else '<='} {high}, got {x}")
    return x


def integer(x, where, low=None, high=None, whole_floats=False, allow_none=False):
    """A whole number within [low, high], as int. ``whole_floats`` also
    accepts floats with a whole value (4.0); never booleans or 4.5."""
    if x is None and allow_none:
        return None
    ok = isinstance(x, (int, np.integer)) and not isinstance(x, (bool, np.bool_))
    if not ok and whole_floats and isinstance(x, (float, np.floating)):
        ok = math.isfinite(x) and float(x).is_integer()
    if not ok:
        raise ModelError(f"{where}: expected a whole number, got {x!r}")
    x = int(x)
    if (low is not None and x < low) or (high is not None and x > high):
        span = (f"between {low} and {high}" if low is not None and high is not None else
                f">= {low}" if low is not None else f"<= {high}")
        raise ModelError(f"{where}: must be {span}, got {x}")
    return x


def choice(x, where, options):
    """One of ``options`` (compared by equality, strings only when the
    options are strings)."""
    if isinstance(x, str) or not any(isinstance(o, str) for o in options):
        try:
            if x in options:
                return x
        except TypeError:
            pass
    raise ModelError(f"{where}: must be one of {', '.join(map(repr, options))}, got {x!r}")


def probability(x, where):
    """A level of a band or interval: a number strictly between 0 and 1."""
    return number(x, where, 0.0, 1.0, low_open=True, high_open=True)


def flag(x, where):
    """True or False (numpy booleans too); not 0, 1 or strings."""
    if isinstance(x, (bool, np.bool_)):
        return bool(x)
    raise ModelError(f"{where}: expected True or False, got {x!r}")


def indices(x, where, size):
    """Distinct positions in 0..size-1 from an int or a sequence of ints,
    sorted; whole-valued floats are accepted, 0.5 is not."""
    vals = floats([x] if np.ndim(x) == 0 and not isinstance(x, (str, bytes)) else x, where)
    if vals.ndim > 1:
        raise ModelError(f"{where}: expected positions (an int or a list of ints), got "
                         f"{vals.ndim} dimensions")
    if not np.all(np.isfinite(vals)) or np.any(vals != np.round(vals)):
        raise ModelError(f"{where}: positions must be whole numbers, got {np.asarray(x).tolist()}")
    out = np.unique(vals.astype(np.int64))
    if out.size and (out[0] < 0 or out[-1] >= size):
        raise ModelError(f"{where}: positions must be in 0..{size - 1}, got {out.tolist()}")
    return out


def _check_seed(seed, rng, where):
    if seed is not None and rng is not None:
        raise ModelError(f"{where}: give seed or rng, not both")
    if rng is not None and not isinstance(rng, np.random.Generator):
        raise ModelError(f"{where}: rng: expected a numpy.random.Generator, got {_describe(rng)}")
    if seed is not None:
        integer(seed, f"{where}: seed", 0, 2**64 - 1)


def generator(seed, rng, where):
    """numpy Generator for ``seed=``/``rng=``: ``rng`` itself, one seeded
    with ``seed``, or one seeded from the system's entropy (numpy's rule:
    unseeded draws differ from run to run)."""
    _check_seed(seed, rng, where)
    return rng if rng is not None else np.random.default_rng(None if seed is None else int(seed))


def host_seed(seed, rng, where):
    """Seed of the host generator for one call's draws: ``seed`` itself, a
    draw from ``rng``, or fresh entropy."""
    _check_seed(seed, rng, where)
    if seed is not None:
        return int(seed)
    gen = rng if rng is not None else np.random.default_rng()
    return int(gen.integers(0, 2**64, dtype=np.uint64))


def vector(x, where):
    """Finite numbers given as a number or a 1-D sequence, as a 1-D array
    (None: empty)."""
    if x is None:
        return np.zeros(0)
    v = floats(x, where)
    if v.ndim > 1:
        raise ModelError(f"{where}: expected a 1-D sequence of numbers, got {v.ndim} dimensions")
    v = v.ravel()
    if not np.all(np.isfinite(v)):
        raise ModelError(f"{where}: values must be finite")
    return v


def regressors(X, where="X"):
    """Regressors given time-major (n x k, or a 1-D series) -> k x n."""
    if X is None:
        raise ModelError(f"{where}: regressors are required")
    arr = floats(X, where)
    if arr.ndim == 1:
        arr = arr[:, None]
    if arr.ndim != 2 or arr.shape[0] < 1 or arr.shape[1] < 1:
        raise ModelError(f"{where}: expected a non-empty n x k array (time points in rows), "
                         f"got shape {arr.shape}")
    if not np.all(np.isfinite(arr)):
        raise ModelError(f"{where}: regressors must be finite")
    return np.ascontiguousarray(arr.T)


class Data:
    """Observations converted for the library (N x n, a private copy) with
    what is needed to give results the caller's index back.

    Data are time-major, as people hold series: a 1-D array or a pandas
    ``Series`` for one series, an n x N array or a ``DataFrame`` for N
    series; NaN (or a masked or missing pandas element) marks a missing
    observation."""

    def __init__(self, y, model=None, name="y"):
        pd = sys.modules.get("pandas")      # pandas data only where pandas is loaded
        self.index, self.columns, self.pandas = None, None, False
        if pd is not None and isinstance(y, pd.Series):
            self.index, self.pandas = y.index, True
            self.columns = [y.name if y.name is not None else "y"]
        elif pd is not None and isinstance(y, pd.DataFrame):
            self.index, self.columns, self.pandas = y.index, list(y.columns), True
        arr = floats(y, name)
        if arr.ndim == 1:
            arr = arr[:, None]
        if arr.ndim != 2:
            raise ModelError(f"{name}: expected 1-D (one series) or 2-D (time points x series), "
                             f"got {arr.ndim}-D")
        if arr.shape[0] < 1 or arr.shape[1] < 1:
            raise ModelError(f"{name}: no time points" if arr.shape[0] < 1 else f"{name}: no series")
        if np.any(np.isinf(arr)):
            raise ModelError(f"{name}: infinite values (use NaN for missing observations)")
        if model is not None and arr.shape[1] != model.N:
            raise ModelError(f"{name}: has {arr.shape[1]} series but the model has N = {model.N}")
        self.values = np.ascontiguousarray(arr.T)  # N x n, a private copy
        self.N, self.n = self.values.shape
        if self.columns is None:
            self.columns = [f"y{i}" for i in range(self.N)] if self.N > 1 else ["y"]

    def frame(self, arr, columns):
        """n x k array -> DataFrame with the caller's index (pandas input) or
        the array itself."""
        if not self.pandas:
            return arr
        import pandas as pd
        return pd.DataFrame(arr, index=self.index, columns=columns)


def public(fn):
    """Marks a public function (or constructor): running out of memory
    anywhere inside it (numpy's arrays or the host's) raises MemoryError
    naming it."""
    name = fn.__qualname__.replace(".__init__", "")

    @functools.wraps(fn)
    def wrapper(*args, **kwargs):
        try:
            return fn(*args, **kwargs)
        except MemoryError as exc:
            text = str(exc)
            if text.startswith(name + ":"):
                raise
            raise MemoryError(f"{name}: out of memory ({text or 'allocation failed'})") from None
    return wrapper
