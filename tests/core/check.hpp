// A minimal test harness for the byte-level core: TEST_CASE registers a
// function, CHECK records a failure and goes on, main() runs them all.
#pragma once

#include <cstdio>
#include <functional>
#include <vector>

namespace check {

struct Case {
    const char* name;
    std::function<void()> body;
};

inline std::vector<Case>& registry() {
    static std::vector<Case> cases;
    return cases;
}

inline int& failures() {
    static int count = 0;
    return count;
}

struct Register {
    Register(const char* name, std::function<void()> body) { registry().push_back({name, std::move(body)}); }
};

}  // namespace check

#define CHECK_CONCAT_(a, b) a##b
#define CHECK_CONCAT(a, b) CHECK_CONCAT_(a, b)
#define TEST_CASE(name)                                                                                          \
    static void CHECK_CONCAT(check_case_, __LINE__)();                                                           \
    static const check::Register CHECK_CONCAT(check_reg_, __LINE__){name, CHECK_CONCAT(check_case_, __LINE__)}; \
    static void CHECK_CONCAT(check_case_, __LINE__)()
#define CHECK(expr)                                                                                   \
    do {                                                                                              \
        if (!(expr)) ++check::failures(), std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #expr); \
    } while (0)
