// Work done with the interpreter's lock released, and the lock taken back.
//
// A daemon thread that takes the lock back while the interpreter finalizes
// never returns to Python. Up to 3.13 the interpreter ends such a thread with
// pthread_exit, which on glibc unwinds the thread's stack as an exception
// would: every frame above would run its destructors, and our owning handles
// would release Python objects without the lock, at exit. Here the unwind
// stops at the boundary and the thread parks for good, as 3.14 and later park
// it themselves; what `work` owned (a started git, with its pipes) has been
// released by then, its destructors run on the way.
#pragma once

#include <Python.h>

#include "git_utils/binding/ref.hpp"
#include "git_utils/binding/thread_end.hpp"

namespace gu {

// The lock, taken back inside `work` for a moment (through the state that
// run_unlocked hands it) and released again.
class Relock {
public:
    explicit Relock(PyThreadState*& saved) : saved_(saved) { PyEval_RestoreThread(saved_); }
    ~Relock() {
        if (may_release()) saved_ = PyEval_SaveThread();  // else the thread is being ended without the lock
    }
    Relock(const Relock&) = delete;
    Relock& operator=(const Relock&) = delete;

private:
    PyThreadState*& saved_;
};

// Takes the lock back for good after work done without it; a thread that
// the finalizing interpreter ends there parks instead.
inline void take_back(PyThreadState* saved) {
#ifdef GITUTILS_THREAD_END
    try {
        PyEval_RestoreThread(saved);
    } catch (...) {
        park_thread();  // nothing else leaves a C function: glibc ends the thread
    }
#else
    PyEval_RestoreThread(saved);
#endif
}

// Calls work(saved) with the lock released, where `saved` is the thread state
// a Relock inside takes the lock back with; returns with the lock held.
// Any other C++ exception from `work` is rethrown with the lock held.
template <class Work>
void run_unlocked(Work&& work) {
    PyThreadState* saved = PyEval_SaveThread();
    try {
        work(saved);
    } catch (...) {
#ifdef GITUTILS_THREAD_END
        if (thread_being_ended()) park_thread();  // a Relock inside was refused the lock at exit
#endif
        take_back(saved);
        throw;
    }
    take_back(saved);
}

}  // namespace gu
