// test_bad_input.cpp - a catalogue of hostile calls, per entry point, with
// the report each one must end in: wrong argument counts and types, shape
// mismatches, time-varying blocks that do not fit, dimensions whose products
// do not fit an int, NaN and infinity in system matrices and data, series
// with no time points or no observation, and singular and indefinite
// variance matrices. Every call is also checked to leave no host storage
// live, whatever its outcome.
//
// Where the documented behaviour would read outside an argument or compute
// an overflowing size, the library raises a clean host error instead; those
// cases say so in their description.
//
// Arguments whose sizes cannot be allocated (an INT_MAX x INT_MAX VarMat)
// are crafted as raw host values that claim the size; the checks reject
// them before any element is read, and the sanitizer jobs would catch a read.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "test_util.h"

namespace {

using testutil::Args;
using testutil::call_crafted;
using testutil::call_outcome;
using testutil::CallArgs;
using testutil::Crafted;
using testutil::kNaN;
using testutil::mat;
using testutil::MessageCapture;
using testutil::Outcome;
using zu::Value;

const double kInf = std::numeric_limits<double>::infinity();
constexpr int kTime = 6;

// ------------------------------------------------------------- call set-up

// What a hostile call must end in.
struct Expect {
    enum Kind {
        Raises,   // host error `number`; `text` exact unless empty (then it starts with "<entry>():
                  // ")
        Reports,  // numeric-failure report: `text` printed, return value freed (or integer 0)
        Matrix,   // a matrix return value of rows x cols
        Integer,  // an integer return value
        Custom,   // only the further checks
    } kind;
    int number = 0;
    std::string text;
    int rows = 0, cols = 0;
    std::function<void(const Outcome &, CallArgs &)> more;  // further checks
};

Expect raises(int number, std::string text = "") {
    return {Expect::Raises, number, std::move(text), 0, 0, {}};
}
Expect reports(std::string text) { return {Expect::Reports, 0, std::move(text), 0, 0, {}}; }
Expect matrix(int rows, int cols, std::function<void(const Outcome &, CallArgs &)> more = {}) {
    return {Expect::Matrix, 0, "", rows, cols, std::move(more)};
}
Expect integer(int value, std::function<void(const Outcome &, CallArgs &)> more = {}) {
    return {Expect::Integer, value, "", 0, 0, std::move(more)};
}
Expect custom(std::function<void(const Outcome &, CallArgs &)> more) {
    return {Expect::Custom, 0, "", 0, 0, std::move(more)};
}

struct Hostile {
    std::string entry;
    std::string what;
    std::function<std::unique_ptr<CallArgs>()> make;
    Expect expect;
};

void check(const Hostile &h) {
    SCOPED_TRACE(h.entry + ": " + h.what);
    h.make();  // inputs made once (filter stores) are made now, outside the count
    const long before = zu::live_allocations().total();
    {
        std::unique_ptr<CallArgs> c = h.make();
        Outcome o = call_outcome(h.entry, c->args);
        const Expect &e = h.expect;
        switch (e.kind) {
            case Expect::Raises:
                ASSERT_TRUE(o.threw) << "no error raised";
                EXPECT_EQ(o.number, e.number) << o.text;
                if (!e.text.empty())
                    EXPECT_EQ(o.text, e.text);
                else
                    EXPECT_EQ(o.text.compare(0, h.entry.size() + 4, h.entry + "(): "), 0) << o.text;
                break;
            case Expect::Reports:
                ASSERT_FALSE(o.threw) << o.text;
                ASSERT_EQ(o.messages.size(), 1u);
                EXPECT_EQ(o.messages[0], e.text);
                EXPECT_TRUE(o.result.is_none() ||
                            (o.result.type() == ZU_INT && o.result.as_int() == 0))
                    << "return value type " << o.result.type();
                break;
            case Expect::Matrix:
                ASSERT_FALSE(o.threw) << o.text;
                ASSERT_EQ(o.result.type(), ZU_MATRIX);
                EXPECT_EQ(o.result.rows(), e.rows);
                EXPECT_EQ(o.result.cols(), e.cols);
                break;
            case Expect::Integer:
                ASSERT_FALSE(o.threw) << o.text;
                ASSERT_EQ(o.result.type(), ZU_INT);
                EXPECT_EQ(o.result.as_int(), e.number);
                break;
            case Expect::Custom:
                break;
        }
        if (e.more) e.more(o, *c);
    }
    EXPECT_EQ(zu::live_allocations().total(), before) << "host storage left live";
}

// ------------------------------------------------------------------ models

// One series: a random walk observed with noise, P0 = 2 around 0.
// Two series: an AR(1) state seen by both, P0 = 2 around 0.
struct Model {
    int N = 1;
    Value sys, var, init;
    int m() const { return sys.cols(); }
    int p() const { return sys.rows(); }
};

Model model(int N) {
    Model md;
    md.N = N;
    if (N == 1) {
        md.sys = mat(2, 1, {1, 1});
        md.var = mat(2, 2, {1, 0, 0, 0.5});
    } else {
        md.sys = mat(3, 1, {0.8, 1, 0.5});
        md.var = mat(3, 3, {1, 0, 0, 0, 0.5, 0.1, 0, 0.1, 0.4});
    }
    md.init = mat(2, 1, {2, 0});
    return md;
}

Value series(int N, int n) {
    std::vector<double> v;
    for (int i = 0; i < N; ++i)
        for (int t = 0; t < n; ++t) v.push_back(0.4 * t - 0.3 * i + 0.1 * (t % 3));
    return mat(N, n, v);
}

Value filled(int N, int n, double x) {
    return mat(N, n, std::vector<double>(static_cast<std::size_t>(N) * n, x));
}

// Filter store of a model for a series (KalmanFil), for the entry points
// whose data argument is a store.
Value store_for(const Model &md, const Value &y) {
    Args a;
    a.push_back(y);
    a.push_back(md.sys);
    a.push_back(md.var);
    a.push_back(md.init);
    return zu::call("KalmanFil", a);
}

// How each entry point with a model block lays out its arguments.
struct EntryShape {
    std::string name;
    int data_index;
    int mode;       // 0 observations, 1 filter store, 2 disturbances
    bool in_place;  // the weights / simulation-smoother group
    // Leading arguments for a model of N series, m states and n time points.
    std::function<void(CallArgs &, const Model &, int n)> lead;
    std::string failure;  // numeric-failure report ("" when it raises or has none)
};

Value state_selection(const Model &md) {
    Value s = Value::matrix(md.p(), md.p());
    for (int i = 0; i < md.m(); ++i) s.at(i, i) = 1.0;
    return s;
}

int weight_rows(int p, int q) { return q * p + q * (q + 1) / 2; }

const std::vector<EntryShape> &entry_shapes() {
    static const std::vector<EntryShape> shapes = {
        {"KalmanFil", 0, 0, false, [](CallArgs &, const Model &, int) {},
         "KalmanFil(): non-positive semi-definite innovation variance matrix"},
        {"LgmLik", 2, 0, false,
         [](CallArgs &c, const Model &, int) {
             c.ref();
             c.ref();
         },
         "LgmLik(): non-positive semi-definite innovation variance matrix"},
        {"LgmLikConc", 2, 0, false,
         [](CallArgs &c, const Model &, int) {
             c.ref();
             c.ref();
         },
         "LgmLikConc(): non-positive semi-definite innovation variance matrix"},
        {"LgmRecursion", 0, 2, false, [](CallArgs &, const Model &, int) {}, ""},
        {"KalmanSmo", 0, 1, false, [](CallArgs &, const Model &, int) {}, ""},
        {"LgmMomentEst", 2, 0, false,
         [](CallArgs &c, const Model &, int) {
             c.add(Value::integer(1));
             c.ref();
         },
         "LgmMomentEst(): non-positive semi-definite innovation variance matrix"},
        {"LgmLikSco", 2, 0, false,
         [](CallArgs &c, const Model &, int) {
             c.ref();
             c.ref();
         },
         "LgmLikSco(): non-positive semi-definite innovation matrix"},
        {"SimSmoWgt", 1, 1, true,
         [](CallArgs &c, const Model &md, int) { c.add(state_selection(md)); },
         "SimSmoWgt(): choleski decomposition failed"},
        {"SimSmoDraw", 3, 1, true,
         [](CallArgs &c, const Model &md, int n) {
             c.add(state_selection(md));
             c.add(series(md.m(), n));
             c.add(Value::matrix(weight_rows(md.p(), md.m()), n));
         },
         ""},
        {"LgmCondDens", 1, 0, false,
         [](CallArgs &c, const Model &, int) { c.add(Value::integer(1)); },
         "LgmCondDens(): non-positive semi-definite innovation variance matrix"},
        {"LgmWeights", 1, 0, true,
         [](CallArgs &c, const Model &, int) { c.add(Value::integer(1)); }, ""},
    };
    return shapes;
}

// The data argument of an entry point for a series y.
Value data_for(const EntryShape &e, const Model &md, const Value &y) {
    if (e.mode == 1 && y.cols() == 0)  // no time points: an empty store of the right height
        return Value::matrix(md.N + md.N * (md.N + 1) / 2 + md.m() * md.N, 0);
    if (e.mode == 1) return store_for(md, y);
    if (e.mode == 2) return series(md.p(), y.cols());
    if (e.name == "LgmWeights") {
        // a marker: everything observed but where y is missing (-1)
        Value mk = Value::matrix(y.rows(), y.cols());
        for (int i = 0; i < y.rows(); ++i)
            for (int t = 0; t < y.cols(); ++t) mk.at(i, t) = std::isnan(y.at(i, t)) ? -1.0 : 0.0;
        return mk;
    }
    return y;
}

// Arguments for entry e: leading arguments, data, SysMat, VarMat, and the
// optional arguments `rest`.
std::unique_ptr<CallArgs> model_call(const EntryShape &e, const Model &md, const Value &y,
                                     std::vector<Value> rest = {}) {
    auto c = std::make_unique<CallArgs>();
    e.lead(*c, md, y.cols());
    c->add(data_for(e, md, y));
    c->add(md.sys);
    c->add(md.var);
    for (Value &v : rest) c->add(std::move(v));
    return c;
}

// Result of an undisturbed call with the same arguments, to compare with.
Outcome plain_outcome(const EntryShape &e, const Model &md, const Value &y,
                      std::vector<Value> rest) {
    std::unique_ptr<CallArgs> c = model_call(e, md, y, std::move(rest));
    return call_outcome(e.name, c->args);
}

std::string lgm_rows_text(int i) {
    return "\nLgm(): number of rows or columns not correct in argument " + std::to_string(i) + "\n";
}

// ---------------------------------------------------------------- catalogue

std::vector<Hostile> catalogue() {
    std::vector<Hostile> h;
    auto add = [&](std::string entry, std::string what,
                   std::function<std::unique_ptr<CallArgs>()> make, Expect e) {
        h.push_back({std::move(entry), std::move(what), std::move(make), std::move(e)});
    };

    for (const EntryShape &e : entry_shapes()) {
        const int i = e.data_index;
        const std::string name = e.name;
        const Model one = model(1), two = model(2);
        const Value y1 = series(1, kTime), y2 = series(2, kTime);

        // -- argument count and types
        add(
            name, "fewer arguments than the model needs (the checks would read past the array)",
            [e, one, y1] {
                auto c = model_call(e, one, y1);
                c->args.pop_back();  // no VarMat
                return c;
            },
            raises(zu::kErrorMessage,
                   "Lgm(): at least " + std::to_string(i + 3) + " arguments required"));
        add(
            name, "no arguments at all", [] { return std::make_unique<CallArgs>(); },
            raises(zu::kErrorMessage,
                   "Lgm(): at least " + std::to_string(i + 3) + " arguments required"));
        add(
            name, "SysMat given as a reference",
            [e, one, y1, i] {
                auto c = model_call(e, one, y1);
                c->vars.emplace_back(mat(2, 1, {1, 1}));
                c->args[i + 1] = Value::ref(c->vars.back());
                return c;
            },
            raises(zu::kErrorType));
        // -- shapes
        add(
            name, "square SysMat (no observation row)",
            [e, one, y1, i] {
                auto c = model_call(e, one, y1);
                c->args[i + 1] = mat(1, 1, {1});
                c->args[i + 2] = mat(1, 1, {1});
                return c;
            },
            raises(zu::kErrorMessage, lgm_rows_text(i)));
        add(
            name, "VarMat of the wrong order",
            [e, one, y1, i] {
                auto c = model_call(e, one, y1);
                c->args[i + 2] = Value::matrix(3, 3);
                return c;
            },
            raises(zu::kErrorSize));
        add(
            name, "data argument with one row too many",
            [e, one, y1, i] {
                auto c = model_call(e, one, y1);
                Value &d = c->args[i];
                Value bigger = Value::matrix(d.rows() + 1, d.cols());
                d = std::move(bigger);
                return c;
            },
            raises(zu::kErrorSize));
        add(
            name, "InitMat given as a 1 x 1 NaN (present, wrong shape)",
            [e, one, y1] {
                std::vector<Value> rest;
                rest.push_back(mat(1, 1, {kNaN}));
                return model_call(e, one, y1, std::move(rest));
            },
            raises(zu::kErrorSize));
        add(
            name, "MeanVec with one row too many",
            [e, one, y1] {
                std::vector<Value> rest;
                rest.push_back(one.init);
                rest.push_back(Value::matrix(3, 1));
                return model_call(e, one, y1, std::move(rest));
            },
            raises(zu::kErrorSize));

        // -- time-varying block
        add(
            name, "SysIdx entry beyond the rows of TvData",
            [e, one, y1] {
                std::vector<Value> rest;
                rest.push_back(one.init);
                rest.push_back(Value::real(0));
                rest.push_back(mat(2, 1, {-1, 5}));  // Z from TvData row 5
                rest.push_back(Value::real(0));
                rest.push_back(Value::real(0));
                rest.push_back(series(2, kTime));
                return model_call(e, one, y1, std::move(rest));
            },
            e.in_place
                ? raises(zu::kErrorMemory)
                : raises(zu::kErrorMessage, "Lgm(): dimension of data matrix is not correct"));
        add(
            name, "SysIdx entry of 2^31 (no int; treated as beyond TvData)",
            [e, one, y1] {
                std::vector<Value> rest;
                rest.push_back(one.init);
                rest.push_back(Value::real(0));
                rest.push_back(mat(2, 1, {-1, 2147483648.0}));
                rest.push_back(Value::real(0));
                rest.push_back(Value::real(0));
                rest.push_back(series(2, kTime));
                return model_call(e, one, y1, std::move(rest));
            },
            e.in_place
                ? raises(zu::kErrorMemory)
                : raises(zu::kErrorMessage, "Lgm(): dimension of data matrix is not correct"));
        add(
            name, "TvData with a column too few",
            [e, one, y1] {
                std::vector<Value> rest;
                rest.push_back(one.init);
                rest.push_back(Value::real(0));
                rest.push_back(mat(2, 1, {-1, 0}));
                rest.push_back(Value::real(0));
                rest.push_back(Value::real(0));
                rest.push_back(series(1, kTime - 1));
                return model_call(e, one, y1, std::move(rest));
            },
            raises(zu::kErrorSize));
        // Part of the time-varying block: a warning, then the fixed model's
        // result.
        add(
            name, "partial time-varying block (SysIdx and VarIdx only)",
            [e, one, y1] {
                std::vector<Value> rest;
                rest.push_back(one.init);
                rest.push_back(Value::real(0));
                rest.push_back(mat(2, 1, {-1, 0}));
                rest.push_back(mat(2, 2, {-1, -1, -1, -1}));
                return model_call(e, one, y1, std::move(rest));
            },
            custom([e, one, y1](const Outcome &o, CallArgs &) {
                const Outcome fixed = plain_outcome(e, one, y1, {one.init});
                ASSERT_FALSE(o.threw) << o.text;
                ASSERT_EQ(o.messages.size(), 1u);
                EXPECT_EQ(o.messages[0], "Lgm(): no time-varying state space model");
                ASSERT_EQ(o.result.type(), fixed.result.type());
                if (o.result.type() == ZU_INT) {
                    EXPECT_EQ(o.result.as_int(), fixed.result.as_int());
                }
                if (o.result.type() == ZU_MATRIX) {
                    const std::vector<double> got = o.result.to_vector(),
                                              want = fixed.result.to_vector();
                    ASSERT_EQ(got.size(), want.size());
                    for (std::size_t k = 0; k < got.size(); ++k)
                        EXPECT_TRUE(got[k] == want[k] ||
                                    (std::isnan(got[k]) && std::isnan(want[k])))
                            << k;
                }
            }));

        // -- series with no time points and with no observation
        {
            Expect none;
            if (name == "KalmanFil" || name == "LgmLik" || name == "LgmLikConc" ||
                name == "LgmLikSco" || name == "LgmCondDens")
                none = reports(e.failure);  // no usable observation: the filter fails
            else if (name == "LgmWeights")
                none = raises(zu::kErrorMessage, "LgmWeights(): unknown error");
            else if (name == "LgmRecursion")
                none = matrix(2, 0);
            else if (name == "KalmanSmo")
                none = matrix(4, 1);
            else if (name == "LgmMomentEst")
                none = matrix(2, 1, [](const Outcome &, CallArgs &c) {
                    EXPECT_EQ(c.vars[0].rows(), 4);
                    EXPECT_EQ(c.vars[0].cols(), 0);
                });
            else if (name == "SimSmoWgt")
                none = matrix(weight_rows(2, 1), 0);
            else
                none = matrix(2, 1);  // SimSmoDraw: column 0 only
            add(
                name, "no time points (n = 0)",
                [e, one] { return model_call(e, one, series(1, 0), {one.init}); }, none);
        }
        if (e.mode == 0) {
            Expect missing;
            if (name == "LgmWeights")
                missing = raises(zu::kErrorMessage, "LgmWeights(): unknown error");
            else if (name == "LgmMomentEst")
                missing = matrix(2, 1);  // prediction has no observation count to fail on
            else
                missing = reports(e.failure);
            if (name == "LgmLik")
                missing.more = [](const Outcome &, CallArgs &c) {
                    // written even though the filter failed: no observation,
                    // no diffuse element, so every term is 0
                    ASSERT_EQ(c.vars[0].type(), ZU_DOUBLE);
                    EXPECT_EQ(c.vars[0].as_double(), 0.0);
                    EXPECT_EQ(c.vars[1].as_double(), 0.0);
                };
            if (name == "LgmLikConc")
                missing.more = [](const Outcome &, CallArgs &c) {
                    EXPECT_TRUE(c.vars[0].is_none()) << "written only on success";
                };
            for (int N : {1, 2})
                add(
                    name, "every observation missing, N = " + std::to_string(N),
                    [e, N] {
                        const Model md = model(N);
                        return model_call(e, md, filled(N, kTime, kNaN), {md.init});
                    },
                    missing);
        }

        // -- NaN and infinity in the system, singular and indefinite variances
        if (e.mode == 0) {
            // One series, NaN in Z: F is NaN at every time, never > 0, so no
            // observation is usable.
            Expect nan_sys;
            if (name == "LgmWeights")
                nan_sys = raises(zu::kErrorMessage, "LgmWeights(): unknown error");
            else if (name == "LgmMomentEst")
                nan_sys = matrix(2, 1, [](const Outcome &o, CallArgs &) {
                    bool any_nan = false;
                    for (double x : o.result.to_vector()) any_nan = any_nan || std::isnan(x);
                    EXPECT_TRUE(any_nan) << "NaN must reach the result";
                });
            else
                nan_sys = reports(e.failure);
            add(
                name, "NaN in the observation row of SysMat (N = 1)",
                [e] {
                    Model md = model(1);
                    md.sys.at(1, 0) = kNaN;
                    return model_call(e, md, series(1, kTime), {md.init});
                },
                nan_sys);
            // Zero variances and a known initial state: F = 0 exactly.
            for (int N : {1, 2}) {
                Expect zero;
                if (name == "LgmWeights")
                    zero = raises(zu::kErrorMessage, "LgmWeights(): unknown error");
                else
                    zero = reports(e.failure);
                add(
                    name,
                    "all variances zero, known initial state (F = 0), N = " + std::to_string(N),
                    [e, N] {
                        Model md = model(N);
                        md.var = Value::matrix(md.p(), md.p());
                        return model_call(e, md, series(N, kTime), {mat(2, 1, {0, 0})});
                    },
                    zero);
            }
            // One series, negative observation variance and a known state:
            // F = -1 at every time, filtered through but never counted.
            {
                Expect neg;
                if (name == "LgmWeights")
                    neg = raises(zu::kErrorMessage, "LgmWeights(): unknown error");
                else if (name == "LgmMomentEst")
                    neg = matrix(2, 1);  // prediction fails only on F = 0
                else
                    neg = reports(e.failure);
                add(
                    name, "indefinite VarMat: observation variance -1, known state (N = 1)",
                    [e] {
                        Model md = model(1);
                        md.var = mat(2, 2, {0, 0, 0, -1});
                        return model_call(e, md, series(1, kTime), {mat(2, 1, {0, 0})});
                    },
                    neg);
            }
            // Two series, indefinite F (determinant -1): not rejected.
            {
                Expect indef;
                if (name == "KalmanFil")
                    indef = matrix(2 + 3 + 2, kTime);
                else if (name == "LgmLik" || name == "LgmLikConc" || name == "LgmLikSco")
                    indef = integer(1);
                else if (name == "LgmMomentEst")
                    indef = matrix(2, 1);
                else if (name == "LgmCondDens")
                    indef = matrix(3, kTime);
                else if (name == "LgmWeights")
                    indef = matrix(3, kTime);
                if (name == "LgmLikConc") indef = integer(1);
                add(
                    name, "indefinite observation variance diag(1, -1), N = 2",
                    [e] {
                        Model md = model(2);
                        md.var = mat(3, 3, {0, 0, 0, 0, 1, 0, 0, 0, -1});
                        return model_call(e, md, series(2, kTime), {mat(2, 1, {0, 0})});
                    },
                    indef);
            }
        }
    }

    // ------------------------------------------------- selection arguments
    for (int sel : {2, 4, -1, INT_MIN, INT_MAX})
        add(
            "LgmMomentEst", "selection " + std::to_string(sel),
            [sel] {
                auto c = std::make_unique<CallArgs>();
                c->add(Value::integer(sel));
                c->ref();
                const Model md = model(1);
                c->add(series(1, kTime));
                c->add(md.sys);
                c->add(md.var);
                return c;
            },
            raises(zu::kErrorMessage, "LgmMomentEst(): no valid selection in first argument"));
    for (int sel : {0, 5, -1, INT_MIN, INT_MAX})
        add(
            "LgmCondDens", "selection " + std::to_string(sel),
            [sel] {
                auto c = std::make_unique<CallArgs>();
                c->add(Value::integer(sel));
                const Model md = model(1);
                c->add(series(1, kTime));
                c->add(md.sys);
                c->add(md.var);
                return c;
            },
            raises(zu::kErrorMessage, "LgmCondDens(): no valid selection in first argument"));
    for (int sel : {2, 4, 6, -1, INT_MIN, INT_MAX})
        add(
            "LgmWeights", "selection " + std::to_string(sel),
            [sel] {
                auto c = std::make_unique<CallArgs>();
                c->add(Value::integer(sel));
                const Model md = model(1);
                c->add(Value::matrix(1, kTime));
                c->add(md.sys);
                c->add(md.var);
                return c;
            },
            raises(zu::kErrorMessage, "LgmWeights(): no valid selection in first argument"));
    for (const char *entry : {"LgmMomentEst", "LgmCondDens", "LgmWeights"}) {
        add(
            entry, "selection 1.5 (not an integer)",
            [entry] {
                auto c = std::make_unique<CallArgs>();
                c->add(Value::real(1.5));
                if (std::string(entry) == "LgmMomentEst") c->ref();
                const Model md = model(1);
                c->add(series(1, kTime));
                c->add(md.sys);
                c->add(md.var);
                return c;
            },
            raises(zu::kErrorType));
        add(
            entry, "selection given as a matrix",
            [entry] {
                auto c = std::make_unique<CallArgs>();
                c->add(mat(1, 2, {1, 1}));
                if (std::string(entry) == "LgmMomentEst") c->ref();
                const Model md = model(1);
                c->add(series(1, kTime));
                c->add(md.sys);
                c->add(md.var);
                return c;
            },
            raises(zu::kErrorType));
    }
    add(
        "LgmCondDens", "simulation with no positive state variance (NaN and -1)",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::integer(2));
            c->add(series(2, kTime));
            Model md = model(2);
            c->add(md.sys);
            c->add(mat(3, 3, {kNaN, 0, 0, 0, 1, 0, 0, 0, 1}));
            return c;
        },
        raises(zu::kErrorMessage, "LgmCondDens(): no simulations possible"));

    // ------------------------------------------------- reference arguments
    for (const char *entry : {"LgmLik", "LgmLikConc"})
        add(
            entry, "first two arguments not references",
            [] {
                auto c = std::make_unique<CallArgs>();
                c->add(Value::real(0));
                c->add(Value::real(0));
                const Model md = model(1);
                c->add(series(1, kTime));
                c->add(md.sys);
                c->add(md.var);
                return c;
            },
            raises(zu::kErrorType));
    add(
        "LgmLikSco", "score reference missing (two values, then data)",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->ref();
            c->add(Value::real(0));
            const Model md = model(1);
            c->add(series(1, kTime));
            c->add(md.sys);
            c->add(md.var);
            return c;
        },
        raises(zu::kErrorType));

    // ------------------------------------------ simulation smoother inputs
    const Model one = model(1);
    // made when a case runs (never while the tests are registered)
    auto store1_cache = std::make_shared<Value>();
    auto store1 = [one, store1_cache]() -> Value {
        if (store1_cache->is_none()) *store1_cache = store_for(one, series(1, kTime));
        return *store1_cache;
    };
    add(
        "SimSmoWgt", "selection with no non-zero diagonal element",
        [one, store1] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(2, 2, {0, 1, 1, 0}));
            c->add(store1());
            c->add(one.sys);
            c->add(one.var);
            return c;
        },
        raises(zu::kErrorMessage, "SimSmoWgt(): zero vector in argument 1"));
    add(
        "SimSmoWgt", "selection given as a number",
        [one, store1] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::integer(1));
            c->add(store1());
            c->add(one.sys);
            c->add(one.var);
            return c;
        },
        raises(zu::kErrorSize));
    add(
        "SimSmoWgt", "zero state variance selected: the LDL pivot is 0",
        [one] {
            auto c = std::make_unique<CallArgs>();
            Model md = one;
            md.var = mat(2, 2, {0, 0, 0, 1});
            c->add(state_selection(md));
            c->add(store_for(md, series(1, kTime)));
            c->add(md.sys);
            c->add(md.var);
            c->add(md.init);
            return c;
        },
        reports("SimSmoWgt(): choleski decomposition failed"));
    add(
        "SimSmoDraw", "selection with no non-zero diagonal element (message names SimSmoWgt)",
        [one, store1] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::matrix(2, 2));
            c->add(Value::matrix(1, kTime));
            c->add(Value::matrix(weight_rows(2, 1), kTime));
            c->add(store1());
            c->add(one.sys);
            c->add(one.var);
            return c;
        },
        raises(zu::kErrorMessage, "SimSmoWgt(): zero vector in argument 1"));
    add(
        "SimSmoDraw", "draws with a row too many",
        [one, store1] {
            auto c = std::make_unique<CallArgs>();
            c->add(state_selection(one));
            c->add(Value::matrix(2, kTime));
            c->add(Value::matrix(weight_rows(2, 1), kTime));
            c->add(store1());
            c->add(one.sys);
            c->add(one.var);
            return c;
        },
        raises(zu::kErrorSize));
    add(
        "SimSmoDraw", "weights with a row too few",
        [one, store1] {
            auto c = std::make_unique<CallArgs>();
            c->add(state_selection(one));
            c->add(Value::matrix(1, kTime));
            c->add(Value::matrix(weight_rows(2, 1) - 1, kTime));
            c->add(store1());
            c->add(one.sys);
            c->add(one.var);
            return c;
        },
        raises(zu::kErrorSize));

    // ------------------------------------------------------------ builders
    add(
        "GetLgmArma", "five arguments",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(1, 1, {0.5}));
            c->add(Value::empty());
            c->add(Value::real(1));
            c->ref();
            c->ref();
            return c;
        },
        raises(zu::kErrorMessage, "GetLgmArma(): six arguments required"));
    add(
        "GetLgmArma", "sigma given as a matrix",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(1, 1, {0.5}));
            c->add(Value::empty());
            c->add(mat(1, 2, {1, 1}));
            for (int k = 0; k < 3; ++k) c->ref();
            return c;
        },
        raises(zu::kErrorType));
    add(
        "GetLgmArma", "result arguments not references",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(1, 1, {0.5}));
            c->add(Value::empty());
            c->add(Value::real(1));
            for (int k = 0; k < 3; ++k) c->add(Value::real(0));
            return c;
        },
        raises(zu::kErrorType));
    for (const char *what :
         {"both coefficient lists empty", "full 2 x 2 AR matrix, empty MA (taken as empty)"})
        add(
            "GetLgmArma", what,
            [what] {
                auto c = std::make_unique<CallArgs>();
                c->add(std::string(what).compare(0, 4, "both") == 0 ? Value::empty()
                                                                    : mat(2, 2, {0.5, 0, 0, 0.5}));
                c->add(Value::matrix(0, 3));
                c->add(Value::real(1));
                for (int k = 0; k < 3; ++k) c->ref(Value::integer(42));
                return c;
            },
            reports("GetLgmArma(): system error"));
    add(
        "GetLgmArma", "AR(1) with phi = 1 (I - T (x) T singular)",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(1, 1, {1.0}));
            c->add(Value::empty());
            c->add(Value::real(1));
            for (int k = 0; k < 3; ++k) c->ref();
            return c;
        },
        reports("GetLgmArma(): system error"));
    add(
        "GetLgmArma", "NaN coefficient",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(1, 2, {kNaN, 0.2}));
            c->add(mat(1, 1, {kInf}));
            c->add(Value::real(kNaN));
            for (int k = 0; k < 3; ++k) c->ref();
            return c;
        },
        reports("GetLgmArma(): system error"));

    add(
        "GetLgmStsm", "three arguments",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(2, 2, {0, 1, 19, 1}));
            c->ref();
            c->ref();
            return c;
        },
        raises(zu::kErrorMessage, "GetLgmStsm(): at least four arguments required"));
    add(
        "GetLgmStsm", "NaN component code",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(2, 3, {kNaN, 1, 0, 19, 1, 0}));
            for (int k = 0; k < 3; ++k) c->ref();
            return c;
        },
        raises(zu::kErrorMessage, "GetLgmStsm(): cannot recognize component in argument 1"));
    for (double period : {1e9, kInf, 2147483648.0})
        add(
            "GetLgmStsm",
            "seasonal period " + std::to_string(period) +
                " (a state count beyond int; refused as an allocation failure)",
            [period] {
                auto c = std::make_unique<CallArgs>();
                c->add(mat(2, 3, {0, 1, 0, 3, 1, period}));
                for (int k = 0; k < 3; ++k) c->ref();
                return c;
            },
            raises(zu::kErrorMessage, "GetLgmStsm(): memory allocation failure"));
    add(
        "GetLgmStsm", "trend order NaN",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(2, 3, {2, 1, kNaN, 19, 1, 0}));
            for (int k = 0; k < 3; ++k) c->ref();
            return c;
        },
        raises(zu::kErrorMessage, "GetLgmStsm(): trend order not appropriate in argument 2"));

    add(
        "GetLgmReg", "no regressor rows (0 x 5)",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::matrix(0, 5));
            for (int k = 0; k < 4; ++k) c->ref();
            return c;
        },
        raises(zu::kErrorMessage, "GetLgmReg(): data matrix needed in first argument"));
    add(
        "GetLgmReg", "regressors given as a reference",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->ref(mat(1, 2, {1, 2}));
            for (int k = 0; k < 4; ++k) c->ref();
            return c;
        },
        raises(zu::kErrorType));
    add(
        "AddLgmReg", "regressors given as a number",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::real(1));
            for (int k = 0; k < 4; ++k) c->ref(Value::empty());
            return c;
        },
        raises(zu::kErrorMessage, "AddLgmReg(): argument 1 must be matrix"));
    add(
        "AddLgmReg", "model VarMat of the wrong order",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(1, 2, {1, 2}));
            c->ref(mat(2, 1, {1, 1}));
            c->ref(Value::matrix(3, 3));
            c->ref(mat(2, 1, {-1, 0}));
            c->ref(Value::empty());
            return c;
        },
        raises(zu::kErrorMessage, "AddLgmReg(): argument 3 wrong matrix dimension"));
    add(
        "GetLgmSpline", "six arguments",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::real(1));
            c->add(mat(1, 2, {1, 1}));
            for (int k = 0; k < 4; ++k) c->ref();
            return c;
        },
        raises(zu::kErrorMessage, "GetLgmSpline(): wrong number of arguments"));
    add(
        "GetLgmSpline", "0 x 2^31-1 spacings: empty, so no time-varying part",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::real(1));
            c->add(Value::matrix(0, INT_MAX));
            for (int k = 0; k < 6; ++k) c->ref();
            return c;
        },
        integer(1, [](const Outcome &, CallArgs &c) {
            EXPECT_EQ(c.vars[0].rows(), 3);
            EXPECT_TRUE(c.vars[3].is_none()) << "SysIdx made without spacings";
            EXPECT_TRUE(c.vars[5].is_none()) << "TvData made without spacings";
        }));

    // -------------------------------------------------------- informational
    add(
        "LgmWarning", "no argument while messages are on",
        [] { return std::make_unique<CallArgs>(); },
        raises(zu::kErrorMessage, "LgmWarning(): at least one argument required"));
    add(
        "LgmWarning", "a matrix instead of an integer",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(1, 1, {0}));
            return c;
        },
        raises(zu::kErrorType));
    add(
        "LgmAbout", "arguments it does not take",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::matrix(0, INT_MAX));
            c->ref();
            return c;
        },
        custom([](const Outcome &o, CallArgs &) {
            ASSERT_FALSE(o.threw) << o.text;
            ASSERT_EQ(o.messages.size(), 8u);
            EXPECT_EQ(o.messages[0], "\nTessel version 3.00 (September 2008)");
        }));
    add(
        "LgmVersion", "arguments it does not take",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::matrix(0, INT_MAX));
            c->add(Value::real(kNaN));
            return c;
        },
        integer(300));
    return h;
}

const std::vector<Hostile> &cases() {
    static const std::vector<Hostile> c = catalogue();
    return c;
}

class BadInput : public ::testing::TestWithParam<std::size_t> {};

TEST_P(BadInput, EndsInTheDocumentedReportAndLeavesNothing) { check(cases().at(GetParam())); }

std::string case_name(const ::testing::TestParamInfo<std::size_t> &info) {
    const Hostile &h = cases().at(info.param);
    std::string s = h.entry + "_" + h.what;
    std::string out;
    for (char ch : s) out += std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
    return out.substr(0, 90) + "_" + std::to_string(info.param);
}

INSTANTIATE_TEST_SUITE_P(Catalogue, BadInput, ::testing::Range<std::size_t>(0, cases().size()),
                         case_name);

TEST(BadInputCoverage, EveryEntryPointHasHostileCases) {
    std::set<std::string> covered;
    for (const Hostile &h : cases()) covered.insert(h.entry);
    for (const char *e : {"LgmVersion", "LgmAbout", "LgmWarning", "KalmanFil", "LgmLik",
                          "LgmLikConc", "LgmRecursion", "KalmanSmo", "LgmMomentEst", "LgmLikSco",
                          "SimSmoWgt", "SimSmoDraw", "LgmCondDens", "LgmWeights", "GetLgmArma",
                          "GetLgmStsm", "GetLgmReg", "AddLgmReg", "GetLgmSpline"})
        EXPECT_TRUE(covered.count(e)) << e;
}

// ---------------------------------------------- sizes that do not fit int

// A model whose SysMat claims 2^31-1 observation rows and no state: the
// filter store would need about 2^61 rows. The check refuses it before any
// size is formed in int and before any element is read.
TEST(BadInputOverflow, StoreRowsBeyondIntAreRefused) {
    for (const EntryShape &e : entry_shapes()) {
        SCOPED_TRACE(e.name);
        const long before = zu::live_allocations().total();
        {
            std::unique_ptr<CallArgs> c = model_call(e, model(1), series(1, kTime));
            Crafted sys(INT_MAX, 0), var(INT_MAX, INT_MAX);
            const Outcome o =
                call_crafted(e.name, c->args, {{e.data_index + 1, &sys}, {e.data_index + 2, &var}});
            ASSERT_TRUE(o.threw);
            EXPECT_EQ(o.number, zu::kErrorMessage);
            EXPECT_EQ(o.text, "Lgm(): model dimension too large");
        }
        EXPECT_EQ(zu::live_allocations().total(), before);
    }
}

}  // namespace
