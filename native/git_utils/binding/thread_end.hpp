// A thread that glibc ends (pthread_exit, or a cancellation) is unwound as
// an exception would unwind it: destructors run, and every catch (...) on
// the way catches the unwind. A handler that catches it must rethrow it or
// never end: leaving the handler makes glibc abort ("exception not
// rethrown"). Up to 3.13 the interpreter ends this way a daemon thread that
// asks for the lock while it finalizes.
//
// The unwind is no C++ exception. libstdc++ names it abi::__forced_unwind
// and rethrows it as the unwind it was. libc++ has no name for it, takes it
// for another language's exception and can't rethrow it (its rethrow starts
// a new search for a handler, finds none above the thread's first frame and
// terminates). Both hold no std::exception_ptr for a foreign exception.
#pragma once

#if defined(__linux__)
// Where threads end so (glibc; musl ends them without unwinding, and the
// check below then finds nothing).
#define GITUTILS_THREAD_END 1

#include <exception>

#include <unistd.h>

namespace gu {

// The thread is done with Python for good: it waits until the process exits.
[[noreturn]] inline void park_thread() {
    for (;;) ::pause();
}

// Inside a catch (...): whether what was caught is glibc ending the thread.
// No other exception of another language reaches this code (the interpreter
// throws none), and every C++ exception has an exception_ptr.
inline bool thread_being_ended() noexcept { return !std::current_exception(); }

}  // namespace gu
#endif
