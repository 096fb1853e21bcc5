"""Plots of fitted models and forecasts (matplotlib, works headless)."""

import numpy as np

__all__ = ["plot_fit", "plot_forecast"]


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
    try:
        import pandas as pd
        if isinstance(index, pd.PeriodIndex):
            return index.to_timestamp()
    except ImportError:  # pragma: no cover
        pass
    return index


def plot_fit(result, path=None, forecast=None, level=0.95, title=None):
    """Data with the smoothed level/trend (or signal) and its band, one panel
    per further component (seasonal, cycles, autoregressions, irregular),
    and the forecasts with their interval when given. Saves a PNG to
    ``path`` when given; returns the figure."""
    plt = _pyplot()
    comps = result.components(level=level) if "components" in result.model.info else None
    y = np.asarray(result.data.values[0])
    x = _x(result.data.index, y.size)
    layout = result.model.info.get("components", [])
    main = None
    for name, _, _, comp in layout:
        if comp.name in ("level", "trend"):
            main = name
    extra = [name for name, _, _, comp in layout if name != main]
    panels = 1 + len(extra)
    fig, axes = plt.subplots(panels, 1, figsize=(10.5, 3.4 + 2.3 * (panels - 1)), sharex=False,
                             squeeze=False)
    axes = axes[:, 0]
    ax = axes[0]
    ax.plot(x, y, "o", ms=3, color="0.35", label="data")
    pct = int(round(level * 100))
    if comps is not None:
        key = main if main is not None else "signal"
        lbl = f"smoothed {key}"
        ax.plot(x, comps[key].to_numpy(), color="C0", lw=1.8, label=lbl)
        lo, up = comps[f"{key}.lower"].to_numpy(), comps[f"{key}.upper"].to_numpy()
        if np.all(np.isfinite(lo)):
            ax.fill_between(x, lo, up, color="C0", alpha=0.25, label=f"{pct}% band")
    else:
        sm = result.smoothed()
        sig = np.asarray(sm.signal)[:, 0]
        sd = np.sqrt(np.clip(np.asarray(sm.signal_var)[:, 0], 0, None))
        from scipy import stats
        z = stats.norm.ppf(0.5 + level / 2)
        ax.plot(x, sig, color="C0", lw=1.8, label="smoothed signal")
        ax.fill_between(x, sig - z * sd, sig + z * sd, color="C0", alpha=0.25, label=f"{pct}% band")
    if forecast is not None:
        fx = _x(getattr(forecast.mean, "index", None), len(np.asarray(forecast.mean)))
        if getattr(forecast.mean, "index", None) is None:
            fx = np.arange(y.size, y.size + len(np.asarray(forecast.mean)))
        ax.plot(fx, np.asarray(forecast.mean), color="C3", lw=1.8, label="forecast")
        ax.fill_between(fx, np.asarray(forecast.lower), np.asarray(forecast.upper), color="C3",
                        alpha=0.2, label=f"{int(round(forecast.level * 100))}% interval")
    name = result.data.columns[0]
    ax.set_ylabel(str(name))
    ax.set_title(title or f"{name}: {result.label}")
    ax.legend(loc="upper left", bbox_to_anchor=(1.01, 1.0), fontsize=8, frameon=False)
    ax.grid(alpha=0.3)
    for ax, key in zip(axes[1:], extra):
        v = comps[key].to_numpy()
        ax.plot(x, v, color="C2", lw=1.2, label=f"smoothed {key}")
        lo, up = comps[f"{key}.lower"].to_numpy(), comps[f"{key}.upper"].to_numpy()
        if np.all(np.isfinite(lo)):
            ax.fill_between(x, lo, up, color="C2", alpha=0.25, label=f"{pct}% band")
        ax.axhline(0.0, color="0.5", lw=0.8)
        ax.set_ylabel(key)
        ax.legend(loc="upper left", bbox_to_anchor=(1.01, 1.0), fontsize=8, frameon=False)
        ax.grid(alpha=0.3)
    idxname = getattr(result.data.index, "name", None)
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
    ax.legend(loc="upper left", bbox_to_anchor=(1.01, 1.0), fontsize=8, frameon=False)
    ax.grid(alpha=0.3)
    fig.tight_layout()
    if path is not None:
        fig.savefig(path, dpi=110)
    return fig
