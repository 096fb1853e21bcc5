// model_frame.cpp - checking and opening of a model block: dimensions, the
// optional InitMat and MeanVec, and the time-varying elements (index
// matrices into TvData).
//
// Two groups of entry points use the frame with slightly different
// behaviour (FrameVariant): the filtering group works on private copies of
// SysMat and VarMat; the weights and simulation-smoother group writes into
// the caller's matrices and is more lenient about TvData.
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "frame.h"

namespace tessel {

namespace {

// Index entries are truncated towards zero. Values that have no int
// representation are mapped so that they cannot address memory: NaN and
// large negatives mean "fixed", large positives fail the TvData row check.
int truncate_index(double x) {
    if (x != x) return -1;
    if (x <= -2147483648.0) return -1;
    if (x >= 2147483647.0) return INT_MAX;
    return static_cast<int>(x);
}

bool absent(const ZuValue &v) { return arg_absent(&v, 1, 0); }

[[noreturn]] void raise_text(const char *text) {
    ZuRunErrorMessage(text);
    // The host's error operations do not return; guard against one that does.
    std::abort();
}

}  // namespace

int iZuCheckLgm(FrameVariant variant, ZuValue *args, int nargs, int i, int mode, int *pN, int *pm,
                int *pmN, int *pS, int *pmExtra, int *pn, double ***pinit, double ***pmean) {
    char text[160];
    if (nargs < i + 3) {
        std::snprintf(text, sizeof text, "Lgm(): at least %d arguments required", i + 3);
        raise_text(text);
    }
    ZuLibCheckType(ZU_MATRIX, args, i, i + 2);

    const int m = args[i + 1].v.mat.cols;
    const int mN = args[i + 1].v.mat.rows;
    const int N = mN - m;
    if (N < 1) {
        std::snprintf(text, sizeof text,
                      "\nLgm(): number of rows or columns not correct in argument %d\n", i);
        raise_text(text);
    }
    ZuLibCheckMatrixSize(args, i + 2, i + 2, mN, mN);

    // Store rows, computed in floating point as the layout is defined; a
    // model whose store would not fit an int is refused.
    // (N + 1 is formed in double: N may be INT_MAX.)
    const double s_real = N * ((N + 1.0) * 0.5 + 1.0 + m);
    if (!(s_real < 2147483647.0)) raise_text("Lgm(): model dimension too large");
    const int S = static_cast<int>(s_real);
    const int mExtra = variant == FrameVariant::Copying ? m + 3 : m + 2;

    const int rows = args[i].v.mat.rows;
    const int cols = args[i].v.mat.cols;
    int n = cols;
    switch (mode) {
        case 0:
            ZuLibCheckMatrixSize(args, i, i, N, cols);
            break;
        case 1:
            ZuLibCheckMatrixSize(args, i, i, S, cols);
            break;
        case 2:
            ZuLibCheckMatrixSize(args, i, i, mN, cols);
            break;
        case 3:
        case 4: {
            if (mode == 4 && variant == FrameVariant::InPlace)
                break;  // that variant knows no mode 4
            const int want_rows = mode == 3 ? mExtra : m + 4;
            n = cols / N;
            ZuLibCheckMatrixSize(args, i, i, want_rows, n * N);
            break;
        }
        default:
            break;
    }
    (void)rows;

    double **init = nullptr, **mean = nullptr;
    if (nargs > i + 3 && !absent(args[i + 3])) {
        ZuLibCheckMatrixSize(args, i + 3, i + 3, m + 1, m);
        init = args[i + 3].v.mat.data;
    }
    if (nargs > i + 4 && !absent(args[i + 4])) {
        ZuLibCheckMatrixSize(args, i + 4, i + 4, mN, 1);
        mean = args[i + 4].v.mat.data;
    }

    int in_force = 0;
    const char *no_tv = "Lgm(): no time-varying state space model";
    if (nargs > i + 8) {
        ZuValue &tv = args[i + 8];
        if (!absent(tv)) ZuLibCheckType(ZU_MATRIX, args, i + 8, i + 8);
        const bool tv_empty = absent(tv) || tv.v.mat.rows == 0;
        if (tv_empty) {
            warn(no_tv);
        } else {
            const bool has_sys = !absent(args[i + 5]);
            const bool has_var = !absent(args[i + 6]);
            const bool has_mean = !absent(args[i + 7]);
            if (has_sys) ZuLibCheckMatrixSize(args, i + 5, i + 5, mN, m);
            if (has_var) ZuLibCheckMatrixSize(args, i + 6, i + 6, mN, mN);
            if (has_mean) ZuLibCheckMatrixSize(args, i + 7, i + 7, mN, 1);
            if (has_sys || has_var || has_mean)
                ZuLibCheckMatrixSize(args, i + 8, i + 8, tv.v.mat.rows, n);
            in_force = 1;
        }
    } else if (nargs > i + 5) {
        // Part of the time-varying block was passed.
        if (variant == FrameVariant::InPlace) {
            ZuRunMessage(no_tv);
        } else if (fLgmNoErrorMessage) {
            std::exit(0);
        } else {
            ZuRunMessage(no_tv);
        }
    }

    if (pN) *pN = N;
    if (pm) *pm = m;
    if (pmN) *pmN = mN;
    if (pS) *pS = S;
    if (pmExtra) *pmExtra = mExtra;
    if (pn) *pn = n;
    if (pinit && init) *pinit = init;
    if (pmean && mean) *pmean = mean;
    return in_force;
}

int fZuOpenLgmTV(FrameVariant variant, ZuValue *block, int m, int mN, int mN2, int ***psysidx,
                 int ***pvaridx, int **pmeanidx, double ***ptvdata) {
    const bool has_sys = !absent(block[0]);
    const bool has_var = !absent(block[1]);
    const bool has_mean = !absent(block[2]);
    const ZuValue &tv = block[3];
    const int tv_rows = tv.type == ZU_MATRIX ? tv.v.mat.rows : 0;

    if (has_sys) {
        int **t = reinterpret_cast<int **>(TabAllocPlain(mN, m, static_cast<int>(sizeof(int))));
        if (!t) return 0;
        *psysidx = t;
        double **src = block[0].v.mat.data;
        for (int r = 0; r < mN; ++r)
            for (int c = 0; c < m; ++c) t[r][c] = truncate_index(src[r][c]);
    }
    if (has_var) {
        int **t = reinterpret_cast<int **>(TabAllocPlain(mN, mN2, static_cast<int>(sizeof(int))));
        if (!t) return 0;
        *pvaridx = t;
        double **src = block[1].v.mat.data;
        for (int r = 0; r < mN; ++r)
            for (int c = 0; c < mN2; ++c) t[r][c] = truncate_index(src[r][c]);
    }
    if (has_mean) {
        int *v = static_cast<int *>(lib_malloc(static_cast<std::size_t>(mN) * sizeof(int)));
        if (!v) return 0;
        *pmeanidx = v;
        double **src = block[2].v.mat.data;
        for (int r = 0; r < mN; ++r) v[r] = truncate_index(src[r][0]);
    }

    const bool any = has_sys || has_var || has_mean;
    if (variant == FrameVariant::InPlace) {
        if (!any) return 1;
    } else if (!any && tv_rows == 0) {
        return 1;
    }

    const int need_sys = iMaxIntMat(mN, m, has_sys ? *psysidx : nullptr);
    const int need_var = iMaxIntMat(mN, mN2, has_var ? *pvaridx : nullptr);
    const int need_mean = iMaxIntVec(mN, has_mean ? *pmeanidx : nullptr);
    // Compared as "largest entry < rows" so that an entry of INT_MAX cannot overflow.
    if (need_sys >= tv_rows || need_var >= tv_rows || need_mean >= tv_rows) {
        if (variant == FrameVariant::Copying)
            raise_text("Lgm(): dimension of data matrix is not correct");
        return 0;
    }
    *ptvdata = tv.v.mat.data;
    return 1;
}

int fLgmTVIndex(int m, int mN, int mN2, int **sysidx, int **varidx, int *meanidx, int *pK,
                int ***plist) {
    int ns = 0, nv = 0, nm = 0;
    if (sysidx)
        for (int r = 0; r < mN; ++r)
            for (int c = 0; c < m; ++c) ns += sysidx[r][c] >= 0;
    if (varidx)
        for (int r = 0; r < mN; ++r)
            for (int c = 0; c < mN2; ++c) nv += varidx[r][c] >= 0;
    if (meanidx)
        for (int r = 0; r < mN; ++r) nm += meanidx[r] >= 0;
    int K = ns;
    if (nv > K) K = nv;
    if (nm > K) K = nm;

    int **list = reinterpret_cast<int **>(TabAllocPlain(8, K + 1, static_cast<int>(sizeof(int))));
    if (!list) return 0;
    list[0][0] = ns;
    list[3][0] = nv;
    list[6][0] = nm;
    int k = 0;
    if (sysidx)
        for (int r = 0; r < mN; ++r)
            for (int c = 0; c < m; ++c)
                if (sysidx[r][c] >= 0) {
                    ++k;
                    list[0][k] = r;
                    list[1][k] = c;
                    list[2][k] = sysidx[r][c];
                }
    k = 0;
    if (varidx)
        for (int r = 0; r < mN; ++r)
            for (int c = 0; c < mN2; ++c)
                if (varidx[r][c] >= 0) {
                    ++k;
                    list[3][k] = r;
                    list[4][k] = c;
                    list[5][k] = varidx[r][c];
                }
    k = 0;
    if (meanidx)
        for (int r = 0; r < mN; ++r)
            if (meanidx[r] >= 0) {
                ++k;
                list[6][k] = r;
                list[7][k] = meanidx[r];
            }
    *pK = K;
    *plist = list;
    return 1;
}

void free_tv_index(int **list, int K) {
    if (list) TabFreePlain(reinterpret_cast<void **>(list), 8, K + 1);
}

static double **copy_matrix(double **src, int rows, int cols) {
    double **dst = MatAllocBlock(rows, cols);
    if (!dst) return nullptr;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) dst[r][c] = src[r][c];
    return dst;
}

int fCopyLgmTV(ZuValue *block, int m, int mN, int **sysidx, int **varidx, double ***psys,
               double ***pvar) {
    if (sysidx) {
        double **c = copy_matrix(block[0].v.mat.data, mN, m);
        if (!c) return 0;
        *psys = c;
    }
    if (varidx) {
        double **c = copy_matrix(block[1].v.mat.data, mN, mN);
        if (!c) return 0;
        *pvar = c;
    }
    return 1;
}

void ZuCloseLgmTV(int m, int mN, double **sys, double **var, int **sysidx, int **varidx,
                  int *meanidx) {
    if (sysidx) {
        if (sys) MatFreeBlock(sys);
        TabFreePlain(reinterpret_cast<void **>(sysidx), mN, m);
    }
    if (varidx) {
        if (var) MatFreeBlock(var);
        TabFreePlain(reinterpret_cast<void **>(varidx), mN, mN);
    }
    if (meanidx) lib_free(meanidx);
}

// ------------------------------------------------------------------ Model

void Model::check(FrameVariant v, ZuValue *args, int nargs, int i, int mode) {
    variant = v;
    init = meanvec = nullptr;
    time_varying =
        iZuCheckLgm(v, args, nargs, i, mode, &N, &m, &mN, &S, &mExtra, &n, &init, &meanvec) != 0;
    block = &args[i + 1];
}

bool Model::open(bool build_list) {
    if (!time_varying) return true;
    opened = true;
    if (!fZuOpenLgmTV(variant, block + 4, m, mN, mN, &sysidx, &varidx, &meanidx, &tvdata))
        return false;
    if (variant == FrameVariant::Copying &&
        !fCopyLgmTV(block, m, mN, sysidx, varidx, &syscopy, &varcopy))
        return false;
    if (build_list && !fLgmTVIndex(m, mN, mN, sysidx, varidx, meanidx, &K, &list)) return false;
    return true;
}

void Model::close() {
    if (!opened) return;
    free_tv_index(list, K);
    list = nullptr;
    ZuCloseLgmTV(m, mN, syscopy, varcopy, sysidx, varidx, meanidx);
    syscopy = varcopy = nullptr;
    sysidx = varidx = nullptr;
    meanidx = nullptr;
    tvdata = nullptr;
    opened = false;
}

void Model::fill_mean(double *dst) const {
    for (int k = 0; k < mN; ++k) dst[k] = meanvec ? meanvec[k][0] : 0.0;
}

}  // namespace tessel
