// Where the interpreter calls into the binding layer: the native function's
// call, the type's slots and getters, the module's initialisation. No C++
// exception may cross into the interpreter, so each of these entry points is
// wrapped `at_boundary`: an exception that leaves its body becomes the Python exception
// it stands for, MemoryError for std::bad_alloc, SystemError naming any
// other. The interpreter's lock is held whenever an exception gets here:
// work done without it (run_unlocked) takes it back before rethrowing.
// The slots that can't report an error (dealloc, traverse, clear, the
// module's free) call only the C API, which throws nothing.
#pragma once

#include <Python.h>

#include <type_traits>

#include "git_utils/binding/thread_end.hpp"

#if defined(__GLIBCXX__)
#include <cxxabi.h>
#endif

namespace gu {

// Sets the Python exception for the C++ exception being handled; only
// inside a catch block.
void raise_for_current_exception() noexcept;

template <auto Body>
struct AtBoundary;

template <class R, class... Args, R (*Body)(Args...)>
struct AtBoundary<Body> {
    static_assert(std::is_pointer_v<R> || std::is_same_v<R, int>, "an entry point reports errors by null or -1");

    static R entry(Args... args) {
        try {
            return Body(args...);
#if defined(__GLIBCXX__)
        } catch (abi::__forced_unwind&) {
            throw;  // a thread being ended (pthread_exit) unwinds on through
#endif
        } catch (...) {
#ifdef GITUTILS_THREAD_END
            // libc++ can't pass the unwind on (thread_end.hpp): the thread
            // parks, without the lock, as 3.14 and later park it themselves.
            if (thread_being_ended()) park_thread();
#endif
            raise_for_current_exception();
        }
        if constexpr (std::is_pointer_v<R>)
            return nullptr;
        else
            return -1;
    }
};

// `Body` as an entry point the interpreter may call.
template <auto Body>
inline constexpr auto at_boundary = &AtBoundary<Body>::entry;

}  // namespace gu
