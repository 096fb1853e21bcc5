// frame.h - internal building blocks shared by every entry point of the
// library: ownership guards for host storage, argument helpers, result-code
// reporting, and the model frame (checking, opening and closing a model
// block with its time-varying elements).
//
// Host errors are C++ exceptions thrown by the host operations, so every
// resource obtained here is owned by a guard whose destructor frees it: an
// error raised anywhere leaves nothing allocated.
#ifndef TESSEL_LIB_FRAME_H
#define TESSEL_LIB_FRAME_H

#include <cmath>
#include <cstddef>

#include "tessel/tessel.h"
#include "tessel/zu.h"

#define TESSEL_EXPORT extern "C" __attribute__((visibility("default")))

namespace tessel {

// ---------------------------------------------------------------- constants

// 2 pi as the likelihood formulas use it.
constexpr double kTwoPi = 6.283185307179586;
// Result codes of numeric work inside an entry point.
constexpr int kOk = 1;
constexpr int kAllocFailed = 9;

// The Gaussian log-likelihood from the filter's pieces: cnt usable
// observations, the log-determinant sum and the mean squared standardised
// innovation (dSumSq, already divided by cnt; the concentrated form passes
// log(sigma2) + 1 in its place).
inline double gaussian_loglik(int cnt, double dLogDet, double dSumSq) {
    return -0.5 * (cnt * std::log(kTwoPi) + dLogDet + cnt * dSumSq);
}

// kappa = 9999999.99 x max(1, largest of the first `order` diagonal elements
// of var): the variance given to a diffuse initial element.
double diffuse_kappa(double **var, int order);

// ------------------------------------------------------------ storage guards

// The library's own heap allocations (index vectors, flag arrays) go through
// here so that they can be observed in one place.
void *lib_malloc(std::size_t bytes);
void lib_free(void *p);

// A MatAllocBlock matrix, freed on scope exit.
class Block {
public:
    Block() = default;
    Block(int rows, int cols) { alloc(rows, cols); }
    ~Block() { reset(); }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    // Allocates (after freeing any previous block); false on failure.
    bool alloc(int rows, int cols);
    void reset();
    double **get() const { return p_; }
    double **release() {
        double **p = p_;
        p_ = nullptr;
        return p;
    }
    explicit operator bool() const { return p_ != nullptr; }
    double *operator[](int r) const { return p_[r]; }

private:
    double **p_ = nullptr;
};

// A TabAllocPlain table of int, freed on scope exit.
class IntTable {
public:
    IntTable() = default;
    ~IntTable() { reset(); }
    IntTable(const IntTable &) = delete;
    IntTable &operator=(const IntTable &) = delete;
    bool alloc(int rows, int cols);
    void reset();
    int **get() const { return p_; }
    int **release() {
        int **p = p_;
        p_ = nullptr;
        return p;
    }
    explicit operator bool() const { return p_ != nullptr; }

private:
    int **p_ = nullptr;
    int rows_ = 0, cols_ = 0;
};

// A lib_malloc array of T, freed on scope exit.
template <typename T>
class Buffer {
public:
    Buffer() = default;
    explicit Buffer(std::size_t count) { alloc(count); }
    ~Buffer() { lib_free(p_); }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    bool alloc(std::size_t count) {
        lib_free(p_);
        p_ = static_cast<T *>(lib_malloc((count ? count : 1) * sizeof(T)));
        return p_ != nullptr;
    }
    T *get() const { return p_; }
    T *release() {
        T *p = p_;
        p_ = nullptr;
        return p;
    }
    explicit operator bool() const { return p_ != nullptr; }
    T &operator[](std::size_t i) const { return p_[i]; }

private:
    T *p_ = nullptr;
};

// --------------------------------------------------------- argument helpers

// A size formed in wider arithmetic (n + 1 time columns, q p + q(q+1)/2
// weight rows), as an int: -1 when it does not fit, a size that no
// allocation grants and no argument matches, so the caller's ordinary
// failure path reports it.
inline int fit_size(long long x) { return x >= 0 && x <= 2147483647LL ? static_cast<int>(x) : -1; }
inline int fit_size(double x) { return x >= 0.0 && x <= 2147483647.0 ? static_cast<int>(x) : -1; }

// True when an optional matrix argument counts as absent: not passed, empty
// (0 x 0 or no elements), or a 1 x 1 matrix equal to 0 (also a scalar 0).
bool arg_absent(const ZuValue *args, int nargs, int index);

// Makes `v` a rows x cols matrix value; false when the host could not
// allocate it or a size is negative (a size with no elements is never a
// failure).
bool make_matrix_value(ZuValue *v, int rows, int cols);
// Like make_matrix_value, but raises host error 4 on failure; returns the
// row pointers (null only when rows is 0).
double **make_matrix_value_or_raise(ZuValue *v, int rows, int cols);
// Rows and columns of a matrix value (0 for anything else).
inline int rows_of(const ZuValue &v) { return v.type == ZU_MATRIX ? v.v.mat.rows : 0; }
inline int cols_of(const ZuValue &v) { return v.type == ZU_MATRIX ? v.v.mat.cols : 0; }
// Writes a double into the variable that reference argument `ref` names.
void set_ref_double(ZuValue *ref, double x);
// Integer return value.
void set_int(ZuValue *v, int x);

// --------------------------------------------------------- result reporting

// How an entry point hands back its return value after a failure.
enum class ReturnKind {
    Matrix,  // free the return value
    Flag,    // the return value becomes the integer 0
};

// Maps a result code to the host reports: kOk does nothing; kAllocFailed
// releases the return value and raises host error 4; any other code releases
// the return value and prints `failure_text` unless messages are off.
void report_status(int code, ZuValue *rtn, ReturnKind kind, const char *failure_text);

// Prints a warning through the host unless messages are off.
void warn(const char *text);

// ------------------------------------------------------------- filter store
// The one decoder of the filter store. Column t belongs to time point t;
// rows 0..N-1 hold the innovations v(t); then, for each series i, a block of
// m + i + 1 rows from store_block(N, m, i): column i of the gain K = M F^-1
// (m rows), then rows 0..i of column i of F^-1. N + mN + N(N+1)/2 rows in
// all (m + 2 for one series: v, K, 1/F). A missing element stores v = 0 and
// a zero block; a time point with every element missing NaN innovations and
// zero blocks.

// First row of the block of series i.
inline int store_block(int N, int m, int i) { return N + i * m + i * (i + 1) / 2; }

// Reads the block of series i at time t: put(j, x) for j = 0..m+i (the m
// gains, then F^-1[0..i][i]), all zeros when the stored innovation is NaN
// (such a time point carries no observation information). Returns the
// innovation as stored.
template <class Put>
inline double store_read_block(double **store, int N, int m, int i, int t, Put &&put) {
    const double v = store[i][t];
    const int base = store_block(N, m, i);
    if (FIsNaN(v))
        for (int j = 0; j <= m + i; ++j) put(j, 0.0);
    else
        for (int j = 0; j <= m + i; ++j) put(j, store[base + j][t]);
    return v;
}

// Writes column t: the innovations v, then for each series i the gains
// gain(r, i), r < m, and finv(k, i), k <= i.
template <class Gain, class Finv>
inline void store_write(double **store, int N, int m, int t, const double *v, Gain &&gain,
                        Finv &&finv) {
    for (int i = 0; i < N; ++i) store[i][t] = v[i];
    for (int i = 0; i < N; ++i) {
        const int base = store_block(N, m, i);
        for (int r = 0; r < m; ++r) store[base + r][t] = gain(r, i);
        for (int k = 0; k <= i; ++k) store[base + m + k][t] = finv(k, i);
    }
}

// Column t of a time point with every element missing.
inline void store_write_missing(double **store, int N, int m, int t) {
    for (int i = 0; i < N; ++i) SetNaN(&store[i][t]);
    for (int r = N; r < store_block(N, m, N); ++r) store[r][t] = 0.0;
}

// Writes the time-t values of the elements marked in the open index tables
// (each table may be null, and so may its target) from tvdata[row][t] into
// sys (mN x m), var (mN x mN) and mean (mN).
inline void write_time_varying(int t, int m, int mN, double **sys, double **var, double *mean,
                               int **sysidx, int **varidx, const int *meanidx, double **tvdata) {
    if (!tvdata) return;
    if (meanidx && mean)
        for (int k = 0; k < mN; ++k)
            if (meanidx[k] >= 0) mean[k] = tvdata[meanidx[k]][t];
    if (sysidx && sys)
        for (int k = 0; k < mN; ++k) {
            const int *idx = sysidx[k];
            for (int j = 0; j < m; ++j)
                if (idx[j] >= 0) sys[k][j] = tvdata[idx[j]][t];
        }
    if (varidx && var)
        for (int k = 0; k < mN; ++k) {
            const int *idx = varidx[k];
            for (int j = 0; j < mN; ++j)
                if (idx[j] >= 0) var[k][j] = tvdata[idx[j]][t];
        }
}

// --------------------------------------------------------------- model frame

// The two checking/opening behaviours: entry points that filter on copies
// (filter, smoother, likelihood, moments, conditional density, recursion),
// and the weights/simulation-smoother entry points that work in place on the
// caller's SysMat and VarMat.
enum class FrameVariant { Copying, InPlace };

// Checks the model block whose data argument is args[i] (check mode `mode`)
// and reports dimensions through the non-null out-pointers. Returns 1 when
// the time-varying block is in force, 0 for a fixed model. Raises host
// errors for faulty arguments.
int iZuCheckLgm(FrameVariant variant, ZuValue *args, int nargs, int i, int mode, int *N, int *m,
                int *mN, int *S, int *mExtra, int *n, double ***init, double ***mean);
// Opens the index matrices args[5..7] relative to `block` (= &args[i+5]) and
// TvData (block[3]). Returns 1 on success, 0 on allocation failure or a
// TvData too small for the index entries.
int fZuOpenLgmTV(FrameVariant variant, ZuValue *block, int m, int mN, int mN2, int ***sysidx,
                 int ***varidx, int **meanidx, double ***tvdata);
// Compact list of the time-varying elements (8 int rows of K+1).
int fLgmTVIndex(int m, int mN, int mN2, int **sysidx, int **varidx, int *meanidx, int *K,
                int ***list);
void free_tv_index(int **list, int K);
// Copies SysMat (block[0]) and VarMat (block[1]) where a table marks them.
int fCopyLgmTV(ZuValue *block, int m, int mN, int **sysidx, int **varidx, double ***sys,
               double ***var);
// Frees what opening and copying produced.
void ZuCloseLgmTV(int m, int mN, double **sys, double **var, int **sysidx, int **varidx,
                  int *meanidx);

// Everything an entry point learns and opens about its model block. The
// destructor closes whatever was opened, so every path frees it.
struct Model {
    FrameVariant variant = FrameVariant::Copying;
    int N = 0, m = 0, mN = 0, S = 0, mExtra = 0, n = 0;
    bool time_varying = false;
    ZuValue *block = nullptr;    // &args[i+1]: SysMat, VarMat, InitMat, MeanVec, ...
    double **init = nullptr;     // InitMat rows, or null when absent
    double **meanvec = nullptr;  // MeanVec rows, or null when absent
    int **sysidx = nullptr, **varidx = nullptr;
    int *meanidx = nullptr;
    double **tvdata = nullptr;
    double **syscopy = nullptr, **varcopy = nullptr;
    int **list = nullptr;  // compact list (fLgmTVIndex), when built
    int K = 0;
    bool opened = false;

    Model() = default;
    ~Model() { close(); }
    Model(const Model &) = delete;
    Model &operator=(const Model &) = delete;

    // Checks args[i] (mode) and the model after it; raises on faulty args.
    void check(FrameVariant v, ZuValue *args, int nargs, int i, int mode);
    // When the block is in force: opens it, copies SysMat/VarMat (Copying
    // variant) and, if asked, builds the compact list. False on failure.
    bool open(bool build_list = false);
    void close();

    // The matrices the recursions write into: copies when they exist.
    double **sys() const { return syscopy ? syscopy : block[0].v.mat.data; }
    double **var() const { return varcopy ? varcopy : block[1].v.mat.data; }
    // Fills dst[0..mN) with MeanVec, or zeros when it is absent.
    void fill_mean(double *dst) const;
};

}  // namespace tessel

#endif  // TESSEL_LIB_FRAME_H
