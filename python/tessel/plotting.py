"""Plots of fitted models, forecasts and residual diagnostics (matplotlib,
works headless)."""

import numpy as np

__all__ = ["plot_fit", "plot_forecast", "plot_diagnostics"]


def _pyplot():
    import matplotlib
    if matplotlib.get_backend().lower() not in ("agg", "pdf", "svg", "ps", "cairo") \
            and not _has_display():
        matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    return plt


def _has_display():
    import os
    return bool(os.environ.get("DISPLAY") or os.environ.get("WAYLAND_DISPLAY"))


def _x(index, n):
    if index is None:
        return np.arange(n)
    import sys
    pd = sys.modules.get("pandas")
    if pd is not None and isinstance(index, pd.PeriodIndex):
        return index.to_timestamp()
    return index


def _legend(ax):
    ax.legend(loc="upper left", bbox_to_anchor=(1.01, 1.0), fontsize=8, frameon=False)
    ax.grid(alpha=0.3)


def plot_fit(result, path=None, forecast=None, level=0.95, title=None, x=None, fx=None,
             xlabel=None):
    """Data with the smoothed level/trend plus regression effects (or the
    signal) and its band, one panel per further component (regression
    effect, seasonal, cycles, autoregressions, irregular), and the
    forecasts with their interval when given; for several series one such
    top panel per series. The y range leaves out the bands of the first d
    time points (the diffuse start). ``x`` / ``fx``: x values of the data
    and of the forecasts (default: the data's index and the forecasts'
    index, or positions); ``xlabel`` (default: the index's name). Saves a
    PNG to ``path`` when given; returns the figure."""
    plt = _pyplot()
    cols = result.component_columns(level=level)
    N, n = result.data.N, result.data.n
    x = _x(result.data.index, n) if x is None else x
    layout = result.model.info.get("components", [])
    main = next((name for name, _, _, comp in layout if comp.name in ("level", "trend")), None)
    extra = [] if N > 1 else (["regression"] if "regression" in cols else []) + \
        [name for name, _, _, _ in layout if name != main]
    fig, axes = plt.subplots(N + len(extra), 1, figsize=(10.5, 3.4 * N + 2.3 * len(extra)),
                             squeeze=False)
    axes = axes[:, 0]
    pct = int(round(level * 100))
    skip = min(result.d // N, n - 1)
    for j, (ax, name) in enumerate(zip(axes, result.series)):
        tag = "" if N == 1 else f".{name}"
        y = result.data.values[j]
        ax.plot(x, y, "o", ms=3, color="0.35", label="data")
        key = main if main is not None else "signal"
        line, lo, up = (cols[key + tag + s] for s in ("", ".lower", ".upper"))
        label = f"smoothed {key}"
        if main is not None and "regression" in cols:
            # the level alone sits off the data by the regression effect
            line, lo, up = (v + cols["regression"] for v in (line, lo, up))
            label += " + regression"
        ax.plot(x, line, color="C0", lw=1.8, label=label)
        shown = [y[~np.isnan(y)], line[skip:]]
        if np.all(np.isfinite(lo)):
            ax.fill_between(x, lo, up, color="C0", alpha=0.25, label=f"{pct}% band")
            shown += [lo[skip:], up[skip:]]
        if forecast is not None:
            f = [np.asarray(a).reshape(-1, N)[:, j] for a in
                 (forecast.mean, forecast.lower, forecast.upper)]
            if fx is None:
                fx = getattr(forecast.mean, "index", None)
                fx = _x(fx, 0) if fx is not None else np.arange(n, n + f[0].size)
            ax.plot(fx, f[0], color="C3", lw=1.8, label="forecast")
            ax.fill_between(fx, f[1], f[2], color="C3", alpha=0.2,
                            label=f"{int(round(forecast.level * 100))}% interval")
            shown += f
        allv = np.concatenate(shown)
        lo_y, hi_y = float(np.min(allv)), float(np.max(allv))
        pad = 0.05 * (hi_y - lo_y) or 1.0
        ax.set_ylim(lo_y - pad, hi_y + pad)
        ax.set_ylabel(str(name))
        ax.set_title(title or f"{name}: {result.label}")
        _legend(ax)
    for ax, k in zip(axes[N:], extra):
        ax.plot(x, cols[k], color="C2", lw=1.2, label=f"smoothed {k}")
        lo, up = cols[f"{k}.lower"], cols[f"{k}.upper"]
        if np.all(np.isfinite(lo)):
            ax.fill_between(x, lo, up, color="C2", alpha=0.25, label=f"{pct}% band")
        ax.axhline(0.0, color="0.5", lw=0.8)
        ax.set_ylabel(k)
        _legend(ax)
    idxname = xlabel or getattr(result.data.index, "name", None)
    axes[-1].set_xlabel(str(idxname) if idxname else "time")
    fig.tight_layout()
    if path is not None:
        fig.savefig(path, dpi=110)
    return fig


def plot_forecast(result, forecast, path=None, history=None):
    """The last ``history`` observations (default all) and the forecasts
    with their interval; saves to ``path`` when given; returns the figure."""
    plt = _pyplot()
    y = np.asarray(result.data.values[0])
    x = _x(result.data.index, y.size)
    if history is not None:
        y, x = y[-history:], x[-history:]
    fig, ax = plt.subplots(figsize=(10.5, 3.5))
    ax.plot(x, y, "o-", ms=3, lw=0.8, color="0.35", label="data")
    fx = getattr(forecast.mean, "index", None)
    fx = _x(fx, 0) if fx is not None else np.arange(result.data.n, result.data.n + len(forecast.mean))
    ax.plot(fx, np.asarray(forecast.mean), color="C3", lw=1.8, label="forecast")
    ax.fill_between(fx, np.asarray(forecast.lower), np.asarray(forecast.upper), color="C3",
                    alpha=0.2, label=f"{int(round(forecast.level * 100))}% interval")
    ax.set_ylabel(str(result.data.columns[0]))
    ax.set_title(f"{result.data.columns[0]}: forecasts, {result.label}")
    _legend(ax)
    fig.tight_layout()
    if path is not None:
        fig.savefig(path, dpi=110)
    return fig


def plot_diagnostics(result, path=None, x=None, lags=None):
    """Four panels of the standardised one-step innovations (the first d
    observed values left out), one colour per series: the residuals over
    time, their autocorrelations with the +-1.96/sqrt(n) band, a histogram
    with the standard normal density, and a normal QQ plot. Saves a PNG to
    ``path`` when given; returns the figure."""
    from .diagnostics import acf, normal_quantile
    plt = _pyplot()
    E = result.standardized_innovations()
    x = _x(result.data.index, E.shape[0]) if x is None else x
    fig, axes = plt.subplots(2, 2, figsize=(10.5, 6.8))
    N = E.shape[1]
    for j, name in enumerate(result.series):
        e = E[:, j]
        ee = e[~np.isnan(e)]
        n = ee.size
        color, label = f"C{j}", (name if N > 1 else "residuals")
        nl = lags or max(1, min(24, n // 4))
        axes[0, 0].plot(x, e, color=color, lw=0.9, label=label)
        off = (j - (N - 1) / 2) * 0.8 / N
        axes[0, 1].vlines(np.arange(1, nl + 1) + off, 0, acf(ee, nl), color=color, lw=2)
        axes[1, 0].hist(ee, bins=max(8, int(np.sqrt(n))), density=True, color=color,
                        alpha=0.6 / N ** 0.5, label=label)
        q = np.array([normal_quantile((i + 0.5) / n) for i in range(n)])
        axes[1, 1].plot(q, np.sort(ee), "o", ms=3, color=color)
    ax = axes[0, 0]
    ax.axhline(0, color="0.5", lw=0.8)
    for s in (-2, 2):
        ax.axhline(s, color="C3", lw=0.8, ls="--")
    ax.set_title("standardised residuals")
    ax = axes[0, 1]
    ax.axhline(0, color="0.5", lw=0.8)
    band = 1.96 / np.sqrt(np.sum(~np.isnan(E[:, 0])))
    ax.axhspan(-band, band, color="C0", alpha=0.15)
    ax.set_title("autocorrelations")
    ax.set_xlabel("lag")
    ax = axes[1, 0]
    grid = np.linspace(-4.0, 4.0, 200)
    ax.plot(grid, np.exp(-grid ** 2 / 2) / np.sqrt(2 * np.pi), color="C3", lw=1.5,
            label="N(0, 1)")
    ax.set_title("histogram")
    ax.legend(fontsize=8, frameon=False)
    ax = axes[1, 1]
    ax.plot([-3.5, 3.5], [-3.5, 3.5], color="C3", lw=1)
    ax.set_title("normal QQ plot")
    ax.set_xlabel("normal quantiles")
    ax.set_ylabel("ordered residuals")
    for ax in axes.ravel():
        ax.grid(alpha=0.3)
    fig.suptitle(f"{', '.join(result.series)}: {result.label}, residual diagnostics")
    fig.tight_layout()
    if path is not None:
        fig.savefig(path, dpi=110)
    return fig
