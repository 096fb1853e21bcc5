// algebra.cpp - dense matrix algebra on row-pointer matrices, written for the
// small matrices of the filtering recursions: no allocation on the usual
// sizes, no per-call setup, symmetric results computed once per pair.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <new>
#include <vector>

#include "host_internal.h"
#include "row_kernels.h"

namespace {

using tessel::rows::combine;
using tessel::rows::combine2;
using tessel::rows::dot;

// Scratch of n elements: on the stack up to kStack, from the heap above.
// The heap fallback may fail, which callers test with ok().
template <typename T, int kStack = 64>
class Scratch {
public:
    // n < 0 asks for nothing (ok() is false).
    explicit Scratch(int n)
        : p_(n < 0         ? nullptr
             : n <= kStack ? stack_
                           : static_cast<T *>(std::malloc(sizeof(T) * std::size_t(n)))) {}
    ~Scratch() {
        if (p_ != stack_) std::free(p_);  // free(nullptr) is fine
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    bool ok() const { return p_ != nullptr; }
    T &operator[](int i) { return p_[i]; }

private:
    T stack_[kStack];
    T *p_;
};

// Nonzero entries of a row-pointer matrix B, row by row (column, value),
// found once per product: the transition matrices of structural models are
// mostly zeros and ones, and skipping the zeros changes only the order of
// the additions. Used when at most half of B is nonzero and every element of
// S is finite (a zero of B times a NaN or infinite element of S would
// otherwise vanish instead of propagating).
class SparseRows {
public:
    enum { kStack = 512 };
    // False when B is too dense (or too big for the scratch) to gain.
    bool build(double **B, int rows, int cols) {
        const long total = long(rows) * long(cols);
        if (rows <= 0 || cols <= 0 || total > 4L * kStack || rows >= kStack) return false;
        int e = 0;
        for (int i = 0; i < rows; ++i) {
            start_[i] = e;
            const double *b = B[i];
            for (int j = 0; j < cols; ++j)
                if (b[j] != 0.0) {
                    if (2 * (e + 1) > total || e == kStack) return false;
                    col_[e] = j;
                    val_[e] = b[j];
                    ++e;
                }
        }
        start_[rows] = e;
        return true;
    }
    // The same by columns: begin(j)..end(j) list the rows (col()) and
    // values of the nonzeros of column j.
    bool build_columns(double **B, int rows, int cols) {
        const long total = long(rows) * long(cols);
        if (rows <= 0 || cols <= 0 || total > 4L * kStack || cols >= kStack) return false;
        int e = 0;
        for (int j = 0; j < cols; ++j) {
            start_[j] = e;
            for (int i = 0; i < rows; ++i)
                if (B[i][j] != 0.0) {
                    if (2 * (e + 1) > total || e == kStack) return false;
                    col_[e] = i;
                    val_[e] = B[i][j];
                    ++e;
                }
        }
        start_[cols] = e;
        return true;
    }
    int begin(int i) const { return start_[i]; }
    int end(int i) const { return start_[i + 1]; }
    int col(int e) const { return col_[e]; }
    double val(int e) const { return val_[e]; }

private:
    int start_[kStack + 1];
    int col_[kStack];
    double val_[kStack];
};

// Dense products of the small orders of the recursions go through
// combine; above this order the scratch would not fit the stack.
constexpr int kBlockedOrder = 64;

bool all_finite(double **S, int order) {
    for (int i = 0; i < order; ++i) {
        const double *s = S[i];
        for (int j = 0; j < order; ++j)
            if (!std::isfinite(s[j])) return false;
    }
    return true;
}

}  // namespace

extern "C" {

void MatZero(double **A, int rows, int cols) {
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) A[i][j] = 0.0;
}

void MatI(double **A, int rows, int cols) {
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) A[i][j] = (i == j) ? 1.0 : 0.0;
}

void MatAdd(double **A, int rows, int cols, double **B, double factor, double **R) {
    // Element by element, each read before its write: R may alias A or B.
    if (factor == 1.0) {
        for (int i = 0; i < rows; ++i) {
            const double *a = A[i], *b = B[i];
            double *r = R[i];
            for (int j = 0; j < cols; ++j) r[j] = a[j] + b[j];
        }
        return;
    }
    for (int i = 0; i < rows; ++i) {
        const double *a = A[i], *b = B[i];
        double *r = R[i];
        for (int j = 0; j < cols; ++j) r[j] = a[j] + factor * b[j];
    }
}

void MatAB(double **A, int rows, int inner, double **B, int cols, double **R) {
    for (int i = 0; i < rows; ++i) {
        double *r = R[i];
        const double *a = A[i];
        for (int j = 0; j < cols; ++j) r[j] = 0.0;
        for (int k = 0; k < inner; ++k) {
            const double aik = a[k];
            const double *b = B[k];
            for (int j = 0; j < cols; ++j) r[j] += aik * b[j];
        }
    }
}

void MatBSBt(double **B, int rowsB, double **S, int orderS, double **R) {
    {
        // Mostly zero B: X = B S row by row over the nonzeros of B (rows of S
        // combined), then R[i][j] = X[i] . B[j] over the nonzeros of B[j].
        SparseRows sp;
        Scratch<double, 1024> X(rowsB * orderS);
        if (X.ok() && sp.build(B, rowsB, orderS) && all_finite(S, orderS)) {
            for (int i = 0; i < rowsB; ++i) {
                double *x = &X[i * orderS];
                for (int c = 0; c < orderS; ++c) x[c] = 0.0;
                for (int e = sp.begin(i); e < sp.end(i); ++e) {
                    const double b = sp.val(e);
                    const double *sk = S[sp.col(e)];
                    for (int c = 0; c < orderS; ++c) x[c] += b * sk[c];
                }
            }
            for (int i = 0; i < rowsB; ++i) {
                const double *x = &X[i * orderS];
                for (int j = i; j < rowsB; ++j) {
                    double acc = 0.0;
                    for (int e = sp.begin(j); e < sp.end(j); ++e) acc += x[sp.col(e)] * sp.val(e);
                    R[i][j] = acc;
                    R[j][i] = acc;
                }
            }
            return;
        }
    }
    if (rowsB <= kBlockedOrder && orderS <= kBlockedOrder && rowsB > 0 && orderS > 0) {
        // X = B S (row i combines the rows of S by B[i]); row i of X B'
        // (columns i..) combines the rows of B' by X[i].
        double X[kBlockedOrder * kBlockedOrder], Bt[kBlockedOrder * kBlockedOrder];
        double *srows[kBlockedOrder], *btrows[kBlockedOrder], row[kBlockedOrder];
        for (int k = 0; k < orderS; ++k) {
            srows[k] = S[k];
            btrows[k] = Bt + k * rowsB;
        }
        for (int j = 0; j < rowsB; ++j)
            for (int k = 0; k < orderS; ++k) Bt[k * rowsB + j] = B[j][k];
        int i = 0;
        for (; i + 2 <= rowsB; i += 2)
            combine2(X + i * orderS, X + (i + 1) * orderS, B[i], B[i + 1], srows, orderS, 0,
                     orderS);
        if (i < rowsB) combine(X + i * orderS, B[i], srows, orderS, 0, orderS);
        double row1[kBlockedOrder];
        for (i = 0; i + 2 <= rowsB; i += 2) {
            // Rows i and i+1 from column i (row i+1's first value unused).
            combine2(row, row1, X + i * orderS, X + (i + 1) * orderS, btrows, orderS, i, rowsB - i);
            for (int j = i; j < rowsB; ++j) R[i][j] = R[j][i] = row[j - i];
            for (int j = i + 1; j < rowsB; ++j) R[i + 1][j] = R[j][i + 1] = row1[j - i];
        }
        if (i < rowsB) {
            combine(row, X + i * orderS, btrows, orderS, i, rowsB - i);
            for (int j = i; j < rowsB; ++j) R[i][j] = R[j][i] = row[j - i];
        }
        return;
    }
    // R[i][j] = B[i] . (S B[j]') for j >= i: one product S B[i]' per row,
    // kept in t, then dot products with the rows of B; mirror at the end.
    Scratch<double, 128> t(orderS);
    for (int i = 0; i < rowsB; ++i) {
        const double *bi = B[i];
        if (t.ok()) {
            for (int k = 0; k < orderS; ++k) t[k] = dot(S[k], bi, orderS);
            for (int j = i; j < rowsB; ++j) R[i][j] = dot(B[j], &t[0], orderS);
        } else {
            // Huge order and no memory for the row product: recompute it.
            for (int j = i; j < rowsB; ++j) {
                const double *bj = B[j];
                double acc = 0.0;
                for (int k = 0; k < orderS; ++k) {
                    const double *s = S[k];
                    double sk = 0.0;
                    for (int l = 0; l < orderS; ++l) sk += s[l] * bi[l];
                    acc += bj[k] * sk;
                }
                R[i][j] = acc;
            }
        }
    }
    for (int i = 0; i < rowsB; ++i)
        for (int j = i + 1; j < rowsB; ++j) R[j][i] = R[i][j];
}

void MatBtSB(double **B, int rowsB, double **S, int colsB, double **R) {
    {
        // Mostly zero B, taken by columns: Y[i][d] = S[i] . B[.][d] over the
        // nonzeros of column d; then row c of R (columns c..) combines the
        // rows Y[l] of the nonzeros B[l][c]; mirrored.
        SparseRows sp;
        Scratch<double, 1024> Y(rowsB * colsB);
        if (rowsB <= kBlockedOrder && colsB <= kBlockedOrder && Y.ok() &&
            sp.build_columns(B, rowsB, colsB) && all_finite(S, rowsB)) {
            for (int i = 0; i < rowsB; ++i) {
                double *y = &Y[i * colsB];
                const double *si = S[i];
                for (int d = 0; d < colsB; ++d) {
                    double acc = 0.0;
                    for (int e = sp.begin(d); e < sp.end(d); ++e) acc += si[sp.col(e)] * sp.val(e);
                    y[d] = acc;
                }
            }
            double coef[kBlockedOrder], row[kBlockedOrder];
            double *yrows[kBlockedOrder];
            for (int c = 0; c < colsB; ++c) {
                int n = 0;
                for (int e = sp.begin(c); e < sp.end(c); ++e, ++n) {
                    coef[n] = sp.val(e);
                    yrows[n] = &Y[sp.col(e) * colsB];
                }
                combine(row, coef, yrows, n, c, colsB - c);
                for (int d = c; d < colsB; ++d) R[c][d] = R[d][c] = row[d - c];
            }
            return;
        }
    }
    if (rowsB <= kBlockedOrder && colsB <= kBlockedOrder && rowsB > 0 && colsB > 0) {
        // Y = S B (row i combines the rows of B by S[i]); row c of B' Y
        // (columns c..) combines the rows of Y by column c of B.
        double Y[kBlockedOrder * kBlockedOrder];
        double *yrows[kBlockedOrder], bcol[kBlockedOrder], bcol1[kBlockedOrder];
        double row[kBlockedOrder], row1[kBlockedOrder];
        for (int i = 0; i < rowsB; ++i) yrows[i] = Y + i * colsB;
        int i = 0;
        for (; i + 2 <= rowsB; i += 2)
            combine2(yrows[i], yrows[i + 1], S[i], S[i + 1], B, rowsB, 0, colsB);
        if (i < rowsB) combine(yrows[i], S[i], B, rowsB, 0, colsB);
        int c = 0;
        for (; c + 2 <= colsB; c += 2) {
            // Rows c and c+1 from column c (row c+1's first value unused).
            for (int l = 0; l < rowsB; ++l) {
                bcol[l] = B[l][c];
                bcol1[l] = B[l][c + 1];
            }
            combine2(row, row1, bcol, bcol1, yrows, rowsB, c, colsB - c);
            for (int d = c; d < colsB; ++d) R[c][d] = R[d][c] = row[d - c];
            for (int d = c + 1; d < colsB; ++d) R[c + 1][d] = R[d][c + 1] = row1[d - c];
        }
        if (c < colsB) {
            for (int l = 0; l < rowsB; ++l) bcol[l] = B[l][c];
            combine(row, bcol, yrows, rowsB, c, colsB - c);
            for (int d = c; d < colsB; ++d) R[c][d] = R[d][c] = row[d - c];
        }
        return;
    }
    // B' S B is B S B' for the transpose: gather the columns of B into
    // contiguous rows once, then proceed as MatBSBt with scalar
    // accumulators. Mirror at the end.
    const long count = long(rowsB) * long(colsB);
    Scratch<double, 1024> bt(count > (1L << 26) ? -1 : int(count));
    Scratch<double, 128> t(rowsB);
    if (count > 0 && (count > (1L << 26) || !bt.ok() || !t.ok())) {
        // Huge and no memory for scratch: straight from the definition.
        for (int i = 0; i < colsB; ++i)
            for (int j = i; j < colsB; ++j) {
                double acc = 0.0;
                for (int k = 0; k < rowsB; ++k) {
                    double sk = 0.0;
                    for (int l = 0; l < rowsB; ++l) sk += S[k][l] * B[l][i];
                    acc += B[k][j] * sk;
                }
                R[i][j] = acc;
            }
    } else {
        for (int l = 0; l < rowsB; ++l) {
            const double *b = B[l];
            for (int i = 0; i < colsB; ++i) bt[i * rowsB + l] = b[i];
        }
        for (int i = 0; i < colsB; ++i) {
            const double *bi = &bt[i * rowsB];
            for (int k = 0; k < rowsB; ++k) t[k] = dot(S[k], bi, rowsB);
            for (int j = i; j < colsB; ++j) R[i][j] = dot(&bt[j * rowsB], &t[0], rowsB);
        }
    }
    for (int i = 0; i < colsB; ++i)
        for (int j = i + 1; j < colsB; ++j) R[j][i] = R[i][j];
}

int IInvDet(double **A, int n, double *logdet, int *sign) {
    double ld = 0.0;
    int sg = 1;
    // |det| = mant x 2^expo, accumulated pivot by pivot so that one
    // logarithm serves the whole determinant; pivots and the running product
    // far from 1 are split into mantissa and exponent to stay in range.
    double mant = 1.0;
    long expo = 0;
    if (n <= 0) {
        if (logdet) *logdet = 0.0;
        if (sign) *sign = 1;
        return 0;
    }
    Scratch<int> piv(n);
    Scratch<double> work(n);
    auto fail = [&](int code) {
        if (logdet) *logdet = -HUGE_VAL;
        if (sign) *sign = 0;
        return code;
    };
    if (!piv.ok() || !work.ok()) return fail(2);

    // LU with partial pivoting, rows exchanged by content (the caller's row
    // pointers stay where they are): P A = L U, L unit lower.
    for (int k = 0; k < n; ++k) {
        int p = k;
        double big = std::fabs(A[k][k]);
        for (int i = k + 1; i < n; ++i) {
            const double a = std::fabs(A[i][k]);
            if (a > big) {
                big = a;
                p = i;
            }
        }
        if (!(big > 0.0) || !std::isfinite(big)) return fail(1);
        piv[k] = p;
        if (p != k) {
            std::swap_ranges(A[k], A[k] + n, A[p]);
            sg = -sg;
        }
        double *ak = A[k];
        const double pivot = ak[k];
        if (pivot < 0.0) sg = -sg;
        {
            const double ap = std::fabs(pivot);
            if (ap > 1e-100 && ap < 1e100) {
                mant *= ap;
            } else {
                int e;
                mant *= std::frexp(ap, &e);
                expo += e;
            }
            if (!(mant > 1e-100 && mant < 1e100)) {
                int e;
                mant = std::frexp(mant, &e);
                expo += e;
            }
        }
        for (int i = k + 1; i < n; ++i) {
            double *ai = A[i];
            // Divide rather than multiply by 1 / pivot: equal rows then
            // cancel exactly and a singular matrix shows a zero pivot.
            const double l = ai[k] / pivot;
            ai[k] = l;
            if (l != 0.0)
                for (int j = k + 1; j < n; ++j) ai[j] -= l * ak[j];
        }
    }

    // inv(U) in the upper triangle, row by row from the bottom: row i of
    // U X = I gives X[i][.] = -(1 / U[i][i]) sum over k > i of U[i][k] X[k][.],
    // accumulated as row operations (rows below already hold X).
    for (int i = n - 1; i >= 0; --i) {
        double *ai = A[i];
        const double dii = 1.0 / ai[i];
        ai[i] = dii;
        for (int k = i + 1; k < n; ++k) {
            work[k] = ai[k];
            ai[k] = 0.0;
        }
        for (int k = i + 1; k < n; ++k) {
            const double w = work[k];
            if (w == 0.0) continue;
            const double *xk = A[k];
            for (int j = k; j < n; ++j) ai[j] += w * xk[j];
        }
        for (int j = i + 1; j < n; ++j) ai[j] *= -dii;
    }

    // Solve X L = inv(U) for X = inv(U) inv(L), from the last column back.
    for (int j = n - 2; j >= 0; --j) {
        for (int i = j + 1; i < n; ++i) {
            work[i] = A[i][j];
            A[i][j] = 0.0;
        }
        for (int r = 0; r < n; ++r) A[r][j] -= dot(A[r] + j + 1, &work[j + 1], n - j - 1);
    }

    // inv(A) = inv(U) inv(L) P: undo the row exchanges as column exchanges.
    for (int j = n - 2; j >= 0; --j) {
        const int p = piv[j];
        if (p != j)
            for (int r = 0; r < n; ++r) std::swap(A[r][j], A[r][p]);
    }

    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            if (!std::isfinite(A[i][j])) return fail(1);
    ld = std::log(mant) + double(expo) * 0.69314718055994530942;
    if (!std::isfinite(ld)) return fail(1);
    if (logdet) *logdet = ld;
    if (sign) *sign = sg;
    return 0;
}

int ILDLdec(double **A, double *d, int n) {
    // Column by column (no pivoting): D[j] = A[j][j] - sum L[j][k]^2 D[k],
    // L[i][j] = (A[i][j] - sum L[i][k] L[j][k] D[k]) / D[j]. The pivots are
    // kept on the diagonal while the factorisation runs; only the lower
    // triangle is read or written.
    for (int j = 0; j < n; ++j) {
        double *aj = A[j];
        double dj = aj[j];
        for (int k = 0; k < j; ++k) dj -= aj[k] * aj[k] * A[k][k];
        if (dj == 0.0 || !std::isfinite(dj)) return j + 1;
        aj[j] = dj;
        d[j] = 1.0 / dj;
        for (int i = j + 1; i < n; ++i) {
            double *ai = A[i];
            double acc = ai[j];
            for (int k = 0; k < j; ++k) acc -= ai[k] * aj[k] * A[k][k];
            ai[j] = acc / dj;
        }
    }
    return 0;
}

int IMatRank(double **A, int rows, int cols, double tol) {
    // Singular values by one-sided Jacobi on a copy with at least as many
    // rows as columns (the transpose when A is wide): orthogonalise pairs of
    // columns until all are mutually orthogonal; their norms are then the
    // singular values. Accurate to full relative precision, simple, and
    // plenty fast for the sizes involved.
    if (rows <= 0 || cols <= 0) return 0;
    const bool wide = cols > rows;
    const int m = wide ? cols : rows;                        // length of a column of the copy
    const int n = wide ? rows : cols;                        // number of columns of the copy
    std::vector<double> c(std::size_t(m) * std::size_t(n));  // column-major
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) {
            const double x = A[i][j];
            if (!std::isfinite(x)) return 0;  // no meaningful rank
            if (wide)
                c[std::size_t(i) * m + j] = x;
            else
                c[std::size_t(j) * m + i] = x;
        }
    for (int sweep = 0; sweep < 80; ++sweep) {
        bool rotated = false;
        for (int p = 0; p < n - 1; ++p) {
            double *cp = &c[std::size_t(p) * m];
            for (int q = p + 1; q < n; ++q) {
                double *cq = &c[std::size_t(q) * m];
                double alpha = 0.0, beta = 0.0, gamma = 0.0;
                for (int i = 0; i < m; ++i) {
                    alpha += cp[i] * cp[i];
                    beta += cq[i] * cq[i];
                    gamma += cp[i] * cq[i];
                }
                if (gamma == 0.0 || std::fabs(gamma) <= DBL_EPSILON * std::sqrt(alpha * beta))
                    continue;
                rotated = true;
                const double zeta = (beta - alpha) / (2.0 * gamma);
                const double t =
                    (zeta >= 0.0 ? 1.0 : -1.0) / (std::fabs(zeta) + std::sqrt(1.0 + zeta * zeta));
                const double cs = 1.0 / std::sqrt(1.0 + t * t);
                const double sn = cs * t;
                for (int i = 0; i < m; ++i) {
                    const double x = cp[i], y = cq[i];
                    cp[i] = cs * x - sn * y;
                    cq[i] = sn * x + cs * y;
                }
            }
        }
        if (!rotated) break;
    }
    std::vector<double> sv(static_cast<std::size_t>(n));
    double smax = 0.0;
    for (int j = 0; j < n; ++j) {
        const double *cj = &c[std::size_t(j) * m];
        double s = 0.0;
        for (int i = 0; i < m; ++i) s += cj[i] * cj[i];
        sv[std::size_t(j)] = std::sqrt(s);
        smax = std::max(smax, sv[std::size_t(j)]);
    }
    if (smax == 0.0) return 0;
    const double rel = tol > 0.0 ? tol : double(std::max(rows, cols)) * DBL_EPSILON;
    const double thresh = rel * smax;
    int rank = 0;
    for (double s : sv)
        if (s > thresh) ++rank;
    return rank;
}

}  // extern "C"
