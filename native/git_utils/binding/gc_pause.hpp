// Holds the cyclic garbage collector off while a parser fills records that
// no Python code can see yet: each record is a tracked object, and the
// collections their number would trigger only walk objects that are all
// alive. The collector is enabled again (if it was) when the pause ends.
// The switch is the interpreter's, not the thread's: with the global lock no
// other thread runs while the parse holds it; without that lock others would
// run with the collector off and could switch it themselves meanwhile (our
// enable undoing their disable), so there the pause does nothing.
#pragma once

#include <Python.h>

namespace gu {

class GcPause {
public:
#ifdef Py_GIL_DISABLED
    explicit GcPause(bool) : paused_(false) {}
#else
    explicit GcPause(bool wanted) : paused_(wanted && PyGC_Disable() == 1) {}
#endif
    GcPause(const GcPause&) = delete;
    GcPause& operator=(const GcPause&) = delete;
    ~GcPause() {
        if (paused_) PyGC_Enable();
    }

private:
    bool paused_;
};

}  // namespace gu
