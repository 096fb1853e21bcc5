// test_util.h - shared helpers for the C++ tests: building host values and
// model blocks, owning host matrices for direct calls, capturing messages,
// checking that nothing stays allocated, and the allocation-failure sweep.
#ifndef TESSEL_TEST_UTIL_H
#define TESSEL_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "tessel/zu.h"

namespace testutil {

using zu::Value;
using Args = std::vector<Value>;

inline const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Row-major matrix value.
inline Value mat(int rows, int cols, std::vector<double> v) { return Value::matrix(rows, cols, v); }

// Collects every host message while alive; restores the previous sink.
class MessageCapture {
public:
    MessageCapture() {
        previous_ = zu::set_message_sink([this](const char *t) { messages.emplace_back(t); });
    }
    ~MessageCapture() { zu::set_message_sink(previous_); }
    std::vector<std::string> messages;

private:
    zu::MessageSink previous_;
};

// Switches the dynamically loaded library's messages off for a scope.
class MessagesOff {
public:
    MessagesOff() { set(0); }
    ~MessagesOff() { set(1); }

private:
    static void set(int flag) {
        Args a;
        a.push_back(Value::integer(flag));
        zu::call("LgmWarning", a);
    }
};

// Asserts that a scope leaves the host's live allocation count unchanged.
class NoLeak {
public:
    NoLeak() : before_(zu::live_allocations().total()) {}
    ~NoLeak() { EXPECT_EQ(zu::live_allocations().total(), before_) << "host allocations leaked"; }

private:
    long before_;
};

// Runs `body` twice, with messages on and then switched off by LgmWarning,
// each time inside a leak check and a message capture.
inline void in_both_message_modes(const std::function<void(bool quiet, MessageCapture &)> &body) {
    for (bool quiet : {false, true}) {
        SCOPED_TRACE(quiet ? "messages off" : "messages on");
        NoLeak guard;
        MessageCapture capture;
        if (quiet) {
            MessagesOff off;
            body(quiet, capture);
        } else {
            body(quiet, capture);
        }
    }
}

// What a failing call printed: the one message `text` with messages on,
// nothing with messages off.
inline void expect_message(const MessageCapture &capture, bool quiet, const std::string &text) {
    if (quiet) {
        EXPECT_TRUE(capture.messages.empty());
        return;
    }
    ASSERT_EQ(capture.messages.size(), 1u);
    EXPECT_EQ(capture.messages[0], text);
}

// Calls an entry point and returns the host error it raised (number -1 and
// empty text when it raised none).
struct CallError {
    int number = -1;
    std::string text;
};
inline CallError call_error(const std::string &name, Args &args) {
    try {
        zu::call(name, args);
    } catch (const zu::Error &e) {
        return {e.number(), e.what()};
    }
    return {};
}

// Result of one step of an allocation-failure sweep.
struct SweepStep {
    long k = 0;              // which allocation was failed
    bool delivered = false;  // the injected failure happened during the call
    bool threw = false;
    int error_number = -1;
    std::string error_text;
    std::vector<std::string> messages;
    Value result;
};

// Fails allocation k = 1, 2, ... of `make_args() + call` until a call
// completes without meeting the injected failure. For every step, `check`
// receives the outcome; then `release` (if given) empties the variables the
// reference arguments name, and live host allocations must be back to where
// they were: that is asserted here. Returns the number of allocation sites
// reached.
inline long allocation_sweep(const std::string &name, const std::function<Args()> &make_args,
                             const std::function<void(const SweepStep &)> &check,
                             long max_steps = 5000,
                             const std::function<void()> &release = nullptr) {
    long k = 1;
    for (; k <= max_steps; ++k) {
        const long before = zu::live_allocations().total();
        SweepStep step;
        step.k = k;
        {
            Args args = make_args();
            MessageCapture capture;
            zu::fail_allocation(k);
            try {
                step.result = zu::call(name, args);
            } catch (const zu::Error &e) {
                step.threw = true;
                step.error_number = e.number();
                step.error_text = e.what();
            }
            step.delivered = zu::injected_failure_delivered();
            zu::fail_allocation(0);
            step.messages = capture.messages;
            if (step.delivered) check(step);
            step.result.reset();
        }
        if (release) release();
        EXPECT_EQ(zu::live_allocations().total(), before)
            << name << ": allocations left live after failing allocation " << k;
        if (!step.delivered) break;
    }
    EXPECT_LT(k, max_steps) << name << ": sweep did not finish";
    return k - 1;
}

// Empties a set of reference targets (the `release` of a sweep).
inline std::function<void()> release_all(std::vector<Value> &targets) {
    return [&targets] {
        for (Value &v : targets) v.reset();
    };
}

// ------------------------------------------------------------ model blocks

// A model block for the entry points: SysMat, VarMat, then InitMat and
// MeanVec when given (an empty one is passed as <> if a later part follows),
// then the time-varying part SysIdx, VarIdx, MeanIdx, TvData when TvData has
// rows. Values are row-major.
struct LgmModel {
    int m = 0, N = 0;
    std::vector<double> sys, var, init, mean;
    std::vector<double> sysidx, varidx, meanidx, tvdata;
    int tvrows = 0;
    int p() const { return m + N; }
    int store_rows() const { return N + N * (N + 1) / 2 + m * N; }
    bool time_varying() const { return tvrows > 0; }
    void push(Args &a) const {
        const int P = p();
        a.push_back(mat(P, m, sys));
        a.push_back(mat(P, P, var));
        const bool tail = time_varying();
        if (!init.empty())
            a.push_back(mat(m + 1, m, init));
        else if (!mean.empty() || tail)
            a.push_back(Value::empty());
        if (!mean.empty())
            a.push_back(mat(P, 1, mean));
        else if (tail)
            a.push_back(Value::empty());
        if (!tail) return;
        const int n = static_cast<int>(tvdata.size()) / tvrows;
        a.push_back(sysidx.empty() ? Value::empty() : mat(P, m, sysidx));
        a.push_back(varidx.empty() ? Value::empty() : mat(P, P, varidx));
        a.push_back(meanidx.empty() ? Value::empty() : mat(P, 1, meanidx));
        a.push_back(mat(tvrows, n, tvdata));
    }
    // Marks SysMat[0][1] (TvData row 0), the last VarMat diagonal element
    // (row 1) and, with `mean_too`, the first observation intercept (row 2)
    // as time-varying over n points, with distinct values per row and time.
    void add_time_varying(int n, bool mean_too = true) {
        const int P = p();
        sysidx.assign(P * m, -1);
        varidx.assign(P * P, -1);
        sysidx[1] = 0;
        varidx[P * P - 1] = 1;
        if (mean_too) {
            meanidx.assign(P, -1);
            meanidx[m] = 2;
        }
        tvrows = mean_too ? 3 : 2;
        tvdata.resize(tvrows * n);
        for (int t = 0; t < n; ++t) {
            tvdata[t] = 0.5 + 0.05 * t;
            tvdata[n + t] = 0.8 + 0.1 * (t % 3);
            if (mean_too) tvdata[2 * n + t] = 0.2 * std::sin(t);
        }
    }
};

// `first` followed by the model block.
inline Args with_model(Args first, const LgmModel &md) {
    md.push(first);
    return first;
}

// Calls an entry point on an argument list given by value.
inline Value invoke(const std::string &name, Args a) { return zu::call(name, a); }

// N x n observations, row-major, a trend with some structure; entries
// i * n + t listed in `missing` are NaN.
inline std::vector<double> series(int N, int n, const std::vector<int> &missing = {}) {
    std::vector<double> y(static_cast<std::size_t>(N) * n);
    for (int i = 0; i < N; ++i)
        for (int t = 0; t < n; ++t) y[i * n + t] = 0.3 * t + std::sin(1.7 * t + i) + 0.5 * i;
    for (int k : missing) y[k] = kNaN;
    return y;
}

// ------------------------------------------------- host matrices, direct

// A MatAllocBlock matrix owned by the test, from row-major values (zeros
// when none are given). Copies are deep.
class HostMat {
public:
    HostMat(int rows, int cols, const std::vector<double> &v = {})
        : rows_(rows), cols_(cols), p_(MatAllocBlock(rows, cols > 0 ? cols : 1)) {
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) p_[i][j] = v.empty() ? 0.0 : v[i * cols + j];
    }
    HostMat(const HostMat &o) : HostMat(o.rows_, o.cols_) {
        for (int i = 0; i < rows_; ++i)
            for (int j = 0; j < cols_; ++j) p_[i][j] = o.p_[i][j];
    }
    HostMat &operator=(const HostMat &) = delete;
    ~HostMat() { MatFreeBlock(p_); }
    double **get() const { return p_; }
    double *operator[](int i) const { return p_[i]; }
    int rows() const { return rows_; }
    int cols() const { return cols_; }

private:
    int rows_, cols_;
    double **p_;
};

// An int index table (TabAllocPlain) from row-major entries.
class HostIdx {
public:
    HostIdx(int rows, int cols, const std::vector<int> &v)
        : rows_(rows),
          cols_(cols),
          p_(reinterpret_cast<int **>(TabAllocPlain(rows, cols, sizeof(int)))) {
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) p_[i][j] = v[i * cols + j];
    }
    HostIdx(const HostIdx &) = delete;
    HostIdx &operator=(const HostIdx &) = delete;
    ~HostIdx() { TabFreePlain(reinterpret_cast<void **>(p_), rows_, cols_); }
    int **get() const { return p_; }

private:
    int rows_, cols_;
    int **p_;
};

inline void fill_uniform(HostMat &a, std::mt19937_64 &rng, double lo = -1.0, double hi = 1.0) {
    std::uniform_real_distribution<double> u(lo, hi);
    for (int i = 0; i < a.rows(); ++i)
        for (int j = 0; j < a.cols(); ++j) a[i][j] = u(rng);
}

// Symmetric positive definite: M M' + n I from a random M.
inline void fill_spd(HostMat &a, std::mt19937_64 &rng) {
    const int n = a.rows();
    HostMat m(n, n);
    fill_uniform(m, rng);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double s = (i == j) ? n : 0.0;
            for (int k = 0; k < n; ++k) s += m[i][k] * m[j][k];
            a[i][j] = s;
        }
}

// ------------------------------------------------- calls with full outcome

// Arguments together with the variables their references name. Held by
// pointer (or in place) so that the references stay valid.
struct CallArgs {
    std::deque<Value> vars;
    Args args;
    void add(Value v) { args.push_back(std::move(v)); }
    void ref(Value initial = Value()) {
        vars.push_back(std::move(initial));
        args.push_back(Value::ref(vars.back()));
    }
};

// Everything a call produced: its error or result, and its messages.
struct Outcome {
    bool threw = false;
    int number = -1;
    std::string text;
    Value result;
    std::vector<std::string> messages;
    std::vector<Value> refs;  // reference targets after the call, where a test keeps them
};

// Calls an entry point on a raw argument array (seeded, messages captured).
inline Outcome call_outcome(const std::string &entry, ZuValue *args, int nargs,
                            std::uint64_t seed = 7) {
    Outcome o;
    MessageCapture capture;
    zu::set_seed(seed);
    try {
        o.result = zu::call(entry, args, nargs);
    } catch (const zu::Error &e) {
        o.threw = true;
        o.number = e.number();
        o.text = e.what();
    }
    o.messages = capture.messages;
    return o;
}
inline Outcome call_outcome(const std::string &entry, Args &args, std::uint64_t seed = 7) {
    return call_outcome(entry, reinterpret_cast<ZuValue *>(args.data()),
                        static_cast<int>(args.size()), seed);
}

// A matrix value claiming rows x cols but owning nothing; its row pointers
// aim at one small zero row, so that a wrong read stays bounded (and the
// sanitizers see it). Only for values the checks must refuse before reading.
struct Crafted {
    std::vector<double> row = std::vector<double>(8, 0.0);
    std::vector<double *> rows = std::vector<double *>(8, nullptr);
    ZuValue value{};
    Crafted(int r, int c) {
        for (double *&p : rows) p = row.data();
        value.type = ZU_MATRIX;
        value.v.mat.rows = r;
        value.v.mat.cols = c;
        value.v.mat.data = rows.data();
    }
};

// Calls with the Values' contents lent (the host must neither convert nor
// free them), crafted values standing at the given positions.
inline Outcome call_crafted(const std::string &entry, Args &owned,
                            const std::vector<std::pair<int, Crafted *>> &crafted) {
    std::vector<ZuValue> raw;
    for (Value &v : owned) raw.push_back(*v.raw());
    for (const auto &c : crafted) raw[c.first] = c.second->value;
    return call_outcome(entry, raw.data(), static_cast<int>(raw.size()));
}

}  // namespace testutil

#endif  // TESSEL_TEST_UTIL_H
