// Holds the cyclic garbage collector off while a parser fills records that
// no Python code can see yet: each record is a tracked object, and the
// collections their number would trigger only walk objects that are all
// alive. The collector is enabled again (if it was) when the pause ends.
#pragma once

#include <Python.h>

namespace gu {

class GcPause {
public:
    explicit GcPause(bool wanted) : paused_(wanted && PyGC_Disable() == 1) {}
    GcPause(const GcPause&) = delete;
    GcPause& operator=(const GcPause&) = delete;
    ~GcPause() {
        if (paused_) PyGC_Enable();
    }

private:
    bool paused_;
};

}  // namespace gu
