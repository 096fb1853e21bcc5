// row_kernels.h - the register-blocked kernels of the small dense products,
// compiled into both the host runtime (its algebra) and the library (the
// filter and smoother steps). Header only: the library links nothing of the
// host for them.
//
// Every product of the recursions is built from two shapes: a dot product
// with four partial sums, and a row of a result formed as a combination of
// rows of an operand, eight columns at a time in four register pairs that
// stay in registers over the whole sum. Plain multiplications and additions
// on pairs of doubles (the baseline vector width of x86-64), so the results
// do not depend on the target.
#ifndef TESSEL_COMMON_ROW_KERNELS_H
#define TESSEL_COMMON_ROW_KERNELS_H

namespace tessel {
namespace rows {

typedef double v2 __attribute__((vector_size(16)));

// Dot product; from four terms on with four partial sums (independent
// chains of additions).
__attribute__((always_inline)) inline double dot(const double *a, const double *b, int n) {
    if (n < 4) {
        double s = 0.0;
        for (int i = 0; i < n; ++i) s += a[i] * b[i];
        return s;
    }
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        s0 += a[i] * b[i];
        s1 += a[i + 1] * b[i + 1];
        s2 += a[i + 2] * b[i + 2];
        s3 += a[i + 3] * b[i + 3];
    }
    for (; i < n; ++i) s0 += a[i] * b[i];
    return (s0 + s1) + (s2 + s3);
}

// x[0..len) = sum over k < n of coef[k] rows[k][off .. off+len): eight
// columns at a time, then two and one.
__attribute__((always_inline)) inline void combine(double *x, const double *coef,
                                                   double *const *rows, int n, int off, int len) {
    int c = 0;
    for (; c + 8 <= len; c += 8) {
        v2 a0 = {0.0, 0.0}, a1 = a0, a2 = a0, a3 = a0;
        for (int k = 0; k < n; ++k) {
            const double *r = rows[k] + off + c;
            const v2 s = {coef[k], coef[k]};
            v2 r0, r1, r2, r3;
            __builtin_memcpy(&r0, r, 16);
            __builtin_memcpy(&r1, r + 2, 16);
            __builtin_memcpy(&r2, r + 4, 16);
            __builtin_memcpy(&r3, r + 6, 16);
            a0 += s * r0;
            a1 += s * r1;
            a2 += s * r2;
            a3 += s * r3;
        }
        __builtin_memcpy(x + c, &a0, 16);
        __builtin_memcpy(x + c + 2, &a1, 16);
        __builtin_memcpy(x + c + 4, &a2, 16);
        __builtin_memcpy(x + c + 6, &a3, 16);
    }
    for (; c + 2 <= len; c += 2) {
        v2 a0 = {0.0, 0.0};
        for (int k = 0; k < n; ++k) {
            const v2 s = {coef[k], coef[k]};
            v2 r0;
            __builtin_memcpy(&r0, rows[k] + off + c, 16);
            a0 += s * r0;
        }
        __builtin_memcpy(x + c, &a0, 16);
    }
    for (; c < len; ++c) {
        double a0 = 0.0;
        for (int k = 0; k < n; ++k) a0 += coef[k] * rows[k][off + c];
        x[c] = a0;
    }
}

// Two combinations of the same rows at once (x0 by coef0, x1 by coef1):
// each load of a row serves both, in the same order of summation as
// combine.
__attribute__((always_inline)) inline void combine2(double *x0, double *x1, const double *coef0,
                                                    const double *coef1, double *const *rows, int n,
                                                    int off, int len) {
    int c = 0;
    for (; c + 8 <= len; c += 8) {
        v2 a0 = {0.0, 0.0}, a1 = a0, a2 = a0, a3 = a0, b0 = a0, b1 = a0, b2 = a0, b3 = a0;
        for (int k = 0; k < n; ++k) {
            const double *r = rows[k] + off + c;
            const v2 s = {coef0[k], coef0[k]}, t = {coef1[k], coef1[k]};
            v2 r0, r1, r2, r3;
            __builtin_memcpy(&r0, r, 16);
            __builtin_memcpy(&r1, r + 2, 16);
            __builtin_memcpy(&r2, r + 4, 16);
            __builtin_memcpy(&r3, r + 6, 16);
            a0 += s * r0;
            a1 += s * r1;
            a2 += s * r2;
            a3 += s * r3;
            b0 += t * r0;
            b1 += t * r1;
            b2 += t * r2;
            b3 += t * r3;
        }
        __builtin_memcpy(x0 + c, &a0, 16);
        __builtin_memcpy(x0 + c + 2, &a1, 16);
        __builtin_memcpy(x0 + c + 4, &a2, 16);
        __builtin_memcpy(x0 + c + 6, &a3, 16);
        __builtin_memcpy(x1 + c, &b0, 16);
        __builtin_memcpy(x1 + c + 2, &b1, 16);
        __builtin_memcpy(x1 + c + 4, &b2, 16);
        __builtin_memcpy(x1 + c + 6, &b3, 16);
    }
    for (; c + 2 <= len; c += 2) {
        v2 a0 = {0.0, 0.0}, b0 = a0;
        for (int k = 0; k < n; ++k) {
            const v2 s = {coef0[k], coef0[k]}, t = {coef1[k], coef1[k]};
            v2 r0;
            __builtin_memcpy(&r0, rows[k] + off + c, 16);
            a0 += s * r0;
            b0 += t * r0;
        }
        __builtin_memcpy(x0 + c, &a0, 16);
        __builtin_memcpy(x1 + c, &b0, 16);
    }
    for (; c < len; ++c) {
        double a0 = 0.0, b0 = 0.0;
        for (int k = 0; k < n; ++k) {
            a0 += coef0[k] * rows[k][off + c];
            b0 += coef1[k] * rows[k][off + c];
        }
        x0[c] = a0;
        x1[c] = b0;
    }
}

}  // namespace rows
}  // namespace tessel

#endif  // TESSEL_COMMON_ROW_KERNELS_H
