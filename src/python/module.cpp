// _tessel: the compiled half of the Python package. It turns already
// normalised Python values into host values, calls an entry point by name
// through the host runtime, and turns the results back into Python objects.
//
// Argument checking with friendly messages is done by tessel._lowlevel; this
// module only accepts the normalised forms (int, float, 2-D float64 ndarray,
// None for a referenced variable that holds nothing) and raises TypeError on
// anything else.
//
// The GIL stays held during a call: the host runtime is not thread-safe, and
// messages call back into Python. A second thread that wants the host while
// a message handler has released the GIL waits on a mutex (with the GIL
// released, so the first call can finish).

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tessel/host.hpp"

namespace py = pybind11;

namespace {

// Python objects registered by tessel._lowlevel. Owned references that are
// deliberately never released: the host keeps a sink that may name them until
// the process ends, after the interpreter is gone.
PyObject *g_message_handler = nullptr;
PyObject *g_error_class = nullptr;

// State of the call in progress (only touched with the GIL held).
struct CallState {
    std::unique_ptr<py::error_already_set> handler_error;  // first failure of the handler
};
CallState *g_current = nullptr;

// Serialises use of the host between Python threads.
std::mutex g_host_mutex;
bool g_host_busy = false;
std::thread::id g_host_owner;

class HostLock {
public:
    HostLock() {
        if (g_host_busy && g_host_owner == std::this_thread::get_id())
            throw std::runtime_error(
                "the Tessel host is already running a call on this thread "
                "(tessel functions cannot be used from inside a message handler)");
        lock_ = std::unique_lock<std::mutex>(g_host_mutex, std::try_to_lock);
        if (!lock_.owns_lock()) {
            py::gil_scoped_release release;
            lock_.lock();
        }
        g_host_busy = true;
        g_host_owner = std::this_thread::get_id();
    }
    ~HostLock() { g_host_busy = false; }
    HostLock(const HostLock &) = delete;
    HostLock &operator=(const HostLock &) = delete;

private:
    std::unique_lock<std::mutex> lock_;
};

// Raises the registered error class (tessel.ZuError) for a host error.
[[noreturn]] void raise_host_error(const zu::Error &e) {
    if (g_error_class == nullptr) throw std::runtime_error(e.what());
    py::object cls = py::reinterpret_borrow<py::object>(g_error_class);
    py::object exc = cls(e.number(), py::str(e.what()));
    PyErr_SetObject(g_error_class, exc.ptr());
    throw py::error_already_set();
}

// Message sink installed in the host: hands each text to the Python handler.
// A handler that raises (warnings turned into errors, for instance) must not
// unwind through the library, so its exception is kept and re-raised once
// the call has returned; later messages of that call are dropped, as Python
// code after a raise would not run either.
void deliver_message(const char *text) {
    py::gil_scoped_acquire gil;
    if (g_current != nullptr && g_current->handler_error) return;
    if (g_message_handler == nullptr) {
        std::fprintf(stderr, "%s\n", text);
        return;
    }
    try {
        PyObject *s = PyUnicode_DecodeUTF8(text, static_cast<Py_ssize_t>(std::strlen(text)),
                                           "surrogateescape");
        if (s == nullptr) throw py::error_already_set();
        py::object str = py::reinterpret_steal<py::object>(s);
        py::reinterpret_borrow<py::object>(g_message_handler)(str);
    } catch (py::error_already_set &e) {
        if (g_current != nullptr) {
            g_current->handler_error = std::make_unique<py::error_already_set>(std::move(e));
        } else {
            e.discard_as_unraisable("tessel message handler");
        }
    }
}

bool fits_int(Py_ssize_t n) { return n >= 0 && n <= static_cast<Py_ssize_t>(INT_MAX); }

// Normalised Python value -> host value. None is accepted only for a
// referenced variable (it then holds nothing).
zu::Value to_host(py::handle obj, bool allow_none) {
    if (obj.is_none()) {
        if (!allow_none) throw py::type_error("None is accepted only as the value of a reference");
        return zu::Value();
    }
    if (PyBool_Check(obj.ptr())) throw py::type_error("bool is not a host value");
    if (PyLong_Check(obj.ptr())) {
        int overflow = 0;
        long long v = PyLong_AsLongLongAndOverflow(obj.ptr(), &overflow);
        if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
        if (overflow != 0 || v < INT_MIN || v > INT_MAX)
            throw py::value_error("integer outside the range of a C int");
        return zu::Value::integer(static_cast<int>(v));
    }
    if (PyFloat_Check(obj.ptr())) return zu::Value::real(PyFloat_AS_DOUBLE(obj.ptr()));
    if (!py::isinstance<py::array>(obj))
        throw py::type_error(std::string("unsupported host value of type ") +
                             Py_TYPE(obj.ptr())->tp_name);
    py::array any = py::reinterpret_borrow<py::array>(obj);
    if (!any.dtype().is(py::dtype::of<double>()) || any.ndim() != 2)
        throw py::type_error("a matrix must be a 2-D float64 array");
    // Copies only when the array is not C-contiguous.
    auto arr = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(obj);
    if (!arr) throw py::error_already_set();
    const Py_ssize_t rows = arr.shape(0), cols = arr.shape(1);
    if (!fits_int(rows) || !fits_int(cols))
        throw py::value_error("matrix dimensions do not fit in a C int");
    if (rows == 0 && cols == 0) return zu::Value::empty();
    zu::Value v = zu::Value::matrix(static_cast<int>(rows), static_cast<int>(cols));
    if (rows > 0 && cols > 0) {
        double **dst = v.data();
        const double *src = arr.data();
        for (Py_ssize_t r = 0; r < rows; ++r)
            std::memcpy(dst[r], src + r * cols, static_cast<std::size_t>(cols) * sizeof(double));
    }
    return v;
}

// Host value -> new Python object (int, float, 2-D float64 ndarray, None).
// A reference is followed once (a return value may name an argument).
py::object to_python(const zu::Value &v, int depth = 0) {
    switch (v.type()) {
        case ZU_NONE:
            return py::none();
        case ZU_INT:
            return py::int_(v.as_int());
        case ZU_DOUBLE:
            return py::float_(v.as_double());
        case ZU_MATRIX: {
            const int rows = v.rows(), cols = v.cols();
            if (rows < 0 || cols < 0)
                throw std::runtime_error("host matrix with negative dimensions " +
                                         std::to_string(rows) + " x " + std::to_string(cols));
            py::array_t<double> out(
                {static_cast<py::ssize_t>(rows), static_cast<py::ssize_t>(cols)});
            if (rows > 0 && cols > 0) {
                double **src = v.data();
                if (src == nullptr)
                    throw std::runtime_error("host matrix " + std::to_string(rows) + " x " +
                                             std::to_string(cols) + " holds no storage");
                double *dst = out.mutable_data();
                for (int r = 0; r < rows; ++r) {
                    if (src[r] == nullptr)
                        throw std::runtime_error("host matrix row without storage");
                    std::memcpy(dst + static_cast<std::size_t>(r) * cols, src[r],
                                static_cast<std::size_t>(cols) * sizeof(double));
                }
            }
            return py::object(std::move(out));
        }
        case ZU_REF:
            if (depth > 0) throw std::runtime_error("host reference to a reference");
            return to_python(v.target(), depth + 1);
        default:
            throw std::runtime_error("unexpected host value type " + std::to_string(v.type()));
    }
}

// call(name, args, targets, slots) -> (result, [target values after the call])
//   args:    normalised values; the entries at reference positions are ignored
//   targets: normalised values of the referenced variables (None allowed)
//   slots:   per argument, -1 for a plain value or the index into targets
py::tuple call(const std::string &name, const py::sequence &args, const py::sequence &targets,
               const std::vector<long> &slots) {
    const std::size_t nargs = py::len(args), ntargets = py::len(targets);
    if (slots.size() != nargs) throw py::value_error("slots must have one entry per argument");
    if (nargs > static_cast<std::size_t>(INT_MAX)) throw py::value_error("too many arguments");

    HostLock lock;
    CallState state;
    try {
        std::vector<zu::Value> vars;  // referenced variables: fixed size, never reallocated
        vars.reserve(ntargets);
        for (std::size_t k = 0; k < ntargets; ++k) {
            py::object item = targets[k];
            vars.push_back(to_host(item, true));
        }

        std::vector<zu::Value> values;
        values.reserve(nargs);
        for (std::size_t i = 0; i < nargs; ++i) {
            const long slot = slots[i];
            if (slot < 0) {
                py::object item = args[i];
                values.push_back(to_host(item, false));
            } else {
                if (static_cast<std::size_t>(slot) >= ntargets)
                    throw py::value_error("reference slot out of range");
                values.push_back(zu::Value::ref(vars[static_cast<std::size_t>(slot)]));
            }
        }

        struct Scope {
            explicit Scope(CallState *s) { g_current = s; }
            ~Scope() { g_current = nullptr; }
        };
        zu::Value result;
        {
            Scope scope(&state);
            try {
                result = zu::call(name, values);
            } catch (const zu::Error &) {
                // A handler failure came first; it wins over the host error.
                if (!state.handler_error) throw;
            }
        }
        if (state.handler_error) throw std::move(*state.handler_error);

        py::object out = to_python(result);
        py::list written(ntargets);
        for (std::size_t k = 0; k < ntargets; ++k) written[k] = to_python(vars[k]);
        return py::make_tuple(out, written);
    } catch (const zu::Error &e) {
        raise_host_error(e);
    }
}

template <typename F>
auto host_guarded(F f) -> decltype(f()) {
    HostLock lock;
    try {
        return f();
    } catch (const zu::Error &e) {
        raise_host_error(e);
    }
}

void set_registered(PyObject *&slot, py::object obj) {
    PyObject *old = slot;
    slot = obj.is_none() ? nullptr : obj.release().ptr();
    Py_XDECREF(old);
}

}  // namespace

void register_exact(py::module_ &m, std::shared_ptr<void> (*acquire)());  // exact_binding.cpp

PYBIND11_MODULE(_tessel, m) {
    m.doc() =
        "Compiled bridge between Python and the Tessel host runtime (use the tessel package).";

    m.def("call", &call, py::arg("name"), py::arg("args"), py::arg("targets"), py::arg("slots"),
          "call(name, args, targets, slots) -> (result, written targets). Low-level: arguments "
          "must already be normalised by tessel.call.");

    m.def(
        "set_message_handler",
        [](py::object handler) {
            if (!handler.is_none() && !PyCallable_Check(handler.ptr()))
                throw py::type_error("the message handler must be callable or None");
            set_registered(g_message_handler, std::move(handler));
        },
        py::arg("handler"),
        "Sets the callable that receives each host message text (None: stderr).");

    m.def(
        "set_error_class",
        [](py::object cls) {
            if (!cls.is_none() &&
                (!PyType_Check(cls.ptr()) || !PyObject_IsSubclass(cls.ptr(), PyExc_Exception)))
                throw py::type_error("the error class must be an Exception subclass or None");
            set_registered(g_error_class, std::move(cls));
        },
        py::arg("cls"), "Sets the exception class raised as cls(number, text) for host errors.");

    m.def(
        "set_seed",
        [](py::int_ seed) {
            const unsigned long long s = PyLong_AsUnsignedLongLong(seed.ptr());
            if (s == static_cast<unsigned long long>(-1) && PyErr_Occurred())
                throw py::error_already_set();
            host_guarded([s] { zu::set_seed(static_cast<std::uint64_t>(s)); });
        },
        py::arg("seed"), "Reseeds the host random generator (0 <= seed < 2**64).");

    m.def(
        "live_allocations",
        [] {
            const zu::LiveCounts c = host_guarded([] { return zu::live_allocations(); });
            return py::make_tuple(c.blocks, c.tables);
        },
        "(blocks, tables) the host currently holds.");
    m.def(
        "allocation_attempts",
        [] { return host_guarded([] { return zu::allocation_attempts(); }); },
        "Host allocations attempted since the process started.");
    m.def(
        "fail_allocation",
        [](long k) {
            if (k < 0) throw py::value_error("k must be >= 0");
            host_guarded([k] { zu::fail_allocation(k); });
        },
        py::arg("k"), "Makes the k-th host allocation from now fail (0: off).");
    m.def(
        "injected_failure_delivered",
        [] { return host_guarded([] { return zu::injected_failure_delivered(); }); },
        "True once an injected allocation failure has happened.");
    m.def(
        "library_path", [] { return host_guarded([] { return zu::library_path(); }); },
        "Path of the library the host loads.");
    m.def(
        "load_library", [] { host_guarded([] { zu::load_library(); }); },
        "Opens the library now (raises the host error when it cannot be loaded).");

    register_exact(m, [] { return std::shared_ptr<void>(std::make_shared<HostLock>()); });
    zu::set_message_sink(&deliver_message);
}
