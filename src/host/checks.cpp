// checks.cpp - argument checks with the conversions an interpreter makes:
// int <-> double (double -> int only for an exact integer in int range) and
// numeric scalar -> 1 x 1 matrix. Failures raise zu::Error naming the Zu
// function, the 1-based argument, and what was expected and found.
#include <climits>
#include <cmath>
#include <string>

#include "host_internal.h"

namespace zu {
namespace {

const char *type_name(int type) {
    switch (type) {
        case ZU_NONE:
            return "nothing";
        case ZU_INT:
            return "integer";
        case ZU_DOUBLE:
            return "double";
        case ZU_MATRIX:
            return "matrix";
        case ZU_REF:
            return "reference";
        default:
            return "unknown type";
    }
}

std::string type_text(int type) {
    std::string s = type_name(type);
    if (s == "unknown type") s += " " + std::to_string(type);
    return s;
}

std::string arg_prefix(const ZuValue *args, int index) {
    return detail::error_prefix() + "argument " +
           std::to_string(detail::args_offset(args) + index + 1) + ": ";
}

// Raises unless args[index] exists in the current call (when the call is
// known; a direct call from native code has no bound to check against).
void require_present(const ZuValue *args, int index, int number) {
    const int avail = detail::args_available(args);
    if (index < 0 || (avail >= 0 && index >= avail) || !args)
        throw Error(number, detail::error_prefix() + "argument " +
                                std::to_string(detail::args_offset(args) + index + 1) + " missing");
}

// Makes v (an integer or double) a 1 x 1 matrix holding its value.
void scalar_to_matrix(ZuValue *v) {
    const double x = v->type == ZU_INT ? double(v->v.ival) : v->v.dval;
    ZuLibValMatMalloc(v, 1, 1);
    if (!v->v.mat.data) {
        // Leave a valid value behind (the interpreter would keep the scalar).
        v->type = ZU_DOUBLE;
        v->v.dval = x;
        throw Error(kErrorMemory, detail::out_of_memory_text());
    }
    v->v.mat.data[0][0] = x;
}

bool exact_int(double x) {
    return x >= double(INT_MIN) && x <= double(INT_MAX) && std::trunc(x) == x;
}

// True when v has type `type` or converts to it.
bool convertible(const ZuValue &v, int type) {
    if (v.type == type) return true;
    switch (type) {
        case ZU_DOUBLE:
            return v.type == ZU_INT;
        case ZU_INT:
            return v.type == ZU_DOUBLE && exact_int(v.v.dval);
        case ZU_MATRIX:
            return v.type == ZU_INT || v.type == ZU_DOUBLE;
        default:
            return false;  // references and anything else: no conversion
    }
}

// Converts v (convertible) to `type` in place.
void convert(ZuValue *v, int type) {
    if (v->type == type) return;
    switch (type) {
        case ZU_DOUBLE:
            v->v.dval = double(v->v.ival);
            v->type = ZU_DOUBLE;
            break;
        case ZU_INT:
            v->v.ival = static_cast<int>(v->v.dval);
            v->type = ZU_INT;
            break;
        case ZU_MATRIX:
            scalar_to_matrix(v);
            break;
        default:
            break;
    }
}

}  // namespace
}  // namespace zu

extern "C" {

void ZuLibCheckType(int type, ZuValue *args, int first, int last) {
    // Check the whole range before converting anything, so that a failed
    // check leaves every argument as it was.
    for (int i = first; i <= last; ++i) {
        zu::require_present(args, i, zu::kErrorType);
        const ZuValue *v = &args[i];
        if (zu::convertible(*v, type)) continue;
        std::string text = zu::arg_prefix(args, i) + "expected " + zu::type_text(type) +
                           ", found " + zu::type_text(v->type);
        if (type == ZU_INT && v->type == ZU_DOUBLE) text += " that is not an integer";
        throw zu::Error(zu::kErrorType, text);
    }
    for (int i = first; i <= last; ++i) zu::convert(&args[i], type);
}

void ZuLibCheckMatrixSize(ZuValue *args, int first, int last, int rows, int cols) {
    for (int i = first; i <= last; ++i) {
        zu::require_present(args, i, zu::kErrorSize);
        ZuValue *v = &args[i];
        if (v->type == ZU_INT || v->type == ZU_DOUBLE) zu::scalar_to_matrix(v);
        const std::string expected =
            "expected " + std::to_string(rows) + " x " + std::to_string(cols) + " matrix, found ";
        if (v->type != ZU_MATRIX)
            throw zu::Error(zu::kErrorSize,
                            zu::arg_prefix(args, i) + expected + zu::type_text(v->type));
        if (v->v.mat.rows != rows || v->v.mat.cols != cols)
            throw zu::Error(zu::kErrorSize, zu::arg_prefix(args, i) + expected +
                                                std::to_string(v->v.mat.rows) + " x " +
                                                std::to_string(v->v.mat.cols));
    }
}

}  // extern "C"
