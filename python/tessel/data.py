"""Reading series from CSV files, checked rather than guessed, and the
example data sets bundled with the project (examples/data).

The reader needs neither pandas nor scipy (the command stays fast):

- the separator (comma, semicolon, tab or bar) is the one that gives every
  row as many fields as the header; decimal commas and thousands
  separators ("1,120", "1.120,5", "1 120") are recognised per column, and
  where "1,120" could be either, the separator decides (a semicolon or tab
  file uses decimal commas);
- empty cells, ".", "-", "NA", "N/A", "n/a", "NaN", "null" and "#N/A" are
  missing values; anything else that is not a number is an error naming
  its row and column;
- the first column is the time index (when there is more than one
  column): years, dates (1949-01, 1949-01-31, 1949/01/31, 31.01.1949),
  quarters (1949Q1, 1949-Q1) or whole numbers. It must be sorted and
  unique; its step is inferred (annual, quarterly, monthly, weekly,
  business-daily, daily, or a whole-number step) and time points missing
  from it become missing observations, reported in ``notes``.
"""

import calendar
import csv
import datetime as _dt
import io
import math
import os
import re
from pathlib import Path

import numpy as np

from .model import ModelError

__all__ = ["example_path", "load_example", "read_series", "read_csv", "CsvData", "TimeIndex",
           "periods_per_year"]

_EXAMPLES = {"nile": "nile.csv", "air_passengers": "air_passengers.csv",
             "uk_driver_deaths": "uk_driver_deaths.csv"}

MISSING = frozenset(["", ".", "-", "na", "n/a", "nan", "null", "#n/a", "none"])

_PLAIN = re.compile(r"^[+-]?(\d+\.?\d*|\.\d+)([eE][+-]?\d+)?$")
# dot decimal, thousands by comma, blank or apostrophe
_DOT = re.compile(r"^[+-]?\d{1,3}([,' \u00a0\u202f]\d{3})+(\.\d*)?$")
# comma decimal, thousands by dot, blank or apostrophe
_COMMA = re.compile(r"^[+-]?(\d{1,3}([.' \u00a0\u202f]\d{3})+|\d+)(,\d*)?$")


class CsvData:
    """A checked table: ``index`` (a :class:`TimeIndex`, gaps filled),
    ``columns`` (names in file order, index column excluded), ``column(name)``
    the values as floats (NaN missing), ``notes`` (what was done to the
    input), ``path``."""

    def __init__(self, path, index, order, names, cells, rows, sep, notes):
        self.path, self.index, self.columns, self.notes = path, index, names, notes
        self._order, self._cells, self._rows, self._sep = order, cells, rows, sep
        self._cache = {}

    def column(self, name):
        """The values of a column (time points of the index in rows)."""
        if name not in self._cache:
            if name not in self.columns:
                raise ModelError(f"{self.path}: no column {name!r} (columns: "
                                 f"{', '.join(self.columns)})")
            cells = self._cells[name]
            decimal = _decimal_of(cells, self._sep)
            vals = np.full(len(self.index), np.nan)
            vals[self._order] = _parse_column(cells, name, self.path, decimal, self._rows)
            self._cache[name] = vals
            self.notes.extend(_reading_notes(cells, name, decimal))
        return self._cache[name]

    def numeric_columns(self):
        """Columns whose cells are numbers or missing markers in at least
        half of the rows (the others are text)."""
        out = []
        for name in self.columns:
            cells = self._cells[name]
            decimal = _decimal_of(cells, self._sep)
            good = sum(1 for c in cells if c.lower() in MISSING or _number(c, decimal) is not None)
            if good and good * 2 >= len(cells):
                out.append(name)
        return out


def _number(text, decimal):
    """One cell -> float, or None when it is not a number written with the
    column's decimal mark."""
    if decimal == ".":
        if _PLAIN.match(text):
            return float(text)
        if _DOT.match(text):
            return float(re.sub(r"[,' \u00a0\u202f]", "", text))
        return None
    if _COMMA.match(text):
        return float(re.sub(r"[.' \u00a0\u202f]", "", text).replace(",", "."))
    return float(text) if _PLAIN.match(text) else None


def _decimal_of(cells, sep):
    """The decimal mark of a column, decided by its cells with a comma:
    "1,120.5" is dot-decimal, "1.120,5" or "3,14" comma-decimal; cells such
    as "1,120" fit both and follow the separator (decimal comma in a
    semicolon, tab or bar file)."""
    commas = [c for c in cells if "," in c and c.lower() not in MISSING]
    if not commas:
        return "."
    dot = all(_DOT.match(c) for c in commas)
    comma = all(_COMMA.match(c) for c in commas)
    if dot and comma:
        return "," if sep != "," else "."
    return "," if comma else "."


def _reading_notes(cells, name, decimal):
    """What reading a column took: decimal commas, thousands separators,
    markers read as missing."""
    notes = []
    if decimal == "," and any("," in c for c in cells):
        notes.append(f"decimal commas in {name!r}")
    grouped = [c for c in cells if not _PLAIN.match(c) and c.lower() not in MISSING
               and (_DOT if decimal == "." else _COMMA).match(c) and re.search(r"\d[,.' ]\d{3}", c)]
    if grouped:
        notes.append(f"thousands separators in {name!r} (e.g. {grouped[0]!r})")
    markers = sorted({c for c in cells if c and c.lower() in MISSING})
    if markers:
        count = sum(1 for c in cells if c and c.lower() in MISSING)
        notes.append(f"{count} cell{'s' if count > 1 else ''} {', '.join(map(repr, markers))} in "
                     f"{name!r} read as missing")
    return notes


def _parse_column(cells, name, path, decimal, rows):
    out = np.empty(len(cells))
    for i, c in enumerate(cells):
        if c.lower() in MISSING:
            out[i] = np.nan
            continue
        v = _number(c, decimal)
        if v is None:
            raise ModelError(f"{path}: row {rows[i]}, column {name!r}: cannot read {c!r} as a "
                             "number (write missing values as an empty cell, NA, '.' or '-')")
        if not math.isfinite(v):
            raise ModelError(f"{path}: row {rows[i]}, column {name!r}: {c!r} is not finite "
                             "(write missing values as an empty cell or NA)")
        out[i] = v
    return out


def _split(text, path):
    """(header, rows, separator): the separator with which every row has as
    many fields as the header."""
    lines = [ln for ln in text.splitlines() if ln.strip()]
    if not lines:
        raise ModelError(f"{path}: the file is empty (expected a header row and data rows)")
    best = None
    for sep in ("\t", ";", "|", ","):
        rows = list(csv.reader(io.StringIO("\n".join(lines)), delimiter=sep))
        width = len(rows[0])
        bad = next((i for i, r in enumerate(rows) if len(r) != width), None)
        if width > 1 and bad is None:
            return rows[0], rows[1:], sep
        if width > 1 and (best is None or bad > best[1]):
            best = (sep, bad, width, rows)
    if best is None:          # one column
        rows = list(csv.reader(io.StringIO("\n".join(lines)), delimiter=","))
        return rows[0], rows[1:], ","
    sep, bad, width, rows = best
    name = {"\t": "tab", ";": "';'", "|": "'|'", ",": "','"}[sep]
    raise ModelError(f"{path}: row {bad + 1} has {len(rows[bad])} fields where the header has "
                     f"{width} (separator {name}): quote values that contain the separator "
                     "(such as thousands separators) or remove the stray field")


def read_csv(path):
    """Read and check a CSV file (see the module docstring); returns
    :class:`CsvData`. ModelError names the problem and the cure."""
    path = Path(path)
    try:
        raw = path.read_bytes()
    except FileNotFoundError:
        raise
    except OSError as exc:
        raise ModelError(f"{path}: cannot be read ({exc.strerror})") from None
    try:
        text = raw.decode("utf-8-sig")
    except UnicodeDecodeError:
        text = raw.decode("latin-1")
    header, rows, sep = _split(text, path)
    header = [h.strip() for h in header]
    if all(_number(h, ".") is not None for h in header if h):
        raise ModelError(f"{path}: the first row holds numbers; it must be a header naming the "
                         "columns (add one, e.g. 'time,value')")
    if not rows:
        raise ModelError(f"{path}: a header but no data rows")
    dup = next((h for i, h in enumerate(header) if h and h in header[:i]), None)
    if dup is not None:
        raise ModelError(f"{path}: the column name {dup!r} appears twice in the header (give "
                         "each column its own name)")
    header = [h or f"column{i + 1}" for i, h in enumerate(header)]
    rownums = list(range(2, len(rows) + 2))       # line numbers in the file (1: the header)
    cells = {h: [r[i].strip() for r in rows] for i, h in enumerate(header)}
    notes = []
    if len(header) > 1:
        names = header[1:]
        index, order = TimeIndex.parse(cells[header[0]], header[0], path, rownums, notes)
    else:
        names = header
        index, order = TimeIndex.counter(len(rows)), np.arange(len(rows))
    if sep != ",":
        notes.append(f"columns separated by {'tabs' if sep == chr(9) else repr(sep)}")
    return CsvData(path, index, order, names, cells, rownums, sep, notes)


# ------------------------------------------------------------- time index

_Q = re.compile(r"^(\d{4})\s*[-/ ]?\s*[Qq]([1-4])$")
_YM = re.compile(r"^(\d{4})[-/.M]?(\d{1,2})$")
_YMD = re.compile(r"^(\d{4})[-/.](\d{1,2})[-/.](\d{1,2})(?:[T ]00:00(?::00)?)?$")
_DMY = re.compile(r"^(\d{1,2})\.(\d{1,2})\.(\d{4})$")
_INT = re.compile(r"^[+-]?\d+$")

#: time points per year by kind
_PPY = {"Y": 1.0, "Q": 4.0, "M": 12.0, "W": 365.25 / 7, "B": 261.0, "D": 365.25}
_KIND_NAME = {"Y": "annual", "Q": "quarterly", "M": "monthly", "W": "weekly",
              "B": "business-daily", "D": "daily", "int": "whole-number"}


class TimeIndex:
    """A regular time index: ``kind`` (Y, Q, M, W, B, D or int), ``ordinals``
    (int array: years, quarters or months since year 0; days since
    0001-01-01 for D and W; business days; or the whole numbers
    themselves), ``step`` between time points in those units, ``style``
    (how labels are written: year, ym, yq, start, end, date, int) and
    ``name``."""

    def __init__(self, kind, ordinals, step=1, style=None, name=None):
        self.kind, self.ordinals, self.step = kind, np.asarray(ordinals, dtype=np.int64), step
        self.style, self.name = style, name

    @classmethod
    def counter(cls, n, name=None):
        return cls("int", np.arange(n), 1, "int", name)

    def __len__(self):
        return self.ordinals.size

    @property
    def periods_per_year(self):
        """Time points per year (None for a whole-number index)."""
        if self.kind == "int":
            return None
        return _PPY[self.kind] / (self.step // 7 if self.kind == "W" else self.step)

    @property
    def description(self):
        step = self.step // 7 if self.kind == "W" else self.step
        return (f"every-{step}-" if step != 1 else "") + _KIND_NAME[self.kind]

    def extend(self, h):
        """The index of h further time points."""
        last = self.ordinals[-1] if self.ordinals.size else -self.step
        new = last + self.step * np.arange(1, h + 1)
        return TimeIndex(self.kind, new, self.step, self.style, self.name)

    def _date(self, o):
        k = self.kind
        if k in ("D", "W"):
            return _dt.date.fromordinal(int(o))
        if k == "B":
            weeks, wd = divmod(int(o), 5)
            return _dt.date.fromordinal(weeks * 7 + wd + 1)
        months = {"M": 1, "Q": 3, "Y": 12}[k]
        y, m0 = divmod(int(o) * months, 12)
        if self.style == "end":
            m = m0 + months
            return _dt.date(y, m, calendar.monthrange(y, m)[1])
        return _dt.date(y, m0 + 1, 1)

    def labels(self):
        """The time points as text, written as in the input."""
        k, s = self.kind, self.style
        if k == "int" or (k == "Y" and s == "year"):
            return [str(int(o)) for o in self.ordinals]
        if k == "M" and s == "ym":
            return [f"{o // 12}-{o % 12 + 1:02d}" for o in self.ordinals]
        if k == "Q" and s == "yq":
            return [f"{o // 4}Q{o % 4 + 1}" for o in self.ordinals]
        return [self._date(o).isoformat() for o in self.ordinals]

    def plot_values(self):
        """x values for plots: dates, or the whole numbers."""
        if self.kind == "int" or (self.kind == "Y" and self.style == "year"):
            return self.ordinals.copy()
        return [self._date(o) for o in self.ordinals]

    def to_pandas(self):
        """The index as pandas holds it: integers, or a DatetimeIndex with
        its frequency."""
        import pandas as pd
        if self.kind == "int" or (self.kind == "Y" and self.style == "year"):
            return pd.Index(self.ordinals.copy(), name=self.name)
        freq = {"D": "D", "B": "B"}.get(self.kind)
        step = self.step
        if self.kind == "W":
            freq = "W-" + _dt.date.fromordinal(int(self.ordinals[0])).strftime("%a").upper()
            step //= 7
        elif freq is None:
            base = {"M": "M", "Q": "Q", "Y": "A"}[self.kind]
            freq = base + ("" if self.style == "end" else "S")
            if self.kind != "M":
                month = self._date(self.ordinals[0]).strftime("%b").upper()
                freq += "-" + month
        if step != 1:
            freq = f"{step}{freq}"
        return pd.DatetimeIndex([self._date(o) for o in self.ordinals], freq=freq, name=self.name)

    # ---- parsing
    @classmethod
    def parse(cls, cells, name, path, rows, notes):
        """Labels -> (regular TimeIndex with gaps filled, position of each
        input row in it). ModelError for unreadable, unsorted, duplicated
        or irregular labels."""
        labels = [c.strip() for c in cells]
        kind, style, ords = _read_labels(labels, name, path, rows)
        ords = np.asarray(ords, dtype=np.int64)
        diffs = np.diff(ords)
        if ords.size > 1:
            bad = np.flatnonzero(diffs <= 0)
            if bad.size:
                i = int(bad[0]) + 1
                j = int(np.flatnonzero(ords[:i] == ords[i])[0]) if diffs[i - 1] == 0 or \
                    np.any(ords[:i] == ords[i]) else None
                if j is not None:
                    raise ModelError(f"{path}: row {rows[i]}: the time {labels[i]!r} appears "
                                     f"twice (rows {rows[j]} and {rows[i]}): each time point "
                                     "must appear once (remove or merge the duplicate)")
                raise ModelError(f"{path}: row {rows[i]}: the time {labels[i]!r} comes after "
                                 f"{labels[i - 1]!r}: the rows must be sorted by time (sort "
                                 "the file by its first column)")
        step = int(np.gcd.reduce(diffs)) if diffs.size else 1
        if kind == "D" and diffs.size and step % 7 == 0:
            kind = "W"                              # day ordinals, a step of whole weeks
        elif kind == "D" and diffs.size and step == 1 and _is_business(ords):
            kind, ords = "B", _business(ords)
            step = int(np.gcd.reduce(np.diff(ords)))
        pos = (ords - ords[0]) // step
        full = ords[0] + step * np.arange(int(pos[-1]) + 1)
        idx = cls(kind, full, step, style, name)
        missing = full.size - ords.size
        if missing > ords.size:
            raise ModelError(f"{path}: column {name!r}: the time index has no regular step: its "
                             f"{ords.size} time points would leave {missing} missing in a "
                             f"{idx.description} index (give dates at a regular step, or whole "
                             "numbers 1, 2, 3, ... for an index without dates)")
        if missing:
            gaps = np.setdiff1d(full, ords)
            shown = ", ".join(cls(kind, gaps[:5], step, style).labels())
            notes.append(f"{missing} time point{'s' if missing > 1 else ''} missing from the "
                         f"{idx.description} index ({shown}{', ...' if missing > 5 else ''}) "
                         "added as missing observations")
        return idx, pos

    def __repr__(self):
        return f"<TimeIndex {self.description}, {len(self)} points>"


def _is_business(ords):
    return all(_dt.date.fromordinal(int(o)).weekday() < 5 for o in ords[:200]) and \
        int(np.max(np.diff(ords))) <= 5 and np.any(np.diff(ords) == 3)


def _business(ords):
    """Day ordinals (weekdays) -> business-day ordinals (5 per week)."""
    o = ords - 1                                       # 0001-01-01 is a Monday
    return (o // 7) * 5 + o % 7


def _read_labels(labels, name, path, rows):
    """(kind, style, ordinals) of the labels; ModelError naming the first
    label that cannot be read in the form the others have."""
    def fail(i, what):
        raise ModelError(f"{path}: row {rows[i]}, column {name!r}: cannot read {labels[i]!r} as "
                         f"{what} (the first column is the time index: years, dates such as "
                         "1949-01 or 1949-01-31, quarters such as 1949Q1, or whole numbers)")

    first = labels[0]
    if _INT.match(first):
        vals = []
        for i, s in enumerate(labels):
            if not _INT.match(s):
                fail(i, "a whole number")
            vals.append(int(s))
        years = all(1000 <= v <= 3000 for v in vals) and len(first) == 4
        return ("Y", "year", vals) if years else ("int", "int", vals)
    for rx, kind in ((_Q, "Q"), (_YMD, "D"), (_DMY, "DMY"), (_YM, "M")):
        if rx.match(first):
            break
    else:
        fail(0, "a time")
    out = []
    for i, s in enumerate(labels):
        mt = rx.match(s)
        try:
            if mt is None:
                raise ValueError
            if kind == "Q":
                out.append(int(mt.group(1)) * 4 + int(mt.group(2)) - 1)
            elif kind == "M":
                y, m = int(mt.group(1)), int(mt.group(2))
                if not 1 <= m <= 12:
                    raise ValueError
                out.append(y * 12 + m - 1)
            elif kind == "D":
                out.append(_dt.date(int(mt.group(1)), int(mt.group(2)),
                                    int(mt.group(3))).toordinal())
            else:
                out.append(_dt.date(int(mt.group(3)), int(mt.group(2)),
                                    int(mt.group(1))).toordinal())
        except ValueError:
            fail(i, "a date of the same form as the first row's")
    if kind == "Q":
        return "Q", "yq", out
    if kind == "M":
        return "M", "ym", out
    # dates: month, quarter or year starts/ends are those frequencies
    dates = [_dt.date.fromordinal(o) for o in out]
    for style, test in (("start", lambda d: d.day == 1),
                        ("end", lambda d: d.day == calendar.monthrange(d.year, d.month)[1])):
        if len(dates) > 1 and all(test(d) for d in dates):
            months = [d.year * 12 + d.month - 1 for d in dates]
            if len(set(m % 12 for m in months)) == 1:
                return "Y", style, [m // 12 for m in months]
            if len(set(m % 3 for m in months)) == 1 and len(dates) > 2 and \
                    all(b - a >= 3 for a, b in zip(months, months[1:])):
                return "Q", style, [m // 3 for m in months]
            return "M", style, months
    return "D", "date", out


def periods_per_year(index):
    """Time points per year of an index: a :class:`TimeIndex`, a pandas
    index with a frequency, or whole numbers that are years (1000..3000,
    step 1); None when unknown."""
    if index is None:
        return None
    if isinstance(index, TimeIndex):
        return index.periods_per_year
    freq = getattr(index, "freqstr", None) or ""
    for prefix, ppy in (("A", 1.0), ("Y", 1.0), ("Q", 4.0), ("M", 12.0), ("W", 365.25 / 7),
                        ("B", 261.0), ("D", 365.25), ("H", 8766.0)):
        base = freq.lstrip("0123456789")
        if base.startswith(prefix):
            mult = int(freq[:len(freq) - len(base)] or 1)
            return ppy / mult
    try:
        vals = np.asarray(index)
        if vals.dtype.kind in "iu" and vals.size > 1 and np.all(np.diff(vals) == 1) and \
                1000 <= vals.min() and vals.max() <= 3000:
            return 1.0
    except (TypeError, ValueError):
        pass
    return None


# ------------------------------------------------------------ examples


def example_path(name):
    """Path of a bundled data set (TESSEL_DATA_DIR overrides the folder)."""
    if not isinstance(name, str) or name not in _EXAMPLES:
        raise ModelError(f"load_example: name: unknown example {name!r}; choose one of "
                         f"{sorted(_EXAMPLES)}")
    folder = os.environ.get("TESSEL_DATA_DIR")
    base = Path(folder) if folder else Path(__file__).resolve().parents[2] / "examples" / "data"
    path = base / _EXAMPLES[name]
    if not path.is_file():
        raise FileNotFoundError(f"bundled data set not found: {path}")
    return path


def pick_column(data, column=None):
    """The series column: ``column``, or the last numeric column."""
    if column is not None:
        data.column(column)
        return column
    numeric = data.numeric_columns()
    if not numeric:
        # name the first value of the last column that cannot be read
        data.column(data.columns[-1])
        raise ModelError(f"{data.path}: no numeric column to fit")
    return numeric[-1]


def read_series(path, column=None):
    """Read one series from a CSV file (checked as :func:`read_csv`
    describes): a float pandas Series with the time index (integers for
    years and whole numbers, a DatetimeIndex with its frequency for dates;
    gaps filled with NaN). ``column``: default the last numeric column."""
    import pandas as pd
    if not isinstance(path, (str, os.PathLike)):
        raise ModelError(f"read_series: path: expected a file name, got {type(path).__name__}")
    if column is not None and not isinstance(column, str):
        raise ModelError(f"read_series: column: expected a column name, got {column!r}")
    if not os.path.exists(path):
        raise ModelError(f"read_series: path: no such file: {path}")
    try:
        data = read_csv(path)
        name = pick_column(data, column)
    except ModelError as err:
        raise ModelError(f"read_series: {err}") from None
    return pd.Series(data.column(name), index=data.index.to_pandas(), name=name)


def load_example(name):
    """A bundled data set as a pandas Series ("nile": annual flow of the
    Nile at Aswan 1871-1970; "air_passengers": monthly airline passengers
    1949-1960; "uk_driver_deaths": monthly UK car drivers killed or
    seriously injured 1969-1984)."""
    return read_series(example_path(name))
