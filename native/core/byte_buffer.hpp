// A growable byte buffer for what a child process prints. It grows with
// realloc and never initialises its spare capacity, so a large output costs
// one copy of its bytes at most (glibc moves big blocks with mremap) and the
// untouched tail is never resident.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>
#include <string_view>
#include <utility>

#ifdef GITUTILS_FAULT_INJECTION
// The test build's failing allocations (native/testing/failing_new.cpp)
// reach the buffer's realloc too.
extern "C" bool gitutils_allocation_fails() noexcept;
#endif

namespace gu::core {

class ByteBuffer {
public:
    ByteBuffer() noexcept = default;
    ByteBuffer(const ByteBuffer&) = delete;
    ByteBuffer& operator=(const ByteBuffer&) = delete;
    ByteBuffer(ByteBuffer&& o) noexcept
        : data_(std::exchange(o.data_, nullptr)),
          size_(std::exchange(o.size_, 0)),
          capacity_(std::exchange(o.capacity_, 0)) {}
    ByteBuffer& operator=(ByteBuffer&& o) noexcept {
        if (this != &o) {
            std::free(data_);
            data_ = std::exchange(o.data_, nullptr);
            size_ = std::exchange(o.size_, 0);
            capacity_ = std::exchange(o.capacity_, 0);
        }
        return *this;
    }
    ~ByteBuffer() { std::free(data_); }

    char* data() noexcept { return data_; }
    const char* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    std::string_view view() const noexcept { return {data_ ? data_ : "", size_}; }

    // Room for at least `n` more bytes after the current end.
    char* reserve_tail(std::size_t n) {
        if (capacity_ - size_ < n) {
            std::size_t want = capacity_ ? capacity_ * 2 : n;
            if (want < size_ + n) want = size_ + n;
#ifdef GITUTILS_FAULT_INJECTION
            if (gitutils_allocation_fails()) throw std::bad_alloc();
#endif
            void* p = std::realloc(data_, want);
            if (p == nullptr) throw std::bad_alloc();
            data_ = static_cast<char*>(p);
            capacity_ = want;
        }
        return data_ + size_;
    }
    std::size_t tail_room() const noexcept { return capacity_ - size_; }
    void commit(std::size_t n) noexcept { size_ += n; }
    void resize_down(std::size_t n) noexcept {
        if (n < size_) size_ = n;
    }
    void clear() noexcept {
        std::free(data_);
        data_ = nullptr;
        size_ = capacity_ = 0;
    }

private:
    char* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace gu::core
