// exact_binding.cpp - the exact initial routines of the library on numpy
// arrays (module functions exact_*), for tessel._exact. The routines are
// found through the host's loader by their exported names, as the entry
// points are (this module does not link the library). Each call holds the
// host (a lock the module passes in, shared with tessel.call) and runs the
// numeric work with the interpreter lock released.
//
// A model comes as the tuple (sys, var, init, mean, sysidx, varidx,
// meanidx, tvdata) of float64 arrays, None for an absent part, checked by
// the Python layer; y as N x n with NaN for missing values.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "tessel/tessel.h"

namespace py = pybind11;

namespace {

using Arr = py::array_t<double, py::array::c_style | py::array::forcecast>;

// The library's routines, found once.
struct Api {
    decltype(&LgmExactOpen) open;
    decltype(&LgmExactClose) close;
    decltype(&LgmExactSizes) sizes;
    decltype(&fKalmanExact) filter;
    decltype(&fKalmanExactMean) mean;
    decltype(&StateSmoExact) state_smo;
    decltype(&DistSmoExact) dist_smo;
    decltype(&QuickStateSmo) quick_smo;
    decltype(&fLgmExactScore) score;
    decltype(&LgmDraw) draw;
    decltype(&fLgmVarFactors) factors;
    decltype(&SimSmoWgtExact) wgt;
    decltype(&SimSmoDrawExact) simsmo;
    decltype(&LgmBootstrap) bootstrap;
};

template <class F>
void find(F &fn, const char *name) {
    fn = reinterpret_cast<F>(zu::find_symbol(name));
    if (!fn) throw std::runtime_error(std::string("the library does not export ") + name);
}

const Api &api() {
    static const Api a = [] {
        Api x;
        find(x.open, "LgmExactOpen");
        find(x.close, "LgmExactClose");
        find(x.sizes, "LgmExactSizes");
        find(x.filter, "fKalmanExact");
        find(x.mean, "fKalmanExactMean");
        find(x.state_smo, "StateSmoExact");
        find(x.dist_smo, "DistSmoExact");
        find(x.quick_smo, "QuickStateSmo");
        find(x.score, "fLgmExactScore");
        find(x.draw, "LgmDraw");
        find(x.factors, "fLgmVarFactors");
        find(x.wgt, "SimSmoWgtExact");
        find(x.simsmo, "SimSmoDrawExact");
        find(x.bootstrap, "LgmBootstrap");
        return x;
    }();
    return a;
}

// Row pointers into C-contiguous storage of rows x cols doubles.
struct Rows {
    std::vector<double *> p;
    Rows() = default;
    Rows(double *data, py::ssize_t rows, py::ssize_t cols) : p(static_cast<size_t>(rows)) {
        for (py::ssize_t r = 0; r < rows; ++r) p[r] = data + r * cols;
    }
    double **get() { return p.empty() ? nullptr : p.data(); }
};

// The routines read their inputs only (the model is copied when opened), so
// read-only arrays are passed as they are.
Rows rows_of(Arr &a) {
    if (a.ndim() != 2) throw py::value_error("expected a 2-D array");
    return Rows(const_cast<double *>(a.data()), a.shape(0), a.shape(1));
}

// A zero-filled matrix of its own (work and scratch).
struct Owned {
    std::vector<double> data;
    Rows rows;
    Owned(int r, int c) {
        if (r < 0 || c < 0) throw std::length_error("model too large");
        data.assign(static_cast<size_t>(r) * static_cast<size_t>(c > 0 ? c : 1), 0.0);
        rows = Rows(data.data(), r, c > 0 ? c : 1);
    }
    double **get() { return rows.get(); }
};

Arr out_array(std::vector<py::ssize_t> shape) { return Arr(shape); }

// An opened model record with the arrays it reads; closed with the host held.
struct Record {
    LgmExactModel rec{};
    std::vector<Arr> keep;
    std::vector<Rows> rows;
    bool opened = false;
    LgmExactSize size{};

    Record(const py::tuple &model, int n) {
        if (model.size() != 8) throw py::value_error("model: expected 8 parts");
        double **part[8] = {};
        int dims[8][2] = {};
        keep.reserve(8);
        rows.reserve(8);
        for (int k = 0; k < 8; ++k) {
            if (model[k].is_none()) continue;
            keep.push_back(Arr::ensure(model[k]));
            Arr &a = keep.back();
            if (!a || a.ndim() != 2) throw py::value_error("model: parts must be 2-D arrays");
            rows.push_back(rows_of(a));
            part[k] = rows.back().get();
            dims[k][0] = static_cast<int>(a.shape(0));
            dims[k][1] = static_cast<int>(a.shape(1));
        }
        const int m = dims[0][1], N = dims[0][0] - m, p = dims[0][0];
        // The routines trust the shapes they are given: check them here.
        const int want[8][2] = {{p, m}, {p, p}, {m + 1, m}, {p, 1},
                                {p, m}, {p, p}, {p, 1},     {dims[7][0], n}};
        static const char *const names[8] = {"sys",    "var",    "init",    "mean",
                                             "sysidx", "varidx", "meanidx", "tvdata"};
        if (!part[0] || !part[1] || m < 1 || N < 1)
            throw py::value_error("model: sys must be (m+N) x m with m, N >= 1, and var given");
        for (int k = 1; k < 8; ++k)
            if (part[k] && (dims[k][0] != want[k][0] || dims[k][1] < want[k][1] ||
                            (k < 7 && dims[k][1] != want[k][1])))
                throw py::value_error(std::string("model: ") + names[k] + " has the wrong shape");
        if (!api().open(&rec, N, m, n, part[0], part[1], part[2], part[3], part[4], part[5],
                        part[6], part[7], dims[7][0]))
            throw py::value_error(
                "exact: the model cannot be opened (shapes, index entries "
                "beyond tvdata, or memory)");
        opened = true;
        api().sizes(&rec, &size);
        if (size.store_rows < 0 || size.work_rows < 0 || size.wgt_rows < 0)
            throw std::length_error("model too large");
    }
    ~Record() {
        if (opened) api().close(&rec);
    }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
};

py::dict lik_dict(const LgmExactLik &l, int ok) {
    py::dict d;
    d["ok"] = ok == 1;
    d["loglik"] = l.loglik;
    d["logdet"] = l.logdet;
    d["sumsq"] = l.sumsq;
    d["nobs"] = l.nobs;
    d["cnt"] = l.cnt;
    d["d"] = l.d;
    d["diffuse_end"] = l.diffuse_end;
    return d;
}

using Acquire = std::shared_ptr<void> (*)();
Acquire g_acquire = nullptr;

// Holds the host for the call (taken with the interpreter lock held).
std::shared_ptr<void> hold_host() { return g_acquire ? g_acquire() : nullptr; }

Arr data_of(const py::handle &y, int N) {
    Arr a = Arr::ensure(y);
    if (!a || a.ndim() != 2 || a.shape(0) != N) throw py::value_error("y: expected N x n");
    return a;
}

int columns(const py::handle &y) {
    Arr a = Arr::ensure(y);
    if (!a || a.ndim() != 2) throw py::value_error("y: expected a 2-D array");
    return static_cast<int>(a.shape(1));
}

// Filter over y with a store (and states); returns the likelihood status.
struct Filtered {
    Owned work, store;
    LgmExactLik lik{};
    int ok = 0;
    Filtered(Record &r)
        : work(r.size.work_rows, r.size.work_cols), store(r.size.store_rows, r.rec.n) {}
};

}  // namespace

void register_exact(py::module_ &m, Acquire acquire) {
    g_acquire = acquire;

    m.def(
        "exact_filter",
        [](py::tuple model, py::object y, bool want_store, bool want_states) {
            auto host = hold_host();
            const int n = columns(y);
            Record r(model, n);
            Arr ya = data_of(y, r.rec.N);
            Rows yr = rows_of(ya);
            Owned work(r.size.work_rows, r.size.work_cols);
            Arr store = out_array({want_store ? r.size.store_rows : 0, n});
            Arr states = out_array({want_states ? r.size.state_rows : 0, n});
            Rows sr = rows_of(store), st = rows_of(states);
            LgmExactLik lik{};
            int ok;
            {
                py::gil_scoped_release nogil;
                ok = api().filter(&r.rec, yr.get(), work.get(), want_store ? sr.get() : nullptr,
                                  want_states ? st.get() : nullptr, &lik);
            }
            return py::make_tuple(lik_dict(lik, ok), store, states);
        },
        py::arg("model"), py::arg("y"), py::arg("store") = false, py::arg("states") = false,
        "(lik, store, states) of fKalmanExact.");

    m.def(
        "exact_smooth",
        [](py::tuple model, py::object y, int kind) {
            auto host = hold_host();
            const int n = columns(y);
            Record r(model, n);
            Arr ya = data_of(y, r.rec.N);
            Rows yr = rows_of(ya);
            const int p = r.rec.m + r.rec.N;
            Filtered f(r);
            Owned states(kind == 0 ? r.size.state_rows : 0, n);
            Arr out = kind == 3 ? out_array({p, p})
                                : out_array({kind == 2 ? 2 * r.rec.m + r.rec.N : 2 * p, n});
            Rows orows = rows_of(out);
            {
                py::gil_scoped_release nogil;
                f.ok = api().filter(&r.rec, yr.get(), f.work.get(), f.store.get(),
                                    kind == 0 ? states.get() : nullptr, &f.lik);
                const int td = f.lik.diffuse_end;
                if (f.ok && kind == 0)
                    f.ok = api().state_smo(&r.rec, td, f.work.get(), f.store.get(), states.get(),
                                           orows.get());
                else if (f.ok && kind == 1)
                    f.ok = api().dist_smo(&r.rec, td, f.work.get(), f.store.get(), orows.get());
                else if (f.ok && kind == 2)
                    api().quick_smo(&r.rec, td, f.work.get(), f.store.get(), orows.get());
                else if (f.ok)
                    f.ok = api().score(&r.rec, td, f.work.get(), f.store.get(), orows.get());
            }
            return py::make_tuple(lik_dict(f.lik, f.ok), out);
        },
        py::arg("model"), py::arg("y"), py::arg("kind"),
        "(lik, out): kind 0 StateSmoExact, 1 DistSmoExact, 2 QuickStateSmo, 3 fLgmExactScore.");

    m.def(
        "exact_filter_mean",
        [](py::tuple model, py::object y, py::object ynew) {
            auto host = hold_host();
            const int n = columns(y);
            Record r(model, n);
            Arr ya = data_of(y, r.rec.N), yb = data_of(ynew, r.rec.N);
            if (yb.shape(1) != n) throw py::value_error("ynew: expected N x n");
            Rows yr = rows_of(ya), ybr = rows_of(yb);
            Filtered f(r);
            double sumsq = 0.0;
            int ok = 0;
            {
                py::gil_scoped_release nogil;
                f.ok = api().filter(&r.rec, yr.get(), f.work.get(), f.store.get(), nullptr, &f.lik);
                if (f.ok)
                    ok = api().mean(&r.rec, ybr.get(), f.lik.diffuse_end, f.work.get(),
                                    f.store.get(), &sumsq);
            }
            Arr store = out_array({r.size.store_rows, n});
            std::memcpy(store.mutable_data(), f.store.data.data(), sizeof(double) * store.size());
            return py::make_tuple(lik_dict(f.lik, f.ok), ok == 1, sumsq, store);
        },
        py::arg("model"), py::arg("y"), py::arg("ynew"),
        "(lik, ok, sumsq, store): the store of y with the innovations of ynew (fKalmanExactMean).");

    m.def(
        "exact_simulation_smoother",
        [](py::tuple model, py::object y, Arr z) {
            auto host = hold_host();
            const int n = columns(y);
            Record r(model, n);
            Arr ya = data_of(y, r.rec.N);
            Rows yr = rows_of(ya);
            const int m = r.rec.m, N = r.rec.N, p = m + N, rows = 2 * m + N;
            if (z.ndim() != 3 || z.shape(1) != p || z.shape(2) != n + 1)
                throw py::value_error("z: expected ndraws x (m+N) x (n+1)");
            const py::ssize_t nd = z.shape(0);
            Filtered f(r);
            Owned wgt(r.size.wgt_rows, n + 1), scratch(r.size.draw_rows, n);
            Arr means = out_array({rows, n}), draws = out_array({nd, rows, n});
            int ok = 0;
            {
                py::gil_scoped_release nogil;
                f.ok = api().filter(&r.rec, yr.get(), f.work.get(), f.store.get(), nullptr, &f.lik);
                const int td = f.lik.diffuse_end;
                if (f.ok) ok = api().wgt(&r.rec, td, f.work.get(), f.store.get(), wgt.get());
                for (py::ssize_t k = 0; ok && k < nd; ++k) {
                    Rows zr(const_cast<double *>(z.data()) + k * p * (n + 1), p, n + 1);
                    Rows dr(draws.mutable_data() + k * rows * n, rows, n);
                    ok = api().simsmo(&r.rec, td, f.work.get(), f.store.get(), wgt.get(), zr.get(),
                                      scratch.get(), dr.get());
                }
                for (int k = 0; k < rows; ++k)
                    std::memcpy(means.mutable_data() + k * n, wgt.get()[k], sizeof(double) * n);
            }
            return py::make_tuple(lik_dict(f.lik, f.ok && ok), means, draws);
        },
        py::arg("model"), py::arg("y"), py::arg("z"),
        "(lik, means, draws): SimSmoWgtExact, then SimSmoDrawExact for each z[k].");

    m.def(
        "exact_draw",
        [](py::tuple model, int n, Arr z) {
            auto host = hold_host();
            Record r(model, n);
            const int p = r.rec.m + r.rec.N;
            if (z.ndim() != 3 || z.shape(1) != p || z.shape(2) != n + 1)
                throw py::value_error("z: expected ndraws x (m+N) x (n+1)");
            const py::ssize_t nd = z.shape(0);
            Owned work(r.size.work_rows, r.size.work_cols), fac(r.size.wgt_rows, n + 1);
            Arr out = out_array({nd, 2 * p, n});
            int ok;
            {
                py::gil_scoped_release nogil;
                ok = api().factors(&r.rec, work.get(), fac.get());
                for (py::ssize_t k = 0; ok && k < nd; ++k) {
                    Rows zr(const_cast<double *>(z.data()) + k * p * (n + 1), p, n + 1);
                    Rows dr(out.mutable_data() + k * 2 * p * n, 2 * p, n);
                    api().draw(&r.rec, fac.get(), zr.get(), dr.get());
                }
            }
            return py::make_tuple(ok == 1, out);
        },
        py::arg("model"), py::arg("n"), py::arg("z"),
        "(ok, out): LgmDraw for each z[k] (ndraws x 2(m+N) x n).");

    m.def(
        "exact_bootstrap",
        [](py::tuple model, py::object y,
           py::array_t<int, py::array::c_style | py::array::forcecast> src) {
            auto host = hold_host();
            const int n = columns(y);
            Record r(model, n);
            Arr ya = data_of(y, r.rec.N);
            Rows yr = rows_of(ya);
            const int N = r.rec.N;
            if (src.ndim() != 2 || src.shape(1) != static_cast<py::ssize_t>(n) * N)
                throw py::value_error("src: expected nrep x (n N)");
            const py::ssize_t nrep = src.shape(0);
            Filtered f(r);
            Arr reps = out_array({nrep, N, n}), pool = out_array({N, n});
            Owned out(2 * N, n);
            int ok = 0;
            {
                py::gil_scoped_release nogil;
                f.ok = api().filter(&r.rec, yr.get(), f.work.get(), f.store.get(), nullptr, &f.lik);
                ok = f.ok;
                for (py::ssize_t k = 0; ok && k < nrep; ++k) {
                    ok = api().bootstrap(&r.rec, yr.get(), f.lik.diffuse_end, f.work.get(),
                                         f.store.get(), src.data() + k * n * N, out.get());
                    for (int i = 0; ok && i < N; ++i)
                        std::memcpy(reps.mutable_data() + (k * N + i) * n, out.get()[i],
                                    sizeof(double) * n);
                }
                if (ok)
                    for (int i = 0; i < N; ++i)
                        std::memcpy(pool.mutable_data() + i * n, out.get()[N + i],
                                    sizeof(double) * n);
            }
            return py::make_tuple(lik_dict(f.lik, f.ok), ok == 1, reps, pool);
        },
        py::arg("model"), py::arg("y"), py::arg("src"),
        "(lik, ok, replicates, standardised innovations): LgmBootstrap per row of src.");
}
