// storage.cpp - the host's one allocator for matrices and plain tables, with
// allocation accounting and failure injection. The counters are atomic:
// calls may allocate on several threads at once (the counts stay exact; an
// injected failure goes to whichever thread makes the k-th allocation).
//
// Layout of every block: a 16-byte header (magic word and kind), the array
// of row pointers, padding to 16 bytes, then the zero-filled elements row by
// row. The caller sees the row-pointer array; one free releases everything.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_internal.h"

namespace zu {
namespace {

constexpr std::uint64_t kMagic = 0x54455353454C5A55ull;  // tag of a live block
constexpr std::uint64_t kDead = 0x44454144424C4B00ull;   // tag after release
constexpr std::size_t kHeader = 16;
// Refuse anything above 1 TiB: such a request is a size bug, not a matrix.
constexpr std::uint64_t kMaxBytes = std::uint64_t(1) << 40;

// Kind tag of ZuHeapAlloc blocks (matrices and tables use StorageKind).
constexpr std::uint64_t kHeapKind = 3;

struct Header {
    std::uint64_t magic;
    std::uint64_t kind;
};
static_assert(sizeof(Header) == kHeader, "header must keep 16-byte alignment");

std::atomic<long> g_attempts{0};
std::atomic<long> g_live_blocks{0};
std::atomic<long> g_live_tables{0};
std::atomic<long> g_live_heap{0};
std::atomic<long> g_fail_countdown{0};  // 0: injection off
std::atomic<bool> g_delivered{false};

std::atomic<long> &live_counter(detail::StorageKind kind) {
    return kind == detail::StorageKind::Matrix ? g_live_blocks : g_live_tables;
}

// True when this attempt is the one chosen to fail (exactly one attempt is,
// whichever thread makes it).
bool inject_failure() {
    long left = g_fail_countdown.load(std::memory_order_relaxed);
    while (left > 0) {
        if (g_fail_countdown.compare_exchange_weak(left, left - 1)) {
            if (left > 1) return false;
            g_delivered = true;
            return true;
        }
    }
    return false;
}

std::uint64_t round16(std::uint64_t n) { return (n + 15) & ~std::uint64_t(15); }

}  // namespace

namespace detail {

void **alloc_rows(StorageKind kind, int rows, int cols, int elemsize) {
    ++g_attempts;
    if (inject_failure()) return nullptr;
    if (rows < 0 || cols < 0 || elemsize < 0) return nullptr;
    // rows, cols < 2^31 and elemsize < 2^31: each product below fits in 64
    // bits as long as we test the element count before scaling by elemsize.
    const std::uint64_t ptr_bytes = round16(std::uint64_t(rows) * sizeof(void *));
    const std::uint64_t count = std::uint64_t(rows) * std::uint64_t(cols);
    if (elemsize > 0 && count > kMaxBytes / std::uint64_t(elemsize)) return nullptr;
    const std::uint64_t elem_bytes = count * std::uint64_t(elemsize);
    const std::uint64_t total = kHeader + ptr_bytes + elem_bytes;
    if (total > kMaxBytes) return nullptr;

    void *raw = std::calloc(1, static_cast<std::size_t>(total));
    if (!raw) return nullptr;
    Header *h = static_cast<Header *>(raw);
    h->magic = kMagic;
    h->kind = static_cast<std::uint64_t>(kind);
    char *base = static_cast<char *>(raw) + kHeader;
    void **ptrs = reinterpret_cast<void **>(base);
    char *elems = base + ptr_bytes;
    const std::size_t stride = static_cast<std::size_t>(cols) * static_cast<std::size_t>(elemsize);
    for (int r = 0; r < rows; ++r)
        ptrs[r] =
            (cols > 0 && elemsize > 0) ? elems + static_cast<std::size_t>(r) * stride : nullptr;
    ++live_counter(kind);
    return ptrs;
}

void free_rows(StorageKind kind, void **rows) {
    if (!rows) return;
    Header *h = reinterpret_cast<Header *>(reinterpret_cast<char *>(rows) - kHeader);
    if (h->magic != kMagic || h->kind != static_cast<std::uint64_t>(kind)) {
        // Freeing foreign storage, storage of the other kind, or twice: a
        // bug in the caller that would corrupt the heap if we went on.
        std::fprintf(stderr, "tessel host: %s of storage it did not hand out (or already freed)\n",
                     kind == StorageKind::Matrix ? "MatFreeBlock" : "TabFreePlain");
        std::abort();
    }
    h->magic = kDead;
    --live_counter(kind);
    std::free(h);
}

}  // namespace detail

LiveCounts live_allocations() {
    LiveCounts c;
    c.blocks = g_live_blocks.load();
    c.tables = g_live_tables.load();
    c.heap = g_live_heap.load();
    return c;
}

long allocation_attempts() { return g_attempts.load(); }

void fail_allocation(long k) {
    g_fail_countdown = k > 0 ? k : 0;
    g_delivered = false;
}

bool injected_failure_delivered() { return g_delivered.load(); }

}  // namespace zu

extern "C" {

double **MatAllocBlock(int rows, int cols) {
    return reinterpret_cast<double **>(
        zu::detail::alloc_rows(zu::detail::StorageKind::Matrix, rows, cols, sizeof(double)));
}

void MatFreeBlock(double **m) {
    zu::detail::free_rows(zu::detail::StorageKind::Matrix, reinterpret_cast<void **>(m));
}

void **TabAllocPlain(int rows, int cols, int elemsize) {
    return zu::detail::alloc_rows(zu::detail::StorageKind::Table, rows, cols, elemsize);
}

void TabFreePlain(void **tab, int rows, int cols) {
    (void)rows;
    (void)cols;
    zu::detail::free_rows(zu::detail::StorageKind::Table, tab);
}

// The library's own heap blocks: the same header and accounting as the
// matrices and tables, so they are counted, injected and checked on release.
void *ZuHeapAlloc(std::size_t bytes) {
    using namespace zu;
    ++g_attempts;
    if (inject_failure()) return nullptr;
    if (bytes > kMaxBytes) return nullptr;
    void *raw = std::malloc(kHeader + (bytes ? bytes : 1));
    if (!raw) return nullptr;
    Header *h = static_cast<Header *>(raw);
    h->magic = kMagic;
    h->kind = kHeapKind;
    ++g_live_heap;
    return static_cast<char *>(raw) + kHeader;
}

void ZuHeapFree(void *p) {
    using namespace zu;
    if (!p) return;
    Header *h = reinterpret_cast<Header *>(static_cast<char *>(p) - kHeader);
    if (h->magic != kMagic || h->kind != kHeapKind) {
        std::fprintf(stderr,
                     "tessel host: ZuHeapFree of memory it did not hand out (or already freed)\n");
        std::abort();
    }
    h->magic = kDead;
    --g_live_heap;
    std::free(h);
}

}  // extern "C"
