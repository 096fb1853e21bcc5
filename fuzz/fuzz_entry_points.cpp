// fuzz_entry_points.cpp - libFuzzer harness: bytes -> an entry point and an
// argument list, called through the host as an interpreter would call it.
//
// A call may return or raise a host error (zu::Error); anything else - a
// crash, a sanitizer report, a hang, a leak, or host storage left live after
// the call - is a finding.
//
// Input layout (every read past the end yields zeros, so any input decodes):
//   byte 0   entry point (index into kEntries, modulo 20; the last slot is
//            the exact initial routines, called natively, see exact_pipeline)
//   byte 1   form: low two bits 0 = raw argument list, else a model-shaped
//            argument list for the entry points that take a model block
//   then     the arguments, each decoded by Decoder below.
//
// Two documented behaviours end the process with status 0 and are kept out
// of reach on purpose: LgmWarning without an argument while messages are
// silenced, and a partial time-varying block while messages are silenced.
// Both need the message switch off, so the harness never silences messages:
// LgmWarning is always given an integer of 1 or more, or no argument at all
// (which, with messages on, raises a host error).
//
// Cost bounds that are not findings: a matrix holds at most kMaxElements
// elements (the work of every recursion grows with the model and the series
// it is given), and the ARMA coefficient vectors hold at most 12 elements
// (the stationary variance solves an m^2 x m^2 system, so the work grows as
// m^6); structural-model periods between 257 and 400000 are folded below 256
// (such a model's three result matrices fill gigabytes; larger periods are
// kept, since the host refuses their results outright). Dimensions with no
// elements are unbounded: 0 x 2^31-1 is cheap and must be handled as such.
#include <dlfcn.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <limits>
#include <string>
#include <vector>

#include "tessel/host.hpp"
#include "tessel/tessel.h"

namespace {

using zu::Value;

const char *const kEntries[] = {"LgmVersion",   "LgmAbout",   "LgmWarning",   "KalmanFil",
                                "LgmLik",       "LgmLikConc", "LgmRecursion", "KalmanSmo",
                                "LgmMomentEst", "LgmLikSco",  "SimSmoWgt",    "SimSmoDraw",
                                "LgmCondDens",  "LgmWeights", "GetLgmArma",   "GetLgmStsm",
                                "GetLgmReg",    "AddLgmReg",  "GetLgmSpline", "exact"};
constexpr int kEntryCount = sizeof kEntries / sizeof kEntries[0];

constexpr long kMaxElements = 2048;

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const double kSpecial[] = {0.0,
                           1.0,
                           -1.0,
                           0.5,
                           -0.5,
                           2.9,
                           -2.9,
                           2.0,
                           3.0,
                           4.0,
                           5.0,
                           6.0,
                           7.0,
                           12.0,
                           19.0,
                           20.0,
                           1e-300,
                           -1e-300,
                           5e-324,
                           1e300,
                           -1e300,
                           1.7976931348623157e308,
                           -1.7976931348623157e308,
                           kInf,
                           -kInf,
                           kNaN,
                           -kNaN,
                           2147483647.0,
                           2147483648.0,
                           -2147483648.0,
                           -2147483649.0,
                           1e10,
                           -1e10,
                           0.999999,
                           1.000001,
                           1e-8,
                           9999999.99};
constexpr int kSpecialCount = sizeof kSpecial / sizeof kSpecial[0];
const int kSpecialInt[] = {0, 1, 2, 3, 4, 5, 6, -1, -2, 7, 100, INT_MAX, INT_MIN, INT_MAX - 1};
constexpr int kSpecialIntCount = sizeof kSpecialInt / sizeof kSpecialInt[0];
// Dimensions: small ones mostly, the rest for matrices without elements.
const int kBigDims[] = {INT_MAX, INT_MAX - 1, 1 << 30, 65536, 46341, 1000000};
constexpr int kBigDimCount = sizeof kBigDims / sizeof kBigDims[0];

class Decoder {
public:
    Decoder(const std::uint8_t *data, std::size_t size) : p_(data), n_(size) {}

    std::uint8_t u8() { return pos_ < n_ ? p_[pos_++] : 0; }
    std::uint32_t u32() {
        std::uint32_t x = 0;
        for (int k = 0; k < 4; ++k) x |= static_cast<std::uint32_t>(u8()) << (8 * k);
        return x;
    }
    double f64() {
        std::uint64_t bits = 0;
        for (int k = 0; k < 8; ++k) bits |= static_cast<std::uint64_t>(u8()) << (8 * k);
        double x;
        std::memcpy(&x, &bits, sizeof x);
        return x;
    }

    int integer() {
        const std::uint8_t how = u8();
        if (how < 160) return kSpecialInt[how % kSpecialIntCount];
        if (how < 220) return static_cast<int>(how) - 190;
        return static_cast<int>(u32());
    }

    double real() {
        const std::uint8_t how = u8();
        if (how < 128) return kSpecial[how % kSpecialCount];
        if (how < 200) return (static_cast<int>(u8()) - 128) / 16.0;  // modest values
        return f64();
    }

    // A fill style for a whole matrix: most matrices are ordinary numbers
    // with a few special values sprinkled in.
    void fill(Value &v) {
        const int rows = v.rows(), cols = v.cols();
        const long count = static_cast<long>(rows) * cols;
        if (count == 0) return;
        const std::uint8_t style = u8();
        double **d = v.data();
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) {
                double x;
                switch (style % 6) {
                    case 0:
                        x = (i == j) ? 1.0 : 0.0;
                        break;
                    case 1:
                        x = kSpecial[(i * 7 + j * 3 + style) % kSpecialCount];
                        break;
                    case 2:
                        x = (static_cast<int>(u8()) - 128) / 32.0;
                        break;
                    case 3:
                        x = real();
                        break;
                    case 4:
                        x = (i == j) ? real() : 0.0;
                        break;
                    default:
                        x = static_cast<double>(static_cast<int>(u8() % 9) - 2);
                        break;  // index-like
                }
                d[i][j] = x;
            }
    }

    // Dimensions: small ones, or a huge one paired with zero.
    void dims(int *rows, int *cols) {
        const std::uint8_t how = u8();
        if (how < 200) {
            *rows = u8() % 9;
            *cols = u8() % 9;
        } else if (how < 230) {
            *rows = u8() % 65;
            *cols = u8() % 65;
        } else if (how < 243) {
            *rows = 0;
            *cols = kBigDims[u8() % kBigDimCount];
        } else {
            // A huge row count needs a row-pointer array in our host even
            // without elements: keep it to what the host can hold cheaply.
            *rows = 1 + u8() % 65536;
            *cols = 0;
        }
        if (static_cast<long>(*rows) * *cols > kMaxElements)
            *cols = static_cast<int>(kMaxElements / (*rows ? *rows : 1));
    }

    Value matrix(int rows, int cols) {
        if (static_cast<long>(rows) * cols > kMaxElements)
            cols = static_cast<int>(kMaxElements / (rows ? rows : 1));
        Value v = Value::matrix(rows, cols);
        fill(v);
        return v;
    }

    Value any_matrix() {
        int r, c;
        dims(&r, &c);
        return matrix(r, c);
    }

    // A value of any type except a reference.
    Value plain() {
        switch (u8() % 6) {
            case 0:
                return Value::integer(integer());
            case 1:
                return Value::real(real());
            case 2:
                return Value::empty();
            case 3:
                return Value();  // nothing
            default:
                return any_matrix();
        }
    }

    std::size_t used() const { return pos_; }

private:
    const std::uint8_t *p_;
    std::size_t n_;
    std::size_t pos_ = 0;
};

// Arguments and the variables their references name.
struct Call {
    std::deque<Value> vars;
    std::vector<Value> args;
    void ref(Value initial) {
        vars.push_back(std::move(initial));
        args.push_back(Value::ref(vars.back()));
    }
};

void raw_argument(Decoder &d, Call &c) {
    if (d.u8() % 5 == 0)
        c.ref(d.plain());
    else
        c.args.push_back(d.plain());
}

// Where the model block starts for each entry point that takes one, and
// the check mode of its data argument.
struct ModelEntry {
    const char *name;
    int leading;  // arguments before the data argument
    int mode;
};
const ModelEntry kModelEntries[] = {
    {"KalmanFil", 0, 0},  {"LgmLik", 2, 0},       {"LgmLikConc", 2, 0}, {"LgmRecursion", 0, 2},
    {"KalmanSmo", 0, 1},  {"LgmMomentEst", 2, 0}, {"LgmLikSco", 2, 0},  {"SimSmoWgt", 1, 1},
    {"SimSmoDraw", 3, 1}, {"LgmCondDens", 1, 0},  {"LgmWeights", 1, 0}};

const ModelEntry *model_entry(const std::string &name) {
    for (const ModelEntry &e : kModelEntries)
        if (name == e.name) return &e;
    return nullptr;
}

// Perturbs a dimension now and then, so shape checks are met from both sides.
int maybe_off(Decoder &d, int x) {
    const std::uint8_t how = d.u8();
    if (how < 232) return x;
    if (how < 244) return x + 1;
    if (how < 252) return x > 0 ? x - 1 : 0;
    return 0;
}

// A model-shaped argument list: leading arguments of the right kinds, a
// data argument of the mode's shape, and the model block with optional
// parts present, absent, or misshapen.
void model_arguments(Decoder &d, Call &c, const ModelEntry &e) {
    const int N = 1 + d.u8() % 3;
    const int m = d.u8() % 4;
    const int n = d.u8() % 12;
    const int p = m + N;
    const int S = N + N * (N + 1) / 2 + m * N;
    const std::string name = e.name;

    int leading = e.leading;
    if (name == "LgmLikSco" && d.u8() % 2) leading = 3;
    for (int k = 0; k < leading; ++k) {
        const std::uint8_t how = d.u8();
        const bool selection_slot =
            (k == 0) && (name == "LgmMomentEst" || name == "LgmCondDens" || name == "LgmWeights");
        if (selection_slot && how < 200) {
            c.args.push_back(Value::integer(d.integer()));
        } else if ((name == "SimSmoWgt" || name == "SimSmoDraw") && how < 200) {
            // selection p x p; draws q x n; weights
            if (k == 0) {
                c.args.push_back(d.matrix(maybe_off(d, p), maybe_off(d, p)));
            } else {
                const int q = 1 + d.u8() % p;
                const int rows = k == 1 ? q : static_cast<int>((p + (q + 1) * 0.5) * q);
                c.args.push_back(d.matrix(maybe_off(d, rows), maybe_off(d, n)));
            }
        } else if (how < 220) {
            c.ref(d.plain());
        } else {
            c.args.push_back(d.plain());
        }
    }
    const int data_rows = e.mode == 0 ? N : e.mode == 1 ? S : p;
    c.args.push_back(d.matrix(maybe_off(d, data_rows), maybe_off(d, n)));
    c.args.push_back(d.matrix(maybe_off(d, p), maybe_off(d, m)));  // SysMat
    c.args.push_back(d.matrix(maybe_off(d, p), maybe_off(d, p)));  // VarMat
    // InitMat .. TvData: how many follow; with all six, often a well-formed
    // time-varying block (index entries mostly -1 or a TvData row).
    const std::uint8_t opt = d.u8();
    const int optional = opt < 96 ? 6 : opt % 7;
    const bool tv_block = optional == 6 && opt < 96;
    const int tv_rows = 1 + d.u8() % 4;
    const int shapes[6][2] = {{m + 1, m}, {p, 1}, {p, m}, {p, p}, {p, 1}, {tv_rows, n}};
    for (int k = 0; k < optional; ++k) {
        const std::uint8_t how = d.u8();
        if (tv_block && k >= 2 && k <= 4 && how >= 40) {
            Value idx = Value::matrix(shapes[k][0], shapes[k][1]);
            for (int r = 0; r < idx.rows(); ++r)
                for (int col = 0; col < idx.cols(); ++col) {
                    const std::uint8_t e = d.u8();
                    double x = -1.0;
                    if (e >= 176)
                        x = static_cast<double>(e % (tv_rows + 1));  // one past the end at times
                    if (e >= 250) x = e == 255 ? -0.5 : e == 254 ? 2147483648.0 : x + 0.9;
                    idx.at(r, col) = x;
                }
            c.args.push_back(std::move(idx));
        } else if (tv_block && k == 5 && how >= 20) {
            c.args.push_back(d.matrix(tv_rows, n));
        } else if (how < 40) {
            c.args.push_back(Value::real(0.0));  // absent
        } else if (how < 60) {
            c.args.push_back(Value::empty());
        } else if (how < 70) {
            c.args.push_back(d.plain());
        } else {
            c.args.push_back(d.matrix(maybe_off(d, shapes[k][0]), maybe_off(d, shapes[k][1])));
        }
    }
}

void builder_arguments(Decoder &d, Call &c, const std::string &name) {
    if (name == "GetLgmArma") {
        for (int k = 0; k < 2; ++k) {
            const std::uint8_t how = d.u8();
            const int len = d.u8() % 13;  // see the cost bound above
            if (how < 100) {
                c.args.push_back(d.matrix(1, len));
            } else if (how < 200) {
                c.args.push_back(d.matrix(len, 1));
            } else {
                c.args.push_back(d.plain());
            }
        }
        c.args.push_back(d.u8() < 230 ? Value::real(d.real()) : d.plain());
        for (int k = 0; k < 3; ++k) c.ref(d.u8() < 230 ? Value() : d.plain());
    } else if (name == "GetLgmStsm") {
        const int rows = d.u8() % 7;
        const int cols = d.u8() % 7;
        Value t = Value::matrix(rows, cols);
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j)
                t.at(i, j) = j == 0 ? static_cast<double>(d.u8() % 22) - 1 : d.real();
        c.args.push_back(std::move(t));
        const int refs = 3 + d.u8() % 2;
        for (int k = 0; k < refs; ++k) c.ref(Value());
    } else if (name == "GetLgmReg" || name == "AddLgmReg") {
        c.args.push_back(d.any_matrix());
        const int m = d.u8() % 4;
        for (int k = 0; k < 4; ++k) {
            const std::uint8_t how = d.u8();
            if (name == "AddLgmReg" && how < 150) {
                const int shape[4][2] = {{m + 1, m}, {m + 1, m + 1}, {m + 1, m}, {0, 0}};
                c.ref(m == 0 || k == 3 ? Value::empty() : d.matrix(shape[k][0], shape[k][1]));
            } else if (how < 230) {
                c.ref(Value());
            } else {
                c.ref(d.plain());
            }
        }
    } else {  // GetLgmSpline
        const int nargs = (d.u8() % 3 == 0) ? 4 + d.u8() % 6 : (d.u8() % 2 ? 8 : 5);
        c.args.push_back(d.u8() < 230 ? Value::real(d.real()) : d.plain());
        c.args.push_back(d.u8() < 200 ? d.matrix(1, d.u8() % 16) : d.plain());
        for (int k = 2; k < nargs; ++k) c.ref(d.u8() < 240 ? Value() : d.plain());
    }
}

// The cost bounds of the top of this file, applied to the decoded
// arguments whatever form produced them. Only sizes that the host would
// grant but that would take seconds or gigabytes are folded; sizes the host
// refuses outright (beyond 1 TiB) are kept, since their refusal is part of
// what is tested.
void bound_costs(const std::string &name, std::vector<Value> &args) {
    if (name == "GetLgmArma") {
        // ARMA coefficient vectors: at most 12 (the work grows as m^6).
        for (int k = 0; k < 2 && k < static_cast<int>(args.size()); ++k) {
            Value &v = args[k];
            if (v.type() != ZU_MATRIX || (v.rows() != 1 && v.cols() != 1)) continue;
            if (static_cast<long>(v.rows()) * v.cols() <= 12) continue;
            Value shorter = Value::matrix(v.rows() == 1 ? 1 : 12, v.rows() == 1 ? 12 : 1);
            for (int e = 0; e < 12; ++e)
                shorter.data()[v.rows() == 1 ? 0 : e][v.rows() == 1 ? e : 0] =
                    v.rows() == 1 ? v.at(0, e) : v.at(e, 0);
            v = std::move(shorter);
        }
    } else if (args.empty() || args[0].type() != ZU_MATRIX) {
        return;
    } else if (name == "GetLgmStsm") {
        // Column 2 holds seasonal periods and trend orders, which set the
        // state count m; the three results hold (m+1)^2 doubles each.
        Value &t = args[0];
        if (t.cols() > 2)
            for (int i = 0; i < t.rows(); ++i) {
                double &x = t.at(i, 2);
                if (x > 256.0 && x < 400000.0) x = std::fmod(x, 256.0);
            }
    } else if (name == "GetLgmReg" || name == "AddLgmReg") {
        // k regressor rows give results of (m+k+1)^2 doubles.
        if (args[0].rows() > 256)
            args[0] = Value::matrix(args[0].rows() % 257, args[0].cols() ? 1 : 0);
    }
}

// The exact initial routines on a model of the shapes their contract asks
// for, with decoded values (NaN, infinities, huge and tiny numbers, zero and
// indefinite variances, index entries up to one past TvData's rows): every
// routine of the pipeline runs on what the filter left, whatever it
// reported.
template <class F>
F exact_routine(const char *name) {
    F f = reinterpret_cast<F>(zu::find_symbol(name));
    if (!f) {
        std::fprintf(stderr, "fuzz: %s not exported\n", name);
        std::abort();
    }
    return f;
}

void exact_pipeline(Decoder &d) {
    static const auto open = exact_routine<decltype(&LgmExactOpen)>("LgmExactOpen");
    static const auto close = exact_routine<decltype(&LgmExactClose)>("LgmExactClose");
    static const auto sizes = exact_routine<decltype(&LgmExactSizes)>("LgmExactSizes");
    static const auto filter = exact_routine<decltype(&fKalmanExact)>("fKalmanExact");
    static const auto state = exact_routine<decltype(&StateSmoExact)>("StateSmoExact");
    static const auto dist = exact_routine<decltype(&DistSmoExact)>("DistSmoExact");
    static const auto quick = exact_routine<decltype(&QuickStateSmo)>("QuickStateSmo");
    static const auto wgt = exact_routine<decltype(&SimSmoWgtExact)>("SimSmoWgtExact");
    static const auto draw = exact_routine<decltype(&SimSmoDrawExact)>("SimSmoDrawExact");
    static const auto boot = exact_routine<decltype(&LgmBootstrap)>("LgmBootstrap");
    const int N = 1 + d.u8() % 3, m = 1 + d.u8() % 4, n = d.u8() % 12, p = m + N;
    const int tvrows = 1 + d.u8() % 3;
    Value y = d.matrix(N, n), sys = d.matrix(p, m), var = d.matrix(p, p), init = d.matrix(m + 1, m),
          mean = d.matrix(p, 1), tv = d.matrix(tvrows, n);
    Value idx[3] = {Value::matrix(p, m), Value::matrix(p, p), Value::matrix(p, 1)};
    for (Value &x : idx)
        for (int r = 0; r < x.rows(); ++r)
            for (int c = 0; c < x.cols(); ++c) {
                const std::uint8_t e = d.u8();
                x.at(r, c) = e < 200 ? -1.0 : static_cast<double>(e % (tvrows + 1));
            }
    const std::uint8_t parts = d.u8();
    auto part = [&](int bit, Value &v) { return (parts >> bit & 1) ? v.data() : nullptr; };
    LgmExactModel rec;
    if (!open(&rec, N, m, n, sys.data(), var.data(), part(0, init), part(1, mean), part(2, idx[0]),
              part(3, idx[1]), part(4, idx[2]), part(5, tv), (parts >> 5 & 1) ? tvrows : 0))
        return;
    LgmExactSize sz;
    sizes(&rec, &sz);
    const int cols = n > 0 ? n : 1;
    Value work = Value::matrix(sz.work_rows, sz.work_cols),
          store = Value::matrix(sz.store_rows, cols), states = Value::matrix(sz.state_rows, cols),
          out = Value::matrix(2 * p, cols), w = Value::matrix(sz.wgt_rows, n + 1),
          scratch = Value::matrix(sz.draw_rows, cols), z = d.matrix(p, n + 1),
          b = Value::matrix(2 * N, cols);
    std::vector<int> src(static_cast<std::size_t>(n) * N);
    for (std::size_t k = 0; k < src.size(); ++k) src[k] = static_cast<int>(k);
    LgmExactLik lik;
    if (filter(&rec, y.data(), work.data(), store.data(), states.data(), &lik)) {
        const int td = lik.diffuse_end;
        state(&rec, td, work.data(), store.data(), states.data(), out.data());
        dist(&rec, td, work.data(), store.data(), out.data());
        quick(&rec, td, work.data(), store.data(), out.data());
        boot(&rec, y.data(), td, work.data(), store.data(), src.data(), b.data());
        if (wgt(&rec, td, work.data(), store.data(), w.data()))
            draw(&rec, td, work.data(), store.data(), w.data(), z.data(), scratch.data(),
                 out.data());
    }
    close(&rec);
}

void discard_message(const char *) {}

// The library's message switch; it must stay 0 (see the top of this file).
const int *g_no_messages = nullptr;

// A value handed back by a call must be one the host can hold and free.
void check_value(const Value &v, const char *what) {
    const int type = v.type();
    bool ok = type == ZU_NONE || type == ZU_INT || type == ZU_DOUBLE || type == ZU_MATRIX;
    if (ok && type == ZU_MATRIX)
        ok = v.rows() >= 0 && v.cols() >= 0 &&
             (v.data() != nullptr || (v.rows() == 0 && v.cols() == 0));
    if (!ok) {
        std::fprintf(stderr, "fuzz: malformed %s (type %d)\n", what, type);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    try {
        zu::load_library();
    } catch (const zu::Error &e) {
        std::fprintf(stderr, "fuzz: %s\n", e.what());
        std::abort();
    }
    zu::set_message_sink(discard_message);
    void *lib = dlopen(zu::library_path().c_str(), RTLD_NOW | RTLD_NOLOAD);
    g_no_messages = lib ? static_cast<const int *>(dlsym(lib, "fLgmNoErrorMessage")) : nullptr;
    if (!g_no_messages) {
        std::fprintf(stderr, "fuzz: fLgmNoErrorMessage not found\n");
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const long live_before = zu::live_allocations().total();
    {
        Decoder d(data, size);
        const std::string name = kEntries[d.u8() % kEntryCount];
        const std::uint8_t form = d.u8();
        Call c;
        const bool exact = name == "exact";
        try {
            if (exact) {
                exact_pipeline(d);  // native calls, not an entry point
            } else if (name == "LgmWarning") {
                // Never silence messages (see the top of this file).
                if (form % 4 != 0) c.args.push_back(Value::integer(1 + d.u8() % 4));
            } else if (form % 4 == 0) {
                const int nargs = d.u8() % 13;
                for (int k = 0; k < nargs; ++k) raw_argument(d, c);
            } else if (const ModelEntry *e = model_entry(name)) {
                model_arguments(d, c, *e);
            } else if (name.compare(0, 3, "Get") == 0 || name == "AddLgmReg") {
                builder_arguments(d, c, name);
            }
            bound_costs(name, c.args);
        } catch (const zu::Error &) {
            return 0;  // the harness could not build its own arguments
        }
        zu::set_seed(12345);
        try {
            if (!exact) {
                Value r = zu::call(name, c.args);
                check_value(r, "return value");
                for (const Value &v : c.vars) check_value(v, "reference target");
            }
        } catch (const zu::Error &) {
            // a host error is a proper end of a call
        }
        if (*g_no_messages != 0) {
            std::fprintf(stderr, "fuzz: messages were silenced by %s\n", name.c_str());
            std::abort();
        }
    }
    const long live_after = zu::live_allocations().total();
    if (live_after != live_before) {
        std::fprintf(stderr, "fuzz: %ld host allocation(s) left live by the call\n",
                     live_after - live_before);
        std::abort();
    }
    return 0;
}
