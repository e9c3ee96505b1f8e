#include "git_utils/binding/boundary.hpp"

#include <cstdlib>
#include <exception>
#include <new>
#include <typeinfo>

#if defined(__GNUC__) || defined(__clang__)
#include <cxxabi.h>
#endif

namespace gu {
namespace {

// SystemError("<type> escaped from native code: <what>").
void raise_system_error(const std::type_info& type, const char* what) noexcept {
    const char* name = type.name();
#if defined(__GNUC__) || defined(__clang__)
    int status = 0;
    char* readable = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    if (readable != nullptr) name = readable;
#endif
    PyErr_Format(PyExc_SystemError, "C++ exception %s escaped from native code: %s", name, what);
#if defined(__GNUC__) || defined(__clang__)
    std::free(readable);
#endif
}

}  // namespace

void raise_for_current_exception() noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& e) {
        raise_system_error(typeid(e), e.what());
    } catch (...) {
        PyErr_SetString(PyExc_SystemError, "a C++ exception of unknown type escaped from native code");
    }
}

}  // namespace gu
