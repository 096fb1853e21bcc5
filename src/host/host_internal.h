// host_internal.h - private plumbing of the host runtime shared by its
// source files (and by its own tests): the frame of the entry point being
// called, the error-text prefix, and the storage allocator.
#ifndef TESSEL_HOST_INTERNAL_H
#define TESSEL_HOST_INTERNAL_H

#include <cstddef>
#include <string>

#include "tessel/host.hpp"

namespace zu {
namespace detail {

// Marks the duration of an entry-point call: sets current_function() and
// remembers the argument array so that the checks can tell a missing
// argument from a present one. Restores the previous frame on destruction,
// so calls nest. Exported only so that tests can simulate a call.
class ZU_HOST_API CallScope {
public:
    CallScope(const std::string &name, ZuValue *args, int nargs);
    ~CallScope();
    CallScope(const CallScope &) = delete;
    CallScope &operator=(const CallScope &) = delete;

private:
    std::string saved_name_;
    ZuValue *saved_args_;
    int saved_nargs_;
};

// Number of arguments available from `args` onward in the current call, or
// -1 when `args` does not point into the current call's argument array (a
// direct call from native code: no bound is known).
int args_available(const ZuValue *args);
// Offset of `args` inside the current call's argument array (0 when unknown),
// so that argument numbers in messages count from the entry point's first.
int args_offset(const ZuValue *args);

// "<function>(): " for the entry point being called, "" outside a call.
std::string error_prefix();
// The text of host error 4: "<function>(): out of memory".
std::string out_of_memory_text();

// Kinds of storage the allocator hands out (kept in a header before the
// row pointers, so a pointer of the wrong kind is caught on release).
enum class StorageKind : unsigned { Matrix = 1, Table = 2 };

// One allocation holding rows row pointers and rows x cols elements of
// elemsize bytes, zero-filled; the row pointers are aimed at the rows (null
// each when cols == 0). Counts the attempt, honours failure injection, and
// returns null for negative or absurd sizes.
void **alloc_rows(StorageKind kind, int rows, int cols, int elemsize);
void free_rows(StorageKind kind, void **rows);

}  // namespace detail
}  // namespace zu

#endif  // TESSEL_HOST_INTERNAL_H
