// test_util.h - shared helpers for the C++ tests: building host values,
// capturing messages, checking that nothing stays allocated, and the
// allocation-failure sweep.
#ifndef TESSEL_TEST_UTIL_H
#define TESSEL_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tessel/host.hpp"

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
// receives the outcome (after the arguments are destroyed, live host
// allocations must be back to where they were: that is asserted here).
// Returns the number of allocation sites reached.
inline long allocation_sweep(const std::string &name, const std::function<Args()> &make_args,
                             const std::function<void(const SweepStep &)> &check,
                             long max_steps = 5000) {
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
        EXPECT_EQ(zu::live_allocations().total(), before)
            << name << ": allocations left live after failing allocation " << k;
        if (!step.delivered) break;
    }
    EXPECT_LT(k, max_steps) << name << ": sweep did not finish";
    return k - 1;
}

// Asserts that a scope leaves the host's live allocation count unchanged.
class NoLeak {
public:
    NoLeak() : before_(zu::live_allocations().total()) {}
    ~NoLeak() { EXPECT_EQ(zu::live_allocations().total(), before_) << "host allocations leaked"; }

private:
    long before_;
};

}  // namespace testutil

#endif  // TESSEL_TEST_UTIL_H
