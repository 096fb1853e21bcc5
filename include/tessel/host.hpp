// host.hpp - C++ API of Tessel's host runtime (libzuhost.so).
//
// The host runtime implements every operation of zu.h and loads libtessel.so
// to call its entry points by Zu name, as the Zu interpreter would:
//
//   std::vector<zu::Value> args;
//   args.push_back(zu::Value::matrix(1, 100, y));      // data, row-major
//   args.push_back(zu::Value::matrix(2, 1, {1.0, 1.0}));  // SysMat
//   args.push_back(zu::Value::matrix(2, 2, {1, 0, 0, 1}));  // VarMat
//   zu::Value store = zu::call("KalmanFil", args);
//
// Host errors (failed checks, ZuRunError, ZuRunErrorMessage) surface as
// zu::Error. Calls may run on several threads at once: the state the runtime
// keeps (message sink, random generator, allocation counts, the frame of the
// entry point being called) is guarded or per thread. The library's message
// switch is one process-wide flag (see message_switch()).
#ifndef TESSEL_HOST_HPP
#define TESSEL_HOST_HPP

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "tessel/zu.h"

#define ZU_HOST_API __attribute__((visibility("default")))

namespace zu {

// Error numbers used by the host; entry points may raise others via ZuRunError.
enum ErrorNumber : int {
    kErrorMessage = 1,  // ZuRunErrorMessage: the text is the library's own
    kErrorType = 2,     // ZuLibCheckType failed
    kErrorSize = 3,     // ZuLibCheckMatrixSize failed
    kErrorMemory = 4,   // out of memory (ZuRunError(4, ...))
};

// A host run-time error: its number and its text.
class ZU_HOST_API Error : public std::runtime_error {
public:
    Error(int number, const std::string &text);
    int number() const noexcept { return number_; }

private:
    int number_;
};

// An owning host value. It has exactly the layout of ZuValue, so a
// std::vector<Value> is the argument array an entry point receives. A
// matrix value owns its storage; a reference points at another Value (not
// owned: the target must outlive the reference).
class ZU_HOST_API Value {
public:
    Value() noexcept;  // holds nothing (ZU_NONE)
    ~Value();
    Value(const Value &other);  // deep copy (a reference copies its target pointer)
    Value &operator=(const Value &other);
    Value(Value &&other) noexcept;
    Value &operator=(Value &&other) noexcept;

    static Value integer(int v);
    static Value real(double v);
    // rows x cols matrix, zero-filled. Throws zu::Error(4) when the storage
    // cannot be allocated, zu::Error(3) for negative sizes.
    static Value matrix(int rows, int cols);
    // rows x cols matrix from row-major values (size must be rows * cols).
    static Value matrix(int rows, int cols, const std::vector<double> &rowmajor);
    static Value matrix(int rows, int cols, std::initializer_list<double> rowmajor);
    static Value empty();  // the empty matrix <> (0 x 0)
    static Value ref(Value &target);

    int type() const noexcept { return v_.type; }
    bool is_none() const noexcept { return v_.type == ZU_NONE; }
    int as_int() const;        // throws zu::Error unless ZU_INT
    double as_double() const;  // ZU_DOUBLE or ZU_INT
    int rows() const;          // throws unless ZU_MATRIX
    int cols() const;
    double **data() const;          // row pointers of a matrix (null when empty)
    double at(int r, int c) const;  // bounds-checked element
    double &at(int r, int c);
    std::vector<double> to_vector() const;  // row-major copy of a matrix
    Value &target() const;                  // referenced value; throws unless ZU_REF

    ZuValue *raw() noexcept { return &v_; }
    const ZuValue *raw() const noexcept { return &v_; }
    void reset() noexcept;  // frees what the value owns (ZuFreeByValue)

private:
    ZuValue v_;
};

// ---- messages ----
using MessageSink = std::function<void(const char *text)>;
// Sets where ZuRunMessage texts go (null restores the default: stderr, one
// line per message). Returns the previous sink.
ZU_HOST_API MessageSink set_message_sink(MessageSink sink);
// The library's message switch fLgmNoErrorMessage (loads the library first;
// null when it does not export one). Nonzero silences the library's messages
// and makes two of its paths end the process with status 0: LgmWarning()
// without an argument, and a filtering call given part of the time-varying
// block. Callers that run calls on several threads must agree on its value
// while their calls run (the Python binding serialises calls that need
// different values).
ZU_HOST_API int *message_switch();

// ---- random numbers ----
// The generator's state (xoshiro256** and the spare normal of the polar
// method).
struct GeneratorState {
    std::uint64_t s[4];
    double spare;
    bool has_spare;
};
// Reseeds the generator the process shares (xoshiro256** seeded through
// splitmix64). Until the first call it is seeded from the system's entropy.
ZU_HOST_API void set_seed(std::uint64_t seed);
// While an object lives, the draws (DRanNormalPM, MatRann) of the thread that
// made it come from a generator of its own seeded with `seed`; the shared one
// is left alone. Seeding and drawing are then one step that other threads
// cannot interleave. Scopes nest; the previous generator is restored.
class ZU_HOST_API ThreadDraws {
public:
    explicit ThreadDraws(std::uint64_t seed);
    ~ThreadDraws();
    ThreadDraws(const ThreadDraws &) = delete;
    ThreadDraws &operator=(const ThreadDraws &) = delete;

private:
    GeneratorState own_;
    GeneratorState *saved_;
};

// ---- allocation accounting and failure injection ----
struct LiveCounts {
    long blocks = 0;  // matrix blocks: MatAllocBlock and matrix values
    long tables = 0;  // TabAllocPlain tables
    long heap = 0;    // the library's own malloc blocks (ZuHeapAlloc, see below)
    long total() const { return blocks + tables + heap; }
};
ZU_HOST_API LiveCounts live_allocations();
// Number of host allocations attempted since the process started.
ZU_HOST_API long allocation_attempts();
// The k-th host allocation from now (k >= 1) fails and returns null; every
// later one succeeds again. k = 0 switches injection off.
ZU_HOST_API void fail_allocation(long k);
// True once the injected failure has been delivered (and injection is off).
ZU_HOST_API bool injected_failure_delivered();

}  // namespace zu

// Optional heap for a library's own malloc blocks. Not part of the host
// interface of zu.h: a library looks these up at run time (dlsym) and falls
// back to malloc/free when the host lacks them. Blocks from here are counted
// in live_allocations().heap and take part in failure injection.
extern "C" ZU_HOST_API void *ZuHeapAlloc(std::size_t bytes);
extern "C" ZU_HOST_API void ZuHeapFree(void *p);

namespace zu {

// ---- loading and calling ----
// Path of libtessel.so in use: $TESSEL_LIBRARY if set, else libtessel.so in
// the directory of libzuhost.so.
ZU_HOST_API std::string library_path();
// Opens the library (once; later calls are no-ops). Throws zu::Error when it
// cannot be loaded.
ZU_HOST_API void load_library();
// The entry point Fn<name>, or null when the library does not export it.
ZU_HOST_API ZuEntryPoint find_entry_point(const std::string &name);
// Any symbol the library exports, by its exact name (the numeric routines:
// "fKalmanExact", ...), or null.
ZU_HOST_API void *find_symbol(const std::string &name);
// Calls Fn<name>(rtn, args.data(), args.size()) and returns rtn (ZU_NONE if
// the entry point set nothing). Arguments may be converted and references
// written in place. Throws zu::Error for host errors and for an unknown name.
ZU_HOST_API Value call(const std::string &name, std::vector<Value> &args);
// Same, for a plain argument array owned by the caller.
ZU_HOST_API Value call(const std::string &name, ZuValue *args, int nargs);
// The Zu name of the entry point being called (empty outside a call); used
// in the texts of argument-check errors.
ZU_HOST_API const std::string &current_function();

}  // namespace zu

#endif  // TESSEL_HOST_HPP
