// value.cpp - host values (zu::Value over ZuValue), zu::Error, and the value
// operations of zu.h (ZuLibValMatMalloc, ZuFreeByValue).
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

#include "host_internal.h"

namespace zu {

static_assert(sizeof(Value) == sizeof(ZuValue), "a Value must be laid out as a ZuValue");
static_assert(alignof(Value) == alignof(ZuValue), "a Value must be aligned as a ZuValue");
static_assert(std::is_standard_layout<Value>::value, "Value must be standard layout");
static_assert(std::is_standard_layout<ZuValue>::value, "ZuValue must be standard layout");

Error::Error(int number, const std::string &text) : std::runtime_error(text), number_(number) {}

namespace {

void set_none(ZuValue &v) noexcept {
    std::memset(&v, 0, sizeof v);
    v.type = ZU_NONE;
}

// Makes dst (holding nothing) a deep copy of the matrix src. Throws
// zu::Error(4) when the storage cannot be had.
void copy_matrix(ZuValue &dst, const ZuValue &src) {
    const int rows = src.v.mat.rows, cols = src.v.mat.cols;
    double **data = nullptr;
    if (src.v.mat.data) {
        data = MatAllocBlock(rows, cols);
        if (!data) throw Error(kErrorMemory, detail::out_of_memory_text());
        if (cols > 0)
            for (int r = 0; r < rows; ++r)
                std::memcpy(data[r], src.v.mat.data[r],
                            sizeof(double) * static_cast<std::size_t>(cols));
    }
    set_none(dst);
    dst.type = ZU_MATRIX;
    dst.v.mat.rows = rows;
    dst.v.mat.cols = cols;
    dst.v.mat.data = data;
}

void copy_value(ZuValue &dst, const ZuValue &src) {
    if (src.type == ZU_MATRIX)
        copy_matrix(dst, src);
    else
        dst = src;  // scalars by value; a reference copies its target pointer
}

[[noreturn]] void wrong_type(const char *what) {
    throw Error(kErrorType, std::string("value is not ") + what);
}

}  // namespace

Value::Value() noexcept { set_none(v_); }

Value::~Value() { reset(); }

Value::Value(const Value &other) {
    set_none(v_);
    copy_value(v_, other.v_);
}

Value &Value::operator=(const Value &other) {
    if (this != &other) {
        ZuValue fresh;
        set_none(fresh);
        copy_value(fresh, other.v_);  // may throw: leave *this intact
        reset();
        v_ = fresh;
    }
    return *this;
}

Value::Value(Value &&other) noexcept : v_(other.v_) { set_none(other.v_); }

Value &Value::operator=(Value &&other) noexcept {
    if (this != &other) {
        reset();
        v_ = other.v_;
        set_none(other.v_);
    }
    return *this;
}

Value Value::integer(int x) {
    Value v;
    v.v_.type = ZU_INT;
    v.v_.v.ival = x;
    return v;
}

Value Value::real(double x) {
    Value v;
    v.v_.type = ZU_DOUBLE;
    v.v_.v.dval = x;
    return v;
}

Value Value::matrix(int rows, int cols) {
    if (rows < 0 || cols < 0)
        throw Error(kErrorSize,
                    "negative matrix size " + std::to_string(rows) + " x " + std::to_string(cols));
    Value v;
    ZuLibValMatMalloc(&v.v_, rows, cols);
    if (!v.v_.v.mat.data && (rows > 0 || cols > 0))
        throw Error(kErrorMemory, detail::out_of_memory_text());
    return v;
}

Value Value::matrix(int rows, int cols, const std::vector<double> &rowmajor) {
    Value v = matrix(rows, cols);
    const std::size_t want = static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols);
    if (rowmajor.size() != want)
        throw Error(kErrorSize, std::to_string(rowmajor.size()) + " values given for a " +
                                    std::to_string(rows) + " x " + std::to_string(cols) +
                                    " matrix");
    if (want > 0) std::memcpy(v.v_.v.mat.data[0], rowmajor.data(), want * sizeof(double));
    return v;
}

Value Value::matrix(int rows, int cols, std::initializer_list<double> rowmajor) {
    return matrix(rows, cols, std::vector<double>(rowmajor));
}

Value Value::empty() {
    Value v;
    v.v_.type = ZU_MATRIX;
    v.v_.v.mat.rows = 0;
    v.v_.v.mat.cols = 0;
    v.v_.v.mat.data = nullptr;
    return v;
}

Value Value::ref(Value &target) {
    Value v;
    v.v_.type = ZU_REF;
    v.v_.v.ref = &target.v_;
    return v;
}

int Value::as_int() const {
    if (v_.type != ZU_INT) wrong_type("an integer");
    return v_.v.ival;
}

double Value::as_double() const {
    if (v_.type == ZU_DOUBLE) return v_.v.dval;
    if (v_.type == ZU_INT) return v_.v.ival;
    wrong_type("a number");
}

int Value::rows() const {
    if (v_.type != ZU_MATRIX) wrong_type("a matrix");
    return v_.v.mat.rows;
}

int Value::cols() const {
    if (v_.type != ZU_MATRIX) wrong_type("a matrix");
    return v_.v.mat.cols;
}

double **Value::data() const {
    if (v_.type != ZU_MATRIX) wrong_type("a matrix");
    return v_.v.mat.data;
}

double Value::at(int r, int c) const { return const_cast<Value *>(this)->at(r, c); }

double &Value::at(int r, int c) {
    if (v_.type != ZU_MATRIX) wrong_type("a matrix");
    if (r < 0 || c < 0 || r >= v_.v.mat.rows || c >= v_.v.mat.cols || !v_.v.mat.data)
        throw Error(kErrorSize, "element (" + std::to_string(r) + ", " + std::to_string(c) +
                                    ") outside a " + std::to_string(v_.v.mat.rows) + " x " +
                                    std::to_string(v_.v.mat.cols) + " matrix");
    return v_.v.mat.data[r][c];
}

std::vector<double> Value::to_vector() const {
    if (v_.type != ZU_MATRIX) wrong_type("a matrix");
    std::vector<double> out;
    if (!v_.v.mat.data) return out;
    out.reserve(static_cast<std::size_t>(v_.v.mat.rows) * static_cast<std::size_t>(v_.v.mat.cols));
    for (int r = 0; r < v_.v.mat.rows; ++r)
        out.insert(out.end(), v_.v.mat.data[r], v_.v.mat.data[r] + v_.v.mat.cols);
    return out;
}

Value &Value::target() const {
    if (v_.type != ZU_REF || !v_.v.ref) wrong_type("a reference");
    // Values are laid out as ZuValues, so the referenced ZuValue is a Value.
    return *reinterpret_cast<Value *>(v_.v.ref);
}

void Value::reset() noexcept { ZuFreeByValue(&v_); }

}  // namespace zu

extern "C" {

void ZuLibValMatMalloc(ZuValue *v, int rows, int cols) {
    ZuFreeByValue(v);
    v->type = ZU_MATRIX;
    v->v.mat.rows = rows;
    v->v.mat.cols = cols;
    // 0 x 0 is the empty matrix; any other size (0 x k and k x 0 included)
    // gets storage, so a null data pointer always means failure.
    v->v.mat.data = (rows == 0 && cols == 0) ? nullptr : MatAllocBlock(rows, cols);
}

void ZuFreeByValue(ZuValue *v) {
    if (!v) return;
    if (v->type == ZU_MATRIX) MatFreeBlock(v->v.mat.data);
    std::memset(v, 0, sizeof *v);
    v->type = ZU_NONE;
}

}  // extern "C"
