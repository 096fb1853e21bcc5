// test_reliability.cpp - every entry point driven through every allocation
// failure it can meet.
//
// For each entry point (and several argument variants: one series and
// several, fixed and time-varying models) the host is told to fail its k-th
// allocation, k = 1, 2, ..., until a call completes without meeting the
// failure. The library's own malloc blocks come from the host's optional
// heap (ZuHeapAlloc), so they take part too. Every failed call must end in a
// report its entry point documents for that situation (host error 4, the
// entry point's own allocation text, or its numeric-failure report) and must
// leave no host allocation live; the call that finally succeeds must give
// exactly what an undisturbed call gives. A table of the allocation sites
// reached per entry point is printed at the end of the run.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "tessel/tessel.h"
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

// ------------------------------------------------------------ argument sets

using MakeArgs = std::function<std::unique_ptr<CallArgs>()>;

constexpr int kTime = 8;

// Observations: a smooth path with one missing element per series.
Value observations(int N) {
    std::vector<double> v;
    for (int i = 0; i < N; ++i)
        for (int t = 0; t < kTime; ++t)
            v.push_back(t == 3 + i ? kNaN : 0.5 * i + 0.3 * t - 0.02 * t * t);
    return mat(N, kTime, v);
}

Value tvdata() {
    std::vector<double> v;
    for (int r = 0; r < 3; ++r)
        for (int t = 0; t < kTime; ++t) v.push_back(0.9 + 0.1 * r + 0.01 * t);
    return mat(3, kTime, v);
}

// Model block: N = 1 (local linear trend, diffuse start) or N = 2 (two
// series on a stationary VAR(1)-like state); with `tv`, one SysMat, one
// VarMat and one MeanVec element vary over time.
struct ModelSpec {
    int N;
    bool tv;
    int m() const { return 2; }
    int p() const { return m() + N; }
    std::string name() const {
        return std::string(N == 1 ? "N=1" : "N=2") + (tv ? ",tv" : ",fixed");
    }
};

void add_model(CallArgs &c, const ModelSpec &s) {
    if (s.N == 1) {
        c.add(mat(3, 2, {1, 1, 0, 1, 1, 0}));
        c.add(mat(3, 3, {0.5, 0, 0, 0, 0.1, 0, 0, 0, 1.0}));
        c.add(mat(3, 2, {-1, 0, 0, -1, 0, 0}));
        c.add(mat(3, 1, {0.1, 0, 0.2}));
        if (s.tv) {
            c.add(mat(3, 2, {-1, -1, -1, -1, 0, -1}));
            c.add(mat(3, 3, {-1, -1, -1, -1, -1, -1, -1, -1, 1}));
            c.add(mat(3, 1, {-1, -1, 2}));
            c.add(tvdata());
        }
    } else {
        c.add(mat(4, 2, {0.8, 0.1, 0, 0.5, 1, 0, 0.5, 1}));
        c.add(mat(4, 4, {1, 0.2, 0, 0, 0.2, 0.5, 0, 0, 0, 0, 0.3, 0.05, 0, 0, 0.05, 0.2}));
        c.add(mat(3, 2, {-1, 0, 0, 1.5, 0.5, 0}));
        c.add(mat(4, 1, {0.1, 0, 0.2, -0.1}));
        if (s.tv) {
            c.add(mat(4, 2, {0, -1, -1, -1, -1, -1, -1, -1}));
            c.add(mat(4, 4, {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1, -1, -1, -1, -1, -1}));
            c.add(mat(4, 1, {-1, -1, -1, 2}));
            c.add(tvdata());
        }
    }
}

// The filter store of a model, as KalmanFil returns it.
Value store_of(const ModelSpec &s) {
    CallArgs c;
    c.add(observations(s.N));
    add_model(c, s);
    return zu::call("KalmanFil", c.args);
}

// Selects the state disturbances (the observation disturbances are fixed
// by the state disturbances once the data are given, so their conditional
// variance is singular).
Value state_selection(const ModelSpec &s) {
    Value v = Value::matrix(s.p(), s.p());
    for (int i = 0; i < s.m(); ++i) v.at(i, i) = 1.0;
    return v;
}

// Simulation smoother weights and standard normal draws for SimSmoDraw.
Value weights_of(const ModelSpec &s) {
    CallArgs c;
    c.add(state_selection(s));
    c.add(store_of(s));
    add_model(c, s);
    return zu::call("SimSmoWgt", c.args);
}

Value draws(int q) {
    std::vector<double> v;
    for (int i = 0; i < q * kTime; ++i) v.push_back(((i * 37) % 19 - 9) / 5.0);
    return mat(q, kTime, v);
}

// ----------------------------------------------------- documented reports

enum class Kind { Matrix, Flag, None };

// What an entry point may report when one of its allocations fails.
struct Reports {
    Kind kind = Kind::Matrix;
    // Run-time error texts the entry point raises for its own allocation
    // failures (besides host error 4).
    std::vector<std::string> error_texts;
    // Numeric-failure report: an allocation inside a numeric routine is
    // reported like a numeric failure (return value freed, or integer 0,
    // and this message).
    std::string failure_message;
};

struct SweepCase {
    std::string entry;
    std::string variant;
    MakeArgs make;
    Reports reports;
};

// One row of the printed table.
struct Row {
    long sites = 0;
    long error4 = 0, own_text = 0, numeric = 0;
    bool clean = true;
};
std::map<std::string, std::map<std::string, Row>> &table() {
    static std::map<std::string, std::map<std::string, Row>> t;
    return t;
}

const char *kind_name(Kind k) {
    return k == Kind::Matrix ? "matrix" : k == Kind::Flag ? "flag" : "none";
}

// Calls once without injection; returns the result and messages.

void expect_same_value(const Value &a, const Value &b, const std::string &what) {
    ASSERT_EQ(a.type(), b.type()) << what;
    if (a.type() == ZU_INT) {
        EXPECT_EQ(a.as_int(), b.as_int()) << what;
    }
    if (a.type() == ZU_DOUBLE) {
        EXPECT_EQ(a.as_double(), b.as_double()) << what;
    }
    if (a.type() == ZU_MATRIX) {
        ASSERT_EQ(a.rows(), b.rows()) << what;
        ASSERT_EQ(a.cols(), b.cols()) << what;
        const std::vector<double> x = a.to_vector(), y = b.to_vector();
        for (std::size_t k = 0; k < x.size(); ++k)
            if (!(x[k] == y[k] || (x[k] != x[k] && y[k] != y[k]))) {
                ADD_FAILURE() << what << ": element " << k << " is " << x[k] << ", undisturbed "
                              << y[k];
                return;
            }
    }
}

void sweep(const SweepCase &sc) {
    SCOPED_TRACE(sc.entry + " [" + sc.variant + "]");
    sc.make();  // computes the inputs that are made once (stores, weights)
    const long live0 = zu::live_allocations().total();

    // The undisturbed call: the reference for the call that ends the sweep.
    std::unique_ptr<CallArgs> ref_args = sc.make();
    Outcome reference = call_outcome(sc.entry, ref_args->args, 20261121);
    ASSERT_FALSE(reference.threw) << "undisturbed call raised: " << reference.text;
    // Only the banner prints in an undisturbed call.
    if (sc.entry != "LgmAbout") {
        ASSERT_TRUE(reference.messages.empty())
            << "undisturbed call printed: " << reference.messages[0];
    }
    for (const Value &v : ref_args->vars) reference.refs.push_back(v);

    Row row;
    const long max_steps = 2000;
    long k = 1;
    for (; k <= max_steps; ++k) {
        const long before = zu::live_allocations().total();
        bool delivered = false;
        {
            std::unique_ptr<CallArgs> c = sc.make();
            zu::fail_allocation(k);
            Outcome o = call_outcome(sc.entry, c->args, 20261121);
            delivered = zu::injected_failure_delivered();
            zu::fail_allocation(0);
            if (!delivered) {
                // The sweep is over: this call met no failure and must be an
                // ordinary successful call.
                EXPECT_FALSE(o.threw) << "call after the last site raised " << o.text;
                expect_same_value(o.result, reference.result, "return value");
                EXPECT_EQ(o.messages, reference.messages);
                ASSERT_EQ(c->vars.size(), reference.refs.size());
                for (std::size_t r = 0; r < c->vars.size(); ++r)
                    expect_same_value(c->vars[r], reference.refs[r],
                                      "reference " + std::to_string(r));
            } else {
                ++row.sites;
                bool ok = false;
                if (o.threw && o.number == zu::kErrorMemory) {
                    ok = true;
                    ++row.error4;
                } else if (o.threw) {
                    for (const std::string &t : sc.reports.error_texts) ok = ok || o.text == t;
                    if (ok) ++row.own_text;
                } else if (!sc.reports.failure_message.empty() && o.messages.size() == 1 &&
                           o.messages[0] == sc.reports.failure_message) {
                    ok = sc.reports.kind == Kind::Matrix
                             ? o.result.is_none()
                             : (o.result.type() == ZU_INT && o.result.as_int() == 0);
                    if (ok) ++row.numeric;
                }
                if (!ok) {
                    row.clean = false;
                    ADD_FAILURE()
                        << "failing allocation " << k << " ended in an undocumented report: "
                        << (o.threw ? "error " + std::to_string(o.number) + " \"" + o.text + "\""
                                    : std::string("no error, result type ") +
                                          std::to_string(o.result.type()) + ", " +
                                          std::to_string(o.messages.size()) + " message(s)" +
                                          (o.messages.empty() ? "" : ": \"" + o.messages[0] + "\""))
                        << " (" << kind_name(sc.reports.kind) << " return)";
                }
            }
        }
        const long after = zu::live_allocations().total();
        if (after != before) {
            row.clean = false;
            ADD_FAILURE() << "failing allocation " << k << " left " << after - before
                          << " host allocation(s) live";
        }
        if (!delivered) break;
    }
    EXPECT_LT(k, max_steps) << "sweep did not finish";
    reference = Outcome();
    ref_args.reset();
    EXPECT_EQ(zu::live_allocations().total(), live0);
    if (::testing::Test::HasFailure()) row.clean = false;
    table()[sc.entry][sc.variant] = row;
}

// ------------------------------------------------------------------- cases

std::string psd(const std::string &entry) {
    return entry + "(): non-positive semi-definite innovation variance matrix";
}

const std::vector<ModelSpec> &model_specs() {
    static const std::vector<ModelSpec> specs = {{1, false}, {1, true}, {2, false}, {2, true}};
    return specs;
}

std::vector<SweepCase> all_cases() {
    std::vector<SweepCase> cases;
    auto add = [&](std::string entry, std::string variant, MakeArgs make, Reports r) {
        cases.push_back({std::move(entry), std::move(variant), std::move(make), std::move(r)});
    };

    // Informational entry points: no allocation at all.
    add("LgmVersion", "", [] { return std::make_unique<CallArgs>(); }, {Kind::None, {}, ""});
    add("LgmAbout", "", [] { return std::make_unique<CallArgs>(); }, {Kind::None, {}, ""});
    add("LgmWarning", "on",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::integer(1));  // never silence: see test_bad_input.cpp
            return c;
        },
        {Kind::None, {}, ""});

    for (const ModelSpec &s : model_specs()) {
        const std::string v = s.name();
        add("KalmanFil", v,
            [s] {
                auto c = std::make_unique<CallArgs>();
                c->add(observations(s.N));
                add_model(*c, s);
                return c;
            },
            {Kind::Matrix, {}, psd("KalmanFil")});
        for (const char *lik : {"LgmLik", "LgmLikConc"})
            add(lik, v,
                [s] {
                    auto c = std::make_unique<CallArgs>();
                    c->ref();
                    c->ref();
                    c->add(observations(s.N));
                    add_model(*c, s);
                    return c;
                },
                {Kind::Flag, {}, psd(lik)});
        add("LgmRecursion", v,
            [s] {
                auto c = std::make_unique<CallArgs>();
                std::vector<double> u;
                for (int i = 0; i < s.p() * kTime; ++i) u.push_back(0.1 * ((i * 7) % 5) - 0.2);
                c->add(mat(s.p(), kTime, u));
                add_model(*c, s);
                return c;
            },
            {Kind::Matrix, {}, ""});
        // Filter store and simulation smoother weights, computed by an
        // undisturbed call the first time the arguments are made.
        auto store = std::make_shared<Value>();
        auto weights = std::make_shared<Value>();
        auto get_store = [s, store]() -> const Value & {
            if (store->is_none()) *store = store_of(s);
            return *store;
        };
        auto get_weights = [s, weights]() -> const Value & {
            if (weights->is_none()) *weights = weights_of(s);
            return *weights;
        };
        add("KalmanSmo", v,
            [s, get_store] {
                auto c = std::make_unique<CallArgs>();
                c->add(get_store());
                add_model(*c, s);
                return c;
            },
            {Kind::Matrix, {}, ""});
        for (int sel : {0, 5, 1, 3})
            add("LgmMomentEst", v + ",sel=" + std::to_string(sel),
                [s, sel] {
                    auto c = std::make_unique<CallArgs>();
                    c->add(Value::integer(sel));
                    c->ref();
                    c->add(observations(s.N));
                    add_model(*c, s);
                    return c;
                },
                {Kind::Matrix, {}, psd("LgmMomentEst")});
        for (int refs : {2, 3})
            add("LgmLikSco", v + "," + std::to_string(refs) + " refs",
                [s, refs] {
                    auto c = std::make_unique<CallArgs>();
                    for (int r = 0; r < refs; ++r) c->ref(Value::real(-7.0));
                    c->add(observations(s.N));
                    add_model(*c, s);
                    return c;
                },
                {Kind::Flag,
                 {"LgmLikSco(): memory allocation failure"},
                 "LgmLikSco(): non-positive semi-definite innovation matrix"});
        add("SimSmoWgt", v,
            [s, get_store] {
                auto c = std::make_unique<CallArgs>();
                c->add(state_selection(s));
                c->add(get_store());
                add_model(*c, s);
                return c;
            },
            {Kind::Flag, {}, "SimSmoWgt(): choleski decomposition failed"});
        add("SimSmoDraw", v,
            [s, get_store, get_weights] {
                auto c = std::make_unique<CallArgs>();
                c->add(state_selection(s));
                c->add(draws(s.m()));
                c->add(get_weights());
                c->add(get_store());
                add_model(*c, s);
                return c;
            },
            {Kind::Matrix, {}, ""});
        for (int sel = 1; sel <= 4; ++sel)
            add("LgmCondDens", v + ",sel=" + std::to_string(sel),
                [s, sel] {
                    auto c = std::make_unique<CallArgs>();
                    c->add(Value::integer(sel));
                    c->add(observations(s.N));
                    add_model(*c, s);
                    return c;
                },
                {Kind::Matrix, {}, psd("LgmCondDens")});
        for (int sel : {0, 5, 1, 3})
            add("LgmWeights", v + ",sel=" + std::to_string(sel),
                [s, sel] {
                    auto c = std::make_unique<CallArgs>();
                    c->add(Value::integer(sel));
                    std::vector<double> marker(static_cast<std::size_t>(s.N) * kTime, 0.0);
                    marker[static_cast<std::size_t>(s.N - 1) * kTime + 5] = 1.0;
                    c->add(mat(s.N, kTime, marker));
                    add_model(*c, s);
                    return c;
                },
                {Kind::Flag, {"LgmWeights(): unknown error"}, ""});
    }

    // Model builders.
    add("GetLgmArma", "ARMA(2,1)",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(1, 2, {0.5, -0.2}));
            c->add(mat(1, 1, {0.3}));
            c->add(Value::real(1.5));
            for (int r = 0; r < 3; ++r) c->ref();
            return c;
        },
        {Kind::Flag, {"GetLgmArma(): memory allocation failure"}, "GetLgmArma(): system error"});
    add("GetLgmStsm", "trend,cycle,Butterworth,irregular",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(
                mat(4, 5, {0, 1, 0, 0, 0, 6, 1, 0.5, 0.5, 2, 7, 1, 0.3, 0.8, 0, 19, 1, 0, 0, 0}));
            for (int r = 0; r < 3; ++r) c->ref();
            return c;
        },
        {Kind::Matrix,
         {"GetLgmStsm(): memory allocation failure",
          // a scratch allocation failure inside the builder routine
          "GetLgmStsm(): no correct model specified in argument 1"},
         ""});
    add("GetLgmReg", "k=2",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(2, 3, {1, 2, 3, 4, 5, 6}));
            for (int r = 0; r < 4; ++r) c->ref();
            return c;
        },
        {Kind::Flag, {"GetLgmReg(): memory allocation failure"}, ""});
    add("AddLgmReg", "onto level",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(mat(2, 3, {1, 2, 3, 4, 5, 6}));
            c->ref(mat(2, 1, {1, 1}));
            c->ref(mat(2, 2, {1, 0, 0, 2}));
            c->ref(mat(2, 1, {-1, 0}));
            c->ref(Value::empty());
            return c;
        },
        {Kind::None, {}, ""});
    add("GetLgmSpline", "8 args",
        [] {
            auto c = std::make_unique<CallArgs>();
            c->add(Value::real(0.5));
            c->add(mat(1, 4, {1, 2, 0.5, 3}));
            for (int r = 0; r < 6; ++r) c->ref();
            return c;
        },
        {Kind::Flag, {}, ""});
    return cases;
}

// Prints the table once every sweep has run.
class SweepTable : public ::testing::Environment {
public:
    void TearDown() override {
        if (table().empty()) return;
        std::string text;
        char line[256];
        text +=
            "Allocation-failure sweep (sites = allocations failed one at a time; "
            "reports: host error 4 / own text / numeric-failure report)\n";
        std::snprintf(line, sizeof line, "%-14s %-34s %6s %8s %5s %5s  %s\n", "entry point",
                      "variant", "sites", "error 4", "text", "num", "clean");
        text += line;
        long total_sites = 0;
        for (const auto &entry : table())
            for (const auto &variant : entry.second) {
                const Row &r = variant.second;
                total_sites += r.sites;
                std::snprintf(line, sizeof line, "%-14s %-34s %6ld %8ld %5ld %5ld  %s\n",
                              entry.first.c_str(), variant.first.c_str(), r.sites, r.error4,
                              r.own_text, r.numeric, r.clean ? "yes" : "NO");
                text += line;
            }
        std::snprintf(line, sizeof line, "%zu entry points, %ld failed allocations checked\n",
                      table().size(), total_sites);
        text += line;
        std::printf("\n%s\n", text.c_str());
        // Kept for the CI log when asked for.
        if (const char *path = std::getenv("TESSEL_SWEEP_TABLE")) {
            if (std::FILE *f = std::fopen(path, "w")) {
                std::fputs(text.c_str(), f);
                std::fclose(f);
            }
        }
    }
};
::testing::Environment *const sweep_table_env = ::testing::AddGlobalTestEnvironment(new SweepTable);

// Built once, when the tests are registered; nothing is called then (the
// library is loaded by the first sweep).
const std::vector<SweepCase> &cases() {
    static const std::vector<SweepCase> c = all_cases();
    return c;
}

class AllocationSweep : public ::testing::TestWithParam<std::size_t> {};

TEST_P(AllocationSweep, EveryFailureEndsInADocumentedReportAndLeavesNothing) {
    sweep(cases().at(GetParam()));
}

std::string case_name(const ::testing::TestParamInfo<std::size_t> &info) {
    const SweepCase &c = cases().at(info.param);
    std::string s = c.entry + "_" + c.variant;
    for (char &ch : s)
        if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return s + "_" + std::to_string(info.param);
}

INSTANTIATE_TEST_SUITE_P(EveryEntryPoint, AllocationSweep,
                         ::testing::Range<std::size_t>(0, cases().size()), case_name);

// The table must name all nineteen entry points; a new entry point without a
// sweep case shows up here.
TEST(AllocationSweepCoverage, EveryEntryPointHasACase) {
    std::set<std::string> covered;
    for (const SweepCase &c : cases()) covered.insert(c.entry);
    const std::set<std::string> all = {"LgmVersion",   "LgmAbout",   "LgmWarning",   "KalmanFil",
                                       "LgmLik",       "LgmLikConc", "LgmRecursion", "KalmanSmo",
                                       "LgmMomentEst", "LgmLikSco",  "SimSmoWgt",    "SimSmoDraw",
                                       "LgmCondDens",  "LgmWeights", "GetLgmArma",   "GetLgmStsm",
                                       "GetLgmReg",    "AddLgmReg",  "GetLgmSpline"};
    EXPECT_EQ(covered, all);
}

// ------------------------------------------------ the exact initial routines
// The exact pipeline (open, filter with store and state record, the three
// smoothers, the simulation smoother, draws, bootstrap) through every
// allocation failure it meets: each ends in a 0 status with nothing live,
// and the run that meets none gives the undisturbed results bit for bit.

struct Dense {
    std::vector<double> v;
    std::vector<double *> r;
    Dense(int rows, int cols, const std::vector<double> &x = {})
        : v(x.empty() ? std::vector<double>(std::size_t(rows) * cols, 0.0) : x), r(rows) {
        for (int i = 0; i < rows; ++i) r[i] = v.data() + std::size_t(i) * cols;
    }
    double **get() { return r.data(); }
};

// Number of steps that reported a failure; every output appended to out.
int exact_pipeline(int N, bool tv, std::vector<double> &out) {
    const int m = 2, n = 9, p = m + N;
    std::vector<double> sys = {1, 1, 0, 1, 1, 0}, var(p * p, 0.0), y;
    if (N == 2) sys.insert(sys.end(), {0.5, 1});
    for (int i = 0; i < p; ++i) var[i * p + i] = 0.3 + 0.2 * i;
    var[1 * p + m] = var[m * p + 1] = 0.05;  // state noise correlated with the observation's
    for (int i = 0; i < N; ++i)
        for (int t = 0; t < n; ++t)
            y.push_back((t == 2 + i || (N == 2 && t == 5)) ? kNaN : 0.4 * t - 0.3 * i * t);
    Dense S(p, m, sys), V(p, p, var), Y(N, n, y), idx(p, m, std::vector<double>(p * m, -1.0));
    Dense tvd(1, n, std::vector<double>(n, 0.0));
    for (int t = 0; t < n; ++t) tvd.v[t] = 1.0 + 0.1 * t;
    idx.v[m * m] = 0;  // Z[0][0] from TvData row 0
    LgmExactModel rec;
    if (!LgmExactOpen(&rec, N, m, n, S.get(), V.get(), nullptr, nullptr, tv ? idx.get() : nullptr,
                      nullptr, nullptr, tv ? tvd.get() : nullptr, tv ? 1 : 0))
        return 1;
    struct Closer {
        LgmExactModel *r;
        ~Closer() { LgmExactClose(r); }
    } closer{&rec};
    LgmExactSize sz;
    LgmExactSizes(&rec, &sz);
    Dense work(sz.work_rows, sz.work_cols), store(sz.store_rows, n), states(sz.state_rows, n),
        smo(2 * p, n), dist(2 * p, n), quick(2 * m + N, n), wgt(sz.wgt_rows, n + 1),
        scratch(sz.draw_rows, n), draw(2 * m + N, n), z(p, n + 1), boot(2 * N, n);
    for (std::size_t k = 0; k < z.v.size(); ++k) z.v[k] = std::sin(1.0 + k);
    std::vector<int> src(n * N);
    for (int k = 0; k < n * N; ++k) src[k] = k;
    LgmExactLik lik;
    if (!fKalmanExact(&rec, Y.get(), work.get(), store.get(), states.get(), &lik)) return 1;
    const int td = lik.diffuse_end;
    int fails = !StateSmoExact(&rec, td, work.get(), store.get(), states.get(), smo.get());
    fails += !DistSmoExact(&rec, td, work.get(), store.get(), dist.get());
    QuickStateSmo(&rec, td, work.get(), store.get(), quick.get());
    fails += !LgmBootstrap(&rec, Y.get(), td, work.get(), store.get(), src.data(), boot.get());
    fails += !SimSmoWgtExact(&rec, td, work.get(), store.get(), wgt.get());
    fails += !SimSmoDrawExact(&rec, td, work.get(), store.get(), wgt.get(), z.get(), scratch.get(),
                              draw.get());
    out.push_back(lik.loglik);
    for (const Dense *d : {&smo, &dist, &quick, &boot, &draw})
        out.insert(out.end(), d->v.begin(), d->v.end());
    return fails;
}

TEST(ExactRoutines, EveryAllocationFailureEndsInAZeroStatusAndLeavesNothing) {
    for (int N : {1, 2})
        for (bool tv : {false, true}) {
            SCOPED_TRACE("N = " + std::to_string(N) + (tv ? ", time-varying" : ""));
            std::vector<double> ref;
            ASSERT_EQ(exact_pipeline(N, tv, ref), 0);
            long k = 1;
            for (; k < 500; ++k) {
                const long before = zu::live_allocations().total();
                std::vector<double> got;
                zu::fail_allocation(k);
                const int fails = exact_pipeline(N, tv, got);
                const bool delivered = zu::injected_failure_delivered();
                zu::fail_allocation(0);
                EXPECT_EQ(zu::live_allocations().total(), before) << "failing allocation " << k;
                if (!delivered) {
                    EXPECT_EQ(fails, 0);
                    ASSERT_EQ(got.size(), ref.size());
                    for (std::size_t i = 0; i < got.size(); ++i)
                        ASSERT_TRUE(got[i] == ref[i] || (got[i] != got[i] && ref[i] != ref[i]))
                            << "output " << i;
                    break;
                }
                EXPECT_GT(fails, 0) << "failing allocation " << k << " went unreported";
            }
            EXPECT_GT(k, 1);
            EXPECT_LT(k, 500);
        }
}

}  // namespace
