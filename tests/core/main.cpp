#include <cstdio>

#include "check.hpp"

int main() {
    int failed_cases = 0;
    for (const auto& c : check::registry()) {
        const int before = check::failures();
        c.body();
        if (check::failures() != before) {
            ++failed_cases;
            std::fprintf(stderr, "FAILED: %s\n", c.name);
        }
    }
    const int total = static_cast<int>(check::registry().size());
    std::printf("%d passed, %d failed\n", total - failed_cases, failed_cases);
    return failed_cases == 0 ? 0 : 1;
}
