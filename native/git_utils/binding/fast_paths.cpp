#include "git_utils/binding/fast_paths.hpp"

#include "git_utils/binding/state.hpp"

namespace gu {

bool allowed(const ModuleState* st, FastPath path) {
    return guard_holds(st->fast_paths[static_cast<std::size_t>(path)]);
}

bool allowed_for(const ModuleState* st, FastPath path, PyObject* found) {
    return found == subject_of(st, path) && allowed(st, path);
}

PyObject* subject_of(const ModuleState* st, FastPath path) {
    return st->fast_paths[static_cast<std::size_t>(path)].subject;
}

int build_fast_paths(PyObject* module, std::span<const FastPathDef> defs) {
    ModuleState* st = state_of(module);
    for (const FastPathDef& def : defs) {
        GuardBuilder guard;
        if (def.build(module, guard) < 0 || guard.finish(st->fast_paths[static_cast<std::size_t>(def.path)]) < 0)
            return -1;
    }
    return 0;
}

}  // namespace gu
