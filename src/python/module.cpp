// _tessel: the compiled half of the Python package. It turns already
// normalised Python values into host values, calls an entry point by name
// through the host runtime, and turns the results back into Python objects.
//
// Argument checking with friendly messages is done by tessel._lowlevel; this
// module only accepts the normalised forms (int, float, 2-D float64 ndarray,
// None for a referenced variable that holds nothing) and raises TypeError on
// anything else.
//
// Threads and interrupts. A call runs with the interpreter lock released, so
// Python threads run calls on several cores at once. A call that may take
// long (by the size of its arguments) runs on a thread of its own while the
// caller waits interruptibly: Ctrl-C raises KeyboardInterrupt at once, and
// the abandoned call frees its arguments and results when it finishes. The
// library's messages are queued by the call and handed to Python afterwards,
// on the calling thread with the interpreter lock held.
//
// The message switch. The library keeps one process-wide flag; calls of the
// idiomatic layer run with messages on, calls through tessel.call with the
// value the caller chose with LgmWarning. Calls that need different values
// never overlap (SwitchGate). With messages off, the library ends the process
// on two paths (LgmWarning() without an argument, part of a time-varying
// block): such calls run on the calling thread.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
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

// How often a waiting caller looks for Ctrl-C (and other signals).
constexpr std::chrono::milliseconds kPoll(20);

// Calls estimated below this many operations run on the calling thread
// (about 10 ms on one core; see call_cost). Larger ones get a thread of their
// own so that the caller can be interrupted.
constexpr double kInlineCost = 2e7;

// Calls of the library still running, abandoned ones included.
std::atomic<long> g_running{0};

// Messages of the call running on this thread (null outside calls made here).
thread_local std::vector<std::string> *t_messages = nullptr;

// Message sink installed in the host: queues each text for the caller.
void queue_message(const char *text) {
    if (t_messages != nullptr) {
        t_messages->emplace_back(text);
        return;
    }
    std::fprintf(stderr, "%s\n", text);
}

// Runs f() with the interpreter lock released until it returns true; every
// kPoll between tries checks for signals with the lock held, so Ctrl-C raises
// KeyboardInterrupt (thrown as error_already_set) within about kPoll.
template <typename F>
void wait_interruptibly(F try_once) {
    for (;;) {
        bool done;
        {
            py::gil_scoped_release nogil;
            done = try_once();
        }
        if (done) return;
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    }
}

// The message switch: calls that need different values of the library's flag
// never run at once; LgmWarning through tessel.call runs alone. New calls wait
// while a call needing the other value (or an exclusive one) waits, so no
// side starves. Never destroyed (abandoned calls leave it at exit).
class SwitchGate {
public:
    struct Ticket {
        int want = 0;
        bool exclusive = false;
        bool queued = false;
    };

    // One try: enters within `patience` or returns false (the ticket then
    // stays queued).
    bool try_enter(Ticket &t, std::chrono::milliseconds patience = kPoll) {
        std::unique_lock<std::mutex> lock(m_);
        if (!t.queued) {
            t.queued = true;
            ++waiting(t);
        }
        if (!may_enter(t) &&
            (patience.count() == 0 || !cv_.wait_for(lock, patience, [&] { return may_enter(t); })))
            return false;
        --waiting(t);
        t.queued = false;
        if (active_ == 0) {
            mode_ = t.want;
            if (flag_ != nullptr) *flag_ = t.want;
        }
        ++active_;
        exclusive_ = t.exclusive;
        return true;
    }

    // Gives up a queued ticket (the caller was interrupted).
    void cancel(Ticket &t) {
        std::lock_guard<std::mutex> lock(m_);
        if (!t.queued) return;
        --waiting(t);
        t.queued = false;
        cv_.notify_all();
    }

    void leave() {
        std::lock_guard<std::mutex> lock(m_);
        if (exclusive_) {
            if (flag_ != nullptr) user_ = *flag_;  // LgmWarning set it
            exclusive_ = false;
        }
        if (--active_ == 0) cv_.notify_all();
    }

    // The value chosen by tessel.call's callers (0: messages on).
    int user() const { return user_; }

    // Finds the library's flag (loads the library; throws zu::Error when it
    // cannot be loaded). Done once, before the first call.
    void bind() {
        if (bound_) return;
        std::lock_guard<std::mutex> lock(m_);
        if (bound_) return;
        flag_ = zu::message_switch();
        user_ = flag_ != nullptr ? *flag_ : 0;
        bound_ = true;
    }

private:
    int &waiting(const Ticket &t) {
        return t.exclusive ? waiting_exclusive_ : waiting_[t.want != 0];
    }

    bool may_enter(const Ticket &t) const {
        if (active_ == 0) return true;
        if (t.exclusive || exclusive_ || mode_ != t.want) return false;
        return waiting_exclusive_ == 0 && waiting_[mode_ == 0] == 0;
    }

    std::mutex m_;
    std::condition_variable cv_;
    int *flag_ = nullptr;
    std::atomic<bool> bound_{false};
    std::atomic<int> user_{0};
    int mode_ = 0;
    int active_ = 0;
    bool exclusive_ = false;
    int waiting_[2] = {0, 0};  // by wanted value: messages on, off
    int waiting_exclusive_ = 0;
};

SwitchGate &gate() {
    static SwitchGate *g = new SwitchGate;
    return *g;
}

// One library call: its host values, results and messages. Shared by the
// caller and, for a long call, the thread that runs it; whoever lets go last
// frees the host storage.
struct Job {
    std::string name;
    std::vector<zu::Value> vars;    // referenced variables: fixed size, never reallocated
    std::vector<zu::Value> values;  // the argument array
    zu::Value result;
    bool seeded = false;
    std::uint64_t seed = 0;
    std::vector<std::string> messages;
    bool failed = false;
    int error_number = 0;
    std::string error_text;

    std::mutex m;
    std::condition_variable cv;
    bool done = false;
};

// Runs the call on the current thread (interpreter lock not held), then lets
// the switch gate go.
void run(Job &job) {
    t_messages = &job.messages;
    try {
        std::unique_ptr<zu::ThreadDraws> draws;
        if (job.seeded) draws.reset(new zu::ThreadDraws(job.seed));
        job.result = zu::call(job.name, job.values);
    } catch (const zu::Error &e) {
        job.failed = true;
        job.error_number = e.number();
        job.error_text = e.what();
    } catch (const std::bad_alloc &) {
        job.failed = true;
        job.error_number = zu::kErrorMemory;
        job.error_text = job.name + "(): out of memory";
    } catch (const std::exception &e) {
        job.failed = true;
        job.error_number = zu::kErrorMessage;
        job.error_text = job.name + "(): " + e.what();
    } catch (...) {
        job.failed = true;
        job.error_number = zu::kErrorMessage;
        job.error_text = job.name + "(): failed";
    }
    t_messages = nullptr;
    gate().leave();
}

// A rough operation count of a call, from its arguments: the filtering
// family costs about (time points) x (state and series)^3, so the longest
// side of any matrix times the cube of the largest short side; the ARMA
// builder solves a dense system of order r^2 (r = max(p, q + 1)); the
// structural builder's size follows from the periods and orders in its table.
double call_cost(const Job &job) {
    auto count = [](const zu::Value &v) -> double {  // coefficients in a row or column
        if (v.type() != ZU_MATRIX || (v.rows() != 1 && v.cols() != 1)) return 0.0;
        return double(v.rows()) * double(v.cols());
    };
    if (job.name == "GetLgmArma" && job.values.size() >= 2) {
        const double r = std::max(count(job.values[0]), count(job.values[1]) + 1.0);
        return r * r * r * r * r * r;
    }
    if (job.name == "GetLgmStsm" && !job.values.empty() && job.values[0].type() == ZU_MATRIX) {
        const zu::Value &t = job.values[0];
        double m = 0.0;
        for (int r = 0; r < t.rows(); ++r) {
            m += 2.0;
            for (int c = 2; c < t.cols() && c < 5; c += 2) m += 2.0 * std::fabs(t.at(r, c));
        }
        return m * m * m;
    }
    double longest = 0.0, widest = 0.0;
    auto look = [&](const zu::Value &v) {
        if (v.type() != ZU_MATRIX) return;
        const double r = v.rows(), c = v.cols();
        longest = std::max(longest, std::max(r, c));
        widest = std::max(widest, std::min(r, c));
    };
    for (const zu::Value &v : job.values) look(v);
    for (const zu::Value &v : job.vars) look(v);
    return longest * widest * widest * widest;
}

// Raises the registered error class (tessel.ZuError) for a host error.
[[noreturn]] void raise_host_error(int number, const std::string &text) {
    if (g_error_class == nullptr) throw std::runtime_error(text);
    py::object cls = py::reinterpret_borrow<py::object>(g_error_class);
    py::object exc = cls(number, py::str(text));
    PyErr_SetObject(g_error_class, exc.ptr());
    throw py::error_already_set();
}

// Hands the queued messages to the Python handler, in order. A handler that
// raises (warnings turned into errors, for instance) stops the delivery; its
// exception is returned, as Python code after a raise would not run either.
std::unique_ptr<py::error_already_set> deliver(const std::vector<std::string> &messages) {
    for (const std::string &text : messages) {
        if (g_message_handler == nullptr) {
            std::fprintf(stderr, "%s\n", text.c_str());
            continue;
        }
        try {
            PyObject *s = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()),
                                               "surrogateescape");
            if (s == nullptr) throw py::error_already_set();
            py::object str = py::reinterpret_steal<py::object>(s);
            py::reinterpret_borrow<py::object>(g_message_handler)(str);
        } catch (py::error_already_set &e) {
            return std::make_unique<py::error_already_set>(std::move(e));
        }
    }
    return nullptr;
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

// Enters the switch gate for the job's call (interruptibly).
void enter_gate(SwitchGate::Ticket &ticket) {
    try {
        wait_interruptibly([&] { return gate().try_enter(ticket); });
    } catch (...) {
        gate().cancel(ticket);
        throw;
    }
}

// Runs the call on this thread (interpreter lock released by the caller).
void run_here(Job &job) {
    ++g_running;
    run(job);
    --g_running;
}

// Runs the call after the switch gate was entered; returns once it has
// finished, or throws (KeyboardInterrupt) leaving a long call to finish on its
// own thread.
void execute(std::shared_ptr<Job> job, bool here) {
    if (here) {
        py::gil_scoped_release nogil;
        run_here(*job);
        return;
    }
    ++g_running;
    try {
        std::thread([job] {
            run(*job);
            {
                std::lock_guard<std::mutex> lock(job->m);
                job->done = true;
            }
            job->cv.notify_all();
            --g_running;
        }).detach();
    } catch (const std::system_error &) {
        // No thread to be had: run here, not interruptible.
        py::gil_scoped_release nogil;
        run(*job);
        job->done = true;
        --g_running;
        return;
    }
    wait_interruptibly([&] {
        std::unique_lock<std::mutex> lock(job->m);
        return job->cv.wait_for(lock, kPoll, [&] { return job->done; });
    });
}

// call(name, args, targets, slots, seed=None, user_switch=False)
//     -> (result, [target values after the call])
//   args:    normalised values; the entries at reference positions are ignored
//   targets: normalised values of the referenced variables (None allowed)
//   slots:   per argument, -1 for a plain value or the index into targets
//   seed:    the call's draws come from a generator of its own with this seed
//   user_switch: run under the message switch that LgmWarning calls made
//            through this function chose (tessel.call); otherwise messages on
py::tuple call(const std::string &name, const py::sequence &args, const py::sequence &targets,
               const std::vector<long> &slots, py::object seed, bool user_switch) {
    const std::size_t nargs = py::len(args), ntargets = py::len(targets);
    if (slots.size() != nargs) throw py::value_error("slots must have one entry per argument");
    if (nargs > static_cast<std::size_t>(INT_MAX)) throw py::value_error("too many arguments");

    auto job = std::make_shared<Job>();
    job->name = name;
    if (!seed.is_none()) {
        const unsigned long long s = PyLong_AsUnsignedLongLong(seed.ptr());
        if (s == static_cast<unsigned long long>(-1) && PyErr_Occurred())
            throw py::error_already_set();
        job->seeded = true;
        job->seed = static_cast<std::uint64_t>(s);
    }
    SwitchGate::Ticket ticket;
    try {
        job->vars.reserve(ntargets);
        for (std::size_t k = 0; k < ntargets; ++k) {
            py::object item = targets[k];
            job->vars.push_back(to_host(item, true));
        }
        job->values.reserve(nargs);
        for (std::size_t i = 0; i < nargs; ++i) {
            const long slot = slots[i];
            if (slot < 0) {
                py::object item = args[i];
                job->values.push_back(to_host(item, false));
            } else {
                if (static_cast<std::size_t>(slot) >= ntargets)
                    throw py::value_error("reference slot out of range");
                job->values.push_back(zu::Value::ref(job->vars[static_cast<std::size_t>(slot)]));
            }
        }
        gate().bind();
    } catch (const zu::Error &e) {
        raise_host_error(e.number(), e.what());
    }
    ticket.want = user_switch ? gate().user() : 0;
    ticket.exclusive = user_switch && name == "LgmWarning";
    // With messages off a call may end the process: it runs on this thread.
    const bool here = ticket.exclusive || ticket.want != 0 || call_cost(*job) < kInlineCost;
    bool entered = false, done = false;
    {
        // The usual case, a short call and no other call in the way: one
        // release of the interpreter lock for the whole call.
        py::gil_scoped_release nogil;
        entered = gate().try_enter(ticket, std::chrono::milliseconds::zero());
        if (entered && here) {
            run_here(*job);
            done = true;
        }
    }
    if (!done) {
        if (!entered) enter_gate(ticket);
        execute(job, here);
    }

    // Finished: messages first (a handler's exception wins over a host error).
    std::unique_ptr<py::error_already_set> handler_error = deliver(job->messages);
    if (handler_error) throw std::move(*handler_error);
    if (job->failed) raise_host_error(job->error_number, job->error_text);
    py::object out = to_python(job->result);
    py::list written(ntargets);
    for (std::size_t k = 0; k < ntargets; ++k) written[k] = to_python(job->vars[k]);
    return py::make_tuple(out, written);
}

template <typename F>
auto host_guarded(F f) -> decltype(f()) {
    try {
        return f();
    } catch (const zu::Error &e) {
        raise_host_error(e.number(), e.what());
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
          py::arg("seed") = py::none(), py::arg("user_switch") = false,
          "call(name, args, targets, slots, seed=None, user_switch=False) -> (result, written "
          "targets). Low-level: arguments must already be normalised by tessel.call. The "
          "interpreter lock is released during the call; a long call can be interrupted.");

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
            zu::set_seed(static_cast<std::uint64_t>(s));
        },
        py::arg("seed"), "Reseeds the host's shared random generator (0 <= seed < 2**64).");

    m.def(
        "running_calls", [] { return g_running.load(); },
        "Library calls still running, those abandoned after an interrupt included.");
    m.def(
        "live_allocations",
        [] {
            const zu::LiveCounts c = zu::live_allocations();
            return py::make_tuple(c.blocks, c.tables);
        },
        "(blocks, tables) the host currently holds.");
    m.def(
        "allocation_attempts", [] { return zu::allocation_attempts(); },
        "Host allocations attempted since the process started.");
    m.def(
        "fail_allocation",
        [](long k) {
            if (k < 0) throw py::value_error("k must be >= 0");
            zu::fail_allocation(k);
        },
        py::arg("k"), "Makes the k-th host allocation from now fail (0: off).");
    m.def(
        "injected_failure_delivered", [] { return zu::injected_failure_delivered(); },
        "True once an injected allocation failure has happened.");
    m.def(
        "library_path", [] { return host_guarded([] { return zu::library_path(); }); },
        "Path of the library the host loads.");
    m.def(
        "load_library", [] { host_guarded([] { zu::load_library(); }); },
        "Opens the library now (raises the host error when it cannot be loaded).");

    // The host is safe under concurrent calls: the exact routines need no lock.
    register_exact(m, nullptr);
    zu::set_message_sink(&queue_message);
}
