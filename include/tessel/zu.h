/*
 * zu.h - the host interface of the Tessel library.
 *
 * libtessel.so is a run-time extension of the Zu matrix language. It is built
 * with every function declared here left undefined: the process that loads it
 * (the Zu interpreter, or Tessel's own host runtime libzuhost.so) supplies
 * them. This header is plain C so that any host can implement it.
 *
 * Matrices are arrays of row pointers (double **), indices from 0. Matrices
 * from MatAllocBlock and matrix values hold their elements in one contiguous
 * block addressed by the first row pointer.
 *
 * Error operations (ZuRunError, ZuRunErrorMessage and the argument checks)
 * do not return in Tessel's host: they throw a C++ exception that unwinds to
 * the host's call boundary. Code calling them must be exception-safe.
 */
#ifndef TESSEL_ZU_H
#define TESSEL_ZU_H

#ifdef __cplusplus
extern "C" {
#endif

/* Value type codes. ZU_NONE marks a value that holds nothing (freed). */
#define ZU_NONE 0
#define ZU_INT 1
#define ZU_DOUBLE 2
#define ZU_MATRIX 3
#define ZU_REF 5

/* Host value: type code, then the payload of that type. */
typedef struct ZuValue {
    int type;
    union {
        int ival;    /* ZU_INT */
        double dval; /* ZU_DOUBLE */
        struct {
            int rows;      /* ZU_MATRIX: row count */
            int cols;      /* column count */
            double **data; /* row pointers; null for an empty matrix */
        } mat;
        struct ZuValue *ref; /* ZU_REF: the referenced caller variable */
    } v;
} ZuValue;

/* Entry point signature: fill rtn from args[0..nargs-1]. */
typedef void (*ZuEntryPoint)(ZuValue *rtn, ZuValue *args, int nargs);

/* ---- argument checks (raise a host error naming function and argument) ---- */

/* Raises unless args[first..last] all have type `type`; converts numeric
 * scalars in place where the target allows (int <-> double, scalar -> 1 x 1). */
void ZuLibCheckType(int type, ZuValue *args, int first, int last);
/* Raises unless args[first..last] are all rows x cols matrices. */
void ZuLibCheckMatrixSize(ZuValue *args, int first, int last, int rows, int cols);

/* ---- values ---- */

/* Frees what v owns, then makes v a rows x cols matrix, zero-filled. On an
 * allocation failure (or an absurd size) v is a matrix with null row
 * pointers: callers test v->v.mat.data. */
void ZuLibValMatMalloc(ZuValue *v, int rows, int cols);
/* Frees what v owns; v then holds nothing (ZU_NONE). References are not
 * followed. */
void ZuFreeByValue(ZuValue *v);

/* ---- errors and messages ---- */

/* Raises host run-time error `number` (4: out of memory); token may be null. */
void ZuRunError(int number, const char *token);
/* Raises a run-time error with the given text. */
void ZuRunErrorMessage(const char *text);
/* Passes one message line to the host's message sink. */
void ZuRunMessage(const char *text);

/* ---- matrix storage ---- */

/* Contiguous rows x cols matrix, zero-filled; null on failure or bad size.
 * cols == 0 gives row pointers only (each null), to be aimed by the caller. */
double **MatAllocBlock(int rows, int cols);
/* Frees a matrix from MatAllocBlock; null is ignored. */
void MatFreeBlock(double **m);
/* Plain table of rows x cols elements of elemsize bytes, zero-filled; null on
 * failure. Freed with TabFreePlain. */
void **TabAllocPlain(int rows, int cols, int elemsize);
void TabFreePlain(void **tab, int rows, int cols);

/* ---- matrix algebra (small dense matrices, no allocation) ---- */

/* A[0..rows)[0..cols) = 0. */
void MatZero(double **A, int rows, int cols);
/* A = identity on its leading rows x cols block. */
void MatI(double **A, int rows, int cols);
/* R = A + factor * B, all rows x cols; R may alias A or B. */
void MatAdd(double **A, int rows, int cols, double **B, double factor, double **R);
/* R (rows x cols) = A (rows x inner) * B (inner x cols); R must not alias. */
void MatAB(double **A, int rows, int inner, double **B, int cols, double **R);
/* R (rowsB x rowsB) = B S B', B rowsB x orderS, S symmetric orderS x orderS
 * (only its leading block is read). R must not alias B or S. */
void MatBSBt(double **B, int rowsB, double **S, int orderS, double **R);
/* R (colsB x colsB) = B' S B, B rowsB x colsB, S symmetric rowsB x rowsB.
 * R must not alias B; it may share rows with S only if nothing of S is read
 * after being written (the library never relies on that). */
void MatBtSB(double **B, int rowsB, double **S, int colsB, double **R);
/* Inverts the n x n matrix A in place (LU, partial pivoting). Writes
 * log|det A| and the sign of det A (0 when singular; A is then undefined).
 * Returns 0 on success, nonzero when A is singular. */
int IInvDet(double **A, int n, double *logdet, int *sign);
/* In-place L D L' factorisation of the symmetric n x n matrix A (lower
 * triangle read). Leaves the unit lower factor in the strict lower triangle
 * and the reciprocals of the pivots in d[0..n). Returns 0 on success, nonzero
 * when a pivot is zero or not finite (a negative pivot is not a failure). */
int ILDLdec(double **A, double *d, int n);
/* Numerical rank of the rows x cols matrix A (not modified). Singular values
 * below tol * largest singular value count as zero; tol <= 0 selects
 * max(rows, cols) * machine epsilon. */
int IMatRank(double **A, int rows, int cols, double tol);

/* ---- random numbers (one seedable generator per host) ---- */

/* Fills A (rows x cols) with standard normal draws, row by row. */
void MatRann(double **A, int rows, int cols);
/* One standard normal draw. */
double DRanNormalPM(void);

#ifdef __cplusplus
}
#endif

#endif /* TESSEL_ZU_H */
