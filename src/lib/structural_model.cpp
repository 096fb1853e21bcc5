// structural_model.cpp - structural time series models built from a table
// of components (level, slope, trend, seasonals, cycles, autoregressive
// components, irregular): the numeric routine fGetLgmUnivStsm, which places
// the blocks in a fixed order, and the entry point GetLgmStsm, which
// validates the table and counts the state dimension.
#include <cmath>

#include "frame.h"

using namespace tessel;

namespace {

// Component codes of column 0.
enum Code {
    kLevel = 0,
    kSlope = 1,
    kTrend = 2,
    kDummySeasonal = 3,
    kTrigSeasonal = 4,
    kSumSeasonal = 5,
    kButterworth = 6,
    kFirstCycle = 7,
    kLastCycle = 16,
    kAr1 = 17,
    kAr2 = 18,
    kIrregular = 19,
    kCodes = 20,
};

// Butterworth orders are below 10; the closed-form initial variance keeps
// its rotation powers in a fixed array.
constexpr int kMaxButterworth = 9;
// Upper bound for integer parameters read from the table (a seasonal period
// beyond it could not be allocated anyway), so truncation stays in int.
constexpr double kMaxPeriod = 1 << 24;

// trunc(x) as an int, clamped into [-1, kMaxPeriod]; NaN gives -1.
int truncated(double x) {
    if (!(x > -1.0)) return -1;
    if (x > kMaxPeriod) return static_cast<int>(kMaxPeriod);
    return static_cast<int>(x);
}

// Component code of a table row, or -1 when it names no component.
int code_of(const double *row) {
    const double x = row[0];
    return (x > -1.0 && x < kCodes) ? static_cast<int>(x) : -1;
}

bool within(double x, double lo, double hi) { return x >= lo && x <= hi; }

// Initial variance of a Butterworth cycle of order n (blocks at c, c+2, ...,
// c+2n-2) in closed form: block (u, w), u <= w, is
// sigma2 M[n-1-w][n-1-u] B^(w-u) with B = rho [[cos, -sin], [sin, cos]].
// The 2n x 2n block is built in scratch and copied into init. False when a
// scratch allocation fails.
bool butterworth_init(int n, double lambda, double rho, double sigma2, int c, double **init) {
    Block M, P;
    if (!M.alloc(n, n) || !P.alloc(2 * n, 2 * n)) return false;
    const double rho2 = rho * rho;
    const double g = 1.0 - rho2;
    M[0][0] = 1.0;
    for (int j = 1; j < n; ++j) {
        M[0][j] = M[0][j - 1] / g;
        for (int k = 1; k < j; ++k)
            M[k][j] = (rho2 * M[k - 1][j] + M[k][j - 1] + M[k - 1][j - 1]) / g;
        M[j][j] = (2.0 * rho2 * M[j - 1][j] + M[j - 1][j - 1]) / g;
    }
    // Rotation powers B_d, d = 0..n-1, as (B[d][0], B[d][1]; B[d][2], B[d][3]).
    double B[kMaxButterworth][4];
    const double a = rho * std::cos(lambda), b = rho * std::sin(lambda);
    B[0][0] = 1.0, B[0][1] = 0.0, B[0][2] = 0.0, B[0][3] = 1.0;
    for (int d = 1; d < n; ++d) {
        const double *q = B[d - 1];
        B[d][0] = q[0] * a + q[1] * b;
        B[d][1] = -q[0] * b + q[1] * a;
        B[d][2] = q[2] * a + q[3] * b;
        B[d][3] = -q[2] * b + q[3] * a;
    }
    for (int u = 0; u < n; ++u) {
        for (int w = u; w < n; ++w) {
            const double f = sigma2 * M[n - 1 - w][n - 1 - u];
            const double *e = B[w - u];
            const int ru = 2 * u, rw = 2 * w;
            P[ru][rw] = f * e[0];
            P[ru][rw + 1] = f * e[1];
            P[ru + 1][rw] = f * e[2];
            P[ru + 1][rw + 1] = f * e[3];
            P[rw][ru] = f * e[0];
            P[rw + 1][ru] = f * e[1];
            P[rw][ru + 1] = f * e[2];
            P[rw + 1][ru + 1] = f * e[3];
        }
    }
    for (int i = 0; i < 2 * n; ++i)
        for (int j = 0; j < 2 * n; ++j) init[c + i][c + j] = P[i][j];
    return true;
}

}  // namespace

TESSEL_EXPORT int fGetLgmUnivStsm(int *rowofcode, double **table, int m, double *start,
                                  double **sys, double **var, double **init) {
    if (m < 1) return 0;
    MatZero(sys, m + 1, m);
    MatZero(var, m + 1, m + 1);
    MatZero(init, m + 1, m);
    double *Z = sys[m];
    int c = 0;  // next free state position

    // Every block is checked to fit before it is written: a table whose
    // counted states differ from what is placed fails instead of writing
    // outside the matrices.
    auto fits = [&](int size) { return size >= 0 && c + size <= m; };
    auto sigma2_of = [&](int row) { return table[row][1] * table[row][1]; };
    auto place_start = [&](int row) { start[row] = c; };

    if (rowofcode[kLevel] >= 0) {
        const int row = rowofcode[kLevel];
        if (!fits(1)) return 0;
        place_start(row);
        sys[0][0] = 1.0;
        Z[0] = 1.0;
        var[0][0] = sigma2_of(row);
        init[0][0] = -1.0;
        c = 1;
        if (rowofcode[kSlope] >= 0) {  // a slope needs the level it drives
            const int srow = rowofcode[kSlope];
            if (!fits(1)) return 0;
            place_start(srow);
            sys[c - 1][c] = 1.0;
            sys[c][c] = 1.0;
            var[c][c] = sigma2_of(srow);
            init[c][c] = -1.0;
            c += 1;
        }
    }

    if (rowofcode[kTrend] >= 0) {
        const int row = rowofcode[kTrend];
        const int k = truncated(table[row][2]);
        if (k < 1 || !fits(k)) return 0;
        place_start(row);
        Z[c] = 1.0;
        for (int j = c; j < c + k - 1; ++j) {
            sys[j][j] = 1.0;
            sys[j][j + 1] = 1.0;
            init[j][j] = -1.0;
        }
        const int j = c + k - 1;  // only the highest-order element is disturbed
        sys[j][j] = 1.0;
        var[j][j] = sigma2_of(row);
        init[j][j] = -1.0;
        c += k;
    }

    if (rowofcode[kButterworth] >= 0) {
        const int row = rowofcode[kButterworth];
        const double lambda = table[row][2], rho = table[row][3];
        const double sigma2 = sigma2_of(row);
        const int n = truncated(table[row][4]);
        if (n < 1 || n > kMaxButterworth || !fits(2 * n)) return 0;
        place_start(row);
        const double a = rho * std::cos(lambda), b = rho * std::sin(lambda);
        for (int i = 0; i < n; ++i) {
            const int p = c + 2 * i;
            sys[p][p] = sys[p + 1][p + 1] = a;
            sys[p][p + 1] = b;
            sys[p + 1][p] = -b;
            if (i < n - 1) {  // the next block drives this one
                sys[p][p + 2] = 1.0;
                sys[p + 1][p + 3] = 1.0;
            }
        }
        const int last = c + 2 * (n - 1);
        var[last][last] = var[last + 1][last + 1] = sigma2 * (1.0 - rho * rho);
        Z[c] = 1.0;
        if (!butterworth_init(n, lambda, rho, sigma2, c, init)) return 0;
        c += 2 * n;
    }

    const int seasonal_code = rowofcode[kDummySeasonal] >= 0  ? kDummySeasonal
                              : rowofcode[kTrigSeasonal] >= 0 ? kTrigSeasonal
                              : rowofcode[kSumSeasonal] >= 0  ? kSumSeasonal
                                                              : -1;
    if (seasonal_code >= 0) {
        const int row = rowofcode[seasonal_code];
        const int s = truncated(table[row][2]);
        const double sigma2 = sigma2_of(row);
        const int size = seasonal_code == kSumSeasonal ? s : s - 1;
        if (s < 2 || !fits(size)) return 0;
        place_start(row);
        if (seasonal_code == kDummySeasonal) {
            for (int j = 0; j <= s - 2; ++j) sys[c][c + j] = -1.0;
            for (int j = 0; j <= s - 3; ++j) sys[c + j + 1][c + j] = 1.0;
            Z[c] = 1.0;
            var[c][c] = sigma2;
        } else if (seasonal_code == kTrigSeasonal) {
            const int h = (s % 2 == 0) ? s / 2 - 1 : (s - 1) / 2;
            const double step = kTwoPi / s;
            double lambda = 0.0;
            for (int j = 1; j <= h; ++j) {
                lambda += step;
                const int p = c + 2 * (j - 1);
                const double cs = std::cos(lambda), sn = std::sin(lambda);
                sys[p][p] = sys[p + 1][p + 1] = cs;
                sys[p][p + 1] = sn;
                sys[p + 1][p] = -sn;
                Z[p] = 1.0;
            }
            if (s % 2 == 0) {  // the frequency pi has one element
                const int p = c + 2 * h;
                sys[p][p] = -1.0;
                Z[p] = 1.0;
            }
            for (int j = c; j < c + s - 1; ++j) var[j][j] = sigma2;
        } else {
            for (int j = 0; j <= s - 2; ++j) sys[c + j][c + j + 1] = 1.0;
            sys[c + s - 1][c] = 1.0;
            Z[c] = 1.0;
            // Disturbances summing to zero; the diffuse pattern is
            // proportional to s I - 1 1'.
            const double off = -sigma2 / (s - 1);
            for (int i = c; i < c + s; ++i) {
                for (int j = c; j < c + s; ++j) {
                    var[i][j] = i == j ? sigma2 : off;
                    init[i][j] = i == j ? -(s - 1.0) : -1.0;
                }
            }
        }
        if (seasonal_code != kSumSeasonal)
            for (int j = c; j < c + s - 1; ++j) init[j][j] = -1.0;
        c += size;
    }

    for (int code = kFirstCycle; code <= kLastCycle; ++code) {
        const int row = rowofcode[code];
        if (row < 0) continue;
        if (!fits(2)) return 0;
        place_start(row);
        const double lambda = table[row][2], rho = table[row][3];
        const double sigma2 = sigma2_of(row);
        const double a = rho * std::cos(lambda), b = rho * std::sin(lambda);
        Z[c] = 1.0;
        sys[c][c] = sys[c + 1][c + 1] = a;
        sys[c][c + 1] = b;
        sys[c + 1][c] = -b;
        var[c][c] = var[c + 1][c + 1] = sigma2 * (1.0 - rho * rho);
        init[c][c] = init[c + 1][c + 1] = sigma2;
        c += 2;
    }

    if (rowofcode[kAr1] >= 0) {
        const int row = rowofcode[kAr1];
        if (!fits(1)) return 0;
        place_start(row);
        const double phi = table[row][3];
        const double sigma2 = sigma2_of(row);
        sys[c][c] = phi;
        Z[c] = 1.0;
        init[c][c] = sigma2;
        var[c][c] = sigma2 * (1.0 - phi * phi);
        c += 1;
    }

    if (rowofcode[kAr2] >= 0) {
        const int row = rowofcode[kAr2];
        if (!fits(2)) return 0;
        place_start(row);
        const double r1 = table[row][3], r2 = table[row][4];
        const double sigma2 = sigma2_of(row);  // unconditional variance of the process
        const double prod = r1 * r2;
        sys[c][c] = r1 + r2;
        sys[c + 1][c] = -prod;
        sys[c][c + 1] = 1.0;
        Z[c] = 1.0;
        init[c][c] = sigma2;
        init[c][c + 1] = init[c + 1][c] = -sigma2 * prod * (r1 + r2) / (1.0 + prod);
        init[c + 1][c + 1] = prod * prod * sigma2;
        var[c][c] = sigma2 * (1.0 - prod) * (1.0 - r1 * r1) * (1.0 - r2 * r2) / (1.0 + prod);
        c += 2;
    }

    if (c != m) return 0;
    if (rowofcode[kIrregular] >= 0) {
        const int row = rowofcode[kIrregular];
        start[row] = m;
        var[m][m] = sigma2_of(row);
    }
    return 1;
}

namespace {

// Validates the component table in two passes and counts the state
// dimension. Returns the text of the first fault, or null with *m and
// rowofcode filled (the later of two rows with the same code wins).
const char *check_table(double **table, int rows, int cols, int *rowofcode, int *m) {
    // First pass: at-most-one rules and column counts.
    bool level_or_trend = false, slope = false, irregular = false, ar1 = false, ar2 = false;
    bool has_level = false;
    for (int r = 0; r < rows; ++r) {
        switch (code_of(table[r])) {
            case kSlope:
                if (slope) return "GetLgmStsm(): only one slope component allowed in argument 1";
                slope = true;
                break;
            case kTrend:
                if (level_or_trend)
                    return "GetLgmStsm(): only one level/trend component allowed in argument 1";
                level_or_trend = true;
                if (cols < 3) return "GetLgmStsm(): at least three columns required in argument 1";
                break;
            case kLevel:
                if (level_or_trend)
                    return "GetLgmStsm(): only one level/trend component allowed in argument 1";
                level_or_trend = has_level = true;
                break;
            case kDummySeasonal:
            case kTrigSeasonal:
            case kSumSeasonal:
                // The period sits in column 2.
                if (cols < 3) return "GetLgmStsm(): at least three columns required in argument 1";
                break;
            case kIrregular:
                if (irregular)
                    return "GetLgmStsm(): only one irregular component allowed in argument 1";
                irregular = true;
                break;
            case kAr1:
                if (ar1)
                    return "GetLgmStsm(): only one autoregressive(1) component allowed in argument "
                           "1";
                ar1 = true;
                if (cols < 4) return "GetLgmStsm(): at least four columns required in argument 1";
                break;
            case kAr2:
                if (ar2)
                    return "GetLgmStsm(): only one autoregressive(2) component allowed in argument "
                           "1";
                ar2 = true;
                if (cols < 5) return "GetLgmStsm(): at least five columns required in argument 1";
                break;
            case kButterworth:
                if (cols < 5) return "GetLgmStsm(): at least five columns required in argument 1";
                break;
            default:
                break;
        }
    }

    // Second pass: parameters, state counts and the row of each code.
    for (int k = 0; k < kCodes; ++k) rowofcode[k] = -1;
    bool seasonal = false;
    long states = 0;
    for (int r = 0; r < rows; ++r) {
        const double *row = table[r];
        const int code = code_of(row);
        if (code < 0) return "GetLgmStsm(): cannot recognize component in argument 1";
        switch (code) {
            case kLevel:
                states += 1;
                break;
            case kSlope:
                if (has_level) states += 1;  // a slope without a level is ignored
                break;
            case kTrend:
                if (!(row[2] > 0.0 && row[2] < 10.0))
                    return "GetLgmStsm(): trend order not appropriate in argument 2";
                states += truncated(row[2]);
                break;
            case kDummySeasonal:
            case kTrigSeasonal:
            case kSumSeasonal: {
                if (seasonal || !(row[2] >= 2.0))
                    return "GetLgmStsm(): seasonal parameters not appropriate in argument 2";
                seasonal = true;
                const int s = truncated(row[2]);
                states += code == kSumSeasonal ? s : s - 1;
                break;
            }
            case kButterworth:
                if (!(row[2] >= 0.0) || !within(row[3], 0.0, 1.0))
                    return "GetLgmStsm(): bwcycle parameters not appropriate in argument 3";
                if (!(row[4] > 0.0 && row[4] < 10.0))
                    return "GetLgmStsm(): bwcycle order not appropriate in argument 4";
                states += truncated(2.0 * row[4]);
                break;
            case kAr1:
                if (!within(row[3], -1.0, 1.0))
                    return "GetLgmStsm(): autoregressive(1) parameters not appropriate in argument "
                           "3";
                states += 1;
                break;
            case kAr2:
                if (!within(row[3], -1.0, 1.0))
                    return "GetLgmStsm(): autoregressive(2) parameters not appropriate in argument "
                           "3";
                if (!within(row[4], -1.0, 1.0))
                    return "GetLgmStsm(): autoregressive(2) parameters not appropriate in argument "
                           "4";
                states += 2;
                break;
            case kIrregular:
                break;
            default:  // the stochastic cycles
                if (cols < 4) return "GetLgmStsm(): at least four columns required in argument 1";
                if (!(row[2] >= 0.0) || !within(row[3], 0.0, 1.0))
                    return "GetLgmStsm(): cycle parameters not appropriate in argument 1";
                states += 2;
                break;
        }
        rowofcode[code] = r;
    }
    *m = static_cast<int>(states);
    return nullptr;
}

}  // namespace

TESSEL_EXPORT void FnGetLgmStsm(ZuValue *rtn, ZuValue *args, int nargs) {
    if (nargs < 4) {
        ZuRunErrorMessage("GetLgmStsm(): at least four arguments required");
        return;
    }
    ZuLibCheckType(ZU_MATRIX, args, 0, 0);
    ZuLibCheckType(ZU_REF, args, 1, 3);
    const int rows = args[0].v.mat.rows, cols = args[0].v.mat.cols;
    if (rows < 2) {
        ZuRunErrorMessage("GetLgmStsm(): at least two components required in argument 1");
        return;
    }
    if (cols < 2) {
        ZuRunErrorMessage("GetLgmStsm(): at least two columns required in argument 1");
        return;
    }
    double **table = args[0].v.mat.data;
    double *start = make_matrix_value_or_raise(rtn, 1, rows)[0];

    int rowofcode[kCodes];
    int m = 0;
    if (const char *fault = check_table(table, rows, cols, rowofcode, &m)) {
        ZuRunErrorMessage(fault);
        return;
    }
    if (m == 0) {
        ZuFreeByValue(rtn);
        ZuRunErrorMessage("GetLgmStsm(): no model specified in argument 1");
        return;
    }
    ZuValue *sys = args[1].v.ref, *var = args[2].v.ref, *init = args[3].v.ref;
    const bool ok_sys = make_matrix_value(sys, m + 1, m);
    const bool ok_var = make_matrix_value(var, m + 1, m + 1);
    const bool ok_init = make_matrix_value(init, m + 1, m);
    if (!ok_sys || !ok_var || !ok_init) {
        ZuFreeByValue(rtn);
        ZuRunErrorMessage("GetLgmStsm(): memory allocation failure");
        return;
    }
    if (!fGetLgmUnivStsm(rowofcode, table, m, start, sys->v.mat.data, var->v.mat.data,
                         init->v.mat.data)) {
        ZuFreeByValue(rtn);
        ZuRunErrorMessage("GetLgmStsm(): no correct model specified in argument 1");
    }
}
