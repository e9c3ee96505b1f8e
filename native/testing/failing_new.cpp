// A test build's replacement for operator new and delete (CMake option
// GITUTILS_FAULT_INJECTION): a test makes the N-th allocation from now fail
// with std::bad_alloc and counts the allocations a call makes, through two C
// functions the extension exports (reached with ctypes.CDLL(module.__file__);
// the module's namespace is unchanged). The build exports nothing else
// (exports.map), so the replacements serve the extension's own code only,
// never the host's other libraries.
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> calls{0};
std::atomic<long> fail_at{-1};

bool next_fails() noexcept { return calls.fetch_add(1) == fail_at.load(); }

void* allocate(std::size_t size, std::size_t alignment, bool nothrow) {
    if (next_fails()) {
        if (nothrow) return nullptr;
        throw std::bad_alloc();
    }
    if (size == 0) size = 1;
    void* p = alignment > alignof(std::max_align_t)
                  ? std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment)
                  : std::malloc(size);
    if (p == nullptr && !nothrow) throw std::bad_alloc();
    return p;
}

}  // namespace

// The allocation number `at` from now (0 the next one) fails; -1: none does.
extern "C" void gitutils_fail_new_at(long at) {
    calls.store(0);
    fail_at.store(at);
}

// Counted as an allocation by the core's byte buffer, which grows with realloc.
extern "C" bool gitutils_allocation_fails() noexcept { return next_fails(); }

// Allocations since the last gitutils_fail_new_at.
extern "C" long gitutils_new_calls() { return calls.load(); }

void* operator new(std::size_t size) { return allocate(size, 0, false); }
void* operator new[](std::size_t size) { return allocate(size, 0, false); }
void* operator new(std::size_t size, std::align_val_t a) { return allocate(size, std::size_t(a), false); }
void* operator new[](std::size_t size, std::align_val_t a) { return allocate(size, std::size_t(a), false); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0, true); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0, true); }
void* operator new(std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
    return allocate(size, std::size_t(a), true);
}
void* operator new[](std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
    return allocate(size, std::size_t(a), true);
}

void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
