"""Example data sets bundled with the project (examples/data)."""

import os
from pathlib import Path

from .model import ModelError

__all__ = ["example_path", "load_example", "read_series"]

_EXAMPLES = {"nile": "nile.csv", "air_passengers": "air_passengers.csv",
             "uk_driver_deaths": "uk_driver_deaths.csv"}


def example_path(name):
    """Path of a bundled data set (TESSEL_DATA_DIR overrides the folder)."""
    if name not in _EXAMPLES:
        raise ModelError(f"unknown example {name!r}; choose one of {sorted(_EXAMPLES)}")
    folder = os.environ.get("TESSEL_DATA_DIR")
    base = Path(folder) if folder else Path(__file__).resolve().parents[2] / "examples" / "data"
    path = base / _EXAMPLES[name]
    if not path.is_file():
        raise FileNotFoundError(f"bundled data set not found: {path}")
    return path


def read_series(path, column=None):
    """Read one series from a CSV file: the first column is the time index
    (integers such as years are kept; dates become a DatetimeIndex with its
    inferred frequency), ``column`` (default: the last numeric column) the
    values. Returns a float pandas Series."""
    import numpy as np
    import pandas as pd
    try:
        frame = pd.read_csv(path)
    except FileNotFoundError:
        raise
    except Exception as exc:  # pandas raises several kinds for bad files
        raise ModelError(f"{path}: cannot be read as CSV ({exc})") from None
    if frame.shape[0] < 1 or frame.shape[1] < 1:
        raise ModelError(f"{path}: no data")
    idx_col = frame.columns[0] if frame.shape[1] > 1 else None
    if column is None:
        numeric = [c for c in frame.columns if c != idx_col
                   and pd.api.types.is_numeric_dtype(frame[c])]
        if not numeric:
            raise ModelError(f"{path}: no numeric column to fit")
        column = numeric[-1]
    if column not in frame.columns:
        raise ModelError(f"{path}: no column {column!r} (columns: {', '.join(map(str, frame.columns))})")
    try:
        values = pd.to_numeric(frame[column], errors="raise").astype(float).to_numpy()
    except (TypeError, ValueError):
        raise ModelError(f"{path}: column {column!r} is not numeric") from None
    if idx_col is None or idx_col == column:
        index = pd.RangeIndex(len(values))
    else:
        raw = frame[idx_col]
        if pd.api.types.is_integer_dtype(raw):
            index = pd.Index(raw.to_numpy(), name=idx_col)
        else:
            try:
                dates = pd.to_datetime(raw.astype(str))
                freq = pd.infer_freq(dates) if len(dates) >= 3 else None
                index = pd.DatetimeIndex(dates, freq=freq, name=idx_col)
            except (TypeError, ValueError):
                index = pd.Index(raw.to_numpy(), name=idx_col)
    if np.any(np.isinf(values)):
        raise ModelError(f"{path}: column {column!r} has infinite values")
    return pd.Series(values, index=index, name=column)


def load_example(name):
    """A bundled data set as a pandas Series ("nile": annual flow of the
    Nile at Aswan 1871-1970; "air_passengers"; "uk_driver_deaths")."""
    return read_series(example_path(name))
