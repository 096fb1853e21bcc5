// frame.cpp - storage guards, argument helpers and result reporting shared
// by the entry points.
#include "frame.h"

#include <dlfcn.h>

#include <cstdlib>

namespace tessel {

double diffuse_kappa(double **var, int order) {
    double largest = 1.0;
    for (int i = 0; i < order; ++i)
        if (var[i][i] > largest) largest = var[i][i];
    return 9999999.99 * largest;
}

// A host may offer a heap of its own (ZuHeapAlloc/ZuHeapFree) so that it can
// account for our blocks and make them fail on purpose. It is optional and
// looked up once at run time, so a host without it still loads the library
// (no undefined symbol is added); then plain malloc/free serve.
namespace {

struct HeapHooks {
    void *(*alloc)(std::size_t) = nullptr;
    void (*release)(void *) = nullptr;
};

const HeapHooks &heap_hooks() {
    static const HeapHooks hooks = [] {
        HeapHooks h;
        void *a = dlsym(RTLD_DEFAULT, "ZuHeapAlloc");
        void *f = dlsym(RTLD_DEFAULT, "ZuHeapFree");
        if (a && f) {  // both or neither: a block must go back where it came from
            h.alloc = reinterpret_cast<void *(*)(std::size_t)>(a);
            h.release = reinterpret_cast<void (*)(void *)>(f);
        }
        return h;
    }();
    return hooks;
}

}  // namespace

void *lib_malloc(std::size_t bytes) {
    const HeapHooks &h = heap_hooks();
    return h.alloc ? h.alloc(bytes) : std::malloc(bytes);
}

void lib_free(void *p) {
    if (!p) return;
    const HeapHooks &h = heap_hooks();
    if (h.release)
        h.release(p);
    else
        std::free(p);
}

bool Block::alloc(int rows, int cols) {
    reset();
    p_ = MatAllocBlock(rows, cols);
    return p_ != nullptr;
}

void Block::reset() {
    if (p_) MatFreeBlock(p_);
    p_ = nullptr;
}

bool IntTable::alloc(int rows, int cols) {
    reset();
    p_ = reinterpret_cast<int **>(TabAllocPlain(rows, cols, static_cast<int>(sizeof(int))));
    if (p_) {
        rows_ = rows;
        cols_ = cols;
    }
    return p_ != nullptr;
}

void IntTable::reset() {
    if (p_) TabFreePlain(reinterpret_cast<void **>(p_), rows_, cols_);
    p_ = nullptr;
    rows_ = cols_ = 0;
}

static bool value_absent(const ZuValue &v) {
    switch (v.type) {
        case ZU_NONE:
            return true;
        case ZU_INT:
            return v.v.ival == 0;
        case ZU_DOUBLE:
            return v.v.dval == 0.0;
        case ZU_MATRIX:
            if (v.v.mat.rows <= 0 || v.v.mat.cols <= 0 || !v.v.mat.data) return true;
            return v.v.mat.rows == 1 && v.v.mat.cols == 1 && v.v.mat.data[0][0] == 0.0;
        default:
            return false;
    }
}

bool arg_absent(const ZuValue *args, int nargs, int index) {
    return index >= nargs || value_absent(args[index]);
}

bool make_matrix_value(ZuValue *v, int rows, int cols) {
    if (rows < 0 || cols < 0) {  // a size that overflowed somewhere: never a matrix
        ZuFreeByValue(v);
        return false;
    }
    ZuLibValMatMalloc(v, rows, cols);
    return v->type == ZU_MATRIX && (v->v.mat.data != nullptr || rows <= 0);
}

double **make_matrix_value_or_raise(ZuValue *v, int rows, int cols) {
    if (!make_matrix_value(v, rows, cols)) {
        ZuFreeByValue(v);
        ZuRunError(4, nullptr);
    }
    return v->v.mat.data;
}

void set_ref_double(ZuValue *ref, double x) {
    ZuValue *target = ref->v.ref;
    ZuFreeByValue(target);
    target->type = ZU_DOUBLE;
    target->v.dval = x;
}

void set_int(ZuValue *v, int x) {
    ZuFreeByValue(v);
    v->type = ZU_INT;
    v->v.ival = x;
}

void warn(const char *text) {
    if (!fLgmNoErrorMessage) ZuRunMessage(text);
}

void report_status(int code, ZuValue *rtn, ReturnKind kind, const char *failure_text) {
    if (code == kOk) return;
    if (kind == ReturnKind::Matrix)
        ZuFreeByValue(rtn);
    else
        set_int(rtn, 0);
    if (code == kAllocFailed) ZuRunError(4, nullptr);
    warn(failure_text);
}

}  // namespace tessel
